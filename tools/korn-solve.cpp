// korn-solve: solves one linear system with the core call `korn`, read from a
// Matrix Market file or built as the groundwater model problem, and reports
// cycles, residuals and times.
#include <omp.h>

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "io/io.hpp"
#include "korn.h"

namespace {

constexpr int kExitSolverError = 1;
constexpr int kExitUsage = 2;

const char* const kUsage =
    "usage: korn-solve [options] [matrix.mtx]\n"
    "\n"
    "Solves A u = f with the KORN-LT core call. Without a matrix file the built-in\n"
    "groundwater-flow problem is solved: a layered, heterogeneous 3D seven-point\n"
    "operator on an N x N x N cell grid with fixed-head cells and wells.\n"
    "\n"
    "The matrix file is a Matrix Market coordinate file (real, integer or pattern;\n"
    "general or symmetric). Duplicates are summed, a symmetric file is expanded,\n"
    "and a row without a stored diagonal gets an explicit 0.0 diagonal (with a\n"
    "warning). Right-hand side: --rhs FILE, else f = A*1, so that the exact\n"
    "solution is all ones and the largest error against it is reported. The\n"
    "first guess is u = 0.\n"
    "\n"
    "options:\n"
    "  --rhs FILE        right-hand side, Matrix Market array file (N x 1)\n"
    "  --eps X           stopping tolerance (default 1e-8: residual reduction by 1e-8;\n"
    "                    a negative value is an absolute residual target)\n"
    "  --ncyc N          cycle code: cycle type, accelerator, restart, cycles\n"
    "                    (default 0: the library default ncyc_default, 11030 = V-cycle,\n"
    "                    conjugate gradients, at most 30 cycles)\n"
    "  --iswit N         run-mode code (default 52000000: new setup released at the\n"
    "                    end, arrays grown in memory when the estimate is short;\n"
    "                    52170000 takes the groundwater host's aggressive coarsening)\n"
    "  --nsolve N        solution-approach code (default 0: nsolve_default)\n"
    "  --matrix N        matrix code (default 12 for a symmetric file and the model\n"
    "                    problem: symmetric, no zero row sums; 22 for a general file)\n"
    "  --iout N          printing code (default 2: iteration table)\n"
    "  --idump N         dump code (default 0: no dumps)\n"
    "  --chktol X        tolerance of the extra matrix checks (default -1: off)\n"
    "  --threads N       number of threads (omp_set_num_threads)\n"
    "  --set NAME=VALUE  sets a library parameter by name (repeatable); the type is\n"
    "                    the parameter's own: integer, real, character or logical\n"
    "                    (true/false, t/f, 1/0, .true./.false.)\n"
    "  --size N          grid of the model problem, N x N x N (default 40)\n"
    "  --seed N          seed of the model problem's conductivity field (default 1)\n"
    "  --solution FILE   writes u as a Matrix Market array file\n"
    "  --help            this text\n"
    "\n"
    "Fixed arguments of the call: nsys 1, no iu/ip (ndiu = ndip = 1), iscale 0,\n"
    "ifirst 1 (u starts at zero), complexity limits 0 (library defaults).\n"
    "\n"
    "Exit status: 0 solved (warnings included), 1 the library reported an error,\n"
    "2 a usage or input error.\n";

[[noreturn]] void usage_error(const std::string& text) {
  std::fprintf(stderr, "korn-solve: %s\n(korn-solve --help shows the options)\n", text.c_str());
  std::exit(kExitUsage);
}

[[noreturn]] void input_error(const std::string& text) {
  std::fflush(stdout);
  std::fprintf(stderr, "korn-solve: %s\n", text.c_str());
  std::exit(kExitUsage);
}

bool parse_int(std::string_view s, int& v) {
  if (!s.empty() && s.front() == '+') s.remove_prefix(1);
  const auto r = std::from_chars(s.data(), s.data() + s.size(), v);
  return !s.empty() && r.ec == std::errc() && r.ptr == s.data() + s.size();
}

bool parse_real(std::string_view s, double& v) {
  if (!s.empty() && s.front() == '+') s.remove_prefix(1);
  const auto r = std::from_chars(s.data(), s.data() + s.size(), v);
  return !s.empty() && r.ec == std::errc() && r.ptr == s.data() + s.size() && std::isfinite(v);
}

bool parse_logical(std::string_view s, int& v) {
  std::string l(s);
  for (char& c : l) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  if (l == "true" || l == "t" || l == "1" || l == ".true." || l == "yes" || l == "on") {
    v = 1;
    return true;
  }
  if (l == "false" || l == "f" || l == "0" || l == ".false." || l == "no" || l == "off") {
    v = 0;
    return true;
  }
  return false;
}

// --set NAME=VALUE through the typed setter of the parameter's own type.
void set_parameter(const std::string& arg) {
  const auto eq = arg.find('=');
  if (eq == std::string::npos || eq == 0) usage_error("--set needs NAME=VALUE, got '" + arg + "'");
  const std::string name = arg.substr(0, eq), value = arg.substr(eq + 1);
  const int type = korn_parameter_type(name.data(), name.size());
  switch (type) {
    case 1: {  // integer
      int v = 0;
      if (!parse_int(value, v)) usage_error("parameter " + name + " needs an integer, got '" + value + "'");
      setinteger(name.data(), &v, name.size());
      break;
    }
    case 2: {  // real
      double v = 0.0;
      if (!parse_real(value, v)) usage_error("parameter " + name + " needs a real number, got '" + value + "'");
      setdble(name.data(), &v, name.size());
      break;
    }
    case 3:  // character
      setchar(name.data(), value.data(), name.size(), value.size());
      break;
    case 4: {  // logical
      int v = 0;
      if (!parse_logical(value, v))
        usage_error("parameter " + name + " needs true or false, got '" + value + "'");
      setlogical(name.data(), &v, name.size());
      break;
    }
    default:
      usage_error("unknown or read-only parameter '" + name + "' in --set");
  }
}

struct Options {
  std::string matrix_file, rhs_file, solution_file;
  double eps = 1e-8, chktol = -1.0;
  int ncyc = 0, iswit = 52000000, nsolve = 0, iout = 2, idump = 0;
  int matrix = 0;  // 0: from the file's symmetry
  int threads = 0;
  int size = 40;
  int seed = 1;
};

Options parse_options(int argc, char** argv) {
  Options o;
  std::vector<std::string> sets;
  for (int k = 1; k < argc; ++k) {
    const std::string arg = argv[k];
    auto value = [&]() -> std::string {
      if (k + 1 >= argc) usage_error("option " + arg + " needs a value");
      return argv[++k];
    };
    auto int_value = [&](int lo) {
      const std::string v = value();
      int x = 0;
      if (!parse_int(v, x) || x < lo) usage_error("option " + arg + " needs an integer >= " + std::to_string(lo) + ", got '" + v + "'");
      return x;
    };
    auto any_int = [&]() {
      const std::string v = value();
      int x = 0;
      if (!parse_int(v, x)) usage_error("option " + arg + " needs an integer, got '" + v + "'");
      return x;
    };
    auto real_value = [&]() {
      const std::string v = value();
      double x = 0.0;
      if (!parse_real(v, x)) usage_error("option " + arg + " needs a real number, got '" + v + "'");
      return x;
    };
    if (arg == "--help" || arg == "-h") {
      std::fputs(kUsage, stdout);
      std::exit(0);
    } else if (arg == "--rhs") {
      o.rhs_file = value();
    } else if (arg == "--solution") {
      o.solution_file = value();
    } else if (arg == "--eps") {
      o.eps = real_value();
    } else if (arg == "--chktol") {
      o.chktol = real_value();
    } else if (arg == "--ncyc") {
      o.ncyc = any_int();
    } else if (arg == "--iswit") {
      o.iswit = any_int();
    } else if (arg == "--nsolve") {
      o.nsolve = any_int();
    } else if (arg == "--matrix") {
      o.matrix = int_value(1);
    } else if (arg == "--iout") {
      o.iout = any_int();
    } else if (arg == "--idump") {
      o.idump = any_int();
    } else if (arg == "--threads") {
      o.threads = int_value(1);
    } else if (arg == "--size") {
      o.size = int_value(2);
    } else if (arg == "--seed") {
      o.seed = int_value(0);
    } else if (arg == "--set") {
      sets.push_back(value());
    } else if (arg.size() > 1 && arg[0] == '-') {
      usage_error("unknown option " + arg);
    } else if (o.matrix_file.empty()) {
      o.matrix_file = arg;
    } else {
      usage_error("more than one matrix file: " + o.matrix_file + " and " + arg);
    }
  }
  if (o.size > 640) usage_error("--size " + std::to_string(o.size) + " is too large (at most 640)");
  // Parameters after the options are read, so a bad value stops before any work.
  for (const std::string& s : sets) set_parameter(s);
  return o;
}

// r = f - A u (2-norm) and, where wanted, the largest |u - 1|.
double residual_norm(const kornlt::CsrMatrix& m, const std::vector<double>& f, const std::vector<double>& u) {
  double s = 0.0;
#pragma omp parallel for schedule(static) reduction(+ : s)
  for (int i = 0; i < m.nnu; ++i) {
    double r = f[i];
    for (int p = m.ia[i] - 1; p < m.ia[i + 1] - 1; ++p) r -= m.a[p] * u[m.ja[p] - 1];
    s += r * r;
  }
  return std::sqrt(s);
}

}  // namespace

