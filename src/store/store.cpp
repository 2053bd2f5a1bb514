// The hierarchy store: level bounds, dimension estimate, memory counters.
#include <cmath>
#include <cstdio>
#include <new>
#include <string>
#include <limits>

#include "control/control.hpp"
#include "log/log.hpp"
#include "params/params.hpp"
#include "store/store.hpp"

namespace kornlt {

StoreState& store() {
  static StoreState s;
  return s;
}

void bind_level1(int nnu, int* ia, int* ja, double* a, double* u, double* f) {
  StoreState& st = store();
  st.nnu = nnu;
  st.nna = ia[nnu] - 1;
  st.ia1 = ia;
  st.ja1 = ja;
  st.a1 = a;
  st.u1 = u;
  st.f1 = f;
}

LevelView level_view(int k) {
  StoreState& st = store();
  if (k == 1) {
    LevelView L = level1_view(st.nnu, st.ia1, st.ja1, st.a1, st.u1, st.f1);
    if (!st.icg.empty()) L.icg = Vec1<int>(st.icg.data(), 1, st.nnu);
    return L;
  }
  LevelView L;
  L.k = k;
  L.ilo = st.imin[static_cast<std::size_t>(k)];
  L.ihi = st.imax[static_cast<std::size_t>(k)];
  const int base_u = st.nnu + 1;  // first global index of the stacked row arrays
  const int base_a = st.nna + 1;  // first global index of the stacked entry arrays
  L.ia = Vec1<int>(st.ia.data() + (L.ilo - base_u), L.ilo, L.ihi + 1);
  const int alo = L.ia(L.ilo), ahi = L.ia(L.ihi + 1) - 1;
  L.ja = Vec1<int>(st.ja.data() + (alo - base_a), alo, ahi);
  L.a = Vec1<double>(st.a.data() + (alo - base_a), alo, ahi);
  if (!st.u.empty()) {
    L.u = Vec1<double>(st.u.data() + (L.ilo - base_u), L.ilo, L.ihi);
    L.f = Vec1<double>(st.f.data() + (L.ilo - base_u), L.ilo, L.ihi);
  }
  if (!st.icg.empty()) L.icg = Vec1<int>(st.icg.data() + (L.ilo - 1), L.ilo, L.ihi);
  return L;
}

// ---------------------------------------------------------------------------
// Allocation families
// ---------------------------------------------------------------------------
namespace {

struct Family {
  bool allocated = false;
  int lo = 1, hi = 0;
};
struct Families {
  Family icg, iw, ia, uf, iu, ip, a, w;
};
Families& families() {
  static Families f;
  return f;
}

int allocation_countdown = 0;

// Resizes v to n elements (n < 0 counts as 0); false when memory is refused.
template <class V>
bool allocate(V& v, std::int64_t n) {
  if (allocation_countdown > 0 && --allocation_countdown == 0) return false;
  try {
    v.assign(static_cast<std::size_t>(std::max<std::int64_t>(n, 0)), typename V::value_type{});
  } catch (const std::bad_alloc&) {
    return false;
  }
  return true;
}

template <class V>
void release(V& v) {
  V().swap(v);
}

void count(std::int64_t ints, std::int64_t reals) {
  StoreState& st = store();
  st.memi += ints;
  st.memd += reals;
  st.maxeff = std::max(st.maxeff, st.watermark());
}

// The keep test of an allocator: true when the family stays as it is.
bool keep_family(Family& fam, int lo, int hi, std::string_view name, std::string_view routine,
                 void (*drop)()) {
  if (!bool(prm().keepmem) || !fam.allocated) return false;
  const bool info = bool(prm().info_keepmem);
  if (fam.lo == lo && fam.hi == hi) {
    if (info) print_message(kMsgInfo, 0, 0, "Keeping <" + std::string(name) + "> in (" + std::string(routine) + ")");
    return true;
  }
  if (info)
    print_message(kMsgInfo, 0, 0, "De-allocation <" + std::string(name) + "> in (" + std::string(routine) + ")");
  drop();
  return false;
}

void trace_allocation(std::string_view name, std::string_view routine, int lo, int hi) {
  if (!bool(prm().info_keepmem)) return;
  char line[200];
  std::snprintf(line, sizeof line, "Allocation of <%.*s> in %.*s  lower=%12d upper=%12d",
                static_cast<int>(name.size()), name.data(), static_cast<int>(routine.size()), routine.data(), lo, hi);
  print_message(kMsgInfo, 0, 0, line);
}

void drop_icg() {
  StoreState& st = store();
  release(st.icg);
  st.memi -= st.cnt_icg;
  st.cnt_icg = 0;
  families().icg.allocated = false;
}
void drop_iw() {
  StoreState& st = store();
  release(st.iw);
  st.memi -= st.cnt_iw;
  st.cnt_iw = 0;
  families().iw.allocated = false;
}
void drop_ia() {
  StoreState& st = store();
  release(st.ia);
  st.memi -= st.cnt_ia;
  st.cnt_ia = 0;
  families().ia.allocated = false;
}
void drop_uf() {
  StoreState& st = store();
  release(st.u);
  release(st.f);
  st.memd -= st.cnt_uf;
  st.cnt_uf = 0;
  families().uf.allocated = false;
}
void drop_iuip() {
  StoreState& st = store();
  st.memi -= st.cnt_iu + st.cnt_ip;
  st.cnt_iu = st.cnt_ip = 0;
  families().iu.allocated = families().ip.allocated = false;
}
void drop_a() {
  StoreState& st = store();
  release(st.a);
  release(st.ja);
  st.memi -= st.cnt_a;
  st.memd -= st.cnt_a;
  st.cnt_a = 0;
  families().a.allocated = false;
}
void drop_w() {
  StoreState& st = store();
  release(st.w);
  release(st.jw);
  st.memi -= st.cnt_w;
  st.memd -= st.cnt_w;
  st.cnt_w = 0;
  families().w.allocated = false;
}

}  // namespace

void fail_allocation_after(int n) { allocation_countdown = n; }

void u_alloc(int selector, int nnu, int ndimu) {
  StoreState& st = store();
  Families& fam = families();
  switch (selector) {
    case 1: {
      if (keep_family(fam.icg, 1, ndimu, "icg", "u_alloc", drop_icg)) return;
      trace_allocation("icg", "u_alloc", 1, ndimu);
      if (!allocate(st.icg, ndimu)) {
        fail(kErrAllocation, "Allocation failed for <icg> in (u_alloc)");
        return;
      }
      fam.icg = {true, 1, ndimu};
      st.cnt_icg = std::max(ndimu, 0);
      count(st.cnt_icg, 0);
      return;
    }
    case 2: {
      if (keep_family(fam.iw, 1, ndimu + 1, "iw", "u_alloc", drop_iw)) return;
      trace_allocation("iw", "u_alloc", 1, ndimu + 1);
      if (!allocate(st.iw, static_cast<std::int64_t>(ndimu) + 1)) {
        fail(kErrAllocation, "Allocation failed for <iw> in (u_alloc)");
        return;
      }
      fam.iw = {true, 1, ndimu + 1};
      st.cnt_iw = std::max(ndimu + 1, 0);
      count(st.cnt_iw, 0);
      return;
    }
    case 3: {
      if (keep_family(fam.ia, nnu + 1, ndimu + 1, "ia", "u_alloc", drop_ia)) return;
      trace_allocation("ia", "u_alloc", nnu + 1, ndimu + 1);
      if (!allocate(st.ia, static_cast<std::int64_t>(ndimu) - nnu + 1)) {
        fail(kErrAllocation, "Allocation failed for <ia> in (u_alloc)");
        return;
      }
      fam.ia = {true, nnu + 1, ndimu + 1};
      st.cnt_ia = std::max(ndimu - nnu + 1, 0);
      count(st.cnt_ia, 0);
      return;
    }
    case 4: {
      if (keep_family(fam.uf, nnu + 1, ndimu, "f,u", "u_alloc", drop_uf)) return;
      trace_allocation("u,f", "u_alloc", nnu + 1, ndimu);
      if (!allocate(st.u, static_cast<std::int64_t>(ndimu) - nnu) ||
          !allocate(st.f, static_cast<std::int64_t>(ndimu) - nnu)) {
        release(st.u);
        fail(kErrAllocation, "Allocation failed for <u,f> in (u_alloc)");
        return;
      }
      fam.uf = {true, nnu + 1, ndimu};
      st.cnt_uf = 2LL * std::max(ndimu - nnu, 0);
      count(0, st.cnt_uf);
      return;
    }
    case 5: {
      if (keep_family(fam.iu, nnu + 1, nnu + 1, "iu(size1)", "u_alloc", drop_iuip)) return;
      if (allocation_countdown > 0 && --allocation_countdown == 0) {
        fail(kErrAllocation, "Allocation failed for <iu> in (u_alloc)");
        return;
      }
      fam.iu = fam.ip = {true, nnu + 1, nnu + 1};
      st.cnt_iu = st.cnt_ip = 1;
      count(2, 0);
      return;
    }
    default: emergency_stop("Illegal call to routine (u_alloc)!");
  }
}

void a_alloc(int nna, int ndima) {
  StoreState& st = store();
  Families& fam = families();
  if (keep_family(fam.a, nna + 1, ndima, "a,ja", "a_alloc", drop_a)) return;
  trace_allocation("a,ja", "a_alloc", nna + 1, ndima);
  const std::int64_t n = static_cast<std::int64_t>(ndima) - nna;
  if (!allocate(st.a, n) || !allocate(st.ja, n)) {
    release(st.a);
    fail(kErrAllocation, "0e-allocation failed for <a,ja> in (a_alloc)");
    return;
  }
  fam.a = {true, nna + 1, ndima};
  st.cnt_a = std::max<std::int64_t>(n, 0);
  count(st.cnt_a, st.cnt_a);
}

void w_alloc(int ndimw) {
  StoreState& st = store();
  Families& fam = families();
  if (keep_family(fam.w, 1, ndimw, "w,jw", "w_alloc", drop_w)) return;
  trace_allocation("w,jw", "w_alloc", 1, ndimw);
  if (!allocate(st.w, ndimw) || !allocate(st.jw, ndimw)) {
    release(st.w);
    fail(kErrAllocation, "Allocation failed for <w,jw> in (w_alloc)");
    return;
  }
  fam.w = {true, 1, ndimw};
  st.cnt_w = std::max(ndimw, 0);
  count(st.cnt_w, st.cnt_w);
}

void u_dealloc() {
  drop_icg();
  drop_iw();
  drop_ia();
  drop_uf();
  drop_iuip();
}
void a_dealloc() { drop_a(); }
void w_dealloc() { drop_w(); }

namespace {

// c = trunc(factor * 1.001 * n) when factor >= 1, else trunc(1.1 * n); raised
// to n + 1; an overflow (result below n) gives `ihuge` with a message.
int estimate(double factor, int n, int ihuge, const char* name) {
  const double c = factor >= 1.0 ? std::trunc(factor * 1.001 * n) : std::trunc(1.1 * n);
  double v = c <= n + 1.0 ? n + 1.0 : c;
  if (v > static_cast<double>(std::numeric_limits<int>::max()) || v < n) {
    print_message(kMsgWarning, 0, 0,
                  std::string("Potential integer overflow for ") + name + " in (korn_dimensions)");
    return ihuge;
  }
  return std::min(static_cast<int>(v), ihuge);
}

void raise_to(int& dim, int estimate_value, const char* workspace) {
  if (dim >= estimate_value) return;
  if (bool(prm().info_keepmem))
    print_message(kMsgInfo, 0, 0,
                  std::string(dim < 1 ? "New-allocation " : "Re-allocation ") + workspace +
                      " will be required !");
  dim = estimate_value;
}

}  // namespace

void korn_dimensions(const DimensionArgs& d) {
  Params& p = prm();
  StoreState& st = store();
  if (p.ihuge <= 0) p.ihuge = 2147483646;
  const int ihuge = p.ihuge;
  if (d.nnu > ihuge) {
    fail(kErrDimension, "ihuge too small: ihuge < nnu in (korn_dimensions)");
    return;
  }
  if (d.nna > ihuge) {
    fail(kErrDimension, "ihuge too small: ihuge < nna in (korn_dimensions)");
    return;
  }

  int nda = d.nna, ndu = d.nnu, ndw = 0, ndv = d.npnts;
  if (!d.one_level) {
    nda = estimate(d.a_cmplx, d.nna, ihuge, "nda");
    ndu = estimate(d.g_cmplx, d.nnu, ihuge, "ndu");
    const double c = d.w_avrge >= 1.0 ? std::trunc(d.w_avrge * 1.005 * ndu) : std::trunc(1.1 * ndu);
    if (c < d.nnu || c > static_cast<double>(std::numeric_limits<int>::max())) {
      print_message(kMsgWarning, 0, 0, "Potential integer overflow for ndw in (korn_dimensions)");
      ndw = ihuge;
    } else {
      ndw = std::min(static_cast<int>(c), ihuge);
    }
    if (d.npnts > 0) ndv = estimate(d.p_cmplx, d.npnts, ihuge, "ndv");
  }

  const bool full_restart = (d.run_mode_digit == 4 && !bool(p.keepmem)) || d.run_mode_digit == 5;
  korn_cleanup("in_korn_dimensions", !full_restart);
  if (failed()) return;

  if (full_restart) {
    st.memd = static_cast<std::int64_t>(d.nna) + 2LL * d.nnu;
    st.memi = static_cast<std::int64_t>(d.nnu) + d.nna + (d.nsys > 1 ? d.nnu : 0) + (d.npnts > 0 ? d.nnu : 0);
    st.nda = nda;
    st.ndu = ndu;
    st.ndw = ndw;
    st.ndv = ndv;
  } else {
    raise_to(st.nda, nda, "a_wkspace");
    raise_to(st.ndw, ndw, "w_wkspace");
    raise_to(st.ndv, ndv, "v_wkspace");
    raise_to(st.ndu, ndu, "u_wkspace");
  }
  st.maxeff = st.maxcyc = st.watermark();
}

}  // namespace kornlt
