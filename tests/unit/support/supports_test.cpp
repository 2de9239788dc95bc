// Supports: the weight rules of each resampling method, Bremer supports against a brute
// force over all trees of small random matrices, the relative fit difference against a
// plain per-character count, and resampling frequencies against the consensuses of the
// replicates saved by the same run.
#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <functional>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "common/harness.h"
#include "common/slow_length.h"
#include "common/tree_fixtures.h"
#include "support/bremer.h"
#include "support/resample.h"
#include "trees/store.h"
#include "trees/tags.h"

namespace qax {
namespace {

using support::perturb_weights;
using test::run;

class Supports : public test::ShellTest {};

support::RandomSource source(std::mt19937& rng) {
  return [&rng] { return static_cast<int>(rng() & 0x7fffffffu); };
}

// --- Weight rules ------------------------------------------------------------------

TEST(ResampleWeights, JackknifeDeletesAtTheRateAndOnlyActiveCharacters) {
  std::mt19937 rng(11);
  const int n = 20000;
  std::vector<std::uint8_t> active(n, 1);
  for (int c = 0; c < n; c += 10) active[c] = 0;
  std::vector<std::int32_t> w(n, 3);
  perturb_weights(support::resample_jak, 36, 0, true, active, w, source(rng));
  int deleted = 0, act = 0;
  for (int c = 0; c < n; ++c) {
    if (!active[c]) {
      EXPECT_EQ(w[c], 3);
      continue;
    }
    ++act;
    EXPECT_TRUE(w[c] == 0 || w[c] == 3);
    deleted += w[c] == 0;
  }
  EXPECT_NEAR(static_cast<double>(deleted) / act, 0.36, 0.015);
}

TEST(ResampleWeights, JackknifeFollowsTheDrawsExactly) {
  // Draws 5, 40, 35, 99: with P = 36 the first and third characters go.
  std::vector<int> draws = {5, 40, 35, 99};
  std::size_t i = 0;
  std::vector<std::uint8_t> active(4, 1);
  std::vector<std::int32_t> w = {1, 2, 3, 4};
  perturb_weights(support::resample_jak, 36, 0, true, active, w, [&] { return draws[i++]; });
  EXPECT_EQ(w, (std::vector<std::int32_t>{0, 2, 0, 4}));
}

TEST(ResampleWeights, SymmetricUpAndDownWithAndWithoutZeroWeights) {
  std::mt19937 rng(5);
  const int n = 30000;
  std::vector<std::uint8_t> active(n, 1);
  std::vector<std::int32_t> w(n, 2);
  perturb_weights(support::resample_sym, 33, 0, true, active, w, source(rng));
  int up = 0, down = 0, same = 0;
  for (int v : w) {
    ASSERT_TRUE(v == 0 || v == 2 || v == 4);
    up += v == 4;
    down += v == 0;
    same += v == 2;
  }
  // T = 34: a draw above 34 changes the character, so 65 in 100 change, half each way.
  EXPECT_NEAR(static_cast<double>(same) / n, 0.35, 0.015);
  EXPECT_NEAR(static_cast<double>(up) / n, 0.325, 0.015);
  EXPECT_NEAR(static_cast<double>(down) / n, 0.325, 0.015);
  std::vector<std::int32_t> v(n, 2);
  perturb_weights(support::resample_sym, 33, 0, false, active, v, source(rng));
  int halves = 0;
  for (int x : v) {
    // Doubled first: unchanged 4, up 8, down 2.
    ASSERT_TRUE(x == 2 || x == 4 || x == 8);
    halves += x == 2;
  }
  EXPECT_NEAR(static_cast<double>(halves) / n, 0.325, 0.015);
}

TEST(ResampleWeights, SymmetricAtFiftyChangesAllButDrawsOfZero) {
  // T = 0: the first draw must exceed 0; then the second picks the direction.
  std::vector<int> draws = {0, 1, 70, 99, 10};
  std::size_t i = 0;
  std::vector<std::uint8_t> active(3, 1);
  std::vector<std::int32_t> w = {5, 5, 5};
  perturb_weights(support::resample_sym, 50, 0, true, active, w, [&] { return draws[i++]; });
  EXPECT_EQ(w, (std::vector<std::int32_t>{5, 0, 10}));
}

TEST(ResampleWeights, BootstrapCountsSumToTheDraws) {
  std::mt19937 rng(3);
  for (int soft : {0, 10, 50}) {
    const int n = 357;
    std::vector<std::uint8_t> active(n + 13, 1);
    for (int c = n; c < n + 13; ++c) active[c] = 0;
    std::vector<std::int32_t> w(n + 13, 1);
    perturb_weights(support::resample_boot, 0, soft, true, active, w, source(rng));
    long long sum = 0;
    for (int c = 0; c < n; ++c) sum += w[c];
    for (int c = n; c < n + 13; ++c) EXPECT_EQ(w[c], 1);
    EXPECT_EQ(sum, n + static_cast<long long>(soft * 10.0 / 100.0 * n)) << soft;
  }
}

TEST(ResampleWeights, PoissonRowsAndMultipliers) {
  EXPECT_EQ(support::poisson_row(0), 0);
  EXPECT_EQ(support::poisson_row(10), 1);
  EXPECT_EQ(support::poisson_row(50), 3);
  EXPECT_EQ(support::poisson_row(100), 5);
  EXPECT_EQ(support::poisson_multiplier(0, 0), 0);
  EXPECT_EQ(support::poisson_multiplier(0, 367), 0);
  EXPECT_EQ(support::poisson_multiplier(0, 368), 1);
  EXPECT_EQ(support::poisson_multiplier(0, 996), 4);
  EXPECT_EQ(support::poisson_multiplier(0, 997), 5);
  // Row 3 as it stands: after 92 the next thresholds (24, 44) are never below r.
  std::set<int> seen;
  for (int r = 0; r < 1000; ++r) seen.insert(support::poisson_multiplier(3, r));
  EXPECT_EQ(seen, (std::set<int>{0, 1, 4, 5}));
  std::mt19937 rng(9);
  const int n = 50000;
  std::vector<std::uint8_t> active(n, 1);
  std::vector<std::int32_t> w(n, 1);
  perturb_weights(support::resample_poisson, 0, 0, true, active, w, source(rng));
  std::map<int, int> count;
  for (int x : w) ++count[x];
  // Row 0 is a Poisson law of mean 1: P(0) = 0.368, P(1) = 0.368, P(2) = 0.184.
  EXPECT_NEAR(count[0] / static_cast<double>(n), 0.368, 0.01);
  EXPECT_NEAR(count[1] / static_cast<double>(n), 0.368, 0.01);
  EXPECT_NEAR(count[2] / static_cast<double>(n), 0.184, 0.01);
}

// --- Relative fit difference and the combinations ---------------------------------

TEST(BremerFormulas, RelativeFitDifference) {
  // T2 worse by 3 on the first, better by 1 on the second: (3 - 1) / 3.
  EXPECT_DOUBLE_EQ(support::relative_fit_difference({1, 4, 2}, {4, 3, 2}), 2.0 / 3.0);
  EXPECT_DOUBLE_EQ(support::relative_fit_difference({1, 1}, {1, 1}), 0.0);
  EXPECT_DOUBLE_EQ(support::relative_fit_difference({1, 1}, {2, 3}), 1.0);
  EXPECT_DOUBLE_EQ(support::combined_power(0.5, 2, 0.36, 1), 100 * std::pow(0.64 * 0.5, 0.5));
  EXPECT_DOUBLE_EQ(support::combined_complement(0.5, 2, 0.36, 1), 100 * (1 - std::pow(1 - 0.18, 2)));
  // A larger factor lowers the supports.
  EXPECT_LT(support::combined_power(0.5, 2, 0.36, 2), support::combined_power(0.5, 2, 0.36, 1));
  EXPECT_LT(support::combined_complement(0.5, 2, 0.36, 2), support::combined_complement(0.5, 2, 0.36, 1));
}

// --- Bremer supports against brute force -------------------------------------------

std::string random_matrix(int ntax, int nchar, std::mt19937& rng) {
  std::string s = "xread " + std::to_string(nchar) + " " + std::to_string(ntax) + "\n";
  for (int t = 0; t < ntax; ++t) {
    s += "t" + std::to_string(t) + " ";
    for (int c = 0; c < nchar; ++c) s += static_cast<char>('0' + rng() % (2 + c % 2));
    s += "\n";
  }
  return s + ";";
}

// All rooted binary trees of taxa 1..n-1, with taxon 0 joined at the root: every
// unrooted tree once, as parenthetical text.
void all_trees(int n, std::vector<std::string>& out) {
  // Edges as (child) entries of a parent array over taxa 1..k; insertion on each edge.
  std::function<void(std::vector<int>, int, int)> grow = [&](std::vector<int> parent, int k, int next) {
    if (k == n) {
      // Text from the parent array: node ids >= 100 are internal.
      std::function<std::string(int)> text = [&](int v) -> std::string {
        if (v < 100) return std::to_string(v);
        std::string s = "(";
        for (std::size_t c = 0; c < parent.size(); ++c)
          if (parent[c] == v) s += text(static_cast<int>(c)) + " ";
        return s + ")";
      };
      out.push_back("(0 " + text(100) + ")");
      return;
    }
    for (std::size_t e = 1; e < parent.size(); ++e) {
      if (parent[e] < 0 || e == 100) continue;
      std::vector<int> p = parent;
      if (static_cast<int>(p.size()) <= next) p.resize(next + 1, -1);
      p[next] = p[e];
      p[e] = next;
      p[k] = next;
      grow(p, k + 1, next + 1);
    }
    // Above the root of the subtree.
    std::vector<int> p = parent;
    if (static_cast<int>(p.size()) <= next) p.resize(next + 1, -1);
    // Relabel: the old root 100 becomes node `next`, and 100 the new root.
    for (auto& x : p)
      if (x == 100) x = next;
    p[next] = 100;
    p[k] = 100;
    grow(p, k + 1, next + 1);
  };
  std::vector<int> parent(102, -1);
  parent[1] = 100;
  parent[2] = 100;
  grow(parent, 3, 101);
}

using Cluster = std::set<int>;

std::set<Cluster> clusters_of(const std::int32_t* tree, int ntax) {
  std::set<Cluster> out;
  for (int v = ntax + 1; v < tree[ntax]; ++v) {
    auto below = test::taxa_below(tree, ntax, v);
    // The group of all taxa but the outgroup is in every tree rooted on it.
    if (below.size() >= 2 && static_cast<int>(below.size()) < ntax - 1) out.insert(Cluster(below.begin(), below.end()));
  }
  return out;
}

TEST_F(Supports, BremerFromAllTreesEqualsBruteForce) {
  std::mt19937 rng(2024);
  for (int round = 0; round < 6; ++round) {
    const int ntax = round < 3 ? 6 : 7;
    const int nchar = 8 + static_cast<int>(rng() % 6);
    std::vector<std::string> texts;
    all_trees(ntax, texts);
    ASSERT_EQ(texts.size(), ntax == 6 ? 105u : 945u);
    std::string cmd = random_matrix(ntax, nchar, rng) + " hold 2000; tread ";
    for (std::size_t i = 0; i < texts.size(); ++i) cmd += (i ? "*" : "") + texts[i];
    cmd += ";";
    run(cmd);
    ASSERT_EQ(trees::tree_store.ntrees, static_cast<int>(texts.size()));
    // Brute force: lengths by the plain scorer, clusters of every tree.
    const int n = trees::tree_store.ntrees;
    std::vector<int> len(n);
    std::vector<std::set<Cluster>> cl(n);
    int best = INT_MAX;
    for (int k = 0; k < n; ++k) {
      len[k] = test::slow_length(trees::tree_row(k));
      cl[k] = clusters_of(trees::tree_row(k), ntax);
      best = std::min(best, len[k]);
    }
    std::set<Cluster> strict;
    bool first = true;
    for (int k = 0; k < n; ++k) {
      if (len[k] != best) continue;
      if (first) strict = cl[k];
      else {
        std::set<Cluster> keep;
        for (const auto& c : strict)
          if (cl[k].count(c)) keep.insert(c);
        strict = keep;
      }
      first = false;
    }
    std::map<Cluster, int> expected;
    for (const auto& c : strict) {
      int m = INT_MAX;
      for (int k = 0; k < n; ++k)
        if (!cl[k].count(c)) m = std::min(m, len[k]);
      expected[c] = m - best;
    }
    // The command, with its values collected as tags.
    run("ttags=; bsupport;");
    ASSERT_TRUE(trees::tags_defined());
    const auto& tag = trees::tree_store.tag_tree;
    std::map<Cluster, int> got;
    for (int v = ntax + 1; v < tag[ntax]; ++v) {
      auto below = test::taxa_below(tag.data(), ntax, v);
      if (below.size() < 2 || static_cast<int>(below.size()) >= ntax - 1) continue;
      got[Cluster(below.begin(), below.end())] = std::stoi(trees::tree_store.tags[v]);
    }
    EXPECT_EQ(got, expected) << "round " << round;
    // Relative supports: the minimum over pairs of the relative fit difference counted
    // character by character.
    std::vector<std::vector<int>> steps(n);
    for (int k = 0; k < n; ++k) steps[k] = test::slow_character_steps(trees::tree_row(k));
    std::map<Cluster, int> rel_expected;
    for (const auto& c : strict) {
      double r = 2;
      for (int a = 0; a < n; ++a) {
        if (!cl[a].count(c)) continue;
        for (int b = 0; b < n; ++b) {
          if (cl[b].count(c)) continue;
          double f = 0, w = 0;
          for (int ch = 0; ch < nchar; ++ch) {
            const int d = steps[b][ch] - steps[a][ch];
            if (d > 0) f += d;
            else w -= d;
          }
          const double rfd = f > 0 ? (f - w) / f : (w > 0 ? -1 : 0);
          r = std::min(r, rfd);
        }
      }
      char text[32];
      // Negative differences mean no support.
      std::snprintf(text, sizeof text, "%.0f", 100 * std::max(0.0, r));
      rel_expected[c] = std::stoi(text);
    }
    run("ttags=; bsupport [;");
    std::map<Cluster, int> rel_got;
    for (int v = ntax + 1; v < tag[ntax]; ++v) {
      auto below = test::taxa_below(tag.data(), ntax, v);
      if (below.size() < 2 || static_cast<int>(below.size()) >= ntax - 1) continue;
      rel_got[Cluster(below.begin(), below.end())] = std::stoi(trees::tree_store.tags[v]);
    }
    EXPECT_EQ(rel_got, rel_expected) << "round " << round;
    // "]": only trees within the group's absolute support take part.
    std::map<Cluster, int> within_expected;
    for (const auto& c : strict) {
      const int limit = best + expected[c];
      double r = 2;
      for (int a = 0; a < n; ++a) {
        if (!cl[a].count(c) || len[a] > limit) continue;
        for (int b = 0; b < n; ++b) {
          if (cl[b].count(c) || len[b] > limit) continue;
          double f = 0, w = 0;
          for (int ch = 0; ch < nchar; ++ch) {
            const int d = steps[b][ch] - steps[a][ch];
            if (d > 0) f += d;
            else w -= d;
          }
          r = std::min(r, f > 0 ? (f - w) / f : (w > 0 ? -1.0 : 0.0));
        }
      }
      if (r > 1) r = 0;  // no pair: no support
      char text[32];
      std::snprintf(text, sizeof text, "%.0f", 100 * std::max(0.0, r));
      within_expected[c] = std::stoi(text);
    }
    run("ttags-; ttags=; bsupport ];");
    std::map<Cluster, int> within_got;
    for (int v = ntax + 1; v < tag[ntax]; ++v) {
      auto below = test::taxa_below(tag.data(), ntax, v);
      if (below.size() < 2 || static_cast<int>(below.size()) >= ntax - 1) continue;
      within_got[Cluster(below.begin(), below.end())] = std::stoi(trees::tree_store.tags[v]);
    }
    EXPECT_EQ(within_got, within_expected) << "round " << round;
    // TBR from a shortest tree sees only its neighbours: every value is at least the exact
    // one, and groups never broken within the suboptimal show suboptimal + 1.
    int k0 = 0;
    while (len[k0] != best) ++k0;
    // The quick estimate from the same tree bounds every support from above.
    {
      const std::string q = run("bsupport :" + std::to_string(k0) + ";");
      const std::size_t at = q.find("Suboptimal needed to collapse all groups of tree");
      ASSERT_NE(at, std::string::npos);
      const int estimate = std::stoi(q.substr(q.find(':', at) + 1));
      for (const auto& [c, v] : expected)
        if (cl[k0].count(c)) EXPECT_GE(estimate, v);
    }
    run("ttags-; ttags=; subopt 3; bsupport !" + std::to_string(k0) + "; subopt 0;");
    ASSERT_TRUE(trees::tags_defined());
    for (int v = ntax + 1; v < tag[ntax]; ++v) {
      auto below = test::taxa_below(tag.data(), ntax, v);
      if (below.size() < 2 || static_cast<int>(below.size()) >= ntax - 1) continue;
      const Cluster c(below.begin(), below.end());
      std::string t = trees::tree_store.tags[v];
      const bool bound = t[0] == '[';
      const int value = std::stoi(bound ? t.substr(1) : t);
      int exact = INT_MAX;
      for (int k = 0; k < n; ++k)
        if (!cl[k].count(c)) exact = std::min(exact, len[k] - best);
      if (bound) {
        EXPECT_EQ(value, 4);
        EXPECT_GE(exact, 4);
      } else {
        EXPECT_GE(value, exact);
        EXPECT_LE(value, 3);
      }
    }
    run("ttags-;");
  }
}

// Unrooted topology of a tree restricted to taxa X, as its nontrivial splits (each as
// the side without the smallest taxon of X). Clusters are those of the tree rooted on 0.
std::set<Cluster> restricted_splits(const std::set<Cluster>& clusters, const Cluster& x) {
  std::set<Cluster> out;
  const int first = *x.begin();
  for (const auto& d : clusters) {
    Cluster in, rest;
    for (int t : x) (d.count(t) ? in : rest).insert(t);
    if (in.size() < 2 || rest.size() < 2) continue;
    out.insert(in.count(first) ? rest : in);
  }
  return out;
}

// B is one TBR move from A when some edge of A is also an edge of B and the two parts it
// separates have the same topology in both trees.
bool tbr_neighbours(const std::set<Cluster>& a, const std::set<Cluster>& b, int ntax) {
  if (a == b) return false;
  std::set<Cluster> edges = a;
  for (int t = 1; t < ntax; ++t) edges.insert(Cluster{t});
  Cluster all;
  for (int t = 1; t < ntax; ++t) all.insert(t);
  edges.insert(all);
  for (const auto& x : edges) {
    if (x.size() > 1 && x.size() < static_cast<std::size_t>(ntax - 1) && !b.count(x)) continue;
    Cluster y;
    for (int t = 0; t < ntax; ++t)
      if (!x.count(t)) y.insert(t);
    if (restricted_splits(a, x) == restricted_splits(b, x) && restricted_splits(a, y) == restricted_splits(b, y))
      return true;
  }
  return false;
}

// A random matrix with every unrooted tree of its taxa in memory; the number of trees.
int read_every_tree(int ntax, int nchar, std::mt19937& rng) {
  std::vector<std::string> texts;
  all_trees(ntax, texts);
  std::string cmd = random_matrix(ntax, nchar, rng) + " hold 2000; tread ";
  for (std::size_t i = 0; i < texts.size(); ++i) cmd += (i ? "*" : "") + texts[i];
  run(cmd + ";");
  return trees::tree_store.ntrees;
}

TEST_F(Supports, RelativeBremerByTbrEqualsTheNeighbourhood) {
  std::mt19937 rng(77);
  for (int round = 0; round < 4; ++round) {
    const int ntax = round < 2 ? 6 : 7;
    const int nchar = 9 + static_cast<int>(rng() % 5);
    const int n = read_every_tree(ntax, nchar, rng);
    std::vector<int> len(n);
    std::vector<std::set<Cluster>> cl(n);
    std::vector<std::vector<int>> steps(n);
    int best = INT_MAX, k0 = -1;
    for (int k = 0; k < n; ++k) {
      len[k] = test::slow_length(trees::tree_row(k));
      cl[k] = clusters_of(trees::tree_row(k), ntax);
      steps[k] = test::slow_character_steps(trees::tree_row(k));
      if (len[k] < best) best = len[k], k0 = k;
    }
    const int subopt = 2;
    const double limit = 0.6;
    // Expected by brute force over the TBR neighbours of k0 within the suboptimal value.
    struct Expect { int absolute = INT_MAX; double all = 1e9, at_support = 1e9; };
    std::map<Cluster, Expect> want;
    for (const auto& c : cl[k0]) want[c];
    int neighbours = 0;
    for (int b = 0; b < n; ++b) neighbours += tbr_neighbours(cl[k0], cl[b], ntax);
    // At least the SPR neighbourhood, 2(n-3)(2n-7) trees.
    EXPECT_GE(neighbours, 2 * (ntax - 3) * (2 * ntax - 7));
    EXPECT_LT(neighbours, n - 1);
    for (int b = 0; b < n; ++b) {
      const int diff = len[b] - best;
      if (diff > subopt || !tbr_neighbours(cl[k0], cl[b], ntax)) continue;
      double f = 0, w = 0;
      for (int ch = 0; ch < nchar; ++ch) {
        const int d = steps[b][ch] - steps[k0][ch];
        if (d > 0) f += d;
        else w -= d;
      }
      const double rfd = std::clamp(f > 0 ? (f - w) / f : 0.0, 0.0, limit);
      for (auto& [c, e] : want) {
        if (cl[b].count(c)) continue;
        if (diff < e.absolute) e.at_support = rfd;
        else if (diff == e.absolute) e.at_support = std::min(e.at_support, rfd);
        e.absolute = std::min(e.absolute, diff);
        e.all = std::min(e.all, rfd);
      }
    }
    auto text = [&](double v, bool bound) {
      char t[32];
      std::snprintf(t, sizeof t, bound ? "[%.0f]" : "%.0f", v);
      return std::string(t);
    };
    std::map<Cluster, std::string> abs_want, all_want, at_want;
    for (const auto& [c, e] : want) {
      const bool broken = e.absolute != INT_MAX;
      abs_want[c] = broken ? text(e.absolute, false) : text(subopt + 1, true);
      all_want[c] = text(100 * std::min(e.all, limit), !broken || e.all >= limit);
      at_want[c] = text(100 * std::min(e.at_support, limit), !broken || e.at_support >= limit);
    }
    auto got = [&](const std::string& options) {
      run("ttags-; ttags=; bsupport " + options + std::to_string(k0) + ";");
      const auto& tag = trees::tree_store.tag_tree;
      std::map<Cluster, std::string> out;
      for (int v = ntax + 1; v < tag[ntax]; ++v) {
        auto below = test::taxa_below(tag.data(), ntax, v);
        if (below.size() < 2 || static_cast<int>(below.size()) >= ntax - 1) continue;
        out[Cluster(below.begin(), below.end())] = trees::tree_store.tags[v];
      }
      return out;
    };
    EXPECT_NE(run("subopt 2 x 0.6;").find("relative 0.600"), std::string::npos);
    EXPECT_EQ(got("!!"), abs_want) << "round " << round;
    EXPECT_EQ(got("[!!"), all_want) << "round " << round;
    EXPECT_EQ(got("]!!"), at_want) << "round " << round;
    run("ttags-; subopt 0 x 0;");
    EXPECT_NE(run("bsupport [!!0;").find("you must specify a relative suboptimal value"), std::string::npos);
  }
}

TEST_F(Supports, BremerMessages) {
  std::mt19937 rng(7);
  run(random_matrix(6, 10, rng) + " tread (0 (1 (2 (3 (4 5)))))*(0 (2 (1 (3 (4 5)))));");
  EXPECT_NE(run("bsupport 0;").find("Cannot calculate Bremer supports with 1 trees (select 2 or more)"), std::string::npos);
  EXPECT_NE(run("bsupport=-1;").find("Cutoff for Bremer cannot be negative (unless TBR is used)"), std::string::npos);
  EXPECT_NE(run("bsupport &1.5;").find("Deletion probability must be less than 1"), std::string::npos);
  EXPECT_NE(run("bsupport &0.3*0;").find("Factor for absolute bremer supports must be greater than 0"), std::string::npos);
  EXPECT_NE(run("bsupport &0.3*;").find("Symbol '*' must be followed by factor for absolute bremer supports"), std::string::npos);
  // A group in both trees: shown in brackets, as a lower bound.
  const std::string out = run("bsupport;");
  EXPECT_NE(out.find("Bremer supports (from 2 trees, cut "), std::string::npos);
  EXPECT_NE(out.find("["), std::string::npos);
}

// --- Resampling --------------------------------------------------------------------

TEST_F(Supports, FrequenciesEqualThoseOfTheSavedReplicates) {
  std::mt19937 rng(99);
  run(random_matrix(9, 30, rng) + " rseed 5; hold 1000;");
  run("resample jak replications 12 frequency nogc savetrees cut 50;");
  const int ntax = trees::tree_store.ntax;
  // Tree 0 is the summary; 1..12 the replicate consensuses.
  ASSERT_EQ(trees::tree_store.ntrees, 13);
  std::map<Cluster, int> count;
  for (int k = 1; k <= 12; ++k)
    for (const auto& c : clusters_of(trees::tree_row(k), ntax)) ++count[c];
  std::map<Cluster, int> expected;
  for (const auto& [c, k] : count)
    if (k * 100 > 50 * 12) expected[c] = k * 100 / 12;
  // The summary is the majority tree of the replicates, labelled with percentages.
  std::map<Cluster, int> got;
  const std::int32_t* t0 = trees::tree_row(0);
  for (const auto& c : clusters_of(t0, ntax)) got[c] = 0;
  EXPECT_EQ(got.size(), expected.size());
  for (const auto& [c, v] : expected) EXPECT_TRUE(got.count(c));
  // The labels, through the tags of a second, identical run.
  run("rseed 5; ttags=; resample jak replications 12 frequency nogc savetrees cut 50;");
  const auto& tag = trees::tree_store.tag_tree;
  for (int v = ntax + 1; v < tag[ntax]; ++v) {
    auto below = test::taxa_below(tag.data(), ntax, v);
    if (below.size() < 2 || static_cast<int>(below.size()) >= ntax - 1) continue;
    const Cluster c(below.begin(), below.end());
    ASSERT_TRUE(expected.count(c));
    EXPECT_EQ(std::stoi(trees::tree_store.tags[v]), expected[c]);
  }
  run("ttags-;");
}

TEST_F(Supports, GcValuesFollowTheFrequencyDifferenceRule) {
  std::mt19937 rng(31);
  run(random_matrix(8, 25, rng) + " rseed 3; hold 1000; mult=rep 2 hold 1;");
  run("resample sym replications 10 from 0 gc nofreq savetrees;");
  const int ntax = trees::tree_store.ntax;
  // Tree 0 reference, 1 the summary, 2..11 the replicates.
  ASSERT_EQ(trees::tree_store.ntrees, 12);
  std::vector<std::set<Cluster>> reps;
  for (int k = 2; k < 12; ++k) reps.push_back(clusters_of(trees::tree_row(k), ntax));
  std::map<Cluster, int> count;
  for (const auto& r : reps)
    for (const auto& c : r) ++count[c];
  std::map<Cluster, int> expected;
  for (const auto& c : clusters_of(trees::tree_row(0), ntax)) {
    int rival = 0;
    for (const auto& [d, k] : count)
      if (test::clusters_conflict(c, d)) rival = std::max(rival, k);
    const int value = (count.count(c) ? count[c] : 0) - rival;
    expected[c] = value * 100 / 10;
  }
  run("rseed 3; hold 1000; mult=rep 2 hold 1; ttags=; resample sym replications 10 from 0 gc nofreq savetrees;");
  const auto& tag = trees::tree_store.tag_tree;
  std::map<Cluster, int> got;
  for (int v = ntax + 1; v < tag[ntax]; ++v) {
    auto below = test::taxa_below(tag.data(), ntax, v);
    if (below.size() < 2 || static_cast<int>(below.size()) >= ntax - 1) continue;
    std::string t = trees::tree_store.tags[v];
    int value = t[0] == '[' ? -std::stoi(t.substr(1)) : std::stoi(t);
    got[Cluster(below.begin(), below.end())] = value;
  }
  EXPECT_EQ(got, expected);
  run("ttags-;");
}

TEST_F(Supports, ResampleMessagesAndStateAfterFailure) {
  std::mt19937 rng(1);
  run(random_matrix(6, 10, rng));
  EXPECT_NE(run("resample jak probability 100;").find("Deletion probability must be 0-99"), std::string::npos);
  EXPECT_NE(run("resample sym probability 51;").find("can't be more than 50"), std::string::npos);
  EXPECT_NE(run("resample replications 0;").find("Must specify a number of repls. greater than zero"), std::string::npos);
  EXPECT_NE(run("resample jak nozerowt;").find("\"Nozerowt\" option can be used with \"sym\" only"), std::string::npos);
  EXPECT_NE(run("resample nogc nofreq;").find("Must specify either a summary type"), std::string::npos);
  EXPECT_NE(run("resample boot slope;").find("Slope summary cannot be used with boostrapping"), std::string::npos);
  EXPECT_NE(run("resample cut 40 freq replications 2;").find("Note: cutoff for frequency calculations will be re-set to 50"),
            std::string::npos);
  EXPECT_NE(run("resample poisson softboot 100 replications 2;").find("Note: Poisson bootstrapping uses a mean = 6"),
            std::string::npos);
  EXPECT_NE(run("resample boot probability 20 replications 2;").find("will be ignored"), std::string::npos);
  EXPECT_NE(run("resample sym .;").find("Unexpected symbol found on resampling options: ."), std::string::npos);
  // A failing search text ends the run and gives the weights back.
  for (auto& c : dataset::dataset.chars) c.weight = 3;
  EXPECT_NE(run("resample replications 3 [nosuchcommand;];").find("nosuchcommand"), std::string::npos);
  for (const auto& c : dataset::dataset.chars) EXPECT_EQ(c.weight, 3);
  EXPECT_NE(run("resample @;").find("No resampling in progress"), std::string::npos);
}

TEST_F(Supports, SameSeedSameResults) {
  std::mt19937 rng(4);
  run(random_matrix(10, 20, rng));
  const std::string a = run("rseed 17; resample boot replications 8 freq gc;");
  const std::string b = run("rseed 17; resample boot replications 8 freq gc;");
  EXPECT_EQ(a, b);
  EXPECT_NE(a.find("Standard Bootstrap"), std::string::npos);
}

TEST_F(Supports, SibylKeepsTheTreesAndCountsTheirGroups) {
  std::mt19937 rng(12);
  run(random_matrix(8, 30, rng) + " rseed 2; hold 100; mult=rep 3 hold 4;");
  const int before = trees::tree_store.ntrees;
  std::vector<std::int32_t> rows(trees::tree_store.rows.begin(),
                                 trees::tree_store.rows.begin() + static_cast<std::size_t>(before) * trees::tree_store.row_size);
  const std::string out = run("resample sibyl replications 4 probability 1 errcount 0;");
  // With 1 percent deletion nearly nothing changes: the indices come out, and the trees
  // in memory are those of before.
  EXPECT_NE(out.find("Stability indices, for p(del)=1%"), std::string::npos);
  EXPECT_NE(out.find("Wrong groups"), std::string::npos);
  ASSERT_EQ(trees::tree_store.ntrees, before);
  EXPECT_TRUE(std::equal(rows.begin(), rows.end(), trees::tree_store.rows.begin()));
  EXPECT_NE(run("resample jak sibyl;").find("\"Sibyl\" option must be the first option to \"resample\""), std::string::npos);
  EXPECT_NE(run("resample sibyl frob;").find("Unidentified string in sibyl options:"), std::string::npos);
}

TEST_F(Supports, SlopesAreZeroForGroupsOfEveryReplicate) {
  // Two blocks of identical characters: the groups they define survive any deletion that
  // leaves one character of each, so their presence does not change with the proportion
  // deleted.
  std::string m = "xread 40 6\n";
  const char* rowsx[6] = {"0000000000", "0000000000", "1111100000", "1111100000", "1111111111", "1111111111"};
  for (int t = 0; t < 6; ++t) m += "t" + std::to_string(t) + " " + rowsx[t] + rowsx[t] + rowsx[t] + rowsx[t] + "\n";
  run(m + "; rseed 1; mult=rep 2 hold 1;");
  run("ttags=; resample jak replications 10 from 0 slope nogc nofrequency;");
  const int ntax = 6;
  const auto& tag = trees::tree_store.tag_tree;
  ASSERT_TRUE(trees::tags_defined());
  int checked = 0;
  for (int v = ntax + 1; v < tag[ntax]; ++v) {
    const std::string& t = trees::tree_store.tags[v];
    if (t.empty()) continue;
    EXPECT_EQ(t, " +0.00");
    ++checked;
  }
  EXPECT_GT(checked, 0);
  run("ttags-;");
}

TEST_F(Supports, GcTreeEqualsTheFrequencyDifferencesOfTheSavedReplicates) {
  std::mt19937 rng(77);
  run(random_matrix(9, 24, rng) + " rseed 8; hold 1000;");
  run("ttags=; resample jak replications 10 gc nofrequency savetrees cut 0;");
  const int ntax = trees::tree_store.ntax;
  auto collect = [&] {
    std::map<Cluster, std::string> out;
    const auto& tag = trees::tree_store.tag_tree;
    for (int v = ntax + 1; v < tag[ntax]; ++v) {
      auto below = test::taxa_below(tag.data(), ntax, v);
      if (below.size() < 2 || static_cast<int>(below.size()) >= ntax - 1) continue;
      out[Cluster(below.begin(), below.end())] = trees::tree_store.tags[v];
    }
    return out;
  };
  ASSERT_EQ(trees::tree_store.ntrees, 11);
  const auto from_resample = collect();
  // The same count by freqdifs over the saved replicate trees 1-10, uncollapsed.
  run("ttags-; ttags=; collapse-; freqdifs=0; freqdifs 1.10;");
  const auto from_freqdifs = collect();
  EXPECT_EQ(from_resample, from_freqdifs);
  EXPECT_FALSE(from_resample.empty());
  run("ttags-;");
}


// Under implied weighting the TBR supports are differences of fit: checked against the
// fits of every tree computed here from the steps of each character.
TEST_F(Supports, BremerByTbrUnderImpliedWeightsEqualsTheNeighbourhood) {
  std::mt19937 rng(78);
  for (int round = 0; round < 4; ++round) {
    const int ntax = round < 2 ? 6 : 7;
    const int nchar = 9 + static_cast<int>(rng() % 5);
    const int n = read_every_tree(ntax, nchar, rng);
    const double K = 3;
    std::vector<std::vector<int>> steps(n);
    std::vector<int> least(nchar, INT_MAX);
    for (int k = 0; k < n; ++k) {
      steps[k] = test::slow_character_steps(trees::tree_row(k));
      for (int ch = 0; ch < nchar; ++ch) least[ch] = std::min(least[ch], steps[k][ch]);
    }
    std::vector<double> fit(n, 0.0);
    std::vector<std::set<Cluster>> cl(n);
    int k0 = 0;
    for (int k = 0; k < n; ++k) {
      for (int ch = 0; ch < nchar; ++ch) {
        const double h = steps[k][ch] - least[ch];
        fit[k] += h / (K + h);
      }
      cl[k] = clusters_of(trees::tree_row(k), ntax);
      if (fit[k] < fit[k0]) k0 = k;
    }
    const double subopt = 0.6;
    std::map<Cluster, double> want;
    for (const auto& c : cl[k0]) want[c] = 1e9;
    for (int b = 0; b < n; ++b) {
      const double diff = fit[b] - fit[k0];
      if (diff > subopt + 1e-9 || !tbr_neighbours(cl[k0], cl[b], ntax)) continue;
      for (auto& [c, v] : want)
        if (!cl[b].count(c)) v = std::min(v, diff);
    }
    run("piwe =3; subopt 0.6; ttags-; ttags=; bsupport !!" + std::to_string(k0) + ";");
    const auto& tag = trees::tree_store.tag_tree;
    int compared = 0;
    for (int v = ntax + 1; v < tag[ntax]; ++v) {
      auto below = test::taxa_below(tag.data(), ntax, v);
      if (below.size() < 2 || static_cast<int>(below.size()) >= ntax - 1) continue;
      const Cluster c(below.begin(), below.end());
      ASSERT_TRUE(want.count(c)) << "round " << round;
      std::string t = trees::tree_store.tags[v];
      const bool bound = !t.empty() && t[0] == '[';
      if (bound) t = t.substr(1);
      const double got = std::stod(t);
      if (want[c] > 1e8) {
        EXPECT_TRUE(bound) << "round " << round << " tag " << trees::tree_store.tags[v];
        EXPECT_NEAR(got, subopt, 1e-2) << "round " << round;
      } else {
        EXPECT_FALSE(bound) << "round " << round << " tag " << trees::tree_store.tags[v];
        EXPECT_NEAR(got, want[c], 1e-2) << "round " << round << " tag " << trees::tree_store.tags[v];
      }
      ++compared;
    }
    EXPECT_GT(compared, 0);
    run("ttags-; subopt 0; piwe -;");
  }
}

}  // namespace
}  // namespace qax
