// The list reader.
#include "shell/lists.h"

#include <cctype>
#include <cstring>

#include "shell/failure.h"
#include "shell/input.h"
#include "shell/match.h"
#include "shell/state.h"

namespace qax::shell {

TerminalsBelowFn terminals_below = nullptr;
int range_first = 0;
int range_last = 0;
int taxon_set_kind = 0;
ScopeFlags taxon_set_marks;

namespace {

bool is_terminator(int c) { return c == ';' || c == '&' || c == '/' || c == '<' || c == '=' || c == '>' || c == '\\' || c == ']'; }
bool stops_word(int c) { return c < 33 || std::strchr("|!&()*+-/@;<=>[]{}", c) != nullptr; }

bool near_match_allowed() { return shell_state.near_match && current_frame().is_terminal; }

// Reads digits without taking the character after them; -1 when there are none.
long long read_digits() {
  int c = next_char();
  if (!std::isdigit(c)) {
    unread_char();
    return -1;
  }
  long long v = 0;
  while (std::isdigit(c)) {
    if (v < 100000000000LL) v = v * 10 + (c - '0');
    c = next_char();
  }
  unread_char();
  return v;
}

std::string lower(std::string_view s) {
  std::string r(s);
  for (char& ch : r) ch = static_cast<char>(std::tolower(static_cast<unsigned char>(ch)));
  return r;
}

// State of one read_scope call.
struct ScopeReader {
  ScopeFlags& flags;
  int from, to;
  const char* label;
  const ListContext& ctx;
  std::int8_t sign = 1;
  int base = 0, limit = 0;   // items allowed: the whole range or one block
  int block = -1;            // block in force, -1 none
  bool other = false;        // groups, blocks or negatives given

  bool is_characters() const { return std::strcmp(label, "character") == 0; }
  bool is_taxa() const { return std::strcmp(label, "taxon") == 0; }
  bool in_scope(int item) const {
    if (block < 0) return true;
    return (*ctx.blocks->item_block)[item] == block;
  }
  std::string block_suffix() const { return block >= 0 ? " in block " + std::to_string(block) : std::string(); }

  void mark(int item) {
    flags[item] = sign;
    if (sign < 0) other = true;
  }

  // Item number n as typed: relative to the block in force.
  int item_number(long long n) {
    long long item = n;
    if (block >= 0) {
      int k = 0;
      item = -1;
      for (int i = from; i < to; ++i)
        if (in_scope(i) && k++ == n) {
          item = i;
          break;
        }
      if (item < 0) error_exit({std::string("No ") + label + " " + std::to_string(n) + block_suffix()});
      return static_cast<int>(item);
    }
    if (item < from || item >= to) error_exit({std::string("No ") + label + " " + std::to_string(n)});
    return static_cast<int>(item);
  }
  int last_number() const {
    if (block < 0) return to - 1;
    int k = 0;
    for (int i = from; i < to; ++i) k += in_scope(i);
    return k - 1;
  }

  void number_or_range(int c) {
    long long lo, hi;
    if (c == '.') {
      lo = block >= 0 ? 0 : from;
      long long n = read_digits();
      hi = n >= 0 ? n : last_number();
    } else {
      unread_char();
      lo = read_digits();
      hi = lo;
      int d = next_char();
      if (d == '.') {
        long long n = read_digits();
        hi = n >= 0 ? n : last_number();
      } else {
        unread_char();
      }
    }
    if (lo > hi) std::swap(lo, hi);
    if (hi < lo) return;
    int a = item_number(lo), b = item_number(hi);
    for (int i = a; i <= b; ++i)
      if (in_scope(i)) mark(i);
  }

  void name() {
    int n = read_list_word();
    if (n == 0) {
      if (ctx.names) error_exit({std::string("Expected a ") + label + " name"});
      error_exit({std::string("Expecting ") + label + " number"});
    }
    std::string word(token_buffer);
    if (!ctx.names) error_exit({std::string("Expecting ") + label + " number"});
    const std::vector<std::string>& names = *ctx.names;
    bool found = false;
    int end = std::min<int>(to, static_cast<int>(names.size()));
    if (word[0] == ':') {
      for (int i = from; i < end; ++i)
        if (in_scope(i) && name_contains(names[i], word.substr(1))) {
          mark(i);
          found = true;
        }
    } else {
      for (int i = from; i < end; ++i)
        if (in_scope(i) && !names[i].empty() && name_equal(word, names[i]) == 0) {
          mark(i);
          found = true;
        }
      if (!found && near_match_allowed()) {
        for (int i = from; i < end && !found; ++i)
          if (in_scope(i) && !names[i].empty() && closest_match(word, names[i], label)) {
            mark(i);
            found = true;
          }
      }
    }
    if (!found) error_exit({std::string("No ") + label + " named " + word + block_suffix()});
  }

