// The korn-solve program: options, input errors and exit codes, and the
// notes on the matrix file, run as a separate process.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "io/tool_run.hpp"

namespace {

using namespace korn_tool_test;

struct CliCase {
  const char* what;
  std::string args;
  std::string err_text;  // expected on standard error
  bool usage;            // a usage error: the text is followed by a pointer to --help
};

TEST(KornSolve, UsageAndInputErrors) {
  const std::string bad = write_file(
      "bad.mtx", "%%MatrixMarket matrix coordinate real general\n2 2 2\n1 1 4\n3 1 1\n");
  const std::string good = write_file(
      "good.mtx", "%%MatrixMarket matrix coordinate real symmetric\n2 2 3\n1 1 4\n2 1 -1\n2 2 4\n");
  const std::string rhs3 = write_file("rhs3.mtx", "%%MatrixMarket matrix array real general\n3 1\n1\n2\n3\n");
  const std::string rhsbad = write_file("rhsbad.mtx", "%%MatrixMarket matrix array real general\n2 1\n1\n");
  const std::vector<CliCase> cases = {
      {"unknown option", "--bogus", "korn-solve: unknown option --bogus\n", true},
      {"missing value", "--eps", "korn-solve: option --eps needs a value\n", true},
      {"bad real", "--eps 1e-8x", "korn-solve: option --eps needs a real number, got '1e-8x'\n", true},
      {"small grid", "--size 1", "korn-solve: option --size needs an integer >= 2, got '1'\n", true},
      {"huge grid", "--size 641", "korn-solve: --size 641 is too large (at most 640)\n", true},
      {"zero threads", "--threads 0", "korn-solve: option --threads needs an integer >= 1, got '0'\n", true},
      {"two files", good + " " + good, "korn-solve: more than one matrix file: " + good + " and " + good + "\n", true},
      {"set without value", "--set levelx", "korn-solve: --set needs NAME=VALUE, got 'levelx'\n", true},
      {"unknown parameter", "--set nosuch=1", "korn-solve: unknown or read-only parameter 'nosuch' in --set\n", true},
      {"read-only parameter", "--set nrd=1", "korn-solve: unknown or read-only parameter 'nrd' in --set\n", true},
      {"integer parameter", "--set levelx=2.5", "korn-solve: parameter levelx needs an integer, got '2.5'\n", true},
      {"real parameter", "--set rho_ok=fast", "korn-solve: parameter rho_ok needs a real number, got 'fast'\n", true},
      {"logical parameter", "--set keepmem=maybe", "korn-solve: parameter keepmem needs true or false, got 'maybe'\n", true},
      {"bad matrix file", bad, "korn-solve: " + bad + ": line 4: row index 3 out of range 1..2\n", false},
      {"missing matrix file", (workdir() / "none.mtx").string(),
       "korn-solve: " + (workdir() / "none.mtx").string() + ": cannot open file (No such file or directory)\n", false},
      {"rhs of wrong size", "--rhs " + rhs3 + " " + good,
       "korn-solve: " + rhs3 + ": 3 values for a matrix of 2 rows\n", false},
      {"truncated rhs", "--rhs " + rhsbad + " " + good,
       "korn-solve: " + rhsbad + ": line 4: end of file after 1 of 2 declared values\n", false},
  };
  for (const CliCase& c : cases) {
    SCOPED_TRACE(c.what);
    const ToolRun r = run(c.args);
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.err, c.usage ? c.err_text + "(korn-solve --help shows the options)\n" : c.err_text);
  }
}

TEST(KornSolve, HelpListsEveryOption) {
  const ToolRun r = run("--help");
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out.rfind("usage: korn-solve [options] [matrix.mtx]\n", 0), 0u);
  for (const char* opt : {"--rhs", "--eps", "--ncyc", "--iswit", "--nsolve", "--matrix", "--iout", "--idump",
                          "--chktol", "--threads", "--set", "--size", "--seed", "--solution", "--help"})
    EXPECT_NE(r.out.find(std::string("  ") + opt + " "), std::string::npos) << opt;
  EXPECT_TRUE(r.err.empty());
}

TEST(KornSolve, ReportsAddedDiagonalsAndSummedDuplicates) {
  // Rows 2 and 3 lack a diagonal; (1,2) comes twice.
  const std::string f = write_file("nodiag.mtx",
                                   "%%MatrixMarket matrix coordinate real general\n3 3 4\n"
                                   "1 1 4\n1 2 -1\n1 2 -1\n3 2 -1\n");
  const ToolRun r = run(f);
  EXPECT_NE(r.out.find("korn-solve: 1 duplicate entries summed\n"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("korn-solve: warning: explicit 0.0 diagonal added in 2 row(s) without a stored diagonal\n"),
            std::string::npos)
      << r.out;
  EXPECT_NE(r.out.find("korn-solve: " + f + " (general): 3 rows, 5 nonzeros"), std::string::npos) << r.out;
  // The library refuses zero diagonals: an error, reported with its code.
  EXPECT_EQ(r.status, 1) << r.out;
  EXPECT_NE(r.out.find("korn-solve: error "), std::string::npos) << r.out;
}

}  // namespace
