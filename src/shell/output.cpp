// Output channels, progress line and interrupt polling.
#include "shell/file_access.h"
#include "shell/output.h"

#include <csignal>
#include <ctime>
#include <fcntl.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>

#include "shell/failure.h"
#include "shell/input.h"
#include "shell/state.h"

namespace qax::shell {

void (*table_capture)(const std::vector<std::string>& values) = nullptr;

OutputState output_state;

namespace {

constexpr std::size_t log_buffer_size = 2046;

// Non-blocking read of one byte from a terminal standard input; never touches
// standard input that is a file or a pipe, since that holds commands.
int default_read_key(bool blocking) {
  if (!isatty(0)) return -1;
  int flags = fcntl(0, F_GETFL);
  if (!blocking) fcntl(0, F_SETFL, flags | O_NONBLOCK);
  unsigned char c;
  ssize_t n = read(0, &c, 1);
  if (!blocking) fcntl(0, F_SETFL, flags);
  return n == 1 ? c : -1;
}

void write_console(std::string_view text) {
  // Lines longer than the screen are cut on the console only.
  int width = output_state.screen_columns - 1;
  bool cut = output_state.curses_active || isatty(2);
  std::string out;
  out.reserve(text.size() + 8);
  for (char c : text) {
    if (c == '\n') {
      out.push_back('\n');
      if (output_state.curses_active) out.push_back('\r');
      output_state.console_column = 0;
      if (switches.page_stop && ++output_state.printed_lines >= output_state.screen_lines - 2) {
        std::fwrite(out.data(), 1, out.size(), stderr);
        out.clear();
        output_state.printed_lines = 0;
        check_interrupt(0);
      }
      continue;
    }
    if (c == '\r') output_state.console_column = 0;
    if (cut && output_state.console_column >= width) continue;
    out.push_back(c);
    ++output_state.console_column;
  }
  std::fwrite(out.data(), 1, out.size(), stderr);
  std::fflush(stderr);
}

struct TextBuffer {
  std::deque<std::string> lines;  // finished lines (compressed when on)
  std::string partial;            // the unfinished last line
  std::size_t capacity = 200000;  // bytes of the area
  std::size_t max_lines = 20000;  // entries of the line table
  std::size_t used = 0;           // bytes in lines
  bool compressed = false;        // runs of blanks stored as 1 + count
  bool wrapped = false;           // some lines were dropped
};
TextBuffer text_buffer_;

std::string compress_line(const std::string& s) {
  std::string out;
  for (std::size_t i = 0; i < s.size();) {
    std::size_t j = i;
    while (j < s.size() && s[j] == ' ' && j - i < 125) ++j;
    if (j - i >= 2) {
      out.push_back('\1');
      out.push_back(static_cast<char>(j - i));
      i = j;
    } else {
      out.push_back(s[i] == '\1' ? static_cast<char>(255) : s[i]);
      ++i;
    }
  }
  return out;
}

std::string expand_line(const std::string& s) {
  std::string out;
  for (std::size_t i = 0; i < s.size(); ++i) {
    if (s[i] == '\1' && i + 1 < s.size()) {
      out.append(static_cast<unsigned char>(s[i + 1]), ' ');
      ++i;
    } else if (static_cast<unsigned char>(s[i]) == 255) {
      out.push_back(' ');
    } else {
      out.push_back(s[i]);
    }
  }
  return out;
}

void text_buffer_push_line(std::string line) {
  TextBuffer& tb = text_buffer_;
  if (tb.compressed) line = compress_line(line);
  tb.used += line.size() + 1;
  tb.lines.push_back(std::move(line));
  if (tb.lines.size() > tb.max_lines && !tb.wrapped) {
    // The first wrap clears the buffer with a note; the line that caused it stays.
    std::string last = std::move(tb.lines.back());
    tb.lines.clear();
    tb.used = 0;
    tb.wrapped = true;
    std::string note = "NOTE: wrapped lines before wrapping buffer contents!";
    tb.used += note.size() + 1 + last.size() + 1;
    tb.lines.push_back(note);
    tb.lines.push_back(std::move(last));
  }
  while ((tb.used > tb.capacity || tb.lines.size() > tb.max_lines) && !tb.lines.empty()) {
    tb.used -= tb.lines.front().size() + 1;
    tb.lines.pop_front();
    tb.wrapped = true;
  }
}

}  // namespace

KeyReaderFn read_key = default_read_key;

void text_buffer_init(int kilobytes) {
  text_buffer_ = TextBuffer();
  std::size_t bytes = std::max<std::size_t>(static_cast<std::size_t>(kilobytes) * 1000, 50000);
  text_buffer_.capacity = bytes;
  text_buffer_.max_lines = bytes / 10;
}

void text_buffer_add(std::string_view text) {
  for (char c : text) {
    if (c == '\n') {
      text_buffer_push_line(std::move(text_buffer_.partial));
      text_buffer_.partial.clear();
    } else if (c != '\r') {
      text_buffer_.partial.push_back(c);
    }
  }
}

void text_buffer_clear() {
  text_buffer_.lines.clear();
  text_buffer_.partial.clear();
  text_buffer_.used = 0;
  text_buffer_.wrapped = false;
}

int text_buffer_line_count() {
  return static_cast<int>(text_buffer_.lines.size() + (text_buffer_.partial.empty() ? 0 : 1));
}

std::string text_buffer_line(int index) {
  if (index < 0) return {};
  if (static_cast<std::size_t>(index) < text_buffer_.lines.size()) {
    return text_buffer_.compressed ? expand_line(text_buffer_.lines[index]) : text_buffer_.lines[index];
  }
  if (static_cast<std::size_t>(index) == text_buffer_.lines.size()) return text_buffer_.partial;
  return {};
}

TextBufferInfo text_buffer_info() {
  TextBufferInfo info;
  info.kilobytes = static_cast<int>(text_buffer_.capacity / 1000);
  info.percent_used = static_cast<int>((text_buffer_.used + text_buffer_.partial.size()) * 100 /
                                       std::max<std::size_t>(1, text_buffer_.capacity));
  info.compressed = text_buffer_.compressed;
  return info;
}

void text_buffer_set_compression(bool on) {
  text_buffer_clear();
  text_buffer_.compressed = on;
}

bool text_buffer_compressed() { return text_buffer_.compressed; }

void flush_log() {
  OutputState& o = output_state;
  if (o.log_stream && !o.log_buffer.empty()) {
    std::fwrite(o.log_buffer.data(), 1, o.log_buffer.size(), o.log_stream);
    std::fflush(o.log_stream);
  }
  o.log_buffer.clear();
}

void send_line() {
  OutputState& o = output_state;
  std::string text;
  text.swap(o.line);
  if (text.empty()) return;
  if (o.output_mode == 2) {
    if (o.log_stream) {
      flush_log();
      std::fwrite(text.data(), 1, text.size(), o.log_stream);
      std::fflush(o.log_stream);
    }
    return;
  }
  if (o.output_mode != 0) return;
  if (o.log_stream && !(o.silent_flags & 1)) {
    if (o.log_buffer.size() + text.size() > log_buffer_size) flush_log();
    o.log_buffer += text;
    if (o.log_buffer.size() > log_buffer_size) flush_log();
  }
  if (!(o.silent_flags & 4)) text_buffer_add(text);
  if ((o.silent_flags & 2) || shell_state.background) return;
  if (switches.brk || shell_state.worker_mode) check_interrupt(1);
  write_console(text);
}

void console_write(std::string_view text) {
  if (shell_state.background) return;
  write_console(text);
}

void out_append(std::string_view text) {
  if (output_state.line.size() + text.size() > out_line_size) {
    // A full line is sent before more text is added, so nothing is lost.
    send_line();
    if (text.size() > out_line_size) {
      output_state.line.assign(text);
      send_line();
      return;
    }
  }
  output_state.line.append(text);
}

void out_append_word(std::string_view text) {
  out_append(text);
  out_append(" ");
}

void out_char(char c) { out_append(std::string_view(&c, 1)); }
void out_spaces(int n) {
  if (n > 0) out_append(std::string(static_cast<std::size_t>(n), ' '));
}
void out_newline() { out_append("\n"); }

void out_text(std::initializer_list<std::string_view> pieces) {
  for (auto p : pieces) out_append(p);
  send_line();
}

void out_line(std::initializer_list<std::string_view> pieces) {
  for (auto p : pieces) out_append_word(p);
  out_newline();
  send_line();
}

void out_format(const char* format, ...) {
  char buffer[10000];
  va_list ap;
  va_start(ap, format);
  std::vsnprintf(buffer, sizeof buffer, format, ap);
  va_end(ap);
  out_line({buffer});
}

void out_printf(const char* format, ...) {
  char buffer[10000];
  va_list ap;
  va_start(ap, format);
  std::vsnprintf(buffer, sizeof buffer, format, ap);
  va_end(ap);
  out_append(buffer);
  send_line();
}

void out_flush() {
  if (!output_state.line.empty() && output_state.line.back() != '\n') output_state.line.push_back('\n');
  send_line();
}

std::string number_text(long long n) { return std::to_string(n); }

std::string padded_number(int width, long long n) {
  std::string s = std::to_string(n);
  int w = width < 0 ? -width : width;
  if (static_cast<int>(s.size()) >= w) return s;
  std::string pad(static_cast<std::size_t>(w) - s.size(), ' ');
  return width < 0 ? s + pad : pad + s;
}

std::string bytes_text(std::uint64_t n) {
  char buf[64];
  double mb = static_cast<double>(n) / 1e6;
  if (n > 1000000000ULL && n % 1000000ULL == 0) {
    std::snprintf(buf, sizeof buf, "%u Mbytes", static_cast<unsigned>(n / 1000000ULL));
  } else {
    std::snprintf(buf, sizeof buf, "%.2f Mbytes", mb);
  }
  return buf;
}

void clear_progress() {
  if (output_state.progress_suppressed) return;
  if (!switches.report && !shell_state.macros_on) return;
  if (shell_state.background || (output_state.silent_flags & 2)) return;
  if (!output_state.curses_active && !isatty(2)) return;
  console_write("\r" + std::string(79, ' ') + "\r");
  output_state.progress_last_percent = -1;
}

int ask_key(std::string_view question, std::string_view keys) {
  console_write(question);
  for (;;) {
    int k = read_key(true);
    if (k < 0) return 27;  // no keyboard: treat as cancel
    if (k == 27) return 27;
    int lower = (k >= 'A' && k <= 'Z') ? k + 32 : k;
    if (keys.find(static_cast<char>(lower)) != std::string_view::npos) return lower;
  }
}

void warning(std::initializer_list<std::string_view> pieces) {
  std::string text;
  for (auto p : pieces) text.append(p);
  if (switches.warn && !shell_state.background && isatty(0)) {
    clear_progress();
    if (switches.beep) console_write("\a");
    out_text({"WARNING - ", text, "\n"});
    int k = ask_key("Continue? ", "yn");
    if (k == 'y') return;
    out_text({"User interrupt...\n"});
    unwind_input();
    recover();
  }
  int saved = output_state.silent_flags;
  output_state.silent_flags |= 2;
  out_text({"WARNING:\n", text, "\n"});
  output_state.silent_flags = saved;
}

std::string control_file_name(const char* stem) {
  return std::string(stem) + "_qax_" + std::to_string(shell_state.pid);
}

namespace {

bool file_exists(const std::string& name) { return access(name.c_str(), F_OK) == 0; }

[[noreturn]] void abort_command() {
  output_state.line.clear();
  output_state.output_mode = 0;
  shell_state.command_word_mark = 0;
  clear_progress();
  out_text({"\nUser interrupt...\n"});
  unwind_input();
  if (shell_state.background && !shell_state.worker_mode && take_execute_file()) {
    // After a stop in background the run goes on with the execute file: the usual
    // clean-up, then back to the command cycle, which now reads that file.
    shell_state.background = 0;
    try {
      recover();
    } catch (...) {
      shell_state.background = 1;
      throw;
    }
  }
  recover();
}

int poll_background(int mode) {
  double t = now_seconds();
  OutputState& o = output_state;
  if (mode != 100) {
    if (o.last_control_check < 0) {
      o.last_control_check = t;
      return 0;
    }
    if (t - o.last_control_check < 10) return 0;
  }
  o.last_control_check = t;
  std::string stop = control_file_name("stop");
  if (file_exists(stop)) {
    std::remove(stop.c_str());
    if (shell_state.search_running) {
      shell_state.stop_search_flag = 1;
      ++shell_state.interrupt_events;
      return 1;
    }
    abort_command();
  }
  std::string pause = control_file_name("pause");
  while (file_exists(pause)) sleep(3);
  return 0;
}

}  // namespace

namespace {
double interrupt_deadline = 0;  // now_seconds() after which long work stops; 0 none

// Ctrl-C at a terminal: the handler only notes it; polling treats it as ESC. A second one
// within a second ends the program at once.
volatile std::sig_atomic_t sigint_pending = 0;
volatile double sigint_time = 0;

double monotonic_seconds() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<double>(ts.tv_sec) + ts.tv_nsec * 1e-9;
}

void on_sigint(int) {
  const double t = monotonic_seconds();
  if (sigint_pending && t - sigint_time < 1.0) {
    static const char note[] = "\nInterrupted twice: quitting\n";
    (void)!write(2, note, sizeof note - 1);
    _exit(130);
  }
  sigint_time = t;
  sigint_pending = 1;
}

bool take_sigint() {
  if (!sigint_pending) return false;
  sigint_pending = 0;
  return true;
}
}  // namespace

