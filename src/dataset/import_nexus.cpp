// NEXUS reader: TAXA, DATA/CHARACTERS and TREES blocks; other blocks are skipped.
// Comments in [ ] (nested) count as blanks everywhere; keywords ignore case.
#include <algorithm>
#include <array>
#include <cctype>
#include <cstring>
#include <unordered_map>

#include "dataset/dataset.h"
#include "dataset/import.h"

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
  ImportedCell read_cell(int taxon, int column);
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
      bool digit = false;
      positional_ = false;
      for (char c : expanded) {
        if (std::isdigit(static_cast<unsigned char>(c))) digit = true;
        if (!symbol_set(static_cast<unsigned char>(c), format_numeric)) positional_ = true;
      }
      if (!digit) positional_ = true;
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
        skip_blanks();
        int d = peek();
        if (d < 0 || d == ';') fail("row has " + std::to_string(c) + " characters, " + std::to_string(nchar) + " expected");
        row.push_back(read_cell(t, c));
      }
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
