// Test support for max-flow tests: grid networks kept as plain capacity
// lists (so an independent solver can be fed the same network), a builder
// that turns them into a VELDSEGraph, random grids, and a reference max-flow
// (Dinic's algorithm on an explicit arc list) with residual reachability.
#ifndef SEGCORE_TESTS_MAXFLOW_REFERENCE_H
#define SEGCORE_TESTS_MAXFLOW_REFERENCE_H

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <queue>
#include <random>
#include <vector>

#include "graph/veldse_graph.h"

namespace maxflow_reference {

// ---------------------------------------------------------------------------
// Test grids: every capacity the builder passes, kept so that an independent
// solver can be fed the same network.

struct TerminalCall {
  int source;
  int sink;
};

struct GridCase {
  int w = 0;
  int h = 0;
  // Per node, four pairs (left, upper-left, up, upper-right): cap, revCap,
  // absent. Border pairs are always absent.
  std::vector<int> cap, revCap;
  std::vector<bool> absent;
  std::vector<std::vector<TerminalCall>> terminals;  // addtWeights calls per node
};

// Neighbour of node i in pair k (left, upper-left, up, upper-right), or -1.
inline int earlierNeighbour(int w, int i, int k) {
  const int r = i / w, c = i % w;
  switch (k) {
    case 0: return c > 0 ? i - 1 : -1;
    case 1: return c > 0 && r > 0 ? i - w - 1 : -1;
    case 2: return r > 0 ? i - w : -1;
    default: return r > 0 && c < w - 1 ? i - w + 1 : -1;
  }
}

inline void build(const GridCase& gc, VELDSEGraph* g) {
  const int n = gc.w * gc.h;
  g->addNode(n);
  for (int i = 0; i < n; ++i) {
    for (int k = 0; k < 4; ++k) {
      const int p = 4 * i + k;
      g->addEdge(i, earlierNeighbour(gc.w, i, k), static_cast<float>(gc.cap[p]), static_cast<float>(gc.revCap[p]),
                 gc.absent[p]);
    }
  }
  for (int i = 0; i < n; ++i) {
    for (const TerminalCall& t : gc.terminals[i]) {
      g->addtWeights(i, static_cast<float>(t.source), static_cast<float>(t.sink));
    }
  }
}

// An empty grid: every pair absent, no terminal links.
inline GridCase emptyGrid(int w, int h) {
  GridCase gc;
  gc.w = w;
  gc.h = h;
  gc.cap.assign(4 * w * h, 0);
  gc.revCap.assign(4 * w * h, 0);
  gc.absent.assign(4 * w * h, true);
  gc.terminals.assign(w * h, {});
  return gc;
}

// Sets the symmetric edge between i and its earlier neighbour in pair k.
inline void setEdge(GridCase* gc, int i, int k, int cap, int revCap) {
  ASSERT_GE(earlierNeighbour(gc->w, i, k), 0);
  gc->cap[4 * i + k] = cap;
  gc->revCap[4 * i + k] = revCap;
  gc->absent[4 * i + k] = false;
}

inline GridCase randomGrid(std::mt19937* rng, int w, int h) {
  auto uni = [rng](int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(*rng); };
  GridCase gc = emptyGrid(w, h);
  const int absentPct = uni(0, 40), zeroPct = uni(0, 30), terminalPct = uni(5, 100);
  const int capMax = uni(1, 12), terminalMax = uni(1, 25);
  for (int i = 0; i < w * h; ++i) {
    for (int k = 0; k < 4; ++k) {
      if (earlierNeighbour(w, i, k) < 0 || uni(1, 100) <= absentPct) continue;
      const int p = 4 * i + k;
      gc.absent[p] = false;
      gc.cap[p] = uni(1, 100) <= zeroPct ? 0 : uni(1, capMax);
      gc.revCap[p] = uni(1, 100) <= zeroPct ? 0 : uni(1, capMax);
    }
    if (uni(1, 100) > terminalPct) continue;
    const int calls = uni(1, 2);
    for (int c = 0; c < calls; ++c) {
      gc.terminals[i].push_back({uni(-5, terminalMax), uni(-5, terminalMax)});
    }
  }
  return gc;
}

// ---------------------------------------------------------------------------
// Reference: Dinic's algorithm on an explicit arc list. Terminal capacities
// enter as s->i and i->t arcs after taking out each node's common part
// min(sum of source, sum of sink), which every s-t cut pays anyway.

class Dinic {
 public:
  explicit Dinic(int n) : adj_(n), level_(n), it_(n) {}

