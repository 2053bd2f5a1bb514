// korn-bench-stream: memory bandwidth by the STREAM triad a(i) = b(i) + s*c(i)
// on T OpenMP threads, counted as 24 bytes per element (two reads, one
// write; the write-allocate read is not counted, as in STREAM). Prints the
// best of the trials as one result line.
#include <omp.h>

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include "measure.hpp"

int main(int argc, char** argv) {
  int threads = 0, mb = 160, trials = 10;
  for (int k = 1; k + 1 < argc; k += 2) {
    const std::string arg = argv[k], val = argv[k + 1];
    int v = 0;
    const auto r = std::from_chars(val.data(), val.data() + val.size(), v);
    if (r.ec != std::errc() || v < 1) {
      std::fprintf(stderr, "korn-bench-stream: bad value '%s' of %s\n", val.c_str(), arg.c_str());
      return 2;
    }
    if (arg == "--threads") {
      threads = v;
    } else if (arg == "--mb") {
      mb = v;
    } else if (arg == "--trials") {
      trials = v;
    } else {
      std::fprintf(stderr, "usage: korn-bench-stream [--threads T] [--mb MB per array] [--trials N]\n");
      return 2;
    }
  }
  if (threads > 0) omp_set_num_threads(threads);
  const int nt = threads > 0 ? threads : omp_get_max_threads();
  const long n = static_cast<long>(mb) * 1024 * 1024 / 8;
  std::unique_ptr<double[]> a(new double[static_cast<std::size_t>(n)]);
  std::unique_ptr<double[]> b(new double[static_cast<std::size_t>(n)]);
  std::unique_ptr<double[]> c(new double[static_cast<std::size_t>(n)]);
  double* pa = a.get();
  double* pb = b.get();
  double* pc = c.get();
  // First touch by the threads that use the pages.
#pragma omp parallel for schedule(static)
  for (long i = 0; i < n; ++i) {
    pa[i] = 0.0;
    pb[i] = 1.0;
    pc[i] = 2.0;
  }
  const double s = 3.0;
  double best = 1e300;
  for (int t = 0; t < trials; ++t) {
    const double t0 = kornbench::wall_seconds();
#pragma omp parallel for schedule(static)
    for (long i = 0; i < n; ++i) pa[i] = pb[i] + s * pc[i];
    best = std::min(best, kornbench::wall_seconds() - t0);
  }
  // Keep the result alive.
  double check = 0.0;
  for (long i = 0; i < n; i += 4096) check += pa[i];
  const double gbs = 24.0 * static_cast<double>(n) / best * 1e-9;
  kornbench::ResultLine line;
  line.put("solver", "stream").put("threads", nt).put("n", n).put("best", best).put("gbs", gbs);
  line.put("check", check).print("triad");
  return 0;
}
