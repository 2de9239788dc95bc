// Whole-tree passes, loading trees into packed numbering, topology changes, and the
// word-by-word repair of sets after a clip is cut or regrafted.
#include <algorithm>
#include <climits>

#include "optim/field_ops.h"
#include "optim/kernels.h"

namespace qax::optim {

using namespace qax::optim::ops;

const std::uint32_t* clip_words = nullptr;
const std::uint32_t* target_words = nullptr;
double score_bound = 2147483647.0;
std::int32_t join_ok = 0;
double join_value = 0;
double slack = -1.0;
std::int32_t keep_unions = 0;

void fix_sisters(WorkTree& t) noexcept {
  for (int n = 0; n < t.nnodes; ++n) {
    if (t.left_child[n] < 0) continue;
    if (t.right_child[n] < 0) { t.sister[t.left_child[n]] = -1; continue; }
    t.sister[t.left_child[n]] = t.right_child[n];
    t.sister[t.right_child[n]] = t.left_child[n];
  }
}

bool load_tree(const std::vector<int>& parent, WorkTree& tree) {
  const int ntax = static_cast<int>(packed.to_packed.size());
  const int nterm = packed.nterm;
  tree = WorkTree{};
  tree.nterm = nterm;
  tree.nnodes = nterm > 0 ? 2 * nterm - 1 : 0;
  tree.ancestor.assign(tree.nnodes, -1);
  tree.left_child.assign(tree.nnodes, -1);
  tree.right_child.assign(tree.nnodes, -1);
  tree.sister.assign(tree.nnodes, -1);
  tree.work.assign(tree.nnodes + 8, 0);
  if (nterm < 2) return true;
  if (static_cast<int>(parent.size()) < 2 * ntax - 1) return false;
  const int end = std::min(static_cast<int>(parent.size()), std::max(parent[ntax], ntax + 1));
  std::vector<std::vector<int>> children(end);
  for (int n = 0; n < end; ++n)
    if (n != ntax && parent[n] >= ntax && parent[n] < end) children[parent[n]].push_back(n);

  // Keep active terminals, suppress unary nodes; adjacency of the unrooted result.
  std::vector<std::vector<int>> adj(nterm);
  bool ok = true;
  auto keep = [&](auto&& self, int n) -> int {
    if (n < ntax) return packed.to_packed[n];
    std::vector<int> kept;
    for (int c : children[n]) {
      int k = self(self, c);
      if (k >= 0) kept.push_back(k);
    }
    if (kept.empty()) return -1;
    if (kept.size() == 1) return kept[0];
    if (kept.size() > 2 && n != ntax) ok = false;
    int id = static_cast<int>(adj.size());
    adj.emplace_back();
    for (int k : kept) { adj[id].push_back(k); adj[k].push_back(id); }
    return id;
  };
  int top = keep(keep, ntax);
  if (top < 0) return false;
  if (top >= nterm && adj[top].size() == 2) {  // the root as a vertex of degree two
    int a = adj[top][0], b = adj[top][1];
    std::replace(adj[a].begin(), adj[a].end(), top, b);
    std::replace(adj[b].begin(), adj[b].end(), top, a);
    adj[top].clear();
  }
  for (int t = 0; t < nterm; ++t) if (adj[t].size() != 1) return false;  // every active taxon placed once
  for (std::size_t v = nterm; v < adj.size(); ++v) if (!adj[v].empty() && adj[v].size() != 3) ok = false;
  if (!ok) return false;

  // Root on terminal 0: root = nterm, children 0 and its neighbour; number inner nodes in preorder.
  std::vector<int> id(adj.size(), -1);
  int next = nterm + 1;
  const int root = nterm;
  tree.ancestor[0] = root;
  tree.left_child[root] = 0;
  std::vector<std::pair<int, int>> stack{{adj[0][0], 0}};  // (vertex, vertex it was reached from)
  std::vector<std::pair<int, int>> link{{adj[0][0], root}}; // (vertex, new parent id)
  while (!stack.empty()) {
    auto [v, from] = stack.back();
    stack.pop_back();
    int par = link.back().second;
    link.pop_back();
    int me = v < nterm ? v : next++;
    if (me >= tree.nnodes) return false;
    id[v] = me;
    tree.ancestor[me] = par;
    if (tree.left_child[par] < 0) tree.left_child[par] = me; else tree.right_child[par] = me;
    for (int w : adj[v])
      if (w != from) { stack.push_back({w, v}); link.push_back({w, me}); }
  }
  if (next != tree.nnodes) return false;
  fix_sisters(tree);
  return true;
}

namespace {

void make_preorder(WorkTree& t) {
  t.preorder.clear();
  int* st = t.work.data();
  int top = 0;
  st[top++] = t.nterm;
  while (top) {
    int n = st[--top];
    t.preorder.push_back(n);
    for (int c : {t.right_child[n], t.left_child[n]})
      if (c >= t.nterm) st[top++] = c;
  }
}

}  // namespace

// Wide sets of the last tree scored (tree_score, prune_update, regraft_update).
WideState work_wide;

double tree_score(WorkTree& t, int mode) {
  const Packed& p = packed;
  if (t.nterm < 2) return mode == 4 ? 0.0 : static_cast<double>(p.constant_steps);
  make_preorder(t);
  const int count = static_cast<int>(t.preorder.size());
  double score = 0;
  if (mode != 4)
    score = static_cast<double>(p.constant_steps) +
            kernels.down_pass(p.layout, p.node_sets.data(), t.preorder.data(), count, t.left_child.data(),
                              t.right_child.data());
  if (p.wide.any()) {
    work_wide.init();
    work_wide.compute(t.left_child.data(), t.right_child.data(), t.preorder.data(), count, mode >= 2);
    if (mode != 4) score += work_wide.score();
  }
  if (mode >= 2)
    kernels.up_pass(p.layout, p.node_sets.data(), t.preorder.data(), count, t.ancestor.data(), t.nterm, mode >= 3);
  return score;
}

void join_cost() noexcept {
  const std::int32_t bound = score_bound >= INT_MAX ? INT_MAX : static_cast<std::int32_t>(score_bound);
  std::int32_t v = kernels.join(packed.layout, clip_words, target_words, target_words, bound, &join_ok);
  join_value = v;
}

void join_cost_between(const std::uint32_t* clip, const std::uint32_t* first, const std::uint32_t* second) noexcept {
  const std::int32_t bound = score_bound >= INT_MAX ? INT_MAX : static_cast<std::int32_t>(score_bound);
  std::int32_t v = kernels.join_between(packed.layout, clip, first, second, bound, &join_ok);
  join_value = v;
}

double join_cost_wide(int clip_node, int target_node, int mode) noexcept {
  const WideColumns& w = packed.wide;
  // Cluster unions (modes 1 and 2) have no wide sets: 0 keeps the join a lower bound.
  if (!w.any() || mode != 0 || work_wide.nn == 0) return 0.0;
  const std::int32_t* dc = work_wide.D(clip_node);
  const std::int32_t* et = work_wide.E(target_node);
  std::int32_t seen[32];
  double steps = 0;
  for (const SankoffColumn& col : w.sankoff) {
    sankoff_from_child(col, dc + col.offset, seen);
    std::int32_t m = wide_infinity;
    for (int s = 0; s < col.k; ++s) m = std::min(m, et[col.offset + s] + seen[s]);
    steps += static_cast<double>(m) * col.weight;
  }
  for (int j = 0; j < work_wide.C; ++j) {
    const std::int32_t* a = work_wide.CD(clip_node) + 2 * j;
    const std::int32_t* b = work_wide.CE(target_node) + 2 * j;
    const std::int32_t g = a[0] > b[1] ? a[0] - b[1] : b[0] > a[1] ? b[0] - a[1] : 0;
    steps += static_cast<double>(g) * w.cont[j].weight / 1000.0;
  }
  join_value += steps;
  return steps;
}

void slack_for_bound(int level, bool at_capacity, double score) noexcept {
  (void)at_capacity;
  (void)score;
  // Integer steps: a join passes while its cost is at most the bound, so -1 asks for strict
  // improvement and 0 keeps ties; a suboptimal allowance widens it.
  slack = level > 0 ? static_cast<double>(level) : -1.0;
}

int cut_node(WorkTree& t, int clip) noexcept {
  const int p = t.ancestor[clip];
  const int s = t.sister[clip];
  const int g = t.ancestor[p];
  if (t.left_child[g] == p) t.left_child[g] = s; else t.right_child[g] = s;
  t.ancestor[s] = g;
  t.sister[s] = t.left_child[g] == s ? t.right_child[g] : t.left_child[g];
  if (t.sister[s] >= 0) t.sister[t.sister[s]] = s;
  t.left_child[p] = clip;
  t.right_child[p] = -1;
  t.ancestor[p] = -1;
  t.sister[clip] = -1;
  return s;
}

void join_node(WorkTree& t, int clip, int branch) noexcept {
  if (branch == 0) branch = t.sister[0];
  const int p = t.ancestor[clip];
  const int g = t.ancestor[branch];
  if (t.left_child[g] == branch) t.left_child[g] = p; else t.right_child[g] = p;
  t.ancestor[p] = g;
  t.left_child[p] = clip;
  t.right_child[p] = branch;
  t.ancestor[branch] = p;
  t.sister[clip] = branch;
  t.sister[branch] = clip;
  t.sister[p] = t.left_child[g] == p ? t.right_child[g] : t.left_child[g];
  if (t.sister[p] >= 0) t.sister[t.sister[p]] = p;
}

namespace {

// Per-word operations of one class on 32-bit words (class 4: whole word is one field).
template <int C> struct WordOps {
  static void down(std::uint32_t a, std::uint32_t b, std::uint32_t& d, std::uint32_t& u) {
    std::uint32_t x = a & b, full;
    if constexpr (C == 4) full = x ? 0u : ~0u;
    else full = full_of<C>(empty_of<C>(x));
    d = x | ((a | b) & full);
    u = a | b | full;
  }
  static std::uint32_t nonzero(std::uint32_t m) {
    if constexpr (C == 4) return m ? ~0u : 0u;
    else return nonzero_of<C>(m);
  }
};

// Second pass for one word from the nodes on the work list; children are pushed when a
// final set changes (or always, with `force`).
template <int C> void drain(WorkTree& t, int w, int top, bool force) {
  NodeSets* ns = packed.node_sets.data();
  int* st = t.work.data();
  const int root = t.nterm;
  while (top) {
    const int n = st[--top];
    const int a = t.ancestor[n];
    if (a < 0) continue;
    const std::uint32_t f = ns[a].final_set[w];
    const std::uint32_t d = ns[n].down_set[w];
    if (n < t.nterm) {
      ns[n].branch_set[w] = (n == 0 && a == root) ? ns[root].down_set[w] : f | (WordOps<C>::nonzero(f & ~d) & d);
      continue;
    }
    const std::uint32_t mask = WordOps<C>::nonzero(f & ~d);
    const std::uint32_t r = (((d | (ns[n].union_mask[w] & f)) ^ f) & mask) ^ f;
    ns[n].branch_set[w] = r | f;
    if (r != ns[n].final_set[w] || force) {
      ns[n].final_set[w] = r;
      st[top++] = t.left_child[n];
      if (t.right_child[n] >= 0) st[top++] = t.right_child[n];
    }
  }
}

// Walks up from `child` recomputing down sets until nothing changes, then repairs final and
// branch sets below the highest changed node. `force` makes the first parent count as changed.
template <int C> void repair_word(WorkTree& t, int w, int child, bool force, int clip) {
  NodeSets* ns = packed.node_sets.data();
  int* st = t.work.data();
  int top = 0;
  int node = child;
  for (;;) {
    const int a = t.ancestor[node];
    if (a < 0) break;
    std::uint32_t nd, nu;
    WordOps<C>::down(ns[t.left_child[a]].down_set[w], ns[t.right_child[a]].down_set[w], nd, nu);
    if (!force && nd == ns[a].down_set[w] && nu == ns[a].union_mask[w]) break;
    force = false;
    ns[a].down_set[w] = nd;
    ns[a].union_mask[w] = nu;
    ns[a].final_set[w] = 0;
    node = a;
  }
  if (t.ancestor[node] < 0) {  // reached the root
    ns[node].final_set[w] = ns[node].down_set[w];
    st[top++] = t.left_child[node];
    st[top++] = t.right_child[node];
  } else {
    st[top++] = node;
  }
  if (clip >= t.nterm && ns[clip].final_set[w] != ns[clip].down_set[w]) {
    ns[clip].final_set[w] = ns[clip].down_set[w];
    st[top++] = t.left_child[clip];
    st[top++] = t.right_child[clip];
  }
  drain<C>(t, w, top, false);
}

template <class F> void for_each_word(F&& f) {
  const Layout& L = packed.layout;
  for (int w = 0; w < L.end0; ++w) f.template operator()<0>(w);
  for (int w = L.end0; w < L.end1; ++w) f.template operator()<1>(w);
  for (int w = L.end1; w < L.end2; ++w) f.template operator()<2>(w);
  for (int w = L.end2; w < L.end4; ++w) f.template operator()<4>(w);
}

}  // namespace

namespace {

// Wide sets of the part of the tree reached from the root, made again whole (a detached
// clip keeps its own first-pass sets).
void refresh_wide(WorkTree& t) noexcept {
  if (!packed.wide.any() || t.nterm < 2) return;
  make_preorder(t);
  work_wide.compute(t.left_child.data(), t.right_child.data(), t.preorder.data(),
                    static_cast<int>(t.preorder.size()), true);
}

}  // namespace

void prune_update(WorkTree& t, int sister, int clip) noexcept {
  // The clip, detached, is rooted at its own top: its parent keeps it as single child.
  for_each_word([&]<int C>(int w) { repair_word<C>(t, w, sister, false, clip); });
  refresh_wide(t);
}

void regraft_update(WorkTree& t, int sister, int clip) noexcept {
  (void)sister;
  for_each_word([&]<int C>(int w) { repair_word<C>(t, w, clip, true, -1); });
  refresh_wide(t);
}

void clip_reroot_sets(WorkTree& t, int clip) noexcept {
  NodeSets* ns = packed.node_sets.data();
  if (clip < t.nterm) {
    for (int w = 0; w < packed.nwords; ++w) ns[clip].branch_set[w] = ns[clip].down_set[w];
    return;
  }
  for_each_word([&]<int C>(int w) {
    ns[clip].final_set[w] = ns[clip].down_set[w];
    ns[clip].branch_set[w] = ns[clip].down_set[w];
    int* st = t.work.data();
    st[0] = t.left_child[clip];
    st[1] = t.right_child[clip];
    drain<C>(t, w, 2, true);
  });
}

}  // namespace qax::optim
