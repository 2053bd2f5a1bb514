// Checked allocation: owning 1-based arrays whose allocation and release are
// counted in the store's memory counters and reported under the name of the
// routine that made them, and a three-part bump arena for work space.
#pragma once

#include <array>
#include <cassert>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <span>
#include <utility>

#include "store/store.hpp"

namespace kornlt {

// ---------------------------------------------------------------------------
// Settings of the family (process-wide, main thread only)
// ---------------------------------------------------------------------------
struct CheckedAllocState {
  // Handle family (amg_alloc_*, amg_dup_pnt*, amg_dup2_pnt*): allocating onto
  // an array that exists is reported as "already associated". Off: the old
  // array is released and replaced.
  bool strict_associated = true;
  // Owned family (amg_a_alloc_*, amg_dup_*_array, amg_dup2_real_array): the
  // same with "already allocated".
  bool strict_allocated = true;
  // Where allocations are counted: 2 memi/memd (integers/reals), 1 memi_p/memd_p,
  // any other value nowhere. Each array remembers the counter it went to, so
  // its release subtracts exactly what was added even if the mode changed.
  int accounting_mode = 2;
};
CheckedAllocState& checked_alloc_state();

// Test hooks. The n-th checked allocation from now (arena parts included)
// fails as if memory were refused; 0 switches the hook off.
void fail_checked_allocation_after(int n);
// The next releases return these statuses in order (0 = success); an empty
// list switches the hook off.
void fail_checked_release(std::initializer_list<int> statuses);

struct CheckedAccess;  // the allocation routines' access to the storage

// ---------------------------------------------------------------------------
// Checked<T>: an owning 1-based array over lo..hi (lo <= hi+1).
// ---------------------------------------------------------------------------
// An absent array (exists() false) is what "not associated" / "not allocated"
// means; an existing array may have zero length. The checked release forms
// are the counted way to free one; the destructor only frees the memory and
// leaves the counters alone, so a missed release shows as an imbalance at the
// end of the run.
template <class T>
class Checked {
 public:
  using value_type = T;
  Checked() = default;
  Checked(Checked&& o) noexcept { take(o); }
  Checked& operator=(Checked&& o) noexcept {
    if (this != &o) take(o);
    return *this;
  }
  Checked(const Checked&) = delete;
  Checked& operator=(const Checked&) = delete;

  bool exists() const { return exists_; }
  int lo() const { return lo_; }
  int hi() const { return hi_; }
  std::int64_t size() const { return std::int64_t{hi_} - lo_ + 1; }
  T* data() const { return p_.get(); }
  T& operator()(int i) const {
    assert(exists_ && i >= lo_ && i <= hi_);
    return p_[i - lo_];
  }
  // The view over lo..hi; an empty view when absent.
  Vec1<T> view() const { return exists_ ? Vec1<T>(p_.get(), lo_, hi_) : Vec1<T>(); }
  std::span<T> span() const { return {p_.get(), static_cast<std::size_t>(exists_ ? size() : 0)}; }

 private:
  friend struct CheckedAccess;
  void take(Checked& o) {
    p_ = std::move(o.p_);
    lo_ = std::exchange(o.lo_, 1);
    hi_ = std::exchange(o.hi_, 0);
    exists_ = std::exchange(o.exists_, false);
    mode_ = std::exchange(o.mode_, 0);
    counted_ = std::exchange(o.counted_, 0);
  }
  std::unique_ptr<T[]> p_;
  int lo_ = 1, hi_ = 0;
  bool exists_ = false;
  int mode_ = 0;              // accounting mode in force at allocation
  std::int64_t counted_ = 0;  // elements added to that mode's counter
};

// ---------------------------------------------------------------------------
// CheckedNd<T, R>: an owning R-dimensional array with extents n1..nR, each
// index 1-based. Row-major with the first index slowest, so the rows i of a
// static row block form one contiguous piece: the thread that zeroes a block
// at allocation (first touch) is the one that works on it later.
// ---------------------------------------------------------------------------
template <class T, int R>
class CheckedNd {
  static_assert(R == 2 || R == 3);

