// Shell run state and its reset.
#include "shell/state.h"

#include <chrono>

namespace qax::shell {

ShellState shell_state;
Switches switches;

void reset_shell_state() {
  ShellState fresh;
  fresh.background = shell_state.background;
  fresh.worker_mode = shell_state.worker_mode;
  fresh.pid = shell_state.pid;
  fresh.program_name = shell_state.program_name;
  fresh.run_start_time = shell_state.run_start_time;
  shell_state = fresh;
  switches = Switches();
}

double now_seconds() {
  using namespace std::chrono;
  return duration<double>(steady_clock::now().time_since_epoch()).count();
}

}  // namespace qax::shell
