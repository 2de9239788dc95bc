// Sizing of tables: overflowing products, requests beyond the memory budget and failed
// allocations fail the command with the program's messages and leave it usable.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <new>
#include <sstream>
#include <string>
#include <vector>

#include "app/program.h"
#include "common/harness.h"
#include "shell/arena.h"
#include "shell/failure.h"
#include "shell/file_access.h"
#include "shell/output.h"
#include "shell/sizing.h"
#include "shell/state.h"

using namespace qax::shell;

namespace {

std::string failure_text(const std::function<void()>& fn, int expected = 0) {
  qax::app::reset_run_state();
  output_state.silent_flags = 2;
  shell_state.current_command_name = "xread";
  return qax::test::protected_text(fn, expected);
}

const char out_of_ram_text[] = "xread - out of ram (change \"hold\" and/or \"mxram\")";

}  // namespace

TEST(Sizing, ProductsAreCheckedBeforeAnythingIsAllocated) {
  std::uint64_t p = 0;
  failure_text([&] { p = checked_product({1u << 20, 1u << 20, 1000}); }, 1);
  EXPECT_EQ(p, std::uint64_t{1000} << 40);
  EXPECT_EQ(checked_product({0, UINT64_MAX, UINT64_MAX}), 0u);
  std::string text = failure_text([] { checked_product({std::uint64_t{1} << 40, std::uint64_t{1} << 30}); });
  EXPECT_NE(text.find("Cannot allocate that much RAM!"), std::string::npos) << text;
}

TEST(Sizing, TablesBeyondTheBudgetFailTheCommand) {
  set_memory_cap(std::uint64_t{64} << 20);
  std::vector<std::uint64_t> table(3, 7);
  std::string text = failure_text([&] { checked_resize(table, std::uint64_t{100} << 20); });
  set_memory_cap(0);
  EXPECT_NE(text.find(out_of_ram_text), std::string::npos) << text;
  EXPECT_EQ(table.size(), 3u);  // left as it was
  failure_text([&] { checked_resize(table, 1000); }, 1);
  EXPECT_EQ(table.size(), 1000u);
}

TEST(Sizing, AFailedAllocationAnywhereIsTheCommandsError) {
  std::string text = failure_text([] { throw std::bad_alloc(); });
  EXPECT_NE(text.find(out_of_ram_text), std::string::npos) << text;
  text = failure_text([] { std::vector<int> v; v.reserve(v.max_size() + 1); });
  EXPECT_NE(text.find(out_of_ram_text), std::string::npos) << text;
  EXPECT_EQ(recovery_depth(), 0);
  EXPECT_EQ(failure_text([] {}, 1), "");
}

TEST(Sizing, TheArenaIsNeverClaimedBeyondTheBudget) {
  qax::app::reset_run_state();
  output_state.silent_flags = 2;
  set_memory_cap(std::uint64_t{32} << 20);
  EXPECT_EQ(protected_call([] { claim_arena(std::uint64_t{1} << 30); }), 0);
  EXPECT_LE(arena.block_size, std::uint64_t{32} << 20);
  set_memory_cap(0);
  claim_arena(default_ram_size);
}

TEST(FileAccess, ConfinedRunsRefuseNamesOutsideTheFolder) {
  auto confined = [](std::function<void()> fn) {
    return [fn] {
      set_file_confinement(true);
      fn();
      set_file_confinement(false);
    };
  };
  for (const char* name : {"/etc/passwd", "../x", "a/../../x", "~/x", ".."}) {
    std::string text = failure_text(confined([&] { open_user_file(name, "rb"); }));
    set_file_confinement(false);
    EXPECT_NE(text.find("is not allowed (outside the working folder)"), std::string::npos) << name;
  }
  for (const char* name : {"x.tre", "sub/x.tre", "..x", "a..b/c"})
    failure_text(confined([&] { check_file_name(name); }), 1);
  failure_text([&] { check_file_name("/etc/passwd"); }, 1);
}
