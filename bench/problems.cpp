// Benchmark problems generated row by row: the seven- and 27-point Laplacians,
// the anisotropic 2D operator and a layered groundwater operator, plus Matrix
// Market files through the library's reader.
#include "problems.hpp"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <fstream>
#include <numbers>
#include <sstream>

#include "io/io.hpp"

namespace kornbench {

namespace {

// splitmix64: a well-mixed hash, so every value depends only on its key.
std::uint64_t mix(std::uint64_t x) {
  x += 0x9e3779b97f4a7c15ULL;
  x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9ULL;
  x = (x ^ (x >> 27)) * 0x94d049bb133111ebULL;
  return x ^ (x >> 31);
}

// Uniform in (0, 1).
double uniform(std::uint64_t key) {
  return (static_cast<double>(mix(key) >> 11) + 0.5) * (1.0 / 9007199254740992.0);
}

// Standard normal (Box-Muller), cut to [-2.5, 2.5].
double normal(std::uint64_t key) {
  const double u1 = uniform(2 * key + 1), u2 = uniform(2 * key + 2);
  return std::clamp(std::sqrt(-2.0 * std::log(u1)) * std::cos(2.0 * std::numbers::pi * u2), -2.5, 2.5);
}

bool parse_int(const std::string& s, int& v) {
  const auto r = std::from_chars(s.data(), s.data() + s.size(), v);
  return !s.empty() && r.ec == std::errc() && r.ptr == s.data() + s.size();
}

bool parse_real(const std::string& s, double& v) {
  const auto r = std::from_chars(s.data(), s.data() + s.size(), v);
  return !s.empty() && r.ec == std::errc() && r.ptr == s.data() + s.size() && std::isfinite(v);
}

// Appends one row: the diagonal first, then the off-diagonal columns
// ascending. `cols` holds (column, value) pairs of the off-diagonal entries,
// already in ascending order.
struct RowBuilder {
  Rows& r;
  void add(int row1, double diag, const std::vector<std::pair<int, double>>& cols, double rhs) {
    r.ja.push_back(row1);
    r.a.push_back(diag);
    for (const auto& [c, v] : cols) {
      r.ja.push_back(c);
      r.a.push_back(v);
    }
    r.ia.push_back(static_cast<int>(r.ja.size()) + 1);
    r.f.push_back(rhs);
  }
};

void start_rows(Rows& r, std::int64_t nglobal, int lo, int hi, std::size_t per_row) {
  r.nglobal = nglobal;
  r.lo = lo;
  r.hi = hi;
  r.ia.assign(1, 1);
  r.ia.reserve(static_cast<std::size_t>(hi - lo) + 1);
  r.ja.clear();
  r.a.clear();
  r.f.clear();
  r.ja.reserve(static_cast<std::size_t>(hi - lo) * per_row);
  r.a.reserve(static_cast<std::size_t>(hi - lo) * per_row);
  r.f.reserve(static_cast<std::size_t>(hi - lo));
  r.symmetric = true;
}

// ---- 3D Laplacians: stencil offsets with |di|,|dj|,|dk| <= 1; the seven-point
// one uses the six face neighbours, the 27-point one all 26.
void laplace3d(int n, bool full27, int lo, int hi, Rows& r) {
  const std::int64_t nn = static_cast<std::int64_t>(n) * n * n;
  start_rows(r, nn, lo, hi, full27 ? 27 : 7);
  RowBuilder b{r};
  std::vector<std::pair<int, double>> cols;
  for (int row = lo; row < hi; ++row) {
    const int i = row % n, j = (row / n) % n, k = row / (n * n);
    cols.clear();
    // Offsets in ascending order of the column number: dk, then dj, then di.
    for (int dk = -1; dk <= 1; ++dk)
      for (int dj = -1; dj <= 1; ++dj)
        for (int di = -1; di <= 1; ++di) {
          if (di == 0 && dj == 0 && dk == 0) continue;
          if (!full27 && std::abs(di) + std::abs(dj) + std::abs(dk) != 1) continue;
          const int ii = i + di, jj = j + dj, kk = k + dk;
          if (ii < 0 || ii >= n || jj < 0 || jj >= n || kk < 0 || kk >= n) continue;
          cols.emplace_back(ii + n * (jj + n * kk) + 1, -1.0);
        }
    b.add(row + 1, full27 ? 26.0 : 6.0, cols, random_rhs(row));
  }
  r.title = std::string(full27 ? "3D 27-point Poisson " : "3D seven-point Poisson ") + std::to_string(n) + "^3";
}

// ---- 2D anisotropic five-point operator -eps u_xx - u_yy.
void aniso2d(int n, double eps, int lo, int hi, Rows& r) {
  const std::int64_t nn = static_cast<std::int64_t>(n) * n;
  start_rows(r, nn, lo, hi, 5);
  RowBuilder b{r};
  std::vector<std::pair<int, double>> cols;
  for (int row = lo; row < hi; ++row) {
    const int i = row % n, j = row / n;
    cols.clear();
    if (j > 0) cols.emplace_back(row - n + 1, -1.0);
    if (i > 0) cols.emplace_back(row, -eps);
    if (i < n - 1) cols.emplace_back(row + 2, -eps);
    if (j < n - 1) cols.emplace_back(row + n + 1, -1.0);
    b.add(row + 1, 2.0 + 2.0 * eps, cols, random_rhs(row));
  }
  std::ostringstream t;
  t << "2D five-point anisotropic (eps " << eps << ") " << n << "^2";
  r.title = t.str();
}

// ---- Groundwater: steady flow on an n^3 grid of unit cells,
//   sum over faces T_f (h_cell - h_neighbour) = q_cell.
// log10 K of a cell is its layer's mean plus a normal deviation (sigma 0.5),
// cut to [-4, 4]. Layers are max(2, n/10) horizontal slabs; their means
// alternate between aquifers (+1..+4) and aquitards (-4..-1), so neighbouring
// layers differ by 1e2 to 1e8. T_f is the harmonic mean of the two cells' K.
// Fixed-head cells: two 3x3 patches (smaller below n = 6) of the top layer at
// opposite corners,
// head 0; such a row keeps only its diagonal (the sum of its conductances)
// and its neighbours keep the coupling in their diagonals (the head being 0,
// nothing moves to the right-hand side), so the matrix stays symmetric and
// positive definite. Sources: recharge 1e-3 per top cell, and four wells in
// the middle layer at the quarter points.
constexpr std::uint64_t kGwSeed = 20131022;

double gw_log10k(int n, int i, int j, int k) {
  const int nlay = std::max(2, n / 10);
  const int layer = std::min(nlay - 1, k * nlay / n);
  const double mag = 1.0 + 3.0 * uniform(mix(kGwSeed) ^ (0xa5a5ULL + static_cast<std::uint64_t>(layer)));
  const double mean = (layer % 2 == 0) ? mag : -mag;
  const std::uint64_t cell = static_cast<std::uint64_t>(i) + static_cast<std::uint64_t>(n) *
                                 (static_cast<std::uint64_t>(j) + static_cast<std::uint64_t>(n) * k);
  return std::clamp(mean + 0.5 * normal(mix(kGwSeed ^ 0x5eedULL) + cell), -4.0, 4.0);
}

bool gw_fixed(int n, int i, int j, int k) {
  if (k != n - 1) return false;
  const int w = std::max(1, std::min(3, n / 2));
  return (i < w && j < w) || (i >= n - w && j >= n - w);
}

void groundwater(int n, int lo, int hi, Rows& r) {
  const std::int64_t nn = static_cast<std::int64_t>(n) * n * n;
  start_rows(r, nn, lo, hi, 7);
  RowBuilder b{r};
  std::vector<std::pair<int, double>> cols;
  const double recharge = 1.0e-3;
  const double qw = recharge * n * n / 4.0;
  const int wi[4] = {n / 4, (3 * n) / 4, n / 4, (3 * n) / 4};
  const int wj[4] = {n / 4, (3 * n) / 4, (3 * n) / 4, n / 4};
  const double wq[4] = {-qw, -qw, 0.5 * qw, -0.5 * qw};
  for (int row = lo; row < hi; ++row) {
    const int i = row % n, j = (row / n) % n, k = row / (n * n);
    const double kc = std::pow(10.0, gw_log10k(n, i, j, k));
    const bool fixed = gw_fixed(n, i, j, k);
    cols.clear();
    double diag = 0.0;
    const int off[6][3] = {{0, 0, -1}, {0, -1, 0}, {-1, 0, 0}, {1, 0, 0}, {0, 1, 0}, {0, 0, 1}};
    for (const auto& o : off) {
      const int ii = i + o[0], jj = j + o[1], kk = k + o[2];
      if (ii < 0 || ii >= n || jj < 0 || jj >= n || kk < 0 || kk >= n) continue;
      const double kd = std::pow(10.0, gw_log10k(n, ii, jj, kk));
      const double t = 2.0 * kc * kd / (kc + kd);
      diag += t;
      if (!fixed && !gw_fixed(n, ii, jj, kk)) cols.emplace_back(ii + n * (jj + n * kk) + 1, -t);
    }
    double q = 0.0;
    if (!fixed) {
      if (k == n - 1) q += recharge;
      for (int w = 0; w < 4; ++w)
        if (i == wi[w] && j == wj[w] && k == n / 2) q += wq[w];
    }
    b.add(row + 1, diag, cols, q);
  }
  r.title = "3D groundwater " + std::to_string(n) + "^3 (layered lognormal K 1e-4..1e4, 2x9 fixed-head cells)";
}

// ---- Matrix Market: the whole file through the library's reader, then the block.
std::string mtx_rows(const std::string& path, int lo, int hi, Rows& r) {
  kornlt::CsrMatrix m;
  kornlt::MtxInfo info;
  const std::string err = kornlt::mtx_load_matrix(path, m, info);
  if (!err.empty()) return err;
  if (hi < 0) hi = m.nnu;
  if (lo < 0 || lo > hi || hi > m.nnu) return path + ": row block out of range";
  start_rows(r, m.nnu, lo, hi, 0);
  r.symmetric = info.symmetry == kornlt::MtxSymmetry::kSymmetric;
  const int p0 = m.ia[static_cast<std::size_t>(lo)] - 1, p1 = m.ia[static_cast<std::size_t>(hi)] - 1;
  r.ja.assign(m.ja.begin() + p0, m.ja.begin() + p1);
  r.a.assign(m.a.begin() + p0, m.a.begin() + p1);
  r.ia.resize(static_cast<std::size_t>(hi - lo) + 1);
  for (int i = lo; i <= hi; ++i) r.ia[static_cast<std::size_t>(i - lo)] = m.ia[static_cast<std::size_t>(i)] - p0;
  for (int i = lo; i < hi; ++i) r.f.push_back(random_rhs(i));
  r.title = path + " (" + std::to_string(m.nnu) + " rows, " + (r.symmetric ? "symmetric" : "general") + ")";
  return "";
}

}  // namespace

double random_rhs(std::int64_t i) { return 2.0 * uniform(mix(0xb0a7ULL) + static_cast<std::uint64_t>(i)) - 1.0; }

void block_of(std::int64_t n, int rank, int nranks, int& lo, int& hi) {
  const std::int64_t q = n / nranks, rem = n % nranks;
  const std::int64_t l = rank * q + std::min<std::int64_t>(rank, rem);
  lo = static_cast<int>(l);
  hi = static_cast<int>(l + q + (rank < rem ? 1 : 0));
}

std::string parse_problem(const std::string& text, ProblemDef& s) {
  s = ProblemDef{};
  s.text = text;
  const auto colon = text.find(':');
  if (colon == std::string::npos) return "problem '" + text + "': expected KIND:SIZE or mtx:PATH";
  const std::string kind = text.substr(0, colon), rest = text.substr(colon + 1);
  if (kind == "mtx") {
    if (rest.empty()) return "problem '" + text + "': no file name";
    s.kind = Kind::kMtx;
    s.path = rest;
    s.dim = 0;
    return "";
  }
  std::string size = rest, extra;
  const auto c2 = rest.find(':');
  if (c2 != std::string::npos) {
    size = rest.substr(0, c2);
    extra = rest.substr(c2 + 1);
  }
  if (kind == "poisson7") {
    s.kind = Kind::kPoisson7;
  } else if (kind == "poisson27") {
    s.kind = Kind::kPoisson27;
  } else if (kind == "aniso2d") {
    s.kind = Kind::kAniso2d;
    s.dim = 2;
    if (!extra.empty() && (!parse_real(extra, s.eps) || s.eps <= 0.0))
      return "problem '" + text + "': anisotropy must be a positive number";
    extra.clear();
  } else if (kind == "gw") {
    s.kind = Kind::kGroundwater;
  } else {
    return "problem '" + text + "': unknown kind '" + kind + "' (poisson7, poisson27, aniso2d, gw, mtx)";
  }
  if (!extra.empty()) return "problem '" + text + "': unexpected '" + extra + "'";
  const int nmax = s.dim == 2 ? 40000 : 1000;
  if (!parse_int(size, s.n) || s.n < 2 || s.n > nmax)
    return "problem '" + text + "': size must be an integer from 2 to " + std::to_string(nmax);
  return "";
}

std::string problem_size(const ProblemDef& s, std::int64_t& n) {
  switch (s.kind) {
    case Kind::kAniso2d:
      n = static_cast<std::int64_t>(s.n) * s.n;
      return "";
    case Kind::kMtx: {
      std::ifstream in(s.path);
      if (!in) return s.path + ": cannot open";
      std::string line;
      while (std::getline(in, line)) {
        if (line.empty() || line[0] == '%') continue;
        std::istringstream ls(line);
        std::int64_t rows = 0, cols = 0;
        if (!(ls >> rows >> cols) || rows < 1) return s.path + ": no size line";
        n = rows;
        return "";
      }
      return s.path + ": no size line";
    }
    default:
      n = static_cast<std::int64_t>(s.n) * s.n * s.n;
      return "";
  }
}

std::string build_rows(const ProblemDef& s, int lo, int hi, Rows& r) {
  if (s.kind == Kind::kMtx) return mtx_rows(s.path, lo, hi, r);
  std::int64_t n = 0;
  problem_size(s, n);
  if (n > 2000000000) return "problem '" + s.text + "' is too large for 32-bit indices";
  if (hi < 0) hi = static_cast<int>(n);
  if (lo < 0 || lo > hi || hi > n) return "problem '" + s.text + "': row block out of range";
  switch (s.kind) {
    case Kind::kPoisson7:
      laplace3d(s.n, false, lo, hi, r);
      break;
    case Kind::kPoisson27:
      laplace3d(s.n, true, lo, hi, r);
      break;
    case Kind::kAniso2d:
      aniso2d(s.n, s.eps, lo, hi, r);
      break;
    case Kind::kGroundwater:
      groundwater(s.n, lo, hi, r);
      break;
    case Kind::kMtx:
      break;
  }
  return "";
}

}  // namespace kornbench
