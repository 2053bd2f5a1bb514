// The parameter registry: names, types, defaults and widths against an
// independent reference list; typed and any-type access by name through the C
// interface; the ignore list of the distributed build; the reset; and the stops
// on unknown names and wrong type codes, with their exact texts.
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

using korn_test::stop_regex;
using testing::ExitedWithCode;

bool is_read_only(std::string_view n) {
  return std::find(std::begin(korn_ref::kReadOnly), std::end(korn_ref::kReadOnly), n) !=
         std::end(korn_ref::kReadOnly);
}

// The C interface with explicit name lengths (no terminating NUL is passed).
double c_getdble(std::string_view n) {
  double v = -7.0;
  return getdble(n.data(), &v, n.size()), v;
}
int c_getinteger(std::string_view n) {
  int v = -7;
  return getinteger(n.data(), &v, n.size()), v;
}
int c_getlogical(std::string_view n) {
  int v = -7;
  return getlogical(n.data(), &v, n.size()), v;
}
void c_setdble(std::string_view n, double v) { setdble(n.data(), &v, n.size()); }
void c_setinteger(std::string_view n, int v) { setinteger(n.data(), &v, n.size()); }
void c_setlogical(std::string_view n, int v) { setlogical(n.data(), &v, n.size()); }
void c_setchar(std::string_view n, std::string_view v) { setchar(n.data(), v.data(), n.size(), v.size()); }
// Reads into a buffer of `len` characters; one guard character behind it must survive.
std::string c_getchar(std::string_view n, std::size_t len) {
  std::string buf(len + 1, '#');
  korn_getchar(n.data(), buf.data(), n.size(), len);
  EXPECT_EQ(buf[len], '#') << "korn_getchar wrote past the caller's length for " << n;
  return buf.substr(0, len);
}
void c_setany(std::string_view n, int type, int ival, double dval, int lval, std::string_view cval) {
  setany(n.data(), &type, &ival, &dval, &lval, cval.data(), n.size(), cval.size());
}
void c_getany(std::string_view n, int type) {
  int ival = 0, lval = 0;
  double dval = 0.0;
  char cval[8];
  getany(n.data(), &type, &ival, &dval, &lval, cval, n.size(), sizeof cval);
}

