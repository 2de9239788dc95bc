// The program as a function, so tests can run it in-process: start-up, the command
// cycle and the exit path. Returns the process exit status.
#pragma once

namespace qax::app {

int run_program(int argc, char** argv);
// Installs the command table and the hooks by which subsystems reach each other
// (import readers, data-set replacement, exit steps). Safe to call repeatedly.
void install_subsystems();
// Returns every subsystem's run state to its start-up values.
void reset_run_state();

}  // namespace qax::app
