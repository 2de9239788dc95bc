// Expression evaluation: terms and operators read one by one from the character
// stream, applied strictly left to right.
#include "script/expr.h"

#include <cctype>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "dataset/dataset.h"
#include "script/reader.h"
#include "script/scan.h"
#include "script/space.h"
#include "shell/failure.h"
#include "shell/input.h"
#include "shell/output.h"
#include "shell/state.h"

namespace qax::script {

using namespace qax::shell;

namespace {

bool blank(int c) { return c < 33 && c != 0; }

std::int32_t as_int32(double v) { return clamp_int(v); }

double apply(int op, double a, double b) {
  switch (op) {
    case '+': return a + b;
    case '-': return a - b;
    case '*': return a * b;
    case '/':
      if (b == 0) error_exit("Can't divide by zero");
      return a / b;
    case '&': return as_int32(a) & as_int32(b);
    case '|': return as_int32(a) | as_int32(b);
    case '^': return as_int32(a) ^ as_int32(b);
  }
  return b;
}

// Comparison and logical operators, coded as two characters.
enum Compare { cmp_none = 0, cmp_eq, cmp_ne, cmp_ge, cmp_le, cmp_gt, cmp_lt, cmp_and, cmp_or };

double compare(int op, double a, double b) {
  switch (op) {
    case cmp_eq: return a == b;
    case cmp_ne: return a != b;
    case cmp_ge: return a >= b;
    case cmp_le: return a <= b;
    case cmp_gt: return a > b;
    case cmp_lt: return a < b;
    case cmp_and: return (a != 0) && (b != 0);
    case cmp_or: return (a != 0) || (b != 0);
  }
  return b;
}

const char* compare_name(int op) {
  static const char* names[] = {"", "==", "!=", ">=", "<=", ">", "<", "&&", "||"};
  return names[op];
}

bool is_operator_start(int c) {
  return c == '+' || c == '-' || c == '*' || c == '/' || c == '&' || c == '|' || c == '^' ||
         c == '=' || c == '!' || c == '<' || c == '>';
}

double read_number(int first) {
  std::string text(1, static_cast<char>(first));
  bool point = first == '.';
  for (;;) {
    const int c = next_char();
    if (std::isdigit(c) || (c == '.' && !point)) {
      if (c == '.') point = true;
      if (text.size() < 500) text.push_back(static_cast<char>(c));
      continue;
    }
    unread_char();
    break;
  }
  return std::strtod(text.c_str(), nullptr);
}

double read_bitset() {
  std::uint32_t bits = 0;
  for (;;) {
    int c = next_nb();
    if (c == '}') break;
    if (c == ';' || c == 0) {
      unread_char();
      error_exit("Need closing brackets");
    }
    if (c == '-') {
      int n = 0;
      while (std::isdigit(c = next_char())) n = n * 10 + (c - '0');
      unread_char();
      error_exit({"Cannot set negative bits: -", number_text(n)});
    }
    if (!std::isdigit(c)) error_exitf("Symbol '%c' found when expecting number or expression", c);
    int n = c - '0';
    while (std::isdigit(c = next_char())) n = n * 10 + (c - '0');
    unread_char();
    if (n > 29) error_exit("Can't store more than 30 bits (0-29) in variables");
    bits |= 1u << n;
  }
  return bits;
}

}  // namespace

// Value of a word standing as a term: a variable gives its number, a function its value.
double word_value(const std::string& word) {
  if (const NamedVar* var = find_name(word)) return read_subscripts(var, var->cell, false, nullptr);
  double v = 0;
  if (internal_function(word, v)) return v;
  if (space.names_as_numbers) {
    using qax::dataset::dataset;
    for (int t = 0; t < dataset.ntax; ++t)
      if (dataset.taxon_names[t] == word) return t;
    for (int c = 0; c < static_cast<int>(dataset.character_names.size()); ++c)
      if (dataset.character_names[c] == word) return c;
  }
  error_exit({"Unrecognized variable:", word});
}

namespace {

double evaluate_impl(int closing, bool bracket, bool condition, const double* first_term);

}  // namespace

std::string read_word() {
  std::string w;
  for (;;) {
    const int c = next_char();
    if (std::isalnum(c) || c == '_') {
      if (w.size() < 500) w.push_back(static_cast<char>(c));
      continue;
    }
    unread_char();
    return w;
  }
}

int read_subscripts(const NamedVar* var, int base, bool allow_range, int* range_end) {
  if (range_end) *range_end = -1;
  int c = next_char();
  if (c != '[') {
    unread_char();
    return base;
  }
  int index[8];
  int count = 0;
  int last_end = -1;
  for (;;) {
    c = next_nb();
    if (c == ']') break;
    if (c == ';' || c == 0) {
      unread_char();
      error_exit("Need closing brackets");
    }
    unread_char();
    if (count >= 8) error_exit("Unexpected closing bracket, ]");
    if (allow_range) {
      const double first = read_term();
      c = next_char();
      if (c == '-') {
        if (space.protection == 0) error_exit("Ranges valid only under macro protected mode");
        last_end = clamp_int(read_term());
        index[count++] = clamp_int(first);
        c = next_nb();
        if (c != ']') error_exit("Ranges are valid only for the last dimension");
        break;
      }
      unread_char();
      index[count++] = clamp_int(first);
      continue;
    }
    index[count++] = clamp_int(evaluate_impl(0, true, false, nullptr));
  }
  const int cell = subscript_cell(base, var, index, count);
  if (last_end >= 0) {
    if (range_end) *range_end = cell + (last_end - index[count - 1]);
    if (var && space.protection >= 1 && count - 1 < var->dims && last_end >= var->extent[count - 1]) {
      error_exitf("Variable %i has only %i values (0-%i) for dimension %i", var->cell,
                  var->extent[count - 1], var->extent[count - 1] - 1, count - 1);
    }
    check_cell(cell + (last_end - index[count - 1]));
  }
  return cell;
}

int read_cell(const NamedVar** var_out, bool allow_range, int* range_end) {
  if (var_out) *var_out = nullptr;
  if (range_end) *range_end = -1;
  int c = next_nb();
  if (c == '(') {
    const double v = evaluate_impl(')', false, false, nullptr);
    check_cell(clamp_ll(v));
    return read_subscripts(nullptr, clamp_int(v), allow_range, range_end);
  }
  if (std::isdigit(c)) {
    const double n = read_number(c);
    return read_subscripts(nullptr, numbered_cell(n), allow_range, range_end);
  }
  if (std::isalpha(c) || c == '_') {
    unread_char();
    const std::string word = read_word();
    const NamedVar* var = find_name(word);
    if (!var) error_exit({"Unrecognized variable:", word});
    if (var_out) *var_out = var;
    return read_subscripts(var, var->cell, allow_range, range_end);
  }
  unread_char();
  error_exitf("Symbol '%c' found when expecting number or expression", c > 31 ? c : ' ');
}

double read_term() {
  int c = next_nb();
  bool negative = false, logical_not = false;
  if (c == '-') {
    negative = true;
    c = next_nb();
  }
  if (c == '!') {
    logical_not = true;
    c = next_nb();
  }
  double v;
  if (c == ';') {
    unread_char();
    v = -1.0;
  } else if (c == '(') {
    v = evaluate_impl(')', false, false, nullptr);
  } else if (c == '{') {
    v = read_bitset();
  } else if (std::isdigit(c) || c == '.') {
    v = read_number(c);
  } else if (std::isalpha(c) || c == '_') {
    unread_char();
    v = word_value(read_word());
  } else {
    if (c != 0) unread_char();
    error_exitf("Symbol '%c' found when expecting number or expression", c > 31 ? c : ' ');
  }
  if (logical_not) v = v == 0 ? 1 : 0;
  return negative ? -v : v;
}

int read_int_expr() {
  int c = next_nb();
  unread_char();
  const bool parenthesised = c == '(' || (c == '-' && false);
  const double v = read_term();
  if (!parenthesised && v != std::trunc(v)) error_exit("Expected integral number");
  return as_int32(v);
}

namespace {

double evaluate_impl(int closing, bool bracket, bool condition, const double* first_term = nullptr) {
  double acc = 0, left = 0;
  int pending = '+';
  int cmp = cmp_none;
  bool first = true;
  for (;;) {
    int c;
    if (first_term) {
      acc = *first_term;
      first_term = nullptr;
      first = false;
    } else {
      c = next_nb();
      if (first) {
        if (c == '=' || c == '+' || c == '&' || c == '/' || c == '>' || c == '|' || c == '\\') {
          error_exitf("Cannot start expression with %c", c);
        }
        first = false;
      }
      if (c == ';' && condition) {
        unread_char();
        error_exit("Found unexpected ';'");
      }
      unread_char();
      const double term = read_term();
      acc = apply(pending, acc, term);
      if (cmp != cmp_none) {
        const double result = compare(cmp, left, acc);
        if (switches.macreport) {
          out_line({"IF", value_text(left), compare_name(cmp), value_text(acc), result ? " ---> TRUE" : " ---> FALSE!"});
        }
        acc = result;
        cmp = cmp_none;
      }
    }
    // The operator, or the end of the expression.
    c = next_nb();
    if (c == ')') {
      if (closing == ')') return acc;
      unread_char();
      error_exit("Unbalanced ')' in expression");
    }
    if (c == ';' || c == 0) {
      unread_char();
      if (condition) error_exit("Found unexpected ';'");
      if (closing == ')') error_exit("Unbalanced '(' in expression");
      return acc;
    }
    if (closing && c == closing) {
      unread_char();
      return acc;
    }
    if ((c == '\'' || c == '"') && quote_blocked) {
      unread_char();
      return acc;
    }
    if (bracket) {
      if (c == ']') {
        unread_char();
        return acc;
      }
      if (c == ',') return acc;
      if (!is_operator_start(c)) {
        unread_char();
        return acc;
      }
    }
    const int d = next_char();
    auto two = [&](char a, char b) { return c == a && d == b; };
    if (two('=', '=')) { cmp = cmp_eq; }
    else if (two('!', '=')) { cmp = cmp_ne; }
    else if (two('>', '=')) { cmp = cmp_ge; }
    else if (two('<', '=')) { cmp = cmp_le; }
    else if (two('&', '&')) { cmp = cmp_and; }
    else if (two('|', '|')) { cmp = cmp_or; }
    else {
      unread_char();
      if (c == '<') cmp = cmp_lt;
      else if (c == '>') cmp = cmp_gt;
      else if (c == '+' || c == '-' || c == '*' || c == '/' || c == '&' || c == '|' || c == '^') {
        pending = c;
        continue;
      } else if (c == '=' || c == '!') {
        error_exit({"Symbol", std::string(1, static_cast<char>(c)) + static_cast<char>(d > 31 ? d : ' '),
                    "is not a logical expression or operator"});
      } else {
        error_exitf("Found illegal character in expression: %c", c > 31 ? c : ' ');
      }
    }
    left = acc;
    acc = 0;
    pending = '+';
  }
}

}  // namespace

double evaluate(int closing) { return evaluate_impl(closing, false, false); }

double evaluate_from(double first, int closing) { return evaluate_impl(closing, false, false, &first); }

double evaluate_condition() {
  const int c = next_nb();
  if (c != '(') {
    unread_char();
    error_exit("Use if( condition ) ...actions... end");
  }
  return evaluate_impl(')', false, true, nullptr);
}

}  // namespace qax::script
