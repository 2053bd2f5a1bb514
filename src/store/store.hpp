// The hierarchy store: all levels in one 1-based index space. Level 1 is the
// caller's own arrays; coarse levels continue them in library-owned arrays.
#pragma once

#include <array>
#include <cassert>
#include <cstdint>

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

}  // namespace kornlt
