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

}  // namespace kornlt
