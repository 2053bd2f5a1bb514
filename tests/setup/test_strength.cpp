// Tests of the strength of connection and row sorting (rwsrt) and of the
// split of the encoded reals: the plain strength rule and the row invariants
// over random and anisotropic matrices, hand-computed row classes and
// positive eliminations, thread independence and the error exits.
#include <set>

#include "setup/setup_fixtures.hpp"

namespace {

using namespace setup_test;
using kornlt::RowSortResult;

// Both signs, and every fifth diagonal weak (violating with ewt1 1.5), zero,
// negative or strongly dominant.
Csr mixed_rows(int n, unsigned seed) {
  Csr m = random_sym(n, seed, 8, 0.3);
  const double factors[] = {0.3, 0.0, -1.0, 1000.0};
  for (int i = 5; i <= n; i += 5) m.a[at(row_begin(m, i) - 1)] *= factors[(i / 5) % 4];
  return m;
}

struct Thresholds {
  int ncgtyp = 1;
  double ecg1 = 0.01, ecg2 = 0.25, ewt1 = 0.0, ewt2 = 0.2, eps = 0.9;
};

RowSortResult sort_level(Level& lv, const Thresholds& t, int msg_level = -1) {
  return kornlt::rwsrt(lv.view(), t.ncgtyp, t.ecg1, t.ecg2, t.ewt1, t.ewt2, t.eps, msg_level);
}

// The strong stretch ia(i)+1 .. end of row i as a set of columns.
std::set<int> stretch(const Level& lv, int i) {
  std::set<int> s;
  for (int p = lv.IA(i) + 1; p <= lv.end(i); ++p) s.insert(lv.JA(p));
  return s;
}

class Rwsrt : public SetupTest {
 protected:
  void SetUp() override {
    SetupTest::SetUp();
    kornlt::prm().nmin_matrix = 0;  // small levels run threaded too
    omp_set_num_threads(2);
  }
};

TEST(SplitEncoded, Table) {
  const double rows[][3] = {
      {21.25, 0.01, 0.25}, {0.2, 0.0, 0.2},      {12.2, 0.2, 0.2},  {-21.25, 0.01, 0.25},
      {5.5, 5.0, 0.5},     {33.75, 0.003, 0.75}, {10.0, 0.0, 0.0}, {99.05, 9e-9, 0.05},
  };
  for (const auto& r : rows) {
    double first = -1.0, second = -1.0;
    kornlt::split_encoded(r[0], first, second);
    EXPECT_DOUBLE_EQ(first, r[1]) << r[0];
    EXPECT_DOUBLE_EQ(second, r[2]) << r[0];
  }
  double f = 0.0, s = 0.0;  // the defaults give exactly the decimal numbers
  kornlt::split_encoded(12.2, f, s);
  EXPECT_EQ(f, 0.2);
  EXPECT_EQ(s, 0.2);
}

// Every row is a permutation of the original with the diagonal first and the
// strong ends restore to the diagonal convention. On M-matrix rows (no
// positive coupling: every type is the plain test) the stretch is exactly
// { j : a_ij <= ecg2 * min_j a_ij } with the smallest value at its head; on
// -u_xx - 0.001 u_yy (couplings stored y first) that is the x neighbours
// alone, 2 (nx - 1) ny couplings.
TEST_F(Rwsrt, RowInvariantsAndThePlainRule) {
  struct Named {
    const char* name;
    Csr m;
    bool m_matrix;
    std::int64_t nstrong;  // -1: not counted here
  };
  const Named mats[] = {{"M-matrix", random_sym(150, 3u, 8, 0.0), true, -1},
                        {"poisson3d", grid3d(5), true, -1},
                        {"anisotropic", grid2d(10, 6, -1.0, -1.0, -0.001, -0.001, 2.002), true, 2 * 9 * 6},
                        {"mixed 1", mixed_rows(150, 11u), false, -1},
                        {"mixed 2", mixed_rows(150, 12u), false, -1}};
  int run = 0;
  for (const Named& nm : mats)
    for (int type = 1; type <= 5; ++type)
      for (double ecg2 : {0.1, 0.25, 0.5}) {
        const std::string what = std::string(nm.name) + " type " + std::to_string(type) + " ecg2 " +
                                 std::to_string(ecg2);
        Thresholds t;
        t.ncgtyp = type;
        t.ecg2 = ecg2;
        t.ewt1 = nm.m_matrix ? 0.0 : 1.5;
        Level lv = ++run % 2 ? make_level(nm.m, 1000, 5000) : make_level(nm.m);
        const RowSortResult res = sort_level(lv, t);
        ASSERT_EQ(kornlt::ierr(), 0) << what;
        std::int64_t nstrong = 0;
        for (int r = 1; r <= nm.m.nnu; ++r) {
          const int i = lv.ilo + r - 1, d = lv.IA(i);
          ASSERT_EQ(lv.A(d), nm.m.a[at(row_begin(nm.m, r) - 1)]) << what << " row " << r;
          std::multiset<std::pair<int, double>> got, want;
          for (int p = d + 1; p < lv.IA(i + 1); ++p) got.insert({lv.JA(p) - lv.ilo + 1, lv.A(p)});
          for (int p = row_begin(nm.m, r) + 1; p < row_end(nm.m, r); ++p)
            want.insert({nm.m.ja[at(p - 1)], nm.m.a[at(p - 1)]});
          ASSERT_EQ(got, want) << what << " row " << r;
          if (lv.end(i) > d) nstrong += lv.end(i) - d;
          if (!nm.m_matrix) continue;
          double amin = 0.0;
          for (auto [c, v] : want) amin = std::min(amin, v);
          std::set<int> strong;
          for (auto [c, v] : want)
            if (v <= ecg2 * amin) strong.insert(c + lv.ilo - 1);
          ASSERT_EQ(stretch(lv, i), strong) << what << " row " << r;
          if (!strong.empty()) {
            EXPECT_EQ(lv.A(d + 1), amin) << what << " row " << r;
          }
        }
        EXPECT_EQ(res.nstrong, nstrong) << what;
        if (nm.nstrong >= 0) {
          EXPECT_EQ(nstrong, nm.nstrong) << what;
        }
        kornlt::restore_diagonals(lv.view());
        for (int i = lv.ilo; i <= lv.ihi; ++i) ASSERT_EQ(lv.end(i), i) << what;
      }
}

// One row of a 4-variable level (rows 2..4 Dirichlet) per case; the counter
// named must count it.
TEST_F(Rwsrt, HandComputedRowClasses) {
  struct RowCase {
    const char* what;
    int type;
    double ewt1, diag;
    Off offs;
    int end_offset;  // expected end - ia(1); -1 for end 0
    int head;        // column at ia(1)+1, -1 unchecked
    int RowSortResult::*counter;
  };
  const RowCase cases[] = {
      {"single positive, type 1", 1, 0.0, 4.0, {{2, 1.0}}, -1, -1, &RowSortResult::nonly_pos},
      {"single positive, type 2", 2, 0.0, 4.0, {{2, 1.0}}, 1, 2, &RowSortResult::nonly_pos},
      {"ties at amin", 1, 0.0, 4.0, {{2, -0.5}, {3, -1.0}, {4, -1.0}}, 3, 3, nullptr},
      {"ties, exact threshold", 1, 0.0, 4.0, {{2, -0.25}, {4, -1.0}, {3, -1.0}}, 3, 4, nullptr},
      {"weak below threshold", 1, 0.0, 4.0, {{2, -0.2}, {3, -1.0}, {4, 0.1}}, 1, 3, nullptr},
      {"strongly dominant", 1, 0.0, 1000.0, {{2, -5.0}, {3, -5.0}}, 0, -1, &RowSortResult::nstrong_dd},
      {"zero diagonal: violating with ewt1 0", 2, 0.0, 0.0, {{2, -1.0}}, -1, -1, &RowSortResult::nviolating},
      {"negative diagonal", 1, 0.0, -1.0, {{2, -0.5}}, -1, -1, &RowSortResult::nnonpos_diag},
      {"violating with ewt1 2", 1, 2.0, 1.0, {{2, -1.5}, {3, -1.0}}, -1, -1, &RowSortResult::nviolating},
      {"not violating with ewt1 3", 1, 3.0, 1.0, {{2, -1.5}, {3, -1.0}}, 2, 2, nullptr},
      {"zero diagonal, zero couplings", 1, 0.0, 0.0, {{2, 0.0}}, 0, -1, &RowSortResult::nstrong_dd},
  };
  for (const RowCase& c : cases) {
    SCOPED_TRACE(c.what);
    Csr m;
    add_row(m, c.diag, c.offs);
    for (int r = 2; r <= 4; ++r) add_row(m, 1.0, {});
    Level lv = make_level(m);
    Thresholds t;
    t.ncgtyp = c.type;
    t.ewt1 = c.ewt1;
    const RowSortResult res = sort_level(lv, t);
    ASSERT_EQ(kornlt::ierr(), 0);
    const int d = lv.IA(1);
    EXPECT_EQ(lv.end(1), c.end_offset < 0 ? 0 : d + c.end_offset);
    EXPECT_EQ(res.nstrong, std::max(c.end_offset, 0));
    if (c.head > 0) {
      EXPECT_EQ(lv.JA(d + 1), c.head);
    }
    if (c.counter != nullptr) {
      EXPECT_EQ(res.*c.counter, 1);
    }
    EXPECT_EQ(res.ndirichlet, 3);
  }
}

// A 5x5 matrix (ecg1 0.01, ecg2 0.25, ewt1 0, ewt2 0.2), rows as
// (column: value) with the diagonal first:
//   row 1: 1:4  2:-1   3:-0.8  4:2
//   row 2: 2:4  1:-1   5:2
//   row 3: 3:4  1:0.4  4:2
//   row 4: 4:4  2:-2   1:0.3
//   row 5: 5:2  1:-1   2:2
// Plain test (types 1, 2): a_ij <= 0.25 * amin.
//   row 1: columns 2, 3, head 2.  row 2: {1}.  row 4: {2}.  row 5: {1}.
//   row 3 (positive only): type 1 end 0; type 2: a_ij >= 0.5 * ... {4}.
// Positive elimination (types 3, 4, 5), t = 0.2 * |amin|:
//   row 1: a_14 = 2 > 0.2. w = (4, -1, -0.8, 2). Eliminate column 4 with
//     factor -(2/4): w2 += -0.5 * -2 -> 0, w1 -> 3.85. wmin = w3 = -0.8;
//     candidates a_ij <= -0.25: column 2 (w 0 > -0.2: dropped), column 3
//     (-0.8 <= -0.2: kept). Strong {3}; a drop, so not ineffective.
//   row 2: a_25 = 2 > 0.2. Eliminate column 5 with factor -(2/2): w1 -> 0.
//     wmin 0: failed. Type 3: end 0; types 4, 5: the plain test, {1}.
//   row 3: positive only: types 3, 4 end 0; type 5 as type 2, {4}.
//   row 4: t 0.4, amax 0.3 <= t: the plain test, {2}.
//   row 5: a_52 = 2 > 0.2. Eliminate column 2 with factor -(2/4): w1 -> -0.5,
//     w5 -> 1. Column 1 kept, nothing dropped: ineffective. Strong {1}.
TEST_F(Rwsrt, HandComputedPositiveElimination) {
  Csr m;
  add_row(m, 4, {{2, -1.0}, {3, -0.8}, {4, 2.0}});
  add_row(m, 4, {{1, -1.0}, {5, 2.0}});
  add_row(m, 4, {{1, 0.4}, {4, 2.0}});
  add_row(m, 4, {{2, -2.0}, {1, 0.3}});
  add_row(m, 2, {{1, -1.0}, {2, 2.0}});
  struct RowWant {
    std::set<int> strong;  // empty and head 0: end 0
    int head;
  };
  struct TypeWant {
    int type;
    RowWant rows[5];
    std::int64_t nstrong;
    int nelim, nineff, nfailed;
  };
  const TypeWant wants[] = {
      {1, {{{2, 3}, 2}, {{1}, 1}, {{}, 0}, {{2}, 2}, {{1}, 1}}, 5, 0, 0, 0},
      {2, {{{2, 3}, 2}, {{1}, 1}, {{4}, 4}, {{2}, 2}, {{1}, 1}}, 6, 0, 0, 0},
      {3, {{{3}, 3}, {{}, 0}, {{}, 0}, {{2}, 2}, {{1}, 1}}, 3, 3, 1, 1},
      {4, {{{3}, 3}, {{1}, 1}, {{}, 0}, {{2}, 2}, {{1}, 1}}, 4, 3, 1, 1},
      {5, {{{3}, 3}, {{1}, 1}, {{4}, 4}, {{2}, 2}, {{1}, 1}}, 5, 3, 1, 1},
  };
  for (const TypeWant& tw : wants) {
    SCOPED_TRACE("type " + std::to_string(tw.type));
    Level lv = make_level(m);
    Thresholds t;
    t.ncgtyp = tw.type;
    const RowSortResult res = sort_level(lv, t);
    ASSERT_EQ(kornlt::ierr(), 0);
    for (int i = 1; i <= 5; ++i) {
      const RowWant& w = tw.rows[i - 1];
      if (w.head == 0) {
        EXPECT_EQ(lv.end(i), 0) << "row " << i;
        continue;
      }
      EXPECT_EQ(stretch(lv, i), w.strong) << "row " << i;
      EXPECT_EQ(lv.JA(lv.IA(i) + 1), w.head) << "row " << i;
    }
    EXPECT_EQ(res.nstrong, tw.nstrong);
    EXPECT_EQ(res.nonly_pos, 1);
    EXPECT_EQ(res.nelim, tw.nelim);
    EXPECT_EQ(res.nelim_ineffective, tw.nineff);
    EXPECT_EQ(res.nelim_failed, tw.nfailed);
  }
}

// Chained elimination: the second eliminated column takes its multiplier from
// the work vector as the first elimination left it, not from the matrix.
//   row 1: 1:4  2:-1  5:-1  3:1  4:1     rows 2, 5: Dirichlet
//   row 3: 3:2  4:2   2:-1
//   row 4: 4:4  2:-2
// Row 1: column 3: factor -(1/2): w4 -> 0, w2 -> -0.5. Column 4: w4 = 0 (a_14
//   would be 1): nothing. wmin = w5 = -1: columns 2 (-0.5 <= -0.25) and 5
//   kept, nothing dropped: ineffective, strong {2, 5}, head 2. With a_14 as
//   multiplier column 2 would have been dropped.
// Row 3: column 4 with factor -0.5: w2 -> 0, failed: type 3 end 0, types 4,
//   5 the plain test {2}. Row 4: no positive coupling: {2}.
TEST_F(Rwsrt, HandComputedChainedElimination) {
  Csr m;
  add_row(m, 4, {{2, -1.0}, {5, -1.0}, {3, 1.0}, {4, 1.0}});
  add_row(m, 1, {});
  add_row(m, 2, {{4, 2.0}, {2, -1.0}});
  add_row(m, 4, {{2, -2.0}});
  add_row(m, 1, {});
  struct Want {
    int type;
    bool row3_zero;
    std::int64_t nstrong;
    int nelim, nineff, nfailed;
  };
  for (const Want& w : {Want{3, true, 3, 2, 1, 1}, Want{4, false, 4, 2, 1, 1}, Want{5, false, 4, 2, 1, 1},
                        Want{1, false, 4, 0, 0, 0}}) {
    SCOPED_TRACE("type " + std::to_string(w.type));
    Level lv = make_level(m);
    Thresholds t;
    t.ncgtyp = w.type;
    const RowSortResult res = sort_level(lv, t);
    EXPECT_EQ(stretch(lv, 1), (std::set<int>{2, 5}));
    EXPECT_EQ(lv.JA(lv.IA(1) + 1), 2);
    if (w.row3_zero) {
      EXPECT_EQ(lv.end(3), 0);
    } else {
      EXPECT_EQ(stretch(lv, 3), std::set<int>{2});
    }
    EXPECT_EQ(stretch(lv, 4), std::set<int>{2});
    EXPECT_EQ(res.nstrong, w.nstrong);
    EXPECT_EQ(res.nelim, w.nelim);
    EXPECT_EQ(res.nelim_ineffective, w.nineff);
    EXPECT_EQ(res.nelim_failed, w.nfailed);
    EXPECT_EQ(res.ndirichlet, 2);
  }
}

// The result depends neither on the thread count nor on timing.
TEST_F(Rwsrt, IdenticalOnOneAndTwoThreadsAndRepeatedRuns) {
  const Csr m = mixed_rows(2000, 99u);
  for (int type = 1; type <= 5; ++type) {
    Thresholds t;
    t.ncgtyp = type;
    t.ewt1 = 1.5;
    omp_set_num_threads(1);
    Level serial = make_level(m);
    const RowSortResult r1 = sort_level(serial, t);
    omp_set_num_threads(2);
    for (int rep = 0; rep < 5; ++rep) {
      Level lv = make_level(m);
      const RowSortResult r2 = sort_level(lv, t);
      ASSERT_EQ(lv.ja, serial.ja) << "type " << type << " run " << rep;
      ASSERT_EQ(lv.a, serial.a) << "type " << type << " run " << rep;
      ASSERT_EQ(r2.nstrong, r1.nstrong);
      ASSERT_EQ(r2.diagdom, r1.diagdom);
      ASSERT_EQ(r2.nelim, r1.nelim);
      ASSERT_EQ(r2.nelim_ineffective, r1.nelim_ineffective);
      ASSERT_EQ(r2.nelim_failed, r1.nelim_failed);
    }
  }
}

// Both error exits leave the level as given with ja(ia(i)) = i, whatever the
// diagonal slots held; the allocation hook is spent after one failure.
TEST_F(Rwsrt, ErrorExitsRestoreTheDiagonals) {
  struct Case {
    int type;
    bool alloc_fails;
    int code;
    const char* text;
  };
  const Case cases[] = {
      {0, false, 20, "*** ERROR: Illegal value of parameter <ncgtyp> in (rwsrt)\n"},
      {6, false, 20, "*** ERROR: Illegal value of parameter <ncgtyp> in (rwsrt)\n"},
      {3, true, 70, "*** ERROR: Allocation error in (rwsrt)\n"},
      {5, true, 70, "*** ERROR: Allocation error in (rwsrt)\n"},
  };
  const Csr m = mixed_rows(60, 5u);
  for (const Case& c : cases) {
    SCOPED_TRACE("type " + std::to_string(c.type));
    Level lv = make_level(m, 10, 20);
    const Level original = lv;
    for (int i = lv.ilo; i <= lv.ihi; ++i) lv.set_end(i, -7);  // working data of an earlier step
    kornlt::ierr() = 0;
    if (c.alloc_fails) kornlt::rwsrt_fail_next_allocation();
    Thresholds t;
    t.ncgtyp = c.type;
    MessageCapture cap;
    sort_level(lv, t, 0);
    EXPECT_EQ(kornlt::ierr(), c.code);
    EXPECT_NE(cap.text().find(c.text), std::string::npos) << cap.text();
    EXPECT_EQ(lv.ja, original.ja);
    EXPECT_EQ(lv.a, original.a);
    kornlt::ierr() = 0;
    Level again = make_level(m);
    sort_level(again, t);
    EXPECT_EQ(kornlt::ierr(), c.alloc_fails ? 0 : c.code);
  }
}

}  // namespace
