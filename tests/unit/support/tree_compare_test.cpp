// Tree comparisons checked against slow references written here: Robinson-Foulds from
// clusters listed taxon by taxon, triplets resolved by scanning every node, and the true
// SPR distance by breadth-first search over all trees of up to 8 taxa.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <functional>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "support/tree_compare.h"
#include "common/harness.h"
#include "common/tree_fixtures.h"

using namespace qax;
using qax::test::has;
using qax::test::run;

namespace {

using Cluster = std::set<int>;

// Clusters of a tree (rooted), each the set of terminals below an inner node other than
// the root, of 2 up to ntax - 1 taxa.
std::set<Cluster> rooted_clusters(const std::vector<std::int32_t>& tree, int ntax) {
  std::set<Cluster> out;
  for (int v = ntax + 1; v < tree[ntax]; ++v) {
    auto c = test::taxa_below(tree.data(), ntax, v);
    if (c.size() >= 2 && static_cast<int>(c.size()) <= ntax - 1) out.insert(Cluster(c.begin(), c.end()));
  }
  return out;
}

// Bipartitions, each as the side without taxon 0.
std::set<Cluster> unrooted_splits(const std::vector<std::int32_t>& tree, int ntax) {
  std::set<Cluster> out;
  for (int v = ntax + 1; v < tree[ntax]; ++v) {
    auto c = test::taxa_below(tree.data(), ntax, v);
    Cluster s(c.begin(), c.end());
    if (s.count(0)) {
      Cluster o;
      for (int t = 0; t < ntax; ++t)
        if (!s.count(t)) o.insert(t);
      s = o;
    }
    if (s.size() >= 2 && static_cast<int>(s.size()) <= ntax - 2) out.insert(s);
  }
  return out;
}

int only_in(const std::set<Cluster>& a, const std::set<Cluster>& b) {
  int n = 0;
  for (const auto& c : a) n += !b.count(c);
  return n;
}

class TreeCompare : public ::testing::Test {};

TEST_F(TreeCompare, RobinsonFouldsAgreesWithClustersCountedOneByOne) {
  std::srand(12);
  for (int round = 0; round < 60; ++round) {
    const int ntax = 5 + round % 12;
    test::load_taxa(ntax);
    const auto a = test::random_complete(ntax, round % 3 == 0 ? 30 : 0);
    const auto b = test::random_complete(ntax, round % 4 == 0 ? 40 : 0);
    const std::vector<std::uint8_t> all(ntax, 1);
    for (bool rooted : {false, true}) {
      const auto ca = rooted ? rooted_clusters(a, ntax) : unrooted_splits(a, ntax);
      const auto cb = rooted ? rooted_clusters(b, ntax) : unrooted_splits(b, ntax);
      const support::GroupComparison g = support::compare_groups(a.data(), b.data(), ntax, all, rooted, 0);
      EXPECT_EQ(g.only_first, only_in(ca, cb));
      EXPECT_EQ(g.only_second, only_in(cb, ca));
      EXPECT_EQ(g.groups_first, static_cast<int>(ca.size()));
      const double raw = only_in(ca, cb) + only_in(cb, ca);
      EXPECT_DOUBLE_EQ(support::rf_value(g, rooted, 0), raw);
      EXPECT_DOUBLE_EQ(support::rf_value(g, rooted, 1), raw / (2.0 * (ntax - (rooted ? 2 : 3))));
      // A tree against itself.
      const auto self = support::compare_groups(a.data(), a.data(), ntax, all, rooted, 0);
      EXPECT_EQ(self.only_first + self.only_second, 0);
    }
  }
}

TEST_F(TreeCompare, BushAgainstBinaryTreeIsHalfOrOne) {
  const int ntax = 9;
  test::load_taxa(ntax);
  std::srand(3);
  const auto binary = test::random_complete(ntax, 0);
  std::vector<std::int32_t> bush(2 * ntax - 1, 0);
  for (int t = 0; t < ntax; ++t) bush[t] = ntax;
  bush[ntax] = ntax + 1;
  const std::vector<std::uint8_t> all(ntax, 1);
  const auto g = support::compare_groups(binary.data(), bush.data(), ntax, all, false, 0);
  EXPECT_DOUBLE_EQ(support::rf_value(g, false, 1), 0.5);
  EXPECT_DOUBLE_EQ(support::rf_value(g, false, 2), 1.0);
  const auto t = support::compare_triplets(binary.data(), bush.data(), ntax, all);
  EXPECT_EQ(t.resolved_second, 0);
  EXPECT_EQ(t.false_first, t.possible);
  EXPECT_DOUBLE_EQ(static_cast<double>(t.false_first + t.false_second) / (2.0 * t.possible), 0.5);
}

// Resolution of triplet (i, j, k) found by scanning the nodes: the taxon left out by the
// smallest cluster holding exactly two of them; -1 unresolved.
int slow_triplet(const std::vector<std::int32_t>& tree, int ntax, int i, int j, int k) {
  std::size_t best = 1u << 30;
  int out = -1;
  for (int v = ntax + 1; v < tree[ntax]; ++v) {
    auto c = test::taxa_below(tree.data(), ntax, v);
    Cluster s(c.begin(), c.end());
    const int in = s.count(i) + s.count(j) + s.count(k);
    if (in != 2 || s.size() >= best) continue;
    best = s.size();
    out = !s.count(i) ? i : !s.count(j) ? j : k;
  }
  return out;
}

TEST_F(TreeCompare, TripletsAgreeWithANodeByNodeScan) {
  std::srand(21);
  for (int round = 0; round < 30; ++round) {
    const int ntax = 4 + round % 8;
    test::load_taxa(ntax);
    const auto a = test::random_complete(ntax, round % 2 ? 35 : 0);
    const auto b = test::random_complete(ntax, round % 3 ? 0 : 35);
    long long ra = 0, rb = 0, fa = 0, fb = 0, diff = 0, all3 = 0;
    for (int i = 0; i < ntax; ++i)
      for (int j = i + 1; j < ntax; ++j)
        for (int k = j + 1; k < ntax; ++k) {
          const int x = slow_triplet(a, ntax, i, j, k), y = slow_triplet(b, ntax, i, j, k);
          ++all3;
          ra += x >= 0;
          rb += y >= 0;
          fa += x >= 0 && y != x;
          fb += y >= 0 && x != y;
          diff += x != y;
        }
    const auto t = support::compare_triplets(a.data(), b.data(), ntax, std::vector<std::uint8_t>(ntax, 1));
    EXPECT_EQ(t.possible, all3);
    EXPECT_EQ(t.resolved_first, ra);
    EXPECT_EQ(t.resolved_second, rb);
    EXPECT_EQ(t.false_first, fa);
    EXPECT_EQ(t.false_second, fb);
    EXPECT_EQ(t.differing, diff);
  }
}

TEST_F(TreeCompare, TripletExamplesOfFiveTaxa) {
  test::load_taxa(5);
  // (A(B(C(DE)))), (A(B(D(CE)))) and (A(B(CDE))) with A..E = 0..4.
  const std::vector<std::int32_t> t1{5, 6, 7, 8, 8, 9, 5, 6, 7}, t2{5, 6, 8, 7, 8, 9, 5, 6, 7},
      t3{5, 6, 7, 7, 7, 8, 5, 6, 0};
  const std::vector<std::uint8_t> all(5, 1);
  auto t = support::compare_triplets(t1.data(), t2.data(), 5, all);
  EXPECT_EQ(t.false_first + t.false_second, 2);
  EXPECT_EQ(t.differing, 1);
  t = support::compare_triplets(t1.data(), t3.data(), 5, all);
  EXPECT_EQ(t.false_first + t.false_second, 1);
  EXPECT_EQ(t.differing, 1);
}


TEST_F(TreeCompare, TaxonStabilityAgreesWithTripletsScannedOneByOne) {
  std::srand(31);
  for (int round = 0; round < 8; ++round) {
    const int ntax = 5 + round;
    test::load_taxa(ntax);
    std::vector<std::vector<std::int32_t>> trees;
    std::vector<const std::int32_t*> rows;
    for (int k = 0; k < 2 + round % 4; ++k) trees.push_back(test::random_complete(ntax, k % 2 ? 30 : 0));
    if (round % 3 == 0) trees.push_back(trees[0]);
    for (const auto& t : trees) rows.push_back(t.data());
    std::vector<std::uint8_t> inc(ntax, 1);
    inc[round % ntax] = 0;   // one taxon left out
    const auto st = support::triplet_stability(rows, ntax, inc);
    std::vector<double> lsi(ntax, 0), pcr(ntax, 0);
    std::vector<int> held(ntax, 0);
    for (int i = 0; i < ntax; ++i)
      for (int j = i + 1; j < ntax; ++j)
        for (int k = j + 1; k < ntax; ++k) {
          if (!inc[i] || !inc[j] || !inc[k]) continue;
          std::map<int, int> freq;
          for (const auto& t : trees) {
            const int r = slow_triplet(t, ntax, i, j, k);
            if (r >= 0) ++freq[r];
          }
          std::vector<int> f;
          for (auto [r, c] : freq) f.push_back(c);
          std::sort(f.rbegin(), f.rend());
          f.resize(3, 0);
          const double diff = static_cast<double>(f[0] - f[1]) / trees.size();
          const double alike = f[0] == static_cast<int>(trees.size()) ? 1 : 0;
          for (int x : {i, j, k}) {
            lsi[x] += diff;
            pcr[x] += alike;
            ++held[x];
          }
        }
    for (int t = 0; t < ntax; ++t) {
      if (!inc[t]) {
        EXPECT_EQ(st.lsi[t], -1.0);
        continue;
      }
      EXPECT_NEAR(st.lsi[t], lsi[t] / held[t], 1e-12) << "round " << round << " taxon " << t;
      EXPECT_NEAR(st.pcr[t], pcr[t] / held[t], 1e-12) << "round " << round << " taxon " << t;
    }
  }
}

// ---- true SPR distances by breadth-first search --------------------------------------
using Edges = std::vector<std::pair<int, int>>;

std::vector<std::int32_t> parent_from_edges(const Edges& edges, int ntax) {
  int nvert = 0;
  for (auto [a, b] : edges) nvert = std::max({nvert, a + 1, b + 1});
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

// The splits of an unrooted tree as sorted bit masks of the side without taxon 0.
using Key = std::vector<unsigned>;
Key key_of(const Edges& e, int ntax) {
  int nvert = 0;
  for (auto [a, b] : e) nvert = std::max({nvert, a + 1, b + 1});
  std::vector<std::vector<int>> adj(nvert);
  for (auto [a, b] : e) {
    adj[a].push_back(b);
    adj[b].push_back(a);
  }
  Key out;
  std::function<unsigned(int, int)> below = [&](int v, int from) -> unsigned {
    if (v < ntax && from >= 0) return 1u << v;
    unsigned m = 0;
    for (int w : adj[v])
      if (w != from) m |= below(w, v);
    const int size = __builtin_popcount(m);
    if (v >= ntax && size >= 2 && size <= ntax - 2) out.push_back(m);
    return m;
  };
  below(0, -1);
  std::sort(out.begin(), out.end());
  return out;
}

// Every tree one SPR move from e: cut a branch, move the part on one side by its cut end
// onto a branch of the other side.
std::vector<Edges> spr_neighbours(const Edges& e, int ntax) {
  std::vector<Edges> out;
  for (std::size_t cut = 0; cut < e.size(); ++cut) {
    Edges rest;
    for (std::size_t k = 0; k < e.size(); ++k)
      if (k != cut) rest.push_back(e[k]);
    for (int side = 0; side < 2; ++side) {
      const int stay = side ? e[cut].first : e[cut].second;
      const int move = side ? e[cut].second : e[cut].first;
      if (stay < ntax) continue;
      // The staying vertex now has two branches: they become one, and the vertex is used
      // again as the point where the moved part joins.
      std::vector<int> nb;
      Edges other;
      for (auto [a, b] : rest) {
        if (a == stay) nb.push_back(b);
        else if (b == stay) nb.push_back(a);
        else other.push_back({a, b});
      }
      other.push_back({nb[0], nb[1]});
      // Vertices on the staying side.
      std::set<int> seen{nb[0]};
      std::vector<int> todo{nb[0]};
      while (!todo.empty()) {
        const int v = todo.back();
        todo.pop_back();
        for (auto [a, b] : other) {
          const int w = a == v ? b : b == v ? a : -1;
          if (w >= 0 && w != move && !seen.count(w)) {
            seen.insert(w);
            todo.push_back(w);
          }
        }
      }
      for (std::size_t k = 0; k < other.size(); ++k) {
        auto [c, d] = other[k];
        if (!seen.count(c) || !seen.count(d) || k + 1 == other.size()) continue;
        Edges t = other;
        t[k] = {c, stay};
        t.push_back({stay, d});
        t.push_back({stay, move});
        out.push_back(t);
      }
    }
  }
  return out;
}

Edges random_edges(int n, std::mt19937& rng) {
  Edges e{{0, n}, {1, n}, {2, n}};
  for (int t = 3; t < n; ++t) {
    const std::size_t k = rng() % e.size();
    auto [a, b] = e[k];
    const int inner = n + t - 2;
    e[k] = {a, inner};
    e.push_back({inner, b});
    e.push_back({inner, t});
  }
  return e;
}

TEST_F(TreeCompare, SprEstimateIsExactAtOneMoveAndNeverBelowTheTrueDistance) {
  std::mt19937 rng(8);
  int pairs = 0, equal = 0, equal_stratified = 0;
  const int sizes[] = {6, 7, 8, 7};
  for (int round = 0; round < 4; ++round) {
    const int ntax = sizes[round];
    const Edges start = random_edges(ntax, rng);
    // Distances from start to every tree.
    std::map<Key, int> dist;
    std::map<Key, Edges> tree_of;
    std::vector<Edges> frontier{start};
    dist[key_of(start, ntax)] = 0;
    tree_of[key_of(start, ntax)] = start;
    for (int d = 1; !frontier.empty(); ++d) {
      std::vector<Edges> next;
      for (const Edges& e : frontier)
        for (const Edges& n : spr_neighbours(e, ntax)) {
          const Key k = key_of(n, ntax);
          if (dist.count(k)) continue;
          dist[k] = d;
          tree_of[k] = n;
          next.push_back(n);
        }
      frontier.swap(next);
    }
    const auto a = parent_from_edges(start, ntax);
    int tested = 0;
    for (const auto& [k, d] : dist) {
      if (rng() % (ntax == 8 ? 40 : 8) != 0 && d > 1) continue;
      const auto b = parent_from_edges(tree_of[k], ntax);
      const support::SprResult r = support::spr_distance(a.data(), b.data(), ntax, 10, 0, 1 + tested, false);
      EXPECT_GE(r.moves, d) << "ntax " << ntax;
      // Without moves onto ancestors: still real moves, never fewer than the distance.
      const auto r2 = support::spr_distance(a.data(), b.data(), ntax, 3, 0, 7 + tested, false, false);
      EXPECT_GE(r2.moves, d) << "ntax " << ntax;
      if (d <= 1) EXPECT_EQ(r.moves, d) << "ntax " << ntax;
      // Stratified replications (every level, or alternating with plain ones) still count
      // real moves.
      const auto rs = support::spr_distance(a.data(), b.data(), ntax, 10, 0, 1 + tested, false, true, 2, false);
      EXPECT_GE(rs.moves, d) << "ntax " << ntax;
      const auto ra = support::spr_distance(a.data(), b.data(), ntax, 10, 0, 1 + tested, false, true, 2, true);
      EXPECT_GE(ra.moves, d) << "ntax " << ntax;
      ++pairs;
      equal += r.moves == d;
      equal_stratified += rs.moves == d;
      ++tested;
    }
  }
  // The estimate is usually the true distance, and stratification finds it at least as often.
  EXPECT_GT(equal * 10, pairs * 8) << equal << " of " << pairs;
  EXPECT_GE(equal_stratified, equal);
  std::printf("SPR estimate equal to the true distance in %i of %i pairs (%i stratified)\n", equal, pairs,
              equal_stratified);
}


TEST_F(TreeCompare, AssignmentIsTheBestOverAllPermutations) {
  std::mt19937 rng(4);
  for (int round = 0; round < 40; ++round) {
    const int rows = 1 + round % 5, cols = 1 + (round / 5) % 5;
    std::vector<std::vector<double>> v(rows, std::vector<double>(cols));
    for (auto& r : v)
      for (double& x : r) x = (rng() % 1000) / 100.0;
    // Brute force: every injection of the smaller side into the larger.
    const int small = std::min(rows, cols), large = std::max(rows, cols);
    std::vector<int> perm(large);
    for (int i = 0; i < large; ++i) perm[i] = i;
    double best = 0;
    do {
      double sum = 0;
      for (int i = 0; i < small; ++i) sum += rows <= cols ? v[i][perm[i]] : v[perm[i]][i];
      best = std::max(best, sum);
    } while (std::next_permutation(perm.begin(), perm.end()));
    EXPECT_NEAR(support::max_assignment(v), best, 1e-9) << rows << "x" << cols;
  }
}

TEST_F(TreeCompare, ClusterInformationDistanceOfSameTreesAndBush) {
  std::srand(5);
  for (int round = 0; round < 10; ++round) {
    const int ntax = 5 + round;
    test::load_taxa(ntax);
    const auto a = test::random_complete(ntax, 0);
    const auto b = test::random_complete(ntax, 20);
    const std::vector<std::uint8_t> all(ntax, 1);
    EXPECT_NEAR(support::cluster_information_distance(a.data(), a.data(), ntax, all), 0, 1e-9);
    double ha = 0, hb = 0;
    const double d = support::cluster_information_distance(a.data(), b.data(), ntax, all, &ha, &hb);
    EXPECT_NEAR(d, support::cluster_information_distance(b.data(), a.data(), ntax, all), 1e-9);
    EXPECT_LE(d, ha + hb + 1e-9);
    std::vector<std::int32_t> bush(2 * ntax - 1, 0);
    for (int t = 0; t < ntax; ++t) bush[t] = ntax;
    bush[ntax] = ntax + 1;
    EXPECT_NEAR(support::cluster_information_distance(a.data(), bush.data(), ntax, all), ha, 1e-9);
    // Clusters of a tree: entropy of group and rest, summed.
    double h = 0;
    for (const auto& c : rooted_clusters(a, ntax)) {
      const double p = static_cast<double>(c.size()) / ntax;
      h -= p * std::log2(p) + (1 - p) * std::log2(1 - p);
    }
    EXPECT_NEAR(ha, h, 1e-9);
  }
}

TEST_F(TreeCompare, MatrixRepresentationStepsOnTreesAndBush) {
  test::load_taxa(6);
  // (a(b(c(d(ef))))) and (a(b(d(c(ef))))): one group of the first, {d e f}, costs two
  // steps on the second, the others one; G = 2 + 3 + 3 + 2.
  const std::vector<std::int32_t> t0{6, 7, 8, 9, 10, 10, 11, 6, 7, 8, 9};
  const std::vector<std::int32_t> t1{6, 7, 9, 8, 10, 10, 11, 6, 7, 8, 9};
  const std::vector<std::uint8_t> all(6, 1);
  auto m = support::map_mrp(t0.data(), t1.data(), 6, all);
  EXPECT_EQ(m.steps, 5);
  EXPECT_EQ(m.minimum, 4);
  EXPECT_EQ(m.maximum, 10);
  m = support::map_mrp(t0.data(), t0.data(), 6, all);
  EXPECT_EQ(m.steps, m.minimum);
  std::vector<std::int32_t> bush(11, 0);
  for (int t = 0; t < 6; ++t) bush[t] = 6;
  bush[6] = 7;
  m = support::map_mrp(t0.data(), bush.data(), 6, all);
  EXPECT_EQ(m.steps, m.maximum);
  EXPECT_EQ(support::pectinate_mrp_maximum(6), 10);
}

class TreeCompareCommands : public test::ShellTest {};

TEST_F(TreeCompareCommands, FormsAndMessages) {
  run("xread 2 6 a 00 b 00 c 00 d 00 e 00 f 00; collapse notempcollapse;"
      "tread (a (b (c (d (e f)))))*(a (b (d (c (e f)))))*(a (b (c d e f)))*(a b c d e f);");
  std::string out = run("tcomp < 0 / 3;");
  EXPECT_TRUE(has(out, "Robinson-Foulds distances:")) << out;
  EXPECT_TRUE(has(out, "Tree 3 is reference (best 0.500)")) << out;
  EXPECT_DOUBLE_EQ(support::last_comparison.rfdist, 0.5);
  out = run("tcomp << 0 / 3;");
  EXPECT_DOUBLE_EQ(support::last_comparison.rfdist, 1.0);
  out = run("tcomp ( 0 / 1;");
  EXPECT_DOUBLE_EQ(support::last_comparison.tripdist, 4.0 / 40.0);
  out = run("tcomp )! 0 / 1;");
  EXPECT_DOUBLE_EQ(support::last_comparison.tripdist, 2.0);
  out = run("tcomp 0 1;");
  EXPECT_TRUE(has(out, "Groups of tree 0 absent from 1 (compatible = |O|, contradictory = |X|)")) << out;
  EXPECT_TRUE(has(out, "X")) << out;
  out = run("tcomp 0;");
  EXPECT_TRUE(has(out, "Two tree numbers required")) << out;
  out = run("tcomp < {nonesuch} / 1;");
  out = run("tcomp | 0/1;");
  EXPECT_TRUE(has(out, "OSR values to tree 1:")) << out;
  // Of the 20 triplets of tree 1, 18 alike in tree 0 and 2 resolved otherwise.
  EXPECT_DOUBLE_EQ(support::last_comparison.osr, (18.0 - 2.0) / 20.0);
  out = run("tcomp @! 0 / 3;");
  EXPECT_TRUE(has(out, "Cluster Info Dist's to tree 3:")) << out;
  EXPECT_DOUBLE_EQ(support::last_comparison.clusdist, 0.5);
  out = run("tcomp = 0 / 1;");
  EXPECT_NEAR(support::last_comparison.discoeff, 5.0 / 6.0, 1e-12);
  out = run("tcomp !=1 0 1;");
  EXPECT_TRUE(has(out, "PCR values (2 trees):")) << out;
  out = run("tcomp & 1 0;");
  EXPECT_TRUE(has(out, "Tree 0 (group equivalences with tree 1)")) << out;
  out = run("sprdiff 0 1;");
  EXPECT_TRUE(has(out, "From tree 0 to tree 1: 1 SPR moves (similarity: 0.6667)")) << out;
  out = run("sprdiff 0 0;");
  EXPECT_TRUE(has(out, "From tree 0 to tree 0: 0 SPR moves (similarity: 1.0000)")) << out;
  out = run("sprdiff 2 0;");
  EXPECT_TRUE(has(out, "From tree 2 (best resolution) to tree 0: 0 SPR moves")) << out;
  out = run("sprdiff 0 1 0;");
  EXPECT_TRUE(has(out, "Number of replications must be 1-1000000")) << out;
  out = run("sprdiff 0 1 5x0;");
  EXPECT_TRUE(has(out, "Passes must be 1-1000")) << out;
  out = run("sprdiff [2;");
  EXPECT_TRUE(has(out, "Constant for tree-comparisons is 2.00000")) << out;
  out = run("sprdiff halvepoly;");
  EXPECT_TRUE(has(out, "Cannot use both weighted moves and halve resolutions!")) << out;
  out = run("sprdiff 0 1;");
  EXPECT_TRUE(has(out, "weighted (1 unwt) SPR moves")) << out;
  out = run("sprdiff ]; sprdiff bogus;");
  EXPECT_TRUE(has(out, "Unexpected \"bogus\"...")) << out;
  out = run("sprdiff noviolations;");
  EXPECT_TRUE(has(out, "Not allowing moves from one node to its ancestor,")) << out;
  run("sprdiff violations;");
}

}  // namespace
