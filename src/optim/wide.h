// Wide columns: Sankoff characters (a cost table between states) and continuous characters
// (ranges of values in thousandths), scored one column at a time beside the packed words.
// Sankoff vectors hold, per node and column, the cost of the part of the tree below (or
// beyond) the node for each state of the column; they are absolute costs, and the states
// of least cost are the node's set. Continuous columns keep a range per node: the first
// pass takes the intersection of the children's ranges, or the gap between them at the
// cost of its width.
//
// Rooting: trees in packed numbering are rooted at node nterm, whose children are terminal
// 0 (the outgroup) and the rest; asymmetric tables are scored on that rooting, and with
// `ancestral` the root may take only the states of the outgroup.
#pragma once

#include <cstdint>
#include <vector>

namespace qax::optim {

constexpr std::int32_t wide_infinity = 1 << 28;   // cost of a state that is not allowed

struct SankoffColumn {
  int character = 0;                 // data set character
  int weight = 1;                    // weight of the character
  int k = 0;                         // states of the column (dense)
  int offset = 0;                    // first entry of the column in a node's vector
  std::int8_t state_of[32] = {};     // dense state -> state of the character
  std::vector<std::int32_t> cost;    // k*k, row = from-state
  // Columns of up to 8 states: the table in rows of 8 lanes, k rows for the transfer from a
  // child (lane t of row a: cost t>a) then k for the transfer from a parent (cost a>t);
  // lanes past the column's states hold wide_infinity.
  std::vector<std::int32_t> lanes;
  bool asymmetric = false;           // cost i>j differs from j>i somewhere
  std::uint32_t root_mask = 0;       // dense states the root may take (all but for ancestral)
};

struct ContinuousColumn {
  int character = 0;                 // data set character
  int weight = 1;                    // weight of the character
};

struct WideColumns {
  std::vector<SankoffColumn> sankoff;
  std::vector<ContinuousColumn> cont;
  int vector_length = 0;             // sum of k over the Sankoff columns
  std::vector<std::int32_t> term;    // nterm * vector_length: terminal cost vectors
  std::vector<std::int32_t> term_range;  // nterm * 2 * cont: terminal low and high values
  int unit = 1;                      // units of a step in integer costs: 1000 with continuous columns
  std::vector<int> sankoff_of;       // per data set character: its Sankoff column, -1 none
  std::vector<int> cont_of;          // per data set character: its continuous column, -1 none
  // Continuous cost of a part of the tree left out of these columns (a reduced data set), in
  // thousandths below one step; whole steps go to the pack's constant.
  std::int64_t extra_thousandths = 0;
  bool any() const noexcept { return !sankoff.empty() || !cont.empty(); }
};

// Builds the wide columns of the current data set for the packed terminals; `use` marks
// the characters packed as wide (Sankoff) and continuous characters are all taken.
void pack_wide_columns(WideColumns& w, const std::vector<int>& from_packed, const std::vector<std::uint8_t>& sankoff_chars);

// Columns of up to this many states are transferred all states at once.
constexpr int wide_lanes = 8;
// cost[t][a] + v[a] minimised over a, for every t (v a column's vector): the cost seen from
// a parent in state t of a child whose subtree costs v.
void sankoff_from_child(const SankoffColumn& col, const std::int32_t* v, std::int32_t* out) noexcept;
// cost[a][t] + v[a] minimised over a: the cost seen from a child in state t of a parent side
// whose cost is v.
void sankoff_from_parent(const SankoffColumn& col, const std::int32_t* v, std::int32_t* out) noexcept;
// How an operand of sankoff_combine is taken: as it is, or seen across a branch (the
// transfers above) from a child or from a parent.
enum : int { combine_plain = 0, combine_from_child = 1, combine_from_parent = 2 };
// out = a + b over the column's states (wide_infinity at most), each operand taken as `how`
// says, less the least cost, which is returned (0 when no state is allowed); b may be null
// (out = a normalised). With `zeros`, the states of cost 0 of out as bits. out may be a.
std::int32_t sankoff_combine(const SankoffColumn& col, const std::int32_t* a, int how_a, const std::int32_t* b,
                             int how_b, std::int32_t* out, std::uint32_t* zeros = nullptr) noexcept;

// Per-node wide sets of one binary tree (packed numbering, root nterm) and its score. Every
// Sankoff vector is kept normalised (least cost 0 in each column); the normalisers add up
// to the score.
struct WideState {
  int nt = 0, nn = 0, V = 0, C = 0;
  std::vector<std::int32_t> down, up, edge;        // nn * V
  std::vector<std::int32_t> cdown, cup, cedge;     // nn * 2C: ranges
  std::vector<std::int32_t> scratch;               // 2 * V
  std::int64_t sankoff_units = 0;                  // weighted Sankoff cost times unit
  std::int64_t cont_units = 0;                     // weighted continuous cost (thousandths)
  std::vector<std::int64_t> column_steps;          // unweighted per column (Sankoff, then continuous)

