// Minimum and maximum possible steps of each character over all trees.
//
// Nonadditive: the minimum is the size of the smallest set of states that meets every
// terminal set, less one (a tree can join all taxa sharing a chosen state); the maximum
// is the length of the bush with the best root state, i.e. the taxa lacking that state.
// Example: cells {0}, {0,1}, {1,2}, {2}: the smallest meeting set is {0,2}, so min = 1;
// every state is absent from two cells, so max = 2.
// Additive: intervals [lo, hi] of the cells; min = max(0, largest lo - smallest hi),
// max = sum of distances from the median of all ends (the best root of the bush).
#include <algorithm>
#include <bit>
#include <cstdint>
#include <vector>

#include "dataset/costs.h"
#include "dataset/dataset.h"
#include "shell/output.h"

namespace qax::dataset {

namespace {

void hitting_search(const std::vector<std::uint32_t>& sets, std::uint32_t chosen, int count, int& best) {
  if (count >= best) return;
  // The unmet set with fewest states is branched on.
  const std::uint32_t* pick = nullptr;
  int fewest = 99;
  for (const std::uint32_t& s : sets) {
    if (s & chosen) continue;
    int n = std::popcount(s);
    if (n < fewest) {
      fewest = n;
      pick = &s;
    }
  }
  if (!pick) {
    best = count;
    return;
  }
  if (count + 1 >= best) return;
  for (std::uint32_t rest = *pick; rest; rest &= rest - 1)
    hitting_search(sets, chosen | (rest & -rest), count + 1, best);
}

// Distinct sets with every superset of another removed.
std::vector<std::uint32_t> minimal_sets(const std::uint32_t* cells, int count, std::uint32_t missing) {
  std::vector<std::uint32_t> sets;
  for (int i = 0; i < count; ++i)
    if (cells[i] != missing && cells[i]) sets.push_back(cells[i]);
  std::sort(sets.begin(), sets.end(), [](std::uint32_t a, std::uint32_t b) {
    int pa = std::popcount(a), pb = std::popcount(b);
    return pa != pb ? pa < pb : a < b;
  });
  sets.erase(std::unique(sets.begin(), sets.end()), sets.end());
  std::vector<std::uint32_t> kept;
  for (std::uint32_t s : sets) {
    bool superset = false;
    for (std::uint32_t k : kept)
      if ((k & s) == k) {
        superset = true;
        break;
      }
    if (!superset) kept.push_back(s);
  }
  return kept;
}

int greedy_min_steps(const std::uint32_t* cells, int count, std::uint32_t missing) {
  std::vector<std::uint32_t> sets = minimal_sets(cells, count, missing);
  std::uint32_t chosen = 0;
  int n = 0;
  for (;;) {
    int counts[32] = {};
    bool open = false;
    for (std::uint32_t s : sets) {
      if (s & chosen) continue;
      open = true;
      for (std::uint32_t r = s; r; r &= r - 1) ++counts[std::countr_zero(r)];
    }
    if (!open) break;
    int b = static_cast<int>(std::max_element(counts, counts + 32) - counts);
    chosen |= 1u << b;
    ++n;
  }
  return n > 0 ? n - 1 : 0;
}

}  // namespace

int exact_min_steps(const std::uint32_t* cells, int count, std::uint32_t missing) {
  std::vector<std::uint32_t> sets = minimal_sets(cells, count, missing);
  if (sets.empty()) return 0;
  int best = 33;
  hitting_search(sets, 0, 0, best);
  return best - 1;
}

void minmax_check() {
  Dataset& d = dataset;
  if (!d.loaded) return;
  std::vector<std::uint32_t> column;
  column.reserve(d.ntax);
  std::uint32_t missing = d.missing_value();
  bool any = false;
  for (const CharacterRecord& r : d.chars) any |= r.dirty != 0;
  if (!any) return;
  // Cost tables first: the num_states of each dirty character bound the triangles checked.
  for (int ch = 0; ch < d.nchar; ++ch) {
    CharacterRecord& r = d.chars[ch];
    if (!r.dirty || r.is_continuous || !r.sankoff) continue;
    std::uint32_t seen = 0;
    for (int t = 0; t < d.ntax; ++t)
      if ((d.taxon_active.empty() || d.taxon_active[t]) && d.cell(t, ch) != missing) seen |= d.cell(t, ch);
    r.num_states = seen ? 32 - std::countl_zero(seen) : 0;
  }
  repair_triangles();
  for (int ch = 0; ch < d.nchar; ++ch) {
    CharacterRecord& r = d.chars[ch];
    if (r.dirty && r.sankoff && !r.is_continuous && (cost_settings.fill_sankoff || r.tree_binary)) fill_polymorphic_cells(ch);
  }
  for (int ch = 0; ch < d.nchar; ++ch) {
    CharacterRecord& r = d.chars[ch];
    if (!r.dirty) continue;
    if ((ch & 1023) == 0) shell::show_progress(ch, d.nchar, "Checking min-max steps");
    r.dirty = 0;
    column.clear();
    for (int t = 0; t < d.ntax; ++t)
      if (d.taxon_active.empty() || d.taxon_active[t]) column.push_back(d.cell(t, ch));
    if (r.format == format_landmark) {
      r.min_steps = 1;
      r.max_steps = 2;
      continue;
    }
    if (r.format == format_continuous) {
      std::vector<std::uint32_t> ends;
      std::uint32_t max_lo = 0, min_hi = 0xFFFF;
      for (std::uint32_t c : column) {
        if (c == continuous_missing || c == continuous_inapplicable) continue;
        std::uint32_t lo = c & 0xFFFF, hi = c >> 16;
        max_lo = std::max(max_lo, lo);
        min_hi = std::min(min_hi, hi);
        ends.push_back(lo);
        ends.push_back(hi);
      }
      if (ends.empty()) {
        r.min_steps = r.max_steps = 0;
        r.min_cont = r.max_cont = 0;
        continue;
      }
      std::nth_element(ends.begin(), ends.begin() + ends.size() / 2, ends.end());
      long long v = ends[ends.size() / 2], total = 0;
      for (std::uint32_t c : column) {
        if (c == continuous_missing || c == continuous_inapplicable) continue;
        long long lo = c & 0xFFFF, hi = c >> 16;
        if (v < lo) total += lo - v;
        else if (v > hi) total += v - hi;
      }
      r.min_steps = max_lo > min_hi ? static_cast<int>(max_lo - min_hi) : 0;
      r.max_steps = static_cast<int>(total);
      r.min_cont = r.min_steps / 1000.0;
      r.max_cont = r.max_steps / 1000.0;
      continue;
    }
    std::uint32_t seen = 0;
    for (std::uint32_t c : column)
      if (c != missing) seen |= c;
    r.states_seen = seen;
    r.num_states = seen ? 32 - std::countl_zero(seen) : 0;
    if (r.sankoff) {  // cost tables give their own bounds
      sankoff_min_max(ch, r.min_steps, r.max_steps);
      if (user_min_max.min_steps(ch) >= 0) r.min_steps = user_min_max.min_steps(ch);
      continue;
    }
    if (!seen) {
      r.min_steps = r.max_steps = 0;
      continue;
    }
    if (r.additive) {
      int max_lo = 0, min_hi = 31;
      std::vector<int> ends;
      for (std::uint32_t c : column) {
        if (c == missing) continue;
        int lo = std::countr_zero(c), hi = 31 - std::countl_zero(c);
        max_lo = std::max(max_lo, lo);
        min_hi = std::min(min_hi, hi);
        ends.push_back(lo);
        ends.push_back(hi);
      }
      std::nth_element(ends.begin(), ends.begin() + ends.size() / 2, ends.end());
      int v = ends[ends.size() / 2], total = 0;
      for (std::uint32_t c : column) {
        if (c == missing) continue;
        int lo = std::countr_zero(c), hi = 31 - std::countl_zero(c);
        if (v < lo) total += lo - v;
        else if (v > hi) total += v - hi;
      }
      r.min_steps = std::max(0, max_lo - min_hi);
      r.max_steps = total;
      continue;
    }
    int best_absent = static_cast<int>(column.size());
    for (std::uint32_t s = seen; s; s &= s - 1) {
      std::uint32_t bit = s & -s;
      int absent = 0;
      for (std::uint32_t c : column)
        if (c != missing && !(c & bit)) ++absent;
      best_absent = std::min(best_absent, absent);
    }
    r.max_steps = best_absent;
    bool polymorphic = false;
    for (std::uint32_t c : column)
      if (c != missing && (c & (c - 1))) polymorphic = true;
    if (!polymorphic) r.min_steps = std::popcount(seen) - 1;
    else if (d.exact_min) r.min_steps = exact_min_steps(column.data(), static_cast<int>(column.size()), missing);
    else r.min_steps = greedy_min_steps(column.data(), static_cast<int>(column.size()), missing);
  }
  shell::clear_progress();
}

}  // namespace qax::dataset
