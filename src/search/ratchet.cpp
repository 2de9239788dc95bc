// The ratchet: cycles of a short perturbation under changed character weights (some
// doubled, some set to 0, or the initial weights with equal moves only) followed by TBR
// under the initial weights. The perturbation moves the tree off its local optimum along
// directions the data partly support, which TBR alone can't leave.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <vector>

#include "dataset/dataset.h"
#include "optim/packed.h"
#include "search/constraints.h"
#include "search/search_internal.h"
#include "search/settings.h"
#include "shell/commands.h"
#include "shell/failure.h"
#include "shell/input.h"
#include "shell/output.h"
#include "shell/state.h"
#include "trees/store.h"

namespace qax::search {

using namespace qax::shell;
using qax::trees::tree_store;

RatchetSettings ratchet_settings;

double swap_perturb(std::vector<std::int32_t>& parent, int moves, int giveup) {
  Engine& e = engine();
  if (!e.load(parent)) error_exit("Tree cannot be swapped (not binary on the active taxa)");
  double score = e.compute_all();
  if (e.nt < 4 || moves <= 0) return score;
  constraints_start_search(e.anc.data(), e.left.data(), e.right.data(), e.nt);
  struct EndConstraints { ~EndConstraints() { constraints_end_search(); } } end_constraints;
  const int nn = e.nn;
  std::vector<int> order(nn);
  random_shuffle(nn, order.data());
  std::vector<Move> records;
  std::uint64_t examined = 0;
  int done = 0;
  for (int i = 0; i < nn; ++i) {
    if ((i + 1) % 15 == 0) {
      show_progress(i, nn, "Perturbation");
      if (shell_state.stop_search_flag) break;
    }
    records.clear();
    Move best;
    // Every move not worse than the clip where it is: the best one when something is
    // better, otherwise one of the equal ones at random (a step on the plateau).
    const std::int32_t base = e.evaluate_clip(order[i], true, true, 0, best, records, examined);
    if (base < 0) continue;
    Move m = best;
    if (m.clip < 0) {
      if (records.empty()) continue;
      m = records[static_cast<std::size_t>(random_next()) % records.size()];
    }
    e.apply_move(m);
    score = search_settings.safe ? e.compute_all() : e.update_after_move();
    if (constraint_allows) constraint_tree_changed();
    ++replacements_done;
    if (++done >= moves) break;
    if (giveup < 100 && giveup * nn < 100 * (i + 1)) break;
  }
  rearrangements_examined.add(examined);
  e.export_tree(parent);
  return score;
}

namespace {

// Changes the weights of the active characters for one phase of the cycle: 0 initial
// weights, 1 doubling (or zeroing when doubling is off), 2 zeroing (or doubling when
// zeroing is off). Returns true when some weight differs from the initial ones.
bool reweight_characters(int phase, const std::vector<std::int32_t>& initial) {
  const RatchetSettings& r = ratchet_settings;
  auto& chars = dataset::dataset.chars;
  for (std::size_t c = 0; c < chars.size(); ++c) chars[c].weight = initial[c];
  if (phase == 0) return false;
  const bool up = r.upfactor > 0 && (phase == 1 || r.downfactor <= 0);
  bool changed = false;
  for (int c = static_cast<int>(chars.size()) - 1; c >= 0; --c) {
    if (!chars[c].active || chars[c].is_continuous) continue;
    if (up) {
      if (r.upfactor > random_next() % 100) { chars[c].weight = initial[c] * 2; changed = true; }
    } else if (r.downfactor > random_next() % 100) {
      chars[c].weight = 0;
      changed = true;
    }
  }
  return changed;
}

// Packs the data under the weights now in the data set and sizes the engine for it.
void repack() {
  optim::pack_data();
  engine_refresh();
}

// Puts the initial weights back and re-packs, on every way out of a ratchet.
struct WeightGuard {
  std::vector<std::int32_t> initial;
  bool changed = false;
  WeightGuard() {
    for (const auto& c : dataset::dataset.chars) initial.push_back(c.weight);
  }
  void restore() {
    if (!changed) return;
    auto& chars = dataset::dataset.chars;
    for (std::size_t c = 0; c < chars.size() && c < initial.size(); ++c) chars[c].weight = initial[c];
    changed = false;
    repack();
  }
  ~WeightGuard() {
    try {
      restore();
    } catch (...) {
      optim::invalidate_pack();
    }
  }
};

}  // namespace

double ratchet_run(std::vector<std::int32_t>& tree, std::uint32_t seed, int first, int limit, int iterations,
                   int* iterations_done) {
  const RatchetSettings& r = ratchet_settings;
  set_random_seed(seed);
  WeightGuard weights;
  Engine& e0 = engine();
  if (!e0.load(tree)) error_exit("Tree cannot be swapped (not binary on the active taxa)");
  double current = e0.compute_all();
  double best = current;
  std::vector<std::int32_t> best_tree = tree;
  const bool up = r.upfactor > 0, down = r.downfactor > 0;
  const int cycle = (up && down && r.equals) ? 3 : 2;
  const int offset = r.equals ? 0 : 1;
  const double subopt = search_settings.suboptimal;
  int done = 0;
  for (int it = 0; it < iterations; ++it) {
    if (shell_state.stop_search_flag) break;
    search_status_code = 5;
    int phase = it % cycle + offset;
    if (!up && !down) phase = 0;
    weights.changed = reweight_characters(phase, weights.initial);
    if (weights.changed) repack();
    if (r.tradrat) swap_tbr(tree, 0, 0, 0);
    else swap_perturb(tree, r.numsubs, r.giveup);
    weights.restore();
    if (shell_state.stop_search_flag) break;
    const double score = swap_tbr(tree, 0, 0, 0);
    ++done;
    if (score <= current + 1e-8) {
      if (first >= 0 && score < best - 1e-8) store_discard_above(first, score + subopt, -1);
      current = score;
      if (score < best) best = score;
      best_tree = tree;
      if (first >= 0 && tree_store.ntrees < limit && score <= best + subopt + 1e-8) store_add(tree, score);
    } else if (first >= 0) {
      tree = best_tree;   // go on from the best tree so far
    }
    show_progress(it + 1, iterations, "Ratchet");
    if (r.findscore > 0 && best <= r.findscore + 1e-8) break;
  }
  tree = best_tree;
  if (iterations_done) *iterations_done = done;
  return best;
}

namespace {

void print_ratchet_settings() {
  const RatchetSettings& r = ratchet_settings;
  out_printf("Ratchet settings:\n");
  out_printf("     * %i iterations, %i substitutions per perturbation\n", r.iterations, r.numsubs);
  out_printf("     * upweighting %i%%, downweighting %i%%, equal weights cycle %s\n", r.upfactor, r.downfactor,
             r.equals ? "on" : "off");
  out_printf("     * give up perturbation at %i%% of the clips\n", r.giveup);
  out_printf("     * perturbation by %s\n", r.tradrat ? "complete TBR (traditional ratchet)" : "a limited number of moves");
  if (r.findscore > 0) out_printf("     * stop when score %i is found\n", r.findscore);
  out_printf("     * no fusing of the trees found\n");
}

// Percentages of the perturbation.
int read_percent() {
  int n = option_number(-1);
  if (n < 0 || n > 100) error_exitf("Percentage can't be %i (must be 0-100)", n);
  return n;
}

bool ratchet_option(const std::string& w) {
  RatchetSettings& r = ratchet_settings;
  const char* s = w.c_str();
  auto is = [&](const char* name, std::size_t least) { return w.size() >= least && is_prefix(s, name) == 0; };
  if (is("iterations", 2)) {
    int n = option_number(-1);
    if (n < 0) error_exit("Give number of ratchet iterations");
    if (n > 100000) error_exitf("Can't do %i ratchet iterations (max=100000)", n);
    r.iterations = n;
  } else if (is("numsubs", 2)) {
    int n = option_number(-1);
    if (n < 0) error_exit("Give number of ratchet substitutions");
    if (n > 1000000) error_exitf("Can't do %i ratchet substitutions (max=1000000)", n);
    r.numsubs = n;
  } else if (is("upfactor", 2)) {
    r.upfactor = read_percent();
  } else if (is("downfactor", 2)) {
    r.downfactor = read_percent();
  } else if (is("equals", 2)) {
    r.equals = 1;
  } else if (is("noequals", 3)) {
    r.equals = 0;
  } else if (is("giveup", 2)) {
    r.giveup = read_percent();
  } else if (is("nogiveup", 3)) {
    r.giveup = 100;
  } else if (is("tradrat", 2)) {
    r.tradrat = 1;
  } else if (is("notradrat", 3)) {
    r.tradrat = 0;
  } else if (is("findscore", 2)) {
    int n = option_number(-1);
    if (n < 0) error_exit("Give score to find");
    r.findscore = n;
  } else if (is("nofindscore", 3)) {
    r.findscore = 0;
  } else if (is("fusefreq", 2)) {
    int n = option_number(-1);
    if (n != 0) error_exit("Fusing of ratchet trees is not available in this version (use fusefreq 0)");
    r.fusefreq = 0;
  } else if (is("nofusefreq", 3)) {
    r.fusefreq = 0;
  } else if (is("dumpfuse", 2)) {
    r.dumpfuse = 1;
  } else if (is("nodumpfuse", 3)) {
    r.dumpfuse = 0;
  } else if (is("autoconst", 2)) {
    int n = option_number(-1);
    if (n != 0) error_exit("Autoconstrained ratchet is not available in this version (use autoconst 0)");
  } else if (is("noautoconst", 3)) {
    // nothing to turn off
  } else {
    return false;
  }
  return true;
}

// Runs the ratchet from the best tree in memory; the store ends with the trees of best
// score found (up to the tree buffer).
void run_ratchet() {
  qax::trees::require_data();
  if (tree_store.ntrees == 0) error_exit("No trees to swap");
  search_prepare();
  SearchRunning running;
  Engine& e = engine();
  int start = -1;
  double start_score = 0;
  for (int k = 0; k < tree_store.ntrees; ++k) {
    if (!load_for_swapping(e, k)) error_exitf("Tree %i does not hold all active taxa: cannot swap it", k);
    const double sc = e.compute_all();
    if (start < 0 || sc < start_score) { start = k; start_score = sc; }
  }
  std::vector<std::int32_t> tree(trees::tree_row(start), trees::tree_row(start) + tree_store.row_size);
  set_random_seed(command_seed());
  const std::uint32_t seed = static_cast<std::uint32_t>(random_next()) | 1u;
  search_status_code = 2;
  double score = swap_tbr(tree, 0, 0, 0);
  tree_store.ntrees = 0;
  tree_store.trees_changed = 1;
  store_begin();
  store_add(tree, score);
  int done = 0;
  const double best = ratchet_run(tree, seed, 0, tree_store.maxtrees, ratchet_settings.iterations, &done);
  store_discard_above(0, best + search_settings.suboptimal, -1);
  tag_search_trees("ratchet");
  last_best_score = best;
  out_printf("%i ratchet iterations completed\n", done);
  out_printf("Total rearrangements examined: %s.\n",
             number_text(static_cast<long long>(rearrangements_examined.total())).c_str());
  out_printf("Saved %i trees of score %s", tree_store.ntrees, search_score_text(best).c_str());
  if (search_settings.suboptimal > 0) out_printf("-%s", search_score_text(best + search_settings.suboptimal).c_str());
  out_printf("\n");
  search_status_code = 0;
}

}  // namespace

void cmd_ratchet() {
  int c = peek_char();
  bool run = true;
  if (c == '=' || c == ':') {
    next_char();
    run = c == '=';
    if (!run && peek_char() == ';') { print_ratchet_settings(); return; }
  } else if (c != ';') {
    next_char();
    error_exitf("Wrong argument for ratchet: %c", c);
  }
  const RatchetSettings saved = ratchet_settings;
  while (peek_char() != ';') {
    std::string w = read_option_word();
    if (!ratchet_option(w)) {
      ratchet_settings = saved;
      error_exitf("Unidentified string in ratchet options: %s", w.c_str());
    }
  }
  const RatchetSettings& r = ratchet_settings;
  if (r.upfactor == 0 && r.downfactor == 0 && !r.equals) {
    ratchet_settings = saved;
    error_exit("Ratchet must do at least one of equals, up, or down --all three are off!");
  }
  if (run) run_ratchet();
}

}  // namespace qax::search
