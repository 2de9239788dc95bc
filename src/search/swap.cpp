// SPR and TBR branch swapping on the engine, and the store of the trees they find.
// A clip's moves are all costed by joins against branch sets; only accepted moves change
// the tree, after which the sets it changed are recomputed (all of them under `safe`).
#include <algorithm>
#include <cmath>
#include <cstring>
#include <unordered_map>

#include "optim/collapse.h"
#include "optim/kernels.h"
#include "search/constraints.h"
#include "search/search_internal.h"
#include "optim/implied.h"
#include "search/settings.h"
#include "shell/failure.h"
#include "shell/output.h"
#include "shell/state.h"
#include "trees/store.h"

namespace qax::search {


using qax::optim::packed;
using qax::trees::tree_store;

namespace {

// Duplicates are found on the trees as collapsed under the collapsing rule in force, so
// that trees differing only in unsupported branches count once; the rows themselves stay
// binary, ready for swapping. keys[k] is the collapsed form of row k.
std::unordered_multimap<std::uint64_t, int> seen;   // hash of a key -> row
std::vector<std::vector<std::int32_t>> keys;

std::uint64_t row_hash(const std::int32_t* row, int cells) {
  std::uint64_t h = 1469598103934665603ull;
  for (int i = 0; i < cells; ++i) h = (h ^ static_cast<std::uint32_t>(row[i])) * 1099511628211ull;
  return h;
}

void make_key(const std::int32_t* tree, std::vector<std::int32_t>& key) {
  optim::collapsed_copy(tree, key);
}

// With collapsing, two trees of different score may become one; such trees are not
// duplicates as long as both are kept (the worse one goes when the search discards).
bool same_tree(int k, const std::vector<std::int32_t>& key, double score) {
  if (k >= tree_store.ntrees || keys[k] != key) return false;
  return optim::collapse_settings.rule < optim::collapse_rule1 || std::fabs(tree_store.scores[k] - score) < 1e-8;
}

int find_key(const std::vector<std::int32_t>& key, double score) {
  auto range = seen.equal_range(row_hash(key.data(), static_cast<int>(key.size())));
  for (auto it = range.first; it != range.second; ++it)
    if (same_tree(it->second, key, score)) return it->second;
  return -1;
}

std::vector<std::int32_t> key_scratch;

// Drops the rows with flags[k] == 0; the keys follow the rows, so the table is rebuilt
// without collapsing anything again.
void compact_rows(const std::vector<std::uint8_t>& flags) {
  int to = 0;
  keys.resize(tree_store.ntrees);
  for (int k = 0; k < tree_store.ntrees; ++k)
    if (flags[k]) {
      if (to != k) keys[to] = std::move(keys[k]);
      ++to;
    }
  keys.resize(to);
  trees::tree_store_compact(flags);
  seen.clear();
  for (int k = 0; k < tree_store.ntrees; ++k) seen.emplace(row_hash(keys[k].data(), static_cast<int>(keys[k].size())), k);
}

}  // namespace

void store_begin() {
  seen.clear();
  keys.resize(tree_store.ntrees);
  for (int k = 0; k < tree_store.ntrees; ++k) {
    make_key(trees::tree_row(k), keys[k]);
    seen.emplace(row_hash(keys[k].data(), static_cast<int>(keys[k].size())), k);
  }
}

int store_find(const std::vector<std::int32_t>& tree, double score) {
  make_key(tree.data(), key_scratch);
  return find_key(key_scratch, score);
}

int store_add(std::vector<std::int32_t>& tree, double score) {
  make_key(tree.data(), key_scratch);
  if (find_key(key_scratch, score) >= 0) return -1;
  const int k = trees::tree_store_add(-1, false);
  copy_bytes(trees::tree_row(k), tree.data(), sizeof(std::int32_t) * tree_store.row_size);
  tree_store.scores[k] = score;
  if (static_cast<int>(keys.size()) <= k) keys.resize(k + 1);
  keys[k] = key_scratch;
  seen.emplace(row_hash(key_scratch.data(), static_cast<int>(key_scratch.size())), k);
  return k;
}

int store_discard_above(int first, double bound, int keep) {
  std::vector<std::uint8_t> flags(tree_store.ntrees, 1);
  int new_keep = keep;
  int dropped_before = 0;
  for (int k = first; k < tree_store.ntrees; ++k) {
    if (tree_store.scores[k] > bound + 1e-8) {
      flags[k] = 0;
      if (k < keep) ++dropped_before;
      if (k == keep) new_keep = -1;
    }
  }
  if (new_keep >= 0) new_keep -= dropped_before;
  compact_rows(flags);
  return new_keep;
}

int store_drop_collapsed_duplicates() {
  // Rows of equal keys: the first of lowest score stays.
  std::vector<std::uint8_t> flags(tree_store.ntrees, 1);
  int dropped = 0;
  for (int k = 0; k < tree_store.ntrees; ++k) {
    auto range = seen.equal_range(row_hash(keys[k].data(), static_cast<int>(keys[k].size())));
    for (auto it = range.first; it != range.second; ++it) {
      const int j = it->second;
      if (j == k || !flags[j] || keys[j] != keys[k]) continue;
      const double sj = tree_store.scores[j], sk = tree_store.scores[k];
      if (sj < sk - 1e-8 || (std::fabs(sj - sk) <= 1e-8 && j < k)) {
        flags[k] = 0;
        ++dropped;
        break;
      }
    }
  }
  if (dropped) compact_rows(flags);
  return dropped;
}

namespace {

// Terminals below each node, for the clip-size rules.
void count_tips(Engine& e, std::vector<int>& tips) {
  tips.assign(e.nn, 0);
  for (int t = 0; t < e.nt; ++t) tips[t] = 1;
  // Inner nodes in reverse preorder: children before parents.
  const int cnt = e.inner_preorder();
  for (int k = cnt - 1; k >= 0; --k) {
    int n = e.order[k];
    tips[n] = tips[e.left[n]] + tips[e.right[n]];
  }
}

std::string score_text(double s) {
  char buf[64];
  // Fits under implied weighting always with five decimals, as every report of fits.
  if (optim::implied_settings.implied_on) std::snprintf(buf, sizeof buf, "%.5f", s);
  else if (std::fabs(s - std::round(s)) < 1e-9) std::snprintf(buf, sizeof buf, "%.0f", s);
  else std::snprintf(buf, sizeof buf, "%.3f", s);
  return buf;
}

double swap_core(std::vector<std::int32_t>& parent, int first, int mode, int limit, bool tbr, int* slot_io,
                 bool* improved_out) {
  Engine& e = engine();
  if (!e.load(parent)) qax::shell::error_exit("Tree cannot be swapped (not binary on the active taxa)");
  e.limit = tbr ? search_settings.limit : 0;
  struct EndLimit { Engine& e; ~EndLimit() { e.limit = 0; } } end_limit{e};
  double score = e.compute_all();
  constraints_start_search(e.anc.data(), e.left.data(), e.right.data(), e.nt);
  struct EndConstraints { ~EndConstraints() { constraints_end_search(); } } end_constraints;
  if (improved_out) *improved_out = false;
  const int nn = e.nn;
  if (e.nt < 4) return score;
  const bool saving = mode > 0;
  const std::int32_t save_slack = static_cast<std::int32_t>(std::floor(std::min(search_settings.suboptimal, max_suboptimal) + 1e-9));
  int slot = slot_io ? *slot_io : -1;
  std::vector<int> clip_order(nn);
  if (search_settings.randclip) random_shuffle(nn, clip_order.data());
  else for (int i = 0; i < nn; ++i) clip_order[i] = i;
  std::vector<int> tips;
  count_tips(e, tips);
  bool improved = false;
  int failures = 0, pos = 0, clips = 0;
  const int report_every = search_settings.outfreq > 0 ? search_settings.outfreq : (e.nt <= 49 ? 2 : 10);
  std::vector<Move> records;
  std::vector<int> keep_anc, keep_left, keep_right;
  std::vector<std::int32_t> row;
  Move best;
  std::uint64_t examined = 0;
  if (preproc_pass && tbr && mode == 0) {
    // A first look at every clip: clips that promise the largest gain go first, the
    // others in the order they would have had (the sort is stable).
    std::vector<std::pair<std::int32_t, int>> gain(nn);
    for (int i = 0; i < nn; ++i) {
      const int n = clip_order[i];
      best = Move{};
      const std::int32_t base = e.evaluate_clip(n, tbr, false, 0, best, records, examined);
      gain[i] = {base >= 0 && best.clip >= 0 ? base - best.cost : 0, n};
    }
    std::stable_sort(gain.begin(), gain.end(), [](const auto& a, const auto& b) { return a.first > b.first; });
    for (int i = 0; i < nn; ++i) clip_order[i] = gain[i].second;
  }
  while (failures < nn) {
    if (++clips % report_every == 0) {
      qax::shell::show_progress(failures, nn, tbr ? "TBR" : "SPR");
      if (qax::shell::shell_state.stop_search_flag) break;
    }
    const int n = clip_order[pos];
    pos = pos + 1 == nn ? 0 : pos + 1;
    if (mode < 0 && !improved && tips[n] < 3) { ++failures; continue; }
    records.clear();
    if (swap_hook) {
      // Examination only: every move within the suboptimal goes to the hook, none is taken.
      const std::int32_t base = e.evaluate_clip(n, tbr, true, save_slack, best, records, examined);
      ++failures;
      if (base >= 0 && !records.empty() && swap_hook(e, records, base, score)) break;
      continue;
    }
    const bool room = saving && tree_store.ntrees < limit;
    const std::int32_t base = e.evaluate_clip(n, tbr, room, save_slack, best, records, examined);
    if (base < 0) { ++failures; continue; }
    if (best.clip >= 0) {
      const double expect = score - e.cost_to_steps(static_cast<std::int64_t>(base) - best.cost);
      if (saving) {
        // Worse trees of this replication go; the tree in swap is no longer stored.
        store_discard_above(first, expect + search_settings.suboptimal, -1);
        slot = -1;
      }
      e.apply_move(best);
      // safe: all sets again; otherwise only those the move changed.
      score = search_settings.safe ? e.compute_all() : e.update_after_move();
      if (constraint_allows) constraint_tree_changed();
      if (std::fabs(score - expect) > 1e-8) {
        qax::shell::out_printf("\n%s --- %s, move %i -> %i, score is %s", "OOpps", tbr ? "tbr" : "spr", best.clip,
                               best.target, score_text(score).c_str());
      }
      count_tips(e, tips);
      ++replacements_done;
      improved = true;
      failures = search_settings.mulpars ? 1 : 2;
      if (saving && first > 0) {
        // A better tree already found by an earlier replication: its island has been seen.
        e.export_tree(row);
        if (store_find(row, score) >= 0) {
          rearrangements_examined.add(examined);
          parent = row;
          if (slot_io) *slot_io = -1;
          if (improved_out) *improved_out = true;
          return score;
        }
      }
      continue;
    }
    ++failures;
    if (!records.empty() && room) {
      if (slot < 0) {
        e.export_tree(row);
        slot = store_add(row, score);
        if (slot < 0) break;   // the tree is a duplicate: its neighbours are known
      }
      keep_anc = e.anc;
      keep_left = e.left;
      keep_right = e.right;
      for (const Move& m : records) {
        if (tree_store.ntrees >= limit) break;
        e.apply_move(m);
        e.export_tree(row);
        store_add(row, score + e.cost_to_steps(static_cast<std::int64_t>(m.cost) - base));
        e.anc = keep_anc;
        e.left = keep_left;
        e.right = keep_right;
        ++replacements_done;
      }
      if (constraint_allows) constraint_tree_changed();
    }
  }
  rearrangements_examined.add(examined);
  {
    // The running score, kept up by the incremental updates, against a full evaluation.
    const double running = score;
    score = e.compute_all();
    if (std::fabs(score - running) > 1e-8)
      qax::shell::error_exitf("\nInternal error in %s calculations, expected %.10f, is %.10f", tbr ? "TBR" : "SPR",
                              running, score);
  }
  e.export_tree(parent);
  if (saving && !swap_hook && slot < 0 && tree_store.ntrees < limit) slot = store_add(parent, score);
  if (slot_io) *slot_io = slot;
  if (improved_out) *improved_out = improved;
  return score;
}

}  // namespace

double swap_tbr_slot(std::vector<std::int32_t>& parent, int first, int mode, int limit, int* slot, bool* improved) {
  search_status_code = 2;
  return swap_core(parent, first, mode, limit, true, slot, improved);
}
double swap_spr_slot(std::vector<std::int32_t>& parent, int first, int mode, int limit, int* slot, bool* improved) {
  search_status_code = 1;
  return swap_core(parent, first, mode, limit, false, slot, improved);
}

double swap_tbr(std::vector<std::int32_t>& parent_array, int first, int mode, int limit) {
  return swap_tbr_slot(parent_array, first, mode, limit, nullptr, nullptr);
}
double swap_spr(std::vector<std::int32_t>& parent_array, int first, int mode, int limit) {
  return swap_spr_slot(parent_array, first, mode, limit, nullptr, nullptr);
}

std::string search_score_text(double s) { return score_text(s); }

bool preproc_pass = false;
SwapHookFn swap_hook = nullptr;

}  // namespace qax::search
