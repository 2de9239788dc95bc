// resample: the command, its options and the summaries of the replicates (frequencies,
// GC values, slopes, the saved replicate trees).
#include "support/resample.h"

#include <algorithm>
#include <cctype>
#include <climits>
#include <cstring>

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

ResampleSettings resample_settings;

void reset_resample_settings() { resample_settings = ResampleSettings(); }

bool word_is(const std::string& w, const char* full) { return !w.empty() && is_prefix(w, full) == 0; }

int read_option_number(const char* message) {
  const int c = peek_char();
  if (!std::isdigit(c) && c != '-') error_exit(message);
  return read_int();
}

std::string read_search_text() {
  std::string text;
  int depth = 1;
  for (int ch = next_char();; ch = next_char()) {
    if (ch == 0 || ch == EOF) error_exit("Unexpected end of search commands for resample");
    if (ch == '[') ++depth;
    if (ch == ']' && --depth == 0) break;
    text += static_cast<char>(ch);
  }
  return text;
}

namespace {

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
      o.s.search = read_search_text();
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

}  // namespace

void cmd_resample() {
  if (accept_char('@')) {
    if (!finish_replicate_step()) error_exit("No resampling in progress");
    return;
  }
  if (resampling_running()) error_exit("Cannot run resample within a resampling replicate");
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
  // Landmark configurations are resampled whole, like single characters.
  {
    int landmark = 0, other = 0;
    for (const auto& c : d.chars)
      if (c.active) (c.format == dataset::format_landmark ? landmark : other)++;
    if (landmark == 1 && other == 0) out_text({"You will be resampling whole configurations --but you have just one\n"});
    else if (landmark > 0 && other > 0)
      out_text({"Sampling will be changed to entire configurations\n(with landmark and traditional characters,\ncan't sample individual landmarks)\n"});
  }
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
