// Pieces shared by the files of resample: the loop of replicates, the groups of a tree as
// bit rows, and the option readers.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "support/group_set.h"
#include "support/resample.h"

namespace qax::support {

// Runs the replicates: perturbed weights, the search text, the strict consensus of the
// trees found (user: taxa left out of the consensus). Returns true when the run was
// interrupted (the replicates done are kept). The store is left empty; weights, seed and
// output are given back on every exit. `changed`/`unchanged` (may be null) receive per
// replicate the characters whose weight changed and those left as they were.
bool run_replicates(const ResampleSettings& s, int probability, const std::vector<std::uint8_t>& user,
                    const std::string& label, std::vector<std::vector<std::int32_t>>& replicates,
                    std::vector<int>* changed = nullptr, std::vector<int>* unchanged = nullptr);
// The internal step after each replicate's text; false when no run is going on.
bool finish_replicate_step();
// True while a resampling run is going on.
[[nodiscard]] bool resampling_running();

// True when some active character is a landmark configuration.
[[nodiscard]] bool landmarks_active();

// Groups of a tree as rows of included terminals (trivial ones left out), and tests on
// lists of them.
using GroupRow = std::vector<std::uint64_t>;
std::vector<GroupRow> tree_groups(const std::int32_t* tree, const std::vector<std::uint8_t>& excluded, int included,
                                  NodeSets& ns);
[[nodiscard]] bool contains(const std::vector<GroupRow>& set, const GroupRow& g);
[[nodiscard]] bool conflicts_any(const std::vector<GroupRow>& set, const GroupRow& g);

// Option readers: a word that is a prefix of `full`; a number or the message; the text
// between brackets (the opening one already read).
[[nodiscard]] bool word_is(const std::string& w, const char* full);
int read_option_number(const char* message);
std::string read_search_text();

// resample sibyl, its options following.
void run_sibyl();

}  // namespace qax::support
