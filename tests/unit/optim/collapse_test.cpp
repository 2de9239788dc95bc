// Collapsing rules against a slow per-character reference: for every branch of a rooted
// tree, the cost of the best reconstruction with given states at its two ends, by dynamic
// programming over all states. A branch stays under rule 1 when some character has a
// change on it in every best reconstruction, under rule 3 when some character has a change
// on it in some best reconstruction.
#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <climits>
#include <cstdlib>
#include <random>
#include <vector>

#include "app/program.h"
#include "common/data_fixtures.h"
#include "dataset/costs.h"
#include "dataset/dataset.h"
#include "optim/collapse.h"
#include "optim/packed.h"
#include "optim/reports.h"
#include "shell/failure.h"
#include "shell/input.h"
#include "shell/commands.h"
#include "trees/store.h"

using namespace qax::optim;
namespace ds = qax::dataset;

namespace {

std::vector<std::uint32_t>& cells = qax::test::matrix_cells();

// Random matrix: nonadditive and additive characters of 2-4 states with polymorphisms and
// missing entries (an additive polymorphism is scored as the range of its states).
void random_matrix(std::mt19937& rng, int ntax, int nchar) {
  qax::test::install_matrix(ntax, nchar);
  ds::Dataset& d = ds::dataset;
  auto U = [&](int n) { return static_cast<int>(rng() % static_cast<unsigned>(n)); };
  for (int c = 0; c < nchar; ++c) {
    const bool add = U(4) == 0;
    const int nst = 2 + U(3);
    d.chars[c].additive = add;
    d.chars[c].num_states = nst;
    for (int t = 0; t < ntax; ++t) {
      std::uint32_t v = 1u << U(nst);
      const int r = U(12);
      if (r == 0) v = 0xFFFFFFFFu;
      else if (r == 1) v |= 1u << U(nst);
      cells[static_cast<std::size_t>(t) * nchar + c] = v;
    }
  }
}

std::vector<std::int32_t> random_parent(std::mt19937& rng, int ntax) { return qax::test::random_binary_parent(rng, ntax); }

// Per branch (v, parent v): 1 when character c can have zero length there (zero), and
// when it can have a change (change), in some best reconstruction on the rooted tree.
struct BranchFacts {
  std::vector<std::uint8_t> zero_possible, change_possible;
};

BranchFacts reference(const std::vector<std::int32_t>& parent, int c) {
  const ds::Dataset& d = ds::dataset;
  const int ntax = d.ntax, nn = 2 * ntax - 1, S = 4;
  const long long inf = LLONG_MAX / 8;
  std::vector<std::vector<int>> kids(nn);
  for (int v = 0; v < nn; ++v)
    if (v != ntax) kids[parent[v]].push_back(v);
  auto cost = [&](int s, int t) -> long long { return d.chars[c].additive ? std::abs(s - t) : (s != t); };
  std::vector<std::vector<long long>> D(nn, std::vector<long long>(S, 0)), R(nn, std::vector<long long>(S, 0));
  auto best = [&](const std::vector<long long>& x, int s) {
    long long b = inf;
    for (int t = 0; t < S; ++t) if (x[t] < inf) b = std::min(b, x[t] + cost(s, t));
    return b;
  };
  // Children before parents: leaves, then inner nodes from the highest number (random_parent
  // numbers parents above their children) down to the root.
  std::vector<int> post;
  for (int v = 0; v < ntax; ++v) post.push_back(v);
  for (int v = nn - 1; v > ntax; --v) post.push_back(v);
  post.push_back(ntax);
  for (int v : post) {
    if (v < ntax) {
      std::uint32_t x = d.cell(v, c);
      if (d.chars[c].additive && x != 0xFFFFFFFFu) {
        const int lo = std::countr_zero(x), hi = 31 - std::countl_zero(x);
        for (int s = lo; s <= hi; ++s) x |= 1u << s;
      }
      for (int s = 0; s < S; ++s) D[v][s] = (x >> s & 1) ? 0 : inf;
      continue;
    }
    for (int s = 0; s < S; ++s) {
      long long sum = 0;
      for (int k : kids[v]) sum = std::min(inf, sum + best(D[k], s));
      D[v][s] = sum;
    }
  }
  long long L = *std::min_element(D[ntax].begin(), D[ntax].end());
  // R[v][s]: best cost of everything outside the subtree of v given parent(v) in state s.
  std::vector<std::vector<long long>> out(nn, std::vector<long long>(S, 0));
  BranchFacts f;
  f.zero_possible.assign(nn, 0);
  f.change_possible.assign(nn, 0);
  for (auto it = post.rbegin(); it != post.rend(); ++it) {
    const int p = *it;
    if (p < ntax) continue;
    for (int v : kids[p]) {
      for (int s = 0; s < S; ++s) {
        long long r = out[p][s];
        for (int k : kids[p]) if (k != v) r = std::min(inf, r + best(D[k], s));
        R[v][s] = r;
      }
      for (int t = 0; t < S; ++t) {
        long long b = inf;
        for (int s = 0; s < S; ++s) if (R[v][s] < inf) b = std::min(b, R[v][s] + cost(s, t));
        out[v][t] = b;
      }
      for (int s = 0; s < S; ++s)
        for (int t = 0; t < S; ++t)
          if (R[v][s] < inf && D[v][t] < inf && R[v][s] + cost(s, t) + D[v][t] == L)
            (s == t ? f.zero_possible : f.change_possible)[v] = 1;
    }
  }
  return f;
}

}  // namespace

