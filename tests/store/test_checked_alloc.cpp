// Checked allocation: counting under each accounting mode, the strict flags,
// failure paths and their exact reports, copies, growth, zeroing of 2d/3d
// arrays in threads, and the three-part arena.
#include <gtest/gtest.h>
#include <omp.h>

#include <cstdint>
#include <functional>
#include <ostream>
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
std::string coded(const std::string& routine, const std::string& words, int code = 70) {
  return "\n*** ERROR: error code " + std::to_string(code) + " " + routine + " : " + words + "\n\n";
}

struct Counters {
  std::int64_t memi, memd, memi_p, memd_p;
  bool operator==(const Counters&) const = default;
};
Counters counters() { return {store().memi, store().memd, store().memi_p, store().memd_p}; }
std::ostream& operator<<(std::ostream& os, const Counters& c) {
  return os << "memi=" << c.memi << " memd=" << c.memd << " memi_p=" << c.memi_p << " memd_p=" << c.memd_p;
}
// Where `ints` integers and `reals` reals go under `mode`.
Counters expected_after(const Counters& mark, int mode, std::int64_t ints, std::int64_t reals) {
  Counters c = mark;
  if (mode == 2) {
    c.memi += ints;
    c.memd += reals;
  } else if (mode == 1) {
    c.memi_p += ints;
    c.memd_p += reals;
  }
  return c;
}

class CheckedAlloc : public testing::Test {
 protected:
  void SetUp() override {
    korn_reset_parameters();
    kornlt::ierr() = 0;
    kornlt::checked_alloc_state() = {};
    store().memi = 1000;
    store().memd = 2000;
    store().memi_p = 300;
    store().memd_p = 400;
    store().maxeff = 0;
  }
  void TearDown() override {
    kornlt::fail_checked_allocation_after(0);
    kornlt::fail_checked_release({});
    kornlt::checked_alloc_state() = {};
    kornlt::ierr() = 0;
    store().memi = store().memd = store().memi_p = store().memd_p = 0;
  }
};

// ---------------------------------------------------------------------------
// Every allocating form as a table row. `alloc(s)` makes the array of size
// parameter s (3 or 5); `elems(s)` is the element count worked out here from
// the documented bounds and extents.
// ---------------------------------------------------------------------------
struct Arrays {
  Checked<int> i1, i2, ai1, ai2, dupi, dupai, dup2i;
  Checked<double> r1, r2, ar1, ar2, dupr, dupar, dup2r;
  Checked2d<int> i2d, ai2d;
  Checked2d<double> r2d, ar2d;
  Checked3d<double> r3d;
  // Sources of the copies: bounds -1..s-2 (s elements), made before any mark.
  Checked<int> src_i3, src_i5;
  Checked<double> src_r3, src_r5;
  const Checked<int>& src_i(int s) const { return s == 3 ? src_i3 : src_i5; }
  const Checked<double>& src_r(int s) const { return s == 3 ? src_r3 : src_r5; }
};

struct Form {
  std::string routine, release_routine;
  bool handle;   // "associated" family, else "allocated"
  bool integer;  // counted as integers, else reals
  std::function<bool(int)> alloc;
  std::function<std::int64_t(int)> elems;
  std::function<bool()> release;
  std::function<bool()> exists;
  std::function<std::int64_t()> size;
};

template <class A>
std::function<bool()> exists_of(A& x) {
  return [&x] { return x.exists(); };
}
template <class A>
std::function<std::int64_t()> size_of(A& x) {
  return [&x] { return x.size(); };
}

