// Temporary collapsing for the consensus commands: a lazily filled vector of collapsed
// rows, one per stored tree, that lives as long as the command.
#include "support/temp_collapse.h"

#include "dataset/dataset.h"
#include "optim/collapse.h"
#include "optim/packed.h"
#include "shell/failure.h"
#include "trees/store.h"

namespace qax::support {

using qax::dataset::dataset;
using qax::trees::tree_store;

TempCollapseView temp_collapse_view;

void temp_collapse_reset() { temp_collapse_view = TempCollapseView{}; }

bool temp_collapse_applies() noexcept {
  const auto& s = qax::optim::collapse_settings;
  return s.temp_collapse && s.rule != qax::optim::collapse_none && dataset.loaded && dataset.nchar > 0 &&
         dataset.ntax == tree_store.ntax;
}

const std::int32_t* consensus_row(int k) {
  auto& v = temp_collapse_view;
  if (!v.active || k >= static_cast<int>(v.rows.size()) || v.as_stored[k]) return qax::trees::tree_row(k);
  auto& row = v.rows[k];
  if (row.empty()) qax::optim::collapsed_copy(qax::trees::tree_row(k), row);
  return row.data();
}

TempCollapse::TempCollapse(const char* command, bool enable) {
  auto& v = temp_collapse_view;
  saved_active_ = v.active;
  if (v.depth++ > 0) {
    // An enclosing scope decides; a disabling inner scope reads stored rows meanwhile.
    if (!enable) v.active = 0;
    return;
  }
  v.rows.clear();
  v.as_stored.clear();
  v.active = 0;
  if (!enable || !temp_collapse_applies()) return;
  const int rule = qax::optim::collapse_settings.rule;
  if (rule == qax::optim::collapse_rule4) {
    --v.depth;
    shell::error_exitf("Error (%s): cannot use rule 4 to collapse during consensus calculation", command);
  }
  // The pack is not marked stale when the matrix or its settings change, so it is made
  // afresh once for the command: the collapsing rules read the terminals' packed sets.
  qax::optim::pack_data(false, false);
  v.rows.resize(tree_store.ntrees);
  v.as_stored.assign(tree_store.ntrees, 0);
  v.active = 1;
}

TempCollapse::~TempCollapse() {
  auto& v = temp_collapse_view;
  v.active = saved_active_;
  if (--v.depth == 0) {
    v.active = 0;
    v.rows.clear();
    v.rows.shrink_to_fit();
    v.as_stored.clear();
  }
}

void TempCollapse::keep_as_stored(int k) {
  auto& v = temp_collapse_view;
  if (k >= 0 && k < static_cast<int>(v.as_stored.size())) v.as_stored[k] = 1;
}

}  // namespace qax::support
