// Collapsing rules on a private copy of the node sets. A stored tree (any parent array) is
// loaded into a binary tree over the active terminals in packed numbering: inactive taxa
// are dropped, nodes left with one descendant are passed through, and a polytomy becomes a
// comb of extra nodes that always collapse. Each original inner node is compared with its
// nearest ancestor that maps to a different node of the binary tree.
#include "optim/collapse.h"

#include <algorithm>
#include <bit>
#include <climits>
#include <cstdlib>

#include "dataset/costs.h"
#include "dataset/dataset.h"
#include "optim/field_ops.h"
#include "optim/packed.h"
#include "optim/recons.h"
#include "shell/failure.h"
#include "trees/store.h"

namespace qax::optim {

using qax::dataset::dataset;

CollapseSettings collapse_settings;

void collapse_reset() noexcept { collapse_settings = CollapseSettings{}; }

namespace {

using namespace qax::optim::ops;

// The binary copy of one tree and its sets.
struct CollapseWork {
  int nterm = 0;                      // packed terminals
  int next = 0;                       // next free inner node
  int root = -1;                      // root of the binary tree, -1 when fewer than 2 terminals
  int polytomy = 0;                   // some node has more than two descendant branches
  std::vector<int> left, right, anc;  // child and parent links by node
  std::vector<int> preorder;          // inner nodes, root first
  std::vector<int> map;               // data set node -> binary node (-1 none)
  std::vector<int> selected;          // data set node -> terminals below that are not ignored
  std::vector<std::uint32_t> storage; // sets of the inner nodes
  std::vector<NodeSets> ns;           // per binary node
};

// Node of the binary tree for data set node v (recursive over the children lists).
int build_node(CollapseWork& w, const std::vector<std::vector<int>>& kids, int v, int ntax) {
  if (v < ntax) {
    const int t = v < static_cast<int>(packed.to_packed.size()) ? packed.to_packed[v] : -1;
    w.map[v] = t;
    return t;
  }
  int first = -1, branches = 0;
  for (int c : kids[v]) {
    const int k = build_node(w, kids, c, ntax);
    if (k < 0) continue;
    if (++branches > 2) w.polytomy = 1;
    if (first < 0) { first = k; continue; }
    const int n = w.next++;
    w.left[n] = first;
    w.right[n] = k;
    w.anc[first] = n;
    w.anc[k] = n;
    first = n;
  }
  w.map[v] = first;
  return first;
}

// Loads the tree and runs both passes. Returns false when fewer than 2 active terminals.
bool load_and_score(const std::int32_t* tree, int ntax, CollapseWork& w) {
  const Packed& p = packed;
  w.nterm = p.nterm;
  const int cap = 2 * std::max(p.nterm, 1);
  w.left.assign(cap, -1);
  w.right.assign(cap, -1);
  w.anc.assign(cap, -1);
  w.next = p.nterm;
  w.polytomy = 0;
  const int end = std::max(tree[ntax], ntax + 1);
  w.map.assign(end, -1);
  std::vector<std::vector<int>> kids(end);
  for (int v = 0; v < end; ++v)
    if (v != ntax && tree[v] >= ntax && tree[v] < end) kids[tree[v]].push_back(v);
  w.root = build_node(w, kids, ntax, ntax);
  if (w.root < p.nterm) { w.root = -1; return false; }
  // Sets: terminals use the packed words, inner nodes a private block.
  const int words = p.nwords;
  const int inner = w.next - p.nterm;
  w.storage.assign(static_cast<std::size_t>(inner) * 4 * words + 8, ~0u);
  w.ns.assign(cap, NodeSets{});
  for (int t = 0; t < p.nterm; ++t) w.ns[t] = p.node_sets[t];
  for (int k = 0; k < inner; ++k) {
    std::uint32_t* b = w.storage.data() + static_cast<std::size_t>(k) * 4 * words;
    w.ns[p.nterm + k] = {b, b + words, b + 2 * words, b + 3 * words, nullptr};
  }
  w.preorder.clear();
  std::vector<int> st{w.root};
  while (!st.empty()) {
    const int n = st.back();
    st.pop_back();
    w.preorder.push_back(n);
    for (int c : {w.right[n], w.left[n]})
      if (c >= p.nterm) st.push_back(c);
  }
  const int count = static_cast<int>(w.preorder.size());
  kernels.down_pass(p.layout, w.ns.data(), w.preorder.data(), count, w.left.data(), w.right.data());
  kernels.up_pass(p.layout, w.ns.data(), w.preorder.data(), count, w.anc.data(), p.nterm, 0);
  return true;
}

// Does some field of a & b come out empty (a change in every reconstruction)?
bool some_field_empty(const Layout& L, const std::uint32_t* a, const std::uint32_t* b) noexcept {
  for (int i = 0; i < L.end0; ++i)
    if (empty_of<0, std::uint32_t>(a[i] & b[i])) return true;
  for (int i = L.end0; i < L.end1; ++i)
    if (empty_of<1, std::uint32_t>(a[i] & b[i])) return true;
  for (int i = L.end1; i < L.end2; ++i)
    if (empty_of<2, std::uint32_t>(a[i] & b[i])) return true;
  for (int i = L.end2; i < L.end4; ++i)
    if ((a[i] & b[i]) == 0) return true;
  return false;
}

bool sets_differ(const Layout& L, const std::uint32_t* a, const std::uint32_t* b) noexcept {
  for (int i = 0; i < L.end4; ++i)
    if (a[i] != b[i]) return true;
  return false;
}

// The final set of a binary node (terminals: their observed set).
const std::uint32_t* final_of_node(const CollapseWork& w, int n) {
  return n < w.nterm ? w.ns[n].down_set : w.ns[n].final_set;
}

// The states the exact per-character passes give a terminal. In the packed view they are
// the states the packed sets score, so that the set rules (rule 1, amb) reach the verdict of
// the packed sets on every tree: characters left out of the packing (constant or
// uninformative) support nothing, nonadditive cells made only of states seen once become
// missing, additive cells are clamped to the kept range. In the raw view (rule 3, whether
// any best reconstruction has a change) every active character counts as observed. Either
// way an additive polymorphic cell is the range from its lowest to its highest state.
struct ScoredCells {
  std::vector<int> row;  // per character: its packing row, -1 none
  bool raw = false;
  void prepare(bool raw_view) {
    raw = raw_view;
    row.assign(dataset.nchar, -1);
    if (raw) return;
    for (int r = 0; r < static_cast<int>(packed.pack_plan.size()); ++r) {
      const int c = packed.pack_plan[r].character;
      if (c >= 0 && c < dataset.nchar) row[c] = r;
    }
  }
  bool scored(int c) const {
    return raw || (c < static_cast<int>(packed.char_packed.size()) && packed.char_packed[c] != 0);
  }
  // ~0u for a missing entry.
  std::uint32_t cell(int c, int taxon) const {
    std::uint32_t v = dataset.cell(taxon, c);
    if (v == dataset.missing_value() || v == 0) return ~0u;
    if (raw) {
      const auto& ch = dataset.chars[c];
      return ch.additive && !ch.sankoff ? range_of(v, 0, 31) : v;
    }
    if (row[c] < 0) return v;
    const PackPlan& r = packed.pack_plan[row[c]];
    if (r.additive != 1) {
      v &= r.kept;
      return v ? v : ~0u;
    }
    return range_of(v, r.low_state, r.low_state + r.columns);
  }
  // The states from the lowest to the highest of v, clamped to [lo_k, hi_k].
  static std::uint32_t range_of(std::uint32_t v, int lo_k, int hi_k) {
    const int lo = std::clamp(std::countr_zero(v), lo_k, hi_k);
    const int hi = std::clamp(31 - std::countl_zero(v), lo_k, hi_k);
    const std::uint32_t upto = hi >= 31 ? ~0u : (2u << hi) - 1;
    return upto & ~((1u << lo) - 1);
  }
};

// Maximum length above 0 on binary branch (anc[n], n): some reconstruction of some active
// character puts a change there. Exact per character: down costs D, and for the ancestor
// the cost of the rest of the tree R; the branch can change when some s != t has
// R(s) + cost(s,t) + D(t) equal to the length.
void max_length_flags(const CollapseWork& w, std::vector<std::uint8_t>& changes) {
  constexpr long long inf = LLONG_MAX / 4;
  const int nodes = w.next;
  changes.assign(nodes, 0);
  std::vector<int> post(w.preorder.rbegin(), w.preorder.rend());
  std::vector<long long> D(static_cast<std::size_t>(nodes) * 32), Out(static_cast<std::size_t>(nodes) * 32);
  std::vector<long long> costs(32 * 32);
  ScoredCells sc;
  sc.prepare(true);
  for (int c = 0; c < dataset.nchar; ++c) {
    const auto& ch = dataset.chars[c];
    if (!ch.active || ch.is_continuous) continue;
    // States from 0 to the highest one observed on the tree's terminals.
    int ns = 1;
    for (int t = 0; t < w.nterm; ++t) {
      const std::uint32_t v = sc.cell(c, packed.from_packed[t]);
      if (v != ~0u) ns = std::max(ns, 32 - std::countl_zero(v));
    }
    // Cost tables count from the parent's state s to the child's state t; the costs of the
    // character are taken once into a table of its states.
    const bool table = ch.sankoff != 0;
    const bool add = ch.additive && !table;
    for (int s = 0; s < ns; ++s)
      for (int t = 0; t < ns; ++t)
        costs[s * ns + t] = table ? qax::dataset::cost_of(c, s, t) : add ? std::abs(s - t) : (s != t);
    auto cost = [&](int s, int t) -> long long { return costs[s * ns + t]; };
    auto best_from = [&](const long long* x, int t) {
      long long b = inf;
      for (int s = 0; s < ns; ++s) if (x[s] < inf) b = std::min(b, x[s] + cost(s, t));
      return b;
    };
    auto d = [&](int n) { return D.data() + static_cast<std::size_t>(n) * 32; };
    auto o = [&](int n) { return Out.data() + static_cast<std::size_t>(n) * 32; };
    for (int t = 0; t < w.nterm; ++t) {
      if (w.anc[t] < 0 && t != w.root) continue;
      const std::uint32_t v = sc.cell(c, packed.from_packed[t]);
      for (int s = 0; s < ns; ++s) d(t)[s] = (v >> s & 1) ? 0 : inf;
    }
    auto best_to = [&](const long long* x, int s) {
      long long b = inf;
      for (int t = 0; t < ns; ++t) b = std::min(b, x[t] >= inf ? inf : x[t] + cost(s, t));
      return b;
    };
    for (int n : post)
      for (int s = 0; s < ns; ++s) d(n)[s] = std::min(inf, best_to(d(w.left[n]), s) + best_to(d(w.right[n]), s));
    long long length = inf;
    for (int s = 0; s < ns; ++s) length = std::min(length, d(w.root)[s]);
    for (int s = 0; s < ns; ++s) o(w.root)[s] = 0;
    for (int n : w.preorder)
      for (int side = 0; side < 2; ++side) {
        const int v = side ? w.right[n] : w.left[n];
        const int sis = side ? w.left[n] : w.right[n];
        long long R[32];
        for (int s = 0; s < ns; ++s) R[s] = std::min(inf, o(n)[s] + best_to(d(sis), s));
        for (int t = 0; t < ns; ++t) o(v)[t] = best_from(R, t);
        if (v < w.nterm || changes[v]) continue;
        for (int s = 0; s < ns && !changes[v]; ++s)
          for (int t = 0; t < ns; ++t)
            if (s != t && R[s] < inf && d(v)[t] < inf && R[s] + cost(s, t) + d(v)[t] == length) {
              changes[v] = 1;
              break;
            }
      }
  }
}

// Rules on trees with polytomies, exact per character with hard polytomies: for each
// branch (v, parent v), whether a best reconstruction can give it no change (zero) or a
// change (change), and whether the state sets of best reconstructions at v and at its
// parent differ (differ). Inactive and absent taxa are missing entries.
struct EdgeFacts {
  std::vector<std::uint8_t> zero, change, differ;
};

// A continuous character in the same terms, its values serving as states.
void continuous_facts(const std::vector<std::vector<int>>& kids, const std::vector<int>& pre, int ntax, int c,
                      EdgeFacts& f) {
  continuous_branches(kids, pre, ntax, c, [&](const ContinuousBranch& b) {
    const int v = b.child;
    if (v < ntax) return;
    const auto& values = *b.values;
    const int m = static_cast<int>(values.size());
    bool zero = false, change = false;
    for (int i = 0; i < m; ++i)
      for (int j = 0; j < m; ++j)
        if (b.R[i] < continuous_none && b.down[j] < continuous_none &&
            b.R[i] + std::llabs(values[i] - values[j]) + b.down[j] == b.length)
          (i == j ? zero : change) = true;
    if (!zero) f.zero[v] = 0;
    if (change) f.change[v] = 1;
    for (int i = 0; i < m && !f.differ[v]; ++i) {
      const bool at_v = b.out_child[i] + b.down[i] == b.length;
      const bool at_n = b.out_parent[i] + b.down_parent[i] == b.length;
      if (at_v != at_n) f.differ[v] = 1;
    }
  });
}

void polytomy_facts(const std::int32_t* tree, int ntax, bool raw_view, EdgeFacts& f, bool wide_only = false) {
  constexpr long long inf = LLONG_MAX / 8;
  const int end = std::max(tree[ntax], ntax + 1);
  std::vector<std::vector<int>> kids(end);
  for (int v = 0; v < end; ++v)
    if (v != ntax && tree[v] >= ntax && tree[v] < end) kids[tree[v]].push_back(v);
  std::vector<int> pre{ntax};
  for (std::size_t i = 0; i < pre.size(); ++i)
    for (int k : kids[pre[i]]) pre.push_back(k);
  f.zero.assign(end, 1);
  f.change.assign(end, 0);
  f.differ.assign(end, 0);
  for (int v = 0; v < end; ++v) f.zero[v] = 1;
  std::vector<long long> D(static_cast<std::size_t>(end) * 32), O(static_cast<std::size_t>(end) * 32);
  std::vector<long long> R(32), costs(32 * 32);
  ScoredCells sc;
  sc.prepare(raw_view);
  for (int c = 0; c < dataset.nchar; ++c) {
    const auto& ch = dataset.chars[c];
    if (!ch.active || (!ch.is_continuous && !sc.scored(c))) continue;
    if (wide_only && !ch.is_continuous && !(c < static_cast<int>(packed.char_wide.size()) && packed.char_wide[c])) continue;
    if (ch.is_continuous) {
      if (ch.format == dataset::format_continuous) continuous_facts(kids, pre, ntax, c, f);
      continue;
    }
    auto cell = [&](int t) -> std::uint32_t {
      const bool active = t < static_cast<int>(dataset.taxon_active.size()) ? dataset.taxon_active[t] != 0 : true;
      return active ? sc.cell(c, t) : ~0u;
    };
    int ns = 1;
    for (int t = 0; t < ntax; ++t) {
      const std::uint32_t v = cell(t);
      if (v != ~0u) ns = std::max(ns, 32 - std::countl_zero(v));
    }
    // Cost tables count from the parent's state s to the child's state t; the costs of the
    // character are taken once into a table of its states.
    const bool table = ch.sankoff != 0;
    const bool add = ch.additive && !table;
    for (int s = 0; s < ns; ++s)
      for (int t = 0; t < ns; ++t)
        costs[s * ns + t] = table ? qax::dataset::cost_of(c, s, t) : add ? std::abs(s - t) : (s != t);
    auto cost = [&](int s, int t) -> long long { return costs[s * ns + t]; };
    auto best_from = [&](const long long* x, int t) {
      long long b = inf;
      for (int s = 0; s < ns; ++s) if (x[s] < inf) b = std::min(b, x[s] + cost(s, t));
      return b;
    };
    auto d = [&](int n) { return D.data() + static_cast<std::size_t>(n) * 32; };
    auto o = [&](int n) { return O.data() + static_cast<std::size_t>(n) * 32; };
    auto best_to = [&](const long long* x, int s) {
      long long b = inf;
      for (int t = 0; t < ns; ++t) if (x[t] < inf) b = std::min(b, x[t] + cost(s, t));
      return b;
    };
    for (auto it = pre.rbegin(); it != pre.rend(); ++it) {
      const int n = *it;
      if (n < ntax) {
        const std::uint32_t v = cell(n);
        for (int s = 0; s < ns; ++s) d(n)[s] = (v >> s & 1) ? 0 : inf;
        continue;
      }
      for (int s = 0; s < ns; ++s) {
        long long sum = 0;
        for (int k : kids[n]) sum = std::min(inf, sum + best_to(d(k), s));
        d(n)[s] = sum;
      }
    }
    long long length = inf;
    for (int s = 0; s < ns; ++s) { length = std::min(length, d(ntax)[s]); o(ntax)[s] = 0; }
    for (int n : pre) {
      if (n < ntax) continue;
      for (int v : kids[n]) {
        for (int s = 0; s < ns; ++s) {
          long long r = o(n)[s];
          for (int k : kids[n]) if (k != v) r = std::min(inf, r + best_to(d(k), s));
          R[s] = r;
        }
        for (int t = 0; t < ns; ++t) o(v)[t] = best_from(R.data(), t);
        if (v < ntax) continue;
        bool zero = false, change = false;
        for (int s = 0; s < ns; ++s)
          for (int t = 0; t < ns; ++t)
            if (R[s] < inf && d(v)[t] < inf && R[s] + cost(s, t) + d(v)[t] == length) (s == t ? zero : change) = true;
        if (!zero) f.zero[v] = 0;
        if (change) f.change[v] = 1;
        // State sets of the best reconstructions at v and at n.
        for (int s = 0; s < ns && !f.differ[v]; ++s) {
          const bool at_v = o(v)[s] < inf && d(v)[s] < inf && o(v)[s] + d(v)[s] == length;
          const bool at_n = o(n)[s] < inf && d(n)[s] < inf && o(n)[s] + d(n)[s] == length;
          if (at_v != at_n) f.differ[v] = 1;
        }
      }
    }
  }
}

}  // namespace

void collapse_tree(const std::int32_t* tree, std::vector<std::uint8_t>& keep, const std::uint8_t* ignore, int rule) {
  const int ntax = dataset.ntax;
  const int end = std::max(tree[ntax], ntax + 1);
  keep.assign(std::max(end, 2 * ntax - 1), 1);
  if (rule < 0) rule = collapse_settings.rule;
  if (rule == collapse_none) return;
  if (!dataset.loaded) shell::error_exit("Must read data first");
  ensure_packed();
  const int asked = rule;
  const bool swapping = asked == collapse_spr || asked == collapse_tbr;
  if (rule == collapse_rule4 || rule >= collapse_spr) rule = collapse_rule1;
  static CollapseWork w;
  if (!load_and_score(tree, ntax, w)) return;
  // Terminals below each node that are not ignored (active ones only).
  w.selected.assign(end, 0);
  for (int t = 0; t < ntax; ++t) {
    if (tree[t] < ntax || tree[t] >= end || w.map[t] < 0) continue;
    if (ignore && ignore[t]) continue;
    for (int a = tree[t], guard = 0; a >= ntax && a < end && guard < end; a = tree[a], ++guard) {
      ++w.selected[a];
      if (a == ntax) break;
    }
  }
  // SPR and TBR collapsing: the groups equal-score moves remove.
  std::vector<std::uint8_t> gone;
  if (swapping && !w.polytomy && swap_collapse_hook && swap_collapse_hook(tree, asked == collapse_tbr, gone)) {
    for (int v = ntax + 1; v < end; ++v) {
      if (tree[v] < ntax || tree[v] >= end || w.map[v] < 0 || w.selected[v] < 2) continue;
      if (v < static_cast<int>(gone.size()) && gone[v]) keep[v] = 0;
    }
    return;
  }
  // Trees with polytomies, and any tree when cost tables are packed apart from the words:
  // one character at a time. Binary trees under rule 1 and the ambiguity rule take the
  // packed columns from their words and only the wide characters one at a time.
  const bool split = !w.polytomy && packed.wide.any() && !ignore && (rule == collapse_rule1 || rule == collapse_amb);
  if (w.polytomy || (packed.wide.any() && !split)) {
    EdgeFacts f;
    polytomy_facts(tree, ntax, rule == collapse_rule3, f);
    for (int v = ntax + 1; v < end; ++v) {
      if (tree[v] < ntax || tree[v] >= end || w.map[v] < 0 || w.selected[v] < 2) continue;
      if (tree[v] != ntax && w.selected[tree[v]] == w.selected[v]) continue;  // no branch of its own
      keep[v] = rule == collapse_rule3 ? f.change[v] : rule == collapse_amb ? f.differ[v] : !f.zero[v];
    }
    return;
  }
  EdgeFacts wide_facts;
  if (split) polytomy_facts(tree, ntax, false, wide_facts, true);
  std::vector<std::uint8_t> max_change;
  if (rule == collapse_rule3) max_length_flags(w, max_change);
  const Layout& L = packed.layout;
  for (int v = ntax + 1; v < end; ++v) {
    if (tree[v] < ntax || tree[v] >= end || w.map[v] < 0 || w.selected[v] < 2) continue;
    // Nearest ancestor that is a different node with more selected terminals.
    int a = tree[v];
    for (int guard = 0; a != ntax && guard < end; ++guard) {
      if (w.map[a] != w.map[v] && w.selected[a] > w.selected[v]) break;
      a = tree[a];
    }
    if (w.map[a] == w.map[v] || w.selected[a] <= w.selected[v]) continue;  // no branch of its own
    const int n = w.map[v], m = w.map[a];
    bool stays;
    if (rule == collapse_rule3) {
      // Some reconstruction gives a change on a branch of the path from n up to m.
      stays = false;
      for (int x = n; x >= 0 && x != m && !stays; x = w.anc[x]) stays = max_change[x] != 0;
    } else if (rule == collapse_amb) {
      stays = sets_differ(L, final_of_node(w, n), final_of_node(w, m));
    } else {
      stays = some_field_empty(L, final_of_node(w, n), final_of_node(w, m));
    }
    if (split && !stays) stays = rule == collapse_amb ? wide_facts.differ[v] != 0 : wide_facts.zero[v] == 0;
    keep[v] = stays ? 1 : 0;
  }
}

// The rule for trees a search stores: the swapping rules would need the search engine while
// the search is using it, and rule 4 would make several trees of one.
static int store_rule() noexcept {
  const int r = collapse_settings.rule;
  return r >= collapse_rule4 ? static_cast<int>(collapse_rule1) : r;
}

void collapse_marks(const std::int32_t* tree, std::uint8_t* collapsed) {
  const int ntax = dataset.ntax;
  const int n = 2 * ntax - 1;
  std::fill(collapsed, collapsed + n, 0);
  if (collapse_settings.rule == collapse_none) return;
  std::vector<std::uint8_t> keep;
  collapse_tree(tree, keep, nullptr, store_rule());
  for (int v = ntax + 1; v < n && v < static_cast<int>(keep.size()); ++v) collapsed[v] = keep[v] ? 0 : 1;
}

void collapse_in_place(std::int32_t* tree, int ntax, const std::vector<std::uint8_t>& keep) {
  const int end = std::max(tree[ntax], ntax + 1);
  auto stays = [&](int v) { return v == ntax || v >= static_cast<int>(keep.size()) || keep[v]; };
  std::vector<std::int32_t> parent(tree, tree + 2 * ntax - 1);
  for (int v = 0; v < end; ++v) {
    if (v == ntax || tree[v] < ntax || tree[v] >= end) continue;
    if (v > ntax && !stays(v)) continue;
    int a = tree[v];
    for (int guard = 0; !stays(a) && guard < end; ++guard) a = tree[a];
    parent[v] = a;
  }
  for (int v = ntax + 1; v < end; ++v)
    if (!stays(v)) parent[v] = ntax;  // left without descendants: dropped by the renumbering
  std::copy(parent.begin(), parent.end(), tree);
  trees::reset_node_numbers(tree, ntax);
}

int collapsed_copy(const std::int32_t* tree, std::vector<std::int32_t>& out, int rule) {
  const int ntax = dataset.ntax;
  out.assign(tree, tree + 2 * ntax - 1);
  if (rule < 0) rule = collapse_settings.rule;
  if (rule == collapse_none) return 0;
  std::vector<std::uint8_t> keep;
  collapse_tree(tree, keep, nullptr, rule);
  int removed = 0;
  const int end = std::max(tree[ntax], ntax + 1);
  for (int v = ntax + 1; v < end; ++v) removed += keep[v] == 0;
  if (removed) collapse_in_place(out.data(), ntax, keep);
  return removed;
}

void collapse_for_store(std::int32_t* tree) {
  if (collapse_settings.rule == collapse_none) return;
  std::vector<std::uint8_t> keep;
  collapse_tree(tree, keep, nullptr, store_rule());
  collapse_in_place(tree, dataset.ntax, keep);
}

void collapse_work_flags(const WorkTree& t, std::uint8_t* flags) noexcept {
  const Layout& L = packed.layout;
  const NodeSets* ns = packed.node_sets.data();
  for (int n = 0; n < t.nnodes; ++n) flags[n] = 1;
  for (int n = t.nterm + 1; n < t.nnodes; ++n) {
    const int a = t.ancestor[n];
    if (a < 0) continue;
    flags[n] = some_field_empty(L, ns[n].final_set, ns[a].final_set) ? 1 : 0;
  }
}

}  // namespace qax::optim
