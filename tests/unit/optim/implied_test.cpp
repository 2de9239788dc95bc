// Fits under implied weighting against a plain computation written here: steps of each
// character by a direct pass over the tree (nonadditive sets, additive and continuous
// intervals), minimum steps from the states observed, and the fit h / (K + h) (or the
// running sum of user weights) times the character's weight.
#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <functional>
#include <random>
#include <vector>

#include "common/data_fixtures.h"
#include "common/harness.h"
#include "common/tree_fixtures.h"
#include "dataset/dataset.h"
#include "optim/implied.h"
#include "optim/packed.h"
#include "optim/reports.h"
#include "search/fusing.h"
#include "search/implied_swap.h"
#include "trees/store.h"

using namespace qax;
namespace ds = qax::dataset;

namespace {

constexpr std::uint32_t missing = 0xFFFFFFFFu;
enum Kind { plain, additive, continuous };

struct Ref {
  std::vector<int> kind;
  std::vector<std::vector<std::uint32_t>> col;  // per character, per taxon
};

Ref random_matrix(std::mt19937& rng, int ntax, int nchar) {
  qax::test::install_matrix(ntax, nchar);
  auto& cells = qax::test::matrix_cells();
  Ref m;
  m.kind.resize(nchar);
  m.col.assign(nchar, std::vector<std::uint32_t>(ntax));
  for (int c = 0; c < nchar; ++c) {
    auto& r = ds::dataset.chars[c];
    const int k = static_cast<int>(rng() % 5);
    m.kind[c] = k < 2 ? plain : k < 4 ? additive : continuous;
    r.weight = 1 + static_cast<int>(rng() % 3);
    for (int t = 0; t < ntax; ++t) {
      std::uint32_t v;
      if (m.kind[c] == continuous) {
        v = static_cast<std::uint32_t>(rng() % 6000);
        v |= v << 16;
      } else {
        v = rng() % 8 == 0 ? missing : 1u << (rng() % 5);
      }
      m.col[c][t] = v;
      cells[static_cast<std::size_t>(t) * nchar + c] = v;
    }
    if (m.kind[c] == continuous) { r.is_continuous = 1; r.format = ds::format_continuous; }
    if (m.kind[c] == additive) r.additive = 1;
  }
  return m;
}

using Kids = std::vector<std::vector<int>>;
Kids kids_of(const std::vector<std::int32_t>& parent, int ntax) {
  Kids k(2 * ntax - 1);
  for (int n = 0; n < 2 * ntax - 1; ++n)
    if (n != ntax) k[parent[n]].push_back(n);
  return k;
}

// Steps of a nonadditive character: Fitch's sets, a step where children don't meet.
std::uint32_t fitch(const Kids& k, int ntax, const std::vector<std::uint32_t>& v, int n, long long& steps) {
  if (n < ntax) return v[n] == missing ? 0xFFu : v[n];
  std::uint32_t a = fitch(k, ntax, v, k[n][0], steps), b = fitch(k, ntax, v, k[n][1], steps);
  if (a & b) return a & b;
  ++steps;
  return a | b;
}

// Steps of an additive or continuous character: intervals, the gap where they don't meet.
std::pair<long long, long long> interval(const Kids& k, int ntax, const Ref& m, int c, int n, long long& steps) {
  if (n < ntax) {
    const std::uint32_t v = m.col[c][n];
    if (m.kind[c] == continuous) return {v & 0xFFFF, v >> 16};
    if (v == missing) return {-1000000, 1000000};
    return {std::countr_zero(v), std::countr_zero(v)};
  }
  auto a = interval(k, ntax, m, c, k[n][0], steps), b = interval(k, ntax, m, c, k[n][1], steps);
  const long long lo = std::max(a.first, b.first), hi = std::min(a.second, b.second);
  if (lo <= hi) return {lo, hi};
  steps += lo - hi;
  return {std::min(a.second, b.second), std::max(a.first, b.first)};
}

// Homoplasy of each character on the tree (continuous in units of 1).
std::vector<double> reference_homoplasy(const Ref& m, const std::vector<std::int32_t>& parent, int ntax) {
  const Kids k = kids_of(parent, ntax);
  std::vector<double> out;
  for (std::size_t c = 0; c < m.kind.size(); ++c) {
    long long steps = 0;
    if (m.kind[c] == plain) fitch(k, ntax, m.col[c], ntax, steps);
    else interval(k, ntax, m, static_cast<int>(c), ntax, steps);
    long long lo = 1 << 30, hi = -1;
    std::uint32_t seen = 0;
    for (auto v : m.col[c]) {
      if (m.kind[c] == continuous) { lo = std::min<long long>(lo, v >> 16); hi = std::max<long long>(hi, v & 0xFFFF); continue; }
      if (v == missing) continue;
      seen |= v;
      lo = std::min<long long>(lo, std::countr_zero(v));
      hi = std::max<long long>(hi, std::countr_zero(v));
    }
    const long long min_steps = m.kind[c] == plain ? std::max(0, std::popcount(seen) - 1) : std::max(0LL, hi - lo);
    double h = static_cast<double>(steps - min_steps);
    if (m.kind[c] == continuous) h /= 1000.0;
    out.push_back(h);
  }
  return out;
}

double reference_fit(const Ref& m, const std::vector<std::int32_t>& parent, int ntax, double K,
                     const std::vector<double>* user) {
  const std::vector<double> hs = reference_homoplasy(m, parent, ntax);
  double total = 0;
  for (std::size_t c = 0; c < m.kind.size(); ++c) {
    const double h = hs[c];
    double f = 0;
    if (user) {
      const double top = *std::max_element(user->begin(), user->end());
      for (int i = 0; i < static_cast<int>(h); ++i) f += (*user)[std::min<std::size_t>(i, user->size() - 1)] / top;
    } else if (h > 0) {
      f = h / (K + h);
    }
    total += ds::dataset.chars[c].weight * f;
  }
  return total;
}

class Implied : public ::testing::Test {
 protected:
  void SetUp() override { qax::test::setup_shell(); }
  void TearDown() override { optim::implied_settings = optim::ImpliedSettings{}; }
};

TEST_F(Implied, FitsOfRandomTreesMatchThePlainComputation) {
  std::mt19937 rng(77);
  int checked = 0;
  for (int round = 0; round < 40; ++round) {
    const int ntax = 5 + static_cast<int>(rng() % 20);
    const Ref m = random_matrix(rng, ntax, 12);
    ds::minmax_check();
    optim::pack_data();
    const double K = round % 3 == 0 ? 3.0 : 0.5 + (rng() % 2000) / 100.0;
    optim::implied_settings.concavity = K;
    optim::implied_settings.implied_on = 1;
    for (int tr = 0; tr < 6; ++tr) {
      const auto parent = qax::test::random_binary_parent(rng, ntax);
      std::vector<int> steps;
      optim::character_steps(parent, steps);
      EXPECT_NEAR(optim::implied_total(steps), reference_fit(m, parent, ntax, K, nullptr), 1e-9)
          << "round " << round << " tree " << tr;
      ++checked;
    }
  }
  EXPECT_EQ(checked, 240);
}

TEST_F(Implied, UserWeightingFunctionIsTheRunningSumOfTheWeights) {
  std::mt19937 rng(5);
  const std::vector<double> user = {1, 0.8, 0.5, 0.4, 0.3, 0.2, 0.1, 0.1, 0.1, 0.05};
  for (int round = 0; round < 20; ++round) {
    const int ntax = 6 + static_cast<int>(rng() % 10);
    Ref m = random_matrix(rng, ntax, 8);
    // Whole steps only: continuous columns would take fractions of a step.
    for (int c = 0; c < 8; ++c)
      if (m.kind[c] == continuous) {
        ds::dataset.chars[c].is_continuous = 0;
        ds::dataset.chars[c].format = ds::format_numeric;
        m.kind[c] = plain;
        for (int t = 0; t < ntax; ++t) {
          m.col[c][t] = 1u << (t % 3);
          qax::test::matrix_cells()[static_cast<std::size_t>(t) * 8 + c] = m.col[c][t];
        }
      }
    ds::minmax_check();
    optim::pack_data();
    optim::implied_settings.implied_on = 1;
    optim::implied_settings.user_weighted = 1;
    optim::implied_settings.user_weights = user;
    for (int tr = 0; tr < 5; ++tr) {
      const auto parent = qax::test::random_binary_parent(rng, ntax);
      std::vector<int> steps;
      optim::character_steps(parent, steps);
      EXPECT_NEAR(optim::implied_total(steps), reference_fit(m, parent, ntax, 3.0, &user), 1e-9) << round;
    }
  }
}

TEST_F(Implied, EdgeValuesOfTheFitFunction) {
  optim::implied_settings.concavity = 3;
  EXPECT_DOUBLE_EQ(optim::fit_of_homoplasy(2), 0.4);
  EXPECT_NEAR(optim::fit_of_homoplasy(3) - optim::fit_of_homoplasy(2), 0.1, 1e-12);
  EXPECT_EQ(optim::fit_of_homoplasy(0), 0.0);
  optim::implied_settings.concavity = 1000;
  EXPECT_EQ(optim::fit_of_homoplasy(0), 0.0);
}

// Every rooted binary tree with taxon 0 beside the root, by inserting taxa 2.. on each
// branch in turn (some trees come more than once, which is harmless for a minimum).
void each_tree(std::vector<std::int32_t>& par, int k, int n, int next_inner,
               const std::function<void(const std::vector<std::int32_t>&)>& fn) {
  if (k == n) { fn(par); return; }
  for (int v = 1; v < next_inner; ++v) {
    if (v == n || (v >= k && v < n)) continue;
    const int q = next_inner;
    par[q] = par[v];
    par[v] = q;
    par[k] = q;
    each_tree(par, k + 1, n, next_inner + 1, fn);
    par[v] = par[q];
  }
}

double best_fit_of_all_trees(const Ref& m, int ntax, double K) {
  std::vector<std::int32_t> par(2 * ntax - 1, 0);
  par[0] = par[1] = ntax;
  par[ntax] = 2 * ntax - 1;
  double best = 1e300;
  each_tree(par, 2, ntax, ntax + 1, [&](const std::vector<std::int32_t>& t) {
    best = std::min(best, reference_fit(m, t, ntax, K, nullptr));
  });
  return best;
}

TEST_F(Implied, MultReachesTheBestFitOfAllTrees) {
  std::mt19937 rng(909);
  for (int round = 0; round < 6; ++round) {
    const int ntax = 6 + round % 3;
    const Ref m = random_matrix(rng, ntax, 10);
    const double K = round % 2 ? 3.0 : 10.0;
    const double best = best_fit_of_all_trees(m, ntax, K);
    const std::string out = qax::test::run(std::string("piwe =") + (round % 2 ? "3" : "10") + (round < 3 ? "; mult=replic 10;" : "; mult=replic 10 ratchet;"));
    ASSERT_GT(trees::tree_store.ntrees, 0) << out;
    for (int k = 0; k < trees::tree_store.ntrees; ++k) {
      EXPECT_NEAR(trees::tree_store.scores[k], best, 1e-9) << "round " << round << "\n" << out;
      std::vector<std::int32_t> parent(trees::tree_store.row_size);
      std::copy_n(trees::tree_row(k), parent.size(), parent.begin());
      EXPECT_NEAR(reference_fit(m, parent, ntax, K, nullptr), best, 1e-9) << "round " << round;
    }
  }
}

TEST_F(Implied, RatchetAndDriftCommandsReachTheBestFitOfAllTrees) {
  std::mt19937 rng(5150);
  for (int round = 0; round < 6; ++round) {
    const int ntax = 7 + round % 2;
    const Ref m = random_matrix(rng, ntax, 10);
    const double K = round % 2 ? 3.0 : 10.0;
    const double best = best_fit_of_all_trees(m, ntax, K);
    const std::string out = qax::test::run(std::string("piwe =") + (round % 2 ? "3" : "10") +
                                           "; mult=replic 1 hold 1 wagner;" + (round < 3 ? " ratchet;" : " drift;"));
    ASSERT_EQ(trees::tree_store.ntrees, 1) << out;
    std::vector<std::int32_t> parent(trees::tree_store.row_size);
    std::copy_n(trees::tree_row(0), parent.size(), parent.begin());
    EXPECT_NEAR(trees::tree_store.scores[0], best, 1e-9) << "round " << round << "\n" << out;
    EXPECT_NEAR(reference_fit(m, parent, ntax, K, nullptr), best, 1e-9) << "round " << round;
    qax::test::run("piwe -;");
  }
}

// Fusing under implied weighting: a receiver that differs from the donor only inside one
// group takes the donor's resolution of it when that improves the fit, and the fit it
// reports is the tree's own.
TEST_F(Implied, FusingTakesTheDonorsResolutionOfAGroupWhenItImprovesTheFit) {
  std::mt19937 rng(6060);
  int exchanged = 0;
  for (int round = 0; round < 12; ++round) {
    const int ntax = 10 + static_cast<int>(rng() % 10);
    const Ref m = random_matrix(rng, ntax, 14);
    const double K = 3.0 + round % 4;
    const std::string out = qax::test::run("piwe =" + std::to_string(static_cast<int>(K)) + "; mult=replic 3 hold 1;");
    ASSERT_GT(trees::tree_store.ntrees, 0) << out;
    std::vector<std::int32_t> donor(trees::tree_store.row_size);
    std::copy_n(trees::tree_row(0), donor.size(), donor.begin());
    const double donor_fit = reference_fit(m, donor, ntax, K, nullptr);
    // Two taxa of different children of an inner group of at least 3 taxa change places.
    std::vector<std::int32_t> receiver = qax::test::swap_across_a_group(donor, ntax, rng, 3);
    if (receiver == donor) continue;
    const double before = reference_fit(m, receiver, ntax, K, nullptr);
    double reported = -1;
    search::whole_fuse_pair(receiver, donor, &reported, 0, 0);
    const double after = reference_fit(m, receiver, ntax, K, nullptr);
    EXPECT_NEAR(reported, after, 1e-9) << "round " << round;
    EXPECT_LE(after, before + 1e-9) << "round " << round;
    if (before > donor_fit + 1e-9) {
      EXPECT_NEAR(after, donor_fit, 1e-9) << "round " << round;
      ++exchanged;
    }
    qax::test::run("piwe -;");
  }
  EXPECT_GT(exchanged, 3);
}

TEST_F(Implied, XmultAndFusingReachTheBestFitOfAllTrees) {
  std::mt19937 rng(7171);
  for (int round = 0; round < 4; ++round) {
    const int ntax = 7 + round % 2;
    const Ref m = random_matrix(rng, ntax, 10);
    const double K = round % 2 ? 3.0 : 10.0;
    const double best = best_fit_of_all_trees(m, ntax, K);
    const std::string out = qax::test::run(std::string("piwe =") + (round % 2 ? "3" : "10") +
                                           (round < 2 ? "; xmult;" : "; mult=replic 4 hold 1 wagner; tfuse;"));
    ASSERT_GT(trees::tree_store.ntrees, 0) << out;
    double least = 1e300;
    for (int k = 0; k < trees::tree_store.ntrees; ++k) {
      std::vector<std::int32_t> parent(trees::tree_store.row_size);
      std::copy_n(trees::tree_row(k), parent.size(), parent.begin());
      const double f = reference_fit(m, parent, ntax, K, nullptr);
      EXPECT_NEAR(trees::tree_store.scores[k], f, 1e-9) << "round " << round;
      least = std::min(least, f);
    }
    if (round < 2) EXPECT_NEAR(least, best, 1e-9) << "round " << round << "\n" << out;
    else EXPECT_GE(least, best - 1e-9);
    qax::test::run("piwe -;");
  }
}

TEST_F(Implied, SeveralTreesAndSuboptimalFitsAreEveryTreeWithinReach) {
  std::mt19937 rng(4242);
  for (int round = 0; round < 6; ++round) {
    const int ntax = 6 + round % 2;
    const Ref m = random_matrix(rng, ntax, 9);
    const double K = round % 2 ? 3.0 : 8.0;
    std::vector<double> fits;
    std::vector<std::int32_t> par(2 * ntax - 1, 0);
    par[0] = par[1] = ntax;
    par[ntax] = 2 * ntax - 1;
    each_tree(par, 2, ntax, ntax + 1, [&](const std::vector<std::int32_t>& t) { fits.push_back(reference_fit(m, t, ntax, K, nullptr)); });
    ASSERT_EQ(fits.size(), ntax == 6 ? 105u : 945u);
    const double best = *std::min_element(fits.begin(), fits.end());
    const double subopt = round < 3 ? 0.0 : 0.15;
    const auto within = std::count_if(fits.begin(), fits.end(), [&](double f) { return f <= best + subopt + 1e-9; });
    char cmd[160];
    std::snprintf(cmd, sizeof cmd, "piwe =%g; hold 5000; subopt %g; mult=replic 10 hold 5000;", K, subopt);
    const std::string out = qax::test::run(cmd);
    // Every tree kept is within reach of the best, by the plain fit, and none is missing
    // (small trees: the trees within reach are joined by single rearrangements).
    EXPECT_EQ(trees::tree_store.ntrees, within) << "round " << round << "\n" << out;
    for (int k = 0; k < trees::tree_store.ntrees; ++k) {
      std::vector<std::int32_t> parent(trees::tree_row(k), trees::tree_row(k) + trees::tree_store.row_size);
      const double f = reference_fit(m, parent, ntax, K, nullptr);
      EXPECT_LE(f, best + subopt + 1e-9) << "round " << round;
      EXPECT_NEAR(trees::tree_store.scores[k], f, 1e-9);
    }
    // A suboptimal value above every fit: bbreak keeps every tree.
    qax::test::run("collapse none; subopt 100; bbreak;");
    EXPECT_EQ(trees::tree_store.ntrees, static_cast<int>(fits.size())) << "round " << round;
    qax::test::run("subopt 0; collapse 1;");
  }
}

TEST_F(Implied, ConstrainedSearchesReachTheBestFitOfTheTreesAllowed) {
  std::mt19937 rng(616);
  int binding = 0;  // rounds where the constraints exclude every tree of the best fit
  for (int round = 0; round < 4; ++round) {
    const int ntax = 6 + round % 2;
    const Ref m = random_matrix(rng, ntax, 10);
    const double K = 3.0;
    // Group {1 2} must be present, {3 4} must not.
    auto has = [&](const std::vector<std::int32_t>& t, std::vector<int> group) {
      for (int v = ntax + 1; v < t[ntax]; ++v) {
        auto below = qax::test::taxa_below(t.data(), ntax, v);
        std::sort(below.begin(), below.end());
        if (below == group) return true;
      }
      return false;
    };
    std::vector<std::int32_t> par(2 * ntax - 1, 0);
    par[0] = par[1] = ntax;
    par[ntax] = 2 * ntax - 1;
    double best = 1e300, best_free = 1e300;
    each_tree(par, 2, ntax, ntax + 1, [&](const std::vector<std::int32_t>& t) {
      const double f = reference_fit(m, t, ntax, K, nullptr);
      best_free = std::min(best_free, f);
      if (has(t, {1, 2}) && !has(t, {3, 4})) best = std::min(best, f);
    });
    const std::string out =
        qax::test::run("piwe =3; force +[1 2] -[3 4]; constrain =; mult=replic 8 hold 20; bbreak;");
    EXPECT_NE(out.find("Constraints enforced during search."), std::string::npos) << out;
    ASSERT_GT(trees::tree_store.ntrees, 0) << out;
    for (int k = 0; k < trees::tree_store.ntrees; ++k) {
      std::vector<std::int32_t> t(trees::tree_row(k), trees::tree_row(k) + trees::tree_store.row_size);
      EXPECT_TRUE(has(t, {1, 2}) && !has(t, {3, 4})) << "round " << round;
      EXPECT_NEAR(reference_fit(m, t, ntax, K, nullptr), best, 1e-9) << "round " << round << " free " << best_free;
    }
    binding += best > best_free + 1e-9;
    qax::test::run("constrain -; force;");
  }
  EXPECT_GT(binding, 0);
}

TEST_F(Implied, DriftReachesTheBestFitOfAllTrees) {
  std::mt19937 rng(3131);
  for (int round = 0; round < 4; ++round) {
    const int ntax = 7 + round % 2;
    const Ref m = random_matrix(rng, ntax, 10);
    const double best = best_fit_of_all_trees(m, ntax, 3.0);
    const std::string out = qax::test::run("drift: iterations 10 numsubs 10; piwe =3; mult=replic 3 drift;");
    EXPECT_NE(out.find("Best score (TBR)"), std::string::npos) << out;
    ASSERT_GT(trees::tree_store.ntrees, 0) << out;
    for (int k = 0; k < trees::tree_store.ntrees; ++k) {
      std::vector<std::int32_t> parent(trees::tree_row(k), trees::tree_row(k) + trees::tree_store.row_size);
      EXPECT_NEAR(reference_fit(m, parent, ntax, 3.0, nullptr), best, 1e-9) << "round " << round;
    }
    qax::test::run("piwe -;");
  }
}

TEST_F(Implied, SwappingNeverReportsAFitOtherThanTheTreesOwn) {
  std::mt19937 rng(31);
  for (int round = 0; round < 6; ++round) {
    const int ntax = 9 + static_cast<int>(rng() % 16);
    const Ref m = random_matrix(rng, ntax, 15);
    ds::minmax_check();
    optim::pack_data();
    optim::implied_settings.implied_on = 1;
    optim::implied_settings.concavity = 2 + round;
    auto parent = qax::test::random_binary_parent(rng, ntax);
    const double start = reference_fit(m, parent, ntax, 2 + round, nullptr);
    long long examined = 0;
    const double f = search::implied_swap(parent, round % 2 == 0, examined);
    EXPECT_NEAR(f, reference_fit(m, parent, ntax, 2 + round, nullptr), 1e-9) << round;
    EXPECT_LE(f, start + 1e-12);
    EXPECT_GT(examined, 0);
  }
}

}  // namespace

