// Tree fusing, sectorial searches and xmult: every exchange and every sector substitution
// leaves a tree whose score is the one a plain reference scorer gives; the drivers reach
// known best lengths, and put the settings they change back.
#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "common/data_fixtures.h"
#include "common/harness.h"
#include "common/slow_length.h"
#include "dataset/dataset.h"
#include "optim/packed.h"
#include "search/constraints.h"
#include "search/fusing.h"
#include "search/search_internal.h"
#include "search/sectors.h"
#include "search/settings.h"
#include "search/xmult.h"
#include "shell/output.h"
#include "shell/state.h"
#include "trees/store.h"

using namespace qax;
using qax::test::has;
using qax::test::run;
using qax::test::slow_length;

namespace {

class Fusing : public test::ShellTest {};

// Characters evolved along a random tree, so that trees found by searches share many
// groups but differ in some (what fusing and sectors work on).
std::string evolved_matrix(int ntax, int nchar, int states, int rate, std::mt19937& rng) {
  std::vector<std::string> seq(2 * ntax, std::string(nchar, '0'));
  for (int c = 0; c < nchar; ++c) seq[0][c] = static_cast<char>('0' + rng() % states);
  // Random order of splitting: sequence k descends from a random earlier one.
  for (int k = 1; k < 2 * ntax; ++k) {
    seq[k] = seq[rng() % k];
    for (int c = 0; c < nchar; ++c)
      if (static_cast<int>(rng() % 100) < rate) seq[k][c] = static_cast<char>('0' + rng() % states);
  }
  std::string s = "xread " + std::to_string(nchar) + " " + std::to_string(ntax) + "\n";
  for (int t = 0; t < ntax; ++t) {
    std::string row = seq[ntax + t];
    if (rng() % 5 == 0) row[rng() % nchar] = '?';
    s += "t" + std::to_string(t) + " " + row + "\n";
  }
  return s + ";";
}

std::vector<std::int32_t> row(int k) {
  return {trees::tree_row(k), trees::tree_row(k) + trees::tree_store.row_size};
}

void check_store_scores() {
  ASSERT_GT(trees::tree_store.ntrees, 0);
  for (int k = 0; k < trees::tree_store.ntrees; ++k)
    EXPECT_EQ(slow_length(trees::tree_row(k)), trees::tree_store.scores[k]) << "tree " << k;
}

}  // namespace

TEST_F(Fusing, EveryExchangeScoresAsAFullRescoring) {
  std::mt19937 rng(41);
  int exchanges = 0;
  for (int round = 0; round < 12; ++round) {
    const int n = 12 + static_cast<int>(rng() % 30);
    const int states = 2 + round % 5;
    run(evolved_matrix(n, 20 + static_cast<int>(rng() % 60), states, 8 + round % 10, rng));
    if (round % 3 == 1) run("ccode /3 0 1 /2 2.4;");   // weights: the other counting kernels
    run("hold 100; rseed " + std::to_string(round + 1) + "; mult=replic 6 hold 1 keepall;");
    search::search_prepare();
    const int nt = trees::tree_store.ntrees;
    ASSERT_GE(nt, 2);
    for (int a = 0; a < nt; ++a)
      for (int b = 0; b < nt; ++b) {
        if (a == b) continue;
        for (int minfork : {2, 3}) {
          for (int equals : {0, 1}) {
            search::fuse_settings.minfork = minfork;
            std::vector<std::int32_t> r = row(a);
            const int before = slow_length(r.data());
            double score = 0;
            const int made = search::fuse_pair(r, row(b), &score, equals);
            exchanges += made;
            EXPECT_EQ(slow_length(r.data()), score) << "round " << round << " pair " << a << "," << b;
            EXPECT_LE(score, before);
            if (!equals && made > 0) EXPECT_LT(score, before);
            if (made == 0) EXPECT_EQ(r, row(a));
          }
        }
      }
    // A tree fused with itself: every group is shared with a fork of 2, nothing to exchange.
    {
      std::vector<std::int32_t> r = row(0);
      search::fuse_settings.minfork = 2;
      EXPECT_EQ(search::fuse_pair(r, row(0), nullptr, 1), 0);
      EXPECT_EQ(r, row(0));
      search::fuse_settings.minfork = 3;
    }
    // Other rootings: the groups are those seen from another terminal.
    for (int a = 0; a + 1 < nt; ++a) {
      std::vector<std::int32_t> r = row(a);
      const int before = slow_length(r.data());
      double score = 0;
      const int made = search::fuse_pair(r, row(a + 1), &score, 0, 1 + a % (n - 1));
      exchanges += made;
      EXPECT_EQ(slow_length(r.data()), score) << "rerooted, round " << round;
      EXPECT_LE(score, before);
    }
    // Random trees against searched ones: large differences, few shared groups.
    std::mt19937 trng(round);
    for (int k = 0; k < 4; ++k) {
      std::vector<std::int32_t> r = test::random_binary_parent(trng, n);
      trees::reset_node_numbers(r.data(), n);
      double score = 0;
      search::fuse_pair(r, row(0), &score, 0);
      EXPECT_EQ(slow_length(r.data()), score);
    }
    search::fuse_settings = search::FuseSettings{};
  }
  EXPECT_GT(exchanges, 20);
}

