// The input stack and the reading primitives. All text the program interprets
// passes through next_char/unread_char of the current level; level 0 is the keyboard
// (or the process arguments, then the keyboard). Each level's text ends in NUL;
// at end of file a synthetic "\n;" closes any pending command.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

namespace qax::shell {

constexpr int token_buffer_size = 2048;
constexpr int frame_text_size = 4128;   // 4096 read + NUL + room for "\n;"
constexpr int chunk_size = 4096;
constexpr int max_arguments = 32;
constexpr int max_argument_length = 512;
constexpr int argument_pool_size = 2112;
constexpr int file_name_size = 160;

struct InputFrame {
  std::FILE* stream = nullptr;    // open file; null for a text level
  int is_terminal = 0;            // re-read line by line through the line editor
  int at_eof = 0;                 // end reached; text now ends in "\n;"
  int is_run_file = 0;            // opened by run, a .run fall-back or goto
  int is_recursion = 0;           // opened by recurse
  int argument_count = 0;         // arguments passed (not counting %0)
  std::vector<std::string> arguments;  // %0 name, %1.. arguments
  int pool_used = 0;              // bytes of the argument pool used by this level
  char text[frame_text_size];     // current chunk
  int pos = 0;                    // read position in text
  std::string name;               // file name, "Standard Input", or a label
  int loop_base = -1;             // macro loop depth at entry
  int line_number = 1;            // current line, from 1
  std::string source;             // whole text of a text level, read in chunks
  std::size_t source_pos = 0;     // next byte of source to copy into text
  InputFrame() { text[0] = 0; }
};

// The reading hooks; macros and C-scripts replace them.
using NextCharFn = int (*)();
using UnreadCharFn = void (*)();
extern NextCharFn next_char;
extern UnreadCharFn unread_char;

extern char token_buffer[token_buffer_size + 1];

// Stack management.
void init_input_stack(int max_levels, const std::string& level0_text, bool keyboard_is_terminal);
int input_level() noexcept;                 // 0 = keyboard
int input_max_levels() noexcept;            // mxproc
void set_input_max_levels(int n);           // mxproc N (never shrinks)
InputFrame& current_frame();
InputFrame& frame_at(int level);
int argument_pool_used() noexcept;
bool input_exhausted() noexcept;            // level 0 at end of input

// File levels. open_input_file takes the name from token_buffer; it fails with
// error_exit ("You can't nest", "already in use", "Can't open").
void open_input_file(bool recursion = false);
void activate_input(bool announce = true);
void close_input(bool announce = true);
// The current level is a text level with nothing but blanks and ";" left to read.
bool level_text_exhausted();
void unwind_input();
// Push a level that reads the given text (of any length) as if it were a file:
// converted imports, macro bodies, control files, tests.
void push_text_level(std::string text, const std::string& name);
// Reads up to 32 run-file arguments from the caller's stream into the pending frame.
void read_run_arguments();
// Opens token_buffer's file as a run file with arguments and activates it.
void run_file_from_token();
int count_open_instances(const std::string& name);

// Primitives.
int plain_next_char();
void plain_unread_char();
int next_nonblank();
int peek_char();
int accept_char(int c);
void skip_to_char(int c);
int read_token();
int read_line_word();
int read_command_word();
int read_name();
int read_int();
double read_real();
int at_word_end(int consume);
// Rest of the command up to (not including) ';', with leading blanks skipped.
std::string read_rest_of_command();

// Line reading for terminal levels; replaced by the line editor when the console is on.
using LineReaderFn = bool (*)(char* buffer, int capacity, const char* prompt);
extern LineReaderFn terminal_line_reader;
// Background hook at end of level-0 input: returns true if new instructions were pushed.
using InputEndHook = bool (*)();
extern InputEndHook background_input_end;

// Hooks of the scripting layer: a level was pushed (its number), a level is about to
// close (its number; also for each level dropped by unwind_input), and the whole stack
// was unwound after an error.
struct LevelHooks {
  void (*opened)(int level) = nullptr;
  void (*closing)(int level) = nullptr;
  void (*unwound)() = nullptr;
  void (*unwinding)(int top_level) = nullptr;  // before unwind_input closes anything
};
extern LevelHooks level_hooks;

// Source position text for error messages: span of 75 chars around the read position.
struct SourceSpan {
  std::string file;  // empty when the level is not a file
  std::string span;  // control characters shown as blanks
  int caret = 0;     // column of the read position within span
  bool valid = false;
};
SourceSpan current_source_span();

}  // namespace qax::shell
