// Character mapping on the stored trees: map (state sets by node), apo (changes by node)
// and blength (minimum branch lengths). One character at a time on the unpacked matrix, in
// the node numbers of the stored tree, so that reports agree with the tree diagrams.
// An additive character is mapped as its binary columns (one per step of its range).
#include <algorithm>
#include <bit>
#include <cstdio>
#include <string>
#include <vector>

#include "dataset/dataset.h"
#include "dataset/lists_bridge.h"
#include "optim/reports.h"
#include "shell/failure.h"
#include "shell/input.h"
#include "shell/output.h"
#include "trees/store.h"

namespace qax::optim {

using namespace qax::shell;
using qax::dataset::dataset;
using qax::trees::tree_store;

namespace {

struct Mapped {
  int ntax = 0;
  std::vector<int> parent;                  // stored parent array
  std::vector<std::vector<int>> kids;       // children of each node
  std::vector<int> preorder;                // nodes reached from the root, root first
};

Mapped load_mapped(int k) {
  Mapped m;
  m.ntax = dataset.ntax;
  const std::int32_t* row = qax::trees::tree_row(k);
  m.parent.assign(row, row + tree_store.row_size);
  const int end = std::max(m.parent[m.ntax], m.ntax + 1);
  m.kids.assign(end, {});
  for (int n = 0; n < end; ++n)
    if (n != m.ntax && m.parent[n] >= m.ntax && m.parent[n] < end) m.kids[m.parent[n]].push_back(n);
  for (int n = m.ntax; n < end; ++n)
    if (!m.kids[n].empty() && m.kids[n].size() != 2) {
      char text[96];
      std::snprintf(text, sizeof text, "Tree %i has polytomies: mapping needs binary trees", k);
      error_exit(text);
    }
  std::vector<int> st{m.ntax};
  while (!st.empty()) {
    int n = st.back();
    st.pop_back();
    m.preorder.push_back(n);
    if (n >= m.ntax) for (int c : m.kids[n]) st.push_back(c);
  }
  return m;
}

// Fitch two-pass on one column of state sets; `cell` gives the terminal sets.
template <class Cell> void column_finals(const Mapped& m, Cell cell, std::vector<std::uint32_t>& down,
                                         std::vector<std::uint32_t>& fin) {
  const int size = static_cast<int>(m.kids.size());
  down.assign(size, ~0u);
  fin.assign(size, ~0u);
  std::vector<std::uint8_t> took_union(size, 0);
  for (int i = static_cast<int>(m.preorder.size()) - 1; i >= 0; --i) {
    const int n = m.preorder[i];
    if (n < m.ntax) { down[n] = cell(n); continue; }
    const std::uint32_t a = down[m.kids[n][0]], b = down[m.kids[n][1]];
    took_union[n] = (a & b) == 0;
    down[n] = took_union[n] ? a | b : a & b;
  }
  for (int n : m.preorder) {
    if (n == m.ntax) { fin[n] = down[n]; continue; }
    const std::uint32_t f = fin[m.parent[n]], d = down[n];
    if ((f & d) == f) fin[n] = f;
    else if (n < m.ntax) fin[n] = d;
    else if (took_union[n]) fin[n] = d | f;
    else fin[n] = d | (f & (down[m.kids[n][0]] | down[m.kids[n][1]]));
  }
}

// Final state sets of character c at every node (bit s = state s); empty when not scored.
std::vector<std::uint32_t> char_finals(const Mapped& m, int c) {
  const auto& r = dataset.chars[c];
  const std::uint32_t missing = dataset.missing_value();
  auto raw = [&](int t) -> std::uint32_t {
    std::uint32_t v = dataset.cell(t, c);
    const bool active = t < static_cast<int>(dataset.taxon_active.size()) ? dataset.taxon_active[t] != 0 : true;
    return (v == missing || v == 0 || !active) ? ~0u : v;
  };
  std::vector<std::uint32_t> down, fin;
  if (!r.additive) {
    column_finals(m, raw, down, fin);
    return fin;
  }
  std::uint32_t seen = 0;
  for (int t = 0; t < m.ntax; ++t) if (raw(t) != ~0u) seen |= raw(t);
  std::vector<std::uint32_t> result(m.kids.size(), seen ? 0u : ~0u);
  if (!seen) return result;
  const int lo = std::countr_zero(seen), hi = 31 - std::countl_zero(seen);
  const std::uint32_t range = (~0u >> (31 - hi)) & (~0u << lo);
  std::fill(result.begin(), result.end(), range);
  for (int thr = lo + 1; thr <= hi; ++thr) {
    auto col = [&](int t) -> std::uint32_t {
      std::uint32_t v = raw(t);
      if (v == ~0u) return 3u;
      const int a = std::countr_zero(v), b = 31 - std::countl_zero(v);
      return (a < thr ? 1u : 0u) | (b >= thr ? 2u : 0u);
    };
    column_finals(m, col, down, fin);
    const std::uint32_t below = range & ((1u << thr) - 1), above = range & ~((1u << thr) - 1);
    for (std::size_t n = 0; n < fin.size(); ++n)
      result[n] &= ((fin[n] & 1u) ? below : 0u) | ((fin[n] & 2u) ? above : 0u);
  }
  return result;
}

bool scored(int c) {
  const auto& r = dataset.chars[c];
  return r.active && r.weight != 0 && !r.is_continuous;
}

// Minimum number of steps between two final sets of character c.
int set_distance(int c, std::uint32_t a, std::uint32_t b) {
  if (a & b) return 0;
  if (!dataset.chars[c].additive) return 1;
  const int alo = std::countr_zero(a), ahi = 31 - std::countl_zero(a);
  const int blo = std::countr_zero(b), bhi = 31 - std::countl_zero(b);
  return ahi < blo ? blo - ahi : alo - bhi;
}

std::string set_text(int c, std::uint32_t v) {
  if (v == ~0u) v = dataset.missing_value();
  return qax::dataset::state_text(c, v);
}

struct Args {
  std::vector<int> trees;
  std::vector<int> chars;
};

Args read_args() {
  qax::dataset::require_data();
  if (tree_store.ntrees == 0) error_exit("No trees in memory");
  Args a;
  std::vector<std::uint8_t> flags;
  int named = 0;
  if (peek_char() != ';' && peek_char() != '/') named = qax::trees::read_tree_list(flags, false);
  for (int k = 0; k < tree_store.ntrees; ++k)
    if (!named || (k < static_cast<int>(flags.size()) && flags[k] == 1)) a.trees.push_back(k);
  if (a.trees.empty()) error_exit("No trees specified");
  std::vector<std::int8_t> cf;
  if (accept_char('/')) qax::dataset::read_character_list(cf);
  for (int c = 0; c < dataset.nchar; ++c)
    if ((cf.empty() || cf[c] == 1) && scored(c)) a.chars.push_back(c);
  qax::dataset::minmax_check();
  return a;
}

void line_of(const char* format, int a, int b = 0) {
  char text[160];
  std::snprintf(text, sizeof text, format, a, b);
  out_line({text});
}

}  // namespace

void cmd_map() {
  if (accept_char(':')) error_exit("Down-pass states are not available yet");
  Args a = read_args();
  for (int k : a.trees) {
    Mapped m = load_mapped(k);
    line_of("Tree %i, state sets of nodes", k);
    for (int c : a.chars) {
      std::vector<std::uint32_t> fin = char_finals(m, c);
      line_of("Char %i", c);
      out_line({"     Root: " + set_text(c, fin[m.ntax])});
      for (int n : m.preorder)
        if (n > m.ntax) {
          char text[32];
          std::snprintf(text, sizeof text, "     Node %i: ", n);
          out_line({text + set_text(c, fin[n])});
        }
    }
  }
}

void cmd_apo() {
  if (accept_char('!')) error_exit("Option \"apo!\" is applicable only to landmark characters");
  Args a = read_args();
  for (int k : a.trees) {
    Mapped m = load_mapped(k);
    std::vector<std::vector<std::uint32_t>> fin;
    for (int c : a.chars) fin.push_back(char_finals(m, c));
    line_of("Tree %i, changes on all reconstructions", k);
    for (int n : m.preorder) {
      if (n == m.ntax) continue;
      if (n < m.ntax)
        out_line({"   " + (dataset.taxon_names.size() > static_cast<std::size_t>(n) ? dataset.taxon_names[n] : std::to_string(n)) + ":"});
      else line_of("   Node %i:", n);
      int changes = 0;
      for (std::size_t i = 0; i < a.chars.size(); ++i) {
        const int c = a.chars[i];
        const std::uint32_t x = fin[i][m.parent[n]], y = fin[i][n];
        if (x & y) continue;
        char text[32];
        std::snprintf(text, sizeof text, "      Char %i: ", c);
        out_line({text + set_text(c, x) + " --> " + set_text(c, y)});
        ++changes;
      }
      if (!changes) out_line({n < m.ntax ? "      No autapomorphies" : "      No synapomorphies"});
    }
  }
}

void cmd_blength() {
  Args a = read_args();
  for (int k : a.trees) {
    Mapped m = load_mapped(k);
    std::vector<long long> length(m.kids.size(), 0);
    for (int c : a.chars) {
      std::vector<std::uint32_t> fin = char_finals(m, c);
      for (int n : m.preorder)
        if (n != m.ntax) length[n] += static_cast<long long>(dataset.chars[c].weight) * set_distance(c, fin[m.parent[n]], fin[n]);
    }
    line_of("Tree %i, min. branch lengths", k);
    std::vector<int> nodes;
    for (int n : m.preorder) if (n != m.ntax) nodes.push_back(n);
    std::sort(nodes.begin(), nodes.end());
    for (int n : nodes) {
      char text[64];
      std::snprintf(text, sizeof text, "   %5i  %5lli", n, length[n]);
      out_line({text});
    }
  }
}

}  // namespace qax::optim
