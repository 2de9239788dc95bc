// Every command handler the table refers to, gathered from the subsystems.
#pragma once

#include "dataset/import.h"
#include "shell/commands.h"
#include "shell/shell_commands.h"
#include "dataset/dataset_commands.h"
#include "dataset/costs.h"
#include "shell/viewer.h"
#include "trees/store.h"
#include "trees/interchange.h"
#include "optim/reports.h"
#include "optim/recons.h"
#include "support/compare_commands.h"
#include "support/consensus_commands.h"
#include "support/pruning_commands.h"
#include "support/resample.h"
#include "support/bremer.h"
#include "trees/tags.h"
#include "search/settings.h"
#include "search/constraints.h"
#include "script/commands.h"
#include "search/ienum.h"
#include "search/fusing.h"
#include "search/sectors.h"
#include "search/xmult.h"
#include "optim/implied.h"
#include "shell/failure.h"
#include "shell/input.h"

namespace qax::app {

// Searches and supports whose engines count steps: under implied weighting they would
// optimise the wrong score, so they refuse until weighting is turned off.
template <void (*F)()>
void steps_only() {
  if (qax::optim::implied_settings.implied_on)
    qax::shell::error_exit("Sorry, this search is not available yet under implied weighting (piwe- turns it off)");
  F();
}

}  // namespace qax::app
