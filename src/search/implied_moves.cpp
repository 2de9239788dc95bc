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
  for (int t = 0; t < nt_; ++t)
    std::copy_n(packed.node_sets[t].down_set, W_, at(down_, t));
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
  const std::size_t records = packed.packed_char.size();
  rec_char_.assign(records, -1);
  for (std::size_t r = 0; r < records; ++r) rec_char_[r] = packed.packed_char[r].character;
  rec_step_.assign(records, 0.0);
  empty_.assign(static_cast<std::size_t>(W_), 0u);
  optim::character_steps(parent, steps_);
  gather_count_.assign(steps_.size(), 0);
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
  // Steps of the two parts: the tree's less those of the join where the clip is.
  base_steps_ = steps_;
  const auto& mult = packed.char_multiplier;
  for (int i = 0; i < L.end4; ++i) {
    const std::uint32_t xw = down(n)[i] & at(edge2_, s)[i];
    std::uint32_t e;
    int shift;
    if (i < L.end0) { e = ops::empty_of<0>(xw); shift = 1; }
    else if (i < L.end1) { e = ops::empty_of<1>(xw); shift = 2; }
    else if (i < L.end2) { e = ops::empty_of<2>(xw); shift = 3; }
    else { e = xw ? 0 : 1; shift = 0; }
    for (; e; e &= e - 1) {
      const int c = rec_char_[L.record_base[i] + (std::countr_zero(e) >> shift)];
      if (c >= 0) base_steps_[c] -= c < static_cast<int>(mult.size()) ? mult[c] : 1;
    }
  }
  delta_.prepare(base_steps_, weights_);
  // What one more step in each column adds; characters of several columns (additive) and
  // those of weighting sets are gathered and rated together.
  const auto& one = delta_.one_step();
  for (std::size_t r = 0; r < rec_char_.size(); ++r) {
    const int c = rec_char_[r];
    if (c < 0) { rec_step_[r] = 0; continue; }
    const int plan = packed.packed_char[r].plan;
    const bool several = plan >= 0 && packed.pack_plan[plan].columns > 1;
    rec_step_[r] = several || one[c] < 0 ? -1.0 : one[c];
  }
  // Words by the most that one of their columns adds, largest first.
  word_order_.clear();
  word_rank_.clear();
  for (int i = 0; i < L.end4; ++i) {
    const int per = i < L.end0 ? 16 : i < L.end1 ? 8 : i < L.end2 ? 4 : 1;
    double top = 0;
    for (int k = 0; k < per; ++k) {
      const std::size_t r = static_cast<std::size_t>(L.record_base[i] + k);
      if (r < rec_step_.size() && rec_char_[r] >= 0) top = std::max(top, rec_step_[r] < 0 ? 1e9 : rec_step_[r]);
    }
    if (top > 0) word_rank_.push_back({-top, i});
  }
  std::sort(word_rank_.begin(), word_rank_.end());
  for (const auto& wr : word_rank_) word_order_.push_back(wr.second);
}

double ImpliedMoves::fit(int reroot, int target, double ceiling) {
  const std::uint32_t* a = reroot < 0 ? down(clip_) : at(rootset_, reroot);
  return base() + join(a, at(edge2_, target), ceiling - base());
}

double ImpliedMoves::join(const std::uint32_t* a, const std::uint32_t* b, double room) {
  const optim::Layout& L = packed.layout;
  // Empty intersections of every word first (loops the compiler vectorises), marked by
  // the low bit of each field's position, so that bit k of word i is record base(i) + k >> shift.
  std::uint32_t* e = empty_.data();
  for (int i = 0; i < L.end0; ++i) e[i] = ops::empty_of<0>(a[i] & b[i]);
  for (int i = L.end0; i < L.end1; ++i) e[i] = ops::empty_of<1>(a[i] & b[i]);
  for (int i = L.end1; i < L.end2; ++i) e[i] = ops::empty_of<2>(a[i] & b[i]);
  for (int i = L.end2; i < L.end4; ++i) e[i] = (a[i] & b[i]) == 0;
  double sum = 0;
  gather_chars_.clear();
  bool over = false;
  // Words whose columns add most first, so that a move past the room is left soonest.
  for (int i : word_order_) {
    const int shift = i < L.end0 ? 1 : i < L.end1 ? 2 : i < L.end2 ? 3 : 0;
    const int base = L.record_base[i];
    for (std::uint32_t w = e[i]; w; w &= w - 1) {
      const int r = base + (std::countr_zero(w) >> shift);
      const double d = rec_step_[r];
      if (d >= 0) {
        // Fits only grow with steps: past the room the move can be left.
        sum += d;
        if (sum > room) { over = true; break; }
      } else if (gather_count_[rec_char_[r]]++ == 0) {
        gather_chars_.push_back(rec_char_[r]);
      }
    }
    if (over) break;
  }
  if (gather_chars_.empty()) return sum;
  gather_extra_.resize(gather_chars_.size());
  const auto& mult = packed.char_multiplier;
  for (std::size_t k = 0; k < gather_chars_.size(); ++k) {
    const int c = gather_chars_[k];
    gather_extra_[k] = gather_count_[c] * (c < static_cast<int>(mult.size()) ? mult[c] : 1);
    gather_count_[c] = 0;
  }
  if (over) return sum;
  return sum + delta_.several(gather_chars_.data(), gather_extra_.data(), static_cast<int>(gather_chars_.size()));
}

}  // namespace qax::search
