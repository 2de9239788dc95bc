// Sectorial searches on the engine. The big tree stays loaded in the main engine with all
// its sets; a sector's reduced data set is a Packed of its own, made from the first-pass
// sets of the sector's terminals and the second-pass set of the rest of the tree above the
// sector's root, with the columns that cost the same on every tree of the sector dropped.
// While a sector is searched the reduced pack and a small engine take the place of the
// main ones, so that every search routine works on it unchanged; the score of the reduced
// tree carries the steps of the rest as its constant, so it compares with the big score.
#include "search/sectors.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <string>
#include <tuple>

#include "optim/implied.h"
#include "optim/kernels.h"
#include "optim/packed.h"
#include "search/constraints.h"
#include "search/fusing.h"
#include "search/implied_swap.h"
#include "search/search_internal.h"
#include "search/settings.h"
#include "shell/commands.h"
#include "shell/failure.h"
#include "shell/input.h"
#include "shell/output.h"
#include "shell/state.h"
#include "trees/store.h"

namespace qax::search {

using qax::optim::packed;
using namespace qax::shell;

SectorSettings sector_settings;
PfijoSettings pfijo_settings;
std::uint64_t sector_replacements = 0;
int in_sector = 0;
int sector_mismatches = 0;

namespace {

struct Sector {
  int root = -1;
  std::vector<int> terms;   // big nodes that are the sector's terminals
  std::vector<int> inner;   // big inner nodes of the sector, root first
};

// Inner nodes and terminals of the sector of `root` whose terminals are marked in `term`
// (or are terminals of the big tree).
void gather(const Engine& big, int root, const std::vector<int>& term, int stamp, Sector& s) {
  s.root = root;
  s.terms.clear();
  s.inner.clear();
  std::vector<int> st{root};
  while (!st.empty()) {
    const int v = st.back();
    st.pop_back();
    if (v < big.nt || (v != root && term[v] == stamp)) { s.terms.push_back(v); continue; }
    s.inner.push_back(v);
    st.push_back(big.right[v]);
    st.push_back(big.left[v]);
  }
}

// Step-matrix and continuous columns go whole into the reduced data. The sector's terminals
// take their first-pass vectors and ranges. Terminal 0 takes the rest of the tree seen
// from the sector's root across the branch above it: a vector that is already seen across
// a branch doesn't change when the small engine transfers it across one more (the tables
// are shortest paths with zero diagonals), so the small root, between that terminal and
// the sector's root, adds nothing. Ranges need no transfer: the rest's range at the node
// above the sector is the terminal's range.
void reduce_wide(Engine& big, const Sector& s, optim::Packed& red, const std::vector<int>* alt) {
  const optim::WideColumns& from = packed.wide;
  optim::WideColumns& w = red.wide;
  const int k = red.nterm, V = from.vector_length, C = static_cast<int>(from.cont.size());
  w.sankoff = from.sankoff;
  for (optim::SankoffColumn& col : w.sankoff) col.root_mask = col.k >= 32 ? ~0u : (1u << col.k) - 1;
  w.cont = from.cont;
  w.vector_length = V;
  w.unit = from.unit;
  w.sankoff_of = from.sankoff_of;
  w.cont_of = from.cont_of;
  w.term.assign(static_cast<std::size_t>(k) * V, 0);
  w.term_range.assign(static_cast<std::size_t>(k) * 2 * C, 0);
  optim::WideState& ws = big.wide;
  for (const optim::SankoffColumn& col : from.sankoff)
    optim::sankoff_from_parent(col, ws.U(s.root) + col.offset, w.term.data() + col.offset);
  if (C) std::copy(ws.CU(s.root), ws.CU(s.root) + 2 * C, w.term_range.begin());
  for (int j = 1; j < k; ++j) {
    const int n = alt ? (*alt)[j - 1] : s.terms[j - 1];
    if (V) std::copy(ws.D(n), ws.D(n) + V, w.term.begin() + static_cast<std::ptrdiff_t>(j) * V);
    if (C) std::copy(ws.CD(n), ws.CD(n) + 2 * C, w.term_range.begin() + static_cast<std::ptrdiff_t>(j) * 2 * C);
  }
}

// The reduced data set of a sector: terminal 0 is the rest of the tree, 1.. the sector's
// terminals in order. Under equal weights only columns that can cost differently on the
// sector's trees are kept (a column where some state is in all terminals' sets but one
// costs the same, 0 or 1, on every tree).
void make_reduced(Engine& big, const Sector& s, optim::Packed& red, const std::vector<int>* alt = nullptr) {
  const optim::Packed& P = packed;
  const int k = static_cast<int>(s.terms.size()) + 1;
  const int W = P.nwords;
  std::vector<const std::uint32_t*> src(k);
  src[0] = big.U(s.root);
  for (int j = 1; j < k; ++j) src[j] = big.D(alt ? (*alt)[j - 1] : s.terms[j - 1]);
  red = optim::Packed{};
  red.valid = 1;
  red.nterm = k;
  red.nnodes = 2 * k - 1;
  red.xbit = P.xbit;
  red.weight_mode = P.weight_mode;
  red.equal_weights = P.equal_weights;
  red.to_packed.resize(k);
  red.from_packed.resize(k);
  for (int t = 0; t < k; ++t) red.to_packed[t] = red.from_packed[t] = t;
  const optim::Layout& L = P.layout;
  if (P.weight_mode != optim::weights_equal) {
    // Weighted columns keep the layout as it is.
    red.nwords = W;
    for (int c = 0; c < optim::class_count; ++c) red.w[c] = P.w[c];
    red.word_weight = P.word_weight;
    red.field_weight = P.field_weight;
    red.record_base = P.record_base;
    red.storage.assign(static_cast<std::size_t>(k) * W + 8, ~0u);
    for (int t = 0; t < k; ++t) std::memcpy(red.storage.data() + static_cast<std::size_t>(t) * W, src[t], sizeof(std::uint32_t) * W);
    red.layout = optim::Layout{W, L.end0, L.end1, L.end2, L.end4, red.word_weight.data(), red.field_weight.data(),
                               red.record_base.data()};
  } else {
    struct Region { int start, end, width; };
    const Region regions[4] = {{0, L.end0, 2}, {L.end0, L.end1, 4}, {L.end1, L.end2, 8}, {L.end2, L.end4, 32}};
    // Per region, the informative fields as (word, shift).
    std::vector<std::pair<int, int>> keep[4];
    for (int r = 0; r < 4; ++r) {
      const int width = regions[r].width, per = 32 / width;
      const std::uint32_t fmask = width == 32 ? ~0u : (1u << width) - 1;
      for (int w = regions[r].start; w < regions[r].end; ++w) {
        std::uint32_t once = 0, twice = 0;
        for (int t = 0; t < k; ++t) {
          const std::uint32_t m = ~src[t][w];
          twice |= once & m;
          once |= m;
        }
        const std::uint32_t good = ~twice;   // states lacking in at most one terminal
        for (int f = 0; f < per; ++f)
          if (((good >> (f * width)) & fmask) == 0) keep[r].emplace_back(w, f * width);
      }
    }
    int words[4], used = 0;
    for (int r = 0; r < 4; ++r) {
      const int per = 32 / regions[r].width;
      words[r] = (static_cast<int>(keep[r].size()) + per - 1) / per;
      if (P.xbit && r < 3 && words[r] % 2) ++words[r];
      used += words[r];
    }
    const int NW = std::max(8, (used + 7) / 8 * 8);
    red.nwords = NW;
    red.w[0] = words[0];
    red.w[1] = words[1];
    red.w[2] = words[2];
    red.w[4] = words[3];
    red.storage.assign(static_cast<std::size_t>(k) * NW + 8, ~0u);
    int base = 0;
    int ends[4];
    for (int r = 0; r < 4; ++r) {
      const int width = regions[r].width, per = 32 / width;
      const std::uint32_t fmask = width == 32 ? ~0u : (1u << width) - 1;
      for (int t = 0; t < k; ++t) {
        std::uint32_t* out = red.storage.data() + static_cast<std::size_t>(t) * NW + base;
        for (std::size_t i = 0; i < keep[r].size(); ++i) {
          const auto [w, sh] = keep[r][i];
          const std::uint32_t v = (src[t][w] >> sh) & fmask;
          const int to_w = static_cast<int>(i) / per, to_sh = (static_cast<int>(i) % per) * width;
          out[to_w] = (out[to_w] & ~(fmask << to_sh)) | (v << to_sh);
        }
      }
      base += words[r];
      ends[r] = base;
    }
    // Tables of equal weights: every field counts 1.
    red.word_weight.assign(NW, 1);
    red.record_base.assign(NW + 1, 0);
    int records = 0, word = 0;
    for (int r = 0; r < 4; ++r)
      for (int i = 0; i < words[r]; ++i) {
        red.record_base[word++] = records;
        records += 32 / regions[r].width;
      }
    for (; word <= NW; ++word) red.record_base[word] = records;
    red.field_weight.assign(records, 1);
    red.layout = optim::Layout{NW, ends[0], ends[1], ends[2], ends[3], red.word_weight.data(), red.field_weight.data(),
                               red.record_base.data()};
  }
  red.node_sets.resize(red.nnodes);
  for (int t = 0; t < k; ++t)
    red.node_sets[t].down_set = red.storage.data() + static_cast<std::size_t>(t) * red.nwords;
  if (P.wide.any()) reduce_wide(big, s, red, alt);
}

// The steps of the rest of the tree as the reduced data's constant: whole steps in the
// pack, thousandths of continuous characters beside the wide columns.
void set_reduced_constant(double rest) {
  if (!packed.wide.any()) {
    packed.constant_steps = static_cast<std::int32_t>(std::llround(rest));
    return;
  }
  const std::int64_t th = std::llround(rest * 1000);
  const std::int64_t whole = th >= 0 ? th / 1000 : -((-th + 999) / 1000);
  packed.constant_steps = static_cast<std::int32_t>(whole);
  packed.wide.extra_thousandths = th - whole * 1000;
}

// Parent array (reduced numbering) of the sector as it is in the big tree.
void reduced_tree(const Engine& big, const Sector& s, std::vector<std::int32_t>& parent) {
  const int k = static_cast<int>(s.terms.size()) + 1;
  parent.assign(static_cast<std::size_t>(2 * k - 1), 0);
  std::vector<int> id(big.nn, -1);
  for (std::size_t i = 0; i < s.inner.size(); ++i) id[s.inner[i]] = k + 1 + static_cast<int>(i);
  for (std::size_t j = 0; j < s.terms.size(); ++j) id[s.terms[j]] = 1 + static_cast<int>(j);
  parent[0] = k;
  // The sector's root hangs from the reduced root; with a single inner node, the root is it.
  const int top = id[s.root];
  parent[top] = k;
  for (std::size_t i = 1; i < s.inner.size(); ++i) parent[id[s.inner[i]]] = id[big.anc[s.inner[i]]];
  for (std::size_t j = 0; j < s.terms.size(); ++j) parent[1 + j] = id[big.anc[s.terms[j]]];
  parent[k] = 2 * k - 1;
  trees::reset_node_numbers(parent.data(), k);
}

// Everything swapped in for the time of a sector, and back out on every exit.
struct SectorScope {
  optim::Packed saved;
  Engine small;
  ConstraintDefs defs;
  double suboptimal;
  int implied = 0;
  bool active = false;
  void enter(optim::Packed& red) {
    std::swap(packed, red);
    saved = std::move(red);
    small.init();
    engine_override = &small;
    defs = constraint_defs;
    constraint_defs.active = 0;
    suboptimal = search_settings.suboptimal;
    search_settings.suboptimal = 0;
    // The reduced data are searched by steps: fits are taken on the whole tree only.
    implied = optim::implied_settings.implied_on;
    optim::implied_settings.implied_on = 0;
    ++in_sector;
    active = true;
  }
  void leave() {
    if (!active) return;
    active = false;
    --in_sector;
    packed = std::move(saved);
    engine_override = nullptr;
    constraint_defs = std::move(defs);
    search_settings.suboptimal = suboptimal;
    optim::implied_settings.implied_on = implied;
  }
  ~SectorScope() { leave(); }
};

// State of one sectorial search over a big tree.
struct SectorRun {
  Engine& big;
  std::vector<std::int32_t>& tree;
  // Under implied weighting a sector is searched by steps, and what it finds goes into the
  // big tree only when the whole tree's fit says so: `score` is then the fit, `steps` the
  // steps of the tree as always.
  const bool by_fit = optim::implied_settings.implied_on != 0;
  double score = 0, steps = 0;
  int pending = 0;            // replacements since the last global TBR
  int status_saved = 0;
  std::vector<int> tips, mark, used;
  int mark_now = 0, used_now = 0;
  Sector sec;
  optim::Packed red;
  std::vector<std::int32_t> rtree, best_tree, work;
  std::vector<std::vector<std::int32_t>> candidates;   // resolutions found (implied weighting)
  std::vector<std::tuple<std::vector<int>, std::vector<int>, std::vector<int>>> candidate_links;
  std::vector<int> backup_anc, backup_left, backup_right;

