// korn-bench-hypre: the peer measurement. hypre's BoomerAMG as preconditioner
// of hypre's CG on the same matrix and right-hand side as the KORN worker,
// one block of rows per MPI rank, zero first guess, relative residual target.
// Prints one result line from rank 0: times (slowest rank), iterations, the
// true relative residual, complexities of the hierarchy and memory summed
// over the ranks.
#include <mpi.h>

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "HYPRE.h"
#include "HYPRE_IJ_mv.h"
#include "HYPRE_krylov.h"
#include "HYPRE_parcsr_ls.h"
#include "HYPRE_parcsr_mv.h"
#include "_hypre_parcsr_ls.h"
#include "measure.hpp"
#include "problems.hpp"

namespace {

const char* const kUsage =
    "usage: mpirun -np T korn-bench-hypre --problem NAME --config NAME [options]\n"
    "  --problem NAME   poisson7:N, poisson27:N, aniso2d:N[:EPS], gw:N, mtx:PATH\n"
    "  --config NAME    rs        classical Ruge-Stueben coarsening (coarsen type 3),\n"
    "                             classical interpolation (interp type 0), no truncation\n"
    "                   hmis      HMIS (10), extended+i interpolation (6), Pmax 4\n"
    "                   hmis-agg  hmis with one level of aggressive coarsening\n"
    "                             (multipass interpolation there)\n"
    "  --theta X        strength threshold (default 0.25, hypre's own default)\n"
    "  --eps X          relative residual target (default 1e-8)\n"
    "  --maxit N        most CG iterations (default 500)\n";

int g_rank = 0;

[[noreturn]] void stop(const std::string& msg, int code) {
  if (g_rank == 0) std::fprintf(stderr, "korn-bench-hypre: %s\n", msg.c_str());
  MPI_Abort(MPI_COMM_WORLD, code);
  std::exit(code);
}

bool to_int(const std::string& s, int& v) {
  const auto r = std::from_chars(s.data(), s.data() + s.size(), v);
  return !s.empty() && r.ec == std::errc() && r.ptr == s.data() + s.size();
}
bool to_real(const std::string& s, double& v) {
  const auto r = std::from_chars(s.data(), s.data() + s.size(), v);
  return !s.empty() && r.ec == std::errc() && r.ptr == s.data() + s.size();
}

// Configures BoomerAMG as a one-cycle preconditioner. Common to all
// configurations: V-cycle, one sweep of l1-Gauss-Seidel forward on the way
// down and backward on the way up (a symmetric preconditioner for CG),
// Gaussian elimination on the coarsest level.
void configure(HYPRE_Solver amg, const std::string& config, double theta) {
  HYPRE_BoomerAMGSetMaxIter(amg, 1);
  HYPRE_BoomerAMGSetTol(amg, 0.0);
  HYPRE_BoomerAMGSetPrintLevel(amg, 0);
  HYPRE_BoomerAMGSetCycleType(amg, 1);
  HYPRE_BoomerAMGSetNumSweeps(amg, 1);
  HYPRE_BoomerAMGSetCycleRelaxType(amg, 13, 1);
  HYPRE_BoomerAMGSetCycleRelaxType(amg, 14, 2);
  HYPRE_BoomerAMGSetCycleRelaxType(amg, 9, 3);
  HYPRE_BoomerAMGSetStrongThreshold(amg, theta);
  if (config == "rs") {
    HYPRE_BoomerAMGSetCoarsenType(amg, 3);
    HYPRE_BoomerAMGSetInterpType(amg, 0);
    HYPRE_BoomerAMGSetPMaxElmts(amg, 0);
    HYPRE_BoomerAMGSetAggNumLevels(amg, 0);
  } else if (config == "hmis" || config == "hmis-agg") {
    HYPRE_BoomerAMGSetCoarsenType(amg, 10);
    HYPRE_BoomerAMGSetInterpType(amg, 6);
    HYPRE_BoomerAMGSetPMaxElmts(amg, 4);
    if (config == "hmis-agg") {
      HYPRE_BoomerAMGSetAggNumLevels(amg, 1);
      HYPRE_BoomerAMGSetNumPaths(amg, 1);
      HYPRE_BoomerAMGSetAggInterpType(amg, 4);
    } else {
      HYPRE_BoomerAMGSetAggNumLevels(amg, 0);
    }
  } else {
    stop("unknown --config '" + config + "' (rs, hmis, hmis-agg)", 2);
  }
}

}  // namespace

