// Shared between the files of the search: the one engine, and the store of trees found with
// its duplicate table.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "search/engine.h"

namespace qax::search {

// The engine sized for the current pack (re-sized when the pack changed).
Engine& engine();
// Re-reads the terminal sets (after packing).
void engine_refresh();

// Duplicate table over the rows of the tree store; rebuilt from the store by store_begin.
void store_begin();
// Index of a stored tree equal to `tree` (canonical), -1 none.
int store_find(const std::vector<std::int32_t>& tree);
// Stores the tree (collapsing first when a collapse hook is set) unless a duplicate is
// present; returns the row or -1 for a duplicate.
int store_add(std::vector<std::int32_t>& tree, double score);
// Drops rows from `first` on whose score is above `bound`, keeping order; returns the new
// index of row `keep` (-1 when dropped).
int store_discard_above(int first, double bound, int keep);

}  // namespace qax::search

namespace qax::search {
// Swappers with the store slot of the tree in swap (-1 none; updated) and whether the
// score went down.
double swap_tbr_slot(std::vector<std::int32_t>& parent, int first, int mode, int limit, int* slot, bool* improved);
double swap_spr_slot(std::vector<std::int32_t>& parent, int first, int mode, int limit, int* slot, bool* improved);
// Checking of the Wagner build's node clusters, for tests: when not negative, each insertion
// under clusters checks that every region's union covers its members' branch sets, and
// that every branch has a region, adding 1 here for each failure.
extern int wagner_region_faults;
// Score as printed: whole numbers without decimals.
std::string search_score_text(double s);
}  // namespace qax::search
