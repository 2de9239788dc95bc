// The measures of tcomp beyond groups absent, Robinson-Foulds and triplets: distortion
// coefficients of matrix representations, degree of recovery, group equivalences,
// Cluster Information Distance, PCR and LSI of taxa, and observed success of resolution.
#include "support/compare_internal.h"

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

namespace qax::support::compare_detail {

using namespace qax::shell;
using qax::trees::tree_row;
using qax::trees::tree_store;

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

}  // namespace qax::support::compare_detail
