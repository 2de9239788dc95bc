// The search commands: mult (replications of Wagner tree plus swapping), bbreak (swapping
// the trees in memory), rseed and subopt.
#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <functional>
#include <string>
#include <set>
#include <unordered_set>

#include "optim/collapse.h"
#include "dataset/costs.h"
#include "dataset/dataset.h"
#include "optim/implied.h"
#include "optim/kernels.h"
#include "search/implied_swap.h"
#include "optim/packed.h"
#include "search/constraints.h"
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

// Number after an option, or `missing` when none follows.
int option_number(int missing) {
  int c = peek_char();
  if (!std::isdigit(c)) return missing;
  return read_int();
}

// An option word: letters only, so that a number may follow it directly ("ho1" is
// "hold 1"). Anything else where a word should start is read as one token for the message.
std::string read_option_word() {
  if (!std::isalpha(peek_char())) {
    read_token();
    return token_buffer;
  }
  read_command_word();
  return token_buffer;
}

namespace {

void set_sequence(int kind, int look) {
  auto& s = search_settings;
  s.sequence_kind = kind;
  s.lookahead = look;
  s.ias_lookahead = 0;
}

// One option of mult; false when the word is not a mult option.
bool mult_option(const char* w, int* run_replications) {
  auto& s = search_settings;
  if (is_prefix(w, "replications") == 0) {
    int n = option_number(-1);
    if (n < 0) error_exit("Give number of replications");
    if (n > max_replications) error_exitf("Can't do %i random addition sequences (max=100000)", n);
    s.replications = n;
    if (run_replications) *run_replications = n;
  } else if (is_prefix(w, "hold") == 0) {
    int n = option_number(-1);
    if (n < 0) error_exit("Give number of trees per replication");
    s.hold = n;
  } else if (is_prefix(w, "tbr") == 0) {
    s.swapper = swapper_tbr;
  } else if (is_prefix(w, "spr") == 0) {
    s.swapper = swapper_spr;
  } else if (is_prefix(w, "wagner") == 0) {
    s.swapper = swapper_none;
  } else if (is_prefix(w, "ratchet") == 0) {
    s.ratchet = 1;
  } else if (is_prefix(w, "noratchet") == 0) {
    s.ratchet = 0;
  } else if (is_prefix(w, "drift") == 0) {
    s.drift = 1;
  } else if (is_prefix(w, "nodrift") == 0) {
    s.drift = 0;
  } else if (is_prefix(w, "keepall") == 0) {
    s.keepall = 1;
  } else if (is_prefix(w, "nokeepall") == 0) {
    s.keepall = 0;
  } else if (is_prefix(w, "wcluster") == 0) {
    s.wcluster = option_number(0);
  } else if (is_prefix(w, "nowcluster") == 0) {
    s.wcluster = 0;
  } else if (is_prefix(w, "outfreq") == 0) {
    s.outfreq = option_number(0);
  } else if (is_prefix(w, "ras") == 0) {
    set_sequence(sequence_plain, 0);
  } else if (is_prefix(w, "cas") == 0) {
    set_sequence(sequence_closest, option_number(lookahead_all));
  } else if (is_prefix(w, "fas") == 0) {
    set_sequence(sequence_furthest, option_number(lookahead_all));
  } else if (is_prefix(w, "sas") == 0) {
    set_sequence(sequence_spread, option_number(lookahead_all));
  } else if (is_prefix(w, "ias") == 0) {
    set_sequence(sequence_plain, 0);
    s.ias_lookahead = option_number(lookahead_all);
  } else {
    return false;
  }
  return true;
}

const char* on_off(int v) { return v ? "on" : "off"; }

void print_mult_settings() {
  const auto& s = search_settings;
  out_printf("Settings for multiple random addition sequences:\n");
  out_printf("     * %i replications, %i trees saved per replication\n", s.replications, s.hold);
  out_printf("     * swapper: %s\n", s.swapper == swapper_tbr ? "TBR" : s.swapper == swapper_spr ? "SPR" : "none (wagner)");
  const char* seq = s.ias_lookahead ? "ias" : s.lookahead == 0 ? "ras"
                    : s.sequence_kind == sequence_closest ? "cas" : s.sequence_kind == sequence_furthest ? "fas" : "sas";
  out_printf("     * addition sequence: %s\n", seq);
  out_printf("     * keep trees of all replications: %s\n", on_off(s.keepall));
  if (s.ratchet) out_printf("     * ratchet after each replication (%i iterations)\n", ratchet_settings.iterations);
  if (s.drift) out_printf("     * drift after each replication (%i cycles)\n", drift_settings.iterations);
  if (s.wcluster) out_printf("     * node clusters from %i taxa on\n", s.wcluster);
  else out_printf("     * no node clusters\n");
}

void print_bbreak_settings() {
  const auto& s = search_settings;
  out_printf("Branch-swapping settings:\n     * swap trees with %s\n", s.bb_swapper == swapper_spr ? "SPR" : "TBR");
  out_printf("     * mulpars %s, fillonly %s, randclip %s, skipspr %s, safe %s, preproc %s\n", on_off(s.mulpars),
             on_off(s.fillonly), on_off(s.randclip), on_off(s.skipspr), on_off(s.safe), on_off(s.preproc));
  out_printf("     * xbits %s, intersections %s, stratswap %s\n", on_off(optim::packed.xbit),
             s.inters ? (s.inters == 2 ? "on (reordered)" : "on") : "off", on_off(s.stratswap));
  if (s.limit) out_printf("     * TBR limited to %i nodes\n", s.limit);
  out_printf("     * clustersize %i\n", s.clustersize);
}

// One option of bbreak; false when the word is not a bbreak option.
bool bbreak_option(const char* w, bool set_only) {
  auto& s = search_settings;
  struct Flag { const char* on; const char* off; int* field; };
  Flag flags[] = {{"mulpars", "nomulpars", &s.mulpars}, {"fillonly", "nofillonly", &s.fillonly},
                  {"safe", "nosafe", &s.safe},          {"skipspr", "noskipspr", &s.skipspr},
                  {"randclip", "norandclip", &s.randclip}, {"preproc", "nopreproc", &s.preproc},
                  {"qcollapse", "noqcollapse", &optim::collapse_settings.quick_collapse}};
  for (const Flag& f : flags) {
    if (std::strcmp(w, f.on) == 0 || (std::strlen(w) >= 3 && is_prefix(w, f.on) == 0)) { *f.field = 1; return true; }
    if (std::strcmp(w, f.off) == 0 || (std::strlen(w) >= 5 && is_prefix(w, f.off) == 0)) { *f.field = 0; return true; }
  }
  if (is_prefix(w, "tbr") == 0) {
    s.bb_swapper = swapper_tbr;
  } else if (is_prefix(w, "spr") == 0) {
    s.bb_swapper = swapper_spr;
  } else if (is_prefix(w, "limit") == 0) {
    int n = option_number(-1);
    if (n < 0) error_exit("TBR move limit must be 0 (no limit) or greater");
    s.limit = n;
  } else if (is_prefix(w, "nolimit") == 0) {
    s.limit = 0;
  } else if (is_prefix(w, "clustersize") == 0) {
    if (!set_only) error_exit("Clustersize can be changed only with the \":\" option");
    int n = option_number(-1);
    if (n < 3 || n > 1000) error_exit("Clustersize must be between 3 and 1000");
    s.clustersize = n;
  } else if (is_prefix(w, "outfreq") == 0) {
    s.outfreq = option_number(0);
  } else if (is_prefix(w, "inters") == 0 || is_prefix(w, "nointers") == 0) {
    if (!set_only) error_exit("Intersections can be changed only with the \":\" option");
    s.inters = w[0] == 'n' ? 0 : std::max(1, option_number(1));
    if (s.inters > 2) error_exit("Intersections can be 1 or 2");
    if (s.inters && dataset::dataset.loaded) {
      for (const auto& r : dataset::dataset.chars)
        if (r.active && (r.sankoff || r.is_continuous)) {
          s.inters = 0;
          error_exit("Sorry, \"bbreak:inters\" is invalid for Sankoff/continuous characters");
        }
    }
  } else if (is_prefix(w, "xbits") == 0 || is_prefix(w, "noxbits") == 0) {
    if (!set_only) error_exit("Xbits can be changed only with the \":\" option");
    optim::packed.xbit = w[0] == 'n' ? 0 : 1;
    optim::invalidate_pack();
  } else if (is_prefix(w, "stratswap") == 0) {
    s.stratswap = 1;
  } else if (is_prefix(w, "nostratswap") == 0) {
    s.stratswap = 0;
  } else {
    return false;
  }
  return true;
}

// Seeds of replications: drawn from the generator, never repeated within the run.
struct SeedSource {
  std::unordered_set<std::uint32_t> used;
  std::uint32_t last = 0;
  std::uint32_t next() {
    const auto& s = search_settings;
    if (s.seed_step > 0) {
      last = last == 0 ? static_cast<std::uint32_t>(random_next()) : last + static_cast<std::uint32_t>(s.seed_step);
      return last;
    }
    std::uint32_t v = static_cast<std::uint32_t>(random_next());
    while (v == 0 || used.count(v)) {
      std::uint64_t r1 = static_cast<std::uint32_t>(random_next()) | 1u;
      v = static_cast<std::uint32_t>((static_cast<std::uint64_t>(random_next()) * (s.seed ? s.seed : 1)) / r1);
    }
    used.insert(v);
    return v;
  }
};

}  // namespace