  SectorRun(Engine& e, std::vector<std::int32_t>& t) : big(e), tree(t) {
    if (!big.load(tree)) error_exit("Tree cannot be swapped (not binary on the active taxa)");
    rescore();
    mark.assign(big.nn, 0);
    used.assign(big.nn, 0);
    count_tips();
  }

  // Sets of the big tree from its links, and its score.
  void rescore() {
    steps = big.compute_all();
    score = by_fit ? big_fit() : steps;
  }
  double big_fit() {
    big.export_tree(work);
    return implied_fit_of(work);
  }

  void count_tips() {
    tips.assign(big.nn, 1);
    const int cnt = big.inner_preorder();
    for (int i = cnt - 1; i >= 0; --i) {
      const int n = big.order[i];
      tips[n] = tips[big.left[n]] + tips[big.right[n]];
    }
  }

  // Global TBR on the big tree.
  void global_swap() {
    big.export_tree(tree);
    if (by_fit) {
      long long examined = 0;
      implied_swap(tree, true, examined);
      rearrangements_examined.add(static_cast<std::uint64_t>(examined));
    } else {
      swap_tbr(tree, 0, 0, 0);
    }
    search_status_code = 3;
    if (!big.load(tree)) error_exit("Tree cannot be swapped (not binary on the active taxa)");
    rescore();
    count_tips();
    ++used_now;
    pending = 0;
  }

