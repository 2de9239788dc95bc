// Tree hybridization: a group of one tree and the closest group of another are exchanged
// after pruning the taxa they don't share; the pruned taxa go back at their best places and
// the two children are swapped with TBR. Unlike fusing it works between trees that share
// few groups exactly.
#include <algorithm>
#include <cmath>
#include <string>

#include "optim/implied.h"
#include "optim/packed.h"
#include "search/constraints.h"
#include "search/fusing.h"
#include "search/implied_swap.h"
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

using Tree = std::vector<std::int32_t>;

int ntax_of(const Tree& t) { return static_cast<int>(t.size() + 1) / 2; }

// Terminals below each node (present terminals only), by walking up from each terminal.
void below_counts(const Tree& t, const std::vector<std::uint8_t>* only, std::vector<int>& count) {
  const int ntax = ntax_of(t);
  count.assign(t.size(), 0);
  for (int x = 0; x < ntax; ++x) {
    if (t[x] < ntax || (only && !(*only)[x])) continue;
    ++count[x];
    for (int a = t[x];; a = t[a]) {
      ++count[a];
      if (a == ntax) break;
    }
  }
}

bool is_below(const Tree& t, int x, int node) {
  const int ntax = ntax_of(t);
  for (int v = x; v >= 0; v = v == ntax ? -1 : t[v])
    if (v == node) return true;
  return false;
}

// The smallest node of t holding all the terminals flagged (present ones).
int clade_of(const Tree& t, const std::vector<std::uint8_t>& flags, int size) {
  const int ntax = ntax_of(t);
  std::vector<int> count;
  below_counts(t, &flags, count);
  int first = -1;
  for (int x = 0; x < ntax && first < 0; ++x)
    if (flags[x] && t[x] >= ntax) first = x;
  if (first < 0) return -1;
  int v = first;
  while (count[v] < size && v != ntax) v = t[v];
  return v;
}

// Puts the topology of `piece` (a tree over exactly the terminals of node `at` of `base`)
// in place of the subtree of `at`.
void graft(Tree& base, int at, const Tree& piece) {
  const int ntax = ntax_of(base);
  std::vector<int> rin, pin;
  for (int n = ntax; n < base[ntax]; ++n)
    if (n == at || (n != ntax && is_below(base, n, at))) rin.push_back(n);
  for (int n = ntax; n < piece[ntax]; ++n) pin.push_back(n);
  if (rin.size() != pin.size()) error_exit("Trees to hybridize must be binary");
  std::vector<int> map(base.size(), -1);
  map[ntax] = at;
  std::size_t j = 0;
  for (int n : rin)
    if (n != at) map[pin[++j]] = n;
  for (int x = 0; x < ntax; ++x)
    if (piece[x] >= ntax) base[x] = map[piece[x]];
  for (int n : pin)
    if (n != ntax) base[map[n]] = map[piece[n]];
  trees::reset_node_numbers(base.data(), ntax);
}

// Attaches absent taxon x beside node `at` (a new inner node between at and its parent).
void attach(Tree& t, int x, int at) {
  const int ntax = ntax_of(t);
  const int q = t[ntax];
  t[q] = t[at];
  t[at] = q;
  t[x] = q;
  t[ntax] = q + 1;
}

// Each added taxon moved to its best place (a clip of the taxon alone, SPR).
double place_added(Tree& t, const std::vector<int>& added) {
  trees::reset_node_numbers(t.data(), ntax_of(t));
  Engine& e = engine();
  if (!e.load(t)) error_exit("Tree cannot be swapped (not binary on the active taxa)");
  double score = e.compute_all();
  std::vector<Move> records;
  std::uint64_t examined = 0;
  for (int x : added) {
    const int p = optim::packed.to_packed[x];
    if (p < 0) continue;
    Move best;
    const std::int32_t base = e.evaluate_clip(p, false, false, 0, best, records, examined);
    if (base >= 0 && best.clip >= 0) {
      e.apply_move(best);
      score = e.update_after_move();
    }
  }
  rearrangements_examined.add(examined);
  score = e.compute_all();
  e.export_tree(t);
  return score;
}

// The added taxa placed, then TBR with `swap`; returns the tree's score. Under implied
// weighting the taxa are placed by steps, and swapping and the score go by fits.
double finish_added(Tree& t, const std::vector<int>& added, bool swap) {
  double sc = place_added(t, added);
  if (!optim::implied_settings.implied_on) return swap ? swap_tbr(t, 0, 0, 0) : sc;
  if (!swap) return implied_fit_of(t);
  long long examined = 0;
  sc = implied_swap(t, true, examined);
  rearrangements_examined.add(static_cast<std::uint64_t>(examined));
  return sc;
}

}  // namespace

