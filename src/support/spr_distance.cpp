// Heuristic SPR distance. Both trees are taken unrooted on the taxa they share. The first is
// made binary, choosing resolutions that hold groups of the second; then each replication
// makes greedy SPR moves on it, each time the move that leaves the most groups of the
// second tree in place (ties broken at random), until every group of the second tree is
// present. Each move is a real SPR move, so the count never falls below the true distance.
#include <algorithm>
#include <bit>
#include <climits>
#include <cmath>
#include <cstdint>
#include <random>
#include <unordered_map>

#include "support/tree_compare.h"
#include "trees/store.h"

namespace qax::support {

namespace {

// An unrooted tree as an adjacency list: terminals keep their taxon numbers, inner nodes
// follow from ntax on. Nodes not in use have no neighbours.
struct Unrooted {
  int ntax = 0;
  int words = 0;
  std::vector<std::vector<int>> adj;
  int ref = -1;            // first terminal in the tree: groups are taken on its far side
};

void link(Unrooted& u, int a, int b) {
  u.adj[a].push_back(b);
  u.adj[b].push_back(a);
}
void unlink(Unrooted& u, int a, int b) {
  auto& x = u.adj[a];
  x.erase(std::find(x.begin(), x.end(), b));
  auto& y = u.adj[b];
  y.erase(std::find(y.begin(), y.end(), a));
}

// From a parent array, keeping the included taxa; inner nodes of one child are passed over
// and a root of two children is removed.
Unrooted from_parent(const std::int32_t* tree, int ntax, const std::vector<std::uint8_t>& include) {
  Unrooted u;
  u.ntax = ntax;
  u.words = (ntax + 63) / 64;
  u.adj.assign(4 * ntax + 4, {});
  const int end = std::max(tree[ntax], ntax + 1);
  std::vector<std::vector<int>> kids(end);
  for (int n = 0; n < end; ++n) {
    if (n == ntax || (n < ntax && (tree[n] < ntax || !include[n]))) continue;
    if (tree[n] >= ntax && tree[n] < end) kids[tree[n]].push_back(n);
  }
  int next = ntax;
  auto build = [&](auto&& self, int v) -> int {
    if (v < ntax) return v;
    std::vector<int> ids;
    for (int c : kids[v]) {
      const int id = self(self, c);
      if (id >= 0) ids.push_back(id);
    }
    if (ids.empty()) return -1;
    if (ids.size() == 1) return ids[0];
    const int me = next++;
    for (int id : ids) link(u, me, id);
    return me;
  };
  const int root = build(build, ntax);
  if (root >= ntax && u.adj[root].size() == 2) {
    const int a = u.adj[root][0], b = u.adj[root][1];
    unlink(u, root, a);
    unlink(u, root, b);
    link(u, a, b);
  }
  for (int t = 0; t < ntax; ++t)
    if (include[t] && !u.adj[t].empty()) {
      u.ref = t;
      break;
    }
  return u;
}

// Terminals on the far side (from ref) of the branch above each node, as flat bit rows,
// with the neighbour toward ref and the nodes in order from ref outwards.
struct Splits {
  int words = 1;
  std::vector<std::uint64_t> below;
  std::vector<int> up;
  std::vector<int> order;
  std::uint64_t* row(int v) { return below.data() + static_cast<std::size_t>(v) * words; }
};

void compute_below(const Unrooted& u, Splits& s) {
  const int nn = static_cast<int>(u.adj.size());
  s.words = u.words;
  s.below.assign(static_cast<std::size_t>(nn) * u.words, 0);
  s.up.assign(nn, -1);
  s.order.clear();
  if (u.ref < 0) return;
  s.order.push_back(u.ref);
  s.up[u.ref] = u.ref;
  for (std::size_t k = 0; k < s.order.size(); ++k) {
    const int v = s.order[k];
    for (int w : u.adj[v])
      if (w != s.up[v]) {
        s.up[w] = v;
        s.order.push_back(w);
      }
  }
  for (std::size_t k = s.order.size(); k-- > 1;) {
    const int v = s.order[k];
    if (v < u.ntax) s.row(v)[v / 64] |= 1ull << (v % 64);
    const int p = s.up[v];
    if (p != u.ref)
      for (int w = 0; w < u.words; ++w) s.row(p)[w] |= s.row(v)[w];
  }
}

int count_row(const std::uint64_t* g, int words) {
  int n = 0;
  for (int w = 0; w < words; ++w) n += std::popcount(g[w]);
  return n;
}
int count_bits(const GroupBits& g) { return count_row(g.data(), static_cast<int>(g.size())); }

std::vector<GroupBits> split_list(const Unrooted& u, Splits& s, int taxa) {
  compute_below(u, s);
  std::vector<GroupBits> out;
  for (std::size_t k = 1; k < s.order.size(); ++k) {
    const int v = s.order[k];
    if (v < u.ntax) continue;
    const int c = count_row(s.row(v), s.words);
    if (c >= 2 && c <= taxa - 2) out.emplace_back(s.row(v), s.row(v) + s.words);
  }
  std::sort(out.begin(), out.end());
  out.erase(std::unique(out.begin(), out.end()), out.end());
  return out;
}

// The groups of the target tree, looked up by a hash of their words.
struct TargetGroups {
  int words = 1;
  std::vector<GroupBits> rows;
  std::unordered_multimap<std::uint64_t, int> index;
  static std::uint64_t hash(const std::uint64_t* g, int words) {
    std::uint64_t h = 0x9E3779B97F4A7C15ull;
    for (int w = 0; w < words; ++w) h = (h ^ g[w]) * 0xBF58476D1CE4E5B9ull;
    return h ^ (h >> 31);
  }
  void build(const std::vector<GroupBits>& groups, int nwords) {
    words = nwords;
    rows = groups;
    index.clear();
    for (int i = 0; i < static_cast<int>(rows.size()); ++i) index.emplace(hash(rows[i].data(), words), i);
  }
  bool contains(const std::uint64_t* g) const {
    auto range = index.equal_range(hash(g, words));
    for (auto it = range.first; it != range.second; ++it)
      if (std::equal(g, g + words, rows[it->second].begin())) return true;
    return false;
  }
  int size() const { return static_cast<int>(rows.size()); }
};

// Groups of the target present in u.
int shared_count(const Unrooted& u, Splits& s, const TargetGroups& target, int taxa) {
  compute_below(u, s);
  int n = 0;
  for (std::size_t k = 1; k < s.order.size(); ++k) {
    const int v = s.order[k];
    if (v < u.ntax) continue;
    const int c = count_row(s.row(v), s.words);
    if (c < 2 || c > taxa - 2) continue;
    if (target.contains(s.row(v))) ++n;
  }
  return n;
}

// Makes u binary: at each node of more than three branches two of its branches away from
// ref are joined under a new node, the pair whose union lies in the smallest group of the
// target that doesn't reach beyond that node (ties at random).
void resolve(Unrooted& u, const std::vector<GroupBits>& target, std::mt19937& rng) {
  Splits s;
  for (bool again = true; again;) {
    again = false;
    compute_below(u, s);
    for (int v : s.order) {
      if (v < u.ntax || u.adj[v].size() <= 3) continue;
      std::vector<int> kids;
      for (int w : u.adj[v])
        if (w != s.up[v]) kids.push_back(w);
      GroupBits span(u.words, 0);
      for (int c : kids)
        for (int w = 0; w < u.words; ++w) span[w] |= s.row(c)[w];
      int best = INT_MAX, ties = 0, pa = kids[0], pb = kids[1];
      for (std::size_t i = 0; i < kids.size(); ++i)
        for (std::size_t j = i + 1; j < kids.size(); ++j) {
          GroupBits un(u.words);
          for (int w = 0; w < u.words; ++w) un[w] = s.row(kids[i])[w] | s.row(kids[j])[w];
          int size = INT_MAX - 1;
          for (const auto& g : target) {
            bool holds = true, inside = true;
            for (int w = 0; w < u.words; ++w) {
              holds &= (un[w] & ~g[w]) == 0;
              inside &= (g[w] & ~span[w]) == 0;
            }
            if (holds && inside) size = std::min(size, count_bits(g));
          }
          if (size < best) {
            best = size;
            ties = 1;
            pa = kids[i];
            pb = kids[j];
          } else if (size == best && rng() % ++ties == 0) {
            pa = kids[i];
            pb = kids[j];
          }
        }
      // A new node for the pair.
      int q = -1;
      for (int n = u.ntax; n < static_cast<int>(u.adj.size()); ++n)
        if (u.adj[n].empty() && n != u.ref) {
          q = n;
          break;
        }
      if (q < 0) {
        q = static_cast<int>(u.adj.size());
        u.adj.emplace_back();
      }
      unlink(u, v, pa);
      unlink(u, v, pb);
      link(u, q, pa);
      link(u, q, pb);
      link(u, v, q);
      again = true;
      break;
    }
  }
}

// A rooted parent array of u (root beside ref), canonical.
std::vector<std::int32_t> to_parent(const Unrooted& u, int ntax) {
  std::vector<std::int32_t> p(2 * ntax - 1, 0);
  if (u.ref < 0) return p;
  int next = ntax + 1;
  p[u.ref] = ntax;
  const int first = u.adj[u.ref].empty() ? -1 : u.adj[u.ref][0];
  if (first < 0) {
    p[ntax] = ntax + 1;
    return p;
  }
  std::vector<std::pair<int, int>> st{{first, u.ref}};
  std::vector<int> parent_id{ntax};
  while (!st.empty()) {
    auto [v, from] = st.back();
    st.pop_back();
    const int par = parent_id.back();
    parent_id.pop_back();
    const int me = v < ntax ? v : next++;
    p[me] = par;
    for (int w : u.adj[v])
      if (w != from) {
        st.push_back({w, v});
        parent_id.push_back(me);
      }
  }
  p[ntax] = next;
  trees::reset_node_numbers(p.data(), ntax);
  return p;
}

struct Candidate {
  int x, y, c, d, dist;
  int value;   // target groups the tree keeps after the move
};

// One greedy replication from a binary tree; moves made and their node distances.
// Groups of the target kept by each regrafting of the part behind y (cut from x), found
// for all branches of the rest R at once. For a branch f of R (rooted at a, below it the
// taxa Dn_f), g_f tells whether the split Dn_f + Y | rest is a target group, h_f whether
// Dn_f | rest + Y is: a branch below which the part lands takes the first form, any other
// the second. So regrafting onto the branch above v keeps C + H + prefix(v) + g_v groups,
// H the sum of h over R and prefix(v) the sum of g - h over the branches above v's; C, the
// groups inside the part, follows from the tree as it is (the part on branch a-b).
struct Regraft {
  int words = 1;
  std::vector<std::uint64_t> dn, ybits, all, tmp;
  std::vector<int> par, order, prefix, g, h;
  std::uint64_t* row(int v) { return dn.data() + static_cast<std::size_t>(v) * words; }
};

// `level` > 0 stratifies the choice: a move may keep up to `level` target groups fewer
// than the best move, as long as it still gains on the tree as it is, so that a
// replication can leave the greedy path where the best immediate gain leads nowhere.
int replicate(Unrooted u, const TargetGroups& target, int taxa, int cap, std::mt19937& rng,
              std::vector<int>& dists, std::vector<std::vector<std::int32_t>>* steps, bool ancestor_moves,
              int level) {
  const int goal = target.size();
  Splits s;
  int now = shared_count(u, s, target, taxa);
  int moves = 0;
  const int nn = static_cast<int>(u.adj.size());
  const int W = u.words;
  std::vector<int> dist(nn, -1), stack, toward_ref(nn, -1);
  std::vector<std::uint8_t> on_path(nn, 0);
  std::vector<Candidate> best;
  Regraft rg;
  rg.words = W;
  rg.dn.assign(static_cast<std::size_t>(nn) * W, 0);
  rg.ybits.assign(W, 0);
  rg.all.assign(W, 0);
  rg.tmp.assign(W, 0);
  rg.par.assign(nn, -1);
  rg.prefix.assign(nn, 0);
  rg.g.assign(nn, 0);
  rg.h.assign(nn, 0);
  const int ref = u.ref;
  auto lookup = [&](const std::uint64_t* side) {
    // The side without ref.
    if (side[ref / 64] >> (ref % 64) & 1) {
      for (int w = 0; w < W; ++w) rg.tmp[w] = rg.all[w] & ~side[w];
    } else {
      std::copy(side, side + W, rg.tmp.begin());
    }
    return target.contains(rg.tmp.data()) ? 1 : 0;
  };
  while (now < goal && moves < cap) {
    int best_value = -1;
    best.clear();
    if (!ancestor_moves) {
      // Neighbour of each node on the way to ref.
      std::fill(toward_ref.begin(), toward_ref.end(), -1);
      stack.assign(1, ref);
      toward_ref[ref] = ref;
      for (std::size_t i = 0; i < stack.size(); ++i)
        for (int w : u.adj[stack[i]])
          if (toward_ref[w] < 0) {
            toward_ref[w] = stack[i];
            stack.push_back(w);
          }
    }
    for (int x = u.ntax; x < nn; ++x) {
      if (u.adj[x].size() != 3) continue;
      for (int k = 0; k < 3; ++k) {
        const int y = u.adj[x][k];
        const int a = u.adj[x][(k + 1) % 3], b = u.adj[x][(k + 2) % 3];
        // The nodes from x to ref, when the part moved is the one away from ref.
        const bool restrict_path = !ancestor_moves && toward_ref[x] != y;
        if (restrict_path)
          for (int v = x;; v = toward_ref[v]) {
            on_path[v] = 1;
            if (v == ref) break;
          }
        unlink(u, x, y);
        unlink(u, x, a);
        unlink(u, x, b);
        link(u, a, b);
        // Taxa of the part.
        std::fill(rg.ybits.begin(), rg.ybits.end(), 0);
        stack.assign(1, y);
        rg.par[y] = y;
        for (std::size_t i = 0; i < stack.size(); ++i) {
          const int v = stack[i];
          if (v < u.ntax) rg.ybits[v / 64] |= 1ull << (v % 64);
          for (int w : u.adj[v])
            if (w != rg.par[v]) {
              rg.par[w] = v;
              stack.push_back(w);
            }
        }
        // R rooted at a: parents, order, taxa below each node.
        rg.order.assign(1, a);
        rg.par[a] = -1;
        for (std::size_t i = 0; i < rg.order.size(); ++i) {
          const int v = rg.order[i];
          std::fill(rg.row(v), rg.row(v) + W, 0);
          for (int w : u.adj[v])
            if (w != rg.par[v]) {
              rg.par[w] = v;
              rg.order.push_back(w);
            }
        }
        for (std::size_t i = rg.order.size(); i-- > 0;) {
          const int v = rg.order[i];
          if (v < u.ntax) rg.row(v)[v / 64] |= 1ull << (v % 64);
          if (i > 0)
            for (int w = 0; w < W; ++w) rg.row(rg.par[v])[w] |= rg.row(v)[w];
        }
        for (int w = 0; w < W; ++w) rg.all[w] = rg.row(a)[w] | rg.ybits[w];
        int H = 0;
        for (std::size_t i = 1; i < rg.order.size(); ++i) {
          const int v = rg.order[i];
          rg.h[v] = lookup(rg.row(v));
          for (int w = 0; w < W; ++w) rg.tmp[w] = rg.row(v)[w] | rg.ybits[w];
          const std::vector<std::uint64_t> with_y(rg.tmp);
          rg.g[v] = lookup(with_y.data());
          H += rg.h[v];
          const int p = rg.par[v];
          rg.prefix[v] = p == a ? 0 : rg.prefix[p] + rg.g[p] - rg.h[p];
        }
        const int base = now - H - rg.g[b];
        // Distances of the branches from the branch a-b.
        for (int v : rg.order) dist[v] = -1;
        stack.assign({a, b});
        dist[a] = dist[b] = 0;
        for (std::size_t i = 0; i < stack.size(); ++i) {
          const int v = stack[i];
          for (int w : u.adj[v])
            if (dist[w] < 0) {
              dist[w] = dist[v] + 1;
              stack.push_back(w);
            }
        }
        for (std::size_t i = 1; i < rg.order.size(); ++i) {
          const int v = rg.order[i];
          if (v == b) continue;   // where the part was
          if (restrict_path && on_path[v] && on_path[rg.par[v]]) continue;   // onto an ancestor
          const int value = base + H + rg.prefix[v] + rg.g[v];
          if (level > 0) {
            best.push_back({x, y, rg.par[v], v, std::min(dist[rg.par[v]], dist[v]) + 1, value});
            if (value > best_value) best_value = value;
            continue;
          }
          if (value > best_value) {
            best_value = value;
            best.clear();
          }
          if (value == best_value)
            best.push_back({x, y, rg.par[v], v, std::min(dist[rg.par[v]], dist[v]) + 1, value});
        }
        if (restrict_path)
          for (int v = x;; v = toward_ref[v]) {
            on_path[v] = 0;
            if (v == ref) break;
          }
        unlink(u, a, b);
        link(u, x, a);
        link(u, x, b);
        link(u, x, y);
        // Keep the neighbour order of x as it was.
        u.adj[x][k] = y;
        u.adj[x][(k + 1) % 3] = a;
        u.adj[x][(k + 2) % 3] = b;
      }
    }
    if (level > 0) {
      // Stratified: the moves within `level` of the best gain; none gaining, the best.
      std::size_t kept = 0;
      for (const Candidate& m : best)
        if (m.value == best_value || (m.value >= best_value - level && m.value > now)) best[kept++] = m;
      best.resize(kept);
    }
    if (best.empty()) break;
    const Candidate m = best[rng() % best.size()];
    const int x = m.x, y = m.y;
    std::vector<int> rest;
    for (int w : u.adj[x])
      if (w != y) rest.push_back(w);
    unlink(u, x, y);
    unlink(u, x, rest[0]);
    unlink(u, x, rest[1]);
    link(u, rest[0], rest[1]);
    unlink(u, m.c, m.d);
    link(u, m.c, x);
    link(u, x, m.d);
    link(u, x, y);
    ++moves;
    dists.push_back(m.dist);
    if (steps) steps->push_back(to_parent(u, u.ntax));
    now = shared_count(u, s, target, taxa);
  }
  // Short of the target (no move left, or the cap reached): more than the cap.
  return now < goal ? cap + 1 : moves;
}

}  // namespace

SprResult spr_distance(const std::int32_t* a, const std::int32_t* b, int ntax, int replications,
                       double weight_constant, std::uint32_t seed, bool keep_steps, bool ancestor_moves,
                       int levels, bool alternate) {
  SprResult r;
  const std::vector<std::uint8_t> include = shared_taxa(a, b, ntax, {});
  int taxa = 0;
  for (auto f : include) taxa += f != 0;
  Unrooted ua = from_parent(a, ntax, include), ub = from_parent(b, ntax, include);
  if (taxa < 4) return r;
  Splits s;
  const std::vector<GroupBits> target_list = split_list(ub, s, taxa);
  TargetGroups target;
  target.build(target_list, ua.words);
  std::mt19937 rng(seed);
  for (int v = ntax; v < static_cast<int>(ua.adj.size()); ++v)
    if (ua.adj[v].size() > 3) r.resolved = true;
  if (r.resolved) resolve(ua, target_list, rng);
  // Any two trees are at most taxa - 3 moves apart.
  const int cap = taxa - 3;
  const double far = weight_constant > 0 ? (taxa - 3) / (weight_constant + taxa - 3) : 1.0;
  bool first = true;
  // Each replication runs at one level of stratification: with "x" every level from 0
  // (plain greedy) to `levels` gets the replications in turn, with "+" plain and
  // stratified replications alternate, the stratified ones cycling through the levels.
  const int runs = std::max(1, replications) * (levels > 0 && !alternate ? levels + 1 : 1);
  for (int rep = 0; rep < runs; ++rep) {
    int level = 0;
    if (levels > 0) level = alternate ? (rep % 2 ? 1 + (rep / 2) % levels : 0) : rep % (levels + 1);
    std::vector<int> dists;
    std::vector<std::vector<std::int32_t>> steps;
    int moves = replicate(ua, target, taxa, cap + 1, rng, dists, keep_steps ? &steps : nullptr, ancestor_moves,
                          level);
    if (moves > cap) {
      // The greedy path went astray: the bound for any pair of trees holds.
      moves = cap;
      dists.assign(cap, taxa - 3);
      steps.clear();
    }
    double w = moves;
    if (weight_constant > 0) {
      w = 0;
      for (int d : dists) w += (d / (weight_constant + d)) / far;
    }
    if (first || w < r.weighted - 1e-12 || (std::fabs(w - r.weighted) <= 1e-12 && moves < r.moves)) {
      r.moves = moves;
      r.weighted = w;
      r.distances = dists;
      r.steps = std::move(steps);
      first = false;
    }
    if (moves == 0) break;
  }
  return r;
}

}  // namespace qax::support
