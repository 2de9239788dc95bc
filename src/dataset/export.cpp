// export: the matrix in memory written as a NEXUS file (TAXA and CHARACTERS blocks).
// Polymorphisms are written in ( ), missing as ?, the data type from each character's
// format; a file written here reads back to the same cells.
#include <cstdio>
#include <map>
#include <vector>

#include "shell/file_access.h"
#include "dataset/dataset.h"
#include "dataset/import.h"
#include "shell/failure.h"
#include "shell/input.h"
#include "shell/output.h"

namespace qax::dataset {

namespace {

constexpr const char* dna_letters = "?AGRCMSVTWKDYHBN";  // by set of A=1 G=2 C=4 T=8
constexpr std::uint32_t dna_gap_bit = 16;
constexpr std::uint32_t protein_gap_bit = 1u << 21;

std::string nexus_name(const std::string& n) {
  bool plain = !n.empty();
  for (unsigned char c : n) if (!(std::isalnum(c) || c == '_' || c == '.')) plain = false;
  if (plain) return n;
  std::string q = "'";
  for (char c : n) { q += c; if (c == '\'') q += '\''; }
  return q + "'";
}

void put_cell(std::string& out, std::uint32_t s, std::uint32_t missing, std::uint8_t format) {
  if (s == missing) { out += '?'; return; }
  if (format == format_dna) {
    std::uint32_t bases = s & 15;
    if (bases && !(s & ~15u)) { out += dna_letters[bases]; return; }
    if (s == dna_gap_bit) { out += '-'; return; }
    if (!bases) { out += '?'; return; }
    out += '(';
    for (int b = 0; b < 4; ++b) if (s & (1u << b)) out += "AGCT"[b];
    if (s & dna_gap_bit) out += '-';  // a gap among the bases (gaps read as a state)
    out += ')';
    return;
  }
  const char* alphabet = format == format_protein ? protein_alphabet : numeric_alphabet;
  int limit = format == format_protein ? 21 : 32;
  if (format == format_protein && s == protein_gap_bit) { out += '-'; return; }
  if (format == format_protein) s &= (1u << 21) - 1;
  if (!s) { out += '?'; return; }
  if ((s & (s - 1)) == 0) { out += alphabet[__builtin_ctz(s)]; return; }
  out += '(';
  for (int b = 0; b < limit; ++b) if (s & (1u << b)) out += alphabet[b];
  out += ')';
}

// A NEXUS character list (numbers from 1, runs as ranges).
std::string nexus_list(const std::vector<int>& items) {
  std::string out;
  for (std::size_t i = 0; i < items.size();) {
    std::size_t j = i;
    while (j + 1 < items.size() && items[j + 1] == items[j] + 1) ++j;
    out += " " + std::to_string(items[i] + 1);
    if (j > i) out += "-" + std::to_string(items[j] + 1);
    i = j + 1;
  }
  return out;
}

// The settings a NEXUS reader can take back: types, weights and exclusions
// (ASSUMPTIONS), character and taxon groups (SETS). Empty when all are defaults.
std::string nexus_settings_blocks() {
  const Dataset& d = dataset;
  std::vector<int> ordered, excluded;
  std::map<int, std::vector<int>> weights;
  for (int c = 0; c < d.nchar; ++c) {
    if (d.chars[c].additive) ordered.push_back(c);
    if (!d.chars[c].active) excluded.push_back(c);
    if (d.chars[c].weight != 1) weights[d.chars[c].weight].push_back(c);
  }
  std::string x;
  if (!ordered.empty() || !excluded.empty() || !weights.empty()) {
    x += "\nBEGIN ASSUMPTIONS;\n";
    if (!ordered.empty()) x += "  TYPESET * types = ord:" + nexus_list(ordered) + ";\n";
    if (!weights.empty()) {
      x += "  WTSET * weights =";
      bool first = true;
      for (auto& [w, items] : weights) {
        x += (first ? " " : ", ") + std::to_string(w) + ":" + nexus_list(items);
        first = false;
      }
      x += ";\n";
    }
    if (!excluded.empty()) x += "  EXSET * inactive =" + nexus_list(excluded) + ";\n";
    x += "END;\n";
  }
  std::string sets;
  for (int g = 0; g < group_count; ++g) {
    std::vector<int> chars, taxa;
    for (int c = 0; c < d.nchar && c < static_cast<int>(d.character_groups.size()); ++c)
      if (d.character_groups[c] >> g & 1) chars.push_back(c);
    for (int t = 0; t < d.ntax && t < static_cast<int>(d.taxon_groups.size()); ++t)
      if (d.taxon_groups[t] >> g & 1) taxa.push_back(t);
    if (!chars.empty()) sets += "  CHARSET " + nexus_name(d.character_group_names[g]) + " =" + nexus_list(chars) + ";\n";
    if (!taxa.empty()) {
      sets += "  TAXSET " + nexus_name(d.taxon_group_names[g]) + " =";
      for (int t : taxa) sets += " " + nexus_name(d.taxon_names[t]);
      sets += ";\n";
    }
  }
  if (!sets.empty()) x += "\nBEGIN SETS;\n" + sets + "END;\n";
  return x;
}

}  // namespace

std::string dataset_to_nexus() {
  const Dataset& d = dataset;
  for (int c = 0; c < d.nchar; ++c) {
    std::uint8_t f = d.chars[c].format;
    if (f != format_numeric && f != format_dna && f != format_protein) {
      shell::error_exitf("Character %i is continuous or landmark: such data cannot be exported", c);
    }
  }
  std::string x = "#NEXUS\n\nBEGIN TAXA;\n  DIMENSIONS NTAX=" + std::to_string(d.ntax) + ";\n  TAXLABELS\n";
  std::size_t width = 0;
  std::vector<std::string> names;
  for (int t = 0; t < d.ntax; ++t) {
    names.push_back(nexus_name(d.taxon_names[t]));
    width = std::max(width, names.back().size());
    x += "    " + names.back() + "\n";
  }
  x += "  ;\nEND;\n\nBEGIN CHARACTERS;\n  DIMENSIONS NCHAR=" + std::to_string(d.nchar) + ";\n  FORMAT DATATYPE=";
  // Runs of equal format; the highest numeric state decides the symbols.
  struct Run { std::uint8_t format; int first, last; };
  std::vector<Run> runs;
  std::uint32_t numeric_bits = 0;
  std::uint32_t missing = d.missing_value();
  for (int c = 0; c < d.nchar; ++c) {
    std::uint8_t f = d.chars[c].format;
    if (runs.empty() || runs.back().format != f) runs.push_back({f, c, c});
    runs.back().last = c;
    if (f == format_numeric) {
      for (int t = 0; t < d.ntax; ++t) {
        std::uint32_t s = d.cell(t, c);
        if (s != missing) numeric_bits |= s;
      }
    }
  }
  auto type_name = [](std::uint8_t f) { return f == format_dna ? "DNA" : f == format_protein ? "PROTEIN" : "STANDARD"; };
  if (runs.size() > 1) {
    x += "MIXED(";
    for (std::size_t i = 0; i < runs.size(); ++i) {
      if (i) x += ",";
      x += std::string(type_name(runs[i].format)) + ":" + std::to_string(runs[i].first + 1) + "-" + std::to_string(runs[i].last + 1);
    }
    x += ")";
  } else {
    x += type_name(runs.empty() ? std::uint8_t{format_numeric} : runs[0].format);
  }
  x += " MISSING=? GAP=-";
  bool has_numeric = false;
  for (auto& r : runs) if (r.format == format_numeric) has_numeric = true;
  if (has_numeric) {
    int top = numeric_bits ? 31 - __builtin_clz(numeric_bits) : 1;
    if (top < 1) top = 1;
    x += " SYMBOLS=\"" + std::string(numeric_alphabet, top + 1) + "\"";
  }
  x += ";\n";
  // Character and state names.
  bool any_label = false;
  for (int c = 0; c < d.nchar; ++c)
    if (!d.character_names[c].empty() || (c < static_cast<int>(d.state_names.size()) && !d.state_names[c].empty())) any_label = true;
  if (any_label) {
    x += "  CHARSTATELABELS\n";
    bool first = true;
    for (int c = 0; c < d.nchar; ++c) {
      bool states = c < static_cast<int>(d.state_names.size()) && !d.state_names[c].empty();
      if (d.character_names[c].empty() && !states) continue;
      x += first ? "    " : ",\n    ";
      first = false;
      x += std::to_string(c + 1) + " " + nexus_name(d.character_names[c].empty() ? "char" + std::to_string(c) : d.character_names[c]);
      if (states) {
        x += " /";
        for (const std::string& st : d.state_names[c]) x += " " + nexus_name(st);
      }
    }
    x += "\n  ;\n";
  }
  x += "  MATRIX\n";
  for (int t = 0; t < d.ntax; ++t) {
    x += "    " + names[t];
    x.append(width + 2 - names[t].size(), ' ');
    for (int c = 0; c < d.nchar; ++c) put_cell(x, d.cell(t, c), missing, d.chars[c].format);
    x += '\n';
  }
  x += "  ;\nEND;\n";
  return x + nexus_settings_blocks();
}

}  // namespace qax::dataset
