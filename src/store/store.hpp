// The hierarchy store: all levels in one 1-based index space. Level 1 is the
// caller's own arrays; coarse levels continue them in library-owned arrays.
#pragma once

#include <array>
#include <cassert>
#include <cstdint>
#include <vector>

namespace kornlt {

// A view of a 1-based array over the global index range lo..hi:
// v(i) reads data[i - lo]. Debug builds check the bounds.
template <class T>
class Vec1 {
 public:
  Vec1() = default;
  Vec1(T* data, int lo, int hi) : p_(data), lo_(lo), hi_(hi) {}
  T& operator()(int i) const {
    assert(i >= lo_ && i <= hi_);
    return p_[i - lo_];
  }
  int lo() const { return lo_; }
  int hi() const { return hi_; }
  bool empty() const { return p_ == nullptr || hi_ < lo_; }
  // Pointer p with p[i] == (*this)(i) for lo <= i <= hi, for hot loops.
  // Only ever indexed inside lo..hi.
  T* origin() const { return p_ - lo_; }

 private:
  T* p_ = nullptr;
  int lo_ = 1, hi_ = 0;
};

// One level's slice of the stacked arrays, addressed by global indices.
// Row i (ilo <= i <= ihi) holds entries ia(i)..ia(i+1)-1 of ja and a; the
// first is the diagonal. Column indices lie in ilo..ihi.
struct LevelView {
  int k = 1;           // level number
  int ilo = 1, ihi = 0;
  Vec1<int> ia;        // ilo..ihi+1
  Vec1<int> ja;        // ia(ilo)..ia(ihi+1)-1
  Vec1<double> a;      // ia(ilo)..ia(ihi+1)-1
  Vec1<double> u;      // ilo..ihi
  Vec1<double> f;      // ilo..ihi
  Vec1<int> icg;       // ilo..ihi; empty on a level without C/F splitting
  int nrows() const { return ihi - ilo + 1; }
};

// Builds the view of a caller's level-1 CSR matrix with nnu rows.
inline LevelView level1_view(int nnu, int* ia, int* ja, double* a, double* u, double* f) {
  LevelView L;
  L.k = 1;
  L.ilo = 1;
  L.ihi = nnu;
  L.ia = Vec1<int>(ia, 1, nnu + 1);
  const int nna = ia[nnu] - 1;
  L.ja = Vec1<int>(ja, 1, nna);
  L.a = Vec1<double>(a, 1, nna);
  L.u = Vec1<double>(u, 1, nnu);
  L.f = Vec1<double>(f, 1, nnu);
  return L;
}

inline constexpr int kMaxLevels = 25;

// ---------------------------------------------------------------------------
// Process-wide store state: level bounds, dimensions, memory counters.
// ---------------------------------------------------------------------------
struct StoreState {
  // Level bounds, indexed 1..kMaxLevels (element 0 unused).
  std::array<int, kMaxLevels + 1> imin{}, imax{}, ipmin{}, ipmax{};
  int levels = 0;
  int levels_done = 0;  // 0 before a setup, -1 after a failed one

  // Upper bounds of the stacked arrays.
  int nda = 0, ndu = 0, ndw = 0, ndv = 0;
  int nnu_all = 0, nna_all = 0;

  // Memory counters in elements; the watermark is memd + memi / int_per_real.
  std::int64_t memi = 0, memd = 0, memi_p = 0, memd_p = 0;
  std::int64_t maxeff = 0, maxcyc = 0;
  int int_per_real = 2;
  std::int64_t watermark() const { return memd + memi / int_per_real; }
};
StoreState& store();

// Dimensions of the stacked arrays from the problem size and complexity
// limits. `one_level`: no hierarchy will be built. Errors set ierr.
struct DimensionArgs {
  int nna, nnu, nsys, npnts;
  double a_cmplx, g_cmplx, w_avrge, p_cmplx;
  int run_mode_digit;
  bool one_level;
};
void korn_dimensions(const DimensionArgs& d);

// The matrix-format contract of a level-1 matrix: row pointers, column range,
// no duplicate columns, a positive diagonal first in each row. Prints every
// finding and sets ierr 40 on the first failure. `half`: only the lower
// triangle is stored.
void logical_check(int nnu, int nna, const int* ia, const int* ja, const double* a, bool half);

// A lower-triangle matrix expanded to full storage (diagonal first), owned
// by the library while a call runs on it.
struct ExpandedMatrix {
  std::vector<int> ia, ja;  // 1-based content: ia has nnu+1 values
  std::vector<double> a;
  bool valid = false;
};
ExpandedMatrix& expanded_matrix();
// Expands the lower triangle (diagonal included) of a half-stored matrix.
void extend_matrix(int nnu, const int* ia, const int* ja, const double* a);
void release_expanded_matrix();

// Symmetry and row-sum measures against what `matrix` claims (chktol > 0).
void additional_checks(int nnu, const int* ia, const int* ja, const double* a, double chktol, int isym,
                       int irow0);

}  // namespace kornlt
