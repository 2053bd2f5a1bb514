// The parameter registry: names, types, defaults and widths against an
// independent reference list; typed and any-type access by name through the C
// interface; the ignore list of the distributed build; the reset; and the stops
// on unknown names and wrong type codes.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

#include "korn.h"
#include "log/log.hpp"
#include "log/test_support.hpp"
#include "params/params.hpp"
#include "params/reference_table.hpp"

namespace {

using korn_test::literal;
using korn_test::stop_regex;
using testing::ExitedWithCode;

bool is_read_only(std::string_view n) {
  return std::find(std::begin(korn_ref::kReadOnly), std::end(korn_ref::kReadOnly), n) !=
         std::end(korn_ref::kReadOnly);
}

// ---------------------------------------------------------------------------
// The C interface with explicit name lengths (no terminating NUL is passed).
// ---------------------------------------------------------------------------
double c_getdble(std::string_view n) {
  double v = -7.0;
  getdble(n.data(), &v, n.size());
  return v;
}
void c_setdble(std::string_view n, double v) { setdble(n.data(), &v, n.size()); }
int c_getinteger(std::string_view n) {
  int v = -7;
  getinteger(n.data(), &v, n.size());
  return v;
}
void c_setinteger(std::string_view n, int v) { setinteger(n.data(), &v, n.size()); }
int c_getlogical(std::string_view n) {
  int v = -7;
  getlogical(n.data(), &v, n.size());
  return v;
}
void c_setlogical(std::string_view n, int v) { setlogical(n.data(), &v, n.size()); }
void c_setchar(std::string_view n, std::string_view v) { setchar(n.data(), v.data(), n.size(), v.size()); }
// Reads into a buffer of `len` characters; one guard character behind it must survive.
std::string c_getchar(std::string_view n, std::size_t len) {
  std::string buf(len + 1, '#');
  korn_getchar(n.data(), buf.data(), n.size(), len);
  EXPECT_EQ(buf[len], '#') << "korn_getchar wrote past the caller's length for " << n;
  buf.resize(len);
  return buf;
}
void c_setany(std::string_view n, int type, int ival, double dval, int lval, std::string_view cval) {
  setany(n.data(), &type, &ival, &dval, &lval, cval.data(), n.size(), cval.size());
}
struct AnyOut {
  int ival = -11;
  double dval = -11.0;
  int lval = -11;
  std::string cval = std::string(8, '#');
};
AnyOut c_getany(std::string_view n, int type, std::size_t clen = 8) {
  AnyOut o;
  o.cval.assign(clen, '#');
  getany(n.data(), &type, &o.ival, &o.dval, &o.lval, o.cval.data(), n.size(), clen);
  return o;
}

std::string padded(std::string_view v, std::size_t len) {
  std::string s(v.substr(0, std::min(v.size(), len)));
  s.resize(len, ' ');
  return s;
}

// ---------------------------------------------------------------------------
// Whole-registry views
// ---------------------------------------------------------------------------
struct Snapshot {
  std::vector<double> reals;
  std::vector<int> ints;
  std::vector<int> logicals;  // stored bits
  std::vector<std::string> chars;
  bool operator==(const Snapshot&) const = default;
};

Snapshot snapshot() {
  Snapshot s;
  for (const auto& p : korn_ref::kRealDefaults) s.reals.push_back(kornlt::get_double(p.name));
  for (const auto& p : korn_ref::kIntDefaults) s.ints.push_back(kornlt::get_integer(p.name));
  for (const auto& p : korn_ref::kLogicalDefaults)
    s.logicals.push_back(static_cast<const kornlt::Logical*>(
                             kornlt::find_param(kornlt::ParamType::Logical, p.name)->address(kornlt::prm()))
                             ->bits());
  for (const auto& p : korn_ref::kCharDefaults) s.chars.push_back(c_getchar(p.name, 320));
  return s;
}

// Every parameter holds its default; `nversion` holds `nversion_value`.
void expect_defaults(int nversion_value) {
  for (const auto& p : korn_ref::kRealDefaults) EXPECT_EQ(c_getdble(p.name), p.value) << p.name;
  for (const auto& p : korn_ref::kIntDefaults)
    EXPECT_EQ(c_getinteger(p.name), p.name == "nversion" ? nversion_value : p.value) << p.name;
  for (const auto& p : korn_ref::kLogicalDefaults) {
    EXPECT_EQ(c_getlogical(p.name), p.value ? 1 : 0) << p.name;
    EXPECT_EQ(kornlt::get_logical(p.name), p.value) << p.name;
  }
  for (const auto& p : korn_ref::kCharDefaults)
    EXPECT_EQ(c_getchar(p.name, p.width + 9), padded(p.value, p.width + 9)) << p.name;
}

// A value per position that no default has, distinct between parameters.
double real_value(std::size_t k) { return 1000.25 + static_cast<double>(k); }
int int_value(std::size_t k) { return 70000 + static_cast<int>(k); }
std::string char_value(std::size_t k) { return "val" + std::to_string(k); }

void set_all_settable() {
  for (std::size_t k = 0; k < std::size(korn_ref::kRealDefaults); ++k)
    if (!is_read_only(korn_ref::kRealDefaults[k].name)) c_setdble(korn_ref::kRealDefaults[k].name, real_value(k));
  for (std::size_t k = 0; k < std::size(korn_ref::kIntDefaults); ++k)
    if (!is_read_only(korn_ref::kIntDefaults[k].name)) c_setinteger(korn_ref::kIntDefaults[k].name, int_value(k));
  for (const auto& p : korn_ref::kLogicalDefaults) c_setlogical(p.name, p.value ? 0 : 1);
  for (std::size_t k = 0; k < std::size(korn_ref::kCharDefaults); ++k)
    c_setchar(korn_ref::kCharDefaults[k].name, char_value(k));
}

class Registry : public testing::Test {
 protected:
  void SetUp() override {
    korn_reset_parameters();
    kornlt::diag() = kornlt::DiagState{};
  }
  void TearDown() override {
    korn_reset_parameters();
    kornlt::diag() = kornlt::DiagState{};
  }
};
using RegistryDeathTest = Registry;

// ---------------------------------------------------------------------------
// The values at load: checked in a freshly started copy of this program, since
// any reset in this process would already have replaced them.
// ---------------------------------------------------------------------------
TEST(RegistryLoadDeathTest, LoadValuesAreTheDefaultsWithNversionFour) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        expect_defaults(4);
        korn_reset_parameters();
        expect_defaults(-1000000000);
        std::exit(testing::Test::HasFailure() ? 1 : 0);
      },
      ExitedWithCode(0), "");
}

