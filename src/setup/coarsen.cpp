// Coarse-point selection: the C/F split of a level (pcol, serial and
// block-parallel), C-forcing (cforce), aggressive coarsening on a reduced graph
// of the C-variables (reduce, rcol) and the split driver with its checks.
//
// The selection runs in ten steps, which the comments below refer to by number:
//   1  rows of other unknowns leave the strong graph (their strong end negated)
//   2  the transposed strong graph S^T and the measures |S^T_i|
//   3  initial states from the strong end (undecided, FF, C for rows that
//      violate diagonal dominance, outside)
//   4  preselections from outside, where switched on
//   5  the strong transposed neighbours of C-variables given beforehand turn F
//   6  the count of what is still undecided; nothing left ends the selection
//   7  undecided variables into buckets by measure
//   8  the main loop: an empty top bucket steps down (8.1); take the largest
//      measure (8.2); its undecided S^T neighbours turn F and raise the
//      measures of their own strong neighbours (8.3); its undecided strong
//      neighbours lose one (8.4); the changed variables move to their new
//      buckets (8.5)
//   9  cleaning: what stays undecided turns C or is counted as F
//  10  the negation of step 1 undone, the report
#include <omp.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "control/threads.hpp"
#include "log/log.hpp"
#include "params/params.hpp"
#include "setup/setup.hpp"
#include "setup/transpose.hpp"

