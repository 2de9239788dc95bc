// What the data set and the list reader need from the trees: re-rooting the stored trees
// when the outgroup changes, "@T N" in taxon lists, and data simulated along a tree
// (xread +), and the diagram format of "naked [" / "naked ]". The lower layers reach these through hooks installed at start-up.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "dataset/dataset.h"
#include "dataset/import.h"
#include "trees/notation.h"
#include "shell/failure.h"
#include "shell/input.h"
#include "shell/lists.h"
#include "shell/output.h"
#include "shell/shell_commands.h"
#include "trees/store.h"

namespace qax::trees {

using qax::dataset::dataset;
using shell::error_exit;
using shell::error_exitf;

namespace {

// Fails unless tree `t` and node `node` of it exist; the node must be present in the tree.
const std::int32_t* checked_tree_node(int t, int node) {
  if (!dataset.loaded) error_exit("Must read data first");
  if (tree_store.ntax != dataset.ntax || tree_store.ntrees == 0) error_exit("No trees in memory");
  if (t < 0 || t >= tree_store.ntrees) error_exitf("No tree %i (trees 0-%i)", t, tree_store.ntrees - 1);
  const std::int32_t* tree = tree_row(t);
  int ntax = tree_store.ntax;
  bool present = node >= 0 && node < tree[ntax] && (node >= ntax || terminal_present(tree, node, ntax));
  if (!present) error_exitf("No node %i in tree %i", node, t);
  return tree;
}

// "@T N": every terminal of tree T whose path to the root passes through N.
void mark_terminals_below(int t, int node, shell::ScopeFlags& flags, std::int8_t sign) {
  const std::int32_t* tree = checked_tree_node(t, node);
  int ntax = tree_store.ntax;
  for (int x = 0; x < ntax && x < static_cast<int>(flags.size()); ++x) {
    if (!terminal_present(tree, x, ntax)) continue;
    int v = x;
    while (v != node && v != ntax) v = tree[v];
    if (v == node) flags[x] = sign;
  }
}

// One simulation: the model tree, the order in which to visit its nodes (parents
// first) and the probability of change along the branch below each node.
struct Simulation {
  std::vector<std::int32_t> tree;   // parent array, canonical
  std::vector<int> order;           // present nodes, root first, parents before children
  std::vector<double> change;       // per node: probability of a change on its branch
  std::vector<int> state;           // per node: state of the character being drawn
  int nstates = 2;
};

double uniform01() { return std::rand() / (RAND_MAX + 1.0); }

// Draws every character: a random state at the root, then down the tree each branch
// keeps its parent's state or, with the branch's probability, takes another one
// (each of the other states equally likely). Absent terminals stay missing.
void fill_simulated(qax::dataset::Dataset& d, void* context) {
  Simulation& sim = *static_cast<Simulation*>(context);
  int ntax = d.ntax;
  const std::int32_t* tree = sim.tree.data();
  for (int ch = 0; ch < d.nchar; ++ch) {
    for (int v : sim.order) {
      if (v == ntax) {
        sim.state[v] = std::rand() % sim.nstates;
        continue;
      }
      int s = sim.state[tree[v]];
      if (sim.nstates > 1 && uniform01() < sim.change[v]) {
        int other = std::rand() % (sim.nstates - 1);
        s = other >= s ? other + 1 : other;
      }
      sim.state[v] = s;
    }
    for (int x = 0; x < ntax; ++x)
      if (terminal_present(tree, x, ntax)) d.set_cell(x, ch, 1u << sim.state[x]);
  }
}

// xread +T P C N : C characters of N states along tree T with stasis probability P
// percent on every branch; xread +! C N : along the branch lengths written as tags
// (Jukes-Cantor for N states). The model tree stays as tree 0, group "model_tree".
void generate_data_from_tree() {
  if (!dataset.loaded) error_exit("Must read data first");
  int ntax = dataset.ntax;
  Simulation sim;
  char title[64];
  bool from_tags = shell::accept_char('!');
  std::vector<double> lengths;
  double stasis = 0;
  if (from_tags) {
    bool any = false;
    if (tree_store.ntax == ntax && !tree_store.tag_tree.empty()) {
      lengths.assign(tree_store.tag_tree.size(), 0.0);
      for (std::size_t v = 0; v < tree_store.tags.size() && v < lengths.size(); ++v) {
        const std::string& tag = tree_store.tags[v];
        if (tag.empty()) continue;
        char* end = nullptr;
        double x = std::strtod(tag.c_str(), &end);
        if (end != tag.c_str() && x >= 0) {
          lengths[v] = x;
          any = true;
        }
      }
    }
    if (!any) error_exit("No messages written to tree branches");
    sim.tree = tree_store.tag_tree;
    std::snprintf(title, sizeof title, "Data (jukes-cantor)");
  } else {
    int t = shell::read_int();
    if (t < 0) error_exit("Expected a tree number after \"xread +\"");
    sim.tree.assign(checked_tree_node(t, ntax), checked_tree_node(t, ntax) + 2 * ntax - 1);
    stasis = shell::read_real();
    if (stasis < 0 || stasis > 100) error_exit("Probability of stasis must be 0-100");
    std::snprintf(title, sizeof title, "Data, p(stasis)=%.2f", stasis / 100.0);
  }
  int nchar = shell::read_int();
  if (nchar < 1) error_exit("Must specify number of characters");
  int nstates = shell::read_int();
  if (nstates < 1 || nstates > qax::dataset::max_states) error_exit("Number of states must be 1-32");
  sim.nstates = nstates;

  // Parents before children: sort the present nodes by depth.
  const std::int32_t* tree = sim.tree.data();
  int end = tree[ntax];
  std::vector<int> depth(end, -1);
  for (int v = 0; v < end; ++v) {
    if (v < ntax && !terminal_present(tree, v, ntax)) continue;
    int d = 0;
    for (int u = v; u != ntax; u = tree[u]) ++d;
    depth[v] = d;
    sim.order.push_back(v);
  }
  std::stable_sort(sim.order.begin(), sim.order.end(), [&](int a, int b) { return depth[a] < depth[b]; });
  sim.change.assign(end, 0.0);
  for (int v = 0; v < end; ++v) {
    if (from_tags) {
      double len = v < static_cast<int>(lengths.size()) ? lengths[v] : 0.0;
      double n = nstates;
      sim.change[v] = nstates > 1 ? (n - 1) / n * (1 - std::exp(-n / (n - 1) * len)) : 0.0;
    } else {
      sim.change[v] = 1.0 - stasis / 100.0;
    }
  }
  sim.state.assign(end, 0);

  std::vector<std::string> names = dataset.taxon_names;
  qax::dataset::generate_matrix(ntax, nchar, nstates, false, title, names, fill_simulated, &sim);
  tree_store_reset_for(ntax);
  group_wipe(0);
  tree_store.group_defined[0] = 1;
  tree_store.group_names[0] = "model_tree";
  tree_store_append(sim.tree.data(), 0);
}

void set_tree_format(bool narrow) {
  display_settings.narrow = narrow ? 1 : 0;
  shell::out_text({narrow ? "Drawing trees in narrow format\n" : "Drawing trees in default (wide) format\n"});
}

}  // namespace

// Trees that came in the same NEXUS file as the matrix are read once the matrix is.
void read_trees_of_matrix_file() {
  const auto& pending = qax::dataset::nexus_trees();
  if (pending.text.empty() && pending.trees.empty()) return;
  // Rebuilt from the importer's parts, whose TRANSLATE names are already in the form
  // the matrix gave the taxa (the raw block keeps quoted names such as 'O''Brien').
  std::string text;
  if (!pending.translate.empty()) {
    text += "translate";
    for (std::size_t i = 0; i < pending.translate.size(); ++i) {
      text += (i ? ",\n  " : " ") + pending.translate[i].first + " " + pending.translate[i].second;
    }
    text += ";\n";
  }
  for (const auto& [name, tree] : pending.trees) {
    text += "tree " + name + " = " + tree;
    if (tree.empty() || tree.back() != ';') text += ";";
    text += "\n";
  }
  if (pending.trees.empty()) text = pending.text;
  std::string file = pending.file;
  qax::dataset::clear_nexus_trees();
  int n = read_nexus_trees_block(text);
  shell::out_text({std::to_string(n), n == 1 ? " tree" : " trees", " read from the TREES block of ", file, "\n"});
}

void install_dataset_links() {
  qax::dataset::tree_link_hooks.matrix_read = read_trees_of_matrix_file;
  shell::tree_format_hook = set_tree_format;
  qax::dataset::tree_link_hooks.outgroup_changed = tree_store_reroot_all;
  qax::dataset::tree_link_hooks.generate_from_tree = generate_data_from_tree;
  shell::terminals_below = mark_terminals_below;
}

}  // namespace qax::trees
