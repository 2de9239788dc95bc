// Packed kernels against a plain reference scorer: one character at a time on the unpacked
// matrix, Fitch sets for nonadditive characters, intervals for additive ones.
#include <gtest/gtest.h>

#include <bit>
#include <random>
#include <vector>

#include "dataset/dataset.h"
#include "optim/kernels.h"
#include "optim/packed.h"
#include "optim/reports.h"
#include <climits>

using namespace qax::optim;
namespace ds = qax::dataset;

namespace {

// ---- reference --------------------------------------------------------------------------
struct RefTree {                     // rooted tree: children lists, terminals 0..ntax-1 = taxa
  std::vector<std::vector<int>> kids;
  int root = 0;
};

RefTree from_parent(const std::vector<int>& parent, int ntax) {
  RefTree t;
  int end = parent[ntax];
  t.kids.resize(end);
  for (int n = 0; n < end; ++n) if (n != ntax) t.kids[parent[n]].push_back(n);
  t.root = ntax;
  return t;
}

// Steps of character c on tree t (unweighted); inactive taxa count as missing.
int ref_char(const ds::Dataset& d, const RefTree& t, int c, int node, std::uint32_t& set, int& lo, int& hi) {
  const bool add = d.chars[c].additive;
  if (node < d.ntax) {
    std::uint32_t v = d.cell(node, c);
    if (v == d.missing_value() || v == 0 || !d.taxon_active[node]) v = ~0u;
    set = v;
    lo = v == ~0u ? 0 : std::countr_zero(v);
    hi = v == ~0u ? 31 : 31 - std::countl_zero(v);
    return 0;
  }
  int steps = 0;
  bool first = true;
  for (int k : t.kids[node]) {
    std::uint32_t s;
    int l, h;
    steps += ref_char(d, t, c, k, s, l, h);
    if (first) { set = s; lo = l; hi = h; first = false; continue; }
    if (!add) {
      if (set & s) set &= s; else { set |= s; ++steps; }
    } else {
      if (h < lo) { steps += lo - h; int nl = h; hi = lo; lo = nl; }
      else if (l > hi) { steps += l - hi; int nh = l; lo = hi; hi = nh; }
      else { lo = std::max(lo, l); hi = std::min(hi, h); }
    }
  }
  return steps;
}

long ref_score(const ds::Dataset& d, const RefTree& t) {
  long total = 0;
  for (int c = 0; c < d.nchar; ++c) {
    if (!d.chars[c].active || d.chars[c].weight == 0) continue;
    std::uint32_t s;
    int l, h;
    total += static_cast<long>(d.chars[c].weight) * ref_char(d, t, c, t.root, s, l, h);
  }
  return total;
}

// ---- random data ------------------------------------------------------------------------
std::vector<std::uint32_t> cell_store;

void random_matrix(std::mt19937& rng, int ntax, int nchar, int kind, bool weighted) {
  ds::Dataset& d = ds::dataset;
  d = ds::Dataset{};
  d.loaded = 1;
  d.ntax = ntax;
  d.nchar = nchar;
  d.cell_width = 4;
  d.taxon_active.assign(ntax, 1);
  d.chars.assign(nchar, ds::CharacterRecord{});
  cell_store.assign(static_cast<std::size_t>(ntax) * nchar, 0);
  auto U = [&](int n) { return static_cast<int>(rng() % static_cast<unsigned>(n)); };
  for (int c = 0; c < nchar; ++c) {
    int k = kind >= 0 ? kind : U(5);
    int nst = k == 0 ? 2 : k == 1 ? 3 + U(2) : k == 2 ? 5 + U(4) : k == 3 ? 9 + U(24) : 2 + U(8);
    d.chars[c].additive = k == 4;
    if (weighted) d.chars[c].weight = 1 + U(4);
    if (U(12) == 0) d.chars[c].active = 0;
    for (int t = 0; t < ntax; ++t) {
      std::uint32_t v = 1u << U(nst);
      int r = U(20);
      if (r == 0) v = 0xFFFFFFFFu;          // missing
      else if (r == 1) v |= 1u << U(nst);    // polymorphism
      cell_store[static_cast<std::size_t>(t) * nchar + c] = v;
    }
  }
  for (int t = 0; t < ntax; ++t) if (U(10) == 0) d.taxon_active[t] = 0;
  d.taxon_active[U(ntax)] = 1;
  d.taxon_active[U(ntax)] = 1;
  d.taxon_active[U(ntax)] = 1;
  d.outgroup = U(ntax);
  d.cells = reinterpret_cast<unsigned char*>(cell_store.data());
}

std::vector<int> random_parent(std::mt19937& rng, int ntax) {
  std::vector<int> parent(2 * ntax - 1, 0);
  std::vector<int> pool(ntax);
  for (int i = 0; i < ntax; ++i) pool[i] = i;
  int next = 2 * ntax - 2;
  while (pool.size() > 2) {
    int i = rng() % pool.size();
    int a = pool[i]; pool.erase(pool.begin() + i);
    int j = rng() % pool.size();
    int b = pool[j]; pool.erase(pool.begin() + j);
    parent[a] = parent[b] = next;
    pool.push_back(next--);
  }
  parent[pool[0]] = parent[pool[1]] = ntax;
  parent[ntax] = 2 * ntax - 1;
  return parent;
}

// The work tree as a reference tree over data set taxa.
RefTree from_work(const WorkTree& w) {
  const int ntax = ds::dataset.ntax;
  RefTree t;
  t.kids.resize(ntax + w.nnodes);
  auto id = [&](int n) { return n < w.nterm ? packed.from_packed[n] : ntax + n; };
  for (int n = w.nterm; n < w.nnodes; ++n)
    for (int c : {w.left_child[n], w.right_child[n]}) if (c >= 0) t.kids[id(n)].push_back(id(c));
  t.root = ntax + w.nterm;
  return t;
}
RefTree subtree(const WorkTree& w, int top) {
  RefTree t = from_work(w);
  t.root = top < w.nterm ? packed.from_packed[top] : ds::dataset.ntax + top;
  return t;
}
long ref_at(const RefTree& t) {
  if (t.root < ds::dataset.ntax) return 0;
  return ref_score(ds::dataset, t);
}

const int variants[] = {kernel_32, kernel_64, kernel_avx2};

void use_variant(int v) {
  kernel_override = v;
  select_kernels_for_pack();
}

}  // namespace

