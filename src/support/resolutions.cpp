// The resolutions that trees give to the polytomies of their consensus, and the nodes
// of a pruned consensus where the trees attach the pruned taxa.
#include <algorithm>
#include <bit>
#include <map>

#include "shell/failure.h"
#include "shell/output.h"
#include "support/group_set.h"
#include "support/pruning.h"
#include "support/temp_collapse.h"
#include "trees/store.h"

namespace qax::support {

using qax::trees::tree_store;

// Each group of a tree inside a polytomy is a union of the polytomy's children (the
// children are groups of every tree), so it maps to a mask over the children. Example:
// polytomy of children A, B, (C D), E; a tree with ((A B)((C D) E)) gives the masks
// 0b0011 and 0b1100; a tree with (A (B (C D) E)) gives 0b1110.
std::vector<PolytomyResolutions> polytomy_resolutions(const std::vector<int>& trees,
                                                      const std::vector<std::uint8_t>& excluded,
                                                      const std::int32_t* consensus, int only_node) {
  const int ntax = tree_store.ntax;
  const int end = consensus[ntax];
  std::vector<std::vector<int>> kids(2 * ntax - 1);
  for (int v = 0; v < end; ++v)
    if (v != ntax && consensus[v] >= ntax) kids[consensus[v]].push_back(v);
  const auto& root = kids[ntax];
  if (root.size() != 2 || (root[0] >= ntax && root[1] >= ntax))
    shell::error_exit("To display resolutions, strict consensus must have\n"
                      "a basal dichotomy, with a terminal as first split");
  NodeSets cs, ts;
  node_sets_init(cs, ntax);
  node_sets_init(ts, ntax);
  compute_node_sets(consensus, excluded.data(), cs);
  std::vector<PolytomyResolutions> out;
  std::vector<int> child_of(ntax, -1), filled;
  for (int j = ntax + 1; j < end; ++j) {
    if (kids[j].size() < 3 || (only_node >= 0 && j != only_node)) continue;
    PolytomyResolutions p;
    p.node = j;
    p.children = kids[j];
    out.push_back(std::move(p));
  }
  const int words = cs.words;
  std::map<std::vector<std::vector<std::uint64_t>>, int> index;
  for (auto& p : out) {
    const int m = static_cast<int>(p.children.size());
    const int mwords = (m + 63) / 64;
    std::fill(child_of.begin(), child_of.end(), -1);
    for (int i = 0; i < m; ++i) {
      const std::uint64_t* r = cs.row(p.children[i]);
      for (int w = 0; w < words; ++w)
        for (std::uint64_t x = r[w]; x; x &= x - 1) child_of[w * 64 + std::countr_zero(x)] = i;
    }
    const std::uint64_t* js = cs.row(p.node);
    const int jsize = cs.sizes[p.node];
    index.clear();
    filled.assign(m, 0);
    for (int t : trees) {
      const std::int32_t* tr = consensus_row(t);
      compute_node_sets(tr, excluded.data(), ts);
      std::vector<std::vector<std::uint64_t>> res;
      for (int u = ntax + 1; u < tr[ntax]; ++u) {
        const int size = ts.sizes[u];
        if (size < 2 || size >= jsize) continue;
        const std::uint64_t* r = ts.row(u);
        bool inside = true;
        for (int w = 0; w < words && inside; ++w) inside = (r[w] & ~js[w]) == 0;
        if (!inside) continue;
        std::fill(filled.begin(), filled.end(), 0);
        for (int w = 0; w < words; ++w)
          for (std::uint64_t x = r[w]; x; x &= x - 1) ++filled[child_of[w * 64 + std::countr_zero(x)]];
        std::vector<std::uint64_t> mask(mwords, 0);
        int whole = 0;
        bool union_of_children = true;
        for (int i = 0; i < m; ++i) {
          if (!filled[i]) continue;
          if (filled[i] != cs.sizes[p.children[i]]) { union_of_children = false; break; }
          mask[i / 64] |= std::uint64_t{1} << (i % 64);
          ++whole;
        }
        if (!union_of_children || whole < 2 || whole >= m) continue;  // inside one child
        res.push_back(std::move(mask));
      }
      std::sort(res.begin(), res.end());
      res.erase(std::unique(res.begin(), res.end()), res.end());
      auto [it, added] = index.try_emplace(res, static_cast<int>(p.resolutions.size()));
      if (added) {
        p.resolutions.push_back(res);
        p.trees.emplace_back();
      }
      p.trees[it->second].push_back(t);
    }
  }
  return out;
}

std::vector<std::vector<std::uint8_t>> locate_taxa(const std::vector<int>& trees,
                                                   const std::vector<std::uint8_t>& excluded,
                                                   const std::int32_t* consensus, const std::vector<int>& taxa) {
  const int ntax = tree_store.ntax;
  const int n = 2 * ntax - 1;
  std::vector<int> depth(n, 0);
  for (int v = 0; v < consensus[ntax]; ++v) {
    if (v == ntax || (v < ntax && consensus[v] < ntax)) continue;
    int d = 0;
    for (int u = v; u != ntax; u = consensus[u]) ++d;
    depth[v] = d;
  }
  auto meet = [&](int a, int b) {
    if (a < 0) return b;
    while (depth[a] > depth[b]) a = consensus[a];
    while (depth[b] > depth[a]) b = consensus[b];
    while (a != b) { a = consensus[a]; b = consensus[b]; }
    return a;
  };
  std::vector<std::vector<std::uint8_t>> marks(taxa.size(), std::vector<std::uint8_t>(n, 0));
  NodeSets ns;
  node_sets_init(ns, ntax);
  for (int t : trees) {
    const std::int32_t* tr = consensus_row(t);
    compute_node_sets(tr, excluded.data(), ns);
    for (std::size_t k = 0; k < taxa.size(); ++k) {
      const int p = taxa[k];
      if (tr[p] < ntax) continue;  // absent from this tree
      // The sister group: the included taxa below the first ancestor that has any.
      int u = tr[p];
      while (u != ntax && ns.sizes[u] == 0) u = tr[u];
      if (ns.sizes[u] == 0) continue;
      const std::uint64_t* r = ns.row(u);
      int at = -1;
      for (int w = 0; w < ns.words; ++w)
        for (std::uint64_t x = r[w]; x; x &= x - 1) {
          const int leaf = w * 64 + std::countr_zero(x);
          if (consensus[leaf] >= ntax) at = meet(at, leaf);
        }
      if (at >= 0) marks[k][at] = 1;
    }
  }
  return marks;
}

}  // namespace qax::support
