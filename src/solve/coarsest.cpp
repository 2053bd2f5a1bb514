// The coarsest-level solvers (cgsolve): trivial levels, plain smoothing
// (cl_smo), ILU(0)/diagonal CG (cgc0), ILUT/diagonal BI-CGSTAB (cgstab0), full
// Gauss elimination, sparse Gauss elimination, least squares, the caller's
// solver and the dense LAPACK route, with the set-up data kept between cycles.
#include <algorithm>
#include <array>
#include <cfloat>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <new>
#include <queue>
#include <string>
#include <utility>
#include <vector>

#include "control/threads.hpp"
#include "log/log.hpp"
#include "params/params.hpp"
#include "solve/solve.hpp"
#include "solve/sparse_lu.hpp"
#include "store/store.hpp"

// LAPACK and BLAS (Fortran interfaces; character arguments carry their hidden
// lengths at the end).
extern "C" {
void dgetrf_(const int* m, const int* n, double* a, const int* lda, int* ipiv, int* info);
void dgetrs_(const char* trans, const int* n, const int* nrhs, const double* a, const int* lda,
             const int* ipiv, double* b, const int* ldb, int* info, std::size_t);
void dgetri_(const int* n, double* a, const int* lda, const int* ipiv, double* work, const int* lwork,
             int* info);
void dgetc2_(const int* n, double* a, const int* lda, int* ipiv, int* jpiv, int* info);
void dgesc2_(const int* n, const double* a, const int* lda, double* rhs, const int* ipiv, const int* jpiv,
             double* scale);
void dpotrf_(const char* uplo, const int* n, double* a, const int* lda, int* info, std::size_t);
void dpotrs_(const char* uplo, const int* n, const int* nrhs, const double* a, const int* lda, double* b,
             const int* ldb, int* info, std::size_t);
void dpotri_(const char* uplo, const int* n, double* a, const int* lda, int* info, std::size_t);
void dgeqp3_(const int* m, const int* n, double* a, const int* lda, int* jpvt, double* tau, double* work,
             const int* lwork, int* info);
void dtzrzf_(const int* m, const int* n, double* a, const int* lda, double* tau, double* work,
             const int* lwork, int* info);
void dormqr_(const char* side, const char* trans, const int* m, const int* n, const int* k, const double* a,
             const int* lda, const double* tau, double* c, const int* ldc, double* work, const int* lwork,
             int* info, std::size_t, std::size_t);
void dormrz_(const char* side, const char* trans, const int* m, const int* n, const int* k, const int* l,
             const double* a, const int* lda, const double* tau, double* c, const int* ldc, double* work,
             const int* lwork, int* info, std::size_t, std::size_t);
void dgemv_(const char* trans, const int* m, const int* n, const double* alpha, const double* a,
            const int* lda, const double* x, const int* incx, const double* beta, double* y, const int* incy,
            std::size_t);
void dtrsv_(const char* uplo, const char* trans, const char* diag, const int* n, const double* a,
            const int* lda, double* x, const int* incx, std::size_t, std::size_t, std::size_t);
}

namespace kornlt {

namespace {

// |(x, y)| at most this counts as zero in cgc0.
constexpr double kZeroDot = 1e-100;
// BI-CGSTAB breakdown: |(x, y)| <= kBicgBreak * |x| |y| (L2 norms), an angle
// that round-off alone can produce.
constexpr double kBicgBreak = 1e-12;
// Modified first guesses cgc0 tries in one call before it gives up.
constexpr int kMaxCgRestarts = 5;
// Restarts of cgstab0 in one call after which the iteration stops.
constexpr int kMaxBicgRestarts = 10;
// Size of a modified first guess relative to its scale.
constexpr double kGuessShift = 1e-2;
// Threshold of the sparse LU: the diagonal stays the pivot while it is at
// least this fraction of the largest candidate of its column.
constexpr double kSparsePivotThreshold = 0.01;
// Rank decision of the least squares solver: |R(k,k)| <= kLsqRank |R(1,1)|.
constexpr double kLsqRank = 1e-11;
// Dense symmetry test of the dense route: |a_ij - a_ji| <= kSymTol max(|a_ij|, |a_ji|).
constexpr double kSymTol = 1e-10;
// Largest dense order whose n*n entries an int can count.
constexpr int kMaxDenseOrder = 46340;

bool trace_on() { return std::max(prm().itrace_clsol, prm().itracelevel) > 0; }
bool trace_dense_on() { return std::max(prm().itrace_cldense, std::max(prm().itrace_clsol, prm().itracelevel)) > 0; }
void trace(std::string_view text) {
  if (trace_on()) print_line(0, 0, text);
}
void trace_dense(std::string_view text) {
  if (trace_dense_on()) print_line(0, 0, text);
}

std::string fmt_g(double v) {
  char buf[32];
  std::snprintf(buf, sizeof buf, "%g", v);
  return buf;
}

// A reproducible value in [-1, 1) for row i and draw k (a mixing hash).
double unit_noise(int i, int k) {
  std::uint64_t x = static_cast<std::uint64_t>(static_cast<std::uint32_t>(i)) * 0x9E3779B97F4A7C15ULL +
                    static_cast<std::uint64_t>(static_cast<std::uint32_t>(k) + 1U) * 0xBF58476D1CE4E5B9ULL;
  x ^= x >> 31;
  x *= 0x94D049BB133111EBULL;
  x ^= x >> 29;
  return static_cast<double>(x >> 11) * 0x1.0p-52 - 1.0;
}

}  // namespace

// ===========================================================================
// Set-up data
// ===========================================================================

// ILU factors of cgc0 / cgstab0 by rows, 0-based local indices: L strict
// lower with unit diagonal, U strict upper, and the inverse diagonal of U.
struct IluFactors {
  int type = 0;  // 0 none, 1 ILU(0), 2 ILUT
  int milu = 0;
  double delta_milu = 0.0;
  int ilu_speed = 0;
  double droptol = 0.0;
  int lfil = 0;
  std::vector<int> lp, lj, up, uj;
  std::vector<double> lv, uv, dinv;
};

struct CoarsestData {
  // What the data belongs to: the level's bounds and arrays, the pinned rows.
  int ilo = 0, ihi = -1, first_entry = 0, end_entry = 0;
  const double* a_origin = nullptr;
  std::vector<int> pinned;  // local rows pinned to zero (singular systems)

  bool ready = false;  // the direct solver's set-up is done
  IluFactors ilu;

  // Dense routes: n x n column-major factors or inverse.
  std::vector<double> dense;
  std::vector<int> ipiv, jpiv;
  int dense_mode = 0;  // 1 Cholesky, 2 LU, 3 inverse, 4 LU with full pivoting
  std::vector<double> tau1, tau2;  // least squares: the reflectors of Q and Z
  int rank = 0;

  CscMatrix csc;  // sparse Gauss: the matrix and its factors
  SparseLU lu;

  std::vector<double> work;  // solve and iteration vectors, reused

