// Character-state trees decomposed in binary variables (cstree +) against a plain Sankoff
// reference written here: every state of the tree at every node (unobserved states of the
// tree are open to the ancestors, as in a recoded additive character), costs from the
// character's table. On binary trees through the packed columns and in searches, where
// mult must reach the best of all trees.
#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "common/data_fixtures.h"
#include "common/harness.h"
#include "dataset/costs.h"
#include "dataset/dataset.h"
#include "optim/packed.h"
#include "optim/reports.h"
#include "trees/store.h"

using namespace qax;
namespace ds = qax::dataset;

namespace {

// Drawings of state trees and their numbers of states.
struct Drawing {
  const char* text;
  int states;
};
const Drawing drawings[] = {
    {"0-1-2-3\n", 4},
    {"  0\n / \\\n1   2\n|   |\n3   4\n", 5},
    {"1-0-2\n  |\n  3\n", 4},
    {"    0\n   / \\\n  1   2\n / \\   \\\n3   4   5\n", 6},
};
constexpr int shapes = 4;

// A matrix whose character c follows drawing c % shapes: one state per cell, some cells
// missing and some polymorphic.
void random_matrix(std::mt19937& rng, int ntax, int nchar) {
  qax::test::install_matrix(ntax, nchar);
  ds::reset_cost_state();
  auto& cells = qax::test::matrix_cells();
  for (int c = 0; c < nchar; ++c) {
    const int n = drawings[c % shapes].states;
    for (int t = 0; t < ntax; ++t) {
      std::uint32_t v = 1u << (rng() % n);
      const int x = static_cast<int>(rng() % 12);
      if (x == 0) v = 0xFFFFFFFFu;
      else if (x == 1) v |= 1u << (rng() % n);
      cells[static_cast<std::size_t>(t) * nchar + c] = v;
    }
  }
  for (int c = 0; c < nchar; ++c)
    qax::test::run("cstree " + std::to_string(c) + " =\n" + drawings[c % shapes].text + ";");
}

// Least cost of character c on a tree (parent array, polytomies allowed) by Sankoff's
// recursion over every state of the character.
long long reference_steps(const std::vector<int>& parent, int ntax, int c) {
  const int n = drawings[c % shapes].states;
  const int nodes = parent[ntax];
  std::vector<std::vector<int>> kids(nodes);
  for (int v = 0; v < nodes; ++v)
    if (v != ntax) kids[parent[v]].push_back(v);
  const long long inf = LLONG_MAX / 4;
  std::function<std::vector<long long>(int)> cost = [&](int v) {
    std::vector<long long> out(n, 0);
    if (v < ntax) {
      const std::uint32_t cell = ds::dataset.cell(v, c);
      if (cell == ds::dataset.missing_value()) return out;
      for (int s = 0; s < n; ++s) out[s] = (cell >> s & 1) ? 0 : inf;
      return out;
    }
    for (int k : kids[v]) {
      const auto sub = cost(k);
      for (int s = 0; s < n; ++s) {
        long long best = inf;
        for (int t = 0; t < n; ++t)
          if (sub[t] < inf) best = std::min(best, ds::cost_of(c, s, t) + sub[t]);
        out[s] += best;
      }
    }
    return out;
  };
  const auto root = cost(ntax);
  return *std::min_element(root.begin(), root.end());
}

class StateTree : public qax::test::ShellTest {};

TEST_F(StateTree, DecomposedLengthsAreTheStateTreeLengths) {
  std::mt19937 rng(4242);
  int pairs = 0;
  for (int round = 0; round < 25; ++round) {
    const int ntax = 6 + round % 5;
    const int nchar = 8;
    random_matrix(rng, ntax, nchar);
    const std::string out = qax::test::run("cstree +;");
    ASSERT_NE(out.find("decomposed in binary variables"), std::string::npos) << out;
    optim::pack_data();
    int tree_rows = 0;
    for (const auto& row : optim::packed.pack_plan) tree_rows += row.additive == 2;
    for (int c = 0; c < nchar; ++c) EXPECT_EQ(optim::packed.char_wide[c], 0) << "char " << c;
    EXPECT_GT(tree_rows, 0);
    for (int tr = 0; tr < 6; ++tr) {
      const auto p32 = qax::test::random_binary_parent(rng, ntax);
      const std::vector<int> parent(p32.begin(), p32.end());
      std::vector<int> steps;
      optim::character_steps(parent, steps);
      for (int c = 0; c < nchar; ++c) {
        EXPECT_EQ(steps[c], reference_steps(parent, ntax, c)) << "round " << round << " tree " << tr << " char " << c;
        ++pairs;
      }
    }
  }
  EXPECT_GT(pairs, 1000);
}

TEST_F(StateTree, ChangedCostsOrACapKeepTheCharacterWhole) {
  std::mt19937 rng(99);
  random_matrix(rng, 8, 4);
  std::string out = qax::test::run("costs 1 = 0/3 1; cstree +;");
  EXPECT_NE(out.find("Note: some costs (char. 1) do not correspond to a character state tree;"), std::string::npos)
      << out;
  optim::pack_data();
  EXPECT_EQ(optim::packed.char_wide[1], 1);
  // A cap below the tree's longest path makes a table that is no tree.
  out = qax::test::run("cstree 3 <2\n    0\n   / \\\n  1   2\n / \\   \\\n3   4   5\n;");
  optim::pack_data();
  EXPECT_EQ(optim::packed.char_wide[3], 1);
  // cstree - puts every tree back to a whole character.
  qax::test::run("cstree -;");
  optim::pack_data();
  for (const auto& row : optim::packed.pack_plan) EXPECT_NE(row.additive, 2) << row.character;
}

TEST_F(StateTree, MultReachesTheBestOfAllTrees) {
  std::mt19937 rng(777);
  for (int round = 0; round < 5; ++round) {
    const int ntax = 7;
    const int nchar = 8;
    random_matrix(rng, ntax, nchar);
    qax::test::run("cstree +;");
    long long best = LLONG_MAX;
    qax::test::for_each_rooted_tree(ntax, [&](const std::vector<int>& p) {
      long long total = 0;
      for (int c = 0; c < nchar; ++c) total += reference_steps(p, ntax, c);
      best = std::min(best, total);
    });
    const std::string out = qax::test::run("mult=replic 6 tbr hold 20;");
    ASSERT_GT(trees::tree_store.ntrees, 0) << out;
    for (int k = 0; k < trees::tree_store.ntrees; ++k)
      EXPECT_DOUBLE_EQ(trees::tree_store.scores[k], static_cast<double>(best)) << "round " << round << "\n" << out;
  }
}

}  // namespace
