// The command history ring and its file.
#include "shell/history.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace qax::shell {

HistoryRing history;

namespace {

constexpr char entry_end = '\1';  // ends each entry in the file

int slot_of(int i) noexcept { return (history.first + i) % history_entries; }

bool is_blank_line(std::string_view line) noexcept {
  for (char c : line) {
    if (static_cast<unsigned char>(c) > 32) return false;
  }
  return true;
}

}  // namespace

const char* history_entry(int i) noexcept {
  if (i < 0 || i >= history.count) return "";
  return history.entries[slot_of(i)];
}

bool history_add(std::string_view line) noexcept {
  while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) line.remove_suffix(1);
  if (line.size() > history_entry_size - 1) line = line.substr(0, history_entry_size - 1);
  if (is_blank_line(line)) return false;
  for (int i = 0; i < history.count; ++i) {
    const char* e = history.entries[slot_of(i)];
    if (std::strlen(e) == line.size() && std::memcmp(e, line.data(), line.size()) == 0) {
      history.cursor = i + 1;
      return false;
    }
  }
  int slot;
  if (history.count < history_entries) {
    slot = slot_of(history.count);
    ++history.count;
  } else {
    // Full: the oldest slot takes the new line and the next one becomes the oldest.
    slot = history.first;
    history.first = (history.first + 1) % history_entries;
  }
  std::memcpy(history.entries[slot], line.data(), line.size());
  history.entries[slot][line.size()] = 0;
  history.cursor = history.count;
  history.dirty = true;
  return true;
}

void history_clear() noexcept {
  if (history.count > 0) history.dirty = true;
  history.first = 0;
  history.count = 0;
  history.cursor = 0;
}

void history_reset() noexcept { history = HistoryRing(); }

bool history_load_file(const std::string& path) {
  history_clear();
  history.loaded = true;
  history.dirty = false;
  std::FILE* f = std::fopen(path.c_str(), "rb");
  if (!f) return false;
  std::string text;
  char buf[4096];
  std::size_t n;
  while ((n = std::fread(buf, 1, sizeof buf, f)) > 0) {
    text.append(buf, n);
    // The longest useful file is 56 entries of 256 bytes plus the count.
    if (text.size() > 1u << 20) break;
  }
  std::fclose(f);
  std::size_t pos = 0;
  long wanted = 0;
  bool digits = false;
  while (pos < text.size() && text[pos] >= '0' && text[pos] <= '9') {
    if (wanted < 1000000) wanted = wanted * 10 + (text[pos] - '0');
    digits = true;
    ++pos;
  }
  if (!digits) return false;
  if (wanted > history_entries) wanted = history_entries;
  if (pos < text.size() && text[pos] == ' ') ++pos;
  for (long k = 0; k < wanted && pos < text.size(); ++k) {
    std::size_t end = text.find(entry_end, pos);
    if (end == std::string::npos) end = text.size();
    history_add(std::string_view(text).substr(pos, end - pos));
    pos = end + 1;
  }
  history.cursor = history.count;
  history.dirty = false;
  return true;
}

bool history_save_file(const std::string& path) {
  std::FILE* f = std::fopen(path.c_str(), "wb");
  if (!f) return false;
  std::fprintf(f, "%i ", history.count);
  for (int i = 0; i < history.count; ++i) {
    std::fputs(history_entry(i), f);
    std::fputc(entry_end, f);
  }
  bool ok = std::fclose(f) == 0;
  if (ok) history.dirty = false;
  return ok;
}

std::string history_file_path() {
  // The environment gives the home directory directly; no shell is needed for it.
  const char* home = std::getenv("HOME");
  if (!home || !*home) return {};
  std::string path = home;
  if (path.back() != '/') path += '/';
  return path + ".qax_history";
}

void history_ensure_loaded() {
  if (history.loaded) return;
  std::string path = history_file_path();
  if (path.empty()) {
    history.loaded = true;
    return;
  }
  history_load_file(path);
}

void history_save() {
  if (!history.loaded || !history.dirty) return;
  std::string path = history_file_path();
  if (!path.empty()) history_save_file(path);
}

}  // namespace qax::shell
