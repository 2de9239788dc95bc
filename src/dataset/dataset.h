// The data set in memory: taxa by characters, one cell per taxon and character, plus
// one record of settings per character. Cells are state sets (bit i = state i; all ones
// of the cell width = missing) stored in rows of cell_width bytes in the arena, under the
// lock region_tags.data_matrix; reading a new matrix releases that lock, which releases
// every later lock (trees, packing) too, and calls the on_dataset_replaced hooks.
//
// Taxon names as xread reads them: a name is a run of characters other than blanks
// (codes below 33), ';', '[' and '&' (a '[' or '&' ends the name). '+', '-' and '/' are
// changed to '_'. Names longer than name_length are cut. A name ending in "..." is a
// wildcard (every taxon beginning with the text before the dots receives the row), and
// "____" marks the end of the significant part of a name (compared up to there only).
// Quoted names are not recognised: converters must write names without blanks or quotes.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace qax::dataset {

enum DataFormat : std::uint8_t {
  format_numeric = 1, format_dna = 2, format_protein = 4, format_continuous = 8, format_landmark = 16,
};

constexpr int max_states = 32;                       // absolute limit on states
constexpr int group_count = 32;                      // taxon and character groups
constexpr std::uint32_t continuous_missing = 0xFFFF0000u;       // min 0, max 65535
constexpr std::uint32_t continuous_inapplicable = 0xFFFE0000u;  // min 0, max 65534

struct CharacterRecord {
  std::uint32_t states_seen = 1000000;  // states scored in any taxon
  std::int32_t aux = 0;                 // spare integer
  std::int32_t sankoff_max = 1;         // largest possible Sankoff cost
  std::int32_t max_steps = 0;           // maximum possible steps on any tree
  std::int32_t weighted_max = 0;        // working copy under implied weights
  std::int32_t min_steps = 0;           // minimum possible steps
  std::int32_t weight = 1;              // user's weight, 1 to 1000
  std::int32_t prev_weight = 0;         // working copy
  std::int32_t pack_weight = 0;         // weight used by the last packing
  double sank_min_cont = 0;             // implied-weight working value
  double min_cont = -1.0;               // minimum length of a continuous character
  double max_cont = -1.0;               // maximum length of a continuous character
  std::int32_t num_states = 0;          // states from 0 up to the highest scored
  std::uint8_t format = format_numeric; // DataFormat
  std::uint8_t is_continuous = 0;       // continuous or landmark
  std::uint8_t active = 1;              // 1 active
  std::uint8_t additive = 0;            // 1 additive (ordered)
  std::uint8_t sankoff = 0;             // 0 no, 1 cost table, 2 reducible
  std::uint8_t tree_binary = 0;         // character-state tree in binary variables
  std::uint8_t asymmetric = 0;          // cost table not symmetric
  std::uint8_t binary_pair = 0;         // working flag
  std::uint8_t ancestral = 0;           // ancstates marked the outgroup state
  std::uint8_t dirty = 1;               // min and max steps must be recomputed
  std::uint8_t scratch = 0;             // working byte
  std::int32_t internal_steps = 0;      // extra steps added by ccode =N
  std::int32_t block = 0;               // data block, from 0
};

// Original scale of a continuous character: stored = (value - shift*1000) * factor.
struct ScaleRecord {
  double factor = 1.0;  // 1.0 when the values were not rescaled
  double shift = 0.0;   // original minimum / 1000
  double log_base = 0;  // reserved for the logarithm of lstand
};

// One landmark configuration as read: per taxon the coordinates in reading order
// (dims per point); an empty vector is a missing configuration.
struct LandmarkConfig {
  int character = 0;                            // column in the matrix
  int dims = 2;                                 // 2 or 3
  std::vector<std::vector<double>> points;      // [taxon] x,y(,z) ...
};

struct Dataset {
  int loaded = 0;                               // a matrix is in memory
  int ntax = 0;                                 // taxa
  int nchar = 0;                                // characters
  int cell_width = 2;                           // bytes per cell: 1, 2 or 4
  std::vector<std::string> taxon_names;         // one per taxon
  std::vector<std::string> character_names;     // empty strings when unnamed
  std::vector<std::uint8_t> taxon_active;       // 1 active (not deactivated by taxcode)
  std::vector<CharacterRecord> chars;           // current settings
  std::vector<CharacterRecord> chars_file;      // settings as read (ccode !, ckeep)
  unsigned char* cells = nullptr;               // ntax rows of nchar cells, arena-owned
  int outgroup = 0;                             // taxon trees are rooted on
  std::string title;                            // title of the matrix, if any

