// The list language by which commands name taxa, characters, trees, blocks and hosts:
// numbers, ranges ("N.M", "N.", ".M", "."), names by unambiguous beginning, groups in
// braces, "@" blocks, "+"/"-" signs. A list fills a vector of scope flags, one per item:
// 0 not named, 1 named, -1 named under a minus sign. Knows nothing of the data set:
// names and groups are handed in by the caller.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace qax::shell {

using ScopeFlags = std::vector<std::int8_t>;

// Groups of items: item i is in group g when bit g of masks[i] is set (taxa and
// characters, 32 groups), or when the caller's member test says so (trees: any count).
struct ListGroups {
  const std::vector<std::uint32_t>* masks = nullptr;   // per item, 32 groups
  const std::vector<std::string>* names = nullptr;     // group names, by number
  int capacity = 32;                                   // groups numbered 0..capacity-1
  bool (*member)(int item, int group) = nullptr;       // used when masks is null
};

// Blocks of characters, for "@N" / "@name" in character lists.
struct ListBlocks {
  const std::vector<int>* item_block = nullptr;        // block of each item
  const std::vector<std::string>* names = nullptr;     // block names (may be empty)
  int count = 1;                                       // blocks 0..count-1
};

// Everything a list may refer to besides numbers. Null members mean "none".
struct ListContext {
  const std::vector<std::string>* names = nullptr;     // item names
  const ListGroups* groups = nullptr;
  const ListBlocks* blocks = nullptr;
  const char* extra_terminators = nullptr;             // more characters that end the list
};

// "@T N" in taxon lists: marks the terminals of tree T below node N with `sign`.
// Installed by the tree store; null means no trees ("No trees in memory").
using TerminalsBelowFn = void (*)(int tree, int node, ScopeFlags& flags, std::int8_t sign);
extern TerminalsBelowFn terminals_below;

// Result of read_range.
extern int range_first;
extern int range_last;
// Set by read_taxon: 0 one taxon, 2 a group or several names (marks in taxon_set_marks).
extern int taxon_set_kind;
extern ScopeFlags taxon_set_marks;

// Reads a list up to a terminator (";", "&", "/", "<", "=", ">", "\\", "]"), left unread.
// Clears flags[from..to) first. Returns items named, or 1 if only groups, blocks or
// negatives were given, 0 if nothing. Fails by error_exit.
int read_scope(ScopeFlags& flags, int from, int to, const char* label, const ListContext& context);
// Short form: names only (or null).
int read_scope(ScopeFlags& flags, int from, int to, const char* label, const std::vector<std::string>* names);

// One taxon by number or name; -1 never returned (failures are errors). Several taxa
// named by a group or "..." set taxon_set_kind and taxon_set_marks; the first is returned.
int read_taxon(const ListContext& context, int ntax);

// "N", "N.M", "N.", ".M" or "." into range_first/range_last, each bound within from..to.
void read_range(int from, int to, const char* label, const std::vector<std::string>* names = nullptr);

// A word as lists read it, into token_buffer; returns its length.
int read_list_word();

// Zero when a (ignoring case) is a prefix of b.
int name_equal(std::string_view a, std::string_view b);
// 1 when b occurs in a, ignoring case.
int name_contains(std::string_view a, std::string_view b);

}  // namespace qax::shell
