// Drift: cycles of a perturbation that also takes worse moves (a random test that grows
// stricter with the excess taken, and a bound on the relative fit difference), each
// followed by TBR. Even cycles take equal moves only, a walk on the plateau.
#include <algorithm>
#include <cstdlib>
#include <string>
#include <vector>

#include "optim/implied.h"
#include "optim/packed.h"
#include "search/implied_swap.h"
#include "search/search_internal.h"
#include "search/sectors.h"
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

DriftSettings drift_settings;

double drift_run(std::vector<std::int32_t>& tree, std::uint32_t seed, int first, int limit, int iterations,
                 int* iterations_done) {
  const DriftSettings& d = drift_settings;
  set_random_seed(seed);
  bool single_tree_island = false;
  auto perturb = [&](int cycle, std::vector<std::int32_t>& t) {
    const bool flat = cycle < d.flat && in_sector == 0;
    int moves = flat ? d.flatnumsubs : d.numsubs;
    // A reduced data set (a sector) takes fewer moves: half its terminals, at least 25.
    if (in_sector > 0) moves = std::min(moves, std::max(25, optim::packed.nterm / 2));
    if (!d.pert || (d.equals && cycle % 2 == 0)) {
      bool all_failed = false;
      swap_perturb(t, 0, moves, d.giveup, PerturbLimits{}, &all_failed);
      if (!d.pert && all_failed) {
        single_tree_island = true;
        return false;
      }
      return true;
    }
    const PerturbLimits limits{d.fitdiff, flat ? d.rflat : d.rfitdiff, d.xfactor};
    swap_perturb(t, 1, moves, d.giveup, limits);
    return true;
  };
  const double best = perturb_search(tree, first, limit, iterations, iterations_done, d.findscore, 4, "Drift", perturb,
                                     PerturbExtras{d.fusefreq, d.fuserounds, d.dumpfuse, d.autoconst});
  if (single_tree_island) out_printf("NOTE: Island has a single tree (no need to continue unperturbated drift)\n");
  return best;
}

namespace {

void print_drift_settings() {
  const DriftSettings& d = drift_settings;
  out_printf("Settings for tree-drifting:\n");
  out_printf("     * %i cycles, %i substitutions per perturbation\n", d.iterations, d.numsubs);
  out_printf("     * worse moves: %s, score difference up to %g, relative fit difference up to %g, xfactor %g\n",
             d.pert ? "accepted" : "never", d.fitdiff, d.rfitdiff, d.xfactor);
  out_printf("     * even cycles without worse moves: %s\n", d.equals ? "on" : "off");
  out_printf("     * give up perturbation at %i%% of the clips\n", d.giveup);
  if (d.flat > 0)
    out_printf("     * first %i cycles: %i substitutions, relative fit difference up to %g\n", d.flat, d.flatnumsubs,
               d.rflat);
  if (d.findscore > 0) out_printf("     * stop when score %i is found\n", d.findscore);
  if (d.fusefreq > 0)
    out_printf("     * fuse the trees found every %i cycles, %i rounds%s\n", d.fusefreq, d.fuserounds,
               d.dumpfuse ? ", dropping suboptimal trees after a failed fusing" : "");
  else
    out_printf("     * no fusing of the trees found\n");
  if (d.autoconst > 0) out_printf("     * autoconstrained every %i cycles\n", d.autoconst);
}

double read_real_option(const char* what) {
  int c = peek_char();
  if (!std::isdigit(c) && c != '.') error_exitf("Give value for %s", what);
  return read_real();
}

bool drift_option(const std::string& w) {
  DriftSettings& d = drift_settings;
  auto is = [&](const char* name, std::size_t least) { return w.size() >= least && is_prefix(w.c_str(), name) == 0; };
  if (is("fitdiff", 2)) {
    d.fitdiff = read_real_option("fitdiff");
  } else if (is("rfitdiff", 2)) {
    d.rfitdiff = read_real_option("rfitdiff");
  } else if (is("xfactor", 2)) {
    const double x = read_real_option("xfactor");
    if (x <= 0) error_exit("Xfactor must be above 0");
    d.xfactor = x;
  } else if (is("pert", 2)) {
    d.pert = 1;
  } else if (is("nopert", 3)) {
    d.pert = 0;
  } else if (is("flatnumsubs", 5)) {
    d.flatnumsubs = read_count(1000000, "Can't do %i drift substitutions (max=1000000)", "drift substitutions");
  } else if (is("flat", 2)) {
    d.flat = read_count(100000, "Can't do %i flat cycles (max=100000)", "flat cycles");
  } else if (is("rflat", 2)) {
    d.rflat = read_real_option("rflat");
  } else {
    return shared_perturb_option(w, PerturbOptions{&d.iterations, &d.numsubs, &d.equals, &d.giveup, &d.findscore,
                                                   &d.dumpfuse, &d.fusefreq, &d.fuserounds, &d.autoconst, "drift cycles", "drift substitutions", "drift"});
  }
  return true;
}

}  // namespace

void cmd_drift() {
  const DriftSettings saved = drift_settings;
  if (read_settings_command("drift", "Unidentified string in drift options: %s",
                            [](const std::string& w, bool) { return drift_option(w); }, print_drift_settings,
                            [&] { drift_settings = saved; })) {
    if (optim::implied_settings.implied_on) {
      qax::trees::require_data();
      if (tree_store.ntrees == 0) error_exit("No trees to swap");
      run_implied_perturbation(true);
      return;
    }
    run_from_best_tree("drifting", "%i drift cycles completed\n", [](std::vector<std::int32_t>& tree, std::uint32_t seed, int* done) {
      return drift_run(tree, seed, 0, tree_store.maxtrees, drift_settings.iterations, done);
    });
  }
}

}  // namespace qax::search
