// Commands that report scores of the trees in memory (length, scores, fit, cscores, chomo).
// Each reads "N/L" (trees, then characters after "/"), packs the data and fails through
// error_exit without data or trees. A leading "!" scores polytomies as soft: each one is
// resolved in the best way for each character (recons.h).
#pragma once

#include <vector>

namespace qax::optim {

// Trees named before "/" in a report command (all trees when none); fails without data,
// without trees (when need_trees), or when the list names none.
std::vector<int> read_trees_argument(bool need_trees = true);

// Unweighted steps of every character on a tree given as a parent array (data set numbering),
// -1 for characters not scored. Needs a current pack (pack_data). Binary trees on the active
// taxa go through the kernels; others (polytomies, absent taxa) through an exact pass per
// character that treats polytomies as hard.
void character_steps(const std::vector<int>& parent, std::vector<int>& steps);

// Weighted length of stored tree k, or the steps of one character (character >= 0),
// for expressions of scripts. Packs the data as needed and prints nothing.
double stored_tree_length(int k, int character = -1);

void cmd_length();
void cmd_scores();
void cmd_cscores();
void cmd_chomo();
void cmd_fit();
// Settings of the mapping reports.
struct MappingSettings {
  int downpass = 0;  // map reports first-pass (down-pass) sets instead of final ones
};
extern MappingSettings mapping_settings;

// Mapping on stored trees (polytomies hard): state sets by node, changes by node, branch
// lengths.
void cmd_map();
void cmd_apo();
// Down-pass sets of character c at every node of tree 0 (c < 0: 1 for the nodes on the
// tree); for saving the matrix with its nodes.
void downpass_sets_of_tree0(int c, std::vector<std::uint32_t>& sets);
void cmd_blength();

}  // namespace qax::optim