TEST(PackData, EdgeCases) {
  ds::Dataset& d = ds::dataset;
  d = ds::Dataset{};
  d.loaded = 1; d.ntax = 5; d.nchar = 4; d.cell_width = 4;
  d.taxon_active.assign(5, 1);
  d.chars.assign(4, ds::CharacterRecord{});
  d.chars[0].additive = 1;  // states 0,1,3; 3 in one taxon: stripped, 2 steps, one column left
  d.chars[3].additive = 0;
  std::uint32_t m[5][4] = {{1, 1, 1, ~0u}, {1, 1, 2, ~0u}, {2, 2, 1, ~0u}, {2, 2, 4, ~0u}, {8, 4, 2, ~0u}};
  // char 1: states 0,1 twice, state 2 once -> binary column, one constant step
  // char 2: states 0,1 twice and 2 once -> binary; char 3 all missing -> nothing
  cell_store.assign(20, 0);
  for (int t = 0; t < 5; ++t) for (int c = 0; c < 4; ++c) cell_store[t * 4 + c] = m[t][c];
  d.cells = reinterpret_cast<unsigned char*>(cell_store.data());
  pack_data();
  EXPECT_EQ(packed.constant_steps, 2 + 1 + 1);
  EXPECT_EQ(packed.columns[0], 3);
  EXPECT_EQ(packed.pack_plan[0].columns, 1);
  EXPECT_EQ(packed.w[0], packed.xbit ? 2 : 1);
  EXPECT_EQ(packed.nwide, 0);
  EXPECT_EQ(packed.char_packed[3], 0);
  // Taxon 4: state 3 is stripped to the nearest kept state, 1, two constant steps.
  EXPECT_EQ(packed.node_sets[4].down_set[0] & 3u, 2u);  // state 3 taken as state 1 (high bit)
}

TEST(Kernels, FullScoreMatchesReference) {
  std::mt19937 rng(12345);
  int modes[3] = {};
  for (int rep = 0; rep < 500; ++rep) {
    int ntax = 3 + rng() % 30, nchar = 1 + rng() % 70;
    int kind = static_cast<int>(rng() % 7) - 2;  // -2,-1: mixed; 0..4 one kind
    random_matrix(rng, ntax, nchar, kind < 0 ? -1 : kind, rep % 3 == 0);
    packed.xbit = rep % 2;
    pack_data();
    ++modes[packed.weight_mode];
    auto parent = random_parent(rng, ntax);
    long expect = ref_score(ds::dataset, from_parent(parent, ntax));
    WorkTree w;
    ASSERT_TRUE(load_tree(parent, w));
    for (int v : variants) {
      use_variant(v);
      ASSERT_EQ(tree_score(w, 3), expect) << "rep " << rep << " variant " << kernels.name;
    }
  }
  EXPECT_GT(modes[weights_equal], 50);
  EXPECT_GT(modes[weights_word], 20);
  EXPECT_GT(modes[weights_column], 20);
}