  // The small engine's tree put in place of the sector in the big tree (links only; the
  // previous links are kept for an undo). Small inner nodes take the sector's inner nodes,
  // the root's other child the sector's root; small terminals are the sector's terminals.
  void put_back(const Engine& e, int k) {
    const int top = e.right[k] == 0 ? e.left[k] : e.right[k];
    std::vector<int> map(e.nn, -1);
    for (int j = 1; j < k; ++j) map[j] = sec.terms[j - 1];
    map[top] = sec.root;
    std::size_t next = 1;
    for (int v = k + 1; v < e.nn; ++v)
      if (v != top) map[v] = sec.inner[next++];
    backup_anc = big.anc;
    backup_left = big.left;
    backup_right = big.right;
    for (int v = k + 1; v < e.nn; ++v) {
      const int bv = map[v];
      big.left[bv] = map[e.left[v]];
      big.right[bv] = map[e.right[v]];
      big.anc[big.left[bv]] = bv;
      big.anc[big.right[bv]] = bv;
    }
  }

  // Searches the sector `sec`; true when the big tree took a better (or equal, with
  // equals) resolution.
  bool analyze(int size_class) {
    const SectorSettings& ss = sector_settings;
    if (sec.terms.size() < 4) return false;
    make_reduced(big, sec, red);
    reduced_tree(big, sec, rtree);
    candidates.clear();
    bool accepted = false;
    double expect = 0;
    {
      SectorScope scope;
      scope.enter(red);
      Engine& e = engine();
      if (!e.load(rtree)) return false;
      const double reduced = e.compute_all();
      set_reduced_constant(steps - reduced);
      const double start = e.compute_all();
      best_tree = rtree;
      double best = start;
      const int k = packed.nterm;
      if ((packed.nwords == 0 && !packed.wide.any()) || k < 5) return false;
      // A combined analysis from gocomb on lowers the size at which drift takes over.
      const int godrift = ss.gocomb > 0 && ss.gocomb < ss.godrift ? ss.gocomb : ss.godrift;
      std::vector<std::vector<std::int32_t>> builds;
      auto consider = [&](const std::vector<std::int32_t>& t, double sc) {
        if (by_fit && t != rtree && std::find(candidates.begin(), candidates.end(), t) == candidates.end())
          candidates.push_back(t);
        if (sc < best - 1e-8 || (ss.equals && std::fabs(sc - best) < 1e-8 && best_tree != t && !accepted)) {
          accepted = sc < start - 1e-8 || ss.equals;
          best = sc;
          best_tree = t;
        }
      };
      auto build_one = [&](bool drift_after) {
        const std::uint32_t seed = static_cast<std::uint32_t>(random_next()) | 1u;
        const std::uint32_t keep_state = random_state();
        wagner_build(work, seed);
        set_random_seed(keep_state);
        double sc = swap_tbr(work, 0, 0, 0);
        if (drift_after && ss.drift > 0) {
          const std::uint32_t s2 = static_cast<std::uint32_t>(random_next()) | 1u;
          const std::uint32_t k2 = random_state();
          sc = drift_run(work, s2, -1, 0, ss.drift, nullptr);
          set_random_seed(k2);
        }
        return sc;
      };
      // Fusing of the builds (with the sector as it was): inside a sector it follows the
      // sector's own sequence of random numbers.
      auto fuse_builds = [&](int rounds) {
        if (builds.size() < 2) return;
        builds.push_back(rtree);
        std::vector<double> scores;
        fuse_trees(builds, scores, rounds, 0, 0, true);
        for (std::size_t b = 0; b < builds.size(); ++b) consider(builds[b], scores[b]);
      };
      if (size_class < godrift) {
        int count = 0, same = 0;
        for (int round = 0; round < 2; ++round) {
          for (int b = 0; b < ss.starts; ++b) {
            if (shell_state.stop_search_flag) break;
            const double sc = build_one(false);
            ++count;
            if (std::fabs(sc - start) < 1e-8) ++same;
            consider(work, sc);
            if (ss.fuse > 0) builds.push_back(work);
          }
          if (same == count) break;   // every start found the sector's own score
        }
        if (ss.fuse > 0) fuse_builds(ss.fuse);
      } else if (ss.gocomb > 0 && size_class >= ss.gocomb) {
        for (int b = 0; b < std::max(1, ss.combstarts) && !shell_state.stop_search_flag; ++b) {
          const double sc = build_one(true);
          consider(work, sc);
          builds.push_back(work);
        }
        fuse_builds(ss.fuse > 0 ? ss.fuse : 3);
      } else {
        work = rtree;
        const std::uint32_t seed = static_cast<std::uint32_t>(random_next()) | 1u;
        const std::uint32_t keep_state = random_state();
        const double sc = drift_run(work, seed, -1, 0, ss.drift, nullptr);
        set_random_seed(keep_state);
        if (by_fit && work != rtree) candidates.push_back(work);
        if (sc < best - 1e-8) {
          best = sc;
          best_tree = work;
          accepted = true;
        }
      }
      search_status_code = 3;
      if (by_fit) {
        // Each resolution found, as links of the big tree, to be rated by the fit below.
        const std::vector<int> anc0 = big.anc, left0 = big.left, right0 = big.right;
        candidate_links.clear();
        for (const auto& t : candidates) {
          if (!e.load(t)) continue;
          put_back(e, k);
          candidate_links.push_back({big.anc, big.left, big.right});
          big.anc = anc0;
          big.left = left0;
          big.right = right0;
        }
        backup_anc = anc0;
        backup_left = left0;
        backup_right = right0;
      }
      if (by_fit) accepted = false;
      if (!accepted) {
        if (!by_fit) return false;
      } else {
        expect = best;
        // The new resolution as links of the small engine (rooted on the rest of the tree).
        if (!e.load(best_tree)) return false;
        put_back(e, k);
      }
    }
    if (by_fit) return take_best_fit();
    // Back on the big data: the tree must score as the sector promised.
    const double real = big.compute_all();
    bool ok = std::fabs(real - expect) < 1e-6;
    if (!ok) ++sector_mismatches;
    if (ok && constraints_in_force()) {
      big.export_tree(work);
      ok = tree_violations(work.data(), static_cast<int>(work.size() + 1) / 2) == 0;
    }
    if (!ok) {
      big.anc = backup_anc;
      big.left = backup_left;
      big.right = backup_right;
      rescore();
      return false;
    }
    score = steps = real;
    count_tips();
    ++sector_replacements;
    ++replacements_done;
    ++pending;
    return true;
  }

