// korn_input: decoding of the digit codes into the working settings, the
// defaults it fills in, and the values it refuses.
#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "korn.h"
#include "log/log.hpp"
#include "params/params.hpp"

namespace {

using kornlt::input;
using kornlt::prm;

class KornInput : public testing::Test {
 protected:
  void SetUp() override {
    korn_reset_parameters();
    prm().mode_mess = -3;
    input() = kornlt::Input{};
  }
  // Decodes a call with the given codes on a 1000-variable problem; returns ierr.
  int decode(int iswit = 5, int ncyc = 0, int nsolve = 0, int matrix = 12, int nsys = 1, double a_cmplx = 0.0,
             double w_avrge = 0.0) {
    iscale_.assign(static_cast<std::size_t>(std::max(nsys, 1)), 0);
    kornlt::ierr() = 0;
    kornlt::korn_input(kornlt::InputArgs{1000, 5000, nsys, nsolve, iscale_.data(), 0, nsys > 1 ? 1000 : 1, 1, iswit,
                                         matrix, ncyc, -1, -1, a_cmplx, 0.0, 0.0, w_avrge});
    return kornlt::ierr();
  }
  std::vector<int> iscale_;
};

TEST_F(KornInput, RefusedCodesGiveTheirCodeAndName) {
  struct Case {
    void (*set)();
    int iswit, ncyc, nsolve, matrix, nsys;
    int code;
    const char* name;  // the refused parameter, "" when not checked
  };
  const auto none = [] {};
  const Case cases[] = {
      {none, 5014000, 0, 0, 12, 1, 20, "n_default"},  // 14 is no coarsening pair
      {none, 5, 15030, 0, 12, 1, 20, "ncgrad"},
      {none, 5, 0, 0, 13, 1, 20, "irow0"},
      {none, 5, 0, 14, 12, 1, 20, ""},   // nxtyp 4
      {none, 5, 0, 0, 32, 1, 50, ""},    // a half matrix needs a one-level method
      {none, 5, 60030, 0, 12, 1, 50, ""},  // IC(0) needs a half matrix
      {none, 5, 0, 2, 12, 1000, 50, ""},
      {none, 5, 0, 1, 12, 2, -1, ""},  // a system treated as scalar: a warning
      {[] { prm().icrits = 310; }, 5, 0, 0, 12, 1, 20, ""},
      {[] { prm().iauto_stop = 1002050; }, 5, 0, 0, 12, 1, -50, ""},  // num_old_res 2 < num_old_apps 5
      {[] { prm().inner_accel = 0; }, 5, 0, 0, 12, 1, 20, "inner_accel"},
      {[] { prm().ntyp_accel = 30; }, 5, 0, 0, 12, 1, 20, "ntyp_accel[1:1]"},
      {[] { prm().gmax_multipass = 1.5; }, 5, 0, 0, 12, 1, 20, "gmax_multipass"},
      {[] { prm().nth_res_scratch = -1; }, 5, 0, 0, 12, 1, 20, "nth_res_scratch"},
  };
  for (const Case& c : cases) {
    SetUp();
    c.set();
    EXPECT_EQ(decode(c.iswit, c.ncyc, c.nsolve, c.matrix, c.nsys), c.code)
        << c.iswit << " " << c.ncyc << " " << c.nsolve << " " << c.matrix << " " << c.name;
    EXPECT_TRUE(!*c.name || input().bad_name == c.name) << input().bad_name;
  }
}

// One decoded setting per row, from the codes of the call and the registry.
TEST_F(KornInput, DecodedSettings) {
  using I = kornlt::Input;
  struct Case {
    void (*set)();
    int iswit, ncyc, nsolve, matrix;
    int I::*field;
    int want;
  };
  const auto none = [] {};
  const auto gs = [] { prm().nrd = prm().nru = kornlt::kUnsetInt, prm().levelx = 1; };
  const Case cases[] = {
      // iswit 4117299: run mode 4, iextent 1, n_default 17, norm_typ 2, scratch unit 99.
      {none, 4117299, 0, 0, 12, &I::run_mode, 4}, {none, 4117299, 0, 0, 12, &I::iextent, 1},
      {none, 4117299, 0, 0, 12, &I::n_default, 17}, {none, 4117299, 0, 0, 12, &I::norm_typ, 2},
      {none, 4117299, 0, 0, 12, &I::scratch_unit, 99},
      // ncyc 23912: igam 2, ncgrad 3, nkdim digit 9 -> 20, 12 cycles; 13412: nkdim 4 -> 5;
      // 1 takes the rest from the defaults, cycles raised to ncyc_min; a one-level
      // method (5) without accelerator gets one.
      {none, 5, 23912, 0, 12, &I::igam, 2}, {none, 5, 23912, 0, 12, &I::ncgrad, 3},
      {none, 5, 23912, 0, 12, &I::nkdim, 20}, {none, 5, 23912, 0, 12, &I::ncycle, 12},
      {none, 5, 13412, 0, 12, &I::nkdim, 5},
      {[] { prm().ncyc_min = 4; }, 5, 1, 0, 12, &I::ncycle, 4}, {none, 5, 50050, 0, 12, &I::ncgrad, 1},
      // Smoothing codes (a non-CG accelerator): a single digit d stands for d31, sign
      // kept. CG makes one the reverse of the other. Unset: 131, or 12 for one-level
      // Gauss-Seidel.
      {[] { prm().nrd = -1, prm().nru = 2; }, 5, 12030, 0, 12, &I::nrd, -131},
      {[] { prm().nrd = -1, prm().nru = 2; }, 5, 12030, 0, 12, &I::nru, 231},
      {[] { prm().nrd = 12, prm().nru = -3; }, 5, 12030, 0, 12, &I::nru, -331},
      {[] { prm().nrd = 131, prm().nru = 131; }, 5, 11030, 0, 12, &I::nru, -131},
      {[] { prm().nrd = 0, prm().nru = 231; }, 5, 11030, 0, 12, &I::nrd, -231},
      {[] { prm().nrd = prm().nru = kornlt::kUnsetInt; }, 5, 12030, 0, 12, &I::nrd, 131},
      {gs, 5, 12030, 0, 12, &I::nru, 12},
      {[] { prm().nrc = 64; }, 5, 0, 0, 12, &I::nrc, 6},  // a leading digit 6..9 stands alone
      // Matrix and solver codes: CG becomes BiCGstab on a non-symmetric matrix;
      // unknown-based falls back to variable-based.
      {none, 5, 0, 0, 22, &I::isym, 2}, {none, 5, 0, 0, 22, &I::ncgrad, 2}, {none, 5, 0, 22, 12, &I::napproach, 1},
      // Stopping: criterion 2 raises the level of the automatic stop.
      {[] { prm().icrits = 111, prm().iauto_stop = 0; }, 5, 0, 0, 12, &I::iauto_stop_level, 1},
      {[] { prm().icrits = 111, prm().iauto_stop = 0; }, 5, 0, 0, 12, &I::num_old_res, 3},
  };
  for (const Case& c : cases) {
    SetUp();
    c.set();
    ASSERT_EQ(decode(c.iswit, c.ncyc, c.nsolve, c.matrix), 0) << c.iswit << " " << c.ncyc << " " << c.matrix;
    EXPECT_EQ(input().*c.field, c.want) << c.iswit << " " << c.ncyc << " " << c.nsolve << " " << c.matrix;
  }
  ASSERT_EQ(decode(5, 50030, 0, 32), 0);
  EXPECT_FALSE(input().proper_matrix);
  ASSERT_EQ(decode(5, 0, 0, 11), 0);
  EXPECT_EQ(iscale_[0], 1);  // zero row sums: iscale(1) = 2 - irow0
}

TEST_F(KornInput, CoarseningPairsAndComplexities) {
  // n_default -> (ncg, nwt), transcribed from the table; 0 reads as 40, 99 as 20.
  struct Row {
    int n_default, ncg, nwt;
  };
  for (const Row r : {Row{10, 1, 1}, {11, 12, 1}, {13, 111, 1}, {15, 1, 2}, {22, 41, 2}, {28, 411, 3}, {33, 211, 1},
                      {36, 22, 2}, {47, 51, 3}, {0, 5, 2}, {99, 4, 2}}) {
    ASSERT_EQ(decode(5000000 + r.n_default * 1000), 0) << r.n_default;
    EXPECT_EQ(input().ncg, r.ncg) << r.n_default;
    EXPECT_EQ(input().nwt, r.nwt) << r.n_default;
  }
  // An aggressive coarsening code takes the _agg_default complexity, never below 1.1.
  ASSERT_EQ(decode(5041000), 0);
  EXPECT_EQ(input().ncg, 52);
  EXPECT_EQ(input().g_cmplx, std::max(1.1, prm().g_cmplx_agg_default));
  // A negative etr falls back to 12.2 (not etr_default), a negative ecg to ecg_default.
  prm().etr = -1.0, prm().etr_default = 3.3;
  prm().ecg = -5.0, prm().ecg_default = 31.5;
  ASSERT_EQ(decode(5, 0, 0, 12, 1, 3.0, 1.0), 0);
  EXPECT_EQ(input().etr, 12.2);
  EXPECT_EQ(input().ecg, 31.5);
  EXPECT_EQ(input().a_cmplx, 3.0);
  EXPECT_EQ(input().w_avrge, 1.0);
  EXPECT_EQ(prm().b_cmplx, prm().b_cmplx_default);  // written back
  prm().a_cmplx_default = 0.5;
  ASSERT_EQ(decode(), 0);
  EXPECT_EQ(input().a_cmplx, 1.1);
}

}  // namespace
