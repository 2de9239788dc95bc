// Every command handler the table refers to, gathered from the subsystems.
#pragma once

#include "shell/commands.h"
#include "shell/shell_commands.h"
