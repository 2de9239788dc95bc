// sprit and tbrit: user instructions run for every SPR or TBR rearrangement of a stored
// tree. For each move the tree in memory is changed to the rearranged one, the body is
// run by an inner command loop, and the tree is put back (unless resetswap keeps it).
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "script/commands.h"
#include "script/expr.h"
#include "script/reader.h"
#include "script/space.h"
#include "shell/commands.h"
#include "shell/failure.h"
#include "shell/input.h"
#include "shell/output.h"
#include "shell/state.h"
#include "trees/store.h"
#include "search/ienum.h"
#include "dataset/dataset.h"

namespace qax::script {

using namespace qax::shell;
using qax::trees::tree_store;

namespace {

struct SwapState {
  int active = 0;
  int cut = 0;       // cutbranch: no trees grow from this one
  int bb_full = 0;   // bandb: the tree holds every active taxon
  int bb_tax = 0;    // bandb: taxa in the tree
  int end = 0;       // endswap
  int reset = 0;     // resetswap: keep this rearrangement and start again from it
  double percent = 0;
};
SwapState swap_;

// A rooted tree as children lists; node ids as in the parent array.
struct Rooted {
  int ntax = 0;
  int root = 0;
  std::vector<std::vector<int>> kids;
  std::vector<int> parent;
};

Rooted from_row(const std::int32_t* row, int ntax) {
  Rooted t;
  t.ntax = ntax;
  const int end = row[ntax];
  t.kids.assign(end, {});
  t.parent.assign(end, -1);
  t.root = ntax;
  for (int n = 0; n < end; ++n) {
    if (n == ntax) continue;
    if (n < ntax && row[n] < ntax) continue;  // absent terminal
    t.parent[n] = row[n];
    t.kids[row[n]].push_back(n);
  }
  return t;
}

void collect(const Rooted& t, int n, std::vector<int>& out) {
  out.push_back(n);
  for (int k : t.kids[n]) collect(t, k, out);
}

// Writes a rooted tree (children lists, root `root`) as a canonical parent array.
void to_row(const std::vector<std::vector<int>>& kids, int root, int ntax, std::int32_t* row, int row_size) {
  std::vector<int> id(kids.size(), -1);
  int next = ntax + 1;
  std::vector<int> order{root};
  for (std::size_t i = 0; i < order.size(); ++i)
    for (int k : kids[order[i]]) order.push_back(k);
  for (int n : order) {
    if (n < ntax) id[n] = n;
    else if (n == root) id[n] = ntax;
    else id[n] = next++;
  }
  for (int i = 0; i < row_size; ++i) row[i] = (i < ntax) ? 0 : 0;
  for (int i = 0; i < ntax; ++i) row[i] = -1;
  for (int n : order)
    for (int k : kids[n]) row[id[k]] = id[n];
  row[ntax] = next;
  // Terminals not in the tree keep a parent below ntax, as absent terminals do.
  for (int i = 0; i < ntax; ++i) if (row[i] < 0) row[i] = 0;
  qax::trees::reset_node_numbers(row, ntax);
}

// Subtree `s` re-rooted on the edge above `r` (r inside the subtree, r != s); `s` becomes
// the new subtree root. Works on copies of the children lists.
void reroot_subtree(std::vector<std::vector<int>>& kids, std::vector<int>& parent, int s, int r) {
  // Unrooted adjacency of the subtree, with s removed (its children joined).
  std::vector<int> nodes;
  std::vector<int> stack{s};
  while (!stack.empty()) {
    int n = stack.back();
    stack.pop_back();
    nodes.push_back(n);
    for (int k : kids[n]) stack.push_back(k);
  }
  std::vector<std::vector<int>> adj(kids.size());
  for (int n : nodes) {
    if (n == s) continue;
    for (int k : kids[n]) {
      adj[n].push_back(k);
      adj[k].push_back(n);
    }
  }
  const auto& sk = kids[s];
  for (std::size_t i = 1; i < sk.size(); ++i) {
    adj[sk[0]].push_back(sk[i]);
    adj[sk[i]].push_back(sk[0]);
  }
  // The edge above r: r and its neighbour towards the old root.
  int up = parent[r] == s ? sk[0] : parent[r];
  if (r == sk[0]) up = sk.size() > 1 ? sk[1] : -1;
  for (int n : nodes) kids[n].clear();
  kids[s] = {r, up};
  std::vector<std::pair<int, int>> todo{{r, up}, {up, r}};
  while (!todo.empty()) {
    auto [n, from] = todo.back();
    todo.pop_back();
    parent[n] = s;
    for (int m : adj[n]) {
      if (m == from) continue;
      kids[n].push_back(m);
      parent[m] = n;
      todo.push_back({m, n});
    }
  }
  for (int n : nodes) for (int k : kids[n]) parent[k] = n;
  parent[r] = s;
  parent[up] = s;
}

void swap_loop(bool tbr) {
  macro_command_guard();
  if (swap_.active) error_exit("Can't nest \"sprit\", \"tbrit\", or \"bandb\" commands");
  if (peek_char() == ';') error_exit("Must give tree number");
  const int tree = read_int_expr();
  std::string body = copy_body(tbr ? "tbrit" : "sprit");
  if (tree < 0 || tree >= tree_store.ntrees) error_exit({"No tree number", number_text(tree)});
  const int ntax = tree_store.ntax;
  const int row_size = tree_store.row_size;
  std::vector<std::int32_t> original(qax::trees::tree_row(tree), qax::trees::tree_row(tree) + row_size);
  swap_ = SwapState();
  swap_.active = 1;
  out_line({"Start to swap"});
  long long done = 0;
  bool interrupted = false, failed = false;
  const int saved_silent = output_state.silent_flags;
  for (bool restart = true; restart && !failed;) {
    restart = false;
    Rooted t = from_row(original.data(), ntax);
    std::vector<int> clips;
    collect(t, t.root, clips);
    const long long total = static_cast<long long>(clips.size());
    long long index = 0;
    for (int s : clips) {
      ++index;
      swap_.percent = 100.0 * index / std::max<long long>(total, 1);
      if (s == t.root) continue;
      std::vector<int> subtree;
      collect(t, s, subtree);
      std::vector<int> reroots{s};
      if (tbr && s >= ntax) {
        for (int r : subtree)
          if (r != s && !(t.kids[s].size() > 1 && r == t.kids[s][1])) reroots.push_back(r);
        reroots.erase(reroots.begin());
      }
      for (int r : reroots) {
        // Clip s off: its parent is spliced out when it keeps a single child.
        std::vector<std::vector<int>> kids = t.kids;
        std::vector<int> parent = t.parent;
        if (r != s) reroot_subtree(kids, parent, s, r);
        const int p = parent[s];
        auto& pk = kids[p];
        pk.erase(std::find(pk.begin(), pk.end(), s));
        int root = t.root;
        int sibling = -1;
        if (pk.size() == 1) {
          sibling = pk[0];
          const int g = parent[p];
          if (g < 0) {
            root = sibling;
            parent[sibling] = -1;
          } else {
            auto& gk = kids[g];
            *std::find(gk.begin(), gk.end(), p) = sibling;
            parent[sibling] = g;
          }
          kids[p].clear();
        }
        const int spare = sibling >= 0 ? p : static_cast<int>(kids.size());
        if (spare == static_cast<int>(kids.size())) {
          kids.emplace_back();
          parent.push_back(-1);
        }
        std::vector<int> in_sub(kids.size(), 0);
        for (int n : subtree) in_sub[n] = 1;
        std::vector<int> dests;
        {
          std::vector<int> st{root};
          while (!st.empty()) {
            int n = st.back();
            st.pop_back();
            dests.push_back(n);
            for (int k : kids[n]) st.push_back(k);
          }
        }
        for (int d : dests) {
          // Back on the sibling's branch with the first rooting is the tree itself.
          if (d == sibling && (r == s || r == t.kids[s][0])) continue;
          std::vector<std::vector<int>> k2 = kids;
          int root2 = root;
          const int pd = d == root ? -1 : parent[d];
          k2[spare] = {d, s};
          if (pd < 0) {
            root2 = spare;
          } else {
            *std::find(k2[pd].begin(), k2[pd].end(), d) = spare;
          }
          std::int32_t* row = qax::trees::tree_row(tree);
          to_row(k2, root2, ntax, row, row_size);
          tree_store.scores[tree] = 0;
          ++done;
          if (switches.macreport) out_line({"Move", number_text(s), "(" + number_text(r) + ") to", number_text(d)});
          if (!run_inner_body(body, "sprit commands", false)) {
            failed = true;
            break;
          }
          if (swap_.reset) {
            std::copy(row, row + row_size, original.begin());
            swap_.reset = 0;
            restart = true;
            break;
          }
          std::copy(original.begin(), original.end(), row);
          if (swap_.end) break;
          if (check_interrupt(1)) {
            interrupted = true;
            break;
          }
        }
        if (failed || restart || swap_.end || interrupted) break;
      }
      if (failed || restart || swap_.end || interrupted) break;
    }
  }
  output_state.silent_flags = saved_silent;
  swap_ = SwapState();
  if (failed) {
    std::copy(original.begin(), original.end(), qax::trees::tree_row(tree));
    recover();
  }
  if (interrupted) {
    shell_state.stop_search_flag = 0;
    out_line({"Interrupted swapping"});
  } else {
    out_text({"Finished swapping (", std::to_string(done), " swappings done)\n"});
  }
}

void leave_body() { leave_inner_body(); }

}  // namespace

void cmd_sprit() { swap_loop(false); }

void cmd_bandb() {
  macro_command_guard();
  if (swap_.active) error_exit("Can't nest \"sprit\", \"tbrit\", or \"bandb\" commands");
  std::string body = copy_body("bandb");
  qax::trees::require_data();
  if (tree_store.ntrees >= tree_store.maxtrees) error_exit("Increase maxtrees to branch-and-bound on tree");
  const int slot = qax::trees::tree_store_add(-1, false);
  const int ntax = tree_store.ntax;
  int active = 0;
  for (int t = 0; t < ntax; ++t)
    if (qax::dataset::dataset.taxon_active.empty() || qax::dataset::dataset.taxon_active[t]) ++active;
  swap_ = SwapState();
  swap_.active = 1;
  out_line({"Start generating trees..."});
  bool failed = false;
  const int events = shell_state.interrupt_events;
  qax::search::walk_addition_trees([&](const std::vector<std::int32_t>& tree, int taxa) {
    if (failed || swap_.end) return false;
    if (script_interrupted(events)) {
      swap_.end = 1;
      return false;
    }
    std::copy(tree.begin(), tree.end(), qax::trees::tree_row(slot));
    tree_store.scores[slot] = 0;
    swap_.bb_full = taxa >= active;
    swap_.bb_tax = taxa;
    swap_.cut = 0;
    if (!run_inner_body(body, "bandb commands", false)) {
      failed = true;
      return false;
    }
    return !swap_.cut && !swap_.end;
  });
  // The slot is left holding the bush of the active taxa.
  std::int32_t* row = qax::trees::tree_row(slot);
  for (int t = 0; t < ntax; ++t)
    row[t] = (qax::dataset::dataset.taxon_active.empty() || qax::dataset::dataset.taxon_active[t]) ? ntax : 0;
  row[ntax] = ntax + 1;
  qax::trees::reset_node_numbers(row, ntax);
  swap_ = SwapState();
  if (failed) recover();
  out_line({"Finished generating trees"});
}

void cmd_cutbranch() {
  macro_command_guard();
  if (!swap_.active) error_exit({"cutbranch", "valid only within bandb"});
  swap_.cut = 1;
}

void cmd_endbranch() {
  macro_command_guard();
  if (!swap_.active) error_exit({"endbranch", "valid only within bandb"});
  swap_.end = 1;
  leave_body();
}

double bandb_value(bool full) { return full ? swap_.bb_full : swap_.bb_tax; }
void cmd_tbrit() { swap_loop(true); }

void cmd_resetswap() {
  macro_command_guard();
  if (!swap_.active) error_exit({"resetswap", "valid only within sprit or tbrit"});
  swap_.reset = 1;
  leave_body();
}

void cmd_endswap() {
  macro_command_guard();
  if (!swap_.active) error_exit({"endswap", "valid only within sprit or tbrit"});
  swap_.end = 1;
  leave_body();
}

bool swap_continue() {
  if (!swap_.active || inner_body_level() == 0 || input_level() < inner_body_level()) return false;
  leave_body();
  return true;
}

double swap_percent() { return swap_.active ? swap_.percent : 0; }

}  // namespace qax::script
