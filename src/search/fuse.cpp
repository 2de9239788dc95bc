// Tree fusing. Each tree is held with the first-pass set and the steps of every node and
// the cost of every subtree; a group shared by receiver and donor is found by a key of its
// terminals (checked member by member), and its exchange is costed by replacing the
// subtree cost and re-evaluating the path to the root, stopping where the sets stop
// changing. Accepted exchanges are made at once, so that later ones are costed exactly.
#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <unordered_map>

#include "optim/kernels.h"
#include "optim/implied.h"
#include "optim/packed.h"
#include "search/implied_swap.h"
#include "search/fusing.h"
#include "search/search_internal.h"
#include "search/settings.h"
#include "shell/failure.h"
#include "shell/output.h"
#include "shell/state.h"
#include "trees/store.h"

namespace qax::search {

using qax::optim::packed;

FuseSettings fuse_settings;
int fuse_rounds_done = 0;

namespace {

std::uint64_t tip_key(int t) {
  std::uint64_t z = static_cast<std::uint64_t>(t) * 0x9E3779B97F4A7C15ull + 0x632BE59BD9B4E019ull;
  z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
  z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
  return z ^ (z >> 31);
}

// A binary tree in packed numbering (root nt) with its sets and subtree costs.
struct FuseTree {
  int nt = 0, nn = 0, W = 0;
  const std::uint32_t* tips = nullptr;    // terminal sets (the engine's)
  std::vector<int> anc, left, right, order;
  std::vector<std::uint32_t> sets;        // inner nodes, (n - nt) * W
  std::vector<std::int32_t> steps;        // per node
  std::vector<std::int64_t> cost;         // steps of the subtree
  std::vector<std::uint64_t> key;         // terminals of the subtree
  std::vector<int> size;

  const std::uint32_t* S(int n) const {
    return n < nt ? tips + static_cast<std::size_t>(n) * W : sets.data() + static_cast<std::size_t>(n - nt) * W;
  }
  std::uint32_t* Sm(int n) { return sets.data() + static_cast<std::size_t>(n - nt) * W; }

  bool build(const std::vector<std::int32_t>& parent, Engine& e, int root_terminal = 0) {
    optim::WorkTree w;
    if (!optim::load_tree(parent, w) || w.nterm != e.nt) return false;
    nt = e.nt;
    nn = e.nn;
    W = e.W;
    tips = e.down.data();
    anc = std::move(w.ancestor);
    left = std::move(w.left_child);
    right = std::move(w.right_child);
    for (int n = nt; n < nn; ++n)
      if (left[n] < 0 || right[n] < 0) return false;
    if (root_terminal > 0 && root_terminal < nt) reroot(root_terminal);
    sets.assign(static_cast<std::size_t>(nn - nt) * W, 0);
    steps.assign(nn, 0);
    cost.assign(nn, 0);
    key.assign(nn, 0);
    size.assign(nn, 1);
    for (int t = 0; t < nt; ++t) key[t] = tip_key(t);
    compute();
    return true;
  }

  // The same unrooted tree rooted on the branch of terminal r (inner node numbers kept).
  void reroot(int r) {
    std::vector<std::array<int, 3>> adj(nn, {-1, -1, -1});
    auto link = [&](int a, int b) {
      for (int& x : adj[a]) if (x < 0) { x = b; break; }
      for (int& x : adj[b]) if (x < 0) { x = a; break; }
    };
    for (int n = 0; n < nn; ++n)
      if (n != nt && anc[n] >= 0 && anc[n] != nt) link(n, anc[n]);
    link(left[nt], right[nt]);
    const int y = adj[r][0];
    anc.assign(nn, -1);
    left.assign(nn, -1);
    right.assign(nn, -1);
    anc[r] = nt;
    left[nt] = r;
    anc[y] = nt;
    right[nt] = y;
    std::vector<std::pair<int, int>> st{{y, r}};
    while (!st.empty()) {
      const auto [v, from] = st.back();
      st.pop_back();
      if (v < nt) continue;
      int kids[2], c = 0;
      for (int x : adj[v])
        if (x >= 0 && x != from) kids[c++] = x;
      left[v] = kids[0];
      right[v] = kids[1];
      anc[kids[0]] = anc[kids[1]] = v;
      st.push_back({kids[0], v});
      st.push_back({kids[1], v});
    }
  }

