// The engine's set passes, the evaluation of all moves of one clip, and moves on the
// unrooted adjacency.
#include "search/engine.h"

#include <algorithm>
#include <climits>
#include <cstring>

#include "optim/field_ops.h"
#include "optim/kernels.h"
#include "search/settings.h"
#include "trees/store.h"

namespace qax::search {

using namespace qax::optim::ops;
using qax::optim::packed;

namespace {

template <int C, class V> QAX_INLINE void fitch_chunk(int i, const std::uint32_t* a, const std::uint32_t* b,
                                                     std::uint32_t* o) {
  V va = load<V>(a + i), vb = load<V>(b + i);
  V x = va & vb;
  store<V>(o + i, x | ((va | vb) & full_of<C>(empty_of<C>(x))));
}

template <int C, class V> QAX_INLINE void fitch_region(int s, int e, const std::uint32_t* a, const std::uint32_t* b,
                                                      std::uint32_t* o) {
  int i = s;
  if constexpr (sizeof(V) == 32)
    for (; i + 8 <= e; i += 8) fitch_chunk<C, V>(i, a, b, o);
  for (; i + 2 <= e; i += 2) fitch_chunk<C, std::uint64_t>(i, a, b, o);
  for (; i < e; ++i) fitch_chunk<C, std::uint32_t>(i, a, b, o);
}

template <class V> QAX_INLINE void fitch_impl(const optim::Layout& L, const std::uint32_t* a, const std::uint32_t* b,
                                              std::uint32_t* o) {
  fitch_region<0, V>(0, L.end0, a, b, o);
  fitch_region<1, V>(L.end0, L.end1, a, b, o);
  fitch_region<2, V>(L.end1, L.end2, a, b, o);
  for (int i = L.end2; i < L.end4; ++i) {
    std::uint32_t x = a[i] & b[i];
    o[i] = x ? x : (a[i] | b[i]);
  }
  for (int i = L.end4; i < L.nwords; ++i) o[i] = ~0u;
}

__attribute__((target("avx2"))) void fitch_avx2(const optim::Layout& L, const std::uint32_t* a,
                                                const std::uint32_t* b, std::uint32_t* o) {
  fitch_impl<v4u64>(L, a, b, o);
}
void fitch_plain(const optim::Layout& L, const std::uint32_t* a, const std::uint32_t* b, std::uint32_t* o) {
  fitch_impl<std::uint64_t>(L, a, b, o);
}

using FitchFn = void (*)(const optim::Layout&, const std::uint32_t*, const std::uint32_t*, std::uint32_t*);
FitchFn pick_fitch() {
  __builtin_cpu_init();
  return __builtin_cpu_supports("avx2") ? fitch_avx2 : fitch_plain;
}
const FitchFn fitch_fn = pick_fitch();

constexpr int block_size = 16;   // branches per region of the union tests

}  // namespace

void fitch_sets(const optim::Layout& L, const std::uint32_t* a, const std::uint32_t* b, std::uint32_t* out) noexcept {
  fitch_fn(L, a, b, out);
}

void union_sets(int nwords, const std::uint32_t* a, std::uint32_t* out) noexcept {
  for (int i = 0; i < nwords; ++i) out[i] |= a[i];
}

std::int32_t join_count(const std::uint32_t* a, const std::uint32_t* b, std::int32_t bound, std::int32_t* ok) noexcept {
  return optim::kernels.join(packed.layout, a, b, b, bound, ok);
}

void Engine::init() {
  nt = packed.nterm;
  nn = nt > 0 ? 2 * nt - 1 : 0;
  W = packed.nwords;
  const std::size_t cells = static_cast<std::size_t>(nn) * W;
  anc.assign(nn, -1);
  left.assign(nn, -1);
  right.assign(nn, -1);
  down.assign(cells, ~0u);
  up.assign(cells, ~0u);
  edge.assign(cells, ~0u);
  down2.assign(cells, ~0u);
  up2.assign(cells, ~0u);
  upc.assign(cells, ~0u);
  tgt.assign(cells, ~0u);
  cset.assign(cells, ~0u);
  tunion.assign(cells / block_size + 2 * W, 0u);
  cunion.assign(cells / block_size + 2 * W, 0u);
  tnode.assign(nn, -1);
  cnode.assign(nn, -1);
  stamp.assign(nn, 0);
  stamp_now = 0;
  stack.assign(2 * nn + 4, 0);
  order.assign(nn + 2, 0);
  nbr.assign(static_cast<std::size_t>(nn) * 3, -1);
  for (int t = 0; t < nt; ++t) std::memcpy(D(t), packed.node_sets[t].down_set, sizeof(std::uint32_t) * W);
}

bool Engine::load(const std::vector<std::int32_t>& parent) {
  optim::WorkTree w;
  if (!optim::load_tree(parent, w) || w.nterm != nt) return false;
  anc = w.ancestor;
  left = w.left_child;
  right = w.right_child;
  return true;
}

void Engine::export_tree(std::vector<std::int32_t>& parent) const {
  const int ntax = static_cast<int>(packed.to_packed.size());
  parent.assign(static_cast<std::size_t>(2 * ntax - 1), 0);
  auto id = [&](int n) { return n < nt ? packed.from_packed[n] : ntax + (n - nt); };
  for (int n = 0; n < nn; ++n)
    if (n != nt && anc[n] >= 0) parent[id(n)] = id(anc[n]);
  parent[ntax] = ntax + nt - 1;
  trees::reset_node_numbers(parent.data(), ntax);
}

double Engine::compute_all() {
  const optim::Layout& L = packed.layout;
  // Preorder of inner nodes from the root.
  int cnt = 0, top = 0;
  stack[top++] = nt;
  while (top) {
    int n = stack[--top];
    order[cnt++] = n;
    if (right[n] >= nt) stack[top++] = right[n];
    if (left[n] >= nt) stack[top++] = left[n];
  }
  std::int64_t steps = 0;
  std::int32_t ok;
  for (int k = cnt - 1; k >= 0; --k) {
    int n = order[k];
    fitch_sets(L, D(left[n]), D(right[n]), D(n));
    steps += join_count(D(left[n]), D(right[n]), INT_MAX, &ok);
  }
  const int l0 = left[nt], x = right[nt];
  std::memcpy(U(x), D(l0), sizeof(std::uint32_t) * W);
  std::memcpy(U(l0), D(x), sizeof(std::uint32_t) * W);
  for (int k = 1; k < cnt; ++k) {
    int n = order[k];
    fitch_sets(L, U(n), D(right[n]), U(left[n]));
    fitch_sets(L, U(n), D(left[n]), U(right[n]));
  }
  for (int k = 1; k < cnt; ++k) {
    int n = order[k];
    fitch_sets(L, D(n), U(n), E(n));
    for (int c : {left[n], right[n]})
      if (c < nt) fitch_sets(L, D(c), U(c), E(c));
  }
  fitch_sets(L, D(l0), U(l0), E(l0));
  score = static_cast<double>(packed.constant_steps + steps);
  return score;
}

void Engine::reroot_on_zero() {
  // Unrooted adjacency without the root node.
  std::fill(nbr.begin(), nbr.end(), -1);
  auto link = [&](int a, int b) {
    int* na = &nbr[static_cast<std::size_t>(a) * 3];
    int* nb = &nbr[static_cast<std::size_t>(b) * 3];
    *std::find(na, na + 3, -1) = b;
    *std::find(nb, nb + 3, -1) = a;
  };
  for (int n = 0; n < nn; ++n) {
    if (n == nt || anc[n] < 0) continue;
    if (anc[n] == nt) {
      if (n == left[nt]) link(n, right[nt]);
    } else {
      link(n, anc[n]);
    }
  }
  std::fill(anc.begin(), anc.end(), -1);
  std::fill(left.begin(), left.end(), -1);
  std::fill(right.begin(), right.end(), -1);
  const int x = nbr[0];
  left[nt] = 0;
  right[nt] = x;
  anc[0] = nt;
  anc[x] = nt;
  int top = 0;
  stack[top++] = x;
  stack[top++] = 0;  // came from
  while (top) {
    int from = stack[--top];
    int v = stack[--top];
    if (v < nt) continue;
    for (int k = 0; k < 3; ++k) {
      int w = nbr[static_cast<std::size_t>(v) * 3 + k];
      if (w == from || w < 0) continue;
      anc[w] = v;
      if (left[v] < 0) left[v] = w; else right[v] = w;
      stack[top++] = w;
      stack[top++] = v;
    }
  }
}

void Engine::apply_move(const Move& m) {
  // Work on the unrooted adjacency, then root again on terminal 0.
  std::fill(nbr.begin(), nbr.end(), -1);
  auto nb = [&](int a) { return &nbr[static_cast<std::size_t>(a) * 3]; };
  auto link = [&](int a, int b) {
    *std::find(nb(a), nb(a) + 3, -1) = b;
    *std::find(nb(b), nb(b) + 3, -1) = a;
  };
  auto unlink = [&](int a, int b) {
    *std::find(nb(a), nb(a) + 3, b) = -1;
    *std::find(nb(b), nb(b) + 3, a) = -1;
  };
  for (int n = 0; n < nn; ++n) {
    if (n == nt || anc[n] < 0) continue;
    if (anc[n] == nt) {
      if (n == left[nt]) link(n, right[nt]);
    } else {
      link(n, anc[n]);
    }
  }
  const int n = m.clip, p = anc[n];
  const int s = left[p] == n ? right[p] : left[p];
  int g = anc[p];
  if (g == nt) g = 0;
  // Target branch (e, y) in the tree without the clip, found before the adjacency changes.
  const int e = m.target;
  int y = e == s ? g : anc[e];
  if (y == nt) y = 0;
  if (p != nt) {
    // Cut: p leaves, s joins g.
    unlink(p, s);
    unlink(p, g);
    link(s, g);
    // Insert p on (e, y).
    unlink(e, y);
    link(p, e);
    link(p, y);
  }
  // Reroot the clip on the branch above m.reroot.
  if (n >= nt && m.reroot >= 0 && m.reroot != left[n] && m.reroot != right[n]) {
    const int a = left[n], b = right[n];
    const int r = m.reroot, q = anc[r];
    unlink(n, a);
    unlink(n, b);
    link(a, b);
    unlink(r, q);
    link(n, r);
    link(n, q);
  }
  // Root again on terminal 0.
  std::vector<int>& st = stack;
  std::fill(anc.begin(), anc.end(), -1);
  std::fill(left.begin(), left.end(), -1);
  std::fill(right.begin(), right.end(), -1);
  const int x = nbr[0];
  left[nt] = 0;
  right[nt] = x;
  anc[0] = nt;
  anc[x] = nt;
  int top = 0;
  st[top++] = x;
  st[top++] = 0;
  while (top) {
    int from = st[--top];
    int v = st[--top];
    if (v < nt) continue;
    for (int k = 0; k < 3; ++k) {
      int w = nb(v)[k];
      if (w == from || w < 0) continue;
      anc[w] = v;
      if (left[v] < 0) left[v] = w; else right[v] = w;
      st[top++] = w;
      st[top++] = v;
    }
  }
}

std::int32_t Engine::evaluate_clip(int n, bool tbr, bool saving, std::int32_t save_slack, Move& best,
                                   std::vector<Move>& records, std::uint64_t& examined) {
  const optim::Layout& L = packed.layout;
  const std::size_t WS = static_cast<std::size_t>(W);
  best = Move{};
  if (n == nt || n == left[nt] || anc[n] < 0) return -1;
  if (n == right[nt] && (!tbr || n < nt)) return -1;
  const int p = anc[n];
  const bool whole = p == nt;  // the clip is all but terminal 0: the only target is terminal 0
  const int s = left[p] == n ? right[p] : left[p];
  const int g = anc[p];
  int ntg = 0, ks = -1;
  if (whole) {
    std::memcpy(tgt.data(), D(left[nt]), sizeof(std::uint32_t) * WS);
    tnode[ntg++] = left[nt];
    ks = 0;
  } else {
  // Down sets of the path from g to the root, in the tree without the clip.
  ++stamp_now;
  auto dn = [&](int x) -> const std::uint32_t* {
    return stamp[x] == stamp_now ? down2.data() + x * WS : D(x);
  };
  {
    int prev = s, prev_orig = p, a = g;
    while (a != nt) {
      int other = left[a] == prev_orig ? right[a] : left[a];
      const std::uint32_t* pd = prev == s ? D(s) : down2.data() + prev * WS;
      fitch_sets(L, pd, D(other), down2.data() + a * WS);
      stamp[a] = stamp_now;
      prev = a;
      prev_orig = a;
      a = anc[a];
    }
  }
  auto kid = [&](int c) { return c == p ? s : c; };
  // Up sets and branch sets of the tree without the clip, in preorder from the root.
  const int l0 = left[nt];
  const int x = kid(right[nt]);
  std::uint32_t* u2 = up2.data();
  std::memcpy(u2 + x * WS, D(l0), sizeof(std::uint32_t) * WS);
  auto add_target = [&](int node) {
    if (node == s) ks = ntg;
    fitch_sets(L, dn(node), u2 + node * WS, tgt.data() + ntg * WS);
    tnode[ntg++] = node;
  };
  int top = 0;
  stack[top++] = x;
  while (top) {
    int v = stack[--top];
    add_target(v);
    if (v < nt) continue;
    int c1 = kid(left[v]), c2 = kid(right[v]);
    fitch_sets(L, u2 + v * WS, dn(c2), u2 + c1 * WS);
    fitch_sets(L, u2 + v * WS, dn(c1), u2 + c2 * WS);
    stack[top++] = c2;
    stack[top++] = c1;
  }
  }
  int top = 0;
  // Block unions of the targets.
  const int ntb = (ntg + block_size - 1) / block_size;
  for (int b = 0; b < ntb; ++b) {
    std::uint32_t* un = tunion.data() + b * WS;
    std::memset(un, 0, sizeof(std::uint32_t) * WS);
    for (int k = b * block_size; k < std::min(ntg, (b + 1) * block_size); ++k) union_sets(W, tgt.data() + k * WS, un);
  }
  // Rerooting sets of the clip: the identity first.
  int nc = 0;
  std::memcpy(cset.data(), D(n), sizeof(std::uint32_t) * WS);
  cnode[nc++] = n < nt ? n : left[n];
  if (tbr && n >= nt) {
    const int a = left[n], b = right[n];
    std::memcpy(upc.data() + a * WS, D(b), sizeof(std::uint32_t) * WS);
    std::memcpy(upc.data() + b * WS, D(a), sizeof(std::uint32_t) * WS);
    top = 0;
    stack[top++] = b;
    stack[top++] = a;
    while (top) {
      int v = stack[--top];
      if (v != a && v != b) {
        fitch_sets(L, D(v), upc.data() + v * WS, cset.data() + nc * WS);
        cnode[nc++] = v;
      }
      if (v < nt) continue;
      fitch_sets(L, upc.data() + v * WS, D(right[v]), upc.data() + left[v] * WS);
      fitch_sets(L, upc.data() + v * WS, D(left[v]), upc.data() + right[v] * WS);
      stack[top++] = right[v];
      stack[top++] = left[v];
    }
  }
  const int ncb = (nc + block_size - 1) / block_size;
  for (int b = 0; b < ncb; ++b) {
    std::uint32_t* un = cunion.data() + b * WS;
    std::memset(un, 0, sizeof(std::uint32_t) * WS);
    for (int k = b * block_size; k < std::min(nc, (b + 1) * block_size); ++k) union_sets(W, cset.data() + k * WS, un);
  }
  examined += static_cast<std::uint64_t>(std::max(ntg - 1, 1)) * static_cast<std::uint64_t>(nc);

  std::int32_t ok;
  const std::int32_t base = join_count(D(n), tgt.data() + ks * WS, INT_MAX, &ok);
  std::int32_t best_cost = base;
  const std::int32_t save_bound = saving ? base + save_slack : INT_MIN;
  std::int32_t bound = std::max(best_cost - 1, save_bound);
  if (bound < 0) return base;
  for (int cb = 0; cb < ncb; ++cb) {
    const int c_end = std::min(nc, (cb + 1) * block_size);
    const std::uint32_t* cu = cunion.data() + cb * WS;
    for (int tb = 0; tb < ntb; ++tb) {
      const int t_end = std::min(ntg, (tb + 1) * block_size);
      const std::uint32_t* tu = tunion.data() + tb * WS;
      if (nc > 1) {
        join_count(cu, tu, bound, &ok);
        if (!ok) continue;
      }
      for (int j = cb * block_size; j < c_end; ++j) {
        const std::uint32_t* cj = cset.data() + j * WS;
        if (c_end - cb * block_size > 1) {
          join_count(cj, tu, bound, &ok);
          if (!ok) continue;
        }
        for (int k = tb * block_size; k < t_end; ++k) {
          if (j == 0 && k == ks) continue;
          const std::int32_t c = join_count(cj, tgt.data() + k * WS, bound, &ok);
          if (!ok) continue;
          if (constraint_allows && !constraint_allows(n, j == 0 ? -1 : cnode[j], tnode[k])) continue;
          if (c < best_cost) {
            best_cost = c;
            best = Move{n, j == 0 ? -1 : cnode[j], tnode[k], c};
            bound = std::max(best_cost - 1, save_bound);
          }
          if (saving && c <= save_bound) records.push_back(Move{n, j == 0 ? -1 : cnode[j], tnode[k], c});
          if (bound < 0) return base;
        }
      }
    }
  }
  return base;
}

}  // namespace qax::search