  std::int64_t counted_d = 0, counted_i = 0;  // what the memory counters hold for this data
};

// At the end of the process the store may be gone already: no counting.
CoarsestState::~CoarsestState() { delete data; }

void CoarsestState::release() {
  if (data != nullptr) {
    store().memd -= data->counted_d;
    store().memi -= data->counted_i;
    delete data;
    data = nullptr;
  }
  nrc_last = 0;
}

CoarsestState& coarsest_state() {
  static CoarsestState state;
  return state;
}

std::function<void(const LevelView&)>& coarsest_user_solver() {
  static std::function<void(const LevelView&)> solver;
  return solver;
}

namespace {

// Brings the memory counters in line with what the data holds now.
void recount(CoarsestData& d) {
  std::int64_t nd = static_cast<std::int64_t>(d.dense.size() + d.tau1.size() + d.tau2.size() + d.work.size() +
                                              d.ilu.lv.size() + d.ilu.uv.size() + d.ilu.dinv.size() +
                                              d.csc.ax.size() + d.lu.lx.size() + d.lu.ux.size());
  std::int64_t ni = static_cast<std::int64_t>(d.ipiv.size() + d.jpiv.size() + d.ilu.lp.size() + d.ilu.lj.size() +
                                              d.ilu.up.size() + d.ilu.uj.size() + d.csc.cp.size() +
                                              d.csc.ri.size() + d.lu.q.size() + d.lu.pinv.size() +
                                              d.lu.lp.size() + d.lu.li.size() + d.lu.up.size() + d.lu.ui.size());
  store().memd += nd - d.counted_d;
  store().memi += ni - d.counted_i;
  d.counted_d = nd;
  d.counted_i = ni;
}

// Local rows pinned for a singular system: per unknown with iscale 1, its
// first row on the level.
std::vector<int> pinned_rows(const LevelView& L, const CoarsestArgs& args) {
  std::vector<int> rows;
  if (args.iscale == nullptr) return rows;
  const int nsys = std::max(args.nsys, 1);
  for (int k = 1; k <= nsys; ++k) {
    if (args.iscale[k - 1] != 1) continue;
    for (int i = L.ilo; i <= L.ihi; ++i) {
      const int unknown = args.iu.empty() ? 1 : args.iu(i);
      if (unknown == k) {
        rows.push_back(i - L.ilo);
        break;
      }
    }
  }
  std::sort(rows.begin(), rows.end());
  return rows;
}

bool is_pinned(const std::vector<int>& pinned, int row) {
  return std::binary_search(pinned.begin(), pinned.end(), row);
}

// The right-hand side of a direct solve: f with the pinned rows set to zero.
void pinned_rhs(const LevelView& L, const std::vector<int>& pinned, double* b) {
  for (int i = L.ilo; i <= L.ihi; ++i) b[i - L.ilo] = L.f(i);
  for (const int p : pinned) b[p] = 0.0;
}

// The level as a dense column-major n x n matrix (0-based local), with the
// off-diagonal entries of the pinned rows and columns removed.
void dense_copy(const LevelView& L, const std::vector<int>& pinned, std::vector<double>& d) {
  const int n = L.nrows();
  const std::size_t nn = static_cast<std::size_t>(n);
  d.assign(nn * nn, 0.0);
  for (int i = L.ilo; i <= L.ihi; ++i) {
    const int li = i - L.ilo;
    for (int k = L.ia(i); k < L.ia(i + 1); ++k) {
      const int lj = L.ja(k) - L.ilo;
      d[static_cast<std::size_t>(lj) * nn + li] += L.a(k);
    }
  }
  for (const int p : pinned) {
    const double diag = d[static_cast<std::size_t>(p) * nn + p];
    for (int j = 0; j < n; ++j) {
      d[static_cast<std::size_t>(j) * nn + p] = 0.0;
      d[static_cast<std::size_t>(p) * nn + j] = 0.0;
    }
    d[static_cast<std::size_t>(p) * nn + p] = diag;
  }
}

double max_abs(const std::vector<double>& v) {
  double m = 0.0;
  for (const double x : v) m = std::max(m, std::abs(x));
  return m;
}

// True when an LU factor's diagonal (in d, n x n) has a pivot of at most
// n * eps * scale: the matrix is singular to working precision.
bool tiny_pivot(const std::vector<double>& d, int n, double scale) {
  const double lim = static_cast<double>(n) * DBL_EPSILON * scale;
  const std::size_t nn = static_cast<std::size_t>(n);
  for (int k = 0; k < n; ++k) {
    const double v = d[static_cast<std::size_t>(k) * nn + k];
    if (!(std::abs(v) > lim) || !std::isfinite(v)) return true;
  }
  return false;
}

// ===========================================================================
// Vector kernels of the iterative solvers: static row blocks above
// nmin_vector / nmin_matrix, sums in block order (independent of timing).
// Vectors are addressed by global row: v[i] for ilo <= i <= ihi.
// ===========================================================================
class Kernels {
 public:
  explicit Kernels(const LevelView& L)
      : L_(L), ia_(L.ia.origin()), ja_(L.ja.origin()), a_(L.a.origin()),
        nt_(std::max(thread_count(), 1)), part_(static_cast<std::size_t>(nt_) * 2, 0.0) {}

  template <class Body>
  void loop(Body&& body) const {
    for_blocks(L_.ilo, L_.ihi, prm().nmin_vector, [&](int lo, int hi, int) {
      for (int i = lo; i <= hi; ++i) body(i);
    });
  }

  // Sums of two row terms, term(i, s0, s1), added in block order.
  template <class Term>
  void sums(int nmin, double* out, Term&& term) {
    std::fill(part_.begin(), part_.end(), 0.0);
    for_blocks(L_.ilo, L_.ihi, nmin, [&](int lo, int hi, int t) {
      double s0 = 0.0, s1 = 0.0;
      for (int i = lo; i <= hi; ++i) term(i, s0, s1);
      part_[static_cast<std::size_t>(t) * 2] = s0;
      part_[static_cast<std::size_t>(t) * 2 + 1] = s1;
    });
    out[0] = out[1] = 0.0;
    for (int t = 0; t < nt_; ++t) {
      out[0] += part_[static_cast<std::size_t>(t) * 2];
      out[1] += part_[static_cast<std::size_t>(t) * 2 + 1];
    }
  }

  double dot(const double* x, const double* y) {
    double s[2];
    sums(prm().nmin_vector, s, [=](int i, double& s0, double&) { s0 += x[i] * y[i]; });
    return s[0];
  }
  double norm(const double* x) { return std::sqrt(dot(x, x)); }

  double row(const double* x, int i) const {
    double s = 0.0;
    for (int k = ia_[i]; k < ia_[i + 1]; ++k) s += a_[k] * x[ja_[k]];
    return s;
  }

  // r := f - A u; returns |r| (L2).
  double residual(double* r) {
    const double* u = L_.u.origin();
    const double* f = L_.f.origin();
    double s[2];
    sums(prm().nmin_matrix, s, [&](int i, double& s0, double&) {
      r[i] = f[i] - row(u, i);
      s0 += r[i] * r[i];
    });
    return std::sqrt(s[0]);
  }

  // y := A x, with (y, w0) and (y, w1) (w1 may be null: (y, y)).
  void matvec(const double* x, double* y, const double* w0, const double* w1, double* out) {
    sums(prm().nmin_matrix, out, [&](int i, double& s0, double& s1) {
      const double v = row(x, i);
      y[i] = v;
      s0 += v * w0[i];
      s1 += v * (w1 == nullptr ? v : w1[i]);
    });
  }

