// Editing cells of the matrix in memory (xread =): set or add states of single cells, make
// random cells missing, and go back to the matrix as it was read. The first edit keeps a
// copy of the cells; reading or wiping the data drops it.
#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "dataset/dataset.h"
#include "dataset/dataset_commands.h"
#include "dataset/lists_bridge.h"
#include "shell/failure.h"
#include "shell/input.h"
#include "shell/output.h"

namespace qax::dataset {

using shell::error_exit;
using shell::error_exitf;

namespace {

struct Original {
  bool kept = false;
  bool hook = false;
  int ntax = 0, nchar = 0;
  std::vector<std::uint32_t> cells;
};
Original original;

void keep_original() {
  Dataset& d = dataset;
  if (!original.hook) {
    add_dataset_replaced_hook([] { original.kept = false; original.cells.clear(); });
    original.hook = true;
  }
  if (original.kept) return;
  original.ntax = d.ntax;
  original.nchar = d.nchar;
  original.cells.resize(static_cast<std::size_t>(d.ntax) * d.nchar);
  for (int t = 0; t < d.ntax; ++t)
    for (int c = 0; c < d.nchar; ++c) original.cells[static_cast<std::size_t>(t) * d.nchar + c] = d.cell(t, c);
  original.kept = true;
}

// A state set in the symbols of the data ("[..]" for several states), or for a continuous
// character a value or a range ("?" missing).
std::uint32_t read_cell_value(int c) {
  Dataset& d = dataset;
  int ch = shell::next_nonblank();
  if (ch == ';' || ch == EOF) error_exit("Expected a state after character and taxon");
  if (d.chars[c].format == format_continuous) {
    if (ch == '?') return continuous_missing;
    if (ch == '*') return continuous_inapplicable;
    shell::unread_char();
    const double lo = shell::read_real();
    double hi = lo;
    if (shell::accept_char('-')) hi = shell::read_real();
    if (!(lo >= 0 && hi >= 0 && lo <= 65.535 && hi <= 65.535)) error_exit("Continuous values must be 0-65.535");
    auto a = static_cast<std::uint32_t>(std::min(lo, hi) * 1000 + 0.5), b = static_cast<std::uint32_t>(std::max(lo, hi) * 1000 + 0.5);
    return a | b << 16;
  }
  if (d.chars[c].format == format_landmark) error_exit("Cannot edit landmark cells");
  auto symbol = [&](int s) {
    const std::uint32_t v = d.symbols[s & 0xFF];
    if (!v) error_exitf("Unknown state symbol '%c'", s);
    return v;
  };
  if (ch != '[') return symbol(ch);
  std::uint32_t v = 0;
  for (;;) {
    ch = shell::next_char();
    if (ch == ']') break;
    if (ch == ';' || ch == EOF) error_exit("Missing ] in polymorphism");
    if (std::isspace(ch)) continue;
    v |= symbol(ch);
  }
  return v ? v : d.missing_value();
}

void changed(int c) {
  dataset.chars[c].dirty = 1;
}

// "= ? Pc Pt": Pc percent of the active characters, chosen at random, each lose their
// entries in Pt percent of the active taxa, chosen at random for each character.
void random_missing() {
  Dataset& d = dataset;
  const double pc = shell::read_real(), pt = shell::read_real();
  if (!(pc >= 0 && pc <= 100 && pt >= 0 && pt <= 100)) error_exit("Percentages of characters and taxa must be 0-100");
  std::vector<int> chars, taxa;
  for (int c = 0; c < d.nchar; ++c) if (d.chars[c].active) chars.push_back(c);
  for (int t = 0; t < d.ntax; ++t)
    if (t >= static_cast<int>(d.taxon_active.size()) || d.taxon_active[t]) taxa.push_back(t);
  keep_original();
  auto shuffle = [](std::vector<int>& v) {
    for (std::size_t i = v.size(); i > 1; --i) std::swap(v[i - 1], v[static_cast<std::size_t>(std::rand()) % i]);
  };
  shuffle(chars);
  const auto nc = static_cast<std::size_t>(chars.size() * pc / 100.0 + 0.5);
  const auto nt = static_cast<std::size_t>(taxa.size() * pt / 100.0 + 0.5);
  long long made = 0;
  for (std::size_t i = 0; i < nc && i < chars.size(); ++i) {
    const int c = chars[i];
    shuffle(taxa);
    const std::uint32_t missing = d.chars[c].format == format_continuous ? continuous_missing : d.missing_value();
    for (std::size_t j = 0; j < nt && j < taxa.size(); ++j) {
      if (d.cell(taxa[j], c) != missing) ++made;
      d.set_cell(taxa[j], c, missing);
    }
    changed(c);
  }
  char text[96];
  std::snprintf(text, sizeof text, "%lli cells made missing (%i characters)\n", made, static_cast<int>(std::min(nc, chars.size())));
  shell::out_text({text});
}

}  // namespace

void edit_cells() {
  require_data();
  Dataset& d = dataset;
  if (shell::accept_char('=')) {
    if (!original.kept) {
      shell::out_text({"No cells edited since the data were read\n"});
      return;
    }
    if (original.ntax != d.ntax || original.nchar != d.nchar) error_exit("Data changed size since the cells were edited");
    for (int t = 0; t < d.ntax; ++t)
      for (int c = 0; c < d.nchar; ++c) d.set_cell(t, c, original.cells[static_cast<std::size_t>(t) * d.nchar + c]);
    for (auto& r : d.chars) r.dirty = 1;
    original.kept = false;
    original.cells.clear();
    shell::out_text({"Cells restored as read\n"});
    minmax_check();
    return;
  }
  if (shell::accept_char('?')) {
    random_missing();
    minmax_check();
    return;
  }
  const bool add = shell::accept_char('!') != 0;
  int edits = 0;
  while (shell::next_nonblank() != ';') {
    shell::unread_char();
    const int c = shell::read_int();
    if (c < 0 || c >= d.nchar) error_exitf("No character %i (characters 0-%i)", c, d.nchar - 1);
    const int t = read_one_taxon();
    if (t < 0 || t >= d.ntax) error_exit("Expected a taxon");
    const std::uint32_t v = read_cell_value(c);
    keep_original();
    const std::uint32_t old = d.cell(t, c);
    const bool discrete = d.chars[c].format != format_continuous;
    const bool old_missing = old == d.missing_value();
    d.set_cell(t, c, add && discrete && !old_missing && v != d.missing_value() ? (old | v) : v);
    changed(c);
    ++edits;
  }
  shell::unread_char();
  if (!edits) error_exit("Specify character, taxon and state(s) to edit");
  char text[64];
  std::snprintf(text, sizeof text, "%i cell%s edited\n", edits, edits == 1 ? "" : "s");
  shell::out_text({text});
  minmax_check();
}

}  // namespace qax::dataset
