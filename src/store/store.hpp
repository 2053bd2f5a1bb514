// The hierarchy store: all levels in one 1-based index space. Level 1 is the
// caller's own arrays; coarse levels continue them in library-owned arrays.
#pragma once

#include <algorithm>
#include <array>
#include <cassert>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <new>
#include <type_traits>
#include <utility>
#include <vector>

namespace kornlt {

// A growable array of a trivially copyable type on malloc/realloc. Growth
// keeps the content in place or lets the allocator move whole pages (large
// blocks are remapped, not copied), and new elements are left unset: the
// stacked matrix arrays grow level by level during setup, and copying all
// levels below at every growth, then touching fresh pages for the copy,
// would cost more than the coarse levels themselves. Throws std::bad_alloc.
template <class T>
class GrowArray {
  static_assert(std::is_trivially_copyable_v<T>);

 public:
  using value_type = T;
  GrowArray() = default;
  GrowArray(const GrowArray&) = delete;
  GrowArray& operator=(const GrowArray&) = delete;
  GrowArray(GrowArray&& o) noexcept { swap(o); }
  GrowArray& operator=(GrowArray&& o) noexcept {
    GrowArray(std::move(o)).swap(*this);
    return *this;
  }
  ~GrowArray() { std::free(p_); }

  T* data() { return p_; }
  const T* data() const { return p_; }
  T* begin() { return p_; }
  T* end() { return p_ + n_; }
  const T* begin() const { return p_; }
  const T* end() const { return p_ + n_; }
  std::size_t size() const { return n_; }
  bool empty() const { return n_ == 0; }

  // n elements; the first min(n, size()) keep their values, the rest are unset.
  void resize(std::size_t n) {
    if (n == n_) return;
    if (n == 0) {
      std::free(p_);
      p_ = nullptr;
      n_ = 0;
      return;
    }
    if (n > std::numeric_limits<std::size_t>::max() / sizeof(T)) throw std::bad_alloc();
    void* q = std::realloc(p_, n * sizeof(T));
    if (q == nullptr) throw std::bad_alloc();
    p_ = static_cast<T*>(q);
    n_ = n;
  }
  void assign(std::size_t n, const T& value) {
    resize(n);
    std::fill(p_, p_ + n_, value);
  }
  void swap(GrowArray& o) noexcept {
    std::swap(p_, o.p_);
    std::swap(n_, o.n_);
  }

 private:
  T* p_ = nullptr;
  std::size_t n_ = 0;
};

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
// The states of `icg` during setup; after operator preparation a C-variable's
// icg is its index on the next level.
enum IcgState : int {
  kIcgC = 1,                    // coarse (any positive value)
  kIcgF = -1,                   // fine, with a strong C neighbour when decided
  kIcgUndecided = -2,           // undecided; what remains at the end counts as F (XF)
  kIcgAggressiveF = -3,         // C of the first pass turned F by aggressive coarsening
  kIcgFF = 0,                   // forced fine: not interpolated, not on the coarse level
  kIcgOutside = -999999999,     // not taking part in this coarsening
  kIcgMultipass = -1000000000,  // F-variable left for the multi-pass interpolation
};

// The strong end of row i while its level is being coarsened: the position of
// the last strong coupling, ia(i) for none, 0 for a row that cannot be treated
// normally. It lives in the diagonal's column slot ja(ia(i)).
inline int& strong_end(const LevelView& L, int i) { return L.ja(L.ia(i)); }
// Puts the diagonal convention ja(ia(i)) = i back on every row of the level.
inline void restore_diagonals(const LevelView& L) {
  for (int i = L.ilo; i <= L.ihi; ++i) L.ja(L.ia(i)) = i;
}

struct StoreState {
  // Level bounds, indexed 1..kMaxLevels (element 0 unused).
  std::array<int, kMaxLevels + 1> imin{}, imax{}, ipmin{}, ipmax{};
  int levels = 0;
  int levels_done = 0;  // 0 before a setup, -1 after a failed one

  // Upper bounds of the stacked arrays.
  int nda = 0, ndu = 0, ndw = 0, ndv = 0;
  int nnu_all = 0, nna_all = 0;

  // The caller's level 1 (bound for the duration of a call).
  int nnu = 0, nna = 0;
  int* ia1 = nullptr;
  int* ja1 = nullptr;
  double* a1 = nullptr;
  double* u1 = nullptr;
  double* f1 = nullptr;

  // The library's stacked continuation, addressed by global index through
  // level_view(): ia over nnu+1..ndu+1, ja and a over nna+1..nda, u and f
  // over nnu+1..ndu. icg over 1..ndu, iw over 1..ndu+1, jw and w over 1..ndw.
  std::vector<int> ia;
  GrowArray<int> ja;
  GrowArray<double> a;
  std::vector<double> u, f;
  std::vector<int> icg, iw, jw;
  std::vector<double> w;

  // Memory counters in elements; the watermark is memd + memi / int_per_real.
  std::int64_t memi = 0, memd = 0, memi_p = 0, memd_p = 0;
  std::int64_t maxeff = 0, maxcyc = 0;
  int int_per_real = 2;
  std::int64_t watermark() const { return memd + memi / int_per_real; }
  // What each array family added to the counters, so a release subtracts it.
  std::int64_t cnt_icg = 0, cnt_iw = 0, cnt_ia = 0, cnt_uf = 0, cnt_iu = 0, cnt_ip = 0, cnt_a = 0, cnt_w = 0;
};
StoreState& store();

// Binds the caller's level-1 arrays for this call.
void bind_level1(int nnu, int* ia, int* ja, double* a, double* u, double* f);
// The view of level k (1 = the caller's arrays) over the stacked arrays.
// Valid until the next growth of the arrays.
LevelView level_view(int k);

// Allocation families. Each counts what it adds, keeps what fits under
// `keepmem`, and reports a failure by name with ierr 70.
//  u_alloc selector 1 icg (1..ndimu), 2 iw (1..ndimu+1), 3 ia (nnu+1..ndimu+1),
//  4 u and f (nnu+1..ndimu), 5 iu and ip (one element at nnu+1).
void u_alloc(int selector, int nnu, int ndimu);
void a_alloc(int nna, int ndima);  // a, ja over nna+1..ndima
void w_alloc(int ndimw);           // w, jw over 1..ndimw
void u_dealloc();
void a_dealloc();
void w_dealloc();
// Growth during setup (iextent of iswit: 0 off, 1 memory then scratch file,
// 2 memory only, 3 scratch file). a_extent makes room in a, ja of level k:
// n < 0 asks for exactly |n| entries beyond pos (the last entry in use),
// n >= 0 for an estimate of the rest of the level of at least n. u_extent
// makes ndu cover imax(k) (icg, iw, ia). Errors: 10, 60, 70.
void a_extent(int k, int n, int pos, int rows_done, int entries_done);
void u_extent(int k);

// Test hook: the n-th allocation from now fails (0 = none).
void fail_allocation_after(int n);

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
