// Commands on the tree store: capacity, selection, counts, duplicates, order, random
// trees, rooting, the vault and tree groups. Tree lists are read by read_tree_list.
#include <algorithm>
#include <cmath>
#include <cctype>
#include <cstring>
#include <numeric>
#include <unordered_map>

#include "dataset/dataset.h"
#include "shell/commands.h"
#include "shell/failure.h"
#include "shell/input.h"
#include "shell/output.h"
#include "shell/state.h"
#include "trees/store.h"
#include "trees/notation.h"

namespace qax::trees {

using namespace qax::shell;
using qax::dataset::dataset;

namespace {

// A tree number or range "a.b" ("a." to the last tree, ".b" from 0) of n trees; c is the
// first character, not yet read. "No tree N" when out of range.
void read_tree_range(int c, int n, int& a, int& b) {
  a = 0;
  if (c != '.') a = read_int();
  b = a;
  if (peek_char() == '.') {
    next_char();
    b = std::isdigit(peek_char()) ? read_int() : n - 1;
  }
  if (a > b) std::swap(a, b);
  if (b >= n || a < 0) error_exit({"No tree", number_text(b >= n ? b : a)});
}


bool is_list_end(int c) {
  return c == ';' || c == '&' || c == '/' || c == '<' || c == '=' || c == '>' || c == '\\' || c == ']' || c == 0;
}

bool name_prefix(std::string_view typed, std::string_view name) {
  if (typed.size() > name.size()) return false;
  for (std::size_t i = 0; i < typed.size(); ++i)
    if (std::tolower(static_cast<unsigned char>(typed[i])) != std::tolower(static_cast<unsigned char>(name[i]))) return false;
  return true;
}

// A group name as typed (letters, digits, '_' and '.'), after any blanks.
std::string read_plain_word() {
  std::string word;
  int c = next_nonblank();
  while ((std::isalnum(c) || c == '_' || c == '.') && word.size() < 200) {
    word.push_back(static_cast<char>(c));
    c = next_char();
  }
  unread_char();
  return word;
}

void mark_group(std::vector<std::uint8_t>& flags, int g, std::uint8_t value) {
  for (int k = 0; k < tree_store.ntrees; ++k)
    if (tree_group_row(k)[g / 32] & (1u << (g % 32))) flags[k] = value;
}

// Reads "{ ... }" after the brace: group names or numbers.
void read_group_set(std::vector<std::uint8_t>& flags, std::uint8_t value) {
  for (;;) {
    int c = peek_char();
    if (c == '}') { next_char(); return; }
    if (c == ';' || c == 0) error_exit("Unexpected semicolon within brackets");
    if (std::isdigit(c)) {
      int a = read_int(), b = a;
      if (peek_char() == '.') {
        next_char();
        b = std::isdigit(peek_char()) ? read_int() : tree_store.group_capacity - 1;
      }
      if (a > b) std::swap(a, b);
      if (b >= tree_store.group_capacity) error_exit({"No tree group", number_text(b)});
      for (int g = a; g <= b; ++g) mark_group(flags, g, value);
    } else if (std::isalnum(c) || c == '_') {
      std::string word = read_plain_word();
      bool any = false;
      for (int g = tree_store.group_capacity - 1; g >= 0; --g)
        if (tree_store.group_defined[g] && name_prefix(word, tree_store.group_names[g])) {
          mark_group(flags, g, value);
          any = true;
        }
      if (!any) error_exit({"No tree group named", word});
    } else {
      next_char();
      error_exit("Found allien character within brackets");
    }
  }
}

}  // namespace

int read_tree_list(std::vector<std::uint8_t>& flags, bool slash_last) {
  const int n = tree_store.ntrees;
  flags.assign(n, 0);
  std::uint8_t sign = 1;
  int named = 0, anything = 0;
  for (;;) {
    int c = peek_char();
    if (c == '/' && slash_last && !anything) {
      next_char();
      if (n == 0) error_exit("No trees in memory");
      flags[n - 1] = 1;
      return 1;
    }
    if (is_list_end(c)) break;
    if (c == '+') { next_char(); sign = 1; anything = 1; continue; }
    if (c == '-') { next_char(); sign = 255; anything = 1; continue; }
    if (c == '{') { next_char(); read_group_set(flags, sign); anything = 1; continue; }
    if (std::isdigit(c) || c == '.') {
      int a = 0, b = 0;
      read_tree_range(c, n, a, b);
      for (int k = a; k <= b; ++k) flags[k] = sign;
      anything = 1;
      continue;
    }
    if (c == '@' || c == '^') {
      next_char();
      error_exit("@ can be used only in reference to taxa or characters");
    }
    read_token();
    if (!token_buffer[0]) error_exit("Expecting tree number");
    error_exit({"No tree named", token_buffer});
  }
  for (int k = 0; k < n; ++k) named += flags[k] == 1;
  if (!anything) return 0;
  return named ? named : 1;
}

// Empty list means every tree.
static int read_tree_list_or_all(std::vector<std::uint8_t>& flags, bool slash_last) {
  int c = peek_char();
  bool empty = is_list_end(c) && !(c == '/' && slash_last);
  int r = read_tree_list(flags, slash_last);
  if (empty) std::fill(flags.begin(), flags.end(), 1);
  return r;
}

void group_wipe(int g) {
  for (int k = 0; k < tree_store.ntrees; ++k) tree_group_row(k)[g / 32] &= ~(1u << (g % 32));
}

int read_group_argument(const char* result_name, bool* add) {
  auto& s = tree_store;
  if (add) *add = false;
  int c = peek_char();
  int g = -1;
  if (c == '=' || c == '>') {
    next_char();
    if (peek_char() == '/') {
      next_char();
      g = s.last_group;
      if (g < 0) error_exitf("Can store trees only as groups 0-%i", s.group_capacity - 1);
    } else {
      g = read_int();
      if (g < 0 || g >= s.group_capacity) error_exitf("Can store trees only as groups 0-%i", s.group_capacity - 1);
    }
    if (c == '=') group_wipe(g);
    else if (add) *add = true;
    if (!s.group_defined[g]) {
      s.group_defined[g] = 1;
      s.group_names[g] = result_name;
    }
    s.last_group = g;
    return g;
  }
  return take_auto_group(result_name);
}

int take_auto_group(const char* result_name) {
  auto& s = tree_store;
  if (!s.auto_group) return -1;
  int g = s.group_cursor;
  s.group_cursor = (s.group_cursor + 1) % s.group_capacity;
  group_wipe(g);
  s.group_defined[g] = 1;
  s.group_names[g] = std::string(result_name).substr(0, tree_group_name_size);
  s.last_group = g;
  return g;
}

// A table of one value per tree, ten a row; unselected trees are blank.
void print_tree_table(const std::string& title, const std::vector<long long>& values,
                      const std::vector<std::uint8_t>& selected) {
  out_text({"\n", title, ":\n"});
  int n = static_cast<int>(values.size());
  std::string line = "      ";
  for (int c = 0; c < 10; ++c) line += padded_number(6, c);
  out_text({line, "\n"});
  for (int r = 0; r < n; r += 10) {
    line = padded_number(5, r) + " ";
    for (int k = r; k < std::min(n, r + 10); ++k)
      line += selected[k] == 1 ? padded_number(6, values[k]) : std::string(6, ' ');
    while (!line.empty() && line.back() == ' ') line.pop_back();
    out_text({line, "\n"});
  }
}

void cmd_hold() {
  auto& s = tree_store;
  int c = peek_char();
  if (c == ';') {
    out_line({"Space for", number_text(dataset.loaded ? s.maxtrees : s.user_maxtrees), "trees in memory"});
    if (s.vault_set) out_printf("Tree-vault set for %i trees\n", s.vault_capacity);
    return;
  }
  int base = dataset.loaded ? s.ntrees : 0;
  int want = -1;
  if (c == '+' || c == '-') {
    next_char();
    int d;
    if (peek_char() == c) { next_char(); d = 1; }
    else d = read_int();
    if (d < 0) error_exit("Expected number after +/-");
    want = c == '+' ? base + d : std::max(1, base - d);
  } else if (std::isdigit(c)) {
    want = read_int();
  } else if (c != '/') {
    error_exit("Must give a number of trees");
  }
  int vault = 0;
  if (accept_char('/')) {
    int vc = peek_char();
    if (vc == '+' || vc == '-') {
      next_char();
      int d = read_int();
      vault = vc == '+' ? base + d : base - d;
    } else {
      vault = read_int();
    }
    if (vault < 0) vault = 0;
  }
  if (want < 0) want = s.user_maxtrees;
  if (want < 1) want = 1;
  if (!dataset.loaded) {
    s.maxtrees = s.user_maxtrees = want;
    out_line({"Space for", number_text(want), "trees in memory"});
    return;
  }
  require_data();
  // Any hold with an argument dismantles the vault (its trees are lost).
  s.vault_set = 0;
  s.vault_capacity = s.vault_count = 0;
  s.vault_rows.clear();
  s.vault_bits.clear();
  if (s.ntrees > want) {
    char text[200];
    std::snprintf(text, sizeof text, "There are %i trees in memory.\nResetting maxtrees to %i will discard %i trees",
                  s.ntrees, want, s.ntrees - want);
    warning({text});
  }
  tree_space_resize(want, true);
  if (vault > 0) {
    s.vault_set = 1;
    s.vault_capacity = vault;
    s.vault_rows.assign(static_cast<std::size_t>(vault) * s.row_size, 0);
    s.vault_bits.assign(static_cast<std::size_t>(vault) * s.group_words, 0);
    out_printf("Tree-vault set for %i trees\n", vault);
  }
}

void cmd_keep() {
  require_data();
  int n = read_int();
  if (n < 0) error_exit("Must give number of trees to keep");
  if (n < tree_store.ntrees) tree_store.ntrees = n;
  tree_store.trees_changed = 1;
  out_line({number_text(tree_store.ntrees), "trees in memory"});
}

void cmd_tchoose() {
  require_data();
  if (tree_store.ntrees == 0) error_exit("No trees to choose from");
  std::vector<std::uint8_t> flags;
  read_tree_list(flags, true);
  std::string line = "Selecting tree(s) ";
  std::vector<std::uint8_t> keep(flags.size());
  int count = 0;
  for (std::size_t k = 0; k < flags.size(); ++k) {
    keep[k] = flags[k] == 1;
    if (keep[k]) {
      line += number_text(static_cast<long long>(k)) + " ";
      ++count;
    }
  }
  out_text({line, "\n"});
  tree_store_compact(keep);
  out_line({number_text(count), "trees selected"});
}

void cmd_tsize() {
  require_data();
  std::vector<std::uint8_t> flags;
  read_tree_list_or_all(flags, true);
  std::vector<long long> v(tree_store.ntrees, 0);
  for (int k = 0; k < tree_store.ntrees; ++k) {
    show_progress(k, tree_store.ntrees, "Counting taxa");
    if (flags[k] == 1) v[k] = tree_terminal_count(tree_row(k), tree_store.ntax);
  }
  clear_progress();
  if (tree_store.ntrees) print_tree_table("Number of taxa included in tree(s)", v, flags);
}

void cmd_tnodes() {
  require_data();
  bool forks = accept_char('*');
  std::vector<std::uint8_t> flags;
  read_tree_list_or_all(flags, true);
  int ntax = tree_store.ntax;
  if (!forks) {
    std::vector<long long> v(tree_store.ntrees, 0);
    for (int k = 0; k < tree_store.ntrees; ++k)
      if (flags[k] == 1) v[k] = tree_group_count(tree_row(k), ntax);
    if (tree_store.ntrees) print_tree_table("Nodes in trees", v, flags);
    return;
  }
  TreeLinks links;
  for (int k = 0; k < tree_store.ntrees; ++k) {
    if (flags[k] != 1) continue;
    const std::int32_t* t = tree_row(k);
    build_tree_links(t, ntax, links);
    char title[64];
    std::snprintf(title, sizeof title, "Forks in tree %i", k);
    out_text({"\n", title, ":\n"});
    std::string line;
    int col = 0;
    for (int v = ntax; v < t[ntax]; ++v) {
      line += padded_number(6, v) + ":" + padded_number(-4, links.nchildren[v]);
      if (++col == 8) { out_text({line, "\n"}); line.clear(); col = 0; }
    }
    if (!line.empty()) out_text({line, "\n"});
  }
}

namespace {

std::uint64_t row_hash(const std::int32_t* t, int ntax) {
  std::uint64_t h = 1469598103934665603ull;
  for (int i = 0; i < t[ntax] && i < 2 * ntax - 1; ++i) h = (h ^ static_cast<std::uint32_t>(t[i])) * 1099511628211ull;
  return h;
}

// first[k]: the first tree equal to tree k (k itself when first).
std::vector<int> first_equal() {
  int ntax = tree_store.ntax, n = tree_store.ntrees;
  std::vector<int> first(n);
  std::unordered_map<std::uint64_t, std::vector<int>> seen;
  for (int k = 0; k < n; ++k) {
    first[k] = k;
    auto& chain = seen[row_hash(tree_row(k), ntax)];
    for (int j : chain)
      if (trees_equal(tree_row(j), tree_row(k), ntax)) { first[k] = j; break; }
    if (first[k] == k) chain.push_back(k);
  }
  return first;
}

}  // namespace

TreeServices tree_services;

void require_constraints(const char* message) {
  if (!tree_services.constraints_defined || !tree_services.violations || !tree_services.constraints_defined())
    error_exit(message);
}

double stored_tree_length(int k) {
  if (!tree_services.character_steps || !tree_services.prepare_scoring) error_exit("Tree lengths cannot be calculated");
  const std::int32_t* row = tree_row(k);
  std::vector<int> parent(row, row + tree_store.row_size), steps;
  tree_services.character_steps(parent, steps);
  double total = 0;
  for (int c = 0; c < dataset.nchar && c < static_cast<int>(steps.size()); ++c)
    if (steps[c] >= 0) total += static_cast<double>(steps[c]) * dataset.chars[c].weight;
  return total;
}

// unique [ keeps the trees that fulfil the constraints, unique ] those that violate some.
static void unique_by_constraints(bool fulfilling) {
  require_constraints("No constraints defined");
  const int n = tree_store.ntrees;
  std::vector<std::uint8_t> keep(n);
  for (int k = 0; k < n; ++k) {
    show_progress(k, n, "Checking constraints");
    keep[k] = (tree_services.violations(tree_row(k), tree_store.ntax) == 0) == fulfilling;
  }
  clear_progress();
  tree_store_compact(keep);
  out_text({number_text(tree_store.ntrees), " trees retained",
            fulfilling ? " (all fulfill constraints)" : " (none fulfills constraints)", "\n"});
}

void cmd_unique() {
  require_data();
  int c = peek_char();
  if (c == '[' || c == ']') {
    next_char();
    unique_by_constraints(c == '[');
    return;
  }
  if (c == '*') {
    next_char();
    if (!tree_services.collapsed_copy) error_exit("Collapsing of trees is not available");
    // Condense every tree first (the collapsed form replaces the stored one).
    std::vector<std::int32_t> out;
    for (int k = 0; k < tree_store.ntrees; ++k) {
      show_progress(k, tree_store.ntrees, "Collapsing");
      if (tree_services.collapsed_copy(tree_row(k), out, -1) > 0)
        std::memcpy(tree_row(k), out.data(), sizeof(std::int32_t) * tree_store.row_size);
    }
    clear_progress();
    tree_store.trees_changed = 1;
  }
  auto first = first_equal();
  int n = tree_store.ntrees;
  std::vector<std::uint8_t> keep(n);
  for (int k = 0; k < n; ++k) {
    keep[k] = first[k] == k;
    if (!keep[k]) {
      std::uint32_t* to = tree_group_row(first[k]);
      const std::uint32_t* from = tree_group_row(k);
      for (int w = 0; w < tree_store.group_words; ++w) to[w] |= from[w];
    }
  }
  tree_store_compact(keep);
  out_line({number_text(tree_store.ntrees), "trees retained"});
}

void cmd_tequal() {
  require_data();
  auto first = first_equal();
  std::vector<long long> v(first.begin(), first.end());
  std::vector<std::uint8_t> all(first.size(), 1);
  if (!first.empty()) print_tree_table("Non-unique tree(s)", v, all);
}

void cmd_sort() {
  require_data();
  int criterion = 0;  // 0 score, 1 nodes, 2 size, 3 mono
  if (accept_char('=')) {
    int n = read_command_word();
    if (n == 0) error_exit("Please, specify \"score\", \"nodes\", \"size\", or \"mono\"");
    std::string w = token_buffer;
    if (is_prefix(w, "score") == 0) criterion = 0;
    else if (is_prefix(w, "nodes") == 0) criterion = 1;
    else if (is_prefix(w, "size") == 0) criterion = 2;
    else if (is_prefix(w, "mono") == 0) criterion = 3;
    else error_exit({"Wrong argument for \"sort = \":", w});
  }
  if (criterion == 3) require_constraints("Cannot check constraints: no constraints defined!");
  int n = tree_store.ntrees, ntax = tree_store.ntax;
  std::vector<double> value(n);
  for (int k = 0; k < n; ++k) {
    show_progress(k, n, criterion == 0 ? "Optimizing" : "Counting");
    value[k] = criterion == 0 ? tree_store.scores[k]
             : criterion == 1 ? tree_group_count(tree_row(k), ntax)
             : criterion == 2 ? tree_terminal_count(tree_row(k), ntax)
                              : tree_services.violations(tree_row(k), ntax);
  }
  clear_progress();
  static const char* same[] = {"trees have the same score", "trees have the same number of nodes",
                               "trees have the same number of taxa", "trees violate the same number of constraints"};
  static const char* names[] = {"score", "nodes", "size", "mono"};
  if (n == 0 || std::all_of(value.begin(), value.end(), [&](double x) { return x == value[0]; })) {
    out_line({"All", number_text(n), same[criterion]});
    return;
  }
  std::vector<int> order(n);
  std::iota(order.begin(), order.end(), 0);
  std::stable_sort(order.begin(), order.end(), [&](int a, int b) { return value[a] < value[b]; });
  std::vector<std::int32_t> rows(tree_store.rows.begin(), tree_store.rows.begin() + static_cast<std::ptrdiff_t>(n) * tree_store.row_size);
  std::vector<std::uint32_t> bits(tree_store.group_bits.begin(), tree_store.group_bits.begin() + static_cast<std::ptrdiff_t>(n) * tree_store.group_words);
  std::vector<double> scores(tree_store.scores.begin(), tree_store.scores.begin() + n);
  for (int k = 0; k < n; ++k) {
    std::memcpy(tree_row(k), rows.data() + static_cast<std::size_t>(order[k]) * tree_store.row_size, sizeof(std::int32_t) * tree_store.row_size);
    std::memcpy(tree_group_row(k), bits.data() + static_cast<std::size_t>(order[k]) * tree_store.group_words, sizeof(std::uint32_t) * tree_store.group_words);
    tree_store.scores[k] = scores[order[k]];
  }
  tree_store.trees_changed = 1;
  out_text({"Sorted ", number_text(n), " trees, based on ", names[criterion], "\n"});
}

namespace {

bool taxon_active(int t) {
  return t < static_cast<int>(dataset.taxon_active.size()) ? dataset.taxon_active[t] != 0 : true;
}

void dichotomize(std::int32_t* tree, int ntax) {
  TreeLinks links;
  build_tree_links(tree, ntax, links);
  int next = tree[ntax];
  for (int v = ntax; v < tree[ntax]; ++v) {
    std::vector<int> kids;
    for (int c = links.firstdes[v]; c >= 0; c = links.sister[c]) kids.push_back(c);
    while (kids.size() > 2) {
      int i = std::rand() % static_cast<int>(kids.size());
      int a = kids[i];
      kids.erase(kids.begin() + i);
      int j = std::rand() % static_cast<int>(kids.size());
      int b = kids[j];
      kids.erase(kids.begin() + j);
      tree[next] = v;
      tree[a] = next;
      tree[b] = next;
      kids.push_back(next++);
    }
  }
  tree[ntax] = next;
  reset_node_numbers(tree, ntax);
}

}  // namespace

void cmd_randtrees() {
  require_data();
  auto& s = tree_store;
  int ntax = s.ntax;
  int c = peek_char();
  if (c == '/') {
    next_char();
    for (int k = s.ntrees - 1; k > 0; --k) {
      int j = std::rand() % (k + 1);
      std::swap_ranges(tree_row(k), tree_row(k) + s.row_size, tree_row(j));
      std::swap_ranges(tree_group_row(k), tree_group_row(k) + s.group_words, tree_group_row(j));
      std::swap(s.scores[k], s.scores[j]);
    }
    s.trees_changed = 1;
    out_line({"Randomized order of", number_text(s.ntrees), "trees"});
    return;
  }
  if (c == '*') {
    next_char();
    for (int k = 0; k < s.ntrees; ++k) dichotomize(tree_row(k), ntax);
    s.trees_changed = 1;
    out_line({"Dichotomized non-binary trees"});
    return;
  }
  bool explicit_group = c == '=' || c == '>';
  int group = explicit_group ? read_group_argument("Random_trees") : -1;
  int n = read_int();
  if (n <= 0) error_exit("Give number of random trees to create");
  int j = read_int();
  if (j < 0) j = 0;
  if (j > 100) error_exit("Probability of polytomy must be 0 - 100");
  int k = read_int();
  if (k < 0) k = ntax;
  if (k < 3) k = 3;
  int total = s.ntrees + n;
  if (total > s.maxtrees) {
    int want = (total + 99) / 100 * 100;
    while (want > s.maxtrees && !tree_space_resize(want, false)) want -= 100;
    if (want <= s.ntrees || want < total) {
      int possible = std::max(0, std::max(want, s.maxtrees) - s.ntrees);
      char text[160];
      std::snprintf(text, sizeof text, "Not enough RAM to store %i trees; only %i will be created", n, possible);
      warning({text});
      n = possible;
    }
  }
  if (!explicit_group) group = read_group_argument("Random_trees");
  std::vector<int> order;
  int og = dataset.outgroup;
  if (og >= 0 && og < ntax && taxon_active(og)) order.push_back(og);
  std::vector<int> rest;
  for (int t = 0; t < ntax; ++t)
    if (t != og && taxon_active(t)) rest.push_back(t);
  for (int i = static_cast<int>(rest.size()) - 1; i > 0; --i) std::swap(rest[i], rest[std::rand() % (i + 1)]);
  order.insert(order.end(), rest.begin(), rest.end());
  std::vector<std::int32_t> tree(s.row_size);
  for (int i = 0; i < n; ++i) {
    show_progress(i, n, "Random trees");
    random_tree(tree.data(), ntax, order, j, k);
    tree_reroot(tree.data(), ntax, og);
    int row = tree_store_add(group, false);
    std::memcpy(tree_row(row), tree.data(), sizeof(std::int32_t) * s.row_size);
  }
  clear_progress();
  std::string line = number_text(n) + " random trees created";
  if (j > 0) line += ", p(poly)=" + number_text(j) + ", max. poly=" + number_text(k);
  out_text({line, "\n"});
}

// One taxon by number or name (exact name first, then the first name it begins).
int read_one_taxon() {
  int c = peek_char();
  if (std::isdigit(c)) {
    int t = read_int();
    if (t >= dataset.ntax) error_exit({"Error: no taxon", number_text(t)});
    return t;
  }
  std::string word;
  while (std::isalnum(peek_char()) || std::strchr(".:?@_", peek_char()) != nullptr) {
    if (peek_char() == 0) break;
    word.push_back(static_cast<char>(next_char()));
    if (static_cast<int>(word.size()) >= shell_state.name_limit) break;
  }
  int t = find_taxon_name(word);
  if (t < 0) error_exit({"Unidentified taxon name:", word});
  return t;
}

void tree_store_reroot_all(int outgroup) {
  if (tree_store.ntax != dataset.ntax || outgroup < 0 || outgroup >= tree_store.ntax) return;
  for (int k = 0; k < tree_store.ntrees; ++k) tree_reroot(tree_row(k), tree_store.ntax, outgroup);
  if (tree_store.ntrees) tree_store.trees_changed = 1;
}

namespace {


// reroot *: the tag tree is re-rooted too. A group that stays a group keeps its tag; one
// that becomes paraphyletic hands its tag to its complement, the group of the same branch.
void reroot_tag_tree(int point, bool point_is_node, const std::string& where) {
  auto& s = tree_store;
  const int ntax = s.ntax;
  if (s.tag_tree.empty()) error_exit("No tags to reroot...");
  std::vector<std::int32_t> tree = s.tag_tree;
  if (point_is_node ? point >= tree[ntax] : !terminal_present(tree.data(), point, ntax)) {
    if (point_is_node) error_exitf("Tag-tree does not have a node %i and can't be rerooted", point);
    error_exitf("Tag-tree does not include taxon %s and can't be rerooted", where.c_str());
  }
  const int words = (ntax + 63) / 64;
  auto before = terminal_bits(tree.data(), ntax, words);
  if (!tree_reroot(tree.data(), ntax, point)) error_exitf("Tag-tree does not include taxon %s and can't be rerooted", where.c_str());
  auto after = terminal_bits(tree.data(), ntax, words);
  const std::uint64_t* all = before.data() + static_cast<std::size_t>(ntax) * words;
  std::vector<std::string> tags(2 * ntax - 1);
  for (int t = 0; t < ntax; ++t) tags[t] = s.tags[t];
  tags[ntax] = s.tags[ntax];
  for (int u = ntax + 1; u < tree[ntax]; ++u) {
    const std::uint64_t* now = after.data() + static_cast<std::size_t>(u) * words;
    for (int v = ntax + 1; v < s.tag_tree[ntax] && tags[u].empty(); ++v) {
      const std::uint64_t* was = before.data() + static_cast<std::size_t>(v) * words;
      bool same = true, complement = true;
      for (int w = 0; w < words; ++w) {
        same = same && now[w] == was[w];
        complement = complement && now[w] == (all[w] & ~was[w]);
      }
      if (same || complement) tags[u] = s.tags[v];
    }
  }
  s.tag_tree = tree;
  s.tags = tags;
  if (point_is_node) out_printf("Re-rooted tag-tree on node %i\n", point);
  else out_text({"Re-rooted tag-tree on ", where, "\n"});
}

}  // namespace

void cmd_reroot() {
  require_data();
  int ntax = tree_store.ntax;
  bool resolve = false;
  int point = dataset.outgroup;
  bool point_is_node = false, with_tags = false;
  for (;;) {
    int c = peek_char();
    if (c == '!') { next_char(); resolve = true; continue; }
    if (c == '*') { next_char(); with_tags = true; continue; }
    if (c == '[') {
      next_char();
      error_exit("The \"[\" option is valid only when taxonomic categories have been defined");
    }
    if (c == '=') {
      next_char();
      int d = peek_char();
      if (std::isdigit(d)) {
        point = read_int();
        point_is_node = point >= ntax;
        if (!point_is_node && point >= ntax) error_exit({"Error: no taxon", number_text(point)});
      } else {
        point = read_one_taxon();
      }
      continue;
    }
    break;
  }
  std::vector<std::uint8_t> flags;
  read_tree_list_or_all(flags, true);
  if (with_tags) {
    // The tag tree first: a failure leaves every tree as it was.
    std::string name = point_is_node || point >= static_cast<int>(dataset.taxon_names.size()) ? number_text(point)
                                                                                             : dataset.taxon_names[point];
    reroot_tag_tree(point, point_is_node, name);
  }
  int done = 0, skipped = 0;
  for (int k = 0; k < tree_store.ntrees; ++k) {
    if (flags[k] != 1) continue;
    std::int32_t* t = tree_row(k);
    bool ok = point_is_node ? (point < t[ntax] && tree_reroot(t, ntax, point))
                            : (resolve ? tree_reroot_resolve(t, ntax, point) : tree_reroot(t, ntax, point));
    if (ok) ++done;
    else ++skipped;
  }
  tree_store.trees_changed = 1;
  std::string where = point_is_node ? "node " + number_text(point)
                      : (point < static_cast<int>(dataset.taxon_names.size()) ? dataset.taxon_names[point] : number_text(point));
  if (skipped) out_text({number_text(skipped), " trees skipped - couldn't reroot on ", where, "\n"});
  out_line({number_text(done), point_is_node ? "trees re-rooted on node" : "trees re-rooted on",
            point_is_node ? number_text(point) : where});
}

void cmd_tvault() {
  require_data();
  auto& s = tree_store;
  int c = peek_char();
  if (!s.vault_set) {
    if (c == ';') { out_text({"Tree-vault not set (set with \"hold N/V\")\n"}); return; }
    error_exit("Tree-vault not set (set with \"hold N/V\")");
  }
  if (c == ';') {
    out_printf("Tree-vault with %i trees (max. storage %i)\n", s.vault_count, s.vault_capacity);
    return;
  }
  next_char();
  if (c == '-') {
    s.vault_count = 0;
    out_text({"Cleared tree-vault\n"});
    return;
  }
  if (c == '>') {
    std::vector<std::uint8_t> flags;
    read_tree_list(flags, true);
    int placed = 0;
    bool any = false;
    for (int k = 0; k < s.ntrees; ++k) {
      if (flags[k] != 1) continue;
      any = true;
      if (s.vault_count >= s.vault_capacity) {
        out_printf("Cannot store more trees in vault (reached max., %i)\n", s.vault_capacity);
        break;
      }
      std::memcpy(s.vault_rows.data() + static_cast<std::size_t>(s.vault_count) * s.row_size, tree_row(k), sizeof(std::int32_t) * s.row_size);
      std::memcpy(s.vault_bits.data() + static_cast<std::size_t>(s.vault_count) * s.group_words, tree_group_row(k), sizeof(std::uint32_t) * s.group_words);
      ++s.vault_count;
      ++placed;
    }
    if (!any) error_exit("No trees to store in vault");
    out_printf("Placed %i trees in vault (vault now with %i trees)\n", placed, s.vault_count);
    return;
  }
  if (c == '<') {
    std::vector<std::uint8_t> flags(s.vault_count, 0);
    int d = peek_char();
    if (d == '/') { next_char(); if (s.vault_count) flags[s.vault_count - 1] = 1; }
    else if (d == ';') std::fill(flags.begin(), flags.end(), 1);
    else {
      while (std::isdigit(peek_char()) || peek_char() == '.') {
        int a = std::isdigit(peek_char()) ? read_int() : 0, b = a;
        if (accept_char('.')) b = std::isdigit(peek_char()) ? read_int() : s.vault_count - 1;
        if (a > b) std::swap(a, b);
        if (b >= s.vault_count) error_exit({"No vault-tree", number_text(b)});
        for (int k = a; k <= b; ++k) flags[k] = 1;
      }
    }
    int got = 0;
    bool any = false;
    for (int k = 0; k < s.vault_count; ++k) {
      if (!flags[k]) continue;
      any = true;
      if (s.ntrees >= s.maxtrees) {
        out_printf("Cannot retrieve more trees from vault (reached maxtrees, %i)\n", s.maxtrees);
        break;
      }
      int row = tree_store_add(-1, false);
      std::memcpy(tree_row(row), s.vault_rows.data() + static_cast<std::size_t>(k) * s.row_size, sizeof(std::int32_t) * s.row_size);
      std::memcpy(tree_group_row(row), s.vault_bits.data() + static_cast<std::size_t>(k) * s.group_words, sizeof(std::uint32_t) * s.group_words);
      ++got;
    }
    if (!any) error_exit("No trees to get from vault");
    out_printf("Retrieved %i trees from vault (%i trees now in memory)\n", got, s.ntrees);
    return;
  }
  if (c == '*') {
    out_printf("Tread '%i trees from vault'\n", s.vault_count);
    for (int k = 0; k < s.vault_count; ++k) {
      if (k) out_text({"*\n"});
      out_text({tree_to_text(s.vault_rows.data() + static_cast<std::size_t>(k) * s.row_size, s.ntax, false, nullptr), "\n"});
    }
    out_text({";\n"});
    return;
  }
  if (c == '!') error_exit("Exchange of trees with user arrays is not available yet");
  error_exit("Unrecognized option for tvault");
}

namespace {

// One bound of a criterion: value v compared by '=', '>' or '<'; or a range lo-hi.
struct Bound {
  char op;
  double lo, hi;
};

double read_bound_value(const std::string& after) {
  int c = peek_char();
  if (!std::isdigit(c) && c != '.') error_exit({"Expected number after", after});
  return read_real();
}

// After len, nod or siz: "=X", ">X", "<X" or "(A-B, C, ...)".
std::vector<Bound> read_bounds(const std::string& word) {
  std::vector<Bound> bounds;
  int c = peek_char();
  if (c == '=' || c == '>' || c == '<') {
    next_char();
    double v = read_bound_value(word + static_cast<char>(c));
    bounds.push_back({static_cast<char>(c), v, v});
    return bounds;
  }
  if (c != '(') error_exit("Range must be enclosed in parentheses");
  next_char();
  for (;;) {
    double lo = read_bound_value(word + "("), hi = lo;
    if (accept_char('-')) hi = read_bound_value(word + "(");
    if (lo > hi) std::swap(lo, hi);
    bounds.push_back({'(', lo, hi});
    int d = peek_char();
    if (d == ')') { next_char(); return bounds; }
    if (d == ',') { next_char(); continue; }
    if (d == ';' || d == 0) error_exit("Range must be enclosed in parentheses");
    error_exit("Ranges must be separated by comma");
  }
}

bool within(const std::vector<Bound>& bounds, double v) {
  for (const Bound& b : bounds) {
    bool ok = b.op == '=' ? std::abs(v - b.lo) <= score_tolerance
            : b.op == '>' ? v > b.lo + score_tolerance
            : b.op == '<' ? v < b.lo - score_tolerance
                          : v >= b.lo - score_tolerance && v <= b.hi + score_tolerance;
    if (ok) return true;
  }
  return false;
}

// "[K L M]": members of tree groups, by number or beginning of name.
void read_bracket_groups(std::vector<std::uint8_t>& flags) {
  auto& s = tree_store;
  for (;;) {
    int c = peek_char();
    if (c == ']') { next_char(); return; }
    if (std::isdigit(c)) {
      int g = read_int();
      if (g >= s.group_capacity) error_exitf("Can't define more than %i groups", s.group_capacity);
      mark_group(flags, g, 1);
      continue;
    }
    if (std::isalpha(c) || c == '_') {
      std::string word = read_plain_word();
      bool any = false;
      for (int g = 0; g < s.group_capacity; ++g)
        if (s.group_defined[g] && name_prefix(word, s.group_names[g])) {
          mark_group(flags, g, 1);
          any = true;
        }
      if (!any) error_exit({"Name", word, "doesn't match any tree group name"});
      continue;
    }
    next_char();
    error_exitf("Unexpected %c symbol when reading group", c ? c : ';');
  }
}

}  // namespace

// The trees of one "=N", ">N" or "<N" of tgroup: tree numbers and ranges (a range followed
// by /Z takes every Zth tree; "/" alone is the last tree), members of groups "[K L]" or
// "{K L}", together the union; with none of these, all trees (no trees when there are no
// criteria either). Then the criteria narrow it
// down: len, nod and siz (=X, >X, <X or (A-B, C)), mono (no violated constraint); and *R
// keeps R of the trees at random.
void read_group_selection(std::vector<std::uint8_t>& flags) {
  auto& s = tree_store;
  const int n = s.ntrees, ntax = s.ntax;
  std::vector<std::uint8_t> listed(n, 0);
  bool any_listed = false, any_criterion = false, scored = false;
  int pick = -1;
  std::vector<std::uint8_t> pass(n, 1);
  for (;;) {
    int c = peek_char();
    if (c == ';' || c == '=' || c == '>' || c == '<' || c == 0) break;
    if (std::isdigit(c) || c == '.') {
      int a = 0, b = 0;
      read_tree_range(c, n, a, b);
      int step = 1;
      if (peek_char() == '/') {
        next_char();
        if (peek_char() == '-') error_exit("Zap must be > 0");
        if (!std::isdigit(peek_char())) error_exit({"Expected number after", "/"});
        step = read_int();
        if (step <= 0) error_exit("Zap must be > 0");
      }
      for (int k = a; k <= b; k += step) listed[k] = 1;
      any_listed = true;
      continue;
    }
    if (c == '/') {
      next_char();
      if (n == 0) error_exit("No trees in memory");
      listed[n - 1] = 1;
      any_listed = true;
      continue;
    }
    if (c == '[') { next_char(); read_bracket_groups(listed); any_listed = true; continue; }
    if (c == '{') { next_char(); read_group_set(listed, 1); any_listed = true; continue; }
    if (c == '*') {
      next_char();
      if (!std::isdigit(peek_char())) error_exit({"Expected number after", "*"});
      pick = read_int();
      any_criterion = true;
      continue;
    }
    if (std::isalpha(c)) {
      std::string word;
      int d;
      while (std::isalpha(d = next_char())) word.push_back(static_cast<char>(std::tolower(d)));
      unread_char();
      any_criterion = true;
      if (word == "mono") {
        require_constraints("Cannot check constraints: no constraints defined!");
        for (int k = 0; k < n; ++k)
          if (pass[k] && tree_services.violations(tree_row(k), ntax) != 0) pass[k] = 0;
        continue;
      }
      if (word != "len" && word != "nod" && word != "siz") error_exitf("Unexpected %c symbol when reading group", c);
      auto bounds = read_bounds(word);
      if (word == "len" && !scored) {
        if (!tree_services.prepare_scoring) error_exit("Tree lengths cannot be calculated");
        tree_services.prepare_scoring();
        scored = true;
      }
      for (int k = 0; k < n; ++k) {
        if (!pass[k]) continue;
        double v = word == "len" ? stored_tree_length(k)
                 : word == "nod" ? tree_group_count(tree_row(k), ntax)
                                 : tree_terminal_count(tree_row(k), ntax);
        if (!within(bounds, v)) pass[k] = 0;
      }
      continue;
    }
    next_char();
    error_exitf("Unexpected %c symbol when reading group", c);
  }
  flags.assign(n, 0);
  if (!any_listed && !any_criterion) return;  // the group is only defined or named
  std::vector<int> chosen;
  for (int k = 0; k < n; ++k)
    if ((!any_listed || listed[k]) && pass[k]) chosen.push_back(k);
  if (pick >= 0 && pick < static_cast<int>(chosen.size())) {
    // A random subset of `pick` trees, kept in tree order.
    for (int i = 0; i < pick; ++i) std::swap(chosen[i], chosen[i + std::rand() % (chosen.size() - i)]);
    chosen.resize(pick);
  }
  for (int k : chosen) flags[k] = 1;
}

void cmd_tgroup() {
  auto& s = tree_store;
  int c = peek_char();
  if (c == ';') {
    int shown = 0;
    for (int g = 0; g < s.group_capacity; ++g) {
      if (!s.group_defined[g]) continue;
      int members = 0;
      for (int k = 0; k < s.ntrees; ++k) members += (tree_group_row(k)[g / 32] >> (g % 32)) & 1u;
      out_printf("   %2i %-32s %i trees\n", g, s.group_names[g].c_str(), members);
      ++shown;
    }
    if (!shown) out_text({"No tree groups defined\n"});
    out_printf("Storing %i tree groups; auto-grouping %s\n", s.group_capacity, s.auto_group ? "ON" : "OFF");
    return;
  }
  if (c == '+') {
    next_char();
    int n = read_int();
    if (dataset.loaded) error_exit("Number of tree-groups must be changed before reading data");
    if (n < 32) n = 32;
    s.group_capacity = n;
    s.group_words = (n + 31) / 32;
    s.group_names.assign(n, std::string());
    s.group_defined.assign(n, 0);
    out_printf("Storing %i tree groups\n", n);
    return;
  }
  if (c == '/') {
    next_char();
    s.auto_group = !s.auto_group;
    out_line({"Auto-grouping of trees", s.auto_group ? "is ON" : "is OFF"});
    return;
  }
  if (std::isalpha(c)) {
    read_command_word();
    std::string w = token_buffer;
    if (w == "auto") s.auto_group = 1;
    else if (w == "noauto") s.auto_group = 0;
    else error_exit("Must use =, > or <");
    out_line({"Auto-grouping of trees", s.auto_group ? "is ON" : "is OFF"});
    return;
  }
  require_data();
  if (c == '*') {
    // The definitions as commands that recreate them on the same trees.
    next_char();
    for (int g = 0; g < s.group_capacity; ++g) {
      if (!s.group_defined[g]) continue;
      std::string line = "tgroup =" + std::to_string(g) + " (" + s.group_names[g] + ")";
      for (int k = 0; k < s.ntrees; ++k)
        if (tree_group_row(k)[g / 32] >> (g % 32) & 1u) line += " " + std::to_string(k);
      out_text({line, ";\n"});
    }
    return;
  }
  if (c == '-') {
    next_char();
    int g = read_int();
    if (g < 0 || g >= s.group_capacity) error_exit({"Expected number after", "-"});
    s.group_defined[g] = 0;
    s.group_names[g].clear();
    group_wipe(g);
    return;
  }
  while ((c = peek_char()) == '=' || c == '>' || c == '<') {
    next_char();
    int g;
    if (peek_char() == '/') { next_char(); g = s.last_group; }
    else g = read_int();
    if (g < 0) error_exit({"Expected number after", std::string(1, static_cast<char>(c))});
    if (g >= s.group_capacity) error_exitf("Can't define more than %i groups", s.group_capacity);
    if (accept_char('(')) {
      std::string name;
      int d;
      while ((d = next_char()) != ')') {
        if (!(std::isalnum(d) || d == '_' || d == '.' || d == '-')) error_exit("Found illegal character when reading group name");
        name.push_back(static_cast<char>(d));
      }
      s.group_names[g] = name.substr(0, tree_group_name_size);
    }
    if (s.group_names[g].empty()) s.group_names[g] = "Group_" + std::to_string(g);
    std::vector<std::uint8_t> flags;
    read_group_selection(flags);
    if (c == '=') group_wipe(g);
    int changed = 0;
    for (int k = 0; k < s.ntrees; ++k) {
      if (flags[k] != 1) continue;
      std::uint32_t& w = tree_group_row(k)[g / 32];
      if (c == '<') w &= ~(1u << (g % 32));
      else w |= 1u << (g % 32);
      ++changed;
    }
    s.group_defined[g] = 1;
    s.last_group = g;
    out_text({"Tree group ", number_text(g), " ", number_text(changed), " tree(s) ", c == '<' ? "removed" : "added", "\n"});
  }
  if (peek_char() != ';') {
    int d = next_char();
    error_exitf("Unexpected %c symbol when reading group", d);
  }
}

}  // namespace qax::trees
