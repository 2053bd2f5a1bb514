// Matrix Market reader and conversion: hand-computed small cases, a dense
// reference over random files, the exact failure texts, and vector files.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
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
class TempDir {
 public:
  TempDir() : dir_(fs::temp_directory_path() / ("korn_io_" + std::to_string(::getpid()))) {
    fs::create_directories(dir_);
  }
  ~TempDir() {
    std::error_code ec;
    fs::remove_all(dir_, ec);
  }
  std::string write(const std::string& name, const std::string& content) const {
    const std::string p = (dir_ / name).string();
    std::ofstream(p, std::ios::binary) << content;
    return p;
  }
  std::string path(const std::string& name) const { return (dir_ / name).string(); }

 private:
  fs::path dir_;
};

const TempDir& tmp() {
  static TempDir d;
  return d;
}

// The expected rows, written out by hand: per row (column, value), diagonal first.
using Rows = std::vector<std::vector<std::pair<int, double>>>;

void expect_rows(const CsrMatrix& m, const Rows& rows) {
  ASSERT_EQ(m.nnu, static_cast<int>(rows.size()));
  ASSERT_EQ(m.ia.size(), rows.size() + 1);
  ASSERT_EQ(m.ia[0], 1);
  int pos = 1;
  for (std::size_t i = 0; i < rows.size(); ++i) {
    ASSERT_EQ(m.ia[i], pos) << "row " << i + 1;
    ASSERT_EQ(m.ia[i + 1] - m.ia[i], static_cast<int>(rows[i].size())) << "row " << i + 1;
    for (const auto& [j, v] : rows[i]) {
      EXPECT_EQ(m.ja[pos - 1], j) << "row " << i + 1 << " position " << pos;
      EXPECT_EQ(m.a[pos - 1], v) << "row " << i + 1 << " column " << j;
      ++pos;
    }
  }
  EXPECT_EQ(m.nna, pos - 1);
  EXPECT_EQ(m.ia[rows.size()], pos);
}

CsrMatrix load_ok(const std::string& content, MtxInfo& info) {
  const std::string p = tmp().write("ok.mtx", content);
  CsrMatrix m;
  const std::string err = kornlt::mtx_load_matrix(p, m, info);
  EXPECT_EQ(err, "");
  return m;
}

// ---------------------------------------------------------------------------
// Hand-computed cases
// ---------------------------------------------------------------------------
TEST(MtxRead, GeneralUnorderedDuplicatesMissingDiagonal) {
  MtxInfo info;
  const CsrMatrix m = load_ok(
      "%%MatrixMarket matrix coordinate real general\n"
      "% a comment\n"
      "%\n"
      "3 3 6\n"
      "3 1 -1.5\n"
      "1 1 4\n"
      "1 3 -2\n"
      "2 3 0.5\n"
      "1 3 -1\n"
      "3 3 2\n",
      info);
  // Row 1: 4 on the diagonal, (1,3) = -2 + -1. Row 2 has no diagonal: 0.0 first.
  expect_rows(m, {{{1, 4.0}, {3, -3.0}}, {{2, 0.0}, {3, 0.5}}, {{3, 2.0}, {1, -1.5}}});
  EXPECT_EQ(info.ndiag_added, 1);
  EXPECT_EQ(info.nduplicates, 1);
  EXPECT_EQ(info.nentries, 6);
  EXPECT_EQ(info.field, kornlt::MtxField::kReal);
  EXPECT_EQ(info.symmetry, kornlt::MtxSymmetry::kGeneral);
}

TEST(MtxRead, SymmetricExpandsBothTriangles) {
  MtxInfo info;
  const CsrMatrix m = load_ok(
      "%%MatrixMarket matrix coordinate real symmetric\n"
      "4 4 6\n"
      "1 1 2\n"
      "2 1 -1\n"
      "2 2 2\n"
      "3 2 -1\n"
      "4 1 -0.25\n"
      "4 4 3\n",
      info);
  expect_rows(m, {{{1, 2.0}, {2, -1.0}, {4, -0.25}},
                  {{2, 2.0}, {1, -1.0}, {3, -1.0}},
                  {{3, 0.0}, {2, -1.0}},
                  {{4, 3.0}, {1, -0.25}}});
  EXPECT_EQ(info.ndiag_added, 1);
  EXPECT_EQ(info.nduplicates, 0);
  EXPECT_EQ(info.symmetry, kornlt::MtxSymmetry::kSymmetric);
}

