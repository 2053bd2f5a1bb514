// Multi-pass interpolation of aggressive levels (pwint2_aa, threaded and
// serial): F-rows arise pass by pass, each taking the rows finished in
// earlier passes; wfinal puts them back in variable order.
#include <omp.h>

#include <algorithm>
#include <cstring>
#include <new>
#include <string>
#include <vector>

#include "control/threads.hpp"
#include "log/log.hpp"
#include "params/params.hpp"
#include "setup/interp_rows.hpp"
#include "setup/setup.hpp"

namespace kornlt {

using namespace interp;

namespace {

// The finished rows of the store: iw(r) over the completion-order rows.
Finished finished_rows(int r0) { return Finished{iw_origin(), jw_origin(), w_origin(), r0}; }

// One pass on one thread: the rows of the variables still to do, built in
// rising order. Returns the number of rows finished; `r` and `p` are the row
// counter and the free end of w, advanced.
template <bool kUnk>
int pass_serial(int k, const LevelData& L, const RowParams& rp, Markers& m, int& r, int& p) {
  int* iw = iw_origin();
  const int r0 = r;
  int done = 0;
  for (int i = L.ilo; i <= L.ihi; ++i) {
    if (L.icg[i] != kIcgMultipass) continue;
    const Finished f = finished_rows(r0);
    const int b = pw2_bound(L, f, i);
    if (!ensure_w(k, p + b - 1)) return done;
    const RowOut o = pw2_row<kUnk>(L, rp, finished_rows(r0), i, p, jw_origin(), w_origin(), m);
    if (!o.frow) continue;
    L.icg[i] = -r;
    ++r;
    p = o.end;
    iw = iw_origin();
    iw[r] = p;
    ++done;
  }
  return done;
}

// One thread's share of a threaded pass.
struct PassPart {
  Markers m;
  RowBuffer buf;
  RowBlock blk{1, 0};
  std::vector<int> rows;   // variables finished in this block, rising
  std::vector<int> start;  // local start of each, and the end behind the last
  int err = 0;
};

// One pass over static blocks. The rows of a pass read only rows of earlier
// passes, and icg is written only after the join, so the blocks are
// independent; the merge gives row numbers in rising variable order, as the
// serial pass does.
template <bool kUnk>
int pass_threaded(int k, const LevelData& L, const RowParams& rp, std::vector<PassPart>& parts, int& r, int& p) {
  const int r0 = r;
  const Finished f = finished_rows(r0);
  const int nthr = static_cast<int>(parts.size());
  int nused = 1;
#pragma omp parallel num_threads(nthr) if (nthr > 1)
  {
    const int t = omp_get_thread_num();
    const int nt = omp_get_num_threads();
    if (t == 0) nused = nt;
    PassPart& pt = parts[static_cast<std::size_t>(t)];
    pt.blk = static_block(L.ilo, L.ihi, t, nt);
    pt.rows.clear();
    pt.start.clear();
    try {
      int q = 1;
      for (int i = pt.blk.lo; i <= pt.blk.hi; ++i) {
        if (L.icg[i] != kIcgMultipass) continue;
        pt.buf.ensure(q + pw2_bound(L, f, i) - 1);
        const RowOut o = pw2_row<kUnk>(L, rp, f, i, q, pt.buf.jwo(), pt.buf.wo(), pt.m);
        if (!o.frow) continue;
        pt.rows.push_back(i);
        pt.start.push_back(q);
        q = o.end;
      }
      pt.start.push_back(q);
    } catch (const std::bad_alloc&) {
      pt.err = kErrAggressiveInterp;
    }
  }
  for (int t = 0; t < nused; ++t)
    if (parts[static_cast<std::size_t>(t)].err != 0) {
      fail(kErrAggressiveInterp, "Error during computation in (pwint2_aa)");
      return 0;
    }
  std::vector<int> rfirst(static_cast<std::size_t>(nused)), pfirst(static_cast<std::size_t>(nused));
  long long pe = p;
  int re = r;
  for (int t = 0; t < nused; ++t) {
    const PassPart& pt = parts[static_cast<std::size_t>(t)];
    rfirst[static_cast<std::size_t>(t)] = re;
    pfirst[static_cast<std::size_t>(t)] = static_cast<int>(pe);
    re += static_cast<int>(pt.rows.size());
    pe += pt.start.back() - 1;
  }
  if (pe - 1 > 2147483646LL) {
    fail(kErrDimension, "Cannot guarantee sufficient memory(1): <w> in (w_extent)");
    return 0;
  }
  if (!ensure_w(k, static_cast<int>(pe - 1))) return 0;
  int* iw = iw_origin();
  int* jwg = jw_origin();
  double* wg = w_origin();
#pragma omp parallel for schedule(static) num_threads(nused) if (nused > 1)
  for (int t = 0; t < nused; ++t) {
    PassPart& pt = parts[static_cast<std::size_t>(t)];
    const int off = pfirst[static_cast<std::size_t>(t)];
    const int len = pt.start.back() - 1;
    if (len > 0) {
      std::memcpy(jwg + off, pt.buf.jwo() + 1, sizeof(int) * static_cast<std::size_t>(len));
      std::memcpy(wg + off, pt.buf.wo() + 1, sizeof(double) * static_cast<std::size_t>(len));
    }
    int rr = rfirst[static_cast<std::size_t>(t)];
    for (std::size_t x = 0; x < pt.rows.size(); ++x, ++rr) {
      iw[rr] = off + pt.start[x] - 1;
      L.icg[pt.rows[x]] = -rr;
    }
  }
  const int done = re - r;
  r = re;
  p = static_cast<int>(pe);
  iw[r] = p;
  return done;
}

std::string attempt_line(int attempt, int passes, bool to_c, int count) {
  return "pwint_aa_s(4): attempt #" + fmt_int(attempt) + " failed!" + "  #passes=" + fmt_int(passes) +
         (to_c ? "  #vars->C=" : "  #vars->FF=") + fmt_int(count);
}

template <bool kUnk>
void multipass(const LevelView& Lv, const LevelData& L, const InterpSettings& s, const RowParams& rp,
               int ipass_max, int numtry, bool threaded, InterpResult& res) {
  const char* routine = threaded ? "pwint2_aa" : "pwint2_aa_serial";
  // Work arrays: one set of markers for the serial form, one per thread.
  std::vector<PassPart> parts;
  int nthr = 1;
  if (threaded) {
    nthr = thread_count();
    if (!use_threads(L.ilo, L.ihi, prm().nmin_matrix, nthr)) nthr = 1;
  }
  bool ok = !allocation_refused();
  if (ok) {
    try {
      parts.resize(static_cast<std::size_t>(nthr));
      ok = init_part_markers(parts, L.ilo, L.ihi);
    } catch (const std::bad_alloc&) {
      ok = false;
    }
  }
  if (!ok) {
    fail(kErrAllocation, std::string(threaded ? "Allocation failed for <ifg,ipatt,nflag_thread> in ("
                                              : "Allocation failed for <ifg,ipatt> in (") +
                             routine + ")");
    return;
  }
  int* iw = iw_origin();
  const int base = iw[L.ilo];
  const int nvars = L.nvars();
  bool ff_used = false;
  int r = L.ilo;
  for (int attempt = 1;; ++attempt) {
    res.attempts = attempt;
    // A fresh start: every non-C variable is to do (or outside).
    int nrem = 0, nc = 0;
    for (int i = L.ilo; i <= L.ihi; ++i) {
      const int g = L.icg[i];
      if (g > 0) {
        ++nc;
      } else if (g < 0) {
        if (L.nprim > 0 && L.iu[i] != L.nprim) {
          L.icg[i] = kIcgOutside;
        } else {
          L.icg[i] = kIcgMultipass;
          ++nrem;
        }
      }
    }
    r = L.ilo;
    int p = base;
    iw_origin()[r] = p;
    int passes = 0;
    while (nrem > 0) {
      ++passes;
      const int done = threaded ? pass_threaded<kUnk>(Lv.k, L, rp, parts, r, p)
                                : pass_serial<kUnk>(Lv.k, L, rp, parts[0].m, r, p);
      if (failed()) return;
      nrem -= done;
      if (done == 0 || passes >= ipass_max) break;
    }
    res.passes = passes;
    if (nrem == 0) break;
    // A failed attempt: the rest goes to C, or to FF for a retry.
    const double g = static_cast<double>(nrem + nc) / nvars;
    const bool to_c = g <= prm().gmax_multipass || ff_used;
    const int state = to_c ? static_cast<int>(kIcgC) : static_cast<int>(kIcgFF);
    for (int i = L.ilo; i <= L.ihi; ++i)
      if (L.icg[i] == kIcgMultipass) L.icg[i] = state;
    if (s.msg_level >= 0) print_message(kMsgInfo, 0, 0, attempt_line(attempt, passes, to_c, nrem));
    if (!to_c) {
      if (attempt >= numtry) warn(kWarnInterpolationRetried, "Due to new FF-vars new multipass attempt even if #numtry reached!");
      ff_used = true;
      continue;
    }
    if (attempt >= numtry) {
      warn(kWarnInterpolationRetried, "Max. number of multipass attempts reached! Just continuing!");
      break;
    }
  }
  wfinal(Lv.k, L.ilo, L.ihi, L.ilo, r - 1, Lv.icg);
}

InterpResult pw2_run(const LevelView& Lv, const InterpSettings& s, int ipass_max, int numtry, bool threaded) {
  InterpResult res;
  if (Lv.ihi < Lv.ilo) {
    fail(kErrFile, std::string("System error in routine (") + (threaded ? "pwint2_aa" : "pwint2_aa_serial") + ")");
    return res;
  }
  const LevelData L = level_data(Lv, s);
  const RowParams rp = row_params(s, 4, s.etr1);
  if (L.iu != nullptr) multipass<true>(Lv, L, s, rp, ipass_max, numtry, threaded, res);
  else multipass<false>(Lv, L, s, rp, ipass_max, numtry, threaded, res);
  if (failed()) return res;
  level_stats(L, res);
  if (s.msg_level >= 0)
    print_message(kMsgInfo, 0, 0,
                  "pwint_aa_s(4): gratio= " + fmt_fixed(res.gratio, "%6.4f") + " avrg wghts=" +
                      fmt_fixed(res.avg_weights, "%7.3f") + "  #att=" + fmt_int(res.attempts) +
                      " #passes=" + fmt_int(res.passes));
  return res;
}

}  // namespace

InterpResult pwint2_aa(const LevelView& L, const InterpSettings& s, int ipass_max, int numtry) {
  return pw2_run(L, s, ipass_max, numtry, true);
}
InterpResult pwint2_aa_serial(const LevelView& L, const InterpSettings& s, int ipass_max, int numtry) {
  return pw2_run(L, s, ipass_max, numtry, false);
}

}  // namespace kornlt
