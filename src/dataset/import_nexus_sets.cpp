// The program's commands for the character settings of a NEXUS file.
#include "dataset/import_nexus_sets.h"

#include <map>

#include "dataset/import.h"

namespace qax::dataset {

namespace {

// A list of item numbers with runs written as ranges ("0.4 7 9.10").
std::string list_text(const std::vector<int>& items) {
  std::string out;
  for (std::size_t i = 0; i < items.size();) {
    std::size_t j = i;
    while (j + 1 < items.size() && items[j + 1] == items[j] + 1) ++j;
    if (!out.empty()) out += ' ';
    out += std::to_string(items[i]);
    if (j > i) out += "." + std::to_string(items[j]);
    i = j + 1;
  }
  return out;
}

std::vector<int> where(const std::vector<int>& per_char, int value) {
  std::vector<int> items;
  for (int c = 0; c < static_cast<int>(per_char.size()); ++c)
    if (per_char[c] == value) items.push_back(c);
  return items;
}

}  // namespace

std::string nexus_settings_commands(const NexusSettings& s) {
  std::string x;
  // Types: every character gets its type, so that the file decides, not what the
  // previous data set left.
  std::vector<int> type(s.nchar, s.default_type);
  for (int c = 0; c < s.nchar && c < static_cast<int>(s.type.size()); ++c)
    if (s.type[c] >= 0) type[c] = s.type[c];
  std::vector<int> ordered = where(type, 1);
  if (!ordered.empty()) x += "ccode + " + list_text(ordered) + ";\n";
  std::map<int, std::vector<int>> by_weight;
  for (int c = 0; c < s.nchar && c < static_cast<int>(s.weight.size()); ++c)
    if (s.weight[c] >= 0 && s.weight[c] != 1) by_weight[s.weight[c]].push_back(c);
  for (auto& [w, items] : by_weight) x += "ccode /" + std::to_string(w) + " " + list_text(items) + ";\n";
  std::vector<int> excluded = where(s.excluded, 1);
  if (!excluded.empty()) x += "ccode ] " + list_text(excluded) + ";\n";
  int group = 0;
  for (const auto& [name, items] : s.charsets) {
    if (items.empty() || group >= 32) continue;
    x += "xgroup =" + std::to_string(group++) + " (" + xread_taxon_name(name) + ") " + list_text(items) + ";\n";
  }
  group = 0;
  for (const auto& [name, items] : s.taxsets) {
    if (items.empty() || group >= 32) continue;
    x += "agroup =" + std::to_string(group++) + " (" + xread_taxon_name(name) + ") " + list_text(items) + ";\n";
  }
  std::string names;
  for (int c = 0; c < s.nchar && c < static_cast<int>(s.char_names.size()); ++c) {
    bool states = c < static_cast<int>(s.state_names.size()) && !s.state_names[c].empty();
    if (s.char_names[c].empty() && !states) continue;
    names += "{" + std::to_string(c) + " " + xread_taxon_name(s.char_names[c].empty() ? "char" + std::to_string(c) : s.char_names[c]);
    if (states)
      for (const std::string& st : s.state_names[c]) names += " " + xread_taxon_name(st);
    names += ";\n";
  }
  if (!names.empty()) x += "cnames\n" + names + ";\n";
  return x;
}

}  // namespace qax::dataset