TEST_F(Fusing, TfuseKeepsScoredTreesAndSaysWhatItDid) {
  std::string out = run(std::string("proc ") + QAX_TEST_DATA + "/Conrad2008.xread; hold 200; rseed 3; mult=replic 6 hold 1 keepall;");
  out = run("tfuse;");
  EXPECT_TRUE(has(out, "rounds of fusing completed.")) << out;
  EXPECT_TRUE(has(out, "trees retained, best score")) << out;
  check_store_scores();
  // Without keepall only the best trees stay.
  out = run("tfuse=nokeepall rounds 3 xroot 2;");
  const double best = search::last_best_score;
  for (int k = 0; k < trees::tree_store.ntrees; ++k) EXPECT_EQ(trees::tree_store.scores[k], best);
  check_store_scores();
  // One tree, and too little room.
  run("keep 1;");
  out = run("tfuse;");
  EXPECT_TRUE(has(out, "Fusing a tree with itself produces nothing!")) << out;
  out = run("hold 4; mult=replic 3 hold 1 keepall; tfuse=rounds 5;");
  EXPECT_TRUE(has(out, "5 fusing rounds with 3 trees in memory require max.trees 8 or more")) << out;
  EXPECT_EQ(search::fuse_settings.rounds, 5);   // the options were read before the check
  out = run("tfuse=bogus;");
  EXPECT_TRUE(has(out, "Unidentified string in tfuse options: bogus")) << out;
}

TEST_F(Fusing, TfuseOfOneNodeByHand) {
  run(std::string("proc ") + QAX_TEST_DATA + "/Longrich2010.xread; hold 20; rseed 1; mult=replic 2 wagner keepall;");
  ASSERT_EQ(trees::tree_store.ntrees, 2);
  const int ntax = trees::tree_store.ntax;
  // The group of all taxa but the outgroup is in both trees: node ntax+1 is it.
  std::string out = run("tfuse / " + std::to_string(ntax + 1) + " 1 0;");
  EXPECT_TRUE(has(out, "Fused node " + std::to_string(ntax + 1) + " of tree 1 into tree 0 (saved as tree 2)")) << out;
  ASSERT_EQ(trees::tree_store.ntrees, 3);
  EXPECT_EQ(slow_length(trees::tree_row(2)), slow_length(trees::tree_row(1)));
}

TEST_F(Fusing, SectorSubstitutionsAreExact) {
  std::mt19937 rng(7);
  for (int round = 0; round < 8; ++round) {
    const int n = 30 + static_cast<int>(rng() % 50);
    run(evolved_matrix(n, 30 + static_cast<int>(rng() % 80), 2 + round % 6, 10 + round % 7, rng));
    if (round % 4 == 3) run("ccode /2 0 2 4;");
    search::sector_mismatches = 0;
    std::string out = run("hold 50; rseed " + std::to_string(round + 3) +
                          "; mult=replic 2 wagner keepall; sectsch=rss minsize 8 maxsize 20 selfactor 20 equals noglobal;");
    EXPECT_TRUE(has(out, "Sectorial search (RSS), best score: ")) << out;
    EXPECT_EQ(search::sector_mismatches, 0);
    EXPECT_GT(search::sector_replacements, 0u) << out;
    check_store_scores();
    out = run("sectsch=xss 3-5+2-1;");
    EXPECT_TRUE(has(out, "Sectorial search (XSS), best score: ")) << out;
    EXPECT_EQ(search::sector_mismatches, 0);
    check_store_scores();
    // Even chunks, and the chunk at the tree's base searched too.
    out = run("sectsch=xss 2-6+3-2 xeven chkroot equals;");
    EXPECT_TRUE(has(out, "Sectorial search (XSS), best score: ")) << out;
    EXPECT_EQ(search::sector_mismatches, 0);
    check_store_scores();
    run("sectsch:noxeven nochkroot noequals;");
    // Large sectors are drifted.
    out = run("sectsch=rss minsize 12 maxsize 12 godrift 10 drift 2 global 2;");
    EXPECT_EQ(search::sector_mismatches, 0);
    check_store_scores();
    // A chunk around a node, by hand.
    out = run("sectsch=dss " + std::to_string(n + 3) + " 3 tree 0 equals;");
    EXPECT_TRUE(has(out, "Analyzed a user-selected chunk of ")) << out;
    EXPECT_EQ(search::sector_mismatches, 0);
    check_store_scores();
    // Starts fused, and the combined analysis (starts with drift, fused).
    out = run("sectsch=rss minsize 8 maxsize 16 godrift 75 fuse 2 gocomb 12 combstarts 2 drift 1;");
    EXPECT_EQ(search::sector_mismatches, 0);
    check_store_scores();
  }
}