  // Inner nodes in preorder into `order`.
  void preorder() {
    order.clear();
    std::vector<int> stack{nt};
    while (!stack.empty()) {
      const int n = stack.back();
      stack.pop_back();
      order.push_back(n);
      if (right[n] >= nt) stack.push_back(right[n]);
      if (left[n] >= nt) stack.push_back(left[n]);
    }
  }

  void node(int n) {
    const optim::Layout& L = packed.layout;
    std::int32_t ok;
    fitch_sets(L, S(left[n]), S(right[n]), Sm(n));
    steps[n] = join_count(S(left[n]), S(right[n]), INT32_MAX, &ok);
    cost[n] = cost[left[n]] + cost[right[n]] + steps[n];
    key[n] = key[left[n]] ^ key[right[n]];
    size[n] = size[left[n]] + size[right[n]];
  }

  void compute() {
    preorder();
    for (int k = static_cast<int>(order.size()) - 1; k >= 0; --k) node(order[k]);
  }

  double score() const { return static_cast<double>(packed.constant_steps + cost[nt]); }

  void export_tree(std::vector<std::int32_t>& parent) const {
    const int ntax = static_cast<int>(packed.to_packed.size());
    parent.assign(static_cast<std::size_t>(2 * ntax - 1), 0);
    auto id = [&](int n) { return n < nt ? packed.from_packed[n] : ntax + (n - nt); };
    for (int n = 0; n < nn; ++n)
      if (n != nt && anc[n] >= 0) parent[id(n)] = id(anc[n]);
    parent[ntax] = ntax + nt - 1;
    trees::reset_node_numbers(parent.data(), ntax);
  }
};

// Inner nodes of the subtree of n, n first, in preorder.
void inner_nodes(const FuseTree& t, int n, std::vector<int>& out) {
  out.clear();
  out.push_back(n);
  for (std::size_t i = 0; i < out.size(); ++i) {
    const int v = out[i];
    if (t.left[v] >= t.nt) out.push_back(t.left[v]);
    if (t.right[v] >= t.nt) out.push_back(t.right[v]);
  }
}

struct PairWork {
  FuseTree rec, don;
  std::vector<int> match, stamp, groups, ri, di, frozen, map;
  std::vector<std::uint32_t> a, b;
  int stamp_now = 0;
};
PairWork pw;

// Score change of putting donor node d in place of receiver node r.
std::int64_t exchange_delta(PairWork& w, int r, int d) {
  FuseTree& R = w.rec;
  const FuseTree& D = w.don;
  const optim::Layout& L = packed.layout;
  std::int64_t delta = D.cost[d] - R.cost[r];
  const std::uint32_t* cur = D.S(d);
  std::uint32_t* buf[2] = {w.a.data(), w.b.data()};
  int which = 0, n = r;
  std::int32_t ok;
  while (n != R.nt) {
    const int p = R.anc[n];
    const int sib = R.left[p] == n ? R.right[p] : R.left[p];
    std::uint32_t* out = buf[which];
    fitch_sets(L, cur, R.S(sib), out);
    delta += join_count(cur, R.S(sib), INT32_MAX, &ok) - R.steps[p];
    if (std::memcmp(out, R.S(p), sizeof(std::uint32_t) * R.W) == 0) break;
    cur = out;
    which ^= 1;
    n = p;
  }
  return delta;
}

// Copies the topology and sets of donor node d over receiver node r, then the path.
void apply_exchange(PairWork& w, int r, int d) {
  FuseTree& R = w.rec;
  const FuseTree& D = w.don;
  inner_nodes(R, r, w.ri);
  inner_nodes(D, d, w.di);
  // Receiver inner nodes take the places of the donor's, in the same order.
  std::vector<int>& map = w.map;
  if (static_cast<int>(map.size()) < D.nn) map.resize(D.nn);
  for (std::size_t k = 0; k < w.di.size(); ++k) map[w.di[k]] = w.ri[k];
  auto to_r = [&](int x) { return x < D.nt ? x : map[x]; };
  for (std::size_t k = 0; k < w.di.size(); ++k) {
    const int x = w.di[k], y = w.ri[k];
    R.left[y] = to_r(D.left[x]);
    R.right[y] = to_r(D.right[x]);
    R.anc[R.left[y]] = y;
    R.anc[R.right[y]] = y;
    std::memcpy(R.Sm(y), D.S(x), sizeof(std::uint32_t) * R.W);
    R.steps[y] = D.steps[x];
    R.cost[y] = D.cost[x];
    R.key[y] = D.key[x];
    R.size[y] = D.size[x];
    w.frozen[y] = 1;
  }
  for (int p = R.anc[r]; p >= 0; p = R.anc[p]) R.node(p);
}

// Number of children of receiver node r in the consensus of the two trees.
int fork_of(const PairWork& w, int n, bool top) {
  if (n < w.rec.nt || (!top && w.match[n] >= 0)) return 1;
  return fork_of(w, w.rec.left[n], false) + fork_of(w, w.rec.right[n], false);
}

int fuse_loaded(PairWork& w, int equals) {
  FuseTree& R = w.rec;
  const FuseTree& D = w.don;
  const FuseSettings& fs = fuse_settings;
  std::unordered_multimap<std::uint64_t, int> where;
  where.reserve(static_cast<std::size_t>(D.nn));
  for (int n = D.nt; n < D.nn; ++n)
    if (n != D.nt) where.emplace(D.key[n] ^ (static_cast<std::uint64_t>(D.size[n]) << 48), n);
  w.match.assign(R.nn, -1);
  w.stamp.assign(std::max(R.nn, D.nn), 0);
  w.stamp_now = 0;
  w.frozen.assign(R.nn, 0);
  w.a.assign(R.W, 0);
  w.b.assign(R.W, 0);
  std::vector<int> members;
  for (int r = R.nt + 1; r < R.nn; ++r) {
    auto range = where.equal_range(R.key[r] ^ (static_cast<std::uint64_t>(R.size[r]) << 48));
    for (auto it = range.first; it != range.second; ++it) {
      const int d = it->second;
      if (D.size[d] != R.size[r]) continue;
      // Exact check: every terminal of d is below r.
      ++w.stamp_now;
      std::vector<int> st{r};
      while (!st.empty()) {
        const int v = st.back();
        st.pop_back();
        if (v < R.nt) w.stamp[v] = w.stamp_now;
        else { st.push_back(R.left[v]); st.push_back(R.right[v]); }
      }
      bool same = true;
      st.push_back(d);
      while (!st.empty() && same) {
        const int v = st.back();
        st.pop_back();
        if (v < D.nt) same = w.stamp[v] == w.stamp_now;
        else { st.push_back(D.left[v]); st.push_back(D.right[v]); }
      }
      if (same) { w.match[r] = d; break; }
    }
  }
  w.groups.clear();
  std::vector<int> fork(R.nn, 0);
  for (int r = R.nt + 1; r < R.nn; ++r)
    if (w.match[r] >= 0) {
      fork[r] = fork_of(w, r, true);
      if (fork[r] >= fs.minfork) w.groups.push_back(r);
    }
  std::stable_sort(w.groups.begin(), w.groups.end(), [&](int x, int y) { return R.size[x] > R.size[y]; });
  rearrangements_examined.add(w.groups.size());
  int exchanges = 0;
  if (fs.choose) {
    std::int64_t best = 0;
    int br = -1;
    for (int r : w.groups) {
      const std::int64_t d = exchange_delta(w, r, w.match[r]);
      if (d < best || (br < 0 && d == 0 && equals && fork[r] >= 3)) { best = d; br = r; }
    }
    if (br >= 0) { apply_exchange(w, br, w.match[br]); exchanges = 1; }
    return exchanges;
  }
  for (int r : w.groups) {
    if (w.frozen[r]) continue;
    const std::int64_t d = exchange_delta(w, r, w.match[r]);
    if (d < 0 || (d == 0 && equals && fork[r] >= 3)) {
      apply_exchange(w, r, w.match[r]);
      ++exchanges;
    }
  }
  return exchanges;
}

}  // namespace

namespace {

// Fits, and costs of wide columns, can't be swapped in by subtree as step counts are.
bool by_whole_trees() { return optim::implied_settings.implied_on || has_wide_data(); }

}  // namespace

int fuse_pair(std::vector<std::int32_t>& receiver, const std::vector<std::int32_t>& donor, double* score, int equals,
              int root_terminal) {
  if (by_whole_trees())
    return whole_fuse_pair(receiver, donor, score, equals, root_terminal);
  Engine& e = engine();
  PairWork& w = pw;
  if (!w.rec.build(receiver, e, root_terminal) || !w.don.build(donor, e, root_terminal))
    shell::error_exit("Trees to fuse must be binary and hold all active taxa");
  const int n = fuse_loaded(w, equals < 0 ? fuse_settings.equals : equals);
  if (n > 0) {
    w.rec.export_tree(receiver);
    // Back to the rooting of every stored tree.
    if (root_terminal > 0) {
      if (!e.load(receiver)) shell::error_exit("Trees to fuse must be binary and hold all active taxa");
      e.export_tree(receiver);
    }
  }
  if (score) *score = w.rec.score();
  return n;
}

namespace {

double tree_score(const std::vector<std::int32_t>& t) {
  if (by_whole_trees()) return whole_tree_score(t);
  Engine& e = engine();
  FuseTree& f = pw.rec;
  if (!f.build(t, e)) shell::error_exit("Trees to fuse must be binary and hold all active taxa");
  return f.score();
}

}  // namespace

double fuse_trees(std::vector<std::vector<std::int32_t>>& trees, std::vector<double>& scores, int rounds,
                  double stop_score, std::uint32_t seed, bool quiet) {
  const bool implied = optim::implied_settings.implied_on != 0;
  const FuseSettings& fs = fuse_settings;
  if (seed) set_random_seed(seed);
  scores.resize(trees.size());
  int best_index = 0;
  for (std::size_t k = 0; k < trees.size(); ++k) {
    scores[k] = tree_score(trees[k]);
    if (scores[k] < scores[best_index]) best_index = static_cast<int>(k);
  }
  if (trees.size() < 2) return trees.empty() ? -1.0 : scores[0];
  double best = scores[best_index];
  if (stop_score > 0 && best <= stop_score + 1e-8) return best;
  int start = fs.beststart ? best_index : static_cast<int>(random_next() % trees.size());
  int idle = 0;
  fuse_rounds_done = 0;
  const int saved_status = search_status_code;
  std::vector<std::int32_t> scratch;
  std::vector<int> partners;
  for (int round = 0; round < rounds; ++round) {
    if (shell::shell_state.stop_search_flag) break;
    search_status_code = 6;
    scratch = trees[start];
    double sc = scores[start];
    partners.clear();
    for (int k = 0; k < static_cast<int>(trees.size()); ++k)
      if (k != start) partners.push_back(k);
    for (int k = static_cast<int>(partners.size()) - 1; k > 0; --k) std::swap(partners[k], partners[random_next() % (k + 1)]);
    bool changed = false;
    for (int p : partners) {
      if (shell::shell_state.stop_search_flag) break;
      int made = 0;
      do {
        made = fuse_pair(scratch, trees[p], &sc);
        if (made) changed = true;
        // Other rootings expose other groups, as long as something changes.
        for (int x = 0; x < fs.xroot && packed.nterm > 3; ++x) {
          const int r = 1 + static_cast<int>(random_next() % (packed.nterm - 1));
          const int here = fuse_pair(scratch, trees[p], &sc, -1, r);
          if (here == 0) break;
          changed = true;
          made += here;
        }
      } while (fs.repeat && made > 0);
      if (sc < best - 1e-8) {
        best = sc;
        if (!quiet) shell::out_printf("Fusing round %i, new best score %s\n", round + 1, search_score_text(best).c_str());
        if (stop_score > 0 && best <= stop_score + 1e-8) {
          trees.push_back(scratch);
          scores.push_back(sc);
          search_status_code = saved_status;
          return best;
        }
      }
      shell::show_progress(round, rounds, "Fusing");
    }
    bool improved = false;
    ++fuse_rounds_done;
    if (changed) {
      if (fs.swap && implied) {
        long long examined = 0;
        sc = implied_swap(scratch, true, examined);
        rearrangements_examined.add(static_cast<std::uint64_t>(examined));
      } else if (fs.swap) sc = swap_tbr(scratch, 0, 0, 0);
      else sc = tree_score(scratch);
      search_status_code = 6;
      if (sc < best - 1e-8 || sc < scores[best_index] - 1e-8) {
        improved = sc < scores[best_index] - 1e-8;
        best = std::min(best, sc);
        trees.push_back(scratch);
        scores.push_back(sc);
        best_index = static_cast<int>(trees.size()) - 1;
      } else if (std::find(trees.begin(), trees.end(), scratch) == trees.end()) {
        trees.push_back(scratch);
        scores.push_back(sc);
        if (sc < scores[best_index]) best_index = static_cast<int>(trees.size()) - 1;
      }
    }
    if (stop_score > 0 && best <= stop_score + 1e-8) break;
    idle = improved ? 0 : idle + 1;
    if (fs.autostop > 0 && idle >= fs.autostop) break;
    if (trees.size() >= 3) {
      do start = static_cast<int>(random_next() % trees.size());
      while (start == static_cast<int>(trees.size()) - 1);
    } else {
      start = best_index;
    }
  }
  search_status_code = saved_status;
  return best;
}

double fusability_score(const std::vector<std::vector<std::int32_t>>& trees) {
  const int count = static_cast<int>(trees.size());
  if (count < 2) return 0;
  const int pairs = std::min(15, count * count / 2);
  Engine& e = engine();
  double sum = 0;
  int done = 0;
  for (int k = 0; k < pairs; ++k) {
    const int a = random_next() % count;
    int b = random_next() % (count - 1);
    if (b >= a) ++b;
    if (!pw.rec.build(trees[a], e) || !pw.don.build(trees[b], e)) continue;
    // Count the groups that could be exchanged, without exchanging.
    PairWork& w = pw;
    std::unordered_map<std::uint64_t, int> where;
    for (int n = w.don.nt + 1; n < w.don.nn; ++n) where.emplace(w.don.key[n] ^ (static_cast<std::uint64_t>(w.don.size[n]) << 48), n);
    w.match.assign(w.rec.nn, -1);
    for (int r = w.rec.nt + 1; r < w.rec.nn; ++r) {
      auto it = where.find(w.rec.key[r] ^ (static_cast<std::uint64_t>(w.rec.size[r]) << 48));
      if (it != where.end()) w.match[r] = it->second;
    }
    int groups = 0;
    for (int r = w.rec.nt + 1; r < w.rec.nn; ++r)
      if (w.match[r] >= 0 && fork_of(w, r, true) >= fuse_settings.minfork) ++groups;
    sum += 100.0 * groups / std::max(1, packed.nterm);
    ++done;
  }
  return done ? sum / done : 0;
}

}  // namespace qax::search
