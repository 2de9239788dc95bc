// Node sets, the group table and the tree builder shared by every consensus.
#include "support/group_set.h"

#include <algorithm>
#include <bit>
#include <cstring>

#include "trees/store.h"

namespace qax::support {

void node_sets_init(NodeSets& ns, int ntax) {
  ns.ntax = ntax;
  ns.words = set_words(ntax);
  ns.stride = ns.words + 1;
  const std::size_t n = 2 * static_cast<std::size_t>(ntax) - 1;
  ns.rows.assign(n * ns.stride, 0);
  ns.sizes.assign(n, 0);
  ns.order.assign(n, 0);
  ns.firstdes.assign(n, -1);
  ns.sister.assign(n, -1);
}

int compute_node_sets(const std::int32_t* tree, const std::uint8_t* excluded, NodeSets& ns) {
  const int ntax = ns.ntax, stride = ns.stride, words = ns.words;
  const int end = tree[ntax];  // last node + 1
  std::int32_t* __restrict firstdes = ns.firstdes.data();
  std::int32_t* __restrict sister = ns.sister.data();
  for (int v = 0; v < end; ++v) firstdes[v] = -1;
  // Child lists, terminals and internal nodes alike (absent terminals skipped).
  for (int v = end - 1; v >= 0; --v) {
    if (v == ntax) continue;
    const int p = tree[v];
    if (p < ntax || p >= end) continue;  // absent terminal (cell 0) or damaged cell
    sister[v] = firstdes[p];
    firstdes[p] = v;
  }
  // Breadth-first order from the root; walked backwards it is a post-order.
  std::int32_t* __restrict order = ns.order.data();
  int head = 0, tail = 0;
  order[tail++] = ntax;
  while (head < tail) {
    const int v = order[head++];
    for (int c = firstdes[v]; c >= 0; c = sister[c]) order[tail++] = c;
  }
  std::uint64_t* __restrict rows = ns.rows.data();
  std::int32_t* __restrict sizes = ns.sizes.data();
  for (int i = tail - 1; i >= 0; --i) {
    const int v = order[i];
    std::uint64_t* r = rows + static_cast<std::size_t>(v) * stride;
    if (v < ntax) {
      std::memset(r, 0, sizeof(std::uint64_t) * stride);
      if (excluded && excluded[v]) {
        sizes[v] = 0;
      } else {
        r[v / 64] = std::uint64_t{1} << (v % 64);
        r[words] = r[v / 64];
        sizes[v] = 1;
      }
      continue;
    }
    // Internal node: OR of its children (children come later in breadth-first order,
    // so they are done).
    std::memset(r, 0, sizeof(std::uint64_t) * stride);
    int size = 0;
    for (int c = firstdes[v]; c >= 0; c = sister[c]) {
      const std::uint64_t* cr = rows + static_cast<std::size_t>(c) * stride;
      for (int w = 0; w < words; ++w) r[w] |= cr[w];
      size += sizes[c];
    }
    std::uint64_t x = 0;
    for (int w = 0; w < words; ++w) x ^= r[w];
    r[words] = x;
    sizes[v] = size;
  }
  return tail;
}

void group_table_init(GroupTable& t, int ntax) {
  t.ntax = ntax;
  t.words = set_words(ntax);
  t.stride = t.words + 1;
  const std::size_t room = 2 * (2 * static_cast<std::size_t>(ntax) - 1);
  t.sets.clear();
  t.sets.reserve(room * t.stride);
  t.entries.clear();
  t.entries.reserve(room);
  std::size_t slots = 16;
  while (slots < 2 * room) slots *= 2;
  t.slots.assign(slots, -1);
  t.segment_ends.clear();
}

// Multiply-rotate over the words; the XOR word alone would make {a,b} and {c,d} with
// a^b == c^d collide, which is common for groups that differ in two words.
std::uint64_t set_hash(const std::uint64_t* set, int words) noexcept {
  std::uint64_t h = 0x9E3779B97F4A7C15ull;
  for (int w = 0; w < words; ++w) {
    h ^= set[w] + 0x632BE59BD9B4E019ull * static_cast<std::uint64_t>(w + 1);
    h *= 0xBF58476D1CE4E5B9ull;
    h = std::rotl(h, 29);
  }
  h ^= h >> 31;
  return h ? h : 1;
}

int group_find(const GroupTable& t, const std::uint64_t* set, int size, std::uint64_t hash) noexcept {
  const std::size_t mask = t.slots.size() - 1;
  const int words = t.words;
  for (std::size_t i = hash & mask;; i = (i + 1) & mask) {
    const int g = t.slots[i];
    if (g < 0) return -1;
    const GroupEntry& e = t.entries[g];
    if (e.hash != hash || e.size != size) continue;
    const std::uint64_t* s = t.set(g);
    if (s[words] != set[words]) continue;
    int w = words - 1;
    while (w >= 0 && s[w] == set[w]) --w;  // from the last word down
    if (w < 0) return g;
  }
}

static void rehash(GroupTable& t, std::size_t nslots) {
  t.slots.assign(nslots, -1);
  const std::size_t mask = nslots - 1;
  for (int g = 0; g < t.ngroups(); ++g) {
    std::size_t i = t.entries[g].hash & mask;
    while (t.slots[i] >= 0) i = (i + 1) & mask;
    t.slots[i] = g;
  }
}

int group_add(GroupTable& t, const std::uint64_t* set, int size, std::uint64_t hash, int count, int stamp) {
  const int g = t.ngroups();
  if (2 * static_cast<std::size_t>(g + 1) > t.slots.size()) rehash(t, t.slots.size() * 2);
  t.sets.insert(t.sets.end(), set, set + t.stride);
  GroupEntry e;
  e.size = size;
  e.count = count;
  e.stamp = stamp;
  e.hash = hash;
  int first = 0, last = t.words - 1;
  while (first < t.words - 1 && set[first] == 0) ++first;
  while (last > first && set[last] == 0) --last;
  e.first = first;
  e.last = last;
  t.entries.push_back(e);
  const std::size_t mask = t.slots.size() - 1;
  std::size_t i = hash & mask;
  while (t.slots[i] >= 0) i = (i + 1) & mask;
  t.slots[i] = g;
  return g;
}

int count_tree_groups(GroupTable& t, NodeSets& ns, const std::int32_t* tree, const std::uint8_t* excluded,
                      int included, int tree_stamp, bool may_enter, int weight, int target) {
  const int ntax = ns.ntax;
  const int end = tree[ntax];
  compute_node_sets(tree, excluded, ns);
  int reached = 0;
  for (int v = ntax + 1; v < end; ++v) {
    const int size = ns.sizes[v];
    if (size < 2 || size >= included) continue;
    const std::uint64_t* r = ns.row(v);
    const std::uint64_t h = set_hash(r, ns.words);
    int g = group_find(t, r, size, h);
    if (g >= 0) {
      GroupEntry& e = t.entries[g];
      if (e.stamp == tree_stamp) continue;  // same group twice in one tree (exclusions)
      e.stamp = tree_stamp;
      e.count += weight;
      if (e.count == target) ++reached;
    } else if (may_enter) {
      group_add(t, r, size, h, weight, tree_stamp);
      if (weight == target) ++reached;
    }
  }
  return reached;
}

// Example, 8 taxa in one word: a = 0b00001111, b = 0b00111100: both 0b00001100,
// a only 0b00000011, b only 0b00110000: conflict. With b = 0b00000011 there is
// nothing in b only: b is inside a, compatible.
bool groups_conflict(const GroupTable& t, int a, int b) noexcept {
  const GroupEntry& ea = t.entries[a];
  const GroupEntry& eb = t.entries[b];
  const int lo = std::max(ea.first, eb.first), hi = std::min(ea.last, eb.last);
  if (lo > hi) return false;  // no word in common: disjoint
  // Words of either group outside the common range are terminals of that group only.
  bool a_only = ea.first < lo || ea.last > hi;
  bool b_only = eb.first < lo || eb.last > hi;
  bool both = false;
  const std::uint64_t* sa = t.set(a);
  const std::uint64_t* sb = t.set(b);
  for (int w = lo; w <= hi; ++w) {
    const std::uint64_t x = sa[w], y = sb[w];
    both |= (x & y) != 0;
    a_only |= (x & ~y) != 0;
    b_only |= (y & ~x) != 0;
    if (both && a_only && b_only) return true;
  }
  return both && a_only && b_only;
}

int build_tree_from_groups(const GroupTable& t, const std::uint8_t* excluded, int required,
                           bool prune_excluded, std::int32_t* tree, std::vector<int>* node_group,
                           const std::vector<std::uint8_t>* keep) {
  const int ntax = t.ntax;
  const int n = 2 * ntax - 1;
  int included = 0;
  for (int i = 0; i < ntax; ++i) included += !(excluded && excluded[i]);
  std::vector<int> chosen;
  for (int g = 0; g < t.ngroups(); ++g) {
    const GroupEntry& e = t.entries[g];
    if (e.size < 2 || e.size >= included) continue;
    if (keep ? !(*keep)[g] : e.count < required) continue;
    chosen.push_back(g);
  }
  // Larger groups first: each new group then hangs all its terminals from the smallest
  // group made so far that contains it, which is where its first terminal hangs.
  std::stable_sort(chosen.begin(), chosen.end(),
                   [&](int a, int b) { return t.entries[a].size > t.entries[b].size; });
  std::vector<std::string> origin(n);
  for (int v = 0; v < n; ++v) tree[v] = 0;
  for (int i = 0; i < ntax; ++i) tree[i] = (prune_excluded && excluded && excluded[i]) ? 0 : ntax;
  int next = ntax + 1;
  for (int g : chosen) {
    const std::uint64_t* s = t.set(g);
    const int node = next++;
    const int first = t.entries[g].first * 64 + std::countr_zero(s[t.entries[g].first]);
    tree[node] = tree[first];
    origin[node] = std::to_string(g);
    for (int w = t.entries[g].first; w <= t.entries[g].last; ++w)
      for (std::uint64_t x = s[w]; x; x &= x - 1) tree[w * 64 + std::countr_zero(x)] = node;
  }
  tree[ntax] = next;
  qax::trees::reset_node_numbers(tree, ntax, &origin);
  if (node_group) {
    node_group->assign(n, -1);
    for (int v = ntax + 1; v < tree[ntax]; ++v)
      if (!origin[v].empty()) (*node_group)[v] = std::stoi(origin[v]);
  }
  return static_cast<int>(chosen.size());
}

}  // namespace qax::support