namespace kornlt {
namespace {

// ===========================================================================
// Small helpers: allocation, formatting, messages
// ===========================================================================

bool g_fail_next_alloc = false;  // test hook

// Counts an allocation; true when the test hook refuses it.
bool refused_by_hook(int& nalloc) {
  ++nalloc;
  const bool refuse = g_fail_next_alloc;
  g_fail_next_alloc = false;
  return refuse;
}

// Counted allocation of a work array left unset, for arrays each thread sets
// itself; false when it failed.
bool alloc_unset(std::unique_ptr<int[]>& v, std::size_t n, int& nalloc) {
  if (refused_by_hook(nalloc)) return false;
  v.reset(new (std::nothrow) int[n]);
  return v != nullptr;
}

// Counted allocation of a work array; false when it failed.
template <class T>
bool alloc(std::vector<T>& v, std::size_t n, T value, int& nalloc) {
  if (refused_by_hook(nalloc)) return false;
  try {
    v.assign(n, value);
  } catch (const std::bad_alloc&) {
    return false;
  }
  return true;
}

std::string fmt_ratio(double v) {
  char buf[32];
  std::snprintf(buf, sizeof buf, "%6.4f", v);
  return buf;
}

// Report lines of this part: info messages under the level's message level.
void report(int msg_level, const std::string& text) {
  if (msg_level >= 0) print_message(kMsgInfo, 0, 0, text);
}

// Lines that already carry their ">>> " mark: written without a prefix, but
// filtered like info messages.
void notice(const std::string& text) {
  if (prm().mode_mess >= 0) print_line(0, 0, text);
}

// ===========================================================================
// The strong graph as the row sort leaves it
// ===========================================================================
// Rows lo..hi; ia[i] is the first position of row i, ja[ia[i]] the strong end
// e: S_i = ja[ia[i]+1 .. e] when e > ia[i], empty otherwise. The same layout
// serves the level (ia, ja) and the reduced graph (iaa, jaa).
struct Graph {
  int lo = 1, hi = 0;
  const int* ia = nullptr;  // origin pointer: valid lo..hi+1
  const int* ja = nullptr;  // origin pointer: valid over the row positions
  int n() const { return hi - lo + 1; }
  // First and one-past-last position of S_i (empty when e <= ia[i]).
  int sbeg(int i) const { return ia[i] + 1; }
  int send(int i) const {
    const int e = ja[ia[i]];
    return e > ia[i] ? e + 1 : ia[i] + 1;
  }
};

// The transposed strong graph: S^T_j = col[ptr[j] .. ptr[j+1]-1] (0-based
// positions), in rising i. ptr is an origin pointer over lo..hi+1.
struct TGraph {
  std::vector<int> ptrv, colv;
  const int* ptr = nullptr;
  const int* col = nullptr;
  int maxlam = 0;  // largest |S^T_j|
};

// Weight of a member i of S^T_k in the measure of k: the serial updates add 1
// when i turns F and take 1 away when it turns C, starting from 1.
inline int measure_weight(int state) {
  return state == kIcgUndecided ? 1 : state == kIcgF ? 2 : state > 0 ? 0 : 1;
}

// Deterministic scrambling of an index: the tie-break of the block variant's
// boundary rounds (index order would serialise long chains of equal measure).
inline std::uint32_t scramble(int i) {
  std::uint32_t x = static_cast<std::uint32_t>(i);
  x ^= x >> 16;
  x *= 0x7feb352dU;
  x ^= x >> 15;
  x *= 0x846ca68bU;
  x ^= x >> 16;
  return x;
}

// Runs body(lo, hi, b) for the nt static blocks b of lo..hi inside one
// parallel region; blocks are fixed by nt, whatever the runtime delivers.
template <class Body>
void parallel_blocks(int lo, int hi, int nt, Body&& body) {
#pragma omp parallel num_threads(nt)
  {
    const int nth = omp_get_num_threads();
    for (int b = omp_get_thread_num(); b < nt; b += nth) {
      const RowBlock r = static_block(lo, hi, b, nt);
      body(r.lo, r.hi, b);
    }
  }
}

// ---------------------------------------------------------------------------
// Transposed strong graph over nt row blocks (one for a serial run); the lists
// come out in rising i, whatever the thread count.
// ---------------------------------------------------------------------------
struct StrongRows {
  const Graph& g;
  int begin(int i) const { return g.sbeg(i); }
  int end(int i) const { return g.send(i); }
  int col(int p) const { return g.ja[p]; }
};

bool transpose(const Graph& g, TGraph& t, int nt, int& nalloc) {
  const int n = g.n(), lo = g.lo;
  if (!alloc(t.ptrv, static_cast<std::size_t>(n) + 1, 0, nalloc)) return false;
  int* ptr = t.ptrv.data() - lo;
  const StrongRows rows{g};
  BlockTranspose bt;
  if (!bt.count(rows, g.lo, g.hi, g.lo, g.hi, nt, ptr, 0)) return false;
  if (!alloc(t.colv, static_cast<std::size_t>(ptr[g.hi + 1]), 0, nalloc)) return false;
  int* col = t.colv.data();
  bt.fill(rows, [&](int at, int i, int) { col[at] = i; });
  std::vector<int> maxb(static_cast<std::size_t>(nt), 0);
  parallel_blocks(g.lo, g.hi, nt, [&](int blo, int bhi, int b) {
    int m = 0;
    for (int j = blo; j <= bhi; ++j) m = std::max(m, ptr[j + 1] - ptr[j]);
    maxb[static_cast<std::size_t>(b)] = m;
  });
  t.maxlam = *std::max_element(maxb.begin(), maxb.end());
  t.ptr = ptr;
  t.col = col;
  return true;
}

// ===========================================================================
// Bucket selection (steps 7 and 8 of the serial routine)
// ===========================================================================
// Buckets: one circular doubly linked list per measure v, head at index
// head0 + v of nd (an origin pointer; variables and heads share the index
// range). Pending list: nd[k].mark = 0 not pending, else the variable pushed
// before k, -1 for the first one. A variable's links and mark share one node,
// so that moving it between buckets touches one cache line.
//
// kBlock false: the whole graph, every undecided variable takes part.
// kBlock true: the rows blo..bhi of one thread block; only variables with
// inner(i) (S_i and S^T_i inside the block) are selected, and only rows of the
// block are read or written, so blocks run concurrently without sharing.
struct ListNode {
  int fw = 0, bw = 0, mark = 0;
};

template <bool kBlock>
void bucket_select(const Graph& g, const TGraph& t, int* icg, int* lam, ListNode* nd, const char* inner, int blo,
                   int bhi, int head0, int nbuck, int& nc, int& nf) {
  auto in_block = [&](int k) { return !kBlock || (k >= blo && k <= bhi); };
  auto listed = [&](int k) { return !kBlock || inner[k] != 0; };
  auto unlink = [&](int x) {
    const int a = nd[x].bw, b = nd[x].fw;
    nd[a].fw = b;
    nd[b].bw = a;
  };
  auto link_head = [&](int x, int v) {
    const int h = head0 + v, first = nd[h].fw;
    nd[x].fw = first;
    nd[x].bw = h;
    nd[first].bw = x;
    nd[h].fw = x;
  };
  for (int v = 0; v < nbuck; ++v) nd[head0 + v].fw = nd[head0 + v].bw = head0 + v;

  // Step 7: undecided variables into the bucket of their measure, in rising
  // order, each at the head.
  int top = -1;
  for (int i = blo; i <= bhi; ++i)
    if (icg[i] == kIcgUndecided && listed(i)) {
      link_head(i, lam[i]);
      top = std::max(top, lam[i]);
    }

  // Step 8: measure 0 is never selected.
  int pend = -1;  // last pushed pending variable
  auto push = [&](int k) {
    if (nd[k].mark == 0) {
      nd[k].mark = pend;
      pend = k;
    }
  };
  while (top > 0) {
    const int h = head0 + top;
    if (nd[h].fw == h) {  // 8.1
      --top;
      continue;
    }
    const int i = nd[h].fw;  // 8.2
    ++nc;
    icg[i] = kIcgC;
    unlink(i);
    for (int p = t.ptr[i]; p < t.ptr[i + 1]; ++p) {  // 8.3
      const int j = t.col[p];
      if (icg[j] != kIcgUndecided) continue;
      icg[j] = kIcgF;
      ++nf;
      if (listed(j)) unlink(j);
      for (int q = g.sbeg(j), e = g.send(j); q < e; ++q) {
        const int k = g.ja[q];
        if (in_block(k) && icg[k] == kIcgUndecided) {
          ++lam[k];
          push(k);
        }
      }
    }
    for (int q = g.sbeg(i), e = g.send(i); q < e; ++q) {  // 8.4
      const int j = g.ja[q];
      if (icg[j] == kIcgUndecided) {
        --lam[j];
        push(j);
      }
    }
    while (pend != -1) {  // 8.5: from the last pushed to the first
      const int k = pend;
      pend = nd[k].mark;
      nd[k].mark = 0;
      if (icg[k] != kIcgUndecided || !listed(k)) continue;
      unlink(k);
      link_head(k, lam[k]);
      top = std::max(top, lam[k]);
    }
  }
}

// Step 9 (serial): what stays undecided. Returns false on an illegal option.
bool clean_serial(const Graph& g, int* icg, SelectionCounts& c, int nxf_clean, const char* who) {
  const int remaining = c.nvars - c.nff - c.nc - c.nf;
  if (remaining <= 0) return true;
  int sw = 0;
  if (nxf_clean == 1) {
    for (int i = g.lo; i <= g.hi; ++i) {
      if (icg[i] != kIcgUndecided) continue;
      bool f_neighbour = false;
      for (int q = g.sbeg(i), e = g.send(i); q < e && !f_neighbour; ++q) f_neighbour = icg[g.ja[q]] == kIcgF;
      if (!f_neighbour) {
        icg[i] = kIcgC;
        ++sw;
      }
    }
  } else if (nxf_clean == 2) {
    for (int i = g.lo; i <= g.hi; ++i)
      if (icg[i] == kIcgUndecided) {
        icg[i] = kIcgC;
        ++sw;
      }
  } else {
    fail(kErrCoarsening, std::string("Illegal option in cleaning up phase (") + who + ")");
    return false;
  }
  c.nsw = sw;
  c.nc += sw;
  c.nf += remaining - sw;
  c.nxf = remaining - sw;
  return true;
}

// ---------------------------------------------------------------------------
// Serial selection, steps 5 to 9, on initial states in icg. c.nvars, c.nc
// (= FC), c.nff set by the caller. False on an error (printed).
// ---------------------------------------------------------------------------
bool select_serial(const Graph& g, const TGraph& t, int* icg, SelectionCounts& c, int nxf_clean,
                   const char* who, int& nalloc) {
  const int n = g.n(), lo = g.lo;
  std::vector<int> lamv;
  if (!alloc(lamv, static_cast<std::size_t>(n), 0, nalloc)) {
    fail(kErrAllocation, "Allocation #" + fmt_int(nalloc) + " failed in (" + who + ")");
    return false;
  }
  int* lam = lamv.data() - lo;
  for (int j = lo; j <= g.hi; ++j) lam[j] = t.ptr[j + 1] - t.ptr[j];

  // Step 5: neighbours of the C-variables given beforehand.
  if (c.nfc > 0) {
    for (int i = lo; i <= g.hi; ++i) {
      if (icg[i] <= 0) continue;
      for (int p = t.ptr[i]; p < t.ptr[i + 1]; ++p) {
        const int j = t.col[p];
        if (icg[j] != kIcgUndecided) continue;
        icg[j] = kIcgF;
        ++c.nf;
        for (int q = g.sbeg(j), e = g.send(j); q < e; ++q)
          if (icg[g.ja[q]] == kIcgUndecided) ++lam[g.ja[q]];
      }
      for (int q = g.sbeg(i), e = g.send(i); q < e; ++q)
        if (icg[g.ja[q]] == kIcgUndecided) --lam[g.ja[q]];
    }
  }

  // Step 6.
  if (c.nvars - c.nff - c.nc - c.nf == 0) return true;

  // Steps 7, 8.
  const int nbuck = 2 * t.maxlam + 1;
  std::vector<ListNode> nodes;
  const std::size_t nlist = static_cast<std::size_t>(n) + 1 + static_cast<std::size_t>(nbuck);
  if (!alloc(nodes, nlist, ListNode{}, nalloc)) {
    fail(kErrAllocation, "Allocation #" + fmt_int(nalloc) + " failed in (" + who + ")");
    return false;
  }
  bucket_select<false>(g, t, icg, lam, nodes.data() - lo, nullptr, lo, g.hi,
                       g.hi + 1, nbuck, c.nc, c.nf);

  // Step 9.
  return clean_serial(g, icg, c, nxf_clean, who);
}

// ---------------------------------------------------------------------------
// Block-parallel selection, steps 5 to 9, on initial states in icg.
//
// The rows are cut into nt static blocks (thread t works on block t).
//  A. Step 5 as a pull: an undecided variable with a C-variable in S_j turns
//     F (flags first, then the states, so no thread reads a state another
//     one writes). Measures are then set from the states: lambda(k) = sum
//     over i in S^T_k of 1 (undecided), 2 (F), 0 (C) - what the serial
//     updates give.
//  B. Interior phase: a variable is inner when S_i and S^T_i lie in its own
//     block. Each block runs the serial bucket selection on its inner
//     variables. Turning an inner i into C touches only S^T_i, S_i (inside
//     the block) and the S_j of the new F-variables, of which only the rows
//     inside the block are updated; nothing outside the block is read or
//     written, so the blocks are independent and their results do not
//     depend on timing. The rules of the serial steps 8.3 and 8.4 hold for
//     every decision: all undecided variables of S^T_i turn F.
//  C. Boundary rounds, for what is left: each round (1) recomputes the
//     measures of the undecided variables from the states, (2) selects every
//     undecided variable with a positive measure that beats all undecided
//     neighbours (S_i and S^T_i) with a positive measure - larger measure,
//     then larger scrambled index, then larger index -, an independent set
//     in S and S^T, (3) turns the selected ones C and every undecided
//     variable with a selected one in S_j F (rule 8.3 as a pull). Each step
//     writes only its own rows and reads what the previous step wrote,
//     behind a barrier. The rounds end when nothing is selected, that is,
//     when every undecided variable has measure 0, as in the serial
//     routine. The variable with the largest key is always selected, so
//     every round makes progress.
//  D. Step 9 in two passes (decide, then switch), counters summed in block
//     order.
// As in the serial routine, a C-variable's S^T holds no variable that was
// undecided when it turned C, so two C-variables are never strongly coupled
// both ways, and every F-variable has a strong C neighbour. With nt = 1 the
// interior phase covers everything and the result is the serial one.
// ---------------------------------------------------------------------------
bool select_parallel(const Graph& g, const TGraph& t, int* icg, SelectionCounts& c, int nxf_clean,
                     const char* who, int nt, int& nalloc) {
  const int n = g.n(), lo = g.lo, hi = g.hi;
  std::vector<int> lamv;
  std::vector<ListNode> nodes;
  std::vector<char> selv, innerv;
  const int nbuck = 2 * t.maxlam + 1;
  const std::size_t nlist = static_cast<std::size_t>(n) + 1 +
                            static_cast<std::size_t>(nt) * static_cast<std::size_t>(nbuck);
  if (!alloc(lamv, static_cast<std::size_t>(n), 0, nalloc) || !alloc(selv, static_cast<std::size_t>(n), char(0), nalloc) ||
      !alloc(innerv, static_cast<std::size_t>(n), char(0), nalloc) || !alloc(nodes, nlist, ListNode{}, nalloc)) {
    fail(kErrAllocation, "Allocation #" + fmt_int(nalloc) + " failed in (" + who + ")");
    return false;
  }
  int* lam = lamv.data() - lo;
  char* sel = selv.data() - lo;
  char* inner = innerv.data() - lo;
  const std::size_t snt = static_cast<std::size_t>(nt);
  std::vector<int> bnc(snt, 0), bnf(snt, 0);

  // A. Step 5 as a pull.
  if (c.nfc > 0) {
    parallel_blocks(lo, hi, nt, [&](int blo, int bhi, int) {
      for (int j = blo; j <= bhi; ++j) {
        char to_f = 0;
        if (icg[j] == kIcgUndecided)
          for (int q = g.sbeg(j), e = g.send(j); q < e && !to_f; ++q) to_f = icg[g.ja[q]] > 0;
        sel[j] = to_f;
      }
    });
    parallel_blocks(lo, hi, nt, [&](int blo, int bhi, int b) {
      for (int j = blo; j <= bhi; ++j)
        if (sel[j]) {
          icg[j] = kIcgF;
          sel[j] = 0;
          ++bnf[static_cast<std::size_t>(b)];
        }
    });
  }
  // Measures and inner flags.
  parallel_blocks(lo, hi, nt, [&](int blo, int bhi, int) {
    for (int k = blo; k <= bhi; ++k) {
      int m = 0;
      bool in = true;
      for (int p = t.ptr[k]; p < t.ptr[k + 1]; ++p) {
        const int i = t.col[p];
        m += measure_weight(icg[i]);
        in = in && i >= blo && i <= bhi;
      }
      for (int q = g.sbeg(k), e = g.send(k); q < e; ++q) in = in && g.ja[q] >= blo && g.ja[q] <= bhi;
      lam[k] = m;
      inner[k] = in ? 1 : 0;
    }
  });
  int nf_a = 0;
  for (int v : bnf) nf_a += v;
  c.nf += nf_a;
  std::fill(bnf.begin(), bnf.end(), 0);
  if (c.nvars - c.nff - c.nc - c.nf == 0) return true;

  // B. Interior phase.
  ListNode* nd = nodes.data() - lo;
  parallel_blocks(lo, hi, nt, [&](int blo, int bhi, int b) {
    const std::size_t sb = static_cast<std::size_t>(b);
    bucket_select<true>(g, t, icg, lam, nd, inner, blo, bhi, hi + 1 + b * nbuck, nbuck, bnc[sb],
                        bnf[sb]);
  });

  // C. Boundary rounds, over the variables each block still has undecided
  // (a list per block, shrinking as they are decided): every other row is
  // left alone by the rounds, so scanning only these gives the same result.
  std::vector<std::vector<int>> open(snt);
  std::atomic<bool> refused{false};
  parallel_blocks(lo, hi, nt, [&](int blo, int bhi, int b) {
    try {
      std::vector<int>& list = open[static_cast<std::size_t>(b)];
      for (int i = blo; i <= bhi; ++i)
        if (icg[i] == kIcgUndecided) list.push_back(i);
    } catch (const std::bad_alloc&) {
      refused = true;
    }
  });
  if (refused) {
    fail(kErrAllocation, "Allocation #" + fmt_int(nalloc + 1) + " failed in (" + who + ")");
    return false;
  }
  std::vector<int> ncand(snt, 0);
  auto beats = [&](int i, int j) {
    if (lam[i] != lam[j]) return lam[i] > lam[j];
    const std::uint32_t si = scramble(i), sj = scramble(j);
    return si != sj ? si > sj : i > j;
  };
#pragma omp parallel num_threads(nt)
  {
    const int nth = omp_get_num_threads(), tid = omp_get_thread_num();
    for (;;) {
      for (int b = tid; b < nt; b += nth) {
        // Drop what the last round decided (its selection marks with it),
        // then the measures of what is left.
        std::vector<int>& list = open[static_cast<std::size_t>(b)];
        std::size_t kept = 0;
        for (const int k : list) {
          sel[k] = 0;
          if (icg[k] == kIcgUndecided) list[kept++] = k;
        }
        list.resize(kept);
        for (const int k : list) {
          int m = 0;
          for (int p = t.ptr[k]; p < t.ptr[k + 1]; ++p) m += measure_weight(icg[t.col[p]]);
          lam[k] = m;
        }
      }
#pragma omp barrier
      for (int b = tid; b < nt; b += nth) {
        int cnt = 0;
        for (const int i : open[static_cast<std::size_t>(b)]) {
          if (lam[i] <= 0) continue;
          bool best = true;
          for (int q = g.sbeg(i), e = g.send(i); q < e && best; ++q) {
            const int j = g.ja[q];
            best = icg[j] != kIcgUndecided || lam[j] <= 0 || beats(i, j);
          }
          for (int p = t.ptr[i]; p < t.ptr[i + 1] && best; ++p) {
            const int j = t.col[p];
            best = icg[j] != kIcgUndecided || lam[j] <= 0 || beats(i, j);
          }
          if (best) {
            sel[i] = 1;
            ++cnt;
          }
        }
        ncand[static_cast<std::size_t>(b)] = cnt;
      }
#pragma omp barrier
      int total = 0;
      for (int v : ncand) total += v;
      if (total == 0) break;  // the same decision on every thread
      for (int b = tid; b < nt; b += nth) {
        const std::size_t sb = static_cast<std::size_t>(b);
        for (const int i : open[sb]) {
          if (sel[i]) {
            icg[i] = kIcgC;
            ++bnc[sb];
            continue;
          }
          bool to_f = false;
          for (int q = g.sbeg(i), e = g.send(i); q < e && !to_f; ++q) to_f = sel[g.ja[q]] != 0;
          if (to_f) {
            icg[i] = kIcgF;
            ++bnf[sb];
          }
        }
      }
#pragma omp barrier
    }
  }
  for (std::size_t b = 0; b < snt; ++b) {
    c.nc += bnc[b];
    c.nf += bnf[b];
  }

  // D. Step 9.
  const int remaining = c.nvars - c.nff - c.nc - c.nf;
  if (remaining <= 0) return true;
  if (nxf_clean != 1 && nxf_clean != 2) {
    fail(kErrCoarsening, std::string("Illegal option in cleaning up phase (") + who + ")");
    return false;
  }
  parallel_blocks(lo, hi, nt, [&](int blo, int bhi, int) {
    for (int i = blo; i <= bhi; ++i) {
      char sw = 0;
      if (icg[i] == kIcgUndecided) {
        sw = 1;
        if (nxf_clean == 1)
          for (int q = g.sbeg(i), e = g.send(i); q < e && sw; ++q) sw = icg[g.ja[q]] != kIcgF;
      }
      sel[i] = sw;
    }
  });
  std::fill(bnc.begin(), bnc.end(), 0);
  parallel_blocks(lo, hi, nt, [&](int blo, int bhi, int b) {
    for (int i = blo; i <= bhi; ++i)
      if (sel[i]) {
        icg[i] = kIcgC;
        ++bnc[static_cast<std::size_t>(b)];
      }
  });
  int sw = 0;
  for (int v : bnc) sw += v;
  c.nsw = sw;
  c.nc += sw;
  c.nf += remaining - sw;
  c.nxf = remaining - sw;
  return true;
}

// ===========================================================================
// pcol: the level's selection
// ===========================================================================

// State counts for the trace of itrace_split.
void trace_states(const LevelView& L, const char* label) {
  if (prm().itrace_split <= 0) return;
  int nc = 0, nf = 0, nu = 0, nff = 0, nout = 0;
  for (int i = L.ilo; i <= L.ihi; ++i) {
    const int s = L.icg(i);
    nc += s > 0;
    nf += s == kIcgF;
    nu += s == kIcgUndecided;
    nff += s == kIcgFF;
    nout += s == kIcgOutside;
  }
  print_message(kMsgInfo, 0, 0,
                std::string(label) + ": C=" + fmt_int(nc) + " F=" + fmt_int(nf) + " U=" + fmt_int(nu) +
                    " FF=" + fmt_int(nff) + " outside=" + fmt_int(nout));
}

// The pcol frame around a selection engine: steps 1 to 4 and 10.
template <class Engine>
SelectionCounts pcol_frame(const LevelView& L, const PcolSettings& s, int nt, Engine&& engine) {
  SelectionCounts c;
  const int nprim = s.nprim;
  if (nprim > 0 && s.iu.empty()) {
    fail(kErrInternal, "Variable-to-unknown map missing for nprim > 0 (pcol)");
    restore_diagonals(L);
    return c;
  }
  if (L.icg.empty()) {
    fail(kErrInternal, "No C/F array for the level (pcol)");
    restore_diagonals(L);
    return c;
  }
  int* ia = L.ia.origin();
  int* ja = L.ja.origin();
  int* icg = L.icg.origin();
  const Graph g{L.ilo, L.ihi, ia, ja};
  auto other = [&](int i) { return nprim > 0 && s.iu(i) != nprim; };

  // Step 1: the rows of other unknowns leave the strong graph.
  c.nvars = L.nrows();
  if (nprim > 0) {
    c.nvars = 0;
    for (int i = L.ilo; i <= L.ihi; ++i) {
      if (other(i))
        ja[ia[i]] = -ja[ia[i]];
      else
        ++c.nvars;
    }
  }

  // Step 2: transposed strong graph.
  int nalloc = 0;
  TGraph t;
  if (!transpose(g, t, nt, nalloc)) {
    fail(kErrAllocation, "Allocation #" + fmt_int(nalloc) + " failed in (pcol)");
    restore_diagonals(L);
    return c;
  }

  // Step 3: initial states from the strong end.
  const int vio_state = prm().iset_vio_dd >= 1 ? kIcgC : kIcgFF;
  std::vector<int> bff(static_cast<std::size_t>(nt), 0), bc(static_cast<std::size_t>(nt), 0);
  auto init_states = [&](int blo, int bhi, int b) {
    int nff = 0, nc = 0;
    for (int i = blo; i <= bhi; ++i) {
      const int e = ja[ia[i]];
      int st;
      if (e > ia[i]) {
        st = kIcgUndecided;
      } else if (e == ia[i]) {
        st = kIcgFF;
      } else if (e == 0) {
        st = other(i) ? kIcgOutside : vio_state;
      } else {
        st = kIcgOutside;
      }
      icg[i] = st;
      nff += st == kIcgFF;
      nc += st == kIcgC;
    }
    bff[static_cast<std::size_t>(b)] = nff;
    bc[static_cast<std::size_t>(b)] = nc;
  };
  if (nt > 1)
    parallel_blocks(L.ilo, L.ihi, nt, init_states);
  else
    init_states(L.ilo, L.ihi, 0);
  for (int b = 0; b < nt; ++b) {
    c.nff += bff[static_cast<std::size_t>(b)];
    c.nc += bc[static_cast<std::size_t>(b)];
  }
  c.nfc = c.nc;
  trace_states(L, "pcol:after initialization");

  // Steps 5 to 9.
  if (!engine(g, t, icg, c, nalloc)) {
    restore_diagonals(L);
    return c;
  }
  trace_states(L, "pcol:after main coarsening phase");

  // Step 10.
  if (nprim > 0)
    for (int i = L.ilo; i <= L.ihi; ++i)
      if (other(i)) ja[ia[i]] = -ja[ia[i]];
  const std::string tag = "pcol(" + fmt_int(s.nxf_clean) + "):       ";
  if (c.nsw > 0) report(s.msg_level, tag + "# status switches XF->C=" + fmt_int(c.nsw));
  report(s.msg_level, tag + "gratio= " + fmt_ratio(c.nvars > 0 ? double(c.nc) / c.nvars : 0.0) +
                          " FF/XF/FC= " + fmt_int(c.nff) + " " + fmt_int(c.nxf) + " " + fmt_int(c.nfc));
  return c;
}

// Threads usable on a graph of n rows: the thread count, 1 for fewer rows.
int usable_threads(int n) {
  const int nt = thread_count();
  return n < nt ? 1 : nt;
}

}  // namespace

void coarsen_fail_next_allocation() { g_fail_next_alloc = true; }

SelectionCounts pcol_serial(const LevelView& L, const PcolSettings& s) {
  return pcol_frame(L, s, 1, [&](const Graph& g, const TGraph& t, int* icg, SelectionCounts& c, int& nalloc) {
    return select_serial(g, t, icg, c, s.nxf_clean, "pcol", nalloc);
  });
}

SelectionCounts pcol_parallel(const LevelView& L, const PcolSettings& s, int nthreads) {
  const int nt = std::max(1, std::min(nthreads, L.nrows()));
  return pcol_frame(L, s, nt, [&](const Graph& g, const TGraph& t, int* icg, SelectionCounts& c, int& nalloc) {
    return select_parallel(g, t, icg, c, s.nxf_clean, "pcol", nt, nalloc);
  });
}

SelectionCounts pcol(const LevelView& L, const PcolSettings& s) {
  const int nt = usable_threads(L.nrows());
  const int ic = prm().icolor_omp;
  const bool early = L.k <= s.par_levels;
  // 1, 2: chunked parallel; 3, 4: per-block selection (the block variant's
  // interior phase); 5: parallel even with one thread; others: serial.
  const bool parallel = early && (((ic >= 1 && ic <= 4) && nt > 1) || ic == 5);
  return parallel ? pcol_parallel(L, s, nt) : pcol_serial(L, s);
}

// ===========================================================================
// cforce
// ===========================================================================
int cforce(const LevelView& L, int npcol, int& nc, int& nf, int msg_level) {
  double factor = 0.0;
  switch (npcol) {
    case 0:
      return 0;
    case 1:
      factor = 1.0;
      break;
    case 2:
      factor = 0.75;
      break;
    default:
      fail(kErrIllegalParameter, "Illegal value of parameter <npcol>");
      return 0;
  }
  const int* ia = L.ia.origin();
  const int* ja = L.ja.origin();
  const double* a = L.a.origin();
  int* icg = L.icg.origin();
  int count = 0;
  for (int i = L.ilo; i <= L.ihi; ++i) {
    if (icg[i] >= 0 || icg[i] == kIcgOutside) continue;
    double t = 0.0;
    for (int p = ia[i] + 1; p < ia[i + 1]; ++p)
      if (icg[ja[p]] < 0) t += std::abs(a[p]);
    if (factor * a[ia[i]] < t) {
      icg[i] = kIcgC;
      ++count;
    }
  }
  nc += count;
  nf -= count;
  report(msg_level, "cforce(" + fmt_int(npcol) + "):     # vars -> C: " + fmt_int(count));
  return count;
}

// ===========================================================================
// Aggressive coarsening: reduced graph, rcol, reduce
// ===========================================================================
bool build_reduced_graph(const LevelView& L, int nc, int nred, int nthreads, ReducedGraph& g) {
  g = ReducedGraph{};
  g.nc = nc;
  const int nt = std::max(1, std::min(nthreads, nc));
  const std::size_t snc = static_cast<std::size_t>(nc);
  int nalloc = 0;
  std::vector<int> rowcnt;
  std::unique_ptr<int[]> stampv, cntv;  // per thread block: set by its thread
  const std::size_t per = snc + 1;
  if (!alloc(g.iaa, snc + 1, 0, nalloc) || !alloc(g.cvar, snc, 0, nalloc) || !alloc(rowcnt, snc + 1, 0, nalloc)) {
    fail(kErrAllocation, "Allocation failed for <iaa,jaa,icgg> in (reduce)");
    return false;
  }
  if (!alloc_unset(stampv, per * static_cast<std::size_t>(nt), nalloc) ||
      !alloc_unset(cntv, per * static_cast<std::size_t>(nt), nalloc)) {
    fail(kErrAllocation, "Allocation failed for <probl_count> in (reduce)");
    return false;
  }
  const int* ia = L.ia.origin();
  const int* ja = L.ja.origin();
  const int* icg = L.icg.origin();
  for (int i = L.ilo; i <= L.ihi; ++i)
    if (icg[i] > 0) g.cvar[static_cast<std::size_t>(icg[i] - 1)] = i;
  const Graph s{L.ilo, L.ihi, ia, ja};

  // The links of C-variable c (row i), handed to emit(l) once each.
  // stamp(l) = c marks a counter counted for this row; counter(l) is set to
  // nred by a direct coupling, and a path link is made when it reaches nred.
  auto row_links = [&](int c, int* stamp, int* counter, auto&& emit) {
    const int i = g.cvar[static_cast<std::size_t>(c - 1)];
    for (int p = s.sbeg(i), e = s.send(i); p < e; ++p) {
      const int l = icg[ja[p]];
      if (l <= 0 || l == c) continue;
      if (stamp[l] != c || counter[l] < nred) {
        stamp[l] = c;
        counter[l] = nred;
        emit(l);
      }
    }
    for (int p = s.sbeg(i), e = s.send(i); p < e; ++p) {
      const int j = ja[p];
      for (int q = s.sbeg(j), f = s.send(j); q < f; ++q) {
        const int l = icg[ja[q]];
        if (l <= 0 || l == c) continue;
        if (stamp[l] != c) {
          stamp[l] = c;
          counter[l] = 0;
        }
        if (++counter[l] == nred) emit(l);
      }
    }
  };
  // A block's stamps start at 0 (no row is 0); a counter is read only
  // behind its stamp.
  auto thread_arrays = [&](int b, int*& stamp, int*& counter) {
    stamp = stampv.get() + per * static_cast<std::size_t>(b);
    counter = cntv.get() + per * static_cast<std::size_t>(b);
    std::fill(stamp, stamp + per, 0);
  };

  // First sweep: count.
  parallel_blocks(1, nc, nt, [&](int blo, int bhi, int b) {
    int *stamp, *counter;
    thread_arrays(b, stamp, counter);
    for (int c = blo; c <= bhi; ++c) {
      int cnt = 0;
      row_links(c, stamp, counter, [&](int) { ++cnt; });
      rowcnt[static_cast<std::size_t>(c)] = cnt;
    }
  });
  // Row starts: each row has its strong-end slot and its links.
  int pos = 1;
  for (int c = 1; c <= nc; ++c) {
    g.iaa[static_cast<std::size_t>(c - 1)] = pos;
    pos += 1 + rowcnt[static_cast<std::size_t>(c)];
    g.nlinks += rowcnt[static_cast<std::size_t>(c)];
  }
  g.iaa[snc] = pos;
  if (!alloc(g.jaa, static_cast<std::size_t>(pos - 1), 0, nalloc)) {
    fail(kErrAllocation, "Allocation failed for <iaa,jaa,icgg> in (reduce)");
    return false;
  }
  // Second sweep: fill, and compare with the count.
  std::vector<int> bad(static_cast<std::size_t>(nt), 0);
  parallel_blocks(1, nc, nt, [&](int blo, int bhi, int b) {
    int *stamp, *counter;
    thread_arrays(b, stamp, counter);
    int* jaa = g.jaa.data() - 1;
    for (int c = blo; c <= bhi; ++c) {
      const int start = g.iaa[static_cast<std::size_t>(c - 1)];
      const int room = g.iaa[static_cast<std::size_t>(c)] - start - 1;
      int k = 0;
      row_links(c, stamp, counter, [&](int l) {
        if (k < room) jaa[start + 1 + k] = l;
        ++k;
      });
      if (k != rowcnt[static_cast<std::size_t>(c)]) bad[static_cast<std::size_t>(b)] = 1;
      jaa[start] = k > 0 ? start + k : 0;
    }
  });
  for (int v : bad)
    if (v) {
      fail(kErrReduceMemory, "Inconsistency in memory requirement (reduce)");
      return false;
    }
  return true;
}

SelectionCounts rcol(const ReducedGraph& rg, std::vector<int>& icgg, int nxf_clean, int nthreads) {
  SelectionCounts c;
  const int nc = rg.nc;
  if (rg.nlinks == 0) {
    fail(kErrCoarsening, "No strong connections found (rcol)");
    return c;
  }
  int nalloc = 0;
  if (!alloc(icgg, static_cast<std::size_t>(nc), 0, nalloc)) {
    fail(kErrAllocation, "Allocation failed for <iaa,jaa,icgg> in (reduce)");
    return c;
  }
  const int nt = std::max(1, std::min(nthreads, nc));
  const Graph g{1, nc, rg.iaa.data() - 1, rg.jaa.data() - 1};
  int* icg = icgg.data() - 1;
  // The transposed graph is the same list for list whichever way it is
  // built, so it takes the threads even when the selection runs serially.
  TGraph t;
  if (!transpose(g, t, usable_threads(nc), nalloc)) {
    fail(kErrAllocation, "Allocation #" + fmt_int(nalloc) + " failed in (rcol)");
    return c;
  }
  // Rows without links are C; all others start undecided.
  c.nvars = nc;
  for (int r = 1; r <= nc; ++r) {
    icg[r] = g.ja[g.ia[r]] == 0 ? kIcgC : kIcgUndecided;
    c.nc += icg[r] == kIcgC;
  }
  c.nfc = c.nc;
  if (nt > 1)
    select_parallel(g, t, icg, c, nxf_clean, "rcol", nt, nalloc);
  else
    select_serial(g, t, icg, c, nxf_clean, "rcol", nalloc);
  return c;
}

void reduce(const LevelView& L, const ReduceSettings& s, int& nc, int& nf, bool& aggressive) {
  const std::string tag = "reduc(" + fmt_int(s.nred) + "):      ";
  if (nc < 6) {
    report(s.msg_level, tag + "aggressive coarsening skipped (low # C-variables)");
    aggressive = false;
    return;
  }
  int* icg = L.icg.origin();
  // Number the C-variables 1..nc in rising order.
  int ncount = 0;
  for (int i = L.ilo; i <= L.ihi; ++i)
    if (icg[i] > 0) icg[i] = ++ncount;
  auto restore_c = [&] {
    for (int i = L.ilo; i <= L.ihi; ++i)
      if (icg[i] > 0) icg[i] = kIcgC;
  };

  const int nt = usable_threads(ncount);
  const int ic = prm().icolor_omp;
  const bool early = L.k <= s.par_levels && nt > 1;
  ReducedGraph rg;
  if (!build_reduced_graph(L, ncount, s.nred, early && (ic == 2 || ic == 5) ? nt : 1, rg)) {
    restore_c();
    return;
  }
  if (rg.nlinks == 0) {
    report(s.msg_level, tag + "+++ no aggressive coarsening possible");
    aggressive = false;
    restore_c();
    return;
  }
  std::vector<int> icgg;
  rcol(rg, icgg, s.nxf_clean, early && ic == 1 ? nt : 1);
  if (failed()) {
    restore_c();
    return;
  }
  int m = 0;
  for (int c = 1; c <= ncount; ++c) {
    const int i = rg.cvar[static_cast<std::size_t>(c - 1)];
    if (icgg[static_cast<std::size_t>(c - 1)] > 0) {
      icg[i] = kIcgC;
    } else {
      icg[i] = kIcgAggressiveF;
      ++m;
    }
  }
  nc -= m;
  nf += m;
  if (m == 0) aggressive = false;
  report(s.msg_level, tag + "gratio= " + fmt_ratio(s.nvars > 0 ? double(nc) / s.nvars : 0.0));
}

// ===========================================================================
// Reduction test and split
// ===========================================================================
bool reduction_test(int level, double r, std::string_view tag, ReductionFlags& flags) {
  if (flags.one_shot_stop) {
    flags.one_shot_stop = false;
    return true;
  }
  const int too_slow = prm().lev_coarsening_too_slow;
  if (too_slow > 0 && too_slow == level) {
    print_message(kMsgInfo, 0, 0, "coarsening too slow enforced! " + std::string(tag));
    return true;
  }
  if (r >= prm().slow_coarsening) {
    if (r >= prm().term_coarsening) {
      warn(kWarnCoarseningStopped, "Coarsening terminated: inefficient grid reduction! " + std::string(tag));
      return true;
    }
    if (flags.inefficient_armed) {
      print_message(kMsgWarning, 0, 0, "Inefficient coarsening! " + std::string(tag));
      flags.inefficient_armed = false;
    }
  }
  return false;
}

SplitResult split(const LevelView& L, const SplitSettings& s) {
  SplitResult r;
  r.aggressive = s.aggressive;
  r.nrc = s.nrc;
  if (s.cluster) {
    fail(kErrNotAvailable, "Cluster coarsening is not available in this build (split)");
    return r;
  }
  if (s.internal != 0 || s.nstyp != 1) {
    fail(kErrIllegalParameter, "Incorrect INTERNAL setting: (only internal=0 possible) !");
    return r;
  }
  const int n = L.nrows();
  auto stop = [&] {
    r.stop = true;
    if (n > prm().nptmax && s.nrc >= 6 && s.nrc <= 11) r.nrc = prm().nrc_emergency;
    return r;
  };

  PcolSettings ps;
  ps.nprim = s.nprim;
  ps.iu = s.iu;
  ps.nxf_clean = s.nxf_clean;
  ps.msg_level = s.msg_level;
  ps.par_levels = s.par_levels;
  r.counts = pcol(L, ps);
  if (failed()) return r;
  int nc = r.counts.nc, nf = r.counts.nf;

  if (r.aggressive) {
    ReduceSettings rs;
    rs.nred = s.nred;
    rs.nxf_clean = s.nxf_clean;
    rs.nvars = r.counts.nvars;
    rs.msg_level = s.msg_level;
    rs.par_levels = s.par_levels;
    reduce(L, rs, nc, nf, r.aggressive);
    if (failed()) return r;
  }
  r.nc = nc;
  r.nf = nf;

  if (nc < 3) {
    notice(">>> Coarsening stopped: less than 3 C-variables (including FC)");
    return stop();
  }
  const std::string few_f = ">>> Coarsening stopped: less than 3 F-variables (not including FF)";
  if (nf < 3) {
    notice(few_f);
    return stop();
  }
  if (s.npcol != 0) {
    cforce(L, s.npcol, nc, nf, s.msg_level);
    if (failed()) return r;
    r.nc = nc;
    r.nf = nf;
    if (nf < 3) {
      notice(few_f);
      return stop();
    }
  }
  if (nc <= s.nptmn && n <= prm().nptmax) {
    notice(">>> Coarsening stopped: low # C-variables");
    return stop();
  }
  ReductionFlags local;
  local.inefficient_armed = s.msg_level >= 0;
  ReductionFlags& flags = s.flags != nullptr ? *s.flags : local;
  if (reduction_test(L.k, n > 0 ? double(nc) / n : 1.0, "(split_3)", flags)) return stop();
  return r;
}

}  // namespace kornlt
