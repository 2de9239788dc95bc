// Character mapping on the stored trees: map (state sets by node), apo (changes by node)
// and blength (minimum branch lengths). One character at a time on the unpacked matrix, in
// the node numbers of the stored tree, so that reports agree with the tree diagrams.
// Sets come from the exact per-character passes of recons.h, so polytomies are allowed.
#include <algorithm>
#include <cmath>
#include <climits>
#include <bit>
#include <cstdio>
#include <string>
#include <vector>

#include "dataset/dataset.h"
#include "dataset/lists_bridge.h"
#include "optim/collapse.h"
#include "optim/implied.h"
#include "optim/recons.h"
#include "optim/wide.h"
#include "optim/reports.h"
#include "shell/failure.h"
#include "shell/input.h"
#include "shell/output.h"
#include "trees/display.h"
#include "trees/store.h"

namespace qax::optim {

using namespace qax::shell;
using qax::dataset::dataset;
using qax::trees::tree_store;

namespace {

// State sets of character c at every node (bit s = state s; 0 when the character has no
// scored state): the states in some best reconstruction, or with `downpass` the states of
// least cost for the subtree of each node (the first-pass sets). Polytomies are hard.
std::vector<std::uint32_t> char_finals(const CharTree& t, int c, bool downpass = false) {
  CharCosts costs;
  char_costs(t, c, false, costs);
  std::vector<std::uint32_t> sets;
  if (!downpass) {
    best_state_sets(t, costs, sets);
    return sets;
  }
  sets.assign(t.kids.size(), 0);
  for (int n : t.preorder) {
    const auto& d = costs.down[n];
    const std::int64_t least = *std::min_element(d.begin(), d.end());
    if (least >= cost_none) continue;
    for (int s = 0; s < 32; ++s) if (d[s] == least) sets[n] |= 1u << s;
  }
  return sets;
}

bool scored(int c) {
  const auto& r = dataset.chars[c];
  return r.active && r.weight != 0 && !r.is_continuous;
}

std::string set_text(int c, std::uint32_t v) { return state_set_text(c, v); }

struct Args {
  std::vector<int> trees;
  std::vector<int> chars;       // discrete characters listed (all when no list)
  std::vector<int> continuous;  // continuous characters listed
};

Args read_args() {
  qax::dataset::require_data();
  if (tree_store.ntrees == 0) error_exit("No trees in memory");
  Args a;
  std::vector<std::uint8_t> flags;
  int named = 0;
  if (peek_char() != ';' && peek_char() != '/') named = qax::trees::read_tree_list(flags, false);
  for (int k = 0; k < tree_store.ntrees; ++k)
    if (!named || (k < static_cast<int>(flags.size()) && flags[k] == 1)) a.trees.push_back(k);
  if (a.trees.empty()) error_exit("No trees specified");
  std::vector<std::int8_t> cf;
  if (accept_char('/')) qax::dataset::read_character_list(cf);
  for (int c = 0; c < dataset.nchar; ++c) {
    if (!cf.empty() && cf[c] != 1) continue;
    if (scored(c)) a.chars.push_back(c);
    else if (dataset.chars[c].active && dataset.chars[c].weight != 0 && dataset.chars[c].is_continuous) a.continuous.push_back(c);
  }
  qax::dataset::minmax_check();
  return a;
}

void line_of(const char* format, int a, int b = 0) {
  char text[160];
  std::snprintf(text, sizeof text, format, a, b);
  out_line({text});
}

// Nodes of the tree in the order of the reports: the root, then depth first with the
// last child of each node first.
std::vector<int> report_order(const CharTree& t) {
  std::vector<int> order, st{t.ntax};
  while (!st.empty()) {
    const int n = st.back();
    st.pop_back();
    order.push_back(n);
    if (n >= t.ntax) for (int c : t.kids[n]) st.push_back(c);
  }
  return order;
}

}  // namespace

MappingSettings mapping_settings;

void downpass_sets_of_tree0(int c, std::vector<std::uint32_t>& sets) {
  if (tree_store.ntrees == 0) error_exit("No trees in memory");
  const CharTree t = char_tree_of(0);
  sets.assign(t.kids.size(), 0);
  if (c < 0) {
    // Which nodes are on the tree.
    for (int n : t.preorder) sets[n] = 1;
    return;
  }
  sets = char_finals(t, c, true);
}

void cmd_map() {
  bool downpass = mapping_settings.downpass != 0;
  if (accept_char(':')) {
    if (peek_char() == ';') {
      mapping_settings.downpass = !mapping_settings.downpass;
      out_line({mapping_settings.downpass ? "mapping/saving downpass states is ON" : "mapping/saving downpass states is OFF"});
      return;
    }
    downpass = true;
  }
  Args a = read_args();
  if (downpass && a.trees.size() > 1) error_exit("Can't do down-pass states for multiple trees");
  for (int k : a.trees) {
    const CharTree t = char_tree_of(k);
    const std::vector<int> order = report_order(t);
    line_of(downpass ? "Tree %i, down-pass state sets of nodes" : "Tree %i, state sets of nodes", k);
    for (int c : a.chars) {
      std::vector<std::uint32_t> fin = char_finals(t, c, downpass);
      line_of("Char %i", c);
      out_line({"     Root: " + set_text(c, fin[t.ntax])});
      for (int n : order)
        if (n > t.ntax) {
          char text[32];
          std::snprintf(text, sizeof text, "     Node %i: ", n);
          out_line({text + set_text(c, fin[n])});
        }
    }
  }
}

namespace {

enum class ApoMode { all, single_states, with_ambiguous, ambiguous_only, common };

// Terminals below every node of a tree, one bit per taxon.
std::vector<std::vector<std::uint64_t>> node_taxa(const CharTree& t) {
  const std::size_t words = (static_cast<std::size_t>(t.ntax) + 63) / 64;
  std::vector<std::vector<std::uint64_t>> below(t.kids.size(), std::vector<std::uint64_t>(words, 0));
  for (auto it = t.preorder.rbegin(); it != t.preorder.rend(); ++it) {
    const int n = *it;
    if (n < t.ntax) { below[n][n / 64] |= 1ull << (n % 64); continue; }
    for (int k : t.kids[n])
      for (std::size_t w = 0; w < words; ++w) below[n][w] |= below[k][w];
  }
  return below;
}

struct TreeChanges {
  CharTree tree;
  std::vector<std::vector<std::uint32_t>> finals;   // per listed character, per node
  std::vector<std::vector<std::int64_t>> most;      // greatest steps per branch (ambiguity)
};

TreeChanges tree_changes(int k, const std::vector<int>& chars, bool ambiguity) {
  TreeChanges r;
  r.tree = char_tree_of(k);
  CharCosts costs;
  for (int c : chars) {
    char_costs(r.tree, c, false, costs);
    r.finals.emplace_back();
    best_state_sets(r.tree, costs, r.finals.back());
    r.most.emplace_back();
    if (ambiguity) greatest_branch_changes(r.tree, costs, r.most.back());
  }
  return r;
}

std::string node_heading(const CharTree& t, int n) {
  if (n < t.ntax)
    return "   " + (dataset.taxon_names.size() > static_cast<std::size_t>(n) ? dataset.taxon_names[n] : std::to_string(n)) + ":";
  return "   Node " + std::to_string(n) + ":";
}

// Changes of every branch of one tree: on all reconstructions (final sets of node and
// ancestor disjoint), optionally only those between single states, or also (or only) the
// changes that some best reconstructions make and others don't.
void report_tree_changes(int k, const std::vector<int>& chars, ApoMode mode) {
  const bool ambiguity = mode == ApoMode::with_ambiguous || mode == ApoMode::ambiguous_only;
  const TreeChanges tc = tree_changes(k, chars, ambiguity);
  const CharTree& t = tc.tree;
  const char* title = mode == ApoMode::single_states    ? "Tree %i, changes on all reconstructions, between single states"
                      : mode == ApoMode::with_ambiguous ? "Tree %i, changes on all or some reconstructions"
                      : mode == ApoMode::ambiguous_only ? "Tree %i, changes on some reconstructions only"
                                                        : "Tree %i, changes on all reconstructions";
  line_of(title, k);
  for (int n : report_order(t)) {
    if (n == t.ntax) continue;
    out_line({node_heading(t, n)});
    int changes = 0;
    for (std::size_t i = 0; i < chars.size(); ++i) {
      const int c = chars[i];
      const std::uint32_t x = tc.finals[i][t.parent[n]], y = tc.finals[i][n];
      if (!x || !y) continue;
      const bool always = !(x & y);
      const bool sometimes = !always && ambiguity && tc.most[i][n] > 0;
      bool shown = false;
      switch (mode) {
        case ApoMode::all: shown = always; break;
        case ApoMode::single_states: shown = always && std::has_single_bit(x) && std::has_single_bit(y); break;
        case ApoMode::with_ambiguous: shown = always || sometimes; break;
        case ApoMode::ambiguous_only: shown = sometimes; break;
        case ApoMode::common: break;
      }
      if (!shown) continue;
      char text[32];
      std::snprintf(text, sizeof text, "      Char %i: ", c);
      out_line({text + set_text(c, x) + " --> " + set_text(c, y) + (sometimes && mode == ApoMode::with_ambiguous ? " (ambiguous)" : "")});
      ++changes;
    }
    if (!changes) out_line({n < t.ntax ? "      No autapomorphies" : "      No synapomorphies"});
  }
}

// Changes on all reconstructions that every listed tree makes on the same group, between
// the same state sets; shown on the nodes of the first tree.
void report_common_changes(const std::vector<int>& trees, const std::vector<int>& chars) {
  std::vector<TreeChanges> all;
  std::vector<std::vector<std::vector<std::uint64_t>>> taxa;
  for (int k : trees) {
    all.push_back(tree_changes(k, chars, false));
    taxa.push_back(node_taxa(all.back().tree));
  }
  const CharTree& t = all[0].tree;
  char title[160];
  std::snprintf(title, sizeof title, "Changes common to %i trees (on all reconstructions; nodes of tree %i)",
                static_cast<int>(trees.size()), trees[0]);
  out_line({title});
  for (int n : report_order(t)) {
    if (n == t.ntax) continue;
    // The node of the same group in each other tree, -1 when the group is missing.
    std::vector<int> same(all.size(), -1);
    same[0] = n;
    bool everywhere = true;
    for (std::size_t j = 1; j < all.size() && everywhere; ++j) {
      for (int m : all[j].tree.preorder)
        if (m != all[j].tree.ntax && taxa[j][m] == taxa[0][n]) { same[j] = m; break; }
      everywhere = same[j] >= 0;
    }
    if (!everywhere) continue;
    out_line({node_heading(t, n)});
    int changes = 0;
    for (std::size_t i = 0; i < chars.size(); ++i) {
      const std::uint32_t x = all[0].finals[i][t.parent[n]], y = all[0].finals[i][n];
      if (!x || !y || (x & y)) continue;
      bool common = true;
      for (std::size_t j = 1; j < all.size() && common; ++j) {
        const CharTree& u = all[j].tree;
        common = all[j].finals[i][u.parent[same[j]]] == x && all[j].finals[i][same[j]] == y;
      }
      if (!common) continue;
      char text[32];
      std::snprintf(text, sizeof text, "      Char %i: ", chars[i]);
      out_line({text + set_text(chars[i], x) + " --> " + set_text(chars[i], y)});
      ++changes;
    }
    if (!changes) out_line({n < t.ntax ? "      No autapomorphies" : "      No synapomorphies"});
  }
}

}  // namespace

void cmd_apo() {
  if (accept_char('!')) error_exit("Option \"apo!\" is applicable only to landmark characters");
  ApoMode mode = ApoMode::all;
  if (accept_char('-')) mode = ApoMode::common;
  else if (accept_char('[')) mode = ApoMode::single_states;
  else if (accept_char('=')) mode = ApoMode::with_ambiguous;
  else if (accept_char(']')) mode = ApoMode::ambiguous_only;
  Args a = read_args();
  if (mode == ApoMode::common) {
    report_common_changes(a.trees, a.chars);
    return;
  }
  for (int k : a.trees) report_tree_changes(k, a.chars, mode);
}

namespace {

// Steps of a tree for the listed characters, polytomies hard: discrete characters by the
// exact passes (weighted), continuous ones in units (thousandths / 1000, weighted). With
// `fits`, each character's homoplasy h counts h / (K + h) instead.
double tree_cost(const CharTree& t, const std::vector<int>& chars, bool fits) {
  double total = 0;
  CharCosts costs;
  for (int c : chars) {
    const auto& r = dataset.chars[c];
    long long units;   // continuous: thousandths
    if (r.is_continuous) {
      units = std::max<std::int64_t>(0, wide_character_steps(t, c));
    } else {
      char_costs(t, c, false, costs);
      units = costs.best;
    }
    if (fits) total += r.weight * character_fit(c, character_homoplasy(c, static_cast<int>(std::min<long long>(units, INT_MAX))));
    else total += r.weight * (r.is_continuous ? static_cast<double>(units) / 1000.0 : static_cast<double>(units));
  }
  return total;
}

std::string amount_text(double v, bool fits) {
  char text[48];
  if (fits) std::snprintf(text, sizeof text, "%.5f", v);
  else if (std::fabs(v - std::round(v)) < 1e-9) std::snprintf(text, sizeof text, "%.0f", v);
  else std::snprintf(text, sizeof text, "%.3f", v);
  return text;
}

// Table by node (inner and terminal, in node order) or the tree with the values as labels.
void show_by_node(int k, const CharTree& t, const std::vector<std::string>& text, bool as_tree, const std::string& title) {
  if (as_tree) {
    qax::trees::draw_tree(qax::trees::tree_row(k), t.ntax, &text, title);
    return;
  }
  out_line({title});
  std::vector<int> nodes;
  for (int n : t.preorder) if (n != t.ntax && !text[n].empty()) nodes.push_back(n);
  std::sort(nodes.begin(), nodes.end());
  for (int n : nodes) {
    char line[96];
    std::snprintf(line, sizeof line, "   %5i  %5s", n, text[n].c_str());
    out_line({line});
  }
}

// Greatest increase (or decrease) of a continuous character on every branch over its best
// reconstructions. The values of best reconstructions can be taken among the ends of the
// observed ranges, so these are the states of an exact pass with costs |x - y|.
std::vector<double> continuous_extremes(const CharTree& t, int c, bool increase) {
  std::vector<double> out(t.kids.size(), 0.0);
  continuous_branches(t.kids, t.preorder, t.ntax, c, [&](const ContinuousBranch& b) {
    const auto& values = *b.values;
    const int m = static_cast<int>(values.size());
    long long most = 0;
    for (int i = 0; i < m; ++i)
      for (int j = 0; j < m; ++j)
        if (b.R[i] < continuous_none && b.down[j] < continuous_none &&
            b.R[i] + std::llabs(values[i] - values[j]) + b.down[j] == b.length)
          most = std::max(most, increase ? values[j] - values[i] : values[i] - values[j]);
    out[b.child] = static_cast<double>(most) / 1000.0;
  });
  return out;
}

}  // namespace

void cmd_blength() {
  bool as_tree = false, collapsing = false;
  int extreme = 0;   // 1 increases, -1 decreases
  for (;;) {
    if (accept_char('*')) as_tree = true;
    else if (accept_char('/')) collapsing = true;
    else if (accept_char('>')) extreme = 1;
    else if (accept_char('<')) extreme = -1;
    else break;
  }
  Args a = read_args();
  if (extreme) {
    if (!as_tree) out_line({"Decreases/increases can't be displayed as tables; will use a tree"});
    const std::vector<int>& chars = a.continuous;
    if (chars.empty()) error_exit("No continuous characters to show");
    for (int k : a.trees) {
      const CharTree t = char_tree_of(k);
      for (int c : chars) {
        const std::vector<double> v = continuous_extremes(t, c, extreme > 0);
        std::vector<std::string> text(std::max<std::size_t>(t.kids.size(), 2 * static_cast<std::size_t>(t.ntax) - 1));
        for (int n : t.preorder) if (n != t.ntax) text[n] = amount_text(v[n], false);
        char title[96];
        std::snprintf(title, sizeof title, "Tree %i, char. %i, maximum %s on each branch", k, c,
                      extreme > 0 ? "increase" : "decrease");
        show_by_node(k, t, text, true, title);
      }
    }
    return;
  }
  if (collapsing) {
    const bool fits = implied_settings.implied_on != 0;
    std::vector<int> chars = a.chars;
    chars.insert(chars.end(), a.continuous.begin(), a.continuous.end());
    for (int k : a.trees) {
      const CharTree t = char_tree_of(k);
      const double base = tree_cost(t, chars, fits);
      std::vector<std::string> text(std::max<std::size_t>(t.kids.size(), 2 * static_cast<std::size_t>(t.ntax) - 1));
      for (int n : t.preorder) {
        if (n <= t.ntax) continue;
        std::vector<std::int32_t> row(qax::trees::tree_row(k), qax::trees::tree_row(k) + 2 * t.ntax - 1);
        std::vector<std::uint8_t> keep(row.size(), 1);
        keep[n] = 0;
        collapse_in_place(row.data(), t.ntax, keep);
        const CharTree u = char_tree_from_parent(std::vector<int>(row.begin(), row.end()));
        text[n] = amount_text(tree_cost(u, chars, fits) - base, fits);
      }
      char title[96];
      if (fits && implied_settings.user_weighted) std::snprintf(title, sizeof title, "Tree %i, cost of branch collapsing (user weighting function)", k);
      else if (fits) std::snprintf(title, sizeof title, "Tree %i, cost of branch collapsing (under k=%.5f)", k, implied_settings.concavity);
      else std::snprintf(title, sizeof title, "Tree %i, cost of branch collapsing", k);
      show_by_node(k, t, text, as_tree, title);
    }
    return;
  }
  for (int k : a.trees) {
    const CharTree t = char_tree_of(k);
    std::vector<long long> length(t.kids.size(), 0);
    CharCosts costs;
    std::vector<std::int64_t> least;
    for (int c : a.chars) {
      char_costs(t, c, false, costs);
      least_branch_changes(t, costs, least);
      for (int n : t.preorder)
        if (n != t.ntax) length[n] += static_cast<long long>(dataset.chars[c].weight) * least[n];
    }
    char title[64];
    std::snprintf(title, sizeof title, "Tree %i, min. branch lengths", k);
    std::vector<std::string> text(std::max<std::size_t>(t.kids.size(), 2 * static_cast<std::size_t>(t.ntax) - 1));
    for (int n : t.preorder) if (n != t.ntax) text[n] = std::to_string(length[n]);
    show_by_node(k, t, text, as_tree, title);
  }
}

}  // namespace qax::optim
