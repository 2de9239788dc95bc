// maketable (arrays printed as tables, and tables of reports captured into arrays) and
// hifile (a text file read value by value by the hif... expressions).
#include <cctype>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "script/commands.h"
#include "script/expr.h"
#include "script/reader.h"
#include "script/scan.h"
#include "script/space.h"
#include "shell/commands.h"
#include "shell/failure.h"
#include "shell/file_access.h"
#include "shell/input.h"
#include "shell/output.h"
#include "shell/state.h"

namespace qax::script {

using namespace qax::shell;

namespace {

std::string rest_of_command() {
  std::string text;
  int c = next_char();
  while (c > 0 && c < 33) c = next_char();
  while (c != ';' && c != 0) {
    text.push_back(static_cast<char>(c));
    c = next_char();
  }
  unread_char();
  while (!text.empty() && static_cast<unsigned char>(text.back()) < 33) text.pop_back();
  return text;
}

// The array a table is made of: a named one-dimensional array.
const NamedVar* table_array() {
  next_nb();
  unread_char();
  const std::string name = read_word();
  const NamedVar* var = find_name(name);
  if (!var) error_exit({"Unrecognized variable:", name});
  if (var->dims != 1) error_exit("Scripting tables require one-dimensional arrays as input");
  return var;
}

// Captured tables go to this array.
struct Capture {
  int on = 0;
  int cell = 0;
  int size = 0;
};
Capture capture_;

void capture_values(const std::vector<std::string>& values) {
  if (!capture_.on) return;
  int n = 0;
  for (const std::string& v : values) {
    if (n >= capture_.size) break;
    char* end = nullptr;
    const double x = std::strtod(v.c_str(), &end);
    space.cells[capture_.cell + n] = (end != v.c_str()) ? x : -1;
    ++n;
  }
  space.listsize = n;
}

// The file of hifile, read by the hif... expressions.
struct HifFile {
  std::FILE* fp = nullptr;
  std::string name;
  std::string last_string;
  int line = 1;
};
HifFile hif_;

}  // namespace

void cmd_maketable() {
  macro_command_guard();
  const int c = peek_nb();
  if (c == '+') {
    next_char();
    const NamedVar* var = table_array();
    capture_.on = 1;
    capture_.cell = var->cell;
    capture_.size = var->extent[0];
    table_capture = capture_values;
    out_line({"Values of tables will be copied into", var->name});
    return;
  }
  if (c == '-') {
    next_char();
    capture_ = Capture();
    table_capture = nullptr;
    out_line({"Values of tables are no longer copied"});
    return;
  }
  if (space.protection == 0) error_exit("Scripting tables not allowed under macro protection 0");
  int limit = -1;
  if (c == '=') {
    next_char();
    limit = read_int_expr();
  }
  bool twin = false;
  if (peek_nb() == '*') {
    next_char();
    twin = true;
  }
  const NamedVar* a = table_array();
  const NamedVar* b = twin ? table_array() : nullptr;
  if (twin && space.float_mode) error_exit("Double tables allowed only under integer mode");
  const std::string title = rest_of_command();
  int n = a->extent[0];
  if (b) n = std::min(n, b->extent[0]);
  if (limit >= 0) n = std::min(n, limit);
  std::vector<std::string> values;
  for (int i = 0; i < n; ++i) {
    std::string v = value_text(space.cells[a->cell + i]);
    if (b) v += "/" + value_text(space.cells[b->cell + i]);
    values.push_back(v);
  }
  if (!title.empty()) out_line({title});
  int width = 6;
  for (const auto& v : values) width = std::max(width, static_cast<int>(v.size()) + 1);
  char cell[96];
  std::string line = "      ";
  for (int k = 0; k < 10; ++k) {
    std::snprintf(cell, sizeof cell, "%*i", width, k);
    line += cell;
  }
  out_line({line});
  for (int row = 0; row < n; row += 10) {
    std::snprintf(cell, sizeof cell, "%5i ", row);
    line = cell;
    for (int k = row; k < std::min(n, row + 10); ++k) {
      std::snprintf(cell, sizeof cell, "%*s", width, values[k].c_str());
      line += cell;
    }
    out_line({line});
  }
}

void cmd_hifile() {
  macro_command_guard();
  if (hif_.fp) std::fclose(hif_.fp);
  hif_ = HifFile();
  const int c = peek_nb();
  if (c == ';' || c == '-') {
    if (c == '-') next_char();
    out_line({"No file open for expressions"});
    return;
  }
  read_token();
  std::string name = token_buffer;
  for (char& ch : name) if (ch == '^') ch = ' ';
  hif_.fp = open_user_file(name, "rb");
  if (!hif_.fp) error_exit({"Can't open", name});
  hif_.name = name;
  out_line({"File", name, "open for expressions"});
}

// Values of the hif... expressions; false when `word` is none of them.
bool hif_value(const std::string& word, double& v) {
  if (word.rfind("hif", 0) != 0) return false;
  if (word != "hifeof" && word != "hifchar" && word != "hifspy" && word != "hifnumber" && word != "hifline" &&
      word != "hifstring" && word != "hiftext") {
    return false;
  }
  if (!hif_.fp) error_exit("No file open with hifile");
  std::FILE* f = hif_.fp;
  auto get = [&]() {
    const int ch = std::fgetc(f);
    if (ch == '\n') ++hif_.line;
    return ch;
  };
  if (word == "hifeof") {
    const int ch = std::fgetc(f);
    v = ch == EOF ? 1 : 0;
    if (ch != EOF) std::ungetc(ch, f);
    return true;
  }
  if (word == "hifspy" || word == "hifchar") {
    const int ch = word == "hifchar" ? get() : std::fgetc(f);
    if (word == "hifspy" && ch != EOF) std::ungetc(ch, f);
    v = ch == EOF ? -1 : ch;
    return true;
  }
  if (word == "hifline") {
    // Skips the rest of the line; the number of the line now reached.
    int ch;
    do ch = get();
    while (ch != '\n' && ch != EOF);
    v = ch == EOF ? -1 : hif_.line;
    return true;
  }
  // Words and numbers are separated by blanks.
  int ch;
  do ch = get();
  while (ch != EOF && std::isspace(ch));
  std::string w;
  while (ch != EOF && !std::isspace(ch)) {
    w.push_back(static_cast<char>(ch));
    ch = get();
  }
  if (ch == '\n') std::ungetc(ch, f), --hif_.line;
  if (word == "hifnumber") {
    if (w.empty()) error_exit({"End of file", hif_.name, "reached while reading a number"});
    char* end = nullptr;
    v = std::strtod(w.c_str(), &end);
    if (end == w.c_str()) error_exit({"Expected a number in", hif_.name, "found", w});
    return true;
  }
  hif_.last_string = w;
  v = static_cast<double>(w.size());
  return true;
}

std::string hif_string() { return hif_.last_string; }

}  // namespace qax::script
