// Tests of the strength of connection and row sorting (rwsrt) and of the
// split of the encoded reals: an independent per-row reference classifier over
// many matrices and parameters, hand-computed positive eliminations, error
// exits, the report lines, and thread independence.
#include <gtest/gtest.h>
#include <omp.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <map>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "log/log.hpp"
#include "log/test_support.hpp"
#include "params/params.hpp"
#include "setup/setup.hpp"
#include "store/store.hpp"

namespace {

using kornlt::LevelView;
using kornlt::RowSortResult;
using kornlt::Vec1;

// ---------------------------------------------------------------------------
// Matrices: diagonal plus off-diagonals per row, 0-based local columns, in
// the stored order.
// ---------------------------------------------------------------------------
struct Matrix {
  int n = 0;
  std::vector<double> diag;
  std::vector<std::vector<std::pair<int, double>>> offs;
  explicit Matrix(int nrows = 0) : n(nrows), diag(nrows, 0.0), offs(nrows) {}
};

// The matrix laid out as a level of the stacked arrays: rows ilo..ihi with
// global column numbers, entries from position alo on.
struct Level {
  int ilo = 1, ihi = 0, alo = 1;
  std::vector<int> ia, ja;
  std::vector<double> a;

  LevelView view() {
    LevelView L;
    L.k = 2;
    L.ilo = ilo;
    L.ihi = ihi;
    L.ia = Vec1<int>(ia.data(), ilo, ihi + 1);
    L.ja = Vec1<int>(ja.data(), alo, alo + static_cast<int>(ja.size()) - 1);
    L.a = Vec1<double>(a.data(), alo, alo + static_cast<int>(a.size()) - 1);
    return L;
  }
  int IA(int i) const { return ia[static_cast<std::size_t>(i - ilo)]; }
  int JA(int k) const { return ja[static_cast<std::size_t>(k - alo)]; }
  double A(int k) const { return a[static_cast<std::size_t>(k - alo)]; }
};

Level make_level(const Matrix& M, int row_base = 0, int entry_base = 0) {
  Level lv;
  lv.ilo = row_base + 1;
  lv.ihi = row_base + M.n;
  lv.alo = entry_base + 1;
  int pos = lv.alo;
  for (int r = 0; r < M.n; ++r) {
    lv.ia.push_back(pos);
    lv.ja.push_back(lv.ilo + r);
    lv.a.push_back(M.diag[static_cast<std::size_t>(r)]);
    ++pos;
    for (const auto& [c, v] : M.offs[static_cast<std::size_t>(r)]) {
      lv.ja.push_back(lv.ilo + c);
      lv.a.push_back(v);
      ++pos;
    }
  }
  lv.ia.push_back(pos);
  return lv;
}

// Off-diagonal orders shuffled (the diagonal stays first).
void shuffle_rows(Matrix& M, unsigned seed) {
  std::mt19937 rng(seed);
  for (auto& row : M.offs) std::shuffle(row.begin(), row.end(), rng);
}

// -u_xx - epsy u_yy on an nx x ny grid, five-point stencil.
Matrix poisson2d(int nx, int ny, double epsy = 1.0) {
  Matrix M(nx * ny);
  for (int y = 0; y < ny; ++y)
    for (int x = 0; x < nx; ++x) {
      const int r = y * nx + x;
      M.diag[static_cast<std::size_t>(r)] = 2.0 + 2.0 * epsy;
      auto& row = M.offs[static_cast<std::size_t>(r)];
      if (y > 0) row.push_back({r - nx, -epsy});
      if (x > 0) row.push_back({r - 1, -1.0});
      if (x < nx - 1) row.push_back({r + 1, -1.0});
      if (y < ny - 1) row.push_back({r + nx, -epsy});
    }
  return M;
}

Matrix poisson3d(int m) {
  Matrix M(m * m * m);
  for (int z = 0; z < m; ++z)
    for (int y = 0; y < m; ++y)
      for (int x = 0; x < m; ++x) {
        const int r = (z * m + y) * m + x;
        M.diag[static_cast<std::size_t>(r)] = 6.0;
        auto& row = M.offs[static_cast<std::size_t>(r)];
        if (z > 0) row.push_back({r - m * m, -1.0});
        if (y > 0) row.push_back({r - m, -1.0});
        if (x > 0) row.push_back({r - 1, -1.0});
        if (x < m - 1) row.push_back({r + 1, -1.0});
        if (y < m - 1) row.push_back({r + m, -1.0});
        if (z < m - 1) row.push_back({r + m * m, -1.0});
      }
  return M;
}

// Random rows of up to 7 distinct columns. Values are multiples of 1/4 or 1/8,
// so ties, and entries exactly at a threshold, occur often.
// mixed = false: negative couplings (an M-matrix pattern); true: both signs,
// rows with positive couplings only, zero and negative diagonals.
Matrix random_matrix(int n, unsigned seed, bool mixed) {
  std::mt19937 rng(seed);
  auto pick = [&rng](int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng); };
  Matrix M(n);
  for (int r = 0; r < n; ++r) {
    auto& row = M.offs[static_cast<std::size_t>(r)];
    const int len = pick(0, 9) == 0 ? 0 : pick(1, 7);  // some Dirichlet rows
    std::set<int> cols;
    while (static_cast<int>(cols.size()) < std::min(len, n - 1)) {
      const int c = pick(0, n - 1);
      if (c != r) cols.insert(c);
    }
    std::vector<int> order(cols.begin(), cols.end());
    std::shuffle(order.begin(), order.end(), rng);
    const int flavour = mixed ? pick(0, 5) : 0;  // 5: positive couplings only
    double s = 0.0;
    for (int c : order) {
      double v;
      if (!mixed) {
        v = -pick(1, 8) / 8.0;
      } else if (flavour == 5) {
        v = pick(1, 8) / 4.0;
      } else {
        v = pick(-8, 8) / 4.0;
        if (v == 0.0) v = -0.25;
      }
      row.push_back({c, v});
      s += std::abs(v);
    }
    double d;
    switch (mixed ? pick(0, 9) : pick(0, 6)) {
      case 0: d = 0.3 * s; break;                  // violates diagonal dominance
      case 1: d = 1000.0 * s + 1.0; break;         // strongly dominant
      case 2: d = s; break;
      case 3: d = 2.0 * s + 0.5; break;
      case 7: d = 0.0; break;                      // only in mixed matrices
      case 8: d = -s - 1.0; break;
      default: d = 1.25 * s + 0.25; break;
    }
    M.diag[static_cast<std::size_t>(r)] = d;
  }
  return M;
}

