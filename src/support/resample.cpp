// resample: the command, its options, the loop of replicates and the summaries. Each
// replicate perturbs the weights, empties the tree store, and runs the search text as
// ordinary commands on a level of the input stack, read by a nested command loop that
// ends at the internal step "resample @;" placed after the text. The strict consensus of
// the trees found is the only thing kept of a replicate.
#include "support/resample.h"

#include <algorithm>
#include <chrono>
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
#include "support/supports.h"
#include "support/temp_collapse.h"
#include "trees/notation.h"
#include "trees/store.h"

namespace qax::support {

using namespace qax::shell;
using qax::trees::tree_row;
using qax::trees::tree_store;

ResampleSettings resample_settings;

void reset_resample_settings() { resample_settings = ResampleSettings(); }

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
  if (!run.active) return;
  run.active = 0;
  auto& chars = dataset::dataset.chars;
  for (std::size_t c = 0; c < chars.size() && c < run.weights.size(); ++c) chars[c].weight = run.weights[c];
  qax::search::search_settings.seed = run.user_seed;
  output_state.silent_flags = run.silent;
  output_state.inner_silent_search = 0;
  qax::optim::invalidate_pack();
}

// True when some active character is a landmark configuration.
bool landmarks_active() {
  for (const auto& c : dataset::dataset.chars)
    if (c.active && c.format == dataset::format_landmark) return true;
  return false;
}

bool word_is(const std::string& w, const char* full) { return !w.empty() && is_prefix(w, full) == 0; }

int read_option_number(const char* message) {
  const int c = peek_char();
  if (!std::isdigit(c) && c != '-') error_exit(message);
  return read_int();
}

// Options of one run, parsed into a copy of the settings.
struct RunOptions {
  ResampleSettings s;
  int probability = -1;   // given with "probability"
  int reference = -1;     // from N
  std::vector<std::uint8_t> user;  // taxa excluded
  bool sibyl = false;     // the backward form: its options follow
  bool nozerowt_given = false;
};