int main(int argc, char** argv) {
  const Options opt = parse_options(argc, argv);
  if (opt.threads > 0) omp_set_num_threads(opt.threads);

  // ---- the problem
  kornlt::CsrMatrix m;
  std::vector<double> f;
  bool symmetric = true;
  bool exact_ones = false;
  std::string title;
  if (!opt.matrix_file.empty()) {
    kornlt::MtxInfo info;
    const std::string err = kornlt::mtx_load_matrix(opt.matrix_file, m, info);
    if (!err.empty()) input_error(err);
    symmetric = info.symmetry == kornlt::MtxSymmetry::kSymmetric;
    title = opt.matrix_file + " (" + (symmetric ? "symmetric" : "general") + ")";
    if (info.nduplicates > 0)
      std::printf("korn-solve: %lld duplicate entries summed\n", static_cast<long long>(info.nduplicates));
    if (info.ndiag_added > 0)
      std::printf("korn-solve: warning: explicit 0.0 diagonal added in %d row(s) without a stored diagonal\n",
                  info.ndiag_added);
  } else {
    kornlt::GroundwaterModel g;
    kornlt::groundwater_problem(opt.size, opt.size, opt.size, static_cast<std::uint64_t>(opt.seed), g);
    m = std::move(g.m);
    f = std::move(g.f);
    title = "groundwater model " + std::to_string(opt.size) + "x" + std::to_string(opt.size) + "x" +
            std::to_string(opt.size) + " (" + std::to_string(g.nfixed) + " fixed-head cells, " +
            std::to_string(g.nwells) + " wells)";
  }
  if (!opt.rhs_file.empty()) {
    const std::string err = kornlt::mtx_load_vector(opt.rhs_file, f);
    if (!err.empty()) input_error(err);
    if (static_cast<int>(f.size()) != m.nnu)
      input_error(opt.rhs_file + ": " + std::to_string(f.size()) + " values for a matrix of " +
                  std::to_string(m.nnu) + " rows");
  } else if (!opt.matrix_file.empty()) {
    // f = A*1: the exact solution is all ones.
    f.assign(static_cast<std::size_t>(m.nnu), 0.0);
    for (int i = 0; i < m.nnu; ++i)
      for (int p = m.ia[i] - 1; p < m.ia[i + 1] - 1; ++p) f[i] += m.a[p];
    exact_ones = true;
  }
  std::printf("korn-solve: %s: %d rows, %d nonzeros, %d thread(s)\n", title.c_str(), m.nnu, m.nna,
              opt.threads > 0 ? opt.threads : omp_get_max_threads());
  std::fflush(stdout);

  // ---- the call
  std::vector<double> u(static_cast<std::size_t>(m.nnu), 0.0);
  const int nnu = m.nnu, nna = m.nna, nsys = 1, ndiu = 1, ndip = 1;
  int iu = 0, ip = 0, iscale = 0;
  const int matrix = opt.matrix > 0 ? opt.matrix : (symmetric ? 12 : 22);
  const int ifirst = 1;
  const double cmplx = 0.0;
  double res_in = 0.0, res_out = 0.0;
  int ncyc_done = 0, ierr = 0;
  const auto t0 = std::chrono::steady_clock::now();
  korn(&nnu, &nna, &nsys, m.ia.data(), m.ja.data(), m.a.data(), f.data(), u.data(), &iu, &ndiu, &ip,
       &ndip, &matrix, &iscale, &res_in, &res_out, &ncyc_done, &ierr, &opt.nsolve, &ifirst, &opt.eps,
       &opt.ncyc, &opt.iswit, &cmplx, &cmplx, &cmplx, &cmplx, &opt.chktol, &opt.idump, &opt.iout);
  const double total = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
  double t_setup = 0.0, t_solve = 0.0;
  korn_get_times(&t_setup, &t_solve);
  std::fflush(stdout);

  // ---- summary
  std::printf("\nkorn-solve: rows %d  nonzeros %d  setup %.3f s  solve %.3f s  total %.3f s\n", m.nnu, m.nna,
              t_setup, t_solve, total);
  if (res_in > 0.0 && res_out >= 0.0) {
    std::printf("korn-solve: cycles %d  res_in %.6e  res_out %.6e  reduction %.3e\n", ncyc_done, res_in,
                res_out, res_out / res_in);
  } else {
    std::printf("korn-solve: cycles %d  res_in %.6e  res_out %.6e\n", ncyc_done, res_in, res_out);
  }
  if (ierr > 0) {
    std::printf("korn-solve: error %d: %s\n", ierr, korn_describe_error(ierr));
    std::fflush(stdout);
    return kExitSolverError;
  }
  if (ierr < 0) std::printf("korn-solve: warning %d: %s\n", ierr, korn_describe_error(ierr));
  std::printf("korn-solve: true residual ||f - A u||_2 = %.6e\n", residual_norm(m, f, u));
  if (exact_ones) {
    double emax = 0.0;
    for (double x : u) emax = std::max(emax, std::abs(x - 1.0));
    std::printf("korn-solve: max |u - 1| = %.6e\n", emax);
  }
  if (!opt.solution_file.empty()) {
    const std::string err = kornlt::mtx_save_vector(opt.solution_file, u);
    if (!err.empty()) input_error(err);
    std::printf("korn-solve: solution written to %s\n", opt.solution_file.c_str());
  }
  return 0;
}
