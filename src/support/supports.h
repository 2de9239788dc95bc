// Pieces shared by the support commands (resample, bsupport): showing a tree with its
// values (and handing them to the tree tags), and the average support of the last run.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace qax::support {

// Draws the tree with one label a node and gives the labels to the tag store.
void show_support_tree(const std::int32_t* tree, const std::vector<std::string>& labels, const std::string& title);

// Average support of the last resampling or Bremer run (read by macro expressions).
void set_last_support(double value);
[[nodiscard]] double last_support();

// True when timings are reported (watch on).
[[nodiscard]] bool switches_timing();

}  // namespace qax::support