TEST_F(Fusing, SectorSettingsMessages) {
  run(std::string("proc ") + QAX_TEST_DATA + "/Longrich2010.xread; mult=replic 1 hold 1;");
  std::string out = run("sectsch=minsize 50 maxsize 20;");
  EXPECT_TRUE(has(out, "Min. size (set as 50) must be greater than or equal to max. size (set as 20)")) << out;
  EXPECT_EQ(search::sector_settings.minsize, 45);
  out = run("sectsch=slack 10;");
  EXPECT_TRUE(has(out, "Memory slack for sectors can't be changed with '=' --use ':' instead")) << out;
  out = run("sectsch=recurse 2;");
  EXPECT_TRUE(has(out, "Maximum recursion level can't be changed with '=' --use ':' instead")) << out;
  out = run("sectsch=noxbuffer;");
  EXPECT_TRUE(has(out, "Usage of private buffer for sectors can't be changed with '=' --use ':' instead")) << out;
  out = run("sectsch=css;");
  EXPECT_TRUE(has(out, "Constraint-based sectorial searches require constraints ON")) << out;
  out = run("sectsch=track;");
  EXPECT_TRUE(has(out, "The \"track\" option requires user-instructions for each sector...")) << out;
  out = run("sectsch=dss 25 2;");
  EXPECT_TRUE(has(out, "DSS requires specification of a single tree")) << out;
  out = run("sectsch:slack 10 minsize 10;");
  EXPECT_EQ(search::sector_settings.slack, 10);
  EXPECT_EQ(search::sector_settings.minsize, 10);
  // Settings that sectors can't follow are named on the console.
  EXPECT_TRUE(has(out, "slack 10 has no effect")) << out;
  out = run("sectsch:noxbuffer nosafesank recurse 2;");
  EXPECT_TRUE(has(out, "noxbuffer not applied")) << out;
  EXPECT_TRUE(has(out, "nosafesank not applied")) << out;
  EXPECT_TRUE(has(out, "recurse 2 not applied")) << out;
  out = run("xmult=hold 3 autoconst 4 replic 2;");
  EXPECT_TRUE(has(out, "hold 3 not applied")) << out;
  EXPECT_TRUE(has(out, "autoconst 4 acts as 3")) << out;
  run("sectsch:slack 0 xbuffer safesank recurse 0; xmult:hold 1 autoconst 1 replic 4;");
}

TEST_F(Fusing, SearchLevelsForOneHundredTaxa) {
  search::set_search_level(0, 100);
  EXPECT_EQ(search::xmult_settings.replications, 4);
  EXPECT_EQ(search::xmult_settings.drift, 0);
  EXPECT_EQ(search::xmult_settings.fuse, 3);
  EXPECT_EQ(search::sector_settings.maxsize, 45);
  EXPECT_EQ(search::sector_settings.minsize, 45);
  search::set_search_level(10, 100);
  EXPECT_EQ(search::sector_settings.maxsize, 50);
  EXPECT_EQ(search::sector_settings.minsize, 45);
  EXPECT_EQ(search::xmult_settings.replications, 14);
  EXPECT_EQ(search::xmult_settings.drift, 36);
  EXPECT_EQ(search::xmult_settings.fuse, 10);
  EXPECT_EQ(search::sector_settings.selfactor, 16);
  EXPECT_EQ(search::sector_settings.global, 2);
  EXPECT_EQ(search::sector_settings.dglobal, 10);
  EXPECT_EQ(search::xmult_settings.xmix, 1);
  // Mid levels: drift 4 up to 5.5.
  search::set_search_level(5, 100);
  EXPECT_EQ(search::xmult_settings.drift, 4);
  EXPECT_EQ(search::xmult_settings.fuse, 5);
  EXPECT_EQ(search::xmult_settings.replications, 9);
  std::string out = run("xmult:level 11;");
  EXPECT_TRUE(has(out, "Can't set search level to 11.00 (level must be 0-10)")) << out;
}

