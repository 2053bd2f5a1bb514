// The exported entries of a solve: the core call `korn`, which normalises
// its arguments and dispatches to a control routine, and the older call
// `korn_simple`, which translates its codes into the core call.
#include <cmath>
#include <string>
#include <vector>

#include "control/control.hpp"
#include "entry/entry.hpp"
#include "entry/export.hpp"
#include "korn.h"
#include "log/log.hpp"
#include "params/params.hpp"

namespace kornlt {

SimpleControls& simple() {
  static SimpleControls s;
  return s;
}

namespace {

template <int N>
std::array<int, N> fields(int value, int* ndigit = nullptr) {
  std::array<int, N> d{};
  const int nd = idec(value, d);
  if (ndigit != nullptr) *ndigit = nd;
  return d;
}

int pow10(int e) {
  int v = 1;
  for (int i = 0; i < e; ++i) v *= 10;
  return v;
}

}  // namespace

int coarsening_variant(int iswit) {
  const auto d = fields<8>(iswit);
  int v = 10 * d[2] + d[3];
  if (v == 0) v = 40;
  if (v == 99) v = 20;
  int ncg = 0, nwt = 0;
  if (v >= 10 && v <= 48 && ncg_nwt_of_default(v, ncg, nwt)) return ncg;
  return 5;
}

void korn_unscaled(CoreCall& c) {
  const Params& p = prm();
  if (c.nnu < 1) {
    fail(kErrInconsistent, "Parameter out of range <nnu>!");
    *c.ierr = ierr();
    return;
  }
  if (c.nnu > c.nna) {
    fail(kErrInconsistent, "Parameter out of range <nnu>nna>!");
    *c.ierr = ierr();
    return;
  }
  // Smooth vectors are owned by the aggregation code, which this build does
  // not have: nsmooth is 0 and the arguments pass through unchanged.
  ThreadScope threads;
  if (p.isteering == 0) {
    opt_s(c);
  } else {
    korn_control(c);
  }
}

}  // namespace kornlt

using kornlt::fstr;

extern "C" {

void korn(const int* nnu, const int* nna, const int* nsys, int* ia, int* ja, double* a, double* f, double* u,
          int* iu, const int* ndiu, int* ip, const int* ndip, const int* matrix, int* iscale, double* res_in,
          double* res_out, int* ncyc_done, int* ierr, const int* nsolve, const int* ifirst, const double* eps,
          const int* ncyc, const int* iswit, const double* a_cmplx, const double* g_cmplx,
          const double* p_cmplx, const double* w_avrge, const double* chktol, const int* idump,
          const int* iout) {
  kornlt::CoreCall c;
  c.nnu = *nnu;
  c.nna = *nna;
  c.nsys = *nsys;
  c.ia = ia;
  c.ja = ja;
  c.a = a;
  c.f = f;
  c.u = u;
  c.iu = iu;
  c.ndiu = *ndiu;
  c.ip = ip;
  c.ndip = *ndip;
  c.matrix = *matrix;
  c.iscale = iscale;
  c.res_in = res_in;
  c.res_out = res_out;
  c.ncyc_done = ncyc_done;
  c.ierr = ierr;
  c.nsolve = *nsolve;
  c.ifirst = *ifirst;
  c.eps = *eps;
  c.ncyc = *ncyc;
  c.iswit = *iswit;
  c.a_cmplx = *a_cmplx;
  c.g_cmplx = *g_cmplx;
  c.p_cmplx = *p_cmplx;
  c.w_avrge = *w_avrge;
  c.chktol = *chktol;
  c.idump = *idump;
  c.iout = *iout;
  kornlt::korn_unscaled(c);
}

}  // extern "C"

