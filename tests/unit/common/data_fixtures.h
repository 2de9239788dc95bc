// Data fixtures of the kernel and search tests: a matrix installed directly in memory
// (32-bit cells, taxon by taxon, editable by the test), and random binary trees over it.
#pragma once

#include <cstdint>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "dataset/dataset.h"

namespace qax::test {

// The cells of the installed matrix: cell (t, c) is at t * nchar + c.
inline std::vector<std::uint32_t>& matrix_cells() {
  static std::vector<std::uint32_t> cells;
  return cells;
}

// A matrix of ntax active taxa (t0, t1, ...) by nchar characters with default records, all
// cells 0 (the caller fills them), outgroup 0.
inline void install_matrix(int ntax, int nchar) {
  dataset::Dataset& d = dataset::dataset;
  d = dataset::Dataset{};
  d.loaded = 1;
  d.ntax = ntax;
  d.nchar = nchar;
  d.cell_width = 4;
  d.taxon_active.assign(ntax, 1);
  for (int t = 0; t < ntax; ++t) d.taxon_names.push_back("t" + std::to_string(t));
  d.chars.assign(nchar, dataset::CharacterRecord{});
  matrix_cells().assign(static_cast<std::size_t>(ntax) * nchar, 0);
  d.cells = reinterpret_cast<unsigned char*>(matrix_cells().data());
  d.outgroup = 0;
}

// A random binary tree on all taxa as a parent array: pairs of items are joined at random.
inline std::vector<std::int32_t> random_binary_parent(std::mt19937& rng, int ntax) {
  std::vector<std::int32_t> parent(2 * ntax - 1, 0);
  std::vector<int> pool(ntax);
  for (int i = 0; i < ntax; ++i) pool[i] = i;
  int next = 2 * ntax - 2;
  while (pool.size() > 2) {
    int i = rng() % pool.size();
    int a = pool[i];
    pool.erase(pool.begin() + i);
    int j = rng() % pool.size();
    int b = pool[j];
    pool.erase(pool.begin() + j);
    parent[a] = parent[b] = next;
    pool.push_back(next--);
  }
  parent[pool[0]] = parent[pool[1]] = ntax;
  parent[ntax] = 2 * ntax - 1;
  return parent;
}

// The binary tree (parent array) with two taxa from the two halves of one inner group of at
// least `least` taxa (and fewer than ntax - 1) changing places: the group stays, resolved
// otherwise. The tree itself when 50 tries found no such group.
inline std::vector<std::int32_t> swap_across_a_group(const std::vector<std::int32_t>& tree, int ntax, std::mt19937& rng,
                                                     std::size_t least) {
  std::vector<std::vector<int>> kids(tree[ntax]);
  for (int v = 0; v < tree[ntax]; ++v)
    if (v != ntax) kids[tree[v]].push_back(v);
  std::function<void(int, std::vector<int>&)> leaves = [&](int v, std::vector<int>& out) {
    if (v < ntax) { out.push_back(v); return; }
    for (int c : kids[v]) leaves(c, out);
  };
  std::vector<std::int32_t> swapped = tree;
  for (int tries = 0; tries < 50 && swapped == tree; ++tries) {
    const int v = ntax + 1 + static_cast<int>(rng() % (ntax - 2));
    if (kids[v].size() != 2) continue;
    std::vector<int> a, b;
    leaves(kids[v][0], a);
    leaves(kids[v][1], b);
    if (a.size() + b.size() < least || a.size() + b.size() >= static_cast<std::size_t>(ntax - 1)) continue;
    const int x = a[rng() % a.size()], y = b[rng() % b.size()];
    std::swap(swapped[x], swapped[y]);
  }
  return swapped;
}

// Calls visit(parent) for every binary tree of ntax taxa (ntax >= 3) with taxon 0 beside
// the root, as the program stores them: taxa 3.. inserted on every branch of the trees of
// the earlier ones.
inline void for_each_rooted_tree(int ntax, const std::function<void(const std::vector<int>&)>& visit) {
  std::vector<std::pair<int, int>> edges{{0, ntax}, {ntax + 1, ntax}, {1, ntax + 1}, {2, ntax + 1}};
  std::vector<int> parent(2 * ntax - 1, 0);
  std::function<void(int)> grow = [&](int next) {
    if (next == ntax) {
      for (auto [child, anc] : edges) parent[child] = anc;
      parent[ntax] = 2 * ntax - 1;
      visit(parent);
      return;
    }
    const int q = ntax + next - 1;   // the new inner node
    const std::size_t count = edges.size();
    for (std::size_t i = 0; i < count; ++i) {
      if (edges[i].first == 0) continue;   // the outgroup stays beside the root
      const auto saved = edges[i];
      edges[i] = {saved.first, q};
      edges.push_back({q, saved.second});
      edges.push_back({next, q});
      grow(next + 1);
      edges.pop_back();
      edges.pop_back();
      edges[i] = saved;
    }
  };
  grow(3);
}

}  // namespace qax::test
