// The commands force, constrain and mono: reading constraint definitions, reporting them,
// switching them on and off, and checking the trees in memory.
#include <string>
#include <vector>

#include "dataset/dataset.h"
#include "dataset/lists_bridge.h"
#include "optim/collapse.h"
#include "optim/packed.h"
#include "search/constraints.h"
#include "shell/failure.h"
#include "shell/input.h"
#include "shell/lists.h"
#include "shell/output.h"
#include "trees/notation.h"
#include "trees/store.h"

namespace qax::search {

using namespace qax::shell;
using qax::dataset::dataset;
using qax::trees::tree_store;

namespace {

// One bracketed group: "[ a b (c d) ]", the '[' already read. Taxa default to outside.
ConstraintGroup read_group() {
  ConstraintGroup g;
  g.field.assign(dataset.ntax, field_outside);
  bool floating = false;
  const ListContext context = dataset::taxon_list_context();
  for (;;) {
    int c = peek_char();
    if (c == ']') { next_char(); break; }
    if (c == ';' || c == 0 || c == -1 || input_exhausted()) error_exit("Unterminated constraint group (missing \"]\")");
    if (c == '(') {
      next_char();
      if (floating) error_exit("Floating taxa cannot be nested in constraint groups");
      floating = true;
      continue;
    }
    if (c == ')') {
      next_char();
      if (!floating) error_exit("Unbalanced \")\" in constraint group");
      floating = false;
      continue;
    }
    const int t = read_taxon(context, dataset.ntax);
    const std::uint8_t f = floating ? field_floating : field_inside;
    if (taxon_set_kind == 2) {
      for (int k = 0; k < dataset.ntax; ++k)
        if (taxon_set_marks[k] == 1) g.field[k] = f;
    } else {
      g.field[t] = f;
    }
  }
  if (floating) error_exit("Unbalanced \"(\" in constraint group");
  return g;
}

// A tree after = / : as "&N" or parenthetical text; returns its parent array.
std::vector<std::int32_t> read_constraint_tree() {
  const int ntax = dataset.ntax;
  int c = peek_char();
  if (c == '&') {
    next_char();
    int n = read_int();
    if (n < 0 || n >= tree_store.ntrees) {
      if (tree_store.ntrees == 0) error_exit("No trees in memory");
      error_exitf("& must be followed by a tree number ( 0 - %i )", tree_store.ntrees - 1);
    }
    return std::vector<std::int32_t>(trees::tree_row(n), trees::tree_row(n) + tree_store.row_size);
  }
  if (c != '(') error_exit("Expected a tree (in parentheses) or & and a tree number");
  std::string text;
  int depth = 0;
  do {
    c = next_char();
    if (c == ';' || c <= 0) error_exit("Unbalanced parentheses in constraint tree");
    if (c == '(') ++depth;
    if (c == ')') --depth;
    text.push_back(static_cast<char>(c));
  } while (depth > 0);
  // The tree reader stores into the tree store: read, copy, and take the row out again.
  const int before = tree_store.ntrees;
  const int got = trees::read_tree_string(text + ";", -1);
  if (got < 1 || tree_store.ntrees <= before) error_exit("Could not read the constraint tree");
  std::vector<std::int32_t> tree(trees::tree_row(tree_store.ntrees - 1),
                                 trees::tree_row(tree_store.ntrees - 1) + tree_store.row_size);
  std::vector<std::uint8_t> keep(tree_store.ntrees, 1);
  for (int k = before; k < tree_store.ntrees; ++k) keep[k] = 0;
  trees::tree_store_compact(keep);
  (void)ntax;
  return tree;
}

// The groups of a constraint tree: one per inner node but the root. Taxa missing from the
// tree are outside every group (absent_field = outside) or float (skeleton).
void tree_groups(const std::vector<std::int32_t>& tree, std::uint8_t absent_field, std::vector<ConstraintGroup>& out) {
  const int ntax = dataset.ntax;
  const int end = std::max(tree[ntax], ntax + 1);
  std::vector<std::vector<std::uint8_t>> below(end, std::vector<std::uint8_t>(ntax, 0));
  std::vector<std::uint8_t> present(ntax, 0);
  for (int t = 0; t < ntax; ++t) {
    if (!trees::terminal_present(tree.data(), t, ntax)) continue;
    present[t] = 1;
    for (int a = tree[t], guard = 0; a >= ntax && a < end && guard < end; a = tree[a], ++guard) {
      below[a][t] = 1;
      if (a == ntax) break;
    }
  }
  for (int v = ntax + 1; v < end; ++v) {
    ConstraintGroup g;
    g.field.assign(ntax, absent_field);
    int in = 0, outside = 0;
    for (int t = 0; t < ntax; ++t) {
      if (below[v][t]) { g.field[t] = field_inside; ++in; }
      else if (present[t]) g.field[t] = field_outside;
      if (g.field[t] == field_outside) ++outside;
    }
    if (in >= 2 && outside >= 2) out.push_back(std::move(g));
  }
}

void show_group(const ConstraintGroup& g, int number, bool numbers) {
  std::string line = "    Group " + std::to_string(number) + ":";
  auto name = [&](int t) { return numbers ? std::to_string(t) : trees::display_name(t); };
  for (int t = 0; t < static_cast<int>(g.field.size()); ++t)
    if (g.field[t] == field_inside) line += " " + name(t);
  bool any = false;
  for (int t = 0; t < static_cast<int>(g.field.size()); ++t)
    if (g.field[t] == field_floating) {
      line += (any ? " " : " (") + name(t);
      any = true;
    }
  if (any) line += ")";
  out_printf("%s\n", line.c_str());
}

void report_constraints(bool numbers) {
  const ConstraintDefs& d = constraint_defs;
  if (!d.defined) { out_printf("%s\n", "No constraints defined"); return; }
  const bool pos_tree = d.tree_kind == 1 || d.tree_kind == 2;
  const int pos_user = static_cast<int>(d.positive.size()) - (pos_tree ? d.tree_groups : 0);
  const int neg_user = static_cast<int>(d.negative.size()) - (d.tree_kind == 3 ? d.tree_groups : 0);
  out_printf("%s\n", "List of constraints:");
  if (pos_user > 0) {
    out_printf("%s\n", "  Positive constraints:");
    for (int g = 0; g < pos_user; ++g) show_group(d.positive[g], g, numbers);
  }
  if (neg_user > 0) {
    out_printf("%s\n", "  Negative constraints:");
    for (int g = 0; g < neg_user; ++g) show_group(d.negative[g], g, numbers);
  }
  if (d.tree_kind) {
    static const char* kinds[] = {"", "  Tree constraint (groups of the tree):", "  Tree constraint (skeleton):",
                                  "  Tree constraint (negative skeleton):"};
    out_printf("%s\n", kinds[d.tree_kind]);
    out_printf("    %s\n", trees::tree_to_text(d.tree.data(), dataset.ntax, !numbers, nullptr).c_str());
  }
  if (!d.active) out_printf("%s\n", "Constraints are not enforced (constrain -)");
}

// condense [ : does the cluster `inside` separate the firm sides of a positive group?
bool is_positive_group(const std::uint8_t* inside, int ntax) {
  for (const ConstraintGroup& g : constraint_defs.positive) {
    bool in_c = true, out_free = true, out_c = true, in_free = true, any_in = false;
    for (int t = 0; t < ntax && t < static_cast<int>(g.field.size()); ++t) {
      if (g.field[t] == field_inside) {
        any_in = true;
        if (inside[t]) in_free = false; else in_c = false;
      } else if (g.field[t] == field_outside) {
        if (inside[t]) out_free = false; else out_c = false;
      }
    }
    if (any_in && ((in_c && out_free) || (out_c && in_free))) return true;
  }
  return false;
}

}  // namespace

void cmd_force() {
  dataset::require_data();
  static bool hooked = false;
  if (!hooked) {
    dataset::add_dataset_replaced_hook([] { constraints_reset(); });
    hooked = true;
  }
  int c = peek_char();
  if (c == ';') { report_constraints(false); return; }
  if (c == '*') { next_char(); report_constraints(true); return; }
  if (c == ']') {
    next_char();
    if (constraint_defs.active) optim::invalidate_pack();
    constraint_defs.active = 0;
    out_printf("%s\n", "Constraints de-activated");
    return;
  }
  ConstraintDefs nd;
  std::vector<std::int8_t> float_pos, float_neg;
  int mode = 1;  // 1 positive, -1 negative
  bool seen_negative = false;
  for (;;) {
    c = peek_char();
    if (c == ';' || input_exhausted()) break;
    next_char();
    if (c == '+') {
      if (seen_negative) error_exit("Must define all positive constraints before the negative ones");
      mode = 1;
    } else if (c == '-') {
      mode = -1;
    } else if (c == '[') {
      if (mode > 0 && seen_negative) error_exit("Must define all positive constraints before the negative ones");
      ConstraintGroup g = read_group();
      if (mode > 0) nd.positive.push_back(std::move(g));
      else { nd.negative.push_back(std::move(g)); seen_negative = true; }
    } else if (c == '=' || c == '/' || c == ':') {
      if (nd.tree_kind) error_exit("Cannot define two trees for strict constraint at the same time");
      nd.tree = read_constraint_tree();
      nd.tree_kind = c == '=' ? 1 : c == '/' ? 2 : 3;
    } else if (c == '>' || c == '<') {
      std::vector<std::int8_t>& flags = c == '>' ? float_pos : float_neg;
      std::vector<std::int8_t> named;
      dataset::read_taxon_list(named);
      flags.resize(dataset.ntax, 0);
      for (int t = 0; t < dataset.ntax && t < static_cast<int>(named.size()); ++t)
        if (named[t] == 1) flags[t] = 1;
    } else {
      unread_char();
      read_token();
      error_exit({"Unidentified string in force options:", token_buffer});
    }
  }
  // Tree groups go after the user's groups of their kind.
  if (nd.tree_kind) {
    std::vector<ConstraintGroup> groups;
    tree_groups(nd.tree, nd.tree_kind == 1 ? field_outside : field_floating, groups);
    nd.tree_groups = static_cast<int>(groups.size());
    auto& target = nd.tree_kind == 3 ? nd.negative : nd.positive;
    for (auto& g : groups) target.push_back(std::move(g));
  }
  for (int t = 0; t < static_cast<int>(float_pos.size()); ++t)
    if (float_pos[t])
      for (auto& g : nd.positive) g.field[t] = field_floating;
  for (int t = 0; t < static_cast<int>(float_neg.size()); ++t)
    if (float_neg[t])
      for (auto& g : nd.negative) g.field[t] = field_floating;
  const int npos_user = static_cast<int>(nd.positive.size()) - (nd.tree_kind == 1 || nd.tree_kind == 2 ? nd.tree_groups : 0);
  const int nneg_user = static_cast<int>(nd.negative.size()) - (nd.tree_kind == 3 ? nd.tree_groups : 0);
  nd.defined = npos_user + nneg_user > 0 || nd.tree_kind != 0;
  nd.active = nd.defined;
  constraint_defs = std::move(nd);
  optim::constrained_group_hook = constraint_defs.defined ? is_positive_group : nullptr;
  optim::invalidate_pack();
  out_printf("Read %i negative constraints, %i positive constraints, %i tree-constraints\n", nneg_user, npos_user,
             constraint_defs.tree_kind ? 1 : 0);
}

void cmd_constrain() {
  int c = peek_char();
  if (c == '=' || c == '-' || c == '/') {
    next_char();
    int want = c == '=' ? 1 : c == '-' ? 0 : !constraint_defs.active;
    if (want && !constraint_defs.defined) error_exit("Cannot activate constraints (constraints undefined)");
    if (want != constraint_defs.active) optim::invalidate_pack();
    constraint_defs.active = want;
  } else if (c != ';') {
    read_token();
    error_exit({"Unidentified string in constrain options:", token_buffer});
  }
  out_printf("Enforcing constraints is %s\n", constraint_defs.active ? "ON" : "OFF");
}

void cmd_mono() {
  dataset::require_data();
  if (!constraint_defs.defined) error_exit("No constraints defined");
  if (tree_store.ntrees == 0) dataset::error_exit_needs_trees();
  int mode = 0;  // 0 fulfilling, 1 violating, 2 group by group
  int c = peek_char();
  if (c == '-') { next_char(); mode = 1; }
  else if (c == '*') { next_char(); mode = 2; }
  std::vector<std::uint8_t> flags;
  if (peek_char() == ';') flags.assign(tree_store.ntrees, 1);
  else trees::read_tree_list(flags, true);
  const int ntax = dataset.ntax;
  const int npos = static_cast<int>(constraint_defs.positive.size());
  const int total = npos + static_cast<int>(constraint_defs.negative.size());
  std::vector<std::uint8_t> which;
  std::vector<int> listed;
  for (int k = 0; k < tree_store.ntrees; ++k) {
    if (flags[k] != 1) continue;
    const int bad = tree_violations_by_group(trees::tree_row(k), ntax, which);
    if (mode == 2) {
      if (bad) {
        out_printf("Tree %i, %i constraints violated\n", k, bad);
        for (int g = 0; g < total; ++g)
          if (which[g]) out_printf("    %s group %i\n", g < npos ? "Positive" : "Negative", g < npos ? g : g - npos);
      } else {
        out_printf("Tree %i, %i constraints fulfilled\n", k, total);
      }
    } else if ((bad == 0) == (mode == 0)) {
      listed.push_back(k);
    }
  }
  if (mode == 2) return;
  out_printf("%s\n", mode == 0 ? "Tree(s) fulfilling constraints:" : "Tree(s) violating constraints:");
  if (listed.empty()) { out_printf("%s\n", "    none"); return; }
  std::string line;
  for (int k : listed) {
    line += " " + std::to_string(k);
    if (line.size() > 70) { out_printf("%s\n", line.c_str()); line.clear(); }
  }
  if (!line.empty()) out_printf("%s\n", line.c_str());
}

}  // namespace qax::search