std::vector<Form> all_forms(Arrays& a) {
  using namespace kornlt;
  const auto s1 = [](int s) { return std::int64_t{s}; };
  const auto s2 = [](int s) { return std::int64_t{2 * s + 1}; };  // -s..s
  const auto s2d = [](int s) { return std::int64_t{s} * (s + 1); };
  const auto s3d = [](int s) { return std::int64_t{s} * 2 * (s + 2); };
  const auto dup2n = [](int s) { return std::int64_t{s + 4}; };  // -3..s
  return {
      {"amg_alloc_int", "amg_dealloc_int", true, true, [&](int s) { return amg_alloc_int(a.i1, s); }, s1,
       [&] { return amg_dealloc_int(a.i1); }, exists_of(a.i1), size_of(a.i1)},
      {"amg_alloc2_int", "amg_dealloc_int", true, true, [&](int s) { return amg_alloc2_int(a.i2, -s, s); }, s2,
       [&] { return amg_dealloc_int(a.i2); }, exists_of(a.i2), size_of(a.i2)},
      {"amg_alloc_real", "amg_dealloc_real", true, false, [&](int s) { return amg_alloc_real(a.r1, s); }, s1,
       [&] { return amg_dealloc_real(a.r1); }, exists_of(a.r1), size_of(a.r1)},
      {"amg_alloc2_real", "amg_dealloc_real", true, false, [&](int s) { return amg_alloc2_real(a.r2, -s, s); }, s2,
       [&] { return amg_dealloc_real(a.r2); }, exists_of(a.r2), size_of(a.r2)},
      {"amg_alloc_2d_int", "amg_dealloc_2d_int", true, true,
       [&](int s) { return amg_alloc_2d_int(a.i2d, s, s + 1); }, s2d, [&] { return amg_dealloc_2d_int(a.i2d); },
       exists_of(a.i2d), size_of(a.i2d)},
      {"amg_alloc_2d_real", "amg_dealloc_2d_real", true, false,
       [&](int s) { return amg_alloc_2d_real(a.r2d, s, s + 1); }, s2d, [&] { return amg_dealloc_2d_real(a.r2d); },
       exists_of(a.r2d), size_of(a.r2d)},
      {"amg_alloc_3d_real", "amg_dealloc_3d_real", true, false,
       [&](int s) { return amg_alloc_3d_real(a.r3d, s, 2, s + 2); }, s3d,
       [&] { return amg_dealloc_3d_real(a.r3d); }, exists_of(a.r3d), size_of(a.r3d)},
      {"amg_a_alloc_int", "amg_a_dealloc_int", false, true, [&](int s) { return amg_a_alloc_int(a.ai1, s); }, s1,
       [&] { return amg_a_dealloc_int(a.ai1); }, exists_of(a.ai1), size_of(a.ai1)},
      {"amg_a_alloc2_int", "amg_a_dealloc_int", false, true,
       [&](int s) { return amg_a_alloc2_int(a.ai2, -s, s); }, s2, [&] { return amg_a_dealloc_int(a.ai2); },
       exists_of(a.ai2), size_of(a.ai2)},
      {"amg_a_alloc_real", "amg_a_dealloc_real", false, false, [&](int s) { return amg_a_alloc_real(a.ar1, s); },
       s1, [&] { return amg_a_dealloc_real(a.ar1); }, exists_of(a.ar1), size_of(a.ar1)},
      {"amg_a_alloc2_real", "amg_a_dealloc_real", false, false,
       [&](int s) { return amg_a_alloc2_real(a.ar2, -s, s); }, s2, [&] { return amg_a_dealloc_real(a.ar2); },
       exists_of(a.ar2), size_of(a.ar2)},
      {"amg_a_alloc_2d_int", "amg_a_dealloc_2d_int", false, true,
       [&](int s) { return amg_a_alloc_2d_int(a.ai2d, s, s + 1); }, s2d,
       [&] { return amg_a_dealloc_2d_int(a.ai2d); }, exists_of(a.ai2d), size_of(a.ai2d)},
      {"amg_a_alloc_2d_real", "amg_a_dealloc_2d_real", false, false,
       [&](int s) { return amg_a_alloc_2d_real(a.ar2d, s, s + 1); }, s2d,
       [&] { return amg_a_dealloc_2d_real(a.ar2d); }, exists_of(a.ar2d), size_of(a.ar2d)},
      {"amg_dup_pntint_array", "amg_dealloc_int", true, true,
       [&](int s) { return amg_dup_pntint_array(a.dupi, a.src_i(s)); }, s1,
       [&] { return amg_dealloc_int(a.dupi); }, exists_of(a.dupi), size_of(a.dupi)},
      {"amg_dup_pntreal_array", "amg_dealloc_real", true, false,
       [&](int s) { return amg_dup_pntreal_array(a.dupr, a.src_r(s)); }, s1,
       [&] { return amg_dealloc_real(a.dupr); }, exists_of(a.dupr), size_of(a.dupr)},
      {"amg_dup2_pntint_array", "amg_dealloc_int", true, true,
       [&](int s) { return amg_dup2_pntint_array(a.dup2i, a.src_i(s), -3, s); }, dup2n,
       [&] { return amg_dealloc_int(a.dup2i); }, exists_of(a.dup2i), size_of(a.dup2i)},
      {"amg_dup_int_array", "amg_a_dealloc_int", false, true,
       [&](int s) { return amg_dup_int_array(a.dupai, a.src_i(s)); }, s1,
       [&] { return amg_a_dealloc_int(a.dupai); }, exists_of(a.dupai), size_of(a.dupai)},
      {"amg_dup_real_array", "amg_a_dealloc_real", false, false,
       [&](int s) { return amg_dup_real_array(a.dupar, a.src_r(s)); }, s1,
       [&] { return amg_a_dealloc_real(a.dupar); }, exists_of(a.dupar), size_of(a.dupar)},
      {"amg_dup2_real_array", "amg_a_dealloc_real", false, false,
       [&](int s) { return amg_dup2_real_array(a.dup2r, a.src_r(s), -3, s); }, dup2n,
       [&] { return amg_a_dealloc_real(a.dup2r); }, exists_of(a.dup2r), size_of(a.dup2r)},
  };
}

