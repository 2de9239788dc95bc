// Groups and triplets of two trees compared. Plain and cubic at worst: these run once per
// pair of trees of a command.
#include "support/tree_compare.h"

#include <algorithm>
#include <bit>

namespace qax::support {

ComparisonValues last_comparison;

namespace {

// Included terminals below every node, as bit rows.
std::vector<GroupBits> below_bits(const std::int32_t* tree, int ntax, const std::vector<std::uint8_t>& include) {
  const int end = std::max(tree[ntax], ntax + 1);
  const int words = (ntax + 63) / 64;
  std::vector<GroupBits> below(end, GroupBits(words, 0));
  for (int t = 0; t < ntax; ++t) {
    if (!include[t] || tree[t] < ntax) continue;
    below[t][t / 64] |= 1ull << (t % 64);
    for (int a = tree[t], guard = 0; a >= ntax && a < end && guard < end; a = tree[a], ++guard) {
      below[a][t / 64] |= 1ull << (t % 64);
      if (a == ntax) break;
    }
  }
  return below;
}

int bit_count(const GroupBits& g) {
  int n = 0;
  for (auto w : g) n += std::popcount(w);
  return n;
}

}  // namespace

std::vector<std::uint8_t> shared_taxa(const std::int32_t* a, const std::int32_t* b, int ntax,
                                      const std::vector<std::uint8_t>& excluded) {
  std::vector<std::uint8_t> inc(ntax, 0);
  for (int t = 0; t < ntax; ++t)
    inc[t] = a[t] >= ntax && b[t] >= ntax && (excluded.empty() || !excluded[t]);
  return inc;
}

int root_terminal(const std::int32_t* tree, int ntax) {
  for (int t = 0; t < ntax; ++t)
    if (tree[t] == ntax) return t;
  return -1;
}

std::vector<GroupBits> tree_groups(const std::int32_t* tree, int ntax, const std::vector<std::uint8_t>& include,
                                   bool rooted, int outgroup) {
  const int end = std::max(tree[ntax], ntax + 1);
  int taxa = 0;
  for (int t = 0; t < ntax; ++t) taxa += include[t] && tree[t] >= ntax;
  const std::vector<GroupBits> below = below_bits(tree, ntax, include);
  GroupBits all(below[ntax]);
  std::vector<GroupBits> out;
  for (int v = ntax + 1; v < end; ++v) {
    GroupBits g = below[v];
    int s = bit_count(g);
    if (!rooted && (g[outgroup / 64] >> (outgroup % 64) & 1)) {
      for (std::size_t w = 0; w < g.size(); ++w) g[w] = all[w] & ~g[w];
      s = taxa - s;
    }
    if (s < 2 || s > (rooted ? taxa - 1 : taxa - 2)) continue;
    out.push_back(std::move(g));
  }
  std::sort(out.begin(), out.end());
  out.erase(std::unique(out.begin(), out.end()), out.end());
  return out;
}

bool bits_conflict(const GroupBits& a, const GroupBits& b) noexcept {
  bool both = false, only_a = false, only_b = false;
  for (std::size_t w = 0; w < a.size(); ++w) {
    both |= (a[w] & b[w]) != 0;
    only_a |= (a[w] & ~b[w]) != 0;
    only_b |= (b[w] & ~a[w]) != 0;
  }
  return both && only_a && only_b;
}

GroupComparison compare_groups(const std::int32_t* a, const std::int32_t* b, int ntax,
                               const std::vector<std::uint8_t>& include, bool rooted, int outgroup) {
  GroupComparison r;
  for (int t = 0; t < ntax; ++t) r.taxa += include[t] != 0;
  const auto ga = tree_groups(a, ntax, include, rooted, outgroup);
  const auto gb = tree_groups(b, ntax, include, rooted, outgroup);
  r.groups_first = static_cast<int>(ga.size());
  r.groups_second = static_cast<int>(gb.size());
  for (const auto& g : ga) r.only_first += !std::binary_search(gb.begin(), gb.end(), g);
  for (const auto& g : gb) r.only_second += !std::binary_search(ga.begin(), ga.end(), g);
  return r;
}

double rf_value(const GroupComparison& g, bool rooted, int scale) noexcept {
  const double raw = g.only_first + g.only_second;
  if (scale == 0) return raw;
  if (scale == 1) {
    const double d = 2.0 * (g.taxa - (rooted ? 2 : 3));
    return d > 0 ? raw / d : 0.0;
  }
  const double present = g.groups_first + g.groups_second;
  return present > 0 ? raw / present : 0.0;
}

TripletComparison compare_triplets(const std::int32_t* a, const std::int32_t* b, int ntax,
                                   const std::vector<std::uint8_t>& include) {
  std::vector<int> taxa;
  for (int t = 0; t < ntax; ++t)
    if (include[t]) taxa.push_back(t);
  const int n = static_cast<int>(taxa.size());
  // Depth of the lowest common ancestor of every pair, per tree.
  auto lca_depths = [&](const std::int32_t* tree) {
    const int end = std::max(tree[ntax], ntax + 1);
    std::vector<int> depth(end, -1);
    depth[ntax] = 0;
    auto depth_of = [&](auto&& self, int v) -> int {
      if (depth[v] >= 0) return depth[v];
      return depth[v] = self(self, tree[v]) + 1;
    };
    std::vector<std::vector<int>> path(n);
    for (int i = 0; i < n; ++i) {
      for (int v = tree[taxa[i]]; ; v = tree[v]) {
        path[i].push_back(v);
        if (v == ntax) break;
      }
      std::reverse(path[i].begin(), path[i].end());   // root first
      depth_of(depth_of, taxa[i]);
    }
    std::vector<int> d(static_cast<std::size_t>(n) * n, 0);
    for (int i = 0; i < n; ++i)
      for (int j = i + 1; j < n; ++j) {
        std::size_t k = 0;
        while (k < path[i].size() && k < path[j].size() && path[i][k] == path[j][k]) ++k;
        d[static_cast<std::size_t>(i) * n + j] = d[static_cast<std::size_t>(j) * n + i] = static_cast<int>(k);
      }
    return d;
  };
  const std::vector<int> da = lca_depths(a), db = lca_depths(b);
  // 0 unresolved, else 1 + the taxon left outside (0, 1 or 2 of the triplet).
  auto resolution = [&](const std::vector<int>& d, int i, int j, int k) {
    const int ij = d[static_cast<std::size_t>(i) * n + j], ik = d[static_cast<std::size_t>(i) * n + k],
              jk = d[static_cast<std::size_t>(j) * n + k];
    if (ij > ik && ij > jk) return 3;
    if (ik > ij && ik > jk) return 2;
    if (jk > ij && jk > ik) return 1;
    return 0;
  };
  TripletComparison r;
  for (int i = 0; i < n; ++i)
    for (int j = i + 1; j < n; ++j)
      for (int k = j + 1; k < n; ++k) {
        const int ra = resolution(da, i, j, k), rb = resolution(db, i, j, k);
        ++r.possible;
        r.resolved_first += ra != 0;
        r.resolved_second += rb != 0;
        r.false_first += ra != 0 && rb != ra;
        r.false_second += rb != 0 && ra != rb;
        r.differing += ra != rb;
      }
  return r;
}

}  // namespace qax::support
