// Input stack and reading primitives.
#include "shell/file_access.h"
#include "shell/input.h"

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <strings.h>

#include "shell/failure.h"
#include "shell/output.h"
#include "shell/state.h"

namespace qax::shell {

NextCharFn next_char = plain_next_char;
UnreadCharFn unread_char = plain_unread_char;
char token_buffer[token_buffer_size + 1];
LineReaderFn terminal_line_reader = nullptr;
InputEndHook background_input_end = nullptr;
LevelHooks level_hooks;

namespace {

struct InputStack {
  std::vector<InputFrame> frames;  // mxproc + 1 frames
  int top = 0;                     // current level
  int max_levels = default_mxproc; // mxproc
  int pool_used = 0;               // bytes of the shared argument pool in use
  int eof_refills = 0;             // refills of level 0 after its end (guards runaway readers)
};

InputStack stack_;

bool is_blank(int c) { return c < 33; }

void place_eof_text(InputFrame& f) {
  f.at_eof = 1;
  f.text[0] = '\n';
  f.text[1] = ';';
  f.text[2] = 0;
  f.pos = 0;
}

bool read_terminal_line(InputFrame& f) {
  char* buf = f.text;
  if (terminal_line_reader) {
    if (!terminal_line_reader(buf, chunk_size, shell_state.prompt_text.c_str())) return false;
  } else {
    if (f.is_terminal) {
      console_write("\n");
      console_write(shell_state.prompt_text);
    }
    if (!std::fgets(buf, chunk_size, f.stream ? f.stream : stdin)) return false;
  }
  f.pos = 0;
  return true;
}

// Refills the current level when its text is used up.
void refill() {
  while (stack_.top > 0 && current_frame().at_eof) close_input();
  InputFrame& f = current_frame();
  if (f.text[f.pos] != 0) return;
  if (f.at_eof) {
    // Level 0 after its end: keep offering "\n;" so readers close what they read,
    // but a reader that never stops must not spin forever.
    if (++stack_.eof_refills > 64) {
      stack_.eof_refills = 0;
      place_eof_text(f);
      error_exit("Unexpected end of input");
    }
    place_eof_text(f);
    return;
  }
  if (stack_.top == 0) {
    if (shell_state.background) {
      if (background_input_end && background_input_end()) return;
      if (output_state.log_stream && !output_state.log_is_stdout) {
        std::fputs("\nQuitting QAX...\n", output_state.log_stream);
      }
      flush_log();
      throw RunEnded{1};
    }
    shell_state.from_command_line = 0;
  }
  if (!f.stream && f.source_pos < f.source.size()) {
    std::size_t n = std::min<std::size_t>(f.source.size() - f.source_pos, chunk_size);
    std::memcpy(f.text, f.source.data() + f.source_pos, n);
    f.text[n] = 0;
    f.source_pos += n;
    f.pos = 0;
    // A NUL inside the text ends its chunk early, as in a file.
    return;
  }
  if (!f.stream) {
    place_eof_text(f);
    if (f.is_terminal) console_write("\n\n");
    return;
  }
  // The keyboard level is read a line at a time even from a pipe, so that an error
  // discards only the rest of its own line.
  if (f.is_terminal || stack_.top == 0) {
    if (!read_terminal_line(f)) place_eof_text(f);
    return;
  }
  std::size_t n = std::fread(f.text, 1, chunk_size, f.stream);
  if (n == 0) {
    place_eof_text(f);
    return;
  }
  f.text[n] = 0;
  f.pos = 0;
}

}  // namespace

void init_input_stack(int max_levels, const std::string& level0_text, bool keyboard_is_terminal) {
  stack_.max_levels = max_levels;
  stack_.frames.clear();
  stack_.frames.resize(max_levels + 1);
  stack_.top = 0;
  stack_.pool_used = 0;
  stack_.eof_refills = 0;
  InputFrame& f = stack_.frames[0];
  f.stream = stdin;
  f.is_terminal = keyboard_is_terminal ? 1 : 0;
  f.name = "Standard Input";
  f.arguments = {shell_state.program_name};
  std::size_t n = std::min<std::size_t>(level0_text.size(), chunk_size);
  std::memcpy(f.text, level0_text.data(), n);
  f.text[n] = 0;
  f.pos = 0;
  f.loop_base = -1;
}

int input_level() noexcept { return stack_.top; }
int input_max_levels() noexcept { return stack_.max_levels; }
InputFrame& current_frame() { return stack_.frames[stack_.top]; }
InputFrame& frame_at(int level) { return stack_.frames[level]; }
int argument_pool_used() noexcept { return stack_.pool_used; }

void set_input_max_levels(int n) {
  if (n <= stack_.max_levels) return;
  // Frames hold their own read positions, so moving them keeps every level intact.
  stack_.frames.resize(n + 1);
  stack_.max_levels = n;
}

bool input_exhausted() noexcept {
  if (stack_.top != 0) return false;
  const InputFrame& f = stack_.frames[0];
  if (!f.at_eof) return false;
  // Exhausted once nothing but blanks and the closing ";" is left.
  for (int i = f.pos; f.text[i]; ++i) {
    if (!is_blank(static_cast<unsigned char>(f.text[i])) && f.text[i] != ';') return false;
  }
  return true;
}

int count_open_instances(const std::string& name) {
  int n = 0;
  for (int i = 1; i <= stack_.top; ++i) {
    if (strcasecmp(stack_.frames[i].name.c_str(), name.c_str()) == 0) ++n;
  }
  return n;
}

void open_input_file(bool recursion) {
  std::string name(token_buffer);
  if (stack_.top + 1 > stack_.max_levels) {
    error_exit({"You can't nest", number_text(stack_.max_levels), "files"});
  }
  if (name.size() >= file_name_size) name.resize(file_name_size - 1);
  if (!recursion && count_open_instances(name) > 0) error_exit({"File", name, "already in use"});
  std::FILE* fp = open_user_file(name, "rb");
  if (!fp) error_exit({"Can't open", name});
  InputFrame& f = stack_.frames[stack_.top + 1];
  if (f.stream && f.stream != stdin) std::fclose(f.stream);
  f = InputFrame();
  f.stream = fp;
  f.name = name;
  f.arguments = {name};
  f.is_recursion = recursion ? 1 : 0;
}

void activate_input(bool announce) {
  InputFrame& f = stack_.frames[stack_.top + 1];
  f.loop_base = 0;
  ++stack_.top;
  if (level_hooks.opened) level_hooks.opened(stack_.top);
  if (announce) out_line({"Reading from", f.name});
}

bool level_text_exhausted() {
  const InputFrame& f = current_frame();
  if (stack_.top == 0 || f.stream || f.source_pos < f.source.size()) return false;
  for (int i = f.pos; f.text[i]; ++i) {
    if (!is_blank(static_cast<unsigned char>(f.text[i])) && f.text[i] != ';') return false;
  }
  return true;
}

void close_input(bool announce) {
  if (stack_.top == 0) return;
  if (level_hooks.closing) level_hooks.closing(stack_.top);
  InputFrame& f = current_frame();
  if (f.stream && f.stream != stdin) std::fclose(f.stream);
  f.stream = nullptr;
  stack_.pool_used -= f.pool_used;
  f.pool_used = 0;
  --stack_.top;
  if (stack_.top > 0) {
    if (announce) out_line({"Again reading from", current_frame().name});
  } else if (!output_state.inner_silent_search) {
    clear_progress();
  }
}

void unwind_input() {
  if (stack_.frames.empty()) return;  // failure before the stack exists
  if (level_hooks.unwinding) level_hooks.unwinding(stack_.top);
  while (stack_.top > 0) {
    if (level_hooks.closing) level_hooks.closing(stack_.top);
    InputFrame& f = current_frame();
    if (f.stream && f.stream != stdin) std::fclose(f.stream);
    f.stream = nullptr;
    stack_.pool_used -= f.pool_used;
    f.pool_used = 0;
    --stack_.top;
  }
  if (level_hooks.unwound) level_hooks.unwound();
  InputFrame& k = stack_.frames[0];
  // Nothing of the failing line is left to read.
  if (k.at_eof) {
    place_eof_text(k);
  } else {
    k.text[0] = 0;
    k.pos = 0;
  }
}

void push_text_level(std::string text, const std::string& name) {
  if (stack_.top + 1 > stack_.max_levels) {
    error_exit({"You can't nest", number_text(stack_.max_levels), "files"});
  }
  InputFrame& f = stack_.frames[stack_.top + 1];
  f = InputFrame();
  f.name = name;
  f.arguments = {name};
  f.source = std::move(text);
  f.source_pos = 0;
  ++stack_.top;
  if (level_hooks.opened) level_hooks.opened(stack_.top);
}

void read_run_arguments() {
  InputFrame& f = stack_.frames[stack_.top + 1];
  int pool_before = stack_.pool_used;
  while (true) {
    int c = peek_char();
    if (c == ';') break;
    int len = read_token();
    if (len == 0) break;
    if (f.argument_count >= max_arguments) {
      error_exitf("Too many arguments for %s (max.: %i)", f.name.c_str(), max_arguments);
    }
    if (len > max_argument_length) error_exit("Argument too long");
    if (stack_.pool_used + len + 1 > argument_pool_size) error_exit("String of arguments too long");
    stack_.pool_used += len + 1;
    f.arguments.emplace_back(token_buffer, len);
    ++f.argument_count;
  }
  f.pool_used = stack_.pool_used - pool_before;
}

void run_file_from_token() {
  open_input_file(false);
  InputFrame& f = stack_.frames[stack_.top + 1];
  try {
    read_run_arguments();
  } catch (...) {
    std::fclose(f.stream);
    f.stream = nullptr;
    throw;
  }
  f.is_run_file = 1;
  activate_input(false);
  if (f.argument_count == 0) {
    out_line({"Running", f.name, "(with no arguments)"});
  } else {
    out_append_word("Running");
    out_append_word(f.name);
    out_append_word("with arguments:");
    for (int i = 1; i <= f.argument_count; ++i) out_append_word(f.arguments[i]);
    out_newline();
    send_line();
  }
}

int plain_next_char() {
  for (;;) {
    InputFrame& f = current_frame();
    unsigned char c = static_cast<unsigned char>(f.text[f.pos]);
    if (c == 0) {
      refill();
      continue;
    }
    if (c == ',' && !shell_state.quoted_text && stack_.top == 0) {
      f.text[f.pos] = ';';
      c = ';';
    }
    ++f.pos;
    if (c == '\n') ++f.line_number;
    return c;
  }
}

void plain_unread_char() {
  InputFrame& f = current_frame();
  if (f.pos > 0) {
    --f.pos;
    if (f.text[f.pos] == '\n' && f.line_number > 1) --f.line_number;
  }
}

int next_nonblank() {
  int c;
  do c = next_char();
  while (is_blank(c));
  return c;
}

int peek_char() {
  int c = next_nonblank();
  unread_char();
  return c;
}

int accept_char(int c) {
  int d = next_nonblank();
  if (d == c) return 1;
  unread_char();
  return 0;
}

void skip_to_char(int c) {
  int d;
  do d = next_char();
  while (d != c);
  unread_char();
}

int read_token() {
  int c = next_nonblank();
  int n = 0;
  while (!is_blank(c) && c != ';') {
    if (n < token_buffer_size) token_buffer[n++] = static_cast<char>(c);
    else break;
    c = next_char();
  }
  token_buffer[n] = 0;
  unread_char();
  return n;
}

int read_line_word() {
  int c = next_nonblank();
  int n = 0;
  while (c && !std::isspace(c) && n < token_buffer_size) {
    token_buffer[n++] = static_cast<char>(c);
    c = next_char();
  }
  token_buffer[n] = 0;
  unread_char();
  return n;
}

int read_command_word() {
  int c = next_nonblank();
  int n = 0;
  while (std::isalpha(c)) {
    if (n >= shell_state.name_limit) {
      token_buffer[n] = 0;
      error_exit("Name too long");
    }
    token_buffer[n++] = static_cast<char>(std::tolower(c));
    c = next_char();
  }
  token_buffer[n] = 0;
  unread_char();
  return n;
}

int read_name() {
  int c = next_nonblank();
  int n = 0;
  while (std::isalpha(c) || c == '_' || c == '-' || c == '.' || c == '+') {
    if (n >= shell_state.name_limit) {
      token_buffer[n] = 0;
      error_exit("Name too long");
    }
    token_buffer[n++] = static_cast<char>(c);
    c = next_char();
  }
  token_buffer[n] = 0;
  unread_char();
  return n;
}

int read_int() {
  int c = peek_char();
  if (!std::isdigit(c)) return -1;
  char digits[16];
  int n = 0;
  c = next_char();
  while (std::isdigit(c)) {
    if (n >= 15) error_exitf("%s too long (max.: %i characters)\n", "Number", 15);
    digits[n++] = static_cast<char>(c);
    c = next_char();
  }
  digits[n] = 0;
  if (c > 32) unread_char();
  long long v = std::strtoll(digits, nullptr, 10);
  if (v > 0x7fffffff) v = 0x7fffffff;
  return static_cast<int>(v);
}

double read_real() {
  int c = peek_char();
  if (!std::isdigit(c) && c != '.') return -1.0;
  char text[26];
  int n = 0;
  bool point = false;
  c = next_char();
  while (std::isdigit(c) || (c == '.' && !point)) {
    if (c == '.') point = true;
    if (n >= 25) error_exitf("%s too long (max.: %i characters)\n", "Number", 25);
    text[n++] = static_cast<char>(c);
    c = next_char();
  }
  text[n] = 0;
  if (!(is_blank(c) && c != '\n')) unread_char();
  return std::strtod(text, nullptr);
}

int at_word_end(int consume) {
  if (consume) next_char();
  int c = next_char();
  unread_char();
  return (is_blank(c) || c == ';' || c == '&') ? 1 : 0;
}

std::string read_rest_of_command() {
  std::string s;
  int c = next_nonblank();
  while (c != ';') {
    s.push_back(static_cast<char>(c));
    c = next_char();
  }
  unread_char();
  while (!s.empty() && is_blank(static_cast<unsigned char>(s.back()))) s.pop_back();
  return s;
}

SourceSpan current_source_span() {
  SourceSpan s;
  if (stack_.frames.empty()) return s;
  const InputFrame& f = stack_.frames[stack_.top];
  int len = static_cast<int>(std::strlen(f.text));
  int pos = std::min(f.pos, len);
  int start = std::max(0, pos - 37);
  if (start + 75 > len) start = std::max(0, len - 75);
  int end = std::min(len, start + 75);
  if (end <= start) return s;
  s.span.assign(f.text + start, end - start);
  for (char& ch : s.span) {
    if (static_cast<unsigned char>(ch) < 32) ch = ' ';
  }
  s.caret = pos - start;
  if (stack_.top > 0 && f.stream) s.file = f.name;
  s.valid = true;
  return s;
}

}  // namespace qax::shell
