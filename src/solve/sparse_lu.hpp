// Sparse LU of a coarsest-level matrix (nrc 7): a minimum degree order of the
// pattern of A + A^T, then a left-looking LU with threshold partial pivoting
// that prefers the diagonal. All indices here are 0-based.
#pragma once

#include <cstdint>
#include <vector>

namespace kornlt {

// A square matrix by columns: column j holds ri/ax[cp[j] .. cp[j+1]-1].
struct CscMatrix {
  int n = 0;
  std::vector<int> cp;     // n+1 column starts
  std::vector<int> ri;     // row indices
  std::vector<double> ax;  // values
};

// The factors P A Q = L U. Column k of L and U belongs to column q[k] of A;
// row i of A is row pinv[i] of the factors.
struct SparseLU {
  int n = 0;
  std::vector<int> q;        // column order (the minimum degree order)
  std::vector<int> pinv;     // row permutation, inverse form
  std::vector<int> lp, li;   // L by columns: strict lower part, unit diagonal implied;
  std::vector<double> lx;    //   li in factor row numbering
  std::vector<int> up, ui;   // U by columns, the diagonal last in each column
  std::vector<double> ux;
  std::int64_t predicted_l = 0;  // strict lower entries the symbolic phase expects
  int off_diagonal_pivots = 0;   // columns whose pivot was not the diagonal
  std::int64_t entries() const { return static_cast<std::int64_t>(li.size() + ui.size()); }
};

// The minimum degree order of the pattern of A + A^T (diagonal ignored) by
// elimination on the explicit filled graph; ties go to the lowest index.
// `lcount` receives the strict lower entries of the symmetric factor of that
// order.
std::vector<int> minimum_degree_order(const CscMatrix& a, std::int64_t& lcount);

// Symbolic phase: the column order and the predicted size of the factors.
// False when the memory is not available.
bool spg_alloc(const CscMatrix& a, SparseLU& f);

// Numeric phase on the order of spg_alloc. A column's pivot is the diagonal
// when |a_jj| >= `threshold` * max |candidate|, else the largest candidate. A
// pivot of at most n * eps * min(row scale, column scale) of A, or none at
// all, means a singular matrix: false, with `bad_column` the column of A.
bool spg_lufact(const CscMatrix& a, SparseLU& f, double threshold, int& bad_column);

// x := A^{-1} b in place of b; `work` has n values.
void spg_solve(const SparseLU& f, double* b, double* work);

}  // namespace kornlt
