// Implicit enumeration by branch and bound. Taxa are added in a fixed order; a partial tree
// is extended only while its length, plus the least steps the taxa still to come must add,
// stays within the best score so far (plus suboptimal). The engine keeps the branch sets of
// the partial tree, so that placing the next taxon on any branch costs one join, exactly.
#include "search/ienum.h"

#include <algorithm>
#include <bit>
#include <climits>
#include <cmath>
#include <cstring>
#include <string>

#include "optim/collapse.h"
#include "optim/kernels.h"
#include "optim/packed.h"
#include "search/constraints.h"
#include "search/engine.h"
#include "search/search_internal.h"
#include "search/settings.h"
#include "shell/failure.h"
#include "shell/input.h"
#include "shell/output.h"
#include "shell/state.h"
#include "trees/store.h"

namespace qax::search {

using qax::optim::packed;
using qax::shell::out_printf;
using qax::trees::tree_store;

namespace {

struct Field {
  int word;
  int shift;
  std::uint32_t mask;
  std::int32_t weight;
};

// Every field of the layout with its weight, the weight read from the join kernel itself
// (two sets that differ in that field alone), so it is right for any weighting scheme.
std::vector<Field> layout_fields(int nwords) {
  const optim::Layout& L = packed.layout;
  std::vector<Field> out;
  std::vector<std::uint32_t> a(nwords, ~0u), b(nwords, ~0u);
  for (int w = 0; w < L.end4; ++w) {
    const int width = w < L.end0 ? 2 : w < L.end1 ? 4 : w < L.end2 ? 8 : 32;
    for (int sh = 0; sh < 32; sh += width) {
      const std::uint32_t mask = width == 32 ? ~0u : ((1u << width) - 1) << sh;
      a[w] = (~mask) | (1u << sh);
      b[w] = (~mask) | (2u << sh);
      std::int32_t ok = 0;
      const std::int32_t c = optim::kernels.join(L, a.data(), b.data(), b.data(), INT_MAX, &ok);
      a[w] = b[w] = ~0u;
      if (c > 0) out.push_back({w, sh, mask, c});
    }
  }
  return out;
}

}  // namespace

std::vector<std::int32_t> extra_bound_table(const std::vector<int>& order, const std::uint32_t* sets, int nterm,
                                            int nwords) {
  std::vector<std::int32_t> table(static_cast<std::size_t>(nterm) + 1, 0);
  if (nterm < 1) return table;
  const std::vector<Field> fields = layout_fields(nwords);
  const std::size_t WS = static_cast<std::size_t>(nwords);
  // Suffix unions of the states held alone (a field with one state) by order[L..].
  std::vector<std::uint32_t> alone(static_cast<std::size_t>(nterm + 1) * WS, 0u);
  for (int L = nterm - 1; L >= 0; --L) {
    const std::uint32_t* row = sets + static_cast<std::size_t>(order[L]) * WS;
    std::uint32_t* cur = alone.data() + static_cast<std::size_t>(L) * WS;
    const std::uint32_t* next = cur + WS;
    std::memcpy(cur, next, sizeof(std::uint32_t) * WS);
    for (const Field& f : fields) {
      const std::uint32_t v = row[f.word] & f.mask;
      if (std::popcount(v) == 1) cur[f.word] |= v;
    }
  }
  std::vector<std::uint32_t> placed(WS, 0u);
  for (int L = 0; L < nterm; ++L) {
    if (L > 0) {
      const std::uint32_t* row = sets + static_cast<std::size_t>(order[L - 1]) * WS;
      for (std::size_t w = 0; w < WS; ++w) placed[w] |= row[w];
    }
    const std::uint32_t* rest = alone.data() + static_cast<std::size_t>(L) * WS;
    std::int64_t sum = 0;
    for (const Field& f : fields) {
      const std::uint32_t fresh = rest[f.word] & ~placed[f.word] & f.mask;
      if (fresh) sum += static_cast<std::int64_t>(std::popcount(fresh)) * f.weight;
    }
    table[L] = static_cast<std::int32_t>(std::min<std::int64_t>(sum, INT_MAX / 4));
  }
  // With no taxon placed every state is new; the search never reads entries below 3.
  return table;
}

// Entry L * nterm + j (j >= L): the least weighted steps the terminals order[L..] other
// than order[j] must add to any tree of order[0..L-1] and order[j]: per field, the states
// that one of them holds alone and none of those can have.
std::vector<std::int32_t> extra_without_table(const std::vector<int>& order, const std::uint32_t* sets, int nterm,
                                              int nwords) {
  std::vector<std::int32_t> table(static_cast<std::size_t>(nterm + 1) * nterm, 0);
  const std::vector<Field> fields = layout_fields(nwords);
  const std::size_t WS = static_cast<std::size_t>(nwords);
  std::vector<std::uint32_t> alone(static_cast<std::size_t>(nterm) * WS, 0u);
  for (int k = 0; k < nterm; ++k) {
    const std::uint32_t* row = sets + static_cast<std::size_t>(order[k]) * WS;
    for (const Field& f : fields) {
      const std::uint32_t v = row[f.word] & f.mask;
      if (std::popcount(v) == 1) alone[k * WS + f.word] |= v;
    }
  }
  std::vector<std::uint32_t> placed(WS, 0u), before(WS), after(static_cast<std::size_t>(nterm + 1) * WS);
  for (int L = 0; L < nterm; ++L) {
    if (L > 0)
      for (std::size_t w = 0; w < WS; ++w) placed[w] |= sets[static_cast<std::size_t>(order[L - 1]) * WS + w];
    // Unions of the lone states after each position.
    std::fill(after.begin() + static_cast<std::ptrdiff_t>(nterm * WS), after.end(), 0u);
    for (int j = nterm - 1; j >= L; --j)
      for (std::size_t w = 0; w < WS; ++w) after[j * WS + w] = after[(j + 1) * WS + w] | alone[j * WS + w];
    std::fill(before.begin(), before.end(), 0u);
    for (int j = L; j < nterm; ++j) {
      const std::uint32_t* own = sets + static_cast<std::size_t>(order[j]) * WS;
      std::int64_t sum = 0;
      for (const Field& f : fields) {
        const std::uint32_t rest = before[f.word] | after[(j + 1) * WS + f.word];
        const std::uint32_t fresh = rest & ~(placed[f.word] | own[f.word]) & f.mask;
        if (fresh) sum += static_cast<std::int64_t>(std::popcount(fresh)) * f.weight;
      }
      table[static_cast<std::size_t>(L) * nterm + j] = static_cast<std::int32_t>(std::min<std::int64_t>(sum, INT_MAX / 4));
      for (std::size_t w = 0; w < WS; ++w) before[w] |= alone[j * WS + w];
    }
  }
  return table;
}

namespace {

// The working state of one enumeration.
struct Enumerator {
  Engine& e;
  EnumerationOptions opt;
  std::vector<int> order;                       // taxon of each level
  std::vector<std::int32_t> extra;              // extra-bound table (zeros when off)
  std::vector<std::int32_t> extra_without;      // the same less one taxon (extra_without_table)
  std::vector<std::vector<int>> branches;       // branch list per level
  std::vector<std::vector<std::int32_t>> costs; // costs of the passing branches per level
  std::vector<std::vector<int>> passing;        // the passing branches per level
  std::vector<std::vector<std::uint32_t>> saved;// sets of the tree per level
  std::vector<std::int32_t> parent;             // exported trees
  double best = 0;
  double subopt = 0;
  double slack = 0;
  bool negative_groups = false;                 // constraints only on finished trees
  bool overflow = false;
  bool stopped = false;
  long long seen = 0;                           // optimal trees met (sampling)
  int five_done = 0;                            // five-taxon partial trees entered
  std::vector<int> skip;                        // branches ruled out by the pair test
  std::vector<std::vector<int>> sorted;         // records of each level by cost
  int stamp_now = 0;                            // marks of the current level in skip