int main(int argc, char** argv) {
  MPI_Init(&argc, &argv);
  int nranks = 1;
  MPI_Comm_rank(MPI_COMM_WORLD, &g_rank);
  MPI_Comm_size(MPI_COMM_WORLD, &nranks);

  std::string problem_text, config = "hmis";
  double theta = 0.25, eps = 1e-8;
  int maxit = 500;
  for (int k = 1; k < argc; ++k) {
    const std::string arg = argv[k];
    auto value = [&]() -> std::string {
      if (k + 1 >= argc) stop("option " + arg + " needs a value\n" + kUsage, 2);
      return argv[++k];
    };
    if (arg == "--problem") {
      problem_text = value();
    } else if (arg == "--config") {
      config = value();
    } else if (arg == "--theta") {
      if (!to_real(value(), theta) || theta < 0.0 || theta >= 1.0) stop("bad --theta", 2);
    } else if (arg == "--eps") {
      if (!to_real(value(), eps) || !(eps > 0.0)) stop("bad --eps", 2);
    } else if (arg == "--maxit") {
      if (!to_int(value(), maxit) || maxit < 1) stop("bad --maxit", 2);
    } else if (arg == "--help") {
      if (g_rank == 0) std::fputs(kUsage, stdout);
      MPI_Finalize();
      return 0;
    } else {
      stop("unknown option " + arg + "\n" + kUsage, 2);
    }
  }
  if (problem_text.empty()) stop(std::string("--problem is required\n") + kUsage, 2);
  kornbench::ProblemDef problem;
  std::string err = kornbench::parse_problem(problem_text, problem);
  if (!err.empty()) stop(err, 2);

  // ---- this rank's rows (not timed)
  std::int64_t nglobal = 0;
  err = kornbench::problem_size(problem, nglobal);
  if (!err.empty()) stop(err, 2);
  int lo = 0, hi = 0;
  kornbench::block_of(nglobal, g_rank, nranks, lo, hi);
  kornbench::Rows r;
  err = kornbench::build_rows(problem, lo, hi, r);
  if (!err.empty()) stop(err, 2);
  const int nloc = hi - lo;
  long nnz_loc = r.ia.back() - 1, nnz = 0;
  MPI_Allreduce(&nnz_loc, &nnz, 1, MPI_LONG, MPI_SUM, MPI_COMM_WORLD);
  if (g_rank == 0) {
    std::printf("korn-bench-hypre: %s: %lld rows, %ld nonzeros, %d rank(s), config %s, theta %g\n",
                r.title.c_str(), static_cast<long long>(nglobal), nnz, nranks, config.c_str(), theta);
    std::fflush(stdout);
  }
  HYPRE_Init();
  const long base_kb_loc = kornbench::rss_kb();

  // ---- the matrix and vectors in hypre's own form (0-based global numbers).
  // Converting them is the peer's input step, like KORN's own input checks:
  // it is not part of setup or solve, but its memory stays in the peak.
  HYPRE_IJMatrix ij;
  HYPRE_IJMatrixCreate(MPI_COMM_WORLD, lo, hi - 1, lo, hi - 1, &ij);
  HYPRE_IJMatrixSetObjectType(ij, HYPRE_PARCSR);
  {
    std::vector<int> sizes(static_cast<std::size_t>(nloc));
    for (int i = 0; i < nloc; ++i) sizes[static_cast<std::size_t>(i)] = r.ia[static_cast<std::size_t>(i) + 1] - r.ia[static_cast<std::size_t>(i)];
    HYPRE_IJMatrixSetRowSizes(ij, sizes.data());
    HYPRE_IJMatrixInitialize(ij);
    std::vector<int> rows(static_cast<std::size_t>(nloc));
    for (int i = 0; i < nloc; ++i) rows[static_cast<std::size_t>(i)] = lo + i;
    for (int& c : r.ja) --c;
    HYPRE_IJMatrixSetValues(ij, nloc, sizes.data(), rows.data(), r.ja.data(), r.a.data());
    HYPRE_IJMatrixAssemble(ij);
  }
  HYPRE_ParCSRMatrix A;
  HYPRE_IJMatrixGetObject(ij, reinterpret_cast<void**>(&A));
  std::vector<int> rows(static_cast<std::size_t>(nloc));
  for (int i = 0; i < nloc; ++i) rows[static_cast<std::size_t>(i)] = lo + i;
  std::vector<double> zeros(static_cast<std::size_t>(nloc), 0.0);
  HYPRE_IJVector ijb, ijx, ijr;
  HYPRE_ParVector b, x, res;
  for (HYPRE_IJVector* v : {&ijb, &ijx, &ijr}) {
    HYPRE_IJVectorCreate(MPI_COMM_WORLD, lo, hi - 1, v);
    HYPRE_IJVectorSetObjectType(*v, HYPRE_PARCSR);
    HYPRE_IJVectorInitialize(*v);
    HYPRE_IJVectorSetValues(*v, nloc, rows.data(), (v == &ijx) ? zeros.data() : r.f.data());
    HYPRE_IJVectorAssemble(*v);
  }
  HYPRE_IJVectorGetObject(ijb, reinterpret_cast<void**>(&b));
  HYPRE_IJVectorGetObject(ijx, reinterpret_cast<void**>(&x));
  HYPRE_IJVectorGetObject(ijr, reinterpret_cast<void**>(&res));
  // The generator's rows are no longer needed.
  const std::string title = r.title;
  r = kornbench::Rows{};

  // ---- CG with BoomerAMG
  HYPRE_Solver pcg, amg;
  HYPRE_ParCSRPCGCreate(MPI_COMM_WORLD, &pcg);
  HYPRE_PCGSetMaxIter(pcg, maxit);
  HYPRE_PCGSetTol(pcg, eps);
  HYPRE_PCGSetAbsoluteTol(pcg, 0.0);
  HYPRE_PCGSetTwoNorm(pcg, 1);  // stop on ||r||_2 / ||b||_2
  HYPRE_PCGSetRelChange(pcg, 0);
  HYPRE_PCGSetPrintLevel(pcg, 0);
  HYPRE_PCGSetLogging(pcg, 1);
  HYPRE_BoomerAMGCreate(&amg);
  configure(amg, config, theta);
  HYPRE_PCGSetPrecond(pcg, reinterpret_cast<HYPRE_PtrToSolverFcn>(HYPRE_BoomerAMGSolve),
                      reinterpret_cast<HYPRE_PtrToSolverFcn>(HYPRE_BoomerAMGSetup), amg);

  MPI_Barrier(MPI_COMM_WORLD);
  const double t0 = MPI_Wtime();
  HYPRE_ParCSRPCGSetup(pcg, A, b, x);
  MPI_Barrier(MPI_COMM_WORLD);
  const double t1 = MPI_Wtime();
  HYPRE_ParCSRPCGSolve(pcg, A, b, x);
  MPI_Barrier(MPI_COMM_WORLD);
  const double t2 = MPI_Wtime();
  const long peak_kb_loc = kornbench::peak_rss_kb();

  int iters = 0;
  double rel_pcg = 0.0;
  HYPRE_PCGGetNumIterations(pcg, &iters);
  HYPRE_PCGGetFinalRelativeResidualNorm(pcg, &rel_pcg);

  // ---- true residual r = b - A x
  HYPRE_ParCSRMatrixMatvec(-1.0, A, x, 1.0, res);
  double rr = 0.0, bb = 0.0;
  HYPRE_ParVectorInnerProd(res, res, &rr);
  HYPRE_ParVectorInnerProd(b, b, &bb);
  const double relres = bb > 0.0 ? std::sqrt(rr / bb) : std::sqrt(rr);

  // ---- hierarchy sizes from the preconditioner's levels
  auto* amg_data = reinterpret_cast<hypre_ParAMGData*>(amg);
  const int levels = hypre_ParAMGDataNumLevels(amg_data);
  hypre_ParCSRMatrix** Aa = hypre_ParAMGDataAArray(amg_data);
  std::vector<double> lev_rows, lev_nnz;
  for (int l = 0; l < levels; ++l) {
    hypre_ParCSRMatrixSetDNumNonzeros(Aa[l]);
    lev_rows.push_back(static_cast<double>(hypre_ParCSRMatrixGlobalNumRows(Aa[l])));
    lev_nnz.push_back(hypre_ParCSRMatrixDNumNonzeros(Aa[l]));
  }
  double srows = 0.0, snnz = 0.0;
  for (int l = 0; l < levels; ++l) {
    srows += lev_rows[static_cast<std::size_t>(l)];
    snnz += lev_nnz[static_cast<std::size_t>(l)];
  }

  long base_kb = 0, peak_kb = 0;
  MPI_Reduce(&base_kb_loc, &base_kb, 1, MPI_LONG, MPI_SUM, 0, MPI_COMM_WORLD);
  MPI_Reduce(&peak_kb_loc, &peak_kb, 1, MPI_LONG, MPI_SUM, 0, MPI_COMM_WORLD);

  if (g_rank == 0) {
    kornbench::ResultLine line;
    line.put("solver", "hypre").put("config", config).put("threads", nranks);
    line.put("n", static_cast<long>(nglobal)).put("nnz", nnz);
    line.put("setup", t1 - t0).put("solve", t2 - t1).put("total", t2 - t0).put("iters", iters);
    line.put("ierr", 0).put("base_kb", base_kb).put("peak_kb", peak_kb);
    line.put("relres", relres).put("relres_pcg", rel_pcg);
    line.put("levels", levels).put("grc", srows / lev_rows[0]).put("opc", snnz / lev_nnz[0]);
    line.put_list("lev_rows", lev_rows).put_list("lev_nnz", lev_nnz);
    line.put("theta", theta);
    line.put("status", relres <= 1.5 * eps ? "ok" : "noconv");
    line.print(title);
  }

  HYPRE_BoomerAMGDestroy(amg);
  HYPRE_ParCSRPCGDestroy(pcg);
  HYPRE_IJVectorDestroy(ijb);
  HYPRE_IJVectorDestroy(ijx);
  HYPRE_IJVectorDestroy(ijr);
  HYPRE_IJMatrixDestroy(ij);
  HYPRE_Finalize();
  MPI_Finalize();
  return 0;
}
