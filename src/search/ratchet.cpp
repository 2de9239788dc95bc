// The ratchet: cycles of a short perturbation under changed character weights (some
// doubled, some set to 0, or the initial weights with equal moves only) followed by TBR
// under the initial weights. The perturbation moves the tree off its local optimum along
// directions the data partly support, which TBR alone can't leave.
#include <string>
#include <vector>

#include "dataset/dataset.h"
#include "optim/implied.h"
#include "optim/packed.h"
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

using namespace qax::shell;
using qax::trees::tree_store;

RatchetSettings ratchet_settings;

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
  const bool up = r.upfactor > 0, down = r.downfactor > 0;
  const int cycle = (up && down && r.equals) ? 3 : 2;
  const int offset = r.equals ? 0 : 1;
  auto perturb = [&](int it, std::vector<std::int32_t>& t) {
    int phase = it % cycle + offset;
    if (!up && !down) phase = 0;
    weights.changed = reweight_characters(phase, weights.initial);
    if (weights.changed) repack();
    if (r.tradrat) swap_tbr(t, 0, 0, 0);
    else swap_perturb(t, 0, r.numsubs, r.giveup);
    weights.restore();
    return true;
  };
  return perturb_search(tree, first, limit, iterations, iterations_done, r.findscore, 5, "Ratchet", perturb,
                        PerturbExtras{r.fusefreq, r.fuserounds, r.dumpfuse, r.autoconst});
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
  if (r.fusefreq > 0)
    out_printf("     * fuse the trees found every %i iterations, %i rounds%s\n", r.fusefreq, r.fuserounds,
               r.dumpfuse ? ", dropping suboptimal trees after a failed fusing" : "");
  else
    out_printf("     * no fusing of the trees found\n");
  if (r.autoconst > 0) out_printf("     * autoconstrained every %i iterations\n", r.autoconst);
}

bool ratchet_option(const std::string& w) {
  RatchetSettings& r = ratchet_settings;
  auto is = [&](const char* name, std::size_t least) { return w.size() >= least && is_prefix(w.c_str(), name) == 0; };
  if (is("upfactor", 2)) {
    r.upfactor = read_percent();
  } else if (is("downfactor", 2)) {
    r.downfactor = read_percent();
  } else if (is("tradrat", 2)) {
    r.tradrat = 1;
  } else if (is("notradrat", 3)) {
    r.tradrat = 0;
  } else {
    return shared_perturb_option(w, PerturbOptions{&r.iterations, &r.numsubs, &r.equals, &r.giveup, &r.findscore,
                                                   &r.dumpfuse, &r.fusefreq, &r.fuserounds, &r.autoconst, "ratchet iterations", "ratchet substitutions", "ratchet"});
  }
  return true;
}

}  // namespace

void cmd_ratchet() {
  const RatchetSettings saved = ratchet_settings;
  auto undo = [&] { ratchet_settings = saved; };
  const bool run = read_settings_command("ratchet", "Unidentified string in ratchet options: %s",
                                         [](const std::string& w, bool) { return ratchet_option(w); },
                                         print_ratchet_settings, undo);
  const RatchetSettings& r = ratchet_settings;
  if (r.upfactor == 0 && r.downfactor == 0 && !r.equals) {
    undo();
    error_exit("Ratchet must do at least one of equals, up, or down --all three are off!");
  }
  if (!run) return;
  if (optim::implied_settings.implied_on) {
    qax::trees::require_data();
    if (tree_store.ntrees == 0) error_exit("No trees to swap");
    run_implied_perturbation(false);
    return;
  }
  run_from_best_tree("ratchet", r.autoconst > 0 ? "%i ratchet iterations completed (autoconstrained)\n" : "%i ratchet iterations completed\n", [](std::vector<std::int32_t>& tree, std::uint32_t seed, int* done) {
    return ratchet_run(tree, seed, 0, tree_store.maxtrees, ratchet_settings.iterations, done);
  });
}

}  // namespace qax::search
