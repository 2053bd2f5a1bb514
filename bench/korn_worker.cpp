// korn-bench-korn: one measured KORN solve in its own process. Builds the
// problem, calls the core call `korn` with a V-cycle preconditioned CG, and
// prints one result line: times, iterations, the true relative residual,
// hierarchy sizes per level (from the kept hierarchy) and peak memory.
// Optionally times stand-alone V-cycles on the same hierarchy afterwards.
#include <omp.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "korn.h"
#include "measure.hpp"
#include "problems.hpp"
#include "store/store.hpp"

namespace {

const char* const kUsage =
    "usage: korn-bench-korn --problem NAME [options]\n"
    "  --problem NAME    poisson7:N, poisson27:N, aniso2d:N[:EPS], gw:N, mtx:PATH\n"
    "  --threads T       OpenMP threads (default: the runtime's)\n"
    "  --nd N            n_default digits of iswit: 17 aggressive first level,\n"
    "                    40 standard coarsening (default 40)\n"
    "  --eps X           relative residual target (default 1e-8)\n"
    "  --maxit N         most CG iterations (default 500)\n"
    "  --vcycles N       afterwards, time N stand-alone V-cycles (1..99) on the\n"
    "                    kept hierarchy (default 0: none)\n"
    "  --iout N          printing code of the call (default 1)\n"
    "  --set NAME=VALUE  library parameter by name (repeatable)\n";

[[noreturn]] void usage(const std::string& msg) {
  std::fprintf(stderr, "korn-bench-korn: %s\n%s", msg.c_str(), kUsage);
  std::exit(2);
}

bool to_int(const std::string& s, int& v) {
  const auto r = std::from_chars(s.data(), s.data() + s.size(), v);
  return !s.empty() && r.ec == std::errc() && r.ptr == s.data() + s.size();
}

bool to_real(const std::string& s, double& v) {
  const auto r = std::from_chars(s.data(), s.data() + s.size(), v);
  return !s.empty() && r.ec == std::errc() && r.ptr == s.data() + s.size();
}

// --set NAME=VALUE through the setter of the parameter's own type.
void set_parameter(const std::string& arg) {
  const auto eq = arg.find('=');
  if (eq == std::string::npos || eq == 0) usage("--set needs NAME=VALUE");
  const std::string name = arg.substr(0, eq), value = arg.substr(eq + 1);
  switch (korn_parameter_type(name.data(), name.size())) {
    case 1: {
      int v = 0;
      if (!to_int(value, v)) usage("parameter " + name + " needs an integer");
      setinteger(name.data(), &v, name.size());
      break;
    }
    case 2: {
      double v = 0.0;
      if (!to_real(value, v)) usage("parameter " + name + " needs a real number");
      setdble(name.data(), &v, name.size());
      break;
    }
    case 3:
      setchar(name.data(), value.data(), name.size(), value.size());
      break;
    case 4: {
      int v = (value == "1" || value == "true" || value == "t" || value == ".true.") ? 1 : 0;
      setlogical(name.data(), &v, name.size());
      break;
    }
    default:
      usage("unknown or read-only parameter '" + name + "'");
  }
}

// ||f - A u||_2 / ||f||_2 with an independent row loop.
double relative_residual(const kornbench::Rows& r, const std::vector<double>& u) {
  const int n = r.hi - r.lo;
  double rr = 0.0, ff = 0.0;
#pragma omp parallel for schedule(static) reduction(+ : rr, ff)
  for (int i = 0; i < n; ++i) {
    double s = r.f[static_cast<std::size_t>(i)];
    for (int p = r.ia[static_cast<std::size_t>(i)] - 1; p < r.ia[static_cast<std::size_t>(i) + 1] - 1; ++p)
      s -= r.a[static_cast<std::size_t>(p)] * u[static_cast<std::size_t>(r.ja[static_cast<std::size_t>(p)]) - 1];
    rr += s * s;
    ff += r.f[static_cast<std::size_t>(i)] * r.f[static_cast<std::size_t>(i)];
  }
  return ff > 0.0 ? std::sqrt(rr / ff) : std::sqrt(rr);
}

// Rows, matrix entries and interpolation entries of every level of the kept
// hierarchy, read from the store. Interpolation entries are 0 where the store
// holds no interpolation rows for the level.
struct Hierarchy {
  std::vector<double> rows, nnz, pnnz;
};

Hierarchy hierarchy_sizes(int nnu, int nna) {
  Hierarchy h;
  const kornlt::StoreState& st = kornlt::store();
  const int levels = std::max(1, std::min(st.levels, kornlt::kMaxLevels));
  for (int k = 1; k <= levels; ++k) {
    if (k == 1) {
      h.rows.push_back(nnu);
      h.nnz.push_back(nna);
    } else {
      const int ilo = st.imin[static_cast<std::size_t>(k)], ihi = st.imax[static_cast<std::size_t>(k)];
      const long off = static_cast<long>(nnu) + 1;  // global index of st.ia[0]
      if (ihi < ilo || ilo - off < 0 || ihi + 1 - off >= static_cast<long>(st.ia.size())) break;
      h.rows.push_back(ihi - ilo + 1);
      h.nnz.push_back(st.ia[static_cast<std::size_t>(ihi + 1 - off)] - st.ia[static_cast<std::size_t>(ilo - off)]);
    }
  }
  // Interpolation of level k (its rows are the rows of level k): iw over 1..ndu+1.
  for (std::size_t k = 1; k < h.rows.size(); ++k) {
    const int ilo = st.imin[k], ihi = st.imax[k];
    if (ilo < 1 || ihi + 1 > static_cast<int>(st.iw.size())) {
      h.pnnz.push_back(0);
      continue;
    }
    const long p = static_cast<long>(st.iw[static_cast<std::size_t>(ihi)]) - st.iw[static_cast<std::size_t>(ilo - 1)];
    h.pnnz.push_back(p > 0 ? static_cast<double>(p) : 0.0);
  }
  return h;
}

}  // namespace

