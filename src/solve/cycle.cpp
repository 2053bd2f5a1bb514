// One multigrid cycle (V, F, W, VV, with or without star improvement) over
// the stored hierarchy, without recursion: a visit counter per level decides
// at each return to a level whether to go down again. Also the transfers:
// restriction of the residual and prolongation of the coarse correction.
#include <cassert>
#include <cmath>
#include <cstdio>
#include <string>

#include "control/threads.hpp"
#include "log/log.hpp"
#include "params/params.hpp"
#include "solve/solve.hpp"
#include "store/store.hpp"

namespace kornlt {

namespace {

// f - A u on rows lo..hi of L into r (global index).
inline void residual_rows(const LevelView& L, int lo, int hi, double* r) {
  const int* ia = L.ia.origin();
  const int* ja = L.ja.origin();
  const double* a = L.a.origin();
  const double* u = L.u.origin();
  const double* f = L.f.origin();
  for (int i = lo; i <= hi; ++i) {
    double s = f[i];
    for (int k = ia[i]; k < ia[i + 1]; ++k) s -= a[k] * u[ja[k]];
    r[i] = s;
  }
}

void zero(const Vec1<double>& v, int lo, int hi) {
  double* p = v.origin();
  for_blocks(lo, hi, prm().nmin_vector, [&](int b, int e, int) {
    for (int i = b; i <= e; ++i) p[i] = 0.0;
  });
}

// The interpolation arrays addressed by global 1-based index.
struct Interp {
  const int* iw;
  const int* jw;
  const double* w;
};
Interp interp() {
  const StoreState& st = store();
  return {st.iw.data() - 1, st.jw.data() - 1, st.w.data() - 1};
}

// Scratch of `n` values addressed from global index `lo`.
double* scratch(std::vector<double>& v, int lo, int hi) {
  const std::size_t n = static_cast<std::size_t>(hi - lo + 1);
  if (v.size() < n) v.resize(n);
  return v.data() - lo;
}

// The coarsest-level solve of one visit.
void coarsest_solve(const LevelView& L, const SolveSetup& s) {
  CoarsestArgs args = coarsest_args(s, s.smoother.nsys, s.iscale, s.isym);
  args.first_point = L.ilo;
  cgsolve(L, args);
}

// The star improvement of level L: with c the correction (u - e, or u itself
// for variant 1, whose level started from zero), u := e + t c with t
// minimising || f - A (e + t c) ||_2, from (r0 - t Ac, r0 - t Ac), r0 = f - A e.
void minimize(const LevelView& L, const double* e, bool variant1) {
  const int nmin = prm().nmin_matrix;
  SolveState& ss = solve_state();
  double* c = scratch(ss.star_c, L.ilo, L.ihi);
  double* ac = scratch(ss.resh, L.ilo, L.ihi);
  const double* u = L.u.origin();
  for_blocks(L.ilo, L.ihi, nmin, [&](int lo, int hi, int) {
    if (variant1) {
      for (int i = lo; i <= hi; ++i) c[i] = u[i];
    } else {
      for (int i = lo; i <= hi; ++i) c[i] = u[i] - e[i];
    }
  });
  const int* ia = L.ia.origin();
  const int* ja = L.ja.origin();
  const double* a = L.a.origin();
  const double* f = L.f.origin();
  // Ac, and r0 = f - A e = (f - A u) + A c.
  const double rac = ordered_sum(L.ilo, L.ihi, nmin, [&](int lo, int hi) {
    double sum = 0.0;
    for (int i = lo; i <= hi; ++i) {
      double acv = 0.0, au = 0.0;
      for (int k = ia[i]; k < ia[i + 1]; ++k) {
        acv += a[k] * c[ja[k]];
        au += a[k] * u[ja[k]];
      }
      ac[i] = acv;
      sum += (f[i] - au + acv) * acv;
    }
    return sum;
  });
  const double acac = ordered_sum(L.ilo, L.ihi, nmin, [&](int lo, int hi) {
    double sum = 0.0;
    for (int i = lo; i <= hi; ++i) sum += ac[i] * ac[i];
    return sum;
  });
  if (acac == 0.0) {
    fail(kErrResidualUnusable, "Zero pivot in improving corrections (minimize)");
    return;
  }
  const double t = rac / acac;
  double* uw = L.u.origin();
  for_blocks(L.ilo, L.ihi, nmin, [&](int lo, int hi, int) {
    for (int i = lo; i <= hi; ++i) uw[i] += (t - 1.0) * c[i];
  });
}

void roundoff_warning(double ratio, int nrc) {
  char text[120];
  std::snprintf(text, sizeof text, "Insufficient residual reduction on coarsest level: %.6e", ratio);
  print_message(kMsgWarning, 0, 0, text);
  print_message(kMsgWarning, 0, 0, "If this happens only after several AMG iterations, most probably");
  print_message(kMsgWarning, 0, 0, "you have reached the level of dominant round-off influence");
  print_message(kMsgWarning, 0, 0, "(or the coarsest-level system is singular but incompatible).");
  if (nrc == 1) {
    print_message(kMsgWarning, 0, 0, "Otherwise, there may be convergence problems for relaxation.");
  } else if (nrc == 2 || nrc == 4) {
    print_message(kMsgWarning, 0, 0, "Otherwise, there may be convergence problems for cg.");
  } else if (nrc == 3 || nrc == 5) {
    print_message(kMsgWarning, 0, 0, "Otherwise, there may be convergence problems for BI-CGSTAB.");
  }
}

}  // namespace

int restriction_variant() {
  const int v = prm().irestriction_openmp;
  if (v == 2) return thread_count() >= 2 ? -1 : 0;
  return std::abs(v) <= 1 ? v : 0;
}

bool cycle_data_ready(int levels) {
  const SolveState& ss = solve_state();
  const auto n = static_cast<std::size_t>(levels > 1 ? levels : 0);
  return ss.cf_rows.size() == n && (restriction_variant() != -1 || ss.restriction.size() == n);
}

void wt_setup(int levels) {
  SolveState& ss = solve_state();
  ss.restriction.clear();
  if (levels < 2 || restriction_variant() != -1) return;
  ss.restriction.resize(static_cast<std::size_t>(levels));
  for (int k = 1; k < levels && !failed(); ++k) build_transpose_level(ss.restriction[static_cast<std::size_t>(k)], k);
}

void cf_rows_setup(int levels) {
  SolveState& ss = solve_state();
  ss.cf_rows.clear();
  if (levels < 2) return;
  ss.cf_rows.resize(static_cast<std::size_t>(levels));
  for (int k = 1; k < levels; ++k) {
    const LevelView L = level_view(k);
    if (L.icg.empty()) continue;
    CfRows& r = ss.cf_rows[static_cast<std::size_t>(k)];
    const int* icg = L.icg.origin();
    int nc = 0;
    for (int i = L.ilo; i <= L.ihi; ++i) nc += icg[i] > 0;
    r.c.reserve(static_cast<std::size_t>(nc));
    r.f.reserve(static_cast<std::size_t>(L.nrows() - nc));
    for (int i = L.ilo; i <= L.ihi; ++i) (icg[i] > 0 ? r.c : r.f).push_back(i);
    r.ilo = L.ilo;
    r.ihi = L.ihi;
    r.icg = icg;
  }
}

const CfRows* cf_rows_of(const LevelView& L) {
  const SolveState& ss = solve_state();
  const auto k = static_cast<std::size_t>(L.k);
  if (L.icg.empty() || k >= ss.cf_rows.size()) return nullptr;
  const CfRows& r = ss.cf_rows[k];
  return r.icg == L.icg.origin() && r.ilo == L.ilo && r.ihi == L.ihi ? &r : nullptr;
}

void restrict_residual(const LevelView& fine, const LevelView& coarse) {
  const Params& p = prm();
  zero(coarse.u, coarse.ilo, coarse.ihi);
  const int variant = restriction_variant();
  SolveState& ss = solve_state();
  assert(variant != -1 || ss.restriction.size() > static_cast<std::size_t>(fine.k));
  const Interp P = interp();
  double* fc = coarse.f.origin();

  if (variant == 0) {
    // Serial: the residual row by row, scattered through the weights.
    zero(coarse.f, coarse.ilo, coarse.ihi);
    const int* ia = fine.ia.origin();
    const int* ja = fine.ja.origin();
    const double* a = fine.a.origin();
    const double* u = fine.u.origin();
    const double* f = fine.f.origin();
    for (int i = fine.ilo; i <= fine.ihi; ++i) {
      if (P.iw[i] == P.iw[i + 1]) continue;
      double r = f[i];
      for (int k = ia[i]; k < ia[i + 1]; ++k) r -= a[k] * u[ja[k]];
      for (int k = P.iw[i]; k < P.iw[i + 1]; ++k) fc[P.jw[k]] += P.w[k] * r;
    }
    return;
  }

  // The fine residual first, in threads.
  double* r = scratch(ss.resh, fine.ilo, fine.ihi);
  for_blocks(fine.ilo, fine.ihi, p.nmin_matrix_resc, [&](int lo, int hi, int) { residual_rows(fine, lo, hi, r); });
  if (variant == 1) {
    zero(coarse.f, coarse.ilo, coarse.ihi);
    for (int i = fine.ilo; i <= fine.ihi; ++i)
      for (int k = P.iw[i]; k < P.iw[i + 1]; ++k) fc[P.jw[k]] += P.w[k] * r[i];
    return;
  }
  // Gather through the transposed interpolation: no serial work.
  const Transpose& t = ss.restriction[static_cast<std::size_t>(fine.k)];
  const int* it = t.iwt.data() - coarse.ilo;
  const int* jt = t.jwt.data() - 1;
  const double* wt = t.wt.data() - 1;
  for_blocks(coarse.ilo, coarse.ihi, p.nmin_matrix, [&](int lo, int hi, int) {
    for (int c = lo; c <= hi; ++c) {
      double sum = 0.0;
      for (int q = it[c]; q < it[c + 1]; ++q) sum += wt[q] * r[jt[q]];
      fc[c] = sum;
    }
  });
}

void prolongate(const LevelView& fine, const LevelView& coarse) {
  const Interp P = interp();
  const double* uc = coarse.u.origin();
  double* u = fine.u.origin();
  for_blocks(fine.ilo, fine.ihi, prm().nmin_matrix, [&](int lo, int hi, int) {
    for (int i = lo; i <= hi; ++i) {
      double s = 0.0;
      for (int k = P.iw[i]; k < P.iw[i + 1]; ++k) s += P.w[k] * uc[P.jw[k]];
      u[i] += s;
    }
  });
}

void korn_cyc(const LevelView& L1, const Input& in, const SolveSetup& s, int k0) {
  const int kmax = s.levels;
  const Params& p = prm();
  SolveState& ss = solve_state();

  // One level: smoothing only, or the coarsest solver on the finest level.
  if (kmax == 1) {
    if (p.clsolver_finest != 0) {
      coarsest_solve(L1, s);
      return;
    }
    smoother(L1, 1, s.smoother, s.pre, false);
    if (failed()) return;
    smoother(L1, 1, s.smoother, s.post, false);
    return;
  }
  if (kmax == k0) {
    fail(kErrInternal, "Cycling must include at least two levels (cyc)!");
    return;
  }
  if (in.igam < 1 || in.igam > 4) {
    fail(kErrIllegalParameter, "Illegal value of parameter <igam> in (cyc)");
    return;
  }

  // Star improvement and the copies of u it needs.
  const int nstar = in.star_cycle ? s.nstar_typ : 0;
  const bool star_on = ((nstar == 1 || nstar == 2) && kmax - k0 > 1) || (nstar == 3 && kmax > k0);
  const bool need_e = star_on && nstar >= 2;
  bool copies_on = need_e;
  double* e = nullptr;
  if (need_e) {
    const int last = store().imax[static_cast<std::size_t>(kmax - 1)];
    ss.star_e.resize(static_cast<std::size_t>(last) + 1);
    e = ss.star_e.data();
  }

  std::array<int, kMaxLevels + 2> icount{};
  int r = 0;  // repetitions of a coarse smoothing step (dynamic smoothing)
  // The caller's finest level with the C/F splitting of the hierarchy, which
  // the C/F relaxation steps of the finest level need.
  LevelView fine = L1;
  StoreState& st = store();
  if (fine.icg.empty() && !st.icg.empty()) fine.icg = Vec1<int>(st.icg.data(), 1, L1.ihi);
  auto view = [&](int k) { return k == 1 ? fine : level_view(k); };
  auto smooth = [&](const LevelView& L, const SweepList& list) {
    int times = 1;
    if (L.k > 1) {
      switch (p.ndyn_smo) {
        case 10: if (L.k > k0) r = 2; break;
        case 11: if (L.k > k0) r = L.k - k0 + 1; break;
        case 20: if (L.k > k0 + 1) r = 2; break;
        case 21: if (L.k > k0 + 1) r = L.k - k0; break;
        default: r = 1; break;
      }
      times = r;
    }
    for (int t = 0; t < times && !failed(); ++t) smoother(L, L.ilo, s.smoother, list, true);
  };
  auto star_copy = [&](const LevelView& L) {
    if (!copies_on) return;
    const bool copy = L.k == k0 ? nstar == 3 : nstar > 1;
    if (!copy) return;
    const double* u = L.u.origin();
    for_blocks(L.ilo, L.ihi, p.nmin_vector, [&](int lo, int hi, int) {
      for (int i = lo; i <= hi; ++i) e[i] = u[i];
    });
  };

  int k = k0;
  bool descend = true;
  while (true) {
    if (descend) {
      // Down to the coarsest level: smooth, restrict.
      while (k < kmax) {
        ++icount[static_cast<std::size_t>(k)];
        const LevelView L = view(k);
        smooth(L, s.pre);
        if (failed()) return;
        star_copy(L);
        restrict_residual(L, view(k + 1));
        if (failed()) return;
        ++k;
      }
      // Coarsest level, under the round-off watch.
      const LevelView Lc = view(kmax);
      const bool watch = ss.roundoff_watch;
      const double r0 = watch ? resid1(Vec1<const double>(Lc.f.origin() + Lc.ilo, Lc.ilo, Lc.ihi), 0) : -1.0;
      if (r0 != 0.0) {
        coarsest_solve(Lc, s);
        if (failed()) {
          print_message(kMsgError, 0, 0, "... in (cyc)");
          return;
        }
        if (watch) {
          const double r1 = resid(Lc, 0);
          const double ratio = r1 / (r0 + 1e-90);
          if (ratio > s.sqrt_conv_stop) {
            roundoff_warning(ratio, s.nrc_new);
            ss.roundoff_watch = false;
          }
        }
      }
      descend = false;
    }

    // Up one level: add the correction, post-smooth.
    --k;
    const LevelView L = view(k);
    prolongate(L, view(k + 1));
    smooth(L, s.post);
    if (failed()) return;
    if (k <= k0) break;

    // Shape of the cycle: go down again from this level?
    int& visits = icount[static_cast<std::size_t>(k)];
    switch (in.igam) {
      case 2: descend = visits < 2; break;
      case 3:
        descend = visits < 2;
        if (!descend) visits = 0;
        break;
      case 4: descend = k == k0 + 1 && visits == 1; break;
      default: descend = false; break;
    }
    if (descend) {
      copies_on = false;
      continue;
    }
    if (star_on) {
      minimize(L, e, nstar == 1);
      if (failed()) return;
    }
  }
  if (nstar == 3 && star_on) minimize(view(k0), e, false);
}

}  // namespace kornlt