 public:
  using value_type = T;
  CheckedNd() = default;
  CheckedNd(CheckedNd&& o) noexcept { take(o); }
  CheckedNd& operator=(CheckedNd&& o) noexcept {
    if (this != &o) take(o);
    return *this;
  }
  CheckedNd(const CheckedNd&) = delete;
  CheckedNd& operator=(const CheckedNd&) = delete;

  bool exists() const { return exists_; }
  int extent(int d) const { return n_[static_cast<std::size_t>(d - 1)]; }  // d = 1..R
  std::int64_t size() const {
    std::int64_t s = 1;
    for (int e : n_) s *= e;
    return s;
  }
  T* data() const { return p_.get(); }
  T& operator()(int i, int j) const
    requires(R == 2)
  {
    assert(exists_ && i >= 1 && i <= n_[0] && j >= 1 && j <= n_[1]);
    return p_[(std::int64_t{i} - 1) * n_[1] + (j - 1)];
  }
  T& operator()(int i, int j, int k) const
    requires(R == 3)
  {
    assert(exists_ && i >= 1 && i <= n_[0] && j >= 1 && j <= n_[1] && k >= 1 && k <= n_[2]);
    return p_[((std::int64_t{i} - 1) * n_[1] + (j - 1)) * n_[2] + (k - 1)];
  }
  // Row i of a 2d array as a view over 1..n2.
  Vec1<T> row(int i) const
    requires(R == 2)
  {
    assert(exists_ && i >= 1 && i <= n_[0]);
    return Vec1<T>(p_.get() + (std::int64_t{i} - 1) * n_[1], 1, n_[1]);
  }

