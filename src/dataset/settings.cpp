// Character and taxon settings: ccode, ckeep, nstates, taxcode.
#include <algorithm>
#include <bit>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

#include "dataset/costs.h"
#include "dataset/dataset.h"
#include "dataset/dataset_commands.h"
#include "dataset/lists_bridge.h"
#include "shell/commands.h"
#include "shell/failure.h"
#include "shell/input.h"
#include "shell/lists.h"
#include "shell/output.h"

namespace qax::dataset {

using shell::error_exit;

namespace {

// Specifiers of ccode in force; -1 leaves a field unchanged.
struct CcodeSpec {
  int additive = -1;
  int active = -1;
  int sankoff = -1;
  int weight = -1;
  int steps = -1;
  int semi_additive = 0;  // ~: costs 1 between neighbouring states, 2 farther
};

void apply_spec(const CcodeSpec& s, const std::vector<std::int8_t>& flags) {
  Dataset& d = dataset;
  for (int c = 0; c < d.nchar; ++c) {
    if (flags[c] != 1) continue;
    CharacterRecord& r = d.chars[c];
    bool scale = r.format == format_continuous || r.format == format_landmark;
    if (s.active >= 0) r.active = static_cast<std::uint8_t>(s.active);
    if (s.weight >= 0) r.weight = s.weight;
    if (s.steps >= 0) r.internal_steps = r.format == format_landmark ? 0 : s.steps;
    if (!scale) {
      if (s.additive >= 0) {
        r.additive = static_cast<std::uint8_t>(s.additive);
        r.sankoff = 0;
      }
      if (s.sankoff >= 0) r.sankoff = static_cast<std::uint8_t>(s.sankoff);
    }
    r.dirty = 1;
  }
  if (s.semi_additive) make_semi_additive(flags);
}

void show_ccode() {
  Dataset& d = dataset;
  shell::out_text({"Character settings (+ additive, - nonadditive, ( Sankoff, [ active, ] inactive, /weight, =steps):\n"});
  std::string line;
  for (int c = 0; c < d.nchar; ++c) {
    const CharacterRecord& r = d.chars[c];
    char buf[64];
    char kind = r.format == format_continuous ? 'C' : r.format == format_landmark ? 'L' : r.sankoff ? '(' : r.additive ? '+' : '-';
    if (r.internal_steps)
      std::snprintf(buf, sizeof buf, "%6i %c%c/%i=%i", c, kind, r.active ? '[' : ']', r.weight, r.internal_steps);
    else
      std::snprintf(buf, sizeof buf, "%6i %c%c/%i", c, kind, r.active ? '[' : ']', r.weight);
    std::string cell(buf);
    cell.resize(std::max<std::size_t>(cell.size(), 16), ' ');
    line += cell;
    if (c % 5 == 4 || c == d.nchar - 1) {
      shell::out_text({line, "\n"});
      line.clear();
    }
  }
}

void copy_settings(std::vector<CharacterRecord>& to, const std::vector<CharacterRecord>& from) {
  for (std::size_t c = 0; c < to.size() && c < from.size(); ++c) {
    to[c].active = from[c].active;
    to[c].additive = from[c].additive;
    to[c].sankoff = from[c].sankoff;
    to[c].weight = from[c].weight;
    to[c].internal_steps = from[c].internal_steps;
    to[c].dirty = 1;
  }
}

void select_block(std::vector<std::int8_t>& flags) {
  Dataset& d = dataset;
  int b = -1;
  int c = shell::peek_char();
  if (std::isdigit(c)) {
    b = shell::read_int();
    if (b >= d.nblocks) error_exit({"Only valid blocks are 0 -", std::to_string(d.nblocks - 1)});
  } else {
    shell::read_list_word();
    std::string w(shell::token_buffer);
    for (int i = 0; i < static_cast<int>(d.block_names.size()); ++i)
      if (shell::name_equal(w, d.block_names[i]) == 0) {
        b = i;
        break;
      }
    if (b < 0) error_exit({"No block named", w});
  }
  flags.assign(d.nchar, 0);
  for (int ch = 0; ch < d.nchar; ++ch)
    if (b == 0 || d.chars[ch].block == b) flags[ch] = 1;
}

}  // namespace

void cmd_ccode() {
  require_data();
  Dataset& d = dataset;
  int c = shell::next_nonblank();
  if (c == ';') {
    shell::unread_char();
    show_ccode();
    return;
  }
  if (c == '!') {
    copy_settings(d.chars, d.chars_file);
    minmax_check();
    return;
  }
  shell::unread_char();
  CcodeSpec change;
  std::vector<std::int8_t> flags;
  for (;;) {
    c = shell::next_nonblank();
    switch (c) {
      case ';':
        shell::unread_char();
        minmax_check();
        return;
      case '+': change.additive = 1; change.sankoff = 0; change.semi_additive = 0; break;
      case '-': change.additive = 0; change.sankoff = 0; change.semi_additive = 0; break;
      case '[': change.active = 1; break;
      case ']': change.active = 0; break;
      case '(':
      case '~':
        if (cost_settings.sankoff_disabled) error_exit("Sankoff characters have been disabled (use \"cost >;\" to enable)");
        change.additive = 0;
        change.sankoff = 1;
        change.semi_additive = c == '~' ? 1 : 0;
        break;
      case ')': change.sankoff = 0; change.semi_additive = 0; break;
      case '/': {
        int w = shell::read_int();
        if (w < 0) w = 1;
        if (w < 1 || w > 1000) error_exit("Error in ccode: can't give weight");
        change.weight = w;
        break;
      }
      case '=': {
        int n = shell::read_int();
        if (n < 0) n = 0;
        if (n > 100) error_exit("Internal steps can be set to a maximum of 100");
        change.steps = n;
        break;
      }
      case '*': change = CcodeSpec(); break;
      case '^': {
        int n = shell::read_int();
        if (n < 0) error_exit("Expected a complex number after \"^\" symbol");
        error_exit("No character complexes defined");
      }
      case '@':
        // The block and the items after it, numbered within the block.
        shell::unread_char();
        read_character_list(flags, "+-[]()~*/=^");
        apply_spec(change, flags);
        break;
      default:
        if (std::isdigit(c) || c == '.' || c == '{' || std::isalpha(c) || c == '_') {
          shell::unread_char();
          read_character_list(flags, "+-[]()~*/=^@");
          apply_spec(change, flags);
        } else {
          error_exit("Error in ccode: illegal character found");
        }
    }
  }
}

void cmd_ckeep() {
  require_data();
  copy_settings(dataset.chars_file, dataset.chars);
}

namespace {

const char* format_name(int f) {
  switch (f) {
    case format_dna: return "DNA";
    case format_protein: return "protein";
    case format_continuous: return "continuous";
    default: return "numeric";
  }
}

void report_reading() {
  Dataset& d = dataset;
  shell::out_line({"Matrices will be read as", format_name(d.data_format), "data"});
  shell::out_line({"Matrix space: allocate for up to", std::to_string(d.cell_width * 8), "states"});
}

void set_reading(int format, int width) {
  Dataset& d = dataset;
  if (d.loaded) {
    shell::warning({"Re-setting data type will cause\ncurrent data to be lost"});
    dataset_clear();
  }
  d.data_format = format;
  d.cell_width = width;
  build_symbol_table(format, width);
  report_reading();
}

void require_discrete(const char* into) {
  for (const CharacterRecord& r : dataset.chars)
    if (r.format == format_continuous || r.format == format_landmark)
      error_exit({std::string("Cannot convert continuous/landmark characters into ") + into});
}

// States that occur in a single taxon are dropped; the rest are renumbered densely.
void compress_states() {
  Dataset& d = dataset;
  require_data();
  std::uint32_t missing = d.missing_value();
  bool changed = false;
  int top = 0;
  for (int ch = 0; ch < d.nchar; ++ch) {
    CharacterRecord& r = d.chars[ch];
    if ((ch & 1023) == 0) shell::show_progress(ch, d.nchar, "compressing states");
    if (r.additive || r.sankoff || r.format == format_continuous || r.format == format_landmark) continue;
    int count[32] = {};
    for (int t = 0; t < d.ntax; ++t) {
      std::uint32_t v = d.cell(t, ch);
      if (v == missing) continue;
      for (std::uint32_t s = v; s; s &= s - 1) ++count[std::countr_zero(s)];
    }
    std::uint32_t map[32];
    int next = 0;
    for (int b = 0; b < 32; ++b) map[b] = count[b] >= 2 ? 1u << next++ : 0;
    top = std::max(top, next - 1);
    bool here = false;
    for (int b = 0; b < 32; ++b)
      if (count[b] && map[b] != 1u << b) here = true;
    if (!here) continue;
    changed = true;
    for (int t = 0; t < d.ntax; ++t) {
      std::uint32_t v = d.cell(t, ch);
      if (v == missing) continue;
      std::uint32_t nv = 0;
      for (std::uint32_t s = v; s; s &= s - 1) nv |= map[std::countr_zero(s)];
      d.set_cell(t, ch, nv ? nv : missing);
    }
    if (ch < static_cast<int>(d.state_names.size()) && !d.state_names[ch].empty()) {
      std::vector<std::string> names;
      for (int b = 0; b < 32 && b < static_cast<int>(d.state_names[ch].size()); ++b)
        if (map[b]) names.push_back(d.state_names[ch][b]);
      d.state_names[ch] = names;
    }
    r.dirty = 1;
  }
  shell::clear_progress();
  minmax_check();
  if (changed) shell::out_line({"Compressed data - max. state is", std::to_string(top)});
  else shell::out_line({"Data cannot be compressed anymore"});
}

void continuous_list(std::vector<std::int8_t>& flags) {
  Dataset& d = dataset;
  if (shell::peek_char() == ';') {
    flags.assign(d.nchar, 1);
  } else {
    read_character_list(flags);
  }
  for (int ch = 0; ch < d.nchar; ++ch)
    if (d.chars[ch].format != format_continuous) flags[ch] = 0;
}

// Multiplies the stored values of the listed continuous characters so that each
// minimum length becomes `target` (values clipped at 65.535).
void standardise(double target) {
  Dataset& d = dataset;
  std::vector<std::int8_t> flags;
  continuous_list(flags);
  minmax_check();
  for (int ch = 0; ch < d.nchar; ++ch) {
    if (flags[ch] != 1) continue;
    CharacterRecord& r = d.chars[ch];
    if (r.min_steps <= 0) continue;
    double f = target * 1000.0 / r.min_steps;
    for (int t = 0; t < d.ntax; ++t) {
      std::uint32_t v = d.cell(t, ch);
      if (v == continuous_missing || v == continuous_inapplicable) continue;
      double lo = std::min(65535.0, (v & 0xFFFF) * f), hi = std::min(65535.0, (v >> 16) * f);
      d.set_cell(t, ch, static_cast<std::uint32_t>(lo) | static_cast<std::uint32_t>(hi) << 16);
    }
    if (static_cast<int>(d.scales.size()) <= ch) d.scales.resize(ch + 1);
    d.scales[ch].factor *= f;
    r.dirty = 1;
  }
  minmax_check();
}

}  // namespace

void cmd_nstates() {
  Dataset& d = dataset;
  int c = shell::peek_char();
  if (c == ';') {
    report_reading();
    shell::out_line({d.gaps_as_missing ? "Gaps will be read as missing" : "Gaps will be read as fifth state"});
    return;
  }
  if (std::isdigit(c)) {
    int n = shell::read_int();
    if (n < 1 || n > max_states) error_exit("Number of states must be 1-32");
    set_reading(format_numeric, n <= 8 ? 1 : n <= 16 ? 2 : 4);
    return;
  }
  if (c == '/') {
    shell::next_char();
    shell::read_list_word();
    std::string w(shell::token_buffer);
    for (char& ch : w) ch = static_cast<char>(std::tolower(static_cast<unsigned char>(ch)));
    if (!w.empty() && shell::is_prefix(w, "dna") == 0) d.state_reading_format = format_dna;
    else if (!w.empty() && shell::is_prefix(w, "proteins") == 0) d.state_reading_format = format_protein;
    else if (!w.empty() && shell::is_prefix(w, "numeric") == 0) d.state_reading_format = format_numeric;
    else error_exit({"Found", w, "when expecting number or strings dna/prot/num/cont"});
    shell::out_text({"Reading states as ",
                     d.state_reading_format == format_dna ? "DNA" : d.state_reading_format == format_protein ? "amino-acid" : "alpha-numeric",
                     "\n"});
    return;
  }
  if (c == '*' || c == '&') {
    shell::next_char();
    require_data();
    if (c == '*') {
      require_discrete("discrete");
      for (auto& r : d.chars) r.format = format_numeric;
    } else {
      require_discrete("\"DNA\"");
      minmax_check();
      for (int ch = 0; ch < d.nchar; ++ch)
        if (d.chars[ch].num_states > 5) {
          char buf[120];
          std::snprintf(buf, sizeof buf, "Cannot convert data with %i states (e.g. char. %i) into \"DNA\"",
                        d.chars[ch].num_states, ch);
          error_exit(buf);
        }
      for (auto& r : d.chars) r.format = format_dna;
    }
    return;
  }
  if (c == '[' || c == ']') {
    shell::next_char();
    d.show_original_scale = c == '[';
    shell::out_text({c == '[' ? "Displaying continuous characters in original scale\n"
                              : "Not displaying continuous characters in original scale\n"});
    return;
  }
  shell::read_list_word();
  std::string w(shell::token_buffer);
  for (char& ch : w) ch = static_cast<char>(std::tolower(static_cast<unsigned char>(ch)));
  auto is = [&](const char* full, std::size_t least) { return w.size() >= least && shell::is_prefix(w, full) == 0; };
  if (is("numeric", 2)) {
    int n = shell::read_int();
    if (n < 1 || n > max_states) error_exit("Number of states must be 1-32");
    set_reading(format_numeric, n <= 8 ? 1 : n <= 16 ? 2 : 4);
  } else if (is("dna", 1)) set_reading(format_dna, 1);
  else if (is("proteins", 1)) set_reading(format_protein, 4);
  else if (is("continuous", 1)) set_reading(format_continuous, 4);
  else if (is("gaps", 1)) {
    d.gaps_as_missing = 0;
    build_symbol_table(d.data_format, d.cell_width);
    shell::out_line({"Gaps will be read as fifth state"});
  } else if (is("nogaps", 3)) {
    d.gaps_as_missing = 1;
    build_symbol_table(d.data_format, d.cell_width);
    shell::out_line({"Gaps will be read as missing"});
  } else if (is("exactmin", 1) || is("noexactmin", 3)) {
    d.exact_min = w[0] == 'e';
    shell::out_line({d.exact_min ? "Minima for non-additive polymorphic chars. calculated exactly"
                                 : "Minima for non-additive polymorphic characters calculated heuristically"});
    if (d.loaded) {
      for (auto& r : d.chars) r.dirty = 1;
      minmax_check();
    }
  } else if (w == "min") {
    compress_states();
  } else if (is("stand", 2) || is("lstand", 2)) {
    require_data();
    double f = shell::read_real();
    if (f <= 0) error_exit("Expected a positive minimum length after \"stand\"");
    if (w[0] == 'l') {
      // Logarithm first: stored values become ln(1 + value) in the same thousandths.
      std::vector<std::int8_t> flags;
      continuous_list(flags);
      for (int ch = 0; ch < d.nchar; ++ch) {
        if (flags[ch] != 1) continue;
        for (int t = 0; t < d.ntax; ++t) {
          std::uint32_t v = d.cell(t, ch);
          if (v == continuous_missing || v == continuous_inapplicable) continue;
          auto lg = [](std::uint32_t x) { return static_cast<std::uint32_t>(std::log1p(x / 1000.0) * 1000.0); };
          d.set_cell(t, ch, lg(v & 0xFFFF) | lg(v >> 16) << 16);
        }
        if (static_cast<int>(d.scales.size()) <= ch) d.scales.resize(ch + 1);
        d.scales[ch].log_base = std::exp(1.0);
        d.chars[ch].dirty = 1;
      }
      minmax_check();
      for (int ch = 0; ch < d.nchar; ++ch) d.chars[ch].dirty = 0;
      // Then standardise the same characters.
      for (int ch = 0; ch < d.nchar; ++ch) {
        CharacterRecord& r = d.chars[ch];
        if (flags[ch] != 1 || r.min_steps <= 0) continue;
        double k = f * 1000.0 / r.min_steps;
        for (int t = 0; t < d.ntax; ++t) {
          std::uint32_t v = d.cell(t, ch);
          if (v == continuous_missing || v == continuous_inapplicable) continue;
          double lo = std::min(65535.0, (v & 0xFFFF) * k), hi = std::min(65535.0, (v >> 16) * k);
          d.set_cell(t, ch, static_cast<std::uint32_t>(lo) | static_cast<std::uint32_t>(hi) << 16);
        }
        d.scales[ch].factor *= k;
        r.dirty = 1;
      }
      minmax_check();
    } else {
      standardise(f);
    }
  } else if (is("fix", 1)) {
    require_data();
    std::vector<std::int8_t> flags;
    continuous_list(flags);
    for (int ch = 0; ch < d.nchar; ++ch)
      if (flags[ch] == 1 && ch < static_cast<int>(d.scales.size())) d.scales[ch] = ScaleRecord();
  } else if (is("shift", 2)) {
    bool any = false;
    for (const auto& r : d.chars) any |= r.format == format_continuous;
    if (!any) error_exit("Shifting values only possible when having continuous characters");
    double v = shell::read_real();
    for (int ch = 0; ch < d.nchar && ch < static_cast<int>(d.scales.size()); ++ch)
      if (d.chars[ch].format == format_continuous) d.scales[ch].shift += v;
  } else {
    error_exit({"Found", w, "when expecting number or strings dna/prot/num/cont"});
  }
}

void cmd_taxcode() {
  require_data();
  Dataset& d = dataset;
  if (shell::peek_char() == ';') {
    std::string line = "Inactive taxa:";
    int n = 0;
    for (int t = 0; t < d.ntax; ++t)
      if (!d.taxon_active[t]) {
        line += " " + std::to_string(t);
        ++n;
      }
    shell::out_text({n ? line : std::string("All taxa are active"), "\n"});
    return;
  }
  int mode = 1;
  std::vector<std::int8_t> flags;
  bool changed = false;
  for (;;) {
    int c = shell::next_nonblank();
    if (c == ';') {
      shell::unread_char();
      break;
    }
    if (c == '+') mode = 1;
    else if (c == '-') mode = 0;
    else {
      shell::unread_char();
      shell::ListContext ctx = taxon_list_context();
      ctx.extra_terminators = "+-";
      shell::read_scope(flags, 0, d.ntax, "taxon", ctx);
      for (int t = 0; t < d.ntax; ++t)
        if (flags[t] == 1 && d.taxon_active[t] != mode) {
          d.taxon_active[t] = static_cast<std::uint8_t>(mode);
          changed = true;
        }
      int next = shell::peek_char();
      if (next != '+' && next != '-' && next != ';') error_exit({"Unexpected character in taxcode:", std::string(1, static_cast<char>(next))});
    }
  }
  if (changed) {
    for (auto& r : d.chars) r.dirty = 1;
    minmax_check();
  }
}

}  // namespace qax::dataset
