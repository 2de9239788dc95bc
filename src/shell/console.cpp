// Console start-up and shut-down, and key reading under curses.
#define NCURSES_NOMACROS
#include "shell/console.h"

#include <curses.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "shell/history.h"
#include "shell/input.h"
#include "shell/line_editor.h"
#include "shell/output.h"
#include "shell/shell_commands.h"

namespace qax::shell {

namespace {

struct ConsoleState {
  SCREEN* screen = nullptr;             // the curses screen on the terminal
  KeyReaderFn plain_reader = nullptr;   // read_key before curses took over
  const char* enter_alternate = "";     // smcup of the terminal, "" if none
  const char* leave_alternate = "";     // rmcup of the terminal, "" if none
  bool exit_step_added = false;         // history_save is an exit step
};

ConsoleState console_;

const char* terminal_string(const char* capability) {
  char* s = tigetstr(capability);
  if (s == nullptr || s == reinterpret_cast<char*>(-1)) return "";
  return s;
}

void take_screen_size() {
  if (LINES > 0) output_state.screen_lines = LINES;
  if (COLS > 0) output_state.screen_columns = COLS;
}

int translate_key(int k) {
  if (k == '\r' || k == KEY_ENTER) return '\n';
  if (k == KEY_RESIZE) {
    // Curses marks its whole window as changed after a resize, and would clear the
    // screen at the next key read; the viewer redraws on its own.
    take_screen_size();
    untouchwin(stdscr);
  }
  return k;
}

// read_key under curses: the keyboard polling of long computations (ESC, "m", "p").
int curses_read_key(bool blocking) {
  if (!console_.screen) return -1;
  for (;;) {
    nodelay(stdscr, blocking ? FALSE : TRUE);
    int k = wgetch(stdscr);
    nodelay(stdscr, FALSE);
    if (k == ERR) return -1;
    k = translate_key(k);
    if (k == KEY_RESIZE) {
      if (!blocking) return -1;
      continue;
    }
    return k;
  }
}

void close_console_at_exit() { close_console(); }

}  // namespace

bool console_is_terminal() { return isatty(0) && isatty(2); }

bool console_curses_on() { return console_.screen != nullptr; }

const char* console_enter_alternate() { return console_.enter_alternate; }
const char* console_leave_alternate() { return console_.leave_alternate; }

int console_get_key() {
  if (!console_.screen) return -1;
  nodelay(stdscr, FALSE);
  int k = wgetch(stdscr);
  // A signal can break the wait; only a terminal that is gone ends it for good.
  for (int tries = 0; k == ERR && errno == EINTR && tries < 1000; ++tries) k = wgetch(stdscr);
  if (k == ERR) return -1;
  return translate_key(k);
}

void open_console() {
  if (!console_.exit_step_added) {
    add_exit_step(history_save);
    console_.exit_step_added = true;
  }
  if (!console_is_terminal() || console_.screen) return;
  winsize ws{};
  if (ioctl(2, TIOCGWINSZ, &ws) == 0 && ws.ws_col > 0) {
    output_state.screen_lines = ws.ws_row;
    output_state.screen_columns = ws.ws_col;
  }
  // An unknown terminal type leaves the plain console in place.
  const char* term = std::getenv("TERM");
  if (term == nullptr || *term == 0) return;
  SCREEN* screen = newterm(nullptr, stderr, stdin);
  if (screen == nullptr) return;
  console_.screen = screen;
  set_term(screen);
  cbreak();
  noecho();
  keypad(stdscr, TRUE);
  set_escdelay(50);
  // Curses starts on the alternate screen and would clear it at the first key read;
  // the command dialogue stays on the normal screen, so nothing of it is lost at exit.
  untouchwin(stdscr);
  console_.enter_alternate = terminal_string("smcup");
  console_.leave_alternate = terminal_string("rmcup");
  if (*console_.enter_alternate && *console_.leave_alternate) {
    std::fputs(console_.leave_alternate, stderr);
    std::fflush(stderr);
  }
  take_screen_size();
  output_state.curses_active = 1;
  output_state.console_column = 0;
  console_.plain_reader = read_key;
  read_key = curses_read_key;
  terminal_line_reader = line_editor_read;
  static bool at_exit_added = false;
  if (!at_exit_added) {
    std::atexit(close_console_at_exit);
    at_exit_added = true;
  }
}

void close_console() {
  history_save();
  if (!console_.screen) return;
  // endwin leaves the alternate screen and restores the cursor it saved on entry:
  // enter it first so that the cursor comes back where the dialogue left it.
  if (*console_.enter_alternate && *console_.leave_alternate) {
    std::fputs(console_.enter_alternate, stderr);
    std::fflush(stderr);
  }
  endwin();
  delscreen(console_.screen);
  console_.screen = nullptr;
  output_state.curses_active = 0;
  if (console_.plain_reader) read_key = console_.plain_reader;
  terminal_line_reader = nullptr;
}

}  // namespace qax::shell
