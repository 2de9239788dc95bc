// The macro reader and the loop stack.
#include "script/reader.h"

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <cstring>

#include "dataset/dataset.h"
#include "script/expr.h"
#include "script/space.h"
#include "shell/commands.h"
#include "shell/failure.h"
#include "shell/input.h"
#include "shell/output.h"
#include "shell/state.h"

namespace qax::script {

using namespace qax::shell;

std::vector<Loop> loops;
int expansion_blocked = 0;
int quote_blocked = 0;

namespace {

constexpr int expansion_size = 8500;

// The text of the reference being read; chars come back raw.
struct Expansion {
  std::string text;
  std::size_t pos = 0;
  int active = 0;
};
Expansion expansion_;
int last_source_ = 0;  // 0 input level, 1 loop body, 2 expansion
int opening_inner_ = 0;  // the level being pushed runs a script body: same numbering as its caller

bool loop_at_level(const Loop& l) { return l.level == input_level(); }

}  // namespace

Loop* current_level_loop() {
  if (loops.empty()) return nullptr;
  Loop& l = loops.back();
  return loop_at_level(l) ? &l : nullptr;
}

int raw_char() {
  for (;;) {
    Loop* l = current_level_loop();
    if (!l) {
      last_source_ = 0;
      return plain_next_char();
    }
    if (l->pos < l->body.size()) {
      last_source_ = 1;
      int c = static_cast<unsigned char>(l->body[l->pos++]);
      if (c == ',' && !shell_state.quoted_text && input_level() == 0) c = ';';
      return c;
    }
    // End of a body: next pass, or back to the text that held the loop.
    if (l->kind == 1) {
      // Bodies run by an inner command loop end here: the driver decides.
      last_source_ = 1;
      return 0;
    }
    // Each pass may be interrupted (ESC, a stop file, a time limit, or a search of the
    // body that was stopped): the loop ends there.
    const bool interrupted = script_interrupted(l->interrupt_events);
    if (interrupted) {
      shell_state.stop_search_flag = 0;
      out_line({"Loop interrupted"});
    }
    const long long next = static_cast<long long>(l->value) + l->step;
    const bool over = (l->step > 0 && next > l->limit) || (l->step < 0 && next < l->limit) || l->step == 0;
    if (!interrupted && !over) l->value = static_cast<int>(next);
    if (switches.macreport) out_line({loop_report()});
    if (interrupted || over) {
      space.text_bytes -= std::min(space.text_bytes, l->body.size() + l->name.size());
      const std::string closing = l->closing_text;
      loops.pop_back();
      if (!closing.empty()) out_text({closing});
    } else {
      l->pos = 0;
    }
  }
}

void raw_unread() {
  if (last_source_ == 2) {
    if (expansion_.pos > 0) --expansion_.pos;
    expansion_.active = 1;
    return;
  }
  if (last_source_ == 1) {
    Loop* l = current_level_loop();
    if (l && l->pos > 0) --l->pos;
    return;
  }
  plain_unread_char();
}

namespace {

void start_expansion(std::string text) {
  if (text.size() > expansion_size) text.resize(expansion_size);
  expansion_.text = std::move(text);
  expansion_.pos = 0;
  expansion_.active = 1;
}

int peek_raw() {
  int c = raw_char();
  raw_unread();
  return c;
}

// 'x', "x", '(expr)', 'a[2-5]' and the formatted '/W.Dx'.
void expand_reference(int quote) {
  const int next = peek_raw();
  ++quote_blocked;
  std::string text;
  {
    if (next == '/') {
      raw_char();
      bool plus = false, left = false;
      if (peek_raw() == '+') { raw_char(); plus = true; }
      if (peek_raw() == '-') { raw_char(); left = true; }
      int width = 0, decimals = -1;
      while (std::isdigit(peek_raw())) width = width * 10 + (raw_char() - '0');
      if (peek_raw() == '.') {
        raw_char();
        decimals = 0;
        while (std::isdigit(peek_raw())) decimals = decimals * 10 + (raw_char() - '0');
      }
      if (width == 0) width = 1;
      const int c = peek_raw();
      if (!std::isalpha(c) && c != '(') error_exit("Incorrect variable conversion");
      double v;
      if (c == '(') {
        raw_char();
        v = evaluate(')');
      } else {
        int range_end = -1;
        const int cell = read_cell(nullptr, true, &range_end);
        if (range_end >= 0) error_exit("Sorry, local formatting of arrays not allowed");
        v = cell_value(cell);
      }
      if (quote == '"') v = cell_value(numbered_cell(v) - current_shift());
      char fmt[32], buf[128];
      const int w = left ? -width : width;
      if (std::fabs(v) < 9.2e18 && v == static_cast<long long>(v) && decimals < 0) {
        std::snprintf(fmt, sizeof fmt, plus ? "%%+%dlli" : "%%%dlli", w);
        std::snprintf(buf, sizeof buf, fmt, static_cast<long long>(v));
      } else {
        std::snprintf(fmt, sizeof fmt, plus ? "%%+%d.%df" : "%%%d.%df", w,
                      decimals < 0 ? (space.decimals < 0 ? 6 : space.decimals) : decimals);
        std::snprintf(buf, sizeof buf, fmt, v);
      }
      text = buf;
    } else if (next == '(') {
      raw_char();
      double v = evaluate(')');
      if (quote == '"') v = cell_value(numbered_cell(v) - current_shift());
      text = value_text(v);
    } else {
      int range_end = -1;
      const NamedVar* var = nullptr;
      double function_value = 0;
      int cell = -1;
      if (std::isalpha(next) || next == '_') {
        // A word that names no variable may be a function: its value is written.
        const std::string word = read_word();
        var = find_name(word);
        if (var) cell = read_subscripts(var, var->cell, true, &range_end);
        else function_value = word_value(word);
      } else {
        cell = read_cell(&var, true, &range_end);
      }
      if (cell < 0) {
        text = value_text(function_value);
      } else if (range_end >= 0) {
        char sep = ' ';
        if (peek_raw() == '&') {
          raw_char();
          int code = 0;
          while (std::isdigit(peek_raw())) code = code * 10 + (raw_char() - '0');
          sep = static_cast<char>(code);
        }
        for (int i = cell; i <= range_end; ++i) {
          if (i > cell) text.push_back(sep);
          text += value_text(cell_value(i));
          if (text.size() > 8350) break;
        }
      } else {
        double v = cell_value(cell);
        if (quote == '"') v = cell_value(numbered_cell(v) - current_shift());
        text = value_text(v);
      }
    }
    const int close = raw_char();
    if (close != quote) error_exit("Expression must end and start with the same symbol");
  }
  --quote_blocked;
  start_expansion(std::move(text));
}

}  // namespace

std::string hif_string();

namespace {

std::string fixed_string(const std::string& word) {
  using qax::dataset::dataset;
  auto need_data = [] {
    if (!dataset.loaded) error_exit("No data file has been read!");
  };
  auto arg = [] { return read_int_expr(); };
  if (word == "taxon") {
    need_data();
    const int t = arg();
    if (t < 0 || t >= dataset.ntax) error_exitf("Taxon number required ( 0 - %i )", dataset.ntax - 1);
    return dataset.taxon_names[t];
  }
  if (word == "character") {
    need_data();
    const int c = arg();
    if (c < 0 || c >= dataset.nchar) error_exitf("Character number required ( 0 - %i )", dataset.nchar - 1);
    if (c < static_cast<int>(dataset.character_names.size()) && !dataset.character_names[c].empty()) return dataset.character_names[c];
    return "Char. " + number_text(c);
  }
  if (word == "dataset") {
    need_data();
    return dataset.title;
  }
  if (word == "curfile") {
    for (int i = static_cast<int>(loops.size()) - 1; i >= 0; --i)
      if (loops[i].kind == 2 && loops[i].value >= 0 && loops[i].value < static_cast<int>(loops[i].files.size()))
        return loops[i].files[loops[i].value];
    for (int l = input_level(); l >= 1; --l) return frame_at(l).name;
    return "";
  }
  if (word == "curwd") {
    char buf[4096];
    std::string s = getcwd(buf, sizeof buf) ? buf : "";
    for (char& ch : s) if (ch == ' ') ch = '^';
    return s;
  }
  if (word == "hifstring") return hif_string();
  if (word == "bitset") {
    const int v = arg();
    std::string s;
    for (int b = 0; b < 31; ++b)
      if (v & (1 << b)) s.push_back(static_cast<char>(b < 10 ? '0' + b : 'A' + b - 10));
    return s;
  }
  if (word == "dnabitset") {
    const int v = arg();
    static const char* iupac = "-ACMGRSVTWYHKDBN";
    if (v < 0 || v > 15) error_exitf("A DNA bit-set cannot exceed %i!", 15);
    return std::string(1, iupac[v]);
  }
  error_exit({"String", "$" + word, "is not available yet in this version"});
}

// $x, $x:N, $x:-N, $x:+N, $x::L, $x<C, $x>C, and the fixed strings.
void expand_string() {
  std::string text;
  if (peek_raw() == '(') {
    raw_char();
    const double v = evaluate(')');
    text = string_at(numbered_cell(v));
  } else {
    // A word: a variable, or one of the fixed strings.
    std::string word;
    int c;
    while ((c = peek_raw()) != 0 && (std::isalnum(c) || c == '_')) {
      word.push_back(static_cast<char>(raw_char()));
      if (word.size() > 500) break;
    }
    const NamedVar* var = find_name(word);
    if (var) {
      text = string_at(read_subscripts(var, var->cell, false, nullptr));
    } else if (!word.empty() && std::isdigit(static_cast<unsigned char>(word[0]))) {
      text = string_at(numbered_cell(std::atof(word.c_str())));
    } else {
      // Fixed strings that take an argument read it after blanks.
      if (word != "dataset" && word != "curfile" && word != "curwd" && word != "hifstring") {
        while (peek_raw() == ' ') raw_char();
      }
      text = fixed_string(word);
    }
  }
  // Suffixes.
  const int c = peek_raw();
  if (c == ':') {
    raw_char();
    if (peek_raw() == ':') {
      raw_char();
      const int line = read_int_expr();
      std::size_t start = 0;
      for (int i = 0; i < line && start != std::string::npos; ++i) {
        start = text.find('\\', start);
        if (start != std::string::npos) ++start;
      }
      if (start == std::string::npos) text.clear();
      else text = text.substr(start, text.find('\\', start) - start);
    } else {
      int mode = 0;
      if (peek_raw() == '-') { raw_char(); mode = 1; }
      else if (peek_raw() == '+') { raw_char(); mode = 2; }
      const int n = read_int_expr();
      if (n > 8500) error_exit("Cannot make string conversion so long ( max. 8500)");
      const std::size_t k = std::min<std::size_t>(std::max(n, 0), text.size());
      if (mode == 0) text = text.substr(0, k);
      else if (mode == 1) text = text.substr(text.size() - k);
      else text = text.substr(k);
    }
  } else if (c == '<' || c == '>') {
    raw_char();
    const int ch = raw_char();
    const std::size_t at = text.find(static_cast<char>(ch));
    if (c == '<') text = at == std::string::npos ? text : text.substr(0, at);
    else text = at == std::string::npos ? "" : text.substr(at + 1);
  }
  if (text.empty() && space.add_blank) text = " ";
  start_expansion(std::move(text));
}

void expand_argument() {
  int n;
  if (peek_raw() == '(') {
    raw_char();
    n = clamp_int(evaluate(')'));
  } else {
    n = raw_char() - '0';
  }
  const InputFrame& f = current_frame();
  if (n > max_arguments) error_exitf("No argument number %i (only %i arguments allowed)", n, max_arguments);
  if (n < 0 || n >= static_cast<int>(f.arguments.size())) {
    start_expansion(" ");
    return;
  }
  start_expansion(f.arguments[n]);
}

// #N or #name. Returns false when '#' stands for itself.
bool expand_loop_counter() {
  const int c = peek_raw();
  const int base = input_level() < static_cast<int>(space.levels.size()) ? space.levels[input_level()].loop_base : 0;
  if (std::isdigit(c)) {
    int n = 0;
    int read = 0;
    while (std::isdigit(peek_raw())) {
      n = n * 10 + (raw_char() - '0');
      ++read;
    }
    const int index = base + n - 1;
    if (n < 1 || index >= static_cast<int>(loops.size()) || loops[index].level != input_level()) {
      for (int i = 0; i < read; ++i) raw_unread();
      return false;
    }
    start_expansion(number_text(loops[index].value));
    return true;
  }
  if (std::isalpha(c) || c == '_') {
    std::string name;
    while (std::isalnum(peek_raw()) || peek_raw() == '_') {
      name.push_back(static_cast<char>(raw_char()));
      if (name.size() > 80) error_exit("Loop name can't be more than 80 characters long");
    }
    for (int i = static_cast<int>(loops.size()) - 1; i >= 0; --i) {
      if (loops[i].name == name) {
        start_expansion(number_text(loops[i].value));
        return true;
      }
    }
    error_exit({"Unrecognized loop name:", name});
  }
  error_exit("When macros are allowed, \"#\" must be followed by number/name of loop");
}

// Comments between commands: "/* ... */" and, above the keyboard, "// ..." to the line end.
bool skip_comment() {
  const int c = peek_raw();
  if (c == '*') {
    raw_char();
    int prev = 0;
    for (;;) {
      const int d = raw_char();
      if (d == 0) return true;
      if (prev == '*' && d == '/') break;
      if (input_exhausted()) break;
      prev = d;
    }
    return true;
  }
  if (c == '/' && input_level() > 0 && !space.slash_comments_forbidden) {
    int d;
    do d = raw_char();
    while (d != '\n' && d != 0 && !current_frame().at_eof);
    return true;
  }
  return false;
}

// "@@ file label args;" reads from the label of another file in place, up to the next
// "@@" there, then goes on after the first one.
std::vector<int> in_line_levels_;

void in_line_jump() {
  if (!in_line_levels_.empty() && in_line_levels_.back() == input_level()) {
    in_line_levels_.pop_back();
    close_input(false);
    return;
  }
  ++expansion_blocked;
  read_token();
  const std::string file = token_buffer;
  read_token();
  const std::string label = token_buffer;
  --expansion_blocked;
  if (file.empty() || label.empty()) error_exit("Must give file and label after \"@@\"");
  jump_to_label(file, label, true, true);
  // The arguments end with ";" in the calling text, which is not a command there.
  in_line_levels_.push_back(input_level());
  InputFrame& caller = frame_at(input_level() - 1);
  if (caller.text[caller.pos] == ';') ++caller.pos;
}

int macro_next_char() {
  for (;;) {
    if (expansion_.active) {
      if (expansion_.pos < expansion_.text.size()) {
        last_source_ = 2;
        return static_cast<unsigned char>(expansion_.text[expansion_.pos++]);
      }
      expansion_.active = 0;
    }
    const int c = raw_char();
    if (expansion_blocked) return c;
    switch (c) {
      case '\'':
      case '"': {
        if (shell_state.command_word_mark || quote_blocked || shell_state.literal_quotes) return c;
        const int d = peek_raw();
        if (d == '(' || d == '/' || std::isalnum(d)) {
          expand_reference(c);
          continue;
        }
        return c;
      }
      case '$': {
        const int d = peek_raw();
        if (d == '(' || std::isalnum(d)) {
          expand_string();
          continue;
        }
        return c;
      }
      case '%': {
        const int d = peek_raw();
        if (d == '(' || std::isdigit(d)) {
          expand_argument();
          continue;
        }
        return c;
      }
      case '#': {
        if (!current_level_loop()) return c;
        if (expand_loop_counter()) continue;
        return c;
      }
      case '/': {
        if (shell_state.between_commands && skip_comment()) return ' ';
        return c;
      }
      case '@': {
        if (peek_raw() != '@') return c;
        raw_char();
        in_line_jump();
        return ' ';
      }
      default:
        return c;
    }
  }
}

void macro_unread_char() { raw_unread(); }

void level_opened(int level) {
  if (!space.allocated) return;
  if (static_cast<int>(space.levels.size()) <= level) space.levels.resize(level + 1);
  const LevelVars& caller = space.levels[level - 1];
  LevelVars& lv = space.levels[level];
  lv = LevelVars();
  int named_end = 0;
  for (const auto& n : space.names) named_end = std::max(named_end, n.cell + n.size);
  if (opening_inner_) {
    // A body of sprit, travtree, ... reads the numbered cells of the text it belongs to.
    lv.shift = caller.shift;
    lv.private_count = caller.private_count;
    lv.highest_set = caller.highest_set;
  } else {
    // Numbered cells of the new level start above everything its callers use.
    lv.shift = std::max({caller.shift + caller.private_count, named_end, caller.highest_set + 1});
    lv.highest_set = lv.shift - 1;
  }
  lv.names_at_entry = space.names.size();
  lv.loop_base = static_cast<int>(loops.size());
}

void level_closing(int level) {
  while (!in_line_levels_.empty() && in_line_levels_.back() >= level) in_line_levels_.pop_back();
  while (!loops.empty() && loops.back().level >= level) {
    space.text_bytes -= std::min(space.text_bytes, loops.back().body.size() + loops.back().name.size());
    loops.pop_back();
  }
  if (!space.allocated || level >= static_cast<int>(space.levels.size())) return;
  LevelVars& lv = space.levels[level];
  if (lv.keep_names) {
    for (auto& n : space.names) if (n.level == level) n.level = level - 1;
  } else {
    std::vector<NamedVar> kept;
    for (auto& n : space.names) if (n.level < level) kept.push_back(n);
    space.names.swap(kept);
  }
  lv = LevelVars();
  if (expansion_.active && last_source_ != 2) expansion_.active = 0;
}

void all_unwound() {
  if (!loops.empty()) {
    for (auto& l : loops) space.text_bytes -= std::min(space.text_bytes, l.body.size() + l.name.size());
    loops.clear();
  }
  expansion_ = Expansion();
  expansion_blocked = 0;
  quote_blocked = 0;
  in_line_levels_.clear();
}

// "Error reading line N of F" (or the line of the loop), the text around the spot and "^".
void show_error_location() {
  std::string text;
  std::size_t pos;
  std::string where;
  Loop* l = current_level_loop();
  if (l) {
    text = l->body;
    pos = std::min(l->pos, text.size());
    const int line = 1 + static_cast<int>(std::count(text.begin(), text.begin() + pos, '\n'));
    int index = 0;
    for (std::size_t i = 0; i < loops.size(); ++i) if (&loops[i] == l) index = static_cast<int>(i) + 1;
    char buf[128];
    std::snprintf(buf, sizeof buf, "At line %i of loop %i (value: %i)", line, index, l->value);
    where = buf;
  } else {
    if (input_level() == 0) return;
    const InputFrame& f = current_frame();
    text = f.text;
    pos = std::min<std::size_t>(f.pos, text.size());
    where = "Error reading line " + number_text(f.line_number) + " of " + f.name;
  }
  const std::size_t start = pos > 20 ? pos - 20 : 0;
  std::string span = text.substr(start, std::min<std::size_t>(text.size() - start, pos - start + 20));
  for (char& ch : span) if (static_cast<unsigned char>(ch) < 32) ch = ' ';
  out_line({where});
  out_append(span);
  out_newline();
  out_spaces(static_cast<int>(pos - start));
  out_append("^");
  out_newline();
  send_line();
  if (!loops.empty()) {
    out_append("While in ");
    out_append(loop_report());
    out_newline();
    send_line();
  }
}

}  // namespace

void install_macro_reader() {
  next_char = macro_next_char;
  unread_char = macro_unread_char;
  shell_state.macros_on = 1;
}

void remove_macro_reader() {
  next_char = plain_next_char;
  unread_char = plain_unread_char;
  shell_state.macros_on = 0;
  expansion_ = Expansion();
}

void install_reader_hooks() {
  level_hooks.opened = level_opened;
  level_hooks.closing = level_closing;
  level_hooks.unwound = all_unwound;
  macro_error_location = show_error_location;
}

bool script_interrupted(int events) {
  return check_interrupt(1) != 0 || shell_state.interrupt_events != events;
}

void enter_loop(Loop loop) {
  loop.interrupt_events = shell_state.interrupt_events;
  if (static_cast<int>(loops.size()) >= space.max_loops) {
    error_exit({"Maximum nesting for loops is", number_text(space.max_loops), "loops"});
  }
  loop.level = input_level();
  loop.pos = 0;
  space.text_bytes += loop.body.size() + loop.name.size();
  if (space.text_bytes + space_used_bytes() > space.block_bytes * 2) {
    space.text_bytes -= loop.body.size() + loop.name.size();
    error_exit("Not enough RAM available to continue macros... ");
  }
  loops.push_back(std::move(loop));
}

void jump_to_loop_end(Loop& l) {
  l.pos = l.body.empty() ? 0 : l.body.size() - 1;
}

std::string copy_body(const char* what) {
  // Bodies of loops end at "stop"; those of travtree, combine and iterrecs at their own
  // closing words, and only their own kind nests in them.
  const std::string kind = what;
  std::string closer = "stop";
  if (kind == "travtree") closer = "endtrav";
  else if (kind == "combine") closer = "endcomb";
  else if (kind == "iterrecs" || kind == "iternucrecs") closer = "endrecs";
  const bool loop_kind = closer == "stop";
  ++expansion_blocked;
  std::string body;
  std::string word;
  int depth = 1;
  bool blank_run = false, newline_in_run = false;
  auto flush_word = [&]() -> bool {
    if (word.empty()) return false;
    std::string w = word;
    for (char& ch : w) ch = static_cast<char>(std::tolower(static_cast<unsigned char>(ch)));
    word.clear();
    const bool opens = loop_kind ? (w == "loop" || w == "sprit" || w == "tbrit" || w == "forfiles" || w == "bandb")
                                 : (w == kind || (closer == "endrecs" && (w == "iterrecs" || w == "iternucrecs")));
    if (opens) {
      ++depth;
      if (depth > space.max_loops + 1) {
        error_exit({"Maximum nesting for loops is", number_text(space.max_loops), "loops"});
      }
    } else if (w == closer) {
      if (--depth == 0) return true;
    }
    return false;
  };
  {
    for (;;) {
      const int c = raw_char();
      if (c == 0 || (current_frame().at_eof && input_level() > 0 && !current_level_loop() &&
                     input_exhausted())) {
        error_exit({"Found end-of-file:", "expecting \"" + closer + "\""});
      }
      if (std::isalnum(c) || c == '_') {
        if (blank_run) {
          body.push_back(newline_in_run ? '\n' : ' ');
          blank_run = newline_in_run = false;
        }
        word.push_back(static_cast<char>(c));
        body.push_back(static_cast<char>(c));
        continue;
      }
      if (flush_word()) {
        body.resize(body.size() - closer.size());  // the closing word becomes ";"
        break;
      }
      if (c < 33) {
        // An end of file of a level appears as "\n;" from the reader.
        blank_run = true;
        if (c == '\n') newline_in_run = true;
        if (current_frame().at_eof && input_level() > 0 && !current_level_loop()) {
          const InputFrame& f = current_frame();
          if (f.text[f.pos] == ';' && f.text[f.pos + 1] == 0) {
            error_exit({"Found end-of-file:", f.name, "expecting \"" + closer + "\""});
          }
        }
        continue;
      }
      if (blank_run) {
        body.push_back(newline_in_run ? '\n' : ' ');
        blank_run = newline_in_run = false;
      }
      body.push_back(static_cast<char>(c));
    }
  }
  --expansion_blocked;
  (void)what;
  body.push_back(';');
  return body;
}

std::string loop_report() {
  std::string s;
  for (std::size_t i = 0; i < loops.size(); ++i) {
    if (!s.empty()) s += " ";
    s += "Loop " + number_text(static_cast<int>(i) + 1) + " - " + number_text(loops[i].value);
  }
  return s;
}

}  // namespace qax::script

