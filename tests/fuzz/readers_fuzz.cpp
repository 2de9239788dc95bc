// libFuzzer target for the readers that run inside the program: the xread matrix
// reader (input given as the text after "xread") and the tree readers (parenthetical,
// Newick, compact). Only the one reading command runs: nothing after it is executed,
// so fuzzed text can never reach file-writing commands.
#include <cstddef>
#include <cstdint>
#include <string>

#include "app/command_table.h"
#include "app/program.h"
#include "dataset/dataset.h"
#include "shell/arena.h"
#include "shell/commands.h"
#include "shell/failure.h"
#include "shell/input.h"
#include "shell/output.h"
#include "trees/notation.h"

using namespace qax;

namespace {

void run_one_command(const std::string& text) {
  shell::init_input_stack(10, "", false);
  shell::frame_at(0).stream = nullptr;
  shell::output_state.silent_flags = 7;
  shell::push_text_level(text, "fuzz");
  try {
    shell::protected_call(shell::read_and_dispatch);
  } catch (const shell::RunEnded&) {
  }
  shell::unwind_input();
  shell::ram_release();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static bool ready = false;
  if (!ready) {
    app::reset_run_state();
    shell::install_command_table(app::command_records, &app::run_file_record);
    shell::claim_arena(shell::default_ram_size);
    // Matrices never grow the arena here (as after "mxram ]"): huge declared sizes must
    // fail with the out-of-memory message, not exhaust the fuzzer's memory.
    shell::arena.grow_on_read = 0;
    ready = true;
  }
  if (size == 0) return 0;
  std::string body(reinterpret_cast<const char*>(data + 1), size - 1);
  switch (data[0] % 3) {
    case 0:
      run_one_command("xread\n" + body);
      break;
    case 1:
      run_one_command("xread 4 4 a 0000 b 0011 c 1100 d 1111 ;");
      run_one_command("tread " + body);
      break;
    default:
      trees::fuzz_tree_text(data + 1, size - 1);
      break;
  }
  return 0;
}
