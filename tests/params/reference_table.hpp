// Reference list of the registry: every name with its type, default and (for
// strings) width, written out independently of the library's own table.
// Shared by the registry tests; the library's table must agree with it.
#pragma once

#include <string_view>

namespace korn_ref {

struct RealDefault {
  std::string_view name;
  double value;
};
struct IntDefault {
  std::string_view name;
  int value;
};
struct LogicalDefault {
  std::string_view name;
  bool value;
};
struct CharDefault {
  std::string_view name;
  int width;
  std::string_view value;  // without trailing blanks
};

// Reals (66). `ecg`, `etr`, `ewt`, `wft` are read-only values in force.
inline constexpr RealDefault kRealDefaults[] = {
    {"a_cmplx_agg_default", 1.2}, {"a_cmplx_default", 2.5}, {"b_cmplx", 0.0}, {"b_cmplx_agg_default", 1.2},
    {"b_cmplx_default", 2.0}, {"blk_fillexp", 0.5}, {"blk_stab", 0.25}, {"cl_global_quality", -1.0},
    {"cl_quality_measure", 10.0}, {"conv_stop", 0.01}, {"delta_milu", 1.0}, {"densx", 0.2},
    {"divergence", 1.1}, {"droptol", 0.005}, {"droptol_2nd", 0.005}, {"droptol_cl", 0.005},
    {"droptol_smo", 0.005}, {"ecg", -2e50}, {"ecg_default", 21.25}, {"eps_abs", 0.0},
    {"eps_accept_jac_uzawa", 0.1}, {"eps_converg_jac_uzawa", 0.01}, {"eps_dd", 0.9}, {"eps_diag", 1e-5},
    {"eps_diverg_jac_uzawa", 10000.0}, {"eps_lsq", 0.005}, {"etr", -2e50}, {"etr2_smo", 0.075},
    {"etr_default", 12.2}, {"ewt", -2e50}, {"ewt_default", 0.2}, {"factor_app_var", 1e-10},
    {"factor_matrix_scale", 1.1}, {"factor_quasi_res", 1.5}, {"factor_res_var", 1.01},
    {"factor_sol_jac_uzawa", 0.8}, {"full_setup", 0.0}, {"g_cmplx_agg_default", 1.2},
    {"g_cmplx_default", 1.8}, {"gmax_multipass", 0.75}, {"ib_cmplx", 0.0}, {"ib_cmplx_agg_default", 1.2},
    {"ib_cmplx_default", 2.0}, {"omega_jac_es_uzawa", 0.3}, {"omega_jac_p_uzawa", 0.4}, {"omega_jacobi", 0.5},
    {"omega_smo", 0.5}, {"omega_sor_do", 0.0}, {"omega_sor_up", 0.0}, {"omega_uzawa", 0.125},
    {"p_cmplx_agg_default", 1.2}, {"p_cmplx_default", 1.8}, {"partial_frac", 0.3}, {"rcondx", 1e-6},
    {"reduct_kcycle", 1e-6}, {"rel_app_var", 1e-5}, {"rho_min", 0.9}, {"rho_ok", 0.1},
    {"slow_coarsening", 0.75}, {"stability", 0.25}, {"tau_uzawa", 0.125}, {"term_coarsening", 0.9},
    {"w_avrge_agg_default", 1.2}, {"w_avrge_default", 2.5}, {"wft", 0.0}, {"wtsl", 0.0},
};

// Integers (175). `nversion` is 4 at load; this is its value after a reset.
inline constexpr IntDefault kIntDefaults[] = {
    {"allow_elim", 1}, {"block_scale", 0}, {"block_scale2", 0}, {"cl_auto_size", 0}, {"cl_cpl", 3},
    {"cl_level_dep", 0}, {"cl_omp", 1}, {"cl_order", 2}, {"cl_proc_border", 0}, {"cldense_ctrl", 1},
    {"clsolver_finest", 0}, {"cntrl_enforce", 1}, {"cntrl_method", 2}, {"cntrl_res_diff", 2},
    {"cntrl_retry_iter", 10}, {"cntrl_steady", 0}, {"cset_lastpnt", 0}, {"cset_lessvars", 0},
    {"cset_longrow", 0}, {"cset_unknown", 0}, {"cset_unknown1", 0}, {"cset_unknown2", 0},
    {"cset_zerodiag", 0}, {"dump_correctw", 0}, {"iall_smo", 1}, {"iauto_stop", 11}, {"ibgs_pivot", 0},
    {"icase_jac_uzawa", 1}, {"icheck_smoint", 0}, {"icolor_omp", 2}, {"icrits", 110}, {"idtest_uzawa", 0},
    {"iestim_smooth_nit", 5}, {"iestim_spect_radius", 0}, {"ihuge", 0}, {"ijac_uzawa", 0}, {"ilu_speed", 1},
    {"impldo_read_write_len", 2000000}, {"inner_accel", 1}, {"iodump", 32}, {"iogrid", 33}, {"iomovie", 34},
    {"iordered_omp", 0}, {"ioscratch_default", 31}, {"iounit_opta", 6}, {"ipass_max_set", 0},
    {"ipressure_uzawa", 0}, {"irestriction_openmp", 2}, {"isat_uzawa", 0}, {"iset_vio_dd", 1},
    {"ismoagg_aggressive", 0}, {"ismoagg_block_typ", 0}, {"ismoagg_compression", 0},
    {"ismoagg_filter_typ", 1}, {"ismoagg_overcorrection", 0}, {"ismoagg_smooth_nit", 5},
    {"ismoagg_smooth_nlev", 1}, {"ismoagg_smooth_typ", 2}, {"isstep_uzawa", 1}, {"isteering", 0},
    {"istep1case_uzawa", 1}, {"iswit3_user", 0}, {"iter_check", 3}, {"iter_matrix_scale", 100},
    {"iter_pre", 0}, {"itmax_conv", 200}, {"itrace_amgmain", 0}, {"itrace_cldense", 0}, {"itrace_clsol", 0},
    {"itrace_jac_uzawa", 0}, {"itrace_matrix_storage", 0}, {"itrace_schwarz", 0}, {"itrace_smo", 0},
    {"itrace_sol", 0}, {"itrace_split", 0}, {"itrace_uzawa", 0}, {"itracelevel", 0}, {"k_dyncyc", 0},
    {"lastgrid", 0}, {"lev_coarsening_too_slow", -1}, {"levels_uzawa", 25}, {"levelx", -1000000000},
    {"levelx_2nd", 1}, {"lfil_2nd", 20}, {"lfil_cl", -10}, {"lfil_smo", 9}, {"logio", 6},
    {"matrix_scale_renorm", 0}, {"max_calls", 4}, {"max_cl_size", 0}, {"max_level", 25},
    {"max_nb_list_size", 0}, {"maxcorr_cluster", 2}, {"maxiter_jac_uzawa", 500}, {"maxop_restart", 2},
    {"maxretry_jac_uzawa", 4}, {"milu", 0}, {"min_cl_size", 0}, {"min_multi_size", 25000},
    {"miniter_jac_uzawa", 10}, {"mode_cntrl", 5}, {"mode_debug", 1}, {"mode_mess", 0}, {"modify_mat", 0},
    {"multipass_allcoup", 0}, {"nblk_debug", 0}, {"nblk_max", 5000}, {"nblk_overlap", 0}, {"nblk_resid", 0},
    {"nblk_solve", 1}, {"nblk_solver", 3}, {"nbnd_omega", 0}, {"nbnd_omega_uzawa", 0}, {"nbnd_sweeps", 2},
    {"nbnd_sweeps_uzawa", 2}, {"ncframes", -1}, {"ncg", -1000000000}, {"ncgrad_default", 1},
    {"ncyc_2nd", 110100}, {"ncyc_default", 11030}, {"ncyc_min", 0}, {"ncyc_start", 2}, {"ndyn_smo", 0},
    {"neg_diag", 20}, {"neg_diag_brute", 20}, {"new_entries", 1}, {"new_topology", 2}, {"nilu_reorder", 0},
    {"nint_rowsum1", 0}, {"ninter_omp", 1}, {"nkcycle", 0}, {"nkdim_default", 30}, {"nmin_matrix", 1},
    {"nmin_matrix_resc", 1}, {"nmin_vector", 1}, {"np_mod1", 0}, {"np_mod2", 0}, {"np_opt", -1000000000},
    {"nptmax", 1500}, {"nptmn", -1000000000}, {"nrc", -1000000000}, {"nrc_emergency", 3},
    {"nrd", -1000000000}, {"nrd_2nd", 1}, {"nru", -1000000000}, {"nru_2nd", 0}, {"nsimple_emergency", 0},
    {"nsmoagg", 0}, {"nsmoagglev", 25}, {"nsolve_2nd", 21}, {"nsolve_default", 2}, {"nsolve_uzawa", 0},
    {"nstar_typ", 0}, {"nsw_omega_uzawa", 50}, {"nsw_uzawa", 1}, {"ntake_res_in", 0}, {"nth_res_scratch", 0},
    {"ntr", -1000000000}, {"ntr_prim", 0}, {"ntyp_accel", 0}, {"ntyp_galerkin", 0}, {"numtry_max_set", 0},
    {"nversion", -1000000000}, {"nwt", -1000000000}, {"nxtyp_coarse", -1}, {"omp_num_threads_external", 0},
    {"opt_matrix_ops", 1}, {"prim_norm", 0}, {"prim_print", 0}, {"prnt_stat_schwarz", 0}, {"show_un_res", 0},
    {"use_ic", 2}, {"vio_dd", 0}, {"wcoupled", 0}, {"write_cluster_id", 0},
};

// Logicals (31).
inline constexpr LogicalDefault kLogicalDefaults[] = {
    {"allow_filnam_in", true}, {"allow_private_in", false}, {"alluns_at_allpnts", false}, {"backup", true},
    {"check_allpnts", true}, {"check_order", false}, {"cl_cmk_reorder", false}, {"cntrl_logfile", false},
    {"cntrl_release", false}, {"force_accel", false}, {"force_accel_2nd", false}, {"full_pivoting", false},
    {"galerkin_timer", false}, {"glk_mult_zeros", false}, {"ilu4allschwarz", false}, {"info_keepmem", false},
    {"k_disable_krylov1", true}, {"keepmem", false}, {"lu_reuse", false}, {"notalluns_cheap", true},
    {"nprim_at_allpnts", false}, {"perf_meter_enabled", false}, {"print_nxtyp_coarse_msg", false},
    {"print_setup_ilu_or_direct", false}, {"read_tollan_coarsening", false}, {"read_uzawa_parms", false},
    {"refresh_called", false}, {"stacktrace", false}, {"struct_ident", false}, {"track_ap_p", false},
    {"trackmem", false},
};

// Character parameters (11): name, width, default.
inline constexpr CharDefault kCharDefaults[] = {
    {"bnd_partition_file", 200, "bnd_partition"}, {"cset_read", 100, ""}, {"filnam", 100, "temp"},
    {"filnam_dump", 300, "level"}, {"filnam_uzawa", 100, "mod_j.in"}, {"iofile_opta", 200, ""},
    {"ioform", 1, "b"}, {"logfile", 200, ""}, {"omp_partition_file", 200, ""},
    {"partition_file", 200, "partition"}, {"scratchfile", 200, "scratch.korn"},
};

// The ten names that the typed getters read and nothing may set.
inline constexpr std::string_view kReadOnly[] = {"ecg", "etr", "ewt", "ncg", "nrc",
                                                 "nrd", "nru", "ntr", "nwt", "wft"};

// Names of the distributed build's settings (174) that a parameter file may hold.
inline constexpr std::string_view kForeignOnly[] = {
    "all_read_filnam_in", "bnd_omega_jacobi", "check_ja", "check_multiple", "check_struct_symm",
    "chk_msg_len_rec", "chk_msg_len_rec_full", "chk_sendrecv", "chk_toler", "cl_collect",
    "cl_collect_emergency", "coarsen_serial_mode", "collcheck_coll1p_uzawa", "colltst_nout_max",
    "colltstw_nout_max", "crazy_tst_list_copy", "cross_chk_minmsg_len", "cset_read_disabled",
    "cset_read_partition_file", "developer_branches", "direct_int_bnd_elim", "direct_int_forcec",
    "do_dumprestart", "do_progress_report", "enabled_coo", "enabled_correct_p_w", "expensive_color",
    "extension_in_cluster", "gwovr_alltoall_mode", "gwovr_alltoall_opt", "gwovr_strict_pr_check",
    "ialltoallv_barrier", "icheck_global_parms", "ichk_galerkin", "icolor_level", "icomm_flag",
    "icset_read_localfile", "icset_read_partitionfile", "idirect_point_strategy", "idump_trace",
    "igatherv_barrier", "igatherv_m_strategy", "igatherv_v_strategy", "igwovr_redundant", "iiout_trace",
    "ilocal_pcol_aggr_mode", "ilu_local_order", "iluser", "incr_stacktrace", "info_partition",
    "ipara_coarsen", "ipasson", "irank_stacktrace_end", "irank_stacktrace_start", "irelen",
    "iscatterv_barrier", "iscatterv_strategy", "isendrecv_strategy", "istack_sol", "iswit3_pntovrlap",
    "iswit3_same_checklevel", "itrace_amgint", "itrace_amgmem", "itrace_amgset", "itrace_coll1p",
    "itrace_collsp", "itrace_collstrip", "itrace_colltst_i_ret", "itrace_colltstwp_i_ret", "itrace_enum",
    "itrace_expensive_collsp", "itrace_g_i_ret", "itrace_galerkp", "itrace_galerks", "itrace_gwovr_extension",
    "itrace_ilu", "itrace_int0", "itrace_iswit23", "itrace_mapping", "itrace_mod_a", "itrace_mpi",
    "itrace_ovr_extension", "itrace_pamgint", "itrace_pamgint_opt", "itrace_kornp", "itrace_setpmat",
    "itrace_strong", "itrace_upd", "itrace_wovr_extension", "itrace_xkorn", "itrace_ykorn", "itrace_zkorn",
    "iupdate_version", "iwhere_to_trace", "iwidth_collstrip", "lev_coarsen", "list_blksize_minimal",
    "loadbalance_statistics", "lowest", "mapping", "matrix_list_strategy", "max_cycles", "maxblen_sendrec",
    "minimal_msg_len", "mode_23z1", "mode_crsng_msg", "mode_halo", "mode_iswit3", "mode_iswit3_sident",
    "mode_mess_trace", "msg2stdout", "n_case2", "n_case3", "nbnd_sweeps_post", "nbnd_sweeps_pre", "ncyc_div",
    "ndump_first", "ndump_max_neg", "ndump_max_pos", "ndump_save", "never_skip_m_data",
    "no_multipass_deadlocks", "noverlap_ilu_cl", "noverlap_ilu_level1", "noverlap_ilu_type", "noverlap_ilux",
    "nsctot_min", "ntrysolv", "only_quasi_res", "ovr_alltoall_mode", "ovr_alltoall_opt",
    "ovr_extension_uzawa", "ovr_strict_pr_check", "print_amgcl_decisions", "print_glinfo_statistics",
    "print_ilu_ovr_stat", "print_levels_levelsp", "print_memo_in_driver", "print_memo_in_korn",
    "print_memo_in_kornp", "print_memo_in_kornpp", "rank_last_report", "redis_sendrecv",
    "redo_matrix_extension", "remove_redundancies", "remove_redundancies_a", "sa_enabled", "sa_iform",
    "korn_istop", "serial_sorting", "standard_int_bnd_elim", "standard_int_forcec", "stat_details",
    "strict_msg_len_rec", "struct_symm", "term_if_idle", "trace_memo", "trace_memory_leak",
    "trace_mpart_recv", "trace_mpart_send", "trace_outfile", "trace_postdump", "trace_predump",
    "trace_thread_management", "tst_vell_nxtyp9", "upd_after_part_sweeps", "upd_statistics",
    "waitall_problem", "warning_memory_counter", "wminlen", "wovr_alltoall_mode", "wovr_alltoall_opt",
    "wovr_strict_pr_check", "xkorn_metis",
};

}  // namespace korn_ref
