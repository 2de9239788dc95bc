// State that must survive errors and long output: near-matching armed by the user, and
// the lines of the text buffer.
#include <gtest/gtest.h>

#include "app/program.h"
#include "common/harness.h"
#include "shell/failure.h"
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