 private:
  friend struct CheckedAccess;
  void take(CheckedNd& o) {
    p_ = std::move(o.p_);
    n_ = std::exchange(o.n_, {});
    exists_ = std::exchange(o.exists_, false);
    mode_ = std::exchange(o.mode_, 0);
    counted_ = std::exchange(o.counted_, 0);
  }
  std::unique_ptr<T[]> p_;
  std::array<int, R> n_{};
  bool exists_ = false;
  int mode_ = 0;
  std::int64_t counted_ = 0;
};
template <class T>
using Checked2d = CheckedNd<T, 2>;
template <class T>
using Checked3d = CheckedNd<T, 3>;

// ---------------------------------------------------------------------------
// The checked-allocation family. Each routine reports under its own name by
// the coded message routine ("error code 70 <routine> : <words>", kind 1):
//   "already associated" / "already allocated"  target exists, strict flag on
//   "alloc failed"                              memory refused
//   "not associated" / "not allocated"          release of an absent array
//   "dealloc failed"                            release refused
// After a report ierr is 70, the routine returns false and the target and the
// counters are as they were. Otherwise the routine returns true and counts
// (or uncounts) the elements by the accounting mode; 2d/3d count the product
// of their extents. Lengths and extents below 0 count as 0. The 1d forms leave
// new elements unset; the 2d/3d forms zero them in static row blocks under
// `nmin_vector`.
// ---------------------------------------------------------------------------
// Handle family ("associated"). alloc: bounds 1..n; alloc2: lo..hi.
bool amg_alloc_int(Checked<int>& x, int n);
bool amg_alloc2_int(Checked<int>& x, int lo, int hi);
bool amg_alloc_real(Checked<double>& x, int n);
bool amg_alloc2_real(Checked<double>& x, int lo, int hi);
bool amg_alloc_2d_int(Checked2d<int>& x, int n1, int n2);
bool amg_alloc_2d_real(Checked2d<double>& x, int n1, int n2);
bool amg_alloc_3d_real(Checked3d<double>& x, int n1, int n2, int n3);
bool amg_dealloc_int(Checked<int>& x);
bool amg_dealloc_real(Checked<double>& x);
bool amg_dealloc_2d_int(Checked2d<int>& x);
bool amg_dealloc_2d_real(Checked2d<double>& x);
bool amg_dealloc_3d_real(Checked3d<double>& x);

// Owned family ("allocated").
bool amg_a_alloc_int(Checked<int>& x, int n);
bool amg_a_alloc2_int(Checked<int>& x, int lo, int hi);
bool amg_a_alloc_real(Checked<double>& x, int n);
bool amg_a_alloc2_real(Checked<double>& x, int lo, int hi);
bool amg_a_alloc_2d_int(Checked2d<int>& x, int n1, int n2);
bool amg_a_alloc_2d_real(Checked2d<double>& x, int n1, int n2);
bool amg_a_dealloc_int(Checked<int>& x);
bool amg_a_dealloc_real(Checked<double>& x);
bool amg_a_dealloc_2d_int(Checked2d<int>& x);
bool amg_a_dealloc_2d_real(Checked2d<double>& x);

// Copies. dup: dst becomes a copy of src with src's bounds (absent when src
// is absent). dup2: dst gets the bounds lo..hi, src's elements where the two
// ranges overlap and 0 elsewhere. pnt forms belong to the handle family, the
// others to the owned family (strict flag and wording).
bool amg_dup_int_array(Checked<int>& dst, const Checked<int>& src);
bool amg_dup_real_array(Checked<double>& dst, const Checked<double>& src);
bool amg_dup_pntint_array(Checked<int>& dst, const Checked<int>& src);
bool amg_dup_pntreal_array(Checked<double>& dst, const Checked<double>& src);
bool amg_dup2_pntint_array(Checked<int>& dst, const Checked<int>& src, int lo, int hi);
bool amg_dup2_real_array(Checked<double>& dst, const Checked<double>& src, int lo, int hi);

// Growth: x keeps lo and its content and gets the upper bound new_hi; the new
// elements are 0. An absent x is allocated over 1..new_hi (zeroed); new_hi at
// or below hi changes nothing. The counters move by the difference.
bool extent_pntint_array(Checked<int>& x, int new_hi);

// ---------------------------------------------------------------------------
// Three-part arena: a bump allocator over an integer, a double and a single
// precision block. Each part has a capacity and a cursor (the next element to
// hand out, starting at 1). The arena is not counted in the memory counters;
// its routines report through their `ierr` argument and leave the global
// error state alone.
// ---------------------------------------------------------------------------
template <class T>
struct ArenaPart {
  std::unique_ptr<T[]> data;  // elements 1..capacity at data[0..capacity-1]
  int capacity = 0;
  int cursor = 1;
  bool exists = false;
};
struct KornArena {
  ArenaPart<int> i;     // korn_iget_ptr
  ArenaPart<double> d;  // korn_dget_ptr
  ArenaPart<float> s;   // korn_sget_ptr
};

// Allocates parts of ni, nd, ns elements (a count not above 0 leaves its part
// empty) with all cursors at 1; ierr 0, or 70 when memory is refused (reported
// as "korn_mem_init : alloc failed"). A part that still exists is announced
// with "attention: korn_mem_init called twice without decallocation" and
// released first.
void korn_mem_init(KornArena& arena, int ni, int nd, int ns, int& ierr);
// The next n elements of a part as a view over 1..n, advancing the cursor.
// n < 1: an empty view over a static dummy, nothing else changes. Past the
// capacity: ierr 1, an empty view, "korn_iget_ptr: pointer assignment failed"
// (dget, sget alike). ierr is left alone on success.
Vec1<int> korn_iget_ptr(KornArena& arena, int n, int& ierr);
Vec1<double> korn_dget_ptr(KornArena& arena, int n, int& ierr);
Vec1<float> korn_sget_ptr(KornArena& arena, int n, int& ierr);
// Releases all three parts; ierr is the largest absolute value of the parts'
// release statuses (0 when all went well). A part whose release failed stays.
void korn_mem_dealloc(KornArena& arena, int& ierr);

}  // namespace kornlt
