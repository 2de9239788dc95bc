// What the data set and the list reader need from the trees: re-rooting the stored trees
// when the outgroup changes, "@T N" in taxon lists, and data simulated along a tree
// (xread +), and the diagram format of "naked [" / "naked ]". The lower layers reach these through hooks installed at start-up.
#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "dataset/dataset.h"
#include "dataset/import.h"
#include "dataset/lists_bridge.h"
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
void draw_character(Simulation& sim, int ntax) {
  const std::int32_t* tree = sim.tree.data();
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
}

// Exponential homoplasy: each character draws its own probability of change, the same on
// every branch, from an exponential distribution of the given mean.
struct ExponentialRates {
  Simulation* sim = nullptr;
  double mean = 0;   // probability, 0-1
};

void fill_simulated(qax::dataset::Dataset& d, void* context) {
  Simulation& sim = *static_cast<Simulation*>(context);
  int ntax = d.ntax;
  const std::int32_t* tree = sim.tree.data();
  for (int ch = 0; ch < d.nchar; ++ch) {
    draw_character(sim, ntax);
    for (int x = 0; x < ntax; ++x)
      if (terminal_present(tree, x, ntax)) d.set_cell(x, ch, 1u << sim.state[x]);
  }
}

void fill_exponential(qax::dataset::Dataset& d, void* context) {
  ExponentialRates& e = *static_cast<ExponentialRates*>(context);
  Simulation& sim = *e.sim;
  const int ntax = d.ntax;
  for (int ch = 0; ch < d.nchar; ++ch) {
    const double p = std::min(1.0, -e.mean * std::log(1.0 - uniform01()));
    std::fill(sim.change.begin(), sim.change.end(), p);
    draw_character(sim, ntax);
    for (int x = 0; x < ntax; ++x)
      if (terminal_present(sim.tree.data(), x, ntax)) d.set_cell(x, ch, 1u << sim.state[x]);
  }
}

// The data replaced with generated characters (same taxa); the model tree stays as tree 0,
// in the tree group "model_tree".
void replace_with_generated(const Simulation& sim, int nchar, int nstates, const char* title,
                            void (*fill)(qax::dataset::Dataset&, void*), void* context) {
  const int ntax = dataset.ntax;
  const std::vector<std::int32_t> model = sim.tree;
  std::vector<std::string> names = dataset.taxon_names;
  qax::dataset::generate_matrix(ntax, nchar, nstates, false, title, names, fill, context);
  tree_store_reset_for(ntax);
  group_wipe(0);
  tree_store.group_defined[0] = 1;
  tree_store.group_names[0] = "model_tree";
  tree_store_append(model.data(), 0);
}

// Parents before children: the present nodes of the model tree sorted by depth.
void order_nodes(Simulation& sim, int ntax) {
  const std::int32_t* tree = sim.tree.data();
  const int end = tree[ntax];
  std::vector<int> depth(end, -1);
  sim.order.clear();
  for (int v = 0; v < end; ++v) {
    if (v < ntax && !terminal_present(tree, v, ntax)) continue;
    int d = 0;
    for (int u = v; u != ntax; u = tree[u]) ++d;
    depth[v] = d;
    sim.order.push_back(v);
  }
  std::stable_sort(sim.order.begin(), sim.order.end(), [&](int a, int b) { return depth[a] < depth[b]; });
  sim.change.assign(end, 0.0);
  sim.state.assign(end, 0);
}

// Branch lengths written as tags on the tag tree, which becomes the model tree.
std::vector<double> tag_branch_lengths(Simulation& sim, int ntax) {
  std::vector<double> lengths;
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
  return lengths;
}

// Branch lengths as probabilities of change (Jukes-Cantor for the number of states).
void jukes_cantor_changes(Simulation& sim, int ntax, const std::vector<double>& lengths, int nstates) {
  order_nodes(sim, ntax);
  const double n = nstates;
  for (std::size_t v = 0; v < sim.change.size(); ++v) {
    const double len = v < lengths.size() ? lengths[v] : 0.0;
    sim.change[v] = nstates > 1 ? (n - 1) / n * (1 - std::exp(-n / (n - 1) * len)) : 0.0;
  }
}

