// Trees for other programs: Newick text (one tree per line, names, commas, ";") and
// NEXUS files with TAXA and TREES blocks (a TRANSLATE table, names quoted where they
// need it), optionally after the matrix. Values the program has put on a tree (the
// tags of the tag tree, such as the group frequencies of a kept consensus) go out as
// internal node labels, matched by group, so that the same groups carry the same
// values whatever the numbering of the tree written.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace qax::trees {

// A name as Newick and NEXUS readers take it: unchanged when it has only letters,
// digits and "_.-+"; otherwise in single quotes, inner quotes doubled.
std::string quoted_tree_name(const std::string& name);

// Labels for the internal nodes of a tree (one string per node, empty where none):
// the tags of the tag tree on the groups the tree shares with it.
std::vector<std::string> node_labels_for(const std::int32_t* tree, int ntax);

// One tree in Newick, ending in ";". With `numbers` terminals are written as their
// number from 1 (the keys of a TRANSLATE table), else by name. Labels (may be null)
// go after the ")" of their node.
std::string tree_to_newick(const std::int32_t* tree, int ntax, bool numbers, const std::vector<std::string>* labels);

// A TREES block for the listed trees (TRANSLATE table, one TREE command each).
std::string nexus_trees_block(const std::vector<int>& trees);
// A whole NEXUS file holding only taxa and trees.
std::string nexus_trees_file(const std::vector<int>& trees);

// export [ - | + | * | > ] file [ trees ];
void cmd_export();

}  // namespace qax::trees