// Sources for the copies, allocated uncounted so the marks stay clean.
void make_sources(Arrays& a) {
  auto& st = kornlt::checked_alloc_state();
  const int mode = st.accounting_mode;
  st.accounting_mode = 0;
  ASSERT_TRUE(kornlt::amg_alloc2_int(a.src_i3, -1, 1));
  ASSERT_TRUE(kornlt::amg_alloc2_int(a.src_i5, -1, 3));
  ASSERT_TRUE(kornlt::amg_alloc2_real(a.src_r3, -1, 1));
  ASSERT_TRUE(kornlt::amg_alloc2_real(a.src_r5, -1, 3));
  for (int i = -1; i <= 3; ++i) {
    if (i <= 1) {
      a.src_i3(i) = 10 + i;
      a.src_r3(i) = 0.5 * i;
    }
    a.src_i5(i) = 20 + i;
    a.src_r5(i) = 0.25 * i;
  }
  st.accounting_mode = mode;
}

TEST_F(CheckedAlloc, CountersFollowTheAccountingModeAndReturnToTheirMarks) {
  for (int mode : {2, 1, 0, 7, -1}) {
    SCOPED_TRACE("accounting mode " + std::to_string(mode));
    Arrays a;
    make_sources(a);
    kornlt::checked_alloc_state().accounting_mode = mode;
    const Counters mark = counters();
    std::int64_t ints = 0, reals = 0;
    for (const Form& f : all_forms(a)) {
      ASSERT_TRUE(f.alloc(5)) << f.routine;
      EXPECT_EQ(f.size(), f.elems(5)) << f.routine;
      (f.integer ? ints : reals) += f.elems(5);
      EXPECT_EQ(counters(), expected_after(mark, mode, ints, reals)) << f.routine;
    }
    Checked<int> grown;
    ASSERT_TRUE(kornlt::amg_alloc_int(grown, 4));
    ASSERT_TRUE(kornlt::extent_pntint_array(grown, 11));  // 4 -> 11 elements
    ints += 11;
    EXPECT_EQ(counters(), expected_after(mark, mode, ints, reals));
    if (mode == 2) {
      EXPECT_EQ(store().maxeff, mark.memd + reals + (mark.memi + ints) / 2);
    }
    EXPECT_EQ(kornlt::ierr(), 0);
    for (const Form& f : all_forms(a)) {
      ASSERT_TRUE(f.release()) << f.release_routine;
      EXPECT_FALSE(f.exists()) << f.release_routine;
    }
    ASSERT_TRUE(kornlt::amg_dealloc_int(grown));
    EXPECT_EQ(counters(), mark);
  }
}

TEST_F(CheckedAlloc, ReleaseSubtractsFromTheCounterTheArrayWentTo) {
  Checked<double> x;
  Checked2d<int> y;
  const Counters mark = counters();
  kornlt::checked_alloc_state().accounting_mode = 1;
  ASSERT_TRUE(kornlt::amg_alloc_real(x, 9));
  kornlt::checked_alloc_state().accounting_mode = 2;
  ASSERT_TRUE(kornlt::amg_a_alloc_2d_int(y, 4, 6));
  EXPECT_EQ(counters(), (Counters{mark.memi + 24, mark.memd, mark.memi_p, mark.memd_p + 9}));
  kornlt::checked_alloc_state().accounting_mode = 0;
  ASSERT_TRUE(kornlt::amg_dealloc_real(x));
  ASSERT_TRUE(kornlt::amg_a_dealloc_2d_int(y));
  EXPECT_EQ(counters(), mark);
}

TEST_F(CheckedAlloc, StrictFlagsReportAnExistingTargetOrReplaceIt) {
  for (const bool strict_handle : {true, false}) {
    for (const bool strict_owned : {true, false}) {
      SCOPED_TRACE("strict handle " + std::to_string(strict_handle) + " owned " + std::to_string(strict_owned));
      Arrays a;
      make_sources(a);
      kornlt::checked_alloc_state().strict_associated = strict_handle;
      kornlt::checked_alloc_state().strict_allocated = strict_owned;
      for (const Form& f : all_forms(a)) {
        kornlt::ierr() = 0;
        const Counters mark = counters();
        ASSERT_TRUE(f.alloc(3)) << f.routine;
        const Counters after_first = counters();
        const bool strict = f.handle ? strict_handle : strict_owned;
        korn_test::MessageCapture cap;
        const bool ok = f.alloc(5);
        if (strict) {
          EXPECT_FALSE(ok) << f.routine;
          EXPECT_EQ(cap.text(), coded(f.routine, f.handle ? "already associated" : "already allocated"));
          EXPECT_EQ(kornlt::ierr(), 70) << f.routine;
          EXPECT_EQ(f.size(), f.elems(3)) << f.routine << ": the target is left as it was";
          EXPECT_EQ(counters(), after_first) << f.routine;
        } else {
          EXPECT_TRUE(ok) << f.routine;
          EXPECT_EQ(cap.text(), "") << f.routine;
          EXPECT_EQ(kornlt::ierr(), 0) << f.routine;
          EXPECT_EQ(f.size(), f.elems(5)) << f.routine << ": replaced";
          EXPECT_EQ(counters(), expected_after(mark, 2, f.integer ? f.elems(5) : 0, f.integer ? 0 : f.elems(5)))
              << f.routine << ": the old array is no longer counted";
        }
        ASSERT_TRUE(f.release());
        EXPECT_EQ(counters(), mark);
      }
    }
  }
}

