// Prunings of the strict and combinable consensus, and the rogue scores of prunmajor.
#include "support/pruning.h"

#include <algorithm>
#include <bit>
#include <map>

#include "shell/output.h"
#include "shell/state.h"
#include "support/consensus.h"
#include "support/group_set.h"
#include "support/temp_collapse.h"
#include "trees/store.h"

namespace qax::support {

using qax::trees::tree_store;

void base_consensus(PruneBase base, const std::vector<int>& trees, const std::vector<std::uint8_t>& excluded,
                    std::int32_t* result) {
  if (base == PruneBase::strict)
    strict_consensus(trees, excluded, result, false);
  else
    combinable_consensus(trees, excluded, result);
}

// Depth of a node: the number of ancestors up to the root.
static int node_depth(const std::int32_t* tree, int ntax, int v) {
  int d = 0;
  while (v != ntax) { v = tree[v]; ++d; }
  return d;
}

int gained_nodes(const std::int32_t* original, const std::int32_t* pruned, const std::vector<std::uint8_t>& excl,
                 std::vector<int>& per_node) {
  const int ntax = tree_store.ntax;
  int included = 0;
  for (auto e : excl) included += e == 0;
  NodeSets ns;
  node_sets_init(ns, ntax);
  GroupTable table;
  group_table_init(table, ntax);
  // The original's groups restricted to the taxa left; of two nodes that become equal
  // the deeper one stands for the set (new groups inside it belong to it).
  compute_node_sets(original, excl.data(), ns);
  for (int v = ntax + 1; v < original[ntax]; ++v) {
    const int size = ns.sizes[v];
    if (size < 2) continue;
    const std::uint64_t* r = ns.row(v);
    const std::uint64_t h = set_hash(r, ns.words);
    const int g = group_find(table, r, size, h);
    if (g < 0)
      group_add(table, r, size, h, v, 0);
    else if (node_depth(original, ntax, v) > node_depth(original, ntax, table.entries[g].count))
      table.entries[g].count = v;
  }
  per_node.assign(2 * ntax - 1, 0);
  compute_node_sets(pruned, excl.data(), ns);
  int gained = 0;
  auto lookup = [&](int v) {
    const std::uint64_t* r = ns.row(v);
    return group_find(table, r, ns.sizes[v], set_hash(r, ns.words));
  };
  for (int v = ntax + 1; v < pruned[ntax]; ++v) {
    if (ns.sizes[v] < 2 || ns.sizes[v] >= included || lookup(v) >= 0) continue;
    ++gained;
    int owner = ntax;
    for (int u = pruned[v];; u = pruned[u]) {
      const int g = lookup(u);
      if (g >= 0) { owner = table.entries[g].count; break; }
      if (u == ntax) break;
    }
    ++per_node[owner];
  }
  return gained;
}

std::vector<Pruning> find_prunings(PruneBase base, const std::vector<int>& trees,
                                   const std::vector<std::uint8_t>& excluded, const std::vector<std::uint8_t>& forced,
                                   const std::int32_t* consensus, const PruneOptions& options, bool& truncated) {
  const int ntax = tree_store.ntax;
  truncated = false;
  std::vector<int> candidates;
  for (int t = 0; t < ntax; ++t)
    if (!excluded[t] && !(t < static_cast<int>(forced.size()) && forced[t])) candidates.push_back(t);
  const int included = static_cast<int>(std::count(excluded.begin(), excluded.end(), 0));
  const int ncand = static_cast<int>(candidates.size());
  std::vector<Pruning> out;
  std::map<std::vector<int>, int> gains;  // every set tried, for the subset test
  std::vector<std::uint8_t> excl(excluded);
  std::vector<std::int32_t> tree(2 * ntax - 1);
  std::vector<int> per_node;
  std::vector<int> pick;
  const int max_size = std::min(options.max_pruned, ncand);
  long long tried = 0;
  for (int size = 1; size <= max_size && included - size >= 3; ++size) {
    // Combinations of `size` candidates, in lexicographic order of positions.
    pick.resize(size);
    for (int i = 0; i < size; ++i) pick[i] = i;
    while (true) {
      std::vector<int> taxa(size);
      for (int i = 0; i < size; ++i) taxa[i] = candidates[pick[i]];
      for (int t : taxa) excl[t] |= excluded_by_user;
      base_consensus(base, trees, excl, tree.data());
      gained_nodes(consensus, tree.data(), excl, per_node);
      for (int t : taxa) excl[t] = excluded[t];
      const int gain = options.node >= 0 ? per_node[options.node]
                                         : [&] { int s = 0; for (int g : per_node) s += g; return s; }();
      int below = 0;  // best gain of the sets one taxon smaller
      if (size > 1 && gain > options.min_gain)
        for (int i = 0; i < size; ++i) {
          std::vector<int> sub;
          for (int j = 0; j < size; ++j)
            if (j != i) sub.push_back(taxa[j]);
          auto it = gains.find(sub);
          if (it != gains.end()) below = std::max(below, it->second);
        }
      if (size < max_size) gains[taxa] = gain;
      if (gain > options.min_gain && gain > below) {
        if (static_cast<int>(out.size()) >= options.max_solutions) {
          truncated = true;
          return out;
        }
        out.push_back({taxa, gain, per_node, tree});
      }
      shell::show_progress(++tried, 0, "Pruning taxa");
      if (shell::shell_state.stop_search_flag) return out;  // interrupted: keep what was found
      // Next combination.
      int i = size - 1;
      while (i >= 0 && pick[i] == ncand - size + i) --i;
      if (i < 0) break;
      ++pick[i];
      for (int j = i + 1; j < size; ++j) pick[j] = pick[j - 1] + 1;
    }
  }
  return out;
}

RogueScores rogue_scores(int reference, const std::vector<int>& nodes, const std::vector<int>& trees,
                         const std::vector<std::uint8_t>& excluded, const std::vector<std::uint8_t>& keep,
                         bool differences) {
  const int ntax = tree_store.ntax;
  const auto& cs = consensus_settings;
  int included = 0;
  for (auto e : excluded) included += e == 0;
  NodeSets rs, ts;
  node_sets_init(rs, ntax);
  node_sets_init(ts, ntax);
  const std::int32_t* ref = consensus_row(reference);
  compute_node_sets(ref, excluded.data(), rs);
  RogueScores out;
  for (int v = ntax + 1; v < ref[ntax]; ++v) {
    if (rs.sizes[v] < 2 || rs.sizes[v] >= included) continue;
    if (!nodes.empty() && std::find(nodes.begin(), nodes.end(), v) == nodes.end()) continue;
    out.nodes.push_back(v);
  }
  out.per_node.assign(out.nodes.size(), std::vector<double>(ntax, 0.0));
  out.global.assign(ntax, 0.0);
  const int words = rs.words;
  std::vector<std::uint64_t> diff(words);
  for (int t : trees) {
    if (t == reference) continue;
    const std::int32_t* tr = consensus_row(t);
    compute_node_sets(tr, excluded.data(), ts);
    for (std::size_t k = 0; k < out.nodes.size(); ++k) {
      const int v = out.nodes[k];
      const std::uint64_t* g = rs.row(v);
      const int gsize = rs.sizes[v];
      double best = 0;
      int best_node = -1, best_added = 0, best_removed = 0;
      for (int u = ntax + 1; u < tr[ntax]; ++u) {
        const int hsize = ts.sizes[u];
        if (hsize < 2 || hsize >= included) continue;
        const std::uint64_t* h = ts.row(u);
        int both = 0;
        for (int w = 0; w < words; ++w) both += std::popcount(g[w] & h[w]);
        const int added = hsize - both, removed = gsize - both;
        if (added > cs.prune_proportion * gsize || removed > cs.prune_proportion * gsize) continue;
        const int b = std::min(both, included - gsize - added);
        if (b <= 0) continue;
        const double s = b / (b + added * static_cast<double>(cs.prune_cost_out) +
                              removed * static_cast<double>(cs.prune_cost_in));
        if (s > best) { best = s; best_node = u; best_added = added; best_removed = removed; }
      }
      if (best_node < 0 || (best_added == 0 && best_removed == 0)) continue;  // absent, or present
      if (differences && (best_added == 0 || best_removed == 0)) continue;   // nested: not a rival
      const std::uint64_t* h = ts.row(best_node);
      bool blocked = false;
      for (int w = 0; w < words; ++w) {
        diff[w] = g[w] ^ h[w];
        for (std::uint64_t x = diff[w]; x; x &= x - 1) blocked |= keep[w * 64 + std::countr_zero(x)] != 0;
      }
      if (blocked) continue;
      const double share = 1.0 / (best_removed * static_cast<double>(cs.prune_cost_in) +
                                  best_added * static_cast<double>(cs.prune_cost_out));
      for (int w = 0; w < words; ++w)
        for (std::uint64_t x = diff[w]; x; x &= x - 1) {
          const int taxon = w * 64 + std::countr_zero(x);
          out.per_node[k][taxon] += share;
          out.global[taxon] += share;
        }
    }
  }
  return out;
}

double updn_value(const std::vector<int>& trees, const std::vector<std::uint8_t>& excluded,
                  const std::vector<std::uint8_t>& pruned, int base_taxa, const UpdnOptions& options,
                  std::vector<std::int32_t>* tree, std::vector<double>* support) {
  const int ntax = tree_store.ntax;
  std::vector<std::uint8_t> excl(excluded);
  int r = 0;
  for (int t = 0; t < ntax; ++t)
    if (pruned[t] && !excluded[t]) { excl[t] |= excluded_by_user; ++r; }
  std::vector<std::int32_t> result(2 * ntax - 1);
  std::vector<double> values(2 * ntax - 1, -1.0);
  double sum = 0;
  if (base_taxa - r >= 3) {
    const int n = static_cast<int>(trees.size());
    if (!options.differences && options.cutoff >= 100) {
      strict_consensus(trees, excl, result.data(), false);
      for (int v = ntax + 1; v < result[ntax]; ++v) values[v] = 100.0;
    } else {
      CountResult c = options.differences ? frequency_differences(-1, trees, excl, options.cutoff, result.data())
                                          : majority_consensus(trees, excl, options.cutoff, result.data());
      for (int v = ntax + 1; v < result[ntax]; ++v) values[v] = 100.0 * c.node_value[v] / n;
    }
    for (int v = ntax + 1; v < result[ntax]; ++v) sum += values[v];
  } else {
    for (int v = 0; v < 2 * ntax - 1; ++v) result[v] = 0;
    result[ntax] = ntax + 1;
  }
  if (tree) *tree = result;
  if (support) *support = values;
  const double f = options.factor;
  return (sum + r * 100.0 * (1 - f * f)) / std::max(1, base_taxa - 2);
}

namespace {

// True when two taxa lie on either side of a node of support `separator` or more: some
// node with that support holds one and not the other.
bool separated(const std::vector<std::int32_t>& tree, const std::vector<double>& support, int a, int b,
               int separator) {
  const int ntax = tree_store.ntax;
  if (tree[a] < ntax || tree[b] < ntax) return false;
  for (int x : {a, b}) {
    const int other = x == a ? b : a;
    for (int u = tree[x]; u != ntax; u = tree[u]) {
      int w = tree[other];  // is u an ancestor of other?
      while (w != ntax && w != u) w = tree[w];
      if (w == u) break;    // reached the common ancestor
      if (support[u] >= separator) return true;
    }
  }
  return false;
}

}  // namespace

UpdnResult updn_search(const std::vector<int>& trees, const std::vector<std::uint8_t>& excluded,
                       const std::vector<std::uint8_t>& pool, const UpdnOptions& options) {
  const int ntax = tree_store.ntax;
  int base_taxa = 0;
  for (auto e : excluded) base_taxa += e == 0;
  UpdnResult res;
  res.pruned.assign(ntax, 0);
  if (options.up)
    for (int t = 0; t < ntax; ++t) res.pruned[t] = pool[t] && !excluded[t];
  std::vector<std::int32_t> tree;
  std::vector<double> support;
  double current = updn_value(trees, excluded, res.pruned, base_taxa, options, &tree, &support);
  res.initial = current;
  for (int stage = 0; stage < options.max_stages; ++stage) {
    // Taxa that may move at this stage.
    std::vector<int> movable;
    for (int t = 0; t < ntax; ++t)
      if (pool[t] && !excluded[t] && (options.up ? res.pruned[t] : !res.pruned[t])) movable.push_back(t);
    const int m = static_cast<int>(movable.size());
    double best = current;
    std::vector<int> best_set;
    std::vector<int> pick;
    for (int size = 1; size <= std::min(options.max_set, m); ++size) {
      pick.resize(size);
      for (int i = 0; i < size; ++i) pick[i] = i;
      while (true) {
        bool allowed = true;
        if (options.separator >= 0 && !options.up)
          for (int i = 0; i < size && allowed; ++i)
            for (int j = i + 1; j < size && allowed; ++j)
              allowed = !separated(tree, support, movable[pick[i]], movable[pick[j]], options.separator);
        if (allowed) {
          std::vector<std::uint8_t> trial(res.pruned);
          for (int i : pick) trial[movable[i]] = options.up ? 0 : 1;
          const double e = updn_value(trees, excluded, trial, base_taxa, options);
          if (e > best + 1e-9) {
            best = e;
            best_set.clear();
            for (int i : pick) best_set.push_back(movable[i]);
          }
        }
        int i = size - 1;
        while (i >= 0 && pick[i] == m - size + i) --i;
        if (i < 0) break;
        ++pick[i];
        for (int j = i + 1; j < size; ++j) pick[j] = pick[j - 1] + 1;
      }
    }
    shell::show_progress(stage + 1, options.max_stages, "Pruning taxa");
    if (best_set.empty() || shell::shell_state.stop_search_flag) break;
    for (int t : best_set) res.pruned[t] = options.up ? 0 : 1;
    current = updn_value(trees, excluded, res.pruned, base_taxa, options, &tree, &support);
    res.stages.push_back({best_set, current});
  }
  return res;
}

}  // namespace qax::support