// ---------------------------------------------------------------------------
// Names, counts, widths
// ---------------------------------------------------------------------------
TEST_F(Registry, NamesCountsAndWidthsMatchTheReferenceList) {
  ASSERT_EQ(std::size(korn_ref::kRealDefaults), 66u);
  ASSERT_EQ(std::size(korn_ref::kIntDefaults), 175u);
  ASSERT_EQ(std::size(korn_ref::kLogicalDefaults), 31u);
  ASSERT_EQ(std::size(korn_ref::kCharDefaults), 11u);
  ASSERT_EQ(std::size(korn_ref::kForeignOnly), 174u);

  auto names_of = [](kornlt::ParamType t) {
    std::vector<std::string_view> v;
    for (const auto& p : kornlt::all_params(t)) {
      EXPECT_EQ(p.type, t) << p.name;
      EXPECT_EQ(p.read_only, is_read_only(p.name)) << p.name;
      v.push_back(p.name);
    }
    return v;
  };
  auto ref_names = [](const auto& table) {
    std::vector<std::string_view> v;
    for (const auto& p : table) v.push_back(p.name);
    std::sort(v.begin(), v.end());
    return v;
  };
  EXPECT_EQ(names_of(kornlt::ParamType::Real), ref_names(korn_ref::kRealDefaults));
  EXPECT_EQ(names_of(kornlt::ParamType::Integer), ref_names(korn_ref::kIntDefaults));
  EXPECT_EQ(names_of(kornlt::ParamType::Logical), ref_names(korn_ref::kLogicalDefaults));
  EXPECT_EQ(names_of(kornlt::ParamType::Character), ref_names(korn_ref::kCharDefaults));

  for (const auto& p : korn_ref::kCharDefaults)
    EXPECT_EQ(kornlt::find_param(kornlt::ParamType::Character, p.name)->width, p.width) << p.name;
}

