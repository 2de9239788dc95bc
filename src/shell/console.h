// The console: curses start-up for the line editor and the viewer when standard input
// and standard error are terminals; plain streams otherwise. Under curses the program
// draws on the terminal's normal screen with plain text (curses decodes the keys and
// owns the terminal modes); only the viewer uses curses drawing, on the alternate screen.
#pragma once

namespace qax::shell {

void open_console();
// Writes the history if it changed and ends curses; safe to call more than once.
void close_console();
bool console_is_terminal();  // standard input and error are terminals
bool console_curses_on();    // curses is running on the console

// Blocking read of one key under curses: characters as their codes, special keys as
// the curses KEY_ codes, Enter as '\n'. A size change updates the screen size and
// yields KEY_RESIZE. -1 when curses is not running.
int console_get_key();
// Escape strings of the terminal for entering and leaving its alternate screen, or
// empty when it has none.
const char* console_enter_alternate();
const char* console_leave_alternate();

}  // namespace qax::shell
