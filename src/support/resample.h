// Resampling: many searches under perturbed character weights, each summarised by the
// strict consensus of the trees it found, and the group frequencies, frequency
// differences (GC) or both of those consensuses on a reference tree or on their own
// consensus. The weight perturbations are plain functions of a weight vector and a
// random source, so that their rules can be checked apart from the searches.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace qax::support {

enum ResampleMethod : int { resample_sym = 0, resample_jak = 1, resample_poisson = 2, resample_boot = 3 };
enum ResampleSummary : int { summary_frequency = 1, summary_gc = 2, summary_slope = 4 };

constexpr const char* default_resample_search = "mult5=ho5 tb nok norat;";

// Persistent settings of resample (the reference tree and taxon exclusion are per run).
struct ResampleSettings {
  int method = resample_sym;
  int jak_probability = 36;       // percentage of deletion
  int sym_probability = 33;       // percentage of change
  int cut = 50;                   // cutoff
  int replications = 100;
  int summary = summary_gc;       // bit set of ResampleSummary
  int savetrees = 0;              // keep the replicate consensuses
  int softboot = 0;               // percentage of softening, 0-100
  int zerowt = 1;                 // down-weighted characters get weight 0 under sym
  int allow = 0;                  // the replicate's text may run any command
  std::string search = default_resample_search;
};
extern ResampleSettings resample_settings;
void reset_resample_settings();

// Thresholds per thousand of Poisson resampling; row 3 is as it has always been (it
// never multiplies a weight by 2 or 3).
extern const int poisson_thresholds[6][5];
// Row of the thresholds table for a softening percentage.
[[nodiscard]] int poisson_row(int softboot) noexcept;
// Multiplier of a Poisson draw r (0..999) in a row: the position of r among the row.
[[nodiscard]] int poisson_multiplier(int row, int r) noexcept;

// A source of random integers 0..2147483647.
using RandomSource = std::function<int()>;

// Perturbs `weights` (one per character) in place for one replicate. Only characters
// with active[c] != 0 take part. `probability` is the deletion (jak) or change (sym)
// percentage; `softboot` the softening of boot and poisson.
void perturb_weights(int method, int probability, int softboot, bool zerowt, const std::vector<std::uint8_t>& active,
                     std::vector<std::int32_t>& weights, const RandomSource& rnd);

// Method words for titles: "Symmetric Resampling (P=33)" and the like.
[[nodiscard]] std::string resample_method_text(int method, int probability);

void cmd_resample();

}  // namespace qax::support
