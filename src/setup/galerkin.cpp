// Galerkin coarse operators A_c = P^T A P: numbering of the coarse level
// (prepare_opdfn), the serial, row-length and thread-parallel products, the
// repair of non-positive coarse diagonals by correcting the interpolation
// (correct_f, correct_w) with restarts, the truncation of small entries, and
// the re-anchoring of a kept hierarchy behind a new level-1 matrix.
#include <omp.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>
#include <new>
#include <string>
#include <vector>

#include "control/threads.hpp"
#include "log/log.hpp"
#include "params/params.hpp"
#include "setup/setup.hpp"
#include "store/store.hpp"

namespace kornlt {

namespace {

constexpr int kWarnGalerkinGaveUp = -153;    // bad rows left after the corrections
constexpr int kWarnGalerkinNoCorrect = -154;  // too many bad rows to correct at all
constexpr double kTiny = 1e-20;               // "zero" of correct_w

bool g_fail_next_allocation = false;
// True once when the test hook asked for a refused allocation.
bool allocation_refused() {
  const bool f = g_fail_next_allocation;
  g_fail_next_allocation = false;
  return f;
}

std::size_t sz(int n) { return static_cast<std::size_t>(std::max(n, 0)); }

// ---------------------------------------------------------------------------
// Origins of the stacked arrays: p[i] is the element of global index i.
// Valid until the next growth of the array.
// ---------------------------------------------------------------------------
int* stacked_ia() { return store().ia.data() - (store().nnu + 1); }
int* stacked_ja() { return store().ja.data() - (store().nna + 1); }
double* stacked_a() { return store().a.data() - (store().nna + 1); }
// The last global position of a, ja that is really addressable.
int stacked_cap() {
  const StoreState& st = store();
  const auto n = static_cast<std::int64_t>(std::min(st.a.size(), st.ja.size()));
  return static_cast<int>(std::min<std::int64_t>(st.nda, st.nna + n));
}
int* iw_org() { return store().iw.data() - 1; }
int* jw_org() { return store().jw.data() - 1; }
double* w_org() { return store().w.data() - 1; }
int* icg_org() { return store().icg.data() - 1; }

int imin_of(int k) { return store().imin[sz(k)]; }
int imax_of(int k) { return store().imax[sz(k)]; }

// The matrix of a fine level kf: the caller's arrays for kf = 1.
struct FineLevel {
  const int* ia;
  int* ja;
  const double* a;
};
FineLevel fine_level(int kf) {
  StoreState& st = store();
  if (kf == 1) return {st.ia1 - 1, st.ja1 - 1, st.a1 - 1};
  return {stacked_ia(), stacked_ja(), stacked_a()};
}

const char* routine_tag(int nntyp) {
  switch (nntyp) {
    case 2: return "opdfn_detrlen";
    case 3: return "opdfn_detrlen_mg";
    case 4: return "opdfn_dynalloc";
    case 5: return "opdfn_dynalloc_mg";
    default: return "opdfn";
  }
}

std::string fmt_real(double v, const char* format = "%.6e") {
  char b[64];
  std::snprintf(b, sizeof b, format, v);
  return b;
}

// ---------------------------------------------------------------------------
// The row product. All arrays are origins over global (or, in a private
// block, local 1-based) positions:
//  fia, fja, fa   the fine matrix          iw, jw, w   the interpolation P
//  iwt            row pointers of P^T over the coarse rows
//  jwt, wt        fine row and weight of P^T, positions 1..
//  cja, ca        the output entries, positions up to cap
// ---------------------------------------------------------------------------
struct Arrays {
  const int* fia;
  const int* fja;
  const double* fa;
  const int* iw;
  const int* jw;
  const double* w;
  const int* iwt;
  const int* jwt;
  const double* wt;
  int* cja;
  double* ca;
  int cap;
};

// Coarse rows clo..chi in rising order, written from position pos on. ifg
// (over fine and coarse indices): for a fine j the coarse row last visited,
// for a coarse l its position in the row being built. Positions only grow
// and markers are coarse row numbers, so nothing is cleared between rows.
// Sink: grow(x, in_use, last, rows_done, entries_done) makes positions up to
// last addressable (refreshing x), false on failure; row_done(c, start, end, x).
template <class Sink>
bool product_rows(int clo, int chi, bool mult_zeros, int* ifg, int& pos, Arrays& x, Sink& sink) {
  const int pos0 = pos;
  const int* const iw = x.iw;
  const int* const jw = x.jw;
  const double* const w = x.w;
  const int* const iwt = x.iwt;
  const int* const jwt = x.jwt;
  const double* const wt = x.wt;
  const int* const fia = x.fia;
  const int* fja = x.fja;
  const double* fa = x.fa;
  int* cja = x.cja;
  double* ca = x.ca;
  int cap = x.cap;
  auto grow = [&](int last, int c) {
    if (!sink.grow(x, pos - 1, last, c - clo, pos - pos0)) return false;
    fja = x.fja;
    fa = x.fa;
    cja = x.cja;
    ca = x.ca;
    cap = x.cap;
    return true;
  };
  int p = pos;
  for (int c = clo; c <= chi; ++c) {
    if (p > cap) {
      pos = p;
      if (!grow(p, c)) return false;
    }
    const int start = p;
    ifg[c] = p;
    cja[p] = c;
    ca[p] = 0.0;
    ++p;
    for (int q = iwt[c]; q < iwt[c + 1]; ++q) {
      const int i = jwt[q];
      const double t = wt[q];
      for (int e = fia[i]; e < fia[i + 1]; ++e) {
        const int j = fja[e];
        const double u = t * fa[e];
        if (!mult_zeros && u == 0.0) continue;
        const int r0 = iw[j], r1 = iw[j + 1];
        if (ifg[j] == c) {
          // j seen in this row already: all its columns have positions.
          for (int r = r0; r < r1; ++r) ca[ifg[jw[r]]] += u * w[r];
          continue;
        }
        ifg[j] = c;
        if (p - 1 + (r1 - r0) > cap) {
          pos = p;
          if (!grow(p - 1 + (r1 - r0), c)) return false;
        }
        for (int r = r0; r < r1; ++r) {
          const int l = jw[r];
          const double v = u * w[r];
          if (ifg[l] < start) {
            ifg[l] = p;
            cja[p] = l;
            ca[p] = v;
            ++p;
          } else {
            ca[ifg[l]] += v;
          }
        }
      }
    }
    sink.row_done(c, start, p, x);
  }
  pos = p;
  return true;
}

// Exact length of each coarse row clo..chi (the pattern of product_rows):
// len[c - clo]. ifg must be zero on entry and is left dirty.
void row_lengths(int clo, int chi, bool mult_zeros, int* ifg, const Arrays& x, int* len) {
  for (int c = clo; c <= chi; ++c) {
    int n = 1;
    ifg[c] = c;
    for (int q = x.iwt[c]; q < x.iwt[c + 1]; ++q) {
      const int i = x.jwt[q];
      const double t = x.wt[q];
      for (int e = x.fia[i]; e < x.fia[i + 1]; ++e) {
        const int j = x.fja[e];
        if (!mult_zeros && t * x.fa[e] == 0.0) continue;
        if (ifg[j] == c) continue;
        ifg[j] = c;
        for (int r = x.iw[j]; r < x.iw[j + 1]; ++r) {
          const int l = x.jw[r];
          if (ifg[l] != c) {
            ifg[l] = c;
            ++n;
          }
        }
      }
    }
    len[c - clo] = n;
  }
}

// ---------------------------------------------------------------------------
// One product of level k: shared context.
// ---------------------------------------------------------------------------
struct Level {
  int k = 0, kf = 0;
  int ilo = 0, ihi = 0;    // fine rows
  int iclo = 0, ichi = 0;  // coarse rows
  int nc() const { return ichi - iclo + 1; }
};
Level level_of(int k) {
  Level L;
  L.k = k;
  L.kf = k - 1;
  L.ilo = imin_of(k - 1);
  L.ihi = imax_of(k - 1);
  L.iclo = imin_of(k);
  L.ichi = imax_of(k);
  return L;
}

Arrays base_arrays(const Level& L) {
  const FineLevel f = fine_level(L.kf);
  Arrays x{};
  x.fia = f.ia;
  x.fja = f.ja;
  x.fa = f.a;
  x.iw = iw_org();
  x.jw = jw_org();
  x.w = w_org();
  x.cja = stacked_ja();
  x.ca = stacked_a();
  x.cap = stacked_cap();
  return x;
}

// Writes straight into the stacked arrays, growing them through a_extent.
struct StoreSink {
  const Level* L;
  int neg_diag;
  ProductResult* res;
  int* cia;

