// Prunings, resolutions, placements, rogue scores, prupdn values and the low-memory
// majority rule, each against a brute-force count of clusters on small tree sets.
#include <gtest/gtest.h>

#include "common/harness.h"
#include "common/tree_fixtures.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "dataset/dataset.h"
#include "shell/input.h"
#include "shell/output.h"
#include "support/consensus.h"
#include "support/pruning.h"
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


using Cluster = std::set<int>;
using Clusters = std::set<Cluster>;



// The base tree with `rogue` moved next to a random terminal or node.
std::vector<std::int32_t> move_taxon(std::vector<std::int32_t> tree, int ntax, int rogue) {
  const int to = std::rand() % (tree[ntax]);
  if (to == rogue || to == ntax || tree[to] == rogue) return tree;
  // Hang the rogue from the parent of `to` (beside it).
  tree[rogue] = tree[to];
  // The old parent may be left with a single child: splice it out, as no stored tree
  // has nodes of degree two.
  for (bool again = true; again;) {
    again = false;
    for (int u = ntax; u < tree[ntax]; ++u) {
      int kids = 0, only = -1;
      for (int v = 0; v < tree[ntax]; ++v)
        if (v != ntax && tree[v] == u) ++kids, only = v;
      if (kids != 1 || (only < ntax && u == ntax)) continue;
      if (u == ntax) {
        for (int v = 0; v < tree[ntax]; ++v)
          if (v != ntax && tree[v] == only) tree[v] = ntax;
        tree[only] = 0;
      } else {
        tree[only] = tree[u];
        tree[u] = 0;
      }
      reset_node_numbers(tree.data(), ntax);
      again = true;
      break;
    }
  }
  reset_node_numbers(tree.data(), ntax);
  return tree;
}

// Clusters of a tree on the taxa not in excl; trivial ones left out.
Clusters clusters(const std::int32_t* tree, int ntax, const std::vector<std::uint8_t>& excl) {
  int included = 0;
  for (int t = 0; t < ntax; ++t) included += !excl[t] && tree[t] >= ntax;
  Clusters out;
  for (int v = ntax + 1; v < tree[ntax]; ++v) {
    const std::vector<int> below = qax::test::taxa_below(tree, ntax, v, &excl);
    const Cluster c(below.begin(), below.end());
    if (static_cast<int>(c.size()) >= 2 && static_cast<int>(c.size()) < included) out.insert(c);
  }
  return out;
}

bool conflict(const Cluster& a, const Cluster& b) { return qax::test::clusters_conflict(a, b); }

// Strict and combinable consensus by brute force over pruned copies of the trees.
Clusters brute_consensus(const std::vector<int>& trees, const std::vector<std::uint8_t>& remove, bool loose) {
  const int ntax = tree_store.ntax;
  std::map<Cluster, int> count;
  std::vector<std::uint8_t> none(ntax, 0);
  for (int k : trees) {
    std::vector<std::int32_t> t(tree_row(k), tree_row(k) + 2 * ntax - 1);
    tree_prune(t.data(), ntax, remove);
    for (const auto& c : clusters(t.data(), ntax, none)) count[c]++;
  }
  Clusters out;
  for (auto& [c, n] : count) {
    if (!loose) {
      if (n == static_cast<int>(trees.size())) out.insert(c);
      continue;
    }
    bool ok = true;
    for (auto& [d, m] : count) ok &= !conflict(c, d);
    if (ok) out.insert(c);
  }
  return out;
}

// Clusters restricted to the taxa kept, trivial ones left out.
Clusters restrict_to(const Clusters& cs, const std::vector<std::uint8_t>& remove, int included) {
  Clusters out;
  for (const auto& c : cs) {
    Cluster r;
    for (int t : c)
      if (!remove[t]) r.insert(t);
    if (static_cast<int>(r.size()) >= 2 && static_cast<int>(r.size()) < included) out.insert(r);
  }
  return out;
}

std::vector<int> all_trees() {
  std::vector<int> v;
  for (int k = 0; k < tree_store.ntrees; ++k) v.push_back(k);
  return v;
}

// A base tree and copies with one or two rogue taxa wandering.
void fill_rogues(int ntax, int ntrees, int rogues) {
  load_taxa(ntax);
  auto base = random_complete(ntax, std::rand() % 30);
  for (int k = 0; k < ntrees; ++k) {
    auto t = base;
    for (int r = 0; r < rogues; ++r) t = move_taxon(t, ntax, ntax - 1 - r);
    if (std::rand() % 4 == 0) t = move_taxon(t, ntax, std::rand() % ntax);
    tree_store_append(t.data(), -1);
  }
}

}  // namespace