TEST_F(Fusing, XmultReachesKnownBestAndRestoresSettings) {
  struct Case { const char* file; int best; };
  for (const Case& c : {Case{"Wills2012.xread", 268}, Case{"Conrad2008.xread", 1704}}) {
    for (int seed : {1, 2}) {
      std::string out = run(std::string("proc ") + QAX_TEST_DATA + "/" + c.file + "; hold 500; rseed " +
                            std::to_string(seed) + ";");
      const search::SearchSettings before = search::search_settings;
      const search::DriftSettings drift_before = search::drift_settings;
      out = run("xmult=level 2 hits 2;");
      EXPECT_TRUE(has(out, "Completed search.\n")) << out;
      EXPECT_TRUE(has(out, "Best score: " + std::to_string(c.best) + ".")) << c.file << " seed " << seed << "\n" << out;
      EXPECT_TRUE(has(out, "No target score defined.  Best score hit 2 times.")) << out;
      check_store_scores();
      EXPECT_EQ(search::search_settings.seed, before.seed);
      EXPECT_EQ(search::search_settings.suboptimal, before.suboptimal);
      EXPECT_EQ(search::drift_settings.iterations, drift_before.iterations);
      EXPECT_EQ(trees::tree_store.maxtrees, 500);
    }
  }
  // A target score: the search goes on until it is hit.
  std::string out = run("xmult=targetscore 1704 hits 1 level 0;");
  EXPECT_TRUE(has(out, "Target score 1704 hit 1 times.")) << out;
  // An unreachable target with a score to give up at: the hit ends there.
  out = run("xmult=targetscore 1600 giveupscore 1750 level 0;");
  EXPECT_TRUE(has(out, "Target score 1600 hit 1 times.")) << out;
  check_store_scores();
  out = run("xmult=targetscore 1704 fuse 0;");
  EXPECT_TRUE(has(out, "To search for a target score, must use fusing or hybridization")) << out;
  out = run("xmult=filter 2 keepall;");
  EXPECT_TRUE(has(out, "Options \"filter\" and \"keep\" are not valid together; use one or the other")) << out;
  out = run("xmult=nokeepall filter 2 retouch 3;");
  EXPECT_TRUE(has(out, "Number for \"filter\" must be larger than for \"retouch\"")) << out;
  out = run("xmult*;");
  EXPECT_TRUE(has(out, "Wrong search argument: *")) << out;
}

TEST_F(Fusing, XmultConsensusStabilisation) {
  std::string out = run(std::string("proc ") + QAX_TEST_DATA + "/Longrich2010.xread; hold 500; rseed 1;");
  out = run("xmult=hits 3 consense 2 conbase 1 conmax 5 verbose replic 2 drift 0;");
  EXPECT_TRUE(has(out, "To stabilize consensus, tree collapsing will be re-set to TBR")) << out;
  EXPECT_TRUE(has(out, "Calculated consensus (")) << out;
  EXPECT_TRUE(has(out, "saved as tree ")) << out;
  EXPECT_TRUE(has(out, "Number of nodes in each stabilization: ")) << out;
}

