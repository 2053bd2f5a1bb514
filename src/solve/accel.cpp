// Krylov accelerators on level 1 around a preconditioner: conjugate gradients
// (new_cgc, old_cgc), flexible CG (flexcg), BI-CGSTAB (cgstab) and flexible
// GMRES (gmres), with their breakdown restarts, the per-step stopping tests and
// the iteration table.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "control/threads.hpp"
#include "log/log.hpp"
#include "params/params.hpp"
#include "solve/solve.hpp"
#include "store/store.hpp"

namespace kornlt {

namespace {

// |(x, y)| at most this counts as zero in the CG family.
constexpr double kZeroDot = 1e-100;
// BI-CGSTAB breakdown: |(x, y)| <= kBicgBreak * |x| |y| (L2 norms).
constexpr double kBicgBreak = 1e-30;
// Modified first guesses CG tries before it gives up.
constexpr int kMaxCgRestarts = 5;
// Restarts BI-CGSTAB makes in one call before it stops.
constexpr int kMaxBicgRestarts = 10;
// GMRES: a rotated diagonal at most this fraction of |A z_j| means that A Z
// lost rank (singular matrix); a new Arnoldi norm that small means that the
// Krylov space is invariant.
constexpr double kGmresRankTol = 1e-11;
// Size of a modification of the first guess relative to its scale.
constexpr double kGuessShift = 1e-2;

// ---------------------------------------------------------------------------
// Names and codes under which one accelerator reports
// ---------------------------------------------------------------------------
struct Names {
  std::string_view routine;  // in parentheses: "new_cgc"
  std::string_view stop;     // head of the stop texts: "CG stop:"
  std::string_view rel;      // name in the relative-stagnation text
  AcceleratorId id;          // tens digit of the 8xx codes
};
constexpr Names kNewCg{"new_cgc", "CG stop:", "new_cg", kAccelCG};
constexpr Names kOldCg{"old_cgc", "CG stop:", "old_cg", kAccelCG};
constexpr Names kFlexCg{"flex new_cgc", "CG stop:", "flex new_cg", kAccelCG};
constexpr Names kBicg{"cgstab", "BiCGstab stop:", "cgstab", kAccelBiCGstab};
constexpr Names kGmres{"gmres", "GMRES stop:", "gmres", kAccelGmres};

std::string named(std::string_view head, std::string_view routine, std::string_view tail = "!") {
  return std::string(head) + " (" + std::string(routine) + ")" + std::string(tail);
}

std::string fmt_real(double v) {
  char buf[32];
  std::snprintf(buf, sizeof buf, "%13.6E", v);
  return buf;
}

// The message of a routine left because of an error (ierr > 0).
void leave_failed(const Names& nm) { print_message(kMsgError, 0, 0, named("... in", nm.routine)); }

// ---------------------------------------------------------------------------
// Work space
// ---------------------------------------------------------------------------

// nvec work vectors over the level's rows in one block, each addressed by
// global row index: w[j][i] for ilo <= i <= ihi. The memory statistics count
// the block while it lives.
class WorkVectors {
 public:
  WorkVectors() = default;
  WorkVectors(const WorkVectors&) = delete;
  WorkVectors& operator=(const WorkVectors&) = delete;
  ~WorkVectors() { store().memd -= counted_; }

  // False (nothing kept) when the memory is not available.
  bool allocate(int ilo, int ihi, int nvec) {
    ilo_ = ilo;
    n_ = std::max(ihi - ilo + 1, 0);
    try {
      buf_.assign(static_cast<std::size_t>(nvec) * static_cast<std::size_t>(n_), 0.0);
    } catch (const std::bad_alloc&) {
      return false;
    }
    counted_ = static_cast<std::int64_t>(buf_.size());
    store().memd += counted_;
    return true;
  }
  double* operator[](int j) { return buf_.data() + static_cast<std::size_t>(j) * n_ - ilo_; }

 private:
  std::vector<double> buf_;
  int ilo_ = 1, n_ = 0;
  std::int64_t counted_ = 0;
};

// Sums over row blocks that do not depend on timing: each thread block writes
// one row of partial sums, and the rows are added in block order after the
// join. Allocated once per solve.
class BlockSums {
 public:
  bool allocate(int width) {
    nt_ = std::max(thread_count(), 1);
    width_ = std::max(width, 1);
    try {
      part_.assign(static_cast<std::size_t>(nt_) * width_, 0.0);
    } catch (const std::bad_alloc&) {
      return false;
    }
    return true;
  }
  // block(lo, hi, part) writes m partial sums of rows lo..hi to part[0..m-1];
  // out[k] receives their total.
  template <class Block>
  void sum(int lo, int hi, int nmin, int m, double* out, Block&& block) {
    if (thread_count() > nt_) allocate(width_);  // the thread count grew meanwhile
    std::fill(part_.begin(), part_.end(), 0.0);
    for_blocks(lo, hi, nmin, [&](int blo, int bhi, int t) {
      block(blo, bhi, part_.data() + static_cast<std::size_t>(t) * width_);
    });
    for (int k = 0; k < m; ++k) {
      double s = 0.0;
      for (int t = 0; t < nt_; ++t) s += part_[static_cast<std::size_t>(t) * width_ + k];
      out[k] = s;
    }
  }