TEST(Pruning, GainsAgreeWithPrunedTrees) {
  std::srand(11);
  int reported = 0;
  for (int round = 0; round < 40; ++round) {
    const int ntax = 6 + round % 5;
    fill_rogues(ntax, 3 + round % 4, 1 + round % 2);
    for (PruneBase base : {PruneBase::strict, PruneBase::combinable}) {
      const bool loose = base == PruneBase::combinable;
      std::vector<int> trees = all_trees();
      std::vector<std::uint8_t> excl(ntax, 0), forced(ntax, 0), none(ntax, 0);
      std::vector<std::int32_t> cons(2 * ntax - 1);
      base_consensus(base, trees, excl, cons.data());
      ASSERT_EQ(clusters(cons.data(), ntax, none), brute_consensus(trees, none, loose));
      PruneOptions o;
      o.max_pruned = 2;
      bool truncated = false;
      auto found = find_prunings(base, trees, excl, forced, cons.data(), o, truncated);
      EXPECT_FALSE(truncated);
      const Clusters whole = brute_consensus(trees, none, loose);
      // Brute-force gain of every set of one or two taxa.
      std::map<std::vector<int>, int> gain;
      for (int a = 0; a < ntax; ++a)
        for (int b = a; b < ntax; ++b) {
          std::vector<std::uint8_t> rm(ntax, 0);
          rm[a] = rm[b] = 1;
          const int left = ntax - (a == b ? 1 : 2);
          const int g = static_cast<int>(brute_consensus(trees, rm, loose).size()) -
                        static_cast<int>(restrict_to(whole, rm, left).size());
          gain[a == b ? std::vector<int>{a} : std::vector<int>{a, b}] = g;
        }
      std::set<std::vector<int>> want;
      for (auto& [set, g] : gain) {
        if (g <= 0) continue;
        bool better = true;
        if (set.size() == 2) better = g > std::max(gain[{set[0]}], gain[{set[1]}]);
        if (better) want.insert(set);
      }
      std::set<std::vector<int>> got;
      for (const auto& p : found) {
        EXPECT_EQ(p.gain, gain[p.taxa]) << ntax;
        int sum = 0;
        for (int g : p.per_node) sum += g;
        EXPECT_EQ(sum, p.gain);
        // The pruned consensus is the brute-force consensus of the pruned trees.
        std::vector<std::uint8_t> rm(ntax, 0);
        for (int t : p.taxa) rm[t] = 1;
        EXPECT_EQ(clusters(p.tree.data(), ntax, none), brute_consensus(trees, rm, loose));
        got.insert(p.taxa);
      }
      EXPECT_EQ(got, want) << "round " << round;
      reported += static_cast<int>(found.size());
    }
  }
  EXPECT_GT(reported, 30);
}

TEST(Pruning, ForcedTaxaAndNodeLimit) {
  std::srand(5);
  fill_rogues(8, 5, 1);
  std::vector<std::uint8_t> excl(8, 0), forced(8, 0);
  std::vector<std::int32_t> cons(15);
  base_consensus(PruneBase::strict, all_trees(), excl, cons.data());
  forced[7] = 1;  // the rogue may not go
  PruneOptions o;
  bool truncated;
  for (const auto& p : find_prunings(PruneBase::strict, all_trees(), excl, forced, cons.data(), o, truncated))
    EXPECT_EQ(std::count(p.taxa.begin(), p.taxa.end(), 7), 0);
  // Gains at one node only add up to the per-node gains of the free search.
  forced[7] = 0;
  auto all = find_prunings(PruneBase::strict, all_trees(), excl, forced, cons.data(), o, truncated);
  for (int j = 9; j < cons[8]; ++j) {
    o.node = j;
    auto at = find_prunings(PruneBase::strict, all_trees(), excl, forced, cons.data(), o, truncated);
    for (const auto& p : at) {
      auto it = std::find_if(all.begin(), all.end(), [&](const Pruning& q) { return q.taxa == p.taxa; });
      ASSERT_NE(it, all.end());
      EXPECT_EQ(it->per_node[j], p.gain);
    }
  }
}

