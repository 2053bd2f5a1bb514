// The view of a test matrix placed in the stacked index space: rows ilo..ihi
// with global columns, row pointers as global positions, entries from
// position alo on. The caller adds u, f and icg as its tests need them.
#pragma once

#include <vector>

#include "store/store.hpp"

namespace test_support {

inline kornlt::LevelView placed_view(int k, int ilo, int ihi, int alo, std::vector<int>& ia, std::vector<int>& ja,
                                     std::vector<double>& a) {
  kornlt::LevelView L;
  L.k = k;
  L.ilo = ilo;
  L.ihi = ihi;
  L.ia = kornlt::Vec1<int>(ia.data(), ilo, ihi + 1);
  L.ja = kornlt::Vec1<int>(ja.data(), alo, alo + static_cast<int>(ja.size()) - 1);
  L.a = kornlt::Vec1<double>(a.data(), alo, alo + static_cast<int>(a.size()) - 1);
  return L;
}

}  // namespace test_support
