// The two-ended arena.
#include "shell/arena.h"

#include <cstdlib>
#include <cstring>

#include "shell/failure.h"
#include "shell/output.h"
#include "shell/sizing.h"
#include "shell/state.h"

namespace qax::shell {

Arena arena;
RegionTags region_tags;

namespace {

unsigned char* align_up(unsigned char* p) {
  auto v = reinterpret_cast<std::uintptr_t>(p);
  return reinterpret_cast<unsigned char*>((v + 7) & ~std::uintptr_t{7});
}
unsigned char* align_down(unsigned char* p) {
  auto v = reinterpret_cast<std::uintptr_t>(p);
  return reinterpret_cast<unsigned char*>(v & ~std::uintptr_t{7});
}

void note_peak() {
  std::uint64_t used = ram_in_use();
  if (used > arena.peak) arena.peak = used;
  if (used > shell_state.peak_ram_command) shell_state.peak_ram_command = used;
}

std::size_t rounded(std::size_t n) {
  if (n > (std::size_t{1} << 62)) error_exit("Cannot allocate that much RAM!");
  return (n + 7) & ~std::size_t{7};
}

}  // namespace

void free_arena() {
  std::free(arena.block);
  arena.block = nullptr;
  arena.block_size = 0;
  arena.arena_base = arena.arena_end = arena.low_top = arena.high_top = nullptr;
  arena.low_lock = arena.high_lock = nullptr;
  arena.lock_count = 0;
}

void claim_arena(std::size_t bytes) {
  free_arena();
  arena.ram_size = bytes;
  std::size_t size = bytes < 32 ? 32 : bytes;
  // Memory the process cannot obtain is treated as a failed claim: with overcommit a
  // huge malloc "succeeds" and the process dies later when the pages are touched. The
  // block in use now is given back first, so it counts as available.
  std::uint64_t budget = memory_budget();
  while (size > 100 && size > budget) size /= 2;
  unsigned char* p = nullptr;
  while (size > 100) {
    p = static_cast<unsigned char*>(std::malloc(size));
    if (p) break;
    size /= 2;
  }
  if (!p) {
    size = 32;
    p = static_cast<unsigned char*>(std::malloc(size));
    if (!p) error_exit("Allocation failure: not enough RAM available,\ncan't recover from error");
  }
  arena.block = p;
  arena.block_size = size;
  std::size_t usable = size >= bytes ? bytes : size;
  arena.arena_base = align_up(p);
  arena.arena_end = usable >= 16 ? p + usable - 16 : p;
  if (arena.arena_end < arena.arena_base) arena.arena_end = arena.arena_base;
  arena.low_top = arena.low_lock = arena.arena_base;
  arena.high_top = arena.high_lock = align_down(arena.arena_end);
  if (arena.high_top < arena.low_top) arena.high_top = arena.high_lock = arena.low_top;
  arena.lock_count = 0;
  arena.peak = 0;
  if (size < bytes) {
    error_exit({"Allocation failure: not enough RAM available,\nallocated only", bytes_text(size)});
  }
}

void* ram_alloc_low_raw(std::size_t n) {
  n = rounded(n);
  if (n > ram_free_bytes()) out_of_ram();
  void* p = arena.low_top;
  arena.low_top += n;
  note_peak();
  return p;
}

void* ram_alloc_low(std::size_t n) {
  void* p = ram_alloc_low_raw(n);
  std::memset(p, 0, rounded(n));
  return p;
}

void* ram_alloc_low_ff(std::size_t n) {
  void* p = ram_alloc_low_raw(n);
  std::memset(p, 0xff, rounded(n));
  return p;
}

void* ram_alloc_high_raw(std::size_t n) {
  n = rounded(n);
  if (n > ram_free_bytes()) out_of_ram();
  arena.high_top -= n;
  note_peak();
  return arena.high_top;
}

void* ram_alloc_high(std::size_t n) {
  void* p = ram_alloc_high_raw(n);
  std::memset(p, 0, rounded(n));
  return p;
}

void ram_free_to(void* p) {
  auto* q = static_cast<unsigned char*>(p);
  if (q < arena.low_lock || q > arena.low_top) error_exit("Heap deallocation error");
  arena.low_top = q;
}

void ram_lock(int* tag) {
  if (!tag) error_exit("Void lock tag");
  if (arena.lock_count >= max_ram_locks) error_exit("Too many ram locks");
  Arena::LockEntry& e = arena.lock_stack[arena.lock_count];
  e.tag = tag;
  e.low = arena.low_lock;
  e.high = arena.high_lock;
  ++arena.lock_count;
  *tag = arena.lock_count;
  arena.low_lock = arena.low_top;
  arena.high_lock = arena.high_top;
}

void ram_unlock(int* tag) {
  if (!tag || *tag == 0) return;
  int index = *tag - 1;
  if (index >= arena.lock_count || arena.lock_stack[index].tag != tag) error_exit("Unlock error");
  if (region_tags.searches && &region_tags.searches != tag && region_tags.searches > *tag) {
    // Unlocking below the searches' lock releases theirs too (handled by the loop below).
  }
  for (int i = arena.lock_count - 1; i >= index; --i) *arena.lock_stack[i].tag = 0;
  arena.low_lock = arena.low_top = arena.lock_stack[index].low;
  arena.high_lock = arena.high_top = arena.lock_stack[index].high;
  arena.lock_count = index;
}

void ram_release() noexcept {
  arena.low_top = arena.low_lock;
  arena.high_top = arena.high_lock;
}

std::size_t ram_free_bytes() noexcept {
  if (!arena.block) return 0;
  return static_cast<std::size_t>(arena.high_top - arena.low_top);
}

std::uint64_t ram_in_use() noexcept {
  if (!arena.block) return 0;
  return static_cast<std::uint64_t>(arena.low_top - arena.arena_base) +
         static_cast<std::uint64_t>(align_down(arena.arena_end) - arena.high_top);
}

}  // namespace qax::shell
