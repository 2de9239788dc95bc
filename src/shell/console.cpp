// Console start-up (plain form; the line editor installs itself on terminals).
#include "shell/console.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include "shell/output.h"

namespace qax::shell {

bool console_is_terminal() { return isatty(0) && isatty(2); }

void open_console() {
  if (!console_is_terminal()) return;
  winsize ws{};
  if (ioctl(2, TIOCGWINSZ, &ws) == 0 && ws.ws_col > 0) {
    output_state.screen_lines = ws.ws_row;
    output_state.screen_columns = ws.ws_col;
  }
}

void close_console() {}

}  // namespace qax::shell