// --- Extended implied weighting ------------------------------------------------------

// Fit of h under concavity k with the first step costing what it costs under K.
double scaled(double h, double k, double K) { return h > 0 ? h / (k + h) * (k + 1) / (K + 1) : 0.0; }

TEST_F(Implied, ExtendedFitsFollowMissingEntriesSetsAndConstantCharacters) {
  std::mt19937 rng(31);
  for (int round = 0; round < 30; ++round) {
    const int ntax = 6 + static_cast<int>(rng() % 18);
    const int nchar = 12;
    const Ref m = random_matrix(rng, ntax, nchar);
    ds::minmax_check();
    optim::pack_data();
    auto& s = optim::implied_settings;
    const double K = 1.0 + (rng() % 1500) / 100.0;
    const double P = (rng() % 101) / 100.0, M = 1.0 + (rng() % 500) / 100.0;
    const int X = static_cast<int>(rng() % 3);
    const double F = 0.25 + (rng() % 8) / 4.0;
    s = optim::ImpliedSettings{};
    s.implied_on = 1;
    s.concavity = K;
    s.extended_on = 1;
    s.best_k_rule = 0;
    s.missing_on = 1;
    s.missing_proportion = P;
    s.max_ratio = M;
    // Characters 0-2 and 5-6 are two sets; 8-9 have constant weight.
    s.set_of_char = {0, 0, 0, -1, -1, 1, 1, -1, -1, -1, -1, -1};
    s.constant_set = {0, 0, 0, 0, 0, 0, 0, 0, 1, 1, 0, 0};
    s.constant_steps = X;
    s.constant_factor = F;
    auto observed = [&](int c) {
      int n = 0;
      for (auto v : m.col[c]) n += v != missing;
      return n;
    };
    auto concavity = [&](int obs, int total) {
      const double v = (total - obs) * P + obs;
      return std::max(1.0 / M, obs / v) * K;
    };
    for (int tr = 0; tr < 5; ++tr) {
      const auto parent = qax::test::random_binary_parent(rng, ntax);
      const std::vector<double> h = reference_homoplasy(m, parent, ntax);
      double want = 0;
      double pooled[2] = {0, 0};
      int members[2] = {0, 0}, obs[2] = {0, 0}, total[2] = {0, 0};
      for (int c = 0; c < nchar; ++c) {
        const double w = ds::dataset.chars[c].weight;
        const int o = observed(c);
        if (o == 0) continue;
        if (s.set_of_char[c] >= 0) {
          const int g = s.set_of_char[c];
          pooled[g] += w * h[c];
          ++members[g];
          obs[g] += o;
          total[g] += ntax;
        } else if (s.constant_set[c]) {
          want += w * h[c] * ((X + 1) / (K + X + 1) - X / (K + X)) * F;
        } else {
          want += w * scaled(h[c], concavity(o, ntax), K);
        }
      }
      for (int g = 0; g < 2; ++g)
        if (members[g]) want += members[g] * scaled(pooled[g] / members[g], concavity(obs[g], total[g]), K);
      std::vector<int> steps;
      optim::character_steps(parent, steps);
      EXPECT_NEAR(optim::implied_total(steps), want, 1e-9) << "round " << round << " tree " << tr;
      // Character by character, the fits add up to the total.
      double sum = 0;
      for (double f : optim::character_fits(steps)) sum += f;
      EXPECT_NEAR(sum, want, 1e-9);
    }
  }
}

