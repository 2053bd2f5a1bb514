// Tests of the level driver on whole hierarchies: every coarse operator
// against a dense P^T A P of the stored interpolation and the fine level,
// constants reproduced on zero-row-sum matrices, independence of the thread
// count and of repetition, growth from deliberately small arrays (and error
// 10 without growth), the stop rules with their messages, the checks of the
// encoded parameters, and the complexities of a 3D problem.
#include <bit>
#include <cstdint>
#include <iostream>

#include "setup/setup_fixtures.hpp"

namespace {

using namespace setup_test;
using korn_test::CoreArgs;
using korn_test::LogCapture;
using kornlt::LevelView;
using kornlt::level_view;
using kornlt::prm;
using kornlt::store;

// Run-mode switches of a kept setup: run mode 4, growth in memory (iextent
// 2), coarsening by n_default 40 (standard) or 17 (aggressive on level 1).
constexpr int kStandard = 42000000;
constexpr int kAggressive = 42170000;
constexpr int kNoCycles = 11000;  // the setup runs, the solve does not

// Each row as (column -> value bits): the content of a matrix whatever the
// order of the entries in a row.
std::vector<std::map<int, std::uint64_t>> row_sets(const Csr& m) {
  std::vector<std::map<int, std::uint64_t>> rs(at(m.nnu));
  for (int i = 1; i <= m.nnu; ++i)
    for (int p = row_begin(m, i); p < row_end(m, i); ++p)
      rs[at(i - 1)][m.ja[at(p - 1)]] = std::bit_cast<std::uint64_t>(m.a[at(p - 1)]);
  return rs;
}

// What the setup leaves, bit for bit: every level and the interpolation of
// all levels that have a coarser one.
Snapshot hierarchy() {
  const int levels = store().levels;
  Snapshot s = snapshot(1, levels, levels > 1 ? store().imax[at(levels - 1)] : 0);
  s.ints.push_back(levels);
  return s;
}

// Levels stacked one behind the other, each well formed (level_rows: the
// diagonal first in every row, the strong ends gone, columns inside).
void expect_levels_well_formed(const std::string& what) {
  SCOPED_TRACE(what);
  for (int k = 1; k <= store().levels; ++k) {
    if (k > 1) {
      EXPECT_EQ(store().imin[at(k)], store().imax[at(k - 1)] + 1) << "level " << k;
    }
    level_rows(k);
  }
}

// Level k+1 against the dense P^T A P of level k and its stored
// interpolation; on the way the coarse numbering (C-variables in rising
// order) and the unit rows of the C-variables.
void expect_galerkin(int k, const std::string& what) {
  const LevelView F = level_view(k), C = level_view(k + 1);
  const std::string tag = what + ", level " + std::to_string(k) + "->" + std::to_string(k + 1);
  const std::vector<Row> fine = level_rows(k), P = interp_rows(F.ilo, F.ihi);
  Dense Ad(at(F.nrows()), std::vector<double>(at(F.nrows()), 0.0));
  Dense Pd(at(F.nrows()), std::vector<double>(at(C.nrows()), 0.0));
  int next = C.ilo;
  for (int r = 0; r < F.nrows(); ++r) {
    for (auto [j, v] : fine[at(r)]) Ad[at(r)][at(j)] = v;
    const int g = store().icg[at(F.ilo + r - 1)];
    if (g > 0) {
      ASSERT_EQ(g, next++) << tag << ": coarse index of C-variable " << F.ilo + r;
      ASSERT_EQ(P[at(r + 1)], (Row{{g, 1.0}})) << tag << ": C-row " << F.ilo + r;
    }
    for (auto [c, w] : P[at(r + 1)]) {
      ASSERT_TRUE(c >= C.ilo && c <= C.ihi) << tag << ": column " << c << " of row " << F.ilo + r;
      Pd[at(r)][at(c - C.ilo)] = w;
    }
  }
  ASSERT_EQ(next, C.ihi + 1) << tag << ": C-variables vs coarse rows";
  expect_rows_match(level_rows(k + 1), dense_ptap(Ad, Pd), tag);
}

class Levels : public testing::Test {
 protected:
  void SetUp() override {
    korn_reset_parameters();
    kornlt::ierr() = 0;
    prm().mode_mess = -3;
    omp_set_num_threads(1);
  }
  void TearDown() override {
    release();
    omp_set_num_threads(2);
  }
  // A kept setup (no cycles) of matrix m by the core call.
  static CoreArgs setup_args(Csr m, int iswit, int matrix = 12) {
    CoreArgs c(std::move(m));
    c.iswit = iswit;
    c.matrix = matrix;
    c.ncyc = kNoCycles;
    return c;
  }
  static void release() {  // iswit 0 releases the kept hierarchy
    CoreArgs c(korn_test::poisson2d(2));
    c.iswit = 0;
    c.call();
  }
  // Runs the call with the messages on and returns the log.
  static std::string call_logged(CoreArgs& c) {
    prm().mode_mess = 0;
    c.iout = 0;
    LogCapture log;
    c.call();
    return log.text();
  }
  static Snapshot kept_setup(Csr m, int iswit, int matrix, int threads) {
    omp_set_num_threads(threads);
    CoreArgs c = setup_args(std::move(m), iswit, matrix);
    EXPECT_EQ(c.call(), 0);
    Snapshot s = hierarchy();
    release();
    return s;
  }
};

struct Problem {
  const char* name;
  Csr m;
  int matrix;  // 12 symmetric, 22 non-symmetric, 11 zero row sums
};

std::vector<Problem> operator_problems() {
  return {{"2D Poisson 20x20", poisson2d(20, 20), 12},
          {"3D Poisson 10^3", grid3d(10), 12},
          {"2D anisotropic 20x20", anisotropic2d(20, 20), 12},
          {"2D convection-diffusion 20x20", convection2d(20, 20), 22}};
}

// Every coarse operator is P^T A P of the stored interpolation, level 1
// keeps its rows (their entries may be reordered), and the aggressive first
// level is much smaller than the standard one. On zero-row-sum matrices (code
// 11) every F-row interpolates constants with non-negative weights and the
// coarse levels keep zero row sums.
TEST_F(Levels, CoarseOperatorsAreTheGalerkinProducts) {
  std::vector<Problem> problems = operator_problems();
  problems.push_back({"2D Neumann 24x24", neumann2d(24, 24), 11});
  problems.push_back({"3D Neumann 12^3", grid3d(12, true), 11});
  problems.push_back({"random graph Laplacian 26x26", random_laplacian(26, 11u), 11});
  prm().nptmn = 5;  // deep hierarchies: more products to check
  for (const Problem& pr : problems) {
    int rows2[2] = {0, 0};
    for (const int iswit : {kStandard, kAggressive}) {
      const std::string what = std::string(pr.name) + (iswit == kAggressive ? ", aggressive" : ", standard");
      CoreArgs c = setup_args(pr.m, iswit, pr.matrix);
      ASSERT_EQ(c.call(), 0) << what;
      const int levels = store().levels;
      ASSERT_GE(levels, 3) << what;
      expect_levels_well_formed(what);
      EXPECT_EQ(row_sets(c.m), row_sets(pr.m)) << what;
      int nf_rows = 0;
      for (int k = 1; k < levels; ++k) {
        expect_galerkin(k, what);
        const LevelView L = level_view(k);
        const std::vector<Row> P = interp_rows(L.ilo, L.ihi);
        for (int i = L.ilo; pr.matrix == 11 && i <= L.ihi; ++i) {
          double rs = 0.0, amax = 0.0;
          for (int p = L.ia(i); p < L.ia(i + 1); ++p) {
            rs += L.a(p);
            amax = std::max(amax, std::abs(L.a(p)));
          }
          EXPECT_NEAR(rs, 0.0, 1e-11 * amax) << what << ": row sum of row " << i << ", level " << k;
          if (store().icg[at(i - 1)] >= 0) continue;  // C (unit row) or forced fine (no row)
          const Row& row = P[at(i - L.ilo + 1)];
          for (auto [col, w] : row) EXPECT_GE(w, 0.0) << what << ": F-row " << i;
          nf_rows += !row.empty();
          EXPECT_NEAR(sum(row), 1.0, 1e-12) << what << ": F-row " << i << ", level " << k;
        }
      }
      EXPECT_TRUE(pr.matrix != 11 || nf_rows > c.m.nnu / 2) << what;
      rows2[iswit == kAggressive] = level_view(2).nrows();
      release();
    }
    EXPECT_LT(rows2[1], 0.75 * rows2[0]) << pr.name;
  }
}

// With the serial selection (icolor_omp 0; the block-parallel one depends on
// the number of blocks) every other phase runs threaded on two threads, and
// the hierarchy must equal the one of one thread. With the default,
// block-parallel selection repeated setups on two threads are identical.
TEST_F(Levels, ThreadCountAndRepetitionDoNotChangeTheHierarchy) {
  const Problem problems[] = {{"2D Poisson 32x32", poisson2d(32, 32), 12},
                              {"3D Poisson 11^3", grid3d(11), 12},
                              {"2D convection-diffusion 30x30", convection2d(30, 30), 22}};
  prm().nptmn = 5;
  for (const Problem& pr : problems)
    for (const int iswit : {kStandard, kAggressive}) {
      prm().icolor_omp = 0;
      const Snapshot one = kept_setup(pr.m, iswit, pr.matrix, 1);
      ASSERT_GE(one.ints.back(), 3) << pr.name;
      EXPECT_TRUE(one == kept_setup(pr.m, iswit, pr.matrix, 2)) << pr.name << " iswit " << iswit;
      prm().icolor_omp = 2;
      const Snapshot first = kept_setup(pr.m, iswit, pr.matrix, 2);
      for (int rep = 1; rep < 4; ++rep)
        ASSERT_TRUE(first == kept_setup(pr.m, iswit, pr.matrix, 2)) << pr.name << " iswit " << iswit << " repeat " << rep;
    }
}

// Complexity arguments that leave one family of arrays (or all) far too
// small: the interpolation weights (ndw), the variable arrays (ndu), the
// coarse matrix entries (nda).
struct Dims {
  const char* what;
  double a_cmplx, g_cmplx, w_avrge;
  const char* short_array;  // the first one found too small without growth
};
const Dims kTinyDims[] = {{"all tiny", 1.01, 1.01, 1.0, "ndw"},
                          {"a tiny", 1.01, 4.0, 8.0, "nda"},
                          {"u tiny", 4.0, 1.01, 8.0, "ndu"}};

CoreArgs dims_args(const Problem& pr, int iextent, int n_default, const Dims& d) {
  CoreArgs c(pr.m);
  c.iswit = 40000000 + iextent * 1000000 + n_default * 10000;
  c.matrix = pr.matrix;
  c.ncyc = kNoCycles;
  c.a_cmplx = d.a_cmplx;
  c.g_cmplx = d.g_cmplx;
  c.w_avrge = d.w_avrge;
  return c;
}

// With growth (iextent 1, 2) the hierarchy equals the one of generous
// dimensions bit for bit. Without growth: error 10 naming the array, the
// caller's matrix given back as it came, nothing kept to restart on.
TEST_F(Levels, TinyDimensionsGrowOrGiveError10) {
  prm().nptmn = 5;
  const std::vector<Problem> all = operator_problems();
  for (const Problem* pr : {&all[0], &all[1], &all[3]})
    for (const int n_default : {0, 17}) {
      CoreArgs g = dims_args(*pr, 2, n_default, Dims{"generous", 4.0, 4.0, 8.0, ""});
      ASSERT_EQ(g.call(), 0) << pr->name;
      const Snapshot generous = hierarchy();
      release();
      ASSERT_GE(generous.ints.back(), 3) << pr->name;
      for (const Dims& d : kTinyDims) {
        const std::string what = std::string(pr->name) + ", n_default " + std::to_string(n_default) + ", " + d.what;
        for (const int iextent : {1, 2}) {
          CoreArgs c = dims_args(*pr, iextent, n_default, d);
          EXPECT_EQ(c.call(), 0) << what << " iextent " << iextent;
          EXPECT_TRUE(generous == hierarchy()) << what << " iextent " << iextent;
          release();
        }
        CoreArgs c = dims_args(*pr, 0, n_default, d);
        const std::string log = call_logged(c);
        EXPECT_EQ(c.ierr, 10) << what << "\n" << log;
        EXPECT_NE(log.find(std::string("*** ERROR: Insufficient dimensioning: <") + d.short_array + ">"),
                  std::string::npos)
            << what << "\n" << log;
        EXPECT_NE(log.find("*** ERROR: Either adjust dimensions or activate memory extension switch"),
                  std::string::npos)
            << what;
        ASSERT_EQ(c.m.ia, pr->m.ia) << what;
        for (int i = 1; i <= c.m.nnu; ++i) ASSERT_EQ(c.m.ja[at(row_begin(c.m, i) - 1)], i) << what << " row " << i;
        EXPECT_EQ(row_sets(c.m), row_sets(pr->m)) << what;
        CoreArgs again = setup_args(pr->m, 1, pr->matrix);
        again.ncyc = 11001;  // one cycle: the call reaches the restart test
        prm().mode_mess = -3;
        EXPECT_EQ(again.call(), kornlt::kErrRestartNoSetup) << what;
      }
    }
}

// The stop rules of the level loop on the 20x20 Poisson matrix (unless said
// otherwise), each with its message: few variables left (below nptmax rows the
// split stops before a level of at most nptmn C-variables is made; above
// nptmax the level is made and the row count stops the loop), the reduction
// rules (term_coarsening: warning -130; slow_coarsening: a warning only;
// lev_coarsening_too_slow), the level limits, and diagonal dominance below
// eps_dd. A one-level stop gives the caller's rows back.
TEST_F(Levels, StopRules) {
  struct Case {
    const char* what;
    void (*set)();
    int levels;  // 0: the levels of the plain hierarchy; -1: at least 2
    int code;
    const char* text;
    int nptmn;   // > 0: every level but the last has more rows; the last too unless below_last
    bool below_last;
    int problem;  // 0 Poisson, 1 diagonally dominant (off-diagonal sums 0.4 a_ii)
  };
  const Case cases[] = {
      {"nptmn 30", [] { prm().nptmn = 30; }, -1, 0, ">>> Coarsening stopped: low # C-variables", 30, false, 0},
      {"nptmn 30, nptmax 20", [] { prm().nptmn = 30; prm().nptmax = 20; }, -1, 0,
       ">>> Coarsening stopped: low # variables", 30, true, 0},
      {"term 0.45", [] { prm().slow_coarsening = 0.4; prm().term_coarsening = 0.45; }, 1, -130,
       "+++ WARNG: Coarsening terminated: inefficient grid reduction! (split_3)", 0, false, 0},
      {"slow 0.45", [] { prm().slow_coarsening = 0.45; }, 0, 0, "+++ WARNG: Inefficient coarsening! (split_3)", 0,
       false, 0},
      {"too slow at 3", [] { prm().lev_coarsening_too_slow = 3; }, 3, 0,
       ">>> MESSG: coarsening too slow enforced! (split_3)", 0, false, 0},
      {"levelx 3", [] { prm().levelx = 3; }, 3, 0, "", 0, false, 0},
      {"max_level 2 under levelx 4", [] { prm().levelx = 4; prm().max_level = 2; }, 2, 0, "", 0, false, 0},
      {"max_level 30", [] { prm().max_level = 30; }, 0, 0, "", 0, false, 0},
      {"eps_dd 0.9", [] { prm().eps_dd = 0.9; }, 1, 0, ">>> Coarsening stopped: diagonal dominance, eps=0.9", 0,
       false, 1},
      {"eps_dd 0.3", [] { prm().eps_dd = 0.3; }, -1, 0, "", 0, false, 1},
  };
  const Csr problems[] = {poisson2d(20, 20), grid2d(20, 20, -1.0, -1.0, -1.0, -1.0, 10.0)};
  prm().nptmn = 5;
  CoreArgs p = setup_args(problems[0], kStandard);
  ASSERT_EQ(p.call(), 0);
  const int plain_levels = store().levels;
  const auto plain_imax = store().imax;
  release();
  ASSERT_GE(plain_levels, 4);
  for (const Case& k : cases) {
    SCOPED_TRACE(k.what);
    korn_reset_parameters();
    prm().nptmn = 5;
    k.set();
    CoreArgs c = setup_args(problems[k.problem], kStandard);
    const std::string log = call_logged(c);
    EXPECT_EQ(c.ierr, k.code) << log;
    const int levels = store().levels;
    if (k.levels > 0) {
      EXPECT_EQ(levels, k.levels);
    } else if (k.levels == 0) {
      EXPECT_EQ(levels, plain_levels);
    } else {
      EXPECT_GE(levels, 2);
    }
    EXPECT_NE(log.find(k.text), std::string::npos) << log;
    if (k.problem == 0) {
      for (int l = 1; l <= std::min(levels, plain_levels); ++l)
        EXPECT_EQ(store().imax[at(l)], plain_imax[at(l)]) << "level " << l;
    }
    for (int l = 1; k.nptmn > 0 && l <= levels; ++l)
      EXPECT_EQ(level_view(l).nrows() > k.nptmn, l < levels || !k.below_last) << "level " << l;
    if (levels == 1) {
      EXPECT_EQ(row_sets(c.m), row_sets(problems[k.problem]));
      for (int i = 1; i <= c.m.nnu; ++i) ASSERT_EQ(c.m.ja[at(row_begin(c.m, i) - 1)], i) << "row " << i;
    }
    release();
  }
}

TEST_F(Levels, IllegalEncodedParametersGive20) {
  struct Case {
    const char* what;
    void (*set)();
    const char* name;  // as the message pads it; nullptr: legal
  };
  const Case cases[] = {
      {"ecg 1.25", [] { prm().ecg = 1.25; }, "ecg1      "},
      {"ewt 1.2", [] { prm().ewt = 1.2; }, "ewt1      "},
      {"ncg 6", [] { prm().ncg = 6; }, "ncgtyp    "},
      {"ncg 19", [] { prm().ncg = 19; }, "nred      "},
      {"ncg 1003", [] { prm().ncg = 1003; }, "nxf_clean "},
      {"nwt 5", [] { prm().nwt = 5; }, "nwtint    "},
      {"nwt 2002", [] { prm().nwt = 2002; }, "iall      "},
      // the checks run in order: the first illegal value is the one named
      {"ecg and ncg", [] { prm().ecg = 2.25; prm().ncg = 7; }, "ecg1      "},
      {"ncg and nwt", [] { prm().ncg = 9; prm().nwt = 6; }, "ncgtyp    "},
      {"ncg 14", [] { prm().ncg = 14; }, nullptr},
      {"nwt 2001", [] { prm().nwt = 2001; }, nullptr},
  };
  for (const Case& k : cases) {
    SCOPED_TRACE(k.what);
    korn_reset_parameters();
    kornlt::ierr() = 0;
    k.set();
    CoreArgs c = setup_args(poisson2d(16, 16), kStandard);
    const std::string log = call_logged(c);
    if (k.name == nullptr) {
      EXPECT_EQ(c.ierr, 0) << log;
      EXPECT_GE(store().levels, 2);
      release();
      continue;
    }
    EXPECT_EQ(c.ierr, 20) << log;
    const std::string want = std::string("*** ERROR: Illegal value of parameter <") + k.name + "> in (crsng_data)!";
    const auto at_msg = log.find(want);
    ASSERT_NE(at_msg, std::string::npos) << log;
    EXPECT_EQ(log.find("Illegal value of parameter <", at_msg + want.size()), std::string::npos) << "one message only";
    EXPECT_EQ(c.m.ja, poisson2d(16, 16).ja);
    EXPECT_EQ(c.m.a, poisson2d(16, 16).a);
  }
}

// The complexities of 3D Poisson as counted here from the level views, and
// the bounds expected of standard and aggressive coarsening.
TEST_F(Levels, ComplexitiesOf3DPoisson) {
  omp_set_num_threads(2);
  double grid[2] = {0.0, 0.0};
  for (const bool aggressive : {false, true}) {
    CoreArgs c = setup_args(grid3d(24), aggressive ? kAggressive : kStandard);
    ASSERT_EQ(c.call(), 0);
    const kornlt::HierarchyStats h = kornlt::hierarchy_stats();
    const int levels = store().levels;
    ASSERT_GE(levels, 3);
    ASSERT_EQ(h.levels, levels);
    double rows = 0.0, entries = 0.0;
    for (int k = 1; k <= levels; ++k) {
      const LevelView L = level_view(k);
      rows += L.nrows();
      entries += L.ia(L.ihi + 1) - L.ia(L.ilo);
    }
    const double oc = entries / c.m.nna(), gc = rows / c.m.nnu;
    EXPECT_DOUBLE_EQ(h.operator_complexity, oc);
    EXPECT_DOUBLE_EQ(h.grid_complexity, gc);
    std::cout << "3D Poisson 24^3, " << (aggressive ? "aggressive" : "standard") << ": levels " << levels
              << ", operator complexity " << oc << ", grid complexity " << gc << "\n";
    EXPECT_LT(oc, aggressive ? 2.0 : 3.0);
    EXPECT_GT(gc, 1.0);
    EXPECT_LT(gc, aggressive ? 1.5 : 2.0);
    grid[aggressive] = gc;
    release();
  }
  EXPECT_LT(grid[1], grid[0]);
}

}  // namespace