// ---------------------------------------------------------------------------
// The independent reference: the rules applied to one row of the unsorted
// matrix, with sets and a map for the eliminated row.
// ---------------------------------------------------------------------------
struct Case {
  int ncgtyp = 1;
  double ecg1 = 0.01, ecg2 = 0.25, ewt1 = 0.0, ewt2 = 0.2, eps = 0.9;
};

enum Cls { kDir, kSdd, kViol, kNonPos, kOnlyPos, kNormal };

struct RefRow {
  Cls cls = kNormal;
  bool zero = false;     // strong end 0
  std::set<int> strong;  // local columns
  int head = -1;         // local column expected at ia(i)+1
  bool elim = false, ineffective = false, failed = false;
};

int effective_type(const Case& p) {
  if (p.ncgtyp > 2 && p.ewt2 == 0.0) return p.ncgtyp == 5 ? 2 : 1;
  return p.ncgtyp;
}

RefRow reference_row(const Matrix& M, int r, const Case& p) {
  RefRow out;
  const auto& row = M.offs[static_cast<std::size_t>(r)];
  const double aii = M.diag[static_cast<std::size_t>(r)];
  if (row.empty()) {
    out.cls = kDir;
    return out;
  }
  double s = 0.0, amin = 0.0;
  for (const auto& [c, v] : row) {
    s += std::abs(v);
    amin = std::min(amin, v);
  }
  const double lim = p.ewt1 == 0.0 ? 1e70 : p.ewt1;
  if (s <= p.ecg1 * aii) {
    out.cls = kSdd;
    return out;
  }
  if (s > lim * std::abs(aii)) {
    out.cls = kViol;
    out.zero = true;
    return out;
  }
  if (aii <= 0.0) {
    out.cls = kNonPos;
    out.zero = true;
    return out;
  }
  const int type = effective_type(p);
  auto plain_negative = [&]() {
    out.strong.clear();
    out.head = -1;
    for (const auto& [c, v] : row) {
      if (v <= p.ecg2 * amin) out.strong.insert(c);
      if (out.head < 0 && v == amin) out.head = c;
    }
  };
  if (amin == 0.0) {
    out.cls = kOnlyPos;
    if (type == 2 || type == 5) {
      double amax = row.front().second;
      for (const auto& [c, v] : row) amax = std::max(amax, v);
      for (const auto& [c, v] : row) {
        if (v >= p.ecg2 * amax) out.strong.insert(c);
        if (out.head < 0 && v == amax) out.head = c;
      }
    } else {
      out.zero = true;
    }
    return out;
  }
  out.cls = kNormal;
  if (type <= 2) {
    plain_negative();
    return out;
  }
  const double t = p.ewt2 * std::abs(amin);
  double amax = 0.0;
  for (const auto& [c, v] : row) amax = std::max(amax, v);
  if (amax <= t) {
    plain_negative();
    return out;
  }
  // Positive elimination of the large positive couplings.
  out.elim = true;
  std::map<int, double> w;
  w[r] = aii;
  for (const auto& [c, v] : row) w[c] = v;
  for (const auto& [c, v] : row) {
    if (!(v > t)) continue;
    const double cj = w[c];
    w[c] = 0.0;
    const double f = -(cj / M.diag[static_cast<std::size_t>(c)]);
    for (const auto& [k, ajk] : M.offs[static_cast<std::size_t>(c)]) w[k] += f * ajk;
  }
  double wmin = 0.0;
  for (const auto& [c, v] : row) wmin = std::min(wmin, w[c]);
  bool dropped = false;
  double best = 0.0;
  if (wmin < 0.0) {
    for (const auto& [c, v] : row) {
      if (!(v <= p.ecg2 * amin)) continue;
      if (p.ecg2 * wmin >= w[c]) {
        out.strong.insert(c);
        if (out.head < 0 || v < best) {
          out.head = c;
          best = v;
        }
      } else {
        dropped = true;
      }
    }
  }
  if (!out.strong.empty()) {
    out.ineffective = !dropped;
    return out;
  }
  out.failed = true;
  if (type == 3)
    out.zero = true;
  else
    plain_negative();
  return out;
}

struct RefTotals {
  long long nstrong = 0;
  bool diagdom = false;
  int ndir = 0, nsdd = 0, nviol = 0, nnonpos = 0, nonlypos = 0, nelim = 0, nineff = 0, nfailed = 0;
  std::vector<RefRow> rows;
};

RefTotals reference(const Matrix& M, const Case& p) {
  RefTotals t;
  t.diagdom = p.eps < 1.0;
  for (int r = 0; r < M.n; ++r) {
    const auto& row = M.offs[static_cast<std::size_t>(r)];
    if (!row.empty()) {
      double s = 0.0;
      for (const auto& [c, v] : row) s += std::abs(v);
      if (p.eps * M.diag[static_cast<std::size_t>(r)] < s) t.diagdom = false;
    }
    RefRow rr = reference_row(M, r, p);
    t.nstrong += static_cast<long long>(rr.strong.size());
    t.ndir += rr.cls == kDir;
    t.nsdd += rr.cls == kSdd;
    t.nviol += rr.cls == kViol;
    t.nnonpos += rr.cls == kNonPos;
    t.nonlypos += rr.cls == kOnlyPos;
    t.nelim += rr.elim;
    t.nineff += rr.ineffective;
    t.nfailed += rr.failed;
    t.rows.push_back(std::move(rr));
  }
  return t;
}

// Rows with a strong stretch that hold a weak entry above ecg2 * |head|,
// from the reference's sets.
int reference_large_weak(const Matrix& M, const RefTotals& t, double ecg2) {
  int count = 0;
  for (int r = 0; r < M.n; ++r) {
    const RefRow& rr = t.rows[static_cast<std::size_t>(r)];
    if (rr.strong.empty()) continue;
    double head = 0.0;
    for (const auto& [c, v] : M.offs[static_cast<std::size_t>(r)])
      if (c == rr.head) head = v;
    for (const auto& [c, v] : M.offs[static_cast<std::size_t>(r)])
      if (!rr.strong.count(c) && std::abs(v) > ecg2 * std::abs(head)) {
        ++count;
        break;
      }
  }
  return count;
}

