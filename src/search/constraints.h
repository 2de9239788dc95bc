// Topological constraints: groups that must exist (positive), groups that must not
// (negative) and a tree whose groups must all hold. Each group is a binary character over
// the terminals, packed as 2-bit fields, 16 groups a word: 01 outside, 10 inside, 11
// floating (either side). A tree keeps a positive group when the group costs at most one
// change on it, and breaks a negative group when it costs two or more; unused fields of the
// last word are 11 (floating), so they never cost anything.
#pragma once

#include <cstdint>
#include <vector>

#include "optim/collapse.h"
#include "optim/kernels.h"

namespace qax::search {

constexpr std::uint32_t field_outside = 1;   // terminal outside the group
constexpr std::uint32_t field_inside = 2;    // terminal inside the group
constexpr std::uint32_t field_floating = 3;  // terminal may be on either side

// One group as the user defined it, in data set numbering.
struct ConstraintGroup {
  std::vector<std::uint8_t> field;  // per taxon: field_outside, field_inside or field_floating
};

// The definitions of `force` and the switch of `constrain`.
struct ConstraintDefs {
  int defined = 0;                          // force has defined something
  int active = 0;                           // constrain = (enforced by searches)
  std::vector<ConstraintGroup> positive;    // + groups (and those of force = / force /)
  std::vector<ConstraintGroup> negative;    // - groups (and those of force :)
  int tree_groups = 0;                      // how many of `positive` (force =, /) or of
                                            // `negative` (force :) come from a tree
  int tree_kind = 0;                        // 0 none, 1 force =, 2 force /, 3 force :
  std::vector<std::int32_t> tree;           // the constraint tree (parent array), empty: none
  int auto_from = -1;                       // groups of `positive` from here on are taken from a
                                            // tree the other constraints allowed (compatible by
                                            // construction, not checked again); -1 none
};
extern ConstraintDefs constraint_defs;

// True when constraints are defined and switched on: searches must call the routines below.
[[nodiscard]] bool constraints_in_force() noexcept;

// --- Packing ---------------------------------------------------------------------------
// Builds the per-terminal fields in packed numbering (optim::packed must be valid) and
// checks the groups against one another; fails by error_exit with the conflict messages.
// Called by `pack_data` users before a search when constraints_in_force(); cheap.
void constraints_pack();
// The conflict checks alone (tree against positive, tree against negative, positive
// against negative, positive against each other); fails by error_exit on the first.
void check_constraint_conflicts();

// --- The per-candidate test -----------------------------------------------------------
// A tree is seen through its link arrays in packed numbering (ancestor, left and right
// child, -1 none; the root is nterm), e.g. those of the search engine or of a WorkTree.
//   constraint_prepare(clip): the main tree is the bound tree without the subtree of
//     `clip` (the clip's parent is passed over, its sister takes its place); a clip that is
//     not attached (a Wagner terminal, ancestor -1) leaves the tree as it is. Recomputes
//     the group sets of both parts, with every rerooting of the clip, and the changes per
//     group. O(nodes * words), no allocation. Call for every clip, and again after the tree
//     changed.
//   constraint_test(reroot, target): may the clip, rooted on the branch above its node
//     `reroot` (the clip itself under SPR and Wagner; for TBR the node below the rerooting
//     branch), go on the branch above main-tree node `target`? O(words), no allocation.
// Terminals absent from both parts float in every group. A negative group is enforced only
// when all its non-floating taxa are in the tree (main or clip), so a Wagner tree can grow
// through states where the group is still present; a positive group is enforced always,
// which never leaves a taxon without a legal place when the positive groups are compatible.
// When no place is legal (negative groups), the caller may take the best place and check
// the finished tree with tree_violations.
void constraint_bind(const int* anc, const int* left, const int* right, int nterm);
void constraint_prepare(int clip);
[[nodiscard]] bool constraint_test(int reroot, int target) noexcept;
// The same in the form of the search hook (clip, reroot or -1 for the clip, target): it
// prepares by itself when the clip differs from the last one prepared or after
// constraint_tree_changed(); a caller that changes the tree must call that (or prepare).
int constraint_candidate(int clip, int reroot, int target);
void constraint_tree_changed() noexcept;
// For a search: packs the constraints for the current pack (constraints_pack), binds the
// engine's arrays and installs constraint_candidate as the search's `constraint_allows`
// hook when constraints are in force (clears it otherwise). constraints_end_search clears it.
void constraints_start_search(const int* anc, const int* left, const int* right, int nterm);
void constraints_end_search() noexcept;
// WorkTree convenience: binds the tree and prepares the clip (-1: no clip).
void constraint_clip(const optim::WorkTree& tree, int clip);

// --- Whole trees ------------------------------------------------------------------------
// Violated groups of a binary WorkTree by the packed test (positive: 2 changes or more;
// negative, complete and not trivial: fewer than 2).
void constraint_tree_counts(const optim::WorkTree& tree, int* pos_bad, int* neg_bad);
// Number of groups a stored tree (data set numbering, any parent array, polytomies
// allowed) violates: a positive group must be a split of the tree after the floating taxa
// are placed, a negative one must not be. Needs no packing. Absent and inactive taxa float;
// a negative group is checked only when all its firm taxa are present and it has at least
// two firm taxa on each side.
[[nodiscard]] int tree_violations(const std::int32_t* tree, int ntax);
// The same, with which[g] = 1 for each violated group (positive groups first).
int tree_violations_by_group(const std::int32_t* tree, int ntax, std::vector<std::uint8_t>& which);
[[nodiscard]] inline bool tree_satisfies(const std::int32_t* tree, int ntax) { return tree_violations(tree, ntax) == 0; }

// Returns the definitions to start-up values (new data set, reset).
void constraints_reset() noexcept;

// Commands.
void cmd_force();
void cmd_constrain();
void cmd_mono();

}  // namespace qax::search
