// The console: curses start-up for the line editor and the viewer when standard input
// and standard error are terminals; plain streams otherwise.
#pragma once

namespace qax::shell {

void open_console();
void close_console();
bool console_is_terminal();  // standard input and error are terminals

}  // namespace qax::shell
