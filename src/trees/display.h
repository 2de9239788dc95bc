// Text diagrams of trees: one row a terminal, internal nodes on the row of their last
// child (or the middle one when symmetric), labels on the branch below each node.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace qax::trees {

// Draws the tree on the output channels. `labels` has one text per node (2*ntax-1,
// empty for none) or is null; with naked off, nodes without a label show their number.
void draw_tree(const std::int32_t* tree, int ntax, const std::vector<std::string>* labels, const std::string& title);
// The same with columns two characters wide; labels are listed below the diagram.
void draw_tree_narrow(const std::int32_t* tree, int ntax, const std::vector<std::string>* labels, const std::string& title);
// The diagram as lines, without sending them (tests and the tag store).
std::vector<std::string> tree_diagram(const std::int32_t* tree, int ntax, const std::vector<std::string>* labels,
                                      int column_width, int start_node);

}  // namespace qax::trees