// ---------------------------------------------------------------------------
// Checks of a sorted level against the reference.
// ---------------------------------------------------------------------------
void expect_matches_reference(const Matrix& M, const Level& lv, const RowSortResult& res, const Case& p,
                              const std::string& ctx) {
  SCOPED_TRACE(ctx);
  const RefTotals t = reference(M, p);
  long long nstrong = 0;
  int bad_rows = 0;
  for (int r = 0; r < M.n && bad_rows < 3; ++r) {
    const int i = lv.ilo + r;
    const int d = lv.IA(i), e = lv.IA(i + 1);
    const RefRow& rr = t.rows[static_cast<std::size_t>(r)];
    const int end = lv.JA(d);
    bool ok = true;
    // The row is a permutation of the original, values with their columns.
    ok = ok && lv.A(d) == M.diag[static_cast<std::size_t>(r)];
    std::vector<std::pair<int, double>> got, want;
    for (int k = d + 1; k < e; ++k) got.push_back({lv.JA(k) - lv.ilo, lv.A(k)});
    want = M.offs[static_cast<std::size_t>(r)];
    std::sort(got.begin(), got.end());
    std::sort(want.begin(), want.end());
    ok = ok && got == want;
    // The strong end by class, and the strong stretch as a set.
    if (rr.zero) {
      ok = ok && end == 0;
    } else if (rr.strong.empty()) {
      ok = ok && end == d;
    } else {
      ok = ok && end == d + static_cast<int>(rr.strong.size());
      std::set<int> stretch;
      for (int k = d + 1; k <= std::min(end, e - 1); ++k) stretch.insert(lv.JA(k) - lv.ilo);
      ok = ok && stretch == rr.strong;
      ok = ok && lv.JA(d + 1) - lv.ilo == rr.head;
      nstrong += end - d;
    }
    if (!ok) {
      ++bad_rows;
      std::ostringstream s;
      s << "row " << r << " class " << rr.cls << " end " << end << " (ia " << d << ") zero " << rr.zero
        << " strong {";
      for (int c : rr.strong) s << c << ' ';
      s << "} head " << rr.head << " got:";
      for (int k = d + 1; k < e; ++k) s << ' ' << lv.JA(k) - lv.ilo << ':' << lv.A(k);
      ADD_FAILURE() << s.str();
    }
  }
  EXPECT_EQ(res.nstrong, t.nstrong);
  EXPECT_EQ(nstrong, t.nstrong);
  EXPECT_EQ(res.diagdom, t.diagdom);
  EXPECT_EQ(res.ndirichlet, t.ndir);
  EXPECT_EQ(res.nstrong_dd, t.nsdd);
  EXPECT_EQ(res.nviolating, t.nviol);
  EXPECT_EQ(res.nnonpos_diag, t.nnonpos);
  EXPECT_EQ(res.nonly_pos, t.nonlypos);
  EXPECT_EQ(res.nelim, t.nelim);
  EXPECT_EQ(res.nelim_ineffective, t.nineff);
  EXPECT_EQ(res.nelim_failed, t.nfailed);
  // No mark is left behind.
  for (std::size_t k = 0; k < lv.ja.size(); ++k) ASSERT_GE(lv.ja[k], 0) << "position " << k;
}

// Thread settings of a test: thread count and nmin_matrix 0 (so that small
// levels run threaded), restored on exit; ierr cleared.
class ThreadScope {
 public:
  explicit ThreadScope(int nthreads) : saved_threads_(omp_get_max_threads()), saved_nmin_(kornlt::prm().nmin_matrix) {
    omp_set_num_threads(nthreads);
    kornlt::prm().nmin_matrix = 0;
    kornlt::ierr() = 0;
  }
  ~ThreadScope() {
    omp_set_num_threads(saved_threads_);
    kornlt::prm().nmin_matrix = saved_nmin_;
    kornlt::ierr() = 0;
  }
  ThreadScope(const ThreadScope&) = delete;
  ThreadScope& operator=(const ThreadScope&) = delete;

 private:
  int saved_threads_, saved_nmin_;
};

RowSortResult sort_level(Level& lv, const Case& p, int msg_level = -1) {
  LevelView L = lv.view();
  return kornlt::rwsrt(L, p.ncgtyp, p.ecg1, p.ecg2, p.ewt1, p.ewt2, p.eps, msg_level);
}

struct Named {
  std::string name;
  Matrix M;
};

std::vector<Named> test_matrices() {
  std::vector<Named> ms;
  ms.push_back({"poisson2d", poisson2d(9, 7)});
  Matrix shuffled = poisson2d(8, 8);
  shuffle_rows(shuffled, 5);
  ms.push_back({"poisson2d-shuffled", shuffled});
  ms.push_back({"poisson3d", poisson3d(5)});
  Matrix aniso = poisson2d(10, 6, 0.001);
  shuffle_rows(aniso, 9);
  ms.push_back({"anisotropic", aniso});
  for (unsigned s = 1; s <= 3; ++s) ms.push_back({"m-matrix-" + std::to_string(s), random_matrix(120, s, false)});
  for (unsigned s = 11; s <= 15; ++s) ms.push_back({"mixed-" + std::to_string(s), random_matrix(120, s, true)});
  return ms;
}

// ===========================================================================
// Encoded reals
// ===========================================================================
TEST(SplitEncoded, Table) {
  struct Row {
    double value, first, second;
  };
  const Row rows[] = {
      {21.25, 0.01, 0.25}, {0.2, 0.0, 0.2},   {12.2, 0.2, 0.2},   {-21.25, 0.01, 0.25},
      {5.5, 5.0, 0.5},     {33.75, 0.003, 0.75}, {10.0, 0.0, 0.0}, {0.0, 0.0, 0.0},
      {19.9, 9e-1, 0.9},   {99.05, 9e-9, 0.05}, {1.0, 1.0, 0.0},   {9.999, 9.0, 0.999},
  };
  for (const Row& r : rows) {
    double first = -1.0, second = -1.0;
    kornlt::split_encoded(r.value, first, second);
    EXPECT_DOUBLE_EQ(first, r.first) << r.value;
    EXPECT_DOUBLE_EQ(second, r.second) << r.value;
  }
  // The defaults give exactly the decimal numbers.
  double f = 0.0, s = 0.0;
  kornlt::split_encoded(12.2, f, s);
  EXPECT_EQ(f, 0.2);
  EXPECT_EQ(s, 0.2);
  kornlt::split_encoded(21.25, f, s);
  EXPECT_EQ(f, 0.01);
  EXPECT_EQ(s, 0.25);
}