TEST(Kernels, EveryCharacterMatches) {
  std::mt19937 rng(777);
  for (int rep = 0; rep < 12; ++rep) {
    random_matrix(rng, 6 + rng() % 15, 40, -1, rep % 2);
    auto& d = ds::dataset;
    auto parent = random_parent(rng, d.ntax);
    std::vector<std::uint8_t> was(d.nchar);
    for (int c = 0; c < d.nchar; ++c) was[c] = d.chars[c].active;
    for (int c = 0; c < d.nchar; ++c) {
      if (!was[c]) continue;
      for (int k = 0; k < d.nchar; ++k) d.chars[k].active = k == c;
      pack_data();
      WorkTree w;
      ASSERT_TRUE(load_tree(parent, w));
      long expect = ref_score(d, from_parent(parent, d.ntax));
      for (int v : variants) {
        use_variant(v);
        double got = tree_score(w, 2);
        ASSERT_EQ(got, expect) << "char " << c << " " << kernels.name;
      }
    }
    for (int c = 0; c < d.nchar; ++c) d.chars[c].active = was[c];
  }
}

// Compare every set of the reachable nodes with a fresh full pass.
static void expect_sets_equal_full_pass(WorkTree& w, double score) {
  std::vector<std::uint32_t> before = packed.storage;
  const double got = tree_score(w, 3);
  if (score >= 0) ASSERT_EQ(got, score);
  const int nw = packed.nwords;
  std::vector<int> stack{w.nterm};
  while (!stack.empty()) {
    int n = stack.back();
    stack.pop_back();
    const NodeSets& s = packed.node_sets[n];
    for (int i = 0; i < nw; ++i) {
      auto off = [&](const std::uint32_t* p) { return static_cast<std::size_t>(p - packed.storage.data()) + i; };
      ASSERT_EQ(before[off(s.down_set)], s.down_set[i]) << "down node " << n << " word " << i;
      if (n == w.nterm) continue;
      ASSERT_EQ(before[off(s.branch_set)], s.branch_set[i]) << "branch node " << n << " word " << i;
      if (n >= w.nterm) {
        ASSERT_EQ(before[off(s.final_set)], s.final_set[i]) << "final node " << n;
        ASSERT_EQ(before[off(s.union_mask)], s.union_mask[i]) << "union node " << n;
      }
    }
    if (n >= w.nterm) { stack.push_back(w.left_child[n]); stack.push_back(w.right_child[n]); }
  }
}

TEST(Kernels, JoinAndUpdatesEqualFullPass) {
  std::mt19937 rng(4242);
  int moves = 0, exact = 0;
  for (int rep = 0; rep < 60; ++rep) {
    int ntax = 6 + rng() % 25;
    random_matrix(rng, ntax, 1 + rng() % 60, -1, rep % 3 == 1);
    packed.xbit = 1;
    pack_data();
    if (packed.nterm < 5) continue;
    WorkTree w;
    auto parent0 = random_parent(rng, ntax);
    ASSERT_TRUE(load_tree(parent0, w));
    use_variant(variants[rep % 3]);
    ASSERT_EQ(ref_at(from_work(w)), ref_score(ds::dataset, from_parent(parent0, ntax)));
    double full = tree_score(w, 3);
    ASSERT_EQ(full, ref_at(from_work(w)));
    for (int m = 0; m < 60; ++m) {
      int clip = rng() % w.nnodes;
      if (clip == w.nterm || w.ancestor[clip] == w.nterm || clip == 0) continue;
      int sis = cut_node(w, clip);
      prune_update(w, sis, clip);
      // Stripped singleton states are counted once for the whole matrix, so the packed length
      // of the parts differs from the reference by a constant: the join costs of one clip must
      // differ from the reference lengths of the joined trees by one and the same amount.
      expect_sets_equal_full_pass(w, -1.0);
      bool first_target = true;
      long offset = 0;
      const long parts = ref_at(from_work(w)) + ref_at(subtree(w, clip));
      // every target branch of the remaining tree
      std::vector<int> targets;
      std::vector<int> st{w.nterm};
      while (!st.empty()) {
        int n = st.back(); st.pop_back();
        if (n != w.nterm && n != 0) targets.push_back(n);
        if (n >= w.nterm) { st.push_back(w.left_child[n]); st.push_back(w.right_child[n]); }
      }
      clip_words = packed.node_sets[clip].down_set;
      for (int t : targets) {
        target_words = packed.node_sets[t].branch_set;
        score_bound = 2147483647.0;
        join_cost();
        ASSERT_EQ(join_ok, 1);
        const double plain = join_value;
        if (t >= w.nterm) {  // the same branch given by its two ends
          join_cost_between(clip_words, packed.node_sets[t].final_set, packed.node_sets[w.ancestor[t]].final_set);
          ASSERT_EQ(join_value, plain);
        }
        join_node(w, clip, t);
        long after = ref_at(from_work(w));
        if (first_target) offset = after - static_cast<long>(join_value);
        if (packed.constant_steps == 0) { ASSERT_EQ(offset, parts); ++exact; }  // nothing stripped: exact
        first_target = false;
        ASSERT_EQ(static_cast<long>(join_value) + offset, after) << "rep " << rep << " target " << t;
        // the bound: exact cost passes, one less stops
        score_bound = join_value;
        join_cost();
        ASSERT_EQ(join_ok, 1);
        if (join_value > 0) {
          score_bound = join_value - 1;
          join_cost();
          ASSERT_EQ(join_ok, 0);
        }
        cut_node(w, clip);
        ++moves;
      }
      int t = targets[rng() % targets.size()];
      join_node(w, clip, t);
      regraft_update(w, t, clip);
      full = static_cast<double>(ref_at(from_work(w)));
      expect_sets_equal_full_pass(w, full);
    }
  }
  EXPECT_GT(moves, 2000);
  EXPECT_GT(exact, 100);
}

