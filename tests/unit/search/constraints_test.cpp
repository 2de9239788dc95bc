// The per-candidate constraint test against brute force: every move (clip, rerooting,
// target) of random trees is carried out on an unrooted copy, and the groups are checked
// on the bipartitions of the result.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <random>
#include <vector>

#include "dataset/dataset.h"
#include "common/data_fixtures.h"
#include "optim/kernels.h"
#include "optim/packed.h"
#include "search/constraints.h"
#include "shell/failure.h"

using namespace qax::search;
using namespace qax::optim;
namespace ds = qax::dataset;

namespace {

void make_data(std::mt19937& rng, int ntax, bool some_inactive) {
  qax::test::install_matrix(ntax, 3);
  if (some_inactive) ds::dataset.taxon_active[1 + rng() % (ntax - 1)] = 0;
  for (auto& c : qax::test::matrix_cells()) c = 1u << (rng() % 2);
}

std::vector<int> random_parent(std::mt19937& rng, int ntax) {
  const auto p = qax::test::random_binary_parent(rng, ntax);
  return {p.begin(), p.end()};
}

ConstraintGroup random_group(std::mt19937& rng, int ntax, int size) {
  ConstraintGroup g;
  g.field.assign(ntax, field_outside);
  for (int k = 0; k < size; ++k) g.field[rng() % ntax] = field_inside;
  if (rng() % 3 == 0) g.field[rng() % ntax] = field_floating;
  return g;
}

// An unrooted tree as edges between node ids; taxa are the packed terminals.
struct Graph {
  std::vector<std::vector<int>> adj;
  void edge(int a, int b) {
    if (static_cast<int>(adj.size()) <= std::max(a, b)) adj.resize(std::max(a, b) + 1);
    adj[a].push_back(b);
    adj[b].push_back(a);
  }
  void cut(int a, int b) {
    adj[a].erase(std::find(adj[a].begin(), adj[a].end(), b));
    adj[b].erase(std::find(adj[b].begin(), adj[b].end(), a));
  }
};

// Terminals on a's side of edge (a, b).
void side(const Graph& g, int a, int from, int nterm, std::vector<std::uint8_t>& out) {
  if (a < nterm) out[a] = 1;
  for (int n : g.adj[a])
    if (n != from) side(g, n, a, nterm, out);
}

// Does some edge put the firm inside taxa on one side and the firm outside ones on the other?
bool has_split(const Graph& g, int nterm, const std::vector<int>& in, const std::vector<int>& out) {
  if (in.size() <= 1 || out.size() <= 1) return true;
  std::vector<std::uint8_t> s(nterm);
  for (int a = 0; a < static_cast<int>(g.adj.size()); ++a)
    for (int b : g.adj[a]) {
      std::fill(s.begin(), s.end(), 0);
      side(g, a, b, nterm, s);
      bool in_a = std::all_of(in.begin(), in.end(), [&](int t) { return s[t]; });
      bool out_b = std::none_of(out.begin(), out.end(), [&](int t) { return s[t]; });
      if (in_a && out_b) return true;
    }
  return false;
}

// Verdict of the finished tree g on the defined groups, over the present terminals.
bool tree_ok(const Graph& g, int nterm, const std::vector<std::uint8_t>& present) {
  auto sides = [&](const ConstraintGroup& grp, std::vector<int>& in, std::vector<int>& out, bool& complete) {
    complete = true;
    int firm_in = 0, firm_out = 0;
    for (int t = 0; t < nterm; ++t) {
      const int f = grp.field[packed.from_packed[t]];
      if (f == field_floating) continue;
      (f == field_inside ? firm_in : firm_out)++;
      if (!present[t]) { complete = false; continue; }
      (f == field_inside ? in : out).push_back(t);
    }
    if (firm_in <= 1 || firm_out <= 1) complete = false;  // trivial: never enforced
  };
  for (const auto& grp : constraint_defs.positive) {
    std::vector<int> in, out;
    bool complete;
    sides(grp, in, out, complete);
    if (!has_split(g, nterm, in, out)) return false;
  }
  for (const auto& grp : constraint_defs.negative) {
    std::vector<int> in, out;
    bool complete;
    sides(grp, in, out, complete);
    if (complete && has_split(g, nterm, in, out)) return false;
  }
  return true;
}

// The tree after moving clip c, rerooted above r, onto the branch above t, from a tree
// where the clip has been cut (cut_node) or detached.
Graph moved(const WorkTree& w, int c, int r, int t, std::vector<std::uint8_t>& present) {
  Graph g;
  g.adj.resize(w.nnodes + 2);
  present.assign(w.nterm, 0);
  const int x = w.nnodes, y = w.nnodes + 1;
  std::function<void(int)> main = [&](int n) {
    if (n < w.nterm) { present[n] = 1; return; }
    for (int k : {w.left_child[n], w.right_child[n]})
      if (k >= 0) {
        if (k == t) { g.edge(k, x); g.edge(x, n); } else g.edge(k, n);
        main(k);
      }
  };
  main(w.nterm);
  std::function<void(int)> clip = [&](int n) {
    if (n < w.nterm) { present[n] = 1; return; }
    for (int k : {w.left_child[n], w.right_child[n]})
      if (k >= 0) {
        if (k == r) { g.edge(k, y); g.edge(y, n); } else g.edge(k, n);
        clip(k);
      }
  };
  clip(c);
  g.edge(x, r == c ? c : y);
  return g;
}

// Main-tree nodes other than the root, of a tree with the clip cut away.
std::vector<int> main_nodes(const WorkTree& w) {
  std::vector<int> out, st{w.nterm};
  while (!st.empty()) {
    int n = st.back();
    st.pop_back();
    if (n != w.nterm) out.push_back(n);
    if (n >= w.nterm)
      for (int k : {w.left_child[n], w.right_child[n]}) if (k >= 0) st.push_back(k);
  }
  return out;
}
std::vector<int> clip_nodes(const WorkTree& w, int c) {
  std::vector<int> out, st{c};
  while (!st.empty()) {
    int n = st.back();
    st.pop_back();
    out.push_back(n);
    if (n >= w.nterm)
      for (int k : {w.left_child[n], w.right_child[n]}) if (k >= 0) st.push_back(k);
  }
  return out;
}

// Random groups until they pass the conflict checks; then packed.
void random_constraints(std::mt19937& rng, int ntax, bool negatives) {
  for (;;) {
    constraint_defs = ConstraintDefs{};
    constraint_defs.defined = constraint_defs.active = 1;
    const int npos = 1 + rng() % 3;
    for (int k = 0; k < npos; ++k) constraint_defs.positive.push_back(random_group(rng, ntax, 2 + rng() % 3));
    if (negatives)
      for (int k = 0; k < 1 + static_cast<int>(rng() % 2); ++k)
        constraint_defs.negative.push_back(random_group(rng, ntax, 2 + rng() % 2));
    if (qax::shell::protected_call([] { constraints_pack(); })) return;
  }
}

}  // namespace