TEST_F(Fusing, RatchetAndDriftFuseTheirTreesAndRunAutoconstrained) {
  std::string out = run(std::string("proc ") + QAX_TEST_DATA + "/Conrad2008.xread; hold 300; rseed 2; mult=replic 1 wagner;");
  out = run("ratchet=iter 12 fusefreq 3x2 autoconst 4;");
  EXPECT_TRUE(has(out, "12 ratchet iterations completed (autoconstrained)\n")) << out;
  check_store_scores();
  EXPECT_EQ(search::ratchet_settings.fusefreq, 3);
  EXPECT_EQ(search::ratchet_settings.fuserounds, 2);
  // The constraints of the iterations are gone afterwards.
  EXPECT_EQ(search::constraint_defs.active, 0);
  EXPECT_TRUE(search::constraint_defs.positive.empty());
  out = run("drift=iter 9 fusefreq 3 nodumpfuse autoconst 2;");
  EXPECT_TRUE(has(out, "9 drift cycles completed\n")) << out;
  check_store_scores();
  EXPECT_EQ(search::constraint_defs.active, 0);
  out = run("ratchet: fusefreq 1;");
  EXPECT_TRUE(has(out, "Give frequency for auto-fusing (3-100, no fusing = 0 )")) << out;
  out = run("ratchet: fusefreq 5x101;");
  EXPECT_TRUE(has(out, "Give number of rounds for auto-fusing (1-100)")) << out;
  EXPECT_EQ(search::ratchet_settings.fusefreq, 3);
  out = run("ratchet: nofusefreq noautoconst;");
  EXPECT_EQ(search::ratchet_settings.fusefreq, 0);
  EXPECT_EQ(search::ratchet_settings.autoconst, 0);
}

TEST_F(Fusing, ConstraintSectorsKeepTheGroupsAndTheScores) {
  std::mt19937 rng(5);
  run(evolved_matrix(40, 60, 4, 12, rng));
  // A constraint tree with big polytomies: its groups hold, its polytomies are the sectors.
  std::string out = run("hold 50; rseed 2; mult=replic 1 wagner; sectsch=css;");
  EXPECT_TRUE(has(out, "Constraint-based sectorial searches require constraints ON")) << out;
  out = run("force = (t0 (t1 t2 t3 t4 t5 t6 t7 t8 t9 t10 t11 t12 t13 t14 t15 t16 t17 t18 t19) "
            "(t20 t21 t22 t23 t24 t25 t26 t27 t28 t29 t30 t31 t32 t33 t34 t35 t36 t37 t38 t39)); constrain =;");
  out = run("mult=replic 1 hold 1; sectsch=css minfork 5 equals;");
  EXPECT_TRUE(has(out, "Sectorial search (CSS), best score: ")) << out;
  EXPECT_EQ(search::sector_mismatches, 0);
  check_store_scores();
  for (int k = 0; k < trees::tree_store.ntrees; ++k)
    EXPECT_EQ(search::tree_violations(trees::tree_row(k), trees::tree_store.ntax), 0);
  // xmult uses them as well, and its autoconstraints leave the user's constraints alone.
  const std::size_t groups = search::constraint_defs.positive.size();
  out = run("xmult=hits 1 replic 3;");
  EXPECT_TRUE(has(out, "Completed search.")) << out;
  EXPECT_EQ(search::constraint_defs.positive.size(), groups);
  check_store_scores();
  for (int k = 0; k < trees::tree_store.ntrees; ++k)
    EXPECT_EQ(search::tree_violations(trees::tree_row(k), trees::tree_store.ntax), 0);
}

