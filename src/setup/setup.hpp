// Hierarchy setup: strength of connection and row sorting, coarse-point
// selection, interpolation, Galerkin coarse operators and the level driver.
#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

#include "store/store.hpp"

namespace kornlt {

// ===========================================================================
// Strength of connection and row sorting
// ===========================================================================

// Splits an encoded real (`ecg`, `ewt`, `etr`) into its two numbers. With
// x = |value|, integer part p and fraction q: second = q (rounded to 12
// decimals, so that 12.2 gives 0.2); first = p when p < 10, and for two
// digits d1 d2 first = d2 * 10^(-d1). 21.25 -> (0.01, 0.25), 0.2 -> (0, 0.2),
// 12.2 -> (0.2, 0.2).
void split_encoded(double value, double& first, double& second);

// What rwsrt reports back: the strong couplings of the level, the
// diagonal-dominance flag of the stop test, and the row counts of its report.
struct RowSortResult {
  std::int64_t nstrong = 0;  // sum over rows of ja(ia(i)) - ia(i) where positive
  bool diagdom = false;      // every row with off-diagonals has S <= eps * a_ii
  int ndirichlet = 0;        // rows without off-diagonals
  int nstrong_dd = 0;        // S <= ecg1 * a_ii
  int nviolating = 0;        // S > ewt1 * |a_ii| (ewt1 0: 1e+70)
  int nnonpos_diag = 0;      // a_ii <= 0
  int nonly_pos = 0;         // rows left without negative couplings
  int nelim = 0;             // rows with positive elimination (types 3..5)
  int nelim_ineffective = 0; //   of these: the plain test would have chosen the same
  int nelim_failed = 0;      //   of these: no negative coupling survived
  int nlarge_weak = 0;       // rows holding a weak coupling above ecg2 * |head|;
                             // counted only for the report (msg_level >= 0, !diagdom)
};

// Strength of connection and row sorting of one level. For every row i of L
// decides the strong couplings and reorders the row in place (a and ja
// together): diagonal, the strongest coupling at ia(i)+1, the other strong
// ones up to ja(ia(i)), the weak ones behind. ja(ia(i)) becomes the strong
// end (see strong_end): ia(i) for none, 0 for a row that cannot be treated
// normally. ncgtyp 1..5 selects the handling of positive couplings (1, 2
// plain test; 3, 4, 5 positive elimination, lowered to 1, 1, 2 when ewt2 is
// 0). eps: diagonal-dominance stop level (diagdom starts true only for
// eps < 1). msg_level >= 0 writes the report lines.
// Errors: 20 illegal ncgtyp, 70 allocation; then ja(ia(i)) = i on the level.
RowSortResult rwsrt(const LevelView& L, int ncgtyp, double ecg1, double ecg2, double ewt1, double ewt2,
                    double eps, int msg_level);

// Test hook: the next allocation of rwsrt's work arrays fails.
void rwsrt_fail_next_allocation();

// ===========================================================================
// Coarse-point selection
// ===========================================================================

// The C/F split of a level. States in icg (see IcgState): 1 C, -1 F (a strong
// C neighbour when decided), -2 undecided (what is left counts as F, "XF"),
// -3 C turned F by aggressive coarsening, 0 FF, kIcgOutside not taking part.
// S_i, the strong couplings of row i, stand at ia(i)+1 .. ja(ia(i)) (the
// strong end left by the row sort); S^T_j = { i : j in S_i }.

// Counters of one selection.
struct SelectionCounts {
  int nvars = 0;  // variables taking part (all rows, or those of unknown nprim)
  int nc = 0;     // C-variables, FC included
  int nf = 0;     // F-variables, XF included, FF not
  int nff = 0;    // forced fine (icg 0)
  int nxf = 0;    // left undecided (-2) and counted as F
  int nfc = 0;    // C-variables before the selection (rows violating diagonal dominance)
  int nsw = 0;    // XF -> C switches of the cleaning
};

struct PcolSettings {
  int nprim = 0;        // > 0: only variables with iu(i) = nprim take part
  Vec1<int> iu;         // variable-to-unknown map over ilo..ihi (may be empty for nprim 0)
  int nxf_clean = 1;    // cleaning of what stays undecided: 1 C unless a strong F
                        // neighbour, 2 always C; else error 120
  int msg_level = 0;    // >= 0: report lines
  int par_levels = 3;   // levels 1..par_levels may use the thread-parallel selection
};

// C/F selection of level L.k into L.icg; sets the counters. ja(ia(i)) must
// hold strong ends; it is left as found (on an error: ja(ia(i)) = i).
// Variant by icolor_omp with T threads (T = thread_count(), 1 for fewer rows):
// 1, 2, 3, 4 with T > 1 and 5 always, on levels up to par_levels: the block
// variant pcol_parallel (3, 4 included: its first phase runs the serial
// selection per thread block); otherwise pcol_serial.
// Errors: 120 illegal nxf_clean, 70 allocation, 1 nprim > 0 without iu.
SelectionCounts pcol(const LevelView& L, const PcolSettings& s);
// The serial selection: measures lambda(j) = |S^T_j| raised by 1 for each
// neighbour turned F and lowered by 1 for each turned C, buckets of doubly
// linked circular lists, largest measure first; within a measure the variable
// moved or inserted last, initially the highest index. Constant time per
// selection and per measure update.
SelectionCounts pcol_serial(const LevelView& L, const PcolSettings& s);
// The block-parallel selection over nthreads static row blocks (see
// coarsen.cpp): same states, counters and C/F rules as the serial one; the
// result depends only on the input and nthreads, never on timing. With
// nthreads 1 it equals pcol_serial.
SelectionCounts pcol_parallel(const LevelView& L, const PcolSettings& s, int nthreads);

// C-forcing, npcol 0 off, 1 factor 1.0, 2 factor 0.75: each F-variable i
// (icg < 0, not kIcgOutside), in rising order, becomes C when
// factor * a_ii < sum |a_ij| over its off-diagonals with icg(j) < 0 at that
// moment. nc, nf corrected. Returns the count. Error 20 for another npcol.
int cforce(const LevelView& L, int npcol, int& nc, int& nf, int msg_level);

// The reduced graph of aggressive coarsening over the C-variables 1..nc:
// row c (positions iaa(c) .. iaa(c+1)-1, 1-based) has its strong end in
// jaa(iaa(c)) (last link position, 0 for none) and the linked C indices
// behind it.
struct ReducedGraph {
  int nc = 0;
  std::vector<int> iaa;   // nc+1 values, iaa[c-1] = iaa(c)
  std::vector<int> jaa;   // jaa[p-1] = jaa(p)
  std::vector<int> cvar;  // cvar[c-1] = fine index of C-variable c
  int nlinks = 0;
};
// Builds the reduced graph from L with icg(i) = c for the C-variables
// (numbered 1..nc in rising order) and icg <= 0 otherwise: C-variable i links
// to C-variable l when l is in S_i, or when nred paths i -> j -> l (j in S_i,
// l in S_j, l != i) exist. Two sweeps (count, fill) over nthreads row blocks
// with private counters. Errors: 70 allocation, 110 sweeps disagree.
bool build_reduced_graph(const LevelView& L, int nc, int nred, int nthreads, ReducedGraph& g);
// The selection on a reduced graph (pcol steps 2..9; rows without links
// become C) into icgg (nc values, icgg[c-1]). nthreads > 1: block variant.
// Errors: 120 no links at all ("No strong connections found (rcol)"), 120
// illegal nxf_clean, 70 allocation.
SelectionCounts rcol(const ReducedGraph& g, std::vector<int>& icgg, int nxf_clean, int nthreads);

struct ReduceSettings {
  int nred = 1;         // paths of length two that make a link (1..4)
  int nxf_clean = 1;
  int nvars = 0;        // variables of the level taking part (for the ratio)
  int msg_level = 0;
  int par_levels = 3;
};
// Aggressive coarsening after pcol: the C-variables are coarsened again on
// the reduced graph; those turned F get icg -3 (nc falls, nf rises), the
// others keep 1. aggressive becomes false when skipped (nc < 6), when the
// graph has no links, or when nothing changed. Threads: icolor_omp 2, 5 build
// the graph in parallel, icolor_omp 1 runs rcol's block variant (levels up
// to par_levels, more than one thread). Errors 70, 110, 120.
void reduce(const LevelView& L, const ReduceSettings& s, int& nc, int& nf, bool& aggressive);

// The level loop's flags for the reduction test.
struct ReductionFlags {
  bool one_shot_stop = false;      // stop once (end of a cluster file)
  bool inefficient_armed = false;  // "Inefficient coarsening!" may still be said on this
                                   // level; the loop arms it per level (message level >= 0)
};
// Reduction test of a level's grid ratio r = coarse/fine. True: stop. Stops
// on the one-shot flag, at level lev_coarsening_too_slow, and for
// r >= term_coarsening (ierr -130 "Coarsening terminated: inefficient grid
// reduction!"); r >= slow_coarsening alone says "Inefficient coarsening!"
// once per level. tag: "(split_3)", "(driver_int_2)".
bool reduction_test(int level, double r, std::string_view tag, ReductionFlags& flags);

struct SplitSettings {
  bool aggressive = false, cluster = false;  // the level's flags
  int npcol = 0, nred = 0, nxf_clean = 1;
  int nptmn = 100, nsys = 1, nstyp = 1, nprim = 0, internal = 0;
  Vec1<int> iu;            // for nprim > 0
  int msg_level = 0;
  int nrc = 7;             // coarsest-level solver code in force
  int par_levels = 3;
  ReductionFlags* flags = nullptr;  // the level loop's flags; null: armed, local
};
struct SplitResult {
  bool stop = false;       // end the hierarchy at this level
  int nc = 0, nf = 0;
  bool aggressive = false; // the level's flag after reduce (false when skipped)
  int nrc = 7;             // nrc_emergency on a stop of a level above nptmax
                           // rows with nrc 6..11; else unchanged
  SelectionCounts counts;  // of pcol
};
// Coarse-point selection of one level: pcol, reduce on an aggressive level,
// cforce, then the checks (fewer than 3 C or F variables, low # C-variables,
// the reduction test "(split_3)"). Cluster levels: error 80 (not in this
// build). Errors as the routines; 20 for internal != 0 or nstyp != 1.
SplitResult split(const LevelView& L, const SplitSettings& s);

// Test hook: the next allocation of a selection's work arrays fails.
void coarsen_fail_next_allocation();

// ===========================================================================
// Interpolation
// ===========================================================================
// Rows of interpolation of one level, written to the store: iw(i) for the
// level's rows ilo..ihi and iw(ihi+1) the end (stacked numbering as ia; the
// caller sets iw(ilo), iw(1) = 1 on the first level), jw with FINE indices
// of C-variables, w the weights. A C-variable has the unit row (itself, 1.0),
// an FF-variable (icg 0) an empty row. ja(ia(i)) must hold the strong ends of
// the row sort; they are left in place.

// What the level driver passes down to the interpolation routines.
struct InterpSettings {
  int nwtint = 2;      // pwint1_aa: 1 direct, 2 standard, 3 extended
  int ntrunc = 1;      // truncation: < 1 none, 1 one threshold for both signs, 2 one per sign
  double etr1 = 0.2;   // truncation threshold of the first build (first number of etr)
  double ewt2 = 0.2;   // extended: a weak entry a_ik > ewt2 * |a(ia(i)+1)| is eliminated
  int nsys = 1, nstyp = 1;
  int nprim = 0;       // > 0: only variables of this unknown get rows
  Vec1<int> iu;        // variable-to-unknown map over ilo..ihi; needed for nprim > 0 or nstyp > 1
  int msg_level = 0;   // >= 0: report lines
};

struct InterpResult {
  double gratio = 0.0;       // nc / nvars after the interpolation (F->C changes included)
  int nc = 0;                // C-variables of the level
  int nconverted = 0;        // F-variables turned C ("#vars->C=")
  double avg_weights = 0.0;  // average length of the F-rows
  int attempts = 0, passes = 0;  // multi-pass: attempts made, passes of the last attempt
};

// Direct, standard and extended interpolation (nwtint 1, 2, 3). A variable
// whose reduced diagonal is lost becomes C (direct first retries with
// substitution). Thread-parallel (ninter_omp 1): static row blocks with
// private markers and storage, merged in block order; conversions found in
// the blocks are replayed serially in rising order, so the result is the
// serial one bit for bit. Errors: 140 illegal nwtint, 70 allocation, 72 a
// block failed, 100 no rows, 10/60 growth of w.
InterpResult pwint1_aa(const LevelView& L, const InterpSettings& s);
InterpResult pwint1_aa_serial(const LevelView& L, const InterpSettings& s);

// Multi-pass interpolation of an aggressive level: passes over the
// F-variables, each row taking finished rows of earlier passes, at most
// ipass_max passes per attempt and numtry attempts (warnings -140). Rows are
// built in completion order and put back in variable order by wfinal.
InterpResult pwint2_aa(const LevelView& L, const InterpSettings& s, int ipass_max, int numtry);
InterpResult pwint2_aa_serial(const LevelView& L, const InterpSettings& s, int ipass_max, int numtry);

// Passes and attempts of the multi-pass: ipass_max 5 when nint_force is 1,
// else 4 on an aggressive level and 2 (+1 on a cluster level) otherwise;
// positive ipass_max_set / numtry_max_set replace them; numtry default 2.
void multipass_limits(bool aggressive, bool cluster, int nint_force, int& ipass_max, int& numtry);

// One improvement sweep: each F-row is rebuilt with its F-neighbours (strong
// ones, all for iall 1) replaced by their current interpolation rows, then
// truncated with etr2 (s.etr1 is not used). Errors 140, 70.
void pwiter(const LevelView& L, const InterpSettings& s, int iall, double etr2);

// Puts rows built in completion order (rows rfirst..rlast, F-variable i
// holding icg(i) = -r) back in variable order from iw(rfirst) on: C unit
// rows, finished F-rows (icg then -1), empty rows for the rest (FF, outside).
// icg is the level's view over ilo..ihi. Errors 70, 10/60.
void wfinal(int k, int ilo, int ihi, int rfirst, int rlast, const Vec1<int>& icg);

// Growth of w, jw: makes positions up to pos + |n| addressable, keeping
// 1..pos. n < 0 asks for exactly |n|; n >= 0 for at least n, growing by
// half the array at least. Counts memi, memd, cnt_w; ndw follows. Errors:
// 10 growth switched off (iextent 0) or beyond ihuge, 60 growth failed.
void w_extent(int k, int n, int pos);

// The transpose of one level's interpolation, used as restriction: one row
// per coarse variable iclo..ichi, entries in rising fine row.
struct Transpose {
  int iclo = 1, ichi = 0;    // coarse variables (rows of the transpose)
  std::vector<int> iwt;      // ichi-iclo+2 values: row ic holds positions
                             // iwt[ic-iclo] .. iwt[ic-iclo+1]-1 (1-based) of jwt, wt
  std::vector<int> jwt;      // fine row (global index)
  std::vector<double> wt;    // weight
  // Entry (position p, 1-based) accessors.
  int row_begin(int ic) const { return iwt[static_cast<std::size_t>(ic - iclo)]; }
  int row_end(int ic) const { return iwt[static_cast<std::size_t>(ic - iclo + 1)]; }
};
// Builds t from rows ilo..ihi of iw, jw, w with jw in COARSE indices
// iclo..ichi (as after operator preparation). Threaded (nmin_matrix) and
// independent of timing. Errors: 70 allocation.
void build_transpose(Transpose& t, int ilo, int ihi, int iclo, int ichi, const Vec1<int>& iw,
                     const Vec1<int>& jw, const Vec1<double>& w);
// The same for level k of the store (fine rows imin(k)..imax(k), coarse
// imin(k+1)..imax(k+1)).
void build_transpose_level(Transpose& t, int k);

// Test hook: the next allocation of the interpolation's work arrays fails.
void interp_fail_next_allocation();

// ===========================================================================
// The level driver
// ===========================================================================

// The coarsening plan: the encoded parameters (ecg, ewt, etr, ncg, nwt, ntr)
// taken apart once per setup by crsng_data and read by every level.
struct CoarseningPlan {
  double ecg1 = 0.0, ecg2 = 0.0;  // strength threshold; weak-coupling report level
  double ewt1 = 0.0, ewt2 = 0.0;  // positive-coupling thresholds
  double etr1 = 0.0, etr2 = 0.0;  // truncation of the first build; of improvement sweeps
  int ncgtyp = 1;                 // handling of positive couplings (1..5)
  int nred = 0;                   // 0 standard, 1..4 aggressive paths, 5..8 cluster
  int nlev_red = 1;               // last level on which nred acts
  int nxf_clean = 1;              // cleaning option of the selection
  int npcol = 0;                  // C-forcing
  int nwtint = 2;                 // interpolation type
  int nwtitr = 0;                 // improvement sweeps of the interpolation
  int nwtlev = 1;                 // last level of the improvement sweeps
  int iall = 0;                   // improvement replaces all F-neighbours (1) or strong ones
  int nbfit = 0;                  // best-fit digit
  int ntrunc = 1;                 // interpolation truncation rule
  double galerkin_eps = 0.0;      // Galerkin truncation threshold (0: none)
  double eps = 0.9;               // diagonal-dominance stop level: max(eps_dd, ecg1)
};
CoarseningPlan& coarsening_plan();

// Decodes the plan from the working input and checks it ("Illegal value of
// parameter <name      > in (crsng_data)!", error 20). With the message
// level not negative, writes the plan.
void crsng_data();

// Builds levels 2.. on level 1 bound in the store (korn_dimensions and
// bind_level1 done): row sort, split, interpolation and Galerkin operator per
// level until a stop rule fires or the level limit (the smaller of
// level_limit and max_level) is reached. Sets store().levels, imin/imax of
// every level, nnu_all and nna_all, and may replace nrc by nrc_emergency.
// Leaves ja(ia(i)) = i on every level, also after an error.
void create_levels(int level_limit, int& nrc);

// The hierarchy summary: per level rows, entries and average row length,
// then the operator, grid and interpolation complexities.
struct HierarchyStats {
  int levels = 0;
  std::vector<int> rows;                // per level
  std::vector<std::int64_t> entries;    // per level
  std::int64_t interp_entries = 0;      // entries of all interpolation rows
  double operator_complexity = 0.0;     // sum of entries / level-1 entries
  double grid_complexity = 0.0;         // sum of rows / level-1 rows
};
HierarchyStats hierarchy_stats();
void print_hierarchy_summary();

// ===========================================================================
// Galerkin coarse operators
// ===========================================================================
// The coarse operator A_c = P^T A P of level k from the matrix of level k-1
// and its interpolation (iw, jw, w). Coarse rows are stacked behind the fine
// level's rows; every coarse row starts with its diagonal. A fine level k-1 =
// 1 is read from the caller's arrays, all others from the stacked arrays.

// Numbers level k: imin(k) = imax(k-1)+1, imax(k) = imin(k)-1 + #C. On k = 2
// first allocates iu/ip, a/ja (nna+1..nda) and the stacked ia, with stacked
// ia(nnu+1) = the caller's ia(nnu+1); then makes the arrays hold imax(k).
// Restores ja(ia(i)) = i on level k-1, gives each C-variable (icg > 0) its
// coarse index in rising i, and rewrites jw of level k-1 to coarse indices.
// Errors: 70 allocation, 10/60 growth.
void prepare_opdfn(int k);

// Settings of one Galerkin step; galerkin_settings() reads them from the
// registry and the decoded input.
struct GalerkinSettings {
  // Variant (nntyp_opdfn):
  //  1   opdfn              "standard": serial, one coarse row at a time,
  //                         a grows in place when a row may not fit
  //  2   opdfn_detrlen      "determination of row lengths": serial symbolic
  //                         sweep for exact row lengths, one growth, numeric sweep
  //  3   opdfn_detrlen_mg   "determination of row lengths + splitting": as 2
  //  4   opdfn_dynalloc     "dynamic parallel memory management": threaded,
  //                         private storage per block of coarse rows, one
  //                         growth, copy in block order
  //  5   opdfn_dynalloc_mg  "dynamic parallel memory management + splitting": as 4
  //  6   modset             "dynamic memory management using lists": as 4
  // All variants give the same rows, entries and entry order, bit for bit.
  int nntyp = 1;
  bool mult_zeros = false;   // glk_mult_zeros: zero products stay in the pattern
  int neg_diag = 20;         // most bad rows corrected; negative: no correction
  int neg_diag_brute = 20;   // most bad rows for which correct_f is tried
  int maxop_restart = 2;     // restarts allowed with correct_f
  int dump_correctw = 0;     // != 0 (and msg_level >= 1): bad rows to "temp.crw"
  double trunc_eps = 0.0;    // Galerkin truncation eps (ntr digits 2, 3); 0: none
  bool symmetric = true;     // matrix stored symmetrically (isym 1): truncation
                             // keeps the pattern symmetric
  int msg_level = 0;         // >= 0: report lines
  bool trace = false;        // trace lines of correct_w
  bool timer = false;        // galerkin_timer: the variant's report line
};
GalerkinSettings galerkin_settings();

// The name a variant is reported as ("standard", ...); "" for another code.
std::string_view opdfn_variant_name(int nntyp);

struct GalerkinResult {
  int nrows = 0;        // coarse rows
  int nentries = 0;     // entries of the coarse level (after truncation)
  int nbad = 0;         // non-positive diagonals left
  int nbad_first = 0;   // non-positive diagonals of the first product
  int restarts = 0;     // products run again after a correction
  int ncorrect_f = 0;   // correct_f runs
  int ncorrect_w = 0;   // correct_w runs
  int nremoved = 0;     // entries removed by the truncation
};

// The coarse operator of level k after prepare_opdfn (jw in coarse indices):
// the product by s.nntyp, the repair of non-positive diagonals (correct_f /
// correct_w with restarts, warnings -153, -154), then the truncation when
// s.trunc_eps > 0. Restarts rewind a to ia(imin(k)). Errors: 70 allocation,
// 10/60 growth, 100 file of bad rows, 152 truncation.
GalerkinResult galerkin(int k, const GalerkinSettings& s);

// Run mode 3: the coarse operators of levels 2..levels recomputed from the
// (new) level-1 matrix with the kept interpolation and numbering.
void recompute_coarse_operators(int levels, const GalerkinSettings& s);

// Run mode 2: the kept coarse levels re-anchored behind the level-1 operator
// bound for this call: stacked ia(nnu+1) becomes the caller's ia(nnu+1), and
// when the number of level-1 entries changed, every stacked row pointer of
// levels 2..levels (and nda, nna_all) moves by the difference. The coarse
// entries themselves stay.
void opdfn_mov(int levels);

// The product alone (no repair, no truncation). nbad counts coarse rows with
// a non-positive diagonal; the first min(nbad, neg_diag) of them (rising)
// are listed in bad.
struct ProductResult {
  int nbad = 0;
  std::vector<int> bad;
};
ProductResult opdfn_product(int k, int nntyp, bool mult_zeros, int neg_diag);

// Corrections of the interpolation of level k-1 for the bad coarse rows c:
// correct_f removes c from the F-rows interpolating from it (other weights
// scaled to keep the row sum; rows interpolating only from c stay);
// correct_w scales column c of P on the F-rows so that the coarse diagonal
// m t^2 + s t + d becomes positive, and with row_scaling the other weights
// of each changed row keep its sum. restart is the number reported.
// Errors: 70 allocation.
void correct_f(int k, const std::vector<int>& bad, int msg_level);
void correct_w(int k, const std::vector<int>& bad, bool row_scaling, int restart, bool trace, int msg_level);

// Truncation of level k: off-diagonal entries with |a_cl| <= a_cc * eps (a_cc
// as left by the product) are lumped into the diagonal and removed, rows
// compacted in place. symmetric: an entry and its transposed partner go
// together (error 152 when the partner is missing). A non-positive diagonal
// afterwards is error 152. Returns the number of entries removed.
int galerkin_truncation(int k, double eps, bool symmetric, int msg_level);

// Test hook: the next allocation of the Galerkin work arrays fails.
void galerkin_fail_next_allocation();

}  // namespace kornlt
