// The solution phase: relaxation, residual norms and stopping criteria, the
// cycle and the solve driver.
#pragma once

#include <array>
#include <functional>
#include <string_view>
#include <vector>

#include "control/control.hpp"
#include "params/params.hpp"
#include "setup/setup.hpp"
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
  int nsys = 1;               // unknowns per point; improve_smo scales one unknown only
};

// One pre- or post-smoothing step on a level: nrx times the sweep list.
// `first_point` is the level's first point index. Failures set ierr (> 0).
void smoother(const LevelView& L, int first_point, const SmootherSettings& s, const SweepList& list,
              bool do_cf);
// One sweep of a single step code (1..7, sign reverses the direction).
void relx_gs(const LevelView& L, int step, bool do_cf, const SmootherSettings& s);
// The alternative smoother of nxtyp 8.
void relx_f(const LevelView& L, int step, bool do_cf, const SmootherSettings& s);
// Builds solve_state().omega_jacobi_vec: nsys entries (1 for nsys <= 1), each
// prm().omega_jacobi. Allocation failure: error 70.
void mod_omegajac_alloc(int nsys);

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

// The same contract on rows ilo..ihi of a level (names itself
// "compute_residual_norm"). When `r` is not empty, r(i) receives f(i) - (Au)(i).
double compute_residual_norm(const LevelView& L, int ilo, int ihi, int norm_typ,
                             const Vec1<double>& r = {});
// Norm of f - A u for a half-stored matrix: each row holds its diagonal and one
// triangle; the other triangle is the transpose. The transposed part is first
// scattered into a work vector of the level's length (failure: error 70).
double resid_half(const LevelView& L, int norm_typ, std::string_view routine = "resid");
// L2 residual of a coarse level k >= 2; error 1 for level 1.
double resid_k(const LevelView& L);
// Wall-clock seconds spent in the residual routines (accumulated).
double& residual_time();

// Norms per unknown: res(0..nsys), element 0 the total, element k the norm of
// the rows with iu(i) = k. unknowns_resids takes f - A u over the level's rows
// (nmin_matrix); unknowns_resvect a given vector r over its range (nmin_vector);
// iu covers the same rows. Errors: 211/210 with all elements -1.0, 1.
void unknowns_resids(const LevelView& L, int norm_typ, const Vec1<const int>& iu, int nsys,
                     const Vec1<double>& res);
void unknowns_resvect(const Vec1<const double>& r, int norm_typ, const Vec1<const int>& iu,
                      int nsys, const Vec1<double>& res);

// The decoded stopping settings of a run.
struct StopSettings {
  int ncrit = 2;                  // number of criteria known to the code
  int crit_mode = 1;              // icrits d1: 0 none, 1 all enabled must hold, 2 any
  std::array<int, 2> crit_on{1, 0};  // icrits d2, d3: criterion 1 (res <= tol), 2 (stagnation)
  int iauto_stop_level = 1;       // iauto_stop d1, with the sign of iauto_stop
  int quasi_limit = 1;            // iauto_stop d2: mismatches of quasi and real residual allowed
  int num_old_res = 0;            // iauto_stop d3 d4: old norms of the variation test
  int num_old_apps = 0;           // iauto_stop d5 d6: small corrections that end the run
  int last_digit = 0;             // iauto_stop d7
  double factor_app_var = 1e-10;  // approximations equal below this relative size
  double factor_res_var = 1.01;   // ratio of the residual variation test
  double factor_quasi_res = 1.5;  // allowed ratio of quasi and real residual
  double rel_app_var = 1e-5;      // threshold of the relative correction
  int ncyc_min = 0;               // cycles before any stop
};
// Decodes icrits and iauto_stop into s, the real factors and ncyc_min from the
// registry. Illegal digits: error 20; num_old_res < num_old_apps: warning -50.
void decode_stop_settings(int icrits, int iauto_stop, StopSettings& s);

// History and counters of the stopping tests during one solve.
struct StopState {
  std::vector<double> res_hist;  // num_old_res+1 norms, newest last
  int num_res_stored = 0;
  std::vector<double> app_hist;  // two columns of app_rows values, newest second
  int app_rows = 0;
  int num_apps_stored = 0;
  std::vector<double> sol_correction;  // relative correction per row, nnu values
  int num_small_corr = 0;  // consecutive iterations with a small correction
  int num_quasi_diff = 0;  // quasi/real residual mismatches
};
// Clears the history and counters; allocates sol_correction (nnu) when
// num_old_apps >= 1 (failure: error 70).
void start_stop_state(StopState& st, const StopSettings& s, int nnu);
// Appends a norm, dropping the oldest when full. Overflow of the counter: 200.
void store_residual(StopState& st, const StopSettings& s, double res);
// Appends u(lo..hi) as the newest approximation (two kept). Overflow: 200.
void store_approximation(StopState& st, const Vec1<const double>& u);
// sol_correction(i) := alpha p(i) / max(|u(i)|, machine epsilon) for i in p's range.
void update_sol_correction(StopState& st, double alpha, const Vec1<const double>& p,
                           const Vec1<const double>& u);