  // Under implied weighting: the resolution of the sector that gives the big tree its best
  // fit, when better than the tree's (or as good, with equals, and different).
  bool take_best_fit() {
    const double before = score;
    int chosen = -1;
    double best = before;
    for (std::size_t i = 0; i < candidate_links.size(); ++i) {
      const auto& [a, l, r] = candidate_links[i];
      big.anc = a;
      big.left = l;
      big.right = r;
      big.export_tree(work);
      if (constraints_in_force() && tree_violations(work.data(), static_cast<int>(work.size() + 1) / 2) != 0) continue;
      const double f = implied_fit_of(work);
      if (f < best - 1e-8 || (chosen < 0 && sector_settings.equals && f < best + 1e-8)) {
        best = f;
        chosen = static_cast<int>(i);
      }
    }
    if (chosen < 0) {
      big.anc = backup_anc;
      big.left = backup_left;
      big.right = backup_right;
      return false;
    }
    const auto& [a, l, r] = candidate_links[static_cast<std::size_t>(chosen)];
    big.anc = a;
    big.left = l;
    big.right = r;
    rescore();
    count_tips();
    ++sector_replacements;
    ++replacements_done;
    ++pending;
    return true;
  }

  // One random sector of about `size` terminals into `sec`; false when none.
  bool pick_random(int size) {
    const int nt = big.nt;
    const int target = std::max(4, size * 80 / 100);
    int n = random_next() % big.nn;
    if (n == nt) n = big.right[nt];
    while (n != nt && tips[n] < target) n = big.anc[n];
    if (n != nt && used[n] == used_now) {
      int up = random_next() % 15;
      while (up-- > 0 && n != nt) n = big.anc[n];
    }
    if (n == nt) n = big.left[nt] == 0 ? big.right[nt] : big.left[nt];
    if (n < nt) return false;
    if (tips[n] >= target && tips[n] < size) used[n] = used_now;
    // The subtree, with inner nodes collapsed into HTUs until it has `size` terminals.
    ++mark_now;
    int count = tips[n];
    if (count > size) {
      std::vector<int> inner;
      std::vector<int> st{n};
      while (!st.empty()) {
        const int v = st.back();
        st.pop_back();
        if (v < nt) continue;
        if (v != n) inner.push_back(v);
        st.push_back(big.left[v]);
        st.push_back(big.right[v]);
      }
      for (int i = static_cast<int>(inner.size()) - 1; i > 0; --i) std::swap(inner[i], inner[random_next() % (i + 1)]);
      // cnt: sector terminals below each node; a node inside an HTU has dissolved.
      std::vector<int>& cnt = work;   // reused scratch
      cnt.assign(big.nn, 0);
      for (int v : inner) cnt[v] = tips[v];
      cnt[n] = tips[n];
      std::vector<char> gone(big.nn, 0);
      for (int v : inner) {
        if (count <= size) break;
        if (gone[v] || mark[v] == mark_now) continue;
        if (count - (cnt[v] - 1) < target) continue;
        const int drop = cnt[v] - 1;
        mark[v] = mark_now;
        std::vector<int> below{big.left[v], big.right[v]};
        while (!below.empty()) {
          const int x = below.back();
          below.pop_back();
          if (x < nt) continue;
          gone[x] = 1;
          below.push_back(big.left[x]);
          below.push_back(big.right[x]);
        }
        for (int a = big.anc[v]; a >= 0; a = a == n ? -1 : big.anc[a]) cnt[a] -= drop;
        cnt[v] = 1;
        count -= drop;
      }
      gather(big, n, mark, mark_now, sec);
      // Still too big: nodes whose two children are both terminals become terminals.
      bool change = true;
      while (static_cast<int>(sec.terms.size()) > size && change) {
        change = false;
        for (int v : sec.inner) {
          if (v == n || mark[v] == mark_now) continue;
          const auto is_t = [&](int c) { return c < nt || mark[c] == mark_now; };
          if (is_t(big.left[v]) && is_t(big.right[v])) {
            mark[v] = mark_now;
            change = true;
            gather(big, n, mark, mark_now, sec);
            if (static_cast<int>(sec.terms.size()) <= size) break;
          }
        }
      }
    } else {
      gather(big, n, mark, mark_now, sec);
    }
    return sec.terms.size() >= 4;
  }

