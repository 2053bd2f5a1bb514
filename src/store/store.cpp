// The hierarchy store: level bounds, dimension estimate, memory counters.
#include <cmath>
#include <limits>

#include "control/control.hpp"
#include "log/log.hpp"
#include "params/params.hpp"
#include "store/store.hpp"

namespace kornlt {

StoreState& store() {
  static StoreState s;
  return s;
}

namespace {

// c = trunc(factor * 1.001 * n) when factor >= 1, else trunc(1.1 * n); raised
// to n + 1; an overflow (result below n) gives `ihuge` with a message.
int estimate(double factor, int n, int ihuge, const char* name) {
  const double c = factor >= 1.0 ? std::trunc(factor * 1.001 * n) : std::trunc(1.1 * n);
  double v = c <= n + 1.0 ? n + 1.0 : c;
  if (v > static_cast<double>(std::numeric_limits<int>::max()) || v < n) {
    print_message(kMsgWarning, 0, 0,
                  std::string("Potential integer overflow for ") + name + " in (korn_dimensions)");
    return ihuge;
  }
  return std::min(static_cast<int>(v), ihuge);
}

void raise_to(int& dim, int estimate_value, const char* workspace) {
  if (dim >= estimate_value) return;
  if (bool(prm().info_keepmem))
    print_message(kMsgInfo, 0, 0,
                  std::string(dim < 1 ? "New-allocation " : "Re-allocation ") + workspace +
                      " will be required !");
  dim = estimate_value;
}

}  // namespace

void korn_dimensions(const DimensionArgs& d) {
  Params& p = prm();
  StoreState& st = store();
  if (p.ihuge <= 0) p.ihuge = 2147483646;
  const int ihuge = p.ihuge;
  if (d.nnu > ihuge) {
    fail(kErrDimension, "ihuge too small: ihuge < nnu in (korn_dimensions)");
    return;
  }
  if (d.nna > ihuge) {
    fail(kErrDimension, "ihuge too small: ihuge < nna in (korn_dimensions)");
    return;
  }

  int nda = d.nna, ndu = d.nnu, ndw = 0, ndv = d.npnts;
  if (!d.one_level) {
    nda = estimate(d.a_cmplx, d.nna, ihuge, "nda");
    ndu = estimate(d.g_cmplx, d.nnu, ihuge, "ndu");
    const double c = d.w_avrge >= 1.0 ? std::trunc(d.w_avrge * 1.005 * ndu) : std::trunc(1.1 * ndu);
    if (c < d.nnu || c > static_cast<double>(std::numeric_limits<int>::max())) {
      print_message(kMsgWarning, 0, 0, "Potential integer overflow for ndw in (korn_dimensions)");
      ndw = ihuge;
    } else {
      ndw = std::min(static_cast<int>(c), ihuge);
    }
    if (d.npnts > 0) ndv = estimate(d.p_cmplx, d.npnts, ihuge, "ndv");
  }

  const bool full_restart = (d.run_mode_digit == 4 && !bool(p.keepmem)) || d.run_mode_digit == 5;
  korn_cleanup("in_korn_dimensions", !full_restart);
  if (failed()) return;

  if (full_restart) {
    st.memd = static_cast<std::int64_t>(d.nna) + 2LL * d.nnu;
    st.memi = static_cast<std::int64_t>(d.nnu) + d.nna + (d.nsys > 1 ? d.nnu : 0) + (d.npnts > 0 ? d.nnu : 0);
    st.nda = nda;
    st.ndu = ndu;
    st.ndw = ndw;
    st.ndv = ndv;
  } else {
    raise_to(st.nda, nda, "a_wkspace");
    raise_to(st.ndw, ndw, "w_wkspace");
    raise_to(st.ndv, ndv, "v_wkspace");
    raise_to(st.ndu, ndu, "u_wkspace");
  }
  st.maxeff = st.maxcyc = st.watermark();
}

}  // namespace kornlt
