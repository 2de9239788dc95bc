// Majority rule consensus that keeps no group table: each group is counted by looking
// it up in the other trees through the least common ancestor of its terminals. Memory
// is a few arrays of 2*ntax-1 integers; time grows with the square of the trees.
#include <algorithm>

#include "shell/failure.h"
#include "shell/output.h"
#include "support/consensus.h"
#include "support/temp_collapse.h"
#include "trees/store.h"

namespace qax::support {

using qax::trees::tree_store;

namespace {

// Scratch of the walks, sized once for the command.
struct LcaScratch {
  std::vector<int> order, firstdes, sister, depth, size, lca;
};

// Breadth-first order from the root (reversed it is a post-order) and the number of
// terminals below each node.
void walk(const std::int32_t* tr, int ntax, LcaScratch& s, std::vector<int>& order, std::vector<int>& size) {
  const int end = tr[ntax];
  std::fill(s.firstdes.begin(), s.firstdes.end(), -1);
  for (int v = end - 1; v >= 0; --v) {
    if (v == ntax || tr[v] < ntax || tr[v] >= end) continue;
    s.sister[v] = s.firstdes[tr[v]];
    s.firstdes[tr[v]] = v;
  }
  order.clear();
  order.push_back(ntax);
  for (std::size_t h = 0; h < order.size(); ++h)
    for (int c = s.firstdes[order[h]]; c >= 0; c = s.sister[c]) order.push_back(c);
  std::fill(size.begin(), size.end(), 0);
  for (int i = static_cast<int>(order.size()) - 1; i >= 0; --i) {
    const int v = order[i];
    if (v < ntax) size[v] = 1;
    if (v != ntax) size[tr[v]] += size[v];
  }
}

}  // namespace

CountResult majority_low_memory(const std::vector<int>& trees, int cut, std::int32_t* result) {
  const int ntax = tree_store.ntax;
  const int nodes = 2 * ntax - 1;
  const int n = static_cast<int>(trees.size());
  const int required = static_cast<int>(static_cast<long long>(cut) * n / 100) + 1;
  LcaScratch s;
  s.firstdes.assign(nodes, -1);
  s.sister.assign(nodes, -1);
  s.depth.assign(nodes, 0);
  s.lca.assign(nodes, -1);
  std::vector<int> rorder, rsize(nodes), torder, tsize(nodes), count(nodes);
  std::vector<std::uint8_t> seen(nodes);
  struct Chosen { int tree, node, count, size; };
  std::vector<Chosen> chosen;
  int included = 0;
  for (int t = 0; t < ntax; ++t) included += consensus_row(trees[0])[t] >= ntax;
  // Groups first met in tree i can reach `required` only while n - i >= required.
  for (int i = 0; i < n && n - i >= required; ++i) {
    const std::int32_t* ref = consensus_row(trees[i]);
    walk(ref, ntax, s, rorder, rsize);
    std::fill(count.begin(), count.end(), 1);
    std::fill(seen.begin(), seen.end(), 0);
    for (int j = 0; j < n; ++j) {
      if (j == i) continue;
      const std::int32_t* tr = consensus_row(trees[j]);
      walk(tr, ntax, s, torder, tsize);
      s.depth[ntax] = 0;
      for (std::size_t k = 1; k < torder.size(); ++k) s.depth[torder[k]] = s.depth[tr[torder[k]]] + 1;
      auto meet = [&](int a, int b) {
        if (a < 0) return b;
        if (b < 0) return a;
        while (s.depth[a] > s.depth[b]) a = tr[a];
        while (s.depth[b] > s.depth[a]) b = tr[b];
        while (a != b) { a = tr[a]; b = tr[b]; }
        return a;
      };
      std::fill(s.lca.begin(), s.lca.end(), -1);
      for (int k = static_cast<int>(rorder.size()) - 1; k >= 0; --k) {
        const int v = rorder[k];
        if (v < ntax) {
          s.lca[v] = tr[v] >= ntax ? v : -1;
        } else if (v != ntax && s.lca[v] >= 0 && tsize[s.lca[v]] == rsize[v]) {
          // Found in tree j: an earlier tree already counted it.
          if (j < i) seen[v] = 1;
          else ++count[v];
        }
        if (v != ntax) s.lca[ref[v]] = meet(s.lca[ref[v]], s.lca[v]);
      }
    }
    for (int v = ntax + 1; v < ref[ntax]; ++v)
      if (!seen[v] && count[v] >= required && rsize[v] >= 2 && rsize[v] < included)
        chosen.push_back({i, v, count[v], rsize[v]});
    shell::show_progress(i + 1, n, "Counting groups");
  }
  // Build: larger groups first, each hangs its terminals from a new node.
  std::stable_sort(chosen.begin(), chosen.end(), [](const Chosen& a, const Chosen& b) { return a.size > b.size; });
  const std::int32_t* first = consensus_row(trees[0]);
  for (int v = 0; v < nodes; ++v) result[v] = 0;
  for (int t = 0; t < ntax; ++t) result[t] = first[t] >= ntax ? ntax : 0;
  std::vector<std::string> value(nodes);
  int next = ntax + 1;
  for (const Chosen& c : chosen) {
    const std::int32_t* tr = consensus_row(trees[c.tree]);
    const int node = next++;
    int anchor = -1;
    for (int t = 0; t < ntax; ++t) {
      if (tr[t] < ntax) continue;
      int a = tr[t];
      while (a != c.node && a != ntax) a = tr[a];
      if (a != c.node) continue;
      if (anchor < 0) {
        anchor = t;
        result[node] = result[t];
      }
      result[t] = node;
    }
    value[node] = std::to_string(c.count);
  }
  result[ntax] = next;
  qax::trees::reset_node_numbers(result, ntax, &value);
  CountResult out;
  out.counted = n;
  out.node_value.assign(nodes, -1);
  for (int v = ntax + 1; v < result[ntax]; ++v)
    if (!value[v].empty()) out.node_value[v] = std::stoi(value[v]);
  return out;
}

}  // namespace qax::support
