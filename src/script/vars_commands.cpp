// macro, macfloat, macseed, var, set, setarray, private, safe, resettime.
#include <cctype>
#include <cstring>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <string>

#include "script/commands.h"
#include "script/expr.h"
#include "script/reader.h"
#include "script/scan.h"
#include "script/list_store.h"
#include "script/space.h"
#include "shell/commands.h"
#include "shell/failure.h"
#include "shell/input.h"
#include "shell/output.h"
#include "shell/state.h"

namespace qax::script {

using namespace qax::shell;

namespace {

std::string kb_text(std::size_t bytes) {
  char buf[32];
  std::snprintf(buf, sizeof buf, "%i.%i", static_cast<int>(bytes / 1024),
                static_cast<int>((bytes % 1024) * 10 / 1024));
  return buf;
}

// A plain number of a setting (no expressions: the macro reader may be off).
int setting_number() {
  const int n = read_int();
  if (n < 0) error_exit("Expected a number");
  return n;
}

}  // namespace

void install_goto_hooks();
void install_expression_help();
void install_inner_words();

void install_script_layer() {
  install_reader_hooks();
  install_goto_hooks();
  install_expression_help();
  install_inner_words();
}

void reset_script_state() {
  if (shell_state.macros_on) remove_macro_reader();
  loops.clear();
  reset_space();
}

void cmd_macro() {
  macro_command_guard();
  const int c = peek_nb();
  if (c == ';') {
    const std::size_t used = space.allocated ? space_used_bytes() : 0;
    const std::size_t free = space.block_bytes > used ? space.block_bytes - used : 0;
    out_text({"Macros: ", kb_text(used), " Kb in use, ", kb_text(free), " Kb free\n"});
    return;
  }
  next_char();
  switch (c) {
    case '=':
      if (!shell_state.macros_on) {
        allocate_space();
        seed_macro_random(space.seed);
        space.time_base = now_seconds();
        install_macro_reader();
      }
      out_line({"Macro language is ON"});
      return;
    case '-':
      if (!loops.empty()) error_exit("Can't disconnect macros from within a loop!");
      remove_macro_reader();
      space.cells.clear();
      space.names.clear();
      space.allocated = 0;
      out_line({"Macro language is OFF"});
      return;
    case '*': {
      if (peek_nb() != ';') {
        const int k = setting_number();
        int n = space.max_vars;
        if (peek_nb() != ';') n = setting_number();
        if (k < 1 || n < 1) error_exit("Number of loops and variables must be positive");
        if (shell_state.macros_on && !loops.empty()) error_exit("Can't disconnect macros from within a loop!");
        if (space.allocated) space.cells.resize(n, 0.0);  // may fail for lack of memory: nothing changed then
        space.max_loops = k;
        space.max_vars = n;
      }
      out_line({"Max. loops:", number_text(space.max_loops) + ", max. variables:", number_text(space.max_vars)});
      return;
    }
    case '[': {
      if (peek_nb() != ';') {
        const int n = setting_number();
        space.block_bytes = static_cast<std::size_t>(n) * 1000 + 16;
        if (space.allocated) {
          const std::size_t need = space_used_bytes() + 1000;
          if (space.block_bytes < need) space.block_bytes = need;
        }
      }
      const std::size_t used = space.allocated ? space_used_bytes() : 0;
      char buf[160];
      std::snprintf(buf, sizeof buf, "RAM for macros is %i KBytes (%i%% is in use)",
                    static_cast<int>(space.block_bytes / 1000),
                    static_cast<int>(used * 100 / std::max<std::size_t>(space.block_bytes, 1)));
      out_line({buf});
      return;
    }
    case '+':
      space.names_as_numbers = 1;
      out_line({"Taxon and character names are read as numbers in expressions"});
      return;
    case '!':
      space.names_as_numbers = 0;
      out_line({"Taxon and character names are not read in expressions"});
      return;
    case '&': {
      const int n = setting_number();
      space.slash_comments_forbidden = n ? 1 : 0;
      out_line({n ? "Comments with double slash (\"// comment...\") are not allowed"
                  : "Comments with double slash (\"// comment...\") are allowed"});
      return;
    }
    default:
      break;
  }
  unread_char();
  read_command_word();
  if (std::string(token_buffer) == "prot") {
    if (peek_nb() != ';') {
      if (shell_state.macros_on) error_exit("Protection must be set with macros turned off");
      const int n = setting_number();
      if (n > 2) error_exit("Protection mode must be 0, 1 or 2");
      space.protection = n;
    }
    out_line({"Protection mode for macros is", number_text(space.protection)});
    return;
  }
  error_exit({"Unrecognized option for macro:", token_buffer});
}

void cmd_macfloat() {
  // Integer cells are chosen before macros are switched on, so this one command works
  // with macros off too.
  if (typed_command_word() != "macfloat") error_exit({"Unknown command:", typed_command_word()});
  const int c = peek_nb();
  if (c == '=' || c == '-') {
    next_char();
    if (shell_state.macros_on) error_exit("Cannot change setting of integer only with macros ON");
    space.float_mode = c == '=' ? 1 : 0;
    out_line({space.float_mode ? "Floating point calculations" : "Integer calculations only"});
    return;
  }
  if (c == 'e') {
    next_char();
    space.exponential = 1;
    out_line({"Floating point printing uses exponential notation"});
    return;
  }
  if (c == '*') {
    next_char();
    space.exponential = 0;
    space.decimals = -1;
    out_line({"Floating point printing uses default format"});
    return;
  }
  if (c != ';') {
    const int n = read_int_expr();
    if (n < 0 || n > 20) error_exit("Number of digits must be 0 to 20");
    space.decimals = n;
    space.exponential = 0;
  }
  out_line({"Floating point printing uses", number_text(space.decimals < 0 ? 6 : space.decimals), "digits"});
}

void cmd_macseed() {
  macro_command_guard();
  if (peek_nb() != ';') {
    int n = read_int_expr();
    if (n == 0) {
      if (shell_state.worker_mode) error_exit("Random seed for macros can't be set to 0 (=time) in slaves");
      n = static_cast<int>(std::time(nullptr));
    }
    seed_macro_random(static_cast<unsigned>(n));
  }
  out_line({"Current seed for Macros is", number_text(static_cast<int>(space.seed))});
}

namespace {

void report_variable(int cell) {
  const NamedVar* var = find_name_at_cell(cell);
  std::string label = "Var. " + number_text(cell - current_shift());
  if (var) label += " (" + var->name + ")";
  if (var && var->dims > 0) {
    // Arrays row by row: the data cells of the last dimension.
    int rows = 1;
    for (int d = 0; d + 1 < var->dims; ++d) rows *= var->extent[d];
    const int width = var->extent[var->dims - 1];
    const int first_data = var->cell + var->size - rows * width;
    out_line({label + ":"});
    for (int r = 0; r < rows; ++r) {
      std::string line = "   ";
      for (int k = 0; k < width; ++k) line += " " + value_text(space.cells[first_data + r * width + k]);
      out_line({line});
    }
    return;
  }
  out_line({label + ":", value_text(cell_value(cell))});
}

}  // namespace

void cmd_var() {
  macro_command_guard();
  int c = peek_nb();
  if (c == ';') {
    int shown = 0;
    for (const auto& n : space.names) {
      report_variable(n.cell);
      ++shown;
    }
    out_line({number_text(shown), "variables defined"});
    return;
  }
  if (c == '/') {
    next_char();
    const int cell = read_cell();
    const std::uint32_t bits = static_cast<std::uint32_t>(clamp_ll(cell_value(cell)) & 0xffffffffLL);
    std::string s = "{ ";
    for (int b = 0; b < 30; ++b) if (bits & (1u << b)) s += number_text(b) + " ";
    s += "}";
    out_line({"Var.", number_text(cell - current_shift()) + ":", s});
    return;
  }
  if (c == '=') {
    next_char();
    int cell;
    if (peek_nb() == '+') {
      next_char();
      cell = next_free_cell();
    } else {
      cell = numbered_cell(read_int_expr());
    }
    if (cell < current_shift() && input_level() > 0 && find_name_at_cell(cell) == nullptr &&
        cell < space.levels[input_level()].shift) {
      error_exit("Cannot name variables which are private to other files");
    }
    next_nb();
    unread_char();
    const std::string name = read_word();
    if (is_reserved_word(name)) error_exitf("Can't use %s for a user-variable (%s is a reserved expression)", name.c_str(), name.c_str());
    name_variable(name, cell, 0, nullptr);
    return;
  }
  if (c == ':') {
    next_char();
    for (;;) {
      c = next_nb();
      if (c == ';') {
        unread_char();
        break;
      }
      if (c == ',') continue;
      unread_char();
      const std::string name = read_word();
      check_variable_name(name);
      if (is_reserved_word(name)) error_exitf("Can't use %s for a user-variable (%s is a reserved expression)", name.c_str(), name.c_str());
      int extent[max_dims] = {0, 0, 0, 0, 0};
      int dims = 0;
      if (next_char() == '[') {
        for (;;) {
          c = next_nb();
          if (c == ']') break;
          if (c == ';' || c == 0) {
            unread_char();
            error_exit("Need closing brackets");
          }
          if (c == ',') continue;
          unread_char();
          if (dims >= max_dims) error_exit({"Variables cannot have more than", "5", "dimensions"});
          extent[dims++] = read_int_expr();
        }
      } else {
        unread_char();
      }
      // A name already in use at this level is re-shaped in place.
      const NamedVar* old = find_name(name);
      const int cell = old && old->level == input_level() ? old->cell : next_free_cell();
      name_variable(name, cell, dims, extent);
    }
    return;
  }
  if (c == '-') {
    next_char();
    if (peek_nb() == ';') {
      std::vector<NamedVar> kept;
      for (auto& n : space.names) if (n.level != input_level()) kept.push_back(n);
      space.names.swap(kept);
      return;
    }
    const int above = numbered_cell(read_int_expr());
    std::vector<NamedVar> kept;
    for (auto& n : space.names) if (n.cell <= above) kept.push_back(n);
    space.names.swap(kept);
    return;
  }
  if (c == '+' || c == '|' || c == '!' || c == '\\' || c == '&') {
    error_exit("Plotting of variables is not available yet in this version");
  }
  while (peek_nb() != ';') {
    report_variable(read_cell());
    if (peek_nb() == ',') next_char();
  }
}

void cmd_set() {
  macro_command_guard();
  int c = peek_nb();
  if (c == ';') error_exit("Invalid syntax in set command");
  if (c == '+' || c == '-') {
    next_char();
    if (peek_nb() == ';') {
      space.add_blank = c == '+';
      out_line({c == '+' ? "Adding space in string conversions" : "Not adding space in string conversions"});
      return;
    }
    error_exit("Invalid syntax in set command");
  }
  if (c == '*' || c == '!' || c == ':' || c == '~' || c == '^' || c == ')' || c == '[') {
    error_exit({"Array operations of \"set\" are not available yet in this version"});
  }
  const NamedVar* var = nullptr;
  const int cell = read_cell(&var);
  c = next_nb();
  if (c == ';' || c == 0) {
    unread_char();
    error_exit("Set requires a value or expression");
  }
  if (c == '$') {
    // The text up to ";" is stored as a string.
    std::string text;
    c = next_char();
    while (c > 0 && c < 33) c = next_char();
    while (c != ';' && c != 0) {
      text.push_back(static_cast<char>(c));
      c = next_char();
    }
    unread_char();
    while (!text.empty() && static_cast<unsigned char>(text.back()) < 33) text.pop_back();
    store_string(cell, text);
    return;
  }
  int op = 0;
  bool negated_first = false;
  if (std::strchr("+-*/&|^", c)) {
    // Compound assignment, ++ and --, or an expression starting with a minus sign.
    const int d = next_char();
    if (d == '=') {
      op = c;
    } else if ((c == '+' && d == '+') || (c == '-' && d == '-')) {
      set_cell(cell, cell_value(cell) + (c == '+' ? 1 : -1));
      return;
    } else if (c == '-') {
      unread_char();
      negated_first = true;
    } else {
      error_exitf("Cannot start expression with %c", c);
    }
  } else if (c != '=') {
    unread_char();
  }
  if (peek_nb() == ';') error_exit("Set requires a value or expression");
  // A list function in the expression writes into the target itself.
  list_target = ListTarget{true, var, cell, false};
  double value = 0;
  try {
    value = negated_first ? evaluate_from(-read_term()) : evaluate();
  } catch (...) {
    list_target = ListTarget{};
    throw;
  }
  const bool list_written = list_target.written;
  list_target = ListTarget{};
  if (list_written) {
    if (op) error_exit("Lists cannot be combined with compound assignments");
    return;
  }
  if (op) {
    const double old = cell_value(cell);
    if (op == '/' && !space.float_mode) {
      if (clamp_ll(value) == 0) error_exit("Can't divide by zero");
      value = static_cast<double>(clamp_ll(old) / clamp_ll(value));
    } else {
      switch (op) {
        case '+': value = old + value; break;
        case '-': value = old - value; break;
        case '*': value = old * value; break;
        case '/':
          if (value == 0) error_exit("Can't divide by zero");
          value = old / value;
          break;
        case '&': value = clamp_int(old) & clamp_int(value); break;
        case '|': value = clamp_int(old) | clamp_int(value); break;
        case '^': value = clamp_int(old) ^ clamp_int(value); break;
      }
    }
  }
  set_cell(cell, value);
  if (switches.macreport) out_line({"Var.", number_text(cell - current_shift()), "=", value_text(space.cells[cell])});
}

void cmd_setarray() {
  macro_command_guard();
  int extent[max_dims] = {0, 0, 0, 0, 0};
  int dims = 0;
  for (;;) {
    if (!std::isdigit(peek_nb()) && peek_nb() != '(' && peek_nb() != '\'') break;
    if (dims >= max_dims) error_exit({"Variables cannot have more than", "5", "dimensions"});
    extent[dims++] = read_int_expr();
    if (peek_nb() == ',') next_char();
    else break;
  }
  if (dims == 0) error_exit("Must specify dimension");
  next_nb();
  unread_char();
  const std::string name = read_word();
  check_variable_name(name);
  if (is_reserved_word(name)) error_exitf("Can't use %s for a user-variable (%s is a reserved expression)", name.c_str(), name.c_str());
  const NamedVar* old = find_name(name);
  const int cell = old && old->level == input_level() ? old->cell : next_free_cell();
  name_variable(name, cell, dims, extent);
  const NamedVar* var = find_name(name);
  long long count = 1;
  for (int d = 0; d < dims; ++d) count *= extent[d];
  const int first_data = var->cell + var->size - static_cast<int>(count);
  out_line({"Reading", number_text(static_cast<int>(count)), "values) into", name});
  for (long long i = 0; i < count; ++i) {
    const int c = peek_nb();
    if (c == ';' || c == 0) error_exit("Setarray must end with a semicolon");
    set_cell(first_data + static_cast<int>(i), read_term());
    if (peek_nb() == ',') next_char();
  }
  if (peek_nb() != ';') error_exit("Setarray must end with a semicolon");
}

void cmd_private() {
  macro_command_guard();
  const int n = read_int_expr();
  if (n < 0) error_exit("Can't set private variables to less than 0");
  const int level = input_level();
  if (level >= static_cast<int>(space.levels.size())) space.levels.resize(level + 1);
  space.levels[level].private_count = n;
  out_text({number_text(n), " private variables in ", current_frame().name, " (var. shift=",
            number_text(space.levels[level].shift), ")\n"});
}

void cmd_safe() {
  macro_command_guard();
  read_command_word();
  const std::string what = token_buffer;
  if (what.empty()) error_exit("Must specify either vars, loops, or ram");
  const int n = read_int_expr();
  if (std::string("vars").rfind(what, 0) == 0) {
    const int left = space.max_vars - next_free_cell();
    if (left < n) error_exit({"Only", number_text(left), "vars. available"});
  } else if (std::string("loops").rfind(what, 0) == 0) {
    const int left = space.max_loops - static_cast<int>(loops.size());
    if (left < n) error_exit({"Only", number_text(left), "loops available"});
  } else if (std::string("ram").rfind(what, 0) == 0) {
    const std::size_t used = space_used_bytes();
    const long long left = static_cast<long long>(space.block_bytes) - static_cast<long long>(used);
    if (left < n) error_exit({"Only", number_text(static_cast<int>(std::max(0LL, left))), "bytes available"});
  } else {
    error_exit("Must specify either vars, loops, or ram");
  }
}

void cmd_resettime() {
  macro_command_guard();
  space.time_base = now_seconds();
  out_line({"Time reset"});
}

}  // namespace qax::script
