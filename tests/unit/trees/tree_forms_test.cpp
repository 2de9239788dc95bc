// Tree commands that lean on collapsing, constraints and scoring: the selectors of tgroup,
// the constraint and collapsing forms of unique, sort =mono, taxon groups in tree text and
// the joining of tags by tread [. Results are checked against slow references written
// here (Fitch lengths, clusters, splits).
#include <gtest/gtest.h>

#include "common/harness.h"
#include "common/tree_fixtures.h"

#include <algorithm>
#include <cstdlib>
#include <set>
#include <string>
#include <vector>

#include "dataset/dataset.h"
#include "trees/notation.h"
#include "trees/store.h"

using namespace qax::trees;
using qax::test::has;
using qax::test::run;
namespace ds = qax::dataset;

namespace {

class TreeForms : public ::testing::Test {
 protected:
  void SetUp() override { qax::test::setup_shell(); }
};

// Terminals below each internal node, as sorted lists.
std::vector<std::vector<int>> node_clusters(const std::int32_t* tree, int ntax) {
  std::vector<std::vector<int>> out;
  for (int v = ntax; v < tree[ntax]; ++v) {
    const std::vector<int> c = qax::test::taxa_below(tree, ntax, v);
    out.push_back(c);
  }
  return out;
}

// Fitch length of a binary character matrix (rows of '0'/'1') on a tree, polytomies hard,
// by brute force over the states of the internal nodes (small trees only).
int fitch_length(const std::int32_t* tree, int ntax, const std::vector<std::string>& rows) {
  const int nchar = static_cast<int>(rows[0].size());
  const int top = tree[ntax];
  int total = 0;
  for (int c = 0; c < nchar; ++c) {
    int inner = top - ntax, best = 1 << 30;
    for (int mask = 0; mask < (1 << inner); ++mask) {
      auto state = [&](int v) { return v < ntax ? rows[v][c] - '0' : (mask >> (v - ntax)) & 1; };
      int len = 0;
      for (int v = 0; v < top; ++v)
        if (v != ntax && (v >= ntax || tree[v] >= ntax)) len += state(v) != state(tree[v]);
      best = std::min(best, len);
    }
    total += best;
  }
  return total;
}

// Members of tree group g.
std::vector<int> members(int g) {
  std::vector<int> out;
  for (int k = 0; k < tree_store.ntrees; ++k)
    if (tree_group_row(k)[g / 32] >> (g % 32) & 1u) out.push_back(k);
  return out;
}

// True when the taxa of `group` are one side of a split of the tree.
bool has_split(const std::int32_t* tree, int ntax, const std::vector<int>& group) {
  std::vector<int> rest;
  for (int t = 0; t < ntax; ++t)
    if (!std::binary_search(group.begin(), group.end(), t)) rest.push_back(t);
  for (const auto& c : node_clusters(tree, ntax))
    if (c == group || c == rest) return true;
  return false;
}

const std::vector<std::string> seven_rows = {"0000000", "1100000", "1110000", "1111000",
                                             "0011100", "0001110", "0001011"};

std::string matrix_text() {
  std::string text = "xread 7 7\n";
  for (int t = 0; t < 7; ++t) text += "T" + std::to_string(t) + " " + seven_rows[t] + "\n";
  return text + ";";
}

}  // namespace