TEST(Constraints, EveryMoveMatchesBruteForce) {
  std::mt19937 rng(777);
  long allowed = 0, refused = 0;
  for (int rep = 0; rep < 150; ++rep) {
    const int ntax = 5 + rng() % 6;
    make_data(rng, ntax, rep % 4 == 0);
    pack_data();
    random_constraints(rng, ntax, rep % 2 == 1);
    WorkTree w;
    ASSERT_TRUE(load_tree(random_parent(rng, ntax), w));
    for (int c = 1; c < w.nnodes; ++c) {
      if (c == w.nterm || w.ancestor[c] == w.nterm) continue;
      // The intact tree, seen with the clip passed over, as a search engine would bind it.
      constraint_clip(w, c);
      WorkTree cut = w;
      cut_node(cut, c);
      for (int r : clip_nodes(cut, c))
        for (int t : main_nodes(cut)) {
          std::vector<std::uint8_t> present;
          Graph g = moved(cut, c, r, t, present);
          const bool want = tree_ok(g, w.nterm, present);
          ASSERT_EQ(constraint_test(r, t), want) << "rep " << rep << " clip " << c << " reroot " << r << " target " << t;
          (want ? allowed : refused)++;
        }
      // The same from the tree with the clip cut off.
      constraint_clip(cut, c);
      for (int t : main_nodes(cut)) {
        std::vector<std::uint8_t> present;
        ASSERT_EQ(constraint_test(c, t), tree_ok(moved(cut, c, c, t, present), w.nterm, present)) << "rep " << rep;
      }
    }
  }
  EXPECT_GT(allowed, 1000);
  EXPECT_GT(refused, 1000);
  constraints_reset();
}

