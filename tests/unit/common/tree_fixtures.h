// Tree fixtures shared by the tree and consensus tests: a data set of named taxa without
// characters, and random trees over it.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "dataset/dataset.h"
#include "shell/input.h"
#include "shell/output.h"
#include "trees/store.h"

namespace qax::test {

// ntax taxa named T0, T1, ... with an empty tree store; console and log silent.
inline void load_taxa(int ntax) {
  static bool stack_ready = false;
  if (!stack_ready) {
    shell::init_input_stack(10, "", false);
    stack_ready = true;
  }
  auto& d = dataset::dataset;
  d.loaded = 1;
  d.ntax = ntax;
  d.taxon_names.clear();
  for (int t = 0; t < ntax; ++t) d.taxon_names.push_back("T" + std::to_string(t));
  d.taxon_active.assign(ntax, 1);
  d.outgroup = 0;
  trees::tree_store_clear();
  trees::tree_store_reset_for(ntax);
  shell::output_state.silent_flags = 3;
}

// A random tree on all taxa, with polytomies in `poly` per cent of its nodes (std::rand).
inline std::vector<std::int32_t> random_complete(int ntax, int poly) {
  std::vector<int> order;
  for (int t = 0; t < ntax; ++t) order.push_back(t);
  for (int i = ntax - 1; i > 0; --i) std::swap(order[i], order[std::rand() % (i + 1)]);
  std::vector<std::int32_t> tree(2 * ntax - 1);
  trees::random_tree(tree.data(), ntax, order, poly, ntax);
  return tree;
}

// Slow reference: the terminals below node v, in order, leaving out absent terminals and
// those flagged in `excluded` (may be null).
inline std::vector<int> taxa_below(const std::int32_t* tree, int ntax, int v,
                                   const std::vector<std::uint8_t>* excluded = nullptr) {
  std::vector<int> c;
  for (int t = 0; t < ntax; ++t) {
    if (tree[t] < ntax || (excluded && (*excluded)[t])) continue;
    int a = tree[t];
    while (a != v && a != ntax) a = tree[a];
    if (a == v) c.push_back(t);
  }
  return c;
}

// Two clusters conflict when they overlap and neither holds the other.
template <class Set> bool clusters_conflict(const Set& a, const Set& b) {
  int both = 0, ao = 0, bo = 0;
  for (int x : a) (b.count(x) ? both : ao)++;
  for (int x : b) bo += !a.count(x);
  return both && ao && bo;
}

}  // namespace qax::test