TEST_F(CheckedAlloc, RefusedMemoryGivesAllocFailedAndLeavesTargetAndCounters) {
  Arrays a;
  make_sources(a);
  for (const Form& f : all_forms(a)) {
    // An absent target stays absent.
    kornlt::ierr() = 0;
    const Counters mark = counters();
    {
      korn_test::MessageCapture cap;
      kornlt::fail_checked_allocation_after(1);
      EXPECT_FALSE(f.alloc(3)) << f.routine;
      EXPECT_EQ(cap.text(), coded(f.routine, "alloc failed"));
    }
    EXPECT_EQ(kornlt::ierr(), 70) << f.routine;
    EXPECT_FALSE(f.exists()) << f.routine;
    EXPECT_EQ(counters(), mark) << f.routine;

    // The countdown: the first allocation goes through, the second is refused
    // and, with replacement allowed, the first array survives it.
    kornlt::ierr() = 0;
    kornlt::checked_alloc_state().strict_associated = false;
    kornlt::checked_alloc_state().strict_allocated = false;
    kornlt::fail_checked_allocation_after(2);
    ASSERT_TRUE(f.alloc(3)) << f.routine;
    const Counters after_first = counters();
    {
      korn_test::MessageCapture cap;
      EXPECT_FALSE(f.alloc(5)) << f.routine;
      EXPECT_EQ(cap.text(), coded(f.routine, "alloc failed"));
    }
    EXPECT_EQ(kornlt::ierr(), 70);
    EXPECT_EQ(f.size(), f.elems(3)) << f.routine;
    EXPECT_EQ(counters(), after_first) << f.routine;
    kornlt::checked_alloc_state() = {};
    kornlt::ierr() = 0;
    ASSERT_TRUE(f.release());
    EXPECT_EQ(counters(), mark);
  }
}

TEST_F(CheckedAlloc, ReleaseReportsAbsentTargetsAndRefusedReleases) {
  Arrays a;
  make_sources(a);
  for (const Form& f : all_forms(a)) {
    kornlt::ierr() = 0;
    {
      korn_test::MessageCapture cap;
      EXPECT_FALSE(f.release()) << f.release_routine;
      EXPECT_EQ(cap.text(), coded(f.release_routine, f.handle ? "not associated" : "not allocated"));
    }
    EXPECT_EQ(kornlt::ierr(), 70);

    kornlt::ierr() = 0;
    const Counters mark = counters();
    ASSERT_TRUE(f.alloc(3));
    const Counters held = counters();
    kornlt::fail_checked_release({5});
    {
      korn_test::MessageCapture cap;
      EXPECT_FALSE(f.release()) << f.release_routine;
      EXPECT_EQ(cap.text(), coded(f.release_routine, "dealloc failed"));
    }
    EXPECT_EQ(kornlt::ierr(), 70);
    EXPECT_TRUE(f.exists()) << f.release_routine << ": a refused release keeps the array";
    EXPECT_EQ(counters(), held);
    ASSERT_TRUE(f.release());
    EXPECT_EQ(counters(), mark);
  }
}

