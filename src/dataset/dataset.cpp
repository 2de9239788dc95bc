// The one data set of the run, its life cycle and the symbol tables.
#include "dataset/dataset.h"

#include <cstdio>

#include "shell/arena.h"
#include "shell/failure.h"
#include "shell/output.h"

namespace qax::dataset {

Dataset dataset;

namespace {
std::vector<DatasetHook>& hooks() {
  static std::vector<DatasetHook> list;
  return list;
}
}  // namespace

void add_dataset_replaced_hook(DatasetHook hook) {
  for (DatasetHook h : hooks())
    if (h == hook) return;
  hooks().push_back(hook);
}

void dataset_clear() {
  for (DatasetHook h : hooks()) h();
  int& tag = shell::region_tags.data_matrix;
  if (tag > 0 && tag <= shell::arena.lock_count && shell::arena.lock_stack[tag - 1].tag == &tag) shell::ram_unlock(&tag);
  else tag = 0;  // the arena was claimed anew since: nothing to release
  Dataset& d = dataset;
  d.loaded = 0;
  d.ntax = d.nchar = 0;
  d.cells = nullptr;
  d.outgroup = 0;
  d.title.clear();
  d.taxon_names.clear();
  d.character_names.clear();
  d.taxon_active.clear();
  d.chars.clear();
  d.chars_file.clear();
  d.nblocks = 1;
  d.formats_seen = 0;
  d.block_names.clear();
  d.name_significant.clear();
  d.scales.clear();
  d.landmarks.clear();
  d.state_names.clear();
  d.taxon_groups.clear();
  d.character_groups.clear();
  d.taxon_group_names.clear();
  d.character_group_names.clear();
}

void reset_dataset_state() {
  dataset_clear();
  dataset = Dataset();
  build_symbol_table(format_numeric, dataset.cell_width);
}

void require_data() {
  if (!dataset.loaded) shell::error_exit("Must read data first");
}

// Symbol tables. Digits and letters are consecutive states in numeric reading; the
// letters of dna and protein reading are bits of their alphabets. Example (dna): 'R' is
// A or G = bit 0 | bit 1 = 0x03; with gaps as missing '-' reads as 'N' = 0x0F.
void build_symbol_table(int format, int width) {
  std::uint32_t* s = dataset.symbols;
  for (int i = 0; i < 256; ++i) s[i] = 0;
  std::uint32_t missing = width == 4 ? 0xFFFFFFFFu : ((1u << (8 * width)) - 1);
  int nbits = 8 * width;
  for (int i = 0; i < 10 && i < nbits; ++i) s['0' + i] = 1u << i;
  int letters = nbits - 10;
  if (format == format_numeric || format == format_continuous || format == format_landmark) {
    for (int i = 0; i < 22 && i < letters; ++i) {
      s['A' + i] = s['a' + i] = 1u << (10 + i);
    }
    s['-'] = missing;
    s['*'] = missing >> 1;
  } else if (format == format_dna) {
    struct { char c; std::uint32_t v; } dna[] = {
        {'A', 1}, {'G', 2}, {'C', 4}, {'T', 8}, {'U', 8}, {'R', 3}, {'Y', 12}, {'W', 9},
        {'S', 6}, {'M', 5}, {'K', 10}, {'B', 14}, {'D', 11}, {'H', 13}, {'V', 7}, {'N', 15}};
    for (auto& e : dna) {
      s[static_cast<unsigned char>(e.c)] = e.v;
      s[static_cast<unsigned char>(e.c + 32)] = e.v;
    }
    s['-'] = dataset.gaps_as_missing ? 15u : 16u;
    s['*'] = 0x7F;
  } else if (format == format_protein) {
    const char* alphabet = "ACDEFGHIKLMNPQRSTVWYU";
    for (int i = 0; alphabet[i]; ++i) {
      s[static_cast<unsigned char>(alphabet[i])] = 1u << i;
      s[static_cast<unsigned char>(alphabet[i] + 32)] = 1u << i;
    }
    s['B'] = s['b'] = s['D'] | s['N'];
    s['Z'] = s['z'] = s['E'] | s['Q'];
    s['X'] = s['x'] = missing;
    s['*'] = 0x1FFFFF;
    s['-'] = dataset.gaps_as_missing ? 0x1FFFFFu : (1u << 21);
  }
  s['?'] = missing;
}

namespace {
const char numeric_alphabet[] = "0123456789ABCDEFGHIJKLMNOPQRSTUV";
const char dna_alphabet[] = "AGCT-";
const char protein_alphabet[] = "ACDEFGHIKLMNPQRSTVWYU-";
}  // namespace

std::string state_text(int character, std::uint32_t value) {
  const Dataset& d = dataset;
  const CharacterRecord& r = d.chars[character];
  if (r.format == format_continuous) {
    if (value == continuous_missing) return "?";
    if (value == continuous_inapplicable) return "*";
    unsigned lo = value & 0xFFFF, hi = value >> 16;
    char buf[64];
    // nstates [ : values in the scale they were read in (stored = (x - shift) * factor).
    if (d.show_original_scale && character < static_cast<int>(d.scales.size())) {
      const ScaleRecord& s = d.scales[character];
      if (s.factor != 1.0 || s.shift != 0.0) {
        double a = lo / s.factor / 1000.0 + s.shift, b = hi / s.factor / 1000.0 + s.shift;
        if (lo == hi) std::snprintf(buf, sizeof buf, "%.3f", a);
        else std::snprintf(buf, sizeof buf, "%.3f-%.3f", a, b);
        return buf;
      }
    }
    if (lo == hi) std::snprintf(buf, sizeof buf, "%u.%03u", lo / 1000, lo % 1000);
    else std::snprintf(buf, sizeof buf, "%u.%03u-%u.%03u", lo / 1000, lo % 1000, hi / 1000, hi % 1000);
    return buf;
  }
  if (r.format == format_landmark) return "?";
  if (value == d.missing_value()) return "?";
  std::uint32_t star = r.format == format_dna ? 0x7Fu : r.format == format_protein ? 0x1FFFFFu : d.missing_value() >> 1;
  if (value == star) return "*";
  const char* alphabet = numeric_alphabet;
  int n = 32;
  if (r.format == format_dna) {
    alphabet = dna_alphabet;
    n = 5;
    // Sets of nucleotides without gap have IUPAC letters.
    static const char iupac[16] = {0, 'A', 'G', 'R', 'C', 'M', 'S', 'V', 'T', 'W', 'K', 'D', 'Y', 'H', 'B', 'N'};
    if (value < 16 && value) return std::string(1, iupac[value]);
  } else if (r.format == format_protein) {
    alphabet = protein_alphabet;
    n = 22;
  }
  std::string s;
  int count = 0;
  for (int i = 0; i < 32; ++i)
    if (value >> i & 1u) {
      s.push_back(i < n ? alphabet[i] : numeric_alphabet[i]);
      ++count;
    }
  if (count == 1) return s;
  return "[" + s + "]";
}

}  // namespace qax::dataset
