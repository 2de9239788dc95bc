// Robustness of shell state: near-matching armed by the user survives errors, the text
// buffer keeps the line that wraps it, and group lists stay within their tables.
#include <gtest/gtest.h>

#include "app/program.h"
#include "common/harness.h"
#include "shell/failure.h"
#include "shell/input.h"
#include "shell/lists.h"
#include "shell/output.h"
#include "shell/state.h"

using namespace qax::shell;

TEST(Recover, NearMatchingOfOptionsStaysArmedAfterAnError) {
  for (int armed : {0, 1, 2}) {
    qax::app::reset_run_state();
    output_state.silent_flags = 2;
    shell_state.near_match = armed;
    std::string text = qax::test::protected_text([] { error_exit("some failure"); });
    EXPECT_NE(text.find("some failure"), std::string::npos);
    EXPECT_EQ(shell_state.near_match, armed);
  }
}

// The text buffer: the line that makes it wrap the first time is kept after the note.
TEST(TextBuffer, TheLineThatWrapsTheBufferIsKept) {
  text_buffer_init(1);  // the smallest buffer: 50000 bytes, 5000 lines
  int n = 0;
  while (text_buffer_line_count() < 5000) text_buffer_add("line " + std::to_string(n++) + "\n");
  text_buffer_add("the line that wraps\n");
  ASSERT_EQ(text_buffer_line_count(), 2);
  EXPECT_EQ(text_buffer_line(0), "NOTE: wrapped lines before wrapping buffer contents!");
  EXPECT_EQ(text_buffer_line(1), "the line that wraps");
  text_buffer_add("next\n");
  EXPECT_EQ(text_buffer_line(2), "next");
  text_buffer_init(200);
}

// A group list over items whose group table is shorter than the items (as a fuzzed
// "xread !{.8" met): items beyond the table are in no group, nothing is read past it.
TEST(Lists, GroupsOfItemsBeyondTheGroupTableAreEmpty) {
  qax::app::reset_run_state();
  init_input_stack(10, "", false);
  frame_at(0).stream = nullptr;
  std::vector<std::uint32_t> masks = {1u, 3u};  // two items known, six more named
  ListGroups groups;
  groups.masks = &masks;
  ListContext ctx;
  ctx.groups = &groups;
  push_text_level("{.8};", "test");
  ScopeFlags flags;
  qax::test::protected_text([&] { read_scope(flags, 0, 8, "taxon", ctx); }, 1);
  ASSERT_EQ(flags.size(), 8u);
  EXPECT_EQ(flags[0], 1);
  EXPECT_EQ(flags[1], 1);
  for (int i = 2; i < 8; ++i) EXPECT_EQ(flags[i], 0);
  unwind_input();
}
