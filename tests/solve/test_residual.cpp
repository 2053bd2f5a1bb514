// Residual norms against dense references, serial against threaded sums, the
// NaN and overflow traps, per-unknown norms, the half-stored matrix form, and
// the stopping tests (settings decoding, history, stagnation checks, criteria
// merge, quasi-residual check) with their message texts.
#include <gtest/gtest.h>
#include <omp.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <limits>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "log/log.hpp"
#include "params/params.hpp"
#include "solve/solve.hpp"
#include "store/store.hpp"

namespace {

using kornlt::Vec1;

// ---------------------------------------------------------------------------
// Test support
// ---------------------------------------------------------------------------

// Routes messages to a temporary file for the lifetime of the object.
class Capture {
 public:
  Capture() {
    path_ = std::filesystem::temp_directory_path() /
            ("korn_resid_" + std::to_string(::getpid()) + "_" + std::to_string(++counter_));
    kornlt::attach_unit(kUnit, path_.string(), false);
    saved_ = kornlt::diag().msg_unit;
    kornlt::diag().msg_unit = kUnit;
  }
  ~Capture() {
    kornlt::diag().msg_unit = saved_;
    kornlt::detach_unit(kUnit);
    std::error_code ec;
    std::filesystem::remove(path_, ec);
  }
  Capture(const Capture&) = delete;
  Capture& operator=(const Capture&) = delete;
  std::string text() const {
    std::fflush(kornlt::unit_stream(kUnit));
    std::ifstream in(path_);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
  }
  bool has(const std::string& line) const { return text().find(line) != std::string::npos; }

 private:
  static constexpr int kUnit = 73;
  static inline int counter_ = 0;
  std::filesystem::path path_;
  int saved_ = 6;
};

// Sets the thread count for a scope.
class Threads {
 public:
  explicit Threads(int n) : saved_(omp_get_max_threads()) { omp_set_num_threads(n); }
  ~Threads() { omp_set_num_threads(saved_); }

