// Sizing of tables against what the process can obtain.
#include "shell/sizing.h"

#include <sys/resource.h>
#include <sys/sysinfo.h>
#include <unistd.h>

#include <cstdio>

#include "shell/failure.h"
#include "shell/state.h"

namespace qax::shell {

namespace {

std::uint64_t cap_bytes = 0;

// Bytes mapped by the process now (virtual size), 0 when unknown.
std::uint64_t mapped_bytes() {
  std::FILE* f = std::fopen("/proc/self/statm", "r");
  if (!f) return 0;
  unsigned long long pages = 0;
  int n = std::fscanf(f, "%llu", &pages);
  std::fclose(f);
  if (n != 1) return 0;
  return pages * static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE));
}

std::uint64_t limit_left(int resource, std::uint64_t used) {
  struct rlimit lim {};
  if (getrlimit(resource, &lim) != 0 || lim.rlim_cur == RLIM_INFINITY) return UINT64_MAX;
  std::uint64_t limit = lim.rlim_cur;
  return limit > used ? limit - used : 0;
}

}  // namespace

std::uint64_t checked_product(std::initializer_list<std::uint64_t> factors) {
  constexpr std::uint64_t ceiling = std::uint64_t{1} << 62;
  std::uint64_t product = 1;
  for (std::uint64_t f : factors) {
    if (f == 0) return 0;
  }
  for (std::uint64_t f : factors) {
    if (product > ceiling / f) error_exit("Cannot allocate that much RAM!");
    product *= f;
  }
  return product;
}

std::uint64_t memory_budget() {
  std::uint64_t budget = UINT64_MAX;
  struct sysinfo info {};
  if (sysinfo(&info) == 0) {
    std::uint64_t physical = static_cast<std::uint64_t>(info.totalram) * info.mem_unit +
                             static_cast<std::uint64_t>(info.totalswap) * info.mem_unit;
    if (physical > 0) budget = physical;
  }
  std::uint64_t mapped = mapped_bytes();
  std::uint64_t left = limit_left(RLIMIT_AS, mapped);
  if (left < budget) budget = left;
  left = limit_left(RLIMIT_DATA, mapped);
  if (left < budget) budget = left;
  if (cap_bytes && cap_bytes < budget) budget = cap_bytes;
  return budget;
}

void set_memory_cap(std::uint64_t bytes) { cap_bytes = bytes; }
std::uint64_t memory_cap() { return cap_bytes; }

bool fits_in_memory(std::uint64_t bytes) { return bytes <= memory_budget(); }

[[noreturn]] void out_of_ram() {
  error_exit({shell_state.current_command_name + " - out of ram (change \"hold\" and/or \"mxram\")"});
}

void require_memory(std::uint64_t bytes) {
  if (!fits_in_memory(bytes)) out_of_ram();
}

}  // namespace qax::shell
