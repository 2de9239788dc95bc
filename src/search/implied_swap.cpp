// Searches under implied weighting: each rearranged tree is scored in full (steps of every
// character, then the fit), so the fit of every tree kept is exact. Starting trees come
// from the Wagner builder of the step counts; branch swapping then climbs the fit.
#include "search/implied_swap.h"

#include <algorithm>
#include <cstdio>
#include <vector>

#include "dataset/dataset.h"
#include "optim/implied.h"
#include "optim/reports.h"
#include "search/constraints.h"
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
double implied_ratchet(std::vector<std::int32_t>& parent, double fit, bool tbr, long long& examined) {
  const auto& r = ratchet_settings;
  std::vector<int> weights(static_cast<std::size_t>(qax::dataset::dataset.nchar));
  for (int it = 0; it < r.iterations && !shell_state.stop_search_flag; ++it) {
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

double implied_swap(std::vector<std::int32_t>& parent, bool tbr, long long& examined) {
  Engine& e = engine();
  double fit = fit_for_swap(parent);
  if (!e.load(parent)) return fit;
  std::vector<std::uint8_t> in(static_cast<std::size_t>(e.nn), 0);
  std::vector<std::int32_t> moved;
  bool improved = true;
  while (improved && !shell_state.stop_search_flag) {
    improved = false;
    for (int n = 0; n < e.nn && !improved; ++n) {
      if (n == e.nt || e.anc[n] < 0 || e.anc[n] == e.nt) continue;
      const int p = e.anc[n];
      const int s = e.left[p] == n ? e.right[p] : e.left[p];
      mark_subtree(e, n, in);
      // Rerootings of the clip: as it is, then on each branch below its children.
      std::vector<int> reroots{-1};
      if (tbr && n >= e.nt)
        for (int r = 0; r < e.nn; ++r)
          if (in[r] && r != n && r != e.left[n] && r != e.right[n]) reroots.push_back(r);
      for (int reroot : reroots) {
        // Every candidate is rescored in full, which takes long on big trees: poll for
        // ESC and stop files.
        qax::shell::show_progress(n, e.nn, tbr ? "TBR" : "SPR");
        if (shell_state.stop_search_flag) break;
        for (int t = 0; t < e.nn && !improved; ++t) {
          if (t == e.nt || t == e.left[e.nt] || in[t] || t == p || e.anc[t] < 0) continue;
          if (t == s && reroot < 0) continue;  // the tree as it is
          Move m;
          m.clip = n;
          m.reroot = reroot;
          m.target = t;
          e.apply_move(m);
          e.export_tree(moved);
          e.anc = e.oanc;
          e.left = e.oleft;
          e.right = e.oright;
          ++examined;
          const double f = fit_for_swap(moved);
          if (f < fit - 1e-9) {
            fit = f;
            parent = moved;
            e.load(parent);
            improved = true;
          }
        }
        if (improved) break;
      }
    }
  }
  return fit;
}

void run_implied_mult(int replications) {
  const auto& s = search_settings;
  if (s.drift) error_exit("Sorry, drift is not available yet under implied weighting");
  if (constraint_defs.active) error_exit("Sorry, constrained searches are not available yet under implied weighting");
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
    ++done;
    if (best < 0 || f < best - tie_slack) { best = f; hits = 1; }
    else if (f <= best + tie_slack) ++hits;
    if (f <= best + tie_slack && tree_store.ntrees < tree_store.maxtrees) store_add(tree, f);
  }
  store_discard_above(0, best + tie_slack, -1);
  tag_search_trees("mult");
  out_printf("Completed %i random addition sequences.\n", done);
  out_printf("Total rearrangements examined: %lli.\n", examined);
  out_printf("Best score hit %i times out of %i.\n", hits, done);
  out_printf("Best score (%s): %.5f.  %i trees retained.\n",
             s.swapper == swapper_none ? "Wagner" : s.swapper == swapper_spr ? "SPR" : "TBR", best, tree_store.ntrees);
}

void run_implied_bbreak() {
  const auto& s = search_settings;
  if (constraint_defs.active) error_exit("Sorry, constrained searches are not available yet under implied weighting");
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
    if (fits[i] <= best + tie_slack) store_add(trees[i], fits[i]);
  tag_search_trees("bbreak");
  out_printf("Total rearrangements examined: %lli.\n", examined);
  out_printf("Best score (%s): %.5f.  %i trees retained.\n", s.bb_swapper == swapper_spr ? "SPR" : "TBR", best,
             tree_store.ntrees);
}

}  // namespace qax::search