namespace kornlt {

void korn_simple_call(double* a, int* ia, int* ja, double* u, double* f, int nnu, int matrix, int iswtch,
                      int iout, int iprint, int ifirst, int& ncyc, double& eps, int& ierr_out) {
  SimpleControls& s = simple();
  Params& p = prm();
  ThreadScope threads;

  // 2. The output unit from iprint, when logio is not connected.
  if (!unit_connected(p.logio)) {
    const auto d = fields<6>(iprint);
    const int unit = d[2] + 10 * d[1];
    if (unit_connected(unit)) {
      p.logio = unit;
    } else {
      print_message(kMsgError, 0, 0, "Specified output unit does not exist. Using default unit!");
    }
  }

  // 4-5. Cycle code and stopping rule.
  if (!s.ncyc.set_by_name) {
    int nd = 0;
    const auto d = fields<4>(ncyc, &nd);
    int lead = -1;
    switch (d[0]) {
      case 1: lead = pow10(nd - 1); break;
      case 3: lead = 2 * pow10(nd - 1); break;
      case 4: lead = 3 * pow10(nd - 1); break;
      case 6: lead = 6 * pow10(nd - 1); break;
      case 2: emergency_stop("V*-cycle not installed!");
      default: break;
    }
    if (lead >= 0) {
      if (d[1] == 2) lead += pow10(nd - 2);
      if (d[1] == 4) lead += 2 * pow10(nd - 2);
      s.ncyc.value = lead + d[3];
    }
    if (!s.eps.set_by_name) {
      switch (d[2]) {
        case 1: s.eps.value = 0.0; break;
        case 2: s.eps.value = -eps; break;
        case 3: {
          double fmax = -1.0;
          for (int i = 0; i < nnu; ++i) fmax = std::max(fmax, std::abs(f[i]));
          s.eps.value = -eps * fmax;
          break;
        }
        default: emergency_stop("Termination criterion not installed!");
      }
    }
  }

  // 6. Run code.
  if (!s.iswtch.set_by_name) {
    switch (iswtch) {
      case 1:
        s.iswtch.value = 1110;
        emergency_stop("ISWTCH value not allowed!");
      case 2:
      case 3:
        s.iswtch.value = 2110;
        emergency_stop("ISWTCH value not allowed!");
      case 4: s.iswtch.value = 5117099; break;
      case 5: s.iswtch.value = 5117299; break;
      case 6: s.iswtch.value = 8117099; break;
      default: emergency_stop("ISWTCH value <>4 not allowed!");
    }
  }

  // 7-9. Printing, first approximation, control method.
  if (!s.iout.set_by_name) {
    s.iout.value = fields<3>(iout)[1] - 1;
    if (s.iout.value <= 1) s.idump.value = -1;
  }
  if (!s.ifirst.set_by_name) s.ifirst.value = fields<3>(ifirst)[1];
  p.cntrl_method = s.control == 3 ? 0 : 2;

  // 11. The core call through the automatic control.
  CoreCall c;
  c.nnu = nnu;
  c.nna = ia[nnu] - 1;
  c.nsys = 1;
  c.ia = ia;
  c.ja = ja;
  c.a = a;
  c.f = f;
  c.u = u;
  int iu0 = 0, ip0 = 0, iscale0 = 0, ncyc_done = 0;
  double res_in = -1.0, res_out = -1.0;
  c.iu = &iu0;
  c.ip = &ip0;
  c.iscale = &iscale0;
  c.ndiu = c.ndip = 1;
  c.matrix = matrix;
  c.res_in = &res_in;
  c.res_out = &res_out;
  c.ncyc_done = &ncyc_done;
  c.ierr = &ierr_out;
  c.nsolve = s.nsolve.value;
  c.ifirst = s.ifirst.value;
  c.eps = s.eps.value;
  c.ncyc = s.ncyc.value;
  c.iswit = s.iswtch.value;
  c.a_cmplx = s.a_cmplx.value;
  c.g_cmplx = s.g_cmplx.value;
  c.p_cmplx = s.p_cmplx.value;
  c.w_avrge = s.w_avrge.value;
  c.chktol = s.chktol.value;
  c.idump = s.idump.value;
  c.iout = s.iout.value;
  opt_s(c);

  // 12-13.
  if (ierr_out != 0) {
    char line[64];
    std::snprintf(line, sizeof line, ">>>>> KORN returned with error code%4d <<<<<", ierr_out);
    print_line(0, 0, line);
  }
  eps = res_out;
  ncyc = ncyc_done;
}

}  // namespace kornlt

