// The tree store's rows, groups and duplicate buckets, and the operations on one
// parent array (canonical numbering, derived links, rerooting, pruning, hashing).
#include "trees/store.h"

#include <algorithm>
#include <cstring>

#include "dataset/dataset.h"
#include "shell/arena.h"
#include "shell/failure.h"
#include "shell/output.h"

namespace qax::trees {

using namespace qax::shell;

TreeStore tree_store;
DisplaySettings display_settings;

namespace {

void refresh_entry_pointers() {
  auto& s = tree_store;
  s.entries.resize(s.maxtrees);
  for (int k = 0; k < s.maxtrees; ++k) s.entries[k].tree = tree_row(k);
}

void size_groups() {
  auto& s = tree_store;
  s.group_words = (s.group_capacity + 31) / 32;
  s.group_names.assign(s.group_capacity, std::string());
  s.group_defined.assign(s.group_capacity, 0);
}

}  // namespace

void require_data() {
  if (!qax::dataset::dataset.loaded) error_exit("Must read data first");
  if (tree_store.ntax != qax::dataset::dataset.ntax) tree_store_reset_for(qax::dataset::dataset.ntax);
}

void tree_store_clear() {
  int groups = tree_store.group_capacity;
  DisplaySettings keep_display = display_settings;
  tree_store = TreeStore();
  tree_store.group_capacity = groups;
  size_groups();
  display_settings = keep_display;
}

void tree_store_reset_for(int ntax) {
  auto& s = tree_store;
  int groups = s.group_capacity;
  int absincl = s.absincl, tag_add = s.tag_add, tag_separator = s.tag_separator;
  s = TreeStore();
  s.group_capacity = groups;
  s.absincl = absincl;
  s.tag_add = tag_add;
  s.tag_separator = tag_separator;
  size_groups();
  s.ntax = ntax;
  s.row_size = ntax > 0 ? 2 * ntax - 1 : 0;
  s.maxtrees = s.user_maxtrees = default_maxtrees;
  s.rows.assign(static_cast<std::size_t>(s.maxtrees) * s.row_size, 0);
  s.scores.assign(s.maxtrees, 0.0);
  s.group_bits.assign(static_cast<std::size_t>(s.maxtrees) * s.group_words, 0);
  refresh_entry_pointers();
  tree_buckets_clear();
}

bool tree_space_resize(int new_size, bool verbose) {
  auto& s = tree_store;
  if (s.vault_set) {
    if (verbose) error_exit("Cannot increase tree-space when tree-vault is set");
    return false;
  }
  if (new_size < 1) new_size = 1;
  if (verbose && new_size == s.maxtrees) {
    out_line({"Space for", number_text(s.maxtrees), "trees in memory"});
    s.user_maxtrees = new_size;
    return true;
  }
  if (new_size > s.maxtrees) {
    // Estimate as the rows, per-tree tables and group bits would take in the arena.
    std::uint64_t k = static_cast<std::uint64_t>(new_size - s.maxtrees + 1);
    std::uint64_t n = static_cast<std::uint64_t>(s.ntrees);
    std::uint64_t w = static_cast<std::uint64_t>(s.group_words);
    std::uint64_t bytes = 4 * (n * (w + 2) + k + (w + 16) * k + k * static_cast<std::uint64_t>(s.row_size));
    bytes += 40ull * static_cast<std::uint64_t>(s.row_size) + 80;
    std::size_t free_bytes = ram_free_bytes();
    bool arena_up = ram_in_use() > 0 || free_bytes > 0;
    if (new_size > 100000000 || (arena_up && bytes >= free_bytes)) {
      if (verbose) error_exit({"Cannot make tree space for", number_text(new_size)});
      return false;
    }
  }
  if (s.ntrees > new_size) s.ntrees = new_size;
  s.maxtrees = new_size;
  s.user_maxtrees = new_size;
  s.rows.resize(static_cast<std::size_t>(new_size) * s.row_size, 0);
  s.scores.resize(new_size, 0.0);
  s.group_bits.resize(static_cast<std::size_t>(new_size) * s.group_words, 0);
  refresh_entry_pointers();
  tree_buckets_clear();
  if (verbose) out_line({"Space for", number_text(s.maxtrees), "trees in memory"});
  return true;
}

int tree_store_add(int group, bool may_grow) {
  auto& s = tree_store;
  if (s.ntrees >= s.maxtrees) {
    if (!may_grow) error_exit("No space to store new trees (increase maxtrees)");
    int grown = s.maxtrees / 10 * 10 + 10;
    char text[128];
    std::snprintf(text, sizeof text, "To store a new tree, maxtrees will be increased to %i", grown);
    warning({text});
    if (!tree_space_resize(grown, false)) error_exit("No space to store new trees (increase maxtrees)");
  }
  int k = s.ntrees++;
  std::fill_n(tree_group_row(k), s.group_words, 0u);
  if (group >= 0) group_set_bit(k, group);
  s.scores[k] = 0;
  s.trees_changed = 1;
  return k;
}

int tree_store_append(const std::int32_t* tree, int group, double score) {
  auto& s = tree_store;
  if (s.ntrees >= s.maxtrees) {
    if (!tree_space_resize(s.maxtrees + 100, false)) error_exit("Tree buffer is full");
  }
  int k = tree_store_add(group, false);
  std::memcpy(tree_row(k), tree, sizeof(std::int32_t) * s.row_size);
  reset_node_numbers(tree_row(k), s.ntax);
  s.scores[k] = score;
  return k;
}

void tree_store_compact(const std::vector<std::uint8_t>& keep) {
  auto& s = tree_store;
  int to = 0;
  for (int k = 0; k < s.ntrees; ++k) {
    if (!keep[k]) continue;
    if (to != k) {
      std::memcpy(tree_row(to), tree_row(k), sizeof(std::int32_t) * s.row_size);
      std::memcpy(tree_group_row(to), tree_group_row(k), sizeof(std::uint32_t) * s.group_words);
      s.scores[to] = s.scores[k];
    }
    ++to;
  }
  s.ntrees = to;
  s.trees_changed = 1;
}

void group_set_bit(int tree, int group) {
  tree_group_row(tree)[group / 32] |= 1u << (group % 32);
}

// --- One parent array ------------------------------------------------------------

// Example with ntax 4, tree ((0 2)(1 3)) numbered as read: cells 0..6 =
// {5, 6, 5, 6, 7, 4, 4}. Walking terminals from 0: 0 climbs to 5 (gets 5), 1 climbs
// to 6 (gets 6); the numbering is already canonical, root cell 7.
void reset_node_numbers(std::int32_t* tree, int ntax, std::vector<std::string>* parallel) {
  if (ntax <= 0) return;
  int n = 2 * ntax - 1;
  thread_local std::vector<std::int32_t> newnum, out;
  newnum.assign(n, -1);
  out.assign(n, 0);
  newnum[ntax] = ntax;
  int next = ntax + 1;
  for (int t = 0; t < ntax; ++t) {
    int a = tree[t];
    if (a < ntax || a >= n) continue;
    int guard = 0;
    while (a != ntax && newnum[a] < 0 && guard++ < n) {
      newnum[a] = next++;
      a = tree[a];
      if (a < ntax || a >= n) break;
    }
  }
  for (int t = 0; t < ntax; ++t) {
    int a = tree[t];
    out[t] = (a >= ntax && a < n && newnum[a] >= 0) ? newnum[a] : 0;
  }
  for (int v = ntax + 1; v < n; ++v) {
    if (newnum[v] < 0) continue;
    int a = tree[v];
    out[newnum[v]] = (a >= ntax && a < n && newnum[a] >= 0) ? newnum[a] : ntax;
  }
  out[ntax] = next;
  if (parallel && static_cast<int>(parallel->size()) >= n) {
    std::vector<std::string> moved(n);
    for (int t = 0; t < ntax; ++t) moved[t] = std::move((*parallel)[t]);
    for (int v = ntax; v < n; ++v)
      if (newnum[v] >= 0) moved[newnum[v]] = std::move((*parallel)[v]);
    *parallel = std::move(moved);
  }
  std::memcpy(tree, out.data(), sizeof(std::int32_t) * n);
}

bool trees_equal(const std::int32_t* a, const std::int32_t* b, int ntax) noexcept {
  if (a[ntax] != b[ntax]) return false;
  for (int i = a[ntax] - 1; i >= 0; --i)
    if (a[i] != b[i]) return false;
  return true;
}

int tree_terminal_count(const std::int32_t* tree, int ntax) noexcept {
  int n = 0;
  for (int t = 0; t < ntax; ++t) n += tree[t] >= ntax;
  return n;
}

void build_tree_links(const std::int32_t* tree, int ntax, TreeLinks& links) {
  int n = 2 * ntax - 1;
  links.firstdes.assign(n, -1);
  links.sister.assign(n, -1);
  links.ntips.assign(n, 0);
  links.nchildren.assign(n, 0);
  std::vector<int> last(n, -1);
  std::vector<std::uint8_t> listed(n, 0);
  listed[ntax] = 1;
  int top = std::min(tree[ntax], n);
  for (int t = ntax - 1; t >= 0; --t) {
    if (tree[t] < ntax) continue;
    int v = t;
    while (!listed[v]) {
      listed[v] = 1;
      int a = tree[v];
      if (last[a] < 0) links.firstdes[a] = v;
      else links.sister[last[a]] = v;
      last[a] = v;
      ++links.nchildren[a];
      v = a;
    }
  }
  // Terminal counts in one pass: children have higher or lower numbers, so sum along
  // a post-order built with an explicit stack (pectinate trees stay linear).
  std::vector<int> order;
  order.reserve(n);
  std::vector<int> stack{ntax};
  while (!stack.empty()) {
    int v = stack.back();
    stack.pop_back();
    order.push_back(v);
    for (int c = v < ntax ? -1 : links.firstdes[v]; c >= 0; c = links.sister[c]) stack.push_back(c);
  }
  for (int i = static_cast<int>(order.size()) - 1; i >= 0; --i) {
    int v = order[i];
    if (v < ntax) links.ntips[v] = 1;
    if (v != ntax) links.ntips[tree[v]] += links.ntips[v];
  }
  (void)top;
}

bool tree_is_valid(const std::int32_t* tree, int ntax) {
  int n = 2 * ntax - 1;
  int end = tree[ntax];
  if (end < ntax + 1 || end > n) return false;
  std::vector<int> kids(n, 0);
  int present = 0;
  for (int t = 0; t < ntax; ++t) {
    if (tree[t] == 0) continue;
    if (tree[t] < ntax || tree[t] >= end) return false;
    ++kids[tree[t]];
    ++present;
  }
  for (int v = ntax + 1; v < end; ++v) {
    if (tree[v] < ntax || tree[v] >= end || tree[v] == v) return false;
    ++kids[tree[v]];
  }
  if (present == 0) return false;
  for (int v = ntax; v < end; ++v)
    if (kids[v] < (present == 1 ? 1 : 2)) return false;
  // Every node must reach the root (no cycles).
  for (int v = ntax + 1; v < end; ++v) {
    int a = v, steps = 0;
    while (a != ntax && steps++ <= n) a = tree[a];
    if (a != ntax) return false;
  }
  return true;
}

// --- Duplicate buckets --------------------------------------------------------------

// Example: ntax 4, no collapsing, tree {5,6,5,6,7,4,4}. Terminal 0 climbs to 5 (label
// 5); terminal 1 to 6 (label 6); the XOR over nodes 0..3,5,6 of their ancestors is
// 5^6^5^6^4^4 = 0, so the bucket is 0.
int tree_hash(std::int32_t* tree, int ntax, const std::uint8_t* collapsed) {
  int n = 2 * ntax - 1;
  int root = ntax;
  thread_local std::vector<std::int32_t> lab, out;
  lab.assign(n, -1);
  out.assign(n, 0);
  lab[root] = root;
  int bottom = root + 1, top = 2 * root - 2;
  for (int t = 0; t < ntax; ++t) {
    int a = tree[t];
    if (a < ntax) continue;
    while (a != root && lab[a] < 0) {
      lab[a] = (collapsed && collapsed[a]) ? top-- : bottom++;
      a = tree[a];
    }
  }
  const std::uint32_t flag = 0x80000000u;
  auto label_of = [&](int v) -> std::int32_t {
    std::uint32_t l = static_cast<std::uint32_t>(lab[v]);
    if (v != root && collapsed && collapsed[v]) l |= flag;
    return static_cast<std::int32_t>(l);
  };
  for (int t = 0; t < ntax; ++t) out[t] = tree[t] >= ntax ? label_of(tree[t]) : 0;
  for (int v = ntax + 1; v < n; ++v)
    if (lab[v] >= 0) out[lab[v]] = label_of(tree[v]);
  out[root] = bottom;  // total of surviving nodes
  std::uint32_t x = 0;
  auto first_surviving = [&](std::int32_t cell) {
    std::uint32_t c = static_cast<std::uint32_t>(cell);
    int guard = 0;
    while ((c & flag) && guard++ < n) c = static_cast<std::uint32_t>(out[c & ~flag]);
    return c & ~flag;
  };
  for (int t = 0; t < ntax; ++t)
    if (tree[t] >= ntax) x ^= first_surviving(out[t]);
  for (int v = root + 1; v < bottom; ++v) x ^= first_surviving(out[v]);
  std::memcpy(tree, out.data(), sizeof(std::int32_t) * n);
  return static_cast<int>(((x >> 8) ^ x) & 127u);
}

bool trees_equal_collapsed(const std::int32_t* a, const std::int32_t* b, int ntax) noexcept {
  const std::uint32_t flag = 0x80000000u;
  int n = 2 * ntax - 1;
  if (a[ntax] != b[ntax]) return false;
  bool any = false;
  for (int i = 0; i < n; ++i)
    if ((static_cast<std::uint32_t>(a[i]) | static_cast<std::uint32_t>(b[i])) & flag) { any = true; break; }
  if (!any) {
    for (int i = n - 1; i >= 0; --i)
      if (a[i] != b[i]) return false;
    return true;
  }
  auto resolve = [&](const std::int32_t* t, int i) {
    std::uint32_t c = static_cast<std::uint32_t>(t[i]);
    int guard = 0;
    while ((c & flag) && guard++ < n) c = static_cast<std::uint32_t>(t[c & ~flag]);
    return c & ~flag;
  };
  for (int i = 0; i < n; ++i) {
    if (i == ntax) continue;
    bool ca = i >= ntax && i > a[ntax] - 1;
    bool cb = i >= ntax && i > b[ntax] - 1;
    if (ca != cb) return false;
    if (ca) continue;  // collapsed labels in both: compared through their descendants
    if (resolve(a, i) != resolve(b, i)) return false;
  }
  return true;
}

void tree_buckets_clear() {
  for (auto& b : tree_store.buckets) b = TreeBucket();
}

void tree_bucket_enter(int index, int bucket, double score) {
  auto& s = tree_store;
  TreeEntry& e = s.entries[index];
  e.tree = tree_row(index);
  e.score = score;
  e.bucket = bucket;
  e.prev = -1;
  e.next = s.buckets[bucket].next;
  if (e.next >= 0) s.entries[e.next].prev = index;
  s.buckets[bucket].next = index;
  s.buckets[bucket].score = score;
  s.buckets[bucket].tree = e.tree;
  s.scores[index] = score;
}

int tree_bucket_find(const std::int32_t* hashed, int bucket, double score, bool any_score) {
  auto& s = tree_store;
  for (int k = s.buckets[bucket].next; k >= 0; k = s.entries[k].next) {
    const TreeEntry& e = s.entries[k];
    if (any_score) {
      if (e.score > score + score_tolerance) continue;
    } else if (e.score != score) {
      continue;
    }
    if (trees_equal_collapsed(e.tree, hashed, s.ntax)) return k;
  }
  return -1;
}

// --- Rerooting and pruning -------------------------------------------------------

std::vector<std::uint64_t> terminal_bits(const std::int32_t* tree, int ntax, int words,
                                         const std::vector<std::uint8_t>* include) {
  std::vector<std::uint64_t> bits(static_cast<std::size_t>(2 * ntax - 1) * words, 0);
  for (int t = 0; t < ntax; ++t) {
    if (include ? !(*include)[t] : !terminal_present(tree, t, ntax)) continue;
    const std::uint64_t bit = 1ull << (t % 64);
    bits[static_cast<std::size_t>(t) * words + t / 64] |= bit;
    for (int a = tree[t];; a = tree[a]) {
      bits[static_cast<std::size_t>(a) * words + t / 64] |= bit;
      if (a == ntax) break;
    }
  }
  return bits;
}

bool tree_reroot(std::int32_t* tree, int ntax, int x) {
  int end = tree[ntax];
  if (x < 0 || x >= end || x == ntax) return false;
  if (x < ntax && tree[x] < ntax) return false;
  if (tree[x] == ntax) return true;
  // Make the root dichotomous: all children but one go under a new node.
  int kids = 0;
  for (int v = 0; v < end && kids < 3; ++v)
    if (v != ntax && tree[v] == ntax && (v >= ntax || tree[v] >= ntax)) ++kids;
  if (kids >= 3) {
    int nn = end, seen = 0;
    for (int v = end - 1; v >= 0; --v) {
      if (v == ntax || tree[v] != ntax) continue;
      if (++seen != 3) tree[v] = nn;
    }
    tree[nn] = ntax;
    tree[ntax] = end + 1;
    if (tree[x] == ntax) {
      reset_node_numbers(tree, ntax);
      return true;
    }
  }
  int a = tree[x];
  // Path a -> ... -> top (child of the root); reverse it.
  int prev = a, cur = tree[a];
  if (cur != ntax) {
    int top = a;
    while (tree[top] != ntax) top = tree[top];
    // Other child of the root moves under top.
    for (int v = 0; v < tree[ntax]; ++v)
      if (v != ntax && v != top && tree[v] == ntax) tree[v] = top;
    while (cur != ntax) {
      int up = tree[cur];
      tree[cur] = prev;
      prev = cur;
      cur = up;
    }
  } else {
    for (int v = 0; v < tree[ntax]; ++v)
      if (v != ntax && v != a && tree[v] == ntax) tree[v] = a;
  }
  tree[x] = ntax;
  tree[a] = ntax;
  reset_node_numbers(tree, ntax);
  return true;
}

bool tree_reroot_resolve(std::int32_t* tree, int ntax, int x) {
  if (!tree_reroot(tree, ntax, x)) return false;
  int end = tree[ntax];
  int kids = 0;
  for (int v = 0; v < end; ++v)
    if (v != ntax && tree[v] == ntax) ++kids;
  if (kids < 3) return true;
  // A tree without nodes of degree two always has a free node here.
  if (end >= 2 * ntax - 1) error_exit("Tree has nodes with a single descendant");
  for (int v = 0; v < end; ++v)
    if (v != ntax && v != x && tree[v] == ntax) tree[v] = end;
  tree[end] = ntax;
  tree[ntax] = end + 1;
  reset_node_numbers(tree, ntax);
  return true;
}

void tree_prune(std::int32_t* tree, int ntax, const std::vector<std::uint8_t>& remove) {
  int n = 2 * ntax - 1;
  int left = 0;
  for (int t = 0; t < ntax; ++t)
    if (tree[t] >= ntax && !remove[t]) ++left;
  if (left == 0) error_exit("Cannot delete all terminals from a tree");
  for (int t = 0; t < ntax; ++t)
    if (remove[t]) tree[t] = 0;
  if (left == 1) {
    for (int t = 0; t < ntax; ++t) tree[t] = tree[t] >= ntax ? ntax : 0;
    for (int v = ntax + 1; v < n; ++v) tree[v] = 0;
    tree[ntax] = ntax + 1;
    return;
  }
  TreeLinks links;
  build_tree_links(tree, ntax, links);
  std::vector<int> kids(n, 0);
  for (int v = 0; v < tree[ntax]; ++v)
    if (v != ntax && links.ntips[v] > 0) ++kids[tree[v]];
  int root = ntax;
  while (kids[root] == 1) {
    int c = links.firstdes[root];
    while (links.ntips[c] == 0) c = links.sister[c];
    root = c;
  }
  std::vector<std::int32_t> out(n, 0);
  auto surviving_anc = [&](int v) {
    int a = tree[v];
    while (a != root && kids[a] < 2) a = tree[a];
    return a == root ? ntax : a;
  };
  for (int t = 0; t < ntax; ++t)
    if (tree[t] >= ntax) out[t] = surviving_anc(t);
  for (int v = ntax + 1; v < tree[ntax]; ++v) {
    if (v == root || links.ntips[v] == 0 || kids[v] < 2) continue;
    // Nodes below the new root are not part of the tree.
    int a = v;
    while (a != ntax && a != root) a = tree[a];
    if (a != root) continue;
    out[v] = surviving_anc(v);
  }
  out[ntax] = n;
  if (root != ntax) out[root] = 0;
  std::memcpy(tree, out.data(), sizeof(std::int32_t) * n);
  reset_node_numbers(tree, ntax);
}

// Example: order {0,3,1,2}, no polytomies: start (0 (3 1)); taxon 2 goes on a random
// branch, say that of 1, giving (0 (3 (1 2))).
void random_tree(std::int32_t* tree, int ntax, const std::vector<int>& order, int poly_percent, int maxpoly) {
  int n = 2 * ntax - 1;
  std::fill_n(tree, n, 0);
  int m = static_cast<int>(order.size());
  if (m == 0) { tree[ntax] = ntax + 1; return; }
  if (maxpoly < 3) maxpoly = 3;
  std::vector<int> branches;  // nodes with a branch below them
  std::vector<int> kids(n, 0);
  tree[order[0]] = ntax;
  kids[ntax] = 1;
  branches.push_back(order[0]);
  int next = ntax + 1;
  if (m >= 2) {
    if (m == 2) {
      tree[order[1]] = ntax;
      kids[ntax] = 2;
      branches.push_back(order[1]);
    } else {
      tree[next] = ntax;
      kids[ntax] = 2;
      tree[order[1]] = next;
      tree[order[2]] = next;
      kids[next] = 2;
      branches.push_back(next);
      branches.push_back(order[1]);
      branches.push_back(order[2]);
      ++next;
    }
  }
  for (int i = 3; i < m; ++i) {
    int t = order[i];
    bool placed = false;
    if (poly_percent > 0 && std::rand() % 100 < poly_percent) {
      int b = branches[std::rand() % branches.size()];
      int a = tree[b];
      if (kids[a] + 1 < maxpoly) {
        tree[t] = a;
        ++kids[a];
        placed = true;
      }
    }
    if (!placed) {
      int b = branches[std::rand() % branches.size()];
      int a = tree[b];
      tree[next] = a;
      tree[b] = next;
      tree[t] = next;
      kids[next] = 2;
      branches.push_back(next);
      ++next;
    }
    branches.push_back(t);
  }
  tree[ntax] = next;
  reset_node_numbers(tree, ntax);
}

}  // namespace qax::trees
