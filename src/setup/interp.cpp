// Classical interpolation of one level: direct, standard and extended rows
// (pwint1_aa, threaded and serial), the improvement sweep pwiter, the
// reordering wfinal, the growth of w, and the transpose used as restriction.
#include <omp.h>

#include <algorithm>
#include <cassert>
#include <cstdio>
#include <cstring>
#include <functional>
#include <new>
#include <queue>
#include <string>
#include <vector>

#include "control/threads.hpp"
#include "log/log.hpp"
#include "params/params.hpp"
#include "setup/interp_rows.hpp"
#include "setup/setup.hpp"
#include "setup/transpose.hpp"

namespace kornlt {

namespace interp {

namespace {
bool g_fail_next_allocation = false;
}  // namespace

bool allocation_refused() {
  const bool f = g_fail_next_allocation;
  g_fail_next_allocation = false;
  return f;
}

LevelData level_data(const LevelView& Lv, const InterpSettings& s) {
  LevelData L;
  L.ilo = Lv.ilo;
  L.ihi = Lv.ihi;
  L.ia = Lv.ia.origin();
  L.ja = Lv.ja.origin();
  L.a = Lv.a.origin();
  L.icg = Lv.icg.origin();
  // The unknown map is needed for the restriction; without it there is none.
  assert(!((s.nprim > 0 || s.nstyp > 1) && s.iu.empty()));
  if ((s.nprim > 0 || s.nstyp > 1) && !s.iu.empty()) {
    L.iu = s.iu.origin();
    L.nprim = s.nprim;
  }
  return L;
}

RowParams row_params(const InterpSettings& s, int nwtint, double etr) {
  RowParams rp;
  rp.nwtint = nwtint;
  rp.ntrunc = s.ntrunc;
  rp.etr = etr;
  rp.ewt2 = s.ewt2;
  rp.eps_diag = prm().eps_diag;
  rp.rowsum1 = prm().nint_rowsum1 == 1;
  return rp;
}

bool init_markers(Markers& m, const LevelData& L) {
  if (allocation_refused()) return false;
  try {
    m.init(L.ilo, L.ihi);
  } catch (const std::bad_alloc&) {
    return false;
  }
  return true;
}

int* iw_origin() { return origin_at(store().iw, 1); }
int* jw_origin() { return origin_at(store().jw, 1); }
double* w_origin() { return origin_at(store().w, 1); }
int w_capacity() {
  const StoreState& st = store();
  return static_cast<int>(std::min({static_cast<std::size_t>(std::max(st.ndw, 0)), st.w.size(), st.jw.size()}));
}

bool ensure_w(int k, int last) {
  if (last <= w_capacity()) return true;
  // The free end starts behind the last position in use; ask for the rest.
  const int pos = std::min(w_capacity(), last);
  w_extent(k, last - pos, pos);
  return !failed();
}

void report_rowsum(bool zero_sum, bool empty_sum) {
  if (zero_sum) print_message(kMsgInfo, 0, 0, "wrowsum=0");
  if (empty_sum) print_message(kMsgInfo, 0, 0, "wrowsum=0");
}

void level_stats(const LevelData& L, InterpResult& r) {
  const int* iw = iw_origin();
  long long nw = 0;
  int nf = 0, nc = 0;
  for (int i = L.ilo; i <= L.ihi; ++i) {
    const int g = L.icg[i];
    if (g > 0) {
      ++nc;
    } else if (g < 0 && iw[i + 1] > iw[i]) {
      ++nf;
      nw += iw[i + 1] - iw[i];
    }
  }
  r.nc = nc;
  r.gratio = L.nvars() > 0 ? static_cast<double>(nc) / L.nvars() : 0.0;
  r.avg_weights = nf > 0 ? static_cast<double>(nw) / nf : 0.0;
}

std::string fmt_fixed(double v, const char* format) {
  char b[64];
  std::snprintf(b, sizeof b, format, v);
  return b;
}

}  // namespace interp

using namespace interp;

void interp_fail_next_allocation() { interp::g_fail_next_allocation = true; }

// ---------------------------------------------------------------------------
// Growth of w, jw
// ---------------------------------------------------------------------------
void w_extent(int k, int n, int pos) {
  (void)k;
  StoreState& st = store();
  const int ihuge = prm().ihuge <= 0 ? 2147483646 : prm().ihuge;
  const long long have = std::min<long long>(st.w.size(), st.jw.size());
  if (pos < 0 || pos > std::max<long long>(have, st.ndw)) {
    fail(kErrExtension, "Error #1 in using routine (w_extent)");
    return;
  }
  const long long g = n < 0 ? -static_cast<long long>(n) : n;
  const long long need = pos + g;
  if (need <= have && need <= st.ndw) return;
  if (need > ihuge) {
    fail(kErrDimension, "Cannot guarantee sufficient memory(1): <w> in (w_extent)");
    return;
  }
  long long target = n < 0 ? need : std::max(need, have + have / 2 + g);
  target = std::max<long long>(std::min<long long>(target, ihuge), need);
  const long long d = target - st.ndw;
  if (input().iextent == 0) {
    st.ndw = static_cast<int>(std::max<long long>(target, st.ndw));
    print_message(kMsgError, 0, 0, "Insufficient dimensioning: <ndw> in (w_extent)");
    fail(kErrDimension, "Either adjust dimensions or activate memory extension switch.");
    return;
  }
  const long long old = have;
  try {
    st.w.resize(static_cast<std::size_t>(target));
  } catch (const std::bad_alloc&) {
    fail(kErrExtension, "Memory extension failed (w in w_extent (2))");
    return;
  }
  try {
    st.jw.resize(static_cast<std::size_t>(target));
  } catch (const std::bad_alloc&) {
    st.w.resize(static_cast<std::size_t>(old));
    fail(kErrExtension, "Memory extension failed (jw in w_extent)");
    return;
  }
  const long long added = target - old;
  st.memi += added;
  st.memd += added;
  st.cnt_w += added;
  st.maxeff = std::max(st.maxeff, st.watermark());
  st.ndw = static_cast<int>(target);
  if (input().dump_level >= 0 && d > 0)
    print_message(kMsgInfo, 0, 0, "ndimw increased by " + fmt_int(d) + "  (incore)");
}

// ---------------------------------------------------------------------------
// pwint1_aa: direct, standard and extended interpolation
// ---------------------------------------------------------------------------
namespace {

// The type after the checks: nwtint 3 without ewt2 falls back to 2; false
// (ierr 140) for a type outside 1..3.
bool pw1_type(const InterpSettings& s, const char* routine, int& nwtint) {
  nwtint = s.nwtint;
  if (nwtint == 3 && s.ewt2 == 0.0) {
    if (s.msg_level >= 0)
      print_message(kMsgWarning, 0, 0, "Extended interpolation de-activated (etw2 not set)!");
    nwtint = 2;
  }
  if (nwtint < 1 || nwtint > 3) {
    fail(kErrInterpolation, std::string("Illegal value of <nwtint> in (") + routine + ")!");
    return false;
  }
  return true;
}

void pw1_report(const InterpSettings& s, const char* tag, int nwtint, const InterpResult& r) {
  if (s.msg_level < 0) return;
  print_message(kMsgInfo, 0, 0,
                std::string(tag) + "(" + fmt_int(nwtint) + "): gratio= " + fmt_fixed(r.gratio, "%6.4f") +
                    " avrg wghts=" + fmt_fixed(r.avg_weights, "%7.3f") + "   #vars->C= " + fmt_int(r.nconverted));
}

template <bool kUnk>
void pw1_serial_rows(int k, const LevelData& L, const RowParams& rp, Markers& m, InterpResult& res) {
  int* iw = iw_origin();
  int p = iw[L.ilo];
  bool zero_sum = false, empty_sum = false;
  for (int i = L.ilo; i <= L.ihi; ++i) {
    const int b = pw1_bound(L, rp, i);
    if (!ensure_w(k, p + b - 1)) return;
    const RowOut o = interp::pw1_row<kUnk>(L, rp, i, p, jw_origin(), w_origin(), m);
    iw[i] = p;
    if (o.converted) {
      L.icg[i] = kIcgC;
      ++res.nconverted;
    }
    zero_sum = zero_sum || o.zero_sum;
    empty_sum = empty_sum || o.empty_sum;
    p = o.end;
  }
  iw[L.ihi + 1] = p;
  report_rowsum(zero_sum, empty_sum);
}

// One thread's share of the threaded build.
struct Pw1Part {
  Markers m;
  RowBuffer buf;
  RowBlock blk{1, 0};
  std::vector<int> start;  // start[i - blk.lo]: the row's first local position; start[n] the end
  std::vector<int> conv;   // variables this block turned C (against the icg of the start)
  int err = 0;
};

// The rows that read icg(v): rows holding v, and rows holding a variable
// whose row holds v (substitution). Built from the pattern of the level.
struct Readers {
  std::vector<int> ptr, idx;  // rows holding column v: idx[ptr[v-ilo] .. ptr[v-ilo+1])
  void build(const LevelData& L) {
    const int n = L.nvars();
    ptr.assign(static_cast<std::size_t>(n) + 1, 0);
    for (int i = L.ilo; i <= L.ihi; ++i)
      for (int j = L.ia[i] + 1; j < L.ia[i + 1]; ++j) ++ptr[static_cast<std::size_t>(L.ja[j] - L.ilo) + 1];
    for (int v = 0; v < n; ++v) ptr[static_cast<std::size_t>(v) + 1] += ptr[static_cast<std::size_t>(v)];
    idx.resize(static_cast<std::size_t>(ptr[static_cast<std::size_t>(n)]));
    std::vector<int> fill(ptr.begin(), ptr.end() - 1);
    for (int i = L.ilo; i <= L.ihi; ++i)
      for (int j = L.ia[i] + 1; j < L.ia[i + 1]; ++j)
        idx[static_cast<std::size_t>(fill[static_cast<std::size_t>(L.ja[j] - L.ilo)]++)] = i;
  }
  template <class F>
  void each(const LevelData& L, int v, F&& f) const {
    for (int t = ptr[static_cast<std::size_t>(v - L.ilo)]; t < ptr[static_cast<std::size_t>(v - L.ilo) + 1]; ++t)
      f(idx[static_cast<std::size_t>(t)]);
  }
};

// Serial replay of the conversions found by the blocks. Every block built
// its rows against the icg of the start; the serial build differs only in
// rows after a variable that turned C and that read its icg. Such rows are
// rebuilt in rising order against the icg as it stands then; a rebuilt row
// that converts (or a block row that converted and read nothing changed)
// passes the change on to its own readers. Rebuilt rows go to `ov`, their
// positions to ov_start / ov_end (indexed i - ilo; 0 none).
template <bool kUnk>
bool pw1_replay(const LevelData& L, const RowParams& rp, const std::vector<int>& v1, Markers& m, RowBuffer& ov,
                std::vector<int>& ov_start, std::vector<int>& ov_end, std::vector<unsigned char>& rowflags,
                int& nconverted) {
  Readers rd;
  try {
    rd.build(L);
    ov_start.assign(static_cast<std::size_t>(L.nvars()), 0);
    ov_end.assign(static_cast<std::size_t>(L.nvars()), 0);
  } catch (const std::bad_alloc&) {
    return false;
  }
  constexpr unsigned char kPending = 1, kDirty = 2;
  std::vector<unsigned char> state(static_cast<std::size_t>(L.nvars()), 0);
  std::priority_queue<int, std::vector<int>, std::greater<int>> heap;
  for (int v : v1) {
    state[static_cast<std::size_t>(v - L.ilo)] = kPending;
    heap.push(v);
  }
  auto touch = [&](int x, int j) {
    if (x <= j) return;
    unsigned char& st = state[static_cast<std::size_t>(x - L.ilo)];
    if (!(st & kPending)) heap.push(x);
    st |= kPending | kDirty;
  };
  int op = 1;
  while (!heap.empty()) {
    const int j = heap.top();
    heap.pop();
    bool conv = true;  // a block row that read nothing changed stands
    if (state[static_cast<std::size_t>(j - L.ilo)] & kDirty) {
      ov.ensure(op + pw1_bound(L, rp, j) - 1);
      const RowOut o = interp::pw1_row<kUnk>(L, rp, j, op, ov.jwo(), ov.wo(), m);
      ov_start[static_cast<std::size_t>(j - L.ilo)] = op;
      ov_end[static_cast<std::size_t>(j - L.ilo)] = o.end;
      rowflags[static_cast<std::size_t>(j - L.ilo)] =
          static_cast<unsigned char>((o.zero_sum ? 1 : 0) | (o.empty_sum ? 2 : 0));
      op = o.end;
      conv = o.converted;
    }
    if (!conv) continue;
    L.icg[j] = kIcgC;
    ++nconverted;
    // Rows holding j read its state; rows holding an F-variable x whose row
    // holds j read it when they substitute x. A C or FF x is never
    // substituted, and stays so.
    rd.each(L, j, [&](int x) {
      touch(x, j);
      if (L.icg[x] < 0) rd.each(L, x, [&](int y) { touch(y, j); });
    });
  }
  return true;
}

template <bool kUnk>
void pw1_threaded_rows(int k, const LevelData& L, const RowParams& rp, InterpResult& res) {
  int nthr = thread_count();
  if (!use_threads(L.ilo, L.ihi, prm().nmin_matrix, nthr)) nthr = 1;
  std::vector<Pw1Part> parts;
  std::vector<unsigned char> rowflags;
  bool ok = !allocation_refused();
  if (ok) {
    try {
      parts.resize(static_cast<std::size_t>(nthr));
      rowflags.assign(static_cast<std::size_t>(L.nvars()), 0);
      ok = init_part_markers(parts, L.ilo, L.ihi);
    } catch (const std::bad_alloc&) {
      ok = false;
    }
  }
  if (!ok) {
    fail(kErrAllocation, "Allocation failed for <ifg,ipatt,nflag_thread> in (pwint1_aa)");
    return;
  }

  // Rows of each block against the icg of the start; nothing shared is written.
  int nused = 1;
#pragma omp parallel num_threads(nthr) if (nthr > 1)
  {
    const int t = omp_get_thread_num();
    const int nt = omp_get_num_threads();
    if (t == 0) nused = nt;
    Pw1Part& pt = parts[static_cast<std::size_t>(t)];
    pt.blk = static_block(L.ilo, L.ihi, t, nt);
    try {
      const int n = pt.blk.hi - pt.blk.lo + 1;
      pt.start.resize(static_cast<std::size_t>(std::max(n, 0)) + 1);
      if (n > 0) pt.buf.ensure(L.ia[pt.blk.hi + 1] - L.ia[pt.blk.lo] + 1);
      int p = 1;
      for (int i = pt.blk.lo; i <= pt.blk.hi; ++i) {
        pt.buf.ensure(p + pw1_bound(L, rp, i) - 1);
        const RowOut o = interp::pw1_row<kUnk>(L, rp, i, p, pt.buf.jwo(), pt.buf.wo(), pt.m);
        pt.start[static_cast<std::size_t>(i - pt.blk.lo)] = p;
        if (o.converted) pt.conv.push_back(i);
        rowflags[static_cast<std::size_t>(i - L.ilo)] =
            static_cast<unsigned char>((o.zero_sum ? 1 : 0) | (o.empty_sum ? 2 : 0));
        p = o.end;
      }
      pt.start[static_cast<std::size_t>(std::max(n, 0))] = p;
    } catch (const std::bad_alloc&) {
      pt.err = kErrAggressiveInterp;
    }
  }
  parts.resize(static_cast<std::size_t>(nused));
  for (const Pw1Part& pt : parts)
    if (pt.err != 0) {
      fail(kErrAggressiveInterp, "Error during computation in (pwint1_aa)");
      return;
    }

  // Conversions, replayed in rising order.
  std::vector<int> v1;
  for (const Pw1Part& pt : parts) v1.insert(v1.end(), pt.conv.begin(), pt.conv.end());
  RowBuffer ov;
  std::vector<int> ov_start, ov_end;
  if (!v1.empty()) {
    bool replayed = false;
    try {
      replayed = pw1_replay<kUnk>(L, rp, v1, parts[0].m, ov, ov_start, ov_end, rowflags, res.nconverted);
    } catch (const std::bad_alloc&) {
      replayed = false;
    }
    if (!replayed) {
      fail(kErrAllocation, "Error during saving storage (pwint1_aa)");
      return;
    }
  }
  auto row_len = [&](const Pw1Part& pt, int i) {
    const auto r = static_cast<std::size_t>(i - L.ilo);
    if (!ov_start.empty() && ov_start[r] > 0) return ov_end[r] - ov_start[r];
    const auto l = static_cast<std::size_t>(i - pt.blk.lo);
    return pt.start[l + 1] - pt.start[l];
  };

  // Block totals with the rebuilt rows, then the merge in block order.
  std::vector<long long> total(parts.size(), 0), first(parts.size(), 0);
  std::vector<char> has_ov(parts.size(), 0);
  for (std::size_t t = 0; t < parts.size(); ++t) {
    const Pw1Part& pt = parts[t];
    total[t] = pt.start.back() - 1;
  }
  if (!ov_start.empty()) {
    for (std::size_t t = 0; t < parts.size(); ++t) {
      const Pw1Part& pt = parts[t];
      for (int i = pt.blk.lo; i <= pt.blk.hi; ++i) {
        const auto r = static_cast<std::size_t>(i - L.ilo);
        if (ov_start[r] == 0) continue;
        const auto l = static_cast<std::size_t>(i - pt.blk.lo);
        total[t] += (ov_end[r] - ov_start[r]) - (pt.start[l + 1] - pt.start[l]);
        has_ov[t] = 1;
      }
    }
  }
  int* iw = iw_origin();
  const int base = iw[L.ilo];
  long long sum = base;
  for (std::size_t t = 0; t < parts.size(); ++t) {
    first[t] = sum;
    sum += total[t];
  }
  if (sum - 1 > 2147483646LL) {
    fail(kErrDimension, "Cannot guarantee sufficient memory(1): <w> in (w_extent)");
    return;
  }
  if (!ensure_w(k, static_cast<int>(sum - 1))) return;
  int* jwg = jw_origin();
  double* wg = w_origin();
  const int nb = static_cast<int>(parts.size());
#pragma omp parallel for schedule(static) num_threads(nb) if (nb > 1)
  for (int t = 0; t < nb; ++t) {
    Pw1Part& pt = parts[static_cast<std::size_t>(t)];
    const int off = static_cast<int>(first[static_cast<std::size_t>(t)]);
    if (!has_ov[static_cast<std::size_t>(t)]) {
      const int len = static_cast<int>(total[static_cast<std::size_t>(t)]);
      if (len > 0) {
        std::memcpy(jwg + off, pt.buf.jwo() + 1, sizeof(int) * static_cast<std::size_t>(len));
        std::memcpy(wg + off, pt.buf.wo() + 1, sizeof(double) * static_cast<std::size_t>(len));
      }
      for (int i = pt.blk.lo; i <= pt.blk.hi; ++i) iw[i] = off + pt.start[static_cast<std::size_t>(i - pt.blk.lo)] - 1;
      continue;
    }
    int p = off;
    for (int i = pt.blk.lo; i <= pt.blk.hi; ++i) {
      const auto r = static_cast<std::size_t>(i - L.ilo);
      const int len = row_len(pt, i);
      const int from = ov_start[r] > 0 ? ov_start[r] : pt.start[static_cast<std::size_t>(i - pt.blk.lo)];
      const int* js = ov_start[r] > 0 ? ov.jwo() : pt.buf.jwo();
      const double* ws = ov_start[r] > 0 ? ov.wo() : pt.buf.wo();
      iw[i] = p;
      std::memcpy(jwg + p, js + from, sizeof(int) * static_cast<std::size_t>(len));
      std::memcpy(wg + p, ws + from, sizeof(double) * static_cast<std::size_t>(len));
      p += len;
    }
  }
  iw[L.ihi + 1] = static_cast<int>(sum);
  bool zero_sum = false, empty_sum = false;
  for (unsigned char f : rowflags) {
    zero_sum = zero_sum || (f & 1) != 0;
    empty_sum = empty_sum || (f & 2) != 0;
  }
  report_rowsum(zero_sum, empty_sum);
}

InterpResult pw1_run(const LevelView& Lv, const InterpSettings& s, bool threaded) {
  InterpResult res;
  const bool serial_routine = !threaded;
  const char* routine = threaded ? "pwint1_aa" : "pwint1_aa_serial";
  int nwtint = 0;
  if (!pw1_type(s, routine, nwtint)) return res;
  if (Lv.ihi < Lv.ilo) {
    fail(kErrFile, "System error in routine (pwint1_aa)");
    return res;
  }
  const LevelData L = level_data(Lv, s);
  const RowParams rp = row_params(s, nwtint, s.etr1);
  const bool unk = L.iu != nullptr;
  // Without threads the blocks are one: the serial rows are the same result.
  if (threaded && !use_threads(L.ilo, L.ihi, prm().nmin_matrix, thread_count())) threaded = false;
  if (threaded) {
    if (unk) pw1_threaded_rows<true>(Lv.k, L, rp, res);
    else pw1_threaded_rows<false>(Lv.k, L, rp, res);
  } else {
    Markers m;
    if (!init_markers(m, L)) {
      fail(kErrAllocation, serial_routine ? "Allocation failed for <ifg,ipatt> in (pwint1_aa_serial)"
                                          : "Allocation failed for <ifg,ipatt,nflag_thread> in (pwint1_aa)");
      return res;
    }
    if (unk) pw1_serial_rows<true>(Lv.k, L, rp, m, res);
    else pw1_serial_rows<false>(Lv.k, L, rp, m, res);
  }
  if (failed()) return res;
  level_stats(L, res);
  pw1_report(s, serial_routine ? "pwint_aa_s" : "pwint_aa", nwtint, res);
  return res;
}

}  // namespace

InterpResult pwint1_aa(const LevelView& L, const InterpSettings& s) { return pw1_run(L, s, true); }
InterpResult pwint1_aa_serial(const LevelView& L, const InterpSettings& s) { return pw1_run(L, s, false); }

void multipass_limits(bool aggressive, bool cluster, int nint_force, int& ipass_max, int& numtry) {
  if (nint_force == 1) ipass_max = 5;
  else ipass_max = aggressive ? 4 : 2 + (cluster ? 1 : 0);
  if (prm().ipass_max_set > 0) ipass_max = prm().ipass_max_set;
  numtry = prm().numtry_max_set > 0 ? prm().numtry_max_set : 2;
}

// ---------------------------------------------------------------------------
// pwiter: one improvement sweep
// ---------------------------------------------------------------------------
namespace {

// The rows before the sweep: iww[i], jww[p], ww[p] as origin pointers.
struct OldRows {
  const int* iw;
  const int* jw;
  const double* w;
};

struct SweepNotes {
  bool bad_said = false;    // "Bad interpolation - retry using ALL connections" written
  bool trunc_said = false;  // "Truncation failed - repeat with ntrunc=2" written
};

// The F-row of i rebuilt with its F-neighbours up to the marking limit (the
// strong end, the row's end with `all`) replaced by their old rows. Returns
// false with ierr 140 on a lost diagonal that no retry can mend.
template <bool kUnk>
bool pwiter_row(const LevelData& L, const RowParams& rp, const OldRows& old, int i, int p0, int* jw, double* w,
                Markers& m, bool all, SweepNotes& notes, RowOut& out) {
  int* ifg = m.ifg;
  int* ipatt = m.ipatt;
  const int ui = L.iu != nullptr ? L.iu[i] : 0;
  const int rs = L.ia[i], re = L.ia[i + 1];
  const double aii = L.a[rs];
  int mode = rp.ntrunc;
  for (;;) {
    const int limit = all ? re - 1 : L.ja[rs];
    int ps = p0, nsc = 0;
    int p = interp::row_image<kUnk>(L, i, ui, limit, p0, jw, w, ifg, ipatt, ps, nsc);
    for (int q = p0 + 1; q <= ps; ++q) {
      const int kk = jw[q];
      if (L.icg[kk] >= 0) continue;
      const double v = w[q];
      w[q] = 0.0;
      for (int t = old.iw[kk]; t < old.iw[kk + 1]; ++t) {
        const int col = old.jw[t];
        p = interp::add_entry(col, v * old.w[t], p0, p, jw, w, ifg);
        ipatt[col] = p0;
      }
    }
    RowSums s;
    int q = interp::separate(p0, p, jw, w, ifg, ipatt, s);
    if (s.d <= rp.eps_diag * aii) {
      if (all) {
        fail(kErrInterpolation, "Unexpected error in elimination (pwiter)!");
        return false;
      }
      if (!notes.bad_said) print_message(kMsgWarning, 0, 0, "Bad interpolation - retry using ALL connections");
      notes.bad_said = true;
      all = true;
      continue;
    }
    double Pm = 0.0, Nm = 0.0;
    interp::scale_signs(p0, q, w, s, Pm, Nm);
    if (rp.etr > 0.0 && rp.ntrunc >= 1) {
      q = interp::truncate(p0, q, jw, w, rp.etr, mode, Pm, Nm, s);
      if (s.d <= rp.eps_diag * aii) {
        if (mode != 1) {
          fail(kErrInterpolation, "Unexpected error in truncation of interpolation (pwiter)!");
          return false;
        }
        if (!notes.trunc_said) print_message(kMsgWarning, 0, 0, "Truncation failed - repeat with ntrunc=2");
        notes.trunc_said = true;
        mode = 2;
        continue;
      }
      interp::rescale(p0, q, w, s);
    }
    interp::finish_row(p0, q, w, s.d, rp.rowsum1, out);
    out.end = q;
    out.frow = true;
    return true;
  }
}

template <bool kUnk>
void pwiter_rows(int k, const LevelData& L, const RowParams& rp, bool iall, Markers& m) {
  int* iw = iw_origin();
  const int base = iw[L.ilo];
  const int end = iw[L.ihi + 1];
  std::vector<int> iww, jww;
  std::vector<double> ww;
  int nalloc = 0;
  try {
    nalloc = 1;
    if (allocation_refused()) throw std::bad_alloc();
    iww.assign(iw + L.ilo, iw + L.ihi + 2);
    nalloc = 2;
    jww.assign(jw_origin() + base, jw_origin() + end);
    nalloc = 3;
    ww.assign(w_origin() + base, w_origin() + end);
  } catch (const std::bad_alloc&) {
    fail(kErrAllocation, "Allocation #" + fmt_int(nalloc) + " failed in (pwiter)");
    return;
  }
  const OldRows old{origin_at(iww, L.ilo), origin_at(jww, base), origin_at(ww, base)};
  auto old_len = [&](int v) { return old.iw[v + 1] - old.iw[v]; };
  SweepNotes notes;
  int p = base;
  for (int i = L.ilo; i <= L.ihi; ++i) {
    const int p0 = p;
    iw[i] = p0;
    if (old_len(i) == 0) continue;
    const int g = L.icg[i];
    if (g == kIcgFF) {
      fail(kErrInterpolation, "Cannot happen (pwiter)!");
      return;
    }
    if (g > 0) {
      if (!ensure_w(k, p0)) return;
      p = interp::unit_row(i, p0, jw_origin(), w_origin());
      continue;
    }
    const int b = interp::image_bound(L, i, L.ia[i + 1] - 1, [&](int v) { return L.icg[v] < 0 ? old_len(v) : 0; });
    if (!ensure_w(k, p0 + b - 1)) return;
    RowOut o;
    if (!pwiter_row<kUnk>(L, rp, old, i, p0, jw_origin(), w_origin(), m, iall, notes, o)) return;
    if (o.zero_sum || o.empty_sum) print_message(kMsgInfo, 0, 0, "wrowsum=0");
    p = o.end;
  }
  iw[L.ihi + 1] = p;
}

}  // namespace

void pwiter(const LevelView& Lv, const InterpSettings& s, int iall, double etr2) {
  const LevelData L = level_data(Lv, s);
  const RowParams rp = row_params(s, 2, etr2);
  Markers m;
  if (!init_markers(m, L)) {
    fail(kErrAllocation, "Allocation #0 failed in (pwiter)");
    return;
  }
  if (L.iu != nullptr) pwiter_rows<true>(Lv.k, L, rp, iall == 1, m);
  else pwiter_rows<false>(Lv.k, L, rp, iall == 1, m);
  if (failed()) return;
  if (s.msg_level >= 0) {
    InterpResult r;
    level_stats(L, r);
    print_message(kMsgInfo, 0, 0, "pwitr: avrg wghts=" + fmt_fixed(r.avg_weights, "%7.3f"));
  }
}

// ---------------------------------------------------------------------------
// wfinal: rows from completion order back to variable order
// ---------------------------------------------------------------------------
void wfinal(int k, int ilo, int ihi, int rfirst, int rlast, const Vec1<int>& icgv) {
  int* iw = iw_origin();
  const int base = iw[rfirst];
  const int end = rlast >= rfirst ? iw[rlast + 1] : base;
  std::vector<int> iww, jww;
  std::vector<double> ww;
  try {
    if (allocation_refused()) throw std::bad_alloc();
    iww.assign(iw + rfirst, iw + std::max(rlast, rfirst - 1) + 2);
    jww.assign(jw_origin() + base, jw_origin() + end);
    ww.assign(w_origin() + base, w_origin() + end);
  } catch (const std::bad_alloc&) {
    fail(kErrAllocation, "Allocation failed for <iww,jww,ww> in (wfinal)");
    return;
  }
  int* icg = icgv.origin();
  int p = base;
  for (int i = ilo; i <= ihi; ++i) {
    const int g = icg[i];
    iw[i] = p;
    if (g > 0) {
      if (!ensure_w(k, p)) return;
      p = interp::unit_row(i, p, jw_origin(), w_origin());
    } else if (g < 0 && g > kIcgOutside) {
      const int r = -g;
      assert(r >= rfirst && r <= rlast);
      const int from = iww[static_cast<std::size_t>(r - rfirst)];
      const int len = iww[static_cast<std::size_t>(r - rfirst + 1)] - from;
      if (!ensure_w(k, p + len - 1)) return;
      std::memcpy(jw_origin() + p, jww.data() + (from - base), sizeof(int) * static_cast<std::size_t>(len));
      std::memcpy(w_origin() + p, ww.data() + (from - base), sizeof(double) * static_cast<std::size_t>(len));
      p += len;
      icg[i] = kIcgF;
    }
  }
  iw[ihi + 1] = p;
}

// ---------------------------------------------------------------------------
// The transpose for the restriction
// ---------------------------------------------------------------------------
void build_transpose(Transpose& t, int ilo, int ihi, int iclo, int ichi, const Vec1<int>& iw, const Vec1<int>& jw,
                     const Vec1<double>& w) {
  const int nc = std::max(ichi - iclo + 1, 0);
  int nthr = thread_count();
  if (!use_threads(ilo, ihi, prm().nmin_matrix, nthr)) nthr = 1;
  struct Rows {
    const int* iw;
    const int* jw;
    int begin(int i) const { return iw[i]; }
    int end(int i) const { return iw[i + 1]; }
    int col(int p) const { return jw[p]; }
  } rows{iw.origin(), jw.origin()};
  const double* wo = w.origin();
  BlockTranspose bt;
  try {
    if (allocation_refused()) throw std::bad_alloc();
    t.iclo = iclo;
    t.ichi = ichi;
    t.iwt.assign(static_cast<std::size_t>(nc) + 1, 0);
    if (!bt.count(rows, ilo, ihi, iclo, ichi, nthr, t.iwt.data() - iclo, 1)) throw std::bad_alloc();
    const std::size_t nnz = static_cast<std::size_t>(t.iwt[static_cast<std::size_t>(nc)] - 1);
    t.jwt.resize(nnz);
    t.wt.resize(nnz);
  } catch (const std::bad_alloc&) {
    fail(kErrAllocation, "Allocation failed for <wt,jwt> in (wt_setup)");
    return;
  }
  int* jwt = origin_at(t.jwt, 1);
  double* wt = origin_at(t.wt, 1);
  bt.fill(rows, [&](int at, int i, int p) {
    jwt[at] = i;
    wt[at] = wo[p];
  });
}

void build_transpose_level(Transpose& t, int k) {
  StoreState& st = store();
  const int ilo = st.imin[static_cast<std::size_t>(k)], ihi = st.imax[static_cast<std::size_t>(k)];
  const int iclo = st.imin[static_cast<std::size_t>(k + 1)], ichi = st.imax[static_cast<std::size_t>(k + 1)];
  const int ndw = static_cast<int>(st.w.size());
  build_transpose(t, ilo, ihi, iclo, ichi, Vec1<int>(st.iw.data(), 1, static_cast<int>(st.iw.size())),
                  Vec1<int>(st.jw.data(), 1, ndw), Vec1<double>(st.w.data(), 1, ndw));
}

}  // namespace kornlt
