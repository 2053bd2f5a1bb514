// The parameter registry: the table of names, lookups and typed access by name.
#include <algorithm>
#include <array>
#include <string>

#include "log/log.hpp"
#include "params/params.hpp"

namespace kornlt {

Params& prm() {
  static Params params = Params::at_load();
  return params;
}

InForce& in_force() {
  static InForce values;
  return values;
}

void reset_parameters() {
  prm() = Params{};
  in_force() = InForce{};
}

namespace {

// ---------------------------------------------------------------------------
// One table per type, each in name order, built from korn_parameters.def.
// ---------------------------------------------------------------------------
#define KORN_ENTRY(n, type, width, ro) \
  ParamInfo{#n, type, width, ro, [](Params& p) -> void* { return &p.n; }},
// The read-only names report the values in force of the last call.
#define KORN_ENTRY_RO(n, type) \
  ParamInfo{#n, type, 0, true, [](Params&) -> void* { return &in_force().n; }},

constexpr ParamInfo kRealParams[] = {
#define KORN_REAL(n, d) KORN_ENTRY(n, ParamType::Real, 0, false)
#define KORN_REAL_RO(n, d) KORN_ENTRY_RO(n, ParamType::Real)
#define KORN_INT(n, d)
#define KORN_INT_RO(n, d)
#define KORN_LOGICAL(n, d)
#define KORN_CHAR(n, w, d)
#include "korn_parameters.def"
#undef KORN_REAL
#undef KORN_REAL_RO
#undef KORN_INT
#undef KORN_INT_RO
#undef KORN_LOGICAL
#undef KORN_CHAR
};

constexpr ParamInfo kIntParams[] = {
#define KORN_REAL(n, d)
#define KORN_REAL_RO(n, d)
#define KORN_INT(n, d) KORN_ENTRY(n, ParamType::Integer, 0, false)
#define KORN_INT_RO(n, d) KORN_ENTRY_RO(n, ParamType::Integer)
#define KORN_LOGICAL(n, d)
#define KORN_CHAR(n, w, d)
#include "korn_parameters.def"
#undef KORN_REAL
#undef KORN_REAL_RO
#undef KORN_INT
#undef KORN_INT_RO
#undef KORN_LOGICAL
#undef KORN_CHAR
};

constexpr ParamInfo kLogicalParams[] = {
#define KORN_REAL(n, d)
#define KORN_REAL_RO(n, d)
#define KORN_INT(n, d)
#define KORN_INT_RO(n, d)
#define KORN_LOGICAL(n, d) KORN_ENTRY(n, ParamType::Logical, 0, false)
#define KORN_CHAR(n, w, d)
#include "korn_parameters.def"
#undef KORN_REAL
#undef KORN_REAL_RO
#undef KORN_INT
#undef KORN_INT_RO
#undef KORN_LOGICAL
#undef KORN_CHAR
};

constexpr ParamInfo kCharParams[] = {
#define KORN_REAL(n, d)
#define KORN_REAL_RO(n, d)
#define KORN_INT(n, d)
#define KORN_INT_RO(n, d)
#define KORN_LOGICAL(n, d)
#define KORN_CHAR(n, w, d) KORN_ENTRY(n, ParamType::Character, w, false)
#include "korn_parameters.def"
#undef KORN_REAL
#undef KORN_REAL_RO
#undef KORN_INT
#undef KORN_INT_RO
#undef KORN_LOGICAL
#undef KORN_CHAR
};
#undef KORN_ENTRY
#undef KORN_ENTRY_RO

constexpr std::string_view kForeignNames[] = {
#define KORN_FOREIGN(n) #n,
#include "params/foreign_names.def"
#undef KORN_FOREIGN
};

constexpr bool by_name(const ParamInfo& a, const ParamInfo& b) { return a.name < b.name; }
static_assert(std::is_sorted(std::begin(kRealParams), std::end(kRealParams), by_name));
static_assert(std::is_sorted(std::begin(kIntParams), std::end(kIntParams), by_name));
static_assert(std::is_sorted(std::begin(kLogicalParams), std::end(kLogicalParams), by_name));
static_assert(std::is_sorted(std::begin(kCharParams), std::end(kCharParams), by_name));
static_assert(std::size(kRealParams) + std::size(kIntParams) + std::size(kLogicalParams) +
                  std::size(kCharParams) == 283);

const ParamInfo* lookup(std::span<const ParamInfo> table, std::string_view name) {
  const auto it = std::lower_bound(table.begin(), table.end(), name,
                                   [](const ParamInfo& p, std::string_view n) { return p.name < n; });
  return it != table.end() && it->name == name ? &*it : nullptr;
}

struct TypeNames {
  std::string_view long_name;  // as in "Unknown <long_name> parameter <...>"
  std::string_view setter, getter;
};
TypeNames type_names(ParamType t) {
  switch (t) {
    case ParamType::Real: return {"double precision", "setdble", "getdble"};
    case ParamType::Integer: return {"integer", "setinteger", "getinteger"};
    case ParamType::Logical: return {"logical", "setlogical", "getlogical"};
    case ParamType::Character: break;
  }
  return {"character", "setchar", "getchar"};
}

// Finds a parameter for a typed routine; an unknown name ends the process.
const ParamInfo& typed(ParamType type, std::string_view name, bool setting) {
  const ParamInfo* p = find_param(type, name);
  if (p != nullptr && !(setting && p->read_only)) return *p;
  const TypeNames t = type_names(type);
  stop_process("Unknown " + std::string(t.long_name) + " parameter <" + std::string(trim_name(name)) +
                   "> (" + std::string(setting ? t.setter : t.getter) + ")!",
               setting ? "korn_set:terminated!" : "korn_get:terminated!");
}

template <class T>
T& value_of(const ParamInfo& p) {
  return *static_cast<T*>(p.address(prm()));
}

// Character parameters have different widths; all are FixedString<W> with the
// same layout, so they are reached through these two helpers by width.
template <std::size_t... W>
struct CharWidths {
  static void set(const ParamInfo& p, std::string_view v) {
    ((p.width == static_cast<int>(W) ? value_of<FixedString<W>>(p).assign(v) : void()), ...);
  }
  static std::string_view get(const ParamInfo& p) {
    std::string_view out;
    ((p.width == static_cast<int>(W) ? void(out = value_of<FixedString<W>>(p).padded()) : void()), ...);
    return out;
  }
};
using AllCharWidths = CharWidths<1, 100, 200, 300>;

// True when `type` is a legal any-type code for parameter type `t`.
bool type_code_fits(ParamType t, int type) {
  if (t == ParamType::Real) return type == 1 || type == 2;
  return static_cast<int>(t) == type;
}

[[noreturn]] void unexpected_type(std::string_view name, std::string_view routine, std::string_view stop) {
  stop_process("Argument of parameter <" + std::string(trim_name(name)) + "> has unexpected type (" +
                   std::string(routine) + ")!",
               stop);
}

// A name that a parameter file for the distributed build may hold: `found`
// becomes true after a check of the type code.
void ignore_kornp_parm(bool& found, std::string_view name, int type) {
  found = false;
  if (!is_foreign_param(name)) return;
  const ParamInfo* p = find_param_any_type(name);
  const bool ok = p != nullptr ? type_code_fits(p->type, type) : (type >= 1 && type <= 4);
  if (!ok) {
    print_message(kMsgError, 0, 0,
                  "Argument of parameter <" + std::string(trim_name(name)) +
                      "> has unexpected type (ignore_kornp_parm)!");
    emergency_stop("ignore_kornp_parm:terminated! (12)");
  }
  found = true;
}

}  // namespace

std::span<const ParamInfo> all_params(ParamType type) {
  switch (type) {
    case ParamType::Real: return kRealParams;
    case ParamType::Integer: return kIntParams;
    case ParamType::Logical: return kLogicalParams;
    case ParamType::Character: break;
  }
  return kCharParams;
}

const ParamInfo* find_param(ParamType type, std::string_view name) {
  return lookup(all_params(type), trim_name(name));
}

const ParamInfo* find_param_any_type(std::string_view name) {
  for (ParamType t : {ParamType::Integer, ParamType::Real, ParamType::Character, ParamType::Logical})
    if (const ParamInfo* p = find_param(t, name)) return p;
  return nullptr;
}

bool is_foreign_param(std::string_view name) {
  name = trim_name(name);
  if (std::find(std::begin(kForeignNames), std::end(kForeignNames), name) != std::end(kForeignNames))
    return true;
  // The list holds every name of this registry too, so one file serves both builds.
  return find_param_any_type(name) != nullptr;
}

// ---------------------------------------------------------------------------
// Typed access
// ---------------------------------------------------------------------------
void set_double(std::string_view name, double v) { value_of<double>(typed(ParamType::Real, name, true)) = v; }
double get_double(std::string_view name) { return value_of<double>(typed(ParamType::Real, name, false)); }
void set_integer(std::string_view name, int v) { value_of<int>(typed(ParamType::Integer, name, true)) = v; }
int get_integer(std::string_view name) { return value_of<int>(typed(ParamType::Integer, name, false)); }
void set_logical(std::string_view name, bool v) {
  value_of<Logical>(typed(ParamType::Logical, name, true)) = Logical(v);
}
bool get_logical(std::string_view name) {
  return bool(value_of<Logical>(typed(ParamType::Logical, name, false)));
}
void set_char(std::string_view name, std::string_view v) {
  AllCharWidths::set(typed(ParamType::Character, name, true), v);
}
std::string_view get_char(std::string_view name) {
  const std::string_view s = AllCharWidths::get(typed(ParamType::Character, name, false));
  const auto last = s.find_last_not_of(' ');
  return last == std::string_view::npos ? std::string_view{} : s.substr(0, last + 1);
}

// ---------------------------------------------------------------------------
// Any-type pair
// ---------------------------------------------------------------------------
void set_any(std::string_view name, int type, int ival, double dval, bool lval, std::string_view cval) {
  const ParamInfo* p = find_param_any_type(name);
  if (p != nullptr && p->read_only) p = nullptr;
  if (p == nullptr) {
    bool found = false;
    ignore_kornp_parm(found, name, type);
    if (!found)
      stop_process("Unknown or unsupported parameter <" + std::string(trim_name(name)) + "> (setany)!",
                   "korn_setany:terminated!");
    print_message(kMsgWarning, 0, 0,
                  "Use of kornp parm <" + std::string(trim_name(name)) + "> in serial run (setany)!");
    return;
  }
  if (!type_code_fits(p->type, type)) unexpected_type(name, "setany", "korn_setany:terminated!");
  switch (p->type) {
    case ParamType::Real: value_of<double>(*p) = dval; break;
    case ParamType::Integer: value_of<int>(*p) = ival; break;
    case ParamType::Logical: value_of<Logical>(*p) = Logical(lval); break;
    case ParamType::Character: AllCharWidths::set(*p, cval); break;
  }
}

AnyValue get_any(std::string_view name, int type) {
  const ParamInfo* p = find_param_any_type(name);
  if (p == nullptr || p->read_only)
    stop_process("Unknown or unsupported parameter <" + std::string(trim_name(name)) + "> (getany)!",
                 "korn_getany:terminated!");
  if (!type_code_fits(p->type, type)) unexpected_type(name, "getany", "korn_getany:terminated!");
  AnyValue v;
  switch (p->type) {
    case ParamType::Real: v.dval = value_of<double>(*p); break;
    case ParamType::Integer: v.ival = value_of<int>(*p); break;
    case ParamType::Logical: v.lval = bool(value_of<Logical>(*p)); break;
    case ParamType::Character: v.cval = AllCharWidths::get(*p); break;
  }
  return v;
}

}  // namespace kornlt
