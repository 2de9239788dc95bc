// Consensus of stored trees: strict (fast table form and low-memory form), majority
// rule, frequency differences, combinable components and rough recovery. Every
// calculation reads trees from the store and never changes them; results are parent
// arrays of 2*ntax-1 cells in canonical numbering.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "support/group_set.h"

namespace qax::support {

constexpr int default_majority_cut = 50;
constexpr int default_freqdif_cut = 0;
constexpr double default_prune_proportion = 0.333;

struct ConsensusSettings {
  int low_memory_always = 0;        // nelsen < : always the low-memory strict consensus
  int unshared = 1;                 // unshared= : taxa absent from a tree are excluded from all
  int majority_cut = default_majority_cut;    // majority =N
  int freqdif_cut = default_freqdif_cut;      // freqdifs =N
  double prune_proportion = default_prune_proportion;  // prunmajor &P
  int prune_cost_in = 1;            // prunmajor [X : cost of removing a taxon inside
  int prune_cost_out = 1;           // prunmajor [ Y : cost of removing a taxon outside
  int low_memory_noted = 0;         // the note on the alternative algorithm was shown
};
extern ConsensusSettings consensus_settings;
void reset_consensus_settings();

// Exclusion flags for a set of trees: the user's flags (bit excluded_by_user) plus, with
// `unshared` on, taxa absent from any selected tree (bit excluded_as_missing). Returns
// the number of taxa left; fails "Cannot calculate consensus of N taxa?" below 2.
int prepare_exclusions(const std::vector<int>& trees, const std::vector<std::uint8_t>& user,
                       bool unshared, std::vector<std::uint8_t>& excluded);

// Strict consensus of the trees into result (2*ntax-1 cells). Excluded taxa become
// absent. `low_memory` selects the form that keeps no group table. Returns the
// number of groups in the result.
int strict_consensus(const std::vector<int>& trees, const std::vector<std::uint8_t>& excluded,
                     std::int32_t* result, bool low_memory);

// Counts groups of the trees with a required count; builds the tree of the groups with
// count >= required. node_count gets the count of each node's group (-1 none).
// reference >= 0: only the groups of that tree are counted, the tree is not counted
// itself, and result is not built (node_count refers to the reference's nodes).
struct CountResult {
  int counted = 0;                  // trees counted
  std::vector<int> node_value;      // per node: count (or FDT value); -1 none / INT_MIN none
};
// Majority rule tree for a cut (50..99; 100 is strict).
CountResult majority_consensus(const std::vector<int>& trees, const std::vector<std::uint8_t>& excluded,
                               int cut, std::int32_t* result);
// The same without a group table (no taxon may be excluded or absent): each group is
// looked up in the other trees by the common ancestor of its terminals.
CountResult majority_low_memory(const std::vector<int>& trees, int cut, std::int32_t* result);
// Frequencies of the groups of a reference tree in the trees.
CountResult reference_frequencies(int reference, const std::vector<int>& trees,
                                  const std::vector<std::uint8_t>& excluded);
// Frequency difference tree (reference < 0) or the values of the reference's groups.
CountResult frequency_differences(int reference, const std::vector<int>& trees,
                                  const std::vector<std::uint8_t>& excluded, int cut, std::int32_t* result);
// The same calculations on parent arrays given directly (trees that are not in the
// store, such as the consensus of each resampling replicate). ntax is excluded.size().
CountResult majority_of_rows(const std::vector<const std::int32_t*>& rows, const std::vector<std::uint8_t>& excluded,
                             int cut, std::int32_t* result);
int strict_of_rows(const std::vector<const std::int32_t*>& rows, const std::vector<std::uint8_t>& excluded,
                   std::int32_t* result);
CountResult reference_frequencies_rows(const std::int32_t* reference, const std::vector<const std::int32_t*>& rows,
                                       const std::vector<std::uint8_t>& excluded);
// reference null: the frequency difference tree into result; else the reference's values.
CountResult frequency_differences_rows(const std::int32_t* reference, const std::vector<const std::int32_t*>& rows,
                                       const std::vector<std::uint8_t>& excluded, int cut, std::int32_t* result);
// Combinable component consensus: the groups no group of any tree conflicts with.
// Returns the number of groups in the result.
int combinable_consensus(const std::vector<int>& trees, const std::vector<std::uint8_t>& excluded,
                         std::int32_t* result);
// Rough recovery of each group of the reference in the trees: per node the average
// similarity (0..1), negative for nodes without a value.
std::vector<double> rough_recovery(int reference, const std::vector<int>& trees,
                                   const std::vector<std::uint8_t>& excluded);

// Number of internal nodes of a tree other than the root.
[[nodiscard]] int tree_node_count(const std::int32_t* tree, int ntax) noexcept;

}  // namespace qax::support
