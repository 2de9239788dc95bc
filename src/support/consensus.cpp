// The consensus calculations behind nelsen, majority, freqdifs, comcomp and rfreqs.
#include "support/consensus.h"

#include <algorithm>
#include <bit>
#include <climits>

#include "shell/failure.h"
#include "shell/output.h"
#include "support/temp_collapse.h"
#include "trees/store.h"

namespace qax::support {

using qax::trees::tree_row;
using qax::trees::tree_store;

ConsensusSettings consensus_settings;

void reset_consensus_settings() {
  consensus_settings = ConsensusSettings();
  temp_collapse_reset();
}

int tree_node_count(const std::int32_t* tree, int ntax) noexcept { return tree[ntax] - ntax - 1; }

int prepare_exclusions(const std::vector<int>& trees, const std::vector<std::uint8_t>& user, bool unshared,
                       std::vector<std::uint8_t>& excluded) {
  const int ntax = tree_store.ntax;
  const int full = 2 * ntax - 1;
  excluded.assign(ntax, 0);
  for (int i = 0; i < ntax && i < static_cast<int>(user.size()); ++i)
    if (user[i]) excluded[i] |= excluded_by_user;
  for (int k : trees) {
    const std::int32_t* tr = tree_row(k);
    // Absent terminals: some taxon hangs from nothing (cell below ntax).
    bool incomplete = tr[ntax] != full;
    if (!incomplete)
      for (int i = 0; i < ntax && !incomplete; ++i) incomplete = tr[i] < ntax;
    if (!incomplete) continue;
    for (int i = 0; i < ntax; ++i)
      if (tr[i] < ntax) {
        if (unshared) excluded[i] |= excluded_as_missing;
      }
  }
  int left = 0;
  for (int i = 0; i < ntax; ++i) left += excluded[i] == 0;
  if (left < 2) shell::error_exitf("Cannot calculate consensus of %i taxa?", left);
  return left;
}

namespace {

int count_included(const std::vector<std::uint8_t>& excluded) {
  int n = 0;
  for (auto e : excluded) n += e == 0;
  return n;
}

// Low-memory strict consensus: the result starts as the first tree; for each later
// tree, each node of the result is looked up by the least common ancestor of its
// included terminals in that tree; the group is there when that ancestor has as many
// included terminals below it. Nodes not found are collapsed at the end.
int strict_low_memory(const std::vector<int>& trees, const std::vector<std::uint8_t>& excluded,
                      std::int32_t* result) {
  const int ntax = tree_store.ntax;
  const int n = 2 * ntax - 1;
  const int included = count_included(excluded);
  const std::int32_t* ref = consensus_row(trees[0]);
  const int rend = ref[ntax];
  std::vector<int> rorder, depth(n), tsize(n), rsize(n), lca(n), firstdes(n), sister(n);
  std::vector<std::uint8_t> alive(n, 1);
  // Post-order of the reference (reverse breadth-first).
  auto breadth_first = [&](const std::int32_t* tr, std::vector<int>& order) {
    const int end = tr[ntax];
    std::fill(firstdes.begin(), firstdes.end(), -1);
    for (int v = end - 1; v >= 0; --v) {
      if (v == ntax || tr[v] < ntax || tr[v] >= end) continue;
      sister[v] = firstdes[tr[v]];
      firstdes[tr[v]] = v;
    }
    order.clear();
    order.push_back(ntax);
    for (std::size_t h = 0; h < order.size(); ++h)
      for (int c = firstdes[order[h]]; c >= 0; c = sister[c]) order.push_back(c);
  };
  breadth_first(ref, rorder);
  std::vector<int> rparent(ref, ref + n);
  for (int i = static_cast<int>(rorder.size()) - 1; i >= 0; --i) {
    const int v = rorder[i];
    if (v < ntax) rsize[v] = excluded[v] ? 0 : 1;
    if (v != ntax) rsize[ref[v]] += rsize[v];
  }
  std::vector<int> torder;
  for (std::size_t k = 1; k < trees.size(); ++k) {
    const std::int32_t* tr = consensus_row(trees[k]);
    breadth_first(tr, torder);
    std::fill(tsize.begin(), tsize.end(), 0);
    depth[ntax] = 0;
    for (std::size_t i = 1; i < torder.size(); ++i) depth[torder[i]] = depth[tr[torder[i]]] + 1;
    for (int i = static_cast<int>(torder.size()) - 1; i >= 0; --i) {
      const int v = torder[i];
      if (v < ntax) tsize[v] = excluded[v] ? 0 : 1;
      if (v != ntax) tsize[tr[v]] += tsize[v];
    }
    auto meet = [&](int a, int b) {
      if (a < 0) return b;
      if (b < 0) return a;
      while (depth[a] > depth[b]) a = tr[a];
      while (depth[b] > depth[a]) b = tr[b];
      while (a != b) { a = tr[a]; b = tr[b]; }
      return a;
    };
    std::fill(lca.begin(), lca.end(), -1);
    for (int i = static_cast<int>(rorder.size()) - 1; i >= 0; --i) {
      const int v = rorder[i];
      if (v < ntax) {
        lca[v] = (!excluded[v] && tr[v] >= ntax) ? v : -1;
      } else if (alive[v] && v != ntax && rsize[v] >= 2 && rsize[v] < included) {
        if (lca[v] < 0 || tsize[lca[v]] != rsize[v]) alive[v] = 0;
      }
      if (v != ntax) lca[ref[v]] = meet(lca[ref[v]], lca[v]);
    }
    shell::show_progress(static_cast<long long>(k), static_cast<long long>(trees.size()), "Checking groups");
  }
  // Collapse: every node hangs from its nearest ancestor that stays.
  for (int v = ntax + 1; v < rend; ++v)
    if (rsize[v] < 2 || rsize[v] >= included) alive[v] = 0;
  auto kept_parent = [&](int v) {
    int p = rparent[v];
    while (p != ntax && !alive[p]) p = rparent[p];
    return p;
  };
  for (int v = 0; v < n; ++v) result[v] = 0;
  for (int t = 0; t < ntax; ++t) result[t] = (excluded[t] || ref[t] < ntax) ? 0 : kept_parent(t);
  int groups = 0;
  for (int v = ntax + 1; v < rend; ++v)
    if (alive[v]) { result[v] = kept_parent(v); ++groups; }
  result[ntax] = rend;
  // Taxa absent from the reference but not excluded (unshared-) go to the root.
  for (int t = 0; t < ntax; ++t)
    if (!excluded[t] && ref[t] < ntax) result[t] = ntax;
  // Dead internal nodes are unreachable from the terminals; renumbering drops them.
  qax::trees::reset_node_numbers(result, ntax);
  return groups;
}

}  // namespace

int strict_consensus(const std::vector<int>& trees, const std::vector<std::uint8_t>& excluded,
                     std::int32_t* result, bool low_memory) {
  const int ntax = tree_store.ntax;
  if (low_memory) return strict_low_memory(trees, excluded, result);
  const int included = count_included(excluded);
  GroupTable table;
  group_table_init(table, ntax);
  NodeSets ns;
  node_sets_init(ns, ntax);
  const int total = static_cast<int>(trees.size());
  int done = 0;
  for (int k = 0; k < total; ++k) {
    // Only the first tree enters groups: a strict consensus can only lose them.
    const int alive = count_tree_groups(table, ns, consensus_row(trees[k]), excluded.data(), included, k, k == 0, 1, k + 1);
    done = k + 1;
    shell::show_progress(done, total, "Checking groups");
    if (alive == 0) break;  // a bush already
  }
  return build_tree_from_groups(table, excluded.data(), total, true, result, nullptr);
}

namespace {

std::vector<const std::int32_t*> rows_of(const std::vector<int>& trees, int skip) {
  std::vector<const std::int32_t*> rows;
  rows.reserve(trees.size());
  for (int t : trees)
    if (t != skip) rows.push_back(consensus_row(t));
  return rows;
}

}  // namespace

CountResult majority_consensus(const std::vector<int>& trees, const std::vector<std::uint8_t>& excluded, int cut,
                               std::int32_t* result) {
  return majority_of_rows(rows_of(trees, -1), excluded, cut, result);
}

CountResult majority_of_rows(const std::vector<const std::int32_t*>& rows, const std::vector<std::uint8_t>& excluded,
                             int cut, std::int32_t* result) {
  const int ntax = static_cast<int>(excluded.size());
  const int included = count_included(excluded);
  const int n = static_cast<int>(rows.size());
  const int required = static_cast<int>(static_cast<long long>(cut) * n / 100) + 1;
  // After n - cut*n/100 trees a group seen for the first time cannot reach `required`.
  const int enter_until = n - static_cast<int>(static_cast<long long>(cut) * n / 100);
  GroupTable table;
  group_table_init(table, ntax);
  NodeSets ns;
  node_sets_init(ns, ntax);
  for (int k = 0; k < n; ++k) {
    count_tree_groups(table, ns, rows[k], excluded.data(), included, k, k < enter_until, 1, INT_MAX);
    shell::show_progress(k + 1, n, "Counting groups");
  }
  CountResult out;
  out.counted = n;
  std::vector<int> origin;
  build_tree_from_groups(table, excluded.data(), required, true, result, &origin);
  out.node_value.assign(2 * ntax - 1, -1);
  for (int v = ntax + 1; v < result[ntax]; ++v)
    if (origin[v] >= 0) out.node_value[v] = table.entries[origin[v]].count;
  return out;
}

int strict_of_rows(const std::vector<const std::int32_t*>& rows, const std::vector<std::uint8_t>& excluded,
                   std::int32_t* result) {
  const int ntax = static_cast<int>(excluded.size());
  const int included = count_included(excluded);
  GroupTable table;
  group_table_init(table, ntax);
  NodeSets ns;
  node_sets_init(ns, ntax);
  const int total = static_cast<int>(rows.size());
  for (int k = 0; k < total; ++k) {
    const int alive = count_tree_groups(table, ns, rows[k], excluded.data(), included, k, k == 0, 1, k + 1);
    if (alive == 0) break;
  }
  return build_tree_from_groups(table, excluded.data(), total, true, result, nullptr);
}

namespace {

// Enters the reference's groups (not counted) and maps its nodes to them.
std::vector<int> enter_reference(GroupTable& table, NodeSets& ns, const std::int32_t* ref,
                                 const std::vector<std::uint8_t>& excluded, int included) {
  const int ntax = static_cast<int>(excluded.size());
  compute_node_sets(ref, excluded.data(), ns);
  std::vector<int> node_group(2 * ntax - 1, -1);
  for (int v = ntax + 1; v < ref[ntax]; ++v) {
    const int size = ns.sizes[v];
    if (size < 2 || size >= included) continue;
    const std::uint64_t* r = ns.row(v);
    const std::uint64_t h = set_hash(r, ns.words);
    int g = group_find(table, r, size, h);
    if (g < 0) g = group_add(table, r, size, h, 0, -2);
    node_group[v] = g;
  }
  return node_group;
}

// Frequency differences: rival(i) is the largest count of a group conflicting with i.
// Groups of one segment (one tree) never conflict, so only later segments are scanned.
void compute_rivals(GroupTable& table, int n, bool reference, int outer_end) {
  auto& e = table.entries;
  const auto& ends = table.segment_ends;
  int start = 0;
  for (std::size_t s = 0; s < ends.size(); ++s) {
    const int end = ends[s];
    for (int i = start; i < end && i < outer_end; ++i) {
      for (int j = end; j < table.ngroups(); ++j) {
        if (!reference && e[j].count + e[i].count > n) continue;
        if (e[j].count <= e[i].rival && e[i].count <= e[j].rival) continue;
        if (e[i].last < e[j].first || e[j].last < e[i].first) continue;
        if (!groups_conflict(table, i, j)) continue;
        e[i].rival = std::max(e[i].rival, e[j].count);
        e[j].rival = std::max(e[j].rival, e[i].count);
      }
      shell::show_progress(i + 1, table.ngroups(), "Comparing groups");
    }
    start = end;
  }
}

}  // namespace

CountResult reference_frequencies(int reference, const std::vector<int>& trees,
                                  const std::vector<std::uint8_t>& excluded) {
  return reference_frequencies_rows(consensus_row(reference), rows_of(trees, reference), excluded);
}

CountResult reference_frequencies_rows(const std::int32_t* reference, const std::vector<const std::int32_t*>& rows,
                                       const std::vector<std::uint8_t>& excluded) {
  const int ntax = static_cast<int>(excluded.size());
  const int included = count_included(excluded);
  GroupTable table;
  group_table_init(table, ntax);
  NodeSets ns;
  node_sets_init(ns, ntax);
  std::vector<int> node_group = enter_reference(table, ns, reference, excluded, included);
  CountResult out;
  int k = 0;
  for (const std::int32_t* row : rows) {
    count_tree_groups(table, ns, row, excluded.data(), included, k++, false, 1, INT_MAX);
    shell::show_progress(k, static_cast<long long>(rows.size()), "Counting groups");
  }
  out.counted = k;
  out.node_value.assign(2 * ntax - 1, -1);
  for (int v = 0; v < 2 * ntax - 1; ++v)
    if (node_group[v] >= 0) out.node_value[v] = table.entries[node_group[v]].count;
  return out;
}

CountResult frequency_differences(int reference, const std::vector<int>& trees,
                                  const std::vector<std::uint8_t>& excluded, int cut, std::int32_t* result) {
  return frequency_differences_rows(reference >= 0 ? consensus_row(reference) : nullptr, rows_of(trees, reference),
                                    excluded, cut, result);
}

CountResult frequency_differences_rows(const std::int32_t* reference, const std::vector<const std::int32_t*>& rows,
                                       const std::vector<std::uint8_t>& excluded, int cut, std::int32_t* result) {
  const int ntax = static_cast<int>(excluded.size());
  const int included = count_included(excluded);
  GroupTable table;
  group_table_init(table, ntax);
  NodeSets ns;
  node_sets_init(ns, ntax);
  std::vector<int> node_group;
  if (reference) {
    node_group = enter_reference(table, ns, reference, excluded, included);
    table.segment_ends.push_back(table.ngroups());
  }
  int k = 0;
  for (const std::int32_t* row : rows) {
    count_tree_groups(table, ns, row, excluded.data(), included, k++, true, 1, INT_MAX);
    table.segment_ends.push_back(table.ngroups());
    shell::show_progress(k, static_cast<long long>(rows.size()), "Counting groups");
  }
  const int n = k;
  compute_rivals(table, n, reference != nullptr, reference ? table.segment_ends[0] : table.ngroups());
  for (auto& e : table.entries) e.count -= e.rival;
  CountResult out;
  out.counted = n;
  out.node_value.assign(2 * ntax - 1, INT_MIN);
  if (reference) {
    for (int v = 0; v < 2 * ntax - 1; ++v)
      if (node_group[v] >= 0) out.node_value[v] = table.entries[node_group[v]].count;
    return out;
  }
  const int required = static_cast<int>(static_cast<long long>(cut) * n / 100) + 1;
  std::vector<int> origin;
  build_tree_from_groups(table, excluded.data(), required, true, result, &origin);
  for (int v = ntax + 1; v < result[ntax]; ++v)
    if (origin[v] >= 0) out.node_value[v] = table.entries[origin[v]].count;
  return out;
}

int combinable_consensus(const std::vector<int>& trees, const std::vector<std::uint8_t>& excluded,
                         std::int32_t* result) {
  const int ntax = tree_store.ntax;
  const int included = count_included(excluded);
  GroupTable table;
  group_table_init(table, ntax);
  NodeSets ns;
  node_sets_init(ns, ntax);
  int k = 0;
  for (int t : trees) {
    count_tree_groups(table, ns, consensus_row(t), excluded.data(), included, k++, true, 1, INT_MAX);
    table.segment_ends.push_back(table.ngroups());
    shell::show_progress(k, static_cast<long long>(trees.size()), "Counting groups");
  }
  std::vector<std::uint8_t> keep(table.ngroups(), 1);
  int start = 0;
  for (int end : table.segment_ends) {
    for (int i = start; i < end; ++i)
      for (int j = end; j < table.ngroups(); ++j) {
        if (!keep[i] && !keep[j]) continue;
        if (groups_conflict(table, i, j)) keep[i] = keep[j] = 0;
      }
    start = end;
  }
  return build_tree_from_groups(table, excluded.data(), 0, true, result, nullptr, &keep);
}

std::vector<double> rough_recovery(int reference, const std::vector<int>& trees,
                                   const std::vector<std::uint8_t>& excluded) {
  const int ntax = tree_store.ntax;
  const int n = 2 * ntax - 1;
  const int included = count_included(excluded);
  const auto& cs = consensus_settings;
  NodeSets rs, ts;
  node_sets_init(rs, ntax);
  node_sets_init(ts, ntax);
  const std::int32_t* ref = consensus_row(reference);
  compute_node_sets(ref, excluded.data(), rs);
  std::vector<int> nodes;
  for (int v = ntax + 1; v < ref[ntax]; ++v)
    if (rs.sizes[v] >= 2 && rs.sizes[v] < included) nodes.push_back(v);
  std::vector<double> sum(n, 0.0);
  int counted = 0;
  for (int t : trees) {
    if (t == reference) continue;
    const std::int32_t* tr = consensus_row(t);
    compute_node_sets(tr, excluded.data(), ts);
    for (int v : nodes) {
      const std::uint64_t* g = rs.row(v);
      const int gsize = rs.sizes[v];
      double best = 0;
      for (int u = ntax + 1; u < tr[ntax]; ++u) {
        const int hsize = ts.sizes[u];
        if (hsize < 2 || hsize >= included) continue;
        const std::uint64_t* h = ts.row(u);
        int both = 0;
        for (int w = 0; w < rs.words; ++w) both += std::popcount(g[w] & h[w]);
        const int added = hsize - both, removed = gsize - both;
        if (added > cs.prune_proportion * gsize || removed > cs.prune_proportion * gsize) continue;
        const int neither = included - gsize - added;
        const int b = std::min(both, neither);
        if (b <= 0) continue;
        const double s = b / (b + added * static_cast<double>(cs.prune_cost_out) + removed * static_cast<double>(cs.prune_cost_in));
        best = std::max(best, s);
      }
      sum[v] += best;
    }
    ++counted;
  }
  std::vector<double> out(n, -1.0);
  for (int v : nodes) out[v] = counted ? sum[v] / counted : 0.0;
  return out;
}

}  // namespace qax::support
