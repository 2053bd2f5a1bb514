// Shared by the solve-phase tests: model matrices in 1-based CSR (diagonal
// first in every row), a matrix placed in the stacked index space as a level
// sees it, and the independent references (products, norms, LAPACK solves).
#pragma once

#include <omp.h>

#include <algorithm>
#include <cmath>
#include <numeric>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "placed_level.hpp"
#include "store/store.hpp"

extern "C" void dgesv_(const int* n, const int* nrhs, double* a, const int* lda, int* ipiv, double* b,
                       const int* ldb, int* info);

namespace solve_test {

using Vec = std::vector<double>;

struct Csr {
  int n = 0;
  std::vector<int> ia{1}, ja;
  Vec a;

  int nna() const { return static_cast<int>(ja.size()); }
  void add_row(double diag, const std::vector<std::pair<int, double>>& off) {
    ++n;
    ja.push_back(n);
    a.push_back(diag);
    for (const auto& [j, v] : off) {
      ja.push_back(j);
      a.push_back(v);
    }
    ia.push_back(nna() + 1);
  }
  double diag(int i) const { return a[ia[i] - 1]; }  // row i, 0-based
  Vec apply(const Vec& x) const {
    Vec y(static_cast<std::size_t>(n), 0.0);
    for (int i = 0; i < n; ++i)
      for (int k = ia[i]; k < ia[i + 1]; ++k) y[i] += a[k - 1] * x[ja[k - 1] - 1];
    return y;
  }
  // Column-major dense copy plus c in every entry.
  Vec dense(double c = 0.0) const {
    Vec d(static_cast<std::size_t>(n) * n, c);
    for (int i = 0; i < n; ++i)
      for (int k = ia[i]; k < ia[i + 1]; ++k) d[static_cast<std::size_t>(ja[k - 1] - 1) * n + i] += a[k - 1];
    return d;
  }
};

// Five-point stencil on an nx x ny grid; neighbours outside are dropped, or
// with `neumann` the centre is minus the sum of the couplings present.
inline Csr grid_matrix(int nx, int ny, double c, double w, double e, double s, double nn, bool neumann = false) {
  Csr A;
  for (int y = 0; y < ny; ++y)
    for (int x = 0; x < nx; ++x) {
      const int i = y * nx + x + 1;
      std::vector<std::pair<int, double>> off;
      if (x > 0) off.push_back({i - 1, w});
      if (x < nx - 1) off.push_back({i + 1, e});
      if (y > 0) off.push_back({i - nx, s});
      if (y < ny - 1) off.push_back({i + nx, nn});
      double d = c;
      if (neumann) {
        d = 0.0;
        for (const auto& o : off) d -= o.second;
      }
      A.add_row(d, off);
    }
  return A;
}
inline Csr poisson(int nx, double shift = 0.0) { return grid_matrix(nx, nx, 4.0 + shift, -1, -1, -1, -1); }
// -Laplace + b . grad, upwind, scaled by h^2: a non-symmetric M-matrix.
inline Csr convection_diffusion(int nx, double bx, double by) {
  const double h = 1.0 / (nx + 1);
  return grid_matrix(nx, nx, 4.0 + h * (bx + by), -1.0 - h * bx, -1.0, -1.0 - h * by, -1.0);
}
inline Csr neumann(int nx) { return grid_matrix(nx, nx, 0.0, -1, -1, -1, -1, true); }
// A right-hand side with smooth and oscillating parts; `compatible` removes
// its mean (orthogonal to the constants).
inline Vec test_rhs(int n, bool compatible = false) {
  Vec f(static_cast<std::size_t>(n));
  for (int i = 0; i < n; ++i) f[i] = 1.0 + std::sin(1.3 * i) + 0.5 * std::cos(0.7 * i * i);
  if (compatible) {
    const double mean = std::accumulate(f.begin(), f.end(), 0.0) / n;
    for (double& v : f) v -= mean;
  }
  return f;
}
inline Vec zeros(int n) { return Vec(static_cast<std::size_t>(n), 0.0); }

inline double norm2(const Vec& v) {
  double s = 0.0;
  for (double x : v) s += x * x;
  return std::sqrt(s);
}
inline double max_abs(const Vec& v) {
  double m = 0.0;
  for (double x : v) m = std::max(m, std::abs(x));
  return m;
}
inline double max_diff(const Vec& a, const Vec& b) {
  double m = 0.0;
  for (std::size_t i = 0; i < a.size(); ++i) m = std::max(m, std::abs(a[i] - b[i]));
  return m;
}
inline double rel_diff(const Vec& x, const Vec& ref) { return max_diff(x, ref) / max_abs(ref); }
inline Vec residual(const Csr& A, const Vec& u, const Vec& f) {
  Vec r = A.apply(u);
  for (std::size_t i = 0; i < r.size(); ++i) r[i] = f[i] - r[i];
  return r;
}
inline double true_residual(const Csr& A, const Vec& u, const Vec& f) { return norm2(residual(A, u, f)); }

// LAPACK LU solve of (A + c 1 1^T) x = f. With a zero-row-sum A, compatible f
// and c = 1 it gives the solution of A x = f with zero mean.
inline Vec dense_solve(const Csr& A, Vec f, double c = 0.0) {
  Vec d = A.dense(c);
  std::vector<int> ipiv(static_cast<std::size_t>(A.n));
  const int one = 1;
  int info = 0;
  dgesv_(&A.n, &one, d.data(), &A.n, ipiv.data(), f.data(), &A.n, &info);
  EXPECT_EQ(info, 0);
  return f;
}

inline bool contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}
// The parts appear in `text` in the given order.
inline bool contains_in_order(const std::string& text, const std::vector<std::string>& parts) {
  std::size_t pos = 0;
  for (const auto& p : parts) {
    pos = text.find(p, pos);
    if (pos == std::string::npos) return false;
    pos += p.size();
  }
  return true;
}

// Sets the thread count for a scope.
class Threads {
 public:
  explicit Threads(int n) : saved_(omp_get_max_threads()) { omp_set_num_threads(n); }
  ~Threads() { omp_set_num_threads(saved_); }
  Threads(const Threads&) = delete;
  Threads& operator=(const Threads&) = delete;

 private:
  int saved_;
};

// A matrix placed in the stacked index space: rows off+1..off+n, entries
// eoff+1.., with u, f and icg. The view is made on demand, so copies work.
struct Level {
  int k = 1, ilo = 1, ihi = 0, k0 = 1;
  std::vector<int> ia, ja, icg;
  Vec a, u, f;

  Level() = default;
  Level(const Csr& A, Vec u0, Vec f0, int off = 0, int eoff = 0)
      : k(off == 0 ? 1 : 2), ilo(off + 1), ihi(off + A.n), k0(eoff + 1), a(A.a), u(std::move(u0)), f(std::move(f0)) {
    for (int v : A.ia) ia.push_back(v + eoff);
    for (int v : A.ja) ja.push_back(v + off);
    icg.assign(static_cast<std::size_t>(A.n), -1);
  }
  int n() const { return ihi - ilo + 1; }
  kornlt::LevelView view(bool with_icg = true) {
    kornlt::LevelView L = test_support::placed_view(k, ilo, ihi, k0, ia, ja, a);
    L.u = kornlt::Vec1<double>(u.data(), ilo, ihi);
    L.f = kornlt::Vec1<double>(f.data(), ilo, ihi);
    if (with_icg) L.icg = kornlt::Vec1<int>(icg.data(), ilo, ihi);
    return L;
  }
};

}  // namespace solve_test
