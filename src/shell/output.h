// Output channels: one line buffer, fanned out to the log, the text buffer and the
// console (standard error). Also the progress line and the interrupt protocol.
// Invariant: text reaches a channel only through send_line; silent_flags bit 0 no
// file, bit 1 no console, bit 2 no text buffer.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>
#include <string_view>
#include <initializer_list>

namespace qax::shell {

constexpr int out_line_size = 2048;

struct OutputState {
  std::string line;                 // the line being built (at most out_line_size)
  std::FILE* log_stream = nullptr;  // null: no log (the error stream)
  std::string log_name;             // name of the open log
  std::string log_buffer;           // pending log text
  bool log_is_stdout = false;       // log stdout
  int silent_flags = 0;             // bit 0 file, bit 1 console, bit 2 buffer
  int output_mode = 0;              // 0 normal, 2 log only, other values drop all
  int console_column = 0;           // column reached on the console
  int screen_lines = 24;            // lines on screen
  int screen_columns = 80;          // columns on screen
  int printed_lines = 0;            // lines since the last page stop
  int curses_active = 0;            // console under curses: "\n" needs "\r"
  int progress_suppressed = 0;      // no progress line at all
  int inner_silent_search = 0;      // inner silent search depth
  int progress_last_percent = -1;   // last percent drawn
  double progress_last_time = 0;    // last progress line drawn
  double last_poll_time = 0;        // last keyboard poll from show_progress
  int spinner = 0;                  // index into the spinner characters
  double last_control_check = -1;   // last look for control files (background)
  double last_report_time = 0;      // last report to the log
};

extern OutputState output_state;

// Tables of one value per item that reports print are offered here as well (a script may
// capture them into an array); null when nobody listens.
extern void (*table_capture)(const std::vector<std::string>& values);

void out_append(std::string_view text);
void out_append_word(std::string_view text);
void out_char(char c);
void out_spaces(int n);
void out_newline();
void out_text(std::initializer_list<std::string_view> pieces);
void out_line(std::initializer_list<std::string_view> pieces);
void out_format(const char* format, ...) __attribute__((format(printf, 1, 2)));
// printf then send as is (no blank or line end added).
void out_printf(const char* format, ...) __attribute__((format(printf, 1, 2)));
void out_flush();
void send_line();  // send what is in the line buffer as it stands
std::string number_text(long long n);
std::string padded_number(int width, long long n);
std::string bytes_text(std::uint64_t n);

// Console only, bypassing the channels (prompts, questions).
void console_write(std::string_view text);

void warning(std::initializer_list<std::string_view> pieces);
void show_progress(long long done, long long total, std::string_view label);
int check_interrupt(int mode);
// Ctrl-C at a terminal acts as ESC does when work polls for interruption (a second one
// within a second quits); installed for interactive runs only.
void install_interrupt_key();
// A Ctrl-C typed while nothing was running is forgotten.
void forget_interrupt_key();
// After this time (now_seconds()), check_interrupt stops long work as an interrupt
// does; 0 sets no limit. Used to bound runs that must end, such as fuzzed instructions.
void set_interrupt_deadline(double at);
void clear_progress();
void flush_log();
// Reads one key without blocking; -1 if none. Hooks for tests.
using KeyReaderFn = int (*)(bool blocking);
extern KeyReaderFn read_key;
// Question on the console; returns the lower-cased answer key among `keys` (27 for ESC).
int ask_key(std::string_view question, std::string_view keys);

// Control files of a background run.
bool take_execute_file();
std::string control_file_name(const char* stem);

// Log management.
bool open_log(const std::string& name, bool append);
void close_log();

// Text buffer.
void text_buffer_init(int kilobytes);
void text_buffer_add(std::string_view text);
void text_buffer_clear();
int text_buffer_line_count();
std::string text_buffer_line(int index);  // expanded
struct TextBufferInfo { int kilobytes; int percent_used; bool compressed; };
TextBufferInfo text_buffer_info();
void text_buffer_set_compression(bool on);
bool text_buffer_compressed();

}  // namespace qax::shell
