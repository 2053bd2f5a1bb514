// The threaded pattern transpose against a plain list-of-lists transpose:
// banded patterns (per-block counters), scattered ones (the one-block
// fallback), empty rows, more blocks than rows, columns offset from the rows.
#include <gtest/gtest.h>
#include <omp.h>

#include <random>
#include <utility>
#include <vector>

#include "setup/transpose.hpp"

namespace {

struct Pattern {
  int rlo, rhi, clo, chi;
  std::vector<int> ia;  // ia[i - rlo] .. ia[i - rlo + 1] - 1: positions of row i
  std::vector<int> ja;  // columns, by position
  int begin(int i) const { return ia[static_cast<std::size_t>(i - rlo)]; }
  int end(int i) const { return ia[static_cast<std::size_t>(i - rlo + 1)]; }
  int col(int p) const { return ja[static_cast<std::size_t>(p)]; }
};

// Rows rlo..rhi over columns clo..chi; a row holds up to `len` entries within
// `width` of its diagonal (the whole column range when width < 0), some none.
Pattern random_pattern(int rlo, int rhi, int clo, int chi, int len, int width, unsigned seed) {
  std::mt19937 gen(seed);
  Pattern P{rlo, rhi, clo, chi, {0}, {}};
  for (int i = rlo; i <= rhi; ++i) {
    const int m = static_cast<int>(gen() % static_cast<unsigned>(len + 1));
    const int centre = clo + (i - rlo) * (chi - clo) / std::max(rhi - rlo, 1);
    const int lo = width < 0 ? clo : std::max(clo, centre - width);
    const int hi = width < 0 ? chi : std::min(chi, centre + width);
    for (int q = 0; q < m; ++q) P.ja.push_back(lo + static_cast<int>(gen() % static_cast<unsigned>(hi - lo + 1)));
    P.ia.push_back(static_cast<int>(P.ja.size()));
  }
  return P;
}

TEST(BlockTranspose, SameListsAsTheSerialTransposeForEveryBlockCount) {
  const std::vector<Pattern> cases = {
      random_pattern(1, 2000, 1, 2000, 9, 40, 1),      // banded, square
      random_pattern(7, 3006, 101, 900, 6, 25, 2),     // banded, offset and rectangular
      random_pattern(1, 1500, 1, 1500, 5, -1, 3),      // scattered: one block does it
      random_pattern(1, 3, 1, 10, 3, -1, 4),           // fewer rows than blocks
      random_pattern(1, 500, 1, 500, 0, 10, 5),        // no entries at all
  };
  omp_set_num_threads(4);
  for (std::size_t c = 0; c < cases.size(); ++c) {
    const Pattern& P = cases[c];
    const int ncols = P.chi - P.clo + 1;
    std::vector<std::vector<std::pair<int, int>>> ref(static_cast<std::size_t>(ncols));
    for (int i = P.rlo; i <= P.rhi; ++i)
      for (int p = P.begin(i); p < P.end(i); ++p) ref[static_cast<std::size_t>(P.col(p) - P.clo)].push_back({i, p});
    for (int nt : {1, 2, 3, 7}) {
      SCOPED_TRACE("case " + std::to_string(c) + ", " + std::to_string(nt) + " blocks");
      const int base = 1;
      std::vector<int> ptrv(static_cast<std::size_t>(ncols) + 1, -1);
      int* ptr = ptrv.data() - P.clo;
      kornlt::BlockTranspose bt;
      ASSERT_TRUE(bt.count(P, P.rlo, P.rhi, P.clo, P.chi, nt, ptr, base));
      ASSERT_EQ(ptr[P.chi + 1] - base, static_cast<int>(P.ja.size()));
      std::vector<std::pair<int, int>> out(P.ja.size(), {-1, -1});
      bt.fill(P, [&](int at, int i, int p) { out[static_cast<std::size_t>(at - base)] = {i, p}; });
      for (int j = P.clo; j <= P.chi; ++j) {
        const auto& want = ref[static_cast<std::size_t>(j - P.clo)];
        ASSERT_EQ(ptr[j + 1] - ptr[j], static_cast<int>(want.size())) << "column " << j;
        for (std::size_t q = 0; q < want.size(); ++q)
          ASSERT_EQ(out[static_cast<std::size_t>(ptr[j] - base) + q], want[q]) << "column " << j;
      }
    }
  }
}

}  // namespace