std::uint32_t command_seed() {
  int s = search_settings.seed;
  return s == 0 ? static_cast<std::uint32_t>(std::time(nullptr)) : static_cast<std::uint32_t>(s);
}

namespace {

void run_mult(int replications) {
  if (optim::implied_settings.implied_on) { run_implied_mult(replications); return; }
  search_prepare();
  const auto& s = search_settings;
  SearchRunning running;
  tree_store.ntrees = 0;
  tree_store.trees_changed = 1;
  store_begin();
  if (s.swapper != swapper_none && static_cast<long long>(replications) * s.hold > tree_store.maxtrees) {
    char text[200];
    std::snprintf(text, sizeof text,
                  "%i reps. with %i trees each exceeds available treespace (%i)\nSearch may have to be interrupted if tree-buffer is filled",
                  replications, s.hold, tree_store.maxtrees);
    warning({text});
  } else if (s.swapper == swapper_none && replications > tree_store.maxtrees) {
    char text[200];
    std::snprintf(text, sizeof text, "Doing %i wagner trees may fill memory (available treespace is %i)", replications,
                  tree_store.maxtrees);
    warning({text});
  }
  set_random_seed(command_seed());
  SeedSource seeds;
  std::uint32_t rep_seed = seeds.next();
  double best = -1.0;
  int hits = 0, done = 0;
  bool full = false, overflowed = false;
  std::vector<std::int32_t> tree;
  for (int rep = 0; rep < replications; ++rep) {
    if (tree_store.ntrees >= tree_store.maxtrees) { full = true; break; }
    search_status_code = 0;
    const std::uint32_t this_seed = rep_seed;
    double score = wagner_build(tree, this_seed);
    rep_seed = seeds.next();
    if (shell_state.stop_search_flag) break;
    const int limit = std::min(tree_store.ntrees + std::max(s.hold, 1), tree_store.maxtrees);
    const int first = tree_store.ntrees;
    if (s.swapper == swapper_none && !s.ratchet && !s.drift) {
      store_add(tree, score);
    } else if (s.ratchet || s.drift) {
      // One TBR pass on the Wagner tree, then the ratchet from it; the trees of the
      // replication's best score are kept, up to `hold`.
      const std::uint32_t ratchet_seed = seeds.next();
      if (!(s.skipspr && s.hold <= 1)) score = swap_spr(tree, first, 0, limit);
      if (!shell_state.stop_search_flag) score = swap_tbr(tree, first, 0, limit);
      store_add(tree, score);
      if (s.ratchet && !shell_state.stop_search_flag)
        score = ratchet_run(tree, ratchet_seed, first, limit, ratchet_settings.iterations, nullptr);
      if (s.drift && !shell_state.stop_search_flag)
        score = std::min(score, drift_run(tree, ratchet_seed + 1, first, limit, drift_settings.iterations, nullptr));
    } else {
      bool spr_done = false;
      if (!(s.skipspr && s.hold <= 1) || (s.swapper == swapper_spr && s.hold == 1) || s.swapper == swapper_spr) {
        score = swap_spr(tree, first, 0, limit);
        spr_done = true;
      }
      if (shell_state.stop_search_flag) { store_add(tree, score); ++done; break; }
      if (s.hold <= 1) {
        if (store_find(tree, score) < 0) {
          if (s.swapper == swapper_tbr) {
            preproc_pass = s.preproc && !spr_done;
            struct EndPass { ~EndPass() { preproc_pass = false; } } end_pass;
            score = swap_tbr(tree, first, spr_done ? -1 : 0, limit);
          }
          store_add(tree, score);
        }
      } else {
        int slot = store_add(tree, score);
        if (slot >= 0) {
          int i = first;
          double rep_best = score;
          while (i < tree_store.ntrees && i >= first) {
            if (shell_state.stop_search_flag) break;
            std::vector<std::int32_t> row(trees::tree_row(i), trees::tree_row(i) + tree_store.row_size);
            int sl = i;
            bool improved = false;
            double sc = s.swapper == swapper_tbr ? swap_tbr_slot(row, first, 1, limit, &sl, &improved)
                                                 : swap_spr_slot(row, first, 1, limit, &sl, &improved);
            // Only a new best restarts the pass over the kept trees: a suboptimal tree
            // improved to a score already held adds nothing to go back for.
            if (improved && sc < rep_best - 1e-8) {
              rep_best = sc;
              if (sl < 0) break;  // the island was seen by an earlier replication
              i = first + 1;
            } else {
              ++i;
            }
          }
          score = rep_best;
          if (tree_store.ntrees >= limit) overflowed = true;
        }
      }
    }
    ++done;
    if (best < 0 || score < best - 1e-8) {
      best = score;
      hits = 1;
    } else if (std::fabs(score - best) <= 1e-8) {
      ++hits;
    }
    if (shell_state.stop_search_flag) break;
    show_progress(rep + 1, replications, "Replications");
  }
  if (full) {
    out_printf("\nNOTE: Search terminated after replication %i (tree buffer full)\n", done);
  } else if (shell_state.stop_search_flag) {
    out_printf("Search was interrupted...\n");
  } else {
    out_printf("Completed %i random addition sequences.\n", done);
  }
  if (s.swapper != swapper_none || s.ratchet || s.drift)
    out_printf("Total rearrangements examined: %s.\n", number_text(static_cast<long long>(rearrangements_examined.total())).c_str());
  if (constraints_in_force()) out_printf("Constraints enforced during search.\n");
  if (s.limit > 0) out_printf("Note: TBR limited to moves within %i nodes of original position.\n", s.limit);
  if (!s.keepall && best >= 0) {
    store_discard_above(0, best + s.suboptimal, -1);
    if (store_drop_collapsed_duplicates() > 0)
      out_printf("Note: some trees of different length are identical as collapsed. Discarded.\n");
  }
  tag_search_trees("random_addseqs");
  last_best_score = best;
  last_hits = hits;
  out_printf("Best score hit %i times out of %i%s.\nBest score%s %s.  %i trees retained.\n", hits, done,
             overflowed ? " (some replications overflowed)" : "",
             s.swapper == swapper_tbr ? " (TBR):" : s.swapper == swapper_spr ? " (SPR):" : ":",
             search_score_text(best < 0 ? 0 : best).c_str(), tree_store.ntrees);
  search_status_code = 0;
}

void run_bbreak() {
  qax::trees::require_data();
  if (tree_store.ntrees == 0) error_exit("No trees to swap");
  if (optim::implied_settings.implied_on) { run_implied_bbreak(); return; }
  search_prepare();
  const auto& s = search_settings;
  SearchRunning running;
  const bool tbr = s.bb_swapper != swapper_spr;
  // Scores of the trees in memory.
  Engine& e = engine();
  double best = -1;
  for (int k = 0; k < tree_store.ntrees; ++k) {
    if (!load_for_swapping(e, k)) error_exitf("Tree %i does not hold all active taxa: cannot swap it", k);
    tree_store.scores[k] = e.compute_all();
    if (best < 0 || tree_store.scores[k] < best) best = tree_store.scores[k];
  }
  // The duplicate table must describe the trees in memory now, as collapsed under the
  // rule in force (they may have been read or collapsed differently since they were stored).
  store_begin();
  out_printf("Start swapping from %i trees (score %s", tree_store.ntrees, search_score_text(best).c_str());
  if (s.suboptimal > 0) out_printf("-%s", search_score_text(best + s.suboptimal).c_str());
  out_printf(")...\n");
  if (s.randclip) set_random_seed(static_cast<std::uint32_t>(std::time(nullptr)));
  else set_random_seed(command_seed());
  if (s.mulpars) {
    store_discard_above(0, best + s.suboptimal, -1);
    int i = 0;
    while (i < tree_store.ntrees) {
      if (shell_state.stop_search_flag) break;
      if (s.fillonly && tree_store.ntrees >= tree_store.maxtrees) break;
      std::vector<std::int32_t> row(trees::tree_row(i), trees::tree_row(i) + tree_store.row_size);
      int slot = i;
      bool improved = false;
      double sc = tbr ? swap_tbr_slot(row, 0, 1, tree_store.maxtrees, &slot, &improved)
                      : swap_spr_slot(row, 0, 1, tree_store.maxtrees, &slot, &improved);
      if (improved && sc < best - 1e-8) {
        best = sc;
        i = 1;
      } else {
        ++i;
      }
    }
  } else {
    const int n = tree_store.ntrees;
    std::vector<std::vector<std::int32_t>> result;
    std::vector<double> scores;
    for (int k = 0; k < n; ++k) {
      std::vector<std::int32_t> row(trees::tree_row(k), trees::tree_row(k) + tree_store.row_size);
      if (!shell_state.stop_search_flag) {
        double sc = tbr ? swap_tbr(row, 0, 0, tree_store.maxtrees) : swap_spr(row, 0, 0, tree_store.maxtrees);
        scores.push_back(sc);
      } else {
        scores.push_back(tree_store.scores[k]);
      }
      result.push_back(row);
    }
    tree_store.ntrees = 0;
    store_begin();
    best = -1;
    for (std::size_t k = 0; k < result.size(); ++k) {
      store_add(result[k], scores[k]);
      if (best < 0 || scores[k] < best) best = scores[k];
    }
  }
  tree_store.trees_changed = 1;
  best = -1;
  for (int k = 0; k < tree_store.ntrees; ++k)
    if (best < 0 || tree_store.scores[k] < best) best = tree_store.scores[k];
  tag_search_trees(tbr ? "tbr_swapping" : "spr_swapping");
  if (constraints_in_force()) out_printf("Constraints enforced during search.\n");
  last_best_score = best;
  out_printf("Best score %s %s", tbr ? "(TBR):" : "(SPR):", search_score_text(best).c_str());
  if (s.suboptimal > 0) out_printf("-%s", search_score_text(best + s.suboptimal).c_str());
  out_printf(".  %i trees found", tree_store.ntrees);
  if (s.mulpars && tree_store.ntrees >= tree_store.maxtrees) out_printf(" (overflow)");
  if (!s.mulpars) out_printf(" (mulpars off)");
  out_printf("\n");
  search_status_code = 0;
}

}  // namespace

