// The exported entries: the core call, the older call and its stored controls.
#pragma once

#include "control/control.hpp"

namespace kornlt {

// A stored control of the older call, with a flag telling that it was set
// by name (such a value is not translated from the call's arguments).
template <class T>
struct Stored {
  T value;
  bool set_by_name = false;
};

// The stored controls of korn_simple; they keep their values between calls.
struct SimpleControls {
  Stored<int> nsolve{2}, ifirst{1}, ncyc{12030}, iswtch{5117}, idump{1}, iout{2};
  Stored<double> eps{1.0e-8}, a_cmplx{1.2}, g_cmplx{1.2}, p_cmplx{1.2}, w_avrge{1.2}, chktol{-1.0e-6};
  int control = 0;     // the host's control value, no flag
  double hclose = 0.0; // the host's closure criterion, no flag
};
SimpleControls& simple();

// The core call after the block-scaling layer: checks the sizes, sets the
// thread count and dispatches to a control routine.
void korn_unscaled(CoreCall& c);

// The older call with its arguments by value; ncyc, eps and ierr come back.
void korn_simple_call(double* a, int* ia, int* ja, double* u, double* f, int nnu, int matrix, int iswtch,
                      int iout, int iprint, int ifirst, int& ncyc, double& eps, int& ierr_out);

// The coarsening variant of a run-mode switch: fields 3 and 4 as one number
// (0 reads as 40, 99 as 20) mapped to the coarsening code; 5 outside 10..48.
int coarsening_variant(int iswit);

}  // namespace kornlt