  // A modified first guess: u(i) += kGuessShift * scale * noise(i), the scale
  // max |u|, else max |r(i) / a_ii|, else 1.
  void perturb_guess(const double* r, int draw) {
    double* u = L_.u.origin();
    double scale = 0.0;
    for (int i = L_.ilo; i <= L_.ihi; ++i) scale = std::max(scale, std::abs(u[i]));
    if (scale == 0.0) {
      for (int i = L_.ilo; i <= L_.ihi; ++i) {
        const double d = a_[ia_[i]];
        if (d != 0.0) scale = std::max(scale, std::abs(r[i] / d));
      }
    }
    if (!(scale > 0.0) || !std::isfinite(scale)) scale = 1.0;
    const double shift = kGuessShift * scale;
    loop([=](int i) { u[i] += shift * unit_noise(i, draw); });
  }

 private:
  const LevelView& L_;
  const int* ia_;
  const int* ja_;
  const double* a_;
  int nt_;
  std::vector<double> part_;
};

// ===========================================================================
// Preconditioners: diagonal, ILU(0)/MILU(0), ILUT
// ===========================================================================

// The row's entries of the level, split by local column into strict lower
// and strict upper parts, each sorted; the diagonal in diag.
void split_row(const LevelView& L, int i, std::vector<std::pair<int, double>>& lower,
               std::vector<std::pair<int, double>>& upper, double& diag) {
  lower.clear();
  upper.clear();
  diag = 0.0;
  const int li = i - L.ilo;
  for (int k = L.ia(i); k < L.ia(i + 1); ++k) {
    const int j = L.ja(k) - L.ilo;
    if (j < li) {
      lower.push_back({j, L.a(k)});
    } else if (j > li) {
      upper.push_back({j, L.a(k)});
    } else {
      diag += L.a(k);
    }
  }
  std::sort(lower.begin(), lower.end());
  std::sort(upper.begin(), upper.end());
}

// ILU(0) on the level's pattern (IKJ order). With milu, fill outside the
// pattern is added to the diagonal times delta_milu, so that row sums are
// kept. Both ilu_speed variants give the same factors. False on a pivot
// that is not clearly positive.
bool ilu0_factor(const LevelView& L, IluFactors& f) {
  const int n = L.nrows();
  f.lp.assign(1, 0);
  f.up.assign(1, 0);
  f.lj.clear();
  f.lv.clear();
  f.uj.clear();
  f.uv.clear();
  f.dinv.assign(static_cast<std::size_t>(n), 0.0);
  std::vector<double> diag_a(static_cast<std::size_t>(n));
  std::vector<std::pair<int, double>> lower, upper;
  for (int i = L.ilo; i <= L.ihi; ++i) {
    split_row(L, i, lower, upper, diag_a[i - L.ilo]);
    for (const auto& [j, v] : lower) {
      f.lj.push_back(j);
      f.lv.push_back(v);
    }
    for (const auto& [j, v] : upper) {
      f.uj.push_back(j);
      f.uv.push_back(v);
    }
    f.lp.push_back(static_cast<int>(f.lj.size()));
    f.up.push_back(static_cast<int>(f.uj.size()));
  }
  std::vector<int> posl(static_cast<std::size_t>(n), -1), posu(static_cast<std::size_t>(n), -1);
  const double delta = f.milu != 0 ? f.delta_milu : 0.0;
  for (int i = 0; i < n; ++i) {
    for (int t = f.lp[i]; t < f.lp[i + 1]; ++t) posl[f.lj[t]] = t;
    for (int t = f.up[i]; t < f.up[i + 1]; ++t) posu[f.uj[t]] = t;
    double di = diag_a[i];
    for (int t = f.lp[i]; t < f.lp[i + 1]; ++t) {
      const int k = f.lj[t];
      const double l = f.lv[t] * f.dinv[k];
      f.lv[t] = l;
      for (int s = f.up[k]; s < f.up[k + 1]; ++s) {
        const int j = f.uj[s];
        const double v = l * f.uv[s];
        if (j == i) {
          di -= v;
        } else if (posl[j] >= 0) {
          f.lv[posl[j]] -= v;
        } else if (posu[j] >= 0) {
          f.uv[posu[j]] -= v;
        } else {
          di -= delta * v;
        }
      }
    }
    for (int t = f.lp[i]; t < f.lp[i + 1]; ++t) posl[f.lj[t]] = -1;
    for (int t = f.up[i]; t < f.up[i + 1]; ++t) posu[f.uj[t]] = -1;
    if (!(di > 1e-14 * std::abs(diag_a[i])) || !std::isfinite(di)) return false;
    f.dinv[i] = 1.0 / di;
  }
  return true;
}

// ILUT(lfil, droptol) by rows: an entry of the working row is dropped when it
// is below droptol times the row's mean absolute value; L and U keep their
// lfil largest entries per row; a vanishing pivot is replaced by
// (1e-4 + droptol) times that mean. False on a zero row or non-finite values.
bool ilut_factor(const LevelView& L, IluFactors& f) {
  const int n = L.nrows();
  const double tau = f.droptol;
  const int lfil = std::max(f.lfil, 0);
  f.lp.assign(1, 0);
  f.up.assign(1, 0);
  f.lj.clear();
  f.lv.clear();
  f.uj.clear();
  f.uv.clear();
  f.dinv.assign(static_cast<std::size_t>(n), 0.0);
  std::vector<double> w(static_cast<std::size_t>(n), 0.0);
  std::vector<int> mark(static_cast<std::size_t>(n), -1);
  std::vector<int> nz;
  std::vector<std::pair<double, int>> keep;
  std::priority_queue<int, std::vector<int>, std::greater<int>> heap;
  for (int i = 0; i < n; ++i) {
    const int gi = i + L.ilo;
    nz.clear();
    double tnorm = 0.0;
    for (int k = L.ia(gi); k < L.ia(gi + 1); ++k) {
      const int j = L.ja(k) - L.ilo;
      tnorm += std::abs(L.a(k));
      if (mark[j] != i) {
        mark[j] = i;
        w[j] = 0.0;
        nz.push_back(j);
        if (j < i) heap.push(j);
      }
      w[j] += L.a(k);
    }
    if (mark[i] != i) {  // a row without its diagonal entry
      mark[i] = i;
      w[i] = 0.0;
      nz.push_back(i);
    }
    tnorm /= static_cast<double>(L.ia(gi + 1) - L.ia(gi));
    if (!(tnorm > 0.0) || !std::isfinite(tnorm)) return false;
    const double drop = tau * tnorm;

    // ---- elimination with the rows above, in increasing column order ----
    while (!heap.empty()) {
      const int k = heap.top();
      heap.pop();
      const double l = w[k] * f.dinv[k];
      if (std::abs(l) < drop) {
        w[k] = 0.0;
        continue;
      }
      w[k] = l;
      for (int s = f.up[k]; s < f.up[k + 1]; ++s) {
        const int j = f.uj[s];
        const double v = l * f.uv[s];
        if (mark[j] != i) {
          mark[j] = i;
          w[j] = -v;
          nz.push_back(j);
          if (j < i) heap.push(j);
        } else {
          w[j] -= v;
        }
      }
    }

    // ---- the lfil largest of each part ----
    const auto take = [&](bool lower, std::vector<int>& jj, std::vector<double>& vv) {
      keep.clear();
      for (const int j : nz) {
        if ((lower ? j < i : j > i) && w[j] != 0.0 && std::abs(w[j]) >= (lower ? 0.0 : drop))
          keep.push_back({-std::abs(w[j]), j});
      }
      if (static_cast<int>(keep.size()) > lfil) {
        std::nth_element(keep.begin(), keep.begin() + lfil, keep.end());
        keep.resize(static_cast<std::size_t>(lfil));
      }
      for (const auto& [m, j] : keep) {
        jj.push_back(j);
        vv.push_back(w[j]);
      }
    };
    take(true, f.lj, f.lv);
    take(false, f.uj, f.uv);
    f.lp.push_back(static_cast<int>(f.lj.size()));
    f.up.push_back(static_cast<int>(f.uj.size()));
    double di = w[i];
    if (std::abs(di) <= DBL_EPSILON * tnorm) di = (1e-4 + tau) * tnorm;
    if (!std::isfinite(di)) return false;
    f.dinv[i] = 1.0 / di;
    for (int t = f.lp[i]; t < f.lp[i + 1]; ++t)
      if (!std::isfinite(f.lv[t])) return false;
    for (int t = f.up[i]; t < f.up[i + 1]; ++t)
      if (!std::isfinite(f.uv[t])) return false;
  }
  return true;
}

// z := (LU)^{-1} r; r and z by global row.
void ilu_apply(const LevelView& L, const IluFactors& f, const double* r, double* z) {
  const int n = L.nrows();
  const double* rl = r + L.ilo;
  double* zl = z + L.ilo;
  for (int i = 0; i < n; ++i) {
    double s = rl[i];
    for (int t = f.lp[i]; t < f.lp[i + 1]; ++t) s -= f.lv[t] * zl[f.lj[t]];
    zl[i] = s;
  }
  for (int i = n - 1; i >= 0; --i) {
    double s = zl[i];
    for (int t = f.up[i]; t < f.up[i + 1]; ++t) s -= f.uv[t] * zl[f.uj[t]];
    zl[i] = s * f.dinv[i];
  }
}

// Builds or keeps the ILU of nrc 2 (ilut false) or 3 (ilut true); a kept
// factor whose settings changed is dropped first, with the trace naming why.
// False (with the error set) when the decomposition fails.
bool ilu_prepare(const LevelView& L, const CoarsestArgs& args, bool ilut, CoarsestData& d, CoarsestState& st) {
  const Params& p = prm();
  IluFactors& f = d.ilu;
  if (f.type != 0) {
    std::string why;
    if (!ilut) {
      if (f.type == 2) {
        why = "ilu type changed from ilut to ilu0";
      } else if (f.milu != p.milu || (p.milu != 0 && f.delta_milu != p.delta_milu)) {
        why = "parm milu changed";
      } else if (f.ilu_speed != p.ilu_speed) {
        why = "parm ilu_spped changed";
      }
    } else {
      if (f.type == 1) {
        why = "ilu type changed from ilu0 to ilut";
      } else if (f.droptol != p.droptol_cl) {
        why = "parm droptol changed";
      } else if (f.lfil != args.lfil_cl_used) {
        why = "parm lfil changed";
      }
    }
    if (why.empty()) return true;
    trace("cgc0 : ilu_dealloc (" + why + ")");
    f = IluFactors{};
  }
  f.milu = p.milu;
  f.delta_milu = p.delta_milu;
  f.ilu_speed = p.ilu_speed;
  f.droptol = p.droptol_cl;
  f.lfil = args.lfil_cl_used;
  bool ok = false;
  try {
    ok = ilut ? ilut_factor(L, f) : ilu0_factor(L, f);
  } catch (const std::bad_alloc&) {
    f = IluFactors{};
    recount(d);
    fail(kErrAllocation, ilut ? "Allocation failed in (cgstab0)!" : "Allocation failed in (cgc0)!");
    return false;
  }
  ++st.factorisations;
  if (!ok) {
    f = IluFactors{};
    recount(d);
    if (ilut) {
      fail(kErrCoarsestSingular, "ILUT decomposition failed in (cgstab0)");
    } else {
      fail(kErrCoarsestNotSpd, "ILU(0) decomposition failed in (cgc0)");
    }
    return false;
  }
  f.type = ilut ? 2 : 1;
  recount(d);
  return true;
}

// z := M r: the ILU of d, or the diagonal (a zero diagonal entry scales by 1).
void precondition(const LevelView& L, Kernels& kern, const CoarsestData& d, bool ilu, const double* r,
                  double* z) {
  if (ilu) {
    ilu_apply(L, d.ilu, r, z);
    return;
  }
  const int* ia = L.ia.origin();
  const double* a = L.a.origin();
  kern.loop([=](int i) {
    const double di = a[ia[i]];
    z[i] = di != 0.0 ? r[i] / di : r[i];
  });
}

// Iteration vectors: m vectors of the level's rows out of d.work, by global row.
bool work_vectors(const LevelView& L, CoarsestData& d, int m, double** v) {
  const std::size_t n = static_cast<std::size_t>(L.nrows());
  if (d.work.size() < n * static_cast<std::size_t>(m)) {
    try {
      d.work.assign(n * static_cast<std::size_t>(m), 0.0);
    } catch (const std::bad_alloc&) {
      return false;
    }
    recount(d);
  }
  for (int j = 0; j < m; ++j) v[j] = d.work.data() + static_cast<std::size_t>(j) * n - L.ilo;
  return true;
}

// ===========================================================================
// cl_smo (nrc 1): smoothing steps of iter_check sweeps up to itmax_conv
// ===========================================================================
void cl_smo(const LevelView& L, const CoarsestArgs& args, CoarsestState& st) {
  const Params& p = prm();
  st.res_start = st.res_end = 0.0;
  const double r0 = resid(L, 0, "cl_smo");
  if (failed()) return;
  st.res_start = st.res_end = r0;
  if (r0 == 0.0) return;
  const double target = p.conv_stop * r0;
  SweepList list = args.coarse_sweeps;
  if (list.len == 0) {
    list.len = 4;
    list.typ = {2, 2, 2, 2};
  }
  const int chunk = std::max(p.iter_check, 1);
  int done = 0;
  while (done < p.itmax_conv) {
    list.nrx = std::min(chunk, p.itmax_conv - done);
    smoother(L, args.first_point, args.smoother, list, false);
    if (failed()) return;
    ++st.smoother_calls;
    st.sweeps += list.nrx;
    done += list.nrx;
    const double r = resid(L, 0, "cl_smo");
    if (failed()) return;
    st.res_end = r;
    if (r <= target) break;
  }
}

// ===========================================================================
// cgc0 (nrc 2 ILU(0), nrc 4 diagonal): preconditioned CG with (res,p)
// ===========================================================================
void cgc0(const LevelView& L, const CoarsestArgs& args, bool ilu, CoarsestData& d, CoarsestState& st) {
  const Params& p = prm();
  st.iterations = 0;
  if (ilu && !ilu_prepare(L, args, false, d, st)) return;
  double* v[4];
  if (!work_vectors(L, d, 4, v)) {
    fail(kErrAllocation, "Allocation failed in (cgc0)!");
    return;
  }
  double* r = v[0];
  double* z = v[1];
  double* pd = v[2];
  double* ap = v[3];
  double* u = L.u.origin();
  Kernels kern(L);

  double rn = kern.residual(r);
  st.res_start = st.res_end = rn;
  if (rn == 0.0) return;
  const double target = p.conv_stop * rn;
  const auto breakdown = [&](const std::string& text) {
    print_message(kMsgError, 0, 0, text);
    print_message(kMsgError, 0, 0, "Breakdown of CG on coarsest level in (cgc0):");
    fail(kErrCoarsestNotSpd, "Coarsest level matrix is not positive definite!");
  };
  int nmod = 0;
  // A zero product: a modified first guess and a new start, or the end.
  const auto modify = [&](const std::string& text) -> bool {
    print_message(kMsgWarning, 0, 0, text);
    if (ierr() <= 0) ierr() = -kErrCoarsestNotSpd;
    if (++nmod > kMaxCgRestarts) {
      print_message(kMsgError, 0, 0, "Breakdown of CG on coarsest level in (cgc0):");
      fail(kErrCoarsestNotSpd, "Coarsest level matrix is not positive definite!");
      return false;
    }
    print_message(kMsgInfo, 0, 0, "Modification of initial guess (cgc0).");
    kern.perturb_guess(r, nmod);
    rn = kern.residual(r);
    return true;
  };

  bool fresh = true;
  double rho_old = 1.0;
  int it = 0;
  while (it < p.itmax_conv) {
    precondition(L, kern, d, ilu, r, z);
    const double rho = kern.dot(r, z);
    if (fresh) {
      kern.loop([=](int i) { pd[i] = z[i]; });
    } else {
      const double beta = rho / rho_old;
      kern.loop([=](int i) { pd[i] = z[i] + beta * pd[i]; });
    }
    double s[2];
    kern.matvec(pd, ap, pd, nullptr, s);  // (Ap,p)
    const double pap = s[0];
    const double rp = kern.dot(r, pd);
    if (std::abs(rp) <= kZeroDot) {
      if (rn == 0.0) break;
      if (!modify("Zero (res,p) on coarsest level (cgc0)!")) return;
      fresh = true;
      continue;
    }
    if (std::abs(pap) <= kZeroDot) {
      if (!modify("Zero (Ap,p) on coarsest level (cgc0)!")) return;
      fresh = true;
      continue;
    }
    if (rp < 0.0) return breakdown("Negative (res,p) on coarsest level (cgc0)!");
    if (pap < 0.0) return breakdown("Negative (Ap,p) on coarsest level (cgc0)!");
    const double alpha = rp / pap;
    kern.loop([=](int i) {
      u[i] += alpha * pd[i];
      r[i] -= alpha * ap[i];
    });
    ++it;
    rn = kern.norm(r);
    fresh = false;
    rho_old = rho;
    if (rn <= target) {
      // The recurrence has reached the target: confirm it by the true residual,
      // or go on from that one.
      rn = kern.residual(r);
      if (rn <= target) break;
      fresh = true;
    }
  }
  st.iterations = it;
  st.res_end = rn;
}

// ===========================================================================
// cgstab0 (nrc 3 ILUT, nrc 5 diagonal): right-preconditioned BI-CGSTAB
// ===========================================================================
void cgstab0(const LevelView& L, const CoarsestArgs& args, bool ilu, CoarsestData& d, CoarsestState& st) {
  const Params& p = prm();
  st.iterations = 0;
  if (ilu && !ilu_prepare(L, args, true, d, st)) return;
  double* v[7];
  if (!work_vectors(L, d, 7, v)) {
    fail(kErrAllocation, "Allocation failed in (cgstab0)!");
    return;
  }
  double* r = v[0];
  double* rb = v[1];  // shadow residual <rbar>
  double* pd = v[2];
  double* av = v[3];  // A M p
  double* z1 = v[4];  // M p
  double* z2 = v[5];  // M s
  double* t = v[6];   // A M s
  double* u = L.u.origin();
  Kernels kern(L);

  double rn = kern.residual(r);
  st.res_start = st.res_end = rn;
  if (rn == 0.0) return;
  const double target = p.conv_stop * rn;

  bool fresh = true, new_rbar = true;
  double nrb = 0.0, rho_old = 1.0, alpha = 1.0, omega = 1.0;
  int stage = 0, nrestart = 0;
  // Staged restart after a breakdown; false ends the iteration (the error
  // is set at the last stage).
  const auto restart = [&]() -> bool {
    if (++nrestart > kMaxBicgRestarts) return false;
    ++stage;
    fresh = true;
    new_rbar = true;
    if (stage == 1) {
      print_message(kMsgWarning, 0, 0, "Re-start of precond. BI-CGSTAB on coarsest level (cgstab0)!");
    } else if (stage == 2) {
      print_message(kMsgWarning, 0, 0, "Re-start with modified <rbar> on coarsest level (cgstab0)!");
    } else if (stage == 3) {
      print_message(kMsgWarning, 0, 0, "Re-start with new initial guess on coarsest level (cgstab0)!");
      kern.perturb_guess(r, nrestart);
    } else {
      print_message(kMsgError, 0, 0, "Breakdown of BI-CGSTAB on coarsest level (cgstab0):");
      print_message(kMsgError, 0, 0, "Coarsest level matrix is singular!");
      fail(kErrCoarsestSingular, "BI-CGSTAB failed on coarsest level (cgstab0) after repeated restart!");
      return false;
    }
    rn = kern.residual(r);
    if (stage == 2) {
      // <rbar> := r + noise of half the size of the largest residual entry.
      double rmax = 0.0;
      for (int i = L.ilo; i <= L.ihi; ++i) rmax = std::max(rmax, std::abs(r[i]));
      const double amp = 0.5 * rmax;
      const int draw = nrestart;
      kern.loop([=](int i) { rb[i] = r[i] + amp * unit_noise(i, draw); });
      nrb = kern.norm(rb);
      new_rbar = false;
    }
    return true;
  };

  int it = 0;
  while (it < p.itmax_conv) {
    if (new_rbar) {
      kern.loop([=](int i) { rb[i] = r[i]; });
      nrb = rn;
      new_rbar = false;
    }
    const double rho = kern.dot(rb, r);
    if (rn == 0.0) break;
    if (std::abs(rho) <= std::max(kZeroDot, kBicgBreak * nrb * rn)) {
      if (restart()) continue;
      break;
    }
    if (fresh) {
      kern.loop([=](int i) { pd[i] = r[i]; });
    } else {
      const double beta = (rho / rho_old) * (alpha / omega);
      const double om = omega;
      kern.loop([=](int i) { pd[i] = r[i] + beta * (pd[i] - om * av[i]); });
    }
    precondition(L, kern, d, ilu, pd, z1);
    double sv[2];
    kern.matvec(z1, av, rb, nullptr, sv);  // (rbar, v), (v, v)
    if (std::abs(sv[0]) <= std::max(kZeroDot, kBicgBreak * nrb * std::sqrt(sv[1]))) {
      if (restart()) continue;
      break;
    }
    alpha = rho / sv[0];
    const double al = alpha;
    kern.loop([=](int i) {
      u[i] += al * z1[i];
      r[i] -= al * av[i];
    });
    rn = kern.norm(r);
    double om = 0.0;
    if (rn > target) {
      precondition(L, kern, d, ilu, r, z2);
      double ts[2];
      kern.matvec(z2, t, r, nullptr, ts);  // (t, s), (t, t)
      if (ts[1] <= kZeroDot) {
        ++it;
        if (restart()) continue;
        break;
      }
      om = ts[0] / ts[1];
      kern.loop([=](int i) {
        u[i] += om * z2[i];
        r[i] -= om * t[i];
      });
      rn = kern.norm(r);
    }
    ++it;
    stage = 0;
    omega = om;
    rho_old = rho;
    fresh = om == 0.0;
    if (rn <= target) {
      rn = kern.residual(r);
      if (rn <= target) break;
      fresh = true;
      new_rbar = true;
    }
  }
  st.iterations = it;
  st.res_end = rn;
}

// ===========================================================================
// Full Gauss elimination (nrc 6)
// ===========================================================================

// gauss_alloc and the decomposition: the dense copy, factorised by partial
// (gedec8_partial) or full (gedec8_full) pivoting.
void gauss_setup(const LevelView& L, CoarsestData& d, CoarsestState& st) {
  const int n = L.nrows();
  try {
    dense_copy(L, d.pinned, d.dense);
    d.ipiv.assign(static_cast<std::size_t>(n), 0);
    if (prm().full_pivoting) d.jpiv.assign(static_cast<std::size_t>(n), 0);
  } catch (const std::bad_alloc&) {
    d.dense.clear();
    d.ipiv.clear();
    d.jpiv.clear();
    fail(kErrAllocation, "Allocation failed in (gauss_alloc)!");
    return;
  }
  recount(d);
  ++st.factorisations;
  const double scale = max_abs(d.dense);
  int info = 0;
  if (prm().full_pivoting) {
    d.dense_mode = 4;
    dgetc2_(&n, d.dense.data(), &n, d.ipiv.data(), d.jpiv.data(), &info);
  } else {
    d.dense_mode = 2;
    dgetrf_(&n, &n, d.dense.data(), &n, d.ipiv.data(), &info);
  }
  if (info != 0 || scale == 0.0 || tiny_pivot(d.dense, n, scale)) {
    fail(kErrCoarsestFullGauss, "Error in matrix decomposition (full Gauss)!");
    return;
  }
  d.ready = true;
}

// Solves with the dense LU of d (modes 2 and 4) or Cholesky factor (1) or
// inverse (3); b holds the right-hand side and receives the solution.
void dense_solve(CoarsestData& d, int n, double* b, double* tmp) {
  const int one = 1;
  int info = 0;
  switch (d.dense_mode) {
    case 1: dpotrs_("L", &n, &one, d.dense.data(), &n, b, &n, &info, 1); break;
    case 2: dgetrs_("N", &n, &one, d.dense.data(), &n, d.ipiv.data(), b, &n, &info, 1); break;
    case 3: {
      const double alpha = 1.0, beta = 0.0;
      std::copy(b, b + n, tmp);
      dgemv_("N", &n, &n, &alpha, d.dense.data(), &n, tmp, &one, &beta, b, &one, 1);
      break;
    }
    case 4: {
      double scale = 1.0;
      dgesc2_(&n, d.dense.data(), &n, b, d.ipiv.data(), d.jpiv.data(), &scale);
      if (scale != 1.0)
        for (int i = 0; i < n; ++i) b[i] /= scale;
      break;
    }
    default: break;
  }
}

// ===========================================================================
// Dense LAPACK route (nrc 10): dense_prep and the solve
// ===========================================================================
void dense_fail(std::string_view text) {
  print_message(kMsgError, 0, 0, text);
  fail(kErrCoarsestDense, "Error in dense direct solver");
}

void dense_prep(const LevelView& L, const CoarsestArgs& args, CoarsestData& d, CoarsestState& st) {
  const int n = L.nrows();
  std::array<int, 3> dig{};
  idec(prm().cldense_ctrl, dig);
  const bool inversion = dig[0] == 2;
  if (n > kMaxDenseOrder) {
    dense_fail("nrc=10 : extremely large coarsest grid occurred");
    return;
  }
  trace_dense("serial dense: storing dense matrix");
  try {
    dense_copy(L, d.pinned, d.dense);
    d.ipiv.assign(static_cast<std::size_t>(n), 0);
  } catch (const std::bad_alloc&) {
    d.dense.clear();
    d.ipiv.clear();
    dense_fail("nrc=10 : alloc failed");
    return;
  }
  recount(d);
  ++st.factorisations;
  const std::size_t nn = static_cast<std::size_t>(n);

  // ---- symmetric or not, by the request and the stored matrix ----
  bool symmetric = args.isym != 2;
  if (symmetric) {
    for (int j = 0; j < n && symmetric; ++j) {
      for (int i = j + 1; i < n; ++i) {
        const double x = d.dense[static_cast<std::size_t>(j) * nn + i];
        const double y = d.dense[static_cast<std::size_t>(i) * nn + j];
        if (std::abs(x - y) > kSymTol * std::max(std::abs(x), std::abs(y))) {
          symmetric = false;
          break;
        }
      }
    }
    if (!symmetric)
      print_message(kMsgWarning, 0, 0, "WARN amgcl_dense: symmetric LU dec. requested, but non-symm. stored");
  }
  const double scale = max_abs(d.dense);
  int info = 0;
  if (symmetric) {
    // Cholesky of the lower triangle; a matrix that is not positive definite
    // goes the non-symmetric way.
    std::vector<double> keep;
    try {
      keep = d.dense;
    } catch (const std::bad_alloc&) {
      dense_fail("nrc=10 : alloc failed");
      return;
    }
    dpotrf_("L", &n, d.dense.data(), &n, &info, 1);
    if (info < 0) {
      dense_fail("nrc=10 : general mkl lib error");
      return;
    }
    if (info > 0) {
      symmetric = false;
      d.dense.swap(keep);
    } else {
      // A pivot (the square of a diagonal entry of the factor) at round-off
      // level: singular.
      const double lim = static_cast<double>(n) * DBL_EPSILON * scale;
      for (int k = 0; k < n; ++k) {
        const double l = d.dense[static_cast<std::size_t>(k) * nn + k];
        if (!(l * l > lim)) {
          dense_fail("nrc=10 : general mkl lib error");
          return;
        }
      }
    }
  }
  trace_dense(symmetric ? "dense_prep: using symmetric case" : "dense_prep: using non symmetric case");
  trace_dense(inversion ? "dense_prep: using inversion case" : "dense_prep: using LU  case");
  if (symmetric) {
    d.dense_mode = 1;
    if (inversion) {
      dpotri_("L", &n, d.dense.data(), &n, &info, 1);
      if (info != 0) {
        dense_fail("nrc=10 : general mkl lib error");
        return;
      }
      for (int j = 0; j < n; ++j)
        for (int i = j + 1; i < n; ++i)
          d.dense[static_cast<std::size_t>(i) * nn + j] = d.dense[static_cast<std::size_t>(j) * nn + i];
      d.dense_mode = 3;
    }
  } else {
    d.dense_mode = 2;
    dgetrf_(&n, &n, d.dense.data(), &n, d.ipiv.data(), &info);
    if (info != 0 || scale == 0.0 || tiny_pivot(d.dense, n, scale)) {
      dense_fail("nrc=10 : general mkl lib error");
      return;
    }
    if (inversion) {
      int lwork = -1;
      double wq = 0.0;
      dgetri_(&n, d.dense.data(), &n, d.ipiv.data(), &wq, &lwork, &info);
      lwork = std::max(static_cast<int>(wq), std::max(n, 1));
      std::vector<double> wk;
      try {
        wk.resize(static_cast<std::size_t>(lwork));
      } catch (const std::bad_alloc&) {
        dense_fail("nrc=10 : alloc failed");
        return;
      }
      dgetri_(&n, d.dense.data(), &n, d.ipiv.data(), wk.data(), &lwork, &info);
      if (info != 0) {
        dense_fail("nrc=10 : general mkl lib error");
        return;
      }
      d.dense_mode = 3;
    }
  }
  d.ready = true;
}

// ===========================================================================
// Least squares (nrc 8): complete orthogonal factorisation A P = Q [T 0] Z,
// kept; each solve gives the minimal-norm least squares solution.
// ===========================================================================
void lsq_setup(const LevelView& L, CoarsestData& d, CoarsestState& st) {
  const int n = L.nrows();
  try {
    dense_copy(L, {}, d.dense);
    d.ipiv.assign(static_cast<std::size_t>(n), 0);  // column pivots of the QR (jpvt)
    d.tau1.assign(static_cast<std::size_t>(n), 0.0);
    d.tau2.assign(static_cast<std::size_t>(n), 0.0);
  } catch (const std::bad_alloc&) {
    d.dense.clear();
    fail(kErrAllocation, "Allocation failed in (lsq_sparse)!");
    return;
  }
  recount(d);
  ++st.factorisations;
  int info = 0, lwork = -1;
  double wq = 0.0;
  dgeqp3_(&n, &n, d.dense.data(), &n, d.ipiv.data(), d.tau1.data(), &wq, &lwork, &info);
  lwork = std::max(static_cast<int>(wq), 3 * n + 1);
  std::vector<double> wk(static_cast<std::size_t>(lwork));
  dgeqp3_(&n, &n, d.dense.data(), &n, d.ipiv.data(), d.tau1.data(), wk.data(), &lwork, &info);
  if (info != 0) {
    fail(kErrInternal, "Error in QR decomposition (lsq_sparse)!");
    return;
  }
  const std::size_t nn = static_cast<std::size_t>(n);
  const double r11 = std::abs(d.dense[0]);
  d.rank = 0;
  while (d.rank < n && std::abs(d.dense[static_cast<std::size_t>(d.rank) * nn + d.rank]) > kLsqRank * r11)
    ++d.rank;
  if (d.rank > 0 && d.rank < n) {
    lwork = -1;
    dtzrzf_(&d.rank, &n, d.dense.data(), &n, d.tau2.data(), &wq, &lwork, &info);
    lwork = std::max(static_cast<int>(wq), std::max(d.rank, 1));
    wk.resize(static_cast<std::size_t>(lwork));
    dtzrzf_(&d.rank, &n, d.dense.data(), &n, d.tau2.data(), wk.data(), &lwork, &info);
    if (info != 0) {
      fail(kErrInternal, "Error in QR decomposition (lsq_sparse)!");
      return;
    }
  }
  d.ready = true;
}

// b holds the right-hand side and receives the solution; tmp has n values.
void lsq_solve(CoarsestData& d, int n, double* b, double* tmp) {
  const int one = 1;
  int info = 0;
  int lwork = std::max(n, 1);
  double* wk = tmp;  // workspace of the reflector products (one column needs one value)
  dormqr_("L", "T", &n, &one, &n, d.dense.data(), &n, d.tau1.data(), b, &n, wk, &lwork, &info, 1, 1);
  if (d.rank > 0) dtrsv_("U", "N", "N", &d.rank, d.dense.data(), &n, b, &one, 1, 1, 1);
  for (int i = d.rank; i < n; ++i) b[i] = 0.0;
  if (d.rank > 0 && d.rank < n) {
    const int l = n - d.rank;
    dormrz_("L", "T", &n, &one, &d.rank, &l, d.dense.data(), &n, d.tau2.data(), b, &n, wk, &lwork,
            &info, 1, 1);
  }
  for (int i = 0; i < n; ++i) tmp[d.ipiv[i] - 1] = b[i];
  std::copy(tmp, tmp + n, b);
}

// ===========================================================================
// Sparse Gauss elimination (nrc 7)
// ===========================================================================

// The level by columns (0-based local), without the off-diagonal entries of
// pinned rows and columns.
void level_csc(const LevelView& L, const std::vector<int>& pinned, CscMatrix& c) {
  const int n = L.nrows();
  c.n = n;
  c.cp.assign(static_cast<std::size_t>(n) + 1, 0);
  const auto keep = [&](int li, int lj) {
    return li == lj || pinned.empty() || (!is_pinned(pinned, li) && !is_pinned(pinned, lj));
  };
  for (int i = L.ilo; i <= L.ihi; ++i)
    for (int k = L.ia(i); k < L.ia(i + 1); ++k)
      if (keep(i - L.ilo, L.ja(k) - L.ilo)) ++c.cp[L.ja(k) - L.ilo + 1];
  for (int j = 0; j < n; ++j) c.cp[j + 1] += c.cp[j];
  c.ri.assign(static_cast<std::size_t>(c.cp[n]), 0);
  c.ax.assign(static_cast<std::size_t>(c.cp[n]), 0.0);
  std::vector<int> next(c.cp.begin(), c.cp.end() - 1);
  for (int i = L.ilo; i <= L.ihi; ++i) {
    for (int k = L.ia(i); k < L.ia(i + 1); ++k) {
      const int lj = L.ja(k) - L.ilo;
      if (!keep(i - L.ilo, lj)) continue;
      const int pos = next[lj]++;
      c.ri[pos] = i - L.ilo;
      c.ax[pos] = L.a(k);
    }
  }
}

void sparse_gauss_setup(const LevelView& L, CoarsestData& d, CoarsestState& st) {
  trace("cgsolve: sparse Gauss setup");
  try {
    level_csc(L, d.pinned, d.csc);
  } catch (const std::bad_alloc&) {
    fail(kErrAllocation, "Allocation failed in (spg_alloc)!");
    return;
  }
  if (!spg_alloc(d.csc, d.lu)) {
    recount(d);
    fail(kErrAllocation, "Allocation failed in (spg_alloc)!");
    return;
  }
  ++st.factorisations;
  int bad = -1;
  const bool ok = spg_lufact(d.csc, d.lu, kSparsePivotThreshold, bad);
  // The matrix copy is not needed for the solves.
  d.csc = CscMatrix{};
  recount(d);
  if (!ok) {
    if (bad == -2) {
      fail(kErrAllocation, "Allocation failed in (spg_lufact)!");
    } else {
      fail(kErrCoarsestSparseGauss, "Error in matrix decomposition (sparse Gauss)!");
    }
    return;
  }
  if (trace_on()) {
    print_line(0, 0, "cgsolve: sparse Gauss factors " + fmt_int(d.lu.entries()) + " entries, predicted " +
                         fmt_int(2 * d.lu.predicted_l + d.lu.n) + ", off-diagonal pivots " +
                         fmt_int(d.lu.off_diagonal_pivots));
  }
  d.ready = true;
}

// ===========================================================================
// Direct solvers: set-up once, then one solve per call
// ===========================================================================
void direct_solve(const LevelView& L, const CoarsestArgs& args, int nrc, CoarsestData& d, CoarsestState& st) {
  const int n = L.nrows();
  if (!d.ready) {
    switch (nrc) {
      case 6: gauss_setup(L, d, st); break;
      case 7: sparse_gauss_setup(L, d, st); break;
      case 8: lsq_setup(L, d, st); break;
      case 10: dense_prep(L, args, d, st); break;
      default: break;
    }
    if (failed()) return;
  }
  double* v[2];
  if (!work_vectors(L, d, 2, v)) {
    fail(kErrAllocation, "Allocation failed in (cgsolve)!");
    return;
  }
  double* b = v[0] + L.ilo;  // 0-based local
  double* tmp = v[1] + L.ilo;
  if (nrc == 8) {
    for (int i = L.ilo; i <= L.ihi; ++i) b[i - L.ilo] = L.f(i);
  } else {
    pinned_rhs(L, d.pinned, b);
  }
  switch (nrc) {
    case 6:
    case 10: dense_solve(d, n, b, tmp); break;
    case 7: spg_solve(d.lu, b, tmp); break;
    case 8: lsq_solve(d, n, b, tmp); break;
    default: break;
  }
  for (int i = L.ilo; i <= L.ihi; ++i) L.u(i) = b[i - L.ilo];
}

// The trivial levels of one unknown: one row, or two rows of a singular
// system. True when the level was handled here (or failed).
bool solve_trivial(const LevelView& L, const CoarsestArgs& args) {
  const int n = L.nrows();
  if (std::max(args.nsys, 1) != 1 || n > 2) return false;
  const bool singular = args.iscale != nullptr && args.iscale[0] == 1;
  if (!singular) {
    if (n != 1) return false;
    const double d = L.a(L.ia(L.ilo));
    if (d == 0.0) {
      fail(kErrCoarsestSingleUnknown, "Singular system with only one unknown in (solve_trivial)!");
      return true;
    }
    L.u(L.ilo) = L.f(L.ilo) / d;
    return true;
  }
  if (n != 2) {
    fail(kErrCoarsestSingleUnknown, "Singular system with only one unknown in (solve_trivial)!");
    return true;
  }
  const double d = L.a(L.ia(L.ihi));
  if (d == 0.0) {
    fail(kErrCoarsestSingleUnknown, "Singular system with only one unknown in (solve_trivial)!");
    return true;
  }
  L.u(L.ilo) = 0.0;
  L.u(L.ihi) = L.f(L.ihi) / d;
  return true;
}

}  // namespace

CoarsestArgs coarsest_args(const SolveSetup& s, int nsys, const int* iscale, int isym) {
  CoarsestArgs a;
  a.nrc = s.nrc_new;
  a.lfil_cl_used = s.lfil_cl_used;
  a.coarse_sweeps = s.coarse_sweeps;
  a.smoother = s.smoother;
  a.nsys = nsys;
  a.iscale = iscale;
  a.isym = isym;
  return a;
}

bool check_cldense_ctrl() {
  const int c = prm().cldense_ctrl;
  std::array<int, 3> d{};
  const int nd = c > 0 && c <= 999 ? idec(c, d) : 0;
  bool ok = nd >= 1 && (d[0] == 1 || d[0] == 2);
  for (int k = 1; k < nd && ok; ++k) ok = d[static_cast<std::size_t>(k)] == 0 || d[static_cast<std::size_t>(k)] == 1;
  if (!ok) fail(kErrIllegalParameter, "invalid value for cldense_ctrl (solve-data)!");
  return ok;
}

void cgsolve(const LevelView& L, const CoarsestArgs& args, CoarsestState& st) {
  // ---- the kept set-up belongs to this solver and level, or goes ----
  const int nrc_given = args.nrc;
  std::vector<int> pinned = pinned_rows(L, args);
  CoarsestData* d = st.data;
  if (d != nullptr && (st.nrc_last != nrc_given || d->ilo != L.ilo || d->ihi != L.ihi ||
                       d->first_entry != L.ia(L.ilo) || d->end_entry != L.ia(L.ihi + 1) ||
                       d->a_origin != L.a.origin() || d->pinned != pinned)) {
    st.release();
    d = nullptr;
  }
  st.nrc_last = nrc_given;

  // ---- trivial levels ----
  if (solve_trivial(L, args)) {
    if (!failed()) trace("cgsolve: done after solve_trivial");
    return;
  }

  // ---- the code in force ----
  int nrc = nrc_given;
  if (nrc == 11) {
    fail(kErrIllegalParameter, "invalid value for the coarsest grid solver (cgsolve)!");
    return;
  }
  if (nrc < 1 || nrc > 10) {
    warn(kWarnCoarsestCorrected, "Illegal value of parameter nrc in (cgsolve)!");
    nrc = 7;
  }

  if (d == nullptr) {
    try {
      d = new CoarsestData;
    } catch (const std::bad_alloc&) {
      fail(kErrAllocation, "Allocation failed in (cgsolve)!");
      return;
    }
    st.data = d;
    d->ilo = L.ilo;
    d->ihi = L.ihi;
    d->first_entry = L.ia(L.ilo);
    d->end_entry = L.ia(L.ihi + 1);
    d->a_origin = L.a.origin();
    d->pinned = std::move(pinned);
  }

  // ---- dispatch ----
  switch (nrc) {
    case 1: cl_smo(L, args, st); break;
    case 2: cgc0(L, args, true, *d, st); break;
    case 3: cgstab0(L, args, true, *d, st); break;
    case 4: cgc0(L, args, false, *d, st); break;
    case 5: cgstab0(L, args, false, *d, st); break;
    case 6:
    case 7:
    case 8: direct_solve(L, args, nrc, *d, st); break;
    case 9:
      if (!coarsest_user_solver()) {
        fail(kErrCoarsestUser, "No solver currently installed by USER (user_solve)");
        return;
      }
      coarsest_user_solver()(L);
      break;
    case 10:
      if (!d->ready && !check_cldense_ctrl()) return;
      direct_solve(L, args, nrc, *d, st);
      break;
    default: break;
  }
}

std::string coarsest_solver_name(int nrc, int lfil_cl_used) {
  const Params& p = prm();
  switch (nrc) {
    case 1: return "Plain smoothing steps  (iter_check = " + fmt_int(p.iter_check) + ")";
    case 2: {
      const std::string head = p.ilu_speed != 0 ? "new " : "";
      if (p.milu != 0) return head + "MILU(0," + fmt_g(p.delta_milu) + ") preconditioned CG";
      return head + "ILU(0) preconditioned CG";
    }
    case 3: return "ILUT(" + fmt_int(lfil_cl_used) + "," + fmt_g(p.droptol_cl) + ") preconditioned BI-CGSTAB";
    case 4: return "Diagonally preconditioned CG";
    case 5: return "Diagonally preconditioned BI-CGSTAB";
    case 6:
      return p.full_pivoting ? "Full Gauss elimination (full pivoting)" : "Full Gauss elimination (partial pivoting)";
    case 7: return "Sparse Gauss elimination";
    case 8: return "Least squares method (very expensive!)";
    case 9: return "User provided solution process";
    case 10: {
      std::array<int, 3> d{};
      idec(p.cldense_ctrl, d);
      return d[0] == 2 ? "Full Inversion (LAPACK)" : "Full Gauss elimination (LAPACK)";
    }
    case 11: return "Pardiso direct solver (MKL)";
    default: return "";
  }
}

std::string coarsest_report_line(int nrc, int lfil_cl_used) {
  const Params& p = prm();
  if (nrc == 9) return "Coarse level: User provided solution process";
  const std::string name = coarsest_solver_name(nrc, lfil_cl_used);
  if (nrc >= 1 && nrc <= 5)
    return "Coarse level: Iterative solution (max: " + fmt_int(p.itmax_conv) + ", stop: " + fmt_g(p.conv_stop) +
           ") by " + name;
  return "Coarse level: Direct solution by " + name;
}

}  // namespace kornlt
