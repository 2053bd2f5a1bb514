// The level driver: the coarsening plan from the encoded parameters
// (crsng_data), the level loop that adds one coarser level after another
// (create_levels), and the interpolation driver of one level (driver_int).
#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <string>

#include <omp.h>

#include "log/log.hpp"
#include "params/params.hpp"
#include "setup/setup.hpp"
#include "solve/solve.hpp"
#include "store/store.hpp"

namespace kornlt {

CoarseningPlan& coarsening_plan() {
  static CoarseningPlan plan;
  return plan;
}

namespace {

// "Illegal value of parameter <name      > in (crsng_data)!", name padded to ten.
void illegal_plan(std::string name) {
  name.resize(std::max<std::size_t>(name.size(), 10), ' ');
  fail(kErrIllegalParameter, "Illegal value of parameter <" + name + "> in (crsng_data)!");
}

int level_digit(int d) { return d == 9 ? 25 : d + 1; }

// Reports of the setup: the message level, or nothing with messages off.
int message_level() { return input().messages_on ? prm().mode_mess : -1; }

void say(const std::string& text) {
  if (message_level() >= 0) print_line(0, 0, text);
}

// A stop above nptmax rows hands the coarsest level to the emergency solver
// when the solver in force is one of the direct ones.
void emergency_solver(int n, int& nrc) {
  if (n > prm().nptmax && nrc > 5 && nrc < 12) nrc = prm().nrc_emergency;
}

// Wall time of the setup's phases, summed over the levels of one setup.
struct PhaseTimes {
  double row_sort = 0.0, selection = 0.0, interpolation = 0.0, galerkin = 0.0;
};
PhaseTimes& phase_times() {
  static PhaseTimes t;
  return t;
}
double now() { return omp_get_wtime(); }

// Why the level loop ended.
enum class Step { kGoOn, kStop, kError };

// Stop tests before and by the row sort of level l.
Step row_sort_stop(int l, int& nrc) {
  const Input& in = input();
  const Params& p = prm();
  const CoarseningPlan& c = coarsening_plan();
  const LevelView L = level_view(l);
  const int n = L.nrows();
  if (n <= in.nptmn) {
    say(">>> Coarsening stopped: low # variables");
    return Step::kStop;
  }
  const double nnz = static_cast<double>(L.ia(L.ihi + 1) - L.ia(L.ilo));
  if (nnz / (static_cast<double>(n) * n) >= p.densx && n <= p.nptmax) {
    say(">>> Coarsening stopped: high density");
    return Step::kStop;
  }
  if (in.internal != 0 || in.nprim != 0) {
    fail(kErrInconsistent, "Incorrect INTERNAL setting: nprim must be 0 for nstyp=1 !");
    return Step::kError;
  }
  const double t0 = now();
  const RowSortResult rs = rwsrt(L, c.ncgtyp, c.ecg1, c.ecg2, c.ewt1, c.ewt2, c.eps, message_level());
  phase_times().row_sort += now() - t0;
  if (failed()) return Step::kError;
  if (rs.diagdom || rs.nstrong < 1) {
    char line[120];
    if (rs.diagdom) {
      std::snprintf(line, sizeof line, ">>> Coarsening stopped: diagonal dominance, eps=%g", c.eps);
    } else {
      std::snprintf(line, sizeof line, ">>> Coarsening stopped: no strong connections");
    }
    say(line);
    emergency_solver(n, nrc);
    return Step::kStop;
  }
  return Step::kGoOn;
}

// Interpolation of level l (driver_int): the first build by the level's
// kind, the reduction test, the improvement sweeps.
Step driver_int(int l, bool aggressive, bool cluster, ReductionFlags& flags, int& nrc) {
  StoreState& st = store();
  const Input& in = input();
  const Params& p = prm();
  const CoarseningPlan& c = coarsening_plan();
  if (l == 1) {
    u_alloc(2, st.nnu, st.ndu);
    if (failed()) return Step::kError;
    w_alloc(st.ndw);
    if (failed()) return Step::kError;
    st.iw[0] = 1;
    ierr() = 0;
  }
  // Cluster levels (piecewise constant interpolation) cannot be formed in
  // this build; split refuses them before this point.
  const int nwtint1 = cluster ? 0 : (aggressive ? 4 : c.nwtint);
  if (nwtint1 == 0 || in.nint_weights != 1) {
    fail(kErrNotAvailable, "Requested type of interpolation not (yet) released");
    return Step::kError;
  }
  InterpSettings is;
  is.nwtint = nwtint1;
  is.ntrunc = c.ntrunc;
  is.etr1 = c.etr1;
  is.ewt2 = c.ewt2;
  is.nsys = 1;
  is.nstyp = 1;
  is.nprim = 0;
  is.msg_level = message_level();
  const bool threaded = p.ninter_omp == 1;
  const double t0 = now();
  InterpResult r;
  if (nwtint1 == 4) {
    int ipass_max = 0, numtry = 0;
    multipass_limits(aggressive, cluster, 0, ipass_max, numtry);
    r = threaded ? pwint2_aa(level_view(l), is, ipass_max, numtry)
                 : pwint2_aa_serial(level_view(l), is, ipass_max, numtry);
  } else {
    r = threaded ? pwint1_aa(level_view(l), is) : pwint1_aa_serial(level_view(l), is);
  }
  phase_times().interpolation += now() - t0;
  if (failed()) return Step::kError;
  if (reduction_test(l, r.gratio, "(driver_int_2)", flags)) {
    emergency_solver(level_view(l).nrows(), nrc);
    return Step::kStop;
  }
  if (l <= c.nwtlev) {
    const double t1 = now();
    for (int it = 0; it < c.nwtitr && !failed(); ++it) pwiter(level_view(l), is, c.iall, c.etr2);
    phase_times().interpolation += now() - t1;
    if (failed()) return Step::kError;
  }
  return Step::kGoOn;
}

}  // namespace

void crsng_data() {
  const Input& in = input();
  const Params& p = prm();
  CoarseningPlan& c = coarsening_plan();
  split_encoded(in.ecg, c.ecg1, c.ecg2);
  split_encoded(in.ewt, c.ewt1, c.ewt2);
  split_encoded(in.etr, c.etr1, c.etr2);
  std::array<int, 6> g{};
  idec(in.ncg, g);
  c.ncgtyp = g[0];
  c.nred = g[1];
  c.nlev_red = level_digit(g[2]);
  c.nxf_clean = g[3] == 0 ? 1 : g[3];
  c.npcol = g[4];
  std::array<int, 7> w{};
  idec(in.nwt, w);
  c.nwtint = w[0];
  c.nwtitr = w[1];
  c.nwtlev = level_digit(w[2]);
  c.iall = w[3];
  c.nbfit = w[5];
  c.ntrunc = in.ntr_type;
  c.galerkin_eps = in.trunc_threshold;
  c.eps = std::max(p.eps_dd, c.ecg1);

  if (c.ecg1 >= 1.0) return illegal_plan("ecg1");
  if (c.ecg2 >= 1.0) return illegal_plan("ecg2");
  if (c.ewt1 != 0.0 && c.ewt1 <= 1.0) return illegal_plan("ewt1");
  if (c.ncgtyp < 1 || c.ncgtyp > 5) return illegal_plan("ncgtyp");
  if (c.nred < 0 || c.nred > 8) return illegal_plan("nred");
  if (c.nxf_clean < 1 || c.nxf_clean > 2) return illegal_plan("nxf_clean");
  if (c.npcol < 0 || c.npcol > 2) return illegal_plan("npcol");
  if (c.nwtint < 1 || c.nwtint > 4) return illegal_plan("nwtint");
  if (c.iall < 0 || c.iall > 1) return illegal_plan("iall");
  if (c.nred == 5 || c.nred == 7) {
    Input& w_in = input();
    if (w_in.nint_weights == 1) {
      w_in.nint_pat = 1;
    } else if (w_in.nint_weights == 4) {
      w_in.nint_pat = 2;
    } else {
      print_message(kMsgWarning, 0, 0, "Piecewise constant interpolation only for versions AA and PP!");
      print_message(kMsgWarning, 0, 0, "<nint_weights> is reset to 1 (version AA)!");
      w_in.nint_weights = w_in.nint_pat = 1;
    }
  }

  if (message_level() < 0) return;
  char line[200];
  print_line(1, 0, "AMG setup information");
  print_line(0, 0, "=====================");
  print_line(0, 0, "Approach: variable-based. Details:");
  std::snprintf(line, sizeof line, "          strong couplings - ncgtyp=%d, ecg=(%g, %g), ewt=(%g, %g)", c.ncgtyp,
                c.ecg1, c.ecg2, c.ewt1, c.ewt2);
  print_line(0, 0, line);
  std::snprintf(line, sizeof line, "          strong couplings - coarsening %s (nred=%d up to level %d)",
                c.nred == 0 ? "standard" : (c.nred < 5 ? "aggressive" : "cluster"), c.nred, c.nlev_red);
  print_line(0, 0, line);
  static constexpr const char* kInterp[] = {"", "direct", "standard", "extended", "multi-pass"};
  std::snprintf(line, sizeof line, "          interpolation    - %s, truncation etr=(%g, %g), %d improvement sweep(s)",
                kInterp[c.nwtint], c.etr1, c.etr2, c.nwtitr);
  print_line(0, 0, line);
  if (c.galerkin_eps > 0.0) {
    std::snprintf(line, sizeof line, "Galerkin: truncation:        yes,  eps = %g", c.galerkin_eps);
    print_line(0, 0, line);
  } else {
    print_line(0, 0, "Galerkin: truncation:        no");
  }
  print_line(0, 0, "          block-diagonal:    no");
  print_line(0, 0, std::string("          product:           ") + std::string(opdfn_variant_name(in.nntyp_opdfn)));
}

void create_levels(int level_limit, int& nrc) {
  StoreState& st = store();
  const Input& in = input();
  const Params& p = prm();
  const CoarseningPlan& c = coarsening_plan();
  int levels_max = std::min(level_limit, p.max_level);
  if (levels_max > 24) levels_max = 25;
  int levels = std::max(levels_max, 1);
  ReductionFlags flags;
  phase_times() = PhaseTimes{};

  auto failure_exit = [&] {
    // Level 1 gets its diagonal slots back from the caller's pointers; the
    // coarse levels are dropped by the caller's cleanup.
    for (int i = 1; i <= st.nnu; ++i) st.ja1[st.ia1[i - 1] - 1] = i;
    st.levels = -1;
    if (std::max(p.itrace_amgmain, p.itracelevel) > 0)
      print_line(0, 0, "crsng - error_exit, nflag " + fmt_int(ierr()));
  };

  if (levels_max >= 2) {
    u_alloc(1, st.nnu, st.ndu);
    if (failed()) return failure_exit();
  }
  for (int k = 2; k <= levels_max; ++k) {
    const int l = k - 1;
    const bool reduced = c.nred != 0 && l <= c.nlev_red;
    const bool aggressive = reduced && c.nred < 5;
    const bool cluster = reduced && c.nred >= 5;
    if (aggressive) {
      say("creating level #" + fmt_int(k) + " using AGGRESSIVE A" + fmt_int(c.nred) + "-COARSENING");
    } else if (cluster) {
      say("creating level #" + fmt_int(k) + " using CLUSTER COARSENING (nred=" + fmt_int(c.nred) + ")");
    } else {
      say("creating level #" + fmt_int(k) + " using STANDARD COARSENING");
    }
    flags.inefficient_armed = message_level() >= 0;

    Step step = row_sort_stop(l, nrc);
    if (step == Step::kError) return failure_exit();
    if (step == Step::kStop) {
      levels = l;
      break;
    }

    SplitSettings ss;
    ss.aggressive = aggressive;
    ss.cluster = cluster;
    ss.npcol = c.npcol;
    ss.nred = c.nred;
    ss.nxf_clean = c.nxf_clean;
    ss.nptmn = in.nptmn;
    ss.msg_level = message_level();
    ss.nrc = nrc;
    ss.flags = &flags;
    double t0 = now();
    const SplitResult sr = split(level_view(l), ss);
    phase_times().selection += now() - t0;
    if (failed()) return failure_exit();
    nrc = sr.nrc;
    if (sr.stop) {
      levels = l;
      break;
    }

    step = driver_int(l, sr.aggressive, cluster, flags, nrc);
    if (step == Step::kError) return failure_exit();
    if (step == Step::kStop) {
      levels = l;
      break;
    }

    t0 = now();
    prepare_opdfn(k);
    if (failed()) return failure_exit();
    galerkin(k, galerkin_settings());
    phase_times().galerkin += now() - t0;
    if (failed()) return failure_exit();
  }

  // The last level's diagonal slots (the others were restored by the
  // operator preparation).
  restore_diagonals(level_view(levels));
  st.levels = levels;
  if (levels == 1) {
    st.imin[1] = 1;
    st.imax[1] = st.nnu;
    st.nnu_all = st.nnu;
    st.nna_all = st.nna;
    return;
  }
  u_extent(levels);
  if (failed()) return failure_exit();
  const LevelView Lc = level_view(levels);
  st.nnu_all = Lc.ihi;
  st.nna_all = Lc.ia(Lc.ihi + 1) - 1;
  if (Lc.nrows() - 1 >= p.nptmax && nrc > 5 && nrc < 12) nrc = p.nrc_emergency;
}

HierarchyStats hierarchy_stats() {
  const StoreState& st = store();
  HierarchyStats h;
  h.levels = std::max(st.levels, 1);
  std::int64_t rows = 0, entries = 0;
  for (int k = 1; k <= h.levels; ++k) {
    const LevelView L = level_view(k);
    h.rows.push_back(L.nrows());
    h.entries.push_back(L.ia(L.ihi + 1) - L.ia(L.ilo));
    rows += h.rows.back();
    entries += h.entries.back();
  }
  if (h.levels > 1 && !st.iw.empty()) h.interp_entries = st.iw[static_cast<std::size_t>(st.imax[static_cast<std::size_t>(h.levels - 1)])] - 1;
  h.grid_complexity = static_cast<double>(rows) / h.rows.front();
  h.operator_complexity = static_cast<double>(entries) / static_cast<double>(h.entries.front());
  return h;
}

void print_hierarchy_summary() {
  const HierarchyStats h = hierarchy_stats();
  char line[200];
  print_line(1, 0, "AMG hierarchy");
  print_line(0, 0, "=============");
  print_line(0, 0, " level        rows       entries   avg/row");
  for (int k = 1; k <= h.levels; ++k) {
    const std::size_t i = static_cast<std::size_t>(k - 1);
    std::snprintf(line, sizeof line, " %5d %11d %13lld %9.2f", k, h.rows[i], static_cast<long long>(h.entries[i]),
                  static_cast<double>(h.entries[i]) / std::max(h.rows[i], 1));
    print_line(0, 0, line);
  }
  const double fine_rows = h.levels > 1 ? static_cast<double>(store().imax[static_cast<std::size_t>(h.levels - 1)]) : 1.0;
  std::snprintf(line, sizeof line,
                " operator complexity: %.3f   grid complexity: %.3f   interpolation: %.2f weights per row",
                h.operator_complexity, h.grid_complexity, static_cast<double>(h.interp_entries) / fine_rows);
  print_line(0, 0, line);
  const PhaseTimes& t = phase_times();
  std::snprintf(line, sizeof line,
                " setup phases (s): row sort %.3f   coarse selection %.3f   interpolation %.3f   Galerkin %.3f",
                t.row_sort, t.selection, t.interpolation, t.galerkin);
  print_line(0, 0, line);
}

}  // namespace kornlt
