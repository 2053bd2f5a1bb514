// The korn-solve program run as a process: usage and input errors with exit
// code 2, a refused matrix with exit code 1, and solves of a file (checked
// against the matrix by a product written here) and of the built-in problem.
#include <gtest/gtest.h>

#include <cmath>
#include <fstream>
#include <string>
#include <vector>

#include "io/tool_run.hpp"

namespace {

using namespace korn_tool_test;

TEST(KornSolve, UsageAndInputErrorsExitWithTwo) {
  const std::string bad = write_file("bad.mtx", "%%MatrixMarket matrix coordinate real general\n2 2 2\n1 1 4\n3 1 1\n");
  const std::string good =
      write_file("good.mtx", "%%MatrixMarket matrix coordinate real symmetric\n2 2 3\n1 1 4\n2 1 -1\n2 2 4\n");
  const std::string rhs3 = write_file("rhs3.mtx", "%%MatrixMarket matrix array real general\n3 1\n1\n2\n3\n");
  const std::string none = (workdir() / "none.mtx").string();
  const std::string help = "(korn-solve --help shows the options)\n";
  const std::pair<std::string, std::string> cases[] = {
      {"--bogus", "korn-solve: unknown option --bogus\n" + help},
      {"--eps 1e-8x", "korn-solve: option --eps needs a real number, got '1e-8x'\n" + help},
      {"--set nrd=1", "korn-solve: unknown or read-only parameter 'nrd' in --set\n" + help},
      {bad, "korn-solve: " + bad + ": line 4: row index 3 out of range 1..2\n"},
      {none, "korn-solve: " + none + ": cannot open file (No such file or directory)\n"},
      {"--rhs " + rhs3 + " " + good, "korn-solve: " + rhs3 + ": 3 values for a matrix of 2 rows\n"},
  };
  for (const auto& [args, err] : cases) {
    const ToolRun r = run(args);
    EXPECT_EQ(r.status, 2) << args;
    EXPECT_EQ(r.err, err);
  }
}

TEST(KornSolve, RefusedMatrixExitsWithOneAfterTheNotesOnTheFile) {
  // Rows 2 and 3 lack a diagonal (added as 0.0, which the library refuses); (1,2) comes twice.
  const std::string f = write_file(
      "nodiag.mtx", "%%MatrixMarket matrix coordinate real general\n3 3 4\n1 1 4\n1 2 -1\n1 2 -1\n3 2 -1\n");
  const ToolRun r = run(f);
  EXPECT_EQ(r.status, 1) << r.out;
  const std::string notes[] = {
      "korn-solve: 1 duplicate entries summed\n",
      "korn-solve: warning: explicit 0.0 diagonal added in 2 row(s) without a stored diagonal\n",
      "korn-solve: " + f + " (general): 3 rows, 5 nonzeros", "korn-solve: error "};
  for (const std::string& note : notes)
    EXPECT_NE(r.out.find(note), std::string::npos) << note << "\n" << r.out;
}

// A 1D SPD matrix (diagonal 4, couplings -1 at distances 1 and 7), its lower
// triangle as a symmetric file; a right-hand side from a file, and the solution
// written back and checked by an independent product.
TEST(KornSolve, SolvesAFileAndWritesTheSolution) {
  const int n = 50;
  std::string body, rhs = "%%MatrixMarket matrix array real general\n" + std::to_string(n) + " 1\n";
  std::vector<double> fv(n);
  for (int i = 1; i <= n; ++i) {
    body += std::to_string(i) + " " + std::to_string(i) + " 4\n";
    for (int d : {1, 7})
      if (i > d) body += std::to_string(i) + " " + std::to_string(i - d) + " -1\n";
    fv[i - 1] = std::sin(0.3 * i) + 0.1 * i;
    rhs += std::to_string(fv[i - 1]) + "\n";
  }
  const std::string f = write_file("spd.mtx", "%%MatrixMarket matrix coordinate real symmetric\n50 50 " +
                                                  std::to_string(n + (n - 1) + (n - 7)) + "\n" + body);
  const std::string sol = (workdir() / "u.mtx").string();
  const ToolRun r = run("--rhs " + write_file("rhs.mtx", rhs) + " --solution " + sol + " --eps 1e-10 " + f);
  ASSERT_EQ(r.status, 0) << r.out << r.err;
  std::ifstream in(sol);
  std::string line;
  std::getline(in, line);
  EXPECT_EQ(line, "%%MatrixMarket matrix array real general");
  std::getline(in, line);
  EXPECT_EQ(line, "50 1");
  std::vector<double> u;
  for (double x; in >> x;) u.push_back(x);
  ASSERT_EQ(static_cast<int>(u.size()), n);
  for (int i = 0; i < n; ++i) {
    double ax = 4.0 * u[i];
    for (int d : {1, 7}) ax -= (i >= d ? u[i - d] : 0.0) + (i + d < n ? u[i + d] : 0.0);
    EXPECT_NEAR(ax, std::stod(std::to_string(fv[i])), 1e-7) << i;
  }
}

// The built-in problem: 4^3 cells less 2*1*2 fixed. Its true residual,
// computed by the program, agrees with the library's final norm.
TEST(KornSolve, ModelProblemRuns) {
  const ToolRun r = run("--size 4 --threads 1");
  EXPECT_EQ(r.status, 0) << r.out << r.err;
  EXPECT_NE(r.out.find("korn-solve: groundwater model 4x4x4 (4 fixed-head cells, 4 wells): 60 rows, "),
            std::string::npos)
      << r.out;
  const double res_in = value_after(r.out, "  res_in "), res_out = value_after(r.out, "  res_out ");
  EXPECT_GT(res_in, 0.0) << r.out;
  EXPECT_GE(res_out, 0.0) << r.out;
  EXPECT_LT(res_out, res_in) << r.out;
  EXPECT_NEAR(value_after(r.out, "korn-solve: true residual ||f - A u||_2 = "), res_out, 1e-6 * (res_in + res_out));
}

}  // namespace
