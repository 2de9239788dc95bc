// tcomp and sprdiff: argument forms, the tables they print and the values kept for macro
// expressions.
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
#include "support/consensus.h"
#include "support/temp_collapse.h"
#include "support/tree_compare.h"
#include "trees/display.h"
#include "trees/store.h"

namespace qax::support {

using namespace qax::shell;
using qax::trees::tree_row;
using qax::trees::tree_store;

SprdiffSettings sprdiff_settings;

namespace {

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


// Distortion coefficients from the matrix representation: mode 0 "=" (each tree of the
// first list mapped on each of the second), 1 "==" (both ways), 2 "=!" (both ways, the
// maximum of two pectinate trees).
void mrp_coefficients(int mode) {
  require_trees();
  std::vector<int> first, second;
  std::vector<std::uint8_t> excluded;
  read_two_lists(first, second, excluded);
  const int ntax = tree_store.ntax;
  const std::vector<std::uint8_t> inc = common_taxa(first, second, excluded, false);
  int taxa = 0;
  for (auto f : inc) taxa += f != 0;
  std::vector<double> v;
  double best = -1;
  for (std::size_t i = 0; i < first.size(); ++i) {
    show_progress(static_cast<long long>(i), static_cast<long long>(first.size()), "Comparing");
    for (int b : second) {
      const std::int32_t* ta = tree_row(first[i]);
      const std::int32_t* tb = tree_row(b);
      MrpMapping m = map_mrp(ta, tb, ntax, inc);
      if (mode > 0) {
        const MrpMapping back = map_mrp(tb, ta, ntax, inc);
        m.steps += back.steps;
        m.minimum += back.minimum;
        m.maximum += back.maximum;
        if (mode == 2) m.maximum = 2 * pectinate_mrp_maximum(taxa);
      }
      const double range = static_cast<double>(m.maximum - m.minimum);
      const double ri = range > 0 ? (m.maximum - m.steps) / range : 1.0;
      v.push_back(ri);
      best = std::max(best, ri);
    }
  }
  clear_progress();
  const char* titles[] = {"Distortion coefficients (RI of the groups of the first trees on the second):",
                          "Symmetric distortion coefficients:",
                          "Symmetric distortion coefficients (maximum of two pectinate trees):"};
  print_table(titles[mode], first, second, v, "%.3f");
  if (mode == 0) last_comparison.discoeff = best;
  else last_comparison.symcoeff = best;
}

// Distance by the degree of recovery of each group in the other tree (similarity of rough
// recovery); `resolved`: normalised by the groups of two resolved trees.
void recovery_distance(bool resolved) {
  require_trees();
  std::vector<int> first, second;
  std::vector<std::uint8_t> user;
  read_two_lists(first, second, user);
  const int ntax = tree_store.ntax;
  const std::vector<std::uint8_t> inc = common_taxa(first, second, user, false);
  std::vector<std::uint8_t> excluded(ntax, 0);
  int taxa = 0;
  for (int t = 0; t < ntax; ++t) {
    excluded[t] = inc[t] ? 0 : excluded_by_user;
    taxa += inc[t] != 0;
  }
  std::vector<double> v;
  for (std::size_t i = 0; i < first.size(); ++i) {
    show_progress(static_cast<long long>(i), static_cast<long long>(first.size()), "Comparing");
    for (int b : second) {
      const int a = first[i];
      if (a == b) {
        v.push_back(0);
        continue;
      }
      double sum = 0;
      int groups = 0;
      for (auto [x, y] : {std::pair<int, int>{a, b}, std::pair<int, int>{b, a}}) {
        const std::vector<double> s = rough_recovery(x, {y}, excluded);
        for (double value : s)
          if (value >= 0) {
            sum += value;
            ++groups;
          }
      }
      const double denom = resolved ? 2.0 * std::max(0, taxa - 2) : groups;
      v.push_back(denom > 0 ? 1.0 - sum / denom : 0.0);
    }
  }
  clear_progress();
  print_table(resolved ? "Distances by degree of recovery (normalised by two resolved trees):"
                       : "Distances by degree of recovery:",
              first, second, v, "%.3f");
  last_comparison.grpdist = v.empty() ? -1 : v.back();
}

// Tree n drawn with, at each group, the number of the node of tree m that has the same
// taxa, or "X".
void group_equivalences() {
  require_trees();
  const int m = read_int();
  const int n = peek_char() == '/' || peek_char() == ';' ? -1 : read_int();
  if (m < 0 || n < 0) error_exit("Two tree numbers required");
  if (m >= tree_store.ntrees) error_exit({"No tree", number_text(m)});
  if (n >= tree_store.ntrees) error_exit({"No tree", number_text(n)});
  const std::vector<std::uint8_t> excluded = read_excluded_taxa();
  const int ntax = tree_store.ntax;
  const std::int32_t* tm = tree_row(m);
  const std::int32_t* tn = tree_row(n);
  const std::vector<std::uint8_t> inc = shared_taxa(tm, tn, ntax, excluded);
  auto below = [&](const std::int32_t* tree) {
    const int end = std::max(tree[ntax], ntax + 1);
    std::vector<GroupBits> rows(end, GroupBits((ntax + 63) / 64, 0));
    for (int t = 0; t < ntax; ++t) {
      if (!inc[t] || tree[t] < ntax) continue;
      for (int a = tree[t]; a >= ntax && a < end; a = tree[a]) {
        rows[a][t / 64] |= 1ull << (t % 64);
        if (a == ntax) break;
      }
    }
    return rows;
  };
  const auto bm = below(tm), bn = below(tn);
  int taxa = 0;
  for (auto f : inc) taxa += f != 0;
  std::vector<std::string> labels(tree_store.row_size);
  for (int v = ntax + 1; v < static_cast<int>(bn.size()); ++v) {
    int size = 0;
    for (auto w : bn[v]) size += __builtin_popcountll(w);
    if (size < 2 || size >= taxa) continue;
    labels[v] = "X";
    for (int u = ntax + 1; u < static_cast<int>(bm.size()); ++u)
      if (bm[u] == bn[v]) {
        labels[v] = std::to_string(u);
        break;
      }
  }
  char title[120];
  std::snprintf(title, sizeof title, "Tree %i (group equivalences with tree %i)", n, m);
  qax::trees::draw_tree(tn, ntax, &labels, title);
}

// Cluster Information Distance from every tree of the first list to every tree of the
// second; `rescaled` divides by the entropy of two pectinate trees.
void cluster_information(bool rescaled) {
  require_trees();
  std::vector<int> first = read_list("First tree list contains no trees!");
  if (!accept_char('/')) error_exit("Second tree list contains no trees!");
  std::vector<int> second = read_list("Second tree list contains no trees!");
  const int ntax = tree_store.ntax;
  std::vector<std::uint8_t> inc(ntax, 1);
  for (const auto* list : {&first, &second})
    for (int k : *list)
      for (int t = 0; t < ntax; ++t)
        if ((tree_row(k)[t] >= ntax) != (tree_row(first[0])[t] >= ntax))
          error_exit("Cluster Info Dist needs identical taxon sets");
  int taxa = 0;
  for (int t = 0; t < ntax; ++t) {
    inc[t] = tree_row(first[0])[t] >= ntax;
    taxa += inc[t];
  }
  const double scale = rescaled ? 2 * pectinate_cluster_entropy(taxa) : 1.0;
  double last = -1;
  for (int b : second) {
    out_printf("Cluster Info Dist's to tree %i:\n", b);
    std::string line;
    for (int a : first) {
      const double d = cluster_information_distance(tree_row(a), tree_row(b), ntax, inc);
      last = scale > 0 ? d / scale : 0;
      char cell[48];
      std::snprintf(cell, sizeof cell, "  %i: %.4f", a, last);
      line += cell;
    }
    out_printf("%s\n", line.c_str());
  }
  last_comparison.clusdist = last;
}


// Stability of the taxa over trees from their triplets: PCR (alike in every tree) or, with
// `lsi`, the LSI. "=N" reports the worst N; ">G" puts the taxa reported in taxon group G.
void taxon_stability(bool lsi) {
  require_trees();
  accept_char('&');   // inferring unchecked triplets from checked ones gives the same values
  int worst = -1, group = -1;
  for (;;) {
    if (accept_char('=')) {
      worst = read_int();
      if (worst < 1) error_exit("Expected number of taxa to report after \"=\"");
    } else if (accept_char('>')) {
      group = read_int();
      if (group < 0 || group >= dataset::group_count)
        error_exitf("Taxon group must be 0-%i", dataset::group_count - 1);
    } else {
      break;
    }
  }
  const std::vector<int> list = read_list("No trees specified");
  const std::vector<std::uint8_t> excluded = read_excluded_taxa();
  const std::vector<std::uint8_t> inc = common_taxa(list, list, excluded, false);
  const int ntax = tree_store.ntax;
  std::vector<const std::int32_t*> rows;
  for (int k : list) rows.push_back(tree_row(k));
  const TripletStability st = triplet_stability(rows, ntax, inc);
  const std::vector<double>& v = lsi ? st.lsi : st.pcr;
  std::vector<int> order;
  for (int t = 0; t < ntax; ++t)
    if (v[t] >= 0) order.push_back(t);
  if (worst > 0) {
    std::stable_sort(order.begin(), order.end(), [&](int a, int b) { return v[a] < v[b]; });
    if (static_cast<int>(order.size()) > worst) order.resize(worst);
  }
  out_printf("%s values (%i trees):\n", lsi ? "LSI" : "PCR", static_cast<int>(list.size()));
  for (int t : order) out_printf("    %-24s %.3f\n", taxon_name(t).c_str(), v[t]);
  if (group >= 0) {
    auto& d = dataset::dataset;
    if (static_cast<int>(d.taxon_groups.size()) < ntax) d.taxon_groups.resize(ntax, 0);
    for (int t = 0; t < ntax; ++t) d.taxon_groups[t] &= ~(1u << group);
    for (int t : order) d.taxon_groups[t] |= 1u << group;
    out_printf("Taxa reported put in taxon group %i\n", group);
  }
}


// Observed success of resolution of each tree of the first list against each reference of
// the second: over the triplets the reference resolves, those resolved alike less those
// resolved otherwise, as a share of them (1: all recovered, -1: all contradicted).
void observed_success() {
  require_trees();
  std::vector<int> first, second;
  std::vector<std::uint8_t> excluded;
  read_two_lists(first, second, excluded);
  if (temp_collapse_applies()) out_printf("To calculate OSR,\ntemporary collapsing will be deactivated\n");
  const int ntax = tree_store.ntax;
  const std::vector<std::uint8_t> inc = common_taxa(first, second, excluded, false);
  int taxa = 0;
  for (auto f : inc) taxa += f != 0;
  if (static_cast<double>(taxa) * taxa * 4 > 4e8) error_exit("Sorry, not enough memory to calculate OSR");
  double last = 0;
  for (int b : second) {
    out_printf("OSR values to tree %i:\n", b);
    std::string line;
    for (int a : first) {
      const TripletComparison t = compare_triplets(tree_row(a), tree_row(b), ntax, inc);
      const long long alike = t.resolved_second - t.false_second;
      last = t.resolved_second > 0 ? static_cast<double>(alike - t.conflicting) / t.resolved_second : 0.0;
      char cell[48];
      std::snprintf(cell, sizeof cell, "  %i: %.4f", a, last);
      line += cell;
    }
    out_printf("%s\n", line.c_str());
  }
  last_comparison.osr = last;
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

namespace {

void report_sprdiff_settings() {
  const auto& s = sprdiff_settings;
  out_printf(s.violations ? "Allowing moves from one node to its ancestor,\n"
                          : "Not allowing moves from one node to its ancestor,\n");
  if (s.halvepoly) out_printf("counting every move to resolve/collapse nodes as half\n");
  else if (s.polycount) out_printf("counting moves to resolve/collapse nodes in polytomies\n");
  else out_printf("not counting moves to resolve/collapse nodes in polytomies\n");
}

}  // namespace

void cmd_sprdiff() {
  auto& s = sprdiff_settings;
  int c = peek_char();
  if (c == '[') {
    next_char();
    if (!std::isdigit(peek_char()) && peek_char() != '.') error_exit("Value expected");
    const double k = read_real();
    if (k <= 0) error_exit("Value expected");
    if (s.halvepoly) error_exit("Cannot use both weighted moves and halve resolutions!");
    s.weight_constant = k;
    out_printf("Constant for tree-comparisons is %.5f\n", k);
    return;
  }
  if (c == ']') {
    next_char();
    s.weight_constant = 0;
    out_printf("Counting raw SPR moves\n");
    return;
  }
  if (std::isalpha(c)) {
    const SprdiffSettings saved = s;
    try {
      while (peek_char() != ';') {
        read_token();
        const std::string w = token_buffer;
        if (w == "violations") s.violations = 1;
        else if (w == "noviolations") s.violations = 0;
        else if (w == "polycount") { s.polycount = 1; s.halvepoly = 0; }
        else if (w == "nopolycount") { s.polycount = 0; s.halvepoly = 0; }
        else if (w == "halvepoly") {
          if (s.weight_constant > 0) error_exit("Cannot use both weighted moves and halve resolutions!");
          s.halvepoly = 1;
          s.polycount = 1;
        } else error_exitf("Unexpected \"%s\"...", w.c_str());
      }
    } catch (const CommandFailed&) {
      s = saved;
      throw;
    }
    report_sprdiff_settings();
    return;
  }
  const bool show = accept_char('*') != 0;
  require_trees();
  const int j = read_int();
  const int k = peek_char() == ';' ? -1 : read_int();
  if (j < 0 || k < 0) error_exit("Two tree numbers required");
  if (j >= tree_store.ntrees) error_exit({"No tree", number_text(j)});
  if (k >= tree_store.ntrees) error_exit({"No tree", number_text(k)});
  int reps = 10, passes = 0;
  if (std::isdigit(peek_char())) {
    const long long n = read_int();
    if (n < 1 || n > 1000000) error_exit("Number of replications must be 1-1000000");
    reps = static_cast<int>(n);
    if (peek_char() == 'x' || peek_char() == '+') {
      next_char();
      const int p = read_int();
      if (p < 1 || p > 1000) error_exit("Passes must be 1-1000");
      passes = p;
    }
  }
  (void)passes;
  if (peek_char() != ';') {
    read_token();
    error_exitf("Unexpected \"%s\"...", token_buffer);
  }
  const int ntax = tree_store.ntax;
  if (dataset::dataset.outgroup != 0)
    out_printf("To calculate SPR distances, taxon 0 (=%s)\nwill be made outgroup temporarily\n", taxon_name(0).c_str());
  const SprResult r = spr_distance(tree_row(j), tree_row(k), ntax, reps, s.weight_constant,
                                   static_cast<std::uint32_t>(search::search_settings.seed + 1), show);
  const std::vector<std::uint8_t> inc = shared_taxa(tree_row(j), tree_row(k), ntax, {});
  int taxa = 0;
  for (auto f : inc) taxa += f != 0;
  if (show) {
    for (std::size_t i = 0; i < r.steps.size(); ++i) {
      char title[120];
      if (s.weight_constant > 0) {
        const double far = (taxa - 3) / (s.weight_constant + taxa - 3);
        const int d = r.distances[i];
        std::snprintf(title, sizeof title, "Move nr. %i (%i nodes away, cost %.4f)", static_cast<int>(i) + 1, d,
                      (d / (s.weight_constant + d)) / far);
      } else {
        std::snprintf(title, sizeof title, "Move nr. %i", static_cast<int>(i) + 1);
      }
      qax::trees::draw_tree(r.steps[i].data(), ntax, nullptr, title);
    }
  }
  // Resolving the polytomies of the first tree, and collapsing the groups the second
  // lacks, take one move each (half with halvepoly) when they are counted.
  double value = r.weighted;
  int unweighted = r.moves;
  if (s.polycount && taxa > 3) {
    int ref = 0;
    while (ref < ntax && !inc[ref]) ++ref;
    const int full = taxa - 3;
    const int extra = (full - static_cast<int>(tree_groups(tree_row(j), ntax, inc, false, ref).size())) +
                      (full - static_cast<int>(tree_groups(tree_row(k), ntax, inc, false, ref).size()));
    unweighted += extra;
    if (s.weight_constant > 0) {
      const double far = full / (s.weight_constant + full);
      value += extra * (1.0 / (s.weight_constant + 1.0)) / far;
    } else {
      value += s.halvepoly ? extra * 0.5 : extra;
    }
  }
  out_printf("From tree %i%s to tree %i: ", j, r.resolved ? " (best resolution)" : "", k);
  if (s.weight_constant > 0) out_printf("%.4f weighted (%i unwt)", value, unweighted);
  else if (s.halvepoly && s.polycount) out_printf("%.1f", value);
  else out_printf("%.0f", value);
  const double denom = taxa > 3 ? taxa - 3 : 1;
  const double similarity = 1.0 - value / denom;
  out_printf(" SPR moves (similarity: %.4f)\n", similarity);
  last_comparison.sprdiff = value;
  last_comparison.sprsim = similarity;
}

}  // namespace qax::support
