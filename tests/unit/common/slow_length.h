// A plain reference scorer for tests of the search: Fitch steps (unordered) or interval
// steps (additive) of every active character on a data set parent array, one character
// at a time, times the character's weight. Independent of the packed kernels.
#pragma once

#include <algorithm>
#include <bit>
#include <cstdint>
#include <functional>
#include <vector>

#include "dataset/dataset.h"

namespace qax::test {

// Unweighted steps of each character (0 for inactive ones).
inline std::vector<int> slow_character_steps(const std::int32_t* parent) {
  const dataset::Dataset& d = dataset::dataset;
  const int ntax = d.ntax;
  const int end = parent[ntax];
  std::vector<std::vector<int>> kids(end);
  for (int n = 0; n < end; ++n)
    if (n != ntax && !(n < ntax && parent[n] < ntax)) kids[parent[n]].push_back(n);
  std::vector<int> out(d.nchar, 0);
  for (int c = 0; c < d.nchar; ++c) {
    if (!d.chars[c].active) continue;
    const bool add = d.chars[c].additive;
    int steps = 0;
    std::function<void(int, std::uint32_t&, int&, int&)> go = [&](int node, std::uint32_t& set, int& lo, int& hi) {
      if (node < ntax) {
        std::uint32_t v = d.cell(node, c);
        if (v == d.missing_value() || v == 0) v = ~0u;
        set = v;
        lo = v == ~0u ? 0 : std::countr_zero(v);
        hi = v == ~0u ? 31 : 31 - std::countl_zero(v);
        return;
      }
      bool first = true;
      for (int k : kids[node]) {
        std::uint32_t s;
        int l, h;
        go(k, s, l, h);
        if (first) { set = s; lo = l; hi = h; first = false; continue; }
        if (!add) {
          if (set & s) set &= s; else { set |= s; ++steps; }
        } else if (h < lo) { steps += lo - h; int nl = h; hi = lo; lo = nl; }
        else if (l > hi) { steps += l - hi; int nh = l; lo = hi; hi = nh; }
        else { lo = std::max(lo, l); hi = std::min(hi, h); }
      }
    };
    std::uint32_t s;
    int l, h;
    go(ntax, s, l, h);
    out[c] = steps;
  }
  return out;
}

inline int slow_length(const std::int32_t* parent) {
  const auto steps = slow_character_steps(parent);
  int total = 0;
  for (std::size_t c = 0; c < steps.size(); ++c)
    total += steps[c] * std::max(1, static_cast<int>(dataset::dataset.chars[c].weight));
  return total;
}

}  // namespace qax::test