 private:
  std::vector<double> part_;
  int nt_ = 1, width_ = 1;
};

// ---------------------------------------------------------------------------
// Vector and matrix kernels over the level's rows (global indices)
// ---------------------------------------------------------------------------

Vec1<const double> cview(const LevelView& L, const double* v) {
  return Vec1<const double>(v + L.ilo, L.ilo, L.ihi);
}
Vec1<double> view(const LevelView& L, double* v) { return Vec1<double>(v + L.ilo, L.ilo, L.ihi); }

template <class Body>
void vector_loop(const LevelView& L, Body&& body) {
  for_blocks(L.ilo, L.ihi, prm().nmin_vector, [&](int lo, int hi, int) {
    for (int i = lo; i <= hi; ++i) body(i);
  });
}

double dot(const LevelView& L, BlockSums& bs, const double* x, const double* y) {
  double out = 0.0;
  bs.sum(L.ilo, L.ihi, prm().nmin_vector, 1, &out, [x, y](int lo, int hi, double* part) {
    double s = 0.0;
    for (int i = lo; i <= hi; ++i) s += x[i] * y[i];
    part[0] = s;
  });
  return out;
}

// (x, y) and (x, z) in one pass.
void dot2(const LevelView& L, BlockSums& bs, const double* x, const double* y, const double* z,
          double* out) {
  bs.sum(L.ilo, L.ihi, prm().nmin_vector, 2, out, [x, y, z](int lo, int hi, double* part) {
    double s0 = 0.0, s1 = 0.0;
    for (int i = lo; i <= hi; ++i) {
      s0 += x[i] * y[i];
      s1 += x[i] * z[i];
    }
    part[0] = s0;
    part[1] = s1;
  });
}

// y := A x.
void matvec(const LevelView& L, const double* x, double* y) {
  const int* ia = L.ia.origin();
  const int* ja = L.ja.origin();
  const double* a = L.a.origin();
  for_blocks(L.ilo, L.ihi, prm().nmin_matrix, [&](int lo, int hi, int) {
    for (int i = lo; i <= hi; ++i) {
      double s = 0.0;
      const int kend = ia[i + 1];
      for (int k = ia[i]; k < kend; ++k) s += a[k] * x[ja[k]];
      y[i] = s;
    }
  });
}

// y := A x, and in the same pass two sums of row terms: term(i, y_i, s0, s1)
// adds row i's share to s0 and s1. out[0..1] receive the totals.
template <class Term>
void matvec_sums(const LevelView& L, BlockSums& bs, const double* x, double* y, double* out,
                 Term term) {
  const int* ia = L.ia.origin();
  const int* ja = L.ja.origin();
  const double* a = L.a.origin();
  bs.sum(L.ilo, L.ihi, prm().nmin_matrix, 2, out, [&](int lo, int hi, double* part) {
    double s0 = 0.0, s1 = 0.0;
    for (int i = lo; i <= hi; ++i) {
      double s = 0.0;
      const int kend = ia[i + 1];
      for (int k = ia[i]; k < kend; ++k) s += a[k] * x[ja[k]];
      y[i] = s;
      term(i, s, s0, s1);
    }
    part[0] = s0;
    part[1] = s1;
  });
}

// out[k] := (cols[k], w) for k < m, all in one pass over the rows.
void multi_dot(const LevelView& L, BlockSums& bs, const double* const* cols, int m, const double* w,
               double* out) {
  bs.sum(L.ilo, L.ihi, prm().nmin_vector, m, out, [cols, m, w](int lo, int hi, double* part) {
    for (int k = 0; k < m; ++k) {
      const double* c = cols[k];
      double s = 0.0;
      for (int i = lo; i <= hi; ++i) s += c[i] * w[i];
      part[k] = s;
    }
  });
}

// w := w - sum_k h[k] cols[k], the columns in order k = 0..m-1.
void multi_axpy(const LevelView& L, const double* const* cols, int m, const double* h, double* w) {
  for_blocks(L.ilo, L.ihi, prm().nmin_vector, [cols, m, h, w](int lo, int hi, int) {
    for (int k = 0; k < m; ++k) {
      const double* c = cols[k];
      const double hk = h[k];
      for (int i = lo; i <= hi; ++i) w[i] -= hk * c[i];
    }
  });
}

// The true residual r := f - A u (r may be null: norm only) in the run's norm.
double true_residual(const LevelView& L, int norm_typ, double* r) {
  return r == nullptr ? compute_residual_norm(L, L.ilo, L.ihi, norm_typ)
                      : compute_residual_norm(L, L.ilo, L.ihi, norm_typ, view(L, r));
}

// A reproducible value in [-1, 1) for row i and draw k (a mixing hash).
double unit_noise(int i, int k) {
  std::uint64_t x = static_cast<std::uint64_t>(static_cast<std::uint32_t>(i)) * 0x9E3779B97F4A7C15ULL +
                    static_cast<std::uint64_t>(static_cast<std::uint32_t>(k)) * 0xBF58476D1CE4E5B9ULL;
  x ^= x >> 31;
  x *= 0x94D049BB133111EBULL;
  x ^= x >> 29;
  return static_cast<double>(x >> 11) * 0x1.0p-52 - 1.0;
}

// A modified first guess: u(i) += kGuessShift * scale * noise(i), where the
// scale is max |u|, else max |r(i) / a_ii|, else 1. Breakdown path only.
void perturb_guess(const LevelView& L, const double* r, int draw) {
  double scale = 0.0;
  for (int i = L.ilo; i <= L.ihi; ++i) scale = std::max(scale, std::abs(L.u(i)));
  if (scale == 0.0) {
    for (int i = L.ilo; i <= L.ihi; ++i) {
      const double d = L.a(L.ia(i));
      if (d != 0.0) scale = std::max(scale, std::abs(r[i] / d));
    }
  }
  if (!(scale > 0.0) || !std::isfinite(scale)) scale = 1.0;
  const double shift = kGuessShift * scale;
  double* u = L.u.origin();
  vector_loop(L, [=](int i) { u[i] += shift * unit_noise(i, draw); });
}

// ---------------------------------------------------------------------------
// The steps of one accelerator call: counting, hook, table line, quasi-residual
// check, stored history, stagnation tests and the stopping verdict.
// ---------------------------------------------------------------------------
class Steps {
 public:
  Steps(const LevelView& L, const AccelSettings& s, const StopSettings& ss, StopState& st,
        int& ncyc_done, const Names& nm)
      : imax(std::max(s.ncyc - ncyc_done, 0)),
        nth(std::max(s.nth_res_scratch, 1)),
        L_(L), s_(s), ss_(ss), st_(st), ncyc_(ncyc_done), nm_(nm),
        table_(s.out_level > 1),
        approx_(ss.iauto_stop_level != 0 && (ss.crit_on[1] != 0 || ss.num_old_res >= 1)) {}