TEST(Collapse, RulesOneAndThreeMatchReference) {
  std::mt19937 rng(4242);
  int collapsed1 = 0, kept1 = 0, differ = 0;
  for (int rep = 0; rep < 400; ++rep) {
    const int ntax = 4 + rng() % 7, nchar = 1 + rng() % 6;
    random_matrix(rng, ntax, nchar);
    if (rep % 5 == 0) ds::dataset.chars[rng() % nchar].active = 0;
    packed.xbit = rep % 2;
    pack_data();
    auto parent = random_parent(rng, ntax);
    std::vector<std::uint8_t> keep1, keep3, keep_amb;
    collapse_tree(parent.data(), keep1, nullptr, collapse_rule1);
    collapse_tree(parent.data(), keep3, nullptr, collapse_rule3);
    collapse_tree(parent.data(), keep_amb, nullptr, collapse_amb);
    std::vector<std::uint8_t> want1(2 * ntax - 1, 0), want3(2 * ntax - 1, 0);
    for (int c = 0; c < nchar; ++c) {
      if (!ds::dataset.chars[c].active) continue;
      BranchFacts f = reference(parent, c);
      for (int v = ntax + 1; v < 2 * ntax - 1; ++v) {
        if (!f.zero_possible[v]) want1[v] = 1;
        if (f.change_possible[v]) want3[v] = 1;
      }
    }
    for (int v = ntax + 1; v < 2 * ntax - 1; ++v) {
      ASSERT_EQ(keep1[v], want1[v]) << "rule 1, rep " << rep << " node " << v;
      ASSERT_EQ(keep3[v], want3[v]) << "rule 3, rep " << rep << " node " << v;
      // Disjoint final sets are different sets: amb keeps at least what rule 1 keeps.
      if (keep1[v]) {
        ASSERT_EQ(keep_amb[v], 1) << "amb, rep " << rep;
      }
      (keep1[v] ? kept1 : collapsed1)++;
      differ += keep1[v] != keep3[v];
    }
    EXPECT_EQ(keep1[ntax], 1);
  }
  // The random cases exercise both outcomes and the difference between the rules.
  EXPECT_GT(collapsed1, 100);
  EXPECT_GT(kept1, 100);
  EXPECT_GT(differ, 20);
}

TEST(Collapse, AmbiguousBranchKeptByRuleThreeOnly) {
  // One character: A 0, B 1, C 2, D 2 on (A (B (C D))). The branch above (C D) has length
  // 0 when the node below B takes state 2, and 1 when it takes 0 or 1, both with 2 steps:
  // rule 3 keeps it, rule 1 collapses it.
  std::mt19937 rng(1);
  random_matrix(rng, 4, 1);
  const std::uint32_t states[4] = {1, 2, 4, 4};
  for (int t = 0; t < 4; ++t) cells[t] = states[t];
  ds::dataset.chars[0].additive = 0;
  pack_data();
  std::vector<std::int32_t> parent = {4, 5, 6, 6, 7, 4, 5};
  std::vector<std::uint8_t> keep;
  collapse_tree(parent.data(), keep, nullptr, collapse_rule1);
  EXPECT_EQ(keep[6], 0);
  collapse_tree(parent.data(), keep, nullptr, collapse_rule3);
  EXPECT_EQ(keep[6], 1);
  collapse_tree(parent.data(), keep, nullptr, collapse_none);
  EXPECT_EQ(keep[5] + keep[6], 2);
}

TEST(Collapse, InactiveCharacterGivesNoSupport) {
  std::mt19937 rng(2);
  random_matrix(rng, 5, 2);
  // Character 0 groups (C D E) against A B; character 1 is all 0 but for missing data.
  const std::uint32_t c0[5] = {1, 1, 2, 2, 2};
  for (int t = 0; t < 5; ++t) {
    cells[t * 2] = c0[t];
    cells[t * 2 + 1] = 1;
  }
  // (A (B ((C D) E))): root 5 = (A, 6), 6 = (B, 7), 7 = (E, 8), 8 = (C D).
  std::vector<std::int32_t> parent = {5, 6, 8, 8, 7, 9, 5, 6, 7};
  pack_data();
  std::vector<std::uint8_t> keep;
  collapse_tree(parent.data(), keep, nullptr, collapse_rule1);
  EXPECT_EQ(keep[7], 1);  // (C D E) supported by character 0
  ds::dataset.chars[0].active = 0;
  pack_data();
  collapse_tree(parent.data(), keep, nullptr, collapse_rule1);
  EXPECT_EQ(keep[7], 0);
}