TEST(MtxRead, SymmetricUpperEntryMirroredAndSummedWithLower) {
  MtxInfo info;
  // (1,2) given in both triangles: each is mirrored, so both positions hold the sum.
  const CsrMatrix m = load_ok(
      "%%MatrixMarket matrix coordinate real symmetric\n"
      "2 2 4\n"
      "1 1 5\n2 1 -1\n1 2 -0.5\n2 2 5\n",
      info);
  expect_rows(m, {{{1, 5.0}, {2, -1.5}}, {{2, 5.0}, {1, -1.5}}});
  EXPECT_EQ(info.nduplicates, 2);
}

TEST(MtxRead, PatternAndIntegerFields) {
  MtxInfo info;
  CsrMatrix m = load_ok(
      "%%MatrixMarket matrix coordinate pattern symmetric\n"
      "3 3 3\n2 1\n3 3\n3 2\n",
      info);
  EXPECT_EQ(info.field, kornlt::MtxField::kPattern);
  expect_rows(m, {{{1, 0.0}, {2, 1.0}}, {{2, 0.0}, {1, 1.0}, {3, 1.0}}, {{3, 1.0}, {2, 1.0}}});
  EXPECT_EQ(info.ndiag_added, 2);

  m = load_ok(
      "%%MatrixMarket matrix coordinate integer general\n"
      "2 2 3\n1 1 7\n2 2 +9\n1 2 -3\n",
      info);
  EXPECT_EQ(info.field, kornlt::MtxField::kInteger);
  expect_rows(m, {{{1, 7.0}, {2, -3.0}}, {{2, 9.0}}});
}

TEST(MtxRead, LenientLayout) {
  MtxInfo info;
  // Upper-case header words, CRLF line ends, tabs, blank and comment lines in
  // the data, a Fortran exponent, and no line end after the last entry.
  const CsrMatrix m = load_ok(
      "%%MatrixMarket MATRIX Coordinate REAL General\r\n"
      "\r\n"
      "2  2\t3\r\n"
      "% between entries\r\n"
      "1\t1   1.5D+01\r\n"
      "\r\n"
      "2 2 2.5e-1\r\n"
      "2 1 -1",
      info);
  expect_rows(m, {{{1, 15.0}}, {{2, 0.25}, {1, -1.0}}});
}

TEST(MtxRead, DuplicatesSummedInFileOrder) {
  MtxInfo info;
  // The entries of (1,2) arrive out of column order; the sum runs in file order.
  const CsrMatrix m = load_ok(
      "%%MatrixMarket matrix coordinate real general\n"
      "2 2 6\n1 2 0.1\n1 1 1\n1 2 0.2\n2 2 1\n1 2 0.3\n1 2 1e-17\n",
      info);
  const double s = ((0.1 + 0.2) + 0.3) + 1e-17;
  expect_rows(m, {{{1, 1.0}, {2, s}}, {{2, 1.0}}});
  EXPECT_EQ(info.nduplicates, 3);
}

TEST(MtxRead, EmptyMatrixGetsZeroDiagonals) {
  MtxInfo info;
  const CsrMatrix m = load_ok("%%MatrixMarket matrix coordinate real general\n3 3 0\n", info);
  expect_rows(m, {{{1, 0.0}}, {{2, 0.0}}, {{3, 0.0}}});
  EXPECT_EQ(info.ndiag_added, 3);
}

