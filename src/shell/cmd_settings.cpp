// Commands of the console, the text buffer and the run settings: screen, cls, txtsize,
// svtxt, lquote, pause, report, watch, tables, cdir, rdir, timeout, vversion, thanks.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>

#include "shell/file_access.h"
#include "shell/arena.h"
#include "shell/commands.h"
#include "shell/console.h"
#include "shell/failure.h"
#include "shell/input.h"
#include "shell/output.h"
#include "shell/shell_commands.h"
#include "shell/state.h"

namespace qax::shell {

namespace {

constexpr int min_screen_size = 10;       // lines and columns
constexpr int min_text_buffer_kb = 10;    // txtsize N
constexpr int max_table_decimals = 10;    // tables /N

void report_text_buffer() {
  TextBufferInfo info = text_buffer_info();
  out_printf("Text buffer: %i Kb (%i%% of buffer in use%s\n", info.kilobytes, info.percent_used,
             info.compressed ? "; buffer is compressed)" : "; buffer is not compressed)");
}

// Report of report +N/M/K.
void report_status_records() {
  std::string s = "Record search status: ";
  bool any = false;
  auto add = [&](const char* format, int n) {
    if (n <= 0) return;
    char buf[64];
    std::snprintf(buf, sizeof buf, format, n);
    if (any) s += ' ';
    s += buf;
    any = true;
  };
  add("every %i secs.", switches.report_seconds);
  add("every %i rep(s).", switches.report_reps);
  add("every %i tree(s)", switches.report_trees);
  if (!any) s += "none";
  out_text({s, "\n"});
}

void report_timeout() {
  int t = shell_state.timeout_seconds;
  out_printf("Time-out for searches is %i:%02i:%02i%s\n", t / 3600, t / 60 % 60, t % 60,
             t == 0 ? " (i.e. no time-out!)" : "");
}

}  // namespace

void print_version_banner() {
  out_printf("\n%s, version %s (%s), 64 bits\n\n", shell_state.program_name.c_str(), program_version,
             program_date);
}

void cmd_screen() {
  if (peek_char() != ';') {
    int lines = read_int();
    if (lines < 0) error_exit("Expected number of lines (screen N x M)");
    int columns = output_state.screen_columns;
    if (accept_char('x') || accept_char('X') || accept_char('*')) {
      columns = read_int();
      if (columns < 0) error_exit("Expected number of columns (screen N x M)");
    } else if (peek_char() != ';') {
      columns = read_int();
      if (columns < 0) error_exit("Expected number of columns (screen N x M)");
    }
    output_state.screen_lines = lines < min_screen_size ? min_screen_size : lines;
    output_state.screen_columns = columns < min_screen_size ? min_screen_size : columns;
  }
  out_line({"Screen size is", number_text(output_state.screen_lines), "x",
            number_text(output_state.screen_columns)});
}

void cmd_cls() {
  // Only a real terminal is cleared: the clearing codes would otherwise end up in
  // redirected output.
  if (shell_state.background || !console_is_terminal()) return;
  std::fflush(stderr);
  if (std::system("clear") != 0) return;
  output_state.console_column = 0;
  output_state.printed_lines = 0;
}

void cmd_txtsize() {
  int c = peek_char();
  if (c == '=' || c == '-') {
    next_char();
    bool on = c == '=';
    if (on != text_buffer_compressed()) {
      warning({"Changing buffer mode requires clearing it"});
      text_buffer_set_compression(on);
    }
    out_line({"Buffer compression", on ? "is ON" : "is OFF"});
    return;
  }
  if (c == '/') {
    next_char();
    std::size_t bytes = 0;
    int n = text_buffer_line_count();
    for (int i = 0; i < n; ++i) bytes += text_buffer_line(i).size() + 1;
    out_printf("Buffer (%i Kb) occupies ca. %i Kbytes on disk\n", text_buffer_info().kilobytes,
               static_cast<int>((bytes + 999) / 1000));
    return;
  }
  if (c != ';') {
    int kb = read_int();
    if (kb < 0) error_exit("Expected buffer size in Kb (txtsize N)");
    if (kb < min_text_buffer_kb) error_exitf("Text buffer must have at least %i Kb", min_text_buffer_kb);
    warning({"Resetting buffer size requires clearing it."});
    bool compressed = text_buffer_compressed();
    text_buffer_init(kb);
    if (compressed) text_buffer_set_compression(true);
  }
  report_text_buffer();
}

void cmd_svtxt() {
  if (!output_state.log_stream) error_exit("No log file open");
  int count = text_buffer_line_count();
  int first = 0;
  int last = count - 1;
  if (peek_char() != ';') {
    first = read_int();
    if (first < 0) error_exit("Expected first and last lines of buffer (svtxt A B)");
    accept_char('-');
    if (peek_char() != ';') {
      last = read_int();
      if (last < 0) error_exit("Expected first and last lines of buffer (svtxt A B)");
    }
  }
  if (last > count - 1) last = count - 1;
  if (first > last) error_exitf("No lines %i to %i in buffer (%i lines)", first, last, count);
  flush_log();
  // The lines are read before anything else is printed, since printing adds to the buffer.
  for (int i = first; i <= last; ++i) {
    std::string line = text_buffer_line(i);
    line.push_back('\n');
    std::fwrite(line.data(), 1, line.size(), output_state.log_stream);
  }
  std::fflush(output_state.log_stream);
  out_line({"Buffer: lines", number_text(first), "-", number_text(last), "saved to", output_state.log_name});
}

void cmd_lquote() {
  int c = peek_char();
  switch (c) {
    case '=':
    case '-':
      next_char();
      switches.lquote_literal = c == '=';
      break;
    case '[':
    case ']':
      next_char();
      switches.lquote_ascii = c == '[';
      break;
    case '<':
    case '>':
      next_char();
      switches.lquote_stderr = c == '<';
      break;
    case ';':
      out_line({"Literal quotes", switches.lquote_literal ? "is ON" : "is OFF"});
      out_line({"ASCII conversions", switches.lquote_ascii ? "is ON" : "is OFF"});
      out_line({"Quotes to stderr", switches.lquote_stderr ? "is ON" : "is OFF"});
      return;
    default:
      next_char();
      error_exit({"Wrong argument for lquote:", std::string(1, static_cast<char>(c))});
  }
  if (!switches.report) return;
  if (c == '=' || c == '-') out_line({"Literal quotes", switches.lquote_literal ? "is ON" : "is OFF"});
  if (c == '[' || c == ']') out_line({"ASCII conversions", switches.lquote_ascii ? "is ON" : "is OFF"});
  if (c == '<' || c == '>') out_line({"Quotes to stderr", switches.lquote_stderr ? "is ON" : "is OFF"});
}

void cmd_pause() {
  int c = peek_char();
  if (c == '=' || c == '-' || c == '/') {
    read_switch(switches.page_stop, "Page stop");
    return;
  }
  if (c == ';') {
    // Waits for a key on a terminal; without one there is nobody to wait for.
    if (shell_state.background || !isatty(0)) return;
    double start = now_seconds();
    console_write("Press any key to continue...");
    read_key(true);
    console_write("\r                            \r");
    shell_state.command_start_time += now_seconds() - start;
    return;
  }
  int seconds = read_int();
  if (seconds < 0) error_exit("Expected number of seconds (pause N)");
  // One-second steps, so that ESC or a stop file ends the wait.
  for (int i = 0; i < seconds; ++i) {
    sleep(1);
    check_interrupt(1);
  }
}

void cmd_report() {
  int c = peek_char();
  if (c == '[' || c == ']') {
    next_char();
    switches.report_log = c == '[';
    out_text({switches.report_log ? "Progress records go to the log file (when report is off)\n"
                                  : "No progress records to the log file\n"});
    return;
  }
  if (c == '+') {
    next_char();
    int n = read_int();
    switches.report_seconds = n < 0 ? 0 : n;
    switches.report_reps = 0;
    switches.report_trees = 0;
    if (accept_char('/')) {
      n = read_int();
      switches.report_reps = n < 0 ? 0 : n;
      if (accept_char('/')) {
        n = read_int();
        switches.report_trees = n < 0 ? 0 : n;
      }
    }
    report_status_records();
    return;
  }
  read_switch(switches.report, "Report");
}

void cmd_watch() {
  int c = peek_char();
  if (c == '[' || c == ']') {
    next_char();
    shell_state.watch_ram = c == '[';
    out_text({shell_state.watch_ram ? "Measuring RAM used for each command\n"
                                    : "Not measuring RAM used for each command\n"});
    if (accept_char('!')) {
      shell_state.peak_ram_overall = 0;
      shell_state.peak_ram_command = 0;
      arena.peak = 0;
      out_text({"Resetting max. RAM counter to 0\n"});
    }
    return;
  }
  if (c == '/') {
    next_char();
    auto secs = static_cast<long long>(now_seconds() - shell_state.watch_reference);
    out_line({"Ellapsed time:", number_text(secs), "secs."});
    return;
  }
  if (c == '*') {
    next_char();
    shell_state.watch_reference = now_seconds();
    return;
  }
  int on = shell_state.watch_state ? 1 : 0;
  read_switch(on, "Watch");
  // The watch command itself is never timed; the report starts with the next one.
  shell_state.watch_state = on ? 2 : 0;
}

void cmd_tables() {
  if (peek_char() == '/') {
    next_char();
    int c = peek_char();
    if (c != ';') {
      bool negative = accept_char('-');
      int n = read_int();
      if (n < 0) error_exit("Expected number of decimals (tables /N)");
      if (negative) n = 0;
      if (n > max_table_decimals) error_exitf("Can't set precision to %i (maximum is %i)", n, max_table_decimals);
      switches.table_decimals = n;
    }
    out_printf("Floating point precision is %i\n", switches.table_decimals);
    return;
  }
  read_switch(switches.tables_informative, "Optional tables");
}

void cmd_cdir() {
  if (peek_char() != ';') {
    read_token();
    std::string dir(token_buffer);
    check_file_name(dir);
    if (chdir(dir.c_str()) != 0) error_exit({"Cannot change directory to", dir});
  }
  char buf[4096];
  if (!getcwd(buf, sizeof buf)) error_exit("Cannot get current directory");
  out_printf("Current directory is %s\n", buf);
}

void cmd_rdir() {
  if (peek_char() == ';') error_exit("No run-path given");
  read_token();
  run_path = token_buffer;
  if (run_path.back() != '/') run_path.push_back('/');
  out_line({"Run-path is", run_path});
}

void cmd_timeout() {
  if (peek_char() != ';') {
    // h:m:s, m:s or s; the last field is always seconds.
    long long fields[3] = {0, 0, 0};
    int count = 0;
    do {
      int n = read_int();
      if (n < 0) error_exit("Expected time-out as hh:mm:ss");
      if (count == 3) error_exit("Expected time-out as hh:mm:ss");
      fields[count++] = n;
    } while (accept_char(':'));
    long long seconds = 0;
    for (int i = 0; i < count; ++i) seconds = seconds * 60 + fields[i];
    if (seconds > 0x7fffffff) seconds = 0x7fffffff;
    shell_state.timeout_seconds = static_cast<int>(seconds);
  }
  report_timeout();
}

void cmd_vversion() { print_version_banner(); }

void cmd_thanks() {
  out_text({"\nQAX is the work of a small team of programmers and of the many users\n"
            "who sent data sets, bug reports and ideas over the years. Thanks to all\n"
            "of them, to the colleagues who tested early versions on real matrices,\n"
            "and to the institutions that gave time and machines for the work.\n\n"});
}

}  // namespace qax::shell