// One exchange between trees a and b at node `node` of a (-1: a random one). Fills the
// two children; with `complete` the pruned taxa are put back and, with `swap`, TBR runs.
// Returns false when no usable pair of groups was found.
bool hybrid_step(const Tree& a, const Tree& b, int node, bool complete, bool swap, Tree& child_a, Tree& child_b,
                 int* shared_out, int* only_a_out, int* only_b_out, double* score_a, double* score_b) {
  const int ntax = ntax_of(a);
  const int present = trees::tree_terminal_count(a.data(), ntax);
  std::vector<int> ca;
  below_counts(a, nullptr, ca);
  const int limit = std::max(3, present / 10);   // at most this many unshared taxa
  for (int attempt = 0; attempt < 20; ++attempt) {
    int na = node;
    if (na < 0) {
      na = ntax + 1 + random_next() % std::max(1, a[ntax] - ntax - 1);
      if (ca[na] < 4 || ca[na] > present - 2) continue;
    }
    if (na <= ntax || na >= a[ntax]) return false;
    std::vector<std::uint8_t> in_a(ntax, 0);
    int size_a = 0;
    for (int x = 0; x < ntax; ++x)
      if (a[x] >= ntax && is_below(a, x, na)) { in_a[x] = 1; ++size_a; }
    // The group of b closest to it: fewest taxa in one and not in the other.
    std::vector<int> inter, size_b;
    below_counts(b, &in_a, inter);
    below_counts(b, nullptr, size_b);
    int nb = -1, best_d = 1 << 30;
    for (int n = ntax + 1; n < b[ntax]; ++n) {
      const int d = size_a + size_b[n] - 2 * inter[n];
      if (d < best_d) { best_d = d; nb = n; }
    }
    if (nb < 0) return false;
    std::vector<std::uint8_t> in_b(ntax, 0), shared(ntax, 0), only_a(ntax, 0), only_b(ntax, 0);
    int ns = 0, oa = 0, ob = 0;
    for (int x = 0; x < ntax; ++x) {
      if (b[x] >= ntax && is_below(b, x, nb)) in_b[x] = 1;
      if (in_a[x] && in_b[x]) { shared[x] = 1; ++ns; }
      else if (in_a[x]) { only_a[x] = 1; ++oa; }
      else if (in_b[x]) { only_b[x] = 1; ++ob; }
    }
    if (ns < 3 || (node < 0 && oa + ob > limit)) {
      if (node >= 0) return false;
      continue;
    }
    // Pieces over the shared taxa.
    std::vector<std::uint8_t> not_shared(ntax, 0);
    for (int x = 0; x < ntax; ++x) not_shared[x] = !shared[x];
    Tree piece_a = a, piece_b = b;
    trees::tree_prune(piece_a.data(), ntax, not_shared);
    trees::tree_prune(piece_b.data(), ntax, not_shared);
    // Child of a: a without its unshared taxa, b's piece in place; then the reverse.
    auto make = [&](const Tree& base, const std::vector<std::uint8_t>& drop, const Tree& piece, Tree& child,
                    double* score) {
      child = base;
      trees::tree_prune(child.data(), ntax, drop);
      const int at = clade_of(child, shared, ns);
      if (at < 0) return false;
      if (at == ntax) child = piece;
      else graft(child, at, piece);
      if (score) *score = -1;
      if (!complete) return true;
      std::vector<int> added;
      for (int x = 0; x < ntax; ++x)
        if (drop[x]) {
          int place = clade_of(child, shared, ns);
          if (place == ntax || place < 0)
            for (int y = 0; y < ntax; ++y)
              if (shared[y]) { place = y; break; }
          attach(child, x, place);
          added.push_back(x);
        }
      const double sc = finish_added(child, added, swap);
      if (score) *score = sc;
      return true;
    };
    if (!make(a, only_a, piece_b, child_a, score_a) || !make(b, only_b, piece_a, child_b, score_b)) return false;
    if (shared_out) *shared_out = ns;
    if (only_a_out) *only_a_out = oa;
    if (only_b_out) *only_b_out = ob;
    return true;
  }
  return false;
}

