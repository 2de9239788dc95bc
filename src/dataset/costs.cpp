// Cost tables of Sankoff characters and the commands that define them.
#include "dataset/costs.h"

#include <algorithm>
#include <bit>
#include <cctype>
#include <climits>
#include <cstdio>

#include "dataset/dataset.h"
#include "dataset/lists_bridge.h"
#include "shell/failure.h"
#include "shell/input.h"
#include "shell/output.h"
#include "shell/shell_commands.h"

namespace qax::dataset {

using shell::error_exit;

CostSettings cost_settings;

namespace {

constexpr int table_cells = cost_states * cost_states;
std::vector<std::vector<std::int32_t>> tables;   // per character; empty = default costs

// A new matrix forgets the tables; whether Sankoff is allowed is fixed for it now.
void on_new_data() {
  tables.clear();
  reset_state_trees();
  reset_user_min_max();
  cost_settings.sankoff_disabled = cost_settings.allow_sankoff ? 0 : 1;
}
const bool hook_installed = [] {
  add_dataset_replaced_hook(on_new_data);
  return true;
}();

int highest_state() { return std::min(cost_states, dataset.cell_width * 8) - 1; }

void require_sankoff_allowed() {
  if (cost_settings.sankoff_disabled) error_exit("Sankoff costs have been disabled (use \"cost >;\" to enable)");
}

// One state set of a definition: a symbol, "[...]" of symbols, or "?" for every state.
std::uint32_t read_state_set(const char* context_error) {
  const int hi = highest_state();
  const std::uint32_t all = hi >= 31 ? ~0u : (1u << (hi + 1)) - 1;
  int c = shell::next_nonblank();
  auto one = [&](int ch) -> std::uint32_t {
    if (ch == '?') return all;
    std::uint32_t v = 0;
    if (std::isdigit(ch)) v = 1u << (ch - '0');
    else if (std::isalpha(ch)) {
      const std::uint32_t s = dataset.symbols[ch & 0xFF];
      if (dataset.data_format == format_numeric || dataset.data_format == format_continuous)
      {
        // Letters stand for states 10 to 31 (A to V); later letters are no state.
        const int state = 10 + (std::toupper(ch) - 'A');
        v = state < 32 ? 1u << state : 0;
      }
      else v = s;
    }
    if (!v) {
      char sym[2] = {static_cast<char>(ch), 0};
      error_exit({"Error: found symbol", sym, context_error});
    }
    if (v & ~all) error_exit({"Only states 0-" + std::to_string(hi) + " allowed"});
    return v;
  };
  if (c == '[') {
    std::uint32_t v = 0;
    for (;;) {
      c = shell::next_nonblank();
      if (c == ']') break;
      if (c == ';' || c == EOF) error_exit("Syntax error in definition of transformation costs");
      v |= one(c);
    }
    return v;
  }
  if (c == ';' || c == EOF) error_exit("Syntax error in definition of transformation costs");
  return one(c);
}

struct Definition {
  std::uint32_t from = 0, to = 0;
  bool symmetric = false;
  int cost = 0;
};

// Definitions "x>y z" or "x/y z" up to ";" (left unread).
std::vector<Definition> read_definitions() {
  std::vector<Definition> defs;
  for (;;) {
    int c = shell::next_nonblank();
    if (c == ';' || c == EOF) {
      shell::unread_char();
      return defs;
    }
    shell::unread_char();
    Definition d;
    d.from = read_state_set("when reading transformation costs");
    c = shell::next_nonblank();
    if (c != '>' && c != '/') error_exit("Syntax error in definition of transformation costs");
    d.symmetric = c == '/';
    d.to = read_state_set("when reading transformation costs");
    c = shell::next_nonblank();
    shell::unread_char();
    if (!std::isdigit(c)) error_exit("Syntax error in definition of transformation costs");
    d.cost = shell::read_int();
    if (d.cost < 0 || d.cost > 10000) error_exit("Syntax error in definition of transformation costs");
    defs.push_back(d);
  }
}

void apply_definitions(const std::vector<Definition>& defs, const std::vector<std::int8_t>& flags) {
  for (int ch = 0; ch < dataset.nchar; ++ch) {
    if (flags[ch] != 1) continue;
    CharacterRecord& r = dataset.chars[ch];
    if (r.is_continuous) continue;
    std::int32_t* t = cost_table_for_edit(ch);
    for (const Definition& d : defs)
      for (std::uint32_t a = d.from; a; a &= a - 1)
        for (std::uint32_t b = d.to; b; b &= b - 1) {
          const int i = std::countr_zero(a), j = std::countr_zero(b);
          if (i == j) continue;
          t[i * cost_states + j] = d.cost;
          if (d.symmetric) t[j * cost_states + i] = d.cost;
        }
    r.sankoff = 1;
    r.additive = 0;
    r.dirty = 1;
    r.asymmetric = table_symmetric(t, cost_states) ? 0 : 1;
  }
}

int states_of(int c) {
  const CharacterRecord& r = dataset.chars[c];
  return std::max(2, std::min(highest_state() + 1, r.num_states));
}

// "cost [ N = i>j z ... ;" for each Sankoff character (active ones only with `active_only`).
void save_costs(bool active_only) {
  const char* head = cost_settings.zel_format ? "cost ]" : "cost [";
  for (int c = 0; c < dataset.nchar; ++c) {
    const CharacterRecord& r = dataset.chars[c];
    if (!r.sankoff || r.is_continuous || (active_only && !r.active)) continue;
    const int n = states_of(c);
    std::string line = std::string(head) + " " + std::to_string(c) + " =";
    char buf[64];
    for (int i = 0; i < n; ++i)
      for (int j = 0; j < n; ++j) {
        if (i == j) continue;
        std::snprintf(buf, sizeof buf, " %i>%i %i", i, j, cost_of(c, i, j));
        line += buf;
      }
    shell::out_text({line, " ;\n"});
  }
}

void report_costs() {
  bool any = false;
  for (int c = 0; c < dataset.nchar; ++c) {
    const CharacterRecord& r = dataset.chars[c];
    if (!r.sankoff || r.is_continuous) continue;
    if (!any) shell::out_text({"Transformation costs:\n"});
    any = true;
    const int n = states_of(c);
    std::string text = "Char. " + std::to_string(c) + (r.asymmetric ? " (asymmetric)" : "") + ":\n    ";
    char buf[32];
    for (int j = 0; j < n; ++j) {
      std::snprintf(buf, sizeof buf, "%4i", j);
      text += buf;
    }
    text += "\n";
    for (int i = 0; i < n; ++i) {
      std::snprintf(buf, sizeof buf, "%4i", i);
      text += buf;
      for (int j = 0; j < n; ++j) {
        if (i == j) std::snprintf(buf, sizeof buf, "%4s", "-");
        else std::snprintf(buf, sizeof buf, "%4i", cost_of(c, i, j));
        text += buf;
      }
      text += "\n";
    }
    shell::out_text({text});
  }
  if (!any) shell::out_text({"No Sankoff characters defined\n"});
}

}  // namespace

const std::int32_t* cost_table(int c) noexcept {
  if (c < 0 || c >= static_cast<int>(tables.size()) || tables[c].empty()) return nullptr;
  return tables[c].data();
}

std::int32_t cost_of(int c, int i, int j) noexcept {
  const std::int32_t* t = cost_table(c);
  if (!t) return i == j ? 0 : 1;
  return t[i * cost_states + j];
}

std::int32_t* cost_table_for_edit(int c) {
  require_sankoff_allowed();
  if (static_cast<int>(tables.size()) < dataset.nchar) tables.resize(dataset.nchar);
  auto& t = tables[c];
  if (t.empty()) {
    t.assign(table_cells, 1);
    for (int i = 0; i < cost_states; ++i) t[i * cost_states + i] = 0;
  }
  return t.data();
}

void cost_tables_clear() { tables.clear(); }

bool table_symmetric(const std::int32_t* t, int states) noexcept {
  for (int i = 0; i < states; ++i)
    for (int j = i + 1; j < states; ++j)
      if (t[i * cost_states + j] != t[j * cost_states + i]) return false;
  return true;
}

void make_semi_additive(const std::vector<std::int8_t>& flags) {
  for (int ch = 0; ch < dataset.nchar; ++ch) {
    if (flags[ch] != 1 || dataset.chars[ch].is_continuous) continue;
    std::int32_t* t = cost_table_for_edit(ch);
    for (int i = 0; i < cost_states; ++i)
      for (int j = 0; j < cost_states; ++j) t[i * cost_states + j] = i == j ? 0 : std::abs(i - j) == 1 ? 1 : 2;
    CharacterRecord& r = dataset.chars[ch];
    r.sankoff = 1;
    r.additive = 0;
    r.asymmetric = 0;
    r.dirty = 1;
  }
}

int repair_triangles() {
  int changed_chars = 0;
  bool warned = false;
  for (int ch = 0; ch < dataset.nchar; ++ch) {
    CharacterRecord& r = dataset.chars[ch];
    if (!r.dirty || !r.sankoff || !r.active || ch >= static_cast<int>(tables.size()) || tables[ch].empty()) continue;
    const int n = std::min(cost_states, r.num_states);
    if (n <= 2) continue;
    std::int32_t* t = tables[ch].data();
    auto at = [&](int a, int b) -> std::int32_t& { return t[a * cost_states + b]; };
    bool any = false;
    // Each triple i < j < k: the six directed triangles, the left cost lowered to the sum.
    auto fix = [&](int a, int b, int m, int i, int j, int k) {
      const std::int32_t sum = at(a, m) + at(m, b);
      if (sum >= at(a, b)) return false;
      at(a, b) = sum;
      if (!warned) {
        warned = true;
        shell::out_text({"WARNING - triangle inequality violated in some characters\n"});
        char buf[128];
        std::snprintf(buf, sizeof buf, "e.g. character %i, states %i, %i and %i. Fixed.\n", ch, i, j, k);
        shell::out_text({buf});
      }
      return true;
    };
    for (bool again = true; again;) {
      again = false;
      for (int i = 0; i < n && !again; ++i)
        for (int j = i + 1; j < n && !again; ++j) {
          bool lowered = false;
          for (int k = j + 1; k < n; ++k) {
            lowered |= fix(i, j, k, i, j, k);
            lowered |= fix(i, k, j, i, j, k);
            lowered |= fix(j, k, i, i, j, k);
            lowered |= fix(j, i, k, i, j, k);
            lowered |= fix(k, j, i, i, j, k);
            lowered |= fix(k, i, j, i, j, k);
          }
          if (lowered) { any = true; again = true; }
        }
    }
    if (any) {
      ++changed_chars;
      r.asymmetric = table_symmetric(t, cost_states) ? 0 : 1;
    }
  }
  return changed_chars;
}

void fill_polymorphic_cells(int ch) {
  CharacterRecord& r = dataset.chars[ch];
  if (!r.sankoff || r.is_continuous || r.num_states <= 0) return;
  const std::uint32_t missing = dataset.missing_value();
  const int n = std::min(cost_states, r.num_states);
  for (int tx = 0; tx < dataset.ntax; ++tx) {
    const std::uint32_t original = dataset.cell(tx, ch);
    if (original == missing || std::popcount(original) < 2) continue;
    std::uint32_t cell = original;
    bool restart = true;
    while (restart) {
      restart = false;
      for (int i = n - 1; i >= 0 && !restart; --i) {
        if (!(cell >> i & 1)) continue;
        for (int j = i - 1; j >= 0 && !restart; --j) {
          if (!(cell >> j & 1)) continue;
          std::int32_t m = std::min(cost_of(ch, i, j), cost_of(ch, j, i));
          for (int k = n - 1; k >= 0; --k) {
            if (cell >> k & 1) continue;
            const std::int32_t a = cost_of(ch, i, k) + cost_of(ch, k, j);
            const std::int32_t b = cost_of(ch, j, k) + cost_of(ch, k, i);
            if (a <= m) { cell |= 1u << k; m = a; restart = true; }
            if (b <= m) { cell |= 1u << k; m = b; restart = true; }
          }
        }
      }
    }
    if (cell != original) {
      std::string added;
      for (std::uint32_t b = cell & ~original; b; b &= b - 1) added += " " + std::to_string(std::countr_zero(b));
      shell::out_text({"Char. " + std::to_string(ch) + ", taxon " + std::to_string(tx) + ": added state(s)" + added + "\n"});
      dataset.set_cell(tx, ch, cell);
    }
  }
}

void sankoff_min_max(int ch, int& min_steps, int& max_steps) {
  const CharacterRecord& r = dataset.chars[ch];
  const std::uint32_t missing = dataset.missing_value();
  std::uint32_t seen = 0;
  std::vector<std::uint32_t> cells;
  for (int t = 0; t < dataset.ntax; ++t) {
    if (!dataset.taxon_active.empty() && !dataset.taxon_active[t]) continue;
    const std::uint32_t v = dataset.cell(t, ch);
    if (v == missing || !v) continue;
    seen |= v;
    cells.push_back(v);
  }
  min_steps = max_steps = 0;
  if (!seen || cells.empty()) return;
  const int n = std::min(cost_states, 32 - std::countl_zero(seen));
  // Most: the bush, every taxon joined to one root state.
  long long most = LLONG_MAX;
  for (int s = 0; s < n; ++s) {
    if (!(seen >> s & 1)) continue;
    long long total = 0;
    for (std::uint32_t v : cells) {
      std::int32_t best = INT_MAX;
      for (std::uint32_t b = v; b; b &= b - 1) best = std::min(best, cost_of(ch, s, std::countr_zero(b)));
      total += best;
    }
    most = std::min(most, total);
  }
  max_steps = most == LLONG_MAX ? 0 : static_cast<int>(most);
  // Least: a spanning tree over the states every taxon forces (cells of one state), with
  // the cheaper direction of each pair; a lower bound for asymmetric tables.
  std::uint32_t forced = 0;
  for (std::uint32_t v : cells)
    if (std::popcount(v) == 1) forced |= v;
  std::vector<int> st;
  for (std::uint32_t b = forced; b; b &= b - 1) st.push_back(std::countr_zero(b));
  if (st.size() < 2) return;
  std::vector<std::int32_t> dist(st.size(), INT_MAX);
  std::vector<char> in(st.size(), 0);
  dist[0] = 0;
  long long total = 0;
  for (std::size_t it = 0; it < st.size(); ++it) {
    std::size_t u = st.size();
    for (std::size_t k = 0; k < st.size(); ++k)
      if (!in[k] && (u == st.size() || dist[k] < dist[u])) u = k;
    in[u] = 1;
    total += dist[u];
    for (std::size_t k = 0; k < st.size(); ++k)
      if (!in[k]) dist[k] = std::min(dist[k], std::min(cost_of(ch, st[u], st[k]), cost_of(ch, st[k], st[u])));
  }
  (void)r;
  min_steps = static_cast<int>(total);
}

void cmd_costs() {
  int c = shell::next_nonblank();
  if (c == ';') {
    shell::unread_char();
    if (!dataset.loaded) {
      shell::out_text({cost_settings.allow_sankoff ? "Allowing sankoff characters\n" : "Not allowing sankoff characters\n"});
      return;
    }
    report_costs();
    return;
  }
  shell::unread_char();
  bool defined = false;
  for (;;) {
    c = shell::next_nonblank();
    switch (c) {
      case ';':
      case EOF:
        shell::unread_char();
        if (defined) {
          shell::show_progress(0, 1, "re-setting costs");
          minmax_check();
          shell::clear_progress();
        }
        return;
      case '<':
      case '>':
        if (dataset.loaded) error_exit("Whether to allow sankoff must be changed before reading data");
        cost_settings.allow_sankoff = c == '>';
        shell::out_text({c == '>' ? "Allowing sankoff characters\n" : "Not allowing sankoff characters\n"});
        break;
      case '[':
      case ']':
        cost_settings.zel_format = c == ']';
        shell::out_text({c == ']' ? "Saving costs in ZEL format\n" : "Saving costs in QAX format\n"});
        break;
      case '&':
        cost_settings.exact_asymmetric_tbr = 1;
        shell::out_text({"Calculating RFD's exactly during TBR\nfor sankoff asymmetric characters \n"});
        break;
      case '|':
        cost_settings.exact_asymmetric_tbr = 0;
        shell::out_text({"Not calculating RFD's exactly during TBR\nfor sankoff asymmetric characters \n"});
        break;
      case '*':
      case '-':
        require_data();
        save_costs(c == '-');
        break;
      default: {
        shell::unread_char();
        require_data();
        require_sankoff_allowed();
        std::vector<std::int8_t> flags;
        read_character_list(flags, "=");
        if (shell::next_nonblank() != '=') error_exit("Scope must be followed by costs");
        apply_definitions(read_definitions(), flags);
        defined = true;
        break;
      }
    }
  }
}

void cmd_ancstates() {
  require_data();
  int c = shell::next_nonblank();
  shell::unread_char();
  if (c == ';') {
    std::string list;
    for (int ch = 0; ch < dataset.nchar; ++ch)
      if (dataset.chars[ch].ancestral) list += " " + std::to_string(ch);
    if (list.empty()) shell::out_text({"No characters with ancestral states\n"});
    else shell::out_text({"Characters with ancestral states:" + list + "\n"});
    return;
  }
  shell::show_progress(0, 1, "setting ancestral states");
  std::vector<std::int8_t> flags;
  read_character_list(flags);
  for (int ch = 0; ch < dataset.nchar; ++ch) {
    if (flags[ch] == 1) dataset.chars[ch].ancestral = 1;
    else if (flags[ch] == -1) dataset.chars[ch].ancestral = 0;
  }
  shell::clear_progress();
}

void cmd_fillsank() { shell::read_switch(cost_settings.fill_sankoff, "Fill Sankoff"); }

namespace {

constexpr int max_step_matrices = 32;
struct StepMatrix {
  bool defined = false;
  std::string name;
  std::vector<Definition> defs;
};
std::vector<StepMatrix> step_matrices(max_step_matrices);

}  // namespace

void cmd_smatrix() {
  const char* usage = "Must use \"=N (name) costs;\" or \"+name chars.;\"";
  int c = shell::next_nonblank();
  if (c == ';') {
    shell::unread_char();
    bool any = false;
    for (int k = 0; k < max_step_matrices; ++k)
      if (step_matrices[k].defined) {
        if (!any) shell::out_text({"Step-matrices defined:\n"});
        any = true;
        std::string text = "  " + std::to_string(k) + " " + step_matrices[k].name + ":";
        for (const Definition& d : step_matrices[k].defs) {
          auto set = [](std::uint32_t v) {
            std::string s;
            for (std::uint32_t b = v; b; b &= b - 1) s += std::to_string(std::countr_zero(b));
            return std::popcount(v) > 1 ? "[" + s + "]" : s;
          };
          text += " " + set(d.from) + (d.symmetric ? "/" : ">") + set(d.to) + " " + std::to_string(d.cost);
        }
        shell::out_text({text, "\n"});
      }
    if (!any) shell::out_text({"No step-matrices defined\n"});
    return;
  }
  if (c == '=') {
    c = shell::next_nonblank();
    shell::unread_char();
    if (!std::isdigit(c)) error_exit(usage);
    const int k = shell::read_int();
    if (k < 0 || k >= max_step_matrices)
      error_exit({"Can't have more than", std::to_string(max_step_matrices), "step-matrices defined"});
    std::string name = "StepMatrix_" + std::to_string(k);
    c = shell::next_nonblank();
    if (c == '(') {
      name.clear();
      for (;;) {
        c = shell::next_char();
        if (c == ')' ) break;
        if (c == ';' || c == EOF) error_exit("Syntax error in definition of transformation costs");
        if (c > ' ') name += static_cast<char>(c);
      }
    } else {
      shell::unread_char();
    }
    std::vector<Definition> defs = read_definitions();
    step_matrices[k] = StepMatrix{true, name, defs};
    return;
  }
  if (c != '+') error_exit(usage);
  require_data();
  require_sankoff_allowed();
  shell::read_list_word();
  const std::string word(shell::token_buffer);
  int found = -1, matches = 0;
  bool number = !word.empty() && std::all_of(word.begin(), word.end(), [](char ch) { return std::isdigit(static_cast<unsigned char>(ch)); });
  if (number) {
    found = std::stoi(word);
    if (found >= max_step_matrices || !step_matrices[found].defined)
      error_exit({"No step-matrix number " + std::to_string(found) + " has been defined"});
    matches = 1;
  } else {
    for (int k = 0; k < max_step_matrices; ++k) {
      if (!step_matrices[k].defined) continue;
      if (shell::name_equal(word, step_matrices[k].name) == 0) {
        if (word.size() == step_matrices[k].name.size()) { found = k; matches = 1; break; }
        if (found < 0) found = k;
        ++matches;
      }
    }
    if (found < 0) error_exit({word, "doesn't match any step-matrix name"});
  }
  c = shell::next_nonblank();
  shell::unread_char();
  if (c == ';') error_exit("Must specify character(s) to apply step-matrix");
  std::vector<std::int8_t> flags;
  read_character_list(flags);
  if (matches > 1)
    shell::warning({word + " is an ambiguous abbreviation for a step matrix name\n\n  It will be applied to char."});
  apply_definitions(step_matrices[found].defs, flags);
  minmax_check();
}

void reset_cost_state() {
  cost_settings = CostSettings();
  tables.clear();
  reset_state_trees();
  reset_user_min_max();
  step_matrices.assign(max_step_matrices, StepMatrix());
}

}  // namespace qax::dataset

