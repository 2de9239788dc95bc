// Groups and triplets of two trees compared. Plain and cubic at worst: these run once per
// pair of trees of a command.
#include "support/tree_compare.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <limits>

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

namespace {

// Depth of the lowest common ancestor of every pair of the listed taxa (n x n).
std::vector<int> lca_depths(const std::int32_t* tree, int ntax, const std::vector<int>& taxa) {
  const int n = static_cast<int>(taxa.size());
  std::vector<std::vector<int>> path(n);
  for (int i = 0; i < n; ++i) {
    for (int v = tree[taxa[i]];; v = tree[v]) {
      path[i].push_back(v);
      if (v == ntax) break;
    }
    std::reverse(path[i].begin(), path[i].end());   // root first
  }
  std::vector<int> d(static_cast<std::size_t>(n) * n, 0);
  for (int i = 0; i < n; ++i)
    for (int j = i + 1; j < n; ++j) {
      std::size_t k = 0;
      while (k < path[i].size() && k < path[j].size() && path[i][k] == path[j][k]) ++k;
      d[static_cast<std::size_t>(i) * n + j] = d[static_cast<std::size_t>(j) * n + i] = static_cast<int>(k);
    }
  return d;
}

// 0 unresolved, else 1 + the position (0, 1, 2) of the taxon left outside.
int triplet_resolution(const std::vector<int>& d, int n, int i, int j, int k) {
  const int ij = d[static_cast<std::size_t>(i) * n + j], ik = d[static_cast<std::size_t>(i) * n + k],
            jk = d[static_cast<std::size_t>(j) * n + k];
  if (ij > ik && ij > jk) return 3;
  if (ik > ij && ik > jk) return 2;
  if (jk > ij && jk > ik) return 1;
  return 0;
}

}  // namespace

TripletStability triplet_stability(const std::vector<const std::int32_t*>& trees, int ntax,
                                   const std::vector<std::uint8_t>& include) {
  std::vector<int> taxa;
  for (int t = 0; t < ntax; ++t)
    if (include[t]) taxa.push_back(t);
  const int n = static_cast<int>(taxa.size());
  const long long m = static_cast<long long>(n) * (n - 1) * (n - 2) / 6;
  std::vector<std::int32_t> counts(static_cast<std::size_t>(std::max(0LL, m)) * 4, 0);
  for (const std::int32_t* tree : trees) {
    const std::vector<int> d = lca_depths(tree, ntax, taxa);
    std::size_t idx = 0;
    for (int i = 0; i < n; ++i)
      for (int j = i + 1; j < n; ++j)
        for (int k = j + 1; k < n; ++k, ++idx) ++counts[idx * 4 + triplet_resolution(d, n, i, j, k)];
  }
  TripletStability r;
  r.lsi.assign(ntax, -1.0);
  r.pcr.assign(ntax, -1.0);
  std::vector<double> lsi_sum(n, 0), pcr_sum(n, 0);
  std::vector<long long> held(n, 0);
  const double nt = static_cast<double>(trees.size());
  std::size_t idx = 0;
  for (int i = 0; i < n; ++i)
    for (int j = i + 1; j < n; ++j)
      for (int k = j + 1; k < n; ++k, ++idx) {
        int c[3] = {counts[idx * 4 + 1], counts[idx * 4 + 2], counts[idx * 4 + 3]};
        std::sort(c, c + 3);
        const double diff = nt > 0 ? (c[2] - c[1]) / nt : 0;
        const double alike = c[2] == static_cast<int>(trees.size()) ? 1.0 : 0.0;
        for (int x : {i, j, k}) {
          lsi_sum[x] += diff;
          pcr_sum[x] += alike;
          ++held[x];
        }
      }
  for (int i = 0; i < n; ++i) {
    r.lsi[taxa[i]] = held[i] ? lsi_sum[i] / held[i] : 0;
    r.pcr[taxa[i]] = held[i] ? pcr_sum[i] / held[i] : 0;
  }
  return r;
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
        r.conflicting += ra != 0 && rb != 0 && ra != rb;
      }
  return r;
}


MrpMapping map_mrp(const std::int32_t* source, const std::int32_t* target, int ntax,
                   const std::vector<std::uint8_t>& include) {
  MrpMapping r;
  int taxa = 0;
  for (int t = 0; t < ntax; ++t) taxa += include[t] != 0;
  const std::vector<GroupBits> groups = tree_groups(source, ntax, include, true, 0);
  // Nodes of the target from the leaves up.
  const int end = std::max(target[ntax], ntax + 1);
  std::vector<std::vector<int>> kids(end);
  for (int n = 0; n < end; ++n) {
    if (n == ntax || (n < ntax && (target[n] < ntax || !include[n]))) continue;
    if (target[n] >= ntax && target[n] < end) kids[target[n]].push_back(n);
  }
  std::vector<int> order{ntax};
  for (std::size_t k = 0; k < order.size(); ++k)
    for (int c : kids[order[k]])
      if (c >= ntax) order.push_back(c);
  std::vector<int> set(end, 3);   // bit 0: absent state, bit 1: present state
  for (const GroupBits& g : groups) {
    const int k = bit_count(g);
    r.maximum += std::min(k, taxa - k + 1);
    r.minimum += 1;
    for (int t = 0; t < ntax; ++t) set[t] = (g[t / 64] >> (t % 64) & 1) ? 2 : 1;
    long long steps = 0;
    for (std::size_t i = order.size(); i-- > 0;) {
      const int v = order[i];
      int with0 = 0, with1 = 0, n = 0;
      for (int c : kids[v]) {
        if (c < ntax || !kids[c].empty()) {
          ++n;
          with0 += set[c] & 1;
          with1 += set[c] >> 1 & 1;
        }
      }
      if (n == 0) {
        set[v] = 3;
        kids[v].clear();
        continue;
      }
      const int cost0 = n - with0, cost1 = n - with1;
      steps += std::min(cost0, cost1);
      set[v] = (cost0 <= cost1 ? 1 : 0) | (cost1 <= cost0 ? 2 : 0);
    }
    if (!(set[ntax] & 1)) ++steps;
    r.steps += steps;
  }
  return r;
}

