// cstree: costs of characters from a drawing of a tree of states. The drawing follows the
// command on lines of its own, up to ";": state symbols joined by "/", "\", "|", "-" and
// "X" (a crossing). Links are traced from each state downwards ("/" down-left, "|" down,
// "\" down-right) and to the right ("-"); each link is one step, and the cost between
// two states is the number of links between them on the tree.
//      0
//     / \       0-1 1, 0-2 1, 1-2 2, 2-3 1, 0-3 2, 1-3 3
//    1   2
//        |
//        3
#include <algorithm>
#include <cctype>
#include <cstdio>
#include <deque>
#include <string>
#include <vector>

#include "dataset/costs.h"
#include "dataset/dataset.h"
#include "dataset/lists_bridge.h"
#include "shell/failure.h"
#include "shell/input.h"
#include "shell/output.h"

namespace qax::dataset {

using shell::error_exit;

namespace {

constexpr int drawing_width = 80;    // characters per line of a drawing
constexpr int drawing_lines = 40;    // lines of a drawing

int state_of_symbol(int ch) {
  if (std::isdigit(ch)) return ch - '0';
  if (std::isalpha(ch) && std::toupper(ch) <= 'V') return 10 + std::toupper(ch) - 'A';
  return -1;
}

bool is_link(int ch) { return ch == '/' || ch == '\\' || ch == '|' || ch == '-' || ch == 'X'; }

std::vector<std::string> read_drawing() {
  // The rest of the command line is skipped; the drawing starts on the next line.
  int c;
  while ((c = shell::next_char()) != '\n' && c != EOF && c != ';') {}
  if (c == ';' || c == EOF) error_exit("Character state tree must start with a state");
  std::vector<std::string> lines(1);
  for (;;) {
    c = shell::next_char();
    if (c == EOF || c == ';') break;
    if (c == '\r') continue;
    if (c == '\n') {
      if (static_cast<int>(lines.size()) >= drawing_lines) error_exit("Can't read character state tree: too many lines");
      lines.emplace_back();
      continue;
    }
    if (c == '\t') c = ' ';
    if (static_cast<int>(lines.back().size()) >= drawing_width) {
      if (lines.size() == 1) error_exit("First line too wide");
      error_exit({"Can't read character state tree: line", std::to_string(lines.size() - 1), "too wide"});
    }
    lines.back() += static_cast<char>(c);
  }
  if (c == ';') shell::unread_char();
  while (!lines.empty() && lines.back().find_first_not_of(' ') == std::string::npos) lines.pop_back();
  while (!lines.empty() && lines.front().find_first_not_of(' ') == std::string::npos) lines.erase(lines.begin());
  if (lines.empty()) error_exit("Character state tree must start with a state");
  return lines;
}

// Distances between the states of a drawing; -1 where no path joins them.
std::vector<int> drawing_costs(const std::vector<std::string>& lines, int& highest) {
  auto at = [&](int r, int c) -> int {
    if (r < 0 || r >= static_cast<int>(lines.size()) || c < 0 || c >= static_cast<int>(lines[r].size())) return ' ';
    return static_cast<unsigned char>(lines[r][c]);
  };
  const std::size_t first = lines[0].find_first_not_of(' ');
  if (state_of_symbol(at(0, static_cast<int>(first))) < 0) error_exit("Character state tree must start with a state");
  for (std::size_t k = 0; k < lines[0].size(); ++k) {
    const int ch = static_cast<unsigned char>(lines[0][k]);
    if (ch != ' ' && state_of_symbol(ch) < 0 && ch != '-') {
      char sym[2] = {static_cast<char>(ch), 0};
      error_exit({std::string("'") + sym + "'", "in first line doesn't connect to any state"});
    }
  }
  std::vector<std::vector<int>> adj(cost_states);
  std::uint32_t present = 0;
  for (int r = 0; r < static_cast<int>(lines.size()); ++r)
    for (int c = 0; c < static_cast<int>(lines[r].size()); ++c) {
      const int s = state_of_symbol(at(r, c));
      if (s < 0) {
        const int ch = at(r, c);
        if (ch != ' ' && !is_link(ch))
          error_exit({"Can't read character state tree: line", std::to_string(r + 1)});
        continue;
      }
      if (s >= cost_states) error_exit({"Can't read character state tree: line", std::to_string(r + 1)});
      present |= 1u << s;
      // Links leave a state below it (down-left "/", straight down any of "/|\", down-right
      // "\") and to its right ("-").
      const int dirs[6][2] = {{1, -1}, {1, 0}, {1, 0}, {1, 0}, {1, 1}, {0, 1}};
      const int starts[6] = {'/', '/', '|', '\\', '\\', '-'};
      for (int d = 0; d < 6; ++d) {
        int dr = dirs[d][0], dc = dirs[d][1];
        int rr = r + dr, cc = c + dc;
        if (at(rr, cc) != starts[d]) continue;
        // Follow the link until a state.
        for (int guard = 0; guard < drawing_width * drawing_lines; ++guard) {
          const int ch = at(rr, cc);
          const int t = state_of_symbol(ch);
          if (t >= 0) {
            if (std::find(adj[s].begin(), adj[s].end(), t) == adj[s].end()) {
              adj[s].push_back(t);
              adj[t].push_back(s);
            }
            break;
          }
          if (ch == '/') { dr = 1; dc = -1; }
          else if (ch == '\\') { dr = 1; dc = 1; }
          else if (ch == '|') { dr = 1; dc = 0; }
          else if (ch == '-' || ch == 'X') {}
          else {
            char buf[160];
            std::snprintf(buf, sizeof buf, "Wrong character state tree: '%c' (line %i) connects to '%c' ?\n",
                          at(rr - dr, cc - dc), rr - dr + 1, ch == ' ' ? ' ' : ch);
            error_exit(buf);
          }
          rr += dr;
          cc += dc;
        }
      }
    }
  highest = 31 - __builtin_clz(present);
  for (int s = 0; s <= highest; ++s)
    if (!(present >> s & 1)) {
      char buf[200];
      std::snprintf(buf, sizeof buf,
                    "Can't read character state tree:\n   state %i not included (must include \n   all states between 0 and %i)...",
                    s, highest);
      error_exit(buf);
    }
  const int n = highest + 1;
  std::vector<int> dist(static_cast<std::size_t>(n) * n, -1);
  for (int s = 0; s < n; ++s) {
    std::deque<int> queue{s};
    dist[s * n + s] = 0;
    while (!queue.empty()) {
      const int u = queue.front();
      queue.pop_front();
      for (int v : adj[u])
        if (dist[s * n + v] < 0) {
          dist[s * n + v] = dist[s * n + u] + 1;
          queue.push_back(v);
        }
    }
  }
  const char* symbols = "0123456789ABCDEFGHIJKLMNOPQRSTUV";
  for (int i = 0; i < n; ++i)
    for (int j = 0; j < n; ++j) {
      if (dist[i * n + j] < 0) {
        char buf[96];
        std::snprintf(buf, sizeof buf, "\nERROR: no cost defined between states %c-%c\n", symbols[i], symbols[j]);
        error_exit(buf);
      }
      if (dist[i * n + j] != dist[j * n + i]) {
        char buf[96];
        std::snprintf(buf, sizeof buf, "\nERROR: cost between states %c-%c read as asymmetrical\n", symbols[i], symbols[j]);
        error_exit(buf);
      }
    }
  return dist;
}

std::vector<std::uint8_t> state_tree_chars;   // characters whose costs came from a drawing
std::vector<std::vector<int>> state_tree_parent;   // per such character: parent of each state
bool decompose_trees = false;                  // cstree +: trees defined later are decomposed too

// Parents of the states of a tree given by its distances, rooted at `top`.
std::vector<int> parents_from_distances(const std::vector<int>& dist, int n, int top) {
  std::vector<int> parent(n, -1);
  for (int s = 0; s < n; ++s) {
    if (s == top) continue;
    for (int t = 0; t < n; ++t)
      if (dist[t * n + s] == 1 && dist[top * n + t] == dist[top * n + s] - 1) { parent[s] = t; break; }
  }
  return parent;
}

// Costs of c still the distances on its drawn tree (a later cost command, or a cap, may
// have changed them).
bool costs_match_tree(int c) {
  const std::vector<int>& parent = state_tree_parent[c];
  const int n = static_cast<int>(parent.size());
  std::vector<int> depth(n, -1);
  auto depth_of = [&](int s) {
    int d = 0;
    for (int x = s; parent[x] >= 0 && d <= n; x = parent[x]) ++d;
    return d;
  };
  for (int s = 0; s < n; ++s) depth[s] = depth_of(s);
  for (int i = 0; i < n; ++i)
    for (int j = 0; j < n; ++j) {
      // Distance: climb from the deeper state until both meet.
      int a = i, b = j, d = 0;
      while (a != b && d <= 2 * n) {
        if (depth[a] >= depth[b]) a = parent[a]; else b = parent[b];
        ++d;
        if (a < 0 || b < 0) return false;
      }
      if (cost_of(c, i, j) != d) return false;
    }
  return true;
}

void list_state_trees() {
  std::string list;
  for (int c = 0; c < dataset.nchar && c < static_cast<int>(state_tree_chars.size()); ++c)
    if (state_tree_chars[c]) list += " " + std::to_string(c);
  if (list.empty()) {
    shell::out_text({"No character state trees defined\n"});
    return;
  }
  shell::out_text({"Character(s) with character state tree(s):" + list + "\n"});
  const char* symbols = "0123456789ABCDEFGHIJKLMNOPQRSTUV";
  for (int c = 0; c < dataset.nchar && c < static_cast<int>(state_tree_chars.size()); ++c) {
    if (!state_tree_chars[c]) continue;
    const int n = std::max(2, dataset.chars[c].num_states);
    std::string text = "Char. " + std::to_string(c) + ", Costs\n";
    char buf[32];
    for (int i = 0; i < n; ++i)
      for (int j = i + 1; j < n; ++j) {
        std::snprintf(buf, sizeof buf, "  %c/%c %-3i ", symbols[i], symbols[j], cost_of(c, i, j));
        text += buf;
      }
    shell::out_text({text, "\n"});
  }
}

}  // namespace

void cmd_cstree() {
  require_data();
  int c = shell::next_nonblank();
  if (c == ';') {
    shell::unread_char();
    list_state_trees();
    return;
  }
  if ((c == '+' || c == '-') && shell::peek_char() == ';') {
    decompose_trees = c == '+';
    std::string unlike;
    for (int ch = 0; ch < dataset.nchar && ch < static_cast<int>(state_tree_chars.size()); ++ch)
      if (state_tree_chars[ch]) {
        dataset.chars[ch].tree_binary = c == '+';
        dataset.chars[ch].dirty = 1;
        if (c == '+' && !costs_match_tree(ch)) unlike += " " + std::to_string(ch);
      }
    shell::out_text({c == '+' ? "Character state trees decomposed in binary variables\n"
                              : "Character state trees treated as whole characters\n"});
    if (!unlike.empty())
      shell::out_text({"Note: some costs (char." + unlike + ") do not correspond to a character state tree;\n"
                       "those characters considered as sankoff.\n"});
    minmax_check();
    return;
  }
  shell::unread_char();
  std::vector<std::int8_t> flags;
  read_character_list(flags, "=<");
  c = shell::next_nonblank();
  if (c != '=' && c != '<') error_exit("Expected symbols '=' or '<' to finish list of characters");
  int cap = -1;
  if (c == '<') {
    // Digits read here: the end of the line must stay, as the drawing begins after it.
    int ch = shell::next_nonblank();
    cap = 0;
    while (std::isdigit(ch)) {
      cap = std::min(cap * 10 + (ch - '0'), 1000000);
      ch = shell::next_char();
    }
    shell::unread_char();
    if (cap < 1) error_exit("Expected symbols '=' or '<' to finish list of characters");
  }
  int highest = 0;
  const std::vector<std::string> lines = read_drawing();
  const std::vector<int> dist = drawing_costs(lines, highest);
  const int n = highest + 1;
  const int top = state_of_symbol(static_cast<unsigned char>(lines[0][lines[0].find_first_not_of(' ')]));
  const std::vector<int> parent = parents_from_distances(dist, n, top);
  if (static_cast<int>(state_tree_chars.size()) < dataset.nchar) state_tree_chars.resize(dataset.nchar, 0);
  if (static_cast<int>(state_tree_parent.size()) < dataset.nchar) state_tree_parent.resize(dataset.nchar);
  for (int ch = 0; ch < dataset.nchar; ++ch) {
    if (flags[ch] != 1 || dataset.chars[ch].is_continuous) continue;
    std::int32_t* t = cost_table_for_edit(ch);
    for (int i = 0; i < n; ++i)
      for (int j = 0; j < n; ++j) t[i * cost_states + j] = cap > 0 ? std::min(cap, dist[i * n + j]) : dist[i * n + j];
    CharacterRecord& r = dataset.chars[ch];
    r.sankoff = 1;
    r.additive = 0;
    r.asymmetric = 0;
    r.dirty = 1;
    r.tree_binary = decompose_trees;
    state_tree_chars[ch] = 1;
    state_tree_parent[ch] = parent;
  }
  if (cap > 0) {
    char buf[64];
    std::snprintf(buf, sizeof buf, " (larger costs modified to be %i)\n", cap);
    shell::out_text({buf});
  }
  minmax_check();
}

void reset_state_trees() {
  state_tree_chars.clear();
  state_tree_parent.clear();
}

std::vector<int> binary_state_tree(int c) {
  if (c < 0 || c >= dataset.nchar || c >= static_cast<int>(state_tree_chars.size()) || !state_tree_chars[c]) return {};
  if (!dataset.chars[c].tree_binary || !dataset.chars[c].sankoff || !costs_match_tree(c)) return {};
  return state_tree_parent[c];
}

}  // namespace qax::dataset
