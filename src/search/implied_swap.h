// Searches under implied weighting, exact by scoring each rearranged tree in full.
#pragma once

#include <cstdint>
#include <vector>

namespace qax::search {

// Fit of a tree (data set parent array) under the current implied weighting.
double implied_fit_of(const std::vector<std::int32_t>& parent);
// Branch swapping (TBR, or SPR when tbr is false) that takes every move lowering the fit
// until none does; returns the fit of the tree left in parent. Counts the moves examined.
double implied_swap(std::vector<std::int32_t>& parent, bool tbr, long long& examined);
// mult (with its ratchet) and bbreak under implied weighting; drift and constraints refuse.
void run_implied_mult(int replications);
void run_implied_bbreak();

}  // namespace qax::search
