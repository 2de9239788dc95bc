// Groups of terminals as packed bit-sets, the node sets of one tree, and the table of
// distinct groups that every consensus counts into. A set row is W 64-bit words (bit
// t%64 of word t/64 is terminal t) followed by one extra word, the XOR of the W words;
// excluded terminals never have a bit, so two groups equal on the included taxa have
// equal rows.
#pragma once

#include <cstdint>
#include <vector>

namespace qax::support {

// Exclusion flags, one byte per taxon.
constexpr std::uint8_t excluded_by_user = 1;     // named after "/"
constexpr std::uint8_t excluded_as_missing = 2;  // absent from some selected tree

// Words of a set row for ntax taxa (W), not counting the extra word.
[[nodiscard]] inline int set_words(int ntax) noexcept { return (ntax + 63) / 64; }

// Node sets of one tree: per node a row of W+1 words and the number of included
// terminals below it. Terminals in the exclusion flags have an empty row and size 0.
struct NodeSets {
  int ntax = 0;                       // taxa of the rows
  int words = 0;                      // W
  int stride = 0;                     // W + 1
  std::vector<std::uint64_t> rows;    // (2*ntax-1) rows of stride words
  std::vector<std::int32_t> sizes;    // included terminals below each node
  std::vector<std::int32_t> order;    // breadth-first order of the last tree (scratch)
  std::vector<std::int32_t> firstdes; // scratch: first child
  std::vector<std::int32_t> sister;   // scratch: next sister
  std::uint64_t* row(int v) noexcept { return rows.data() + static_cast<std::size_t>(v) * stride; }
  const std::uint64_t* row(int v) const noexcept { return rows.data() + static_cast<std::size_t>(v) * stride; }
};

// Sizes the scratch for ntax taxa (allocates; done once per command).
void node_sets_init(NodeSets& ns, int ntax);
// Fills rows and sizes for every node of the tree (parent array, canonical or not).
// Absent terminals and excluded ones contribute nothing. Returns the number of nodes
// in breadth-first order (root first), left in ns.order. No allocation.
//
// Example, 5 taxa, tree (0 (1 2)(3 4)): node rows are 0b00110 for (1 2) and 0b11000 for
// (3 4); the root is 0b11111 with size 5. With taxon 4 excluded, (3 4) is 0b01000,
// size 1, and the root 0b01111, size 4.
int compute_node_sets(const std::int32_t* tree, const std::uint8_t* excluded, NodeSets& ns);

// Per-group bookkeeping, parallel to the set rows of the table.
struct GroupEntry {
  std::int32_t size = 0;    // included terminals in the group
  std::int32_t count = 0;   // trees (or weight) in which it was found; FDT: the value
  std::int32_t stamp = -1;  // last tree counted (a group is "fresh" while stamp differs)
  std::int32_t first = 0;   // first non-zero word
  std::int32_t last = 0;    // last non-zero word
  std::int32_t rival = 0;   // frequency differences: count of the best conflicting group
  std::uint64_t hash = 0;   // hash of the set words
};

// The table of distinct groups, with an open-addressed hash index over it. Starts with
// room for 2*(2*ntax-1) groups; rows and entries grow by doubling.
struct GroupTable {
  int ntax = 0;                        // taxa
  int words = 0;                       // W
  int stride = 0;                      // W + 1
  std::vector<std::uint64_t> sets;     // one row per group
  std::vector<GroupEntry> entries;     // one per group
  std::vector<std::int32_t> slots;     // hash index: group number or -1; power-of-two size
  std::vector<std::int32_t> segment_ends;  // size of the table after each tree counted
  int ngroups() const noexcept { return static_cast<int>(entries.size()); }
  const std::uint64_t* set(int g) const noexcept { return sets.data() + static_cast<std::size_t>(g) * stride; }
};

void group_table_init(GroupTable& t, int ntax);
// Hash of a set row (W words). Never 0.
[[nodiscard]] std::uint64_t set_hash(const std::uint64_t* set, int words) noexcept;
// Group number of the set, or -1. Filters by hash, size and extra word before the words.
[[nodiscard]] int group_find(const GroupTable& t, const std::uint64_t* set, int size, std::uint64_t hash) noexcept;
// Enters a new group (the caller knows it is absent) with the given count and stamp.
int group_add(GroupTable& t, const std::uint64_t* set, int size, std::uint64_t hash, int count, int stamp);

// Counts the groups of one tree into the table: every internal node other than the root
// whose included size is at least 2 and below `included` is looked up; a group found and
// not yet counted for this tree (stamp != tree_stamp) gets `weight` added; a group not
// found is entered when may_enter. `only_from`: groups below this index are never
// counted (reference-tree runs count only the reference's groups: pass 0 and
// may_enter false). Returns how many groups reached `target` count with this tree.
int count_tree_groups(GroupTable& t, NodeSets& ns, const std::int32_t* tree, const std::uint8_t* excluded,
                      int included, int tree_stamp, bool may_enter, int weight, int target);

// True when the two groups conflict: some terminal in both, some in a only, some in b
// only. Scans only the common range of non-zero words.
[[nodiscard]] bool groups_conflict(const GroupTable& t, int a, int b) noexcept;

// Builds a tree (canonical parent array of 2*ntax-1 cells) from the groups whose count
// is at least `required` (any order; they must be pairwise compatible). Included
// terminals start on the root; excluded ones become absent when prune_excluded, else
// stay on the root. node_group (may be null) receives per node the group it came from,
// -1 for terminals and the root. Returns the number of groups used.
int build_tree_from_groups(const GroupTable& t, const std::uint8_t* excluded, int required,
                           bool prune_excluded, std::int32_t* tree, std::vector<int>* node_group,
                           const std::vector<std::uint8_t>* keep = nullptr);

}  // namespace qax::support
