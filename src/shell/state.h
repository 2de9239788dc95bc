// Run state of the shell: the marks and switches the command cycle owns.
// Plain data with start-up values; reset_shell_state() brings it back to them.
#pragma once

#include <cstdint>
#include <ctime>
#include <string>

namespace qax::shell {

constexpr int default_name_limit = 32;
constexpr int default_mxproc = 10;
constexpr const char* program_version = "1.6";
constexpr const char* program_date = "July 2024";

struct ShellState {
  int background = 0;                  // running without a terminal
  int worker_mode = 0;                 // started by a parent as a worker
  int from_command_line = 0;           // level 0 holds the process arguments
  int keep_running = 1;                // the command cycle goes on while non-zero
  std::time_t run_start_time = 0;      // process start, seconds
  double command_start_time = 0;       // wall clock when the handler was entered, seconds
  std::string current_command_name = "qax*";  // name shown in messages
  std::string prompt_text = "qax*>";   // prompt of the line editor
  int watch_state = 0;                 // 0 off, 1 on, 2 on but suppressed for this command
  int watch_ram = 0;                   // watch [ : report RAM use per command
  double watch_reference = 0;          // reference time of watch /
  int echo_state = 0;                  // 0 off, 1 on, 3 on until the end of the cycle
  int echo_to_log = 0;                 // echo [ : copy prompt and line to the log
  int stop_search_flag = 0;            // 0 none, 1 stop and move on, 3 time is out
  int interrupt_events = 0;            // interruptions so far (loops of scripts end on one)
  int search_running = 0;              // a search can be stopped softly
  int pending_error_goto = 0;          // a goto [ target must be taken at the next cycle
  std::uint64_t peak_ram_command = 0;  // arena use this command, bytes
  std::uint64_t peak_ram_overall = 0;  // highest arena use of the run, bytes
  unsigned implied_minima_note = 0;    // bit 0 pending, bit 1 given
  int name_limit = default_name_limit; // longest name read as a word
  int quoted_text = 0;                 // commas stay commas while set
  int literal_quotes = 0;              // quotes read as text even with macros on (titles)
  int between_commands = 0;            // the dispatcher is looking for the next command word
  int command_word_mark = 0;           // the dispatcher is peeking after the command word
  int nested_run = 0;                  // 1 during a nested run, 2 when it failed
  int macros_on = 0;                   // macro language switched on
  int near_match = 0;                  // 0 off, 1 armed (help !), 2 options too (help >)
  double match_threshold = 0.75;       // closest-string threshold
  int timeout_seconds = 0;             // search time limit, 0 none
  unsigned random_seed = 1;            // rseed
  int pid = 0;                         // process id, names the control files
  std::string program_name = "qax";    // argv[0] without directory
  int execute_disabled = 0;            // the execute control file could not be removed
  int execute_count = 0;               // copies of the execute file run so far
};

extern ShellState shell_state;

// Shared switch flags (=, -, /).
struct Switches {
  int beep = 1;       // ring the bell on errors
  int warn = 0;       // warnings ask interactively
  int naked = 1;      // trees drawn without node numbers
  int macreport = 0;  // macro report
  int brk = 1;        // keyboard polled at every line (break)
  int report = 1;     // progress shown
  std::string break_text;  // break /text: question asked on ESC
  int report_log = 0;      // report [ : progress records to the log
  int report_seconds = 0;  // report + N
  int report_reps = 0;     // report / M
  int report_trees = 0;    // report / K
  int page_stop = 0;       // pause = : stop at each screenful
  int table_decimals = 5;  // tables /N
  int tables_informative = 0;  // tables = : only active, informative items
  int lquote_literal = 0;      // lquote = : no line end added
  int lquote_ascii = 0;        // lquote [ : &N conversions
  int lquote_stderr = 0;       // lquote < : echo quotes on stderr
};

extern Switches switches;

void reset_shell_state();

// Wall-clock seconds (monotonic enough for timings).
double now_seconds();

}  // namespace qax::shell
