// Sparse Gauss elimination of the coarsest level: minimum degree ordering on
// the explicit elimination graph, and a left-looking LU (one sparse
// triangular solve per column, its pattern found by a depth-first search
// through the columns of L) with threshold partial pivoting.
//
// Why this form: coarsest levels have some tens to a few thousand rows and are
// factorised once per setup and solved once per cycle. Their matrices are
// mostly SPD or M-matrices, for which the diagonal pivot is always stable, so
// the symmetric fill-reducing order of A + A^T is kept as long as the diagonal
// is within `threshold` of the largest candidate; anything else (weak or zero
// diagonals of a non-symmetric level) still factorises, by row pivoting.
#include "solve/sparse_lu.hpp"

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <functional>
#include <new>
#include <queue>
#include <utility>

namespace kornlt {

std::vector<int> minimum_degree_order(const CscMatrix& a, std::int64_t& lcount) {
  const int n = a.n;
  std::vector<std::vector<int>> adj(static_cast<std::size_t>(n));

  // ---- pattern of A + A^T without the diagonal, sorted and unique ----
  for (int j = 0; j < n; ++j) {
    for (int t = a.cp[j]; t < a.cp[j + 1]; ++t) {
      const int i = a.ri[t];
      if (i == j) continue;
      adj[i].push_back(j);
      adj[j].push_back(i);
    }
  }
  for (auto& l : adj) {
    std::sort(l.begin(), l.end());
    l.erase(std::unique(l.begin(), l.end()), l.end());
  }

  // ---- elimination: the node of least current degree goes next ----
  using Entry = std::pair<int, int>;  // (degree, node)
  std::priority_queue<Entry, std::vector<Entry>, std::greater<Entry>> heap;
  std::vector<int> degree(static_cast<std::size_t>(n));
  for (int i = 0; i < n; ++i) {
    degree[i] = static_cast<int>(adj[i].size());
    heap.push({degree[i], i});
  }
  std::vector<char> gone(static_cast<std::size_t>(n), 0);
  std::vector<int> seen(static_cast<std::size_t>(n), -1);  // stamp of the list being merged
  std::vector<int> merged;
  std::vector<int> order;
  order.reserve(static_cast<std::size_t>(n));
  lcount = 0;
  int stamp = 0;
  while (!heap.empty()) {
    const auto [d, p] = heap.top();
    heap.pop();
    if (gone[p] || d != degree[p]) continue;  // eliminated, or an outdated entry
    const int remaining = n - static_cast<int>(order.size());
    if (d == remaining - 1 && remaining > 2) {
      // The rest is one clique: every order has the same fill, and no more
      // merging is needed. Its nodes go in index order.
      for (int i = 0; i < n; ++i)
        if (!gone[i]) order.push_back(i);
      lcount += static_cast<std::int64_t>(remaining) * (remaining - 1) / 2;
      break;
    }
    gone[p] = 1;
    order.push_back(p);
    lcount += d;
    // The neighbours of p become a clique: adj(q) := adj(q) - {p} + adj(p) - {q}.
    // Every list holds uneliminated nodes only.
    const std::vector<int>& np = adj[p];
    for (const int q : np) {
      ++stamp;
      merged.clear();
      for (const int r : adj[q]) {
        if (r == p) continue;
        seen[r] = stamp;
        merged.push_back(r);
      }
      for (const int r : np) {
        if (r == q || seen[r] == stamp) continue;
        merged.push_back(r);
      }
      adj[q].assign(merged.begin(), merged.end());
      degree[q] = static_cast<int>(merged.size());
      heap.push({degree[q], q});
    }
    std::vector<int>().swap(adj[p]);
  }
  return order;
}

bool spg_alloc(const CscMatrix& a, SparseLU& f) {
  try {
    f = SparseLU{};
    f.n = a.n;
    f.q = minimum_degree_order(a, f.predicted_l);
    f.pinv.assign(static_cast<std::size_t>(a.n), -1);
    f.lp.assign(static_cast<std::size_t>(a.n) + 1, 0);
    f.up.assign(static_cast<std::size_t>(a.n) + 1, 0);
    f.li.reserve(static_cast<std::size_t>(f.predicted_l));
    f.lx.reserve(static_cast<std::size_t>(f.predicted_l));
    f.ui.reserve(static_cast<std::size_t>(f.predicted_l + a.n));
    f.ux.reserve(static_cast<std::size_t>(f.predicted_l + a.n));
  } catch (const std::bad_alloc&) {
    f = SparseLU{};
    return false;
  }
  return true;
}

namespace {

// Work arrays of the numeric phase.
struct LuWork {
  std::vector<double> x;    // the column being eliminated, by rows of A
  std::vector<int> xi;      // reach of the column: xi[top..n-1] in topological order
  std::vector<int> stack;   // depth-first search: nodes
  std::vector<int> next;    // and the next child position of each
  std::vector<int> mark;    // column stamp of the nodes visited
  std::vector<double> rowmax, colmax;  // scales of A
};

// The rows that the solve L x = A(:, j) touches, in topological order, into
// w.xi[top..n-1]; returns top. A row that is not yet pivotal is a leaf; a
// pivotal row i leads to the rows of column pinv[i] of L.
int reach(const CscMatrix& a, const SparseLU& f, int j, int stamp, LuWork& w) {
  const int n = a.n;
  int top = n;
  for (int t = a.cp[j]; t < a.cp[j + 1]; ++t) {
    const int start = a.ri[t];
    if (w.mark[start] == stamp) continue;
    int head = 0;
    w.stack[0] = start;
    while (head >= 0) {
      const int i = w.stack[head];
      const int kk = f.pinv[i];
      if (w.mark[i] != stamp) {
        w.mark[i] = stamp;
        w.next[head] = kk < 0 ? 0 : f.lp[kk];
      }
      const int end = kk < 0 ? 0 : f.lp[kk + 1];
      bool done = true;
      for (int s = w.next[head]; s < end; ++s) {
        const int r = f.li[s];
        if (w.mark[r] == stamp) continue;
        w.next[head] = s + 1;  // resume after this child
        w.stack[++head] = r;
        done = false;
        break;
      }
      if (done) {
        --head;
        w.xi[--top] = i;
      }
    }
  }
  return top;
}

}  // namespace

bool spg_lufact(const CscMatrix& a, SparseLU& f, double threshold, int& bad_column) {
  const int n = a.n;
  bad_column = -1;
  LuWork w;
  try {
    w.x.assign(static_cast<std::size_t>(n), 0.0);
    w.xi.assign(static_cast<std::size_t>(n), 0);
    w.stack.assign(static_cast<std::size_t>(n), 0);
    w.next.assign(static_cast<std::size_t>(n), 0);
    w.mark.assign(static_cast<std::size_t>(n), -1);
    w.rowmax.assign(static_cast<std::size_t>(n), 0.0);
    w.colmax.assign(static_cast<std::size_t>(n), 0.0);
  } catch (const std::bad_alloc&) {
    bad_column = -2;
    return false;
  }
  for (int j = 0; j < n; ++j) {
    for (int t = a.cp[j]; t < a.cp[j + 1]; ++t) {
      const double v = std::abs(a.ax[t]);
      w.colmax[j] = std::max(w.colmax[j], v);
      w.rowmax[a.ri[t]] = std::max(w.rowmax[a.ri[t]], v);
    }
  }
  std::fill(f.pinv.begin(), f.pinv.end(), -1);
  f.li.clear();
  f.lx.clear();
  f.ui.clear();
  f.ux.clear();
  f.off_diagonal_pivots = 0;
  const double small = static_cast<double>(n) * DBL_EPSILON;

  try {
    for (int k = 0; k < n; ++k) {
      const int j = f.q[k];
      f.lp[k] = static_cast<int>(f.li.size());
      f.up[k] = static_cast<int>(f.ui.size());

      // ---- x := L^{-1} A(:, j) on the reach of the column ----
      const int top = reach(a, f, j, k, w);
      for (int p = top; p < n; ++p) w.x[w.xi[p]] = 0.0;
      for (int t = a.cp[j]; t < a.cp[j + 1]; ++t) w.x[a.ri[t]] = a.ax[t];
      for (int p = top; p < n; ++p) {
        const int i = w.xi[p];
        const int kk = f.pinv[i];
        if (kk < 0) continue;
        const double xv = w.x[i];
        if (xv == 0.0) continue;
        const int end = f.lp[kk + 1];
        for (int t = f.lp[kk]; t < end; ++t) w.x[f.li[t]] -= f.lx[t] * xv;
      }

      // ---- U(:, k) and the pivot among the rows not yet pivotal ----
      int ipiv = -1;
      double amax = 0.0;
      for (int p = top; p < n; ++p) {
        const int i = w.xi[p];
        const double xv = w.x[i];
        if (f.pinv[i] < 0) {
          if (std::abs(xv) > amax || ipiv < 0) {
            amax = std::abs(xv);
            ipiv = i;
          }
        } else {
          f.ui.push_back(f.pinv[i]);
          f.ux.push_back(xv);
        }
      }
      if (f.pinv[j] < 0 && std::abs(w.x[j]) >= threshold * amax && w.x[j] != 0.0) {
        ipiv = j;
      } else if (ipiv >= 0 && ipiv != j) {
        ++f.off_diagonal_pivots;
      }
      const double pivot = ipiv < 0 ? 0.0 : w.x[ipiv];
      if (ipiv < 0 || !std::isfinite(pivot) ||
          std::abs(pivot) <= small * std::min(w.rowmax[ipiv], w.colmax[j])) {
        bad_column = j;
        for (int p = top; p < n; ++p) w.x[w.xi[p]] = 0.0;
        return false;
      }
      f.ui.push_back(k);
      f.ux.push_back(pivot);
      f.pinv[ipiv] = k;

      // ---- L(:, k): the remaining candidates over the pivot ----
      for (int p = top; p < n; ++p) {
        const int i = w.xi[p];
        if (f.pinv[i] < 0) {
          f.li.push_back(i);
          f.lx.push_back(w.x[i] / pivot);
        }
        w.x[i] = 0.0;
      }
    }
  } catch (const std::bad_alloc&) {
    bad_column = -2;
    return false;
  }
  f.lp[n] = static_cast<int>(f.li.size());
  f.up[n] = static_cast<int>(f.ui.size());
  // Rows of L in factor numbering, for the solve.
  for (int& i : f.li) i = f.pinv[i];
  return true;
}

void spg_solve(const SparseLU& f, double* b, double* work) {
  const int n = f.n;
  double* y = work;
  for (int i = 0; i < n; ++i) y[f.pinv[i]] = b[i];
  // L y = P b, unit diagonal, by columns.
  for (int k = 0; k < n; ++k) {
    const double yk = y[k];
    if (yk == 0.0) continue;
    const int end = f.lp[k + 1];
    for (int t = f.lp[k]; t < end; ++t) y[f.li[t]] -= f.lx[t] * yk;
  }
  // U z = y by columns, the diagonal last in each.
  for (int k = n - 1; k >= 0; --k) {
    const int last = f.up[k + 1] - 1;
    const double zk = y[k] / f.ux[last];
    y[k] = zk;
    if (zk == 0.0) continue;
    for (int t = f.up[k]; t < last; ++t) y[f.ui[t]] -= f.ux[t] * zk;
  }
  for (int k = 0; k < n; ++k) b[f.q[k]] = y[k];
}

}  // namespace kornlt