// ---------------------------------------------------------------------------
// Random files against a dense reference
// ---------------------------------------------------------------------------
TEST(MtxRead, RandomFilesAgreeWithDenseReference) {
  std::mt19937 gen(4711);
  for (int trial = 0; trial < 40; ++trial) {
    const bool symmetric = trial % 2 == 1;
    const int n = 1 + static_cast<int>(gen() % 40);
    const int nent = static_cast<int>(gen() % (4 * n * n / 3 + 1));
    std::uniform_int_distribution<int> idx(1, n);
    std::uniform_int_distribution<int> val(-64, 64);
    // Values k/8: sums are exact in any order.
    std::vector<double> dense(static_cast<std::size_t>(n) * n, 0.0);
    std::vector<char> stored(static_cast<std::size_t>(n) * n, 0);
    std::string file = std::string("%%MatrixMarket matrix coordinate real ") +
                       (symmetric ? "symmetric" : "general") + "\n% random\n" + std::to_string(n) +
                       " " + std::to_string(n) + " " + std::to_string(nent) + "\n";
    for (int e = 0; e < nent; ++e) {
      int i = idx(gen), j = idx(gen);
      if (symmetric && j > i && gen() % 4 != 0) std::swap(i, j);  // mostly lower, some upper
      const double v = val(gen) / 8.0;
      file += std::to_string(i) + " " + std::to_string(j) + " " + std::to_string(v) + "\n";
      dense[(i - 1) * static_cast<std::size_t>(n) + (j - 1)] += v;
      stored[(i - 1) * static_cast<std::size_t>(n) + (j - 1)] = 1;
      if (symmetric && i != j) {
        dense[(j - 1) * static_cast<std::size_t>(n) + (i - 1)] += v;
        stored[(j - 1) * static_cast<std::size_t>(n) + (i - 1)] = 1;
      }
    }
    Rows rows(static_cast<std::size_t>(n));
    int nodiag = 0;
    for (int i = 1; i <= n; ++i) {
      const std::size_t r = (i - 1) * static_cast<std::size_t>(n);
      rows[i - 1].push_back({i, dense[r + i - 1]});
      if (!stored[r + i - 1]) ++nodiag;
      for (int j = 1; j <= n; ++j)
        if (j != i && stored[r + j - 1]) rows[i - 1].push_back({j, dense[r + j - 1]});
    }
    MtxInfo info;
    const CsrMatrix m = load_ok(file, info);
    SCOPED_TRACE("trial " + std::to_string(trial));
    expect_rows(m, rows);
    EXPECT_EQ(info.ndiag_added, nodiag);
  }
}

// The conversion on its own, with a larger entry list in reversed order (the
// sort path of every row) and in sorted order (the in-order path).
TEST(MtxRead, ConversionSortedAndReversedAgree) {
  const int n = 300;
  std::vector<kornlt::MtxEntry> e;
  std::mt19937 gen(99);
  for (int k = 0; k < 5000; ++k)
    e.push_back({1 + static_cast<int>(gen() % n), 1 + static_cast<int>(gen() % n),
                 static_cast<double>(static_cast<int>(gen() % 17) - 8)});
  std::vector<kornlt::MtxEntry> sorted = e;
  std::stable_sort(sorted.begin(), sorted.end(), [](const auto& x, const auto& y) {
    return x.i < y.i || (x.i == y.i && x.j < y.j);
  });
  std::vector<kornlt::MtxEntry> reversed(sorted.rbegin(), sorted.rend());
  for (bool symmetric : {false, true}) {
    CsrMatrix a, b;
    std::int64_t da = 0, db = 0;
    const int na = kornlt::entries_to_csr(n, symmetric, sorted, a, da);
    const int nb = kornlt::entries_to_csr(n, symmetric, reversed, b, db);
    EXPECT_EQ(na, nb);
    EXPECT_EQ(da, db);
    ASSERT_EQ(a.nna, b.nna);
    EXPECT_EQ(a.ia, b.ia);
    for (int p = 0; p < a.nna; ++p) {
      EXPECT_EQ(a.ja[p], b.ja[p]);
      EXPECT_EQ(a.a[p], b.a[p]);
    }
    // Every row: diagonal first, the rest strictly ascending.
    for (int i = 1; i <= n; ++i) {
      EXPECT_EQ(a.ja[a.ia[i - 1] - 1], i);
      for (int p = a.ia[i - 1] + 1; p + 1 < a.ia[i]; ++p) EXPECT_LT(a.ja[p - 1], a.ja[p]);
    }
  }
}