TEST(Resolutions, DistinctResolutionsByBruteForce) {
  std::srand(21);
  int polytomies = 0;
  for (int round = 0; round < 30; ++round) {
    const int ntax = 7 + round % 4;
    load_taxa(ntax);
    // Rooted on taxon 0: every tree is (0 (rest)), so the consensus has a basal dichotomy.
    for (int k = 0; k < 6; ++k) {
      auto t = random_complete(ntax, 20);
      tree_reroot_resolve(t.data(), ntax, 0);
      if (k % 2) t = move_taxon(t, ntax, 1 + std::rand() % (ntax - 1));
      tree_reroot_resolve(t.data(), ntax, 0);
      tree_store_append(t.data(), -1);
    }
    std::vector<std::uint8_t> none(ntax, 0);
    std::vector<std::int32_t> cons(2 * ntax - 1);
    strict_consensus(all_trees(), none, cons.data(), false);
    int root_kids = 0;
    bool terminal_child = false;
    for (int v = 0; v < cons[ntax]; ++v)
      if (v != ntax && cons[v] == ntax) { ++root_kids; terminal_child |= v < ntax; }
    if (root_kids != 2 || !terminal_child) continue;
    auto res = polytomy_resolutions(all_trees(), none, cons.data(), -1);
    // Brute force: per polytomy, the tree clusters strictly inside it that are unions
    // of two or more of its children.
    for (int j = ntax + 1; j < cons[ntax]; ++j) {
      std::vector<Cluster> kids;
      for (int v = 0; v < cons[ntax]; ++v)
        if (v != ntax && cons[v] == j) {
          Cluster c;
          for (int t = 0; t < ntax; ++t) {
            int a = t;
            while (a != v && a != ntax) a = cons[a];
            if (a == v) c.insert(t);
          }
          kids.push_back(c);
        }
      if (kids.size() < 3) continue;
      ++polytomies;
      Cluster whole;
      for (auto& k : kids) whole.insert(k.begin(), k.end());
      std::map<std::set<Cluster>, std::vector<int>> seen;
      for (int k : all_trees()) {
        std::set<Cluster> r;
        for (const auto& c : clusters(tree_row(k), ntax, none)) {
          if (c.size() >= whole.size() || !std::includes(whole.begin(), whole.end(), c.begin(), c.end())) continue;
          int full = 0;
          bool unite = true;
          for (auto& kid : kids) {
            int in = 0;
            for (int x : kid) in += c.count(x);
            if (in == static_cast<int>(kid.size())) ++full;
            else if (in) unite = false;
          }
          if (unite && full >= 2) r.insert(c);
        }
        seen[r].push_back(k);
      }
      auto it = std::find_if(res.begin(), res.end(), [&](const PolytomyResolutions& p) { return p.node == j; });
      ASSERT_NE(it, res.end());
      EXPECT_EQ(it->resolutions.size(), seen.size());
      std::set<std::vector<int>> want, got;
      for (auto& [r, ts] : seen) want.insert(ts);
      for (auto& ts : it->trees) got.insert(ts);
      EXPECT_EQ(got, want);
    }
  }
  EXPECT_GT(polytomies, 10);
}

TEST(Placement, MarksTheSisterGroupOfEachTree) {
  load_taxa(6);
  // Taxon 5 beside 4, beside (3 4), and beside 1.
  std::vector<std::vector<int>> parents = {
      // (0 (1 (2 (3 (4 5)))))
      {6, 7, 8, 9, 10, 10, 0, 6, 7, 8, 9},
      // (0 (1 (2 ((3 4) 5))))
      {6, 7, 8, 10, 10, 9, 0, 6, 7, 8, 9},
      // (0 ((1 5) (2 (3 4))))
      {6, 8, 9, 10, 10, 8, 0, 6, 7, 7, 9},
  };
  for (auto& p : parents) {
    p[6] = 11;
    std::vector<std::int32_t> t(p.begin(), p.end());
    reset_node_numbers(t.data(), 6);
    ASSERT_TRUE(tree_is_valid(t.data(), 6));
    tree_store_append(t.data(), -1);
  }
  std::vector<std::uint8_t> excl = {0, 0, 0, 0, 0, 1};
  std::vector<std::int32_t> cons(11);
  strict_consensus(all_trees(), excl, cons.data(), false);
  auto marks = locate_taxa(all_trees(), excl, cons.data(), {5});
  // Expected nodes: terminal 4, the node of (3 4), terminal 1.
  auto node_of = [&](Cluster want) {
    for (int v = 0; v < cons[6]; ++v) {
      Cluster c;
      for (int t = 0; t < 6; ++t) {
        int a = t;
        while (a != v && a != 6 && cons[a] >= 6) a = cons[a];
        if (a == v && cons[t] >= 6) c.insert(t);
      }
      if (c == want) return v;
    }
    return -1;
  };
  std::set<int> want = {4, node_of({3, 4}), 1}, got;
  for (int v = 0; v < 11; ++v)
    if (marks[0][v]) got.insert(v);
  EXPECT_EQ(got, want);
}

