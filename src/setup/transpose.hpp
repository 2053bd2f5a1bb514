// Threaded transpose of a sparse pattern that does not depend on timing.
//
// Rows are cut into static blocks; each block counts its entries per column
// over the range of columns it actually touches, so the counters take about
// the pattern's own width (rows plus block overlap for the banded patterns of
// grids) instead of one full column array per thread, and no atomics are
// needed. Column j then receives block 0's rows, then block 1's, ..., each
// block in rising row order: every transposed row comes out sorted, the same
// lists as a serial count-cumulate-fill.
#pragma once

#include <omp.h>

#include <algorithm>
#include <climits>
#include <cstddef>
#include <memory>
#include <new>
#include <vector>

#include "control/threads.hpp"

namespace kornlt {

// Rows is any type with int begin(int i), int end(int i) (entry positions of
// row i, end exclusive) and int col(int p) (the column of entry p).
class BlockTranspose {
 public:
  // Counts the columns clo..chi of rows rlo..rhi over nt row blocks and sets
  // ptr (an origin pointer valid over clo..chi+1): the entries of column j
  // will take positions ptr[j] .. ptr[j+1]-1, starting at base. When the
  // blocks' column ranges together exceed twice the column count (patterns
  // far from banded), one block does the work. False when the counters could
  // not be allocated.
  template <class Rows>
  bool count(const Rows& rows, int rlo, int rhi, int clo, int chi, int nt, int* ptr, int base);

  // Hands every entry to put(at, i, p): entry p of row i goes to position at.
  // Call once after count.
  template <class Rows, class Put>
  void fill(const Rows& rows, Put&& put);

  int blocks() const { return static_cast<int>(blk_.size()); }

