// Expansion of a matrix stored as its lower triangle into full storage.
#include <algorithm>

#include "log/log.hpp"
#include "store/store.hpp"

namespace kornlt {

ExpandedMatrix& expanded_matrix() {
  static ExpandedMatrix m;
  return m;
}

void extend_matrix(int nnu, const int* ia0, const int* ja0, const double* a0) {
  ExpandedMatrix& x = expanded_matrix();
  const Vec1<const int> ia(ia0, 1, nnu + 1);
  const int nna = ia(nnu + 1) - 1;
  const Vec1<const int> ja(ja0, 1, nna);
  const Vec1<const double> a(a0, 1, nna);

  // Counting pass: every row gets its head (diagonal) and one slot per
  // off-diagonal entry in either triangle.
  x.ia.assign(static_cast<std::size_t>(nnu) + 1, 0);
  for (int i = 1; i <= nnu; ++i)
    for (int k = ia(i); k < ia(i + 1); ++k) {
      const int j = ja(k);
      if (j == i) continue;
      ++x.ia[static_cast<std::size_t>(i) - 1];
      ++x.ia[static_cast<std::size_t>(j) - 1];
    }
  // Row pointers (1-based content): ia0(1) = 1, one head slot per row.
  int sum = 1;
  for (int i = 0; i < nnu; ++i) {
    const int len = x.ia[static_cast<std::size_t>(i)] + 1;
    x.ia[static_cast<std::size_t>(i)] = sum;
    sum += len;
  }
  x.ia[static_cast<std::size_t>(nnu)] = sum;
  const int nna_full = sum - 1;
  x.ja.assign(static_cast<std::size_t>(nna_full), 0);
  x.a.assign(static_cast<std::size_t>(nna_full), 0.0);

  // Fill: the head holds the diagonal (0.0 when absent).
  std::vector<int> next(static_cast<std::size_t>(nnu));
  for (int i = 1; i <= nnu; ++i) {
    const int head = x.ia[static_cast<std::size_t>(i) - 1];
    x.ja[static_cast<std::size_t>(head) - 1] = i;
    next[static_cast<std::size_t>(i) - 1] = head + 1;
  }
  bool negative = false, zero = false, missing = false;
  std::vector<char> has_diag(static_cast<std::size_t>(nnu), 0);
  for (int i = 1; i <= nnu; ++i)
    for (int k = ia(i); k < ia(i + 1); ++k) {
      const int j = ja(k);
      const double v = a(k);
      if (j == i) {
        x.a[static_cast<std::size_t>(x.ia[static_cast<std::size_t>(i) - 1]) - 1] = v;
        has_diag[static_cast<std::size_t>(i) - 1] = 1;
        negative = negative || v < 0.0;
        zero = zero || v == 0.0;
        continue;
      }
      const int pi = next[static_cast<std::size_t>(i) - 1]++;
      x.ja[static_cast<std::size_t>(pi) - 1] = j;
      x.a[static_cast<std::size_t>(pi) - 1] = v;
      const int pj = next[static_cast<std::size_t>(j) - 1]++;
      x.ja[static_cast<std::size_t>(pj) - 1] = i;
      x.a[static_cast<std::size_t>(pj) - 1] = v;
    }
  missing = std::find(has_diag.begin(), has_diag.end(), 0) != has_diag.end();
  if (negative) print_message(kMsgWarning, 0, 0, "Row(s) with negative diagonal found!");
  if (zero) print_message(kMsgWarning, 0, 0, "Row(s) with zero diagonal found!");
  if (missing) print_message(kMsgWarning, 0, 0, "Row(s) with no diagonal found!");
  x.valid = true;
}

void release_expanded_matrix() {
  ExpandedMatrix& x = expanded_matrix();
  x = ExpandedMatrix{};
}

}  // namespace kornlt
