// korn-bench-check: self-check of the benchmark problem generator against
// independent dense constructions (Kronecker sums of 1D stencils, a
// neighbour-distance rule), the row-form contract, symmetry, and equality of
// the rows whatever the block split. Exit status 0 when all checks pass.
#include <cmath>
#include <cstdio>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "problems.hpp"

namespace {

int g_failures = 0;

void check(bool ok, const std::string& what) {
  if (!ok) {
    ++g_failures;
    std::printf("FAIL: %s\n", what.c_str());
  }
}

using Dense = std::vector<std::vector<double>>;

Dense to_dense(const kornbench::Rows& r) {
  const int n = static_cast<int>(r.nglobal);
  Dense d(static_cast<std::size_t>(n), std::vector<double>(static_cast<std::size_t>(n), 0.0));
  for (int i = r.lo; i < r.hi; ++i)
    for (int p = r.ia[static_cast<std::size_t>(i - r.lo)] - 1; p < r.ia[static_cast<std::size_t>(i - r.lo) + 1] - 1; ++p)
      d[static_cast<std::size_t>(i)][static_cast<std::size_t>(r.ja[static_cast<std::size_t>(p)] - 1)] +=
          r.a[static_cast<std::size_t>(p)];
  return d;
}

// The 1D second difference tridiag(-1, 2, -1) of size m.
Dense second_difference(int m) {
  Dense t(static_cast<std::size_t>(m), std::vector<double>(static_cast<std::size_t>(m), 0.0));
  for (int i = 0; i < m; ++i) {
    t[static_cast<std::size_t>(i)][static_cast<std::size_t>(i)] = 2.0;
    if (i > 0) t[static_cast<std::size_t>(i)][static_cast<std::size_t>(i - 1)] = -1.0;
    if (i < m - 1) t[static_cast<std::size_t>(i)][static_cast<std::size_t>(i + 1)] = -1.0;
  }
  return t;
}

Dense identity(int m) {
  Dense t(static_cast<std::size_t>(m), std::vector<double>(static_cast<std::size_t>(m), 0.0));
  for (int i = 0; i < m; ++i) t[static_cast<std::size_t>(i)][static_cast<std::size_t>(i)] = 1.0;
  return t;
}

// Kronecker product A (x) B: the index of B runs fastest.
Dense kron(const Dense& a, const Dense& b) {
  const std::size_t na = a.size(), nb = b.size();
  Dense c(na * nb, std::vector<double>(na * nb, 0.0));
  for (std::size_t i = 0; i < na; ++i)
    for (std::size_t j = 0; j < na; ++j)
      for (std::size_t k = 0; k < nb; ++k)
        for (std::size_t l = 0; l < nb; ++l) c[i * nb + k][j * nb + l] = a[i][j] * b[k][l];
  return c;
}

Dense add(const Dense& a, const Dense& b, double sb = 1.0) {
  Dense c = a;
  for (std::size_t i = 0; i < a.size(); ++i)
    for (std::size_t j = 0; j < a.size(); ++j) c[i][j] += sb * b[i][j];
  return c;
}

double max_diff(const Dense& a, const Dense& b) {
  double m = 0.0;
  for (std::size_t i = 0; i < a.size(); ++i)
    for (std::size_t j = 0; j < a.size(); ++j) m = std::max(m, std::abs(a[i][j] - b[i][j]));
  return m;
}

// The row-form contract: pointers, diagonal first, other columns ascending
// and in range, and the right-hand side length.
void check_form(const kornbench::Rows& r, const std::string& name) {
  const int nloc = r.hi - r.lo;
  check(static_cast<int>(r.ia.size()) == nloc + 1 && r.ia[0] == 1, name + ": row pointers");
  check(static_cast<int>(r.f.size()) == nloc, name + ": right-hand side length");
  check(r.ja.size() == r.a.size() && static_cast<int>(r.ja.size()) == r.ia.back() - 1, name + ": entry count");
  bool diag_first = true, ascending = true, in_range = true;
  for (int i = 0; i < nloc; ++i) {
    const int p0 = r.ia[static_cast<std::size_t>(i)] - 1, p1 = r.ia[static_cast<std::size_t>(i) + 1] - 1;
    if (p1 <= p0 || r.ja[static_cast<std::size_t>(p0)] != r.lo + i + 1 || !(r.a[static_cast<std::size_t>(p0)] > 0.0))
      diag_first = false;
    for (int p = p0 + 1; p < p1; ++p) {
      const int c = r.ja[static_cast<std::size_t>(p)];
      if (c < 1 || c > r.nglobal || c == r.lo + i + 1) in_range = false;
      if (p > p0 + 1 && c <= r.ja[static_cast<std::size_t>(p) - 1]) ascending = false;
    }
  }
  check(diag_first, name + ": positive diagonal first in every row");
  check(ascending, name + ": off-diagonal columns ascending, none twice");
  check(in_range, name + ": columns in range");
}

// Rows built in blocks equal the rows built whole.
void check_blocks(const kornbench::ProblemDef& s, const kornbench::Rows& whole) {
  for (int nranks = 2; nranks <= 5; ++nranks) {
    std::vector<int> ja;
    std::vector<double> a, f;
    int prev_hi = 0;
    bool contiguous = true;
    for (int rank = 0; rank < nranks; ++rank) {
      int lo = 0, hi = 0;
      kornbench::block_of(whole.nglobal, rank, nranks, lo, hi);
      contiguous = contiguous && lo == prev_hi;
      prev_hi = hi;
      kornbench::Rows r;
      check(kornbench::build_rows(s, lo, hi, r).empty(), s.text + ": block build");
      check_form(r, s.text + " block");
      ja.insert(ja.end(), r.ja.begin(), r.ja.end());
      a.insert(a.end(), r.a.begin(), r.a.end());
      f.insert(f.end(), r.f.begin(), r.f.end());
    }
    check(contiguous && prev_hi == whole.nglobal, s.text + ": blocks cover the rows in order");
    check(ja == whole.ja && a == whole.a && f == whole.f,
          s.text + ": rows of " + std::to_string(nranks) + " blocks equal the whole");
  }
}

kornbench::Rows build(const std::string& text, kornbench::ProblemDef& s) {
  kornbench::Rows r;
  check(kornbench::parse_problem(text, s).empty(), text + ": parse");
  check(kornbench::build_rows(s, 0, -1, r).empty(), text + ": build");
  check_form(r, text);
  return r;
}

}  // namespace

