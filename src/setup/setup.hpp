// Hierarchy setup: strength of connection and row sorting, coarse-point
// selection, interpolation, Galerkin coarse operators and the level driver.
#pragma once

#include <string_view>

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

}  // namespace kornlt
