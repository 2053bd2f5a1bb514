// Matrix Market reader: hand-computed small files, random files against a
// map of summed entries, the exact failure texts, and vector files.
#include <gtest/gtest.h>

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <cmath>
#include <random>
#include <string>
#include <vector>

#include "io/io.hpp"
#include "log/log.hpp"

namespace {

namespace fs = std::filesystem;
using kornlt::CsrMatrix;
using kornlt::MtxInfo;

// A scratch directory per test program, removed at the end.
struct TempDir {
  const fs::path dir = fs::temp_directory_path() / ("korn_io_" + std::to_string(::getpid()));
  TempDir() { fs::create_directories(dir); }
  ~TempDir() {
    std::error_code ec;
    fs::remove_all(dir, ec);
  }
  std::string path(const std::string& name) const { return (dir / name).string(); }
  std::string write(const std::string& name, const std::string& content) const {
    std::ofstream(path(name), std::ios::binary) << content;
    return path(name);
  }
} const tmp_dir;
const TempDir& tmp() { return tmp_dir; }

// The expected rows, written out by hand: per row (column, value), diagonal first.
using Rows = std::vector<std::vector<std::pair<int, double>>>;

void expect_rows(const CsrMatrix& m, const Rows& rows) {
  std::vector<int> ia{1}, ja;
  std::vector<double> a;
  for (const auto& row : rows) {
    for (const auto& [j, v] : row) ja.push_back(j), a.push_back(v);
    ia.push_back(static_cast<int>(ja.size()) + 1);
  }
  ASSERT_EQ(m.nnu, static_cast<int>(rows.size()));
  ASSERT_EQ(m.nna, static_cast<int>(ja.size()));
  EXPECT_EQ(m.ia, ia);
  EXPECT_EQ(std::vector<int>(m.ja.begin(), m.ja.begin() + m.nna), ja);
  EXPECT_EQ(std::vector<double>(m.a.begin(), m.a.begin() + m.nna), a);
}

CsrMatrix load_ok(const std::string& content, MtxInfo& info) {
  CsrMatrix m;
  EXPECT_EQ(kornlt::mtx_load_matrix(tmp().write("ok.mtx", content), m, info), "");
  return m;
}

TEST(MtxRead, HandComputedFiles) {
  struct Case {
    const char* what;
    std::string content;
    Rows rows;
    int ndiag_added, nduplicates;
  };
  const std::string G = "%%MatrixMarket matrix coordinate real general\n";
  const Case cases[] = {
      // Row 1: (1,3) = -2 + -1. Row 2 has no diagonal: 0.0 first.
      {"general", G + "% a comment\n%\n3 3 6\n3 1 -1.5\n1 1 4\n1 3 -2\n2 3 0.5\n1 3 -1\n3 3 2\n",
       {{{1, 4.0}, {3, -3.0}}, {{2, 0.0}, {3, 0.5}}, {{3, 2.0}, {1, -1.5}}}, 1, 1},
      // (1,2) in both triangles: each is mirrored, so both positions hold the sum.
      {"symmetric", "%%MatrixMarket matrix coordinate real symmetric\n2 2 4\n1 1 5\n2 1 -1\n1 2 -0.5\n2 2 5\n",
       {{{1, 5.0}, {2, -1.5}}, {{2, 5.0}, {1, -1.5}}}, 0, 2},
      {"pattern", "%%MatrixMarket matrix coordinate pattern symmetric\n3 3 3\n2 1\n3 3\n3 2\n",
       {{{1, 0.0}, {2, 1.0}}, {{2, 0.0}, {1, 1.0}, {3, 1.0}}, {{3, 1.0}, {2, 1.0}}}, 2, 0},
      // Upper-case words, CRLF, tabs, blank and comment lines between entries, a
      // Fortran exponent, and no line end after the last entry.
      {"lenient layout",
       "%%MatrixMarket MATRIX Coordinate REAL General\r\n\r\n2  2\t3\r\n% x\r\n1\t1   1.5D+01\r\n\r\n"
       "2 2 2.5e-1\r\n2 1 -1",
       {{{1, 15.0}}, {{2, 0.25}, {1, -1.0}}}, 0, 0},
      {"empty", G + "3 3 0\n", {{{1, 0.0}}, {{2, 0.0}}, {{3, 0.0}}}, 3, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    MtxInfo info;
    expect_rows(load_ok(c.content, info), c.rows);
    EXPECT_EQ(info.ndiag_added, c.ndiag_added);
    EXPECT_EQ(info.nduplicates, c.nduplicates);
  }
}

TEST(MtxRead, RandomFilesAgreeWithASummedEntryMap) {
  std::mt19937 gen(4711);
  for (int trial = 0; trial < 40; ++trial) {
    const bool symmetric = trial % 2 == 1;
    const int n = 1 + static_cast<int>(gen() % 40);
    const int nent = static_cast<int>(gen() % (4 * n * n / 3 + 1));
    std::uniform_int_distribution<int> idx(1, n), val(-64, 64);
    std::map<std::pair<int, int>, double> ref;  // values k/8: sums are exact in any order
    std::string file = std::string("%%MatrixMarket matrix coordinate real ") + (symmetric ? "symmetric" : "general") +
                       "\n% random\n" + std::to_string(n) + " " + std::to_string(n) + " " + std::to_string(nent) + "\n";
    for (int e = 0; e < nent; ++e) {
      int i = idx(gen), j = idx(gen);
      if (symmetric && j > i && gen() % 4 != 0) std::swap(i, j);  // mostly lower, some upper
      const double v = val(gen) / 8.0;
      file += std::to_string(i) + " " + std::to_string(j) + " " + std::to_string(v) + "\n";
      ref[{i, j}] += v;
      if (symmetric && i != j) ref[{j, i}] += v;
    }
    Rows rows(static_cast<std::size_t>(n));
    int nodiag = 0;
    for (int i = 1; i <= n; ++i) {
      const auto d = ref.find({i, i});
      nodiag += d == ref.end();
      rows[i - 1].push_back({i, d == ref.end() ? 0.0 : d->second});
    }
    for (const auto& [ij, v] : ref)
      if (ij.first != ij.second) rows[ij.first - 1].push_back({ij.second, v});
    SCOPED_TRACE("trial " + std::to_string(trial));
    MtxInfo info;
    expect_rows(load_ok(file, info), rows);
    EXPECT_EQ(info.ndiag_added, nodiag);
  }
}

// Failure texts, one case per kind of check; "P" stands for the path.
TEST(MtxRead, MalformedFilesGiveExactMessages) {
  struct BadCase {
    bool vector;
    std::string content, message;
  };
  const std::string H = "%%MatrixMarket matrix coordinate real general\n";
  const std::string V = "%%MatrixMarket matrix array real general\n";
  const BadCase cases[] = {
      {false, "", "P: line 1: missing header line \"%%MatrixMarket matrix ...\""},
      {false, "%%MatrixMarket matrix coordinate real skew-symmetric\n",
       "P: line 1: unsupported symmetry 'skew-symmetric' (general or symmetric)"},
      {false, H + "3 3\n", "P: line 2: size line must hold 3 integers: rows columns entries"},
      {false, H + "3 4 1\n1 1 1\n", "P: line 2: matrix is not square (3 rows, 4 columns)"},
      {false, "%%MatrixMarket matrix coordinate real symmetric\n10 10 1073741820\n",
       "P: line 2: matrix too large for 32-bit indices"},
      {false, H + "3 3 1\n1 1 1.0x\n", "P: line 3: invalid value '1.0x'"},
      {false, H + "3 3 1\n% c\n1 0 1.0\n", "P: line 4: column index 0 out of range 1..3"},
      {false, H + "3 3 1\n1 1 1\n2 2 1\n", "P: line 4: more entries than the 1 declared in the size line"},
      {false, H + "3 3 2\n1 1 1\n% end\n\n", "P: line 6: end of file after 1 of 2 declared entries"},
      {true, V + "3 2\n", "P: line 2: a vector needs exactly 1 column, found 2"},
      {true, V + "3 1\n1\n", "P: line 4: end of file after 1 of 3 declared values"},
  };
  for (const BadCase& c : cases) {
    SCOPED_TRACE(c.message);
    const std::string p = tmp().write("bad.mtx", c.content);
    const std::string want = p + c.message.substr(1);
    CsrMatrix m;
    MtxInfo info;
    std::vector<double> v;
    EXPECT_EQ(c.vector ? kornlt::mtx_load_vector(p, v) : kornlt::mtx_load_matrix(p, m, info), want);
    EXPECT_TRUE(m.ia.empty() && v.empty());
  }
  const std::string none = tmp().path("does_not_exist.mtx");
  CsrMatrix m;
  MtxInfo info;
  EXPECT_EQ(kornlt::mtx_load_matrix(none, m, info), none + ": cannot open file (No such file or directory)");
  // The driver reports through the library: an error message naming it, ierr 100.
  kornlt::ierr() = 0;
  testing::internal::CaptureStdout();
  kornlt::read_mtx_matrix(none, m, info);
  const std::string out = testing::internal::GetCapturedStdout();
  EXPECT_EQ(kornlt::ierr(), kornlt::kErrFile);
  kornlt::ierr() = 0;
  EXPECT_NE(out.find("*** ERROR: " + none + ": cannot open file (No such file or directory) (read_mtx_matrix)"),
            std::string::npos) << out;
}

TEST(MtxVector, ReadsArrayFilesAndWritesExactValues) {
  const std::string p = tmp().write(
      "v.mtx", "%%MatrixMarket matrix array real general\n% rhs\n4 1\n1.5\n-2\n\n% gap\n3e2\n  0.125  \n");
  std::vector<double> v;
  EXPECT_EQ(kornlt::mtx_load_vector(p, v), "");
  EXPECT_EQ(v, (std::vector<double>{1.5, -2.0, 300.0, 0.125}));
  // Written and read back, every value is exact.
  v = {1.0 / 3.0, -2.0e-300, 6.02214076e23, 0.0, -0.1, 1e308, std::nextafter(1.0, 2.0)};
  std::vector<double> back;
  EXPECT_EQ(kornlt::mtx_save_vector(tmp().path("w.mtx"), v), "");
  EXPECT_EQ(kornlt::mtx_load_vector(tmp().path("w.mtx"), back), "");
  EXPECT_EQ(back, v);
}

}  // namespace
