// Implicit enumeration checked against brute force: every unrooted binary tree of a small
// random matrix is scored by the slow reference scorer, and ienum must report the same best
// score and keep exactly the same set of trees (compared as sets of splits).
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "dataset/dataset.h"
#include "optim/packed.h"
#include "search/ienum.h"
#include "search/settings.h"
#include "shell/state.h"
#include "trees/store.h"
#include "common/harness.h"
#include "common/slow_length.h"

using namespace qax;
using qax::test::has;
using qax::test::run;
using qax::test::slow_length;

namespace {

using Split = std::vector<int>;
using Splits = std::set<Split>;
using Edges = std::vector<std::pair<int, int>>;

// Splits of a rooted parent array, each taken on the side without taxon 0.
Splits splits_of(const std::int32_t* parent, int ntax) {
  const int end = parent[ntax];
  std::vector<Split> below(end);
  for (int t = 0; t < ntax; ++t) {
    if (parent[t] < ntax) continue;
    for (int a = parent[t]; a != ntax; a = parent[a]) below[a].push_back(t);
  }
  Splits out;
  for (int n = ntax + 1; n < end; ++n) {
    Split v = below[n];
    if (std::find(v.begin(), v.end(), 0) != v.end()) {
      Split c;
      for (int t = 0; t < ntax; ++t)
        if (std::find(v.begin(), v.end(), t) == v.end()) c.push_back(t);
      v = c;
    }
    std::sort(v.begin(), v.end());
    if (v.size() >= 2 && static_cast<int>(v.size()) <= ntax - 2) out.insert(v);
  }
  return out;
}

// Rooted parent array (root ntax, taxon 0 beside the root) of an unrooted edge list.
std::vector<std::int32_t> parent_from_edges(const Edges& edges, int ntax, int nvert) {
  std::vector<std::vector<int>> adj(nvert);
  for (auto [a, b] : edges) {
    adj[a].push_back(b);
    adj[b].push_back(a);
  }
  std::vector<std::int32_t> parent(2 * ntax - 1, 0);
  int next = ntax + 1;
  parent[0] = ntax;
  std::vector<std::pair<int, int>> st{{adj[0][0], 0}};
  std::vector<int> up{ntax};
  while (!st.empty()) {
    auto [v, from] = st.back();
    st.pop_back();
    const int par = up.back();
    up.pop_back();
    const int me = v < ntax ? v : next++;
    parent[me] = par;
    for (int w : adj[v])
      if (w != from) {
        st.push_back({w, v});
        up.push_back(me);
      }
  }
  parent[ntax] = next;
  return parent;
}

// Every unrooted binary tree of n taxa, by stepwise insertion.
void enumerate(int n, const std::function<void(const Edges&)>& visit) {
  Edges e{{0, n}, {1, n}, {2, n}};
  std::function<void(int, Edges&)> rec = [&](int t, Edges& cur) {
    if (t == n) {
      visit(cur);
      return;
    }
    const int inner = n + t - 2;
    const std::size_t m = cur.size();
    for (std::size_t k = 0; k < m; ++k) {
      auto [a, b] = cur[k];
      cur[k] = {a, inner};
      cur.push_back({inner, b});
      cur.push_back({inner, t});
      rec(t + 1, cur);
      cur.pop_back();
      cur.pop_back();
      cur[k] = {a, b};
    }
  };
  rec(3, e);
}

std::string random_matrix(int ntax, int nchar, int states, std::mt19937& rng) {
  std::string s = "xread " + std::to_string(nchar) + " " + std::to_string(ntax) + "\n";
  for (int t = 0; t < ntax; ++t) {
    s += "t" + std::to_string(t) + " ";
    for (int c = 0; c < nchar; ++c) {
      const unsigned r = rng() % 16;
      if (r == 0) s += '?';
      else if (r == 1) s += "[" + std::to_string(rng() % states) + std::to_string(rng() % states) + "]";
      else s += static_cast<char>('0' + rng() % states);
    }
    s += "\n";
  }
  return s + ";";
}

struct Exact {
  int best = 1 << 30;
  std::set<Splits> trees;
};

Exact brute_force(int n, double subopt = 0) {
  Exact x;
  std::vector<std::pair<int, Splits>> all;
  enumerate(n, [&](const Edges& e) {
    auto p = parent_from_edges(e, n, 2 * n - 2);
    const int len = slow_length(p.data());
    x.best = std::min(x.best, len);
    all.push_back({len, splits_of(p.data(), n)});
  });
  for (auto& [len, s] : all)
    if (len <= x.best + subopt + 1e-9) x.trees.insert(s);
  return x;
}

std::set<Splits> stored_trees() {
  std::set<Splits> out;
  for (int k = 0; k < trees::tree_store.ntrees; ++k)
    out.insert(splits_of(trees::tree_row(k), trees::tree_store.ntax));
  return out;
}

class Ienum : public test::ShellTest {};

TEST_F(Ienum, FindsExactlyTheOptimalTreesOfBruteForce) {
  std::mt19937 rng(18);
  const char* kinds[] = {"", "ccode + .;", "ccode /3 0 2 /2 5;", "ccode + 1 3 /4 2;"};
  const char* options[] = {"", "!", "-", "!-"};
  for (int round = 0; round < 20; ++round) {
    const int n = 5 + round % 5;   // 5 to 9 taxa
    const int state_counts[] = {2, 3, 4, 6, 10};   // fields of 2, 4, 8 and 32 bits
    const int states = state_counts[round % 5];
    run(random_matrix(n, 8 + round % 5, states, rng));
    ASSERT_EQ(dataset::dataset.ntax, n);
    run(std::string(kinds[round % 4]) + "hold 20000;");
    const Exact x = brute_force(n);
    const std::string out = run(std::string("ienum ") + options[round % 4] + ";");
    EXPECT_EQ(search::last_best_score, x.best) << "round " << round << "\n" << out;
    EXPECT_TRUE(has(out, "Implicit enumeration, " + std::to_string(x.trees.size()) + " trees found, score " +
                             std::to_string(x.best) + "."))
        << "round " << round << "\n" << out;
    EXPECT_EQ(stored_trees(), x.trees) << "round " << round;
    for (int k = 0; k < trees::tree_store.ntrees; ++k) EXPECT_EQ(slow_length(trees::tree_row(k)), x.best);
  }
}

TEST_F(Ienum, SuboptimalKeepsEveryTreeWithinTheMargin) {
  std::mt19937 rng(5);
  for (int round = 0; round < 4; ++round) {
    const int n = 6 + round;
    run(random_matrix(n, 10, 3, rng));
    run("hold 20000; subopt 2;");
    const Exact x = brute_force(n, 2);
    const std::string out = run("ienum;");
    EXPECT_EQ(search::last_best_score, x.best) << out;
    EXPECT_EQ(stored_trees(), x.trees) << "round " << round << "\n" << out;
    EXPECT_TRUE(has(out, "score " + std::to_string(x.best) + "-" + std::to_string(x.best + 2) + ".")) << out;
  }
}

TEST_F(Ienum, UninformativeDataGiveEveryTree) {
  // All taxa alike: every tree has the same score, 3 taxa give one tree, 6 give 105.
  run("xread 2 4 a 00 b 00 c 00 d 00 ; taxcode - d; hold 200;");
  std::string out = run("ienum;");
  EXPECT_TRUE(has(out, "Implicit enumeration, 1 trees found, score 0.")) << out;
  run("xread 2 6 a 01 b 01 c 01 d 01 e 01 f 01 ; hold 200;");
  out = run("ienum;");
  EXPECT_TRUE(has(out, "Implicit enumeration, 105 trees found, score 0.")) << out;
}

TEST_F(Ienum, FullStoreOverflowsAndSamplingKeepsOptimalTrees) {
  run("xread 2 7 a 01 b 01 c 01 d 01 e 01 f 01 g 01 ; hold 10;");
  std::string out = run("ienum;");
  EXPECT_TRUE(has(out, "Implicit enumeration, 10 trees found, score 0 (overflow).")) << out;
  out = run("ienum &;");
  EXPECT_TRUE(has(out, "A sample can be taken only for uncollapsed trees (set collapse to \"none\")")) << out;
  out = run("collapse none; subopt 1; ienum &;");
  EXPECT_TRUE(has(out, "A sample can be taken only for optimal trees (set suboptimal to 0)")) << out;
  out = run("subopt 0; ienum &;");
  EXPECT_TRUE(has(out, "Implicit enumeration, 10 trees found, score 0 (sampled from 945 trees).")) << out;
  EXPECT_EQ(trees::tree_store.ntrees, 10);
  EXPECT_EQ(stored_trees().size(), 10u);
  out = run("ienum x;");
  EXPECT_TRUE(has(out, "Wrong argument: x")) << out;
}

// Brute force among the trees that `allowed` accepts (by their splits).
Exact brute_force_where(int n, const std::function<bool(const Splits&)>& allowed) {
  Exact x;
  std::vector<std::pair<int, Splits>> all;
  enumerate(n, [&](const Edges& e) {
    auto p = parent_from_edges(e, n, 2 * n - 2);
    Splits s = splits_of(p.data(), n);
    if (!allowed(s)) return;
    const int len = slow_length(p.data());
    x.best = std::min(x.best, len);
    all.push_back({len, s});
  });
  for (auto& [len, s] : all)
    if (len == x.best) x.trees.insert(s);
  return x;
}

TEST_F(Ienum, ConstraintsLimitTheTreesToThoseThatKeepThem) {
  std::mt19937 rng(3);
  for (int round = 0; round < 4; ++round) {
    run(random_matrix(7, 10, 2, rng));
    const Split group{1, 2, 3}, pair{1, 2};
    Exact x;
    if (round % 2 == 0) {
      run("hold 20000; force + [t1 t2 t3]; constrain =;");
      x = brute_force_where(7, [&](const Splits& s) { return s.count(group) > 0; });
    } else {
      run("hold 20000; force - [t1 t2]; constrain =;");
      x = brute_force_where(7, [&](const Splits& s) { return s.count(pair) == 0; });
    }
    const std::string out = run("ienum;");
    EXPECT_EQ(search::last_best_score, x.best) << out;
    EXPECT_EQ(stored_trees(), x.trees) << "round " << round << "\n" << out;
    EXPECT_TRUE(has(out, "Constraints enforced during search.")) << out;
    run("force ; constrain -;");
  }
}

TEST_F(Ienum, InterruptKeepsTheTreesFoundAndReportsTheShareDone) {
  run(std::string("proc ") + QAX_TEST_DATA + "/Asher2005.xread; taxcode - 16.; hold 1000;");
  shell::switches.brk = 1;
  const auto saved_reader = shell::read_key;
  // ESC pressed at the eighth look at the keyboard during the search.
  static int looks = 0;
  looks = 0;
  shell::read_key = [](bool) { return shell::shell_state.search_running && ++looks == 8 ? 27 : -1; };
  const std::string out = run("ienum;");
  shell::read_key = saved_reader;
  EXPECT_TRUE(has(out, "NOTE: implicit enumeration completed only ")) << out;
  EXPECT_TRUE(has(out, "% of total work...")) << out;
  EXPECT_TRUE(has(out, "Implicit enumeration, ")) << out;
  EXPECT_FALSE(has(out, "completed only 100%")) << out;
  // The trees found so far are kept, each of the score reported.
  for (int k = 0; k < trees::tree_store.ntrees; ++k) EXPECT_EQ(slow_length(trees::tree_row(k)), search::last_best_score);
}

TEST_F(Ienum, AdditionWalkVisitsEveryPartialTreeAndCutsBranches) {
  run("xread 2 6 a 00 b 01 c 10 d 11 e 00 f 01 ;");
  // 1 + 3 + 15 + 105 trees of 3 to 6 taxa.
  std::set<Splits> full;
  long long n = search::walk_addition_trees([&](const std::vector<std::int32_t>& tree, int taxa) {
    EXPECT_EQ(trees::tree_terminal_count(tree.data(), 6), taxa);
    if (taxa == 6) full.insert(splits_of(tree.data(), 6));
    return true;
  });
  EXPECT_EQ(n, 124);
  EXPECT_EQ(full.size(), 105u);
  // Cut below every tree of four taxa: 1 + 3.
  n = search::walk_addition_trees([](const std::vector<std::int32_t>&, int taxa) { return taxa < 4; });
  EXPECT_EQ(n, 4);
}

TEST_F(Ienum, ExtraBoundTableCountsStatesOnlyTheRestHold) {
  // Three binary fields. Field 0: taxa 0 and 1 state 0, taxa 2 and 3 state 1; field 1 the
  // same; field 2: taxon 0 state 0, taxon 1 state 1, taxon 2 state 0, taxon 3 missing.
  run("xread 3 4 a 000 b 001 c 110 d 11? ;");
  optim::pack_data();
  // Built on unpacked rows written here, two-bit fields in one word per terminal.
  std::vector<std::uint32_t> sets(4 * static_cast<std::size_t>(optim::packed.nwords), ~0u);
  const int W = optim::packed.nwords;
  if (optim::packed.layout.end0 < 1) GTEST_SKIP() << "no binary words";
  auto put = [&](int t, std::uint32_t w0) { sets[static_cast<std::size_t>(t) * W] = w0; };
  // Three fields per terminal, all others missing (11): state 0 is 01, state 1 is 10.
  put(0, 0xFFFFFFC0u | 0x01 | 0x04 | 0x10);
  put(1, 0xFFFFFFC0u | 0x01 | 0x04 | 0x20);
  put(2, 0xFFFFFFC0u | 0x02 | 0x08 | 0x10);
  put(3, 0xFFFFFFC0u | 0x02 | 0x08 | 0x30);
  const auto table = search::extra_bound_table({0, 1, 2, 3}, sets.data(), 4, W);
  ASSERT_EQ(table.size(), 5u);
  EXPECT_EQ(table[2], 2);   // taxa 2 and 3 bring state 1 to the first two fields
  EXPECT_EQ(table[3], 0);
  EXPECT_EQ(table[4], 0);
  EXPECT_EQ(table[1], 2 + 1);   // with only taxon 0 placed, field 3's state 1 is new too
}

}  // namespace