TEST_F(Registry, DefaultsReadBackByName) {
  c_setinteger("nversion", 4);
  korn_reset_parameters();
  expect_defaults(-1000000000);
}

TEST_F(Registry, ParameterTypeQuery) {
  auto type_of = [](std::string_view n) { return korn_parameter_type(n.data(), n.size()); };
  for (const auto& p : korn_ref::kRealDefaults) EXPECT_EQ(type_of(p.name), is_read_only(p.name) ? 0 : 2) << p.name;
  for (const auto& p : korn_ref::kIntDefaults) EXPECT_EQ(type_of(p.name), is_read_only(p.name) ? 0 : 1) << p.name;
  for (const auto& p : korn_ref::kLogicalDefaults) EXPECT_EQ(type_of(p.name), 4) << p.name;
  for (const auto& p : korn_ref::kCharDefaults) EXPECT_EQ(type_of(p.name), 3) << p.name;
  for (std::string_view n : korn_ref::kForeignOnly) EXPECT_EQ(type_of(n), 0) << n;
  EXPECT_EQ(type_of("cl_omp   "), 1);
  EXPECT_EQ(type_of("CL_OMP"), 0);
  EXPECT_EQ(type_of(""), 0);
  EXPECT_EQ(type_of("no_such_parameter"), 0);
}

// ---------------------------------------------------------------------------
// Typed set and get
// ---------------------------------------------------------------------------
TEST_F(Registry, EverySettableParameterHasItsOwnStorage) {
  set_all_settable();
  for (std::size_t k = 0; k < std::size(korn_ref::kRealDefaults); ++k) {
    const auto& p = korn_ref::kRealDefaults[k];
    EXPECT_EQ(c_getdble(p.name), is_read_only(p.name) ? p.value : real_value(k)) << p.name;
  }
  for (std::size_t k = 0; k < std::size(korn_ref::kIntDefaults); ++k) {
    const auto& p = korn_ref::kIntDefaults[k];
    EXPECT_EQ(c_getinteger(p.name), is_read_only(p.name) ? p.value : int_value(k)) << p.name;
  }
  for (std::size_t k = 0; k < std::size(korn_ref::kCharDefaults); ++k) {
    const auto& p = korn_ref::kCharDefaults[k];
    EXPECT_EQ(c_getchar(p.name, 12), padded(char_value(k), std::min<std::size_t>(12, p.width))
                                         .append(12 - std::min<std::size_t>(12, p.width), ' '))
        << p.name;
  }
  // Logicals: five passes, one per bit of the position, tell all 31 apart.
  for (int bit = 0; bit < 5; ++bit) {
    for (std::size_t k = 0; k < std::size(korn_ref::kLogicalDefaults); ++k)
      c_setlogical(korn_ref::kLogicalDefaults[k].name, (k >> bit) & 1);
    for (std::size_t k = 0; k < std::size(korn_ref::kLogicalDefaults); ++k)
      EXPECT_EQ(c_getlogical(korn_ref::kLogicalDefaults[k].name), static_cast<int>((k >> bit) & 1))
          << korn_ref::kLogicalDefaults[k].name << " bit " << bit;
  }
}

TEST_F(Registry, ResetRestoresEveryDefault) {
  set_all_settable();
  c_setinteger("nversion", 4);
  korn_reset_parameters();
  expect_defaults(-1000000000);
}

