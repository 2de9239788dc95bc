// The commands collapse (the rule and its switches), qcollapse and condense (collapsing
// the trees in memory, with the expansive rule 4).
#include <algorithm>
#include <cctype>
#include <cstring>
#include <string>
#include <vector>

#include "dataset/dataset.h"
#include "dataset/lists_bridge.h"
#include "optim/collapse.h"
#include "optim/reports.h"
#include "shell/failure.h"
#include "shell/input.h"
#include "shell/output.h"
#include "trees/store.h"

namespace qax::optim {

using namespace qax::shell;
using qax::dataset::dataset;
using qax::trees::tree_store;

ConstrainedGroupFn constrained_group_hook = nullptr;
SwapCollapseFn swap_collapse_hook = nullptr;

namespace {

const char* rule_text(int rule) {
  switch (rule) {
    case collapse_none: return "Not collapsing unsupported branches";
    case collapse_rule3: return "Collapsing branches with no possible support (\"rule 3\")";
    case collapse_amb: return "Collapsing branches when sets of ancestor and descendant are identical";
    case collapse_rule1: return "Collapsing branches if supported ambiguously (\"rule 1\")";
    case collapse_rule4: return "Collapsing branches under \"rule 4\"";
    case collapse_spr: return "Collapsing trees with SPR";
    default: return "Collapsing trees with TBR";
  }
}

void report_collapse() {
  const CollapseSettings& s = collapse_settings;
  out_printf("%s\n", rule_text(s.rule));
  const bool none = s.rule == collapse_none;
  out_printf("%s\n", !none && s.temp_collapse ? "Collapsing trees temporarily for consensus calculation"
                                            : "Not collapsing trees temporarily for consensus calculation");
  out_printf("Auto-collapse searches is %s\n", !none && s.auto_collapse ? "ON" : "OFF");
}

// A word of letters (the collapse options).
std::string read_letters() {
  std::string w;
  int c = next_nonblank();
  while (std::isalpha(c) || c == '_') {
    w.push_back(static_cast<char>(c));
    c = next_char();
  }
  unread_char();
  return w;
}

// Weighted length of a stored tree (hard polytomies), as a whole number.
long long tree_length(const std::int32_t* tree) {
  std::vector<int> parent(tree, tree + tree_store.row_size), steps;
  character_steps(parent, steps);
  long long total = 0;
  for (int c = 0; c < dataset.nchar && c < static_cast<int>(steps.size()); ++c)
    if (steps[c] > 0) total += static_cast<long long>(steps[c]) * dataset.chars[c].weight;
  return total;
}

// Inner nodes (not the root) that rule 1 collapses and whose ancestor is not the root.
std::vector<int> ambiguous_nodes(const std::int32_t* tree, int ntax) {
  std::vector<std::uint8_t> keep;
  collapse_tree(tree, keep, nullptr, collapse_rule1);
  std::vector<int> out;
  const int end = std::max(tree[ntax], ntax + 1);
  for (int v = end - 1; v > ntax; --v)
    if (!keep[v] && tree[v] != ntax) out.push_back(v);
  return out;
}

struct Rule4Run {
  const std::int32_t* base = nullptr;   // tree after the "amb" collapse
  std::vector<int> candidates;          // highest node number first
  std::vector<std::uint8_t> chosen;     // per candidate: collapse it
  long long bound = 0;                  // score of the original tree
  int added = 0;                        // trees added to the store
  bool full = false;                    // the store filled up
};

void rule4_combinations(Rule4Run& r, std::size_t i) {
  if (r.full) return;
  if (i == r.candidates.size()) {
    const int ntax = dataset.ntax;
    std::vector<std::uint8_t> keep(2 * ntax - 1, 1);
    for (std::size_t k = 0; k < r.candidates.size(); ++k)
      if (r.chosen[k]) keep[r.candidates[k]] = 0;
    std::vector<std::int32_t> t(r.base, r.base + tree_store.row_size);
    collapse_in_place(t.data(), ntax, keep);
    if (tree_length(t.data()) > r.bound) return;
    if (!ambiguous_nodes(t.data(), ntax).empty()) return;
    if (tree_store.ntrees >= tree_store.maxtrees) {
      out_printf("Tree buffer is full - %i trees in memory\n", tree_store.ntrees);
      r.full = true;
      return;
    }
    const int row = trees::tree_store_add(-1, false);
    std::copy(t.begin(), t.end(), trees::tree_row(row));
    tree_store.scores[row] = static_cast<double>(tree_length(t.data()));
    ++r.added;
    return;
  }
  r.chosen[i] = 0;
  rule4_combinations(r, i + 1);
  r.chosen[i] = 1;
  rule4_combinations(r, i + 1);
}

// Rule 4 on tree k: returns the number of nodes removed (for the report).
int condense_rule4(int k) {
  const int ntax = dataset.ntax;
  std::vector<std::int32_t> t(trees::tree_row(k), trees::tree_row(k) + tree_store.row_size);
  const int before_nodes = trees::tree_group_count(t.data(), ntax);
  Rule4Run r;
  r.bound = tree_length(t.data());
  std::vector<std::uint8_t> keep;
  collapse_tree(t.data(), keep, nullptr, collapse_amb);
  collapse_in_place(t.data(), ntax, keep);
  r.candidates = ambiguous_nodes(t.data(), ntax);
  if (r.candidates.size() <= 1) {
    collapse_tree(t.data(), keep, nullptr, collapse_rule1);
    collapse_in_place(t.data(), ntax, keep);
    std::copy(t.begin(), t.end(), trees::tree_row(k));
    return before_nodes - trees::tree_group_count(t.data(), ntax);
  }
  if (r.candidates.size() > 20)
    error_exitf("Too many ambiguous branches (%i) to combine under rule 4 in tree %i",
                static_cast<int>(r.candidates.size()), k);
  r.base = t.data();
  r.chosen.assign(r.candidates.size(), 0);
  const int first_new = tree_store.ntrees;
  rule4_combinations(r, 0);
  if (r.added == 0) return 0;
  // The last new tree replaces the original; drop new trees equal to an earlier new one.
  const int last = tree_store.ntrees - 1;
  std::copy(trees::tree_row(last), trees::tree_row(last) + tree_store.row_size, trees::tree_row(k));
  tree_store.scores[k] = tree_store.scores[last];
  std::vector<std::uint8_t> keep_rows(tree_store.ntrees, 1);
  keep_rows[last] = 0;
  for (int a = first_new; a < last; ++a) {
    if (trees::trees_equal(trees::tree_row(a), trees::tree_row(k), ntax)) { keep_rows[a] = 0; continue; }
    for (int b = first_new; b < a; ++b)
      if (keep_rows[b] && trees::trees_equal(trees::tree_row(a), trees::tree_row(b), ntax)) { keep_rows[a] = 0; break; }
  }
  trees::tree_store_compact(keep_rows);
  return before_nodes - trees::tree_group_count(trees::tree_row(k), ntax);
}

// condense [ : nodes whose terminals form a positive constraint group stay.
void keep_constrained(const std::int32_t* tree, int ntax, std::vector<std::uint8_t>& keep) {
  if (!constrained_group_hook) return;
  const int end = std::max(tree[ntax], ntax + 1);
  std::vector<std::uint8_t> inside(ntax);
  for (int v = ntax + 1; v < end; ++v) {
    if (keep[v] || tree[v] < ntax) continue;
    std::fill(inside.begin(), inside.end(), 0);
    for (int t = 0; t < ntax; ++t)
      for (int a = tree[t], guard = 0; a >= ntax && a < end && guard < end; a = tree[a], ++guard) {
        if (a == v) { inside[t] = 1; break; }
        if (a == ntax) break;
      }
    if (constrained_group_hook(inside.data(), ntax)) keep[v] = 1;
  }
}

}  // namespace

void cmd_collapse() {
  CollapseSettings& s = collapse_settings;
  for (;;) {
    int c = peek_char();
    if (c == ';' || input_exhausted()) break;
    if (std::isdigit(c)) {
      int n = read_int();
      if (n > collapse_tbr) error_exitf("Collapsing rule must be from 0 to %i", static_cast<int>(collapse_tbr));
      s.rule = n;
      continue;
    }
    if (c == '+' || c == '-' || c == '[' || c == ']') {
      next_char();
      if (c == '+') s.temp_collapse = 1;
      else if (c == '-') s.temp_collapse = 0;
      else s.auto_collapse = c == '[';
      continue;
    }
    std::string w = read_letters();
    if (w.empty()) {
      read_token();
      error_exit({"Unidentified string in collapse options:", token_buffer});
    }
    if (w == "rule") {
      int n = read_int();
      if (n == 1) s.rule = collapse_rule1;
      else if (n == 3) s.rule = collapse_rule3;
      else if (n == 4) s.rule = collapse_rule4;
      else error_exit("Only rules for collapsing are rule 1, rule 3, and rule 4");
    } else if (w == "spr") s.rule = collapse_spr;
    else if (w == "tbr") s.rule = collapse_tbr;
    else if (w == "amb") s.rule = collapse_amb;
    else if (w == "none") s.rule = collapse_none;
    else if (w == "auto") s.auto_collapse = 1;
    else if (w == "noauto") s.auto_collapse = 0;
    else if (w == "tempcollapse") s.temp_collapse = 1;
    else if (w == "notempcollapse") s.temp_collapse = 0;
    else error_exit({"Unidentified string in collapse options:", w});
  }
  report_collapse();
}

void cmd_qcollapse() {
  int c = peek_char();
  int& q = collapse_settings.quick_collapse;
  if (c == '=' || c == '-') { next_char(); q = c == '='; }
  else if (c == ';') q = !q;
  else {
    read_token();
    error_exit({"Unidentified string in qcollapse options:", token_buffer});
  }
  out_printf("Quick collapse is %s\n", q ? "ON" : "OFF");
}

void cmd_condense() {
  dataset::require_data();
  const int ntax = dataset.ntax;
  const int rule = collapse_settings.rule;
  int c = peek_char();
  if (c == '*' || c == '=' || c == '<' || c == '>') error_exit("Condensing the tag tree is not available");
  if (tree_store.ntrees == 0) dataset::error_exit_needs_trees();
  // condense /T N: collapse the named nodes of tree T.
  if (c == '/') {
    next_char();
    int k = read_int();
    if (k < 0 || k >= tree_store.ntrees) error_exitf("No tree %i", k);
    std::int32_t* t = trees::tree_row(k);
    const int end = std::max(t[ntax], ntax + 1);
    std::vector<std::uint8_t> keep(2 * ntax - 1, 1);
    int removed = 0;
    while (std::isdigit(peek_char())) {
      int v = read_int();
      if (v <= ntax || v >= end) error_exitf("Node %i is not an inner node of tree %i", v, k);
      removed += keep[v];
      keep[v] = 0;
    }
    if (peek_char() != ';') {
      read_token();
      error_exit({"Unidentified string in condense options:", token_buffer});
    }
    collapse_in_place(t, ntax, keep);
    tree_store.trees_changed = 1;
    out_printf("Tree %i: %i nodes collapsed\n", k, removed);
    return;
  }
  bool reinforce = false;
  if (c == '[') { next_char(); reinforce = true; }
  std::vector<std::uint8_t> flags;
  c = peek_char();
  if (c == ';' || c == '/') flags.assign(tree_store.ntrees, 1);
  else trees::read_tree_list(flags, false);
  std::vector<std::uint8_t> ignore;
  if (peek_char() == '/') {
    next_char();
    std::vector<std::int8_t> named;
    dataset::read_taxon_list(named);
    ignore.assign(ntax, 0);
    for (int t = 0; t < ntax && t < static_cast<int>(named.size()); ++t) ignore[t] = named[t] == 1;
  }
  if (peek_char() != ';') {
    read_token();
    error_exit({"Unidentified string in condense options:", token_buffer});
  }
  if (rule == collapse_rule4 && !ignore.empty())
    error_exit("Cannot condense excluding taxa under rule 4\n(But condensing first and then pruning is equivalent!)");
  if (rule == collapse_rule4 && reinforce) error_exit("Sorry, cannot use expansive rule 4 together with constraints");
  if (reinforce && !constrained_group_hook) error_exit("No constraints defined");
  out_printf("%s\n", rule_text(rule));
  int trees_done = 0, removed = 0;
  const int n = tree_store.ntrees;
  std::vector<std::uint8_t> keep;
  bool interrupted = false;
  for (int k = 0; k < n && k < static_cast<int>(flags.size()); ++k) {
    if (flags[k] != 1) continue;
    // Many trees take long: ESC (or a stop file) ends here, keeping the trees done.
    if ((trees_done & 63) == 63 && check_interrupt(1)) {
      interrupted = true;
      break;
    }
    ++trees_done;
    if (rule == collapse_none) continue;
    if (rule == collapse_rule4) { removed += condense_rule4(k); continue; }
    std::int32_t* t = trees::tree_row(k);
    collapse_tree(t, keep, ignore.empty() ? nullptr : ignore.data());
    if (reinforce) keep_constrained(t, ntax, keep);
    const int end = std::max(t[ntax], ntax + 1);
    int here = 0;
    for (int v = ntax + 1; v < end; ++v) here += keep[v] == 0;
    if (here) collapse_in_place(t, ntax, keep);
    removed += here;
  }
  if (removed) tree_store.trees_changed = 1;
  if (interrupted) out_printf("Condensing interrupted: ");
  out_printf("%i trees condensed, %i nodes collapsed\n", trees_done, removed);
}

}  // namespace qax::optim
