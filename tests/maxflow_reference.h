// Test support for max-flow tests: grid networks kept as plain capacity lists
// (so an independent solver can be fed the same network), a builder into a
// VELDSEGraph, random grids, and a reference max-flow (Dinic's algorithm on an
// explicit arc list) with residual reachability.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <random>
#include <vector>

#include "graph/veldse_graph.h"

namespace maxflow_reference {

struct TerminalCall {
  int source, sink;
};

struct GridCase {
  int w = 0, h = 0;
  // Per node, four pairs (left, upper-left, up, upper-right): cap, revCap,
  // absent. Border pairs are always absent.
  std::vector<int> cap, revCap;
  std::vector<bool> absent;
  std::vector<std::vector<TerminalCall>> terminals;  // addtWeights calls per node
};

// Neighbour of node i in pair k (left, upper-left, up, upper-right), or -1.
inline int earlierNeighbour(int w, int i, int k) {
  const int r = i / w, c = i % w, dc = k <= 1 ? -1 : k - 2;  // column step: -1, -1, 0, +1
  return (k > 0 && r == 0) || c + dc < 0 || c + dc >= w ? -1 : i + dc - (k > 0 ? w : 0);
}

inline void build(const GridCase& gc, VELDSEGraph* g) {
  const int n = gc.w * gc.h;
  g->addNode(n);
  for (int i = 0; i < n; ++i)
    for (int k = 0, a = 4 * i; k < 4; ++k, ++a)
      g->addEdge(i, earlierNeighbour(gc.w, i, k), static_cast<float>(gc.cap[a]),
                 static_cast<float>(gc.revCap[a]), gc.absent[a]);
  for (int i = 0; i < n; ++i)
    for (const TerminalCall& t : gc.terminals[i])
      g->addtWeights(i, static_cast<float>(t.source), static_cast<float>(t.sink));
}

// An empty grid: every pair absent, no terminal links.
inline GridCase emptyGrid(int w, int h) {
  return GridCase{w,
                  h,
                  std::vector<int>(4 * w * h),
                  std::vector<int>(4 * w * h),
                  std::vector<bool>(4 * w * h, true),
                  std::vector<std::vector<TerminalCall>>(w * h)};
}

// Sets the edge between i and its earlier neighbour in pair k.
inline void setEdge(GridCase* gc, int i, int k, int cap, int revCap) {
  ASSERT_GE(earlierNeighbour(gc->w, i, k), 0);
  gc->cap[4 * i + k] = cap;
  gc->revCap[4 * i + k] = revCap;
  gc->absent[4 * i + k] = false;
}

// Every pair present with capacity cap both ways.
inline GridCase fullGrid(int w, int h, int cap) {
  GridCase gc = emptyGrid(w, h);
  for (int i = 0; i < w * h; ++i)
    for (int k = 0; k < 4; ++k)
      if (earlierNeighbour(w, i, k) >= 0) setEdge(&gc, i, k, cap, cap);
  return gc;
}

inline GridCase randomGrid(std::mt19937* rng, int w, int h) {
  auto uni = [rng](int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(*rng); };
  GridCase gc = emptyGrid(w, h);
  const int absentPct = uni(0, 40), zeroPct = uni(0, 30), terminalPct = uni(5, 100);
  const int capMax = uni(1, 12), terminalMax = uni(1, 25);
  for (int i = 0; i < w * h; ++i) {
    for (int k = 0; k < 4; ++k) {
      if (earlierNeighbour(w, i, k) < 0 || uni(1, 100) <= absentPct) continue;
      const int cap = uni(1, 100) <= zeroPct ? 0 : uni(1, capMax);
      setEdge(&gc, i, k, cap, uni(1, 100) <= zeroPct ? 0 : uni(1, capMax));
    }
    if (uni(1, 100) > terminalPct) continue;
    for (int c = uni(1, 2); c > 0; --c)
      gc.terminals[i].push_back({uni(-5, terminalMax), uni(-5, terminalMax)});
  }
  return gc;
}

// Reference: Dinic's algorithm on an explicit arc list (arc a^1 is the
// reverse of arc a).
struct Dinic {
  explicit Dinic(int n) : adj(n), level(n), it(n) {}

