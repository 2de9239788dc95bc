// Tolerant matching of mistyped names: an affine-gap alignment score in [0, 1], and
// the question that offers the closest name to the user.
#pragma once

#include <string_view>

namespace qax::shell {

// 1 - cost / L, where L is the shorter length (longer for a negative threshold);
// returns 0.0 early once no row can reach a positive threshold.
double similarity(std::string_view a, std::string_view b, double threshold);

// 1 if the user accepts `entry` for the mistyped `typed`; never asks in background.
int closest_match(std::string_view typed, std::string_view entry, std::string_view label);

}  // namespace qax::shell