TEST(Constraints, InsertionIntoPartialTrees) {
  // Wagner insertion: terminals not yet in the tree float; the new terminal is detached.
  std::mt19937 rng(31337);
  long allowed = 0, refused = 0;
  for (int rep = 0; rep < 300; ++rep) {
    const int ntax = 5 + rng() % 6;
    make_data(rng, ntax, false);
    pack_data();
    random_constraints(rng, ntax, rep % 2 == 0);
    WorkTree w;
    ASSERT_TRUE(load_tree(random_parent(rng, ntax), w));
    // Take out up to three terminals whose parent isn't the root; the last is the new one.
    int taken = 0, last = -1;
    for (int k = 0; k < 3; ++k) {
      int t = 1 + rng() % (w.nterm - 1);
      if (w.ancestor[t] < 0 || w.ancestor[t] == w.nterm) continue;
      cut_node(w, t);
      w.ancestor[t] = -1;
      last = t;
      ++taken;
    }
    if (!taken) continue;
    constraint_clip(w, last);
    for (int t : main_nodes(w)) {
      std::vector<std::uint8_t> present;
      const bool want = tree_ok(moved(w, last, last, t, present), w.nterm, present);
      ASSERT_EQ(constraint_candidate(last, -1, t), want ? 1 : 0) << "rep " << rep << " target " << t;
      (want ? allowed : refused)++;
    }
  }
  EXPECT_GT(allowed, 100);
  EXPECT_GT(refused, 100);
  constraints_reset();
}

TEST(Constraints, WholeTreeChecks) {
  // tree_violations (stored trees) and the packed counts agree on random binary trees.
  std::mt19937 rng(5);
  int good = 0;
  for (int rep = 0; rep < 300; ++rep) {
    const int ntax = 4 + rng() % 8;
    make_data(rng, ntax, rep % 3 == 0);
    pack_data();
    random_constraints(rng, ntax, rep % 2 == 0);
    constraints_pack();
    auto parent = random_parent(rng, ntax);
    WorkTree w;
    ASSERT_TRUE(load_tree(parent, w));
    int pos_bad = 0, neg_bad = 0;
    constraint_tree_counts(w, &pos_bad, &neg_bad);
    std::vector<std::int32_t> tree(parent.begin(), parent.end());
    ASSERT_EQ(tree_violations(tree.data(), ntax), pos_bad + neg_bad) << "rep " << rep;
    good += pos_bad + neg_bad == 0;
  }
  EXPECT_GT(good, 10);
  constraints_reset();
}

TEST(Constraints, TrivialGroupsAndConflicts) {
  std::mt19937 rng(8);
  make_data(rng, 6, false);
  pack_data();
  constraint_defs = ConstraintDefs{};
  constraint_defs.defined = constraint_defs.active = 1;
  ConstraintGroup one, all, ab, bc, ab_neg;
  one.field.assign(6, field_outside);
  one.field[2] = field_inside;
  all.field.assign(6, field_inside);
  constraint_defs.positive = {one, all};
  constraints_pack();
  WorkTree w;
  ASSERT_TRUE(load_tree(random_parent(rng, 6), w));
  int p = 0, n = 0;
  constraint_tree_counts(w, &p, &n);
  EXPECT_EQ(p + n, 0);  // a group of one taxon or of all taxa costs nothing
  ab.field.assign(6, field_outside);
  ab.field[0] = ab.field[1] = field_inside;
  bc.field.assign(6, field_outside);
  bc.field[1] = bc.field[2] = field_inside;
  constraint_defs.positive = {ab, bc};
  EXPECT_EQ(qax::shell::protected_call([] { check_constraint_conflicts(); }), 0);
  // A floating taxon removes the conflict.
  constraint_defs.positive[1].field[1] = field_floating;
  EXPECT_EQ(qax::shell::protected_call([] { check_constraint_conflicts(); }), 1);
  constraint_defs.positive = {ab};
  constraint_defs.negative = {ab};
  EXPECT_EQ(qax::shell::protected_call([] { check_constraint_conflicts(); }), 0);
  constraints_reset();
  EXPECT_FALSE(constraints_in_force());
}

// ---- Commands: output and messages ----------------------------------------------------
#include <unistd.h>

#include <fstream>
#include <sstream>

#include "app/command_table.h"
#include "app/program.h"
#include "shell/arena.h"
#include "shell/commands.h"
#include "shell/input.h"
#include "shell/output.h"
#include "trees/store.h"

