// The wide columns in the engine: sets of the tree and of the tree without a clip, the
// rerootings of the clip, and the exact cost of joining them.
#include <algorithm>
#include <climits>
#include <cstring>

#include "search/engine.h"

namespace qax::search {

using optim::SankoffColumn;
using optim::wide_infinity;
using qax::optim::packed;

namespace {

inline std::int32_t sat(std::int64_t v) { return v >= wide_infinity ? wide_infinity : static_cast<std::int32_t>(v); }

inline void combine(const std::int32_t* a, const std::int32_t* b, std::int32_t* out) {
  if (a[0] > b[1]) { out[0] = b[1]; out[1] = a[0]; return; }
  if (b[0] > a[1]) { out[0] = a[1]; out[1] = b[0]; return; }
  out[0] = std::max(a[0], b[0]);
  out[1] = std::min(a[1], b[1]);
}

inline std::int32_t distance(const std::int32_t* a, const std::int32_t* b) {
  return a[0] > b[1] ? a[0] - b[1] : b[0] > a[1] ? b[0] - a[1] : 0;
}

// Subtracts the least cost of each column of v and returns the states of cost 0 in masks.
void normalise(const std::vector<SankoffColumn>& cols, std::int32_t* v, std::uint32_t* masks) {
  for (std::size_t j = 0; j < cols.size(); ++j) {
    const SankoffColumn& col = cols[j];
    std::int32_t* x = v + col.offset;
    std::int32_t m = wide_infinity;
    for (int s = 0; s < col.k; ++s) m = std::min(m, x[s]);
    std::uint32_t mask = 0;
    for (int s = 0; s < col.k; ++s) {
      x[s] = x[s] >= wide_infinity ? wide_infinity : x[s] - m;
      if (x[s] == 0) mask |= 1u << s;
    }
    masks[j] = mask;
  }
}

}  // namespace

void Engine::wide_compute() {
  const auto& cols = packed.wide.sankoff;
  const int cnt = inner_preorder();
  wide.compute(left.data(), right.data(), order.data(), cnt, true);
  const std::size_t ns = cols.size();
  wmask.resize(static_cast<std::size_t>(nn) * ns);
  for (int k = 0; k < cnt; ++k)
    for (int c : {left[order[k]], right[order[k]]}) normalise(cols, wide.E(c), wmask.data() + c * ns);
  wide_score = wide.score();
}

void Engine::wide_prepare_clip(int n, int p, int s, int g, bool whole, int nc) {
  const optim::WideColumns& W2 = packed.wide;
  const auto& cols = W2.sankoff;
  const std::size_t ns = cols.size();
  const int V = wide.V, C = wide.C;
  wtmp.resize(4 * static_cast<std::size_t>(V) + 8);
  std::int32_t* ta = wtmp.data();
  std::int32_t* tb = ta + V;
  std::int32_t* tc = tb + V;
  wmask2.resize(static_cast<std::size_t>(nn) * ns);
  // The tree without the clip.
  if (whole) {
    // Only terminal 0 is left: the clip joins it at the root.
    const int z = left[nt];
    for (const SankoffColumn& col : cols) {
      optim::sankoff_from_child(col, wide.D(z) + col.offset, wide2.E(z) + col.offset);
      for (int st = 0; st < col.k; ++st)
        if (!(col.root_mask >> st & 1)) wide2.E(z)[col.offset + st] = wide_infinity;
    }
    normalise(cols, wide2.E(z), wmask2.data() + z * ns);
    std::memcpy(wide2.CE(z), wide.CD(z), sizeof(std::int32_t) * 2 * C);
  } else {
    anc2 = anc;
    left2 = left;
    right2 = right;
    if (left2[g] == p) left2[g] = s; else right2[g] = s;
    anc2[s] = g;
    order2.resize(nn + 2);
    int cnt = 0, top = 0;
    stack[top++] = nt;
    while (top) {
      const int v = stack[--top];
      order2[cnt++] = v;
      if (right2[v] >= nt) stack[top++] = right2[v];
      if (left2[v] >= nt) stack[top++] = left2[v];
    }
    wide2.compute(left2.data(), right2.data(), order2.data(), cnt, true);
    for (int k = 0; k < cnt; ++k)
      for (int c : {left2[order2[k]], right2[order2[k]]}) normalise(cols, wide2.E(c), wmask2.data() + c * ns);
  }
  // Rerootings of the clip: the clip beyond each node, then the clip rooted on the branch
  // above each listed node, seen from the new parent.
  wout.resize(static_cast<std::size_t>(nn) * V);
  wout_range.resize(static_cast<std::size_t>(nn) * 2 * C);
  auto O = [&](int v) { return wout.data() + static_cast<std::size_t>(v) * V; };
  auto OR = [&](int v) { return wout_range.data() + static_cast<std::size_t>(v) * 2 * C; };
  if (nc > 1 && n >= nt) {
    const int a = left[n], b = right[n];
    std::memcpy(O(a), wide.D(b), sizeof(std::int32_t) * V);
    std::memcpy(O(b), wide.D(a), sizeof(std::int32_t) * V);
    std::memcpy(OR(a), wide.CD(b), sizeof(std::int32_t) * 2 * C);
    std::memcpy(OR(b), wide.CD(a), sizeof(std::int32_t) * 2 * C);
    int top = 0;
    stack[top++] = a;
    stack[top++] = b;
    while (top) {
      const int v = stack[--top];
      if (v < nt) continue;
      for (int side = 0; side < 2; ++side) {
        const int c = side ? right[v] : left[v], sib = side ? left[v] : right[v];
        for (const SankoffColumn& col : cols) {
          optim::sankoff_from_child(col, wide.D(sib) + col.offset, ta + col.offset);
          optim::sankoff_from_child(col, O(v) + col.offset, tb + col.offset);
          for (int st = 0; st < col.k; ++st) O(c)[col.offset + st] = sat(std::int64_t{ta[col.offset + st]} + tb[col.offset + st]);
        }
        for (int j = 0; j < C; ++j) combine(wide.CD(sib) + 2 * j, OR(v) + 2 * j, OR(c) + 2 * j);
        stack[top++] = c;
      }
    }
  }
  wclip.resize(static_cast<std::size_t>(nc) * V);
  wclip_range.resize(static_cast<std::size_t>(nc) * 2 * C);
  wclip_mask.resize(static_cast<std::size_t>(nc) * ns);
  wclip_delta.assign(nc, 0);
  wclip_min_delta = 0;
  const std::int32_t* dn = wide.D(n);
  for (int j = 0; j < nc; ++j) {
    std::int32_t* F = wclip.data() + static_cast<std::size_t>(j) * V;
    const int v = cnode[j];
    const bool identity = j == 0;
    std::int64_t delta = 0;
    for (std::size_t q = 0; q < ns; ++q) {
      const SankoffColumn& col = cols[q];
      const std::int32_t* root;
      if (identity) {
        root = dn + col.offset;
      } else {
        optim::sankoff_from_child(col, wide.D(v) + col.offset, ta + col.offset);
        optim::sankoff_from_child(col, O(v) + col.offset, tb + col.offset);
        for (int st = 0; st < col.k; ++st) tc[col.offset + st] = sat(std::int64_t{ta[col.offset + st]} + tb[col.offset + st]);
        root = tc + col.offset;
      }
      optim::sankoff_from_child(col, root, F + col.offset);
      std::int32_t own = wide_infinity, seen = wide_infinity;
      for (int st = 0; st < col.k; ++st) {
        own = std::min(own, dn[col.offset + st]);
        seen = std::min(seen, F[col.offset + st]);
      }
      delta += static_cast<std::int64_t>(seen - own) * col.weight * unit;
    }
    normalise(cols, F, wclip_mask.data() + static_cast<std::size_t>(j) * ns);
    std::int32_t* R = wclip_range.data() + static_cast<std::size_t>(j) * 2 * C;
    if (identity) std::memcpy(R, wide.CD(n), sizeof(std::int32_t) * 2 * C);
    else
      for (int q = 0; q < C; ++q) combine(wide.CD(v) + 2 * q, OR(v) + 2 * q, R + 2 * q);
    wclip_delta[j] = delta;
    wclip_min_delta = std::min(wclip_min_delta, delta);
  }
}

std::int32_t Engine::wide_join(int j, int target, std::int32_t narrow, std::int32_t bound, std::int32_t* ok) {
  const optim::WideColumns& W2 = packed.wide;
  const auto& cols = W2.sankoff;
  const std::size_t ns = cols.size();
  const int V = wide.V, C = wide.C;
  std::int64_t total = static_cast<std::int64_t>(narrow) * unit + wclip_delta[j];
  *ok = 0;
  if (total > bound) return 0;
  const std::int32_t* F = wclip.data() + static_cast<std::size_t>(j) * V;
  const std::uint32_t* fm = wclip_mask.data() + static_cast<std::size_t>(j) * ns;
  const std::int32_t* E = wide2.E(target);
  const std::uint32_t* em = wmask2.data() + static_cast<std::size_t>(target) * ns;
  for (std::size_t q = 0; q < ns; ++q) {
    if (fm[q] & em[q]) continue;
    const SankoffColumn& col = cols[q];
    std::int32_t m = wide_infinity;
    for (int st = 0; st < col.k; ++st) m = std::min(m, E[col.offset + st] + F[col.offset + st]);
    total += static_cast<std::int64_t>(m) * col.weight * unit;
    if (total > bound) return 0;
  }
  const std::int32_t* R = wclip_range.data() + static_cast<std::size_t>(j) * 2 * C;
  const std::int32_t* T = wide2.CE(target);
  for (int q = 0; q < C; ++q) {
    total += static_cast<std::int64_t>(distance(R + 2 * q, T + 2 * q)) * W2.cont[q].weight;
    if (total > bound) return 0;
  }
  *ok = 1;
  return static_cast<std::int32_t>(total);
}

std::int32_t Engine::leaf_join(int t, int b, std::int32_t bound, std::int32_t* ok) {
  if (!has_wide) return join_count(D(t), E(b), bound, ok);
  const std::int32_t nb = bound < 0 ? -1 : bound / unit;
  const std::int32_t narrow = join_count(D(t), E(b), nb, ok);
  if (!*ok) return 0;
  const optim::WideColumns& W2 = packed.wide;
  const auto& cols = W2.sankoff;
  const std::size_t ns = cols.size();
  const int C = wide.C;
  std::int64_t total = static_cast<std::int64_t>(narrow) * unit;
  *ok = 0;
  const std::int32_t* E2 = wide.E(b);
  const std::uint32_t* em = wmask.data() + static_cast<std::size_t>(b) * ns;
  const std::int32_t* T = wide.D(t);
  for (std::size_t q = 0; q < ns; ++q) {
    const SankoffColumn& col = cols[q];
    std::uint32_t tm = 0;
    for (int st = 0; st < col.k; ++st)
      if (T[col.offset + st] == 0) tm |= 1u << st;
    if (tm & em[q]) continue;
    // Cost from the new node in state u to the terminal: least cost to one of its states.
    std::int32_t m = wide_infinity;
    for (int u = 0; u < col.k; ++u) {
      if (E2[col.offset + u] >= m) continue;
      std::int32_t to = wide_infinity;
      for (int st = 0; st < col.k; ++st)
        if (T[col.offset + st] == 0) to = std::min(to, col.cost[u * col.k + st]);
      m = std::min(m, E2[col.offset + u] + to);
    }
    total += static_cast<std::int64_t>(m) * col.weight * unit;
    if (total > bound) return 0;
  }
  for (int q = 0; q < C; ++q) {
    total += static_cast<std::int64_t>(distance(wide.CD(t) + 2 * q, wide.CE(b) + 2 * q)) * W2.cont[q].weight;
    if (total > bound) return 0;
  }
  *ok = 1;
  return static_cast<std::int32_t>(total);
}

}  // namespace qax::search
