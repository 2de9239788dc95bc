// Exact per-character passes against brute force on small trees: every assignment of states
// to every node gives the least steps, the states of each node in the best assignments and
// the least and greatest counts of a change; every binary resolution of the polytomies gives
// the soft score.
#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <climits>
#include <functional>
#include <random>
#include <vector>

#include "dataset/dataset.h"
#include "common/data_fixtures.h"
#include "optim/packed.h"
#include "optim/recons.h"
#include "optim/reports.h"

using namespace qax::optim;
namespace ds = qax::dataset;

namespace {

std::vector<std::uint32_t>& cells = qax::test::matrix_cells();

// Characters of 2-4 states (every third additive), with polymorphisms and missing entries.
void random_matrix(std::mt19937& rng, int ntax, int nchar) {
  qax::test::install_matrix(ntax, nchar);
  ds::Dataset& d = ds::dataset;
  for (int c = 0; c < nchar; ++c) {
    const int nst = 2 + static_cast<int>(rng() % 3);
    d.chars[c].additive = c % 3 == 2;
    for (int t = 0; t < ntax; ++t) {
      std::uint32_t v = 1u << (rng() % nst);
      const int r = static_cast<int>(rng() % 12);
      if (r == 0) v = 0xFFFFFFFFu;
      else if (r == 1) v |= 1u << (rng() % nst);
      cells[static_cast<std::size_t>(t) * nchar + c] = v;
    }
  }
}

// Random rooted tree with polytomies: items are merged two or three at a time.
std::vector<int> random_tree(std::mt19937& rng, int ntax, int max_join) {
  std::vector<int> parent(2 * ntax - 1, 0);
  std::vector<int> pool(ntax);
  for (int i = 0; i < ntax; ++i) pool[i] = i;
  int next = ntax + 1;
  while (static_cast<int>(pool.size()) > max_join) {
    const int k = 2 + static_cast<int>(rng() % (max_join - 1));
    const int node = next++;
    for (int j = 0; j < k && pool.size() > 1; ++j) {
      const int i = static_cast<int>(rng() % pool.size());
      parent[pool[i]] = node;
      pool.erase(pool.begin() + i);
    }
    pool.push_back(node);
  }
  for (int x : pool) parent[x] = ntax;
  if (pool.size() == 1) return random_tree(rng, ntax, max_join);
  parent[ntax] = next;
  return parent;
}

struct Ref {                 // rooted tree as children lists
  std::vector<std::vector<int>> kids;
  int root = 0;
};
Ref to_ref(const std::vector<int>& parent, int ntax) {
  Ref r;
  r.kids.resize(parent[ntax]);
  for (int n = 0; n < parent[ntax]; ++n) if (n != ntax) r.kids[parent[n]].push_back(n);
  r.root = ntax;
  return r;
}

int dist(int c, int s, int t) { return ds::dataset.chars[c].additive ? std::abs(s - t) : s != t; }

// States the references consider: 0 .. num_states - 1.
int num_states = 4;

// States a terminal may take (additive polymorphisms as intervals; missing: all of them).
std::vector<int> allowed(int x, int c) {
  std::uint32_t v = ds::dataset.cell(x, c);
  if (v == 0xFFFFFFFFu) v = num_states >= 32 ? ~0u : (1u << num_states) - 1;
  if (ds::dataset.chars[c].additive) v = (~0u >> std::countl_zero(v)) & (~0u << std::countr_zero(v));
  std::vector<int> out;
  for (int s = 0; s < num_states; ++s) if (v >> s & 1) out.push_back(s);
  return out;
}

struct Brute {
  int best = INT_MAX;
  std::vector<std::uint32_t> sets;
  std::vector<int> branch;     // least steps on the branch above each node
  int least = INT_MAX, most = -1;
};

// Every assignment of states to every node.
Brute brute(const Ref& r, int ntax, int c, std::uint32_t from, std::uint32_t to) {
  const int size = static_cast<int>(r.kids.size());
  std::vector<int> nodes;
  for (int n = 0; n < size; ++n) if (n < ntax || !r.kids[n].empty()) nodes.push_back(n);
  std::vector<std::vector<int>> choice(size);
  for (int n : nodes) choice[n] = n < ntax ? allowed(n, c) : std::vector<int>{0, 1, 2, 3};
  std::vector<int> state(size, 0);
  Brute b;
  b.sets.assign(size, 0);
  b.branch.assign(size, INT_MAX);
  std::function<void(std::size_t)> go = [&](std::size_t i) {
    if (i == nodes.size()) {
      int cost = 0, changes = 0;
      for (int n : nodes)
        for (int k : r.kids[n]) {
          cost += dist(c, state[n], state[k]);
          changes += state[n] != state[k] && (from >> state[n] & 1) && (to >> state[k] & 1);
        }
      if (cost < b.best) {
        b.best = cost;
        std::fill(b.sets.begin(), b.sets.end(), 0);
        std::fill(b.branch.begin(), b.branch.end(), INT_MAX);
        b.least = INT_MAX;
        b.most = -1;
      }
      if (cost == b.best) {
        for (int n : nodes) {
          b.sets[n] |= 1u << state[n];
          for (int k : r.kids[n]) b.branch[k] = std::min(b.branch[k], dist(c, state[n], state[k]));
        }
        b.least = std::min(b.least, changes);
        b.most = std::max(b.most, changes);
      }
      return;
    }
    for (int s : choice[nodes[i]]) { state[nodes[i]] = s; go(i + 1); }
  };
  go(0);
  return b;
}

// Steps of the subtree of n in each state (hard polytomies), plain Sankoff.
std::vector<int> sankoff(const Ref& r, int ntax, int c, int n) {
  const int S = num_states;
  std::vector<int> out(S, 0);
  if (n < ntax) {
    const auto a = allowed(n, c);
    for (int s = 0; s < S; ++s) out[s] = std::find(a.begin(), a.end(), s) != a.end() ? 0 : 1000;
    return out;
  }
  for (int k : r.kids[n]) {
    const std::vector<int> below = sankoff(r, ntax, c, k);
    for (int s = 0; s < S; ++s) {
      int best = INT_MAX;
      for (int t = 0; t < S; ++t) best = std::min(best, below[t] + dist(c, s, t));
      out[s] += best;
    }
  }
  return out;
}
int sankoff_best(const Ref& r, int ntax, int c) {
  const std::vector<int> v = sankoff(r, ntax, c, r.root);
  return *std::min_element(v.begin(), v.end());
}

// Steps of the root in each state, least over every binary resolution of the polytomies.
std::vector<int> best_resolution(Ref r, int ntax, int c) {
  for (int n = 0; n < static_cast<int>(r.kids.size()); ++n) {
    if (r.kids[n].size() <= 2) continue;
    std::vector<int> best(num_states, INT_MAX);
    const auto kids = r.kids[n];
    for (std::size_t i = 0; i < kids.size(); ++i)
      for (std::size_t j = i + 1; j < kids.size(); ++j) {
        Ref q = r;
        const int node = static_cast<int>(q.kids.size());
        q.kids.push_back({kids[i], kids[j]});
        q.kids[n].clear();
        for (std::size_t m = 0; m < kids.size(); ++m) if (m != i && m != j) q.kids[n].push_back(kids[m]);
        q.kids[n].push_back(node);
        const std::vector<int> v = best_resolution(q, ntax, c);
        for (int st = 0; st < num_states; ++st) best[st] = std::min(best[st], v[st]);
      }
    return best;
  }
  return sankoff(r, ntax, c, r.root);
}

}  // namespace

