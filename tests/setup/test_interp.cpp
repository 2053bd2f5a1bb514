// Tests of the classical interpolation: direct, standard and extended rows
// against a reference written here with maps, closed-form weights of direct
// interpolation, hand-computed truncation cases, the F->C conversion, the
// multi-pass build, the improvement sweep, wfinal, the transpose, threaded
// against serial, and the error paths.
#include <gtest/gtest.h>
#include <omp.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <random>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "log/log.hpp"
#include "log/test_support.hpp"
#include "params/params.hpp"
#include "setup/setup.hpp"
#include "store/store.hpp"

namespace {

using namespace kornlt;
using Row = std::map<int, double>;  // column -> weight

// ---------------------------------------------------------------------------
// Matrices: 1-based CSR content, diagonal first in each row.
// ---------------------------------------------------------------------------
struct Csr {
  int n = 0;
  std::vector<int> ia{1}, ja;
  std::vector<double> a;
  int rs(int i) const { return ia[static_cast<std::size_t>(i - 1)]; }  // first position of row i
  int re(int i) const { return ia[static_cast<std::size_t>(i)]; }      // one past the last
  int col(int p) const { return ja[static_cast<std::size_t>(p - 1)]; }
  double val(int p) const { return a[static_cast<std::size_t>(p - 1)]; }
  int& colr(int p) { return ja[static_cast<std::size_t>(p - 1)]; }
  void add_row(int i, double diag, const std::vector<std::pair<int, double>>& off) {
    ja.push_back(i);
    a.push_back(diag);
    for (auto [j, v] : off) {
      ja.push_back(j);
      a.push_back(v);
    }
    ia.push_back(static_cast<int>(ja.size()) + 1);
    ++n;
  }
};

// Five-point Laplacian on nx x ny: Dirichlet (diagonal 4) or the graph
// Laplacian (diagonal = number of neighbours, every row sum zero).
Csr poisson2d(int nx, int ny, bool neumann = false) {
  Csr A;
  auto id = [&](int x, int y) { return 1 + x + nx * y; };
  for (int y = 0; y < ny; ++y)
    for (int x = 0; x < nx; ++x) {
      std::vector<std::pair<int, double>> off;
      if (y > 0) off.push_back({id(x, y - 1), -1.0});
      if (x > 0) off.push_back({id(x - 1, y), -1.0});
      if (x < nx - 1) off.push_back({id(x + 1, y), -1.0});
      if (y < ny - 1) off.push_back({id(x, y + 1), -1.0});
      A.add_row(id(x, y), neumann ? static_cast<double>(off.size()) : 4.0, off);
    }
  return A;
}

Csr poisson3d(int m) {
  Csr A;
  auto id = [&](int x, int y, int z) { return 1 + x + m * (y + m * z); };
  for (int z = 0; z < m; ++z)
    for (int y = 0; y < m; ++y)
      for (int x = 0; x < m; ++x) {
        std::vector<std::pair<int, double>> off;
        if (z > 0) off.push_back({id(x, y, z - 1), -1.0});
        if (y > 0) off.push_back({id(x, y - 1, z), -1.0});
        if (x > 0) off.push_back({id(x - 1, y, z), -1.0});
        if (x < m - 1) off.push_back({id(x + 1, y, z), -1.0});
        if (y < m - 1) off.push_back({id(x, y + 1, z), -1.0});
        if (z < m - 1) off.push_back({id(x, y, z + 1), -1.0});
        A.add_row(id(x, y, z), 6.0, off);
      }
  return A;
}

// Random symmetric pattern. Off-diagonals negative in [-1, -0.05]; with
// `positive` some are positive instead. Every third row has zero row sum,
// the others a diagonal 10% above the absolute off-diagonal sum.
Csr random_matrix(int n, unsigned seed, int degree, bool positive) {
  std::mt19937 gen(seed);
  std::uniform_int_distribution<int> pick(1, n);
  std::uniform_real_distribution<double> mag(0.05, 1.0), coin(0.0, 1.0);
  std::vector<std::map<int, double>> rows(static_cast<std::size_t>(n) + 1);
  for (int i = 1; i <= n; ++i) {
    // a chain keeps the graph connected
    if (i < n) {
      const double v = -mag(gen);
      rows[static_cast<std::size_t>(i)][i + 1] = v;
      rows[static_cast<std::size_t>(i) + 1][i] = v;
    }
    for (int e = 0; e < degree / 2; ++e) {
      const int j = pick(gen);
      if (j == i || rows[static_cast<std::size_t>(i)].count(j)) continue;
      double v = -mag(gen);
      if (positive && coin(gen) < 0.3) v = 0.5 * mag(gen);
      rows[static_cast<std::size_t>(i)][j] = v;
      rows[static_cast<std::size_t>(j)][i] = v;
    }
  }
  Csr A;
  for (int i = 1; i <= n; ++i) {
    double s = 0.0, sabs = 0.0;
    std::vector<std::pair<int, double>> off;
    for (auto [j, v] : rows[static_cast<std::size_t>(i)]) {
      off.push_back({j, v});
      s += v;
      sabs += std::abs(v);
    }
    const double d = (i % 3 == 0 && !positive) ? -s : 1.1 * sabs;
    A.add_row(i, d, off);
  }
  return A;
}

// The row sort the setup runs first, written plainly: per row the strongest
// negative entry behind the diagonal, then the other strong ones (a_ij <=
// ecg2 * amin), then the weak ones, and the strong end in the diagonal's
// column slot (ia(i) for none).
void sort_rows(Csr& A, double ecg2 = 0.25) {
  for (int i = 1; i <= A.n; ++i) {
    const int rs = A.rs(i), re = A.re(i);
    double amin = 0.0;
    int first = 0;
    for (int p = rs + 1; p < re; ++p)
      if (A.val(p) < amin) {
        amin = A.val(p);
        first = p;
      }
    std::vector<std::pair<int, double>> strong, weak;
    if (first != 0) strong.push_back({A.col(first), A.val(first)});
    for (int p = rs + 1; p < re; ++p) {
      if (p == first) continue;
      if (amin < 0.0 && A.val(p) <= ecg2 * amin) strong.push_back({A.col(p), A.val(p)});
      else weak.push_back({A.col(p), A.val(p)});
    }
    int p = rs + 1;
    for (auto& e : strong) {
      A.ja[static_cast<std::size_t>(p - 1)] = e.first;
      A.a[static_cast<std::size_t>(p - 1)] = e.second;
      ++p;
    }
    for (auto& e : weak) {
      A.ja[static_cast<std::size_t>(p - 1)] = e.first;
      A.a[static_cast<std::size_t>(p - 1)] = e.second;
      ++p;
    }
    A.colr(rs) = rs + static_cast<int>(strong.size());
  }
}

int strong_end_of(const Csr& A, int i) { return A.col(A.rs(i)); }

// A first-pass classical split: the undecided variable that most others
// strongly depend on becomes C, the ones strongly depending on it F; what
// is left without strong couplings becomes C.
std::vector<int> classical_split(const Csr& A) {
  const int n = A.n;
  std::vector<std::vector<int>> st(static_cast<std::size_t>(n) + 1);  // st[j]: rows strongly depending on j
  for (int i = 1; i <= n; ++i)
    for (int p = A.rs(i) + 1; p <= strong_end_of(A, i); ++p) st[static_cast<std::size_t>(A.col(p))].push_back(i);
  std::vector<int> icg(static_cast<std::size_t>(n) + 1, kIcgUndecided), lambda(static_cast<std::size_t>(n) + 1, 0);
  for (int j = 1; j <= n; ++j) lambda[static_cast<std::size_t>(j)] = static_cast<int>(st[static_cast<std::size_t>(j)].size());
  for (;;) {
    int best = 0;
    for (int j = 1; j <= n; ++j)
      if (icg[static_cast<std::size_t>(j)] == kIcgUndecided &&
          (best == 0 || lambda[static_cast<std::size_t>(j)] > lambda[static_cast<std::size_t>(best)]))
        best = j;
    if (best == 0) break;
    if (lambda[static_cast<std::size_t>(best)] == 0) {
      for (int j = 1; j <= n; ++j)
        if (icg[static_cast<std::size_t>(j)] == kIcgUndecided) icg[static_cast<std::size_t>(j)] = kIcgC;
      break;
    }
    icg[static_cast<std::size_t>(best)] = kIcgC;
    for (int i : st[static_cast<std::size_t>(best)]) {
      if (icg[static_cast<std::size_t>(i)] != kIcgUndecided) continue;
      icg[static_cast<std::size_t>(i)] = kIcgF;
      for (int p = A.rs(i) + 1; p <= strong_end_of(A, i); ++p) {
        const int k = A.col(p);
        if (icg[static_cast<std::size_t>(k)] == kIcgUndecided) ++lambda[static_cast<std::size_t>(k)];
      }
    }
  }
  return icg;
}

std::vector<int> red_black(int nx, int ny) {
  std::vector<int> icg(static_cast<std::size_t>(nx * ny) + 1, 0);
  for (int y = 0; y < ny; ++y)
    for (int x = 0; x < nx; ++x) icg[static_cast<std::size_t>(1 + x + nx * y)] = (x + y) % 2 == 0 ? kIcgC : kIcgF;
  return icg;
}

// ---------------------------------------------------------------------------
// Reference interpolation, row by row in rising order as the description
// tells it, with maps and sets. Conversions F->C are applied at once.
// ---------------------------------------------------------------------------
struct RefOptions {
  int nwtint = 2, ntrunc = 0;
  double etr = 0.0, ewt2 = 0.2, eps = 1e-5;
  bool rowsum1 = false;
  const std::vector<int>* iu = nullptr;
  int nprim = 0;
};

std::vector<Row> reference_pw1(const Csr& A, std::vector<int>& icg, const RefOptions& o, int& nconv) {
  std::vector<Row> out(static_cast<std::size_t>(A.n) + 1);
  nconv = 0;
  auto g = [&](int k) { return icg[static_cast<std::size_t>(k)]; };
  auto other = [&](int i, int k) { return o.iu != nullptr && (*o.iu)[static_cast<std::size_t>(k)] != (*o.iu)[static_cast<std::size_t>(i)]; };
  for (int i = 1; i <= A.n; ++i) {
    Row& row = out[static_cast<std::size_t>(i)];
    if (g(i) > 0) {
      row[i] = 1.0;
      continue;
    }
    if (g(i) == 0 || (o.nprim > 0 && (*o.iu)[static_cast<std::size_t>(i)] != o.nprim)) continue;
    const int rs = A.rs(i), re = A.re(i), se = strong_end_of(A, i);
    const double aii = A.val(rs);
    bool indirect = o.nwtint >= 2;
    for (;;) {
      std::vector<std::pair<int, double>> img;
      std::map<int, std::size_t> where;
      std::set<int> interp;
      double diag = aii;
      std::size_t nstrong = 0;
      for (int p = rs + 1; p < re; ++p) {
        const int k = A.col(p);
        if (g(k) == 0 || other(i, k)) continue;
        where[k] = img.size();
        img.push_back({k, A.val(p)});
        if (p <= se) {
          nstrong = img.size();
          if (g(k) > 0) interp.insert(k);
        }
      }
      if (interp.empty()) indirect = true;
      if (indirect) {
        const std::size_t nwalk = o.nwtint == 3 ? img.size() : nstrong;
        const double big = re > rs + 1 ? o.ewt2 * std::abs(A.val(rs + 1)) : 0.0;
        for (std::size_t q = 0; q < nwalk; ++q) {
          const int k = img[q].first;
          int limit = 0;
          if (q < nstrong) {
            if (g(k) >= 0) continue;
            limit = strong_end_of(A, k);
          } else {
            if (!(img[q].second > big)) continue;
            limit = A.re(k) - 1;
          }
          const double c = -img[q].second / A.val(A.rs(k));
          img[q].second = 0.0;
          for (int p = A.rs(k) + 1; p < A.re(k); ++p) {
            const int l = A.col(p);
            if (g(l) == 0 || other(i, l)) continue;
            const double v = c * A.val(p);
            if (l == i) {
              diag += v;
            } else if (where.count(l)) {
              img[where[l]].second += v;
            } else {
              where[l] = img.size();
              img.push_back({l, v});
            }
            if (g(l) > 0 && p <= limit) interp.insert(l);
          }
        }
      }
      // sums over kept (interpolatory) and dropped entries
      double P = 0, N = 0, Pn = 0, Nn = 0;
      Row kept;
      for (auto [k, v] : img) {
        if (interp.count(k) && v != 0.0) {
          kept[k] = v;
          (v > 0 ? P : N) += std::abs(v);
        } else {
          (v > 0 ? Pn : Nn) += std::abs(v);
        }
      }
      double pos = P + Pn, neg = N + Nn, d = diag, alpha = 1, beta = 1;
      if (P <= 0) { d += pos; pos = 0; } else beta = pos / P;
      if (N <= 0) { d -= neg; neg = 0; } else alpha = neg / N;
      bool convert = false;
      if (kept.empty() || d <= o.eps * aii) {
        if (!indirect) {
          indirect = true;
          continue;
        }
        convert = true;
      }
      if (!convert) {
        for (auto& [k, v] : kept) v *= v > 0 ? beta : alpha;
        if (o.etr > 0 && o.ntrunc >= 1) {
          double Pm = 0, Nm = 0;
          for (auto& [k, v] : kept) (v > 0 ? Pm : Nm) = std::max(v > 0 ? Pm : Nm, std::abs(v));
          double Pt = o.etr * Pm, Nt = o.etr * Nm;
          if (o.ntrunc == 1) Pt = Nt = std::max(Pt, Nt);
          Row t;
          double P2 = 0, N2 = 0;
          for (auto [k, v] : kept)
            if (v >= Pt || v <= -Nt) {
              t[k] = v;
              (v > 0 ? P2 : N2) += std::abs(v);
            }
          alpha = beta = 1;
          if (P2 <= 0) d += pos; else beta = pos / P2;
          if (N2 <= 0) d -= neg; else alpha = neg / N2;
          if (t.empty() || d <= o.eps * aii) convert = true;
          for (auto& [k, v] : t) v *= v > 0 ? beta : alpha;
          kept = t;
        }
      }
      if (convert) {
        icg[static_cast<std::size_t>(i)] = kIcgC;
        ++nconv;
        row[i] = 1.0;
        break;
      }
      for (auto& [k, v] : kept) v = -v / d;
      if (o.rowsum1 && !kept.empty()) {
        double s = 0;
        for (auto& [k, v] : kept) s += v;
        if (std::abs(s) > 1e-20)
          for (auto& [k, v] : kept) v /= s;
      }
      row = kept;
      break;
    }
  }
  return out;
}

// ---------------------------------------------------------------------------
// Running the routines on level 1 (or on a stacked level) of a test store.
// ---------------------------------------------------------------------------
struct Fixture {
  Csr A;
  std::vector<double> u, f;
  void reset_store(const std::vector<int>& icg) {
    StoreState& st = store();
    st = StoreState{};
    st.nnu = A.n;
    st.icg.assign(icg.begin() + 1, icg.end());
    st.iw.assign(static_cast<std::size_t>(A.n) + 2, 0);
    st.iw[0] = 1;
    input().iextent = 2;
    ierr() = 0;
  }
  LevelView view() {
    u.assign(static_cast<std::size_t>(A.n), 0.0);
    f.assign(static_cast<std::size_t>(A.n), 0.0);
    LevelView L = level1_view(A.n, A.ia.data(), A.ja.data(), A.a.data(), u.data(), f.data());
    L.icg = Vec1<int>(store().icg.data(), 1, A.n);
    return L;
  }
};

std::vector<Row> rows_of(int ilo, int ihi) {
  const StoreState& st = store();
  std::vector<Row> r(static_cast<std::size_t>(ihi - ilo + 2));
  for (int i = ilo; i <= ihi; ++i)
    for (int p = st.iw[static_cast<std::size_t>(i - 1)]; p < st.iw[static_cast<std::size_t>(i)]; ++p) {
      EXPECT_EQ(r[static_cast<std::size_t>(i - ilo + 1)].count(st.jw[static_cast<std::size_t>(p - 1)]), 0u)
          << "duplicate column in row " << i;
      r[static_cast<std::size_t>(i - ilo + 1)][st.jw[static_cast<std::size_t>(p - 1)]] = st.w[static_cast<std::size_t>(p - 1)];
    }
  return r;
}

// The raw result, for bitwise comparisons.
struct Raw {
  std::vector<int> iw, jw, icg;
  std::vector<double> w;
  bool operator==(const Raw&) const = default;
};
Raw raw_of(int n) {
  const StoreState& st = store();
  Raw r;
  r.iw.assign(st.iw.begin(), st.iw.begin() + n + 1);
  const int nw = r.iw.back() - 1;
  r.jw.assign(st.jw.begin(), st.jw.begin() + nw);
  r.w.assign(st.w.begin(), st.w.begin() + nw);
  r.icg.assign(st.icg.begin(), st.icg.begin() + n);
  return r;
}

void expect_rows_near(const std::vector<Row>& got, const std::vector<Row>& want, const std::string& what) {
  ASSERT_EQ(got.size(), want.size());
  for (std::size_t i = 1; i < got.size(); ++i) {
    ASSERT_EQ(got[i].size(), want[i].size()) << what << " row " << i;
    for (auto [k, v] : want[i]) {
      ASSERT_TRUE(got[i].count(k)) << what << " row " << i << " col " << k;
      EXPECT_NEAR(got[i].at(k), v, 1e-12 * std::max(1.0, std::abs(v))) << what << " row " << i << " col " << k;
    }
  }
}

// The structure every interpolation must have.
void expect_valid(const std::vector<Row>& rows, const std::vector<int>& icg_after) {
  for (std::size_t i = 1; i < rows.size(); ++i) {
    const int g = icg_after[i - 1];
    if (g > 0) {
      ASSERT_EQ(rows[i].size(), 1u) << "C row " << i;
      EXPECT_EQ(rows[i].begin()->first, static_cast<int>(i));
      EXPECT_EQ(rows[i].begin()->second, 1.0);
    } else if (g == 0) {
      EXPECT_TRUE(rows[i].empty()) << "FF row " << i;
    } else {
      for (auto [k, v] : rows[i]) EXPECT_GT(icg_after[static_cast<std::size_t>(k - 1)], 0) << "row " << i << " col " << k;
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

struct Case {
  std::string name;
  Csr A;
  std::vector<int> icg;  // 1-based, element 0 unused
};

std::vector<Case> cases() {
  std::vector<Case> cs;
  {
    Csr A = poisson2d(9, 8);
    sort_rows(A);
    cs.push_back({"poisson2d red-black", A, red_black(9, 8)});
  }
  {
    Csr A = poisson2d(10, 9);
    sort_rows(A);
    cs.push_back({"poisson2d classical", A, classical_split(A)});
  }
  {
    Csr A = poisson2d(8, 7, true);
    sort_rows(A);
    cs.push_back({"neumann2d classical", A, classical_split(A)});
  }
  {
    // some F-variables forced fine: dropped from every row, empty rows
    Csr A = poisson2d(10, 9);
    sort_rows(A);
    std::vector<int> icg = classical_split(A);
    for (int i = 3; i <= A.n; i += 11)
      if (icg[static_cast<std::size_t>(i)] == kIcgF) icg[static_cast<std::size_t>(i)] = kIcgFF;
    cs.push_back({"poisson2d classical with FF", A, icg});
  }
  {
    Csr A = poisson3d(6);
    sort_rows(A);
    cs.push_back({"poisson3d classical", A, classical_split(A)});
  }
  {
    Csr A = random_matrix(150, 7u, 8, false);
    sort_rows(A);
    cs.push_back({"random M-matrix classical", A, classical_split(A)});
  }
  {
    Csr A = random_matrix(150, 11u, 8, true);
    sort_rows(A);
    cs.push_back({"random mixed-sign classical", A, classical_split(A)});
  }
  return cs;
}

class InterpTest : public ::testing::Test {
 protected:
  void SetUp() override {
    saved_ = prm();
    saved_input_ = input();
    input().dump_level = -1;  // no growth reports
    omp_set_num_threads(1);
    ierr() = 0;
  }
  void TearDown() override {
    prm() = saved_;
    input() = saved_input_;
    omp_set_num_threads(1);
    ierr() = 0;
  }
  Params saved_;
  Input saved_input_;
};

// ---------------------------------------------------------------------------
// Direct, standard, extended against the reference
// ---------------------------------------------------------------------------
TEST_F(InterpTest, MatchesReferenceForAllTypesAndTruncations) {
  struct Opt {
    int nwtint, ntrunc;
    double etr;
  };
  const Opt opts[] = {{1, 0, 0.0}, {1, 1, 0.2}, {1, 2, 0.35}, {2, 0, 0.0}, {2, 1, 0.2},
                      {2, 2, 0.3}, {3, 0, 0.0}, {3, 1, 0.2}, {3, 2, 0.25}};
  for (const Case& c : cases())
    for (const Opt& o : opts)
      for (bool threaded : {false, true}) {
        const std::string what = c.name + " nwtint " + std::to_string(o.nwtint) + " ntrunc " + std::to_string(o.ntrunc) +
                                 (threaded ? " threaded" : " serial");
        Fixture fx{c.A, {}, {}};
        fx.reset_store(c.icg);
        LevelView L = fx.view();
        omp_set_num_threads(threaded ? 2 : 1);
        const InterpSettings s = settings(o.nwtint, o.ntrunc, o.etr);
        const InterpResult r = threaded ? pwint1_aa(L, s) : pwint1_aa_serial(L, s);
        ASSERT_EQ(ierr(), 0) << what;
        std::vector<int> icg = c.icg;
        RefOptions ro;
        ro.nwtint = o.nwtint;
        ro.ntrunc = o.ntrunc;
        ro.etr = o.etr;
        int nconv = 0;
        const std::vector<Row> want = reference_pw1(c.A, icg, ro, nconv);
        const std::vector<Row> got = rows_of(1, c.A.n);
        expect_rows_near(got, want, what);
        EXPECT_EQ(r.nconverted, nconv) << what;
        EXPECT_EQ(std::vector<int>(icg.begin() + 1, icg.end()), store().icg) << what;
        expect_valid(got, store().icg);
        int nc = 0;
        for (int g : store().icg) nc += g > 0;
        EXPECT_EQ(r.nc, nc);
        EXPECT_DOUBLE_EQ(r.gratio, static_cast<double>(nc) / c.A.n) << what;
      }
}

// Direct interpolation on M-matrices in closed form: w_ij = -a_ij/a_ii *
// (sum of all off-diagonals) / (sum of the interpolatory ones); a row of a
// zero-row-sum operator interpolates constants exactly.
TEST_F(InterpTest, DirectWeightsInClosedForm) {
  for (const Case& c : cases()) {
    if (c.name.find("mixed") != std::string::npos) continue;
    Fixture fx{c.A, {}, {}};
    fx.reset_store(c.icg);
    LevelView L = fx.view();
    pwint1_aa_serial(L, settings(1, 0, 0.0));
    ASSERT_EQ(ierr(), 0);
    const std::vector<Row> got = rows_of(1, c.A.n);
    int checked = 0;
    for (int i = 1; i <= c.A.n; ++i) {
      if (c.icg[static_cast<std::size_t>(i)] != kIcgF || store().icg[static_cast<std::size_t>(i - 1)] != kIcgF) continue;
      double all = 0.0, interp = 0.0, rowsum = c.A.val(c.A.rs(i));
      for (int p = c.A.rs(i) + 1; p < c.A.re(i); ++p) {
        all += c.A.val(p);
        rowsum += c.A.val(p);
        if (p <= strong_end_of(c.A, i) && c.icg[static_cast<std::size_t>(c.A.col(p))] > 0) interp += c.A.val(p);
      }
      if (interp == 0.0) continue;
      // a neighbour that turned C before this row changes the formula
      bool changed = false;
      for (int p = c.A.rs(i) + 1; p < c.A.re(i); ++p)
        changed = changed || store().icg[static_cast<std::size_t>(c.A.col(p) - 1)] != c.icg[static_cast<std::size_t>(c.A.col(p))];
      if (changed) continue;
      const double aii = c.A.val(c.A.rs(i));
      double wsum = 0.0;
      std::size_t count = 0;
      for (int p = c.A.rs(i) + 1; p <= strong_end_of(c.A, i); ++p) {
        const int j = c.A.col(p);
        if (c.icg[static_cast<std::size_t>(j)] <= 0) continue;
        const double want = -c.A.val(p) / aii * all / interp;
        ++count;
        ASSERT_TRUE(got[static_cast<std::size_t>(i)].count(j)) << c.name << " row " << i;
        EXPECT_NEAR(got[static_cast<std::size_t>(i)].at(j), want, 1e-13) << c.name << " row " << i;
      }
      EXPECT_EQ(got[static_cast<std::size_t>(i)].size(), count) << c.name << " row " << i;
      for (auto [k, v] : got[static_cast<std::size_t>(i)]) wsum += v;
      if (std::abs(rowsum) < 1e-12 * aii) {
        EXPECT_NEAR(wsum, 1.0, 1e-13) << c.name << " row " << i;
        ++checked;
      }
    }
    if (c.name.find("neumann") != std::string::npos || c.name.find("red-black") != std::string::npos) {
      EXPECT_GT(checked, 10) << c.name;
    }
  }
}

// On the graph Laplacian every row sum is zero: every F-row of direct,
// standard and extended interpolation sums to 1, with and without
// truncation (truncation keeps the row sum).
TEST_F(InterpTest, ConstantsReproducedAndTruncationKeepsRowSum) {
  Csr A = poisson2d(11, 10, true);
  sort_rows(A);
  const std::vector<int> icg0 = classical_split(A);
  for (int nwtint : {1, 2, 3})
    for (int ntrunc : {0, 1, 2}) {
      Fixture fx{A, {}, {}};
      fx.reset_store(icg0);
      LevelView L = fx.view();
      pwint1_aa_serial(L, settings(nwtint, ntrunc, ntrunc == 0 ? 0.0 : 0.45));
      ASSERT_EQ(ierr(), 0);
      const std::vector<Row> got = rows_of(1, A.n);
      int nf = 0;
      for (int i = 1; i <= A.n; ++i) {
        if (store().icg[static_cast<std::size_t>(i - 1)] >= 0) continue;
        double s = 0;
        for (auto [k, v] : got[static_cast<std::size_t>(i)]) s += v;
        EXPECT_NEAR(s, 1.0, 1e-12) << "nwtint " << nwtint << " ntrunc " << ntrunc << " row " << i;
        ++nf;
      }
      EXPECT_GT(nf, 30);
    }
}

// ---------------------------------------------------------------------------
// Hand-computed rows: truncation modes and lumping by sign
// ---------------------------------------------------------------------------
// Row 1: diagonal 10; strong stretch 2 (-4, C), 3 (-1, C), 4 (+0.5, C);
// weak 5 (-0.5, C). Direct: P = 0.5, N = 5, Nn = 0.5: alpha = 1.1, beta = 1:
// scaled -4.4, -1.1, +0.5. etr 0.3:
//  ntrunc 1: common threshold max(0.15, 1.32): only -4.4 stays; P = 0 puts
//            pos = 0.5 on the diagonal (10.5), alpha = 5.5/4.4: w2 = 5.5/10.5.
//  ntrunc 2: thresholds 0.15 / 1.32: -4.4 and +0.5 stay, beta = 1, alpha =
//            1.25: w2 = 0.55, w4 = -0.05.
//  etr 0:    w2 = 0.44, w3 = 0.11, w4 = -0.05.
Csr hand_matrix() {
  Csr A;
  A.add_row(1, 10.0, {{2, -4.0}, {3, -1.0}, {4, 0.5}, {5, -0.5}});
  A.add_row(2, 4.0, {{1, -4.0}});
  A.add_row(3, 1.0, {{1, -1.0}});
  A.add_row(4, 1.0, {{1, 0.5}});
  A.add_row(5, 1.0, {{1, -0.5}});
  A.colr(A.rs(1)) = A.rs(1) + 3;  // strong end: the first three couplings
  for (int i = 2; i <= 5; ++i) A.colr(A.rs(i)) = A.rs(i) + 1;
  return A;
}

TEST_F(InterpTest, TruncationModesByHand) {
  const std::vector<int> icg0 = {0, kIcgF, kIcgC, kIcgC, kIcgC, kIcgC};
  struct T {
    int ntrunc;
    double etr;
    Row want;
  };
  const T table[] = {
      {1, 0.3, {{2, 5.5 / 10.5}}},
      {2, 0.3, {{2, 0.55}, {4, -0.05}}},
      {0, 0.3, {{2, 0.44}, {3, 0.11}, {4, -0.05}}},
      {2, 0.0, {{2, 0.44}, {3, 0.11}, {4, -0.05}}},
  };
  for (const T& t : table)
    for (int nwtint : {1, 2}) {
      Fixture fx{hand_matrix(), {}, {}};
      fx.reset_store(icg0);
      LevelView L = fx.view();
      pwint1_aa_serial(L, settings(nwtint, t.ntrunc, t.etr));
      ASSERT_EQ(ierr(), 0);
      const Row got = rows_of(1, 5)[1];
      ASSERT_EQ(got.size(), t.want.size()) << "ntrunc " << t.ntrunc;
      for (auto [k, v] : t.want) EXPECT_NEAR(got.at(k), v, 1e-15) << "ntrunc " << t.ntrunc << " col " << k;
    }
}

// Only positive interpolatory entries: the negative part goes to the
// diagonal and alpha is not applied. Row 1: diagonal 10, strong 2 (+2, C),
// weak 3 (-3, F): d = 10 - 3 = 7, beta = 1: w12 = -2/7.
TEST_F(InterpTest, OnlyPositiveInterpolatoryEntries) {
  Csr A;
  A.add_row(1, 10.0, {{2, 2.0}, {3, -3.0}});
  A.add_row(2, 1.0, {{1, 2.0}});
  A.add_row(3, 5.0, {{1, -3.0}});
  A.colr(A.rs(1)) = A.rs(1) + 1;
  A.colr(A.rs(2)) = A.rs(2);
  A.colr(A.rs(3)) = A.rs(3);
  Fixture fx{A, {}, {}};
  fx.reset_store({0, kIcgF, kIcgC, kIcgF});
  LevelView L = fx.view();
  pwint1_aa_serial(L, settings(1, 1, 0.2));
  ASSERT_EQ(ierr(), 0);
  const std::vector<Row> got = rows_of(1, 3);
  ASSERT_EQ(got[1].size(), 1u);
  EXPECT_NEAR(got[1].at(2), -2.0 / 7.0, 1e-15);
  // Row 3 has no strong couplings and no interpolatory entry: it turns C.
  EXPECT_EQ(store().icg[2], kIcgC);
}

// nint_rowsum1 = 1 scales each F-row to sum 1; Dirichlet boundary rows of
// the five-point operator sum to less than one without it.
TEST_F(InterpTest, RowSumOneOption) {
  Csr A = poisson2d(9, 9);
  sort_rows(A);
  const std::vector<int> icg0 = classical_split(A);
  for (int nwtint : {1, 2}) {
    prm().nint_rowsum1 = 1;
    Fixture fx{A, {}, {}};
    fx.reset_store(icg0);
    LevelView L = fx.view();
    pwint1_aa(L, settings(nwtint, 1, 0.2));
    ASSERT_EQ(ierr(), 0);
    const std::vector<Row> got = rows_of(1, A.n);
    std::vector<int> icg = icg0;
    RefOptions ro;
    ro.nwtint = nwtint;
    ro.ntrunc = 1;
    ro.etr = 0.2;
    ro.rowsum1 = true;
    int nconv = 0;
    expect_rows_near(got, reference_pw1(A, icg, ro, nconv), "rowsum1");
    for (int i = 1; i <= A.n; ++i) {
      if (store().icg[static_cast<std::size_t>(i - 1)] >= 0) continue;
      double s = 0;
      for (auto [k, v] : got[static_cast<std::size_t>(i)]) s += v;
      EXPECT_NEAR(s, 1.0, 1e-14) << "row " << i;
    }
  }
}

// A row whose weights cancel (diagonal 10, interpolatory -2 and +2: weights
// 0.2 and -0.2) cannot be scaled to sum 1: "wrowsum=0", the row stays.
TEST_F(InterpTest, RowSumOneWithZeroSum) {
  Csr A;
  A.add_row(1, 10.0, {{2, -2.0}, {3, 2.0}});
  A.add_row(2, 1.0, {});
  A.add_row(3, 1.0, {});
  A.colr(A.rs(1)) = A.rs(1) + 2;
  A.colr(A.rs(2)) = A.rs(2);
  A.colr(A.rs(3)) = A.rs(3);
  prm().nint_rowsum1 = 1;
  Fixture fx{A, {}, {}};
  fx.reset_store({0, kIcgF, kIcgC, kIcgC});
  LevelView L = fx.view();
  korn_test::MessageCapture cap;
  pwint1_aa_serial(L, settings(1, 0, 0.0));
  EXPECT_EQ(ierr(), 0);
  EXPECT_NE(cap.text().find(">>> MESSG: wrowsum=0"), std::string::npos) << cap.text();
  const Row got = rows_of(1, 3)[1];
  EXPECT_NEAR(got.at(2), 0.2, 1e-16);
  EXPECT_NEAR(got.at(3), -0.2, 1e-16);
}

// ---------------------------------------------------------------------------
// F->C conversion
// ---------------------------------------------------------------------------
// Chain 1..7 with C = {1, 7}. Row 4's strong neighbours 3 and 5 are F and
// their rows hold no C-variable: direct fails for lack of strong C, the
// substitution yields nothing interpolatory, and 4 becomes C. Row 5, built
// after, interpolates from the new C-variable 4 directly.
Csr chain(int n) {
  Csr A;
  for (int i = 1; i <= n; ++i) {
    std::vector<std::pair<int, double>> off;
    if (i > 1) off.push_back({i - 1, -1.0});
    if (i < n) off.push_back({i + 1, -1.0});
    A.add_row(i, 2.0, off);
  }
  sort_rows(A);
  return A;
}

TEST_F(InterpTest, VariableTurnsCWhenNothingInterpolates) {
  const Csr A = chain(7);
  std::vector<int> icg0(8, kIcgF);
  icg0[1] = icg0[7] = kIcgC;
  for (bool threaded : {false, true}) {
    omp_set_num_threads(threaded ? 2 : 1);
    Fixture fx{A, {}, {}};
    fx.reset_store(icg0);
    LevelView L = fx.view();
    korn_test::MessageCapture cap;
    InterpSettings s = settings(1, 0, 0.0);
    s.msg_level = 0;
    const InterpResult r = threaded ? pwint1_aa(L, s) : pwint1_aa_serial(L, s);
    ASSERT_EQ(ierr(), 0);
    EXPECT_EQ(r.nconverted, 1);
    EXPECT_EQ(store().icg[3], kIcgC);
    const std::vector<Row> got = rows_of(1, 7);
    EXPECT_EQ(got[4], (Row{{4, 1.0}}));
    // Row 5 (diagonal 2, C-neighbour 4 with -1, F-neighbour 6 with -1):
    // alpha = 2: w54 = 1.
    EXPECT_EQ(got[5].size(), 1u);
    EXPECT_NEAR(got[5].at(4), 1.0, 1e-15);
    // Row 3 reached 1 through row 2 before 4 turned C.
    EXPECT_EQ(got[3].size(), 1u);
    EXPECT_TRUE(got[3].count(1));
    EXPECT_EQ(r.nc, 3);
    EXPECT_DOUBLE_EQ(r.gratio, 3.0 / 7.0);
    const std::string text = cap.text();
    const std::string tag = threaded ? "pwint_aa(1): gratio= " : "pwint_aa_s(1): gratio= ";
    EXPECT_NE(text.find(tag), std::string::npos) << text;
    EXPECT_NE(text.find("   #vars->C= 1"), std::string::npos) << text;
  }
}

// Splits that turn many variables C, built threaded on 2, 3 and 4 threads:
// the replay of the conversions gives the serial result bit for bit, and
// repeated runs give the same.
TEST_F(InterpTest, ThreadedEqualsSerialBitwise) {
  std::vector<Case> cs = cases();
  {
    Csr A = random_matrix(400, 3u, 6, false);
    sort_rows(A);
    std::vector<int> icg(401, kIcgF);
    std::mt19937 gen(5u);
    for (int i = 1; i <= 400; ++i)
      if (gen() % 9 == 0) icg[static_cast<std::size_t>(i)] = kIcgC;
      else if (gen() % 23 == 0) icg[static_cast<std::size_t>(i)] = kIcgFF;
    cs.push_back({"random sparse C (many conversions)", A, icg});
  }
  {
    Csr A = poisson2d(30, 20);
    sort_rows(A);
    std::vector<int> icg(601, kIcgF);
    for (int i = 1; i <= 600; i += 7) icg[static_cast<std::size_t>(i)] = kIcgC;
    cs.push_back({"poisson2d every 7th C", A, icg});
  }
  for (const Case& c : cs)
    for (int nwtint : {1, 2, 3}) {
      Fixture fx{c.A, {}, {}};
      fx.reset_store(c.icg);
      LevelView L = fx.view();
      omp_set_num_threads(1);
      const InterpSettings s = settings(nwtint, 1, 0.2);
      const InterpResult rs = pwint1_aa_serial(L, s);
      ASSERT_EQ(ierr(), 0);
      const Raw serial = raw_of(c.A.n);
      for (int nt : {2, 3, 4})
        for (int rep = 0; rep < 2; ++rep) {
          fx.reset_store(c.icg);
          L = fx.view();
          omp_set_num_threads(nt);
          const InterpResult rt = pwint1_aa(L, s);
          ASSERT_EQ(ierr(), 0);
          EXPECT_TRUE(raw_of(c.A.n) == serial) << c.name << " nwtint " << nwtint << " threads " << nt;
          EXPECT_EQ(rt.nconverted, rs.nconverted) << c.name;
          EXPECT_EQ(rt.avg_weights, rs.avg_weights) << c.name;
        }
    }
}

// Variables of another unknown are skipped: with nprim the rows of other
// unknowns are empty, and the rows of the primary unknown equal those of the
// matrix without the cross couplings.
TEST_F(InterpTest, PrimaryUnknownRestriction) {
  Csr A = random_matrix(120, 17u, 8, false);
  std::vector<int> iu(121, 1);
  for (int i = 1; i <= 120; ++i) iu[static_cast<std::size_t>(i)] = 1 + (i % 3 == 0);
  sort_rows(A);
  const std::vector<int> icg0 = classical_split(A);
  for (bool threaded : {false, true}) {
    omp_set_num_threads(threaded ? 2 : 1);
    Fixture fx{A, {}, {}};
    fx.reset_store(icg0);
    LevelView L = fx.view();
    InterpSettings s = settings(2, 1, 0.2);
    s.nprim = 1;
    s.nsys = 2;
    s.iu = Vec1<int>(iu.data() + 1, 1, 120);
    threaded ? pwint1_aa(L, s) : pwint1_aa_serial(L, s);
    ASSERT_EQ(ierr(), 0);
    std::vector<int> icg = icg0;
    RefOptions ro;
    ro.nwtint = 2;
    ro.ntrunc = 1;
    ro.etr = 0.2;
    ro.iu = &iu;
    ro.nprim = 1;
    int nconv = 0;
    const std::vector<Row> want = reference_pw1(A, icg, ro, nconv);
    const std::vector<Row> got = rows_of(1, 120);
    expect_rows_near(got, want, "nprim");
    for (int i = 1; i <= 120; ++i) {
      if (iu[static_cast<std::size_t>(i)] != 1) {
        EXPECT_TRUE(got[static_cast<std::size_t>(i)].empty() || icg0[static_cast<std::size_t>(i)] > 0) << i;
        continue;
      }
      for (auto [k, v] : got[static_cast<std::size_t>(i)]) EXPECT_EQ(iu[static_cast<std::size_t>(k)], 1) << i;
    }
  }
}

// A coarse level in the stacked arrays: rows 21..20+n, entries from 101 on,
// iw(ilo) = 57 behind the rows of the level before, which stay untouched.
TEST_F(InterpTest, StackedLevelNumbering) {
  Csr A = poisson2d(7, 6);
  sort_rows(A);
  const std::vector<int> icg0 = classical_split(A);
  const int n = A.n, off = 20, poff = 100, wstart = 57;
  std::vector<int> ia(static_cast<std::size_t>(n) + 1), ja(A.ja.size());
  std::vector<double> a = A.a;
  for (int i = 0; i <= n; ++i) ia[static_cast<std::size_t>(i)] = A.ia[static_cast<std::size_t>(i)] + poff;
  for (int i = 1; i <= n; ++i)
    for (int p = A.rs(i); p < A.re(i); ++p)
      ja[static_cast<std::size_t>(p - 1)] = p == A.rs(i) ? A.col(p) + poff : A.col(p) + off;
  for (bool threaded : {false, true}) {
    omp_set_num_threads(threaded ? 2 : 1);
    StoreState& st = store();
    st = StoreState{};
    input().iextent = 2;
    st.icg.assign(static_cast<std::size_t>(off + n), kIcgC);
    for (int i = 1; i <= n; ++i) st.icg[static_cast<std::size_t>(off + i - 1)] = icg0[static_cast<std::size_t>(i)];
    st.iw.assign(static_cast<std::size_t>(off + n) + 2, -7);
    st.iw[static_cast<std::size_t>(off)] = wstart;
    st.w.assign(wstart - 1, 3.25);
    st.jw.assign(wstart - 1, 99);
    st.ndw = wstart - 1;
    LevelView L;
    L.k = 2;
    L.ilo = off + 1;
    L.ihi = off + n;
    L.ia = Vec1<int>(ia.data(), L.ilo, L.ihi + 1);
    L.ja = Vec1<int>(ja.data(), poff + 1, poff + static_cast<int>(ja.size()));
    L.a = Vec1<double>(a.data(), poff + 1, poff + static_cast<int>(a.size()));
    L.icg = Vec1<int>(st.icg.data() + off, L.ilo, L.ihi);
    const InterpSettings s = settings(2, 1, 0.2);
    threaded ? pwint1_aa(L, s) : pwint1_aa_serial(L, s);
    ASSERT_EQ(ierr(), 0);
    EXPECT_EQ(st.iw[static_cast<std::size_t>(off)], wstart);
    for (int p = 0; p < wstart - 1; ++p) {
      EXPECT_EQ(st.w[static_cast<std::size_t>(p)], 3.25);
      EXPECT_EQ(st.jw[static_cast<std::size_t>(p)], 99);
    }
    std::vector<int> icg = icg0;
    RefOptions ro;
    ro.nwtint = 2;
    ro.ntrunc = 1;
    ro.etr = 0.2;
    int nconv = 0;
    std::vector<Row> want = reference_pw1(A, icg, ro, nconv);
    for (Row& r : want) {
      Row shifted;
      for (auto [k, v] : r) shifted[k + off] = v;
      r = shifted;
    }
    expect_rows_near(rows_of(off + 1, off + n), want, "stacked");
    EXPECT_GT(st.cnt_w, 0);
  }
}

// ---------------------------------------------------------------------------
// Multi-pass interpolation
// ---------------------------------------------------------------------------
// An aggressive split of the graph Laplacian (C on every third point in both
// directions): every F-variable is reached within the passes, in one
// attempt, and interpolates constants exactly; threaded equals serial.
TEST_F(InterpTest, MultipassReachesEveryFVariable) {
  Csr A = poisson2d(16, 13, true);
  sort_rows(A);
  std::vector<int> icg0(static_cast<std::size_t>(A.n) + 1, kIcgF);
  for (int y = 0; y < 13; ++y)
    for (int x = 0; x < 16; ++x)
      if (x % 3 == 0 && y % 3 == 0) icg0[static_cast<std::size_t>(1 + x + 16 * y)] = kIcgC;
  for (int ntrunc : {0, 2}) {
    Raw serial;
    for (int nt : {1, 2, 3}) {
      omp_set_num_threads(nt);
      Fixture fx{A, {}, {}};
      fx.reset_store(icg0);
      LevelView L = fx.view();
      const InterpSettings s = settings(4, ntrunc, 0.25);
      const InterpResult r = nt == 1 ? pwint2_aa_serial(L, s, 4, 2) : pwint2_aa(L, s, 4, 2);
      ASSERT_EQ(ierr(), 0);
      EXPECT_EQ(r.attempts, 1);
      EXPECT_EQ(r.passes, 2);
      if (nt == 1) serial = raw_of(A.n);
      else EXPECT_TRUE(raw_of(A.n) == serial) << "threads " << nt;
      const std::vector<Row> got = rows_of(1, A.n);
      expect_valid(got, store().icg);
      for (int i = 1; i <= A.n; ++i) {
        const int g0 = icg0[static_cast<std::size_t>(i)];
        EXPECT_EQ(store().icg[static_cast<std::size_t>(i - 1)], g0) << i;
        if (g0 > 0) continue;
        ASSERT_FALSE(got[static_cast<std::size_t>(i)].empty()) << i;
        double sum = 0;
        for (auto [k, v] : got[static_cast<std::size_t>(i)]) sum += v;
        EXPECT_NEAR(sum, 1.0, 1e-12) << i;
      }
    }
  }
}

// The first pass is direct interpolation from strong C-neighbours; a row of
// the second pass takes the finished row of its F-neighbour. Chain 1(C) 2 3
// with couplings -1, a_22 = 2, a_33 = 1:
//  pass 1: row 2 keeps column 1 (-1); the F-coupling -1 is lumped by
//          alpha = 2: w21 = -(2 * -1)/2 = 1. Row 3 has no C-neighbour yet.
//  pass 2: row 3 replaces its coupling -1 to 2 by -1 * w21 at column 1:
//          w31 = -(-1)/1 = 1.
TEST_F(InterpTest, MultipassSecondPassUsesFinishedRows) {
  Csr A;
  A.add_row(1, 1.0, {{2, -1.0}});
  A.add_row(2, 2.0, {{1, -1.0}, {3, -1.0}});
  A.add_row(3, 1.0, {{2, -1.0}});
  sort_rows(A);
  Fixture fx{A, {}, {}};
  fx.reset_store({0, kIcgC, kIcgF, kIcgF});
  LevelView L = fx.view();
  const InterpResult r = pwint2_aa_serial(L, settings(4, 0, 0.0), 4, 2);
  ASSERT_EQ(ierr(), 0);
  EXPECT_EQ(r.passes, 2);
  const std::vector<Row> got = rows_of(1, 3);
  EXPECT_EQ(got[2], (Row{{1, 1.0}}));
  EXPECT_EQ(got[3], (Row{{1, 1.0}}));
  EXPECT_EQ(store().icg, (std::vector<int>{kIcgC, kIcgF, kIcgF}));
}

// Failed attempts on a chain with C only at its head and 2 passes:
//  ratio 0.5 (C = 1..4 of 8): rest (7, 8) has g = 6/8 <= 0.75: to C at once;
//  C = {1} of 10: g = 8/10 > 0.75: to FF, then a new attempt succeeds;
//  numtry 1: the FF retry is made anyway with warning -140; the C case ends
//  with "Max. number of multipass attempts reached!".
TEST_F(InterpTest, MultipassAttempts) {
  struct T {
    int n, nc, numtry;
    std::vector<std::string> lines;
    int warning;
    std::vector<int> last_states;  // icg of the last variables at the end
    int attempts;
  };
  const T table[] = {
      {8, 4, 2, {"pwint_aa_s(4): attempt #1 failed!  #passes=2  #vars->C=2"}, 0, {kIcgF, kIcgF, kIcgC, kIcgC}, 2},
      {8, 4, 1,
       {"pwint_aa_s(4): attempt #1 failed!  #passes=2  #vars->C=2",
        "Max. number of multipass attempts reached! Just continuing!"},
       kWarnInterpolationRetried, {kIcgF, kIcgF, kIcgC, kIcgC}, 1},
      {10, 1, 2, {"pwint_aa_s(4): attempt #1 failed!  #passes=2  #vars->FF=7"}, 0, {kIcgF, kIcgF, kIcgFF, kIcgFF}, 2},
      {10, 1, 1,
       {"pwint_aa_s(4): attempt #1 failed!  #passes=2  #vars->FF=7",
        "Due to new FF-vars new multipass attempt even if #numtry reached!"},
       kWarnInterpolationRetried, {kIcgF, kIcgF, kIcgFF, kIcgFF}, 2},
  };
  for (const T& t : table)
    for (bool threaded : {false, true}) {
      omp_set_num_threads(threaded ? 2 : 1);
      prm().nmin_matrix = 0;
      const Csr A = chain(t.n);
      std::vector<int> icg0(static_cast<std::size_t>(t.n) + 1, kIcgF);
      for (int i = 1; i <= t.nc; ++i) icg0[static_cast<std::size_t>(i)] = kIcgC;
      Fixture fx{A, {}, {}};
      fx.reset_store(icg0);
      LevelView L = fx.view();
      korn_test::MessageCapture cap;
      InterpSettings s = settings(4, 0, 0.0);
      s.msg_level = 0;
      const InterpResult r = threaded ? pwint2_aa(L, s, 2, t.numtry) : pwint2_aa_serial(L, s, 2, t.numtry);
      EXPECT_EQ(ierr(), t.warning);
      EXPECT_EQ(r.attempts, t.attempts);
      const std::string text = cap.text();
      for (const std::string& line : t.lines) EXPECT_NE(text.find(line), std::string::npos) << text;
      EXPECT_NE(text.find("pwint_aa_s(4): gratio= "), std::string::npos) << text;
      EXPECT_NE(text.find("  #att=" + std::to_string(t.attempts) + " #passes="), std::string::npos) << text;
      // positions nc+1 .. nc+2 were reached; the tail went to C or FF
      std::vector<int> tail(store().icg.begin() + t.nc, store().icg.begin() + t.nc + 2);
      tail.push_back(store().icg[static_cast<std::size_t>(t.n - 2)]);
      tail.push_back(store().icg[static_cast<std::size_t>(t.n - 1)]);
      EXPECT_EQ(tail, t.last_states) << "n " << t.n << " numtry " << t.numtry;
      expect_valid(rows_of(1, t.n), store().icg);
      ierr() = 0;
    }
}

TEST_F(InterpTest, MultipassLimits) {
  struct T {
    bool aggressive, cluster;
    int force, pset, tset, pass, tries;
  };
  const T table[] = {{true, false, 0, 0, 0, 4, 2}, {false, false, 0, 0, 0, 2, 2}, {false, true, 0, 0, 0, 3, 2},
                     {true, false, 1, 0, 0, 5, 2}, {true, false, 0, 7, 3, 7, 3}};
  for (const T& t : table) {
    prm().ipass_max_set = t.pset;
    prm().numtry_max_set = t.tset;
    int p = 0, n = 0;
    multipass_limits(t.aggressive, t.cluster, t.force, p, n);
    EXPECT_EQ(p, t.pass);
    EXPECT_EQ(n, t.tries);
  }
}

// ---------------------------------------------------------------------------
// wfinal
// ---------------------------------------------------------------------------
TEST_F(InterpTest, WfinalRestoresVariableOrder) {
  // Level rows 11..16; completion-order rows 11..13 at positions 5.. hold the
  // F-variables 15, 12, 16 (in that order). 11, 14 are C; 13 is FF; nothing
  // else. A variable outside the coarsening gets an empty row and keeps its
  // state.
  StoreState& st = store();
  st = StoreState{};
  input().iextent = 2;
  st.icg.assign(16, kIcgC);
  st.icg[10] = kIcgC;   // 11
  st.icg[11] = -12;     // 12: row 12 (second)
  st.icg[12] = kIcgFF;  // 13
  st.icg[13] = kIcgC;   // 14
  st.icg[14] = -11;     // 15: row 11 (first)
  st.icg[15] = -13;     // 16: row 13 (third)
  st.iw.assign(18, 0);
  st.iw[10] = 5;  // iw(11)
  st.iw[11] = 7;  // iw(12)
  st.iw[12] = 8;  // iw(13)
  st.iw[13] = 10; // iw(14): end of row 13
  st.jw = {0, 0, 0, 0, 11, 14, 14, 11, 14};
  st.w = {9, 9, 9, 9, 0.5, 0.25, 1.0, 0.75, 0.125};
  st.ndw = 9;
  wfinal(2, 11, 16, 11, 13, Vec1<int>(st.icg.data() + 10, 11, 16));
  ASSERT_EQ(ierr(), 0);
  const std::vector<Row> got = rows_of(11, 16);
  EXPECT_EQ(got[1], (Row{{11, 1.0}}));
  EXPECT_EQ(got[2], (Row{{14, 1.0}}));
  EXPECT_TRUE(got[3].empty());
  EXPECT_EQ(got[4], (Row{{14, 1.0}}));
  EXPECT_EQ(got[5], (Row{{11, 0.5}, {14, 0.25}}));
  EXPECT_EQ(got[6], (Row{{11, 0.75}, {14, 0.125}}));
  EXPECT_EQ(st.iw[10], 5);
  EXPECT_EQ(st.iw[16], 5 + 1 + 1 + 0 + 1 + 2 + 2);
  EXPECT_EQ(std::vector<int>(st.icg.begin() + 10, st.icg.end()),
            (std::vector<int>{kIcgC, kIcgF, kIcgFF, kIcgC, kIcgF, kIcgF}));
  // An outside variable keeps its state and gets an empty row, as does one
  // still waiting for the multi-pass; no row is in completion order.
  st.icg[12] = kIcgOutside;
  st.icg[11] = kIcgMultipass;
  st.icg[14] = st.icg[15] = kIcgC;
  wfinal(2, 11, 16, 11, 10, Vec1<int>(st.icg.data() + 10, 11, 16));
  EXPECT_EQ(st.icg[12], kIcgOutside);
  EXPECT_EQ(st.iw[12], st.iw[13]);
  EXPECT_EQ(st.iw[11], st.iw[12]);
}

// ---------------------------------------------------------------------------
// pwiter
// ---------------------------------------------------------------------------
// Reference sweep: each F-row rebuilt from the matrix row with its
// F-neighbours up to the strong end (all with iall) replaced by their old
// rows; no truncation (etr2 0).
std::vector<Row> reference_sweep(const Csr& A, const std::vector<int>& icg, const std::vector<Row>& old, bool all) {
  std::vector<Row> out(old.size());
  for (int i = 1; i <= A.n; ++i) {
    const int g = icg[static_cast<std::size_t>(i)];
    if (old[static_cast<std::size_t>(i)].empty()) continue;
    if (g > 0) {
      out[static_cast<std::size_t>(i)] = {{i, 1.0}};
      continue;
    }
    const int limit = all ? A.re(i) - 1 : strong_end_of(A, i);
    Row img;
    std::set<int> interp;
    for (int p = A.rs(i) + 1; p < A.re(i); ++p) {
      const int k = A.col(p);
      const int gk = icg[static_cast<std::size_t>(k)];
      if (gk == 0) continue;
      if (p <= limit && gk < 0) {
        for (auto [l, v] : old[static_cast<std::size_t>(k)]) {
          img[l] += A.val(p) * v;
          interp.insert(l);
        }
        img[k] += 0.0;
        continue;
      }
      img[k] += A.val(p);
      if (p <= limit && gk > 0) interp.insert(k);
    }
    double P = 0, N = 0, Pn = 0, Nn = 0, d = A.val(A.rs(i));
    Row kept;
    for (auto [k, v] : img) {
      if (interp.count(k) && v != 0.0) {
        kept[k] = v;
        (v > 0 ? P : N) += std::abs(v);
      } else {
        (v > 0 ? Pn : Nn) += std::abs(v);
      }
    }
    double alpha = 1, beta = 1;
    if (P <= 0) d += P + Pn; else beta = (P + Pn) / P;
    if (N <= 0) d -= N + Nn; else alpha = (N + Nn) / N;
    for (auto& [k, v] : kept) v = -(v > 0 ? beta : alpha) * v / d;
    out[static_cast<std::size_t>(i)] = kept;
  }
  return out;
}

TEST_F(InterpTest, PwiterMatchesReference) {
  for (const Case& c : cases())
    for (int iall : {0, 1}) {
      Fixture fx{c.A, {}, {}};
      fx.reset_store(c.icg);
      LevelView L = fx.view();
      pwint1_aa_serial(L, settings(1, 1, 0.3));  // a truncated first build
      ASSERT_EQ(ierr(), 0);
      const std::vector<Row> old = rows_of(1, c.A.n);
      std::vector<int> icg(1, 0);
      icg.insert(icg.end(), store().icg.begin(), store().icg.end());
      korn_test::MessageCapture cap;
      InterpSettings s = settings(1, 1, 0.3);
      s.msg_level = 0;
      pwiter(L, s, iall, 0.0);  // etr2 0: no truncation in the sweep
      ASSERT_EQ(ierr(), 0) << c.name;
      const std::vector<Row> got = rows_of(1, c.A.n);
      expect_rows_near(got, reference_sweep(c.A, icg, old, iall == 1), c.name + " pwiter");
      expect_valid(got, store().icg);
      EXPECT_NE(cap.text().find("pwitr"), std::string::npos);
      EXPECT_EQ(cap.text().find("Bad interpolation - retry using ALL connections"), std::string::npos);
    }
}

// Truncation in the sweep keeps the constants of the graph Laplacian.
TEST_F(InterpTest, PwiterTruncationKeepsConstants) {
  Csr A = poisson2d(10, 10, true);
  sort_rows(A);
  const std::vector<int> icg0 = classical_split(A);
  for (int ntrunc : {1, 2}) {
    Fixture fx{A, {}, {}};
    fx.reset_store(icg0);
    LevelView L = fx.view();
    pwint1_aa_serial(L, settings(2, ntrunc, 0.2));
    pwiter(L, settings(2, ntrunc, 0.2), 0, 0.3);
    pwiter(L, settings(2, ntrunc, 0.2), 1, 0.3);
    ASSERT_EQ(ierr(), 0);
    const std::vector<Row> got = rows_of(1, A.n);
    expect_valid(got, store().icg);
    for (int i = 1; i <= A.n; ++i) {
      if (store().icg[static_cast<std::size_t>(i - 1)] > 0) continue;
      double sum = 0;
      for (auto [k, v] : got[static_cast<std::size_t>(i)]) sum += v;
      EXPECT_NEAR(sum, 1.0, 1e-12);
    }
  }
}

// Hand rows for the sweep. Variables 1 (F), 2 and 3 (C), 4 outside the
// coarsening with an empty row; the old row of 1 is {2: 0.5}.
//  a) row 1: diagonal 1, strong 4 (-0.5), weak 3 (-1): with the strong end
//     as limit the weak -1 is not interpolatory and takes the diagonal to 0:
//     "Bad interpolation - retry using ALL connections", then w13 = 1. With
//     iall 1 the same row comes without the message.
//  b) row 1: diagonal 1, strong 2 (+10), 3 (-1): etr2 0.2 with one common
//     threshold (2) drops -1 and the diagonal goes to 0: "Truncation failed
//     - repeat with ntrunc=2", and per sign both stay: w12 = -10, w13 = 1.
//  c) a negative diagonal with iall 1: "Unexpected error in elimination".
struct SweepCase {
  std::vector<std::pair<int, double>> row1;
  double diag;
  int nstrong, iall, ntrunc;
  double etr2;
  Row want;
  std::vector<std::string> said, not_said;
  int err;
};

TEST_F(InterpTest, PwiterRetriesAndErrorsByHand) {
  const std::string bad = "Bad interpolation - retry using ALL connections";
  const std::string trunc = "Truncation failed - repeat with ntrunc=2";
  const std::string elim = "*** ERROR: Unexpected error in elimination (pwiter)!";
  const SweepCase table[] = {
      {{{4, -0.5}, {3, -1.0}}, 1.0, 1, 0, 0, 0.0, {{3, 1.0}}, {bad}, {}, 0},
      {{{4, -0.5}, {3, -1.0}}, 1.0, 1, 1, 0, 0.0, {{3, 1.0}}, {}, {bad}, 0},
      {{{2, 10.0}, {3, -1.0}}, 1.0, 2, 0, 1, 0.2, {{2, -10.0}, {3, 1.0}}, {trunc}, {bad}, 0},
      {{{2, 10.0}, {3, -1.0}}, 1.0, 2, 0, 2, 0.2, {{2, -10.0}, {3, 1.0}}, {}, {trunc}, 0},
      {{{2, -1.0}, {3, -1.0}}, -1.0, 2, 1, 0, 0.0, {}, {elim}, {bad}, kErrInterpolation},
      {{{2, -1.0}, {3, -1.0}}, -1.0, 2, 0, 0, 0.0, {}, {bad, elim}, {}, kErrInterpolation},
  };
  for (const SweepCase& t : table) {
    Csr A;
    A.add_row(1, t.diag, t.row1);
    A.add_row(2, 1.0, {});
    A.add_row(3, 1.0, {});
    A.add_row(4, 1.0, {});
    A.colr(A.rs(1)) = A.rs(1) + t.nstrong;
    for (int i = 2; i <= 4; ++i) A.colr(A.rs(i)) = A.rs(i);
    Fixture fx{A, {}, {}};
    fx.reset_store({0, kIcgF, kIcgC, kIcgC, kIcgOutside});
    StoreState& st = store();
    st.iw = {1, 2, 3, 4, 4, 0};
    st.jw = {2, 2, 3};
    st.w = {0.5, 1.0, 1.0};
    st.ndw = 3;
    LevelView L = fx.view();
    korn_test::MessageCapture cap;
    InterpSettings s = settings(2, t.ntrunc, 0.0);
    pwiter(L, s, t.iall, t.etr2);
    EXPECT_EQ(ierr(), t.err);
    const std::string text = cap.text();
    for (const std::string& m : t.said) EXPECT_NE(text.find(m), std::string::npos) << text;
    for (const std::string& m : t.not_said) EXPECT_EQ(text.find(m), std::string::npos) << text;
    if (t.err == 0) {
      const std::vector<Row> got = rows_of(1, 4);
      ASSERT_EQ(got[1].size(), t.want.size());
      for (auto [k, v] : t.want) EXPECT_NEAR(got[1].at(k), v, 1e-14);
      EXPECT_EQ(got[2], (Row{{2, 1.0}}));
      EXPECT_TRUE(got[4].empty());
    }
    ierr() = 0;
  }
}

TEST_F(InterpTest, PwiterInconsistentStateIsAnError) {
  Csr A = poisson2d(6, 6);
  sort_rows(A);
  const std::vector<int> icg0 = red_black(6, 6);
  Fixture fx{A, {}, {}};
  fx.reset_store(icg0);
  LevelView L = fx.view();
  pwint1_aa_serial(L, settings(1, 0, 0.0));
  ASSERT_EQ(ierr(), 0);
  store().icg[1] = kIcgFF;  // variable 2 has a row
  korn_test::MessageCapture cap;
  pwiter(L, settings(1, 0, 0.0), 0, 0.0);
  EXPECT_EQ(ierr(), kErrInterpolation);
  EXPECT_NE(cap.text().find("*** ERROR: Cannot happen (pwiter)!"), std::string::npos) << cap.text();
}

// ---------------------------------------------------------------------------
// Transpose
// ---------------------------------------------------------------------------
TEST_F(InterpTest, TransposeEqualsExplicitTranspose) {
  Csr A = random_matrix(300, 23u, 8, true);
  sort_rows(A);
  const std::vector<int> icg0 = classical_split(A);
  Fixture fx{A, {}, {}};
  fx.reset_store(icg0);
  LevelView L = fx.view();
  pwint1_aa_serial(L, settings(2, 1, 0.2));
  ASSERT_EQ(ierr(), 0);
  // Coarse numbering from 301 on, as the operator preparation does it.
  StoreState& st = store();
  std::vector<int> cidx(301, 0);
  int nc = 0;
  for (int i = 1; i <= 300; ++i)
    if (st.icg[static_cast<std::size_t>(i - 1)] > 0) cidx[static_cast<std::size_t>(i)] = 300 + ++nc;
  const int nw = st.iw[300] - 1;
  std::vector<int> jwc(st.jw.begin(), st.jw.begin() + nw);
  for (int& j : jwc) j = cidx[static_cast<std::size_t>(j)];
  // explicit transpose: triplets sorted by (coarse, fine)
  std::vector<std::tuple<int, int, double>> trip;
  for (int i = 1; i <= 300; ++i)
    for (int p = st.iw[static_cast<std::size_t>(i - 1)]; p < st.iw[static_cast<std::size_t>(i)]; ++p)
      trip.emplace_back(jwc[static_cast<std::size_t>(p - 1)], i, st.w[static_cast<std::size_t>(p - 1)]);
  std::sort(trip.begin(), trip.end(), [](auto& x, auto& y) { return std::tie(std::get<0>(x), std::get<1>(x)) < std::tie(std::get<0>(y), std::get<1>(y)); });
  for (int nt : {1, 2, 3}) {
    omp_set_num_threads(nt);
    Transpose t;
    build_transpose(t, 1, 300, 301, 300 + nc, Vec1<int>(st.iw.data(), 1, 301), Vec1<int>(jwc.data(), 1, nw),
                    Vec1<double>(st.w.data(), 1, nw));
    ASSERT_EQ(ierr(), 0);
    ASSERT_EQ(static_cast<int>(t.iwt.size()), nc + 1);
    EXPECT_EQ(t.iclo, 301);
    EXPECT_EQ(t.ichi, 300 + nc);
    std::size_t x = 0;
    for (int ic = 301; ic <= 300 + nc; ++ic)
      for (int p = t.row_begin(ic); p < t.row_end(ic); ++p, ++x) {
        ASSERT_LT(x, trip.size());
        EXPECT_EQ(std::get<0>(trip[x]), ic);
        EXPECT_EQ(std::get<1>(trip[x]), t.jwt[static_cast<std::size_t>(p - 1)]);
        EXPECT_EQ(std::get<2>(trip[x]), t.wt[static_cast<std::size_t>(p - 1)]);
      }
    EXPECT_EQ(x, trip.size());
  }
}

// ---------------------------------------------------------------------------
// With the setup's own row sort
// ---------------------------------------------------------------------------
// rwsrt sorts the rows in place and leaves the strong ends; interpolation on
// its result equals the reference built from the same sorted rows.
TEST_F(InterpTest, OnRowsSortedByRwsrt) {
  std::vector<Csr> ms = {poisson2d(12, 11), poisson3d(6), random_matrix(200, 31u, 8, false),
                         random_matrix(200, 37u, 8, true)};
  for (std::size_t mi = 0; mi < ms.size(); ++mi)
    for (int ncgtyp : {1, 2}) {
      Csr A = ms[mi];
      Fixture fx{A, {}, {}};
      fx.reset_store(std::vector<int>(static_cast<std::size_t>(A.n) + 1, kIcgUndecided));
      LevelView L = fx.view();
      const RowSortResult rs = rwsrt(L, ncgtyp, 0.01, 0.25, 0.0, 0.2, 0.9, -1);
      ASSERT_EQ(ierr(), 0);
      ASSERT_GT(rs.nstrong, 0);
      // fx.A, under the view, is sorted now
      const std::vector<int> icg0 = classical_split(fx.A);
      for (int nwtint : {1, 2, 3})
        for (int nt : {1, 2}) {
          omp_set_num_threads(nt);
          fx.reset_store(icg0);
          L = fx.view();
          pwint1_aa(L, settings(nwtint, 1, 0.2));
          ASSERT_EQ(ierr(), 0);
          std::vector<int> icg = icg0;
          RefOptions ro;
          ro.nwtint = nwtint;
          ro.ntrunc = 1;
          ro.etr = 0.2;
          int nconv = 0;
          expect_rows_near(rows_of(1, fx.A.n), reference_pw1(fx.A, icg, ro, nconv),
                           "rwsrt matrix " + std::to_string(mi) + " ncgtyp " + std::to_string(ncgtyp));
          expect_valid(rows_of(1, fx.A.n), store().icg);
        }
    }
}

// ---------------------------------------------------------------------------
// With the setup's row sort and coarse selection
// ---------------------------------------------------------------------------
// rwsrt, then pcol, then the interpolation: the rows equal the reference on
// the same sorted rows and split; the multi-pass reaches every F-variable.
TEST_F(InterpTest, AfterRowSortAndSelection) {
  std::vector<Csr> ms = {poisson2d(16, 13), poisson3d(7), random_matrix(200, 41u, 8, false)};
  for (std::size_t mi = 0; mi < ms.size(); ++mi) {
    Fixture fx{ms[mi], {}, {}};
    fx.reset_store(std::vector<int>(static_cast<std::size_t>(fx.A.n) + 1, kIcgUndecided));
    LevelView L = fx.view();
    rwsrt(L, 1, 0.01, 0.25, 0.0, 0.2, 0.9, -1);
    ASSERT_EQ(ierr(), 0);
    PcolSettings ps;
    ps.msg_level = -1;
    const SelectionCounts sc = pcol(L, ps);
    ASSERT_EQ(ierr(), 0);
    ASSERT_GT(sc.nc, 0);
    std::vector<int> icg0(1, 0);
    icg0.insert(icg0.end(), store().icg.begin(), store().icg.end());
    for (int& g : icg0)
      if (g == kIcgUndecided || g == kIcgAggressiveF) g = kIcgF;
    for (int nwtint : {1, 2, 3})
      for (int nt : {1, 2}) {
        omp_set_num_threads(nt);
        fx.reset_store(icg0);
        L = fx.view();
        pwint1_aa(L, settings(nwtint, 1, 0.2));
        ASSERT_EQ(ierr(), 0);
        std::vector<int> icg = icg0;
        RefOptions ro;
        ro.nwtint = nwtint;
        ro.ntrunc = 1;
        ro.etr = 0.2;
        int nconv = 0;
        const std::vector<Row> got = rows_of(1, fx.A.n);
        expect_rows_near(got, reference_pw1(fx.A, icg, ro, nconv), "selection matrix " + std::to_string(mi));
        expect_valid(got, store().icg);
      }
    fx.reset_store(icg0);
    L = fx.view();
    const InterpResult r = pwint2_aa(L, settings(4, 1, 0.2), 4, 2);
    ASSERT_EQ(ierr(), 0);
    EXPECT_EQ(r.attempts, 1);
    const std::vector<Row> got = rows_of(1, fx.A.n);
    expect_valid(got, store().icg);
    for (int i = 1; i <= fx.A.n; ++i) {
      if (store().icg[static_cast<std::size_t>(i - 1)] < 0) {
        EXPECT_FALSE(got[static_cast<std::size_t>(i)].empty()) << i;
      }
    }
  }
}

// An aggressive level (split with nred 1) interpolated by the multi-pass: on
// graph Laplacians every F-variable gets a row that reproduces constants;
// threaded equals serial.
TEST_F(InterpTest, MultipassAfterAggressiveSplit) {
  std::vector<Csr> ms = {poisson2d(24, 21, true), poisson3d(9)};
  for (std::size_t mi = 0; mi < ms.size(); ++mi) {
    Fixture fx{ms[mi], {}, {}};
    fx.reset_store(std::vector<int>(static_cast<std::size_t>(fx.A.n) + 1, kIcgUndecided));
    LevelView L = fx.view();
    rwsrt(L, 1, 0.01, 0.25, 0.0, 0.2, 0.9, -1);
    ASSERT_EQ(ierr(), 0);
    SplitSettings ss;
    ss.aggressive = true;
    ss.nred = 1;
    ss.nptmn = 10;
    ss.msg_level = -1;
    const SplitResult sr = split(L, ss);
    ASSERT_EQ(ierr(), 0);
    ASSERT_FALSE(sr.stop);
    ASSERT_TRUE(sr.aggressive);
    std::vector<int> icg0(1, 0);
    icg0.insert(icg0.end(), store().icg.begin(), store().icg.end());
    int ipass_max = 0, numtry = 0;
    multipass_limits(true, false, 0, ipass_max, numtry);
    Raw serial;
    for (int nt : {1, 2}) {
      omp_set_num_threads(nt);
      fx.reset_store(icg0);
      L = fx.view();
      const InterpResult r = nt == 1 ? pwint2_aa_serial(L, settings(4, 1, 0.2), ipass_max, numtry)
                                     : pwint2_aa(L, settings(4, 1, 0.2), ipass_max, numtry);
      ASSERT_EQ(ierr(), 0);
      EXPECT_EQ(r.attempts, 1) << mi;
      EXPECT_GE(r.passes, 2) << mi;
      if (nt == 1) serial = raw_of(fx.A.n);
      else EXPECT_TRUE(raw_of(fx.A.n) == serial) << mi;
      const std::vector<Row> got = rows_of(1, fx.A.n);
      expect_valid(got, store().icg);
      const bool neumann = mi == 0;
      for (int i = 1; i <= fx.A.n; ++i) {
        const int g = store().icg[static_cast<std::size_t>(i - 1)];
        if (g > 0) continue;
        EXPECT_EQ(g, kIcgF) << i;
        ASSERT_FALSE(got[static_cast<std::size_t>(i)].empty()) << i;
        if (!neumann) continue;
        double sum = 0;
        for (auto [k, v] : got[static_cast<std::size_t>(i)]) sum += v;
        EXPECT_NEAR(sum, 1.0, 1e-12) << i;
      }
    }
  }
}

// ---------------------------------------------------------------------------
// Errors and messages
// ---------------------------------------------------------------------------
TEST_F(InterpTest, IllegalTypeAndExtendedFallback) {
  Csr A = poisson2d(6, 6);
  sort_rows(A);
  const std::vector<int> icg0 = red_black(6, 6);
  struct T {
    bool threaded;
    const char* text;
  };
  for (const T& t : {T{true, "*** ERROR: Illegal value of <nwtint> in (pwint1_aa)!"},
                     T{false, "*** ERROR: Illegal value of <nwtint> in (pwint1_aa_serial)!"}}) {
    Fixture fx{A, {}, {}};
    fx.reset_store(icg0);
    LevelView L = fx.view();
    korn_test::MessageCapture cap;
    t.threaded ? pwint1_aa(L, settings(4, 0, 0.0)) : pwint1_aa_serial(L, settings(4, 0, 0.0));
    EXPECT_EQ(ierr(), kErrInterpolation);
    EXPECT_NE(cap.text().find(t.text), std::string::npos) << cap.text();
    ierr() = 0;
  }
  // nwtint 3 without ewt2 is standard interpolation, with the message.
  Csr B = random_matrix(100, 29u, 8, true);
  sort_rows(B);
  const std::vector<int> icgb = classical_split(B);
  Fixture fx{B, {}, {}};
  fx.reset_store(icgb);
  LevelView L = fx.view();
  pwint1_aa_serial(L, settings(2, 1, 0.2, 0.0));
  const Raw standard = raw_of(B.n);
  fx.reset_store(icgb);
  L = fx.view();
  korn_test::MessageCapture cap;
  InterpSettings s = settings(3, 1, 0.2, 0.0);
  s.msg_level = 0;
  pwint1_aa_serial(L, s);
  EXPECT_EQ(ierr(), 0);
  EXPECT_TRUE(raw_of(B.n) == standard);
  EXPECT_NE(cap.text().find("Extended interpolation de-activated (etw2 not set)!"), std::string::npos);
  EXPECT_NE(cap.text().find("pwint_aa_s(2): gratio= "), std::string::npos) << cap.text();
}

TEST_F(InterpTest, AllocationAndGrowthFailures) {
  Csr A = poisson2d(6, 6);
  sort_rows(A);
  const std::vector<int> icg0 = red_black(6, 6);
  struct T {
    int which;  // 0 serial, 1 threaded, 2 multi-pass serial, 3 multi-pass threaded, 4 wfinal
    const char* text;
  };
  const T table[] = {
      {0, "Allocation failed for <ifg,ipatt> in (pwint1_aa_serial)"},
      {1, "Allocation failed for <ifg,ipatt,nflag_thread> in (pwint1_aa)"},
      {2, "Allocation failed for <ifg,ipatt> in (pwint2_aa_serial)"},
      {3, "Allocation failed for <ifg,ipatt,nflag_thread> in (pwint2_aa)"},
  };
  for (const T& t : table) {
    Fixture fx{A, {}, {}};
    fx.reset_store(icg0);
    LevelView L = fx.view();
    korn_test::MessageCapture cap;
    interp_fail_next_allocation();
    switch (t.which) {
      case 0: pwint1_aa_serial(L, settings(2, 0, 0.0)); break;
      case 1: pwint1_aa(L, settings(2, 0, 0.0)); break;
      case 2: pwint2_aa_serial(L, settings(4, 0, 0.0), 4, 2); break;
      default: pwint2_aa(L, settings(4, 0, 0.0), 4, 2); break;
    }
    EXPECT_EQ(ierr(), kErrAllocation);
    EXPECT_NE(cap.text().find(t.text), std::string::npos) << cap.text();
    ierr() = 0;
  }
  // Growth switched off: w of the level does not fit.
  Fixture fx{A, {}, {}};
  fx.reset_store(icg0);
  input().iextent = 0;
  LevelView L = fx.view();
  korn_test::MessageCapture cap;
  pwint1_aa_serial(L, settings(2, 0, 0.0));
  EXPECT_EQ(ierr(), kErrDimension);
  EXPECT_NE(cap.text().find("Insufficient dimensioning: <ndw> in (w_extent)"), std::string::npos);
  EXPECT_NE(cap.text().find("Either adjust dimensions or activate memory extension switch."), std::string::npos);
  input().iextent = 2;
}

TEST_F(InterpTest, WExtentGrowsAndCounts) {
  StoreState& st = store();
  st = StoreState{};
  input().iextent = 2;
  st.w.assign(10, 1.5);
  st.jw.assign(10, 4);
  st.ndw = 10;
  st.cnt_w = 10;
  st.memi = st.memd = 10;
  w_extent(1, -5, 8);  // exactly 5 beyond position 8: 13
  ASSERT_EQ(ierr(), 0);
  EXPECT_EQ(st.ndw, 13);
  EXPECT_EQ(st.w.size(), 13u);
  EXPECT_EQ(st.memi, 13);
  EXPECT_EQ(st.memd, 13);
  EXPECT_EQ(st.cnt_w, 13);
  EXPECT_EQ(st.w[7], 1.5);
  EXPECT_EQ(st.jw[7], 4);
  w_extent(1, 4, 13);  // at least 4 more, by half the array at least
  EXPECT_GE(st.ndw, 13 + 6 + 4);
  EXPECT_EQ(st.cnt_w, st.ndw);
  const int before = st.ndw;
  w_extent(1, 2, 5);  // fits: nothing happens
  EXPECT_EQ(st.ndw, before);
}

}  // namespace
