// korn-bench: the benchmark driver. Runs every configuration of KORN and of
// the peer (hypre's BoomerAMG under CG) in its own process, several times,
// takes medians and prints Markdown tables per problem and thread count:
// times, iterations, residuals, complexities, memory and the ratios
// KORN / best hypre configuration. Also measures the STREAM-triad bandwidth
// and sets the time of one KORN V-cycle against the bytes it has to move.
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "problems.hpp"

#ifndef KORNBENCH_MPIEXEC
#define KORNBENCH_MPIEXEC ""
#endif
#ifndef KORNBENCH_HAVE_HYPRE
#define KORNBENCH_HAVE_HYPRE 0
#endif

namespace {

const char* const kUsage =
    "usage: korn-bench [options]\n"
    "\n"
    "Runs KORN (V-cycle CG through the core call, n_default 17 and 40) and hypre's\n"
    "BoomerAMG under CG (RS + classical, HMIS + ext+i Pmax 4, HMIS + one aggressive\n"
    "level) on the same matrices and right-hand sides, each run in its own process,\n"
    "zero first guess, relative residual 1e-8. KORN runs on T threads, hypre on T\n"
    "MPI ranks. Prints Markdown tables of medians.\n"
    "\n"
    "problem sets:\n"
    "  --quick             poisson7:50 poisson7:100 (the default)\n"
    "  --full              poisson7:50 poisson7:100 poisson7:150 gw:100 aniso2d:1000\n"
    "                      poisson27:60\n"
    "  --problem NAME      a problem (repeatable; replaces the set): poisson7:N,\n"
    "                      poisson27:N, aniso2d:N[:EPS], gw:N, mtx:PATH\n"
    "  --mtx FILE          a Matrix Market file (repeatable; adds to the set)\n"
    "options:\n"
    "  --threads LIST      thread / rank counts, e.g. 1,2 (default 1,2)\n"
    "  --scaling           thread-scaling mode: threads 1,2,4,8,16 up to the core\n"
    "                      count (default problem poisson7:100), with a speed-up table\n"
    "  --oversubscribe     allow thread counts above the core count\n"
    "  --repeat N          runs per configuration, median taken (default 3)\n"
    "  --korn LIST         KORN n_default values (default 17,40)\n"
    "  --hypre LIST        hypre configurations (default rs,hmis,hmis-agg); NAME@X\n"
    "                      sets the strength threshold X (default 0.25), e.g. hmis@0.5\n"
    "  --no-hypre          KORN only\n"
    "  --set NAME=VALUE    KORN parameter for every KORN run (repeatable)\n"
    "  --maxit N           most CG iterations (default 500)\n"
    "  --vcycles N         stand-alone V-cycles timed per KORN run (default 10, 0 off)\n"
    "  --stream-mb N       STREAM array size in MB (default 160, 0 off)\n"
    "  --timeout S         seconds per run before it is stopped (default 900)\n"
    "  --out FILE          also write the report to FILE\n"
    "  --logdir DIR        outputs of every run (default korn-bench-logs)\n"
    "  --help\n";

[[noreturn]] void usage(const std::string& msg) {
  std::fprintf(stderr, "korn-bench: %s\n(korn-bench --help shows the options)\n", msg.c_str());
  std::exit(2);
}

bool to_int(const std::string& s, int& v) {
  const auto r = std::from_chars(s.data(), s.data() + s.size(), v);
  return !s.empty() && r.ec == std::errc() && r.ptr == s.data() + s.size();
}

std::vector<std::string> split(const std::string& s, char sep) {
  std::vector<std::string> out;
  std::string cur;
  std::istringstream in(s);
  while (std::getline(in, cur, sep))
    if (!cur.empty()) out.push_back(cur);
  return out;
}

std::string fmt(const char* f, double v) {
  char b[64];
  std::snprintf(b, sizeof b, f, v);
  return b;
}

// ---------------------------------------------------------------------------
// One worker run: a process with its output in a log file, stopped after the
// time limit; the result is the worker's "KORNBENCH key=value ..." line.
// ---------------------------------------------------------------------------
struct Run {
  std::map<std::string, std::string> kv;
  bool ok = false;      // a result line with a status other than "error"
  std::string error;    // why not
  double num(const std::string& k, double dflt = NAN) const {
    const auto it = kv.find(k);
    if (it == kv.end()) return dflt;
    char* end = nullptr;
    const double v = std::strtod(it->second.c_str(), &end);
    return end && *end == '\0' ? v : dflt;
  }
  std::string str(const std::string& k) const {
    const auto it = kv.find(k);
    return it == kv.end() ? "" : it->second;
  }
};

std::string first_line_with(const std::string& text, const std::string& what) {
  std::istringstream in(text);
  std::string line;
  while (std::getline(in, line))
    if (line.find(what) != std::string::npos) return line;
  return "";
}

Run run_worker(const std::vector<std::string>& argv, const std::vector<std::pair<std::string, std::string>>& env,
               const std::string& logpath, int timeout_s) {
  Run run;
  const pid_t pid = fork();
  if (pid < 0) {
    run.error = "fork failed";
    return run;
  }
  if (pid == 0) {
    setpgid(0, 0);
    const int fd = open(logpath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd >= 0) {
      dup2(fd, 1);
      dup2(fd, 2);
      close(fd);
    }
    for (const auto& [k, v] : env) setenv(k.c_str(), v.c_str(), 1);
    std::vector<char*> args;
    for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    execv(args[0], args.data());
    std::fprintf(stderr, "korn-bench: cannot start %s: %s\n", args[0], std::strerror(errno));
    _exit(127);
  }
  setpgid(pid, pid);
  int status = 0;
  const auto start = std::chrono::steady_clock::now();
  bool timed_out = false;
  while (true) {
    const pid_t w = waitpid(pid, &status, WNOHANG);
    if (w == pid) break;
    if (std::chrono::steady_clock::now() - start > std::chrono::seconds(timeout_s)) {
      kill(-pid, SIGKILL);
      waitpid(pid, &status, 0);
      timed_out = true;
      break;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  std::ifstream in(logpath);
  std::stringstream ss;
  ss << in.rdbuf();
  const std::string text = ss.str();
  std::istringstream lines(text);
  std::string line;
  bool found = false;
  while (std::getline(lines, line)) {
    if (line.rfind("KORNBENCH ", 0) != 0) continue;
    found = true;
    const auto m = line.find(" msg=");
    const std::string head = line.substr(10, m == std::string::npos ? std::string::npos : m - 10);
    if (m != std::string::npos) run.kv["msg"] = line.substr(m + 5);
    std::istringstream toks(head);
    std::string tok;
    while (toks >> tok) {
      const auto eq = tok.find('=');
      if (eq != std::string::npos) run.kv[tok.substr(0, eq)] = tok.substr(eq + 1);
    }
  }
  const std::string errline = first_line_with(text, "*** ERROR");
  if (timed_out) {
    run.error = "stopped after " + std::to_string(timeout_s) + " s";
  } else if (!found) {
    std::string last;
    std::istringstream l2(text);
    while (std::getline(l2, line))
      if (!line.empty()) last = line;
    run.error = !errline.empty() ? errline : (!last.empty() ? last : "no result (exit status " + std::to_string(status) + ")");
  } else if (run.str("status") == "error") {
    run.error = !errline.empty() ? errline : run.str("msg");
  } else {
    run.ok = true;
  }
  // Keep the message short for the tables.
  while (!run.error.empty() && (run.error.back() == '\r' || run.error.back() == ' ')) run.error.pop_back();
  return run;
}

double median(std::vector<double> v) {
  v.erase(std::remove_if(v.begin(), v.end(), [](double x) { return std::isnan(x); }), v.end());
  if (v.empty()) return NAN;
  std::sort(v.begin(), v.end());
  const std::size_t n = v.size();
  return n % 2 ? v[n / 2] : 0.5 * (v[n / 2 - 1] + v[n / 2]);
}

// ---------------------------------------------------------------------------
// Configurations and their medians
// ---------------------------------------------------------------------------
struct Config {
  std::string solver;  // "korn" or "hypre"
  std::string name;    // "nd17", "nd40", "rs", "hmis", "hmis-agg", with "@theta" for hypre
  int nd = 0;
  // hypre: the configuration without the threshold, and the threshold ("" default).
  std::string base() const { return name.substr(0, name.find('@')); }
  std::string theta() const {
    const auto at = name.find('@');
    return at == std::string::npos ? "" : name.substr(at + 1);
  }
  std::string label() const {
    const std::string th = theta().empty() ? "" : " theta " + theta();
    if (solver == "korn") {
      if (nd == 17) return "KORN nd17 (aggressive 1st level)";
      if (nd == 40) return "KORN nd40 (standard)";
      return "KORN nd" + std::to_string(nd);
    }
    if (base() == "rs") return "hypre RS + classical" + th;
    if (base() == "hmis") return "hypre HMIS + ext+i P4" + th;
    if (base() == "hmis-agg") return "hypre HMIS + agg(1) P4" + th;
    return "hypre " + name;
  }
};

struct Summary {
  int nruns = 0, nok = 0;
  std::string error;  // the first failure, when no run succeeded
  double setup = NAN, solve = NAN, total = NAN, iters = NAN, relres = NAN, levels = NAN, grc = NAN, opc = NAN;
  double peak_mb = NAN, above_mb = NAN, vcycle = NAN, vrho = NAN;
  std::vector<double> lev_rows, lev_nnz, lev_pnnz;
  std::string status;   // "ok" / "noconv" of the runs
  std::string warning;  // a warning a run reported
  long n = 0, nnz = 0;
};

std::vector<double> list_of(const std::string& s) {
  std::vector<double> v;
  for (const std::string& t : split(s, ',')) v.push_back(std::strtod(t.c_str(), nullptr));
  return v;
}

Summary summarize(const std::vector<Run>& runs) {
  Summary s;
  s.nruns = static_cast<int>(runs.size());
  std::vector<double> setup, solve, total, iters, relres, peak, above, vc, vr;
  for (const Run& r : runs) {
    if (!r.ok) {
      if (s.error.empty()) s.error = r.error;
      continue;
    }
    ++s.nok;
    setup.push_back(r.num("setup"));
    solve.push_back(r.num("solve"));
    total.push_back(r.num("total"));
    iters.push_back(r.num("iters"));
    relres.push_back(r.num("relres"));
    peak.push_back(r.num("peak_kb") / 1024.0);
    above.push_back((r.num("peak_kb") - r.num("base_kb")) / 1024.0);
    vc.push_back(r.num("vcycle_time"));
    vr.push_back(r.num("vcycle_rho"));
    if (s.lev_rows.empty()) {
      s.levels = r.num("levels");
      s.grc = r.num("grc");
      s.opc = r.num("opc");
      s.lev_rows = list_of(r.str("lev_rows"));
      s.lev_nnz = list_of(r.str("lev_nnz"));
      s.lev_pnnz = list_of(r.str("lev_pnnz"));
      s.n = static_cast<long>(r.num("n", 0));
      s.nnz = static_cast<long>(r.num("nnz", 0));
    }
    if (s.status != "noconv") s.status = r.str("status");
    if (s.warning.empty() && !r.str("warning").empty()) {
      s.warning = r.str("warning");
      std::replace(s.warning.begin(), s.warning.end(), '_', ' ');
    }
  }
  s.setup = median(setup);
  s.solve = median(solve);
  s.total = median(total);
  s.iters = median(iters);
  s.relres = median(relres);
  s.peak_mb = median(peak);
  s.above_mb = median(above);
  s.vcycle = median(vc);
  s.vrho = median(vr);
  return s;
}

// Bytes one V-cycle moves at least, from the sizes of the levels: every
// matrix pass reads values and columns (12 bytes an entry) and row pointers
// (4 bytes a row); vectors count 8 bytes a value for each read and write.
// Per level above the coarsest: pre- and post-smoothing (one full sweep each:
// the C and F half-sweeps of the default smoother together touch every row
// once; u read and written, f read), the residual (u, f read, r written),
// restriction (P read, r read, coarse f written) and interpolation (P read,
// coarse u read, u read and written). The coarsest level counts one matrix
// pass. Level 1 adds the residual norm of the cycle (one matrix pass, u and
// f read).
double vcycle_bytes(const Summary& s, bool& with_p) {
  const std::size_t L = std::min(s.lev_rows.size(), s.lev_nnz.size());
  with_p = true;
  if (L == 0) return NAN;
  auto pass = [&](std::size_t k) { return 12.0 * s.lev_nnz[k] + 4.0 * (s.lev_rows[k] + 1); };
  double b = pass(0) + 16.0 * s.lev_rows[0];
  for (std::size_t k = 0; k + 1 < L; ++k) {
    const double n = s.lev_rows[k], nc = s.lev_rows[k + 1];
    const double p = k < s.lev_pnnz.size() ? s.lev_pnnz[k] : 0.0;
    if (p <= 0.0) with_p = false;
    b += 2.0 * (pass(k) + 24.0 * n);                    // smoothing
    b += pass(k) + 24.0 * n;                            // residual
    b += 12.0 * p + 4.0 * (n + 1) + 8.0 * n + 8.0 * nc;   // restriction
    b += 12.0 * p + 4.0 * (n + 1) + 8.0 * nc + 16.0 * n;  // interpolation
  }
  b += pass(L - 1) + 24.0 * s.lev_rows[L - 1];
  return b;
}

std::string cell(double v, const char* f) { return std::isnan(v) ? "n/a" : fmt(f, v); }

// ---------------------------------------------------------------------------
// Machine description
// ---------------------------------------------------------------------------
std::string cpu_model() {
  std::ifstream in("/proc/cpuinfo");
  std::string line;
  while (std::getline(in, line))
    if (line.rfind("model name", 0) == 0) {
      const auto c = line.find(':');
      return c == std::string::npos ? line : line.substr(c + 2);
    }
  return "unknown";
}

std::string command_output(const std::string& cmd) {
  std::string out;
  if (std::FILE* p = popen(cmd.c_str(), "r")) {
    char b[256];
    while (std::fgets(b, sizeof b, p)) out += b;
    pclose(p);
  }
  while (!out.empty() && (out.back() == '\n' || out.back() == ' ')) out.pop_back();
  return out;
}

std::string self_dir() {
  char b[4096];
  const ssize_t n = readlink("/proc/self/exe", b, sizeof b - 1);
  if (n <= 0) return ".";
  b[n] = '\0';
  std::string p(b);
  return p.substr(0, p.find_last_of('/'));
}

// The 1, 5 and 15 minute load averages: other work on the machine shows here.
std::string load_average() {
  std::ifstream in("/proc/loadavg");
  std::string a, b, c;
  if (!(in >> a >> b >> c)) return "unknown";
  return a + " " + b + " " + c;
}

bool executable(const std::string& p) { return access(p.c_str(), X_OK) == 0; }

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> problems, extra_mtx, sets;
  std::vector<int> threads = {1, 2};
  std::vector<int> korn_nd = {17, 40};
  std::vector<std::string> hypre_cfg = {"rs", "hmis", "hmis-agg"};
  bool full = false, scaling = false, oversubscribe = false, no_hypre = false, threads_given = false;
  int repeat = 3, maxit = 500, vcycles = 10, stream_mb = 160, timeout_s = 900;
  std::string out_file, logdir = "korn-bench-logs";
  std::string cmdline = "korn-bench";
  for (int k = 1; k < argc; ++k) cmdline += std::string(" ") + argv[k];
  for (int k = 1; k < argc; ++k) {
    const std::string arg = argv[k];
    auto value = [&]() -> std::string {
      if (k + 1 >= argc) usage("option " + arg + " needs a value");
      return argv[++k];
    };
    auto int_value = [&](int lo) {
      int v = 0;
      const std::string s = value();
      if (!to_int(s, v) || v < lo) usage("bad value '" + s + "' of " + arg);
      return v;
    };
    auto int_list = [&]() {
      std::vector<int> v;
      for (const std::string& t : split(value(), ',')) {
        int x = 0;
        if (!to_int(t, x) || x < 1) usage("bad list item '" + t + "' of " + arg);
        v.push_back(x);
      }
      if (v.empty()) usage(arg + " needs a list");
      return v;
    };
    if (arg == "--help" || arg == "-h") {
      std::fputs(kUsage, stdout);
      return 0;
    } else if (arg == "--quick") {
      full = false;
    } else if (arg == "--full") {
      full = true;
    } else if (arg == "--problem") {
      problems.push_back(value());
    } else if (arg == "--mtx") {
      extra_mtx.push_back("mtx:" + value());
    } else if (arg == "--threads") {
      threads = int_list();
      threads_given = true;
    } else if (arg == "--scaling") {
      scaling = true;
    } else if (arg == "--oversubscribe") {
      oversubscribe = true;
    } else if (arg == "--repeat") {
      repeat = int_value(1);
    } else if (arg == "--korn") {
      korn_nd = int_list();
    } else if (arg == "--hypre") {
      hypre_cfg = split(value(), ',');
    } else if (arg == "--no-hypre") {
      no_hypre = true;
    } else if (arg == "--set") {
      sets.push_back(value());
    } else if (arg == "--maxit") {
      maxit = int_value(1);
    } else if (arg == "--vcycles") {
      vcycles = int_value(0);
      if (vcycles > 99) usage("--vcycles at most 99");
    } else if (arg == "--stream-mb") {
      stream_mb = int_value(0);
    } else if (arg == "--timeout") {
      timeout_s = int_value(1);
    } else if (arg == "--out") {
      out_file = value();
    } else if (arg == "--logdir") {
      logdir = value();
    } else {
      usage("unknown option " + arg);
    }
  }
  const int ncores = static_cast<int>(std::thread::hardware_concurrency());
  if (problems.empty()) {
    if (scaling)
      problems = {"poisson7:100"};
    else if (full)
      problems = {"poisson7:50", "poisson7:100", "poisson7:150", "gw:100", "aniso2d:1000", "poisson27:60"};
    else
      problems = {"poisson7:50", "poisson7:100"};
  }
  problems.insert(problems.end(), extra_mtx.begin(), extra_mtx.end());
  if (scaling && !threads_given) threads = {1, 2, 4, 8, 16};
  if (!oversubscribe) {
    std::vector<int> keep;
    for (int t : threads)
      if (t <= std::max(1, ncores)) keep.push_back(t);
    if (keep.size() < threads.size())
      std::fprintf(stderr, "korn-bench: thread counts above the %d cores left out (--oversubscribe keeps them)\n",
                   ncores);
    threads = keep;
  }
  if (threads.empty()) usage("no thread count left");
  std::vector<kornbench::ProblemDef> defs;
  for (const std::string& p : problems) {
    kornbench::ProblemDef s;
    const std::string err = kornbench::parse_problem(p, s);
    if (!err.empty()) usage(err);
    defs.push_back(s);
  }

  // ---- workers
  const std::string dir = self_dir();
  const std::string korn_exe = dir + "/korn-bench-korn", hypre_exe = dir + "/korn-bench-hypre",
                    stream_exe = dir + "/korn-bench-stream";
  std::string mpiexec = std::getenv("KORNBENCH_MPIEXEC") ? std::getenv("KORNBENCH_MPIEXEC") : KORNBENCH_MPIEXEC;
  if (!executable(korn_exe)) usage("worker " + korn_exe + " not found");
  bool have_hypre = !no_hypre && KORNBENCH_HAVE_HYPRE && executable(hypre_exe) && executable(mpiexec);
  std::string hypre_note;
  if (no_hypre)
    hypre_note = "hypre left out (--no-hypre)";
  else if (!have_hypre)
    hypre_note = "hypre not available in this build (libhypre-dev and an MPI runtime are needed)";
  if (no_hypre || !have_hypre) hypre_cfg.clear();
  command_output("mkdir -p '" + logdir + "'");

  std::vector<Config> configs;
  for (int nd : korn_nd) configs.push_back({"korn", "nd" + std::to_string(nd), nd});
  for (const std::string& h : hypre_cfg) {
    const Config cf{"hypre", h, 0};
    const std::string b = cf.base(), th = cf.theta();
    char* end = nullptr;
    const double x = th.empty() ? 0.25 : std::strtod(th.c_str(), &end);
    if ((b != "rs" && b != "hmis" && b != "hmis-agg") || (!th.empty() && (*end != '\0' || x < 0.0 || x >= 1.0)))
      usage("unknown hypre configuration '" + h + "' (rs, hmis, hmis-agg, optionally @THETA)");
    configs.push_back(cf);
  }

  std::ostringstream rep;  // the report
  auto emit = [&](const std::string& s) {
    rep << s;
    std::fputs(s.c_str(), stdout);
    std::fflush(stdout);
  };
  char datebuf[64];
  const std::time_t now = std::time(nullptr);
  std::strftime(datebuf, sizeof datebuf, "%Y-%m-%d %H:%M:%S %Z", std::localtime(&now));
  const std::string rev = command_output("git -C '" KORNBENCH_SOURCE_DIR "' rev-parse --short HEAD 2>/dev/null");
  emit("# korn-bench report\n\n");
  emit("- machine: " + cpu_model() + ", " + std::to_string(ncores) + " cores (nproc " +
       command_output("nproc 2>/dev/null") + ")\n");
  emit("- date: " + std::string(datebuf) + "\n");
  emit("- command: `" + cmdline + "`\n");
  emit("- source revision: " + (rev.empty() ? std::string("unknown") : rev) + "\n");
  emit("- runs per configuration: " + std::to_string(repeat) + " (medians); threads / ranks: ");
  for (std::size_t i = 0; i < threads.size(); ++i) emit((i ? "," : "") + std::to_string(threads[i]));
  emit("\n");
  if (!hypre_note.empty()) emit("- " + hypre_note + "\n");
  if (!sets.empty()) {
    emit("- KORN parameters set:");
    for (const std::string& s : sets) emit(" `" + s + "`");
    emit("\n");
  }
  emit("- load average at the start: " + load_average() + "\n");
  emit("- logs of every run: " + logdir + "/\n\n");

  // Environment of the workers: OpenMP threads for KORN; one thread per rank
  // for hypre (no OpenMP in Debian's build; BLAS kept single-threaded);
  // Open MPI may run as root here. Idle ranks yield the core: on a machine
  // shared with other work, ranks that spin in their waits lose several
  // times their time to each other.
  const std::vector<std::pair<std::string, std::string>> mpi_env = {
      {"OMP_NUM_THREADS", "1"},
      {"OPENBLAS_NUM_THREADS", "1"},
      {"OMPI_ALLOW_RUN_AS_ROOT", "1"},
      {"OMPI_ALLOW_RUN_AS_ROOT_CONFIRM", "1"},
      {"OMPI_MCA_btl_vader_single_copy_mechanism", "none"},
      {"OMPI_MCA_rmaps_base_oversubscribe", "1"},
      {"OMPI_MCA_mpi_yield_when_idle", "1"}};

  // ---- STREAM triad per thread count
  std::map<int, double> stream_gbs;
  if (stream_mb > 0) {
    for (int t : threads) {
      std::vector<double> g;
      for (int r = 0; r < repeat; ++r) {
        const Run run = run_worker({stream_exe, "--threads", std::to_string(t), "--mb", std::to_string(stream_mb)},
                                   {{"OMP_NUM_THREADS", std::to_string(t)}},
                                   logdir + "/stream-t" + std::to_string(t) + "-r" + std::to_string(r + 1) + ".log",
                                   timeout_s);
        if (run.ok) g.push_back(run.num("gbs"));
      }
      stream_gbs[t] = median(g);
    }
    emit("## Memory bandwidth (STREAM triad, " + std::to_string(stream_mb) + " MB per array)\n\n");
    emit("| threads | GB/s |\n|---:|---:|\n");
    for (int t : threads) emit("| " + std::to_string(t) + " | " + cell(stream_gbs[t], "%.2f") + " |\n");
    emit("\n");
  }

  // ---- the problems
  // results[problem][threads][config index]
  std::map<std::string, std::map<int, std::vector<Summary>>> results;
  for (const kornbench::ProblemDef& problem : defs) {
    std::string safe = problem.text;
    for (char& c : safe)
      if (c == ':' || c == '/' || c == ' ') c = '_';
    std::string title;
    long n = 0, nnz = 0;
    for (int t : threads) {
      std::vector<std::vector<Run>> runs(configs.size());
      // Repeats round-robin over the configurations, so that a disturbance
      // of the machine spreads over all of them.
      for (int r = 0; r < repeat; ++r) {
        for (std::size_t c = 0; c < configs.size(); ++c) {
          const Config& cf = configs[c];
          const std::string log = logdir + "/" + safe + "-" + cf.solver + "-" + cf.name + "-t" + std::to_string(t) +
                                  "-r" + std::to_string(r + 1) + ".log";
          std::fprintf(stderr, "korn-bench: %s, %s, %d thread(s), run %d of %d\n", problem.text.c_str(),
                       cf.label().c_str(), t, r + 1, repeat);
          Run run;
          if (cf.solver == "korn") {
            std::vector<std::string> a = {korn_exe, "--problem", problem.text, "--threads", std::to_string(t), "--nd",
                                          std::to_string(cf.nd), "--maxit", std::to_string(maxit), "--vcycles",
                                          std::to_string(vcycles)};
            for (const std::string& s : sets) {
              a.push_back("--set");
              a.push_back(s);
            }
            run = run_worker(a, {{"OMP_NUM_THREADS", std::to_string(t)}, {"OPENBLAS_NUM_THREADS", "1"}}, log,
                             timeout_s);
          } else {
            std::vector<std::string> a = {mpiexec, "-np", std::to_string(t), "--bind-to", "none", hypre_exe,
                                          "--problem", problem.text, "--config", cf.base(), "--maxit",
                                          std::to_string(maxit)};
            if (!cf.theta().empty()) {
              a.push_back("--theta");
              a.push_back(cf.theta());
            }
            run = run_worker(a, mpi_env, log, timeout_s);
          }
          if (!run.ok) std::fprintf(stderr, "korn-bench:   failed: %s\n", run.error.c_str());
          if (title.empty() && run.ok) title = run.str("msg");
          if (n == 0 && run.ok) {
            n = static_cast<long>(run.num("n", 0));
            nnz = static_cast<long>(run.num("nnz", 0));
          }
          runs[c].push_back(run);
        }
      }
      std::vector<Summary> sums;
      for (const auto& rr : runs) sums.push_back(summarize(rr));
      results[problem.text][t] = sums;

      // ---- the table of this problem and thread count
      if (t == threads.front()) {
        emit("## " + problem.text + (title.empty() ? "" : ": " + title) + "\n\n");
        if (n > 0) emit(std::to_string(n) + " rows, " + std::to_string(nnz) + " nonzeros.\n\n");
      }
      emit("### " + std::to_string(t) + (t == 1 ? " thread / rank" : " threads / ranks") + "\n\n");
      emit("| solver | setup s | solve s | total s | iters | rel. res. | levels | grid cx | op cx | peak MB | above input MB |\n");
      emit("|---|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|\n");
      int best = -1;
      for (std::size_t c = 0; c < configs.size(); ++c) {
        const Summary& s = sums[c];
        if (s.nok == 0) {
          emit("| " + configs[c].label() + " | failed: " + s.error + " | | | | | | | | | |\n");
          continue;
        }
        std::string it = cell(s.iters, "%.0f");
        if (s.status == "noconv") it += " (not converged)";
        if (!s.warning.empty()) it += " (warning: " + s.warning + ")";
        emit("| " + configs[c].label() + " | " + cell(s.setup, "%.3f") + " | " + cell(s.solve, "%.3f") + " | " +
             cell(s.total, "%.3f") + " | " + it + " | " + cell(s.relres, "%.1e") + " | " + cell(s.levels, "%.0f") +
             " | " + cell(s.grc, "%.3f") + " | " + cell(s.opc, "%.3f") + " | " + cell(s.peak_mb, "%.0f") + " | " +
             cell(s.above_mb, "%.0f") + " |\n");
        if (configs[c].solver == "hypre" && s.status == "ok" &&
            (best < 0 || s.total < sums[static_cast<std::size_t>(best)].total))
          best = static_cast<int>(c);
      }
      emit("\n");
      if (best >= 0) {
        const Summary& h = sums[static_cast<std::size_t>(best)];
        emit("Ratios KORN / hypre-best (" + configs[static_cast<std::size_t>(best)].label() +
             ", the converged hypre configuration with the least total time); below 1 KORN is faster or smaller:\n\n");
        emit("| KORN | setup | solve | total | peak memory | memory above input |\n|---|---:|---:|---:|---:|---:|\n");
        for (std::size_t c = 0; c < configs.size(); ++c) {
          if (configs[c].solver != "korn") continue;
          const Summary& s = sums[c];
          if (s.nok == 0) {
            emit("| " + configs[c].label() + " | n/a | n/a | n/a | n/a | n/a |\n");
            continue;
          }
          emit("| " + configs[c].label() + (s.status == "noconv" ? " (not converged)" : "") + " | " +
               cell(s.setup / h.setup, "%.2f") + " | " +
               cell(s.solve / h.solve, "%.2f") + " | " + cell(s.total / h.total, "%.2f") + " | " +
               cell(s.peak_mb / h.peak_mb, "%.2f") + " | " + cell(s.above_mb / h.above_mb, "%.2f") + " |\n");
        }
        emit("\n");
      }
    }
  }

  // ---- V-cycle time against the bytes it moves
  if (vcycles > 0) {
    emit("## KORN V-cycle against memory traffic\n\n");
    emit("Time of one stand-alone V-cycle (median over the runs, " + std::to_string(vcycles) +
         " cycles each on the kept hierarchy) against the least bytes that cycle moves "
         "(model in bench/README.md); attained = bytes / time, compared with the STREAM triad "
         "on as many threads.\n\n");
    emit("| problem | threads | KORN | levels | MB / cycle | V-cycle ms | attained GB/s | STREAM GB/s | attained / STREAM | cycle rate |\n");
    emit("|---|---:|---|---:|---:|---:|---:|---:|---:|---:|\n");
    for (const kornbench::ProblemDef& problem : defs)
      for (int t : threads)
        for (std::size_t c = 0; c < configs.size(); ++c) {
          if (configs[c].solver != "korn") continue;
          const Summary& s = results[problem.text][t][c];
          bool with_p = true;
          const double bytes = s.nok > 0 ? vcycle_bytes(s, with_p) : NAN;
          const double gbs = bytes / s.vcycle * 1e-9;
          const double st = stream_gbs.count(t) ? stream_gbs[t] : NAN;
          emit("| " + problem.text + " | " + std::to_string(t) + " | " + configs[c].name + " | " +
               cell(s.levels, "%.0f") + " | " + cell(bytes / 1e6, "%.1f") + (with_p ? "" : " (no P)") + " | " +
               cell(s.vcycle * 1e3, "%.2f") + " | " + cell(gbs, "%.2f") + " | " + cell(st, "%.2f") + " | " +
               cell(gbs / st, "%.2f") + " | " + cell(s.vrho, "%.3f") + " |\n");
        }
    emit("\n\"(no P)\": the store held no interpolation rows, so the model counts no interpolation traffic. "
         "\"cycle rate\": the residual reduction per stand-alone cycle.\n\n");
  }

  // ---- thread scaling
  if (scaling || threads.size() > 1) {
    emit("## Thread scaling (total time; speed-up against " + std::to_string(threads.front()) +
         (threads.front() == 1 ? " thread" : " threads") + ")\n\n");
    std::string head = "| problem | configuration |", rule = "|---|---|";
    for (int t : threads) {
      head += " T=" + std::to_string(t) + " s | speed-up |";
      rule += "---:|---:|";
    }
    emit(head + "\n" + rule + "\n");
    for (const kornbench::ProblemDef& problem : defs)
      for (std::size_t c = 0; c < configs.size(); ++c) {
        std::string row = "| " + problem.text + " | " + configs[c].label() + " |";
        const double t1 = results[problem.text][threads.front()][c].total;
        for (int t : threads) {
          const double v = results[problem.text][t][c].total;
          row += " " + cell(v, "%.3f") + " | " + cell(t1 / v, "%.2f") + " |";
        }
        emit(row + "\n");
      }
    emit("\n");
  }

  emit("Columns: setup and solve from each solver's own timers (KORN: korn_get_times; hypre: PCG setup and "
       "solve, slowest rank); total = the whole `korn` call for KORN (input checks included), setup + solve "
       "for hypre; rel. res. = ||f - A u|| / ||f|| recomputed by the worker; grid cx = sum of rows over all "
       "levels / rows, op cx = sum of nonzeros / nonzeros; peak MB = peak resident memory (VmHWM, summed over "
       "the ranks); above input = peak minus the resident memory once the problem was built.\n");

  emit("\nLoad average at the end: " + load_average() + "\n");
  if (!out_file.empty()) {
    std::ofstream o(out_file);
    o << rep.str();
    if (!o) std::fprintf(stderr, "korn-bench: cannot write %s\n", out_file.c_str());
  }
  return 0;
}
