// The older call: translation of its codes into the core call, the stored
// controls set by name, and the codes that end the process.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>

#include "entry/entry.hpp"
#include "entry/problems.hpp"

namespace {

using korn_test::Csr;
using korn_test::poisson2d;

class KornSimple : public testing::Test {
 protected:
  void SetUp() override {
    korn_reset_parameters();
    kornlt::ierr() = 0;
    kornlt::simple() = kornlt::SimpleControls{};
    kornlt::prm().mode_mess = -3;
    kornlt::prm().ncgrad_default = 0;  // plain cycles: the run itself stays cheap
  }

  // Calls the older entry on a small Poisson problem; returns ierr.
  int call(int ncyc, double eps = 1e-6, int iswtch = 4, int iout = 10, int ifirst = 10) {
    m_ = poisson2d(4);
    f_.assign(16, 2.0);
    f_[3] = -7.5;  // max |f| = 7.5
    u_.assign(16, 0.0);
    ncyc_ = ncyc;
    eps_ = eps;
    int ierr = -99;
    kornlt::korn_simple_call(m_.a.data(), m_.ia.data(), m_.ja.data(), u_.data(), f_.data(), 16, 12, iswtch, iout,
                             10606, ifirst, ncyc_, eps_, ierr);
    return ierr;
  }

  Csr m_;
  std::vector<double> f_, u_;
  int ncyc_ = 0;
  double eps_ = 0.0;
};

TEST_F(KornSimple, CycleCodesAreTranslated) {
  struct Case {
    int in, stored;
  };
  // First field: 1 -> 10^(n-1), 3 -> 2*10^(n-1), 4 -> 3*10^(n-1), 6 -> 6*10^(n-1);
  // second field 2 adds 10^(n-2), 4 adds 2*10^(n-2); the tail is added.
  const Case cases[] = {{10305, 10005}, {12312, 11012}, {32310, 21010}, {44305, 32005},
                        {11107, 10007}, {1130, 1000}, {14307, 12007}};
  for (const Case& k : cases) {
    kornlt::simple() = kornlt::SimpleControls{};
    call(k.in);
    EXPECT_EQ(kornlt::simple().ncyc.value, k.stored) << k.in;
  }
}

TEST_F(KornSimple, ThirdCycleFieldSelectsTheStoppingRule) {
  call(10105, 1e-6);  // 1: tolerance 0
  EXPECT_EQ(kornlt::simple().eps.value, 0.0);
  kornlt::simple() = kornlt::SimpleControls{};
  call(10205, 1e-6);  // 2: absolute target eps
  EXPECT_EQ(kornlt::simple().eps.value, -1e-6);
  kornlt::simple() = kornlt::SimpleControls{};
  call(10305, 1e-6);  // 3: absolute target eps * max |f|
  EXPECT_DOUBLE_EQ(kornlt::simple().eps.value, -7.5e-6);
}

TEST_F(KornSimple, RunCodesAndOutputs) {
  call(10305, 1e-6, 4);
  EXPECT_EQ(kornlt::simple().iswtch.value, 5117099);
  kornlt::simple() = kornlt::SimpleControls{};
  call(10305, 1e-6, 5);
  EXPECT_EQ(kornlt::simple().iswtch.value, 5117299);
  // On return ncyc holds the cycles done and eps the final residual.
  kornlt::simple() = kornlt::SimpleControls{};
  const int ierr = call(10320, 1e-3);
  EXPECT_EQ(ierr, 0);
  EXPECT_GT(ncyc_, 0);
  EXPECT_GT(eps_, 0.0);
  EXPECT_LE(eps_, 1e-3 * 7.5);
}

TEST_F(KornSimple, PrintingAndFirstApproximationCodes) {
  call(10305, 1e-6, 4, /*iout=*/10, /*ifirst=*/10);
  EXPECT_EQ(kornlt::simple().iout.value, -1);
  EXPECT_EQ(kornlt::simple().idump.value, -1);
  EXPECT_EQ(kornlt::simple().ifirst.value, 0);
  kornlt::simple() = kornlt::SimpleControls{};
  call(10305, 1e-6, 4, /*iout=*/13, /*ifirst=*/13);
  EXPECT_EQ(kornlt::simple().iout.value, 2);
  EXPECT_EQ(kornlt::simple().idump.value, 1);  // unchanged
  EXPECT_EQ(kornlt::simple().ifirst.value, 3);
}

TEST_F(KornSimple, ValuesSetByNameAreNotTranslated) {
  const int ncyc = 10044;
  korn_simple_set_integer("ncyc", &ncyc, 4);
  const double eps = 1e-3;
  korn_simple_set_real("eps   ", &eps, 6);  // trailing blanks
  call(12312, 1e-6);
  EXPECT_EQ(kornlt::simple().ncyc.value, 10044);
  EXPECT_EQ(kornlt::simple().eps.value, 1e-3);
  const int control = 3;
  korn_simple_set_integer("control", &control, 7);
  const double hclose = 0.01;
  korn_simple_set_real("hclose", &hclose, 6);
  int got = 0;
  double h = 0.0;
  korn_simple_get_control("control", &got, 7);
  korn_simple_get_hclose("hclose", &h, 6);
  EXPECT_EQ(got, 3);
  EXPECT_EQ(h, 0.01);
  got = -5;
  korn_simple_get_control("other", &got, 5);  // no match: untouched
  EXPECT_EQ(got, -5);
  call(10305);
  EXPECT_EQ(kornlt::prm().cntrl_method, 0);  // control 3 selects method 0
}

TEST_F(KornSimple, CoarseningVariantTable) {
  struct Case {
    int iswit, variant;
  };
  const Case cases[] = {{5100000, 5},  {5110000, 1},   {5111000, 12}, {5112000, 11}, {5113000, 111},
                        {5117000, 11}, {5120000, 4},   {5126000, 42}, {5133000, 211}, {5148000, 511},
                        {5199000, 4},  {5149000, 5},   {5014000, 5}};
  for (const Case& k : cases) EXPECT_EQ(kornlt::coarsening_variant(k.iswit), k.variant) << k.iswit;
}

using KornSimpleDeathTest = KornSimple;

TEST_F(KornSimpleDeathTest, ForbiddenCodesEndTheProcess) {
  auto to_stderr = [] {
    kornlt::prm().mode_mess = 0;
    kornlt::prm().logio = 0;
    kornlt::diag().msg_unit = 0;
  };
  for (int iswtch : {1, 2, 3})
    EXPECT_EXIT((to_stderr(), call(10305, 1e-6, iswtch)), testing::ExitedWithCode(EXIT_FAILURE),
                "ISWTCH value not allowed!(.|\n)*Emergency STOP")
        << iswtch;
  EXPECT_EXIT((to_stderr(), call(10305, 1e-6, 7)), testing::ExitedWithCode(EXIT_FAILURE),
              "ISWTCH value <>4 not allowed!");
  EXPECT_EXIT((to_stderr(), call(20305)), testing::ExitedWithCode(EXIT_FAILURE), "V\\*-cycle not installed!");
  EXPECT_EXIT((to_stderr(), call(10505)), testing::ExitedWithCode(EXIT_FAILURE),
              "Termination criterion not installed!");
  const int v = 1;
  EXPECT_EXIT((to_stderr(), korn_simple_set_integer("levelx", &v, 6)), testing::ExitedWithCode(EXIT_FAILURE),
              "Unknown or not settable parameter levelx");
}

}  // namespace
