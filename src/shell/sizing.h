// Sizing of tables. Every table whose size comes from the user (taxa, characters,
// states, trees, names, levels, loops) is sized through these calls, so that a count
// too large for the machine fails the command with a message instead of ending the
// program: products are checked for overflow before anything is allocated, and the
// bytes are checked against what the process can really obtain.
#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <new>
#include <stdexcept>

namespace qax::shell {

// Product of the factors; "Cannot allocate that much RAM!" when it overflows 2^62.
std::uint64_t checked_product(std::initializer_list<std::uint64_t> factors);

// Bytes the process can still obtain: the smallest of the machine's physical memory,
// the address-space and data-segment limits less what is already mapped, and the cap
// set by set_memory_cap. Memory the machine does not have must never be asked for:
// with overcommit a huge request succeeds and the process dies when pages are touched.
std::uint64_t memory_budget();

// A cap on the memory budget (0: none). Used where a run must stay small, as when
// instructions are fuzzed.
void set_memory_cap(std::uint64_t bytes);
std::uint64_t memory_cap();

// True when that many bytes fit into the budget.
bool fits_in_memory(std::uint64_t bytes);

// The error of a command that ran out of memory: the command's name followed by
// " - out of ram (change "hold" and/or "mxram")".
[[noreturn]] void out_of_ram();

// Fails the command with out_of_ram when bytes do not fit into the budget.
void require_memory(std::uint64_t bytes);

// Resizes a vector to count elements, checking the bytes first; a failed allocation is
// the command's out-of-ram error.
template <class Vector>
void checked_resize(Vector& v, std::uint64_t count) {
  require_memory(checked_product({count, sizeof(typename Vector::value_type)}));
  try {
    v.resize(static_cast<std::size_t>(count));
  } catch (const std::bad_alloc&) {
    out_of_ram();
  } catch (const std::length_error&) {
    out_of_ram();
  }
}

}  // namespace qax::shell