int main(int argc, char** argv) {
  std::string problem_text;
  int threads = 0, nd = 40, maxit = 500, vcycles = 0, iout = 1;
  double eps = 1e-8;
  std::vector<std::string> sets;
  for (int k = 1; k < argc; ++k) {
    const std::string arg = argv[k];
    auto value = [&]() -> std::string {
      if (k + 1 >= argc) usage("option " + arg + " needs a value");
      return argv[++k];
    };
    auto int_value = [&](int lo, int hi) {
      int v = 0;
      const std::string s = value();
      if (!to_int(s, v) || v < lo || v > hi) usage("bad value '" + s + "' of " + arg);
      return v;
    };
    if (arg == "--problem") {
      problem_text = value();
    } else if (arg == "--threads") {
      threads = int_value(1, 1024);
    } else if (arg == "--nd") {
      nd = int_value(10, 48);
    } else if (arg == "--maxit") {
      maxit = int_value(1, 999999);
    } else if (arg == "--vcycles") {
      vcycles = int_value(0, 99);
    } else if (arg == "--iout") {
      iout = int_value(-9, 99);
    } else if (arg == "--eps") {
      const std::string s = value();
      if (!to_real(s, eps) || !(eps > 0.0)) usage("bad value of --eps");
    } else if (arg == "--set") {
      sets.push_back(value());
    } else if (arg == "--help") {
      std::fputs(kUsage, stdout);
      return 0;
    } else {
      usage("unknown option " + arg);
    }
  }
  if (problem_text.empty()) usage("--problem is required");
  kornbench::ProblemDef problem;
  std::string err = kornbench::parse_problem(problem_text, problem);
  if (!err.empty()) usage(err);
  for (const std::string& s : sets) set_parameter(s);
  if (threads > 0) omp_set_num_threads(threads);
  const int nthreads = threads > 0 ? threads : omp_get_max_threads();

  // ---- the problem (not timed)
  kornbench::Rows r;
  err = kornbench::build_rows(problem, 0, -1, r);
  if (!err.empty()) {
    std::fprintf(stderr, "korn-bench-korn: %s\n", err.c_str());
    return 2;
  }
  const int nnu = r.hi - r.lo, nna = r.ia.back() - 1;
  std::printf("korn-bench-korn: %s: %d rows, %d nonzeros, %d thread(s), n_default %d\n", r.title.c_str(), nnu,
              nna, nthreads, nd);
  std::fflush(stdout);
  std::vector<double> u(static_cast<std::size_t>(nnu), 0.0);
  const long base_kb = kornbench::rss_kb();

  // ---- the call: setup kept (run mode 4) so that the hierarchy can be read
  // afterwards; iextent 1, n_default nd, L2 norm, default scratch unit.
  // ncyc: V-cycle (1), CG (1), default Krylov digit (0), at most maxit cycles.
  const int nsys = 1, ndiu = 1, ndip = 1, ifirst = 1, idump = 0;
  int iu = 0, ip = 0, iscale = 0;
  const int matrix = r.symmetric ? 12 : 22;
  const int iswit = 4000000 + 100000 + nd * 1000;
  const int ncyc = std::stoi("110" + std::to_string(maxit));
  const double cmplx = 0.0, chktol = -1.0;
  double res_in = 0.0, res_out = 0.0;
  int ncyc_done = 0, ierr = 0;
  const int nsolve = 0;
  const double t0 = kornbench::wall_seconds();
  korn(&nnu, &nna, &nsys, r.ia.data(), r.ja.data(), r.a.data(), r.f.data(), u.data(), &iu, &ndiu, &ip, &ndip,
       &matrix, &iscale, &res_in, &res_out, &ncyc_done, &ierr, &nsolve, &ifirst, &eps, &ncyc, &iswit, &cmplx,
       &cmplx, &cmplx, &cmplx, &chktol, &idump, &iout);
  const double t_call = kornbench::wall_seconds() - t0;
  double t_setup = 0.0, t_solve = 0.0;
  korn_get_times(&t_setup, &t_solve);
  const long peak_kb = kornbench::peak_rss_kb();
  std::fflush(stdout);

  kornbench::ResultLine line;
  line.put("solver", "korn").put("config", "nd" + std::to_string(nd)).put("threads", nthreads);
  line.put("n", static_cast<long>(nnu)).put("nnz", static_cast<long>(nna));
  line.put("setup", t_setup).put("solve", t_solve).put("total", t_call).put("iters", ncyc_done);
  line.put("ierr", ierr).put("base_kb", base_kb).put("peak_kb", peak_kb);
  if (ierr > 0) {
    line.put("status", "error").print(korn_describe_error(ierr));
    return 1;
  }
  const double relres = relative_residual(r, u);
  line.put("relres", relres);

  // ---- hierarchy: grid complexity sum(rows)/rows(1), operator complexity
  // sum(nnz)/nnz(1).
  const Hierarchy h = hierarchy_sizes(nnu, nna);
  double srows = 0.0, snnz = 0.0;
  for (std::size_t k = 0; k < h.rows.size(); ++k) {
    srows += h.rows[k];
    snnz += h.nnz[k];
  }
  line.put("levels", static_cast<int>(h.rows.size())).put("grc", srows / nnu).put("opc", snnz / nna);
  line.put_list("lev_rows", h.rows).put_list("lev_nnz", h.nnz).put_list("lev_pnnz", h.pnnz);

  // ---- stand-alone V-cycles on the kept hierarchy (run mode 1: same matrix
  // and hierarchy), no accelerator, a target that is never reached.
  if (vcycles > 0) {
    int zero = 0, one = 1;
    getinteger("ncgrad_default", &one, 14);
    setinteger("ncgrad_default", &zero, 14);
    std::fill(u.begin(), u.end(), 0.0);
    const int iswit1 = 1000000 + 100000 + nd * 1000;
    const int ncyc1 = std::stoi("100" + std::to_string(vcycles));
    const double eps1 = 1e-30;
    int ierr1 = 0, done1 = 0;
    double rin1 = 0.0, rout1 = 0.0;
    korn(&nnu, &nna, &nsys, r.ia.data(), r.ja.data(), r.a.data(), r.f.data(), u.data(), &iu, &ndiu, &ip, &ndip,
         &matrix, &iscale, &rin1, &rout1, &done1, &ierr1, &nsolve, &ifirst, &eps1, &ncyc1, &iswit1, &cmplx,
         &cmplx, &cmplx, &cmplx, &chktol, &idump, &iout);
    setinteger("ncgrad_default", &one, 14);
    double s1 = 0.0, v1 = 0.0;
    korn_get_times(&s1, &v1);
    if (ierr1 <= 0 && done1 > 0) {
      line.put("vcycles", done1).put("vcycle_time", v1 / done1);
      if (rin1 > 0.0 && done1 > 0) line.put("vcycle_rho", std::pow(rout1 / rin1, 1.0 / done1));
    } else {
      line.put("vcycle_ierr", ierr1);
    }
  }

  const bool converged = relres <= 1.5 * eps;
  if (ierr < 0) line.put("warning", korn_describe_error(ierr));
  line.put("status", converged ? "ok" : "noconv");
  line.print(r.title);
  return 0;
}
