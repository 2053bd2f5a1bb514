// Checked allocation: counting under each accounting mode, the strict flags,
// refused memory with its exact report, zeroing in threads, and the arena's
// overflow.
#include <gtest/gtest.h>
#include <omp.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "korn.h"
#include "log/log.hpp"
#include "log/test_support.hpp"
#include "params/params.hpp"
#include "store/checked_alloc.hpp"
#include "store/store.hpp"

namespace {

using kornlt::Checked;
using kornlt::Checked2d;
using kornlt::Checked3d;
using kornlt::store;

// The exact block the coded message routine writes for a checked routine.
std::string coded(const std::string& routine, const std::string& words) {
  return "\n*** ERROR: error code 70 " + routine + " : " + words + "\n\n";
}

using Counters = std::array<std::int64_t, 4>;  // memi, memd, memi_p, memd_p
Counters counters() { return {store().memi, store().memd, store().memi_p, store().memd_p}; }
// Where `ints` integers and `reals` reals go under `mode`: 2 memi/memd, 1 the _p pair, else nowhere.
Counters after(Counters c, int mode, std::int64_t ints, std::int64_t reals) {
  if (mode == 2 || mode == 1) {
    c[mode == 2 ? 0 : 2] += ints;
    c[mode == 2 ? 1 : 3] += reals;
  }
  return c;
}

class CheckedAlloc : public testing::Test {
 protected:
  void SetUp() override {
    korn_reset_parameters();
    kornlt::ierr() = 0;
    kornlt::checked_alloc_state() = {};
    store().memi = 1000, store().memd = 2000, store().memi_p = 300, store().memd_p = 400;
    // The source of the copies, over -1..3, made before any mark is taken.
    ASSERT_TRUE(kornlt::amg_alloc2_real(src_r_, -1, 3));
    for (int i = -1; i <= 3; ++i) src_r_(i) = 0.25 * i;
  }
  void TearDown() override {
    kornlt::fail_checked_allocation_after(0);
    kornlt::checked_alloc_state() = {};
    kornlt::ierr() = 0;
    store().memi = store().memd = store().memi_p = store().memd_p = 0;
  }

  // One row per family, element type and shape. alloc(s) makes the array of
  // size parameter s; elems(s) is its element count worked out from the bounds given.
  struct Form {
    std::string routine, release_routine;
    bool handle, integer;
    std::function<bool(int)> alloc;
    std::function<std::int64_t(int)> elems;
    std::function<bool()> release;
    std::function<std::int64_t()> size;  // -1 for an absent array
  };
  std::vector<Form> forms() {
    using namespace kornlt;
    auto sz = [](auto& x) { return std::function<std::int64_t()>([&x] { return x.exists() ? x.size() : -1; }); };
    return {
        {"amg_alloc2_int", "amg_dealloc_int", true, true, [&](int s) { return amg_alloc2_int(i2_, -s, s); },
         [](int s) { return 2 * s + 1; }, [&] { return amg_dealloc_int(i2_); }, sz(i2_)},
        {"amg_alloc_3d_real", "amg_dealloc_3d_real", true, false,
         [&](int s) { return amg_alloc_3d_real(r3d_, s, 2, s + 2); }, [](int s) { return s * 2 * (s + 2); },
         [&] { return amg_dealloc_3d_real(r3d_); }, sz(r3d_)},
        {"amg_a_alloc_2d_int", "amg_a_dealloc_2d_int", false, true,
         [&](int s) { return amg_a_alloc_2d_int(ai2d_, s, s + 1); }, [](int s) { return s * (s + 1); },
         [&] { return amg_a_dealloc_2d_int(ai2d_); }, sz(ai2d_)},
        {"amg_dup2_real_array", "amg_a_dealloc_real", false, false,
         [&](int s) { return amg_dup2_real_array(dup2r_, src_r_, -3, s); }, [](int s) { return s + 4; },
         [&] { return amg_a_dealloc_real(dup2r_); }, sz(dup2r_)},
    };
  }