void install_interrupt_key() {
  struct sigaction sa {};
  sa.sa_handler = on_sigint;
  sigemptyset(&sa.sa_mask);
  sa.sa_flags = SA_RESTART;
  sigaction(SIGINT, &sa, nullptr);
}

void forget_interrupt_key() { sigint_pending = 0; }

void set_interrupt_deadline(double at) { interrupt_deadline = at; }

int check_interrupt(int mode) {
  if (shell_state.stop_search_flag) return 1;
  if (interrupt_deadline > 0 && now_seconds() > interrupt_deadline) {
    shell_state.stop_search_flag = 1;
      ++shell_state.interrupt_events;
    return 1;
  }
  if (shell_state.background) {
    if (mode == 1 || mode == 100) return poll_background(mode);
    return 0;
  }
  if (mode == 0) {
    int k = take_sigint() ? 27 : read_key(true);
    if (k == 27) abort_command();
    return 0;
  }
  if (mode == 2) abort_command();
  int k = take_sigint() ? 27 : read_key(false);
  if (k < 0) return 0;
  if (k == 27) {
    if (!switches.break_text.empty()) {
      if (ask_key(switches.break_text + " (y/n)", "yn") != 'y') return 0;
    }
    if (shell_state.search_running) {
      shell_state.stop_search_flag = 1;
      ++shell_state.interrupt_events;
      return 1;
    }
    abort_command();
  }
  if (k == 'm' && shell_state.search_running) {
    if (ask_key("Are you sure you want to stop current search and move on? (y/n)", "yn") == 'y') {
      shell_state.stop_search_flag = 1;
      ++shell_state.interrupt_events;
      return 1;
    }
    return 0;
  }
  if (k == 'p') {
    double start = now_seconds();
    console_write("\rProgram is paused... press <enter> to continue...     ");
    while (read_key(false) < 0) sleep(1);
    shell_state.command_start_time += now_seconds() - start;
    std::string wipe;
    for (int i = 0; i < 54; ++i) wipe += "\b \b";
    console_write(wipe);
  }
  return 0;
}

