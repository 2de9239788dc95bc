// The macro reader: with macros on it replaces the plain next_char/unread_char. It reads
// loop bodies stored in the macro block, expands references in place ('x', "x", $x, %N,
// #N) and strips comments between commands. Loops are kept here too.
#pragma once

#include <string>
#include <vector>

namespace qax::script {

struct Loop {
  int value = 0;
  int step = 1;
  int limit = 0;
  std::string name;
  std::string body;       // text of the body, ending in ";"
  std::size_t pos = 0;    // read position in body
  int level = 0;          // input level the loop belongs to
  int kind = 0;           // 0 loop; 1 body run by an inner command loop (sprit, ...); 2 forfiles
  std::vector<std::string> files;  // forfiles: the entries, by value
  std::string closing_text;        // printed when the loop ends
  int interrupt_events = 0;        // interruptions counted when the loop started
};

extern std::vector<Loop> loops;

// Switches the reader on or off (macro = / macro -).
void install_macro_reader();
void remove_macro_reader();
// The hooks of the input stack and of error reports; installed once at start-up.
void install_reader_hooks();

// Reading below the expansions: the current loop body or the input level. Used to copy
// loop bodies and to skip text, where nothing must be expanded.
int raw_char();
void raw_unread();
// While positive, the reader expands nothing.
extern int expansion_blocked;
// While positive, quote characters read as themselves (the closing quote of a reference).
extern int quote_blocked;

// Loop of the current level that is innermost, or null.
Loop* current_level_loop();
// Starts reading a stored body as a loop (value..limit by step).
void enter_loop(Loop loop);
// Jumps to the end of the body of loop `l`, so that the next read ends this pass.
void jump_to_loop_end(Loop& l);

// Copies the raw text up to the matching "stop" (nesting counted), folding blanks; the
// returned body ends with ";".
std::string copy_body(const char* what);

// Runs stored instructions once through an inner command loop on a pushed text level
// named `level_name`; `silent` silences output while they run. False when an error
// stopped them (the input is then unwound) or the run ended.
bool run_inner_body(const std::string& body, const char* level_name, bool silent);
// Closes the levels of the inner body being run (its remaining text is skipped).
void leave_inner_body();
// Level of the innermost body being run by run_inner_body, 0 when none.
int inner_body_level();

// True when long script work must stop: an interruption now or since `events` was
// taken (a search stopped inside the body counts too).
bool script_interrupted(int events);

// Opens `file` as a new level (arguments from the stream when read_args) and reads on
// from just after "label L" in it.
void jump_to_label(const std::string& file, const std::string& label, bool read_args, bool quiet);

// Loop report for macreport and errors: "Loop N - value ..." entries.
std::string loop_report();

}  // namespace qax::script
