// Implied weighting: the fit of a character with homoplasy h (extra steps beyond its
// minimum) is h / (K + h), or the running sum of the user's step weights; the score of a
// tree is the weighted sum of the fits of its characters, to be minimised.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace qax::optim {

struct ImpliedSettings {
  int implied_on = 0;      // scores report fits instead of steps
  double concavity = 3.0;  // K, above 0 and up to 1000
  int user_weighted = 0;   // fits follow user_weights instead of h / (K + h)
  std::vector<double> user_weights;  // weight of the step from n to n+1 extra steps
  int auto_weighted = 0;   // auto-weighted optimisation asked for (scored as standard)

  // Extended implied weighting (xpiwe): characters with their own concavities, from the
  // proportion of missing entries or set by the user, sets of characters whose homoplasy
  // is pooled, and characters of constant weight.
  int extended_on = 0;
  int best_k_rule = 1;              // 1: k matching the cost curve, 0: k = ratio * K
  int missing_on = 0;               // extrapolate homoplasy into missing entries
  double missing_proportion = 0.5;  // P
  double max_ratio = 5.0;           // M
  std::vector<double> user_k;       // per character, 0 when none given
  std::vector<int> set_of_char;     // per character, -1 in no set
  std::vector<std::uint8_t> constant_set;  // per character
  int constant_steps = 0;           // X: the step from X to X+1 extra steps gives the cost
  double constant_factor = 1.0;     // F
  // Computed at packing: concavity per character (-1 none observed), per set, set sizes.
  std::vector<double> char_concavity;
  std::vector<double> set_concavity;
  std::vector<int> set_size;
};
extern ImpliedSettings implied_settings;

// Fit of h steps of homoplasy (h may be fractional) under the current settings, for a
// character of weight 1: h / (K + h), or the user function (interpolated between steps).
double fit_of_homoplasy(double h);
// Homoplasy of character c given its unweighted steps on a tree (continuous characters in
// thousandths, Sankoff characters in units of the least cost of a change).
double character_homoplasy(int c, int steps);
// Fit of character c alone with homoplasy h (weight 1), with its own concavity and the
// constant-weight rule under extended implied weighting.
double character_fit(int c, double h);
// Fit units: the characters, then (when the steps hold them, after the characters) the
// variables of state trees decomposed under implied weighting, whose characters are then
// fitted through them. The character of unit u; the homoplasy of unit u with `steps`
// steps; whether unit u is fitted when the steps hold `count` units.
int unit_character(int u);
double unit_homoplasy(int u, int steps);
bool unit_fitted(int u, int count);

// Weighted fit of a whole tree from the steps of each character (-1: not counted), with
// `weights` in place of the characters' own when given; sets pool their homoplasy.
double implied_total(const std::vector<int>& steps, const std::vector<int>* weights = nullptr);
// The same, character by character (a set's fit shared out by the homoplasy of its
// members); inactive characters and those not counted get 0.
std::vector<double> character_fits(const std::vector<int>& steps);

// Fit of weighting set g whose members have pooled (weighted) homoplasy `pooled`.
double set_fit(int g, double pooled);
// Weighting set of character c under extended implied weighting, -1 when none.
int set_of_character(int c);

// Exact changes of the fit of a tree when characters gain steps, from the steps of each
// character of a base tree: what swapping needs to rate every move without rescoring.
// `prepare` takes the steps (-1: not counted) and the weights (null: the characters' own).
class FitDelta {
 public:
  void prepare(const std::vector<int>& steps, const std::vector<int>* weights);
  double base() const { return base_; }
  // Fit added by `extra` more steps of character c (c not in a set).
  double single(int c, int extra) const;
  // Fit added when each listed character gains its steps (any characters, sets included).
  double several(const int* chars, const int* extra, int n);
  // Fit added by one more step of c, or -1 when c is in a set (use `several`).
  const std::vector<double>& one_step() const { return one_; }
  // Character c now has `steps` steps: the base and what a step of c adds follow.
  void change(int c, int steps);

 private:
  double base_ = 0;
  std::vector<int> steps_, weight_, set_;
  std::vector<double> one_, pooled_, scratch_;
  std::vector<int> touched_;
};

// Concavities of the characters under extended implied weighting, from the data set as it
// stands; run by packing.
void prepare_extended_weights();
// The concavity k that makes the costs of steps best follow those of K with homoplasy
// scaled by s.
double best_k(double k_reference, double s);

// Highest homoplasy any active character can have (max_steps - min_steps); needs minmax.
int largest_homoplasy();

// Scores stored and packing no longer follow the weighting: both are redone when needed.
void implied_weights_changed();

void cmd_piwe();
void cmd_xpiwe();

// Options of auto-weighted optimisation as the user set them (name to value).
struct SelfWeightSettings {
  std::map<std::string, std::string> options;
};
extern SelfWeightSettings self_weight_settings;
void cmd_slfwt();

}  // namespace qax::optim