// max |sol_correction(i)|.
double max_sol_correction(const StopState& st);
// Stagnation tests: status 0 none, -2 small corrections, -1 stagnation,
// 1 divergence, 2 oscillation, 3 not converged, -99 too few approximations.
void check_approximations(StopState& st, const StopSettings& s, int nnu, int& status);
// The status of a variation flag -1 and an approximation result (0, 1, -1,
// -2, -99), with its messages; another result is error 1 (returns 0).
int approximation_status(int app_result, double dmax);
// Final verdict: done = 1 to stop. With block scaling and both scaled values
// >= 0 the tolerance test is made on the scaled pair.
void stopping_crit(const StopSettings& s, int it, int itmax, double res, double tol, int status,
                   int& done, double res_scaled = -1.0, double tol_scaled = -1.0);
// Compares the recurrence norm q with the true norm t (only when t was
// computed at this step): 0 fine, 1 mismatch below the limit, 2 limit reached
// (the accelerator stops). Results 1 and 2 call for the accelerator's warning.
int quasi_residual_check(StopState& st, const StopSettings& s, double q, double t, int norm_typ,
                         bool true_computed = true);

// Iteration table lines (print_line). The first: "cycl   0:" with "-res=".
void table_first_line(std::string_view label, double res);
// A cycle line; returns cfac = res / (prev + 1e-90). marker ' ' or '*'.
double table_cycle_line(int it, std::string_view label, double res, double prev, char marker = ' ');
// The closing average line, printed only when ncyc_done > ncyc_start; returns
// (res_out / (res_start + 1e-90))^(1 / (ncyc_done - ncyc_start)), or -1.0.
double table_average_line(int ncyc_start, int ncyc_done, double res_start, double res_out);

// ===========================================================================
// Coarsest-level solvers
// ===========================================================================

// What cgsolve needs besides the level. `nrc` is the code in force (nrc_new of
// solve_data):
//   1 plain smoothing (cl_smo)              6 full Gauss elimination
//   2 ILU(0)/MILU(0)-preconditioned CG      7 sparse Gauss elimination (default)
//   3 ILUT-preconditioned BI-CGSTAB         8 least squares
//   4 diagonally preconditioned CG          9 the caller's solver (user_solve)
//   5 diagonally preconditioned BI-CGSTAB  10 dense LAPACK LU or inversion
// 11 (PARDISO) is absent from this build and refused (error 20); any other
// value is warning -990 and the default 7.
struct SolveSetup;
struct CoarsestArgs {
  int nrc = 7;
  int lfil_cl_used = 0;        // ILUT fill per row and factor of nrc 3
  SweepList coarse_sweeps;     // sweep list of cl_smo; empty: four sweeps of digit 2
  SmootherSettings smoother;   // smoother settings of cl_smo
  int first_point = 1;         // first point index of the level (smoother)
  int nsys = 1;                // unknowns
  const int* iscale = nullptr; // iscale(1..nsys) as iscale[0..nsys-1]; 1: singular
                               // in this unknown (null: none)
  Vec1<const int> iu;          // unknown of each row ilo..ihi; empty: all rows unknown 1
  int isym = 1;                // 1 symmetric matrix expected, 2 not (nrc 10)
};
// The arguments from the solve settings: nrc_new, lfil_cl_used, the coarse
// sweep list and smoother settings; iscale may be null. first_point and iu
// keep their defaults (set them for a level whose first point is not 1).
CoarsestArgs coarsest_args(const SolveSetup& s, int nsys, const int* iscale, int isym);

// Set-up data of the coarsest solvers, kept between cycles for one hierarchy:
// factors, flags and the nrc of the last call. release() drops everything
// (to be called by every new setup of the hierarchy and by the cleanup); a
// change of nrc or of the level's bounds releases by itself.
struct CoarsestData;
struct CoarsestState {
  CoarsestState() = default;
  CoarsestState(const CoarsestState&) = delete;
  CoarsestState& operator=(const CoarsestState&) = delete;
  ~CoarsestState();  // frees the data (the memory counters are left alone)
  void release();

