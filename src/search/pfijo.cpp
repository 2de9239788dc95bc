// The pfijo command: cycles of perturbation by chunks (HTUs take the states of one of
// their descendants), global TBR and mild drift, keeping the best trees.
#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

#include "optim/implied.h"
#include "search/constraints.h"
#include "search/fusing.h"
#include "search/search_internal.h"
#include "search/implied_swap.h"
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

namespace {

int number_or(const char* what) {
  const int n = option_number(-1);
  if (n < 0) error_exitf("Give number for %s", what);
  return n;
}

}  // namespace

namespace {

void print_pfijo_settings() {
  const PfijoSettings& p = pfijo_settings;
  out_printf("Settings for pinon fijo:\n");
  out_printf("     * %i cycles, chunks of %i terminals, HTU constant %i\n", p.numsels, p.chunksize, p.phtus);
  out_printf("     * drift after perturbing: %i cycles, fitdiff %g, rfitdiff %g\n", p.drift_cycles, p.drift_fitdiff,
             p.drift_rfitdiff);
  if (p.autofuse > 0) out_printf("     * fuse the trees every %i cycles, %i rounds\n", p.autofuse, p.autofuse_rounds);
  out_printf("     * goback %s, keepall %s\n", p.goback ? "on" : "off", p.keepall ? "on" : "off");
}

bool pfijo_option(const std::string& w) {
  PfijoSettings& p = pfijo_settings;
  auto is = [&](const char* name, std::size_t least) { return w.size() >= least && is_prefix(w.c_str(), name) == 0; };
  auto real = [](const char* what) {
    const int c = peek_char();
    if (!std::isdigit(c) && c != '.') error_exitf("Give number for %s", what);
    return read_real();
  };
  if (is("numsels", 2)) {
    const int n = number_or("numsels");
    if (n < 1 || n > 99999) error_exit("Number of cycles for pinon fijo must be 1-99999");
    p.numsels = n;
  } else if (is("phtus", 2)) {
    const int n = number_or("phtus");
    if (n < 1 || n > 100) error_exit("Constant for HTU states must be above 0 and up to 100");
    p.phtus = n;
  } else if (is("chunksize", 2)) {
    const int n = number_or("chunksize");
    if (n < 10) error_exit("Chunk size must be 10 or more");
    p.chunksize = n;
  } else if (is("drift", 2)) {
    p.drift_cycles = number_or("drift");
    if (std::isdigit(peek_char()) || peek_char() == '.') p.drift_fitdiff = real("drift");
    if (std::isdigit(peek_char()) || peek_char() == '.') p.drift_rfitdiff = real("drift");
  } else if (is("autofuse", 2)) {
    p.autofuse = number_or("autofuse");
    if (p.autofuse != 0 && p.autofuse < 2) error_exit("Give frequency for auto-fusing (3-100, no fusing = 0 )");
    if (std::isdigit(peek_char())) p.autofuse_rounds = std::max(1, read_int());
  } else if (is("noautofuse", 4)) {
    p.autofuse = 0;
  } else if (is("goback", 2)) {
    p.goback = 1;
  } else if (is("nogoback", 4)) {
    p.goback = 0;
  } else if (is("keepall", 2)) {
    p.keepall = 1;
  } else if (is("nokeepall", 4)) {
    p.keepall = 0;
  } else if (is("slack", 2)) {
    const int n = number_or("slack");
    if (n > 100) error_exit("Slack must be 0-100");
    p.slack = n;
  } else {
    return false;
  }
  return true;
}

}  // namespace

