// The packed matrix: active taxa and informative characters as fixed-width bit fields in
// 32-bit words, one array of nwords words per tree node and per kind of set.
// Invariant: all nodes share one word layout, class regions in class order, a word holds
// fields of one class only; unused fields and padding words are all ones at terminals.
#pragma once

#include <cstdint>
#include <vector>

#include "optim/wide.h"

namespace qax::optim {

// Layout, worked example. Four active taxa, three characters, equal weights:
//   char 0 nonadditive, states {0,1}      taxa A:0 B:1 C:0 D:1   -> class 0, 1 field
//   char 1 nonadditive, states {0,2,5}    taxa A:0 B:2 C:5 D:[25] -> class 1, dense codes 0->bit0, 2->bit1, 5->bit2
//   char 2 additive, states 0..2          taxa A:0 B:2 C:1 D:?   -> 2 binary columns, class 0
// Class 0 holds three 2-bit fields (char 0, then the two columns of char 2), class 1 one
// 4-bit field. w0 = 1, w1 = 1; with xbit both become 2 (so 64-bit pairs never straddle),
// nwords = 4. Terminal B, word 0 (fields low to high): char0 = 10, char2 col0 = 10 (state 2
// is above threshold 1), char2 col1 = 10 (above threshold 2), the other 13 fields 11:
//   0xFFFFFEAA ; word 1 = 0xFFFFFFFF (padding) ; word 2: field 0 = 0010 -> 0xFFFFFFF2.
// Terminal D, word 0: char0 = 10, char2 missing = 11 in both columns -> 0xFFFFFFFE.
// packed_char has 16 records per class-0 word, 8 per class-1 word, 4 per class-2 word,
// then one per class-4 word; padding records have weight 0 and character -1.

enum PackedClass : std::uint8_t {
  class_2bit = 0,          // binary columns
  class_4bit = 1,          // 3 or 4 states
  class_8bit = 2,          // 5 to 8 states
  class_16bit = 3,         // kept for reduced matrices; never produced here
  class_32bit = 4,         // 9 to 32 states, one field per word
  class_sankoff_16 = 5,    // Sankoff columns, not packed by this build
  class_sankoff_32 = 6,    // Sankoff columns, not packed by this build
};
constexpr int class_count = 7;
constexpr int field_width[class_count] = {2, 4, 8, 16, 32, 16, 32};
constexpr int fields_per_word[class_count] = {16, 8, 4, 2, 1, 2, 1};

enum WeightMode : std::uint8_t {
  weights_equal = 0,   // every column weight 1: popcount kernels
  weights_word = 1,    // columns grouped by weight: one weight per word
  weights_column = 2,  // any weights: kernels walk the set bits and add column weights
};

// One packed character (a row of the plan).
struct PackPlan {
  int character = 0;              // dataset character number
  std::uint8_t cls = 0;           // current class
  std::uint8_t original_class = 0;// class before word-saving moves
  int columns = 1;                // binary columns of a recoded additive character, else 1
  int copies = 1;                 // copies of a split column (always 1 here)
  int weight = 1;                 // weight of each column
  int divisor = 1;                // unit of a reduced cost table
  int additive = 0;               // 1 recoded additive character, 2 branch of a state tree
  int low_state = 0;              // additive: lowest kept state (threshold base)
  std::uint32_t kept = 0;         // states kept after stripping
  std::uint32_t stripped = 0;     // states stripped as singletons
  std::uint32_t tree_high = 0;    // branch of a state tree: the states beyond the branch
  int first_record = -1;          // packed_char record of its first column
  std::int8_t dense[32] = {};     // dense bit of each original state, -1 unscored
};

// Per-field record: one per field of classes 0-2 (padding included), one per class-4 word.
struct PackedChar {
  std::int32_t** costs = nullptr;   // wide Sankoff cost table (unused here)
  std::int32_t weight = 0;          // weight of the column; 0 for padding
  std::uint8_t asymmetric = 0;      // asymmetric cost table
  std::uint8_t ancestral = 0;       // outgroup state is ancestral
  std::int32_t min_steps = 0;       // minimum steps of the column after stripping
  std::int32_t set_link = 0;        // weighting-set link (implied weights)
  std::int32_t extra_steps = 0;     // steps beyond the minimum on the tree under evaluation
  std::int32_t internal_steps = 0;  // from ccode =N
  std::int8_t num_states = 0;       // wide Sankoff: size of the cost vector
  const double* fit_table = nullptr;// extended implied weighting (unused here)
  const double* fit_aux = nullptr;  // companion table (unused here)
  double homoplasy_scale = 1.0;     // missing-data extrapolation (unused here)
  double concavity_ratio = 1.0;     // ratio to base concavity (unused here)
  std::int32_t character = -1;      // dataset character, -1 for padding
  std::int32_t plan = -1;           // plan row
  std::int32_t column = 0;          // binary column within the plan row
};

// Five pointers per node into the arrays of Packed; each points at nwords words.
struct NodeSets {
  std::uint32_t* down_set = nullptr;    // first-pass set; terminals: observed packed states
  std::uint32_t* final_set = nullptr;   // second-pass set (inner nodes)
  std::uint32_t* union_mask = nullptr;  // children's union, fields all ones where the first pass took a union
  std::uint32_t* branch_set = nullptr;  // union of the node's and its ancestor's final sets
  std::uint32_t* extra_set = nullptr;   // asymmetric Sankoff only (unused here)
};

// Word boundaries and weights handed to every kernel as an argument.
struct Layout {
  int nwords = 0;              // words per node (a multiple of 8, padding is all ones)
  int end0 = 0;                // class 0 words are [0, end0)
  int end1 = 0;                // class 1 words are [end0, end1)
  int end2 = 0;                // class 2 words are [end1, end2)
  int end4 = 0;                // class 4 words are [end2, end4)
  const std::int32_t* word_weight = nullptr;   // per word of classes 0-2 (grouped layout)
  const std::int32_t* field_weight = nullptr;  // per packed_char record (column layout)
  const std::int32_t* record_base = nullptr;   // per word: first packed_char record
};

struct Packed {
  int valid = 0;                         // a pack matching the data is present
  int nterm = 0;                         // active taxa
  int nnodes = 0;                        // 2*nterm - 1
  int nwords = 0;                        // words per node
  int nwide = 0;                         // class 4 columns
  int w[class_count] = {};               // words per class
  int columns[class_count] = {};         // columns per class
  int xbit = 1;                          // pair words for 64-bit kernels (setting, survives packing)
  WeightMode weight_mode = weights_equal;// which counting kernels apply
  int equal_weights = 1;                 // every column has weight 1
  std::int32_t constant_steps = 0;       // steps no tree can change (weighted)
  double constant_cont = 0;              // the same for continuous characters
  std::vector<int> to_packed;            // dataset taxon -> packed terminal, -1 inactive
  std::vector<int> from_packed;          // packed terminal -> dataset taxon
  std::vector<PackPlan> pack_plan;       // one row per packed character
  std::vector<PackedChar> packed_char;   // one record per field (see above)
  std::vector<std::int32_t> word_weight; // per word of classes 0-2
  std::vector<std::int32_t> field_weight;// weight per packed_char record, for the kernels
  std::vector<std::int32_t> record_base; // first record of each word
  std::vector<std::int32_t> char_constant; // per dataset character: unweighted constant steps
  std::vector<std::uint8_t> char_packed;   // per dataset character: 1 packed, 0 constant or skipped
  std::vector<std::int32_t> char_multiplier; // per dataset character: cost of a step (Sankoff tables of one cost)
  // Under implied weighting a character-state tree decomposed in binary variables is fitted
  // variable by variable: each variable is a fit unit numbered from nchar on, with its
  // character; the character's own steps are then not fitted.
  std::vector<std::int32_t> plan_unit;     // per plan row: its fit unit, -1 for the character's own
  std::vector<std::int32_t> unit_char;     // per fit unit from nchar on: its character
  std::vector<std::uint8_t> char_units;    // per dataset character: fitted by its variables
  std::vector<std::uint8_t> char_wide;     // per dataset character: 1 packed as a wide column
  WideColumns wide;                        // Sankoff and continuous columns
  std::vector<std::uint32_t> storage;    // all node words: four arrays of nnodes*nwords
  std::vector<NodeSets> node_sets;       // master table of node sets
  Layout layout;                         // boundaries for the kernels
};

extern Packed packed;

// Packs the current data set. Fails with error_exit when there is no data. `reduced` and
// `keep_search_state` are accepted for sectorial searches; this build always renumbers.
void pack_data(bool reduced = false, bool keep_search_state = false);

// Forgets the pack (new data, changed settings).
void invalidate_pack() noexcept;

// Packs when there is no valid pack.
void ensure_packed();

}  // namespace qax::optim
