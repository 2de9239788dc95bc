// Shared between the files of the search: the one engine, and the store of trees found with
// its duplicate table.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "search/engine.h"

namespace qax::search {

// The engine sized for the current pack (re-sized when the pack changed), or, while a
// sector's reduced data are searched, the sector's own engine.
Engine& engine();
extern Engine* engine_override;
// Re-reads the terminal sets (after packing).
void engine_refresh();

// Duplicate table over the rows of the tree store; rebuilt from the store by store_begin.
void store_begin();
// Trees are compared as collapsed under the collapsing rule in force (rule 0: as they
// are); under rule 1 and stricter rules a duplicate must also have the same score.
// Index of a stored tree equal to `tree` (canonical), -1 none.
int store_find(const std::vector<std::int32_t>& tree, double score);
// Stores the tree, binary as it is, unless a duplicate is present; returns the row or -1
// for a duplicate.
int store_add(std::vector<std::int32_t>& tree, double score);
// Drops rows from `first` on whose score is above `bound`, keeping order; returns the new
// index of row `keep` (-1 when dropped).
int store_discard_above(int first, double bound, int keep);

// Keeps one tree of each collapsed form, the first of lowest score; returns how many went.
int store_drop_collapsed_duplicates();

}  // namespace qax::search

namespace qax::search {
// Swappers with the store slot of the tree in swap (-1 none; updated) and whether the
// score went down.
double swap_tbr_slot(std::vector<std::int32_t>& parent, int first, int mode, int limit, int* slot, bool* improved);
double swap_spr_slot(std::vector<std::int32_t>& parent, int first, int mode, int limit, int* slot, bool* improved);
// A receiver of the moves the swappers examine, for commands that study moves without
// taking them. While one is installed the swappers make no move and store nothing: for
// each clip, every move of cost up to base + suboptimal goes to the hook with the clip's
// base cost and the tree's score; the tree in the engine is the tree being swapped (a hook
// that applies a move to look at it puts the topology back). Returning true abandons the
// tree. Null: the swappers store and take moves themselves.
using SwapHookFn = bool (*)(Engine& e, const std::vector<Move>& records, std::int32_t base, double score);
extern SwapHookFn swap_hook;
// Set by mult around the TBR of a replication whose SPR phase was skipped, with `preproc`
// on: the swapper first costs every clip and takes them in the order of their gains.
extern bool preproc_pass;
// Checking of the Wagner build's node clusters, for tests: when not negative, each insertion
// under clusters checks that every region's union covers its members' branch sets, and
// that every branch has a region, adding 1 here for each failure.
extern int wagner_region_faults;
// Shared by the search commands: option numbers and words, the packing and counters at the
// start of a search, the seed of a command (time when the seed is 0), group tags of the
// trees found, and the "search running" mark for interrupts.
int option_number(int missing);
std::string read_option_word();
void search_prepare();
// Reads the forms of a settings command: "name;" runs, "name=options;" sets and runs,
// "name:options;" only sets, "name:;" reports. Each option word goes to `option` (word,
// set only), which reads what follows it; an unknown word fails with `unknown_format`, and
// any failure puts the settings back through `undo`. Returns true when the command runs.
bool read_settings_command(const char* name, const char* unknown_format,
                           const std::function<bool(const std::string&, bool)>& option,
                           const std::function<void()>& report, const std::function<void()>& undo);
std::uint32_t command_seed();
// Loads stored tree k into the engine; polytomies are resolved first (arbitrarily) and the
// resolved tree replaces the stored one. False when the tree lacks active taxa.
bool load_for_swapping(Engine& e, int k);
// Group tag of the trees found; condenses them first when automatic collapsing is on.
void tag_search_trees(const char* name);
struct SearchRunning {
  SearchRunning();
  ~SearchRunning();
  SearchRunning(const SearchRunning&) = delete;
  SearchRunning& operator=(const SearchRunning&) = delete;
};
// Relative fit difference between the tree with the clip where it is (clip_now joined to
// target_now) and with the move (clip_new joined to target_new): (F - C) / F, F the
// weighted steps saved by characters that favour the present tree, C by those that favour
// the move. Packed fields count as characters.
double move_rfd(const std::uint32_t* clip_now, const std::uint32_t* target_now, const std::uint32_t* clip_new,
                const std::uint32_t* target_new);
// The loop of the ratchet and drift: `perturb(iteration, tree)` then TBR, `iterations`
// times; with first >= 0 the trees of best score go into the store from `first` on (up to
// `limit`) and each iteration starts from the best tree so far, with first < 0 from the tree
// of the last one. Stops at `findscore` (when above 0), on interrupt, or when perturb
// returns false. Returns the best score and leaves the best tree in `tree`.
// Fusing of the trees of the iterations every `fusefreq` iterations (and at the last one),
// `fuserounds` rounds when 3 or more trees came in since the last fusing; a failed fusing
// drops the suboptimal trees with `dumpfuse`. Every `autoconst` iterations (and at the
// last one) the iteration runs constrained by the groups shared by the best tree and the
// tree of the iteration before.
struct PerturbExtras {
  int fusefreq = 0;
  int fuserounds = 3;
  int dumpfuse = 1;
  int autoconst = 0;
};
double perturb_search(std::vector<std::int32_t>& tree, int first, int limit, int iterations, int* iterations_done,
                      int findscore, int status, const char* label,
                      const std::function<bool(int, std::vector<std::int32_t>&)>& perturb,
                      const PerturbExtras& extras = PerturbExtras{});
// The ratchet and drift commands: TBR on the best tree in memory, then `run` from it
// (tree, seed, iterations done); the store ends with the trees of best score, under the
// group tag `tag`, and the end report.
void run_from_best_tree(const char* tag, const char* completed_format,
                        const std::function<double(std::vector<std::int32_t>&, std::uint32_t, int*)>& run);
// Options shared by the ratchet and drift; the words name what the messages count.
struct PerturbOptions {
  int* iterations;
  int* numsubs;
  int* equals;
  int* giveup;
  int* findscore;
  int* dumpfuse;
  int* fusefreq;
  int* fuserounds;
  int* autoconst;
  const char* cycles;          // "ratchet iterations"
  const char* substitutions;   // "ratchet substitutions"
  const char* subject;         // "ratchet"
};
bool shared_perturb_option(const std::string& w, const PerturbOptions& o);
// A percentage after an option (0 to 100); a count up to max ("Give number of <what>").
int read_percent();
int read_count(int max, const char* too_many, const char* what);
// Score as printed: whole numbers without decimals.
std::string search_score_text(double s);
}  // namespace qax::search

#include "search/constraints.h"

namespace qax::search {
// Autoconstraints: the groups two trees share (data set parent arrays) become positive
// constraints, with the user's constraints, until clear() or the end of the scope.
struct AutoConstraint {
  ConstraintDefs saved;
  bool on = false;
  void set(const std::vector<std::int32_t>& a, const std::vector<std::int32_t>& b);
  void clear();
  AutoConstraint() = default;
  AutoConstraint(const AutoConstraint&) = delete;
  AutoConstraint& operator=(const AutoConstraint&) = delete;
  ~AutoConstraint() { clear(); }
};
}  // namespace qax::search

namespace qax::search {
// Step-matrix or continuous columns in the data (as packed, when a pack is present).
bool has_wide_data();
}  // namespace qax::search

#include <cstring>

namespace qax::search {
// Copies and fills that accept empty ranges (a data set may have no columns of a class,
// and the tables of an empty class have no storage).
inline void copy_bytes(void* to, const void* from, std::size_t n) {
  if (n) std::memcpy(to, from, n);
}
inline void fill_bytes(void* to, int value, std::size_t n) {
  if (n) std::memset(to, value, n);
}
}  // namespace qax::search