extern "C" {

void korn_simple(double* a, int* ia, int* ja, double* u, double* f, int* ig, const int* nda, const int* ndia,
                 const int* ndja, const int* ndu, const int* ndf, const int* ndig, const int* nnu,
                 const int* matrix, const int* iswtch, const int* iout, const int* iprint, const int* levelx,
                 const int* ifirst, int* ncyc, double* eps, const int* madapt, const int* nrd,
                 const int* nsolco, const int* nru, const double* ecg1, const double* ecg2, const double* ewt2,
                 const int* nwt, const int* ntr, int* ierr) {
  kornlt::korn_simple_call(a, ia, ja, u, f, *nnu, *matrix, *iswtch, *iout, *iprint, *ifirst, *ncyc, *eps,
                           *ierr);
}

void korn_simple_set_integer(const char* name, const int* value, size_t name_len) {
  using kornlt::simple;
  const std::string_view n = kornlt::trim_name(fstr(name, name_len));
  auto& s = simple();
  kornlt::Stored<int>* target = n == "ifirst"   ? &s.ifirst
                                : n == "nsolve" ? &s.nsolve
                                : n == "ncyc"   ? &s.ncyc
                                : n == "iswtch" ? &s.iswtch
                                : n == "idump"  ? &s.idump
                                : n == "iout"   ? &s.iout
                                                : nullptr;
  if (n == "control") {
    s.control = *value;
    return;
  }
  if (target == nullptr) {
    kornlt::emergency_stop("Unknown or not settable parameter " + std::string(n));
  }
  *target = {*value, true};
}

void korn_simple_set_real(const char* name, const double* value, size_t name_len) {
  using kornlt::simple;
  const std::string_view n = kornlt::trim_name(fstr(name, name_len));
  auto& s = simple();
  kornlt::Stored<double>* target = n == "eps"       ? &s.eps
                                   : n == "a_cmplx" ? &s.a_cmplx
                                   : n == "g_cmplx" ? &s.g_cmplx
                                   : n == "p_cmplx" ? &s.p_cmplx
                                   : n == "w_avrge" ? &s.w_avrge
                                   : n == "chktol"  ? &s.chktol
                                                    : nullptr;
  if (n == "hclose") {
    s.hclose = *value;
    return;
  }
  if (target == nullptr) {
    kornlt::emergency_stop("Unknown or not settable parameter " + std::string(n));
  }
  *target = {*value, true};
}

void korn_simple_get_control(const char* name, int* value, size_t name_len) {
  if (kornlt::trim_name(fstr(name, name_len)) == "control") *value = kornlt::simple().control;
}

void korn_simple_get_hclose(const char* name, double* value, size_t name_len) {
  if (kornlt::trim_name(fstr(name, name_len)) == "hclose") *value = kornlt::simple().hclose;
}

void korn_get_times(double* setup_seconds, double* solve_seconds) {
  *setup_seconds = kornlt::control().setup_time;
  *solve_seconds = kornlt::control().solve_time;
}

// Fortran names.
void korn_(const int*, const int*, const int*, int*, int*, double*, double*, double*, int*, const int*, int*,
           const int*, const int*, int*, double*, double*, int*, int*, const int*, const int*, const double*,
           const int*, const int*, const double*, const double*, const double*, const double*, const double*,
           const int*, const int*) KORN_FORTRAN_ALIAS(korn);
void korn_simple_(double*, int*, int*, double*, double*, int*, const int*, const int*, const int*, const int*,
                  const int*, const int*, const int*, const int*, const int*, const int*, const int*,
                  const int*, const int*, int*, double*, const int*, const int*, const int*, const int*,
                  const double*, const double*, const double*, const int*, const int*, int*)
    KORN_FORTRAN_ALIAS(korn_simple);
void korn_simple_set_integer_(const char*, const int*, size_t) KORN_FORTRAN_ALIAS(korn_simple_set_integer);
void korn_simple_set_real_(const char*, const double*, size_t) KORN_FORTRAN_ALIAS(korn_simple_set_real);
void korn_simple_get_control_(const char*, int*, size_t) KORN_FORTRAN_ALIAS(korn_simple_get_control);
void korn_simple_get_hclose_(const char*, double*, size_t) KORN_FORTRAN_ALIAS(korn_simple_get_hclose);
void korn_get_times_(double*, double*) KORN_FORTRAN_ALIAS(korn_get_times);

}  // extern "C"
