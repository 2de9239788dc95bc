// Score reports on the trees in memory: length, scores, cscores, chomo. Binary trees on the
// active taxa are scored by the packed kernels; trees with polytomies or missing taxa by an
// exact per-character pass on the unpacked matrix (hard polytomies).
#include <algorithm>
#include <bit>
#include <climits>
#include <cstdio>
#include <string>
#include <vector>

#include "dataset/dataset.h"
#include "dataset/lists_bridge.h"
#include "optim/field_ops.h"
#include "optim/implied.h"
#include "optim/kernels.h"
#include "optim/recons.h"
#include "optim/reports.h"
#include "optim/wide.h"
#include "shell/failure.h"
#include "shell/input.h"
#include "shell/output.h"
#include "trees/store.h"

namespace qax::optim {

ImpliedSettings implied_settings;

using namespace qax::shell;
using qax::dataset::dataset;
using qax::trees::tree_store;

namespace {

// Steps of character c below `node` with every state assignment (cost[s]); hard polytomies.
void node_costs(const std::vector<std::vector<int>>& kids, int node, int c, bool additive,
                std::vector<std::int64_t>& out) {
  constexpr std::int64_t inf = INT_MAX;
  out.assign(32, 0);
  if (node < dataset.ntax) {
    std::uint32_t v = dataset.cell(node, c);
    const bool active = node < static_cast<int>(dataset.taxon_active.size()) ? dataset.taxon_active[node] : true;
    if (v == dataset.missing_value() || v == 0 || !active) return;
    // An additive polymorphism is the interval between its lowest and highest state.
    if (additive) v = (~0u >> std::countl_zero(v)) & (~0u << std::countr_zero(v));
    for (int s = 0; s < 32; ++s) out[s] = (v >> s & 1) ? 0 : inf;
    return;
  }
  std::vector<std::int64_t> child;
  for (int k : kids[node]) {
    node_costs(kids, k, c, additive, child);
    for (int s = 0; s < 32; ++s) {
      std::int64_t best = inf;
      for (int t = 0; t < 32; ++t)
        if (child[t] < inf) best = std::min(best, child[t] + (additive ? std::abs(s - t) : (s != t)));
      out[s] = std::min(inf, out[s] + best);
    }
  }
}

}  // namespace

namespace {

// Characters of cost tables with one cost count that cost per step; wide characters (other
// Sankoff tables, continuous characters) are scored exactly one by one on the tree.
void wide_and_multiplied_steps(const std::vector<int>& parent, std::vector<int>& steps) {
  const Packed& p = packed;
  bool any_wide = false;
  for (int c = 0; c < dataset.nchar; ++c) {
    if (steps[c] > 0 && c < static_cast<int>(p.char_multiplier.size())) steps[c] *= p.char_multiplier[c];
    if ((c < static_cast<int>(p.wide.sankoff_of.size()) && p.wide.sankoff_of[c] >= 0) ||
        (c < static_cast<int>(p.wide.cont_of.size()) && p.wide.cont_of[c] >= 0))
      any_wide = true;
  }
  if (!any_wide) return;
  const CharTree t = char_tree_from_parent(parent);
  for (int c = 0; c < dataset.nchar; ++c) {
    const std::int64_t v = wide_character_steps(t, c);
    if (v >= 0) steps[c] = static_cast<int>(std::min<std::int64_t>(v, INT_MAX));
  }
}

void plain_character_steps(const std::vector<int>& parent, std::vector<int>& steps);

}  // namespace

void character_steps(const std::vector<int>& parent, std::vector<int>& steps) {
  ensure_packed();
  plain_character_steps(parent, steps);
  wide_and_multiplied_steps(parent, steps);
}

namespace {

void plain_character_steps(const std::vector<int>& parent, std::vector<int>& steps) {
  ensure_packed();  // the per-column constants below belong to the packed matrix
  const int ntax = dataset.ntax;
  const int* row = parent.data();
  steps.assign(dataset.nchar, -1);
  WorkTree w;
  if (load_tree(parent, w)) {
    tree_score(w, 0);
    for (int c = 0; c < dataset.nchar; ++c)
      if (dataset.chars[c].active && dataset.chars[c].weight != 0 && !dataset.chars[c].is_continuous)
        steps[c] = packed.char_constant[c];
    // Attribute the empty fields of every inner node to their columns (and the variables of
    // state trees fitted one by one to their units, after the characters).
    const bool units = !packed.unit_char.empty();
    if (units) steps.resize(dataset.nchar + packed.unit_char.size(), 0);
    const Layout& L = packed.layout;
    const NodeSets* ns = packed.node_sets.data();
    for (int n : w.preorder) {
      const std::uint32_t* a = ns[w.left_child[n]].down_set;
      const std::uint32_t* b = ns[w.right_child[n]].down_set;
      for (int i = 0; i < L.end4; ++i) {
        int shift;
        for (std::uint32_t e = ops::empty_marks(i, L.end0, L.end1, L.end2, a[i] & b[i], shift); e; e &= e - 1) {
          const PackedChar& pc = packed.packed_char[L.record_base[i] + (std::countr_zero(e) >> shift)];
          if (pc.character < 0) continue;
          ++steps[pc.character];
          if (units && packed.plan_unit[pc.plan] >= 0) ++steps[packed.plan_unit[pc.plan]];
        }
      }
    }
    return;
  }
  const int end = std::min(static_cast<int>(parent.size()), std::max(row[ntax], ntax + 1));
  std::vector<std::vector<int>> kids(end);
  for (int n = 0; n < end; ++n)
    if (n != ntax && row[n] >= ntax && row[n] < end) kids[row[n]].push_back(n);
  std::vector<std::int64_t> cost;
  for (int c = 0; c < dataset.nchar; ++c) {
    const auto& r = dataset.chars[c];
    if (!r.active || r.weight == 0 || r.is_continuous) continue;
    node_costs(kids, ntax, c, r.additive != 0, cost);
    steps[c] = static_cast<int>(*std::min_element(cost.begin(), cost.end()));
  }
}

}  // namespace

// Trees of "N/L": all trees when no list is given. Fails without data (and, when
// need_trees, without trees).
std::vector<int> read_trees_argument(bool need_trees) {
  qax::dataset::require_data();
  if (need_trees && tree_store.ntrees == 0) error_exit("No trees in memory");
  std::vector<std::uint8_t> flags;
  int named = 0;
  const int c = peek_char();
  if (c != ';' && c != '/') named = qax::trees::read_tree_list(flags, false);
  std::vector<int> list;
  for (int k = 0; k < tree_store.ntrees; ++k)
    if (!named || (k < static_cast<int>(flags.size()) && flags[k] == 1)) list.push_back(k);
  if (list.empty()) error_exit("No trees specified");
  return list;
}

namespace {

// Steps of every character on stored tree k; `soft`: polytomies resolved in the best way
// for each character (binary trees take the kernels either way).
void tree_char_steps(int k, std::vector<int>& steps, bool soft = false) {
  std::vector<int> parent(tree_store.row_size);
  const std::int32_t* row = qax::trees::tree_row(k);
  for (int i = 0; i < tree_store.row_size; ++i) parent[i] = row[i];
  if (soft && !char_tree_from_parent(parent).binary) {
    soft_character_steps(parent, steps);
    wide_and_multiplied_steps(parent, steps);
  } else {
    character_steps(parent, steps);
  }
}

bool is_continuous_column(int c) {
  return c < static_cast<int>(packed.wide.cont_of.size()) && packed.wide.cont_of[c] >= 0;
}

// Weighted total; continuous characters count in thousandths, so the total is a real.
double weighted_total(const std::vector<int>& steps, bool* fractional = nullptr) {
  long long whole = 0, thousandths = 0;
  for (int c = 0; c < dataset.nchar; ++c) {
    if (steps[c] < 0) continue;
    const long long v = static_cast<long long>(steps[c]) * dataset.chars[c].weight;
    if (is_continuous_column(c)) {
      thousandths += v;
      if (fractional) *fractional = true;
    } else {
      whole += v;
    }
  }
  return static_cast<double>(whole) + static_cast<double>(thousandths) / 1000.0;
}

// Values by item in rows of ten, with the item number of each row first.
void print_table(const std::vector<int>& items, const std::vector<std::string>& values) {
  if (items.empty()) return;
  if (table_capture) table_capture(values);
  char cell[64];
  int width = 6;
  for (const std::string& v : values) width = std::max(width, static_cast<int>(v.size()) + 1);
  std::string line = "      ";
  for (int k = 0; k < 10; ++k) { std::snprintf(cell, sizeof cell, "%*i", width, k); line += cell; }
  out_line({line});
  line.clear();
  int row = -1, col = 0;
  for (std::size_t i = 0; i < items.size(); ++i) {
    const int r = items[i] / 10 * 10;
    if (r != row) {
      if (row >= 0) out_line({line});
      std::snprintf(cell, sizeof cell, "%5i ", r);
      line = cell;
      row = r;
      col = 0;
    }
    for (; col < items[i] % 10; ++col) line += std::string(width, ' ');
    std::snprintf(cell, sizeof cell, "%*s", width, values[i].c_str());
    line += cell;
    ++col;
  }
  out_line({line});
}


std::vector<int> read_chars_argument() {
  std::vector<int> chars;
  if (accept_char('/')) {
    std::vector<std::int8_t> flags;
    qax::dataset::read_character_list(flags);
    for (int c = 0; c < dataset.nchar; ++c) if (flags[c] == 1) chars.push_back(c);
  } else {
    for (int c = 0; c < dataset.nchar; ++c) chars.push_back(c);
  }
  return chars;
}

void prepare() {
  qax::dataset::minmax_check();
  pack_data(false, false);
}

double fit_total(const std::vector<int>& steps, bool concave) {
  if (!concave) return implied_total(steps);
  const double k = implied_settings.concavity;
  double total = 0;
  for (int c = 0; c < dataset.nchar; ++c) {
    if (steps[c] < 0) continue;
    const auto& r = dataset.chars[c];
    if (!r.active || r.weight == 0) continue;
    const double h = character_homoplasy(c, steps[c]);
    total += r.weight * k / (k + h);
  }
  return total;
}

// "scores", "length", "fit": one total per tree; fits when `fits` (1 convex, 2 concave "*").
void total_report(int force) {
  bool soft = false, concave = false, special_and = false, special_or = false;
  for (;;) {
    if (accept_char('!')) soft = true;
    else if (accept_char('*')) concave = true;
    else if (accept_char('&')) special_and = true;
    else if (accept_char('|')) special_or = true;
    else break;
  }
  if (special_and && special_or) error_exit("You have to choose either \"&\" or \"|\"");
  if (soft && (special_and || special_or)) error_exit("Cannot do \"soft\" polytomies with \"&\" or \"|\"");
  if (soft && concave) error_exit("Cannot do \"soft\" polytomies with \"*\"");
  if (concave && implied_settings.user_weighted) error_exit("With user weighting functions, cannot do fits");
  if (special_and || special_or) error_exit("The \"&\" and \"|\" reports are not available yet");
  std::vector<int> trees = read_trees_argument();
  // "N/L": only the characters of L count; such partial totals are not stored as tree scores.
  const bool some_chars = peek_char() == '/';
  std::vector<std::uint8_t> counted(dataset.nchar, 1);
  if (some_chars) {
    counted.assign(dataset.nchar, 0);
    for (int c : read_chars_argument()) counted[c] = 1;
  }
  prepare();
  const bool fits = force == 1 || (force == 0 && (implied_settings.implied_on || concave));
  std::vector<std::string> values;
  std::vector<int> steps;
  char text[64];
  for (int k : trees) {
    tree_char_steps(k, steps, soft);
    for (int c = 0; c < dataset.nchar; ++c) if (!counted[c]) steps[c] = -1;
    if (fits) {
      const double f = fit_total(steps, concave);
      std::snprintf(text, sizeof text, "%.5f", f);
      if (!concave && !soft && !some_chars) tree_store.scores[k] = f;
    } else {
      bool fractional = false;
      const double total = weighted_total(steps, &fractional);
      std::snprintf(text, sizeof text, fractional ? "%.3f" : "%.0f", total);
      // Under implied weighting the stored scores are fits: steps are only reported.
      if (!soft && !some_chars && !implied_settings.implied_on) tree_store.scores[k] = total;
    }
    values.push_back(text);
  }
  if (fits) {
    std::snprintf(text, sizeof text, "%s (K = %.5f)", concave ? "Concave fits" : "Tree fits", implied_settings.concavity);
    out_line({text});
  } else {
    out_line({"Tree lengths"});
  }
  print_table(trees, values);
}

// "cscores" (homoplasy = false) and "chomo" (homoplasy = true).
void character_report(bool homoplasy) {
  const bool soft = accept_char('!');
  std::vector<int> trees = read_trees_argument();
  std::vector<int> chars = read_chars_argument();
  prepare();
  std::vector<int> steps;
  for (int k : trees) {
    tree_char_steps(k, steps, soft);
    std::vector<std::string> values;
    double total = 0;
    bool fractional = false;
    if (!homoplasy && implied_settings.implied_on) {
      // Under implied weighting each character reports its weighted fit.
      const std::vector<double> fits = character_fits(steps);
      for (int c : chars) {
        if (steps[c] < 0) { values.push_back("--"); continue; }
        const double f = fits[c];
        total += f;
        char cell[32];
        std::snprintf(cell, sizeof cell, "%.5f", f);
        values.push_back(cell);
      }
      char title[96];
      std::snprintf(title, sizeof title, "Tree %i, total adjusted homoplasy %f", k, total);
      out_line({title});
      print_table(chars, values);
      continue;
    }
    for (int c : chars) {
      const auto& r = dataset.chars[c];
      if (steps[c] < 0) { values.push_back("--"); continue; }
      const int v = homoplasy ? steps[c] - r.min_steps + r.internal_steps : steps[c];
      if (is_continuous_column(c)) {
        // Thousandths: min_steps of a continuous character is in thousandths too.
        char cell[32];
        std::snprintf(cell, sizeof cell, "%.3f", v / 1000.0);
        values.push_back(cell);
        total += static_cast<double>(v) * r.weight / 1000.0;
        fractional = true;
        continue;
      }
      total += static_cast<double>(v) * r.weight;
      values.push_back(std::to_string(v));
    }
    char title[96];
    if (homoplasy) std::snprintf(title, sizeof title, fractional ? "Tree %i, homoplasy (total %.3f)" : "Tree %i, homoplasy (total %.0f)", k, total);
    else std::snprintf(title, sizeof title, fractional ? "Tree %i, total length %.3f" : "Tree %i, total length %.0f", k, total);
    out_line({title});
    print_table(chars, values);
  }
}

}  // namespace

double stored_tree_length(int k, int character) {
  prepare();
  std::vector<int> steps;
  tree_char_steps(k, steps, false);
  if (character >= 0) return character < dataset.nchar && steps[character] > 0 ? steps[character] : 0;
  return static_cast<double>(weighted_total(steps));
}

void cmd_length() { total_report(-1); }
void cmd_scores() { total_report(0); }
void cmd_fit() { total_report(1); }
void cmd_cscores() { character_report(false); }
void cmd_chomo() { character_report(true); }

}  // namespace qax::optim