  void maybe_global(int size) {
    const SectorSettings& ss = sector_settings;
    if (ss.noglobal) return;
    const int every = size <= ss.godrift ? ss.global : ss.dglobal;
    if (every > 0 && pending >= every) global_swap();
  }

  bool at_findscore() const {
    return sector_settings.findscore > 0 && score <= sector_settings.findscore + 1e-8;
  }

  void run_random() {
    const SectorSettings& ss = sector_settings;
    const int nt = big.nt;
    if (nt < 8) return;
    const int half = nt / 2;
    int minsize = std::min(ss.minsize, half), maxsize = std::min(ss.maxsize, half);
    if (minsize < 5) minsize = std::min(5, half);
    int size = minsize;
    std::size_t list_pos = 0;
    for (;;) {
      int selections;
      if (!ss.selections.empty()) {
        if (list_pos >= ss.selections.size()) break;
        selections = ss.selections[list_pos++];
      } else {
        selections = ss.selfactor > 0 ? nt * 100 / (size * ss.selfactor) : 1;
      }
      ++used_now;
      int failures = 0;
      for (int i = 0; i < selections; ++i) {
        if (shell_state.stop_search_flag || at_findscore()) return;
        if (!pick_random(size)) { ++failures; continue; }
        if (analyze(static_cast<int>(sec.terms.size()))) failures = 0;
        else ++failures;
        maybe_global(size);
        if (ss.moveon > 0 && failures >= ss.moveon) break;
        show_progress(i, selections, "Sectors");
      }
      int next = size + size * ss.increase / 100;
      if (next > maxsize) {
        if (next * 75 / 100 <= maxsize && size < maxsize) next = maxsize;
        else break;
      }
      if (next == size || next > half) break;
      size = next;
    }
  }

