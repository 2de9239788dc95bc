// error_exit, recover and protected_call.
#include "shell/failure.h"

#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <new>
#include <stdexcept>
#include <vector>

#include "shell/input.h"
#include "shell/output.h"
#include "shell/sizing.h"
#include "shell/state.h"

namespace qax::shell {

void (*macro_error_location)() = nullptr;

namespace {
std::vector<std::function<void()>> recover_steps_;
int protected_depth_ = 0;

void print_location() {
  SourceSpan s = current_source_span();
  if (!s.valid || s.span.empty()) return;
  if (!s.file.empty()) out_line({"Error reading", s.file});
  out_append(s.span);
  out_newline();
  out_spaces(s.caret);
  out_append("^");
  out_newline();
  send_line();
}

void ring_bell() {
  if (switches.beep && !shell_state.background && isatty(2)) console_write("\a");
}
// Turns a failed allocation into the out-of-ram error of the current command, from
// inside protected_call (its level still counted); returns what protected_call returns.
// In background the failure path ends the run, and that goes through.
int fail_for_memory() {
  try {
    out_of_ram();
  } catch (const CommandFailed&) {
    --protected_depth_;
    return 0;
  } catch (...) {
    --protected_depth_;
    throw;
  }
}

}  // namespace

void add_recover_step(std::function<void()> step) { recover_steps_.push_back(std::move(step)); }

int recovery_depth() noexcept { return protected_depth_; }

[[noreturn]] void error_exit(std::initializer_list<std::string_view> pieces) {
  int saved_silent = output_state.silent_flags;
  shell_state.quoted_text = 0;
  output_state.progress_suppressed = 0;
  if (output_state.inner_silent_search) {
    output_state.inner_silent_search = 0;
    saved_silent = 0;
  }
  clear_progress();
  ring_bell();
  shell_state.watch_state = shell_state.watch_state ? 2 : 0;
  shell_state.command_word_mark = 0;
  shell_state.between_commands = 0;
  shell_state.literal_quotes = 0;
  output_state.output_mode = 0;
  output_state.silent_flags = 0;
  if (shell_state.echo_state == 0) shell_state.echo_state = 3;
  // A partly built line is finished first so the message starts on its own line.
  if (!output_state.line.empty()) out_flush();
  bool any = false;
  for (std::string_view p : pieces) {
    out_append(p);
    out_append(" ");
    any = true;
  }
  if (any) out_flush();
  if (!(shell_state.nested_run && input_level() == 0)) {
    if (!shell_state.macros_on) print_location();
    else if (macro_error_location) macro_error_location();
  }
  ring_bell();
  out_flush();
  if (any) out_text({"\n"});
  output_state.silent_flags = saved_silent;
  if (shell_state.nested_run) shell_state.nested_run = 2;
  unwind_input();
  recover();
}

[[noreturn]] void error_exit(std::string_view text) { error_exit({text}); }

[[noreturn]] void error_exitf(const char* format, ...) {
  char buffer[10000];
  va_list ap;
  va_start(ap, format);
  std::vsnprintf(buffer, sizeof buffer, format, ap);
  va_end(ap);
  error_exit({std::string_view(buffer)});
}

[[noreturn]] void recover() {
  for (auto& step : recover_steps_) step();
  shell_state.nested_run = 0;
  shell_state.search_running = 0;
  // The near-match marks (help ! and help >) stay as the user armed them.
  flush_log();
  output_state.silent_flags &= ~2;
  if (shell_state.background && !shell_state.worker_mode) {
    out_text({"... SOME ERROR OCCURED, QUITTING...\n"});
    flush_log();
    throw RunEnded{255};
  }
  if (protected_depth_ == 0) {
    console_write("No jump buffer\n");
    throw RunEnded{255};
  }
  throw CommandFailed{};
}

int protected_call(const std::function<void()>& fn) {
  ++protected_depth_;
  try {
    fn();
  } catch (const CommandFailed&) {
    --protected_depth_;
    return 0;
  } catch (const std::bad_alloc&) {
    // An allocation outside the arena failed (a name table, a vector sized from a
    // count): the command fails as one that ran out of arena memory does.
    return fail_for_memory();
  } catch (const std::length_error&) {
    return fail_for_memory();
  } catch (...) {
    --protected_depth_;
    throw;
  }
  --protected_depth_;
  return 1;
}

}  // namespace qax::shell
