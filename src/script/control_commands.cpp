// Control flow on the text of instructions: loop, if/else/end, goto/label, return,
// errmsg, chkbreak, forfiles.
#include <glob.h>

#include <cctype>
#include <cstdio>
#include <cstring>
#include <string>
#include <strings.h>

#include "script/commands.h"
#include "script/expr.h"
#include "script/reader.h"
#include "script/scan.h"
#include "script/space.h"
#include "shell/commands.h"
#include "shell/failure.h"
#include "shell/input.h"
#include "shell/output.h"
#include "shell/shell_commands.h"
#include "shell/state.h"

namespace qax::script {

using namespace qax::shell;

bool swap_continue();

namespace {

// The error target of "goto [".
struct ErrorTarget {
  int armed = 0;
  int level = 0;
  std::string file, label;
};
ErrorTarget error_target_;
std::string default_goto_;

Loop* innermost_loop(int kind_mask) {
  for (int i = static_cast<int>(loops.size()) - 1; i >= 0; --i) {
    if (loops[i].level != input_level()) return nullptr;
    if (kind_mask & (1 << loops[i].kind)) return &loops[i];
  }
  return nullptr;
}

// A word for skipping: ends at whitespace, "(", ";" or after 100 characters.
std::string skip_word(bool& at_end_of_file) {
  int c;
  do {
    c = raw_char();
    if (current_frame().at_eof && !current_level_loop() && input_level() > 0) {
      const InputFrame& f = current_frame();
      if (f.text[f.pos] == 0 || (f.text[f.pos] == ';' && f.text[f.pos + 1] == 0)) at_end_of_file = true;
    }
    if (at_end_of_file) return "";
    if (input_level() == 0 && input_exhausted()) {
      at_end_of_file = true;
      return "";
    }
  } while (c > 0 && c < 33);
  if (c == '(' || c == ';') return "";
  std::string w;
  while (c > 32 && c != '(' && c != ';' && w.size() < 100) {
    w.push_back(static_cast<char>(std::tolower(c)));
    c = raw_char();
  }
  raw_unread();
  return w;
}

// Skips from the current position: to the matching "else" (when stop_at_else) or "end".
void skip_if_text(bool stop_at_else) {
  ++expansion_blocked;
  {
    int depth = 1;
    for (;;) {
      bool eof = false;
      const std::string w = skip_word(eof);
      if (eof) {
        error_exit({"Found end-of-file:", current_frame().name, "\"if\" not matched by \"end\" or \"else\""});
      }
      if (w.empty()) continue;
      if (w == "if" || w == "ifnot") {
        ++depth;
      } else if (w == "else" && depth == 1 && stop_at_else) {
        break;
      } else if (w == "end") {
        if (--depth == 0) break;
      } else if (w == "xend") {
        break;
      } else if (std::strncmp("quote", w.c_str(), w.size()) == 0) {
        int c;
        do c = raw_char();
        while (c != ';' && c != 0);
      }
    }
  }
  --expansion_blocked;
}

std::string read_label_word() {
  read_token();
  std::string w = token_buffer;
  return w;
}

}  // namespace

// Opens `file` as a new level with arguments from the stream, then scans its words for
// "label L". The level stays open, reading from just after the label.
void jump_to_label(const std::string& file, const std::string& label, bool read_args, bool quiet) {
  std::snprintf(token_buffer, sizeof token_buffer, "%s", file.c_str());
  open_input_file(true);
  InputFrame& pending = frame_at(input_level() + 1);
  if (read_args) {
    try {
      read_run_arguments();
    } catch (...) {
      if (pending.stream) std::fclose(pending.stream);
      pending.stream = nullptr;
      throw;
    }
  }
  pending.is_run_file = 1;
  const int level = input_level() + 1;
  activate_input(false);
  ++expansion_blocked;
  {
    bool found = false;
    while (!found) {
      if (input_level() < level) break;
      bool eof = false;
      std::string w = skip_word(eof);
      if (eof || input_level() < level) break;
      if (strcasecmp(w.c_str(), "label") == 0) {
        std::string l = skip_word(eof);
        if (eof) break;
        if (l == label || strcasecmp(l.c_str(), label.c_str()) == 0) found = true;
      }
    }
    if (!found) error_exit({"Label \"" + label + "\" not found in", file});
  }
  --expansion_blocked;
  const InputFrame& f = current_frame();
  if (!quiet) {
    std::string line = "Goto Label \"" + label + "\" in " + file;
    if (f.argument_count == 0) {
      line += " (no args.)";
    } else {
      line += " (args:";
      for (int i = 1; i <= f.argument_count; ++i) line += " " + f.arguments[i];
      line += ")";
    }
    out_line({line});
  }
}

namespace {

void note_unwinding(int top_level) {
  if (error_target_.armed && top_level >= error_target_.level) {
    shell_state.pending_error_goto = 1;
  }
}

}  // namespace

void take_error_goto() {
  if (!shell_state.pending_error_goto) return;
  shell_state.pending_error_goto = 0;
  if (!error_target_.armed || !shell_state.macros_on) return;
  ErrorTarget t = error_target_;
  error_target_ = ErrorTarget();
  const int saved = output_state.silent_flags;
  output_state.silent_flags = 7;
  const int ok = protected_call([&] { jump_to_label(t.file, t.label, false, true); });
  output_state.silent_flags = saved;
  if (ok) out_line({"Reading from", t.file});
}

void cmd_loop() {
  macro_command_guard();
  if (static_cast<int>(loops.size()) >= space.max_loops) {
    error_exit({"Maximum nesting for loops is", number_text(space.max_loops), "loops"});
  }
  Loop loop;
  if (peek_nb() == '=') {
    next_char();
    read_token();
    loop.name = token_buffer;
    for (char ch : loop.name) {
      if (std::strchr("!#$%&'()*+,-/:;<=>?@[\\]^{|}", ch)) {
        error_exitf("A loop name cannot contain symbol '%c'", ch);
      }
    }
  }
  const char* usage = "Usage: loop (from)[+increase] (to) ... action(s)... stop";
  const int from = read_int_expr();
  if (from < 0) {
    out_line({usage});
    error_exit("\"from\" is a negative number");
  }
  int stated = 0, step = 1;
  int c = next_char();
  if (c == '+' || c == '-') {
    stated = c == '+' ? 1 : -1;
    step = read_int_expr();
    if (step < 0) {
      out_line({usage});
      error_exit("Error reading value for increase");
    }
  } else {
    unread_char();
  }
  const int to = read_int_expr();
  if (to < 0) {
    out_line({usage});
    error_exit("\"to\" is a negative number");
  }
  int sign = from > to ? -1 : 1;
  bool skip = stated != 0 && from != to && sign != stated;
  loop.value = from;
  loop.step = sign * step;
  loop.limit = to;
  loop.body = copy_body("loop");
  if (skip || step == 0) return;
  enter_loop(std::move(loop));
  if (switches.macreport) out_line({loop_report()});
}

void cmd_stop() { macro_command_guard(); }

void cmd_endloop() {
  macro_command_guard();
  Loop* l = innermost_loop(1 | 4);
  if (!l) error_exit({"endloop", "valid only within loops"});
  l->value = l->limit;
  jump_to_loop_end(*l);
}

void cmd_setloop() {
  macro_command_guard();
  const int n = read_int_expr();
  Loop* l = innermost_loop(1);
  if (!l) error_exit({"setloop", "valid only within loops"});
  l->value = clamp_int(static_cast<double>(n) - l->step);
  jump_to_loop_end(*l);
}

void cmd_continue() {
  macro_command_guard();
  Loop* l = innermost_loop(1 | 2 | 4);
  if (!l && swap_continue()) return;
  if (!l) error_exit({"continue", "valid only within loops"});
  jump_to_loop_end(*l);
}

void cmd_if() {
  macro_command_guard();
  const double v = evaluate_condition();
  if (clamp_ll(v) != 0) return;
  if (input_level() == 0 && !current_level_loop()) error_exit("Condition not fullfilled");
  skip_if_text(true);
}

void cmd_else() {
  macro_command_guard();
  skip_if_text(false);
}

void cmd_end() { macro_command_guard(); }
void cmd_xend() { macro_command_guard(); }

void cmd_label() {
  macro_command_guard();
  read_token();
}

void cmd_goto() {
  macro_command_guard();
  int c = peek_nb();
  if (c == '=') {
    next_char();
    read_token();
    default_goto_ = token_buffer;
    out_line({"Default target for goto is", default_goto_});
    return;
  }
  if (c == '-') {
    next_char();
    default_goto_.clear();
    return;
  }
  if (c == ']') {
    next_char();
    error_target_ = ErrorTarget();
    out_line({"Undefined error/break target"});
    return;
  }
  if (c == '[') {
    next_char();
    if (error_target_.armed) error_exit("A target has been defined; undefine first, with 'goto ]'");
    const std::string file = read_label_word();
    const std::string label = read_label_word();
    if (label.size() > 124) error_exit("Label is too long");
    if (file.empty() || label.empty()) error_exit("Must give file and label");
    error_target_.armed = 1;
    error_target_.level = input_level();
    error_target_.file = file;
    error_target_.label = label;
    out_text({"Target for goto on error/break: ", file, " (label: ", label, ")\n"});
    return;
  }
  std::string first = read_label_word();
  if (first.empty()) error_exit("Must give file and label");
  std::string file, label;
  if (peek_nb() == ';' && !default_goto_.empty()) {
    file = default_goto_;
    label = first;
  } else {
    file = first;
    label = read_label_word();
    if (label.empty()) error_exit("Must give file and label");
  }
  jump_to_label(file, label, true, false);
}

void cmd_return() {
  macro_command_guard();
  const bool keep = peek_nb() == '=';
  if (keep) next_char();
  if (peek_nb() != ';') space.exstatus = read_int_expr();
  if (switches.macreport) out_text({"Exit status = ", number_text(space.exstatus), "\n"});
  const int level = input_level();
  if (level == 0) return;
  if (level < static_cast<int>(space.levels.size())) space.levels[level].keep_names = keep ? 1 : 0;
  close_input();
}

void cmd_errmsg() {
  macro_command_guard();
  const int saved = output_state.silent_flags;
  output_state.silent_flags &= ~1;
  cmd_quote();
  output_state.silent_flags = saved;
  error_exit({});
}

void cmd_chkbreak() {
  macro_command_guard();
  if (peek_nb() != ';') {
    read_int_expr();
    check_interrupt(1);
    return;
  }
  if (shell_state.background) return;
  console_write("\rPress key to continue ");
  check_interrupt(0);
}

void cmd_forfiles() {
  macro_command_guard();
  read_token();
  std::string pattern = token_buffer;
  for (char& ch : pattern) if (ch == '^') ch = ' ';
  Loop loop;
  loop.kind = 2;
  glob_t g{};
  bool warned = false;
  if (glob(pattern.c_str(), 0, nullptr, &g) == 0) {
    for (std::size_t i = 0; i < g.gl_pathc; ++i) {
      std::string name = g.gl_pathv[i];
      const std::size_t slash = name.rfind('/');
      const std::string base = slash == std::string::npos ? name : name.substr(slash + 1);
      if (base == "." || base == "..") continue;
      if (name.find_first_of("#'\"$") != std::string::npos) {
        if (!warned) out_line({"File names with # ' \" or $ will be skipped (they're reserved sigils)"});
        warned = true;
        continue;
      }
      loop.files.push_back(name);
    }
  }
  globfree(&g);
  loop.body = copy_body("forfiles");
  out_line({"Start checking files..."});
  if (loop.files.empty()) {
    out_text({"Finished checking files (0 found).\n"});
    return;
  }
  loop.value = 0;
  loop.step = 1;
  loop.limit = static_cast<int>(loop.files.size()) - 1;
  char buf[80];
  std::snprintf(buf, sizeof buf, "Finished checking files (%i found).\n", static_cast<int>(loop.files.size()));
  loop.closing_text = buf;
  enter_loop(std::move(loop));
}

void cmd_killfiles() {
  macro_command_guard();
  Loop* l = innermost_loop(4);
  if (!l) error_exit({"killfiles", "valid only within forfiles"});
  l->value = l->limit;
  jump_to_loop_end(*l);
}

void install_goto_hooks() { level_hooks.unwinding = note_unwinding; }

}  // namespace qax::script
