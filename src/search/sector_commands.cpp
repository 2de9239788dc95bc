// The sectsch command: settings of sectorial searches, and the searches of the trees in
// memory (or of one tree), with the diameter form around a node.
#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

#include "search/constraints.h"
#include "search/fusing.h"
#include "search/search_internal.h"
#include "search/sectors.h"
#include "search/settings.h"
#include "shell/commands.h"
#include "shell/failure.h"
#include "shell/input.h"
#include "shell/output.h"
#include "shell/state.h"
#include "trees/store.h"

namespace qax::search {

using namespace qax::shell;

namespace {

void print_sector_settings() {
  const SectorSettings& s = sector_settings;
  out_printf("Settings for sectorial searches:\n");
  out_printf("     * selection: %sSS\n", sector_kind_letter(s.kind));
  out_printf("     * random sectors of sizes %i-%i, selection factor %i, increase %i%%\n", s.minsize, s.maxsize,
             s.selfactor, s.increase);
  out_printf("     * sectors below %i taxa: %i starts; from %i: %i drift cycles\n", s.godrift, s.starts, s.godrift,
             s.drift);
  if (s.noglobal) out_printf("     * no global TBR\n");
  else out_printf("     * global TBR every %i (%i for large sectors) replacements\n", s.global, s.dglobal);
  out_printf("     * exclusive sectors: %i to %i chunks in %i rounds, global TBR every %i rounds\n", s.xss_begin, s.xss_end,
             s.xss_rounds, s.xss_global);
  out_printf("     * equals %s, keepall %s\n", s.equals ? "on" : "off", s.keepall ? "on" : "off");
}

int number_or(const char* what) {
  const int n = option_number(-1);
  if (n < 0) error_exitf("Give number for %s", what);
  return n;
}

bool sector_option(const std::string& w, bool set_only) {
  SectorSettings& s = sector_settings;
  auto is = [&](const char* name, std::size_t least) { return w.size() >= least && is_prefix(w.c_str(), name) == 0; };
  if (is("rss", 3)) {
    s.kind = sector_random;
  } else if (is("css", 3)) {
    s.kind = sector_constraint;
  } else if (is("xss", 3)) {
    s.kind = sector_exclusive;
    if (std::isdigit(peek_char())) {
      const int b = read_int();
      s.xss_begin = s.xss_end = b;
      if (peek_char() == '-') { next_char(); s.xss_end = number_or("xss"); }
      if (peek_char() == '+') { next_char(); s.xss_rounds = number_or("xss"); }
      if (peek_char() == '-') { next_char(); s.xss_global = number_or("xss"); }
      if (s.xss_begin < 2 || s.xss_end < 2) error_exit("Tree must be divided in at least 2 chunks");
      if (s.xss_rounds < 1 || s.xss_rounds > 10000) error_exit("Give number of rounds for XSS (1-10000)");
    }
  } else if (is("dss", 3)) {
    s.kind = sector_diameter;
    s.dss_node = number_or("dss");
    s.dss_depth = number_or("dss");
  } else if (is("minsize", 3)) {
    s.minsize = std::max(5, number_or("minsize"));
  } else if (is("maxsize", 3)) {
    s.maxsize = std::max(5, number_or("maxsize"));
  } else if (is("selfactor", 3)) {
    s.selections.clear();
    if (peek_char() == '=') {
      next_char();
      while (std::isdigit(peek_char()) && s.selections.size() < 30) s.selections.push_back(read_int());
    } else {
      const int n = number_or("selfactor");
      if (n > 99) error_exit("Selection factor must be 0-99");
      s.selfactor = n;
    }
  } else if (is("increase", 3)) {
    s.increase = number_or("increase");
  } else if (is("moveon", 3)) {
    s.moveon = number_or("moveon");
  } else if (is("minfork", 4)) {
    s.minfork = std::max(2, number_or("minfork"));
  } else if (is("maxfork", 4)) {
    s.maxfork = std::max(5, number_or("maxfork"));
  } else if (is("rounds", 2)) {
    s.rounds = number_or("rounds");
  } else if (is("xeven", 3)) {
    s.xeven = 1;
  } else if (is("noxeven", 4)) {
    s.xeven = 0;
  } else if (is("chkroot", 3)) {
    s.chkroot = 1;
  } else if (is("nochkroot", 4)) {
    s.chkroot = 0;
  } else if (is("godrift", 3)) {
    s.godrift = number_or("godrift");
  } else if (is("drift", 2)) {
    s.drift = number_or("drift");
  } else if (is("gocomb", 3)) {
    s.gocomb = number_or("gocomb");
  } else if (is("combstarts", 3)) {
    s.combstarts = std::max(1, number_or("combstarts"));
  } else if (is("nogocomb", 4)) {
    s.gocomb = 0;
  } else if (is("starts", 3)) {
    s.starts = std::max(1, number_or("starts"));
  } else if (is("fuse", 2)) {
    const int n = number_or("fuse");
    if (n > 99) error_exit("Give number of fusing rounds for sectors (0-99)");
    s.fuse = n;
  } else if (is("nofuse", 4)) {
    s.fuse = 0;
  } else if (is("global", 2)) {
    s.global = number_or("global");
    s.noglobal = 0;
  } else if (is("dglobal", 2)) {
    s.dglobal = number_or("dglobal");
    s.noglobal = 0;
  } else if (is("noglobal", 4)) {
    s.noglobal = 1;
  } else if (is("equals", 2)) {
    s.equals = 1;
  } else if (is("noequals", 4)) {
    s.equals = 0;
  } else if (is("findscore", 3)) {
    s.findscore = number_or("findscore");
  } else if (is("keepall", 3)) {
    s.keepall = 1;
  } else if (is("nokeepall", 4)) {
    s.keepall = 0;
  } else if (is("slack", 3)) {
    if (!set_only) error_exit("Memory slack for sectors can't be changed with '=' --use ':' instead");
    const int n = number_or("slack");
    if (n > 1000) error_exit("Slack must be 0-1000");
    s.slack = n;
    // Reduced data sets are allocated to the size of each sector as it is made.
    if (n > 0) out_printf("NOTE: sectors take the memory they need as they are made: slack %i has no effect\n", n);
  } else if (is("xbuffer", 3) || is("noxbuffer", 4)) {
    if (!set_only) error_exit("Usage of private buffer for sectors can't be changed with '=' --use ':' instead");
    s.xbuffer = w[0] != 'n';
    if (!s.xbuffer) out_printf("NOTE: sectors are always packed in a private buffer: noxbuffer not applied\n");
  } else if (is("safesank", 3)) {
    s.safesank = 1;
  } else if (is("nosafesank", 4)) {
    s.safesank = 0;
    // Only columns that cost the same on every tree of the sector are dropped, whatever their kind.
    out_printf("NOTE: sectors drop only columns of constant cost: nosafesank not applied\n");
  } else if (is("recurse", 3)) {
    if (!set_only) error_exit("Maximum recursion level can't be changed with '=' --use ':' instead");
    s.recurse = number_or("recurse");
    if (s.recurse > 0)
      out_printf("NOTE: sectors are searched without user instructions, so they never recurse: recurse %i not applied\n",
                 s.recurse);
  } else if (is("track", 3)) {
    error_exit("The \"track\" option requires user-instructions for each sector...");
  } else if (is("tree", 2)) {
    s.tree = number_or("tree");
  } else {
    return false;
  }
  return true;
}

}  // namespace

void cmd_sectsch() {
  const SectorSettings saved = sector_settings;
  const bool run = read_settings_command("sectsch", "Unidentified string in sectsch options: %s",
                                         [](const std::string& w, bool set_only) { return sector_option(w, set_only); },
                                         print_sector_settings, [&] { sector_settings = saved; });
  SectorSettings& s = sector_settings;
  if (s.minsize > s.maxsize) {
    const int mn = s.minsize, mx = s.maxsize;
    s = saved;
    error_exitf("Min. size (set as %i) must be greater than or equal to max. size (set as %i)", mn, mx);
  }
  const int one_tree = s.tree;
  s.tree = -1;
  if (!run) return;
  qax::trees::require_data();
  auto& store = trees::tree_store;
  if (store.ntrees == 0) error_exit("No trees to swap");
  if (one_tree >= store.ntrees) error_exitf("No tree %i", one_tree);
  if (s.kind == sector_constraint) {
    if (!constraints_in_force()) error_exit("Constraint-based sectorial searches require constraints ON");
    if (constraint_defs.positive.empty()) error_exit("Constraint-based sectorial searches require tree constraints");
  }
  if (s.kind == sector_diameter && one_tree < 0) error_exit("DSS requires specification of a single tree");
  search_prepare();
  SearchRunning running;
  sector_replacements = 0;
  set_random_seed(command_seed());
  Engine& e = engine();
  if (s.kind == sector_diameter) {
    // The node's terminals, read from the stored tree before it is resolved.
    const int ntax = store.ntax;
    const std::int32_t* t0 = trees::tree_row(one_tree);
    if (s.dss_node < 0 || s.dss_node >= t0[ntax] || (s.dss_node < ntax && t0[s.dss_node] < ntax))
      error_exitf("No node %i in tree %i", s.dss_node, one_tree);
    std::vector<std::uint8_t> taxa(ntax, 0);
    for (int x = 0; x < ntax; ++x) {
      if (t0[x] < ntax) continue;
      for (int a = x; a >= 0; a = a == ntax ? -1 : t0[a])
        if (a == s.dss_node) { taxa[x] = 1; break; }
    }
    if (!load_for_swapping(e, one_tree)) error_exitf("Tree %i does not hold all active taxa: cannot swap it", one_tree);
    std::vector<std::int32_t> t(trees::tree_row(one_tree), trees::tree_row(one_tree) + store.row_size);
    int nodes = 0;
    double sc = sector_search_dss(t, taxa, s.dss_depth, &nodes);
    out_printf("Analyzed a user-selected chunk of %i nodes\n", nodes);
    out_printf("Sectorial search (DSS), best score: %s.\n", search_score_text(sc).c_str());
    std::copy(t.begin(), t.end(), trees::tree_row(one_tree));
    store.scores[one_tree] = sc;
    store.trees_changed = 1;
    store_begin();
    last_best_score = sc;
    search_status_code = 0;
    return;
  }
  std::vector<std::vector<std::int32_t>> results;
  std::vector<double> scores;
  const int from = one_tree >= 0 ? one_tree : 0, to = one_tree >= 0 ? one_tree + 1 : store.ntrees;
  for (int k = from; k < to; ++k) {
    if (!load_for_swapping(e, k)) error_exitf("Tree %i does not hold all active taxa: cannot swap it", k);
    std::vector<std::int32_t> t(trees::tree_row(k), trees::tree_row(k) + store.row_size);
    double sc = 0;
    if (s.kind == sector_exclusive) sc = sector_search_xss(t);
    else if (s.kind == sector_constraint) sc = sector_search_css(t);
    else sc = sector_search_rss(t);
    out_printf("Sectorial search (%sSS), best score: %s.\n", sector_kind_letter(s.kind), search_score_text(sc).c_str());
    results.push_back(std::move(t));
    scores.push_back(sc);
    if (shell_state.stop_search_flag) break;
  }
  // The trees searched are replaced by their results.
  std::vector<std::vector<std::int32_t>> all;
  std::vector<double> all_scores;
  for (int k = 0; k < store.ntrees; ++k) {
    if (k >= from && k - from < static_cast<int>(results.size())) {
      all.push_back(results[k - from]);
      all_scores.push_back(scores[k - from]);
    } else {
      all.emplace_back(trees::tree_row(k), trees::tree_row(k) + store.row_size);
      all_scores.push_back(store.scores[k]);
    }
  }
  double best = -1;
  for (double v : scores) if (best < 0 || v < best) best = v;
  store.ntrees = 0;
  store.trees_changed = 1;
  store_begin();
  for (std::size_t k = 0; k < all.size(); ++k) {
    if (!s.keepall && all_scores[k] > best + search_settings.suboptimal + 1e-8) continue;
    store_add(all[k], all_scores[k]);
  }
  tag_search_trees("sect_sch");
  last_best_score = best;
  search_status_code = 0;
}

}  // namespace qax::search
