// Taxa whose removal improves a consensus: exhaustive prunings of the strict or
// combinable consensus, the rogue scores of prunmajor, the stepwise prupdn search,
// the resolutions of polytomies and the placement of pruned taxa. Every calculation
// reads the stored trees and never changes them.
#pragma once

#include <cstdint>
#include <vector>

namespace qax::support {

enum class PruneBase { strict, combinable };

// Consensus of the trees under the exclusion flags (excluded taxa absent).
void base_consensus(PruneBase base, const std::vector<int>& trees, const std::vector<std::uint8_t>& excluded,
                    std::int32_t* result);

// Nodes of `pruned` (a consensus under excl) that the original consensus, restricted to
// the taxa left by excl, lacks. per_node (2*ntax-1) receives how many were gained inside
// each node of the original (the smallest one whose restriction contains the new group).
int gained_nodes(const std::int32_t* original, const std::int32_t* pruned, const std::vector<std::uint8_t>& excl,
                 std::vector<int>& per_node);

struct Pruning {
  std::vector<int> taxa;             // taxa pruned, increasing
  int gain = 0;                      // nodes gained (at the node asked for, when one is)
  std::vector<int> per_node;         // gain by node of the unpruned consensus
  std::vector<std::int32_t> tree;    // consensus without those taxa
};

struct PruneOptions {
  int max_pruned = 1;                // =P : prune sets of up to P taxa
  int min_gain = 0;                  // >N : report gains above N
  int node = -1;                     // [J] : gains inside node J only
  int max_solutions = 1000;          // prunings kept before the enumeration stops
};

// Every set of up to max_pruned taxa (excluding excluded and forced ones) whose
// pruning gains more than min_gain nodes, and more than any of its subsets of one
// taxon fewer. `truncated` is set when max_solutions stopped the enumeration.
std::vector<Pruning> find_prunings(PruneBase base, const std::vector<int>& trees,
                                   const std::vector<std::uint8_t>& excluded, const std::vector<std::uint8_t>& forced,
                                   const std::int32_t* consensus, const PruneOptions& options, bool& truncated);

// prunmajor: for each node of the reference (nodes, or all when empty) and each tree,
// the tree's group most similar to the node's (similarity of rough recovery, the
// proportion and costs of consensus_settings); when it differs, the taxa that make the
// difference share 1/(cost of removing them). `differences`: only conflicting groups
// (the rivals of frequency differences) count. Taxa in keep are never scored and a
// difference that needs them is skipped.
struct RogueScores {
  std::vector<int> nodes;                     // reference nodes scored
  std::vector<std::vector<double>> per_node;  // per scored node, per taxon
  std::vector<double> global;                 // per taxon, summed over nodes
};
RogueScores rogue_scores(int reference, const std::vector<int>& nodes, const std::vector<int>& trees,
                         const std::vector<std::uint8_t>& excluded, const std::vector<std::uint8_t>& keep,
                         bool differences);

// prupdn.
struct UpdnOptions {
  bool up = false;            // < : start with all pruned and unprune
  double factor = 0.5;        // :F : penalty factor for removal
  bool differences = false;   // * : frequency differences
  int max_set = 3;            // =M : taxa moved at each stage
  int cutoff = 50;            // &N : support cutoff (100: strict consensus)
  int max_stages = 20;        // !N : stages
  int separator = -1;         // |S : never prune together taxa split by support S or more (-1 none)
};
// Value E = (sum of supports of the consensus + R*100*(1-F*F)) / (T-2), T the taxa left
// with no pruning, R the taxa pruned. Supports are percentages of the trees.
double updn_value(const std::vector<int>& trees, const std::vector<std::uint8_t>& excluded,
                  const std::vector<std::uint8_t>& pruned, int base_taxa, const UpdnOptions& options,
                  std::vector<std::int32_t>* tree = nullptr, std::vector<double>* support = nullptr);
struct UpdnStage {
  std::vector<int> moved;     // taxa pruned (down) or unpruned (up) at this stage
  double value = 0;           // E after the stage
};
struct UpdnResult {
  double initial = 0;                  // E before the first stage
  std::vector<UpdnStage> stages;
  std::vector<std::uint8_t> pruned;    // per taxon, at the end
};
UpdnResult updn_search(const std::vector<int>& trees, const std::vector<std::uint8_t>& excluded,
                       const std::vector<std::uint8_t>& pool, const UpdnOptions& options);

// resols: for each polytomy of the consensus, the distinct partial resolutions that the
// trees give it. A resolution is the sorted list of its groups, each a bit-mask over the
// polytomy's children (in child order).
struct PolytomyResolutions {
  int node = 0;                                          // node of the consensus
  std::vector<int> children;                             // its descendants, in order
  std::vector<std::vector<std::vector<std::uint64_t>>> resolutions;  // distinct ones
  std::vector<std::vector<int>> trees;                   // per resolution, the trees
};
// Fails "To display resolutions, ..." when the consensus root is not a terminal and
// one group. only_node >= 0 restricts the work to that node.
std::vector<PolytomyResolutions> polytomy_resolutions(const std::vector<int>& trees,
                                                      const std::vector<std::uint8_t>& excluded,
                                                      const std::int32_t* consensus, int only_node);

// nelsen N/L/P: per located taxon, a flag per node of the consensus where the trees
// attach it (the smallest consensus node holding its sister group in each tree).
std::vector<std::vector<std::uint8_t>> locate_taxa(const std::vector<int>& trees,
                                                   const std::vector<std::uint8_t>& excluded,
                                                   const std::int32_t* consensus, const std::vector<int>& taxa);

}  // namespace qax::support
