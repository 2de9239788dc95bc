// Handlers of the consensus commands: they read a tree list and "/" an exclusion list,
// run a calculation of consensus.cpp and draw the result through draw_tree.
#include "support/consensus_commands.h"

#include <algorithm>
#include <cctype>
#include <climits>
#include <cstdio>

#include "dataset/dataset.h"
#include "dataset/lists_bridge.h"
#include "optim/reports.h"
#include "shell/arena.h"
#include "shell/failure.h"
#include "shell/input.h"
#include "shell/output.h"
#include "shell/shell_commands.h"
#include "shell/state.h"
#include "support/consensus.h"
#include "support/pruning_commands.h"
#include "support/command_helpers.h"
#include "support/temp_collapse.h"
#include "trees/display.h"
#include "trees/store.h"
#include "trees/tags.h"

namespace qax::support {

using namespace qax::shell;
using qax::trees::tree_row;
using qax::trees::tree_store;

// Trees named before "/" or ";": all trees when the list is empty.
std::vector<int> read_selected_trees() { return qax::optim::read_trees_argument(false); }

// "/" and a taxon list, when present: flags per taxon.
std::vector<std::uint8_t> read_excluded_taxa() {
  std::vector<std::uint8_t> user(tree_store.ntax, 0);
  if (!accept_char('/')) return user;
  if (peek_char() == ';' || peek_char() == '/') return user;
  std::vector<std::int8_t> flags;
  qax::dataset::read_taxon_list(flags);
  for (int i = 0; i < tree_store.ntax && i < static_cast<int>(flags.size()); ++i) user[i] = flags[i] == 1;
  return user;
}

namespace {

int excluded_count(const std::vector<std::uint8_t>& excluded) {
  int n = 0;
  for (auto e : excluded) n += e != 0;
  return n;
}

// Reads "[J]" or "(J)" after the opening character: the reference tree.
int read_reference(char close) {
  const int j = read_int();
  if (j < 0) error_exit("Must specify tree with reference groups");
  if (j >= tree_store.ntrees) error_exit({"No tree", number_text(j)});
  if (!accept_char(close)) error_exitf("Expected \"%c\" after reference tree", close);
  return j;
}

}  // namespace

// Keeps a result as the last tree of the store. Returns its number.
int keep_tree(const std::vector<std::int32_t>& tree, const char* group_name) {
  const int group = qax::trees::take_auto_group(group_name);
  const int k = qax::trees::tree_store_add(group, true);
  std::copy(tree.begin(), tree.end(), tree_row(k));
  tree_store.scores[k] = 0;
  tree_store.trees_changed = 1;
  return k;
}

// Percentage labels: 100 * value / d, truncated towards zero.
std::vector<std::string> percent_labels(const std::vector<int>& values, int d, int missing) {
  std::vector<std::string> labels(values.size());
  for (std::size_t v = 0; v < values.size(); ++v)
    if (values[v] != missing && d > 0) labels[v] = std::to_string(static_cast<long long>(values[v]) * 100 / d);
  return labels;
}

namespace {

// Values by node, ten a row, with the node number of each row first.
void print_node_table(const std::string& title, const std::vector<std::string>& labels, int from, int to) {
  char cell[32];
  std::string line = "      ";
  for (int k = 0; k < 10; ++k) {
    std::snprintf(cell, sizeof cell, "%6i", k);
    line += cell;
  }
  out_text({title, "\n", line, "\n"});
  line.clear();
  int row = -1, col = 0;
  for (int v = from; v < to; ++v) {
    if (labels[v].empty()) continue;
    const int r = v / 10 * 10;
    if (r != row) {
      if (row >= 0) out_text({line, "\n"});
      std::snprintf(cell, sizeof cell, "%5i ", r);
      line = cell;
      row = r;
      col = 0;
    }
    for (; col < v % 10; ++col) line += "      ";
    std::snprintf(cell, sizeof cell, "%6s", labels[v].c_str());
    line += cell;
    ++col;
  }
  if (row >= 0) out_text({line, "\n"});
  out_text({"\n"});
}

}  // namespace

bool use_low_memory(int ntax) {
  auto& cs = consensus_settings;
  if (cs.low_memory_always) return true;
  const std::size_t w = set_words(ntax);
  const std::size_t need = 2 * static_cast<std::size_t>(ntax) * ((w + 1) * 8 + 60) + 64 * w;
  if (ram_free_bytes() >= need) return false;
  if (!cs.low_memory_noted) {
    out_text({"Note: using alternative consensus algorithm\n(memory is insufficient for standard algorithm)\n"});
    cs.low_memory_noted = 1;
  }
  return true;
}

namespace {

std::string excluded_suffix(int x) {
  return x ? " (" + std::to_string(x) + " taxa excluded)" : std::string();
}

}  // namespace

void cmd_nelsen() {
  auto& cs = consensus_settings;
  int c = peek_char();
  if (c == '<' || c == '>') {
    next_char();
    cs.low_memory_always = c == '<';
    out_text({"Using low-memory consensus algorithms ", c == '<' ? "always" : "only when memory is low", "\n"});
    return;
  }
  const bool keep = accept_char('*');
  std::vector<int> trees = read_selected_trees();
  std::vector<std::uint8_t> user = read_excluded_taxa();
  if (accept_char('/')) {
    if (keep) error_exit("Can't save tree with location of excluded taxa");
    nelsen_placement(trees, user);
    return;
  }
  TempCollapse collapse("nelsen");
  std::vector<std::uint8_t> excluded;
  prepare_exclusions(trees, user, cs.unshared, excluded);
  const int ntax = tree_store.ntax;
  std::vector<std::int32_t> result(2 * ntax - 1);
  strict_consensus(trees, excluded, result.data(), use_low_memory(ntax));
  clear_progress();
  const std::string title = "Strict consensus of " + std::to_string(trees.size()) + " trees" +
                            excluded_suffix(excluded_count(excluded));
  if (keep) {
    const int k = keep_tree(result, "Strict_consensus");
    out_text({title, " calculated, as tree ", std::to_string(k), "\n"});
    return;
  }
  qax::trees::draw_tree(result.data(), ntax, nullptr, title);
}

namespace {

// Shared by majority and freqdifs: options, then trees and exclusions.
void frequency_command(bool differences) {
  auto& cs = consensus_settings;
  const char* name = differences ? "freqdifs" : "majority";
  int& cut = differences ? cs.freqdif_cut : cs.majority_cut;
  if (accept_char('=')) {
    const int v = read_int();
    if (v < 0 || v > 100) error_exit("Must specify a cutoff percentage 0-100");
    if (!differences && v < 50) error_exit("Cannot do majority rule with cut < 50");
    cut = v;
    if (peek_char() == ';') {
      out_printf("Cut for %s set to %i\n", differences ? "frequency differences" : "majority rule", cut);
      return;
    }
  }
  int reference = -1;
  bool table = false, keep = false, show = true;
  int c = peek_char();
  if (c == '[' || c == '(') {
    next_char();
    table = c == '(';
    qax::dataset::require_data();
    reference = read_reference(c == '[' ? ']' : ')');
  } else if (c == '*' || c == '&') {
    next_char();
    keep = true;
    show = c == '&';
  } else if (c != ';' && c != '/' && !std::isdigit(c) && c != '.' && c != '{' && c != '+' && c != '-') {
    next_char();
    error_exit({"Invalid option for", name});
  }
  std::vector<int> trees = read_selected_trees();
  std::vector<std::uint8_t> user = read_excluded_taxa();
  TempCollapse collapse(name);
  collapse.keep_as_stored(reference);
  std::vector<std::uint8_t> excluded;
  prepare_exclusions(trees, user, cs.unshared, excluded);
  const int ntax = tree_store.ntax;
  if (reference >= 0) {
    if (trees.size() == 1 && trees[0] == reference) error_exit("Can't compare tree with itself");
    CountResult r = differences ? frequency_differences(reference, trees, excluded, cut, nullptr)
                                : reference_frequencies(reference, trees, excluded);
    clear_progress();
    auto labels = percent_labels(r.node_value, r.counted, differences ? INT_MIN : -1);
    char title[160];
    if (table) {
      std::snprintf(title, sizeof title, differences ? "Values (node numbers refer to tree %i)"
                                                     : "Frequency values (node numbers refer to tree %i)", reference);
      print_node_table(title, labels, ntax, 2 * ntax - 1);
    } else {
      std::snprintf(title, sizeof title, differences ? "Frequency differences of groups from tree %i, in %i trees"
                                                     : "Frequency of groups from tree %i, in %i trees", reference, r.counted);
      qax::trees::draw_tree(tree_row(reference), ntax, &labels, title);
      qax::trees::tags_collect(tree_row(reference), ntax, labels);
    }
    return;
  }
  std::vector<std::int32_t> result(2 * ntax - 1);
  CountResult r;
  if (!differences && cut == 100) {
    strict_consensus(trees, excluded, result.data(), use_low_memory(ntax));
    r.counted = static_cast<int>(trees.size());
    r.node_value.assign(2 * ntax - 1, -1);
    for (int v = ntax + 1; v < result[ntax]; ++v) r.node_value[v] = r.counted;
  } else if (!differences && use_low_memory(ntax)) {
    if (excluded_count(excluded))
      error_exit("Low memory majority rule doesn't allow exclusion of taxa\n"
                 "Condense trees (excluding taxa, if needed) and then consense");
    r = majority_low_memory(trees, cut, result.data());
  } else {
    r = differences ? frequency_differences(-1, trees, excluded, cut, result.data())
                    : majority_consensus(trees, excluded, cut, result.data());
  }
  clear_progress();
  char title[160];
  std::snprintf(title, sizeof title, differences ? "Frequency differences (from %i trees, cut %i)"
                                                 : "Majority rule tree (from %i trees, cut %i)", r.counted, cut);
  std::string full = title + excluded_suffix(excluded_count(excluded));
  if (show) {
    auto labels = percent_labels(r.node_value, r.counted, differences ? INT_MIN : -1);
    qax::trees::draw_tree(result.data(), ntax, &labels, full);
    qax::trees::tags_collect(result.data(), ntax, labels);
  }
  if (keep) {
    const int k = keep_tree(result, differences ? "Freq_diff_consensus" : "Majority_rule_consensus");
    out_text({full, " calculated as tree ", std::to_string(k), "\n"});
    // The frequencies stay with the kept tree as its tags (written as node labels by
    // export), unless the user has tags of another origin in memory.
    auto& s = tree_store;
    if (s.tag_tree.empty() || s.tags_from_consensus) {
      s.tag_tree = result;
      s.tags = percent_labels(r.node_value, r.counted, differences ? INT_MIN : -1);
      s.tags.resize(result.size());
      s.tags_from_consensus = 1;
    }
  }
}

}  // namespace

void cmd_majority() { frequency_command(false); }
void cmd_freqdifs() { frequency_command(true); }

void cmd_comcomp() {
  const bool keep = accept_char('*');
  std::vector<int> trees = read_selected_trees();
  std::vector<std::uint8_t> user = read_excluded_taxa();
  TempCollapse collapse("comcomp");
  std::vector<std::uint8_t> excluded;
  prepare_exclusions(trees, user, consensus_settings.unshared, excluded);
  const int ntax = tree_store.ntax;
  std::vector<std::int32_t> result(2 * ntax - 1);
  combinable_consensus(trees, excluded, result.data());
  clear_progress();
  bool partial = false;
  for (int k : trees)
    for (int i = 0; i < ntax; ++i) partial |= tree_row(k)[i] < ntax;
  std::string title = "Combinable component consensus (from " + std::to_string(trees.size()) + " trees)" +
                      excluded_suffix(excluded_count(excluded));
  if (partial && !consensus_settings.unshared) title += " (some trees only = |O|)";
  if (keep) {
    const int k = keep_tree(result, "Combinable_Component_Consensus");
    out_text({title, ", saved as tree ", std::to_string(k), "\n"});
    return;
  }
  qax::trees::draw_tree(result.data(), ntax, nullptr, title);
}

void cmd_rfreqs() {
  qax::dataset::require_data();
  if (!accept_char('[')) error_exit("Must specify tree with reference groups");
  const int reference = read_reference(']');
  std::vector<int> trees = read_selected_trees();
  std::vector<std::uint8_t> user = read_excluded_taxa();
  std::vector<std::uint8_t> excluded;
  prepare_exclusions(trees, user, consensus_settings.unshared, excluded);
  if (trees.size() == 1 && trees[0] == reference) error_exit("Can't compare tree with itself");
  // Similarities are measured on the trees as stored, never collapsed.
  if (temp_collapse_applies()) out_text({"To calculate rough frequencies,\ntemporary collapsing will be deactivated\n"});
  TempCollapse stored("rfreqs", false);
  const int ntax = tree_store.ntax;
  std::vector<double> values = rough_recovery(reference, trees, excluded);
  int counted = 0;
  for (int t : trees) counted += t != reference;
  std::vector<std::string> labels(values.size());
  char text[64];
  for (std::size_t v = 0; v < values.size(); ++v)
    if (values[v] >= 0) {
      std::snprintf(text, sizeof text, "%.*f", std::clamp(switches.table_decimals, 0, 10), values[v]);
      labels[v] = text;
    }
  char title[160];
  std::snprintf(title, sizeof title, "Frequency of Rough Recovery (groups from tree %i, in %i trees)", reference, counted);
  qax::trees::draw_tree(tree_row(reference), ntax, &labels, title);
  qax::trees::tags_collect(tree_row(reference), ntax, labels);
  out_text({"Please note: these values do NOT measure group support!\n"});
}

void cmd_unshared() { read_switch(consensus_settings.unshared, "Pruning of taxa absent from some trees"); }

}  // namespace qax::support