void cmd_pfijo() {
  const PfijoSettings saved = pfijo_settings;
  if (!read_settings_command("pfijo", "Unidentified string in pfijo options: %s",
                             [](const std::string& w, bool) { return pfijo_option(w); }, print_pfijo_settings,
                             [&] { pfijo_settings = saved; }))
    return;
  qax::trees::require_data();
  auto& store = trees::tree_store;
  if (store.ntrees == 0) error_exit("No trees to swap");
  search_prepare();
  SearchRunning running;
  const PfijoSettings& p = pfijo_settings;
  Engine& e = engine();
  int start = 0;
  double start_score = -1;
  for (int k = 0; k < store.ntrees; ++k) {
    if (!load_for_swapping(e, k)) error_exitf("Tree %i does not hold all active taxa: cannot swap it", k);
    const std::vector<std::int32_t> row(trees::tree_row(k), trees::tree_row(k) + store.row_size);
    const double sc = whole_tree_score(row);   // fits under implied weighting
    if (start_score < 0 || sc < start_score) { start = k; start_score = sc; }
  }
  std::vector<std::int32_t> tree(trees::tree_row(start), trees::tree_row(start) + store.row_size);
  set_random_seed(command_seed());
  store.ntrees = 0;
  store.trees_changed = 1;
  store_begin();
  store_add(tree, start_score);
  double best = start_score;
  std::vector<std::int32_t> best_tree = tree;
  std::vector<std::vector<std::int32_t>> found;
  std::vector<double> found_scores;
  const DriftSettings drift_saved = drift_settings;
  struct PutBackDrift { const DriftSettings& d; ~PutBackDrift() { drift_settings = d; } } put_back_drift{drift_saved};
  for (int cycle = 0; cycle < p.numsels && !shell_state.stop_search_flag; ++cycle) {
    const std::vector<std::int32_t> before = tree;
    const double before_score = cycle == 0 ? start_score : best;
    double sc = pfijo_cycle(tree);
    if (p.drift_cycles > 0 && !shell_state.stop_search_flag) {
      drift_settings.fitdiff = p.drift_fitdiff;
      drift_settings.rfitdiff = p.drift_rfitdiff;
      const std::uint32_t s2 = static_cast<std::uint32_t>(random_next()) | 1u;
      const std::uint32_t k2 = random_state();
      if (optim::implied_settings.implied_on) {
        set_random_seed(s2);
        sc = implied_drift_run(tree, p.drift_cycles);
      } else {
        sc = drift_run(tree, s2, -1, 0, p.drift_cycles, nullptr);
      }
      set_random_seed(k2);
      drift_settings = drift_saved;
    }
    if (p.goback && sc > before_score + 1e-8) {
      tree = before;
      sc = before_score;
    }
    if (sc < best - 1e-8) {
      best = sc;
      best_tree = tree;
    }
    found.push_back(tree);
    found_scores.push_back(sc);
    if (p.keepall || sc <= best + 1e-8) {
      if (store.ntrees >= store.maxtrees) {
        out_printf("Stopping pinon fijo (increase max. trees to continue)\n");
        break;
      }
      store_add(tree, sc);
    }
    if (p.autofuse > 0 && (cycle + 1) % p.autofuse == 0 && found.size() >= 3) {
      const std::uint32_t k2 = random_state();
      const std::uint32_t s2 = static_cast<std::uint32_t>(random_next()) | 1u;
      const double fb = fuse_trees(found, found_scores, p.autofuse_rounds, 0, s2, true);
      set_random_seed(k2);
      if (fb < best - 1e-8) {
        const auto at = std::min_element(found_scores.begin(), found_scores.end()) - found_scores.begin();
        best = fb;
        best_tree = found[static_cast<std::size_t>(at)];
        tree = best_tree;
        if (store.ntrees < store.maxtrees) store_add(tree, best);
      }
    }
    show_progress(cycle + 1, p.numsels, "Pinon fijo");
  }
  if (!p.keepall) store_discard_above(0, best + search_settings.suboptimal, -1);
  tag_search_trees("pinon_fijo");
  last_best_score = best;
  out_printf("Pinon Fijo, best score: %s.\n", search_score_text(best).c_str());
  search_status_code = 0;
}

}  // namespace qax::search