// Under implied weighting (K = 3) sectors are searched by steps and taken by the fit of the
// whole tree: every tree they leave has the fit computed here from plain step counts (the
// matrices have no polymorphic cells, so a character's least steps are its states less one).
TEST_F(Fusing, SectorsUnderImpliedWeightingTakeResolutionsByFit) {
  std::mt19937 rng(31);
  auto fit_of = [](const std::int32_t* parent) {
    const auto steps = qax::test::slow_character_steps(parent);
    const auto& d = dataset::dataset;
    double total = 0;
    for (int c = 0; c < d.nchar; ++c) {
      std::uint32_t seen = 0;
      for (int t = 0; t < d.ntax; ++t)
        if (std::popcount(d.cell(t, c)) == 1) seen |= d.cell(t, c);   // missing cells hold every state
      const double h = steps[c] - (std::popcount(seen) - 1);
      total += h / (3.0 + h);
    }
    return total;
  };
  int improved = 0, hybridized = 0;
  for (int round = 0; round < 4; ++round) {
    run(evolved_matrix(26 + 6 * round, 40, 3 + round % 3, 12, rng));
    run("piwe=3; hold 50; rseed " + std::to_string(round + 1) + "; mult=replic 2 wagner keepall;");
    ASSERT_GT(trees::tree_store.ntrees, 0);
    double built = 1e300;
    for (int k = 0; k < trees::tree_store.ntrees; ++k) built = std::min(built, fit_of(trees::tree_row(k)));
    std::string out = run("sectsch=rss minsize 8 maxsize 16 selfactor 20 global 3; sectsch=xss 3-4+2-1; pfijo=numsels 1 chunksize 10;");
    EXPECT_TRUE(has(out, "Pinon Fijo, best score: ")) << out;
    EXPECT_TRUE(has(out, "Sectorial search (XSS), best score: ")) << out;
    EXPECT_EQ(out.find("not available"), std::string::npos) << out;
    double after = 1e300;
    for (int k = 0; k < trees::tree_store.ntrees; ++k) {
      const double f = fit_of(trees::tree_row(k));
      EXPECT_NEAR(trees::tree_store.scores[k], f, 1e-4) << "round " << round << " tree " << k;
      after = std::min(after, f);
    }
    EXPECT_LE(after, built + 1e-9);
    improved += after < built - 1e-6;
    // xmult takes them too, and hybridization (taxa placed by steps, trees taken by fits).
    out = run("xmult=replic 2 hits 1 drift 1;");
    EXPECT_TRUE(has(out, "sectors searched by steps are taken by fits")) << out;
    for (int k = 0; k < trees::tree_store.ntrees; ++k)
      EXPECT_NEAR(trees::tree_store.scores[k], fit_of(trees::tree_row(k)), 1e-4) << "round " << round;
    out = run("mult=replic 8 tbr hold 1 keepall;");   // keepall: every different tree stays
    if (trees::tree_store.ntrees >= 2) {
      out = run("tfuse=hybrid 6*1/3;");
      EXPECT_TRUE(has(out, "rounds of hybridization completed")) << out;
      ++hybridized;
    }
    for (int k = 0; k < trees::tree_store.ntrees; ++k)
      EXPECT_NEAR(trees::tree_store.scores[k], fit_of(trees::tree_row(k)), 1e-4) << "round " << round << "\n" << out;
    run("piwe-;");
  }
  EXPECT_GE(improved, 3);
  EXPECT_GE(hybridized, 2);
}

TEST_F(Fusing, HybridizationCompletesAndScoresItsChildren) {
  std::string out = run(std::string("proc ") + QAX_TEST_DATA + "/Conrad2008.xread; hold 300; rseed 4; mult=replic 5 hold 1 keepall;");
  out = run("hybrid=hybrid 6;");
  EXPECT_TRUE(has(out, "1 rounds of hybridization completed.")) << out;
  check_store_scores();
  for (int k = 0; k < trees::tree_store.ntrees; ++k)
    EXPECT_EQ(trees::tree_terminal_count(trees::tree_row(k), trees::tree_store.ntax), trees::tree_store.ntax);
  out = run("tfuse=hybrid 4*2/4;");
  EXPECT_TRUE(has(out, "rounds of hybridization completed.")) << out;
  check_store_scores();
  out = run("tfuse=nohybrid picktype 1000;");
  EXPECT_TRUE(has(out, "NOTE: picking hybridization algorithm (score ")) << out;
  out = run("tfuse=picktype 0.001;");
  EXPECT_TRUE(has(out, "NOTE: Picking tree-fusing algorithm (score ")) << out;
  check_store_scores();
  // By hand: an exchange without completing leaves taxa out; completing puts them back.
  const int n = trees::tree_store.ntrees;
  const int ntax = trees::tree_store.ntax;
  bool exchanged = false;
  for (int node = ntax + 2; node < trees::tree_row(0)[ntax] && !exchanged; ++node) {
    out = run("hybrid -0 1/" + std::to_string(node) + ";");
    exchanged = has(out, "Exchanged piece of ");
  }
  ASSERT_TRUE(exchanged) << out;
  ASSERT_EQ(trees::tree_store.ntrees, n + 2);
  out = run("hybrid *" + std::to_string(n) + ";");
  EXPECT_TRUE(has(out, "Completed tree (score ") || has(out, "already complete (score ")) << out;
  EXPECT_EQ(trees::tree_terminal_count(trees::tree_row(n), ntax), ntax);
  EXPECT_EQ(slow_length(trees::tree_row(n)), trees::tree_store.scores[n]);
  out = run("hybrid 0;");
  EXPECT_TRUE(has(out, "You must specify TWO trees for hybridization")) << out;
  out = run("hybrid 0 1 2;");
  EXPECT_TRUE(has(out, "You can specify only TWO trees")) << out;
}

