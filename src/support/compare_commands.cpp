// tcomp: argument forms, groups absent, Robinson-Foulds and triplet distances; the other
// measures are in tcomp_measures.cpp.
#include "support/compare_commands.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <string>
#include <vector>

#include "dataset/dataset.h"
#include "search/settings.h"
#include "shell/failure.h"
#include "shell/input.h"
#include "shell/output.h"
#include "support/command_helpers.h"
#include "support/compare_internal.h"
#include "support/consensus.h"
#include "support/temp_collapse.h"
#include "support/tree_compare.h"
#include "trees/display.h"
#include "trees/store.h"

namespace qax::support {

using namespace qax::shell;
using qax::trees::tree_row;
using qax::trees::tree_store;

namespace compare_detail {

const std::string& taxon_name(int t) { return dataset::dataset.taxon_names[t]; }

// A list of trees before "/" or ";": all trees when empty; `none` when it names no tree.
std::vector<int> read_list(const char* none) {
  std::vector<int> list;
  const int c = peek_char();
  if (c == '/' || c == ';') {
    for (int k = 0; k < tree_store.ntrees; ++k) list.push_back(k);
  } else {
    std::vector<std::uint8_t> flags;
    qax::trees::read_tree_list(flags, false);
    for (int k = 0; k < tree_store.ntrees; ++k)
      if (k < static_cast<int>(flags.size()) && flags[k] == 1) list.push_back(k);
  }
  if (list.empty()) error_exit(none);
  return list;
}

// "N/M" and the taxa to leave out ("/L").
void read_two_lists(std::vector<int>& first, std::vector<int>& second, std::vector<std::uint8_t>& excluded) {
  first = read_list("First tree list contains no trees!");
  if (!accept_char('/')) error_exit("Second tree list contains no trees!");
  second = read_list("Second tree list contains no trees!");
  excluded = read_excluded_taxa();
}

void require_trees() {
  qax::trees::require_data();
  if (tree_store.ntrees == 0) error_exit("No trees in memory");
}

// Taxa compared for a set of trees: present in all and not left out. Warns once when some
// tree lacks a taxon another has.
std::vector<std::uint8_t> common_taxa(const std::vector<int>& a, const std::vector<int>& b,
                                      const std::vector<std::uint8_t>& excluded, bool warn) {
  const int ntax = tree_store.ntax;
  std::vector<std::uint8_t> in_all(ntax, 1), in_any(ntax, 0);
  for (const auto* list : {&a, &b})
    for (int k : *list) {
      const std::int32_t* row = tree_row(k);
      for (int t = 0; t < ntax; ++t) {
        const bool present = row[t] >= ntax;
        in_all[t] &= present;
        in_any[t] |= present;
      }
    }
  int odd = -1;
  for (int t = 0; t < ntax && odd < 0; ++t)
    if (in_any[t] && !in_all[t]) odd = t;
  if (warn && odd >= 0) {
    char text[400];
    std::snprintf(text, sizeof text,
                  "To calculate RF distances, trees must have the same taxa.\ntaxa (e.g. %s) present or absent in the tree(s) will be ignored.",
                  taxon_name(odd).c_str());
    warning({text});
  }
  std::vector<std::uint8_t> inc(ntax, 0);
  for (int t = 0; t < ntax; ++t) inc[t] = in_all[t] && !(t < static_cast<int>(excluded.size()) && excluded[t]);
  return inc;
}

// Values of the pairs (rows: first list, columns: second list). With one tree in the second
// list it is named as the reference with the best value, and each tree gets a line.
void print_table(const std::string& title, const std::vector<int>& rows, const std::vector<int>& cols,
                 const std::vector<double>& v, const char* format) {
  out_printf("%s\n", title.c_str());
  char cell[64];
  if (cols.size() == 1) {
    double best = v.empty() ? 0 : *std::min_element(v.begin(), v.end());
    out_printf("Tree %i is reference (best %.3f)\n", cols[0], best);
    for (std::size_t i = 0; i < rows.size(); ++i) {
      std::snprintf(cell, sizeof cell, format, v[i]);
      out_printf("%6i  %8s\n", rows[i], cell);
    }
    return;
  }
  std::string line = "      ";
  for (int c : cols) {
    std::snprintf(cell, sizeof cell, "%8i", c);
    line += cell;
  }
  out_printf("%s\n", line.c_str());
  for (std::size_t i = 0; i < rows.size(); ++i) {
    std::snprintf(cell, sizeof cell, "%6i", rows[i]);
    line = cell;
    for (std::size_t j = 0; j < cols.size(); ++j) {
      char value[32];
      std::snprintf(value, sizeof value, format, v[i * cols.size() + j]);
      std::snprintf(cell, sizeof cell, "%8s", value);
      line += cell;
    }
    out_printf("%s\n", line.c_str());
  }
}

}  // namespace compare_detail

using namespace compare_detail;

namespace {

// Robinson-Foulds distances; scale 1 by 2*(T-3) or 2*(T-2), 2 by the groups present.
void robinson_foulds(bool rooted, int scale) {
  require_trees();
  std::vector<int> first, second;
  std::vector<std::uint8_t> excluded;
  read_two_lists(first, second, excluded);
  const int ntax = tree_store.ntax;
  const int outgroup = dataset::dataset.outgroup;
  if (!rooted) {
    for (const auto* list : {&first, &second})
      for (int k : *list)
        if (tree_row(k)[outgroup] < ntax || (outgroup < static_cast<int>(excluded.size()) && excluded[outgroup]))
          error_exitf("For unrooted Robinson-Foulds, outgroup (=%s) must be included in all trees",
                      taxon_name(outgroup).c_str());
  }
  const std::vector<std::uint8_t> inc = common_taxa(first, second, excluded, true);
  std::vector<double> v;
  double raw_last = 0;
  for (std::size_t i = 0; i < first.size(); ++i) {
    show_progress(static_cast<long long>(i), static_cast<long long>(first.size()), "Comparing");
    for (int b : second) {
      const GroupComparison g = compare_groups(tree_row(first[i]), tree_row(b), ntax, inc, rooted, outgroup);
      v.push_back(rf_value(g, rooted, scale));
      raw_last = rf_value(g, rooted, 0);
    }
  }
  clear_progress();
  std::string title = "Robinson-Foulds distances";
  if (rooted) title += scale == 2 ? " (rooted, rescaled to 0 for a bush)" : " (rooted)";
  else if (scale == 2) title += " (rescaled to 0 for a bush)";
  print_table(title + ":", first, second, v, "%.3f");
  last_comparison.rfdist = v.empty() ? -1 : v.back();
  (void)raw_last;
}

// Triplet distances: mode 0 "(", 1 "(!", 2 ")", 3 ")!".
void triplet_distances(int mode) {
  require_trees();
  std::vector<int> first, second;
  std::vector<std::uint8_t> excluded;
  read_two_lists(first, second, excluded);
  const int ntax = tree_store.ntax;
  int root = -1;
  for (const auto* list : {&first, &second})
    for (int k : *list) {
      const int r = root_terminal(tree_row(k), ntax);
      if (r < 0 || (root >= 0 && r != root)) error_exit("Trees must be rooted on the same terminal");
      root = r;
    }
  const std::vector<std::uint8_t> inc = common_taxa(first, second, excluded, false);
  std::vector<double> v;
  for (std::size_t i = 0; i < first.size(); ++i) {
    show_progress(static_cast<long long>(i), static_cast<long long>(first.size()), "Comparing");
    for (int b : second) {
      const TripletComparison t = compare_triplets(tree_row(first[i]), tree_row(b), ntax, inc);
      const double wrong = static_cast<double>(t.false_first + t.false_second);
      double value = 0;
      if (mode == 0) value = t.resolved_first + t.resolved_second > 0 ? wrong / (t.resolved_first + t.resolved_second) : 0;
      else if (mode == 1) value = t.possible > 0 ? wrong / (2.0 * t.possible) : 0;
      else if (mode == 2) value = wrong;
      else value = static_cast<double>(t.differing);
      v.push_back(value);
    }
  }
  clear_progress();
  const char* titles[] = {"Triplet distances:", "Triplet distances (rescaled by twice the possible triplets):",
                          "False triplets:", "Triplets resolved differently:"};
  print_table(titles[mode], first, second, v, mode >= 2 ? "%.0f" : "%.3f");
  last_comparison.tripdist = v.empty() ? -1 : v.back();
}

// Groups of tree m absent from tree n, marked "O" (compatible with n) or "X" (in conflict);
// show: 0 both, 1 compatible only, 2 contradictory only.
void groups_absent(bool keep, int show) {
  require_trees();
  const int m = read_int();
  const int n = peek_char() == '/' || peek_char() == ';' ? -1 : read_int();
  if (m < 0 || n < 0) error_exit("Two tree numbers required");
  if (m >= tree_store.ntrees) error_exit({"No tree", number_text(m)});
  if (n >= tree_store.ntrees) error_exit({"No tree", number_text(n)});
  std::vector<std::uint8_t> excluded = read_excluded_taxa();
  TempCollapse collapse("tcomp");
  const int ntax = tree_store.ntax;
  std::vector<std::int32_t> tm(consensus_row(m), consensus_row(m) + tree_store.row_size);
  std::vector<std::int32_t> tn(consensus_row(n), consensus_row(n) + tree_store.row_size);
  const std::vector<std::uint8_t> inc = shared_taxa(tm.data(), tn.data(), ntax, excluded);
  int taxa = 0;
  for (auto f : inc) taxa += f != 0;
  const std::vector<GroupBits> gn = tree_groups(tn.data(), ntax, inc, true, 0);
  // Terminals below each node of m.
  const int end = std::max(tm[ntax], ntax + 1);
  const int words = (ntax + 63) / 64;
  std::vector<GroupBits> below(end, GroupBits(words, 0));
  for (int t = 0; t < ntax; ++t) {
    if (!inc[t] || tm[t] < ntax) continue;
    for (int a = tm[t]; a >= ntax && a < end; a = tm[a]) {
      below[a][t / 64] |= 1ull << (t % 64);
      if (a == ntax) break;
    }
  }
  std::vector<std::string> labels(tree_store.row_size);
  std::vector<std::uint8_t> shown(end, 0);
  int compatible = 0, contradictory = 0;
  for (int v = ntax + 1; v < end; ++v) {
    int size = 0;
    for (auto w : below[v]) size += __builtin_popcountll(w);
    if (size < 2 || size > taxa - 1) continue;
    if (std::binary_search(gn.begin(), gn.end(), below[v])) continue;
    bool conflict = false;
    for (const auto& g : gn)
      if (bits_conflict(g, below[v])) {
        conflict = true;
        break;
      }
    if (conflict) ++contradictory; else ++compatible;
    if ((conflict && show == 1) || (!conflict && show == 2)) continue;
    labels[v] = conflict ? "X" : "O";
    shown[v] = 1;
  }
  char title[200];
  std::snprintf(title, sizeof title, "Groups of tree %i absent from %i (compatible = |O|, contradictory = |X|)", m, n);
  if (keep) {
    // Tree m with only the groups shown.
    std::vector<std::int32_t> out = tm;
    for (int v = 0; v < end; ++v) {
      if (v == ntax || (v < ntax && out[v] < ntax)) continue;
      int a = out[v];
      while (a > ntax && !shown[a]) a = tm[a];
      out[v] = a;
    }
    qax::trees::reset_node_numbers(out.data(), ntax);
    char name[64];
    std::snprintf(name, sizeof name, "Comparison_trees_%i-%i", m, n);
    const int k = keep_tree(out, name);
    out_printf("%s, saved as tree %i\n", title, k);
    return;
  }
  qax::trees::draw_tree(tm.data(), ntax, &labels, title);
  (void)compatible;
  (void)contradictory;
}

}  // namespace

void cmd_tcomp() {
  const int c = peek_char();
  switch (c) {
    case '*':
      next_char();
      groups_absent(true, 0);
      return;
    case '[':
    case ']':
      next_char();
      groups_absent(false, c == '[' ? 1 : 2);
      return;
    case '<':
    case '>': {
      next_char();
      const bool twice = accept_char(c) != 0;
      robinson_foulds(c == '>', twice ? 2 : 1);
      return;
    }
    case '(': {
      next_char();
      triplet_distances(accept_char('!') ? 1 : 0);
      return;
    }
    case ')': {
      next_char();
      triplet_distances(accept_char('!') ? 3 : 2);
      return;
    }
    case '=':
      next_char();
      mrp_coefficients(accept_char('=') ? 1 : accept_char('!') ? 2 : 0);
      return;
    case ':':
      next_char();
      recovery_distance(accept_char('!') != 0);
      return;
    case '&':
      next_char();
      group_equivalences();
      return;
    case '!':
      next_char();
      taxon_stability(accept_char('!') != 0);
      return;
    case '@':
      next_char();
      cluster_information(accept_char('!') != 0);
      return;
    case '|':
      next_char();
      observed_success();
      return;
    default:
      break;
  }
  if (std::isdigit(c)) {
    groups_absent(false, 0);
    return;
  }
  error_exit("Two tree numbers required");
}

}  // namespace qax::support
