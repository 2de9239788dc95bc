// Fits of rearrangements from the sets of the tree without the clip. Joining a clip whose
// root set is A to a branch whose set is B adds one step (times the step cost of its
// character) in each column where A and B share no state; the fit of the new tree is the
// fit of the steps of the two parts plus what those steps add to their characters' fits.
#include "search/implied_moves.h"

#include <algorithm>
#include <bit>
#include <limits>

#include "optim/field_ops.h"
#include "optim/packed.h"
#include "optim/reports.h"

namespace qax::search {

using optim::packed;
namespace ops = optim::ops;

bool ImpliedMoves::usable() { return packed.valid && !packed.wide.any(); }

void ImpliedMoves::load(const Engine& e, const std::vector<std::int32_t>& parent, const std::vector<int>* weights) {
  nt_ = e.nt;
  nn_ = e.nn;
  W_ = e.W;
  clip_ = -1;
  weights_ = weights;
  anc_ = e.anc;
  left_ = e.left;
  right_ = e.right;
  const std::size_t cells = static_cast<std::size_t>(nn_) * W_;
  down_.assign(cells, ~0u);
  down2_.assign(cells, ~0u);
  up2_.assign(cells, ~0u);
  edge2_.assign(cells, ~0u);
  upc_.assign(cells, ~0u);
  rootset_.assign(cells, ~0u);
  dptr_.assign(static_cast<std::size_t>(nn_), nullptr);
  optim::character_steps(parent, steps_);
  gather_count_.assign(steps_.size(), 0);
  order_fields();
  // First-pass sets bottom up: inner nodes in preorder, then reversed.
  order_.clear();
  std::vector<int> st{nt_};
  while (!st.empty()) {
    const int v = st.back();
    st.pop_back();
    order_.push_back(v);
    for (int c : {left_[v], right_[v]})
      if (c >= nt_) st.push_back(c);
  }
  for (auto it = order_.rbegin(); it != order_.rend(); ++it)
    fitch_sets(packed.layout, at(down_, left_[*it]), at(down_, right_[*it]), at(down_, *it));
  empty_.assign(static_cast<std::size_t>(W_), 0u);
}

// Within each class the fields go in the order of what a step adds to their characters'
// fits on this tree, largest first: the sum of a join passes the room in the first words.
namespace {

// The fit unit of packed column r: its character, or its variable when the character is
// fitted by its variables; -1 for padding.
int fit_unit_of(int r) {
  if (r >= static_cast<int>(packed.packed_char.size())) return -1;
  const optim::PackedChar& pc = packed.packed_char[r];
  if (pc.character < 0) return -1;
  if (pc.plan >= 0 && pc.plan < static_cast<int>(packed.plan_unit.size()) && packed.plan_unit[pc.plan] >= 0)
    return packed.plan_unit[pc.plan];
  return pc.character;
}

// Column r is one of several columns of its unit (a recoded additive character).
bool several_columns(int r) {
  if (r >= static_cast<int>(packed.packed_char.size())) return false;
  const int plan = packed.packed_char[r].character >= 0 ? packed.packed_char[r].plan : -1;
  return plan >= 0 && packed.pack_plan[plan].columns > 1;
}

}  // namespace

void ImpliedMoves::order_fields() {
  const optim::Layout& L = packed.layout;
  delta_.prepare(steps_, weights_);
  const auto& one = delta_.one_step();
  slot_char_.assign(static_cast<std::size_t>(W_) * 16, -1);
  slot_several_.assign(static_cast<std::size_t>(W_) * 16, 0);
  slot_step_.assign(static_cast<std::size_t>(W_) * 16, 0.0);
  struct Region { int start, end, width; };
  const Region regions[] = {{0, L.end0, 2}, {L.end0, L.end1, 4}, {L.end1, L.end2, 8}, {L.end2, L.end4, 32}};
  std::vector<std::pair<double, int>> rank;   // (-key, source slot)
  for (const Region& g : regions) {
    const int per = 32 / g.width;
    rank.clear();
    for (int w = g.start; w < g.end; ++w)
      for (int f = 0; f < per; ++f) {
        const int r = L.record_base[w] + f;
        const int c = fit_unit_of(r);
        const bool several = several_columns(r);
        // Gathered columns and padding last: they don't count towards the room.
        const double key = c < 0 ? -2.0 : several || one[c] < 0 ? -1.0 : one[c];
        rank.push_back({-key, w * 16 + f});
      }
    std::stable_sort(rank.begin(), rank.end());
    // Slot k of the region takes source slot rank[k].
    const std::uint32_t fmask = g.width == 32 ? ~0u : (1u << g.width) - 1;
    for (int t = 0; t < nt_; ++t) {
      const std::uint32_t* src = packed.node_sets[t].down_set;
      std::uint32_t* dst = at(down_, t);
      for (int w = g.start; w < g.end; ++w) dst[w] = 0;
      for (std::size_t k = 0; k < rank.size(); ++k) {
        const int from = rank[k].second, fw = from / 16, ff = from % 16;
        const int tw = g.start + static_cast<int>(k) / per, tf = static_cast<int>(k) % per;
        const std::uint32_t v = g.width == 32 ? src[fw] : (src[fw] >> (ff * g.width)) & fmask;
        dst[tw] |= g.width == 32 ? v : v << (tf * g.width);
      }
    }
    for (std::size_t k = 0; k < rank.size(); ++k) {
      const int from = rank[k].second;
      const int r = L.record_base[from / 16] + from % 16;
      const int to = (g.start + static_cast<int>(k) / per) * 16 + static_cast<int>(k) % per;
      slot_char_[to] = fit_unit_of(r);
      slot_several_[to] = several_columns(r);
    }
  }
  // Padding words beyond the classes.
  for (int t = 0; t < nt_; ++t)
    for (int w = L.end4; w < W_; ++w) at(down_, t)[w] = packed.node_sets[t].down_set[w];
  // The rating of every slot on the tree, from which each clip starts.
  char_slots_.assign(steps_.size(), {});
  std::vector<int> all;
  for (std::size_t k = 0; k < slot_char_.size(); ++k) {
    const int c = slot_char_[k];
    if (c < 0) continue;
    if (char_slots_[c].empty()) all.push_back(c);
    char_slots_[c].push_back(static_cast<int>(k));
  }
  slot_step_.assign(slot_char_.size(), 0.0);
  word_least_.assign(static_cast<std::size_t>(W_), 0.0);
  word_uniform_.assign(static_cast<std::size_t>(W_), 1);
  rate_slots(all);
  tree_delta_ = delta_;
  tree_slot_step_ = slot_step_;
  tree_word_least_ = word_least_;
  tree_word_uniform_ = word_uniform_;
}

void ImpliedMoves::prepare_clip(int n, bool tbr) {
  const optim::Layout& L = packed.layout;
  clip_ = n;
  const int p = anc_[n];
  const int s = left_[p] == n ? right_[p] : left_[p];
  const int g = anc_[p];
  auto kid = [&](int v, bool first) {
    const int c = first ? left_[v] : right_[v];
    return c == p ? s : c;
  };
  for (int v = 0; v < nn_; ++v) dptr_[v] = at(down_, v);
  // First-pass sets change only from the clip's grandparent to the root.
  for (int v = g; v >= 0; v = anc_[v]) {
    fitch_sets(L, down(kid(v, true)), down(kid(v, false)), at(down2_, v));
    dptr_[v] = at(down2_, v);
  }
  // Sets seen from above, and the branch sets, of the tree without the clip.
  const int l0 = left_[nt_], x = kid(nt_, false);
  std::copy_n(down(l0), W_, at(up2_, x));
  std::copy_n(down(x), W_, at(up2_, l0));
  fitch_sets(L, down(l0), at(up2_, l0), at(edge2_, l0));
  std::vector<int>& st = order_;
  st.assign(1, x);
  while (!st.empty()) {
    const int v = st.back();
    st.pop_back();
    fitch_sets(L, down(v), at(up2_, v), at(edge2_, v));
    if (v < nt_) continue;
    const int a = kid(v, true), b = kid(v, false);
    fitch_sets(L, at(up2_, v), down(b), at(up2_, a));
    fitch_sets(L, at(up2_, v), down(a), at(up2_, b));
    st.push_back(a);
    st.push_back(b);
  }
  // Rerootings of the clip: the set of its root when rooted on each branch inside it.
  if (tbr && n >= nt_) {
    std::copy_n(down(right_[n]), W_, at(upc_, left_[n]));
    std::copy_n(down(left_[n]), W_, at(upc_, right_[n]));
    st.assign({left_[n], right_[n]});
    while (!st.empty()) {
      const int v = st.back();
      st.pop_back();
      fitch_sets(L, down(v), at(upc_, v), at(rootset_, v));
      if (v < nt_) continue;
      fitch_sets(L, at(upc_, v), down(right_[v]), at(upc_, left_[v]));
      fitch_sets(L, at(upc_, v), down(left_[v]), at(upc_, right_[v]));
      st.push_back(left_[v]);
      st.push_back(right_[v]);
    }
  }
  join_value_ = unjoin_cost(n, s);
  rate_slots(changed_);
}

// Takes the clip out of its place (the branch above s of the tree without it): each
// character with a step at that join loses it, and the rating of the two parts starts
// from the tree's with only those characters changed. Returns the fit saved, the cost of
// the join where the clip was.
double ImpliedMoves::unjoin_cost(int n, int s) {
  const optim::Layout& L = packed.layout;
  delta_ = tree_delta_;
  slot_step_ = tree_slot_step_;
  word_least_ = tree_word_least_;
  word_uniform_ = tree_word_uniform_;
  changed_.clear();
  const auto& mult = packed.char_multiplier;
  for (int i = 0; i < L.end4; ++i) {
    int shift;
    for (std::uint32_t e = ops::empty_marks(i, L.end0, L.end1, L.end2, down(n)[i] & at(edge2_, s)[i], shift); e;
         e &= e - 1) {
      const int c = slot_char_[i * 16 + (std::countr_zero(e) >> shift)];
      if (c < 0) continue;
      if (gather_count_[c]++ == 0) changed_.push_back(c);
    }
  }
  for (int c : changed_) {
    delta_.change(c, steps_[c] - gather_count_[c] * (c < static_cast<int>(mult.size()) ? mult[c] : 1));
    gather_count_[c] = 0;
  }
  return tree_delta_.base() - delta_.base();
}

// What one more step in each column adds (-1: characters of several columns, additive,
// and those of weighting sets, gathered and rated together), for the slots of the
// characters listed (all when `chars` is null); then the words' least and uniformity.
void ImpliedMoves::rate_slots(const std::vector<int>& chars) {
  const optim::Layout& L = packed.layout;
  const auto& one = delta_.one_step();
  touched_words_.clear();
  for (int c : chars)
    for (int k : char_slots_[c]) {
      slot_step_[k] = slot_several_[k] || one[c] < 0 ? -1.0 : one[c];
      if (touched_words_.empty() || touched_words_.back() != k / 16) touched_words_.push_back(k / 16);
    }
  std::sort(touched_words_.begin(), touched_words_.end());
  touched_words_.erase(std::unique(touched_words_.begin(), touched_words_.end()), touched_words_.end());
  // Per word: the least a step of one of its columns adds (0 with gathered columns), and
  // whether all its columns add the same, so that a count of its empty fields gives the sum.
  for (int i : touched_words_) {
    const int per = i < L.end0 ? 16 : i < L.end1 ? 8 : i < L.end2 ? 4 : 1;
    double lo = 1e300, hi = -1e300;
    for (int f = 0; f < per; ++f) {
      const int k = i * 16 + f;
      if (slot_char_[k] < 0) continue;   // padding: never empty
      const double d = slot_step_[k] < 0 ? 0.0 : slot_step_[k];
      lo = std::min(lo, d);
      hi = std::max(hi, d);
      if (slot_step_[k] < 0) hi = 1e300;   // gathered: not a sum of equal parts
    }
    if (lo > hi) lo = hi = 0;   // padding only
    word_least_[i] = lo;
    word_uniform_[i] = hi - lo <= 0;
  }
}

double ImpliedMoves::fit(int reroot, int target, double ceiling) {
  const std::uint32_t* a = reroot < 0 ? down(clip_) : at(rootset_, reroot);
  return base() + join(a, at(edge2_, target), ceiling - base());
}

namespace {

// Marks in a word, without the popcount instruction the build can't assume.
inline int count_marks(std::uint32_t x) {
  x = x - ((x >> 1) & 0x55555555u);
  x = (x & 0x33333333u) + ((x >> 2) & 0x33333333u);
  x = (x + (x >> 4)) & 0x0F0F0F0Fu;
  return static_cast<int>((x * 0x01010101u) >> 24);
}

}  // namespace

double ImpliedMoves::join(const std::uint32_t* a, const std::uint32_t* b, double room) {
  const optim::Layout& L = packed.layout;
  // Empty intersections word by word, marked by one bit per field (bit k of word i is
  // slot i * 16 + (k >> shift)), with a bound from below: the count of empty fields times
  // the least a step adds in the word (exact where all its columns add the same). Fits
  // only grow with steps, so once the bound passes the room the move can be left.
  std::uint32_t* e = empty_.data();
  double sum = 0;
  bool exact = true;
  auto add = [&](int i, std::uint32_t x) {
    e[i] = x;
    if (!x) return false;
    sum += count_marks(x) * word_least_[i];
    exact = exact && word_uniform_[i];
    return sum > room;
  };
  for (int i = 0; i < L.end0; ++i)
    if (add(i, ops::empty_of<0>(a[i] & b[i]))) return sum;
  for (int i = L.end0; i < L.end1; ++i)
    if (add(i, ops::empty_of<1>(a[i] & b[i]))) return sum;
  for (int i = L.end1; i < L.end2; ++i)
    if (add(i, ops::empty_of<2>(a[i] & b[i]))) return sum;
  for (int i = L.end2; i < L.end4; ++i)
    if (add(i, (a[i] & b[i]) == 0)) return sum;
  if (exact) return sum;
  // Then the exact sum in the other words, column by column.
  gather_chars_.clear();
  for (int i = 0; i < L.end4; ++i) {
    if (!e[i] || word_uniform_[i]) continue;
    sum -= count_marks(e[i]) * word_least_[i];
    const int shift = i < L.end0 ? 1 : i < L.end1 ? 2 : i < L.end2 ? 3 : 0;
    const double* step = slot_step_.data() + i * 16;
    const int* chars = slot_char_.data() + i * 16;
    for (std::uint32_t w = e[i]; w; w &= w - 1) {
      const int f = std::countr_zero(w) >> shift;
      const double d = step[f];
      if (d >= 0) sum += d;
      else if (gather_count_[chars[f]]++ == 0) gather_chars_.push_back(chars[f]);
    }
  }
  if (gather_chars_.empty()) return sum;
  gather_extra_.resize(gather_chars_.size());
  const auto& mult = packed.char_multiplier;
  for (std::size_t k = 0; k < gather_chars_.size(); ++k) {
    const int c = gather_chars_[k];
    gather_extra_[k] = gather_count_[c] * (c < static_cast<int>(mult.size()) ? mult[c] : 1);
    gather_count_[c] = 0;
  }
  return sum + delta_.several(gather_chars_.data(), gather_extra_.data(), static_cast<int>(gather_chars_.size()));
}

}  // namespace qax::search