TEST_F(Fusing, PinonFijoPerturbsByChunksAndKeepsScoredTrees) {
  std::string out = run(std::string("proc ") + QAX_TEST_DATA + "/Conrad2008.xread; hold 300; rseed 6; mult=replic 1 wagner;");
  out = run("pfijo=numsels 6 chunksize 20 drift 1 autofuse 3 2;");
  EXPECT_TRUE(has(out, "Pinon Fijo, best score: ")) << out;
  EXPECT_EQ(search::sector_mismatches, 0);
  check_store_scores();
  EXPECT_GE(trees::tree_store.ntrees, 2);
  const double best = search::last_best_score;
  out = run("pfijo=numsels 3 chunksize 20 goback nokeepall;");
  check_store_scores();
  EXPECT_LE(search::last_best_score, best);
  for (int k = 0; k < trees::tree_store.ntrees; ++k) EXPECT_EQ(trees::tree_store.scores[k], search::last_best_score);
  out = run("pfijo=chunksize 5;");
  EXPECT_TRUE(has(out, "Chunk size must be 10 or more")) << out;
  EXPECT_EQ(search::pfijo_settings.chunksize, 20);
  out = run("hold 2; pfijo=numsels 5 chunksize 20 keepall;");
  EXPECT_TRUE(has(out, "Stopping pinon fijo (increase max. trees to continue)")) << out;
  check_store_scores();
}

TEST_F(Fusing, DriversPutSettingsBackAfterAnInterrupt) {
  std::string out = run(std::string("proc ") + QAX_TEST_DATA +
                        "/Conrad2008.xread; ccode /3 4 9; hold 400; rseed 8; subopt 2; mult=replic 2 hold 1;");
  std::vector<int> weights;
  for (const auto& c : dataset::dataset.chars) weights.push_back(c.weight);
  const search::SearchSettings before = search::search_settings;
  for (const char* cmd : {"xmult=level 10 hits 50 ratchet 20;", "sectsch=rss minsize 10 maxsize 30 selfactor 1;",
                          "pfijo=numsels 500 chunksize 10;", "ratchet=iter 2000 fusefreq 5 autoconst 3;",
                          "drift=iter 3000 fusefreq 5 autoconst 2;", "sectsch=xss 2-8+400-3 xeven chkroot;",
                          "tfuse=rounds 100 hybrid 1000*100/20;"}) {
    shell::set_interrupt_deadline(shell::now_seconds() + 0.2);
    out = run(cmd);
    shell::set_interrupt_deadline(0);
    std::vector<int> after;
    for (const auto& c : dataset::dataset.chars) after.push_back(c.weight);
    EXPECT_EQ(after, weights) << cmd;
    EXPECT_EQ(search::search_settings.suboptimal, before.suboptimal) << cmd;
    EXPECT_EQ(search::search_settings.seed, before.seed) << cmd;
    EXPECT_EQ(trees::tree_store.maxtrees, 400) << cmd;
    EXPECT_EQ(search::constraint_defs.active, 0) << cmd;
    EXPECT_TRUE(search::constraint_defs.positive.empty()) << cmd;
    EXPECT_EQ(search::in_sector, 0) << cmd;
    EXPECT_EQ(search::engine_override, nullptr) << cmd;
    // The trees kept are whole and scored as said, interrupted or not.
    for (int k = 0; k < trees::tree_store.ntrees; ++k)
      EXPECT_EQ(slow_length(trees::tree_row(k)), trees::tree_store.scores[k]) << cmd << " tree " << k;
    shell::shell_state.stop_search_flag = 0;
  }
  // A command refused part way through its options leaves every setting as it was.
  const search::XmultSettings xm = search::xmult_settings;
  out = run("xmult=replic 9 hold 5 level 7 nosuchoption;");
  EXPECT_TRUE(has(out, "Unidentified string in xmult options: nosuchoption")) << out;
  EXPECT_EQ(search::xmult_settings.replications, xm.replications);
  EXPECT_EQ(search::xmult_settings.hold, xm.hold);
  EXPECT_EQ(search::xmult_settings.drift, xm.drift);
  out = run("ratchet=iter 5 upfactor 0 downfactor 0 noequals;");
  EXPECT_TRUE(has(out, "Ratchet must do at least one of equals, up, or down --all three are off!")) << out;
  std::vector<int> after;
  for (const auto& c : dataset::dataset.chars) after.push_back(c.weight);
  EXPECT_EQ(after, weights);
  EXPECT_EQ(search::search_settings.suboptimal, before.suboptimal);
  EXPECT_EQ(trees::tree_store.maxtrees, 400);
}