// ---------------------------------------------------------------------------
// Failure texts
// ---------------------------------------------------------------------------
struct BadCase {
  const char* what;
  std::string content;
  std::string message;  // "P" stands for the path
};

std::string with_path(const std::string& msg, const std::string& path) {
  return msg.substr(0, 1) == "P" ? path + msg.substr(1) : msg;
}

TEST(MtxRead, MalformedMatrixFilesGiveExactMessages) {
  const std::string H = "%%MatrixMarket matrix coordinate real general\n";
  const std::vector<BadCase> cases = {
      {"empty file", "", "P: line 1: missing header line \"%%MatrixMarket matrix ...\""},
      {"no header", "3 3 1\n1 1 1\n", "P: line 1: missing header line \"%%MatrixMarket matrix ...\""},
      {"short header", "%%MatrixMarket matrix coordinate real\n3 3 0\n",
       "P: line 1: header must read \"%%MatrixMarket matrix <format> <field> <symmetry>\""},
      {"glued header", "%%MatrixMarketmatrix coordinate real general x\n",
       "P: line 1: header must read \"%%MatrixMarket matrix <format> <field> <symmetry>\""},
      {"vector object", "%%MatrixMarket vector coordinate real general\n",
       "P: line 1: unsupported object 'vector' (only 'matrix')"},
      {"array format", "%%MatrixMarket matrix array real general\n2 2\n1\n2\n3\n4\n",
       "P: line 1: unsupported format 'array' (a matrix file must be 'coordinate')"},
      {"complex field", "%%MatrixMarket matrix coordinate complex general\n",
       "P: line 1: unsupported field 'complex' (real, integer or pattern)"},
      {"hermitian", "%%MatrixMarket matrix coordinate real hermitian\n",
       "P: line 1: unsupported symmetry 'hermitian' (general or symmetric)"},
      {"skew", "%%MatrixMarket matrix coordinate real skew-symmetric\n",
       "P: line 1: unsupported symmetry 'skew-symmetric' (general or symmetric)"},
      {"no size line", H + "% only a comment\n", "P: line 3: missing size line"},
      {"two sizes", H + "3 3\n", "P: line 2: size line must hold 3 integers: rows columns entries"},
      {"four sizes", H + "3 3 1 1\n", "P: line 2: size line must hold 3 integers: rows columns entries"},
      {"word in sizes", H + "3 x 1\n", "P: line 2: size line must hold 3 integers: rows columns entries"},
      {"not square", H + "3 4 1\n1 1 1\n", "P: line 2: matrix is not square (3 rows, 4 columns)"},
      {"zero size", H + "0 0 0\n", "P: line 2: sizes must be positive (rows 0, columns 0, entries 0)"},
      {"negative count", H + "3 3 -1\n",
       "P: line 2: sizes must be positive (rows 3, columns 3, entries -1)"},
      {"too large", H + "3000000000 3000000000 1\n", "P: line 2: matrix too large for 32-bit indices"},
      {"too many after symmetric expansion",
       "%%MatrixMarket matrix coordinate real symmetric\n10 10 1073741820\n",
       "P: line 2: matrix too large for 32-bit indices"},
      {"two fields", H + "3 3 1\n1 1\n", "P: line 3: entry has 2 fields, expected 3 (row column value)"},
      {"pattern with value", "%%MatrixMarket matrix coordinate pattern general\n3 3 1\n1 1 1 1\n",
       "P: line 3: entry has 4 fields, expected 2 (row column)"},
      {"bad row", H + "3 3 1\na 1 1.0\n", "P: line 3: invalid row index 'a'"},
      {"real column", H + "3 3 1\n1 1.5 1.0\n", "P: line 3: invalid column index '1.5'"},
      {"bad value", H + "3 3 1\n1 1 x\n", "P: line 3: invalid value 'x'"},
      {"trailing junk", H + "3 3 1\n1 1 1.0x\n", "P: line 3: invalid value '1.0x'"},
      {"nan value", H + "3 3 1\n1 1 nan\n", "P: line 3: invalid value 'nan'"},
      {"infinite value", H + "3 3 1\n1 1 -inf\n", "P: line 3: invalid value '-inf'"},
      {"fraction in integer file", "%%MatrixMarket matrix coordinate integer general\n3 3 1\n1 1 2.5\n",
       "P: line 3: invalid value '2.5'"},
      {"row too big", H + "3 3 2\n1 1 1\n4 1 1.0\n", "P: line 4: row index 4 out of range 1..3"},
      {"column zero", H + "3 3 1\n% c\n1 0 1.0\n", "P: line 4: column index 0 out of range 1..3"},
      {"negative row", H + "3 3 1\n-1 2 1.0\n", "P: line 3: row index -1 out of range 1..3"},
      {"too many entries", H + "3 3 1\n1 1 1\n2 2 1\n", "P: line 4: more entries than the 1 declared in the size line"},
      {"too few entries", H + "3 3 3\n1 1 1\n", "P: line 4: end of file after 1 of 3 declared entries"},
      {"too few, comment at end", H + "3 3 2\n1 1 1\n% end\n\n",
       "P: line 6: end of file after 1 of 2 declared entries"},
  };
  for (const BadCase& c : cases) {
    SCOPED_TRACE(c.what);
    const std::string p = tmp().write("bad.mtx", c.content);
    CsrMatrix m;
    MtxInfo info;
    EXPECT_EQ(kornlt::mtx_load_matrix(p, m, info), with_path(c.message, p));
    EXPECT_EQ(m.nnu, 0);
    EXPECT_TRUE(m.ia.empty());
  }
}

