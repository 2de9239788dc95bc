// Random numbers and the Wagner build: taxa added one at a time at the branch where they
// cost least, each branch evaluated by one join against its branch set.
#include <algorithm>
#include <climits>
#include <cstring>
#include <ctime>

#include "optim/kernels.h"
#include "search/constraints.h"
#include "search/engine.h"
#include "search/search_internal.h"
#include "search/settings.h"
#include "shell/failure.h"
#include "shell/output.h"
#include "shell/state.h"

namespace qax::search {

using qax::optim::packed;

SearchSettings search_settings;
Rearrangements rearrangements_examined;
std::uint64_t replacements_done = 0;
int search_status_code = 0;
double last_best_score = -1.0;
int last_hits = 0;
CandidateTestFn constraint_allows = nullptr;
CollapseFn collapse_before_store = nullptr;

namespace {
std::uint64_t rng_state = 1;
}

void set_random_seed(std::uint32_t seed) noexcept { rng_state = seed; }
std::uint32_t random_state() noexcept { return static_cast<std::uint32_t>(rng_state); }

// 48-bit linear congruential generator; the high 31 bits are returned.
int random_next() noexcept {
  rng_state = (rng_state * 0x5DEECE66Dull + 0xBull) & ((1ull << 48) - 1);
  return static_cast<int>(rng_state >> 17);
}

void random_shuffle(int count, int* array) noexcept {
  for (int i = 0; i < count; ++i) array[i] = i;
  for (int i = count - 1; i > 0; --i) std::swap(array[i], array[random_next() % (i + 1)]);
}

void reset_search_state() {
  search_settings = SearchSettings{};
  rearrangements_examined = Rearrangements{};
  replacements_done = 0;
  search_status_code = 0;
  last_best_score = -1.0;
  last_hits = 0;
  rng_state = 1;
}

Engine& engine() {
  static Engine e;
  if (e.nt != packed.nterm || e.W != packed.nwords || e.nn == 0) e.init();
  return e;
}

void engine_refresh() {
  Engine& e = engine();
  e.init();
}

namespace {

// Branches of the tree being built, in preorder from the root's second child.
int list_branches(Engine& e, std::vector<int>& list) {
  int n = 0, top = 0;
  e.stack[top++] = e.right[e.nt];
  while (top) {
    int v = e.stack[--top];
    list[n++] = v;
    if (v < e.nt) continue;
    e.stack[top++] = e.right[v];
    e.stack[top++] = e.left[v];
  }
  return n;
}

struct Placement {
  int branch = -1;          // best branch
  std::int32_t best = INT_MAX;   // its cost
  std::int32_t worst = -1;  // worst complete cost
};

// Best branch for terminal t; `strict` lowers the bound with the best (plain and cas),
// otherwise every branch gets a complete cost (sas, fas).
Placement place(Engine& e, int t, const std::vector<int>& list, int count, const int* visit, bool backward,
                bool strict) {
  Placement pl;
  std::int32_t bound = INT_MAX;
  std::int32_t ok;
  for (int k = 0; k < count; ++k) {
    int idx = visit ? visit[k] : (backward ? count - 1 - k : k);
    int b = list[idx];
    std::int32_t c = join_count(e.D(t), e.E(b), bound, &ok);
    if (!ok) continue;
    if (constraint_allows && !constraint_allows(t, -1, b)) continue;
    if (c > pl.worst) pl.worst = c;
    if (c < pl.best) {
      pl.best = c;
      pl.branch = b;
      if (strict) {
        bound = c - 1;
        if (c == 0) break;
      }
    }
  }
  return pl;
}

void insert_terminal(Engine& e, int t, int branch, int node) {
  const int a = e.anc[branch];
  if (e.left[a] == branch) e.left[a] = node; else e.right[a] = node;
  e.anc[node] = a;
  e.left[node] = branch;
  e.right[node] = t;
  e.anc[branch] = node;
  e.anc[t] = node;
}

}  // namespace

double wagner_build(std::vector<std::int32_t>& parent_array, std::uint32_t seed) {
  Engine& e = engine();
  const int nt = e.nt;
  if (nt < 3) qax::shell::error_exit("Need at least 3 active taxa to build a tree");
  constraints_start_search(e.anc.data(), e.left.data(), e.right.data(), e.nt);
  struct EndConstraints { ~EndConstraints() { constraints_end_search(); } } end_constraints;
  const std::uint32_t caller_state = random_state();
  set_random_seed(seed);
  std::vector<int> seq(nt);
  random_shuffle(nt, seq.data());
  // Terminal 0 first unless random outgroup.
  int r = 0;
  if (search_settings.random_outgroup && !constraint_allows) r = random_next() % nt;
  std::swap(seq[0], *std::find(seq.begin(), seq.end(), r));
  std::fill(e.anc.begin(), e.anc.end(), -1);
  std::fill(e.left.begin(), e.left.end(), -1);
  std::fill(e.right.begin(), e.right.end(), -1);
  const int root = nt;
  {
    const int q = nt + 1;
    e.left[root] = seq[0];
    e.right[root] = q;
    e.anc[seq[0]] = root;
    e.anc[q] = root;
    e.left[q] = seq[1];
    e.right[q] = seq[2];
    e.anc[seq[1]] = e.anc[seq[2]] = q;
  }
  constraint_tree_changed();
  std::vector<int> list(e.nn + 1), visit(e.nn + 1);
  const int kind = search_settings.sequence_kind;
  const int look = search_settings.lookahead;
  for (int i = 3; i < nt; ++i) {
    if (i >= 151 && i % 25 == 0) {
      qax::shell::show_progress(i, nt, "Wagner tree");
      if (qax::shell::shell_state.stop_search_flag) {
        set_random_seed(caller_state);
        return -1.0;
      }
    }
    e.compute_all();
    const int count = list_branches(e, list);
    const int* vis = nullptr;
    if (search_settings.random_insertion) {
      random_shuffle(count, visit.data());
      vis = visit.data();
    }
    Placement chosen;
    if (look > 0 && kind != sequence_plain) {
      const int end = std::min(nt, i + look);
      int pick = i;
      long long best_value = LLONG_MIN;
      for (int j = i; j < end; ++j) {
        const bool backward = random_next() & 1;
        Placement pl = place(e, seq[j], list, count, vis, backward, kind == sequence_closest);
        long long value = kind == sequence_closest ? -pl.best
                          : kind == sequence_furthest ? pl.worst
                                                      : static_cast<long long>(pl.worst) - pl.best;
        if (value > best_value) {
          best_value = value;
          pick = j;
          chosen = pl;
        }
        if (kind == sequence_closest && pl.best == 0) break;
      }
      std::swap(seq[i], seq[pick]);
    } else {
      const bool backward = random_next() & 1;
      chosen = place(e, seq[i], list, count, vis, backward, true);
    }
    if (chosen.branch < 0) {
      if (constraint_allows) qax::shell::error_exit("Sorry, cannot build a tree with specified constraints");
      chosen.branch = list[0];
    }
    insert_terminal(e, seq[i], chosen.branch, nt + i - 1);
    if (constraint_allows) constraint_tree_changed();
  }
  if (nt >= 3 && e.left[root] != 0) e.reroot_on_zero();
  const double score = e.compute_all();
  e.export_tree(parent_array);
  set_random_seed(caller_state);
  return score;
}

}  // namespace qax::search
