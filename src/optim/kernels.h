// Parsimony kernels on the packed matrix: full first and second passes, the cost of joining
// a clip to a branch with an early stop at the bound, and word-by-word repair of the sets
// after a clip is cut or regrafted. Kernels are chosen once per pack into `kernels`; no inner
// loop reads a setting or allocates.
#pragma once

#include <cstdint>
#include <vector>

#include "optim/packed.h"

namespace qax::optim {

constexpr int cost_infinity = 32700;          // infinity of cost arrays
constexpr int bound_sentinel = 100000000;     // sentinel of the running bound

// A binary tree in packed numbering: terminals 0..nterm-1, root nterm, terminal 0 a child of
// the root. Absent nodes have ancestor -1.
struct WorkTree {
  int nterm = 0;                   // terminals
  int nnodes = 0;                  // 2*nterm - 1
  std::vector<int> ancestor;       // parent, -1 for the root
  std::vector<int> left_child;     // -1 for terminals
  std::vector<int> right_child;    // -1 for terminals
  std::vector<int> sister;         // other child of the parent
  std::vector<int> preorder;       // inner nodes reachable from the root, root first (tree_score)
  std::vector<int> work;           // work list of the updates (allocated once)
};

// Builds `tree` from a parent array of 2*ntax-1 cells in data set numbering (root ntax, the
// root's cell holds last node + 1, parent 0 = absent), dropping inactive taxa and rooting on
// the outgroup. Returns false when the tree, on the active taxa, has a polytomy.
[[nodiscard]] bool load_tree(const std::vector<int>& parent, WorkTree& tree);
// Sets sister links from the child links.
void fix_sisters(WorkTree& tree) noexcept;

// Kernel variants.
enum KernelChoice : int { kernel_auto = 0, kernel_32 = 1, kernel_64 = 2, kernel_avx2 = 3 };
extern int kernel_override;  // setting: forces a variant (kernel_auto: by CPU)

struct CpuFeatures {
  bool avx2 = false;     // AVX2 and POPCNT present
};
[[nodiscard]] CpuFeatures detect_cpu() noexcept;

using DownPassFn = std::int32_t (*)(const Layout&, const NodeSets*, const int* order, int count,
                                    const int* left, const int* right);
using UpPassFn = void (*)(const Layout&, const NodeSets*, const int* order, int count,
                          const int* ancestor, int nterm, int terminals);
using JoinFn = std::int32_t (*)(const Layout&, const std::uint32_t* clip, const std::uint32_t* first,
                                const std::uint32_t* second, std::int32_t bound, std::int32_t* ok);

struct Kernels {
  const char* name = "none";      // "32-bit", "64-bit", "avx2"
  int variant = 0;                // KernelChoice actually used
  DownPassFn down_pass = nullptr; // first pass over `order` backward; returns weighted steps
  UpPassFn up_pass = nullptr;     // second pass over `order` forward (order[0] is the root)
  JoinFn join = nullptr;          // join of clip and first (second ignored)
  JoinFn join_between = nullptr;  // join of clip and (first | second)
};
extern Kernels kernels;

// Pure choice of the variant: by weights, layout, CPU and the override.
[[nodiscard]] Kernels select_kernels(const Packed& plan, CpuFeatures cpu, int choice = kernel_auto) noexcept;
// Fills `kernels` for the current pack (called by pack_data).
void select_kernels_for_pack() noexcept;

// Global evaluation state shared with the swappers.
extern const std::uint32_t* clip_words;    // clip's set
extern const std::uint32_t* target_words;  // target branch's set
extern double score_bound;                 // largest cost still of interest
extern std::int32_t join_ok;               // 1 when the join got through all words
extern double join_value;                  // cost of the join when join_ok is 1
extern double slack;                       // allowed excess over the best
extern std::int32_t keep_unions;           // cluster unions kept (not built yet: always 0)

// Score of `tree` in steps including constant_steps. Mode 0/1 first pass; 2 also second
// pass of inner nodes; 3 also branch sets of terminals; 4 second pass only, returns 0.
double tree_score(WorkTree& tree, int mode);

void join_cost() noexcept;
void join_cost_between(const std::uint32_t* clip, const std::uint32_t* first, const std::uint32_t* second) noexcept;
// Wide part of a join (Sankoff and continuous columns; class 4 columns are counted by
// join_cost itself): mode 0, the clip's first-pass sets on the branch above target_node of
// the tree last scored or updated (exact after prune_update); modes 1 and 2 (cluster
// unions) add 0. Returns the steps (thousandths of continuous columns as fractions) and
// adds them to join_value.
double join_cost_wide(int clip_node, int target_node, int mode) noexcept;

// Topology: cut_node removes the clip with its parent p (p keeps the clip as single child)
// and returns the sister; join_node puts p back above `branch`. The clip's parent must not
// be the root.
int cut_node(WorkTree& tree, int clip) noexcept;
void join_node(WorkTree& tree, int clip, int branch) noexcept;
// Repair of down/union/final/branch sets after cut_node (sister = returned sister) and after
// join_node (sister = the branch joined). Equal to a full tree_score(mode 3) on the result.
void prune_update(WorkTree& tree, int sister, int clip) noexcept;
void regraft_update(WorkTree& tree, int sister, int clip) noexcept;
// Second pass inside a detached clip taken as a tree of its own: afterwards the branch_set
// of each node of the clip is the clip's set when rerooted on the branch above that node.
void clip_reroot_sets(WorkTree& tree, int clip) noexcept;

void slack_for_bound(int level, bool at_capacity, double score) noexcept;

// Population counts of 16-bit values, filled once.
extern const std::uint8_t* popcount16;

}  // namespace qax::optim