  Checked<int> i2_;
  Checked<double> src_r_, dup2r_;
  Checked2d<int> ai2d_;
  Checked3d<double> r3d_;
};

TEST_F(CheckedAlloc, CountersFollowTheAccountingModeAndReturnToTheirMarks) {
  for (int mode : {2, 1, 0, 7}) {
    SCOPED_TRACE("accounting mode " + std::to_string(mode));
    kornlt::checked_alloc_state().accounting_mode = mode;
    const Counters mark = counters();
    std::int64_t ints = 0, reals = 0;
    for (const Form& f : forms()) {
      ASSERT_TRUE(f.alloc(5)) << f.routine;
      EXPECT_EQ(f.size(), f.elems(5)) << f.routine;
      (f.integer ? ints : reals) += f.elems(5);
      EXPECT_EQ(counters(), after(mark, mode, ints, reals)) << f.routine;
    }
    // The copy over -3..5: the source inside -1..3, zero outside.
    for (int i = -3; i <= 5; ++i) EXPECT_EQ(dup2r_(i), i >= -1 && i <= 3 ? 0.25 * i : 0.0) << i;
    // Growth keeps the content, zeroes the new part and counts the difference.
    i2_(5) = 77;
    ASSERT_TRUE(kornlt::extent_pntint_array(i2_, 11));
    EXPECT_TRUE(i2_.lo() == -5 && i2_(5) == 77 && i2_(11) == 0);
    EXPECT_EQ(counters(), after(mark, mode, ints + 6, reals));
    // A release takes from the counter the array went to, whatever the mode now.
    kornlt::checked_alloc_state().accounting_mode = 2;
    for (const Form& f : forms()) ASSERT_TRUE(f.release()) << f.release_routine;
    EXPECT_EQ(counters(), mark);
  }
}

// Per form: refused memory, then an existing target under the strict flag of
// its family (reported, left as it was) and under the other setting (replaced,
// the old array no longer counted), then a release of an absent array.
TEST_F(CheckedAlloc, FailuresAndStrictFlagsOfEachFamily) {
  for (const bool strict_handle : {true, false}) {
    kornlt::checked_alloc_state().strict_associated = strict_handle;
    kornlt::checked_alloc_state().strict_allocated = !strict_handle;
    for (const Form& f : forms()) {
      SCOPED_TRACE(f.routine + (strict_handle ? " strict handles" : " strict owned arrays"));
      const Counters mark = counters();
      {
        korn_test::MessageCapture cap;
        kornlt::fail_checked_allocation_after(1);
        EXPECT_FALSE(f.alloc(3));
        EXPECT_EQ(cap.text(), coded(f.routine, "alloc failed"));
      }
      EXPECT_EQ(kornlt::ierr(), 70);
      EXPECT_EQ(f.size(), -1);
      EXPECT_EQ(counters(), mark);
      kornlt::ierr() = 0;
      ASSERT_TRUE(f.alloc(3));
      korn_test::MessageCapture cap;
      if (f.handle == strict_handle) {
        EXPECT_FALSE(f.alloc(5));
        EXPECT_EQ(cap.text(), coded(f.routine, f.handle ? "already associated" : "already allocated"));
        EXPECT_EQ(kornlt::ierr(), 70);
        EXPECT_EQ(f.size(), f.elems(3));
        EXPECT_EQ(counters(), after(mark, 2, f.integer ? f.elems(3) : 0, f.integer ? 0 : f.elems(3)));
      } else {
        EXPECT_TRUE(f.alloc(5));
        EXPECT_EQ(cap.text(), "");
        EXPECT_EQ(f.size(), f.elems(5));
        EXPECT_EQ(counters(), after(mark, 2, f.integer ? f.elems(5) : 0, f.integer ? 0 : f.elems(5)));
      }
      kornlt::ierr() = 0;
      ASSERT_TRUE(f.release());
      EXPECT_EQ(counters(), mark);
      korn_test::MessageCapture absent;
      EXPECT_FALSE(f.release());
      EXPECT_EQ(absent.text(), coded(f.release_routine, f.handle ? "not associated" : "not allocated"));
      kornlt::ierr() = 0;
    }
  }
}

// The multi-dimensional forms zero what they allocate in static row blocks, in
// threads or not; freed memory of the same size is filled first so that a
// skipped block shows.
TEST_F(CheckedAlloc, MultiDimensionalFormsAreZeroedSerialAndThreaded) {
  kornlt::prm().nmin_vector = 1;
  for (int nt : {1, 2}) {
    omp_set_num_threads(nt);
    for (int round = 0; round < 6; ++round) {
      Checked2d<double> m;
      ASSERT_TRUE(kornlt::amg_alloc_2d_real(m, 301, 17));
      EXPECT_TRUE(round == 0 || std::count(m.data(), m.data() + m.size(), 0.0) == m.size()) << nt;
      std::fill(m.data(), m.data() + m.size(), 7.5);
      ASSERT_TRUE(kornlt::amg_dealloc_2d_real(m));
    }
  }
  omp_set_num_threads(1);
}

// The arena hands out consecutive views until a part is full; past that (or
// from an empty part) it reports through its argument only.
TEST_F(CheckedAlloc, ArenaHandsOutConsecutiveViewsUntilFull) {
  kornlt::KornArena ar;
  int ierr = -5;
  kornlt::korn_mem_init(ar, 10, 0, 4, ierr);  // the real part stays empty
  ASSERT_EQ(ierr, 0);
  const kornlt::Vec1<int> a = kornlt::korn_iget_ptr(ar, 3, ierr), b = kornlt::korn_iget_ptr(ar, 5, ierr);
  EXPECT_TRUE(kornlt::korn_iget_ptr(ar, 0, ierr).empty());
  const kornlt::Vec1<int> c = kornlt::korn_iget_ptr(ar, 2, ierr);  // exactly full
  EXPECT_EQ(ierr, 0);
  EXPECT_TRUE(&a(1) == ar.i.data.get() && &b(1) == &a(1) + 3 && &c(1) == &a(1) + 8 && b.hi() == 5);
  for (const bool full_part : {true, false}) {  // the full integer part, the empty real part
    korn_test::MessageCapture cap;
    ierr = 0;
    EXPECT_TRUE(full_part ? kornlt::korn_iget_ptr(ar, 1, ierr).empty() : kornlt::korn_dget_ptr(ar, 1, ierr).empty());
    EXPECT_EQ(cap.text(), std::string("*** ERROR: ") + (full_part ? "korn_iget_ptr" : "korn_dget_ptr") +
                              ": pointer assignment failed\n");
    EXPECT_EQ(ierr, 1);
  }
  EXPECT_EQ(kornlt::ierr(), 0);
  kornlt::korn_mem_dealloc(ar, ierr);
  EXPECT_EQ(ierr, 0);
  EXPECT_FALSE(ar.i.exists || ar.d.exists || ar.s.exists);
}

}  // namespace