TEST(Recons, HardPassesMatchBruteForce) {
  std::mt19937 rng(7);
  for (int rep = 0; rep < 60; ++rep) {
    const int ntax = 4 + static_cast<int>(rng() % 4);
    random_matrix(rng, ntax, 9);
    const std::vector<int> parent = random_tree(rng, ntax, 3 + static_cast<int>(rng() % 2));
    const CharTree t = char_tree_from_parent(parent);
    const Ref r = to_ref(parent, ntax);
    for (int c = 0; c < 9; ++c) {
      const std::uint32_t from = 1u + rng() % 15, to = 1u + rng() % 15;
      const Brute b = brute(r, ntax, c, from, to);
      CharCosts costs;
      char_costs(t, c, false, costs);
      ASSERT_EQ(costs.best, b.best) << "rep " << rep << " char " << c;
      std::vector<std::uint32_t> sets;
      best_state_sets(t, costs, sets);
      for (int n : t.preorder) ASSERT_EQ(sets[n], b.sets[n]) << "rep " << rep << " char " << c << " node " << n;
      std::vector<std::int64_t> lengths;
      least_branch_changes(t, costs, lengths);
      for (int n : t.preorder) {
        if (n == ntax) continue;
        ASSERT_EQ(lengths[n], b.branch[n]) << "rep " << rep << " char " << c << " node " << n;
      }
      int least, most;
      count_changes(t, c, from, to, least, most);
      ASSERT_EQ(least, b.least) << "rep " << rep << " char " << c;
      ASSERT_EQ(most, b.most) << "rep " << rep << " char " << c;
    }
  }
}

