// Tree tags: labels kept against the nodes of one tree, the tag tree (its parent array
// and per-node texts live in the tree store). Commands that print values on a tree hand
// them to tags_collect; while storing is on, the first such command sets the tag tree
// and every value is appended to the tag of the node with the same group.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace qax::trees {

struct TagSettings {
  int storing = 0;          // ttags = : printing commands store their labels
  std::string title;        // title of the tag set
  int split_lines = 0;      // ttags [ : "\" separates lines in graphic trees
  int max_width = 0;        // widest line of multi-line text (0 no limit)
  char position = 'c';      // multi-line tags in SVG: a above, b below, c centred, d none
};
extern TagSettings tag_settings;
void reset_tag_settings();

// While storing is on: appends each non-empty label (one per node of tree) to the tag of
// the node of the tag tree with the same terminals; the first call copies the tree.
void tags_collect(const std::int32_t* tree, int ntax, const std::vector<std::string>& labels);

// True when a tag tree exists.
[[nodiscard]] bool tags_defined();

// Splits a tag into its lines at the separator (one line when splitting is off).
std::vector<std::string> tag_lines(const std::string& tag);

// Writer of "ttags &file" (the diagrams live in a later layer, which installs it).
extern void (*svg_tag_output)();

// Reading and writing one-dimensional arrays of the macro language, for the tag forms
// that copy values between tags and arrays (the scripting layer installs them). The
// reader returns false when no such array exists.
extern bool (*tag_array_read)(const std::string& name, std::vector<double>& values);
extern void (*tag_array_write)(const std::string& name, const std::vector<double>& values);

void cmd_ttags();

}  // namespace qax::trees
