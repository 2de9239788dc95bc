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
#include "support/consensus_commands.h"
#include "support/pruning_commands.h"
#include "search/settings.h"
#include "search/constraints.h"
