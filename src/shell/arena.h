// The memory arena: one block claimed at once, used as a two-ended stack. Temporary
// storage is given back wholesale after every command (ram_release); anything that
// must outlive a command is placed under a lock. Invariant:
// base <= low_lock <= low_top <= high_top <= high_lock <= end, all 8-byte aligned.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace qax::shell {

constexpr std::size_t default_ram_size = 16777216;
constexpr int max_ram_locks = 49;

struct Arena {
  std::size_t ram_size = default_ram_size;  // requested size, bytes
  unsigned char* block = nullptr;           // claimed block (malloc)
  std::size_t block_size = 0;               // bytes actually claimed
  unsigned char* arena_base = nullptr;      // start of usable space
  unsigned char* arena_end = nullptr;       // block end less 16 bytes
  unsigned char* low_top = nullptr;         // next free byte at the low end
  unsigned char* high_top = nullptr;        // lowest used byte of the high end
  unsigned char* low_lock = nullptr;        // low end cannot be released below this
  unsigned char* high_lock = nullptr;       // high end cannot be released above this
  int lock_count = 0;                       // live locks
  struct LockEntry { int* tag; unsigned char* low; unsigned char* high; };
  LockEntry lock_stack[max_ram_locks];      // saved positions per lock
  std::uint64_t peak = 0;                   // highest use since reset, bytes
  int grow_on_read = 1;                     // mxram [ : datasets may raise the size
  int extra_for_searches = 1;               // mxram + : keep 5% free
  double expected_proportion = 0;           // mxram * P ; 0 = default
};

extern Arena arena;

// Region tags, deepest first.
struct RegionTags {
  int data_matrix = 0;
  int tree_buffer = 0;
  int character_names = 0;
  int constraints = 0;
  int tree_optimization = 0;
  int searches = 0;
  int near_match = 0;
};
extern RegionTags region_tags;

// Claims the block (halving on failure). Fails with error_exit if less than asked.
void claim_arena(std::size_t bytes);
void free_arena();

void* ram_alloc_low(std::size_t n);
void* ram_alloc_low_ff(std::size_t n);
void* ram_alloc_low_raw(std::size_t n);
void* ram_alloc_high(std::size_t n);
void* ram_alloc_high_raw(std::size_t n);
void ram_free_to(void* p);
void ram_lock(int* tag);
void ram_unlock(int* tag);
void ram_release() noexcept;
std::size_t ram_free_bytes() noexcept;
std::uint64_t ram_in_use() noexcept;

template <class T>
T* ram_array_low(std::size_t count) { return static_cast<T*>(ram_alloc_low(count * sizeof(T))); }
template <class T>
T* ram_array_low_raw(std::size_t count) { return static_cast<T*>(ram_alloc_low_raw(count * sizeof(T))); }

}  // namespace qax::shell