TEST_F(CheckedAlloc, BoundsViewsAndLayout) {
  Checked<int> x;
  ASSERT_TRUE(kornlt::amg_alloc2_int(x, -4, 2));
  EXPECT_EQ(x.lo(), -4);
  EXPECT_EQ(x.hi(), 2);
  for (int i = -4; i <= 2; ++i) x(i) = 3 * i;
  const kornlt::Vec1<int> v = x.view();
  EXPECT_EQ(v.lo(), -4);
  EXPECT_EQ(v.hi(), 2);
  for (int i = -4; i <= 2; ++i) EXPECT_EQ(v(i), 3 * i);
  EXPECT_EQ(x.data()[0], -12);  // element lo first
  ASSERT_TRUE(kornlt::amg_dealloc_int(x));
  EXPECT_TRUE(x.view().empty());

  // Lengths below 0 give an existing array of no elements, counted as 0.
  const Counters mark = counters();
  Checked<double> e;
  ASSERT_TRUE(kornlt::amg_alloc_real(e, -7));
  EXPECT_TRUE(e.exists());
  EXPECT_EQ(e.size(), 0);
  EXPECT_EQ(e.lo(), 1);
  EXPECT_EQ(e.hi(), 0);
  EXPECT_EQ(counters(), mark);
  ASSERT_TRUE(kornlt::amg_dealloc_real(e));

  // 2d: row-major, rows contiguous; row(i) views the same elements.
  Checked2d<double> m;
  ASSERT_TRUE(kornlt::amg_alloc_2d_real(m, 3, 4));
  for (int i = 1; i <= 3; ++i)
    for (int j = 1; j <= 4; ++j) m(i, j) = 10.0 * i + j;
  for (int i = 1; i <= 3; ++i)
    for (int j = 1; j <= 4; ++j) {
      EXPECT_EQ(m.row(i)(j), 10.0 * i + j);
      EXPECT_EQ(m.data()[(i - 1) * 4 + (j - 1)], 10.0 * i + j);
    }
  ASSERT_TRUE(kornlt::amg_dealloc_2d_real(m));
  Checked3d<double> c;
  ASSERT_TRUE(kornlt::amg_alloc_3d_real(c, 2, 3, 4));
  EXPECT_EQ(c.extent(1), 2);
  EXPECT_EQ(c.extent(2), 3);
  EXPECT_EQ(c.extent(3), 4);
  c(2, 3, 4) = 7.0;
  c(1, 2, 1) = 5.0;
  EXPECT_EQ(c.data()[23], 7.0);
  EXPECT_EQ(c.data()[4], 5.0);
  ASSERT_TRUE(kornlt::amg_dealloc_3d_real(c));

  // Moving hands over storage and record; the source becomes absent.
  Checked<int> y;
  ASSERT_TRUE(kornlt::amg_alloc2_int(y, 5, 6));
  y(5) = 1;
  Checked<int> z = std::move(y);
  EXPECT_FALSE(y.exists());
  EXPECT_EQ(z(5), 1);
  ASSERT_TRUE(kornlt::amg_dealloc_int(z));
  EXPECT_EQ(counters(), mark);
}

TEST_F(CheckedAlloc, DupCopiesContentAndBounds) {
  Checked<double> src;
  ASSERT_TRUE(kornlt::amg_alloc2_real(src, -2, 4));
  for (int i = -2; i <= 4; ++i) src(i) = 1.5 * i - 0.25;
  Checked<double> d;
  ASSERT_TRUE(kornlt::amg_dup_real_array(d, src));
  EXPECT_EQ(d.lo(), -2);
  EXPECT_EQ(d.hi(), 4);
  for (int i = -2; i <= 4; ++i) EXPECT_EQ(d(i), 1.5 * i - 0.25);
  src(0) = 99.0;
  EXPECT_EQ(d(0), -0.25) << "the copy has storage of its own";

  Checked<int> isrc, idst;
  ASSERT_TRUE(kornlt::amg_alloc_int(isrc, 6));
  for (int i = 1; i <= 6; ++i) isrc(i) = i * i;
  ASSERT_TRUE(kornlt::amg_dup_pntint_array(idst, isrc));
  EXPECT_EQ(idst.lo(), 1);
  EXPECT_EQ(idst.hi(), 6);
  for (int i = 1; i <= 6; ++i) EXPECT_EQ(idst(i), i * i);

  // A copy of an absent array is absent.
  Checked<int> none, from_none;
  ASSERT_TRUE(kornlt::amg_dup_int_array(from_none, none));
  EXPECT_FALSE(from_none.exists());

  // dup2 over lo..hi against a slow reference: src inside, 0 outside.
  struct Range {
    int lo, hi;
  };
  for (const Range r : {Range{-2, 4}, Range{-5, 1}, Range{0, 9}, Range{1, 2}, Range{6, 8}, Range{-9, -4},
                        Range{-6, 7}, Range{3, 2}}) {
    SCOPED_TRACE(std::to_string(r.lo) + ".." + std::to_string(r.hi));
    Checked<double> d2;
    Checked<int> i2;
    ASSERT_TRUE(kornlt::amg_dup2_real_array(d2, src, r.lo, r.hi));
    ASSERT_TRUE(kornlt::amg_dup2_pntint_array(i2, isrc, r.lo, r.hi));
    EXPECT_EQ(d2.lo(), r.lo);
    EXPECT_EQ(d2.hi(), std::max(r.hi, r.lo - 1));
    EXPECT_EQ(i2.size(), std::max(r.hi - r.lo + 1, 0));
    for (int i = r.lo; i <= r.hi; ++i) {
      const double want_d = (i >= -2 && i <= 4) ? src(i) : 0.0;
      const int want_i = (i >= 1 && i <= 6) ? isrc(i) : 0;
      EXPECT_EQ(d2(i), want_d) << i;
      EXPECT_EQ(i2(i), want_i) << i;
    }
    ASSERT_TRUE(kornlt::amg_a_dealloc_real(d2));
    ASSERT_TRUE(kornlt::amg_dealloc_int(i2));
  }
  ASSERT_TRUE(kornlt::amg_dealloc_real(src));
  ASSERT_TRUE(kornlt::amg_a_dealloc_real(d));
  ASSERT_TRUE(kornlt::amg_dealloc_int(isrc));
  ASSERT_TRUE(kornlt::amg_dealloc_int(idst));
  EXPECT_EQ(counters(), (Counters{1000, 2000, 300, 400}));
}

