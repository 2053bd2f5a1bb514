// The hierarchy store: the counted allocation families, their failures with
// the array's name, and the stop on an illegal selector.
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
    TearDown();
    kornlt::ierr() = 0;
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
  for (int selector = 1; selector <= 5; ++selector) kornlt::u_alloc(selector, nnu, ndu);
  kornlt::a_alloc(nna, nda);
  kornlt::w_alloc(ndw);
  ASSERT_EQ(kornlt::ierr(), 0);
  // Independent sum of what each array takes: icg 1..ndu, iw 1..ndu+1, ia and
  // u,f behind level 1, iu and ip one each, a,ja behind the level-1 entries, w,jw.
  const std::int64_t ints = ndu + (ndu + 1) + (ndu - nnu + 1) + 2 + (nda - nna) + ndw;
  const std::int64_t reals = 2 * (ndu - nnu) + (nda - nna) + ndw;
  EXPECT_EQ(store().memi, ints);
  EXPECT_EQ(store().memd, reals);
  EXPECT_EQ(store().maxeff, reals + ints / 2);
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

TEST(StoreDeathTest, IllegalSelectorStopsTheRun) {
  for (int selector : {0, 6})
    EXPECT_EXIT(kornlt::u_alloc(selector, 1, 2), testing::ExitedWithCode(EXIT_FAILURE), "Emergency STOP");
}

}  // namespace
