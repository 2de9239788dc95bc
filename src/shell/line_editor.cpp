// The line editor: key handling on an EditLine, and its drawing on the terminal.
#define NCURSES_NOMACROS
#include "shell/line_editor.h"

#include <curses.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstring>

#include "shell/console.h"
#include "shell/history.h"
#include "shell/output.h"
#include "shell/state.h"
#include "shell/viewer.h"

namespace qax::shell {

namespace {

constexpr int key_ctrl_a = 1;
constexpr int key_ctrl_d = 4;
constexpr int key_ctrl_e = 5;
constexpr int key_ctrl_h = 8;
constexpr int key_tab = 9;
constexpr int key_escape = 27;
constexpr int key_rubout = 127;

bool is_stop(char c) noexcept {
  auto u = static_cast<unsigned char>(c);
  return u < 33 || std::ispunct(u);
}

void set_text(EditLine& line, std::string_view text) {
  line.text.assign(text.substr(0, line_editor_capacity));
  line.cursor = static_cast<int>(line.text.size());
}

// TAB: the next entry back in the history that starts with what was typed before
// the first TAB, skipping entries equal to the line as it stands.
void complete(EditLine& line) {
  if (!line.completing) {
    line.tab_prefix = line.text;
    line.tab_next = history_count() - 1;
    line.completing = true;
  }
  for (int i = line.tab_next; i >= 0; --i) {
    std::string_view entry = history_entry(i);
    if (entry.substr(0, line.tab_prefix.size()) == line.tab_prefix && entry != line.text) {
      set_text(line, entry);
      line.tab_next = i - 1;
      return;
    }
  }
  line.tab_next = -1;
  line.bell = true;
}

// Control-arrow keys have no fixed codes; ask curses what it made of them.
int extended_key(const char* capability) {
  char* seq = tigetstr(capability);
  if (seq == nullptr || seq == reinterpret_cast<char*>(-1)) return -2;
  int code = key_defined(seq);
  return code > 0 ? code : -2;
}

}  // namespace

int word_left(const std::string& text, int pos) noexcept {
  while (pos > 0 && is_stop(text[pos - 1])) --pos;
  while (pos > 0 && !is_stop(text[pos - 1])) --pos;
  return pos;
}

int word_right(const std::string& text, int pos) noexcept {
  int n = static_cast<int>(text.size());
  while (pos < n && !is_stop(text[pos])) ++pos;
  while (pos < n && is_stop(text[pos])) ++pos;
  return pos;
}

int edit_line_key(EditLine& line, int key) {
  static const int ctrl_left = extended_key("kLFT5");
  static const int ctrl_right = extended_key("kRIT5");
  line.bell = false;
  if (key != key_tab) line.completing = false;
  int n = static_cast<int>(line.text.size());
  switch (key) {
    case '\n':
    case '\r':
    case KEY_ENTER:
      return 1;
    case KEY_LEFT:
      if (line.cursor > 0) --line.cursor;
      return 0;
    case KEY_RIGHT:
      if (line.cursor < n) ++line.cursor;
      return 0;
    case KEY_HOME:
    case key_ctrl_a:
      line.cursor = 0;
      return 0;
    case KEY_END:
    case key_ctrl_e:
      line.cursor = n;
      return 0;
    case KEY_BACKSPACE:
    case key_ctrl_h:
    case key_rubout:
      if (line.cursor > 0) line.text.erase(static_cast<std::size_t>(--line.cursor), 1);
      return 0;
    case key_ctrl_d:
      if (n == 0) return -1;
      [[fallthrough]];
    case KEY_DC:
      if (line.cursor < n) line.text.erase(static_cast<std::size_t>(line.cursor), 1);
      return 0;
    case KEY_SLEFT:
      line.cursor = word_left(line.text, line.cursor);
      return 0;
    case KEY_SRIGHT:
      line.cursor = word_right(line.text, line.cursor);
      return 0;
    case key_escape:
      line.text.clear();
      line.cursor = 0;
      return 0;
    case KEY_UP:
      if (history.cursor > 0) {
        --history.cursor;
        set_text(line, history_entry(history.cursor));
      } else {
        line.bell = true;
      }
      return 0;
    case KEY_DOWN:
      if (history.cursor < history_count()) {
        ++history.cursor;
        set_text(line, history.cursor < history_count() ? history_entry(history.cursor) : "");
      } else {
        line.bell = true;
      }
      return 0;
    case key_tab:
      complete(line);
      return 0;
    default:
      break;
  }
  if (key == ctrl_left) {
    line.cursor = word_left(line.text, line.cursor);
  } else if (key == ctrl_right) {
    line.cursor = word_right(line.text, line.cursor);
  } else if (key >= 32 && key < 127) {
    // A full line takes no more characters.
    if (n < line_editor_capacity) {
      line.text.insert(static_cast<std::size_t>(line.cursor), 1, static_cast<char>(key));
      ++line.cursor;
    }
  }
  return 0;
}

namespace {

// Draws the prompt and the part of the line around the cursor on the current row,
// with plain characters only: "\r", the prompt, the visible text, blanks over what
// was drawn before, then "\r" and the prompt and text again up to the cursor.
struct LineView {
  std::string prompt;  // shown at the start of the row
  int first = 0;       // first character of the line shown
  int drawn = 0;       // characters of the line drawn last time
};

void draw_line(LineView& view, const EditLine& line) {
  int columns = std::min(output_state.screen_columns, COLS > 0 ? COLS : output_state.screen_columns);
  int width = std::max(10, columns - 1 - static_cast<int>(view.prompt.size()));
  int n = static_cast<int>(line.text.size());
  if (line.cursor < view.first) view.first = line.cursor;
  if (line.cursor - view.first > width - 1) view.first = line.cursor - width + 1;
  if (view.first > 0 && n - view.first < width - 1) {
    view.first = std::min(line.cursor, std::max(0, n - width + 1));
  }
  int shown = std::min(width, n - view.first);
  std::string out = "\r" + view.prompt;
  out.append(line.text, static_cast<std::size_t>(view.first), static_cast<std::size_t>(shown));
  if (view.drawn > shown) out.append(static_cast<std::size_t>(view.drawn - shown), ' ');
  out += "\r" + view.prompt;
  out.append(line.text, static_cast<std::size_t>(view.first), static_cast<std::size_t>(line.cursor - view.first));
  view.drawn = shown;
  std::fwrite(out.data(), 1, out.size(), stderr);
  std::fflush(stderr);
}

void copy_to_log(const char* prompt, const std::string& text) {
  if (!shell_state.echo_to_log || !output_state.log_stream) return;
  output_state.log_buffer += prompt;
  output_state.log_buffer += text;
  output_state.log_buffer += '\n';
  flush_log();
}

}  // namespace

bool line_editor_read(char* buffer, int capacity, const char* prompt) {
  history_ensure_loaded();
  if (viewer_state.continuous) run_viewer(-1);
  output_state.printed_lines = 0;
  console_write("\n");
  EditLine line;
  LineView view;
  view.prompt = prompt;
  draw_line(view, line);
  for (;;) {
    int key = console_get_key();
    if (key < 0) return false;  // the terminal is gone
    if (key == KEY_RESIZE) {
      draw_line(view, line);
      continue;
    }
    int done = edit_line_key(line, key);
    if (line.bell && switches.beep) std::fputs("\a", stderr);
    if (done < 0) {
      console_write("\n");
      return false;
    }
    if (done > 0) break;
    draw_line(view, line);
  }
  // Show the whole line as typed once it is finished.
  view.first = 0;
  line.cursor = static_cast<int>(line.text.size());
  draw_line(view, line);
  console_write("\n");
  copy_to_log(prompt, line.text);
  history_add(line.text);
  int n = std::min(static_cast<int>(line.text.size()), capacity - 2);
  std::memcpy(buffer, line.text.data(), static_cast<std::size_t>(n));
  buffer[n] = '\n';
  buffer[n + 1] = 0;
  return true;
}

}  // namespace qax::shell