TEST_F(TreeForms, LengthNodesAndSizeSelectorsMatchReferences) {
  std::srand(3);
  run(matrix_text() + " randtrees 40 40 4;");
  ASSERT_EQ(tree_store.ntrees, 40);
  const int ntax = 7;
  std::vector<int> len(40), nod(40), siz(40);
  for (int k = 0; k < 40; ++k) {
    len[k] = fitch_length(tree_row(k), ntax, seven_rows);
    nod[k] = static_cast<int>(node_clusters(tree_row(k), ntax).size()) - 1;  // the root is no group
    siz[k] = 7;
  }
  int lo = *std::min_element(len.begin(), len.end()) + 1, hi = lo + 2;
  std::string out = run("tgroup =1 len(" + std::to_string(lo) + "-" + std::to_string(hi) + ", 30) =2 nod>3 =3 nod<5 len<" +
                        std::to_string(hi) + " =4 siz=7 0.39/3 =5 siz<7;");
  std::vector<int> want1, want2, want3, want4;
  for (int k = 0; k < 40; ++k) {
    if ((len[k] >= lo && len[k] <= hi) || len[k] == 30) want1.push_back(k);
    if (nod[k] > 3) want2.push_back(k);
    if (nod[k] < 5 && len[k] < hi) want3.push_back(k);
    if (k % 3 == 0) want4.push_back(k);
  }
  EXPECT_EQ(members(1), want1);
  EXPECT_EQ(members(2), want2);
  EXPECT_EQ(members(3), want3);
  EXPECT_EQ(members(4), want4);
  EXPECT_TRUE(members(5).empty());
  EXPECT_TRUE(has(out, "Tree group 1 " + std::to_string(want1.size()) + " tree(s) added"));
  EXPECT_TRUE(has(out, "Tree group 5 0 tree(s) added"));
  // Several operations in one command, each seeing the former; groups by name and number.
  run("tgroup =6 (mix) [1] =7 {Group_2} <6 nod>3 >6 *2 [3];");
  std::vector<int> base, allowed;
  std::set_difference(want1.begin(), want1.end(), want2.begin(), want2.end(), std::back_inserter(base));
  std::set_union(base.begin(), base.end(), want3.begin(), want3.end(), std::back_inserter(allowed));
  auto got6 = members(6);
  std::vector<int> picked;
  std::set_intersection(got6.begin(), got6.end(), want3.begin(), want3.end(), std::back_inserter(picked));
  EXPECT_TRUE(std::includes(got6.begin(), got6.end(), base.begin(), base.end()));
  EXPECT_TRUE(std::includes(allowed.begin(), allowed.end(), got6.begin(), got6.end()));
  EXPECT_GE(picked.size(), std::min<std::size_t>(2, want3.size()));
  EXPECT_LE(got6.size(), base.size() + 2);
  EXPECT_EQ(members(7), want2);
  EXPECT_EQ(tree_store.group_names[6], "mix");
}

TEST_F(TreeForms, SelectorMessages) {
  run(matrix_text() + " randtrees 5;");
  EXPECT_TRUE(has(run("tgroup =1 0.4/0;"), "Zap must be > 0"));
  EXPECT_TRUE(has(run("tgroup =1 len(3 4);"), "Ranges must be separated by comma"));
  EXPECT_TRUE(has(run("tgroup =1 len(3-4;"), "Range must be enclosed in parentheses"));
  EXPECT_TRUE(has(run("tgroup =1 nod 3;"), "Range must be enclosed in parentheses"));
  EXPECT_TRUE(has(run("tgroup =1 siz=;"), "Expected number after siz="));
  EXPECT_TRUE(has(run("tgroup =1 *;"), "Expected number after *"));
  EXPECT_TRUE(has(run("tgroup =1 [nothing];"), "Name nothing doesn't match any tree group name"));
  EXPECT_TRUE(has(run("tgroup =1 [0 $];"), "Unexpected $ symbol when reading group"));
  EXPECT_TRUE(has(run("tgroup =1 wide=3;"), "Unexpected w symbol when reading group"));
  EXPECT_TRUE(has(run("tgroup =1 mono;"), "Cannot check constraints: no constraints defined!"));
  EXPECT_TRUE(has(run("tgroup =1 *2;"), "Tree group 1 2 tree(s) added"));
  EXPECT_TRUE(has(run("tgroup =1 *9;"), "Tree group 1 5 tree(s) added"));
}

