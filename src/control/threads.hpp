// Thread blocks: static contiguous row blocks, and the one wrapper that opens a
// parallel region only when the rows per thread exceed a threshold.
#pragma once

#include <omp.h>

#include <vector>

namespace kornlt {

// The process-wide thread count of the solver (set around each control call).
inline int thread_count() { return omp_get_max_threads(); }

struct RowBlock {
  int lo, hi;  // inclusive; empty when lo > hi
};

// Rows ilo..ihi cut into nt blocks of c = n / nt rows (truncated); block t owns
// ilo + t*c .. ilo - 1 + (t+1)*c and the last block also takes the remainder.
inline RowBlock static_block(int ilo, int ihi, int t, int nt) {
  const int c = (ihi - ilo + 1) / nt;
  return {ilo + t * c, t == nt - 1 ? ihi : ilo - 1 + (t + 1) * c};
}

// True when a loop over ilo..ihi is worth threads: rows per thread > nmin.
inline bool use_threads(int ilo, int ihi, int nmin, int nt) {
  return nt > 1 && (ihi - ilo + 1) / nt > nmin;
}

// Calls body(lo, hi, t) once per static block: in a parallel region when the
// rows per thread exceed `nmin`, otherwise once on the calling thread (t = 0).
template <class Body>
void for_blocks(int ilo, int ihi, int nmin, Body&& body) {
  const int nt = thread_count();
  if (!use_threads(ilo, ihi, nmin, nt)) {
    body(ilo, ihi, 0);
    return;
  }
#pragma omp parallel num_threads(nt)
  {
    const int t = omp_get_thread_num();
    const RowBlock b = static_block(ilo, ihi, t, omp_get_num_threads());
    body(b.lo, b.hi, t);
  }
}

// A sum over rows that does not depend on timing: one partial per block,
// added in block order. part(lo, hi) returns the partial of a block.
template <class Part>
double ordered_sum(int ilo, int ihi, int nmin, Part&& part) {
  const int nt = thread_count();
  if (!use_threads(ilo, ihi, nmin, nt)) return part(ilo, ihi);
  std::vector<double> partial(static_cast<std::size_t>(nt), 0.0);
#pragma omp parallel num_threads(nt)
  {
    const int t = omp_get_thread_num();
    const RowBlock b = static_block(ilo, ihi, t, omp_get_num_threads());
    partial[static_cast<std::size_t>(t)] = part(b.lo, b.hi);
  }
  double s = 0.0;
  for (double p : partial) s += p;
  return s;
}

}  // namespace kornlt