  // The sector of all inner nodes within `depth` branches of the node holding exactly the
  // terminals flagged in `taxa` (data set numbering; either side of its branch). Returns the
  // number of nodes of the chunk, 0 when the node is not in the tree.
  int run_diameter(const std::vector<std::uint8_t>& taxa, int depth) {
    const int nt = big.nt;
    // The engine node of the group: a terminal, or the node whose terminals are the group
    // or all but the group.
    std::vector<int> count(big.nn, 0);
    int members = 0, first = -1;
    for (int p = 0; p < nt; ++p)
      if (taxa[packed.from_packed[p]]) { ++members; if (first < 0) first = p; }
    if (members == 0) return 0;
    const bool complement = taxa[packed.from_packed[0]] != 0;
    if (complement) {
      members = nt - members;
      first = -1;
      for (int p = 0; p < nt && first < 0; ++p)
        if (!taxa[packed.from_packed[p]]) first = p;
    }
    int v = first;
    while (v != nt && tips[v] < members) v = big.anc[v];
    if (v == nt || tips[v] != members) return 0;
    // Inner nodes within depth, over the unrooted tree (the root node is passed through).
    std::vector<int> dist(big.nn, -1);
    std::vector<int> queue{v};
    dist[v] = 0;
    for (std::size_t i = 0; i < queue.size(); ++i) {
      const int x = queue[i];
      if (dist[x] >= depth) continue;
      int nb[3] = {big.anc[x], x >= nt ? big.left[x] : -1, x >= nt ? big.right[x] : -1};
      for (int y : nb) {
        if (y < 0) continue;
        if (y == nt) y = big.left[nt] == x ? big.right[nt] : big.left[nt];
        if (y < 0 || dist[y] >= 0) continue;
        dist[y] = dist[x] + 1;
        if (y >= nt) queue.push_back(y);
      }
    }
    // The chunk's top: its member nearest the root.
    int top = -1, best_depth = 1 << 30;
    for (int x : queue) {
      if (x < nt) continue;
      int d = 0;
      for (int a = x; a != nt; a = big.anc[a]) ++d;
      if (d < best_depth) { best_depth = d; top = x; }
    }
    if (top < 0) return 0;
    ++mark_now;
    for (int x = 0; x < big.nn; ++x)
      if (x >= nt && (dist[x] < 0 || dist[x] > depth)) mark[x] = mark_now;
    gather(big, top, mark, mark_now, sec);
    const int nodes = static_cast<int>(sec.inner.size());
    analyze(static_cast<int>(sec.terms.size()));
    return nodes;
  }

