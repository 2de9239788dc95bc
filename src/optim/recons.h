// Exact per-character optimisation on stored trees of any shape: cost of every state at
// every node by dynamic programming over the states a character uses, for polytomies taken
// as hard (a star) or as soft (resolved in the best way for that character). Slow but
// exact; used by the reports that need sets of best reconstructions or counts of changes.
// Invariant: costs are in unweighted steps, cost_none marks a state no reconstruction takes.
#pragma once

#include <climits>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace qax::optim {

constexpr std::int64_t cost_none = std::int64_t{1} << 40;  // unreachable state

// A stored tree as children lists in data set numbering (root = ntax).
struct CharTree {
  int ntax = 0;                          // taxa of the data set
  std::vector<int> parent;               // stored parent array
  std::vector<std::vector<int>> kids;    // children of each node
  std::vector<int> preorder;             // nodes reached from the root, root first
  bool binary = true;                    // no inner node with more than two children
};

// Builds the children lists; absent taxa (parent 0) are left out. Never fails.
CharTree char_tree_from_parent(const std::vector<int>& parent);
// The same for stored tree k.
CharTree char_tree_of(int k);

// The states that character c can take in a best reconstruction: the states scored in
// active taxa (additive: every state between the lowest and highest); 0 when none.
std::uint32_t usable_states(int c);

// Costs of the subtree of every node in every state (cost_none where impossible) and the
// minimum steps of the character. `soft`: polytomies resolved in the best way.
struct CharCosts {
  int character = 0;                          // data set character
  bool additive = false;                      // ordered states
  bool table = false;                         // Sankoff: changes cost what the cost table says
  std::uint32_t states = 0;                   // usable_states
  std::vector<std::vector<std::int64_t>> down;// [node][state], 32 states
  std::int64_t best = 0;                      // minimum steps (0 when no usable states)
};
void char_costs(const CharTree& t, int c, bool soft, CharCosts& out);

// Minimum unweighted steps of every character on a parent array (-1 when not scored), with
// soft polytomies; terminals not on the tree count as missing.
void soft_character_steps(const std::vector<int>& parent, std::vector<int>& steps);

// States of every node in some best reconstruction (bit s = state s), hard polytomies;
// the down-pass costs must come from char_costs(t, c, false, costs).
void best_state_sets(const CharTree& t, const CharCosts& costs, std::vector<std::uint32_t>& sets);

// Least number of steps on the branch above every node over all best reconstructions
// (0 at the root); hard polytomies, down-pass costs from char_costs(t, c, false, costs).
void least_branch_changes(const CharTree& t, const CharCosts& costs, std::vector<std::int64_t>& lengths);

// Greatest number of steps on the branch above every node over all best reconstructions.
void greatest_branch_changes(const CharTree& t, const CharCosts& costs, std::vector<std::int64_t>& lengths);

// Least and greatest number of branches whose upper end is in `from` and lower end in `to`
// (different states) over all best reconstructions; hard polytomies.
void count_changes(const CharTree& t, int c, std::uint32_t from, std::uint32_t to, int& least, int& most);

// A continuous character, exactly: best reconstructions can take their values among the ends
// of the observed ranges (thousandths), so these values serve as states and a change costs
// their difference. For every branch from `parent` down to `child` (children lists, nodes
// in preorder, terminals below ntax, inactive taxa missing), `visit` gets the values and,
// over them: R, the cost of everything but the child's subtree with the parent at each
// value; down, the cost of the child's subtree; out_child and out_parent, the cost of the
// rest of the tree with the child or the parent at each value; down_parent; and the
// length. Costs no reconstruction reaches are continuous_none. Nothing is visited when
// fewer than two values are observed.
constexpr long long continuous_none = LLONG_MAX / 8;
struct ContinuousBranch {
  int parent = 0, child = 0;
  const std::vector<long long>* values = nullptr;
  const long long *R = nullptr, *down = nullptr, *out_child = nullptr, *out_parent = nullptr, *down_parent = nullptr;
  long long length = 0;
};
void continuous_branches(const std::vector<std::vector<int>>& kids, const std::vector<int>& preorder, int ntax, int c,
                         const std::function<void(const ContinuousBranch&)>& visit);

// Text of a state set of character c: the state names given with cnames (cut to `width`
// letters, 0 for whole names) or the symbols of the data; "?" for the empty set.
std::string state_set_text(int c, std::uint32_t v, int width = 0);

// Commands built on these passes.
void cmd_change();
void cmd_recons();

}  // namespace qax::optim
