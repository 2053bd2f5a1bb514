// Strength of connection and row sorting (rwsrt): decides per row which
// couplings are strong and moves them directly behind the diagonal, so that
// the rest of the setup reads strength from the row layout alone.
#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <memory>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "control/threads.hpp"
#include "log/log.hpp"
#include "params/params.hpp"
#include "setup/setup.hpp"

namespace kornlt {

// ===========================================================================
// Encoded reals
// ===========================================================================

void split_encoded(double value, double& first, double& second) {
  const double x = std::abs(value);
  const double p = std::floor(x);
  // The fraction as written: 12.2 - 12 is 0.19999999999999929 in binary, so
  // it is rounded to 12 decimals (encoded values stay far below 1e3).
  second = std::round((x - p) * 1e12) / 1e12;
  if (p < 10.0) {
    first = p;
    return;
  }
  // Two digits d1 d2: d2 * 10^(-d1); any further leading digits join d1.
  const auto ip = static_cast<long long>(p);
  const long long d1 = ip / 10, d2 = ip % 10;
  first = static_cast<double>(d2) / std::pow(10.0, static_cast<double>(d1));
}

namespace {

bool refuse_next_allocation = false;

// ---------------------------------------------------------------------------
// Row classes, tested in this order; the first that fits decides.
// ---------------------------------------------------------------------------
enum RowClass : int {
  kRowDirichlet,     // no off-diagonal
  kRowStrongDD,      // S <= ecg1 * a_ii                  -> ja(ia(i)) = ia(i)
  kRowViolating,     // S > L * |a_ii|                    -> ja(ia(i)) = 0
  kRowNonPosDiag,    // a_ii <= 0                         -> ja(ia(i)) = 0
  kRowOnlyPositive,  // no negative off-diagonal          -> by type
  kRowNormal,        // strong selection
};

struct Settings {
  int type;     // effective ncgtyp, 1..5
  double ecg1;  // strong diagonal dominance: S <= ecg1 * a_ii
  double ecg2;  // strength threshold
  double lviol; // violation limit L (ewt1, or 1e+70 for ewt1 = 0)
  double ewt2;  // large positive entries: a_ij > ewt2 * |amin|
  double eps;   // diagonal-dominance stop level
};

// Per-thread results, combined in thread order after each loop.
struct Counts {
  std::int64_t nstrong = 0;
  bool diagdom = true;
  int ndirichlet = 0, nstrong_dd = 0, nviolating = 0, nnonpos_diag = 0, nonly_pos = 0;
  int nelim = 0, nelim_ineffective = 0, nelim_failed = 0, nlarge_weak = 0;