  // One perturbation of pfijo on the sector `sec`: each HTU takes the states of a node on
  // the way down to one of its terminals (the HTU itself most of the time), and the sector
  // is swapped under those states; the result goes back unchecked, as a perturbation.
  void perturb_chunk(int phtus) {
    if (sec.terms.size() < 4) return;
    std::vector<int> alt(sec.terms.size());
    const int nt = big.nt;
    std::vector<int> path;
    for (std::size_t j = 0; j < sec.terms.size(); ++j) {
      const int h = sec.terms[j];
      alt[j] = h;
      if (h < nt) continue;
      // The nodes from the HTU down to a random terminal, listed upward.
      path.clear();
      for (int v = h; v >= nt; v = random_next() % 2 ? big.left[v] : big.right[v]) path.push_back(v);
      std::reverse(path.begin(), path.end());
      const int L = static_cast<int>(path.size());
      const int R = random_next() % 100;
      const int spread = 100 - std::clamp(phtus, 1, 100);
      const int i = L - 1 - (spread > 0 ? L * spread / (spread + R) : 0);
      alt[j] = path[std::clamp(i, 0, L - 1)];
    }
    make_reduced(big, sec, red, &alt);
    reduced_tree(big, sec, rtree);
    {
      SectorScope scope;
      scope.enter(red);
      Engine& e = engine();
      if (!e.load(rtree)) return;
      swap_tbr(rtree, 0, 0, 0);
      search_status_code = 3;
      if (!e.load(rtree)) return;
      put_back(e, packed.nterm);
    }
    rescore();
    count_tips();
  }

  void run_pfijo_cycle() {
    const PfijoSettings& p = pfijo_settings;
    const int chunks = std::max(2, big.nt / std::max(10, p.chunksize));
    std::vector<int> roots;
    const int stamp = partition(std::max(5, big.nt / chunks), roots);
    for (int root : roots) {
      if (shell_state.stop_search_flag) return;
      if (root < big.nt) continue;
      gather(big, root, mark, stamp, sec);
      perturb_chunk(p.phtus);
    }
  }

  // Sectors from the groups of the constraints: each group (and the whole tree) with its
  // immediate subgroups and loose terminals as the sector's terminals, when the number of
  // those is within minfork and maxfork. The groups stay groups: the sector's terminals are
  // all on one side of the rest of the tree.
  void run_constraint() {
    const SectorSettings& ss = sector_settings;
    const int nt = big.nt;
    const int ntax = static_cast<int>(packed.to_packed.size());
    ++mark_now;
    const int stamp = mark_now;
    std::vector<int> nodes;
    for (const ConstraintGroup& g : constraint_defs.positive) {
      if (static_cast<int>(g.field.size()) < ntax) continue;
      int size = 0, first = -1;
      bool usable = true;
      for (int t = 0; t < ntax && usable; ++t) {
        const int p = packed.to_packed[t];
        if (p < 0) continue;
        if (g.field[t] == field_inside) {
          ++size;
          if (first < 0) first = p;
          if (p == 0) usable = false;   // the tree is rooted on terminal 0
        } else if (g.field[t] == field_floating) {
          usable = false;
        }
      }
      if (!usable || size < 2) continue;
      int v = first;
      while (v != nt && tips[v] < size) v = big.anc[v];
      if (v == nt || tips[v] != size || mark[v] == stamp) continue;
      // Every terminal below v is a member.
      bool same = true;
      std::vector<int> st{v};
      while (!st.empty() && same) {
        const int x = st.back();
        st.pop_back();
        if (x < nt) same = g.field[packed.from_packed[x]] == field_inside;
        else { st.push_back(big.left[x]); st.push_back(big.right[x]); }
      }
      if (!same) continue;
      mark[v] = stamp;
      nodes.push_back(v);
    }
    const int top = big.left[nt] == 0 ? big.right[nt] : big.left[nt];
    if (top >= nt && mark[top] != stamp) nodes.push_back(top);
    for (int round = 0; round < std::max(1, ss.rounds); ++round) {
      for (int v : nodes) {
        if (shell_state.stop_search_flag || at_findscore()) return;
        gather(big, v, mark, stamp, sec);
        const int fork = static_cast<int>(sec.terms.size());
        if (fork < ss.minfork || fork > ss.maxfork) continue;
        analyze(fork);
        maybe_global(fork);
        show_progress(round, ss.rounds, "Sectors");
      }
    }
  }