// User minima and maxima of Sankoff characters.
//   usminmax;                         report
//   usminmax = / - / /;               the user maximum state applied or not (toggle)
//   usminmax max list = S ...;        maximum state S (states 0..S open to ancestors)
//   usminmax min list = M ...;        minimum steps M
namespace qax::dataset {

UserMinMax user_min_max;

namespace {

void report_user_min_max() {
  shell::out_text({"User-defined maximum state for Sankoff characters",
                   user_min_max.apply_max ? " applied, when defined\n" : " not in effect\n"});
  std::string mins, maxs;
  for (int c = 0; c < dataset.nchar; ++c) {
    if (c < static_cast<int>(user_min_max.minimum.size()) && user_min_max.minimum[c] >= 0)
      mins += " " + std::to_string(c) + "=" + std::to_string(user_min_max.minimum[c]);
    if (c < static_cast<int>(user_min_max.maximum.size()) && user_min_max.maximum[c] >= 0)
      maxs += " " + std::to_string(c) + "=" + std::to_string(user_min_max.maximum[c]);
  }
  if (!mins.empty()) shell::out_text({"Sankoff characters with user defined minimum:", mins, "\n"});
  if (!maxs.empty()) shell::out_text({"Sankoff characters with user-defined maximum state:", maxs, "\n"});
  else shell::out_text({"User-defined maximum state not in effect for any character\n"});
}

}  // namespace

void cmd_usminmax() {
  int c = shell::next_nonblank();
  if (c == ';') {
    shell::unread_char();
    require_data();
    report_user_min_max();
    return;
  }
  if (c == '=' || c == '-' || c == '/') {
    user_min_max.apply_max = c == '=' ? 1 : c == '-' ? 0 : !user_min_max.apply_max;
    shell::out_text({"User-defined maximum state for Sankoff characters",
                     user_min_max.apply_max ? " applied, when defined\n" : " not in effect\n"});
    for (CharacterRecord& r : dataset.chars) r.dirty = 1;
    return;
  }
  shell::unread_char();
  require_data();
  shell::read_list_word();
  const std::string word(shell::token_buffer);
  const bool max_form = shell::name_equal(word, "max") == 0 && !word.empty();
  const bool min_form = shell::name_equal(word, "min") == 0 && !word.empty();
  if (!max_form && !min_form) error_exit("Give maximum state for sankoff characters");
  user_min_max.minimum.resize(dataset.nchar, -1);
  user_min_max.maximum.resize(dataset.nchar, -1);
  int changed = 0, last = 0;
  for (;;) {
    c = shell::next_nonblank();
    shell::unread_char();
    if (c == ';') break;
    std::vector<std::int8_t> flags;
    if (!read_character_list(flags, "=")) error_exit("Must specify character(s) (or end with semicolon)");
    if (shell::next_nonblank() != '=') error_exit("Character list must be followed by \"=\"");
    c = shell::next_nonblank();
    shell::unread_char();
    if (!std::isdigit(c)) {
      if (min_form) error_exit("Must specify value of user minimum after \"=\"");
      char buf[64];
      std::snprintf(buf, sizeof buf, "Unexpected symbol reading maximum state: '%c'", c);
      error_exit(buf);
    }
    const int value = shell::read_int();
    last = value;
    if (max_form) {
      if (value > 31) error_exit({"Cannot define maximum as " + std::to_string(value) + " (maximum must be 0-31)"});
      const int limit = std::min(cost_states, dataset.cell_width * 8);
      if (value >= limit)
        error_exit({"Cannot set maximum to " + std::to_string(value) + " (number of states is " + std::to_string(limit) + ")"});
    }
    for (int ch = 0; ch < dataset.nchar; ++ch) {
      if (flags[ch] != 1 || dataset.chars[ch].is_continuous) continue;
      if (max_form) {
        user_min_max.maximum[ch] = value;
      } else {
        const CharacterRecord& r = dataset.chars[ch];
        if (r.max_steps <= value) {
          char buf[200];
          std::snprintf(buf, sizeof buf,
                        "Maximum possible steps for char. %i is %i; a user minimum of %i (or more) makes it \"uninformative\"",
                        ch, r.max_steps, r.max_steps);
          shell::warning({buf});
        }
        user_min_max.minimum[ch] = value;
      }
      dataset.chars[ch].dirty = 1;
      ++changed;
    }
  }
  char buf[96];
  if (max_form) std::snprintf(buf, sizeof buf, "Setting user maximum state to %i for %i discrete chars.\n", last, changed);
  else std::snprintf(buf, sizeof buf, "User-minimum defined for %i sankoff char(s)\n", changed);
  shell::out_text({buf});
  minmax_check();
}

void reset_user_min_max() { user_min_max = UserMinMax(); }

}  // namespace qax::dataset
