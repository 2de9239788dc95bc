// Character mapping on the stored trees: map (state sets by node), apo (changes by node)
// and blength (minimum branch lengths). One character at a time on the unpacked matrix, in
// the node numbers of the stored tree, so that reports agree with the tree diagrams.
// Sets come from the exact per-character passes of recons.h, so polytomies are allowed.
#include <algorithm>
#include <bit>
#include <cstdio>
#include <string>
#include <vector>

#include "dataset/dataset.h"
#include "dataset/lists_bridge.h"
#include "optim/recons.h"
#include "optim/reports.h"
#include "shell/failure.h"
#include "shell/input.h"
#include "shell/output.h"
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
  std::vector<int> chars;
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
  for (int c = 0; c < dataset.nchar; ++c)
    if ((cf.empty() || cf[c] == 1) && scored(c)) a.chars.push_back(c);
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

void cmd_apo() {
  if (accept_char('!')) error_exit("Option \"apo!\" is applicable only to landmark characters");
  Args a = read_args();
  for (int k : a.trees) {
    const CharTree t = char_tree_of(k);
    std::vector<std::vector<std::uint32_t>> fin;
    for (int c : a.chars) fin.push_back(char_finals(t, c));
    line_of("Tree %i, changes on all reconstructions", k);
    for (int n : report_order(t)) {
      if (n == t.ntax) continue;
      if (n < t.ntax)
        out_line({"   " + (dataset.taxon_names.size() > static_cast<std::size_t>(n) ? dataset.taxon_names[n] : std::to_string(n)) + ":"});
      else line_of("   Node %i:", n);
      int changes = 0;
      for (std::size_t i = 0; i < a.chars.size(); ++i) {
        const int c = a.chars[i];
        const std::uint32_t x = fin[i][t.parent[n]], y = fin[i][n];
        if (!x || !y || (x & y)) continue;
        char text[32];
        std::snprintf(text, sizeof text, "      Char %i: ", c);
        out_line({text + set_text(c, x) + " --> " + set_text(c, y)});
        ++changes;
      }
      if (!changes) out_line({n < t.ntax ? "      No autapomorphies" : "      No synapomorphies"});
    }
  }
}

void cmd_blength() {
  Args a = read_args();
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
    line_of("Tree %i, min. branch lengths", k);
    std::vector<int> nodes;
    for (int n : t.preorder) if (n != t.ntax) nodes.push_back(n);
    std::sort(nodes.begin(), nodes.end());
    for (int n : nodes) {
      char text[64];
      std::snprintf(text, sizeof text, "   %5i  %5lli", n, length[n]);
      out_line({text});
    }
  }
}

}  // namespace qax::optim
