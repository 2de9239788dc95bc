// The tfuse command: settings, fusing of the trees in memory (all, or a list given before
// the options), and the fusing of one node by hand ("tfuse / ...").
#include <algorithm>
#include <cmath>
#include <string>

#include "optim/implied.h"
#include "search/fusing.h"
#include "search/search_internal.h"
#include "search/settings.h"
#include "shell/commands.h"
#include "shell/failure.h"
#include "shell/input.h"
#include "shell/output.h"
#include "shell/state.h"
#include "trees/store.h"

namespace qax::search {

using namespace qax::shell;
using qax::trees::tree_store;

namespace {

const char* on_off(int v) { return v ? "on" : "off"; }

void print_fuse_settings() {
  const FuseSettings& f = fuse_settings;
  out_printf("Tree-fusing settings:\n");
  out_printf("     * %i rounds, stop after %i rounds without improvement%s\n", f.rounds, f.autostop,
             f.autostop ? "" : " (never)");
  out_printf("     * equals %s, beststart %s, choose %s, repeat %s, swap %s, keepall %s\n", on_off(f.equals),
             on_off(f.beststart), on_off(f.choose), on_off(f.repeat), on_off(f.swap), on_off(f.keepall));
  out_printf("     * exchange groups with at least %i children in the consensus\n", f.minfork);
}

bool fuse_option(const std::string& w) {
  FuseSettings& f = fuse_settings;
  auto is = [&](const char* name, std::size_t least) { return w.size() >= least && is_prefix(w.c_str(), name) == 0; };
  struct Flag { const char* on; int* field; };
  const Flag flags[] = {{"equals", &f.equals}, {"beststart", &f.beststart}, {"choose", &f.choose},
                        {"repeat", &f.repeat}, {"swap", &f.swap},           {"keepall", &f.keepall},
                        {"replace", &f.replace}};
  for (const Flag& fl : flags) {
    const std::string off = std::string("no") + fl.on;
    if (is(fl.on, 2)) { *fl.field = 1; return true; }
    if (w.size() >= 4 && is_prefix(w.c_str(), off.c_str()) == 0) { *fl.field = 0; return true; }
  }
  if (is("minfork", 2)) {
    const int n = option_number(-1);
    if (n < 2) error_exit("Minimum fork for exchanges must be 2 or more");
    f.minfork = n;
  } else if (is("rounds", 2)) {
    const int n = option_number(-1);
    if (n < 1) error_exit("Number of fusing rounds must be above 0");
    f.rounds = n;
  } else if (is("autostop", 2)) {
    const int n = option_number(-1);
    if (n < 0) error_exit("Give number of rounds for autostop");
    f.autostop = n;
  } else if (is("clog", 2)) {
    const int n = option_number(-1);
    if (n < 2) error_exit("Clog factor must be 2 or more");
    f.clog = n;
  } else if (is("xroot", 2)) {
    const int n = option_number(-1);
    if (n < 0) error_exit("Give number of random rootings");
    f.xroot = n;
  } else if (is("hybrid", 2)) {
    // hybrid N*R/S
    f.hybrid_times = 1000;
    f.hybrid_rounds = 1;
    f.hybrid_pass = 50;
    if (std::isdigit(peek_char())) f.hybrid_times = std::max(1, read_int());
    if (peek_char() == '*') { next_char(); f.hybrid_rounds = std::max(1, option_number(1)); }
    if (peek_char() == '/') { next_char(); f.hybrid_pass = std::max(0, option_number(0)); }
  } else if (is("nohybrid", 4)) {
    f.hybrid_times = 0;
  } else if (is("picktype", 2)) {
    f.picktype = 1.5;
    if (std::isdigit(peek_char()) || peek_char() == '.') f.picktype = read_real();
  } else if (is("nopicktype", 4)) {
    f.picktype = 0;
  } else {
    return false;
  }
  return true;
}

// Trees of the run: the list before the options, or all.
std::vector<int> selected;

void run_tfuse() {
  qax::trees::require_data();
  const FuseSettings& f = fuse_settings;
  if (selected.size() < 2) error_exit("Fusing a tree with itself produces nothing!");
  if (f.hybrid_times <= 0 && f.picktype <= 0 && tree_store.ntrees + f.rounds > tree_store.maxtrees)
    error_exitf("%i fusing rounds with %i trees in memory require max.trees %i or more", f.rounds, tree_store.ntrees,
                tree_store.ntrees + f.rounds);
  search_prepare();
  SearchRunning running;
  std::vector<std::vector<std::int32_t>> set;
  Engine& e = engine();
  for (int k : selected) {
    if (!load_for_swapping(e, k)) error_exitf("Tree %i does not hold all active taxa: cannot fuse it", k);
    set.emplace_back(trees::tree_row(k), trees::tree_row(k) + tree_store.row_size);
  }
  const std::size_t initial = set.size();
  std::vector<double> scores;
  set_random_seed(command_seed());
  const std::uint32_t seed = static_cast<std::uint32_t>(random_next()) | 1u;
  bool hybridize = f.hybrid_times > 0;
  if (f.picktype > 0) {
    const double fus = fusability_score(set);
    hybridize = fus < f.picktype;
    out_printf(hybridize ? "NOTE: picking hybridization algorithm" : "NOTE: Picking tree-fusing algorithm");
    out_printf(" (score %.3f)\n", fus);
  }
  double best = 0;
  int hybrid_rounds = 0;
  if (hybridize) {
    const int times = f.hybrid_times > 0 ? f.hybrid_times : 1000;
    const int rounds = f.hybrid_times > 0 ? f.hybrid_rounds : 1;
    const int need = tree_store.ntrees + 2;
    if (tree_store.maxtrees < need) {
      if (f.autostop)
        warning({"hybridization may overflow tree-buffer"});
      else
        error_exitf("%i rounds of %i hybridizations with %i trees in memory requires max.trees %i or more", rounds, times,
                    tree_store.ntrees, need);
    }
    set_random_seed(seed);
    scores.clear();
    for (const auto& t : set) {
      if (!e.load(t)) error_exit("Tree cannot be swapped (not binary on the active taxa)");
      scores.push_back(e.compute_all());
    }
    best = *std::min_element(scores.begin(), scores.end());
    int idle = 0;
    for (int r = 0; r < rounds && !shell_state.stop_search_flag; ++r) {
      const double b = hybridize_trees(set, scores, times, f.hybrid_pass);
      ++hybrid_rounds;
      idle = b < best - 1e-8 ? 0 : idle + 1;
      best = std::min(best, b);
      if (f.autostop > 0 && idle >= f.autostop) break;
    }
  } else {
    best = fuse_trees(set, scores, f.rounds, 0, seed, false);
  }
  // The store: the trees of the set (only those of best score without keepall).
  tree_store.ntrees = 0;
  tree_store.trees_changed = 1;
  store_begin();
  for (std::size_t k = 0; k < set.size(); ++k) {
    if (!f.keepall && scores[k] > best + search_settings.suboptimal + 1e-8) continue;
    if (tree_store.ntrees >= tree_store.maxtrees) break;
    store_add(set[k], scores[k]);
  }
  tag_search_trees(hybridize ? "hybrid" : "tree_fusing");
  last_best_score = best;
  (void)initial;
  if (hybridize) out_printf("%i rounds of hybridization completed.\n", hybrid_rounds);
  else out_printf("%i rounds of fusing completed.\n", fuse_rounds_done);
  out_printf("Total rearrangements examined: %s.\n", number_text(static_cast<long long>(rearrangements_examined.total())).c_str());
  out_printf("%i trees retained, best score %s.\n", tree_store.ntrees, search_score_text(best).c_str());
  search_status_code = 0;
}

// "tfuse / N D R": node N of tree D (the group of terminals it holds) put into tree R, the
// result saved as a new tree.
void fuse_by_hand() {
  qax::trees::require_data();
  const int node = option_number(-1);
  const int donor = option_number(-1);
  const int receiver = option_number(-1);
  const int ntax = tree_store.ntax;
  if (node < 0 || donor < 0 || receiver < 0) error_exit("Give node, donor tree and receiver tree");
  if (donor >= tree_store.ntrees || receiver >= tree_store.ntrees) error_exitf("No tree %i", std::max(donor, receiver));
  if (node <= ntax || node >= trees::tree_row(donor)[ntax]) error_exitf("Node %i is not a group of tree %i", node, donor);
  search_prepare();
  Engine& e = engine();
  if (!load_for_swapping(e, donor) || !load_for_swapping(e, receiver))
    error_exit("Trees to fuse must hold all active taxa");
  std::vector<std::int32_t> d(trees::tree_row(donor), trees::tree_row(donor) + tree_store.row_size);
  std::vector<std::int32_t> r(trees::tree_row(receiver), trees::tree_row(receiver) + tree_store.row_size);
  // Terminals below the node, in the donor.
  std::vector<std::uint8_t> inside(ntax, 0);
  for (int t = 0; t < ntax; ++t) {
    if (d[t] < ntax) continue;
    for (int v = t; v != ntax && v >= 0; v = d[v])
      if (v == node) { inside[t] = 1; break; }
  }
  // The same group in the receiver: the node above the first member holding as many.
  int count = 0, first = -1;
  for (int t = 0; t < ntax; ++t)
    if (inside[t]) { ++count; if (first < 0) first = t; }
  auto below = [&](const std::vector<std::int32_t>& tree, int n) {
    int c = 0;
    for (int t = 0; t < ntax; ++t) {
      if (tree[t] < ntax) continue;
      for (int v = t; v >= 0; v = v == ntax ? -1 : tree[v])
        if (v == n) { ++c; break; }
    }
    return c;
  };
  int rn = first;
  while (rn != ntax && below(r, rn) < count) rn = r[rn];
  bool same = rn != ntax && below(r, rn) == count;
  if (same)
    for (int t = 0; t < ntax && same; ++t) {
      if (r[t] < ntax) continue;
      bool in = false;
      for (int v = t; v >= 0; v = v == ntax ? -1 : r[v])
        if (v == rn) { in = true; break; }
      same = in == (inside[t] != 0);
    }
  if (!same) error_exitf("Node %i of tree %i is not a group of tree %i", node, donor, receiver);
  // Replace: the receiver keeps everything outside the group, the donor's inside.
  std::vector<std::int32_t> out = r;
  std::vector<int> rin, din;
  const int rend = r[ntax], dend = d[ntax];
  auto under = [&](const std::vector<std::int32_t>& tree, int end, int top, std::vector<int>& list) {
    list.clear();
    for (int n = ntax + 1; n < end; ++n)
      for (int v = n; v >= 0; v = v == ntax ? -1 : tree[v])
        if (v == top) { list.push_back(n); break; }
  };
  under(r, rend, rn, rin);
  under(d, dend, node, din);
  if (rin.size() != din.size()) error_exit("Trees to fuse must be binary within the group");
  std::vector<int> map(2 * ntax, -1);
  for (std::size_t k = 0; k < din.size(); ++k) map[din[k]] = rin[k];
  // rin[0] == rn and din[0] == node (the smallest numbers are the tops in canonical order
  // only when they come first): map the tops explicitly.
  map[node] = rn;
  {
    std::vector<int> rest;
    for (int n : rin) if (n != rn) rest.push_back(n);
    std::size_t j = 0;
    for (int n : din) if (n != node) map[n] = rest[j++];
  }
  for (int t = 0; t < ntax; ++t)
    if (inside[t]) out[t] = map[d[t]];
  for (int n : din)
    if (n != node) out[map[n]] = map[d[n]];
  trees::reset_node_numbers(out.data(), ntax);
  const int k = trees::tree_store_add(-1, true);
  std::copy(out.begin(), out.end(), trees::tree_row(k));
  tree_store.scores[k] = 0;
  tree_store.trees_changed = 1;
  store_begin();
  out_printf("Fused node %i of tree %i into tree %i (saved as tree %i)\n", node, donor, receiver, k);
}

}  // namespace

void cmd_tfuse() {
  int c = peek_char();
  if (c == '/') {
    next_char();
    fuse_by_hand();
    return;
  }
  selected.clear();
  if (c != ';' && c != '=' && c != ':') {
    std::vector<std::uint8_t> flags;
    trees::read_tree_list(flags, false);
    for (int k = 0; k < static_cast<int>(flags.size()); ++k)
      if (flags[k] == 1) selected.push_back(k);
    if (selected.empty()) error_exit("No trees specified");
  } else {
    for (int k = 0; k < tree_store.ntrees; ++k) selected.push_back(k);
  }
  const FuseSettings saved = fuse_settings;
  if (read_settings_command("tfuse", "Unidentified string in tfuse options: %s",
                            [](const std::string& w, bool) { return fuse_option(w); }, print_fuse_settings,
                            [&] { fuse_settings = saved; }))
    run_tfuse();
}

}  // namespace qax::search
