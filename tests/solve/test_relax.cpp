// Relaxation: Gauss-Seidel, SOR, Jacobi and the relx_f variants against slow
// reference sweeps written from the definitions, the hybrid threaded sweep,
// the smoother's sweep lists, and the error paths.
#include <gtest/gtest.h>
#include <omp.h>

#include <random>
#include <string>
#include <vector>

#include "log/log.hpp"
#include "log/test_support.hpp"
#include "params/params.hpp"
#include "solve/solve.hpp"
#include "solve_fixtures.hpp"

namespace {

using namespace solve_test;
using korn_test::MessageCapture;
using kornlt::SmootherSettings;
using kornlt::split_smoothing_code;

enum class Coef { Poisson, Varied, MixedSign };

// Five-point operator on an nx x ny grid placed at rows off+1.., entries
// eoff+1... Varied: random negative couplings; MixedSign: both signs; both
// diagonally dominant. The off-diagonal order in a row is shuffled. icg:
// every third row is C (positive coarse numbers), the others cycle through
// the F states -1, 0, -3; with nx = 6 both kinds couple among themselves, so
// the order within a kind matters.
Level grid_level(int nx, int ny, int off, int eoff, Coef coef, unsigned seed) {
  std::mt19937 gen(seed);
  std::uniform_real_distribution<double> unit(0.0, 1.0);
  const Csr P = grid_matrix(nx, ny, 4.0, -1, -1, -1, -1);
  Csr A;
  for (int i = 0; i < P.n; ++i) {
    std::vector<std::pair<int, double>> o;
    double d = coef == Coef::Poisson ? 4.0 : 0.1 + unit(gen);
    for (int k = P.ia[i] + 1; k < P.ia[i + 1]; ++k) {
      double v = -1.0;
      if (coef == Coef::Varied) v = -(0.5 + unit(gen));
      if (coef == Coef::MixedSign) v = (unit(gen) < 0.35 ? 1.0 : -1.0) * (0.5 + unit(gen));
      if (coef != Coef::Poisson) d += std::abs(v);
      o.push_back({P.ja[k - 1], v});
    }
    std::shuffle(o.begin(), o.end(), gen);
    A.add_row(d, o);
  }
  std::uniform_real_distribution<double> val(-1.0, 1.0);
  Vec u(static_cast<std::size_t>(A.n)), f(u.size());
  for (std::size_t i = 0; i < u.size(); ++i) {
    u[i] = val(gen);
    f[i] = val(gen);
  }
  Level M(A, u, f, off, eoff);
  constexpr int kF[3] = {-1, 0, -3};
  for (int i = 0; i < A.n; ++i) M.icg[i] = i % 3 == 0 ? 1 + i / 3 : kF[i % 9 / 3];
  return M;
}

// ---------------------------------------------------------------------------
// Slow references: the diagonal is found by its column index, every other
// entry of the row is an off-diagonal coupling.
// ---------------------------------------------------------------------------
enum class Pts { F, All, C };

struct Ref {
  const Level& M;
  bool selected(int i, Pts p) const {
    const int g = M.icg[i - M.ilo];
    return p == Pts::All || (p == Pts::C) == (g > 0);
  }
  template <class Fn>
  void row(int i, Fn fn) const {  // fn(column, value) over row i
    for (int k = M.ia[i - M.ilo]; k < M.ia[i - M.ilo + 1]; ++k) fn(M.ja[k - M.k0], M.a[k - M.k0]);
  }
  double diag(int i) const {
    double d = 0.0;
    row(i, [&](int j, double v) { d += j == i ? v : 0.0; });
    return d;
  }
  // One sweep in the given order. kind 0: Gauss-Seidel (SOR with omega > 0);
  // 1: split update, couplings >= 0 take the value before the sweep;
  // 2: row projection u(ja(k)) += a(k) r / sum a(k)^2.
  Vec sweep(Pts p, bool ascending, double omega = 0.0, int kind = 0) const {
    Vec u = M.u;
    auto at = [&](Vec& v, int j) -> double& { return v[static_cast<std::size_t>(j - M.ilo)]; };
    for (int s = 0; s < M.n(); ++s) {
      const int i = ascending ? M.ilo + s : M.ihi - s;
      if (!selected(i, p)) continue;
      double r = M.f[i - M.ilo], sq = 0.0;
      if (kind == 2) {
        row(i, [&](int j, double v) { r -= v * at(u, j), sq += v * v; });
        row(i, [&](int j, double v) { at(u, j) += v * (r / sq); });
        continue;
      }
      row(i, [&](int j, double v) {
        if (j != i) r -= v * (kind == 1 && v >= 0.0 ? M.u[j - M.ilo] : at(u, j));
      });
      at(u, i) = omega > 0.0 ? (r * omega) / diag(i) + (1.0 - omega) * at(u, i) : r / diag(i);
    }
    return u;
  }
  Vec jacobi(double omega) const {
    Vec u = M.u;
    for (int i = M.ilo; i <= M.ihi; ++i) {
      double r = M.f[i - M.ilo];
      row(i, [&](int j, double v) { r -= j != i ? v * M.u[j - M.ilo] : 0.0; });
      const double old = M.u[i - M.ilo];
      u[i - M.ilo] = old + omega * (r / diag(i) - old);
    }
    return u;
  }
};

std::string error_line(const std::string& text) { return "*** ERROR: " + text + "\n"; }

class Relax : public ::testing::Test {
 protected:
  void SetUp() override {
    saved_ = kornlt::prm();
    omp_set_num_threads(1);
    kornlt::ierr() = 0;
  }
  void TearDown() override {
    kornlt::prm() = saved_;
    kornlt::solve_state().cf_rows.clear();
    kornlt::ierr() = 0;
  }
  Threads threads_{1};

