// Small readers shared by the commands of the macro language.
#pragma once

#include "shell/input.h"

namespace qax::script {

// Next character that is not a blank (NUL and ";" are returned as they are).
inline int next_nb() {
  int c;
  do c = shell::next_char();
  while (c > 0 && c < 33);
  return c;
}

// The next non-blank character, left unread.
inline int peek_nb() {
  const int c = next_nb();
  shell::unread_char();
  return c;
}

}  // namespace qax::script
