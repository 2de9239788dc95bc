// Commands of the output channels and the shared switches.
#include <cctype>
#include <cstdlib>
#include <ctime>
#include <string>

#include "shell/commands.h"
#include "shell/failure.h"
#include "shell/input.h"
#include "shell/output.h"
#include "shell/shell_commands.h"
#include "shell/state.h"

namespace qax::shell {

bool read_switch(int& flag, const char* label) {
  int c = peek_char();
  bool changed = true;
  if (c == '=') flag = 1;
  else if (c == '-') flag = 0;
  else if (c == '/') flag = !flag;
  else changed = false;
  if (changed) next_char();
  if (switches.report || !changed) out_line({label, flag ? "is ON" : "is OFF"});
  return changed;
}

void cmd_beep() { read_switch(switches.beep, "Beep"); }
void cmd_warn() { read_switch(switches.warn, "Warnings"); }
void (*tree_format_hook)(bool narrow) = nullptr;

void cmd_naked() {
  int c = peek_char();
  if ((c == '[' || c == ']') && tree_format_hook) {
    next_char();
    tree_format_hook(c == ']');
    return;
  }
  read_switch(switches.naked, "Naked trees");
}
void cmd_macreport() {
  macro_command_guard();
  read_switch(switches.macreport, "Macro reports");
}

void cmd_break() {
  if (peek_char() == '/') {
    next_char();
    if (peek_char() != ';') {
      std::string text = read_rest_of_command();
      if (text.size() > 254) error_exit("Warning message too long (max.= 254 characters)");
      switches.break_text = text;
      return;
    }
    unread_char();
  }
  read_switch(switches.brk, "Break");
}

void cmd_echo() {
  int c = peek_char();
  if (c == '=' || c == '-') {
    next_char();
    shell_state.echo_state = c == '=' ? 1 : 0;
  } else if (c == '[' || c == ']') {
    next_char();
    shell_state.echo_to_log = c == '[' ? 1 : 0;
  }
  out_line({"Echo is", shell_state.echo_state == 1 ? "ON" : "OFF"});
}

void cmd_quote() {
  shell_state.quoted_text = 1;
  int saved = output_state.silent_flags;
  int c = next_char();
  if (c == ':') {
    output_state.silent_flags = 0;
    c = next_char();
  }
  while (c != ';' && c < 33) c = next_char();
  std::string text;
  while (c != ';') {
    if (c == '.' ) {
      int d = next_char();
      if (d == ',') {
        text.push_back(';');
        c = next_char();
        continue;
      }
      unread_char();
    }
    if (c == '&' && switches.lquote_ascii) {
      int d = peek_char();
      if (std::isdigit(d)) {
        int code = read_int();
        if (code == 0) text += "\r" + std::string(79, ' ') + "\r";
        else if (code == 1) text.push_back('\b');
        else text.push_back(static_cast<char>(code));
        c = next_char();
        continue;
      }
    }
    text.push_back(static_cast<char>(c));
    c = next_char();
  }
  unread_char();
  shell_state.quoted_text = 0;
  while (!text.empty() && static_cast<unsigned char>(text.back()) < 33 && text.back() != '\b') text.pop_back();
  if (!switches.lquote_literal) text.push_back('\n');
  out_text({text});
  if (switches.lquote_stderr && (output_state.silent_flags & 2)) std::fputs(text.c_str(), stderr);
  output_state.silent_flags = saved;
}

void cmd_log() {
  int c = peek_char();
  if (c == ';') {
    if (output_state.log_stream) out_line({"Log file:", output_state.log_name});
    else out_text({"No Log file open\n"});
    return;
  }
  if (c == '/') {
    next_char();
    close_log();
    return;
  }
  bool append = false;
  if (c == '+') {
    next_char();
    append = true;
  }
  if (!read_token()) error_exit("No log file name given");
  std::string name(token_buffer);
  if (!open_log(name, append)) error_exit({"Cannot open file", name});
}

namespace {

int silent_bits_for(const std::string& w) {
  if (w.empty()) return -1;
  if (std::string("file").rfind(w, 0) == 0) return 1;
  if (std::string("console").rfind(w, 0) == 0) return 2;
  if (std::string("buffer").rfind(w, 0) == 0) return 4;
  if (std::string("all").rfind(w, 0) == 0) return 7;
  return -1;
}

}  // namespace

void cmd_silent() {
  int c = peek_char();
  if (c == ';') {
    int f = output_state.silent_flags;
    if (f == 0) {
      out_text({"Output written to console, file, and buffer\n"});
    } else if (f == 7) {
      out_text({"No output \n"});
    } else {
      std::string on, off;
      const char* names[3] = {"file", "console", "buffer"};
      for (int i = 0; i < 3; ++i) {
        std::string& s = (f & (1 << i)) ? off : on;
        if (!s.empty()) s += ", ";
        s += names[i];
      }
      out_text({"Output written to ", on, "; no output to ", off, "\n"});
    }
    return;
  }
  if (c != '=' && c != '-') {
    next_char();
    error_exit({"Wrong argument for silent:", std::string(1, static_cast<char>(c))});
  }
  next_char();
  while (peek_char() != ';') {
    read_command_word();
    std::string w(token_buffer);
    int bits = silent_bits_for(w);
    if (bits < 0) {
      if (w.empty()) {
        int d = next_char();
        w.assign(1, static_cast<char>(d));
      }
      error_exit({"wrong argument for silent: " + w});
    }
    if (c == '=') output_state.silent_flags |= bits;
    else output_state.silent_flags &= ~bits;
  }
  if (shell_state.background) output_state.silent_flags |= 2;
}

}  // namespace qax::shell
