// The search engine: one binary tree in packed numbering with directional state sets on
// every branch, so that the cost of putting any subtree on any branch is one join.
// Invariant after compute_all(): down(n) is the first-pass set of the subtree of n, up(n)
// the first-pass set of everything outside it seen across the branch above n, and
// edge(n) = fitch(down(n), up(n)); the length of the tree with a set S attached on the
// branch above n is length + join(S, edge(n)), exactly. With equal weights the engine's
// terminal sets hold the fields of each class in its own order (most variable first).
#pragma once

#include <algorithm>
#include <cstdint>
#include <vector>

#include "optim/packed.h"
#include "optim/wide.h"

namespace qax::search {

// Set of two children in one pass over the words (no counting): where the two sets meet,
// the intersection, elsewhere the union. Class 0, fields {1},{0,1} and {0},{1} give
// {1} and {0,1}: 10'11 & 01'10 = 00'10 -> field 1 empty -> 11, field 0 -> 10.
void fitch_sets(const optim::Layout& L, const std::uint32_t* a, const std::uint32_t* b, std::uint32_t* out) noexcept;
// Field-wise union, for the region tests.
void union_sets(int nwords, const std::uint32_t* a, std::uint32_t* out) noexcept;
// Weighted count of fields where a and b don't meet; stops above bound (ok = 0).
std::int32_t join_count(const std::uint32_t* a, const std::uint32_t* b, std::int32_t bound, std::int32_t* ok) noexcept;

struct Move {
  int clip = -1;     // root of the clipped subtree
  int reroot = -1;   // node whose branch becomes the clip's root branch (-1: as it was)
  int target = -1;   // node whose branch (in the tree without the clip) receives the clip
  std::int32_t cost = 0;  // join cost of the move
};

struct Engine {
  int nt = 0;                 // terminals (packed)
  int nn = 0;                 // 2*nt - 1 nodes; root nt
  int W = 0;                  // words per set
  std::vector<int> anc, left, right;  // rooted at nt; left[nt] is terminal 0 on finished trees
  std::vector<std::uint32_t> down, up, edge;      // per node sets, nn*W
  std::vector<std::uint32_t> down2, up2;          // sets of the tree without the clip
  std::vector<std::uint32_t> upc;                 // sets of the clip seen from above
  std::vector<std::uint32_t> tgt, tunion;         // target branch sets in list order, block unions
  std::vector<std::uint32_t> cset, cunion;        // rerooting sets of the clip, block unions
  std::vector<int> tnode, cnode;                  // node of each list entry
  std::vector<int> stamp;                         // path marks of the current clip
  int stamp_now = 0;
  std::vector<int> stack, order;                  // work lists
  std::vector<int> nbr;                           // unrooted adjacency, 3 per node
  // Branches as targets of clips, in preorder from the root's second child: pre[k] is the
  // node at position k, pos[] its inverse, span[] the nodes of each subtree (a subtree is a
  // run of positions), sunion the unions of blocks of positions. tptr/uptr point at E() and
  // sunion, except while one clip is evaluated: the branches whose sets differ in the tree
  // without the clip then point at scratch sets, or are null until a join needs them.
  std::vector<int> pre, pos, span;
  std::vector<std::uint32_t> sunion;
  std::vector<const std::uint32_t*> tptr, uptr;
  std::vector<int> dirty_pos, dirty_blocks, block_mark, path;
  bool targets_ready = false;                     // pre/pos/span/sunion match the sets
  std::vector<std::int32_t> nsteps;               // steps at each inner node (first pass)
  std::vector<std::uint8_t> dchg, uchg;           // first/second-pass set changed (updates)
  std::vector<int> oanc, oleft, oright;           // topology before the last apply_move
  int limit = 0;                                  // TBR within this many nodes of the clip point (0: all)
  std::vector<int> ldist, lnode;                  // distances and target nodes under a limit
  std::vector<std::uint64_t> umask;               // changed chunks of a node's sets (clip updates)
  std::vector<std::uint32_t> chunk_scratch;       // one set of scratch words
  int chunk_words = 8;                            // words per chunk of umask
  std::uint64_t full_mask = 0;                    // every chunk
  std::vector<int>* edge_log = nullptr;           // insert_leaf adds the nodes whose E changed
  double score = 0;                               // length of the tree (constant steps included)
  // When set, evaluate_clip (saving) offers each record as it is found, with the sets of the
  // clip where it is (clip_now, target_now) and of the move (clip_new, target_new); a true
  // answer ends the clip with that record last in the list. For perturbations that take the
  // first acceptable move.
  using TakeFirstFn = bool (*)(void* ctx, const Move& m, std::int32_t base, const std::uint32_t* clip_now,
                               const std::uint32_t* target_now, const std::uint32_t* clip_new,
                               const std::uint32_t* target_new);
  TakeFirstFn take_first = nullptr;
  void* take_ctx = nullptr;

