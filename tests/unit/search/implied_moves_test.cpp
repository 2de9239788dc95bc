// Fits of rearrangements rated from the sets of the tree without the clip, against the fit
// of the rearranged tree scored in full, for every kind of implied weighting.
#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "common/data_fixtures.h"
#include "common/harness.h"
#include "dataset/dataset.h"
#include "optim/implied.h"
#include "optim/packed.h"
#include "optim/reports.h"
#include "search/implied_moves.h"
#include "search/search_internal.h"

using namespace qax;
namespace ds = qax::dataset;

namespace {

constexpr std::uint32_t missing = 0xFFFFFFFFu;

// Nonadditive and additive characters of 2 to 6 states, some polymorphic or missing cells,
// weights 1 to 3.
void random_matrix(std::mt19937& rng, int ntax, int nchar) {
  qax::test::install_matrix(ntax, nchar);
  auto& cells = qax::test::matrix_cells();
  for (int c = 0; c < nchar; ++c) {
    auto& r = ds::dataset.chars[c];
    r.additive = rng() % 3 == 0;
    r.weight = 1 + static_cast<int>(rng() % 3);
    const int states = 2 + static_cast<int>(rng() % 5);
    for (int t = 0; t < ntax; ++t) {
      std::uint32_t v = 1u << (rng() % states);
      if (rng() % 10 == 0) v |= 1u << (rng() % states);
      if (rng() % 9 == 0) v = missing;
      cells[static_cast<std::size_t>(t) * nchar + c] = v;
    }
  }
}

double full_fit(const std::vector<std::int32_t>& parent, const std::vector<int>* weights) {
  std::vector<int> steps;
  optim::character_steps(parent, steps);
  return optim::implied_total(steps, weights);
}

class ImpliedMovesTest : public ::testing::Test {
 protected:
  void SetUp() override { qax::test::setup_shell(); }
  void TearDown() override { optim::implied_settings = optim::ImpliedSettings{}; }
};

TEST_F(ImpliedMovesTest, EveryRatedMoveHasTheFitOfTheTreeItMakes) {
  std::mt19937 rng(2718);
  long long checked = 0;
  for (int round = 0; round < 16; ++round) {
    const int ntax = 9 + static_cast<int>(rng() % 32);
    const int nchar = 24;
    random_matrix(rng, ntax, nchar);
    ds::minmax_check();
    auto& s = optim::implied_settings;
    s = optim::ImpliedSettings{};
    s.implied_on = 1;
    s.concavity = 1.0 + (rng() % 200) / 10.0;
    if (round % 4 == 1) {
      s.user_weighted = 1;
      s.user_weights = {10, 6, 3, 2, 1};
    }
    if (round % 4 == 2) {
      // Two weighting sets, constant-weight characters, concavities from missing entries.
      s.extended_on = 1;
      s.missing_on = 1;
      s.set_of_char.assign(nchar, -1);
      s.constant_set.assign(nchar, 0);
      for (int c = 0; c < 6; ++c) s.set_of_char[c] = c % 2;
      s.constant_set[7] = s.constant_set[8] = 1;
      s.constant_steps = 1;
    }
    optim::pack_data();
    ASSERT_TRUE(search::ImpliedMoves::usable());
    search::Engine& e = search::engine();
    // The ratchet's weights (some doubled, some zero) in every fourth round.
    std::vector<int> perturbed;
    if (round % 4 == 3)
      for (int c = 0; c < nchar; ++c) perturbed.push_back(static_cast<int>(rng() % 3) * ds::dataset.chars[c].weight);
    const std::vector<int>* weights = perturbed.empty() ? nullptr : &perturbed;
    const auto parent = qax::test::random_binary_parent(rng, ntax);
    ASSERT_TRUE(e.load(parent));
    search::ImpliedMoves rated;
    rated.load(e, parent, weights);
    const double now = full_fit(parent, weights);
    std::vector<std::int32_t> moved;
    const int step = ntax > 20 ? 5 : 1;   // a sample of the moves of big trees
    int k = 0;
    for (int n = 0; n < e.nn; ++n) {
      if (n == e.nt || e.anc[n] < 0 || e.anc[n] == e.nt) continue;
      rated.prepare_clip(n, true);
      const int p = e.anc[n];
      const int sister = e.left[p] == n ? e.right[p] : e.left[p];
      std::vector<char> in(e.nn, 0);
      std::vector<int> st{n};
      while (!st.empty()) {
        const int v = st.back();
        st.pop_back();
        in[v] = 1;
        if (v >= e.nt) { st.push_back(e.left[v]); st.push_back(e.right[v]); }
      }
      // The clip where it is: the tree's own fit, the fit of the parts plus that of the join.
      EXPECT_NEAR(rated.fit(-1, sister, 1e300), now, 1e-9);
      EXPECT_NEAR(rated.base() + rated.join_value(), now, 1e-9);
      std::vector<int> reroots{-1};
      for (int r = 0; r < e.nn && n >= e.nt; ++r)
        if (in[r] && r != n && r != e.left[n] && r != e.right[n]) reroots.push_back(r);
      for (int r : reroots)
        for (int t = 0; t < e.nn; ++t) {
          if (t == e.nt || t == e.left[e.nt] || in[t] || t == p || e.anc[t] < 0) continue;
          if (t == sister && r < 0) continue;
          if (++k % step) continue;
          search::Move m;
          m.clip = n;
          m.reroot = r;
          m.target = t;
          e.export_move(m, moved);
          const double want = full_fit(moved, weights);
          ASSERT_NEAR(rated.fit(r, t, 1e300), want, 1e-9) << "round " << round << " clip " << n << " reroot " << r << " target " << t;
          // Below the move's fit the rating may stop early, but never under the ceiling.
          EXPECT_GT(rated.fit(r, t, want - 0.01), want - 0.01);
          ++checked;
        }
    }
  }
  EXPECT_GT(checked, 20000);
}

}  // namespace
