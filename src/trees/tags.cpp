// Tree tags: collecting the values printed on trees, and the ttags command.
#include "trees/tags.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "dataset/dataset.h"
#include "shell/failure.h"
#include "shell/input.h"
#include "shell/output.h"
#include "shell/state.h"
#include "trees/display.h"
#include "trees/notation.h"
#include "trees/store.h"

namespace qax::trees {

using namespace qax::shell;

TagSettings tag_settings;

void reset_tag_settings() { tag_settings = TagSettings(); }

bool tags_defined() {
  const auto& s = tree_store;
  return !s.tag_tree.empty() && static_cast<int>(s.tag_tree.size()) == 2 * s.ntax - 1;
}

namespace {

// Appends text to a tag, with the separator when the tag has text already.
void append_tag(std::string& tag, const std::string& text) {
  if (text.empty()) return;
  if (!tag.empty() && tree_store.tag_separator) tag.push_back(static_cast<char>(tree_store.tag_separator));
  tag += text;
  if (static_cast<int>(tag.size()) > tag_length) tag.resize(tag_length);
}

// Starts a tag tree from the tree, with empty tags.
void set_tag_tree(const std::int32_t* tree, int ntax) {
  auto& s = tree_store;
  s.tag_tree.assign(tree, tree + 2 * ntax - 1);
  s.tags.assign(2 * ntax - 1, std::string());
  s.tags_from_consensus = 0;
}

bool any_tag() {
  for (const auto& t : tree_store.tags)
    if (!t.empty()) return true;
  return false;
}

// Node of the tag tree for node v of tree: the same terminals (terminals map to
// themselves), or -1.
std::vector<int> match_nodes(const std::int32_t* tree, int ntax) {
  const auto& tag = tree_store.tag_tree;
  std::vector<int> map(2 * ntax - 1, -1);
  if (trees_equal(tree, tag.data(), ntax)) {
    for (int v = 0; v < 2 * ntax - 1; ++v) map[v] = v;
    return map;
  }
  std::vector<std::uint8_t> shared(ntax, 0);
  for (int t = 0; t < ntax; ++t) {
    shared[t] = terminal_present(tree, t, ntax) && terminal_present(tag.data(), t, ntax);
    if (shared[t]) map[t] = t;
  }
  const int words = (ntax + 63) / 64;
  auto mine = terminal_bits(tree, ntax, words, &shared);
  auto theirs = terminal_bits(tag.data(), ntax, words, &shared);
  for (int v = ntax; v < tree[ntax]; ++v) {
    const std::uint64_t* want = mine.data() + static_cast<std::size_t>(v) * words;
    for (int u = ntax; u < tag[ntax]; ++u)
      if (std::equal(want, want + words, theirs.data() + static_cast<std::size_t>(u) * words)) {
        map[v] = u;
        break;
      }
  }
  return map;
}

}  // namespace

void tags_collect(const std::int32_t* tree, int ntax, const std::vector<std::string>& labels) {
  if (!tag_settings.storing || ntax != tree_store.ntax) return;
  if (!tags_defined()) set_tag_tree(tree, ntax);
  auto& s = tree_store;
  s.tags.resize(2 * ntax - 1);
  const std::vector<int> map = match_nodes(tree, ntax);
  for (int v = 0; v < 2 * ntax - 1 && v < static_cast<int>(labels.size()); ++v)
    if (map[v] >= 0 && !labels[v].empty()) append_tag(s.tags[map[v]], labels[v]);
}

std::vector<std::string> tag_lines(const std::string& tag) {
  std::vector<std::string> lines;
  const char sep = tree_store.tag_separator ? static_cast<char>(tree_store.tag_separator) : '\\';
  if (!tag_settings.split_lines) {
    lines.push_back(tag);
    return lines;
  }
  std::string cur;
  for (char c : tag) {
    if (c == sep) {
      lines.push_back(cur);
      cur.clear();
    } else {
      cur.push_back(c);
      if (tag_settings.max_width > 0 && static_cast<int>(cur.size()) >= tag_settings.max_width) {
        lines.push_back(cur);
        cur.clear();
      }
    }
  }
  lines.push_back(cur);
  return lines;
}

namespace {

void require_tags() {
  if (!tags_defined()) error_exit("No tree-tags defined!");
}

void show_tags(bool multi) {
  require_tags();
  if (!any_tag()) error_exit("No messages to show");
  const int ntax = tree_store.ntax;
  std::vector<std::string> labels = tree_store.tags;
  labels.resize(2 * ntax - 1);
  const char sep = static_cast<char>(tree_store.tag_separator ? tree_store.tag_separator : '\\');
  const std::string title = tag_settings.title.empty() ? "Tree-tags" : tag_settings.title;
  if (!multi) {
    // One line a tag: the separator shows as "/".
    for (auto& l : labels) std::replace(l.begin(), l.end(), sep, '/');
    draw_tree(tree_store.tag_tree.data(), ntax, &labels, title);
    return;
  }
  // Multiple lines as such: the tree shows node numbers, and each tag follows below,
  // one line of text a line.
  std::vector<std::string> numbers(2 * ntax - 1);
  for (int v = 0; v < 2 * ntax - 1; ++v)
    if (!labels[v].empty()) numbers[v] = std::to_string(v);
  draw_tree(tree_store.tag_tree.data(), ntax, &numbers, title);
  for (int v = 0; v < 2 * ntax - 1; ++v) {
    if (labels[v].empty()) continue;
    std::string text = labels[v];
    std::size_t start = 0;
    bool first = true;
    for (;;) {
      const std::size_t at = text.find(sep, start);
      const std::string line = text.substr(start, at == std::string::npos ? std::string::npos : at - start);
      char head[32];
      std::snprintf(head, sizeof head, first ? "%6i  " : "        ", v);
      out_text({head, line, "\n"});
      first = false;
      if (at == std::string::npos) break;
      start = at + 1;
    }
  }
}

// Node number for +N, <N: must be a node of the tag tree.
int read_tag_node() {
  const int n = read_int();
  const auto& t = tree_store.tag_tree;
  const int ntax = tree_store.ntax;
  if (n < 0 || n >= 2 * ntax - 1 || (n < ntax && !terminal_present(t.data(), n, ntax)) || (n >= ntax && n >= t[ntax]))
    error_exit({"No node", number_text(n), "in target tree"});
  return n;
}

// Text up to ";" (leading blanks skipped).
std::string read_tag_text() { return read_rest_of_command(); }

void save_tags() {
  require_tags();
  if (!any_tag()) error_exit("No messages to save!");
  const int ntax = tree_store.ntax;
  std::string text = "tread\n'Tree with tags'\n";
  text += tree_to_text(tree_store.tag_tree.data(), ntax, true, nullptr);
  text += "\n;\nttag *!;\n";
  for (int v = 0; v < static_cast<int>(tree_store.tags.size()); ++v)
    if (!tree_store.tags[v].empty()) text += "ttag +" + std::to_string(v) + " " + tree_store.tags[v] + ";\n";
  out_text({text});
}

void set_target(bool last) {
  const int k = last ? tree_store.ntrees - 1 : read_int();
  if (k < 0 || k >= tree_store.ntrees) error_exit({"No tree", number_text(k)});
  set_tag_tree(tree_row(k), tree_store.ntax);
  tag_settings.title.clear();
}

// Codes of "<<" and ">>": -1 to -5 stand for these tags.
const char* const tag_codes[] = {"-", "Y", "N", " ", "X"};

std::string read_array_name() {
  read_token();
  const std::string name = token_buffer;
  if (name.empty() || name == ";") error_exit("Expected name of array");
  return name;
}

// "<ray", "<<ray", "[ray", "[<ray": tags from the values of an array, by node.
void tags_from_array() {
  const bool internal_only = accept_char('[') != 0;
  if (!internal_only && !accept_char('<')) error_exit("Expected \"<\" or \"[\"");
  const bool codes = accept_char('<') != 0;
  if (!tags_defined()) error_exit("Must set target tree (ttag*N ) before writing to a node");
  const std::string name = read_array_name();
  std::vector<double> values;
  if (!tag_array_read || !tag_array_read(name, values)) error_exit({"Unrecognized variable:", name});
  const int ntax = tree_store.ntax;
  const int nodes = tree_store.tag_tree.empty() ? 2 * ntax - 1 : tree_store.tag_tree[ntax];
  auto& tags = tree_store.tags;
  tags.resize(2 * ntax - 1);
  std::vector<std::string> text(nodes);
  for (int v = 0; v < nodes && v < static_cast<int>(values.size()); ++v) {
    if (internal_only && v <= ntax) continue;
    const double x = values[v];
    if (codes && x < 0) {
      if (x != std::floor(x) || x < -5) error_exit("Only integer values -1 to -5 translate into tags");
      text[v] = tag_codes[static_cast<int>(-x) - 1];
      continue;
    }
    char buf[64];
    if (x == std::floor(x) && std::fabs(x) < 1e15) std::snprintf(buf, sizeof buf, "%.0f", x);
    else std::snprintf(buf, sizeof buf, "%g", x);
    text[v] = buf;
  }
  for (int v = 0; v < nodes; ++v)
    if (!internal_only || v > ntax) tags[v] = text[v];
  out_text({"Copied values from user-variable ", name, " to tree-tags\n"});
}

// ">ray", ">>ray": the tags, which must be numbers (or, with ">>", the codes), into an
// array by node; an empty tag gives -1 (-4, the blank code, with ">>").
void tags_to_array() {
  const bool codes = accept_char('>') != 0;
  require_tags();
  const std::string name = read_array_name();
  const int ntax = tree_store.ntax;
  const int nodes = tree_store.tag_tree.empty() ? 2 * ntax - 1 : tree_store.tag_tree[ntax];
  std::vector<double> values(nodes, -1);
  for (int v = 0; v < nodes && v < static_cast<int>(tree_store.tags.size()); ++v) {
    const std::string& t = tree_store.tags[v];
    if (t.empty()) {
      values[v] = codes ? -4 : -1;
      continue;
    }
    if (codes) {
      int code = 0;
      for (int k = 0; k < 5; ++k)
        if (t == tag_codes[k]) code = -(k + 1);
      if (code) {
        values[v] = code;
        continue;
      }
    }
    char* end = nullptr;
    const double x = std::strtod(t.c_str(), &end);
    if (end == t.c_str() || *end) error_exit({"Wrong code in tags:", t});
    values[v] = x;
  }
  if (!tag_array_write) error_exit({"Unrecognized variable:", name});
  tag_array_write(name, values);
}

}  // namespace

bool (*tag_array_read)(const std::string& name, std::vector<double>& values) = nullptr;
void (*tag_array_write)(const std::string& name, const std::vector<double>& values) = nullptr;

void cmd_ttags() {
  auto& ts = tag_settings;
  const int c = peek_char();
  if (c == ';') {
    show_tags(false);
    return;
  }
  next_char();
  switch (c) {
    case '|':
      show_tags(true);
      return;
    case '=':
    case '(':
      if (peek_char() == '<' || peek_char() == '>' || peek_char() == '[') {
        if (!shell_state.macros_on) error_exit("This option is valid only when macros are enabled");
        if (peek_char() == '>') {
          next_char();
          tags_to_array();
        } else {
          tags_from_array();
        }
        return;
      }
      require_data();
      if (tags_defined() && any_tag()) out_text({"Existing tree-tags will be erased\n"});
      tree_store.tag_tree.clear();
      tree_store.tags.clear();
      tree_store.tags_from_consensus = 0;
      ts.storing = 1;
      ts.title.clear();
      out_text({"Storing tree-tags for subsequent tree printing commands\n"});
      return;
    case ')':
      ts.storing = 0;
      out_text({"Tree-tags no longer being stored\n"});
      return;
    case '-':
      tree_store.tag_tree.clear();
      tree_store.tags.clear();
      tree_store.tags_from_consensus = 0;
      ts.storing = 0;
      ts.title.clear();
      out_text({"Tree-tags cleared\n"});
      return;
    case '+': {
      if (!tags_defined()) error_exit("Must set target tree (ttag*N ) before writing to a node");
      const int n = read_tag_node();
      std::string text = read_tag_text();
      tree_store.tags.resize(2 * tree_store.ntax - 1);
      append_tag(tree_store.tags[n], text);
      return;
    }
    case '>': {
      if (!tags_defined()) error_exit("Must save messages before changing title!");
      ts.title = read_tag_text();
      return;
    }
    case '<': {
      require_tags();
      const int ntax = tree_store.ntax;
      auto& tags = tree_store.tags;
      tags.resize(2 * ntax - 1);
      if (accept_char('<')) {
        for (int t = 0; t < ntax; ++t) tags[t].clear();
        return;
      }
      if (accept_char('>')) {
        for (int v = ntax; v < 2 * ntax - 1; ++v) tags[v].clear();
        return;
      }
      tags[read_tag_node()].clear();
      return;
    }
    case '*':
      require_data();
      if (accept_char('!')) set_target(true);
      else set_target(false);
      if (peek_char() == '<' || peek_char() == '[') {
        if (!shell_state.macros_on) error_exit("This option is valid only when macros are enabled");
        tags_from_array();
      }
      return;
    case '/':
      save_tags();
      return;
    case '[':
      ts.split_lines = 1;
      if (std::isdigit(peek_char())) ts.max_width = read_int();
      if (std::isalpha(peek_char())) {
        const int p = std::tolower(next_char());
        if (p < 'a' || p > 'd') error_exit("Position of multi-line tags must be a, b, c or d");
        ts.position = static_cast<char>(p);
      }
      return;
    case ']':
      ts.split_lines = 0;
      return;
    case '!': {
      require_tags();
      for (auto& t : tree_store.tags) {
        const char sep = static_cast<char>(tree_store.tag_separator ? tree_store.tag_separator : '\\');
        std::string out;
        for (std::size_t i = 0; i < t.size(); ++i) {
          if (t[i] == sep && (out.empty() || out.back() == sep)) continue;
          out.push_back(t[i]);
        }
        while (!out.empty() && out.back() == sep) out.pop_back();
        t = out;
      }
      out_text({"Eliminated empty lines in tags\n"});
      return;
    }
    case '&':
      if (!svg_tag_output) error_exit("SVG output of tree-tags is not available yet");
      svg_tag_output();
      return;
    default:
      error_exitf("Unrecognized option for ttags: %c", c);
  }
}

void (*svg_tag_output)() = nullptr;

}  // namespace qax::trees
