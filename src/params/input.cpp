// korn_input: decodes the digit-coded arguments of a call, merges the
// registry into the working settings and refuses what is out of range.
// The order of the steps matters: later steps read what earlier ones leave,
// and the first error ends the routine.
#include <omp.h>

#include <array>
#include <cmath>
#include <cstdlib>
#include <string>

#include "log/log.hpp"
#include "params/params.hpp"
#include "solve/solve.hpp"

namespace kornlt {

Input& input() {
  static Input in;
  return in;
}

namespace {

// Records a refused parameter: "Illegal value of parameter <name>!", ierr 20.
void illegal(std::string_view name) {
  input().bad_name = std::string(name);
  fail(kErrIllegalParameter, "Illegal value of parameter <" + std::string(name) + ">!");
}

// Fields of a digit code: d[1..n] as in the documentation (d[0] unused).
template <int N>
struct Digits {
  std::array<int, N + 1> d{};
  int ndigit = 0;
  explicit Digits(int value) { ndigit = idec(value, std::span<int>(d.data() + 1, N)); }
  int operator[](int i) const { return d[static_cast<std::size_t>(i)]; }
};

// A complexity limit in force: the caller's value when at least 1, else the
// default (the aggressive one when the coarsening code asks for it), >= 1.1.
double complexity_in_force(double given, double dflt, double agg_dflt, bool aggressive) {
  if (given >= 1.0) return given;
  return std::max(1.1, aggressive ? agg_dflt : dflt);
}

int widen_smoothing_code(int n) {
  if (std::abs(n) >= 10 || n == 0) return n;
  return n > 0 ? 100 * n + 31 : 100 * n - 31;
}

// nsolve: the approach and the smoother family.
void decode_nsolve(Input& in, const InputArgs& args) {
  const Params& p = prm();
  const int nsolve = args.nsolve == 0 ? p.nsolve_default : args.nsolve;
  const Digits<9> ns(nsolve);
  in.napproach = ns[1];
  in.nxtyp = ns[2];
  in.internal = ns[3];
  in.nprim = 10 * ns[4] + ns[5];
  in.nint_weights = ns[7];
  in.nint_pat = ns[8];
  if (in.napproach > 5) return illegal("napproach");
  switch (in.nxtyp) {
    case 0: case 5: case 8: break;
    case 1: case 6: in.lfil = 0; break;
    case 2: in.lfil = std::max(p.lfil_smo, 0); break;
    case 3:
      in.lfil = std::max(p.lfil_smo, 0);
      in.ilu_tp = true;
      break;
    case 9:
      if (args.nsys <= 1) {
        input().bad_name = "nxtyp";
        fail(kErrIllegalParameter, "Uzawa possible only for nsys > 1");
        return;
      }
      break;
    default: return illegal("nxtyp");
  }
  if (in.internal > 6) return illegal("internal>6");
  in.nprim1 = (in.nprim != 0 && ns[6] != 0) ? 1 : 0;
  if (in.nint_weights > 5) return illegal("nint_weights>5");
  if (in.nint_pat > 2) return illegal("nint_pat>2");
  if (args.nsys > 1 && args.ndiu < args.nnu) {
    fail(kErrPointer, "Array <iu0> not properly declared!");
    return;
  }
  if (in.napproach == 2 && args.nsys == 1) in.napproach = 1;

  // This edition solves scalar systems: every system runs variable-based.
  if (in.igam < 5) {
    if (in.napproach > 1) {
      print_message(kMsgError, 0, 0, "only scalar systems possible (KORN-LT)!");
      fail(kErrIllegalParameter, "invalid input parameter nsolve (KORN-LT)!");
      return;
    }
    in.napproach = 1;
    in.internal = in.nprim = in.nprim1 = 0;
    if (in.nxtyp == 5) in.nxtyp = 0;
    if (in.nxtyp == 6) in.nxtyp = 1;
    if (args.nsys > 1) {
      warn(kWarnScalarTreatment, "You are solving a coupled system as if it was a scalar system.");
      if (in.np_opt != 0) {
        fail(kErrNotAvailable, "No optimization is available <np_opt=0>!");
        return;
      }
    }
    if (in.nint_weights == 0) {
      in.nint_weights = 1;
      in.nint_pat = 1;
    } else if (in.nint_weights == 4) {
      fail(kErrInconsistent, "(nint_weights=4): No primary matrix in variable-based approach!");
      return;
    } else {
      in.nint_pat = 1;
    }
  } else {
    in.napproach = in.internal = in.nprim = in.nprim1 = 0;
    in.nxtyp = -1;
  }

  bool tail_set = false;
  for (int i = 3; i <= 9; ++i) tail_set = tail_set || ns[i] != 0;
  if (in.nxtyp > 5) print_message(kMsgError, 0, 0, "invalid smoothing type selected (KORN-LT)!");
  if (tail_set || in.nxtyp > 5) {
    input().bad_name = "nsolve";
    fail(kErrIllegalParameter, "invalid input parameter nsolve (KORN-LT)!");
  }
}

}  // namespace

bool ncg_nwt_of_default(int n_default, int& ncg, int& nwt) {
  // Units digit 0..3 picks the variant, 5..8 the same with the next weight type.
  static constexpr int kNcg[4][4] = {{1, 12, 11, 111}, {4, 42, 41, 411}, {2, 22, 21, 211}, {5, 52, 51, 511}};
  static constexpr int kNwt[4][2] = {{1, 2}, {2, 3}, {1, 2}, {2, 3}};
  const int tens = n_default / 10, units = n_default % 10;
  if (tens < 1 || tens > 4 || units == 4 || units == 9) return false;
  ncg = kNcg[tens - 1][units % 5];
  nwt = kNwt[tens - 1][units / 5];
  return true;
}

void korn_input(const InputArgs& args) {
  Params& p = prm();
  Input& in = input();
  in.bad_name.clear();

  // 1-2. Printing and dumps.
  in.messages_on = p.mode_mess >= -1 && args.iout >= 0;
  {
    const Digits<2> io(args.iout);
    in.out_level = args.iout < 0 ? -io[1] : io[1];
    in.echo_level = io[2];
    const Digits<6> id(args.idump);
    in.dump_level = args.idump < 0 ? -id[1] : id[1];
    for (int i = 0; i < 6; ++i) in.dump_digits[static_cast<std::size_t>(i)] = id[i + 1];
    in.dump_digits[0] = in.dump_level;
  }
  if (p.mode_mess < 0) {
    if (in.dump_level >= 0) {
      print_line(0, 0, " +++ WARNG: idump>=0 but mode_mess<0 ! INCONSISTENCY!");
      print_line(0, 0, "            Change to mode_mess=0 to see all MESSG/WARNG/ERRORs!");
    }
    if (in.out_level >= 0) {
      print_line(0, 0, " +++ WARNG: iout>=0 but mode_mess<0 ! INCONSISTENCY!");
      print_line(0, 0, "            Change to mode_mess=0 to see all MESSG/WARNG/ERRORs!");
    }
  }

  // 3. The override files ("mod_a.in", "mod_f.in", "mod_j.in") are read by the
  //    parameter-file layer; their absence is the normal case.

  // 4. Accelerator and cycle options.
  if (p.inner_accel < 1 || p.inner_accel > 9) return illegal("inner_accel");
  if (p.nstar_typ < 0 || p.nstar_typ > 3) return illegal("nstar_typ");
  if (p.ndyn_smo != 0 && p.ndyn_smo != 10 && p.ndyn_smo != 11 && p.ndyn_smo != 20 && p.ndyn_smo != 21)
    return illegal("ndyn_smo");
  in.nstar_typ = p.nstar_typ == 0 ? 2 : p.nstar_typ;

  // 5. The run-mode switch.
  {
    const Digits<8> sw(args.iswit);
    in.iswit_negative = args.iswit < 0;
    const int unit = 10 * sw[6] + sw[7];
    in.scratch_unit = unit == 0 ? p.ioscratch_default : unit;
    if (sw[1] > 5) return illegal("iswit");
    if (sw[2] > 3) return illegal("iextent");
    if (sw[5] > 3) return illegal("norm_typ");
    in.run_mode = sw[1];
    in.iextent = sw[2];
    in.norm_typ = sw[5];
    in.n_default = 10 * sw[3] + sw[4];
    if (in.n_default == 0) in.n_default = 40;
    if (in.n_default == 99) in.n_default = 20;
  }

  // 6.
  if (p.nxtyp_coarse != -1 && p.nxtyp_coarse != 0 && p.nxtyp_coarse != 5) {
    in.bad_name = "nxtyp_coarse";
    fail(kErrIllegalParameter, "invalid input nxtyp_coarse!");
    return;
  }

  // 7. Smoothing default; nxtyp is still the previous call's value here.
  const bool plain_default = p.levelx == 1 && !bool(p.force_accel) && (in.nxtyp == 5 || in.nxtyp == 0);
  in.nrd = in.nru = plain_default ? 12 : 131;

  // 8. Fixed starting values and the coarsening pair of n_default.
  in.levelx = 25;
  in.ecg = 21.25;
  in.np_opt = 0;
  in.nrc = 0;
  in.ntr = 1;
  in.ewt = 0.2;
  in.etr = 12.2;
  in.nptmn = 100;
  if (!ncg_nwt_of_default(in.n_default, in.ncg, in.nwt)) return illegal("n_default");

  // 9. Merge what the registry holds.
  auto merge_int = [](int& w, int r) { if (r != kUnsetInt) w = r; };
  auto merge_real = [](double& w, double r) { if (r > kUnsetRealBelow) w = r; };
  merge_int(in.nrd, p.nrd);
  merge_int(in.nrc, p.nrc);
  merge_int(in.nru, p.nru);
  merge_int(in.levelx, p.levelx);
  merge_int(in.nptmn, p.nptmn);
  merge_int(in.ncg, p.ncg);
  merge_int(in.nwt, p.nwt);
  merge_int(in.ntr, p.ntr);
  merge_int(in.np_opt, p.np_opt);
  merge_real(in.ecg, p.ecg);
  merge_real(in.ewt, p.ewt);
  merge_real(in.etr, p.etr);
  in.np_mod1 = p.np_mod1;
  in.np_mod2 = p.np_mod2;
  in.iter_pre = p.iter_pre;
  {
    const Digits<2> md(p.mode_debug);
    in.debug_digits = {md[1], md[2]};
  }

  // 10-13. Completion of short codes and defaults of the encoded reals.
  if (!bool(p.force_accel)) {
    in.nrd = widen_smoothing_code(in.nrd);
    in.nru = widen_smoothing_code(in.nru);
  }
  if (in.nrc == 0) in.nrc = 7;
  if (in.ecg < 0.0) in.ecg = p.ecg_default;
  if (in.ewt < 0.0) in.ewt = p.ewt_default;
  if (in.etr < 0.0) in.etr = 12.2;  // deliberately the literal, not etr_default
  if (in.nrc != 99) {
    const Digits<1> lead(in.nrc);
    const int d1 = Digits<9>(in.nrc)[1];
    (void)lead;
    if (d1 >= 6 && d1 <= 9) in.nrc = d1;
  }
  in.levelx_negative = in.levelx < 0;
  if (in.levelx < 0) in.levelx = -in.levelx;

  // 14. Complexity limits in force.
  {
    const bool aggressive = Digits<3>(in.ncg)[2] > 0;
    in.a_cmplx = complexity_in_force(args.a_cmplx, p.a_cmplx_default, p.a_cmplx_agg_default, aggressive);
    in.g_cmplx = complexity_in_force(args.g_cmplx, p.g_cmplx_default, p.g_cmplx_agg_default, aggressive);
    in.p_cmplx = complexity_in_force(args.p_cmplx, p.p_cmplx_default, p.p_cmplx_agg_default, aggressive);
    in.w_avrge = complexity_in_force(args.w_avrge, p.w_avrge_default, p.w_avrge_agg_default, aggressive);
    p.b_cmplx = complexity_in_force(p.b_cmplx, p.b_cmplx_default, p.b_cmplx_agg_default, aggressive);
    p.ib_cmplx = complexity_in_force(p.ib_cmplx, p.ib_cmplx_default, p.ib_cmplx_agg_default, aggressive);
  }

  // 15. Reduce steps of aggressive coarsening.
  {
    const Digits<6> cg(in.ncg);
    in.reduce_steps = cg[6] == 0 ? 1 : cg[6];
    if (in.reduce_steps > 1)
      print_message(kMsgInfo, 0, 0, "Number of reduce steps: " + fmt_int(in.reduce_steps));
  }

  // 16. Working file name. A reference solution needs the matrix-file layer,
  //     which reports it only when "<filnam>.frm" describes one.
  in.filnam = std::string(p.filnam.trimmed());
  in.reference_solution = false;

  // 17. The matrix code.
  if (args.matrix < 1) return illegal("matrix");
  {
    const Digits<6> mx(args.matrix);
    if (mx[1] < 1 || mx[1] > 3) return illegal("isym");
    in.proper_matrix = mx[1] != 3;
    in.isym = mx[1] == 3 ? 1 : mx[1];
    if (mx[2] != 1 && mx[2] != 2) return illegal("irow0");
    in.irow0 = mx[2];
    in.force_mode = mx[3];
    in.matrix_tail = {mx[4], mx[5], mx[6]};
  }

  // 18-20. Stopping criteria (icrits) and automatic stopping tests (iauto_stop).
  {
    StopSettings stop;
    decode_stop_settings(p.icrits, p.iauto_stop, stop);
    if (failed()) return;
    in.icrits = {stop.crit_mode, stop.crit_on[0], stop.crit_on[1]};
    in.iauto_stop_level = stop.iauto_stop_level;
    in.quasi_limit = stop.quasi_limit;
    in.num_old_res = stop.num_old_res;
    in.num_old_apps = stop.num_old_apps;
    in.iauto_last = stop.last_digit;
  }

  // 21. Accelerator variant.
  {
    const Digits<3> ta(p.ntyp_accel);
    if (ta[1] > 1) return illegal("ntyp_accel[1:1]");
    if (ta[2] > 2) return illegal("ntyp_accel[2:2]");
    in.ntyp_cg = (ta[1] == 0 || ta[2] == 0) ? 1 : ta[2];
  }

  // 22-23.
  if (p.ntyp_galerkin < 0 || p.ntyp_galerkin > 6) return illegal("ntyp_galerkin");
  in.nntyp_opdfn = p.ntyp_galerkin != 0 ? p.ntyp_galerkin : (omp_get_max_threads() < 2 ? 1 : 6);
  if (!(p.gmax_multipass >= 0.0 && p.gmax_multipass <= 1.0)) return illegal("gmax_multipass");

  // 24. Sizes.
  if (args.nsys < 1 || args.nsys > 999) {
    fail(kErrInconsistent, "Parameter out of range <nsys>!");
    return;
  }
  if (args.nnu > args.nna) {
    fail(kErrInconsistent, "Parameter out of range <nnu>nna>!");
    return;
  }
  if (args.nsys > args.nnu) {
    fail(kErrInconsistent, "Parameter out of range <nsys>nnu>!");
    return;
  }

  // 25. Codes in force.
  if (in.nrc < 1) return illegal("nrc");
  if (in.levelx < 1) return illegal("levelx");
  if (in.ncg < 1) return illegal("ncg");
  if (in.nwt < 1) return illegal("nwt");
  if (in.ntr < 0) return illegal("ntr");
  if (!(in.ecg > 0.0)) return illegal("ecg");
  if (!(in.ewt >= 0.0)) return illegal("ewt");
  if (!(in.etr >= 0.0)) return illegal("etr");
  if (p.ninter_omp != 0 && p.ninter_omp != 1) return illegal("ninter_omp");

  // 26. Scaling of singular systems.
  in.scaled = false;
  in.show_un_res = p.show_un_res;
  if (args.nsys > 1) {
    for (int k = 0; k < args.nsys; ++k) {
      const int s = args.iscale[k];
      if (s != 0 && s != 1) {
        in.bad_name = "iscale";
        fail(kErrNotAvailable, "Parameter setting not yet permitted <iscale>!");
        return;
      }
      if (s == 1) in.scaled = true;
    }
    if (in.show_un_res < 0) {
      print_message(kMsgWarning, 0, 0, "Parameter <show_un_res> lower than 0 --> reset to 0 !");
      in.show_un_res = 0;
    } else if (in.show_un_res > args.nsys) {
      print_message(kMsgWarning, 0, 0, "Parameter <show_un_res> too large --> reset to nsys !");
      in.show_un_res = args.nsys;
    }
  } else {
    args.iscale[0] = 2 - in.irow0;
    in.scaled = in.irow0 == 1;
    if (in.show_un_res != 0) {
      print_message(kMsgWarning, 0, 0, "Parameter <show_un_res> reset to 0 (because of nsys=1) !");
      in.show_un_res = 0;
    }
  }

  // 27. Truncation threshold of interpolation.
  {
    const Digits<4> tr(in.ntr);
    in.ntr_type = tr[1];
    const int expo = 10 * tr[2] + tr[3];
    in.trunc_threshold = expo == 0 ? 0.0 : std::pow(0.1, expo);
  }

  // 28. Cycle, accelerator and cycle count.
  {
    const int ncyc = args.ncyc == 0 ? p.ncyc_default : args.ncyc;
    const Digits<4> nc(ncyc);
    in.igam = nc[1];
    if (in.igam > 6 || in.igam == 0) return illegal(in.igam == 0 ? "ncyc" : "igam");
    in.ncgrad = nc[2] == 0 ? p.ncgrad_default : nc[2];
    in.nkdim = nc[3] == 0 ? p.nkdim_default : (nc[3] == 9 ? 20 : nc[3] + 1);
    in.ncycle = std::max(nc[4], p.ncyc_min);
    if (in.ncgrad > 4) return illegal("ncgrad");
    if (in.igam >= 5 && in.ncgrad == 0) in.ncgrad = 1;
  }

  // 29. Non-symmetric matrices.
  in.cl_cpl = p.cl_cpl;
  if (in.isym == 2) {
    if (in.norm_typ == 3) {
      in.norm_typ = 0;
      p.ntake_res_in = 0;
      print_message(kMsgInfo, 0, 0, "Switched to L2-NORM (reason: matrix non-symmetric)!");
    }
    if (!bool(p.force_accel)) {
      if (in.ncgrad == 1) in.ncgrad = 2;
      else if (in.ncgrad == 4) in.ncgrad = 3;
    }
    if (in.cl_cpl == 3) in.cl_cpl = 4;
  }

  // 30. ILU fill of smoothing; no pre-iterations without an accelerator.
  in.lfil = std::max(p.lfil_smo, 0);
  p.droptol = p.droptol_smo;
  if (in.ncgrad == 0) in.iter_pre = 0;

  // 31. CG needs a symmetric preconditioner.
  if (!bool(p.force_accel) && (in.ncgrad == 1 || in.ncgrad == 4)) {
    if (in.nrd == 0) in.nrd = -in.nru;
    else in.nru = -in.nrd;
  }

  // 32-33.
  in.one_level = in.igam > 4 || in.levelx == 1 || args.nnu <= in.nptmn;
  if (!in.proper_matrix ? (in.igam != 5 && in.igam != 6) : in.igam == 6) {
    in.bad_name = "igam";
    fail(kErrInconsistent, "Incorrect or inconsistent input <igam>!");
    return;
  }

  // 34. A negative cycle code asks for star cycles.
  const int ncyc_eff = args.ncyc == 0 ? p.ncyc_default : args.ncyc;
  in.star_cycle = ncyc_eff < 0 && !in.one_level;
  if (in.star_cycle) {
    in.levelx_negative = false;
    if (!bool(p.force_accel)) {
      if (in.ncgrad == 1) in.ncgrad = 4;
      else if (in.ncgrad == 2) in.ncgrad = 3;
    }
  }

  // 35.
  if (p.nth_res_scratch < 0) return illegal("nth_res_scratch");
  in.nth_res_scratch = p.nth_res_scratch == 0 ? 1 : p.nth_res_scratch;
  if (in.ntyp_cg == 2 && in.ncgrad == 1) in.nth_res_scratch = 1;

  // 36-41.
  decode_nsolve(in, args);
  if (failed()) return;

  // 42. Coarse-set options of a new setup.
  in.coarse_set = 0;
  if (in.run_mode > 3) {
    if (p.use_ic < 0 || p.use_ic > 2) return illegal("use_ic");
    auto in_range = [](int v) { return v >= -5 && v <= 2; };
    if (!in_range(p.cset_lessvars)) return illegal("cset_lessvars");
    if (!in_range(p.cset_lastpnt)) return illegal("cset_lastpnt");
    if (!in_range(p.cset_zerodiag)) return illegal("cset_zerodiag");
    const int longrow_lead = Digits<1>(p.cset_longrow)[1] * (p.cset_longrow < 0 ? -1 : 1);
    if (!in_range(longrow_lead)) return illegal("cset_longrow");
    const bool any_cset = !p.cset_read.blank() || p.cset_lessvars != 0 || p.cset_lastpnt != 0 ||
                          p.cset_zerodiag != 0 || p.cset_longrow != 0 || p.cset_unknown != 0 ||
                          p.cset_unknown1 != 0 || p.cset_unknown2 != 0 || args.setup_has_cset;
    if (p.use_ic > 0 && any_cset) in.coarse_set = p.use_ic;
  }

  // 43. The primary-matrix variants (internal 5, 6) cannot occur: internal is 0.

  // 44-45.
  if (in.napproach != 3) in.p_cmplx = 0.0;
  in.glk_mult_zeros = bool(p.glk_mult_zeros) ||
                      ((in.run_mode == 3 || in.run_mode == 4) && bool(p.struct_ident));
  if (in.glk_mult_zeros && (in.nntyp_opdfn == 4 || in.nntyp_opdfn == 5)) in.nntyp_opdfn = 6;

  // 46. Cluster options.
  const int co = p.cl_order;
  if (!((co >= 0 && co <= 8) || co == 33 || co == 34 || co == 55 || co == 99)) return illegal("cl_order");
  if (p.min_cl_size < 0) return illegal("min_cl_size");
  if (p.max_cl_size < 0) return illegal("max_cl_size");
  if (p.iordered_omp < 0) return illegal("iordered_omp");

  // The derived values in force, as the read-only names report them.
  InForce& f = in_force();
  f.ecg = in.ecg;
  f.etr = in.etr;
  f.ewt = in.ewt;
  f.wft = p.wft;
  f.ncg = in.ncg;
  f.nrc = in.nrc;
  f.nrd = in.nrd;
  f.nru = in.nru;
  f.ntr = in.ntr;
  f.nwt = in.nwt;
}

void clsolver_finest_parms(int nnu) {
  Params& p = prm();
  Input& in = input();
  const int code = std::abs(p.clsolver_finest);
  const Digits<4> d(code);
  if (d.ndigit == 2 || d.ndigit < 1 || d.ndigit > 9) {
    print_message(kMsgError, 0, 0, "clsolver_finest_parms: invalid number of digits in clsolver_finest");
    fail(kErrIllegalParameter, "clsolver_finest_parms: invalid nrc encoded in clsolver_finest");
    return;
  }
  const int solver = 10 * d[1] + d[2];
  if (solver == 0) {
    if (in.nrc > 5 && p.nptmax < nnu) {
      print_message(kMsgInfo, 0, 0,
                    "CL solver switched to " + fmt_int(p.nrc_emergency) + " (clsolver_finest_parms) !");
      in.nrc = p.nrc_emergency;
    }
  } else if (solver < 1 || solver > 11) {
    fail(kErrIllegalParameter, "clsolver_finest_parms: invalid nrc encoded in clsolver_finest");
    return;
  } else {
    in.nrc = solver;
  }
  if (d[3] == 1 || (d[3] == 0 && in.nrc != 1)) in.ncgrad = 0;
  if (d[4] == 0 && in.nrc > 5) in.ncycle = 1;
  if (d[4] != 0) in.ncycle = d[4];
}

}  // namespace kornlt
