// Relaxation: the point smoother of one pre- or post-smoothing step, its
// Gauss-Seidel / damped Jacobi sweeps (relx_gs) and the alternative sweeps of
// nxtyp 8 (relx_f), plus the decoding of the digit-coded sweep lists.
#include <algorithm>
#include <array>
#include <atomic>
#include <cassert>
#include <climits>
#include <cstdio>
#include <new>
#include <string>
#include <vector>

#include "control/threads.hpp"
#include "log/log.hpp"
#include "params/params.hpp"
#include "solve/solve.hpp"

namespace kornlt {

SolveState& solve_state() {
  static SolveState state;
  return state;
}

// ===========================================================================
// Sweep lists
// ===========================================================================

SweepList split_smoothing_code(int code) {
  SweepList list;
  if (code == 0) return list;
  // |INT_MIN| has no int; one division by 10 keeps its leading nine digits.
  const int c = code == INT_MIN ? code / 10 : code;
  std::array<int, 9> d{};
  const int ndigit = idec(c, d);
  list.nrx = d[0];
  list.len = ndigit - 1;
  for (int j = 0; j < list.len; ++j) list.typ[j] = d[j + 1];
  if (code < 0) {
    std::reverse(list.typ.begin(), list.typ.begin() + list.len);
    for (int j = 0; j < list.len; ++j) list.typ[j] = -list.typ[j];
  }
  return list;
}

void mod_omegajac_alloc(int nsys) {
  auto& vec = solve_state().omega_jacobi_vec;
  try {
    vec.assign(static_cast<std::size_t>(std::max(nsys, 1)), prm().omega_jacobi);
  } catch (const std::bad_alloc&) {
    vec.clear();
    fail(kErrAllocation, "Allocation failed in (mod_omegajac_alloc)!");
  }
}

namespace {

// ===========================================================================
// Decoding one step code
// ===========================================================================

// Points a folded Gauss-Seidel digit relaxes: 1 F points (icg < 1), 2 all,
// 3 C points (icg > 0).
enum class Points { F = 1, All = 2, C = 3 };

struct GsStep {
  Points points;
  bool ascending;  // final direction after the sign of the list entry
  bool sor;        // SOR form with omega_sor_do
};

// Folds a step code with |step| in 1..6: without C/F splitting 1..3 become 2
// and 4..6 become 5; 4..6 sweep downwards and select like 1..3; a negative
// entry reverses the direction. SOR belongs to the folded digit 2 only (an
// entry -2 keeps it, -5 does not); the descending twin (5 with omega_sor_up)
// is tested after the reduction to 1..3 and so never applies.
GsStep fold_step(int step, bool do_cf, double omega_sor_do) {
  int d = step < 0 ? -step : step;
  if (!do_cf) d = d <= 3 ? 2 : 5;
  const bool down = d > 3;
  const int kind = down ? d - 3 : d;
  return {static_cast<Points>(kind), down == (step < 0), d == 2 && omega_sor_do > 0.0};
}

// ===========================================================================
// Gauss-Seidel kernel
// ===========================================================================

// Every access to u inside a (possibly threaded) Gauss-Seidel sweep goes
// through relaxed atomics: in the hybrid sweep each thread reads values its
// neighbours are writing at the same time. Relaxed 8-byte atomics are plain
// loads and stores on the targets of this library.
static_assert(std::atomic_ref<double>::is_always_lock_free);

inline double load_u(double* u, int j) {
  return std::atomic_ref<double>(u[j]).load(std::memory_order_relaxed);
}
inline void store_u(double* u, int i, double v) {
  std::atomic_ref<double>(u[i]).store(v, std::memory_order_relaxed);
}

// Raw 1-based pointers of a level, p[i] addressed by the global index.
struct LevelPtr {
  const int* ia;
  const int* ja;
  const double* a;
  double* u;
  const double* f;
  const int* icg;  // null on a level without C/F splitting
};

LevelPtr level_ptr(const LevelView& L) {
  return {L.ia.origin(), L.ja.origin(), L.a.origin(), L.u.origin(), L.f.origin(),
          L.icg.empty() ? nullptr : L.icg.origin()};
}

// The Gauss-Seidel update of row i: u(i) = r / a_ii with r = f(i) minus the
// off-diagonal a(k)*u(ja(k)), or the SOR form (r*omega)/a_ii + (1-omega)*u(i).
// The arrays come as plain pointers held by the caller's loop, so that the
// compiler keeps them in registers across the atomic accesses to u.
template <bool Sor>
inline void relax_row(const int* ia, const int* ja, const double* a, double* u, const double* f, int i,
                      double omega) {
  const int kd = ia[i];
  const int ke = ia[i + 1];
  double r = f[i];
  for (int k = kd + 1; k < ke; ++k) r -= a[k] * load_u(u, ja[k]);
  if constexpr (Sor) {
    store_u(u, i, (r * omega) / a[kd] + (1.0 - omega) * load_u(u, i));
  } else {
    store_u(u, i, r / a[kd]);
  }
}

// One Gauss-Seidel pass over rows first, first+dir, ..., last (inclusive):
// u(i) = r / a_ii with r = f(i) - sum of the off-diagonal a(k)*u(ja(k)), or the
// SOR form (r*omega)/a_ii + (1-omega)*u(i). Rows outside P are skipped.
template <Points P, bool Sor>
void gs_rows(const LevelPtr& m, int first, int last, int dir, double omega) {
  const int* ia = m.ia;
  const int* ja = m.ja;
  const double* a = m.a;
  double* u = m.u;
  const double* f = m.f;
  const int* icg = m.icg;
  const int stop = last + dir;
  for (int i = first; i != stop; i += dir) {
    if constexpr (P == Points::F) {
      if (icg[i] > 0) continue;
    } else if constexpr (P == Points::C) {
      if (icg[i] < 1) continue;
    }
    relax_row<Sor>(ia, ja, a, u, f, i, omega);
  }
}

// The same over the listed rows rows[b], rows[b+1], ..., rows[e-1] (dir 1)
// or backwards (dir -1): the rows of one kind of a C/F splitting, visited in
// the order the test of every row would give.
template <bool Sor>
void gs_list(const LevelPtr& m, const int* rows, std::ptrdiff_t b, std::ptrdiff_t e, int dir, double omega) {
  const int* ia = m.ia;
  const int* ja = m.ja;
  const double* a = m.a;
  double* u = m.u;
  const double* f = m.f;
  const std::ptrdiff_t n = e - b;
  for (std::ptrdiff_t t = 0; t < n; ++t) relax_row<Sor>(ia, ja, a, u, f, rows[dir > 0 ? b + t : e - 1 - t], omega);
}

using GsRowsFn = void (*)(const LevelPtr&, int, int, int, double);

GsRowsFn gs_kernel(Points p, bool sor) {
  switch (p) {
    case Points::F:
      return sor ? gs_rows<Points::F, true> : gs_rows<Points::F, false>;
    case Points::All:
      return sor ? gs_rows<Points::All, true> : gs_rows<Points::All, false>;
    case Points::C:
      break;
  }
  return sor ? gs_rows<Points::C, true> : gs_rows<Points::C, false>;
}

// The hybrid Gauss-Seidel sweep: each thread relaxes its own static row block
// in the sweep's direction, in place and without synchronisation.
void gs_sweep(const LevelView& L, const GsStep& g, double omega, int nmin_matrix) {
  const LevelPtr m = level_ptr(L);
  const CfRows* cf = g.points == Points::All ? nullptr : cf_rows_of(L);
  if (cf != nullptr) {
    // The rows of the step's kind, cut at the same static row blocks.
    const std::vector<int>& rows = g.points == Points::C ? cf->c : cf->f;
    const int dir = g.ascending ? 1 : -1;
    for_blocks(L.ilo, L.ihi, nmin_matrix, [&](int lo, int hi, int) {
      if (lo > hi) return;
      const auto b = std::lower_bound(rows.begin(), rows.end(), lo) - rows.begin();
      const auto e = std::upper_bound(rows.begin(), rows.end(), hi) - rows.begin();
      if (g.sor)
        gs_list<true>(m, rows.data(), b, e, dir, omega);
      else
        gs_list<false>(m, rows.data(), b, e, dir, omega);
    });
    return;
  }
  const GsRowsFn rows = gs_kernel(g.points, g.sor);
  const int dir = g.ascending ? 1 : -1;
  for_blocks(L.ilo, L.ihi, nmin_matrix, [&](int lo, int hi, int) {
    if (lo > hi) return;
    if (g.ascending)
      rows(m, lo, hi, dir, omega);
    else
      rows(m, hi, lo, dir, omega);
  });
}

// ===========================================================================
// Damped Jacobi
// ===========================================================================

// u(i) = uold(i) + omega*(r/a_ii - uold(i)), r computed from uold alone, so
// the result does not depend on the thread count.
void jacobi_sweep(const LevelView& L, const SmootherSettings& s) {
  auto& uold = solve_state().uold;
  const auto n = static_cast<std::size_t>(L.nrows());
  if (uold.size() < n) {
    try {
      uold.resize(n);
    } catch (const std::bad_alloc&) {
      fail(kErrAllocation, "Allocation failed in (relx_gs)!");
      return;
    }
  }
  const LevelPtr m = level_ptr(L);
  double* uo = Vec1<double>(uold.data(), L.ilo, L.ihi).origin();
  for_blocks(L.ilo, L.ihi, s.nmin_vector, [&](int lo, int hi, int) {
    for (int i = lo; i <= hi; ++i) uo[i] = m.u[i];
  });
  const double omega = s.omega_jacobi;
  for_blocks(L.ilo, L.ihi, s.nmin_matrix, [&](int lo, int hi, int) {
    const int* ia = m.ia;
    const int* ja = m.ja;
    const double* a = m.a;
    for (int i = lo; i <= hi; ++i) {
      double r = m.f[i];
      for (int k = ia[i] + 1; k < ia[i + 1]; ++k) r -= a[k] * uo[ja[k]];
      m.u[i] = uo[i] + omega * (r / a[ia[i]] - uo[i]);
    }
  });
}

std::string fmt_real(double v) {
  char buf[32];
  std::snprintf(buf, sizeof buf, "%.6g", v);
  return buf;
}

}  // namespace

// ===========================================================================
// relx_gs: one sweep of one step code
// ===========================================================================
//   1..3 ascending Gauss-Seidel over F points, all points, C points
//   4..6 the same descending; a negative entry reverses the direction
//   7    damped Jacobi over all points (either sign, do_cf has no effect)
//   0, 8, 9 refused
void relx_gs(const LevelView& L, int step, bool do_cf, const SmootherSettings& s) {
  if (prm().nbnd_omega != 0) {
    prm().nbnd_omega = 0;
    print_message(kMsgInfo, 0, 0, "KORNp parameter nbnd_omega reset to 0");
  }
  const int d = step < 0 ? -step : step;
  if (d == 7) {
    jacobi_sweep(L, s);
    return;
  }
  if (d < 1 || d > 6) {
    fail(kErrIllegalParameter, "Unknown relaxation step requested in (relx_gs)");
    return;
  }
  assert(!do_cf || !L.icg.empty());
  const GsStep g = fold_step(step, do_cf && !L.icg.empty(), s.omega_sor_do);
  gs_sweep(L, g, s.omega_sor_do, s.nmin_matrix);
}

// ===========================================================================
// relx_f: the alternative sweeps of nxtyp 8 (serial)
// ===========================================================================
//   smo_choice 1 plain Gauss-Seidel row update
//              2 split update: couplings a(k) >= 0 take u from before the
//                sweep, negative ones the current u
//              3 row projection: every u(ja(k)) of the row moves by a(k)*r/s,
//                s the sum of the row's squared entries
//              other values leave the rows alone
void relx_f(const LevelView& L, int step, bool do_cf, const SmootherSettings& s) {
  if (s.smo_choice == 0) {
    fail(kErrIllegalParameter, "Option nxtyp=8 not available yet (relx_f)");
    return;
  }
  const int n = L.nrows();
  std::vector<double> before, res;
  try {
    before.resize(static_cast<std::size_t>(n));
    if (s.improve_smo) res.resize(static_cast<std::size_t>(n));
  } catch (const std::bad_alloc&) {
    fail(kErrIllegalParameter, "Allocation error in (relx_f)");
    return;
  }
  const LevelPtr m = level_ptr(L);
  const int* ia = m.ia;
  const int* ja = m.ja;
  const double* a = m.a;
  double* u = m.u;
  double* u0 = Vec1<double>(before.data(), L.ilo, L.ihi).origin();
  for (int i = L.ilo; i <= L.ihi; ++i) u0[i] = u[i];

  const int d = step < 0 ? -step : step;
  if (d == 7) {
    fail(kErrIllegalParameter, "Jacobi relaxation not supported in (relx_f)");
    return;
  }
  const bool valid = d >= 1 && d <= 6;
  if (!valid && s.smo_choice <= 4) {
    print_line(0, 0, "iirel out of range");
    fail(kErrIllegalParameter, "Unknown relaxation step requested in (relx_f)");
    return;
  }
  if (s.improve_smo && s.nsys > 1) {
    fail(kErrNotAvailable,
         "Correction scaling for several unknowns not available in this build (relx_f)!");
    return;
  }

  // Residual of the incoming u, for the correction scaling.
  double* r0 = s.improve_smo ? Vec1<double>(res.data(), L.ilo, L.ihi).origin() : nullptr;
  if (r0 != nullptr) {
    for (int i = L.ilo; i <= L.ihi; ++i) {
      double r = m.f[i];
      for (int k = ia[i]; k < ia[i + 1]; ++k) r -= a[k] * u[ja[k]];
      r0[i] = r;
    }
  }

  if (valid && s.smo_choice >= 1 && s.smo_choice <= 3) {
    const GsStep g = fold_step(step, do_cf && !L.icg.empty(), 0.0);
    const int dir = g.ascending ? 1 : -1;
    const int first = g.ascending ? L.ilo : L.ihi;
    const int stop = (g.ascending ? L.ihi : L.ilo) + dir;
    for (int i = first; i != stop; i += dir) {
      if (g.points == Points::F && m.icg[i] > 0) continue;
      if (g.points == Points::C && m.icg[i] < 1) continue;
      const int kd = ia[i];
      const int ke = ia[i + 1];
      double r = m.f[i];
      switch (s.smo_choice) {
        case 1:
          for (int k = kd + 1; k < ke; ++k) r -= a[k] * u[ja[k]];
          u[i] = r / a[kd];
          break;
        case 2:
          for (int k = kd + 1; k < ke; ++k) r -= a[k] * (a[k] >= 0.0 ? u0[ja[k]] : u[ja[k]]);
          u[i] = r / a[kd];
          break;
        default: {  // 3
          double sq = 0.0;
          for (int k = kd; k < ke; ++k) {
            r -= a[k] * u[ja[k]];
            sq += a[k] * a[k];
          }
          const double t = r / sq;
          for (int k = kd; k < ke; ++k) u[ja[k]] += a[k] * t;
          break;
        }
      }
    }
  }

  if (r0 != nullptr) {
    // alpha = (r, Ae) / (Ae, Ae) with e = u - u(before); 1 when (Ae, Ae) <= 0,
    // never below 0.01.
    double rae = 0.0, aeae = 0.0;
    for (int i = L.ilo; i <= L.ihi; ++i) {
      double ae = 0.0;
      for (int k = ia[i]; k < ia[i + 1]; ++k) ae += a[k] * (u[ja[k]] - u0[ja[k]]);
      rae += r0[i] * ae;
      aeae += ae * ae;
    }
    const double alpha = aeae > 0.0 ? std::max(rae / aeae, 0.01) : 1.0;
    print_message(kMsgInfo, 0, 0, "Scaling smoothing correction from 1 to " + fmt_real(alpha));
    for (int i = L.ilo; i <= L.ihi; ++i) u[i] = u0[i] + alpha * (u[i] - u0[i]);
  }
}

// ===========================================================================
// smoother: one pre- or post-smoothing step
// ===========================================================================
//   nxtyp 0      relx_gs, nrx times the list (nstyp must be 1)
//         1,2,3  ILU smoothers: not part of this build, refused with error 80
//         8      relx_f, nrx times the list
//         other  refused with error 20
void smoother(const LevelView& L, int first_point, const SmootherSettings& s, const SweepList& list,
              bool do_cf) {
  int nxtyp = s.nxtyp;
  if ((s.nxtyp_coarse == 0 || s.nxtyp_coarse == 5) && L.ilo > 1) {
    nxtyp = first_point < 2 ? 0 : s.nxtyp_coarse;
    if (prm().print_nxtyp_coarse_msg) {
      print_message(kMsgInfo, 0, 0, "special variant: V/U/BGS enforced on coarse levels!");
      prm().print_nxtyp_coarse_msg = false;
    }
  }

  using Sweep = void (*)(const LevelView&, int, bool, const SmootherSettings&);
  Sweep sweep = nullptr;
  switch (nxtyp) {
    case 0:
      if (s.nstyp != 1) {
        fail(kErrIllegalParameter, "Illegal value of parameter <nstyp> in (smoother)");
        return;
      }
      sweep = relx_gs;
      break;
    case 8:
      sweep = relx_f;
      break;
    case 1:
    case 2:
    case 3:
      fail(kErrNotAvailable, "ILU smoothing not available in this build (smoother)!");
      return;
    default:
      fail(kErrIllegalParameter, "Illegal value of parameter <nxtyp> in (smoother)");
      return;
  }

  if (std::max(prm().itracelevel, prm().itrace_smo) > 0) {
    std::string line = "smoother: ";
    line.append(nxtyp == 0 ? "relx_gs" : "relx_f").append(" level ").append(fmt_int(L.k));
    line.append(" nrx= ").append(fmt_int(list.nrx)).append(" nrlen= ").append(fmt_int(list.len));
    line.append(" nrtyp=");
    for (int j = 0; j < list.len; ++j) line.append(" ").append(fmt_int(list.typ[j]));
    if (list.nrx < 1 || list.len < 1) line += " NO SMOOTHING !?";
    print_line(0, 0, line);
  }

  for (int it = 1; it <= list.nrx; ++it) {
    for (int j = 0; j < list.len; ++j) {
      sweep(L, list.typ[j], do_cf, s);
      if (failed()) return;
    }
  }
}

}  // namespace kornlt