TEST_F(Registry, CharacterValuesAreCutToTheWidthAndPaddedToTheCallersLength) {
  std::string long_value;
  for (int i = 0; long_value.size() < 400; ++i) long_value += static_cast<char>('a' + i % 26);
  for (const auto& p : korn_ref::kCharDefaults) {
    SCOPED_TRACE(std::string(p.name));
    c_setchar(p.name, long_value);
    EXPECT_EQ(c_getchar(p.name, 450), padded(long_value.substr(0, p.width), 450));
    EXPECT_EQ(c_getchar(p.name, 3), long_value.substr(0, std::min(3, p.width)) +
                                        std::string(3 - std::min(3, p.width), ' '));
    EXPECT_EQ(kornlt::get_char(p.name), long_value.substr(0, p.width));
    // A shorter value replaces the whole field: no rest of the longer one stays.
    c_setchar(p.name, "Q  ");
    EXPECT_EQ(c_getchar(p.name, 450), padded("Q", 450));
    c_setchar(p.name, "");
    EXPECT_EQ(c_getchar(p.name, 5), "     ");
  }
}

TEST_F(Registry, LogicalInputBitZeroDecidesAndOutputIsOneOrZero) {
  struct Case {
    int in;
    int out;
  };
  for (const Case c : {Case{1, 1}, Case{-1, 1}, Case{0, 0}, Case{2, 0}, Case{3, 1}, Case{-2, 0}}) {
    c_setlogical("backup", c.in);
    EXPECT_EQ(c_getlogical("backup"), c.out) << c.in;
    EXPECT_EQ(kornlt::prm().backup.bits(), c.out ? -1 : 0) << c.in;  // stored as -1 / 0
  }
  // The per-parameter accessor takes any non-zero value as true.
  int two = 2, out = -5;
  korn_set_keepmem(&two);
  korn_get_keepmem(&out);
  EXPECT_EQ(out, 1);
  EXPECT_EQ(kornlt::prm().keepmem.bits(), -1);
  const int zero = 0;
  korn_set_keepmem(&zero);
  korn_get_keepmem(&out);
  EXPECT_EQ(out, 0);
}

TEST_F(Registry, PerParameterAccessorsReachTheRegistry) {
  const int n = 4321;
  korn_set_nmin_matrix(&n);
  EXPECT_EQ(c_getinteger("nmin_matrix"), 4321);
  c_setinteger("nmin_vector", 55);
  int got = 0;
  korn_get_nmin_vector(&got);
  EXPECT_EQ(got, 55);

  const double d = 0.625;
  korn_set_omega_smo(&d);
  EXPECT_EQ(c_getdble("omega_smo"), 0.625);

  korn_set_ioform("unformatted", 11);
  EXPECT_EQ(c_getchar("ioform", 4), "u   ");
  c_setchar("logfile", "run.log");
  std::string buf(10, '#');
  korn_get_logfile(buf.data(), buf.size());
  EXPECT_EQ(buf, "run.log   ");
}

TEST_F(Registry, TrailingBlanksOfTheNameDoNotCount) {
  c_setinteger("cl_omp   ", 7);
  EXPECT_EQ(c_getinteger("cl_omp"), 7);
  EXPECT_EQ(c_getinteger("cl_omp "), 7);
  c_setdble("conv_stop  ", 0.125);
  EXPECT_EQ(c_getdble("conv_stop"), 0.125);
  c_setlogical("keepmem ", 1);
  EXPECT_EQ(c_getlogical("keepmem"), 1);
  c_setchar("filnam    ", "abc");
  EXPECT_EQ(c_getchar("filnam ", 4), "abc ");
  c_setany("mode_mess   ", 1, -2, 0.0, 0, "");
  EXPECT_EQ(c_getinteger("mode_mess"), -2);
}

