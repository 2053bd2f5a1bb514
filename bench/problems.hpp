// Benchmark problems: model operators generated row by row, so that every MPI
// rank of the peer solver builds only its own block of rows and gets exactly
// the rows the single KORN process builds, and Matrix Market files.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kornbench {

// What a problem name names.
//   poisson7:N         3D seven-point Laplacian on an N^3 grid (Dirichlet boundary
//                      eliminated): diagonal 6, neighbours -1
//   poisson27:N        3D 27-point Laplacian on an N^3 grid: diagonal 26, the 26
//                      neighbours -1
//   aniso2d:N[:EPS]    2D five-point -EPS u_xx - u_yy on an N^2 grid (EPS 0.001)
//   gw:N               3D seven-point groundwater operator on an N^3 cell grid:
//                      layered lognormal conductivity (layer means 1e-4..1e4),
//                      harmonic-mean face conductances, fixed-head cells
//   mtx:PATH           a Matrix Market coordinate file (symmetric or general)
enum class Kind { kPoisson7, kPoisson27, kAniso2d, kGroundwater, kMtx };

struct ProblemDef {
  Kind kind = Kind::kPoisson7;
  int n = 0;              // grid points per direction (generated kinds)
  double eps = 1.0e-3;    // anisotropy (aniso2d)
  std::string path;       // file (mtx)
  std::string text;       // the name as given
  int dim = 3;            // space dimension (2 for aniso2d; 0 unknown for mtx)
};

// Parses a problem name; returns "" or the failure text.
std::string parse_problem(const std::string& text, ProblemDef& s);

// A block of rows [lo, hi) (0-based global row numbers) of the problem in the
// library's row form: `ia` local row pointers (1-based positions, ia[0] = 1),
// `ja` global column numbers (1-based), the diagonal first in every row and
// the other columns ascending; `f` the right-hand side of these rows.
struct Rows {
  std::int64_t nglobal = 0;  // rows of the whole problem
  int lo = 0, hi = 0;        // the block
  std::vector<int> ia, ja;
  std::vector<double> a, f;
  bool symmetric = true;     // the whole matrix is symmetric
  std::string title;         // one line describing the problem
};

// Rows of the whole problem (0 <= lo <= hi <= nglobal; hi < 0 means all rows).
// Generated kinds depend only on the problem name, never on the block.
// A Matrix Market file is read whole and cut to the block. Returns "" or the
// failure text.
std::string build_rows(const ProblemDef& s, int lo, int hi, Rows& r);

// Number of rows of a problem without building it (reads the size line of a
// Matrix Market file).
std::string problem_size(const ProblemDef& s, std::int64_t& n);

// The right-hand side value of global row i (0-based) for the kinds without a
// physical source term: uniform in [-1, 1] from a hash of the row number.
double random_rhs(std::int64_t i);

// Contiguous block of rank `rank` of `nranks` over n rows: the first n % nranks
// blocks get one row more.
void block_of(std::int64_t n, int rank, int nranks, int& lo, int& hi);

}  // namespace kornbench