void show_progress(long long done, long long total, std::string_view label) {
  OutputState& o = output_state;
  double t = now_seconds();
  // In background the control files act whatever "break" says.
  if ((switches.brk == 1 || shell_state.worker_mode || shell_state.background) && t - o.last_poll_time > 1.0) {
    if (shell_state.timeout_seconds > 0 && shell_state.search_running &&
        t - shell_state.command_start_time >= shell_state.timeout_seconds && !shell_state.stop_search_flag) {
      shell_state.stop_search_flag = 3;
      out_text({"\nInterrupting search (time is out!)\n\n"});
      return;
    }
    check_interrupt(1);
    o.last_poll_time = t;
  }
  if (o.inner_silent_search) return;
  if (switches.report_log && !switches.report && switches.report_seconds > 0 &&
      t - o.last_report_time >= switches.report_seconds) {
    int pct = total > 0 ? static_cast<int>(done * 100 / total) : 100;
    if (pct < 0) pct = 100;
    int saved = o.silent_flags;
    o.silent_flags |= 2;
    out_printf("%s: %s (%i%% completed)\n", shell_state.current_command_name.c_str(),
               std::string(label).c_str(), pct);
    o.silent_flags = saved;
    flush_log();
    o.last_report_time = t;
  }
  if (!switches.report || o.progress_suppressed || shell_state.background || (o.silent_flags & 2)) return;
  // The progress line is drawn over itself with "\r": only a terminal shows it.
  if (!o.curses_active && !isatty(2)) return;
  // The progress line is redrawn with "\r": only a terminal can show it (clear_progress
  // cannot wipe it from a file or pipe either).
  if (!o.curses_active && !isatty(2)) return;
  if (t - o.progress_last_time < 1.0) return;
  o.progress_last_time = t;
  if (done == 0 && total == 0) {
    static const char spin[] = {'/', '-', '\\', '|'};
    std::string s = "\r" + std::string(label) + spin[o.spinner++ & 3] + "\r";
    console_write(s);
    return;
  }
  int pct = total > 0 ? static_cast<int>(done * 100 / total) : 0;
  if (pct < 0) pct = 0;
  if (pct > 100) pct = 100;
  if (pct == o.progress_last_percent) return;
  o.progress_last_percent = pct;
  int xs = pct * 30 / 100;
  std::string s = "\r" + std::string(label) + std::string(xs, 'X') + std::string(30 - xs, '=') + "\r";
  console_write(s);
}

