// Residual norms of the solution phase (full and half-stored matrices, given
// vectors, per unknown), the stopping tests over stored norms and
// approximations, the criteria merge, the quasi-residual check, and the lines
// of the iteration table.
#include <omp.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <limits>
#include <new>
#include <string>
#include <vector>

#include "control/threads.hpp"
#include "log/log.hpp"
#include "params/params.hpp"
#include "solve/solve.hpp"

namespace kornlt {

namespace {

// A sum of r^2 or |r| (or a maximum) above the largest double, written
// 1.79769313486232e+308 in decimal, is an overflow.
constexpr double kHugeSum = std::numeric_limits<double>::max();
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
// Added to every denominator of a ratio of norms.
constexpr double kRatioGuard = 1e-90;
constexpr double kEpsMachine = 2.220446049250313e-16;
constexpr double kTinyValue = 2.2250738585072014e-307;

// How a norm accumulates: 0 or 3 -> L2 (sum of squares), 1 -> L1, 2 -> max.
enum NormKind : int { kNormL2 = 0, kNormL1 = 1, kNormMax = 2, kNormIllegal = -1 };

int norm_kind(int norm_typ) {
  switch (norm_typ) {
    case 0:
    case 3:
      return kNormL2;
    case 1:
      return kNormL1;
    case 2:
      return kNormMax;
    default:
      return kNormIllegal;
  }
}

std::string in_routine(std::string_view head, std::string_view routine) {
  return std::string(head) + " (" + std::string(routine) + ")!";
}

std::string fmt_real(double v) {
  char buf[32];
  std::snprintf(buf, sizeof buf, "%13.6E", v);
  return buf;
}

// Charges the wall-clock time of its scope to the residual timer.
class ResidualClock {
 public:
  ResidualClock() : t0_(omp_get_wtime()) {}
  ~ResidualClock() { residual_time() += omp_get_wtime() - t0_; }
  ResidualClock(const ResidualClock&) = delete;
  ResidualClock& operator=(const ResidualClock&) = delete;

