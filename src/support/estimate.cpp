// qnelsen: the consensus estimated from repeated quick searches. The command pushes
// the search text of every replication on the input stack, each followed by the
// internal step "qnelsen @;" that counts the groups of that replication's strict
// consensus, and a final "qnelsen @!;" that builds and keeps the estimate (not "@@", which
// the macro reader takes for an in-line jump).
#include <chrono>
#include <cctype>
#include <cstring>
#include <string>

#include "dataset/dataset.h"
#include "optim/collapse.h"
#include "search/constraints.h"
#include "search/settings.h"
#include "shell/failure.h"
#include "shell/input.h"
#include "shell/output.h"
#include "support/command_helpers.h"
#include "support/consensus.h"
#include "support/consensus_commands.h"
#include "support/group_set.h"
#include "support/temp_collapse.h"
#include "trees/store.h"

namespace qax::support {

using namespace qax::shell;
using qax::trees::tree_store;

namespace {

constexpr const char* default_estimate_search = "mult1=ho1 tb norat;";

// Settings, kept between runs.
struct EstimateSettings {
  int replications = 15;   // replications
  int select = 100;        // select: percentage kept as a setting
  int strictperc = 25;     // strictperc: percentage kept as a setting
  int majorcut = 85;       // majorcut: groups in at least this percent of replications
  int allow = 0;           // allow: accept the run with constraints or auto-collapsing
  std::string search = default_estimate_search;  // commands of one replication
};
EstimateSettings estimate_settings;

// The estimation in progress.
struct EstimateRun {
  int active = 0;                        // an estimation is running
  int done = 0;                          // replications counted
  int total = 0;                         // replications asked for
  int cut = 85;                          // majorcut of this run
  std::vector<std::uint8_t> user;        // taxa excluded by the user
  std::vector<std::uint8_t> excluded;    // user's and missing taxa of all replications
  std::vector<std::vector<std::int32_t>> consensus;  // strict consensus of each replication
  std::chrono::steady_clock::time_point start;      // for the time report
  int user_seed = 0;                     // the seed and auto-collapsing given back at the end
  int user_auto_collapse = 0;
};
EstimateRun estimate_run;

// Replication k searches from its own seed (the same text would otherwise repeat the
// same search); the user's seed comes back at the end, or after an error.
void seed_replication(int k) {
  auto& r = estimate_run;
  if (r.user_seed != 0) qax::search::search_settings.seed = static_cast<int>((static_cast<unsigned>(r.user_seed) + 7919u * static_cast<unsigned>(k)) & 0x7fffffffu);
}

void give_back_settings() {
  auto& r = estimate_run;
  if (!r.active) return;
  r.active = 0;
  qax::search::search_settings.seed = r.user_seed;
  qax::optim::collapse_settings.auto_collapse = r.user_auto_collapse;
}

// Counts one replication: the strict consensus of the trees now in memory.
void estimate_step() {
  auto& r = estimate_run;
  if (!r.active) error_exit("No consensus estimation in progress");
  if (tree_store.ntrees == 0) error_exit("No trees specified");
  std::vector<int> trees;
  for (int k = 0; k < tree_store.ntrees; ++k) trees.push_back(k);
  TempCollapse collapse("qnelsen");
  std::vector<std::uint8_t> excluded;
  prepare_exclusions(trees, r.user, consensus_settings.unshared, excluded);
  for (std::size_t t = 0; t < excluded.size(); ++t) r.excluded[t] |= excluded[t];
  std::vector<std::int32_t> result(2 * tree_store.ntax - 1);
  strict_consensus(trees, excluded, result.data(), false);
  r.consensus.push_back(std::move(result));
  ++r.done;
  seed_replication(r.done);
  show_progress(r.done, r.total, "Estimating consensus");
}

// Counts the groups of the replications' consensus trees and keeps the estimate.
void estimate_finish() {
  auto& r = estimate_run;
  if (!r.active) error_exit("No consensus estimation in progress");
  give_back_settings();
  const int ntax = tree_store.ntax;
  int included = 0;
  for (auto e : r.excluded) included += e == 0;
  if (included < 2) error_exitf("Cannot exclude so many taxa from consensus calculation (only %i remain)", included);
  GroupTable table;
  group_table_init(table, ntax);
  NodeSets ns;
  node_sets_init(ns, ntax);
  for (int k = 0; k < static_cast<int>(r.consensus.size()); ++k)
    count_tree_groups(table, ns, r.consensus[k].data(), r.excluded.data(), included, k, true, 1, 0);
  // At least cut percent of the replications: count * 100 >= cut * done.
  const int n = r.done;
  int required = static_cast<int>((static_cast<long long>(r.cut) * n + 99) / 100);
  if (required < 1) required = 1;
  std::vector<std::int32_t> result(2 * ntax - 1);
  const int nodes = build_tree_from_groups(table, r.excluded.data(), required, true, result.data(), nullptr);
  clear_progress();
  const int k = keep_tree(result, "Estimated_consensus");
  int nexcl = 0;
  for (auto e : r.excluded) nexcl += e != 0;
  out_printf("Estimated consensus, %i nodes", nodes);
  if (nexcl) out_printf(" (%i taxa excluded)", nexcl);
  out_printf(", saved as tree %i\n", k);
  const double secs = std::chrono::duration<double>(std::chrono::steady_clock::now() - r.start).count();
  out_printf("%.2f secs. to complete estimation\n", secs);
  r.consensus.clear();
}

int read_setting_value(const char* word) {
  if (!std::isdigit(peek_char())) error_exitf("Unexpected symbol found on resampling options: %c", peek_char());
  (void)word;
  return read_int();
}

}  // namespace

void cmd_qnelsen() {
  if (accept_char('@')) {
    if (accept_char('!')) estimate_finish();
    else estimate_step();
    return;
  }
  qax::trees::require_data();
  auto& s = estimate_settings;
  EstimateSettings trial = s;
  std::vector<std::uint8_t> user(tree_store.ntax, 0);
  for (;;) {
    const int c = peek_char();
    if (c == ';') break;
    if (c == '/') {
      user = read_excluded_taxa();
      continue;
    }
    if (c == '[') {
      next_char();
      std::string text;
      int depth = 1;
      for (int ch = next_char(); ; ch = next_char()) {
        if (ch == 0 || ch == EOF) error_exit("Unexpected end of search commands for qnelsen");
        if (ch == '[') ++depth;
        if (ch == ']' && --depth == 0) break;
        text += static_cast<char>(ch);
      }
      trial.search = text;
      continue;
    }
    if (!std::isalpha(c)) {
      next_char();
      error_exitf("Unexpected symbol found on resampling options: %c", c);
    }
    read_token();
    const std::string w = token_buffer;
    auto is = [&](const char* full) { return !w.empty() && std::strncmp(full, w.c_str(), w.size()) == 0; };
    if (is("replications")) {
      trial.replications = read_setting_value("replications");
      if (trial.replications <= 0) error_exit("Must specify a number of repls. greater than zero");
    } else if (is("select")) {
      trial.select = read_setting_value("select");
      if (trial.select > 100) error_exit("Must specify a cutoff percentage 0-100");
    } else if (is("strictperc")) {
      trial.strictperc = read_setting_value("strictperc");
      if (trial.strictperc > 100) error_exit("Must specify a cutoff percentage 0-100");
    } else if (is("majorcut")) {
      trial.majorcut = read_setting_value("majorcut");
      if (trial.majorcut > 100) error_exit("Must specify a cutoff percentage 0-100");
    } else if (is("allow")) {
      trial.allow = 1;
    } else {
      error_exitf("Unexpected symbol found on resampling options: %c", w[0]);
    }
  }
  s = trial;
  int left = 0;
  for (auto u : user) left += u == 0;
  if (left < 2) error_exitf("Cannot exclude so many taxa from consensus calculation (only %i remain)", left);
  if (qax::search::constraint_defs.active) out_text({"Note: consensus estimated with currently defined constraints.\n"});
  auto& r = estimate_run;
  r = EstimateRun();
  r.active = 1;
  r.total = s.replications;
  r.cut = s.majorcut;
  r.user = user;
  r.excluded.assign(tree_store.ntax, 0);
  for (int t = 0; t < tree_store.ntax; ++t) r.excluded[t] = user[t] ? excluded_by_user : 0;
  r.start = std::chrono::steady_clock::now();
  r.user_seed = qax::search::search_settings.seed;
  r.user_auto_collapse = qax::optim::collapse_settings.auto_collapse;
  static bool step_added = false;
  if (!step_added) {
    add_recover_step(give_back_settings);
    step_added = true;
  }
  if (r.user_auto_collapse) {
    out_text({"Auto-collapse searches will be turned off to estimate consensus\n"});
    qax::optim::collapse_settings.auto_collapse = 0;
  }
  seed_replication(0);
  std::string search = s.search;
  while (!search.empty() && std::isspace(static_cast<unsigned char>(search.back()))) search.pop_back();
  if (search.empty() || search.back() != ';') search += ';';
  std::string text;
  for (int k = 0; k < s.replications; ++k) text += search + "\nqnelsen @;\n";
  text += "qnelsen @!;\n";
  push_text_level(text, "qnelsen");
}

}  // namespace qax::support