 private:
  kornlt::Params saved_;
};

// Every digit code: which points, which direction, and whether omega_sor_do
// applies. Without C/F splitting 1..3 act as 2 and 4..6 as 5.
struct StepCase {
  int step;
  bool do_cf;
  Pts points;
  bool ascending, sor;
};
const std::vector<StepCase>& step_table() {
  static const std::vector<StepCase> t = {
      {1, true, Pts::F, true, false},      {2, true, Pts::All, true, true},    {3, true, Pts::C, true, false},
      {4, true, Pts::F, false, false},     {5, true, Pts::All, false, false},  {6, true, Pts::C, false, false},
      {-1, true, Pts::F, false, false},    {-2, true, Pts::All, false, true},  {-3, true, Pts::C, false, false},
      {-4, true, Pts::F, true, false},     {-5, true, Pts::All, true, false},  {-6, true, Pts::C, true, false},
      {1, false, Pts::All, true, true},    {3, false, Pts::All, true, true},   {4, false, Pts::All, false, false},
      {6, false, Pts::All, false, false},  {-1, false, Pts::All, false, true}, {-3, false, Pts::All, false, true},
      {-4, false, Pts::All, true, false},  {-6, false, Pts::All, true, false},
  };
  return t;
}

// One thread: bit-identical to the reference, both when the sweep tests every
// row's icg and when it visits the C and F row lists a hierarchy builds.
// omega_sor_up never acts.
TEST_F(Relax, GaussSeidelDigitsMatchReference) {
  for (const auto& [sor_do, sor_up] : {std::pair{0.0, 0.0}, std::pair{0.7, 1.5}}) {
    for (const StepCase& c : step_table()) {
      for (bool lists : {false, true}) {
        SCOPED_TRACE("step " + std::to_string(c.step) + " do_cf " + std::to_string(c.do_cf) + " sor_do " +
                     std::to_string(sor_do) + (lists ? " row lists" : " row tests"));
        Level M = grid_level(6, 9, 100, 776, Coef::Varied, 118);
        const Vec want = Ref{M}.sweep(c.points, c.ascending, c.sor ? sor_do : 0.0);
        SmootherSettings s;
        s.omega_sor_do = sor_do;
        s.omega_sor_up = sor_up;
        // Without C/F splitting the level may come without icg.
        const kornlt::LevelView L = M.view(c.do_cf || lists);
        auto& cf = kornlt::solve_state().cf_rows;
        cf.clear();
        if (lists) {
          cf.resize(static_cast<std::size_t>(L.k) + 1);
          kornlt::CfRows& r = cf.back();
          r.ilo = L.ilo;
          r.ihi = L.ihi;
          r.icg = L.icg.origin();
          for (int i = L.ilo; i <= L.ihi; ++i) (L.icg(i) > 0 ? r.c : r.f).push_back(i);
          ASSERT_EQ(kornlt::cf_rows_of(L), &r);
        }
        kornlt::relx_gs(L, c.step, c.do_cf, s);
        ASSERT_EQ(kornlt::ierr(), 0);
        EXPECT_EQ(M.u, want);
      }
    }
  }
}

// Jacobi does not depend on the thread count; its scratch follows the size
// of each level, small and large in turn.
TEST_F(Relax, JacobiMatchesReferenceOnOneAndTwoThreads) {
  struct Shape {
    int nx, ny, off;
  };
  for (int threads : {1, 2}) {
    for (const Shape sh : {Shape{3, 3, 1000}, Shape{12, 11, 1012}, Shape{9, 8, 54}}) {
      for (int step : {7, -7}) {
        for (bool do_cf : {true, false}) {
          SCOPED_TRACE("threads " + std::to_string(threads) + " n " + std::to_string(sh.nx * sh.ny) + " step " +
                       std::to_string(step) + " do_cf " + std::to_string(do_cf));
          Level M = grid_level(sh.nx, sh.ny, sh.off, 11, Coef::Varied, 23);
          const Vec want = Ref{M}.jacobi(0.8);
          omp_set_num_threads(threads);
          SmootherSettings s;
          s.omega_jacobi = 0.8;
          s.nmin_matrix = s.nmin_vector = 0;
          s.omega_sor_do = 1.5;  // no effect on Jacobi
          kornlt::relx_gs(M.view(do_cf), step, do_cf, s);
          ASSERT_EQ(kornlt::ierr(), 0);
          EXPECT_EQ(M.u, want);
        }
      }
    }
  }
}

// Two threads: at or below nmin_matrix rows per thread the sweep is the serial
// one; above it, rows whose couplings lie in their own block on the side the
// block's sweep starts from see exactly the serial values.
TEST_F(Relax, HybridSweepOnTwoThreads) {
  for (int step : {2, -2, 5, 1, 6}) {
    Level serial = grid_level(40, 40, 0, 0, Coef::Varied, 3), threaded = serial;
    SmootherSettings s;
    s.nmin_matrix = 800;  // 1600 rows: 800 per thread
    kornlt::relx_gs(serial.view(), step, true, s);
    omp_set_num_threads(2);
    kornlt::relx_gs(threaded.view(), step, true, s);
    omp_set_num_threads(1);
    EXPECT_EQ(threaded.u, serial.u) << step;
  }
  const int nx = 64, n = nx * nx, half = n / 2;
  SmootherSettings s;
  s.nmin_matrix = 0;
  for (int step : {2, 5}) {
    Level M = grid_level(nx, nx, 8, 0, Coef::Poisson, 41);
    const bool asc = step == 2;
    const Vec want = Ref{M}.sweep(Pts::All, asc);
    omp_set_num_threads(2);
    kornlt::relx_gs(M.view(), step, true, s);
    omp_set_num_threads(1);
    ASSERT_EQ(kornlt::ierr(), 0);
    const int lo = asc ? 0 : half + nx, hi = asc ? half - nx - 1 : n - 1;
    for (int i = lo; i <= hi; ++i) ASSERT_EQ(M.u[i], want[i]) << "step " << step << " row " << i;
  }
}

// The smoother runs nrx times the list; nxtyp 8 runs relx_f (nstyp is checked
// for nxtyp 0 only).
TEST_F(Relax, SmootherRunsTheSweepList) {
  struct Case {
    int code;
    bool do_cf;
    int nxtyp;
    std::vector<std::pair<Pts, bool>> sweeps;  // reference sweeps in order
  };
  const Case cases[] = {
      {131, true, 0, {{Pts::C, true}, {Pts::F, true}}},
      {-131, true, 0, {{Pts::F, false}, {Pts::C, false}}},
      {231, true, 0, {{Pts::C, true}, {Pts::F, true}, {Pts::C, true}, {Pts::F, true}}},
      {131, false, 0, {{Pts::All, true}, {Pts::All, true}}},
      {3, true, 0, {}},  // three repetitions of an empty list
      {131, true, 8, {{Pts::C, true}, {Pts::F, true}}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE("code " + std::to_string(c.code) + " do_cf " + std::to_string(c.do_cf) + " nxtyp " +
                 std::to_string(c.nxtyp));
    Level M = grid_level(7, 6, 0, 0, Coef::MixedSign, 77), R = M;
    for (const auto& [p, asc] : c.sweeps) R.u = Ref{R}.sweep(p, asc, 0.0, c.nxtyp == 8 ? 1 : 0);
    SmootherSettings s;
    s.nxtyp = c.nxtyp;
    s.smo_choice = 2;
    s.nstyp = c.nxtyp == 8 ? 3 : 1;
    kornlt::smoother(M.view(), 1, s, split_smoothing_code(c.code), c.do_cf);
    ASSERT_EQ(kornlt::ierr(), 0);
    EXPECT_EQ(M.u, R.u);
  }
}

// Refused settings and step codes: the message, the code, and u as it was
// (the smoother keeps the sweeps done before the error).
TEST_F(Relax, RefusedSettingsAndSteps) {
  enum Call { Smoother, Gs, RelxF };
  struct Case {
    Call call;
    int nxtyp, nstyp, smo_choice, step, code;
    std::string out;
  };
  const std::string unknown_f = "iirel out of range\n" + error_line("Unknown relaxation step requested in (relx_f)");
  const std::string jacobi_f = error_line("Jacobi relaxation not supported in (relx_f)");
  const Case cases[] = {
      {Smoother, 0, 2, 0, 0, 20, error_line("Illegal value of parameter <nstyp> in (smoother)")},
      {Smoother, 2, 1, 0, 0, 80, error_line("ILU smoothing not available in this build (smoother)!")},
      {Smoother, 5, 1, 0, 0, 20, error_line("Illegal value of parameter <nxtyp> in (smoother)")},
      {Smoother, 0, 1, 0, 8, 20, error_line("Unknown relaxation step requested in (relx_gs)")},
      {Gs, 0, 1, 0, 0, 20, error_line("Unknown relaxation step requested in (relx_gs)")},
      {RelxF, 8, 1, 0, 2, 20, error_line("Option nxtyp=8 not available yet (relx_f)")},
      {RelxF, 8, 1, 1, 7, 20, jacobi_f},
      {RelxF, 8, 1, 2, 0, 20, unknown_f},
      {RelxF, 8, 1, 5, 8, 0, ""},  // a larger smo_choice skips the sweep
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.out + " step " + std::to_string(c.step));
    kornlt::ierr() = 0;
    Level M = grid_level(4, 4, 0, 0, Coef::Poisson, 2);
    Vec want = M.u;
    SmootherSettings s;
    s.nxtyp = c.nxtyp;
    s.nstyp = c.nstyp;
    s.smo_choice = c.smo_choice;
    MessageCapture cap;
    if (c.call == Smoother) {
      kornlt::SweepList list = split_smoothing_code(131);
      if (c.step != 0) {  // 2, the bad step, 2 again: the first sweep stays
        list.typ = {2, c.step, 2};
        list.len = 3;
        want = Ref{M}.sweep(Pts::All, true);
      }
      kornlt::smoother(M.view(), 1, s, list, true);
    } else if (c.call == Gs) {
      kornlt::relx_gs(M.view(), c.step, true, s);
    } else {
      kornlt::relx_f(M.view(), c.step, true, s);
    }
    EXPECT_EQ(cap.text(), c.out);
    EXPECT_EQ(kornlt::ierr(), c.code);
    EXPECT_EQ(M.u, want);
  }
}

// relx_f: smo_choice 1 plain, 2 split update, 3 row projection, 4 and above
// nothing, for every digit code.
TEST_F(Relax, RelxFChoicesMatchReferences) {
  for (const StepCase& c : step_table()) {
    for (int choice : {1, 2, 3, 4}) {
      SCOPED_TRACE("step " + std::to_string(c.step) + " do_cf " + std::to_string(c.do_cf) + " smo_choice " +
                   std::to_string(choice));
      Level M = grid_level(6, 5, 20, 299, Coef::MixedSign, 13);
      const Vec want = choice == 4 ? M.u : Ref{M}.sweep(c.points, c.ascending, 0.0, choice - 1);
      if (choice == 2 && c.points == Pts::All) {
        ASSERT_NE(want, Ref{M}.sweep(c.points, c.ascending));  // positive couplings matter
      }
      SmootherSettings s;
      s.smo_choice = choice;
      s.omega_sor_do = 1.5;  // plain updates in relx_f
      kornlt::relx_f(M.view(), c.step, c.do_cf, s);
      ASSERT_EQ(kornlt::ierr(), 0);
      EXPECT_LE(max_diff(M.u, want), choice == 3 ? 1e-13 : 0.0);
    }
  }
}

}  // namespace