double hybridize_trees(std::vector<Tree>& trees, std::vector<double>& scores, int times, int keep) {
  const FuseSettings& fs = fuse_settings;
  if (constraints_in_force() && (!constraint_defs.negative.empty() || !constraint_defs.tree.empty()))
    error_exit("Cannot complete trees under negative or tree constraints");
  if (trees.size() < 2) return scores.empty() ? -1 : *std::min_element(scores.begin(), scores.end());
  const std::size_t initial = trees.size();
  const int saved_status = search_status_code;
  Tree ca, cb;
  for (int step = 0; step < times && !shell_state.stop_search_flag; ++step) {
    search_status_code = 8;
    const int i = random_next() % static_cast<int>(trees.size());
    int j = random_next() % static_cast<int>(trees.size() - 1);
    if (j >= i) ++j;
    double sa = 0, sb = 0;
    if (!hybrid_step(trees[i], trees[j], -1, true, true, ca, cb, nullptr, nullptr, nullptr, &sa, &sb)) continue;
    const Tree* kids[2] = {&ca, &cb};
    const double ks[2] = {sa, sb};
    const int parents[2] = {i, j};
    for (int c = 0; c < 2; ++c) {
      if (std::find(trees.begin(), trees.end(), *kids[c]) != trees.end()) continue;
      if (fs.replace && ks[c] < scores[parents[c]] - 1e-8) {
        trees[parents[c]] = *kids[c];
        scores[parents[c]] = ks[c];
      } else if (!fs.replace || ks[c] <= scores[parents[c]] + 1e-8) {
        trees.push_back(*kids[c]);
        scores.push_back(ks[c]);
      }
    }
    // A clogged set keeps its best part.
    if (fs.clog > 1 && trees.size() >= initial * static_cast<std::size_t>(fs.clog)) {
      std::vector<std::size_t> order(trees.size());
      for (std::size_t k = 0; k < order.size(); ++k) order[k] = k;
      std::stable_sort(order.begin(), order.end(), [&](std::size_t x, std::size_t y) { return scores[x] < scores[y]; });
      order.resize(std::max<std::size_t>(2, trees.size() / fs.clog));
      std::vector<Tree> t2;
      std::vector<double> s2;
      for (std::size_t k : order) { t2.push_back(trees[k]); s2.push_back(scores[k]); }
      trees = std::move(t2);
      scores = std::move(s2);
    }
    show_progress(step, times, "Hybridizing");
  }
  if (keep > 0 && static_cast<int>(trees.size()) > keep) {
    std::vector<std::size_t> order(trees.size());
    for (std::size_t k = 0; k < order.size(); ++k) order[k] = k;
    std::stable_sort(order.begin(), order.end(), [&](std::size_t x, std::size_t y) { return scores[x] < scores[y]; });
    order.resize(keep);
    std::vector<Tree> t2;
    std::vector<double> s2;
    for (std::size_t k : order) { t2.push_back(trees[k]); s2.push_back(scores[k]); }
    trees = std::move(t2);
    scores = std::move(s2);
  }
  search_status_code = saved_status;
  return *std::min_element(scores.begin(), scores.end());
}

namespace {

int read_tree_number() {
  if (!std::isdigit(peek_char())) error_exit("You must specify TWO trees for hybridization");
  const int n = read_int();
  if (n >= tree_store.ntrees) error_exitf("No tree %i", n);
  return n;
}

void add_to_store(const Tree& t, double score) {
  const int k = trees::tree_store_add(-1, true);
  std::copy(t.begin(), t.end(), trees::tree_row(k));
  tree_store.scores[k] = score < 0 ? 0 : score;
  tree_store.trees_changed = 1;
}

// "+N" and "*N": tree N completed (and swapped).
void complete_tree(bool swap) {
  const int k = read_tree_number();
  if (constraints_in_force() && (!constraint_defs.negative.empty() || !constraint_defs.tree.empty()))
    error_exit("Cannot complete trees under negative or tree constraints");
  search_prepare();
  Tree t(trees::tree_row(k), trees::tree_row(k) + tree_store.row_size);
  const int ntax = tree_store.ntax;
  std::vector<int> added;
  for (int x = 0; x < ntax; ++x) {
    if (optim::packed.to_packed[x] < 0) {
      if (t[x] >= ntax) error_exit("Tree to complete cannot have any inactive taxa");
      continue;
    }
    if (t[x] < ntax) added.push_back(x);
  }
  if (added.empty()) {
    Engine& e = engine();
    if (!load_for_swapping(e, k)) error_exit("Tree cannot be swapped (not binary on the active taxa)");
    const double sc = optim::implied_settings.implied_on ? implied_fit_of(t) : e.compute_all();
    tree_store.scores[k] = sc;
    out_printf("Tree %i already complete (score %s)\n", k, search_score_text(sc).c_str());
    return;
  }
  int anchor = -1;
  for (int x = 0; x < ntax && anchor < 0; ++x)
    if (t[x] >= ntax) anchor = x;
  if (anchor < 0) error_exit("Tree to complete has no taxa");
  for (int x : added) attach(t, x, anchor);
  const double sc = finish_added(t, added, swap);
  std::copy(t.begin(), t.end(), trees::tree_row(k));
  tree_store.scores[k] = sc;
  tree_store.trees_changed = 1;
  store_begin();
  out_printf("Completed tree (score %s)\n", search_score_text(sc).c_str());
}

// "X Y/Z" (and "-X Y/Z" without completing): the group of node Z of tree X exchanged with
// the closest group of tree Y; both children are added to the store.
void exchange_by_hand(bool complete) {
  const int x = read_tree_number();
  if (peek_char() == '/' || peek_char() == ';') error_exit("You must specify TWO trees for hybridization");
  const int y = read_tree_number();
  int node = -1;
  if (peek_char() == '/') {
    next_char();
    node = read_int();
  }
  if (std::isdigit(peek_char())) error_exit("You can specify only TWO trees");
  search_prepare();
  Engine& e = engine();
  if (!load_for_swapping(e, x) || !load_for_swapping(e, y)) error_exit("Trees to hybridize must hold all active taxa");
  Tree a(trees::tree_row(x), trees::tree_row(x) + tree_store.row_size);
  Tree b(trees::tree_row(y), trees::tree_row(y) + tree_store.row_size);
  if (node < 0) set_random_seed(command_seed());
  Tree ca, cb;
  int ns = 0, oa = 0, ob = 0;
  double sa = -1, sb = -1;
  if (!hybrid_step(a, b, node, complete, complete, ca, cb, &ns, &oa, &ob, &sa, &sb))
    error_exitf("No group to exchange between trees %i and %i", x, y);
  out_printf("Exchanged piece of %i shared taxa (%i-%i unshared), trees %i-%i\n", ns, oa, ob, x, y);
  add_to_store(ca, sa);
  add_to_store(cb, sb);
  store_begin();
  if (complete) {
    out_printf("Completed tree (score %s)\n", search_score_text(sa).c_str());
    out_printf("Completed tree (score %s)\n", search_score_text(sb).c_str());
  }
}

}  // namespace