  // Reading settings (kept across data sets).
  int data_format = format_numeric;             // format of the next matrix / block
  int gaps_as_missing = 1;                      // '-' in dna/protein is missing
  int exact_min = 1;                            // exact minima of polymorphic nonadditive chars
  int name_length = 32;                         // longest taxon name kept
  int state_reading_format = format_numeric;    // how commands read states (nstates /dna ...)
  int show_original_scale = 0;                  // nstates [ : show continuous values unscaled
  // Derived from the matrix.
  int nblocks = 1;                              // data blocks
  int formats_seen = 0;                         // OR of the formats read
  std::vector<std::string> block_names;         // empty when no block is named
  std::vector<int> name_significant;            // compared length of each taxon name
  std::vector<ScaleRecord> scales;              // one per leading continuous character
  std::vector<LandmarkConfig> landmarks;        // configurations in reading order
  std::vector<std::vector<std::string>> state_names;  // per character, by cnames
  std::vector<std::uint32_t> taxon_groups;      // per taxon, bit g = in group g
  std::vector<std::uint32_t> character_groups;  // per character, bit g = in group g
  std::vector<std::string> taxon_group_names;   // 32 names
  std::vector<std::string> character_group_names;  // 32 names
  std::uint32_t symbols[256] = {};              // symbol table: code -> state set

  // Raw state set of a cell, widened; missing is all ones of cell_width.
  std::uint32_t cell(int taxon, int character) const noexcept {
    std::size_t i = static_cast<std::size_t>(taxon) * nchar + character;
    switch (cell_width) {
      case 1: return cells[i];
      case 2: { std::uint16_t v; std::memcpy(&v, cells + 2 * i, 2); return v; }
      default: { std::uint32_t v; std::memcpy(&v, cells + 4 * i, 4); return v; }
    }
  }
  void set_cell(int taxon, int character, std::uint32_t value) noexcept {
    std::size_t i = static_cast<std::size_t>(taxon) * nchar + character;
    switch (cell_width) {
      case 1: cells[i] = static_cast<unsigned char>(value); break;
      case 2: { auto v = static_cast<std::uint16_t>(value); std::memcpy(cells + 2 * i, &v, 2); break; }
      default: std::memcpy(cells + 4 * i, &value, 4); break;
    }
  }
  std::uint32_t missing_value() const noexcept {
    return cell_width == 4 ? 0xFFFFFFFFu : ((1u << (8 * cell_width)) - 1);
  }
};

extern Dataset dataset;

// How taxon names appear on output (taxname): read by tree output.
struct NameOutput {
  int show = 0;          // taxname = : names instead of numbers on trees
  int truncate = 0;      // taxname [N : at most N letters on output, 0 no limit
  int species_only = 0;  // taxname [! : only the text before '@' or "____"
};
extern NameOutput name_output;

// Subsystems holding anything derived from the matrix (trees, packing) register here;
// the hooks run whenever the matrix is replaced or wiped.
using DatasetHook = void (*)();
void add_dataset_replaced_hook(DatasetHook hook);

// Hooks that the tree layer installs at start-up (the data set cannot see the trees).
struct TreeLinkHooks {
  void (*outgroup_changed)(int outgroup) = nullptr;  // re-roots the stored trees
  void (*generate_from_tree)() = nullptr;            // xread +T P C N, positioned after '+'
  // xread <T P L, xread >L (into characters L) and xread &T C N M, after the form character.
  void (*generate_into_characters)(int form) = nullptr;
  void (*matrix_read)() = nullptr;                   // a matrix was read (trees of its file follow)
  // Down-pass state sets of discrete character c at every node of tree 0 (data set
  // numbering, 0 for nodes not on the tree); fails when there are no trees.
  void (*downpass_sets)(int c, std::vector<std::uint32_t>& sets) = nullptr;
};
extern TreeLinkHooks tree_link_hooks;

// Replaces the data set by a generated ntax x nchar matrix of numeric cells for up to
// `nstates` states (the cell width follows; continuous when `continuous`), taxa named
// `names`; `fill` writes the cells (all missing on entry). Fails by error_exit, leaving
// no data.
void generate_matrix(int ntax, int nchar, int nstates, bool continuous, const std::string& title,
                     const std::vector<std::string>& names, void (*fill)(Dataset& d, void* context),
                     void* context);

// Releases the matrix and everything derived from it; marks no data. Never fails.
void dataset_clear();
// Returns the data set and its reading settings to start-up values (tests, reset).
void reset_dataset_state();
// Rebuilds the symbol table for a format and cell width.
void build_symbol_table(int format, int width);
// Recomputes states_seen, num_states, min_steps and max_steps of dirty characters.
void minmax_check();
// Minimum steps of a nonadditive character over all trees, exact (small set cover).
int exact_min_steps(const std::uint32_t* cells, int count, std::uint32_t missing);
// Fails with "Must read data first" style message when no matrix is in memory.
void require_data();
// Text of a state set in the output alphabet of the character ("[01]", "?", "A").
std::string state_text(int character, std::uint32_t value);

}  // namespace qax::dataset
