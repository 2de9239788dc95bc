// Tree search checked against independent computation: a slow Fitch scorer written here
// (one character at a time on the unpacked matrix), exhaustive enumeration of small trees,
// and a brute-force list of the TBR neighbours of a tree compared as sets of splits.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <fstream>
#include <functional>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "app/command_table.h"
#include "app/program.h"
#include "dataset/dataset.h"
#include "optim/collapse.h"
#include "optim/kernels.h"
#include "optim/packed.h"
#include "search/engine.h"
#include "search/search_internal.h"
#include "search/settings.h"
#include "search/swap_collapse.h"
#include "shell/arena.h"
#include "shell/commands.h"
#include "shell/input.h"
#include "shell/output.h"
#include "shell/state.h"
#include "trees/store.h"
#include "common/harness.h"
#include "common/slow_length.h"

using namespace qax;
using qax::test::slow_length;
namespace ds = qax::dataset;

namespace {

using qax::test::has;
using qax::test::run;

// Splits of a parent array: for each inner node below the root, its taxa as a sorted list,
// taken on the side without taxon 0; the root is on taxon 0, so this is the unrooted tree.
std::set<std::vector<int>> splits_of(const std::vector<std::int32_t>& parent, int ntax) {
  const int end = parent[ntax];
  std::vector<std::vector<int>> below(end);
  for (int t = 0; t < ntax; ++t) {
    if (parent[t] < ntax) continue;
    for (int a = parent[t]; a != ntax; a = parent[a]) below[a].push_back(t);
  }
  std::set<std::vector<int>> out;
  for (int n = ntax + 1; n < end; ++n) {
    auto v = below[n];
    std::sort(v.begin(), v.end());
    if (v.size() >= 2 && static_cast<int>(v.size()) <= ntax - 2) out.insert(v);
  }
  return out;
}

// ---- unrooted trees for enumeration and brute-force TBR ------------------------------
using Edges = std::vector<std::pair<int, int>>;

// Rooted parent array (root ntax, taxon 0 at the root) from an unrooted edge list.
std::vector<std::int32_t> parent_from_edges(const Edges& edges, int ntax, int nvert) {
  std::vector<std::vector<int>> adj(nvert);
  for (auto [a, b] : edges) { adj[a].push_back(b); adj[b].push_back(a); }
  std::vector<std::int32_t> parent(2 * ntax - 1, 0);
  std::vector<int> id(nvert, -1);
  int next = ntax + 1;
  parent[0] = ntax;
  std::vector<std::pair<int, int>> st{{adj[0][0], 0}};
  std::vector<int> up{ntax};
  while (!st.empty()) {
    auto [v, from] = st.back();
    st.pop_back();
    int par = up.back();
    up.pop_back();
    int me = v < ntax ? v : next++;
    parent[me] = par;
    for (int w : adj[v]) if (w != from) { st.push_back({w, v}); up.push_back(me); }
  }
  parent[ntax] = next;
  return parent;
}

// Every unrooted binary tree of n taxa (vertices n.. are inner), by stepwise insertion.
void enumerate(int n, const std::function<void(const Edges&)>& visit) {
  Edges e{{0, n}, {1, n}, {2, n}};
  std::function<void(int, Edges&)> rec = [&](int t, Edges& cur) {
    if (t == n) { visit(cur); return; }
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

// Every tree one TBR move away (the tree itself too, and repeats), as parent arrays.
void for_each_tbr_neighbour(const Edges& edges, int ntax, int nvert,
                            const std::function<void(const std::vector<std::int32_t>&)>& visit) {
  for (std::size_t cut = 0; cut < edges.size(); ++cut) {
    Edges rest;
    for (std::size_t k = 0; k < edges.size(); ++k) if (k != cut) rest.push_back(edges[k]);
    // Side of each vertex after the cut.
    std::vector<std::vector<int>> adj(nvert);
    for (auto [a, b] : rest) { adj[a].push_back(b); adj[b].push_back(a); }
    std::vector<int> side(nvert, -1);
    std::vector<int> st{edges[cut].first};
    side[edges[cut].first] = 0;
    while (!st.empty()) {
      int v = st.back(); st.pop_back();
      for (int w : adj[v]) if (side[w] < 0) { side[w] = 0; st.push_back(w); }
    }
    // Suppress the degree-2 ends; a lone terminal is its own attachment point.
    Edges parts = rest;
    for (int end : {edges[cut].first, edges[cut].second}) {
      if (end < ntax) continue;
      std::vector<int> nb;
      Edges keep;
      for (auto [a, b] : parts) {
        if (a == end) nb.push_back(b); else if (b == end) nb.push_back(a); else keep.push_back({a, b});
      }
      keep.push_back({nb[0], nb[1]});
      parts = keep;
    }
    auto attach_points = [&](int s, int end) {
      std::vector<int> list;  // indices into parts, or -1 for the lone terminal
      bool any = false;
      for (std::size_t k = 0; k < parts.size(); ++k) {
        int a = parts[k].first;
        if ((side[a] == 0) == (s == 0)) { list.push_back(static_cast<int>(k)); any = true; }
      }
      if (!any) list.push_back(-1 - end);
      return list;
    };
    auto la = attach_points(0, edges[cut].first), lb = attach_points(1, edges[cut].second);
    const int x = nvert, y = nvert + 1;
    for (int ia : la) for (int ib : lb) {
      Edges t;
      for (std::size_t k = 0; k < parts.size(); ++k) {
        if (static_cast<int>(k) == ia) { t.push_back({parts[k].first, x}); t.push_back({x, parts[k].second}); }
        else if (static_cast<int>(k) == ib) { t.push_back({parts[k].first, y}); t.push_back({y, parts[k].second}); }
        else t.push_back(parts[k]);
      }
      int u = ia >= 0 ? x : -1 - ia, v = ib >= 0 ? y : -1 - ib;
      t.push_back({u, v});
      visit(parent_from_edges(t, ntax, nvert + 2));
    }
  }
}

// All trees one TBR move away (the tree itself excluded), as split sets.
std::set<std::set<std::vector<int>>> tbr_neighbours(const Edges& edges, int ntax, int nvert) {
  std::set<std::set<std::vector<int>>> out;
  const auto self = splits_of(parent_from_edges(edges, ntax, nvert), ntax);
  for_each_tbr_neighbour(edges, ntax, nvert, [&](const std::vector<std::int32_t>& p) {
    auto s = splits_of(p, ntax);
    if (s != self) out.insert(s);
  });
  return out;
}

// Every tree one SPR move away with the tree rooted on taxon 0: a subtree without taxon 0
// (not the whole side opposite it) pruned and regrafted on any branch of the rest.
void for_each_spr_neighbour(const std::vector<std::int32_t>& parent, int ntax,
                            const std::function<void(const std::vector<std::int32_t>&)>& visit) {
  const int end = parent[ntax];
  for (int v = 1; v < end; ++v) {
    if (v == ntax || parent[v] == ntax) continue;
    // Taxa and nodes below v.
    std::vector<std::uint8_t> inside(end, 0);
    for (int x = 0; x < end; ++x) {
      if (x == ntax) continue;
      for (int a = x; a != ntax; a = parent[a])
        if (a == v) { inside[x] = 1; break; }
    }
    const int p = parent[v], g = parent[p];
    for (int x = 0; x < end; ++x) {
      if (x == ntax || inside[x] || x == p) continue;
      std::vector<std::int32_t> t = parent;
      // Remove p: v's sister goes up to g.
      for (int y = 0; y < end; ++y)
        if (y != ntax && y != v && t[y] == p) t[y] = g;
      // p goes on the branch above x (x's parent as it is now, p's sister case included).
      t[p] = t[x];
      t[x] = p;
      t[v] = p;
      visit(t);
    }
  }
}

Edges random_edges(int n, std::mt19937& rng) {
  Edges e{{0, n}, {1, n}, {2, n}};
  for (int t = 3; t < n; ++t) {
    std::size_t k = rng() % e.size();
    auto [a, b] = e[k];
    const int inner = n + t - 2;
    e[k] = {a, inner};
    e.push_back({inner, b});
    e.push_back({inner, t});
  }
  return e;
}

std::string random_matrix(int ntax, int nchar, int states, std::mt19937& rng) {
  std::string s = "xread " + std::to_string(nchar) + " " + std::to_string(ntax) + "\n";
  for (int t = 0; t < ntax; ++t) {
    s += "t" + std::to_string(t) + " ";
    for (int c = 0; c < nchar; ++c) s += rng() % 12 == 0 ? '?' : static_cast<char>('0' + rng() % states);
    s += "\n";
  }
  return s + ";";
}

class Search : public test::ShellTest {};

// Every stored tree has the reported score, re-scored by the slow scorer.
void check_store(double best) {
  ASSERT_GT(trees::tree_store.ntrees, 0);
  for (int k = 0; k < trees::tree_store.ntrees; ++k) {
    EXPECT_EQ(slow_length(trees::tree_row(k)), static_cast<int>(best)) << "tree " << k;
    EXPECT_EQ(trees::tree_store.scores[k], best);
  }
}

}  // namespace

struct KnownBest { const char* file; int best; int reps; };

TEST_F(Search, MultReachesKnownBestOnRealMatrices) {
  // Morphology first: the DNA files set nstates for what follows.
  const KnownBest cases[] = {{"Longrich2010.xread", 128, 10}, {"Asher2005.xread", 341, 20},
                             {"Wills2012.xread", 268, 80},    {"Conrad2008.xread", 1704, 40},
                             {"woodmouse.xread", 68, 10},     {"primates.xread", 1153, 10},
                             {"Laurasiatherian.xread", 9713, 20}};
  for (const auto& c : cases) {
    std::string out = run(std::string("proc ") + QAX_TEST_DATA + "/" + c.file + "; mult=replic " +
                          std::to_string(c.reps) + " tbr hold 5;");
    EXPECT_TRUE(has(out, "Best score (TBR): " + std::to_string(c.best) + ".")) << c.file << "\n" << out;
    EXPECT_EQ(search::last_best_score, c.best) << c.file;
    check_store(c.best);
  }
}

TEST_F(Search, ExhaustiveOptimumIsReached) {
  std::mt19937 rng(7);
  for (int round = 0; round < 6; ++round) {
    const int n = 6 + round % 4;   // 6 to 9 taxa
    run(random_matrix(n, 14, 2 + round % 3, rng));
    ASSERT_EQ(ds::dataset.ntax, n);
    int best = 1 << 30;
    enumerate(n, [&](const Edges& e) {
      auto p = parent_from_edges(e, n, 2 * n - 2);
      best = std::min(best, slow_length(p.data()));
    });
    std::string out = run("mult=replic 10 tbr hold 20;");
    EXPECT_EQ(search::last_best_score, best) << out;
    check_store(best);
  }
}

TEST_F(Search, EveryTbrMoveIsCostedExactlyAndAllNeighboursAreReached) {
  std::mt19937 rng(11);
  for (int round = 0; round < 4; ++round) {
    const int n = 7 + round;
    run(random_matrix(n, 20, 4, rng));
    optim::pack_data();
    search::engine_refresh();
    search::Engine& e = search::engine();
    Edges edges = random_edges(n, rng);
    auto parent = parent_from_edges(edges, n, 2 * n - 2);
    ASSERT_TRUE(e.load(parent));
    const double score = e.compute_all();
    ASSERT_EQ(score, slow_length(parent.data()));
    std::set<std::set<std::vector<int>>> reached;
    const auto self = splits_of(parent, n);
    std::vector<int> anc = e.anc, left = e.left, right = e.right;
    for (int clip = 0; clip < e.nn; ++clip) {
      search::Move best;
      std::vector<search::Move> records;
      std::uint64_t examined = 0;
      const int base = e.evaluate_clip(clip, true, true, 1 << 20, best, records, examined);
      if (base < 0) continue;
      for (const auto& m : records) {
        e.apply_move(m);
        std::vector<std::int32_t> row;
        e.export_tree(row);
        EXPECT_EQ(slow_length(row.data()), score + (m.cost - base)) << "clip " << clip;
        auto s = splits_of(row, n);
        if (s != self) reached.insert(s);
        e.anc = anc; e.left = left; e.right = right;
        e.compute_all();
      }
    }
    EXPECT_EQ(reached, tbr_neighbours(edges, n, 2 * n - 2)) << "round " << round;
  }
}

TEST_F(Search, SameSeedSameTrees) {
  std::string data = std::string("proc ") + QAX_TEST_DATA + "/Wills2012.xread;";
  run(data + "rseed 17; mult=replic 4 tbr hold 3;");
  std::vector<std::int32_t> first(trees::tree_store.rows.begin(),
                                  trees::tree_store.rows.begin() + trees::tree_store.ntrees * trees::tree_store.row_size);
  run("rseed 17; mult=replic 4 tbr hold 3;");
  std::vector<std::int32_t> second(trees::tree_store.rows.begin(),
                                   trees::tree_store.rows.begin() + trees::tree_store.ntrees * trees::tree_store.row_size);
  EXPECT_EQ(first, second);
}

TEST_F(Search, BbreakImprovesAndKeepsEqualTrees) {
  std::string out = run(std::string("proc ") + QAX_TEST_DATA + "/Longrich2010.xread; mult=replic 1 wagner; bbreak=tbr;");
  EXPECT_TRUE(has(out, "Start swapping from 1 trees (score ")) << out;
  EXPECT_TRUE(has(out, "Best score (TBR): 128.  ")) << out;
  check_store(128);
  EXPECT_GT(trees::tree_store.ntrees, 1);
}

TEST_F(Search, MessagesAndEdgeCases) {
  std::string out = run("bbreak;");
  EXPECT_TRUE(has(out, "Must read data first")) << out;
  out = run(std::string("proc ") + QAX_TEST_DATA + "/Asher2005.xread; keep 0; bbreak;");
  EXPECT_TRUE(has(out, "No trees to swap")) << out;
  out = run("mult x;");
  EXPECT_TRUE(has(out, "Wrong argument for mult: x")) << out;
  out = run("mult= replic 2 foo;");
  EXPECT_TRUE(has(out, "Unidentified string in mult options: foo")) << out;
  out = run("mult= replic 200000;");
  EXPECT_TRUE(has(out, "Can't do 200000 random addition sequences (max=100000)")) << out;
  out = run("bbreak: clustersize 20; bbreak= clustersize 20;");
  EXPECT_TRUE(has(out, "Clustersize can be changed only with the \":\" option")) << out;
  EXPECT_EQ(search::search_settings.clustersize, 20);
  out = run("mult=rep 0;");
  EXPECT_TRUE(has(out, "Completed 0 random addition sequences.")) << out;
  EXPECT_EQ(trees::tree_store.ntrees, 0);
  out = run("rseed 5; rseed [; rseed;");
  EXPECT_EQ(search::search_settings.seed, 5);
  EXPECT_EQ(search::search_settings.random_insertion, 1);
  out = run("mult=replic 20 hold 1; mult: cas 3;");
  EXPECT_EQ(search::last_best_score, 341) << out;
  out = run("mult=replic 20 hold 2;");
  EXPECT_EQ(search::search_settings.sequence_kind, search::sequence_closest);
  EXPECT_EQ(search::last_best_score, 341) << out;
  check_store(341);
}

namespace {

// Characters evolved along a random tree with few changes per branch, so that sets agree
// over long stretches of the tree and a local change dies out after a few nodes (this is
// what the incremental updates exploit, and where their bookkeeping is exercised).
std::string tree_matrix(const Edges& edges, int ntax, int nchar, std::mt19937& rng) {
  const int nvert = 2 * ntax - 2;
  std::vector<std::vector<int>> adj(nvert);
  for (auto [a, b] : edges) { adj[a].push_back(b); adj[b].push_back(a); }
  std::vector<std::string> seq(nvert, std::string(nchar, '0'));
  for (int c = 0; c < nchar; ++c) seq[0][c] = static_cast<char>('0' + rng() % 4);
  std::vector<std::pair<int, int>> st{{0, -1}};
  while (!st.empty()) {
    auto [v, from] = st.back();
    st.pop_back();
    for (int w : adj[v]) {
      if (w == from) continue;
      seq[w] = seq[v];
      for (int c = 0; c < nchar; ++c)
        if (rng() % 14 == 0) seq[w][c] = static_cast<char>('0' + rng() % 4);
      st.push_back({w, v});
    }
  }
  std::string s = "xread " + std::to_string(nchar) + " " + std::to_string(ntax) + "\n";
  for (int t = 0; t < ntax; ++t) s += "t" + std::to_string(t) + " " + seq[t] + "\n";
  return s + ";";
}

// The engine's sets against a full recomputation, on the nodes of the tree.
void expect_sets_match_full(search::Engine& e, const char* what, bool with_score) {
  const auto d = e.down, u = e.up, ed = e.edge;
  const double score = e.score;
  e.compute_all();
  if (with_score) EXPECT_EQ(score, e.score) << what;
  const std::size_t W = static_cast<std::size_t>(e.W);
  for (int n = 0; n < e.nn; ++n) {
    if (n != e.nt && e.anc[n] < 0) continue;
    EXPECT_TRUE(std::equal(d.begin() + n * W, d.begin() + (n + 1) * W, e.down.begin() + n * W)) << what << " down " << n;
    if (n == e.nt) continue;
    EXPECT_TRUE(std::equal(u.begin() + n * W, u.begin() + (n + 1) * W, e.up.begin() + n * W)) << what << " up " << n;
    EXPECT_TRUE(std::equal(ed.begin() + n * W, ed.begin() + (n + 1) * W, e.edge.begin() + n * W)) << what << " edge " << n;
  }
}

}  // namespace

static void incremental_sets_body() {
  std::mt19937 rng(23);
  const int n = 60;
  Edges truth = random_edges(n, rng);
  run(tree_matrix(truth, n, 300, rng));
  optim::pack_data();
  search::engine_refresh();
  search::Engine& e = search::engine();
  // Wagner insertions at random branches.
  std::fill(e.anc.begin(), e.anc.end(), -1);
  std::fill(e.left.begin(), e.left.end(), -1);
  std::fill(e.right.begin(), e.right.end(), -1);
  const int root = n, q = n + 1;
  e.left[root] = 0; e.right[root] = q; e.anc[0] = root; e.anc[q] = root;
  e.left[q] = 1; e.right[q] = 2; e.anc[1] = e.anc[2] = q;
  e.compute_all();
  for (int t = 3; t < n; ++t) {
    std::vector<int> branches;
    for (int v = 0; v < e.nn; ++v)
      if (e.anc[v] >= 0 && v != e.left[root]) branches.push_back(v);
    e.insert_leaf(t, branches[rng() % branches.size()], n + t - 1);
    expect_sets_match_full(e, "insert", false);
  }
  // Accepted moves, updated incrementally.
  int moves = 0;
  for (int round = 0; round < 40; ++round) {
    const int clip = static_cast<int>(rng() % e.nn);
    search::Move best;
    std::vector<search::Move> records;
    std::uint64_t examined = 0;
    if (e.evaluate_clip(clip, true, true, 3, best, records, examined) < 0 || records.empty()) continue;
    e.apply_move(records[rng() % records.size()]);
    e.update_after_move();
    expect_sets_match_full(e, "move", true);
    ++moves;
  }
  EXPECT_GT(moves, 20);
}

static void larger_tree_body() {
  std::mt19937 rng(31);
  const int n = 48;
  Edges truth = random_edges(n, rng);
  run(tree_matrix(truth, n, 200, rng));
  optim::pack_data();
  search::engine_refresh();
  search::Engine& e = search::engine();
  // A tree a few random moves away from the true one: costs near the base are common.
  auto parent = parent_from_edges(truth, n, 2 * n - 2);
  ASSERT_TRUE(e.load(parent));
  e.compute_all();
  for (int k = 0; k < 6; ++k) {
    search::Move best;
    std::vector<search::Move> records;
    std::uint64_t examined = 0;
    const int clip = static_cast<int>(rng() % e.nn);
    if (e.evaluate_clip(clip, true, true, 6, best, records, examined) < 0 || records.empty()) continue;
    e.apply_move(records[rng() % records.size()]);
    e.compute_all();
  }
  std::vector<std::int32_t> row;
  e.export_tree(row);
  const double score = e.compute_all();
  ASSERT_EQ(score, slow_length(row.data()));
  std::vector<int> anc = e.anc, left = e.left, right = e.right;
  int checked = 0;
  for (int clip = 0; clip < e.nn; ++clip) {
    search::Move best;
    std::vector<search::Move> records;
    std::uint64_t examined = 0;
    // Every third clip keeps all its moves: a spread of them is checked.
    const int base = e.evaluate_clip(clip, true, true, clip % 3 ? 4 : 1 << 20, best, records, examined);
    if (base < 0) continue;
    std::vector<search::Move> check;
    const std::size_t stride = std::max<std::size_t>(1, records.size() / 12);
    for (std::size_t k = 0; k < records.size(); k += stride) check.push_back(records[k]);
    if (best.clip >= 0) check.push_back(best);
    for (const auto& m : check) {
      e.apply_move(m);
      e.export_tree(row);
      EXPECT_EQ(slow_length(row.data()), score + (m.cost - base)) << "clip " << clip;
      e.anc = anc; e.left = left; e.right = right;
      e.compute_all();
      ++checked;
    }
  }
  EXPECT_GT(checked, 400);
}

// Every kernel variant the machine can run, each against full recomputation and the slow
// scorer.
TEST_F(Search, IncrementalSetsEqualFullRecomputation) {
  for (int v : {optim::kernel_64, optim::kernel_auto}) {
    optim::kernel_override = v;
    incremental_sets_body();
    larger_tree_body();
    if (v == optim::kernel_64) EXPECT_STREQ(optim::kernels.name, "64-bit");
  }
  optim::kernel_override = optim::kernel_auto;
}

TEST_F(Search, LimitedTbrIsASubsetAndWholeAtALargeLimit) {
  std::mt19937 rng(41);
  const int n = 30;
  Edges truth = random_edges(n, rng);
  run(tree_matrix(truth, n, 120, rng));
  optim::pack_data();
  search::engine_refresh();
  search::Engine& e = search::engine();
  ASSERT_TRUE(e.load(parent_from_edges(random_edges(n, rng), n, 2 * n - 2)));
  e.compute_all();
  auto moves = [&](int clip, int limit) {
    e.limit = limit;
    search::Move best;
    std::vector<search::Move> records;
    std::uint64_t examined = 0;
    e.evaluate_clip(clip, true, true, 1 << 20, best, records, examined);
    e.limit = 0;
    std::set<std::tuple<int, int, int>> out;
    for (const auto& m : records) out.insert({m.reroot, m.target, m.cost});
    if (limit > 0 && e.anc[clip] != e.nt) EXPECT_EQ(examined, records.size()) << "clip " << clip;
    return out;
  };
  int smaller = 0;
  for (int clip = 0; clip < e.nn; ++clip) {
    const auto all = moves(clip, 0);
    EXPECT_EQ(moves(clip, 1000), all) << "clip " << clip;
    const auto near = moves(clip, 2);
    EXPECT_TRUE(std::includes(all.begin(), all.end(), near.begin(), near.end())) << "clip " << clip;
    if (near.size() < all.size()) ++smaller;
    // One node away: the targets beside the clip point, with the unchanged rooting.
    for (const auto& m : moves(clip, 1)) EXPECT_TRUE(near.count(m)) << "clip " << clip;
  }
  EXPECT_GT(smaller, 10);
}

// Compatible characters (one per split of a tree): any Wagner build that puts each taxon at
// a cheapest branch ends at one step per character, so a region test that wrongly ruled out
// the cheapest branch would show as a longer tree.
TEST_F(Search, ClusteredAndInformativeBuildsPlaceAtCheapestBranches) {
  std::mt19937 rng(53);
  const int n = 70;
  auto parent = parent_from_edges(random_edges(n, rng), n, 2 * n - 2);
  const auto splits = splits_of(parent, n);
  std::string m = "xread " + std::to_string(splits.size()) + " " + std::to_string(n) + "\n";
  for (int t = 0; t < n; ++t) {
    m += "t" + std::to_string(t) + " ";
    for (const auto& sp : splits) m += std::binary_search(sp.begin(), sp.end(), t) ? '1' : '0';
    m += "\n";
  }
  run(m + ";");
  const double perfect = static_cast<double>(splits.size());
  search::wagner_region_faults = 0;
  for (const char* opts : {"wcluster 10", "wcluster 4 ias", "ias", "ias 3"}) {
    std::string out = run(std::string("bbreak:clustersize 3; mult=replic 6 wagner ") + opts + ";");
    EXPECT_EQ(search::last_best_score, perfect) << opts << "\n" << out;
    EXPECT_TRUE(has(out, "Best score hit 6 times out of 6.")) << opts << "\n" << out;
    check_store(perfect);
  }
  EXPECT_EQ(search::wagner_region_faults, 0);
  // Noisy data: the regions still cover their members.
  run(tree_matrix(random_edges(n, rng), n, 150, rng));
  run("bbreak:clustersize 3; mult=replic 4 wagner wcluster 8;");
  EXPECT_EQ(search::wagner_region_faults, 0);
  search::wagner_region_faults = -1;
  EXPECT_TRUE(has(run("mult=replic 1 wagner wcluster 10 cas 3;"), "Cannot use selected addseqs together with clusters"));
  EXPECT_TRUE(has(run("rseed [; mult=replic 1 wagner wcluster 10 ras;"),
                  "Sorry, wagner trees with node-clusters can't be done with random insertion sequence"));
}

// Collapsing by swapping against brute force: a group collapses when some neighbour of the
// same score (by the slow scorer) lacks it.
TEST_F(Search, SwapCollapsingMatchesEqualScoreNeighbours) {
  std::mt19937 rng(23);
  optim::swap_collapse_hook = search::swap_collapse;
  int collapsed[2] = {0, 0}, kept[2] = {0, 0};
  for (int round = 0; round < 24; ++round) {
    const int n = 6 + round % 4;
    Edges edges = random_edges(n, rng);
    // Characters that fit the tree give supported groups, random ones mostly unsupported.
    run(round % 3 ? tree_matrix(edges, n, 4 + round % 7, rng) : random_matrix(n, 3 + round % 5, 3, rng));
    optim::pack_data();
    const auto parent = parent_from_edges(edges, n, 2 * n - 2);
    const int score = slow_length(parent.data());
    for (int tbr = 0; tbr < 2; ++tbr) {
      std::set<std::vector<int>> lost;
      const auto own = splits_of(parent, n);
      auto check = [&](const std::vector<std::int32_t>& t) {
        if (slow_length(t.data()) != score) return;
        const auto s = splits_of(t, n);
        for (const auto& g : own) if (!s.count(g)) lost.insert(g);
      };
      if (tbr) for_each_tbr_neighbour(edges, n, 2 * n - 2, check);
      else for_each_spr_neighbour(parent, n, check);
      std::vector<std::uint8_t> keep;
      optim::collapse_tree(parent.data(), keep, nullptr, tbr ? optim::collapse_tbr : optim::collapse_spr);
      // Each inner node's group, on the side without taxon 0.
      std::vector<std::vector<int>> below(parent[n]);
      for (int t = 1; t < n; ++t)
        for (int a = parent[t]; a != n; a = parent[a]) below[a].push_back(t);
      for (int v = n + 1; v < parent[n]; ++v) {
        auto g = below[v];
        std::sort(g.begin(), g.end());
        if (g.size() < 2 || static_cast<int>(g.size()) > n - 2) continue;
        EXPECT_EQ(keep[v], lost.count(g) ? 0 : 1) << (tbr ? "TBR" : "SPR") << ", round " << round << ", node " << v;
        ++(keep[v] ? kept : collapsed)[tbr];
      }
    }
  }
  // Both verdicts occur under both rules.
  EXPECT_GT(collapsed[0], 10);
  EXPECT_GT(kept[0], 10);
  EXPECT_GT(collapsed[1], 10);
  EXPECT_GT(kept[1], 10);
}
