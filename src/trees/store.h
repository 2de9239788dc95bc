// The tree store: every kept tree is a parent array of 2*ntax-1 signed 32-bit cells in
// canonical numbering (terminals 0..ntax-1, root ntax, root cell = last node + 1,
// absent terminal 0), so two equal rooted trees are two equal integer arrays.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace qax::trees {

constexpr int default_maxtrees = 100;
constexpr int default_tree_groups = 32;
constexpr int tree_group_name_size = 32;
constexpr int tree_bucket_count = 128;
constexpr int bucket_deleted = 255;       // bucket number marking an entry for a purge
constexpr double score_tolerance = 0.00000001;

// One stored tree's bookkeeping for the duplicate buckets of a search.
struct TreeEntry {
  double score = 0;        // score of the tree
  std::int32_t* tree = nullptr;  // its parent array (a row of the store)
  int next = -1;           // next entry in the bucket, -1 none
  int prev = -1;           // previous entry in the bucket, -1 none
  int bucket = -1;         // bucket number; bucket_deleted marks a purge
};

// Head of one duplicate bucket.
struct TreeBucket {
  double score = 0;        // score of the last tree entered
  const std::int32_t* tree = nullptr;  // last tree entered
  int next = -1;           // head of the chain
};

struct TreeStore {
  int ntax = 0;                         // taxa of the rows (0: no data, no store)
  int row_size = 0;                     // 2*ntax-1 cells a row
  int maxtrees = default_maxtrees;      // capacity
  int user_maxtrees = default_maxtrees; // the user's last setting
  int ntrees = 0;                       // trees in memory
  std::vector<std::int32_t> rows;       // maxtrees rows of row_size cells
  std::vector<double> scores;           // per row; 0 when unknown
  std::vector<TreeEntry> entries;       // per row
  TreeBucket buckets[tree_bucket_count];// valid during a search
  int group_capacity = default_tree_groups;  // tree groups
  int group_words = 1;                  // 32-bit words of group bits a tree
  std::vector<std::uint32_t> group_bits;     // maxtrees * group_words
  std::vector<std::string> group_names;      // per group
  std::vector<std::uint8_t> group_defined;   // per group
  int auto_group = 1;                   // commands that make trees take the next group
  int group_cursor = 0;                 // next group of the auto-grouping
  int last_group = -1;                  // group defined last ("=/")
  int vault_set = 0;                    // a vault exists
  int vault_capacity = 0;               // trees the vault can hold
  int vault_count = 0;                  // trees in the vault
  std::vector<std::int32_t> vault_rows; // vault_capacity rows
  std::vector<std::uint32_t> vault_bits;// group bits of the vault trees
  int trees_changed = 0;                // set by every command that changes the trees
  int absincl = 0;                      // tread sends left-out taxa to the base
  // Tag tree (labels read with Newick files and tags): one text per node.
  std::vector<std::int32_t> tag_tree;   // parent array the tags belong to, empty: none
  std::vector<std::string> tags;        // per node of tag_tree
  int tag_add = 0;                      // tread [: tags of a new tree text join the present ones
  int tags_from_consensus = 0;          // the tags are the frequencies of a kept consensus
  int tag_separator = '\\';             // put between joined tags; 0 none
};

constexpr int tag_length = 128;          // longest tag text

extern TreeStore tree_store;

// Settings of the drawing routine.
struct DisplaySettings {
  int symmetric = 0;          // tplot+: internal nodes on the middle row of their children
  int second_first = 0;       // the second largest clade of a polytomy goes first
  int narrow = 0;             // naked]: narrow format
  std::string zoom;           // tplot:xxx label of the branch to zoom on
  int margins[4] = {10, 10, 10, 10};  // SVG margins left, top, right, bottom
};
extern DisplaySettings display_settings;

// --- Store lifecycle ---------------------------------------------------------
// Drops all trees and sizes the store for the data set (ntax taxa, 100 rows).
void tree_store_reset_for(int ntax);
// Start-up values (no data).
void tree_store_clear();
inline std::int32_t* tree_row(int k) { return tree_store.rows.data() + static_cast<std::size_t>(k) * tree_store.row_size; }
inline std::uint32_t* tree_group_row(int k) { return tree_store.group_bits.data() + static_cast<std::size_t>(k) * tree_store.group_words; }
// Fails with "Must read data first" without a data set.
void require_data();

// Resizes to new_size rows, keeping the first trees. Fails (returns false) when memory
// is short; verbose prints the messages of hold.
bool tree_space_resize(int new_size, bool verbose);
// Reserves the next row and returns its index; sets the group bits of `group` (-1 none).
// When full: grows by 10 with a warning if may_grow, else fails "No space to store new
// trees (increase maxtrees)". Returns the row index; the caller fills the row.
int tree_store_add(int group, bool may_grow);
// Copies tree into a new row after canonical renumbering (file readers; grow by 100).
int tree_store_append(const std::int32_t* tree, int group, double score = 0);
// Removes rows for which keep[k] == 0, keeping order; ORs nothing.
void tree_store_compact(const std::vector<std::uint8_t>& keep);