long long pectinate_mrp_maximum(int taxa) noexcept {
  long long g = 0;
  for (int k = 2; k <= taxa - 1; ++k) g += std::min(k, taxa - k + 1);
  return g;
}

namespace {

double plogp(double p) { return p > 0 ? p * std::log2(p) : 0.0; }
double split_entropy(int k, int n) {
  const double p = static_cast<double>(k) / n;
  return -(plogp(p) + plogp(1 - p));
}

}  // namespace

double pectinate_cluster_entropy(int taxa) noexcept {
  double h = 0;
  for (int k = 2; k <= taxa - 1; ++k) h += split_entropy(k, taxa);
  return h;
}

double max_assignment(const std::vector<std::vector<double>>& value) {
  const int rows = static_cast<int>(value.size());
  const int cols = rows ? static_cast<int>(value[0].size()) : 0;
  if (rows == 0 || cols == 0) return 0;
  // Square cost matrix (padding with zeros), minimising the negated values.
  const int n = std::max(rows, cols);
  double top = 0;
  for (const auto& row : value)
    for (double v : row) top = std::max(top, v);
  auto cost = [&](int i, int j) { return i < rows && j < cols ? top - value[i][j] : top; };
  const double inf = std::numeric_limits<double>::infinity();
  std::vector<double> u(n + 1, 0), v(n + 1, 0), way_min(n + 1);
  std::vector<int> match(n + 1, 0), way(n + 1, 0);
  for (int i = 1; i <= n; ++i) {
    match[0] = i;
    int j0 = 0;
    std::fill(way_min.begin(), way_min.end(), inf);
    std::vector<char> used(n + 1, 0);
    do {
      used[j0] = 1;
      const int i0 = match[j0];
      double delta = inf;
      int j1 = 0;
      for (int j = 1; j <= n; ++j) {
        if (used[j]) continue;
        const double cur = cost(i0 - 1, j - 1) - u[i0] - v[j];
        if (cur < way_min[j]) {
          way_min[j] = cur;
          way[j] = j0;
        }
        if (way_min[j] < delta) {
          delta = way_min[j];
          j1 = j;
        }
      }
      for (int j = 0; j <= n; ++j) {
        if (used[j]) {
          u[match[j]] += delta;
          v[j] -= delta;
        } else {
          way_min[j] -= delta;
        }
      }
      j0 = j1;
    } while (match[j0] != 0);
    do {
      const int j1 = way[j0];
      match[j0] = match[j1];
      j0 = j1;
    } while (j0);
  }
  double sum = 0;
  for (int j = 1; j <= n; ++j) {
    const int i = match[j] - 1;
    if (i < rows && j - 1 < cols) sum += value[i][j - 1];
  }
  return sum;
}

double cluster_information_distance(const std::int32_t* a, const std::int32_t* b, int ntax,
                                    const std::vector<std::uint8_t>& include, double* entropy_first,
                                    double* entropy_second) {
  int n = 0;
  for (int t = 0; t < ntax; ++t) n += include[t] != 0;
  const auto ga = tree_groups(a, ntax, include, true, 0);
  const auto gb = tree_groups(b, ntax, include, true, 0);
  double ha = 0, hb = 0;
  for (const auto& g : ga) ha += split_entropy(bit_count(g), n);
  for (const auto& g : gb) hb += split_entropy(bit_count(g), n);
  if (entropy_first) *entropy_first = ha;
  if (entropy_second) *entropy_second = hb;
  std::vector<std::vector<double>> mi(ga.size(), std::vector<double>(gb.size(), 0.0));
  for (std::size_t i = 0; i < ga.size(); ++i) {
    const int ka = bit_count(ga[i]);
    for (std::size_t j = 0; j < gb.size(); ++j) {
      const int kb = bit_count(gb[j]);
      int both = 0;
      for (std::size_t w = 0; w < ga[i].size(); ++w) both += std::popcount(ga[i][w] & gb[j][w]);
      const int cells[4] = {both, ka - both, kb - both, n - ka - kb + both};
      const double pa[2] = {static_cast<double>(ka) / n, 1.0 - static_cast<double>(ka) / n};
      const double pb[2] = {static_cast<double>(kb) / n, 1.0 - static_cast<double>(kb) / n};
      double m = 0;
      for (int c = 0; c < 4; ++c) {
        const double p = static_cast<double>(cells[c]) / n;
        const double q = pa[c == 0 || c == 1 ? 0 : 1] * pb[c == 0 || c == 2 ? 0 : 1];
        if (p > 0) m += p * std::log2(p / q);
      }
      mi[i][j] = std::max(0.0, m);
    }
  }
  const double matched = max_assignment(mi);
  return std::max(0.0, ha + hb - 2 * matched);
}

}  // namespace qax::support
