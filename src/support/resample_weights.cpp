// The weight perturbations of resampling, one routine per method.
#include <algorithm>
#include <string>

#include "support/resample.h"

namespace qax::support {

const int poisson_thresholds[6][5] = {
    {368, 736, 920, 982, 997}, {136, 407, 677, 858, 948}, {50, 200, 424, 648, 816},
    {19, 92, 24, 44, 629},     {7, 41, 125, 266, 441},    {3, 18, 62, 152, 286},
};

int poisson_row(int softboot) noexcept { return softboot == 0 ? 0 : std::min((softboot + 10) / 20, 5); }

int poisson_multiplier(int row, int r) noexcept {
  for (int k = 0; k < 5; ++k)
    if (r < poisson_thresholds[row][k]) return k;
  return 5;
}

void perturb_weights(int method, int probability, int softboot, bool zerowt, const std::vector<std::uint8_t>& active,
                     std::vector<std::int32_t>& weights, const RandomSource& rnd) {
  const int n = static_cast<int>(weights.size());
  switch (method) {
    case resample_jak:
      for (int c = 0; c < n; ++c)
        if (active[c] && rnd() % 100 < probability) weights[c] = 0;
      break;
    case resample_sym: {
      // A character changes when the draw exceeds T = (50 - P) * 2; up and down equally
      // likely. Without zero weights everything is doubled first, so that "down" can halve.
      const int threshold = (50 - probability) * 2;
      for (int c = 0; c < n; ++c) {
        if (!active[c]) continue;
        if (!zerowt) weights[c] *= 2;
        if (rnd() % 100 > threshold) {
          if (rnd() % 100 < 50) weights[c] *= 2;
          else weights[c] = zerowt ? 0 : weights[c] / 2;
        }
      }
      break;
    }
    case resample_boot: {
      std::vector<int> list;
      for (int c = 0; c < n; ++c)
        if (active[c]) list.push_back(c);
      const int m = static_cast<int>(list.size());
      if (m == 0) break;
      const long long draws = m + static_cast<long long>(softboot * 10.0 / 100.0 * m);
      std::vector<int> count(m, 0);
      for (long long d = 0; d < draws; ++d) ++count[rnd() % m];
      for (int i = 0; i < m; ++i) weights[list[i]] *= count[i];
      break;
    }
    case resample_poisson: {
      const int row = poisson_row(softboot);
      for (int c = 0; c < n; ++c)
        if (active[c]) weights[c] *= poisson_multiplier(row, rnd() % 1000);
      break;
    }
    default:
      break;
  }
}

std::string resample_method_text(int method, int probability) {
  switch (method) {
    case resample_sym: return "Symmetric Resampling (P=" + std::to_string(probability) + ")";
    case resample_jak: return "Jacknifing (P=" + std::to_string(probability) + ")";
    case resample_poisson: return "Poisson Bootstrap";
    default: return "Standard Bootstrap";
  }
}

}  // namespace qax::support
