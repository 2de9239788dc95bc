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

// Combined supports, in percent: S = 100 ((1-X) R)^(Wo/A), and the other form
// S = 100 (1 - (1 - x R)^(A/F)). R is the relative support as a fraction.
[[nodiscard]] double combined_power(double relative, double absolute, double x, double wo) noexcept;
[[nodiscard]] double combined_complement(double relative, double absolute, double x, double f) noexcept;

void cmd_bsupport();

}  // namespace qax::support
