// The loop of replicates of resample. Each replicate perturbs the weights, empties the
// tree store, and runs the search text as ordinary commands on a level of the input
// stack, read by a nested command loop that ends at the internal step "resample @;"
// placed after the text. The strict consensus of the trees found is the only thing kept
// of a replicate.
#include <algorithm>
#include <cctype>
#include <climits>
#include <cstring>
#include <ctime>
#include <unordered_set>

#include "dataset/dataset.h"
#include "optim/packed.h"
#include "search/constraints.h"
#include "search/settings.h"
#include "shell/commands.h"
#include "shell/failure.h"
#include "shell/input.h"
#include "shell/output.h"
#include "shell/state.h"
#include "support/command_helpers.h"
#include "support/consensus.h"
#include "support/group_set.h"
#include "support/resample_internal.h"
#include "support/supports.h"
#include "support/temp_collapse.h"
#include "trees/notation.h"
#include "trees/store.h"

namespace qax::support {

using namespace qax::shell;
using qax::trees::tree_row;
using qax::trees::tree_store;

namespace {

// The run in progress: what must be given back on every way out.
struct ResampleRun {
  int active = 0;                     // a run is going on
  int replicate_done = 0;             // the step after the search text was reached
  std::vector<std::int32_t> weights;  // the user's weights
  int user_seed = 1;                  // search seed before the run
  int silent = 0;                     // output flags before the run
};
ResampleRun run;

void give_back() {
  // The auto-save must not read the replicates of a run that has ended.
  qax::trees::autosave_rows = nullptr;
  if (!run.active) return;
  run.active = 0;
  auto& chars = dataset::dataset.chars;
  for (std::size_t c = 0; c < chars.size() && c < run.weights.size(); ++c) chars[c].weight = run.weights[c];
  qax::search::search_settings.seed = run.user_seed;
  output_state.silent_flags = run.silent;
  output_state.inner_silent_search = 0;
  qax::optim::invalidate_pack();
}

// Commands that would spoil a run if a replicate's text used them (a new data set,
// changed characters or taxa, files opened or closed, nested supports); refused unless
// the run was given "allow".
const char* const refused_in_replicates[] = {"xread", "procedure", "resample", "bsupport", "quit", "exit",
                                             "ccode", "taxcode", "nstates", "outgroup", "log", "tsave",
                                             "ttags", "run"};

// The command about to run on the current level, read without consuming it (null when
// the text does not show it, and for the internal step "resample @").
const CommandRecord* next_command() {
  peek_char();
  const InputFrame& f = current_frame();
  int i = f.pos;
  while (f.text[i] && (std::isspace(static_cast<unsigned char>(f.text[i])) || f.text[i] == ';')) ++i;
  std::string w;
  while (f.text[i] && std::isalpha(static_cast<unsigned char>(f.text[i])))
    w.push_back(static_cast<char>(std::tolower(static_cast<unsigned char>(f.text[i++]))));
  while (f.text[i] == ' ') ++i;
  if (w.empty() || f.text[i] == '@') return nullptr;
  for (const CommandRecord* r = command_table(); r && r->name; ++r)
    if (is_prefix(w, r->name) == 0) return r;
  return nullptr;
}

// Runs the text as commands until the internal step after it; false when a command of
// the text failed (the input is then unwound and the failure already reported).
bool run_search_text(const std::string& text, bool allow) {
  push_text_level(text, "resample");
  const int level = input_level();
  const auto& d = dataset::dataset;
  const int ntax = d.ntax, nchar = d.nchar;
  run.replicate_done = 0;
  while (!run.replicate_done) {
    if (input_level() < level || !run.active) return false;
    if (!allow && input_level() == level) {
      if (const CommandRecord* r = next_command())
        for (const char* name : refused_in_replicates)
          if (std::strcmp(r->name, name) == 0) {
            output_state.silent_flags = run.silent;
            give_back();
            error_exitf("Command \"%s\" is not allowed during resampling (use \"allow\" to permit it)", r->name);
          }
    }
    read_and_dispatch();
    // A new data set inside a replicate would leave nothing to compare.
    if (d.ntax != ntax || d.nchar != nchar || tree_store.ntax != ntax) {
      output_state.silent_flags = run.silent;
      give_back();
      error_exit("The data set was changed during a resampling replicate: resampling ended");
    }
  }
  if (input_level() == level) close_input();
  return true;
}

// Seeds of replicates: drawn in sequence, never repeated within the run.
struct ReplicateSeeds {
  std::unordered_set<std::uint32_t> used;
  std::uint32_t next = 0;
  std::uint32_t take() {
    const std::uint32_t seed = next;
    qax::search::set_random_seed(seed);
    const int step = qax::search::search_settings.seed_step;
    if (step > 0) {
      next = seed + static_cast<std::uint32_t>(step);
    } else {
      std::uint32_t v = static_cast<std::uint32_t>(qax::search::random_next());
      while (v == 0 || used.count(v) || v == seed) {
        const std::uint64_t r2 = std::max<std::uint32_t>(1u, static_cast<std::uint32_t>(qax::search::random_next()));
        v = static_cast<std::uint32_t>((static_cast<std::uint64_t>(qax::search::random_next()) * seed) / r2);
        v &= 0x7fffffffu;
      }
      next = v;
    }
    used.insert(seed);
    return seed;
  }
};

// The strict consensus of the trees in memory, with the collapsing in force.
std::vector<std::int32_t> replicate_consensus(const std::vector<std::uint8_t>& user) {
  const int ntax = tree_store.ntax;
  std::vector<std::int32_t> result(2 * ntax - 1, 0);
  if (tree_store.ntrees == 0) {
    for (int t = 0; t < ntax; ++t) result[t] = dataset::dataset.taxon_active[t] && !user[t] ? ntax : 0;
    result[ntax] = ntax + 1;
    return result;
  }
  std::vector<int> trees;
  for (int k = 0; k < tree_store.ntrees; ++k) trees.push_back(k);
  TempCollapse collapse("resample");
  std::vector<std::uint8_t> excluded;
  prepare_exclusions(trees, user, true, excluded);
  strict_consensus(trees, excluded, result.data(), false);
  return result;
}


// Runs the replicates: perturbed weights, the search text, the strict consensus of the
// trees found. Returns true when the run was interrupted (the replicates done are kept).
// The store is left empty; weights, seed and output are given back on every exit.
}  // namespace

bool run_replicates(const ResampleSettings& s, int probability, const std::vector<std::uint8_t>& user,
                    const std::string& label, std::vector<std::vector<std::int32_t>>& replicates,
                    std::vector<int>* changed, std::vector<int>* unchanged) {
  auto& d = dataset::dataset;
  static bool recover_added = false;
  if (!recover_added) {
    add_recover_step(give_back);
    recover_added = true;
  }
  // The collapsing of the replicates' consensus is checked before the first search.
  { TempCollapse probe("resample"); }
  run = ResampleRun();
  run.active = 1;
  for (const auto& c : d.chars) run.weights.push_back(c.weight);
  run.user_seed = qax::search::search_settings.seed;
  run.silent = output_state.silent_flags;
  std::vector<std::uint8_t> active(d.chars.size());
  for (std::size_t c = 0; c < d.chars.size(); ++c) active[c] = d.chars[c].active;
  ReplicateSeeds seeds;
  {
    const int us = qax::search::search_settings.seed;
    qax::search::set_random_seed(us == 0 ? static_cast<std::uint32_t>(std::time(nullptr)) : static_cast<std::uint32_t>(us));
  }
  seeds.next = static_cast<std::uint32_t>(qax::search::random_next()) | 1u;
  std::string search = s.search;
  while (!search.empty() && std::isspace(static_cast<unsigned char>(search.back()))) search.pop_back();
  if (search.empty() || search.back() != ';') search += ';';
  const std::string text = search + "\nresample @;\n";
  qax::trees::autosave_rows = &replicates;
  shell_state.stop_search_flag = 0;
  bool interrupted = false;
  for (int r = 1; r <= s.replications; ++r) {
    char progress[80];
    std::snprintf(progress, sizeof progress, "%s (rep. %i of %i)", label.c_str(), r, s.replications);
    show_progress(r - 1, s.replications, progress);
    const std::uint32_t seed = seeds.take();
    std::vector<std::int32_t> w = run.weights;
    perturb_weights(s.method, probability, s.softboot, s.zerowt != 0, active, w,
                    [] { return qax::search::random_next(); });
    for (std::size_t c = 0; c < d.chars.size(); ++c) d.chars[c].weight = w[c];
    qax::search::search_settings.seed = static_cast<int>(seed & 0x7fffffffu) ? static_cast<int>(seed & 0x7fffffffu) : 1;
    tree_store.ntrees = 0;
    tree_store.trees_changed = 1;
    qax::optim::invalidate_pack();
    output_state.silent_flags = 7;
    output_state.inner_silent_search = 1;
    if (!run_search_text(text, s.allow != 0)) {
      give_back();
      qax::trees::autosave_rows = nullptr;
      tree_store.ntrees = 0;
      recover();
    }
    output_state.silent_flags = run.silent;
    output_state.inner_silent_search = 0;
    if (shell_state.stop_search_flag) {
      interrupted = true;
      break;
    }
    replicates.push_back(replicate_consensus(user));
    if (changed && unchanged) {
      int ch = 0, un = 0;
      for (std::size_t c = 0; c < d.chars.size(); ++c)
        if (active[c]) (w[c] != run.weights[c] * (s.zerowt || s.method != resample_sym ? 1 : 2) ? ch : un)++;
      changed->push_back(ch);
      unchanged->push_back(un);
    }
    for (std::size_t c = 0; c < d.chars.size(); ++c) d.chars[c].weight = run.weights[c];
    qax::trees::tree_autosave_check(false);
    shell_state.search_running = 1;
    const bool stop = check_interrupt(1) != 0;
    shell_state.search_running = 0;
    if (stop) {
      interrupted = true;
      break;
    }
  }
  qax::trees::autosave_rows = nullptr;
  give_back();
  shell_state.stop_search_flag = 0;
  clear_progress();
  tree_store.ntrees = 0;
  tree_store.trees_changed = 1;
  return interrupted;
}

bool finish_replicate_step() {
  if (!run.active) return false;
  run.replicate_done = 1;
  return true;
}

bool resampling_running() { return run.active != 0; }

// True when some active character is a landmark configuration.
bool landmarks_active() {
  for (const auto& c : dataset::dataset.chars)
    if (c.active && c.format == dataset::format_landmark) return true;
  return false;
}

// Groups of a tree as sets of included terminals (trivial ones left out).
std::vector<std::vector<std::uint64_t>> tree_groups(const std::int32_t* tree, const std::vector<std::uint8_t>& excluded,
                                                    int included, NodeSets& ns) {
  const int ntax = static_cast<int>(excluded.size());
  std::vector<std::vector<std::uint64_t>> out;
  compute_node_sets(tree, excluded.data(), ns);
  for (int v = ntax + 1; v < tree[ntax]; ++v) {
    const int size = ns.sizes[v];
    if (size < 2 || size >= included) continue;
    out.emplace_back(ns.row(v), ns.row(v) + ns.words);
  }
  return out;
}

namespace {

bool same_group(const std::vector<std::uint64_t>& a, const std::vector<std::uint64_t>& b) { return a == b; }

bool conflict(const std::vector<std::uint64_t>& a, const std::vector<std::uint64_t>& b) {
  bool both = false, only_a = false, only_b = false;
  for (std::size_t w = 0; w < a.size(); ++w) {
    both |= (a[w] & b[w]) != 0;
    only_a |= (a[w] & ~b[w]) != 0;
    only_b |= (b[w] & ~a[w]) != 0;
  }
  return both && only_a && only_b;
}

}  // namespace

bool contains(const std::vector<std::vector<std::uint64_t>>& set, const std::vector<std::uint64_t>& g) {
  for (const auto& h : set)
    if (same_group(h, g)) return true;
  return false;
}

bool conflicts_any(const std::vector<std::vector<std::uint64_t>>& set, const std::vector<std::uint64_t>& g) {
  for (const auto& h : set)
    if (conflict(h, g)) return true;
  return false;
}

}  // namespace qax::support
