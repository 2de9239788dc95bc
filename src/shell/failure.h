// The failure path: every command fails by error_exit, which unwinds the input and
// throws CommandFailed; protected_call is the only place that catches it.
// Invariant: after protected_call returns 0 the arena keeps its locks and the input
// stack holds only the keyboard level.
#pragma once

#include <functional>
#include <initializer_list>
#include <string>
#include <string_view>

namespace qax::shell {

// Thrown by error_exit/recover; caught only by protected_call.
struct CommandFailed {};

// Thrown by the exit family and the background exits; caught in main.
struct RunEnded {
  int status;  // process exit status
};

// Steps that later subsystems add to the recover sequence (search settings,
// collapsing marks, ...). Run in order of installation.
void add_recover_step(std::function<void()> step);

// Joins the pieces with blanks, prints the message on every channel with the source
// location, unwinds all input levels and throws. An empty list prints nothing more.
[[noreturn]] void error_exit(std::initializer_list<std::string_view> pieces);
[[noreturn]] void error_exit(std::string_view text);
// printf form, formatted into a 10000-byte scratch.
[[noreturn]] void error_exitf(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Resets half-done state and returns to the innermost recovery point (throws), or ends
// the run in background.
[[noreturn]] void recover();

// With macros on, the scripting layer shows where an error was read (null: the plain
// source span).
extern void (*macro_error_location)();

// Runs fn; 1 for a normal return, 0 when it failed through error_exit.
int protected_call(const std::function<void()>& fn);

// Depth of active protected calls (0: no recovery point).
int recovery_depth() noexcept;

}  // namespace qax::shell
