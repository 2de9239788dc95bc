// The commands change (least and greatest numbers of a change over the best
// reconstructions) and recons (states of every node in some best reconstruction).
#include <algorithm>
#include <bit>
#include <cstdio>
#include <string>
#include <vector>

#include "dataset/dataset.h"
#include "dataset/lists_bridge.h"
#include "optim/recons.h"
#include "optim/reports.h"
#include "shell/failure.h"
#include "shell/input.h"
#include "shell/output.h"
#include "trees/store.h"

namespace qax::optim {

using namespace qax::shell;
using qax::dataset::dataset;
using qax::trees::tree_store;

namespace {

bool discrete(int c) {
  const auto& r = dataset.chars[c];
  return r.active && r.weight != 0 && !r.is_continuous;
}


// A state set typed by the user: "?" (any state), "[01]", or symbols of the data format.
// Returns 0 for "any".
std::uint32_t read_state_set() {
  if (!read_token()) error_exit("Use change trees / chars. / from to");
  std::uint32_t set = 0;
  for (const char* p = token_buffer; *p; ++p) {
    if (*p == '[' || *p == ']') continue;
    const std::uint32_t v = dataset.symbols[static_cast<unsigned char>(*p)];
    if (v == 0) error_exitf("Unrecognized state \"%c\"", *p);
    if (v == dataset.missing_value() || *p == '?') return 0;
    set |= v;
  }
  return set;
}

std::string char_label(int c, int width) {
  if (c >= static_cast<int>(dataset.character_names.size()) || dataset.character_names[c].empty()) return {};
  std::string name = dataset.character_names[c];
  if (width > 0 && static_cast<int>(name.size()) > width) name.resize(width);
  return name;
}

}  // namespace

void cmd_change() {
  const bool by_tree = accept_char('[');
  const bool by_char = !by_tree && accept_char(']');
  std::vector<int> trees = read_trees_argument();
  if (!accept_char('/')) error_exit("Use change trees / chars. / from to");
  std::vector<std::int8_t> flags;
  qax::dataset::read_character_list(flags, "/");
  if (!accept_char('/')) error_exit("Use change trees / chars. / from to");
  std::uint32_t from = read_state_set();
  std::uint32_t to = read_state_set();
  if (!from && !to) error_exit("Can't define both from and to as anything");
  if (!from) from = ~0u;
  if (!to) to = ~0u;
  qax::dataset::minmax_check();
  std::vector<int> chars;
  for (int c = 0; c < dataset.nchar; ++c) if (flags[c] == 1 && discrete(c)) chars.push_back(c);
  if (chars.empty()) error_exit("No (discrete) character specified");

  // least[i][j], most[i][j]: tree i, character j
  std::vector<std::vector<int>> least(trees.size(), std::vector<int>(chars.size()));
  std::vector<std::vector<int>> most = least;
  const long long total = static_cast<long long>(trees.size()) * chars.size();
  long long done = 0;
  for (std::size_t i = 0; i < trees.size(); ++i) {
    const CharTree t = char_tree_of(trees[i]);
    for (std::size_t j = 0; j < chars.size(); ++j) {
      show_progress(done++, total, "Counting");
      count_changes(t, chars[j], from, to, least[i][j], most[i][j]);
    }
  }
  char text[256];
  auto char_line = [&](int c, int lo, int hi) {
    if (hi == 0) {
      std::snprintf(text, sizeof text, "Char. %i, no such change possible", c);
    } else {
      const std::string name = char_label(c, 0);
      if (!name.empty()) std::snprintf(text, sizeof text, "Char %i (%s), min/max changes (%i-%i)", c, name.c_str(), lo, hi);
      else std::snprintf(text, sizeof text, "Char %i, min/max changes (%i-%i)", c, lo, hi);
    }
    out_line({text});
  };
  if (by_char) {
    for (std::size_t j = 0; j < chars.size(); ++j) {
      int lo = least[0][j], hi = most[0][j];
      for (std::size_t i = 1; i < trees.size(); ++i) {
        lo = std::min(lo, least[i][j]);
        hi = std::max(hi, most[i][j]);
      }
      char_line(chars[j], lo, hi);
    }
    return;
  }
  for (std::size_t i = 0; i < trees.size(); ++i) {
    int lo = 0, hi = 0;
    for (std::size_t j = 0; j < chars.size(); ++j) { lo += least[i][j]; hi += most[i][j]; }
    std::snprintf(text, sizeof text, "Tree %i, total min/max changes (%i-%i)", trees[i], lo, hi);
    out_line({text});
    if (!by_tree)
      for (std::size_t j = 0; j < chars.size(); ++j) char_line(chars[j], least[i][j], most[i][j]);
  }
}

// A state set in the names given with cnames, cut to `width` letters (0: whole names);
// symbols when the character has no state names; "?" for the empty set.
std::string state_set_text(int c, std::uint32_t v, int width) {
  const bool named = c < static_cast<int>(dataset.state_names.size()) && !dataset.state_names[c].empty();
  if (!named || v == 0) return qax::dataset::state_text(c, v ? v : dataset.missing_value());
  std::string text;
  const int count = std::popcount(v);
  for (std::uint32_t a = v; a; a &= a - 1) {
    const int s = std::countr_zero(a);
    std::string name = s < static_cast<int>(dataset.state_names[c].size()) ? dataset.state_names[c][s] : "";
    if (name.empty()) name = qax::dataset::state_text(c, 1u << s);
    if (width > 0 && static_cast<int>(name.size()) > width) name.resize(width);
    if (!text.empty()) text += ' ';
    text += name;
  }
  return count > 1 ? "[" + text + "]" : text;
}

void cmd_recons() {
  int char_width = 0, state_width = 0;
  if (accept_char('(')) {
    char_width = read_int();
    if (char_width <= 0) error_exit("Expected character name width (width > 0 )");
    if (!accept_char('x') && !accept_char('X')) error_exit("Syntax for Character:State name widths is \"(CxS)\"");
    state_width = read_int();
    if (state_width <= 0) error_exit("Expected character name width (width > 0 )");
    if (!accept_char(')')) error_exit("Expected closing parenthesis");
  }
  std::vector<int> trees = read_trees_argument();
  std::vector<int> chars;
  bool skipped = false;
  if (accept_char('/')) {
    std::vector<std::int8_t> flags;
    qax::dataset::read_character_list(flags);
    for (int c = 0; c < dataset.nchar; ++c) {
      if (flags[c] != 1) continue;
      if (dataset.chars[c].is_continuous) skipped = true;
      else if (discrete(c)) chars.push_back(c);
    }
  } else {
    for (int c = 0; c < dataset.nchar; ++c) {
      if (dataset.chars[c].is_continuous && dataset.chars[c].active) skipped = true;
      else if (discrete(c)) chars.push_back(c);
    }
  }
  qax::dataset::minmax_check();
  if (skipped) {
    out_line({"Cannot do reconstructions for continuous/landmark"});
    out_line({"character(s); those will be ignored"});
  }
  char text[256];
  CharCosts costs;
  std::vector<std::uint32_t> sets;
  for (int k : trees) {
    const CharTree t = char_tree_of(k);
    std::snprintf(text, sizeof text, "Tree %i, states in most parsimonious reconstructions", k);
    out_line({text});
    for (int c : chars) {
      char_costs(t, c, false, costs);
      best_state_sets(t, costs, sets);
      const std::string name = char_label(c, char_width);
      if (!name.empty()) std::snprintf(text, sizeof text, "Char %i (%s), %lli steps", c, name.c_str(), static_cast<long long>(costs.best));
      else std::snprintf(text, sizeof text, "Char %i, %lli steps", c, static_cast<long long>(costs.best));
      out_line({text});
      for (int n : t.preorder) {
        std::string label;
        if (n == t.ntax) label = "     Root: ";
        else if (n > t.ntax) label = "     Node " + std::to_string(n) + ": ";
        else label = "     " + (n < static_cast<int>(dataset.taxon_names.size()) ? dataset.taxon_names[n] : std::to_string(n)) + ": ";
        out_line({label + state_set_text(c, sets[n], state_width)});
      }
    }
  }
}

}  // namespace qax::optim