void cmd_hybrid() {
  qax::trees::require_data();
  int c = peek_char();
  if (c == '+' || c == '*') {
    next_char();
    complete_tree(c == '*');
    return;
  }
  if (c == '-') {
    next_char();
    exchange_by_hand(false);
    return;
  }
  if (std::isdigit(c)) {
    exchange_by_hand(true);
    return;
  }
  // Hybridization of the trees in memory, with the settings of tfuse.
  const FuseSettings saved = fuse_settings;
  int times = fuse_settings.hybrid_times > 0 ? fuse_settings.hybrid_times : 1000;
  int rounds = 1;
  if (c == '=' || c == ':') next_char();
  try {
    while (peek_char() != ';') {
      std::string w = read_option_word();
      if (is_prefix(w.c_str(), "rounds") == 0) {
        rounds = option_number(-1);
        if (rounds < 1) error_exit("Number of hybridization rounds must be above 0");
      } else if (is_prefix(w.c_str(), "hybrid") == 0) {
        times = option_number(-1);
        if (times < 1) error_exit("Give number of hybridizations");
      } else if (is_prefix(w.c_str(), "replace") == 0) {
        fuse_settings.replace = 1;
      } else if (is_prefix(w.c_str(), "noreplace") == 0) {
        fuse_settings.replace = 0;
      } else {
        error_exitf("Unidentified string in hybrid options: %s", w.c_str());
      }
    }
  } catch (const CommandFailed&) {
    fuse_settings = saved;
    throw;
  }
  if (c == ':') return;
  if (tree_store.ntrees < 2) error_exit("You must specify TWO trees for hybridization");
  if (tree_store.maxtrees - tree_store.ntrees < 2)
    error_exitf("Can't run hybridization on %i trees with max.trees=%i.\nIncrease max. trees and retry...",
                tree_store.ntrees, tree_store.maxtrees);
  search_prepare();
  SearchRunning running;
  Engine& e = engine();
  std::vector<Tree> set;
  std::vector<double> scores;
  for (int k = 0; k < tree_store.ntrees; ++k) {
    if (!load_for_swapping(e, k)) error_exitf("Tree %i does not hold all active taxa: cannot swap it", k);
    set.emplace_back(trees::tree_row(k), trees::tree_row(k) + tree_store.row_size);
    scores.push_back(e.compute_all());
  }
  set_random_seed(command_seed());
  double best = 0;
  int done = 0;
  for (int r = 0; r < rounds && !shell_state.stop_search_flag; ++r) {
    best = hybridize_trees(set, scores, times, 0);
    ++done;
  }
  tree_store.ntrees = 0;
  tree_store.trees_changed = 1;
  store_begin();
  for (std::size_t k = 0; k < set.size() && tree_store.ntrees < tree_store.maxtrees; ++k)
    if (fuse_settings.keepall || scores[k] <= best + 1e-8) store_add(set[k], scores[k]);
  tag_search_trees("hybrid");
  last_best_score = best;
  out_printf("%i rounds of hybridization completed.\n", done);
  out_printf("%i trees retained, best score %s.\n", tree_store.ntrees, search_score_text(best).c_str());
  search_status_code = 0;
}

}  // namespace qax::search
