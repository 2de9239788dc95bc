// Constraint groups packed as 2-bit fields over the terminals, their Fitch sets on a
// working tree, the per-candidate test and the checks of whole trees.
#include "search/constraints.h"

#include <algorithm>
#include <bit>
#include <unordered_map>

#include "dataset/dataset.h"
#include "optim/packed.h"
#include "search/settings.h"
#include "shell/failure.h"

namespace qax::search {

using qax::dataset::dataset;
using qax::optim::packed;
using qax::optim::WorkTree;
using qax::shell::error_exit;

ConstraintDefs constraint_defs;

namespace {

constexpr std::uint32_t low_bits = 0x55555555u;   // low bit of every 2-bit field
constexpr int groups_per_word = 16;

// Search-time state: the groups in packed numbering and the sets of one tree.
struct ConstraintSets {
  int ready = 0;                           // built for the current pack
  int nterm = 0;                           // packed terminals
  int nnodes = 0;                          // 2*nterm - 1
  int npos = 0;                            // positive groups (user's and tree's)
  int nneg = 0;                            // negative groups
  int wpos = 0;                            // words of positive fields
  int words = 0;                           // words a node: wpos + negative words
  std::vector<std::uint32_t> down;         // first-pass sets, per node
  std::vector<std::uint32_t> final_sets;   // second-pass sets of the main tree
  std::vector<std::uint32_t> branch;       // main tree: states on the branch above a node
  std::vector<std::uint32_t> up;           // clip: set of the rest of the clip above a node
  std::vector<std::uint32_t> reroot;       // clip: clip's set when rooted above a node
  std::vector<int> changes;                // per group (positive first): changes counted
  std::vector<std::uint32_t> pos_forbid;   // per positive word: low bits of groups with a change
  std::vector<std::uint32_t> neg_need;     // per negative word: low bits of groups with one change
  std::vector<std::vector<int>> neg_firm;  // per negative group: terminals not floating
  std::vector<std::uint8_t> neg_trivial;   // per negative group: cannot be broken, ignored
  std::vector<std::uint8_t> neg_enforced;  // per negative group: enforced for this tree
  std::vector<std::uint8_t> present;       // per terminal: in the main tree or the clip
  std::vector<int> order;                  // preorder scratch
  std::vector<int> par, c0, c1;            // effective links of the prepared parts
  const int* anc = nullptr;                // bound tree: ancestors
  const int* left = nullptr;               // bound tree: first children
  const int* right = nullptr;              // bound tree: second children
  int bound_nterm = 0;                     // bound tree: terminals (root = bound_nterm)
  int prepared_clip = -2;                  // clip of the last prepare, -2 none (stale)
  std::vector<int> stack;                  // traversal scratch
  int impossible = 0;                      // no placement of this clip is legal
};
ConstraintSets cs;

std::uint32_t* row(std::vector<std::uint32_t>& v, int n) { return v.data() + static_cast<std::size_t>(n) * cs.words; }

// Packed fields of group g for every terminal of packed numbering.
void put_group(int word, int g, const ConstraintGroup& grp) {
  const int shift = 2 * (g % groups_per_word);
  for (int t = 0; t < cs.nterm; ++t) {
    const int taxon = packed.from_packed[t];
    std::uint32_t f = taxon < static_cast<int>(grp.field.size()) ? grp.field[taxon] : field_floating;
    std::uint32_t* r = row(cs.down, t) + word + g / groups_per_word;
    *r = (*r & ~(3u << shift)) | (f << shift);
  }
}

// Fitch first pass of one node from its children (-1 when absent); counts changes.
// Example, one word with 2 groups: A = 10'01, B = 01'01 -> x = 00'01, the high field is
// empty: e = 01'00, the node takes A|B = 11 there and group 1 gets a change.
void down_node(int n, int a, int b, bool count) {
  std::uint32_t* d = row(cs.down, n);
  if (a < 0 && b < 0) { std::fill(d, d + cs.words, ~0u); return; }
  if (b < 0 || a < 0) {
    const std::uint32_t* s = row(cs.down, a < 0 ? b : a);
    std::copy(s, s + cs.words, d);
    return;
  }
  const std::uint32_t* x = row(cs.down, a);
  const std::uint32_t* y = row(cs.down, b);
  for (int w = 0; w < cs.words; ++w) {
    const std::uint32_t m = x[w] & y[w];
    const std::uint32_t e = ~(m | m >> 1) & low_bits;
    d[w] = m | ((x[w] | y[w]) & (e * 3));
    if (count)
      for (std::uint32_t bits = e; bits; bits &= bits - 1) ++cs.changes[w * groups_per_word + std::countr_zero(bits) / 2];
  }
}

// Fitch combination of two sets without counting (rerooting of the clip).
void combine(const std::uint32_t* x, const std::uint32_t* y, std::uint32_t* out) {
  for (int w = 0; w < cs.words; ++w) {
    const std::uint32_t m = x[w] & y[w];
    const std::uint32_t e = ~(m | m >> 1) & low_bits;
    out[w] = m | ((x[w] | y[w]) & (e * 3));
  }
}

// Nodes below `top` in preorder into cs.order (from `start`) with their effective links;
// `skip` is the clip (left out) and `pass` its parent (replaced by the clip's sister).
// Returns the new end.
int collect(int top, int start, int skip, int pass) {
  const int nterm = cs.bound_nterm;
  auto child = [&](int c) {
    if (c < 0 || c == skip) return -1;
    if (c == pass) {
      const int l = cs.left[c], r = cs.right[c];
      return l == skip ? r : l;
    }
    return c;
  };
  int n = start, sp = 0;
  cs.stack[sp++] = top;
  cs.par[top] = -1;
  while (sp) {
    const int v = cs.stack[--sp];
    cs.order[n++] = v;
    cs.c0[v] = cs.c1[v] = -1;
    if (v < nterm) { cs.present[v] = 1; continue; }
    const int a = child(cs.left[v]), b = child(cs.right[v]);
    cs.c0[v] = a;
    cs.c1[v] = b;
    if (b >= 0) { cs.par[b] = v; cs.stack[sp++] = b; }
    if (a >= 0) { cs.par[a] = v; cs.stack[sp++] = a; }
  }
  return n;
}

void down_range(int from, int to) {
  for (int k = to - 1; k >= from; --k) {
    const int v = cs.order[k];
    if (v >= cs.bound_nterm) down_node(v, cs.c0[v], cs.c1[v], true);
  }
}

// Second pass of the main tree and the branch sets. For a field where the ancestor's set
// is not inside the node's, the node takes its own set plus the ancestor's states found in
// a child: d = 01, f = 11, children 01 and 11 -> 11 (either state is optimal).
void final_range(int count) {
  const int root = cs.order[0];
  std::copy(row(cs.down, root), row(cs.down, root) + cs.words, row(cs.final_sets, root));
  for (int k = 1; k < count; ++k) {
    const int v = cs.order[k];
    const std::uint32_t* f = row(cs.final_sets, cs.par[v]);
    const std::uint32_t* d = row(cs.down, v);
    const int a = cs.c0[v], b = cs.c1[v];
    std::uint32_t* out = row(cs.final_sets, v);
    for (int w = 0; w < cs.words; ++w) {
      std::uint32_t lr = 0;
      if (a >= 0) lr |= row(cs.down, a)[w];
      if (b >= 0) lr |= row(cs.down, b)[w];
      const std::uint32_t miss = f[w] & ~d[w];
      const std::uint32_t m = ((miss | miss >> 1) & low_bits) * 3;
      out[w] = (f[w] & ~m) | ((d[w] | (f[w] & lr)) & m);
    }
  }
  for (int k = 0; k < count; ++k) {
    const int v = cs.order[k];
    std::uint32_t* br = row(cs.branch, v);
    const std::uint32_t* fv = row(cs.final_sets, v);
    if (v == root) { std::copy(fv, fv + cs.words, br); continue; }
    const std::uint32_t* fa = row(cs.final_sets, cs.par[v]);
    for (int w = 0; w < cs.words; ++w) br[w] = fv[w] | fa[w];
  }
  // The two branches at the root are one branch of the unrooted tree.
  const int a = cs.c0[root], b = cs.c1[root];
  if (a >= 0 && b >= 0) {
    std::uint32_t* ba = row(cs.branch, a);
    std::uint32_t* bb = row(cs.branch, b);
    const std::uint32_t* fa = row(cs.final_sets, a);
    const std::uint32_t* fb = row(cs.final_sets, b);
    for (int w = 0; w < cs.words; ++w) ba[w] = bb[w] = fa[w] | fb[w];
  }
}

// The clip's set when rooted above each of its nodes.
void reroot_range(int clip, int from, int to) {
  std::copy(row(cs.down, clip), row(cs.down, clip) + cs.words, row(cs.reroot, clip));
  for (int k = from + 1; k < to; ++k) {
    const int v = cs.order[k];
    const int p = cs.par[v];
    const int s = cs.c0[p] == v ? cs.c1[p] : cs.c0[p];
    std::uint32_t* u = row(cs.up, v);
    if (p == clip) {
      if (s >= 0) std::copy(row(cs.down, s), row(cs.down, s) + cs.words, u);
      else std::fill(u, u + cs.words, ~0u);
    } else if (s >= 0) {
      combine(row(cs.up, p), row(cs.down, s), u);
    } else {
      std::copy(row(cs.up, p), row(cs.up, p) + cs.words, u);
    }
    combine(row(cs.down, v), u, row(cs.reroot, v));
  }
}

void set_masks() {
  cs.impossible = 0;
  std::fill(cs.neg_enforced.begin(), cs.neg_enforced.end(), 0);
  std::fill(cs.pos_forbid.begin(), cs.pos_forbid.end(), 0u);
  std::fill(cs.neg_need.begin(), cs.neg_need.end(), 0u);
  for (int g = 0; g < cs.npos; ++g) {
    const int c = cs.changes[g];
    if (c >= 2) cs.impossible = 1;
    if (c >= 1) cs.pos_forbid[g / groups_per_word] |= 1u << (2 * (g % groups_per_word));
  }
  for (int g = 0; g < cs.nneg; ++g) {
    bool enforced = !cs.neg_trivial[g];
    for (int t : cs.neg_firm[g])
      if (!cs.present[t]) { enforced = false; break; }
    if (!enforced) continue;
    const int c = cs.changes[cs.wpos * groups_per_word + g];
    cs.neg_enforced[g] = 1;
    if (c == 0) cs.impossible = 1;
    if (c == 1) cs.neg_need[g / groups_per_word] |= 1u << (2 * (g % groups_per_word));
  }
}

// Split test on bit-sets over taxa: may the firm inside and outside taxa of a group sit
// on the two sides of some cluster (or its complement)?
bool group_is_split(const std::vector<std::vector<std::uint64_t>>& clusters, const std::vector<std::uint64_t>& in,
                    const std::vector<std::uint64_t>& out) {
  auto count = [](const std::vector<std::uint64_t>& s) {
    int n = 0;
    for (auto w : s) n += std::popcount(w);
    return n;
  };
  if (count(in) <= 1 || count(out) <= 1) return true;
  for (const auto& c : clusters) {
    bool in_c = true, out_free = true, out_c = true, in_free = true;
    for (std::size_t w = 0; w < c.size(); ++w) {
      if (in[w] & ~c[w]) in_c = false;
      if (out[w] & c[w]) out_free = false;
      if (out[w] & ~c[w]) out_c = false;
      if (in[w] & c[w]) in_free = false;
    }
    if ((in_c && out_free) || (out_c && in_free)) return true;
  }
  return false;
}

}  // namespace

bool constraints_in_force() noexcept { return constraint_defs.defined && constraint_defs.active; }

void constraints_reset() noexcept {
  constraint_defs = ConstraintDefs{};
  cs = ConstraintSets{};
  optim::constrained_group_hook = nullptr;
}

// Conflicts between groups, over the taxa that are firm in both.
namespace {

enum PairKind { pair_fine, pair_identical, pair_incompatible };

PairKind compare_groups(const ConstraintGroup& a, const ConstraintGroup& b) {
  bool ii = false, io = false, oi = false, oo = false;
  const std::size_t n = std::min(a.field.size(), b.field.size());
  for (std::size_t t = 0; t < n; ++t) {
    if (a.field[t] == field_floating || b.field[t] == field_floating) continue;
    const bool ai = a.field[t] == field_inside, bi = b.field[t] == field_inside;
    if (ai && bi) ii = true;
    else if (ai) io = true;
    else if (bi) oi = true;
    else oo = true;
  }
  if (ii && io && oi && oo) return pair_incompatible;
  if ((ii && oo && !io && !oi) || (io && oi && !ii && !oo)) return pair_identical;
  return pair_fine;
}

// A group with one or no firm taxon on a side makes no demand.
bool trivial_group(const ConstraintGroup& g) {
  int in = 0, out = 0;
  for (std::size_t t = 0; t < g.field.size(); ++t) {
    if (t < dataset.taxon_active.size() && !dataset.taxon_active[t]) continue;
    if (g.field[t] == field_inside) ++in;
    else if (g.field[t] == field_outside) ++out;
  }
  return in <= 1 || out <= 1;
}

}  // namespace

void check_constraint_conflicts() {
  const ConstraintDefs& d = constraint_defs;
  const int pos_tree = d.tree_kind == 1 || d.tree_kind == 2 ? d.tree_groups : 0;
  const int neg_tree = d.tree_kind == 3 ? d.tree_groups : 0;
  // Groups taken from a tree that met the other constraints can't contradict them.
  const int npos = d.auto_from >= 0 ? std::min(d.auto_from, static_cast<int>(d.positive.size()))
                                    : static_cast<int>(d.positive.size());
  const int pos_user = npos - pos_tree;
  const int neg_user = static_cast<int>(d.negative.size()) - neg_tree;
  auto nontrivial = [](const ConstraintGroup& g) { return !trivial_group(g); };
  // Tree groups follow the user's groups in both lists.
  for (int i = pos_user; i < pos_user + pos_tree; ++i)
    for (int j = 0; j < pos_user; ++j)
      if (compare_groups(d.positive[i], d.positive[j]) == pair_incompatible)
        error_exit("Tree constraint and positive constraints contain contradictory groups");
  for (int i = pos_user; i < pos_user + pos_tree; ++i)
    for (int j = 0; j < neg_user; ++j)
      if (nontrivial(d.negative[j]) && compare_groups(d.positive[i], d.negative[j]) == pair_identical)
        error_exit("Tree constraint and negative constraints contain some identical groups");
  for (int i = 0; i < pos_user; ++i)
    for (int j = 0; j < static_cast<int>(d.negative.size()); ++j)
      if (nontrivial(d.negative[j]) && compare_groups(d.positive[i], d.negative[j]) == pair_identical)
        error_exit("Positive and negative constraints contain some identical groups");
  for (int i = 0; i < pos_user; ++i)
    for (int j = i + 1; j < pos_user; ++j)
      if (compare_groups(d.positive[i], d.positive[j]) == pair_incompatible)
        error_exit("Some positive constraints force incompatible groups");
}

void constraints_pack() {
  if (!packed.valid) error_exit("Internal error: constraints packed before the data");
  check_constraint_conflicts();
  const ConstraintDefs& d = constraint_defs;
  cs = ConstraintSets{};
  cs.nterm = packed.nterm;
  cs.nnodes = packed.nnodes;
  cs.npos = static_cast<int>(d.positive.size());
  cs.nneg = static_cast<int>(d.negative.size());
  cs.wpos = (cs.npos + groups_per_word - 1) / groups_per_word;
  const int wneg = (cs.nneg + groups_per_word - 1) / groups_per_word;
  cs.words = cs.wpos + wneg;
  const std::size_t cells = static_cast<std::size_t>(std::max(cs.nnodes, 1)) * cs.words;
  cs.down.assign(cells, ~0u);
  cs.final_sets.assign(cells, ~0u);
  cs.branch.assign(cells, ~0u);
  cs.up.assign(cells, ~0u);
  cs.reroot.assign(cells, ~0u);
  cs.changes.assign(static_cast<std::size_t>(cs.words) * groups_per_word, 0);
  cs.pos_forbid.assign(cs.wpos, 0);
  cs.neg_need.assign(wneg, 0);
  cs.present.assign(cs.nterm, 0);
  cs.order.assign(cs.nnodes + 1, 0);
  cs.par.assign(cs.nnodes + 1, -1);
  cs.c0.assign(cs.nnodes + 1, -1);
  cs.c1.assign(cs.nnodes + 1, -1);
  cs.stack.assign(cs.nnodes + 1, 0);
  for (int g = 0; g < cs.npos; ++g) put_group(0, g, d.positive[g]);
  for (int g = 0; g < cs.nneg; ++g) put_group(cs.wpos, g, d.negative[g]);
  cs.neg_firm.assign(cs.nneg, {});
  cs.neg_trivial.assign(cs.nneg, 0);
  cs.neg_enforced.assign(cs.nneg, 0);
  for (int g = 0; g < cs.nneg; ++g) cs.neg_trivial[g] = trivial_group(d.negative[g]);
  for (int g = 0; g < cs.nneg; ++g)
    for (int t = 0; t < cs.nterm; ++t) {
      const int taxon = packed.from_packed[t];
      const auto& f = d.negative[g].field;
      if (taxon < static_cast<int>(f.size()) && f[taxon] != field_floating) cs.neg_firm[g].push_back(t);
    }
  cs.ready = 1;
}

void constraint_bind(const int* anc, const int* left, const int* right, int nterm) {
  cs.anc = anc;
  cs.left = left;
  cs.right = right;
  cs.bound_nterm = nterm;
  cs.prepared_clip = -2;
}

void constraint_prepare(int clip) {
  cs.prepared_clip = clip;
  cs.impossible = 0;
  if (!cs.ready || cs.words == 0 || !cs.anc) return;
  if (cs.bound_nterm != cs.nterm) error_exit("Internal error: constraints packed for another tree size");
  std::fill(cs.present.begin(), cs.present.end(), 0);
  std::fill(cs.changes.begin(), cs.changes.end(), 0);
  const int root = cs.bound_nterm;
  int skip = -1, pass = -1;
  if (clip >= 0 && cs.anc[clip] >= 0) {
    skip = clip;
    pass = cs.anc[clip] == root ? -1 : cs.anc[clip];
  }
  const int main_end = collect(root, 0, skip, pass);
  down_range(0, main_end);
  final_range(main_end);
  if (clip >= 0) {
    const int clip_end = collect(clip, main_end, -1, -1);
    down_range(main_end, clip_end);
    reroot_range(clip, main_end, clip_end);
  }
  set_masks();
}

void constraint_clip(const WorkTree& t, int clip) {
  constraint_bind(t.ancestor.data(), t.left_child.data(), t.right_child.data(), t.nterm);
  constraint_prepare(clip);
}

void constraint_tree_changed() noexcept { cs.prepared_clip = -2; }

int constraint_candidate(int clip, int reroot, int target) {
  if (clip != cs.prepared_clip) constraint_prepare(clip);
  return constraint_test(reroot < 0 ? clip : reroot, target) ? 1 : 0;
}

void constraints_start_search(const int* anc, const int* left, const int* right, int nterm) {
  if (!constraints_in_force()) { constraint_allows = nullptr; return; }
  constraints_pack();
  constraint_bind(anc, left, right, nterm);
  constraint_allows = constraint_candidate;
}

void constraints_end_search() noexcept {
  constraint_allows = nullptr;
  cs.anc = cs.left = cs.right = nullptr;
  cs.prepared_clip = -2;
}

// Example, one positive word: clip 10'10, branch 01'11 -> x = 00'10: the high field
// (group 1) is empty, a new change; allowed only if group 1 had none (pos_forbid 0 there).
bool constraint_test(int reroot, int target) noexcept {
  if (!cs.ready || cs.words == 0) return true;
  if (cs.impossible) return false;
  const std::uint32_t* c = cs.reroot.data() + static_cast<std::size_t>(reroot) * cs.words;
  const std::uint32_t* b = cs.branch.data() + static_cast<std::size_t>(target) * cs.words;
  for (int w = 0; w < cs.wpos; ++w) {
    const std::uint32_t x = c[w] & b[w];
    if (~(x | x >> 1) & cs.pos_forbid[w]) return false;
  }
  for (int w = cs.wpos; w < cs.words; ++w) {
    const std::uint32_t x = c[w] & b[w];
    if ((x | x >> 1) & cs.neg_need[w - cs.wpos]) return false;
  }
  return true;
}

void constraint_tree_counts(const WorkTree& t, int* pos_bad, int* neg_bad) {
  *pos_bad = *neg_bad = 0;
  if (!cs.ready || cs.words == 0) return;
  constraint_clip(t, -1);
  cs.prepared_clip = -2;
  for (int g = 0; g < cs.npos; ++g) *pos_bad += cs.changes[g] >= 2;
  for (int g = 0; g < cs.nneg; ++g)
    *neg_bad += cs.neg_enforced[g] && cs.changes[cs.wpos * groups_per_word + g] <= 1;
}

namespace {

// Clusters (taxon bit-sets) of every non-root node of a stored tree; present taxa out.
void tree_clusters(const std::int32_t* tree, int ntax, std::vector<std::vector<std::uint64_t>>& clusters,
                   std::vector<std::uint64_t>& present) {
  const int words = (ntax + 63) / 64;
  const int end = std::max(tree[ntax], ntax + 1);
  std::vector<std::vector<std::uint64_t>> sets(end, std::vector<std::uint64_t>(words, 0));
  present.assign(words, 0);
  for (int v = 0; v < ntax; ++v) {
    if (tree[v] < ntax || tree[v] >= end) continue;
    if (v < static_cast<int>(dataset.taxon_active.size()) && !dataset.taxon_active[v]) continue;
    present[v / 64] |= 1ull << (v % 64);
    // Climb to the root, adding the taxon to every ancestor.
    for (int a = v, guard = 0; a != ntax && guard <= end; a = tree[a], ++guard) {
      sets[a][v / 64] |= 1ull << (v % 64);
      if (tree[a] < ntax || tree[a] >= end) break;
    }
  }
  clusters.clear();
  for (int v = 0; v < end; ++v)
    if (v != ntax) clusters.push_back(sets[v]);
}

int count_violations(const std::int32_t* tree, int ntax, std::vector<std::uint8_t>* which) {
  std::vector<std::vector<std::uint64_t>> clusters;
  std::vector<std::uint64_t> present;
  tree_clusters(tree, ntax, clusters, present);
  const int words = static_cast<int>(present.size());
  auto sides = [&](const ConstraintGroup& g, std::vector<std::uint64_t>& in, std::vector<std::uint64_t>& out) {
    in.assign(words, 0);
    out.assign(words, 0);
    for (int t = 0; t < ntax && t < static_cast<int>(g.field.size()); ++t) {
      if (!(present[t / 64] >> (t % 64) & 1)) continue;
      if (g.field[t] == field_inside) in[t / 64] |= 1ull << (t % 64);
      else if (g.field[t] == field_outside) out[t / 64] |= 1ull << (t % 64);
    }
  };
  std::vector<std::uint64_t> in, out;
  int bad = 0;
  const auto& d = constraint_defs;
  if (which) which->assign(d.positive.size() + d.negative.size(), 0);
  // A group whose present taxa are all firm is kept exactly when its inside or its outside
  // is a cluster of the tree: a look-up instead of a scan of every cluster.
  auto row_hash = [](const std::vector<std::uint64_t>& bits) {
    std::uint64_t h = 1469598103934665603ull;
    for (auto w : bits) h = (h ^ w) * 1099511628211ull;
    return h;
  };
  std::unordered_multimap<std::uint64_t, std::size_t> by_hash;
  by_hash.reserve(clusters.size());
  for (std::size_t c = 0; c < clusters.size(); ++c) by_hash.emplace(row_hash(clusters[c]), c);
  auto is_cluster = [&](const std::vector<std::uint64_t>& bits) {
    const auto range = by_hash.equal_range(row_hash(bits));
    for (auto it = range.first; it != range.second; ++it)
      if (clusters[it->second] == bits) return true;
    return false;
  };
  auto all_firm = [&] {
    for (int w = 0; w < words; ++w)
      if ((in[w] | out[w]) != present[w]) return false;
    return true;
  };
  auto kept = [&] {
    int nin = 0, nout = 0;
    for (int w = 0; w < words; ++w) { nin += std::popcount(in[w]); nout += std::popcount(out[w]); }
    if (nin <= 1 || nout <= 1) return true;
    if (all_firm()) return is_cluster(in) || is_cluster(out);
    return group_is_split(clusters, in, out);
  };
  for (std::size_t g = 0; g < d.positive.size(); ++g) {
    sides(d.positive[g], in, out);
    if (!kept()) {
      ++bad;
      if (which) (*which)[g] = 1;
    }
  }
  for (std::size_t g = 0; g < d.negative.size(); ++g) {
    sides(d.negative[g], in, out);
    // Only a complete, non-trivial negative group can be broken or kept.
    bool complete = true;
    const auto& f = d.negative[g].field;
    for (int t = 0; t < ntax && t < static_cast<int>(f.size()); ++t)
      if (f[t] != field_floating && !(t < static_cast<int>(dataset.taxon_active.size()) && !dataset.taxon_active[t]) &&
          !(present[t / 64] >> (t % 64) & 1))
        complete = false;
    if (!complete || trivial_group(d.negative[g])) continue;
    if (kept()) {
      ++bad;
      if (which) (*which)[d.positive.size() + g] = 1;
    }
  }
  return bad;
}

}  // namespace

int tree_violations(const std::int32_t* tree, int ntax) { return count_violations(tree, ntax, nullptr); }

// Per group (positive first, then negative): 1 when the tree violates it.
int tree_violations_by_group(const std::int32_t* tree, int ntax, std::vector<std::uint8_t>& which) {
  return count_violations(tree, ntax, &which);
}

}  // namespace qax::search
