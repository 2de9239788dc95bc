// Names and groups of the data set: cnames, taxname, agroup, xgroup, outgroup, blocks,
// and info on the matrix.
#include <cctype>
#include <cstdio>
#include <string>
#include <vector>

#include "dataset/dataset.h"
#include "dataset/dataset_commands.h"
#include "dataset/lists_bridge.h"
#include "shell/failure.h"
#include "shell/input.h"
#include "shell/lists.h"
#include "shell/output.h"
#include "shell/shell_commands.h"
#include "shell/state.h"

namespace qax::dataset {

using shell::error_exit;

NameOutput name_output;

namespace {

std::string read_plain_word() {
  std::string w;
  int c = shell::next_nonblank();
  while (c > 32 && c != ';') {
    w.push_back(static_cast<char>(c));
    c = shell::next_char();
  }
  shell::unread_char();
  return w;
}

// "=N (name) list": group N gets the listed items; "-N" empties it; ";" lists groups.
void group_command(bool taxa) {
  require_data();
  Dataset& d = dataset;
  std::vector<std::uint32_t>& masks = taxa ? d.taxon_groups : d.character_groups;
  std::vector<std::string>& names = taxa ? d.taxon_group_names : d.character_group_names;
  const std::vector<std::string>& item_names = taxa ? d.taxon_names : d.character_names;
  int c = shell::next_nonblank();
  if (c == ';') {
    shell::unread_char();
    bool any = false;
    for (int g = 0; g < group_count; ++g) {
      std::string line;
      int n = 0;
      for (std::size_t i = 0; i < masks.size(); ++i)
        if (masks[i] >> g & 1u) {
          line += " " + (taxa ? item_names[i] : std::to_string(i));
          ++n;
        }
      if (!n) continue;
      any = true;
      shell::out_text({std::to_string(g), " (", names[g], ", ", std::to_string(n), taxa ? " taxa):" : " characters):", line, "\n"});
    }
    if (!any) shell::out_text({taxa ? "No taxon groups defined\n" : "No character groups defined\n"});
    return;
  }
  if (c == '-') {
    int g = shell::read_int();
    if (g < 0 || g >= group_count) error_exit({"Group number must be 0 -", std::to_string(group_count - 1)});
    for (auto& m : masks) m &= ~(1u << g);
    names[g] = "Group_" + std::to_string(g);
    return;
  }
  if (c != '=') error_exit("Expected \"=N\" (group number) or \";\"");
  int g = shell::read_int();
  if (g < 0 || g >= group_count) error_exit({"Group number must be 0 -", std::to_string(group_count - 1)});
  if (shell::accept_char('(')) {
    std::string name;
    int e = shell::next_nonblank();
    while (e != ')' && e != ';') {
      if (e > 32) name.push_back(static_cast<char>(e));
      e = shell::next_char();
    }
    if (e != ')') error_exit("Expected \")\" after group name");
    if (!name.empty()) names[g] = name;
  }
  std::vector<std::int8_t> flags;
  if (taxa) read_taxon_list(flags);
  else read_character_list(flags);
  for (auto& m : masks) m &= ~(1u << g);
  for (std::size_t i = 0; i < masks.size(); ++i)
    if (flags[i] == 1) masks[i] |= 1u << g;
}

}  // namespace

// cnames {N name state0 state1 ... ; {M ... ; ;   ("cnames ;" lists them)
void cmd_cnames() {
  require_data();
  Dataset& d = dataset;
  int c = shell::next_nonblank();
  if (c == ';') {
    shell::unread_char();
    bool any = false;
    for (int ch = 0; ch < d.nchar; ++ch) {
      if (d.character_names[ch].empty() && d.state_names[ch].empty()) continue;
      any = true;
      std::string line = "{" + std::to_string(ch) + " " + d.character_names[ch];
      for (const std::string& s : d.state_names[ch]) line += " " + s;
      shell::out_text({line, ";\n"});
    }
    if (!any) shell::out_text({"No character names defined\n"});
    return;
  }
  shell::unread_char();
  for (;;) {
    c = shell::next_nonblank();
    if (c == ';') {
      shell::unread_char();
      return;
    }
    if (c != '{' && c != '[') error_exit("Expected \"{\" and a character number in cnames");
    int ch = shell::read_int();
    if (ch < 0 || ch >= d.nchar) error_exit({"No character", std::to_string(ch)});
    std::string name = read_plain_word();
    if (name.empty()) error_exit("Expected a character name");
    d.character_names[ch] = name;
    d.state_names[ch].clear();
    for (;;) {
      std::string s = read_plain_word();
      if (s.empty()) break;
      if (d.state_names[ch].size() >= max_states) error_exit("Too many state names");
      d.state_names[ch].push_back(s);
    }
    shell::next_char();  // the ';' closing the entry
  }
}

// taxname = / - : names on trees; +N longest name read; [N truncation on output.
void cmd_taxname() {
  Dataset& d = dataset;
  int c = shell::peek_char();
  if (c == ';') {
    shell::out_text({"Taxon names ", name_output.show ? "shown" : "not shown", " on trees; names up to ",
                     std::to_string(d.name_length), " letters\n"});
    return;
  }
  if (c == '+') {
    shell::next_char();
    int n = shell::read_int();
    if (n < 1) error_exit("Expected a number after \"taxname +\"");
    // Names are read into the shell's word buffer, which bounds the length.
    if (n > shell::token_buffer_size) shell::error_exitf("Taxon names can have at most %i letters", shell::token_buffer_size);
    d.name_length = n;
    shell::shell_state.name_limit = n;  // also the longest command word read
    shell::out_text({"Taxon names up to ", std::to_string(n), " letters\n"});
    return;
  }
  if (c == '[') {
    shell::next_char();
    if (shell::accept_char('!')) {
      name_output.species_only = 1;
      return;
    }
    int n = shell::read_int();
    name_output.species_only = 0;
    name_output.truncate = n < 0 ? 0 : n;
    return;
  }
  if (!shell::read_switch(name_output.show, "Taxon names"))
    error_exit("Expected \"=\", \"-\", \"+N\" or \"[N\" after taxname");
}

void cmd_agroup() { group_command(true); }
void cmd_xgroup() { group_command(false); }

void cmd_outgroup() {
  require_data();
  Dataset& d = dataset;
  int c = shell::peek_char();
  if (c == ';') {
    shell::out_text({"Outgroup is taxon ", std::to_string(d.outgroup), " (", d.taxon_names[d.outgroup], ")\n"});
    return;
  }
  if (c == '[' || c == ']') error_exit("No taxonomy defined");
  // A number is checked here, against the taxa there are; a name goes through the list reader.
  int t = std::isdigit(c) ? shell::read_int() : read_one_taxon();
  if (t < 0 || t >= d.ntax) error_exit({"Outgroup taxon must be 0 -", std::to_string(d.ntax - 1)});
  if (!d.taxon_active[t]) error_exit({"Cannot use an inactive taxon as outgroup -", d.taxon_names[t]});
  d.outgroup = t;
  if (tree_link_hooks.outgroup_changed) tree_link_hooks.outgroup_changed(t);
}

// blocks N M ... : blocks start at the characters given (block 0 at 0);
// blocks = name0 name1 ... : names; blocks ; : report.
void cmd_blocks() {
  require_data();
  Dataset& d = dataset;
  int c = shell::peek_char();
  if (c == ';') {
    for (int b = 0; b < d.nblocks; ++b) {
      int first = -1, last = -1;
      for (int ch = 0; ch < d.nchar; ++ch)
        if (d.chars[ch].block == b) {
          if (first < 0) first = ch;
          last = ch;
        }
      std::string name = b < static_cast<int>(d.block_names.size()) && !d.block_names[b].empty()
                             ? " (" + d.block_names[b] + ")" : "";
      char buf[96];
      if (first < 0) std::snprintf(buf, sizeof buf, "Block %i: empty", b);
      else std::snprintf(buf, sizeof buf, "Block %i: chars. %i-%i", b, first, last);
      shell::out_text({buf, name, "\n"});
    }
    return;
  }
  if (c == '=') {
    shell::next_char();
    if (!d.landmarks.empty()) error_exit("Sorry, if data matrix contains landmarks, blocks cannot be named data matrix");
    d.block_names.assign(d.nblocks, "");
    d.block_names[0] = "all";
    for (int b = 1; b < d.nblocks; ++b) {
      std::string w = read_plain_word();
      if (w.empty()) break;
      d.block_names[b] = w;
    }
    return;
  }
  std::vector<int> starts;
  for (;;) {
    int n = shell::read_int();
    if (n < 0) break;
    if (n >= d.nchar) error_exit({"No character", std::to_string(n)});
    starts.push_back(n);
  }
  if (shell::peek_char() != ';') error_exit("Expected character numbers starting the blocks");
  std::vector<int> block_of(d.nchar, 0);
  int nb = 1;
  std::vector<bool> start(d.nchar, false);
  for (int s : starts)
    if (s > 0) start[s] = true;
  for (int ch = 0, b = 0; ch < d.nchar; ++ch) {
    if (start[ch]) ++b;
    block_of[ch] = b;
    nb = b + 1;
  }
  for (int ch = 0; ch < d.nchar; ++ch) d.chars[ch].block = block_of[ch];
  d.nblocks = nb;
  d.block_names.clear();
}

// info ; : what the data set is (title, dimensions, formats, settings, memory).
void cmd_info() {
  Dataset& d = dataset;
  if (!d.loaded) {
    shell::out_text({"Must read data first\n"});
    return;
  }
  int active = 0, additive = 0, inactive_taxa = 0, weighted = 0, informative = 0;
  int per_format[17] = {};
  for (const CharacterRecord& r : d.chars) {
    active += r.active;
    additive += r.additive && r.format != format_continuous;
    weighted += r.weight != 1;
    informative += r.active && r.max_steps > r.min_steps;
    per_format[r.format & 31] += 1;
  }
  for (int t = 0; t < d.ntax; ++t) inactive_taxa += !d.taxon_active[t];
  if (!d.title.empty()) shell::out_text({"Data: ", d.title, "\n"});
  char buf[200];
  std::snprintf(buf, sizeof buf, "%i taxa (%i active), %i characters (%i active, %i informative), %i block%s\n",
                d.ntax, d.ntax - inactive_taxa, d.nchar, active, informative, d.nblocks, d.nblocks == 1 ? "" : "s");
  shell::out_text({buf});
  std::string formats = "Formats:";
  const char* words[] = {"numeric", "dna", "protein", "continuous", "landmark"};
  for (int i = 0, f = 1; f <= 16; f <<= 1, ++i)
    if (per_format[f]) formats += " " + std::to_string(per_format[f]) + " " + words[i];
  shell::out_text({formats, "\n"});
  std::snprintf(buf, sizeof buf, "%i additive, %i with weight other than 1; up to %i states per cell; outgroup %i (%s)\n",
                additive, weighted, d.cell_width * 8, d.outgroup, d.taxon_names[d.outgroup].c_str());
  shell::out_text({buf});
  long long min_total = 0, max_total = 0;
  for (const CharacterRecord& r : d.chars)
    if (r.active && r.format != format_continuous && r.format != format_landmark) {
      min_total += static_cast<long long>(r.min_steps) * r.weight;
      max_total += static_cast<long long>(r.max_steps) * r.weight;
    }
  std::snprintf(buf, sizeof buf, "Minimum possible length %lli, maximum %lli (discrete characters, weighted)\n",
                min_total, max_total);
  shell::out_text({buf});
  std::size_t bytes = static_cast<std::size_t>(d.ntax) * d.nchar * d.cell_width;
  shell::out_text({"Matrix cells: ", shell::bytes_text(bytes), "\n"});
}

}  // namespace qax::dataset