// ===========================================================================
// rwsrt against the reference
// ===========================================================================
TEST(Rwsrt, MatchesReferenceOverMatricesAndParameters) {
  ThreadScope threads(2);
  const double ecg2s[] = {0.0, 0.1, 0.25, 0.5, 0.9};
  // ecg1, ewt1, ewt2, eps
  const double extra[][4] = {{0.01, 0.0, 0.2, 0.9}, {0.3, 1.5, 0.5, 0.5}, {0.0, 3.0, 1.0, 1.0}};
  int runs = 0;
  for (const Named& m : test_matrices()) {
    for (double ecg2 : ecg2s)
      for (int type = 1; type <= 5; ++type)
        for (const auto& x : extra) {
          Case p;
          p.ncgtyp = type;
          p.ecg2 = ecg2;
          p.ecg1 = x[0];
          p.ewt1 = x[1];
          p.ewt2 = x[2];
          p.eps = x[3];
          // Every third run on a level that is not the first: shifted rows,
          // columns and entries.
          Level lv = (runs % 3 == 0) ? make_level(m.M, 1000, 5000) : make_level(m.M);
          const RowSortResult res = sort_level(lv, p);
          ASSERT_EQ(kornlt::ierr(), 0);
          std::ostringstream ctx;
          ctx << m.name << " type " << type << " ecg2 " << ecg2 << " ecg1 " << p.ecg1 << " ewt1 " << p.ewt1
              << " ewt2 " << p.ewt2 << " eps " << p.eps << " base " << lv.ilo;
          expect_matches_reference(m.M, lv, res, p, ctx.str());
          // Giving back the diagonal convention restores the row starts.
          kornlt::restore_diagonals(lv.view());
          for (int i = lv.ilo; i <= lv.ihi; ++i) ASSERT_EQ(lv.JA(lv.IA(i)), i) << ctx.str();
          ++runs;
          if (::testing::Test::HasFailure()) return;
        }
  }
}

// The matrices must exercise every class and every branch of the elimination.
TEST(Rwsrt, TestMatricesCoverEveryClass) {
  RefTotals all;
  for (const Named& m : test_matrices())
    for (int type : {1, 2, 3, 4, 5}) {
      Case p;
      p.ncgtyp = type;
      p.ewt1 = 1.5;
      const RefTotals t = reference(m.M, p);
      all.ndir += t.ndir;
      all.nsdd += t.nsdd;
      all.nviol += t.nviol;
      all.nnonpos += t.nnonpos;
      all.nonlypos += t.nonlypos;
      all.nelim += t.nelim;
      all.nineff += t.nineff;
      all.nfailed += t.nfailed;
      all.nstrong += t.nstrong;
    }
  EXPECT_GT(all.ndir, 0);
  EXPECT_GT(all.nsdd, 0);
  EXPECT_GT(all.nviol, 0);
  EXPECT_GT(all.nnonpos, 0);
  EXPECT_GT(all.nonlypos, 0);
  EXPECT_GT(all.nelim, 0);
  EXPECT_GT(all.nineff, 0);
  EXPECT_GT(all.nfailed, 0);
  EXPECT_GT(all.nelim, all.nineff + all.nfailed);  // some eliminations change the row
}

// -u_xx - 0.001 u_yy: only the x neighbours are strong, for every type.
TEST(Rwsrt, AnisotropicOnlyXStrong) {
  ThreadScope threads(2);
  const int nx = 10, ny = 6;
  Matrix M = poisson2d(nx, ny, 0.001);
  shuffle_rows(M, 3);
  for (int type = 1; type <= 5; ++type) {
    Level lv = make_level(M);
    Case p;
    p.ncgtyp = type;
    const RowSortResult res = sort_level(lv, p);
    ASSERT_EQ(kornlt::ierr(), 0);
    long long expected = 0;
    for (int r = 0; r < M.n; ++r) {
      const int x = r % nx;
      std::set<int> want;
      if (x > 0) want.insert(r - 1);
      if (x < nx - 1) want.insert(r + 1);
      expected += static_cast<long long>(want.size());
      const int i = r + 1, d = lv.IA(i), end = lv.JA(d);
      std::set<int> got;
      for (int k = d + 1; k <= end; ++k) got.insert(lv.JA(k) - 1);
      EXPECT_EQ(got, want) << "type " << type << " row " << r;
    }
    EXPECT_EQ(res.nstrong, expected);
    EXPECT_FALSE(res.diagdom);  // interior rows: 0.9 * 2.002 < 2.002
  }
}

// Five-point Poisson with the default threshold: every neighbour is strong.
TEST(Rwsrt, PoissonAllNeighboursStrong) {
  ThreadScope threads(2);
  Matrix M = poisson2d(7, 5);
  for (int type = 1; type <= 5; ++type) {
    Level lv = make_level(M);
    Case p;
    p.ncgtyp = type;
    const RowSortResult res = sort_level(lv, p);
    long long nnz_off = 0;
    for (int r = 0; r < M.n; ++r) {
      const int d = lv.IA(r + 1);
      EXPECT_EQ(lv.JA(d), lv.IA(r + 2) - 1) << "row " << r;
      nnz_off += static_cast<long long>(M.offs[static_cast<std::size_t>(r)].size());
    }
    EXPECT_EQ(res.nstrong, nnz_off);
  }
}

// ===========================================================================
// Hand-computed cases
// ===========================================================================