  // Cuts the tree into parts of about `each` terminals, from the tips down: a node becomes
  // the root of a part once it holds that many terminals not yet in a part. The roots are
  // marked with the returned stamp, lower parts first, the rest of the tree last. With
  // `even`, a part is cut at the larger child instead when that child's count is nearer
  // to `each` than the node's, so parts stay closer to the size asked for.
  int partition(int each, std::vector<int>& roots, bool even = false) {
    const int nt = big.nt;
    ++mark_now;
    roots.clear();
    std::vector<int> left(big.nn, 0);   // terminals not yet in a part
    const int cnt = big.inner_preorder();
    std::vector<int> order(big.order.begin(), big.order.begin() + cnt);
    for (int t = 0; t < nt; ++t) left[t] = 1;
    for (int i = cnt - 1; i >= 0; --i) {
      const int v = order[i];
      if (v == nt) continue;
      const int l = big.left[v], r = big.right[v];
      left[v] = (mark[l] == mark_now ? 1 : left[l]) + (mark[r] == mark_now ? 1 : left[r]);
      if (even && left[v] >= each) {
        int c = l;
        if (r >= nt && mark[r] != mark_now && (c < nt || mark[c] == mark_now || left[r] > left[c])) c = r;
        if (c >= nt && mark[c] != mark_now && left[c] >= 5 && each - left[c] < left[v] - each) {
          mark[c] = mark_now;
          roots.push_back(c);
          left[v] -= left[c] - 1;
        }
      }
      if (left[v] >= each && v != big.right[nt] && v != big.left[nt]) {
        mark[v] = mark_now;
        roots.push_back(v);
      }
    }
    roots.push_back(big.left[nt] == 0 ? big.right[nt] : big.left[nt]);
    return mark_now;
  }

  // Exclusive sectors: about `chunks` parts, each searched with the parts below it as HTUs.
  // The last part, the one holding the tree's base, is searched only with `chkroot`.
  void run_exclusive(int chunks) {
    std::vector<int> roots;
    const SectorSettings& ss = sector_settings;
    const int stamp = partition(std::max(5, big.nt / std::max(2, chunks)), roots, ss.xeven != 0);
    if (!ss.chkroot && roots.size() > 1) roots.pop_back();
    for (int root : roots) {
      if (shell_state.stop_search_flag || at_findscore()) return;
      if (root < big.nt) continue;
      gather(big, root, mark, stamp, sec);
      analyze(static_cast<int>(sec.terms.size()));
      show_progress(0, 1, "Sectors");
    }
  }
};

const char* kind_letter(int kind) {
  switch (kind) {
    case sector_constraint: return "C";
    case sector_exclusive: return "X";
    case sector_diameter: return "D";
    default: return "R";
  }
}

}  // namespace

const char* sector_obstacle() {
  for (const optim::SankoffColumn& col : packed.wide.sankoff) {
    if (col.asymmetric) return "with asymmetric step-matrix characters";
    for (int a = 0; a < col.k; ++a)
      if (col.cost[static_cast<std::size_t>(a) * col.k + a] != 0) return "with step matrices that cost a change to the same state";
  }
  return nullptr;
}

namespace {

void require_sector_data(const char* what) {
  if (const char* why = sector_obstacle()) error_exit({"Sorry,", what, "is not available yet", why});
}

template <typename F>
double with_sector_run(std::vector<std::int32_t>& tree, F body) {
  Engine& big = engine();
  const int saved_status = search_status_code;
  search_status_code = 3;
  SectorRun run(big, tree);
  body(run);
  if (run.pending > 0 && !sector_settings.noglobal && !shell_state.stop_search_flag) run.global_swap();
  big.export_tree(tree);
  search_status_code = saved_status;
  return run.score;
}

}  // namespace

double sector_search_rss(std::vector<std::int32_t>& tree) {
  require_sector_data("sectorial search");
  return with_sector_run(tree, [](SectorRun& r) { r.run_random(); });
}

double sector_search_xss(std::vector<std::int32_t>& tree) {
  require_sector_data("sectorial search");
  const SectorSettings& ss = sector_settings;
  if (packed.nterm < 10) return swap_tbr(tree, 0, 0, 0);
  return with_sector_run(tree, [&](SectorRun& r) {
    const int R = std::max(1, ss.xss_rounds);
    for (int k = 0; k < R; ++k) {
      if (shell_state.stop_search_flag) break;
      const int chunks = static_cast<int>(ss.xss_begin + 0.5 + static_cast<double>(k) * (ss.xss_end - ss.xss_begin) / R);
      r.run_exclusive(chunks);
      if (ss.xss_global > 0 && ((k + 1) % ss.xss_global == 0 || k == R - 1) && !ss.noglobal) r.global_swap();
    }
  });
}

double sector_search_css(std::vector<std::int32_t>& tree) {
  require_sector_data("sectorial search");
  if (!constraints_in_force() || constraint_defs.positive.empty())
    error_exit("Can't run constrained sectorial searches without tree constraints");
  return with_sector_run(tree, [](SectorRun& r) { r.run_constraint(); });
}
double sector_search_dss(std::vector<std::int32_t>& tree, const std::vector<std::uint8_t>& taxa, int depth, int* nodes) {
  require_sector_data("sectorial search");
  return with_sector_run(tree, [&](SectorRun& r) {
    *nodes = r.run_diameter(taxa, std::max(1, depth));
    r.pending = 0;   // a chunk chosen by hand is not followed by global swapping
  });
}

double pfijo_cycle(std::vector<std::int32_t>& tree) {
  require_sector_data("pfijo");
  return with_sector_run(tree, [](SectorRun& r) {
    r.run_pfijo_cycle();
    r.global_swap();
    r.pending = 0;
  });
}

const char* sector_kind_letter(int kind) { return kind_letter(kind); }

}  // namespace qax::search
