// The core call end to end on the one-level path: results against an
// independent Gauss-Seidel, thread independence of Jacobi, and bad input
// reaching the caller as a code and a message.
#include <gtest/gtest.h>
#include <omp.h>

#include <cmath>
#include <cstring>
#include <limits>

#include "entry/problems.hpp"

namespace {

using korn_test::CoreArgs;
using korn_test::Csr;
using korn_test::LogCapture;
using korn_test::poisson2d;

// One ascending Gauss-Seidel sweep over all rows, written independently.
void gauss_seidel(const Csr& m, const std::vector<double>& f, std::vector<double>& u) {
  for (int i = 1; i <= m.nnu; ++i) {
    double r = f[i - 1];
    for (int k = m.ia[i - 1]; k < m.ia[i] - 1; ++k) r -= m.a[k] * u[m.ja[k] - 1];
    u[i - 1] = r / m.a[m.ia[i - 1] - 1];
  }
}

double l2_residual(const Csr& m, const std::vector<double>& f, const std::vector<double>& u) {
  double s = 0.0;
  for (int i = 1; i <= m.nnu; ++i) {
    double r = f[i - 1];
    for (int k = m.ia[i - 1] - 1; k < m.ia[i] - 1; ++k) r -= m.a[k] * u[m.ja[k] - 1];
    s += r * r;
  }
  return std::sqrt(s);
}

class KornCall : public testing::Test {
 protected:
  void SetUp() override {
    korn_reset_parameters();
    kornlt::ierr() = 0;
    kornlt::prm().mode_mess = -3;
    omp_set_num_threads(1);
  }
  void TearDown() override { omp_set_num_threads(2); }

