// Fits under implied weighting and the command that sets them.
#include "optim/implied.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

#include "dataset/costs.h"
#include "dataset/dataset.h"
#include "optim/packed.h"
#include "shell/failure.h"
#include "shell/input.h"
#include "shell/output.h"
#include "trees/store.h"

namespace qax::optim {

using namespace qax::shell;
using qax::dataset::dataset;

namespace {

// Least cost of a change of Sankoff character c: one step of homoplasy.
double sankoff_unit(int c) {
  const int states = std::max(2, std::min<int>(dataset.chars[c].num_states, qax::dataset::cost_states));
  std::int32_t unit = 0;
  for (int i = 0; i < states; ++i)
    for (int j = 0; j < states; ++j) {
      if (i == j) continue;
      const std::int32_t v = qax::dataset::cost_of(c, i, j);
      if (v > 0 && (unit == 0 || v < unit)) unit = v;
    }
  return unit > 0 ? unit : 1;
}

// Scores stored with the trees are no longer those of the current weighting.
void weighting_changed() {
  invalidate_pack();
  implied_settings.char_concavity.clear();
  auto& s = qax::trees::tree_store;
  std::fill(s.scores.begin(), s.scores.end(), 0.0);
}

void print_strength() {
  const auto& s = implied_settings;
  const bool individual = s.extended_on && (s.missing_on || std::any_of(s.user_k.begin(), s.user_k.end(), [](double k) { return k > 0; }));
  out_printf("Weighting strength is %.5f%s\n", s.concavity, individual ? " (reference K)" : "");
}

double step_cost(int n) {  // cost of the step from n to n+1 extra steps (weight 1)
  return fit_of_homoplasy(n + 1) - fit_of_homoplasy(n);
}

double read_concavity() {
  const double k = read_real();
  if (k < 0) return -1;
  if (k <= 0) error_exit("Weighting strength must be more than 0");
  if (k > 1000) error_exit("Weighting strength must be less than 1000");
  return k;
}

}  // namespace

void implied_weights_changed() { weighting_changed(); }

double fit_of_homoplasy(double h) {
  if (h <= 0) return 0;
  const auto& s = implied_settings;
  if (!s.user_weighted || s.user_weights.empty()) return h / (s.concavity + h);
  // Running sum of the user's weights, rescaled so that the largest weight counts 1; past
  // the values defined the last weight goes on; fractions interpolate linearly.
  const auto& w = s.user_weights;
  double top = *std::max_element(w.begin(), w.end());
  if (top <= 0) top = 1;
  double sum = 0;
  int i = 0;
  for (; i + 1 <= h; ++i) sum += w[std::min<std::size_t>(i, w.size() - 1)] / top;
  const double frac = h - i;
  if (frac > 0) sum += frac * w[std::min<std::size_t>(i, w.size() - 1)] / top;
  return sum;
}

double character_homoplasy(int c, int steps) {
  const auto& r = dataset.chars[c];
  const double extra = static_cast<double>(steps) - r.min_steps + r.internal_steps;
  if (extra <= 0) return 0;
  if (r.is_continuous) return extra / 1000.0;
  if (r.sankoff) return extra / sankoff_unit(c);
  return extra;
}

int unit_character(int u) {
  const int n = dataset.nchar;
  return u < n ? u : packed.unit_char[static_cast<std::size_t>(u - n)];
}

double unit_homoplasy(int u, int steps) {
  if (u < dataset.nchar) return character_homoplasy(u, steps);
  return steps > 1 ? steps - 1 : 0;   // a variable of taxa on both sides: least steps 1
}

bool unit_fitted(int u, int count) {
  const int n = dataset.nchar;
  if (u >= n) return true;
  // Steps without the units leave a decomposed character to its own steps.
  return count <= n || u >= static_cast<int>(packed.char_units.size()) || !packed.char_units[u];
}

namespace {

// Units the steps hold: the characters, and the variables when the pack has them and the
// steps were counted with them.
int unit_count(const std::vector<int>& steps) {
  const int n = dataset.nchar;
  const int all = n + static_cast<int>(packed.unit_char.size());
  return static_cast<int>(steps.size()) >= all && all > n ? all : std::min<int>(n, static_cast<int>(steps.size()));
}

// Fit of h under concavity k, scaled so that the first step costs what it costs under K;
// under user weights the function is read at h K / k instead.
double fit_with_concavity(double h, double k) {
  const auto& s = implied_settings;
  if (h <= 0) return 0;
  if (k <= 0 || std::abs(k - s.concavity) < 1e-12) return fit_of_homoplasy(h);
  if (s.user_weighted && !s.user_weights.empty()) return fit_of_homoplasy(h * s.concavity / k);
  return h / (k + h) * (k + 1) / (s.concavity + 1);
}

bool extended_ready() {
  const auto& s = implied_settings;
  if (!s.extended_on) return false;
  if (static_cast<int>(s.char_concavity.size()) != dataset.nchar) prepare_extended_weights();
  return true;
}

int set_of(int c) {
  const auto& v = implied_settings.set_of_char;
  return c < static_cast<int>(v.size()) ? v[c] : -1;
}

}  // namespace

double character_fit(int c, double h) {
  const auto& s = implied_settings;
  if (h <= 0) return 0;
  if (!extended_ready()) return fit_of_homoplasy(h);
  if (c < static_cast<int>(s.constant_set.size()) && s.constant_set[c]) {
    const int x = s.constant_steps;
    return h * (fit_of_homoplasy(x + 1) - fit_of_homoplasy(x)) * s.constant_factor;
  }
  return fit_with_concavity(h, s.char_concavity[c]);
}

double implied_total(const std::vector<int>& steps, const std::vector<int>* weights) {
  const bool extended = extended_ready();
  const auto& s = implied_settings;
  thread_local std::vector<double> pooled;
  if (extended) pooled.assign(s.set_size.size(), 0.0);
  double total = 0;
  const int count = unit_count(steps);
  for (int u = 0; u < count; ++u) {
    if (steps[u] < 0 || !unit_fitted(u, count)) continue;
    const int c = unit_character(u);
    const auto& r = dataset.chars[c];
    const int w = weights ? (*weights)[c] : r.weight;
    if (!r.active || w == 0) continue;
    const double h = unit_homoplasy(u, steps[u]);
    const int set = extended ? set_of(c) : -1;
    if (set >= 0) pooled[set] += w * h;
    else total += w * character_fit(c, h);
  }
  // A set of N characters with homoplasy H counts N fits of the mean homoplasy.
  if (extended)
    for (std::size_t g = 0; g < pooled.size(); ++g)
      total += set_fit(static_cast<int>(g), pooled[g]);
  return total;
}

std::vector<double> character_fits(const std::vector<int>& steps) {
  const bool extended = extended_ready();
  const auto& s = implied_settings;
  std::vector<double> out(dataset.nchar, 0.0), share(dataset.nchar, 0.0);
  std::vector<double> pooled(extended ? s.set_size.size() : 0, 0.0);
  const int count = unit_count(steps);
  for (int u = 0; u < count; ++u) {
    if (steps[u] < 0 || !unit_fitted(u, count)) continue;
    const int c = unit_character(u);
    const auto& r = dataset.chars[c];
    if (!r.active || r.weight == 0) continue;
    const double h = unit_homoplasy(u, steps[u]);
    const int set = extended ? set_of(c) : -1;
    if (set >= 0) {
      share[c] += r.weight * h;
      pooled[set] += r.weight * h;
    } else {
      out[c] += r.weight * character_fit(c, h);
    }
  }
  for (int c = 0; c < dataset.nchar && extended; ++c) {
    const int set = set_of(c);
    if (set < 0 || pooled[set] <= 0) continue;
    const double fit = s.set_size[set] * fit_with_concavity(pooled[set] / s.set_size[set], s.set_concavity[set]);
    out[c] = fit * share[c] / pooled[set];
  }
  return out;
}

double set_fit(int g, double pooled) {
  const auto& s = implied_settings;
  if (g < 0 || g >= static_cast<int>(s.set_size.size()) || s.set_size[g] <= 0) return 0;
  return s.set_size[g] * fit_with_concavity(pooled / s.set_size[g], s.set_concavity[g]);
}

int set_of_character(int c) { return extended_ready() ? set_of(c) : -1; }

int largest_homoplasy() {
  int most = 0;
  for (int c = 0; c < dataset.nchar; ++c) {
    const auto& r = dataset.chars[c];
    if (!r.active || r.is_continuous) continue;
    int h = r.max_steps - r.min_steps + r.internal_steps;
    if (r.sankoff) h = static_cast<int>(h / sankoff_unit(c));
    most = std::max(most, h);
  }
  return most;
}

void cmd_piwe() {
  auto& s = implied_settings;
  const int c = peek_char();
  if (c == ';' || c == 0 || c == '(') {
    if (c == '(') next_char();
    out_line({s.implied_on ? "Implied weighting is ON" : "Implied weighting is OFF"});
    out_line({s.extended_on ? "Extended implied weighting is ON" : "Extended implied weighting is OFF"});
    if (s.user_weighted) out_line({"Weighting with user-defined weighting function"});
    else print_strength();
    if (s.auto_weighted) out_line({"Auto-weighted optimization is ON"});
    return;
  }
  next_char();
  switch (c) {
    case '-':
      if (s.implied_on) weighting_changed();
      s.implied_on = 0;
      s.auto_weighted = 0;
      out_line({"Implied weighting is OFF"});
      return;
    case '=':
    case ':':
    case '+': {
      if (c == '+' && s.extended_on)
        error_exit("Sorry, can't use both extended implied weighting and auto-weighted optimization");
      const double k = read_concavity();
      if (k > 0 && k != s.concavity) { s.concavity = k; weighting_changed(); }
      if (c != ':') {
        if (!s.implied_on) weighting_changed();
        s.implied_on = 1;
      }
      if (c == '+') {
        s.auto_weighted = 1;
        out_line({"Auto-weighted optimization is ON"});
        out_line({"(fits are those of implied weighting of whole characters)"});
      }
      print_strength();
      return;
    }
    case ']':
      if (s.user_weighted) weighting_changed();
      s.user_weighted = 0;
      s.user_weights.clear();
      out_line({"User-defined weighting function removed"});
      return;
    case '[': {
      if (peek_char() == ';') {
        if (!s.user_weighted) error_exit("No user-defined weighting function");
        out_line({"Relative implied (user defined)"});
        const double first = step_cost(0);
        for (std::size_t i = 0; i < s.user_weights.size(); ++i)
          out_printf("  %3i  %.5f\n", static_cast<int>(i), first > 0 ? step_cost(static_cast<int>(i)) / first : 0.0);
        return;
      }
      qax::trees::require_data();
      qax::dataset::minmax_check();
      std::vector<double> values;
      while (peek_char() != ';' && peek_char() != 0) {
        const double v = read_real();
        if (v < 0) {
          if (peek_char() == '-') error_exit("Value of weight must be >= 0 (weighting function unchanged)");
          error_exit("Expected a number for the weight of a step");
        }
        values.push_back(v);
      }
      const int most = largest_homoplasy();
      if (static_cast<int>(values.size()) < most)
        error_exitf("Data can have up to %i extra-steps; only %i values defined", most, static_cast<int>(values.size()));
      if (static_cast<int>(values.size()) > most) values.resize(std::max(1, most));
      if (values.empty() || *std::max_element(values.begin(), values.end()) <= 0)
        error_exit("Value of weight must be >= 0 (weighting function unchanged)");
      s.user_weights = values;
      s.user_weighted = 1;
      weighting_changed();
      out_line({"Weighting with user-defined weighting function"});
      return;
    }
    case '|': {
      int n = 1;
      if (std::isdigit(peek_char())) n = read_int();
      if (qax::trees::tree_store.ntax == 0) error_exit("Cannot report value of first step of homoplasy without data");
      qax::dataset::minmax_check();
      const int most = largest_homoplasy();
      if (n > most + 1) out_printf("Maximum expected homoplasy is %i\n", most);
      if (n <= 1) out_printf("Absolute cost of first step of homoplasy: %.5f\n", fit_of_homoplasy(1));
      else out_printf("Absolute cost of %i steps of homoplasy: %s\n", n, std::to_string(fit_of_homoplasy(n)).c_str());
      return;
    }
    case '<': {
      const double ratio = read_real();
      if (ratio <= 1) {
        if (ratio >= 0 && ratio < 1)
          error_exit("Expected maximum weight range (larger than 1).\nIf you _really_ want weights increasing with homoplasy,\nYou can define a user-weighting function");
        error_exit("Expected maximum weight range (larger than 1).");
      }
      double n = -1;
      if (std::isdigit(peek_char())) n = read_int();
      if (n < 1) {
        if (qax::trees::tree_store.ntax == 0) error_exit("Cannot report value of first step of homoplasy without data");
        qax::dataset::minmax_check();
        n = std::max(1, largest_homoplasy() - 2);
      }
      const double r = 1.0 / ratio, a = r - 1;
      const double b = 2 * r * n + r - 1, cc = n * n * r + n * r;
      double k = (-b - std::sqrt(b * b - 4 * a * cc)) / (2 * a);
      if (!(k <= 1000)) {
        out_text({"Note: Concavity for requested range is too high;\n      will set concavity to 1000 (maximum)\n"});
        out_line({"requested weight ratios only approximated"});
        k = 1000;
      } else if (k < 0.00001) {
        out_text({"Concavity for requested range is too small;\nwill set concavity to 10e-6 (minimum)\n"});
        out_line({"requested weight ratios only approximated"});
        k = 0.00001;
      } else {
        out_printf("Concavity set to %.6f (%g steps of homoplasy downweighted %.3f times)\n", k, n, ratio);
      }
      s.concavity = k;
      weighting_changed();
      return;
    }
    case '&': {
      if (qax::trees::tree_store.ntax == 0) error_exit("Must read data first");
      if (s.extended_on) prepare_extended_weights();
      out_line({"Concavity of each character"});
      for (int ch = 0; ch < dataset.nchar; ++ch)
        out_printf("  %4i  %.5f\n", ch, !dataset.chars[ch].active ? -1.0
                                        : s.extended_on && ch < static_cast<int>(s.char_concavity.size())
                                            ? s.char_concavity[ch] : s.concavity);
      return;
    }
    default:
      error_exitf("Unrecognized option of piwe: %c", c);
  }
}

}  // namespace qax::optim