  void init();   // sizes from packed.wide; terminal vectors filled
  std::int32_t* D(int n) { return down.data() + static_cast<std::size_t>(n) * V; }
  std::int32_t* U(int n) { return up.data() + static_cast<std::size_t>(n) * V; }
  std::int32_t* E(int n) { return edge.data() + static_cast<std::size_t>(n) * V; }
  std::int32_t* CD(int n) { return cdown.data() + static_cast<std::size_t>(n) * 2 * C; }
  std::int32_t* CU(int n) { return cup.data() + static_cast<std::size_t>(n) * 2 * C; }
  std::int32_t* CE(int n) { return cedge.data() + static_cast<std::size_t>(n) * 2 * C; }
  // First pass over `order` (inner nodes in preorder, root first) backwards, and with
  // `second` the outside sets and the branch sets of every node; `per_column` keeps
  // column_steps. Returns the weighted cost in units.
  std::int64_t compute(const int* left, const int* right, const int* order, int count, bool second,
                       bool per_column = false);
  std::vector<std::uint32_t> masks;                // after a second pass: per node and column, states of cost 0 in E
  std::vector<std::int32_t> minima;                // scratch: normalisers of one node
  std::vector<std::int32_t> offsets;               // per inner node and column: what normalising took off below it
  std::vector<std::int32_t> node_min;              // per inner node and column: what normalising took off there
  std::vector<std::int32_t> root_best;             // per column: least cost of the allowed root states
  std::vector<std::int32_t> node_gap;              // per inner node and continuous column: the gap paid there
  // Per node: its first-pass set seen from a parent (sankoff_from_child of D), kept by
  // whoever changes D; rerooting and joining read it instead of transferring again.
  std::vector<std::int32_t> lifted;
  std::int32_t* L(int n) { return lifted.data() + static_cast<std::size_t>(n) * V; }
  void lift_all();
  // Down set of inner node n from its children (vector and range), for one node.
  void down_node(int n, int l, int r);
  // The passes on given vectors (all normalised: the least cost of each column is 0):
  // first-pass set from two children (minima: the normalisers, may be null); the set
  // outside a child from its sister's first-pass set and its parent's outside set; the
  // outside set of a child of the root from the root's other child; the branch set from a
  // node's first-pass and outside sets, with the states of cost 0 of each column in masks.
  void down_node_into(const std::int32_t* dl, const std::int32_t* dr, const std::int32_t* cl, const std::int32_t* cr,
                      std::int32_t* out, std::int32_t* cout, std::int32_t* minima);
  void up_node_into(const std::int32_t* dsib, const std::int32_t* uparent, const std::int32_t* csib,
                    const std::int32_t* cuparent, std::int32_t* out, std::int32_t* cout);
  void root_outside(const std::int32_t* d_other, const std::int32_t* c_other, std::int32_t* out, std::int32_t* cout);
  void edge_into(const std::int32_t* d, const std::int32_t* u, const std::int32_t* cd, const std::int32_t* cu,
                 std::int32_t* out, std::int32_t* cout, std::uint32_t* masks);
  // Steps as a score: Sankoff steps plus continuous thousandths / 1000, weighted.
  double score() const noexcept;
};

struct CharTree;
// Steps of a wide character on a stored tree, polytomies hard, exactly: Sankoff characters
// in units of their costs, continuous characters in thousandths. -1 when c is not wide.
std::int64_t wide_character_steps(const CharTree& t, int c);

}  // namespace qax::optim
