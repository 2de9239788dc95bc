// FASTA and relaxed PHYLIP readers: aligned sequences whose type is guessed from
// the symbols (see guess_format).
#include <algorithm>
#include <cctype>
#include <string>

#include "dataset/dataset.h"
#include "dataset/import.h"

namespace qax::dataset {

namespace {

struct Line {
  std::string_view text;  // without the line end
  int number;             // from 1
};

std::vector<Line> split_lines(std::string_view t) {
  std::vector<Line> lines;
  std::size_t start = 0;
  int n = 1;
  for (std::size_t i = 0; i <= t.size(); ++i) {
    if (i == t.size() || t[i] == '\n') {
      std::string_view l = t.substr(start, i - start);
      if (!l.empty() && l.back() == '\r') l.remove_suffix(1);
      if (i < t.size() || !l.empty()) lines.push_back({l, n});
      start = i + 1;
      ++n;
    }
  }
  return lines;
}

bool blank(std::string_view l) {
  for (unsigned char c : l) if (c > 32) return false;
  return true;
}

std::string_view trim(std::string_view l) {
  while (!l.empty() && static_cast<unsigned char>(l.front()) <= 32) l.remove_prefix(1);
  while (!l.empty() && static_cast<unsigned char>(l.back()) <= 32) l.remove_suffix(1);
  return l;
}

void append_symbols(std::string& seq, std::string_view l) {
  for (unsigned char c : l) if (c > 32) seq += static_cast<char>(c);
}

// Common end of both readers: type guess, cells, xread text.
ImportResult sequences_to_xread(const std::vector<std::string>& names, const std::vector<std::string>& seqs,
                                const std::string& file, const ImportOptions& opt) {
  ImportedMatrix m;
  m.title = title_from_file(file);
  m.taxa = names;
  m.nchar = seqs.empty() ? 0 : static_cast<int>(seqs[0].size());
  std::uint8_t format = guess_format(seqs);
  m.segments.push_back({format, 0, m.nchar});
  m.rows.resize(seqs.size());
  for (std::size_t t = 0; t < seqs.size(); ++t) {
    sequence_cells(seqs[t], format, t ? &m.rows[0] : nullptr, m.rows[t], file, names[t]);
  }
  ImportResult r;
  r.xread = matrix_to_xread(m, file, opt, &r.notes);
  r.ntax = static_cast<int>(names.size());
  r.nchar = m.nchar;
  r.notes.push_back(file + ": sequences read as " +
                    std::string(format == format_dna ? "dna" : format == format_protein ? "protein" : "numeric data"));
  return r;
}

}  // namespace

ImportResult fasta_to_xread(std::string_view text, const std::string& file, const ImportOptions& opt) {
  std::vector<std::string> names, seqs;
  int name_line = 0;
  for (const Line& l : split_lines(text)) {
    std::string_view s = trim(l.text);
    if (s.empty() || s.front() == ';') continue;
    if (s.front() == '>') {
      std::string_view n = trim(s.substr(1));
      if (n.empty()) import_error("Error reading FASTA file " + file + ", line " + std::to_string(l.number) + ": sequence without a name");
      names.emplace_back(n);
      seqs.emplace_back();
      name_line = l.number;
      continue;
    }
    if (names.empty()) {
      import_error("Error reading FASTA file " + file + ", line " + std::to_string(l.number) +
                   ": expected '>' and a taxon name (this does not look like a FASTA file)");
    }
    append_symbols(seqs.back(), s);
  }
  (void)name_line;
  if (names.empty()) import_error("Error reading FASTA file " + file + ": no sequences");
  // A protein sequence may end with "*", the stop codon: it is not a character.
  for (std::string& q : seqs)
    if (!q.empty() && q.back() == '*') q.pop_back();
  for (std::size_t t = 0; t < names.size(); ++t) {
    if (seqs[t].empty()) import_error("Error reading FASTA file " + file + ", taxon " + names[t] + ": empty sequence");
    if (seqs[t].size() != seqs[0].size()) {
      import_error("Error reading FASTA file " + file + ", taxon " + names[t] + ": sequence of " + std::to_string(seqs[t].size()) +
                   " characters, but " + names[0] + " has " + std::to_string(seqs[0].size()) + " (sequences must be aligned)");
    }
  }
  return sequences_to_xread(names, seqs, file, opt);
}

bool looks_like_phylip(std::string_view text) {
  std::size_t i = 0;
  while (i < text.size() && (text[i] == ' ' || text[i] == '\t' || text[i] == '\n' || text[i] == '\r')) ++i;
  for (int k = 0; k < 2; ++k) {
    std::size_t s = i;
    while (i < text.size() && std::isdigit(static_cast<unsigned char>(text[i]))) ++i;
    if (i == s) return false;
    std::size_t b = i;
    while (i < text.size() && (text[i] == ' ' || text[i] == '\t')) ++i;
    if (k == 0 && i == b) return false;
  }
  // After the counts: end of line, or option letters.
  return i >= text.size() || text[i] == '\n' || text[i] == '\r' || std::isalpha(static_cast<unsigned char>(text[i]));
}

namespace {

// Reads the rows after the header, as sequential (interleaved = false) or as
// interleaved; returns an error text, empty when the layout fits.
std::string phylip_rows(const std::vector<Line>& lines, int ntax, int nchar, bool interleaved, bool strict,
                        std::vector<std::string>& names, std::vector<std::string>& seqs) {
  names.assign(ntax, {});
  seqs.assign(ntax, {});
  std::size_t i = 1;
  auto next_line = [&]() -> const Line* {
    while (i < lines.size() && blank(lines[i].text)) ++i;
    return i < lines.size() ? &lines[i++] : nullptr;
  };
  auto at = [](const Line* l) { return "line " + std::to_string(l->number); };
  for (int t = 0; t < ntax; ++t) {
    const Line* l = next_line();
    if (!l) return "only " + std::to_string(t) + " of " + std::to_string(ntax) + " taxa";
    std::string_view s = trim(l->text);
    std::size_t sp = 0;
    if (strict) {
      // Strict layout: the name fills the first ten columns, blanks included.
      std::string_view raw = l->text;
      sp = std::min<std::size_t>(10, raw.size());
      names[t] = std::string(trim(raw.substr(0, sp)));
      append_symbols(seqs[t], raw.substr(sp));
    } else {
      while (sp < s.size() && static_cast<unsigned char>(s[sp]) > 32) ++sp;
      names[t] = std::string(s.substr(0, sp));
      append_symbols(seqs[t], s.substr(sp));
    }
    if (!interleaved) {
      while (static_cast<int>(seqs[t].size()) < nchar) {
        const Line* c = next_line();
        if (!c) return "taxon " + names[t] + ": " + std::to_string(seqs[t].size()) + " of " + std::to_string(nchar) + " characters";
        append_symbols(seqs[t], c->text);
      }
      if (static_cast<int>(seqs[t].size()) != nchar) {
        return at(l) + ", taxon " + names[t] + ": " + std::to_string(seqs[t].size()) + " characters, " + std::to_string(nchar) + " expected";
      }
    }
  }
  if (interleaved) {
    int t = 0;
    while (const Line* l = next_line()) {
      if (static_cast<int>(seqs[t].size()) >= nchar) {
        return at(l) + ": taxon " + names[t] + " would have more than " + std::to_string(nchar) + " characters";
      }
      append_symbols(seqs[t], l->text);
      t = (t + 1) % ntax;
    }
    for (int u = 0; u < ntax; ++u) {
      if (static_cast<int>(seqs[u].size()) != nchar) {
        return "taxon " + names[u] + ": " + std::to_string(seqs[u].size()) + " characters, " + std::to_string(nchar) + " expected";
      }
    }
  } else if (const Line* l = next_line()) {
    return at(l) + ": text after the last of " + std::to_string(ntax) + " taxa";
  }
  return {};
}

}  // namespace

ImportResult phylip_to_xread(std::string_view text, const std::string& file, const ImportOptions& opt) {
  const std::string where = "Error reading PHYLIP file " + file;
  if (!looks_like_phylip(text)) import_error(where + ": the first line must hold the numbers of taxa and characters");
  std::vector<Line> lines = split_lines(text);
  std::size_t first = 0;
  while (first < lines.size() && blank(lines[first].text)) ++first;
  lines.erase(lines.begin(), lines.begin() + static_cast<long>(first));
  long ntax = 0, nchar = 0;
  {
    std::string_view h = trim(lines[0].text);
    std::size_t i = 0;
    auto num = [&](long& v) {
      while (i < h.size() && (h[i] == ' ' || h[i] == '\t')) ++i;
      std::size_t s = i;
      while (i < h.size() && std::isdigit(static_cast<unsigned char>(h[i])) && i - s < 10) v = v * 10 + (h[i++] - '0');
      if (i < h.size() && std::isdigit(static_cast<unsigned char>(h[i]))) import_error(where + ": number too large on line 1");
    };
    num(ntax);
    num(nchar);
  }
  if (ntax < 4) import_error(where + ": a matrix needs at least 4 taxa (line 1 says " + std::to_string(ntax) + ")");
  if (nchar < 1) import_error(where + ": no characters (line 1 says 0)");
  if (ntax > static_cast<long>(lines.size())) {
    import_error(where + ": line 1 says " + std::to_string(ntax) + " taxa, but the file has " + std::to_string(lines.size() - 1) + " more lines");
  }
  std::vector<std::string> names, seqs;
  const int nt = static_cast<int>(ntax), nc = static_cast<int>(nchar);
  // Names end at the first blank (relaxed layout), or fill ten columns (strict layout,
  // where names may hold blanks); rows are sequential or interleaved.
  std::string seq_error = phylip_rows(lines, nt, nc, false, false, names, seqs);
  if (!seq_error.empty()) {
    std::string int_error = phylip_rows(lines, nt, nc, true, false, names, seqs);
    if (!int_error.empty() && !phylip_rows(lines, nt, nc, false, true, names, seqs).empty() &&
        !phylip_rows(lines, nt, nc, true, true, names, seqs).empty()) {
      if (int_error == seq_error) import_error(where + ": " + int_error);
      import_error(where + ": " + int_error + " (read as interleaved; as sequential: " + seq_error + ")");
    }
  }
  return sequences_to_xread(names, seqs, file, opt);
}

}  // namespace qax::dataset
