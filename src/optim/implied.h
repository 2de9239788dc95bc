// Settings of implied weighting used by the score reports. The fit of a character with
// homoplasy h (steps beyond its minimum) is h / (K + h); the concave fit K / (K + h).
#pragma once

namespace qax::optim {

struct ImpliedSettings {
  int implied_on = 0;      // scores report fits instead of steps
  double concavity = 3.0;  // K, above 0 and up to 1000
};
extern ImpliedSettings implied_settings;

}  // namespace qax::optim
