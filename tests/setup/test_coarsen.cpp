// Tests of the coarse-point selection: serial and block-parallel pcol against
// the independent split checker on Poisson, anisotropic and random graphs,
// repeatability on two threads, aggressive coarsening against its
// definition, the stop checks of the split, and the error exits.
#include <set>

#include "setup/setup_fixtures.hpp"

namespace {

using namespace setup_test;
using kornlt::LevelView;
using kornlt::PcolSettings;
using kornlt::SelectionCounts;

enum RowKind { kNormal, kNoStrong, kCannotTreat };

// A level from strong lists (local 1-based columns, couplings -1, diagonal 4);
// strong ends by kind: behind the list, ia(i), or 0.
Level graph_level(const std::vector<std::vector<int>>& strong, std::vector<RowKind> kind = {}, int row_base = 0,
                  int entry_base = 0) {
  Csr m;
  for (const auto& s : strong) {
    Off off;
    for (int j : s) off.push_back({j, -1.0});
    add_row(m, 4.0, off);
  }
  Level lv = make_level(m, row_base, entry_base);
  for (int r = 1; r <= m.nnu; ++r) {
    const RowKind k = kind.empty() ? (strong[at(r - 1)].empty() ? kNoStrong : kNormal) : kind[at(r - 1)];
    const int i = lv.ilo + r - 1;
    lv.set_end(i, k == kCannotTreat ? 0 : lv.IA(i) + (k == kNormal ? static_cast<int>(strong[at(r - 1)].size()) : 0));
  }
  return lv;
}

// The matrix after the library's row sort (type 1, default thresholds).
Level sorted(const Csr& m) {
  Level lv = make_level(m);
  kornlt::rwsrt(lv.view(), 1, 0.01, 0.25, 0.0, 0.2, 0.9, -1);
  return lv;
}

PcolSettings quiet(int nxf_clean = 1) {
  PcolSettings s;
  s.nxf_clean = nxf_clean;
  s.msg_level = -1;
  return s;
}

using Coarsen = SetupTest;

// Valid splits with about half the variables C; strong ends left as found.
// Anisotropic: each line coarsens as a 1D chain, C and F alternating along x
// on the same columns of every line.
TEST_F(Coarsen, PoissonSplitsAreValidAndHalveTheGrid) {
  struct Case {
    const char* name;
    Csr m;
    double lo, hi;
    int lines;  // > 0: the grid width of the anisotropic case
  };
  const Case cases[] = {{"2d 24x24", poisson2d(24, 24), 0.45, 0.55, 0},
                        {"2d 17x9", poisson2d(17, 9), 0.42, 0.58, 0},
                        {"3d 10^3", grid3d(10), 0.40, 0.60, 0},
                        {"anisotropic 15x7", anisotropic2d(15, 7), 7.0 / 15, 7.0 / 15, 15}};
  for (const Case& cs : cases)
    for (int clean : {1, 2}) {
      SCOPED_TRACE(std::string(cs.name) + " clean " + std::to_string(clean));
      Level lv = sorted(cs.m);
      const std::vector<int> ends = strong_ends(lv);
      const SelectionCounts c = kornlt::pcol_serial(lv.view(), quiet(clean));
      ASSERT_EQ(kornlt::ierr(), 0);
      expect_valid_split(lv, ends, c, clean, true);
      EXPECT_GE(double(c.nc) / lv.n(), cs.lo - 1e-12);
      EXPECT_LE(double(c.nc) / lv.n(), cs.hi + 1e-12);
      EXPECT_EQ(strong_ends(lv), ends) << "strong ends must be left as found";
      const int nx = cs.lines;
      for (int i = 1; nx > 0 && i <= lv.n(); ++i) {
        if (i % nx != 0) {
          EXPECT_NE(lv.ICG(i) > 0, lv.ICG(i + 1) > 0) << i;
        }
        EXPECT_EQ(lv.ICG(i) > 0, lv.ICG(1 + (i - 1) % nx) > 0) << i;
      }
    }
}

// Random non-symmetric strong graphs with rows without strong couplings and
// rows that cannot be treated, on a level that does not start at row 1: the
// rules hold for both cleaning options and both settings of iset_vio_dd,
// serial and block-parallel; one block is the serial selection.
TEST_F(Coarsen, RandomGraphsFollowTheSelectionRules) {
  for (unsigned seed = 1; seed <= 8; ++seed) {
    std::mt19937 rng(seed);
    const int n = 40 + static_cast<int>(rng() % 80);
    std::vector<std::vector<int>> s(at(n));
    std::vector<RowKind> kind(at(n), kNormal);
    for (int r = 0; r < n; ++r) {
      const unsigned k = rng() % 10;
      if (k <= 1) {
        kind[at(r)] = k == 0 ? kNoStrong : kCannotTreat;
        continue;
      }
      std::set<int> cols;
      for (int deg = 1 + static_cast<int>(rng() % 5); static_cast<int>(cols.size()) < deg;) {
        const int c = rng() % 4 == 0 ? static_cast<int>(rng() % n) : r + static_cast<int>(rng() % 7) - 3;
        if (c >= 0 && c < n && c != r) cols.insert(c + 1);
      }
      s[at(r)].assign(cols.begin(), cols.end());
    }
    for (int iset : {1, 0})
      for (int clean : {1, 2}) {
        kornlt::prm().iset_vio_dd = iset;
        std::vector<int> serial;
        for (int nt : {0, 1, 2, 3, 5}) {  // 0: the serial routine
          SCOPED_TRACE("seed " + std::to_string(seed) + " iset " + std::to_string(iset) + " clean " +
                       std::to_string(clean) + " blocks " + std::to_string(nt));
          Level lv = graph_level(s, kind, 7, 13);
          const std::vector<int> ends = strong_ends(lv);
          const SelectionCounts c = nt == 0 ? kornlt::pcol_serial(lv.view(), quiet(clean))
                                            : kornlt::pcol_parallel(lv.view(), quiet(clean), nt);
          ASSERT_EQ(kornlt::ierr(), 0);
          expect_valid_split(lv, ends, c, clean, false, iset);
          EXPECT_EQ(strong_ends(lv), ends);
          if (nt == 0) serial = lv.icg;
          if (nt == 1) {
            EXPECT_EQ(lv.icg, serial);
          }
        }
      }
  }
}

// On two threads the block-parallel selection (icolor_omp 2) and aggressive
// coarsening (icolor_omp 1: parallel rcol; 2: threaded reduced graph) are
// valid and identical over repeated runs.
TEST_F(Coarsen, ParallelSelectionIsValidAndRepeatableOnTwoThreads) {
  omp_set_num_threads(2);
  for (int ic : {1, 2}) {
    kornlt::prm().icolor_omp = ic;
    for (const Csr& m : {poisson2d(48, 40), grid3d(12)}) {
      std::vector<int> first_split, first_reduced;
      for (int run = 0; run < 10; ++run) {
        Level lv = sorted(m);
        const std::vector<int> ends = strong_ends(lv);
        const LevelView L = lv.view();
        const SelectionCounts c = kornlt::pcol(L, quiet());
        ASSERT_EQ(kornlt::ierr(), 0);
        if (run == 0) {
          expect_valid_split(lv, ends, c, 1, true);
          EXPECT_GE(double(c.nc) / lv.n(), 0.35);
          EXPECT_LE(double(c.nc) / lv.n(), 0.65);
          first_split = lv.icg;
        } else {
          ASSERT_EQ(lv.icg, first_split) << "icolor " << ic << " run " << run;
        }
        int nc = c.nc, nf = c.nf;
        bool aggressive = true;
        kornlt::ReduceSettings rs;
        rs.nred = 2;
        rs.nvars = c.nvars;
        rs.msg_level = -1;
        kornlt::reduce(L, rs, nc, nf, aggressive);
        ASSERT_TRUE(aggressive);
        if (run == 0) first_reduced = lv.icg;
        ASSERT_EQ(lv.icg, first_reduced) << "icolor " << ic << " run " << run;
      }
    }
  }
}

TEST_F(Coarsen, PcolErrorsRestoreTheDiagonals) {
  struct Case {
    const char* name;
    bool parallel, alloc_fails;
    int clean, code;
    const char* text;
  };
  const Case cases[] = {
      {"illegal cleaning, serial", false, false, 3, 120, "*** ERROR: Illegal option in cleaning up phase (pcol)"},
      {"illegal cleaning, parallel", true, false, 0, 120, "*** ERROR: Illegal option in cleaning up phase (pcol)"},
      {"allocation, parallel", true, true, 1, 70, "*** ERROR: Allocation #1 failed in (pcol)"},
  };
  for (const Case& cs : cases) {
    SCOPED_TRACE(cs.name);
    kornlt::ierr() = 0;
    // 1 -> 2 (FF): 1 is left at measure 0, so the cleaning option is read.
    Level lv = graph_level({{2}, {}, {4}, {3}}, {}, 3, 5);
    if (cs.alloc_fails) kornlt::coarsen_fail_next_allocation();
    MessageCapture cap;
    if (cs.parallel)
      kornlt::pcol_parallel(lv.view(), quiet(cs.clean), 2);
    else
      kornlt::pcol_serial(lv.view(), quiet(cs.clean));
    EXPECT_EQ(kornlt::ierr(), cs.code);
    EXPECT_NE(cap.text().find(cs.text), std::string::npos) << cap.text();
    for (int i = lv.ilo; i <= lv.ihi; ++i) EXPECT_EQ(lv.end(i), i);
  }
}

// Aggressive coarsening against its definition: only C-variables of the
// first pass turn F (-3), each reaches a C-variable along at most two strong
// couplings, and the survivors are independent in the reduced graph (no
// direct coupling, fewer than nred paths of length two between two of them).
TEST_F(Coarsen, AggressiveCoarseningReducesTheGrid) {
  struct Case {
    const char* name;
    Csr m;
    int nred;
  };
  const Case cases[] = {{"2d nred 1", poisson2d(24, 24), 1},
                        {"2d nred 2", poisson2d(24, 24), 2},
                        {"3d nred 1", grid3d(10), 1},
                        {"3d nred 2", grid3d(10), 2}};
  for (const Case& cs : cases)
    for (int variant : {0, 1, 2}) {  // serial; icolor 1 (parallel rcol); icolor 2 (threaded graph)
      SCOPED_TRACE(std::string(cs.name) + " variant " + std::to_string(variant));
      omp_set_num_threads(variant == 0 ? 1 : 2);
      kornlt::prm().icolor_omp = variant;
      Level lv = sorted(cs.m);
      const std::vector<int> ends = strong_ends(lv);
      auto S = [&](int i) {
        std::vector<int> s;
        for (int p = lv.IA(i) + 1; p <= ends[at(i - 1)]; ++p) s.push_back(lv.JA(p));
        return s;
      };
      const LevelView L = lv.view();
      const SelectionCounts c = kornlt::pcol(L, quiet());
      const std::vector<int> first = lv.icg;
      int nc = c.nc, nf = c.nf;
      bool aggressive = true;
      kornlt::ReduceSettings rs;
      rs.nred = cs.nred;
      rs.nvars = c.nvars;
      rs.msg_level = -1;
      kornlt::reduce(L, rs, nc, nf, aggressive);
      ASSERT_EQ(kornlt::ierr(), 0);
      EXPECT_TRUE(aggressive);
      int n1 = 0, nm3 = 0;
      for (int i = 1; i <= lv.n(); ++i) {
        const int s = lv.ICG(i), s0 = first[at(i - 1)];
        if (s0 == 1) {
          EXPECT_TRUE(s == 1 || s == -3) << i;
        } else {
          EXPECT_EQ(s, s0) << i;
        }
        n1 += s == 1;
        nm3 += s == -3;
        std::map<int, int> paths;
        bool reach = false;
        for (int j : S(i)) {
          reach = reach || lv.ICG(j) > 0;
          if (s == 1) {
            EXPECT_NE(lv.ICG(j), 1) << i << " - " << j;
          }
          for (int l : S(j))
            if (l != i) {
              ++paths[l];
              reach = reach || lv.ICG(l) > 0;
            }
        }
        if (s == -3) {
          EXPECT_TRUE(reach) << "-3 variable " << i << " without a C-variable within distance two";
        }
        if (s == 1)
          for (auto [l, cnt] : paths)
            if (lv.ICG(l) == 1) {
              EXPECT_LT(cnt, cs.nred) << i << " - " << l;
            }
      }
      EXPECT_EQ(nc, n1);
      EXPECT_EQ(nf, c.nf + nm3);
      EXPECT_LE(double(nc) / lv.n(), 0.3);
    }
}

// A level of k preset C-variables (rows that cannot be treated) and p
// independent pairs (one C, one F each).
Level presets_and_pairs(int k, int p) {
  std::vector<std::vector<int>> s(at(k + 2 * p));
  std::vector<RowKind> kind(at(k), kCannotTreat);
  for (int q = 0; q < p; ++q) {
    const int u = k + 2 * q + 1;
    s[at(u - 1)] = {u + 1};
    s[at(u)] = {u};
    kind.push_back(kNormal);
    kind.push_back(kNormal);
  }
  return graph_level(s, kind);
}

TEST_F(Coarsen, SplitChecks) {
  struct Case {
    const char* name;
    int presets, pairs;  // level of presets_and_pairs, or a Poisson grid of size `grid` when pairs < 0
    int grid, npcol, nptmn, nptmax, too_slow, nrc;
    bool stop;
    int code, nrc_after;
    const char* text;
  };
  const char* term = "+++ WARNG: Coarsening terminated: inefficient grid reduction! (split_3)";
  const Case cases[] = {
      {"two C", 0, 2, 0, 0, 2, 1500, -1, 7, true, 0, 7, ">>> Coarsening stopped: less than 3 C-variables (including FC)"},
      {"two F", 4, 2, 0, 0, 2, 1500, -1, 7, true, 0, 7,
       ">>> Coarsening stopped: less than 3 F-variables (not including FF)"},
      {"low # C", 0, -1, 10, 0, 100, 1500, -1, 7, true, 0, 7, ">>> Coarsening stopped: low # C-variables"},
      {"low # C but large level", 0, -1, 10, 0, 100, 50, -1, 7, false, 0, 7, ""},
      {"ratio 0.95", 54, 3, 0, 0, 2, 1500, -1, 7, true, -130, 7, term},
      {"ratio 0.95, large level", 54, 3, 0, 0, 2, 20, -1, 8, true, -130, 3, term},
      {"ratio 0.95, large level, nrc 12", 54, 3, 0, 0, 2, 20, -1, 12, true, -130, 12, term},
      {"ratio 0.86", 27, 5, 0, 0, 2, 1500, -1, 7, false, 0, 7, "+++ WARNG: Inefficient coarsening! (split_3)"},
      {"enforced", 0, -1, 10, 0, 2, 50, 1, 6, true, 0, 3, ">>> MESSG: coarsening too slow enforced! (split_3)"},
      {"cforce leaves F", 4, 3, 0, 1, 2, 1500, -1, 7, false, 0, 7, "cforce(1):     # vars -> C: 0"},
  };
  for (const Case& cs : cases) {
    SCOPED_TRACE(cs.name);
    kornlt::ierr() = 0;
    kornlt::prm().nptmax = cs.nptmax;
    kornlt::prm().lev_coarsening_too_slow = cs.too_slow;
    Level lv = cs.pairs >= 0 ? presets_and_pairs(cs.presets, cs.pairs) : sorted(poisson2d(cs.grid, cs.grid));
    kornlt::SplitSettings s;
    s.npcol = cs.npcol;
    s.nptmn = cs.nptmn;
    s.nrc = cs.nrc;
    MessageCapture cap;
    const kornlt::SplitResult r = kornlt::split(lv.view(), s);
    EXPECT_EQ(r.stop, cs.stop);
    EXPECT_EQ(kornlt::ierr(), cs.code);
    EXPECT_EQ(r.nrc, cs.nrc_after);
    EXPECT_EQ(r.nc, static_cast<int>(std::count_if(lv.icg.begin(), lv.icg.end(), [](int v) { return v > 0; })));
    EXPECT_EQ(r.nf, static_cast<int>(std::count_if(lv.icg.begin(), lv.icg.end(), [](int v) { return v < 0; })));
    EXPECT_NE(cap.text().find(cs.text), std::string::npos) << cap.text();
  }
  struct Err {
    bool cluster;
    int nstyp, internal, code;
    const char* text;
  };
  for (const Err& e : {Err{true, 1, 0, 80, "*** ERROR: Cluster coarsening is not available in this build (split)"},
                       Err{false, 2, 0, 20, "*** ERROR: Incorrect INTERNAL setting: (only internal=0 possible) !"},
                       Err{false, 1, 1, 20, "*** ERROR: Incorrect INTERNAL setting: (only internal=0 possible) !"}}) {
    kornlt::ierr() = 0;
    Level lv = sorted(poisson2d(6, 6));
    kornlt::SplitSettings s;
    s.cluster = e.cluster;
    s.nstyp = e.nstyp;
    s.internal = e.internal;
    MessageCapture cap;
    kornlt::split(lv.view(), s);
    EXPECT_EQ(kornlt::ierr(), e.code);
    EXPECT_NE(cap.text().find(e.text), std::string::npos) << cap.text();
  }
}

}  // namespace
