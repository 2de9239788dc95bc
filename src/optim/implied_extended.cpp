// Extended implied weighting: concavities of single characters extrapolated from their
// missing entries (or set by the user), sets of characters weighted together, and
// characters of constant weight; the command that sets them.
#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdint>
#include <vector>

#include "dataset/dataset.h"
#include "dataset/lists_bridge.h"
#include "optim/implied.h"
#include "shell/failure.h"
#include "shell/input.h"
#include "shell/output.h"
#include "trees/store.h"

namespace qax::optim {

using namespace qax::shell;
using qax::dataset::dataset;

namespace {

// Cost of a step after x steps of homoplasy under concavity k: the difference of fits,
// K (K + 1) / ((x + K) (x + K + 1)).
double step_after(double k, double x) { return (k * k + k) / (x * x + k * k + 2 * k * x + k + x); }

// Mean percentage by which the steps under k fall short of those under K with homoplasy
// scaled by s.
double curve_difference(double k_reference, double s, double k) {
  double sum = 0;
  for (int i = 1; i <= 15; ++i) {
    const double want = step_after(k_reference, i * s);
    sum += 100.0 * (want - step_after(k, i)) / want;
  }
  return sum / 15;
}

// Observed and total entries of character c over the active taxa.
void count_entries(int c, int& observed, int& total) {
  const std::uint32_t missing = dataset.chars[c].is_continuous ? qax::dataset::continuous_missing : dataset.missing_value();
  for (int t = 0; t < dataset.ntax; ++t) {
    if (t < static_cast<int>(dataset.taxon_active.size()) && !dataset.taxon_active[t]) continue;
    ++total;
    observed += dataset.cell(t, c) != missing;
  }
}

double concavity_for(int observed, int total) {
  const auto& s = implied_settings;
  if (!s.missing_on || total == 0) return s.concavity;
  const double v = (total - observed) * s.missing_proportion + observed;
  const double ratio = std::max(1.0 / s.max_ratio, v > 0 ? observed / v : 1.0);
  return s.best_k_rule ? best_k(s.concavity, 1.0 / ratio) : ratio * s.concavity;
}

void size_per_character() {
  auto& s = implied_settings;
  s.user_k.resize(dataset.nchar, 0.0);
  s.set_of_char.resize(dataset.nchar, -1);
  s.constant_set.resize(dataset.nchar, 0);
}

int set_count() {
  int most = -1;
  for (int g : implied_settings.set_of_char) most = std::max(most, g);
  return most + 1;
}

void report() {
  const auto& s = implied_settings;
  out_line({s.extended_on ? "Extended implied weighting is ON" : "Extended implied weighting is OFF"});
  if (s.missing_on)
    out_printf("Homoplasy in missing entries extrapolated (proportion %.3f, maximum ratio %.3f, %s)\n",
               s.missing_proportion, s.max_ratio, s.best_k_rule ? "k matching the cost of steps" : "k proportional to entries");
  const int sets = set_count();
  if (sets > 0) out_printf("%i set%s of characters weighted together\n", sets, sets == 1 ? "" : "s");
  const int constant = static_cast<int>(std::count(s.constant_set.begin(), s.constant_set.end(), 1));
  if (constant > 0)
    out_printf("%i character%s of constant weight (step %i to %i, factor %.3f)\n", constant, constant == 1 ? "" : "s",
               s.constant_steps, s.constant_steps + 1, s.constant_factor);
  if (!s.implied_on) out_line({"(extended weights apply when implied weighting is ON: piwe =)"});
}

}  // namespace

double best_k(double k_reference, double s) {
  if (std::abs(s - 1.0) < 0.00001) return k_reference;
  if (implied_settings.user_weighted) return k_reference / s;
  double k = 0.75 * k_reference / s, step = 0.1 * k;
  double best = k, best_diff = std::abs(curve_difference(k_reference, s, k));
  int direction = 0;
  for (int guard = 0; step >= 0.0001 && guard < 100000; ++guard) {
    const double d = curve_difference(k_reference, s, k);
    if (std::abs(d) < best_diff) { best_diff = std::abs(d); best = k; }
    const int want = d > 0 ? 1 : -1;
    if (direction != 0 && want != direction) step /= 2;
    direction = want;
    k += want * step;
    if (k < 0.00001) k = 0.00001, step /= 2;
    if (k > 1000) k = 1000, step /= 2;
  }
  return std::clamp(best, 0.00001, 1000.0);
}

void prepare_extended_weights() {
  auto& s = implied_settings;
  size_per_character();
  s.char_concavity.assign(dataset.nchar, -1.0);
  const int sets = set_count();
  s.set_concavity.assign(sets, s.concavity);
  s.set_size.assign(sets, 0);
  std::vector<int> set_observed(sets, 0), set_total(sets, 0);
  for (int c = 0; c < dataset.nchar; ++c) {
    if (!dataset.chars[c].active) continue;
    int observed = 0, total = 0;
    count_entries(c, observed, total);
    if (observed == 0) continue;  // no entries: never counted
    const int g = s.set_of_char[c];
    if (g >= 0) {
      set_observed[g] += observed;
      set_total[g] += total;
      ++s.set_size[g];
    }
    s.char_concavity[c] = s.user_k[c] > 0 ? s.user_k[c] : concavity_for(observed, total);
  }
  for (int g = 0; g < sets; ++g) s.set_concavity[g] = concavity_for(set_observed[g], set_total[g]);
}

void cmd_xpiwe() {
  auto& s = implied_settings;
  if (peek_char() == ';' || peek_char() == 0) {
    report();
    return;
  }
  bool changed = false;
  while (peek_char() != ';' && peek_char() != 0) {
    const int c = next_char();
    switch (c) {
      case '=':
      case '*':
        if (s.auto_weighted) error_exit("Sorry, can't use both extended implied weighting and auto-weighted optimization");
        s.extended_on = 1;
        s.best_k_rule = c == '=';
        changed = true;
        break;
      case '-':
        s.extended_on = 0;
        changed = true;
        break;
      case '(': {
        // Extrapolation on, with the proportion (*P) and the largest ratio (<M) if given.
        double p = s.missing_proportion, m = s.max_ratio;
        for (;;) {
          if (accept_char('*')) {
            p = read_real();
            if (p < 0 || p > 1)
              error_exit("Factor f for predicting homoplasy in missing entries must be 0 <= f <= 1\nand base k must be 0 < k <= 1000");
          } else if (accept_char('<')) {
            m = read_real();
            if (m < 1) error_exit("Maximum proportion must be >= 1");
          } else {
            break;
          }
        }
        s.missing_on = 1;
        s.missing_proportion = p;
        s.max_ratio = m;
        changed = true;
        break;
      }
      case ')':
        s.missing_on = 0;
        changed = true;
        break;
      case ']':
        s.set_of_char.clear();
        s.user_k.clear();
        s.constant_set.clear();
        out_line({"Sets, constant weights and individual k values removed"});
        changed = true;
        break;
      case '[':
      case '/':
      case '!':
      case '&': {
        qax::trees::require_data();
        size_per_character();
        double k = 0;
        if (c == '/') {
          // /NxF: the step from N to N+1 extra steps, times F, is the cost of every step.
          const int n = std::isdigit(peek_char()) ? read_int() : 0;
          double f = 1.0;
          if (accept_char('x') || accept_char('X')) {
            f = read_real();
            if (f < 0) error_exit("Expected a factor after x");
          }
          s.constant_steps = n;
          s.constant_factor = f;
        } else if (c == '!') {
          if (std::isdigit(peek_char()) || peek_char() == '.') {
            k = read_real();
            if (k <= 0 || k > 1000) error_exit("Individual k values must be 0 < k <= 1000");
          }
        }
        std::vector<std::int8_t> flags;
        int listed = 0;
        if (peek_char() != ';' && peek_char() != 0) listed = qax::dataset::read_character_list(flags);
        if (listed == 0) flags.assign(dataset.nchar, 1);
        if (c == '&') {
          prepare_extended_weights();
          out_line({"Concavity of each character"});
          for (int ch = 0; ch < dataset.nchar; ++ch)
            if (flags[ch]) out_printf("  %4i  %.5f\n", ch, s.char_concavity[ch]);
          return;
        }
        if (c == '[') {
          for (int ch = 0; ch < dataset.nchar; ++ch)
            if (flags[ch] && s.set_of_char[ch] >= 0) error_exit("Sub-sets must be mutually exclusive");
          const int g = set_count();
          for (int ch = 0; ch < dataset.nchar; ++ch)
            if (flags[ch]) s.set_of_char[ch] = g;
        } else if (c == '/') {
          int first = -1, last = -1;
          for (int ch = 0; ch < dataset.nchar; ++ch)
            if (flags[ch]) {
              if (first < 0) first = ch;
              last = ch;
            }
          for (int ch = first; ch >= 0 && ch <= last; ++ch)
            if (!flags[ch]) error_exit("The \"/\" option requires a set of contiguous characters!");
          std::fill(s.constant_set.begin(), s.constant_set.end(), 0);
          for (int ch = 0; ch < dataset.nchar; ++ch) s.constant_set[ch] = flags[ch] != 0;
        } else {
          for (int ch = 0; ch < dataset.nchar; ++ch)
            if (flags[ch]) s.user_k[ch] = k;
        }
        changed = true;
        break;
      }
      default:
        error_exitf("Unrecognized option of xpiwe: %c", c);
    }
  }
  if (changed) implied_weights_changed();
  report();
}

}  // namespace qax::optim