// A 5x5 matrix (ecg1 0.01, ecg2 0.25, ewt1 0, ewt2 0.2), rows as
// (column: value) with the diagonal first, columns 1-based:
//   row 1: 1:4  2:-1   3:-0.8  4:2
//   row 2: 2:4  1:-1   5:2
//   row 3: 3:4  1:0.4  4:2
//   row 4: 4:4  2:-2   1:0.3
//   row 5: 5:2  1:-1   2:2
// Plain test (types 1, 2): a_ij <= 0.25 * amin.
//   row 1: amin -1, threshold -0.25: columns 2, 3 strong, head 2.
//   row 2: column 1.  row 4: column 2.  row 5: column 1.
//   row 3 (positive only): type 1 none (end 0); type 2 amax 2, a_ij >= 0.5:
//   column 4 (0.4 stays weak), head 4.
// Positive elimination (types 3, 4, 5), t = 0.2 * |amin|:
//   row 1: t 0.2, a_14 = 2 > t. w = (4, -1, -0.8, 2). Eliminate column 4:
//     c = 2, w4 = 0, factor -(2/4) = -0.5 times row 4's off-diagonals:
//     w2 += -0.5 * -2 -> 0, w1 += -0.5 * 0.3 -> 3.85. Over the row's columns
//     wmin = w3 = -0.8, 0.25 * wmin = -0.2. Candidates a_ij <= -0.25: column 2
//     (-0.2 >= 0 fails: dropped), column 3 (-0.2 >= -0.8: marked). Strong {3},
//     head 3; a drop, so not ineffective.
//   row 2: t 0.2, a_25 = 2 > t. w = (w1 -1, w2 4, w5 2). Eliminate column 5:
//     c = 2, factor -(2/2) = -1 times row 5: w1 += -1 * -1 -> 0, w2 += -2.
//     wmin over columns 1, 5 is 0: failed. Type 3: end 0. Types 4, 5: the plain
//     test, column 1.
//   row 3: positive only: types 3, 4 end 0; type 5 as type 2, column 4.
//   row 4: t 0.4, amax 0.3 <= t: the plain test, column 2.
//   row 5: t 0.2, a_52 = 2 > t. w = (w1 -1, w2 2, w5 2). Eliminate column 2:
//     c = 2, factor -(2/4) = -0.5 times row 2: w1 += -0.5 * -1 -> -0.5,
//     w5 += -0.5 * 2 -> 1. wmin = -0.5, 0.25 * wmin = -0.125; column 1
//     (-0.125 >= -0.5) marked; nothing dropped: ineffective. Strong {1}.
Matrix hand_matrix() {
  Matrix M(5);
  M.diag = {4, 4, 4, 4, 2};
  M.offs[0] = {{1, -1.0}, {2, -0.8}, {3, 2.0}};
  M.offs[1] = {{0, -1.0}, {4, 2.0}};
  M.offs[2] = {{0, 0.4}, {3, 2.0}};
  M.offs[3] = {{1, -2.0}, {0, 0.3}};
  M.offs[4] = {{0, -1.0}, {1, 2.0}};
  return M;
}

TEST(Rwsrt, HandComputedPositiveElimination) {
  ThreadScope threads(2);
  // Per type: per row the expected strong columns (1-based), the head, or
  // end 0 (zero = true).
  struct RowWant {
    std::set<int> strong;
    int head;
    bool zero;
  };
  struct TypeWant {
    int type;
    RowWant rows[5];
    long long nstrong;
    int nonly_pos, nelim, nineff, nfailed;
  };
  const TypeWant wants[] = {
      {1, {{{2, 3}, 2, false}, {{1}, 1, false}, {{}, 0, true}, {{2}, 2, false}, {{1}, 1, false}}, 5, 1, 0, 0, 0},
      {2, {{{2, 3}, 2, false}, {{1}, 1, false}, {{4}, 4, false}, {{2}, 2, false}, {{1}, 1, false}}, 6, 1, 0, 0, 0},
      {3, {{{3}, 3, false}, {{}, 0, true}, {{}, 0, true}, {{2}, 2, false}, {{1}, 1, false}}, 3, 1, 3, 1, 1},
      {4, {{{3}, 3, false}, {{1}, 1, false}, {{}, 0, true}, {{2}, 2, false}, {{1}, 1, false}}, 4, 1, 3, 1, 1},
      {5, {{{3}, 3, false}, {{1}, 1, false}, {{4}, 4, false}, {{2}, 2, false}, {{1}, 1, false}}, 5, 1, 3, 1, 1},
  };
  const Matrix M = hand_matrix();
  for (const TypeWant& tw : wants) {
    SCOPED_TRACE("type " + std::to_string(tw.type));
    Level lv = make_level(M);
    Case p;
    p.ncgtyp = tw.type;
    const RowSortResult res = sort_level(lv, p);
    ASSERT_EQ(kornlt::ierr(), 0);
    for (int r = 0; r < 5; ++r) {
      const RowWant& w = tw.rows[r];
      const int d = lv.IA(r + 1), end = lv.JA(d);
      if (w.zero) {
        EXPECT_EQ(end, 0) << "row " << r + 1;
        continue;
      }
      std::set<int> got;
      for (int k = d + 1; k <= end; ++k) got.insert(lv.JA(k));
      EXPECT_EQ(got, w.strong) << "row " << r + 1;
      EXPECT_EQ(lv.JA(d + 1), w.head) << "row " << r + 1;
    }
    EXPECT_EQ(res.nstrong, tw.nstrong);
    EXPECT_EQ(res.nonly_pos, tw.nonly_pos);
    EXPECT_EQ(res.nelim, tw.nelim);
    EXPECT_EQ(res.nelim_ineffective, tw.nineff);
    EXPECT_EQ(res.nelim_failed, tw.nfailed);
    EXPECT_FALSE(res.diagdom);
    expect_matches_reference(M, lv, res, p, "hand matrix");
  }
}