  bool grow(Arrays& x, int in_use, int last, int rows_done, int entries_done) {
    StoreState& st = store();
    // At least what the row needs, and at least one entry per coarse row
    // beyond the present end, which the estimate of a_extent requires.
    const int m = L->nc();
    const std::int64_t want = std::max<std::int64_t>(static_cast<std::int64_t>(last) - in_use,
                                                     static_cast<std::int64_t>(m) + st.nda - in_use);
    a_extent(L->k, static_cast<int>(std::min<std::int64_t>(want, std::numeric_limits<int>::max())), in_use,
             rows_done, entries_done);
    if (failed()) return false;
    x.cja = stacked_ja();
    x.ca = stacked_a();
    x.cap = stacked_cap();
    if (L->kf >= 2) {  // the fine level lives in the same arrays
      x.fja = stacked_ja();
      x.fa = stacked_a();
    }
    if (last > x.cap) {
      fail(kErrInternal, "internal error: not enough memory allocated (opdfn)!");
      return false;
    }
    return true;
  }
  void row_done(int c, int start, int end, const Arrays& x) {
    cia[c + 1] = end;
    if (x.ca[start] <= 0.0) {
      ++res->nbad;
      if (res->nbad <= neg_diag) res->bad.push_back(c);
    }
  }
};

// P^T by count, cumulation and fill, rows of P in rising order: iwt over the
// coarse rows (origin returned through iwt_org), jwt, wt over 1..nnz. ifg's
// coarse part serves as counters and cursors and is zeroed at the end.
void serial_transpose(const Level& L, int* ifg, std::vector<int>& iwt_v, std::vector<int>& jwt_v,
                      std::vector<double>& wt_v) {
  const int* iw = iw_org();
  const int* jw = jw_org();
  const double* w = w_org();
  const int nnz = iw[L.ihi + 1] - iw[L.ilo];
  iwt_v.assign(sz(L.nc() + 1), 0);
  jwt_v.resize(sz(nnz));
  wt_v.resize(sz(nnz));
  int* iwt = iwt_v.data() - L.iclo;
  int* jwt = jwt_v.data() - 1;
  double* wt = wt_v.data() - 1;
  for (int p = iw[L.ilo]; p < iw[L.ihi + 1]; ++p) ++ifg[jw[p]];
  iwt[L.iclo] = 1;
  for (int c = L.iclo; c <= L.ichi; ++c) {
    iwt[c + 1] = iwt[c] + ifg[c];
    ifg[c] = iwt[c];
  }
  for (int i = L.ilo; i <= L.ihi; ++i)
    for (int p = iw[i]; p < iw[i + 1]; ++p) {
      const int q = ifg[jw[p]]++;
      jwt[q] = i;
      wt[q] = w[p];
    }
  std::fill(ifg + L.iclo, ifg + L.ichi + 1, 0);
}

// nntyp 1: opdfn.
void product_standard(const Level& L, bool mult_zeros, int neg_diag, ProductResult& res) {
  std::vector<int> ifg_v, iwt_v, jwt_v;
  std::vector<double> wt_v;
  try {
    if (allocation_refused()) throw std::bad_alloc();
    ifg_v.assign(sz(L.ichi - L.ilo + 1), 0);
    int* ifg = ifg_v.data() - L.ilo;
    serial_transpose(L, ifg, iwt_v, jwt_v, wt_v);
  } catch (const std::bad_alloc&) {
    fail(kErrAllocation, "Allocation error (wt,jwt,iwt,ifg) in (opdfn)!");
    return;
  }
  int* ifg = ifg_v.data() - L.ilo;
  Arrays x = base_arrays(L);
  x.iwt = iwt_v.data() - L.iclo;
  x.jwt = jwt_v.data() - 1;
  x.wt = wt_v.data() - 1;
  int* cia = stacked_ia();
  StoreSink sink{&L, neg_diag, &res, cia};
  int pos = cia[L.iclo];
  product_rows(L.iclo, L.ichi, mult_zeros, ifg, pos, x, sink);
}

// nntyp 2, 3: opdfn_detrlen. Exact row lengths first, one growth, then the
// numeric sweep, which cannot run out of space.
void product_detrlen(const Level& L, int nntyp, bool mult_zeros, int neg_diag, ProductResult& res) {
  const char* tag = routine_tag(nntyp);
  std::vector<int> ifg_v, iwt_v, jwt_v, len_v;
  std::vector<double> wt_v;
  try {
    if (allocation_refused()) throw std::bad_alloc();
    ifg_v.assign(sz(L.ichi - L.ilo + 1), 0);
    serial_transpose(L, ifg_v.data() - L.ilo, iwt_v, jwt_v, wt_v);
    len_v.resize(sz(L.nc()));
  } catch (const std::bad_alloc&) {
    fail(kErrAllocation, std::string("Allocation error (wt,jwt,iwt,ifg,ialow) in (") + tag + ")!");
    return;
  }
  int* ifg = ifg_v.data() - L.ilo;
  Arrays x = base_arrays(L);
  x.iwt = iwt_v.data() - L.iclo;
  x.jwt = jwt_v.data() - 1;
  x.wt = wt_v.data() - 1;
  row_lengths(L.iclo, L.ichi, mult_zeros, ifg, x, len_v.data());
  std::int64_t total = 0;
  for (int n : len_v) total += n;
  int* cia = stacked_ia();
  const int base = cia[L.iclo];
  if (base - 1 + total > stacked_cap()) {
    if (total > std::numeric_limits<int>::max()) {
      fail(kErrExtension, "Memory extension failed (integer overflow for size of array a in a_extent (1))");
      return;
    }
    a_extent(L.k, -static_cast<int>(total), base - 1, 0, 0);
    if (failed()) return;
    if (base - 1 + total > stacked_cap()) {
      fail(kErrInternal, std::string("internal error: not enough memory allocated (") + tag + ")!");
      return;
    }
    x.cja = stacked_ja();
    x.ca = stacked_a();
    if (L.kf >= 2) {
      x.fja = stacked_ja();
      x.fa = stacked_a();
    }
  }
  // The rows fit exactly; the kernel's test of a row against the end of the
  // array assumes every column of P's row to be new, so it is switched off.
  x.cap = std::numeric_limits<int>::max() / 2;
  std::fill(ifg_v.begin(), ifg_v.end(), 0);
  StoreSink sink{&L, neg_diag, &res, cia};
  int pos = base;
  product_rows(L.iclo, L.ichi, mult_zeros, ifg, pos, x, sink);
  if (pos != base + total) fail(kErrInternal, std::string("internal error: listcopy (") + tag + ")!");
}

// Private storage of one thread's block of coarse rows, positions 1.. .
struct BlockSink {
  int clo = 1;
  std::vector<int> ja;
  std::vector<double> a;
  std::vector<int> ends;  // position after row c: ends[c - clo]
  int n = 0;              // entries stored