void search_prepare() {
  qax::trees::require_data();
  // Packed afresh: settings and data may have changed since the last pack.
  optim::pack_data();
  engine_refresh();
  // Fits need the least and most steps of each character.
  if (optim::implied_settings.implied_on) qax::dataset::minmax_check();
  if (optim::packed.nterm < 3) error_exit("Need at least 3 active taxa to search");
  if (search_settings.inters && optim::packed.wide.any())
    error_exit("Cannot use intersections/unions with sankoff/continuous characters");
  rearrangements_examined = Rearrangements{};
  replacements_done = 0;
}

bool load_for_swapping(Engine& e, int k) {
  std::vector<std::int32_t> row(trees::tree_row(k), trees::tree_row(k) + tree_store.row_size);
  if (e.load(row)) return true;
  // Polytomies are resolved as combs: each extra child goes with the next one under a new node.
  const int ntax = tree_store.ntax;
  const int end = std::max(row[ntax], ntax + 1);
  std::vector<std::vector<int>> kids(end);
  for (int n = 0; n < end; ++n)
    if (n != ntax && row[n] >= ntax && row[n] < end) kids[row[n]].push_back(n);
  int next = end;
  for (int v = ntax; v < end; ++v) {
    auto& c = kids[v];
    while (c.size() > 2) {
      if (next >= 2 * ntax - 1) return false;
      const int u = next++;
      row[u] = v;
      row[c[c.size() - 1]] = u;
      row[c[c.size() - 2]] = u;
      c.resize(c.size() - 2);
      c.push_back(u);
    }
  }
  row[ntax] = next;
  trees::reset_node_numbers(row.data(), ntax);
  if (!e.load(row)) return false;
  std::copy(row.begin(), row.end(), trees::tree_row(k));
  tree_store.trees_changed = 1;
  return true;
}

