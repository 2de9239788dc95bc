// Comparisons of two trees: groups present in one and absent from the other
// (Robinson-Foulds), rooted triplets, and a heuristic count of the SPR moves that turn one
// tree into the other. Trees are parent arrays of the store (2*ntax-1 cells, polytomies
// allowed); `include` flags the taxa compared (1), the others are left out of every group.
#pragma once

#include <cstdint>
#include <vector>

namespace qax::support {

using GroupBits = std::vector<std::uint64_t>;

// Groups of a tree on the included taxa, without duplicates, sorted. Rooted: the terminals
// below each inner node, from 2 up to all but one of the included taxa. Unrooted: each
// bipartition once, by its side without `outgroup` (which must be included), from 2 up to
// all but two.
std::vector<GroupBits> tree_groups(const std::int32_t* tree, int ntax, const std::vector<std::uint8_t>& include,
                                   bool rooted, int outgroup);

// True when two groups overlap without one holding the other.
[[nodiscard]] bool bits_conflict(const GroupBits& a, const GroupBits& b) noexcept;

struct GroupComparison {
  int only_first = 0;    // groups of the first tree absent from the second
  int only_second = 0;   // and the other way
  int groups_first = 0;  // groups of each tree
  int groups_second = 0;
  int taxa = 0;          // taxa compared
};
GroupComparison compare_groups(const std::int32_t* a, const std::int32_t* b, int ntax,
                               const std::vector<std::uint8_t>& include, bool rooted, int outgroup);

// Robinson-Foulds value: scale 0 the count of groups in one tree only; 1 that count over
// 2*(T-3) unrooted or 2*(T-2) rooted; 2 over the groups of both trees (0 for two bushes).
[[nodiscard]] double rf_value(const GroupComparison& g, bool rooted, int scale) noexcept;

struct TripletComparison {
  long long possible = 0;       // triplets of the taxa compared
  long long resolved_first = 0; // resolved in the first tree
  long long resolved_second = 0;
  long long false_first = 0;    // resolved in the first, otherwise or not at all in the second
  long long false_second = 0;
  long long differing = 0;      // triplets not alike in the two trees
  long long conflicting = 0;    // resolved in both, differently
};
TripletComparison compare_triplets(const std::int32_t* a, const std::int32_t* b, int ntax,
                                   const std::vector<std::uint8_t>& include);

// Stability of each taxon over a set of trees, from the rooted triplets that hold it:
// `lsi` the average difference between the proportions of trees with the most frequent
// and the second most frequent resolution of the triplet; `pcr` the proportion of its
// triplets resolved alike in every tree. Entries of taxa not included are -1.
struct TripletStability {
  std::vector<double> lsi;
  std::vector<double> pcr;
};
TripletStability triplet_stability(const std::vector<const std::int32_t*>& trees, int ntax,
                                   const std::vector<std::uint8_t>& include);

// Taxa present in both trees and not flagged in `excluded` (may be empty).
std::vector<std::uint8_t> shared_taxa(const std::int32_t* a, const std::int32_t* b, int ntax,
                                      const std::vector<std::uint8_t>& excluded);

// Terminal that is a child of the root, or -1 when the root has none.
int root_terminal(const std::int32_t* tree, int ntax);

// Heuristic SPR distance between two trees on the same taxa (unrooted; polytomies of the
// second tree are met by any resolution, those of the first are resolved towards the
// second first). Each replication makes, until the first tree holds every group of the
// second, the move that leaves the most groups of the second in place, choosing at random
// among equal ones; the least number of moves over the replications is returned.
// `weight_constant` above 0 weighs each move D/(K+D) by the nodes D it crosses, rescaled
// so that a move over nt-3 nodes costs 1; `weighted` receives that sum for the best
// replication (the raw count when not weighted).
struct SprResult {
  int moves = 0;            // raw moves of the best replication
  double weighted = 0;      // weighted value (moves when not weighted)
  bool resolved = false;    // the first tree had polytomies
  std::vector<std::vector<std::int32_t>> steps;   // trees after each move (when asked)
  std::vector<int> distances;                     // nodes crossed by each move
};
// `ancestor_moves` false: no part goes onto a branch between its old place and the
// first taxon in the tree (the root side), so that no node moves to an ancestor.
// `levels` > 0 adds stratified replications, whose moves may gain up to that many groups
// less than the best move (every level gets the replications, or, with `alternate`,
// plain and stratified replications take turns); the best count of all is kept.
SprResult spr_distance(const std::int32_t* a, const std::int32_t* b, int ntax, int replications,
                       double weight_constant, std::uint32_t seed, bool keep_steps, bool ancestor_moves = true,
                       int levels = 0, bool alternate = false);

// Matrix representation of a tree's groups (each a binary character, with an all-absent
// external root) mapped onto another tree. `source` groups are those of tree_groups
// (rooted); steps are counted on `target` with polytomies as they are, the external root
// adding a step when the root can't have the absent state.
struct MrpMapping {
  long long steps = 0;      // S: steps of all the characters on the target
  long long minimum = 0;    // M: one step per character
  long long maximum = 0;    // G: per character min(k, T - k + 1), k taxa in the group
};
MrpMapping map_mrp(const std::int32_t* source, const std::int32_t* target, int ntax,
                   const std::vector<std::uint8_t>& include);
// Largest G of a tree of T taxa: that of a pectinate tree.
[[nodiscard]] long long pectinate_mrp_maximum(int taxa) noexcept;

// Cluster Information Distance: the clustering entropies of both trees (sum over groups
// of the entropy of the split of the taxa into group and rest) less twice the mutual
// information of the best matching of their groups. `entropy_first` and
// `entropy_second` receive the trees' entropies (may be null).
double cluster_information_distance(const std::int32_t* a, const std::int32_t* b, int ntax,
                                    const std::vector<std::uint8_t>& include, double* entropy_first = nullptr,
                                    double* entropy_second = nullptr);
// Clustering entropy of a pectinate tree of T taxa.
[[nodiscard]] double pectinate_cluster_entropy(int taxa) noexcept;
// Best assignment of rows to columns maximising the sum (rows <= columns or not: the
// smaller side is matched whole). Returns the sum; exact (Hungarian method).
double max_assignment(const std::vector<std::vector<double>>& value);

// Values of the latest comparisons, for macro expressions.
struct ComparisonValues {
  double discoeff = -1;
  double symcoeff = -1;
  double clusdist = -1;
  double grpdist = -1;
  double rfdist = -1;
  double osr = -1;
  double tripdist = -1;
  double sprdiff = -1;
  double sprsim = -1;
};
extern ComparisonValues last_comparison;

}  // namespace qax::support