TEST(MtxRead, MissingFileNamesTheReason) {
  const std::string p = tmp().path("does_not_exist.mtx");
  CsrMatrix m;
  MtxInfo info;
  EXPECT_EQ(kornlt::mtx_load_matrix(p, m, info), p + ": cannot open file (No such file or directory)");
  std::vector<double> v;
  EXPECT_EQ(kornlt::mtx_load_vector(p, v), p + ": cannot open file (No such file or directory)");
}

// The driver reports through the library: an error message naming it, ierr 100.
TEST(MtxRead, DriverFollowsErrorConvention) {
  const std::string p = tmp().write("drv.mtx", "%%MatrixMarket matrix coordinate real general\n2 2 1\n3 1 1\n");
  kornlt::ierr() = 0;
  CsrMatrix m;
  MtxInfo info;
  testing::internal::CaptureStdout();
  kornlt::read_mtx_matrix(p, m, info);
  const std::string out = testing::internal::GetCapturedStdout();
  EXPECT_EQ(kornlt::ierr(), kornlt::kErrFile);
  EXPECT_TRUE(kornlt::failed());
  EXPECT_NE(out.find("*** ERROR: " + p + ": line 3: row index 3 out of range 1..2 (read_mtx_matrix)"),
            std::string::npos)
      << out;
  kornlt::ierr() = 0;

  const std::string good = tmp().write("drv2.mtx", "%%MatrixMarket matrix coordinate real general\n1 1 1\n1 1 2\n");
  kornlt::read_mtx_matrix(good, m, info);
  EXPECT_EQ(kornlt::ierr(), 0);
  expect_rows(m, {{{1, 2.0}}});
}

// ---------------------------------------------------------------------------
// Vector files
// ---------------------------------------------------------------------------
TEST(MtxVector, ReadsArrayFiles) {
  const std::string p = tmp().write(
      "v.mtx",
      "%%MatrixMarket matrix array real general\n% rhs\n4 1\n1.5\n-2\n\n% gap\n3e2\n  0.125  \n");
  std::vector<double> v;
  EXPECT_EQ(kornlt::mtx_load_vector(p, v), "");
  EXPECT_EQ(v, (std::vector<double>{1.5, -2.0, 300.0, 0.125}));

  const std::string q = tmp().write("vi.mtx", "%%MatrixMarket matrix array integer general\n2 1\n7\n-3\n");
  EXPECT_EQ(kornlt::mtx_load_vector(q, v), "");
  EXPECT_EQ(v, (std::vector<double>{7.0, -3.0}));
}