  const int imax;  // steps allowed in this call
  const int nth;   // a true residual at every nth-th step

  // The true norm of the start or of a restart (not a step).
  void true_norm(double t) {
    if (first_) prev_ = t;
    first_ = false;
    last_ = t;
    last_true_ = true;
  }
  double last_norm() const { return last_; }

  // z := M r (z := r without a preconditioner).
  void precondition(const double* r, double* z) const {
    if (!s_.precond) {
      vector_loop(L_, [=](int i) { z[i] = r[i]; });
      return;
    }
    vector_loop(L_, [=](int i) { z[i] = 0.0; });
    s_.precond(cview(L_, r), view(L_, z));
  }

  // Counts a step once u is updated and calls the hook (normalisation of u,
  // the user's cycle hook) before the norms are taken. False on an error.
  bool count() {
    ++ncyc_;
    if (s_.after_step) s_.after_step(ncyc_);
    return !failed();
  }

  // Ends a counted step: q is the recurrence norm, t the true norm when
  // have_true. `quasi` runs the quasi-residual check; qlabel labels a
  // recurrence norm. Returns true to leave the iteration (stop verdict,
  // warning or error).
  bool end_step(double q, double t, bool have_true, bool quasi, std::string_view qlabel) {
    const double res = have_true ? t : q;
    last_ = res;
    last_true_ = have_true;
    if (table_) table_cycle_line(ncyc_, have_true ? norm_label(s_.norm_typ) : qlabel, res, prev_);
    prev_ = res;

    if (have_true && quasi) {
      const int k = quasi_residual_check(st_, ss_, q, t, s_.norm_typ, true);
      if (k == 2) {
        warn(-code(kAccelResidualsDiffer),
             named(std::string(nm_.stop) + " quasi and real residual too different", nm_.routine));
        return true;
      }
      if (k == 1) ierr() = -code(kAccelResidualsDiffer);
    }

    store_residual(st_, ss_, res);
    if (failed()) return true;
    if (approx_) {
      store_approximation(st_, Vec1<const double>(&L_.u(L_.ilo), L_.ilo, L_.ihi));
      if (failed()) return true;
    }
    int status = 0;
    check_approximations(st_, ss_, L_.nrows(), status);
    if (failed()) return true;
    if (status == -1) {
      warn(-code(kAccelNotConverged), named(std::string(nm_.stop) + " stagnation", nm_.routine));
      return true;
    }
    if (status > 0) {
      warn(-code(kAccelNotConverged), named(std::string(nm_.stop) + " not converged", nm_.routine));
      return true;
    }
    if (status == -2) {
      warn(-code(kAccelApproxStagnation),
           named(std::string(nm_.stop) + " Relative approximation stagnation", nm_.rel, "."));
      return true;
    }
    int done = 0;
    stopping_crit(ss_, ncyc_, s_.ncyc, res, s_.tol, status, done);
    return failed() || done != 0;
  }

  // res_out: the true norm of the last step, or a fresh one (-1.0 on error).
  double final_norm() {
    if (last_true_) return last_;
    const double t = true_residual(L_, s_.norm_typ, nullptr);
    last_ = t;
    last_true_ = true;
    return t;
  }

  int code(AcceleratorEvent e) const { return accelerator_code(nm_.id, e); }

