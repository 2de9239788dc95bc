// The command history: a ring of the last 56 lines typed at the line editor, kept
// between runs in $HOME/.qax_history. Entries are addressed oldest first (0 is the
// oldest); no two entries are equal and none is blank.
#pragma once

#include <string>
#include <string_view>

namespace qax::shell {

constexpr int history_entries = 56;     // lines in the ring
constexpr int history_entry_size = 256; // bytes per entry, NUL included

struct HistoryRing {
  char entries[history_entries][history_entry_size] = {};  // slots of the ring
  int first = 0;        // slot of the oldest entry
  int count = 0;        // entries in use
  int cursor = 0;       // where up/down start: the entry before it comes first (0..count)
  bool loaded = false;  // the file has been read (or reading it was given up)
  bool dirty = false;   // changed since it was loaded or last written
};

extern HistoryRing history;

// Entry i, oldest first (0 <= i < history_count()).
[[nodiscard]] const char* history_entry(int i) noexcept;
[[nodiscard]] inline int history_count() noexcept { return history.count; }

// Stores a typed line (without its line end). Blank lines are not stored; a line equal
// to an entry is not stored again, but the cursor moves after that entry. Lines are
// cut to 255 characters. Returns true if an entry was added.
bool history_add(std::string_view line) noexcept;
// Empties the ring (the file is rewritten at exit).
void history_clear() noexcept;
// Back to the start-up state: empty and not loaded.
void history_reset() noexcept;

// File form: a decimal count and a blank, then each entry followed by a byte 1,
// oldest first. A count over 56 reads as 56. A missing file is an empty history.
// Loading replaces the ring; both return false when the file cannot be used.
bool history_load_file(const std::string& path);
bool history_save_file(const std::string& path);

// $HOME/.qax_history, or empty when HOME is not set.
[[nodiscard]] std::string history_file_path();
// Loads the file the first time the history is needed.
void history_ensure_loaded();
// Writes the file if the history was used in this run and changed.
void history_save();

}  // namespace qax::shell