TEST_F(TreeForms, ConstraintFormsAgreeWithSplits) {
  std::srand(11);  // randtrees draws from std::rand
  run(matrix_text() + " randtrees 30 50 4; tread (0 (1 2) 3 4 5 6) * (0 (1 2 3) 4 5 6) * (0 (3 4 5 6) (1 2))"
      " * (0 (1 (2 3)) 4 5 6) * (1 2 (0 3 4 5 6)); force + [1 2]; constrain =;");
  const int ntax = 7, n = tree_store.ntrees;
  const std::vector<int> group{1, 2};
  std::vector<std::vector<std::int32_t>> trees;
  std::vector<int> good;
  for (int k = 0; k < n; ++k) {
    trees.emplace_back(tree_row(k), tree_row(k) + tree_store.row_size);
    if (has_split(tree_row(k), ntax, group)) good.push_back(k);
  }
  ASSERT_GT(good.size(), 0u);
  ASSERT_LT(good.size(), static_cast<std::size_t>(n));
  std::string out = run("tgroup =2 mono;");
  EXPECT_EQ(members(2), good);
  // sort =mono puts the fulfilling trees first, each side in its old order.
  out = run("sort =mono;");
  EXPECT_TRUE(has(out, "Sorted " + std::to_string(n) + " trees, based on mono"));
  for (std::size_t i = 0; i < good.size(); ++i)
    EXPECT_TRUE(trees_equal(tree_row(static_cast<int>(i)), trees[good[i]].data(), ntax));
  out = run("unique [;");
  EXPECT_TRUE(has(out, std::to_string(good.size()) + " trees retained (all fulfill constraints)"));
  EXPECT_EQ(tree_store.ntrees, static_cast<int>(good.size()));
  out = run("unique ];");
  EXPECT_TRUE(has(out, "0 trees retained (none fulfills constraints)"));
  run("tread (0 1 2 3 4 5 6) * (0 1 2 3 4 5 6);");
  EXPECT_TRUE(has(run("sort =mono;"), "All 2 trees violate the same number of constraints"));
}

TEST_F(TreeForms, ConstraintFormsNeedConstraints) {
  run(matrix_text() + " randtrees 3;");
  EXPECT_TRUE(has(run("unique [;"), "No constraints defined"));
  EXPECT_TRUE(has(run("unique ];"), "No constraints defined"));
  EXPECT_TRUE(has(run("sort =mono;"), "Cannot check constraints: no constraints defined!"));
  EXPECT_EQ(tree_store.ntrees, 3);
}

TEST_F(TreeForms, UniqueStarEqualsCondenseThenUnique) {
  run(matrix_text() + " randtrees 60;");
  std::string trees = "tread ";
  for (int k = 0; k < tree_store.ntrees; ++k)
    trees += (k ? " * " : "") + tree_to_text(tree_row(k), tree_store.ntax, false, nullptr);
  trees += ";";
  run(matrix_text() + trees + " condense; unique;");
  std::set<std::vector<std::int32_t>> reference;
  for (int k = 0; k < tree_store.ntrees; ++k) reference.emplace(tree_row(k), tree_row(k) + tree_store.row_size);
  const int kept = tree_store.ntrees;
  std::string out = run(matrix_text() + trees + " unique *;");
  EXPECT_TRUE(has(out, std::to_string(kept) + " trees retained"));
  std::set<std::vector<std::int32_t>> got;
  for (int k = 0; k < tree_store.ntrees; ++k) got.emplace(tree_row(k), tree_row(k) + tree_store.row_size);
  EXPECT_EQ(got, reference);
  EXPECT_LT(kept, 60);
}

TEST_F(TreeForms, TaxonGroupsInTreeText) {
  run("xread 1 6\nA 0\nB 0\nC 1\nD 1\nE 1\nF 0\n;\nagroup =0 (front) A B; agroup =4 (back) D E;");
  run("tread ({front} ({4} C) F) * ({fr} {back} C F) * (A {4} (B {0} C F));");
  ASSERT_EQ(tree_store.ntrees, 3);
  auto c0 = node_clusters(tree_row(0), 6);
  EXPECT_NE(std::find(c0.begin(), c0.end(), std::vector<int>{2, 3, 4}), c0.end());
  EXPECT_EQ(c0.size(), 2u);
  EXPECT_EQ(tree_group_count(tree_row(1), 6), 0);  // a bush
  // Taxa already placed stay where they are: {0} adds nothing to the inner node.
  auto c2 = node_clusters(tree_row(2), 6);
  EXPECT_NE(std::find(c2.begin(), c2.end(), std::vector<int>{1, 2, 5}), c2.end());
  EXPECT_EQ(c2.size(), 2u);
  EXPECT_TRUE(has(run("tread ({none} C);"), "No taxon group named none"));
  EXPECT_TRUE(has(run("tread ({7} C);"), "No taxon group named 7"));
  EXPECT_TRUE(has(run("tread ({front $} C);"), "Found allien character within brackets"));
  EXPECT_TRUE(has(run("tread ({front;"), "Unexpected semicolon within brackets"));
  EXPECT_EQ(tree_store.ntrees, 3);
}

