// Wide characters on stored trees of any shape, for the score reports: one character at a
// time, every state (or range) at every node, polytomies hard.
#include <algorithm>
#include <bit>

#include "dataset/dataset.h"
#include "optim/packed.h"
#include "optim/recons.h"
#include "optim/wide.h"

namespace qax::optim {

using qax::dataset::dataset;

namespace {

bool on_tree_and_active(int x) {
  return x >= static_cast<int>(dataset.taxon_active.size()) || dataset.taxon_active[x] != 0;
}

std::int64_t sankoff_steps(const CharTree& t, const SankoffColumn& col) {
  const int k = col.k;
  const std::uint32_t missing = dataset.missing_value();
  std::vector<std::vector<std::int64_t>> cost(t.kids.size(), std::vector<std::int64_t>(k, 0));
  const std::int64_t inf = wide_infinity;
  for (auto it = t.preorder.rbegin(); it != t.preorder.rend(); ++it) {
    const int n = *it;
    auto& v = cost[n];
    if (n < t.ntax) {
      const std::uint32_t cell = dataset.cell(n, col.character);
      if (cell == missing || !on_tree_and_active(n)) continue;
      for (int s = 0; s < k; ++s) v[s] = (cell >> col.state_of[s] & 1) ? 0 : inf;
      continue;
    }
    for (int kid : t.kids[n]) {
      if (kid < t.ntax && !on_tree_and_active(kid)) continue;
      for (int s = 0; s < k; ++s) {
        std::int64_t best = inf;
        for (int u = 0; u < k; ++u) best = std::min(best, col.cost[s * k + u] + cost[kid][u]);
        v[s] = std::min(inf, v[s] + best);
      }
    }
  }
  std::int64_t best = inf;
  for (int s = 0; s < k; ++s)
    if (col.root_mask >> s & 1) best = std::min(best, cost[t.ntax][s]);
  return best;
}

// Continuous: each node keeps the interval of its best values; a node of several children
// takes the median interval of their ends, at the cost of the distances to it.
std::int64_t continuous_steps(const CharTree& t, int c) {
  std::vector<std::int64_t> lo(t.kids.size(), 0), hi(t.kids.size(), 65535);
  std::vector<char> known(t.kids.size(), 0);
  std::int64_t total = 0;
  std::vector<std::int64_t> ends;
  for (auto it = t.preorder.rbegin(); it != t.preorder.rend(); ++it) {
    const int n = *it;
    if (n < t.ntax) {
      std::uint32_t cell = dataset.cell(n, c);
      if (!on_tree_and_active(n) || cell == qax::dataset::continuous_missing ||
          cell == qax::dataset::continuous_inapplicable)
        continue;
      lo[n] = cell & 0xFFFF;
      hi[n] = cell >> 16;
      known[n] = 1;
      continue;
    }
    ends.clear();
    for (int kid : t.kids[n])
      if (known[kid]) {
        ends.push_back(lo[kid]);
        ends.push_back(hi[kid]);
      }
    if (ends.empty()) continue;
    std::sort(ends.begin(), ends.end());
    const std::size_t m = ends.size() / 2;
    lo[n] = ends[m - 1];
    hi[n] = ends[m];
    known[n] = 1;
    for (int kid : t.kids[n])
      if (known[kid]) total += std::max<std::int64_t>({0, lo[kid] - lo[n], lo[n] - hi[kid]});
  }
  return total;
}

}  // namespace

std::int64_t wide_character_steps(const CharTree& t, int c) {
  const WideColumns& w = packed.wide;
  if (c < static_cast<int>(w.sankoff_of.size()) && w.sankoff_of[c] >= 0) return sankoff_steps(t, w.sankoff[w.sankoff_of[c]]);
  if (c < static_cast<int>(w.cont_of.size()) && w.cont_of[c] >= 0) return continuous_steps(t, c);
  return -1;
}

}  // namespace qax::optim