TEST(LowMemoryMajority, AgreesWithBruteForceCounts) {
  std::srand(9);
  for (int round = 0; round < 20; ++round) {
    const int ntax = 5 + round * 7 % 70;
    fill_rogues(ntax, 4 + round % 9, 2);
    std::vector<std::uint8_t> none(ntax, 0);
    std::map<Cluster, int> count;
    for (int k : all_trees())
      for (const auto& c : clusters(tree_row(k), ntax, none)) count[c]++;
    const int n = tree_store.ntrees;
    for (int cut : {50, 66, 90}) {
      Clusters want;
      for (auto& [c, k] : count)
        if (k > cut * n / 100) want.insert(c);
      std::vector<std::int32_t> r(2 * ntax - 1);
      CountResult m = majority_low_memory(all_trees(), cut, r.data());
      EXPECT_EQ(clusters(r.data(), ntax, none), want) << ntax << " cut " << cut;
      for (int v = ntax + 1; v < r[ntax]; ++v) {
        Cluster c;
        for (int t = 0; t < ntax; ++t) {
          int a = r[t];
          while (a != v && a != ntax) a = r[a];
          if (a == v) c.insert(t);
        }
        EXPECT_EQ(m.node_value[v], count[c]);
      }
    }
  }
}

TEST(Prunmajor, RogueScoresHighest) {
  std::srand(17);
  int checked = 0;
  for (int round = 0; round < 15; ++round) {
    const int ntax = 10 + round % 5;
    load_taxa(ntax);
    auto base = random_complete(ntax, 0);
    tree_store_append(base.data(), -1);
    for (int k = 0; k < 8; ++k) {
      auto t = move_taxon(base, ntax, ntax - 1);
      tree_store_append(t.data(), -1);
    }
    std::vector<std::uint8_t> none(ntax, 0);
    auto r = rogue_scores(0, {}, all_trees(), none, none, false);
    const auto top = std::max_element(r.global.begin(), r.global.end()) - r.global.begin();
    if (r.global[top] <= 0) continue;
    ++checked;
    EXPECT_EQ(top, ntax - 1) << round;
    // Protecting the rogue removes every score that would need it.
    std::vector<std::uint8_t> keep(ntax, 0);
    keep[ntax - 1] = 1;
    auto k = rogue_scores(0, {}, all_trees(), none, keep, false);
    EXPECT_EQ(k.global[ntax - 1], 0.0);
  }
  EXPECT_GT(checked, 8);
}

TEST(Prupdn, ValueFollowsTheFormula) {
  std::srand(23);
  for (int round = 0; round < 10; ++round) {
    const int ntax = 8 + round % 3;
    fill_rogues(ntax, 6, 2);
    std::vector<std::uint8_t> none(ntax, 0), pruned(ntax, 0);
    pruned[ntax - 1] = 1;
    UpdnOptions o;
    const double e = updn_value(all_trees(), none, pruned, ntax, o);
    // Brute force: majority clusters of the pruned trees and their percentages.
    std::map<Cluster, int> count;
    for (int k : all_trees()) {
      std::vector<std::int32_t> t(tree_row(k), tree_row(k) + 2 * ntax - 1);
      tree_prune(t.data(), ntax, pruned);
      for (const auto& c : clusters(t.data(), ntax, none)) count[c]++;
    }
    const int n = tree_store.ntrees;
    double sum = 0;
    for (auto& [c, k] : count)
      if (k > n / 2) sum += 100.0 * k / n;
    EXPECT_NEAR(e, (sum + 1 * 100.0 * 0.75) / (ntax - 2), 1e-9);
    // The search ends where no single move improves.
    std::vector<std::uint8_t> pool(ntax, 1);
    o.max_set = 1;
    o.separator = -1;
    UpdnResult res = updn_search(all_trees(), none, pool, o);
    const double final_value = res.stages.empty() ? res.initial : res.stages.back().value;
    EXPECT_NEAR(final_value, updn_value(all_trees(), none, res.pruned, ntax, o), 1e-9);
    for (int t = 0; t < ntax; ++t) {
      if (res.pruned[t]) continue;
      auto trial = res.pruned;
      trial[t] = 1;
      EXPECT_LE(updn_value(all_trees(), none, trial, ntax, o), final_value + 1e-9);
    }
  }
}

namespace {


const std::string seven =
    "xread 2 7\nA 00\nB 01\nC 10\nD 11\nE 00\nF 11\nG 01\n;\n"
    "tread (A (B (C (D (E (F G)))))) * (A (B (C (D (G (E F)))))) * (A (B (G (C (D (E F)))))) ;\n"
    "collapse-;\n";  // two characters cannot support these trees: count them as they are

bool says(const std::string& script, const std::string& text) {
  return qax::test::run_qax(seven + script).find(text) != std::string::npos;
}

}  // namespace

