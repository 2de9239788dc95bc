// The viewer of the text buffer (all output of the run, as lines) and its commands.
// Under curses it is a full-screen pager on the terminal's alternate screen; without a
// terminal it prints the page it would show, so that nothing waits for keys.
#pragma once

#include <string>

namespace qax::shell {

constexpr int viewer_search_size = 25;  // longest search string

struct ViewerState {
  int continuous = 0;        // view +: console silent, viewer at each prompt
  int saved_console_bit = 0; // silent_flags bit 1 as it was before view +
  std::string search_text;   // last string searched for (":" and view :)
  int top = 0;               // first line shown, from 0
  int shift = 0;             // columns hidden at the left
};

extern ViewerState viewer_state;

void reset_viewer_state();

// Opens the viewer with line `top` (from 0) first, or at the end of the buffer for -1.
void run_viewer(int top);

// The status line: "** TXT BUFFER, lines A-B of N (ESC to exit) **" padded with "*"
// to `width`.
[[nodiscard]] std::string viewer_status_line(int top, int rows, int total, int width);
// Columns of blank margin to hide at the start: the least indentation of the
// non-blank lines top..top+rows-1, less three, not below zero.
[[nodiscard]] int viewer_start_shift(int top, int rows);
// First line at or after `from` containing `text`, ignoring case; -1 if none.
[[nodiscard]] int viewer_find(const std::string& text, int from);

void cmd_view();
void cmd_clbuffer();

}  // namespace qax::shell