TEST_F(CheckedAlloc, ExtentKeepsContentAndGrows) {
  const Counters mark = counters();
  Checked<int> x;
  ASSERT_TRUE(kornlt::amg_alloc2_int(x, -2, 2));
  for (int i = -2; i <= 2; ++i) x(i) = 7 * i + 1;
  ASSERT_TRUE(kornlt::extent_pntint_array(x, 6));
  EXPECT_EQ(x.lo(), -2);
  EXPECT_EQ(x.hi(), 6);
  for (int i = -2; i <= 2; ++i) EXPECT_EQ(x(i), 7 * i + 1);
  for (int i = 3; i <= 6; ++i) EXPECT_EQ(x(i), 0);
  EXPECT_EQ(counters().memi, mark.memi + 9);

  // No growth asked: nothing changes.
  int* before = x.data();
  ASSERT_TRUE(kornlt::extent_pntint_array(x, 4));
  EXPECT_EQ(x.hi(), 6);
  EXPECT_EQ(x.data(), before);

  // Refused memory: reported, content and counters as they were.
  {
    korn_test::MessageCapture cap;
    kornlt::fail_checked_allocation_after(1);
    EXPECT_FALSE(kornlt::extent_pntint_array(x, 100));
    EXPECT_EQ(cap.text(), coded("extent_pntint_array", "alloc failed"));
  }
  EXPECT_EQ(kornlt::ierr(), 70);
  EXPECT_EQ(x.hi(), 6);
  for (int i = -2; i <= 2; ++i) EXPECT_EQ(x(i), 7 * i + 1);
  EXPECT_EQ(counters().memi, mark.memi + 9);
  ASSERT_TRUE(kornlt::amg_dealloc_int(x));

  // Growing an absent array allocates 1..n, zeroed.
  Checked<int> y;
  ASSERT_TRUE(kornlt::extent_pntint_array(y, 5));
  EXPECT_EQ(y.lo(), 1);
  EXPECT_EQ(y.hi(), 5);
  for (int i = 1; i <= 5; ++i) EXPECT_EQ(y(i), 0);
  ASSERT_TRUE(kornlt::amg_dealloc_int(y));
  EXPECT_EQ(counters(), mark);
}

// The 2d/3d forms zero what they allocate, in threads or not. Each round first
// leaves garbage in freed memory of the same size so that skipped zeroing
// would show.
TEST_F(CheckedAlloc, MultiDimensionalFormsAreZeroedSerialAndThreaded) {
  kornlt::prm().nmin_vector = 1;
  for (int nt : {1, 2}) {
    SCOPED_TRACE("threads " + std::to_string(nt));
    omp_set_num_threads(nt);
    for (int round = 0; round < 3; ++round) {
      Checked2d<double> m;
      ASSERT_TRUE(kornlt::amg_alloc_2d_real(m, 301, 17));
      for (std::int64_t k = 0; k < m.size(); ++k) m.data()[k] = 7.5;
      ASSERT_TRUE(kornlt::amg_dealloc_2d_real(m));
      ASSERT_TRUE(kornlt::amg_alloc_2d_real(m, 301, 17));
      std::int64_t nonzero = 0;
      for (int i = 1; i <= 301; ++i)
        for (int j = 1; j <= 17; ++j) nonzero += m(i, j) != 0.0;
      EXPECT_EQ(nonzero, 0);

      Checked2d<int> mi;
      ASSERT_TRUE(kornlt::amg_a_alloc_2d_int(mi, 257, 9));
      for (std::int64_t k = 0; k < mi.size(); ++k) mi.data()[k] = -1;
      ASSERT_TRUE(kornlt::amg_a_dealloc_2d_int(mi));
      ASSERT_TRUE(kornlt::amg_a_alloc_2d_int(mi, 257, 9));
      for (std::int64_t k = 0; k < mi.size(); ++k) nonzero += mi.data()[k] != 0;
      EXPECT_EQ(nonzero, 0);

      Checked3d<double> c;
      ASSERT_TRUE(kornlt::amg_alloc_3d_real(c, 131, 5, 7));
      for (std::int64_t k = 0; k < c.size(); ++k) c.data()[k] = 3.0;
      ASSERT_TRUE(kornlt::amg_dealloc_3d_real(c));
      ASSERT_TRUE(kornlt::amg_alloc_3d_real(c, 131, 5, 7));
      for (int i = 1; i <= 131; ++i)
        for (int j = 1; j <= 5; ++j)
          for (int k = 1; k <= 7; ++k) nonzero += c(i, j, k) != 0.0;
      EXPECT_EQ(nonzero, 0);
      ASSERT_TRUE(kornlt::amg_dealloc_2d_real(m));
      ASSERT_TRUE(kornlt::amg_a_dealloc_2d_int(mi));
      ASSERT_TRUE(kornlt::amg_dealloc_3d_real(c));
    }
  }
  omp_set_num_threads(1);
  EXPECT_EQ(counters(), (Counters{1000, 2000, 300, 400}));
}