  explicit Enumerator(Engine& eng) : e(eng) {}

  // Nodes in use with L taxa placed: terminals and inner nodes nt .. nt+L-2.
  std::size_t rows_in_use(int L) const { return static_cast<std::size_t>(e.nt + L) * e.W; }

  void save_sets(int L) {
    const std::size_t n = rows_in_use(L);
    std::vector<std::uint32_t>& s = saved[L];
    std::memcpy(s.data(), e.down.data(), n * sizeof(std::uint32_t));
    std::memcpy(s.data() + n, e.up.data(), n * sizeof(std::uint32_t));
    std::memcpy(s.data() + 2 * n, e.edge.data(), n * sizeof(std::uint32_t));
  }
  void restore_sets(int L) {
    const std::size_t n = rows_in_use(L);
    const std::vector<std::uint32_t>& s = saved[L];
    std::memcpy(e.down.data(), s.data(), n * sizeof(std::uint32_t));
    std::memcpy(e.up.data(), s.data() + n, n * sizeof(std::uint32_t));
    std::memcpy(e.edge.data(), s.data() + 2 * n, n * sizeof(std::uint32_t));
  }

  // Topology alone: terminal t with inner node q on the branch above b, and back.
  void attach(int t, int b, int q) {
    const int a0 = e.anc[b];
    if (e.left[a0] == b) e.left[a0] = q; else e.right[a0] = q;
    e.anc[q] = a0;
    e.left[q] = b;
    e.right[q] = t;
    e.anc[b] = q;
    e.anc[t] = q;
  }
  void detach(int t, int q) {
    const int a0 = e.anc[q], b = e.left[q];
    if (e.left[a0] == q) e.left[a0] = b; else e.right[a0] = b;
    e.anc[b] = a0;
    e.anc[q] = e.left[q] = e.right[q] = -1;
    e.anc[t] = -1;
  }

