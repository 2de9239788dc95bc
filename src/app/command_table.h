// The application's command table: every command of the program in its fixed order.
#pragma once

#include "shell/commands.h"

namespace qax::app {

extern const shell::CommandRecord command_records[];
extern const shell::CommandRecord run_file_record;

}  // namespace qax::app