RunOptions parse_options() {
  RunOptions o;
  o.s = resample_settings;
  o.user.assign(tree_store.ntax, 0);
  bool first = true;
  for (;; first = false) {
    const int c = peek_char();
    if (c == ';') break;
    if (c == '/') {
      o.user = read_excluded_taxa();
      continue;
    }
    if (c == '[') {
      next_char();
      std::string text;
      int depth = 1;
      for (int ch = next_char();; ch = next_char()) {
        if (ch == 0 || ch == EOF) error_exit("Unexpected end of search commands for resample");
        if (ch == '[') ++depth;
        if (ch == ']' && --depth == 0) break;
        text += static_cast<char>(ch);
      }
      o.s.search = text;
      continue;
    }
    if (!std::isalpha(c)) {
      next_char();
      error_exitf("Unexpected symbol found on resampling options: %c", c);
    }
    read_token();
    std::string w = token_buffer;
    for (char& ch : w) ch = static_cast<char>(std::tolower(static_cast<unsigned char>(ch)));
    if (word_is(w, "sibyl")) {
      if (!first) error_exit("\"Sibyl\" option must be the first option to \"resample\"");
      if (tree_store.ntrees == 0) error_exit("\"Sibyl\" option requires pre-existing trees");
      if (landmarks_active()) error_exit("Sorry, cannot run \"sibyl\" option with landmark characters");
      o.sibyl = true;
      return o;
    } else if (word_is(w, "allow")) {
      o.s.allow = 1;
    } else if (word_is(w, "boot")) {
      o.s.method = resample_boot;
    } else if (word_is(w, "cut")) {
      const int v = read_option_number("Must specify a cutoff percentage 0-100");
      if (v < 0 || v > 100) error_exit("Must specify a cutoff percentage 0-100");
      o.s.cut = v;
    } else if (word_is(w, "errcount")) {
      error_exit("Option \"errcount\" is valid only under \"sibyl\"");
    } else if (word_is(w, "frequency")) {
      o.s.summary |= summary_frequency;
    } else if (word_is(w, "fromtree") || word_is(w, "from")) {
      const int v = read_option_number("Must specify a reference tree");
      if (v < 0 || v >= tree_store.ntrees) error_exit({"No tree", number_text(v)});
      o.reference = v;
    } else if (word_is(w, "gc")) {
      o.s.summary |= summary_gc;
    } else if (word_is(w, "jak")) {
      o.s.method = resample_jak;
    } else if (word_is(w, "nofrequency")) {
      o.s.summary &= ~summary_frequency;
    } else if (word_is(w, "nogc")) {
      o.s.summary &= ~summary_gc;
    } else if (word_is(w, "nosavetrees")) {
      o.s.savetrees = 0;
    } else if (word_is(w, "noslope")) {
      o.s.summary &= ~summary_slope;
    } else if (word_is(w, "nosoftboot")) {
      o.s.softboot = 0;
    } else if (word_is(w, "nozerowt")) {
      o.s.zerowt = 0;
      o.nozerowt_given = true;
    } else if (word_is(w, "poisson")) {
      o.s.method = resample_poisson;
    } else if (word_is(w, "probability")) {
      const int v = read_option_number("Must specify probability, 1-99");
      if (v < 1) error_exit("Must specify probability, 1-99");
      o.probability = v;
    } else if (word_is(w, "replications")) {
      const int v = read_option_number("Must specify a number of repls. greater than zero");
      if (v <= 0) error_exit("Must specify a number of repls. greater than zero");
      o.s.replications = v;
    } else if (word_is(w, "savetrees")) {
      o.s.savetrees = 1;
    } else if (word_is(w, "slope")) {
      o.s.summary |= summary_slope;
    } else if (word_is(w, "softboot")) {
      const int v = read_option_number("Bootstrap softening must be 0-100");
      if (v < 0 || v > 100) error_exit("Bootstrap softening must be 0-100");
      o.s.softboot = v;
    } else if (word_is(w, "sym")) {
      o.s.method = resample_sym;
    } else if (word_is(w, "zerowt")) {
      o.s.zerowt = 1;
    } else {
      error_exitf("Unexpected symbol found on resampling options: %c", w[0]);
    }
  }
  auto& s = o.s;
  if (o.probability >= 0) {
    if (s.method == resample_jak) {
      if (o.probability > 99) error_exit("Deletion probability must be 0-99");
      s.jak_probability = o.probability;
    } else if (s.method == resample_sym) {
      if (o.probability > 50) error_exit("Probability of change for symmetric resampling can't be more than 50");
      s.sym_probability = o.probability;
    } else {
      out_text({"Note: probability specified for \"boot\" or \"poisson\" options will be ignored\n"});
    }
  }
  if (o.nozerowt_given && s.method != resample_sym) error_exit("\"Nozerowt\" option can be used with \"sym\" only");
  if (!(s.summary & (summary_frequency | summary_gc | summary_slope)) && !s.savetrees)
    error_exit("Must specify either a summary type (freq, slope, gc) or \"savetrees\"");
  if (s.summary & summary_slope) {
    if (landmarks_active()) error_exit("Cannot do frequency slopes for landmark data");
    if (s.method == resample_boot || s.method == resample_poisson)
      error_exit("Slope summary cannot be used with boostrapping (either Poisson or standard)");
    if (o.reference < 0) error_exit("To calculate frequency slopes, must define a reference tree");
  }
  return o;
}

