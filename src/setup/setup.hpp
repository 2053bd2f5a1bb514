// Hierarchy setup: strength of connection and row sorting, coarse-point
// selection, interpolation, Galerkin coarse operators and the level driver.
#pragma once

#include <string_view>

#include "store/store.hpp"

namespace kornlt {

// ===========================================================================
// Strength of connection and row sorting
// ===========================================================================

// ===========================================================================
// Coarse-point selection
// ===========================================================================

}  // namespace kornlt
