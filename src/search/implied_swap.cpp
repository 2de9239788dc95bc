// Searches under implied weighting: each rearranged tree is scored in full (steps of every
// character, then the fit), so the fit of every tree kept is exact. Starting trees come
// from the Wagner builder of the step counts; branch swapping then climbs the fit.
#include "search/implied_swap.h"

#include <algorithm>
#include <functional>
#include <cstdio>
#include <string>
#include <vector>

#include "dataset/dataset.h"
#include "optim/implied.h"
#include "optim/reports.h"
#include "search/constraints.h"
#include "search/implied_moves.h"
#include "search/search_internal.h"
#include "search/settings.h"
#include "shell/failure.h"
#include "shell/output.h"
#include "shell/state.h"
#include "trees/store.h"

namespace qax::search {

using namespace qax::shell;
using qax::trees::tree_store;

namespace {

constexpr double tie_slack = 0.001;  // fits closer than this count as equal when trees are kept

std::vector<int> steps_scratch;

// The best fit, and the limit of the trees kept when suboptimal trees are.
std::string fit_range(double best) {
  char text[64];
  const double subopt = search_settings.suboptimal;
  if (subopt > 0) std::snprintf(text, sizeof text, "%.5f-%.5f", best, best + subopt);
  else std::snprintf(text, sizeof text, "%.5f", best);
  return text;
}

// Marks the nodes of the subtree of n.
void mark_subtree(const Engine& e, int n, std::vector<std::uint8_t>& in) {
  std::fill(in.begin(), in.end(), 0);
  std::vector<int> st{n};
  while (!st.empty()) {
    const int v = st.back();
    st.pop_back();
    in[v] = 1;
    if (v >= e.nt) { st.push_back(e.left[v]); st.push_back(e.right[v]); }
  }
}

}  // namespace

double implied_fit_of(const std::vector<std::int32_t>& parent) {
  optim::character_steps(parent, steps_scratch);
  return optim::implied_total(steps_scratch);
}

namespace {

// Fit with the ratchet's perturbed weights (null: the characters' own).
const std::vector<int>* perturbed = nullptr;

double fit_for_swap(const std::vector<std::int32_t>& parent) {
  if (!perturbed) return implied_fit_of(parent);
  optim::character_steps(parent, steps_scratch);
  return optim::implied_total(steps_scratch, perturbed);
}

// Ratchet from the tree in parent: each iteration swaps under weights of which some are
// doubled and some set to 0, then under the real weights, and goes on from the result when
// its fit is no worse. Returns the fit of the tree left in parent.
double implied_ratchet(std::vector<std::int32_t>& parent, double fit, bool tbr, long long& examined, int* done = nullptr) {
  const auto& r = ratchet_settings;
  std::vector<int> weights(static_cast<std::size_t>(qax::dataset::dataset.nchar));
  for (int it = 0; it < r.iterations && !shell_state.stop_search_flag; ++it) {
    if (done) *done = it + 1;
    for (int c = 0; c < qax::dataset::dataset.nchar; ++c) {
      const int w = qax::dataset::dataset.chars[c].weight;
      const int roll = random_next() % 100;
      weights[c] = roll < r.upfactor ? 2 * w : roll < r.upfactor + r.downfactor ? 0 : w;
    }
    std::vector<std::int32_t> trial = parent;
    perturbed = &weights;
    struct Reset { ~Reset() { perturbed = nullptr; } } reset;
    implied_swap(trial, tbr, examined);
    perturbed = nullptr;
    const double f = implied_swap(trial, tbr, examined);
    if (f <= fit + 1e-9) { fit = f; parent = trial; }
  }
  return fit;
}

}  // namespace

namespace {

ImpliedMoves rated;     // fits of the moves of the tree loaded, without rescoring
bool rated_ready = false;

// Loads the tree into the engine, and into the move rater when the data allow it.
bool load_tree_for_moves(Engine& e, const std::vector<std::int32_t>& parent) {
  rated_ready = false;
  if (!e.load(parent)) return false;
  if (ImpliedMoves::usable() && !constraints_in_force()) {
    rated.load(e, parent, perturbed);
    rated_ready = true;
  }
  return true;
}

// Visits every move of clip n of the tree loaded in e whose fit is at most `ceiling` with
// the tree it makes and its fit, until `visit` answers true (then returns true). Every
// move counts as examined. The engine keeps the loaded tree.
template <class Visit>
bool visit_clip(Engine& e, int n, bool tbr, long long& examined, std::vector<std::uint8_t>& in,
                std::vector<std::int32_t>& moved, double ceiling, Visit&& visit) {
  if (n == e.nt || e.anc[n] < 0 || e.anc[n] == e.nt) return false;
  const bool constrained = constraints_in_force();
  const bool fast = rated_ready;
  const int p = e.anc[n];
  const int s = e.left[p] == n ? e.right[p] : e.left[p];
  mark_subtree(e, n, in);
  // Rerootings of the clip: as it is, then on each branch below its children.
  std::vector<int> reroots{-1};
  if (tbr && n >= e.nt)
    for (int r = 0; r < e.nn; ++r)
      if (in[r] && r != n && r != e.left[n] && r != e.right[n]) reroots.push_back(r);
  if (fast) rated.prepare_clip(n, tbr);
  // Rounding of the sums of fits is far below this.
  const double limit = ceiling + 1e-7;
  qax::shell::show_progress(n, e.nn, tbr ? "TBR" : "SPR");
  for (int reroot : reroots) {
    if (shell_state.stop_search_flag) return false;
    // With the sets of the tree without the clip, a move that can't reach the ceiling
    // is left without making its tree.
    if (fast && rated.base() > limit) {
      for (int t = 0; t < e.nn; ++t)
        if (!(t == e.nt || t == e.left[e.nt] || in[t] || t == p || e.anc[t] < 0 || (t == s && reroot < 0))) ++examined;
      continue;
    }
    for (int t = 0; t < e.nn; ++t) {
      if (t == e.nt || t == e.left[e.nt] || in[t] || t == p || e.anc[t] < 0) continue;
      if (t == s && reroot < 0) continue;  // the tree as it is
      if (fast) {
        ++examined;
        if (rated.fit(reroot, t, limit) > limit) continue;
      }
      Move m;
      m.clip = n;
      m.reroot = reroot;
      m.target = t;
      e.export_move(m, moved);
      // Under constraints a tree that breaks them is not a neighbour.
      if (constrained && !tree_satisfies(moved.data(), tree_store.ntax)) continue;
      if (!fast) ++examined;
      if (visit(moved, fit_for_swap(moved))) return true;
    }
  }
  return false;
}

// The same for every clip in turn.
template <class Visit>
bool visit_neighbours(Engine& e, bool tbr, long long& examined, double ceiling, Visit&& visit) {
  std::vector<std::uint8_t> in(static_cast<std::size_t>(e.nn), 0);
  std::vector<std::int32_t> moved;
  for (int n = 0; n < e.nn; ++n) {
    if (visit_clip(e, n, tbr, examined, in, moved, ceiling, visit)) return true;
    if (shell_state.stop_search_flag) return false;
  }
  return false;
}

// Fits of each character of a tree.
std::vector<double> fits_by_character(const std::vector<std::int32_t>& parent) {
  optim::character_steps(parent, steps_scratch);
  return optim::character_fits(steps_scratch);
}

// Relative fit difference of going from fits a to fits b: (F - C) / F, F the fit lost by
// the characters that get worse, C the fit gained by the others.
double relative_difference(const std::vector<double>& a, const std::vector<double>& b) {
  double f = 0, c = 0;
  for (std::size_t i = 0; i < a.size() && i < b.size(); ++i) {
    if (b[i] > a[i]) f += b[i] - a[i];
    else c += a[i] - b[i];
  }
  return f > 0 ? (f - c) / f : 0.0;
}

// One perturbation of drift: clips in random order, each making its first acceptable
// move: one not worse, or (when `worse`) a worse one that passes the random test on its
// fit difference and whose relative fit difference is within the limit. Stops after
// `moves` moves. Returns the fit of the tree left in parent.
double implied_perturb(std::vector<std::int32_t>& parent, double fit, bool tbr, bool worse, int moves,
                       long long& examined) {
  const auto& d = drift_settings;
  Engine& e = engine();
  if (!load_tree_for_moves(e, parent)) return fit;
  std::vector<int> order(static_cast<std::size_t>(e.nn));
  for (int i = 0; i < e.nn; ++i) order[i] = i;
  random_shuffle(e.nn, order.data());
  std::vector<std::uint8_t> in(static_cast<std::size_t>(e.nn), 0);
  std::vector<std::int32_t> moved;
  std::vector<double> now = fits_by_character(parent);
  double excess = 0;
  int made = 0;
  for (int n : order) {
    if (made >= moves || shell_state.stop_search_flag) break;
    const double ceiling = worse ? fit + d.fitdiff + 1e-9 : fit + 1e-9;
    const bool taken = visit_clip(e, n, tbr, examined, in, moved, ceiling, [&](const std::vector<std::int32_t>& t, double f) {
      if (f > fit + 1e-9) {
        if (!worse) return false;
        const double diff = f - fit;
        if (diff > d.fitdiff + 1e-9) return false;
        double r = (random_next() % 100) / ((2 * excess + diff) * 100);
        r += d.xfactor * r;
        if (diff / f > r) return false;
        const double rfd = relative_difference(now, fits_by_character(t));
        if (rfd > d.rfitdiff || rfd > r) return false;
        excess = std::max(0.0, excess + diff);
      }
      parent = t;
      fit = f;
      return true;
    });
    if (!taken) continue;
    ++made;
    load_tree_for_moves(e, parent);
    now = fits_by_character(parent);
  }
  return fit;
}

// Drift from the tree in parent: each cycle perturbs (worse moves allowed on odd cycles,
// and on all with `noequals`), then swaps; the result is kept when its fit is no worse.
double implied_drift(std::vector<std::int32_t>& parent, double fit, bool tbr, long long& examined, int* done = nullptr) {
  const auto& d = drift_settings;
  for (int cycle = 0; cycle < d.iterations && !shell_state.stop_search_flag; ++cycle) {
    if (done) *done = cycle + 1;
    std::vector<std::int32_t> trial = parent;
    const bool worse = d.pert && !(d.equals && cycle % 2 == 0);
    const int moves = cycle < d.flat ? d.flatnumsubs : d.numsubs;
    implied_perturb(trial, fit, tbr, worse, moves, examined);
    const double f = implied_swap(trial, tbr, examined);
    if (f <= fit + 1e-9) { fit = f; parent = trial; }
    if (d.findscore > 0 && fit <= d.findscore + 1e-9) break;
  }
  return fit;
}

}  // namespace

double implied_swap(std::vector<std::int32_t>& parent, bool tbr, long long& examined) {
  Engine& e = engine();
  double fit = fit_for_swap(parent);
  if (!load_tree_for_moves(e, parent)) return fit;
  bool improved = true;
  while (improved && !shell_state.stop_search_flag) {
    improved = visit_neighbours(e, tbr, examined, fit - 1e-9, [&](const std::vector<std::int32_t>& moved, double f) {
      if (f >= fit - 1e-9) return false;
      fit = f;
      parent = moved;
      return true;
    });
    if (improved) load_tree_for_moves(e, parent);
  }
  return fit;
}

double implied_collect(int first, int limit, bool tbr, double best, long long& examined) {
  const double subopt = search_settings.suboptimal;
  Engine& e = engine();
  std::vector<std::int32_t> base, found;
  for (int i = first; i < tree_store.ntrees && !shell_state.stop_search_flag; ++i) {
    base.assign(qax::trees::tree_row(i), qax::trees::tree_row(i) + tree_store.row_size);
    if (!load_tree_for_moves(e, base)) continue;
    const bool better = visit_neighbours(e, tbr, examined, best + subopt + tie_slack, [&](const std::vector<std::int32_t>& moved, double f) {
      if (f < best - 1e-9) {
        found = moved;
        return true;
      }
      if (f <= best + subopt + tie_slack && tree_store.ntrees < limit) {
        std::vector<std::int32_t> keep = moved;
        store_add(keep, f);
      }
      return false;
    });
    if (!better) continue;
    // A better tree: climb from it, drop what is no longer within reach, start again.
    best = implied_swap(found, tbr, examined);
    store_discard_above(first, best + subopt + tie_slack, -1);
    store_add(found, best);
    i = first - 1;
  }
  return best;
}

void run_implied_mult(int replications) {
  const auto& s = search_settings;
  qax::dataset::minmax_check();  // fits need the minimum steps of the characters
  search_prepare();
  SearchRunning running;
  tree_store.ntrees = 0;
  tree_store.trees_changed = 1;
  store_begin();
  set_random_seed(command_seed());
  double best = -1;
  int hits = 0, done = 0;
  long long examined = 0;
  std::vector<std::int32_t> tree;
  for (int rep = 0; rep < replications && !shell_state.stop_search_flag; ++rep) {
    std::uint32_t seed = static_cast<std::uint32_t>(random_next());
    if (seed == 0) seed = 1;
    wagner_build(tree, seed);
    double f = s.swapper == swapper_none ? implied_fit_of(tree)
                                         : implied_swap(tree, s.swapper != swapper_spr, examined);
    if (s.ratchet) f = implied_ratchet(tree, f, s.swapper != swapper_spr, examined);
    if (s.drift) f = implied_drift(tree, f, s.swapper != swapper_spr, examined);
    ++done;
    if (best < 0 || f < best - tie_slack) {
      // A better replication: the trees kept so far may be out of reach now.
      best = f;
      hits = 1;
      if (!s.keepall) store_discard_above(0, best + s.suboptimal + tie_slack, -1);
    } else if (f <= best + tie_slack) {
      ++hits;
    }
    // With keepall every replication's tree stays.
    if (f > best + s.suboptimal + tie_slack && !s.keepall) continue;
    const int first = tree_store.ntrees;
    if (first >= tree_store.maxtrees || store_add(tree, f) < 0) continue;
    if (s.hold > 1 && s.swapper != swapper_none) {
      // Trees of equal fit (or within the suboptimal) around this one, up to hold.
      const int limit = static_cast<int>(std::min<long long>(tree_store.maxtrees, static_cast<long long>(first) + s.hold));
      const double g = implied_collect(first, limit, s.swapper != swapper_spr, f, examined);
      if (g < best - tie_slack) {
        best = g;
        if (!s.keepall) store_discard_above(0, best + s.suboptimal + tie_slack, -1);
      }
    }
  }
  if (!s.keepall) store_discard_above(0, best + s.suboptimal + tie_slack, -1);
  tag_search_trees("mult");
  out_printf("Completed %i random addition sequences.\n", done);
  out_printf("Total rearrangements examined: %lli.\n", examined);
  if (constraints_in_force()) out_printf("Constraints enforced during search.\n");
  out_printf("Best score hit %i times out of %i.\n", hits, done);
  out_printf("Best score (%s): %s.  %i trees retained.\n",
             s.swapper == swapper_none ? "Wagner" : s.swapper == swapper_spr ? "SPR" : "TBR", fit_range(best).c_str(),
             tree_store.ntrees);
}

namespace {

// Runs `perturb` with the iteration count of its settings set to `count` for the run.
template <class Run>
double with_iterations(int& setting, int count, Run&& perturb) {
  const int keep = setting;
  setting = count;
  long long examined = 0;
  const double fit = perturb(examined);
  setting = keep;
  rearrangements_examined.add(static_cast<std::uint64_t>(examined));
  return fit;
}

}  // namespace

double implied_ratchet_run(std::vector<std::int32_t>& tree, int iterations) {
  return with_iterations(ratchet_settings.iterations, iterations,
                         [&](long long& examined) { return implied_ratchet(tree, implied_fit_of(tree), true, examined); });
}

double implied_drift_run(std::vector<std::int32_t>& tree, int cycles) {
  return with_iterations(drift_settings.iterations, cycles,
                         [&](long long& examined) { return implied_drift(tree, implied_fit_of(tree), true, examined); });
}

void implied_visit_tbr(const std::vector<std::int32_t>& tree, double ceiling, long long& examined,
                       const std::function<bool(const std::vector<std::int32_t>&, double)>& visit) {
  Engine& e = engine();
  if (!load_tree_for_moves(e, tree)) return;
  visit_neighbours(e, true, examined, ceiling, [&](const std::vector<std::int32_t>& moved, double f) {
    return f <= ceiling + 1e-9 && visit(moved, f);
  });
}

void run_implied_perturbation(bool drift) {
  qax::dataset::minmax_check();
  search_prepare();
  SearchRunning running;
  // From the tree of best fit in memory.
  std::vector<std::int32_t> tree, t;
  double fit = -1;
  Engine& e = engine();
  for (int k = 0; k < tree_store.ntrees && !shell_state.stop_search_flag; ++k) {
    if (!load_for_swapping(e, k)) error_exitf("Tree %i does not hold all active taxa: cannot swap it", k);
    e.export_tree(t);
    const double f = implied_fit_of(t);
    if (fit < 0 || f < fit) { fit = f; tree = t; }
  }
  if (fit < 0) return;
  set_random_seed(command_seed());
  const bool tbr = true;
  long long examined = 0;
  int done = 0;
  fit = implied_swap(tree, tbr, examined);
  fit = drift ? implied_drift(tree, fit, tbr, examined, &done) : implied_ratchet(tree, fit, tbr, examined, &done);
  tree_store.ntrees = 0;
  tree_store.trees_changed = 1;
  store_begin();
  store_add(tree, fit);
  tag_search_trees(drift ? "drifting" : "ratchet");
  out_printf(drift ? "%i drift cycles completed\n" : "%i ratchet iterations completed\n", done);
  out_printf("Total rearrangements examined: %lli.\n", examined);
  if (constraints_in_force()) out_printf("Constraints enforced during search.\n");
  out_printf("Saved %i trees of score %s\n", tree_store.ntrees, fit_range(fit).c_str());
}

void run_implied_bbreak() {
  const auto& s = search_settings;
  qax::dataset::minmax_check();  // fits need the minimum steps of the characters
  search_prepare();
  SearchRunning running;
  const int count = tree_store.ntrees;
  std::vector<std::vector<std::int32_t>> trees;
  Engine& e = engine();
  for (int k = 0; k < count; ++k) {
    if (!load_for_swapping(e, k)) continue;
    std::vector<std::int32_t> t;
    e.export_tree(t);
    trees.push_back(t);
  }
  long long examined = 0;
  double best = -1;
  std::vector<double> fits;
  for (auto& t : trees) {
    const double f = implied_swap(t, s.bb_swapper != swapper_spr, examined);
    fits.push_back(f);
    if (best < 0 || f < best) best = f;
  }
  tree_store.ntrees = 0;
  tree_store.trees_changed = 1;
  store_begin();
  for (std::size_t i = 0; i < trees.size(); ++i)
    if (fits[i] <= best + s.suboptimal + tie_slack && tree_store.ntrees < tree_store.maxtrees) store_add(trees[i], fits[i]);
  // Every tree of equal fit (or within the suboptimal) reached by swapping those.
  if (best >= 0) best = implied_collect(0, tree_store.maxtrees, s.bb_swapper != swapper_spr, best, examined);
  tag_search_trees("bbreak");
  out_printf("Total rearrangements examined: %lli.\n", examined);
  if (constraints_in_force()) out_printf("Constraints enforced during search.\n");
  out_printf("Best score (%s): %s.  %i trees retained.\n", s.bb_swapper == swapper_spr ? "SPR" : "TBR",
             fit_range(best).c_str(), tree_store.ntrees);
}

}  // namespace qax::search
