// Residual norms against a long-double reference on one and two threads
// (per unknown, on sub-ranges and in half-stored form), the NaN and overflow
// traps; the stopping tests: settings decoding, stagnation checks and the
// criteria merge, with their message texts.
#include <gtest/gtest.h>
#include <omp.h>

#include <limits>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "log/log.hpp"
#include "log/test_support.hpp"
#include "params/params.hpp"
#include "solve/solve.hpp"
#include "solve_fixtures.hpp"

namespace {

using namespace solve_test;
using korn_test::MessageCapture;
using kornlt::Vec1;

// Random sparse matrix: diagonal plus up to `extra` off-diagonals per row,
// mirrored when `symmetric`.
Csr random_csr(int n, int extra, unsigned seed, bool symmetric = false) {
  std::mt19937 gen(seed);
  std::uniform_real_distribution<double> val(-1.0, 1.0);
  std::uniform_int_distribution<int> col(1, n);
  std::vector<std::map<int, double>> rows(static_cast<std::size_t>(n) + 1);
  for (int i = 1; i <= n; ++i)
    for (int e = 0; e < extra; ++e) {
      const int j = col(gen);
      const double v = val(gen);
      if (j == i || rows[i].count(j)) continue;
      rows[i][j] = v;
      if (symmetric) rows[j][i] = v;
    }
  Csr A;
  for (int i = 1; i <= n; ++i)
    A.add_row(5.0 + val(gen), std::vector<std::pair<int, double>>(rows[i].begin(), rows[i].end()));
  return A;
}
// The upper or lower triangle of a matrix, diagonal first.
Csr triangle(const Csr& A, bool upper) {
  Csr T;
  for (int i = 1; i <= A.n; ++i) {
    std::vector<std::pair<int, double>> off;
    for (int k = A.ia[i - 1] + 1; k < A.ia[i]; ++k)
      if ((A.ja[k - 1] > i) == upper) off.push_back({A.ja[k - 1], A.a[k - 1]});
    T.add_row(A.diag(i - 1), off);
  }
  return T;
}
Vec random_vec(int n, unsigned seed) {
  std::mt19937 gen(seed);
  std::uniform_real_distribution<double> val(-3.0, 3.0);
  Vec v(static_cast<std::size_t>(n));
  for (double& x : v) x = val(gen);
  return v;
}

std::vector<long double> ref_residual(const Csr& A, const Vec& u, const Vec& f) {
  std::vector<long double> r(f.begin(), f.end());
  for (int i = 0; i < A.n; ++i)
    for (int k = A.ia[i]; k < A.ia[i + 1]; ++k) r[i] -= static_cast<long double>(A.a[k - 1]) * u[A.ja[k - 1] - 1];
  return r;
}
// norm_typ 0 and 3: L2, 1: L1, 2: max, over entries lo0..hi0 (0-based).
double ref_norm(const std::vector<long double>& r, int lo0, int hi0, int norm_typ) {
  long double s = 0.0L;
  for (int i = lo0; i <= hi0; ++i) {
    const long double x = std::fabs(r[i]);
    s = norm_typ == 1 ? s + x : norm_typ == 2 ? std::max(s, x) : s + x * x;
  }
  return static_cast<double>(norm_typ == 0 || norm_typ == 3 ? std::sqrt(s) : s);
}
double rel(double a, double b) { return std::abs(a - b) / std::max(std::abs(b), 1e-300); }

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

TEST_F(ResidualTest, NormsMatchLongDoubleReference) {
  struct Case {
    const char* name;
    Csr A;
    bool symmetric;
  };
  const Case cases[] = {{"n=1", random_csr(1, 3, 1), true},
                        {"random n=4000", random_csr(4000, 8, 3), false},
                        {"symmetric n=700", random_csr(700, 5, 4, true), true},
                        {"poisson 13x13", poisson(13), true}};
  for (int nt : {1, 2}) {
    Threads th(nt);
    for (const Case& c : cases) {
      const int n = c.A.n;
      Level lv(c.A, random_vec(n, 7), random_vec(n, 8));
      Level up(triangle(c.A, true), lv.u, lv.f), lo(triangle(c.A, false), lv.u, lv.f);
      const auto L = lv.view(false);
      const auto r = ref_residual(c.A, lv.u, lv.f);
      const std::vector<long double> fl(lv.f.begin(), lv.f.end());
      std::vector<int> iu(static_cast<std::size_t>(n));  // three unknowns, irregularly spread
      for (int i = 0; i < n; ++i) iu[i] = 1 + (i * 7 + i / 5) % 3;
      for (int norm_typ : {0, 1, 2, 3}) {
        SCOPED_TRACE(std::string(c.name) + " norm_typ " + std::to_string(norm_typ) + " threads " +
                     std::to_string(nt));
        const double want = ref_norm(r, 0, n - 1, norm_typ), first = kornlt::resid(L, norm_typ);
        EXPECT_LE(rel(first, want), 1e-12);
        EXPECT_EQ(kornlt::resid(L, norm_typ), first);  // sums in thread order: no timing dependence
        EXPECT_LE(rel(kornlt::compute_residual_norm(L, 1, n, norm_typ), want), 1e-12);
        if (c.symmetric && norm_typ < 3) {
          EXPECT_LE(rel(kornlt::resid_half(up.view(false), norm_typ), want), 1e-12);
          EXPECT_LE(rel(kornlt::resid_half(lo.view(false), norm_typ), want), 1e-12);
        }
        // A sub-range, with the residual vector written there only.
        const int a = 1 + n / 3, b = std::max(a, n - n / 4);
        Vec rv(static_cast<std::size_t>(n), -7.0);
        const double sub = kornlt::compute_residual_norm(L, a, b, norm_typ, Vec1<double>(rv.data(), 1, n));
        EXPECT_LE(rel(sub, ref_norm(r, a - 1, b - 1, norm_typ)), 1e-12);
        for (int i = 1; i <= n; ++i)
          EXPECT_NEAR(rv[i - 1], i < a || i > b ? -7.0 : static_cast<double>(r[i - 1]), 1e-13) << i;
        // Per unknown (entry 0: all), of the residual and of a vector; resid1
        // on a range that does not start at 1.
        Vec got(4, -5.0), got_vec(4, -5.0);
        const Vec1<const int> iuv(iu.data(), 1, n);
        kornlt::unknowns_resids(L, norm_typ, iuv, 3, Vec1<double>(got.data(), 0, 3));
        kornlt::unknowns_resvect(Vec1<const double>(lv.f.data(), 1, n), norm_typ, iuv, 3,
                                 Vec1<double>(got_vec.data(), 0, 3));
        Vec again(4);
        kornlt::unknowns_resids(L, norm_typ, iuv, 3, Vec1<double>(again.data(), 0, 3));
        EXPECT_EQ(again, got);
        for (int k = 0; k <= 3; ++k) {
          std::vector<long double> part, fpart;
          for (int i = 0; i < n; ++i)
            if (k == 0 || iu[i] == k) part.push_back(r[i]), fpart.push_back(fl[i]);
          const int m = static_cast<int>(part.size()) - 1;
          EXPECT_LE(rel(got[k], m < 0 ? 0.0 : ref_norm(part, 0, m, norm_typ)), 1e-12) << "k=" << k;
          EXPECT_LE(rel(got_vec[k], m < 0 ? 0.0 : ref_norm(fpart, 0, m, norm_typ)), 1e-12) << "k=" << k;
        }
        EXPECT_LE(rel(kornlt::resid1(Vec1<const double>(lv.f.data(), 40, 39 + n), norm_typ),
                      ref_norm(fl, 0, n - 1, norm_typ)), 1e-13);
        EXPECT_EQ(kornlt::ierr(), 0);
      }
    }
  }
  // resid_k: the L2 norm on a level above the first.
  const Csr A = poisson(3);
  Level lv(A, random_vec(A.n, 1), random_vec(A.n, 2), 40, 90);
  lv.k = 3;
  EXPECT_LE(rel(kornlt::resid_k(lv.view()), ref_norm(ref_residual(A, lv.u, lv.f), 0, A.n - 1, 0)), 1e-13);
}

TEST_F(ResidualTest, NaNOverflowAndIllegalCallsAreCaught) {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  struct Case {
    const char* routine;
    int norm_typ;
    double bad_f;  // put into f(3) and f(21); L1 needs two huge values to overflow
    int code;
    const char* message;
  };
  const Case cases[] = {
      {"resid", 0, nan, 211, "NaN detected in (resid)!"},
      {"resid", 1, 1.7e308, 210, "Residual overflow caught in (resid)!"},
      {"resid", 4, 1.0, 1, "Illegal norm_typ specified (resid)!"},
      {"korn_solve", 2, nan, 211, "NaN detected in (korn_solve)!"},
      {"compute_residual_norm", 3, nan, 211, "NaN detected in (compute_residual_norm)!"},
      {"resid1", 0, 1e200, 210, "Residual overflow caught in (resid1)!"},
      {"unknowns_resids", 2, nan, 211, "NaN detected in (unknowns_resids)!"},
      {"unknowns_resvect", 0, nan, 211, "NaN detected in (unknowns_resvect)!"},
      {"resid_half", 0, nan, 211, "NaN detected in (resid)!"},
      {"resid_k", 0, 1e200, 210, "Residual overflow caught in (resid_k)!"},
      {"resid_k on level 1", 0, 1.0, 1, "Illegal call to routine (resid_k)!"},
  };
  for (int nt : {1, 2}) {
    Threads th(nt);
    for (const Case& c : cases) {
      SCOPED_TRACE(std::string(c.routine) + " " + std::to_string(c.norm_typ) + " threads " + std::to_string(nt));
      const Csr A = poisson(6);
      Level lv(A, random_vec(A.n, 3), random_vec(A.n, 4));
      lv.f[2] = lv.f[20] = c.bad_f;
      auto L = lv.view(false);
      std::vector<int> iu(static_cast<std::size_t>(A.n), 1);
      Vec res(3, 5.0);
      const Vec1<const int> iuv(iu.data(), 1, A.n);
      const Vec1<const double> fv(lv.f.data(), 1, A.n);
      kornlt::ierr() = 0;
      MessageCapture cap;
      const std::string r = c.routine;
      double v = 0.0;
      if (r == "resid") v = kornlt::resid(L, c.norm_typ);
      if (r == "korn_solve") v = kornlt::resid(L, c.norm_typ, "korn_solve");
      if (r == "compute_residual_norm") v = kornlt::compute_residual_norm(L, 1, A.n, c.norm_typ);
      if (r == "resid1") v = kornlt::resid1(fv, c.norm_typ);
      if (r == "resid_half") v = kornlt::resid_half(L, c.norm_typ);
      if (r == "resid_k on level 1") v = kornlt::resid_k(L);
      if (r == "resid_k") {
        L.k = 2;
        v = kornlt::resid_k(L);
      }
      if (r.rfind("unknowns_", 0) == 0) {
        if (r == "unknowns_resids")
          kornlt::unknowns_resids(L, c.norm_typ, iuv, 2, Vec1<double>(res.data(), 0, 2));
        else
          kornlt::unknowns_resvect(fv, c.norm_typ, iuv, 2, Vec1<double>(res.data(), 0, 2));
        EXPECT_EQ(res, Vec(3, -1.0));
        v = res[0];
      }
      EXPECT_EQ(v, -1.0);
      EXPECT_EQ(kornlt::ierr(), c.code);
      EXPECT_TRUE(cap.text().find(std::string("*** ERROR: ") + c.message + "\n") != std::string::npos) << cap.text();
    }
  }
}

// ---------------------------------------------------------------------------
// Stopping settings and stagnation checks
// ---------------------------------------------------------------------------

TEST_F(ResidualTest, DecodeStopSettings) {
  struct Case {
    int icrits, iauto_stop, ierr;
    const char* message;  // expected line, or "" for no output
    int crit_mode, crit1, crit2, level, quasi, old_res, old_apps, last;
  };
  const Case cases[] = {
      {110, 11, 0, "", 1, 1, 0, 1, 1, 0, 0, 0},  // the defaults
      {110, 0, 0, "", 1, 1, 0, 0, 0, 0, 0, 0},   // level 0 clears the rest
      {211, -13, 0, ">>> MESSG: Since iauto_stop_level < 1, additional resets:\n"
                    ">>> MESSG:       iauto_stop_level=1 and num_old_res=3\n", 2, 1, 1, 1, 3, 3, 0, 0},
      {110, 1203305, -50, "+++ WARNG: num_old_res < num_old_apps! Reset: num_old_res=num_old_apps\n", 1, 1, 0, 1,
       2, 30, 30, 5},  // all fields: level, quasi limit, old norms, old approximations, last digit
      {310, 11, 20, "*** ERROR: Illegal value of parameter <icrits[1:1]>!\n", 0, 0, 0, 0, 0, 0, 0, 0},
      {112, 11, 20, "*** ERROR: Illegal value of parameter <icrits[3:3]>!\n", 0, 0, 0, 0, 0, 0, 0, 0},
      {110, 21, 20, "*** ERROR: Illegal value of parameter <iauto_stop_level>!\n", 0, 0, 0, 0, 0, 0, 0, 0},
  };
  kornlt::prm().factor_quasi_res = 2.5;
  kornlt::prm().ncyc_min = 4;
  for (const Case& c : cases) {
    SCOPED_TRACE("icrits " + std::to_string(c.icrits) + " iauto_stop " + std::to_string(c.iauto_stop));
    kornlt::ierr() = 0;
    MessageCapture cap;
    kornlt::StopSettings s;
    kornlt::decode_stop_settings(c.icrits, c.iauto_stop, s);
    EXPECT_EQ(kornlt::ierr(), c.ierr);
    EXPECT_EQ(cap.text(), c.message);
    if (c.ierr > 0) continue;
    const std::vector<int> got = {s.crit_mode,  s.crit_on[0],  s.crit_on[1],   s.iauto_stop_level,
                                  s.quasi_limit, s.num_old_res, s.num_old_apps, s.last_digit};
    EXPECT_EQ(got, (std::vector<int>{c.crit_mode, c.crit1, c.crit2, c.level, c.quasi, c.old_res, c.old_apps,
                                     c.last}));
    EXPECT_EQ(s.factor_quasi_res, 2.5);
    EXPECT_EQ(s.ncyc_min, 4);
  }
}

// Criterion 2 with three norms: the variation test, then the comparison of
// the last two approximations.
TEST_F(ResidualTest, CheckApproximations) {
  const std::string m = ">>> MESSG: ";
  struct Case {
    const char* name;
    Vec norms;               // stored in this order
    std::vector<Vec> apps;   // stored in this order
    int status;
    std::vector<std::string> lines;  // the whole output, in order
  };
  const std::vector<Case> cases = {
      {"zero approximations: stagnation", {1.0, 1.0, 1.0}, {{0, 0, 0}, {0, 0, 0}}, -1,
       {m + "Small variation of residual norms (num_old_res+1=3): stagnation?!",
        m + "Max. values of current and previous approximation are zero!", m + "==> overall status: stagnation!"}},
      {"equal approximations, only the newest norms count", {1.0, 0.2, 1.0, 1.005, 1.0},
       {{1, 2, 3}, {1, 2, 3 + 1e-12}}, -1,
       {m + "Small variation of residual norms (num_old_res+1=3): stagnation?!", m + "max. |u1-u2|, max(|u1|,|u2|) =",
        m + "Approximation criterion fulfilled (with current value of factor_app_var)!",
        m + "==> overall status: stagnation!"}},
      {"different approximations: not converged", {1.0, 1.0, 1.0}, {{1, 2, 3}, {1, 2.5, 3}}, 3,
       {m + "Small variation of residual norms (num_old_res+1=3): stagnation?!",
        m + "Approximations are too different: max. |u1-u2| =", m + "==> overall status: not converged!"}},
      {"too few norms and approximations", {1.0, 1.0}, {{1, 2}}, -99, {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    kornlt::ierr() = 0;
    kornlt::StopSettings s;
    s.crit_on = {1, 1};
    s.num_old_res = 2;
    kornlt::StopState st;
    kornlt::start_stop_state(st, s, 3);
    for (double v : c.norms) kornlt::store_residual(st, s, v);
    const int nnu = static_cast<int>(c.apps.back().size());
    for (const Vec& a : c.apps) kornlt::store_approximation(st, Vec1<const double>(a.data(), 1, nnu));
    MessageCapture cap;
    int status = 12345;
    kornlt::check_approximations(st, s, nnu, status);
    EXPECT_EQ(status, c.status);
    EXPECT_EQ(kornlt::ierr(), 0);
    const std::string text = cap.text();
    EXPECT_TRUE(contains_in_order(text, c.lines)) << text;
    EXPECT_EQ(static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n')), c.lines.size()) << text;
  }
}

// ---------------------------------------------------------------------------
// Stopping verdict
// ---------------------------------------------------------------------------

TEST_F(ResidualTest, StoppingCritMergesTheCriteria) {
  struct Case {
    const char* name;
    int mode, c1, c2, ncyc_min, it, itmax;
    double res, tol;
    int status, done;
    bool block_scale = false;
    double res_scaled = -1.0;
  };
  const Case cases[] = {
      {"110 converged", 1, 1, 0, 0, 3, 30, 1e-9, 1e-8, 0, 1},
      {"110 stagnation ignored", 1, 1, 0, 0, 3, 30, 1e-7, 1e-8, -1, 0},
      {"110 cycle limit", 1, 1, 0, 0, 30, 30, 1e-7, 1e-8, 0, 1},
      {"211 stagnation -2", 2, 1, 1, 0, 3, 30, 1e-7, 1e-8, -2, 1},
      {"111 both", 1, 1, 1, 0, 3, 30, 1e-9, 1e-8, -1, 1},
      {"111 only tolerance", 1, 1, 1, 0, 3, 30, 1e-9, 1e-8, 0, 0},
      {"010 never by a criterion", 0, 1, 0, 0, 3, 30, 1e-9, 1e-8, -1, 0},
      {"ncyc_min > itmax at itmax", 1, 1, 0, 50, 30, 30, 1e-9, 1e-8, 0, 0},
      {"ncyc_min reached", 1, 1, 0, 50, 50, 30, 1e-7, 1e-8, 0, 1},
      {"scaled pair ignored without block scaling", 1, 1, 0, 0, 3, 30, 1.0, 0.5, 0, 0, false, 0.1},
      {"scaled pair decides", 1, 1, 0, 0, 3, 30, 1.0, 0.5, 0, 1, true, 0.1},
      {"scaled pair not reached", 1, 1, 0, 0, 3, 30, 0.1, 0.5, 0, 0, true, 1.0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    kornlt::prm().block_scale = c.block_scale ? 1 : 0;
    kornlt::StopSettings s;
    s.crit_mode = c.mode;
    s.crit_on = {c.c1, c.c2};
    s.ncyc_min = c.ncyc_min;
    int done = -5;
    kornlt::stopping_crit(s, c.it, c.itmax, c.res, c.tol, c.status, done, c.res_scaled, 0.5);
    EXPECT_EQ(done, c.done);
    EXPECT_EQ(kornlt::ierr(), 0);
  }
}

}  // namespace
