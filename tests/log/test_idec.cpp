// idec against hand splits and an independent split of the decimal string,
// and its stops.
#include <gtest/gtest.h>

#include <limits>
#include <random>
#include <string>
#include <vector>

#include "log/log.hpp"

namespace {

// Reference: decimal string of |v| (surplus low digits past nine dropped),
// one digit per field, the last field taking the rest.
std::vector<int> reference_split(long long v, int nnum, int& ndigit) {
  std::string s = std::to_string(v < 0 ? -v : v).substr(0, 9);
  ndigit = static_cast<int>(s.size());
  std::vector<int> out(nnum, 0);
  for (int i = 0; i < nnum && i < ndigit; ++i) out[i] = i == nnum - 1 ? std::stoi(s.substr(i)) : s[i] - '0';
  return out;
}

std::vector<int> run_idec(int v, int nnum, int& ndigit) {
  std::vector<int> d(nnum, -7);
  ndigit = kornlt::idec(v, d);
  return d;
}

TEST(Idec, SplitsLikeTheDecimalString) {
  struct Case {
    int v, nnum;
    std::vector<int> want;
    int ndigit;
  };
  const Case cases[] = {{10305, 4, {1, 0, 3, 5}, 5}, {32, 4, {3, 2, 0, 0}, 2}, {-321, 2, {3, 21}, 3},
                        {0, 3, {0, 0, 0}, 1},        {11030, 4, {1, 1, 0, 30}, 5},
                        {1234567890, 9, {1, 2, 3, 4, 5, 6, 7, 8, 9}, 9}};  // the final digit is dropped
  for (const Case& c : cases) {
    int nd = 0;
    EXPECT_EQ(run_idec(c.v, c.nnum, nd), c.want) << c.v;
    EXPECT_EQ(nd, c.ndigit) << c.v;
  }
  std::mt19937 gen(12345);
  std::uniform_int_distribution<int> value(std::numeric_limits<int>::min() + 1, std::numeric_limits<int>::max());
  std::uniform_int_distribution<int> small(-99999, 99999);
  for (int trial = 0; trial < 20000; ++trial) {
    const int v = trial % 2 ? value(gen) : small(gen), nnum = 1 + trial % 9;
    int nd = 0, nd_ref = 0;
    ASSERT_EQ(run_idec(v, nnum, nd), reference_split(v, nnum, nd_ref)) << "v=" << v << " nnum=" << nnum;
    ASSERT_EQ(nd, nd_ref) << "v=" << v;
  }
}

// Ten fields, none, or the one value without a magnitude stop the process.
TEST(IdecDeathTest, IllegalUseStopsTheProcess) {
  std::vector<int> ten(10), none, two(2);
  EXPECT_EXIT(kornlt::idec(5, ten), testing::ExitedWithCode(EXIT_FAILURE), ">>> Emergency STOP! <<<");
  EXPECT_EXIT(kornlt::idec(5, none), testing::ExitedWithCode(EXIT_FAILURE), "Emergency STOP");
  EXPECT_EXIT(kornlt::idec(std::numeric_limits<int>::min(), two), testing::ExitedWithCode(EXIT_FAILURE),
              "Emergency STOP");
}

}  // namespace
