// Tests of the classical interpolation: direct weights in closed form,
// constants reproduced before and after truncation (also by the multi-pass
// build and the improvement sweep), hand-computed rows of every type and
// truncation mode (an F->C conversion among them), threaded against serial
// bit for bit, the transpose, and the error exits.
#include <tuple>

#include "setup/setup_fixtures.hpp"

namespace {

using namespace setup_test;
using namespace kornlt;

// Level 1 of a fresh store bound to A, the split icg0 (one state per row) in
// the store.
struct Fixture {
  Csr A;
  std::vector<int> icg0;
  std::vector<double> u, f;
  LevelView reset() {
    StoreState& st = store();
    st = StoreState{};
    st.nnu = A.nnu;
    st.icg = icg0;
    st.iw.assign(at(A.nnu + 2), 0);
    st.iw[0] = 1;
    ierr() = 0;
    u.assign(at(A.nnu), 0.0);
    f.assign(at(A.nnu), 0.0);
    LevelView L = level1_view(A.nnu, A.ia.data(), A.ja.data(), A.a.data(), u.data(), f.data());
    L.icg = Vec1<int>(store().icg.data(), 1, A.nnu);
    return L;
  }
};

// A sorted by the library's row sort, split by the serial selection (what is
// left undecided counts as F), or red-black on an nx-wide grid.
Fixture prepared(Csr A, int red_black_nx = 0) {
  Fixture fx{std::move(A), {}, {}, {}};
  fx.icg0.assign(at(fx.A.nnu), kIcgUndecided);
  const LevelView L = fx.reset();
  rwsrt(L, 1, 0.01, 0.25, 0.0, 0.2, 0.9, -1);
  PcolSettings ps;
  ps.msg_level = -1;
  pcol_serial(L, ps);
  fx.icg0 = store().icg;
  for (int i = 0; i < fx.A.nnu; ++i) {
    int& g = fx.icg0[at(i)];
    if (red_black_nx > 0) g = (i % red_black_nx + i / red_black_nx) % 2 == 0 ? kIcgC : kIcgF;
    if (g == kIcgUndecided) g = kIcgF;
  }
  return fx;
}

// A hand matrix with the strong ends given (number of strong couplings per row).
Csr with_ends(Csr A, const std::vector<int>& nstrong) {
  for (int i = 1; i <= A.nnu; ++i) A.ja[at(row_begin(A, i) - 1)] = row_begin(A, i) + nstrong[at(i - 1)];
  return A;
}

// The structure of every interpolation: C unit rows, FF empty rows, F-rows
// over C-variables only.
void expect_valid(const std::vector<Row>& rows, const std::vector<int>& icg) {
  for (std::size_t i = 1; i < rows.size(); ++i) {
    const int g = icg[i - 1];
    if (g > 0) {
      EXPECT_EQ(rows[i], (Row{{static_cast<int>(i), 1.0}})) << "C row " << i;
    } else if (g == 0) {
      EXPECT_TRUE(rows[i].empty()) << "FF row " << i;
    } else {
      for (auto [k, v] : rows[i]) EXPECT_GT(icg[at(k - 1)], 0) << "row " << i << " col " << k;
    }
  }
}

InterpSettings settings(int nwtint, int ntrunc, double etr, double ewt2 = 0.2) {
  InterpSettings s;
  s.nwtint = nwtint;
  s.ntrunc = ntrunc;
  s.etr1 = etr;
  s.ewt2 = ewt2;
  s.msg_level = -1;
  return s;
}

class InterpTest : public SetupTest {
 protected:
  void SetUp() override {
    SetupTest::SetUp();
    prm().nmin_matrix = 0;  // small levels run threaded too
  }
};

// Direct interpolation on M-matrices in closed form: w_ij = -a_ij / a_ii *
// (sum of all off-diagonals) / (sum of the interpolatory ones).
TEST_F(InterpTest, DirectWeightsInClosedForm) {
  const std::pair<const char*, Fixture> cases[] = {
      {"poisson2d red-black", prepared(poisson2d(9, 8), 9)}, {"poisson2d", prepared(poisson2d(10, 9))},
      {"neumann2d", prepared(neumann2d(8, 7))},               {"poisson3d", prepared(grid3d(6))},
      {"random M-matrix", prepared(random_sym(150, 7u, 8, 0.0))}};
  for (auto [name, fx] : cases) {
    const Csr& A = fx.A;
    const InterpResult r = pwint1_aa_serial(fx.reset(), settings(1, 0, 0.0));
    ASSERT_EQ(ierr(), 0) << name;
    const std::vector<int>& icg = store().icg;
    const std::vector<Row> got = interp_rows(1, A.nnu);
    expect_valid(got, icg);
    int nchecked = 0;
    for (int i = 1; i <= A.nnu; ++i) {
      if (icg[at(i - 1)] != kIcgF) continue;
      const int d = row_begin(A, i), end = A.ja[at(d - 1)];
      double all = 0.0, interp = 0.0;
      bool changed = false;  // a neighbour turned C before this row
      for (int p = d + 1; p < row_end(A, i); ++p) {
        const int j = A.ja[at(p - 1)];
        all += A.a[at(p - 1)];
        if (p <= end && fx.icg0[at(j - 1)] > 0) interp += A.a[at(p - 1)];
        changed = changed || icg[at(j - 1)] != fx.icg0[at(j - 1)];
      }
      if (changed || interp == 0.0) continue;
      Row want;
      for (int p = d + 1; p <= end; ++p)
        if (fx.icg0[at(A.ja[at(p - 1)] - 1)] > 0) want[A.ja[at(p - 1)]] = -A.a[at(p - 1)] / A.a[at(d - 1)] * all / interp;
      ASSERT_EQ(got[at(i)].size(), want.size()) << name << " row " << i;
      for (auto [j, w] : want) EXPECT_NEAR(got[at(i)].at(j), w, 1e-13) << name << " row " << i;
      ++nchecked;
    }
    EXPECT_GT(nchecked, A.nnu / 4) << name;
    EXPECT_EQ(r.nc, static_cast<int>(std::count_if(icg.begin(), icg.end(), [](int g) { return g > 0; })));
    EXPECT_DOUBLE_EQ(r.gratio, static_cast<double>(r.nc) / A.nnu);
  }
}

// C on every third point in both directions of an nx-wide grid: the split
// of the multi-pass build.
void every_third(Fixture& fx, int nx) {
  for (int i = 0; i < fx.A.nnu; ++i) fx.icg0[at(i)] = (i % nx) % 3 == 0 && (i / nx) % 3 == 0 ? kIcgC : kIcgF;
}

// On zero-row-sum matrices every F-row sums to 1: all types with and without
// truncation, the multi-pass build (every F-variable reached in one attempt
// of two passes), and improvement sweeps with and without truncation.
TEST_F(InterpTest, ConstantsReproducedBeforeAndAfterTruncation) {
  auto expect_constants = [](const Fixture& fx, const std::string& what) {
    const std::vector<Row> got = interp_rows(1, fx.A.nnu);
    expect_valid(got, store().icg);
    int nf = 0;
    for (int i = 1; i <= fx.A.nnu; ++i)
      if (store().icg[at(i - 1)] < 0) {
        EXPECT_NEAR(sum(got[at(i)]), 1.0, 1e-12) << what << " row " << i;
        ++nf;
      }
    EXPECT_GT(nf, 30) << what;
  };
  for (Fixture fx : {prepared(neumann2d(11, 10)), prepared(random_laplacian(12, 3u))})
    for (int nwtint : {1, 2, 3})
      for (int ntrunc : {0, 1, 2}) {
        const std::string what = "nwtint " + std::to_string(nwtint) + " ntrunc " + std::to_string(ntrunc);
        const LevelView L = fx.reset();
        pwint1_aa_serial(L, settings(nwtint, ntrunc, ntrunc == 0 ? 0.0 : 0.45));
        ASSERT_EQ(ierr(), 0);
        expect_constants(fx, what);
        for (int iall : {0, 1}) pwiter(L, settings(nwtint, ntrunc, 0.3), iall, ntrunc == 0 ? 0.0 : 0.3);
        ASSERT_EQ(ierr(), 0);
        expect_constants(fx, what + " after sweeps");
      }
  Fixture fx = prepared(neumann2d(16, 13));
  every_third(fx, 16);
  for (int ntrunc : {0, 2}) {
    const InterpResult r = pwint2_aa_serial(fx.reset(), settings(4, ntrunc, 0.25), 4, 2);
    ASSERT_EQ(ierr(), 0);
    EXPECT_EQ(r.attempts, 1);
    EXPECT_EQ(r.passes, 2);
    EXPECT_EQ(store().icg, fx.icg0);
    expect_constants(fx, "multi-pass ntrunc " + std::to_string(ntrunc));
  }
}

// Hand-computed F-rows of variable 1.
// Matrix T (truncation): row 1: diagonal 10; strong 2 (-4), 3 (-1), 4 (+0.5);
//   weak 5 (-0.5); all others C. Direct: P = 0.5, N = 5, Nn = 0.5: alpha =
//   1.1: -4.4, -1.1, +0.5, d = 10: w = 0.44, 0.11, -0.05. etr 0.3:
//   ntrunc 1: common threshold max(0.15, 1.32): only -4.4 stays; the dropped
//     positive coupling (0.5) is lumped into the diagonal (10.5), alpha =
//     5.5/4.4: w2 = 5.5/10.5.
//   ntrunc 2: thresholds 0.15 / 1.32: -4.4 and +0.5 stay, alpha = 1.25:
//     w2 = 0.55, w4 = -0.05.
// Matrix S (substitution): 1 F, 2 C, 3 F, 4 C, 5 C.
//   row 1: 4; strong 2 (-1), 3 (-2); weak 5 (+1).  row 3: 4; strong 1 (-2),
//   4 (-1); weak 5 (-0.5).  row 5: 2; 1 (+1), 4 (-1).  rows 2, 4: unit.
//   direct: interpolatory {2}: N = 1, Nn = 2, Pn = 1: d = 5, alpha = 3:
//     w2 = 0.6.
//   standard: row 3 substituted with factor 2/4: diagonal 4 - 1 = 3, column
//     4 -0.5 (strong C in row 3: interpolatory), column 5 1 - 0.25 = 0.75
//     (weak). N = 1.5, Pn = 0.75 to the diagonal: d = 3.75:
//     w2 = 4/15, w4 = 2/15.
//   extended (ewt2 0.2: weak entries above 0.2 |a_12| eliminated): then
//     column 5 (0.75) with factor -0.75/2: diagonal 3 - 0.375, column 4
//     -0.5 + 0.375 = -0.125 (interpolatory): d = 2.625: w2 = 8/21, w4 = 1/21.
// Matrix P (positive only): row 1: 10; strong 2 (+2, C); weak 3 (-3, F):
//   the negative part goes to the diagonal, d = 7: w2 = -2/7. Row 3 has no
//   interpolatory entry and turns C.
TEST_F(InterpTest, HandComputedRows) {
  Csr T, S, P;
  add_row(T, 10.0, {{2, -4.0}, {3, -1.0}, {4, 0.5}, {5, -0.5}});
  add_row(T, 4.0, {{1, -4.0}});
  add_row(T, 1.0, {{1, -1.0}});
  add_row(T, 1.0, {{1, 0.5}});
  add_row(T, 1.0, {{1, -0.5}});
  T = with_ends(T, {3, 1, 1, 1, 1});
  add_row(S, 4.0, {{2, -1.0}, {3, -2.0}, {5, 1.0}});
  add_row(S, 1.0, {{1, -1.0}});
  add_row(S, 4.0, {{1, -2.0}, {4, -1.0}, {5, -0.5}});
  add_row(S, 1.0, {{3, -1.0}});
  add_row(S, 2.0, {{1, 1.0}, {4, -1.0}});
  S = with_ends(S, {2, 1, 2, 1, 0});
  add_row(P, 10.0, {{2, 2.0}, {3, -3.0}});
  add_row(P, 1.0, {{1, 2.0}});
  add_row(P, 5.0, {{1, -3.0}});
  P = with_ends(P, {1, 0, 0});
  const std::vector<int> cT = {kIcgF, 1, 1, 1, 1}, cS = {kIcgF, 1, kIcgF, 1, 1}, cP = {kIcgF, 1, kIcgF};
  struct Case {
    const char* what;
    const Csr* A;
    const std::vector<int>* icg;
    int nwtint, ntrunc;
    double etr;
    Row want;
  };
  const Case cases[] = {
      {"T ntrunc 1", &T, &cT, 1, 1, 0.3, {{2, 5.5 / 10.5}}},
      {"T ntrunc 1 standard", &T, &cT, 2, 1, 0.3, {{2, 5.5 / 10.5}}},
      {"T ntrunc 2", &T, &cT, 1, 2, 0.3, {{2, 0.55}, {4, -0.05}}},
      {"T ntrunc 0", &T, &cT, 1, 0, 0.3, {{2, 0.44}, {3, 0.11}, {4, -0.05}}},
      {"T etr 0", &T, &cT, 2, 2, 0.0, {{2, 0.44}, {3, 0.11}, {4, -0.05}}},
      {"S direct", &S, &cS, 1, 0, 0.0, {{2, 0.6}}},
      {"S standard", &S, &cS, 2, 0, 0.0, {{2, 4.0 / 15}, {4, 2.0 / 15}}},
      {"S extended", &S, &cS, 3, 0, 0.0, {{2, 8.0 / 21}, {4, 1.0 / 21}}},
      {"P", &P, &cP, 1, 1, 0.2, {{2, -2.0 / 7}}},
  };
  for (const Case& c : cases) {
    Fixture fx{*c.A, *c.icg, {}, {}};
    pwint1_aa_serial(fx.reset(), settings(c.nwtint, c.ntrunc, c.etr));
    ASSERT_EQ(ierr(), 0) << c.what;
    const Row got = interp_rows(1, c.A->nnu)[1];
    ASSERT_EQ(got.size(), c.want.size()) << c.what;
    for (auto [k, v] : c.want) EXPECT_NEAR(got.at(k), v, 1e-15) << c.what << " col " << k;
  }
  EXPECT_EQ(store().icg[2], kIcgC) << "row 3 of P turns C";
}

// Splits that turn many variables C, built on 2 and 3 threads: the replay of
// the conversions gives the serial result bit for bit, every time; so does
// the multi-pass build.
TEST_F(InterpTest, ThreadedEqualsSerialBitwise) {
  std::vector<Fixture> cases = {prepared(poisson2d(10, 9)), prepared(random_sym(150, 11u, 8, 0.3)),
                                prepared(random_sym(400, 3u, 6, 0.0)), prepared(poisson2d(30, 20)),
                                prepared(neumann2d(16, 13))};
  std::mt19937 gen(5u);
  for (int& g : cases[2].icg0) g = gen() % 9 == 0 ? kIcgC : gen() % 23 == 0 ? kIcgFF : kIcgF;
  for (int i = 0; i < 600; ++i) cases[3].icg0[at(i)] = i % 7 == 0 ? kIcgC : kIcgF;
  every_third(cases[4], 16);
  for (std::size_t ci = 0; ci < cases.size(); ++ci)
    for (int nwtint : {1, 2, 3, 4}) {
      if ((nwtint == 4) != (ci == 4)) continue;  // the multi-pass build on its split
      Fixture& fx = cases[ci];
      auto run = [&](int nt) {
        omp_set_num_threads(nt);
        const LevelView L = fx.reset();
        const InterpSettings s = settings(nwtint, 1, 0.2);
        if (nwtint == 4) return nt == 1 ? pwint2_aa_serial(L, s, 4, 2) : pwint2_aa(L, s, 4, 2);
        return nt == 1 ? pwint1_aa_serial(L, s) : pwint1_aa(L, s);
      };
      const InterpResult rs = run(1);
      ASSERT_EQ(ierr(), 0);
      const Snapshot serial = snapshot(1, 0, fx.A.nnu);
      for (int nt : {2, 3, 2}) {
        const InterpResult rt = run(nt);
        ASSERT_EQ(ierr(), 0);
        EXPECT_TRUE(snapshot(1, 0, fx.A.nnu) == serial) << "case " << ci << " nwtint " << nwtint << " threads " << nt;
        EXPECT_EQ(rt.nconverted, rs.nconverted);
        EXPECT_EQ(rt.avg_weights, rs.avg_weights);
      }
      if (ci == 2) {
        EXPECT_GT(rs.nconverted, 0) << "the case must convert";
      }
    }
}

// ---------------------------------------------------------------------------
// Transpose
// ---------------------------------------------------------------------------
TEST_F(InterpTest, TransposeEqualsExplicitTranspose) {
  Fixture fx = prepared(random_sym(300, 23u, 8, 0.3));
  pwint1_aa_serial(fx.reset(), settings(2, 1, 0.2));
  ASSERT_EQ(ierr(), 0);
  // Coarse numbering from 301 on, as the operator preparation does it.
  StoreState& st = store();
  std::vector<int> cidx(301, 0);
  int nc = 0;
  for (int i = 1; i <= 300; ++i)
    if (st.icg[at(i - 1)] > 0) cidx[at(i)] = 300 + ++nc;
  const int nw = st.iw[300] - 1;
  std::vector<int> jwc(st.jw.begin(), st.jw.begin() + nw);
  for (int& j : jwc) j = cidx[at(j)];
  std::vector<std::tuple<int, int, double>> trip;  // (coarse, fine, weight), sorted
  for (int i = 1; i <= 300; ++i)
    for (int p = st.iw[at(i - 1)]; p < st.iw[at(i)]; ++p) trip.emplace_back(jwc[at(p - 1)], i, st.w[at(p - 1)]);
  std::sort(trip.begin(), trip.end());
  for (int nt : {1, 2, 3}) {
    omp_set_num_threads(nt);
    Transpose t;
    build_transpose(t, 1, 300, 301, 300 + nc, Vec1<int>(st.iw.data(), 1, 301),
                    Vec1<int>(jwc.data(), 1, nw), Vec1<double>(st.w.data(), 1, nw));
    ASSERT_EQ(ierr(), 0);
    ASSERT_EQ(t.iclo, 301);
    ASSERT_EQ(t.ichi, 300 + nc);
    std::vector<std::tuple<int, int, double>> got;
    for (int ic = 301; ic <= 300 + nc; ++ic)
      for (int p = t.row_begin(ic); p < t.row_end(ic); ++p) got.emplace_back(ic, t.jwt[at(p - 1)], t.wt[at(p - 1)]);
    EXPECT_EQ(got, trip) << "threads " << nt;
  }
}

// ---------------------------------------------------------------------------
// Errors
// ---------------------------------------------------------------------------
TEST_F(InterpTest, ErrorExits) {
  Fixture fx = prepared(poisson2d(6, 6), 6);
  struct T {
    bool multipass, threaded, alloc_fails;
    int nwtint, code;
    const char* text;
  };
  const T table[] = {
      {false, true, false, 5, kErrInterpolation, "*** ERROR: Illegal value of <nwtint> in (pwint1_aa)!"},
      {false, false, false, 5, kErrInterpolation, "*** ERROR: Illegal value of <nwtint> in (pwint1_aa_serial)!"},
      {false, false, true, 2, kErrAllocation, "Allocation failed for <ifg,ipatt> in (pwint1_aa_serial)"},
      {false, true, true, 2, kErrAllocation, "Allocation failed for <ifg,ipatt,nflag_thread> in (pwint1_aa)"},
      {true, false, true, 4, kErrAllocation, "Allocation failed for <ifg,ipatt> in (pwint2_aa_serial)"},
      {true, true, true, 4, kErrAllocation, "Allocation failed for <ifg,ipatt,nflag_thread> in (pwint2_aa)"}};
  omp_set_num_threads(2);
  for (const T& t : table) {
    const LevelView L = fx.reset();
    MessageCapture cap;
    if (t.alloc_fails) interp_fail_next_allocation();
    const InterpSettings s = settings(t.nwtint, 0, 0.0);
    if (t.multipass) {
      t.threaded ? pwint2_aa(L, s, 4, 2) : pwint2_aa_serial(L, s, 4, 2);
    } else {
      t.threaded ? pwint1_aa(L, s) : pwint1_aa_serial(L, s);
    }
    EXPECT_EQ(ierr(), t.code) << t.text;
    EXPECT_NE(cap.text().find(t.text), std::string::npos) << cap.text();
  }
  // Growth switched off: w of the level does not fit.
  const LevelView L = fx.reset();
  input().iextent = 0;
  MessageCapture cap;
  pwint1_aa_serial(L, settings(2, 0, 0.0));
  EXPECT_EQ(ierr(), kErrDimension);
  EXPECT_NE(cap.text().find("Insufficient dimensioning: <ndw> in (w_extent)"), std::string::npos);
}

}  // namespace