std::string padded(std::string_view v, std::size_t len) {
  std::string s(v.substr(0, std::min(v.size(), len)));
  s.resize(len, ' ');
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

class Registry : public testing::Test {
 protected:
  void SetUp() override {
    korn_reset_parameters();
    kornlt::diag() = kornlt::DiagState{};
  }
  void TearDown() override { SetUp(); }
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

// Every name of the reference list has its type code in the C query (0 for
// read-only, unknown and foreign names) and the library holds no other names.
TEST_F(Registry, NamesTypesAndWidthsMatchTheReferenceList) {
  EXPECT_EQ(kornlt::all_params(kornlt::ParamType::Real).size(), std::size(korn_ref::kRealDefaults));
  EXPECT_EQ(kornlt::all_params(kornlt::ParamType::Integer).size(), std::size(korn_ref::kIntDefaults));
  EXPECT_EQ(kornlt::all_params(kornlt::ParamType::Logical).size(), std::size(korn_ref::kLogicalDefaults));
  EXPECT_EQ(kornlt::all_params(kornlt::ParamType::Character).size(), std::size(korn_ref::kCharDefaults));
  for (const auto& p : korn_ref::kCharDefaults)
    EXPECT_EQ(kornlt::find_param(kornlt::ParamType::Character, p.name)->width, p.width) << p.name;
  auto type_of = [](std::string_view n) { return korn_parameter_type(n.data(), n.size()); };
  for (const auto& p : korn_ref::kRealDefaults) EXPECT_EQ(type_of(p.name), is_read_only(p.name) ? 0 : 2) << p.name;
  for (const auto& p : korn_ref::kIntDefaults) EXPECT_EQ(type_of(p.name), is_read_only(p.name) ? 0 : 1) << p.name;
  for (const auto& p : korn_ref::kLogicalDefaults) EXPECT_EQ(type_of(p.name), 4) << p.name;
  for (const auto& p : korn_ref::kCharDefaults) EXPECT_EQ(type_of(p.name), 3) << p.name;
  for (std::string_view n : korn_ref::kForeignOnly) EXPECT_EQ(type_of(n), 0) << n;
  EXPECT_EQ(type_of("cl_omp   "), 1);  // trailing blanks of a name do not count; case does
  EXPECT_EQ(type_of("CL_OMP"), 0);
}

// Every settable parameter has storage of its own (distinct values read back
// by name, some set through setany) and a reset restores every default.
TEST_F(Registry, EverySettableParameterHasItsOwnStorageAndResetRestoresIt) {
  const auto& reals = korn_ref::kRealDefaults;
  const auto& ints = korn_ref::kIntDefaults;
  const auto& chars = korn_ref::kCharDefaults;
  for (std::size_t k = 0; k < std::size(reals); ++k) {
    if (is_read_only(reals[k].name)) continue;
    if (k % 3 == 0) c_setdble(reals[k].name, 1000.25 + k);
    else c_setany(reals[k].name, k % 3, 1, 1000.25 + k, 0, "");  // type code 1 or 2: dval is taken
  }
  for (std::size_t k = 0; k < std::size(ints); ++k) {
    if (is_read_only(ints[k].name)) continue;
    if (k % 2) c_setinteger(ints[k].name, 70000 + static_cast<int>(k));
    else c_setany(ints[k].name, 1, 70000 + static_cast<int>(k), 0.0, 0, "");
  }
  // Characters: a long value, distinct per parameter, is cut to the width and
  // padded (or cut) to the caller's length; a shorter one replaces all of it.
  auto char_value = [](std::size_t k) {
    std::string v = std::to_string(k) + "_";
    for (int i = 0; v.size() < 400; ++i) v += static_cast<char>('a' + i % 26);
    return v;
  };
  for (std::size_t k = 0; k < std::size(chars); ++k) c_setchar(chars[k].name, char_value(k));
  for (std::size_t k = 0; k < std::size(reals); ++k)
    EXPECT_EQ(c_getdble(reals[k].name), is_read_only(reals[k].name) ? reals[k].value : 1000.25 + k) << reals[k].name;
  for (std::size_t k = 0; k < std::size(ints); ++k)
    EXPECT_EQ(c_getinteger(ints[k].name), is_read_only(ints[k].name) ? ints[k].value : 70000 + static_cast<int>(k))
        << ints[k].name;
  for (std::size_t k = 0; k < std::size(chars); ++k) {
    const std::string v = char_value(k).substr(0, chars[k].width);
    EXPECT_EQ(c_getchar(chars[k].name, 450), padded(v, 450)) << chars[k].name;
    EXPECT_EQ(c_getchar(chars[k].name, 3), padded(v, 3)) << chars[k].name;
  }
  c_setchar("filnam", "Q  ");
  EXPECT_EQ(c_getchar("filnam", 450), padded("Q", 450));
  // Logicals: five passes, one per bit of the position, tell all 31 apart. Bit
  // zero of the input decides (-1, 1, 3 are true; 0, 2 false); 1 or 0 comes back.
  const auto& logicals = korn_ref::kLogicalDefaults;
  for (int bit = 0; bit < 5; ++bit) {
    for (std::size_t k = 0; k < std::size(logicals); ++k)
      c_setlogical(logicals[k].name, (k >> bit) & 1 ? (k % 3 == 0 ? -1 : k % 3 == 1 ? 1 : 3) : (k % 2 ? 2 : 0));
    for (std::size_t k = 0; k < std::size(logicals); ++k)
      EXPECT_EQ(c_getlogical(logicals[k].name), static_cast<int>((k >> bit) & 1)) << logicals[k].name << bit;
  }
  EXPECT_EQ(kornlt::prm().backup.bits(), kornlt::get_logical("backup") ? -1 : 0);  // stored as -1 or 0
  c_setinteger("nversion", 4);
  korn_reset_parameters();
  expect_defaults(-1000000000);
}

// Names of the distributed build and the read-only names: setany warns and
// changes nothing, whatever the type code.
TEST_F(Registry, IgnoredNamesWarnAndChangeNothing) {
  std::vector<std::string_view> names(std::begin(korn_ref::kForeignOnly), std::end(korn_ref::kForeignOnly));
  names.insert(names.end(), std::begin(korn_ref::kReadOnly), std::end(korn_ref::kReadOnly));
  std::string expected;
  korn_test::MessageCapture capture;
  for (std::size_t k = 0; k < names.size(); ++k) {
    const bool read_only = is_read_only(names[k]);
    const bool real = read_only && kornlt::find_param(kornlt::ParamType::Real, names[k]);
    c_setany(std::string(names[k]) + (k % 3 ? "" : "   "), read_only ? (real ? 2 : 1) : 1 + k % 4, 5, 6.5, -1, "z");
    expected += "+++ WARNG: Use of kornp parm <" + std::string(names[k]) + "> in serial run (setany)!\n";
  }
  EXPECT_EQ(capture.text(), expected);
  expect_defaults(-1000000000);
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

TEST_F(RegistryDeathTest, UnknownNamesAndWrongTypeCodesStop) {
  const std::string set = "korn_set:terminated!", get = "korn_get:terminated!";
  const std::string setany_stop = "korn_setany:terminated!", getany_stop = "korn_getany:terminated!";
  const std::vector<StopCase> cases = {
      // A name of another type's list, a read-only name, a foreign name, another case.
      {[] { c_setdble("cl_omp", 1.0); }, "Unknown double precision parameter <cl_omp> (setdble)!", set},
      {[] { c_getinteger("logfile  "); }, "Unknown integer parameter <logfile> (getinteger)!", get},
      {[] { c_getchar("mode_mess", 4); }, "Unknown character parameter <mode_mess> (getchar)!", get},
      {[] { c_setinteger("nrd", 1); }, "Unknown integer parameter <nrd> (setinteger)!", set},
      {[] { c_getinteger("mapping"); }, "Unknown integer parameter <mapping> (getinteger)!", get},
      {[] { c_setinteger("CL_OMP", 1); }, "Unknown integer parameter <CL_OMP> (setinteger)!", set},
      {[] { c_setany("no_such_parm  ", 1, 1, 1.0, 0, ""); },
       "Unknown or unsupported parameter <no_such_parm> (setany)!", setany_stop},
      // Integers take only type code 1, characters 3, logicals 4, reals 1 or 2.
      {[] { c_setany("cl_omp", 2, 1, 1.0, 0, ""); }, "Argument of parameter <cl_omp> has unexpected type (setany)!",
       setany_stop},
      {[] { c_setany("backup", 1, 1, 1.0, 0, ""); }, "Argument of parameter <backup> has unexpected type (setany)!",
       setany_stop},
      {[] { c_getany("logfile", 4); }, "Argument of parameter <logfile> has unexpected type (getany)!", getany_stop},
      // An ignored name with a type code no parameter has.
      {[] { c_setany("mapping", 9, 1, 1.0, 0, ""); },
       "Argument of parameter <mapping> has unexpected type (ignore_kornp_parm)!\n*** ERROR: "
       "ignore_kornp_parm:terminated! (12)",
       ">>> Emergency STOP! <<<"},
  };
  for (const StopCase& c : cases)
    EXPECT_EXIT(
        {
          kornlt::diag().msg_unit = 0;
          c.call();
        },
        ExitedWithCode(EXIT_FAILURE), stop_regex(c.message, c.stop_text))
        << c.message;
}

}  // namespace
