// NEXUS reader: TAXA, DATA/CHARACTERS and TREES blocks; other blocks are skipped.
// Comments in [ ] (nested) count as blanks everywhere; keywords ignore case.
#include <algorithm>
#include <array>
#include <cctype>
#include <cstring>
#include <unordered_map>

#include "dataset/dataset.h"
#include "dataset/import.h"
#include "dataset/import_nexus_sets.h"

namespace qax::dataset {

std::uint32_t symbol_set(unsigned char c, std::uint8_t format);  // import_matrix.cpp

namespace {

struct Token {
  std::string text;     // word, quoted text without its quotes, or one punctuation mark
  bool quoted = false;  // came in single or double quotes
  bool eof = false;     // nothing left
};

std::string upper(std::string s) {
  for (auto& c : s) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return s;
}

// Text for a message: bytes outside printable ASCII as \xNN.
std::string shown(std::string_view s) {
  std::string o;
  for (unsigned char c : s.substr(0, 60)) {
    if (c >= 32 && c < 127) { o += static_cast<char>(c); continue; }
    char b[8];
    std::snprintf(b, sizeof b, "\\x%02x", c);
    o += b;
  }
  return o;
}

bool is_punct(int c) { return std::strchr(";=,(){}:\"'[]", c) != nullptr && c != 0; }

class NexusReader {
 public:
  NexusReader(std::string_view text, const std::string& file) : t_(text), file_(file) {}

  ImportResult run(const ImportOptions& opt);

 private:
  std::string_view t_;
  std::string file_;
  std::size_t p_ = 0;
  int line_ = 1;
  std::string taxon_;  // taxon being read, for messages
  int first_row_ = -1;  // taxon of the first matrix row (the match character copies it)

  // Taxa of the TAXA block and the matrix.
  std::vector<std::string> taxlabels_;
  bool have_matrix_ = false;
  ImportedMatrix m_;
  NexusTrees trees_;
  std::vector<std::string> notes_;
  NexusSettings sets_;

  // FORMAT settings of the block being read.
  int missing_ = '?', gap_ = '-', match_ = -1;
  bool interleave_ = false, labels_ = true, respect_case_ = false;
  bool positional_ = false;                 // standard symbols mapped by position
  std::array<std::uint32_t, 256> standard_{};  // symbol -> set for standard data
  std::vector<std::uint8_t> column_format_;  // format of each character

  [[noreturn]] void fail(const std::string& what) {
    std::string msg = "Error reading NEXUS file " + file_ + ", line " + std::to_string(line_);
    if (!taxon_.empty()) msg += ", taxon " + taxon_;
    import_error(msg + ": " + what);
  }

  int peek() const { return p_ < t_.size() ? static_cast<unsigned char>(t_[p_]) : -1; }
  int get() {
    if (p_ >= t_.size()) return -1;
    int c = static_cast<unsigned char>(t_[p_++]);
    if (c == '\n' || (c == '\r' && (p_ >= t_.size() || t_[p_] != '\n'))) ++line_;
    return c;
  }

  // After '[': skip to the matching ']'.
  void skip_comment() {
    int start = line_, depth = 1;
    while (depth > 0) {
      int c = get();
      if (c < 0) { line_ = start; fail("comment opened here is never closed (missing ']')"); }
      if (c == '[') ++depth;
      else if (c == ']') --depth;
    }
  }
  // Blanks and comments; with stop_at_newline, stops on a line end (not consumed).
  void skip_blanks(bool stop_at_newline = false) {
    while (true) {
      int c = peek();
      if (c == '[') { get(); skip_comment(); continue; }
      if (c < 0 || c > 32) return;
      if ((c == '\n' || (c == '\r' && p_ + 1 < t_.size() && t_[p_ + 1] != '\n')) && stop_at_newline) return;
      get();
    }
  }

  Token word() {
    Token k;
    skip_blanks();
    int c = peek();
    if (c < 0) { k.eof = true; return k; }
    if (c == '\'' || c == '"') {
      int q = get(), start = line_;
      k.quoted = true;
      while (true) {
        int d = get();
        if (d < 0) { line_ = start; fail("quoted text is never closed"); }
        if (d == q) {
          if (peek() == q) { get(); k.text += static_cast<char>(q); continue; }
          break;
        }
        k.text += static_cast<char>(d);
      }
      return k;
    }
    if (c == ']') fail("']' without an opening '['");
    if (is_punct(c)) { k.text = static_cast<char>(get()); return k; }
    while (true) {
      c = peek();
      if (c < 0 || c <= 32 || is_punct(c)) break;
      k.text += static_cast<char>(get());
    }
    return k;
  }
  void expect(const char* what) {
    Token k = word();
    if (k.eof) fail(std::string("end of file where '") + what + "' was expected");
    if (k.quoted || k.text != what) fail(std::string("expected '") + what + "', found '" + shown(k.text) + "'");
  }
  // Rest of a command up to and including ';'.
  void skip_command() {
    while (true) {
      Token k = word();
      if (k.eof) fail("end of file inside a command (missing ';')");
      if (!k.quoted && k.text == ";") return;
    }
  }
  int read_count(const std::string& key) {
    expect("=");
    Token v = word();
    if (v.eof || v.text.empty() || v.text.size() > 9 ||
        !std::all_of(v.text.begin(), v.text.end(), [](char ch) { return std::isdigit(static_cast<unsigned char>(ch)); })) {
      fail(key + " must be a number, found '" + shown(v.text) + "'");
    }
    return std::stoi(v.text);
  }
  // Value after "=", one character (missing, gap, matchchar).
  int read_symbol_value(const std::string& key) {
    expect("=");
    Token v = word();
    if (v.eof || shown(v.text).size() != 1) fail(key + " must be one symbol, found '" + v.text + "'");
    return static_cast<unsigned char>(v.text[0]);
  }