  bool grow(Arrays& x, int /*in_use*/, int last, int, int) {
    const std::size_t want = std::max<std::size_t>(static_cast<std::size_t>(last), 2 * ja.size());
    ja.resize(want);  // may throw bad_alloc; caught by the caller
    a.resize(want);
    x.cja = ja.data() - 1;
    x.ca = a.data() - 1;
    x.cap = static_cast<int>(std::min<std::size_t>(want, std::numeric_limits<int>::max()));
    return true;
  }
  void row_done(int c, int, int end, const Arrays&) { ends[sz(c - clo)] = end; }
};

// nntyp 4, 5, 6: threaded product. Each thread multiplies a static block of
// coarse rows into private storage with a private ifg; after the join the
// blocks get their offsets by a running sum in block order, a grows once on
// this thread, and the blocks are copied in parallel. Every row is built by
// the same steps as in opdfn, so the result equals the serial one bit for bit.
void product_threaded(const Level& L, int nntyp, bool mult_zeros, int neg_diag, ProductResult& res) {
  const char* tag = routine_tag(nntyp);
  int nt = thread_count();
  if (!use_threads(L.iclo, L.ichi, prm().nmin_matrix, nt)) nt = 1;
  Transpose t;
  build_transpose_level(t, L.kf);
  if (failed()) return;
  std::vector<BlockSink> blk;
  std::vector<int> err;
  try {
    if (allocation_refused()) throw std::bad_alloc();
    blk.resize(sz(nt));
    err.assign(sz(nt), 0);
  } catch (const std::bad_alloc&) {
    fail(kErrAllocation, std::string("Allocation error (ifg,ja,a) in (") + tag + ")!");
    return;
  }
  Arrays x0 = base_arrays(L);
  x0.iwt = t.iwt.data() - L.iclo;
  x0.jwt = t.jwt.data() - 1;
  x0.wt = t.wt.data() - 1;
  // Starting room per row: twice the fine level's average row length.
  const int nfine = L.ihi - L.ilo + 1;
  const double dens = nfine > 0 ? static_cast<double>(x0.fia[L.ihi + 1] - x0.fia[L.ilo]) / nfine : 1.0;
  int nused = 1;
#pragma omp parallel num_threads(nt) if (nt > 1)
  {
    const int th = omp_get_thread_num();
    const int ntt = omp_get_num_threads();
    if (th == 0) nused = ntt;
    const RowBlock b = static_block(L.iclo, L.ichi, th, ntt);
    BlockSink& s = blk[sz(th)];
    s.clo = b.lo;
    try {
      std::vector<int> ifg_v(sz(L.ichi - L.ilo + 1), 0);
      const int rows = std::max(b.hi - b.lo + 1, 0);
      const std::size_t guess = static_cast<std::size_t>(2.0 * dens * rows) + 16;
      s.ends.resize(sz(rows));
      s.ja.resize(guess);
      s.a.resize(guess);
      Arrays x = x0;
      x.cja = s.ja.data() - 1;
      x.ca = s.a.data() - 1;
      x.cap = static_cast<int>(std::min<std::size_t>(guess, std::numeric_limits<int>::max()));
      int pos = 1;
      product_rows(b.lo, b.hi, mult_zeros, ifg_v.data() - L.ilo, pos, x, s);
      s.n = pos - 1;
    } catch (const std::bad_alloc&) {
      err[sz(th)] = 999;
    }
  }
  for (int th = 0; th < nused; ++th)
    if (err[sz(th)] != 0) {
      fail(kErrAllocation, std::string("Allocation error (ifg,ja,a) in (") + tag + ")!");
      return;
    }
  // Offsets in block order.
  int* cia = stacked_ia();
  const int base = cia[L.iclo];
  std::vector<std::int64_t> off(sz(nused + 1), 0);
  off[0] = base;
  for (int th = 0; th < nused; ++th) off[sz(th + 1)] = off[sz(th)] + blk[sz(th)].n;
  const std::int64_t total = off[sz(nused)] - base;
  if (off[sz(nused)] - 1 > stacked_cap()) {
    // 1.3 times the request, so that the next levels have room as well.
    const double g = std::ceil(1.3 * static_cast<double>(total));
    if (g >= static_cast<double>(std::numeric_limits<int>::max())) {
      fail(kErrExtension, "Memory extension failed (integer overflow for size of array a in a_extent (1))");
      return;
    }
    a_extent(L.k, -static_cast<int>(g), base - 1, 0, 0);
    if (failed()) return;
    if (off[sz(nused)] - 1 > stacked_cap()) {
      fail(kErrInternal, std::string("internal error: not enough memory allocated (") + tag + ")!");
      return;
    }
  }
  int* cja = stacked_ja();
  double* ca = stacked_a();
#pragma omp parallel for schedule(static) num_threads(nused) if (nused > 1)
  for (int th = 0; th < nused; ++th) {
    const BlockSink& s = blk[sz(th)];
    const int o = static_cast<int>(off[sz(th)]);
    if (s.n > 0) {
      std::memcpy(cja + o, s.ja.data(), sz(s.n) * sizeof(int));
      std::memcpy(ca + o, s.a.data(), sz(s.n) * sizeof(double));
    }
    for (std::size_t r = 0; r < s.ends.size(); ++r) cia[s.clo + static_cast<int>(r) + 1] = o - 1 + s.ends[r];
  }
  // Bad rows in rising order, as the serial product lists them.
  for (int c = L.iclo; c <= L.ichi; ++c)
    if (ca[cia[c]] <= 0.0) {
      ++res.nbad;
      if (res.nbad <= neg_diag) res.bad.push_back(c);
    }
}

// The list of bad rows on the file "temp.crw" of unit iodump.
void dump_bad_rows(const std::vector<int>& bad) {
  const int unit = prm().iodump;
  if (!attach_unit(unit, "temp.crw", false)) {
    fail(kErrFile, "io error (opdfn)!");
    return;
  }
  std::FILE* f = unit_stream(unit);
  bool ok = f != nullptr && std::fprintf(f, " Log file : non-positive diagonals:\n") > 0;
  const int* cia = stacked_ia();
  const double* ca = stacked_a();
  for (int c : bad) {
    if (!ok) break;
    const int p = cia[c];
    ok = std::fprintf(f, " *** ialow=%12d a(ialow)=%24.16e\n", p, ca[p]) > 0;
  }
  if (detach_unit(unit) != 0 || !ok) fail(kErrFile, "io error (opdfn)!");
}

// Position of column c in row i of P, or 0.
int find_in_row(const int* iw, const int* jw, int i, int c) {
  for (int p = iw[i]; p < iw[i + 1]; ++p)
    if (jw[p] == c) return p;
  return 0;
}

}  // namespace

void galerkin_fail_next_allocation() { g_fail_next_allocation = true; }

std::string_view opdfn_variant_name(int nntyp) {
  switch (nntyp) {
    case 1: return "standard";
    case 2: return "determination of row lengths";
    case 3: return "determination of row lengths + splitting";
    case 4: return "dynamic parallel memory management";
    case 5: return "dynamic parallel memory management + splitting";
    case 6: return "dynamic memory management using lists";
    default: return "";
  }
}

GalerkinSettings galerkin_settings() {
  const Params& p = prm();
  const Input& in = input();
  GalerkinSettings s;
  s.nntyp = in.nntyp_opdfn;
  s.mult_zeros = in.glk_mult_zeros;
  s.neg_diag = p.neg_diag;
  s.neg_diag_brute = p.neg_diag_brute;
  s.maxop_restart = p.maxop_restart;
  s.dump_correctw = p.dump_correctw;
  s.trunc_eps = in.trunc_threshold;
  s.symmetric = in.isym == 1;
  s.msg_level = in.dump_level;
  s.timer = bool(p.galerkin_timer);
  return s;
}

// ---------------------------------------------------------------------------
// Numbering of the coarse level
// ---------------------------------------------------------------------------
void prepare_opdfn(int k) {
  StoreState& st = store();
  const int kf = k - 1;
  const int ilo = imin_of(kf), ihi = imax_of(kf);
  int* icg = icg_org();
  int nc = 0;
  for (int i = ilo; i <= ihi; ++i) nc += icg[i] > 0 ? 1 : 0;
  st.imin[sz(k)] = ihi + 1;
  st.imax[sz(k)] = ihi + nc;

  if (k == 2) {
    u_alloc(5, st.nnu, st.ndu);
    if (failed()) return;
    a_alloc(st.nna, st.nda);
    if (failed()) return;
    u_alloc(3, st.nnu, st.ndu);
    if (failed()) return;
    st.ia[0] = st.ia1[st.nnu];  // stacked ia(nnu+1) = the caller's ia(nnu+1)
  }
  u_extent(k);
  if (failed()) return;

  // The level is counted: the diagonal slots get their columns back.
  const FineLevel f = fine_level(kf);
  const int nmin = prm().nmin_matrix;
  for_blocks(ilo, ihi, nmin, [&](int lo, int hi, int) {
    for (int i = lo; i <= hi; ++i) f.ja[f.ia[i]] = i;
  });

  icg = icg_org();  // u_extent may have moved it
  int c = ihi;
  for (int i = ilo; i <= ihi; ++i)
    if (icg[i] > 0) icg[i] = ++c;

  const int* iw = iw_org();
  int* jw = jw_org();
  for_blocks(ilo, ihi, nmin, [&](int lo, int hi, int) {
    for (int p = iw[lo]; p < iw[hi + 1]; ++p) jw[p] = icg[jw[p]];
  });
}

// ---------------------------------------------------------------------------
// The product
// ---------------------------------------------------------------------------
ProductResult opdfn_product(int k, int nntyp, bool mult_zeros, int neg_diag) {
  ProductResult res;
  const Level L = level_of(k);
  switch (nntyp) {
    case 1: product_standard(L, mult_zeros, neg_diag, res); break;
    case 2:
    case 3: product_detrlen(L, nntyp, mult_zeros, neg_diag, res); break;
    case 4:
    case 5:
    case 6: product_threaded(L, nntyp, mult_zeros, neg_diag, res); break;
    default: fail(kErrIllegalParameter, "Illegal value of parameter <ntyp_galerkin>!");
  }
  return res;
}

// ---------------------------------------------------------------------------
// Corrections of the interpolation
// ---------------------------------------------------------------------------
void correct_f(int k, const std::vector<int>& bad, int msg_level) {
  Transpose t;
  build_transpose_level(t, k - 1);
  if (failed()) return;
  const int* iw = iw_org();
  const int* jw = jw_org();
  double* w = w_org();
  const int* icg = icg_org();
  int nempty = 0;
  for (int c : bad) {
    int nonly = 0;
    for (int q = t.row_begin(c); q < t.row_end(c); ++q) {
      const int i = t.jwt[sz(q - 1)];
      if (icg[i] >= 1) continue;  // the C-variable's own unit row
      if (iw[i + 1] - iw[i] < 2) {
        ++nonly;  // interpolates from c alone: left as it is
        continue;
      }
      const int pc = find_in_row(iw, jw, i, c);
      if (pc == 0) continue;
      double s = 0.0;
      for (int p = iw[i]; p < iw[i + 1]; ++p)
        if (p != pc) s += w[p];
      const double wic = w[pc];
      w[pc] = 0.0;
      if (s != 0.0) {
        const double fct = (wic + s) / s;  // keeps the row sum
        for (int p = iw[i]; p < iw[i + 1]; ++p)
          if (p != pc) w[p] *= fct;
      } else {
        ++nempty;
        if (msg_level >= 0)
          print_message(kMsgInfo, 0, 0,
                        "F-variable with empty interpolation formula: " + fmt_int(i) + "  (ic1 = " + fmt_int(c) + ")");
      }
    }
    if (nonly > 0 && msg_level >= 0)
      print_message(kMsgInfo, 0, 0, "#F-vars which interpolate ONLY from ic1 = " + fmt_int(c) + " : " + fmt_int(nonly));
  }
  if (nempty > 0 && msg_level >= 0)
    print_message(kMsgInfo, 0, 0, "#F-vars with empty interpol.formula NOW = " + fmt_int(nempty));
}

void correct_w(int k, const std::vector<int>& bad, bool row_scaling, int restart, bool trace, int msg_level) {
  const bool say = msg_level >= 0;
  if (say) print_message(kMsgInfo, 0, 0, "correct_w:     re-start # " + fmt_int(restart));
  if (!row_scaling && say) {
    print_message(kMsgInfo, 0, 0, "correct_w:     This time NO scaling of w-ROWS (remaining entries)!");
    print_line(0, 0, "    but only scaling of already changed weights possible!");
  }
  Transpose t;
  build_transpose_level(t, k - 1);
  if (failed()) return;
  const int ilo = imin_of(k - 1), ihi = imax_of(k - 1);
  std::vector<double> xv_v;            // x on the fine level, zero outside the rows of c
  std::vector<std::pair<int, int>> inf;  // F-rows of c with the position of column c
  try {
    if (allocation_refused()) throw std::bad_alloc();
    xv_v.assign(sz(ihi - ilo + 1), 0.0);
  } catch (const std::bad_alloc&) {
    fail(kErrAllocation, "allocation error (inc,inf,ifg,scal) in (correct_w)!");
    return;
  }
  double* xv = xv_v.data() - ilo;
  const FineLevel f = fine_level(k - 1);
  const int* iw = iw_org();
  const int* jw = jw_org();
  double* w = w_org();
  const int* icg = icg_org();
  const int* cia = stacked_ia();
  const double* ca = stacked_a();
  int nfound = 0;
  for (int c : bad) {
    const double acc = ca[cia[c]];
    if (acc <= 0.0) ++nfound;
    int fc = 0;
    inf.clear();
    for (int q = t.row_begin(c); q < t.row_end(c); ++q) {
      const int i = t.jwt[sz(q - 1)];
      if (icg[i] == c) {
        fc = i;
      } else if (icg[i] < 0) {
        const int pc = find_in_row(iw, jw, i, c);
        if (pc == 0) continue;
        inf.emplace_back(i, pc);
        xv[i] = w[pc];
      }
    }
    if (fc == 0) continue;
    // Coarse diagonal as a function of the column scale: m t^2 + s t + d.
    const double d = f.a[f.ia[fc]];
    double m = 0.0;
    for (auto [i, pc] : inf)
      for (int e = f.ia[i]; e < f.ia[i + 1]; ++e) m += xv[i] * f.a[e] * xv[f.ja[e]];
    for (auto [i, pc] : inf) xv[i] = 0.0;
    const double s = acc - m - d;
    double fac = 1.0;
    if (std::abs(m) > kTiny) {
      const double q = s / (2.0 * m);
      const double r = std::sqrt(std::abs(q * q - d / m));
      if (m <= 0.0) {
        fac = 0.9 * (r - q);
      } else {
        const double t1 = 1.1 * (r - q), t2 = 0.9 * (-(q + r));
        if (std::abs(t1 - 1.0) <= std::abs(t2 - 1.0)) {
          fac = t1;
          if (trace) {
            print_line(0, 0, "*** warning: factor is larger than 1: " + fmt_real(t1));
            print_line(0, 0, "*** instead of the following factor you could use " + fmt_real(t2));
          }
        } else {
          fac = t2;
        }
      }
    } else if (std::abs(s) > kTiny) {
      fac = -0.9 * d / s;
    } else {
      if (say) print_message(kMsgInfo, 0, 0, "abs(mval).le.zero.and.abs(sval).le.zero for variable: " + fmt_int(c));
    }
    if (trace)
      print_line(0, 0, "        scaling of column " + fmt_int(c) + " necessary with factor " + fmt_real(fac));
    for (auto [i, pc] : inf) {
      const double old = w[pc];
      w[pc] = fac * old;
      if (!row_scaling) continue;
      double so = 0.0;
      for (int p = iw[i]; p < iw[i + 1]; ++p)
        if (p != pc) so += w[p];
      if (std::abs(so) <= kTiny) {
        if (say)
          print_message(kMsgWarning, 0, 0,
                        "*** warning: sval too small or zero ! ii,mm= " + fmt_int(i) + " " + fmt_int(c));
        continue;
      }
      const double fct = (old * (1.0 - fac) + so) / so;  // keeps the row sum
      for (int p = iw[i]; p < iw[i + 1]; ++p)
        if (p != pc) w[p] *= fct;
    }
  }
  if (trace) print_line(0, 0, "        number of found non-positive diagonals: " + fmt_int(nfound));
}

// ---------------------------------------------------------------------------
// Truncation
// ---------------------------------------------------------------------------
int galerkin_truncation(int k, double eps, bool symmetric, int msg_level) {
  const int iclo = imin_of(k), ichi = imax_of(k);
  int* cia = stacked_ia();
  int* cja = stacked_ja();
  double* ca = stacked_a();
  if (symmetric) {
    // Mark an entry and its partner by negating their columns.
    for (int c = iclo; c <= ichi; ++c) {
      const double thr = ca[cia[c]] * eps;
      for (int p = cia[c] + 1; p < cia[c + 1]; ++p) {
        const int l = cja[p];
        if (l < 0 || std::abs(ca[p]) > thr) continue;
        int q = 0;
        for (int e = cia[l] + 1; e < cia[l + 1]; ++e)
          if (std::abs(cja[e]) == c) {
            q = e;
            break;
          }
        if (q == 0) {
          for (int e = cia[iclo]; e < cia[ichi + 1]; ++e) cja[e] = std::abs(cja[e]);
          fail(kErrGalerkinTruncation, "Truncation of Galerkin failed: symmetric counterpart missing!");
          return 0;
        }
        cja[p] = -l;
        cja[q] = -c;
      }
    }
  }
  int removed = 0;
  int out = cia[iclo];
  for (int c = iclo; c <= ichi; ++c) {
    const int p0 = cia[c], p1 = cia[c + 1];
    const double thr = ca[p0] * eps;
    double dv = ca[p0];
    const int start = out;
    ++out;
    for (int p = p0 + 1; p < p1; ++p) {
      const bool drop = symmetric ? cja[p] < 0 : std::abs(ca[p]) <= thr;
      if (drop) {
        dv += ca[p];
        ++removed;
      } else {
        cja[out] = cja[p];
        ca[out] = ca[p];
        ++out;
      }
    }
    cja[start] = c;
    ca[start] = dv;
    cia[c] = start;
  }
  cia[ichi + 1] = out;
  int nonpos = 0;
  for (int c = iclo; c <= ichi; ++c) nonpos += ca[cia[c]] <= 0.0 ? 1 : 0;
  if (msg_level >= 0) print_message(kMsgInfo, 0, 0, "Number of Galerkin entries removed: " + fmt_int(removed));
  if (nonpos > 0)
    fail(kErrGalerkinTruncation, "Truncation of Galerkin failed: " + fmt_int(nonpos) + " non-positive diagonals!");
  return removed;
}

// ---------------------------------------------------------------------------
// The Galerkin step of one level with the repair of non-positive diagonals
// ---------------------------------------------------------------------------
GalerkinResult galerkin(int k, const GalerkinSettings& s) {
  GalerkinResult res;
  const Level L = level_of(k);
  res.nrows = L.nc();
  const bool say = s.msg_level >= 0;
  const double t0 = omp_get_wtime();
  int r = 0;               // restarts with a correction
  int nbad0 = -1;          // bad rows of the first product
  bool w_used = false;     // correct_w has run
  bool w_noscale = false;  // ... and has run without row scaling
  for (;;) {
    ProductResult pr = opdfn_product(k, s.nntyp, s.mult_zeros, s.neg_diag);
    if (failed()) return res;
    res.nbad = pr.nbad;
    if (nbad0 < 0) nbad0 = res.nbad_first = pr.nbad;
    if (pr.nbad > 0 && s.dump_correctw != 0 && s.msg_level >= 1) {
      dump_bad_rows(pr.bad);
      if (failed()) return res;
    }
    if (s.neg_diag < 0 || pr.nbad == 0) break;
    if (pr.nbad > 2 * s.neg_diag) {
      warn(kWarnGalerkinNoCorrect, "no correction of negative diagonals on level " + fmt_int(k) + ".  rows: " +
                                       fmt_int(pr.nbad));
      break;
    }
    if (r > 0 && nbad0 > s.neg_diag && pr.nbad > s.neg_diag) {
      print_message(kMsgWarning, 0, 0,
                    "still " + fmt_int(pr.nbad) + " negative diagonals with second attempt (" + routine_tag(s.nntyp) + ")");
      warn(kWarnGalerkinGaveUp, "increasing current value of neg_diag=" + fmt_int(s.neg_diag) + " might help (" +
                                    routine_tag(s.nntyp) + ")");
      break;
    }
    if (say) {
      const double pct = res.nrows > 0 ? 100.0 * pr.nbad / res.nrows : 0.0;
      print_message(kMsgInfo, 0, 0,
                    fmt_int(pr.nbad) + " non-positive diagonal(s) on level " + fmt_int(k) + "  (" + fmt_real(pct, "%.2f") +
                        " %)");
    }
    bool give_up = false;
    if (pr.nbad <= s.neg_diag_brute) {
      ++r;
      if (r > s.maxop_restart) {
        if (w_noscale) {
          give_up = true;
        } else {
          if (say) {
            print_message(kMsgInfo, 0, 0, "               Too many restarts with faster method");
            print_message(kMsgInfo, 0, 0, "               --> switching to method korn_correct_w,");
          }
          correct_w(k, pr.bad, false, r, s.trace, s.msg_level);
          w_used = w_noscale = true;
          ++res.ncorrect_w;
        }
      } else {
        if (say) print_message(kMsgInfo, 0, 0, r == 1 ? "correct_f:     starting   " : "correct_f:     re-start # " + fmt_int(r));
        correct_f(k, pr.bad, s.msg_level);
        ++res.ncorrect_f;
      }
    } else {
      if (pr.nbad > s.neg_diag) {
        warn(kWarnGalerkinGaveUp, "Maximum number of allowed exceptions exceeded (" + fmt_int(s.neg_diag) + ") :");
      }
      ++r;
      if (r > s.maxop_restart && w_noscale) {
        give_up = true;
      } else {
        const bool scaling = !w_used;
        correct_w(k, pr.bad, scaling, r, s.trace, s.msg_level);
        w_used = true;
        w_noscale = w_noscale || !scaling;
        ++res.ncorrect_w;
      }
    }
    if (give_up) {
      print_message(kMsgWarning, 0, 0, "Maximum number of allowed re-starts exceeded (" + fmt_int(s.maxop_restart) + ") :");
      warn(kWarnGalerkinGaveUp, "Even (correct_w) without row-scaling did not work!");
      break;
    }
    if (failed()) return res;
    ++res.restarts;  // the product again, from the same first position
  }
  if (s.trunc_eps > 0.0) {
    res.nremoved = galerkin_truncation(k, s.trunc_eps, s.symmetric, s.msg_level);
    if (failed()) return res;
  }
  const int* cia = stacked_ia();
  res.nentries = cia[L.ichi + 1] - cia[L.iclo];
  if (s.timer) {
    char line[240];
    std::snprintf(line, sizeof line,
                  "%s: level %d  nntyp_opdfn= %d (%s)  rows= %d  entries= %d  non-positive diagonals= %d  time= %.4f s",
                  routine_tag(s.nntyp), k, s.nntyp, std::string(opdfn_variant_name(s.nntyp)).c_str(), res.nrows,
                  res.nentries, res.nbad, omp_get_wtime() - t0);
    print_message(kMsgInfo, 0, 0, line);
  }
  return res;
}

void recompute_coarse_operators(int levels, const GalerkinSettings& s) {
  for (int k = 2; k <= levels; ++k) {
    galerkin(k, s);
    if (failed()) return;
  }
}

void opdfn_mov(int levels) {
  StoreState& st = store();
  if (levels < 2 || st.ia.empty()) return;
  const int delta = st.ia1[st.nnu] - st.ia[0];
  if (delta == 0) return;
  int* cia = stacked_ia();
  const int last = imax_of(levels) + 1;
  for (int i = st.nnu + 1; i <= last; ++i) cia[i] += delta;
  st.nda += delta;
  st.nna_all += delta;
}

}  // namespace kornlt
