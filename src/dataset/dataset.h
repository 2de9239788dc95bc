// The data set in memory: taxa by characters, one cell per taxon and character, plus
// one record of settings per character. Cells are state sets (bit i = state i; all ones
// of the cell width = missing) stored in rows of cell_width bytes in the arena.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace qax::dataset {

enum DataFormat : std::uint8_t {
  format_numeric = 1, format_dna = 2, format_protein = 4, format_continuous = 8, format_landmark = 16,
};

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

  // Raw state set of a cell, widened; missing is all ones of cell_width.
  std::uint32_t cell(int taxon, int character) const noexcept {
    std::size_t i = static_cast<std::size_t>(taxon) * nchar + character;
    switch (cell_width) {
      case 1: return cells[i];
      case 2: return reinterpret_cast<const std::uint16_t*>(cells)[i];
      default: return reinterpret_cast<const std::uint32_t*>(cells)[i];
    }
  }
  std::uint32_t missing_value() const noexcept {
    return cell_width == 4 ? 0xFFFFFFFFu : ((1u << (8 * cell_width)) - 1);
  }
};

extern Dataset dataset;

}  // namespace qax::dataset
