// The older call: translation of its codes into the core call, and the codes
// that end the process.
#include <gtest/gtest.h>

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

TEST_F(KornSimple, CodesAreTranslated) {
  // ncyc: first field 1 -> 10^(n-1), 3 -> 2*10^(n-1), 4 -> 3*10^(n-1); second
  // field 2 adds 10^(n-2), 4 adds 2*10^(n-2); the tail is added. The third
  // field picks the stopping rule: 1 tolerance 0, 2 absolute eps, 3 eps * max |f|.
  struct Case {
    int ncyc, stored_ncyc;
    double stored_eps;
  };
  for (const Case& k : {Case{10305, 10005, -7.5e-6}, {12312, 11012, -7.5e-6}, {32310, 21010, -7.5e-6},
                        {44305, 32005, -7.5e-6}, {14307, 12007, -7.5e-6}, {11107, 10007, 0.0}, {10205, 10005, -1e-6},
                        {1130, 1000, -7.5e-6}}) {
    kornlt::simple() = kornlt::SimpleControls{};
    call(k.ncyc, 1e-6);
    EXPECT_EQ(kornlt::simple().ncyc.value, k.stored_ncyc) << k.ncyc;
    EXPECT_DOUBLE_EQ(kornlt::simple().eps.value, k.stored_eps) << k.ncyc;
  }
  // iswtch 4 and 5 give the run codes; iout and ifirst 10 and 13 their codes.
  call(10305, 1e-6, 4, 10, 10);
  EXPECT_EQ(kornlt::simple().iswtch.value, 5117099);
  EXPECT_EQ(kornlt::simple().iout.value, -1);
  EXPECT_EQ(kornlt::simple().ifirst.value, 0);
  kornlt::simple() = kornlt::SimpleControls{};
  call(10305, 1e-6, 5, 13, 13);
  EXPECT_EQ(kornlt::simple().iswtch.value, 5117299);
  EXPECT_EQ(kornlt::simple().iout.value, 2);
  EXPECT_EQ(kornlt::simple().ifirst.value, 3);
  // On return ncyc holds the cycles done and eps the final residual.
  kornlt::simple() = kornlt::SimpleControls{};
  EXPECT_EQ(call(10320, 1e-3), 0);
  EXPECT_GT(ncyc_, 0);
  EXPECT_GT(eps_, 0.0);
  EXPECT_LE(eps_, 1e-3 * 7.5);
}

using KornSimpleDeathTest = KornSimple;

TEST_F(KornSimpleDeathTest, ForbiddenCodesEndTheProcess) {
  struct Case {
    int ncyc, iswtch;
    const char* text;
  };
  const char* const forbidden = "ISWTCH value not allowed!(.|\n)*Emergency STOP";
  for (const Case& c : {Case{10305, 1, forbidden}, {10305, 2, forbidden}, {10305, 3, forbidden},
                        {10305, 7, "ISWTCH value <>4 not allowed!"}, {20305, 4, "V\\*-cycle not installed!"},
                        {10505, 4, "Termination criterion not installed!"},
                        {0, 4, "Unknown or not settable parameter levelx"}})
    EXPECT_EXIT(
        {
          kornlt::prm().mode_mess = 0;
          kornlt::prm().logio = kornlt::diag().msg_unit = 0;
          const int one = 1;
          if (c.ncyc == 0) korn_simple_set_integer("levelx", &one, 6);
          call(c.ncyc, 1e-6, c.iswtch);
        },
        testing::ExitedWithCode(EXIT_FAILURE), c.text)
        << c.ncyc << " " << c.iswtch;
}

}  // namespace
