// The matrix reader: plain and block forms, discrete, continuous and landmark cells.
// Cells are written straight into the arena rows as they are read; per-cell work is a
// table look-up in the symbol table, with no allocation.
#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <string>
#include <unordered_map>
#include <vector>

#include "dataset/dataset.h"
#include "dataset/dataset_commands.h"
#include "dataset/import.h"
#include "shell/arena.h"
#include "shell/sizing.h"
#include "shell/commands.h"
#include "shell/failure.h"
#include "shell/input.h"
#include "shell/match.h"
#include "shell/output.h"
#include "shell/state.h"

namespace qax::dataset {

using shell::error_exit;
using shell::error_exitf;
using shell::next_char;
using shell::unread_char;

namespace {

bool blank(int c) { return c < 33; }
bool inline_blank(int c) { return c < 33 && c != '\n'; }

// Skips blanks; in block rows the line end is significant and is returned.
int next_nonblank_in_row() {
  int c;
  do c = next_char();
  while (inline_blank(c) && c != '\r');
  while (c == '\r') c = next_char();
  return c;
}

const char* format_word(int f) {
  switch (f) {
    case format_dna: return "dna";
    case format_protein: return "protein";
    case format_continuous: return "continuous";
    case format_landmark: return "landmark";
    default: return "numeric";
  }
}

// Everything of one reading that does not belong in the data set record.
struct Reader {
  Dataset& d = dataset;
  int block = 0;                      // current block number
  int block_format = format_numeric;  // format of the current block
  int block_first = 0;                // first character of the block
  int block_width = -1;               // characters per row of the block, -1 until set
  int first_taxon = -1;               // first taxon read in the block (match symbol)
  int landmark_dims = 2;              // dims of a landmark block
  int defined_taxa = 0;               // names defined so far
  int defined_chars = 0;              // columns reached so far
  bool trim_head = false, trim_tail = false, verbose = false;
  double match_level = 0;             // 0: exact names
  bool warned_long = false, warned_symbol = false, warned_gap = false, warned_rescale = false;
  std::vector<std::uint8_t> decided;  // per character: 0 open, 1 digits, 2 letters
  std::vector<std::uint8_t> in_block; // per taxon: read in this block
  std::unordered_map<std::string, int> by_name;
  std::vector<int> row_targets;       // taxa receiving the current row
  // Raw values (thousandths, as doubles) of characters being rescaled, [char][taxon*2].
  std::unordered_map<int, std::vector<double>> raw;
  bool named_block = false;
};

std::string significant_part(const std::string& name) {
  std::size_t p = name.find("____");
  return p == std::string::npos ? name : name.substr(0, p);
}

// Reads a taxon name into `name`; empty when the next thing cannot start one.
void read_row_name(Reader& r, std::string& name) {
  name.clear();
  int c = shell::next_nonblank();
  while (!blank(c) && c != ';' && c != '[' && c != '&') {
    if (c == '+' || c == '-' || c == '/') {
      if (!r.warned_symbol) {
        char buf[96];
        std::snprintf(buf, sizeof buf, "Symbol '%c' in taxon names will be changed to '_' (=underscore).", c);
        shell::warning({buf});
        r.warned_symbol = true;
      }
      c = '_';
    }
    if (static_cast<int>(name.size()) < r.d.name_length) name.push_back(static_cast<char>(c));
    else if (!r.warned_long) {
      shell::warning({"Taxon names over " + std::to_string(r.d.name_length) + " letters will be truncated"});
      r.warned_long = true;
    }
    c = next_char();
  }
  unread_char();
}

// Finds or defines the taxa named; fills r.row_targets.
void resolve_name(Reader& r, const std::string& name) {
  r.row_targets.clear();
  Dataset& d = r.d;
  if (name.size() > 3 && name.compare(name.size() - 3, 3, "...") == 0) {
    std::string prefix = name.substr(0, name.size() - 3);
    for (int t = 0; t < r.defined_taxa; ++t)
      if (d.taxon_names[t].compare(0, prefix.size(), prefix) == 0) r.row_targets.push_back(t);
    if (r.row_targets.empty()) error_exit({"No taxon name begins with", prefix});
    bool repeated = false;
    for (int t : r.row_targets) repeated |= r.in_block[t] != 0;
    if (repeated)
      error_exitf("Error reading block %i: each taxon can appear only once - %s appears twice", r.block,
                  name.c_str());
    return;
  }
  std::string key = significant_part(name);
  int found = -1;
  auto it = r.by_name.find(key);
  if (it != r.by_name.end()) found = it->second;
  else if (r.match_level > 0) {
    double best = r.match_level;
    for (int t = 0; t < r.defined_taxa; ++t) {
      double s = shell::similarity(key, significant_part(d.taxon_names[t]), r.match_level);
      if (s >= best) {
        best = s;
        found = t;
      }
    }
  }
  if (found < 0) {
    if (r.defined_taxa >= d.ntax) error_exit("All taxon names already defined");
    found = r.defined_taxa++;
    d.taxon_names[found] = name;
    d.name_significant[found] = static_cast<int>(key.size());
    r.by_name.emplace(key, found);
  }
  if (r.in_block[found])
    error_exitf("Error reading block %i: each taxon can appear only once - %s appears twice", r.block,
                name.c_str());
  r.row_targets.push_back(found);
}

// A number of a continuous cell or a landmark coordinate; sign only when allowed.
bool read_number(double& v, bool allow_sign, int& stop) {
  char text[40];
  int n = 0;
  int c = next_char();
  if (allow_sign && (c == '-' || c == '+')) {
    text[n++] = static_cast<char>(c);
    c = next_char();
  }
  bool digits = false, point = false;
  while ((std::isdigit(c) || (c == '.' && !point)) && n < 38) {
    if (c == '.') point = true;
    else digits = true;
    text[n++] = static_cast<char>(c);
    c = next_char();
  }
  if ((c == 'e' || c == 'E') && digits && n < 30) {
    text[n++] = 'e';
    c = next_char();
    if (c == '-' || c == '+') {
      text[n++] = static_cast<char>(c);
      c = next_char();
    }
    while (std::isdigit(c) && n < 38) {
      text[n++] = static_cast<char>(c);
      c = next_char();
    }
  }
  text[n] = 0;
  stop = c;
  unread_char();
  if (!digits) return false;
  v = std::strtod(text, nullptr);
  return true;
}

std::uint32_t pack_range(double lo, double hi) {
  auto clip = [](double x) {
    double t = std::floor(x * 1000.0 + 1e-7);
    if (t < 0) t = 0;
    if (t > 65535) t = 65535;
    return static_cast<std::uint32_t>(t);
  };
  return clip(lo) | clip(hi) << 16;
}

// Starts keeping raw values for a character that must be rescaled; earlier taxa come
// back from their cells.
std::vector<double>& raw_values(Reader& r, int ch) {
  auto it = r.raw.find(ch);
  if (it != r.raw.end()) return it->second;
  std::vector<double>& v = r.raw[ch];
  v.assign(static_cast<std::size_t>(r.d.ntax) * 2, -1.0);
  for (int t = 0; t < r.d.ntax; ++t) {
    std::uint32_t cell = r.d.cell(t, ch);
    if (cell == 0xFFFFFFFFu || cell == continuous_missing || cell == continuous_inapplicable) continue;
    v[2 * t] = static_cast<double>(cell & 0xFFFF);
    v[2 * t + 1] = static_cast<double>(cell >> 16);
  }
  return v;
}

void read_continuous_cell(Reader& r, int taxon, int ch, int first) {
  Dataset& d = r.d;
  std::uint32_t cell;
  if (first == '?') cell = continuous_missing;
  else if (first == '*') cell = continuous_inapplicable;
  else {
    unread_char();
    double lo, hi;
    int stop;
    if (!read_number(lo, false, stop))
      error_exitf("Taxon %i (%s), char. %i (block %i): expecting real number; found '%c'", taxon,
                  d.taxon_names[taxon].c_str(), ch, r.block, first);
    hi = lo;
    int c = next_char();
    while (inline_blank(c)) c = next_char();
    if (c == '-' || c == '/' || c == 177 || c == 241) {
      double x;
      while (inline_blank(peek_raw())) next_char();
      if (!read_number(x, false, stop))
        error_exitf("Taxon %i (%s), char. %i (block %i): expecting real number; found '%c'", taxon,
                    d.taxon_names[taxon].c_str(), ch, r.block, stop);
      if (c == '-') hi = x;
      else {
        hi = lo + x;
        lo = lo - x < 0 ? 0 : lo - x;
      }
    } else {
      unread_char();
    }
    if (lo > hi) std::swap(lo, hi);
    if (hi > 65.0 || r.raw.count(ch)) {
      if (!r.warned_rescale) {
        char buf[200];
        std::snprintf(buf, sizeof buf,
                      "Taxon %i (%s), char. %i (block %i): continuous characters with\nmaximum beyond 65.000 "
                      "will be rescaled to fit the 0-65 range",
                      taxon, d.taxon_names[taxon].c_str(), ch, r.block);
        shell::warning({buf});
        r.warned_rescale = true;
      }
      std::vector<double>& v = raw_values(r, ch);
      for (int t : r.row_targets) {
        v[2 * t] = lo * 1000.0;
        v[2 * t + 1] = hi * 1000.0;
      }
      cell = 0;
    } else {
      cell = pack_range(lo, hi);
    }
  }
  for (int t : r.row_targets) d.set_cell(t, ch, cell);
}

// Rescales the characters of the block that had values beyond 65 into 0..65000.
void finish_rescaling(Reader& r) {
  Dataset& d = r.d;
  for (auto& [ch, v] : r.raw) {
    double lo = 1e300, hi = -1e300;
    for (int t = 0; t < d.ntax; ++t) {
      if (v[2 * t] < 0) continue;
      lo = std::min(lo, v[2 * t]);
      hi = std::max(hi, v[2 * t + 1]);
    }
    if (lo > hi) continue;
    double factor = hi > lo ? 65000.0 / (hi - lo) : 1.0;
    for (int t = 0; t < d.ntax; ++t) {
      if (v[2 * t] < 0) continue;
      auto a = static_cast<std::uint32_t>((v[2 * t] - lo) * factor + 0.5);
      auto b = static_cast<std::uint32_t>((v[2 * t + 1] - lo) * factor + 0.5);
      if (a > 65535) a = 65535;
      if (b > 65535) b = 65535;
      d.set_cell(t, ch, a | b << 16);
    }
    if (static_cast<int>(d.scales.size()) <= ch) d.scales.resize(ch + 1);
    d.scales[ch].factor = factor;
    d.scales[ch].shift = lo / 1000.0;
  }
  r.raw.clear();
}

// Reads one discrete symbol into a set, checking the digit/letter rule of the column.
std::uint32_t symbol_set(Reader& r, int taxon, int ch, int c, bool in_brackets) {
  std::uint32_t v = r.d.symbols[c & 0xFF];
  if (!v) {
    if (in_brackets)
      error_exitf("Unexpected state reading char. %i for taxon %s: %c\n", ch, r.d.taxon_names[taxon].c_str(), c);
    error_exitf("Found alien symbol for taxon %i (%s), char. %i (block %i): '%c'", taxon,
                r.d.taxon_names[taxon].c_str(), ch, r.block, c);
  }
  if (r.block_format != format_numeric && c != '?' && c != '*' && c != '-') {
    std::uint8_t kind = std::isdigit(c) ? 1 : 2;
    std::uint8_t& seen = r.decided[ch];
    if (!seen) {
      seen = kind;
      r.d.chars[ch].format = kind == 1 ? format_numeric : static_cast<std::uint8_t>(r.block_format);
    } else if (seen != kind) {
      error_exit({"Taxon", r.d.taxon_names[taxon], "- ch.", std::to_string(ch),
                  seen == 2 ? "was alphanumeric for previous taxa!" : "was non-alphanumeric for previous taxa!"});
    }
  }
  if (c == '-' && !r.warned_gap && !r.d.gaps_as_missing &&
      (r.block_format == format_dna || r.block_format == format_protein)) {
    shell::warning({"Gaps will be read as an additional state\nTo read gaps as missing entries, change data format"});
    r.warned_gap = true;
  }
  return v;
}

void read_discrete_cell(Reader& r, int taxon, int ch, int c) {
  Dataset& d = r.d;
  std::uint32_t v;
  if (c == '[') {
    v = 0;
    for (;;) {
      c = next_char();
      if (c == ']') break;
      if (blank(c)) continue;
      if (c == ';') error_exitf("Unexpected state reading char. %i for taxon %s: %c\n", ch, d.taxon_names[taxon].c_str(), c);
      v |= symbol_set(r, taxon, ch, c, true);
    }
    if (!v) v = d.missing_value();
  } else if (c == '.' && (r.block_format == format_dna || r.block_format == format_protein)) {
    if (r.first_taxon < 0 || r.first_taxon == taxon)
      error_exit("The match symbol ('.') cannot be used for taxon 0");
    v = d.cell(r.first_taxon, ch);
  } else {
    v = symbol_set(r, taxon, ch, c, false);
  }
  for (int t : r.row_targets) d.set_cell(t, ch, v);
}

// Reads one landmark configuration (up to '|' or the line end); '?' is missing.
void read_landmark_cell(Reader& r, int ch, int c) {
  Dataset& d = r.d;
  LandmarkConfig* conf = nullptr;
  for (auto& l : d.landmarks)
    if (l.character == ch) conf = &l;
  if (!conf) {
    d.landmarks.push_back(LandmarkConfig{ch, r.landmark_dims, {}});
    conf = &d.landmarks.back();
    conf->points.resize(d.ntax);
  }
  std::vector<double> coords;
  if (c != '?') {
    unread_char();
    for (;;) {
      int p = next_char();
      while (inline_blank(p) || p == '\r') p = next_char();
      unread_char();
      if (p == '|' || p == '\n' || p == ';') break;
      double v;
      int stop;
      if (!read_number(v, true, stop))
        error_exitf("Taxon %i (%s), char. %i (block %i): expecting real number; found '%c'", r.row_targets[0],
                    d.taxon_names[r.row_targets[0]].c_str(), ch, r.block, stop);
      coords.push_back(v);
      if (stop == ',') next_char();
    }
  }
  for (int t : r.row_targets) conf->points[t] = coords;
  int p = next_char();
  while (inline_blank(p) || p == '\r') p = next_char();
  if (p != '|') unread_char();
}

void read_cell(Reader& r, int taxon, int ch, int c) {
  switch (r.block_format) {
    case format_continuous: read_continuous_cell(r, taxon, ch, c); break;
    case format_landmark: read_landmark_cell(r, ch, c); break;
    default: read_discrete_cell(r, taxon, ch, c); break;
  }
}

void set_block_format(Reader& r, int format) {
  r.block_format = format;
  r.d.formats_seen |= format;
  build_symbol_table(format, r.d.cell_width);
}

// Options between "&[" and "]".
void read_block_options(Reader& r) {
  Dataset& d = r.d;
  for (;;) {
    int c = shell::next_nonblank();
    if (c == ']') return;
    if (c == '/') {
      std::string name;
      int e = shell::next_nonblank();
      while (!blank(e) && e != ']' && e != ';') {
        name.push_back(static_cast<char>(e));
        e = next_char();
      }
      unread_char();
      if (name.empty()) error_exit("Expected block name after slash");
      if (static_cast<int>(d.block_names.size()) <= r.block) d.block_names.resize(r.block + 1);
      d.block_names[r.block] = name;
      r.named_block = true;
      continue;
    }
    if (!std::isalpha(c)) error_exit("Expected format (dna, prot, contin, num) or closing bracket");
    std::string w;
    while (std::isalnum(c)) {
      w.push_back(static_cast<char>(std::tolower(c)));
      c = next_char();
    }
    unread_char();
    auto is = [&](const char* full) { return shell::is_prefix(w, full) == 0; };
    if (is("dna")) set_block_format(r, format_dna);
    else if (is("proteins")) {
      if (d.cell_width != 4) error_exit("To read data as protein, must set nstates to 32 before reading matrix");
      set_block_format(r, format_protein);
    } else if (is("continuous")) {
      if (d.cell_width != 4) error_exit("To read data as continuous, must set nstates to 32 before reading matrix");
      if (r.block > 0 && r.block_format != format_continuous)
        error_exit("Continuous characters must precede all other ones!");
      set_block_format(r, format_continuous);
    } else if (is("numeric")) set_block_format(r, format_numeric);
    else if (is("landmark")) {
      int n = shell::read_int();
      int e = next_char();
      if ((n != 2 && n != 3) || (e != 'd' && e != 'D')) error_exit("Landmark data must be 2D or 3D");
      r.landmark_dims = n;
      set_block_format(r, format_landmark);
    } else if (is("gaps")) {
      d.gaps_as_missing = 0;
      build_symbol_table(r.block_format, d.cell_width);
    } else if (is("nogaps")) {
      d.gaps_as_missing = 1;
      build_symbol_table(r.block_format, d.cell_width);
    } else if (is("trimhead")) r.trim_head = true;
    else if (is("trimtail")) r.trim_tail = true;
    else if (is("match")) {
      double v = shell::read_real();
      r.match_level = v < 0 ? 0.75 : v;
    } else if (is("verbose")) r.verbose = true;
    else error_exit({"Unrecognized string in format command:", w});
  }
}

// Leading or trailing gaps of every row of the block become missing.
void trim_gaps(Reader& r, int first, int last, const std::vector<int>& rows) {
  Dataset& d = r.d;
  if (d.gaps_as_missing || (r.block_format != format_dna && r.block_format != format_protein)) return;
  std::uint32_t gap = d.symbols['-'];
  for (int t : rows) {
    if (r.trim_head)
      for (int c = first; c < last && d.cell(t, c) == gap; ++c) d.set_cell(t, c, d.missing_value());
    if (r.trim_tail)
      for (int c = last - 1; c >= first && d.cell(t, c) == gap; --c) d.set_cell(t, c, d.missing_value());
  }
}

void start_block(Reader& r) {
  r.block_first = r.defined_chars;
  r.block_width = -1;
  r.first_taxon = -1;
  r.trim_head = r.trim_tail = r.verbose = false;
  r.match_level = 0;
  std::fill(r.in_block.begin(), r.in_block.end(), 0);
  if (r.block > 0 && r.block_format == format_landmark) set_block_format(r, r.d.data_format);
}

// Block form: "&[options]" then rows ending at line ends.
void read_blocks(Reader& r) {
  Dataset& d = r.d;
  std::string name;
  std::vector<int> rows;
  for (;;) {
    int c = shell::next_nonblank();
    if (c == ';') {
      unread_char();
      return;
    }
    if (c != '&') {
      unread_char();
      return;
    }
    start_block(r);
    if (shell::peek_char() == '[') {
      next_char();
      read_block_options(r);
    } else {
      set_block_format(r, r.block_format);
    }
    rows.clear();
    int nrows = 0;
    for (;;) {
      c = shell::next_nonblank();
      unread_char();
      if (c == '&' || c == ';') break;
      read_row_name(r, name);
      if (name.empty()) {
        next_char();
        error_exitf("Error reading block %i: expected a taxon name, found '%c'", r.block, c);
      }
      if (++nrows > d.ntax) error_exitf("Error reading block %i: can't have more than %i taxa in a block", r.block, d.ntax);
      resolve_name(r, name);
      int taxon = r.row_targets[0];
      if (r.first_taxon < 0) r.first_taxon = taxon;
      int ch = r.block_first;
      for (;;) {
        c = next_nonblank_in_row();
        if (c == '\n' || c == ';') {
          if (c == ';') unread_char();
          break;
        }
        if (ch >= d.nchar)
          error_exitf("Error reading block %i, taxon %s: too many characters\n   char. %i (last char.) should be followed by newline",
                      r.block, name.c_str(), d.nchar - 1);
        if (r.block_width >= 0 && ch >= r.block_first + r.block_width)
          error_exit({"Error reading block " + std::to_string(r.block) + ": too many chars. for", name});
        read_cell(r, taxon, ch, c);
        ++ch;
      }
      int width = ch - r.block_first;
      if (r.block_width < 0) r.block_width = width;
      else if (width < r.block_width)
        error_exit({"Error reading block " + std::to_string(r.block) + ": too few chars. for", name});
      for (int t : r.row_targets) {
        r.in_block[t] = 1;
        rows.push_back(t);
      }
    }
    if (r.block_width < 0) r.block_width = 0;
    int last = r.block_first + r.block_width;
    for (int ch = r.block_first; ch < last; ++ch) {
      d.chars[ch].block = r.block;
      if (r.block_format == format_continuous || r.block_format == format_landmark ||
          !r.decided[ch])
        d.chars[ch].format = static_cast<std::uint8_t>(r.block_format);
    }
    trim_gaps(r, r.block_first, last, rows);
    finish_rescaling(r);
    r.defined_chars = std::max(r.defined_chars, last);
    if (r.verbose)
      shell::out_printf("\nBlock %i: %i taxa (%i total), %i characters (%i total)\n", r.block, nrows, r.defined_taxa,
                        r.block_width, r.defined_chars);
    ++r.block;
    d.nblocks = r.block;
  }
}

// Plain form: names and nchar cells, blanks and line ends anywhere.
void read_plain(Reader& r) {
  Dataset& d = r.d;
  std::string name;
  r.block_first = 0;
  r.block_width = d.nchar;
  set_block_format(r, r.block_format);
  std::vector<int> rows;
  while (r.defined_taxa < d.ntax) {
    int c = shell::next_nonblank();
    unread_char();
    if (c == ';') break;
    read_row_name(r, name);
    if (name.empty()) {
      next_char();
      error_exitf("Expected a taxon name, found '%c'", c);
    }
    resolve_name(r, name);
    int taxon = r.row_targets[0];
    if (r.first_taxon < 0) r.first_taxon = taxon;
    for (int ch = 0; ch < d.nchar; ++ch) {
      c = shell::next_nonblank();
      if (c == ';') {
        unread_char();
        error_exitf("Unexpected end of matrix: taxon %s has only %i of %i characters", name.c_str(), ch, d.nchar);
      }
      if (r.block_format == format_landmark) {
        read_cell(r, taxon, ch, c);
        c = shell::peek_char();
        if (c == '\n') break;
        continue;
      }
      read_cell(r, taxon, ch, c);
    }
    for (int t : r.row_targets) {
      r.in_block[t] = 1;
      rows.push_back(t);
    }
  }
  if (shell::peek_char() != ';')
    error_exitf("Matrix should end with ';' after taxon %s (too many characters or taxa?)",
                d.taxon_names[std::max(0, r.defined_taxa - 1)].c_str());
  for (int ch = 0; ch < d.nchar; ++ch) {
    if (r.block_format == format_continuous || r.block_format == format_landmark || !r.decided[ch])
      d.chars[ch].format = static_cast<std::uint8_t>(r.block_format);
  }
  trim_gaps(r, 0, d.nchar, rows);
  finish_rescaling(r);
  r.defined_chars = r.defined_taxa > 0 ? d.nchar : 0;
  d.nblocks = 1;
}

// Drops the rows and columns that were never defined (cells are moved in place).
void shrink_matrix(int ntax, int nchar) {
  Dataset& d = dataset;
  if (nchar < d.nchar) {
    std::size_t w = static_cast<std::size_t>(d.cell_width);
    for (int t = 0; t < ntax; ++t)
      std::memmove(d.cells + t * nchar * w, d.cells + t * d.nchar * w, nchar * w);
  }
  d.ntax = ntax;
  d.nchar = nchar;
  d.taxon_names.resize(ntax);
  d.name_significant.resize(ntax);
  d.chars.resize(nchar);
  d.character_names.resize(nchar);
}

std::size_t memory_estimate(int ntax, int nchar, int width) {
  std::size_t nodes = 2 * static_cast<std::size_t>(ntax) - 1;
  std::size_t name = static_cast<std::size_t>(dataset.name_length);
  std::size_t cells = shell::checked_product({static_cast<std::uint64_t>(ntax), static_cast<std::uint64_t>(nchar),
                                             static_cast<std::uint64_t>(width)});
  std::size_t bytes = 96 * name + 112 * static_cast<std::size_t>(nchar) + 24 * nodes + cells +
                      ((4 * name + 19) * nodes + 2 * static_cast<std::size_t>(ntax)) * 4;
  return bytes * 5 / 4;
}

// Generated data replace the matrix only when the new one can be held: the old data
// (and the tree data are simulated along) must survive a request that is too large.
// Counted in floating point, so that no product of the dimensions can overflow.
void check_generation_fits(int ntax, int nchar, int nstates) {
  double width = dataset.data_format == format_continuous ? 4 : nstates <= 8 ? 1 : nstates <= 16 ? 2 : 4;
  double nodes = 2.0 * ntax;
  double name = dataset.name_length;
  double names = ntax * (sizeof(std::string) + 16.0);  // generated names, the copy kept
  double need = (96 * name + 112.0 * nchar + 24 * nodes + double(ntax) * nchar * width +
                 ((4 * name + 19) * nodes + 2.0 * ntax) * 4) * 1.25 + 2 * names;
  bool arena_grows = shell::arena.grow_on_read;
  double room = arena_grows ? double(shell::memory_budget()) + double(shell::arena.block_size)
                            : double(shell::arena.block_size);
  if (need > room)
    error_exit({"Sorry, not enough memory to generate", std::to_string(nchar), "chars. and", std::to_string(ntax), "taxa"});
}

// Allocates the cells, records and names of an empty matrix of the given size.
void allocate_matrix(int ntax, int nchar, const std::string& title) {
  Dataset& d = dataset;
  std::size_t need = memory_estimate(ntax, nchar, d.cell_width);
  shell::out_text({"Matrix (", std::to_string(nchar), "x", std::to_string(ntax), ", ",
                   std::to_string(d.cell_width * 8), " states). Memory required for data: ",
                   shell::bytes_text(need), "\n"});
  std::size_t cells = static_cast<std::size_t>(ntax) * nchar * d.cell_width;
  if (need > shell::ram_free_bytes() && shell::arena.grow_on_read && shell::arena.lock_count == 0) {
    std::size_t size = std::max(shell::arena.ram_size, need + shell::default_ram_size);
    shell::claim_arena(size);
  }
  // The estimate also covers names and records kept beside the arena: a matrix that
  // doesn't fit fails here, before anything is built for it.
  if (need > shell::ram_free_bytes()) {
    shell::error_exit({shell::shell_state.current_command_name + " - out of ram (change \"hold\" and/or \"mxram\")"});
  }
  d.cells = static_cast<unsigned char*>(shell::ram_alloc_low_ff(cells ? cells : 8));
  d.ntax = ntax;
  d.nchar = nchar;
  d.title = title;
  d.taxon_names.assign(ntax, std::string());
  d.name_significant.assign(ntax, 0);
  d.character_names.assign(nchar, std::string());
  d.chars.assign(nchar, CharacterRecord());
  d.nblocks = 1;
  d.formats_seen = 0;
}

// What depends on the dimensions, once the cells are in.
void finish_matrix() {
  Dataset& d = dataset;
  for (int ch = 0; ch < d.nchar; ++ch) {
    CharacterRecord& c = d.chars[ch];
    if (c.format == format_continuous) {
      c.is_continuous = 1;
      c.additive = 1;
      for (int t = 0; t < d.ntax; ++t)
        if (d.cell(t, ch) == 0xFFFFFFFFu) d.set_cell(t, ch, continuous_missing);
      if (static_cast<int>(d.scales.size()) <= ch) d.scales.resize(ch + 1);
    }
  }
  int formats = 0, count = 0;
  for (const CharacterRecord& c : d.chars) formats |= c.format;
  for (int f = 1; f <= 16; f <<= 1) count += (formats & f) != 0;
  if (count > 1) {
    std::string text = "Data were read as mixed types: ";
    int k = 0;
    for (int f = 1; f <= 16; f <<= 1) {
      if (!(formats & f)) continue;
      if (k > 0) text += k == count - 1 ? " and " : ", ";
      text += format_word(f);
      ++k;
    }
    shell::out_text({text, "\n"});
  }
  d.formats_seen = formats;
  if (!d.block_names.empty()) {
    if (!d.landmarks.empty())
      error_exit("Sorry, if data matrix contains landmarks, blocks cannot be named data matrix");
    d.block_names.resize(d.nblocks);
    if (d.block_names[0].empty()) d.block_names[0] = "all";
  }
  d.taxon_active.assign(d.ntax, 1);
  d.taxon_groups.assign(d.ntax, 0);
  d.character_groups.assign(d.nchar, 0);
  d.taxon_group_names.clear();
  d.character_group_names.clear();
  for (int g = 0; g < group_count; ++g) {
    d.taxon_group_names.push_back("Group_" + std::to_string(g));
    d.character_group_names.push_back("Group_" + std::to_string(g));
  }
  d.state_names.assign(d.nchar, {});
  d.outgroup = 0;
  d.loaded = 1;
  minmax_check();
  d.chars_file = d.chars;
  shell::ram_lock(&shell::region_tags.data_matrix);
}

// Undoes a reading that failed part way: no data remain.
struct ReadGuard {
  bool done = false;
  ~ReadGuard() {
    if (!done) {
      Dataset& d = dataset;
      d.loaded = 0;
      d.cells = nullptr;
      d.ntax = d.nchar = 0;
      d.taxon_names.clear();
      d.chars.clear();
      d.chars_file.clear();
      d.character_names.clear();
      d.landmarks.clear();
      d.block_names.clear();
      d.scales.clear();
      build_symbol_table(d.data_format, d.cell_width);
    }
  }
};

void replace_announcement(const std::string& title) {
  if (!dataset.loaded) return;
  shell::warning({"Data from:\n\n      ", dataset.title, "\n\nwill be replaced with data from:\n\n      ", title});
}

void read_matrix() {
  Dataset& d = dataset;
  std::string title;
  // The title is text: quotes around it are not references of the macro language.
  shell::shell_state.literal_quotes = 1;
  if (shell::peek_char() == '\'') {
    next_char();
    int c = next_char();
    while (c != '\'') {
      if (c == ';' && shell::input_exhausted()) break;
      if (c != '\r' && title.size() < 160) title.push_back(static_cast<char>(c));
      c = next_char();
    }
    shell::shell_state.literal_quotes = 0;
    shell::out_text({title, "\n"});
  }
  shell::shell_state.literal_quotes = 0;
  replace_announcement(title);
  dataset_clear();
  ReadGuard guard;
  int nchar = shell::read_int();
  if (nchar < 0) error_exit("Must specify number of characters");
  int ntax = shell::read_int();
  if (ntax < 4) error_exit("Must specify number of taxa (4 or more)");
  allocate_matrix(ntax, nchar, title);
  Reader r;
  r.decided.assign(nchar, 0);
  r.in_block.assign(ntax, 0);
  r.block_format = d.data_format;
  int c = shell::peek_char();
  if (c == '&') read_blocks(r);
  else read_plain(r);
  if (r.defined_taxa < ntax) {
    shell::warning({"Number of taxa set to " + std::to_string(ntax) + ", but only " + std::to_string(r.defined_taxa) +
                    " taxon names defined.\nNumber of taxa will be re-set to " + std::to_string(r.defined_taxa)});
    if (r.defined_taxa < 4) error_exit("Must specify number of taxa (4 or more)");
  }
  if (r.defined_chars < nchar) {
    shell::warning({"Number of characters set to " + std::to_string(nchar) + ", but character " +
                    std::to_string(r.defined_chars) + " undefined\nNumber of chars. will be re-set to " +
                    std::to_string(r.defined_chars)});
  }
  shrink_matrix(r.defined_taxa, r.defined_chars);
  for (auto& l : d.landmarks) l.points.resize(d.ntax);
  finish_matrix();
  build_symbol_table(d.data_format, d.cell_width);
  guard.done = true;
  restore_reading_after_import();
  if (tree_link_hooks.matrix_read) tree_link_hooks.matrix_read();
}

// xread /C T N : random cells, each state equally probable.
void random_matrix() {
  Dataset& d = dataset;
  int nchar = shell::read_int();
  int ntax = shell::read_int();
  int nstates = shell::read_int();
  if (nchar < 0) error_exit("Must specify number of characters");
  if (ntax < 4) error_exit("Must specify number of taxa (4 or more)");
  if (nstates < 1 || nstates > max_states) error_exit("Number of states must be 1-32");
  char title[64];
  std::snprintf(title, sizeof title, "Random Data (%i states)", nstates);
  check_generation_fits(ntax, nchar, nstates);
  std::vector<std::string> names(ntax);
  for (int t = 0; t < ntax; ++t) names[t] = "TAX" + std::to_string(t);
  bool continuous = d.data_format == format_continuous;
  generate_matrix(ntax, nchar, nstates, continuous, title, names, [](Dataset& m, void* context) {
    int states = *static_cast<int*>(context);
    bool cont = m.data_format == format_continuous;
    for (int t = 0; t < m.ntax; ++t)
      for (int ch = 0; ch < m.nchar; ++ch) {
        if (cont) {
          auto v = static_cast<std::uint32_t>(std::rand() % 10000);
          m.set_cell(t, ch, v | v << 16);
        } else {
          m.set_cell(t, ch, 1u << (std::rand() % states));
        }
      }
  }, &nstates);
}

}  // namespace

TreeLinkHooks tree_link_hooks;

void generate_matrix(int ntax, int nchar, int nstates, bool continuous, const std::string& title,
                     const std::vector<std::string>& names, void (*fill)(Dataset& d, void* context),
                     void* context) {
  Dataset& d = dataset;
  check_generation_fits(ntax, nchar, nstates);
  replace_announcement(title);
  dataset_clear();
  ReadGuard guard;
  if (!continuous) d.cell_width = nstates <= 8 ? 1 : nstates <= 16 ? 2 : 4;
  allocate_matrix(ntax, nchar, title);
  for (int t = 0; t < ntax; ++t) {
    d.taxon_names[t] = names[t];
    d.name_significant[t] = static_cast<int>(names[t].size());
  }
  fill(d, context);
  for (auto& c : d.chars) c.format = static_cast<std::uint8_t>(continuous ? format_continuous : format_numeric);
  finish_matrix();
  build_symbol_table(d.data_format, d.cell_width);
  guard.done = true;
  if (tree_link_hooks.matrix_read) tree_link_hooks.matrix_read();
}

int peek_raw() {
  int c = next_char();
  unread_char();
  return c;
}

void cmd_xread() {
  shell::shell_state.literal_quotes = 1;
  int c = shell::peek_char();
  shell::shell_state.literal_quotes = 0;
  switch (c) {
    case '!': case '*': case '-': case ':': case '[':
      save_matrix();
      return;
    case '/':
      next_char();
      random_matrix();
      return;
    case '+':
      if (!tree_link_hooks.generate_from_tree) {
        shell::cmd_not_available();
        return;
      }
      next_char();
      tree_link_hooks.generate_from_tree();
      return;
    case '=':
      next_char();
      edit_cells();
      return;
    case '<': case '>': case '&':
      if (!tree_link_hooks.generate_into_characters) {
        shell::cmd_not_available();
        return;
      }
      tree_link_hooks.generate_into_characters(next_char());
      return;
    default:
      read_matrix();
  }
}

void cmd_xwipe() {
  if (dataset.loaded) dataset_clear();
  build_symbol_table(dataset.data_format, dataset.cell_width);
}

}  // namespace qax::dataset