  void addArcPair(int u, int v, int64_t cap, int64_t revCap) {
    adj[u].push_back(static_cast<int>(arcs.size()));
    adj[v].push_back(static_cast<int>(arcs.size()) + 1);
    arcs.insert(arcs.end(), {{v, cap}, {u, revCap}});
  }

  int64_t run(int s, int t) {
    int64_t total = 0;
    while (levels(s, false), level[t] >= 0) {
      std::fill(it.begin(), it.end(), 0);
      while (int64_t f = dfs(s, t, INT64_MAX)) total += f;
    }
    return total;
  }

  // Breadth-first levels from `from` over arcs with residual capacity; with
  // `backwards`, over arcs into a node instead (a: v->u, so a^1 is u->v).
  void levels(int from, bool backwards) {
    std::fill(level.begin(), level.end(), -1);
    level[from] = 0;
    std::vector<int> q{from};
    for (size_t h = 0; h < q.size(); ++h)
      for (int a : adj[q[h]])
        if (arcs[backwards ? a ^ 1 : a].res > 0 && level[arcs[a].to] < 0) {
          level[arcs[a].to] = level[q[h]] + 1;
          q.push_back(arcs[a].to);
        }
  }

  int64_t dfs(int v, int t, int64_t f) {
    if (v == t) return f;
    for (int& k = it[v]; k < static_cast<int>(adj[v].size()); ++k) {
      const int a = adj[v][k], u = arcs[a].to;
      if (arcs[a].res <= 0 || level[u] != level[v] + 1) continue;
      if (int64_t got = dfs(u, t, std::min(f, arcs[a].res))) {
        arcs[a].res -= got;
        arcs[a ^ 1].res += got;
        return got;
      }
    }
    return 0;
  }

  struct Arc {
    int to;
    int64_t res;
  };
  std::vector<Arc> arcs;  // arc a^1 is the reverse of arc a
  std::vector<std::vector<int>> adj;
  std::vector<int> level, it;
};

struct Reference {
  int64_t flow;
  std::vector<bool> sinkSide;  // per grid node
};

// Terminal capacities enter as s->i and i->t arcs after taking out each node's
// common part min(source, sink), which every s-t cut pays anyway.
inline Reference solveReference(const GridCase& gc) {
  const int n = gc.w * gc.h, s = n, t = n + 1;
  Dinic d(n + 2);
  int64_t common = 0;
  for (int i = 0; i < n; ++i) {
    for (int k = 0; k < 4; ++k)
      if (!gc.absent[4 * i + k])
        d.addArcPair(i, earlierNeighbour(gc.w, i, k), gc.cap[4 * i + k], gc.revCap[4 * i + k]);
    int64_t src = 0, snk = 0;
    for (const TerminalCall& c : gc.terminals[i]) src += c.source, snk += c.sink;
    const int64_t both = std::min(src, snk);
    common += both;
    if (src > both) d.addArcPair(s, i, src - both, 0);
    if (snk > both) d.addArcPair(i, t, snk - both, 0);
  }
  Reference ref{common + d.run(s, t), {}};
  d.levels(t, true);  // nodes that still reach t in the residual network
  for (int i = 0; i < n; ++i) ref.sinkSide.push_back(d.level[i] >= 0);
  return ref;
}

// Compares a solved graph's flow and cut with the reference.
inline void expectSameCut(const GridCase& gc, VELDSEGraph* g, double flow) {
  const Reference ref = solveReference(gc);
  EXPECT_EQ(flow, static_cast<double>(ref.flow));
  int wrong = 0, first = -1;
  for (int i = 0; i < gc.w * gc.h; ++i)
    if (g->getTreeofNode(i) != (ref.sinkSide[i] ? 1 : 0) && wrong++ == 0) first = i;
  EXPECT_EQ(wrong, 0) << "first differing node " << first;
}

}  // namespace maxflow_reference
