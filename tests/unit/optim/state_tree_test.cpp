// Character-state trees decomposed in binary variables (cstree +) against a plain Sankoff
// reference written here: every state of the tree at every node (unobserved states of the
// tree are open to the ancestors, as in a recoded additive character), costs from the
// character's table. On binary trees through the packed columns and in searches, where
// mult must reach the best of all trees.
#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cmath>
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

// Fit under implied weighting (K = 3, weights 1) of decomposed state trees: per branch of
// the state tree, a binary variable (the states beyond the branch against the rest;
// polymorphic cells across it and missing cells are both), its Fitch steps on the binary
// tree less 1 when taxa lie on both sides for sure, fitted one by one.
// With `whole`, the fit of the character's homoplasy as a whole instead.
// `ups`: the parent of each state in each character's state tree.
double reference_fit(const std::vector<int>& parent, int ntax, int nchar, const std::vector<std::vector<int>>& ups,
                     bool whole = false) {
  std::vector<int> whole_steps(nchar, 0), whole_least(nchar, 0);
  const int nodes = parent[ntax];
  std::vector<std::vector<int>> kids(nodes);
  for (int v = 0; v < nodes; ++v)
    if (v != ntax) kids[parent[v]].push_back(v);
  double total = 0;
  for (int c = 0; c < nchar; ++c) {
    const int n = drawings[c % shapes].states;
    const std::vector<int>& up = ups[c];
    for (int s = 0; s < n; ++s) {
      if (up[s] < 0) continue;
      std::uint32_t high = 0;
      for (int x = 0; x < n; ++x)
        for (int y = x; y >= 0; y = up[y])
          if (y == s) high |= 1u << x;
      std::vector<std::uint32_t> bits(ntax, 3);
      bool low_seen = false, high_seen = false;
      for (int t = 0; t < ntax; ++t) {
        const std::uint32_t cell = ds::dataset.cell(t, c);
        if (cell == ds::dataset.missing_value()) continue;
        const bool hi = (cell & high) != 0, lo = (cell & ~high) != 0;
        bits[t] = (lo ? 1u : 0u) | (hi ? 2u : 0u);
        low_seen |= lo && !hi;
        high_seen |= hi && !lo;
      }
      int steps = 0;
      std::function<std::uint32_t(int)> fitch = [&](int v) -> std::uint32_t {
        if (v < ntax) return bits[v];
        std::uint32_t set = 3;
        for (int k : kids[v]) {
          const std::uint32_t b = fitch(k);
          if (set & b) set &= b;
          else { set |= b; ++steps; }
        }
        return set;
      };
      fitch(ntax);
      const double h = steps - (low_seen && high_seen ? 1 : 0);
      if (whole) {
        whole_steps[c] += steps;
        whole_least[c] += low_seen && high_seen;
      } else {
        total += h / (3.0 + h);
      }
    }
  }
  if (whole)
    for (int c = 0; c < nchar; ++c) {
      const double h = whole_steps[c] - whole_least[c];
      total += h / (3.0 + h);
    }
  return total;
}

TEST_F(StateTree, UnderImpliedWeightsEachVariableIsFittedOnItsOwn) {
  std::mt19937 rng(2718);
  int differs = 0;
  for (int round = 0; round < 5; ++round) {
    const int ntax = 7;
    const int nchar = 8;
    random_matrix(rng, ntax, nchar);
    qax::test::run("cstree +; piwe=3;");
    std::vector<std::vector<int>> ups;
    for (int c = 0; c < nchar; ++c) ups.push_back(ds::binary_state_tree(c));
    double best = 1e300;
    qax::test::for_each_rooted_tree(ntax, [&](const std::vector<int>& p) { best = std::min(best, reference_fit(p, ntax, nchar, ups)); });
    const std::string out = qax::test::run("mult=replic 6 tbr hold 20;");
    EXPECT_EQ(out.find("whole characters"), std::string::npos) << out;
    ASSERT_GT(trees::tree_store.ntrees, 0) << out;
    for (int k = 0; k < trees::tree_store.ntrees; ++k) {
      const std::int32_t* row = trees::tree_row(k);
      const std::vector<int> parent(row, row + trees::tree_store.row_size);
      EXPECT_NEAR(trees::tree_store.scores[k], reference_fit(parent, ntax, nchar, ups), 1e-4) << "round " << round;
      EXPECT_NEAR(trees::tree_store.scores[k], best, 1e-4) << "round " << round << "\n" << out;
      differs += std::abs(reference_fit(parent, ntax, nchar, ups, true) - trees::tree_store.scores[k]) > 1e-3;
    }
    qax::test::run("cstree -;");
    qax::test::run("piwe-;");
  }
  EXPECT_GT(differs, 0);   // the fits of whole characters are not those
}

}  // namespace
