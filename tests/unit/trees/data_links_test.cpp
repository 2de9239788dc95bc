// Data simulated along a tree (xread +), outgroup re-rooting of the stored trees and
// "@T N" in taxon lists, driven in-process through the command shell. The simulated
// characters are checked against a small Fitch count on the generating tree.
#include <gtest/gtest.h>

#include "common/harness.h"
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "app/command_table.h"
#include "app/program.h"
#include "dataset/dataset.h"
#include "shell/arena.h"
#include "shell/commands.h"
#include "shell/input.h"
#include "shell/output.h"
#include "shell/state.h"
#include "trees/store.h"

using namespace qax;
namespace ds = qax::dataset;

namespace {

using qax::test::run;
using qax::test::setup_shell;
using qax::test::has;





// A random binary tree on taxa 0..n-1 in parenthetical text (random joining of clades).
std::string random_tree_text(int n, unsigned seed) {
  std::srand(seed);
  std::vector<std::string> clades;
  for (int t = 0; t < n; ++t) clades.push_back(std::to_string(t));
  while (clades.size() > 1) {
    std::size_t a = std::rand() % clades.size();
    std::string x = clades[a];
    clades.erase(clades.begin() + a);
    std::size_t b = std::rand() % clades.size();
    clades[b] = "(" + x + " " + clades[b] + ")";
  }
  return clades[0];
}

// Reference: Fitch length of one nonadditive character on a parent-array tree
// (polytomies allowed: sets of the children are intersected pairwise in turn).
int fitch_length(const std::int32_t* tree, int ntax, const std::vector<std::uint32_t>& leaf) {
  int end = tree[ntax];
  std::vector<std::uint32_t> set(end, 0);
  std::vector<int> depth(end, 0);
  std::vector<int> nodes;
  for (int v = 0; v < end; ++v) {
    if (v < ntax && tree[v] < ntax) continue;
    for (int u = v; u != ntax; u = tree[u]) ++depth[v];
    nodes.push_back(v);
  }
  std::sort(nodes.begin(), nodes.end(), [&](int a, int b) { return depth[a] > depth[b]; });
  int length = 0;
  for (int v : nodes) {
    if (v < ntax) set[v] = leaf[v];
    if (v == ntax) continue;
    int p = tree[v];
    if (!set[p]) set[p] = set[v];
    else if (set[p] & set[v]) set[p] &= set[v];
    else {
      set[p] |= set[v];
      ++length;
    }
  }
  return length;
}

double mean_fitch_length(const std::int32_t* tree) {
  const auto& d = ds::dataset;
  double total = 0;
  std::vector<std::uint32_t> leaf(d.ntax);
  for (int ch = 0; ch < d.nchar; ++ch) {
    for (int t = 0; t < d.ntax; ++t) leaf[t] = d.cell(t, ch);
    total += fitch_length(tree, d.ntax, leaf);
  }
  return total / d.nchar;
}

class DataLinks : public ::testing::Test {
 protected:
  void SetUp() override { setup_shell(); }
};

TEST_F(DataLinks, SimulatedMatrixHasTheStatedSizeAndFitsTheTree) {
  const int ntax = 14;
  std::string tree = random_tree_text(ntax, 7);
  run("xread /1 " + std::to_string(ntax) + " 2; tread " + tree + ";");
  ASSERT_EQ(trees::tree_store.ntrees, 1);
  std::vector<std::int32_t> model(trees::tree_row(0), trees::tree_row(0) + 2 * ntax - 1);
  std::vector<std::string> names = ds::dataset.taxon_names;

  std::string out = run("rseed 5; xread +0 97 300 4;");
  const auto& d = ds::dataset;
  ASSERT_TRUE(d.loaded) << out;
  EXPECT_EQ(d.ntax, ntax);
  EXPECT_EQ(d.nchar, 300);
  EXPECT_EQ(d.cell_width, 1);
  EXPECT_EQ(d.title, "Data, p(stasis)=0.97");
  EXPECT_EQ(d.taxon_names, names);
  for (int t = 0; t < ntax; ++t)
    for (int ch = 0; ch < d.nchar; ++ch) {
      std::uint32_t v = d.cell(t, ch);
      ASSERT_EQ(std::popcount(v), 1);
      ASSERT_LT(v, 1u << 4);
    }
  // The model tree is kept as tree 0, group 0 "model_tree".
  ASSERT_EQ(trees::tree_store.ntrees, 1);
  EXPECT_TRUE(trees::trees_equal(trees::tree_row(0), model.data(), ntax));
  EXPECT_EQ(trees::tree_store.group_names[0], "model_tree");
  EXPECT_EQ(trees::tree_group_row(0)[0] & 1u, 1u);
  // 25 branches with 3% change each: about 0.75 changes a character, and Fitch never
  // counts more changes than happened.
  double low = mean_fitch_length(model.data());
  EXPECT_LT(low, 1.5);
  EXPECT_GT(low, 0.2);

  run("xread +0 100 50 4;");
  EXPECT_EQ(mean_fitch_length(model.data()), 0.0);

  run("xread +0 0 300 4;");
  EXPECT_GT(mean_fitch_length(model.data()), 6.0);
}

TEST_F(DataLinks, CellWidthFollowsTheNumberOfStates) {
  run("xread /1 6 2; tread (0 (1 (2 (3 (4 5)))));");
  run("xread +0 50 10 8;");
  EXPECT_EQ(ds::dataset.cell_width, 1);
  run("xread +0 50 10 9;");
  EXPECT_EQ(ds::dataset.cell_width, 2);
  EXPECT_EQ(ds::dataset.nchar, 10);
  run("xread +0 50 10 17;");
  EXPECT_EQ(ds::dataset.cell_width, 4);
  run("xread +0 50 7 1;");
  for (int t = 0; t < 6; ++t)
    for (int ch = 0; ch < 7; ++ch) EXPECT_EQ(ds::dataset.cell(t, ch), 1u);
}

TEST_F(DataLinks, AbsentTerminalsStayMissing) {
  run("xread /1 6 2; tread (0 (1 (2 3)));");
  run("xread +0 80 20 3;");
  ASSERT_TRUE(ds::dataset.loaded);
  for (int ch = 0; ch < 20; ++ch) {
    EXPECT_EQ(ds::dataset.cell(4, ch), ds::dataset.missing_value());
    EXPECT_EQ(ds::dataset.cell(5, ch), ds::dataset.missing_value());
    EXPECT_EQ(std::popcount(ds::dataset.cell(0, ch)), 1);
  }
}

TEST_F(DataLinks, ErrorsLeaveTheDataInPlace) {
  run("xread /1 6 2; tread (0 (1 (2 (3 (4 5)))));");
  EXPECT_TRUE(has(run("xread +0 100.5 5 2;"), "Probability of stasis must be 0-100"));
  EXPECT_TRUE(has(run("xread +3 50 5 2;"), "No tree 3 (trees 0-0)"));
  EXPECT_TRUE(has(run("xread +! 5 2;"), "No messages written to tree branches"));
  EXPECT_TRUE(has(run("xread +0 50 5 0;"), "Number of states must be 1-32"));
  EXPECT_TRUE(ds::dataset.loaded);
  EXPECT_EQ(ds::dataset.nchar, 1);
  EXPECT_EQ(trees::tree_store.ntrees, 1);
}

TEST_F(DataLinks, OutgroupReroots) {
  run("xread /1 6 2; tread ((0 1)(2 (3 (4 5)))) * (0 (1 2 3 4 5));");
  run("outgroup 4;");
  for (int k = 0; k < 2; ++k) EXPECT_EQ(trees::tree_row(k)[4], 6) << "tree " << k;
  run("outgroup 0;");
  for (int k = 0; k < 2; ++k) EXPECT_EQ(trees::tree_row(k)[0], 6) << "tree " << k;
}

TEST_F(DataLinks, TerminalsBelowANode) {
  run("xread /1 6 2; tread ((0 1)(2 (3 (4 5))));");
  const std::int32_t* tree = trees::tree_row(0);
  // Every internal node: the group is exactly the terminals whose path reaches it.
  for (int node = 6; node < tree[6]; ++node) {
    run("agroup =1 @0 " + std::to_string(node) + ";");
    for (int t = 0; t < 6; ++t) {
      int v = t;
      while (v != node && v != 6) v = tree[v];
      EXPECT_EQ((ds::dataset.taxon_groups[t] >> 1) & 1u, v == node ? 1u : 0u) << "node " << node << " taxon " << t;
    }
  }
  run("agroup =2 @0 3;");
  for (int t = 0; t < 6; ++t) EXPECT_EQ((ds::dataset.taxon_groups[t] >> 2) & 1u, t == 3 ? 1u : 0u);
}

}  // namespace
