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
#include <set>

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
  GroupBits key;   // scratch for look-ups
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

// Groups of the target present in u.
int shared_count(const Unrooted& u, Splits& s, const std::set<GroupBits>& target, int taxa) {
  compute_below(u, s);
  int n = 0;
  for (std::size_t k = 1; k < s.order.size(); ++k) {
    const int v = s.order[k];
    if (v < u.ntax) continue;
    const int c = count_row(s.row(v), s.words);
    if (c < 2 || c > taxa - 2) continue;
    s.key.assign(s.row(v), s.row(v) + s.words);
    if (target.count(s.key)) ++n;
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
};

// One greedy replication from a binary tree; moves made and their node distances.
int replicate(Unrooted u, const std::set<GroupBits>& target, int taxa, int cap, std::mt19937& rng,
              std::vector<int>& dists, std::vector<std::vector<std::int32_t>>* steps) {
  const int goal = static_cast<int>(target.size());
  Splits s;
  int now = shared_count(u, s, target, taxa);
  int moves = 0;
  const int nn = static_cast<int>(u.adj.size());
  std::vector<int> dist(nn, -1), stack;
  std::vector<Candidate> best;
  while (now < goal && moves < cap) {
    int best_value = -1;
    best.clear();
    for (int x = u.ntax; x < nn; ++x) {
      if (u.adj[x].size() != 3) continue;
      for (int k = 0; k < 3; ++k) {
        // Move the part behind y (cut from x) onto another branch of x's side.
        const int y = u.adj[x][k];
        const int a = u.adj[x][(k + 1) % 3], b = u.adj[x][(k + 2) % 3];
        unlink(u, x, y);
        unlink(u, x, a);
        unlink(u, x, b);
        link(u, a, b);
        // Branches of a's side with their distance from (a, b).
        std::fill(dist.begin(), dist.end(), -1);
        stack.clear();
        dist[a] = dist[b] = 0;
        stack.push_back(a);
        stack.push_back(b);
        std::vector<std::pair<int, int>> edges;
        for (std::size_t i = 0; i < stack.size(); ++i) {
          const int v = stack[i];
          for (int w : u.adj[v]) {
            if (dist[w] >= 0) continue;
            dist[w] = dist[v] + 1;
            edges.push_back({v, w});
            stack.push_back(w);
          }
        }
        for (auto [c, d] : edges) {
          unlink(u, c, d);
          link(u, c, x);
          link(u, x, d);
          link(u, x, y);
          const int v = shared_count(u, s, target, taxa);
          unlink(u, x, y);
          unlink(u, c, x);
          unlink(u, x, d);
          link(u, c, d);
          if (v > best_value) {
            best_value = v;
            best.clear();
          }
          if (v == best_value) best.push_back({x, y, c, d, dist[c] + 1});
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
    now = best_value;
  }
  return moves;
}

}  // namespace

SprResult spr_distance(const std::int32_t* a, const std::int32_t* b, int ntax, int replications,
                       double weight_constant, std::uint32_t seed, bool keep_steps) {
  SprResult r;
  const std::vector<std::uint8_t> include = shared_taxa(a, b, ntax, {});
  int taxa = 0;
  for (auto f : include) taxa += f != 0;
  Unrooted ua = from_parent(a, ntax, include), ub = from_parent(b, ntax, include);
  if (taxa < 4) return r;
  Splits s;
  const std::vector<GroupBits> target_list = split_list(ub, s, taxa);
  const std::set<GroupBits> target(target_list.begin(), target_list.end());
  std::mt19937 rng(seed);
  for (int v = ntax; v < static_cast<int>(ua.adj.size()); ++v)
    if (ua.adj[v].size() > 3) r.resolved = true;
  if (r.resolved) resolve(ua, target_list, rng);
  // Any two trees are at most taxa - 3 moves apart.
  const int cap = taxa - 3;
  const double far = weight_constant > 0 ? (taxa - 3) / (weight_constant + taxa - 3) : 1.0;
  bool first = true;
  for (int rep = 0; rep < std::max(1, replications); ++rep) {
    std::vector<int> dists;
    std::vector<std::vector<std::int32_t>> steps;
    int moves = replicate(ua, target, taxa, cap + 1, rng, dists, keep_steps ? &steps : nullptr);
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
