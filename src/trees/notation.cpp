// Readers and writers of trees: tread text (with its repairs), Newick, NEXUS TREES,
// the compact insertion code, and the tree-file commands tsave, save and shortread.
#include "shell/file_access.h"
#include "trees/notation.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <ctime>

#include "dataset/dataset.h"
#include "dataset/import.h"
#include "shell/failure.h"
#include "shell/input.h"
#include "shell/output.h"
#include "shell/shell_commands.h"
#include "shell/state.h"
#include "trees/store.h"
#include "trees/tags.h"

namespace qax::trees {

using namespace qax::shell;
using qax::dataset::dataset;

namespace {

// Characters come either from the shell's input stack or from a string.
struct CharSource {
  const std::string* text = nullptr;  // null: the input stack
  std::size_t pos = 0;
  int get() {
    if (!text) return next_char();
    return pos < text->size() ? static_cast<unsigned char>((*text)[pos++]) : (++pos, 0);
  }
  void unget() {
    if (!text) unread_char();
    else if (pos > 0) --pos;
  }
  int get_nonblank() {
    int c;
    do c = get();
    while (c > 0 && c < 33);
    return c;
  }
};

bool is_name_char(int c) { return std::isalnum(c) || c == '.' || c == ':' || c == '?' || c == '@' || c == '_'; }

bool ieq_prefix(std::string_view word, std::string_view name) {
  if (word.size() > name.size()) return false;
  for (std::size_t i = 0; i < word.size(); ++i)
    if (std::tolower(static_cast<unsigned char>(word[i])) != std::tolower(static_cast<unsigned char>(name[i]))) return false;
  return true;
}

bool icontains(std::string_view hay, std::string_view needle) {
  if (needle.empty()) return true;
  for (std::size_t i = 0; i + needle.size() <= hay.size(); ++i)
    if (ieq_prefix(needle, hay.substr(i))) return true;
  return false;
}

// Working tree of a reader: nodes ntax.. are allocated as parentheses open.
struct RawTree {
  int ntax = 0;
  int limit = 0;                   // cells allowed: 3*(2*ntax-1)
  int counter = 0;                 // last node allocated
  std::vector<int> anc;            // ancestor per cell, -1 unplaced terminal
  std::vector<std::string> tags;   // per cell
  bool any_tag = false;
  bool warned = false;
  void start(int n) {
    ntax = n;
    limit = 3 * (2 * n - 1);
    anc.assign(limit, -1);
    tags.assign(limit, std::string());
    counter = n;  // the root, as if its parenthesis had been read
    any_tag = false;
    warned = false;
  }
  void place(int t, int node) {
    if (anc[t] >= 0) error_exit({"Taxon", std::to_string(t), "repeated"});
    anc[t] = node;
  }
};

void warn_excess(RawTree& rt) {
  if (rt.warned) return;
  rt.warned = true;
  warning({"Parenthetical tree contains excess/unbalanced parentheses;\nexcess parentheses will be ignored"});
}

// Repairs and numbers the raw tree into out (2*ntax-1 cells).
void finish_tree(RawTree& rt, std::vector<std::int32_t>& out, std::vector<std::string>* out_tags) {
  const int ntax = rt.ntax, n = 2 * ntax - 1;
  out.assign(n, 0);
  int placed = 0;
  for (int t = 0; t < ntax; ++t) placed += rt.anc[t] >= 0;
  if (placed < 2) {
    // Fewer than two terminals: a bush of all taxa.
    for (int t = 0; t < ntax; ++t) out[t] = ntax;
    out[ntax] = ntax + 1;
    // A bush keeps no tags, but the tag vector still has a cell for every node.
    if (out_tags) out_tags->assign(n, std::string());
    return;
  }
  if (tree_store.absincl && placed < ntax) {
    int nn = ++rt.counter;
    if (nn >= rt.limit) error_exit("Parenthetical tree contains too many opening parents ... can't read it");
    for (int v = 0; v <= rt.counter; ++v)
      if (v != ntax && v != nn && rt.anc[v] == ntax) rt.anc[v] = nn;
    rt.anc[nn] = ntax;
    for (int t = 0; t < ntax; ++t)
      if (rt.anc[t] < 0) rt.anc[t] = ntax;
  }
  const int top = rt.counter + 1;
  std::vector<int> tips(top, 0), kids(top, 0);
  // Terminals below each node, counted by climbing (the raw tree is small).
  for (int t = 0; t < ntax; ++t) {
    if (rt.anc[t] < 0) continue;
    for (int a = rt.anc[t], guard = 0; guard < top; ++guard) {
      ++tips[a];
      if (a == ntax) break;
      a = rt.anc[a];
    }
  }
  for (int v = 0; v < top; ++v) {
    if (v == ntax) continue;
    if (v < ntax ? rt.anc[v] >= 0 : tips[v] > 0) ++kids[rt.anc[v]];
  }
  bool faulty = false;
  for (int v = ntax; v < top; ++v)
    if (v == ntax || tips[v] > 0)
      if (kids[v] < 2) faulty = true;
  for (int v = ntax + 1; v < top; ++v)
    if (tips[v] == 0) faulty = true;
  if (faulty) {
    if (rt.any_tag) {
      for (int v = ntax; v < top; ++v) {
        if (!((v == ntax || tips[v] > 0) && kids[v] < 2)) continue;
        for (int t = 0; t < ntax; ++t) {
          int a = rt.anc[t];
          while (a >= 0 && a != v && a != ntax) a = rt.anc[a];
          if (a == v && rt.anc[t] >= 0) {
            std::string name = t < static_cast<int>(dataset.taxon_names.size()) ? dataset.taxon_names[t] : "";
            out_printf("Note: error seems to be around terminal %i (%s)\n", t, name.c_str());
          }
        }
        break;
      }
      error_exit("Sorry, for reading trees with tags, parentheses *must* be balanced");
    }
    warn_excess(rt);
  }
  // The surviving root: go down while the root has a single occupied child.
  int root = ntax;
  for (;;) {
    if (kids[root] != 1) break;
    int only = -1;
    for (int v = ntax + 1; v < top; ++v)
      if (rt.anc[v] == root && tips[v] > 0) only = v;
    if (only < 0) break;  // the single child is a terminal: cannot happen with >= 2 placed
    root = only;
  }
  auto survives = [&](int v) { return v == root || (v > ntax && tips[v] > 0 && kids[v] >= 2); };
  std::vector<int> num(top, -1);
  num[root] = ntax;
  int next = ntax + 1;
  auto nearest = [&](int v) {
    int a = rt.anc[v];
    while (!survives(a)) a = rt.anc[a];
    return a;
  };
  // Number surviving nodes in order of the terminals, as the canonical walk does.
  for (int t = 0; t < ntax; ++t) {
    if (rt.anc[t] < 0) continue;
    int a = nearest(t);
    while (num[a] < 0) {
      num[a] = next++;
      a = nearest(a);
    }
  }
  if (next > n) error_exit("Sorry, couldn't fix excess of opening parentheses!");
  for (int t = 0; t < ntax; ++t)
    if (rt.anc[t] >= 0) out[t] = num[nearest(t)];
  for (int v = ntax + 1; v < top; ++v)
    if (v != root && num[v] >= 0) out[num[v]] = num[nearest(v)];
  out[ntax] = next;
  if (out_tags) {
    out_tags->assign(n, std::string());
    for (int t = 0; t < ntax; ++t) (*out_tags)[t] = rt.tags[t];
    for (int v = ntax; v < top; ++v)
      if (num[v] >= 0) (*out_tags)[num[v]] = rt.tags[v];
  }
  reset_node_numbers(out.data(), ntax, out_tags);
}

// Text of a word for taxa: name characters, with "..." kept at the end.
std::string read_word(CharSource& src, int first) {
  std::string w(1, static_cast<char>(first));
  for (;;) {
    int c = src.get();
    if (!is_name_char(c)) { src.unget(); break; }
    w.push_back(static_cast<char>(c));
    if (static_cast<int>(w.size()) > 4 * shell_state.name_limit + 8) break;
  }
  return w;
}

// Places the taxa a word names.
void place_word(RawTree& rt, const std::string& word, int node) {
  const int ntax = rt.ntax;
  if (word.size() > 3 && word.compare(word.size() - 3, 3, "...") == 0) {
    std::string stem = word.substr(0, word.size() - 3);
    bool any = false;
    for (int t = 0; t < ntax; ++t)
      if (ieq_prefix(stem, dataset.taxon_names[t])) {
        any = true;
        if (rt.anc[t] < 0) rt.anc[t] = node;
      }
    if (!any) error_exit({"Unidentified taxon name:", word});
    return;
  }
  if (word[0] == ':') {
    std::string part = word.substr(1);
    bool any = false;
    for (int t = 0; t < ntax; ++t)
      if (icontains(dataset.taxon_names[t], part)) {
        any = true;
        if (rt.anc[t] < 0) rt.anc[t] = node;
      }
    if (!any) error_exit({"No name contains", part});
    return;
  }
  int t = find_taxon_name(word);
  if (t < 0) error_exit({"Unidentified taxon name:", word});
  rt.place(t, node);
}

// "{ ... }": all the taxa of the taxon groups listed (numbers or beginnings of names)
// go to `node`; taxa already placed stay where they are. A word matching no group, or
// only empty groups, is an error.
void place_taxon_groups(CharSource& src, RawTree& rt, int node) {
  const int ntax = rt.ntax;
  const auto& masks = dataset.taxon_groups;
  const auto& names = dataset.taxon_group_names;
  for (;;) {
    int c = src.get_nonblank();
    if (c == '}') return;
    if (c == ';' || c == 0) error_exit("Unexpected semicolon within brackets");
    if (!is_name_char(c)) error_exit("Found allien character within brackets");
    std::string word(1, static_cast<char>(c));
    while (is_name_char(c = src.get()) && word.size() < 256) word.push_back(static_cast<char>(c));
    src.unget();
    std::uint32_t groups = 0;
    bool number = std::all_of(word.begin(), word.end(), [](char ch) { return std::isdigit(static_cast<unsigned char>(ch)) != 0; });
    if (number) {
      if (word.size() <= 2 && std::stoi(word) < 32) groups = 1u << std::stoi(word);
    } else {
      for (int g = 0; g < static_cast<int>(names.size()) && g < 32; ++g)
        if (!names[g].empty() && ieq_prefix(word, names[g])) groups |= 1u << g;
    }
    bool any = false;
    for (int t = 0; t < ntax && t < static_cast<int>(masks.size()); ++t) {
      if (!(masks[t] & groups)) continue;
      any = true;
      if (rt.anc[t] < 0) rt.anc[t] = node;
    }
    if (!any) error_exit({"No taxon group named", word});
  }
}

std::string read_tag(CharSource& src) {
  std::string tag;
  for (;;) {
    int c = src.get();
    if (c <= 32 || c == '*' || c == ';' || c == ')' || c == '(') { src.unget(); break; }
    if (static_cast<int>(tag.size()) < 128) tag.push_back(static_cast<char>(c));
  }
  return tag;
}

// Reads one tree of tread text; returns the terminating character ('*', ';' or 0).
int read_one_tree(CharSource& src, RawTree& rt) {
  const int ntax = rt.ntax;
  rt.start(ntax);
  int cur = ntax;
  int c = src.get_nonblank();
  if (c != '(') src.unget();
  for (;;) {
    c = src.get_nonblank();
    if (c == 0 || c == ';') { src.unget(); return ';'; }
    if (c == '*') return '*';
    if (c == '(') {
      if (rt.counter + 1 >= rt.limit) error_exit("Parenthetical tree contains too many opening parents ... can't read it");
      ++rt.counter;
      rt.anc[rt.counter] = cur;
      cur = rt.counter;
      continue;
    }
    if (c == ')') {
      int d = src.get();
      if (d == '=') {
        rt.tags[cur] = read_tag(src);
        rt.any_tag = true;
      } else {
        src.unget();
      }
      if (cur != ntax) {
        cur = rt.anc[cur];
      } else if (!rt.warned) {
        int e = src.get_nonblank();
        src.unget();
        if (e != ';' && e != '*' && e != 0) warn_excess(rt);
      }
      continue;
    }
    if (std::isdigit(c)) {
      long long v = c - '0';
      int d;
      while (std::isdigit(d = src.get())) {
        v = v * 10 + (d - '0');
        if (v > 1000000000) v = 1000000000;
      }
      src.unget();
      if (v >= ntax) error_exit({"Error: no taxon", std::to_string(v)});
      rt.place(static_cast<int>(v), cur);
      if (src.get() == '=') {
        rt.tags[v] = read_tag(src);
        rt.any_tag = true;
      } else {
        src.unget();
      }
      continue;
    }
    if (c == '{') {
      place_taxon_groups(src, rt, cur);
      continue;
    }
    if ((c == '@' || c == '+') && std::isdigit(src.get_nonblank())) {
      src.unget();
      int tnum = 0, node = 0, d;
      while (std::isdigit(d = src.get())) tnum = std::min(tnum * 10 + (d - '0'), 100000000);
      src.unget();
      d = src.get_nonblank();
      if (!std::isdigit(d)) error_exit({"No node in tree", std::to_string(tnum)});
      node = d - '0';
      while (std::isdigit(d = src.get())) node = std::min(node * 10 + (d - '0'), 100000000);
      src.unget();
      if (tnum >= tree_store.ntrees) error_exit({"No tree", std::to_string(tnum)});
      const std::int32_t* t = tree_row(tnum);
      if (node >= t[ntax] || (node < ntax && t[node] < ntax))
        error_exit({"No node", std::to_string(node), "in tree", std::to_string(tnum)});
      if (c == '@') {
        for (int x = 0; x < ntax; ++x) {
          if (t[x] < ntax) continue;
          int a = x;
          while (a != node && a != ntax) a = t[a];
          if (a == node && rt.anc[x] < 0) rt.anc[x] = cur;
        }
      } else {
        // Copy the subtree: map its internal nodes onto new raw nodes.
        std::vector<int> map(2 * ntax - 1, -1);
        map[node] = cur;
        if (node >= ntax) {
          if (rt.counter + 1 >= rt.limit) error_exit("Parenthetical tree contains too many opening parents ... can't read it");
          map[node] = ++rt.counter;
          rt.anc[rt.counter] = cur;
        }
        if (node < ntax) {
          rt.place(node, cur);
          continue;
        }
        for (int x = 0; x < ntax; ++x) {
          if (t[x] < ntax) continue;
          int a = x;
          while (a != node && a != ntax) a = t[a];
          if (a != node) continue;
          if (rt.anc[x] >= 0) {
            std::string name = dataset.taxon_names[x];
            error_exitf("Can't insert node %i of tree %i:\n   node %i contains taxon %s, already placed )", node, tnum, node, name.c_str());
          }
          // Climb, creating mapped nodes.
          int prev = x;
          for (a = t[x];; a = t[a]) {
            if (map[a] < 0) {
              if (rt.counter + 1 >= rt.limit) error_exit("Parenthetical tree contains too many opening parents ... can't read it");
              map[a] = ++rt.counter;
            }
            if (prev == x) rt.anc[x] = map[a];
            else rt.anc[map[prev]] = map[a];
            if (a == node) break;
            prev = a;
          }
        }
      }
      continue;
    }
    if (is_name_char(c)) {
      std::string w = read_word(src, c);
      place_word(rt, w, cur);
      if (src.get() == '=') {
        std::string tag = read_tag(src);
        int t = find_taxon_name(w);
        if (t >= 0) rt.tags[t] = tag;
        rt.any_tag = true;
      } else {
        src.unget();
      }
      continue;
    }
    error_exitf("Unexpected character '%c' in tree", c >= 32 && c < 127 ? c : '?');
  }
}

std::string base_name(const std::string& path) {
  std::size_t s = path.find_last_of('/');
  std::string b = s == std::string::npos ? path : path.substr(s + 1);
  std::size_t d = b.find_last_of('.');
  if (d != std::string::npos && d > 0) b = b.substr(0, d);
  return b;
}

void store_tags(const std::vector<std::int32_t>& tree, const std::vector<std::string>& tags) {
  tree_store.tag_tree = tree;
  tree_store.tags = tags;
  tree_store.tags_from_consensus = 0;
  tag_settings.title = "Tree-tags from " + base_name(current_frame().name);
}


// Joins `add` after `into` with the separator; fails when the result is too long.
void join_tag(std::string& into, const std::string& add) {
  if (add.empty()) return;
  if (into.empty()) {
    into = add;
    return;
  }
  if (tree_store.tag_separator) into.push_back(static_cast<char>(tree_store.tag_separator));
  into += add;
  if (static_cast<int>(into.size()) > tag_length)
    error_exit("Sorry, concatenated tags are too long (change max. with \"taxname+\")");
}

// tread [: the tags of a new tree go to the present tag tree. On an equal tree each tag is
// joined to the tag of the same node; otherwise a terminal's tag goes to the same terminal
// and a group's tag to the smallest group of the tag tree that has the same taxa once the
// taxa not in both trees are set aside. Tags that find no place are lost. The tag tree is
// changed only when every join succeeded.
void add_tags(const std::vector<std::int32_t>& tree, const std::vector<std::string>& given) {
  const int ntax = tree_store.ntax;
  std::vector<std::string> tags = given;
  tags.resize(2 * ntax - 1);
  const std::int32_t* old = tree_store.tag_tree.data();
  std::vector<std::string> joined = tree_store.tags;
  joined.resize(2 * ntax - 1);
  if (trees_equal(old, tree.data(), ntax)) {
    for (int v = 0; v < tree[ntax]; ++v)
      if (v >= ntax || terminal_present(tree.data(), v, ntax)) join_tag(joined[v], tags[v]);
    tree_store.tags = joined;
    return;
  }
  std::vector<std::uint8_t> shared(ntax, 0);
  for (int t = 0; t < ntax; ++t) shared[t] = terminal_present(old, t, ntax) && terminal_present(tree.data(), t, ntax);
  const int words = (ntax + 63) / 64;
  auto mine = terminal_bits(tree.data(), ntax, words, &shared);
  auto theirs = terminal_bits(old, ntax, words, &shared);
  std::vector<int> size(old[ntax], 0);  // terminals below each node of the tag tree
  for (int t = 0; t < ntax; ++t) {
    if (!terminal_present(old, t, ntax)) continue;
    for (int a = old[t];; a = old[a]) {
      ++size[a];
      if (a == ntax) break;
    }
  }
  for (int t = 0; t < ntax; ++t)
    if (shared[t]) join_tag(joined[t], tags[t]);
  for (int v = ntax; v < tree[ntax]; ++v) {
    if (tags[v].empty()) continue;
    const std::uint64_t* want = mine.data() + static_cast<std::size_t>(v) * words;
    int best = -1;
    for (int u = ntax; u < old[ntax]; ++u)
      if (std::equal(want, want + words, theirs.data() + static_cast<std::size_t>(u) * words) &&
          (best < 0 || size[u] < size[best]))
        best = u;
    if (best >= 0) join_tag(joined[best], tags[v]);
  }
  tree_store.tags = joined;
}

// Reads trees from src until ';'. Returns the count; first index in *first.
int read_tread_trees(CharSource& src, int group, int* first) {
  RawTree rt;
  rt.ntax = tree_store.ntax;
  std::vector<std::int32_t> out;
  std::vector<std::string> tags;
  int count = 0;
  *first = tree_store.ntrees;
  for (;;) {
    int end = read_one_tree(src, rt);
    finish_tree(rt, out, rt.any_tag ? &tags : nullptr);
    if (rt.any_tag) {
      if (tree_store.tag_add && !tree_store.tag_tree.empty()) add_tags(out, tags);
      else store_tags(out, tags);
    }
    tree_store_append(out.data(), group);
    ++count;
    if (end != '*') break;
    int c = src.get_nonblank();
    src.unget();
    if (c == ';' || c == 0) break;
  }
  return count;
}

// --- Tree files ------------------------------------------------------------------

struct TreeFile {
  std::FILE* stream = nullptr;  // open tree file
  std::string name;             // its name
  bool compact = false;         // compact binary form
  bool wide = false;            // wide compact form (16384 taxa or more)
  int saved = 0;                // trees written
  bool incomplete_told = false; // the note on incomplete trees was given
};
TreeFile tree_file;

struct AutoSave {
  int seconds = 0;        // interval, 0 off
  std::string name;       // base name of the two files
  double last = 0;        // last save
  int which = 0;          // next file: 0 -> "-1", 1 -> "-2"
};
AutoSave auto_save;

void write_u16(std::FILE* f, unsigned v) {
  unsigned char b[2] = {static_cast<unsigned char>(v & 255), static_cast<unsigned char>((v >> 8) & 255)};
  std::fwrite(b, 1, 2, f);
}
void write_u32(std::FILE* f, std::uint32_t v) {
  unsigned char b[4];
  for (int i = 0; i < 4; ++i) b[i] = static_cast<unsigned char>((v >> (8 * i)) & 255);
  std::fwrite(b, 1, 4, f);
}

void put_bits(std::vector<std::uint8_t>& bits, std::size_t& pos, std::uint32_t value, int width) {
  for (int i = 0; i < width; ++i, ++pos) {
    if (pos / 8 >= bits.size()) bits.push_back(0);
    if ((value >> i) & 1u) bits[pos / 8] |= static_cast<std::uint8_t>(1u << (pos % 8));
  }
}

int field_bits(int h, int k) {
  while ((h & ((1 << k) - 1)) != h) ++k;
  return k;
}

void write_compact_tree(const std::int32_t* row, int ntax) {
  std::vector<std::int32_t> tree(row, row + 2 * ntax - 1);
  if (tree_terminal_count(tree.data(), ntax) < ntax) {
    if (!tree_file.incomplete_told) {
      out_text({"Some trees are incomplete\nCan't save incomplete trees as compact\n\nAbsent taxa will be joined to base and saved\n"});
      tree_file.incomplete_told = true;
    }
    int nn = tree[ntax];
    for (int v = 0; v < nn; ++v)
      if (v != ntax && tree[v] == ntax && (v >= ntax || true)) tree[v] = nn;
    for (int t = 0; t < ntax; ++t)
      if (tree[t] == nn && row[t] < ntax) tree[t] = ntax;  // never: row absent are 0
    for (int t = 0; t < ntax; ++t)
      if (row[t] < ntax) tree[t] = ntax;
    tree[nn] = ntax;
    tree[ntax] = nn + 1;
    reset_node_numbers(tree.data(), ntax);
  }
  std::vector<std::uint8_t> bits;
  std::size_t nbits = encode_compact(tree.data(), ntax, bits);
  int wbits = tree_file.wide ? 32 : 16;
  std::size_t words = (nbits + wbits - 1) / wbits;
  bits.resize(words * wbits / 8, 0);
  if (tree_file.wide) write_u32(tree_file.stream, static_cast<std::uint32_t>(words));
  else write_u16(tree_file.stream, static_cast<unsigned>(words));
  if (!bits.empty()) std::fwrite(bits.data(), 1, bits.size(), tree_file.stream);
}

bool taxon_active(int t) {
  return t < static_cast<int>(dataset.taxon_active.size()) ? dataset.taxon_active[t] != 0 : true;
}

}  // namespace

// --- Public helpers ----------------------------------------------------------------

int find_taxon_name(const std::string& word) {
  if (word.empty()) return -1;
  const auto& names = dataset.taxon_names;
  for (int t = 0; t < static_cast<int>(names.size()); ++t)
    if (names[t].size() == word.size() && ieq_prefix(word, names[t])) return t;
  for (int t = 0; t < static_cast<int>(names.size()); ++t)
    if (!names[t].empty() && ieq_prefix(word, names[t])) return t;
  return -1;
}

std::string display_name(int taxon) {
  if (taxon < 0 || taxon >= static_cast<int>(dataset.taxon_names.size())) return std::to_string(taxon);
  std::string s = dataset.taxon_names[taxon];
  if (qax::dataset::name_output.species_only) {
    std::size_t a = s.find('@');
    std::size_t u = s.find("____");
    std::size_t cut = std::min(a, u);
    if (cut != std::string::npos) s = s.substr(0, cut);
  }
  if (qax::dataset::name_output.truncate > 0 && static_cast<int>(s.size()) > qax::dataset::name_output.truncate)
    s.resize(qax::dataset::name_output.truncate);
  return s;
}

std::string tree_to_text(const std::int32_t* tree, int ntax, bool names, const std::vector<std::string>* tags) {
  const int end = tree[ntax];
  std::vector<int> first(end, -1), last(end, -1), next(end, -1);
  for (int v = 0; v < end; ++v) {
    if (v == ntax || (v < ntax && tree[v] < ntax)) continue;
    int a = tree[v];
    if (last[a] < 0) first[a] = v;
    else next[last[a]] = v;
    last[a] = v;
  }
  std::string s;
  // Iterative walk: a stack of (node, child cursor).
  std::vector<std::pair<int, int>> stack{{ntax, first[ntax]}};
  s.push_back('(');
  while (!stack.empty()) {
    auto& [node, child] = stack.back();
    if (child < 0) {
      s.push_back(')');
      if (tags && node < static_cast<int>(tags->size()) && !(*tags)[node].empty()) s += "=" + (*tags)[node] + " ";
      stack.pop_back();
      continue;
    }
    int c = child;
    child = next[c];
    if (c < ntax) {
      s += names ? display_name(c) : std::to_string(c);
      if (tags && c < static_cast<int>(tags->size()) && !(*tags)[c].empty()) s += "=" + (*tags)[c];
      s.push_back(' ');
    } else {
      s.push_back('(');
      stack.push_back({c, first[c]});
    }
  }
  return s;
}

// Example, 4 taxa, tree (0 (1 (2 3))): terminal 0 and the root get label 0, then
// terminal 1 climbs to the root: its node gets 1 and the root 2. Terminal 2 meets
// node (1 (2 3)) whose count becomes 2: kind 0, target 1 (the branch of item 1),
// 3-bit field 1<<1|0 = 2; h becomes 4. Terminal 3 meets node (2 3), inside the
// branch of item 3 (terminal 2): k stays 3 (4&7==4) so a 4-bit field 3<<1|0 = 6.
std::size_t encode_compact(const std::int32_t* tree, int ntax, std::vector<std::uint8_t>& bits) {
  bits.clear();
  if (ntax < 3) return 0;
  const int n = 2 * ntax - 1, root = ntax;
  TreeLinks links;
  build_tree_links(tree, ntax, links);
  std::vector<int> label(n, -1), count(n, 0);
  for (int v = 0;; v = tree[v]) {
    label[v] = 0;
    count[v] = 1;
    if (v == root) break;
  }
  int v = 1;
  while (label[v] < 0) {
    label[v] = 1;
    count[v] = 1;
    v = tree[v];
  }
  count[v] = 2;
  for (int w = v;; w = tree[w]) {
    label[w] = 2;
    if (w == root) break;
  }
  int h = 2, k = 2;
  std::size_t pos = 0;
  auto first_labelled_child = [&](int j) {
    for (int c = links.firstdes[j]; c >= 0; c = links.sister[c])
      if (label[c] >= 0) return c;
    return -1;
  };
  for (int i = 2; i < ntax; ++i) {
    int j = i;
    while (label[j] < 0) j = tree[j];
    k = field_bits(h, k);
    ++count[j];
    int target, kind;
    if (count[j] > 2) {
      target = label[first_labelled_child(j)];
      kind = 1;
      for (int w = i; w != j; w = tree[w]) { label[w] = h + 1; count[w] = 1; }
      h += 1;
    } else {
      target = label[first_labelled_child(j)];
      kind = 0;
      for (int w = i; w != j; w = tree[w]) { label[w] = h + 1; count[w] = 1; }
      int old = label[j];
      for (int w = j;; w = tree[w]) {
        if (label[w] != old) break;
        label[w] = h + 2;
        if (w == root) break;
      }
      h += 2;
    }
    put_bits(bits, pos, static_cast<std::uint32_t>(target) << 1 | static_cast<std::uint32_t>(kind), k + 1);
  }
  return pos;
}

bool decode_compact(const std::uint8_t* bits, std::size_t nbits, int ntax, std::int32_t* tree) {
  const int n = 2 * ntax - 1;
  std::fill_n(tree, n, 0);
  if (ntax < 2) { if (ntax == 1) { tree[0] = 1; } return ntax == 1; }
  std::vector<int> item{0, 1, ntax};
  item.reserve(n);
  std::vector<int> anc(n, 0);
  anc[0] = anc[1] = ntax;
  int root = ntax, next = ntax + 1, h = 2, k = 2;
  std::size_t pos = 0;
  for (int i = 2; i < ntax; ++i) {
    k = field_bits(h, k);
    int width = k + 1;
    if (width > 31 || pos + width > nbits) return false;
    std::uint32_t f = 0;
    for (int b = 0; b < width; ++b, ++pos)
      if (bits[pos / 8] >> (pos % 8) & 1u) f |= 1u << b;
    int t = static_cast<int>(f >> 1);
    if (t > h) return false;
    int x = item[t];
    if (f & 1u) {
      if (x == root) return false;
      anc[i] = anc[x];
      item.push_back(i);
      h += 1;
    } else {
      if (next >= n) return false;
      int nn = next++;
      if (x == root) {
        anc[x] = nn;
        root = nn;
      } else {
        anc[nn] = anc[x];
        anc[x] = nn;
      }
      anc[i] = nn;
      item.push_back(i);
      item.push_back(nn);
      h += 2;
    }
  }
  // The running root takes the number ntax.
  for (int v = 0; v < next; ++v) {
    if (v == root) continue;
    int a = anc[v];
    if (a == root) a = ntax;
    else if (a == ntax) a = root;
    tree[v == ntax ? root : v] = a;
  }
  tree[ntax] = next;
  reset_node_numbers(tree, ntax);
  return true;
}

int read_tree_string(const std::string& text, int group) {
  require_data();
  CharSource src;
  src.text = &text;
  int first = 0;
  return read_tread_trees(src, group, &first);
}

// --- Newick --------------------------------------------------------------------------

namespace {

int newick_taxon(const std::string& word, const std::map<std::string, std::string>* translate) {
  std::string w = word;
  if (translate) {
    auto it = translate->find(w);
    if (it != translate->end()) w = it->second;
  }
  bool digits = !w.empty() && std::all_of(w.begin(), w.end(), [](char c) { return std::isdigit(static_cast<unsigned char>(c)); });
  if (digits && (!translate || translate->find(word) == translate->end() || true)) {
    long long v = w.size() > 9 ? 2000000000LL : std::stoll(w);
    if (v < 1 || v > dataset.ntax) error_exitf("No taxon %lli", v);
    return static_cast<int>(v - 1);
  }
  // Names as written by other programs: blanks and other characters the matrix
  // import turned into "_" (Wuhan-Hu-1 is the taxon Wuhan_Hu_1).
  std::string u = w;
  std::replace(u.begin(), u.end(), ' ', '_');
  std::string converted = qax::dataset::xread_taxon_name(w);
  for (const std::string* v : {&u, &converted})
    for (int t = 0; t < dataset.ntax; ++t)
      if (dataset.taxon_names[t].size() == v->size() && ieq_prefix(*v, dataset.taxon_names[t])) return t;
  // Only a prefix: accepted when it names one taxon, an error naming the candidates
  // when it could be several.
  std::vector<int> candidates;
  for (int t = 0; t < dataset.ntax; ++t)
    if (!dataset.taxon_names[t].empty() && (ieq_prefix(u, dataset.taxon_names[t]) || ieq_prefix(converted, dataset.taxon_names[t])))
      candidates.push_back(t);
  if (candidates.empty()) error_exit({"Unidentified taxon name:", w});
  if (candidates.size() > 1) {
    std::string list;
    for (std::size_t i = 0; i < candidates.size() && i < 10; ++i) list += (i ? ", " : "") + dataset.taxon_names[candidates[i]];
    if (candidates.size() > 10) list += ", ...";
    error_exit({"Taxon name", w, "in tree is ambiguous: it begins the names", list});
  }
  return candidates[0];
}

// One Newick token: a quoted or plain word.
std::string newick_word(const std::string& text, std::size_t& i) {
  std::string w;
  if (text[i] == '\'') {
    ++i;
    while (i < text.size()) {
      if (text[i] == '\'') {
        if (i + 1 < text.size() && text[i + 1] == '\'') { w.push_back('\''); i += 2; continue; }
        ++i;
        break;
      }
      w.push_back(text[i++]);
    }
    return w;
  }
  while (i < text.size() && !std::strchr("(),:;[]\t\r\n ", text[i])) w.push_back(text[i++]);
  return w;
}

void skip_newick_blanks(const std::string& text, std::size_t& i) {
  for (;;) {
    while (i < text.size() && static_cast<unsigned char>(text[i]) < 33) ++i;
    if (i < text.size() && text[i] == '[') {
      while (i < text.size() && text[i] != ']') ++i;
      if (i < text.size()) ++i;
      continue;
    }
    break;
  }
}

void skip_branch_length(const std::string& text, std::size_t& i) {
  skip_newick_blanks(text, i);
  if (i < text.size() && text[i] == ':') {
    ++i;
    skip_newick_blanks(text, i);
    while (i < text.size() && (std::isdigit(static_cast<unsigned char>(text[i])) || std::strchr(".-+eE", text[i]))) ++i;
  }
}

}  // namespace

int read_newick_text(const std::string& text, const std::map<std::string, std::string>* translate, int group,
                     bool* had_labels) {
  require_data();
  const int ntax = dataset.ntax;
  RawTree rt;
  std::vector<std::int32_t> out;
  std::vector<std::string> tags;
  int count = 0;
  std::size_t i = 0;
  if (had_labels) *had_labels = false;
  for (;;) {
    skip_newick_blanks(text, i);
    if (i >= text.size()) break;
    rt.start(ntax);
    int cur = -1;  // before the root's parenthesis
    bool closed_root = false;
    for (;;) {
      skip_newick_blanks(text, i);
      if (i >= text.size() && closed_root)
        error_exitf("Newick tree %i ends without \";\" (the text ends after its last parenthesis)", count);
      if (i >= text.size()) error_exit("Sorry, couldn't read tree (unbalanced parents.)");
      char c = text[i];
      if (c == ';') { ++i; break; }
      if (c == ',') { ++i; continue; }
      if (c == '(') {
        ++i;
        if (closed_root) error_exit("Sorry, couldn't read tree (unbalanced parents.)");
        if (cur < 0) { cur = ntax; continue; }
        if (rt.counter + 1 >= rt.limit) error_exit("Parenthetical tree contains too many opening parents ... can't read it");
        rt.anc[++rt.counter] = cur;
        cur = rt.counter;
        continue;
      }
      if (c == ')') {
        ++i;
        if (cur < 0 || closed_root) error_exit("Too many trailing parentheses in tread");
        skip_newick_blanks(text, i);
        if (i < text.size() && !std::strchr("(),:;", text[i])) {
          std::string label = newick_word(text, i);
          if (!label.empty()) {
            rt.tags[cur] = label;
            rt.any_tag = true;
          }
        }
        skip_branch_length(text, i);
        if (cur == ntax) closed_root = true;
        else cur = rt.anc[cur];
        continue;
      }
      std::string w = newick_word(text, i);
      if (w.empty()) error_exitf("Unexpected character '%c' in Newick tree", c >= 32 && c < 127 ? c : '?');
      int t = newick_taxon(w, translate);
      if (cur < 0) cur = ntax;
      if (closed_root) error_exit("Sorry, couldn't read tree (unbalanced parents.)");
      rt.place(t, cur);
      skip_branch_length(text, i);
    }
    if (cur >= 0 && !closed_root && cur != ntax) error_exit("Sorry, couldn't read tree (unbalanced parents.)");
    if (cur >= 0 && !closed_root && cur == ntax) {
      // A bare list without its parentheses.
    }
    bool any_tag = rt.any_tag;
    rt.any_tag = false;  // labels are supports: unbalanced text was refused above
    finish_tree(rt, out, any_tag ? &tags : nullptr);
    if (any_tag) {
      store_tags(out, tags);
      if (had_labels) *had_labels = true;
    }
    tree_store_append(out.data(), group);
    ++count;
  }
  return count;
}

int read_nexus_trees_block(const std::string& text) {
  require_data();
  std::map<std::string, std::string> translate;
  std::string newick;
  std::size_t i = 0;
  auto lower_word = [&](std::size_t& p) {
    skip_newick_blanks(text, p);
    std::string w;
    while (p < text.size() && (std::isalnum(static_cast<unsigned char>(text[p])) || text[p] == '_')) w.push_back(static_cast<char>(std::tolower(text[p++])));
    return w;
  };
  while (i < text.size()) {
    std::size_t start = i;
    std::string w = lower_word(i);
    if (w.empty()) {
      if (i < text.size()) ++i;
      continue;
    }
    if (w == "translate") {
      for (;;) {
        skip_newick_blanks(text, i);
        if (i >= text.size() || text[i] == ';') { ++i; break; }
        std::string key = newick_word(text, i);
        skip_newick_blanks(text, i);
        std::string value = newick_word(text, i);
        if (key.empty()) error_exit("Damaged TRANSLATE command in NEXUS trees");
        translate[key] = value;
        skip_newick_blanks(text, i);
        if (i < text.size() && text[i] == ',') ++i;
      }
    } else if (w == "tree" || w == "utree") {
      std::size_t eq = text.find('=', i);
      if (eq == std::string::npos) error_exit("Expected \"=\" in NEXUS TREE command");
      std::size_t semi = eq;
      bool quote = false;
      int bracket = 0;
      for (; semi < text.size(); ++semi) {
        char c = text[semi];
        if (c == '\'' ) quote = !quote;
        else if (!quote && c == '[') ++bracket;
        else if (!quote && c == ']') --bracket;
        else if (!quote && !bracket && c == ';') break;
      }
      newick += text.substr(eq + 1, semi - eq) + "\n";
      i = semi + 1;
    } else {
      while (i < text.size() && text[i] != ';') ++i;
      ++i;
    }
    (void)start;
  }
  bool labels = false;
  int group = take_auto_group("Newick");
  return read_newick_text(newick, translate.empty() ? nullptr : &translate, group, &labels);
}

void import_newick_file(const std::string& name) {
  require_data();
  std::FILE* f = shell::open_user_file(name, "rb");
  if (!f) error_exit({"Can't open", name});
  std::string text;
  char buf[65536];
  std::size_t got;
  while ((got = std::fread(buf, 1, sizeof buf, f)) > 0) text.append(buf, got);
  std::fclose(f);
  int first = tree_store.ntrees;
  bool labels = false;
  int group = take_auto_group("Newick");
  int n = read_newick_text(text, nullptr, group, &labels);
  if (labels) out_printf("Tree-tags from %s\n", name.c_str());
  std::string line;
  char b[256];
  std::snprintf(b, sizeof b, "Read %i %s from Newick tree-file (%s %i", n, n == 1 ? "tree" : "trees", n == 1 ? "tree" : "trees", first);
  line = b;
  if (n > 1) line += "-" + std::to_string(first + n - 1) + ")";
  else line += ")";
  if (labels) line += " (stored tree-tags as well)";
  out_text({line, "\n"});
}

namespace {

// "tread [" with an optional separator right after it ("&N": ASCII N; 0 or 1 none), or
// "tread ]": whether the tags of tree texts join the tags already stored.
void read_tag_mode(bool add) {
  auto& s = tree_store;
  s.tag_add = add ? 1 : 0;
  if (add) {
    int d = next_char();
    if (d == '&') {
      if (!std::isdigit(peek_char())) error_exit("Give ASCII number for tag separator");
      int n = read_int();
      if (n < 0 || n > 255) error_exit("Give ASCII number for tag separator");
      s.tag_separator = n <= 1 ? 0 : n;
    } else if (d > 32 && d < 127 && d != ';' && d != '(' && d != '\'' && d != '=' && d != '>' && d != '*' &&
               !is_name_char(d)) {
      s.tag_separator = d;
    } else {
      unread_char();
    }
  }
  out_text({"When reading tags from parenthetical trees, ", add ? "add" : "don't add", " them to existing tags\n"});
}

}  // namespace

// --- Commands ------------------------------------------------------------------------

void cmd_tread() {
  require_data();
  int c = peek_char();
  if (c == '[' || c == ']') {
    next_char();
    read_tag_mode(c == '[');
    c = peek_char();
    if (c == ';') return;
  }
  std::string file = current_frame().name;
  int group = -1;
  if (c == '=' || c == '>') group = read_group_argument(base_name(file).c_str());
  if (peek_char() == '\'') {
    next_char();
    std::string title;
    int d;
    while ((d = next_char()) != '\'' && d != 0) {
      if (d == '\r') continue;
      title.push_back(static_cast<char>(d));
      if (d == ';' && input_exhausted()) break;
    }
    out_text({title, "\n"});
  }
  if (group < 0) group = read_group_argument(base_name(file).c_str());
  CharSource src;
  int first = 0;
  int n = read_tread_trees(src, group, &first);
  out_text({number_text(n), " trees read (trees ", number_text(first), "-", number_text(first + n - 1), ")\n"});
}

void close_tree_file(bool report) {
  if (!tree_file.stream) return;
  if (!tree_file.compact && tree_file.saved) std::fputs(";\nproc-;\n", tree_file.stream);
  std::fclose(tree_file.stream);
  if (report) out_text({"Closing ", tree_file.name, " (with ", number_text(tree_file.saved), " trees saved)\n"});
  tree_file = TreeFile();
}

namespace {

// A parenthetical tree file ends by closing itself ("proc-;" or "proc/;"); trees appended
// after that line would never be read, so it is cut off before appending.
void drop_closing_command(const std::string& name) {
  std::FILE* f = shell::open_user_file(name, "rb");
  if (!f) return;
  std::string text;
  char buf[4096];
  std::size_t n;
  while ((n = std::fread(buf, 1, sizeof buf, f)) > 0) text.append(buf, n);
  std::fclose(f);
  std::size_t end = text.size();
  while (end > 0 && static_cast<unsigned char>(text[end - 1]) < 33) --end;
  for (const char* close : {"proc-;", "proc/;"}) {
    std::size_t len = std::strlen(close);
    if (end >= len && text.compare(end - len, len, close) == 0) {
      std::error_code ec;
      std::filesystem::resize_file(name, end - len, ec);
      return;
    }
  }
}

void open_tree_file(const std::string& name, bool parenthetical, bool append) {
  if (tree_file.stream) error_exit({"Can't open new file: Tree file", tree_file.name, "is open"});
  require_data();
  const int ntax = dataset.ntax;
  bool wide = ntax >= 16384;
  bool exists = false;
  if (append) {
    std::FILE* probe = shell::open_user_file(name, "rb");
    if (probe) {
      exists = true;
      if (!parenthetical) {
        unsigned char b[6] = {0};
        std::size_t got = std::fread(b, 1, 6, probe);
        int narrow = got >= 2 ? b[0] | b[1] << 8 : -1;
        long long taxa = narrow;
        if (narrow == 0 && got >= 6) taxa = static_cast<long long>(b[2]) | b[3] << 8 | b[4] << 16 | static_cast<long long>(b[5]) << 24;
        std::fclose(probe);
        if (narrow == 0 && taxa != ntax) {
          error_exitf("Cannot append tree file.\nTree file %s is not for %i taxa", name.c_str(), ntax);
        }
        if (taxa != ntax) {
          error_exitf("Cannot append tree file.\n\nTrees in %s are for %lli taxa; current data set has %i", name.c_str(), taxa, ntax);
        }
      } else {
        std::fclose(probe);
        drop_closing_command(name);
      }
    }
  }
  std::FILE* f = shell::open_user_file(name, append ? "ab" : "wb");
  if (!f) error_exit({"Can't open", name});
  tree_file = TreeFile();
  tree_file.stream = f;
  tree_file.name = name;
  tree_file.compact = !parenthetical;
  tree_file.wide = wide;
  if (!exists) {
    if (parenthetical) {
      std::fprintf(f, "tread 'tree(s) from QAX, for data in %s'\n", dataset.title.empty() ? "(unnamed data)" : dataset.title.c_str());
    } else if (wide) {
      write_u16(f, 0);
      write_u32(f, static_cast<std::uint32_t>(ntax));
    } else {
      write_u16(f, static_cast<unsigned>(ntax));
    }
  } else if (parenthetical) {
    // Appending to a parenthetical file: a new tread starts after the old proc-.
    std::fprintf(f, "tread\n");
  }
}

bool parse_duration(const std::string& s, int& seconds) {
  int parts[3] = {0, 0, 0}, np = 0;
  std::size_t i = 0;
  while (i < s.size() && np < 3) {
    if (!std::isdigit(static_cast<unsigned char>(s[i]))) return false;
    int v = 0;
    while (i < s.size() && std::isdigit(static_cast<unsigned char>(s[i]))) v = std::min(v * 10 + (s[i++] - '0'), 10000000);
    parts[np++] = v;
    if (i < s.size()) {
      if (s[i] != ':') return false;
      ++i;
    }
  }
  if (i < s.size()) return false;
  seconds = np == 1 ? parts[0] : np == 2 ? parts[0] * 60 + parts[1] : parts[0] * 3600 + parts[1] * 60 + parts[2];
  return true;
}

}  // namespace

const std::vector<std::vector<std::int32_t>>* autosave_rows = nullptr;

void tree_autosave_check(bool force) {
  if (auto_save.seconds <= 0 || tree_store.ntax == 0) return;
  double now = now_seconds();
  if (!force && now - auto_save.last < auto_save.seconds) return;
  auto_save.last = now;
  std::string name = auto_save.name + (auto_save.which ? "-2" : "-1");
  auto_save.which ^= 1;
  std::FILE* f = shell::open_user_file(name, "w");
  if (!f) {
    out_printf("NOTE: cannot open file %s for auto-saving; \n      auto-saving turned off\n", name.c_str());
    auto_save.seconds = 0;
    return;
  }
  if (autosave_rows)
    std::fprintf(f, "tread\n'partial results for resampling (%i reps.)'\n", static_cast<int>(autosave_rows->size()));
  else
    std::fprintf(f, "tread\n'trees saved at %.0f secs.'\n", now - static_cast<double>(shell_state.run_start_time > 0 ? 0 : 0) - shell_state.watch_reference);
  const int count = autosave_rows ? static_cast<int>(autosave_rows->size()) : tree_store.ntrees;
  for (int k = 0; k < count; ++k) {
    if (k) std::fputs("*\n", f);
    const std::int32_t* row = autosave_rows ? (*autosave_rows)[k].data() : tree_row(k);
    std::fputs(tree_to_text(row, tree_store.ntax, false, nullptr).c_str(), f);
    std::fputc('\n', f);
  }
  std::fputs(";\n", f);
  std::fclose(f);
}

void cmd_tsave() {
  int c = peek_char();
  if (c == '/') {
    next_char();
    int d = peek_char();
    if (d == ';') {
      if (!tree_file.stream) error_exit("No tree file open");
      close_tree_file(true);
      return;
    }
    unread_char();
  }
  if (c == '!') {
    next_char();
    read_token();
    int secs = 0;
    if (!parse_duration(token_buffer, secs)) error_exit({"Expected a time after \"!\":", token_buffer});
    if (secs == 0) {
      auto_save.seconds = 0;
      out_text({"Auto-save is off\n"});
      return;
    }
    if (!read_token()) error_exit("Must give file name");
    auto_save.seconds = secs;
    auto_save.name = token_buffer;
    auto_save.last = now_seconds();
    out_printf("Will auto-save results to files\n%s-1 and %s-2 every %i seconds...\n", token_buffer, token_buffer, secs);
    return;
  }
  bool once = false, parenthetical = false;
  if (c == '=') { next_char(); once = true; }
  if (peek_char() == '*') { next_char(); parenthetical = true; }
  if (!read_token()) error_exit("Must give file name");
  std::string name = token_buffer;
  bool append = false;
  if (name.size() > 1 && name.back() == '+') {
    append = true;
    name.pop_back();
  }
  if (once && input_level() + 1 >= input_max_levels())
    error_exit("Too many input files open to open tree-file and save trees in one shot");
  open_tree_file(name, parenthetical, append);
  if (once) push_text_level("save; tsav/;", "tsave");
}

void cmd_save() {
  if (!tree_file.stream) error_exit("Must open treefile first!");
  require_data();
  bool tags = false, active = false;
  for (;;) {
    int c = peek_char();
    if (c == '*') { next_char(); tags = true; continue; }
    if (c == '-') {
      // "-" alone (not a negative list item) selects active numbering.
      next_char();
      int d = peek_char();
      if (d == ';' || d == '/' || std::isdigit(d) || d == '.' || d == '{') { active = true; continue; }
      unread_char();
    }
    break;
  }
  if (tags && tree_file.compact) error_exit("Tree-tags can be saved only in parenthetical notation");
  if (active && tree_file.compact) error_exit("Can't save trees for active taxa in compact mode");
  const int ntax = tree_store.ntax;
  if (tags) {
    if (tree_store.tag_tree.empty()) error_exit("No tags to save");
    if (tree_file.saved) std::fputs("*\n", tree_file.stream);
    std::fputs(tree_to_text(tree_store.tag_tree.data(), ntax, qax::dataset::name_output.show, &tree_store.tags).c_str(), tree_file.stream);
    std::fputc('\n', tree_file.stream);
    ++tree_file.saved;
    out_line({"1 trees saved to", tree_file.name});
    return;
  }
  if (tree_store.ntrees == 0) error_exit("No trees to save!");
  std::vector<std::uint8_t> flags;
  int c = peek_char();
  flags.assign(tree_store.ntrees, 1);
  if (c != ';') read_tree_list(flags, true);
  std::vector<int> active_number(ntax, -1);
  if (active) {
    int k = 0;
    for (int t = 0; t < ntax; ++t) active_number[t] = taxon_active(t) ? k++ : -1;
  }
  int saved = 0;
  for (int k = 0; k < tree_store.ntrees; ++k) {
    if (flags[k] != 1) continue;
    show_progress(k, tree_store.ntrees, "Saving trees");
    const std::int32_t* t = tree_row(k);
    if (tree_file.compact) {
      write_compact_tree(t, ntax);
    } else {
      std::string text;
      if (active) {
        for (int x = 0; x < ntax; ++x)
          if (t[x] >= ntax && active_number[x] < 0) error_exit("Cannot save tree as reduced: it contains some inactive taxa");
        text = tree_to_text(t, ntax, false, nullptr);
        // Renumber terminals: rewrite each number token.
        std::string outtext;
        for (std::size_t i = 0; i < text.size();) {
          if (std::isdigit(static_cast<unsigned char>(text[i]))) {
            int v = 0;
            while (i < text.size() && std::isdigit(static_cast<unsigned char>(text[i]))) v = v * 10 + (text[i++] - '0');
            outtext += std::to_string(active_number[v]);
          } else {
            outtext.push_back(text[i++]);
          }
        }
        text = outtext;
      } else {
        text = tree_to_text(t, ntax, qax::dataset::name_output.show, nullptr);
      }
      if (tree_file.saved) std::fputs("*\n", tree_file.stream);
      std::fputs(text.c_str(), tree_file.stream);
      std::fputc('\n', tree_file.stream);
    }
    ++tree_file.saved;
    ++saved;
  }
  clear_progress();
  std::fflush(tree_file.stream);
  out_line({number_text(saved), "trees saved to", tree_file.name});
}

void cmd_shortread() {
  require_data();
  int c = peek_char();
  bool grouped = c == '=' || c == '>';
  int gchar = grouped ? next_char() : 0;
  int gnum = -1;
  if (grouped) {
    gnum = read_int();
    if (gnum < 0 || gnum >= tree_store.group_capacity) error_exitf("Can store trees only as groups 0-%i", tree_store.group_capacity - 1);
  }
  if (!read_token()) error_exit("Must give file name");
  std::string name = token_buffer;
  std::FILE* f = shell::open_user_file(name, "rb");
  if (!f) error_exit({"Can't open", name});
  std::string data;
  char buf[65536];
  std::size_t got;
  while ((got = std::fread(buf, 1, sizeof buf, f)) > 0) data.append(buf, got);
  std::fclose(f);
  const int ntax = dataset.ntax;
  auto byte = [&](std::size_t i) { return static_cast<std::uint32_t>(static_cast<unsigned char>(data[i])); };
  if (data.size() < 2) error_exit({"Tree file", name, "doesn't look like a tree file for", number_text(ntax), "taxa"});
  std::uint32_t taxa = byte(0) | byte(1) << 8;
  std::size_t pos = 2;
  bool wide = false;
  if (taxa == 0) {
    if (ntax < 16384 || data.size() < 6) error_exit({"Tree file", name, "doesn't look like a tree file for", number_text(ntax), "taxa"});
    taxa = byte(2) | byte(3) << 8 | byte(4) << 16 | byte(5) << 24;
    pos = 6;
    wide = true;
  }
  if (static_cast<int>(taxa) != ntax)
    error_exit({"Tree file", name, "is for", number_text(taxa), "taxa - Current data file has", number_text(ntax)});
  int group = -1;
  if (grouped) {
    if (gchar == '=') group_wipe(gnum);
    tree_store.group_defined[gnum] = 1;
    tree_store.group_names[gnum] = base_name(name).substr(0, tree_group_name_size);
    tree_store.last_group = gnum;
    group = gnum;
  } else {
    group = read_group_argument(base_name(name).c_str());
  }
  const std::size_t wbytes = wide ? 4 : 2;
  std::vector<std::int32_t> tree(2 * ntax - 1);
  int first = tree_store.ntrees, n = 0;
  while (pos < data.size()) {
    if (pos + wbytes > data.size()) error_exit("Unexpected end of file");
    std::uint32_t words = byte(pos) | byte(pos + 1) << 8;
    if (wide) words |= byte(pos + 2) << 16 | byte(pos + 3) << 24;
    pos += wbytes;
    std::size_t len = static_cast<std::size_t>(words) * wbytes;
    if (words > data.size() || pos + len > data.size()) error_exit("Unexpected end of file");
    if (!decode_compact(reinterpret_cast<const std::uint8_t*>(data.data() + pos), len * 8, ntax, tree.data()))
      error_exit({"Tree file", name, "is damaged"});
    pos += len;
    tree_store_append(tree.data(), group);
    ++n;
  }
  out_text({number_text(n), " trees read from ", name, " (trees ", number_text(first), "-", number_text(first + n - 1), ")\n"});
}

void cmd_absincl() {
  int c = peek_char();
  if (c == '=' || c == '-') {
    next_char();
    tree_store.absincl = c == '=';
  } else if (c == '/') {
    next_char();
    tree_store.absincl = !tree_store.absincl;
  }
  out_line({"Absent taxa", tree_store.absincl ? "included at the base of trees" : "left out of trees"});
}

// --- Fuzzing ---------------------------------------------------------------------------

extern "C" int fuzz_tree_text(const std::uint8_t* data, std::size_t size) {
  static bool ready = false;
  if (!ready) {
    init_input_stack(default_mxproc, "", false);
    output_state.silent_flags = 7;
    ready = true;
  }
  if (!dataset.loaded) {
    dataset.loaded = 1;
    dataset.ntax = 12;
    dataset.taxon_names.clear();
    for (int t = 0; t < 12; ++t) dataset.taxon_names.push_back("taxon_" + std::to_string(t));
    dataset.taxon_active.assign(12, 1);
  }
  std::string text(reinterpret_cast<const char*>(data), size);
  protected_call([&] {
    tree_store_reset_for(dataset.ntax);
    read_tree_string(text, -1);
  });
  protected_call([&] {
    tree_store_reset_for(dataset.ntax);
    read_newick_text(text, nullptr, -1, nullptr);
  });
  std::vector<std::int32_t> tree(2 * dataset.ntax - 1);
  decode_compact(data, size * 8, dataset.ntax, tree.data());
  output_state.silent_flags = 7;
  return 0;
}

}  // namespace qax::trees

namespace qax::trees {

void tree_files_at_exit() {
  tree_autosave_check(true);
  if (!tree_file.stream) return;
  // A parenthetical tree file stays a valid command file when the run ends with it open.
  if (!tree_file.compact) {
    std::fputs(";\nproc/;\n", tree_file.stream);
    tree_file.saved = 0;
  }
  close_tree_file(false);
}

}  // namespace qax::trees
