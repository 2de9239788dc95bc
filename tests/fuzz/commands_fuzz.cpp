// libFuzzer target for the command language. Each case starts from the same state (a
// small matrix and some trees in memory), then runs a fuzzed instruction text, one
// command at a time, each in its own input level, so that an error ends only its
// command. The run is confined: it works in a scratch folder, file names that reach
// outside it are refused, commands that leave the process or wait for a person are
// refused, memory is capped and long work is interrupted after a time limit. Any crash,
// sanitizer report or hang (libFuzzer's -timeout) is a finding.
#include <stdlib.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "app/command_table.h"
#include "app/program.h"
#include "shell/arena.h"
#include "shell/commands.h"
#include "shell/failure.h"
#include "shell/file_access.h"
#include "shell/input.h"
#include "shell/output.h"
#include "shell/sizing.h"
#include "shell/state.h"

using namespace qax;

namespace {

// Commands that leave the process, change its mode for good or wait for a key.
const char* const refused_commands[] = {"bground", "cls", "pause", "slaveproc", "view", "zzz", "system",
                                        "killfiles", "pqax", "runc", "edit"};

void refuse() { shell::error_exit("Command not allowed in a confined run"); }

std::vector<shell::CommandRecord> confined_table;

const char setup_text[] =
    "xread 8 6\n"
    "a 01000011\nb 0110001?\nc 1120[01]100\nd 11210110\ne 0012-101\nf 00010110\n;\n"
    "tread (a (b (c (d (e f))))) * (a (c (b (e (d f))))) * (a ((b c) (d (e f))));\n";

bool verbose() { return std::getenv("QAX_FUZZ_VERBOSE") != nullptr; }

void run_text(const std::string& text) {
  // A fuzzed "silent -all" must not flood the console of the following commands.
  shell::output_state.silent_flags = verbose() ? 0 : 7;
  shell::push_text_level(text, "fuzz");
  // One level: its commands run until the level is used up (an error unwinds it).
  while (shell::input_level() > 0) {
    try {
      if (!shell::protected_call(shell::read_and_dispatch)) break;
    } catch (const shell::RunEnded&) {
      break;
    }
  }
  shell::unwind_input();
  shell::ram_release();
}

void start_case() {
  app::reset_run_state();
  shell::install_command_table(confined_table.data(), &app::run_file_record);
  shell::init_input_stack(10, "", false);
  shell::frame_at(0).stream = nullptr;
  shell::arena.grow_on_read = 0;
  if (shell::arena.block_size < shell::default_ram_size) shell::claim_arena(shell::default_ram_size);
  run_text(setup_text);
}

// Splits the text into commands at ';' (kept), so each runs in its own level.
std::vector<std::string> commands_of(const std::string& text) {
  std::vector<std::string> out;
  std::string cur;
  for (char c : text) {
    cur += c;
    if (c == ';') {
      out.push_back(cur);
      cur.clear();
    }
  }
  if (!cur.empty()) out.push_back(cur + ";");
  return out;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  char folder[] = "/tmp/qax_commands_fuzz_XXXXXX";
  if (!mkdtemp(folder) || chdir(folder) != 0) std::abort();
  setenv("HOME", folder, 1);
  if (!std::freopen("/dev/null", "r", stdin)) std::abort();
  shell::set_file_confinement(true);
  shell::set_memory_cap(std::uint64_t{256} << 20);
  app::install_subsystems();
  for (const shell::CommandRecord* r = app::command_records; r->name; ++r) {
    shell::CommandRecord copy = *r;
    for (const char* name : refused_commands)
      if (std::strcmp(copy.name, name) == 0) copy.handler = refuse;
    confined_table.push_back(copy);
  }
  confined_table.push_back(shell::CommandRecord{});
  shell::claim_arena(shell::default_ram_size);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  start_case();
  std::string text(reinterpret_cast<const char*>(data), size);
  shell::set_interrupt_deadline(shell::now_seconds() + 2.0);
  for (const std::string& command : commands_of(text)) {
    shell::shell_state.stop_search_flag = 0;
    run_text(command);
  }
  shell::set_interrupt_deadline(0);
  return 0;
}
