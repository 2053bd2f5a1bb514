// The parameter registry: every named, process-wide setting with its default,
// the typed and any-type get/set by name, and the reset.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <span>
#include <string>
#include <string_view>

namespace kornlt {

// ---------------------------------------------------------------------------
// Value types of the registry
// ---------------------------------------------------------------------------

// A logical as the host languages store it: bit 0 decides, true is kept as -1.
class Logical {
 public:
  constexpr Logical(bool b = false) : v_(b ? -1 : 0) {}  // NOLINT: implicit by design
  static constexpr Logical from_bits(int bits) { return Logical((bits & 1) != 0); }
  constexpr explicit operator bool() const { return (v_ & 1) != 0; }
  constexpr int bits() const { return v_; }
  friend constexpr bool operator==(Logical a, Logical b) { return bool(a) == bool(b); }

 private:
  int v_;
};

// A blank-padded character value of fixed width W, as a Fortran CHARACTER*W.
template <std::size_t W>
class FixedString {
 public:
  static constexpr std::size_t width = W;
  constexpr FixedString(std::string_view s = {}) { assign(s); }  // NOLINT: implicit by design
  // Copies s, padded with blanks or cut to the width.
  constexpr void assign(std::string_view s) {
    const std::size_t n = std::min(s.size(), W);
    std::copy_n(s.begin(), n, c_.begin());
    std::fill(c_.begin() + n, c_.end(), ' ');
  }
  constexpr std::string_view padded() const { return {c_.data(), W}; }
  // The value without its trailing blanks.
  constexpr std::string_view trimmed() const {
    std::string_view s = padded();
    const auto last = s.find_last_not_of(' ');
    return last == std::string_view::npos ? std::string_view{} : s.substr(0, last + 1);
  }
  constexpr bool blank() const { return trimmed().empty(); }

 private:
  std::array<char, W> c_{};
};

// Marker of an integer parameter nobody set; reals below kUnsetRealBelow are unset.
inline constexpr int kUnsetInt = -1000000000;
inline constexpr double kUnsetReal = -2e50;
inline constexpr double kUnsetRealBelow = -1e50;

// ---------------------------------------------------------------------------
// All parameters in one struct: prm().nmin_matrix, prm().logfile.trimmed(), ...
// Field defaults are the registry defaults; see korn_parameters.def.
// ---------------------------------------------------------------------------
struct Params {
#define KORN_REAL(n, d) double n = d;
#define KORN_REAL_RO(n, d) double n = d;
#define KORN_INT(n, d) int n = d;
#define KORN_INT_RO(n, d) int n = d;
#define KORN_LOGICAL(n, d) Logical n = d;
#define KORN_CHAR(n, w, d) FixedString<w> n{d};
#include "korn_parameters.def"
#undef KORN_REAL
#undef KORN_REAL_RO
#undef KORN_INT
#undef KORN_INT_RO
#undef KORN_LOGICAL
#undef KORN_CHAR

  // The values a freshly loaded library holds: the registry defaults, except
  // that `nversion` starts at 4 on load (the reset puts it back to unset).
  static Params at_load() {
    Params p;
    p.nversion = 4;
    return p;
  }
};

// The process-wide registry.
Params& prm();

// The derived values in force of the last call, as the read-only names report
// them (getdble("ecg"), getinteger("nrd"), ...). Unset markers before a call.
struct InForce {
  double ecg = kUnsetReal, etr = kUnsetReal, ewt = kUnsetReal, wft = 0.0;
  int ncg = kUnsetInt, nrc = kUnsetInt, nrd = kUnsetInt, nru = kUnsetInt, ntr = kUnsetInt,
      nwt = kUnsetInt;
};
InForce& in_force();

// Writes every default back, `nversion` included (to its unset marker).
void reset_parameters();

// ---------------------------------------------------------------------------
// Lookup by name
// ---------------------------------------------------------------------------
enum class ParamType : int { Integer = 1, Real = 2, Character = 3, Logical = 4 };

struct ParamInfo {
  std::string_view name;
  ParamType type;
  int width;       // characters, for ParamType::Character; 0 otherwise
  bool read_only;  // derived value in force: typed getters only
  void* (*address)(Params&);
};

// Names compare exactly (case-sensitive); trailing blanks of `name` are ignored.
const ParamInfo* find_param(ParamType type, std::string_view name);
const ParamInfo* find_param_any_type(std::string_view name);
std::span<const ParamInfo> all_params(ParamType type);

// True when `name` (trailing blanks ignored) is on the list of names that a
// parameter file written for the distributed build may hold.
bool is_foreign_param(std::string_view name);

// Typed access by name. An unknown name prints the registry's message and ends
// the process ("korn_set:terminated!" / "korn_get:terminated!").
void set_double(std::string_view name, double v);
double get_double(std::string_view name);
void set_integer(std::string_view name, int v);
int get_integer(std::string_view name);
void set_logical(std::string_view name, bool v);
bool get_logical(std::string_view name);
void set_char(std::string_view name, std::string_view v);
std::string_view get_char(std::string_view name);  // value without trailing blanks

// Any-type pair, as used by parameter files: `type` 1 integer, 2 real,
// 3 character, 4 logical. A real accepts 1 or 2 and always takes `dval`.
void set_any(std::string_view name, int type, int ival, double dval, bool lval, std::string_view cval);
struct AnyValue {
  int ival = 0;
  double dval = 0.0;
  bool lval = false;
  std::string_view cval;
};
AnyValue get_any(std::string_view name, int type);

// Strips trailing blanks (and the NULs a C caller may leave in a buffer).
constexpr std::string_view trim_name(std::string_view s) {
  const auto last = s.find_last_not_of(std::string_view(" \0", 2));
  return last == std::string_view::npos ? std::string_view{} : s.substr(0, last + 1);
}


// ---------------------------------------------------------------------------
// Working settings of a call: what korn_input decodes from the digit-coded
// arguments and the registry. Kept between calls with the hierarchy.
// ---------------------------------------------------------------------------
struct Input {
  // printing and dumps (idump, iout)
  bool messages_on = true;
  int out_level = 0;          // first field of iout, with its sign
  int echo_level = 0;         // second field of iout: parameter echo 0..4
  int dump_level = 0;         // first field of idump, with its sign
  std::array<int, 6> dump_digits{};