void tag_search_trees(const char* name) {
  // Automatic condensing: the trees found are replaced by their collapsed forms, and the
  // trees that become equal are kept once.
  const auto& cs = optim::collapse_settings;
  if (cs.auto_collapse && cs.rule != optim::collapse_none && tree_store.ntrees > 0) {
    std::vector<std::uint8_t> keep(tree_store.ntrees, 1);
    std::set<std::vector<std::int32_t>> seen_rows;
    for (int k = 0; k < tree_store.ntrees; ++k) {
      std::int32_t* row = trees::tree_row(k);
      optim::collapse_for_store(row);
      if (!seen_rows.emplace(row, row + tree_store.row_size).second) keep[k] = 0;
    }
    trees::tree_store_compact(keep);
    tree_store.trees_changed = 1;
    store_begin();
  }
  int g = qax::trees::take_auto_group(name);
  if (g < 0) return;
  for (int k = 0; k < tree_store.ntrees; ++k) qax::trees::group_set_bit(k, g);
}

SearchRunning::SearchRunning() {
  shell_state.search_running = 1;
  shell_state.stop_search_flag = 0;
}
SearchRunning::~SearchRunning() { shell_state.search_running = 0; }

void cmd_mult() {
  int c = peek_char();
  if (c == ';') { run_mult(search_settings.replications); return; }
  int run_reps = -1;
  bool run = true;
  if (std::isdigit(c)) {
    run_reps = read_int();
    if (run_reps > max_replications) error_exitf("Can't do %i random addition sequences (max=100000)", run_reps);
    c = peek_char();
  }
  if (c == ';') {
    // "mult N;": N replications with the settings in force.
  } else if (c == '=' || c == ':') {
    next_char();
    run = c == '=';
    if (!run && peek_char() == ';') { print_mult_settings(); return; }
  } else {
    next_char();
    error_exitf("Wrong argument for mult: %c", c);
  }
  int reps_here = -1;
  while (peek_char() != ';') {
    std::string w = read_option_word();
    if (!mult_option(w.c_str(), &reps_here) && !bbreak_option(w.c_str(), !run))
      error_exitf("Unidentified string in mult options: %s", w.c_str());
  }
  if (!run) return;
  run_mult(run_reps >= 0 ? run_reps : search_settings.replications);
}