  void block_end_or_eof(const std::string& block) {
    Token k = word();
    if (!k.eof && !(k.text == ";" && !k.quoted)) fail("expected ';' after END of block " + block);
  }

  void read_taxa_block();
  void read_characters_block(bool is_data);
  void read_format(std::string& datatype, std::string& symbols, std::vector<ImportedSegment>& mixed);
  void read_matrix(int ntax, int nchar);
  void read_trees_block();
  void skip_block(const std::string& name);
  void read_sets_block(const std::string& name);
  void read_char_labels(bool with_states);
  void read_state_labels();
  std::vector<int> read_char_list(bool& ended);
  std::vector<int> read_taxon_list();
  void read_assignments(const std::string& what, bool types);
  void note(const std::string& what) { notes_.push_back("NEXUS file " + file_ + ", line " + std::to_string(line_) + ": " + what); }
  ImportedCell read_cell(int taxon, int column);
  // True when c may start a cell of the column (a symbol, missing, gap, match, a set).
  bool could_be_cell(int c, int column) {
    if (c == missing_ || c == gap_ || c == match_ || c == '(' || c == '{') return true;
    return symbol(c, column) != 0;
  }
  // True when the word ahead names a taxon of the matrix (the position is kept).
  bool next_word_is_taxon(const std::unordered_map<std::string, int>& index) {
    std::size_t p = p_;
    int line = line_;
    Token k = word();
    p_ = p;
    line_ = line;
    return index.count(k.text) > 0 || std::find(taxlabels_.begin(), taxlabels_.end(), k.text) != taxlabels_.end();
  }
  std::uint32_t symbol(int c, int column);
  int taxon_index(const std::string& name, std::unordered_map<std::string, int>& index, int ntax, bool may_add);
};

ImportResult NexusReader::run(const ImportOptions& opt) {
  if (t_.starts_with("\xEF\xBB\xBF")) p_ = 3;  // byte-order mark
  if (t_.size() >= p_ + 6 && upper(std::string(t_.substr(p_, 6))) == "#NEXUS") p_ += 6;
  while (true) {
    Token k = word();
    if (k.eof) break;
    if (!k.quoted && k.text == ";") continue;
    if (upper(k.text) != "BEGIN") fail("expected BEGIN, found '" + shown(k.text) + "'");
    Token n = word();
    if (n.eof) fail("end of file after BEGIN");
    std::string name = upper(n.text);
    expect(";");
    if (name == "TAXA") read_taxa_block();
    else if (name == "DATA") read_characters_block(true);
    else if (name == "CHARACTERS") read_characters_block(false);
    else if (name == "TREES") read_trees_block();
    else if (name == "ASSUMPTIONS" || name == "SETS" || name == "PAUP") read_sets_block(name);
    else skip_block(name);
  }
  taxon_.clear();
  if (!have_matrix_ && (!trees_.trees.empty() || !trees_.text.empty())) {
    // Taxa and trees only (as tree programs write them): the trees are for the matrix
    // in memory; nothing replaces it.
    ImportResult r;
    r.notes = std::move(notes_);
    r.trees = std::move(trees_);
    r.trees.file = file_;
    r.ntax = static_cast<int>(taxlabels_.size());
    return r;
  }
  if (!have_matrix_) import_error("Error reading NEXUS file " + file_ + ": no DATA or CHARACTERS block with a matrix");
  m_.title = title_from_file(file_);
  ImportResult r;
  r.xread = matrix_to_xread(m_, file_, opt, &notes_);
  sets_.nchar = m_.nchar;
  r.xread += nexus_settings_commands(sets_);
  r.notes = std::move(notes_);
  r.trees = std::move(trees_);
  r.trees.file = file_;
  r.ntax = static_cast<int>(m_.taxa.size());
  r.nchar = m_.nchar;
  return r;
}

void NexusReader::skip_block(const std::string& name) {
  notes_.push_back("Skipped NEXUS block " + name);
  while (true) {
    Token k = word();
    if (k.eof) fail("end of file inside block " + name + " (missing END;)");
    std::string u = upper(k.text);
    if (!k.quoted && (u == "END" || u == "ENDBLOCK")) { block_end_or_eof(name); return; }
    if (!(k.text == ";" && !k.quoted)) skip_command();
  }
}

void NexusReader::read_taxa_block() {
  int ntax = -1;
  while (true) {
    Token k = word();
    if (k.eof) fail("end of file inside block TAXA (missing END;)");
    std::string cmd = upper(k.text);
    if (cmd == "END" || cmd == "ENDBLOCK") { block_end_or_eof("TAXA"); break; }
    if (cmd == ";") continue;
    if (cmd == "DIMENSIONS") {
      while (true) {
        Token a = word();
        if (a.eof) fail("end of file in DIMENSIONS");
        if (a.text == ";" && !a.quoted) break;
        if (upper(a.text) == "NTAX") ntax = read_count("NTAX");
        else fail("unknown item '" + shown(a.text) + "' in DIMENSIONS of TAXA");
      }
    } else if (cmd == "TAXLABELS") {
      taxlabels_.clear();
      while (true) {
        Token a = word();
        if (a.eof) fail("end of file in TAXLABELS (missing ';')");
        if (a.text == ";" && !a.quoted) break;
        if (!a.quoted && is_punct(shown(a.text)[0])) fail("unexpected '" + a.text + "' in TAXLABELS");
        taxlabels_.push_back(a.text);
      }
    } else {
      skip_command();
    }
  }
  if (ntax >= 0 && ntax != static_cast<int>(taxlabels_.size())) {
    fail("TAXA block declares NTAX=" + std::to_string(ntax) + " but lists " + std::to_string(taxlabels_.size()) + " names");
  }
}

void NexusReader::read_format(std::string& datatype, std::string& symbols, std::vector<ImportedSegment>& mixed) {
  while (true) {
    Token a = word();
    if (a.eof) fail("end of file in FORMAT (missing ';')");
    if (a.text == ";" && !a.quoted) break;
    std::string key = upper(a.text);
    if (key == "DATATYPE") {
      expect("=");
      datatype = upper(word().text);
      if (datatype == "MIXED") {
        expect("(");
        while (true) {
          Token ty = word();
          if (ty.eof) fail("end of file in DATATYPE=MIXED");
          if (ty.text == ")") break;
          if (ty.text == ",") continue;
          std::string type = upper(ty.text);
          std::uint8_t f = type == "DNA" || type == "RNA" || type == "NUCLEOTIDE" ? format_dna
              : type == "PROTEIN" ? format_protein : type == "STANDARD" || type == "RESTRICTION" ? format_numeric : 0;
          if (!f) fail("data type " + shown(ty.text) + " cannot be read");
          expect(":");
          std::string ranges;
          while (true) {
            int c = (skip_blanks(), peek());
            if (c < 0) fail("end of file in DATATYPE=MIXED");
            if (c == ',' || c == ')') break;
            Token r = word();
            ranges += r.text + " ";
          }
          // "a-b c d-e": each range becomes a run of this type.
          std::size_t i = 0;
          while (i < ranges.size()) {
            if (ranges[i] == ' ') { ++i; continue; }
            auto num = [&](void) {
              long v = 0;
              std::size_t s = i;
              while (i < ranges.size() && std::isdigit(static_cast<unsigned char>(ranges[i])) && i - s < 9) v = v * 10 + (ranges[i++] - '0');
              if (i == s) fail("bad character range '" + ranges + "' in DATATYPE=MIXED");
              return static_cast<int>(v);
            };
            int lo = num(), hi = lo;
            while (i < ranges.size() && ranges[i] == ' ') ++i;
            if (i < ranges.size() && ranges[i] == '-') {
              ++i;
              while (i < ranges.size() && ranges[i] == ' ') ++i;
              hi = num();
            }
            if (lo < 1 || hi < lo) fail("bad character range '" + ranges + "' in DATATYPE=MIXED");
            mixed.push_back({f, lo - 1, hi - lo + 1});
          }
        }
      }
    } else if (key == "MISSING") {
      missing_ = read_symbol_value("MISSING");
    } else if (key == "GAP") {
      gap_ = read_symbol_value("GAP");
    } else if (key == "MATCHCHAR") {
      match_ = read_symbol_value("MATCHCHAR");
    } else if (key == "SYMBOLS") {
      expect("=");
      Token v = word();
      if (v.eof) fail("end of file in SYMBOLS");
      for (char c : v.text) if (static_cast<unsigned char>(c) > 32) symbols += c;
    } else if (key == "INTERLEAVE") {
      interleave_ = true;
      skip_blanks();
      if (peek() == '=') {
        get();
        std::string v = upper(word().text);
        interleave_ = v != "NO" && v != "FALSE";
      }
    } else if (key == "NOLABELS") {
      labels_ = false;
    } else if (key == "LABELS") {
      labels_ = true;
    } else if (key == "RESPECTCASE") {
      respect_case_ = true;
    } else if (key == "TRANSPOSE") {
      fail("transposed matrices cannot be read");
    } else if (key == "TOKENS") {
      fail("matrices written with TOKENS cannot be read");
    } else if (key == "EQUATE" || key == "ITEMS" || key == "STATESFORMAT") {
      notes_.push_back("FORMAT " + key + " ignored");
      skip_blanks();
      if (peek() == '=') {
        get();
        Token v = word();
        if (v.text == "(") while (true) { Token w = word(); if (w.eof) fail("end of file in FORMAT"); if (w.text == ")") break; }
      }
    } else if (key == "NOTOKENS") {
    } else {
      fail("unknown item '" + shown(a.text) + "' in FORMAT");
    }
  }
}

void NexusReader::read_characters_block(bool is_data) {
  const std::string block = is_data ? "DATA" : "CHARACTERS";
  if (have_matrix_) fail("a second " + block + " block: only one matrix can be read");
  int ntax = is_data ? -1 : static_cast<int>(taxlabels_.size());
  int nchar = -1;
  bool newtaxa = is_data;
  std::string datatype = "STANDARD", symbols;
  std::vector<ImportedSegment> mixed;
  missing_ = '?'; gap_ = '-'; match_ = -1;
  interleave_ = false; labels_ = true; respect_case_ = false;
  while (true) {
    Token k = word();
    if (k.eof) fail("end of file inside block " + block + " (missing END;)");
    std::string cmd = upper(k.text);
    if (cmd == "END" || cmd == "ENDBLOCK") { block_end_or_eof(block); break; }
    if (cmd == ";") continue;
    if (cmd == "DIMENSIONS") {
      while (true) {
        Token a = word();
        if (a.eof) fail("end of file in DIMENSIONS");
        if (a.text == ";" && !a.quoted) break;
        std::string key = upper(a.text);
        if (key == "NTAX") { ntax = read_count("NTAX"); newtaxa = true; }
        else if (key == "NCHAR") nchar = read_count("NCHAR");
        else if (key == "NEWTAXA") newtaxa = true;
        else fail("unknown item '" + shown(a.text) + "' in DIMENSIONS");
      }
    } else if (cmd == "FORMAT") {
      read_format(datatype, symbols, mixed);
    } else if (cmd == "CHARLABELS") {
      read_char_labels(false);
    } else if (cmd == "CHARSTATELABELS") {
      read_char_labels(true);
    } else if (cmd == "STATELABELS") {
      read_state_labels();
    } else if (cmd == "MATRIX") {
      if (nchar < 0) fail("MATRIX before DIMENSIONS NCHAR=");
      if (!newtaxa && taxlabels_.empty()) fail("no taxa: DIMENSIONS NTAX= or a TAXA block is needed");
      if (ntax < 0) {
        if (taxlabels_.empty()) fail("MATRIX before DIMENSIONS NTAX=");
        ntax = static_cast<int>(taxlabels_.size());
      }
      if (!newtaxa && ntax != static_cast<int>(taxlabels_.size())) fail("NTAX differs from the TAXA block");
      // Every taxon and every character of a row takes at least one byte.
      std::size_t rest = t_.size() - p_;
      if (static_cast<std::size_t>(ntax) > rest || static_cast<std::size_t>(nchar) > rest) {
        fail("NTAX=" + std::to_string(ntax) + " NCHAR=" + std::to_string(nchar) + " cannot fit in the rest of the file");
      }
      // Data types of the columns.
      std::uint8_t base = datatype == "DNA" || datatype == "RNA" || datatype == "NUCLEOTIDE" ? format_dna
          : datatype == "PROTEIN" ? format_protein
          : datatype == "STANDARD" || datatype == "RESTRICTION" || datatype == "MIXED" ? format_numeric : 0;
      if (!base) fail("data type " + shown(datatype) + " cannot be read");
      column_format_.assign(nchar, base);
      for (auto& s : mixed) {
        if (s.first + s.count > nchar) fail("DATATYPE=MIXED range beyond NCHAR");
        std::fill(column_format_.begin() + s.first, column_format_.begin() + s.first + s.count, s.format);
      }
      // Standard symbols: digits and letters keep their own value (0-9, then A=10 ...)
      // when the symbols include digits and nothing else but such letters; otherwise
      // the n-th symbol is state n.
      if (symbols.empty()) symbols = datatype == "RESTRICTION" ? "01" : "0123456789";
      // "0~9" in a symbols list stands for the whole run.
      std::string expanded;
      for (std::size_t i = 0; i < symbols.size(); ++i) {
        if (symbols[i] == '~' && !expanded.empty() && i + 1 < symbols.size()) {
          for (int c = expanded.back() + 1; c <= static_cast<unsigned char>(symbols[i + 1]); ++c) expanded += static_cast<char>(c);
          ++i;
        } else {
          expanded += symbols[i];
        }
      }
      // The symbols name the states in order: the third symbol is state 2, whatever
      // its letter ("01a": a is state 2).
      positional_ = !expanded.empty();
      standard_.fill(0);
      if (positional_) {
        int n = 0;
        for (char c : expanded) {
          unsigned char u = static_cast<unsigned char>(c);
          if (standard_[u]) continue;
          if (n == 32) fail("more than 32 symbols");
          standard_[u] = 1u << n;
          if (!respect_case_) standard_[std::tolower(u)] = standard_[std::toupper(u)] = 1u << n;
          ++n;
        }
      } else {
        for (char c : expanded) {
          unsigned char u = static_cast<unsigned char>(c);
          standard_[std::tolower(u)] = standard_[std::toupper(u)] = symbol_set(u, format_numeric);
        }
      }
      read_matrix(ntax, nchar);
      have_matrix_ = true;
    } else {
      skip_command();
    }
  }
  if (!have_matrix_) fail("block " + block + " has no MATRIX");
}

std::uint32_t NexusReader::symbol(int c, int column) {
  std::uint8_t f = column_format_[column];
  if (f == format_numeric) return standard_[c & 255];
  if (f == format_protein && (c == 'X' || c == 'x' || c == '*')) return 0xFFFFFFFFu;  // missing
  return symbol_set(static_cast<unsigned char>(c), f);
}

ImportedCell NexusReader::read_cell(int taxon, int column) {
  ImportedCell cell;
  int c = get();
  auto alien = [&](int ch) {
    char buf[24];
    if (ch > 32 && ch < 127) std::snprintf(buf, sizeof buf, "'%c'", ch);
    else std::snprintf(buf, sizeof buf, "code %d", ch);
    std::uint8_t f = column_format_[column];
    fail(std::string("alien symbol ") + buf + " at char. " + std::to_string(column) +
         (f == format_dna ? " (dna)" : f == format_protein ? " (protein)" : " (standard)"));
  };
  if (c == '(' || c == '{') {
    int close = c == '(' ? ')' : '}';
    std::uint32_t set = 0;
    int last = -1;
    while (true) {
      skip_blanks();
      int d = get();
      if (d == close) break;
      if (d < 0 || d == ';') fail(std::string("'") + static_cast<char>(c) + "' at char. " + std::to_string(column) + " is never closed");
      if (d == ',') continue;
      if (d == gap_ && column_format_[column] == format_dna) {
        set |= 16;  // a gap among the bases: kept, for a user who reads gaps as a state
        continue;
      }
      if (d == missing_ || d == gap_) continue;
      if (d == '~' && last >= 0 && column_format_[column] == format_numeric) {
        skip_blanks();
        int e = get();
        std::uint32_t hi = e >= 0 ? symbol(e, column) : 0;
        if (!hi) alien(e);
        for (int b = __builtin_ctz(standard_[last]); b < 32 && b <= __builtin_ctz(hi); ++b) set |= 1u << b;
        continue;
      }
      std::uint32_t s = symbol(d, column);
      if (!s) alien(d);
      if (s == 0xFFFFFFFFu && column_format_[column] == format_protein) continue;
      set |= s;
      last = d;
    }
    if (set) { cell.kind = CellKind::states; cell.set = set; }
    return cell;
  }
  if (c == missing_) return cell;
  if (c == gap_) { cell.kind = CellKind::gap; return cell; }
  if (c == match_ && match_ >= 0) {
    if (first_row_ < 0 || taxon == first_row_) fail("the match character cannot be used in the first row");
    const auto& first = m_.rows[first_row_];
    if (first.size() <= static_cast<std::size_t>(column)) fail("match character before the first row has char. " + std::to_string(column));
    return first[column];
  }
  std::uint32_t s = c >= 0 ? symbol(c, column) : 0;
  if (!s) alien(c);
  if (s == 0xFFFFFFFFu && column_format_[column] == format_protein) return cell;
  cell.kind = CellKind::states;
  cell.set = s;
  return cell;
}

int NexusReader::taxon_index(const std::string& name, std::unordered_map<std::string, int>& index, int ntax, bool may_add) {
  auto it = index.find(name);
  if (it != index.end()) return it->second;
  if (!may_add) fail("'" + shown(name) + "' is not among the taxa of the file (is the row before longer than NCHAR?)");
  int t = static_cast<int>(m_.taxa.size());
  if (t >= ntax) fail("'" + shown(name) + "' would be taxon " + std::to_string(t + 1) + " of NTAX=" + std::to_string(ntax) + " (is a row longer than NCHAR?)");
  m_.taxa.push_back(name);
  index.emplace(name, t);
  return t;
}

void NexusReader::read_matrix(int ntax, int nchar) {
  m_.nchar = nchar;
  m_.taxa.clear();
  m_.rows.assign(ntax, {});
  std::unordered_map<std::string, int> index;
  bool fixed = !taxlabels_.empty() && static_cast<int>(taxlabels_.size()) == ntax;
  if (fixed) {
    for (int t = 0; t < ntax; ++t) {
      m_.taxa.push_back(taxlabels_[t]);
      if (!index.emplace(taxlabels_[t], t).second) fail("taxon '" + shown(taxlabels_[t]) + "' appears twice in TAXLABELS");
    }
  } else if (!labels_) {
    fail("NOLABELS needs a TAXA block with the names");
  }
  std::vector<int> filled(ntax, 0);
  std::vector<char> seen(ntax, 0);
  int rows_read = 0;
  auto next_taxon = [&]() -> int {
    taxon_.clear();
    if (!labels_) {
      if (first_row_ < 0) first_row_ = 0;
      return rows_read % ntax;
    }
    Token n = word();
    if (n.eof) fail("end of file inside MATRIX (missing ';')");
    if (!n.quoted && is_punct(n.text[0])) fail("expected a taxon name, found '" + shown(n.text) + "'");
    int t = taxon_index(n.text, index, ntax, !fixed);
    taxon_ = n.text;
    if (first_row_ < 0) first_row_ = t;
    return t;
  };
  if (!interleave_) {
    for (int r = 0; r < ntax; ++r) {
      skip_blanks();
      if (peek() == ';') {
        taxon_.clear();
        fail("MATRIX ends after " + std::to_string(r) + " of " + std::to_string(ntax) + " taxa");
      }
      int t = next_taxon();
      if (seen[t]) fail("taxon appears twice in the matrix");
      seen[t] = 1;
      ++rows_read;
      auto& row = m_.rows[t];
      row.reserve(nchar);
      for (int c = 0; c < nchar; ++c) {
        int line = line_;
        skip_blanks();
        int d = peek();
        if (d < 0 || d == ';') fail("row has " + std::to_string(c) + " characters, " + std::to_string(nchar) + " expected");
        // A new line that starts with what can't be a cell is the next row: this one
        // is too short.
        if (c > 0 && line_ != line && !could_be_cell(d, c))
          fail("row is too short: " + std::to_string(c) + " characters, " + std::to_string(nchar) + " expected");
        row.push_back(read_cell(t, c));
      }
      // What follows a full row on its line is the next taxon, or the row is too long.
      skip_blanks(true);
      int d = peek();
      if (nchar > 0 && d >= 0 && d != '\n' && d != '\r' && d != ';' && could_be_cell(d, nchar - 1) && !next_word_is_taxon(index))
        fail("row is too long: more than " + std::to_string(nchar) + " characters");
    }
  } else {
    // Pages of rows; each row runs to the end of its line.
    while (true) {
      skip_blanks();
      int d = peek();
      if (d < 0) fail("end of file inside MATRIX (missing ';')");
      if (d == ';') break;
      int t = next_taxon();
      ++rows_read;
      auto& row = m_.rows[t];
      while (true) {
        skip_blanks(true);
        int e = peek();
        if (e < 0 || e == '\n' || e == '\r' || e == ';') break;
        if (filled[t] >= nchar) fail("row has more than " + std::to_string(nchar) + " characters");
        row.push_back(read_cell(t, filled[t]));
        ++filled[t];
      }
    }
    taxon_.clear();
    if (static_cast<int>(m_.taxa.size()) < ntax) {
      fail("MATRIX has " + std::to_string(m_.taxa.size()) + " of " + std::to_string(ntax) + " taxa");
    }
    for (int t = 0; t < ntax; ++t) {
      if (filled[t] != nchar) {
        taxon_ = m_.taxa[t];
        fail("row has " + std::to_string(filled[t]) + " characters, " + std::to_string(nchar) + " expected");
      }
    }
  }
  taxon_.clear();
  skip_blanks();
  if (peek() != ';') fail("expected ';' at the end of MATRIX (more rows than NTAX=" + std::to_string(ntax) + "?)");
  get();
  // Segments: runs of equal format.
  m_.segments.clear();
  for (int c = 0; c < nchar; ++c) {
    if (m_.segments.empty() || m_.segments.back().format != column_format_[c]) m_.segments.push_back({column_format_[c], c, 0});
    ++m_.segments.back().count;
  }
}

void NexusReader::read_trees_block() {
  std::size_t body = p_;
  while (true) {
    std::size_t cmd_start = p_;
    Token k = word();
    if (k.eof) fail("end of file inside block TREES (missing END;)");
    std::string cmd = upper(k.text);
    if (cmd == "END" || cmd == "ENDBLOCK") {
      trees_.text = std::string(t_.substr(body, cmd_start - body));
      block_end_or_eof("TREES");
      return;
    }
    if (cmd == ";") continue;
    if (cmd == "TRANSLATE") {
      while (true) {
        Token key = word();
        if (key.eof) fail("end of file in TRANSLATE");
        if (key.text == ";" && !key.quoted) break;
        if (key.text == "," && !key.quoted) continue;
        Token name = word();
        if (name.eof || (!name.quoted && is_punct(name.text[0]))) fail("TRANSLATE: no name for '" + shown(key.text) + "'");
        trees_.translate.emplace_back(key.text, xread_taxon_name(name.text));
      }
    } else if (cmd == "TREE" || cmd == "UTREE") {
      Token name = word();
      if (name.text == "*") name = word();
      if (name.eof) fail("end of file in TREE");
      expect("=");
      // With a TRANSLATE table the text is kept as written (a [&R] comment included).
      // Without one, the tree is rewritten token by token, comments dropped, and each
      // taxon label takes the form the matrix gave the name, so that 'Homo sapiens'
      // and Gorilla-gorilla find Homo_sapiens and Gorilla_gorilla.
      const bool rename = trees_.translate.empty();
      while (peek() >= 0 && peek() <= 32) get();
      std::size_t start = p_;
      std::string tree;
      bool taxon_place = true, last_word = false;
      while (true) {
        Token w = word();
        if (w.eof) fail("end of file in TREE " + shown(name.text) + " (missing ';')");
        const bool punct = !w.quoted && w.text.size() == 1 && is_punct(w.text[0]);
        if (punct) {
          tree += w.text;
          if (w.text == ";") break;
          taxon_place = w.text == "(" || w.text == ",";
          last_word = false;
          continue;
        }
        if (last_word) tree += ' ';
        if (taxon_place && rename) {
          tree += xread_taxon_name(w.text);
        } else if (w.quoted) {
          tree += '\'';
          for (char c : w.text) tree += c == '\'' ? std::string("''") : std::string(1, c);
          tree += '\'';
        } else {
          tree += w.text;
        }
        taxon_place = false;
        last_word = true;
      }
      if (!rename) tree = std::string(t_.substr(start, p_ - start));
      trees_.trees.emplace_back(name.text, tree);
    } else {
      skip_command();
    }
  }
}

}  // namespace

ImportResult nexus_to_xread(std::string_view text, const std::string& file, const ImportOptions& opt) {
  NexusReader reader(text, file);
  return reader.run(opt);
}

}  // namespace qax::dataset

