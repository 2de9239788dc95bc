// Bremer supports from a set of scored trees: the calculation itself, apart from the
// command that scores the trees and shows the result.
#include <algorithm>
#include <cmath>
#include <limits>

#include "dataset/dataset.h"
#include "optim/implied.h"
#include "optim/reports.h"
#include "support/bremer.h"
#include "support/group_set.h"
#include "trees/store.h"

namespace qax::support {

BremerSettings bremer_settings;

std::vector<double> row_char_scores(const std::int32_t* row) {
  const auto& data = qax::dataset::dataset;
  std::vector<int> parent(row, row + qax::trees::tree_store.row_size), steps;
  qax::optim::character_steps(parent, steps);
  if (qax::optim::implied_settings.implied_on) return qax::optim::character_fits(steps);
  std::vector<double> out(data.nchar, 0.0);
  for (int c = 0; c < data.nchar && c < static_cast<int>(steps.size()); ++c)
    if (steps[c] >= 0) out[c] = static_cast<double>(steps[c]) * data.chars[c].weight;
  return out;
}

double relative_fit_difference(const std::vector<double>& with_group, const std::vector<double>& without_group) noexcept {
  double f = 0, c = 0;
  const std::size_t n = std::min(with_group.size(), without_group.size());
  for (std::size_t i = 0; i < n; ++i) {
    const double d = without_group[i] - with_group[i];
    if (d > 0) f += d;
    else c -= d;
  }
  if (f <= 0) return c > 0 ? -1.0 : 0.0;
  return (f - c) / f;
}

double combined_power(double relative, double absolute, double x, double wo) noexcept {
  if (relative <= 0) return 0;
  if (absolute <= 0) return 0;
  return 100.0 * std::pow((1.0 - x) * relative, wo / absolute);
}

double combined_complement(double relative, double absolute, double x, double f) noexcept {
  if (relative <= 0 || absolute <= 0) return 0;
  return 100.0 * (1.0 - std::pow(1.0 - x * relative, absolute / f));
}

BremerResult bremer_from_trees(const std::vector<const std::int32_t*>& rows, const std::vector<double>& scores,
                               const std::vector<std::vector<double>>& char_scores,
                               const std::vector<std::uint8_t>& excluded, const std::int32_t* reference,
                               bool within_only) {
  const int ntax = static_cast<int>(excluded.size());
  const int nodes = 2 * ntax - 1;
  int included = 0;
  for (auto e : excluded) included += e == 0;
  BremerResult out;
  out.absolute.assign(nodes, -1);
  out.lower_bound.assign(nodes, 0);
  out.relative.assign(nodes, -1);
  out.group_of_node.assign(nodes, -1);
  if (rows.empty()) return out;
  out.best = *std::min_element(scores.begin(), scores.end());
  out.worst = *std::max_element(scores.begin(), scores.end());
  // The groups of the reference, entered in a table.
  GroupTable table;
  group_table_init(table, ntax);
  NodeSets ns;
  node_sets_init(ns, ntax);
  compute_node_sets(reference, excluded.data(), ns);
  for (int v = ntax + 1; v < reference[ntax]; ++v) {
    const int size = ns.sizes[v];
    if (size < 2 || size >= included) continue;
    const std::uint64_t* r = ns.row(v);
    const std::uint64_t h = set_hash(r, ns.words);
    int g = group_find(table, r, size, h);
    if (g < 0) g = group_add(table, r, size, h, 0, -2);
    out.group_of_node[v] = g;
  }
  const int ngroups = table.ngroups();
  // present[t * ngroups + g]: tree t has group g.
  const int ntrees = static_cast<int>(rows.size());
  std::vector<std::uint8_t> present(static_cast<std::size_t>(ntrees) * ngroups, 0);
  for (int t = 0; t < ntrees; ++t) {
    compute_node_sets(rows[t], excluded.data(), ns);
    const std::int32_t* tr = rows[t];
    for (int v = ntax + 1; v < tr[ntax]; ++v) {
      const int size = ns.sizes[v];
      if (size < 2 || size >= included) continue;
      const std::uint64_t* r = ns.row(v);
      const int g = group_find(table, r, size, set_hash(r, ns.words));
      if (g >= 0) present[static_cast<std::size_t>(t) * ngroups + g] = 1;
    }
  }
  const double inf = std::numeric_limits<double>::infinity();
  std::vector<double> lacking(ngroups, inf);
  for (int t = 0; t < ntrees; ++t)
    for (int g = 0; g < ngroups; ++g)
      if (!present[static_cast<std::size_t>(t) * ngroups + g]) lacking[g] = std::min(lacking[g], scores[t]);
  std::vector<double> absolute(ngroups), relative(ngroups, 0.0);
  std::vector<std::uint8_t> bound(ngroups, 0);
  for (int g = 0; g < ngroups; ++g) {
    if (lacking[g] == inf) {
      absolute[g] = out.worst - out.best;
      bound[g] = 1;
    } else {
      absolute[g] = lacking[g] - out.best;
    }
  }
  if (!char_scores.empty()) {
    for (int g = 0; g < ngroups; ++g) {
      const double limit = out.best + absolute[g] + 1e-9;
      double r = inf;
      for (int a = 0; a < ntrees; ++a) {
        if (!present[static_cast<std::size_t>(a) * ngroups + g]) continue;
        if (within_only && scores[a] > limit) continue;
        for (int b = 0; b < ntrees; ++b) {
          if (present[static_cast<std::size_t>(b) * ngroups + g]) continue;
          if (within_only && scores[b] > limit) continue;
          r = std::min(r, relative_fit_difference(char_scores[a], char_scores[b]));
        }
      }
      // No pair to compare: a group in every tree keeps the largest value, a group
      // without trees to compare within its support has none.
      // A negative difference (the tree without the group fits better) is no support.
      relative[g] = r == inf ? (bound[g] ? 1.0 : 0.0) : std::max(0.0, r);
    }
  }
  for (int v = 0; v < nodes; ++v) {
    const int g = out.group_of_node[v];
    if (g < 0) continue;
    out.absolute[v] = absolute[g];
    out.lower_bound[v] = bound[g];
    out.relative[v] = char_scores.empty() ? -1 : relative[g];
  }
  return out;
}

}  // namespace qax::support