  // Wide columns (Sankoff, continuous). With them, join costs of moves are in units of
  // 1/unit step (unit 1000 with continuous columns, else 1): narrow joins count unit each,
  // wide columns add their exact cost. The wide sets are recomputed whole when the tree
  // changes; those of the tree without the clip whole for each clip.
  bool has_wide = false;
  int unit = 1;
  double wide_score = 0;                          // wide part of `score`
  optim::WideState wide, wide2;                   // tree, tree without the clip
  std::vector<std::uint32_t> wmask2;              // per node and Sankoff column: states of least branch cost (without the clip)
  std::vector<const std::int32_t*> e2p, ce2p;     // branch sets of the tree without the clip (the tree's where equal)
  std::vector<const std::uint32_t*> m2p;          // their states of least cost
  std::vector<int> overlay;                       // nodes whose pointers lead to sets without the clip
  std::vector<std::int32_t> wout_off;             // clip: what normalising took off beyond each node
  std::vector<int> wcols, wcount, path_cols;      // columns whose sets differ without the clip, per node
  std::vector<std::uint64_t> dbits, ubits, need_bits;  // columns changed by the last change of topology
  std::vector<int> wold_left, wold_right;         // children before an insertion
  std::vector<std::uint64_t> join_bits;           // scratch of wide_join: columns to cost
  mutable std::vector<std::uint64_t> block_bits;  // scratch of wide_block_bound
  std::int64_t least_column_weight = 0;           // least weight of a Sankoff column
  std::vector<std::uint32_t> term_masks;          // per terminal and Sankoff column: states of least cost seen from a parent
  std::vector<std::uint32_t> wblock;              // per block of targets and column: union of least-cost states
  // Least cost in units of rerooting j on any target whose least-cost states are within
  // the block's unions `masks` (the narrow part left out).
  std::int64_t wide_block_bound(int j, const std::uint32_t* masks) const;
  // Wide sets after a change of topology, recomputed where they change (equal to wide_compute).
  void wide_update(const std::vector<int>& old_left, const std::vector<int>& old_right);
  std::vector<std::int32_t> wclip;                // per rerooting: normalised costs seen from the clip's new parent
  std::vector<std::int32_t> wclip_range;          // per rerooting: continuous ranges of the clip
  std::vector<std::uint32_t> wclip_mask;          // per rerooting and Sankoff column: states of least cost
  std::vector<std::int64_t> wclip_delta;          // per rerooting: change of the clip's own cost (units)
  std::int64_t wclip_min_delta = 0;               // least of wclip_delta
  std::vector<std::int32_t> wout;                 // clip: costs of the clip beyond each node
  std::vector<std::int32_t> wout_range;           // clip: continuous ranges beyond each node
  std::vector<int> anc2, left2, right2, order2;   // topology of the tree without the clip
  std::vector<std::int32_t> wtmp;                 // scratch vectors
  // Largest narrow count that can still keep a total within `bound` units.
  std::int32_t narrow_bound(std::int32_t bound) const {
    if (!has_wide) return bound;
    const std::int64_t b = static_cast<std::int64_t>(bound) - wclip_min_delta;
    if (b < 0) return -1;
    return static_cast<std::int32_t>(std::min<std::int64_t>(b / unit, INT32_MAX));
  }
  // Steps of a difference of join costs.
  double cost_to_steps(std::int64_t c) const { return has_wide ? static_cast<double>(c) / unit : static_cast<double>(c); }
  void wide_compute();                             // wide sets of the tree and wide_score
  void wide_prepare_terminals();                   // term_masks and least_column_weight (after a pack)
  // Adds to total (units) the Sankoff columns of a join of sets F (least-cost states fm) and
  // E (em); false as soon as the total is sure to pass bound.
  bool add_sankoff_joins(const std::int32_t* E, const std::uint32_t* em, const std::int32_t* F, const std::uint32_t* fm,
                         std::int64_t bound, std::int64_t& total);
  // Wide sets of the tree without clip n (parent p, sister s, p's parent g) and of the nc
  // rerootings of the clip listed in cnode.
  void wide_prepare_clip(int n, int p, int s, int g, bool whole, int nc);
  // Cost in units of rerooting j of the clip joined to the branch above `target` in the
  // tree without the clip, given the narrow count; ok = 0 when above bound.
  std::int32_t wide_join(int j, int target, std::int32_t narrow, std::int32_t bound, std::int32_t* ok);
  // Cost in units of terminal t on the branch above b of the tree (Wagner trees).
  std::int32_t leaf_join(int t, int b, std::int32_t bound, std::int32_t* ok);

