// Random numbers and the Wagner build: taxa added one at a time at the branch where they
// cost least, each branch evaluated by one join against its branch set; after each
// insertion only the sets it changes are recomputed.
#include <algorithm>
#include <climits>
#include <cstring>
#include <ctime>

#include "optim/field_ops.h"
#include "optim/kernels.h"
#include "search/constraints.h"
#include "search/engine.h"
#include "search/fusing.h"
#include "search/sectors.h"
#include "search/xmult.h"
#include "search/search_internal.h"
#include "search/settings.h"
#include "shell/failure.h"
#include "shell/output.h"
#include "shell/state.h"

namespace qax::search {


using qax::optim::packed;

SearchSettings search_settings;
Rearrangements rearrangements_examined;
std::uint64_t replacements_done = 0;
int search_status_code = 0;
double last_best_score = -1.0;
int last_hits = 0;
CandidateTestFn constraint_allows = nullptr;
int wagner_region_faults = -1;

namespace {
std::uint64_t rng_state = 1;
}

void set_random_seed(std::uint32_t seed) noexcept { rng_state = seed; }
std::uint32_t random_state() noexcept { return static_cast<std::uint32_t>(rng_state); }

// 48-bit linear congruential generator; the high 31 bits are returned.
int random_next() noexcept {
  rng_state = (rng_state * 0x5DEECE66Dull + 0xBull) & ((1ull << 48) - 1);
  return static_cast<int>(rng_state >> 17);
}

void random_shuffle(int count, int* array) noexcept {
  for (int i = 0; i < count; ++i) array[i] = i;
  for (int i = count - 1; i > 0; --i) std::swap(array[i], array[random_next() % (i + 1)]);
}

void reset_search_state() {
  search_settings = SearchSettings{};
  ratchet_settings = RatchetSettings{};
  drift_settings = DriftSettings{};
  fuse_settings = FuseSettings{};
  sector_settings = SectorSettings{};
  pfijo_settings = PfijoSettings{};
  xmult_settings = XmultSettings{};
  rearrangements_examined = Rearrangements{};
  replacements_done = 0;
  search_status_code = 0;
  last_best_score = -1.0;
  last_hits = 0;
  rng_state = 1;
}

Engine* engine_override = nullptr;

Engine& engine() {
  if (engine_override) return *engine_override;
  static Engine e;
  if (e.nt != packed.nterm || e.W != packed.nwords || e.nn == 0) e.init();
  return e;
}

void engine_refresh() {
  Engine& e = engine();
  e.init();
}

namespace {

// Branches of the tree being built, in preorder from the root's second child.
int list_branches(Engine& e, std::vector<int>& list) {
  int n = 0, top = 0;
  e.stack[top++] = e.right[e.nt];
  while (top) {
    int v = e.stack[--top];
    list[n++] = v;
    if (v < e.nt) continue;
    e.stack[top++] = e.right[v];
    e.stack[top++] = e.left[v];
  }
  return n;
}

struct Placement {
  int branch = -1;          // best branch
  std::int32_t best = INT_MAX;   // its cost
  std::int32_t worst = -1;  // worst complete cost
  // Costs terminal t on branch b within bound; a new best (constraints allowing) is noted,
  // and with `lower` the bound comes down to just below it. False when nothing is left to
  // find (a best of 0 under a lowered bound).
  bool offer(Engine& e, int t, int b, std::int32_t& bound, bool lower) {
    std::int32_t ok;
    const std::int32_t c = e.leaf_join(t, b, bound, &ok);
    if (!ok || (constraint_allows && !constraint_allows(t, -1, b))) return true;
    if (c > worst) worst = c;
    if (c >= best) return true;
    best = c;
    branch = b;
    if (!lower) return true;
    bound = c - 1;
    return bound >= 0;
  }
};

// Best branch for terminal t; `strict` lowers the bound with the best (plain and cas),
// otherwise every branch gets a complete cost (sas, fas).
Placement place(Engine& e, int t, const std::vector<int>& list, int count, const int* visit, bool backward,
                bool strict) {
  Placement pl;
  std::int32_t bound = INT_MAX;
  for (int k = 0; k < count; ++k) {
    const int idx = visit ? visit[k] : (backward ? count - 1 - k : k);
    if (!pl.offer(e, t, list[idx], bound, strict)) break;
  }
  return pl;
}


// Node clusters of the Wagner build: every branch of the tree belongs to one region, and a
// region's union covers the branch sets of its members, so that one join against the union
// rules out all members at once. Branch sets changed by an insertion are OR-ed into their
// region's union (a wider union stays a cover); a region grown past clustersize + 6 is split
// in two with exact unions.
struct Regions {
  std::vector<int> of;                     // region of each node, -1 none
  std::vector<std::vector<int>> members;   // branches of each region
  std::vector<std::uint32_t> unions;       // one set per region
  std::vector<int> changed;                // branch sets changed by the last insertion
  int size = 15;