int main() {
  kornbench::ProblemDef s;

  // ---- seven-point Laplacian: T (x) I (x) I + I (x) T (x) I + I (x) I (x) T.
  for (int n : {2, 3, 4}) {
    const kornbench::Rows r = build("poisson7:" + std::to_string(n), s);
    const Dense t = second_difference(n), e = identity(n);
    const Dense ref = add(add(kron(kron(t, e), e), kron(kron(e, t), e)), kron(kron(e, e), t));
    check(max_diff(to_dense(r), ref) == 0.0, "poisson7:" + std::to_string(n) + " equals the Kronecker sum");
    check_blocks(s, r);
  }

  // ---- 27-point: 26 on the diagonal, -1 for every grid point at Chebyshev
  // distance 1.
  for (int n : {2, 3, 4}) {
    const kornbench::Rows r = build("poisson27:" + std::to_string(n), s);
    const int nn = n * n * n;
    Dense ref(static_cast<std::size_t>(nn), std::vector<double>(static_cast<std::size_t>(nn), 0.0));
    for (int p = 0; p < nn; ++p)
      for (int q = 0; q < nn; ++q) {
        const int dx = std::abs(p % n - q % n), dy = std::abs(p / n % n - q / n % n), dz = std::abs(p / (n * n) - q / (n * n));
        const int d = std::max(dx, std::max(dy, dz));
        ref[static_cast<std::size_t>(p)][static_cast<std::size_t>(q)] = p == q ? 26.0 : (d == 1 ? -1.0 : 0.0);
      }
    check(max_diff(to_dense(r), ref) == 0.0, "poisson27:" + std::to_string(n) + " equals the distance rule");
    check_blocks(s, r);
  }

  // ---- anisotropic: I (x) (eps T) + T (x) I, x fastest.
  for (int n : {2, 5}) {
    const kornbench::Rows r = build("aniso2d:" + std::to_string(n) + ":0.001", s);
    const Dense t = second_difference(n), e = identity(n);
    Dense tx = t;
    for (auto& row : tx)
      for (double& v : row) v *= 0.001;
    const Dense ref = add(kron(e, tx), kron(t, e));
    check(max_diff(to_dense(r), ref) < 1e-15, "aniso2d:" + std::to_string(n) + " equals the Kronecker sum");
    check_blocks(s, r);
  }
  check(kornbench::parse_problem("aniso2d:7", s).empty() && s.eps == 1e-3 && s.dim == 2, "aniso2d default eps");

  // ---- groundwater: symmetric; the diagonal is the sum of the cell's face
  // conductances, so rows of cells away from fixed cells sum to zero and the
  // rows touching a fixed cell sum to a positive value; fixed cells keep only
  // their diagonal; 18 fixed cells; conductances within 1e-4..1e4.
  for (int n : {6, 7}) {
    const kornbench::Rows r = build("gw:" + std::to_string(n), s);
    const Dense d = to_dense(r);
    double asym = 0.0;
    for (std::size_t i = 0; i < d.size(); ++i)
      for (std::size_t j = 0; j < d.size(); ++j) asym = std::max(asym, std::abs(d[i][j] - d[j][i]));
    check(asym == 0.0, "gw:" + std::to_string(n) + " symmetric");
    int nfixed = 0, npositive = 0;
    bool offdiag_range = true, rowsum_ok = true;
    for (int i = 0; i < r.hi; ++i) {
      const int p0 = r.ia[static_cast<std::size_t>(i)] - 1, p1 = r.ia[static_cast<std::size_t>(i) + 1] - 1;
      double sum = 0.0;
      for (int p = p0; p < p1; ++p) {
        sum += r.a[static_cast<std::size_t>(p)];
        if (p > p0) {
          const double t = -r.a[static_cast<std::size_t>(p)];
          if (!(t >= 1e-4 * (1 - 1e-12) && t <= 1e4 * (1 + 1e-12))) offdiag_range = false;
        }
      }
      if (p1 - p0 == 1) {
        ++nfixed;
        check(r.f[static_cast<std::size_t>(i)] == 0.0, "gw fixed row has right-hand side 0");
      } else if (sum > 1e-12 * r.a[static_cast<std::size_t>(p0)]) {
        ++npositive;
      } else if (std::abs(sum) > 1e-12 * r.a[static_cast<std::size_t>(p0)]) {
        rowsum_ok = false;
      }
    }
    check(nfixed == 18, "gw:" + std::to_string(n) + " has 18 fixed-head cells (" + std::to_string(nfixed) + ")");
    check(npositive > 0 && rowsum_ok, "gw:" + std::to_string(n) + " row sums zero or positive beside fixed cells");
    check(offdiag_range, "gw:" + std::to_string(n) + " conductances within 1e-4..1e4");
    check_blocks(s, r);
  }

  // ---- a Matrix Market file (symmetric, lower triangle stored) read whole
  // and in blocks.
  {
    const std::string path = "korn-bench-check.mtx";
    {
      std::ofstream o(path);
      o << "%%MatrixMarket matrix coordinate real symmetric\n% test\n4 4 6\n"
        << "1 1 4\n2 1 -1\n2 2 4\n3 3 4\n4 3 -2\n4 4 5\n";
    }
    const kornbench::Rows r = build("mtx:" + path, s);
    Dense ref = {{4, -1, 0, 0}, {-1, 4, 0, 0}, {0, 0, 4, -2}, {0, 0, -2, 5}};
    check(r.symmetric && max_diff(to_dense(r), ref) == 0.0, "mtx file read and expanded");
    std::int64_t n = 0;
    check(kornbench::problem_size(s, n).empty() && n == 4, "mtx size line");
    check_blocks(s, r);
    std::remove(path.c_str());
  }

  // ---- problem names that must be refused, and block sizes.
  for (const char* bad : {"poisson7", "poisson7:1", "poisson7:x", "cube:10", "aniso2d:10:-1", "mtx:", "gw:10:3"})
    check(!kornbench::parse_problem(bad, s).empty(), std::string("refuses '") + bad + "'");
  for (int nranks : {1, 3, 7}) {
    int total = 0, lo = 0, hi = 0, minsz = 1 << 30, maxsz = 0;
    for (int rank = 0; rank < nranks; ++rank) {
      kornbench::block_of(100, rank, nranks, lo, hi);
      total += hi - lo;
      minsz = std::min(minsz, hi - lo);
      maxsz = std::max(maxsz, hi - lo);
    }
    check(total == 100 && maxsz - minsz <= 1, "blocks of 100 rows over " + std::to_string(nranks) + " ranks");
  }

  // Different rows get different right-hand sides in [-1, 1].
  check(kornbench::random_rhs(0) != kornbench::random_rhs(1) && std::abs(kornbench::random_rhs(5)) <= 1.0,
        "random right-hand side");

  if (g_failures == 0) std::printf("korn-bench-check: all generator checks passed\n");
  return g_failures == 0 ? 0 : 1;
}