TEST_F(TreeForms, TreadBracketJoinsTags) {
  run("xread 1 5\nA 0\nB 0\nC 1\nD 1\nE 1\n;");
  std::string out = run("tread [;");
  EXPECT_TRUE(has(out, "When reading tags from parenthetical trees, add them to existing tags"));
  run("tread (A (B (C D)=cd E)=bcde);");
  const auto first = tree_store.tag_tree;
  run("tread (A (B (C D)=x E)=y);");
  // Same tree: each node's tag joined with the separator.
  int cd = -1, bcde = -1;
  for (int v = 5; v < first[5]; ++v) {
    if (tree_store.tags[v] == "cd\\x") cd = v;
    if (tree_store.tags[v] == "bcde\\y") bcde = v;
  }
  EXPECT_GE(cd, 0);
  EXPECT_GE(bcde, 0);
  // Different tree without E: the tag of CD goes to the group with the same shared taxa.
  run("tread [&43;");
  EXPECT_EQ(tree_store.tag_separator, '+');
  run("tread (A (B (C D)=z));");
  EXPECT_EQ(tree_store.tags[cd], "cd\\x+z");
  EXPECT_EQ(tree_store.tag_tree, first);
  // Too long a join fails and leaves the tags.
  std::string longtag(124, 'q');
  out = run("tread (A (B (C D)=" + longtag + " E));");
  EXPECT_TRUE(has(out, "Sorry, concatenated tags are too long (change max. with \"taxname+\")"));
  EXPECT_EQ(tree_store.tags[cd], "cd\\x+z");
  EXPECT_TRUE(has(run("tread [&;"), "Give ASCII number for tag separator"));
  // tread ] goes back to replacing the tags.
  out = run("tread ] (A (B C)=w D E);");
  EXPECT_TRUE(has(out, "When reading tags from parenthetical trees, don't add them to existing tags"));
  EXPECT_TRUE(std::count(tree_store.tags.begin(), tree_store.tags.end(), "w") == 1);
  EXPECT_EQ(std::count(tree_store.tags.begin(), tree_store.tags.end(), "cd\\x+z"), 0);
}

TEST_F(TreeForms, RerootStarMovesTagsWithTheirBranches) {
  run("xread 1 5\nA 0\nB 0\nC 1\nD 1\nE 1\n;");
  EXPECT_TRUE(has(run("reroot *=3;"), "No tags to reroot..."));
  run("tread (0 ((1 2)=a (3 4)=b)=c); tread (0 1 2 3 4);");
  EXPECT_TRUE(has(run("reroot *=9;"), "Tag-tree does not have a node 9 and can't be rerooted"));
  std::string out = run("reroot *=3;");
  EXPECT_TRUE(has(out, "Re-rooted tag-tree on D"));
  EXPECT_TRUE(has(out, "2 trees re-rooted on D"));
  const auto& t = tree_store.tag_tree;
  EXPECT_EQ(t[3], 5);  // D at the base
  auto c = node_clusters(t.data(), 5);
  std::vector<std::string> by_cluster(c.size());
  for (std::size_t i = 0; i < c.size(); ++i) by_cluster[i] = tree_store.tags[5 + i];
  auto tag_of = [&](std::vector<int> want) {
    for (std::size_t i = 0; i < c.size(); ++i)
      if (c[i] == want) return by_cluster[i];
    return std::string("(no such group)");
  };
  EXPECT_EQ(tag_of({1, 2}), "a");
  EXPECT_EQ(tag_of({0, 1, 2}), "b");      // the complement of (3 4), the same branch
  EXPECT_EQ(tag_of({0, 1, 2, 4}), "");    // the old root branch became the branch of A
  // A tag tree without the taxon fails and leaves the tags.
  run("tread (0 (1 2)=x 3);");
  const auto kept = tree_store.tags;
  EXPECT_TRUE(has(run("reroot *=E;"), "Tag-tree does not include taxon E and can't be rerooted"));
  EXPECT_EQ(tree_store.tags, kept);
}