TEST(PruningCommands, MessagesOfBadInput) {
  EXPECT_TRUE(says("prunnelsen * &;", "Can't use * and &"));
  EXPECT_TRUE(says("prunnelsen [3];", "[N] must refer to an internal node in consensus"));
  EXPECT_TRUE(says("prunnelsen / G \\ G;", "Cannot force inclusion and exclude a taxon at the same time"));
  EXPECT_TRUE(says("prunnelsen [9] +;", "Can't specify a node together with maximum pruns (+)"));
  EXPECT_TRUE(says("prunnelsen =2 +;", "Can't specify number of pruns together with maximum pruns (+)"));
  EXPECT_TRUE(says("prunnelsen 0 1 2 / A >40;", "Only taxon groups 0-31 can be defined"));
  EXPECT_TRUE(says("pruncom +;", "Invalid option for pruncom"));
  EXPECT_TRUE(says("prunmajor;", "Must specify tree with reference groups"));
  EXPECT_TRUE(says("prunmajor &;", "Must indicate max. pruning"));
  EXPECT_TRUE(says("prunmajor [0 1;", "Cannot give zero weight to taxa inside groups"));
  EXPECT_TRUE(says("prunmajor [1 0;", "Cannot give zero weight to taxa outside groups"));
  EXPECT_TRUE(says("prunmajor 0 / / B \\ B;", "Cannot both exclude/include a taxon (B)"));
  EXPECT_TRUE(says("prunmajor 0 \\ A B C D E F G;", "All taxa have been marked for non-exclusion; this does nothing!"));
  EXPECT_TRUE(says("resols !;", "Invalid option for resols"));
  EXPECT_TRUE(says("resols >2;", "Trees can be put in groups only when doing a single node"));
  EXPECT_TRUE(says("resols [9] >31;", "Only 32 tree groups can be defined"));
  EXPECT_TRUE(says("tread (A B C (D E F G));\nresols 3;",
                   "To display resolutions, strict consensus must have\na basal dichotomy, with a terminal as first split"));
  EXPECT_TRUE(says("nelsen //;", "Must specify taxa to locate on pruned consensus"));
  EXPECT_TRUE(says("nelsen* //G;", "Can't save tree with location of excluded taxa"));
  EXPECT_TRUE(says("nelsen <; majority / G;",
                   "Low memory majority rule doesn't allow exclusion of taxa\n"
                   "Condense trees (excluding taxa, if needed) and then consense"));
  EXPECT_TRUE(says("qnelsen rep 0;", "Must specify a number of repls. greater than zero"));
  EXPECT_TRUE(says("qnelsen majorcut 101;", "Must specify a cutoff percentage 0-100"));
  EXPECT_TRUE(says("qnelsen %;", "Unexpected symbol found on resampling options: %"));
  EXPECT_TRUE(says("qnelsen / A B C D E F G;", "Cannot exclude so many taxa from consensus calculation (only 0 remain)"));
}

// qnelsen runs its search text once per replication; with a text that reads known
// trees every replication has the same strict consensus, which the estimate must be.
TEST(PruningCommands, EstimatedConsensusCountsReplications) {
  const std::string trees = "[keep 0; tread (A (B (C (D (E (F G)))))) * (A (B (C (D (G (E F)))))) ;]";
  std::string out = qax::test::run_qax(seven + "qnelsen rep 3 majorcut 100 " + trees + ";\ntplot /;\n");
  EXPECT_NE(out.find("Estimated consensus, 4 nodes, saved as tree 2"), std::string::npos) << out;
  EXPECT_NE(out.find("secs. to complete estimation"), std::string::npos);
  EXPECT_NE(out.find(" ,--------------  0\n |  ,-----------  1\n |  |  ,--------  2\n |  |  |  ,-----  3\n"
                     " |  |  |  |  ,--  4\n |  |  |  |  |--  5\n----------------  6\n"), std::string::npos) << out;
  // Pruning G makes the two trees equal: one more node.
  out = qax::test::run_qax(seven + "qnelsen rep 2 " + trees + " / G;\n");
  EXPECT_NE(out.find("Estimated consensus, 4 nodes (1 taxa excluded), saved as tree 2"), std::string::npos) << out;
  // With a real search (tree 0 is whatever it finds), the estimate is kept after it.
  out = qax::test::run_qax(seven + "qnelsen rep 2 [mult=rep 1 ho 1 tbr;];\n");
  EXPECT_NE(out.find("Estimated consensus, "), std::string::npos) << out;
}