  int nrc_last = 0;         // nrc of the last call, 0 after a release
  int factorisations = 0;   // set-ups made (factorisations, dense copies), for statistics
  int smoother_calls = 0;   // cl_smo: smoother calls made, in all, and the
  int sweeps = 0;           //   repetitions (nrx) of the sweep list they ran
  int iterations = 0;       // steps of the last cgc0 / cgstab0 call
  double res_start = 0.0;   // L2 residual before and after the last
  double res_end = 0.0;     //   iterative call (cl_smo, cgc0, cgstab0)
  CoarsestData* data = nullptr;  // the solvers' own data
};
// The process-wide state of the hierarchy in use.
CoarsestState& coarsest_state();

// Solves the system of the coarsest level L in place of L.u (one call per
// cycle and visit). Errors set ierr: 900 one singular row, 920/930 the
// iterative solvers, 960 full Gauss, 970 sparse Gauss, 980 dense route, 990
// no user solver, 20 nrc 11 or cldense_ctrl, 70 allocation, and those of the
// smoother and residual routines.
void cgsolve(const LevelView& L, const CoarsestArgs& args, CoarsestState& st = coarsest_state());
// The caller's solver of nrc 9; empty: none installed.
std::function<void(const LevelView&)>& coarsest_user_solver();

// The solver's name for the report ("Sparse Gauss elimination", ...), from
// the registry (iter_check, milu, ilu_speed, delta_milu, droptol_cl,
// full_pivoting, cldense_ctrl) and lfil_cl_used.
std::string coarsest_solver_name(int nrc, int lfil_cl_used);
// The report line: "Coarse level: Iterative solution (max: ..., stop: ...) by
// <name>", "Coarse level: Direct solution by <name>" or "Coarse level: User
// provided solution process".
std::string coarsest_report_line(int nrc, int lfil_cl_used);
// cldense_ctrl: up to three digits, the first 1 (LU) or 2 (inversion), the
// others 0 or 1. Otherwise "invalid value for cldense_ctrl (solve-data)!",
// error 20, and false.
bool check_cldense_ctrl();

// ===========================================================================
// Solve driver and cycle
// ===========================================================================

// Process-wide work data of the solution phase, released by the cleanup.
// The rows of each kind of a level's C/F splitting, in rising order, so that
// the C-point and F-point sweeps visit their rows without testing every row.
struct CfRows {
  int ilo = 1, ihi = 0;
  const int* icg = nullptr;  // origin of the splitting the lists were built from
  std::vector<int> c, f;     // icg > 0; icg < 1
};

struct SolveState {
  std::vector<double> omega_jacobi_vec;  // damping per unknown: size 1 or nsys
  std::vector<double> uold;              // Jacobi scratch, grows to the largest level
  std::vector<double> resh;              // fine residual of the threaded restrictions
  std::vector<double> star_e;            // star cycles: u at the start of the level's visit
  std::vector<double> star_c;            // star cycles: the correction being scaled
  std::vector<Transpose> restriction;    // per fine level k (index k): transposed interpolation
  std::vector<CfRows> cf_rows;           // per level k (index k) with a coarser level below
  bool roundoff_watch = true;            // coarsest-level round-off watch, once per run
};
SolveState& solve_state();

// Settings of the solution phase derived once per solve by solve_data.
struct SolveSetup {
  SweepList pre, post;       // nrd and nru taken apart
  int jacobi_summary = -1;   // 1 only digit 7, -1 no digit 7, 0 both
  int nrc_new = 7;           // coarsest solver really used
  int lfil_cl_used = 0;
  SweepList coarse_sweeps;   // sweep list of the smoothing coarse solver
  double sqrt_conv_stop = 0.1;
  SmootherSettings smoother;
  int levels = 1;
  const int* iscale = nullptr;  // iscale(1..nsys) of the call, for the coarsest solver
  int isym = 1;                 // 1 symmetric matrix expected
  int nstar_typ = 0;            // star cycles: 1..3; 0 none
};

// Derives the solve settings and prints the solver report.
SolveSetup solve_data(const CoreCall& c, const Input& in);
// Measures the first residual, sets the target, runs the stand-alone cycles
// and then the accelerator. Updates u, res_in, res_out, ncyc_done.
void korn_solve(CoreCall& c, const Input& in, const SolveSetup& setup);
// One cycle on the hierarchy from level k0 (one-level: smoothing on level 1).
// L1 is level 1 with the vectors to work on (the caller's u and f, or a
// preconditioning pair).
void korn_cyc(const LevelView& L1, const Input& in, const SolveSetup& setup, int k0);

