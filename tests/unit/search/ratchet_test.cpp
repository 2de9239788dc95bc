// The ratchet: it reaches known best lengths from poor starting trees, keeps only trees
// of the score it reports (re-scored by the reference scorer), leaves the character
// weights as they were, repeats with the same seed, and the mult option runs it.
#include <gtest/gtest.h>

#include <map>
#include <set>
#include <string>
#include <vector>

#include "common/harness.h"
#include "common/slow_length.h"
#include "optim/packed.h"
#include "search/search_internal.h"
#include "search/settings.h"
#include "trees/store.h"

using namespace qax;
using qax::test::has;
using qax::test::run;
using qax::test::slow_length;

namespace {

class Ratchet : public test::ShellTest {};

void expect_store_scored(int best) {
  ASSERT_GT(trees::tree_store.ntrees, 0);
  for (int k = 0; k < trees::tree_store.ntrees; ++k) {
    EXPECT_EQ(slow_length(trees::tree_row(k)), best) << "tree " << k;
    EXPECT_EQ(trees::tree_store.scores[k], best) << "tree " << k;
  }
}

std::vector<std::int32_t> store_rows() {
  const auto& s = trees::tree_store;
  return {s.rows.begin(), s.rows.begin() + static_cast<long>(s.ntrees) * s.row_size};
}

std::vector<int> weights() {
  std::vector<int> w;
  for (const auto& c : dataset::dataset.chars) w.push_back(c.weight);
  return w;
}

}  // namespace

TEST_F(Ratchet, ReachesKnownBestFromAWagnerTree) {
  struct Case { const char* file; int best; };
  for (const Case& c : {Case{"Wills2012.xread", 268}, Case{"Conrad2008.xread", 1704}}) {
    // A single Wagner tree without swapping is far from the best; the ratchet gets there.
    std::string out = run(std::string("proc ") + QAX_TEST_DATA + "/" + c.file +
                          "; hold 500; rseed 5; mult=replic 1 wagner; ratchet=iter 40;");
    EXPECT_TRUE(has(out, "40 ratchet iterations completed\n")) << out;
    EXPECT_TRUE(has(out, "Saved " + std::to_string(trees::tree_store.ntrees) + " trees of score " +
                             std::to_string(c.best) + "\n"))
        << c.file << "\n" << out;
    expect_store_scored(c.best);
  }
}

TEST_F(Ratchet, WeightsAreRestoredAndCountInTheScore) {
  // Weighted characters: the perturbation changes weights and must put them back.
  std::string out = run(std::string("proc ") + QAX_TEST_DATA +
                        "/Longrich2010.xread; ccode /3 0.9 /2 10.20; rseed 2; mult=replic 2 hold 1;");
  const std::vector<int> before = weights();
  out = run("ratchet=iter 12 up 30 down 30;");
  EXPECT_EQ(weights(), before);
  const int best = static_cast<int>(search::last_best_score);
  expect_store_scored(best);
  // The store holds the best trees; `length` agrees with the reported score.
  out = run("length 0;");
  EXPECT_TRUE(has(out, std::to_string(best))) << out;
  // An error inside the options leaves settings and weights alone.
  out = run("ratchet=iter 5 nonsense;");
  EXPECT_TRUE(has(out, "Unidentified string in ratchet options: nonsense")) << out;
  EXPECT_EQ(search::ratchet_settings.iterations, 12);   // from the run before
  EXPECT_EQ(weights(), before);
}

TEST_F(Ratchet, SameSeedSameTrees) {
  const std::string data = std::string("proc ") + QAX_TEST_DATA + "/Wills2012.xread; hold 300;";
  run(data + "rseed 9; mult=replic 1 hold 1; ratchet=iter 10;");
  const auto first = store_rows();
  run("rseed 9; mult=replic 1 hold 1; ratchet=iter 10;");
  EXPECT_EQ(store_rows(), first);
  ASSERT_FALSE(first.empty());
}

