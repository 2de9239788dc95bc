// Searches under implied weighting, exact by scoring each rearranged tree in full.
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

namespace qax::search {

// Fit of a tree (data set parent array) under the current implied weighting.
double implied_fit_of(const std::vector<std::int32_t>& parent);
// Branch swapping (TBR, or SPR when tbr is false) that takes every move lowering the fit
// until none does; returns the fit of the tree left in parent. Counts the moves examined.
double implied_swap(std::vector<std::int32_t>& parent, bool tbr, long long& examined);
// Keeps in the store, from row `first` on and up to `limit` rows, every tree within the
// suboptimal value of the best fit that swapping the rows reaches (trees of equal fit
// when suboptimal is 0); a better tree found is swapped in turn and the rows above its
// reach dropped. `best` is the fit of the best row; returns the best fit at the end.
double implied_collect(int first, int limit, bool tbr, double best, long long& examined);
// mult (with its ratchet, several trees per replication with hold) and bbreak under implied weighting, within
// the constraints in force; drift refuses.
void run_implied_mult(int replications);
void run_implied_bbreak();
// Visits every TBR rearrangement of `tree` whose fit is at most `ceiling`, with the tree
// it makes and its fit, until `visit` answers true (within the constraints in force).
void implied_visit_tbr(const std::vector<std::int32_t>& tree, double ceiling, long long& examined,
                       const std::function<bool(const std::vector<std::int32_t>&, double)>& visit);
// Ratchet iterations (drift cycles) from the tree, which receives the best tree found;
// returns its fit. The generator goes on from its state.
double implied_ratchet_run(std::vector<std::int32_t>& tree, int iterations);
double implied_drift_run(std::vector<std::int32_t>& tree, int cycles);
// The ratchet (or drift) command from the tree of best fit in memory, keeping the best tree.
void run_implied_perturbation(bool drift);

}  // namespace qax::search
