// Row kernels of the classical interpolation: one row of weights built in
// place in a 1-based position space (jw(p), w(p)) with two position markers
// over the level's variables,
//   ifg(k)   the position of column k in the row under construction,
//   ipatt(k) the row's start position p0 when k is an interpolatory column.
// A marker counts only when it is at or behind p0 of the current row; every
// column a row touched is cleared when the row is separated, so that the next
// row (which may start below the positions this one used) sees clean markers.
// Shared by the direct/standard/extended build, the multi-pass build and the
// improvement sweep. Internal to src/setup/interp*.cpp.
#pragma once

#include <algorithm>
#include <atomic>
#include <cmath>
#include <new>
#include <string>
#include <vector>

#include "setup/setup.hpp"
#include "store/store.hpp"

namespace kornlt::interp {

// The level as origin pointers: ia[i], ja[p], a[p], icg[i], iu[i] are the
// 1-based global entries. ja[ia[i]] is the strong end of row i.
struct LevelData {
  int ilo = 1, ihi = 0;
  const int* ia = nullptr;
  const int* ja = nullptr;
  const double* a = nullptr;
  int* icg = nullptr;        // read by the kernels; only the drivers write it
  const int* iu = nullptr;   // set when columns are restricted to the row's unknown
  int nprim = 0;             // > 0: only rows of this unknown get weights
  int nvars() const { return ihi - ilo + 1; }
};

// The numbers a kernel reads.
struct RowParams {
  int nwtint = 2;         // 1 direct, 2 standard, 3 extended
  int ntrunc = 1;         // < 1 none, 1 common threshold, 2 one per sign
  double etr = 0.0;       // truncation threshold (etr1, or etr2 in the sweep)
  double ewt2 = 0.0;      // extended interpolation: large weak positive entries
  double eps_diag = 1e-5; // reduced diagonal <= eps_diag * a_ii counts as lost
  bool rowsum1 = false;   // nint_rowsum1 = 1
};

// The pointer o with o[lo] == v[0]; null for an empty vector, which nothing
// may address.
template <class T>
T* origin_at(std::vector<T>& v, int lo) {
  return v.empty() ? nullptr : v.data() - lo;
}

// One thread's markers over ilo..ihi, zero between rows.
struct Markers {
  std::vector<int> ifg_v, ipatt_v;
  int* ifg = nullptr;
  int* ipatt = nullptr;
  void init(int ilo, int ihi) {
    const auto n = static_cast<std::size_t>(std::max(ihi - ilo + 1, 0));
    ifg_v.assign(n, 0);
    ipatt_v.assign(n, 0);
    ifg = origin_at(ifg_v, ilo);
    ipatt = origin_at(ipatt_v, ilo);
  }
};

// The markers of every thread's part, each zeroed by the thread that works
// with it (its own memory, touched first there), all at once. False when
// memory ran out.
template <class Parts>
bool init_part_markers(Parts& parts, int ilo, int ihi) {
  std::atomic<bool> ok{true};
  const int n = static_cast<int>(parts.size());
#pragma omp parallel for schedule(static, 1) num_threads(n) if (n > 1)
  for (int t = 0; t < n; ++t) {
    try {
      parts[static_cast<std::size_t>(t)].m.init(ilo, ihi);
    } catch (const std::bad_alloc&) {
      ok = false;
    }
  }
  return ok;
}

// Storage for rows in a private 1-based position space (position 0 unused).
struct RowBuffer {
  std::vector<int> jw{0};
  std::vector<double> w{0.0};
  // Makes position `last` addressable, growing by half at least.
  void ensure(int last) {
    const auto need = static_cast<std::size_t>(last) + 1;
    if (need <= jw.size()) return;
    const std::size_t n = std::max(need, jw.size() + jw.size() / 2);
    jw.resize(n);
    w.resize(n);
  }
  int* jwo() { return jw.data(); }
  double* wo() { return w.data(); }
};

// What a row kernel reports.
struct RowOut {
  int end = 0;             // one past the row's last position
  bool converted = false;  // the F-variable became C (unit row written)
  bool frow = false;       // an F-row with weights was built
  bool zero_sum = false;   // nint_rowsum1: |sum| <= 1e-20, row left as it is
  bool empty_sum = false;  // nint_rowsum1: empty row, left as it is
};

// The state of an F-row between the sums and the final scaling.
struct RowSums {
  double d = 0.0;             // reduced diagonal
  double pos = 0.0, neg = 0.0;  // all positive entries, |all negative entries|
  double alpha = 1.0, beta = 1.0;
};

// Columns of other unknowns are skipped as if absent; kUnk selects at compile
// time whether the restriction applies, so the plain case has no test.
template <bool kUnk>
inline bool same_unknown(const LevelData& L, int ui, int col) {
  if constexpr (kUnk) return L.iu[col] == ui;
  return true;
}

// The unit row of a C-variable.
inline int unit_row(int i, int p0, int* jw, double* w) {
  jw[p0] = i;
  w[p0] = 1.0;
  return p0 + 1;
}

// Separation of a row image p0..pend: d = w(p0); an entry with ipatt(col) = p0
// and a non-zero value stays and moves to the front (from p0 on, the diagonal
// slot included); its value goes to P or N. All others go to Pn or Nn and are
// dropped. Clears ifg and ipatt of every column of the image, the row's own
// (at p0) included. Returns one past the last kept entry.
inline int separate(int p0, int pend, int* jw, double* w, int* ifg, int* ipatt, RowSums& s) {
  s.d = w[p0];
  ifg[jw[p0]] = 0;
  double P = 0.0, N = 0.0, Pn = 0.0, Nn = 0.0;
  int q = p0;
  for (int r = p0 + 1; r <= pend; ++r) {
    const int col = jw[r];
    const double v = w[r];
    const bool keep = ipatt[col] == p0 && v != 0.0;
    ifg[col] = 0;
    ipatt[col] = 0;
    if (keep) {
      jw[q] = col;
      w[q] = v;
      ++q;
      if (v > 0.0) P += v; else N -= v;
    } else {
      if (v > 0.0) Pn += v; else Nn -= v;
    }
  }
  s.pos = Pn + P;
  s.neg = Nn + N;
  s.alpha = s.beta = 1.0;
  // A sign without interpolatory entries is lumped into the diagonal.
  if (P <= 0.0) {
    s.d += s.pos;
    s.pos = 0.0;
  } else {
    s.beta = s.pos / P;
  }
  if (N <= 0.0) {
    s.d -= s.neg;
    s.neg = 0.0;
  } else {
    s.alpha = s.neg / N;
  }
  return q;
}

// Multiplies positive entries by beta and the others by alpha; returns the
// largest positive value Pm and the largest absolute negative value Nm.
inline void scale_signs(int p0, int q, double* w, const RowSums& s, double& Pm, double& Nm) {
  Pm = 0.0;
  Nm = 0.0;
  for (int r = p0; r < q; ++r) {
    const double v = w[r] * (w[r] > 0.0 ? s.beta : s.alpha);
    w[r] = v;
    if (v > 0.0) Pm = std::max(Pm, v); else Nm = std::max(Nm, -v);
  }
}

// Truncation of the scaled row p0..q-1: drops -Nt < v < Pt (one common
// threshold, the larger, for ntrunc 1), compacts, and recomputes the scale
// factors from the kept values: a sign left without entries goes to the
// diagonal. Returns one past the last kept entry.
inline int truncate(int p0, int q, int* jw, double* w, double etr, int ntrunc, double Pm, double Nm,
                    RowSums& s) {
  double Pt = etr * Pm, Nt = etr * Nm;
  if (ntrunc == 1) Pt = Nt = std::max(Pt, Nt);
  double P = 0.0, N = 0.0;
  int q2 = p0;
  for (int r = p0; r < q; ++r) {
    const double v = w[r];
    if (v > -Nt && v < Pt) continue;
    jw[q2] = jw[r];
    w[q2] = v;
    ++q2;
    if (v > 0.0) P += v; else N -= v;
  }
  s.alpha = s.beta = 1.0;
  if (P <= 0.0) s.d += s.pos; else s.beta = s.pos / P;
  if (N <= 0.0) s.d -= s.neg; else s.alpha = s.neg / N;
  return q2;
}

// Multiplies by beta / alpha by sign (no maxima).
inline void rescale(int p0, int q, double* w, const RowSums& s) {
  for (int r = p0; r < q; ++r) w[r] *= w[r] > 0.0 ? s.beta : s.alpha;
}

// The final scaling by -1/d and the optional normalisation to row sum 1.
inline void finish_row(int p0, int q, double* w, double d, bool rowsum1, RowOut& out) {
  const double f = -1.0 / d;
  for (int r = p0; r < q; ++r) w[r] *= f;
  if (!rowsum1) return;
  if (q == p0) {
    out.empty_sum = true;
    return;
  }
  double sum = 0.0;
  for (int r = p0; r < q; ++r) sum += w[r];
  if (std::abs(sum) <= 1e-20) {
    out.zero_sum = true;
    return;
  }
  for (int r = p0; r < q; ++r) w[r] /= sum;
}

// Copies row i into the image at p0 (diagonal first), skipping FF columns and
// columns of other unknowns. Marks C-columns at matrix positions up to
// `limit` as interpolatory. Returns the last image position; `plim` receives
// the last image position that came from matrix positions up to `limit`, and
// `nsc` the number of marked columns.
template <bool kUnk>
inline int row_image(const LevelData& L, int i, int ui, int limit, int p0, int* jw, double* w, int* ifg,
                     int* ipatt, int& plim, int& nsc) {
  const int rs = L.ia[i], re = L.ia[i + 1];
  w[p0] = L.a[rs];
  jw[p0] = i;
  ifg[i] = p0;
  int p = p0;
  plim = p0;
  nsc = 0;
  for (int j = rs + 1; j < re; ++j) {
    const int col = L.ja[j];
    const int g = L.icg[col];
    if (g == kIcgFF || !same_unknown<kUnk>(L, ui, col)) continue;
    ++p;
    jw[p] = col;
    w[p] = L.a[j];
    ifg[col] = p;
    if (j <= limit) {
      plim = p;
      if (g > 0) {
        ipatt[col] = p0;
        ++nsc;
      }
    }
  }
  return p;
}

// Adds v to column col of the image (appending it when new). Returns the new
// last position.
inline int add_entry(int col, double v, int p0, int p, int* jw, double* w, int* ifg) {
  const int at = ifg[col];
  if (at < p0) {
    ++p;
    jw[p] = col;
    w[p] = v;
    ifg[col] = p;
  } else {
    w[at] += v;
  }
  return p;
}

// An upper bound of the image length of row i when the entries at matrix
// positions rs+1..walk_end may be substituted through rows of `len` each.
template <class Len>
int image_bound(const LevelData& L, int i, int walk_end, Len&& len) {
  const int rs = L.ia[i], re = L.ia[i + 1];
  long long b = re - rs;
  for (int j = rs + 1; j <= walk_end && j < re; ++j) b += len(L.ja[j]);
  return static_cast<int>(std::min<long long>(b, L.nvars() + 1));
}

// ---------------------------------------------------------------------------
// Direct, standard and extended interpolation: one row.
// ---------------------------------------------------------------------------

// Bound of row i's length under pwint1 (the indirect case included).
inline int pw1_bound(const LevelData& L, const RowParams& rp, int i) {
  const int rs = L.ia[i];
  const int walk_end = rp.nwtint == 3 ? L.ia[i + 1] - 1 : L.ja[rs];
  return image_bound(L, i, walk_end, [&](int k) { return L.ia[k + 1] - L.ia[k] - 1; });
}

// Builds the row of variable i at p0 from the icg states as they stand. Does
// not write icg: a converted variable is reported in out.converted.
template <bool kUnk>
inline RowOut pw1_row(const LevelData& L, const RowParams& rp, int i, int p0, int* jw, double* w, Markers& m) {
  RowOut out;
  const int g = L.icg[i];
  if (g > 0) {
    out.end = unit_row(i, p0, jw, w);
    return out;
  }
  const int ui = L.iu != nullptr ? L.iu[i] : 0;
  if (g == kIcgFF || (L.nprim > 0 && ui != L.nprim)) {
    out.end = p0;
    return out;
  }
  int* ifg = m.ifg;
  int* ipatt = m.ipatt;
  const int rs = L.ia[i], re = L.ia[i + 1];
  const int se = L.ja[rs];
  const double aii = L.a[rs];
  const double big_weak = re > rs + 1 ? rp.ewt2 * std::abs(L.a[rs + 1]) : 0.0;
  bool indirect = rp.nwtint >= 2;
  for (;;) {
    // Row image with the strong C-neighbours marked.
    int ps = p0, nsc = 0;
    int p = row_image<kUnk>(L, i, ui, se, p0, jw, w, ifg, ipatt, ps, nsc);
    if (nsc == 0) indirect = true;
    // Substitution of F-neighbours through their rows.
    if (indirect) {
      const int pe = p;
      const int walk_end = rp.nwtint == 3 ? pe : ps;
      for (int q = p0 + 1; q <= walk_end; ++q) {
        const int k = jw[q];
        int limit;
        if (q <= ps) {
          if (L.icg[k] >= 0) continue;
          limit = L.ja[L.ia[k]];
        } else {
          if (!(w[q] > big_weak)) continue;
          limit = L.ia[k + 1] - 1;
        }
        const double c = -w[q] / L.a[L.ia[k]];
        w[q] = 0.0;
        for (int l = L.ia[k] + 1; l < L.ia[k + 1]; ++l) {
          const int col = L.ja[l];
          const int gl = L.icg[col];
          if (gl == kIcgFF || !same_unknown<kUnk>(L, ui, col)) continue;
          p = add_entry(col, c * L.a[l], p0, p, jw, w, ifg);
          if (gl > 0 && l <= limit) ipatt[col] = p0;
        }
      }
    }
    // Separation, sums, lumping.
    RowSums s;
    int q = separate(p0, p, jw, w, ifg, ipatt, s);
    if (q == p0 || s.d <= rp.eps_diag * aii) {
      if (!indirect) {
        indirect = true;
        continue;
      }
      out.end = unit_row(i, p0, jw, w);
      out.converted = true;
      return out;
    }
    double Pm = 0.0, Nm = 0.0;
    scale_signs(p0, q, w, s, Pm, Nm);
    // Truncation and the second computation of the scale factors.
    if (rp.etr > 0.0 && rp.ntrunc >= 1) {
      q = truncate(p0, q, jw, w, rp.etr, rp.ntrunc, Pm, Nm, s);
      if (q == p0 || s.d <= rp.eps_diag * aii) {
        out.end = unit_row(i, p0, jw, w);
        out.converted = true;
        return out;
      }
      rescale(p0, q, w, s);
    }
    finish_row(p0, q, w, s.d, rp.rowsum1, out);
    out.end = q;
    out.frow = true;
    return out;
  }
}

// ---------------------------------------------------------------------------
// Multi-pass interpolation: one row of a pass.
// ---------------------------------------------------------------------------

// The rows finished in earlier passes: row r holds positions iw[r]..iw[r+1]-1
// of jw, w (origin pointers over the level's stacked rows).
struct Finished {
  const int* iw = nullptr;
  const int* jw = nullptr;
  const double* w = nullptr;
  int r0 = 0;  // the row counter at the start of the pass: rows below it are finished
};

inline int pw2_bound(const LevelData& L, const Finished& f, int i) {
  return image_bound(L, i, L.ja[L.ia[i]], [&](int k) {
    const int g = L.icg[k];
    return g < 0 && -g < f.r0 ? f.iw[-g + 1] - f.iw[-g] : 0;
  });
}

// Builds the row of a variable still to do. out.end == p0 with out.frow false
// means: no interpolatory column yet, the variable stays for the next pass.
// A lost diagonal does not end the row here.
template <bool kUnk>
inline RowOut pw2_row(const LevelData& L, const RowParams& rp, const Finished& f, int i, int p0, int* jw,
                      double* w, Markers& m) {
  RowOut out;
  int* ifg = m.ifg;
  int* ipatt = m.ipatt;
  const int ui = L.iu != nullptr ? L.iu[i] : 0;
  const int rs = L.ia[i];
  const int se = L.ja[rs];
  int ps = p0, nsc = 0;
  int p = row_image<kUnk>(L, i, ui, se, p0, jw, w, ifg, ipatt, ps, nsc);
  int ninterp = nsc;
  for (int q = p0 + 1; q <= ps; ++q) {
    const int g = L.icg[jw[q]];
    if (g >= 0 || -g >= f.r0) continue;
    const int r = -g;
    const double c = w[q];
    w[q] = 0.0;
    for (int t = f.iw[r]; t < f.iw[r + 1]; ++t) {
      const int col = f.jw[t];
      p = add_entry(col, c * f.w[t], p0, p, jw, w, ifg);
      ipatt[col] = p0;
      ++ninterp;
    }
  }
  if (ninterp == 0) {
    for (int r = p0; r <= p; ++r) {
      ifg[jw[r]] = 0;
      ipatt[jw[r]] = 0;
    }
    out.end = p0;
    return out;
  }
  RowSums s;
  int q = separate(p0, p, jw, w, ifg, ipatt, s);
  double Pm = 0.0, Nm = 0.0;
  scale_signs(p0, q, w, s, Pm, Nm);
  if (rp.etr > 0.0 && rp.ntrunc >= 1) {
    q = truncate(p0, q, jw, w, rp.etr, rp.ntrunc, Pm, Nm, s);
    rescale(p0, q, w, s);
  }
  finish_row(p0, q, w, s.d, rp.rowsum1, out);
  out.end = q;
  out.frow = true;
  return out;
}

// ---------------------------------------------------------------------------
// Driver helpers shared by the interpolation routines (interp.cpp).
// ---------------------------------------------------------------------------
LevelData level_data(const LevelView& Lv, const InterpSettings& s);
RowParams row_params(const InterpSettings& s, int nwtint, double etr);
// The test hook: true once after interp_fail_next_allocation().
bool allocation_refused();
// Markers over the level; false when memory is refused.
bool init_markers(Markers& m, const LevelData& L);
// Origin pointers of the store's iw, jw, w (valid until w grows).
int* iw_origin();
int* jw_origin();
double* w_origin();
// Makes w, jw hold position `last` (w_extent); false with ierr set.
bool ensure_w(int k, int last);
// "wrowsum=0", once for each case that occurred.
void report_rowsum(bool zero_sum, bool empty_sum);
// nc, gratio and the average F-row length from the level's rows in the store.
void level_stats(const LevelData& L, InterpResult& r);
std::string fmt_fixed(double v, const char* format);

}  // namespace kornlt::interp
