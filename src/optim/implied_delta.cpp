// Changes of the fit when characters gain steps, computed from a base tree's steps so that
// a swap can rate each rearrangement from the characters whose steps it changes.
#include <algorithm>

#include "dataset/dataset.h"
#include "optim/implied.h"
#include "optim/packed.h"

namespace qax::optim {

using qax::dataset::dataset;

// Indices are fit units (characters, then variables of decomposed state trees).
void FitDelta::prepare(const std::vector<int>& steps, const std::vector<int>* weights) {
  const int n = std::max<int>(dataset.nchar, static_cast<int>(steps.size()));
  steps_.assign(steps.begin(), steps.end());
  steps_.resize(static_cast<std::size_t>(n), -1);
  weight_.assign(static_cast<std::size_t>(n), 0);
  set_.assign(static_cast<std::size_t>(n), -1);
  one_.assign(static_cast<std::size_t>(n), 0.0);
  std::size_t sets = 0;
  for (int u = 0; u < n; ++u) {
    const int c = unit_character(u);
    const auto& r = dataset.chars[c];
    const int w = weights ? (*weights)[c] : r.weight;
    if (steps_[u] < 0 || !r.active || w == 0 || !unit_fitted(u, n)) continue;
    weight_[u] = w;
    set_[u] = set_of_character(c);
    if (set_[u] >= 0) sets = std::max(sets, static_cast<std::size_t>(set_[u]) + 1);
  }
  pooled_.assign(sets, 0.0);
  scratch_.assign(sets, 0.0);
  for (int c = 0; c < n; ++c) {
    if (weight_[c] == 0) continue;
    if (set_[c] >= 0) {
      pooled_[set_[c]] += weight_[c] * unit_homoplasy(c, steps_[c]);
      one_[c] = -1;
    } else {
      const int unit = c < static_cast<int>(packed.char_multiplier.size()) ? packed.char_multiplier[c] : 1;
      one_[c] = single(c, unit);
    }
  }
  base_ = implied_total(steps_, weights);
}

void FitDelta::change(int c, int steps) {
  if (steps_[c] == steps) return;
  if (weight_[c] == 0) {
    steps_[c] = steps;
    return;
  }
  const int g = set_[c];
  if (g >= 0) {
    const double before = set_fit(g, pooled_[g]);
    pooled_[g] += weight_[c] * (unit_homoplasy(c, steps) - unit_homoplasy(c, steps_[c]));
    base_ += set_fit(g, pooled_[g]) - before;
    steps_[c] = steps;
    return;
  }
  base_ += single(c, steps - steps_[c]);
  steps_[c] = steps;
  const int unit = c < static_cast<int>(packed.char_multiplier.size()) ? packed.char_multiplier[c] : 1;
  one_[c] = single(c, unit);
}

double FitDelta::single(int c, int extra) const {
  if (weight_[c] == 0 || extra == 0) return 0;
  const int ch = unit_character(c);
  const double before = character_fit(ch, unit_homoplasy(c, steps_[c]));
  const double after = character_fit(ch, unit_homoplasy(c, steps_[c] + extra));
  return weight_[c] * (after - before);
}

double FitDelta::several(const int* chars, const int* extra, int n) {
  double sum = 0;
  touched_.clear();
  for (int i = 0; i < n; ++i) {
    const int c = chars[i];
    if (weight_[c] == 0) continue;
    const int g = set_[c];
    if (g < 0) {
      sum += single(c, extra[i]);
      continue;
    }
    if (std::find(touched_.begin(), touched_.end(), g) == touched_.end()) {
      touched_.push_back(g);
      scratch_[g] = 0;
    }
    scratch_[g] += weight_[c] * (unit_homoplasy(c, steps_[c] + extra[i]) - unit_homoplasy(c, steps_[c]));
  }
  for (int g : touched_) sum += set_fit(g, pooled_[g] + scratch_[g]) - set_fit(g, pooled_[g]);
  return sum;
}

}  // namespace qax::optim
