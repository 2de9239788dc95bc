// Consensus calculations against a brute-force count of clusters, the kept consensus
// through a tree file, and the messages of bad input.
#include <gtest/gtest.h>

#include "common/harness.h"
#include "common/tree_fixtures.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "dataset/dataset.h"
#include "shell/failure.h"
#include "shell/input.h"
#include "shell/output.h"
#include "support/consensus.h"
#include "trees/store.h"

using namespace qax::support;
using namespace qax::trees;
namespace ds = qax::dataset;

namespace {

using qax::test::random_complete;

void load_taxa(int ntax) {
  qax::test::load_taxa(ntax);
  reset_consensus_settings();
}


using qax::test::run_qax;

using Cluster = std::set<int>;



// A tree close to `base`: one terminal moved next to another one.
std::vector<std::int32_t> nudge(std::vector<std::int32_t> tree, int ntax) {
  int a = std::rand() % ntax, b = std::rand() % ntax;
  if (a == b || tree[a] < ntax || tree[b] < ntax) return tree;
  tree[a] = tree[b];
  reset_node_numbers(tree.data(), ntax);
  return tree;
}

// Clusters of a tree restricted to included taxa, trivial ones left out.
std::set<Cluster> clusters(const std::int32_t* tree, int ntax, const std::vector<std::uint8_t>& excl, int included) {
  std::set<Cluster> out;
  for (int v = ntax + 1; v < tree[ntax]; ++v) {
    const std::vector<int> below = qax::test::taxa_below(tree, ntax, v, &excl);
    const Cluster c(below.begin(), below.end());
    if (static_cast<int>(c.size()) >= 2 && static_cast<int>(c.size()) < included) out.insert(c);
  }
  return out;
}

bool conflict(const Cluster& a, const Cluster& b) { return qax::test::clusters_conflict(a, b); }

struct Brute {
  std::vector<std::uint8_t> excl;
  int included = 0;
  std::map<Cluster, int> count;
};

Brute brute(const std::vector<int>& trees, const std::vector<std::uint8_t>& user, bool unshared) {
  const int ntax = tree_store.ntax;
  Brute b;
  b.excl = user;
  b.excl.resize(ntax, 0);
  if (unshared)
    for (int k : trees)
      for (int t = 0; t < ntax; ++t)
        if (tree_row(k)[t] < ntax) b.excl[t] = 1;
  for (auto e : b.excl) b.included += !e;
  for (int k : trees)
    for (const auto& c : clusters(tree_row(k), ntax, b.excl, b.included)) b.count[c]++;
  return b;
}

std::set<Cluster> result_clusters(const std::vector<std::int32_t>& r, const Brute& b) {
  return clusters(r.data(), tree_store.ntax, b.excl, b.included);
}

// Fills the store with a mixture: random trees, near copies, identical trees, bushes
// and (optionally) trees lacking some taxa.
void fill_store(int ntax, int ntrees, bool missing) {
  load_taxa(ntax);
  auto base = random_complete(ntax, 10);
  for (int k = 0; k < ntrees; ++k) {
    std::vector<std::int32_t> t;
    switch (std::rand() % 6) {
      case 0: t = random_complete(ntax, std::rand() % 50); break;
      case 1: t = base; break;
      case 2: t = random_complete(ntax, 100); break;  // fully unresolved
      default: t = nudge(nudge(base, ntax), ntax); break;
    }
    if (missing && ntax > 6 && std::rand() % 3 == 0) {
      std::vector<std::uint8_t> rm(ntax, 0);
      rm[std::rand() % ntax] = 1;
      tree_prune(t.data(), ntax, rm);
    }
    tree_store_append(t.data(), -1);
  }
}

std::vector<int> all_trees() {
  std::vector<int> v;
  for (int k = 0; k < tree_store.ntrees; ++k) v.push_back(k);
  return v;
}


}  // namespace

