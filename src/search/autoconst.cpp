// Autoconstraints: the groups shared by two trees, kept as positive constraints for the
// stages of a search that follow; the user's constraints stay in force with them.
#include <cstring>
#include <unordered_map>

#include "search/constraints.h"
#include "search/search_internal.h"
#include "trees/store.h"

namespace qax::search {

using qax::trees::tree_store;

void AutoConstraint::set(const std::vector<std::int32_t>& a, const std::vector<std::int32_t>& b) {
  clear();
  const int ntax = tree_store.ntax;
  const int words = (ntax + 63) / 64;
  const auto ba = trees::terminal_bits(a.data(), ntax, words);
  const auto bb = trees::terminal_bits(b.data(), ntax, words);
  const int nodes = static_cast<int>(ba.size()) / words;
  auto row_hash = [&](const std::vector<std::uint64_t>& bits, int n) {
    std::uint64_t h = 1469598103934665603ull;
    for (int w = 0; w < words; ++w) h = (h ^ bits[static_cast<std::size_t>(n) * words + w]) * 1099511628211ull;
    return h;
  };
  std::unordered_multimap<std::uint64_t, int> in_b;
  const int nodes_b = static_cast<int>(bb.size()) / words;
  for (int n = ntax + 1; n < nodes_b && n < b[ntax]; ++n) in_b.emplace(row_hash(bb, n), n);
  const int present = trees::tree_terminal_count(a.data(), ntax);
  std::vector<ConstraintGroup> groups;
  for (int n = ntax + 1; n < nodes && n < a[ntax]; ++n) {
    const auto range = in_b.equal_range(row_hash(ba, n));
    bool found = false;
    for (auto it = range.first; it != range.second && !found; ++it)
      found = std::memcmp(&ba[static_cast<std::size_t>(n) * words], &bb[static_cast<std::size_t>(it->second) * words],
                          sizeof(std::uint64_t) * words) == 0;
    if (!found) continue;
    int inside = 0;
    ConstraintGroup g;
    g.field.assign(ntax, static_cast<std::uint8_t>(field_floating));
    for (int t = 0; t < ntax; ++t) {
      if (!trees::terminal_present(a.data(), t, ntax)) continue;
      const bool in = (ba[static_cast<std::size_t>(n) * words + t / 64] >> (t % 64)) & 1u;
      g.field[t] = static_cast<std::uint8_t>(in ? field_inside : field_outside);
      inside += in;
    }
    if (inside < 2 || inside >= present - 1) continue;
    groups.push_back(std::move(g));
  }
  if (groups.empty()) return;
  saved = constraint_defs;
  on = true;
  if (!constraints_in_force()) {
    constraint_defs.positive.clear();
    constraint_defs.negative.clear();
    constraint_defs.tree.clear();
    constraint_defs.tree_kind = 0;
    constraint_defs.tree_groups = 0;
  }
  constraint_defs.defined = 1;
  constraint_defs.active = 1;
  if (constraint_defs.auto_from < 0) constraint_defs.auto_from = static_cast<int>(constraint_defs.positive.size());
  for (auto& g : groups) constraint_defs.positive.push_back(std::move(g));
}

void AutoConstraint::clear() {
  if (!on) return;
  on = false;
  constraint_defs = std::move(saved);
}

}  // namespace qax::search