 private:
  const LevelView& L_;
  const AccelSettings& s_;
  const StopSettings& ss_;
  StopState& st_;
  int& ncyc_;           // the cycle count shared with the driver
  const Names& nm_;
  const bool table_;    // one table line per step
  const bool approx_;   // approximations are stored for the stagnation test
  bool first_ = true;
  double prev_ = 0.0;
  double last_ = 0.0;
  bool last_true_ = true;
};

// The entry test common to all accelerators: false when there is nothing to
// do (no steps left, a zero residual) or the first norm failed.
bool entry(const LevelView& L, const AccelSettings& s, const Names& nm, int ncyc_done, double& res) {
  if (res < 0.0) {
    res = true_residual(L, s.norm_typ, nullptr);
    if (failed()) {
      leave_failed(nm);
      return false;
    }
  }
  if (res == 0.0) {
    print_message(kMsgInfo, 0, 0, named("Residual already zero", nm.routine));
    return false;
  }
  return ncyc_done < s.ncyc;
}

// Result of a breakdown treatment.
enum class Restart { Go, Stop, Failed };

// ===========================================================================
// CG: new_cgc (rho = (r, z)) and old_cgc ((r, p) with a true residual at
// every step, directions by the Hestenes-Stiefel coefficient).
// ===========================================================================
void cg_body(const LevelView& L, const AccelSettings& s, const StopSettings& ss, StopState& st,
             int& ncyc_done, double& res, bool old) {
  const Names& nm = old ? kOldCg : kNewCg;
  if (!entry(L, s, nm, ncyc_done, res)) return;

  WorkVectors w;
  BlockSums bs;
  if (!w.allocate(L.ilo, L.ihi, 5) || !bs.allocate(2)) {
    fail(kErrAllocation, named("Allocation failed in", nm.routine));
    return;
  }
  double* r = w[0];   // residual (recurrence for new_cgc, true for old_cgc)
  double* z = w[1];   // preconditioned residual
  double* p = w[2];   // direction
  double* ap = w[3];  // A p
  double* rt = w[4];  // true residual between restarts (new_cgc)
  double* u = L.u.origin();

  Steps c(L, s, ss, st, ncyc_done, nm);
  double res_fail = -1.0;  // res on an error exit: the true norm after a breakdown
  const auto leave = [&] {
    res = res_fail;
    leave_failed(nm);
  };
  c.true_norm(true_residual(L, s.norm_typ, r));
  if (failed()) return leave();

  const int nth = old ? 1 : c.nth;
  const int nkdim = std::max(s.nkdim, 1);
  const std::string rlabel(norm_label(s.norm_typ, true));
  int nbreak = 0;
  unsigned told = 0;  // negative products already reported, one bit per text

  // A zero product: modify the first guess and start again, or give up.
  const auto breakdown = [&](const std::string& text) -> Restart {
    warn(-accelerator_code(kAccelCG, kAccelBreakdown), text);
    if (++nbreak > kMaxCgRestarts) {
      res_fail = c.final_norm();
      if (failed()) return Restart::Failed;
      print_message(kMsgError, 0, 0, named("Breakdown of CG on level 1", nm.routine, ": too many restarts:"));
      fail(accelerator_code(kAccelCG, kAccelBreakdown), "Given matrix is not positive definite (numerically)!");
      return Restart::Failed;
    }
    print_message(kMsgInfo, 0, 0, named("Modification of initial guess", nm.routine, "."));
    perturb_guess(L, r, nbreak);
    c.true_norm(true_residual(L, s.norm_typ, r));
    return failed() ? Restart::Failed : Restart::Go;
  };
  // A negative product: reported once per call, the iteration goes on.
  const auto negative = [&](unsigned bit, const std::string& text) {
    if ((told & bit) == 0) print_message(kMsgWarning, 0, 0, text);
    told |= bit;
    ierr() = -accelerator_code(kAccelCG, kAccelBreakdown);
  };

  bool fresh = true;
  double rho_old = 1.0, pap_old = 1.0;
  int i = 0;
  while (i < c.imax) {
    // 1. Preconditioning.
    c.precondition(r, z);
    if (failed()) return leave();

    // 2. rho = (r, z).
    double rho = 0.0;
    if (!old) {
      rho = dot(L, bs, r, z);
      if (std::abs(rho) <= kZeroDot) {
        if (c.last_norm() == 0.0) break;
        const Restart rs = breakdown(named("Zero (rho_old) on level 1", nm.routine));
        if (rs == Restart::Failed) return leave();
        fresh = true;
        continue;
      }
      if (rho < -kZeroDot) negative(1, named("Negative (rho_old) on level 1", nm.routine));
    }

    // 3. Direction.
    if (fresh) {
      vector_loop(L, [=](int k) { p[k] = z[k]; });
    } else {
      const double beta = old ? -dot(L, bs, z, ap) / pap_old : rho / rho_old;
      vector_loop(L, [=](int k) { p[k] = z[k] + beta * p[k]; });
    }

    // 4. Ap, (Ap, p) and, for old_cgc, (r, p).
    double sums[2];
    if (old) {
      matvec_sums(L, bs, p, ap, sums, [=](int k, double apk, double& s0, double& s1) {
        s0 += apk * p[k];
        s1 += r[k] * p[k];
      });
    } else {
      matvec_sums(L, bs, p, ap, sums, [=](int k, double apk, double& s0, double&) { s0 += apk * p[k]; });
    }
    const double pap = sums[0];
    if (s.track_ap_p) print_message(kMsgInfo, 0, 0, "(Ap,p) =" + fmt_real(pap));
    if (std::abs(pap) <= kZeroDot) {
      const bool zero_p = dot(L, bs, p, p) == 0.0;
      const Restart rs = breakdown(named(zero_p ? "Zero p on level 1" : "Zero (Ap,p) on level 1", nm.routine));
      if (rs == Restart::Failed) return leave();
      fresh = true;
      continue;
    }
    if (pap < -kZeroDot) negative(2, named("Negative (Ap,p) on level 1", nm.routine));
    double num = rho;
    if (old) {
      num = sums[1];
      if (std::abs(num) <= kZeroDot) {
        if (c.last_norm() == 0.0) break;
        const Restart rs = breakdown(named("Zero (res,p) on level 1", nm.routine));
        if (rs == Restart::Failed) return leave();
        fresh = true;
        continue;
      }
      if (num < -kZeroDot) negative(4, named("Negative (res,p) on level 1", nm.routine));
    }

    // 5. Update of u and r.
    const double alpha = num / pap;
    if (old) {
      vector_loop(L, [=](int k) { u[k] += alpha * p[k]; });
    } else {
      vector_loop(L, [=](int k) {
        u[k] += alpha * p[k];
        r[k] -= alpha * ap[k];
      });
    }
    if (!st.sol_correction.empty()) update_sol_correction(st, alpha, cview(L, p), cview(L, u));
    ++i;

    // 6. Count, normalise u, the user's hook.
    if (!c.count()) return leave();

    // 7. Norms: the recurrence, and a true residual every nth step and at a restart.
    const bool restart = i % nkdim == 0;
    double q, t = 0.0;
    bool have_true;
    if (old) {
      t = q = true_residual(L, s.norm_typ, r);
      have_true = true;
    } else {
      q = resid1(cview(L, r), s.norm_typ);
      have_true = restart || i % nth == 0;
      if (have_true && !failed()) {
        t = true_residual(L, s.norm_typ, rt);
        if (restart) std::swap(r, rt);
      }
    }
    if (failed()) return leave();

    // 8-10. Table, quasi-residual check, stopping tests.
    if (c.end_step(q, t, have_true, !old, rlabel)) break;

    // 11. The next direction restarts from z after nkdim steps.
    fresh = restart;
    rho_old = rho;
    pap_old = pap;
  }
  if (failed()) return leave();
  res = c.final_norm();
  if (failed()) leave_failed(nm);
}

// ===========================================================================
// Flexible CG: the new direction is made A-orthogonal to all directions kept
// since the last restart (at most nkdim), so that a preconditioner that varies
// from step to step is tolerated; after nkdim steps the kept set is cleared.
// ===========================================================================
void flexcg_body(const LevelView& L, const AccelSettings& s, const StopSettings& ss, StopState& st,
                 int& ncyc_done, double& res) {
  const Names& nm = kFlexCg;
  if (prm().itrace_sol > 0) print_message(kMsgInfo, 0, 0, "enter flexcg (finest level)");
  if (!entry(L, s, nm, ncyc_done, res)) return;

  const int m = std::max(s.nkdim, 1);
  WorkVectors w;
  BlockSums bs;
  std::vector<double> pap_kept, coef;
  std::vector<const double*> pcol, apcol;
  bool ok = w.allocate(L.ilo, L.ihi, 2 + 2 * m) && bs.allocate(std::max(m, 2));
  if (ok) {
    try {
      pap_kept.assign(static_cast<std::size_t>(m), 0.0);
      coef.assign(static_cast<std::size_t>(m), 0.0);
      pcol.assign(static_cast<std::size_t>(m), nullptr);
      apcol.assign(static_cast<std::size_t>(m), nullptr);
    } catch (const std::bad_alloc&) {
      ok = false;
    }
  }
  if (!ok) {
    fail(kErrAllocation, named("Allocation failed in", nm.routine));
    return;
  }
  double* r = w[0];
  double* rt = w[1];
  for (int j = 0; j < m; ++j) {
    pcol[static_cast<std::size_t>(j)] = w[2 + j];
    apcol[static_cast<std::size_t>(j)] = w[2 + m + j];
  }
  double* u = L.u.origin();

  Steps c(L, s, ss, st, ncyc_done, nm);
  double res_fail = -1.0;  // res on an error exit: the true norm after a breakdown
  const auto leave = [&] {
    res = res_fail;
    leave_failed(nm);
  };
  c.true_norm(true_residual(L, s.norm_typ, r));
  if (failed()) return leave();
  const std::string rlabel(norm_label(s.norm_typ, true));
  int nbreak = 0;
  bool told_negative = false;
  int kept = 0;  // directions kept since the last restart
  int i = 0;
  while (i < c.imax) {
    double* p = w[2 + kept];
    double* ap = w[2 + m + kept];

    // Preconditioning into the new direction, then A-orthogonalisation
    // against the kept directions: p := z - sum_j (z, A p_j) / (p_j, A p_j) p_j.
    c.precondition(r, p);
    if (failed()) return leave();
    if (kept > 0) {
      multi_dot(L, bs, apcol.data(), kept, p, coef.data());
      for (int j = 0; j < kept; ++j) coef[static_cast<std::size_t>(j)] /= pap_kept[static_cast<std::size_t>(j)];
      multi_axpy(L, pcol.data(), kept, coef.data(), p);
    }

    double sums[2];
    matvec_sums(L, bs, p, ap, sums, [=](int k, double apk, double& s0, double& s1) {
      s0 += apk * p[k];
      s1 += r[k] * p[k];
    });
    const double pap = sums[0];
    if (s.track_ap_p) print_message(kMsgInfo, 0, 0, "(Ap,p) =" + fmt_real(pap));
    if (std::abs(pap) <= kZeroDot) {
      if (c.last_norm() == 0.0) break;
      const bool zero_p = dot(L, bs, p, p) == 0.0;
      warn(-accelerator_code(kAccelCG, kAccelBreakdown),
           named(zero_p ? "Zero p on level 1" : "Zero (Ap,p) on level 1", nm.routine));
      if (++nbreak > kMaxCgRestarts) {
        res_fail = c.final_norm();
        if (failed()) return leave();
        print_message(kMsgError, 0, 0, named("Breakdown of CG on level 1", nm.routine, ": too many restarts:"));
        fail(accelerator_code(kAccelCG, kAccelBreakdown), "Given matrix is not positive definite (numerically)!");
        return leave();
      }
      print_message(kMsgInfo, 0, 0, named("Modification of initial guess", nm.routine, "."));
      perturb_guess(L, r, nbreak);
      c.true_norm(true_residual(L, s.norm_typ, r));
      if (failed()) return leave();
      kept = 0;
      continue;
    }
    if (pap < -kZeroDot) {
      if (!told_negative) print_message(kMsgWarning, 0, 0, named("Negative (Ap,p) on level 1", nm.routine));
      told_negative = true;
      ierr() = -accelerator_code(kAccelCG, kAccelBreakdown);
    }

    const double alpha = sums[1] / pap;
    vector_loop(L, [=](int k) {
      u[k] += alpha * p[k];
      r[k] -= alpha * ap[k];
    });
    if (!st.sol_correction.empty()) update_sol_correction(st, alpha, cview(L, p), cview(L, u));
    pap_kept[static_cast<std::size_t>(kept)] = pap;
    ++kept;
    ++i;
    if (!c.count()) return leave();

    const bool restart = kept == m;
    const double q = resid1(cview(L, r), s.norm_typ);
    const bool have_true = restart || i % c.nth == 0;
    double t = 0.0;
    if (have_true && !failed()) {
      t = true_residual(L, s.norm_typ, rt);
      if (restart) std::swap(r, rt);
    }
    if (failed()) return leave();
    if (c.end_step(q, t, have_true, true, rlabel)) break;
    if (restart) kept = 0;
  }
  if (failed()) return leave();
  res = c.final_norm();
  if (failed()) leave_failed(nm);
}

// ===========================================================================
// BI-CGSTAB, right preconditioned. A breakdown restarts in stages: a fresh
// residual, then a modified shadow residual <rbar>, then a modified first
// guess; a fourth consecutive breakdown is error 840. More than
// kMaxBicgRestarts restarts in one call stop it with warning -843.
// ===========================================================================
void cgstab_body(const LevelView& L, const AccelSettings& s, const StopSettings& ss, StopState& st,
                 int& ncyc_done, double& res) {
  const Names& nm = kBicg;
  if (!entry(L, s, nm, ncyc_done, res)) return;

  WorkVectors w;
  BlockSums bs;
  if (!w.allocate(L.ilo, L.ihi, 7) || !bs.allocate(2)) {
    fail(kErrAllocation, named("Allocation failed in", nm.routine));
    return;
  }
  double* r = w[0];   // residual (recurrence); s after the first half step
  double* rb = w[1];  // shadow residual <rbar>
  double* p = w[2];
  double* v = w[3];   // A M p
  double* z1 = w[4];  // M p
  double* z2 = w[5];  // M s
  double* t = w[6];   // A M s; afterwards scratch
  double* u = L.u.origin();

  Steps c(L, s, ss, st, ncyc_done, nm);
  double res_fail = -1.0;  // res on an error exit: the true norm after a breakdown
  const auto leave = [&] {
    res = res_fail;
    leave_failed(nm);
  };
  c.true_norm(true_residual(L, s.norm_typ, r));
  if (failed()) return leave();
  const std::string rlabel(norm_label(s.norm_typ, true));

  bool fresh = true;     // the next direction is p := r
  bool new_rbar = true;  // <rbar> := r before the next step
  double nrb = 0.0;      // |rbar| (L2)
  double rho_old = 1.0, alpha = 1.0, omega = 1.0;
  int stage = 0, nrestart = 0;

  const auto restart = [&]() -> Restart {
    if (++nrestart > kMaxBicgRestarts) {
      warn(-accelerator_code(kAccelBiCGstab, kAccelTooManyRestarts),
           "BiCGstab on level 1 (cgstab) stopped: too many restarts!");
      return Restart::Stop;
    }
    ++stage;
    fresh = true;
    new_rbar = true;
    if (stage == 1) {
      print_message(kMsgWarning, 0, 0, "Re-start of BI-CGSTAB on level 1 (cgstab)!");
    } else if (stage == 2) {
      print_message(kMsgWarning, 0, 0, "Re-start with modified <rbar> on level 1 (cgstab)!");
    } else if (stage == 3) {
      print_message(kMsgWarning, 0, 0, "Re-start with new initial guess on level 1 (cgstab)!");
      perturb_guess(L, r, nrestart);
    } else {
      res_fail = c.final_norm();
      if (failed()) return Restart::Failed;
      print_message(kMsgError, 0, 0, "Breakdown of BiCGstab on level 1 (cgstab):");
      print_message(kMsgError, 0, 0, "Given matrix is singular!");
      fail(accelerator_code(kAccelBiCGstab, kAccelBreakdown),
           "BiCGstab failed on level 1 (cgstab) after repeated restart!");
      return Restart::Failed;
    }
    c.true_norm(true_residual(L, s.norm_typ, r));
    if (failed()) return Restart::Failed;
    if (stage == 2) {
      // <rbar> := r + noise of half the size of the largest residual entry.
      double rmax = 0.0;
      for (int k = L.ilo; k <= L.ihi; ++k) rmax = std::max(rmax, std::abs(r[k]));
      const double amp = 0.5 * rmax;
      vector_loop(L, [=](int k) { rb[k] = r[k] + amp * unit_noise(k, nrestart); });
      nrb = std::sqrt(dot(L, bs, rb, rb));
      new_rbar = false;
    }
    return Restart::Go;
  };
  // Breakdown treatment inside the loop: true to go on with the next try.
  const auto on_breakdown = [&]() -> bool { return restart() == Restart::Go; };

  int i = 0;
  while (i < c.imax) {
    if (new_rbar) {
      vector_loop(L, [=](int k) { rb[k] = r[k]; });
      nrb = std::sqrt(dot(L, bs, rb, rb));
      new_rbar = false;
    }
    double d[2];
    dot2(L, bs, r, rb, r, d);
    const double rho = d[0];
    if (d[1] == 0.0) break;  // exact solution
    if (std::abs(rho) <= std::max(kZeroDot, kBicgBreak * nrb * std::sqrt(d[1]))) {
      if (on_breakdown()) continue;
      break;
    }

    // First half: p, M p, v = A M p, alpha.
    if (fresh) {
      vector_loop(L, [=](int k) { p[k] = r[k]; });
    } else {
      const double beta = (rho / rho_old) * (alpha / omega);
      const double om = omega;
      vector_loop(L, [=](int k) { p[k] = r[k] + beta * (p[k] - om * v[k]); });
    }
    c.precondition(p, z1);
    if (failed()) return leave();
    double sv[2];
    matvec_sums(L, bs, z1, v, sv, [=](int k, double vk, double& s0, double& s1) {
      s0 += vk * rb[k];
      s1 += vk * vk;
    });
    if (std::abs(sv[0]) <= std::max(kZeroDot, kBicgBreak * nrb * std::sqrt(sv[1]))) {
      if (on_breakdown()) continue;
      break;
    }
    alpha = rho / sv[0];
    const double al = alpha;
    vector_loop(L, [=](int k) {
      u[k] += al * z1[k];
      r[k] -= al * v[k];
    });
    double q = resid1(cview(L, r), s.norm_typ);
    if (failed()) return leave();

    // Second half, unless the first already reaches the target.
    const bool half = q <= s.tol;
    double om = 0.0;
    if (half) {
      print_message(kMsgInfo, 0, 0, rlabel + "-Residual(1) already fulfills termination criterion!");
    } else {
      c.precondition(r, z2);
      if (failed()) return leave();
      double ts[2];
      matvec_sums(L, bs, z2, t, ts, [=](int k, double tk, double& s0, double& s1) {
        s0 += tk * r[k];
        s1 += tk * tk;
      });
      if (ts[1] <= kZeroDot) {
        if (on_breakdown()) continue;
        break;
      }
      om = ts[0] / ts[1];
      vector_loop(L, [=](int k) {
        u[k] += om * z2[k];
        r[k] -= om * t[k];
      });
      q = resid1(cview(L, r), s.norm_typ);
      if (failed()) return leave();
    }
    if (!st.sol_correction.empty()) {
      vector_loop(L, [=](int k) { t[k] = al * z1[k] + om * z2[k]; });
      update_sol_correction(st, 1.0, cview(L, t), cview(L, u));
    }
    ++i;
    stage = 0;
    if (!c.count()) return leave();

    const bool have_true = i % c.nth == 0;
    double tn = 0.0;
    if (have_true) {
      tn = true_residual(L, s.norm_typ, nullptr);
      if (failed()) return leave();
    }
    if (c.end_step(q, tn, have_true, true, rlabel)) break;

    // After a half step or a zero omega the next direction starts afresh.
    omega = om;
    rho_old = rho;
    fresh = half || om == 0.0;
  }
  if (failed()) return leave();
  res = c.final_norm();
  if (failed()) leave_failed(nm);
}

// ===========================================================================
// Flexible GMRES(m): Arnoldi with classical Gram-Schmidt twice, Givens
// rotations on the Hessenberg matrix, the recurrence norm |g(j+1)| of the
// rotated right-hand side. u = u0 + Z y is formed after every step, so that
// the hook, the stored approximations and a true residual see the current one.
// ===========================================================================
void gmres_body(const LevelView& L, const AccelSettings& s, const StopSettings& ss, StopState& st,
                int& ncyc_done, double& res) {
  const Names& nm = kGmres;
  if (!entry(L, s, nm, ncyc_done, res)) return;

  const int m = std::max(s.nkdim, 1);
  const int ld = m + 1;  // leading dimension of the Hessenberg matrix
  WorkVectors vw, zw, aux;
  BlockSums bs;
  std::vector<double> small;
  std::vector<const double*> vcol;
  int failed_block = 0;
  if (!vw.allocate(L.ilo, L.ihi, m + 1)) failed_block = 1;
  else if (!zw.allocate(L.ilo, L.ihi, m)) failed_block = 2;
  else if (!aux.allocate(L.ilo, L.ihi, 2)) failed_block = 3;
  else {
    try {
      small.assign(static_cast<std::size_t>(ld * m + 6 * ld), 0.0);
      vcol.assign(static_cast<std::size_t>(m + 1), nullptr);
    } catch (const std::bad_alloc&) {
      failed_block = 4;
    }
    if (failed_block == 0 && !bs.allocate(m + 1)) failed_block = 5;
  }
  if (failed_block != 0) {
    fail(kErrAllocation, "Allocation #" + fmt_int(failed_block) + " failed in (gmres)");
    return;
  }
  double* H = small.data();  // column j: H[j*ld + k], k = 0..j+1
  double* cs = H + ld * m;
  double* sn = cs + ld;
  double* g = sn + ld;
  double* y = g + ld;
  double* h1 = y + ld;
  double* h2 = h1 + ld;
  for (int j = 0; j <= m; ++j) vcol[static_cast<std::size_t>(j)] = vw[j];
  double* u0 = aux[0];
  double* wv = aux[1];
  double* u = L.u.origin();

  Steps c(L, s, ss, st, ncyc_done, nm);
  double res_fail = -1.0;  // res on an error exit: the true norm after a breakdown
  const auto leave = [&] {
    res = res_fail;
    leave_failed(nm);
  };
  const bool l2 = s.norm_typ == 0 || s.norm_typ == 3;
  double t = true_residual(L, s.norm_typ, vw[0]);
  if (failed()) return leave();
  c.true_norm(t);

  int i = 0;
  bool leave_loop = false;
  while (i < c.imax && !leave_loop) {
    // A new cycle from the true residual in V(0).
    double* v0 = vw[0];
    const double beta = l2 ? t : std::sqrt(dot(L, bs, v0, v0));
    if (beta == 0.0) break;
    const double inv = 1.0 / beta;
    vector_loop(L, [=](int k) {
      v0[k] *= inv;
      u0[k] = u[k];
    });
    std::fill(g, g + ld, 0.0);
    g[0] = beta;

    for (int j = 0; j < m && i < c.imax; ++j) {
      double* zj = zw[j];
      c.precondition(vw[j], zj);
      if (failed()) return leave();
      matvec(L, zj, wv);

      // Classical Gram-Schmidt, twice: h = V^T w, w := w - V h.
      multi_dot(L, bs, vcol.data(), j + 1, wv, h1);
      multi_axpy(L, vcol.data(), j + 1, h1, wv);
      multi_dot(L, bs, vcol.data(), j + 1, wv, h2);
      multi_axpy(L, vcol.data(), j + 1, h2, wv);
      const double hn = std::sqrt(dot(L, bs, wv, wv));
      double* col = H + static_cast<std::size_t>(j) * ld;
      double colnorm = hn * hn;
      for (int k = 0; k <= j; ++k) {
        col[k] = h1[k] + h2[k];
        colnorm += col[k] * col[k];
      }
      colnorm = std::sqrt(colnorm);

      // Earlier rotations, then the new one.
      for (int k = 0; k < j; ++k) {
        const double a0 = col[k], a1 = col[k + 1];
        col[k] = cs[k] * a0 + sn[k] * a1;
        col[k + 1] = -sn[k] * a0 + cs[k] * a1;
      }
      const double rr = std::hypot(col[j], hn);
      if (!(rr > kGmresRankTol * colnorm)) {
        // A Z lost rank: u keeps the approximation of the previous step.
        res_fail = c.final_norm();
        if (failed()) return leave();
        print_message(kMsgError, 0, 0, "Breakdown of GMRES on level 1 (gmres):");
        fail(accelerator_code(kAccelGmres, kAccelBreakdown), "Given matrix is singular!");
        return leave();
      }
      cs[j] = col[j] / rr;
      sn[j] = hn / rr;
      col[j] = rr;
      col[j + 1] = 0.0;
      g[j + 1] = -sn[j] * g[j];
      g[j] = cs[j] * g[j];
      const double q = std::abs(g[j + 1]);
      const bool invariant = !(hn > kGmresRankTol * colnorm);
      if (!invariant) {
        const double hinv = 1.0 / hn;
        double* vn = vw[j + 1];
        vector_loop(L, [=](int k) { vn[k] = wv[k] * hinv; });
      }

      // y := R^{-1} g, u := u0 + Z y.
      for (int k = j; k >= 0; --k) {
        double sum = g[k];
        for (int l = k + 1; l <= j; ++l) sum -= H[static_cast<std::size_t>(l) * ld + k] * y[l];
        y[k] = sum / H[static_cast<std::size_t>(k) * ld + k];
      }
      const bool corr = !st.sol_correction.empty();
      if (corr) vector_loop(L, [=](int k) { wv[k] = u[k]; });
      vector_loop(L, [=](int k) { u[k] = u0[k]; });
      {
        const int nz = j + 1;
        for_blocks(L.ilo, L.ihi, prm().nmin_vector, [&](int lo, int hi, int) {
          for (int l = 0; l < nz; ++l) {
            const double* zl = zw[l];
            const double yl = y[l];
            for (int k = lo; k <= hi; ++k) u[k] += yl * zl[k];
          }
        });
      }
      if (corr) {
        vector_loop(L, [=](int k) { wv[k] = u[k] - wv[k]; });
        update_sol_correction(st, 1.0, cview(L, wv), cview(L, u));
      }
      ++i;
      if (!c.count()) return leave();

      // A true residual every nth step and at the end of the cycle, where
      // it goes to V(0) for the next cycle.
      const bool last = invariant || j == m - 1;
      const bool have_true = last || i % c.nth == 0;
      if (have_true) {
        t = true_residual(L, s.norm_typ, last ? vw[0] : nullptr);
        if (failed()) return leave();
      }
      if (c.end_step(q, t, have_true, l2, "q2")) {
        leave_loop = true;
        break;
      }
      if (invariant) break;
    }
  }
  if (failed()) return leave();
  res = c.final_norm();
  if (failed()) leave_failed(nm);
}

}  // namespace

// ===========================================================================
// Entry routines
// ===========================================================================

void new_cgc(const LevelView& L, const AccelSettings& s, const StopSettings& ss, StopState& st,
             int& ncyc_done, double& res) {
  cg_body(L, s, ss, st, ncyc_done, res, false);
}

void old_cgc(const LevelView& L, const AccelSettings& s, const StopSettings& ss, StopState& st,
             int& ncyc_done, double& res) {
  cg_body(L, s, ss, st, ncyc_done, res, true);
}

void cgstab(const LevelView& L, const AccelSettings& s, const StopSettings& ss, StopState& st,
            int& ncyc_done, double& res) {
  cgstab_body(L, s, ss, st, ncyc_done, res);
}

void gmres(const LevelView& L, const AccelSettings& s, const StopSettings& ss, StopState& st,
           int& ncyc_done, double& res) {
  gmres_body(L, s, ss, st, ncyc_done, res);
}

void flexcg(const LevelView& L, const AccelSettings& s, const StopSettings& ss, StopState& st,
            int& ncyc_done, double& res) {
  flexcg_body(L, s, ss, st, ncyc_done, res);
}

void korn_accel(const LevelView& L, const AccelSettings& s, const StopSettings& ss, StopState& st,
                int& ncyc_done, double& res) {
  switch (s.ncgrad) {
    case 1:  // CG: 1 new_cgc, 2 old_cgc
      if (s.ntyp_cg == 1)
        new_cgc(L, s, ss, st, ncyc_done, res);
      else if (s.ntyp_cg == 2)
        old_cgc(L, s, ss, st, ncyc_done, res);
      else
        fail(kErrInternal, "Illegal value of parameter <ntyp_cg> in (solve)");
      return;
    case 2: cgstab(L, s, ss, st, ncyc_done, res); return;  // BI-CGSTAB
    case 3: gmres(L, s, ss, st, ncyc_done, res); return;   // flexible GMRES
    case 4: flexcg(L, s, ss, st, ncyc_done, res); return;  // flexible CG
    default: emergency_stop("Illegal value of parameter <ncgrad> in (solve)");
  }
}

}  // namespace kornlt