  void addArcPair(int u, int v, int64_t cap, int64_t revCap) {
    adj_[u].push_back(static_cast<int>(to_.size()));
    to_.push_back(v);
    res_.push_back(cap);
    adj_[v].push_back(static_cast<int>(to_.size()));
    to_.push_back(u);
    res_.push_back(revCap);
  }

  int64_t run(int s, int t) {
    int64_t total = 0;
    while (bfs(s, t)) {
      std::fill(it_.begin(), it_.end(), 0);
      while (int64_t f = dfs(s, t, INT64_MAX)) total += f;
    }
    return total;
  }

  // Nodes from which t is reachable over arcs with residual capacity.
  std::vector<bool> reachesSink(int t) const {
    std::vector<bool> seen(adj_.size(), false);
    std::vector<int> stack{t};
    seen[t] = true;
    while (!stack.empty()) {
      const int v = stack.back();
      stack.pop_back();
      for (int a : adj_[v]) {  // a: v->u, so a^1 is u->v
        const int u = to_[a];
        if (!seen[u] && res_[a ^ 1] > 0) {
          seen[u] = true;
          stack.push_back(u);
        }
      }
    }
    return seen;
  }

 private:
  bool bfs(int s, int t) {
    std::fill(level_.begin(), level_.end(), -1);
    std::queue<int> q;
    q.push(s);
    level_[s] = 0;
    while (!q.empty()) {
      const int v = q.front();
      q.pop();
      for (int a : adj_[v]) {
        if (res_[a] > 0 && level_[to_[a]] < 0) {
          level_[to_[a]] = level_[v] + 1;
          q.push(to_[a]);
        }
      }
    }
    return level_[t] >= 0;
  }

  int64_t dfs(int v, int t, int64_t f) {
    if (v == t) return f;
    for (int& k = it_[v]; k < static_cast<int>(adj_[v].size()); ++k) {
      const int a = adj_[v][k];
      const int u = to_[a];
      if (res_[a] <= 0 || level_[u] != level_[v] + 1) continue;
      if (int64_t got = dfs(u, t, std::min(f, res_[a]))) {
        res_[a] -= got;
        res_[a ^ 1] += got;
        return got;
      }
    }
    return 0;
  }

  std::vector<std::vector<int>> adj_;
  std::vector<int> to_;
  std::vector<int64_t> res_;
  std::vector<int> level_, it_;
};

struct Reference {
  int64_t flow;
  std::vector<bool> sinkSide;  // per grid node
};

inline Reference solveReference(const GridCase& gc) {
  const int n = gc.w * gc.h, s = n, t = n + 1;
  Dinic d(n + 2);
  int64_t common = 0;
  for (int i = 0; i < n; ++i) {
    for (int k = 0; k < 4; ++k) {
      const int p = 4 * i + k;
      if (!gc.absent[p]) d.addArcPair(i, earlierNeighbour(gc.w, i, k), gc.cap[p], gc.revCap[p]);
    }
    int64_t src = 0, snk = 0;
    for (const TerminalCall& c : gc.terminals[i]) {
      src += c.source;
      snk += c.sink;
    }
    const int64_t both = std::min(src, snk);
    common += both;
    if (src > both) d.addArcPair(s, i, src - both, 0);
    if (snk > both) d.addArcPair(i, t, snk - both, 0);
  }
  Reference ref;
  ref.flow = common + d.run(s, t);
  const std::vector<bool> reach = d.reachesSink(t);
  ref.sinkSide.assign(reach.begin(), reach.begin() + n);
  return ref;
}


}  // namespace maxflow_reference

#endif
