// The two-ended arena: alignment, fill, locks and their order, and failures that
// leave the arena as it was.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <unistd.h>

#include "app/program.h"
#include "common/harness.h"
#include "shell/arena.h"
#include "shell/failure.h"
#include "shell/output.h"
#include "shell/state.h"

using namespace qax::shell;

namespace {

void start(std::size_t bytes = 1 << 20) {
  qax::app::reset_run_state();
  output_state.silent_flags = 2;
  claim_arena(bytes);
}

std::string failure_text(const std::function<void()>& fn) { return qax::test::protected_text(fn); }

std::uintptr_t address(void* p) { return reinterpret_cast<std::uintptr_t>(p); }

}  // namespace

TEST(Arena, AllocationsAreAlignedAndFilled) {
  start();
  auto* a = static_cast<unsigned char*>(ram_alloc_low(3));
  auto* b = static_cast<unsigned char*>(ram_alloc_low_ff(5));
  auto* c = static_cast<unsigned char*>(ram_alloc_high(9));
  auto* d = static_cast<unsigned char*>(ram_alloc_high(1));
  EXPECT_EQ(address(a) % 8, 0u);
  EXPECT_EQ(b - a, 8);
  EXPECT_EQ(address(c) % 8, 0u);
  EXPECT_EQ(c - d, 8);
  for (int i = 0; i < 8; ++i) {
    EXPECT_EQ(a[i], 0);
    EXPECT_EQ(b[i], 255);
  }
  for (int i = 0; i < 16; ++i) EXPECT_EQ(c[i], 0);
  EXPECT_EQ(ram_in_use(), 8u + 8u + 16u + 8u);
}

TEST(Arena, ReleaseKeepsLockedSpace) {
  start();
  ram_alloc_low(16);
  int tag = 0;
  ram_lock(&tag);
  EXPECT_EQ(tag, 1);
  std::size_t free_after_lock = ram_free_bytes();
  ram_alloc_low(100);
  ram_alloc_high(100);
  ram_release();
  EXPECT_EQ(ram_free_bytes(), free_after_lock);
  ram_unlock(&tag);
  EXPECT_EQ(tag, 0);
  EXPECT_EQ(ram_free_bytes(), free_after_lock + 16);
}

TEST(Arena, UnlockReleasesLaterLocksAndChecksItsTag) {
  start();
  int first = 0, second = 0, third = 0;
  ram_alloc_low(8);
  ram_lock(&first);
  ram_alloc_low(8);
  ram_lock(&second);
  ram_alloc_high(8);
  ram_lock(&third);
  EXPECT_EQ(first, 1);
  EXPECT_EQ(second, 2);
  EXPECT_EQ(third, 3);
  ram_unlock(&second);
  EXPECT_EQ(first, 1);
  EXPECT_EQ(second, 0);
  EXPECT_EQ(third, 0);
  EXPECT_EQ(arena.lock_count, 1);
  EXPECT_EQ(ram_in_use(), 8u);  // only the first lock's block remains
  int zero = 0;
  ram_unlock(&zero);  // a tag of 0 is not locked: nothing happens
  EXPECT_EQ(arena.lock_count, 1);
  int stray = 1;      // claims lock 1, which belongs to `first`
  std::string text = failure_text([&] { ram_unlock(&stray); });
  EXPECT_NE(text.find("Unlock error"), std::string::npos) << text;
  EXPECT_EQ(first, 1);
}

TEST(Arena, LockFaults) {
  start();
  std::string text = failure_text([] { ram_lock(nullptr); });
  EXPECT_NE(text.find("Void lock tag"), std::string::npos) << text;
  int tags[max_ram_locks + 1] = {};
  for (int i = 0; i < max_ram_locks; ++i) ram_lock(&tags[i]);
  text = failure_text([&] { ram_lock(&tags[max_ram_locks]); });
  EXPECT_NE(text.find("Too many ram locks"), std::string::npos) << text;
  EXPECT_EQ(arena.lock_count, max_ram_locks);
}

TEST(Arena, OutOfRamLeavesTheArenaIntact) {
  start(4096 + 16);
  shell_state.current_command_name = "mult";
  ram_alloc_low(64);
  int tag = 0;
  ram_lock(&tag);
  ram_alloc_low(32);
  unsigned char* low = arena.low_top;
  unsigned char* high = arena.high_top;
  std::size_t free_bytes = ram_free_bytes();
  std::string text = failure_text([&] { ram_alloc_low(free_bytes + 1); });
  EXPECT_NE(text.find("mult - out of ram (change \"hold\" and/or \"mxram\")"), std::string::npos) << text;
  EXPECT_EQ(arena.low_top, low);
  EXPECT_EQ(arena.high_top, high);
  EXPECT_EQ(tag, 1);
  void* exact = ram_alloc_high(free_bytes);  // all that is free still fits
  EXPECT_NE(exact, nullptr);
  EXPECT_EQ(ram_free_bytes(), 0u);
}

TEST(Arena, HugeRequestsFail) {
  start();
  std::string text = failure_text([] { ram_alloc_low(~std::size_t{0}); });
  EXPECT_NE(text.find("Cannot allocate that much RAM!"), std::string::npos) << text;
}

TEST(Arena, HeapDeallocationError) {
  start();
  void* a = ram_alloc_low(8);
  int tag = 0;
  ram_lock(&tag);
  void* b = ram_alloc_low(8);
  ram_alloc_low(8);
  ram_free_to(b);  // back to b: fine
  EXPECT_EQ(arena.low_top, b);
  std::string text = failure_text([&] { ram_free_to(a); });  // below the lock
  EXPECT_NE(text.find("Heap deallocation error"), std::string::npos) << text;
  text = failure_text([&] { ram_free_to(static_cast<unsigned char*>(b) + 64); });  // above the top
  EXPECT_NE(text.find("Heap deallocation error"), std::string::npos) << text;
}

TEST(Arena, SixteenByteBlockFailsEveryAllocationCleanly) {
  start(16);  // what mxram 0 asks for
  EXPECT_EQ(ram_free_bytes(), 0u);
  shell_state.current_command_name = "xread";
  for (int i = 0; i < 3; ++i) {
    std::string text = failure_text([] { ram_alloc_low(8); });
    EXPECT_NE(text.find("xread - out of ram"), std::string::npos) << text;
    text = failure_text([] { ram_alloc_high(1); });
    EXPECT_NE(text.find("xread - out of ram"), std::string::npos) << text;
  }
  int tag = 0;
  ram_lock(&tag);  // locking an empty arena is allowed
  ram_unlock(&tag);
  EXPECT_EQ(tag, 0);
  claim_arena(default_ram_size);
  EXPECT_GT(ram_free_bytes(), 16000000u);
}