TEST(Recons, SoftPolytomiesMatchBestResolution) {
  std::mt19937 rng(11);
  for (int rep = 0; rep < 80; ++rep) {
    const int ntax = 5 + static_cast<int>(rng() % 3);
    random_matrix(rng, ntax, 12);
    const std::vector<int> parent = random_tree(rng, ntax, 3 + static_cast<int>(rng() % 3));
    const CharTree t = char_tree_from_parent(parent);
    const Ref r = to_ref(parent, ntax);
    std::vector<int> steps, hard;
    soft_character_steps(parent, steps);
    for (int c = 0; c < 12; ++c) {
      const int hard_best = sankoff_best(r, ntax, c);
      const std::vector<int> root = best_resolution(r, ntax, c);
      ASSERT_EQ(steps[c], *std::min_element(root.begin(), root.end())) << "rep " << rep << " char " << c;
      ASSERT_LE(steps[c], hard_best);
      // the root's cost in every usable state, so that the exceptions of small sets count
      CharCosts costs;
      char_costs(t, c, true, costs);
      for (std::uint32_t a = costs.states; a; a &= a - 1)
        ASSERT_EQ(costs.down[ntax][std::countr_zero(a)], root[std::countr_zero(a)]) << "rep " << rep << " char " << c;
    }
  }
}

// On binary trees soft and hard agree with the packed kernels.
TEST(Recons, BinaryTreesAgreeWithKernels) {
  std::mt19937 rng(5);
  for (int rep = 0; rep < 30; ++rep) {
    const int ntax = 6 + static_cast<int>(rng() % 6);
    random_matrix(rng, ntax, 15);
    pack_data();
    const std::vector<int> parent = random_tree(rng, ntax, 2);
    std::vector<int> soft, kern;
    soft_character_steps(parent, soft);
    character_steps(parent, kern);
    EXPECT_EQ(soft, kern) << "rep " << rep;
  }
}

// A star resolved in the best way for each character reaches the character's minimum steps.
TEST(Recons, SoftStarReachesMinimumSteps) {
  std::mt19937 rng(3);
  for (int rep = 0; rep < 20; ++rep) {
    const int ntax = 5 + static_cast<int>(rng() % 20);
    random_matrix(rng, ntax, 20);
    ds::minmax_check();
    std::vector<int> star(2 * ntax - 1, 0);
    for (int x = 0; x < ntax; ++x) star[x] = ntax;
    star[ntax] = ntax + 1;
    std::vector<int> steps;
    soft_character_steps(star, steps);
    for (int c = 0; c < 20; ++c) ASSERT_EQ(steps[c], ds::dataset.chars[c].min_steps) << "rep " << rep << " char " << c;
  }
}

// Nonadditive characters of up to 32 states (protein data has 20 or 21): each character
// takes its states from a few common ones and some rare ones, so that children's state
// sets overlap in many ways; soft polytomies still give the best binary resolution.
TEST(Recons, SoftPolytomiesOfManyStatesMatchBestResolution) {
  std::mt19937 rng(19);
  for (int rep = 0; rep < 40; ++rep) {
    num_states = rep % 2 ? 20 : 32;
    const int ntax = 5 + static_cast<int>(rng() % 3), nchar = 6;
    qax::test::install_matrix(ntax, nchar);
    for (int c = 0; c < nchar; ++c) {
      int common[3];
      for (int& x : common) x = static_cast<int>(rng() % num_states);
      // Every state of the character is seen, so that it has more than 16 states.
      for (int t = 0; t < ntax; ++t) {
        std::uint32_t v = 1u << common[rng() % 3];
        const int r = static_cast<int>(rng() % 10);
        if (r == 0) v = 0xFFFFFFFFu;
        else if (r < 3) v = 1u << (rng() % num_states);
        else if (r == 3) v |= 1u << common[rng() % 3];
        cells[static_cast<std::size_t>(t) * nchar + c] = v;
      }
      const std::uint32_t high = num_states >= 32 ? 0xFFFF0000u : 0x000FF000u;
      cells[c] = cells[c] == 0xFFFFFFFFu ? high | 1u : cells[c] | high;
    }
    const std::vector<int> parent = random_tree(rng, ntax, 3 + static_cast<int>(rng() % 3));
    const CharTree t = char_tree_from_parent(parent);
    const Ref r = to_ref(parent, ntax);
    std::vector<int> steps;
    soft_character_steps(parent, steps);
    for (int c = 0; c < nchar; ++c) {
      const std::vector<int> root = best_resolution(r, ntax, c);
      ASSERT_EQ(steps[c], *std::min_element(root.begin(), root.end())) << "rep " << rep << " char " << c;
      CharCosts costs;
      char_costs(t, c, true, costs);
      for (std::uint32_t a = costs.states; a; a &= a - 1)
        ASSERT_EQ(costs.down[ntax][std::countr_zero(a)], root[std::countr_zero(a)]) << "rep " << rep << " char " << c;
    }
  }
  num_states = 4;
}
