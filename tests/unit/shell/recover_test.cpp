// The recover step after an error: what the user armed stays armed.
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
