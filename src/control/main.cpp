// korn_main: the one sequence of a run (log, validation, matrix checks, setup
// or reuse of the hierarchy, first approximation, solve, cleanup) and the
// cleanup that releases run data.
#include <omp.h>

#include <chrono>
#include <cstdint>
#include <random>
#include <string>

#include "control/control.hpp"
#include "log/log.hpp"
#include "params/params.hpp"
#include "setup/setup.hpp"
#include "solve/solve.hpp"
#include "store/store.hpp"

namespace kornlt {

ControlState& control() {
  static ControlState state;
  return state;
}

double wall_time() {
  using clock = std::chrono::steady_clock;
  static const auto start = clock::now();
  return std::chrono::duration<double>(clock::now() - start).count();
}

ThreadScope::ThreadScope() : saved_(omp_get_max_threads()) {
  if (prm().omp_num_threads_external > 0) omp_set_num_threads(prm().omp_num_threads_external);
}
ThreadScope::~ThreadScope() { omp_set_num_threads(saved_); }

namespace {

constexpr std::string_view kBanner = "KORN-LT, Release 27a2 (22 Oct 2013)";

int trace_level() { return std::max(prm().itrace_amgmain, prm().itracelevel); }

void trace(std::string_view text) {
  if (trace_level() > 0) print_line(0, 0, text);
}

// The banner and, by the echo level, the parameters in force.
void print_banner(const Input& in) {
  if (in.out_level < 1 || !in.messages_on) return;
  print_line(1, 0, kBanner);
  if (in.echo_level == 0) return;
  const Params& p = prm();
  print_line(0, 0, " run mode   : " + fmt_int(in.run_mode) + "   norm_typ: " + fmt_int(in.norm_typ) +
                       "   n_default: " + fmt_int(in.n_default));
  print_line(0, 0, " cycle      : igam " + fmt_int(in.igam) + "  ncgrad " + fmt_int(in.ncgrad) +
                       "  nkdim " + fmt_int(in.nkdim) + "  ncycle " + fmt_int(in.ncycle));
  print_line(0, 0, " smoothing  : nrd " + fmt_int(in.nrd) + "  nru " + fmt_int(in.nru) + "  nrc " +
                       fmt_int(in.nrc) + "  nxtyp " + fmt_int(in.nxtyp));
  print_line(0, 0, " coarsening : ncg " + fmt_int(in.ncg) + "  nwt " + fmt_int(in.nwt) + "  ntr " +
                       fmt_int(in.ntr) + "  levelx " + fmt_int(in.levelx) + "  nptmn " + fmt_int(in.nptmn));
  print_line(0, 0, " threads    : " + fmt_int(omp_get_max_threads()) + "  nmin_matrix " +
                       fmt_int(p.nmin_matrix) + "  nmin_vector " + fmt_int(p.nmin_vector));
}

// Points given by `ip` must come in ascending order of variables.
void check_point_order(int nnu, const int* ip) {
  bool ordered = true;
  for (int i = 1; i < nnu && ordered; ++i) ordered = ip[i - 1] <= ip[i];
  print_message(kMsgInfo, 0, 0,
                ordered ? "Point Info in ip was already ordered (korn_main)"
                        : "Point Info in ip was ordered (korn_main)");
}

// The matrix forcing routines selected by the third digit of `matrix`.
void force_matrix(const CoreCall& c, int mode) {
  const std::string name = "iforce0-" + fmt_int(mode);
  if (mode == 8 || mode > 9) {
    fail(kErrIllegalParameter, "Illegal value of parameter <iforce0> in (korn_main)!");
    return;
  }
  if (mode >= 4 && mode <= 7 && c.nsys != 1) {
    fail(kErrIllegalParameter, "Setting of parameter <" + name + "> only legal if NSYS=1 (korn_main)!");
    return;
  }
  fail(kErrNotAvailable, "Matrix modification <" + name + "> is not available in this build (korn_main)!");
}

void release_solve_work() {
  SolveState& s = solve_state();
  s.uold = {};
  s.resh = {};
  s.star_e = {};
  s.star_c = {};
  s.restriction = {};
  s.cf_rows = {};
}

}  // namespace

void first_guess(int ifirst, int nnu, double* u) {
  std::array<int, 2> d{};
  idec(ifirst, d);
  const int mode = ifirst < 0 ? -d[0] : d[0];
  if (mode == 1) {
    std::fill(u, u + nnu, 0.0);
  } else if (mode == 3) {
    // Seeded random values below 1: the seed is the second field scaled
    // below 1 by factors of 0.1, or 0.72815 without one.
    double seed = d[1];
    while (seed >= 1.0) seed *= 0.1;
    if (d[1] == 0) seed = 0.72815;
    std::mt19937_64 gen(static_cast<std::uint64_t>(seed * 4294967296.0));
    std::uniform_real_distribution<double> dist(0.0, 1.0);
    for (int i = 0; i < nnu; ++i) u[i] = dist(gen);
  }
}

void korn_cleanup(std::string_view text, bool keep_parts) {
  const std::string words = keep_parts ? "__(PARTIAL_CLEANUP)_" : "__(FULL_CLEANUP)_";
  trace(">>> " + std::string(text) + words);
  ControlState& ctl = control();
  std::fill(std::begin(ctl.saved_extents), std::end(ctl.saved_extents), -1);
  ctl.struct_ident_saved = 0;
  StoreState& st = store();
  if (!keep_parts) {
    u_dealloc();
    a_dealloc();
    w_dealloc();
    st.levels = 0;
    st.levels_done = 0;
  }
  ctl.decomposition_ready = false;
  coarsest_state().release();
  release_solve_work();
  trace("<<< " + std::string(text) + words);
}

void korn_main(CoreCall& c) {
  ControlState& ctl = control();
  StoreState& st = store();
  Params& p = prm();
  Input& in = input();
  bool cleanup_done = false;

  // 1-2. Trace and log.
  trace("entering korn_main");
  int opened_here = 0;
  if (const int code = open_logfile(opened_here); code != 0) {
    print_message(kMsgError, 0, 0, "A problem with a specified logfile occurred (korn_main)!");
    ierr() = code;
    *c.ierr = code;
    return;
  }

  // 3. Start of a run.
  if (ctl.run_counter == 0) {
    st.int_per_real = 2;
    ctl.struct_ident_saved = 0;
  }
  ++ctl.run_counter;
  ctl.setup_time = ctl.solve_time = 0.0;
  ierr() = 0;
  *c.ierr = 0;
  *c.ncyc_done = 0;
  *c.res_out = -1.0;
  if (p.ntake_res_in == 0) *c.res_in = -1.0;

  auto error_exit = [&] {
    if (!cleanup_done) korn_cleanup("Error_in_korn_main", false);
    *c.ierr = ierr();
    trace("leaving korn_main, ierr " + fmt_int(ierr()));
  };

  // 4. iswit 0 only releases memory.
  if (c.iswit == 0) return error_exit();

  // 5-6.
  if (c.nnu <= c.ndip && c.ip != nullptr) check_point_order(c.nnu, c.ip);
  if (p.block_scale != 0) {
    print_message(kMsgWarning, 1, 0, "block scaling requested but not computed.");
    print_message(kMsgWarning, 0, 1, "Reset block_scale=0 (korn-main)");
    ierr() = kWarnParameterCorrected;
    p.block_scale = 0;
  }

  // 7. Decode and check the settings.
  korn_input(InputArgs{c.nnu, c.nna, c.nsys, c.nsolve, c.iscale, c.ifirst, c.ndiu, c.ndip, c.iswit,
                       c.matrix, c.ncyc, c.idump, c.iout, c.a_cmplx, c.g_cmplx, c.p_cmplx, c.w_avrge});
  if (failed()) return error_exit();

  // 8. Pointer test.
  if (c.ia[c.nnu] - 1 != c.nna) {
    fail(kErrPointer, "Wrong pointer value: ia0(nnu+1)-1 <> nna in (korn_main)!");
    return error_exit();
  }

  bind_level1(c.nnu, c.ia, c.ja, c.a, c.u, c.f);

  // 9-13. Banner, matrix modifications, dumps, checks.
  print_banner(in);
  if (in.force_mode > 0) {
    force_matrix(c, in.force_mode);
    if (failed()) return error_exit();
  }
  if (p.modify_mat != 0 && in.run_mode != 1) {
    fail(kErrNotAvailable, "Option not available (modify_mat)");
    return error_exit();
  }
  if (in.dump_level > 1) {
    fail(kErrNotAvailable, "Matrix dumps are not available in this build (korn_main)!");
    return error_exit();
  }
  if (in.run_mode != 1 && !ctl.matrix_checked) {
    logical_check(c.nnu, c.nna, c.ia, c.ja, c.a, !in.proper_matrix);
    if (failed()) return error_exit();
    ctl.matrix_checked = true;
  }
  if (c.chktol > 0.0 && in.run_mode != 1) {
    if (in.proper_matrix) {
      additional_checks(c.nnu, c.ia, c.ja, c.a, c.chktol, in.isym, in.irow0);
      if (failed()) return error_exit();
    } else {
      print_message(kMsgInfo, 0, 0, "additional matrix checks are skipped");
    }
  }

  // 14. Setup or reuse by the run mode.
  double t0 = wall_time();
  if (in.run_mode < 1 || in.run_mode > 5) {
    fail(kErrIllegalParameter, "Illegal value of parameter <iswit> in (korn_main)!");
    return error_exit();
  }
  if (in.run_mode >= 4) {
    // 15-20. New setup.
    korn_dimensions(DimensionArgs{c.nna, c.nnu, c.nsys, 0, in.a_cmplx, in.g_cmplx, in.w_avrge, in.p_cmplx,
                                  in.run_mode, in.one_level});
    if (failed()) {
      cleanup_done = true;
      return error_exit();
    }
    st.imin[1] = 1;
    st.imax[1] = c.nnu;
    st.nnu_all = c.nnu;
    st.nna_all = c.nna;
    ctl.mark_ints = st.memi;
    ctl.mark_reals = st.memd;
    ctl.mark_sum = st.watermark();
    coarsest_state().release();
    if (in.one_level) {
      ctl.solver_cl_used = in.nrc;
      st.levels = 1;
      ctl.nnu_level1 = c.nnu;
      ctl.nna_level1 = c.nna;
    } else {
      // 18. The hierarchy.
      const int nrc_before = in.nrc;
      crsng_data();
      if (failed()) return error_exit();
      create_levels(in.levelx, in.nrc);
      if (failed()) return error_exit();
      if (st.levels > 1) {
        u_alloc(4, c.nnu, st.ndu);
        if (failed()) return error_exit();
      }
      ctl.solver_cl_used = in.nrc;
      if (in.nrc != nrc_before && st.levels != 1 && in.dump_level >= 0) {
        print_line(1, 1, "CL solver switched from " + fmt_int(nrc_before) + " to " + fmt_int(in.nrc) + ".");
      }
      // 19. The hierarchy summary.
      if (p.mode_mess >= 0 && in.messages_on && in.out_level > 0) print_hierarchy_summary();
      ctl.nnu_level1 = c.nnu;
      ctl.nna_level1 = c.nna;
    }
    ctl.decomposition_ready = true;
    st.levels_done = st.levels;
    if (in.run_mode == 4) ctl.struct_ident_saved = bool(p.struct_ident) ? 1 : 0;
  } else {
    // 21-23. Restart on the kept data.
    if (st.levels_done < 1) {
      fail(kErrRestartNoSetup, "KORN re-start requires an initial call with iswit=4!");
      return error_exit();
    }
    // A one-level run keeps nothing that depends on the matrix; a kept
    // hierarchy may take a new level-1 matrix of another length in run
    // mode 2 only.
    const bool one_level = in.one_level || st.levels == 1;
    if (!one_level && !ctl.decomposition_ready && p.clsolver_finest == 0) {
      fail(kErrRestartNoHierarchy, "KORN re-start terminated - no AMG decomposition available in (korn_main)!");
      return error_exit();
    }
    if (ctl.nnu_level1 != c.nnu || ((one_level || in.run_mode != 2) && ctl.nna_level1 != c.nna)) {
      fail(kErrRestartChanged, "KORN re-start terminated - illegal change in <nnu/nna>");
      return error_exit();
    }
    if (!one_level && in.run_mode == 3) {
      // New matrix on the old structure: coarse operators from the kept
      // interpolation.
      coarsest_state().release();
      if ((ctl.struct_ident_saved != 0) != (p.struct_ident != 0)) {
        fail(kErrFile, "korn_main:: illegal change of struct_ident after last setup with iswtch=4xxx");
        return error_exit();
      }
      recompute_coarse_operators(st.levels, galerkin_settings());
      if (failed()) return error_exit();
    } else if (!one_level && in.run_mode == 2) {
      opdfn_mov(st.levels);
      if (failed()) return error_exit();
    } else {
      ctl.mark_ints = st.memi;
      ctl.mark_reals = st.memd;
      ctl.mark_sum = st.watermark();
    }
    ctl.nna_level1 = c.nna;
  }

  // 24-25. Setup time; first approximation.
  ctl.setup_time += wall_time() - t0;
  first_guess(c.ifirst, c.nnu, c.u);

  // 26. Restriction arrays and C/F row lists of a new or recomputed
  // hierarchy, or of a kept one for another thread count.
  if (in.run_mode >= 3 || !cycle_data_ready(st.levels)) {
    wt_setup(st.levels);
    if (failed()) return error_exit();
    cf_rows_setup(st.levels);
  }

  // 27-31. Solve.
  t0 = wall_time();
  if (p.clsolver_finest != 0 && st.levels == 1 && ctl.solver_cl_used <= 4) {
    clsolver_finest_parms(c.nnu);
    if (failed()) return error_exit();
  }
  SolveSetup setup = solve_data(c, in);
  if (failed()) return error_exit();
  if (in.ncycle > 0) {
    korn_solve(c, in, setup);
    if (failed()) return error_exit();
  }
  ctl.solve_time += wall_time() - t0;
  if (in.out_level > 0 && in.messages_on) {
    char line[160];
    std::snprintf(line, sizeof line, " setup time: %.3f s   solve time: %.3f s   cycles: %d", ctl.setup_time,
                  ctl.solve_time, *c.ncyc_done);
    print_line(1, 0, line);
  }

  // 32. Release with run mode 5; the memory counters must balance.
  if (in.run_mode == 5) {
    korn_cleanup("Work_count_/_Cleanup", false);
    if (st.memi != ctl.mark_ints || st.memd != ctl.mark_reals) {
      print_message(kMsgWarning, 0, 0, "Inconsistency in memory counter:");
      print_message(kMsgWarning, 0, 0,
                    "Integers left: " + fmt_int(st.memi - ctl.mark_ints) +
                        ", Doubles left: " + fmt_int(st.memd - ctl.mark_reals));
      ierr() = kWarnMemoryCounter;
    }
  }

  // 34.
  *c.ierr = ierr();
  trace("leaving korn_main (regular exit), ierr " + fmt_int(ierr()));
}

}  // namespace kornlt
