// Perturbations shared by the ratchet and drift: a short pass of TBR that makes one move
// per clip (not worse, or worse within limits), and the loop of perturbation followed by
// TBR that keeps the best trees found.
#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdio>
#include <vector>

#include "optim/packed.h"
#include "search/constraints.h"
#include "search/fusing.h"
#include "shell/input.h"
#include "search/search_internal.h"
#include "search/settings.h"
#include "shell/commands.h"
#include "shell/failure.h"
#include "shell/output.h"
#include "shell/state.h"
#include "trees/store.h"

namespace qax::search {

using namespace qax::shell;
using qax::optim::packed;
using qax::trees::tree_store;

namespace {

// Weighted steps of the fields marked in e (one mark per field) of word w.
std::int64_t marked_weight(int w, std::uint32_t e, int width) {
  if (!e) return 0;
  switch (packed.weight_mode) {
    case optim::weights_equal: return std::popcount(e);
    case optim::weights_word: return static_cast<std::int64_t>(std::popcount(e)) * packed.layout.word_weight[w];
    default: {
      std::int64_t sum = 0;
      for (; e; e &= e - 1) sum += packed.layout.field_weight[packed.layout.record_base[w] + std::countr_zero(e) / width];
      return sum;
    }
  }
}

// One mark per field of class region `cls` whose intersection x is empty.
std::uint32_t empty_fields(int cls, std::uint32_t x) {
  switch (cls) {
    case 0: return ~((x >> 1) | x) & 0x55555555u;
    case 1: return ~(((x & 0x77777777u) + 0x77777777u) | x) & 0x88888888u;
    case 2: return ~(((x & 0x7F7F7F7Fu) + 0x7F7F7F7Fu) | x) & 0x80808080u;
    default: return x == 0 ? 1u : 0u;
  }
}

}  // namespace

double move_rfd(const std::uint32_t* clip_now, const std::uint32_t* target_now, const std::uint32_t* clip_new,
                const std::uint32_t* target_new) {
  // The two trees differ only in where the clip joins: per character, the difference of
  // their lengths is the difference of the two joins.
  const optim::Layout& L = packed.layout;
  const int ends[4] = {L.end0, L.end1, L.end2, L.end4};
  const int widths[4] = {2, 4, 8, 32};
  std::int64_t favour_now = 0, favour_new = 0;
  int w = 0;
  for (int r = 0; r < 4; ++r) {
    for (; w < ends[r]; ++w) {
      const std::uint32_t a = empty_fields(r == 3 ? 4 : r, clip_now[w] & target_now[w]);
      const std::uint32_t b = empty_fields(r == 3 ? 4 : r, clip_new[w] & target_new[w]);
      favour_now += marked_weight(w, b & ~a, widths[r]);
      favour_new += marked_weight(w, a & ~b, widths[r]);
    }
  }
  if (favour_now <= 0) return 0;
  return static_cast<double>(favour_now - favour_new) / static_cast<double>(favour_now);
}

namespace {

// State of a pass of mode 1: the limits and the excess accumulated by worse moves.
struct WorseMoves {
  PerturbLimits limits;
  double excess = 0;
  bool took = false;   // the hook took a move in this clip
};

bool take_move(void* ctx, const Move& m, std::int32_t base, const std::uint32_t* clip_now,
               const std::uint32_t* target_now, const std::uint32_t* clip_new, const std::uint32_t* target_new) {
  auto& st = *static_cast<WorseMoves*>(ctx);
  if (m.cost <= base) return st.took = true;
  // Costs of the engine are in its units (thousandths of a step with continuous columns).
  const double d = engine().cost_to_steps(static_cast<std::int64_t>(m.cost) - base);
  if (d > st.limits.fitdiff + 1e-9) return false;
  double r = (random_next() % 100) / ((2 * st.excess + d) * 100.0);
  r += st.limits.xfactor * r;
  if (d / engine().cost_to_steps(m.cost) > r) return false;
  const double rfd = move_rfd(clip_now, target_now, clip_new, target_new);
  if (rfd > st.limits.rfd + 1e-12 || rfd > r) return false;
  st.excess = std::max(0.0, st.excess + d);
  return st.took = true;
}

}  // namespace

double swap_perturb(std::vector<std::int32_t>& parent, int mode, int moves, int giveup, const PerturbLimits& limits,
                    bool* all_failed) {
  Engine& e = engine();
  if (!e.load(parent)) error_exit("Tree cannot be swapped (not binary on the active taxa)");
  double score = e.compute_all();
  if (all_failed) *all_failed = true;
  if (e.nt < 4 || moves <= 0) return score;
  constraints_start_search(e.anc.data(), e.left.data(), e.right.data(), e.nt);
  WorseMoves worse{limits, 0, false};
  struct End {
    Engine& e;
    ~End() {
      constraints_end_search();
      e.take_first = nullptr;
      e.take_ctx = nullptr;
    }
  } end{e};
  const std::int32_t slack = mode == 1 ? static_cast<std::int32_t>(std::floor(limits.fitdiff + 1e-9)) : 0;
  if (mode == 1) {
    e.take_first = take_move;
    e.take_ctx = &worse;
  }
  const int nn = e.nn;
  std::vector<int> order(nn);
  random_shuffle(nn, order.data());
  std::vector<Move> records;
  std::uint64_t examined = 0;
  int done = 0;
  for (int i = 0; i < nn; ++i) {
    if ((i + 1) % 15 == 0) {
      show_progress(i, nn, "Perturbation");
      if (shell_state.stop_search_flag) break;
    }
    records.clear();
    worse.took = false;
    Move best;
    const std::int32_t base = e.evaluate_clip(order[i], true, true, slack, best, records, examined);
    if (base < 0 || records.empty()) continue;
    if (all_failed) *all_failed = false;
    Move m;
    if (mode == 1) {
      // The hook ended the clip at the move it took, the last record; without a take,
      // nothing moves.
      if (!worse.took) continue;
      m = records.back();
    } else {
      m = best.clip >= 0 ? best : records[static_cast<std::size_t>(random_next()) % records.size()];
    }
    e.apply_move(m);
    score = search_settings.safe ? e.compute_all() : e.update_after_move();
    if (constraint_allows) constraint_tree_changed();
    ++replacements_done;
    if (++done >= moves) break;
    if (giveup < 100 && giveup * nn < 100 * (i + 1)) break;
  }
  rearrangements_examined.add(examined);
  e.export_tree(parent);
  return score;
}

double perturb_search(std::vector<std::int32_t>& tree, int first, int limit, int iterations, int* iterations_done,
                      int findscore, int status, const char* label,
                      const std::function<bool(int, std::vector<std::int32_t>&)>& perturb, const PerturbExtras& extras) {
  Engine& e0 = engine();
  if (!e0.load(tree)) error_exit("Tree cannot be swapped (not binary on the active taxa)");
  double current = e0.compute_all();
  double best = current;
  std::vector<std::int32_t> best_tree = tree, last_tree;
  const double subopt = search_settings.suboptimal;
  int done = 0;
  // Trees of the iterations since the last fusing.
  std::vector<std::vector<std::int32_t>> pool;
  std::vector<double> pool_scores;
  int since_fuse = 0;
  auto keep_best = [&](const std::vector<std::int32_t>& t, double score) {
    if (first >= 0 && score < best - 1e-8) store_discard_above(first, score + subopt, -1);
    current = score;
    if (score < best) best = score;
    best_tree = t;
  };
  for (int it = 0; it < iterations; ++it) {
    if (shell_state.stop_search_flag) break;
    search_status_code = status;
    AutoConstraint constrained;
    if (extras.autoconst > 0 && !last_tree.empty() && (it % extras.autoconst == 0 || it == iterations - 1))
      constrained.set(best_tree, last_tree);
    const bool go_on = perturb(it, tree);
    if (shell_state.stop_search_flag) break;
    const double score = swap_tbr(tree, 0, 0, 0);
    constrained.clear();
    ++done;
    last_tree = tree;
    const bool accepted = score <= current + 1e-8;
    if (accepted) keep_best(tree, score);
    // Every tree within the suboptimal of the best is kept, while there is room.
    if (first >= 0 && tree_store.ntrees < limit && score <= best + subopt + 1e-8) store_add(tree, score);
    if (extras.fusefreq > 0) {
      if (std::find(pool.begin(), pool.end(), tree) == pool.end()) {
        pool.push_back(tree);
        pool_scores.push_back(score);
        ++since_fuse;
      }
      if ((done % extras.fusefreq == 0 || it == iterations - 1) && since_fuse >= 3) {
        since_fuse = 0;
        const std::uint32_t keep_state = random_state();
        const std::uint32_t seed = static_cast<std::uint32_t>(random_next()) | 1u;
        const double fused = fuse_trees(pool, pool_scores, extras.fuserounds, findscore, seed, true);
        set_random_seed(keep_state);
        search_status_code = status;
        const bool better = fused < best - 1e-8;
        if (better) {
          const auto at = std::min_element(pool_scores.begin(), pool_scores.end()) - pool_scores.begin();
          keep_best(pool[static_cast<std::size_t>(at)], fused);
          tree = best_tree;
        }
        if (first >= 0)
          for (std::size_t k = 0; k < pool.size(); ++k)
            if (tree_store.ntrees < limit && pool_scores[k] <= best + subopt + 1e-8) store_add(pool[k], pool_scores[k]);
        if (better || extras.dumpfuse) {
          // Only the trees of the best score stay for the next fusing.
          std::vector<std::vector<std::int32_t>> kept;
          std::vector<double> kept_scores;
          for (std::size_t k = 0; k < pool.size(); ++k)
            if (pool_scores[k] <= best + 1e-8) { kept.push_back(std::move(pool[k])); kept_scores.push_back(pool_scores[k]); }
          pool = std::move(kept);
          pool_scores = std::move(kept_scores);
        }
      }
    }
    if (!accepted && first >= 0) tree = best_tree;   // go on from the best tree so far
    show_progress(it + 1, iterations, label);
    if (findscore > 0 && best <= findscore + 1e-8) break;
    if (!go_on) break;
  }
  tree = best_tree;
  if (iterations_done) *iterations_done = done;
  return best;
}

int read_percent() {
  int n = option_number(-1);
  if (n < 0 || n > 100) error_exitf("Percentage can't be %i (must be 0-100)", n);
  return n;
}

int read_count(int max, const char* too_many, const char* what) {
  int n = option_number(-1);
  if (n < 0) error_exitf("Give number of %s", what);
  if (n > max) error_exitf(too_many, n);
  return n;
}

bool shared_perturb_option(const std::string& w, const PerturbOptions& o) {
  auto is = [&](const char* name, std::size_t least) { return w.size() >= least && is_prefix(w.c_str(), name) == 0; };
  char text[100];
  if (is("iterations", 2)) {
    std::snprintf(text, sizeof text, "Can't do %%i %s (max=100000)", o.cycles);
    *o.iterations = read_count(100000, text, o.cycles);
  } else if (is("numsubs", 2)) {
    std::snprintf(text, sizeof text, "Can't do %%i %s (max=1000000)", o.substitutions);
    *o.numsubs = read_count(1000000, text, o.substitutions);
  } else if (is("equals", 2)) {
    *o.equals = 1;
  } else if (is("noequals", 3)) {
    *o.equals = 0;
  } else if (is("giveup", 2)) {
    *o.giveup = read_percent();
  } else if (is("nogiveup", 3)) {
    *o.giveup = 100;
  } else if (is("findscore", 2)) {
    int n = option_number(-1);
    if (n < 0) error_exit("Give score to find");
    *o.findscore = n;
  } else if (is("nofindscore", 3)) {
    *o.findscore = 0;
  } else if (is("fusefreq", 2)) {
    const int n = option_number(-1);
    if (n < 0 || n == 1 || n == 2 || n > 100) error_exit("Give frequency for auto-fusing (3-100, no fusing = 0 )");
    *o.fusefreq = n;
    if (peek_char() == 'x' || peek_char() == 'X') {
      next_char();
      const int r = option_number(-1);
      if (r < 1 || r > 100) error_exit("Give number of rounds for auto-fusing (1-100)");
      *o.fuserounds = r;
    }
  } else if (is("nofusefreq", 3)) {
    *o.fusefreq = 0;
  } else if (is("autoconst", 2)) {
    const int n = option_number(-1);
    if (n < 0) error_exitf("Give number of autoconstrained %s", o.cycles);
    *o.autoconst = n;
  } else if (is("noautoconst", 3)) {
    *o.autoconst = 0;
  } else if (is("dumpfuse", 2)) {
    *o.dumpfuse = 1;
  } else if (is("nodumpfuse", 3)) {
    *o.dumpfuse = 0;
  } else {
    return false;
  }
  return true;
}

void run_from_best_tree(const char* tag, const char* completed_format,
                        const std::function<double(std::vector<std::int32_t>&, std::uint32_t, int*)>& run) {
  qax::trees::require_data();
  if (tree_store.ntrees == 0) error_exit("No trees to swap");
  search_prepare();
  SearchRunning running;
  Engine& e = engine();
  int start = -1;
  double start_score = 0;
  for (int k = 0; k < tree_store.ntrees; ++k) {
    if (!load_for_swapping(e, k)) error_exitf("Tree %i does not hold all active taxa: cannot swap it", k);
    const double sc = e.compute_all();
    if (start < 0 || sc < start_score) { start = k; start_score = sc; }
    // Many trees take a while: an interrupt starts from the best tree scored so far.
    if ((k & 1023) == 1023) {
      show_progress(k, tree_store.ntrees, "Scoring trees");
      if (qax::shell::shell_state.stop_search_flag) break;
    }
  }
  std::vector<std::int32_t> tree(trees::tree_row(start), trees::tree_row(start) + tree_store.row_size);
  set_random_seed(command_seed());
  const std::uint32_t seed = static_cast<std::uint32_t>(random_next()) | 1u;
  search_status_code = 2;
  const double score = swap_tbr(tree, 0, 0, 0);
  tree_store.ntrees = 0;
  tree_store.trees_changed = 1;
  store_begin();
  store_add(tree, score);
  int done = 0;
  const double best = run(tree, seed, &done);
  store_discard_above(0, best + search_settings.suboptimal, -1);
  tag_search_trees(tag);
  last_best_score = best;
  out_printf(completed_format, done);
  out_printf("Total rearrangements examined: %s.\n",
             number_text(static_cast<long long>(rearrangements_examined.total())).c_str());
  out_printf("Saved %i trees of score %s", tree_store.ntrees, search_score_text(best).c_str());
  if (search_settings.suboptimal > 0) out_printf("-%s", search_score_text(best + search_settings.suboptimal).c_str());
  out_printf("\n");
  search_status_code = 0;
}

}  // namespace qax::search
