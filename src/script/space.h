// The variables of the macro language: numbered cells, names, array shapes, strings,
// per-level shifts, and the macro random numbers. All state of scripts that outlives a
// command lives here, apart from the loops (reader.h).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace qax::script {

constexpr int max_dims = 5;
constexpr int max_string_chars = 8499;
constexpr int max_var_name = 50;

struct NamedVar {
  std::string name;
  int cell = 0;           // base cell
  int size = 1;           // cells used, index cells included
  int dims = 0;           // 0 for a scalar
  int extent[max_dims] = {0, 0, 0, 0, 0};
  int level = 0;          // input level that named it
};

// Per input level: the shift of numbered variables and what the level named.
struct LevelVars {
  int shift = 0;
  int private_count = 0;
  std::size_t names_at_entry = 0;
  int keep_names = 0;     // "return =": names made here survive the level
  int loop_base = 0;      // loops below this index belong to callers
  int highest_set = -1;   // highest cell given a value while reading this level
};

struct MacroSpace {
  int allocated = 0;               // macro = has laid out the block
  int max_vars = 1000;
  int max_loops = 15;
  std::size_t block_bytes = 102400;
  std::vector<double> cells;
  std::vector<NamedVar> names;     // in naming order; the last named is found first
  std::vector<LevelVars> levels;   // indexed by input level
  int protection = 2;
  int float_mode = 1;              // 0: cells hold 32-bit integers
  int decimals = -1;               // -1: "%f"
  int exponential = 0;
  int names_as_numbers = 0;        // macro +: taxon and character names in expressions
  int slash_comments_forbidden = 0;
  int add_blank = 0;               // set +
  unsigned seed = 1;
  std::uint32_t random_state = 1;
  double time_base = 0;
  int exstatus = 0;
  int listsize = 0;
  std::size_t text_bytes = 0;      // loop bodies and names held in the block
};

extern MacroSpace space;

// Whole numbers of user values, clamped to the range of the type (NaN gives 0), so that
// no value a script computes can overflow a conversion.
int clamp_int(double v);
long long clamp_ll(double v);

void reset_space();
void allocate_space();             // macro =
std::size_t space_used_bytes();

// Shift of numbered cells at the current input level.
int current_shift();
// Cell of a number written in the text (shift applied), checked against the table.
int numbered_cell(double number);
void check_cell(long long cell);
double cell_value(int cell);
void set_cell(int cell, double value);

// Names.
const NamedVar* find_name(const std::string& name);
NamedVar* find_name_at_cell(int cell);
int next_free_cell();
// Names `name` at cell (dims/extents may be empty); lays out index cells of arrays.
void name_variable(const std::string& name, int cell, int dims, const int* extent);
void check_variable_name(const std::string& name);

// Subscripts: cell of base[i0][i1]...; `count` subscripts.
int subscript_cell(int base, const NamedVar* var, const int* index, int count);

// Text of a value as the reader writes it: whole values as integers, others in the
// macfloat format.
std::string value_text(double v);

// Strings: four characters to a cell, ending in NUL.
void store_string(int cell, const std::string& text);
std::string string_at(int cell);

// Macro random numbers: 0..32767.
int macro_random();
void seed_macro_random(unsigned seed);

}  // namespace qax::script
