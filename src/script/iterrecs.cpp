// iterrecs: user instructions run for every most parsimonious reconstruction of a
// character on a stored tree (nonadditive, additive, step-matrix and continuous characters;
// polytomies hard). The states of all nodes go into an array indexed by node, recsteps
// holds the cost. Continuous characters take values on a grid: the ends of the observed
// ranges (where best reconstructions can always be placed), or every multiple of a step.
#include <algorithm>
#include <bit>
#include <climits>
#include <cmath>
#include <cstdint>
#include <string>
#include <vector>

#include "dataset/costs.h"
#include "dataset/dataset.h"
#include "script/commands.h"
#include "script/expr.h"
#include "script/reader.h"
#include "script/space.h"
#include "shell/commands.h"
#include "shell/failure.h"
#include "shell/input.h"
#include "shell/output.h"
#include "shell/state.h"
#include "trees/store.h"

namespace qax::script {

using namespace qax::shell;
using qax::dataset::dataset;
using qax::trees::tree_store;

namespace {

constexpr std::int64_t inf = INT64_MAX / 4;
constexpr int max_states = 32;

struct RecState {
  int active = 0;
  int kill = 0;
  double steps = 0;
};
RecState rec_;

struct Problem {
  int ntax = 0;
  int root = 0;
  int nstates = 0;
  int character = 0;
  bool additive = false;
  bool table = false;                            // step matrix: costs from the table
  std::vector<std::int64_t> values;              // continuous: the value of each state (thousandths)
  std::vector<std::vector<int>> kids;
  std::vector<std::vector<std::uint8_t>> allowed;// [node][state]: may take it (forcing, taxon data)
  std::vector<std::vector<std::int64_t>> cost;   // [node][state]: least cost of the subtree
  std::vector<std::vector<double>> count;        // [node][state]: optimal assignments below
};

std::int64_t change(const Problem& p, int a, int b) {
  if (!p.values.empty()) return std::llabs(p.values[a] - p.values[b]);
  if (p.table) return qax::dataset::cost_of(p.character, a, b);
  return p.additive ? std::abs(a - b) : (a != b);
}

void solve(Problem& p, int n) {
  auto& c = p.cost[n];
  auto& k = p.count[n];
  c.assign(p.nstates, 0);
  k.assign(p.nstates, 1);
  for (int s = 0; s < p.nstates; ++s)
    if (!p.allowed[n][s]) c[s] = inf;
  for (int child : p.kids[n]) {
    solve(p, child);
    for (int s = 0; s < p.nstates; ++s) {
      if (c[s] >= inf) continue;
      std::int64_t best = inf;
      for (int t = 0; t < p.nstates; ++t)
        if (p.cost[child][t] < inf) best = std::min(best, p.cost[child][t] + change(p, s, t));
      if (best >= inf) {
        c[s] = inf;
        continue;
      }
      double ways = 0;
      for (int t = 0; t < p.nstates; ++t)
        if (p.cost[child][t] < inf && p.cost[child][t] + change(p, s, t) == best) ways += p.count[child][t];
      c[s] += best;
      k[s] *= ways;
    }
  }
}

// Children states compatible with an optimal reconstruction when the parent has state s.
std::vector<int> child_states(const Problem& p, int child, int s) {
  std::int64_t best = inf;
  for (int t = 0; t < p.nstates; ++t)
    if (p.cost[child][t] < inf) best = std::min(best, p.cost[child][t] + change(p, s, t));
  std::vector<int> out;
  for (int t = 0; t < p.nstates; ++t)
    if (p.cost[child][t] < inf && p.cost[child][t] + change(p, s, t) == best) out.push_back(t);
  return out;
}

}  // namespace

void cmd_iterrecs() {
  macro_command_guard();
  if (rec_.active) error_exit("Cannot nest iterrecs (change mxproc)");
  const int tree = read_int_expr();
  const int character = read_int_expr();
  bool honour = false, differences = false;
  int sample = 0, resolve = 0;
  double grid_step = 0;
  for (;;) {
    const int c = peek_char();
    if (c == '&') {
      next_char();
      honour = true;
    } else if (c == '/') {
      next_char();
      sample = read_int_expr();
      if (sample < 1) error_exit("Number of reconstructions to sample must be positive");
    } else if (c == '\\') {
      next_char();
      resolve = read_int_expr();
      if (resolve < 1) error_exit("Number of random resolutions must be positive");
    } else if (c == '*') {
      next_char();
      grid_step = read_term();
      if (!(grid_step > 0)) error_exit("Step between values must be above 0");
    } else if (c == '+') {
      next_char();
      differences = true;
    } else {
      break;
    }
  }
  const NamedVar* var = nullptr;
  const int base = read_cell(&var);
  const std::string body = copy_body("iterrecs");
  qax::trees::require_data();
  if (tree < 0 || tree >= tree_store.ntrees) error_exit({"Only", number_text(tree_store.ntrees), "trees in memory"});
  if (character < 0 || character >= dataset.nchar) {
    error_exitf("Character number required ( 0 - %i )", dataset.nchar - 1);
  }
  const auto& info = dataset.chars[character];
  const bool continuous = info.is_continuous && info.format == qax::dataset::format_continuous;
  if (info.is_continuous && !continuous) error_exit("Reconstructions of landmark characters cannot be iterated");
  if (!continuous && (grid_step > 0 || differences))
    error_exit("Options \"*\" and \"+\" of iterrecs apply only to continuous characters");
  // The tree.
  Problem p;
  p.ntax = dataset.ntax;
  p.character = character;
  p.additive = info.additive != 0 && !info.sankoff;
  p.table = info.sankoff != 0;
  const std::int32_t* row = qax::trees::tree_row(tree);
  const int end = row[p.ntax];
  p.kids.assign(end, {});
  p.root = p.ntax;
  for (int n = 0; n < end; ++n) {
    if (n == p.ntax) continue;
    if (n < p.ntax && !qax::trees::terminal_present(row, n, p.ntax)) continue;
    p.kids[row[n]].push_back(n);
  }
  const int room = var && var->dims ? var->extent[var->dims - 1] : space.max_vars - base;
  if (end > room) error_exit({"Cannot store", number_text(end), "values in variable"});
  auto taxon_on = [&](int t) {
    return qax::trees::terminal_present(row, t, p.ntax) &&
           (t >= static_cast<int>(dataset.taxon_active.size()) || dataset.taxon_active[t] != 0);
  };
  if (continuous) {
    // Values: the ends of the observed ranges, or the multiples of the step between the
    // least and the greatest of them.
    auto range_of = [&](int t, std::int64_t& lo, std::int64_t& hi) {
      const std::uint32_t v = dataset.cell(t, character);
      if (!taxon_on(t) || v == qax::dataset::continuous_missing || v == qax::dataset::continuous_inapplicable) return false;
      lo = v & 0xFFFF;
      hi = v >> 16;
      return true;
    };
    std::vector<std::int64_t> ends;
    for (int t = 0; t < p.ntax; ++t) {
      std::int64_t lo, hi;
      if (range_of(t, lo, hi)) { ends.push_back(lo); ends.push_back(hi); }
    }
    if (ends.empty()) error_exit("No observed values for that character");
    std::sort(ends.begin(), ends.end());
    ends.erase(std::unique(ends.begin(), ends.end()), ends.end());
    if (grid_step > 0) {
      const double step = grid_step * 1000.0;
      const double count = std::floor((static_cast<double>(ends.back() - ends.front())) / step) + 1;
      if (count > 500) error_exit("Step too small for the range of values (more than 500 values)");
      const std::int64_t lowest = ends.front();
      ends.clear();
      for (int i = 0; i < static_cast<int>(count); ++i) ends.push_back(lowest + std::llround(i * step));
    }
    p.values = ends;
    p.nstates = static_cast<int>(p.values.size());
    p.allowed.assign(end, std::vector<std::uint8_t>(p.nstates, 1));
    for (int t = 0; t < p.ntax; ++t) {
      std::int64_t lo, hi;
      if (!range_of(t, lo, hi)) continue;
      // A terminal takes a value of its range; with a grid, the nearest grid values when
      // none falls inside (the cost of reaching the range is then approximate).
      bool any = false;
      for (int s = 0; s < p.nstates; ++s) {
        p.allowed[t][s] = p.values[s] >= lo && p.values[s] <= hi;
        any = any || p.allowed[t][s];
      }
      if (!any) {
        int nearest = 0;
        for (int s = 1; s < p.nstates; ++s)
          if (std::llabs(p.values[s] - lo) < std::llabs(p.values[nearest] - lo)) nearest = s;
        p.allowed[t][nearest] = 1;
      }
    }
  } else {
    // States: those up to the highest any terminal holds.
    std::uint32_t seen = 0;
    for (int t = 0; t < p.ntax; ++t) {
      const std::uint32_t v = dataset.cell(t, character);
      if (v != dataset.missing_value()) seen |= v;
    }
    p.nstates = seen ? 32 - std::countl_zero(seen) : 1;
    p.nstates = std::min(p.nstates, max_states);
    p.allowed.assign(end, std::vector<std::uint8_t>(p.nstates, 1));
    for (int t = 0; t < p.ntax; ++t) {
      std::uint32_t v = dataset.cell(t, character);
      if (v == dataset.missing_value() || v == 0 || !taxon_on(t)) continue;
      if (p.additive) v = (~0u >> std::countl_zero(v)) & (~0u << std::countr_zero(v));
      for (int s = 0; s < p.nstates; ++s) p.allowed[t][s] = v >> s & 1;
    }
  }
  if (honour) {
    // A value N >= 0 forces state N at that node; a negative value (-0 included) forbids it.
    // For continuous characters the state is the place of a value among the values.
    for (int n = 0; n < end; ++n) {
      const double v = cell_value(base + n);
      const int s = clamp_int(std::fabs(v));
      if (s >= p.nstates) continue;
      if (std::signbit(v)) {
        p.allowed[n][s] = 0;
      } else {
        for (int u = 0; u < p.nstates; ++u) if (u != s) p.allowed[n][u] = 0;
      }
    }
  }
  p.cost.assign(end, {});
  p.count.assign(end, {});
  solve(p, p.root);
  std::int64_t best = inf;
  for (int s = 0; s < p.nstates; ++s) best = std::min(best, p.cost[p.root][s]);
  if (best >= inf) error_exit("No reconstruction agrees with the states given");
  rec_ = RecState();
  rec_.active = 1;
  rec_.steps = static_cast<double>(best) * info.weight / (continuous ? 1000.0 : 1.0);
  std::vector<int> state(end, -1);
  const int events = shell_state.interrupt_events;
  bool failed = false;
  std::vector<int> parent(end, -1);
  auto value_of = [&](int n) -> double {
    if (state[n] < 0) return -1;
    if (!continuous) return state[n];
    const double v = static_cast<double>(p.values[state[n]]) / 1000.0;
    if (!differences) return v;
    return parent[n] < 0 || state[parent[n]] < 0 ? 0.0 : v - static_cast<double>(p.values[state[parent[n]]]) / 1000.0;
  };
  auto run_one = [&]() -> bool {
    for (int n = 0; n < end; ++n) set_cell(base + n, value_of(n));
    if (!run_inner_body(body, "iterrecs commands", true)) {
      failed = true;
      return false;
    }
    return !rec_.kill && !script_interrupted(events);
  };
  // Pre-order list of nodes, so that parents get their state first.
  std::vector<int> order{p.root};
  for (std::size_t i = 0; i < order.size(); ++i)
    for (int k : p.kids[order[i]]) order.push_back(k);
  for (int n : order) for (int k : p.kids[n]) parent[k] = n;
  if (resolve > 0) {
    // Each time, every node takes one of the states compatible with its parent's, at random.
    auto uniform = [&](const std::vector<int>& options) {
      const double r = (static_cast<double>(macro_random()) * 32768 + macro_random()) / (32768.0 * 32768.0);
      return options[std::min(options.size() - 1, static_cast<std::size_t>(r * static_cast<double>(options.size())))];
    };
    for (int i = 0; i < resolve; ++i) {
      std::vector<int> roots;
      for (int s = 0; s < p.nstates; ++s) if (p.cost[p.root][s] == best) roots.push_back(s);
      state[p.root] = uniform(roots);
      for (std::size_t j = 1; j < order.size(); ++j) {
        const int n = order[j];
        state[n] = uniform(child_states(p, n, state[parent[n]]));
      }
      if (!run_one()) break;
    }
  } else if (sample > 0) {
    // Random reconstructions drawn in proportion to the optimal assignments below.
    auto pick = [&](const std::vector<int>& options, int node) {
      double total = 0;
      for (int s : options) total += p.count[node][s];
      double r = (static_cast<double>(macro_random()) * 32768 + macro_random()) / (32768.0 * 32768.0) * total;
      for (int s : options) {
        r -= p.count[node][s];
        if (r < 0) return s;
      }
      return options.back();
    };
    for (int i = 0; i < sample; ++i) {
      std::vector<int> roots;
      for (int s = 0; s < p.nstates; ++s) if (p.cost[p.root][s] == best) roots.push_back(s);
      state[p.root] = pick(roots, p.root);
      for (std::size_t j = 1; j < order.size(); ++j) {
        const int n = order[j];
        state[n] = pick(child_states(p, n, state[parent[n]]), n);
      }
      if (!run_one()) break;
    }
  } else {
    // Every reconstruction: depth-first over the nodes in pre-order.
    std::vector<std::vector<int>> options(order.size());
    std::vector<std::size_t> at(order.size(), 0);
    for (int s = 0; s < p.nstates; ++s) if (p.cost[p.root][s] == best) options[0].push_back(s);
    std::size_t depth = 0;
    bool go = true;
    while (go) {
      const int n = order[depth];
      if (at[depth] >= options[depth].size()) {
        if (depth == 0) break;
        --depth;
        ++at[depth];
        continue;
      }
      state[n] = options[depth][at[depth]];
      if (depth + 1 == order.size()) {
        if (!run_one()) break;
        ++at[depth];
        continue;
      }
      ++depth;
      options[depth] = child_states(p, order[depth], state[parent[order[depth]]]);
      at[depth] = 0;
      (void)go;
    }
  }
  const double steps = rec_.steps;
  rec_ = RecState();
  rec_.steps = steps;  // recsteps keeps the cost after the loop
  if (failed) recover();
}

void cmd_killrecs_word() {
  rec_.kill = 1;
  leave_inner_body();
}

bool iterrecs_active() { return rec_.active != 0; }
double iterrecs_steps() { return rec_.steps; }

}  // namespace qax::script
