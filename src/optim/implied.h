// Implied weighting: the fit of a character with homoplasy h (extra steps beyond its
// minimum) is h / (K + h), or the running sum of the user's step weights; the score of a
// tree is the weighted sum of the fits of its characters, to be minimised.
#pragma once

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
};
extern ImpliedSettings implied_settings;

// Fit of h steps of homoplasy (h may be fractional) under the current settings, for a
// character of weight 1: h / (K + h), or the user function (interpolated between steps).
double fit_of_homoplasy(double h);
// Homoplasy of character c given its unweighted steps on a tree (continuous characters in
// thousandths, Sankoff characters in units of the least cost of a change).
double character_homoplasy(int c, int steps);
// Weighted fit of a whole tree from the steps of each character (-1: not counted).
double implied_total(const std::vector<int>& steps);

// Highest homoplasy any active character can have (max_steps - min_steps); needs minmax.
int largest_homoplasy();

void cmd_piwe();

// Options of auto-weighted optimisation as the user set them (name to value).
struct SelfWeightSettings {
  std::map<std::string, std::string> options;
};
extern SelfWeightSettings self_weight_settings;
void cmd_slfwt();

}  // namespace qax::optim
