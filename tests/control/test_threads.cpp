// Thread blocks: the static partition against an independent owner formula,
// for_blocks coverage and threshold under 1, 2 and 3 threads, and ordered_sum
// reproducibility against a serial blocked sum.
#include <gtest/gtest.h>
#include <omp.h>

#include <algorithm>
#include <atomic>
#include <bit>
#include <cmath>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "control/threads.hpp"

namespace {

using kornlt::RowBlock;

// Owner of row i of ilo..ihi among nt threads, counted row by row: with
// c = n / nt (truncated) rows per block, offset r belongs to block r / c, and
// every row past the first (nt - 1) * c belongs to the last block.
int owner(int i, int ilo, int ihi, int nt) {
  const int n = ihi - ilo + 1;
  const int c = n / nt;
  const int r = i - ilo;
  if (c == 0) return nt - 1;
  return std::min(r / c, nt - 1);
}

// Threads from the per-thread rows n / nt and the threshold, as documented.
bool expect_threads(int n, int nmin, int nt) { return nt > 1 && n / nt > nmin; }

// Sets the thread count for one scope and puts the old one back.
class ThreadCount {
 public:
  explicit ThreadCount(int nt) : old_(omp_get_max_threads()) { omp_set_num_threads(nt); }
  ~ThreadCount() { omp_set_num_threads(old_); }
  ThreadCount(const ThreadCount&) = delete;
  ThreadCount& operator=(const ThreadCount&) = delete;

