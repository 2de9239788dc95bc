// Implicit enumeration: every optimal tree (or every tree within suboptimal of the best),
// found by branch and bound over the trees built by adding taxa one at a time.
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

namespace qax::search {

struct EnumerationOptions {
  bool pair_test = true;     // one join against the union of two sister branches first
  bool extra_bound = true;   // add the least steps the taxa not yet placed must bring
  bool sample = false;       // keep a random sample of the optimal trees
};

struct EnumerationResult {
  double best = 0;           // best score
  int trees = 0;             // trees in the store
  long long seen = 0;        // optimal trees met while sampling
  bool overflow = false;     // the store was too small for all of them
  bool completed = true;     // false when interrupted
  int percent_done = 100;    // share of the five-taxon trees finished
};

// Extra-bound table over packed terminals taken in `order`: entry L is the least weighted
// count of steps that terminals order[L..] must add to any tree of order[0..L-1]: per
// field, the states that some of them hold alone and no placed terminal can have.
// `sets` holds nterm rows of nwords words; entry nterm is 0.
std::vector<std::int32_t> extra_bound_table(const std::vector<int>& order, const std::uint32_t* sets, int nterm,
                                            int nwords);

// Runs the enumeration on the current data into the tree store (emptied first).
EnumerationResult implicit_enumeration(const EnumerationOptions& options);

// The walk behind the macro loop of branch and bound: every tree built by adding the
// active taxa one at a time (terminal 0 and the next two first, then the others in order),
// each placement in turn, depth first. `visit` gets each tree from three taxa on as a
// canonical data set parent array (taxa not yet added absent) with its number of taxa, and
// returns false to skip the trees that grow from it. Returns the number of trees visited.
long long walk_addition_trees(const std::function<bool(const std::vector<std::int32_t>&, int)>& visit);

void cmd_ienum();

}  // namespace qax::search