// Chained elimination (type 3, ecg2 0.25, ewt2 0.2): the second eliminated
// column takes its multiplier from the work vector as the first elimination
// left it, not from the matrix.
//   row 1: 1:4  2:-1  5:-1  3:1  4:1     rows 2, 5: Dirichlet
//   row 3: 3:2  4:2   2:-1
//   row 4: 4:4  2:-2
// Row 1: t = 0.2, w = (w1 4, w2 -1, w3 1, w4 1, w5 -1).
//   Column 3: c = 1, factor -(1/2): w4 += -0.5 * 2 -> 0, w2 += -0.5 * -1 -> -0.5.
//   Column 4: c = w4 = 0 (a_14 would be 1): factor -0, w2 stays -0.5.
//   wmin = w5 = -1, 0.25 * wmin = -0.25: columns 2 (-0.25 >= -0.5) and 5 are
//   marked; nothing dropped: ineffective. Strong {2, 5}, head 2 (first of the
//   two equal smallest). With c = a_14 column 2 would have been dropped.
// Row 3: t = 0.2, column 4: c = 2, factor -0.5: w2 += 1 -> 0; wmin 0: failed,
//   type 3 end 0, types 4 and 5 the plain test: {2}.
// Row 4: amax 0 <= t: the plain test, {2}.
TEST(Rwsrt, HandComputedChainedElimination) {
  ThreadScope threads(2);
  Matrix M(5);
  M.diag = {4, 1, 2, 4, 1};
  M.offs[0] = {{1, -1.0}, {4, -1.0}, {2, 1.0}, {3, 1.0}};
  M.offs[2] = {{3, 2.0}, {1, -1.0}};
  M.offs[3] = {{1, -2.0}};
  struct Want {
    int type;
    bool row3_zero;
    long long nstrong;
    int nelim, nineff, nfailed;
  };
  for (const Want& w : {Want{3, true, 3, 2, 1, 1}, Want{4, false, 4, 2, 1, 1}, Want{5, false, 4, 2, 1, 1},
                        Want{1, false, 4, 0, 0, 0}}) {
    SCOPED_TRACE("type " + std::to_string(w.type));
    Level lv = make_level(M);
    Case p;
    p.ncgtyp = w.type;
    const RowSortResult res = sort_level(lv, p);
    const int d1 = lv.IA(1);
    ASSERT_EQ(lv.JA(d1), d1 + 2);
    EXPECT_EQ(lv.JA(d1 + 1), 2);
    EXPECT_EQ(std::set<int>({lv.JA(d1 + 1), lv.JA(d1 + 2)}), std::set<int>({2, 5}));
    const int d3 = lv.IA(3);
    if (w.row3_zero) {
      EXPECT_EQ(lv.JA(d3), 0);
    } else {
      EXPECT_EQ(lv.JA(d3), d3 + 1);
      EXPECT_EQ(lv.JA(d3 + 1), 2);
    }
    EXPECT_EQ(lv.JA(lv.IA(4)), lv.IA(4) + 1);
    EXPECT_EQ(res.nstrong, w.nstrong);
    EXPECT_EQ(res.nelim, w.nelim);
    EXPECT_EQ(res.nelim_ineffective, w.nineff);
    EXPECT_EQ(res.nelim_failed, w.nfailed);
    EXPECT_EQ(res.ndirichlet, 2);
    expect_matches_reference(M, lv, res, p, "chained elimination");
  }
}

// Small rows with one property each (ecg1 0.01, ecg2 0.25, ewt1 0 unless
// given, type as given). Rows are 1x1 diagonal plus the listed couplings to
// the other variables of a 4-variable level whose other rows are Dirichlet.
TEST(Rwsrt, HandComputedRowClasses) {
  ThreadScope threads(1);
  struct RowCase {
    const char* what;
    int type;
    double ewt1;
    double diag;
    std::vector<std::pair<int, double>> offs;  // columns 1..3 (0-based local)
    int end_offset;                            // expected end - ia(i); -1 for 0
    int head;                                  // expected local column at ia(i)+1, -1 none
  };
  const RowCase cases[] = {
      // one positive coupling: type 1 cannot treat the row, type 2 takes it
      {"single positive, type 1", 1, 0.0, 4.0, {{1, 1.0}}, -1, -1},
      {"single positive, type 2", 2, 0.0, 4.0, {{1, 1.0}}, 1, 1},
      // several entries equal to amin: all strong, the first at the head
      {"ties at amin", 1, 0.0, 4.0, {{1, -0.5}, {2, -1.0}, {3, -1.0}}, 3, 2},
      {"ties, exact threshold", 1, 0.0, 4.0, {{1, -0.25}, {3, -1.0}, {2, -1.0}}, 3, 3},
      {"weak below threshold", 1, 0.0, 4.0, {{1, -0.2}, {2, -1.0}, {3, 0.1}}, 1, 2},
      // S <= ecg1 * a_ii: strongly dominant, no strong couplings
      {"strongly dominant", 1, 0.0, 1000.0, {{1, -5.0}, {2, -5.0}}, 0, -1},
      // zero diagonal with S > 0: violating even for ewt1 0 (L = 1e70)
      {"zero diagonal", 2, 0.0, 0.0, {{1, -1.0}}, -1, -1},
      // negative diagonal, S small: the non-positive class
      {"negative diagonal", 1, 0.0, -1.0, {{1, -0.5}}, -1, -1},
      // S > ewt1 * |a_ii|
      {"violating with ewt1 2", 1, 2.0, 1.0, {{1, -1.5}, {2, -1.0}}, -1, -1},
      {"not violating with ewt1 3", 1, 3.0, 1.0, {{1, -1.5}, {2, -1.0}}, 2, 1},
      // zero diagonal and S = 0 (explicit zeros): the dominance test fits first
      {"zero diagonal, zero couplings", 1, 0.0, 0.0, {{1, 0.0}}, 0, -1},
  };
  for (const RowCase& c : cases) {
    SCOPED_TRACE(c.what);
    Matrix M(4);
    M.diag = {c.diag, 1.0, 1.0, 1.0};
    M.offs[0] = c.offs;
    Level lv = make_level(M);
    Case p;
    p.ncgtyp = c.type;
    p.ewt1 = c.ewt1;
    const RowSortResult res = sort_level(lv, p);
    ASSERT_EQ(kornlt::ierr(), 0);
    const int d = lv.IA(1), end = lv.JA(d);
    if (c.end_offset < 0) {
      EXPECT_EQ(end, 0);
    } else {
      EXPECT_EQ(end, d + c.end_offset);
      EXPECT_EQ(res.nstrong, c.end_offset);
      if (c.head >= 0) {
        EXPECT_EQ(lv.JA(d + 1), c.head + 1);
      }
    }
    EXPECT_EQ(res.ndirichlet, 3);
    expect_matches_reference(M, lv, res, p, c.what);
  }
}

// All rows strongly dominant: no strong coupling at all.
TEST(Rwsrt, AllRowsStronglyDominant) {
  ThreadScope threads(2);
  Matrix M = poisson2d(6, 6);
  for (double& d : M.diag) d = 1000.0;
  Level lv = make_level(M);
  Case p;
  const RowSortResult res = sort_level(lv, p);
  EXPECT_EQ(res.nstrong, 0);
  EXPECT_EQ(res.nstrong_dd, M.n);
  EXPECT_TRUE(res.diagdom);
  for (int i = lv.ilo; i <= lv.ihi; ++i) EXPECT_EQ(lv.JA(lv.IA(i)), lv.IA(i));
}