  void add(const Counts& c) {
    nstrong += c.nstrong;
    diagdom = diagdom && c.diagdom;
    ndirichlet += c.ndirichlet;
    nstrong_dd += c.nstrong_dd;
    nviolating += c.nviolating;
    nnonpos_diag += c.nnonpos_diag;
    nonly_pos += c.nonly_pos;
    nelim += c.nelim;
    nelim_ineffective += c.nelim_ineffective;
    nelim_failed += c.nelim_failed;
    nlarge_weak += c.nlarge_weak;
  }
};

// One scan of a row's off-diagonals ia(i)+1 .. ia(i+1)-1.
struct RowScan {
  double s = 0.0;     // sum of |a_ij|
  double amin = 0.0;  // min(0, a_ij)
  double amax = 0.0;  // max(0, a_ij)
  int pmin = 0;       // first position attaining amin < 0; 0 if no entry is negative
  int pmax = 0;       // first position attaining the largest off-diagonal
};

inline RowScan scan_row(const double* a, int k0, int k1) {
  RowScan r;
  for (int k = k0; k < k1; ++k) {
    const double v = a[k];
    r.s += std::abs(v);
    if (v < r.amin) {
      r.amin = v;
      r.pmin = k;
    }
    if (v > r.amax) {
      r.amax = v;
      r.pmax = k;
    }
  }
  // Only reachable with all off-diagonals zero: the first attains the maximum.
  if (r.pmax == 0) r.pmax = k0;
  return r;
}

// The class of row i (d = ia(i), e = ia(i+1)) before its strong couplings are
// chosen: Dirichlet, strongly diagonally dominant, violating, non-positive
// diagonal, only positive couplings, or normal. Sets the
// strong end to ia(i), or 0 for the classes that cannot be treated normally,
// keeps diagdom and the class counters. The comparisons are made exactly in
// these forms: a zero diagonal with S > 0 is a violating row even for L = 1e70.
inline RowClass classify_row(int* ja, const double* a, int d, int e, const Settings& st, Counts& c,
                             RowScan& r) {
  ja[d] = d;
  if (e - d == 1) {
    ++c.ndirichlet;
    return kRowDirichlet;
  }
  r = scan_row(a, d + 1, e);
  const double aii = a[d];
  if (c.diagdom && st.eps * aii < r.s) c.diagdom = false;
  if (r.s <= st.ecg1 * aii) {
    ++c.nstrong_dd;
    return kRowStrongDD;
  }
  if (r.s > st.lviol * std::abs(aii)) {
    ++c.nviolating;
    ja[d] = 0;
    return kRowViolating;
  }
  if (aii <= 0.0) {
    ++c.nnonpos_diag;
    ja[d] = 0;
    return kRowNonPosDiag;
  }
  if (r.amin == 0.0) {
    ++c.nonly_pos;
    return kRowOnlyPositive;
  }
  return kRowNormal;
}

// Moves the strong entries of row d+1 .. e-1 to its front, the head p first,
// and returns the position of the last strong one. `strong(k)` tells whether
// the entry now at k is strong; it must hold for the head. One pass of
// exchanges: right walks down over the row, left up over the strong front.
template <class Strong>
inline int move_to_front(int* ja, double* a, int d, int e, int p, Strong strong) {
  int left = d + 1;
  if (p != left) {
    std::swap(a[p], a[left]);
    std::swap(ja[p], ja[left]);
  }
  int right = e;
  for (;;) {
    --right;
    if (!(left < right)) break;
    if (!strong(right)) continue;
    do ++left;
    while (left < right && strong(left));
    if (left == right) break;
    std::swap(a[left], a[right]);
    std::swap(ja[left], ja[right]);
  }
  return right;
}

// ---------------------------------------------------------------------------
// Types 1 and 2: the plain test, sorted in the same pass.
// ---------------------------------------------------------------------------
void sort_rows_plain(const int* ia, int* ja, double* a, int lo, int hi, const Settings& st, Counts& c) {
  for (int i = lo; i <= hi; ++i) {
    const int d = ia[i], e = ia[i + 1];
    RowScan r;
    const RowClass cls = classify_row(ja, a, d, e, st, c, r);
    int end;
    if (cls == kRowNormal) {
      const double thr = st.ecg2 * r.amin;  // equality counts
      end = move_to_front(ja, a, d, e, r.pmin, [a, thr](int k) { return a[k] <= thr; });
    } else if (cls == kRowOnlyPositive) {
      if (st.type == 1) {
        ja[d] = 0;
        continue;
      }
      const double thr = st.ecg2 * r.amax;
      end = move_to_front(ja, a, d, e, r.pmax, [a, thr](int k) { return a[k] >= thr; });
    } else {
      continue;
    }
    ja[d] = end;
    c.nstrong += end - d;
  }
}

// ---------------------------------------------------------------------------
// Types 3, 4, 5: positive elimination. The first loop reads rows of other
// threads (unsorted, their column slots possibly negated by marks), so marks
// and those reads go through relaxed atomics; the sort waits for all threads.
// ---------------------------------------------------------------------------
inline void mark(int& x) { std::atomic_ref<int>(x).store(-x, std::memory_order_relaxed); }
inline int column_of(int& x) { return std::abs(std::atomic_ref<int>(x).load(std::memory_order_relaxed)); }

// Marks every entry of d+1 .. e-1 that satisfies `strong`.
template <class Strong>
inline void mark_where(int* ja, int d, int e, Strong strong) {
  for (int k = d + 1; k < e; ++k)
    if (strong(k)) mark(ja[k]);
}

// First loop for rows lo..hi: classify, mark the strong entries and record
// the head in pos(i) (0 for none). wz: the thread's work vector, indexed by
// column, zeroed once before the loop. It needs no clearing between rows:
// only the row's own columns are ever read, and the scatter of the row
// overwrites them before the elimination adds to them.
void mark_rows_enhanced(const int* ia, int* ja, const double* a, int lo, int hi, const Settings& st, Counts& c,
                        double* wz, int* pos) {
  for (int i = lo; i <= hi; ++i) {
    pos[i] = 0;
    const int d = ia[i], e = ia[i + 1];
    RowScan r;
    const RowClass cls = classify_row(ja, a, d, e, st, c, r);
    if (cls != kRowNormal && cls != kRowOnlyPositive) continue;

    // No negative coupling: type 5 takes the large positive ones.
    if (cls == kRowOnlyPositive) {
      if (st.type == 5) {
        const double thr = st.ecg2 * r.amax;
        mark_where(ja, d, e, [a, thr](int k) { return a[k] >= thr; });
        pos[i] = r.pmax;
      } else {
        ja[d] = 0;
      }
      continue;
    }

    const double t = st.ewt2 * std::abs(r.amin);
    const double thr = st.ecg2 * r.amin;
    auto plain = [a, thr](int k) { return a[k] <= thr; };
    if (r.amax <= t) {  // no large positive entry
      mark_where(ja, d, e, plain);
      pos[i] = r.pmin;
      continue;
    }

    // Eliminate the large positive couplings with their own rows.
    ++c.nelim;
    wz[i] = a[d];
    for (int k = d + 1; k < e; ++k) wz[ja[k]] = a[k];
    for (int k = d + 1; k < e; ++k) {
      if (!(a[k] > t)) continue;
      const int j = ja[k];
      const double cj = wz[j];
      wz[j] = 0.0;
      const double f = -(cj / a[ia[j]]);
      for (int m = ia[j] + 1; m < ia[j + 1]; ++m) wz[column_of(ja[m])] += f * a[m];
    }
    double wmin = 0.0;
    for (int k = d + 1; k < e; ++k)
      if (wz[ja[k]] < wmin) wmin = wz[ja[k]];

    // Candidates of the plain test that stay negative enough after it.
    int head = 0;
    bool dropped = false;
    if (wmin < 0.0) {
      const double lim = st.ecg2 * wmin;
      for (int k = d + 1; k < e; ++k) {
        if (!(a[k] <= thr)) continue;
        if (lim >= wz[ja[k]]) {
          if (head == 0 || a[k] < a[head]) head = k;
          mark(ja[k]);
        } else {
          dropped = true;
        }
      }
    }
    if (head != 0) {
      pos[i] = head;
      if (!dropped) ++c.nelim_ineffective;
    } else {
      ++c.nelim_failed;
      if (st.type == 3) {
        ja[d] = 0;
      } else {
        mark_where(ja, d, e, plain);
        pos[i] = r.pmin;
      }
    }
  }
}

// Second loop: move the marked entries to the front and undo the marks.
void sort_rows_marked(const int* ia, int* ja, double* a, int lo, int hi, const int* pos, Counts& c) {
  for (int i = lo; i <= hi; ++i) {
    const int p = pos[i];
    if (p == 0) continue;
    const int d = ia[i], e = ia[i + 1];
    const int end = move_to_front(ja, a, d, e, p, [ja](int k) { return ja[k] < 0; });
    for (int k = d + 1; k <= end; ++k) ja[k] = -ja[k];
    ja[d] = end;
    c.nstrong += end - d;
  }
}

// Rows with a strong stretch that keep a weak coupling above ecg2 * |head|.
void count_large_weak(const int* ia, const int* ja, const double* a, int lo, int hi, double ecg2, Counts& c) {
  for (int i = lo; i <= hi; ++i) {
    const int d = ia[i], end = ja[d];
    if (end <= d) continue;
    const double lim = ecg2 * std::abs(a[d + 1]);
    for (int k = end + 1; k < ia[i + 1]; ++k) {
      if (std::abs(a[k]) > lim) {
        ++c.nlarge_weak;
        break;
      }
    }
  }
}

// ---------------------------------------------------------------------------
// Report
// ---------------------------------------------------------------------------
void report_line(const std::string& prefix, const char* label, int count) {
  std::string line = prefix + label;
  if (line.size() < 50) line.resize(50, ' ');
  char num[32];
  std::snprintf(num, sizeof num, "%10d", count);
  print_message(kMsgInfo, 0, 0, line + num);
}

void report(int ncgtyp, const RowSortResult& r) {
  const std::string prefix = "rwsrt(" + std::to_string(ncgtyp) + "):      ";
  if (r.ndirichlet > 0 || r.nstrong_dd > 0) {
    char line[160];
    std::snprintf(line, sizeof line, "%s# Dirichlet:  %10d # strong diagdom:%10d", prefix.c_str(), r.ndirichlet,
                  r.nstrong_dd);
    print_message(kMsgInfo, 0, 0, line);
  }
  if (r.nviolating > 0) report_line(prefix, "# rows STRONGLY violating diagdom:", r.nviolating);
  if (r.nnonpos_diag > 0) report_line(prefix, "# rows with non-positive diagonal entry:", r.nnonpos_diag);
  if (r.nonly_pos > 0) report_line(prefix, "# (remaining!) rows with ONLY pos entries:", r.nonly_pos);
  if (r.nelim > 0) report_line(prefix, "# rows with positive elimination:", r.nelim);
  if (r.nelim_ineffective > 0) report_line(prefix, "#      ineffective:", r.nelim_ineffective);
  if (r.nelim_failed > 0) report_line(prefix, "#      failed:", r.nelim_failed);
}

// The error exit: every row of the level gets its diagonal back.
void restore_level(const LevelView& L) {
  if (L.ihi >= L.ilo) restore_diagonals(L);
}

}  // namespace

void rwsrt_fail_next_allocation() { refuse_next_allocation = true; }

// ===========================================================================
// rwsrt
// ===========================================================================
RowSortResult rwsrt(const LevelView& L, int ncgtyp, double ecg1, double ecg2, double ewt1, double ewt2,
                    double eps, int msg_level) {
  RowSortResult res;

  // ---- effective type ----------------------------------------------------
  int type = ncgtyp;
  if (ncgtyp > 2 && ewt2 == 0.0) {
    if (msg_level >= 0)
      print_message(kMsgInfo, 0, 0,
                    "rwsrt(" + std::to_string(ncgtyp) + "):      +++ enhanced sorting de-activated (etw2 not set)!");
    if (type == 3 || type == 4) type = 1;
    if (type == 5) type = 2;
  }
  if (type < 1 || type > 5) {
    fail(kErrIllegalParameter, "Illegal value of parameter <ncgtyp> in (rwsrt)");
    restore_level(L);
    return res;
  }
  const Settings st{type, ecg1, ecg2, ewt1 == 0.0 ? 1e70 : ewt1, ewt2, eps};

  const int ilo = L.ilo, ihi = L.ihi;
  const int nmin = prm().nmin_matrix;
  const int nt = thread_count();
  const int nblocks = use_threads(ilo, ihi, nmin, nt) ? nt : 1;
  std::vector<Counts> part(static_cast<std::size_t>(nblocks));
  const bool dd_possible = eps < 1.0;
  for (Counts& c : part) c.diagdom = dd_possible;

  const int* ia = L.ia.origin();
  int* ja = L.ja.origin();
  double* a = L.a.origin();

  // More threads than prepared partials and work vectors: the block is left
  // undone and the run ends with an error.
  std::atomic<bool> overflow{false};
  auto thread_error = [&]() {
    for (int k = L.ja.lo(); k <= L.ja.hi(); ++k) ja[k] = std::abs(ja[k]);
    fail(kErrAllocation, "OMP error korn_omp_get_num_threads() > nthread_max in (rwsrt)");
    restore_level(L);
  };

  if (type <= 2) {
    // ---- types 1, 2: one loop ---------------------------------------------
    for_blocks(ilo, ihi, nmin, [&](int lo, int hi, int t) {
      if (t >= nblocks) {
        overflow = true;
        return;
      }
      sort_rows_plain(ia, ja, a, lo, hi, st, part[static_cast<std::size_t>(t)]);
    });
    if (overflow) {
      thread_error();
      return res;
    }
  } else {
    // ---- types 3, 4, 5: work vectors, marking loop, sorting loop ----------
    const std::size_t n = static_cast<std::size_t>(std::max(ihi - ilo + 1, 0));
    std::unique_ptr<double[]> w;
    std::unique_ptr<int[]> pos_store;
    if (refuse_next_allocation) {
      refuse_next_allocation = false;
    } else {
      w.reset(new (std::nothrow) double[std::max<std::size_t>(n * static_cast<std::size_t>(nblocks), 1)]);
      pos_store.reset(new (std::nothrow) int[std::max<std::size_t>(n, 1)]);
    }
    if (!w || !pos_store) {
      fail(kErrAllocation, "Allocation error in (rwsrt)");
      restore_level(L);
      return res;
    }
    int* pos = pos_store.get() - ilo;  // pos[i], ilo <= i <= ihi

    for_blocks(ilo, ihi, nmin, [&](int lo, int hi, int t) {
      if (t >= nblocks) {
        overflow = true;
        return;
      }
      Counts& c = part[static_cast<std::size_t>(t)];
      // The thread's own column, zeroed by the thread that uses it.
      double* wcol = w.get() + static_cast<std::size_t>(t) * n;
      std::fill(wcol, wcol + n, 0.0);
      mark_rows_enhanced(ia, ja, a, lo, hi, st, c, wcol - ilo, pos);
    });
    if (overflow) {
      thread_error();
      return res;
    }
    for_blocks(ilo, ihi, nmin, [&](int lo, int hi, int t) {
      sort_rows_marked(ia, ja, a, lo, hi, pos, part[static_cast<std::size_t>(t)]);
    });
  }

  // ---- combine in thread order -------------------------------------------
  Counts total;
  total.diagdom = dd_possible;
  for (const Counts& c : part) total.add(c);
  res.nstrong = total.nstrong;
  res.diagdom = total.diagdom;
  res.ndirichlet = total.ndirichlet;
  res.nstrong_dd = total.nstrong_dd;
  res.nviolating = total.nviolating;
  res.nnonpos_diag = total.nnonpos_diag;
  res.nonly_pos = total.nonly_pos;
  res.nelim = total.nelim;
  res.nelim_ineffective = total.nelim_ineffective;
  res.nelim_failed = total.nelim_failed;

  // ---- report --------------------------------------------------------------
  if (msg_level >= 0) {
    report(ncgtyp, res);
    if (!res.diagdom) {
      std::vector<Counts> weak(static_cast<std::size_t>(nblocks));
      for_blocks(ilo, ihi, nmin, [&](int lo, int hi, int t) {
        if (t >= nblocks) return;
        count_large_weak(ia, ja, a, lo, hi, ecg2, weak[static_cast<std::size_t>(t)]);
      });
      for (const Counts& c : weak) res.nlarge_weak += c.nlarge_weak;
      if (res.nlarge_weak > 0)
        report_line("rwsrt(" + std::to_string(ncgtyp) + "):      ", "# rows with large weak couplings:",
                    res.nlarge_weak);
    }
  }
  return res;
}

}  // namespace kornlt
