// Shared test harness: drive the program in-process (commands pushed as an input level,
// output captured through a log file of this process) or run the qax binary on a script.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>

#include "app/program.h"
#include "dataset/dataset.h"
#include "shell/arena.h"
#include "shell/commands.h"
#include "shell/failure.h"
#include "shell/input.h"
#include "shell/output.h"

namespace qax::test {

// Start-up state of a run: every setting reset, all hooks installed, a fresh arena.
inline void setup_shell() {
  app::reset_run_state();
  app::install_subsystems();
  shell::init_input_stack(10, "", false);
  shell::frame_at(0).stream = nullptr;
  shell::region_tags = shell::RegionTags();
  shell::claim_arena(shell::default_ram_size);
  dataset::reset_dataset_state();
}

// A test that starts from the start-up state.
class ShellTest : public ::testing::Test {
 protected:
  void SetUp() override { setup_shell(); }
};

// Each test process logs to its own file: ctest runs test processes in parallel.
inline std::string capture_log_name() {
  return ::testing::TempDir() + "qax_capture_" + std::to_string(::getpid()) + ".log";
}

// The text of a capture log, which is removed.
inline std::string take_log(const std::string& log) {
  std::ifstream in(log);
  std::stringstream ss;
  ss << in.rdbuf();
  in.close();
  std::remove(log.c_str());
  return ss.str();
}

// Runs fn under protected_call, which must return `expected` (0: fn failed, 1: it ran);
// returns what fn printed (the message of a failure).
inline std::string protected_text(const std::function<void()>& fn, int expected = 0) {
  const std::string log = capture_log_name();
  EXPECT_TRUE(shell::open_log(log, false));
  EXPECT_EQ(shell::protected_call(fn), expected);
  shell::close_log();
  return take_log(log);
}

// Runs the commands of `text` to their end (an error stops them); returns all they printed.
inline std::string run(const std::string& text) {
  const std::string log = capture_log_name();
  shell::init_input_stack(10, "", false);
  shell::frame_at(0).stream = nullptr;
  shell::open_log(log, false);
  shell::push_text_level(text + "\n", "test");
  while (shell::input_level() > 0 && !shell::current_frame().at_eof) shell::read_and_dispatch();
  while (shell::input_level() > 0) shell::close_input();
  shell::flush_log();
  shell::close_log();
  return take_log(log);
}

// Runs the qax binary on `script` in a fresh directory; returns standard error.
inline std::string run_qax(const std::string& script) {
  char dir[] = "/tmp/qaxtestXXXXXX";
  std::string d = mkdtemp(dir);
  std::ofstream(d + "/s.run") << script;
  std::string cmd = "cd " + d + " && HOME=" + d + " " + QAX_BINARY + " 'proc s.run;' 2>&1 </dev/null";
  std::string out;
  if (FILE* p = popen(cmd.c_str(), "r")) {
    char buf[4096];
    std::size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, p)) > 0) out.append(buf, n);
    pclose(p);
  }
  std::system(("rm -rf " + d).c_str());
  return out;
}

inline bool has(const std::string& out, const std::string& piece) { return out.find(piece) != std::string::npos; }

}  // namespace qax::test