// ---------------------------------------------------------------------------
// The arena
// ---------------------------------------------------------------------------
// One part of the arena as a table row: its get routine and failure text.
struct ArenaForm {
  std::string name;
  std::function<bool(kornlt::KornArena&, int, int&, int)> get;  // view of n; true when the view
                                                                // is 1..n over part element `at`
  std::function<bool(kornlt::KornArena&, int, int&)> get_empty; // true when the view is empty
  std::function<int(const kornlt::KornArena&)> cursor;
  std::function<bool(const kornlt::KornArena&)> exists;
};

template <class T, class Get>
ArenaForm arena_form(std::string name, Get get, kornlt::ArenaPart<T> kornlt::KornArena::*part) {
  ArenaForm f;
  f.name = std::move(name);
  f.get = [get, part](kornlt::KornArena& ar, int n, int& ierr, int at) {
    const kornlt::Vec1<T> v = get(ar, n, ierr);
    return v.lo() == 1 && v.hi() == n && &v(1) == (ar.*part).data.get() + (at - 1);
  };
  f.get_empty = [get](kornlt::KornArena& ar, int n, int& ierr) { return get(ar, n, ierr).empty(); };
  f.cursor = [part](const kornlt::KornArena& ar) { return (ar.*part).cursor; };
  f.exists = [part](const kornlt::KornArena& ar) { return (ar.*part).exists; };
  return f;
}

std::vector<ArenaForm> arena_forms() {
  using kornlt::KornArena;
  return {arena_form<int>("korn_iget_ptr", kornlt::korn_iget_ptr, &KornArena::i),
          arena_form<double>("korn_dget_ptr", kornlt::korn_dget_ptr, &KornArena::d),
          arena_form<float>("korn_sget_ptr", kornlt::korn_sget_ptr, &KornArena::s)};
}

TEST_F(CheckedAlloc, ArenaHandsOutConsecutiveViewsUntilFull) {
  const std::vector<ArenaForm> forms = arena_forms();
  for (std::size_t p = 0; p < forms.size(); ++p) {
    const ArenaForm& f = forms[p];
    SCOPED_TRACE(f.name);
    kornlt::KornArena ar;
    int ierr = -5;
    // Only part p gets 10 elements; the others 0 or less stay empty.
    kornlt::korn_mem_init(ar, p == 0 ? 10 : 0, p == 1 ? 10 : -3, p == 2 ? 10 : 0, ierr);
    ASSERT_EQ(ierr, 0);
    for (std::size_t q = 0; q < forms.size(); ++q) EXPECT_EQ(forms[q].exists(ar), q == p);
    EXPECT_EQ(f.cursor(ar), 1);
    EXPECT_TRUE(f.get(ar, 3, ierr, 1));
    EXPECT_TRUE(f.get(ar, 5, ierr, 4));
    EXPECT_EQ(f.cursor(ar), 9);
    // n below 1: an empty view, cursor and status unchanged.
    for (int n : {0, -4}) {
      korn_test::MessageCapture cap;
      EXPECT_TRUE(f.get_empty(ar, n, ierr));
      EXPECT_EQ(cap.text(), "");
    }
    EXPECT_EQ(ierr, 0);
    EXPECT_EQ(f.cursor(ar), 9);
    EXPECT_TRUE(f.get(ar, 2, ierr, 9));  // exactly full
    EXPECT_EQ(ierr, 0);
    {
      korn_test::MessageCapture cap;
      EXPECT_TRUE(f.get_empty(ar, 1, ierr));
      EXPECT_EQ(cap.text(), "*** ERROR: " + f.name + ": pointer assignment failed\n");
    }
    EXPECT_EQ(ierr, 1);
    EXPECT_EQ(f.cursor(ar), 11);
    EXPECT_EQ(kornlt::ierr(), 0) << "the arena reports through its argument only";
    // An empty part overflows at once.
    const ArenaForm& other = forms[(p + 1) % forms.size()];
    ierr = 0;
    {
      korn_test::MessageCapture cap;
      EXPECT_TRUE(other.get_empty(ar, 1, ierr));
      EXPECT_EQ(cap.text(), "*** ERROR: " + other.name + ": pointer assignment failed\n");
    }
    EXPECT_EQ(ierr, 1);
    kornlt::korn_mem_dealloc(ar, ierr);
    EXPECT_EQ(ierr, 0);
    EXPECT_FALSE(f.exists(ar));
  }
}

