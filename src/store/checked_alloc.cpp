// Checked allocation: the counted, named allocation routines and the
// three-part work-space arena.
#include "store/checked_alloc.hpp"

#include <algorithm>
#include <cstdlib>
#include <deque>
#include <limits>
#include <new>
#include <string>
#include <string_view>
#include <type_traits>

#include "control/threads.hpp"
#include "log/log.hpp"
#include "params/params.hpp"

namespace kornlt {

CheckedAllocState& checked_alloc_state() {
  static CheckedAllocState s;
  return s;
}

namespace {

// ---------------------------------------------------------------------------
// Test hooks
// ---------------------------------------------------------------------------
int allocation_countdown = 0;
std::deque<int>& release_statuses() {
  static std::deque<int> q;
  return q;
}

bool allocation_refused() { return allocation_countdown > 0 && --allocation_countdown == 0; }

// Status of one release: 0, or what the test hook hands out.
int release_status() {
  std::deque<int>& q = release_statuses();
  if (q.empty()) return 0;
  const int s = q.front();
  q.pop_front();
  return s;
}

// ---------------------------------------------------------------------------
// Families, words and reports
// ---------------------------------------------------------------------------
enum class Family { associated, allocated };

struct Routine {
  std::string_view name;
  Family family;
};

bool strict(Family f) {
  const CheckedAllocState& s = checked_alloc_state();
  return f == Family::associated ? s.strict_associated : s.strict_allocated;
}
std::string_view exists_words(Family f) {
  return f == Family::associated ? "already associated" : "already allocated";
}
std::string_view absent_words(Family f) { return f == Family::associated ? "not associated" : "not allocated"; }

// "error code 70 <routine> : <words>" as an error; ierr 70.
bool report(std::string_view routine, std::string_view words) {
  print_code_message(kErrAllocation, -1, {routine, ":", words});
  ierr() = kErrAllocation;
  return false;
}

// ---------------------------------------------------------------------------
// Raw storage and counting
// ---------------------------------------------------------------------------
// n elements, not initialised (first touch is the caller's); null when memory
// is refused. n = 0 gives a valid non-null block.
template <class T>
std::unique_ptr<T[]> raw_allocate(std::int64_t n) {
  if (allocation_refused()) return nullptr;
  if (n < 0 || static_cast<std::uint64_t>(n) > std::numeric_limits<std::size_t>::max() / sizeof(T)) return nullptr;
  try {
    return std::make_unique_for_overwrite<T[]>(static_cast<std::size_t>(n));
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

// Adds n (negative: subtracts) elements of type T to the counter of `mode`.
template <class T>
void account(int mode, std::int64_t n) {
  StoreState& st = store();
  constexpr bool integer = std::is_integral_v<T>;
  if (mode == 2) {
    (integer ? st.memi : st.memd) += n;
    if (n > 0) st.maxeff = std::max(st.maxeff, st.watermark());
  } else if (mode == 1) {
    (integer ? st.memi_p : st.memd_p) += n;
  }
}

// Length of lo..hi, at least 0.
std::int64_t length(int lo, int hi) { return std::max<std::int64_t>(std::int64_t{hi} - lo + 1, 0); }

// Product of extents (each below 0 counts as 0); -1 when it does not fit.
template <std::size_t R>
std::int64_t product(const std::array<int, R>& n) {
  std::int64_t p = 1;
  for (int e : n) {
    const std::int64_t v = std::max(e, 0);
    if (v != 0 && p > std::numeric_limits<std::int64_t>::max() / v) return -1;
    p *= v;
  }
  return p;
}

}  // namespace

void fail_checked_allocation_after(int n) { allocation_countdown = n; }
void fail_checked_release(std::initializer_list<int> statuses) { release_statuses().assign(statuses); }

// The one place that sets and clears the arrays' storage.
struct CheckedAccess {
  template <class T>
  static void install(Checked<T>& x, std::unique_ptr<T[]> p, int lo, std::int64_t n) {
    const int mode = checked_alloc_state().accounting_mode;
    account<T>(mode, n);
    x.p_ = std::move(p);
    x.lo_ = lo;
    x.hi_ = static_cast<int>(lo + n - 1);
    x.exists_ = true;
    x.mode_ = mode;
    x.counted_ = n;
  }
  template <class T>
  static void drop(Checked<T>& x) {
    account<T>(x.mode_, -x.counted_);
    x.p_.reset();
    x.lo_ = 1;
    x.hi_ = 0;
    x.exists_ = false;
    x.mode_ = 0;
    x.counted_ = 0;
  }
  template <class T, int R>
  static void install(CheckedNd<T, R>& x, std::unique_ptr<T[]> p, const std::type_identity_t<std::array<int, R>>& n,
                      std::int64_t total) {
    const int mode = checked_alloc_state().accounting_mode;
    account<T>(mode, total);
    x.p_ = std::move(p);
    x.n_ = n;
    x.exists_ = true;
    x.mode_ = mode;
    x.counted_ = total;
  }
  template <class T, int R>
  static void drop(CheckedNd<T, R>& x) {
    account<T>(x.mode_, -x.counted_);
    x.p_.reset();
    x.n_ = {};
    x.exists_ = false;
    x.mode_ = 0;
    x.counted_ = 0;
  }
};

namespace {

// ---------------------------------------------------------------------------
// Generic forms behind the named routines
// ---------------------------------------------------------------------------
template <class T>
bool alloc1(Checked<T>& x, int lo, int hi, Routine r) {
  if (x.exists() && strict(r.family)) return report(r.name, exists_words(r.family));
  const std::int64_t n = length(lo, hi);
  std::unique_ptr<T[]> p = raw_allocate<T>(n);
  if (!p) return report(r.name, "alloc failed");
  if (x.exists()) CheckedAccess::drop(x);  // replacing under a lax strict flag
  CheckedAccess::install(x, std::move(p), lo, n);
  return true;
}

template <class A>
bool dealloc(A& x, Routine r) {
  if (!x.exists()) return report(r.name, absent_words(r.family));
  if (release_status() != 0) return report(r.name, "dealloc failed");
  CheckedAccess::drop(x);
  return true;
}

// Zeroes rows 1..n1 of a row-major block with `row` elements per row, in the
// static row blocks that later loops over these rows use.
template <class T>
void zero_rows(T* p, int n1, std::int64_t row) {
  for_blocks(1, n1, prm().nmin_vector, [=](int lo, int hi, int) {
    std::fill(p + (std::int64_t{lo} - 1) * row, p + std::int64_t{hi} * row, T{});
  });
}

template <class T, int R>
bool alloc_nd(CheckedNd<T, R>& x, const std::array<int, R>& n_in, Routine r) {
  if (x.exists() && strict(r.family)) return report(r.name, exists_words(r.family));
  std::array<int, R> n{};
  for (std::size_t d = 0; d < n.size(); ++d) n[d] = std::max(n_in[d], 0);
  const std::int64_t total = product(n);
  std::unique_ptr<T[]> p = total < 0 ? nullptr : raw_allocate<T>(total);
  if (!p) return report(r.name, "alloc failed");
  if (n[0] > 0) zero_rows(p.get(), n[0], total / n[0]);
  if (x.exists()) CheckedAccess::drop(x);
  CheckedAccess::install(x, std::move(p), n, total);
  return true;
}

// dst over lo..hi: src's elements where the ranges overlap, 0 elsewhere.
template <class T>
bool dup_range(Checked<T>& dst, const Checked<T>& src, int lo, int hi, Routine r) {
  if (dst.exists() && strict(r.family)) return report(r.name, exists_words(r.family));
  if (&dst == &src && lo == src.lo() && hi == src.hi()) return true;  // a copy of itself is itself
  const std::int64_t n = length(lo, hi);
  std::unique_ptr<T[]> p = raw_allocate<T>(n);
  if (!p) return report(r.name, "alloc failed");
  // Offsets into the new block of the part that comes from src: [c0, c1).
  std::int64_t c0 = n, c1 = n;
  if (src.exists()) {
    c0 = std::clamp<std::int64_t>(std::int64_t{src.lo()} - lo, 0, n);
    c1 = std::clamp<std::int64_t>(std::int64_t{src.hi()} - lo + 1, c0, n);
  }
  std::fill(p.get(), p.get() + c0, T{});
  if (c1 > c0) std::copy_n(src.data() + (lo + c0 - src.lo()), c1 - c0, p.get() + c0);
  std::fill(p.get() + c1, p.get() + n, T{});
  if (dst.exists()) CheckedAccess::drop(dst);
  CheckedAccess::install(dst, std::move(p), lo, n);
  return true;
}

// A copy of src with its bounds; an absent src leaves dst absent.
template <class T>
bool dup_whole(Checked<T>& dst, const Checked<T>& src, Routine r) {
  if (dst.exists() && strict(r.family)) return report(r.name, exists_words(r.family));
  if (&dst == &src) return true;
  if (!src.exists()) {
    if (dst.exists()) CheckedAccess::drop(dst);
    return true;
  }
  return dup_range(dst, src, src.lo(), src.hi(), r);
}

constexpr Family kAssoc = Family::associated;
constexpr Family kAlloc = Family::allocated;

}  // namespace

// ---------------------------------------------------------------------------
// Handle family
// ---------------------------------------------------------------------------
bool amg_alloc_int(Checked<int>& x, int n) { return alloc1(x, 1, n, {"amg_alloc_int", kAssoc}); }
bool amg_alloc2_int(Checked<int>& x, int lo, int hi) { return alloc1(x, lo, hi, {"amg_alloc2_int", kAssoc}); }
bool amg_alloc_real(Checked<double>& x, int n) { return alloc1(x, 1, n, {"amg_alloc_real", kAssoc}); }
bool amg_alloc2_real(Checked<double>& x, int lo, int hi) { return alloc1(x, lo, hi, {"amg_alloc2_real", kAssoc}); }
bool amg_alloc_2d_int(Checked2d<int>& x, int n1, int n2) {
  return alloc_nd<int, 2>(x, {n1, n2}, {"amg_alloc_2d_int", kAssoc});
}
bool amg_alloc_2d_real(Checked2d<double>& x, int n1, int n2) {
  return alloc_nd<double, 2>(x, {n1, n2}, {"amg_alloc_2d_real", kAssoc});
}
bool amg_alloc_3d_real(Checked3d<double>& x, int n1, int n2, int n3) {
  return alloc_nd<double, 3>(x, {n1, n2, n3}, {"amg_alloc_3d_real", kAssoc});
}
bool amg_dealloc_int(Checked<int>& x) { return dealloc(x, {"amg_dealloc_int", kAssoc}); }
bool amg_dealloc_real(Checked<double>& x) { return dealloc(x, {"amg_dealloc_real", kAssoc}); }
bool amg_dealloc_2d_int(Checked2d<int>& x) { return dealloc(x, {"amg_dealloc_2d_int", kAssoc}); }
bool amg_dealloc_2d_real(Checked2d<double>& x) { return dealloc(x, {"amg_dealloc_2d_real", kAssoc}); }
bool amg_dealloc_3d_real(Checked3d<double>& x) { return dealloc(x, {"amg_dealloc_3d_real", kAssoc}); }

// ---------------------------------------------------------------------------
// Owned family
// ---------------------------------------------------------------------------
bool amg_a_alloc_int(Checked<int>& x, int n) { return alloc1(x, 1, n, {"amg_a_alloc_int", kAlloc}); }
bool amg_a_alloc2_int(Checked<int>& x, int lo, int hi) { return alloc1(x, lo, hi, {"amg_a_alloc2_int", kAlloc}); }
bool amg_a_alloc_real(Checked<double>& x, int n) { return alloc1(x, 1, n, {"amg_a_alloc_real", kAlloc}); }
bool amg_a_alloc2_real(Checked<double>& x, int lo, int hi) {
  return alloc1(x, lo, hi, {"amg_a_alloc2_real", kAlloc});
}
bool amg_a_alloc_2d_int(Checked2d<int>& x, int n1, int n2) {
  return alloc_nd<int, 2>(x, {n1, n2}, {"amg_a_alloc_2d_int", kAlloc});
}
bool amg_a_alloc_2d_real(Checked2d<double>& x, int n1, int n2) {
  return alloc_nd<double, 2>(x, {n1, n2}, {"amg_a_alloc_2d_real", kAlloc});
}
bool amg_a_dealloc_int(Checked<int>& x) { return dealloc(x, {"amg_a_dealloc_int", kAlloc}); }
bool amg_a_dealloc_real(Checked<double>& x) { return dealloc(x, {"amg_a_dealloc_real", kAlloc}); }
bool amg_a_dealloc_2d_int(Checked2d<int>& x) { return dealloc(x, {"amg_a_dealloc_2d_int", kAlloc}); }
bool amg_a_dealloc_2d_real(Checked2d<double>& x) { return dealloc(x, {"amg_a_dealloc_2d_real", kAlloc}); }

// ---------------------------------------------------------------------------
// Copies and growth
// ---------------------------------------------------------------------------
bool amg_dup_int_array(Checked<int>& dst, const Checked<int>& src) {
  return dup_whole(dst, src, {"amg_dup_int_array", kAlloc});
}
bool amg_dup_real_array(Checked<double>& dst, const Checked<double>& src) {
  return dup_whole(dst, src, {"amg_dup_real_array", kAlloc});
}
bool amg_dup_pntint_array(Checked<int>& dst, const Checked<int>& src) {
  return dup_whole(dst, src, {"amg_dup_pntint_array", kAssoc});
}
bool amg_dup_pntreal_array(Checked<double>& dst, const Checked<double>& src) {
  return dup_whole(dst, src, {"amg_dup_pntreal_array", kAssoc});
}
bool amg_dup2_pntint_array(Checked<int>& dst, const Checked<int>& src, int lo, int hi) {
  return dup_range(dst, src, lo, hi, {"amg_dup2_pntint_array", kAssoc});
}
bool amg_dup2_real_array(Checked<double>& dst, const Checked<double>& src, int lo, int hi) {
  return dup_range(dst, src, lo, hi, {"amg_dup2_real_array", kAlloc});
}

bool extent_pntint_array(Checked<int>& x, int new_hi) {
  constexpr std::string_view name = "extent_pntint_array";
  const int lo = x.exists() ? x.lo() : 1;
  if (x.exists() && new_hi <= x.hi()) return true;
  const std::int64_t n = length(lo, new_hi);
  std::unique_ptr<int[]> p = raw_allocate<int>(n);
  if (!p) return report(name, "alloc failed");
  const std::int64_t kept = x.exists() ? x.size() : 0;
  if (kept > 0) std::copy(x.data(), x.data() + kept, p.get());
  std::fill(p.get() + kept, p.get() + n, 0);
  if (x.exists()) CheckedAccess::drop(x);
  CheckedAccess::install(x, std::move(p), lo, n);
  return true;
}

// ---------------------------------------------------------------------------
// The arena
// ---------------------------------------------------------------------------
namespace {

// Frees a part; returns the release status (the part stays when it is not 0).
template <class T>
int release_part(ArenaPart<T>& part) {
  const int status = release_status();
  if (status != 0) {
    print_code_message(status, -1, {"korn_mem_dealloc", ":", "dealloc failed"});
    return status;
  }
  part = ArenaPart<T>{};
  return 0;
}

template <class T>
bool init_part(ArenaPart<T>& part, int n, int& ierr) {
  if (part.exists) {
    print_message(kMsgWarning, 0, 0, "attention: korn_mem_init called twice without decallocation");
    const int status = release_part(part);
    if (status != 0) {
      ierr = std::abs(status);
      return false;
    }
  }
  if (n < 1) return true;
  std::unique_ptr<T[]> p = raw_allocate<T>(n);
  if (!p) {
    print_code_message(kErrAllocation, -1, {"korn_mem_init", ":", "alloc failed"});
    ierr = kErrAllocation;
    return false;
  }
  part.data = std::move(p);
  part.capacity = n;
  part.cursor = 1;
  part.exists = true;
  return true;
}

template <class T>
Vec1<T> get_ptr(ArenaPart<T>& part, int n, int& ierr, std::string_view failure) {
  static T dummy{};
  if (n < 1) return Vec1<T>(&dummy, 1, 0);
  if (std::int64_t{part.cursor} + n - 1 > part.capacity) {
    ierr = 1;
    print_message(kMsgError, 0, 0, failure);
    return Vec1<T>();
  }
  Vec1<T> v(part.data.get() + (part.cursor - 1), 1, n);
  part.cursor += n;
  return v;
}

}  // namespace

void korn_mem_init(KornArena& arena, int ni, int nd, int ns, int& ierr) {
  ierr = 0;
  if (!init_part(arena.i, ni, ierr)) return;
  if (!init_part(arena.d, nd, ierr)) return;
  init_part(arena.s, ns, ierr);
}

Vec1<int> korn_iget_ptr(KornArena& arena, int n, int& ierr) {
  return get_ptr(arena.i, n, ierr, "korn_iget_ptr: pointer assignment failed");
}
Vec1<double> korn_dget_ptr(KornArena& arena, int n, int& ierr) {
  return get_ptr(arena.d, n, ierr, "korn_dget_ptr: pointer assignment failed");
}
Vec1<float> korn_sget_ptr(KornArena& arena, int n, int& ierr) {
  return get_ptr(arena.s, n, ierr, "korn_sget_ptr: pointer assignment failed");
}

void korn_mem_dealloc(KornArena& arena, int& ierr) {
  ierr = 0;
  int s = 0;
  if (arena.i.exists) s = std::max(s, std::abs(release_part(arena.i)));
  if (arena.d.exists) s = std::max(s, std::abs(release_part(arena.d)));
  if (arena.s.exists) s = std::max(s, std::abs(release_part(arena.s)));
  ierr = s;
}

}  // namespace kornlt