TEST_F(Registry, ReadOnlyNamesAreReadableByTheTypedGetters) {
  for (const auto& p : korn_ref::kRealDefaults) {
    if (is_read_only(p.name)) {
      EXPECT_EQ(c_getdble(p.name), p.value) << p.name;
    }
  }
  for (const auto& p : korn_ref::kIntDefaults) {
    if (is_read_only(p.name)) {
      EXPECT_EQ(c_getinteger(p.name), p.value) << p.name;
    }
  }
}

// ---------------------------------------------------------------------------
// Any-type pair
// ---------------------------------------------------------------------------
TEST_F(Registry, SetanyStoresTheValueOfTheParametersType) {
  // A real parameter with type 1 takes dval, not ival.
  c_setany("conv_stop", 1, 3, 0.25, 0, "");
  EXPECT_EQ(c_getdble("conv_stop"), 0.25);
  c_setany("divergence", 2, 9, 1.75, 0, "");
  EXPECT_EQ(c_getdble("divergence"), 1.75);
  AnyOut o = c_getany("conv_stop", 1);
  EXPECT_EQ(o.dval, 0.25);
  EXPECT_EQ(o.ival, -11);  // left alone
  EXPECT_EQ(c_getany("divergence", 2).dval, 1.75);

  c_setany("nmin_matrix", 1, 800, 5.5, 0, "");
  EXPECT_EQ(c_getinteger("nmin_matrix"), 800);
  o = c_getany("nmin_matrix", 1);
  EXPECT_EQ(o.ival, 800);
  EXPECT_EQ(o.dval, -11.0);

  c_setany("backup", 4, 1, 1.0, 0, "");
  EXPECT_EQ(c_getlogical("backup"), 0);
  EXPECT_EQ(c_getany("backup", 4).lval, 0);
  c_setany("check_order", 4, 0, 0.0, -1, "");
  EXPECT_EQ(c_getlogical("check_order"), 1);
  EXPECT_EQ(c_getany("check_order", 4).lval, 1);

  c_setany("filnam", 3, 0, 0.0, 0, "mymatrix   ");
  EXPECT_EQ(c_getchar("filnam", 10), "mymatrix  ");
  EXPECT_EQ(c_getany("filnam", 3, 10).cval, "mymatrix  ");
  EXPECT_EQ(c_getany("filnam", 3, 4).cval, "myma");
  c_setany("ioform", 3, 0, 0.0, 0, "formatted");
  EXPECT_EQ(c_getany("ioform", 3, 3).cval, "f  ");
}

TEST_F(Registry, SetanyReachesEverySettableParameter) {
  for (std::size_t k = 0; k < std::size(korn_ref::kRealDefaults); ++k) {
    const auto& p = korn_ref::kRealDefaults[k];
    if (is_read_only(p.name)) continue;
    c_setany(p.name, 1 + static_cast<int>(k % 2), 1, real_value(k), 0, "");
    EXPECT_EQ(c_getany(p.name, 2).dval, real_value(k)) << p.name;
  }
  for (std::size_t k = 0; k < std::size(korn_ref::kIntDefaults); ++k) {
    const auto& p = korn_ref::kIntDefaults[k];
    if (is_read_only(p.name)) continue;
    c_setany(p.name, 1, int_value(k), 0.0, 0, "");
    EXPECT_EQ(c_getany(p.name, 1).ival, int_value(k)) << p.name;
  }
  for (const auto& p : korn_ref::kLogicalDefaults) {
    c_setany(p.name, 4, 0, 0.0, p.value ? 0 : -1, "");
    EXPECT_EQ(c_getany(p.name, 4).lval, p.value ? 0 : 1) << p.name;
  }
  for (std::size_t k = 0; k < std::size(korn_ref::kCharDefaults); ++k) {
    const auto& p = korn_ref::kCharDefaults[k];
    c_setany(p.name, 3, 0, 0.0, 0, char_value(k));
    EXPECT_EQ(c_getany(p.name, 3, 1).cval, char_value(k).substr(0, 1)) << p.name;
    EXPECT_EQ(kornlt::get_char(p.name), char_value(k).substr(0, p.width)) << p.name;
  }
}