namespace {
long long hard_length(const std::vector<std::int32_t>& tree) {
  std::vector<int> a(tree.begin(), tree.end()), steps;
  character_steps(a, steps);
  long long total = 0;
  for (int c = 0; c < ds::dataset.nchar; ++c) total += std::max(steps[c], 0);
  return total;
}
}  // namespace

TEST(Collapse, CollapsingOneBranchKeepsLength) {
  // Each branch that rule 1 collapses has, for every character, a best reconstruction with
  // no change on it: removing that branch alone leaves the length. Removing all of them at
  // once may need more steps (the reason for rule 4), never fewer.
  std::mt19937 rng(99);
  int singles = 0, longer = 0, poly_singles = 0;
  for (int rep = 0; rep < 200; ++rep) {
    const int ntax = 4 + rng() % 8, nchar = 1 + rng() % 8;
    random_matrix(rng, ntax, nchar);
    pack_data();
    auto parent = random_parent(rng, ntax);
    const long long base = hard_length(parent);
    std::vector<std::uint8_t> keep;
    collapse_tree(parent.data(), keep, nullptr, collapse_rule1);
    for (int v = ntax + 1; v < 2 * ntax - 1; ++v) {
      if (keep[v]) continue;
      std::vector<std::uint8_t> one(2 * ntax - 1, 1);
      one[v] = 0;
      std::vector<std::int32_t> t = parent;
      collapse_in_place(t.data(), ntax, one);
      ASSERT_EQ(qax::trees::tree_group_count(t.data(), ntax), ntax - 3);
      ASSERT_EQ(hard_length(t), base) << "rep " << rep << " node " << v;
      ++singles;
    }
    std::vector<std::int32_t> out;
    const int removed = collapsed_copy(parent.data(), out, collapse_rule1);
    ASSERT_EQ(qax::trees::tree_group_count(out.data(), ntax), ntax - 2 - removed);
    ASSERT_GE(hard_length(out), base);
    longer += hard_length(out) > base;
    // On the polytomous result (exact pass with hard polytomies) the same holds.
    const long long now = hard_length(out);
    collapse_tree(out.data(), keep, nullptr, collapse_rule1);
    for (int v = ntax + 1; v < out[ntax]; ++v) {
      if (keep[v]) continue;
      std::vector<std::uint8_t> one(2 * ntax - 1, 1);
      one[v] = 0;
      std::vector<std::int32_t> t = out;
      collapse_in_place(t.data(), ntax, one);
      ASSERT_EQ(hard_length(t), now) << "polytomous, rep " << rep << " node " << v;
      ++poly_singles;
    }
    // The store is not touched and rule 0 copies the tree as it is.
    EXPECT_EQ(collapsed_copy(parent.data(), out, collapse_none), 0);
    EXPECT_EQ(out, parent);
  }
  EXPECT_GT(singles, 100);
  EXPECT_GT(poly_singles, 0);
  EXPECT_GT(longer, 0);  // random trees on random data do have such cases
}

namespace {

// Binary trees with step-matrix characters: rule 1 and the ambiguity rule take the packed
// columns from their words and the step matrices one at a time; the result must be that of
// taking every character one at a time (what a list of ignored taxa, here empty, asks for).
TEST(Collapse, StepMatricesBesidePackedColumnsCollapseAsCharacterByCharacter) {
  std::mt19937 rng(5151);
  int kept = 0, collapsed = 0;
  for (int rep = 0; rep < 150; ++rep) {
    const int ntax = 5 + rng() % 6, nchar = 2 + rng() % 5;
    random_matrix(rng, ntax, nchar);
    ds::reset_cost_state();
    // One or two characters get a step matrix of unequal costs (triangles kept).
    for (int n = 0; n < 1 + rep % 2; ++n) {
      const int c = static_cast<int>(rng() % nchar);
      std::int32_t* t = ds::cost_table_for_edit(c);
      for (int i = 0; i < 4; ++i)
        for (int j = 0; j < 4; ++j) t[i * ds::cost_states + j] = i == j ? 0 : 2 + static_cast<int>(rng() % 2) - (std::abs(i - j) == 1);
      ds::dataset.chars[c].sankoff = 1;
      ds::dataset.chars[c].additive = 0;
    }
    pack_data();
    if (!packed.wide.any()) continue;
    const auto parent = random_parent(rng, ntax);
    const std::vector<std::uint8_t> none(ntax, 0);
    for (int rule : {collapse_rule1, collapse_amb}) {
      std::vector<std::uint8_t> split, whole;
      collapse_tree(parent.data(), split, nullptr, rule);
      collapse_tree(parent.data(), whole, none.data(), rule);
      for (int v = ntax + 1; v < 2 * ntax - 1; ++v) {
        ASSERT_EQ(split[v], whole[v]) << "rule " << rule << ", rep " << rep << " node " << v;
        (split[v] ? kept : collapsed)++;
      }
    }
  }
  EXPECT_GT(kept, 100);
  EXPECT_GT(collapsed, 50);
}

}  // namespace
