// The built-in model problem: a layered, heterogeneous 3D groundwater-flow
// operator (seven-point, cell-centred) with fixed-head cells eliminated into
// the right-hand side, recharge and wells.
#include <algorithm>
#include <cmath>
#include <numbers>

#include "io/io.hpp"

namespace kornlt {

namespace {

// splitmix64: a well-mixed 64-bit hash; the field depends only on its inputs.
std::uint64_t mix(std::uint64_t x) {
  x += 0x9e3779b97f4a7c15ULL;
  x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9ULL;
  x = (x ^ (x >> 27)) * 0x94d049bb133111ebULL;
  return x ^ (x >> 31);
}

// A uniform value in (0, 1) from a key.
double uniform(std::uint64_t key) {
  return (static_cast<double>(mix(key) >> 11) + 0.5) * (1.0 / 9007199254740992.0);
}

// A standard normal value from a key (Box-Muller), cut to [-2.5, 2.5].
double normal(std::uint64_t key) {
  const double u1 = uniform(key * 2 + 1), u2 = uniform(key * 2 + 2);
  const double g = std::sqrt(-2.0 * std::log(u1)) * std::cos(2.0 * std::numbers::pi * u2);
  return std::clamp(g, -2.5, 2.5);
}

constexpr int kUnits = 5;              // geological units from top: aquifer, aquitard, ...
constexpr double kLogAquifer = -0.5;   // log10 K (m/day) of an aquifer unit
constexpr double kLogAquitard = -5.5;  // log10 K (m/day) of an aquitard unit
constexpr double kUnitSpread = 0.5;    // unit-to-unit shift of log10 K, at most
constexpr double kCellSigma = 0.3;     // in-unit standard deviation of log10 K

constexpr double kHeadLeft = 100.0, kHeadRight = 95.0;  // fixed heads (m)
constexpr double kRecharge = 1.0e-3;                    // m/day on the top layer
constexpr double kWellRate = 400.0;                     // m^3/day

// Harmonic mean of two conductivities.
double harmonic(double k1, double k2) { return 2.0 * k1 * k2 / (k1 + k2); }

}  // namespace

// ---------------------------------------------------------------------------
// Conductivity: layer k = 0 is the top. The unit of a cell follows its depth,
// with the unit boundaries undulating gently over the plane; log10 K is the
// unit's base value, a per-unit shift and a per-cell normal deviation.
// ---------------------------------------------------------------------------
std::vector<double> groundwater_conductivity(int nx, int ny, int nz, std::uint64_t seed) {
  std::vector<double> kc(static_cast<std::size_t>(nx) * ny * nz);
  double shift[kUnits];
  for (int u = 0; u < kUnits; ++u)
    shift[u] = kUnitSpread * (2.0 * uniform(mix(seed) ^ (0x51ed27ULL + u)) - 1.0);
  const double phase = 2.0 * std::numbers::pi * uniform(mix(seed + 7));
  const double amp = 0.3 * nz / kUnits;  // undulation in layers
  std::size_t c = 0;
  for (int k = 0; k < nz; ++k)
    for (int j = 0; j < ny; ++j)
      for (int i = 0; i < nx; ++i, ++c) {
        const double xs = static_cast<double>(i) / nx, ys = static_cast<double>(j) / ny;
        const double undulation =
            amp * std::sin(2.0 * std::numbers::pi * 1.3 * xs + phase) * std::cos(2.0 * std::numbers::pi * 0.7 * ys);
        const double depth = (k + 0.5 + undulation) * kUnits / nz;
        const int u = std::clamp(static_cast<int>(std::floor(depth)), 0, kUnits - 1);
        const double base = (u % 2 == 0 ? kLogAquifer : kLogAquitard) + shift[u];
        const double logk = base + kCellSigma * normal(mix(seed ^ 0xc0ffeeULL) + c);
        kc[c] = std::pow(10.0, logk);
      }
  return kc;
}

// Two vertical strips of fixed head: on the face x = 0 and on the face x = max,
// over the middle third of y and the upper half of z (at least one cell each).
bool groundwater_fixed_head(int nx, int ny, int nz, int i, int j, int k, double& head) {
  const int jlo = ny / 3, jhi = std::max(jlo + 1, (2 * ny) / 3);  // j in [jlo, jhi)
  const int khi = std::max(1, nz / 2);                            // k in [0, khi)
  if (j < jlo || j >= jhi || k >= khi) return false;
  if (i == 0) {
    head = kHeadLeft;
    return true;
  }
  if (i == nx - 1) {
    head = kHeadRight;
    return true;
  }
  return false;
}

void groundwater_problem(int nx, int ny, int nz, std::uint64_t seed, GroundwaterModel& g) {
  g = GroundwaterModel{};
  g.nx = nx;
  g.ny = ny;
  g.nz = nz;
  const std::size_t ncell = static_cast<std::size_t>(nx) * ny * nz;
  g.kcell = groundwater_conductivity(nx, ny, nz, seed);
  g.unknown.assign(ncell, 0);
  g.hfixed.assign(ncell, 0.0);

  // ---- fixed-head cells, unknown numbers in cell order
  int nnu = 0;
  std::size_t c = 0;
  for (int k = 0; k < nz; ++k)
    for (int j = 0; j < ny; ++j)
      for (int i = 0; i < nx; ++i, ++c) {
        double h = 0.0;
        if (groundwater_fixed_head(nx, ny, nz, i, j, k, h)) {
          g.hfixed[c] = h;
          ++g.nfixed;
        } else {
          g.unknown[c] = ++nnu;
        }
      }

  // ---- rows: diagonal, then the active neighbours in ascending cell (and
  // hence unknown) order: -z, -y, -x, +x, +y, +z.
  CsrMatrix& m = g.m;
  m.nnu = nnu;
  m.ia.assign(static_cast<std::size_t>(nnu) + 1, 0);
  m.ja.clear();
  m.a.clear();
  m.ja.reserve(static_cast<std::size_t>(nnu) * 7);
  m.a.reserve(static_cast<std::size_t>(nnu) * 7);
  g.f.assign(static_cast<std::size_t>(nnu), 0.0);
  const std::ptrdiff_t sx = 1, sy = nx, sz = static_cast<std::ptrdiff_t>(nx) * ny;
  const double tx = kGwDy * kGwDz / kGwDx, ty = kGwDx * kGwDz / kGwDy, tz = kGwDx * kGwDy / kGwDz;
  c = 0;
  for (int k = 0; k < nz; ++k)
    for (int j = 0; j < ny; ++j)
      for (int i = 0; i < nx; ++i, ++c) {
        const int row = g.unknown[c];
        if (row == 0) continue;
        struct Nb {
          bool exists;
          std::ptrdiff_t off;
          double t;
        };
        const Nb nb[6] = {{k > 0, -sz, tz},      {j > 0, -sy, ty},      {i > 0, -sx, tx},
                          {i < nx - 1, sx, tx}, {j < ny - 1, sy, ty}, {k < nz - 1, sz, tz}};
        m.ia[row - 1] = static_cast<int>(m.ja.size()) + 1;
        const std::size_t head = m.ja.size();
        m.ja.push_back(row);
        m.a.push_back(0.0);
        double diag = 0.0, rhs = 0.0;
        for (const Nb& n : nb) {
          if (!n.exists) continue;
          const std::size_t d = static_cast<std::size_t>(static_cast<std::ptrdiff_t>(c) + n.off);
          const double cond = n.t * harmonic(g.kcell[c], g.kcell[d]);
          diag += cond;
          if (g.unknown[d] == 0) {
            rhs += cond * g.hfixed[d];
          } else {
            m.ja.push_back(g.unknown[d]);
            m.a.push_back(-cond);
          }
        }
        m.a[head] = diag;
        if (k == 0) rhs += kRecharge * kGwDx * kGwDy;
        g.f[static_cast<std::size_t>(row) - 1] = rhs;
      }
  m.ia[static_cast<std::size_t>(nnu)] = static_cast<int>(m.ja.size()) + 1;
  m.nna = static_cast<int>(m.ja.size());

  // ---- wells: four columns at the quarter points, screened in the most
  // conductive cell of the column; three pump, one injects.
  const int wi[4] = {nx / 4, (3 * nx) / 4, nx / 4, (3 * nx) / 4};
  const int wj[4] = {ny / 4, (3 * ny) / 4, (3 * ny) / 4, ny / 4};
  const double rate[4] = {-kWellRate, -kWellRate, 0.5 * kWellRate, -0.5 * kWellRate};
  for (int w = 0; w < 4; ++w) {
    std::size_t best = ncell;
    for (int k = 0; k < nz; ++k) {
      const std::size_t cc = static_cast<std::size_t>(wi[w]) + nx * (static_cast<std::size_t>(wj[w]) + static_cast<std::size_t>(ny) * k);
      if (g.unknown[cc] != 0 && (best == ncell || g.kcell[cc] > g.kcell[best])) best = cc;
    }
    if (best == ncell) continue;
    g.f[static_cast<std::size_t>(g.unknown[best]) - 1] += rate[w];
    ++g.nwells;
  }
}

}  // namespace kornlt
