// Writers of trees for other programs.
#include "trees/interchange.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <map>

#include "dataset/dataset.h"
#include "dataset/import.h"
#include "shell/failure.h"
#include "shell/file_access.h"
#include "shell/input.h"
#include "shell/output.h"
#include "trees/notation.h"
#include "trees/store.h"

namespace qax::trees {

using qax::dataset::dataset;
using shell::error_exit;

namespace {

// Children lists of a parent array: first child and next sibling by node.
struct Children {
  std::vector<int> first, next;
};

Children children_of(const std::int32_t* tree, int ntax) {
  const int end = tree[ntax];
  Children k;
  k.first.assign(end, -1);
  k.next.assign(end, -1);
  std::vector<int> last(end, -1);
  for (int v = 0; v < end; ++v) {
    if (v == ntax || (v < ntax && tree[v] < ntax)) continue;  // the root; absent terminals
    int a = tree[v];
    if (a < ntax || a >= end) continue;
    if (last[a] < 0) k.first[a] = v;
    else k.next[last[a]] = v;
    last[a] = v;
  }
  return k;
}

// The terminals below each internal node as a bit string (key of its group).
std::vector<std::string> group_keys(const std::int32_t* tree, int ntax) {
  const int end = tree[ntax];
  const std::size_t words = (static_cast<std::size_t>(ntax) + 63) / 64;
  std::vector<std::vector<std::uint64_t>> bits(end, std::vector<std::uint64_t>(words, 0));
  for (int t = 0; t < ntax; ++t) {
    if (tree[t] < ntax) continue;
    for (int v = tree[t];; v = tree[v]) {
      bits[v][t / 64] |= std::uint64_t{1} << (t % 64);
      if (v == ntax) break;
    }
  }
  std::vector<std::string> keys(end);
  for (int v = ntax; v < end; ++v)
    keys[v].assign(reinterpret_cast<const char*>(bits[v].data()), words * sizeof(std::uint64_t));
  return keys;
}

std::string read_file_name() {
  if (shell::peek_char() == ';' || !shell::read_token()) error_exit("No file name given");
  return shell::token_buffer;
}

void write_file(const std::string& name, const std::string& text) {
  std::FILE* f = shell::open_user_file(name, "wb");
  if (!f) error_exit({"Can't open", name});
  bool ok = std::fwrite(text.data(), 1, text.size(), f) == text.size();
  ok = std::fclose(f) == 0 && ok;
  if (!ok) error_exit({"Error writing", name});
}

// Trees named after the file name (all trees when none are named).
std::vector<int> read_trees_to_write() {
  if (tree_store.ntrees == 0) error_exit("No trees in memory");
  std::vector<int> trees;
  if (shell::peek_char() == ';') {
    for (int k = 0; k < tree_store.ntrees; ++k) trees.push_back(k);
    return trees;
  }
  std::vector<std::uint8_t> flags;
  read_tree_list(flags, true);
  for (int k = 0; k < tree_store.ntrees; ++k)
    if (flags[k]) trees.push_back(k);
  if (trees.empty()) error_exit("No trees specified");
  return trees;
}

std::string plural(std::size_t n, const char* one, const char* many) {
  return std::to_string(n) + " " + (n == 1 ? one : many);
}

}  // namespace

std::string quoted_tree_name(const std::string& name) {
  bool plain = !name.empty();
  for (unsigned char c : name)
    if (!(std::isalnum(c) || c == '_' || c == '.' || c == '-' || c == '+')) plain = false;
  if (plain) return name;
  std::string q = "'";
  for (char c : name) {
    q += c;
    if (c == '\'') q += '\'';
  }
  return q + "'";
}

std::vector<std::string> node_labels_for(const std::int32_t* tree, int ntax) {
  std::vector<std::string> labels(tree[ntax]);
  const auto& s = tree_store;
  if (s.tag_tree.empty() || static_cast<int>(s.tag_tree.size()) != 2 * ntax - 1) return labels;
  std::map<std::string, int> tagged;
  std::vector<std::string> tag_keys = group_keys(s.tag_tree.data(), ntax);
  for (int v = ntax + 1; v < s.tag_tree[ntax]; ++v)
    if (v < static_cast<int>(s.tags.size()) && !s.tags[v].empty()) tagged[tag_keys[v]] = v;
  if (tagged.empty()) return labels;
  // Only the tagged tree itself (the same groups, whatever the numbering) carries the
  // tags: a value found for a group on one tree says nothing of that group elsewhere.
  std::vector<std::string> keys = group_keys(tree, ntax);
  std::vector<std::string> mine(keys.begin() + ntax + 1, keys.end());
  std::vector<std::string> theirs(tag_keys.begin() + ntax + 1, tag_keys.end());
  std::sort(mine.begin(), mine.end());
  std::sort(theirs.begin(), theirs.end());
  if (mine != theirs) return labels;
  for (int v = ntax + 1; v < tree[ntax]; ++v) {
    auto it = tagged.find(keys[v]);
    if (it != tagged.end()) labels[v] = s.tags[it->second];
  }
  return labels;
}

std::string tree_to_newick(const std::int32_t* tree, int ntax, bool numbers, const std::vector<std::string>* labels) {
  Children k = children_of(tree, ntax);
  std::string s = "(";
  std::vector<std::pair<int, int>> stack{{ntax, k.first[ntax]}};
  bool first_item = true;
  while (!stack.empty()) {
    auto& [node, child] = stack.back();
    if (child < 0) {
      s.push_back(')');
      if (labels && node != ntax && node < static_cast<int>(labels->size()) && !(*labels)[node].empty())
        s += quoted_tree_name((*labels)[node]);
      stack.pop_back();
      first_item = false;
      continue;
    }
    int c = child;
    child = k.next[c];
    if (!first_item) s.push_back(',');
    if (c < ntax) {
      s += numbers ? std::to_string(c + 1) : quoted_tree_name(dataset.taxon_names[c]);
      first_item = false;
    } else {
      s.push_back('(');
      stack.push_back({c, k.first[c]});
      first_item = true;
    }
  }
  return s + ";";
}

std::string nexus_trees_block(const std::vector<int>& trees) {
  const int ntax = tree_store.ntax;
  std::string x = "BEGIN TREES;\n  TRANSLATE\n";
  for (int t = 0; t < ntax; ++t)
    x += "    " + std::to_string(t + 1) + " " + quoted_tree_name(dataset.taxon_names[t]) + (t + 1 < ntax ? ",\n" : "\n");
  x += "  ;\n";
  for (int k : trees) {
    const std::int32_t* row = tree_row(k);
    std::vector<std::string> labels = node_labels_for(row, ntax);
    x += "  TREE tree_" + std::to_string(k) + " = [&R] " + tree_to_newick(row, ntax, true, &labels) + "\n";
  }
  return x + "END;\n";
}

std::string nexus_trees_file(const std::vector<int>& trees) {
  const int ntax = tree_store.ntax;
  std::string x = "#NEXUS\n\nBEGIN TAXA;\n  DIMENSIONS NTAX=" + std::to_string(ntax) + ";\n  TAXLABELS\n";
  for (int t = 0; t < ntax; ++t) x += "    " + quoted_tree_name(dataset.taxon_names[t]) + "\n";
  x += "  ;\nEND;\n\n";
  return x + nexus_trees_block(trees);
}

void cmd_export() {
  int form = shell::peek_char();
  if (form == '-' || form == '+' || form == '*' || form == '>') shell::next_char();
  else form = 0;
  std::string name = read_file_name();
  if (!dataset.loaded) error_exit("No data file has been read!");
  std::string text, what;
  if (form == 0 || form == '-') {
    text = qax::dataset::dataset_to_nexus();
    what = "Data (" + plural(dataset.ntax, "taxon", "taxa") + ", " + plural(dataset.nchar, "character", "characters") + ")";
  } else {
    std::vector<int> trees = read_trees_to_write();
    if (form == '>') {
      const int ntax = tree_store.ntax;
      for (int k : trees) {
        std::vector<std::string> labels = node_labels_for(tree_row(k), ntax);
        text += tree_to_newick(tree_row(k), ntax, false, &labels) + "\n";
      }
      write_file(name, text);
      shell::out_line({plural(trees.size(), "tree", "trees"), "exported to", name, "as Newick"});
      return;
    }
    if (form == '+') {
      text = qax::dataset::dataset_to_nexus() + "\n" + nexus_trees_block(trees);
      what = "Data (" + plural(dataset.ntax, "taxon", "taxa") + ", " + plural(dataset.nchar, "character", "characters") +
             ") and " + plural(trees.size(), "tree", "trees");
    } else {
      text = nexus_trees_file(trees);
      what = plural(trees.size(), "tree", "trees");
    }
  }
  write_file(name, text);
  shell::out_line({what, "exported to", name, "as NEXUS"});
}

}  // namespace qax::trees
