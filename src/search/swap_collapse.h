// Collapsing by swapping (collapse levels "spr" and "tbr").
#pragma once

#include <cstdint>
#include <vector>

namespace qax::search {

// For a tree binary on the active taxa (data set numbering): gone[v] = 1 for each inner
// node v whose group some SPR (tbr false) or TBR move to a tree of the same score removes.
// False, with nothing marked, when the tree isn't binary on the active taxa. Needs packed
// data. Installed as the collapsing code's swap hook.
bool swap_collapse(const std::int32_t* tree, bool tbr, std::vector<std::uint8_t>& gone);

}  // namespace qax::search