// diagdom: true only when every row with off-diagonals has S <= eps * a_ii,
// and false from the start for eps >= 1.
TEST(Rwsrt, DiagonalDominanceFlag) {
  ThreadScope threads(2);
  Matrix M = random_matrix(80, 7, false);
  for (int r = 0; r < M.n; ++r) {
    double s = 0.0;
    for (const auto& [c, v] : M.offs[static_cast<std::size_t>(r)]) s += std::abs(v);
    M.diag[static_cast<std::size_t>(r)] = 2.0 * s + 1.0;  // S / a_ii below 0.5
  }
  struct Want {
    double eps;
    bool diagdom;
  };
  for (const Want& w : {Want{0.9, true}, Want{0.5, true}, Want{0.999, true}, Want{1.0, false},
                        Want{1.5, false}, Want{0.1, false}}) {
    for (int type = 1; type <= 5; ++type) {
      Level lv = make_level(M);
      Case p;
      p.ncgtyp = type;
      p.eps = w.eps;
      const RowSortResult res = sort_level(lv, p);
      EXPECT_EQ(res.diagdom, w.diagdom) << "eps " << w.eps << " type " << type;
      EXPECT_GT(res.nstrong, 0);
    }
  }
  // A Dirichlet level (no off-diagonals at all) is dominant below eps 1.
  Matrix D(5);
  for (double& d : D.diag) d = 1.0;
  Level lv = make_level(D);
  Case p;
  EXPECT_TRUE(sort_level(lv, p).diagdom);
  Level lv2 = make_level(D);
  p.eps = 1.0;
  EXPECT_FALSE(sort_level(lv2, p).diagdom);
}

// ewt2 = 0 lowers the enhanced types: 5 behaves exactly as 2, 3 and 4 as 1,
// and the message names the type that was asked for.
TEST(Rwsrt, EnhancedSortingDeactivatedWithoutEwt2) {
  ThreadScope threads(2);
  for (unsigned seed : {21u, 22u, 23u}) {
    const Matrix M = random_matrix(150, seed, true);
    for (const auto& [asked, plain] : {std::pair{5, 2}, std::pair{3, 1}, std::pair{4, 1}}) {
      Level lv_plain = make_level(M), lv_asked = make_level(M);
      Case p;
      p.ewt2 = 0.0;
      p.ncgtyp = plain;
      const RowSortResult r_plain = sort_level(lv_plain, p);
      p.ncgtyp = asked;
      RowSortResult r_asked;
      std::string text;
      {
        korn_test::MessageCapture cap;
        r_asked = sort_level(lv_asked, p, 0);
        text = cap.text();
      }
      EXPECT_EQ(lv_asked.ja, lv_plain.ja) << asked;
      EXPECT_EQ(lv_asked.a, lv_plain.a) << asked;
      EXPECT_EQ(r_asked.nstrong, r_plain.nstrong);
      EXPECT_EQ(r_asked.nonly_pos, r_plain.nonly_pos);
      EXPECT_EQ(r_asked.nelim, 0);
      const std::string msg = ">>> MESSG: rwsrt(" + std::to_string(asked) +
                              "):      +++ enhanced sorting de-activated (etw2 not set)!\n";
      EXPECT_NE(text.find(msg), std::string::npos) << text;
    }
  }
  // No message for the plain types, nor with the message level below 0.
  const Matrix M = random_matrix(40, 3, true);
  Level lv = make_level(M), lv2 = make_level(M);
  Case p;
  p.ewt2 = 0.0;
  p.ncgtyp = 2;
  korn_test::MessageCapture cap;
  sort_level(lv, p, 0);
  p.ncgtyp = 5;
  sort_level(lv2, p, -1);
  EXPECT_EQ(cap.text().find("de-activated"), std::string::npos);
}

// ===========================================================================
// Threads: the result does not depend on the thread count or on timing.
// ===========================================================================
TEST(Rwsrt, IdenticalOnOneAndTwoThreadsAndRepeatedRuns) {
  std::vector<Named> ms = test_matrices();
  ms.push_back({"mixed-large", random_matrix(2000, 99, true)});
  for (const Named& m : ms) {
    for (int type = 1; type <= 5; ++type) {
      Case p;
      p.ncgtyp = type;
      p.ewt1 = 1.5;
      Level serial = make_level(m.M);
      RowSortResult r1;
      {
        ThreadScope threads(1);
        r1 = sort_level(serial, p);
      }
      ThreadScope threads(2);
      const int repeats = m.name == "mixed-large" ? 20 : 3;
      for (int rep = 0; rep < repeats; ++rep) {
        Level lv = make_level(m.M);
        const RowSortResult r2 = sort_level(lv, p);
        ASSERT_EQ(lv.ja, serial.ja) << m.name << " type " << type << " run " << rep;
        ASSERT_EQ(lv.a, serial.a) << m.name << " type " << type << " run " << rep;
        ASSERT_EQ(r2.nstrong, r1.nstrong);
        ASSERT_EQ(r2.diagdom, r1.diagdom);
        ASSERT_EQ(r2.nelim, r1.nelim);
        ASSERT_EQ(r2.nelim_ineffective, r1.nelim_ineffective);
        ASSERT_EQ(r2.nelim_failed, r1.nelim_failed);
        ASSERT_EQ(r2.nonly_pos, r1.nonly_pos);
      }
    }
  }
}

// Above nmin_matrix the level runs on one thread: same result again.
TEST(Rwsrt, NminMatrixKeepsSmallLevelsSerial) {
  const Matrix M = random_matrix(300, 41, true);
  Case p;
  p.ncgtyp = 4;
  Level a1 = make_level(M), a2 = make_level(M);
  ThreadScope threads(2);
  sort_level(a1, p);
  kornlt::prm().nmin_matrix = 1000000;
  sort_level(a2, p);
  EXPECT_EQ(a1.ja, a2.ja);
  EXPECT_EQ(a1.a, a2.a);
}

// ===========================================================================
// Errors
// ===========================================================================
TEST(Rwsrt, IllegalTypeRestoresDiagonals) {
  ThreadScope threads(2);
  const Matrix M = poisson2d(5, 4);
  for (int type : {0, 6, -1, 7}) {
    for (double ewt2 : {0.2, 0.0}) {
      Level lv = make_level(M);
      const Level original = lv;
      // Working data in the diagonal slots, as left by an earlier step.
      for (int i = lv.ilo; i <= lv.ihi; ++i) lv.ja[static_cast<std::size_t>(lv.IA(i) - lv.alo)] = -7;
      kornlt::ierr() = 0;
      Case p;
      p.ncgtyp = type;
      p.ewt2 = ewt2;
      std::string text;
      {
        korn_test::MessageCapture cap;
        sort_level(lv, p, -1);
        text = cap.text();
      }
      EXPECT_EQ(kornlt::ierr(), 20) << type;
      EXPECT_NE(text.find("*** ERROR: Illegal value of parameter <ncgtyp> in (rwsrt)\n"), std::string::npos)
          << text;
      EXPECT_EQ(lv.ja, original.ja);
      EXPECT_EQ(lv.a, original.a);
    }
  }
}