TEST_F(Registry, NamesOfTheDistributedBuildWarnAndChangeNothing) {
  c_setinteger("nmin_matrix", 99);  // not all defaults: the snapshot must see real state
  const Snapshot before = snapshot();
  std::string expected;
  {
    korn_test::MessageCapture capture;
    int type = 0;
    for (std::string_view n : korn_ref::kForeignOnly) {
      type = type % 4 + 1;  // any type code is accepted for these names
      c_setany(n, type, 5, 6.5, -1, "zzz");
      expected += "+++ WARNG: Use of kornp parm <" + std::string(n) + "> in serial run (setany)!\n";
    }
    // The read-only names are on the same list: setany leaves them alone too.
    for (const auto& p : korn_ref::kRealDefaults)
      if (is_read_only(p.name)) {
        c_setany(p.name, 2, 5, 6.5, -1, "zzz");
        expected += "+++ WARNG: Use of kornp parm <" + std::string(p.name) + "> in serial run (setany)!\n";
      }
    for (const auto& p : korn_ref::kIntDefaults)
      if (is_read_only(p.name)) {
        c_setany(p.name, 1, 5, 6.5, -1, "zzz");
        expected += "+++ WARNG: Use of kornp parm <" + std::string(p.name) + "> in serial run (setany)!\n";
      }
    c_setany("mapping   ", 1, 5, 6.5, -1, "zzz");
    expected += "+++ WARNG: Use of kornp parm <mapping> in serial run (setany)!\n";
    EXPECT_EQ(capture.text(), expected);
  }
  EXPECT_TRUE(snapshot() == before);
  EXPECT_EQ(kornlt::ierr(), 0);
}

// ---------------------------------------------------------------------------
// Stops. Messages are routed to standard error in the child so that the whole
// text can be matched.
// ---------------------------------------------------------------------------
struct StopCase {
  std::function<void()> call;
  std::string message;
  std::string stop_text;
};

void expect_stop(const StopCase& c) {
  SCOPED_TRACE(c.message);
  EXPECT_EXIT(
      {
        kornlt::diag().msg_unit = 0;
        c.call();
      },
      ExitedWithCode(EXIT_FAILURE), stop_regex(c.message, c.stop_text));
}

TEST_F(RegistryDeathTest, TypedAccessWithANameOfAnotherListStops) {
  const std::vector<StopCase> cases = {
      {[] { c_setdble("cl_omp", 1.0); }, "Unknown double precision parameter <cl_omp> (setdble)!",
       "korn_set:terminated!"},
      {[] { c_getdble("backup"); }, "Unknown double precision parameter <backup> (getdble)!",
       "korn_get:terminated!"},
      {[] { c_setinteger("conv_stop", 1); }, "Unknown integer parameter <conv_stop> (setinteger)!",
       "korn_set:terminated!"},
      {[] { c_getinteger("logfile  "); }, "Unknown integer parameter <logfile> (getinteger)!",
       "korn_get:terminated!"},
      {[] { c_setlogical("nmin_matrix", 1); }, "Unknown logical parameter <nmin_matrix> (setlogical)!",
       "korn_set:terminated!"},
      {[] { c_getlogical("omega_smo"); }, "Unknown logical parameter <omega_smo> (getlogical)!",
       "korn_get:terminated!"},
      {[] { c_setchar("keepmem", "x"); }, "Unknown character parameter <keepmem> (setchar)!",
       "korn_set:terminated!"},
      {[] { c_getchar("mode_mess", 4); }, "Unknown character parameter <mode_mess> (getchar)!",
       "korn_get:terminated!"},
      // Names of the distributed build are unknown to the typed routines.
      {[] { c_setinteger("itrace_mpi", 1); }, "Unknown integer parameter <itrace_mpi> (setinteger)!",
       "korn_set:terminated!"},
      {[] { c_getinteger("mapping"); }, "Unknown integer parameter <mapping> (getinteger)!",
       "korn_get:terminated!"},
      // Case matters.
      {[] { c_setinteger("CL_OMP", 1); }, "Unknown integer parameter <CL_OMP> (setinteger)!",
       "korn_set:terminated!"},
      {[] { c_getinteger("Cl_omp"); }, "Unknown integer parameter <Cl_omp> (getinteger)!",
       "korn_get:terminated!"},
      {[] { c_getdble("Conv_Stop"); }, "Unknown double precision parameter <Conv_Stop> (getdble)!",
       "korn_get:terminated!"},
  };
  for (const auto& c : cases) expect_stop(c);
}

