// Handlers of prunnelsen, pruncom, prunmajor, prupdn, resols and the placement form
// of nelsen: they read their options, run a calculation of pruning.cpp or
// resolutions.cpp and report through the tree diagrams.
#include "support/pruning_commands.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <functional>
#include <numeric>
#include <string>

#include "dataset/dataset.h"
#include "dataset/lists_bridge.h"
#include "optim/collapse.h"
#include "shell/failure.h"
#include "shell/input.h"
#include "shell/output.h"
#include "support/command_helpers.h"
#include "support/consensus.h"
#include "support/pruning.h"
#include "support/temp_collapse.h"
#include "trees/display.h"
#include "trees/store.h"

namespace qax::support {

using namespace qax::shell;
using qax::dataset::dataset;
using qax::trees::tree_row;
using qax::trees::tree_store;

namespace {

constexpr int max_located = 50;
constexpr int taxon_group_count = 32;

std::string taxon_name(int t) {
  return t < static_cast<int>(dataset.taxon_names.size()) ? dataset.taxon_names[t] : std::to_string(t);
}

std::string taxa_text(const std::vector<int>& taxa) {
  std::string s;
  for (int t : taxa) s += " " + taxon_name(t);
  return s;
}

std::vector<std::uint8_t> read_taxa_flags() {
  std::vector<std::int8_t> flags;
  qax::dataset::read_taxon_list(flags);
  std::vector<std::uint8_t> out(tree_store.ntax, 0);
  for (int i = 0; i < tree_store.ntax && i < static_cast<int>(flags.size()); ++i) out[i] = flags[i] == 1;
  return out;
}

// ">G" or "<G": a taxon group to add taxa to (+1) or remove them from (-1); 0 none.
int read_taxon_group_target(int& group) {
  const int c = peek_char();
  if (c != '>' && c != '<') return 0;
  next_char();
  group = read_int();
  if (group < 0 || group >= taxon_group_count) error_exit("Only taxon groups 0-31 can be defined");
  return c == '>' ? 1 : -1;
}

void apply_taxon_group(int direction, int group, const std::vector<int>& taxa) {
  if (!direction) return;
  auto& masks = dataset.taxon_groups;
  masks.resize(dataset.ntax, 0);
  if (dataset.taxon_group_names.size() < static_cast<std::size_t>(taxon_group_count))
    dataset.taxon_group_names.resize(taxon_group_count);
  for (int t : taxa) {
    if (direction > 0) masks[t] |= 1u << group;
    else masks[t] &= ~(1u << group);
  }
  out_printf("%i taxa %s taxon group %i\n", static_cast<int>(taxa.size()), direction > 0 ? "added to" : "removed from",
             group);
}

int child_count(const std::int32_t* tree, int ntax, int node) {
  int n = 0;
  for (int v = 0; v < tree[ntax]; ++v)
    if (v != ntax && tree[v] == node && !(v < ntax && tree[v] < ntax)) ++n;
  return n;
}

// prunnelsen and pruncom.
void pruning_command(PruneBase base) {
  const char* name = base == PruneBase::strict ? "prunnelsen" : "pruncom";
  qax::trees::require_data();
  PruneOptions options;
  bool list = false, store = false, max_given = false, agreement = false;
  for (;;) {
    const int c = peek_char();
    if (c == '=') {
      next_char();
      options.max_pruned = read_int();
      if (options.max_pruned < 1) error_exit({"Invalid option for", name});
      max_given = true;
    } else if (c == '>') {
      next_char();
      options.min_gain = read_int();
      if (options.min_gain < 0) error_exit({"Invalid option for", name});
    } else if (c == '[') {
      next_char();
      options.node = read_int();
      if (!accept_char(']')) error_exit({"Invalid option for", name});
    } else if (c == '&') {
      next_char();
      list = true;
    } else if (c == '*') {
      next_char();
      store = true;
    } else if (c == '+' || c == '!') {
      next_char();
      if (base != PruneBase::strict) error_exit({"Invalid option for", name});
      agreement = true;
      if (c == '+' && options.node >= 0) error_exit("Can't specify a node together with maximum pruns (+)");
      if (c == '+' && max_given) error_exit("Can't specify number of pruns together with maximum pruns (+)");
    } else {
      break;
    }
  }
  if (store && list) error_exit("Can't use * and &");
  if (agreement) error_exit("Agreement subtrees are not available yet in this version");
  std::vector<int> trees = read_selected_trees();
  std::vector<std::uint8_t> user = read_excluded_taxa();
  std::vector<std::uint8_t> forced(tree_store.ntax, 0);
  int group = 0, direction = 0;
  for (;;) {
    if (accept_char('\\')) {
      forced = read_taxa_flags();
    } else if (peek_char() == '>' || peek_char() == '<') {
      direction = read_taxon_group_target(group);
    } else {
      break;
    }
  }
  const int ntax = tree_store.ntax;
  for (int t = 0; t < ntax; ++t)
    if (forced[t] && user[t]) error_exit("Cannot force inclusion and exclude a taxon at the same time");
  TempCollapse collapse(name);
  std::vector<std::uint8_t> excluded;
  prepare_exclusions(trees, user, consensus_settings.unshared, excluded);
  std::vector<std::int32_t> consensus(2 * ntax - 1);
  base_consensus(base, trees, excluded, consensus.data());
  if (options.node >= 0 && (options.node <= ntax || options.node >= consensus[ntax]))
    error_exit("[N] must refer to an internal node in consensus");
  bool truncated = false;
  std::vector<Pruning> found = find_prunings(base, trees, excluded, forced, consensus.data(), options, truncated);
  clear_progress();
  if (truncated) out_printf("Too many solutions for prun = %i (first %i kept)\n", options.max_pruned,
                            options.max_solutions);
  if (found.empty()) {
    if (options.node >= 0)
      out_printf("Node %i (%i-tomy),     No improvements\n", options.node, child_count(consensus.data(), ntax, options.node));
    else
      out_text({"Consensus can't be improved by pruning\n"});
    return;
  }
  if (list) {
    for (const Pruning& p : found)
      for (int j = ntax; j < consensus[ntax]; ++j) {
        if (!p.per_node[j] || (options.node >= 0 && j != options.node)) continue;
        out_printf("Node %i (%i-tomy), %i node(s) gained pruning", j, child_count(consensus.data(), ntax, j), p.per_node[j]);
        out_text({taxa_text(p.taxa), "\n"});
      }
  } else {
    int k = 0;
    for (const Pruning& p : found) {
      std::string title = "Pruning " + std::to_string(k++);
      if (options.node >= 0) title += " (Node " + std::to_string(options.node) + ")";
      title += " (" + std::to_string(p.gain) + " nodes gained), taxa pruned:" + taxa_text(p.taxa);
      if (!store) {
        qax::trees::draw_tree(p.tree.data(), ntax, nullptr, title);
        continue;
      }
      if (tree_store.ntrees >= tree_store.maxtrees) {
        out_text({"Cannot store more prunings (tree buffer full)\n"});
        break;
      }
      // The pruned taxa go to the base of the kept tree.
      std::vector<std::int32_t> kept(p.tree);
      for (int t : p.taxa) kept[t] = ntax;
      qax::trees::reset_node_numbers(kept.data(), ntax);
      const int at = keep_tree(kept, base == PruneBase::strict ? "Pruned_strict" : "Pruned_combinable");
      out_text({title, ", saved as tree ", std::to_string(at), "\n"});
    }
  }
  // The taxa of the best pruning go to (or out of) the taxon group.
  std::size_t best = 0;
  for (std::size_t i = 1; i < found.size(); ++i)
    if (found[i].gain > found[best].gain) best = i;
  apply_taxon_group(direction, group, found[best].taxa);
}

// Indices of the n largest positive values, largest first (ties by index).
std::vector<int> best_taxa(const std::vector<double>& score, int n) {
  std::vector<int> idx;
  for (int t = 0; t < static_cast<int>(score.size()); ++t)
    if (score[t] > 0) idx.push_back(t);
  std::stable_sort(idx.begin(), idx.end(), [&](int a, int b) { return score[a] > score[b]; });
  if (static_cast<int>(idx.size()) > n) idx.resize(n);
  return idx;
}

}  // namespace

void cmd_prunnelsen() { pruning_command(PruneBase::strict); }
void cmd_pruncom() { pruning_command(PruneBase::combinable); }

void cmd_prunmajor() {
  auto& cs = consensus_settings;
  bool per_node = false, differences = false, set_something = false;
  int show = 1;
  for (;;) {
    const int c = peek_char();
    if (c == '&') {
      next_char();
      if (!std::isdigit(peek_char()) && peek_char() != '.') error_exit("Must indicate max. pruning");
      const double p = read_real();
      if (p <= 0 || p > 1) error_exit("Must indicate max. pruning");
      cs.prune_proportion = p;
      out_printf("Max. proportion for removal is %.3f of group size\n", p);
      set_something = true;
    } else if (c == '[') {
      next_char();
      const int x = read_int(), y = read_int();
      if (x <= 0) error_exitf("Cannot give zero weight to taxa %sside groups", "in");
      if (y <= 0) error_exitf("Cannot give zero weight to taxa %sside groups", "out");
      accept_char(']');
      cs.prune_cost_in = x;
      cs.prune_cost_out = y;
      out_printf("Weights for taxa inside/outside: %i - %i\n", x, y);
      set_something = true;
    } else if (c == '+') {
      next_char();
      per_node = true;
    } else if (c == '=') {
      next_char();
      show = read_int();
      if (show < 1) error_exit("Invalid option for prunmajor");
    } else if (c == '*') {
      next_char();
      differences = true;
    } else {
      break;
    }
  }
  if (set_something && peek_char() == ';') return;
  qax::trees::require_data();
  if (!std::isdigit(peek_char())) error_exit("Must specify tree with reference groups");
  const int reference = read_int();
  if (reference >= tree_store.ntrees) error_exit({"No tree", number_text(reference)});
  const int ntax = tree_store.ntax;
  std::vector<int> nodes;
  while (std::isdigit(peek_char())) {
    const int v = read_int();
    if (v <= ntax || v >= tree_row(reference)[ntax]) error_exit("[N] must refer to an internal node in consensus");
    nodes.push_back(v);
  }
  std::vector<int> trees;
  std::vector<std::uint8_t> user(ntax, 0), keep(ntax, 0);
  if (accept_char('/')) {
    trees = read_selected_trees();
    user = read_excluded_taxa();
  } else {
    for (int k = 0; k < tree_store.ntrees; ++k) trees.push_back(k);
  }
  int group = 0, direction = 0;
  for (;;) {
    if (accept_char('\\')) keep = read_taxa_flags();
    else if (peek_char() == '>' || peek_char() == '<') direction = read_taxon_group_target(group);
    else break;
  }
  for (int t = 0; t < ntax; ++t)
    if (keep[t] && user[t]) error_exitf("Cannot both exclude/include a taxon (%s)", taxon_name(t).c_str());
  TempCollapse collapse("prunmajor");
  collapse.keep_as_stored(reference);
  std::vector<std::uint8_t> excluded;
  prepare_exclusions(trees, user, cs.unshared, excluded);
  bool all_kept = true;
  for (int t = 0; t < ntax; ++t) all_kept &= excluded[t] || keep[t];
  if (all_kept) error_exit("All taxa have been marked for non-exclusion; this does nothing!");
  if (trees.size() == 1 && trees[0] == reference) error_exit("Can't compare tree with itself");
  RogueScores r = rogue_scores(reference, nodes, trees, excluded, keep, differences);
  out_text({differences ? "Prunings to improve frequency differences:\n" : "Prunings to improve majority rule:\n"});
  char line[64];
  if (per_node)
    for (std::size_t k = 0; k < r.nodes.size(); ++k) {
      const auto& s = r.per_node[k];
      const double top = *std::max_element(s.begin(), s.end());
      std::string text = "Node " + std::to_string(r.nodes[k]) + ": ";
      const auto best = best_taxa(s, show);
      if (best.empty()) text += "    No improvements";
      for (int t : best) {
        std::snprintf(line, sizeof line, " %s (%.2f)", taxon_name(t).c_str(), s[t] / top);
        text += line;
      }
      out_text({text, "\n"});
    }
  out_text({"Global results:\n", "   Score  number / taxon\n"});
  const double top = r.global.empty() ? 0 : *std::max_element(r.global.begin(), r.global.end());
  const auto best = best_taxa(r.global, show);
  if (best.empty()) out_text({"    No improvements\n"});
  for (int t : best) {
    std::snprintf(line, sizeof line, "   %-5.2f   %5i  ", r.global[t] / top, t);
    out_text({line, taxon_name(t), "\n"});
  }
  apply_taxon_group(direction, group, best);
}

void cmd_prupdn() {
  qax::trees::require_data();
  if (!std::isdigit(peek_char())) error_exit("Invalid option for prupdn");
  const int from = read_int();
  if (!std::isdigit(peek_char())) error_exit("Invalid option for prupdn");
  const int into = read_int();
  if (from < 0 || from >= taxon_group_count || into < 0 || into >= taxon_group_count)
    error_exit("Only taxon groups 0-31 can be defined");
  UpdnOptions o;
  bool separator_given = false;
  for (;;) {
    const int c = peek_char();
    if (c == '>' || c == '<') {
      next_char();
      o.up = c == '<';
    } else if (c == ':') {
      next_char();
      const double f = read_real();
      if (f < 0 || f > 100) error_exit("Invalid option for prupdn");
      o.factor = f / 100;
    } else if (c == '*') {
      next_char();
      o.differences = true;
    } else if (c == '=') {
      next_char();
      o.max_set = read_int();
      if (o.max_set < 1) error_exit("Invalid option for prupdn");
    } else if (c == '&') {
      next_char();
      o.cutoff = read_int();
      if (o.cutoff < 0 || o.cutoff > 100) error_exit("Must specify a cutoff percentage 0-100");
    } else if (c == '!') {
      next_char();
      o.max_stages = read_int();
      if (o.max_stages < 1) error_exit("Invalid option for prupdn");
    } else if (c == '|') {
      next_char();
      o.separator = read_int();
      if (o.separator < 0 || o.separator > 100) error_exit("Must specify a cutoff percentage 0-100");
      separator_given = true;
    } else {
      break;
    }
  }
  if (!separator_given) o.separator = o.up ? -1 : 75;
  if (!o.differences && o.cutoff < 50) error_exit("Cannot do majority rule with cut < 50");
  std::vector<int> trees = read_selected_trees();
  std::vector<std::uint8_t> user = read_excluded_taxa();
  TempCollapse collapse("prupdn");
  std::vector<std::uint8_t> excluded;
  prepare_exclusions(trees, user, consensus_settings.unshared, excluded);
  const int ntax = tree_store.ntax;
  std::vector<std::uint8_t> pool(ntax, 0);
  int pooled = 0;
  for (int t = 0; t < ntax; ++t) {
    pool[t] = t < static_cast<int>(dataset.taxon_groups.size()) && (dataset.taxon_groups[t] >> from & 1) && !excluded[t];
    pooled += pool[t];
  }
  if (!pooled) error_exitf("No taxa of group %i to prune", from);
  UpdnResult r = updn_search(trees, excluded, pool, o);
  clear_progress();
  out_printf("Pruning taxa of group %i (%s), %s, cut %i, factor %.2f\n", from, o.up ? "up" : "down",
             o.differences ? "frequency differences" : "frequencies", o.cutoff, o.factor);
  out_printf("Initial value: %.3f\n", r.initial);
  int stage = 0;
  for (const auto& s : r.stages) {
    out_printf("Stage %i: %s", ++stage, o.up ? "unpruned" : "pruned");
    out_text({taxa_text(s.moved)});
    out_printf(", value %.3f\n", s.value);
  }
  std::vector<int> pruned;
  for (int t = 0; t < ntax; ++t)
    if (r.pruned[t]) pruned.push_back(t);
  out_printf("Final value: %.3f, %i taxa pruned (in taxon group %i)", r.stages.empty() ? r.initial : r.stages.back().value,
             static_cast<int>(pruned.size()), into);
  out_text({pruned.empty() ? "" : ":", taxa_text(pruned), "\n"});
  auto& masks = dataset.taxon_groups;
  masks.resize(ntax, 0);
  for (int t = 0; t < ntax; ++t) {
    if (r.pruned[t]) masks[t] |= 1u << into;
    else masks[t] &= ~(1u << into);
  }
}

namespace {

// A resolution as nested parentheses over the polytomy's children: terminals by name,
// internal children by node number.
std::string resolution_text(const PolytomyResolutions& p, const std::vector<std::vector<std::uint64_t>>& groups) {
  const int ntax = tree_store.ntax;
  const int m = static_cast<int>(p.children.size());
  auto has = [](const std::vector<std::uint64_t>& g, int i) { return (g[i / 64] >> (i % 64)) & 1; };
  auto count = [&](const std::vector<std::uint64_t>& g) {
    int n = 0;
    for (int i = 0; i < m; ++i) n += has(g, i);
    return n;
  };
  // Recursive print of the laminar family: within `scope`, the maximal groups, then
  // the children not in any of them.
  std::vector<std::uint64_t> all((m + 63) / 64, 0);
  for (int i = 0; i < m; ++i) all[i / 64] |= std::uint64_t{1} << (i % 64);
  auto inside = [&](const std::vector<std::uint64_t>& a, const std::vector<std::uint64_t>& b) {
    for (std::size_t w = 0; w < a.size(); ++w)
      if (a[w] & ~b[w]) return false;
    return true;
  };
  std::function<std::string(const std::vector<std::uint64_t>&)> show = [&](const std::vector<std::uint64_t>& scope) {
    std::string s = "(";
    std::vector<std::uint64_t> covered(scope.size(), 0);
    bool first = true;
    for (int i = 0; i < m; ++i) {
      if (!has(scope, i) || has(covered, i)) continue;
      // Largest group inside scope (not scope itself) that holds child i.
      const std::vector<std::uint64_t>* top = nullptr;
      for (const auto& g : groups)
        if (g != scope && has(g, i) && inside(g, scope) && (!top || count(g) > count(*top))) top = &g;
      if (!first) s += " ";
      first = false;
      if (top) {
        s += show(*top);
        for (std::size_t w = 0; w < covered.size(); ++w) covered[w] |= (*top)[w];
      } else {
        const int c = p.children[i];
        s += c < ntax ? taxon_name(c) : "[" + std::to_string(c) + "]";
      }
    }
    return s + ")";
  };
  return show(all);
}

}  // namespace

void cmd_resols() {
  qax::trees::require_data();
  int node = -1;
  bool list = false;
  for (;;) {
    const int c = peek_char();
    if (c == '[') {
      next_char();
      node = read_int();
      if (!accept_char(']')) error_exit("Invalid option for resols");
    } else if (c == '&') {
      next_char();
      list = true;
    } else if (c == ';' || c == '/' || std::isdigit(c) || c == '{' || c == '.' || c == '>' || c == '<') {
      break;
    } else {
      next_char();
      error_exit("Invalid option for resols");
    }
  }
  std::vector<int> trees = read_selected_trees();
  std::vector<std::uint8_t> user = read_excluded_taxa();
  int group = -1, direction = 0;
  if (peek_char() == '>' || peek_char() == '<') {
    direction = next_char() == '>' ? 1 : -1;
    if (node < 0) error_exit("Trees can be put in groups only when doing a single node");
    group = read_int();
    if (group < 0) error_exit("Invalid option for resols");
  }
  TempCollapse collapse("resols");
  std::vector<std::uint8_t> excluded;
  prepare_exclusions(trees, user, consensus_settings.unshared, excluded);
  const int ntax = tree_store.ntax;
  std::vector<std::int32_t> consensus(2 * ntax - 1);
  strict_consensus(trees, excluded, consensus.data(), use_low_memory(ntax));
  if (node >= 0 && (node <= ntax || node >= consensus[ntax]))
    error_exit("[N] must refer to an internal node in consensus");
  auto found = polytomy_resolutions(trees, excluded, consensus.data(), node);
  clear_progress();
  int nexcl = 0;
  for (auto e : excluded) nexcl += e != 0;
  std::string title = "Strict consensus of " + std::to_string(trees.size()) + " trees";
  if (nexcl) title += " (" + std::to_string(nexcl) + " taxa excluded)";
  qax::trees::draw_tree(consensus.data(), ntax, nullptr, title);
  out_text({"     Node        Polytomy        Resolutions\n", "    ------      -----------     ------------\n"});
  char line[96];
  for (const auto& p : found) {
    std::snprintf(line, sizeof line, "%i-tomy", static_cast<int>(p.children.size()));
    std::string tomy = line;
    std::snprintf(line, sizeof line, "%10i%17s%17i\n", p.node, tomy.c_str(), static_cast<int>(p.resolutions.size()));
    out_text({line});
    if (!list) continue;
    for (std::size_t k = 0; k < p.resolutions.size(); ++k) {
      std::string trees_text;
      for (int t : p.trees[k]) trees_text += " " + std::to_string(t);
      std::snprintf(line, sizeof line, "        %3i: ", static_cast<int>(k));
      out_text({line, resolution_text(p, p.resolutions[k]), "  trees", trees_text, "\n"});
    }
  }
  out_text({"\n"});
  if (direction && !found.empty()) {
    const auto& p = found.front();
    const int nres = static_cast<int>(p.resolutions.size());
    if (group + nres > tree_store.group_capacity)
      error_exitf("Only %i tree groups can be defined", tree_store.group_capacity);
    for (int k = 0; k < nres; ++k) {
      const int g = group + k;
      qax::trees::group_wipe(g);
      tree_store.group_defined[g] = 1;
      char gname[64];
      std::snprintf(gname, sizeof gname, direction > 0 ? "Resol_%i_nd_%i" : "Not_Resol_%i_nd_%i", k, p.node);
      tree_store.group_names[g] = gname;
      std::vector<std::uint8_t> in(tree_store.ntrees, 0);
      for (int t : p.trees[k]) in[t] = 1;
      for (int t : trees)
        if ((direction > 0) == (in[t] != 0)) qax::trees::group_set_bit(t, g);
    }
    out_printf("Added trees resolving node %i to %i groups (starting at %i)\n", p.node, nres, group);
  }
}

void nelsen_placement(const std::vector<int>& trees, const std::vector<std::uint8_t>& user) {
  const int ntax = tree_store.ntax;
  std::vector<std::uint8_t> located(ntax, 0);
  if (peek_char() != ';') located = read_taxa_flags();
  std::vector<int> taxa;
  for (int t = 0; t < ntax; ++t)
    if (located[t]) taxa.push_back(t);
  if (taxa.empty()) error_exit("Must specify taxa to locate on pruned consensus");
  if (static_cast<int>(taxa.size()) > max_located)
    error_exitf("Cannot show location for more than %i taxa/nodes", max_located);
  // Placement walks the trees node by node, so only rules that act on one tree at a time.
  if (temp_collapse_applies() && qax::optim::collapse_settings.rule >= qax::optim::collapse_rule4)
    error_exit("For locating pruned taxa, trees can be collapsed with rule 1 or less;\n"
               "rules 4, SPR, or TBR cannot be used for this option");
  TempCollapse collapse("nelsen");
  std::vector<std::uint8_t> all(user);
  for (int t : taxa) all[t] = 1;
  std::vector<std::uint8_t> excluded;
  prepare_exclusions(trees, all, consensus_settings.unshared, excluded);
  std::vector<std::int32_t> consensus(2 * ntax - 1);
  strict_consensus(trees, excluded, consensus.data(), use_low_memory(ntax));
  auto marks = locate_taxa(trees, excluded, consensus.data(), taxa);
  clear_progress();
  std::vector<std::string> labels(2 * ntax - 1);
  std::string at_root;
  auto letter = [](std::size_t k) { return static_cast<char>(k < 26 ? 'A' + k : 'a' + (k - 26)); };
  for (std::size_t k = 0; k < taxa.size(); ++k)
    for (int v = 0; v < 2 * ntax - 1; ++v)
      if (marks[k][v]) {
        if (v == ntax) at_root += letter(k);
        else labels[v] += letter(k);
      }
  int nexcl = 0;
  for (auto e : excluded) nexcl += e != 0;
  std::string title = "Strict consensus of " + std::to_string(trees.size()) + " trees (" + std::to_string(nexcl) +
                      " taxa excluded)";
  qax::trees::draw_tree(consensus.data(), ntax, &labels, title);
  out_text({"Legends:\n"});
  for (std::size_t k = 0; k < taxa.size(); ++k) out_text({std::string(1, letter(k)), ": ", taxon_name(taxa[k]), "\n"});
  if (!at_root.empty()) out_text({"At the root: ", at_root, "\n"});
  out_text({"\n"});
}

}  // namespace qax::support