TEST_F(CheckedAlloc, ArenaViewsDoNotOverlapAndAnEmptyViewIsNotNull) {
  kornlt::KornArena ar;
  int ierr = 0;
  kornlt::korn_mem_init(ar, 12, 12, 12, ierr);
  ASSERT_EQ(ierr, 0);
  std::vector<kornlt::Vec1<int>> views;
  for (int n : {4, 1, 7}) views.push_back(kornlt::korn_iget_ptr(ar, n, ierr));
  int value = 0;
  for (const auto& v : views)
    for (int i = v.lo(); i <= v.hi(); ++i) v(i) = ++value;
  for (int k = 1; k <= 12; ++k) EXPECT_EQ(ar.i.data[static_cast<std::size_t>(k - 1)], k);
  const kornlt::Vec1<double> e = kornlt::korn_dget_ptr(ar, 0, ierr);
  EXPECT_TRUE(e.empty());
  EXPECT_NE(e.origin() + e.lo(), nullptr) << "an empty view over the static dummy";
  kornlt::korn_mem_dealloc(ar, ierr);
  EXPECT_EQ(ierr, 0);
}

TEST_F(CheckedAlloc, ArenaSecondInitAnnouncesEachLivePartAndStartsAfresh) {
  kornlt::KornArena ar;
  int ierr = 0;
  kornlt::korn_mem_init(ar, 6, 0, 4, ierr);  // the real part stays empty
  (void)kornlt::korn_iget_ptr(ar, 5, ierr);
  (void)kornlt::korn_sget_ptr(ar, 2, ierr);
  {
    korn_test::MessageCapture cap;
    kornlt::korn_mem_init(ar, 3, 8, 0, ierr);
    const std::string line = "+++ WARNG: attention: korn_mem_init called twice without decallocation\n";
    EXPECT_EQ(cap.text(), line + line) << "one line for each part that existed";
  }
  EXPECT_EQ(ierr, 0);
  EXPECT_EQ(ar.i.capacity, 3);
  EXPECT_EQ(ar.i.cursor, 1);
  EXPECT_EQ(ar.d.capacity, 8);
  EXPECT_FALSE(ar.s.exists);
  kornlt::korn_mem_dealloc(ar, ierr);
  EXPECT_EQ(ierr, 0);
  {
    korn_test::MessageCapture cap;
    kornlt::korn_mem_init(ar, 3, 3, 3, ierr);  // after a release: no announcement
    EXPECT_EQ(cap.text(), "");
  }
  kornlt::korn_mem_dealloc(ar, ierr);
}

TEST_F(CheckedAlloc, ArenaReleaseStatusIsTheLargestAbsoluteValue) {
  struct Case {
    std::vector<int> statuses;  // release status of parts i, d, s
    int want;
  };
  const Case cases[] = {{{0, 0, 0}, 0}, {{3, -80, 7}, 80}, {{0, 0, 5}, 5}, {{-2, 0, 1}, 2}, {{9, 0, 0}, 9}};
  for (const Case& c : cases) {
    kornlt::KornArena ar;
    int ierr = 0;
    kornlt::korn_mem_init(ar, 2, 2, 2, ierr);
    ASSERT_EQ(ierr, 0);
    kornlt::fail_checked_release({c.statuses[0], c.statuses[1], c.statuses[2]});
    {
      korn_test::MessageCapture cap;
      kornlt::korn_mem_dealloc(ar, ierr);
    }
    EXPECT_EQ(ierr, c.want);
    // A part whose release failed is still there; the others are gone.
    EXPECT_EQ(ar.i.exists, c.statuses[0] != 0);
    EXPECT_EQ(ar.d.exists, c.statuses[1] != 0);
    EXPECT_EQ(ar.s.exists, c.statuses[2] != 0);
    kornlt::korn_mem_dealloc(ar, ierr);
    EXPECT_EQ(ierr, 0);
    EXPECT_FALSE(ar.i.exists || ar.d.exists || ar.s.exists);
  }
}

TEST_F(CheckedAlloc, ArenaInitReportsRefusedMemory) {
  kornlt::KornArena ar;
  int ierr = 0;
  kornlt::fail_checked_allocation_after(2);  // the real part is refused
  {
    korn_test::MessageCapture cap;
    kornlt::korn_mem_init(ar, 4, 4, 4, ierr);
    EXPECT_EQ(cap.text(), coded("korn_mem_init", "alloc failed"));
  }
  EXPECT_EQ(ierr, 70);
  EXPECT_TRUE(ar.i.exists);
  EXPECT_FALSE(ar.d.exists);
  EXPECT_EQ(kornlt::ierr(), 0);
  kornlt::korn_mem_dealloc(ar, ierr);
  EXPECT_EQ(ierr, 0);
}

}  // namespace
