// The text-buffer viewer, and the view and clbuffer commands.
#define NCURSES_NOMACROS
#include "shell/file_access.h"
#include "shell/viewer.h"

#include <curses.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "shell/console.h"
#include "shell/failure.h"
#include "shell/history.h"
#include "shell/input.h"
#include "shell/output.h"
#include "shell/state.h"

namespace qax::shell {

ViewerState viewer_state;

namespace {

constexpr int key_escape = 27;
constexpr int smallest_screen = 10;  // lines or columns the screen keys stop at

// Screen area of the viewer: text rows, the status row under them, columns.
struct ViewerPage {
  int rows = 0;     // text rows
  int columns = 0;  // columns
};

ViewerPage page_size() {
  ViewerPage p;
  int lines = output_state.screen_lines;
  int cols = output_state.screen_columns;
  if (console_curses_on()) {
    if (LINES > 0) lines = std::min(lines, LINES);
    if (COLS > 0) cols = std::min(cols, COLS);
  }
  p.rows = std::max(1, lines - 1);
  p.columns = std::max(2, cols);
  return p;
}

int last_top(int total, int rows) { return std::max(0, total - rows); }

void clamp_position(const ViewerPage& p) {
  int total = text_buffer_line_count();
  viewer_state.top = std::clamp(viewer_state.top, 0, last_top(total, p.rows));
  viewer_state.shift = std::max(0, viewer_state.shift);
}

// Line i as shown: control characters as blanks, `shift` columns hidden, at most
// `width` columns. On the screen each byte must take one column, so bytes beyond
// ASCII show as "?" there.
std::string shown_line(int i, int shift, int width) {
  std::string s = text_buffer_line(i);
  bool screen = console_curses_on();
  for (char& c : s) {
    auto u = static_cast<unsigned char>(c);
    if (u < 32) c = ' ';
    else if (screen && u >= 127) c = '?';
  }
  if (static_cast<int>(s.size()) <= shift) return {};
  return s.substr(static_cast<std::size_t>(shift), static_cast<std::size_t>(width));
}

std::string lower_text(std::string s) {
  for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return s;
}

// Without a terminal: the page as it would be shown, on the console only.
void print_page() {
  ViewerPage p = page_size();
  clamp_position(p);
  int total = text_buffer_line_count();
  std::string out;
  for (int r = 0; r < p.rows && viewer_state.top + r < total; ++r) {
    out += shown_line(viewer_state.top + r, viewer_state.shift, p.columns - 1);
    out += '\n';
  }
  out += viewer_status_line(viewer_state.top, p.rows, total, p.columns - 1);
  out += '\n';
  console_write(out);
}

// --- The full-screen viewer under curses. ---

void draw_page() {
  ViewerPage p = page_size();
  clamp_position(p);
  int total = text_buffer_line_count();
  werase(stdscr);
  for (int r = 0; r < p.rows && viewer_state.top + r < total; ++r) {
    std::string s = shown_line(viewer_state.top + r, viewer_state.shift, p.columns);
    mvwaddnstr(stdscr, r, 0, s.c_str(), p.columns);
  }
  std::string status = viewer_status_line(viewer_state.top, p.rows, total, p.columns - 1);
  mvwaddnstr(stdscr, p.rows, 0, status.c_str(), p.columns - 1);
  wrefresh(stdscr);
}

// Reads a short text on the status row; false when left with ESC.
bool ask_text(const char* prompt, int longest, std::string& text) {
  ViewerPage p = page_size();
  text.clear();
  for (;;) {
    wmove(stdscr, p.rows, 0);
    wclrtoeol(stdscr);
    waddstr(stdscr, prompt);
    waddstr(stdscr, text.c_str());
    wrefresh(stdscr);
    int k = console_get_key();
    if (k < 0 || k == key_escape) return false;
    if (k == '\n') return true;
    if (k == KEY_BACKSPACE || k == 127 || k == 8) {
      if (!text.empty()) text.pop_back();
    } else if (k >= 32 && k < 127 && static_cast<int>(text.size()) < longest) {
      text.push_back(static_cast<char>(k));
    }
  }
}

bool ask_number(const char* prompt, int& value) {
  std::string text;
  if (!ask_text(prompt, 9, text) || text.empty()) return false;
  for (char c : text) {
    if (!std::isdigit(static_cast<unsigned char>(c))) return false;
  }
  value = std::atoi(text.c_str());
  return true;
}

void search_from(int from) {
  if (viewer_state.search_text.empty()) return;
  int found = viewer_find(viewer_state.search_text, from);
  if (found < 0) {
    beep();
    return;
  }
  viewer_state.top = found;
}

void show_help() {
  static const char* const help[] = {
      "Keys of the text buffer viewer:",
      "",
      "  up, down, +, -       one line back or forward",
      "  Page Up, o           one page back",
      "  Page Down, p         one page forward",
      "  Home, h              start of the buffer",
      "  End, e               end of the buffer",
      "  g                    go to a line",
      "  left, right, l, r    one column left or right",
      "  L or 8, R or 9       half a screen left or right",
      "  =                    lateral shift, in screens",
      "  :                    search for a string (ignoring case)",
      "  &                    search again",
      "  >, <                 more or fewer lines on screen",
      "  /, \\                 more or fewer columns on screen",
      "  ?                    this help",
      "  ESC, q, z            leave the viewer",
      "",
      "Press any key to go back",
  };
  werase(stdscr);
  int row = 0;
  for (const char* line : help) mvwaddnstr(stdscr, row++, 0, line, std::max(1, COLS - 1));
  wrefresh(stdscr);
  console_get_key();
}

// One key; false when it leaves the viewer.
bool viewer_key(int k) {
  ViewerPage p = page_size();
  int total = text_buffer_line_count();
  ViewerState& v = viewer_state;
  std::string text;
  int n = 0;
  switch (k) {
    case key_escape: case 'q': case 'z': case -1:
      return false;
    case KEY_UP: case '-': --v.top; break;
    case KEY_DOWN: case '+': ++v.top; break;
    case KEY_PPAGE: case 'o': v.top -= p.rows; break;
    case KEY_NPAGE: case 'p': v.top += p.rows; break;
    case KEY_HOME: case 'h': v.top = 0; break;
    case KEY_END: case 'e': v.top = last_top(total, p.rows); break;
    case KEY_LEFT: case 'l': --v.shift; break;
    case KEY_RIGHT: case 'r': ++v.shift; break;
    case 'L': case '8': v.shift -= p.columns / 2; break;
    case 'R': case '9': v.shift += p.columns / 2; break;
    case 'g':
      if (ask_number("Go to line: ", n) && n > 0) v.top = n - 1;
      break;
    case '=':
      if (ask_number("Lateral shift (screens): ", n)) v.shift = n * p.columns;
      break;
    case ':':
      if (ask_text("Enter string to search: ", viewer_search_size, text) && !text.empty()) {
        v.search_text = text;
        search_from(v.top + 1);
      }
      break;
    case '&': search_from(v.top + 1); break;
    case '>': ++output_state.screen_lines; break;
    case '<': output_state.screen_lines = std::max(smallest_screen, output_state.screen_lines - 1); break;
    case '/': ++output_state.screen_columns; break;
    case '\\': output_state.screen_columns = std::max(smallest_screen, output_state.screen_columns - 1); break;
    case '?': show_help(); break;
    default: break;
  }
  return true;
}

void run_full_screen() {
  const char* enter = console_enter_alternate();
  const char* leave = console_leave_alternate();
  bool alternate = *enter && *leave;
  if (alternate) {
    std::fputs(enter, stderr);
    std::fflush(stderr);
  }
  // Whatever curses thinks is on the screen is stale: draw everything anew.
  clearok(curscr, TRUE);
  do draw_page();
  while (viewer_key(console_get_key()));
  werase(stdscr);
  wrefresh(stdscr);
  if (alternate) {
    std::fputs(leave, stderr);
    std::fflush(stderr);
  }
  // The dialogue goes on in plain text: nothing of stdscr may be redrawn by a key read.
  untouchwin(stdscr);
  output_state.console_column = 0;
}

}  // namespace

void reset_viewer_state() { viewer_state = ViewerState(); }

std::string viewer_status_line(int top, int rows, int total, int width) {
  int first = total > 0 ? top + 1 : 0;
  int last = std::min(top + rows, total);
  char buf[128];
  std::snprintf(buf, sizeof buf, "** TXT BUFFER, lines %i-%i of %i (ESC to exit) **", first, last, total);
  std::string s = buf;
  if (static_cast<int>(s.size()) < width) s.append(static_cast<std::size_t>(width) - s.size(), '*');
  return s;
}

int viewer_start_shift(int top, int rows) {
  int total = text_buffer_line_count();
  int margin = -1;
  for (int i = top; i < top + rows && i < total; ++i) {
    std::string s = text_buffer_line(i);
    std::size_t lead = s.find_first_not_of(" \t");
    if (lead == std::string::npos) continue;
    if (margin < 0 || static_cast<int>(lead) < margin) margin = static_cast<int>(lead);
  }
  return std::max(0, margin - 3);
}

int viewer_find(const std::string& text, int from) {
  if (text.empty()) return -1;
  std::string key = lower_text(text);
  int total = text_buffer_line_count();
  for (int i = std::max(0, from); i < total; ++i) {
    if (lower_text(text_buffer_line(i)).find(key) != std::string::npos) return i;
  }
  return -1;
}

void run_viewer(int top) {
  ViewerPage p = page_size();
  int total = text_buffer_line_count();
  viewer_state.top = top < 0 ? last_top(total, p.rows) : top;
  clamp_position(p);
  viewer_state.shift = viewer_start_shift(viewer_state.top, p.rows);
  if (console_curses_on()) {
    run_full_screen();
  } else {
    print_page();
  }
}

namespace {

// Clears the buffer and fills it with the file, under a heading line.
void load_file_into_buffer(const std::string& name) {
  std::FILE* f = open_user_file(name, "rb");
  if (!f) error_exit({"Can't open", name});
  text_buffer_clear();
  text_buffer_add("** FILE: " + name + " **\n");
  char buf[4096];
  std::size_t n;
  char last = '\n';
  while ((n = std::fread(buf, 1, sizeof buf, f)) > 0) {
    text_buffer_add(std::string_view(buf, n));
    last = buf[n - 1];
  }
  std::fclose(f);
  if (last != '\n') text_buffer_add("\n");
}

void set_continuous(bool on) {
  ViewerState& v = viewer_state;
  if (on && !v.continuous) {
    v.saved_console_bit = output_state.silent_flags & 2;
    output_state.silent_flags |= 2;
    v.continuous = 1;
  } else if (!on && v.continuous) {
    output_state.silent_flags = (output_state.silent_flags & ~2) | v.saved_console_bit;
    v.continuous = 0;
  }
}

}  // namespace

void cmd_view() {
  int c = peek_char();
  if (c == ';') {
    run_viewer(-1);
    return;
  }
  if (c == ':') {
    next_char();
    std::string text = read_rest_of_command();
    if (static_cast<int>(text.size()) > viewer_search_size) text.resize(viewer_search_size);
    if (text.empty()) error_exit("No string to search given");
    viewer_state.search_text = text;
    int found = viewer_find(text, 0);
    if (found < 0) {
      console_write("String \"" + text + "\" not found in text buffer\n");
      return;
    }
    run_viewer(found);
    return;
  }
  if (c == '.' || c == '+' || c == '-') {
    // A lone mark is an option; followed by more it starts a file name.
    next_char();
    if (at_word_end(0)) {
      if (c == '+') set_continuous(true);
      if (c == '-') set_continuous(false);
      return;
    }
    unread_char();
  }
  read_token();
  std::string name = token_buffer;
  load_file_into_buffer(name);
  run_viewer(0);
}

void cmd_clbuffer() {
  if (peek_char() == '*') {
    next_char();
    history_ensure_loaded();
    if (history_count() > 0) warning({"command buffer will be cleared"});
    history_clear();
    return;
  }
  text_buffer_clear();
}

}  // namespace qax::shell
