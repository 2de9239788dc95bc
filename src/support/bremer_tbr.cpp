// bsupport !N: Bremer supports approximated by TBR swapping from the reference tree. The
// swapper visits every rearrangement within the suboptimal value without taking any;
// each rearrangement breaks some groups of the reference, and each group broken keeps the
// lowest score difference of the rearrangements that break it. A group never broken keeps
// the value suboptimal + 1, shown as a lower bound. Relative supports compare each
// rearranged tree with the reference character by character; they start at the relative
// suboptimal value, also a lower bound when no rearrangement breaks the group.
#include <algorithm>
#include <cmath>
#include <vector>

#include "dataset/dataset.h"
#include "optim/collapse.h"
#include "optim/implied.h"
#include "search/implied_swap.h"
#include "search/search_internal.h"
#include "search/settings.h"
#include "shell/failure.h"
#include "shell/output.h"
#include "shell/state.h"
#include "support/bremer.h"
#include "support/group_set.h"
#include "trees/store.h"

namespace qax::support {

using qax::trees::tree_row;
using qax::trees::tree_store;

namespace {

// What the swap hook works on.
struct TbrContext {
  GroupTable table;                  // groups of the reference
  NodeSets ns;                       // scratch for each rearranged tree
  std::vector<std::uint8_t> excluded;
  int included = 0;
  std::vector<double> support;       // per group
  std::vector<std::uint8_t> seen;    // per group: scratch marks
  double extra = 0;                  // added to each difference ("+")
  int relative = 0;                  // 0 none, 1 all moves, 2 moves at the absolute support
  std::vector<double> reference_scores;  // per character, of the reference
  std::vector<double> rel;           // per group: lowest relative fit difference
  double rel_ceiling = 1;            // the relative suboptimal value
  std::vector<std::int32_t> row;     // scratch tree
  std::vector<int> keep_anc, keep_left, keep_right;
};
TbrContext* context = nullptr;

// Accounts the rearranged tree in c.row, `diff` worse than the reference: each group of
// the reference it lacks keeps the lowest difference (and relative difference) seen.
void account(TbrContext& c, double diff) {
  const int ntax = tree_store.ntax;
  std::fill(c.seen.begin(), c.seen.end(), 0);
  compute_node_sets(c.row.data(), c.excluded.data(), c.ns);
  for (int v = ntax + 1; v < c.row[ntax]; ++v) {
    const int size = c.ns.sizes[v];
    if (size < 2 || size >= c.included) continue;
    const std::uint64_t* r = c.ns.row(v);
    const int g = group_find(c.table, r, size, set_hash(r, c.ns.words));
    if (g >= 0) c.seen[g] = 1;
  }
  double rfd = 0;
  if (c.relative)
    rfd = std::clamp(relative_fit_difference(c.reference_scores, row_char_scores(c.row.data())), 0.0, c.rel_ceiling);
  for (int g = 0; g < c.table.ngroups(); ++g) {
    if (c.seen[g]) continue;
    if (c.relative == 2) {
      // Only the rearrangements at the group's absolute support count.
      if (diff < c.support[g] - 1e-9) c.rel[g] = rfd;
      else if (diff <= c.support[g] + 1e-9) c.rel[g] = std::min(c.rel[g], rfd);
    } else if (c.relative) {
      c.rel[g] = std::min(c.rel[g], rfd);
    }
    c.support[g] = std::min(c.support[g], diff);
  }
}

bool visit_moves(qax::search::Engine& e, const std::vector<qax::search::Move>& records, std::int32_t base, double) {
  TbrContext& c = *context;
  c.keep_anc = e.anc;
  c.keep_left = e.left;
  c.keep_right = e.right;
  for (const auto& m : records) {
    e.apply_move(m);
    e.export_tree(c.row);
    e.anc = c.keep_anc;
    e.left = c.keep_left;
    e.right = c.keep_right;
    account(c, static_cast<double>(m.cost - base) + c.extra);
  }
  return qax::shell::shell_state.stop_search_flag != 0;
}

}  // namespace

BremerResult bremer_by_tbr(int reference, bool add_own_excess, bool keep_all, int relative,
                           const std::vector<std::uint8_t>& excluded, std::vector<std::int32_t>& shown) {
  const int ntax = tree_store.ntax;
  const auto& s = qax::search::search_settings;
  qax::search::search_prepare();
  // The best score of the trees in memory, for "+".
  const bool implied = qax::optim::implied_settings.implied_on != 0;
  if (implied) qax::dataset::minmax_check();
  double best = -1, own = 0;
  std::vector<std::int32_t> row;
  for (int k = 0; k < tree_store.ntrees; ++k) {
    row.assign(tree_row(k), tree_row(k) + tree_store.row_size);
    const double len = implied ? qax::search::implied_fit_of(row) : qax::trees::stored_tree_length(k);
    if (k == reference) own = len;
    if (best < 0 || len < best) best = len;
  }
  TbrContext c;
  c.excluded = excluded;
  for (auto e : excluded) c.included += e == 0;
  c.extra = add_own_excess ? own - best : 0;
  // The groups: of the tree as stored ("!!"), or of its collapsed form.
  if (keep_all) shown.assign(tree_row(reference), tree_row(reference) + tree_store.row_size);
  else qax::optim::collapsed_copy(tree_row(reference), shown);
  group_table_init(c.table, ntax);
  node_sets_init(c.ns, ntax);
  BremerResult out;
  out.absolute.assign(2 * ntax - 1, -1);
  out.lower_bound.assign(2 * ntax - 1, 0);
  out.relative.assign(2 * ntax - 1, -1);
  out.relative_bound.assign(2 * ntax - 1, 0);
  out.group_of_node.assign(2 * ntax - 1, -1);
  compute_node_sets(shown.data(), excluded.data(), c.ns);
  for (int v = ntax + 1; v < shown[ntax]; ++v) {
    const int size = c.ns.sizes[v];
    if (size < 2 || size >= c.included) continue;
    const std::uint64_t* r = c.ns.row(v);
    const std::uint64_t h = set_hash(r, c.ns.words);
    int g = group_find(c.table, r, size, h);
    if (g < 0) g = group_add(c.table, r, size, h, 0, -2);
    out.group_of_node[v] = g;
  }
  // Steps are whole: a rearrangement not seen is at least one step past the suboptimal.
  // Fits are not: it is past the suboptimal.
  const double ceiling = implied ? s.suboptimal : std::floor(s.suboptimal + 1e-9) + 1;
  c.support.assign(c.table.ngroups(), ceiling);
  c.seen.assign(c.table.ngroups(), 0);
  const double rel_ceiling = s.relative_suboptimal;
  c.relative = relative;
  c.rel_ceiling = rel_ceiling;
  c.rel.assign(c.table.ngroups(), rel_ceiling);
  if (relative) c.reference_scores = row_char_scores(tree_row(reference));
  std::vector<std::int32_t> tree(tree_row(reference), tree_row(reference) + tree_store.row_size);
  if (implied) {
    // Every rearrangement within the suboptimal fit, rated without rescoring.
    qax::shell::show_progress(0, 0, "TBR-swapping");
    qax::search::SearchRunning running;
    const double reference_fit = qax::search::implied_fit_of(tree);
    long long examined = 0;
    qax::search::implied_visit_tbr(tree, reference_fit + s.suboptimal - c.extra, examined,
                                   [&](const std::vector<std::int32_t>& t, double f) {
                                     const double diff = f - reference_fit + c.extra;
                                     if (diff > s.suboptimal + 1e-9) return false;
                                     c.row = t;
                                     account(c, diff);
                                     return qax::shell::shell_state.stop_search_flag != 0;
                                   });
  } else {
  context = &c;
  qax::search::swap_hook = visit_moves;
  struct Restore {
    ~Restore() {
      qax::search::swap_hook = nullptr;
      context = nullptr;
    }
  } restore;
  qax::shell::show_progress(0, 0, "TBR-swapping");
  qax::search::SearchRunning running;
  qax::search::swap_tbr(tree, 0, 0, 0);
  }
  out.best = best;
  out.worst = best + s.suboptimal;
  for (int v = ntax + 1; v < shown[ntax]; ++v) {
    const int g = out.group_of_node[v];
    if (g < 0) continue;
    out.absolute[v] = c.support[g];
    out.lower_bound[v] = c.support[g] >= ceiling;
    if (relative) {
      // "2": a group never broken has no rearrangement within its support to compare.
      const bool unbroken = c.support[g] >= ceiling;
      out.relative[v] = c.rel[g];
      out.relative_bound[v] = unbroken || c.rel[g] >= rel_ceiling - 1e-12;
    }
  }
  return out;
}

}  // namespace qax::support
