// Drift: the relative fit difference of a move, checked against per-character lengths of
// the two whole trees; drift runs that reach the best length and keep only trees of the
// score reported; the settings and their messages.
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "common/harness.h"
#include "common/slow_length.h"
#include "optim/packed.h"
#include "search/engine.h"
#include "search/search_internal.h"
#include "search/settings.h"
#include "trees/store.h"

using namespace qax;
using qax::test::has;
using qax::test::run;
using qax::test::slow_length;

namespace {

class Drift : public test::ShellTest {};

std::string random_matrix(int ntax, int nchar, std::mt19937& rng) {
  std::string s = "xread " + std::to_string(nchar) + " " + std::to_string(ntax) + "\n";
  for (int t = 0; t < ntax; ++t) {
    s += "t" + std::to_string(t) + " ";
    for (int c = 0; c < nchar; ++c) s += rng() % 10 == 0 ? '?' : static_cast<char>('0' + rng() % (2 + c % 4));
    s += "\n";
  }
  return s + ";";
}

// Offered moves with the fit difference computed from the engine's sets.
struct Offered {
  std::vector<search::Move> moves;
  std::vector<double> rfd;
};

bool record_offer(void* ctx, const search::Move& m, std::int32_t, const std::uint32_t* clip_now,
                  const std::uint32_t* target_now, const std::uint32_t* clip_new, const std::uint32_t* target_new) {
  auto& o = *static_cast<Offered*>(ctx);
  o.moves.push_back(m);
  o.rfd.push_back(search::move_rfd(clip_now, target_now, clip_new, target_new));
  return false;
}

// (F - C) / F from the steps of each character on the two trees.
double reference_rfd(const std::vector<int>& now, const std::vector<int>& moved) {
  const auto& chars = dataset::dataset.chars;
  double f = 0, c = 0;
  for (std::size_t i = 0; i < now.size(); ++i) {
    const double w = chars[i].weight;
    if (moved[i] > now[i]) f += w * (moved[i] - now[i]);
    else c += w * (now[i] - moved[i]);
  }
  return f > 0 ? (f - c) / f : 0;
}

}  // namespace

TEST_F(Drift, RelativeFitDifferenceOfEveryMoveMatchesWholeTrees) {
  std::mt19937 rng(21);
  int checked = 0;
  for (int round = 0; round < 4; ++round) {
    run(random_matrix(9 + round, 30, rng) + (round % 2 ? "ccode /3 0.9;" : ""));
    run("rseed " + std::to_string(round + 1) + "; mult=replic 1 wagner;");
    optim::pack_data();
    search::engine_refresh();
    search::Engine& e = search::engine();
    std::vector<std::int32_t> tree(trees::tree_row(0), trees::tree_row(0) + trees::tree_store.row_size);
    ASSERT_TRUE(e.load(tree));
    e.compute_all();
    const auto now = test::slow_character_steps(tree.data());
    const std::vector<int> anc = e.anc, left = e.left, right = e.right;
    Offered offered;
    e.take_first = record_offer;
    e.take_ctx = &offered;
    for (int clip = 0; clip < e.nn; ++clip) {
      offered.moves.clear();
      offered.rfd.clear();
      search::Move best;
      std::vector<search::Move> records;
      std::uint64_t examined = 0;
      if (e.evaluate_clip(clip, true, true, 1 << 20, best, records, examined) < 0) continue;
      for (std::size_t i = 0; i < offered.moves.size(); ++i) {
        e.apply_move(offered.moves[i]);
        std::vector<std::int32_t> moved;
        e.export_tree(moved);
        EXPECT_NEAR(offered.rfd[i], reference_rfd(now, test::slow_character_steps(moved.data())), 1e-12)
            << "round " << round << " clip " << clip;
        ++checked;
        e.anc = anc;
        e.left = left;
        e.right = right;
        e.compute_all();
      }
    }
    e.take_first = nullptr;
    e.take_ctx = nullptr;
  }
  EXPECT_GT(checked, 500);
}

TEST_F(Drift, ReachesKnownBestAndKeepsOnlyTreesOfThatScore) {
  std::string out = run(std::string("proc ") + QAX_TEST_DATA +
                        "/Conrad2008.xread; hold 300; rseed 3; mult=replic 1 wagner; drift=iter 30 findscore 1704;");
  EXPECT_TRUE(has(out, " drift cycles completed\n")) << out;
  EXPECT_TRUE(has(out, "trees of score 1704\n")) << out;
  ASSERT_GT(trees::tree_store.ntrees, 0);
  for (int k = 0; k < trees::tree_store.ntrees; ++k) EXPECT_EQ(slow_length(trees::tree_row(k)), 1704);
  // Without worse moves drift walks the plateau only.
  out = run("drift=nopert iter 5;");
  EXPECT_TRUE(has(out, "trees of score 1704\n")) << out;
}

TEST_F(Drift, PerturbationWithWorseMovesKeepsScoresExact) {
  run(std::string("proc ") + QAX_TEST_DATA + "/Wills2012.xread; rseed 2; mult=replic 1 hold 1;");
  optim::pack_data();
  search::engine_refresh();
  std::vector<std::int32_t> tree(trees::tree_row(0), trees::tree_row(0) + trees::tree_store.row_size);
  const std::vector<std::int32_t> start = tree;
  search::set_random_seed(5);
  // A large allowance: worse moves are taken, and the returned score is the tree's length.
  const double score = search::swap_perturb(tree, 1, 200, 100, search::PerturbLimits{5.0, 1.0, 0.0});
  EXPECT_EQ(slow_length(tree.data()), score);
  EXPECT_NE(tree, start);
}
