// Sankoff and continuous characters against plain references written here: every
// assignment of states to the inner nodes of a tree (costs along each branch from parent to
// child, the root restricted to the outgroup's states under ancstates), and for continuous
// characters a table of costs over the values of the data at every node. Random matrices
// mix nonadditive, additive, symmetric and asymmetric cost tables and continuous
// characters, with weights, polymorphisms and missing cells, on binary and polytomous trees.
#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <climits>
#include <cmath>
#include <functional>
#include <random>
#include <vector>

#include "common/data_fixtures.h"
#include "common/harness.h"
#include "dataset/costs.h"
#include "dataset/dataset.h"
#include "optim/kernels.h"
#include "optim/packed.h"
#include "optim/reports.h"
#include "search/engine.h"
#include "search/fusing.h"
#include "search/search_internal.h"
#include "search/sectors.h"
#include "trees/store.h"

using namespace qax;
namespace ds = qax::dataset;

namespace {

std::vector<std::uint32_t>& cells = qax::test::matrix_cells();
constexpr std::uint32_t missing = 0xFFFFFFFFu;

struct Matrix {
  std::vector<std::vector<int>> cost;   // per character: 4x4 table (empty: plain)
};

// Shortest paths of a 4x4 table (the program repairs triangles the same way).
void close_paths(std::vector<int>& t) {
  for (int m = 0; m < 4; ++m)
    for (int i = 0; i < 4; ++i)
      for (int j = 0; j < 4; ++j) t[i * 4 + j] = std::min(t[i * 4 + j], t[i * 4 + m] + t[m * 4 + j]);
}

// symmetric: no asymmetric tables (kinds 3-4 become symmetric ones).
Matrix random_matrix(std::mt19937& rng, int ntax, int nchar, bool wide_only = false, bool symmetric = false) {
  qax::test::install_matrix(ntax, nchar);
  ds::reset_cost_state();
  ds::Dataset& d = ds::dataset;
  Matrix m;
  m.cost.resize(nchar);
  for (int c = 0; c < nchar; ++c) {
    auto& r = d.chars[c];
    int kind = wide_only ? 2 + static_cast<int>(rng() % 4)
                         : static_cast<int>(rng() % 6);   // 0 plain, 1 additive, 2 symmetric, 3-4 asymmetric, 5 continuous
    if (symmetric && (kind == 3 || kind == 4)) kind = 2;
    r.weight = 1 + static_cast<int>(rng() % 3);
    if (kind == 5) {
      r.is_continuous = 1;
      r.format = ds::format_continuous;
      for (int t = 0; t < ntax; ++t) {
        std::uint32_t lo = rng() % 9000, hi = lo + (rng() % 3 == 0 ? rng() % 2000 : 0);
        cells[static_cast<std::size_t>(t) * nchar + c] = rng() % 9 == 0 ? ds::continuous_missing : (lo | hi << 16);
      }
      continue;
    }
    const int nst = 2 + static_cast<int>(rng() % 3);
    for (int t = 0; t < ntax; ++t) {
      std::uint32_t v = 1u << (rng() % nst);
      const int x = static_cast<int>(rng() % 10);
      if (x == 0) v = missing;
      else if (x == 1) v |= 1u << (rng() % nst);
      cells[static_cast<std::size_t>(t) * nchar + c] = v;
    }
    if (kind == 1) r.additive = 1;
    if (kind >= 2) {
      std::vector<int> t(16, 0);
      for (int i = 0; i < 4; ++i)
        for (int j = 0; j < 4; ++j)
          if (i != j) t[i * 4 + j] = 1 + static_cast<int>(rng() % 4);
      if (kind == 2)
        for (int i = 0; i < 4; ++i)
          for (int j = 0; j < i; ++j) t[i * 4 + j] = t[j * 4 + i];
      close_paths(t);
      std::int32_t* table = ds::cost_table_for_edit(c);
      for (int i = 0; i < 4; ++i)
        for (int j = 0; j < 4; ++j) table[i * ds::cost_states + j] = t[i * 4 + j];
      r.sankoff = 1;
      r.asymmetric = ds::table_symmetric(table, 4) ? 0 : 1;
      r.ancestral = rng() % 3 == 0;
      m.cost[c] = t;
    }
  }
  return m;
}

// Random rooted tree: items merged two or three at a time (max_join 2: binary); taxon 0,
// the outgroup, is a child of the root, as on the trees the program stores.
std::vector<int> random_tree(std::mt19937& rng, int ntax, int max_join) {
  {
    std::vector<int> parent(2 * ntax - 1, 0);
    std::vector<int> pool(ntax - 1);
    for (int i = 1; i < ntax; ++i) pool[i - 1] = i;
    int next = ntax + 1;
    while (static_cast<int>(pool.size()) > 1) {
      const int k = std::min(2 + static_cast<int>(rng() % (max_join - 1)), static_cast<int>(pool.size()));
      const int node = next++;
      for (int j = 0; j < k; ++j) {
        const int i = static_cast<int>(rng() % pool.size());
        parent[pool[i]] = node;
        pool.erase(pool.begin() + i);
      }
      pool.push_back(node);
    }
    parent[pool[0]] = ntax;
    parent[0] = ntax;
    parent[ntax] = next;
    return parent;
  }
}

struct Kids {
  std::vector<std::vector<int>> of;
  std::vector<int> inner;   // root first
};
Kids kids_of(const std::vector<int>& parent, int ntax) {
  Kids k;
  k.of.resize(parent[ntax]);
  for (int n = 0; n < parent[ntax]; ++n)
    if (n != ntax) k.of[parent[n]].push_back(n);
  k.inner.push_back(ntax);
  for (int n = ntax + 1; n < parent[ntax]; ++n) k.inner.push_back(n);
  return k;
}

// States scored in character c.
std::uint32_t scored_states(int ntax, int c) {
  std::uint32_t scored = 0;
  for (int t = 0; t < ntax; ++t)
    if (ds::dataset.cell(t, c) != missing) scored |= ds::dataset.cell(t, c);
  return scored;
}

// Every assignment of scored states to the inner nodes.
long long reference_discrete(const Kids& k, int ntax, int c, const Matrix& m) {
  const ds::Dataset& d = ds::dataset;
  const std::uint32_t scored = scored_states(ntax, c);
  if (std::popcount(scored) <= 1) return 0;
  std::vector<int> states;
  for (int s = 0; s < 4; ++s)
    if (scored >> s & 1) states.push_back(s);
  if (d.chars[c].additive)
    for (int s = std::countr_zero(scored); s <= 31 - std::countl_zero(scored); ++s)
      if (!(scored >> s & 1)) states.push_back(s);
  auto cost = [&](int a, int b) -> long long {
    if (!m.cost[c].empty()) return m.cost[c][a * 4 + b];
    return d.chars[c].additive ? std::abs(a - b) : a != b;
  };
  std::uint32_t root_ok = ~0u;
  if (d.chars[c].ancestral && !m.cost[c].empty() && d.cell(0, c) != missing && (d.cell(0, c) & scored))
    root_ok = d.cell(0, c);
  std::vector<int> state(k.of.size(), 0);
  long long best = LLONG_MAX;
  std::function<void(std::size_t)> go = [&](std::size_t i) {
    if (i == k.inner.size()) {
      long long total = 0;
      for (int n : k.inner)
        for (int x : k.of[n]) {
          if (x >= ntax) { total += cost(state[n], state[x]); continue; }
          std::uint32_t v = d.cell(x, c);
          if (v == missing) continue;
          if (d.chars[c].additive) v = (~0u >> std::countl_zero(v)) & (~0u << std::countr_zero(v));
          long long least = LLONG_MAX;
          for (int s = 0; s < 32; ++s)
            if (v >> s & 1) least = std::min(least, cost(state[n], s));
          total += least;
        }
      best = std::min(best, total);
      return;
    }
    for (int s : states) {
      if (i == 0 && !(root_ok >> s & 1)) continue;
      state[k.inner[i]] = s;
      go(i + 1);
    }
  };
  go(0);
  return best;
}

// The same length by dynamic programming over the same states at every node (cost of each
// subtree for each state of its node), for trees too large to enumerate.
long long dp_discrete(const Kids& k, int ntax, int c, const Matrix& m) {
  const ds::Dataset& d = ds::dataset;
  const std::uint32_t scored = scored_states(ntax, c);
  if (std::popcount(scored) <= 1) return 0;
  std::uint32_t allowed = scored;
  if (d.chars[c].additive) allowed = (~0u >> std::countl_zero(scored)) & (~0u << std::countr_zero(scored));
  auto cost = [&](int a, int b) -> long long {
    if (!m.cost[c].empty()) return m.cost[c][a * 4 + b];
    return d.chars[c].additive ? std::abs(a - b) : a != b;
  };
  constexpr long long inf = LLONG_MAX / 4;
  std::function<std::vector<long long>(int)> below = [&](int n) {
    std::vector<long long> out(4, inf);
    for (int a = 0; a < 4; ++a)
      if (allowed >> a & 1) out[a] = 0;
    for (int x : k.of[n]) {
      std::vector<long long> sub(4, inf);
      if (x >= ntax) {
        sub = below(x);
      } else {
        std::uint32_t v = d.cell(x, c);
        if (v == missing) continue;
        if (d.chars[c].additive) v = (~0u >> std::countl_zero(v)) & (~0u << std::countr_zero(v));
        for (int b = 0; b < 4; ++b)
          if (v >> b & 1) sub[b] = 0;
      }
      for (int a = 0; a < 4; ++a) {
        if (out[a] >= inf) continue;
        long long least = inf;
        for (int b = 0; b < 4; ++b)
          if (sub[b] < inf) least = std::min(least, cost(a, b) + sub[b]);
        out[a] += least;
      }
    }
    return out;
  };
  std::uint32_t root_ok = ~0u;
  if (d.chars[c].ancestral && !m.cost[c].empty() && d.cell(0, c) != missing && (d.cell(0, c) & scored))
    root_ok = d.cell(0, c);
  const auto root = below(ntax);
  long long best = inf;
  for (int a = 0; a < 4; ++a)
    if (root_ok >> a & 1) best = std::min(best, root[a]);
  return best;
}

// Continuous: a table of costs of every node over every value of the data.
long long reference_continuous(const Kids& k, int ntax, int c) {
  const ds::Dataset& d = ds::dataset;
  std::vector<long long> values;
  for (int t = 0; t < ntax; ++t) {
    const std::uint32_t v = d.cell(t, c);
    if (v == ds::continuous_missing) continue;
    values.push_back(v & 0xFFFF);
    values.push_back(v >> 16);
  }
  if (values.empty()) return 0;
  const std::size_t nv = values.size();
  std::function<std::vector<long long>(int)> table = [&](int n) {
    std::vector<long long> out(nv, 0);
    if (n < ntax) {
      const std::uint32_t v = d.cell(n, c);
      if (v == ds::continuous_missing) return out;
      const long long lo = v & 0xFFFF, hi = v >> 16;
      for (std::size_t i = 0; i < nv; ++i) out[i] = values[i] < lo ? lo - values[i] : values[i] > hi ? values[i] - hi : 0;
      return out;
    }
    for (int x : k.of[n]) {
      const auto sub = table(x);
      for (std::size_t i = 0; i < nv; ++i) {
        long long least = LLONG_MAX;
        for (std::size_t j = 0; j < nv; ++j) least = std::min(least, std::llabs(values[i] - values[j]) + sub[j]);
        out[i] += least;
      }
    }
    return out;
  };
  const auto root = table(ntax);
  return *std::min_element(root.begin(), root.end());
}

class Wide : public ::testing::Test {
 protected:
  void SetUp() override { qax::test::setup_shell(); }
};

TEST_F(Wide, CharacterStepsMatchReferenceOnBinaryAndPolytomousTrees) {
  std::mt19937 rng(2024);
  int pairs = 0;
  for (int round = 0; round < 60; ++round) {
    const int ntax = 5 + static_cast<int>(rng() % 3);
    const int nchar = 10;
    const Matrix m = random_matrix(rng, ntax, nchar);
    optim::pack_data();
    for (int tr = 0; tr < 8; ++tr) {
      const auto parent = random_tree(rng, ntax, tr % 2 ? 3 : 2);
      const Kids k = kids_of(parent, ntax);
      std::vector<int> steps;
      optim::character_steps(parent, steps);
      double total = 0, want_total = 0;
      for (int c = 0; c < nchar; ++c) {
        const auto& r = ds::dataset.chars[c];
        const long long want = r.is_continuous ? reference_continuous(k, ntax, c) : reference_discrete(k, ntax, c, m);
        EXPECT_EQ(steps[c], want) << "round " << round << " tree " << tr << " char " << c;
        ++pairs;
        total += r.is_continuous ? steps[c] * r.weight / 1000.0 : steps[c] * r.weight;
        want_total += r.is_continuous ? want * r.weight / 1000.0 : want * r.weight;
      }
      EXPECT_NEAR(total, want_total, 1e-6);
      if (tr % 2 == 0) {
        // Binary trees also through the packed scorer.
        optim::WorkTree w;
        ASSERT_TRUE(optim::load_tree(parent, w));
        EXPECT_NEAR(optim::tree_score(w, 0), want_total, 1e-6) << "round " << round << " tree " << tr;
      }
    }
  }
  EXPECT_GT(pairs, 4000);
}

TEST_F(Wide, EveryMoveValueIsTheDifferenceOfFullScores) {
  std::mt19937 rng(77);
  for (int round = 0; round < 12; ++round) {
    const int ntax = 6 + round % 3;
    const Matrix m = random_matrix(rng, ntax, 8);
    optim::pack_data();
    search::engine_refresh();
    search::Engine& e = search::engine();
    const auto parent = random_tree(rng, ntax, 2);
    ASSERT_TRUE(e.load(parent));
    const double score = e.compute_all();
    {
      const Kids k = kids_of(parent, ntax);
      double want = 0;
      for (int c = 0; c < 8; ++c) {
        const auto& r = ds::dataset.chars[c];
        want += r.is_continuous ? reference_continuous(k, ntax, c) * r.weight / 1000.0
                                : reference_discrete(k, ntax, c, m) * r.weight;
      }
      ASSERT_NEAR(score, want, 1e-6) << "round " << round;
    }
    const std::vector<int> anc = e.anc, left = e.left, right = e.right;
    int moves = 0;
    for (int clip = 0; clip < e.nn; ++clip) {
      search::Move best;
      std::vector<search::Move> records;
      std::uint64_t examined = 0;
      const int base = e.evaluate_clip(clip, true, true, 100000, best, records, examined);
      if (base < 0) continue;
      for (const auto& mv : records) {
        e.apply_move(mv);
        // The sets updated where they change, against all of them made again.
        const double updated = e.update_after_move();
        const double after = e.compute_all();
        EXPECT_NEAR(updated, after, 1e-6) << "round " << round << " clip " << clip;
        EXPECT_NEAR(after, score + e.cost_to_steps(static_cast<std::int64_t>(mv.cost) - base), 1e-6)
            << "round " << round << " clip " << clip;
        ++moves;
        e.anc = anc;
        e.left = left;
        e.right = right;
        e.compute_all();
      }
    }
    EXPECT_GT(moves, 0);
  }
}

TEST_F(Wide, JoinCostOnTheWorkTreeIsTheChangeOfScore) {
  std::mt19937 rng(31);
  int checked = 0;
  for (int round = 0; round < 20; ++round) {
    const int ntax = 6 + round % 4;
    random_matrix(rng, ntax, 8, true);
    optim::pack_data();
    const auto parent = random_tree(rng, ntax, 2);
    optim::WorkTree w;
    ASSERT_TRUE(optim::load_tree(parent, w));
    optim::tree_score(w, 3);
    const int nt = w.nterm;
    for (int clip = 1; clip < w.nnodes; ++clip) {
      if (clip == nt || w.ancestor[clip] < 0 || w.ancestor[clip] == nt) continue;
      optim::WorkTree cut = w;
      const int sister = optim::cut_node(cut, clip);
      optim::prune_update(cut, sister, clip);
      // Targets: the branches of the tree without the clip, but the root's and terminal 0's.
      std::vector<int> targets;
      std::vector<double> costs;
      std::vector<int> stack{cut.right_child[nt]};
      while (!stack.empty()) {
        const int v = stack.back();
        stack.pop_back();
        targets.push_back(v);
        // Tables of one cost are packed in the words: their part is the narrow join.
        optim::clip_words = optim::packed.node_sets[clip].down_set;
        optim::target_words = optim::packed.node_sets[v].branch_set;
        optim::score_bound = 1e9;
        optim::join_cost();
        optim::join_cost_wide(clip, v, 0);
        costs.push_back(optim::join_value);
        if (v >= nt) { stack.push_back(cut.left_child[v]); stack.push_back(cut.right_child[v]); }
      }
      double base = 0;
      for (std::size_t i = 0; i < targets.size(); ++i) {
        optim::WorkTree joined = cut;
        optim::join_node(joined, clip, targets[i]);
        const double total = optim::tree_score(joined, 0);
        if (i == 0) base = total - costs[i];
        ++checked;
        EXPECT_NEAR(total - costs[i], base, 1e-6) << "round " << round << " clip " << clip << " target " << targets[i];
      }
      optim::tree_score(w, 3);
    }
  }
  EXPECT_GT(checked, 1000);
}

// Score of a tree (parent array) by the references.
double reference_total(const std::vector<int>& parent, int ntax, const Matrix& m, int nchar) {
  const Kids k = kids_of(parent, ntax);
  double total = 0;
  for (int c = 0; c < nchar; ++c) {
    const auto& r = ds::dataset.chars[c];
    total += r.is_continuous ? reference_continuous(k, ntax, c) * r.weight / 1000.0
                             : reference_discrete(k, ntax, c, m) * r.weight;
  }
  return total;
}

double dp_total(const std::int32_t* parent, int ntax, const Matrix& m, int nchar) {
  const Kids k = kids_of(std::vector<int>(parent, parent + 2 * ntax - 1), ntax);
  double total = 0;
  for (int c = 0; c < nchar; ++c) {
    const auto& r = ds::dataset.chars[c];
    total += r.is_continuous ? reference_continuous(k, ntax, c) * r.weight / 1000.0 : dp_discrete(k, ntax, c, m) * r.weight;
  }
  return total;
}

// Scores of every tree of the taxa (rooted on taxon 0) by the reference.
double best_of_all_trees(int ntax, const Matrix& m, int nchar) {
  double best = 1e300;
  qax::test::for_each_rooted_tree(ntax, [&](const std::vector<int>& p) { best = std::min(best, reference_total(p, ntax, m, nchar)); });
  return best;
}

TEST_F(Wide, MultFindsTheOptimumOfAllTrees) {
  std::mt19937 rng(5150);
  for (int round = 0; round < 8; ++round) {
    const int ntax = 6 + round % 2;
    const int nchar = 9;
    const Matrix m = random_matrix(rng, ntax, nchar);
    const double best = best_of_all_trees(ntax, m, nchar);
    const std::string out = qax::test::run("mult=replic 8 tbr hold 50;");
    ASSERT_GT(trees::tree_store.ntrees, 0) << out;
    for (int k = 0; k < trees::tree_store.ntrees; ++k)
      EXPECT_NEAR(trees::tree_store.scores[k], best, 1e-6) << "round " << round << "\n" << out;
    EXPECT_EQ(out.find("OOpps"), std::string::npos) << out;
  }
}



TEST_F(Wide, FusingExchangesAreScoredExactly) {
  std::mt19937 rng(8080);
  int improved = 0;
  for (int round = 0; round < 30; ++round) {
    const int ntax = 8 + round % 2;
    const int nchar = 8;
    const Matrix m = random_matrix(rng, ntax, nchar, round % 3 == 0);
    qax::test::run("hold 10;");
    optim::pack_data();
    // The receiver: the donor with two taxa of a group swapped across its two halves, so
    // that the group is shared with another resolution.
    const auto b = random_tree(rng, ntax, 2);
    const std::vector<std::int32_t> donor(b.begin(), b.end());
    std::vector<std::int32_t> receiver = qax::test::swap_across_a_group(donor, ntax, rng, 4);
    if (receiver == donor) continue;
    const double before = reference_total({receiver.begin(), receiver.end()}, ntax, m, nchar);
    double reported = -1;
    search::fuse_pair(receiver, donor, &reported);
    const double after = reference_total({receiver.begin(), receiver.end()}, ntax, m, nchar);
    EXPECT_NEAR(reported, after, 1e-6) << "round " << round;
    EXPECT_LE(after, before + 1e-6) << "round " << round;
    improved += after < before - 1e-6;
  }
  EXPECT_GT(improved, 3);
}

TEST_F(Wide, XmultAndTfuseReachTheOptimumOfAllTrees) {
  std::mt19937 rng(6160);
  for (int round = 0; round < 6; ++round) {
    const int ntax = 6 + round % 2;
    const int nchar = 9;
    const Matrix m = random_matrix(rng, ntax, nchar, round % 2 == 1);
    const double best = best_of_all_trees(ntax, m, nchar);
    std::string out = qax::test::run("hold 100; xmult=rep 3 hits 2 fuse 2 drift 2 ratchet 2;");
    ASSERT_GT(trees::tree_store.ntrees, 0) << out;
    for (int k = 0; k < trees::tree_store.ntrees; ++k)
      EXPECT_NEAR(trees::tree_store.scores[k], best, 1e-6) << "round " << round << "\n" << out;
    EXPECT_EQ(out.find("not available"), std::string::npos) << out;
    out = qax::test::run("rseed 3; hold 100; mult=replic 8 hold 1 keepall wagner; tfuse=rounds 10;");
    ASSERT_GT(trees::tree_store.ntrees, 0) << out;
    const auto* first = trees::tree_store.scores.data();
    EXPECT_NEAR(*std::min_element(first, first + trees::tree_store.ntrees), best, 1e-6) << "round " << round << "\n" << out;
  }
}

TEST_F(Wide, SectorSubstitutionsAndHybridsAreExact) {
  std::mt19937 rng(4242);
  int improved = 0;
  auto best_stored = [] {
    const auto* first = trees::tree_store.scores.data();
    return *std::min_element(first, first + trees::tree_store.ntrees);
  };
  // The dynamic programming reference agrees with the enumerating one.
  for (int t = 0; t < 20; ++t) {
    const Matrix m = random_matrix(rng, 7, 8);
    const auto p = random_tree(rng, 7, 2 + t % 2);
    const std::vector<std::int32_t> p32(p.begin(), p.end());
    ASSERT_NEAR(dp_total(p32.data(), 7, m, 8), reference_total(p, 7, m, 8), 1e-9);
  }
  for (int round = 0; round < 6; ++round) {
    const int ntax = 24 + static_cast<int>(rng() % 16);
    const int nchar = 14;
    const Matrix m = random_matrix(rng, ntax, nchar, round % 3 == 0, true);
    search::sector_mismatches = 0;
    std::string out = qax::test::run("hold 60; rseed " + std::to_string(round + 1) + "; mult=replic 3 wagner keepall;");
    ASSERT_GT(trees::tree_store.ntrees, 0) << out;
    const double built = best_stored();
    out = qax::test::run("sectsch=rss minsize 6 maxsize 14 selfactor 10 equals noglobal; sectsch=xss 3-4+2-1 chkroot;");
    EXPECT_TRUE(out.find("Sectorial search (XSS), best score: ") != std::string::npos) << out;
    EXPECT_EQ(search::sector_mismatches, 0) << out;
    improved += best_stored() < built - 1e-6;
    // Drifted sectors, and pfijo (perturbed sectors, then TBR).
    out = qax::test::run("sectsch=rss minsize 10 maxsize 10 godrift 8 drift 2 global 1; pfijo=numsels 2 chunksize 10;");
    EXPECT_EQ(search::sector_mismatches, 0) << out;
    // Hybrids, completed and swapped.
    out = qax::test::run("tfuse=hybrid 20*1/3;");
    ASSERT_GT(trees::tree_store.ntrees, 0) << out;
    for (int k = 0; k < trees::tree_store.ntrees; ++k)
      EXPECT_NEAR(trees::tree_store.scores[k], dp_total(trees::tree_row(k), ntax, m, nchar), 1e-6)
          << "round " << round << " tree " << k << "\n" << out;
    EXPECT_EQ(out.find("not available"), std::string::npos) << out;
  }
  EXPECT_GE(improved, 5);
}

TEST_F(Wide, SectorsRefuseAsymmetricTables) {
  std::mt19937 rng(99);
  for (int tries = 0; tries < 20; ++tries) {
    random_matrix(rng, 12, 10, true);
    bool asym = false;
    for (int c = 0; c < 10; ++c) asym |= ds::dataset.chars[c].asymmetric != 0;
    if (!asym) continue;
    const std::string out = qax::test::run("hold 10; mult=replic 1 wagner; sectsch=rss minsize 6 maxsize 6;");
    EXPECT_NE(out.find("Sorry, sectorial search is not available yet with asymmetric step-matrix characters"),
              std::string::npos)
        << out;
    const std::string x = qax::test::run("xmult=rep 2;");
    EXPECT_NE(x.find("NOTE: sectorial searches are not applied with asymmetric step-matrix characters"), std::string::npos)
        << x;
    return;
  }
  FAIL() << "no matrix with an asymmetric table";
}

}  // namespace