namespace qax::optim {

SelfWeightSettings self_weight_settings;

void cmd_slfwt() {
  static const char* const words[] = {"exops", "setlim", "verbose", "noverbose", "quickrat", "noquickrat",
                                      "maxdist", "maxrepeat", "maxtbr", "backbuf", "timeout", "errmargin",
                                      "tolerance", "useminset", "nouseminset", "polymorphisms",
                                      "nopolymorphisms", "autotune", "noautotune"};
  auto& s = self_weight_settings;
  while (peek_char() != ';' && peek_char() != 0) {
    if (read_token() == 0) break;
    std::string word = token_buffer, value;
    const auto eq = word.find('=');
    if (eq != std::string::npos) { value = word.substr(eq + 1); word.resize(eq); }
    bool known = false;
    for (const char* w : words) known = known || word == w;
    if (!known) error_exitf("Unrecognized option of slfwt: %s", word.c_str());
    // A "no" word switches its option off; others take a value (1 when none is given).
    std::string name = word;
    if (word.rfind("no", 0) == 0) {
      name = word.substr(2);
      value = "0";
    } else if (value.empty()) {
      value = "1";
    }
    s.options[name] = value;
  }
  out_line({"Options of auto-weighted optimization:"});
  if (s.options.empty()) out_line({"  (all defaults)"});
  for (const auto& [name, value] : s.options) out_line({" ", name, "=", value});
  if (!implied_settings.auto_weighted) out_line({"(they apply when auto-weighted optimization is ON: piwe +N)"});
}

}  // namespace qax::optim
