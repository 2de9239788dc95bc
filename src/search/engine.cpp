// The engine's set passes, the evaluation of all moves of one clip, and moves on the
// unrooted adjacency.
#include "search/search_internal.h"
#include "search/engine.h"

#include <algorithm>
#include <array>
#include <climits>
#include <cstring>
#include <unordered_map>

#include "optim/field_ops.h"
#include "optim/kernels.h"
#include "search/settings.h"
#include "trees/store.h"

namespace qax::search {


using namespace qax::optim::ops;
using qax::optim::packed;

namespace {

template <int C, class V> QAX_INLINE void fitch_chunk(int i, const std::uint32_t* a, const std::uint32_t* b,
                                                     std::uint32_t* o) {
  V va = load<V>(a + i), vb = load<V>(b + i);
  V x = va & vb;
  store<V>(o + i, x | ((va | vb) & full_of<C>(empty_of<C>(x))));
}

template <int C, class V> QAX_INLINE void fitch_region(int s, int e, const std::uint32_t* a, const std::uint32_t* b,
                                                      std::uint32_t* o) {
  int i = s;
  if constexpr (sizeof(V) == 32)
    for (; i + 8 <= e; i += 8) fitch_chunk<C, V>(i, a, b, o);
  for (; i + 2 <= e; i += 2) fitch_chunk<C, std::uint64_t>(i, a, b, o);
  for (; i < e; ++i) fitch_chunk<C, std::uint32_t>(i, a, b, o);
}

template <class V> QAX_INLINE void fitch_impl(const optim::Layout& L, const std::uint32_t* a, const std::uint32_t* b,
                                              std::uint32_t* o) {
  fitch_region<0, V>(0, L.end0, a, b, o);
  fitch_region<1, V>(L.end0, L.end1, a, b, o);
  fitch_region<2, V>(L.end1, L.end2, a, b, o);
  for (int i = L.end2; i < L.end4; ++i) {
    std::uint32_t x = a[i] & b[i];
    o[i] = x ? x : (a[i] | b[i]);
  }
  for (int i = L.end4; i < L.nwords; ++i) o[i] = ~0u;
}

__attribute__((target("avx2"))) void fitch_avx2(const optim::Layout& L, const std::uint32_t* a,
                                                const std::uint32_t* b, std::uint32_t* o) {
  fitch_impl<v4u64>(L, a, b, o);
}
void fitch_plain(const optim::Layout& L, const std::uint32_t* a, const std::uint32_t* b, std::uint32_t* o) {
  fitch_impl<std::uint64_t>(L, a, b, o);
}

using FitchFn = void (*)(const optim::Layout&, const std::uint32_t*, const std::uint32_t*, std::uint32_t*);
// The variants follow the join kernels chosen for the pack (so that an override of the
// kernel variant also tests these); set by Engine::init.
FitchFn fitch_fn = fitch_plain;

// The same set, compared on the way with `ref` (which may be `o` itself): true when they
// differ. One pass over the words, so a changed set costs no more than computing it.
QAX_INLINE bool any_bits(std::uint32_t v) { return v != 0; }
QAX_INLINE bool any_bits(std::uint64_t v) { return v != 0; }
QAX_INLINE bool any_bits(v4u64 v) { return (v[0] | v[1] | v[2] | v[3]) != 0; }

template <int C, class V> QAX_INLINE void fitch_cmp_chunk(int i, const std::uint32_t* a, const std::uint32_t* b,
                                                         std::uint32_t* o, const std::uint32_t* r, V& diff) {
  V va = load<V>(a + i), vb = load<V>(b + i);
  V x = va & vb;
  V res = x | ((va | vb) & full_of<C>(empty_of<C>(x)));
  diff |= res ^ load<V>(r + i);
  store<V>(o + i, res);
}

template <int C, class V> QAX_INLINE bool fitch_cmp_region(int s, int e, const std::uint32_t* a,
                                                          const std::uint32_t* b, std::uint32_t* o,
                                                          const std::uint32_t* r) {
  int i = s;
  bool changed = false;
  if constexpr (sizeof(V) == 32) {
    V diff{};
    for (; i + 8 <= e; i += 8) fitch_cmp_chunk<C, V>(i, a, b, o, r, diff);
    changed = any_bits(diff);
  }
  std::uint64_t d64 = 0;
  for (; i + 2 <= e; i += 2) fitch_cmp_chunk<C, std::uint64_t>(i, a, b, o, r, d64);
  std::uint32_t d32 = 0;
  for (; i < e; ++i) fitch_cmp_chunk<C, std::uint32_t>(i, a, b, o, r, d32);
  return changed || d64 != 0 || d32 != 0;
}

template <class V> QAX_INLINE bool fitch_cmp_impl(const optim::Layout& L, const std::uint32_t* a,
                                                  const std::uint32_t* b, std::uint32_t* o, const std::uint32_t* r) {
  bool changed = fitch_cmp_region<0, V>(0, L.end0, a, b, o, r);
  changed |= fitch_cmp_region<1, V>(L.end0, L.end1, a, b, o, r);
  changed |= fitch_cmp_region<2, V>(L.end1, L.end2, a, b, o, r);
  for (int i = L.end2; i < L.end4; ++i) {
    std::uint32_t x = a[i] & b[i];
    x = x ? x : (a[i] | b[i]);
    changed |= x != r[i];
    o[i] = x;
  }
  for (int i = L.end4; i < L.nwords; ++i) o[i] = ~0u;
  return changed;
}

__attribute__((target("avx2"))) bool fitch_cmp_avx2(const optim::Layout& L, const std::uint32_t* a,
                                                    const std::uint32_t* b, std::uint32_t* o,
                                                    const std::uint32_t* r) {
  return fitch_cmp_impl<v4u64>(L, a, b, o, r);
}
bool fitch_cmp_plain(const optim::Layout& L, const std::uint32_t* a, const std::uint32_t* b, std::uint32_t* o,
                     const std::uint32_t* r) {
  return fitch_cmp_impl<std::uint64_t>(L, a, b, o, r);
}

using FitchCmpFn = bool (*)(const optim::Layout&, const std::uint32_t*, const std::uint32_t*, std::uint32_t*,
                            const std::uint32_t*);
FitchCmpFn fitch_cmp = fitch_cmp_plain;

// Masked form: only the chunks of `chunk` words marked in `in` are computed (the others
// are left alone); returns the mask of computed chunks where the result differs from ref.
template <class V> QAX_INLINE std::uint64_t fitch_mask_impl(const optim::Layout& L, int chunk, std::uint64_t in,
                                                           const std::uint32_t* a, const std::uint32_t* b,
                                                           std::uint32_t* o, const std::uint32_t* r) {
  std::uint64_t out = 0;
  while (in) {
    const int c = __builtin_ctzll(in);
    in &= in - 1;
    const int lo = c * chunk, hi = std::min(L.nwords, lo + chunk);
    if constexpr (sizeof(V) == 32) {
      // The common case: one vector of 8 words, all of one class.
      if (hi - lo == 8 && chunk == 8) {
        V diff{};
        if (hi <= L.end0) fitch_cmp_chunk<0, V>(lo, a, b, o, r, diff);
        else if (lo >= L.end0 && hi <= L.end1) fitch_cmp_chunk<1, V>(lo, a, b, o, r, diff);
        else if (lo >= L.end1 && hi <= L.end2) fitch_cmp_chunk<2, V>(lo, a, b, o, r, diff);
        else goto general;
        if (any_bits(diff)) out |= 1ull << c;
        continue;
      }
    }
  general:
    bool changed = false;
    if (lo < L.end0) changed |= fitch_cmp_region<0, V>(lo, std::min(hi, L.end0), a, b, o, r);
    if (hi > L.end0 && lo < L.end1) changed |= fitch_cmp_region<1, V>(std::max(lo, L.end0), std::min(hi, L.end1), a, b, o, r);
    if (hi > L.end1 && lo < L.end2) changed |= fitch_cmp_region<2, V>(std::max(lo, L.end1), std::min(hi, L.end2), a, b, o, r);
    for (int i = std::max(lo, L.end2); i < std::min(hi, L.end4); ++i) {
      std::uint32_t x = a[i] & b[i];
      x = x ? x : (a[i] | b[i]);
      changed |= x != r[i];
      o[i] = x;
    }
    for (int i = std::max(lo, L.end4); i < hi; ++i) o[i] = ~0u;
    if (changed) out |= 1ull << c;
  }
  return out;
}
__attribute__((target("avx2"))) std::uint64_t fitch_mask_avx2(const optim::Layout& L, int chunk, std::uint64_t in,
                                                              const std::uint32_t* a, const std::uint32_t* b,
                                                              std::uint32_t* o, const std::uint32_t* r) {
  return fitch_mask_impl<v4u64>(L, chunk, in, a, b, o, r);
}
std::uint64_t fitch_mask_plain(const optim::Layout& L, int chunk, std::uint64_t in, const std::uint32_t* a,
                               const std::uint32_t* b, std::uint32_t* o, const std::uint32_t* r) {
  return fitch_mask_impl<std::uint64_t>(L, chunk, in, a, b, o, r);
}
using FitchMaskFn = std::uint64_t (*)(const optim::Layout&, int, std::uint64_t, const std::uint32_t*,
                                      const std::uint32_t*, std::uint32_t*, const std::uint32_t*);
FitchMaskFn fitch_mask = fitch_mask_plain;

void select_set_kernels() {
  const bool avx2 = optim::kernels.variant == optim::kernel_avx2;
  fitch_fn = avx2 ? fitch_avx2 : fitch_plain;
  fitch_cmp = avx2 ? fitch_cmp_avx2 : fitch_cmp_plain;
  fitch_mask = avx2 ? fitch_mask_avx2 : fitch_mask_plain;
}

constexpr int block_size = 16;   // branches per region of the union tests

}  // namespace

void fitch_sets(const optim::Layout& L, const std::uint32_t* a, const std::uint32_t* b, std::uint32_t* out) noexcept {
  fitch_fn(L, a, b, out);
}

void union_sets(int nwords, const std::uint32_t* a, std::uint32_t* out) noexcept {
  for (int i = 0; i < nwords; ++i) out[i] |= a[i];
}

std::int32_t join_count(const std::uint32_t* a, const std::uint32_t* b, std::int32_t bound, std::int32_t* ok) noexcept {
  return optim::kernels.join(packed.layout, a, b, b, bound, ok);
}

void Engine::init() {
  select_set_kernels();
  nt = packed.nterm;
  nn = nt > 0 ? 2 * nt - 1 : 0;
  W = packed.nwords;
  const std::size_t cells = static_cast<std::size_t>(nn) * W;
  anc.assign(nn, -1);
  left.assign(nn, -1);
  right.assign(nn, -1);
  down.assign(cells, ~0u);
  up.assign(cells, ~0u);
  edge.assign(cells, ~0u);
  down2.assign(cells, ~0u);
  up2.assign(cells, ~0u);
  upc.assign(cells, ~0u);
  tgt.assign(cells, ~0u);
  cset.assign(cells, ~0u);
  tunion.assign(cells / block_size + 2 * W, 0u);
  cunion.assign(cells / block_size + 2 * W, 0u);
  tnode.assign(nn, -1);
  cnode.assign(nn, -1);
  stamp.assign(nn, 0);
  stamp_now = 0;
  stack.assign(2 * nn + 4, 0);
  order.assign(nn + 2, 0);
  nbr.assign(static_cast<std::size_t>(nn) * 3, -1);
  pre.assign(nn, -1);
  nsteps.assign(nn, 0);
  umask.assign(nn, 0);
  chunk_scratch.assign(W, 0u);
  chunk_words = 8;   // one 256-bit vector
  while ((W + chunk_words - 1) / chunk_words > 64) chunk_words += 8;
  {
    const int nchunks = W > 0 ? (W + chunk_words - 1) / chunk_words : 0;
    full_mask = nchunks >= 64 ? ~0ull : (1ull << nchunks) - 1;
  }
  ldist.assign(nn, 0);
  lnode.assign(nn, 0);
  dchg.assign(nn, 0);
  uchg.assign(nn, 0);
  pos.assign(nn, -1);
  span.assign(nn, 0);
  sunion.assign(cells / block_size + 2 * W, 0u);
  tptr.assign(nn, nullptr);
  uptr.assign(nn / block_size + 2, nullptr);
  dirty_pos.clear();
  dirty_blocks.clear();
  block_mark.assign(nn / block_size + 2, 0);
  path.clear();
  path.reserve(nn);
  dirty_pos.reserve(nn);
  dirty_blocks.reserve(nn / block_size + 2);
  targets_ready = false;
  for (int t = 0; t < nt; ++t) copy_bytes(D(t), packed.node_sets[t].down_set, sizeof(std::uint32_t) * W);
  if (packed.weight_mode == optim::weights_equal) order_fields();
  has_wide = packed.wide.any();
  unit = has_wide ? packed.wide.unit : 1;
  wide_score = 0;
  wclip_min_delta = 0;
  if (has_wide) {
    wide.init();
    wide2.init();
    wide_prepare_terminals();
  }
}

// With equal weights a join counts the same whatever the order of the fields within a class,
// and it stops at the first chunk of words over the bound. Putting first the characters where
// most taxa differ from the commonest state makes the joins of bad places stop sooner.
void Engine::order_fields() {
  const optim::Layout& L = packed.layout;
  struct Region { int start, end, width; };
  const Region regions[] = {{0, L.end0, 2}, {L.end0, L.end1, 4}, {L.end1, L.end2, 8}, {L.end2, L.end4, 32}};
  std::vector<std::uint32_t> values;
  std::vector<std::pair<int, int>> score;   // (minority count, field) per field
  std::vector<std::uint32_t> out;
  std::array<int, 256> small{};
  std::unordered_map<std::uint32_t, int> wide;
  for (const Region& r : regions) {
    const int per = 32 / r.width;
    const int nf = (r.end - r.start) * per;
    if (nf <= per) continue;
    const std::uint32_t fmask = r.width == 32 ? ~0u : (1u << r.width) - 1;
    values.assign(static_cast<std::size_t>(nf) * nt, 0);
    score.assign(nf, {0, 0});
    for (int f = 0; f < nf; ++f) {
      const int w = r.start + f / per, sh = (f % per) * r.width;
      int known = 0, top = 0;
      if (r.width <= 8) small.fill(0);
      else wide.clear();
      for (int t = 0; t < nt; ++t) {
        const std::uint32_t v = (D(t)[w] >> sh) & fmask;
        values[static_cast<std::size_t>(f) * nt + t] = v;
        if (v == fmask) continue;   // missing (and padding)
        ++known;
        top = std::max(top, r.width <= 8 ? ++small[v] : ++wide[v]);
      }
      score[f] = {known - top, f};
    }
    std::stable_sort(score.begin(), score.end(), [](const auto& a, const auto& b) { return a.first > b.first; });
    out.assign(static_cast<std::size_t>(r.end - r.start), 0);
    for (int t = 0; t < nt; ++t) {
      std::fill(out.begin(), out.end(), 0u);
      for (int k = 0; k < nf; ++k) {
        const std::uint32_t v = values[static_cast<std::size_t>(score[k].second) * nt + t];
        out[k / per] |= r.width == 32 ? v : v << ((k % per) * r.width);
      }
      copy_bytes(D(t) + r.start, out.data(), sizeof(std::uint32_t) * out.size());
    }
  }
}

bool Engine::load(const std::vector<std::int32_t>& parent) {
  optim::WorkTree w;
  if (!optim::load_tree(parent, w) || w.nterm != nt) return false;
  anc = w.ancestor;
  left = w.left_child;
  right = w.right_child;
  targets_ready = false;
  return true;
}

void Engine::export_tree(std::vector<std::int32_t>& parent) const {
  const int ntax = static_cast<int>(packed.to_packed.size());
  parent.assign(static_cast<std::size_t>(2 * ntax - 1), 0);
  auto id = [&](int n) { return n < nt ? packed.from_packed[n] : ntax + (n - nt); };
  for (int n = 0; n < nn; ++n)
    if (n != nt && anc[n] >= 0) parent[id(n)] = id(anc[n]);
  parent[ntax] = ntax + nt - 1;
  trees::reset_node_numbers(parent.data(), ntax);
}

void Engine::export_move(const Move& m, std::vector<std::int32_t>& parent) {
  apply_move(m);
  export_tree(parent);
  anc = oanc;
  left = oleft;
  right = oright;
}

int Engine::inner_preorder() {
  int cnt = 0, top = 0;
  stack[top++] = nt;
  while (top) {
    const int n = stack[--top];
    order[cnt++] = n;
    if (right[n] >= nt) stack[top++] = right[n];
    if (left[n] >= nt) stack[top++] = left[n];
  }
  return cnt;
}

double Engine::compute_all() {
  const optim::Layout& L = packed.layout;
  const int cnt = inner_preorder();
  std::int64_t steps = 0;
  std::int32_t ok;
  for (int k = cnt - 1; k >= 0; --k) {
    int n = order[k];
    fitch_sets(L, D(left[n]), D(right[n]), D(n));
    nsteps[n] = join_count(D(left[n]), D(right[n]), INT_MAX, &ok);
    steps += nsteps[n];
  }
  const int l0 = left[nt], x = right[nt];
  copy_bytes(U(x), D(l0), sizeof(std::uint32_t) * W);
  copy_bytes(U(l0), D(x), sizeof(std::uint32_t) * W);
  for (int k = 1; k < cnt; ++k) {
    int n = order[k];
    fitch_sets(L, U(n), D(right[n]), U(left[n]));
    fitch_sets(L, U(n), D(left[n]), U(right[n]));
  }
  for (int k = 1; k < cnt; ++k) {
    int n = order[k];
    fitch_sets(L, D(n), U(n), E(n));
    for (int c : {left[n], right[n]})
      if (c < nt) fitch_sets(L, D(c), U(c), E(c));
  }
  fitch_sets(L, D(l0), U(l0), E(l0));
  targets_ready = false;
  score = static_cast<double>(packed.constant_steps + steps);
  if (has_wide) {
    wide_compute();
    score += wide_score;
  }
  return score;
}

void Engine::reroot_on_zero() {
  // Unrooted adjacency without the root node.
  std::fill(nbr.begin(), nbr.end(), -1);
  auto link = [&](int a, int b) {
    int* na = &nbr[static_cast<std::size_t>(a) * 3];
    int* nb = &nbr[static_cast<std::size_t>(b) * 3];
    *std::find(na, na + 3, -1) = b;
    *std::find(nb, nb + 3, -1) = a;
  };
  for (int n = 0; n < nn; ++n) {
    if (n == nt || anc[n] < 0) continue;
    if (anc[n] == nt) {
      if (n == left[nt]) link(n, right[nt]);
    } else {
      link(n, anc[n]);
    }
  }
  std::fill(anc.begin(), anc.end(), -1);
  std::fill(left.begin(), left.end(), -1);
  std::fill(right.begin(), right.end(), -1);
  const int x = nbr[0];
  left[nt] = 0;
  right[nt] = x;
  anc[0] = nt;
  anc[x] = nt;
  int top = 0;
  stack[top++] = x;
  stack[top++] = 0;  // came from
  while (top) {
    int from = stack[--top];
    int v = stack[--top];
    if (v < nt) continue;
    for (int k = 0; k < 3; ++k) {
      int w = nbr[static_cast<std::size_t>(v) * 3 + k];
      if (w == from || w < 0) continue;
      anc[w] = v;
      if (left[v] < 0) left[v] = w; else right[v] = w;
      stack[top++] = w;
      stack[top++] = v;
    }
  }
}

void Engine::apply_move(const Move& m) {
  oanc = anc;
  oleft = left;
  oright = right;
  // Work on the unrooted adjacency, then root again on terminal 0.
  std::fill(nbr.begin(), nbr.end(), -1);
  auto nb = [&](int a) { return &nbr[static_cast<std::size_t>(a) * 3]; };
  auto link = [&](int a, int b) {
    *std::find(nb(a), nb(a) + 3, -1) = b;
    *std::find(nb(b), nb(b) + 3, -1) = a;
  };
  auto unlink = [&](int a, int b) {
    *std::find(nb(a), nb(a) + 3, b) = -1;
    *std::find(nb(b), nb(b) + 3, a) = -1;
  };
  for (int n = 0; n < nn; ++n) {
    if (n == nt || anc[n] < 0) continue;
    if (anc[n] == nt) {
      if (n == left[nt]) link(n, right[nt]);
    } else {
      link(n, anc[n]);
    }
  }
  const int n = m.clip, p = anc[n];
  const int s = left[p] == n ? right[p] : left[p];
  int g = anc[p];
  if (g == nt) g = 0;
  // Target branch (e, y) in the tree without the clip, found before the adjacency changes.
  const int e = m.target;
  int y = e == s ? g : anc[e];
  if (y == nt) y = 0;
  if (p != nt) {
    // Cut: p leaves, s joins g.
    unlink(p, s);
    unlink(p, g);
    link(s, g);
    // Insert p on (e, y).
    unlink(e, y);
    link(p, e);
    link(p, y);
  }
  // Reroot the clip on the branch above m.reroot.
  if (n >= nt && m.reroot >= 0 && m.reroot != left[n] && m.reroot != right[n]) {
    const int a = left[n], b = right[n];
    const int r = m.reroot, q = anc[r];
    unlink(n, a);
    unlink(n, b);
    link(a, b);
    unlink(r, q);
    link(n, r);
    link(n, q);
  }
  // Root again on terminal 0.
  std::vector<int>& st = stack;
  std::fill(anc.begin(), anc.end(), -1);
  std::fill(left.begin(), left.end(), -1);
  std::fill(right.begin(), right.end(), -1);
  const int x = nbr[0];
  left[nt] = 0;
  right[nt] = x;
  anc[0] = nt;
  anc[x] = nt;
  int top = 0;
  st[top++] = x;
  st[top++] = 0;
  while (top) {
    int from = st[--top];
    int v = st[--top];
    if (v < nt) continue;
    for (int k = 0; k < 3; ++k) {
      int w = nb(v)[k];
      if (w == from || w < 0) continue;
      anc[w] = v;
      if (left[v] < 0) left[v] = w; else right[v] = w;
      st[top++] = w;
      st[top++] = v;
    }
  }
}

double Engine::update_after_move() {
  const optim::Layout& L = packed.layout;
  const int cnt = inner_preorder();
  // A node whose pair of children changed has a new subtree below it and new sisters for
  // its children; everything else changes only through changed values.
  auto moved = [&](int v) {
    return !((left[v] == oleft[v] && right[v] == oright[v]) || (left[v] == oright[v] && right[v] == oleft[v]));
  };
  for (int t = 0; t < nt; ++t) dchg[t] = 0;
  std::int64_t delta = 0;
  std::int32_t ok;
  for (int k = cnt - 1; k >= 0; --k) {
    const int v = order[k], a = left[v], b = right[v];
    const bool mv = moved(v);
    if (mv || dchg[a] || dchg[b]) {
      dchg[v] = fitch_cmp(L, D(a), D(b), D(v), D(v));
      const std::int32_t st = join_count(D(a), D(b), INT_MAX, &ok);
      delta += st - nsteps[v];
      nsteps[v] = st;
    } else {
      dchg[v] = 0;
    }
  }
  const int l0 = left[nt], x = right[nt];
  uchg[x] = fitch_cmp(L, D(l0), D(l0), U(x), U(x));   // fitch(a, a) = a
  uchg[l0] = fitch_cmp(L, D(x), D(x), U(l0), U(l0));
  if (uchg[l0]) fitch_sets(L, D(l0), U(l0), E(l0));
  if (uchg[x] || dchg[x]) fitch_sets(L, D(x), U(x), E(x));
  for (int k = 1; k < cnt; ++k) {
    const int v = order[k], a = left[v], b = right[v];
    const bool mv = moved(v);
    for (int side = 0; side < 2; ++side) {
      const int c = side ? b : a, sib = side ? a : b;
      if (mv || uchg[v] || dchg[sib]) uchg[c] = fitch_cmp(L, U(v), D(sib), U(c), U(c));
      else uchg[c] = 0;
      if (uchg[c] || dchg[c]) fitch_sets(L, D(c), U(c), E(c));
    }
  }
  targets_ready = false;
  score += static_cast<double>(delta);
  if (has_wide) {
    score -= wide_score;
    wide_update(oleft, oright);
    score += wide_score;
  }
  return score;
}

void Engine::prepare_targets() {
  const std::size_t WS = static_cast<std::size_t>(W);
  int cnt = 0, top = 0;
  stack[top++] = right[nt];
  while (top) {
    int v = stack[--top];
    pos[v] = cnt;
    pre[cnt++] = v;
    if (v < nt) continue;
    stack[top++] = right[v];
    stack[top++] = left[v];
  }
  for (int k = cnt - 1; k >= 0; --k) {
    int v = pre[k];
    span[v] = v < nt ? 1 : 1 + span[left[v]] + span[right[v]];
  }
  for (int k = 0; k < cnt; ++k) tptr[k] = E(pre[k]);
  const int nb = (cnt + block_size - 1) / block_size;
  for (int b = 0; b < nb; ++b) {
    std::uint32_t* un = sunion.data() + b * WS;
    fill_bytes(un, 0, sizeof(std::uint32_t) * WS);
    for (int k = b * block_size; k < std::min(cnt, (b + 1) * block_size); ++k) union_sets(W, tptr[k], un);
    uptr[b] = un;
  }
  targets_ready = true;
}

// Marks the branch set of `node` as changed (`set`, or null until a join needs it) and
// returns its block's union for the tree without the clip: on the block's first change, a
// copy of the union in the tree with the clip, to be widened by the changed sets.
std::uint32_t* Engine::mark_target(int node, const std::uint32_t* set) {
  const std::size_t WS = static_cast<std::size_t>(W);
  const int k = pos[node];
  tptr[k] = set;
  dirty_pos.push_back(k);
  const int b = k / block_size;
  std::uint32_t* un = tunion.data() + b * WS;
  if (!block_mark[b]) {
    block_mark[b] = 1;
    dirty_blocks.push_back(b);
    copy_bytes(un, sunion.data() + b * WS, sizeof(std::uint32_t) * WS);
    uptr[b] = un;
  }
  return un;
}

void Engine::restore_targets() {
  const std::size_t WS = static_cast<std::size_t>(W);
  for (int k : dirty_pos) tptr[k] = E(pre[k]);
  for (int b : dirty_blocks) {
    uptr[b] = sunion.data() + b * WS;
    block_mark[b] = 0;
  }
  dirty_pos.clear();
  dirty_blocks.clear();
}

// The tree without the clip (p leaves, s takes its place below g) differs from the tree
// only near the clip. First-pass sets change on the path from g up to the first node whose
// set comes out equal; second-pass sets of the ancestors of g do not change at all (all
// that lies outside them is untouched); second-pass sets change in the subtrees hanging
// off the changed part of the path, and there only as far down as they keep differing.
// Changed branch sets go to scratch (tgt by node) and replace the targets' pointers; below
// the path they are made only when a join needs them (a null pointer until then), and the
// block unions get just their changed chunks.
void Engine::clip_update(int p, int s, int g) {
  const optim::Layout& L = packed.layout;
  const std::size_t WS = static_cast<std::size_t>(W);
  std::uint32_t* u2 = up2.data();
  std::uint32_t* e2 = tgt.data();
  // Chunks of words: a change reaches a node's children only in the chunks where the
  // node's own set changed, so each set below the path is computed in those chunks only
  // (its scratch copy is valid there; elsewhere it equals the set of the tree with the clip).
  const int chunk = chunk_words;
  const std::uint64_t all = full_mask;
  // Scratch up set of c = fitch(up, sib) in the chunks `in`; follow the change down.
  auto follow = [&](int c, const std::uint32_t* up, const std::uint32_t* sib, std::uint64_t in) {
    const std::uint64_t m = fitch_mask(L, chunk, in, up, sib, u2 + c * WS, U(c));
    if (!m) return;
    umask[c] = m;
    int top = 0;
    stack[top++] = c;
    while (top) {
      const int v = stack[--top];
      const std::uint64_t mv = umask[v];
      // The branch set's changed chunks go to its scratch set now, while the sets are at
      // hand, and widen the block's union (a wider union only weakens the block test, which
      // stays a lower bound); lazy_target completes the set if a join needs it.
      std::uint32_t* un = mark_target(v, nullptr);
      const std::uint32_t* dv = D(v);
      const std::uint32_t* uv = u2 + v * WS;
      for (std::uint64_t mm = mv; mm; mm &= mm - 1) {
        const int lo = __builtin_ctzll(mm) * chunk, hi = std::min(W, lo + chunk);
        for (int w = lo; w < hi; ++w) un[w] |= dv[w] | uv[w];
      }
      if (v < nt) continue;
      const int a = left[v], b = right[v];
      if ((umask[a] = fitch_mask(L, chunk, mv, u2 + v * WS, D(b), u2 + a * WS, U(a)))) stack[top++] = a;
      if ((umask[b] = fitch_mask(L, chunk, mv, u2 + v * WS, D(a), u2 + b * WS, U(b)))) stack[top++] = b;
    }
  };
  path.clear();
  const std::uint32_t* pd = D(s);
  int prev = p, a = g;
  while (a != nt) {
    const int other = left[a] == prev ? right[a] : left[a];
    const std::uint64_t m = fitch_mask(L, chunk, all, pd, D(other), down2.data() + a * WS, D(a));
    if (!m) break;
    umask[a] = m;   // chunks where the first-pass set changed
    path.push_back(a);
    pd = down2.data() + a * WS;
    prev = a;
    a = anc[a];
  }
  // a: lowest ancestor whose first-pass set is unchanged (nt when the change reaches the
  // root). Walk down the changed part of the path.
  for (int k = static_cast<int>(path.size()) - 1; k >= 0; --k) {
    const int pc = path[k], v = anc[pc];
    const std::uint32_t* pcd = down2.data() + pc * WS;
    fitch_sets(L, pcd, U(pc), e2 + pc * WS);
    union_sets(W, e2 + pc * WS, mark_target(pc, e2 + pc * WS));
    if (v == nt) continue;   // the other side is terminal 0, not a target
    const int oc = left[v] == pc ? right[v] : left[v];
    follow(oc, U(v), pcd, umask[pc]);
  }
  // Below g: s in place of p, and p's sister q.
  if (g == nt) {
    follow(s, D(left[nt]), D(left[nt]), all);   // fitch(a, a) = a
  } else {
    const int q = left[g] == p ? right[g] : left[g];
    follow(s, U(g), D(q), all);
    follow(q, U(g), D(s), all);
  }
}

const std::uint32_t* Engine::lazy_target(int k) {
  const std::size_t WS = static_cast<std::size_t>(W);
  const int v = pre[k];
  std::uint32_t* e2 = tgt.data() + v * WS;
  // The changed chunks were made by clip_update; the others are those of the tree.
  const std::uint32_t* e = E(v);
  fitch_mask(packed.layout, chunk_words, umask[v], D(v), up2.data() + v * WS, e2, e2);
  const std::uint64_t keep = full_mask & ~umask[v];
  for (std::uint64_t m = keep; m; m &= m - 1) {
    const int lo = __builtin_ctzll(m) * chunk_words, hi = std::min(W, lo + chunk_words);
    copy_bytes(e2 + lo, e + lo, sizeof(std::uint32_t) * (hi - lo));
  }
  tptr[k] = e2;
  return e2;
}

void Engine::insert_leaf(int t, int branch, int q) {
  const optim::Layout& L = packed.layout;
  if (has_wide) {
    wold_left = left;
    wold_right = right;
  }
  const int a0 = anc[branch];
  if (left[a0] == branch) left[a0] = q; else right[a0] = q;
  anc[q] = a0;
  left[q] = branch;
  right[q] = t;
  anc[branch] = q;
  anc[t] = q;
  targets_ready = false;
  // Up set of c changed (or new): its branch set, then down the subtree while they differ.
  auto follow = [&](int c) {
    int top = 0;
    stack[top++] = c;
    while (top) {
      const int v = stack[--top];
      fitch_sets(L, D(v), U(v), E(v));
      if (edge_log) edge_log->push_back(v);
      if (v < nt) continue;
      const int x = left[v], y = right[v];
      if (fitch_cmp(L, U(v), D(y), U(x), U(x))) stack[top++] = x;
      if (fitch_cmp(L, U(v), D(x), U(y), U(y))) stack[top++] = y;
    }
  };
  // First pass: q, then up while the sets change.
  fitch_sets(L, D(branch), D(t), D(q));
  path.clear();
  path.push_back(q);
  for (int v = a0;; v = anc[v]) {
    if (!fitch_cmp(L, D(left[v]), D(right[v]), D(v), D(v)) || v == nt) break;
    path.push_back(v);
  }
  // Second pass: ancestors keep their up sets; the changed path passes new first-pass sets
  // to the subtrees beside it.
  for (int k = static_cast<int>(path.size()) - 1; k >= 0; --k) {
    const int pc = path[k], v = anc[pc];
    const int oc = left[v] == pc ? right[v] : left[v];
    if (pc == q) fitch_sets(L, v == nt ? D(oc) : U(v), D(oc), U(q));   // fitch(a, a) = a
    fitch_sets(L, D(pc), U(pc), E(pc));
    if (edge_log) edge_log->push_back(pc);
    if (fitch_cmp(L, v == nt ? D(pc) : U(v), D(pc), U(oc), U(oc))) follow(oc);
  }
  fitch_sets(L, U(q), D(branch), U(t));
  fitch_sets(L, D(t), U(t), E(t));
  if (edge_log) edge_log->push_back(t);
  if (fitch_cmp(L, U(q), D(t), U(branch), U(branch))) follow(branch);
  if (has_wide) wide_update(wold_left, wold_right);
}

std::int32_t Engine::evaluate_clip(int n, bool tbr, bool saving, std::int32_t save_slack, Move& best,
                                   std::vector<Move>& records, std::uint64_t& examined) {
  const optim::Layout& L = packed.layout;
  const std::size_t WS = static_cast<std::size_t>(W);
  best = Move{};
  if (n == nt || n == left[nt] || anc[n] < 0) return -1;
  if (n == right[nt] && (!tbr || n < nt)) return -1;
  if (!targets_ready) prepare_targets();
  const int p = anc[n];
  const bool whole = p == nt;  // the clip is all but terminal 0: the only target is terminal 0
  const int s = left[p] == n ? right[p] : left[p];
  const int g = anc[p];
  // Targets: positions 0..npos-1 with the clip's run of positions and p's left out.
  const std::uint32_t* one_set[1] = {D(left[nt])};
  const int one_node[1] = {left[nt]};
  const std::uint32_t* const* tp = one_set;
  const std::uint32_t* const* tu = one_set;
  const int* tn = one_node;
  int npos = 1, skip_lo = -1, skip_hi = -1, skip_p = -1, ks = 0, ntg = 1;
  struct Restore {
    Engine* e;
    ~Restore() { e->restore_targets(); }
  } restore{this};
  if (!whole) {
    clip_update(p, s, g);
    tp = tptr.data();
    tu = uptr.data();
    tn = pre.data();
    npos = nn - 2;
    skip_lo = pos[n];
    skip_hi = pos[n] + span[n];
    skip_p = pos[p];
    ks = pos[s];
    ntg = npos - span[n] - 1;
  }
  int top = 0;
  // Rerooting sets of the clip: the identity first.
  int nc = 0;
  copy_bytes(cset.data(), D(n), sizeof(std::uint32_t) * WS);
  cnode[nc++] = n < nt ? n : left[n];
  if (tbr && n >= nt) {
    const int a = left[n], b = right[n];
    copy_bytes(upc.data() + a * WS, D(b), sizeof(std::uint32_t) * WS);
    copy_bytes(upc.data() + b * WS, D(a), sizeof(std::uint32_t) * WS);
    top = 0;
    stack[top++] = b;
    stack[top++] = a;
    ldist[a] = ldist[b] = 0;   // nodes from the clip's root branch
    while (top) {
      int v = stack[--top];
      if (v != a && v != b) {
        fitch_sets(L, D(v), upc.data() + v * WS, cset.data() + nc * WS);
        cnode[nc++] = v;
      }
      if (v < nt || (limit > 0 && ldist[v] >= limit)) continue;
      ldist[left[v]] = ldist[right[v]] = ldist[v] + 1;
      fitch_sets(L, upc.data() + v * WS, D(right[v]), upc.data() + left[v] * WS);
      fitch_sets(L, upc.data() + v * WS, D(left[v]), upc.data() + right[v] * WS);
      stack[top++] = right[v];
      stack[top++] = left[v];
    }
  }
  const int ncb = (nc + block_size - 1) / block_size;
  for (int b = 0; b < ncb; ++b) {
    std::uint32_t* un = cunion.data() + b * WS;
    fill_bytes(un, 0, sizeof(std::uint32_t) * WS);
    for (int k = b * block_size; k < std::min(nc, (b + 1) * block_size); ++k) union_sets(W, cset.data() + k * WS, un);
  }
  std::int32_t ok;
  if (!whole && !tptr[ks]) lazy_target(ks);
  std::int32_t base = join_count(D(n), tp[ks], INT_MAX, &ok);
  // The cost of rerooting j of the clip on target branch `node` (sets cj and tk).
  auto move_cost = [&](int j, const std::uint32_t* cj, const std::uint32_t* tk, int node, std::int32_t bnd,
                       std::int32_t* okp) -> std::int32_t {
    if (!has_wide) return join_count(cj, tk, bnd, okp);
    const std::int64_t b = static_cast<std::int64_t>(bnd) - wclip_delta[j];
    const std::int32_t nb = b < 0 ? -1 : static_cast<std::int32_t>(std::min<std::int64_t>(b / unit, INT_MAX));
    const std::int32_t narrow = join_count(cj, tk, nb, okp);
    if (!*okp) return 0;
    return wide_join(j, node, narrow, bnd, okp);
  };
  if (has_wide) {
    wide_prepare_clip(n, p, s, g, whole, nc);
    base = wide_join(0, tn[ks], base, INT_MAX, &ok);
  }
  std::int32_t best_cost = base;
  const std::int32_t save_bound = saving ? base + save_slack * unit : INT_MIN;
  std::int32_t bound = std::max(best_cost - 1, save_bound);
  if (limit > 0 && tbr && !whole) {
    if (bound < 0) return base;
    // Targets within `limit` nodes of the clip point, breadth-first in the tree without
    // the clip from the branch s-g (distance 0); moves are counted as they are costed.
    auto kid = [&](int c) { return c == p ? s : c; };
    int nl = 0, head = 0;
    lnode[nl++] = s;
    ldist[s] = 0;
    ++stamp_now;
    stamp[s] = stamp_now;
    auto reach = [&](int w, int d) {
      if (stamp[w] == stamp_now) return;
      stamp[w] = stamp_now;
      ldist[w] = d;
      lnode[nl++] = w;
    };
    while (head < nl) {
      const int v = lnode[head++];
      if (ldist[v] >= limit) continue;
      const int d = ldist[v] + 1;
      if (v >= nt) {
        reach(kid(left[v]), d);
        reach(kid(right[v]), d);
      }
      const int a = v == s ? g : anc[v];
      if (a == nt) continue;   // the root's branch goes on to terminal 0 only
      const int me = v == s ? p : v;
      reach(kid(left[a] == me ? right[a] : left[a]), d);
      reach(a, d);
    }
    for (int j = 0; j < nc; ++j) {
      const std::uint32_t* cj = cset.data() + j * WS;
      for (int k = 0; k < nl; ++k) {
        const int t = lnode[k];
        if (j == 0 && t == s) continue;
        if (constraint_allows && !constraint_allows(n, j == 0 ? -1 : cnode[j], t)) continue;
        ++examined;
        const int kt = pos[t];
        const std::int32_t c = move_cost(j, cj, tptr[kt] ? tptr[kt] : lazy_target(kt), t, bound, &ok);
        if (!ok) continue;
        if (c < best_cost) {
          best_cost = c;
          best = Move{n, j == 0 ? -1 : cnode[j], t, c};
          bound = std::max(best_cost - 1, save_bound);
        }
        if (saving && c <= save_bound) {
          records.push_back(Move{n, j == 0 ? -1 : cnode[j], t, c});
          if (take_first && take_first(take_ctx, records.back(), base, cset.data(), tp[ks], cj, tptr[kt]))
            return base;
        }
        if (bound < 0) return base;
      }
    }
    return base;
  }
  examined += static_cast<std::uint64_t>(std::max(ntg - 1, 1)) * static_cast<std::uint64_t>(nc);
  if (bound < 0) return base;
  const int ntb = (npos + block_size - 1) / block_size;
  // Wide columns: per block of targets, the union of their states of least cost in each
  // column; a rerooting whose states meet none of them in a column pays at least one step
  // of that column on every target of the block.
  const std::size_t nsc = has_wide ? packed.wide.sankoff.size() : 0;
  if (nsc) {
    wblock.assign(static_cast<std::size_t>(ntb) * nsc, 0u);
    for (int k = 0; k < npos; ++k) {
      const std::uint32_t* m = m2p[tn[k]];
      std::uint32_t* b = wblock.data() + static_cast<std::size_t>(k / block_size) * nsc;
      for (std::size_t q = 0; q < nsc; ++q) b[q] |= m[q];
    }
  }
  for (int cb = 0; cb < ncb; ++cb) {
    const int c_end = std::min(nc, (cb + 1) * block_size);
    const std::uint32_t* cu = cunion.data() + cb * WS;
    for (int tb = 0; tb < ntb; ++tb) {
      const int t_lo = tb * block_size;
      const int t_end = std::min(npos, t_lo + block_size);
      if (t_lo >= skip_lo && t_end <= skip_hi) continue;   // inside the clip
      // Targets of the block that can still pass: with several rerootings, each target
      // is first tested against the union of the rerooting sets (the bound only falls, so
      // a target out now stays out).
      int live[block_size];
      int nlive = 0;
      join_count(cu, tu[tb], narrow_bound(bound), &ok);
      if (!ok) continue;
      const bool several = c_end - cb * block_size > 1;
      for (int k = t_lo; k < t_end; ++k) {
        if ((k >= skip_lo && k < skip_hi) || k == skip_p) continue;
        if (several) {
          join_count(cu, tp[k] ? tp[k] : lazy_target(k), narrow_bound(bound), &ok);
          if (!ok) continue;
        }
        live[nlive++] = k;
      }
      if (!nlive) continue;
      for (int j = cb * block_size; j < c_end; ++j) {
        const std::uint32_t* cj = cset.data() + j * WS;
        if (several) {
          join_count(cj, tu[tb], narrow_bound(bound), &ok);
          if (!ok) continue;
        }
        if (nsc && wide_block_bound(j, wblock.data() + static_cast<std::size_t>(tb) * nsc) > bound) continue;
        for (int i = 0; i < nlive; ++i) {
          const int k = live[i];
          if (j == 0 && k == ks) continue;
          const std::int32_t c = move_cost(j, cj, tp[k] ? tp[k] : lazy_target(k), tn[k], bound, &ok);
          if (!ok) continue;
          if (constraint_allows && !constraint_allows(n, j == 0 ? -1 : cnode[j], tn[k])) continue;
          if (c < best_cost) {
            best_cost = c;
            best = Move{n, j == 0 ? -1 : cnode[j], tn[k], c};
            bound = std::max(best_cost - 1, save_bound);
          }
          if (saving && c <= save_bound) {
            records.push_back(Move{n, j == 0 ? -1 : cnode[j], tn[k], c});
            if (take_first && take_first(take_ctx, records.back(), base, cset.data(), tp[ks], cj, tp[k] ? tp[k] : lazy_target(k)))
              return base;
          }
          if (bound < 0) return base;
        }
      }
    }
  }
  return base;
}

}  // namespace qax::search