TEST(Kernels, MissingClipCostsNothing) {
  std::mt19937 rng(5);
  random_matrix(rng, 10, 30, -1, false);
  pack_data();
  std::vector<std::uint32_t> ones(packed.nwords, ~0u);
  for (int v : variants) {
    use_variant(v);
    clip_words = ones.data();
    target_words = packed.node_sets[1].down_set;
    score_bound = 0;
    join_cost();
    EXPECT_EQ(join_ok, 1);
    EXPECT_EQ(join_value, 0);
  }
}

// Per-character steps of the reports: binary trees against the reference, star trees
// (one hard polytomy) against the count of taxa that lack the best state.
TEST(Reports, CharacterStepsBinaryAndStar) {
  std::mt19937 rng(99);
  for (int rep = 0; rep < 40; ++rep) {
    random_matrix(rng, 4 + rng() % 12, 30, -1, rep % 2);
    auto& d = ds::dataset;
    pack_data();
    auto parent = random_parent(rng, d.ntax);
    std::vector<int> steps;
    character_steps(parent, steps);
    RefTree t = from_parent(parent, d.ntax);
    for (int c = 0; c < d.nchar; ++c) {
      if (!d.chars[c].active) { EXPECT_EQ(steps[c], -1); continue; }
      std::uint32_t s; int l, h;
      ASSERT_EQ(steps[c], ref_char(d, t, c, t.root, s, l, h)) << "binary, char " << c;
    }
    std::vector<int> star(2 * d.ntax - 1, 0);
    for (int x = 0; x < d.ntax; ++x) star[x] = d.ntax;
    star[d.ntax] = d.ntax + 1;
    character_steps(star, steps);
    for (int c = 0; c < d.nchar; ++c) {
      if (!d.chars[c].active) continue;
      long best = LONG_MAX;
      for (int st = 0; st < 32; ++st) {
        long cost = 0;
        for (int x = 0; x < d.ntax; ++x) {
          std::uint32_t v = d.cell(x, c);
          if (!d.taxon_active[x] || v == 0xFFFFFFFFu) continue;
          if (!d.chars[c].additive) cost += !(v >> st & 1);
          else {
            int lo = std::countr_zero(v), hi = 31 - std::countl_zero(v);
            cost += st < lo ? lo - st : st > hi ? st - hi : 0;
          }
        }
        best = std::min(best, cost);
      }
      ASSERT_EQ(steps[c], best) << "star, char " << c;
    }
  }
}

// 17 binary characters and 3 four-state ones: the 17th binary column moves to the free
// fields of the class-1 word, saving a word (xbit off, so no pairing).
TEST(PackData, WordSavingMove) {
  ds::Dataset& d = ds::dataset;
  d = ds::Dataset{};
  d.loaded = 1; d.ntax = 8; d.nchar = 20; d.cell_width = 4;
  d.taxon_active.assign(8, 1);
  d.chars.assign(20, ds::CharacterRecord{});
  cell_store.assign(8 * 20, 0);
  for (int t = 0; t < 8; ++t)
    for (int c = 0; c < 20; ++c) cell_store[t * 20 + c] = c < 17 ? 1u << (t / 4) : 1u << (t / 2);
  d.cells = reinterpret_cast<unsigned char*>(cell_store.data());
  packed.xbit = 0;
  pack_data();
  EXPECT_EQ(packed.w[0], 1);
  EXPECT_EQ(packed.w[1], 1);
  EXPECT_EQ(packed.columns[1], 4);
  std::mt19937 rng(3);
  std::vector<int> parent = random_parent(rng, 8);
  WorkTree w;
  ASSERT_TRUE(load_tree(parent, w));
  EXPECT_EQ(tree_score(w, 0), ref_score(d, from_parent(parent, 8)));
  packed.xbit = 1;
}