namespace qax::dataset {

namespace {
bool all_digits(const std::string& t) {
  return !t.empty() && t.size() < 10 && std::all_of(t.begin(), t.end(), [](char c) { return std::isdigit(static_cast<unsigned char>(c)); });
}
}  // namespace

// CHARLABELS name name ... ;  or  CHARSTATELABELS N name / state state, N name, ... ;
void NexusReader::read_char_labels(bool with_states) {
  int next = 0;
  while (true) {
    Token k = word();
    if (k.eof) fail("end of file in character labels (missing ';')");
    if (!k.quoted && k.text == ";") return;
    if (!k.quoted && k.text == ",") continue;
    int c = next;
    if (with_states) {
      if (!all_digits(k.text)) fail("expected a character number in CHARSTATELABELS, found '" + shown(k.text) + "'");
      c = std::stoi(k.text) - 1;
      k = word();
    }
    if (c < 0 || c >= 100000000) fail("character number out of range in labels");
    if (static_cast<int>(sets_.char_names.size()) <= c) sets_.char_names.resize(c + 1);
    if (static_cast<int>(sets_.state_names.size()) <= c) sets_.state_names.resize(c + 1);
    next = c + 1;
    if (!(!k.quoted && (k.text == "/" || k.text == "," || k.text == ";"))) {
      sets_.char_names[c] = k.text;
      k = word();
    }
    if (!k.quoted && k.text == "/") {
      while (true) {
        Token st = word();
        if (st.eof) fail("end of file in state labels");
        if (!st.quoted && (st.text == "," || st.text == ";")) { k = st; break; }
        sets_.state_names[c].push_back(st.text);
      }
    }
    if (!k.quoted && k.text == ";") return;
  }
}

// STATELABELS N state state ..., N ... ;
void NexusReader::read_state_labels() {
  while (true) {
    Token k = word();
    if (k.eof) fail("end of file in STATELABELS (missing ';')");
    if (!k.quoted && k.text == ";") return;
    if (!k.quoted && k.text == ",") continue;
    if (!all_digits(k.text)) fail("expected a character number in STATELABELS, found '" + shown(k.text) + "'");
    int c = std::stoi(k.text) - 1;
    if (c < 0 || c >= 100000000) fail("character number out of range in STATELABELS");
    if (static_cast<int>(sets_.state_names.size()) <= c) sets_.state_names.resize(c + 1);
    if (static_cast<int>(sets_.char_names.size()) <= c) sets_.char_names.resize(c + 1);
    while (true) {
      Token st = word();
      if (st.eof) fail("end of file in STATELABELS");
      if (!st.quoted && (st.text == "," || st.text == ";")) {
        if (st.text == ";") return;
        break;
      }
      sets_.state_names[c].push_back(st.text);
    }
  }
}

// A character list up to "," or ";" (which sets `ended`): numbers from 1, ranges
// "a-b", "a-." and "a-b\s", "all", "." and names of character sets.
std::vector<int> NexusReader::read_char_list(bool& ended) {
  std::vector<int> items;
  int n = m_.nchar > 0 ? m_.nchar : sets_.nchar;
  auto number = [&](const std::string& t) -> int {
    if (t == ".") return n;
    if (!all_digits(t)) fail("expected a character number, found '" + shown(t) + "'");
    return std::stoi(t);
  };
  std::vector<std::string> words;
  while (true) {
    Token k = word();
    if (k.eof) fail("end of file in a character list (missing ';')");
    if (!k.quoted && (k.text == "," || k.text == ";")) { ended = k.text == ";"; break; }
    words.push_back(k.text);
  }
  // "1 - 3" comes as three words: join them.
  std::vector<std::string> joined;
  for (std::size_t i = 0; i < words.size(); ++i) {
    if (words[i] == "-" && !joined.empty() && i + 1 < words.size()) { joined.back() += "-" + words[++i]; continue; }
    if (!joined.empty() && !joined.back().empty() && joined.back().back() == '-') { joined.back() += words[i]; continue; }
    if (words[i].size() > 1 && words[i][0] == '-' && !joined.empty()) { joined.back() += words[i]; continue; }
    joined.push_back(words[i]);
  }
  for (const std::string& w : joined) {
    std::string u = upper(w);
    if (u == "ALL") {
      for (int c = 0; c < n; ++c) items.push_back(c);
      continue;
    }
    bool found = false;
    for (const auto& [name, list] : sets_.charsets)
      if (upper(name) == u) { items.insert(items.end(), list.begin(), list.end()); found = true; }
    if (found) continue;
    std::size_t dash = w.find('-');
    int step = 1;
    std::string body = w;
    std::size_t slash = w.find('\\');
    if (slash != std::string::npos) {
      step = number(w.substr(slash + 1));
      body = w.substr(0, slash);
      if (step < 1) step = 1;
    }
    dash = body.find('-');
    int a = number(dash == std::string::npos ? body : body.substr(0, dash));
    int b = dash == std::string::npos ? a : number(body.substr(dash + 1));
    if (a < 1 || b > n || a > b) fail("character list item '" + shown(w) + "' out of range 1-" + std::to_string(n));
    for (int c = a; c <= b; c += step) items.push_back(c - 1);
  }
  std::sort(items.begin(), items.end());
  items.erase(std::unique(items.begin(), items.end()), items.end());
  return items;
}

// A taxon list up to ";": names, numbers from 1 and ranges.
std::vector<int> NexusReader::read_taxon_list() {
  std::vector<int> items;
  const std::vector<std::string>& taxa = m_.taxa.empty() ? taxlabels_ : m_.taxa;
  int n = static_cast<int>(taxa.size());
  while (true) {
    Token k = word();
    if (k.eof) fail("end of file in a taxon list (missing ';')");
    if (!k.quoted && k.text == ";") break;
    if (!k.quoted && k.text == ",") continue;
    int found = -1;
    for (int t = 0; t < n; ++t)
      if (taxa[t] == k.text || xread_taxon_name(taxa[t]) == xread_taxon_name(k.text)) found = t;
    if (found >= 0) { items.push_back(found); continue; }
    std::size_t dash = k.text.find('-');
    std::string a = dash == std::string::npos ? k.text : k.text.substr(0, dash);
    std::string b = dash == std::string::npos ? k.text : k.text.substr(dash + 1);
    if (b == ".") b = std::to_string(n);
    if (!all_digits(a) || !all_digits(b)) { note("taxon '" + shown(k.text) + "' of a TAXSET is not in the matrix"); continue; }
    for (int t = std::stoi(a); t <= std::stoi(b) && t <= n; ++t)
      if (t >= 1) items.push_back(t - 1);
  }
  std::sort(items.begin(), items.end());
  items.erase(std::unique(items.begin(), items.end()), items.end());
  return items;
}

// "value: list, value: list;" of TYPESET, CTYPE and WTSET (types or whole weights).
void NexusReader::read_assignments(const std::string& what, bool types) {
  int n = m_.nchar;
  if (sets_.type.size() < static_cast<std::size_t>(n)) sets_.type.resize(n, -1);
  if (sets_.weight.size() < static_cast<std::size_t>(n)) sets_.weight.resize(n, -1);
  while (true) {
    Token v = word();
    if (v.eof) fail("end of file in " + what);
    if (!v.quoted && v.text == ";") return;
    if (!v.quoted && v.text == ",") continue;
    expect(":");
    bool ended = false;
    std::vector<int> items = read_char_list(ended);
    std::string u = upper(v.text);
    if (types) {
      int t = u == "ORD" ? 1 : u == "UNORD" ? 0 : -1;
      if (t < 0) note("character type " + shown(v.text) + " of " + what + " not applied (" + std::to_string(items.size()) + " characters stay as they are)");
      else for (int c : items) sets_.type[c] = t;
    } else {
      char* end = nullptr;
      double w = std::strtod(v.text.c_str(), &end);
      if (end == v.text.c_str() || *end || !(w >= 0 && w <= 1000) || w != static_cast<int>(w))
        note("weight " + shown(v.text) + " of " + what + " not applied (only whole weights 0-1000)");
      else for (int c : items) sets_.weight[c] = static_cast<int>(w);
    }
    if (ended) return;
  }
}

// ASSUMPTIONS, SETS (and PAUP) blocks: types, weights, exclusions and sets.
void NexusReader::read_sets_block(const std::string& block) {
  if (!have_matrix_) {
    // Settings before the matrix would need its size: rare; said, not guessed.
    note("block " + block + " before the matrix: its settings are not applied");
    skip_block(block);
    notes_.pop_back();
    return;
  }
  int n = m_.nchar;
  sets_.excluded.resize(n, 0);
  while (true) {
    Token k = word();
    if (k.eof) fail("end of file inside block " + block + " (missing END;)");
    std::string cmd = upper(k.text);
    if (cmd == "END" || cmd == "ENDBLOCK") { block_end_or_eof(block); return; }
    if (cmd == ";") continue;
    if (cmd == "OPTIONS") {
      while (true) {
        Token a = word();
        if (a.eof) fail("end of file in OPTIONS");
        if (!a.quoted && a.text == ";") break;
        if (upper(a.text) == "DEFTYPE") {
          expect("=");
          std::string t = upper(word().text);
          if (t == "ORD") sets_.default_type = 1;
          else if (t == "UNORD") sets_.default_type = 0;
          else note("DEFTYPE=" + shown(t) + " not applied");
        } else {
          std::string opt = a.text;
          skip_blanks();
          if (peek() == '=') {
            get();
            opt += "=" + word().text;
          }
          note("OPTIONS " + shown(opt) + " not applied");
        }
      }
      continue;
    }
    bool named_set = cmd == "TYPESET" || cmd == "WTSET" || cmd == "EXSET" || cmd == "CHARSET" || cmd == "TAXSET";
    if (cmd == "CTYPE") {
      read_assignments("CTYPE", true);
      continue;
    }
    if (!named_set) {
      note("command " + shown(k.text) + " of block " + block + " not applied");
      skip_command();
      continue;
    }
    Token name = word();
    bool is_default = false;
    if (!name.quoted && name.text == "*") { is_default = true; name = word(); }
    Token eq = word();
    bool vector = false;
    if (!eq.quoted && eq.text == "(") {
      while (true) {
        Token a = word();
        if (a.eof) fail("end of file in " + cmd);
        if (!a.quoted && a.text == ")") break;
        if (upper(a.text) == "VECTOR") vector = true;
        else if (upper(a.text) != "STANDARD" && upper(a.text) != "CHARACTERS" && upper(a.text) != "TAXA") {
          note(cmd + " " + shown(name.text) + ": format " + shown(a.text) + " not read");
        }
      }
      eq = word();
    }
    if (eq.quoted || eq.text != "=") fail("expected '=' in " + cmd + " " + shown(name.text));
    bool applies = is_default || cmd == "CHARSET" || cmd == "TAXSET";
    if (!applies) {
      note(cmd + " " + shown(name.text) + " is not the default set (*): not applied");
      skip_command();
      continue;
    }
    if (cmd == "TYPESET") read_assignments("TYPESET " + name.text, true);
    else if (cmd == "WTSET" && vector) {
      sets_.weight.resize(n, -1);
      for (int c = 0;; ++c) {
        Token w = word();
        if (w.eof) fail("end of file in WTSET");
        if (!w.quoted && w.text == ";") break;
        if (c >= n) fail("WTSET " + shown(name.text) + " has more weights than characters");
        if (!all_digits(w.text)) { note("weight " + shown(w.text) + " of WTSET not applied"); continue; }
        sets_.weight[c] = std::stoi(w.text);
      }
    } else if (cmd == "WTSET") read_assignments("WTSET " + name.text, false);
    else if (cmd == "EXSET") {
      bool ended = false;
      while (!ended) for (int c : read_char_list(ended)) sets_.excluded[c] = 1;
    } else if (cmd == "CHARSET") {
      bool ended = false;
      std::vector<int> all;
      while (!ended) { auto part = read_char_list(ended); all.insert(all.end(), part.begin(), part.end()); }
      if (sets_.charsets.size() >= 32) note("CHARSET " + shown(name.text) + " not kept (32 character groups at most)");
      else sets_.charsets.emplace_back(name.text, all);
    } else {
      std::vector<int> taxa = read_taxon_list();
      if (sets_.taxsets.size() >= 32) note("TAXSET " + shown(name.text) + " not kept (32 taxon groups at most)");
      else sets_.taxsets.emplace_back(name.text, taxa);
    }
  }
}

}  // namespace qax::dataset