  // A one-level run of plain cycles (no accelerator).
  static void one_level_plain_cycles() {
    kornlt::prm().levelx = 1;
    kornlt::prm().ncgrad_default = 0;
  }
};

TEST_F(KornCall, EachCycleMatchesTwoIndependentGaussSeidelSweeps) {
  one_level_plain_cycles();
  CoreArgs c(poisson2d(20));
  c.eps = 1e-30;    // never reached: every cycle runs
  c.ncyc = 10001;   // V-type code, no accelerator, one cycle per call
  std::vector<double> ref(c.u);
  for (int cycle = 1; cycle <= 6; ++cycle) {
    ASSERT_EQ(c.call(), 0) << "cycle " << cycle;
    EXPECT_EQ(c.ncyc_done, 1);
    gauss_seidel(c.m, c.f, ref);  // pre-smoothing: one ascending sweep
    gauss_seidel(c.m, c.f, ref);  // post-smoothing: one ascending sweep
    ASSERT_EQ(0, std::memcmp(ref.data(), c.u.data(), ref.size() * sizeof(double))) << "cycle " << cycle;
    EXPECT_LT(c.res_out, c.res_in) << "residual must fall every cycle";
    EXPECT_DOUBLE_EQ(c.res_out, l2_residual(c.m, c.f, ref));
  }
}

TEST_F(KornCall, SeveralCyclesInOneCallAndTheTarget) {
  one_level_plain_cycles();
  CoreArgs c(poisson2d(8));
  c.eps = 1e-6;
  c.ncyc = 100500;  // fields 1, 0, 0, 500: up to 500 cycles
  ASSERT_EQ(c.call(), 0);
  EXPECT_GT(c.ncyc_done, 1);
  EXPECT_LT(c.ncyc_done, 500);
  EXPECT_LE(c.res_out, 1e-6 * c.res_in);
  EXPECT_NEAR(c.res_out, l2_residual(c.m, c.f, c.u), 1e-12 * c.res_in);
  // One cycle fewer would not have reached the target: rerun from zero.
  CoreArgs d(poisson2d(8));
  d.eps = 1e-6;
  d.ncyc = std::stoi("100" + std::to_string(c.ncyc_done - 1));
  ASSERT_EQ(d.call(), 0);
  EXPECT_GT(d.res_out, 1e-6 * d.res_in);
}

TEST_F(KornCall, JacobiIsBitIdenticalOnOneAndTwoThreads) {
  one_level_plain_cycles();
  kornlt::prm().nrd = 17;
  kornlt::prm().nru = 17;
  auto run = [](int threads) {
    omp_set_num_threads(threads);
    kornlt::prm().nrd = 17;
    kornlt::prm().nru = 17;
    CoreArgs c(poisson2d(40));
    c.eps = 1e-30;
    c.ncyc = 10020;
    EXPECT_EQ(c.call(), 0);
    EXPECT_EQ(c.ncyc_done, 20);
    return c;
  };
  const CoreArgs one = run(1);
  const CoreArgs two = run(2);
  ASSERT_EQ(0, std::memcmp(one.u.data(), two.u.data(), one.u.size() * sizeof(double)));
  EXPECT_LT(one.res_out, one.res_in);
  // Damped Jacobi with omega 0.5, written out: u += 0.5 (f - A u) / diag.
  std::vector<double> ref(one.u.size(), 0.0), old;
  for (int sweep = 0; sweep < 40; ++sweep) {
    old = ref;
    for (int i = 1; i <= one.m.nnu; ++i) {
      double r = one.f[i - 1];
      for (int k = one.m.ia[i - 1] - 1; k < one.m.ia[i] - 1; ++k) r -= one.m.a[k] * old[one.m.ja[k] - 1];
      ref[i - 1] = old[i - 1] + 0.5 * r / one.m.a[one.m.ia[i - 1] - 1];
    }
  }
  for (std::size_t i = 0; i < ref.size(); ++i) ASSERT_NEAR(ref[i], one.u[i], 1e-13) << i;
}

TEST_F(KornCall, HybridGaussSeidelOnTwoThreadsConverges) {
  one_level_plain_cycles();
  omp_set_num_threads(2);
  CoreArgs c(poisson2d(12));  // 72 rows per thread: the sweep runs threaded
  c.eps = 1e-4;
  c.ncyc = 100999;
  ASSERT_EQ(c.call(), 0);
  EXPECT_LE(c.res_out, 1e-4 * c.res_in);
  EXPECT_NEAR(c.res_out, l2_residual(c.m, c.f, c.u), 1e-10 * c.res_in);
}

TEST_F(KornCall, ZeroRightHandSideAndGuessNeedNoCycle) {
  one_level_plain_cycles();
  CoreArgs c(poisson2d(5));
  std::fill(c.f.begin(), c.f.end(), 0.0);
  c.ncyc = 10010;
  ASSERT_EQ(c.call(), 0);
  EXPECT_EQ(c.ncyc_done, 0);
  EXPECT_EQ(c.res_in, 0.0);
  EXPECT_EQ(c.res_out, 0.0);
}

TEST_F(KornCall, RunModeZeroOnlyReleases) {
  CoreArgs c(poisson2d(4));
  c.iswit = 0;
  EXPECT_EQ(c.call(), 0);
  EXPECT_EQ(c.ncyc_done, 0);
  for (double v : c.u) EXPECT_EQ(v, 0.0);
}

// ---------------------------------------------------------------------------
// Bad input: the caller gets the code and the log the message; never a crash.
// ---------------------------------------------------------------------------
class KornBadInput : public KornCall {
 protected:
  void SetUp() override {
    KornCall::SetUp();
    kornlt::prm().mode_mess = 0;
  }
  // Runs the call and returns (ierr, log text).
  static std::pair<int, std::string> run(CoreArgs& c) {
    LogCapture log;
    const int code = c.call();
    return {code, log.text()};
  }
};

TEST_F(KornBadInput, PointerMismatchGives40) {
  CoreArgs c(poisson2d(4));
  c.m.ia.back() -= 1;  // the last row loses an entry: ia(nnu+1)-1 <> nna
  const auto [code, log] = run(c);
  EXPECT_EQ(code, 40);
  EXPECT_NE(log.find("*** ERROR: Wrong pointer value: ia0(nnu+1)-1 <> nna in (korn_main)!"), std::string::npos)
      << log;
}

TEST_F(KornBadInput, NaNInRightHandSideGives211) {
  CoreArgs c(poisson2d(4));
  c.f[5] = std::numeric_limits<double>::quiet_NaN();
  const auto [code, log] = run(c);
  EXPECT_EQ(code, 211);
  EXPECT_NE(log.find("NaN detected in"), std::string::npos) << log;
}

TEST_F(KornBadInput, OverflowInResidualGives210) {
  CoreArgs c(poisson2d(4));
  c.f[0] = 1e300;
  c.f[1] = 1e300;
  const auto [code, log] = run(c);
  EXPECT_EQ(code, 210);
  EXPECT_NE(log.find("Residual overflow caught in"), std::string::npos) << log;
}

TEST_F(KornBadInput, IllegalDigitCodesGive20WithTheirNames) {
  struct Case {
    const char* what;
    int matrix, iswit, ncyc, nsolve;
    const char* text;
  };
  const Case cases[] = {
      {"isym 4", 42, 5, 0, 0, "Illegal value of parameter <isym>!"},
      {"irow0 3", 13, 5, 0, 0, "Illegal value of parameter <irow0>!"},
      {"matrix 0", 0, 5, 0, 0, "Illegal value of parameter <matrix>!"},
      {"iextent 4", 12, 5400000, 0, 0, "Illegal value of parameter <iextent>!"},
      {"n_default 14", 12, 5014000, 0, 0, "Illegal value of parameter <n_default>!"},
      {"igam 7", 12, 5, 71030, 0, "Illegal value of parameter <igam>!"},
      {"ncgrad 5", 12, 5, 15030, 0, "Illegal value of parameter <ncgrad>!"},
      {"nsolve third digit", 12, 5, 0, 123, "invalid input parameter nsolve (KORN-LT)!"},
      {"nxtyp 4", 12, 5, 0, 14, "Illegal value of parameter <nxtyp>!"},
  };
  for (const Case& k : cases) {
    kornlt::ierr() = 0;
    CoreArgs c(poisson2d(12));  // above the one-level size limit is irrelevant: input fails first
    c.matrix = k.matrix;
    c.iswit = k.iswit;
    c.ncyc = k.ncyc;
    c.nsolve = k.nsolve;
    const auto [code, log] = run(c);
    EXPECT_EQ(code, 20) << k.what;
    EXPECT_NE(log.find(k.text), std::string::npos) << k.what << "\n" << log;
  }
}

TEST_F(KornBadInput, NsysOutOfRangeGives50) {
  for (int nsys : {0, 1000, 17}) {  // 17 > nnu = 16
    CoreArgs c(poisson2d(4));
    c.nsys = nsys;
    const auto [code, log] = run(c);
    EXPECT_EQ(code, 50) << nsys;
    const char* want = nsys == 17 ? "Parameter out of range <nsys>nnu>!" : "Parameter out of range <nsys>!";
    EXPECT_NE(log.find(want), std::string::npos) << log;
  }
}

TEST_F(KornBadInput, BrokenMatrixStructureGives40) {
  struct Case {
    const char* what;
    void (*spoil)(Csr&);
    const char* text;
  };
  const Case cases[] = {
      {"ia(1)", [](Csr& m) { m.ia[0] = 2; }, "ia(1)=1 expected!"},
      {"column out of range", [](Csr& m) { m.ja[1] = m.nnu + 5; }, "ja-values exceed the range 1,2,...,nnu!"},
      {"column 0", [](Csr& m) { m.ja[1] = 0; }, "ja-values exceed the range 1,2,...,nnu!"},
      {"duplicate column", [](Csr& m) { m.ja[2] = m.ja[1]; }, "Multiple reference(s) to the same column!"},
      {"diagonal not first", [](Csr& m) { std::swap(m.ja[0], m.ja[1]); std::swap(m.a[0], m.a[1]); },
       "Diagonal entries not at first position!"},
      {"zero diagonal", [](Csr& m) { m.a[0] = 0.0; }, "Zero diagonal entries found!"},
      {"negative diagonal", [](Csr& m) { m.a[0] = -4.0; }, "Negative diagonal entries found!"},
      {"decreasing pointers", [](Csr& m) { m.ia[3] = m.ia[2] - 1; }, "Row length <=0 detected!"},
  };
  for (const Case& k : cases) {
    kornlt::ierr() = 0;
    CoreArgs c(poisson2d(4));
    k.spoil(c.m);
    const auto [code, log] = run(c);
    EXPECT_EQ(code, 40) << k.what << "\n" << log;
    EXPECT_NE(log.find(k.text), std::string::npos) << k.what << "\n" << log;
  }
}

TEST_F(KornBadInput, NonPositiveSizesGive50) {
  CoreArgs c(poisson2d(3));
  c.m.nnu = 0;
  EXPECT_EQ(run(c).first, 50);
  CoreArgs d(poisson2d(3));
  d.m.nnu = -4;
  EXPECT_EQ(run(d).first, 50);
}

}  // namespace
