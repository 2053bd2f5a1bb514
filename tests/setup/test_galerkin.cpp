// Tests of the Galerkin coarse operators: every variant over two levels
// against a dense P^T A P (with growth of deliberately small arrays) and bit
// for bit against the serial product on one and two threads, the repair of
// non-positive diagonals and its outcomes, the truncation, and allocation
// failures. (Run modes 2 and 3, which re-anchor or
// recompute kept coarse levels, are exercised by the solve tests.)
#include <set>

#include "setup/setup_fixtures.hpp"

namespace {

using namespace setup_test;
using namespace kornlt;
using PRows = std::vector<std::vector<std::pair<int, double>>>;  // [i] -> (fine column, weight), 1-based

// Greedy split: a row becomes C unless a neighbour already is, so every F-row
// has a C-neighbour. icg[i], 1-based (element 0 unused).
std::vector<int> greedy_split(const Csr& A) {
  std::vector<int> icg(at(A.nnu + 1), 0);
  for (int i = 1; i <= A.nnu; ++i) {
    bool has_c = false;
    for (int p = row_begin(A, i) + 1; p < row_end(A, i); ++p) has_c = has_c || icg[at(A.ja[at(p - 1)])] == 1;
    icg[at(i)] = has_c ? -1 : 1;
  }
  return icg;
}

// Unit rows for C, empty rows for FF; an F-row takes its C-neighbours, and
// with `far` also C-variables at distance two, with weights in [0.05, 0.7].
PRows some_interpolation(const Csr& A, const std::vector<int>& icg, unsigned seed, bool far) {
  std::mt19937 gen(seed);
  std::uniform_real_distribution<double> val(0.05, 0.7);
  PRows P(at(A.nnu + 1));
  for (int i = 1; i <= A.nnu; ++i) {
    if (icg[at(i)] > 0) P[at(i)].push_back({i, 1.0});
    if (icg[at(i)] >= 0) continue;
    std::set<int> cs;
    for (int p = row_begin(A, i) + 1; p < row_end(A, i); ++p) {
      const int j = A.ja[at(p - 1)];
      if (icg[at(j)] > 0) cs.insert(j);
      for (int q = row_begin(A, j) + 1; far && q < row_end(A, j); ++q) {
        const int l = A.ja[at(q - 1)];
        if (icg[at(l)] > 0 && (i + l) % 3 == 0) cs.insert(l);
      }
    }
    for (int j : cs) P[at(i)].push_back({j, val(gen)});
  }
  return P;
}

// The dense reference P^T A P of a split and an interpolation.
Dense reference(const Csr& A, const std::vector<int>& icg, const PRows& P) {
  std::vector<int> cn(icg.size(), -1);
  int nc = 0;
  for (std::size_t i = 1; i < icg.size(); ++i)
    if (icg[i] > 0) cn[i] = nc++;
  Dense Ad(at(A.nnu), std::vector<double>(at(A.nnu), 0.0)), Pd(at(A.nnu), std::vector<double>(at(nc), 0.0));
  for (int i = 1; i <= A.nnu; ++i) {
    for (int p = row_begin(A, i); p < row_end(A, i); ++p) Ad[at(i - 1)][at(A.ja[at(p - 1)] - 1)] += A.a[at(p - 1)];
    for (auto [j, w] : P[at(i)]) Pd[at(i - 1)][at(cn[at(j)])] += w;
  }
  return dense_ptap(Ad, Pd);
}

// The store of a test: level 1 bound to A, the split and P written in.
struct Hierarchy {
  Csr A;
  std::vector<double> u, f;
  // nda_extra: room of a beyond level 1; ndu: variable arrays (0: twice nnu).
  void load(const std::vector<int>& icg, const PRows& P, int nda_extra, int ndu = 0) {
    u_dealloc();
    a_dealloc();
    w_dealloc();
    StoreState& st = store();
    st = StoreState{};
    u.assign(at(A.nnu), 0.0);
    f.assign(at(A.nnu), 0.0);
    bind_level1(A.nnu, A.ia.data(), A.ja.data(), A.a.data(), u.data(), f.data());
    st.imin[1] = 1;
    st.imax[1] = A.nnu;
    st.nda = A.nna() + nda_extra;
    st.ndu = ndu > 0 ? ndu : 2 * A.nnu;
    st.ndw = 20 * A.nnu + 100;
    u_alloc(1, A.nnu, st.ndu);
    u_alloc(2, A.nnu, st.ndu);
    w_alloc(st.ndw);
    ASSERT_FALSE(failed());
    for (int i = 1; i <= A.nnu; ++i) st.icg[at(i - 1)] = icg[at(i)];
    write_interpolation(1, A.nnu, P, 0);
  }
  // Rows ilo..ihi of P (local row i - ilo + 1, columns + shift) behind iw(ilo).
  static void write_interpolation(int ilo, int ihi, const PRows& P, int shift) {
    StoreState& st = store();
    if (ilo == 1) st.iw[0] = 1;
    int pos = st.iw[at(ilo - 1)];
    for (int i = ilo; i <= ihi; ++i) {
      for (auto [j, w] : P[at(i - ilo + 1)]) {
        st.jw[at(pos - 1)] = j + shift;
        st.w[at(pos - 1)] = w;
        ++pos;
      }
      st.iw[at(i)] = pos;
    }
  }
};

// Level k as a local CSR (same entry order).
Csr level_csr(int k) {
  const LevelView L = level_view(k);
  Csr C;
  for (int i = L.ilo; i <= L.ihi; ++i) {
    Off off;
    for (int p = L.ia(i) + 1; p < L.ia(i + 1); ++p) off.push_back({L.ja(p) - L.ilo + 1, L.a(p)});
    add_row(C, L.a(L.ia(i)), off);
  }
  return C;
}

GalerkinSettings settings(int nntyp, bool mult_zeros = false) {
  GalerkinSettings s;
  s.nntyp = nntyp;
  s.mult_zeros = mult_zeros;
  s.msg_level = -1;
  return s;
}

struct Case {
  std::string name;
  Csr A;
  std::vector<int> icg;
  PRows P;
};

Case make_case(std::string name, Csr A, bool far, int ff_every = 0) {
  std::vector<int> icg = greedy_split(A);
  for (int i = 4; ff_every > 0 && i <= A.nnu; i += ff_every)
    if (icg[at(i)] < 0) icg[at(i)] = kIcgFF;  // forced fine: empty rows of P
  PRows P = some_interpolation(A, icg, 9u, far);
  return {std::move(name), std::move(A), std::move(icg), std::move(P)};
}

// Some couplings (upper triangle) stored as explicit zeros.
Csr with_zeros(Csr A) {
  for (int i = 1; i <= A.nnu; ++i)
    for (int p = row_begin(A, i) + 1; p < row_end(A, i); ++p)
      if (A.ja[at(p - 1)] > i && (i + p) % 7 == 0) A.a[at(p - 1)] = 0.0;
  return A;
}

std::vector<Case> cases() {
  return {make_case("poisson2d", poisson2d(11, 10), false), make_case("poisson3d", grid3d(5), false),
          make_case("random, distance-two weights", random_sym(160, 5u, 8, 0.0), true),
          make_case("random with explicit zeros", with_zeros(random_sym(140, 17u, 10, 0.0)), true),
          make_case("convection-diffusion", convection2d(12, 9), false),
          make_case("poisson2d with FF", poisson2d(10, 9), false, 7)};
}

class GalerkinTest : public SetupTest {};

// Two levels by variant nntyp: both products against the dense P^T A P (the
// second reads its fine level from the stacked arrays, which move when the
// arrays grow from a deliberately small nda and ndu); the bits of both levels
// for the comparison with the serial variant.
struct TwoLevels {
  Snapshot l2, l3;
  bool operator==(const TwoLevels&) const = default;
};

TwoLevels run_two_levels(const Case& cs, int nntyp, bool mult_zeros, bool tiny) {
  const std::string what = cs.name + " nntyp " + std::to_string(nntyp) + (tiny ? " tiny" : "");
  Hierarchy h{cs.A, {}, {}};
  h.load(cs.icg, cs.P, tiny ? 2 : 40 * h.A.nnu, tiny ? h.A.nnu : 0);
  const int nda0 = store().nda;
  prepare_opdfn(2);
  const GalerkinResult r = galerkin(2, settings(nntyp, mult_zeros));
  TwoLevels t;
  if (failed()) return t;
  EXPECT_EQ(r.nbad + r.restarts, 0) << what;
  EXPECT_EQ(r.nentries, static_cast<int>(snapshot(2, 2, 0).bits.size())) << what;
  EXPECT_TRUE(!tiny || store().nda > nda0) << what << ": a was not grown";
  expect_rows_match(level_rows(2), reference(cs.A, cs.icg, cs.P), what + " level 2");
  const Csr A2 = level_csr(2);
  const std::vector<int> icg2 = greedy_split(A2);
  const PRows P2 = some_interpolation(A2, icg2, 21u, true);
  StoreState& st = store();
  for (int i = 1; i <= A2.nnu; ++i) st.icg[at(st.imin[2] + i - 2)] = icg2[at(i)];
  Hierarchy::write_interpolation(st.imin[2], st.imax[2], P2, st.imin[2] - 1);
  prepare_opdfn(3);
  galerkin(3, settings(nntyp, mult_zeros));
  if (failed()) return t;
  expect_rows_match(level_rows(3), reference(A2, icg2, P2), what + " level 3");
  t.l2 = snapshot(2, 2, 0);
  t.l3 = snapshot(3, 3, 0);
  return t;
}

// Every variant equals the dense product and, on one thread and (the
// threaded ones) on two, repeated, the serial variant bit for bit.
TEST_F(GalerkinTest, EveryVariantIsTheDenseProductAndTheSerialOneBitwise) {
  prm().nmin_matrix = 0;
  for (const Case& cs : cases())
    for (bool mult_zeros : {false, true}) {
      omp_set_num_threads(1);
      const TwoLevels serial = run_two_levels(cs, 1, mult_zeros, true);
      ASSERT_FALSE(failed()) << cs.name;
      ASSERT_FALSE(serial.l3.ints.empty());
      for (int threads : {1, 2})
        for (int nntyp = threads == 1 ? 1 : 4; nntyp <= 6; ++nntyp)
          for (bool tiny : {false, true}) {
            omp_set_num_threads(threads);
            for (int rep = 0; rep < threads; ++rep) {
              const TwoLevels got = run_two_levels(cs, nntyp, mult_zeros, tiny);
              ASSERT_FALSE(failed());
              EXPECT_TRUE(got == serial) << cs.name << " nntyp " << nntyp << " threads " << threads
                                         << (tiny ? " tiny" : "") << (mult_zeros ? " zeros kept" : "");
            }
          }
    }
}

// ---------------------------------------------------------------------------
// Repair of non-positive diagonals
// ---------------------------------------------------------------------------
// Chain 1 C, 2 F, 3 C, 4 F, 5 C: the coarse diagonal of variable 1 is
// 1 - 2 * 0.5 * 2 + 0.25 * 2 = -0.5.
struct BadCase {
  Csr A;
  std::vector<int> icg;
  PRows P;
};
BadCase bad_case() {
  BadCase b;
  add_row(b.A, 1.0, {{2, -2.0}});
  add_row(b.A, 2.0, {{1, -2.0}, {3, -0.5}});
  add_row(b.A, 2.0, {{2, -0.5}, {4, -0.5}});
  add_row(b.A, 2.0, {{3, -0.5}, {5, -0.5}});
  add_row(b.A, 2.0, {{4, -0.5}});
  b.icg = {0, 1, -1, 1, -1, 1};
  b.P = {{}, {{1, 1.0}}, {{1, 0.5}, {3, 0.5}}, {{3, 1.0}}, {{3, 0.5}, {5, 0.5}}, {{5, 1.0}}};
  return b;
}
// A C-variable (3) with a non-positive fine diagonal and no F-row: nothing
// can repair it. two: variable 1 as well, and 2 forced fine.
BadCase hopeless_case(bool two) {
  BadCase b;
  add_row(b.A, two ? -1.0 : 2.0, {{2, -0.5}});
  add_row(b.A, 2.0, {{1, -0.5}, {3, -0.5}});
  add_row(b.A, -1.0, {{2, -0.25}});
  b.icg = {0, 1, two ? kIcgFF : -1, 1};
  b.P = {{}, {{1, 1.0}}, two ? std::vector<std::pair<int, double>>{} : std::vector<std::pair<int, double>>{{1, 1.0}},
         {{3, 1.0}}};
  return b;
}

// The interpolation in the store (jw in coarse indices) with fine columns.
PRows interpolation_in_store(const BadCase& b) {
  const StoreState& st = store();
  std::map<int, int> fine_of;
  for (int i = 1; i <= b.A.nnu; ++i)
    if (b.icg[at(i)] > 0) fine_of[st.icg[at(i - 1)]] = i;
  PRows P(at(b.A.nnu + 1));
  for (int i = 1; i <= b.A.nnu; ++i)
    for (int p = st.iw[at(i - 1)]; p < st.iw[at(i)]; ++p) P[at(i)].push_back({fine_of.at(st.jw[at(p - 1)]), st.w[at(p - 1)]});
  return P;
}

TEST_F(GalerkinTest, DiagonalRepairOutcomes) {
  struct Outcome {
    const char* what;
    BadCase b;
    int nntyp, neg_diag, neg_diag_brute, maxop_restart;
    int code, nbad_first, nbad, restarts, ncorrect_f, ncorrect_w;
    const char* text;
  };
  const Outcome cases[] = {
      {"correct_f", bad_case(), 1, 20, 20, 2, 0, 1, 0, 1, 1, 0, "correct_f:     starting"},
      {"correct_f, threaded variant", bad_case(), 6, 20, 20, 2, 0, 1, 0, 1, 1, 0, "1 non-positive diagonal(s) on level 2"},
      {"neg_diag 0", bad_case(), 1, 0, 20, 2, -154, 1, 1, 0, 0, 0, "no correction of negative diagonals on level 2."},
      {"brute limit 0: correct_w", bad_case(), 1, 20, 0, 0, 0, 1, 0, 1, 0, 1, "correct_w:     re-start # 1"},
      {"hopeless", hopeless_case(false), 1, 20, 20, 2, -153, 1, 1, 3, 2, 1,
       "Maximum number of allowed re-starts exceeded (2) :"},
      {"two hopeless, neg_diag 1", hopeless_case(true), 1, 1, 20, 2, -153, 2, 2, 1, -1, -1,
       "still 2 negative diagonals with second attempt (opdfn)"},
  };
  for (const Outcome& o : cases) {
    SCOPED_TRACE(o.what);
    ierr() = 0;
    Hierarchy h{o.b.A, {}, {}};
    h.load(o.b.icg, o.b.P, 100);
    prepare_opdfn(2);
    GalerkinSettings s = settings(o.nntyp);
    s.neg_diag = o.neg_diag;
    s.neg_diag_brute = o.neg_diag_brute;
    s.maxop_restart = o.maxop_restart;
    s.msg_level = 0;
    s.trace = true;
    MessageCapture cap;
    const GalerkinResult r = galerkin(2, s);
    EXPECT_EQ(ierr(), o.code);
    EXPECT_EQ(r.nbad_first, o.nbad_first);
    EXPECT_EQ(r.nbad, o.nbad);
    EXPECT_EQ(r.restarts, o.restarts);
    if (o.ncorrect_f >= 0) {
      EXPECT_EQ(r.ncorrect_f, o.ncorrect_f);
      EXPECT_EQ(r.ncorrect_w, o.ncorrect_w);
    }
    EXPECT_NE(cap.text().find(o.text), std::string::npos) << cap.text();
    const LevelView L = level_view(2);
    EXPECT_EQ(L.ia(L.ilo), h.A.nna() + 1) << "restarts rewind a";
    // Whatever was corrected: the coarse level is P^T A P of the stored P,
    // and row sums of P are kept.
    const PRows Pn = interpolation_in_store(o.b);
    expect_rows_match(level_rows(2), reference(o.b.A, o.b.icg, Pn), o.what);
    for (int i = 1; i <= o.b.A.nnu; ++i) {
      double s0 = 0.0, s1 = 0.0;
      for (auto [j, w] : o.b.P[at(i)]) s0 += w;
      for (auto [j, w] : Pn[at(i)]) s1 += w;
      EXPECT_NEAR(s1, s0, 1e-15) << "row " << i;
    }
    if (o.nbad == 0) {
      for (int c = L.ilo; c <= L.ihi; ++c) EXPECT_GT(L.a(L.ia(c)), 0.0);
    }
  }
}

TEST_F(GalerkinTest, AllocationFailureIsReported) {
  const Case cs = cases()[0];
  for (int nntyp : {1, 2, 6}) {
    Hierarchy h{cs.A, {}, {}};
    h.load(cs.icg, cs.P, 40 * h.A.nnu);
    prepare_opdfn(2);
    MessageCapture cap;
    galerkin_fail_next_allocation();
    opdfn_product(2, nntyp, false, 20);
    EXPECT_EQ(ierr(), 70);
    const std::string want = nntyp == 1   ? "Allocation error (wt,jwt,iwt,ifg) in (opdfn)!"
                             : nntyp == 2 ? "Allocation error (wt,jwt,iwt,ifg,ialow) in (opdfn_detrlen)!"
                                          : "Allocation error (ifg,ja,a) in (opdfn)!";
    EXPECT_NE(cap.text().find(want), std::string::npos) << cap.text();
    ierr() = 0;
  }
}

// ---------------------------------------------------------------------------
// Truncation
// ---------------------------------------------------------------------------
// Off-diagonals with |a_cl| <= eps a_cc (symmetric: or their partner small in
// its row) are lumped into the diagonal; row sums stay. Where lumping leaves a
// diagonal that is not positive the truncation fails with error 152.
TEST_F(GalerkinTest, TruncationRemovesExactlyTheSmallEntries) {
  int npassing = 0, nfailing = 0;
  const std::vector<Case> all = cases();
  for (const Case* cs : {&all[0], &all[1], &all[4]})
    for (double eps : {0.1, 0.2, 0.35})
      for (bool symmetric : {false, true}) {
        if (symmetric && cs == &all[4]) continue;
        const std::string what = cs->name + " eps " + std::to_string(eps) + (symmetric ? " symmetric" : "");
        Hierarchy h{cs->A, {}, {}};
        h.load(cs->icg, cs->P, 40 * h.A.nnu);
        prepare_opdfn(2);
        galerkin(2, settings(1));
        ASSERT_FALSE(failed());
        const std::vector<Row> before = level_rows(2);
        std::vector<Row> want = before;
        int nremove = 0, nonpos = 0;
        for (std::size_t c = 0; c < before.size(); ++c) {
          const int ic = static_cast<int>(c);
          for (auto [l, v] : before[c]) {
            if (l == ic) continue;
            bool small = std::abs(v) <= before[c].at(ic) * eps;
            if (symmetric) small = small || std::abs(before[at(l)].at(ic)) <= before[at(l)].at(l) * eps;
            if (!small) continue;
            want[c].erase(l);
            want[c][ic] += v;
            ++nremove;
          }
          nonpos += want[c].at(ic) <= 0.0;
        }
        ASSERT_GT(nremove, 0) << what;
        MessageCapture cap;
        EXPECT_EQ(galerkin_truncation(2, eps, symmetric, 0), nremove) << what;
        if (nonpos > 0) {
          EXPECT_EQ(ierr(), 152) << what;
          EXPECT_NE(cap.text().find("Truncation of Galerkin failed: " + std::to_string(nonpos) +
                                    " non-positive diagonals!"),
                    std::string::npos)
              << what;
          ++nfailing;
          ierr() = 0;
          continue;
        }
        ++npassing;
        ASSERT_FALSE(failed()) << what;
        const std::vector<Row> after = level_rows(2);
        ASSERT_EQ(after.size(), want.size());
        for (std::size_t c = 0; c < after.size(); ++c) {
          ASSERT_EQ(after[c].size(), want[c].size()) << what << " row " << c;
          for (auto [l, v] : after[c]) EXPECT_NEAR(v, want[c].at(l), 1e-13 * std::max(1.0, std::abs(v))) << what;
        }
      }
  EXPECT_GT(npassing, 4);
  EXPECT_GT(nfailing, 0) << "the large eps should spoil some diagonal";
}

}  // namespace