 private:
  double t0_;
};

// One block's accumulator. The maximum keeps a NaN flag of its own, since
// std::max drops a NaN depending on the argument order.
template <int kKind>
struct Accumulator {
  double v = 0.0;
  bool nan = false;
  void add(double r) {
    if constexpr (kKind == kNormL2) {
      v += r * r;
    } else if constexpr (kKind == kNormL1) {
      v += std::abs(r);
    } else {
      const double x = std::abs(r);
      v = std::max(v, x);
      nan |= (x != x);
    }
  }
  double value() const { return nan ? kNaN : v; }
};

// The larger of two partial maxima; a NaN wins.
double nan_max(double a, double b) {
  if (a != a || b != b) return kNaN;
  return std::max(a, b);
}

// Maximum over the static blocks of lo..hi: one partial per thread, merged
// after the join. part(lo, hi) returns a block's maximum (NaN if it met one).
template <class Part>
double max_over_blocks(int lo, int hi, int nmin, Part&& part) {
  const int nt = thread_count();
  if (!use_threads(lo, hi, nmin, nt)) return part(lo, hi);
  std::vector<double> partial(static_cast<std::size_t>(nt), 0.0);
  for_blocks(lo, hi, nmin, [&](int blo, int bhi, int t) {
    partial[static_cast<std::size_t>(t)] = part(blo, bhi);
  });
  double m = 0.0;
  for (double p : partial) m = nan_max(m, p);
  return m;
}

// Sum (reproducible: partials added in thread order) or maximum.
template <int kKind, class Part>
double reduce_blocks(int lo, int hi, int nmin, Part&& part) {
  if constexpr (kKind == kNormMax)
    return max_over_blocks(lo, hi, nmin, part);
  else
    return ordered_sum(lo, hi, nmin, part);
}

// NaN and overflow tests of an accumulated value; L2 takes the root after them.
double finish_norm(double sum, int kind, std::string_view routine) {
  if (!(sum <= 0.0) && !(sum > 0.0)) {
    fail(kErrResidualNaN, in_routine("NaN detected in", routine));
    return -1.0;
  }
  if (sum > kHugeSum) {
    fail(kErrResidualOverflow, in_routine("Residual overflow caught in", routine));
    return -1.0;
  }
  return kind == kNormL2 ? std::sqrt(sum) : sum;
}

// Raw arrays of a level for the row kernels, indexed by global indices.
struct RowArrays {
  const int* ia;
  const int* ja;
  const double* a;
  const double* u;
  const double* f;
  const double* w;  // transposed part of a half matrix (kHalf only)
  double* r;        // residual output (kStore only)
};

RowArrays row_arrays(const LevelView& L) {
  return {L.ia.origin(), L.ja.origin(), L.a.origin(), L.u.origin(), L.f.origin(), nullptr, nullptr};
}

// Accumulates r(i) = f(i) - sum_k a(k) u(ja(k)) [- w(i)] over rows lo..hi.
template <int kKind, bool kStore, bool kHalf>
double rows_part(const RowArrays& m, int lo, int hi) {
  Accumulator<kKind> acc;
  for (int i = lo; i <= hi; ++i) {
    double s = m.f[i];
    const int kend = m.ia[i + 1];
    for (int k = m.ia[i]; k < kend; ++k) s -= m.a[k] * m.u[m.ja[k]];
    if constexpr (kHalf) s -= m.w[i];
    if constexpr (kStore) m.r[i] = s;
    acc.add(s);
  }
  return acc.value();
}

template <int kKind, bool kStore, bool kHalf>
double rows_reduce(const RowArrays& m, int lo, int hi) {
  return reduce_blocks<kKind>(lo, hi, prm().nmin_matrix, [&m](int blo, int bhi) {
    return rows_part<kKind, kStore, kHalf>(m, blo, bhi);
  });
}

template <bool kStore, bool kHalf>
double rows_accumulate(int kind, const RowArrays& m, int lo, int hi) {
  switch (kind) {
    case kNormL2:
      return rows_reduce<kNormL2, kStore, kHalf>(m, lo, hi);
    case kNormL1:
      return rows_reduce<kNormL1, kStore, kHalf>(m, lo, hi);
    default:
      return rows_reduce<kNormMax, kStore, kHalf>(m, lo, hi);
  }
}

// The common body of resid and compute_residual_norm.
double rows_norm(const LevelView& L, int ilo, int ihi, int norm_typ, const Vec1<double>& r,
                 std::string_view routine) {
  ResidualClock clock;
  const int kind = norm_kind(norm_typ);
  if (kind == kNormIllegal) {
    fail(kErrInternal, in_routine("Illegal norm_typ specified", routine));
    return -1.0;
  }
  RowArrays m = row_arrays(L);
  double sum;
  if (r.empty()) {
    sum = rows_accumulate<false, false>(kind, m, ilo, ihi);
  } else {
    m.r = r.origin();
    sum = rows_accumulate<true, false>(kind, m, ilo, ihi);
  }
  return finish_norm(sum, kind, routine);
}

template <int kKind>
double vector_part(const double* r, int lo, int hi) {
  Accumulator<kKind> acc;
  for (int i = lo; i <= hi; ++i) acc.add(r[i]);
  return acc.value();
}

template <int kKind>
double vector_reduce(const double* r, int lo, int hi) {
  return reduce_blocks<kKind>(lo, hi, prm().nmin_vector,
                              [r](int blo, int bhi) { return vector_part<kKind>(r, blo, bhi); });
}

// ---------------------------------------------------------------------------
// Per-unknown accumulation: one column of nsys+1 values per thread (element 0
// the total), merged after the loop in thread order.
// ---------------------------------------------------------------------------
template <int kKind>
void unknown_add(double* col, int k, double s, bool& nan) {
  if constexpr (kKind == kNormL2) {
    const double q = s * s;
    col[0] += q;
    col[k] += q;
  } else if constexpr (kKind == kNormL1) {
    const double q = std::abs(s);
    col[0] += q;
    col[k] += q;
  } else {
    const double q = std::abs(s);
    col[0] = std::max(col[0], q);
    col[k] = std::max(col[k], q);
    nan |= (q != q);
  }
}

// Rows lo..hi of f - A u (kMatrix) or of a given vector into one column.
template <int kKind, bool kMatrix>
void unknown_block(const RowArrays& m, const double* vec, const int* iu, int lo, int hi,
                   double* col) {
  bool nan = false;
  for (int i = lo; i <= hi; ++i) {
    double s;
    if constexpr (kMatrix) {
      s = m.f[i];
      const int kend = m.ia[i + 1];
      for (int k = m.ia[i]; k < kend; ++k) s -= m.a[k] * m.u[m.ja[k]];
    } else {
      s = vec[i];
    }
    unknown_add<kKind>(col, iu[i], s, nan);
  }
  if (nan) col[0] = kNaN;
}

template <int kKind, bool kMatrix>
void unknown_columns(const RowArrays& m, const double* vec, const int* iu, int lo, int hi, int nmin,
                     int ncol, std::vector<double>& resh) {
  for_blocks(lo, hi, nmin, [&](int blo, int bhi, int t) {
    unknown_block<kKind, kMatrix>(m, vec, iu, blo, bhi,
                                  resh.data() + static_cast<std::size_t>(t) * ncol);
  });
}

// The shared body of unknowns_resids (kMatrix) and unknowns_resvect.
template <bool kMatrix>
void unknowns_norms(const RowArrays& m, const double* vec, int lo, int hi, int nmin, int norm_typ,
                    const Vec1<const int>& iu, int nsys, const Vec1<double>& res,
                    std::string_view routine) {
  ResidualClock clock;
  const int kind = norm_kind(norm_typ);
  if (kind == kNormIllegal) {
    fail(kErrInternal, in_routine("Illegal norm_typ specified", routine));
    return;
  }
  const int nt = thread_count();
  if (nt <= 0) {
    fail(kErrInternal, in_routine("omp_num_threads returned non-positive no. of threads", routine));
    return;
  }
  const int ncol = nsys + 1;
  std::vector<double> resh;
  try {
    resh.assign(static_cast<std::size_t>(nt) * ncol, 0.0);
  } catch (const std::bad_alloc&) {
    fail(kErrAllocation, in_routine("Allocation error <resh> in", routine));
    return;
  }
  const int* iup = iu.origin();
  switch (kind) {
    case kNormL2:
      unknown_columns<kNormL2, kMatrix>(m, vec, iup, lo, hi, nmin, ncol, resh);
      break;
    case kNormL1:
      unknown_columns<kNormL1, kMatrix>(m, vec, iup, lo, hi, nmin, ncol, resh);
      break;
    default:
      unknown_columns<kNormMax, kMatrix>(m, vec, iup, lo, hi, nmin, ncol, resh);
      break;
  }
  // Merge the thread columns in thread order.
  std::vector<double> tot(resh.begin(), resh.begin() + ncol);
  for (int t = 1; t < nt; ++t) {
    const double* col = resh.data() + static_cast<std::size_t>(t) * ncol;
    for (int k = 0; k < ncol; ++k)
      tot[k] = kind == kNormMax ? nan_max(tot[k], col[k]) : tot[k] + col[k];
  }
  // Element 0 holds every row, so its tests cover all elements.
  const double total = finish_norm(tot[0], kind, routine);
  if (total < 0.0) {
    for (int k = 0; k < ncol; ++k) res(k) = -1.0;
    return;
  }
  res(0) = total;
  for (int k = 1; k < ncol; ++k) res(k) = kind == kNormL2 ? std::sqrt(tot[k]) : tot[k];
}

// Maxima of |u1 - u2|, |u1| and |u2| over n values, one triple per thread.
struct AppMaxima {
  double d = 0.0, m1 = 0.0, m2 = 0.0;
};
AppMaxima approximation_maxima(const double* u1, const double* u2, int n) {
  const int nt = thread_count();
  std::vector<AppMaxima> partial(static_cast<std::size_t>(nt));
  for_blocks(0, n - 1, prm().nmin_vector, [&](int lo, int hi, int t) {
    AppMaxima p;
    for (int i = lo; i <= hi; ++i) {
      p.d = std::max(p.d, std::abs(u1[i] - u2[i]));
      p.m1 = std::max(p.m1, std::abs(u1[i]));
      p.m2 = std::max(p.m2, std::abs(u2[i]));
    }
    partial[static_cast<std::size_t>(t)] = p;
  });
  AppMaxima r;
  for (const AppMaxima& p : partial) {
    r.d = std::max(r.d, p.d);
    r.m1 = std::max(r.m1, p.m1);
    r.m2 = std::max(r.m2, p.m2);
  }
  return r;
}

}  // namespace

// ===========================================================================
// Norms
// ===========================================================================

double& residual_time() {
  static double seconds = 0.0;
  return seconds;
}

std::string_view norm_label(int norm_typ, bool quasi) {
  switch (norm_kind(norm_typ)) {
    case kNormL2:
      return quasi ? "q2" : "L2";
    case kNormL1:
      return quasi ? "q1" : "L1";
    case kNormMax:
      return quasi ? "qx" : "MX";
    default:
      return "??";
  }
}

double resid(const LevelView& L, int norm_typ, std::string_view routine) {
  return rows_norm(L, L.ilo, L.ihi, norm_typ, {}, routine);
}

double compute_residual_norm(const LevelView& L, int ilo, int ihi, int norm_typ,
                             const Vec1<double>& r) {
  return rows_norm(L, ilo, ihi, norm_typ, r, "compute_residual_norm");
}

double resid_half(const LevelView& L, int norm_typ, std::string_view routine) {
  ResidualClock clock;
  const int kind = norm_kind(norm_typ);
  if (kind == kNormIllegal) {
    fail(kErrInternal, in_routine("Illegal norm_typ specified", routine));
    return -1.0;
  }
  const int n = L.nrows();
  if (n <= 0) return 0.0;
  std::vector<double> w;
  try {
    w.assign(static_cast<std::size_t>(std::max(n, 0)), 0.0);
  } catch (const std::bad_alloc&) {
    fail(kErrAllocation, "Allocation error (compute_residual_norm)!");
    return -1.0;
  }
  RowArrays m = row_arrays(L);
  double* wp = w.data() - L.ilo;
  // Scatter of the transposed off-diagonal entries: w(j) += a(k) u(i) for each
  // stored (i, j), j != i. Serial, since rows of different blocks meet in w.
  for (int i = L.ilo; i <= L.ihi; ++i) {
    const double ui = m.u[i];
    const int kend = m.ia[i + 1];
    for (int k = m.ia[i] + 1; k < kend; ++k) wp[m.ja[k]] += m.a[k] * ui;
  }
  m.w = wp;
  return finish_norm(rows_accumulate<false, true>(kind, m, L.ilo, L.ihi), kind, routine);
}

double resid_k(const LevelView& L) {
  if (L.k < 2) {
    fail(kErrInternal, "Illegal call to routine (resid_k)!");
    return -1.0;
  }
  return rows_norm(L, L.ilo, L.ihi, 0, {}, "resid_k");
}

double resid1(const Vec1<const double>& r, int norm_typ) {
  ResidualClock clock;
  const int kind = norm_kind(norm_typ);
  if (kind == kNormIllegal) {
    fail(kErrInternal, "Illegal norm_typ specified (resid1)!");
    return -1.0;
  }
  const double* p = r.origin();
  double sum;
  switch (kind) {
    case kNormL2:
      sum = vector_reduce<kNormL2>(p, r.lo(), r.hi());
      break;
    case kNormL1:
      sum = vector_reduce<kNormL1>(p, r.lo(), r.hi());
      break;
    default:
      sum = vector_reduce<kNormMax>(p, r.lo(), r.hi());
      break;
  }
  return finish_norm(sum, kind, "resid1");
}

void unknowns_resids(const LevelView& L, int norm_typ, const Vec1<const int>& iu, int nsys,
                     const Vec1<double>& res) {
  unknowns_norms<true>(row_arrays(L), nullptr, L.ilo, L.ihi, prm().nmin_matrix, norm_typ, iu, nsys,
                       res, "unknowns_resids");
}

void unknowns_resvect(const Vec1<const double>& r, int norm_typ, const Vec1<const int>& iu,
                      int nsys, const Vec1<double>& res) {
  const RowArrays none{};
  unknowns_norms<false>(none, r.origin(), r.lo(), r.hi(), prm().nmin_vector, norm_typ, iu, nsys,
                        res, "unknowns_resvect");
}

// ===========================================================================
// Stopping settings and history
// ===========================================================================

void decode_stop_settings(int icrits, int iauto_stop, StopSettings& s) {
  // icrits: combination mode, criterion 1 on, criterion 2 on.
  std::array<int, 4> c{};
  idec(icrits, c);
  if (c[0] > 2) {
    fail(kErrIllegalParameter, "Illegal value of parameter <icrits[1:1]>!");
    return;
  }
  if (c[1] > 1) {
    fail(kErrIllegalParameter, "Illegal value of parameter <icrits[2:2]>!");
    return;
  }
  if (c[2] > 1) {
    fail(kErrIllegalParameter, "Illegal value of parameter <icrits[3:3]>!");
    return;
  }
  s.crit_mode = c[0];
  s.crit_on = {c[1], c[2]};

  // iauto_stop: level, quasi limit, num_old_res (2 digits), num_old_apps (2), last digit.
  std::array<int, 9> d{};
  idec(iauto_stop, d);
  if (d[0] > 1) {
    fail(kErrIllegalParameter, "Illegal value of parameter <iauto_stop_level>!");
    return;
  }
  s.iauto_stop_level = iauto_stop < 0 ? -d[0] : d[0];
  s.quasi_limit = d[1];
  s.num_old_res = 10 * d[2] + d[3];
  s.num_old_apps = 10 * d[4] + d[5];
  s.last_digit = d[6];
  if (s.iauto_stop_level == 0) {
    s.quasi_limit = 0;
    s.num_old_res = 0;
    s.num_old_apps = 0;
    s.last_digit = 0;
  }
  // The stagnation criterion needs the stored history.
  if (s.crit_on[1] == 1 && s.iauto_stop_level < 1) {
    print_message(kMsgInfo, 0, 0, "Since iauto_stop_level < 1, additional resets:");
    print_message(kMsgInfo, 0, 0, "      iauto_stop_level=1 and num_old_res=3");
    s.iauto_stop_level = 1;
    s.num_old_res = 3;
  }
  if (s.num_old_res != 0 && s.num_old_res < s.num_old_apps) {
    warn(kWarnParameterCorrected, "num_old_res < num_old_apps! Reset: num_old_res=num_old_apps");
    s.num_old_res = s.num_old_apps;
  }

  const Params& p = prm();
  s.factor_app_var = p.factor_app_var;
  s.factor_res_var = p.factor_res_var;
  s.factor_quasi_res = p.factor_quasi_res;
  s.rel_app_var = p.rel_app_var;
  s.ncyc_min = p.ncyc_min;
}

void start_stop_state(StopState& st, const StopSettings& s, int nnu) {
  st = StopState{};
  if (s.num_old_apps >= 1) {
    try {
      st.sol_correction.assign(static_cast<std::size_t>(std::max(nnu, 0)), 0.0);
    } catch (const std::bad_alloc&) {
      fail(kErrAllocation, "Allocation error <sol_correction> in (solve)");
    }
  }
}

void store_residual(StopState& st, const StopSettings& s, double res) {
  if (st.res_hist.empty()) {
    try {
      st.res_hist.assign(static_cast<std::size_t>(std::max(s.num_old_res, 0) + 1), 0.0);
    } catch (const std::bad_alloc&) {
      fail(kErrAllocation, "Allocation error in (store_residual)");
      return;
    }
  }
  const int n = static_cast<int>(st.res_hist.size());
  if (st.num_res_stored > n) {
    fail(kErrResidualUnusable, "Internal error: num_res_stored too large (store_residual)");
    return;
  }
  if (st.num_res_stored == n) {
    std::copy(st.res_hist.begin() + 1, st.res_hist.end(), st.res_hist.begin());
    st.res_hist[static_cast<std::size_t>(n - 1)] = res;
  } else {
    st.res_hist[static_cast<std::size_t>(st.num_res_stored++)] = res;
  }
}

void store_approximation(StopState& st, const Vec1<const double>& u) {
  const int n = std::max(u.hi() - u.lo() + 1, 0);
  if (st.app_hist.empty() || st.app_rows != n) {
    try {
      st.app_hist.assign(2 * static_cast<std::size_t>(n), 0.0);
    } catch (const std::bad_alloc&) {
      fail(kErrAllocation, "Allocation error in (store_approximation)");
      return;
    }
    st.app_rows = n;
    st.num_apps_stored = 0;
  }
  if (st.num_apps_stored > 2) {
    fail(kErrResidualUnusable, "Internal error: num_apps_stored too large (store_approximation)");
    return;
  }
  double* col1 = st.app_hist.data();
  double* col2 = col1 + n;
  double* dst = col1;
  if (st.num_apps_stored == 2) {
    std::copy(col2, col2 + n, col1);
    dst = col2;
  } else {
    dst = st.num_apps_stored == 0 ? col1 : col2;
    ++st.num_apps_stored;
  }
  const double* up = u.origin();
  for (int i = 0; i < n; ++i) dst[i] = up[u.lo() + i];
}

void update_sol_correction(StopState& st, double alpha, const Vec1<const double>& p,
                           const Vec1<const double>& u) {
  const int lo = p.lo();
  const int hi = std::min(p.hi(), lo + static_cast<int>(st.sol_correction.size()) - 1);
  if (hi < lo) return;
  const double* pp = p.origin();
  const double* up = u.origin();
  double* sc = st.sol_correction.data() - lo;
  // A zero u(i) with a zero step gives 0 / eps = 0: no special case needed.
  for_blocks(lo, hi, prm().nmin_vector, [&](int blo, int bhi, int) {
    for (int i = blo; i <= bhi; ++i) sc[i] = alpha * pp[i] / std::max(std::abs(up[i]), kEpsMachine);
  });
}

double max_sol_correction(const StopState& st) {
  const double* sc = st.sol_correction.data();
  const int n = static_cast<int>(st.sol_correction.size());
  return max_over_blocks(0, n - 1, prm().nmin_vector, [sc](int lo, int hi) {
    double m = 0.0;
    for (int i = lo; i <= hi; ++i) m = std::max(m, std::abs(sc[i]));
    return m;
  });
}

int approximation_status(int app_result, double dmax) {
  switch (app_result) {
    case 0:
      print_message(kMsgInfo, 0, 0,
                    "Approximations are too different: max. |u1-u2| =" + fmt_real(dmax));
      print_message(kMsgInfo, 0, 0, "==> overall status: not converged!");
      return 3;
    case 1:
      print_message(kMsgInfo, 0, 0, "==> overall status: oscillation!");
      return 2;
    case -1:
    case -2:
      print_message(kMsgInfo, 0, 0, "==> overall status: stagnation!");
      return -1;
    case -99:
      print_message(kMsgInfo, 0, 0, "No check of approximation vectors could be performed!");
      print_message(kMsgInfo, 0, 0, "==> overall status: stagnation!");
      return -1;
    default:
      fail(kErrInternal, "An error occurred in (check_approximations)!");
      return 0;
  }
}

void check_approximations(StopState& st, const StopSettings& s, int nnu, int& status) {
  status = 0;
  // 1. Relative corrections: num_old_apps small ones in a row end the run.
  if (s.num_old_apps >= 1) {
    if (max_sol_correction(st) > s.rel_app_var) {
      st.num_small_corr = 0;
    } else if (++st.num_small_corr >= s.num_old_apps) {
      st.num_small_corr = 0;
      status = -2;
      return;
    }
  }
  // 2. Nothing more to test?
  if (s.iauto_stop_level == 0) return;
  if (s.crit_on[1] == 0 && s.num_old_res < 1) return;

  // 3. Variation of the stored residual norms.
  int var_flag;
  if (st.num_res_stored < s.num_old_res + 1) {
    var_flag = -99;
  } else {
    double a = 0.0, b = std::numeric_limits<double>::infinity();
    for (int i = 0; i < st.num_res_stored; ++i) {
      const double v = std::abs(st.res_hist[static_cast<std::size_t>(i)]);
      a = std::max(a, v);
      b = std::min(b, v);
    }
    if (a < s.factor_res_var * b) {
      var_flag = -1;
      print_message(kMsgInfo, 0, 0,
                    "Small variation of residual norms (num_old_res+1=" +
                        fmt_int(s.num_old_res + 1) + "): stagnation?!");
    } else {
      var_flag = 0;
    }
  }

  // 4. The last two approximations.
  int app_result;
  double dmax = 0.0;
  if (st.num_apps_stored < 2) {
    app_result = -99;
    status = -99;
  } else {
    const int n = std::min(nnu, st.app_rows);
    const double* u1 = st.app_hist.data();
    const double* u2 = u1 + st.app_rows;
    const AppMaxima mx = approximation_maxima(u1, u2, n);
    dmax = mx.d;
    const double m = std::max(mx.m1, mx.m2);
    if (m < kTinyValue) {
      print_message(kMsgInfo, 0, 0, "Max. values of current and previous approximation are zero!");
      app_result = -2;
    } else if (s.factor_app_var * m <= dmax) {
      app_result = 0;
    } else {
      print_message(kMsgInfo, 0, 0,
                    "max. |u1-u2|, max(|u1|,|u2|) =" + fmt_real(dmax) + fmt_real(m));
      print_message(kMsgInfo, 0, 0,
                    "Approximation criterion fulfilled (with current value of factor_app_var)!");
      app_result = -1;
    }
  }

  // 5. A small variation turns the approximation result into a status.
  if (var_flag == -1) {
    status = approximation_status(app_result, dmax);
  } else if (var_flag == 1) {
    // No present test sets this flag; the branch is kept for a divergence test.
    print_message(kMsgInfo, 0, 0, "==> overall status: divergence!");
    status = 1;
  }
}

void stopping_crit(const StopSettings& s, int it, int itmax, double res, double tol, int status,
                   int& done, double res_scaled, double tol_scaled) {
  if (s.ncrit < 1) {
    fail(kErrInternal, "no. of available criteria nonpositive in (stopping_crit)!");
    done = 1;
    return;
  }
  done = 0;
  if (it < s.ncyc_min) return;
  if (it >= itmax) {
    done = 1;
    return;
  }
  std::array<int, 2> crit{};
  crit[0] = res <= tol ? 1 : 0;
  if (prm().block_scale != 0 && res_scaled >= 0.0 && tol_scaled >= 0.0)
    crit[0] = res_scaled <= tol_scaled ? 1 : 0;
  crit[1] = (status == -1 || status == -2) ? 1 : 0;
  const std::size_t nc = static_cast<std::size_t>(std::min(s.ncrit, 2));
  if (s.crit_mode == 2) {  // any enabled criterion stops
    for (std::size_t i = 0; i < nc; ++i)
      if (s.crit_on[i] != 0) done = std::max(done, crit[i]);
  } else if (s.crit_mode == 1) {  // all enabled criteria must hold
    done = 1;
    for (std::size_t i = 0; i < nc; ++i)
      if (s.crit_on[i] != 0) done *= crit[i];
  }
  // Mode 0 leaves done at 0: only the cycle limit ends the run.
}

int quasi_residual_check(StopState& st, const StopSettings& s, double q, double t, int norm_typ,
                         bool true_computed) {
  if (!true_computed) return 0;
  if (prm().itrace_sol > 1)
    print_message(kMsgInfo, 0, 0, std::string(norm_label(norm_typ, true)) + " =" + fmt_real(q));
  const double aq = std::abs(q), at = std::abs(t);
  if (!(std::max(aq, at) > s.factor_quasi_res * std::min(aq, at))) return 0;
  ++st.num_quasi_diff;
  if (s.quasi_limit == 0) return 0;
  if (st.num_quasi_diff < s.quasi_limit) return 1;
  const std::string label(norm_label(norm_typ));
  print_message(kMsgInfo, 0, 0, "norm of quasi " + label + "-residual =" + fmt_real(q));
  print_message(kMsgInfo, 0, 0, "norm of real " + label + "-residual =" + fmt_real(t));
  return 2;
}

// ===========================================================================
// Iteration table
// ===========================================================================

void table_first_line(std::string_view label, double res) {
  print_line(0, 0, "cycl   0:  " + std::string(label) + "-res=" + fmt_real(res));
}

double table_cycle_line(int it, std::string_view label, double res, double prev, char marker) {
  const double cfac = res / (prev + kRatioGuard);
  char head[32];
  std::snprintf(head, sizeof head, "cycl%4d:%c ", it, marker);
  char tail[32];
  std::snprintf(tail, sizeof tail, "  cfac=%10.6f", cfac);
  print_line(0, 0, head + std::string(label) + "-res=" + fmt_real(res) + tail);
  return cfac;
}

double table_average_line(int ncyc_start, int ncyc_done, double res_start, double res_out) {
  if (ncyc_done <= ncyc_start) return -1.0;
  const double avg = std::pow(res_out / (res_start + kRatioGuard), 1.0 / (ncyc_done - ncyc_start));
  char buf[96];
  std::snprintf(buf, sizeof buf, "average (cycles skipped:%3d): %10.6f", ncyc_start, avg);
  print_line(0, 0, buf);
  return avg;
}

}  // namespace kornlt