TEST(MtxVector, WriteThenReadIsExact) {
  std::vector<double> v = {1.0 / 3.0, -2.0e-300, 6.02214076e23, 0.0, -0.1, 1e308};
  std::mt19937 gen(3);
  std::uniform_real_distribution<double> d(-1e3, 1e3);
  for (int k = 0; k < 200; ++k) v.push_back(d(gen));
  const std::string p = tmp().path("w.mtx");
  EXPECT_EQ(kornlt::mtx_save_vector(p, v), "");
  std::vector<double> back;
  EXPECT_EQ(kornlt::mtx_load_vector(p, back), "");
  EXPECT_EQ(back, v);
}

TEST(MtxVector, MalformedVectorFilesGiveExactMessages) {
  const std::string H = "%%MatrixMarket matrix array real general\n";
  const std::vector<BadCase> cases = {
      {"coordinate", "%%MatrixMarket matrix coordinate real general\n3 1 0\n",
       "P: line 1: unsupported format 'coordinate' (a vector file must be 'array')"},
      {"pattern", "%%MatrixMarket matrix array pattern general\n3 1\n",
       "P: line 1: unsupported field 'pattern' (real or integer)"},
      {"complex", "%%MatrixMarket matrix array complex general\n3 1\n",
       "P: line 1: unsupported field 'complex' (real or integer)"},
      {"symmetric", "%%MatrixMarket matrix array real symmetric\n3 1\n",
       "P: line 1: unsupported symmetry 'symmetric' (general)"},
      {"no size", H, "P: line 2: missing size line"},
      {"one size", H + "3\n", "P: line 2: size line must hold 2 integers: rows columns"},
      {"two columns", H + "3 2\n", "P: line 2: a vector needs exactly 1 column, found 2"},
      {"zero rows", H + "0 1\n", "P: line 2: row count 0 out of range"},
      {"two values", H + "2 1\n1 2\n", "P: line 3: line has 2 fields, expected 1 value"},
      {"bad value", H + "2 1\n1\nabc\n", "P: line 4: invalid value 'abc'"},
      {"too many", H + "1 1\n1\n2\n", "P: line 4: more values than the 1 declared in the size line"},
      {"too few", H + "3 1\n1\n", "P: line 4: end of file after 1 of 3 declared values"},
  };
  for (const BadCase& c : cases) {
    SCOPED_TRACE(c.what);
    const std::string p = tmp().write("badv.mtx", c.content);
    std::vector<double> v;
    EXPECT_EQ(kornlt::mtx_load_vector(p, v), with_path(c.message, p));
    EXPECT_TRUE(v.empty());
  }
}

TEST(MtxVector, DriversFollowErrorConvention) {
  kornlt::ierr() = 0;
  std::vector<double> v;
  const std::string p = tmp().write("dv.mtx", "%%MatrixMarket matrix array real general\n2 1\n1\n");
  testing::internal::CaptureStdout();
  kornlt::read_mtx_vector(p, v);
  std::string out = testing::internal::GetCapturedStdout();
  EXPECT_EQ(kornlt::ierr(), kornlt::kErrFile);
  EXPECT_NE(out.find("*** ERROR: " + p + ": line 4: end of file after 1 of 2 declared values (read_mtx_vector)"),
            std::string::npos)
      << out;
  kornlt::ierr() = 0;

  const std::string bad = tmp().path("no_such_dir/x.mtx");
  testing::internal::CaptureStdout();
  kornlt::write_mtx_vector(bad, {1.0});
  out = testing::internal::GetCapturedStdout();
  EXPECT_EQ(kornlt::ierr(), kornlt::kErrFile);
  EXPECT_NE(out.find(bad + ": cannot create file (No such file or directory) (write_mtx_vector)"),
            std::string::npos)
      << out;
  kornlt::ierr() = 0;
}

}  // namespace
