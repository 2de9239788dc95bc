// Bremer support: for each group of the strict consensus of the best trees (or of a
// reference tree), how much longer the best tree lacking the group is, from the trees in
// memory; the relative fit difference form, and the formulas combining both.
#pragma once

#include <cstdint>
#include <vector>

namespace qax::support {

// Settings of the combination formulas.
struct BremerSettings {
  double deletion = 0.36;   // X of the combination formulas
  double factor = 1.0;      // F, divides the absolute support
};
extern BremerSettings bremer_settings;

// Relative fit difference between a tree with the group (per-character scores a) and one
// without (b): F = sum of max(b-a, 0), C = sum of max(a-b, 0); (F - C) / F, 0 when F is 0.
[[nodiscard]] double relative_fit_difference(const std::vector<double>& with_group,
                                             const std::vector<double>& without_group) noexcept;

// Per-character scores of a tree (a parent array as stored): weighted steps, or fits under
// implied weights.
[[nodiscard]] std::vector<double> row_char_scores(const std::int32_t* row);

// Combined supports, in percent: S = 100 ((1-X) R)^(Wo/A), and the other form
// S = 100 (1 - (1 - x R)^(A/F)). R is the relative support as a fraction.
[[nodiscard]] double combined_power(double relative, double absolute, double x, double wo) noexcept;
[[nodiscard]] double combined_complement(double relative, double absolute, double x, double f) noexcept;

// Supports of the groups of `reference` (one value per node, -1 for nodes without a
// group) from trees `rows` with their scores. char_scores (one row per tree, may be
// empty) gives the per-character scores for relative supports; within_only restricts
// the pairs to trees within the group's absolute support. A group in every tree gets
// the largest score difference of the trees, marked as a lower bound.
struct BremerResult {
  double best = 0;                      // lowest score
  double worst = 0;                     // highest score
  std::vector<double> absolute;         // per node
  std::vector<std::uint8_t> lower_bound;// per node: the group is in every tree
  std::vector<double> relative;         // per node, fraction (-1 none)
  std::vector<std::uint8_t> relative_bound;  // per node, TBR only: no rearrangement lowered it
  std::vector<int> group_of_node;       // per node: group number, -1 none
};
BremerResult bremer_from_trees(const std::vector<const std::int32_t*>& rows, const std::vector<double>& scores,
                               const std::vector<std::vector<double>>& char_scores,
                               const std::vector<std::uint8_t>& excluded, const std::int32_t* reference,
                               bool within_only);

// The same for the groups of stored tree `reference` by TBR swapping within the
// suboptimal value; `shown` receives the tree whose nodes the values refer to. With
// `relative` (1, or 2 for moves at the group's absolute support only) each group also
// gets the lowest relative fit difference of the rearrangements that break it, up to the
// relative suboptimal value.
BremerResult bremer_by_tbr(int reference, bool add_own_excess, bool keep_all, int relative,
                           const std::vector<std::uint8_t>& excluded, std::vector<std::int32_t>& shown);

void cmd_bsupport();

// The same calculation, read from the same options, trees and "/" taxa, without output:
// the values by node of the tree the supports refer to (the consensus, or the reference
// tree of "!N"), -1 for the terminals, the root and nodes without a group. Under "*" the
// tree is kept as with the command, so that its node numbers can be read.
std::vector<double> bremer_list();

}  // namespace qax::support