  // Branches of the partial tree, breadth-first from the root's second child (the branch
  // of taxon 0 is the same unrooted branch).
  int list_branches(std::vector<int>& list) {
    int n = 0;
    list[n++] = e.right[e.nt];
    for (int k = 0; k < n; ++k) {
      const int v = list[k];
      if (v < e.nt) continue;
      list[n++] = e.left[v];
      list[n++] = e.right[v];
    }
    return n;
  }

  // Largest join cost still of interest at a level where the tree has length `len` and
  // the taxa after this one must still add extra[L + 1]; negative: nothing can pass.
  std::int32_t bound_for(double len, int next_level) const {
    const double room = best + slack - len - extra[next_level];
    if (room < -1e-9) return -1;
    return static_cast<std::int32_t>(std::min(std::floor(room + 1e-6), 1e9));
  }

  // A finished tree of score `total`: into the store, or counted for the sample.
  void keep_tree(int t, int b, int q, double total) {
    attach(t, b, q);
    e.export_tree(parent);
    detach(t, q);
    if (negative_groups && !tree_satisfies(parent.data(), tree_store.ntax)) return;
    if (opt.sample) {
      ++seen;
      if (tree_store.ntrees < tree_store.maxtrees) {
        store_add(parent, total);
      } else {
        // Each optimal tree stays with probability maxtrees / seen.
        const long long r = static_cast<long long>(
            (static_cast<unsigned long long>(random_next()) << 31 | static_cast<unsigned>(random_next())) %
            static_cast<unsigned long long>(seen));
        if (r < tree_store.maxtrees) {
          std::memcpy(trees::tree_row(static_cast<int>(r)), parent.data(), sizeof(std::int32_t) * tree_store.row_size);
          tree_store.scores[r] = total;
        }
      }
      return;
    }
    if (tree_store.ntrees >= tree_store.maxtrees) {
      // One tree more than the store holds: from now on only better trees are sought.
      overflow = true;
      slack = -1.0;
      return;
    }
    store_add(parent, total);
  }

  // A strictly better score was reached.
  void lower_best(double total) {
    best = total;
    if (opt.sample) {
      tree_store.ntrees = 0;
      store_begin();
      seen = 0;
      return;
    }
    store_discard_above(0, best + subopt, -1);
    slack = subopt;
    if (subopt <= 0) overflow = false;
  }

  // Negative groups can't be judged on a partial tree (a group present now may be broken
  // by a later taxon), so with them the hook is asked on the last level only; positive
  // groups broken on a partial tree stay broken, and prune at every level.
  bool constraint_ok(int t, int b, bool last) const {
    if (negative_groups && !last) return true;
    return constraint_allows(t, -1, b) != 0;
  }