TEST_F(Ratchet, MultOptionRunsItPerReplication) {
  std::string out = run(std::string("proc ") + QAX_TEST_DATA +
                        "/Conrad2008.xread; hold 100; ratchet: iter 15; rseed 1; mult=replic 2 hold 4 ratchet;");
  EXPECT_TRUE(has(out, "Completed 2 random addition sequences.\n")) << out;
  EXPECT_TRUE(has(out, "Best score (TBR): 1704.")) << out;
  EXPECT_LE(trees::tree_store.ntrees, 8);
  expect_store_scored(1704);
  out = run("mult: noratchet; mult=replic 1 hold 1 wagner;");
  EXPECT_TRUE(has(out, "Best score: ")) << out;
}

TEST_F(Ratchet, PerturbationKeepsTheTreeValidAndScored) {
  run(std::string("proc ") + QAX_TEST_DATA + "/Asher2005.xread; rseed 4; mult=replic 1 wagner;");
  optim::pack_data();
  search::engine_refresh();
  std::vector<std::int32_t> tree(trees::tree_row(0), trees::tree_row(0) + trees::tree_store.row_size);
  const int start = slow_length(tree.data());
  search::set_random_seed(3);
  // Only moves that are not worse under the weights in force: the score can't go up.
  const double score = search::swap_perturb(tree, 0, 30, 100);
  EXPECT_EQ(slow_length(tree.data()), score);
  EXPECT_LE(score, start);
}

TEST_F(Ratchet, MultWithRatchetReachesKnownBestOnLargeMatrices) {
  // One replication each; the ratchet stops as soon as the known best length is found.
  struct Case { const char* file; int best; };
  for (const Case& c : {Case{"cynmix.xread", 5320}, Case{"chloroplast.xread", 11064}, Case{"rrna150.xread", 8471},
                        Case{"rbcl500.xread", 16531}}) {
    std::string out = run(std::string("proc ") + QAX_TEST_DATA + "/" + c.file + "; hold 100; rseed 1; ratchet: iter 2000 findscore " +
                          std::to_string(c.best) + "; mult=replic 1 tbr hold 1 ratchet;");
    EXPECT_TRUE(has(out, "Best score (TBR): " + std::to_string(c.best) + ".")) << c.file << "\n" << out;
    expect_store_scored(c.best);
  }
}

TEST_F(Ratchet, TreesKeepTheGroupsForcedOnTheSearch) {
  // A group the data don't favour: every tree the ratchet and drift keep must still hold it.
  run(std::string("proc ") + QAX_TEST_DATA + "/Conrad2008.xread; hold 200; force +[3 5 9 12]; constrain =; rseed 2;" +
      "mult=replic 1 hold 1;");
  const std::set<int> group{3, 5, 9, 12};
  auto holds_group = [&](const std::int32_t* row) {
    const int ntax = dataset::dataset.ntax;
    std::map<int, std::set<int>> below;
    for (int t = 0; t < ntax; ++t)
      for (int a = row[t]; a >= ntax; a = a == ntax ? -1 : row[a]) below[a].insert(t);
    for (const auto& [node, taxa] : below)
      if (taxa == group) return true;
    return false;
  };
  for (const char* command : {"ratchet=iter 15;", "drift=iter 10;"}) {
    std::string out = run(command);
    ASSERT_GT(trees::tree_store.ntrees, 0) << out;
    for (int k = 0; k < trees::tree_store.ntrees; ++k) {
      EXPECT_TRUE(holds_group(trees::tree_row(k))) << command << " tree " << k;
      EXPECT_EQ(slow_length(trees::tree_row(k)), trees::tree_store.scores[k]);
    }
  }
}

TEST_F(Ratchet, TimeOutEndsItWithWeightsRestoredAndTreesScored) {
  // Far more iterations than a second allows: the time-out stops the ratchet, which keeps
  // what it found, and the doubled or zeroed weights of the iteration in work go back.
  run(std::string("proc ") + QAX_TEST_DATA + "/rbcl500.xread; hold 100; rseed 1; mult=replic 1 hold 1;");
  const std::vector<int> before = weights();
  std::string out = run("timeout 0:00:01; ratchet=iter 100000; timeout 0;");
  EXPECT_TRUE(has(out, "Interrupting search (time is out!)")) << out;
  EXPECT_FALSE(has(out, "100000 ratchet iterations completed")) << out;
  EXPECT_EQ(weights(), before);
  const int best = static_cast<int>(search::last_best_score);
  expect_store_scored(best);
}