std::string progress_label(int method) {
  if (method == resample_boot || method == resample_poisson) return "Bootstrapping";
  if (method == resample_jak) return "Jacknifing";
  return "Resampling";
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
bool run_replicates(const ResampleSettings& s, int probability, const std::vector<std::uint8_t>& user,
                    const std::string& label, std::vector<std::vector<std::int32_t>>& replicates,
                    std::vector<int>* changed = nullptr, std::vector<int>* unchanged = nullptr) {
  auto& d = dataset::dataset;
  static bool recover_added = false;
  if (!recover_added) {
    add_recover_step(give_back);
    recover_added = true;
  }
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

// resample sibyl: the stability of the trees in memory under deletion of characters.
// Each replicate's strict consensus is compared with the trees present before the run.
void run_sibyl() {
  ResampleSettings s = resample_settings;
  s.method = resample_jak;
  s.summary = 0;
  int probability = 33, errcount = -1;
  for (;;) {
    const int c = peek_char();
    if (c == ';') break;
    if (c == '[') {
      next_char();
      std::string text;
      int depth = 1;
      for (int ch = next_char();; ch = next_char()) {
        if (ch == 0 || ch == EOF) error_exit("Unexpected end of search commands for resample");
        if (ch == '[') ++depth;
        if (ch == ']' && --depth == 0) break;
        text += static_cast<char>(ch);
      }
      s.search = text;
      continue;
    }
    read_token();
    std::string w = token_buffer;
    for (char& ch : w) ch = static_cast<char>(std::tolower(static_cast<unsigned char>(ch)));
    if (word_is(w, "replications")) {
      s.replications = read_option_number("Must specify a number of repls. greater than zero");
      if (s.replications <= 0) error_exit("Must specify a number of repls. greater than zero");
    } else if (word_is(w, "probability")) {
      probability = read_option_number("Must specify probability, 1-99");
      if (probability < 1 || probability > 99) error_exit("Deletion probability must be 0-99");
    } else if (word_is(w, "errcount")) {
      errcount = read_option_number("Must specify a reference tree");
      if (errcount < 0 || errcount >= tree_store.ntrees) error_exit({"No tree", number_text(errcount)});
    } else if (word_is(w, "allow")) {
      s.allow = 1;
    } else if (w == "command_name") {
      s.search = read_rest_of_command();
      break;
    } else {
      error_exitf("Unidentified string in sibyl options: %s", w.c_str());
    }
  }
  const int ntax = tree_store.ntax;
  auto& d = dataset::dataset;
  std::vector<std::uint8_t> user(ntax, 0), excluded(ntax, 0);
  int included = 0;
  for (int t = 0; t < ntax; ++t) {
    excluded[t] = d.taxon_active[t] ? 0 : excluded_as_missing;
    included += excluded[t] == 0;
  }
  // The trees in memory are kept aside and come back at the end.
  const int kept = tree_store.ntrees;
  std::vector<std::int32_t> saved(tree_store.rows.begin(), tree_store.rows.begin() + static_cast<std::size_t>(kept) * tree_store.row_size);
  std::vector<double> saved_scores(tree_store.scores.begin(), tree_store.scores.begin() + kept);
  NodeSets ns;
  node_sets_init(ns, ntax);
  std::vector<std::vector<std::vector<std::uint64_t>>> before(kept);
  for (int k = 0; k < kept; ++k) before[k] = tree_groups(saved.data() + static_cast<std::size_t>(k) * tree_store.row_size, excluded, included, ns);
  std::vector<std::vector<std::int32_t>> replicates;
  struct PutBack {
    std::vector<std::int32_t>& rows;
    std::vector<double>& scores;
    int count;
    ~PutBack() {
      tree_store.ntrees = 0;
      for (int k = 0; k < count && k < tree_store.maxtrees; ++k) {
        std::copy(rows.begin() + static_cast<std::size_t>(k) * tree_store.row_size,
                  rows.begin() + static_cast<std::size_t>(k + 1) * tree_store.row_size, tree_row(k));
        tree_store.scores[k] = scores[k];
        tree_store.ntrees = k + 1;
      }
      tree_store.trees_changed = 1;
    }
  } put_back{saved, saved_scores, kept};
  const bool interrupted = run_replicates(s, probability, user, "Running", replicates);
  clear_progress();
  const int done = static_cast<int>(replicates.size());
  if (interrupted) out_printf("Resampling interrupted: summarising %i replicates\n", done);
  if (done == 0) error_exit("No replicates completed");
  double supported = 0, compatible = 0, nsupported = 0, ncompatible = 0, distortion = 0, worst = 0;
  double wrong = 0, wrong_inc = 0, missed = 0, missed_inc = 0;
  std::vector<std::vector<std::uint64_t>> reference;
  if (errcount >= 0) reference = before[errcount];
  for (const auto& rep : replicates) {
    const auto groups = tree_groups(rep.data(), excluded, included, ns);
    int sup = 0, comp = 0;
    for (const auto& g : groups) {
      int in = 0;
      for (const auto& b : before) in += contains(b, g);
      if (in == kept) ++sup;
      else if (in > 0) ++comp;
    }
    const double n = static_cast<double>(groups.size());
    const double possible = included > 2 ? included - 2 : 1;
    supported += n > 0 ? sup / n : 0;
    compatible += n > 0 ? comp / n : 0;
    nsupported += sup / possible;
    ncompatible += comp / possible;
    // Distortion: the share of the groups found that no tree in memory has.
    const double dist = n > 0 ? (n - sup - comp) / n : 0;
    distortion += dist;
    worst = std::max(worst, dist);
    if (errcount >= 0) {
      int w = 0, wi = 0, m = 0, mi = 0;
      for (const auto& g : groups) {
        if (!contains(reference, g)) {
          ++w;
          if (conflicts_any(reference, g)) ++wi;
        }
      }
      for (const auto& g : reference) {
        if (!contains(groups, g)) {
          ++m;
          if (conflicts_any(groups, g)) ++mi;
        }
      }
      wrong += n > 0 ? w / n : 0;
      wrong_inc += n > 0 ? wi / n : 0;
      const double r = reference.empty() ? 1 : static_cast<double>(reference.size());
      missed += m / r;
      missed_inc += mi / r;
    }
  }
  out_printf("Stability indices, for p(del)=%i%%\n    Supported %.3f, compatible %.3f\n", probability, supported / done,
             compatible / done);
  out_printf("    Normalized: supported %.3f, compatible %.3f\n", nsupported / done, ncompatible / done);
  out_printf("    Average distortion coeff.: %.3f", distortion / done);
  out_printf("-%.3f\n", worst);
  if (errcount >= 0) {
    out_printf("    Wrong groups %.3f, wrong and incompatible %.3f\n", wrong / done, wrong_inc / done);
    out_printf("    Missed groups %.3f, missed and incompatible %.3f\n", missed / done, missed_inc / done);
  }
}

}  // namespace

void cmd_resample() {
  if (accept_char('@')) {
    if (!run.active) error_exit("No resampling in progress");
    run.replicate_done = 1;
    return;
  }
  if (run.active) error_exit("Cannot run resample within a resampling replicate");
  qax::trees::require_data();
  auto& d = dataset::dataset;
  const int ntax = tree_store.ntax;
  RunOptions o = parse_options();
  if (o.sibyl) {
    run_sibyl();
    return;
  }
  ResampleSettings& s = o.s;
  const int probability = s.method == resample_jak ? s.jak_probability : s.sym_probability;
  // Cut below 50 is for frequency differences only.
  int cut = s.cut;
  if ((s.summary & summary_frequency) && cut < 50) {
    out_text({"Note: cutoff for frequency calculations will be re-set to 50\n"});
    cut = 50;
  }
  std::vector<std::uint8_t> excluded(ntax, 0);
  int left = 0;
  for (int t = 0; t < ntax; ++t) {
    excluded[t] = o.user[t] ? excluded_by_user : (d.taxon_active[t] ? 0 : excluded_as_missing);
    left += excluded[t] == 0;
  }
  if (left < 3) error_exitf("Cannot exclude so many taxa from consensus calculation (only %i remain)", left);
  std::vector<std::int32_t> reference;
  if (o.reference >= 0) {
    const std::int32_t* r = tree_row(o.reference);
    for (int t = 0; t < ntax; ++t)
      if (!d.taxon_active[t] && r[t] >= ntax) error_exit("Cannot use as reference a tree that includes some inactive taxa!");
    reference.assign(r, r + tree_store.row_size);
    for (int t = 0; t < ntax; ++t)
      if (r[t] < ntax) excluded[t] |= excluded_as_missing;
  }
  const int nsummaries = ((s.summary & summary_frequency) ? 1 : 0) + ((s.summary & summary_gc) ? 1 : 0);
  if (s.savetrees) {
    const int need = s.replications + nsummaries + (o.reference >= 0 ? 1 : 0);
    if (tree_store.maxtrees < need)
      error_exitf("To save %i trees (and summaries), set maxtrees to %i or more", s.replications, need);
  }
  resample_settings = s;
  // A monophyly constraint holding the outgroup makes each replicate's rooting depend on it.
  {
    const auto& cd = qax::search::constraint_defs;
    const int og = d.outgroup;
    if (cd.active && og >= 0 && og < ntax)
      for (const auto& g : cd.positive)
        if (og < static_cast<int>(g.field.size()) && g.field[og] == qax::search::field_inside) {
          char text[300];
          std::snprintf(text, sizeof text, "Some constraints for monophyly include current outgroup (%s)",
                        d.taxon_names[og].c_str());
          warning({text});
          break;
        }
  }
  const double start = now_seconds();
  std::vector<std::vector<std::int32_t>> replicates;
  std::vector<int> changed, unchanged;
  const bool interrupted = run_replicates(s, probability, o.user, progress_label(s.method), replicates, &changed, &unchanged);
  const int done = static_cast<int>(replicates.size());
  if (interrupted) out_printf("Resampling interrupted: summarising %i replicates\n", done);
  // The notes on the method.
  if (s.method == resample_poisson) out_printf("Note: Poisson bootstrapping uses a mean = %i\n", poisson_row(s.softboot) + 1);
  if (s.method == resample_boot && s.softboot > 0)
    out_printf("Note: bootstrapping samples an extra %.1f characters per active character\n", s.softboot * 10.0 / 100.0);
  if (s.method == resample_sym && !s.zerowt) out_text({"Note: symmetric resampling lowers weights, instead of deleting\n"});
  if (o.reference >= 0) {
    const int k = qax::trees::tree_store_add(-1, true);
    std::copy(reference.begin(), reference.end(), tree_row(k));
    tree_store.scores[k] = 0;
  }
  std::vector<const std::int32_t*> rows;
  for (const auto& t : replicates) rows.push_back(t.data());
  const std::string method = resample_method_text(s.method, probability);
  for (int which : {summary_frequency, summary_gc}) {
    if (!(s.summary & which) || done == 0) continue;
    std::vector<std::int32_t> tree(2 * ntax - 1, 0);
    CountResult cr;
    if (which == summary_frequency) {
      if (o.reference >= 0) {
        tree = reference;
        cr = reference_frequencies_rows(reference.data(), rows, excluded);
      } else if (cut > 99) {
        strict_of_rows(rows, excluded, tree.data());
        cr.counted = done;
        cr.node_value.assign(2 * ntax - 1, -1);
        for (int v = ntax + 1; v < tree[ntax]; ++v) cr.node_value[v] = done;
      } else {
        cr = majority_of_rows(rows, excluded, cut, tree.data());
      }
    } else {
      if (o.reference >= 0) {
        tree = reference;
        cr = frequency_differences_rows(reference.data(), rows, excluded, s.cut, nullptr);
      } else {
        cr = frequency_differences_rows(nullptr, rows, excluded, s.cut, tree.data());
      }
    }
    clear_progress();
    const int missing = which == summary_frequency ? -1 : INT_MIN;
    std::vector<std::string> labels(2 * ntax - 1);
    double sum = 0;
    for (int v = ntax + 1; v < 2 * ntax - 1; ++v) {
      const int value = cr.node_value[v];
      if (value == missing) continue;
      const long long pct = static_cast<long long>(value) * 100 / done;
      labels[v] = value < 0 ? "[" + std::to_string(-pct) + "]" : std::to_string(pct);
      sum += 100.0 * value / done;
    }
    const int group = qax::trees::take_auto_group(which == summary_frequency ? "resample_frequencies" : "resample_gc");
    const int k = qax::trees::tree_store_add(group, true);
    std::copy(tree.begin(), tree.end(), tree_row(k));
    tree_store.scores[k] = 0;
    char title[200];
    std::snprintf(title, sizeof title,
                  which == summary_frequency ? "Group freqs., %i replicates, cut=%i (tree %i) - "
                                             : "GC values, %i replicates, cut=%i (tree %i) - ",
                  done, which == summary_frequency ? cut : s.cut, k);
    show_support_tree(tree.data(), labels, std::string(title) + method);
    int intree = 0;
    for (int t = 0; t < ntax; ++t) intree += tree[t] >= ntax && !excluded[t];
    const double average = intree > 2 ? sum / (intree - 2) : 0;
    set_last_support(average);
    if (o.reference < 0) out_printf("Average group support: %.1f\n", average);
  }
  if ((s.summary & summary_slope) && done > 0) {
    // Slope of each group's support against the proportion of characters changed: the
    // least-squares line of the group's presence in each replicate (0 or 1) on that
    // replicate's proportion of changed characters, in support per unit of change.
    for (int i = 1; i < done; ++i)
      if (changed[i] + unchanged[i] != changed[0] + unchanged[0])
        error_exit("All trees must have the same partitions changed/unchanged chars.");
    show_progress(0, 0, "Calculating slopes");
    std::vector<double> p(done);
    double pm = 0;
    for (int i = 0; i < done; ++i) {
      const int total = changed[i] + unchanged[i];
      p[i] = total > 0 ? static_cast<double>(changed[i]) / total : 0;
      pm += p[i];
    }
    pm /= done;
    double sxx = 0;
    for (int i = 0; i < done; ++i) sxx += (p[i] - pm) * (p[i] - pm);
    NodeSets ns;
    node_sets_init(ns, ntax);
    int included = 0;
    for (auto e : excluded) included += e == 0;
    std::vector<std::vector<std::uint64_t>> ref_groups(2 * ntax - 1);
    compute_node_sets(reference.data(), excluded.data(), ns);
    for (int v = ntax + 1; v < reference[ntax]; ++v)
      if (ns.sizes[v] >= 2 && ns.sizes[v] < included) ref_groups[v].assign(ns.row(v), ns.row(v) + ns.words);
    std::vector<std::vector<std::vector<std::uint64_t>>> rep_groups(done);
    for (int i = 0; i < done; ++i) rep_groups[i] = tree_groups(replicates[i].data(), excluded, included, ns);
    std::vector<std::string> labels(2 * ntax - 1);
    for (int v = ntax + 1; v < reference[ntax]; ++v) {
      if (ref_groups[v].empty()) continue;
      double sxy = 0;
      for (int i = 0; i < done; ++i) sxy += (p[i] - pm) * (contains(rep_groups[i], ref_groups[v]) ? 1.0 : 0.0);
      const double slope = sxx > 0 ? sxy / sxx : 0;
      char text[32];
      std::snprintf(text, sizeof text, " %+.2f", slope);
      labels[v] = text;
    }
    clear_progress();
    char title[200];
    std::snprintf(title, sizeof title, "Frequency slopes, %i replicates (tree 0) - ", done);
    show_support_tree(reference.data(), labels, std::string(title) + method);
  }
  if (s.savetrees && done > 0) {
    const int group = qax::trees::take_auto_group("resampled_trees");
    const int first = tree_store.ntrees;
    for (const auto& t : replicates) {
      const int k = qax::trees::tree_store_add(group, true);
      std::copy(t.begin(), t.end(), tree_row(k));
      tree_store.scores[k] = 0;
    }
    out_printf("Note: saved resampled trees as trees %i-%i", first, tree_store.ntrees - 1);
    if (o.reference >= 0) out_printf(" (tree 0 is reference tree)");
    out_printf("\n");
  }
  tree_store.trees_changed = 1;
  if (switches_timing()) out_printf("%.2f secs. to complete resampling\n", now_seconds() - start);
  if (qax::search::constraint_defs.active) out_text({"Note: resampling was done under currently defined constraints.\n"});
}

}  // namespace qax::support