  // Places order[L] on every branch of the tree of L taxa of length `len`.
  void descend(int L, double len) {
    const int nt = e.nt;
    const int t = order[L];
    const int q = nt + L - 1;
    const bool last = L + 1 == nt;
    if (L == 5) {
      ++five_done;
      qax::shell::show_progress(five_done - 1, 15, "Searching (score " + search_score_text(best) + ")");
      // A look at the keyboard (or the control files) at each of the 15 steps, whatever
      // the time since the last one.
      auto& st = qax::shell::shell_state;
      if (!st.stop_search_flag && (qax::shell::switches.brk == 1 || st.background)) qax::shell::check_interrupt(1);
      if (st.stop_search_flag) {
        stopped = true;
        return;
      }
    }
    std::vector<int>& list = branches[L];
    const int count = list_branches(list);
    std::vector<std::int32_t>& cost = costs[L];
    std::vector<int>& pass = passing[L];
    cost.clear();
    pass.clear();
    std::int32_t bound = bound_for(len, L + 1);
    if (bound < 0) return;
    const optim::Layout& lay = packed.layout;
    const std::uint32_t* ts = e.D(t);
    std::int32_t ok = 0;
    // Any taxon still to come must fit somewhere: the tree with it can't be shorter than
    // this one plus its cheapest place, and the others still bring their new states.
    if (!last && constraint_allows == nullptr) {
      for (int j = L + 1; j < nt; ++j) {
        const double room = best + slack - len - extra_without[static_cast<std::size_t>(L) * nt + j];
        if (room < -1e-9) return;
        const std::int32_t lim = static_cast<std::int32_t>(std::min(std::floor(room + 1e-6), 1e9));
        const std::uint32_t* xs = e.D(order[j]);
        bool fits = false;
        for (int k = 0; k < count && !fits; ++k) {
          join_count(xs, e.E(list[k]), lim, &ok);
          fits = ok != 0;
        }
        if (!fits) return;
      }
    }
    std::uint64_t tried = 0;
    ++stamp_now;
    for (int k = 0; k < count; ++k) {
      const int v = list[k];
      // Both children of an inner node at once: a join over the union of their branch
      // sets costs no more than either, so a union over the bound rules out both.
      if (opt.pair_test && v >= nt) {
        optim::kernels.join_between(lay, ts, e.E(e.left[v]), e.E(e.right[v]), bound, &ok);
        ++tried;
        if (!ok) skip[e.left[v]] = skip[e.right[v]] = stamp_now;
      }
      if (skip[v] == stamp_now) continue;
      const std::int32_t c = join_count(ts, e.E(v), bound, &ok);
      ++tried;
      if (!ok) continue;
      if (constraint_allows && !constraint_ok(t, v, last)) continue;
      cost.push_back(c);
      pass.push_back(v);
      if (last && len + c < best - 1e-9) {
        lower_best(len + c);
        bound = bound_for(len, L + 1);
      }
    }
    rearrangements_examined.add(tried);
    if (last) {
      for (std::size_t k = 0; k < pass.size(); ++k) {
        const double total = len + cost[k];
        if (total > best + subopt + 1e-9) continue;
        if (!opt.sample && slack < 0) continue;   // overflowed: better trees only
        keep_tree(t, pass[k], q, total);
      }
      return;
    }
    save_sets(L);
    // Cheapest places first: good trees come early and lower the bound sooner.
    std::vector<int>& idx = sorted[L];
    idx.resize(pass.size());
    for (std::size_t k = 0; k < pass.size(); ++k) idx[k] = static_cast<int>(k);
    std::stable_sort(idx.begin(), idx.end(), [&](int x, int y) { return cost[x] < cost[y]; });
    for (int k : idx) {
      if (stopped) return;
      const double total = len + cost[k];
      if (total + extra[L + 1] > best + slack + 1e-9) continue;
      e.insert_leaf(t, pass[k], q);
      if (constraint_allows) constraint_tree_changed();
      descend(L + 1, total);
      detach(t, q);
      restore_sets(L);
      if (constraint_allows) constraint_tree_changed();
    }
  }
};

}  // namespace

EnumerationResult implicit_enumeration(const EnumerationOptions& options) {
  search_prepare();
  SearchRunning running;
  Engine& e = engine();
  const int nt = e.nt;
  auto& cs = optim::collapse_settings;
  const auto& ss = search_settings;
  if (options.sample) {
    if (ss.suboptimal > 0) qax::shell::error_exit("A sample can be taken only for optimal trees (set suboptimal to 0)");
    if (cs.rule != optim::collapse_none)
      qax::shell::error_exit("A sample can be taken only for uncollapsed trees (set collapse to \"none\")");
  }
  tree_store.ntrees = 0;
  tree_store.trees_changed = 1;
  // Every binary tree is stored as it is; collapsed duplicates are the business of the
  // automatic condensing at the end.
  struct RuleBack {
    int rule;
    ~RuleBack() {
      optim::collapse_settings.rule = rule;
      store_begin();
    }
  } rule_back{cs.rule};
  cs.rule = optim::collapse_none;
  store_begin();

  Enumerator en(e);
  en.opt = options;
  en.subopt = ss.suboptimal;
  en.slack = ss.suboptimal;

  // First bound: a Wagner tree improved by SPR, without reports.
  {
    auto& os = qax::shell::output_state;
    const int saved_silent = os.inner_silent_search;
    ++os.inner_silent_search;
    struct Back { int& v; int s; ~Back() { v = s; } } back{os.inner_silent_search, saved_silent};
    std::vector<std::int32_t> tree;
    double w = wagner_build(tree, 1);
    if (w >= 0 && !qax::shell::shell_state.stop_search_flag) w = swap_spr(tree, -1, 0, tree_store.maxtrees);
    en.best = w >= 0 ? w : 0;
    // The first tree is kept, so that an interrupted run has a tree of the score it
    // reports; the enumeration finds it again (a duplicate) or drops it for better ones.
    if (w >= 0 && !options.sample && tree_store.maxtrees > 0) store_add(tree, w);
  }
  // Interrupted already: nothing of the enumeration is done.
  if (qax::shell::shell_state.stop_search_flag) en.stopped = true;

  // Taxon order: terminal 0, then each time the taxon that differs most from those taken.
  en.order.resize(nt);
  {
    std::vector<std::uint8_t> taken(nt, 0);
    en.order[0] = 0;
    taken[0] = 1;
    std::vector<long long> sum(nt, 0);
    std::int32_t ok = 0;
    for (int i = 1; i < nt; ++i) {
      const int prev = en.order[i - 1];
      int pick = -1;
      for (int t = 0; t < nt; ++t) {
        if (taken[t]) continue;
        sum[t] += join_count(e.D(t), e.D(prev), INT_MAX, &ok);
        if (pick < 0 || sum[t] > sum[pick]) pick = t;
      }
      en.order[i] = pick;
      taken[pick] = 1;
    }
  }
  if (options.extra_bound) {
    en.extra = extra_bound_table(en.order, e.down.data(), nt, e.W);
    en.extra_without = extra_without_table(en.order, e.down.data(), nt, e.W);
  } else {
    en.extra.assign(nt + 1, 0);
    en.extra_without.assign(static_cast<std::size_t>(nt + 1) * nt, 0);
  }

  constraints_start_search(e.anc.data(), e.left.data(), e.right.data(), nt);
  struct EndConstraints { ~EndConstraints() { constraints_end_search(); } } end_constraints;
  en.negative_groups = constraint_allows != nullptr && !constraint_defs.negative.empty();

  en.branches.assign(nt + 1, std::vector<int>(2 * nt + 2));
  en.costs.assign(nt + 1, {});
  en.passing.assign(nt + 1, {});
  en.saved.assign(nt + 1, {});
  en.skip.assign(e.nn, 0);
  en.sorted.assign(nt + 1, {});
  for (int L = 3; L < nt; ++L) en.saved[L].assign(3 * en.rows_in_use(L), 0u);
  set_random_seed(command_seed());

  // The three-taxon tree.
  std::fill(e.anc.begin(), e.anc.end(), -1);
  std::fill(e.left.begin(), e.left.end(), -1);
  std::fill(e.right.begin(), e.right.end(), -1);
  const int root = nt, q0 = nt + 1;
  e.left[root] = en.order[0];
  e.right[root] = q0;
  e.anc[en.order[0]] = root;
  e.anc[q0] = root;
  e.left[q0] = en.order[1];
  e.right[q0] = en.order[2];
  e.anc[en.order[1]] = e.anc[en.order[2]] = q0;
  const double base = e.compute_all();
  if (constraint_allows) constraint_tree_changed();
  if (en.stopped) {
    // Nothing more than the first tree.
  } else if (nt == 3) {
    e.export_tree(en.parent);
    if (!en.negative_groups || tree_satisfies(en.parent.data(), tree_store.ntax)) {
      en.best = base;
      store_add(en.parent, base);
    }
  } else {
    en.descend(3, base);
  }
  EnumerationResult r;
  r.best = en.best;
  r.trees = tree_store.ntrees;
  r.seen = en.seen;
  r.overflow = en.overflow && !options.sample;
  r.completed = !en.stopped;
  r.percent_done = en.stopped ? std::max(0, en.five_done - 1) * 100 / 15 : 100;

  last_best_score = en.best;
  return r;
}

long long walk_addition_trees(const std::function<bool(const std::vector<std::int32_t>&, int)>& visit) {
  search_prepare();
  Engine& e = engine();
  const int nt = e.nt;
  const int ntax = static_cast<int>(packed.to_packed.size());
  std::fill(e.anc.begin(), e.anc.end(), -1);
  std::fill(e.left.begin(), e.left.end(), -1);
  std::fill(e.right.begin(), e.right.end(), -1);
  e.left[nt] = 0;
  e.right[nt] = nt + 1;
  e.anc[0] = nt;
  e.anc[nt + 1] = nt;
  e.left[nt + 1] = 1;
  e.right[nt + 1] = 2;
  e.anc[1] = e.anc[2] = nt + 1;
  std::vector<std::int32_t> parent;
  long long visited = 0;
  // The partial tree in data set numbering (inner nodes numbered as in the engine).
  auto export_partial = [&](int placed) {
    parent.assign(static_cast<std::size_t>(2 * ntax - 1), 0);
    auto id = [&](int n) { return n < nt ? packed.from_packed[n] : ntax + (n - nt); };
    for (int n = 0; n < nt + placed - 1; ++n)
      if (n != nt && e.anc[n] >= 0) parent[id(n)] = id(e.anc[n]);
    parent[ntax] = ntax + placed - 1;
    trees::reset_node_numbers(parent.data(), ntax);
  };
  std::vector<std::vector<int>> lists(nt + 1, std::vector<int>(2 * nt + 2));
  auto descend = [&](auto&& self, int L) -> void {
    export_partial(L);
    ++visited;
    if (!visit(parent, L) || L == nt) return;
    std::vector<int>& list = lists[L];
    int count = 0;
    list[count++] = e.right[nt];
    for (int k = 0; k < count; ++k) {
      const int v = list[k];
      if (v < nt) continue;
      list[count++] = e.left[v];
      list[count++] = e.right[v];
    }
    const int q = nt + L - 1;
    for (int k = 0; k < count; ++k) {
      const int b = list[k];
      const int a0 = e.anc[b];
      if (e.left[a0] == b) e.left[a0] = q; else e.right[a0] = q;
      e.anc[q] = a0;
      e.left[q] = b;
      e.right[q] = L;
      e.anc[b] = q;
      e.anc[L] = q;
      self(self, L + 1);
      if (e.left[a0] == q) e.left[a0] = b; else e.right[a0] = b;
      e.anc[b] = a0;
      e.anc[q] = e.left[q] = e.right[q] = -1;
      e.anc[L] = -1;
    }
  };
  descend(descend, 3);
  return visited;
}

void cmd_ienum() {
  EnumerationOptions opt;
  // "=N" or ">N" first: the trees found go to tree group N.
  int group = -1;
  if (tree_store.ntax > 0 && (qax::shell::peek_char() == '=' || qax::shell::peek_char() == '>'))
    group = trees::read_group_argument("exact_solution");
  while (qax::shell::peek_char() != ';') {
    const int c = qax::shell::next_char();
    if (c == '!') opt.pair_test = false;
    else if (c == '-') opt.extra_bound = false;
    else if (c == '&') opt.sample = true;
    else if (c == ' ' || c == '\t' || c == '\n' || c == '\r') continue;
    else qax::shell::error_exitf("Wrong argument: %c", c);
  }
  const EnumerationResult r = implicit_enumeration(opt);
  auto report = [&] {
    out_printf("Implicit enumeration, %i trees found, score %s", tree_store.ntrees, search_score_text(r.best).c_str());
    if (search_settings.suboptimal > 0) out_printf("-%s", search_score_text(r.best + search_settings.suboptimal).c_str());
    if (opt.sample && r.seen > r.trees) out_printf(" (sampled from %lli trees)", r.seen);
    else if (r.overflow) out_printf(" (overflow)");
    out_printf(".\n");
  };
  if (tree_store.ntrees == 0 && r.completed && !r.overflow) qax::shell::error_exit("No tree satisfies the constraints");
  if (group >= 0) {
    // The group named takes the place of the automatic one.
    const int saved_auto = tree_store.auto_group;
    tree_store.auto_group = 0;
    tag_search_trees("exact_solution");
    tree_store.auto_group = saved_auto;
    for (int k = 0; k < tree_store.ntrees; ++k) trees::group_set_bit(k, group);
  } else {
    tag_search_trees("exact_solution");
  }
  if (!r.completed) {
    out_printf("NOTE: implicit enumeration completed only %i%% of total work...\n", r.percent_done);
    report();
    qax::shell::error_exit({});
  }
  report();
  if (constraints_in_force()) out_printf("Constraints enforced during search.\n");
}

}  // namespace qax::search