  std::uint32_t* D(int n) { return down.data() + static_cast<std::size_t>(n) * W; }
  std::uint32_t* U(int n) { return up.data() + static_cast<std::size_t>(n) * W; }
  std::uint32_t* E(int n) { return edge.data() + static_cast<std::size_t>(n) * W; }

  void init();                                    // sizes from the current pack, empty tree
  bool load(const std::vector<std::int32_t>& parent);   // from a data set parent array
  void export_tree(std::vector<std::int32_t>& parent) const;  // canonical data set parent array
  int inner_preorder();                           // inner nodes in preorder from the root into order; count
  double compute_all();                           // all sets and the score
  void reroot_on_zero();                          // rebuilds the rooted arrays rooted on terminal 0
  // Evaluates every move of clip n; fills best (cost below base) and, when saving, the records
  // of cost up to base + save_slack. Returns base, or -1 when the clip has nothing to try.
  std::int32_t evaluate_clip(int n, bool tbr, bool saving, std::int32_t save_slack, Move& best,
                             std::vector<Move>& records, std::uint64_t& examined);
  void apply_move(const Move& m);                 // topology only; then compute_all or update_after_move
  // The tree the move makes, as a data set parent array; the engine keeps its tree.
  void export_move(const Move& m, std::vector<std::int32_t>& parent);
  // After apply_move (which keeps the previous topology in oanc/oleft/oright): recomputes
  // only the sets that change, following changed values; equal to compute_all.
  double update_after_move();
  // Puts terminal t with the new node q on the branch above `branch` and brings all sets
  // up to date by recomputing only those that change: the first-pass sets from q up to
  // the first unchanged one, and the second-pass and branch sets of the subtrees the
  // change reaches. The result equals compute_all (without the score).
  void insert_leaf(int t, int branch, int q);

 private:
  void order_fields();                            // most variable characters first (equal weights)
  void prepare_targets();                         // pre/pos/span/sunion/tptr/uptr
  std::uint32_t* mark_target(int node, const std::uint32_t* set);   // block union to widen
  void clip_update(int p, int s, int g);          // sets of the tree without the clip
  void restore_targets();
  const std::uint32_t* lazy_target(int k);        // makes the branch set of position k
};

}  // namespace qax::search
