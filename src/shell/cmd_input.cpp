// Commands of the input stack: exit family, bground, procedure, run, recurse, mxproc.
#include <cctype>
#include <cstring>
#include <strings.h>
#include <vector>

#include "shell/commands.h"
#include "shell/failure.h"
#include "shell/input.h"
#include "shell/output.h"
#include "shell/shell_commands.h"
#include "shell/state.h"

namespace qax::shell {

ImportHooks import_hooks;

namespace {
std::vector<void (*)()> exit_steps_;
}

void add_exit_step(void (*step)()) { exit_steps_.push_back(step); }

void cmd_exit() {
  if (typed_command_word() == "exi") {
    error_exit("Did you mean \"exit\"? The \"exit\" command can't be truncated...");
  }
  if (shell_state.background && take_execute_file()) return;
  shell_state.keep_running = 0;
  shell_state.watch_state = 0;
  for (auto step : exit_steps_) step();
  flush_log();
  throw RunEnded{0};
}

void cmd_bground() {
  if (typed_command_word() != "bground" && typed_command_word() != "slaveproc") {
    if (shell_state.from_command_line) {
      error_exit({"Unrecognized command:", typed_command_word(), " --did you mean \"bground\"?"});
    }
    error_exit({"Unrecognized command:", typed_command_word()});
  }
  if (!shell_state.from_command_line) error_exit("Command \"bground\" is command-line only!");
  shell_state.background = 1;
  switches.report = 0;
  switches.brk = 0;
  switches.beep = 0;
  output_state.silent_flags |= 2;
}

void cmd_procedure() {
  int c = peek_char();
  if (c == ';') {
    close_input();
    return;
  }
  if (c == '-') {
    next_char();
    close_input();
    return;
  }
  if (c == '/') {
    // "proc/;" ends the current file; "/path" is a file name.
    next_char();
    if (at_word_end(0)) {
      close_input();
      return;
    }
    unread_char();
  }
  if (c == '&') {
    next_char();
    int group = -1;
    if (accept_char('=')) group = read_int();
    if (!read_token()) error_exit("No file name given");
    if (!import_hooks.fasta) error_exit("Reading FASTA files is not available yet in this version");
    import_hooks.fasta(token_buffer, group);
    return;
  }
  if (c == '[') {
    next_char();
    if (!read_token()) error_exit("No file name given");
    if (!import_hooks.newick) error_exit("Reading Newick trees is not available yet in this version");
    import_hooks.newick(token_buffer);
    return;
  }
  read_token();
  open_input_file(false);
  activate_input(true);
  // Look at the first chunk: a "#NEXUS" file goes to the NEXUS reader.
  next_char();
  unread_char();
  InputFrame& f = current_frame();
  if (f.pos == 0 && strncasecmp(f.text, "#NEXUS", 6) == 0 &&
      (static_cast<unsigned char>(f.text[6]) < 33)) {
    f.pos = 6;
    if (!import_hooks.nexus) {
      close_input();
      error_exit("Reading NEXUS files is not available yet in this version");
    }
    import_hooks.nexus();
    return;
  }
  if (f.pos == 0 && import_hooks.other_format) import_hooks.other_format();
}

void cmd_run() {
  if (peek_char() == ';') {
    close_input();
    return;
  }
  read_token();
  run_file_from_token();
}

void cmd_run_file() { run_file_from_token(); }

void cmd_recurse() {
  macro_command_guard();
  if (input_level() == 0) error_exit("Can't recurse from the keyboard");
  std::string name = current_frame().name;
  std::snprintf(token_buffer, sizeof token_buffer, "%s", name.c_str());
  open_input_file(true);
  read_run_arguments();
  InputFrame& f = frame_at(input_level() + 1);
  f.is_run_file = 1;
  activate_input(false);
  int instance = count_open_instances(name);
  out_append_word("Recursing");
  out_append_word(name);
  out_append_word("(instance " + number_text(instance) + ")");
  out_append_word("with arguments:");
  for (int i = 1; i <= f.argument_count; ++i) out_append_word(f.arguments[i]);
  out_newline();
  send_line();
}

void cmd_mxproc() {
  int c = peek_char();
  if (c != ';') {
    int n = read_int();
    if (n < 1 || n > 10000) error_exit("Cannot reset number of input files");
    set_input_max_levels(n);
  }
  out_line({"Max. number of input files is", number_text(input_max_levels())});
}

void cmd_macros_separator() { error_exit({"Unknown command:", typed_command_word()}); }

void cmd_macro_not_available() {
  macro_command_guard();
  error_exit({"Command", "\"" + typed_command_word() + "\"", "is not available yet in this version"});
}

}  // namespace qax::shell
