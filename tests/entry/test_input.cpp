// korn_input: decoding of the digit codes into the working settings, the
// defaults it fills in, and the values it refuses.
#include <gtest/gtest.h>

#include <vector>

#include "korn.h"
#include "log/log.hpp"
#include "log/test_support.hpp"
#include "params/params.hpp"

namespace {

using kornlt::Input;
using kornlt::input;
using kornlt::prm;

class KornInput : public testing::Test {
 protected:
  void SetUp() override {
    korn_reset_parameters();
    kornlt::ierr() = 0;
    prm().mode_mess = -3;
    input() = Input{};
  }

  // Decodes a call with the given codes on a 1000-variable scalar problem.
  int decode(int iswit = 5, int ncyc = 0, int nsolve = 0, int matrix = 12, int nsys = 1) {
    iscale_.assign(static_cast<std::size_t>(std::max(nsys, 1)), 0);
    kornlt::ierr() = 0;
    kornlt::korn_input(kornlt::InputArgs{1000, 5000, nsys, nsolve, iscale_.data(), 0, nsys > 1 ? 1000 : 1, 1,
                                         iswit, matrix, ncyc, -1, -1, 0.0, 0.0, 0.0, 0.0});
    return kornlt::ierr();
  }
  std::vector<int> iscale_;
};

TEST_F(KornInput, RunSwitchFields) {
  ASSERT_EQ(decode(5), 0);
  EXPECT_EQ(input().run_mode, 5);
  EXPECT_EQ(input().n_default, 40);  // 0 reads as 40
  EXPECT_EQ(input().ncg, 5);
  EXPECT_EQ(input().nwt, 2);
  ASSERT_EQ(decode(4117299), 0);
  EXPECT_EQ(input().run_mode, 4);
  EXPECT_EQ(input().iextent, 1);
  EXPECT_EQ(input().n_default, 17);
  EXPECT_EQ(input().norm_typ, 2);
  EXPECT_EQ(input().scratch_unit, 99);
  ASSERT_EQ(decode(5199000), 0);  // 99 behaves as 20
  EXPECT_EQ(input().n_default, 20);
  EXPECT_EQ(input().ncg, 4);
  EXPECT_EQ(decode(5014000), 20);  // 14 is no coarsening pair
  EXPECT_EQ(input().bad_name, "n_default");
}

TEST_F(KornInput, CoarseningPairsOfAllDefaults) {
  // Independent transcription of the (ncg, nwt) table.
  struct Row {
    int n_default, ncg, nwt;
  };
  const Row rows[] = {{10, 1, 1},   {11, 12, 1},  {12, 11, 1},  {13, 111, 1}, {15, 1, 2},   {16, 12, 2},
                      {17, 11, 2},  {18, 111, 2}, {20, 4, 2},   {21, 42, 2},  {22, 41, 2},  {23, 411, 2},
                      {25, 4, 3},   {26, 42, 3},  {27, 41, 3},  {28, 411, 3}, {30, 2, 1},   {31, 22, 1},
                      {32, 21, 1},  {33, 211, 1}, {35, 2, 2},   {36, 22, 2},  {37, 21, 2},  {38, 211, 2},
                      {40, 5, 2},   {41, 52, 2},  {42, 51, 2},  {43, 511, 2}, {45, 5, 3},   {46, 52, 3},
                      {47, 51, 3},  {48, 511, 3}};
  for (const Row& r : rows) {
    ASSERT_EQ(decode(5000000 + r.n_default * 1000), 0) << r.n_default;
    EXPECT_EQ(input().ncg, r.ncg) << r.n_default;
    EXPECT_EQ(input().nwt, r.nwt) << r.n_default;
  }
  for (int bad : {14, 19, 24, 29, 34, 39, 44, 49, 50, 55, 60}) EXPECT_EQ(decode(5000000 + bad * 1000), 20) << bad;
}

TEST_F(KornInput, CycleCode) {
  ASSERT_EQ(decode(5, 1), 0);  // ncyc = 1: igam 1, every other field from defaults
  EXPECT_EQ(input().igam, 1);
  EXPECT_EQ(input().ncgrad, 1);
  EXPECT_EQ(input().nkdim, 30);
  EXPECT_EQ(input().ncycle, 0);
  prm().ncyc_min = 4;
  ASSERT_EQ(decode(5, 1), 0);
  EXPECT_EQ(input().ncycle, 4);  // raised to ncyc_min
  prm().ncyc_min = 0;
  ASSERT_EQ(decode(5, 0), 0);  // ncyc_default 11030
  EXPECT_EQ(input().ncgrad, 1);
  EXPECT_EQ(input().ncycle, 30);
  ASSERT_EQ(decode(5, 23912), 0);
  EXPECT_EQ(input().igam, 2);
  EXPECT_EQ(input().ncgrad, 3);
  EXPECT_EQ(input().nkdim, 20);  // 9 means 20
  EXPECT_EQ(input().ncycle, 12);
  ASSERT_EQ(decode(5, 13412), 0);
  EXPECT_EQ(input().nkdim, 5);  // 1..8 mean digit + 1
  ASSERT_EQ(decode(5, 50050), 0);  // one-level method without accelerator gets one
  EXPECT_EQ(input().ncgrad, 1);
  EXPECT_TRUE(input().one_level);
  EXPECT_EQ(decode(5, 71030), 20);
  EXPECT_EQ(input().bad_name, "igam");
  EXPECT_EQ(decode(5, 15030), 20);
  EXPECT_EQ(input().bad_name, "ncgrad");
}

TEST_F(KornInput, SmoothingCodes) {
  // A non-CG accelerator keeps the codes apart from the symmetry rule.
  struct Case {
    int nrd, nru, want_nrd, want_nru;
  };
  const Case cases[] = {{1, 1, 131, 131}, {-1, 2, -131, 231}, {0, 0, 0, 0}, {12, -3, 12, -331}, {4711, 7, 4711, 731}};
  for (const Case& k : cases) {
    prm().nrd = k.nrd;
    prm().nru = k.nru;
    ASSERT_EQ(decode(5, 12030), 0);
    EXPECT_EQ(input().nrd, k.want_nrd) << k.nrd;
    EXPECT_EQ(input().nru, k.want_nru) << k.nru;
  }
  // CG makes the post-smoothing the reverse of the pre-smoothing.
  prm().nrd = 131;
  prm().nru = 131;
  ASSERT_EQ(decode(5, 11030), 0);
  EXPECT_EQ(input().nru, -131);
  prm().nrd = 0;
  prm().nru = 231;
  ASSERT_EQ(decode(5, 11030), 0);
  EXPECT_EQ(input().nrd, -231);
  // Unset codes: 131, or 12 for a one-level run of plain Gauss-Seidel.
  prm().nrd = prm().nru = kornlt::kUnsetInt;
  ASSERT_EQ(decode(5, 12030), 0);
  EXPECT_EQ(input().nrd, 131);
  prm().levelx = 1;
  ASSERT_EQ(decode(5, 12030), 0);
  EXPECT_EQ(input().nrd, 12);
  EXPECT_EQ(input().nru, 12);
}

TEST_F(KornInput, EncodedRealsAndValuesInForce) {
  prm().etr = -1.0;
  prm().etr_default = 3.3;  // deliberately not used for a negative etr
  ASSERT_EQ(decode(), 0);
  EXPECT_EQ(input().etr, 12.2);
  double etr = 0.0;
  getdble("etr", &etr, 3);
  EXPECT_EQ(etr, 12.2);
  prm().ecg = -5.0;
  prm().ecg_default = 31.5;
  ASSERT_EQ(decode(), 0);
  EXPECT_EQ(input().ecg, 31.5);
  int nrd = 0;
  getinteger("nrd", &nrd, 3);
  EXPECT_EQ(nrd, input().nrd);
  prm().nrc = 64;  // leading digit 6..9 stands alone
  ASSERT_EQ(decode(), 0);
  EXPECT_EQ(input().nrc, 6);
  prm().nrc = 0;
  ASSERT_EQ(decode(), 0);
  EXPECT_EQ(input().nrc, 7);
}

TEST_F(KornInput, ComplexityLimits) {
  iscale_.assign(1, 0);
  kornlt::korn_input(kornlt::InputArgs{1000, 5000, 1, 0, iscale_.data(), 0, 1, 1, 5, 12, 0, -1, -1, 3.0, 0.5,
                                       0.0, 1.0});
  ASSERT_EQ(kornlt::ierr(), 0);
  EXPECT_EQ(input().a_cmplx, 3.0);
  EXPECT_EQ(input().g_cmplx, prm().g_cmplx_default);
  EXPECT_EQ(input().w_avrge, 1.0);
  EXPECT_EQ(prm().b_cmplx, prm().b_cmplx_default);  // written back
  prm().a_cmplx_default = 0.5;  // never below 1.1
  kornlt::korn_input(kornlt::InputArgs{1000, 5000, 1, 0, iscale_.data(), 0, 1, 1, 5, 12, 0, -1, -1, 0.0, 0.0,
                                       0.0, 0.0});
  EXPECT_EQ(input().a_cmplx, 1.1);
  // An aggressive coarsening code takes the _agg_default values.
  kornlt::korn_input(kornlt::InputArgs{1000, 5000, 1, 0, iscale_.data(), 0, 1, 1, 5041000, 12, 0, -1, -1, 0.0,
                                       0.0, 0.0, 0.0});
  ASSERT_EQ(input().ncg, 52);
  EXPECT_EQ(input().g_cmplx, std::max(1.1, prm().g_cmplx_agg_default));
}

TEST_F(KornInput, SolverCodeAndScalarSystems) {
  EXPECT_EQ(decode(5, 0, 12), 0);
  EXPECT_EQ(decode(5, 0, 123), 20);  // third digit set
  EXPECT_EQ(decode(5, 0, 14), 20);   // nxtyp 4
  EXPECT_EQ(decode(5, 0, 19), 20);   // Uzawa needs nsys > 1
  EXPECT_EQ(decode(5, 0, 22), 0);    // unknown-based falls back to variable-based
  EXPECT_EQ(input().napproach, 1);
  EXPECT_EQ(decode(5, 0, 32), 20);   // point-based: scalar systems only
  EXPECT_EQ(decode(5, 0, 1, 12, 2), -1);  // a system treated as scalar: warning
  EXPECT_EQ(decode(5, 0, 2, 12, 1000), 50);
}

TEST_F(KornInput, MatrixCode) {
  EXPECT_EQ(decode(5, 0, 0, 22), 0);
  EXPECT_EQ(input().isym, 2);
  EXPECT_EQ(input().ncgrad, 2);  // CG becomes BiCGstab on a non-symmetric matrix
  EXPECT_EQ(decode(5, 0, 0, 11), 0);
  EXPECT_EQ(iscale_[0], 1);  // zero row sums: iscale(1) = 2 - irow0
  EXPECT_TRUE(input().scaled);
  EXPECT_EQ(decode(5, 0, 0, 13), 20);
  EXPECT_EQ(input().bad_name, "irow0");
  EXPECT_EQ(decode(5, 0, 0, 42), 20);
  EXPECT_EQ(input().bad_name, "isym");
  EXPECT_EQ(decode(5, 0, 0, 32), 50);        // half matrix needs a one-level method
  EXPECT_EQ(decode(5, 50030, 0, 32), 0);
  EXPECT_FALSE(input().proper_matrix);
  EXPECT_EQ(decode(5, 60030, 0, 12), 50);    // IC(0) needs a half matrix
}

TEST_F(KornInput, StoppingCodes) {
  ASSERT_EQ(decode(), 0);  // defaults: icrits 110, iauto_stop 11
  EXPECT_EQ(input().icrits, (std::array<int, 3>{1, 1, 0}));
  EXPECT_EQ(input().quasi_limit, 1);
  EXPECT_EQ(input().num_old_res, 0);
  prm().icrits = 310;
  EXPECT_EQ(decode(), 20);
  prm().icrits = 111;
  prm().iauto_stop = 0;
  ASSERT_EQ(decode(), 0);  // criterion 2 raises the level
  EXPECT_EQ(input().iauto_stop_level, 1);
  EXPECT_EQ(input().num_old_res, 3);
  prm().icrits = 110;
  prm().iauto_stop = 1002050;  // num_old_res 2 < num_old_apps 5
  EXPECT_EQ(decode(), -50);
  EXPECT_EQ(input().num_old_res, 5);
}

TEST_F(KornInput, RangeChecksOfRegistryValues) {
  struct Case {
    void (*set)();
    const char* name;
  };
  const Case cases[] = {
      {[] { prm().inner_accel = 0; }, "inner_accel"},     {[] { prm().nstar_typ = 4; }, "nstar_typ"},
      {[] { prm().ndyn_smo = 12; }, "ndyn_smo"},          {[] { prm().ntyp_accel = 30; }, "ntyp_accel[1:1]"},
      {[] { prm().ntyp_galerkin = 7; }, "ntyp_galerkin"}, {[] { prm().gmax_multipass = 1.5; }, "gmax_multipass"},
      {[] { prm().ninter_omp = 2; }, "ninter_omp"},       {[] { prm().cl_order = 9; }, "cl_order"},
      {[] { prm().use_ic = 3; }, "use_ic"},               {[] { prm().nth_res_scratch = -1; }, "nth_res_scratch"},
  };
  for (const Case& k : cases) {
    korn_reset_parameters();
    prm().mode_mess = -3;
    k.set();
    EXPECT_EQ(decode(), 20) << k.name;
    EXPECT_EQ(input().bad_name, k.name);
  }
  korn_reset_parameters();
  prm().mode_mess = -3;
  prm().nxtyp_coarse = 3;
  EXPECT_EQ(decode(), 20);
}

}  // namespace
