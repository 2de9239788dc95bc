// Trees found by a search are told apart as collapsed: under rule 1 no two stored trees
// collapse to the same tree, every binary tree found without collapsing collapses to one
// of them, and the rows stay binary so that they can be swapped again.
#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "common/harness.h"
#include "common/slow_length.h"
#include "optim/collapse.h"
#include "search/engine.h"
#include "search/search_internal.h"
#include "search/settings.h"
#include "trees/store.h"

using namespace qax;
using qax::test::has;
using qax::test::run;

namespace {

class SearchStore : public test::ShellTest {};

std::set<std::vector<std::int32_t>> collapsed_set(int rule) {
  std::set<std::vector<std::int32_t>> out;
  for (int k = 0; k < trees::tree_store.ntrees; ++k) {
    std::vector<std::int32_t> c;
    optim::collapsed_copy(trees::tree_row(k), c, rule);
    out.insert(c);
  }
  return out;
}

bool all_binary() {
  const int ntax = dataset::dataset.ntax;
  for (int k = 0; k < trees::tree_store.ntrees; ++k)
    if (trees::tree_row(k)[ntax] != 2 * ntax - 1) return false;
  return true;
}

}  // namespace

TEST_F(SearchStore, EqualTreesAreToldApartAsCollapsed) {
  const std::string data = std::string("proc ") + QAX_TEST_DATA + "/Longrich2010.xread; hold 2000;";
  // Without collapsing: every binary tree of best length that swapping reaches.
  run(data + "collapse 0; rseed 1; mult=replic 4 hold 1; bbreak=tbr;");
  const int binary_count = trees::tree_store.ntrees;
  ASSERT_GT(binary_count, 1);
  const auto from_binary = collapsed_set(optim::collapse_rule1);
  // Under rule 1: one tree per collapsed tree.
  std::string out = run("collapse 3; rseed 1; mult=replic 4 hold 1; bbreak=tbr;");
  const int n = trees::tree_store.ntrees;
  EXPECT_TRUE(has(out, ".  " + std::to_string(n) + " trees found")) << out;
  EXPECT_TRUE(all_binary());
  const auto collapsed = collapsed_set(optim::collapse_rule1);
  EXPECT_EQ(static_cast<int>(collapsed.size()), n);
  EXPECT_LT(n, binary_count);
  // The same plateau: every collapsed tree reached one way is reached the other way.
  EXPECT_EQ(collapsed, from_binary);
  for (int k = 0; k < n; ++k) EXPECT_EQ(test::slow_length(trees::tree_row(k)), 128);
}

namespace {

// Trees offered to the hook, as exported parent arrays with their scores.
std::vector<std::pair<std::vector<std::int32_t>, double>> offered;

bool collect_moves(search::Engine& e, const std::vector<search::Move>& records, std::int32_t base, double score) {
  const std::vector<int> anc = e.anc, left = e.left, right = e.right;
  for (const auto& m : records) {
    e.apply_move(m);
    std::vector<std::int32_t> row;
    e.export_tree(row);
    offered.emplace_back(row, score + (m.cost - base));
    e.anc = anc;
    e.left = left;
    e.right = right;
  }
  return false;
}

}  // namespace

TEST_F(SearchStore, HookReceivesEveryMoveWithinSuboptimalAndTheTreeStays) {
  run(std::string("proc ") + QAX_TEST_DATA + "/Asher2005.xread; hold 100; rseed 3; mult=replic 1 hold 1;");
  const std::vector<std::int32_t> before(trees::tree_row(0), trees::tree_row(0) + trees::tree_store.row_size);
  offered.clear();
  search::swap_hook = collect_moves;
  std::string out = run("subopt 3; bbreak=tbr;");
  search::swap_hook = nullptr;
  run("subopt 0;");
  EXPECT_EQ(trees::tree_store.ntrees, 1) << out;
  EXPECT_EQ(std::vector<std::int32_t>(trees::tree_row(0), trees::tree_row(0) + trees::tree_store.row_size), before);
  ASSERT_FALSE(offered.empty());
  const int best = test::slow_length(before.data());
  for (const auto& [row, score] : offered) {
    EXPECT_EQ(test::slow_length(row.data()), score);
    EXPECT_LE(score, best + 3);
    EXPECT_GE(score, best);   // the tree was TBR-optimal
  }
}

TEST_F(SearchStore, SuboptimalTreesIdenticalAsCollapsedAreKeptOnce) {
  std::string out = run(std::string("proc ") + QAX_TEST_DATA +
                        "/Longrich2010.xread; hold 1000; rseed 1; subopt 2; mult=replic 5 hold 30;");
  run("subopt 0;");
  EXPECT_TRUE(has(out, "Note: some trees of different length are identical as collapsed. Discarded.\n")) << out;
  const int n = trees::tree_store.ntrees;
  EXPECT_EQ(static_cast<int>(collapsed_set(optim::collapse_rule1).size()), n);
  for (int k = 0; k < n; ++k) {
    const int len = test::slow_length(trees::tree_row(k));
    EXPECT_EQ(len, trees::tree_store.scores[k]);
    EXPECT_LE(len, 130);
  }
}