bool read_settings_command(const char* name, const char* unknown_format,
                           const std::function<bool(const std::string&, bool)>& option,
                           const std::function<void()>& report, const std::function<void()>& undo) {
  int c = peek_char();
  bool run = true;
  if (c == '=' || c == ':') {
    next_char();
    run = c == '=';
    if (!run && peek_char() == ';') {
      report();
      return false;
    }
  } else if (c != ';') {
    next_char();
    error_exitf("Wrong argument for %s: %c", name, c);
  }
  try {
    while (peek_char() != ';') {
      std::string w = read_option_word();
      if (!option(w, !run)) error_exitf(unknown_format, w.c_str());
    }
  } catch (const CommandFailed&) {
    undo();
    throw;
  }
  return run;
}

void cmd_bbreak() {
  const SearchSettings saved = search_settings;
  if (read_settings_command("bbreak", "Unidentified string in bbreak options: %s\n",
                            [](const std::string& w, bool set_only) { return bbreak_option(w.c_str(), set_only); },
                            print_bbreak_settings, [&] { search_settings = saved; }))
    run_bbreak();
}

void cmd_rseed() {
  auto& s = search_settings;
  int c = peek_char();
  if (c == '*') {
    next_char();
    s.seed = static_cast<int>(std::time(nullptr) & 0x7fffffff);
  } else if (c == '[') {
    next_char();
    s.random_insertion = 1;
  } else if (c == ']') {
    next_char();
    s.random_insertion = 0;
  } else if (c == '>') {
    next_char();
    s.random_outgroup = 1;
  } else if (c == '<') {
    next_char();
    s.random_outgroup = 0;
  } else if (c == ':') {
    next_char();
    int n = read_int();
    if (n < 0) error_exit("Expected a number for the seed increment");
    s.seed_step = n;
  } else if (c == '+') {
    next_char();
    int n = read_int();
    if (n < 0) error_exit("Expected a number for the random seed");
    s.seed += n;
  } else if (c != ';') {
    int n = read_int();
    if (n < 0) error_exit("Expected a number for the random seed");
    s.seed = n;
  }
  shell_state.random_seed = static_cast<unsigned>(s.seed == 0 ? std::time(nullptr) : s.seed);
  // Commands outside the search (randtrees, random data) draw from the C generator.
  std::srand(shell_state.random_seed);
  out_line({"Random seed is", number_text(s.seed)});
  if (s.random_insertion) out_line({"Insertion sequence is random"});
  if (s.random_outgroup) out_line({"Random outgroup in Wagner trees"});
  if (s.seed_step) out_line({"Seeds of replications grow by", number_text(s.seed_step)});
}

void cmd_subopt() {
  auto& s = search_settings;
  int c = peek_char();
  if (c != ';' && c != 'x' && c != 'X') {
    double v = read_real();
    if (v < 0) error_exit("Suboptimal must be 0 or greater");
    // No score difference reaches this: a larger value keeps every tree just the same.
    s.suboptimal = std::min(v, max_suboptimal);
    c = peek_char();
  }
  // "x R": the relative limit, a fraction of the fit lost (0 to 1).
  if (c == 'x' || c == 'X') {
    next_char();
    const double r = read_real();
    if (r < 0 || r > 1) error_exit("Relative suboptimal must be between 0 and 1");
    s.relative_suboptimal = r;
  }
  if (s.relative_suboptimal > 0) {
    out_printf("Suboptimal set to %s (relative %.3f)\n", search_score_text(s.suboptimal).c_str(), s.relative_suboptimal);
    out_text({"(the relative value bounds Bremer supports by TBR; searches keep trees by the absolute value)\n"});
  } else {
    out_line({"Suboptimal set to", search_score_text(s.suboptimal)});
  }
}

}  // namespace qax::search
