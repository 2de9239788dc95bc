// sprdiff: its settings, its forms and the report of the SPR distance of two trees.
#include "support/compare_commands.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <string>
#include <vector>

#include "dataset/dataset.h"
#include "search/settings.h"
#include "shell/failure.h"
#include "shell/input.h"
#include "shell/output.h"
#include "support/command_helpers.h"
#include "support/compare_internal.h"
#include "support/consensus.h"
#include "support/temp_collapse.h"
#include "support/tree_compare.h"
#include "trees/display.h"
#include "trees/store.h"

namespace qax::support {

using namespace qax::shell;
using namespace compare_detail;
using qax::trees::tree_row;
using qax::trees::tree_store;

SprdiffSettings sprdiff_settings;

namespace {

void report_sprdiff_settings() {
  const auto& s = sprdiff_settings;
  out_printf(s.violations ? "Allowing moves from one node to its ancestor,\n"
                          : "Not allowing moves from one node to its ancestor,\n");
  if (s.halvepoly) out_printf("counting every move to resolve/collapse nodes as half\n");
  else if (s.polycount) out_printf("counting moves to resolve/collapse nodes in polytomies\n");
  else out_printf("not counting moves to resolve/collapse nodes in polytomies\n");
}

}  // namespace

void cmd_sprdiff() {
  auto& s = sprdiff_settings;
  int c = peek_char();
  if (c == '[') {
    next_char();
    if (!std::isdigit(peek_char()) && peek_char() != '.') error_exit("Value expected");
    const double k = read_real();
    if (k <= 0) error_exit("Value expected");
    if (s.halvepoly) error_exit("Cannot use both weighted moves and halve resolutions!");
    s.weight_constant = k;
    out_printf("Constant for tree-comparisons is %.5f\n", k);
    return;
  }
  if (c == ']') {
    next_char();
    s.weight_constant = 0;
    out_printf("Counting raw SPR moves\n");
    return;
  }
  if (std::isalpha(c)) {
    const SprdiffSettings saved = s;
    try {
      while (peek_char() != ';') {
        read_token();
        const std::string w = token_buffer;
        if (w == "violations") s.violations = 1;
        else if (w == "noviolations") s.violations = 0;
        else if (w == "polycount") { s.polycount = 1; s.halvepoly = 0; }
        else if (w == "nopolycount") { s.polycount = 0; s.halvepoly = 0; }
        else if (w == "halvepoly") {
          if (s.weight_constant > 0) error_exit("Cannot use both weighted moves and halve resolutions!");
          s.halvepoly = 1;
          s.polycount = 1;
        } else error_exitf("Unexpected \"%s\"...", w.c_str());
      }
    } catch (const CommandFailed&) {
      s = saved;
      throw;
    }
    report_sprdiff_settings();
    return;
  }
  const bool show = accept_char('*') != 0;
  require_trees();
  const int j = read_int();
  const int k = peek_char() == ';' ? -1 : read_int();
  if (j < 0 || k < 0) error_exit("Two tree numbers required");
  if (j >= tree_store.ntrees) error_exit({"No tree", number_text(j)});
  if (k >= tree_store.ntrees) error_exit({"No tree", number_text(k)});
  int reps = 10, passes = 0;
  bool alternate = false;
  if (std::isdigit(peek_char())) {
    const long long n = read_int();
    if (n < 1 || n > 1000000) error_exit("Number of replications must be 1-1000000");
    reps = static_cast<int>(n);
    if (peek_char() == 'x' || peek_char() == '+') {
      alternate = next_char() == '+';
      const int p = read_int();
      if (p < 1 || p > 1000) error_exit("Passes must be 1-1000");
      passes = p;
    }
  }
  if (peek_char() != ';') {
    read_token();
    error_exitf("Unexpected \"%s\"...", token_buffer);
  }
  const int ntax = tree_store.ntax;
  if (dataset::dataset.outgroup != 0)
    out_printf("To calculate SPR distances, taxon 0 (=%s)\nwill be made outgroup temporarily\n", taxon_name(0).c_str());
  const SprResult r = spr_distance(tree_row(j), tree_row(k), ntax, reps, s.weight_constant,
                                   static_cast<std::uint32_t>(search::search_settings.seed + 1), show, s.violations != 0,
                                   passes, alternate);
  const std::vector<std::uint8_t> inc = shared_taxa(tree_row(j), tree_row(k), ntax, {});
  int taxa = 0;
  for (auto f : inc) taxa += f != 0;
  if (show) {
    for (std::size_t i = 0; i < r.steps.size(); ++i) {
      char title[120];
      if (s.weight_constant > 0) {
        const double far = (taxa - 3) / (s.weight_constant + taxa - 3);
        const int d = r.distances[i];
        std::snprintf(title, sizeof title, "Move nr. %i (%i nodes away, cost %.4f)", static_cast<int>(i) + 1, d,
                      (d / (s.weight_constant + d)) / far);
      } else {
        std::snprintf(title, sizeof title, "Move nr. %i", static_cast<int>(i) + 1);
      }
      qax::trees::draw_tree(r.steps[i].data(), ntax, nullptr, title);
    }
  }
  // Resolving the polytomies of the first tree, and collapsing the groups the second
  // lacks, take one move each (half with halvepoly) when they are counted.
  double value = r.weighted;
  int unweighted = r.moves;
  if (s.polycount && taxa > 3) {
    int ref = 0;
    while (ref < ntax && !inc[ref]) ++ref;
    const int full = taxa - 3;
    const int extra = (full - static_cast<int>(tree_groups(tree_row(j), ntax, inc, false, ref).size())) +
                      (full - static_cast<int>(tree_groups(tree_row(k), ntax, inc, false, ref).size()));
    unweighted += extra;
    if (s.weight_constant > 0) {
      const double far = full / (s.weight_constant + full);
      value += extra * (1.0 / (s.weight_constant + 1.0)) / far;
    } else {
      value += s.halvepoly ? extra * 0.5 : extra;
    }
  }
  out_printf("From tree %i%s to tree %i: ", j, r.resolved ? " (best resolution)" : "", k);
  if (s.weight_constant > 0) out_printf("%.4f weighted (%i unwt)", value, unweighted);
  else if (s.halvepoly && s.polycount) out_printf("%.1f", value);
  else out_printf("%.0f", value);
  const double denom = taxa > 3 ? taxa - 3 : 1;
  const double similarity = 1.0 - value / denom;
  out_printf(" SPR moves (similarity: %.4f)\n", similarity);
  last_comparison.sprdiff = value;
  last_comparison.sprsim = similarity;
}

}  // namespace qax::support