namespace {

const std::string cmd_log = ::testing::TempDir() + "constraints_test_" + std::to_string(::getpid()) + ".log";

void setup_shell() {
  qax::app::reset_run_state();
  qax::shell::install_command_table(qax::app::command_records, &qax::app::run_file_record);
  qax::shell::init_input_stack(10, "", false);
  qax::shell::frame_at(0).stream = nullptr;
  qax::shell::region_tags = qax::shell::RegionTags();
  qax::shell::claim_arena(qax::shell::default_ram_size);
  ds::reset_dataset_state();
  qax::trees::install_dataset_links();
  ds::add_dataset_replaced_hook(qax::trees::tree_store_clear);
}

// Runs the text; an error ends it. Returns everything printed.
std::string run(const std::string& text) {
  namespace sh = qax::shell;
  sh::init_input_stack(10, "", false);
  sh::frame_at(0).stream = nullptr;
  sh::open_log(cmd_log, false);
  sh::push_text_level(text + "\n", "test");
  sh::protected_call([] {
    while (sh::input_level() > 0 && !sh::current_frame().at_eof) sh::read_and_dispatch();
  });
  while (sh::input_level() > 0) sh::close_input();
  sh::flush_log();
  sh::close_log();
  std::ifstream in(cmd_log);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

bool has(const std::string& out, const std::string& piece) { return out.find(piece) != std::string::npos; }

const char* data6 =
    "xread 6 6 A 000000 B 110000 C 111100 D 111111 E 111101 F 111111 ;"
    "tread (A (B (C (D (E F)))))*(A (B ((C D)(E F))))*(A ((B C)(D (E F))));";

}  // namespace

TEST(ConstraintCommands, MonoAndMessages) {
  setup_shell();
  std::string out = run(std::string(data6) + "mono;");
  EXPECT_TRUE(has(out, "No constraints defined")) << out;
  out = run("constrain=;");
  EXPECT_TRUE(has(out, "Cannot activate constraints (constraints undefined)")) << out;
  out = run("force + [C D E F] [E F] - [B C]; mono; mono -; mono *;");
  EXPECT_TRUE(has(out, "Read 1 negative constraints, 2 positive constraints, 0 tree-constraints")) << out;
  EXPECT_TRUE(has(out, "Tree(s) fulfilling constraints:\n 0 1\n")) << out;
  EXPECT_TRUE(has(out, "Tree(s) violating constraints:\n 2\n")) << out;
  EXPECT_TRUE(has(out, "Tree 2, 2 constraints violated\n    Positive group 0\n    Negative group 0\n")) << out;
  EXPECT_TRUE(has(out, "Tree 0, 3 constraints fulfilled")) << out;
  out = run("force - [A B] + [C D];");
  EXPECT_TRUE(has(out, "Must define all positive constraints before the negative ones")) << out;
  out = run("force = &0 / &1;");
  EXPECT_TRUE(has(out, "Cannot define two trees for strict constraint at the same time")) << out;
  out = run("force = &7;");
  EXPECT_TRUE(has(out, "& must be followed by a tree number ( 0 - 2 )")) << out;
  out = run("force + [A B;");
  EXPECT_TRUE(has(out, "Unterminated constraint group")) << out;
  out = run("force + [A Zz];");
  EXPECT_FALSE(has(out, "Read ")) << out;
  out = run("force x;");
  EXPECT_TRUE(has(out, "Unidentified string in force options: x")) << out;
  // The definitions of the failed commands did not replace the good ones.
  out = run("force *;");
  EXPECT_TRUE(has(out, "    Group 0: 2 3 4 5\n    Group 1: 4 5\n  Negative constraints:\n    Group 0: 1 2\n")) << out;
  // Conflicts are found when the data are packed for a search.
  out = run("force + [A B] [B C]; mult;");
  EXPECT_TRUE(has(out, "Some positive constraints force incompatible groups")) << out;
  out = run("force + [A B] - [A B]; mult;");
  EXPECT_TRUE(has(out, "Positive and negative constraints contain some identical groups")) << out;
  out = run(std::string(data6) + "force + [A B]; " + data6 + "mono;");
  EXPECT_TRUE(has(out, "No constraints defined")) << out;  // new data drop the constraints
  out = run(std::string(data6) + "force = &1; force;");
  EXPECT_TRUE(has(out, "Tree constraint (groups of the tree):\n    (A (B ((C D )(E F ))))")) << out;
  out = run("force ]; constrain; constrain/; constrain-;");
  const auto a = out.find("Constraints de-activated"), b = out.find("Enforcing constraints is OFF"),
             c = out.find("Enforcing constraints is ON"), d = out.rfind("Enforcing constraints is OFF");
  EXPECT_TRUE(a < b && b < c && c < d && d != std::string::npos) << out;
  constraints_reset();
}

TEST(ConstraintCommands, SearchKeepsPositiveGroups) {
  // A search under a group that the data contradict: every tree found has the group.
  setup_shell();
  std::string out = run(std::string(data6) + "force + [A F]; mult; mono -;");
  EXPECT_TRUE(has(out, "Tree(s) violating constraints:\n    none")) << out;
  constraints_reset();
}
