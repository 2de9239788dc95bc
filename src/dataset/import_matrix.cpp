// The neutral imported matrix: names, type guess, symbols, and its xread text.
#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <unordered_map>

#include "dataset/dataset.h"
#include "dataset/import.h"

namespace qax::dataset {

void import_error(const std::string& message) {
  if (import_fail) import_fail(message);
  std::abort();  // a failure function must not return
}

std::string xread_taxon_name(std::string_view name) {
  std::string s;
  for (unsigned char c : name) {
    bool keep = std::isalnum(c) || c == '_' || c == '.';
    s += keep ? static_cast<char>(c) : '_';
  }
  // Dots in a run, and runs of four underscores, mean something to xread.
  std::string t;
  for (std::size_t i = 0; i < s.size();) {
    if (s[i] == '.' && i + 1 < s.size() && s[i + 1] == '.') {
      while (i < s.size() && s[i] == '.') ++i;
      t += '_';
      continue;
    }
    if (s[i] == '_') {
      std::size_t j = i;
      while (j < s.size() && s[j] == '_') ++j;
      t.append(j - i >= 4 ? 1 : j - i, '_');
      i = j;
      continue;
    }
    t += s[i++];
  }
  if (t.empty()) t.push_back('_');
  return t;
}

std::string title_from_file(const std::string& file) {
  std::string base = file;
  std::size_t slash = base.find_last_of('/');
  if (slash != std::string::npos) base = base.substr(slash + 1);
  std::size_t dot = base.find_last_of('.');
  if (dot != std::string::npos && dot > 0) base = base.substr(0, dot);
  std::string t;
  for (char c : base) t += (c == '\'' || static_cast<unsigned char>(c) < 32) ? '_' : c;
  if (t.size() > 150) t.resize(150);
  return t;
}

namespace {

// IUPAC letter of each dna set (bits A=0, G=1, C=2, T=3); index 0 is never used.
constexpr const char* dna_letters = "?AGRCMSVTWKDYHBN";

void put_cell(std::string& out, const ImportedCell& c, std::uint8_t format) {
  if (c.kind == CellKind::missing) { out += '?'; return; }
  if (c.kind == CellKind::gap) { out += '-'; return; }
  std::uint32_t s = c.set;
  if (format == format_dna) {
    if (!(s & 16) || !(s & 15)) { out += dna_letters[s & 15]; return; }
    out += '[';  // bases and a gap
    for (int b = 0; b < 4; ++b) if (s & (1u << b)) out += "AGCT"[b];
    out += "-]";
    return;
  }
  const char* alphabet = format == format_protein ? protein_alphabet : numeric_alphabet;
  if ((s & (s - 1)) == 0) { out += alphabet[__builtin_ctz(s)]; return; }
  if (format == format_protein) {
    // B is D or N, Z is E or Q.
    if (s == ((1u << 2) | (1u << 11))) { out += 'B'; return; }
    if (s == ((1u << 3) | (1u << 13))) { out += 'Z'; return; }
  }
  out += '[';
  for (int b = 0; b < 32; ++b) if (s & (1u << b)) out += alphabet[b];
  out += ']';
}

}  // namespace

std::string matrix_to_xread(const ImportedMatrix& m, const std::string& file, const ImportOptions& opt,
                            std::vector<std::string>* notes) {
  int ntax = static_cast<int>(m.taxa.size());
  if (ntax < 4) import_error("Error reading " + file + ": a matrix needs at least 4 taxa (found " + std::to_string(ntax) + ")");
  if (m.nchar < 1) import_error("Error reading " + file + ": the matrix has no characters");
  std::vector<std::string> names;
  names.reserve(ntax);
  std::unordered_map<std::string, int> seen;
  for (int t = 0; t < ntax; ++t) {
    std::string n = xread_taxon_name(m.taxa[t]);
    auto [it, fresh] = seen.emplace(n, t);
    if (!fresh) {
      std::string what = m.taxa[it->second] == m.taxa[t] ? "\"" + m.taxa[t] + "\" appears twice"
          : "\"" + m.taxa[it->second] + "\" and \"" + m.taxa[t] + "\" both become " + n;
      import_error("Error reading " + file + ": duplicate taxon name: " + what);
    }
    if (notes && n != m.taxa[t]) notes->push_back("Taxon name \"" + m.taxa[t] + "\" read as " + n);
    names.push_back(std::move(n));
  }
  // Widest state of numeric runs and the formats present decide the cell width.
  bool has_dna = false, has_protein = false, has_numeric = false;
  std::uint32_t numeric_bits = 0;
  for (const auto& seg : m.segments) {
    if (seg.count == 0) continue;
    if (seg.format == format_dna) has_dna = true;
    else if (seg.format == format_protein) has_protein = true;
    else {
      has_numeric = true;
      for (int t = 0; t < ntax; ++t)
        for (int c = seg.first; c < seg.first + seg.count; ++c)
          if (m.rows[t][c].kind == CellKind::states) numeric_bits |= m.rows[t][c].set;
    }
  }
  std::string x;
  std::size_t name_width = 0;
  for (auto& n : names) name_width = std::max(name_width, n.size());
  x.reserve(static_cast<std::size_t>(ntax) * (m.nchar + name_width + 2) + 256);
  // The cells must be wide enough for the data: the width is raised when it is not,
  // never lowered, so the user's own nstates setting stays usable after an import
  // (the blocks of the matrix say dna, proteins or numbers themselves).
  (void)has_dna;
  const int needed = has_protein || (numeric_bits >> 16) != 0 ? 4 : (numeric_bits >> 8) != 0 ? 2 : 1;
  if (needed > opt.cell_width) x += needed == 4 ? "nstates 32;\n" : "nstates 16;\n";
  // Long names are kept whole: truncated, two of them could become one taxon.
  if (static_cast<int>(name_width) > opt.name_length) {
    constexpr std::size_t longest = 2048;
    std::size_t raise = std::min(name_width, longest);
    x += "taxname +" + std::to_string(raise) + ";\n";
    if (notes)
      notes->push_back("Taxon names of " + file + " are up to " + std::to_string(name_width) + " letters: the limit (" +
                       std::to_string(opt.name_length) + ") is raised to " + std::to_string(raise));
  }
  x += "xread\n'" + m.title + "'\n" + std::to_string(m.nchar) + " " + std::to_string(ntax) + "\n";
  for (const auto& seg : m.segments) {
    if (seg.count == 0) continue;
    const char* gaps = opt.gaps_as_state ? " gaps" : " nogaps";
    x += seg.format == format_dna ? std::string("&[dna") + gaps + "]\n"
         : seg.format == format_protein ? std::string("&[proteins") + gaps + "]\n" : std::string("&[num]\n");
    for (int t = 0; t < ntax; ++t) {
      x += names[t];
      x.append(name_width + 1 - names[t].size(), ' ');
      for (int c = seg.first; c < seg.first + seg.count; ++c) put_cell(x, m.rows[t][c], seg.format);
      x += '\n';
    }
  }
  x += ";\n";
  return x;
}

// ---- raw sequences (FASTA, PHYLIP) ----

namespace {

bool is_nucleotide_code(char u) { return std::strchr("ACGTURYSWKMBDHVNX", u) != nullptr; }

}  // namespace

std::uint8_t guess_format(const std::vector<std::string>& sequences) {
  long letters = 0, plain = 0;
  bool digits = false, all_nucleotide = true;
  for (const auto& s : sequences) {
    for (unsigned char c : s) {
      if (std::isdigit(c)) digits = true;
      if (!std::isalpha(c)) continue;
      char u = static_cast<char>(std::toupper(c));
      ++letters;
      if (!is_nucleotide_code(u)) all_nucleotide = false;
      if (std::strchr("ACGTUN", u)) ++plain;
    }
  }
  if (digits) return format_numeric;
  if (all_nucleotide && 2 * plain >= letters) return format_dna;
  return format_protein;
}

// Set of one symbol of a format, 0 when the symbol is alien.
std::uint32_t symbol_set(unsigned char c, std::uint8_t format) {
  char u = static_cast<char>(std::toupper(c));
  if (format == format_dna) {
    switch (u) {
      case 'A': return 1; case 'G': return 2; case 'C': return 4; case 'T': case 'U': return 8;
      case 'R': return 3; case 'Y': return 12; case 'W': return 9; case 'S': return 6;
      case 'M': return 5; case 'K': return 10; case 'B': return 14; case 'D': return 11;
      case 'H': return 13; case 'V': return 7; case 'N': case 'X': return 15;
      default: return 0;
    }
  }
  if (format == format_protein) {
    if (u == 'B') return (1u << 2) | (1u << 11);
    if (u == 'Z') return (1u << 3) | (1u << 13);
    const char* p = u ? std::strchr(protein_alphabet, u) : nullptr;
    return p ? 1u << (p - protein_alphabet) : 0;
  }
  if (c >= '0' && c <= '9') return 1u << (c - '0');
  if (u >= 'A' && u <= 'V') return 1u << (u - 'A' + 10);
  return 0;
}

void sequence_cells(const std::string& seq, std::uint8_t format, const std::vector<ImportedCell>* first_row,
                    std::vector<ImportedCell>& out, const std::string& file, const std::string& taxon) {
  out.clear();
  out.reserve(seq.size());
  for (std::size_t i = 0; i < seq.size(); ++i) {
    unsigned char c = static_cast<unsigned char>(seq[i]);
    ImportedCell cell;
    if (c == '?' || (format == format_protein && (c == 'X' || c == 'x' || c == '*'))) {
      cell.kind = CellKind::missing;
    } else if (c == '-') {
      cell.kind = CellKind::gap;
    } else if (c == '.') {
      if (!first_row) import_error("Error reading " + file + ", taxon " + taxon + ": the match symbol '.' cannot be used in the first sequence");
      cell = (*first_row)[i];
    } else {
      cell.set = symbol_set(c, format);
      cell.kind = CellKind::states;
      if (!cell.set) {
        char buf[16];
        if (c > 32 && c < 127) std::snprintf(buf, sizeof buf, "'%c'", c);
        else std::snprintf(buf, sizeof buf, "code %d", c);
        import_error("Error reading " + file + ", taxon " + taxon + ": alien symbol " + buf + " at char. " + std::to_string(i) +
                     (format == format_dna ? " (read as dna)" : format == format_protein ? " (read as protein)" : " (read as numeric)"));
      }
    }
    out.push_back(cell);
  }
}

}  // namespace qax::dataset
