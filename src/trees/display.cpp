// The drawing routine shared by tplot and every command that shows values on a tree.
#include "trees/display.h"

#include <algorithm>
#include <cctype>

#include "dataset/dataset.h"
#include "shell/failure.h"
#include "shell/input.h"
#include "shell/output.h"
#include "shell/state.h"
#include "trees/notation.h"
#include "trees/store.h"

namespace qax::trees {

using namespace qax::shell;

namespace {

// Drawing alphabet: vertical, tee right, corner up, corner down, tee left,
// horizontal, horizontal with branch up, crossing. Box bytes on code-page consoles.
enum Stroke { vertical, tee_right, corner_up, corner_down, tee_left, horizontal, tee_up, crossing };
constexpr char plain_alphabet[8] = {'|', '|', '`', ',', '|', '-', '-', '+'};

}  // namespace

// Example, ntax 3, tree (0 (1 2)), width 3:
//    ,-- 0        terminal 0 on row 0; the root (column 1) on the row of its last child
//  --|  ,-- 1     node 4 on row 2, the row of its last child (terminal 2)
//    `--'-- 2
// (the exact shapes are those of the tests).
std::vector<std::string> tree_diagram(const std::int32_t* tree, int ntax, const std::vector<std::string>* labels,
                                      int column_width, int start_node) {
  TreeLinks links;
  build_tree_links(tree, ntax, links);
  const int n = 2 * ntax - 1;
  // Children by increasing size (stable), second largest first on request.
  std::vector<std::vector<int>> kids(n);
  for (int v = ntax; v < tree[ntax]; ++v) {
    for (int c = links.firstdes[v]; c >= 0; c = links.sister[c]) kids[v].push_back(c);
    std::reverse(kids[v].begin(), kids[v].end());  // increasing highest terminal
    std::stable_sort(kids[v].begin(), kids[v].end(), [&](int a, int b) { return links.ntips[a] < links.ntips[b]; });
    if (display_settings.second_first && kids[v].size() > 2) {
      int second = kids[v][kids[v].size() - 2];
      kids[v].erase(kids[v].end() - 2);
      kids[v].insert(kids[v].begin(), second);
    }
  }
  std::vector<int> row(n, -1), depth(n, 0), first_row(n, 0), last_row(n, 0);
  int rows = 0, maxdepth = 0;
  // Iterative post-order from start_node.
  std::vector<std::pair<int, std::size_t>> stack{{start_node, 0}};
  depth[start_node] = 0;
  while (!stack.empty()) {
    auto& [v, i] = stack.back();
    if (v < ntax) {
      row[v] = rows++;
      maxdepth = std::max(maxdepth, depth[v]);
      stack.pop_back();
      continue;
    }
    if (i < kids[v].size()) {
      int c = kids[v][i++];
      depth[c] = depth[v] + 1;
      stack.push_back({c, 0});
      continue;
    }
    first_row[v] = row[kids[v].front()];
    last_row[v] = row[kids[v].back()];
    row[v] = display_settings.symmetric ? (first_row[v] + last_row[v]) / 2 : last_row[v];
    stack.pop_back();
  }
  const int w = std::max(2, column_width);
  auto col = [&](int v) { return v < ntax ? 1 + maxdepth * w : 1 + depth[v] * w; };
  const int width = 2 + maxdepth * w;
  std::vector<std::string> m(rows, std::string(width, ' '));
  auto label_of = [&](int v) -> std::string {
    if (labels && v < static_cast<int>(labels->size()) && !(*labels)[v].empty()) return (*labels)[v];
    if (!switches.naked && v >= ntax) return std::to_string(v);
    return std::string();
  };
  // Root stub.
  if (start_node >= ntax) {
    m[row[start_node]][0] = plain_alphabet[horizontal];
    std::string l = label_of(start_node);
    (void)l;
  }
  for (int v = 0; v < tree[ntax]; ++v) {
    if (v == start_node || row[v] < 0) continue;
    int p = tree[v];
    int r = row[v];
    for (int x = col(p) + 1; x < col(v); ++x) m[r][x] = plain_alphabet[horizontal];
    std::string l = label_of(v);
    for (std::size_t i = 0; i < l.size() && col(p) + 1 + static_cast<int>(i) < col(v); ++i) m[r][col(p) + 1 + i] = l[i];
  }
  for (int v = ntax; v < tree[ntax]; ++v) {
    if (row[v] < 0 || kids[v].empty()) continue;
    int x = col(v);
    for (int r = first_row[v]; r <= last_row[v]; ++r) m[r][x] = plain_alphabet[vertical];
    for (int c : kids[v]) {
      int r = row[c];
      m[r][x] = r == first_row[v] ? plain_alphabet[corner_down] : r == last_row[v] ? plain_alphabet[corner_up] : plain_alphabet[tee_right];
    }
    bool child_here = std::any_of(kids[v].begin(), kids[v].end(), [&](int c) { return row[c] == row[v]; });
    int r = row[v];
    if (r == last_row[v] && child_here) m[r][x] = plain_alphabet[tee_up];
    else if (child_here) m[r][x] = plain_alphabet[crossing];
    else m[r][x] = plain_alphabet[tee_left];
  }
  std::vector<std::string> out;
  for (int v = 0; v < ntax; ++v)
    if (row[v] >= 0) m[row[v]] += " " + (qax::dataset::name_output.show ? display_name(v) : std::to_string(v));
  for (auto& line : m) {
    while (!line.empty() && line.back() == ' ') line.pop_back();
    out.push_back(line);
  }
  return out;
}

namespace {

int find_zoom(const std::int32_t* tree, int ntax, const std::vector<std::string>* labels) {
  const std::string& z = display_settings.zoom;
  if (z.empty()) return ntax;
  if (labels)
    for (int v = 0; v < tree[ntax] && v < static_cast<int>(labels->size()); ++v)
      if (v >= ntax && (*labels)[v] == z) return v;
  if (std::all_of(z.begin(), z.end(), [](char c) { return std::isdigit(static_cast<unsigned char>(c)); }) && z.size() < 9) {
    int v = std::stoi(z);
    if (v > ntax && v < tree[ntax]) return v;
  }
  out_printf("N.B.: a zoom to branch labeled \"%s\" requested, but no\n      such branch exists; showing whole tree\n", z.c_str());
  return ntax;
}

int label_width(const std::vector<std::string>* labels) {
  int w = 3;
  if (labels)
    for (const auto& l : *labels) w = std::max(w, static_cast<int>(l.size()) + 2);
  return w;
}

}  // namespace

void draw_tree(const std::int32_t* tree, int ntax, const std::vector<std::string>* labels, const std::string& title) {
  if (display_settings.narrow) {
    draw_tree_narrow(tree, ntax, labels, title);
    return;
  }
  if (!title.empty()) out_text({title, "\n"});
  int start = find_zoom(tree, ntax, labels);
  int w = label_width(labels);
  if (!switches.naked) w = std::max(w, static_cast<int>(std::to_string(2 * ntax).size()) + 2);
  for (const auto& line : tree_diagram(tree, ntax, labels, w, start)) out_text({line, "\n"});
  out_text({"\n"});
}

void draw_tree_narrow(const std::int32_t* tree, int ntax, const std::vector<std::string>* labels, const std::string& title) {
  if (!title.empty()) out_text({title, "\n"});
  int start = find_zoom(tree, ntax, labels);
  // Columns two characters wide leave no room for node numbers: draw naked.
  struct NakedGuard {
    int saved = switches.naked;
    NakedGuard() { switches.naked = 1; }
    ~NakedGuard() { switches.naked = saved; }
  } naked_guard;
  for (const auto& line : tree_diagram(tree, ntax, nullptr, 2, start)) out_text({line, "\n"});
  if (labels)
    for (int v = 0; v < tree[ntax] && v < static_cast<int>(labels->size()); ++v)
      if (!(*labels)[v].empty()) out_printf("  node %i: %s\n", v, (*labels)[v].c_str());
  out_text({"\n"});
}

void cmd_tplot() {
  int c = peek_char();
  if (c == '+' || c == '-') {
    next_char();
    display_settings.symmetric = c == '+';
    out_text({c == '+' ? "Drawing trees symmetrically\n" : "Drawing trees asymmetrycally\n"});
    int d = peek_char();
    if (d == '+' || d == '-') {
      next_char();
      display_settings.second_first = d == '+';
      out_text({d == '+' ? "Drawing second largest clade first\n" : "Drawing trees with clades increasing in size\n"});
    }
    return;
  }
  if (c == ':') {
    next_char();
    std::string z = read_rest_of_command();
    display_settings.zoom = z;
    if (z.empty()) out_text({"No initial zoom for tree displays\n"});
    else out_printf("Defined initial zoom for tree displays: \"%s\"\n", z.c_str());
    return;
  }
  if (c == '=') {
    next_char();
    int values[4], n = 0;
    for (;;) {
      int d = peek_char();
      if (d == ';') break;
      if (d == '<' || d == '/' || d == '>' || d == '\\') {
        next_char();
        int v = read_int();
        if (v < 0) error_exitf("Symbol \"%c\" must be followed by margin value", d);
        display_settings.margins[d == '<' ? 0 : d == '/' ? 1 : d == '>' ? 2 : 3] = v;
        continue;
      }
      int v = read_int();
      if (v < 0) error_exit("Must give numbers (left/top/right/bottom),\nor use symbols <, /, <, and \\ for the same.");
      if (n >= 4) error_exit("Too many values for margins");
      values[n++] = v;
    }
    for (int i = 0; i < n; ++i) display_settings.margins[i] = values[i];
    const int* m = display_settings.margins;
    out_printf("Margins for SVG files are %i/%i/%i/%i (left,top,right,bottom)\n", m[0], m[1], m[2], m[3]);
    return;
  }
  require_data();
  bool text = false;
  if (c == '*') { next_char(); text = true; }
  std::vector<std::uint8_t> flags;
  int d = peek_char();
  bool empty = d == ';';
  read_tree_list(flags, true);
  if (empty) std::fill(flags.begin(), flags.end(), 1);
  const int ntax = tree_store.ntax, nt = tree_store.ntrees;
  if (text) {
    int count = static_cast<int>(std::count(flags.begin(), flags.end(), 1));
    out_printf("Tread 'set of %i trees'\n", count);
    bool first = true;
    for (int k = 0; k < nt; ++k) {
      if (flags[k] != 1) continue;
      if (!first) out_text({" *\n"});
      first = false;
      out_text({tree_to_text(tree_row(k), ntax, qax::dataset::name_output.show, nullptr)});
    }
    out_text({" ;\n"});
    return;
  }
  for (int k = 0; k < nt; ++k) {
    if (flags[k] != 1) continue;
    char title[64];
    if (k == nt - 1) std::snprintf(title, sizeof title, "Tree %i (last tree in memory):", k);
    else std::snprintf(title, sizeof title, "Tree %i:", k);
    draw_tree(tree_row(k), ntax, nullptr, title);
  }
}

}  // namespace qax::trees