  // iswit
  int run_mode = 0;           // 1 same matrix, 2 new level-1 matrix, 3 recompute, 4/5 new setup
  int iextent = 0;
  int n_default = 40;         // coarsening pair selector
  int norm_typ = 0;           // 0/3 L2, 1 L1, 2 max
  int scratch_unit = 31;
  bool iswit_negative = false;

  // smoothing, coarsening and coarsest-solver codes in force
  int nrd = 131, nru = 131, nrc = 7;
  int levelx = 25;
  bool levelx_negative = false;  // level test of the solve driver
  int nptmn = 100, ncg = 1, nwt = 1, ntr = 1, np_opt = 0;
  double ecg = 21.25, ewt = 0.2, etr = 12.2;
  int np_mod1 = 0, np_mod2 = 0, iter_pre = 0;
  std::array<int, 2> debug_digits{};
  int reduce_steps = 1;
  int nstar_typ = 2;
  int cl_cpl = 3;

  // complexity limits in force
  double a_cmplx = 2.5, g_cmplx = 1.8, p_cmplx = 0.0, w_avrge = 2.5;

  std::string filnam;
  bool reference_solution = false;

  // matrix
  int isym = 1, irow0 = 2, force_mode = 0;
  bool proper_matrix = true;  // false for a half-stored matrix
  std::array<int, 3> matrix_tail{};  // digits 4..6 of matrix

  // stopping: icrits and iauto_stop
  std::array<int, 3> icrits{1, 1, 0};
  int iauto_stop_level = 1, quasi_limit = 1, num_old_res = 0, num_old_apps = 0, iauto_last = 0;

  int ntyp_cg = 1;            // 1 new CG, 2 old CG
  int nntyp_opdfn = 1;        // Galerkin product variant
  bool scaled = false;        // some unknown has iscale 1
  int show_un_res = 0;
  int ntr_type = 1;
  double trunc_threshold = 0.0;

  // cycle and accelerator (ncyc)
  int igam = 1, ncgrad = 1, nkdim = 30, ncycle = 30;
  bool star_cycle = false;    // negative ncyc: star cycling
  int nth_res_scratch = 1;
  int lfil = 9;               // ILU fill of smoothing

  // nsolve
  int napproach = 1, nxtyp = 0, internal = 0, nprim = 0, nprim1 = 0;
  int nint_weights = 1, nint_pat = 1;
  bool ilu_tp = false;
  int coarse_set = 0;         // coarse-set feature (use_ic value) or 0
  bool glk_mult_zeros = false;

  bool one_level = false;     // no hierarchy: small problem or one-level method
  std::string bad_name;       // name of the last refused parameter, for messages
};
Input& input();

// Arguments of the call that korn_input reads.
struct InputArgs {
  int nnu, nna, nsys;
  int nsolve;
  int* iscale;               // nsys values; iscale(1) is written for nsys 1
  int ifirst;
  int ndiu;
  int ndip;
  int iswit, matrix, ncyc, idump, iout;
  double a_cmplx, g_cmplx, p_cmplx, w_avrge;
  bool setup_has_cset = false;  // a coarse set was given by the host
};

// Decodes and checks the digit codes and derives the working settings.
// Errors set ierr (> 0) and return at once.
void korn_input(const InputArgs& args);

// Decodes clsolver_finest into the coarsest-solver settings of a one-level run.
void clsolver_finest_parms(int nnu);

// The pair (ncg, nwt) of an n_default code 10..48; false for an illegal code.
bool ncg_nwt_of_default(int n_default, int& ncg, int& nwt);

}  // namespace kornlt