TEST_F(Fusing, LevelWithoutDataNeedsTheTaxa) {
  std::string out = run("xmult:level 3;");
  EXPECT_TRUE(has(out, "setting level without specifying taxon number")) << out;
  out = run("xmult:level 10 100;");
  EXPECT_EQ(search::xmult_settings.replications, 14);
  EXPECT_EQ(search::sector_settings.maxsize, 50);
}

namespace {

// Every binary tree of the first n taxa (taxon 0 at the root's side), by stepwise addition
// on the branches of the trees of n - 1 taxa; each is passed as a parent array.
void all_trees(int ntax, const std::function<void(const std::vector<std::int32_t>&)>& visit) {
  // Edges of an unrooted tree; vertex ids: taxa 0..ntax-1, inner ntax.. .
  using Edges = std::vector<std::pair<int, int>>;
  std::function<void(Edges&, int)> grow = [&](Edges& e, int t) {
    if (t == ntax) {
      // Root on taxon 0: parent array from a traversal.
      std::vector<std::vector<int>> adj(2 * ntax);
      for (auto [a, b] : e) { adj[a].push_back(b); adj[b].push_back(a); }
      std::vector<std::int32_t> parent(2 * ntax - 1, 0);
      int next = ntax + 1;
      const int root = ntax;
      parent[0] = root;
      std::vector<std::pair<int, int>> st{{adj[0][0], 0}};
      std::vector<int> id(2 * ntax, -1);
      std::vector<int> up{root};
      while (!st.empty()) {
        auto [v, from] = st.back();
        st.pop_back();
        const int par = up.back();
        up.pop_back();
        const int me = v < ntax ? v : next++;
        parent[me] = par;
        for (int w : adj[v])
          if (w != from) { st.push_back({w, v}); up.push_back(me); }
      }
      parent[root] = next;
      trees::reset_node_numbers(parent.data(), ntax);
      visit(parent);
      return;
    }
    const std::size_t n = e.size();
    for (std::size_t k = 0; k < n; ++k) {
      const auto [a, b] = e[k];
      const int inner = ntax + t;   // a new inner vertex
      e[k] = {a, inner};
      e.push_back({inner, b});
      e.push_back({inner, t});
      grow(e, t + 1);
      e.pop_back();
      e.pop_back();
      e[k] = {a, b};
    }
  };
  Edges start{{0, ntax + 2}, {1, ntax + 2}, {2, ntax + 2}};
  grow(start, 3);
}

}  // namespace

TEST_F(Fusing, XmultFindsTheOptimumOfSmallDataByBruteForce) {
  std::mt19937 rng(11);
  for (int round = 0; round < 4; ++round) {
    const int n = 8;
    run(evolved_matrix(n, 12 + round * 3, 3 + round % 2, 25, rng));
    int best = 1 << 30;
    all_trees(n, [&](const std::vector<std::int32_t>& t) { best = std::min(best, slow_length(t.data())); });
    std::string out = run("hold 100; rseed " + std::to_string(round + 1) + "; xmult=hits 2 level 1;");
    EXPECT_TRUE(has(out, "Best score: " + std::to_string(best) + ".")) << "brute force " << best << "\n" << out;
    check_store_scores();
  }
}

TEST_F(Fusing, FusingASetNeverLosesItsBestAndScoresWhatItAdds) {
  std::mt19937 rng(3);
  run(evolved_matrix(40, 50, 4, 15, rng));
  run("hold 100; rseed 9; mult=replic 5 wagner keepall;");
  search::search_prepare();
  std::vector<std::vector<std::int32_t>> set;
  for (int k = 0; k < trees::tree_store.ntrees; ++k) set.push_back(row(k));
  int before = 1 << 30;
  for (const auto& t : set) before = std::min(before, slow_length(t.data()));
  std::vector<double> scores;
  const double best = search::fuse_trees(set, scores, 4, 0, 77, true);
  EXPECT_LE(best, before);
  ASSERT_EQ(set.size(), scores.size());
  for (std::size_t k = 0; k < set.size(); ++k) EXPECT_EQ(slow_length(set[k].data()), scores[k]) << k;
  EXPECT_EQ(*std::min_element(scores.begin(), scores.end()), best);
  // Fusability: a set of one tree repeated has nothing to exchange; different trees do.
  std::vector<std::vector<std::int32_t>> same(3, set[0]);
  EXPECT_EQ(search::fusability_score(same), 0.0);
  EXPECT_GT(search::fusability_score(set), 0.0);
}