TEST(Consensus, AgreesWithBruteForceCounts) {
  std::srand(7);
  const int sizes[] = {5, 6, 9, 17, 40, 64, 65, 130, 300};
  int nonempty_strict = 0;
  for (int ntax : sizes)
    for (int missing = 0; missing < 2; ++missing) {
      const int ntrees = ntax > 100 ? 12 : 25;
      fill_store(ntax, ntrees, missing);
      std::vector<int> trees = all_trees();
      std::vector<std::uint8_t> user(ntax, 0);
      if (ntax > 8) user[3] = 1;
      Brute b = brute(trees, user, true);
      std::vector<std::uint8_t> excl;
      ASSERT_EQ(prepare_exclusions(trees, user, true, excl), b.included);
      const int n = ntrees;
      std::vector<std::int32_t> r(2 * ntax - 1);
      // Strict, both algorithms.
      std::set<Cluster> strict;
      for (auto& [c, k] : b.count) if (k == n) strict.insert(c);
      strict_consensus(trees, excl, r.data(), false);
      EXPECT_EQ(result_clusters(r, b), strict) << ntax;
      strict_consensus(trees, excl, r.data(), true);
      EXPECT_EQ(result_clusters(r, b), strict) << ntax << " low memory";
      // Small selections, where strict groups survive.
      for (int k = 0; k + 2 < n; k += 3) {
        std::vector<int> few = {k, k + 1, k + 2};
        Brute bf = brute(few, user, true);
        std::vector<std::uint8_t> ef;
        prepare_exclusions(few, user, true, ef);
        std::set<Cluster> want;
        for (auto& [c, j] : bf.count) if (j == 3) want.insert(c);
        strict_consensus(few, ef, r.data(), false);
        EXPECT_EQ(result_clusters(r, bf), want) << ntax;
        strict_consensus(few, ef, r.data(), true);
        EXPECT_EQ(result_clusters(r, bf), want) << ntax << " low memory";
        nonempty_strict += !want.empty();
      }
      // Majority at several cuts, with the counts on the nodes.
      for (int cut : {50, 60, 75, 99}) {
        std::set<Cluster> want;
        for (auto& [c, k] : b.count) if (k > cut * n / 100) want.insert(c);
        CountResult m = majority_consensus(trees, excl, cut, r.data());
        EXPECT_EQ(result_clusters(r, b), want) << ntax << " cut " << cut;
        EXPECT_EQ(m.counted, n);
      }
      // Frequency differences and combinable components.
      std::map<Cluster, int> value;
      std::set<Cluster> loose;
      for (auto& [c, k] : b.count) {
        int rival = 0;
        bool any = false;
        for (auto& [d, j] : b.count)
          if (conflict(c, d)) { rival = std::max(rival, j); any = true; }
        value[c] = k - rival;
        if (!any) loose.insert(c);
      }
      std::set<Cluster> fdt;
      for (auto& [c, v] : value) if (v >= 1) fdt.insert(c);
      frequency_differences(-1, trees, excl, 0, r.data());
      EXPECT_EQ(result_clusters(r, b), fdt) << ntax;
      combinable_consensus(trees, excl, r.data());
      EXPECT_EQ(result_clusters(r, b), loose) << ntax;
      // Values of a reference tree's groups.
      const int ref = 0;
      std::vector<int> others(trees.begin() + 1, trees.end());
      Brute bo = brute(others, user, true);
      bo.excl = b.excl;  // exclusions of the whole selection
      bo.count.clear();
      for (int k : others)
        for (const auto& c : clusters(tree_row(k), ntax, bo.excl, b.included)) bo.count[c]++;
      CountResult f = reference_frequencies(ref, trees, excl);
      EXPECT_EQ(f.counted, n - 1);
      for (int v = ntax + 1; v < tree_row(ref)[ntax]; ++v) {
        Cluster c;
        for (int t = 0; t < ntax; ++t) {
          if (tree_row(ref)[t] < ntax || excl[t]) continue;
          int a = tree_row(ref)[t];
          while (a != v && a != ntax) a = tree_row(ref)[a];
          if (a == v) c.insert(t);
        }
        if (static_cast<int>(c.size()) < 2 || static_cast<int>(c.size()) >= b.included) {
          EXPECT_EQ(f.node_value[v], -1);
          continue;
        }
        EXPECT_EQ(f.node_value[v], bo.count.count(c) ? bo.count[c] : 0) << ntax << " node " << v;
      }
    }
  EXPECT_GT(nonempty_strict, 20);
}

