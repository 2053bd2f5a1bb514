// Checks of the caller's matrix: the format contract and, on request, the
// symmetry and row-sum claims of the `matrix` code.
#include <cmath>
#include <vector>

#include "log/log.hpp"
#include "store/store.hpp"

namespace kornlt {

void logical_check(int nnu, int nna, const int* ia0, const int* ja0, const double* a0, bool half) {
  // 1-based views of the caller's arrays.
  const Vec1<const int> ia(ia0, 1, nnu + 1);
  const Vec1<const double> a(a0, 1, std::max(nna, 0));
  const Vec1<const int> ja(ja0, 1, std::max(nna, 0));
  auto refuse = [](std::string_view text) { fail(kErrPointer, text); };

  if (ia(1) != 1) return refuse("ia(1)=1 expected!");

  // Row structure: pointers, column range, duplicates (stamp of the last row
  // that referenced each column).
  std::vector<int> stamp(static_cast<std::size_t>(nnu) + 1, 0);
  for (int i = 1; i <= nnu; ++i) {
    const int lo = ia(i), hi = ia(i + 1) - 1;
    if (hi < lo) return refuse("Row length <=0 detected!");
    if (lo < 1 || hi > nna) return refuse("ia-values exceed the range 1,2,...,nna!");
    for (int k = lo; k <= hi; ++k) {
      const int j = ja(k);
      if (j < 1 || j > nnu) return refuse("ja-values exceed the range 1,2,...,nnu!");
      if (half && j > i) return refuse("ja-values exist for upper triangular part!");
      if (stamp[static_cast<std::size_t>(j)] == i) return refuse("Multiple reference(s) to the same column!");
      stamp[static_cast<std::size_t>(j)] = i;
    }
  }

  // Diagonals: first in the row, positive. Findings are collected.
  bool not_first = false, negative = false, zero = false, missing = false;
  for (int i = 1; i <= nnu; ++i) {
    const int lo = ia(i), hi = ia(i + 1) - 1;
    int pos = 0;
    if (ja(lo) == i) {
      pos = lo;
    } else {
      for (int k = lo + 1; k <= hi && pos == 0; ++k)
        if (ja(k) == i) pos = k;
      if (pos != 0) not_first = true;
    }
    if (pos == 0) {
      missing = true;
    } else if (a(pos) < 0.0) {
      negative = true;
    } else if (!(a(pos) > 0.0)) {
      zero = true;  // zero (or NaN) diagonal
    }
  }
  if (not_first) print_message(kMsgError, 0, 0, "Diagonal entries not at first position!");
  if (negative) print_message(kMsgError, 0, 0, "Negative diagonal entries found!");
  if (zero) print_message(kMsgError, 0, 0, "Zero diagonal entries found!");
  if (missing) print_message(kMsgError, 0, 0, "Row(s) without diagonal element found!");
  if (not_first || negative || zero || missing) return refuse("Illegal matrix specified!");
  print_message(kMsgInfo, 0, 0, "Logical matrix structure seems to be ok");
}

void additional_checks(int nnu, const int* ia0, const int* ja0, const double* a0, double chktol, int isym,
                       int irow0) {
  const Vec1<const int> ia(ia0, 1, nnu + 1);
  const int nna = ia(nnu + 1) - 1;
  const Vec1<const int> ja(ja0, 1, nna);
  const Vec1<const double> a(a0, 1, nna);

  // Position of each row's entries by column, for transpose lookups: one
  // pass with a dense marker per row (O(nna) overall with a CSR transpose).
  std::vector<int> tcount(static_cast<std::size_t>(nnu) + 2, 0);
  for (int k = 1; k <= nna; ++k) ++tcount[static_cast<std::size_t>(ja(k)) + 1];
  for (int j = 1; j <= nnu + 1; ++j) tcount[static_cast<std::size_t>(j)] += tcount[static_cast<std::size_t>(j) - 1];
  // Transposed structure: for column j, the rows i with an entry (i, j) and the value.
  std::vector<int> trow(static_cast<std::size_t>(nna));
  std::vector<double> tval(static_cast<std::size_t>(nna));
  {
    std::vector<int> fill(tcount.begin(), tcount.end() - 1);
    for (int i = 1; i <= nnu; ++i)
      for (int k = ia(i); k < ia(i + 1); ++k) {
        const auto slot = static_cast<std::size_t>(fill[static_cast<std::size_t>(ja(k))]++);
        trow[slot] = i;
        tval[slot] = a(k);
      }
  }

  bool structurally_symmetric = true;
  double sym_measure = 0.0, rowsum_measure = 0.0;
  std::vector<double> rowval(static_cast<std::size_t>(nnu) + 1, 0.0);
  std::vector<int> mark(static_cast<std::size_t>(nnu) + 1, 0);
  for (int i = 1; i <= nnu; ++i) {
    const double d = a(ia(i));
    double sum = 0.0;
    for (int k = ia(i); k < ia(i + 1); ++k) sum += a(k);
    rowsum_measure = std::max(rowsum_measure, std::abs(sum / d));
    // Entries (j, i) of column i, i.e. row i of the transpose.
    for (int t = tcount[static_cast<std::size_t>(i)]; t < tcount[static_cast<std::size_t>(i) + 1]; ++t) {
      mark[static_cast<std::size_t>(trow[static_cast<std::size_t>(t)])] = i;
      rowval[static_cast<std::size_t>(trow[static_cast<std::size_t>(t)])] = tval[static_cast<std::size_t>(t)];
    }
    for (int k = ia(i) + 1; k < ia(i + 1); ++k) {
      const int j = ja(k);
      if (mark[static_cast<std::size_t>(j)] != i) {
        structurally_symmetric = false;
        continue;
      }
      const double aji = rowval[static_cast<std::size_t>(j)];
      sym_measure = std::max(sym_measure, std::abs(a(k) - aji) / (a(ia(j)) + d));
    }
  }

  if (isym == 1 && !structurally_symmetric) {
    print_message(kMsgError, 0, 0, "According to parameter <isym>, matrix should be symmetric.");
    fail(kErrInconsistent, "However, it is not even symmetrically stored!");
    return;
  }
  const int sym_verdict = sym_measure <= chktol && structurally_symmetric ? 1 : (structurally_symmetric ? 0 : -1);
  const int row_verdict = rowsum_measure <= chktol ? 1 : 0;
  if ((isym == 1 && sym_verdict != 1) || (isym == 2 && sym_verdict == 1))
    warn(kWarnParameterCorrected, "Parameter <isym> may be wrong. Check!");
  if ((irow0 == 1 && row_verdict == 0) || (irow0 == 2 && row_verdict == 1))
    warn(kWarnParameterCorrected, "Parameter <irow0> may be wrong. Check!");
}

}  // namespace kornlt