  std::uint32_t* U(const Engine& e, int r) { return unions.data() + static_cast<std::size_t>(r) * e.W; }
  void exact_union(const Engine& e, int r) {
    std::uint32_t* un = U(e, r);
    fill_bytes(un, 0, sizeof(std::uint32_t) * e.W);
    for (int b : members[r]) union_sets(e.W, const_cast<Engine&>(e).E(b), un);
  }
  void build(Engine& e, const std::vector<int>& list, int count) {
    of.assign(e.nn, -1);
    members.clear();
    for (int k = 0; k < count; k += size) {
      members.emplace_back(list.begin() + k, list.begin() + std::min(count, k + size));
      for (int b : members.back()) of[b] = static_cast<int>(members.size()) - 1;
    }
    unions.assign(static_cast<std::size_t>(e.nn) * e.W, 0u);
    for (int r = 0; r < static_cast<int>(members.size()); ++r) exact_union(e, r);
  }
  // Branches without a region, and members not covered by their region's union.
  int faults(Engine& e, const std::vector<int>& list, int count) {
    int bad = 0;
    for (int k = 0; k < count; ++k) {
      const int b = list[k];
      if (of[b] < 0) { ++bad; continue; }
      const std::uint32_t* un = U(e, of[b]);
      const std::uint32_t* set = e.E(b);
      for (int w = 0; w < e.W; ++w)
        if ((set[w] & ~un[w]) != 0) { ++bad; break; }
    }
    return bad;
  }
  // After t went with q onto `branch`.
  void inserted(Engine& e, int t, int branch, int q) {
    const int r = of[branch];
    members[r].push_back(q);
    members[r].push_back(t);
    of[q] = of[t] = r;
    for (int v : changed)
      if (of[v] >= 0) union_sets(e.W, e.E(v), U(e, of[v]));
    if (static_cast<int>(members[r].size()) > size + 6) {
      const int r2 = static_cast<int>(members.size());
      const int half = static_cast<int>(members[r].size()) / 2;
      members.emplace_back(members[r].begin() + half, members[r].end());
      members[r].resize(half);
      for (int b : members[r2]) of[b] = r2;
      exact_union(e, r);
      exact_union(e, r2);
    }
  }
};

// Best branch for t by regions: a region whose union fails the bound is skipped whole.
Placement place_by_regions(Engine& e, Regions& rg, int t, bool backward) {
  Placement pl;
  std::int32_t bound = INT_MAX;
  std::int32_t ok;
  const int nr = static_cast<int>(rg.members.size());
  for (int k = 0; k < nr && bound >= 0; ++k) {
    const int r = backward ? nr - 1 - k : k;
    join_count(e.D(t), rg.U(e, r), bound < 0 ? -1 : bound / e.unit, &ok);
    if (!ok) continue;
    for (int b : rg.members[r])
      if (!pl.offer(e, t, b, bound, true)) break;
  }
  return pl;
}

// Informativeness order: after the first three taxa, the fourth is the one of the next
// `look` that joins the three-taxon tree at least cost; then, repeatedly, the remaining
// taxon that would make the most characters informative, counting a character when some
// state is present in two taxa (states seen twice, or seen once and in the taxon). Fields
// where a taxon is missing (all states) add nothing. Ties go to the earlier taxon.
void informative_order(Engine& e, std::vector<int>& seq, int look) {
  using namespace qax::optim::ops;
  const int nt = e.nt;
  const optim::Layout& L = packed.layout;
  const std::size_t WS = static_cast<std::size_t>(e.W);
  {
    std::int32_t ok, best = INT_MAX;
    int pick = 3;
    std::vector<std::uint32_t> edge(WS);
    const int end = static_cast<int>(std::min<long long>(nt, 3LL + std::max(look, 1)));
    for (int j = 3; j < end; ++j) {
      std::int32_t c = INT_MAX;
      for (int b : {seq[0], seq[1], seq[2]}) {
        // Cost of j beside terminal b of the three-taxon star: its set against b's branch set.
        const int o1 = b == seq[0] ? seq[1] : seq[0], o2 = b == seq[2] ? seq[1] : seq[2];
        fitch_sets(L, e.D(o1), e.D(o2), edge.data());
        fitch_sets(L, e.D(b), edge.data(), edge.data());
        c = std::min(c, join_count(e.D(seq[j]), edge.data(), INT_MAX, &ok));
      }
      if (c < best) {
        best = c;
        pick = j;
      }
      if (best == 0) break;
    }
    std::rotate(seq.begin() + 3, seq.begin() + pick, seq.begin() + pick + 1);
  }
  // Terminal rows without their missing fields.
  std::vector<std::uint32_t> rows(static_cast<std::size_t>(nt) * WS), once(WS, 0u), twice(WS, 0u);
  auto strip = [&](const std::uint32_t* d, std::uint32_t* o) {
    int w = 0;
    for (; w < L.end0; ++w) o[w] = d[w] & nonzero_of<0>(~d[w]);
    for (; w < L.end1; ++w) o[w] = d[w] & nonzero_of<1>(~d[w]);
    for (; w < L.end2; ++w) o[w] = d[w] & nonzero_of<2>(~d[w]);
    for (; w < L.end4; ++w) o[w] = d[w] == ~0u ? 0u : d[w];
    for (; w < e.W; ++w) o[w] = 0;
  };
  for (int t = 0; t < nt; ++t) strip(e.D(t), rows.data() + t * WS);
  auto add = [&](int t) {
    const std::uint32_t* r = rows.data() + t * WS;
    for (int w = 0; w < e.W; ++w) {
      twice[w] |= once[w] & r[w];
      once[w] |= r[w];
    }
  };
  for (int k = 0; k < 4; ++k) add(seq[k]);
  // Informative fields of a word for a taxon's row; counts are kept per taxon and word and
  // redone only in the words where the running sets changed.
  auto word_count = [&](int w, const std::uint32_t* r) -> int {
    const std::uint32_t x = twice[w] | (once[w] & r[w]);
    auto bits = [](std::uint32_t v) { return optim::popcount16[v & 0xFFFF] + optim::popcount16[v >> 16]; };
    if (w < L.end0) return bits(nonzero_of<0>(x) & 0x55555555u);
    if (w < L.end1) return bits(nonzero_of<1>(x) & 0x88888888u);
    if (w < L.end2) return bits(nonzero_of<2>(x) & 0x80808080u);
    return x != 0;
  };
  const int nw = L.end4;
  std::vector<std::uint8_t> part(static_cast<std::size_t>(nt) * WS, 0);
  std::vector<int> count(nt, 0), changed;
  std::vector<std::uint32_t> old_once(WS), old_twice(WS);
  for (int k = 4; k < nt; ++k) {
    const int t = seq[k];
    const std::uint32_t* r = rows.data() + t * WS;
    for (int w = 0; w < nw; ++w) count[t] += part[t * WS + w] = static_cast<std::uint8_t>(word_count(w, r));
  }
  for (int i = 4; i < nt; ++i) {
    int pick = i, best = -1;
    for (int j = i; j < nt; ++j)
      if (count[seq[j]] > best) {
        best = count[seq[j]];
        pick = j;
      }
    std::rotate(seq.begin() + i, seq.begin() + pick, seq.begin() + pick + 1);
    old_once = once;
    old_twice = twice;
    add(seq[i]);
    changed.clear();
    for (int w = 0; w < nw; ++w)
      if (once[w] != old_once[w] || twice[w] != old_twice[w]) changed.push_back(w);
    for (int j = i + 1; j < nt; ++j) {
      const int t = seq[j];
      const std::uint32_t* r = rows.data() + t * WS;
      for (int w : changed) {
        const int c = word_count(w, r);
        count[t] += c - part[t * WS + w];
        part[t * WS + w] = static_cast<std::uint8_t>(c);
      }
    }
  }
}
}  // namespace

double wagner_build(std::vector<std::int32_t>& parent_array, std::uint32_t seed) {
  Engine& e = engine();
  const int nt = e.nt;
  if (nt < 3) qax::shell::error_exit("Need at least 3 active taxa to build a tree");
  constraints_start_search(e.anc.data(), e.left.data(), e.right.data(), e.nt);
  struct EndConstraints { ~EndConstraints() { constraints_end_search(); } } end_constraints;
  const std::uint32_t caller_state = random_state();
  set_random_seed(seed);
  std::vector<int> seq(nt);
  // Under negative constraints a sequence can reach a partial tree that no placement
  // can repair (two forbidden groups formed at once, each needing the next taxon):
  // the tree is then built again from another sequence.
  constexpr int constrained_attempts = 100;
  for (int attempt = 0;; ++attempt) {
  random_shuffle(nt, seq.data());
  // Terminal 0 first unless random outgroup.
  int r = 0;
  if (search_settings.random_outgroup && !constraint_allows) r = random_next() % nt;
  std::swap(seq[0], *std::find(seq.begin(), seq.end(), r));
  if (search_settings.ias_lookahead > 0 && nt >= 6) informative_order(e, seq, search_settings.ias_lookahead);
  std::fill(e.anc.begin(), e.anc.end(), -1);
  std::fill(e.left.begin(), e.left.end(), -1);
  std::fill(e.right.begin(), e.right.end(), -1);
  const int root = nt;
  {
    const int q = nt + 1;
    e.left[root] = seq[0];
    e.right[root] = q;
    e.anc[seq[0]] = root;
    e.anc[q] = root;
    e.left[q] = seq[1];
    e.right[q] = seq[2];
    e.anc[seq[1]] = e.anc[seq[2]] = q;
  }
  constraint_tree_changed();
  std::vector<int> list(e.nn + 1), visit(e.nn + 1);
  // All sets once; each insertion then updates only the sets it changes.
  if (nt > 3) e.compute_all();
  const int kind = search_settings.sequence_kind;
  const int look = search_settings.lookahead;
  const int wc = search_settings.wcluster;
  const bool clusters = wc > 0 && wc < nt;
  if (clusters && look > 0 && kind != sequence_plain) qax::shell::error_exit("Cannot use selected addseqs together with clusters");
  if (clusters && search_settings.random_insertion)
    qax::shell::error_exit("Sorry, wagner trees with node-clusters can't be done with random insertion sequence");
  if (clusters && constraints_in_force() && constraint_defs.tree_kind != 0)
    qax::shell::error_exit("Sorry, wagner trees with node-clusters can't be done under tree-constraints");
  Regions regions;
  regions.size = search_settings.clustersize;
  bool regions_built = false;
  struct EndLog { Engine& e; ~EndLog() { e.edge_log = nullptr; } } end_log{e};
  bool dead_end = false;
  for (int i = 3; i < nt; ++i) {
    if (i >= 151 && i % 25 == 0) {
      qax::shell::show_progress(i, nt, "Wagner tree");
      if (qax::shell::shell_state.stop_search_flag) {
        set_random_seed(caller_state);
        return -1.0;
      }
    }
    if (clusters && i >= wc) {
      if (!regions_built) {
        regions.build(e, list, list_branches(e, list));
        regions_built = true;
        e.edge_log = &regions.changed;
      }
      const bool backward = random_next() & 1;
      Placement pl = place_by_regions(e, regions, seq[i], backward);
      if (pl.branch < 0) {
        if (constraint_allows) {
          if (attempt + 1 < constrained_attempts) { dead_end = true; break; }
          qax::shell::error_exit("Sorry, cannot build a tree with specified constraints");
        }
        pl.branch = e.right[root];
      }
      regions.changed.clear();
      e.insert_leaf(seq[i], pl.branch, nt + i - 1);
      regions.inserted(e, seq[i], pl.branch, nt + i - 1);
      if (wagner_region_faults >= 0) wagner_region_faults += regions.faults(e, list, list_branches(e, list));
      if (constraint_allows) constraint_tree_changed();
      continue;
    }
    const int count = list_branches(e, list);
    const int* vis = nullptr;
    if (search_settings.random_insertion) {
      random_shuffle(count, visit.data());
      vis = visit.data();
    }
    Placement chosen;
    if (look > 0 && kind != sequence_plain) {
      const int end = std::min(nt, i + look);
      int pick = i;
      long long best_value = LLONG_MIN;
      for (int j = i; j < end; ++j) {
        const bool backward = random_next() & 1;
        Placement pl = place(e, seq[j], list, count, vis, backward, kind == sequence_closest);
        long long value = kind == sequence_closest ? -pl.best
                          : kind == sequence_furthest ? pl.worst
                                                      : static_cast<long long>(pl.worst) - pl.best;
        if (value > best_value) {
          best_value = value;
          pick = j;
          chosen = pl;
        }
        if (kind == sequence_closest && pl.best == 0) break;
      }
      std::swap(seq[i], seq[pick]);
    } else {
      const bool backward = random_next() & 1;
      chosen = place(e, seq[i], list, count, vis, backward, true);
    }
    if (chosen.branch < 0) {
      if (constraint_allows) {
        if (attempt + 1 < constrained_attempts) { dead_end = true; break; }
        qax::shell::error_exit("Sorry, cannot build a tree with specified constraints");
      }
      chosen.branch = list[0];
    }
    e.insert_leaf(seq[i], chosen.branch, nt + i - 1);
    if (constraint_allows) constraint_tree_changed();
  }
  if (!dead_end) break;
  e.edge_log = nullptr;
  }
  if (nt >= 3 && e.left[nt] != 0) e.reroot_on_zero();
  const double score = e.compute_all();
  e.export_tree(parent_array);
  set_random_seed(caller_state);
  return score;
}

}  // namespace qax::search