TEST_F(Implied, ExtrapolationWithoutEffectGivesStandardFits) {
  std::mt19937 rng(8);
  for (int round = 0; round < 10; ++round) {
    const int ntax = 8 + static_cast<int>(rng() % 10);
    const Ref m = random_matrix(rng, ntax, 12);
    ds::minmax_check();
    optim::pack_data();
    auto& s = optim::implied_settings;
    s = optim::ImpliedSettings{};
    s.implied_on = 1;
    s.concavity = 2.5;
    s.extended_on = 1;
    s.missing_on = 1;
    // P = 0 counts no homoplasy in missing entries; M = 1 allows no change of k.
    if (round % 2) s.missing_proportion = 0;
    else s.max_ratio = 1;
    const auto parent = qax::test::random_binary_parent(rng, ntax);
    std::vector<int> steps;
    optim::character_steps(parent, steps);
    EXPECT_NEAR(optim::implied_total(steps), reference_fit(m, parent, ntax, 2.5, nullptr), 1e-9) << round;
  }
}

TEST_F(Implied, BestKMatchesTheCostsOfSteps) {
  // Cost of a step after x steps under k.
  auto step = [](double k, double x) { return k * (k + 1) / ((x + k) * (x + k + 1)); };
  auto diff = [&](double K, double s, double k) {
    double sum = 0;
    for (int i = 1; i <= 15; ++i) sum += 100 * (step(K, i * s) - step(k, i)) / step(K, i * s);
    return sum / 15;
  };
  EXPECT_EQ(optim::best_k(3.0, 1.0), 3.0);
  for (double K : {1.0, 3.0, 10.0, 50.0})
    for (double s : {1.2, 1.5, 2.0, 3.0, 5.0}) {
      const double k = optim::best_k(K, s);
      EXPECT_GT(k, 0);
      EXPECT_LT(k, K);  // homoplasy expected in missing entries: steps weigh less sooner
      // No better k nearby.
      EXPECT_LE(std::abs(diff(K, s, k)), std::abs(diff(K, s, k * 1.01)) + 1e-9) << K << " " << s;
      EXPECT_LE(std::abs(diff(K, s, k)), std::abs(diff(K, s, k * 0.99)) + 1e-9) << K << " " << s;
    }
}
