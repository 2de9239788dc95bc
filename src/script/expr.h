// Expressions of the macro language, evaluated straight off the character stream from
// left to right (all operators of equal rank), and the internal functions they call.
#pragma once

#include <string>

namespace qax::script {

// Full expression at the current position. Ends before ";" (left unread), or at the
// character `closing` (consumed) when it is not 0.
double evaluate(int closing = 0);
// Goes on with an expression whose first term gave `first` (the operator comes next).
double evaluate_from(double first, int closing = 0);
// The parenthesised condition of "if": the "(" must be next; reads exactly up to its ")".
double evaluate_condition();
// One term (a number, a name, a parenthesis, a function...).
double read_term();
// A whole-number term: "Expected integral number" unless parenthesised (then truncated).
int read_int_expr();
// Cell designated at the current position: a number (shift applied), a name with
// optional subscripts, or a parenthesised expression. `var` receives the named variable.
struct NamedVar;
int read_cell(const NamedVar** var = nullptr, bool allow_range = false, int* range_end = nullptr);
// Optional "[i j ...]" after a variable's name; with allow_range, "[i-k]" in the last
// dimension sets *range_end to the last cell.
int read_subscripts(const NamedVar* var, int base, bool allow_range, int* range_end);
// A word as a term: a variable gives its number (with subscripts read), a function its
// value, and with "macro +" a taxon or character name its number.
double word_value(const std::string& word);
// A word as the term reader reads it (letters, digits, "_", "."), at most 500 characters.
std::string read_word();

// Internal functions: true when `word` is one; its value in `value`. Arguments in
// brackets are read from the stream.
bool internal_function(const std::string& word, double& value);
// The word is a reserved expression name (a user variable can't take it).
bool is_reserved_word(const std::string& word);

}  // namespace qax::script