TEST(Consensus, IdenticalTreesAndBushes) {
  std::srand(3);
  load_taxa(30);
  auto t = random_complete(30, 0);
  for (int k = 0; k < 5; ++k) tree_store_append(t.data(), -1);
  std::vector<std::uint8_t> excl(30, 0);
  std::vector<std::int32_t> r(59);
  strict_consensus(all_trees(), excl, r.data(), false);
  EXPECT_TRUE(trees_equal(r.data(), t.data(), 30));
  CountResult m = majority_consensus(all_trees(), excl, 50, r.data());
  EXPECT_TRUE(trees_equal(r.data(), t.data(), 30));
  for (int v = 31; v < r[30]; ++v) EXPECT_EQ(m.node_value[v], 5);
  auto bush = random_complete(30, 100);
  tree_store_append(bush.data(), -1);
  strict_consensus(all_trees(), excl, r.data(), false);
  EXPECT_EQ(r[30], 31);  // no group left
}

TEST(Consensus, TwoTaxaLeftIsTheMinimum) {
  load_taxa(5);
  auto t = random_complete(5, 0);
  tree_store_append(t.data(), -1);
  std::vector<std::uint8_t> user = {1, 1, 1, 1, 0}, excl;
  bool failed = !qax::shell::protected_call([&] { prepare_exclusions(all_trees(), user, true, excl); });
  EXPECT_TRUE(failed);
}

TEST(ConsensusCommands, MessagesOfBadInput) {
  const std::string data = "xread 2 5\nA 00\nB 01\nC 10\nD 11\nE 00\n;\n";
  EXPECT_NE(run_qax(data + "nelsen;\n").find("No trees specified"), std::string::npos);
  const std::string trees = data + "tread (A (B (C (D E)))) * (A (C (B (D E)))) ;\n";
  EXPECT_NE(run_qax(trees + "nelsen 0 5;\n").find("No tree 5"), std::string::npos);
  EXPECT_NE(run_qax(trees + "majority=40;\n").find("Cannot do majority rule with cut < 50"), std::string::npos);
  EXPECT_NE(run_qax(trees + "majority=101;\n").find("Must specify a cutoff percentage 0-100"), std::string::npos);
  EXPECT_NE(run_qax(trees + "freqdifs=200;\n").find("Must specify a cutoff percentage 0-100"), std::string::npos);
  EXPECT_NE(run_qax(trees + "majority!;\n").find("Invalid option for majority"), std::string::npos);
  EXPECT_NE(run_qax(trees + "majority[0] 0;\n").find("Can't compare tree with itself"), std::string::npos);
  EXPECT_NE(run_qax(trees + "rfreqs 0;\n").find("Must specify tree with reference groups"), std::string::npos);
  EXPECT_NE(run_qax(trees + "nelsen/A B C D;\n").find("Cannot calculate consensus of 1 taxa?"), std::string::npos);
}

TEST(ConsensusCommands, KeptConsensusSurvivesATreeFile) {
  const std::string script =
      "xread 2 6\nA 00\nB 01\nC 10\nD 11\nE 00\nF 11\n;\n"
      "tread (A (B (C (D (E F))))) * (A (B (D (C (E F))))) * (A (B ((C D) (E F)))) ;\n"
      "collapse-; nelsen*; tsave *cons.tre; save 3; tsave /; proc cons.tre; tequal; tplot 4; quit;\n";
  std::string out = run_qax(script);
  EXPECT_NE(out.find("Strict consensus of 3 trees calculated, as tree 3"), std::string::npos) << out;
  // Tree 4, read back from the file, equals tree 3, the consensus.
  EXPECT_NE(out.find("    0      0     1     2     3     3\n"), std::string::npos) << out;
  EXPECT_NE(out.find("Tree 4 (last tree in memory):\n ,-----------  0\n |  ,--------  1\n |  |  ,-----  2\n"
                     " |  |  |-----  3\n |  |  |  ,--  4\n-------------  5\n"), std::string::npos) << out;
}
