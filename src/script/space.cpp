// Cells, names and strings of the macro language.
#include "script/space.h"

#include <cctype>
#include <cmath>
#include <cstdio>
#include <cstring>

#include "shell/failure.h"
#include "shell/input.h"
#include "shell/output.h"
#include "shell/state.h"

namespace qax::script {

using namespace qax::shell;

MacroSpace space;

int clamp_int(double v) {
  if (!(v == v)) return 0;
  if (v >= 2147483647.0) return 2147483647;
  if (v <= -2147483648.0) return -2147483647 - 1;
  return static_cast<int>(v);
}

long long clamp_ll(double v) {
  if (!(v == v)) return 0;
  if (v >= 9.2e18) return 9200000000000000000LL;
  if (v <= -9.2e18) return -9200000000000000000LL;
  return static_cast<long long>(v);
}

void reset_space() { space = MacroSpace(); }

void allocate_space() {
  space.cells.assign(space.max_vars, 0.0);
  space.names.clear();
  space.levels.assign(input_max_levels() + 2, LevelVars());
  space.text_bytes = 0;
  const std::size_t fixed = static_cast<std::size_t>(space.max_vars) *
                            ((space.float_mode ? 8 : 4) + sizeof(void*) +
                             (space.protection ? 1 + 4 * max_dims : 0)) +
                            static_cast<std::size_t>(space.max_loops) * 64;
  if (space.block_bytes < fixed + 1000) space.block_bytes = fixed + 1000;
  space.allocated = 1;
}

std::size_t space_used_bytes() {
  std::size_t used = static_cast<std::size_t>(space.max_vars) *
                     ((space.float_mode ? 8 : 4) + sizeof(void*) +
                      (space.protection ? 1 + 4 * max_dims : 0)) +
                     static_cast<std::size_t>(space.max_loops) * 64 + space.text_bytes;
  for (const auto& n : space.names) used += n.name.size() + 1;
  return used;
}

int current_shift() {
  const int level = input_level();
  if (level < static_cast<int>(space.levels.size())) return space.levels[level].shift;
  return 0;
}

void check_cell(long long cell) {
  if (cell < 0) error_exit({"No variable number", number_text(static_cast<int>(cell))});
  if (cell >= space.max_vars) error_exit({"Only", number_text(space.max_vars), "variables available"});
}

int numbered_cell(double number) {
  long long cell = clamp_ll(number) + current_shift();
  check_cell(cell);
  return static_cast<int>(cell);
}

double cell_value(int cell) {
  check_cell(cell);
  return space.cells[cell];
}

void set_cell(int cell, double value) {
  check_cell(cell);
  if (!space.float_mode) {
    // Integer cells keep 32-bit values.
    value = clamp_int(value);
  }
  space.cells[cell] = value;
  const int level = input_level();
  if (level < static_cast<int>(space.levels.size()) && cell > space.levels[level].highest_set) {
    space.levels[level].highest_set = cell;
  }
}

const NamedVar* find_name(const std::string& name) {
  for (auto it = space.names.rbegin(); it != space.names.rend(); ++it) {
    if (it->name == name) return &*it;
  }
  return nullptr;
}

NamedVar* find_name_at_cell(int cell) {
  for (auto it = space.names.rbegin(); it != space.names.rend(); ++it) {
    if (it->cell == cell) return &*it;
  }
  return nullptr;
}

int next_free_cell() {
  int next = 0;
  for (const auto& n : space.names) next = std::max(next, n.cell + n.size);
  const int level = input_level();
  if (level < static_cast<int>(space.levels.size())) {
    next = std::max(next, space.levels[level].shift + space.levels[level].private_count);
  }
  return next;
}

void check_variable_name(const std::string& name) {
  if (name.empty() || !std::isalpha(static_cast<unsigned char>(name[0]))) {
    error_exit("Variable names must start with a letter (missing comma?)");
  }
  if (static_cast<int>(name.size()) > max_var_name) error_exit("Variable name too long (max. 50 chars.)");
}

namespace {

// Cells an array of these extents takes: index cells of every level, then the data.
long long array_cells(int dims, const int* extent) {
  long long total = 0, rows = 1;
  for (int d = 0; d < dims; ++d) {
    rows *= extent[d];
    total += rows;
    if (total > 100000000) return total;
  }
  return total;
}

// Fills the index cells of an array at `base`: each cell of a non-final level holds the
// cell where its sub-array starts.
void lay_out_array(int base, int dims, const int* extent) {
  long long level_start = base, count = 1;
  for (int d = 0; d + 1 < dims; ++d) {
    count *= extent[d];
    const long long next_start = level_start + count;
    for (long long i = 0; i < count; ++i) {
      space.cells[level_start + i] = static_cast<double>(next_start + i * extent[d + 1]);
    }
    level_start = next_start;
  }
}

}  // namespace

void name_variable(const std::string& name, int cell, int dims, const int* extent) {
  check_variable_name(name);
  check_cell(cell);
  NamedVar v;
  v.name = name;
  v.cell = cell;
  v.dims = dims;
  v.level = input_level();
  long long size = 1;
  if (dims > 0) {
    for (int d = 0; d < dims; ++d) {
      if (extent[d] < 1) error_exit("Must specify dimension");
      v.extent[d] = extent[d];
    }
    size = array_cells(dims, extent);
    if (cell + size > space.max_vars) {
      std::string ext;
      for (int d = 0; d < dims; ++d) ext += (d ? " " : "") + number_text(extent[d]);
      error_exitf("A [%s] array uses %lli cells (%i of %i available)", ext.c_str(), size,
                  space.max_vars - cell, space.max_vars);
    }
  }
  v.size = static_cast<int>(size);
  if (NamedVar* old = find_name_at_cell(cell)) {
    if (old->name != name) error_exit({"Can't rename variables:", old->name});
    if (space.protection >= 2 && old->dims > 1) {
      bool same = old->dims == dims;
      for (int d = 0; same && d < dims; ++d) same = old->extent[d] == extent[d];
      if (!same) error_exit("Cannot re-set array under protection mode 2");
    }
    *old = v;
  } else {
    space.names.push_back(v);
  }
  if (dims > 1) lay_out_array(cell, dims, extent);
}

int subscript_cell(int base, const NamedVar* var, const int* index, int count) {
  if (var && space.protection >= 1 && var->dims > 0 && count > var->dims) {
    error_exit({"Variable", var->name, "has only", number_text(var->dims), "dimensions"});
  }
  long long cell = base;
  for (int d = 0; d < count; ++d) {
    if (var && space.protection >= 1 && d < var->dims &&
        (index[d] < 0 || index[d] >= var->extent[d])) {
      error_exitf("Variable %i has only %i values (0-%i) for dimension %i", var->cell,
                  var->extent[d], var->extent[d] - 1, d);
    }
    if (d > 0) {
      check_cell(cell);
      cell = clamp_ll(space.cells[cell]);
    }
    cell += index[d];
  }
  check_cell(cell);
  return static_cast<int>(cell);
}

std::string value_text(double v) {
  char buf[64];
  if (std::fabs(v) < 9.2e18 && v == std::trunc(v)) {
    std::snprintf(buf, sizeof buf, "%lli", static_cast<long long>(v));
  } else if (space.exponential) {
    std::snprintf(buf, sizeof buf, "%e", v);
  } else if (space.decimals < 0) {
    std::snprintf(buf, sizeof buf, "%f", v);
  } else {
    std::snprintf(buf, sizeof buf, "%.*f", space.decimals, v);
  }
  return buf;
}

void store_string(int cell, const std::string& text) {
  if (static_cast<int>(text.size()) > max_string_chars) {
    error_exit({"String too long (it exceeds variable", number_text(cell) + ")"});
  }
  const int cells = static_cast<int>(text.size()) / 4 + 1;
  check_cell(cell);
  if (cell + cells > space.max_vars) {
    error_exit({"String too long (it exceeds variable", number_text(space.max_vars - 1) + ")"});
  }
  for (int i = 0; i < cells; ++i) {
    std::uint32_t packed = 0;
    for (int b = 0; b < 4; ++b) {
      const std::size_t at = static_cast<std::size_t>(i) * 4 + b;
      const unsigned char ch = at < text.size() ? static_cast<unsigned char>(text[at]) : 0;
      packed |= static_cast<std::uint32_t>(ch) << (8 * b);
    }
    space.cells[cell + i] = static_cast<double>(packed);
  }
  if (switches.macreport) {
    out_line({"Copied string into user vars.", number_text(cell) + "-" + number_text(cell + cells - 1),
              "(" + number_text(cells) + " cells)"});
  }
}

std::string string_at(int cell) {
  std::string s;
  for (int i = cell; i >= 0 && i < space.max_vars && static_cast<int>(s.size()) < max_string_chars; ++i) {
    const double v = space.cells[i];
    if (!(v >= 0 && v <= 4294967295.0)) break;
    const std::uint32_t packed = static_cast<std::uint32_t>(v);
    for (int b = 0; b < 4; ++b) {
      const char ch = static_cast<char>((packed >> (8 * b)) & 0xff);
      if (!ch) return s;
      s.push_back(ch);
    }
  }
  return s;
}

int macro_random() {
  space.random_state = space.random_state * 1103515245u + 12345u;
  return static_cast<int>((space.random_state >> 16) & 0x7fff);
}

void seed_macro_random(unsigned seed) {
  space.seed = seed;
  space.random_state = seed;
}

}  // namespace qax::script