  void mark_group(int g) {
    other = true;
    const ListGroups& gr = *ctx.groups;
    for (int i = from; i < to; ++i) {
      bool in = gr.masks ? i < static_cast<int>(gr.masks->size()) && ((*gr.masks)[i] >> g & 1u) != 0
                         : (gr.member && gr.member(i, g));
      if (in) flags[i] = sign;
    }
  }

  void group_set() {
    if (!ctx.groups) error_exit({std::string("No ") + label + " groups defined"});
    const ListGroups& gr = *ctx.groups;
    for (;;) {
      int c = next_nonblank();
      if (c == '}') return;
      if (c == ';') error_exit("Unexpected semicolon within brackets");
      if (std::isdigit(c) || c == '.') {
        unread_char();
        read_range(0, gr.capacity, (std::string(label) + " group").c_str());
        for (int g = range_first; g <= range_last; ++g) mark_group(g);
        continue;
      }
      if (stops_word(c)) error_exit("Found allien character within brackets");
      unread_char();
      read_list_word();
      std::string word(token_buffer);
      bool found = false;
      int top = gr.names ? static_cast<int>(gr.names->size()) : 0;
      for (int g = top - 1; g >= 0; --g)
        if (name_equal(word, (*gr.names)[g]) == 0) {
          mark_group(g);
          found = true;
        }
      if (!found && near_match_allowed())
        for (int g = top - 1; g >= 0 && !found; --g)
          if (closest_match(word, (*gr.names)[g], "group")) {
            mark_group(g);
            found = true;
          }
      if (!found) error_exit({std::string("No ") + label + " group named " + word});
    }
  }

