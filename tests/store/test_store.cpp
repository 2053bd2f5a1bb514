// The hierarchy store: counted allocation families, their failure paths,
// the dimension estimate and the views of stacked levels.
#include <gtest/gtest.h>

#include "korn.h"
#include "log/log.hpp"
#include "log/test_support.hpp"
#include "params/params.hpp"
#include "store/store.hpp"

namespace {

using kornlt::store;

class Store : public testing::Test {
 protected:
  void SetUp() override {
    korn_reset_parameters();
    kornlt::ierr() = 0;
    kornlt::u_dealloc();
    kornlt::a_dealloc();
    kornlt::w_dealloc();
    store().memi = store().memd = 0;
  }
  void TearDown() override {
    kornlt::fail_allocation_after(0);
    kornlt::u_dealloc();
    kornlt::a_dealloc();
    kornlt::w_dealloc();
  }
};

TEST_F(Store, CountersReturnToTheirMarksAfterRelease) {
  const int nnu = 100, ndu = 180, nna = 460, nda = 900, ndw = 400;
  kornlt::u_alloc(1, nnu, ndu);
  EXPECT_EQ(store().memi, ndu);
  kornlt::u_alloc(2, nnu, ndu);
  kornlt::u_alloc(3, nnu, ndu);
  kornlt::u_alloc(4, nnu, ndu);
  kornlt::u_alloc(5, nnu, ndu);
  kornlt::a_alloc(nna, nda);
  kornlt::w_alloc(ndw);
  ASSERT_EQ(kornlt::ierr(), 0);
  // Independent sum of the documented amounts.
  const std::int64_t ints = ndu + (ndu + 1) + (ndu - nnu + 1) + 2 + (nda - nna) + ndw;
  const std::int64_t reals = 2 * (ndu - nnu) + (nda - nna) + ndw;
  EXPECT_EQ(store().memi, ints);
  EXPECT_EQ(store().memd, reals);
  EXPECT_EQ(store().maxeff, reals + ints / 2);
  EXPECT_EQ(store().icg.size(), static_cast<std::size_t>(ndu));
  EXPECT_EQ(store().ia.size(), static_cast<std::size_t>(ndu - nnu + 1));
  kornlt::u_dealloc();
  kornlt::a_dealloc();
  kornlt::w_dealloc();
  EXPECT_EQ(store().memi, 0);
  EXPECT_EQ(store().memd, 0);
  kornlt::u_dealloc();  // a second release does nothing
  EXPECT_EQ(store().memi, 0);
}

TEST_F(Store, AllocationFailuresGive70WithTheArraysName) {
  struct Case {
    void (*alloc)();
    const char* text;
  };
  const Case cases[] = {
      {[] { kornlt::u_alloc(1, 10, 20); }, "Allocation failed for <icg> in (u_alloc)"},
      {[] { kornlt::u_alloc(2, 10, 20); }, "Allocation failed for <iw> in (u_alloc)"},
      {[] { kornlt::u_alloc(3, 10, 20); }, "Allocation failed for <ia> in (u_alloc)"},
      {[] { kornlt::u_alloc(4, 10, 20); }, "Allocation failed for <u,f> in (u_alloc)"},
      {[] { kornlt::a_alloc(10, 50); }, "0e-allocation failed for <a,ja> in (a_alloc)"},
      {[] { kornlt::w_alloc(50); }, "Allocation failed for <w,jw> in (w_alloc)"},
  };
  for (const Case& k : cases) {
    kornlt::ierr() = 0;
    const auto before_i = store().memi, before_d = store().memd;
    korn_test::MessageCapture cap;
    kornlt::fail_allocation_after(1);
    k.alloc();
    EXPECT_EQ(kornlt::ierr(), 70) << k.text;
    EXPECT_NE(cap.text().find(std::string("*** ERROR: ") + k.text), std::string::npos) << cap.text();
    EXPECT_EQ(store().memi, before_i) << "counters untouched after a failure";
    EXPECT_EQ(store().memd, before_d);
  }
}

TEST_F(Store, KeepmemKeepsWhatFitsAndReplacesWhatDoesNot) {
  kornlt::prm().keepmem = kornlt::Logical(true);
  kornlt::prm().info_keepmem = kornlt::Logical(true);
  kornlt::u_alloc(1, 10, 20);
  store().icg[4] = 77;
  {
    korn_test::MessageCapture cap;
    kornlt::u_alloc(1, 10, 20);
    EXPECT_NE(cap.text().find("Keeping <icg> in (u_alloc)"), std::string::npos);
  }
  EXPECT_EQ(store().icg[4], 77);
  EXPECT_EQ(store().memi, 20);
  {
    korn_test::MessageCapture cap;
    kornlt::u_alloc(1, 10, 15);  // smaller: released and allocated anew
    EXPECT_NE(cap.text().find("De-allocation <icg> in (u_alloc)"), std::string::npos);
  }
  EXPECT_EQ(store().memi, 15);
}

TEST_F(Store, DimensionEstimate) {
  kornlt::korn_dimensions({1000, 200, 1, 0, 0.0, 0.0, 0.0, 0.0, 5, false});
  ASSERT_EQ(kornlt::ierr(), 0);
  EXPECT_EQ(store().nda, 1100);  // trunc(1.1 nna) for a_cmplx < 1
  EXPECT_EQ(store().ndu, 220);
  EXPECT_EQ(kornlt::prm().ihuge, 2147483646);  // 0 means no limit
  kornlt::korn_dimensions({1, 1, 1, 0, 0.5, 0.5, 0.0, 0.0, 5, false});
  EXPECT_EQ(store().nda, 2);  // never below nna + 1
  kornlt::korn_dimensions({1000, 200, 1, 0, 2.5, 1.8, 2.0, 0.0, 5, false});
  EXPECT_EQ(store().nda, 2502);  // trunc(2.5 * 1.001 * 1000)
  EXPECT_EQ(store().ndu, 360);   // trunc(1.8 * 1.001 * 200)
  EXPECT_EQ(store().ndw, 723);   // trunc(2.0 * 1.005 * 360)
  EXPECT_EQ(store().memd, 1000 + 400);  // a full restart counts level 1
  kornlt::korn_dimensions({1000, 200, 1, 0, 2.5, 1.8, 2.0, 0.0, 5, true});
  EXPECT_EQ(store().nda, 1000);  // no hierarchy: the matrix alone
  EXPECT_EQ(store().ndw, 0);
}

TEST_F(Store, StackedLevelViewsAddressByGlobalIndex) {
  // Level 1: 3 rows, tridiagonal. Level 2: rows 4..5 in the library's arrays.
  std::vector<int> ia{1, 3, 6, 8}, ja{1, 2, 2, 1, 3, 3, 2};
  std::vector<double> a{2, -1, 2, -1, -1, 2, -1}, u(3, 0.0), f(3, 1.0);
  kornlt::bind_level1(3, ia.data(), ja.data(), a.data(), u.data(), f.data());
  kornlt::u_alloc(3, 3, 5);
  kornlt::a_alloc(7, 11);
  kornlt::u_alloc(4, 3, 5);
  store().imin[1] = 1;
  store().imax[1] = 3;
  store().imin[2] = 4;
  store().imax[2] = 5;
  store().ia = {8, 10, 12};  // ia(4), ia(5), ia(6)
  store().ja = {4, 5, 5, 4};  // entries 8..11
  store().a = {3.0, -1.0, 3.0, -1.0};
  const kornlt::LevelView L2 = kornlt::level_view(2);
  EXPECT_EQ(L2.ilo, 4);
  EXPECT_EQ(L2.ihi, 5);
  EXPECT_EQ(L2.ia(4), 8);
  EXPECT_EQ(L2.ia(6), 12);
  EXPECT_EQ(L2.ja(L2.ia(5)), 5);  // diagonal first
  EXPECT_EQ(L2.a(9), -1.0);
  L2.u(5) = 4.5;
  EXPECT_EQ(store().u[1], 4.5);
  const kornlt::LevelView L1 = kornlt::level_view(1);
  EXPECT_EQ(&L1.a(1), a.data());  // level 1 is the caller's own array
  EXPECT_EQ(L1.ia(4), 8);
}

TEST(StoreDeathTest, IllegalSelectorStopsTheRun) {
  EXPECT_EXIT(kornlt::u_alloc(6, 1, 2), testing::ExitedWithCode(EXIT_FAILURE), "Emergency STOP");
  EXPECT_EXIT(kornlt::u_alloc(0, 1, 2), testing::ExitedWithCode(EXIT_FAILURE), "Emergency STOP");
}

}  // namespace
