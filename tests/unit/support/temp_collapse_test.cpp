// Temporary collapsing in the consensus commands, against a slow reference: a branch
// collapses under rule 1 when, for every character, the tree with that branch contracted
// (a hard polytomy) is no longer than the tree itself, i.e. some most parsimonious
// reconstruction gives the branch no change. Lengths are computed by a plain Sankoff
// recursion over child lists, independent of the packed kernels.
#include <gtest/gtest.h>

#include "common/harness.h"

#include <algorithm>
#include <cstdlib>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "optim/collapse.h"
#include "optim/packed.h"
#include "support/consensus.h"
#include "support/temp_collapse.h"
#include "trees/store.h"

namespace {

using Cluster = std::set<int>;
using qax::trees::tree_row;
using qax::trees::tree_store;

constexpr int nstates = 3;
constexpr int big = 1 << 20;

// A cell: the bits of the states a terminal may take (all bits: missing).
struct Matrix {
  int ntax = 0, nchar = 0;
  std::vector<std::vector<int>> cell;  // [taxon][char] state bits
};

Matrix random_matrix(int ntax, int nchar) {
  Matrix m{ntax, nchar, {}};
  m.cell.assign(ntax, std::vector<int>(nchar));
  for (int t = 0; t < ntax; ++t)
    for (int c = 0; c < nchar; ++c) {
      const int r = std::rand() % 10;
      m.cell[t][c] = r == 0 ? 7 : r == 1 ? 3 : 1 << (std::rand() % (c % 2 ? 2 : 3));
    }
  return m;
}

std::string xread_text(const Matrix& m) {
  std::string s = "xread " + std::to_string(m.nchar) + " " + std::to_string(m.ntax) + "\n";
  for (int t = 0; t < m.ntax; ++t) {
    s += "T" + std::to_string(t) + " ";
    for (int c = 0; c < m.nchar; ++c) {
      const int b = m.cell[t][c];
      if (b == 7) s += "?";
      else if (b == 3) s += "[01]";
      else s += std::to_string(b == 1 ? 0 : b == 2 ? 1 : 2);
    }
    s += "\n";
  }
  return s + ";\n";
}

// Random tree text on taxa 0..ntax-1: random joins; with `poly`, some joins take three.
// With `shared`, the groups (0 1) and (2 3) are in the tree.
std::string random_tree_text(int ntax, bool poly, bool shared = false) {
  std::vector<std::string> parts;
  if (shared) parts = {"(0 1)", "(2 3)"};
  for (int t = shared ? 4 : 0; t < ntax; ++t) parts.push_back(std::to_string(t));
  while (parts.size() > 2) {
    const int k = poly && parts.size() > 3 && std::rand() % 4 == 0 ? 3 : 2;
    std::string joined = "(";
    for (int i = 0; i < k; ++i) {
      const int j = std::rand() % static_cast<int>(parts.size());
      joined += (i ? " " : "") + parts[j];
      parts.erase(parts.begin() + j);
    }
    parts.push_back(joined + ")");
  }
  return "(" + parts[0] + " " + parts[1] + ")";
}

using Kids = std::vector<std::vector<int>>;

Kids children_of(const std::vector<int>& parent, int ntax) {
  Kids kids(parent.size());
  for (int v = 0; v < static_cast<int>(parent.size()); ++v)
    if (v != ntax && parent[v] >= ntax) kids[parent[v]].push_back(v);
  return kids;
}

// Sankoff cost vector of node v for character c (unit costs between states).
std::vector<int> sankoff(const Kids& kids, const Matrix& m, int c, int v) {
  std::vector<int> cost(nstates, 0);
  if (v < m.ntax) {
    for (int s = 0; s < nstates; ++s) cost[s] = (m.cell[v][c] >> s & 1) ? 0 : big;
    return cost;
  }
  for (int k : kids[v]) {
    const auto sub = sankoff(kids, m, c, k);
    for (int s = 0; s < nstates; ++s) {
      int best = big;
      for (int u = 0; u < nstates; ++u) best = std::min(best, sub[u] + (u != s));
      cost[s] += best;
    }
  }
  return cost;
}

int length(const Kids& kids, const Matrix& m, int c, int ntax) {
  const auto r = sankoff(kids, m, c, ntax);
  return *std::min_element(r.begin(), r.end());
}

// Rule-1 collapse of a stored tree, by contraction of each branch in turn.
std::vector<int> reference_collapse(const std::int32_t* row, const Matrix& m) {
  const int ntax = m.ntax;
  std::vector<int> parent(row, row + 2 * ntax - 1);
  const int end = parent[ntax];
  const Kids kids = children_of(parent, ntax);
  std::vector<int> base(m.nchar);
  for (int c = 0; c < m.nchar; ++c) base[c] = length(kids, m, c, ntax);
  std::vector<std::uint8_t> drop(end, 0);
  for (int v = ntax + 1; v < end; ++v) {
    std::vector<int> p = parent;
    for (int u = 0; u < end; ++u)
      if (u != ntax && p[u] == v) p[u] = parent[v];
    p[v] = -1;
    const Kids contracted = children_of(p, ntax);
    bool supported = false;
    for (int c = 0; c < m.nchar && !supported; ++c) supported = length(contracted, m, c, ntax) > base[c];
    drop[v] = !supported;
  }
  std::vector<int> out = parent;
  for (int u = 0; u < end; ++u) {
    if (u == ntax) continue;
    int a = out[u];
    while (a > ntax && drop[a]) a = parent[a];
    out[u] = a;
  }
  for (int v = ntax + 1; v < end; ++v)
    if (drop[v]) out[v] = -1;
  return out;
}

// Non-trivial clusters of a parent array (cells of -1 are removed nodes).
std::set<Cluster> clusters_of(const std::vector<int>& parent, int ntax) {
  std::map<int, Cluster> below;
  for (int t = 0; t < ntax; ++t)
    for (int a = parent[t]; a > ntax; a = parent[a]) below[a].insert(t);
  std::set<Cluster> out;
  for (auto& [v, c] : below)
    if (c.size() >= 2 && static_cast<int>(c.size()) < ntax) out.insert(c);
  return out;
}

std::set<Cluster> stored_clusters(int k) {
  const std::int32_t* r = tree_row(k);
  return clusters_of(std::vector<int>(r, r + 2 * tree_store.ntax - 1), tree_store.ntax);
}

std::set<Cluster> intersect(const std::vector<std::set<Cluster>>& sets) {
  std::set<Cluster> out = sets.front();
  for (const auto& s : sets) {
    std::set<Cluster> keep;
    for (const auto& c : out)
      if (s.count(c)) keep.insert(c);
    out = keep;
  }
  return out;
}

class TempCollapseTest : public ::testing::Test {
 protected:
  void SetUp() override { qax::test::setup_shell(); }
};

TEST_F(TempCollapseTest, CollapsedCopyMatchesReference) {
  std::srand(11);
  for (int round = 0; round < 12; ++round) {
    const int ntax = 5 + round % 5;
    const Matrix m = random_matrix(ntax, 3 + round % 4);
    std::string text = xread_text(m) + "tread ";
    for (int k = 0; k < 6; ++k) text += random_tree_text(ntax, k % 3 == 2) + (k < 5 ? " * " : ";\n");
    qax::test::run(text);
    ASSERT_EQ(tree_store.ntrees, 6);
    qax::optim::pack_data();  // a new matrix: the pack of the previous round is stale
    for (int k = 0; k < 6; ++k) {
      std::vector<std::int32_t> got;
      qax::optim::collapsed_copy(tree_row(k), got, qax::optim::collapse_rule1);
      EXPECT_EQ(clusters_of(std::vector<int>(got.begin(), got.end()), ntax),
                clusters_of(reference_collapse(tree_row(k), m), ntax))
          << "round " << round << " tree " << k << "\n" << text;
    }
  }
}

TEST_F(TempCollapseTest, StrictAndMajorityOfCollapsedTrees) {
  std::srand(5);
  int differs = 0, nonempty = 0;
  for (int round = 0; round < 15; ++round) {
    const int ntax = 6 + round % 4;
    const int ntrees = 3 + round % 3;
    // Few characters with many taxa: most trees have unsupported branches.
    Matrix m = random_matrix(ntax, 4 + round % 5);
    // Character 0 supports (0 1) in every tree; (2 3) is up to the random characters.
    for (int t = 0; t < ntax; ++t) m.cell[t][0] = t < 2 ? 2 : 1;
    std::string text = xread_text(m) + "tread ", list;
    for (int k = 0; k < ntrees; ++k) {
      text += random_tree_text(ntax, k == 1, true) + (k + 1 < ntrees ? " * " : ";\n");
      list += " " + std::to_string(k);
    }
    qax::test::run(text);
    ASSERT_EQ(tree_store.ntrees, ntrees);
    std::vector<std::set<Cluster>> collapsed, plain;
    std::map<Cluster, int> counts;
    std::vector<std::vector<std::int32_t>> before;
    for (int k = 0; k < ntrees; ++k) {
      collapsed.push_back(clusters_of(reference_collapse(tree_row(k), m), ntax));
      plain.push_back(stored_clusters(k));
      for (const auto& c : collapsed.back()) counts[c]++;
      before.emplace_back(tree_row(k), tree_row(k) + tree_store.row_size);
    }
    const std::set<Cluster> want = intersect(collapsed), want_plain = intersect(plain);
    differs += want != want_plain;
    nonempty += !want.empty();
    qax::test::run("nelsen*; nelsen<; nelsen*" + list + "; nelsen>; majority*" + list + ";");
    ASSERT_EQ(tree_store.ntrees, ntrees + 3);
    EXPECT_EQ(stored_clusters(ntrees), want) << "round " << round;
    EXPECT_EQ(stored_clusters(ntrees + 1), want) << "low memory, round " << round;
    std::set<Cluster> major;
    for (auto& [c, n] : counts)
      if (n > ntrees / 2) major.insert(c);
    EXPECT_EQ(stored_clusters(ntrees + 2), major) << "round " << round;
    // The stored trees are left as they were.
    for (int k = 0; k < ntrees; ++k)
      EXPECT_TRUE(std::equal(before[k].begin(), before[k].end(), tree_row(k))) << "tree " << k;
    qax::test::run("collapse -; nelsen*" + list + "; collapse +;");
    EXPECT_EQ(stored_clusters(ntrees + 3), want_plain) << "round " << round;
    qax::test::run("collapse none; nelsen*" + list + "; collapse 3;");
    EXPECT_EQ(stored_clusters(ntrees + 4), want_plain) << "round " << round;
  }
  EXPECT_GT(differs, 3);
  EXPECT_GT(nonempty, 5);
}

TEST_F(TempCollapseTest, RulesThatCannotCollapseTreeByTree) {
  qax::test::run("xread 2 4\nA 00\nB 01\nC 10\nD 11\n;\ntread (A (B (C D)));");
  std::string out = qax::test::run("collapse 4; nelsen;");
  EXPECT_NE(out.find("Error (nelsen): cannot use rule 4 to collapse during consensus calculation"), std::string::npos)
      << out;
  // The swapping rules collapse tree by tree.
  out = qax::test::run("collapse tbr; majority;");
  EXPECT_EQ(out.find("Error"), std::string::npos) << out;
  // With temporary collapsing off the rule does not matter.
  out = qax::test::run("collapse -; nelsen*;");
  EXPECT_EQ(tree_store.ntrees, 2) << out;
  EXPECT_EQ(qax::support::temp_collapse_view.depth, 0);
  EXPECT_EQ(qax::support::temp_collapse_view.active, 0);
}

// A matrix without characters gives no basis for collapsing: the trees count as read.
TEST_F(TempCollapseTest, NoCharactersNoCollapsing) {
  qax::test::run("xread 0 5\nA\nB\nC\nD\nE\n;\ntread (A (B (C (D E)))) * (A (B (C (E D))));");
  ASSERT_EQ(tree_store.ntrees, 2);
  EXPECT_FALSE(qax::support::temp_collapse_applies());
  qax::test::run("nelsen*;");
  ASSERT_EQ(tree_store.ntrees, 3);
  EXPECT_EQ(stored_clusters(2), stored_clusters(0));
  EXPECT_EQ(stored_clusters(2).size(), 3u);
}

TEST_F(TempCollapseTest, RoughFrequenciesUseStoredTrees) {
  qax::test::run("xread 2 5\nA 00\nB 01\nC 10\nD 11\nE 11\n;\ntread (A (B (C (D E)))) * (A (C (B (D E))));");
  std::string out = qax::test::run("rfreqs [0] 1;");
  EXPECT_NE(out.find("To calculate rough frequencies,\ntemporary collapsing will be deactivated\n"), std::string::npos)
      << out;
  out = qax::test::run("collapse -; rfreqs [0] 1;");
  EXPECT_EQ(out.find("temporary collapsing"), std::string::npos) << out;
}

}  // namespace