  void at_sign() {
    if (is_taxa()) {
      if (!terminals_below) error_exit("No trees in memory");
      int tree = read_int();
      int node = read_int();
      if (tree < 0 || node < 0) error_exit("Expected tree and node numbers after @");
      terminals_below(tree, node, flags, sign);
      other = true;
      return;
    }
    if (!is_characters()) error_exit("@ can be used only in reference to taxa or characters");
    int count = ctx.blocks ? ctx.blocks->count : 1;
    int c = peek_char();
    int b = -1;
    if (std::isdigit(c)) {
      b = read_int();
      if (b >= count) error_exit({"Only valid blocks are 0 -", std::to_string(count - 1)});
    } else if (!stops_word(c)) {
      read_list_word();
      std::string word(token_buffer);
      if (ctx.blocks && ctx.blocks->names)
        for (int i = 0; i < static_cast<int>(ctx.blocks->names->size()); ++i)
          if (name_equal(word, (*ctx.blocks->names)[i]) == 0) {
            b = i;
            break;
          }
      if (b < 0) error_exit({"No block named", word});
    } else {
      error_exit({"Must give a block number ( 0 -", std::to_string(count - 1), ") after @"});
    }
    block = (b == 0 || !ctx.blocks || !ctx.blocks->item_block) ? -1 : b;
    other = true;
  }
};

}  // namespace

int read_list_word() {
  int c = next_nonblank();
  int n = 0;
  while (!stops_word(c) && n < token_buffer_size) {
    token_buffer[n++] = static_cast<char>(c);
    c = next_char();
  }
  token_buffer[n] = 0;
  unread_char();
  return n;
}

int name_equal(std::string_view a, std::string_view b) {
  if (a.size() > b.size()) return 1;
  for (std::size_t i = 0; i < a.size(); ++i)
    if (std::tolower(static_cast<unsigned char>(a[i])) != std::tolower(static_cast<unsigned char>(b[i]))) return 1;
  return 0;
}

int name_contains(std::string_view a, std::string_view b) {
  return lower(a).find(lower(b)) != std::string::npos ? 1 : 0;
}

int read_scope(ScopeFlags& flags, int from, int to, const char* label, const ListContext& context) {
  if (static_cast<int>(flags.size()) < to) flags.resize(to, 0);
  for (int i = from; i < to; ++i) flags[i] = 0;
  ScopeReader r{flags, from, to, label, context};
  bool listed = false;
  for (;;) {
    int c = next_nonblank();
    if (is_terminator(c) || (context.extra_terminators && c && std::strchr(context.extra_terminators, c))) {
      unread_char();
      break;
    }
    listed = true;
    if (c == '+') r.sign = 1;
    else if (c == '-') r.sign = -1;
    else if (c == '@') {
      r.at_sign();
      // "@block" with no items after it names the whole block.
      int d = next_nonblank();
      unread_char();
      bool ends = is_terminator(d) || (context.extra_terminators && d && std::strchr(context.extra_terminators, d)) || d == '@';
      if (ends && r.block >= 0)
        for (int i = from; i < to; ++i)
          if (r.in_scope(i)) r.mark(i);
    }
    else if (c == '^') {
      if (!r.is_characters()) error_exit("@ can be used only in reference to taxa or characters");
      error_exit("No character complexes defined");
    } else if (c == '{') r.group_set();
    else if (std::isdigit(c) || c == '.') r.number_or_range(c);
    else {
      unread_char();
      r.name();
    }
  }
  int count = 0;
  for (int i = from; i < to; ++i) count += flags[i] == 1;
  if (count == 0 && (r.other || listed)) return listed ? 1 : 0;
  return count;
}

int read_scope(ScopeFlags& flags, int from, int to, const char* label, const std::vector<std::string>* names) {
  ListContext ctx;
  ctx.names = names;
  return read_scope(flags, from, to, label, ctx);
}

void read_range(int from, int to, const char* label, const std::vector<std::string>* names) {
  auto bound = [&](long long& v) -> bool {
    int c = peek_char();
    if (std::isdigit(c)) {
      v = read_digits();
      return true;
    }
    if (names && std::strcmp(label, "taxon") == 0 && !stops_word(c) && c != '.') {
      read_list_word();
      std::string word(token_buffer);
      for (int i = from; i < to && i < static_cast<int>(names->size()); ++i)
        if (name_equal(word, (*names)[i]) == 0) {
          v = i;
          return true;
        }
      error_exit({"Unidentified taxon name:", word});
    }
    return false;
  };
  long long lo = from, hi = to - 1;
  bool have_lo = bound(lo);
  int c = next_char();
  if (c == '.') {
    long long v;
    if (bound(v)) hi = v;
    else hi = to - 1;
    if (!have_lo) lo = from;
  } else {
    unread_char();
    if (!have_lo) error_exit({std::string("Expecting ") + label + " number"});
    hi = lo;
  }
  if (lo > hi) std::swap(lo, hi);
  if (lo < from || lo >= to) error_exit({"Error in scope:", label, std::to_string(lo)});
  if (hi < from || hi >= to) error_exit({"Error in scope:", label, std::to_string(hi)});
  range_first = static_cast<int>(lo);
  range_last = static_cast<int>(hi);
}

int read_taxon(const ListContext& context, int ntax) {
  taxon_set_kind = 0;
  int c = peek_char();
  auto single_or_set = [&]() {
    int first = -1, count = 0;
    for (int i = 0; i < ntax; ++i)
      if (taxon_set_marks[i] == 1) {
        if (first < 0) first = i;
        ++count;
      }
    if (count == 0) error_exit("No taxa named");
    taxon_set_kind = count > 1 ? 2 : 0;
    return first;
  };
  if (std::isdigit(c)) {
    int n = read_int();
    if (n >= ntax) error_exit({"Error: no taxon", std::to_string(n)});
    return n;
  }
  if (c == '{' || c == '@') {
    taxon_set_marks.assign(ntax, 0);
    ScopeReader r{taxon_set_marks, 0, ntax, "taxon", context};
    next_char();
    if (c == '{') r.group_set();
    else r.at_sign();
    return single_or_set();
  }
  std::string word;
  c = next_nonblank();
  while ((std::isalnum(c) || std::strchr(".:?@_", c)) && c && static_cast<int>(word.size()) < shell_state.name_limit - 1) {
    word.push_back(static_cast<char>(c));
    c = next_char();
  }
  unread_char();
  if (word.empty()) error_exit("Expected a taxon name");
  const std::vector<std::string>* names = context.names;
  int end = names ? std::min<int>(ntax, static_cast<int>(names->size())) : 0;
  if (word[0] == ':' || (word.size() > 3 && word.compare(word.size() - 3, 3, "...") == 0)) {
    bool contains = word[0] == ':';
    std::string key = contains ? word.substr(1) : word.substr(0, word.size() - 3);
    taxon_set_marks.assign(ntax, 0);
    for (int i = 0; i < end; ++i) {
      bool hit = contains ? name_contains((*names)[i], key) : name_equal(key, (*names)[i]) == 0;
      if (hit) taxon_set_marks[i] = 1;
    }
    bool any = false;
    for (int i = 0; i < end; ++i) any |= taxon_set_marks[i] == 1;
    if (!any) {
      if (contains) error_exit({"No name contains", key});
      error_exit({"Unidentified taxon name:", word});
    }
    return single_or_set();
  }
  for (int i = 0; i < end; ++i)
    if (name_equal(word, (*names)[i]) == 0) return i;
  if (near_match_allowed())
    for (int i = 0; i < end; ++i)
      if (closest_match(word, (*names)[i], "taxon")) return i;
  error_exit({"Unidentified taxon name:", word});
}

}  // namespace qax::shell
