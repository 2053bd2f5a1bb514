// Helpers for the exported C/Fortran interface.
#pragma once

#include <cstddef>
#include <string_view>

// Exports `alias` as a second name of the function `target` (defined above it
// in the same file): the gfortran-style name with a trailing underscore.
#define KORN_FORTRAN_ALIAS(target) __attribute__((alias(#target), visibility("default")))

namespace kornlt {

// A character argument with its hidden length, as a view.
inline std::string_view fstr(const char* s, std::size_t len) {
  return s == nullptr ? std::string_view{} : std::string_view(s, len);
}

// Copies `v` into a caller's character buffer of length `len`, blank-padded or cut.
inline void fstr_out(std::string_view v, char* out, std::size_t len) {
  for (std::size_t i = 0; i < len; ++i) out[i] = i < v.size() ? v[i] : ' ';
}

}  // namespace kornlt
