// The viewer's page arithmetic without a terminal: status line, margin, search, and
// the clbuffer and view commands driven through the shell.
#include <gtest/gtest.h>

#include <string>

#include "app/command_table.h"
#include "app/program.h"
#include "shell/commands.h"
#include "shell/failure.h"
#include "shell/history.h"
#include "shell/input.h"
#include "shell/output.h"
#include "shell/viewer.h"

using namespace qax::shell;

namespace {

void fill_buffer(std::initializer_list<const char*> lines) {
  text_buffer_init(200);
  for (const char* l : lines) {
    text_buffer_add(l);
    text_buffer_add("\n");
  }
}

// A clean shell with only the given text to read.
void start() {
  qax::app::reset_run_state();
  install_command_table(qax::app::command_records, &qax::app::run_file_record);
  init_input_stack(10, "", false);
  frame_at(0).stream = nullptr;
}

void run_commands(const std::string& text) {
  push_text_level(text, "test");
  while (input_level() > 0) protected_call(read_and_dispatch);
}

}  // namespace

TEST(Viewer, StatusLineIsPaddedWithStars) {
  std::string s = viewer_status_line(6, 23, 40, 79);
  EXPECT_EQ(s.size(), 79u);
  std::string head = "** TXT BUFFER, lines 7-29 of 40 (ESC to exit) **";
  EXPECT_EQ(s.substr(0, head.size()), head);
  EXPECT_EQ(s.find_first_not_of('*', head.size()), std::string::npos);
  // Fewer lines than rows, and an empty buffer.
  EXPECT_EQ(viewer_status_line(0, 23, 5, 10), "** TXT BUFFER, lines 1-5 of 5 (ESC to exit) **");
  EXPECT_EQ(viewer_status_line(0, 23, 0, 0), "** TXT BUFFER, lines 0-0 of 0 (ESC to exit) **");
}

TEST(Viewer, StartShiftHidesTheCommonMarginLessThree) {
  fill_buffer({"        eight", "", "      six", "          ten"});
  EXPECT_EQ(viewer_start_shift(0, 10), 3);
  EXPECT_EQ(viewer_start_shift(3, 10), 7);
  fill_buffer({"  two", "     five"});
  EXPECT_EQ(viewer_start_shift(0, 10), 0);
  text_buffer_init(200);
}

TEST(Viewer, SearchIgnoresCaseAndStartsWhereAsked) {
  fill_buffer({"Alpha", "beta gamma", "GAMMA ray", "delta"});
  EXPECT_EQ(viewer_find("gamma", 0), 1);
  EXPECT_EQ(viewer_find("gamma", 2), 2);
  EXPECT_EQ(viewer_find("gamma", 3), -1);
  EXPECT_EQ(viewer_find("ALPHA", 0), 0);
  EXPECT_EQ(viewer_find("", 0), -1);
  text_buffer_init(200);
}

TEST(Viewer, ClbufferCommands) {
  start();
  text_buffer_init(200);
  history_reset();
  history.loaded = true;  // no file behind this test
  history_add("mult;");
  int saved = output_state.silent_flags;
  output_state.silent_flags |= 2;
  run_commands("quote kept for a moment; clbuffer *;");
  EXPECT_EQ(history_count(), 0);
  // The warning is in the buffer (it goes to file and buffer only).
  bool warned = false;
  for (int i = 0; i < text_buffer_line_count(); ++i) {
    if (text_buffer_line(i) == "command buffer will be cleared") warned = true;
  }
  EXPECT_TRUE(warned);
  run_commands("clbuffer;");
  EXPECT_EQ(text_buffer_line_count(), 0);
  output_state.silent_flags = saved;
  history_reset();
}

TEST(Viewer, ContinuousModeSilencesTheConsoleUntilEnded) {
  start();
  reset_viewer_state();
  output_state.silent_flags = 0;
  run_commands("view +;");
  EXPECT_EQ(viewer_state.continuous, 1);
  EXPECT_EQ(output_state.silent_flags & 2, 2);
  run_commands("view -;");
  EXPECT_EQ(viewer_state.continuous, 0);
  EXPECT_EQ(output_state.silent_flags, 0);
  reset_viewer_state();
}
