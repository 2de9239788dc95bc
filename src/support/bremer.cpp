// bsupport: Bremer supports from the trees in memory. Options first, then the trees and
// "/" the taxa to prune. The trees are scored afresh (per character when relative
// supports are wanted), the strict consensus of the best ones gives the groups, and the
// values are drawn on it.
#include <algorithm>
#include <functional>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

#include "dataset/dataset.h"
#include "optim/implied.h"
#include "optim/packed.h"
#include "optim/reports.h"
#include "search/settings.h"
#include "shell/failure.h"
#include "shell/input.h"
#include "shell/output.h"
#include "shell/state.h"
#include "support/bremer.h"
#include "support/command_helpers.h"
#include "support/consensus.h"
#include "support/group_set.h"
#include "support/supports.h"
#include "support/temp_collapse.h"
#include "trees/store.h"

namespace qax::support {

using namespace qax::shell;
using qax::dataset::dataset;
using qax::trees::tree_row;
using qax::trees::tree_store;

namespace {

enum Formula { formula_none = 0, formula_power = 1, formula_complement = 2 };

struct BremerOptions {
  bool has_cut = false;
  double cut = 0;          // =N: collapse groups below
  bool keep = false;       // *
  int relative = 0;        // 1 "[", 2 "]"
  bool tbr = false;        // !N
  int tbr_tree = 0;        // N of !N
  bool tbr_plus = false;   // !+N: the tree's own excess counts
  bool tbr_keep_all = false;  // !!: no group of the reference collapses
  int formula = formula_none;
  bool quick = false;          // :T/P
  int quick_tree = 0;
  double quick_proportion = -1;
  double x = 0.36;
  double factor = 1.0;
  bool quiet = false;          // for the list expression: values kept, nothing shown
};

// Values by node of the last quiet run (-1 for nodes without a group).
std::vector<double> list_values;

// "*F" after the probability of & and |.
double read_factor() {
  if (!accept_char('*')) return 1.0;
  const int c = peek_char();
  if (!std::isdigit(c) && c != '.') error_exit("Symbol '*' must be followed by factor for absolute bremer supports");
  const double f = read_real();
  if (f <= 0) error_exit("Factor for absolute bremer supports must be greater than 0");
  return f;
}

BremerOptions read_options() {
  BremerOptions o;
  o.x = bremer_settings.deletion;
  o.factor = bremer_settings.factor;
  for (;;) {
    const int c = peek_char();
    if (c == '=') {
      next_char();
      o.has_cut = true;
      o.cut = read_real();
    } else if (c == '*') {
      next_char();
      o.keep = true;
    } else if (c == '[') {
      next_char();
      o.relative = 1;
    } else if (c == ']') {
      next_char();
      o.relative = 2;
    } else if (c == '!') {
      next_char();
      if (o.tbr) error_exit("TBR-checking for bremer supports cannot be specified twice");
      o.tbr = true;
      if (accept_char('!')) o.tbr_keep_all = true;
      if (accept_char('+')) o.tbr_plus = true;
      if (!std::isdigit(peek_char())) error_exit("Must specify reference tree for TBR-checking of bremer supports");
      o.tbr_tree = read_int();
      if (o.tbr_tree < 0 || o.tbr_tree >= tree_store.ntrees) error_exit({"No tree", number_text(o.tbr_tree)});
    } else if (c == ':') {
      next_char();
      o.quick = true;
      if (!std::isdigit(peek_char())) error_exit("Must specify tree for quick estimate of suboptimal");
      o.quick_tree = read_int();
      if (o.quick_tree < 0 || o.quick_tree >= tree_store.ntrees) error_exit({"No tree", number_text(o.quick_tree)});
      if (accept_char('/')) {
        o.quick_proportion = read_real();
        if (o.quick_proportion < 0 || o.quick_proportion > 1) error_exit("Proportion of groups must be 0-1");
      }
      return o;
    } else if (c == '&' || c == '|') {
      next_char();
      o.formula = c == '&' ? formula_power : formula_complement;
      const int d = peek_char();
      if (std::isdigit(d) || d == '.') {
        o.x = read_real();
        if (o.x >= 1) error_exit("Deletion probability must be less than 1");
      }
      o.factor = read_factor();
      if (o.relative == 0) o.relative = 1;
    } else {
      break;
    }
  }
  if (o.has_cut && o.cut < 0 && !o.tbr) error_exit("Cutoff for Bremer cannot be negative (unless TBR is used)");
  if (o.tbr && o.relative && qax::search::search_settings.relative_suboptimal <= 0)
    error_exit("To calculate relative bremer supports with TBR, you must specify a relative suboptimal value");
  return o;
}

// Per-character scores of a stored tree: weighted steps, or fits under implied weights.
std::vector<double> tree_char_scores(int k) { return row_char_scores(tree_row(k)); }

std::string format_value(double v, bool integer) {
  char text[64];
  if (integer) std::snprintf(text, sizeof text, "%.0f", v);
  else std::snprintf(text, sizeof text, "%.*f", std::clamp(switches.table_decimals, 0, 10), v);
  return text;
}

// Score of one step added to a character without homoplasy: 1 under equal weights, the
// fit difference between 0 and 1 extra step, 1/(K+1), under implied weights.
double step_unit(bool implied) { return implied ? 1.0 / (qax::optim::implied_settings.concavity + 1.0) : 1.0; }

// Values on the tree, the collapsing of =N, the title and the notes.
void present(const BremerOptions& o, BremerResult& r, const std::vector<std::int32_t>& consensus,
             const std::vector<std::uint8_t>& excluded, int n, bool implied) {
  const int ntax = tree_store.ntax;
  // Values by node.
  const bool integer = !implied;
  std::vector<double> value(2 * ntax - 1, -1);
  std::vector<std::uint8_t> has(2 * ntax - 1, 0);
  for (int v = ntax + 1; v < consensus[ntax]; ++v) {
    if (r.group_of_node[v] < 0) continue;
    has[v] = 1;
    const double a = r.absolute[v];
    if (o.formula == formula_none) {
      value[v] = o.relative ? 100.0 * r.relative[v] : a;
      continue;
    }
    const double rel = std::max(0.0, r.relative[v]);
    double abs = a / 1.0;
    if (!implied && abs < 1) abs = 1;
    if (o.formula == formula_power) {
      const double wo = o.factor * step_unit(implied);
      value[v] = combined_power(rel, abs, o.x, wo);
    } else {
      value[v] = combined_complement(rel, abs, o.x, o.factor * step_unit(implied));
    }
  }
  // =N: groups below the cutoff collapse.
  std::vector<std::int32_t> shown = consensus;
  if (o.has_cut) {
    // Each kept node hangs from its nearest kept ancestor; the values follow the nodes
    // through the renumbering.
    std::vector<std::uint8_t> keep_node(2 * ntax - 1, 1);
    for (int v = ntax + 1; v < consensus[ntax]; ++v)
      if (has[v] && value[v] < o.cut - 1e-9) keep_node[v] = 0;
    auto kept_parent = [&](int v) {
      int p = consensus[v];
      while (p != ntax && !keep_node[p]) p = consensus[p];
      return p;
    };
    std::vector<int> newnum(2 * ntax - 1, -1);
    int next = ntax + 1;
    newnum[ntax] = ntax;
    for (int v = ntax + 1; v < consensus[ntax]; ++v)
      if (keep_node[v]) newnum[v] = next++;
    std::vector<std::int32_t> tree(2 * ntax - 1, 0);
    std::vector<std::string> origin(2 * ntax - 1);
    for (int t = 0; t < ntax; ++t) tree[t] = consensus[t] >= ntax ? newnum[kept_parent(t)] : 0;
    for (int v = ntax + 1; v < consensus[ntax]; ++v)
      if (keep_node[v]) {
        tree[newnum[v]] = newnum[kept_parent(v)];
        origin[newnum[v]] = std::to_string(v);
      }
    tree[ntax] = next;
    qax::trees::reset_node_numbers(tree.data(), ntax, &origin);
    std::vector<double> fv(2 * ntax - 1, -1);
    std::vector<std::uint8_t> fh(2 * ntax - 1, 0), fb(2 * ntax - 1, 0);
    for (int v = ntax + 1; v < tree[ntax]; ++v)
      if (!origin[v].empty()) {
        const int old = std::stoi(origin[v]);
        fv[v] = value[old];
        fh[v] = has[old];
        fb[v] = r.lower_bound[old];
      }
    shown = tree;
    value = fv;
    has = fh;
    r.lower_bound = fb;
  }
  std::vector<std::string> labels(2 * ntax - 1);
  double sum = 0;
  for (int v = ntax + 1; v < shown[ntax]; ++v) {
    if (!has[v]) continue;
    const bool as_integer = o.relative || o.formula ? true : integer;
    std::string text = format_value(value[v], as_integer);
    // Under TBR a relative value that no rearrangement lowered is a lower bound as well.
    if (r.lower_bound[v] && !o.formula && (!o.relative || o.tbr)) text = "[" + text + "]";
    labels[v] = text;
    sum += value[v];
  }
  int intree = 0;
  for (int t = 0; t < ntax; ++t) intree += shown[t] >= ntax && !excluded[t];
  set_last_support(intree > 2 ? sum / (intree - 2) : 0);
  if (o.quiet) {
    list_values.assign(shown[ntax], -1.0);
    for (int v = ntax + 1; v < shown[ntax]; ++v)
      if (has[v]) list_values[v] = value[v];
    if (o.keep) keep_tree(shown, "Bremer_support_tree");
    return;
  }
  const double cut = r.worst - r.best;
  char title[256];
  if (o.formula) {
    std::snprintf(title, sizeof title, "Combined bremer supports (from %i trees, cut %.0f)", n, cut);
  } else if (o.relative) {
    std::snprintf(title, sizeof title, "Relative bremer supports (from %i trees, cut %.0f)", n, cut);
  } else {
    std::snprintf(title, sizeof title, "Bremer supports (from %i trees, cut %s)", n, format_value(cut, integer).c_str());
  }
  std::string full = title;
  if (o.keep) {
    const int k = keep_tree(shown, "Bremer_support_tree");
    full += ", stored as tree " + std::to_string(k);
  }
  if (o.relative == 2) out_text({"Relative Bremer supports will consider only\ntrees within absolute Bremer supports\n"});
  show_support_tree(shown.data(), labels, full);
  if (o.relative)
    out_text({"Note: fastest algorithm used to calculate supports ",
              o.relative == 2 ? "(only trees within absolute support)" : "", "\n"});
  if (o.formula == formula_power) {
    if (o.factor == 1.0) out_printf("Supports calculated as S =(%.5fxR)^(%.5f/A)\n", 1.0 - o.x, step_unit(implied));
    else out_printf("Supports calculated as S =(%.5fxR)^(%.5fx%.5f/A)\n", 1.0 - o.x, step_unit(implied), o.factor);
  } else if (o.formula == formula_complement) {
    if (o.factor == 1.0) out_printf("Supports calculated as S = 1 - ( 1 - Rx%.5f )^(A/%.5f)\n", o.x, step_unit(implied));
    else out_printf("Supports calculated as S = 1 - ( 1 - Rx%.5f )^(A/%.5fx%.5f)\n", o.x, step_unit(implied), o.factor);
  }
  if (o.tbr) out_text({"TBR-swapping used to approximate supports\n"});
}

void bsupport_tbr(const BremerOptions& o) {
  const int ntax = tree_store.ntax;
  std::vector<std::uint8_t> user = read_excluded_taxa();
  const int og = dataset.outgroup;
  if (og >= 0 && og < ntax && user[og])
    error_exitf("Cannot exclude outgroup taxon (%i = %s) for TBR bremer calculations", og, dataset.taxon_names[og].c_str());
  if (qax::search::search_settings.suboptimal <= 0)
    out_text({"Bremer calculation with TBR uses swaps within specified\nvalue of suboptimal, but no suboptimal value was specified.\nCurrent settings will only identify unsupported groups\n"});
  std::vector<std::uint8_t> excluded(ntax, 0);
  for (int t = 0; t < ntax; ++t) {
    if (user[t]) excluded[t] = excluded_by_user;
    else if (tree_row(o.tbr_tree)[t] < ntax) excluded[t] = excluded_as_missing;
  }
  std::vector<std::int32_t> shown;
  BremerResult r = bremer_by_tbr(o.tbr_tree, o.tbr_plus, o.tbr_keep_all, o.relative, excluded, shown);
  clear_progress();
  // The bounds shown are those of the values shown.
  if (o.relative && !o.formula) r.lower_bound = r.relative_bound;
  present(o, r, shown, excluded, 1, qax::optim::implied_settings.implied_on != 0);
}

// Score of a parent array: weighted steps, or fits under implied weights.
double parent_score(const std::vector<std::int32_t>& tree) {
  double total = 0;
  for (double v : row_char_scores(tree.data())) total += v;
  return total;
}

// bsupport :T/P: for each group of tree T the rise in score when its branch collapses,
// an upper bound of its support; the largest, or the value at rank P of the groups sorted
// by decreasing value, is the suboptimal value a search for supports needs.
void quick_estimate(const BremerOptions& o) {
  const int ntax = tree_store.ntax;
  qax::dataset::minmax_check();
  qax::optim::pack_data(false, false);
  const std::int32_t* t = tree_row(o.quick_tree);
  std::vector<std::int32_t> base(t, t + tree_store.row_size);
  const double score = parent_score(base);
  std::vector<double> rise;
  for (int v = ntax + 1; v < base[ntax]; ++v) {
    std::vector<std::int32_t> c = base;
    for (int u = 0; u < base[ntax]; ++u)
      if (u != ntax && c[u] == v && !(u < ntax && base[u] < ntax)) c[u] = base[v];
    c[v] = 0;
    qax::trees::reset_node_numbers(c.data(), ntax);
    rise.push_back(parent_score(c) - score);
    show_progress(v - ntax, base[ntax] - ntax, "Collapsing groups");
  }
  clear_progress();
  if (rise.empty()) error_exitf("Tree %i has no groups", o.quick_tree);
  std::sort(rise.begin(), rise.end(), std::greater<double>());
  const bool integer = qax::optim::implied_settings.implied_on == 0;
  char text[64];
  if (o.quick_proportion < 0) {
    std::snprintf(text, sizeof text, integer ? "%.0f" : "%.3f", rise.front());
    out_printf("Suboptimal needed to collapse all groups of tree %i: %s\n", o.quick_tree, text);
  } else {
    const int rank = std::min(static_cast<int>(rise.size()) - 1, static_cast<int>(o.quick_proportion * rise.size()));
    std::snprintf(text, sizeof text, integer ? "%.0f" : "%.3f", rise[rank]);
    out_printf("Suboptimal needed to collapse all but %.3f of the best groups of tree %i: %s\n", o.quick_proportion,
               o.quick_tree, text);
  }
  out_text({"(an estimate from the collapsing of each branch; not meant as a setting for searches)\n"});
}

}  // namespace

namespace {

void run_bsupport(bool quiet) {
  qax::dataset::require_data();
  BremerOptions o = read_options();
  o.quiet = quiet;
  if (o.quick && quiet) error_exit("The quick estimate of suboptimal gives no list of supports");
  if (o.quick) {
    quick_estimate(o);
    return;
  }
  if (o.tbr) {
    bsupport_tbr(o);
    return;
  }
  std::vector<int> trees = read_selected_trees();
  std::vector<std::uint8_t> user = read_excluded_taxa();
  if (trees.size() < 2) error_exitf("Cannot calculate Bremer supports with %i trees (select 2 or more)", static_cast<int>(trees.size()));
  const int ntax = tree_store.ntax;
  const bool implied = qax::optim::implied_settings.implied_on != 0;
  qax::dataset::minmax_check();
  qax::optim::pack_data(false, false);
  // Scores (and per-character scores) of every tree.
  std::vector<double> scores;
  std::vector<std::vector<double>> char_scores;
  const int n = static_cast<int>(trees.size());
  for (int i = 0; i < n; ++i) {
    show_progress(i, n, "Optimizing");
    std::vector<double> cs = tree_char_scores(trees[i]);
    double total = 0;
    for (double v : cs) total += v;
    scores.push_back(total);
    if (o.relative) char_scores.push_back(std::move(cs));
  }
  TempCollapse collapse("bsupport");
  std::vector<std::uint8_t> excluded;
  prepare_exclusions(trees, user, consensus_settings.unshared, excluded);
  std::vector<const std::int32_t*> rows;
  for (int k : trees) rows.push_back(consensus_row(k));
  // The groups: strict consensus of the trees of best score.
  show_progress(0, 0, "Consensing");
  const double best = *std::min_element(scores.begin(), scores.end());
  std::vector<const std::int32_t*> best_rows;
  for (int i = 0; i < n; ++i)
    if (scores[i] <= best + 1e-9) best_rows.push_back(rows[i]);
  std::vector<std::int32_t> consensus(2 * ntax - 1);
  strict_of_rows(best_rows, excluded, consensus.data());
  show_progress(0, 0, o.relative ? "Doing relative supports" : "Absolute supports");
  BremerResult r = bremer_from_trees(rows, scores, char_scores, excluded, consensus.data(), o.relative == 2);
  clear_progress();
  present(o, r, consensus, excluded, n, implied);
}

}  // namespace

void cmd_bsupport() { run_bsupport(false); }

std::vector<double> bremer_list() {
  list_values.clear();
  run_bsupport(true);
  return list_values;
}

}  // namespace qax::support
