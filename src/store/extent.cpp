// Growth of the stacked arrays during setup. In memory the matrix arrays grow
// where they lie (realloc) and the others are copied into their larger
// successor in threads; when memory is short for both copies, or growth goes
// through the scratch file, the content is moved aside, the array is
// allocated anew with the larger bound, and the content comes back.
#include <omp.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <limits>
#include <new>
#include <string>

#include "control/control.hpp"
#include "control/threads.hpp"
#include "log/log.hpp"
#include "params/params.hpp"
#include "store/store.hpp"

namespace kornlt {

namespace {

constexpr double kMBytesPerReal = 7.62939453125e-06;  // 8 bytes over 1048576

// The spill of one stretch: in memory (iextent 1, 2) or on the scratch file
// (iextent 3, and 4 for the second attempt after the memory copy failed).
template <class V>
class Spill {
  using T = typename V::value_type;

 public:
  explicit Spill(std::string_view routine) : routine_(routine) {}

  // Moves v[0..keep) aside. False with ierr set on failure.
  bool save(const V& v, std::size_t keep, int& iextent) {
    keep_ = keep;
    if (iextent == 1 || iextent == 2) {
      try {
        temp_.assign(v.begin(), v.begin() + static_cast<std::ptrdiff_t>(keep));
        count_temp(+1);
        return true;
      } catch (const std::bad_alloc&) {
        if (iextent == 2) return fail_ext("Memory extension failed (" + save_name() + ")");
        iextent = 4;
      }
    }
    if (iextent == 4) {
      if (input().dump_level >= 0) print_message(kMsgInfo, 0, 0, "Memory extension, 2nd attempt...");
      iextent = 3;
      return write_file(temp_.empty() ? v.data() : temp_.data(), keep) && drop_temp();
    }
    if (iextent == 3) return write_file(v.data(), keep);
    emergency_stop("Illegal parameter value <iextent> in (" + save_name() + ")");
  }

  // Brings the stretch back into v (already allocated with the new size).
  bool back(V& v, int iextent) {
    if (iextent == 1 || iextent == 2) {
      std::copy(temp_.begin(), temp_.end(), v.begin());
      return drop_temp();
    }
    if (iextent == 3) return read_file(v.data());
    emergency_stop("Illegal parameter value <iextent> in (" + back_name() + ")");
  }

  // The second attempt: the array is released already, the temporary copy
  // goes to the file so that its memory is free for the new array.
  bool spill_to_file(int& iextent) {
    iextent = 4;
    V none;
    return save(none, keep_, iextent);
  }

  bool on_disk() const { return on_disk_; }

 private:
  static constexpr bool kReal = std::is_same_v<T, double>;
  std::string save_name() const { return kReal ? "r_save" : "i_save"; }
  std::string back_name() const { return kReal ? "r_back" : "i_back"; }
  bool fail_ext(const std::string& text) {
    fail(kErrExtension, text);
    return false;
  }
  void count_temp(int sign) {
    StoreState& st = store();
    const auto n = static_cast<std::int64_t>(temp_.size()) * sign;
    (kReal ? st.memd : st.memi) += n;
    st.maxeff = std::max(st.maxeff, st.watermark());
  }
  bool drop_temp() {
    count_temp(-1);
    std::vector<T>().swap(temp_);
    return true;
  }
  std::string path() const { return std::string(prm().scratchfile.trimmed()); }

  bool write_file(const T* data, std::size_t n) {
    std::FILE* f = std::fopen(path().c_str(), "wb");
    if (f == nullptr) return fail_ext("Opening scratch file failed (" + save_name() + ")");
    const auto rec = static_cast<std::size_t>(std::max(prm().impldo_read_write_len, 0));
    for (std::size_t done = 0; done < n;) {
      const std::size_t len = rec < 1 ? n - done : std::min(rec, n - done);
      if (std::fwrite(data + done, sizeof(T), len, f) != len) {
        std::fclose(f);
        return fail_ext("Writing to scratch file failed (" + save_name() + ")");
      }
      done += len;
    }
    std::fclose(f);
    on_disk_ = true;
    return true;
  }

  bool read_file(T* data) {
    std::FILE* f = std::fopen(path().c_str(), "rb");
    const bool ok = f != nullptr && std::fread(data, sizeof(T), keep_, f) == keep_;
    if (f != nullptr) std::fclose(f);
    std::error_code ec;
    std::filesystem::remove(path(), ec);
    return ok ? true : fail_ext("Reading from scratch file failed (" + back_name() + ")");
  }

