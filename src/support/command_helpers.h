// Argument readers and result keepers shared by the consensus command handlers. All
// read through the shell primitives and fail by error_exit.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace qax::support {

// Trees named before "/" or ";" (all trees for an empty list); "No trees specified".
std::vector<int> read_selected_trees();
// "/" and a taxon list when present: a flag per taxon (1 named).
std::vector<std::uint8_t> read_excluded_taxa();
// Keeps a result as the last tree of the store (auto-grouped under group_name).
int keep_tree(const std::vector<std::int32_t>& tree, const char* group_name);
// Percentage labels, 100 * value / d truncated, empty for `missing`.
std::vector<std::string> percent_labels(const std::vector<int>& values, int d, int missing);
// True when the low-memory strict consensus is to be used (setting or free memory).
bool use_low_memory(int ntax);

}  // namespace qax::support
