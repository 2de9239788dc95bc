// resample sibyl: the stability of the trees in memory under the deletion of characters.
#include <algorithm>
#include <cctype>
#include <climits>
#include <cstring>

#include "dataset/dataset.h"
#include "optim/packed.h"
#include "search/constraints.h"
#include "search/settings.h"
#include "shell/commands.h"
#include "shell/failure.h"
#include "shell/input.h"
#include "shell/output.h"
#include "shell/state.h"
#include "support/command_helpers.h"
#include "support/consensus.h"
#include "support/group_set.h"
#include "support/resample_internal.h"
#include "support/supports.h"
#include "support/temp_collapse.h"
#include "trees/notation.h"
#include "trees/store.h"

namespace qax::support {

using namespace qax::shell;
using qax::trees::tree_row;
using qax::trees::tree_store;

// resample sibyl: the stability of the trees in memory under deletion of characters.
// Each replicate's strict consensus is compared with the trees present before the run.
void run_sibyl() {
  ResampleSettings s = resample_settings;
  s.method = resample_jak;
  s.summary = 0;
  int probability = 33, errcount = -1;
  for (;;) {
    const int c = peek_char();
    if (c == ';') break;
    if (c == '[') {
      next_char();
      s.search = read_search_text();
      continue;
    }
    read_token();
    std::string w = token_buffer;
    for (char& ch : w) ch = static_cast<char>(std::tolower(static_cast<unsigned char>(ch)));
    if (word_is(w, "replications")) {
      s.replications = read_option_number("Must specify a number of repls. greater than zero");
      if (s.replications <= 0) error_exit("Must specify a number of repls. greater than zero");
    } else if (word_is(w, "probability")) {
      probability = read_option_number("Must specify probability, 1-99");
      if (probability < 1 || probability > 99) error_exit("Deletion probability must be 0-99");
    } else if (word_is(w, "errcount")) {
      errcount = read_option_number("Must specify a reference tree");
      if (errcount < 0 || errcount >= tree_store.ntrees) error_exit({"No tree", number_text(errcount)});
    } else if (word_is(w, "allow")) {
      s.allow = 1;
    } else if (w == "command_name") {
      s.search = read_rest_of_command();
      break;
    } else {
      error_exitf("Unidentified string in sibyl options: %s", w.c_str());
    }
  }
  const int ntax = tree_store.ntax;
  auto& d = dataset::dataset;
  std::vector<std::uint8_t> user(ntax, 0), excluded(ntax, 0);
  int included = 0;
  for (int t = 0; t < ntax; ++t) {
    excluded[t] = d.taxon_active[t] ? 0 : excluded_as_missing;
    included += excluded[t] == 0;
  }
  // The trees in memory are kept aside and come back at the end.
  const int kept = tree_store.ntrees;
  std::vector<std::int32_t> saved(tree_store.rows.begin(), tree_store.rows.begin() + static_cast<std::size_t>(kept) * tree_store.row_size);
  std::vector<double> saved_scores(tree_store.scores.begin(), tree_store.scores.begin() + kept);
  NodeSets ns;
  node_sets_init(ns, ntax);
  std::vector<std::vector<std::vector<std::uint64_t>>> before(kept);
  for (int k = 0; k < kept; ++k) before[k] = tree_groups(saved.data() + static_cast<std::size_t>(k) * tree_store.row_size, excluded, included, ns);
  std::vector<std::vector<std::int32_t>> replicates;
  struct PutBack {
    std::vector<std::int32_t>& rows;
    std::vector<double>& scores;
    int count;
    ~PutBack() {
      tree_store.ntrees = 0;
      for (int k = 0; k < count && k < tree_store.maxtrees; ++k) {
        std::copy(rows.begin() + static_cast<std::size_t>(k) * tree_store.row_size,
                  rows.begin() + static_cast<std::size_t>(k + 1) * tree_store.row_size, tree_row(k));
        tree_store.scores[k] = scores[k];
        tree_store.ntrees = k + 1;
      }
      tree_store.trees_changed = 1;
    }
  } put_back{saved, saved_scores, kept};
  const bool interrupted = run_replicates(s, probability, user, "Running", replicates);
  clear_progress();
  const int done = static_cast<int>(replicates.size());
  if (interrupted) out_printf("Resampling interrupted: summarising %i replicates\n", done);
  if (done == 0) error_exit("No replicates completed");
  double supported = 0, compatible = 0, nsupported = 0, ncompatible = 0, distortion = 0, worst = 0;
  double wrong = 0, wrong_inc = 0, missed = 0, missed_inc = 0;
  std::vector<std::vector<std::uint64_t>> reference;
  if (errcount >= 0) reference = before[errcount];
  for (const auto& rep : replicates) {
    const auto groups = tree_groups(rep.data(), excluded, included, ns);
    int sup = 0, comp = 0;
    for (const auto& g : groups) {
      int in = 0;
      for (const auto& b : before) in += contains(b, g);
      if (in == kept) ++sup;
      else if (in > 0) ++comp;
    }
    const double n = static_cast<double>(groups.size());
    const double possible = included > 2 ? included - 2 : 1;
    supported += n > 0 ? sup / n : 0;
    compatible += n > 0 ? comp / n : 0;
    nsupported += sup / possible;
    ncompatible += comp / possible;
    // Distortion: the share of the groups found that no tree in memory has.
    const double dist = n > 0 ? (n - sup - comp) / n : 0;
    distortion += dist;
    worst = std::max(worst, dist);
    if (errcount >= 0) {
      int w = 0, wi = 0, m = 0, mi = 0;
      for (const auto& g : groups) {
        if (!contains(reference, g)) {
          ++w;
          if (conflicts_any(reference, g)) ++wi;
        }
      }
      for (const auto& g : reference) {
        if (!contains(groups, g)) {
          ++m;
          if (conflicts_any(groups, g)) ++mi;
        }
      }
      wrong += n > 0 ? w / n : 0;
      wrong_inc += n > 0 ? wi / n : 0;
      const double r = reference.empty() ? 1 : static_cast<double>(reference.size());
      missed += m / r;
      missed_inc += mi / r;
    }
  }
  out_printf("Stability indices, for p(del)=%i%%\n    Supported %.3f, compatible %.3f\n", probability, supported / done,
             compatible / done);
  out_printf("    Normalized: supported %.3f, compatible %.3f\n", nsupported / done, ncompatible / done);
  out_printf("    Average distortion coeff.: %.3f", distortion / done);
  out_printf("-%.3f\n", worst);
  if (errcount >= 0) {
    out_printf("    Wrong groups %.3f, wrong and incompatible %.3f\n", wrong / done, wrong_inc / done);
    out_printf("    Missed groups %.3f, missed and incompatible %.3f\n", missed / done, missed_inc / done);
  }
}

}  // namespace qax::support
