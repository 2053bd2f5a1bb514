// The solve driver: solve settings and report (solve_data), the first
// residual, the target, the stand-alone cycles and the hand-over to the
// accelerator (korn_solve).
#include <cmath>
#include <limits>
#include <string>

#include "control/threads.hpp"
#include "log/log.hpp"
#include "params/params.hpp"
#include "solve/solve.hpp"
#include "store/store.hpp"

namespace kornlt {

namespace {

constexpr double kTiny = 2.2250738585072014e-308;

bool list_has(const SweepList& l, int digit) {
  for (int j = 0; j < l.len; ++j)
    if (std::abs(l.typ[static_cast<std::size_t>(j)]) == digit) return true;
  return false;
}

int count_jacobi(const SweepList& l) {
  int n = 0;
  for (int j = 0; j < l.len; ++j) n += std::abs(l.typ[static_cast<std::size_t>(j)]) == 7;
  return n;
}

std::string smoother_family(const Input& in, const SolveSetup& s) {
  switch (in.nxtyp) {
    case 0: {
      const char* fam = s.jacobi_summary == 1 ? "omega-Jacobi"
                        : s.jacobi_summary == 0 ? "Jacobi and Gauss-Seidel"
                                                : "Gauss-Seidel";
      return std::string(fam) + " (variable-wise)";
    }
    case 1: return "ILU(0)";
    case 2: return "ILUT(" + fmt_int(in.lfil) + ")";
    case 3: return "ILUTP(" + fmt_int(in.lfil) + ")";
    case 8: return "RELX_F";
    default: return "";
  }
}

// The solver report.
void print_report(const CoreCall& c, const Input& in, const SolveSetup& s) {
  print_line(1, 0, "AMG solver information");
  print_line(0, 0, "======================");
  if (in.igam == 5) {
    print_line(0, 0, "Basic Method: One-level method (igam=5) - Diagonal scaling (Jacobi)");
  } else if (in.igam == 6) {
    print_line(0, 0, "Basic Method: One-level method (igam=6) - IC(0)");
  } else if (s.levels == 1) {
    print_line(0, 0, "Basic Method: Smoothing only - " + smoother_family(in, s));
  } else {
    static constexpr const char* kCycle[] = {"", "V", "F", "W", "VV"};
    const std::string cycle =
        in.star_cycle ? "*-cycle[" + fmt_int(s.nstar_typ) + "]" : std::string(kCycle[in.igam]) + "-cycle";
    print_line(0, 0, "Basic Method: AMG on " + fmt_int(s.levels) + " levels (" + cycle + ")");
  }
  print_line(0, 0, "Approach:   variable-based");
  if (in.igam < 5) print_line(0, 0, "Smoothing:  " + smoother_family(in, s));
  if (s.pre.nrx + s.post.nrx == 0 && in.igam < 5) print_line(0, 0, "WARNING: 0 smoothing steps!");
  const std::string inner = fmt_int(prm().inner_accel);
  switch (in.ncgrad) {
    case 0: print_line(0, 0, "Acceleration: None"); break;
    case 1:
      print_line(0, 0, std::string(in.ntyp_cg == 2 ? "Acceleration: old Conjugate Gradient["
                                                   : "Acceleration: new Conjugate Gradient[") +
                           inner + "]");
      break;
    case 2: print_line(0, 0, "Acceleration: BI-CGSTAB[" + inner + "]"); break;
    case 3:
      print_line(0, 0, "Acceleration: Flexible GMRES[" + inner + "] (Krylov dim=" + fmt_int(in.nkdim) + ")");
      break;
    case 4: print_line(0, 0, "Acceleration: Flexible CG[" + inner + "]"); break;
    default: break;
  }
  if (s.levels == 1) {
    print_line(0, 0, "Coarse level: None");
  } else {
    print_line(0, 0, coarsest_report_line(s.nrc_new, s.lfil_cl_used));
  }
  if (!in.scaled) {
    print_line(0, 0, "Scaling:      None");
  } else if (c.nsys == 1) {
    print_line(0, 0, "Scaling:      Solution scaled so that (u,1)=0");
  } else {
    print_line(0, 0, "Scaling:      (w,1)=0 for each unknown w for which iscale=1");
  }
}

// For a singular system (zero row sums, one unknown) the solution is fixed
// by (u,1) = 0.
void normalise(const CoreCall& c, const Input& in) {
  if (!in.scaled || c.nsys != 1) return;
  const int n = c.nnu;
  const double mean = ordered_sum(1, n, prm().nmin_vector,
                                  [&](int lo, int hi) {
                                    double s = 0.0;
                                    for (int i = lo; i <= hi; ++i) s += c.u[i - 1];
                                    return s;
                                  }) /
                      n;
  for_blocks(1, n, prm().nmin_vector, [&](int lo, int hi, int) {
    for (int i = lo; i <= hi; ++i) c.u[i - 1] -= mean;
  });
}

}  // namespace

SolveSetup solve_data(const CoreCall& c, const Input& in) {
  SolveSetup s;
  const Params& p = prm();
  s.levels = store().levels;

  // Smoothing codes.
  s.pre = split_smoothing_code(in.nrd);
  s.post = split_smoothing_code(in.nru);
  const int nj = count_jacobi(s.pre) + count_jacobi(s.post);
  const int nall = s.pre.len + s.post.len;
  s.jacobi_summary = nj == 0 ? -1 : (nj == nall ? 1 : 0);
  if (nj > 0) {
    auto& omega = solve_state().omega_jacobi_vec;
    if (omega.empty()) {
      mod_omegajac_alloc(c.nsys);
      if (failed()) {
        print_message(kMsgError, 0, 0, "called from (solve_data)!");
        return s;
      }
    } else if (omega.size() != 1 && static_cast<int>(omega.size()) != c.nsys) {
      fail(kErrInternal, "size of omega_jacobi_vec is not equal to 1 or nsys (solve_data)!");
      return s;
    }
  }

  // Coarsest-level solver really used.
  s.nrc_new = in.nrc;
  if (in.isym == 2 && (s.nrc_new == 2 || s.nrc_new == 4)) ++s.nrc_new;
  if (!((s.nrc_new >= 1 && s.nrc_new <= 10) || s.nrc_new == 99)) {
    fail(kErrIllegalParameter, "invalid value for the coarsest grid solver (solve-data)!");
    return s;
  }
  const LevelView Lc = level_view(std::max(s.levels, 1));
  const int nnu_cl = s.levels > 1 ? Lc.nrows() : c.nnu;
  const int nna_cl = s.levels > 1 ? Lc.ia(Lc.ihi + 1) - Lc.ia(Lc.ilo) : c.nna;
  s.iscale = c.iscale;
  s.isym = in.isym;
  s.nstar_typ = in.nstar_typ;
  solve_state().roundoff_watch = p.mode_mess >= -1 && c.matrix >= 0;
  if (p.lfil_cl < 0) {
    s.lfil_cl_used = std::min(
        static_cast<int>((static_cast<double>(nna_cl) / nnu_cl) * (p.lfil_cl / -10.0) + 0.5), nnu_cl);
  } else {
    s.lfil_cl_used = p.lfil_cl == 0 ? nnu_cl : p.lfil_cl;
  }
  if (s.nrc_new == 1) {
    s.coarse_sweeps.nrx = 1;
    for (const SweepList* l : {&s.pre, &s.post})
      for (int j = 0; j < l->len && s.coarse_sweeps.len < 10; ++j)
        s.coarse_sweeps.typ[static_cast<std::size_t>(s.coarse_sweeps.len++)] = l->typ[static_cast<std::size_t>(j)];
    if (s.coarse_sweeps.len == 0) {
      s.coarse_sweeps.len = 4;
      s.coarse_sweeps.typ = {2, 2, 2, 2};
    }
  }
  s.sqrt_conv_stop = std::sqrt(p.conv_stop);

  // Smoother settings of this solve.
  SmootherSettings& sm = s.smoother;
  sm.nxtyp = in.nxtyp;
  sm.nxtyp_coarse = p.nxtyp_coarse;
  sm.omega_sor_do = p.omega_sor_do;
  sm.omega_sor_up = p.omega_sor_up;
  const auto& omega = solve_state().omega_jacobi_vec;
  sm.omega_jacobi = omega.empty() ? p.omega_jacobi : omega.front();
  sm.nmin_matrix = p.nmin_matrix;
  sm.nmin_vector = p.nmin_vector;
  sm.nsys = c.nsys;

  if (p.mode_mess > 0 && in.nxtyp == 0 && in.igam < 5) {
    print_message(kMsgControl, 0, 0,
                  "Smoothing consists of " + fmt_int(s.pre.nrx) + " Pre- " + fmt_int(s.post.nrx) +
                      " Post-smoothing sweeps");
    auto describe = [](const SweepList& l) {
      const int jac = count_jacobi(l);
      std::string t = fmt_int(jac) + " Jacobi and " + fmt_int(l.len - jac) + " Gauss-Seidel sweeps";
      if (list_has(l, 1) || list_has(l, 3)) t += " (including CF)";
      return t;
    };
    print_message(kMsgControl, 0, 0, "Pre-smoothing consists of " + describe(s.pre));
    print_message(kMsgControl, 0, 0, "Post-smoothing consists of " + describe(s.post));
  }
  if (in.out_level > 0 && in.messages_on) print_report(c, in, s);
  return s;
}

void korn_solve(CoreCall& c, const Input& in, const SolveSetup& s) {
  const Params& p = prm();
  const LevelView L = level1_view(c.nnu, c.ia, c.ja, c.a, c.u, c.f);
  const std::string_view label = norm_label(in.norm_typ);
  const bool table = in.out_level > 1 && in.messages_on;
  const int ncyc_start = p.ncyc_start;

  // 4. ILU smoothing needs factors that this build does not make.
  if (in.nxtyp >= 1 && in.nxtyp <= 3) {
    fail(kErrNotAvailable, "ILU smoothing is not available in this build (korn_solve)!");
    return;
  }

  // 6-8. First residual.
  const double fresh = resid(L, in.norm_typ);
  if (failed()) {
    print_message(kMsgError, 0, 0, "... in (korn_solve)");
    return;
  }
  if (p.ntake_res_in == 0) {
    *c.res_in = fresh;
  } else if (*c.res_in >= 0.0) {
    const double user = *c.res_in;
    if (user <= kTiny) {
      fail(kErrInconsistent, "User-defined first residual too tiny (korn_solve)!");
      return;
    }
    if (fresh <= kTiny) {
      fail(kErrResidualUnusable, "Freshly computed first-guess residual too tiny (korn_solve)!");
      return;
    }
    if (100.0 * std::abs(user - fresh) > std::min(user, fresh)) {
      print_message(kMsgInfo, 0, 0, "user-provided res_in is different from freshly computed one!");
      print_message(kMsgInfo, 0, 0, "user res_in=" + std::to_string(user));
      print_message(kMsgInfo, 0, 0, "new  res_in=" + std::to_string(fresh));
      *c.res_in = fresh;
    } else {
      print_message(kMsgInfo, 0, 0, "user-provided res_in is identical to freshly computed one!");
    }
  } else {
    *c.res_in = fresh;
  }
  const double res_in = *c.res_in;
  if (std::isnan(res_in)) {
    fail(kErrInconsistent, "Residual is NaN(korn_solve)!");
    return;
  }

  // 9-12. Table head, target, a first guess that is good enough.
  if (table) table_first_line(label, res_in);
  double res_start = ncyc_start == 0 ? res_in : -1.0;
  double target = c.eps < 0.0 ? std::abs(c.eps) : c.eps * res_in;
  if (p.eps_abs > 1e-20 && p.eps_abs <= target) target = p.eps_abs;
  double res = res_in;
  *c.res_out = res_in;
  if (p.ncyc_min < 1 && res_in <= target) return;

  // 13-15. Stand-alone cycles.
  const int n_cyc = in.ncgrad == 0 ? in.ncycle : std::min(in.iter_pre, in.ncycle);
  const char marker = in.ncgrad == 0 ? ' ' : '*';
  normalise(c, in);
  bool reached = false;
  for (int i = 1; i <= n_cyc && !reached; ++i) {
    ++*c.ncyc_done;
    if (in.igam < 5) {
      korn_cyc(L, in, s, 1);
    } else {
      SweepList sweeps;
      sweeps.nrx = n_cyc;
      sweeps.len = 1;
      sweeps.typ[0] = 2;
      smoother(L, 1, s.smoother, sweeps, false);
      *c.ncyc_done = n_cyc;
      i = n_cyc;
    }
    if (failed()) return;
    normalise(c, in);
    const double prev = res;
    res = resid(L, in.norm_typ);
    if (failed()) {
      print_message(kMsgError, 0, 0, "... in (korn_solve)");
      return;
    }
    if (table) table_cycle_line(*c.ncyc_done, label, res, prev, marker);
    if (*c.ncyc_done == ncyc_start) res_start = res;
    reached = *c.ncyc_done >= p.ncyc_min && res <= target;
  }
  *c.res_out = res;

  // 16. Accelerator, with cycles (or the one-level method) as preconditioner.
  if (!reached && in.ncgrad > 0 && *c.ncyc_done < in.ncycle) {
    if (in.igam == 6) {
      fail(kErrNotAvailable, "IC(0) preconditioning is not available in this build (korn_solve)!");
      return;
    }
    StopSettings stop;
    decode_stop_settings(p.icrits, p.iauto_stop, stop);
    StopState history;
    start_stop_state(history, stop, c.nnu);
    if (failed()) return;
    AccelSettings as;
    as.ncgrad = in.ncgrad;
    as.ntyp_cg = in.ntyp_cg;
    as.nkdim = in.nkdim;
    as.ncyc = in.ncycle;
    as.tol = target;
    as.norm_typ = in.norm_typ;
    as.nth_res_scratch = in.nth_res_scratch;
    as.out_level = table ? in.out_level : 0;
    as.track_ap_p = bool(p.track_ap_p);
    if (in.igam == 5) {
      // Diagonal scaling.
      as.precond = [&L](const Vec1<const double>& r, const Vec1<double>& z) {
        const int* ia = L.ia.origin();
        const double* a = L.a.origin();
        for_blocks(L.ilo, L.ihi, prm().nmin_vector, [&](int lo, int hi, int) {
          for (int i = lo; i <= hi; ++i) z(i) = r(i) / a[ia[i]];
        });
      };
    } else {
      // inner_accel cycles from a zero guess on the system A z = r.
      as.precond = [&](const Vec1<const double>& r, const Vec1<double>& z) {
        LevelView Lp = L;
        Lp.u = z;
        Lp.f = Vec1<double>(const_cast<double*>(&r(r.lo())), r.lo(), r.hi());
        for (int it = 0; it < p.inner_accel && !failed(); ++it) korn_cyc(Lp, in, s, 1);
      };
    }
    as.after_step = [&](int) { normalise(c, in); };
    double res_acc = res;
    korn_accel(L, as, stop, history, *c.ncyc_done, res_acc);
    if (res_acc >= 0.0) *c.res_out = res_acc;
    if (failed()) return;
  }

  // 17. Closing line of the table.
  // Without a recorded residual after ncyc_start cycles, the average runs
  // over all cycles.
  if (table) {
    if (res_start >= 0.0) {
      table_average_line(ncyc_start, *c.ncyc_done, res_start, *c.res_out);
    } else {
      table_average_line(0, *c.ncyc_done, res_in, *c.res_out);
    }
  }
}

}  // namespace kornlt
