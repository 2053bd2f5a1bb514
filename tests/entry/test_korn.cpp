// The core call end to end on the one-level path: results against an
// independent Gauss-Seidel and damped Jacobi, thread independence of Jacobi,
// and bad input reaching the caller as a code and a message.
#include <gtest/gtest.h>
#include <omp.h>

#include <cmath>
#include <cstring>
#include <functional>
#include <limits>
#include <numeric>

#include "entry/problems.hpp"

namespace {

using korn_test::CoreArgs;
using korn_test::Csr;
using korn_test::poisson2d;

// One ascending Gauss-Seidel sweep over all rows, written independently.
void gauss_seidel(const Csr& m, const std::vector<double>& f, std::vector<double>& u) {
  for (int i = 1; i <= m.nnu; ++i) {
    double r = f[i - 1];
    for (int k = m.ia[i - 1]; k < m.ia[i] - 1; ++k) r -= m.a[k] * u[m.ja[k] - 1];
    u[i - 1] = r / m.a[m.ia[i - 1] - 1];
  }
}

// r = f - A u.
std::vector<double> residual(const Csr& m, const std::vector<double>& f, const std::vector<double>& u) {
  std::vector<double> r = f;
  for (int i = 1; i <= m.nnu; ++i)
    for (int k = m.ia[i - 1] - 1; k < m.ia[i] - 1; ++k) r[i - 1] -= m.a[k] * u[m.ja[k] - 1];
  return r;
}

class KornCall : public testing::Test {
 protected:
  void SetUp() override {
    korn_reset_parameters();
    kornlt::ierr() = 0;
    kornlt::prm().mode_mess = -3;
    kornlt::prm().levelx = 1;  // one level, plain cycles (no accelerator)
    kornlt::prm().ncgrad_default = 0;
    omp_set_num_threads(1);
  }
  void TearDown() override { omp_set_num_threads(2); }
};

TEST_F(KornCall, EachCycleMatchesTwoIndependentGaussSeidelSweeps) {
  CoreArgs c(poisson2d(20));
  c.eps = 1e-30;   // never reached: every cycle runs
  c.ncyc = 10001;  // V-type code, no accelerator, one cycle per call
  std::vector<double> ref(c.u);
  for (int cycle = 1; cycle <= 4; ++cycle) {
    ASSERT_EQ(c.call(), 0) << "cycle " << cycle;
    EXPECT_EQ(c.ncyc_done, 1);
    gauss_seidel(c.m, c.f, ref);  // pre- and post-smoothing: one ascending sweep each
    gauss_seidel(c.m, c.f, ref);
    ASSERT_EQ(0, std::memcmp(ref.data(), c.u.data(), ref.size() * sizeof(double))) << "cycle " << cycle;
    const std::vector<double> r = residual(c.m, c.f, ref);
    EXPECT_DOUBLE_EQ(c.res_out, std::sqrt(std::inner_product(r.begin(), r.end(), r.begin(), 0.0)));
  }
}

TEST_F(KornCall, JacobiIsBitIdenticalOnOneAndTwoThreadsAndMatchesTheReference) {
  auto run = [](int threads) {
    omp_set_num_threads(threads);
    kornlt::prm().nrd = kornlt::prm().nru = 17;
    CoreArgs c(poisson2d(40));
    c.eps = 1e-30;
    c.ncyc = 10020;
    EXPECT_EQ(c.call(), 0);
    EXPECT_EQ(c.ncyc_done, 20);
    return c;
  };
  const CoreArgs one = run(1), two = run(2);
  ASSERT_EQ(0, std::memcmp(one.u.data(), two.u.data(), one.u.size() * sizeof(double)));
  // Damped Jacobi with omega 0.5, 40 sweeps: u += 0.5 (f - A u) / diag.
  std::vector<double> ref(one.u.size(), 0.0);
  for (int s = 0; s < 40; ++s) {
    const std::vector<double> r = residual(one.m, one.f, ref);
    for (int i = 1; i <= one.m.nnu; ++i) ref[i - 1] += 0.5 * r[i - 1] / one.m.a[one.m.ia[i - 1] - 1];
  }
  for (std::size_t i = 0; i < ref.size(); ++i) ASSERT_NEAR(ref[i], one.u[i], 1e-13) << i;
}

// Bad input: the caller gets the code and the log the message; never a crash.
TEST_F(KornCall, BadInputReachesTheCallerAsCodeAndMessage) {
  struct Case {
    std::function<void(CoreArgs&)> spoil;
    int code;
    const char* text;
  };
  const Case cases[] = {
      {[](CoreArgs& c) { c.m.ia.back() -= 1; }, 40, "Wrong pointer value: ia0(nnu+1)-1 <> nna in (korn_main)!"},
      {[](CoreArgs& c) { c.m.ja[1] = 0; }, 40, "ja-values exceed the range 1,2,...,nnu!"},
      {[](CoreArgs& c) { c.m.ja[2] = c.m.ja[1]; }, 40, "Multiple reference(s) to the same column!"},
      {[](CoreArgs& c) { std::swap(c.m.ja[0], c.m.ja[1]), std::swap(c.m.a[0], c.m.a[1]); }, 40,
       "Diagonal entries not at first position!"},
      {[](CoreArgs& c) { c.m.a[0] = -4.0; }, 40, "Negative diagonal entries found!"},
      {[](CoreArgs& c) { c.f[5] = std::numeric_limits<double>::quiet_NaN(); }, 211, "NaN detected in"},
      {[](CoreArgs& c) { c.f[0] = c.f[1] = 1e300; }, 210, "Residual overflow caught in"},
      {[](CoreArgs& c) { c.matrix = 42; }, 20, "Illegal value of parameter <isym>!"},
      {[](CoreArgs& c) { c.matrix = 0; }, 20, "Illegal value of parameter <matrix>!"},
      {[](CoreArgs& c) { c.iswit = 5400000; }, 20, "Illegal value of parameter <iextent>!"},
      {[](CoreArgs& c) { c.ncyc = 71030; }, 20, "Illegal value of parameter <igam>!"},
      {[](CoreArgs& c) { c.nsolve = 123; }, 20, "invalid input parameter nsolve (KORN-LT)!"},
      {[](CoreArgs& c) { c.nsys = 0; }, 50, "Parameter out of range <nsys>!"},
      {[](CoreArgs& c) { c.nsys = 17; }, 50, "Parameter out of range <nsys>nnu>!"},  // nnu = 16
      {[](CoreArgs& c) { c.m.nnu = -4; }, 50, ""},
  };
  korn_reset_parameters();  // the default method
  kornlt::prm().mode_mess = 0;
  for (const Case& k : cases) {
    kornlt::ierr() = 0;
    CoreArgs c(poisson2d(4));
    k.spoil(c);
    korn_test::LogCapture log;
    EXPECT_EQ(c.call(), k.code) << k.text;
    EXPECT_NE(log.text().find(k.text), std::string::npos) << k.text << "\n" << log.text();
  }
}

}  // namespace