 private:
  int old_;
};

std::uint64_t bits(double x) { return std::bit_cast<std::uint64_t>(x); }

// ---------------------------------------------------------------------------
// static_block
// ---------------------------------------------------------------------------

TEST(StaticBlock, HandCases) {
  struct Case {
    int ilo, ihi, nt;
    std::vector<RowBlock> blocks;
  };
  const std::vector<Case> cases = {
      {1, 10, 3, {{1, 3}, {4, 6}, {7, 10}}},
      {1, 10, 1, {{1, 10}}},
      {1, 10, 2, {{1, 5}, {6, 10}}},
      {5, 11, 2, {{5, 7}, {8, 11}}},
      {1, 4, 4, {{1, 1}, {2, 2}, {3, 3}, {4, 4}}},
      {1, 5, 4, {{1, 1}, {2, 2}, {3, 3}, {4, 5}}},
      {101, 111, 4, {{101, 102}, {103, 104}, {105, 106}, {107, 111}}},
  };
  for (const Case& c : cases) {
    for (int t = 0; t < c.nt; ++t) {
      const RowBlock b = kornlt::static_block(c.ilo, c.ihi, t, c.nt);
      EXPECT_EQ(b.lo, c.blocks[t].lo) << c.ilo << ".." << c.ihi << " nt=" << c.nt << " t=" << t;
      EXPECT_EQ(b.hi, c.blocks[t].hi) << c.ilo << ".." << c.ihi << " nt=" << c.nt << " t=" << t;
    }
  }
}

// Fewer rows than threads: all but the last block are empty.
TEST(StaticBlock, FewerRowsThanThreads) {
  for (int nt = 2; nt <= 6; ++nt) {
    for (int n = 0; n < nt; ++n) {
      for (int t = 0; t < nt - 1; ++t) {
        const RowBlock b = kornlt::static_block(3, 2 + n, t, nt);
        EXPECT_GT(b.lo, b.hi) << "n=" << n << " nt=" << nt << " t=" << t;
      }
      const RowBlock last = kornlt::static_block(3, 2 + n, nt - 1, nt);
      EXPECT_EQ(last.hi, 2 + n);
      EXPECT_EQ(last.hi - last.lo + 1, n) << "n=" << n << " nt=" << nt;
    }
  }
}

// For every range and thread count: blocks are contiguous, in thread order,
// disjoint, cover ilo..ihi, and hold exactly the rows the owner formula gives.
TEST(StaticBlock, PartitionAgreesWithOwnerFormula) {
  for (int ilo : {-7, 0, 1, 38}) {
    for (int n = 0; n <= 70; ++n) {
      const int ihi = ilo + n - 1;
      for (int nt = 1; nt <= 9; ++nt) {
        std::vector<int> seen(static_cast<std::size_t>(n), 0);
        int next = ilo;  // first row not yet covered
        for (int t = 0; t < nt; ++t) {
          const RowBlock b = kornlt::static_block(ilo, ihi, t, nt);
          if (b.lo > b.hi) continue;
          ASSERT_EQ(b.lo, next) << "gap or overlap: ilo=" << ilo << " n=" << n << " nt=" << nt
                                << " t=" << t;
          for (int i = b.lo; i <= b.hi; ++i) {
            ASSERT_GE(i, ilo);
            ASSERT_LE(i, ihi);
            ++seen[static_cast<std::size_t>(i - ilo)];
            EXPECT_EQ(owner(i, ilo, ihi, nt), t) << "ilo=" << ilo << " n=" << n << " nt=" << nt
                                                 << " row " << i;
          }
          next = b.hi + 1;
        }
        EXPECT_EQ(next, ihi + 1) << "not covered to the end: ilo=" << ilo << " n=" << n
                                 << " nt=" << nt;
        for (int r = 0; r < n; ++r) EXPECT_EQ(seen[static_cast<std::size_t>(r)], 1);
        // All non-last blocks have n / nt rows; the last takes the rest.
        for (int t = 0; t < nt - 1; ++t) {
          const RowBlock b = kornlt::static_block(ilo, ihi, t, nt);
          EXPECT_EQ(std::max(0, b.hi - b.lo + 1), n / nt);
        }
        const RowBlock last = kornlt::static_block(ilo, ihi, nt - 1, nt);
        EXPECT_EQ(last.hi - last.lo + 1, n - (nt - 1) * (n / nt));
      }
    }
  }
}

// ---------------------------------------------------------------------------
// for_blocks
// ---------------------------------------------------------------------------

struct Call {
  int lo, hi, t, thread, team;
  bool in_parallel;
};

// Runs for_blocks over ilo..ihi and records every call and every row visit.
std::vector<Call> run_for_blocks(int ilo, int ihi, int nmin, std::vector<int>& visits) {
  std::vector<Call> calls;
  visits.assign(static_cast<std::size_t>(std::max(0, ihi - ilo + 1)), 0);
  int* v = visits.data();
  kornlt::for_blocks(ilo, ihi, nmin, [&](int lo, int hi, int t) {
    for (int i = lo; i <= hi; ++i) {
      std::atomic_ref<int>(v[i - ilo]).fetch_add(1, std::memory_order_relaxed);
    }
    const Call c{lo, hi, t, omp_get_thread_num(), omp_get_num_threads(), omp_in_parallel() != 0};
#pragma omp critical(korn_test_calls)
    calls.push_back(c);
  });
  return calls;
}

TEST(ForBlocks, EachRowOnceUnderOneTwoThreeThreads) {
  const int ilo = 4;
  for (int nt : {1, 2, 3}) {
    ThreadCount scope(nt);
    for (int n : {0, 1, 2, 3, 5, 6, 7, 8, 12, 13, 100, 1001}) {
      const int ihi = ilo + n - 1;
      for (int nmin : {0, 1, 2, 3, 4, 6, 50, 400}) {
        std::vector<int> visits;
        std::vector<Call> calls = run_for_blocks(ilo, ihi, nmin, visits);
        const std::string where = "nt=" + std::to_string(nt) + " n=" + std::to_string(n) +
                                  " nmin=" + std::to_string(nmin);
        for (int r = 0; r < n; ++r) {
          ASSERT_EQ(visits[static_cast<std::size_t>(r)], 1) << where << " row " << ilo + r;
        }
        if (expect_threads(n, nmin, nt)) {
          ASSERT_EQ(static_cast<int>(calls.size()), nt) << where;
          std::sort(calls.begin(), calls.end(), [](const Call& a, const Call& b) { return a.t < b.t; });
          for (int t = 0; t < nt; ++t) {
            const Call& c = calls[static_cast<std::size_t>(t)];
            EXPECT_EQ(c.t, t) << where;
            EXPECT_EQ(c.thread, t) << where << ": block number is not the thread number";
            EXPECT_EQ(c.team, nt) << where;
            EXPECT_TRUE(c.in_parallel) << where;
            for (int i = c.lo; i <= c.hi; ++i) {
              EXPECT_EQ(owner(i, ilo, ihi, nt), t) << where << " row " << i;
            }
          }
        } else {
          ASSERT_EQ(calls.size(), 1u) << where;
          const Call& c = calls[0];
          EXPECT_EQ(c.lo, ilo) << where;
          EXPECT_EQ(c.hi, ihi) << where;
          EXPECT_EQ(c.t, 0) << where;
          EXPECT_FALSE(c.in_parallel) << where << ": a region was opened below the threshold";
        }
      }
    }
  }
}

// The threshold is on rows per thread, strictly greater: with 2 threads and
// nmin = 5, 11 rows (5 per thread) stay serial and 12 rows (6) go parallel.
TEST(ForBlocks, ThresholdBoundary) {
  struct Case {
    int nt, n, nmin;
    bool threaded;
  };
  const std::vector<Case> cases = {
      {2, 11, 5, false}, {2, 12, 5, true},  {3, 17, 5, false}, {3, 18, 5, true},
      {3, 18, 6, false}, {1, 1000, 0, false}, {2, 2, 0, true},  {2, 1, 0, false},
  };
  for (const Case& c : cases) {
    ThreadCount scope(c.nt);
    std::vector<int> visits;
    const std::vector<Call> calls = run_for_blocks(1, c.n, c.nmin, visits);
    EXPECT_EQ(calls.size(), c.threaded ? static_cast<std::size_t>(c.nt) : 1u)
        << "nt=" << c.nt << " n=" << c.n << " nmin=" << c.nmin;
    EXPECT_EQ(std::count(visits.begin(), visits.end(), 1), c.n);
  }
}

// ---------------------------------------------------------------------------
// ordered_sum
// ---------------------------------------------------------------------------

// Values of widely spread magnitude and both signs, so that the rounding of a
// sum depends on the order of its terms. With nt > 1, the first row of block 0
// gets +1e17 and the first row of block 1 gets -1e17: the two large partials
// cancel only when added to each other before the rest, so combining the
// block partials in any other order changes the result.
std::vector<double> spread_values(int n, unsigned seed, int nt = 1) {
  std::mt19937 gen(seed);
  std::uniform_real_distribution<double> mant(-1.0, 1.0);
  std::uniform_int_distribution<int> expo(-30, 0);
  std::vector<double> x(static_cast<std::size_t>(n));
  for (double& e : x) e = std::ldexp(mant(gen), expo(gen));
  if (nt > 1 && n / nt > 0) {
    x[0] = 1e17;
    x[static_cast<std::size_t>(n / nt)] = -1e17;
  }
  return x;
}

// Serial reference: left-to-right partial per block of the owner formula,
// partials added from 0 in block order.
double blocked_sum(const std::vector<double>& x, int ilo, int nt) {
  const int n = static_cast<int>(x.size());
  const int ihi = ilo + n - 1;
  std::vector<double> partial(static_cast<std::size_t>(nt), 0.0);
  for (int i = ilo; i <= ihi; ++i) {
    partial[static_cast<std::size_t>(owner(i, ilo, ihi, nt))] += x[static_cast<std::size_t>(i - ilo)];
  }
  double s = 0.0;
  for (double p : partial) s += p;
  return s;
}

double run_ordered_sum(const std::vector<double>& x, int ilo, int nmin) {
  const int ihi = ilo + static_cast<int>(x.size()) - 1;
  const double* px = x.data();
  return kornlt::ordered_sum(ilo, ihi, nmin, [&](int lo, int hi) {
    double s = 0.0;
    for (int i = lo; i <= hi; ++i) s += px[i - ilo];
    return s;
  });
}

TEST(OrderedSum, SameBitsOnRepeatedRunsAndEqualsBlockedSum) {
  const int ilo = 1;
  for (int nt : {2, 3}) {
    ThreadCount scope(nt);
    for (int n : {2 * nt, 1000, 4099}) {
      const std::vector<double> x = spread_values(n, 17u + static_cast<unsigned>(n), nt);
      const double ref = blocked_sum(x, ilo, nt);
      for (int run = 0; run < (nt == 2 ? 40 : 10); ++run) {
        const double s = run_ordered_sum(x, ilo, 0);
        ASSERT_EQ(bits(s), bits(ref)) << "nt=" << nt << " n=" << n << " run " << run << ": " << s
                                      << " vs " << ref;
      }
    }
  }
}

// The data must make the check sensitive: summing the same values in one
// serial sweep, or combining the block partials in another order, changes
// the bits.
TEST(OrderedSum, TestDataDistinguishesOrders) {
  for (int nt : {2, 3}) {
    const int n = 4099;
    const std::vector<double> x = spread_values(n, 17u + 4099u, nt);
    double serial = 0.0;
    for (double e : x) serial += e;
    const double ref = blocked_sum(x, 1, nt);
    EXPECT_NE(bits(serial), bits(ref)) << "nt=" << nt;
    std::vector<double> p(static_cast<std::size_t>(nt), 0.0);
    for (int i = 1; i <= n; ++i) {
      p[static_cast<std::size_t>(owner(i, 1, n, nt))] += x[static_cast<std::size_t>(i - 1)];
    }
    if (nt == 3) {
      EXPECT_NE(bits(((0.0 + p[0]) + p[2]) + p[1]), bits(ref));
      EXPECT_NE(bits(((0.0 + p[2]) + p[0]) + p[1]), bits(ref));
      EXPECT_NE(bits(((0.0 + p[1]) + p[2]) + p[0]), bits(ref));
    }
  }
}

// Below the threshold the sum is one partial over the whole range.
TEST(OrderedSum, BelowThresholdIsOneSerialSweep) {
  const std::vector<double> x = spread_values(301, 5u);
  double serial = 0.0;
  for (double e : x) serial += e;
  for (int nt : {1, 2, 3}) {
    ThreadCount scope(nt);
    const int nmin = nt == 1 ? 0 : 301 / nt;  // rows per thread not above nmin
    EXPECT_EQ(bits(run_ordered_sum(x, 1, nmin)), bits(serial)) << "nt=" << nt;
  }
  ThreadCount scope(2);
  EXPECT_EQ(bits(run_ordered_sum(x, 1, 149)), bits(blocked_sum(x, 1, 2)));  // 150 > 149
}

}  // namespace