bool open_log(const std::string& name, bool append) {
  close_log();
  OutputState& o = output_state;
  if (name == "stdout") {
    o.log_stream = stdout;
    o.log_is_stdout = true;
    o.log_name = name;
    return true;
  }
  std::FILE* f = open_user_file(name, append ? "ab" : "wb");
  if (!f) return false;
  o.log_stream = f;
  o.log_name = name;
  return true;
}

void close_log() {
  OutputState& o = output_state;
  flush_log();
  if (o.log_stream && !o.log_is_stdout) std::fclose(o.log_stream);
  o.log_stream = nullptr;
  o.log_is_stdout = false;
  o.log_name.clear();
}

bool take_execute_file() {
  if (shell_state.worker_mode || shell_state.execute_disabled) return false;
  std::string name = control_file_name("execute");
  if (!file_exists(name)) return false;
  std::FILE* in = open_user_file(name, "rb");
  if (!in) return false;
  ++shell_state.execute_count;
  std::string copy = ".qaxexec_" + std::to_string(shell_state.execute_count) + "_qax_" + std::to_string(shell_state.pid);
  std::FILE* out = open_user_file(copy, "wb");
  if (!out) {
    std::fclose(in);
    return false;
  }
  char buf[4096];
  std::size_t n;
  while ((n = std::fread(buf, 1, sizeof buf, in)) > 0) std::fwrite(buf, 1, n, out);
  std::fclose(in);
  std::fclose(out);
  if (std::remove(name.c_str()) != 0) {
    shell_state.execute_disabled = 1;
    out_printf("\n------------  N O T E  -----------------\nFile \"execute_qax_%i\" cannot be removed!\nWill run it and exit (no further resetting\nwill be allowed after execution of file).\n------------------------------------------\n", shell_state.pid);
  }
  std::snprintf(token_buffer, sizeof token_buffer, "%s", copy.c_str());
  open_input_file(false);
  activate_input(true);
  return true;
}

}  // namespace qax::shell
