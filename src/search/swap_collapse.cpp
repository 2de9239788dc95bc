// Collapsing by swapping: a branch of a binary tree goes when some SPR (or TBR) move to a
// tree of the same score removes its group. The tree is loaded into an engine of its own
// (a search may be using the shared one, as when a driver asks for a consensus), every clip
// is evaluated with its equal-score moves recorded, and each such move is made on the
// topology, its groups compared with the tree's, and undone.
#include <algorithm>
#include <cstdint>
#include <unordered_set>
#include <vector>

#include "dataset/dataset.h"
#include "optim/collapse.h"
#include "optim/packed.h"
#include "search/engine.h"
#include "search/settings.h"
#include "search/swap_collapse.h"
#include "shell/failure.h"
#include "shell/output.h"

namespace qax::search {

using optim::packed;

namespace {

using Bits = std::vector<std::uint64_t>;

struct BitsHash {
  std::size_t operator()(const Bits& b) const noexcept {
    std::uint64_t h = 0x9E3779B97F4A7C15ull;
    for (std::uint64_t w : b) h = (h ^ w) * 0x100000001B3ull;
    return static_cast<std::size_t>(h ^ (h >> 29));
  }
};

// The group of each node as a bipartition of the terminals, stated by the side without
// terminal 0, so that it doesn't depend on where the tree is rooted.
void normalise(Bits& b, int nt) {
  if (!(b[0] & 1)) return;
  for (auto& w : b) w = ~w;
  const int rest = nt % 64;
  if (rest) b.back() &= (1ull << rest) - 1;
}

// Groups of the engine's tree with at least two terminals on each side.
void engine_groups(const Engine& e, std::vector<Bits>& below, std::unordered_set<Bits, BitsHash>* set) {
  const int words = (e.nt + 63) / 64;
  below.assign(e.nn, Bits(words, 0));
  std::vector<int> order{e.nt};
  for (std::size_t i = 0; i < order.size(); ++i) {
    const int n = order[i];
    if (n >= e.nt) {
      order.push_back(e.left[n]);
      order.push_back(e.right[n]);
    }
  }
  for (auto it = order.rbegin(); it != order.rend(); ++it) {
    const int n = *it;
    if (n < e.nt) {
      below[n][n / 64] |= 1ull << (n % 64);
      continue;
    }
    for (int w = 0; w < words; ++w) below[n][w] = below[e.left[n]][w] | below[e.right[n]][w];
  }
  if (!set) return;
  set->clear();
  for (int n = e.nt + 1; n < e.nn; ++n) {
    if (e.anc[n] < 0) continue;
    Bits b = below[n];
    normalise(b, e.nt);
    set->insert(std::move(b));
  }
}

}  // namespace

bool swap_collapse(const std::int32_t* tree, bool tbr, std::vector<std::uint8_t>& gone) {
  const int ntax = dataset::dataset.ntax;
  const int end = std::max(tree[ntax], ntax + 1);
  gone.assign(std::max(end, 2 * ntax - 1), 0);
  static Engine e;
  if (e.nt != packed.nterm || e.W != packed.nwords || e.nn == 0) e.init();
  if (e.nt < 4) return false;
  std::vector<std::int32_t> parent(tree, tree + 2 * ntax - 1);
  if (!e.load(parent)) return false;
  e.limit = 0;
  e.compute_all();
  // Constraints and perturbations of a running search don't apply to this tree.
  const CandidateTestFn saved_allows = constraint_allows;
  constraint_allows = nullptr;
  struct Restore {
    CandidateTestFn f;
    ~Restore() { constraint_allows = f; }
  } restore{saved_allows};
  std::vector<Bits> below;
  engine_groups(e, below, nullptr);
  std::vector<Bits> own;   // the tree's groups, normalised
  for (int n = e.nt + 1; n < e.nn; ++n) {
    if (e.anc[n] < 0) continue;
    Bits b = below[n];
    normalise(b, e.nt);
    own.push_back(std::move(b));
  }
  std::unordered_set<Bits, BitsHash> removed, now;
  std::vector<Move> records;
  std::vector<int> keep_anc = e.anc, keep_left = e.left, keep_right = e.right;
  std::vector<Bits> scratch;
  Move best;
  std::uint64_t examined = 0;
  for (int n = 0; n < e.nn && removed.size() < own.size(); ++n) {
    // Big trees with many equal-score moves take long: ESC (or a stop file) ends the
    // command rather than leave a partial verdict.
    if ((n & 7) == 7 && shell::check_interrupt(1)) shell::error_exit("Collapsing by swapping interrupted");
    records.clear();
    const std::int32_t base = e.evaluate_clip(n, tbr, true, 0, best, records, examined);
    if (base < 0) continue;
    for (const Move& m : records) {
      if (m.cost != base) continue;
      e.apply_move(m);
      engine_groups(e, scratch, &now);
      for (const Bits& g : own)
        if (!now.count(g)) removed.insert(g);
      if (removed.size() == own.size()) break;
      e.anc = keep_anc;
      e.left = keep_left;
      e.right = keep_right;
    }
  }
  if (removed.empty()) return true;
  // Each inner node of the stored tree by the packed terminals below it.
  const int words = (e.nt + 63) / 64;
  std::vector<Bits> at(end, Bits(words, 0));
  for (int t = 0; t < ntax; ++t) {
    const int k = t < static_cast<int>(packed.to_packed.size()) ? packed.to_packed[t] : -1;
    if (k < 0 || k >= e.nt) continue;
    for (int a = tree[t], guard = 0; a >= ntax && a < end && guard <= end; a = tree[a], ++guard) {
      at[a][k / 64] |= 1ull << (k % 64);
      if (a == ntax) break;
    }
  }
  for (int v = ntax + 1; v < end; ++v) {
    normalise(at[v], e.nt);
    if (removed.count(at[v])) gone[v] = 1;
  }
  return true;
}

}  // namespace qax::search