TEST(Rwsrt, AllocationFailureRestoresLevel) {
  ThreadScope threads(2);
  const Matrix M = random_matrix(60, 5, true);
  for (int type : {3, 4, 5}) {
    Level lv = make_level(M, 10, 20);
    const Level original = lv;
    for (int i = lv.ilo; i <= lv.ihi; ++i) lv.ja[static_cast<std::size_t>(lv.IA(i) - lv.alo)] = 0;
    kornlt::ierr() = 0;
    kornlt::rwsrt_fail_next_allocation();
    Case p;
    p.ncgtyp = type;
    std::string text;
    {
      korn_test::MessageCapture cap;
      sort_level(lv, p, 0);
      text = cap.text();
    }
    EXPECT_EQ(kornlt::ierr(), 70);
    EXPECT_NE(text.find("*** ERROR: Allocation error in (rwsrt)\n"), std::string::npos) << text;
    EXPECT_EQ(text.find("rwsrt(" + std::to_string(type) + "):"), std::string::npos) << text;
    EXPECT_EQ(lv.ja, original.ja);
    EXPECT_EQ(lv.a, original.a);
    // The hook is spent: the next call works.
    kornlt::ierr() = 0;
    Level again = make_level(M);
    const RowSortResult res = sort_level(again, p);
    EXPECT_EQ(kornlt::ierr(), 0);
    expect_matches_reference(M, again, res, p, "after the failed allocation");
  }
}

// ===========================================================================
// Report
// ===========================================================================

// The count at the end of the line that starts with `head` padded to 50
// characters, or -1 when there is no such line.
long long count_in_line(const std::string& text, const std::string& head) {
  std::string padded = head;
  padded.resize(std::max<std::size_t>(padded.size(), 50 + 11), ' ');  // 11: message prefix
  std::istringstream in(text);
  std::string line;
  while (std::getline(in, line)) {
    if (line.compare(0, padded.size(), padded) != 0) continue;
    return std::stoll(line.substr(padded.size()));
  }
  return -1;
}

TEST(Rwsrt, ReportLines) {
  ThreadScope threads(2);
  for (unsigned seed : {31u, 32u}) {
    for (int type = 1; type <= 5; ++type) {
      const Matrix M = random_matrix(200, seed, true);
      Case p;
      p.ncgtyp = type;
      p.ewt1 = 1.5;
      const RefTotals t = reference(M, p);
      Level lv = make_level(M);
      std::string text;
      {
        korn_test::MessageCapture cap;
        sort_level(lv, p, 0);
        text = cap.text();
      }
      SCOPED_TRACE(text);
      const std::string prefix = ">>> MESSG: rwsrt(" + std::to_string(type) + "):      ";
      // First line: both counts.
      const std::string first = prefix + "# Dirichlet:  ";
      const auto at = text.find(first);
      ASSERT_NE(at, std::string::npos);
      std::istringstream rest(text.substr(at + first.size()));
      long long ndir = -1, nsdd = -1;
      std::string w1, w2, w3;
      rest >> ndir >> w1 >> w2 >> w3 >> nsdd;
      EXPECT_EQ(ndir, t.ndir);
      EXPECT_EQ(w1 + " " + w2 + " " + w3, "# strong diagdom:");
      EXPECT_EQ(nsdd, t.nsdd);
      // Further counters: a line only when positive.
      const std::pair<const char*, int> lines[] = {
          {"# rows STRONGLY violating diagdom:", t.nviol},
          {"# rows with non-positive diagonal entry:", t.nnonpos},
          {"# (remaining!) rows with ONLY pos entries:", t.nonlypos},
          {"# rows with positive elimination:", t.nelim},
          {"#      ineffective:", t.nineff},
          {"#      failed:", t.nfailed},
          {"# rows with large weak couplings:", reference_large_weak(M, t, p.ecg2)},
      };
      for (const auto& [label, count] : lines) {
        const long long got = count_in_line(text, prefix + label);
        if (count > 0) {
          EXPECT_EQ(got, count) << label;
        } else {
          EXPECT_EQ(got, -1) << label;
        }
      }
      if (type >= 3) {
        EXPECT_GT(t.nelim, 0);
      }
      // Elimination lines in their order.
      if (t.nineff > 0 && t.nfailed > 0) {
        EXPECT_LT(text.find("# rows with positive elimination"), text.find("ineffective:"));
        EXPECT_LT(text.find("ineffective:"), text.find("failed:"));
      }
    }
  }
}

TEST(Rwsrt, ReportSilentBelowZeroAndNoWeakCountWhenDominant) {
  ThreadScope threads(2);
  const Matrix M = random_matrix(100, 8, true);
  Level lv = make_level(M);
  Case p;
  p.ncgtyp = 4;
  {
    korn_test::MessageCapture cap;
    const RowSortResult res = sort_level(lv, p, -1);
    EXPECT_EQ(cap.text(), "");
    EXPECT_EQ(res.nlarge_weak, 0);
  }
  // A diagonally dominant level: the diagnostic loop does not run, though
  // its positive couplings would count.
  Matrix D = random_matrix(100, 9, true);
  for (int r = 0; r < D.n; ++r) {
    double s = 0.0;
    for (const auto& [c, v] : D.offs[static_cast<std::size_t>(r)]) s += std::abs(v);
    D.diag[static_cast<std::size_t>(r)] = 2.0 * s + 1.0;
  }
  Level ld = make_level(D);
  korn_test::MessageCapture cap;
  const RowSortResult res = sort_level(ld, p, 0);
  EXPECT_TRUE(res.diagdom);
  EXPECT_EQ(res.nlarge_weak, 0);
  EXPECT_EQ(cap.text().find("large weak"), std::string::npos);
  const RefTotals t = reference(D, p);
  EXPECT_GT(reference_large_weak(D, t, p.ecg2), 0);  // the loop would have found some
}

}  // namespace
