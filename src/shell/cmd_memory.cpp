// mxram: the size of the arena, its report by region, and the memory rules of
// dataset reads. Re-sizing discards all data: every region lives inside the block.
#include <cstdio>
#include <string>

#include "shell/arena.h"
#include "shell/failure.h"
#include "shell/input.h"
#include "shell/output.h"
#include "shell/shell_commands.h"
#include "shell/state.h"

namespace qax::shell {

MemoryHooks memory_hooks;

namespace {

bool data_in_memory() { return memory_hooks.data_loaded && memory_hooks.data_loaded(); }
int hook_count(int (*fn)()) { return fn ? fn() : 0; }

// Bytes held by the lock whose tag is `tag`: from its saved positions to those of the
// next lock (or the present lock positions for the last one). 0 when not locked.
std::uint64_t region_bytes(const int& tag) {
  if (tag <= 0 || tag > arena.lock_count) return 0;
  int i = tag - 1;
  if (arena.lock_stack[i].tag != &tag) return 0;
  unsigned char* low_end = i + 1 < arena.lock_count ? arena.lock_stack[i + 1].low : arena.low_lock;
  unsigned char* high_end = i + 1 < arena.lock_count ? arena.lock_stack[i + 1].high : arena.high_lock;
  return static_cast<std::uint64_t>(low_end - arena.lock_stack[i].low) +
         static_cast<std::uint64_t>(arena.lock_stack[i].high - high_end);
}

std::uint64_t hook_bytes(std::uint64_t (*fn)()) { return fn ? fn() : 0; }

void region_line(const int& tag, const std::string& text, std::uint64_t outside = 0) {
  std::uint64_t n = region_bytes(tag) + outside;
  if (n == 0) return;
  out_text({"        ", bytes_text(n), " ", text, "\n"});
}

void mxram_report() {
  out_text({"QAX - max. ram = ", bytes_text(arena.ram_size), "\n"});
  if (!data_in_memory()) {
    out_text({"No ram used yet\n"});
    return;
  }
  const std::uint64_t trees = hook_bytes(memory_hooks.tree_bytes);
  const std::uint64_t optimization = hook_bytes(memory_hooks.optimization_bytes);
  const std::uint64_t constraints = hook_bytes(memory_hooks.constraint_bytes);
  const std::uint64_t names = hook_bytes(memory_hooks.name_bytes);
  std::uint64_t used = ram_in_use() + trees + optimization + constraints + names;
  out_text({"    ", bytes_text(ram_free_bytes()), " unused\n"});
  out_text({"    ", bytes_text(used), " in use:\n"});
  region_line(region_tags.data_matrix, "for data matrix (" + number_text(hook_count(memory_hooks.nchar)) +
                                           " chars., " + number_text(hook_count(memory_hooks.ntax)) + " taxa)");
  std::string tree_text = "for " + number_text(hook_count(memory_hooks.ntrees)) + " trees";
  int vault = hook_count(memory_hooks.vault_trees);
  if (vault > 0) tree_text += " (plus vault of " + number_text(vault) + " trees)";
  region_line(region_tags.tree_buffer, tree_text, trees);
  region_line(region_tags.tree_optimization, "for tree optimization", optimization);
  region_line(region_tags.searches, "for tree searches");
  region_line(region_tags.constraints, "for constraint definitions", constraints);
  region_line(region_tags.character_names, "for character names", names);
}

// Gives back every lock (their owners' tags become 0), forgets the data and claims a
// block of the new size.
void resize_arena(std::size_t bytes) {
  if (data_in_memory()) warning({"Re-setting RAM will discard current data (and trees)"});
  for (int i = arena.lock_count - 1; i >= 0; --i) {
    if (arena.lock_stack[i].tag) *arena.lock_stack[i].tag = 0;
  }
  arena.lock_count = 0;
  region_tags = RegionTags();
  if (memory_hooks.discard_data) memory_hooks.discard_data();
  claim_arena(bytes);
}

}  // namespace

void cmd_mxram() {
  int c = peek_char();
  switch (c) {
    case ';':
      mxram_report();
      return;
    case '*': {
      next_char();
      double p = read_real();
      if (p <= 0) error_exit("Specify proportion of expected RAM (can't be zero!)");
      arena.expected_proportion = p == 1.0 ? 0 : p;
      out_printf("Proportion of expected RAM to use when reading data: %.2f\n", p);
      return;
    }
    case '[':
    case ']':
      next_char();
      arena.grow_on_read = c == '[';
      out_text({arena.grow_on_read ? "If needed, " : "Never ", "increasing memory when reading a dataset\n"});
      return;
    case '+':
    case '-':
      next_char();
      arena.extra_for_searches = c == '+';
      out_text({arena.extra_for_searches ? "Minimum extra memory for searches is 5%\n"
                                         : "No extra memory for searches\n"});
      return;
    default:
      break;
  }
  double mb = read_real();
  if (mb < 0) {
    next_char();
    error_exit({"Wrong argument for mxram:", std::string(1, static_cast<char>(c))});
  }
  constexpr double max_megabytes = 1e9;  // a petabyte: beyond any machine
  if (mb > max_megabytes) error_exit("Cannot allocate that much RAM!");
  resize_arena(static_cast<std::size_t>(mb * 1e6) + 16);
  mxram_report();
}

}  // namespace qax::shell
