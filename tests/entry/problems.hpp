// Small model problems for the tests of the entries: CSR with 1-based
// content and the diagonal first in every row.
#pragma once

#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "korn.h"
#include "log/log.hpp"
#include "log/test_support.hpp"
#include "params/params.hpp"

namespace korn_test {

struct Csr {
  int nnu = 0;
  std::vector<int> ia{1}, ja;
  std::vector<double> a;
  int nna() const { return static_cast<int>(ja.size()); }
  void add(int j, double v) {
    ja.push_back(j);
    a.push_back(v);
  }
  void end_row() { ia.push_back(static_cast<int>(ja.size()) + 1); }
};

// Five-point Laplacian on an n x n grid, Dirichlet boundary.
inline Csr poisson2d(int n) {
  Csr m;
  m.nnu = n * n;
  for (int y = 0; y < n; ++y)
    for (int x = 0; x < n; ++x) {
      const int i = y * n + x + 1;
      m.add(i, 4.0);
      if (x > 0) m.add(i - 1, -1.0);
      if (x < n - 1) m.add(i + 1, -1.0);
      if (y > 0) m.add(i - n, -1.0);
      if (y < n - 1) m.add(i + n, -1.0);
      m.end_row();
    }
  return m;
}

// All arguments of the core call, with defaults for a scalar problem.
struct CoreArgs {
  Csr m;
  std::vector<double> f, u;
  int nsys = 1, iu = 0, ndiu = 1, ip = 0, ndip = 1, matrix = 12, iscale = 0;
  double res_in = -1.0, res_out = -1.0;
  int ncyc_done = -1, ierr = -999;
  int nsolve = 0, ifirst = 0;
  double eps = 1e-8;
  int ncyc = 0, iswit = 5;
  double a_cmplx = 0.0, g_cmplx = 0.0, p_cmplx = 0.0, w_avrge = 0.0, chktol = -1.0;
  int idump = -1, iout = -1;  // quiet: no report, no table

  explicit CoreArgs(Csr mat) : m(std::move(mat)), f(static_cast<std::size_t>(m.nnu), 1.0),
                               u(static_cast<std::size_t>(m.nnu), 0.0) {}

  int call() {
    int nna = m.nna();
    korn(&m.nnu, &nna, &nsys, m.ia.data(), m.ja.data(), m.a.data(), f.data(), u.data(), &iu, &ndiu, &ip,
         &ndip, &matrix, &iscale, &res_in, &res_out, &ncyc_done, &ierr, &nsolve, &ifirst, &eps, &ncyc, &iswit,
         &a_cmplx, &g_cmplx, &p_cmplx, &w_avrge, &chktol, &idump, &iout);
    return ierr;
  }
};

// Sends the library's log (unit logio) to a temporary file while alive.
class LogCapture {
 public:
  LogCapture() : path_(temp_path("log")) {
    kornlt::attach_unit(kUnit, path_.string(), false);
    kornlt::prm().logio = kUnit;
    kornlt::diag().msg_unit = kUnit;
  }
  ~LogCapture() {
    kornlt::prm().logio = 6;
    kornlt::diag().msg_unit = 6;
    kornlt::detach_unit(kUnit);
    std::error_code ec;
    std::filesystem::remove(path_, ec);
  }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;
  std::string text() const {
    std::fflush(kornlt::unit_stream(kUnit));
    return read_file(path_);
  }

 private:
  static constexpr int kUnit = 81;
  std::filesystem::path path_;
};

}  // namespace korn_test