namespace qax::script {

namespace {
std::vector<int> inner_levels_;
}

int inner_body_level() { return inner_levels_.empty() ? 0 : inner_levels_.back(); }

void leave_inner_body() {
  const int level = inner_body_level();
  if (level <= 0) return;
  while (input_level() >= level && input_level() > 0) close_input(false);
}

bool run_inner_body(const std::string& body, const char* level_name, bool silent) {
  constexpr int max_text = 4128;
  if (input_level() + 1 > input_max_levels()) {
    error_exitf("Can't run this command with %i open files\nYou may increase \"mxproc\" and try again", input_level());
  }
  if (static_cast<int>(body.size()) > max_text) {
    error_exitf("Sorry, instructions are too long (%i bytes; max. is %i)", static_cast<int>(body.size()), max_text);
  }
  const int base = input_level();
  const int saved_silent = output_state.silent_flags;
  const int saved_timeout = shell_state.timeout_seconds;
  if (silent) output_state.silent_flags |= 7;
  opening_inner_ = 1;
  push_text_level(body, level_name);
  opening_inner_ = 0;
  inner_levels_.push_back(base + 1);
  bool ok = true;
  while (input_level() > base) {
    if (input_level() == base + 1 && level_text_exhausted()) {
      close_input(false);
      break;
    }
    if (!protected_call(read_and_dispatch) || input_level() < base || !shell_state.keep_running) {
      ok = false;
      break;
    }
  }
  inner_levels_.pop_back();
  output_state.silent_flags = saved_silent;
  shell_state.timeout_seconds = saved_timeout;
  return ok;
}

}  // namespace qax::script
