// Exact per-character passes on stored trees: hard and soft polytomies, sets of states in
// best reconstructions, least and greatest counts of a given change.
#include "optim/recons.h"

#include <algorithm>
#include <bit>
#include <cstdlib>

#include "dataset/costs.h"
#include "dataset/dataset.h"
#include "shell/failure.h"
#include "trees/store.h"

namespace qax::optim {

using qax::dataset::dataset;
using qax::trees::tree_store;

CharTree char_tree_from_parent(const std::vector<int>& parent) {
  CharTree t;
  t.ntax = dataset.ntax;
  t.parent = parent;
  const int ntax = t.ntax;
  const int end = std::min(static_cast<int>(parent.size()), std::max(parent[ntax], ntax + 1));
  t.kids.assign(end, {});
  for (int n = 0; n < end; ++n)
    if (n != ntax && parent[n] >= ntax && parent[n] < end) t.kids[parent[n]].push_back(n);
  std::vector<int> st{ntax};
  while (!st.empty()) {
    const int n = st.back();
    st.pop_back();
    t.preorder.push_back(n);
    if (n < ntax) continue;
    if (t.kids[n].size() > 2) t.binary = false;
    for (auto it = t.kids[n].rbegin(); it != t.kids[n].rend(); ++it) st.push_back(*it);
  }
  return t;
}

CharTree char_tree_of(int k) {
  const std::int32_t* row = qax::trees::tree_row(k);
  return char_tree_from_parent(std::vector<int>(row, row + tree_store.row_size));
}

namespace {

bool taxon_on(int x) {
  return x >= static_cast<int>(dataset.taxon_active.size()) || dataset.taxon_active[x] != 0;
}

// Scored states of a terminal, 0 when missing or inactive; additive polymorphisms widen to
// the interval between their lowest and highest state.
std::uint32_t terminal_states(int x, int c) {
  std::uint32_t v = dataset.cell(x, c);
  if (v == dataset.missing_value() || v == 0 || !taxon_on(x)) return 0;
  if (dataset.chars[c].additive && !dataset.chars[c].sankoff) v = (~0u >> std::countl_zero(v)) & (~0u << std::countr_zero(v));
  return v;
}

// Cost of a change from state s (the parent) to state t (the child): the cost table of a
// Sankoff character, the distance between states of an additive one, else 0 or 1.
struct Metric {
  int character = 0;
  bool additive = false;
  bool table = false;
};
inline Metric metric_of(int c) {
  const auto& r = dataset.chars[c];
  return Metric{c, r.additive != 0 && !r.sankoff, r.sankoff != 0};
}
inline std::int64_t distance(const Metric& m, int s, int t) {
  if (m.table) return qax::dataset::cost_of(m.character, s, t);
  return m.additive ? std::abs(s - t) : (s != t);
}
inline Metric metric_of(const CharCosts& c) { return Metric{c.character, c.additive, c.table}; }

// States the root may take: with ancstates, those of the outgroup (when it has any).
std::uint32_t root_states(int c, std::uint32_t states) {
  if (!dataset.chars[c].ancestral || !dataset.chars[c].sankoff) return states;
  const std::uint32_t v = dataset.cell(dataset.outgroup, c);
  if (v == dataset.missing_value() || !(v & states)) return states;
  return v & states;
}

inline std::int64_t cap(std::int64_t v) { return v > cost_none ? cost_none : v; }

using Vec = std::vector<std::int64_t>;

// Cost of a child branch with the parent in state s: min over t of child(t) + d(s, t).
Vec branch_costs(const Vec& child, std::uint32_t states, const Metric& m) {
  Vec out(32, cost_none);
  for (std::uint32_t a = states; a; a &= a - 1) {
    const int s = std::countr_zero(a);
    std::int64_t best = cost_none;
    for (std::uint32_t b = states; b; b &= b - 1) {
      const int t = std::countr_zero(b);
      if (child[t] < cost_none) best = std::min(best, child[t] + distance(m, s, t));
    }
    out[s] = best;
  }
  return out;
}

// The same seen from below: the child in state t, the parent's side costing parent(s).
Vec branch_costs_up(const Vec& parent, std::uint32_t states, const Metric& m) {
  Vec out(32, cost_none);
  for (std::uint32_t a = states; a; a &= a - 1) {
    const int t = std::countr_zero(a);
    std::int64_t best = cost_none;
    for (std::uint32_t b = states; b; b &= b - 1) {
      const int s = std::countr_zero(b);
      if (parent[s] < cost_none) best = std::min(best, parent[s] + distance(m, s, t));
    }
    out[t] = best;
  }
  return out;
}

// Soft polytomy, ordered states. Resolving k children below a node of state s costs at
// least the span of the children's states, plus twice the distance from s to that span
// (both subtrees of the node must reach it); a caterpillar reaches the bound. F(L, H) is the
// least cost of the children with lowest state exactly L and highest exactly H.
//   children 1, 2 and s = 0: span 1 + 2 * 1 -> 3 (node 0 over leaves 1 and 2: 1 + 2).
Vec soft_additive(const std::vector<const Vec*>& kids, std::uint32_t states) {
  Vec out(32, cost_none);
  const int lo = std::countr_zero(states), hi = 31 - std::countl_zero(states);
  for (int L = lo; L <= hi; ++L)
    for (int H = L; H <= hi; ++H) {
      // flags: bit 0 some child at L, bit 1 some child at H
      std::int64_t dp[4] = {0, cost_none, cost_none, cost_none};
      for (const Vec* k : kids) {
        std::int64_t inside = cost_none;
        for (int t = L; t <= H; ++t) inside = std::min(inside, (*k)[t]);
        std::int64_t nd[4] = {cost_none, cost_none, cost_none, cost_none};
        for (int f = 0; f < 4; ++f) {
          if (dp[f] >= cost_none) continue;
          auto put = [&](int g, std::int64_t v) { if (v < cost_none) nd[g] = std::min(nd[g], dp[f] + v); };
          put(f, inside);
          put(f | 1 | (L == H ? 2 : 0), (*k)[L]);
          put(f | 2 | (L == H ? 1 : 0), (*k)[H]);
        }
        std::copy(nd, nd + 4, dp);
      }
      if (dp[3] >= cost_none) continue;
      for (int s = lo; s <= hi; ++s) {
        const std::int64_t away = s < L ? L - s : s > H ? s - H : 0;
        out[s] = std::min(out[s], dp[3] + (H - L) + 2 * away);
      }
    }
  return out;
}

// Least number of states meeting every set of `sets` (each one non-empty), given the states
// already `chosen` at `depth`; `best` is lowered to each smaller size found. Branches on the
// states of the unmet set with fewest states; the count of pairwise disjoint unmet sets
// bounds what remains.
void hitting_search(const std::vector<std::uint32_t>& sets, std::uint32_t chosen, int depth, int& best,
                    long long& budget) {
  if (--budget < 0)
    qax::shell::error_exit("Too many combinations of states for a soft polytomy (use hard polytomies)");
  std::uint32_t smallest = 0;
  int lower = 0;
  std::uint32_t packed_states = 0;
  for (std::uint32_t x : sets) {
    if (x & chosen) continue;
    if (!smallest || std::popcount(x) < std::popcount(smallest)) smallest = x;
    if (!(x & packed_states)) { ++lower; packed_states |= x; }
  }
  if (!smallest) { best = std::min(best, depth); return; }
  if (depth + lower >= best) return;
  for (std::uint32_t a = smallest; a; a &= a - 1) hitting_search(sets, chosen | (a & -a), depth + 1, best, budget);
}

// Soft polytomy, unordered states, any number of states. The least cost of a child is m_k,
// reached in the states Z_k. With the enumeration of sets T above, the cost of the node in
// state s comes to sum(m_k) + H - 1 when s belongs to some least set H of states meeting
// every Z_k, and sum(m_k) + H otherwise (a child left unmet costs at least one step, as does
// one more state in T). When one state meets every Z_k (H = 1), a node in another state s
// costs the least of 2 (all children in that state), 1 plus the least excess of s in a
// child (one subtree in s), and the children's summed excess of s (all in s).
Vec soft_nonadditive_sets(const std::vector<const Vec*>& kids, std::uint32_t states) {
  Vec out(32, cost_none);
  std::int64_t sum = 0;
  std::vector<std::uint32_t> zero;
  std::vector<std::int64_t> low;
  for (const Vec* k : kids) {
    std::int64_t m = cost_none;
    for (std::uint32_t a = states; a; a &= a - 1) m = std::min(m, (*k)[std::countr_zero(a)]);
    std::uint32_t z = 0;
    for (std::uint32_t a = states; a; a &= a - 1)
      if ((*k)[std::countr_zero(a)] == m) z |= a & -a;
    sum = cap(sum + m);
    zero.push_back(z);
    low.push_back(m);
  }
  // Sets that contain another are met with it.
  std::vector<std::uint32_t> sets(zero);
  std::sort(sets.begin(), sets.end(), [](std::uint32_t a, std::uint32_t b) {
    return std::popcount(a) != std::popcount(b) ? std::popcount(a) < std::popcount(b) : a < b;
  });
  std::vector<std::uint32_t> minimal;
  for (std::uint32_t x : sets) {
    bool covered = false;
    for (std::uint32_t y : minimal) if ((x & y) == y) { covered = true; break; }
    if (!covered) minimal.push_back(x);
  }
  std::uint32_t all = states, any = 0;
  for (std::uint32_t x : minimal) { all &= x; any |= x; }
  if (all) {
    for (std::uint32_t a = states; a; a &= a - 1) {
      const int s = std::countr_zero(a);
      if (all >> s & 1) { out[s] = sum; continue; }
      std::int64_t total = 0, least = cost_none;
      for (std::size_t k = 0; k < kids.size(); ++k) {
        const std::int64_t excess = (*kids[k])[s] >= cost_none ? cost_none : (*kids[k])[s] - low[k];
        total = cap(total + excess);
        least = std::min(least, excess);
      }
      out[s] = cap(sum + std::min<std::int64_t>({2, total, least >= cost_none ? cost_none : 1 + least}));
    }
    return out;
  }
  int H = std::popcount(any) + 1;
  long long budget = 20'000'000;
  hitting_search(minimal, 0, 0, H, budget);
  for (std::uint32_t a = states; a; a &= a - 1) {
    const int s = std::countr_zero(a);
    int with_s = H + 1;
    if (any >> s & 1) hitting_search(minimal, a & -a, 1, with_s, budget);
    out[s] = cap(sum + H - (with_s <= H ? 1 : 0));
  }
  return out;
}

// Soft polytomy, unordered states. With the children in states D (distinct), a binary
// resolution below a node of state s costs |D - {s}| changes, except when every child has
// one state t != s: then both subtrees of the node need a change (2). Enumerating the sets
// T of states children may take, f(T) = sum over children of their least cost inside T;
// the bound f(T) + |T - {s}| is exact when T is the set used and never below a real
// resolution except for T = {s, t} with no child at s, which is priced exactly.
//   children 1, 1, 2 and s = 0: T = {1, 2} -> 0 + 2 (node 0 over (1 1) and 2).
Vec soft_nonadditive(const std::vector<const Vec*>& kids, std::uint32_t states) {
  Vec out(32, cost_none);
  int idx[32], n = 0;
  for (std::uint32_t a = states; a; a &= a - 1) idx[n++] = std::countr_zero(a);
  if (n > 16) return soft_nonadditive_sets(kids, states);
  const std::uint32_t subsets = 1u << n;
  Vec f(subsets, 0), g(subsets);
  for (const Vec* k : kids) {
    g[0] = cost_none;
    for (std::uint32_t T = 1; T < subsets; ++T) {
      const int low = std::countr_zero(T);
      g[T] = std::min(g[T & (T - 1)], (*k)[idx[low]]);
    }
    for (std::uint32_t T = 1; T < subsets; ++T) f[T] = cap(f[T] + g[T]);
  }
  for (int i = 0; i < n; ++i) {
    const int s = idx[i];
    std::int64_t best = cost_none;
    for (std::uint32_t T = 1; T < subsets; ++T) {
      if (f[T] >= cost_none) continue;
      const int size = std::popcount(T);
      const bool has_s = (T >> i) & 1;
      std::int64_t v;
      if (size == 1) v = f[T] + (has_s ? 0 : 2);
      else if (size == 2 && has_s) {
        const int t = idx[std::countr_zero(T & ~(1u << i))];
        std::int64_t force = cost_none;  // some child must take s
        for (const Vec* k : kids) {
          if ((*k)[s] >= cost_none) continue;
          const std::int64_t there = std::min((*k)[s], (*k)[t]);
          force = std::min(force, std::max<std::int64_t>(0, (*k)[s] - there));
        }
        if (force >= cost_none) continue;
        v = f[T] + 1 + force;
      } else {
        v = f[T] + size - (has_s ? 1 : 0);
      }
      best = std::min(best, v);
    }
    out[s] = best;
  }
  return out;
}

}  // namespace

std::uint32_t usable_states(int c) {
  std::uint32_t seen = 0;
  for (int x = 0; x < dataset.ntax; ++x) seen |= terminal_states(x, c);
  if (dataset.chars[c].sankoff && seen) {
    const int user_max = qax::dataset::user_min_max.max_state(c);
    if (user_max >= 0) seen |= (user_max >= 31 ? ~0u : (2u << user_max) - 1);
  }
  if (!seen || !dataset.chars[c].additive || dataset.chars[c].sankoff) return seen;
  const int lo = std::countr_zero(seen), hi = 31 - std::countl_zero(seen);
  return (~0u >> (31 - hi)) & (~0u << lo);
}

void char_costs(const CharTree& t, int c, bool soft, CharCosts& out) {
  out.character = c;
  out.additive = dataset.chars[c].additive != 0 && !dataset.chars[c].sankoff;
  out.table = dataset.chars[c].sankoff != 0;
  const Metric metric = metric_of(c);
  if (out.table) soft = false;   // cost tables: polytomies are resolved only as they are
  out.states = usable_states(c);
  out.down.assign(t.kids.size(), Vec(32, cost_none));
  out.best = 0;
  const std::uint32_t states = out.states;
  if (!states) return;
  for (auto it = t.preorder.rbegin(); it != t.preorder.rend(); ++it) {
    const int n = *it;
    Vec& d = out.down[n];
    if (n < t.ntax) {
      std::uint32_t v = terminal_states(n, c) & states;
      if (!v) v = states;
      for (std::uint32_t a = v; a; a &= a - 1) d[std::countr_zero(a)] = 0;
      continue;
    }
    if (soft && t.kids[n].size() > 2) {
      std::vector<const Vec*> kids;
      for (int k : t.kids[n]) kids.push_back(&out.down[k]);
      d = out.additive ? soft_additive(kids, states) : soft_nonadditive(kids, states);
      continue;
    }
    for (std::uint32_t a = states; a; a &= a - 1) d[std::countr_zero(a)] = 0;
    for (int k : t.kids[n]) {
      const Vec b = branch_costs(out.down[k], states, metric);
      for (int s = 0; s < 32; ++s) d[s] = cap(d[s] + b[s]);
    }
  }
  const std::uint32_t at_root = root_states(c, states);
  out.best = cost_none;
  for (std::uint32_t a = at_root; a; a &= a - 1) out.best = std::min(out.best, out.down[t.ntax][std::countr_zero(a)]);
}

void soft_character_steps(const std::vector<int>& parent, std::vector<int>& steps) {
  const CharTree t = char_tree_from_parent(parent);
  steps.assign(dataset.nchar, -1);
  CharCosts costs;
  for (int c = 0; c < dataset.nchar; ++c) {
    const auto& r = dataset.chars[c];
    if (!r.active || r.weight == 0 || r.is_continuous) continue;
    char_costs(t, c, true, costs);
    steps[c] = static_cast<int>(costs.best);
  }
}

namespace {

// Second pass: the cost of everything outside each node's subtree for each state of the
// node; fills the sets of states in best reconstructions and, when asked, the least change
// over the branch above each node among the best reconstructions.
void outside_pass(const CharTree& t, const CharCosts& costs, std::vector<std::uint32_t>& sets,
                  std::vector<std::int64_t>* lengths, bool greatest = false) {
  const std::uint32_t states = costs.states;
  sets.assign(t.kids.size(), 0);
  if (lengths) lengths->assign(t.kids.size(), 0);
  if (!states) return;
  std::vector<Vec> outside(t.kids.size(), Vec(32, cost_none));
  const Metric metric = metric_of(costs);
  for (std::uint32_t a = root_states(costs.character, states); a; a &= a - 1) outside[t.ntax][std::countr_zero(a)] = 0;
  for (int n : t.preorder) {
    for (int s = 0; s < 32; ++s)
      if (outside[n][s] < cost_none && costs.down[n][s] < cost_none && outside[n][s] + costs.down[n][s] == costs.best)
        sets[n] |= 1u << s;
    if (n < t.ntax) continue;
    const auto& kids = t.kids[n];
    std::vector<Vec> branch;
    for (int k : kids) branch.push_back(branch_costs(costs.down[k], states, metric));
    // Everything but child i: the outside of n plus the branches before and after i.
    const std::size_t k = kids.size();
    std::vector<Vec> after(k + 1, Vec(32, 0));
    for (std::size_t i = k; i-- > 0;)
      for (int s = 0; s < 32; ++s) after[i][s] = cap(after[i + 1][s] + branch[i][s]);
    Vec before = outside[n];
    for (std::size_t i = 0; i < k; ++i) {
      Vec excl(32);
      for (int s = 0; s < 32; ++s) excl[s] = cap(before[s] + after[i + 1][s]);
      outside[kids[i]] = branch_costs_up(excl, states, metric);
      for (int s = 0; s < 32; ++s) before[s] = cap(before[s] + branch[i][s]);
      if (!lengths) continue;
      std::int64_t least = cost_none, most = 0;
      const Vec& below = costs.down[kids[i]];
      for (std::uint32_t a = states; a; a &= a - 1)
        for (std::uint32_t b = states; b; b &= b - 1) {
          const int x = std::countr_zero(a), y = std::countr_zero(b);
          if (excl[x] >= cost_none || below[y] >= cost_none) continue;
          const std::int64_t d = distance(metric, x, y);
          if (excl[x] + d + below[y] == costs.best) {
            least = std::min(least, d);
            most = std::max(most, d);
          }
        }
      (*lengths)[kids[i]] = greatest ? most : least >= cost_none ? 0 : least;
    }
  }
}

}  // namespace

void best_state_sets(const CharTree& t, const CharCosts& costs, std::vector<std::uint32_t>& sets) {
  outside_pass(t, costs, sets, nullptr);
}

void least_branch_changes(const CharTree& t, const CharCosts& costs, std::vector<std::int64_t>& lengths) {
  std::vector<std::uint32_t> sets;
  outside_pass(t, costs, sets, &lengths);
}

void continuous_branches(const std::vector<std::vector<int>>& kids, const std::vector<int>& preorder, int ntax, int c,
                         const std::function<void(const ContinuousBranch&)>& visit) {
  constexpr long long inf = continuous_none;
  auto known = [&](int t, long long& lo, long long& hi) {
    const bool active = t >= static_cast<int>(dataset.taxon_active.size()) || dataset.taxon_active[t] != 0;
    const std::uint32_t v = dataset.cell(t, c);
    if (!active || v == qax::dataset::continuous_missing || v == qax::dataset::continuous_inapplicable) return false;
    lo = v & 0xFFFF;
    hi = v >> 16;
    return true;
  };
  std::vector<long long> values;
  for (int n : preorder) {
    long long lo, hi;
    if (n < ntax && known(n, lo, hi)) { values.push_back(lo); values.push_back(hi); }
  }
  std::sort(values.begin(), values.end());
  values.erase(std::unique(values.begin(), values.end()), values.end());
  const int m = static_cast<int>(values.size());
  if (m < 2) return;
  const std::size_t nodes = kids.size();
  std::vector<long long> D(nodes * m, 0), O(nodes * m, 0), R(m);
  auto d = [&](int n) { return D.data() + static_cast<std::size_t>(n) * m; };
  auto o = [&](int n) { return O.data() + static_cast<std::size_t>(n) * m; };
  auto best_to = [&](const long long* x, int i) {
    long long b = inf;
    for (int j = 0; j < m; ++j) if (x[j] < inf) b = std::min(b, x[j] + std::llabs(values[i] - values[j]));
    return b;
  };
  for (auto it = preorder.rbegin(); it != preorder.rend(); ++it) {
    const int n = *it;
    if (n < ntax) {
      long long lo, hi;
      const bool k = known(n, lo, hi);
      for (int i = 0; i < m; ++i) d(n)[i] = !k ? 0 : values[i] < lo ? lo - values[i] : values[i] > hi ? values[i] - hi : 0;
      continue;
    }
    for (int i = 0; i < m; ++i) {
      long long sum = 0;
      for (int k : kids[n]) sum = std::min(inf, sum + best_to(d(k), i));
      d(n)[i] = sum;
    }
  }
  const int root = preorder.empty() ? ntax : preorder.front();
  long long length = inf;
  for (int i = 0; i < m; ++i) { length = std::min(length, d(root)[i]); o(root)[i] = 0; }
  ContinuousBranch b;
  b.values = &values;
  b.length = length;
  for (int n : preorder) {
    if (n < ntax) continue;
    for (int v : kids[n]) {
      for (int i = 0; i < m; ++i) {
        long long r = o(n)[i];
        for (int k : kids[n]) if (k != v) r = std::min(inf, r + best_to(d(k), i));
        R[i] = r;
      }
      for (int j = 0; j < m; ++j) o(v)[j] = best_to(R.data(), j);
      b.parent = n;
      b.child = v;
      b.R = R.data();
      b.down = d(v);
      b.out_child = o(v);
      b.out_parent = o(n);
      b.down_parent = d(n);
      visit(b);
    }
  }
}

void greatest_branch_changes(const CharTree& t, const CharCosts& costs, std::vector<std::int64_t>& lengths) {
  std::vector<std::uint32_t> sets;
  outside_pass(t, costs, sets, &lengths, true);
}

namespace {

struct Pair {
  std::int64_t cost = cost_none;  // steps
  std::int64_t count = 0;         // changes of the kind counted
};

// Lexicographic: fewer steps first, then fewer (most = false) or more (most = true) changes.
inline bool better(const Pair& a, const Pair& b, bool most) {
  if (a.cost != b.cost) return a.cost < b.cost;
  return most ? a.count > b.count : a.count < b.count;
}

int extreme_changes(const CharTree& t, int c, std::uint32_t from, std::uint32_t to, bool most) {
  const Metric metric = metric_of(c);
  const std::uint32_t states = usable_states(c);
  if (!states) return 0;
  std::vector<std::vector<Pair>> down(t.kids.size(), std::vector<Pair>(32));
  for (auto it = t.preorder.rbegin(); it != t.preorder.rend(); ++it) {
    const int n = *it;
    auto& d = down[n];
    if (n < t.ntax) {
      std::uint32_t v = terminal_states(n, c) & states;
      if (!v) v = states;
      for (std::uint32_t a = v; a; a &= a - 1) d[std::countr_zero(a)] = Pair{0, 0};
      continue;
    }
    for (std::uint32_t a = states; a; a &= a - 1) d[std::countr_zero(a)] = Pair{0, 0};
    for (int k : t.kids[n]) {
      for (std::uint32_t a = states; a; a &= a - 1) {
        const int s = std::countr_zero(a);
        Pair best;
        for (std::uint32_t b = states; b; b &= b - 1) {
          const int u = std::countr_zero(b);
          const Pair& ch = down[k][u];
          if (ch.cost >= cost_none) continue;
          const bool counted = s != u && ((from >> s) & 1) && ((to >> u) & 1);
          Pair p{ch.cost + distance(metric, s, u), ch.count + counted};
          if (better(p, best, most)) best = p;
        }
        d[s].cost = cap(d[s].cost + best.cost);
        d[s].count += best.count;
      }
    }
  }
  Pair best;
  const std::uint32_t at_root = root_states(c, states);
  for (int s = 0; s < 32; ++s)
    if ((at_root >> s & 1) && down[t.ntax][s].cost < cost_none && better(down[t.ntax][s], best, most)) best = down[t.ntax][s];
  return static_cast<int>(best.count);
}

}  // namespace

void count_changes(const CharTree& t, int c, std::uint32_t from, std::uint32_t to, int& least, int& most) {
  least = extreme_changes(t, c, from, to, false);
  most = extreme_changes(t, c, from, to, true);
}

}  // namespace qax::optim