// --- Trees as parent arrays ----------------------------------------------------
// Canonical renumbering; `parallel` (one entry per node, may be null) is permuted too.
void reset_node_numbers(std::int32_t* tree, int ntax, std::vector<std::string>* parallel = nullptr);
[[nodiscard]] bool trees_equal(const std::int32_t* a, const std::int32_t* b, int ntax) noexcept;
// Number of terminals present.
[[nodiscard]] int tree_terminal_count(const std::int32_t* tree, int ntax) noexcept;
// Groups of a tree: root cell - ntax - 1.
[[nodiscard]] inline int tree_group_count(const std::int32_t* tree, int ntax) noexcept { return tree[ntax] - ntax - 1; }
[[nodiscard]] inline bool terminal_present(const std::int32_t* tree, int t, int ntax) noexcept { return tree[t] >= ntax; }
// Terminals below each node as bit rows of `words` 64-bit words: the terminals flagged in
// `include`, or all those present when it is null.
std::vector<std::uint64_t> terminal_bits(const std::int32_t* tree, int ntax, int words,
                                         const std::vector<std::uint8_t>* include = nullptr);

// Derived arrays: first descendant, next sister (-1 ends), terminals below, children.
struct TreeLinks {
  std::vector<int> firstdes, sister, ntips, nchildren;
};
void build_tree_links(const std::int32_t* tree, int ntax, TreeLinks& links);

// Checks a parent array (vault exchange, Newick): the validity rules of the store.
[[nodiscard]] bool tree_is_valid(const std::int32_t* tree, int ntax);

// Hash for the duplicate buckets; `collapsed` (per node, may be null) marks nodes that
// collapse. Rewrites tree in the relabelled form described at its definition.
[[nodiscard]] int tree_hash(std::int32_t* tree, int ntax, const std::uint8_t* collapsed);
// Cell-by-cell equality of two trees rewritten by tree_hash.
[[nodiscard]] bool trees_equal_collapsed(const std::int32_t* a, const std::int32_t* b, int ntax) noexcept;
void tree_buckets_clear();
// Adds the tree as row `index` of the store to its bucket.
void tree_bucket_enter(int index, int bucket, double score);
// Searches the bucket for a tree equal to `hashed` (rewritten by tree_hash) of a score
// within tolerance; `any_score` compares all scores up to score + tolerance.
[[nodiscard]] int tree_bucket_find(const std::int32_t* hashed, int bucket, double score, bool any_score);

// Re-roots so that x is a child of the root. Returns false when x is absent.
bool tree_reroot(std::int32_t* tree, int ntax, int x);
// With x in a basal polytomy: x alone at the base, the rest under a new node.
bool tree_reroot_resolve(std::int32_t* tree, int ntax, int x);
// Removes the flagged terminals; fails "Cannot delete all terminals from a tree".
void tree_prune(std::int32_t* tree, int ntax, const std::vector<std::uint8_t>& remove);
// Builds a random tree (absent inactive taxa) with polytomy probability percent and
// at most maxpoly descendants a node; `order` is the taxon order to add.
void random_tree(std::int32_t* tree, int ntax, const std::vector<int>& order, int poly_percent, int maxpoly);

// Re-roots every stored tree on the outgroup (the outgroup command calls it).
void tree_store_reroot_all(int outgroup);
// Installs the hooks by which the data set and the list reader reach the trees
// (outgroup re-rooting, "@T N" in taxon lists, xread +, naked [ and ]). Called once
// at start-up.
void install_dataset_links();

// --- Services of the higher layers ----------------------------------------------
// Collapsing, constraints and scoring live above the trees; the program installs them at
// start-up. A null entry means the service is missing, and the commands that need it fail.
struct TreeServices {
  // Collapsed form of a tree under the current rule (rule -1), renumbered canonically.
  int (*collapsed_copy)(const std::int32_t* tree, std::vector<std::int32_t>& out, int rule) = nullptr;
  // True when constraints are defined (force).
  bool (*constraints_defined)() = nullptr;
  // Number of constraint groups a stored tree violates.
  int (*violations)(const std::int32_t* tree, int ntax) = nullptr;
  // Makes the packed matrix current, so that character_steps can be called.
  void (*prepare_scoring)() = nullptr;
  // Unweighted steps of each character on a parent array (-1: not scored).
  void (*character_steps)(const std::vector<int>& parent, std::vector<int>& steps) = nullptr;
};
extern TreeServices tree_services;

// Weighted length of stored tree k (fails by error_exit when scoring is not installed);
// prepare_scoring must have been called in the same command.
[[nodiscard]] double stored_tree_length(int k);
// Fails "No constraints defined" (or `message`) unless constraints exist.
void require_constraints(const char* message);

// --- Tree groups ---------------------------------------------------------------
// Group for the trees a command makes: "=N" or ">N" first argument, else auto-grouping.
// Returns the group (-1 none); *add is set for ">N". Wipes the group when not adding.
int read_group_argument(const char* result_name, bool* add = nullptr);
void group_set_bit(int tree, int group);
// The next group of the auto-grouping (-1 when off), wiped and named.
int take_auto_group(const char* result_name);
void group_wipe(int group);

// --- Tree lists ----------------------------------------------------------------
// Reads a list of trees (numbers, ranges, groups, "/" the last tree if slash_last),
// flags sized ntrees. Returns number named.
int read_tree_list(std::vector<std::uint8_t>& flags, bool slash_last);
// The selection of one "=N", ">N" or "<N" of tgroup (trees, groups, len=, nod=, siz=,
// mono, *R, /Z); flags sized ntrees, 1 for the trees selected.
void read_group_selection(std::vector<std::uint8_t>& flags);

// Commands.
void cmd_hold();
void cmd_keep();
void cmd_tchoose();
void cmd_tsize();
void cmd_tnodes();
void cmd_unique();
void cmd_tequal();
void cmd_sort();
void cmd_randtrees();
void cmd_reroot();
void cmd_tvault();
void cmd_tgroup();
void cmd_tread();
void cmd_tsave();
void cmd_save();
void cmd_shortread();
void cmd_tplot();
void cmd_absincl();

}  // namespace qax::trees