 private:
  int saved_;
};

// A CSR matrix with 1-based pointers and columns, diagonal first in each row.
struct Csr {
  int n = 0;
  std::vector<int> ia, ja;
  std::vector<double> a, u, f;
  kornlt::LevelView view() {
    return kornlt::level1_view(n, ia.data(), ja.data(), a.data(), u.data(), f.data());
  }
};

// Random sparse matrix: diagonal plus up to `extra` distinct off-diagonals per row.
Csr random_csr(int n, int extra, unsigned seed) {
  std::mt19937 gen(seed);
  std::uniform_real_distribution<double> val(-1.0, 1.0);
  std::uniform_int_distribution<int> col(1, n);
  Csr m;
  m.n = n;
  m.ia.push_back(1);
  for (int i = 1; i <= n; ++i) {
    m.ja.push_back(i);
    m.a.push_back(4.0 + val(gen));
    std::set<int> used{i};
    for (int e = 0; e < extra && n > 1; ++e) {
      const int j = col(gen);
      if (!used.insert(j).second) continue;
      m.ja.push_back(j);
      m.a.push_back(val(gen));
    }
    m.ia.push_back(static_cast<int>(m.ja.size()) + 1);
  }
  for (int i = 0; i < n; ++i) {
    m.u.push_back(val(gen));
    m.f.push_back(val(gen) * 3.0);
  }
  return m;
}

// 5-point Laplacian on a k x k grid.
Csr poisson2d(int k, unsigned seed) {
  std::mt19937 gen(seed);
  std::uniform_real_distribution<double> val(-1.0, 1.0);
  Csr m;
  m.n = k * k;
  m.ia.push_back(1);
  for (int y = 0; y < k; ++y)
    for (int x = 0; x < k; ++x) {
      const int i = y * k + x + 1;
      m.ja.push_back(i);
      m.a.push_back(4.0);
      const int nb[4][2] = {{x - 1, y}, {x + 1, y}, {x, y - 1}, {x, y + 1}};
      for (const auto& p : nb)
        if (p[0] >= 0 && p[0] < k && p[1] >= 0 && p[1] < k) {
          m.ja.push_back(p[1] * k + p[0] + 1);
          m.a.push_back(-1.0);
        }
      m.ia.push_back(static_cast<int>(m.ja.size()) + 1);
    }
  for (int i = 0; i < m.n; ++i) {
    m.u.push_back(val(gen));
    m.f.push_back(val(gen));
  }
  return m;
}

// Dense reference residual, in long double from a dense copy of A.
std::vector<long double> dense_residual(const Csr& m) {
  const int n = m.n;
  std::vector<long double> A(static_cast<std::size_t>(n) * n, 0.0L);
  for (int i = 1; i <= n; ++i)
    for (int k = m.ia[i - 1]; k < m.ia[i]; ++k)
      A[static_cast<std::size_t>(i - 1) * n + (m.ja[k - 1] - 1)] += m.a[k - 1];
  std::vector<long double> r(n);
  for (int i = 0; i < n; ++i) {
    long double s = m.f[i];
    for (int j = 0; j < n; ++j) s -= A[static_cast<std::size_t>(i) * n + j] * m.u[j];
    r[i] = s;
  }
  return r;
}

double ref_norm(const std::vector<long double>& r, int lo0, int hi0, int norm_typ) {
  long double s = 0.0L;
  for (int i = lo0; i <= hi0; ++i) {
    const long double x = std::fabs(r[i]);
    if (norm_typ == 1)
      s += x;
    else if (norm_typ == 2)
      s = std::max(s, x);
    else
      s += x * x;
  }
  return static_cast<double>(norm_typ == 0 || norm_typ == 3 ? std::sqrt(s) : s);
}

double rel_diff(double a, double b) { return std::abs(a - b) / std::max(std::abs(b), 1e-300); }

class ResidualTest : public ::testing::Test {
 protected:
  void SetUp() override {
    kornlt::reset_parameters();
    kornlt::ierr() = 0;
  }
  void TearDown() override {
    kornlt::ierr() = 0;
    kornlt::reset_parameters();
  }
};

// ---------------------------------------------------------------------------
// Norms
// ---------------------------------------------------------------------------

TEST_F(ResidualTest, NormsMatchDenseReference) {
  struct Case {
    const char* name;
    Csr m;
  };
  std::vector<Case> cases;
  cases.push_back({"random n=1", random_csr(1, 3, 1)});
  cases.push_back({"random n=7", random_csr(7, 3, 2)});
  cases.push_back({"random n=50", random_csr(50, 6, 3)});
  cases.push_back({"random n=301", random_csr(301, 9, 4)});
  cases.push_back({"poisson 2x2", poisson2d(2, 5)});
  cases.push_back({"poisson 13x13", poisson2d(13, 6)});
  for (int nt : {1, 2}) {
    Threads th(nt);
    for (auto& c : cases) {
      const auto r = dense_residual(c.m);
      auto L = c.m.view();
      for (int norm_typ : {0, 1, 2, 3}) {
        SCOPED_TRACE(std::string(c.name) + " norm_typ " + std::to_string(norm_typ) + " threads " +
                     std::to_string(nt));
        const double want = ref_norm(r, 0, c.m.n - 1, norm_typ);
        EXPECT_LE(rel_diff(kornlt::resid(L, norm_typ), want), 1e-12);
        EXPECT_LE(rel_diff(kornlt::compute_residual_norm(L, 1, c.m.n, norm_typ), want), 1e-12);
        // A sub-range, with the residual vector written out.
        const int lo = 1 + c.m.n / 3, hi = std::max(lo, c.m.n - c.m.n / 4);
        std::vector<double> rv(c.m.n, -7.0);
        const double sub =
            kornlt::compute_residual_norm(L, lo, hi, norm_typ, Vec1<double>(rv.data(), 1, c.m.n));
        EXPECT_LE(rel_diff(sub, ref_norm(r, lo - 1, hi - 1, norm_typ)), 1e-12);
        for (int i = 1; i <= c.m.n; ++i) {
          if (i < lo || i > hi)
            EXPECT_EQ(rv[i - 1], -7.0);
          else
            EXPECT_NEAR(rv[i - 1], static_cast<double>(r[i - 1]), 1e-13);
        }
        EXPECT_EQ(kornlt::ierr(), 0);
      }
    }
  }
}

TEST_F(ResidualTest, ZeroResidualGivesZero) {
  Csr m = poisson2d(5, 9);
  std::fill(m.u.begin(), m.u.end(), 0.0);
  std::fill(m.f.begin(), m.f.end(), 0.0);
  auto L = m.view();
  for (int norm_typ : {0, 1, 2}) EXPECT_EQ(kornlt::resid(L, norm_typ), 0.0);
  EXPECT_EQ(kornlt::ierr(), 0);
}

TEST_F(ResidualTest, ThreadedSumsReproducibleAndCloseToSerial) {
  Csr m = random_csr(4000, 8, 77);
  auto L = m.view();
  std::vector<int> iu(m.n);
  for (int i = 0; i < m.n; ++i) iu[i] = 1 + (i * 7) % 3;
  const Vec1<const int> iuv(iu.data(), 1, m.n);
  const Vec1<const double> fv(m.f.data(), 1, m.n);
  for (int norm_typ : {0, 1, 2}) {
    SCOPED_TRACE("norm_typ " + std::to_string(norm_typ));
    double serial, serial1;
    std::vector<double> su(4), tu(4), tu2(4);
    {
      Threads th(1);
      serial = kornlt::resid(L, norm_typ);
      serial1 = kornlt::resid1(fv, norm_typ);
      kornlt::unknowns_resids(L, norm_typ, iuv, 3, Vec1<double>(su.data(), 0, 3));
    }
    Threads th(2);
    ASSERT_EQ(omp_get_max_threads(), 2);
    const double first = kornlt::resid(L, norm_typ);
    const double first1 = kornlt::resid1(fv, norm_typ);
    kornlt::unknowns_resids(L, norm_typ, iuv, 3, Vec1<double>(tu.data(), 0, 3));
    for (int rep = 0; rep < 5; ++rep) {
      EXPECT_EQ(kornlt::resid(L, norm_typ), first);
      EXPECT_EQ(kornlt::resid1(fv, norm_typ), first1);
      kornlt::unknowns_resids(L, norm_typ, iuv, 3, Vec1<double>(tu2.data(), 0, 3));
      EXPECT_EQ(tu2, tu);
    }
    EXPECT_LE(rel_diff(first, serial), 1e-14);
    EXPECT_LE(rel_diff(first1, serial1), 1e-14);
    for (int k = 0; k <= 3; ++k) EXPECT_LE(rel_diff(tu[k], su[k]), 1e-14);
    if (norm_typ == 2) {
      EXPECT_EQ(first, serial);  // a maximum has no rounding
    }
  }
  EXPECT_EQ(kornlt::ierr(), 0);
}

TEST_F(ResidualTest, Resid1MatchesReference) {
  std::mt19937 gen(11);
  std::uniform_real_distribution<double> val(-5.0, 5.0);
  for (int nt : {1, 2}) {
    Threads th(nt);
    for (int n : {1, 2, 17, 1000}) {
      std::vector<double> v(n);
      for (auto& x : v) x = val(gen);
      const int lo = 40;  // a range that does not start at 1
      const Vec1<const double> r(v.data(), lo, lo + n - 1);
      std::vector<long double> lv(v.begin(), v.end());
      for (int norm_typ : {0, 1, 2, 3}) {
        SCOPED_TRACE("n " + std::to_string(n) + " norm_typ " + std::to_string(norm_typ));
        EXPECT_LE(rel_diff(kornlt::resid1(r, norm_typ), ref_norm(lv, 0, n - 1, norm_typ)), 1e-13);
      }
    }
  }
  EXPECT_EQ(kornlt::ierr(), 0);
}

TEST_F(ResidualTest, NaNAndOverflowAreCaught) {
  struct Case {
    const char* routine;
    int norm_typ;
    double bad_f;  // value put into f(3)
    int code;
    const char* message;
  };
  const double inf = std::numeric_limits<double>::infinity();
  const double nan = std::numeric_limits<double>::quiet_NaN();
  const std::vector<Case> cases = {
      {"resid", 0, nan, 211, "NaN detected in (resid)!"},
      {"resid", 1, nan, 211, "NaN detected in (resid)!"},
      {"resid", 2, nan, 211, "NaN detected in (resid)!"},
      {"resid", 0, 1e200, 210, "Residual overflow caught in (resid)!"},
      {"resid", 1, 1.7e308, 210, "Residual overflow caught in (resid)!"},
      {"resid", 2, inf, 210, "Residual overflow caught in (resid)!"},
      {"korn_solve", 0, nan, 211, "NaN detected in (korn_solve)!"},
      {"compute_residual_norm", 3, nan, 211, "NaN detected in (compute_residual_norm)!"},
      {"compute_residual_norm", 0, 1e200, 210,
       "Residual overflow caught in (compute_residual_norm)!"},
      {"resid1", 2, nan, 211, "NaN detected in (resid1)!"},
      {"resid1", 0, 1e200, 210, "Residual overflow caught in (resid1)!"},
      {"unknowns_resids", 2, nan, 211, "NaN detected in (unknowns_resids)!"},
      {"unknowns_resids", 1, 1.7e308, 210, "Residual overflow caught in (unknowns_resids)!"},
      {"unknowns_resvect", 0, nan, 211, "NaN detected in (unknowns_resvect)!"},
      {"resid_half", 0, nan, 211, "NaN detected in (resid)!"},
      {"resid_k", 0, 1e200, 210, "Residual overflow caught in (resid_k)!"},
  };
  for (int nt : {1, 2}) {
    Threads th(nt);
    for (const auto& c : cases) {
      SCOPED_TRACE(std::string(c.routine) + " " + std::to_string(c.norm_typ) + " threads " +
                   std::to_string(nt));
      Csr m = poisson2d(6, 21);
      m.f[2] = c.bad_f;
      m.f[20] = c.bad_f;  // L1 needs two huge values to pass the largest double
      auto L = m.view();
      std::vector<int> iu(m.n, 1);
      std::vector<double> res(3, 5.0);
      const Vec1<double> resv(res.data(), 0, 2);
      const Vec1<const int> iuv(iu.data(), 1, m.n);
      kornlt::ierr() = 0;
      Capture cap;
      const std::string r = c.routine;
      double v = 0.0;
      if (r == "resid")
        v = kornlt::resid(L, c.norm_typ);
      else if (r == "korn_solve")
        v = kornlt::resid(L, c.norm_typ, "korn_solve");
      else if (r == "compute_residual_norm")
        v = kornlt::compute_residual_norm(L, 1, m.n, c.norm_typ);
      else if (r == "resid1")
        v = kornlt::resid1(Vec1<const double>(m.f.data(), 1, m.n), c.norm_typ);
      else if (r == "resid_half")
        v = kornlt::resid_half(L, c.norm_typ);
      else if (r == "resid_k") {
        L.k = 2;
        v = kornlt::resid_k(L);
      } else if (r == "unknowns_resids") {
        kornlt::unknowns_resids(L, c.norm_typ, iuv, 2, resv);
        v = res[0];
        EXPECT_EQ(res, std::vector<double>(3, -1.0));
      } else {
        kornlt::unknowns_resvect(Vec1<const double>(m.f.data(), 1, m.n), c.norm_typ, iuv, 2, resv);
        v = res[0];
        EXPECT_EQ(res, std::vector<double>(3, -1.0));
      }
      EXPECT_EQ(v, -1.0);
      EXPECT_EQ(kornlt::ierr(), c.code);
      EXPECT_TRUE(cap.has(std::string("*** ERROR: ") + c.message + "\n")) << cap.text();
    }
  }
}

TEST_F(ResidualTest, IllegalNormTypeAndIllegalResidK) {
  Csr m = poisson2d(3, 2);
  auto L = m.view();
  {
    Capture cap;
    EXPECT_EQ(kornlt::resid(L, 4), -1.0);
    EXPECT_EQ(kornlt::ierr(), 1);
    EXPECT_TRUE(cap.has("*** ERROR: Illegal norm_typ specified (resid)!\n")) << cap.text();
  }
  kornlt::ierr() = 0;
  {
    Capture cap;
    EXPECT_EQ(kornlt::resid1(Vec1<const double>(m.f.data(), 1, m.n), -1), -1.0);
    EXPECT_EQ(kornlt::ierr(), 1);
    EXPECT_TRUE(cap.has("*** ERROR: Illegal norm_typ specified (resid1)!\n")) << cap.text();
  }
  kornlt::ierr() = 0;
  {
    Capture cap;
    EXPECT_EQ(kornlt::resid_k(L), -1.0);  // level 1
    EXPECT_EQ(kornlt::ierr(), 1);
    EXPECT_TRUE(cap.has("*** ERROR: Illegal call to routine (resid_k)!\n")) << cap.text();
  }
  kornlt::ierr() = 0;
  L.k = 3;
  EXPECT_LE(rel_diff(kornlt::resid_k(L), ref_norm(dense_residual(m), 0, m.n - 1, 0)), 1e-13);
  EXPECT_EQ(kornlt::ierr(), 0);
}

TEST_F(ResidualTest, NormLabels) {
  struct Case {
    int norm_typ;
    bool quasi;
    const char* label;
  };
  const Case cases[] = {{0, false, "L2"}, {3, false, "L2"}, {1, false, "L1"}, {2, false, "MX"},
                        {0, true, "q2"},  {3, true, "q2"},  {1, true, "q1"},  {2, true, "qx"}};
  for (const auto& c : cases) EXPECT_EQ(kornlt::norm_label(c.norm_typ, c.quasi), c.label);
}

TEST_F(ResidualTest, ResidualTimerAccumulates) {
  Csr m = random_csr(3000, 8, 5);
  auto L = m.view();
  const double before = kornlt::residual_time();
  for (int i = 0; i < 10; ++i) kornlt::resid(L, 0);
  EXPECT_GT(kornlt::residual_time(), before);
}

// A symmetric matrix stored in full, and its two triangles with the diagonal first.
struct SymmetricForms {
  Csr full, upper, lower;
};
SymmetricForms symmetric_forms(int n, int extra, unsigned seed) {
  std::mt19937 gen(seed);
  std::uniform_real_distribution<double> val(-1.0, 1.0);
  std::uniform_int_distribution<int> col(1, n);
  std::vector<std::vector<std::pair<int, double>>> rows(n + 1);
  std::set<std::pair<int, int>> used;
  for (int i = 1; i <= n; ++i) rows[i].push_back({i, 5.0 + val(gen)});
  for (int i = 1; i <= n; ++i) {
    for (int e = 0; e < extra && n > 1; ++e) {
      const int j = col(gen);
      if (j == i || !used.insert({std::min(i, j), std::max(i, j)}).second) continue;
      const double v = val(gen);
      rows[i].push_back({j, v});
      rows[j].push_back({i, v});
    }
  }
  std::vector<double> u(n), f(n);
  for (int i = 0; i < n; ++i) {
    u[i] = val(gen);
    f[i] = val(gen);
  }
  auto build = [&](int which) {  // 0 full, 1 upper, 2 lower
    Csr m;
    m.n = n;
    m.u = u;
    m.f = f;
    m.ia.push_back(1);
    for (int i = 1; i <= n; ++i) {
      for (const auto& [j, v] : rows[i])  // diagonal comes first in rows[i]
        if (which == 0 || j == i || (which == 1 && j > i) || (which == 2 && j < i)) {
          m.ja.push_back(j);
          m.a.push_back(v);
        }
      m.ia.push_back(static_cast<int>(m.ja.size()) + 1);
    }
    return m;
  };
  return {build(0), build(1), build(2)};
}

TEST_F(ResidualTest, HalfMatrixEqualsFullForm) {
  for (int nt : {1, 2}) {
    Threads th(nt);
    for (int n : {1, 9, 200, 700}) {
      auto s = symmetric_forms(n, 5, 100 + n);
      const auto r = dense_residual(s.full);
      auto Lf = s.full.view();
      auto Lu = s.upper.view();
      auto Ll = s.lower.view();
      ASSERT_LT(s.upper.a.size(), s.full.a.size() + (n == 1 ? 1 : 0));
      for (int norm_typ : {0, 1, 2}) {
        SCOPED_TRACE("n " + std::to_string(n) + " norm_typ " + std::to_string(norm_typ));
        const double full = kornlt::resid(Lf, norm_typ);
        EXPECT_LE(rel_diff(full, ref_norm(r, 0, n - 1, norm_typ)), 1e-12);
        EXPECT_LE(rel_diff(kornlt::resid_half(Lu, norm_typ), full), 1e-12);
        EXPECT_LE(rel_diff(kornlt::resid_half(Ll, norm_typ), full), 1e-12);
      }
    }
  }
  EXPECT_EQ(kornlt::ierr(), 0);
}

TEST_F(ResidualTest, UnknownWiseNormsMatchReference) {
  for (int nt : {1, 2}) {
    Threads th(nt);
    for (int nsys : {1, 2, 5}) {
      Csr m = random_csr(400, 6, 30 + nsys);
      auto L = m.view();
      std::mt19937 gen(nsys);
      std::uniform_int_distribution<int> unk(1, nsys);
      std::vector<int> iu(m.n);
      for (auto& x : iu) x = unk(gen);
      const auto r = dense_residual(m);
      for (int norm_typ : {0, 1, 2, 3}) {
        SCOPED_TRACE("nsys " + std::to_string(nsys) + " norm_typ " + std::to_string(norm_typ));
        // Reference: split the residual by unknown.
        std::vector<double> want(nsys + 1);
        want[0] = ref_norm(r, 0, m.n - 1, norm_typ);
        std::vector<long double> fv(m.f.begin(), m.f.end());
        std::vector<double> want_vec(nsys + 1);
        want_vec[0] = ref_norm(fv, 0, m.n - 1, norm_typ);
        for (int k = 1; k <= nsys; ++k) {
          std::vector<long double> part, fpart;
          for (int i = 0; i < m.n; ++i)
            if (iu[i] == k) {
              part.push_back(r[i]);
              fpart.push_back(m.f[i]);
            }
          want[k] =
              part.empty() ? 0.0 : ref_norm(part, 0, static_cast<int>(part.size()) - 1, norm_typ);
          want_vec[k] = fpart.empty()
                            ? 0.0
                            : ref_norm(fpart, 0, static_cast<int>(fpart.size()) - 1, norm_typ);
        }
        std::vector<double> got(nsys + 1, -5.0), got_vec(nsys + 1, -5.0);
        const Vec1<const int> iuv(iu.data(), 1, m.n);
        kornlt::unknowns_resids(L, norm_typ, iuv, nsys, Vec1<double>(got.data(), 0, nsys));
        kornlt::unknowns_resvect(Vec1<const double>(m.f.data(), 1, m.n), norm_typ, iuv, nsys,
                                 Vec1<double>(got_vec.data(), 0, nsys));
        for (int k = 0; k <= nsys; ++k) {
          EXPECT_LE(rel_diff(got[k], want[k]), 1e-12) << "k=" << k;
          EXPECT_LE(rel_diff(got_vec[k], want_vec[k]), 1e-12) << "k=" << k;
        }
        EXPECT_LE(rel_diff(got[0], kornlt::resid(L, norm_typ)), 1e-14);
      }
    }
  }
  EXPECT_EQ(kornlt::ierr(), 0);
}

// ---------------------------------------------------------------------------
// Stopping settings
// ---------------------------------------------------------------------------

TEST_F(ResidualTest, DecodeStopSettings) {
  struct Case {
    int icrits, iauto_stop;
    int ierr;
    const char* message;  // expected line (with prefix), or ""
    int crit_mode, crit1, crit2, level, quasi, old_res, old_apps, last;
  };
  const std::vector<Case> cases = {
      // The defaults: criterion 1 only, no history tests, quasi limit 1.
      {110, 11, 0, "", 1, 1, 0, 1, 1, 0, 0, 0},
      {210, 11, 0, "", 2, 1, 0, 1, 1, 0, 0, 0},
      {0, 11, 0, "", 0, 0, 0, 1, 1, 0, 0, 0},
      // Digits are left-aligned: 10 is mode 1 with no criterion.
      {10, 11, 0, "", 1, 0, 0, 1, 1, 0, 0, 0},
      // Level 0 clears everything else.
      {110, 0, 0, "", 1, 1, 0, 0, 0, 0, 0, 0},
      // Criterion 2 raises a level below 1.
      {111, 0, 0, ">>> MESSG:       iauto_stop_level=1 and num_old_res=3\n", 1, 1, 1, 1, 0, 3, 0,
       0},
      {211, -13, 0, ">>> MESSG: Since iauto_stop_level < 1, additional resets:\n", 2, 1, 1, 1, 3, 3,
       0, 0},
      {110, -13, 0, "", 1, 1, 0, -1, 3, 0, 0, 0},
      // Full field set: level 1, limit 2, num_old_res 30, num_old_apps 20, last digit 5.
      {110, 1230205, 0, "", 1, 1, 0, 1, 2, 30, 20, 5},
      // num_old_res below num_old_apps: raised with a warning.
      {110, 1010203, -50,
       "+++ WARNG: num_old_res < num_old_apps! Reset: num_old_res=num_old_apps\n", 1, 1, 0, 1, 0,
       20, 20, 3},
      // num_old_res 0 is left alone.
      {110, 1000203, 0, "", 1, 1, 0, 1, 0, 0, 20, 3},
      // Illegal digits.
      {310, 11, 20, "*** ERROR: Illegal value of parameter <icrits[1:1]>!\n", 0, 0, 0, 0, 0, 0, 0,
       0},
      {120, 11, 20, "*** ERROR: Illegal value of parameter <icrits[2:2]>!\n", 0, 0, 0, 0, 0, 0, 0,
       0},
      {112, 11, 20, "*** ERROR: Illegal value of parameter <icrits[3:3]>!\n", 0, 0, 0, 0, 0, 0, 0,
       0},
      {110, 21, 20, "*** ERROR: Illegal value of parameter <iauto_stop_level>!\n", 0, 0, 0, 0, 0, 0,
       0, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE("icrits " + std::to_string(c.icrits) + " iauto_stop " +
                 std::to_string(c.iauto_stop));
    kornlt::ierr() = 0;
    Capture cap;
    kornlt::StopSettings s;
    kornlt::decode_stop_settings(c.icrits, c.iauto_stop, s);
    EXPECT_EQ(kornlt::ierr(), c.ierr);
    if (*c.message) {
      EXPECT_TRUE(cap.has(c.message)) << cap.text();
    }
    if (c.ierr > 0) continue;
    if (*c.message == 0) {
      EXPECT_EQ(cap.text(), "");
    }
    EXPECT_EQ(s.crit_mode, c.crit_mode);
    EXPECT_EQ(s.crit_on[0], c.crit1);
    EXPECT_EQ(s.crit_on[1], c.crit2);
    EXPECT_EQ(s.iauto_stop_level, c.level);
    EXPECT_EQ(s.quasi_limit, c.quasi);
    EXPECT_EQ(s.num_old_res, c.old_res);
    EXPECT_EQ(s.num_old_apps, c.old_apps);
    EXPECT_EQ(s.last_digit, c.last);
  }
  // Both reset lines, in order.
  kornlt::ierr() = 0;
  Capture cap;
  kornlt::StopSettings s;
  kornlt::decode_stop_settings(111, 0, s);
  EXPECT_EQ(cap.text(),
            ">>> MESSG: Since iauto_stop_level < 1, additional resets:\n"
            ">>> MESSG:       iauto_stop_level=1 and num_old_res=3\n");
  // Factors come from the registry.
  kornlt::prm().factor_quasi_res = 2.5;
  kornlt::prm().rel_app_var = 1e-3;
  kornlt::prm().ncyc_min = 4;
  kornlt::decode_stop_settings(110, 11, s);
  EXPECT_EQ(s.factor_quasi_res, 2.5);
  EXPECT_EQ(s.rel_app_var, 1e-3);
  EXPECT_EQ(s.ncyc_min, 4);
  EXPECT_EQ(s.factor_app_var, 1e-10);
  EXPECT_EQ(s.factor_res_var, 1.01);
}

// ---------------------------------------------------------------------------
// History stores
// ---------------------------------------------------------------------------

TEST_F(ResidualTest, StoreResidualKeepsNewestAndCatchesOverflow) {
  kornlt::StopSettings s;
  s.num_old_res = 2;
  kornlt::StopState st;
  kornlt::start_stop_state(st, s, 10);
  const double vals[] = {5.0, 4.0, 3.0, 2.0, 1.0};
  const std::vector<std::vector<double>> expect = {
      {5.0}, {5.0, 4.0}, {5.0, 4.0, 3.0}, {4.0, 3.0, 2.0}, {3.0, 2.0, 1.0}};
  for (int i = 0; i < 5; ++i) {
    kornlt::store_residual(st, s, vals[i]);
    ASSERT_EQ(st.num_res_stored, static_cast<int>(expect[i].size()));
    EXPECT_EQ(std::vector<double>(st.res_hist.begin(), st.res_hist.begin() + st.num_res_stored),
              expect[i]);
  }
  EXPECT_EQ(st.res_hist.size(), 3u);
  st.num_res_stored = 4;
  Capture cap;
  kornlt::store_residual(st, s, 0.5);
  EXPECT_EQ(kornlt::ierr(), 200);
  EXPECT_TRUE(cap.has("*** ERROR: Internal error: num_res_stored too large (store_residual)\n"));
}

TEST_F(ResidualTest, StoreApproximationKeepsTwoAndCatchesOverflow) {
  kornlt::StopState st;
  std::vector<double> u(4);
  for (int v = 1; v <= 3; ++v) {
    std::fill(u.begin(), u.end(), double(v));
    kornlt::store_approximation(st, Vec1<const double>(u.data(), 1, 4));
  }
  ASSERT_EQ(st.num_apps_stored, 2);
  EXPECT_EQ(st.app_hist, (std::vector<double>{2, 2, 2, 2, 3, 3, 3, 3}));
  st.num_apps_stored = 3;
  Capture cap;
  kornlt::store_approximation(st, Vec1<const double>(u.data(), 1, 4));
  EXPECT_EQ(kornlt::ierr(), 200);
  EXPECT_TRUE(
      cap.has("*** ERROR: Internal error: num_apps_stored too large (store_approximation)\n"));
}

TEST_F(ResidualTest, SolCorrectionIsRelativeStep) {
  kornlt::StopSettings s;
  s.num_old_apps = 1;
  kornlt::StopState st;
  kornlt::start_stop_state(st, s, 5);
  ASSERT_EQ(st.sol_correction.size(), 5u);
  const std::vector<double> p = {1.0, -2.0, 0.0, 3.0, 1e-20};
  const std::vector<double> u = {2.0, 4.0, 0.0, 0.0, -1e-30};
  const double alpha = 0.5;
  kornlt::update_sol_correction(st, alpha, Vec1<const double>(p.data(), 1, 5),
                                Vec1<const double>(u.data(), 1, 5));
  const double eps = std::numeric_limits<double>::epsilon();
  const std::vector<double> want = {0.25, -0.25, 0.0, 1.5 / eps, 0.5e-20 / eps};
  for (int i = 0; i < 5; ++i) EXPECT_DOUBLE_EQ(st.sol_correction[i], want[i]) << i;
  EXPECT_DOUBLE_EQ(kornlt::max_sol_correction(st), 1.5 / eps);
  // No correction store without num_old_apps.
  s.num_old_apps = 0;
  kornlt::start_stop_state(st, s, 5);
  EXPECT_TRUE(st.sol_correction.empty());
}

// ---------------------------------------------------------------------------
// Stagnation checks
// ---------------------------------------------------------------------------

struct CheckCase {
  const char* name;
  int crit2;
  int level;
  int old_res;
  std::vector<double> norms;              // stored residual norms
  std::vector<std::vector<double>> apps;  // stored approximations
  int status;
  std::vector<std::string> lines;  // expected message lines, in order
};

TEST_F(ResidualTest, CheckApproximationsBranches) {
  const std::string m = ">>> MESSG: ";
  const std::vector<CheckCase> cases = {
      {"two zero approximations: stagnation",
       1,
       1,
       2,
       {1.0, 1.0, 1.0},
       {{0, 0, 0}, {0, 0, 0}},
       -1,
       {m + "Small variation of residual norms (num_old_res+1=3): stagnation?!",
        m + "Max. values of current and previous approximation are zero!",
        m + "==> overall status: stagnation!"}},
      {"approximations equal: stagnation",
       1,
       1,
       2,
       {1.0, 1.005, 1.0},
       {{1, 2, 3}, {1, 2, 3 + 1e-12}},
       -1,
       {m + "Small variation of residual norms (num_old_res+1=3): stagnation?!",
        m + "max. |u1-u2|, max(|u1|,|u2|) =",
        m + "Approximation criterion fulfilled (with current value of factor_app_var)!",
        m + "==> overall status: stagnation!"}},
      {"approximations different: not converged",
       1,
       1,
       2,
       {1.0, 1.0, 1.0},
       {{1, 2, 3}, {1, 2.5, 3}},
       3,
       {m + "Small variation of residual norms (num_old_res+1=3): stagnation?!",
        m + "Approximations are too different: max. |u1-u2| =",
        m + "==> overall status: not converged!"}},
      {"one approximation: no check",
       1,
       1,
       2,
       {1.0, 1.0, 1.0},
       {{1, 2, 3}},
       -1,
       {m + "Small variation of residual norms (num_old_res+1=3): stagnation?!",
        m + "No check of approximation vectors could be performed!",
        m + "==> overall status: stagnation!"}},
      {"large variation: no status",
       1,
       1,
       2,
       {1.0, 0.5, 0.25},
       {{1, 2, 3}, {1, 2, 3}},
       0,
       {m + "max. |u1-u2|, max(|u1|,|u2|) =",
        m + "Approximation criterion fulfilled (with current value of factor_app_var)!"}},
      {"variation just at the factor", 1, 1, 1, {1.0, 1.01}, {{1}, {2}}, 0, {}},
      {"too few norms and approximations", 1, 1, 2, {1.0, 1.0}, {{1, 2}}, -99, {}},
      {"too few norms, two approximations", 1, 1, 2, {1.0}, {{1, 2}, {1, 3}}, 0, {}},
      {"level 0: no tests", 1, 0, 2, {1.0, 1.0, 1.0}, {{0}, {0}}, 0, {}},
      {"criterion 2 off, no old norms: no tests", 0, 1, 0, {1.0}, {{0}, {0}}, 0, {}},
      {"criterion 2 off, old norms on",
       0,
       1,
       1,
       {2.0, 2.0},
       {{0}, {0}},
       -1,
       {m + "Small variation of residual norms (num_old_res+1=2): stagnation?!",
        m + "Max. values of current and previous approximation are zero!",
        m + "==> overall status: stagnation!"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    kornlt::ierr() = 0;
    kornlt::StopSettings s;
    s.crit_on = {1, c.crit2};
    s.iauto_stop_level = c.level;
    s.num_old_res = c.old_res;
    kornlt::StopState st;
    kornlt::start_stop_state(st, s, 3);
    for (double v : c.norms) kornlt::store_residual(st, s, v);
    int nnu = 0;
    for (const auto& a : c.apps) {
      nnu = static_cast<int>(a.size());
      kornlt::store_approximation(st, Vec1<const double>(a.data(), 1, nnu));
    }
    Capture cap;
    int status = 12345;
    kornlt::check_approximations(st, s, nnu, status);
    EXPECT_EQ(status, c.status);
    EXPECT_EQ(kornlt::ierr(), 0);
    // The lines appear in the given order and nothing else is written.
    const std::string text = cap.text();
    std::size_t pos = 0, count = 0;
    for (const auto& line : c.lines) {
      const auto at = text.find(line, pos);
      ASSERT_NE(at, std::string::npos) << line << "\n" << text;
      pos = at + line.size();
      ++count;
    }
    EXPECT_EQ(static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n')), count) << text;
  }
}

TEST_F(ResidualTest, SmallCorrectionsEndTheRun) {
  kornlt::StopSettings s;
  s.iauto_stop_level = 0;
  s.num_old_apps = 2;
  s.rel_app_var = 1e-5;
  kornlt::StopState st;
  kornlt::start_stop_state(st, s, 3);
  auto set_corr = [&](double v) {
    std::fill(st.sol_correction.begin(), st.sol_correction.end(), v);
  };
  int status = 7;
  // small, large (counter back to 0), small, small -> -2, then counting restarts.
  const std::vector<std::pair<double, int>> steps = {{1e-6, 0},  {1e-3, 0}, {-1e-6, 0},
                                                     {1e-5, -2}, {1e-7, 0}, {1e-7, -2}};
  for (const auto& [v, want] : steps) {
    set_corr(v);
    kornlt::check_approximations(st, s, 3, status);
    EXPECT_EQ(status, want) << v;
  }
  EXPECT_EQ(kornlt::ierr(), 0);
}

TEST_F(ResidualTest, DefaultSettingsRunNoHistoryTests) {
  // iauto_stop 11 with icrits 110: no variation or approximation test.
  kornlt::StopSettings s;
  kornlt::decode_stop_settings(110, 11, s);
  EXPECT_EQ(s.quasi_limit, 1);
  kornlt::StopState st;
  kornlt::start_stop_state(st, s, 2);
  EXPECT_TRUE(st.sol_correction.empty());
  const std::vector<double> z = {0.0, 0.0};
  for (int i = 0; i < 3; ++i) {
    kornlt::store_residual(st, s, 1.0);
    kornlt::store_approximation(st, Vec1<const double>(z.data(), 1, 2));
  }
  Capture cap;
  int status = 9;
  kornlt::check_approximations(st, s, 2, status);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(cap.text(), "");
}

TEST_F(ResidualTest, ApproximationStatusTable) {
  struct Case {
    int result;
    int status;
    int ierr;
    std::vector<std::string> lines;
  };
  const std::vector<Case> cases = {
      {0,
       3,
       0,
       {"Approximations are too different: max. |u1-u2| =", "==> overall status: not converged!"}},
      {1, 2, 0, {"==> overall status: oscillation!"}},
      {-1, -1, 0, {"==> overall status: stagnation!"}},
      {-2, -1, 0, {"==> overall status: stagnation!"}},
      {-99,
       -1,
       0,
       {"No check of approximation vectors could be performed!",
        "==> overall status: stagnation!"}},
      {7, 0, 1, {"*** ERROR: An error occurred in (check_approximations)!"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.result);
    kornlt::ierr() = 0;
    Capture cap;
    EXPECT_EQ(kornlt::approximation_status(c.result, 0.5), c.status);
    EXPECT_EQ(kornlt::ierr(), c.ierr);
    for (const auto& l : c.lines) EXPECT_TRUE(cap.has(l)) << cap.text();
  }
  // The difference is printed as a number.
  Capture cap;
  kornlt::approximation_status(0, 0.25);
  const std::string text = cap.text();
  const auto at = text.find("max. |u1-u2| =");
  ASSERT_NE(at, std::string::npos);
  EXPECT_DOUBLE_EQ(std::stod(text.substr(at + 14)), 0.25);
}

// ---------------------------------------------------------------------------
// Stopping verdict
// ---------------------------------------------------------------------------

TEST_F(ResidualTest, StoppingCritMerges) {
  struct Case {
    const char* name;
    int mode, c1, c2, ncyc_min;
    int it, itmax;
    double res, tol;
    int status;
    int done;
  };
  const std::vector<Case> cases = {
      // 110: criterion 1 alone.
      {"110 converged", 1, 1, 0, 0, 3, 30, 1e-9, 1e-8, 0, 1},
      {"110 equal counts as converged", 1, 1, 0, 0, 3, 30, 1e-8, 1e-8, 0, 1},
      {"110 not converged", 1, 1, 0, 0, 3, 30, 1e-7, 1e-8, 0, 0},
      {"110 stagnation ignored", 1, 1, 0, 0, 3, 30, 1e-7, 1e-8, -1, 0},
      {"110 cycle limit", 1, 1, 0, 0, 30, 30, 1e-7, 1e-8, 0, 1},
      // 210 behaves like 110 with one criterion.
      {"210 converged", 2, 1, 0, 0, 3, 30, 1e-9, 1e-8, 0, 1},
      {"210 not converged", 2, 1, 0, 0, 3, 30, 1e-7, 1e-8, -2, 0},
      // 211: either criterion.
      {"211 stagnation -1", 2, 1, 1, 0, 3, 30, 1e-7, 1e-8, -1, 1},
      {"211 stagnation -2", 2, 1, 1, 0, 3, 30, 1e-7, 1e-8, -2, 1},
      {"211 other status", 2, 1, 1, 0, 3, 30, 1e-7, 1e-8, 3, 0},
      {"211 converged", 2, 1, 1, 0, 3, 30, 1e-9, 1e-8, 0, 1},
      // 111: both criteria.
      {"111 both", 1, 1, 1, 0, 3, 30, 1e-9, 1e-8, -1, 1},
      {"111 only tolerance", 1, 1, 1, 0, 3, 30, 1e-9, 1e-8, 0, 0},
      {"111 only stagnation", 1, 1, 1, 0, 3, 30, 1e-7, 1e-8, -2, 0},
      // 010: mode 0 never stops by a criterion.
      {"010 converged", 0, 1, 0, 0, 3, 30, 1e-9, 1e-8, -1, 0},
      {"010 cycle limit", 0, 1, 0, 0, 31, 30, 1e-9, 1e-8, 0, 1},
      // ncyc_min above itmax: always go on.
      {"ncyc_min > itmax at itmax", 1, 1, 0, 50, 30, 30, 1e-9, 1e-8, 0, 0},
      {"ncyc_min > itmax beyond", 1, 1, 0, 50, 49, 30, 0.0, 1e-8, -1, 0},
      {"ncyc_min reached", 1, 1, 0, 50, 50, 30, 1e-7, 1e-8, 0, 1},
      {"ncyc_min below it", 1, 1, 0, 2, 3, 30, 1e-9, 1e-8, 0, 1},
      {"zero residual", 1, 1, 0, 0, 0, 30, 0.0, 0.0, 0, 1},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    kornlt::StopSettings s;
    s.crit_mode = c.mode;
    s.crit_on = {c.c1, c.c2};
    s.ncyc_min = c.ncyc_min;
    int done = -5;
    kornlt::stopping_crit(s, c.it, c.itmax, c.res, c.tol, c.status, done);
    EXPECT_EQ(done, c.done);
    EXPECT_EQ(kornlt::ierr(), 0);
  }
  // The decoded codes give the same verdicts.
  for (const auto& [icrits, status, done_want] : std::vector<std::tuple<int, int, int>>{
           {110, -1, 0}, {210, -1, 0}, {211, -1, 1}, {111, -1, 0}}) {
    kornlt::StopSettings s;
    kornlt::decode_stop_settings(icrits, 11, s);
    int done = -5;
    kornlt::stopping_crit(s, 3, 30, 1.0, 0.5, status, done);
    EXPECT_EQ(done, done_want) << icrits;
  }
  // No criteria known.
  kornlt::StopSettings s;
  s.ncrit = 0;
  Capture cap;
  int done = 0;
  kornlt::stopping_crit(s, 3, 30, 1.0, 2.0, 0, done);
  EXPECT_EQ(done, 1);
  EXPECT_EQ(kornlt::ierr(), 1);
  EXPECT_TRUE(cap.has("*** ERROR: no. of available criteria nonpositive in (stopping_crit)!\n"));
}

TEST_F(ResidualTest, StoppingCritScaledPair) {
  kornlt::StopSettings s;
  int done = -1;
  // Without block scaling the scaled pair is ignored.
  kornlt::stopping_crit(s, 3, 30, 1.0, 0.5, 0, done, 0.1, 0.5);
  EXPECT_EQ(done, 0);
  kornlt::prm().block_scale = 1;
  kornlt::stopping_crit(s, 3, 30, 1.0, 0.5, 0, done, 0.1, 0.5);
  EXPECT_EQ(done, 1);
  kornlt::stopping_crit(s, 3, 30, 0.1, 0.5, 0, done, 1.0, 0.5);
  EXPECT_EQ(done, 0);
  kornlt::stopping_crit(s, 3, 30, 0.1, 0.5, 0, done, -1.0, 0.5);  // scaled value unset
  EXPECT_EQ(done, 1);
}

// ---------------------------------------------------------------------------
// Quasi-residual check
// ---------------------------------------------------------------------------

TEST_F(ResidualTest, QuasiResidualCheck) {
  struct Step {
    double q, t;
    bool computed;
    int result;
    int count;  // counter afterwards
  };
  struct Case {
    const char* name;
    int limit;
    std::vector<Step> steps;
  };
  const std::vector<Case> cases = {
      {"limit 1 stops at the first mismatch",
       1,
       {{1.0, 1.4, true, 0, 0}, {1.0, 2.0, false, 0, 0}, {1.0, 2.0, true, 2, 1}}},
      {"limit 3",
       3,
       {{2.0, 1.0, true, 1, 1},
        {1.0, 1.5, true, 0, 1},
        {-1.0, 1.6, true, 1, 2},
        {1.0, 0.5, true, 2, 3}}},
      {"limit 0 counts only", 0, {{1.0, 3.0, true, 0, 1}, {1.0, 3.0, true, 0, 2}}},
      {"both zero", 1, {{0.0, 0.0, true, 0, 0}}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    kornlt::StopSettings s;
    s.quasi_limit = c.limit;
    kornlt::StopState st;
    kornlt::start_stop_state(st, s, 1);
    for (const auto& step : c.steps) {
      Capture cap;
      EXPECT_EQ(kornlt::quasi_residual_check(st, s, step.q, step.t, 0, step.computed), step.result);
      EXPECT_EQ(st.num_quasi_diff, step.count);
      const std::string text = cap.text();
      if (step.result == 2) {
        const auto a = text.find(">>> MESSG: norm of quasi L2-residual =");
        const auto b = text.find(">>> MESSG: norm of real L2-residual =");
        ASSERT_NE(a, std::string::npos) << text;
        ASSERT_NE(b, std::string::npos) << text;
        EXPECT_LT(a, b);
        EXPECT_DOUBLE_EQ(std::stod(text.substr(a + 38)), step.q);
        EXPECT_DOUBLE_EQ(std::stod(text.substr(b + 37)), step.t);
      } else {
        EXPECT_EQ(text, "");
      }
    }
  }
  // A trace level above 1 prints the quasi label and q; the ratio is a setting.
  kornlt::prm().itrace_sol = 2;
  kornlt::StopSettings s;
  s.factor_quasi_res = 3.0;
  kornlt::StopState st;
  Capture cap;
  EXPECT_EQ(kornlt::quasi_residual_check(st, s, 1.0, 2.9, 2, true), 0);
  EXPECT_TRUE(cap.has(">>> MESSG: qx =")) << cap.text();
}

// ---------------------------------------------------------------------------
// Iteration table
// ---------------------------------------------------------------------------

// The number after `key` in `line`.
double value_after(const std::string& line, const std::string& key) {
  const auto at = line.find(key);
  EXPECT_NE(at, std::string::npos) << key << " in " << line;
  return at == std::string::npos ? -999.0 : std::stod(line.substr(at + key.size()));
}

TEST_F(ResidualTest, IterationTableLines) {
  {
    Capture cap;
    kornlt::table_first_line("L2", 3.5e-2);
    const std::string t = cap.text();
    EXPECT_EQ(t.rfind("cycl   0:", 0), 0u) << t;
    EXPECT_DOUBLE_EQ(value_after(t, "L2-res="), 3.5e-2);
  }
  struct Cycle {
    int it;
    const char* label;
    double res, prev;
    char marker;
  };
  const Cycle cycles[] = {{1, "L2", 0.5, 2.0, ' '},
                          {12, "MX", 1e-3, 1e-2, '*'},
                          {3, "L1", 0.0, 0.0, ' '},
                          {4, "L2", 2.0, 1.0, '*'}};
  for (const auto& c : cycles) {
    Capture cap;
    const double want = c.res / (c.prev + 1e-90);
    EXPECT_DOUBLE_EQ(kornlt::table_cycle_line(c.it, c.label, c.res, c.prev, c.marker), want);
    const std::string t = cap.text();
    char head[16];
    std::snprintf(head, sizeof head, "cycl%4d:", c.it);
    EXPECT_EQ(t.rfind(head, 0), 0u) << t;
    EXPECT_NE(t.find(c.marker == '*' ? "*" : ": "), std::string::npos) << t;
    EXPECT_DOUBLE_EQ(value_after(t, std::string(c.label) + "-res="), c.res);
    EXPECT_NEAR(value_after(t, "cfac="), want, 1e-6);
    EXPECT_LT(t.find("-res="), t.find("cfac="));
  }
  // The average line: only with more cycles than ncyc_start.
  struct Avg {
    int start, done;
    double res_start, res_out;
  };
  const Avg avgs[] = {
      {2, 2, 1.0, 0.5}, {2, 1, 1.0, 0.5}, {2, 5, 1e-1, 1e-4}, {0, 4, 1.0, 1e-8}, {3, 4, 0.0, 0.0}};
  for (const auto& a : avgs) {
    Capture cap;
    const double got = kornlt::table_average_line(a.start, a.done, a.res_start, a.res_out);
    const std::string t = cap.text();
    if (a.done <= a.start) {
      EXPECT_EQ(got, -1.0);
      EXPECT_EQ(t, "");
      continue;
    }
    const double want = std::pow(a.res_out / (a.res_start + 1e-90), 1.0 / (a.done - a.start));
    EXPECT_DOUBLE_EQ(got, want);
    EXPECT_EQ(t.rfind("average (cycles skipped:", 0), 0u) << t;
    EXPECT_EQ(std::stoi(t.substr(24)), a.start);
    const auto close = t.find("):");
    ASSERT_NE(close, std::string::npos);
    EXPECT_NEAR(std::stod(t.substr(close + 2)), want, 1e-6);
  }
}

}  // namespace
