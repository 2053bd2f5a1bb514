// The meaning of every error and warning code, in one table.
#include <algorithm>
#include <array>

#include "log/log.hpp"

namespace kornlt {
namespace {

struct CodeText {
  int code;
  std::string_view meaning;
};

constexpr auto kCodeTable = std::to_array<CodeText>({
    {0, "no finding"},
    {1, "internal error"},
    {10, "an array bound was reached and growth is switched off"},
    {20, "illegal parameter or unsupported option"},
    {30, "optimisation without coordinates"},
    {40, "inconsistent pointers or declarations"},
    {50, "inconsistent matrix, residual or configuration"},
    {51, "restart without a first setup"},
    {52, "restart with no hierarchy"},
    {53, "parameter changed between setup and restart"},
    {54, "parameter changed between setup and restart"},
    {60, "growth or scratch file failed"},
    {70, "allocation or release failed"},
    {72, "aggressive interpolation failed"},
    {73, "aggressive interpolation failed"},
    {80, "feature not available"},
    {90, "log file exists, open failed"},
    {91, "log file on another unit"},
    {92, "log file missing, create failed"},
    {93, "logio is no valid unit"},
    {94, "unit 5 without a file"},
    {100, "file error or impossible internal state"},
    {110, "memory estimate wrong in reduction"},
    {120, "coarsening failed"},
    {130, "bad coarse-level set data"},
    {140, "interpolation failed"},
    {152, "symmetric Galerkin truncation failed"},
    {160, "elasticity fit failed"},
    {200, "residual unusable"},
    {210, "overflow in a residual"},
    {211, "NaN in a residual"},
    {230, "smoother factorisation failed"},
    {240, "smoother factorisation failed"},
    {260, "block procedure gave up"},
    {270, "Uzawa smoother failed"},
    {810, "accelerator preconditioner failed on level 1"},
    {820, "accelerator preconditioner failed on level 1"},
    {900, "one unknown, zero pivot"},
    {920, "coarsest iteration failed: matrix not positive definite"},
    {930, "coarsest iteration failed: matrix singular"},
    {960, "coarsest direct solver failed (full Gauss)"},
    {970, "coarsest direct solver failed (sparse Gauss)"},
    {980, "coarsest direct solver failed (dense)"},
    {990, "coarsest direct solver failed (user defined)"},
    {-1, "a coupled system treated as scalar, or diagonals repaired"},
    {-20, "driver option ignored"},
    {-40, "unknowns without variables"},
    {-50, "parameter corrected or doubtful"},
    {-53, "a parameter differs from its setup value but is tolerated"},
    {-60, "the memory counters do not balance at the end"},
    {-70, "allocation reduced"},
    {-130, "coarsening stopped early"},
    {-140, "interpolation retried"},
    {-151, "Galerkin corrections"},
    {-153, "Galerkin corrections"},
    {-154, "Galerkin corrections"},
    {-830, "conjugate gradients modified or restarted"},
    {-920, "coarsest CG modified"},
    {-990, "coarsest solver setting corrected"},
});

constexpr std::array<std::string_view, 3> kAccelNames{"conjugate gradients", "BiCGstab", "GMRES"};
constexpr std::array<std::string_view, 5> kAccelEvents{
    "breakdown or failure", "true and recursive residual too different",
    "not converged or stagnation", "too many restarts", "relative stagnation of the approximation"};

}  // namespace

std::string_view describe_error(int code) {
  const auto it = std::find_if(kCodeTable.begin(), kCodeTable.end(),
                               [code](const CodeText& c) { return c.code == code; });
  if (it != kCodeTable.end()) return it->meaning;
  // 8xx: tens digit the accelerator, units digit the event.
  const int a = code < 0 ? -code : code;
  if (a >= 830 && a <= 854 && a % 10 <= 4) {
    static thread_local std::string text;
    text = std::string(kAccelNames[a / 10 % 10 - 3]) + ": " + std::string(kAccelEvents[a % 10]);
    text += code < 0 ? " (warning)" : " (error)";
    return text;
  }
  return "unknown code";
}

}  // namespace kornlt
