// The saving forms of xread: the matrix written back as xread text, in blocks of one
// format each, so that reading the text gives the same cells (with the same nstates).
#include <algorithm>
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

namespace {

const char* block_word(int format, bool gaps) {
  switch (format) {
    case format_dna: return gaps ? "dna gaps" : "dna";
    case format_protein: return gaps ? "proteins gaps" : "proteins";
    case format_continuous: return "continuous";
    default: return "numeric";
  }
}

std::string landmark_text(int ch, int taxon) {
  for (const LandmarkConfig& l : dataset.landmarks) {
    if (l.character != ch) continue;
    const std::vector<double>& p = l.points[taxon];
    if (p.empty()) return "?";
    std::string s;
    char buf[40];
    for (std::size_t i = 0; i < p.size(); ++i) {
      std::snprintf(buf, sizeof buf, "%s%.10g", i ? " " : "", p[i]);
      s += buf;
    }
    return s;
  }
  return "?";
}

// Writes the ccode line that gives back the settings of the listed characters.
void write_settings(const std::vector<int>& columns) {
  shell::out_append("ccode ");
  for (std::size_t i = 0; i < columns.size(); ++i) {
    const CharacterRecord& r = dataset.chars[columns[i]];
    std::string code;
    if (r.format != format_continuous && r.format != format_landmark) code += r.additive ? "+" : "-";
    code += r.active ? "[" : "]";
    if (r.format != format_continuous && r.format != format_landmark) code += r.sankoff ? "(" : ")";
    code += "/" + std::to_string(r.weight) + " =" + std::to_string(r.internal_steps);
    shell::out_append(code + " " + std::to_string(i) + " ");
  }
  shell::out_append(";\n");
  shell::send_line();
}

}  // namespace

void save_matrix() {
  require_data();
  Dataset& d = dataset;
  int form = shell::next_nonblank();
  bool settings = false;
  std::vector<int> columns, rows;
  // ':' as '!', with a row of down-pass sets for each inner node of tree 0.
  std::vector<int> nodes;
  if (form == ':') {
    if (!tree_link_hooks.downpass_sets) error_exit_needs_trees();
    std::vector<std::uint32_t> probe;
    tree_link_hooks.downpass_sets(-1, probe);   // fails without trees
    for (int n = d.ntax; n < static_cast<int>(probe.size()); ++n)
      if (probe[n]) nodes.push_back(n);
  }
  if (form == '!' || form == ':') {
    std::vector<std::int8_t> taxa, chars;
    if (shell::peek_char() == ';' || shell::peek_char() == '/') taxa.assign(d.ntax, 1);
    else read_taxon_list(taxa);
    if (shell::accept_char('/')) read_character_list(chars);
    else chars.assign(d.nchar, 1);
    for (int t = 0; t < d.ntax; ++t)
      if (taxa[t] == 1) rows.push_back(t);
    for (int c = 0; c < d.nchar; ++c)
      if (chars[c] == 1) columns.push_back(c);
  } else {
    // Saving the active data leaves inactive taxa out too: with trees saved by `save -`
    // (numbered over the active taxa) it reads back as a matching reduced data set.
    const bool active_only = form == '-' || form == '[';
    for (int t = 0; t < d.ntax; ++t)
      if (!active_only || t >= static_cast<int>(d.taxon_active.size()) || d.taxon_active[t]) rows.push_back(t);
    for (int c = 0; c < d.nchar; ++c)
      if (form == '*' || d.chars[c].active) columns.push_back(c);
    if (form == '*' && shell::accept_char('*')) settings = true;
    if (form == '[') {
      for (int c : columns)
        if (d.chars[c].format == format_landmark) shell::error_exit("Cannot save landmarks in random order");
      // Continuous characters must stay first; the rest are shuffled.
      auto first = std::stable_partition(columns.begin(), columns.end(),
                                         [&](int c) { return d.chars[c].format == format_continuous; });
      for (auto i = columns.end() - first; i > 1; --i) std::swap(first[i - 1], first[std::rand() % i]);
    }
  }
  std::size_t width = 0;
  for (int t : rows) width = std::max(width, d.taxon_names[t].size());
  if (!nodes.empty()) width = std::max(width, ("HTU_" + std::to_string(nodes.back())).size());
  // Down-pass sets of every listed discrete character at the nodes.
  std::vector<std::vector<std::uint32_t>> node_sets(nodes.empty() ? 0 : columns.size());
  for (std::size_t k = 0; k < node_sets.size(); ++k)
    if (d.chars[columns[k]].format != format_continuous && d.chars[columns[k]].format != format_landmark)
      tree_link_hooks.downpass_sets(columns[k], node_sets[k]);
  shell::out_append("xread\n");
  if (!d.title.empty()) shell::out_append("'" + d.title + "'\n");
  shell::out_append(std::to_string(columns.size()) + " " + std::to_string(rows.size() + nodes.size()) + "\n");
  shell::send_line();
  std::size_t i = 0;
  while (i < columns.size()) {
    int format = d.chars[columns[i]].format;
    int block = d.chars[columns[i]].block;
    std::size_t j = i;
    bool gaps = false;
    while (j < columns.size() && d.chars[columns[j]].format == format && d.chars[columns[j]].block == block) {
      if (format == format_dna || format == format_protein) {
        std::uint32_t gap = format == format_dna ? 16u : (1u << 21);
        for (int t : rows) {
          std::uint32_t v = d.cell(t, columns[j]);
          if (v != d.missing_value() && (v & gap)) gaps = true;
        }
      }
      ++j;
    }
    if (format == format_landmark) {
      int dims = 2;
      for (const LandmarkConfig& l : d.landmarks)
        if (l.character == columns[i]) dims = l.dims;
      shell::out_append("&[landmark " + std::to_string(dims) + "d");
    } else {
      shell::out_append(std::string("&[") + block_word(format, gaps));
    }
    if (block < static_cast<int>(d.block_names.size()) && !d.block_names[block].empty() &&
        (i == 0 || d.chars[columns[i - 1]].block != block))
      shell::out_append(" /" + d.block_names[block]);
    shell::out_append("]\n");
    shell::send_line();
    for (int t : rows) {
      std::string line = d.taxon_names[t];
      line.append(width + 1 - line.size(), ' ');
      for (std::size_t k = i; k < j; ++k) {
        int c = columns[k];
        if (format == format_landmark) {
          if (k > i) line += " | ";
          line += landmark_text(c, t);
        } else {
          if (format == format_continuous && k > i) line += ' ';
          line += state_text(c, d.cell(t, c));
        }
      }
      line += '\n';
      shell::out_append(line);
      shell::send_line();
    }
    for (int n : nodes) {
      std::string line = "HTU_" + std::to_string(n);
      line.append(width + 1 - line.size(), ' ');
      for (std::size_t k = i; k < j; ++k) {
        const int c = columns[k];
        const std::uint32_t v = node_sets[k].size() > static_cast<std::size_t>(n) ? node_sets[k][n] : 0;
        if (format == format_landmark) {
          if (k > i) line += " | ";
          line += "?";
        } else {
          if (format == format_continuous && k > i) line += ' ';
          line += v ? state_text(c, v) : std::string("?");
        }
      }
      line += '\n';
      shell::out_append(line);
      shell::send_line();
    }
    i = j;
  }
  shell::out_append(";\n");
  shell::send_line();
  if (settings) write_settings(columns);
}

}  // namespace qax::dataset
