// The control routines in front of korn_main: the automatic solver control
// (opt_s) and the setup control (korn_control). Both measure the first
// residual, decide whether there is anything to do, and run korn_main.
// The adaptive parts (reuse of a hierarchy, choice between two methods) need
// multigrid hierarchies; until those exist, control codes 6..9 are refused.
#include <cmath>
#include <string>

#include "control/control.hpp"
#include "log/log.hpp"
#include "params/params.hpp"
#include "solve/solve.hpp"
#include "store/store.hpp"

namespace kornlt {

namespace {

// The run-mode switch taken apart.
struct Switch {
  int d1 = 0;        // control code
  int run_mode = 0;  // d1 below 6, else 10 - d1
  int code = 0;      // what korn_main gets: run mode and the other fields, signed
};

Switch decode_switch(int iswit) {
  std::array<int, 8> d{};
  idec(iswit, d);
  Switch s;
  s.d1 = d[0];
  s.run_mode = s.d1 < 6 ? s.d1 : 10 - s.d1;
  s.code = s.run_mode * 1000000 + d[1] * 100000 + (10 * d[2] + d[3]) * 1000 + d[4] * 100 + 10 * d[5] + d[6];
  if (iswit < 0) s.code = -s.code;
  return s;
}

// The cycle code taken apart: igam, ncgrad and the cycle number.
struct CycleCode {
  int igam = 1, ncgrad = 1, field3 = 0, ncycle = 0;
};

CycleCode decode_cycle(int ncyc) {
  const Params& p = prm();
  std::array<int, 4> d{};
  idec(ncyc == 0 ? p.ncyc_default : ncyc, d);
  return {d[0], d[1] == 0 ? p.ncgrad_default : d[1], d[2], d[3]};
}

void print_call_header(int count, std::string_view words) {
  const std::string dashes(66, '-');
  print_message(kMsgControl, 1, 0, dashes);
  print_message(kMsgControl, 0, 0, std::string(words) + fmt_int(count));
  print_message(kMsgControl, 0, 1, dashes);
}

enum class Verdict { Proceed, Forced, ForcedSolve, Skip };

// The tests for nothing to do: no cycles asked for, or a first guess that
// already meets the target. Forced: go on although nothing is to do.
// ForcedSolve: the control mechanism stays out, a plain run follows.
Verdict nothing_to_do(const Switch& sw, int ncycle, double res_in, double eps, bool& need_setup) {
  const Params& p = prm();
  auto forced_setup = [&](int d1) {
    print_message(kMsgInfo, 0, 0,
                  "KORN setup will be performed anyway: user-enforced (iswit=" + fmt_int(d1) + ").");
  };
  auto skip = [&] {
    if (sw.run_mode == 4) {
      need_setup = true;
      print_message(kMsgInfo, 0, 0, "KORN solver skipped, enforce setup at next call (iswit=6).");
    } else {
      print_message(kMsgInfo, 0, 0, "KORN solver skipped.");
    }
    return Verdict::Skip;
  };
  if (ncycle < 1) {
    print_message(kMsgInfo, 0, 0, "Nothing to do since ncycle=0 on input.");
    if (sw.d1 == 4 || sw.d1 == 3) {
      forced_setup(sw.d1);
      return Verdict::Forced;
    }
    if (sw.d1 < 6 && p.ncyc_min > 0) {
      print_message(kMsgInfo, 0, 0, "KORN solver will be performed anyway: user-enforced (ncyc_min>0).");
      return Verdict::Forced;
    }
    return skip();
  }
  const double target = eps < 0.0 ? std::abs(eps) : res_in * eps;
  std::array<int, 4> ic{};
  idec(p.icrits, ic);
  const bool eps_decides = ic[1] != 0 && (ic[0] == 2 || ic[2] == 0);
  if (target < res_in) return Verdict::Proceed;
  print_message(kMsgInfo, 0, 0, "First guess satisfies eps-criterion:");
  print_message(kMsgInfo, 0, 0, "Residual of first guess  =" + std::to_string(res_in));
  print_message(kMsgInfo, 0, 0, "Residual to be undershot =" + std::to_string(target));
  if (sw.d1 == 4 || sw.d1 == 3) {
    forced_setup(sw.d1);
    return Verdict::Forced;
  }
  if (res_in == 0.0) {
    print_message(kMsgInfo, 0, 0, "KORN solver skipped.");
    return Verdict::Skip;
  }
  if (sw.d1 < 6 && p.ncyc_min > 0) {
    print_message(kMsgInfo, 0, 0, "KORN solver will be performed anyway: user-enforced (ncyc_min>0).");
    return Verdict::ForcedSolve;
  }
  if (!eps_decides) {
    print_message(kMsgInfo, 0, 0, "KORN not skipped: eps-criterion alone does not cause termination.");
    return Verdict::Forced;
  }
  return skip();
}

// The first residual of a control call. The matrix is checked first, since
// this is the first time it is read.
double first_residual(const CoreCall& c, int norm_typ, std::string_view who) {
  if (c.ia[c.nnu] - 1 != c.nna) {
    fail(kErrPointer, "Wrong pointer value: ia0(nnu+1)-1 <> nna in (korn_main)!");
    return -1.0;
  }
  logical_check(c.nnu, c.nna, c.ia, c.ja, c.a, false);
  if (failed()) return -1.0;
  control().matrix_checked = true;
  const LevelView L = level1_view(c.nnu, c.ia, c.ja, c.a, c.u, c.f);
  const double r = resid(L, norm_typ, who);
  return r;
}

// The first field of the norm type in iswit.
int norm_type_of(int iswit) {
  std::array<int, 8> d{};
  idec(iswit, d);
  return d[4];
}

// Runs korn_main with changed run code, cycle code and tolerance, and
// restores the caller's arguments.
void run_main(CoreCall& c, int iswit, int ncyc, double eps, int ifirst) {
  CoreCall m = c;
  m.iswit = iswit;
  m.ncyc = ncyc;
  m.eps = eps;
  m.ifirst = ifirst;
  korn_main(m);
}

// Kept state of the control routines.
struct OuterState {
  bool need_setup = true;
  int calls_opt_s = 0;
  int calls_control = 0;
};
OuterState& outer() {
  static OuterState s;
  return s;
}

// Shared frame of both control routines up to the plain korn_main call.
// Returns true when the call is finished.
bool common_entry(CoreCall& c, std::string_view header, std::string_view who, const Switch& sw,
                  int& ifirst_main, bool& plain) {
  Params& p = prm();
  OuterState& st = outer();
  const CycleCode cyc = decode_cycle(c.ncyc);

  // The first approximation is prepared here, so the first residual is true.
  ifirst_main = c.ifirst;
  if (c.ifirst != 0) {
    first_guess(c.ifirst, c.nnu, c.u);
    ifirst_main = -std::abs(c.ifirst);
  }
  print_call_header(header == "opt_s" ? st.calls_opt_s : st.calls_control,
                    header == "opt_s" ? "Calling outer control routine of KORN .....          Call  #"
                                      : "Calling outer control routine of KORN .....           Call  #");

  if (p.ntake_res_in == 0) {
    const int nt = norm_type_of(c.iswit);
    if (nt > 3) {
      fail(kErrIllegalParameter, "Illegal norm_typ specified (korn control)!");
      return true;
    }
    *c.res_in = first_residual(c, nt, who);
    if (failed()) {
      if (ierr() == kErrResidualNaN) print_message(kMsgError, 0, 0, "NaN in residual calculation (korn control).");
      if (ierr() == kErrResidualOverflow)
        print_message(kMsgError, 0, 0, "Overflow in residual calculation (korn control).");
      return true;
    }
  }

  bool need_setup = st.need_setup;
  const Verdict v = nothing_to_do(sw, cyc.ncycle, *c.res_in, c.eps, need_setup);
  st.need_setup = need_setup;
  if (v == Verdict::Skip) {
    *c.res_out = *c.res_in;
    return true;
  }
  plain = v == Verdict::ForcedSolve;
  return false;
}

// Runs the call with the control mechanism switched off.
void plain_run(CoreCall& c, const Switch& sw, int ifirst_main) {
  Params& p = prm();
  const int saved = p.ntake_res_in;
  p.ntake_res_in = 1;
  run_main(c, sw.code, c.ncyc, c.eps, ifirst_main);
  p.ntake_res_in = saved;
  outer().need_setup = true;
}

}  // namespace

void opt_s(CoreCall& c) {
  Params& p = prm();
  OuterState& st = outer();
  *c.ierr = 0;
  ierr() = 0;
  *c.ncyc_done = 0;
  *c.res_out = -1.0;
  control().matrix_checked = false;

  if (c.iswit == 0) {
    korn_cleanup("opt_s:case1", false);
    st.need_setup = true;
    print_message(kMsgControl, 1, 1, "*** Forced REFRESH ***");
    return;
  }
  if (bool(p.refresh_called)) {
    p.refresh_called = Logical(false);
    korn_cleanup("opt_s:case4", false);
    st.need_setup = true;
  }
  ++st.calls_opt_s;
  const Switch sw = decode_switch(c.iswit);

  // A matrix stored as its lower triangle runs on its expansion, except for
  // IC(0), which works on the half matrix itself.
  CoreCall call = c;
  std::array<int, 4> md{};
  idec(c.matrix, md);
  if (md[0] == 3 && decode_cycle(c.ncyc).igam != 6) {
    logical_check(c.nnu, c.nna, c.ia, c.ja, c.a, true);
    if (failed()) {
      *c.ierr = ierr();
      return;
    }
    extend_matrix(c.nnu, c.ia, c.ja, c.a);
    ExpandedMatrix& x = expanded_matrix();
    call.ia = x.ia.data();
    call.ja = x.ja.data();
    call.a = x.a.data();
    call.nna = x.ia.back() - 1;
    call.matrix = 1000 + 100 * md[1] + 10 * md[2] + md[3];
  }

  int ifirst_main = 0;
  bool plain = false;
  if (!common_entry(call, "opt_s", "korn control", sw, ifirst_main, plain)) {
    if (sw.d1 < 6) {
      print_message(kMsgControl, 0, 0, "Automatic control mechanism not active:");
      print_message(kMsgControl, 0, 0, "User did not activate it (iswit<=5).");
      plain_run(call, sw, ifirst_main);
    } else {
      fail(kErrNotAvailable, "Automatic solver control (iswit>5) is not available in this build (opt_s)!");
      st.need_setup = true;
    }
  }
  release_expanded_matrix();
  *c.ierr = ierr();
}

void korn_control(CoreCall& c) {
  Params& p = prm();
  OuterState& st = outer();
  *c.ierr = 0;
  ierr() = 0;
  *c.ncyc_done = 0;
  *c.res_out = -1.0;
  control().matrix_checked = false;

  auto failure_exit = [&] {
    st.need_setup = true;
    korn_cleanup("korn_control", false);
    print_message(kMsgControl, 0, 0, "Setup control mechanism INTERRUPTED, memory cleared (korn control).");
    *c.ierr = ierr();
  };

  std::array<int, 4> md{};
  idec(c.matrix, md);
  if (md[0] == 3) {
    fail(kErrIllegalParameter, "Half matrix with old control not allowed (korn control)!");
    return failure_exit();
  }
  int opened = 0;
  if (open_logfile(opened) != 0) {
    const int code = ierr() > 0 ? ierr() : kErrLogNoUnit;
    print_message(kMsgError, 0, 0, "A problem with specified logfile or unit occurred (korn control).");
    ierr() = code;
    return failure_exit();
  }
  if (c.iswit == 0) {
    korn_cleanup("korn_control", false);
    st.need_setup = true;
    print_message(kMsgControl, 1, 1, "*** Forced REFRESH ***");
    return;
  }
  if (bool(p.refresh_called)) {
    p.refresh_called = Logical(false);
    st.need_setup = true;
  }
  ++st.calls_control;
  const Switch sw = decode_switch(c.iswit);
  int ifirst_main = 0;
  bool plain = false;
  if (common_entry(c, "korn_control", "korn control", sw, ifirst_main, plain)) {
    if (failed()) return failure_exit();
    *c.ierr = ierr();
    return;
  }

  const CycleCode cyc = decode_cycle(c.ncyc);
  const bool one_level = cyc.igam > 4 || p.levelx == 1 || c.nnu <= (p.nptmn == kUnsetInt ? 100 : p.nptmn);
  if (plain || sw.d1 < 6 || one_level) {
    print_message(kMsgControl, 0, 0, "Setup control mechanism is not active:");
    if (sw.d1 < 6) {
      print_message(kMsgControl, 0, 0, "User did not activate it (iswit<=5).");
    } else if (c.nnu > (p.nptmn == kUnsetInt ? 100 : p.nptmn)) {
      print_message(kMsgControl, 0, 0,
                    p.levelx == 1 ? "One level method requested by user (levelx=1)."
                                  : "One level method requested by user (igam>4).");
    } else {
      print_message(kMsgControl, 0, 0, "One level method performed (small problem: nnu<=nptm).");
    }
    plain_run(c, sw, ifirst_main);
    return;
  }
  fail(kErrNotAvailable, "Setup control (iswit>5) is not available in this build (korn control)!");
  failure_exit();
}

}  // namespace kornlt
