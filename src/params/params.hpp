// The parameter registry: every named, process-wide setting with its default,
// the typed and any-type get/set by name, and the reset.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <span>
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

}  // namespace kornlt