 private:
  struct Block {
    int rlo, rhi;     // rows
    int clo, chi;     // columns touched (empty when clo > chi)
    std::size_t off;  // start of the block's counters
    int* at(int* base) const { return base + off - clo; }  // origin pointer
  };
  // body(b) for every block, the blocks shared out over one parallel region.
  template <class Body>
  void each_block(Body&& body) const {
    const int nb = blocks();
#pragma omp parallel num_threads(nb) if (nb > 1)
    for (int b = omp_get_thread_num(); b < nb; b += omp_get_num_threads()) body(b);
  }
  std::vector<Block> blk_;
  std::unique_ptr<int[]> cnt_;  // per block: counts, then fill cursors
};

template <class Rows>
bool BlockTranspose::count(const Rows& rows, int rlo, int rhi, int clo, int chi, int nt, int* ptr, int base) {
  const int ncols = std::max(chi - clo + 1, 0);
  nt = std::max(1, std::min(nt, rhi - rlo + 1));
  try {
    blk_.assign(static_cast<std::size_t>(nt), Block{});
  } catch (const std::bad_alloc&) {
    return false;
  }
  for (int b = 0; b < nt; ++b) {
    const RowBlock r = static_block(rlo, rhi, b, nt);
    blk_[static_cast<std::size_t>(b)] = Block{r.lo, r.hi, INT_MAX, INT_MIN, 0};
  }
  // Column range of each block.
  each_block([&](int b) {
    Block& k = blk_[static_cast<std::size_t>(b)];
    int lo = INT_MAX, hi = INT_MIN;
    for (int i = k.rlo; i <= k.rhi; ++i)
      for (int p = rows.begin(i), e = rows.end(i); p < e; ++p) {
        const int j = rows.col(p);
        lo = std::min(lo, j);
        hi = std::max(hi, j);
      }
    k.clo = lo;
    k.chi = hi;
  });
  std::size_t total = 0;
  for (const Block& k : blk_) total += k.clo <= k.chi ? static_cast<std::size_t>(k.chi - k.clo + 1) : 0;
  if (nt > 1 && total > 2 * static_cast<std::size_t>(ncols)) {
    int lo = INT_MAX, hi = INT_MIN;
    for (const Block& k : blk_) {
      lo = std::min(lo, k.clo);
      hi = std::max(hi, k.chi);
    }
    blk_.assign(1, Block{rlo, rhi, lo, hi, 0});
    total = lo <= hi ? static_cast<std::size_t>(hi - lo + 1) : 0;
  }
  for (std::size_t b = 1; b < blk_.size(); ++b) {
    const Block& k = blk_[b - 1];
    blk_[b].off = k.off + (k.clo <= k.chi ? static_cast<std::size_t>(k.chi - k.clo + 1) : 0);
  }
  cnt_.reset(new (std::nothrow) int[std::max<std::size_t>(total, 1)]);
  if (!cnt_) return false;

  // Counts, each block in its own counters (zeroed by the thread that uses them).
  each_block([&](int b) {
    const Block& k = blk_[static_cast<std::size_t>(b)];
    if (k.clo > k.chi) return;
    int* c = k.at(cnt_.get());
    std::fill(c + k.clo, c + k.chi + 1, 0);
    for (int i = k.rlo; i <= k.rhi; ++i)
      for (int p = rows.begin(i), e = rows.end(i); p < e; ++p) ++c[rows.col(p)];
  });

  // Columns in static blocks: each column's total (kept in ptr[j] for now),
  // then a scan of the column blocks' totals, then the positions and each
  // row block's cursor within the column.
  const int ncb = std::max(1, std::min(blocks(), ncols));
  std::vector<long long> part;
  std::vector<std::vector<const Block*>> over;  // per column block: the row blocks touching it
  try {
    part.assign(static_cast<std::size_t>(ncb) + 1, 0);
    over.resize(static_cast<std::size_t>(ncb));
    for (int cb = 0; cb < ncb; ++cb) {
      const RowBlock r = static_block(clo, chi, cb, ncb);
      for (const Block& k : blk_)
        if (k.clo <= k.chi && k.clo <= r.hi && k.chi >= r.lo) over[static_cast<std::size_t>(cb)].push_back(&k);
    }
  } catch (const std::bad_alloc&) {
    return false;
  }
  auto column_pass = [&](bool positions) {
#pragma omp parallel num_threads(ncb) if (ncb > 1)
    for (int cb = omp_get_thread_num(); cb < ncb; cb += omp_get_num_threads()) {
      const RowBlock r = static_block(clo, chi, cb, ncb);
      const std::vector<const Block*>& touching = over[static_cast<std::size_t>(cb)];
      if (!positions) {
        long long sum = 0;
        for (int j = r.lo; j <= r.hi; ++j) {
          int s = 0;
          for (const Block* k : touching)
            if (j >= k->clo && j <= k->chi) s += k->at(cnt_.get())[j];
          ptr[j] = s;
          sum += s;
        }
        part[static_cast<std::size_t>(cb) + 1] = sum;
      } else {
        long long run = base + part[static_cast<std::size_t>(cb)];
        for (int j = r.lo; j <= r.hi; ++j) {
          ptr[j] = static_cast<int>(run);
          for (const Block* k : touching)
            if (j >= k->clo && j <= k->chi) {
              int& x = k->at(cnt_.get())[j];
              const int m = x;
              x = static_cast<int>(run);
              run += m;
            }
        }
      }
    }
  };
  if (ncols > 0) {
    column_pass(false);
    for (int cb = 0; cb < ncb; ++cb) part[static_cast<std::size_t>(cb) + 1] += part[static_cast<std::size_t>(cb)];
    column_pass(true);
  }
  ptr[chi + 1] = static_cast<int>(base + part[static_cast<std::size_t>(ncb)]);
  return true;
}

template <class Rows, class Put>
void BlockTranspose::fill(const Rows& rows, Put&& put) {
  each_block([&](int b) {
    const Block& k = blk_[static_cast<std::size_t>(b)];
    if (k.clo > k.chi) return;
    int* c = k.at(cnt_.get());
    for (int i = k.rlo; i <= k.rhi; ++i)
      for (int p = rows.begin(i), e = rows.end(i); p < e; ++p) put(c[rows.col(p)]++, i, p);
  });
  cnt_.reset();
}

}  // namespace kornlt
