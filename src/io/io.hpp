// Matrix files: the Matrix Market reader and its conversion to the library's
// compressed rows, the right-hand-side vector files, and the built-in
// groundwater-flow model problem that tools use when no file is given.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace kornlt {

// ---------------------------------------------------------------------------
// The library's matrix form: compressed rows, 1-based, the diagonal the first
// entry of every row, the remaining columns of a row ascending, no column
// twice in a row.
// ---------------------------------------------------------------------------
struct CsrMatrix {
  int nnu = 0;             // rows (= columns)
  int nna = 0;             // stored entries, ia(nnu+1) - 1
  std::vector<int> ia;     // nnu+1 row pointers (1-based positions), ia[0] = 1
  std::vector<int> ja;     // at least nna column indices (1-based); the first nna count
  std::vector<double> a;   // at least nna values; the first nna count
};

// ---------------------------------------------------------------------------
// Matrix Market files
//
// Matrices: "%%MatrixMarket matrix coordinate <field> <symmetry>", field real,
// integer or pattern (every value 1.0), symmetry general or symmetric. Lines
// starting with '%' and blank lines are skipped. Entries are 1-based. The
// conversion sums duplicates, expands a symmetric file to both triangles (an
// off-diagonal entry of either triangle is mirrored), and gives a row without
// a stored diagonal an explicit 0.0 diagonal.
//
// Vectors: "%%MatrixMarket matrix array <real|integer> general", a size line
// "<rows> 1" and one value per line.
//
// Every failure text names the file and, where there is one, the line:
// "<name>: line <n>: <what>". Line numbers count from 1; a missing item is
// reported at the line after the last line of the file.
// ---------------------------------------------------------------------------
enum class MtxField { kReal, kInteger, kPattern };
enum class MtxSymmetry { kGeneral, kSymmetric };

// What the reader found beside the matrix.
struct MtxInfo {
  MtxField field = MtxField::kReal;
  MtxSymmetry symmetry = MtxSymmetry::kGeneral;
  std::int64_t nentries = 0;  // entries on file (the size line's count)
  int ndiag_added = 0;        // rows that got an explicit 0.0 diagonal
  std::int64_t nduplicates = 0;  // entries summed into an earlier one of the same position
};

// Reads a coordinate matrix file into `m`. Returns "" on success, otherwise
// the failure text (and `m` is left empty).
std::string mtx_load_matrix(const std::string& path, CsrMatrix& m, MtxInfo& info);
// Reads an array vector file into `v`. Returns "" or the failure text.
std::string mtx_load_vector(const std::string& path, std::vector<double>& v);
// Writes `v` as an array vector file with 17 significant digits. Returns ""
// or the failure text.
std::string mtx_save_vector(const std::string& path, const std::vector<double>& v);

// The same under the library's error convention: a failure is printed as an
// error naming the routine, and ierr() becomes kErrFile.
void read_mtx_matrix(const std::string& path, CsrMatrix& m, MtxInfo& info);
void read_mtx_vector(const std::string& path, std::vector<double>& v);
void write_mtx_vector(const std::string& path, const std::vector<double>& v);

// One coordinate entry (1-based row and column) for the conversion below.
struct MtxEntry {
  int i, j;
  double v;
};

// The conversion on its own: entries (1-based, already range-checked) to the
// library's rows. symmetric mirrors every off-diagonal entry. Linear in the
// entry count apart from the sort inside each row. Returns the number of
// explicit 0.0 diagonals added; nduplicates receives the summed entries.
// Entries at one position are summed in their order in `e`.
int entries_to_csr(int n, bool symmetric, const std::vector<MtxEntry>& e, CsrMatrix& m,
                   std::int64_t& nduplicates);

// ---------------------------------------------------------------------------
// The model problem: steady groundwater flow on an nx*ny*nz cell grid,
//   sum over faces  C_f (h_cell - h_neighbour) = Q_cell,
// seven-point, cell-centred. Hydraulic conductivity K is layered (aquifer and
// aquitard units, log10 K about -0.5 and -5.5 in m/day: a contrast near 1e5,
// up to 1e6 with the in-unit spread) with a lognormal variation inside each
// unit; face conductances use the harmonic mean of the two cells' K times the
// face area over the centre distance. Cells 50 m x 50 m x 5 m.
//
// Fixed-head cells (two vertical strips, on the faces x = 0 and x = max, in
// the upper part of the grid) are no unknowns: their head is moved into the
// right-hand side of their neighbours. So the matrix is a symmetric, weakly
// diagonally dominant M-matrix whose rows beside a fixed cell have a positive
// row sum: it is positive definite. The right-hand side adds a recharge on the
// top layer and a few pumping and injection wells.
// ---------------------------------------------------------------------------
struct GroundwaterModel {
  int nx = 0, ny = 0, nz = 0;
  CsrMatrix m;                 // the active cells' operator
  std::vector<double> f;       // nnu right-hand side values
  std::vector<int> unknown;    // per cell (i + nx*(j + ny*k), 0-based): unknown number (1-based), or 0 for fixed head
  std::vector<double> kcell;   // per cell: hydraulic conductivity (m/day)
  std::vector<double> hfixed;  // per cell: the fixed head where unknown is 0, else 0.0
  int nfixed = 0;              // fixed-head cells
  int nwells = 0;              // wells placed
};

// Cell sizes of the model problem (m).
inline constexpr double kGwDx = 50.0, kGwDy = 50.0, kGwDz = 5.0;

// Builds the model problem; nx, ny, nz at least 2. The result depends only on
// the sizes and the seed.
void groundwater_problem(int nx, int ny, int nz, std::uint64_t seed, GroundwaterModel& g);

// The conductivity field alone (per cell, m/day), as the problem uses it.
std::vector<double> groundwater_conductivity(int nx, int ny, int nz, std::uint64_t seed);

// Whether cell (i, j, k) (0-based) holds a fixed head, and its value.
bool groundwater_fixed_head(int nx, int ny, int nz, int i, int j, int k, double& head);

}  // namespace kornlt
