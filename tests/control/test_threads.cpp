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

// Owner of row i of ilo..ihi among nt threads, counted row by row: with
// c = n / nt (truncated) rows per block, offset r belongs to block r / c, and
// every row past the first (nt - 1) * c belongs to the last block.
int owner(int i, int ilo, int ihi, int nt) {
  const int c = (ihi - ilo + 1) / nt;
  return c == 0 ? nt - 1 : std::min((i - ilo) / c, nt - 1);
}

std::uint64_t bits(double x) { return std::bit_cast<std::uint64_t>(x); }

// For every range and thread count: each block lies inside ilo..ihi and holds
// exactly the rows the owner formula gives its thread.
TEST(StaticBlock, PartitionAgreesWithOwnerFormula) {
  EXPECT_EQ(kornlt::static_block(5, 15, 2, 3).lo, 11);  // by hand: 5..7, 8..10, 11..15
  EXPECT_EQ(kornlt::static_block(5, 15, 2, 3).hi, 15);
  for (int ilo : {-7, 0, 1, 38})
    for (int n = 0; n <= 70; ++n)
      for (int nt = 1; nt <= 9; ++nt)
        for (int t = 0, ihi = ilo + n - 1; t < nt; ++t) {
          const kornlt::RowBlock b = kornlt::static_block(ilo, ihi, t, nt);
          const std::string where = std::to_string(ilo) + ".." + std::to_string(ihi) + " nt=" + std::to_string(nt) +
                                    " t=" + std::to_string(t);
          ASSERT_TRUE(b.lo > b.hi || (b.lo >= ilo && b.hi <= ihi)) << where;
          for (int i = ilo; i <= ihi; ++i)
            ASSERT_EQ(b.lo <= i && i <= b.hi, owner(i, ilo, ihi, nt) == t) << where << " row " << i;
        }
}

// Each row is visited once; threads run (one block per thread, block number =
// thread number) only when rows per thread exceed nmin, else one serial call.
TEST(ForBlocks, EachRowOnceAndThreadsOnlyAboveTheThreshold) {
  const int ilo = 4;
  for (int nt : {1, 2, 3}) {
    omp_set_num_threads(nt);
    for (int n : {0, 1, 2, 3, 5, 11, 12, 13, 100, 1001})
      for (int nmin : {0, 1, 3, 5, 50, 400}) {
        const int ihi = ilo + n - 1;
        std::vector<int> visits(static_cast<std::size_t>(n), 0), thread_of(static_cast<std::size_t>(nt), -1);
        std::atomic<int> calls = 0, parallel = 0;
        kornlt::for_blocks(ilo, ihi, nmin, [&](int lo, int hi, int t) {
          for (int i = lo; i <= hi; ++i) std::atomic_ref<int>(visits[i - ilo]).fetch_add(1);
          ++calls, parallel += omp_in_parallel();
          thread_of[t] = omp_get_thread_num();
          EXPECT_EQ(lo, omp_in_parallel() ? kornlt::static_block(ilo, ihi, t, nt).lo : ilo);
        });
        const std::string where = std::to_string(nt) + "x" + std::to_string(n) + " nmin " + std::to_string(nmin);
        const bool threaded = nt > 1 && n / nt > nmin;  // 2 threads, nmin 5: 11 rows serial, 12 threaded
        EXPECT_EQ(std::count(visits.begin(), visits.end(), 1), n) << where;
        EXPECT_EQ(calls, threaded ? nt : 1) << where;
        EXPECT_EQ(parallel, threaded ? nt : 0) << where;
        for (int t = 0; t < (threaded ? nt : 1); ++t) EXPECT_EQ(thread_of[t], t) << where;
      }
  }
  omp_set_num_threads(1);
}

// Values of widely spread magnitude and both signs, so that the rounding of a
// sum depends on the order of its terms; the first rows of blocks 0 and 1 get
// +1e17 and -1e17, which cancel only when those partials meet first.
std::vector<double> spread_values(int n, unsigned seed, int nt) {
  std::mt19937 gen(seed);
  std::uniform_real_distribution<double> mant(-1.0, 1.0);
  std::uniform_int_distribution<int> expo(-30, 0);
  std::vector<double> x(static_cast<std::size_t>(n));
  for (double& e : x) e = std::ldexp(mant(gen), expo(gen));
  if (nt > 1 && n / nt > 0) x[0] = 1e17, x[static_cast<std::size_t>(n / nt)] = -1e17;
  return x;
}

// Serial reference: left-to-right partial per owner block, partials added from 0 in block order.
double blocked_sum(const std::vector<double>& x, int nt) {
  const int n = static_cast<int>(x.size());
  std::vector<double> partial(static_cast<std::size_t>(nt), 0.0);
  for (int i = 1; i <= n; ++i) partial[static_cast<std::size_t>(owner(i, 1, n, nt))] += x[i - 1];
  double s = 0.0;
  for (double p : partial) s += p;
  return s;
}

double run_ordered_sum(const std::vector<double>& x, int nmin) {
  return kornlt::ordered_sum(1, static_cast<int>(x.size()), nmin, [&](int lo, int hi) {
    double s = 0.0;
    for (int i = lo; i <= hi; ++i) s += x[i - 1];
    return s;
  });
}

TEST(OrderedSum, SameBitsOnRepeatedRunsAndEqualsBlockedSum) {
  for (int nt : {2, 3}) {
    omp_set_num_threads(nt);
    for (int n : {2 * nt, 1000, 4099}) {
      const std::vector<double> x = spread_values(n, 17u + static_cast<unsigned>(n), nt);
      const double ref = blocked_sum(x, nt);
      double serial = 0.0;
      for (double e : x) serial += e;
      if (n == 4099) {
        EXPECT_NE(bits(serial), bits(ref)) << "the data must tell the orders apart";
      }
      for (int run = 0; run < 20; ++run)
        ASSERT_EQ(bits(run_ordered_sum(x, 0)), bits(ref)) << "nt=" << nt << " n=" << n << " run " << run;
      // Below the threshold: one serial sweep.
      EXPECT_EQ(bits(run_ordered_sum(x, n / nt)), bits(serial)) << "nt=" << nt << " n=" << n;
    }
  }
  omp_set_num_threads(1);
}

}  // namespace
