// Tree fusing scored on whole trees: the resolution of a group shared by two trees is taken
// from the donor when the tree it makes scores better. Used where subtree costs can't be
// swapped in as step counts are: fits under implied weighting (they don't add up over
// subtrees), and step-matrix or continuous columns (their costs are vectors, not counts).
#include <algorithm>
#include <cstdint>
#include <unordered_map>
#include <vector>

#include "optim/implied.h"
#include "optim/packed.h"
#include "search/engine.h"
#include "search/fusing.h"
#include "search/implied_swap.h"
#include "search/search_internal.h"
#include "shell/failure.h"
#include "shell/state.h"

namespace qax::search {

namespace {

// A tree in engine numbering rooted on terminal 0, with the terminals below each node.
struct Clustered {
  std::vector<int> anc, left, right;
  int nt = 0, words = 0;
  std::vector<std::uint64_t> bits;   // per node
  std::vector<int> size;             // terminals below each node
  std::unordered_multimap<std::uint64_t, int> by_hash;

  const std::uint64_t* row(int v) const { return bits.data() + static_cast<std::size_t>(v) * words; }
  std::uint64_t hash(int v) const {
    std::uint64_t h = 1469598103934665603ull;
    for (int k = 0; k < words; ++k) h = (h ^ row(v)[k]) * 1099511628211ull;
    return h;
  }
  void build(const Engine& e) {
    anc = e.anc;
    left = e.left;
    right = e.right;
    nt = e.nt;
    words = (nt + 63) / 64;
    bits.assign(static_cast<std::size_t>(e.nn) * words, 0);
    size.assign(e.nn, 0);
    by_hash.clear();
    // Postorder from the node beside terminal 0.
    std::vector<int> order, st{right[nt]};
    while (!st.empty()) {
      const int v = st.back();
      st.pop_back();
      order.push_back(v);
      if (v >= nt) { st.push_back(left[v]); st.push_back(right[v]); }
    }
    for (auto it = order.rbegin(); it != order.rend(); ++it) {
      const int v = *it;
      std::uint64_t* r = bits.data() + static_cast<std::size_t>(v) * words;
      if (v < nt) {
        r[v / 64] |= 1ull << (v % 64);
        size[v] = 1;
      } else {
        for (int k = 0; k < words; ++k) r[k] = row(left[v])[k] | row(right[v])[k];
        size[v] = size[left[v]] + size[right[v]];
        by_hash.emplace(hash(v), v);
      }
    }
  }
  // Inner node with the same terminals as node v of `other`, or -1.
  int find(const Clustered& other, int v) const {
    auto range = by_hash.equal_range(other.hash(v));
    for (auto it = range.first; it != range.second; ++it)
      if (std::equal(row(it->second), row(it->second) + words, other.row(v))) return it->second;
    return -1;
  }
  void inner_below(int v, std::vector<int>& out) const {
    out.clear();
    std::vector<int> st{left[v], right[v]};
    while (!st.empty()) {
      const int u = st.back();
      st.pop_back();
      if (u < nt) continue;
      out.push_back(u);
      st.push_back(left[u]);
      st.push_back(right[u]);
    }
  }
};

// Children of group v (of r, shared with d) in the strict consensus of the two trees.
int consensus_children(const Clustered& r, const Clustered& d, int v) {
  int count = 0;
  std::vector<int> st{r.left[v], r.right[v]};
  while (!st.empty()) {
    const int u = st.back();
    st.pop_back();
    if (u < r.nt || d.find(r, u) >= 0) { ++count; continue; }
    st.push_back(r.left[u]);
    st.push_back(r.right[u]);
  }
  return count;
}

// Engine arrays of r with the resolution of group v replaced by that of node w of d.
void exchange(const Clustered& r, const Clustered& d, int v, int w, Engine& e) {
  std::vector<int> rin, din;
  r.inner_below(v, rin);
  d.inner_below(w, din);
  std::vector<int> map(d.anc.size(), -1);
  for (int t = 0; t < r.nt; ++t) map[t] = t;
  map[w] = v;
  for (std::size_t k = 0; k < din.size(); ++k) map[din[k]] = rin[k];
  e.anc = r.anc;
  e.left = r.left;
  e.right = r.right;
  din.push_back(w);
  for (int y : din) {
    const int a = map[y], lc = map[d.left[y]], rc = map[d.right[y]];
    e.left[a] = lc;
    e.right[a] = rc;
    e.anc[lc] = a;
    e.anc[rc] = a;
  }
}

}  // namespace

double whole_tree_score(const std::vector<std::int32_t>& parent) {
  if (optim::implied_settings.implied_on) return implied_fit_of(parent);
  Engine& e = engine();
  if (!e.load(parent)) shell::error_exit("Trees to fuse must be binary and hold all active taxa");
  return e.compute_all();
}

int whole_fuse_pair(std::vector<std::int32_t>& receiver, const std::vector<std::int32_t>& donor, double* score,
                      int equals, int root_terminal) {
  if (root_terminal > 0) return 0;   // groups are taken on the rooting at terminal 0 only
  const bool take_equal = (equals < 0 ? fuse_settings.equals : equals) != 0;
  Engine& e = engine();
  Clustered r, d;
  if (!e.load(donor)) shell::error_exit("Trees to fuse must be binary and hold all active taxa");
  e.reroot_on_zero();
  d.build(e);
  double fit = whole_tree_score(receiver);
  int made = 0;
  std::vector<std::int32_t> trial, best_tree;
  // Groups already taken (their terminals), whose subgroups are not exchanged again.
  std::vector<std::vector<std::uint64_t>> taken;
  for (bool again = true; again && !shell::shell_state.stop_search_flag;) {
    again = false;
    if (!e.load(receiver)) shell::error_exit("Trees to fuse must be binary and hold all active taxa");
    e.reroot_on_zero();
    r.build(e);
    // Shared groups whose resolutions differ, largest first.
    std::vector<std::pair<int, int>> groups;   // (-size, node of r)
    for (int v = r.nt + 1; v < static_cast<int>(r.anc.size()); ++v) {
      if (r.anc[v] < 0 || r.size[v] < 3 || r.size[v] >= r.nt - 1) continue;
      const int w = d.find(r, v);
      if (w < 0) continue;
      bool inside = false;
      for (const auto& t : taken) {
        bool sub = true;
        for (int k = 0; k < r.words && sub; ++k) sub = (r.row(v)[k] & ~t[k]) == 0;
        inside = inside || sub;
      }
      if (inside || consensus_children(r, d, v) < std::max(3, fuse_settings.minfork)) continue;
      groups.push_back({-r.size[v], v});
    }
    std::sort(groups.begin(), groups.end());
    double best_fit = fit;
    int best_group = -1;
    for (const auto& g : groups) {
      const int v = g.second;
      exchange(r, d, v, d.find(r, v), e);
      e.export_tree(trial);
      const double f = whole_tree_score(trial);
      const bool better = f < best_fit - 1e-9 || (take_equal && best_group < 0 && f <= best_fit + 1e-9);
      if (!better) continue;
      best_fit = f;
      best_group = v;
      best_tree = trial;
      if (!fuse_settings.choose) break;   // take it and look again at the new tree
    }
    if (best_group < 0) break;
    taken.emplace_back(r.row(best_group), r.row(best_group) + r.words);
    receiver = best_tree;
    fit = best_fit;
    ++made;
    again = !fuse_settings.choose;
  }
  if (score) *score = fit;
  return made;
}

}  // namespace qax::search
