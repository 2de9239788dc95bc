// The line editor of the keyboard level under curses: one line of at most 255
// characters, edited in place on one screen row (scrolled sideways when longer than
// the row), with the history ring for recall and completion.
#pragma once

#include <string>
#include <string_view>

namespace qax::shell {

constexpr int line_editor_capacity = 255;  // characters of one typed line

// The state of one line being edited, apart from the terminal.
struct EditLine {
  std::string text;           // the line (at most line_editor_capacity characters)
  int cursor = 0;             // position of the cursor in text, 0..size
  bool completing = false;    // the last key was TAB
  std::string tab_prefix;     // what was typed before the first TAB
  int tab_next = -1;          // history entry where the next TAB looks, going back
  bool bell = false;          // the last key found nothing to do (ring the bell)
};

// Applies one key (a character code or a curses KEY_ code) to the line. Returns 1 when
// the line is finished (Enter), -1 at end of input (Ctrl-D on an empty line), 0 else.
int edit_line_key(EditLine& line, int key);
// Word jumps: the stop characters are blanks and punctuation.
int word_left(const std::string& text, int pos) noexcept;
int word_right(const std::string& text, int pos) noexcept;

// The terminal_line_reader of the keyboard level: shows the prompt, edits a line,
// stores it in the history and returns it with its line end in buffer. False at end
// of input.
bool line_editor_read(char* buffer, int capacity, const char* prompt);

}  // namespace qax::shell