// The restriction variant in force: irestriction_openmp 2 gives -1 with at
// least two threads and 0 otherwise; another absolute value above 1 gives 0.
int restriction_variant();
// Builds the restriction arrays (transposed interpolation) of levels
// 1..levels-1 when the variant in force gathers through them (-1), and
// drops them otherwise.
void wt_setup(int levels);
// True when the restriction arrays and the C/F row lists stand for a kept
// hierarchy of `levels` levels and the thread count in force.
bool cycle_data_ready(int levels);
// Builds the C and F row lists of levels 1..levels-1 from the splitting in
// the store (after a new setup; the splitting of a kept hierarchy does not
// change).
void cf_rows_setup(int levels);
// The lists of L when they were built from L's splitting, else null.
const CfRows* cf_rows_of(const LevelView& L);
// Restriction of the residual of `fine` (f - A u) to the right-hand side of
// `coarse`, whose u and f start from zero.
void restrict_residual(const LevelView& fine, const LevelView& coarse);
// Prolongation with correction: u_fine += P u_coarse.
void prolongate(const LevelView& fine, const LevelView& coarse);

// ===========================================================================
// Accelerators
// ===========================================================================

// The preconditioner of an accelerator: z := M r on level 1, both over the
// level's rows; z holds zeros on entry (cycles start from a zero guess). A
// failure sets ierr (> 0) and the accelerator returns at once.
using AccelPrecond = std::function<void(const Vec1<const double>& r, const Vec1<double>& z)>;
// Called after each accelerator step, once u holds the new approximation, with
// the updated cycle count: normalisation of u and the user's cycle hook.
using AccelStepHook = std::function<void(int ncyc_done)>;

// What the accelerators read; the driver fills it once per solve.
struct AccelSettings {
  int ncgrad = 1;            // 1 CG, 2 BI-CGSTAB, 3 flexible GMRES, 4 flexible CG
  int ntyp_cg = 1;           // CG variant (ncgrad 1): 1 new_cgc, 2 old_cgc
  int nkdim = 30;            // restart length: CG restart period, GMRES Krylov
                             // dimension, directions kept by flexible CG
  int ncyc = 30;             // maximum total cycle count, stand-alone cycles included
  double tol = 0.0;          // absolute target t of the residual norm
  int norm_typ = 0;          // 0 or 3 L2, 1 L1, 2 maximum norm
  int nth_res_scratch = 1;   // a true residual every n-th step; 0 reads as 1
  int out_level = 0;         // above 1: one table line per step
  bool track_ap_p = false;   // log (Ap,p) of every CG step
  AccelPrecond precond;      // empty: no preconditioning (z := r)
  AccelStepHook after_step;  // may be empty
};

// The accelerators on level 1 of L. On entry `res` is the true residual norm
// of L.u (negative: computed here) and `ncyc_done` the cycles done so far; a
// zero `res` returns at once ("Residual already zero (...)!"). On return L.u
// holds the new approximation, ncyc_done has grown by the steps made, and res
// is the true norm of the final residual (res_out). Warnings stay in ierr:
// -830 negative or zero curvature, -8m1 quasi and real residual differ, -8m2
// stagnation or not converged, -843 too many BI-CGSTAB restarts, -8m4 small
// relative corrections (m = 3 CG, 4 BI-CGSTAB, 5 GMRES). Errors: 70 work
// vectors, 830 CG breakdown, 840 BI-CGSTAB breakdown, 850 singular matrix in
// GMRES, and those of the residual routines, the hook or the preconditioner.
void new_cgc(const LevelView& L, const AccelSettings& s, const StopSettings& ss, StopState& st,
             int& ncyc_done, double& res);
void old_cgc(const LevelView& L, const AccelSettings& s, const StopSettings& ss, StopState& st,
             int& ncyc_done, double& res);
void cgstab(const LevelView& L, const AccelSettings& s, const StopSettings& ss, StopState& st,
            int& ncyc_done, double& res);
void gmres(const LevelView& L, const AccelSettings& s, const StopSettings& ss, StopState& st,
           int& ncyc_done, double& res);
void flexcg(const LevelView& L, const AccelSettings& s, const StopSettings& ss, StopState& st,
            int& ncyc_done, double& res);
// Dispatch by ncgrad (and ntyp_cg): an illegal ntyp_cg is error 1, an illegal
// ncgrad stops the run.
void korn_accel(const LevelView& L, const AccelSettings& s, const StopSettings& ss, StopState& st,
                int& ncyc_done, double& res);

}  // namespace kornlt
