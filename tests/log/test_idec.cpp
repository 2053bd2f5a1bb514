// idec against an independent digit split, and the documented examples.
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "log/log.hpp"

namespace {

// Reference: decimal string of |v| (with surplus low digits dropped), split.
std::vector<int> reference_split(long long v, int nnum, int& ndigit) {
  if (v < 0) v = -v;
  std::string s = std::to_string(v);
  if (s.size() > 9) s.resize(9);
  ndigit = static_cast<int>(s.size());
  std::vector<int> out(nnum, 0);
  for (int i = 0; i < nnum && i < ndigit; ++i) {
    if (i == nnum - 1) {
      out[i] = std::stoi(s.substr(i));
    } else {
      out[i] = s[i] - '0';
    }
  }
  return out;
}

std::vector<int> run_idec(int v, int nnum, int& ndigit) {
  std::vector<int> d(nnum, -7);
  ndigit = kornlt::idec(v, d);
  return d;
}

TEST(Idec, DocumentedExamples) {
  int nd = 0;
  EXPECT_EQ(run_idec(10305, 4, nd), (std::vector<int>{1, 0, 3, 5}));
  EXPECT_EQ(nd, 5);
  EXPECT_EQ(run_idec(32, 4, nd), (std::vector<int>{3, 2, 0, 0}));
  EXPECT_EQ(nd, 2);
  EXPECT_EQ(run_idec(-321, 2, nd), (std::vector<int>{3, 21}));
  EXPECT_EQ(nd, 3);
  EXPECT_EQ(run_idec(0, 3, nd), (std::vector<int>{0, 0, 0}));
  EXPECT_EQ(nd, 1);
  // 1234567890 drops its final digit first.
  EXPECT_EQ(run_idec(1234567890, 9, nd), (std::vector<int>{1, 2, 3, 4, 5, 6, 7, 8, 9}));
  EXPECT_EQ(nd, 9);
  EXPECT_EQ(run_idec(11030, 4, nd), (std::vector<int>{1, 1, 0, 30}));
  EXPECT_EQ(run_idec(110, 4, nd), (std::vector<int>{1, 1, 0, 0}));
}

TEST(Idec, RandomValuesAgreeWithReference) {
  std::mt19937 gen(12345);
  std::uniform_int_distribution<int> value(std::numeric_limits<int>::min() + 1,
                                           std::numeric_limits<int>::max());
  std::uniform_int_distribution<int> small(-99999, 99999);
  for (int trial = 0; trial < 20000; ++trial) {
    const int v = trial % 2 ? value(gen) : small(gen);
    const int nnum = 1 + trial % 9;
    int nd = 0, nd_ref = 0;
    const auto got = run_idec(v, nnum, nd);
    const auto want = reference_split(v, nnum, nd_ref);
    ASSERT_EQ(got, want) << "v=" << v << " nnum=" << nnum;
    ASSERT_EQ(nd, nd_ref) << "v=" << v;
  }
}

TEST(IdecDeathTest, IllegalUseStopsTheProcess) {
  std::vector<int> d(10);
  EXPECT_EXIT(kornlt::idec(5, d), testing::ExitedWithCode(EXIT_FAILURE),
              ">>> Emergency STOP! <<<");
  std::vector<int> none;
  EXPECT_EXIT(kornlt::idec(5, none), testing::ExitedWithCode(EXIT_FAILURE), "Emergency STOP");
  std::vector<int> two(2);
  EXPECT_EXIT(kornlt::idec(std::numeric_limits<int>::min(), two), testing::ExitedWithCode(EXIT_FAILURE),
              "Emergency STOP");
}

}  // namespace
