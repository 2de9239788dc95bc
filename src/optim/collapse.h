// Collapsing of unsupported branches. A rule decides, per inner node of a tree, whether the
// branch to its ancestor stays; the root always stays. Binary trees are evaluated on the
// packed sets, in a private copy (never packed.node_sets, which a search may be using);
// trees with polytomies by an exact pass per character with hard polytomies. Only
// collapse_work_flags reads the sets a search has just computed.
#pragma once

#include <cstdint>
#include <vector>

#include "optim/kernels.h"

namespace qax::optim {

// The seven levels; the numbers are those of `collapse N`.
enum CollapseRule : int {
  collapse_none = 0,   // keep every branch
  collapse_rule3 = 1,  // keep when some reconstruction gives the branch a change
  collapse_amb = 2,    // keep when final sets of node and ancestor differ
  collapse_rule1 = 3,  // keep when every reconstruction gives the branch a change
  collapse_rule4 = 4,  // expansive: each tree may give several (condense only)
  collapse_spr = 5,    // keep unless an equal-score SPR move removes it
  collapse_tbr = 6,    // keep unless an equal-score TBR move removes it
};

struct CollapseSettings {
  int rule = collapse_rule1;  // selected level
  int temp_collapse = 1;      // collapse before consensus and comparisons
  int auto_collapse = 0;      // condense the trees after a search
  int quick_collapse = 1;     // collapse flags kept up to date during swapping
};
extern CollapseSettings collapse_settings;

// Flags for a stored tree (data set numbering, parent array, polytomies allowed): keep[v]
// is 1 when inner node v stays, 0 when it collapses; terminals and the root are 1. Packs
// the data when needed. `ignore` (one byte per taxon, may be null) names taxa whose
// presence does not make a group: a node with fewer than 2 other taxa below is kept, and
// a node is compared with its nearest ancestor that has more of the other taxa.
// Rule 4 gives the flags of rule 1 here (it needs condense); rules 5 and 6 swap the tree.
// Fails by error_exit only when there is no data.
void collapse_tree(const std::int32_t* tree, std::vector<std::uint8_t>& keep, const std::uint8_t* ignore = nullptr,
                   int rule = -1);

// The marks tree_hash takes: collapsed[v] = 1 when node v collapses under the current rule
// (0 everywhere under rule 0). Sized 2*ntax-1. For storing search results.
void collapse_marks(const std::int32_t* tree, std::uint8_t* collapsed);

// The collapsed form of a tree (temporary collapsing for consensus, or permanent for
// storing): out gets the parent array with every collapsing node removed, renumbered
// canonically. The store is not touched. Returns the number of nodes removed.
int collapsed_copy(const std::int32_t* tree, std::vector<std::int32_t>& out, int rule = -1);

// The search's store hook: collapses the tree in place under the current rule (rules 4 to 6
// act as rule 1 here: trees are stored while the search engine is busy) and renumbers it
// canonically. Nothing happens under rule 0.
void collapse_for_store(std::int32_t* tree);

// Removes the nodes with keep[v] == 0 from a parent array in place and renumbers it.
void collapse_in_place(std::int32_t* tree, int ntax, const std::vector<std::uint8_t>& keep);

// For a search: rule-1 flags (1 stays) of a binary WorkTree whose final sets are current in
// packed.node_sets (tree_score mode 2 or more). flags is sized tree.nnodes. No allocation.
void collapse_work_flags(const WorkTree& tree, std::uint8_t* flags) noexcept;

// Installed by the search: for a tree binary on the active taxa, marks in `gone` (sized to
// the tree's nodes, data set numbering) the inner nodes whose group some SPR (tbr false) or
// TBR move to a tree of the same score removes. False when the tree can't be swapped (not
// binary on the active taxa); levels 5 and 6 then give the flags of rule 1.
using SwapCollapseFn = bool (*)(const std::int32_t* tree, bool tbr, std::vector<std::uint8_t>& gone);
extern SwapCollapseFn swap_collapse_hook;

// Installed by the constraint code when constraints are defined: true when the taxa flagged
// in `inside` (one byte per taxon of the data set) form a positive constraint group, so that
// `condense [` keeps the node. Null: no constraints.
using ConstrainedGroupFn = bool (*)(const std::uint8_t* inside, int ntax);
extern ConstrainedGroupFn constrained_group_hook;

// Start-up values of the settings.
void collapse_reset() noexcept;

// Commands.
void cmd_collapse();
void cmd_condense();
void cmd_qcollapse();

}  // namespace qax::optim
