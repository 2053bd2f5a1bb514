// The solution phase: relaxation, residual norms and stopping criteria, the
// cycle and the solve driver.
#pragma once

#include <array>
#include <string_view>
#include <vector>

#include "store/store.hpp"

namespace kornlt {

// ===========================================================================
// Relaxation
// ===========================================================================

// A smoothing code (nrd, nru) taken apart: `nrx` repetitions of the list
// typ(1..len) of step codes. 131 gives nrx 1 and (3, 1); -131 gives nrx 1 and
// (-1, -3); 0 gives an empty step.
struct SweepList {
  int nrx = 0;
  int len = 0;
  std::array<int, 10> typ{};  // typ[0..len-1], each may be negative
};
SweepList split_smoothing_code(int code);

// What one smoothing step needs besides the level: registry values and the
// decoded settings of the run, gathered once per solve by the driver.
struct SmootherSettings {
  int nxtyp = 0;              // smoother family: 0 Gauss-Seidel/Jacobi, 8 relx_f
  int nxtyp_coarse = -1;      // override on coarse levels: -1 none, 0 or 5
  int nstyp = 1;              // 1: variable-wise, the only structure accepted
  double omega_sor_do = 0.0;  // SOR factor of ascending all-point sweeps, if > 0
  double omega_sor_up = 0.0;  // parsed, never acts
  double omega_jacobi = 0.5;  // damping of digit 7: element 1 of omega_jacobi_vec
  int nmin_matrix = 1;        // rows per thread above which row loops use threads
  int nmin_vector = 1;        // the same for vector loops
  int smo_choice = 0;         // variant of relx_f; 0 = not available
  bool improve_smo = false;   // correction scaling in relx_f
};

// One pre- or post-smoothing step on a level: nrx times the sweep list.
// `first_point` is the level's first point index. Failures set ierr (> 0).
void smoother(const LevelView& L, int first_point, const SmootherSettings& s, const SweepList& list,
              bool do_cf);
// One sweep of a single step code (1..7, sign reverses the direction).
void relx_gs(const LevelView& L, int step, bool do_cf, const SmootherSettings& s);
// The alternative smoother of nxtyp 8.
void relx_f(const LevelView& L, int step, bool do_cf, const SmootherSettings& s);

// ===========================================================================
// Residuals and stopping criteria
// ===========================================================================

// norm_typ: 0 or 3 L2, 1 L1, 2 maximum norm.
// Norm of f - A u over the level's rows. On NaN (211) or overflow (210) the
// message names `routine`, ierr is set and -1.0 returned.
double resid(const LevelView& L, int norm_typ, std::string_view routine = "resid");
// Norm of a given vector r(lo..hi), no matrix product.
double resid1(const Vec1<const double>& r, int norm_typ);
// "L2", "L1", "MX"; the quasi-residual forms "q2", "q1", "qx".
std::string_view norm_label(int norm_typ, bool quasi = false);

// ===========================================================================
// Solve driver and cycle
// ===========================================================================

// Process-wide work data of the solution phase, released by the cleanup.
struct SolveState {
  std::vector<double> omega_jacobi_vec;  // damping per unknown: size 1 or nsys
  std::vector<double> uold;              // Jacobi scratch, grows to the largest level
};
SolveState& solve_state();

}  // namespace kornlt