TEST_F(RegistryDeathTest, ReadOnlyNamesCannotBeSet) {
  for (std::string_view n : korn_ref::kReadOnly) {
    const bool real = kornlt::find_param(kornlt::ParamType::Real, n) != nullptr;
    const std::string name(n);
    if (real)
      expect_stop({[name] { c_setdble(name, 1.0); },
                   "Unknown double precision parameter <" + name + "> (setdble)!", "korn_set:terminated!"});
    else
      expect_stop({[name] { c_setinteger(name, 1); }, "Unknown integer parameter <" + name + "> (setinteger)!",
                   "korn_set:terminated!"});
  }
}

TEST_F(RegistryDeathTest, AnyTypeWithAWrongTypeCodeStops) {
  auto set_case = [](std::string name, int type) {
    return StopCase{[name, type] { c_setany(name, type, 1, 1.0, 0, "x"); },
                    "Argument of parameter <" + name + "> has unexpected type (setany)!",
                    "korn_setany:terminated!"};
  };
  auto get_case = [](std::string name, int type) {
    return StopCase{[name, type] { c_getany(name, type); },
                    "Argument of parameter <" + name + "> has unexpected type (getany)!",
                    "korn_getany:terminated!"};
  };
  // Integers take only 1, characters only 3, logicals only 4, reals 1 or 2.
  const std::vector<StopCase> cases = {
      set_case("cl_omp", 2),    set_case("cl_omp", 3),    set_case("cl_omp", 4),   set_case("cl_omp", 0),
      set_case("conv_stop", 3), set_case("conv_stop", 4), set_case("conv_stop", 5), set_case("logfile", 1),
      set_case("logfile", 2),   set_case("backup", 1),    set_case("backup", 2),    set_case("backup", 3),
      get_case("cl_omp", 2),    get_case("conv_stop", 3), get_case("logfile", 4),   get_case("backup", 1),
  };
  for (const auto& c : cases) expect_stop(c);
}

TEST_F(RegistryDeathTest, UnknownNameInSetanyStops) {
  for (std::string name : {"no_such_parm", "CL_OMP", "mappingx"})
    expect_stop({[name] { c_setany(name + "  ", 1, 1, 1.0, 0, ""); },
                 "Unknown or unsupported parameter <" + name + "> (setany)!", "korn_setany:terminated!"});
  EXPECT_EXIT(c_getany("no_such_parm", 1), ExitedWithCode(EXIT_FAILURE), literal("korn_getany:terminated!"));
}

TEST_F(RegistryDeathTest, IgnoredNameWithAWrongTypeCodeStopsInTheIgnoreList) {
  auto ignore_case = [](std::string name, int type) {
    return StopCase{
        [name, type] { c_setany(name, type, 1, 1.0, 0, ""); },
        "Argument of parameter <" + name + "> has unexpected type (ignore_kornp_parm)!\n*** ERROR: "
        "ignore_kornp_parm:terminated! (12)",
        ">>> Emergency STOP! <<<"};
  };
  expect_stop(ignore_case("ecg", 3));  // a read-only real
  expect_stop(ignore_case("ncg", 2));  // a read-only integer
  expect_stop(ignore_case("mapping", 9));
}

}  // namespace