  std::string routine_;
  std::vector<T> temp_;
  std::size_t keep_ = 0;
  bool on_disk_ = false;
};

// Allocates v with n elements; false when memory is refused.
template <class V>
bool try_allocate(V& v, std::size_t n) {
  try {
    v.resize(n);
  } catch (const std::bad_alloc&) {
    return false;
  }
  return true;
}

void print_attempt(std::size_t elements, bool integers) {
  if (prm().mode_mess < -2) return;
  char line[160];
  double mb = static_cast<double>(elements) * kMBytesPerReal;
  if (integers) mb /= 2.0;
  std::snprintf(line, sizeof line, ">>> MESSG: Memory extension by %.3f MBytes attempted", mb);
  print_line(0, 0, line);
}

// Copies n elements in static blocks over the threads.
template <class T>
void threaded_copy(const T* from, std::size_t n, T* to) {
  constexpr std::size_t kPerThread = 1 << 16;
  const int nt = static_cast<int>(std::min<std::size_t>(static_cast<std::size_t>(thread_count()), n / kPerThread + 1));
#pragma omp parallel num_threads(nt) if (nt > 1)
  {
    const int t = omp_get_thread_num(), m = omp_get_num_threads();
    const std::size_t lo = n * static_cast<std::size_t>(t) / static_cast<std::size_t>(m);
    const std::size_t hi = n * static_cast<std::size_t>(t + 1) / static_cast<std::size_t>(m);
    if (hi > lo) std::memcpy(to + lo, from + lo, (hi - lo) * sizeof(T));
  }
}

// The save-and-reallocate loop for one array: keeps v[0..keep) and gives v
// `count` elements. `tag` names the place in the failure message.
template <class V>
bool regrow(V& v, std::size_t count, std::size_t keep, int& iextent, std::string_view routine,
            std::string_view tag, bool& disk) {
  using T = typename V::value_type;
  Spill<V> spill(routine);
  // In memory: a growable array is resized where it lies (large blocks are
  // remapped, their pages moved rather than copied); any other array gets
  // the new one first and the content copied over in threads. Either way the
  // content is counted as the spill's temporary copy, the peak of the
  // save-and-reallocate sequence.
  if (keep > 0 && (iextent == 1 || iextent == 2)) {
    StoreState& st = store();
    std::int64_t& counter = std::is_same_v<T, double> ? st.memd : st.memi;
    const auto n = static_cast<std::int64_t>(keep);
    bool done = false;
    if constexpr (std::is_same_v<V, GrowArray<T>>) {
      done = try_allocate(v, count);
    } else {
      V grown;
      if (try_allocate(grown, count)) {
        threaded_copy(v.data(), keep, grown.data());
        v.swap(grown);
        done = true;
      }
    }
    if (done) {
      counter += n;
      st.maxeff = std::max(st.maxeff, st.watermark());
      counter -= n;
      return true;
    }
  }
  if (keep == 0) {
    V().swap(v);
    if (try_allocate(v, count)) return true;
  } else {
    if (!spill.save(v, keep, iextent)) return false;
    V().swap(v);
    bool ok = try_allocate(v, count);
    if (!ok && iextent == 1) {
      if (!spill.spill_to_file(iextent)) return false;
      ok = try_allocate(v, count);
    }
    if (ok) {
      disk = disk || spill.on_disk();
      return spill.back(v, iextent);
    }
  }
  print_attempt(count, !std::is_same_v<T, double>);
  fail(kErrExtension, "Memory extension failed (" + std::string(tag) + ")");
  return false;
}

void report_growth(std::string_view what, std::int64_t d, bool disk) {
  if (input().dump_level < 0) return;
  print_message(kMsgInfo, 0, 0, std::string(what) + " increased by " + fmt_int(d) + (disk ? "  (disk)" : "  (incore)"));
}

}  // namespace

void a_extent(int k, int n, int pos, int rows_done, int entries_done) {
  StoreState& st = store();
  Params& p = prm();
  Input& in = input();
  const int ihuge = p.ihuge <= 0 ? 2147483646 : p.ihuge;
  const int base = st.nna + 1;  // first global index of the stacked a
  if (pos < st.nna || pos > st.nda) {
    fail(kErrExtension, "Error #1 in using routine (a_extent)");
    return;
  }
  std::int64_t g = 0;
  if (n < 0) {
    g = -static_cast<std::int64_t>(n);
    if (pos + 0.2 + static_cast<double>(g) > ihuge) {
      print_attempt(static_cast<std::size_t>(g), false);
      fail(kErrExtension, "Memory extension failed (integer overflow for size of array a in a_extent (1))");
      return;
    }
  } else {
    // Density: entries per row of this level so far, or of the level before.
    double r = 0.0;
    if (rows_done < 11) {
      const int kb = std::max(k - 1, 1);
      const int rows = st.imax[static_cast<std::size_t>(kb)] - st.imin[static_cast<std::size_t>(kb)] + 1;
      const int entries = kb == 1 ? st.nna
                                  : st.ia[static_cast<std::size_t>(st.imax[static_cast<std::size_t>(kb)] + 1 - (st.nnu + 1))] -
                                        st.ia[static_cast<std::size_t>(st.imin[static_cast<std::size_t>(kb)] - (st.nnu + 1))];
      r = rows > 0 ? static_cast<double>(entries) / rows : 1.0;
    } else {
      r = static_cast<double>(entries_done) / rows_done;
    }
    r = std::max(r, 1.0);
    const int m = st.imax[static_cast<std::size_t>(k)] - st.imin[static_cast<std::size_t>(k)] + 1;
    const int l = m - rows_done;
    if (l < 0 || l > m || (0.3 * m + l) * r > ihuge) {
      fail(kErrExtension, "Error #2 in using routine (a_extent)");
      return;
    }
    g = static_cast<std::int64_t>(std::trunc(r * m * 0.3 + std::trunc(r * l)));
    g = std::max<std::int64_t>(g, n);
  }
  if (pos + 0.2 + static_cast<double>(g) > ihuge) g = ihuge - pos;
  const std::int64_t d = pos - static_cast<std::int64_t>(st.nda) + g;
  if (d < 1) {
    if (st.nda < ihuge || n == 0) return;
    fail(kErrDimension, "Cannot guarantee sufficient memory(1): <a> in (a_extent)");
    return;
  }
  const int m = st.imax[static_cast<std::size_t>(k)] - st.imin[static_cast<std::size_t>(k)] + 1;
  if (n >= 0 && d < m) {
    fail(kErrDimension, "Cannot guarantee sufficient memory(2): <a> in (a_extent)");
    return;
  }
  st.nda += static_cast<int>(d);
  if (in.iextent == 0) {
    print_message(kMsgError, 0, 0, "Insufficient dimensioning: <nda> in (a_extent)");
    fail(kErrDimension, "Either adjust dimensions or activate memory extension switch.");
    return;
  }
  const auto count = static_cast<std::size_t>(st.nda - base + 1);
  const auto keep = static_cast<std::size_t>(std::max(pos - base + 1, 0));
  bool disk = false;
  if (!regrow(st.a, count, keep, in.iextent, "a_extent", "a in a_extent (2)", disk)) return;
  if (!regrow(st.ja, count, keep, in.iextent, "a_extent", "ja in a_extent (4)", disk)) return;
  st.memi += d;
  st.memd += d;
  st.cnt_a += d;
  st.maxeff = std::max(st.maxeff, st.watermark());
  report_growth("ndima", d, disk);
}

void u_extent(int k) {
  StoreState& st = store();
  Input& in = input();
  const int imax = st.imax[static_cast<std::size_t>(k)];
  if (st.ndu >= imax) return;
  const int rows = imax - st.imin[static_cast<std::size_t>(k)] + 1;
  const int ndu_new = static_cast<int>(std::trunc(imax + 0.3 * std::max(100, rows)));
  const std::int64_t d = ndu_new - st.ndu;
  if (in.iextent == 0) {
    print_message(kMsgError, 0, 0, "Insufficient dimensioning: <ndu> in (u_extent)");
    fail(kErrDimension, "Either adjust dimensions or activate memory extension switch!");
    return;
  }
  const int keep_rows = st.imax[static_cast<std::size_t>(std::max(k - 1, 1))];
  bool disk = false;
  // icg over 1..ndu, iw over 1..ndu+1, ia over nnu+1..ndu+1.
  if (!st.icg.empty() &&
      !regrow(st.icg, static_cast<std::size_t>(ndu_new), static_cast<std::size_t>(keep_rows), in.iextent,
              "u_extent", "icg in u_extent", disk))
    return;
  if (!st.iw.empty() &&
      !regrow(st.iw, static_cast<std::size_t>(ndu_new) + 1, static_cast<std::size_t>(keep_rows) + 1, in.iextent,
              "u_extent", "iw in u_extent", disk))
    return;
  if (!st.ia.empty() &&
      !regrow(st.ia, static_cast<std::size_t>(ndu_new - st.nnu + 1),
              static_cast<std::size_t>(std::max(keep_rows - st.nnu + 1, 1)), in.iextent, "u_extent",
              "ia in u_extent", disk))
    return;
  const std::int64_t added_icg = st.icg.empty() ? 0 : d;
  const std::int64_t added_iw = st.iw.empty() ? 0 : d;
  const std::int64_t added_ia = st.ia.empty() ? 0 : d;
  st.cnt_icg += added_icg;
  st.cnt_iw += added_iw;
  st.cnt_ia += added_ia;
  st.memi += added_icg + added_iw + added_ia;
  st.maxeff = std::max(st.maxeff, st.watermark());
  st.ndu = ndu_new;
  report_growth("ndimu", d, disk);
}

}  // namespace kornlt