// xread <T P L : the characters of list L drawn again along tree T with stasis probability
// P percent; xread >L : the same along the branch lengths written as tags. Each keeps the
// number of states it has (at least 2); taxa not on the tree become missing.
// xread &T C N M : C characters of N states along tree T, each with its own probability of
// change drawn from an exponential distribution of mean M percent (most characters change
// seldom, a few often). The model tree stays as tree 0, group "model_tree".
void generate_into_characters(int form) {
  if (!dataset.loaded) error_exit("Must read data first");
  const int ntax = dataset.ntax;
  Simulation sim;
  if (form == '&') {
    const int t = shell::read_int();
    if (t < 0) error_exit("Expected a tree number after \"xread &\"");
    sim.tree.assign(checked_tree_node(t, ntax), checked_tree_node(t, ntax) + 2 * ntax - 1);
    const int nchar = shell::read_int();
    if (nchar < 1) error_exit("Must specify number of characters");
    const int nstates = shell::read_int();
    if (nstates < 1 || nstates > qax::dataset::max_states) error_exit("Number of states must be 1-32");
    const double mean = shell::read_real();
    if (!(mean > 0 && mean <= 100)) error_exit("Mean probability of change must be above 0 and up to 100");
    sim.nstates = nstates;
    order_nodes(sim, ntax);
    ExponentialRates rates{&sim, mean / 100.0};
    char title[80];
    std::snprintf(title, sizeof title, "Data, exponential homoplasy (mean p(change)=%.2f)", mean / 100.0);
    replace_with_generated(sim, nchar, nstates, title, fill_exponential, &rates);
    return;
  }
  double stasis = 0;
  if (form == '<') {
    const int t = shell::read_int();
    if (t < 0) error_exit("Expected a tree number after \"xread <\"");
    sim.tree.assign(checked_tree_node(t, ntax), checked_tree_node(t, ntax) + 2 * ntax - 1);
    stasis = shell::read_real();
    if (!(stasis >= 0 && stasis <= 100)) error_exit("Probability of stasis must be 0-100");
  }
  std::vector<std::int8_t> listed;
  if (shell::peek_char() != ';') qax::dataset::read_character_list(listed);
  std::vector<int> chars;
  for (int c = 0; c < dataset.nchar; ++c) {
    if (!listed.empty() && listed[c] != 1) continue;
    const auto fmt = dataset.chars[c].format;
    if (fmt == qax::dataset::format_continuous || fmt == qax::dataset::format_landmark)
      error_exitf("Cannot draw continuous or landmark characters along a tree (char. %i)", c);
    chars.push_back(c);
  }
  if (chars.empty()) error_exit("No characters to generate");
  if (form == '<') {
    order_nodes(sim, ntax);
    std::fill(sim.change.begin(), sim.change.end(), 1.0 - stasis / 100.0);
  }
  const std::uint32_t missing = dataset.missing_value();
  for (int c : chars) {
    std::uint32_t seen = 0;
    for (int x = 0; x < ntax; ++x) {
      const std::uint32_t v = dataset.cell(x, c);
      if (v != missing) seen |= v;
    }
    sim.nstates = std::max(2, seen ? 32 - std::countl_zero(seen) : 2);
    if (form == '>') jukes_cantor_changes(sim, ntax, tag_branch_lengths(sim, ntax), sim.nstates);
    draw_character(sim, ntax);
    for (int x = 0; x < ntax; ++x)
      dataset.set_cell(x, c, terminal_present(sim.tree.data(), x, ntax) ? 1u << sim.state[x] : missing);
    dataset.chars[c].dirty = 1;
  }
  qax::dataset::minmax_check();
  char text[80];
  std::snprintf(text, sizeof text, "%i characters generated along the tree\n", static_cast<int>(chars.size()));
  shell::out_text({text});
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
    lengths = tag_branch_lengths(sim, ntax);
    std::snprintf(title, sizeof title, "Data (jukes-cantor)");
  } else {
    int t = shell::read_int();
    if (t < 0) error_exit("Expected a tree number after \"xread +\"");
    sim.tree.assign(checked_tree_node(t, ntax), checked_tree_node(t, ntax) + 2 * ntax - 1);
    stasis = shell::read_real();
    if (!(stasis >= 0 && stasis <= 100)) error_exit("Probability of stasis must be 0-100");
    std::snprintf(title, sizeof title, "Data, p(stasis)=%.2f", stasis / 100.0);
  }
  int nchar = shell::read_int();
  if (nchar < 1) error_exit("Must specify number of characters");
  int nstates = shell::read_int();
  if (nstates < 1 || nstates > qax::dataset::max_states) error_exit("Number of states must be 1-32");
  sim.nstates = nstates;

  if (from_tags) {
    jukes_cantor_changes(sim, ntax, lengths, nstates);
  } else {
    order_nodes(sim, ntax);
    std::fill(sim.change.begin(), sim.change.end(), 1.0 - stasis / 100.0);
  }

  replace_with_generated(sim, nchar, nstates, title, fill_simulated, &sim);
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
  qax::dataset::tree_link_hooks.generate_into_characters = generate_into_characters;
  shell::terminals_below = mark_terminals_below;
}

}  // namespace qax::trees
