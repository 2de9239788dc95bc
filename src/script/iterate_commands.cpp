// Script loops run by an inner command loop: travtree (nodes of a tree) and combine
// (combinations and permutations); and copytree and progress.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "script/commands.h"
#include "script/expr.h"
#include "script/reader.h"
#include "script/scan.h"
#include "script/space.h"
#include "shell/commands.h"
#include "shell/failure.h"
#include "shell/input.h"
#include "shell/output.h"
#include "shell/state.h"
#include "trees/store.h"

namespace qax::script {

using namespace qax::shell;
using qax::trees::tree_store;

namespace {

// Flags the inner words of these loops set.
struct InnerFlags {
  int kill = 0;      // killtrav / killcomb: end the whole iteration
  int skip_des = 0;  // skipdes: leave out the descendants of the current node
};
std::vector<InnerFlags> flags_;
int plot_order_ = 1;
int nesting_limit_ = 5;

}  // namespace

void cmd_killrecs_word();
bool iterrecs_active();

namespace {

bool inner_word(const std::string& w) {
  if (w == "killrecs" && iterrecs_active()) {
    cmd_killrecs_word();
    return true;
  }
  if (flags_.empty()) return false;
  if (w == "killtrav" || w == "killcomb") {
    flags_.back().kill = 1;
    leave_inner_body();
    return true;
  }
  if (w == "skipdes") {
    flags_.back().skip_des = 1;
    return true;
  }
  return false;
}

// Pushes the flags of a new iteration and installs the word hook; pops on destruction.
struct IterationScope {
  explicit IterationScope(const char* limit_message) {
    if (static_cast<int>(flags_.size()) >= nesting_limit_) error_exitf(limit_message, nesting_limit_);
    flags_.emplace_back();
  }
  ~IterationScope() { flags_.pop_back(); }
  InnerFlags& flags() { return flags_.back(); }
};

struct TreeShape {
  std::vector<int> parent;
  std::vector<std::vector<int>> kids;
  int root = 0;
};

TreeShape tree_shape(int t) {
  const int ntax = tree_store.ntax;
  const std::int32_t* row = qax::trees::tree_row(t);
  TreeShape s;
  const int end = row[ntax];
  s.parent.assign(end, -1);
  s.kids.assign(end, {});
  s.root = ntax;
  for (int n = 0; n < end; ++n) {
    if (n == ntax) continue;
    if (n < ntax && !qax::trees::terminal_present(row, n, ntax)) continue;
    s.parent[n] = row[n];
    s.kids[row[n]].push_back(n);
  }
  return s;
}

bool node_in_tree(const TreeShape& s, int n) {
  return n >= 0 && n < static_cast<int>(s.parent.size()) && (n == s.root || s.parent[n] >= 0);
}

}  // namespace

void cmd_travtree() {
  macro_command_guard();
  int c = peek_nb();
  if (c == '+' || c == '-') {
    next_char();
    if (peek_nb() == ';') {
      plot_order_ = c == '+';
      out_line({plot_order_ ? "Using the same sequence for plotting and traversing trees"
                            : "Not using the same sequence for plotting and traversing trees"});
      return;
    }
    unread_char();
  }
  read_command_word();
  const std::string type = token_buffer;
  bool terms_only = false;
  if (type == "up" && peek_nb() == 't') {
    read_command_word();
    if (std::string(token_buffer) != "terms") error_exit({"Unrecognized option for travtree:", token_buffer});
    terms_only = true;
  }
  if (type != "up" && type != "down" && type != "below" && type != "path" && type != "des") {
    error_exit({"Unrecognized type of traversal:", type});
  }
  const int tree = read_int_expr();
  const int node = read_int_expr();
  const int other = type == "path" ? read_int_expr() : -1;
  bool leave_out = false;
  if (peek_nb() == '-') {
    next_char();
    leave_out = true;
  }
  const int cell = read_cell();
  const std::string body = copy_body("travtree");
  if (tree < 0 || tree >= tree_store.ntrees) error_exit({"Only", number_text(tree_store.ntrees), "trees in memory"});
  const TreeShape s = tree_shape(tree);
  if (!node_in_tree(s, node)) error_exitf("No node %i in tree %i", node, tree);
  if (type == "path" && !node_in_tree(s, other)) error_exitf("No node %i in tree %i", other, tree);
  IterationScope scope("Maximum level of recursion for tree-traversing is %i");
  const int ntax = tree_store.ntax;
  const int events = shell_state.interrupt_events;
  auto visit = [&](int n) -> bool {
    set_cell(cell, n);
    if (!run_inner_body(body, "travtree commands", true)) recover();
    return !scope.flags().kill && !script_interrupted(events);
  };
  if (type == "up") {
    // Pre-order from the node; skipdes prunes the descendants of the node just visited.
    std::vector<int> stack{node};
    while (!stack.empty()) {
      const int n = stack.back();
      stack.pop_back();
      const bool show = !(leave_out && n == node) && !(terms_only && n >= ntax);
      scope.flags().skip_des = 0;
      if (show && !visit(n)) break;
      if (scope.flags().skip_des) continue;
      const auto& k = s.kids[n];
      for (auto it = k.rbegin(); it != k.rend(); ++it) stack.push_back(*it);
    }
  } else if (type == "below") {
    // Post-order: every descendant before its ancestor, the node last.
    std::vector<int> order, stack{node};
    while (!stack.empty()) {
      const int n = stack.back();
      stack.pop_back();
      order.push_back(n);
      for (int k : s.kids[n]) stack.push_back(k);
    }
    std::reverse(order.begin(), order.end());
    for (int n : order) {
      if (leave_out && n == node) continue;
      if (!visit(n)) break;
    }
  } else if (type == "down") {
    for (int n = node; n >= 0; n = n == s.root ? -1 : s.parent[n]) {
      if (leave_out && n == node) continue;
      if (!visit(n)) break;
    }
  } else if (type == "des") {
    for (int n : s.kids[node]) if (!visit(n)) break;
  } else {
    // The path from node to other through their common ancestor.
    std::vector<int> a, b;
    for (int n = node; n >= 0; n = n == s.root ? -1 : s.parent[n]) a.push_back(n);
    for (int n = other; n >= 0; n = n == s.root ? -1 : s.parent[n]) b.push_back(n);
    while (a.size() > 1 && b.size() > 1 && a[a.size() - 2] == b[b.size() - 2]) {
      a.pop_back();
      b.pop_back();
    }
    b.pop_back();  // the common ancestor is in a
    std::vector<int> path = a;
    for (auto it = b.rbegin(); it != b.rend(); ++it) path.push_back(*it);
    for (int n : path) {
      if (leave_out && n == node) continue;
      if (!visit(n)) break;
    }
  }
}

void cmd_combine() {
  macro_command_guard();
  if (peek_nb() == '=') error_exit("Use \"iterrecs = N\" to set the nesting of combinations");
  const int n = read_int_expr();
  bool permutations = false;
  int min = 0, max = 0;
  if (peek_nb() == '*') {
    next_char();
    permutations = true;
  } else {
    min = read_int_expr();
    max = min;
    if (peek_nb() == '/') {
      next_char();
      max = read_int_expr();
    }
  }
  const NamedVar* var = nullptr;
  const int cell = read_cell(&var);
  const std::string body = copy_body("combine");
  if (n < 1) error_exit("Number of elements to combine must be positive");
  if (!permutations && (min < 1 || max < min || max > n)) error_exit("Wrong sizes of combinations");
  const int room = var && var->dims ? var->extent[var->dims - 1] : space.max_vars - cell;
  if ((permutations ? n : max) > room) {
    error_exit({"Cannot store", number_text(permutations ? n : max), "values in variable"});
  }
  IterationScope scope("Maximum level of recursion for combinations is %i");
  const int events = shell_state.interrupt_events;
  auto run = [&](const std::vector<int>& items) -> bool {
    if (script_interrupted(events)) {
      shell_state.stop_search_flag = 0;
      out_line({"Combinations interrupted"});
      return false;
    }
    for (std::size_t i = 0; i < items.size(); ++i) set_cell(cell + static_cast<int>(i), items[i]);
    space.listsize = static_cast<int>(items.size());
    if (!run_inner_body(body, "combine commands", true)) recover();
    return !scope.flags().kill;
  };
  if (permutations) {
    std::vector<int> items(n);
    for (int i = 0; i < n; ++i) items[i] = i;
    do {
      if (!run(items)) return;
    } while (std::next_permutation(items.begin(), items.end()));
    return;
  }
  for (int k = min; k <= max; ++k) {
    std::vector<int> items(k);
    for (int i = 0; i < k; ++i) items[i] = i;
    for (;;) {
      if (!run(items)) return;
      int i = k - 1;
      while (i >= 0 && items[i] == n - k + i) --i;
      if (i < 0) break;
      ++items[i];
      for (int j = i + 1; j < k; ++j) items[j] = items[j - 1] + 1;
    }
  }
}

void cmd_copytree() {
  macro_command_guard();
  if (peek_nb() == ';') error_exit("Must give tree number");
  const int t = read_int_expr();
  if (t < 0 || t >= tree_store.ntrees) error_exit({"Only", number_text(tree_store.ntrees), "trees in memory"});
  const int k = qax::trees::tree_store_add(-1, false);
  std::copy(qax::trees::tree_row(t), qax::trees::tree_row(t) + tree_store.row_size, qax::trees::tree_row(k));
  tree_store.scores[k] = tree_store.scores[t];
  out_line({"Tree", number_text(t), "copied to tree", number_text(k)});
}

void cmd_progress() {
  macro_command_guard();
  const int c = peek_nb();
  if (c == '/') {
    next_char();
    clear_progress();
    return;
  }
  if (c == '=') {
    next_char();
    return;
  }
  if (switches.report) error_exit("Cannot run progress with report ON");
  const int done = read_int_expr();
  const int total = read_int_expr();
  std::string text;
  int d = next_char();
  while (d > 0 && d < 33) d = next_char();
  while (d != ';' && d != 0) {
    text.push_back(static_cast<char>(d));
    d = next_char();
  }
  unread_char();
  show_progress(done, total, text);
}

void install_inner_words() { inner_command_word = inner_word; }

int iteration_nesting_limit() { return nesting_limit_; }
void set_iteration_nesting_limit(int n) { nesting_limit_ = n; }

}  // namespace qax::script
