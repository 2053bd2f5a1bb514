// Run control: the core call's arguments, the main sequence of one run, the
// cleanup, the control routines in front of it, and the thread settings.
#pragma once

#include <string_view>

namespace kornlt {

// The thirty arguments of the core call. Inputs by value, outputs and arrays
// by pointer; arrays are the caller's own (1-based content).
struct CoreCall {
  int nnu = 0, nna = 0, nsys = 1;
  int* ia = nullptr;
  int* ja = nullptr;
  double* a = nullptr;
  double* f = nullptr;
  double* u = nullptr;
  int* iu = nullptr;
  int ndiu = 1;
  int* ip = nullptr;
  int ndip = 1;
  int matrix = 12;
  int* iscale = nullptr;
  double* res_in = nullptr;
  double* res_out = nullptr;
  int* ncyc_done = nullptr;
  int* ierr = nullptr;
  int nsolve = 0, ifirst = 0;
  double eps = 1e-8;
  int ncyc = 0, iswit = 5;
  double a_cmplx = 0.0, g_cmplx = 0.0, p_cmplx = 0.0, w_avrge = 0.0, chktol = -1.0;
  int idump = 0, iout = 0;
};

// Process-wide state of the run sequence, kept between calls.
struct ControlState {
  int run_counter = 0;              // korn_main calls since load or leave
  bool decomposition_ready = false; // a hierarchy stands ready for reuse
  int struct_ident_saved = 0;
  int nnu_level1 = -1, nna_level1 = -1;
  int saved_extents[8] = {-1, -1, -1, -1, -1, -1, -1, -1};
  long long mark_ints = 0, mark_reals = 0, mark_sum = 0;  // memory marks of a setup
  int solver_cl_used = 0;
  double setup_time = 0.0, solve_time = 0.0;  // seconds, of the last korn_main call
  bool matrix_checked = false;      // this call's matrix passed the logical check
};
ControlState& control();

// One run: setup, solve or both, by the run mode in `iswit`.
void korn_main(CoreCall& c);
// Releases run data; keep_parts keeps the level-1 operators and array groups.
void korn_cleanup(std::string_view text, bool keep_parts);
// Prepares the first approximation by the first field of ifirst.
void first_guess(int ifirst, int nnu, double* u);

// The control routines in front of korn_main.
void opt_s(CoreCall& c);
void korn_control(CoreCall& c);

// Sets the solver's thread count for the duration of a control call and puts
// the caller's setting back afterwards.
class ThreadScope {
 public:
  ThreadScope();
  ~ThreadScope();
  ThreadScope(const ThreadScope&) = delete;
  ThreadScope& operator=(const ThreadScope&) = delete;

 private:
  int saved_;
};

// Wall-clock seconds.
double wall_time();

}  // namespace kornlt
