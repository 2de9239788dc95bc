// The wide columns in the engine: sets of the tree, the sets of the tree without a clip
// (recomputed only where they differ from those of the tree), the rerootings of the clip,
// and the exact cost of joining them.
#include <algorithm>
#include <bit>
#include <climits>
#include <cstring>

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#endif

#include "search/search_internal.h"
#include "search/engine.h"

namespace qax::search {


using optim::SankoffColumn;
using optim::wide_infinity;
using qax::optim::packed;

namespace {

inline std::int32_t sat(std::int64_t v) { return v >= wide_infinity ? wide_infinity : static_cast<std::int32_t>(v); }

inline void combine(const std::int32_t* a, const std::int32_t* b, std::int32_t* out) {
  if (a[0] > b[1]) { out[0] = b[1]; out[1] = a[0]; return; }
  if (b[0] > a[1]) { out[0] = a[1]; out[1] = b[0]; return; }
  out[0] = std::max(a[0], b[0]);
  out[1] = std::min(a[1], b[1]);
}

inline std::int32_t distance(const std::int32_t* a, const std::int32_t* b) {
  return a[0] > b[1] ? a[0] - b[1] : b[0] > a[1] ? b[0] - a[1] : 0;
}

// Bits (from bit 0 of bits[0]) of the n columns whose state masks in a and b don't meet;
// returns how many. Eight columns at a time where the processor has AVX2.
int nonmeeting_plain(const std::uint32_t* a, const std::uint32_t* b, int n, std::uint64_t* bits) noexcept {
  int count = 0;
  for (int w = 0; w * 64 < n; ++w) {
    std::uint64_t m = 0;
    const int end = std::min(64, n - w * 64);
    for (int i = 0; i < end; ++i) m |= static_cast<std::uint64_t>((a[w * 64 + i] & b[w * 64 + i]) == 0) << i;
    bits[w] = m;
    count += std::popcount(m);
  }
  return count;
}

#if defined(__x86_64__) || defined(__i386__)
__attribute__((target("avx2,popcnt"))) int nonmeeting_avx2(const std::uint32_t* a, const std::uint32_t* b, int n,
                                                            std::uint64_t* bits) noexcept {
  int count = 0;
  for (int w = 0; w * 64 < n; ++w) {
    std::uint64_t m = 0;
    const int base = w * 64, end = std::min(64, n - base);
    int i = 0;
    for (; i + 8 <= end; i += 8) {
      const __m256i x = _mm256_and_si256(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(a + base + i)),
                                         _mm256_loadu_si256(reinterpret_cast<const __m256i*>(b + base + i)));
      const __m256i z = _mm256_cmpeq_epi32(x, _mm256_setzero_si256());
      m |= static_cast<std::uint64_t>(static_cast<unsigned>(_mm256_movemask_ps(_mm256_castsi256_ps(z)))) << i;
    }
    for (; i < end; ++i) m |= static_cast<std::uint64_t>((a[base + i] & b[base + i]) == 0) << i;
    bits[w] = m;
    count += static_cast<int>(_mm_popcnt_u64(m));
  }
  return count;
}

bool avx2_present() noexcept {
  __builtin_cpu_init();
  return __builtin_cpu_supports("avx2") && __builtin_cpu_supports("popcnt");
}
#else
int nonmeeting_avx2(const std::uint32_t* a, const std::uint32_t* b, int n, std::uint64_t* bits) noexcept {
  return nonmeeting_plain(a, b, n, bits);
}
bool avx2_present() noexcept { return false; }
#endif

const bool use_avx2 = avx2_present();

inline int nonmeeting(const std::uint32_t* a, const std::uint32_t* b, int n, std::uint64_t* bits) noexcept {
  return use_avx2 ? nonmeeting_avx2(a, b, n, bits) : nonmeeting_plain(a, b, n, bits);
}

// Least weight of the Sankoff columns (a column whose least-cost states don't meet costs at
// least that many steps).
std::int64_t least_weight(const std::vector<SankoffColumn>& cols) {
  std::int64_t w = cols.empty() ? 0 : cols[0].weight;
  for (const SankoffColumn& col : cols) w = std::min<std::int64_t>(w, col.weight);
  return w;
}

inline std::uint32_t zero_states(const std::int32_t* x, int k) {
  std::uint32_t mask = 0;
  for (int s = 0; s < k; ++s)
    if (x[s] == 0) mask |= 1u << s;
  return mask;
}

}  // namespace

void Engine::wide_prepare_terminals() {
  const auto& cols = packed.wide.sankoff;
  least_column_weight = least_weight(cols);
  // States of least cost of each terminal seen from a parent: they never change.
  std::int32_t seen[32];
  term_masks.resize(static_cast<std::size_t>(nt) * cols.size() + 1);
  for (int t = 0; t < nt; ++t)
    for (std::size_t q = 0; q < cols.size(); ++q) {
      optim::sankoff_from_child(cols[q], wide.D(t) + cols[q].offset, seen);
      term_masks[static_cast<std::size_t>(t) * cols.size() + q] = zero_states(seen, cols[q].k);
    }
}

void Engine::wide_compute() {
  const int cnt = inner_preorder();
  wide.compute(left.data(), right.data(), order.data(), cnt, true);
  wide.lift_all();
  wide_score = wide.score();
  const std::size_t ns = packed.wide.sankoff.size();
  e2p.resize(nn);
  m2p.resize(nn);
  ce2p.resize(nn);
  for (int n = 0; n < nn; ++n) {
    e2p[n] = wide.E(n);
    ce2p[n] = wide.CE(n);
    m2p[n] = wide.masks.data() + static_cast<std::size_t>(n) * ns;
  }
  overlay.clear();
}

void Engine::wide_prepare_clip(int n, int p, int s, int g, bool whole, int nc) {
  const optim::WideColumns& WC = packed.wide;
  const auto& cols = WC.sankoff;
  const std::size_t ns = cols.size();
  const int V = wide.V, C = wide.C;
  // Back to the sets of the tree, then the sets that differ without the clip.
  for (int v : overlay) {
    e2p[v] = wide.E(v);
    ce2p[v] = wide.CE(v);
    m2p[v] = wide.masks.data() + static_cast<std::size_t>(v) * ns;
  }
  overlay.clear();
  wmask2.resize(static_cast<std::size_t>(nn) * ns + 1);
  const int ncols = static_cast<int>(ns) + C;
  wcols.resize(static_cast<std::size_t>(nn) * ncols + 1);
  wcount.resize(nn);
  // Column q of a node: Sankoff columns first, then continuous ones.
  auto up_col = [&](int q, const std::int32_t* dsib, const std::int32_t* uparent, const std::int32_t* csib,
                    const std::int32_t* cuparent, std::int32_t* out, std::int32_t* cout) {
    if (q < static_cast<int>(ns)) {
      const SankoffColumn& col = cols[q];
      optim::sankoff_combine(col, dsib + col.offset, optim::combine_from_child, uparent + col.offset, optim::combine_from_parent, out + col.offset);
      return true;
    }
    const int j = q - static_cast<int>(ns);
    combine(cuparent + 2 * j, csib + 2 * j, cout + 2 * j);
    return true;
  };
  auto same_col = [&](int q, const std::int32_t* a, const std::int32_t* b, const std::int32_t* ca, const std::int32_t* cb) {
    if (q < static_cast<int>(ns)) {
      const SankoffColumn& col = cols[q];
      const std::int32_t* x = a + col.offset;
      const std::int32_t* y = b + col.offset;
      std::int32_t diff = 0;
      for (int i = 0; i < col.k; ++i) diff |= x[i] ^ y[i];
      return diff == 0;
    }
    const int j = q - static_cast<int>(ns);
    return ca[2 * j] == cb[2 * j] && ca[2 * j + 1] == cb[2 * j + 1];
  };
  // Branch set of v without the clip: the tree's, with the listed columns made again from
  // first-pass set d and outside set u.
  auto set_edge = [&](int v, const int* list, int count, const std::int32_t* d, const std::int32_t* u,
                      const std::int32_t* cd, const std::int32_t* cu) {
    std::uint32_t* m = wmask2.data() + static_cast<std::size_t>(v) * ns;
    std::int32_t* e = wide2.E(v);
    std::int32_t* ce = wide2.CE(v);
    copy_bytes(e, wide.E(v), sizeof(std::int32_t) * V);
    copy_bytes(ce, wide.CE(v), sizeof(std::int32_t) * 2 * C);
    copy_bytes(m, wide.masks.data() + static_cast<std::size_t>(v) * ns, sizeof(std::uint32_t) * ns);
    for (int i = 0; i < count; ++i) {
      const int q = list[i];
      if (q < static_cast<int>(ns)) {
        const SankoffColumn& col = cols[q];
        optim::sankoff_combine(col, d + col.offset, optim::combine_from_child, u + col.offset, optim::combine_from_parent, e + col.offset, &m[q]);
      } else {
        const int j = q - static_cast<int>(ns);
        combine(cd + 2 * j, cu + 2 * j, ce + 2 * j);
      }
    }
    e2p[v] = e;
    ce2p[v] = ce;
    m2p[v] = m;
    overlay.push_back(v);
  };
  auto list_of = [&](int v) { return wcols.data() + static_cast<std::size_t>(v) * ncols; };
  // Outside sets below v0, whose outside set differs in the columns listed for it, while
  // they keep differing. A node's scratch outside set (wide2.U) is valid in its listed
  // columns only: nothing else of it is read.
  auto follow = [&](int v0) {
    int top = 0;
    stack[top++] = v0;
    while (top) {
      const int v = stack[--top];
      set_edge(v, list_of(v), wcount[v], wide.D(v), wide2.U(v), wide.CD(v), wide2.CU(v));
      if (v < nt) continue;
      for (int side = 0; side < 2; ++side) {
        const int c = side ? right[v] : left[v], sib = side ? left[v] : right[v];
        int* lc = list_of(c);
        int cc = 0;
        const int* lv = list_of(v);
        for (int i = 0; i < wcount[v]; ++i) {
          const int q = lv[i];
          up_col(q, wide.D(sib), wide2.U(v), wide.CD(sib), wide2.CU(v), wide2.U(c), wide2.CU(c));
          if (!same_col(q, wide2.U(c), wide.U(c), wide2.CU(c), wide.CU(c))) lc[cc++] = q;
        }
        wcount[c] = cc;
        if (cc) stack[top++] = c;
      }
    }
  };
  if (whole) {
    const int z = left[nt];
    wide2.root_outside(wide.D(z), wide.CD(z), wide2.U(z), wide2.CU(z));
    copy_bytes(wide2.E(z), wide2.U(z), sizeof(std::int32_t) * V);
    copy_bytes(wide2.CE(z), wide.CD(z), sizeof(std::int32_t) * 2 * C);
    std::uint32_t* m = wmask2.data() + static_cast<std::size_t>(z) * ns;
    for (std::size_t q = 0; q < ns; ++q) m[q] = zero_states(wide2.E(z) + cols[q].offset, cols[q].k);
    e2p[z] = wide2.E(z);
    ce2p[z] = wide2.CE(z);
    m2p[z] = m;
    overlay.push_back(z);
  } else {
    // s takes p's place: its outside set is p's, different from its own in any column.
    copy_bytes(wide2.U(s), wide.U(p), sizeof(std::int32_t) * V);
    copy_bytes(wide2.CU(s), wide.CU(p), sizeof(std::int32_t) * 2 * C);
    {
      int* ls = list_of(s);
      int cc = 0;
      for (int q = 0; q < ncols; ++q)
        if (!same_col(q, wide2.U(s), wide.U(s), wide2.CU(s), wide.CU(s))) ls[cc++] = q;
      wcount[s] = cc;
      if (cc) follow(s);
    }
    // First-pass sets up the path from g while they differ; the sister of each changed
    // one gets a new outside set in the columns that changed. Outside sets of the path
    // itself do not change.
    const std::int32_t* dc = wide.D(s);
    const std::int32_t* cdc = wide.CD(s);
    const std::int32_t* dorig = wide.D(p);
    const std::int32_t* cdorig = wide.CD(p);
    int prev = p, v = g;
    path_cols.resize(ncols + 1);
    // Columns where the child on the path changed its first-pass set: found by comparing
    // for s, then those listed for the path node below (its scratch first-pass set is
    // valid in them only).
    const int* changed = nullptr;
    int nchanged = -1;
    for (;;) {
      if (v == nt) break;   // the other child is terminal 0, never a target
      const int o = left[v] == prev ? right[v] : left[v];
      int pc = 0;
      if (nchanged < 0) {
        for (int q = 0; q < ncols; ++q)
          if (!same_col(q, dc, dorig, cdc, cdorig)) path_cols[pc++] = q;
      } else {
        for (int i = 0; i < nchanged; ++i) path_cols[pc++] = changed[i];
      }
      if (!pc) break;
      int* lo = list_of(o);
      int cc = 0;
      for (int i = 0; i < pc; ++i) {
        const int q = path_cols[i];
        up_col(q, dc, wide.U(v), cdc, wide.CU(v), wide2.U(o), wide2.CU(o));
        if (!same_col(q, wide2.U(o), wide.U(o), wide2.CU(o), wide.CU(o))) lo[cc++] = q;
      }
      wcount[o] = cc;
      if (cc) follow(o);
      // The path node itself: first-pass set again in the changed columns.
      int* lv = list_of(v);
      int cv = 0;
      for (int i = 0; i < pc; ++i) {
        const int q = path_cols[i];
        if (q < static_cast<int>(ns)) {
          const SankoffColumn& col = cols[q];
          optim::sankoff_combine(col, dc + col.offset, optim::combine_from_child, wide.L(o) + col.offset, optim::combine_plain, wide2.D(v) + col.offset);
        } else {
          const int j = q - static_cast<int>(ns);
          combine(cdc + 2 * j, wide.CD(o) + 2 * j, wide2.CD(v) + 2 * j);
        }
        if (!same_col(q, wide2.D(v), wide.D(v), wide2.CD(v), wide.CD(v))) lv[cv++] = q;
      }
      if (!cv) break;
      set_edge(v, lv, cv, wide2.D(v), wide.U(v), wide2.CD(v), wide.CU(v));
      dc = wide2.D(v);
      cdc = wide2.CD(v);
      dorig = wide.D(v);
      cdorig = wide.CD(v);
      changed = lv;
      nchanged = cv;
      prev = v;
      v = anc[v];
    }
  }
  // Rerootings of the clip: the clip beyond each node (normalised, with what normalising
  // took off for asymmetric tables), then the clip rooted on the branch above each listed
  // node, seen from the new parent.
  wtmp.resize(4 * static_cast<std::size_t>(V) + 8);
  std::int32_t* ta = wtmp.data();
  std::int32_t* tb = ta + V;
  std::int32_t* tc = tb + V;
  bool asymmetric = false;
  for (const SankoffColumn& col : cols) asymmetric |= col.asymmetric;
  wout.resize(static_cast<std::size_t>(nn) * V);
  wout_range.resize(static_cast<std::size_t>(nn) * 2 * C);
  wout_off.resize(static_cast<std::size_t>(nn) * ns + 1);
  auto O = [&](int v) { return wout.data() + static_cast<std::size_t>(v) * V; };
  auto OR = [&](int v) { return wout_range.data() + static_cast<std::size_t>(v) * 2 * C; };
  auto OK = [&](int v) { return wout_off.data() + static_cast<std::size_t>(v) * ns; };
  auto KD = [&](int v, std::size_t q) -> std::int32_t { return v < nt ? 0 : wide.offsets[static_cast<std::size_t>(v) * ns + q]; };
  if (nc > 1 && n >= nt) {
    const int a = left[n], b = right[n];
    copy_bytes(O(a), wide.D(b), sizeof(std::int32_t) * V);
    copy_bytes(O(b), wide.D(a), sizeof(std::int32_t) * V);
    copy_bytes(OR(a), wide.CD(b), sizeof(std::int32_t) * 2 * C);
    copy_bytes(OR(b), wide.CD(a), sizeof(std::int32_t) * 2 * C);
    for (std::size_t q = 0; q < ns; ++q) {
      OK(a)[q] = KD(b, q);
      OK(b)[q] = KD(a, q);
    }
    int top = 0;
    stack[top++] = a;
    stack[top++] = b;
    while (top) {
      const int v = stack[--top];
      if (v < nt) continue;
      for (int side = 0; side < 2; ++side) {
        const int c = side ? right[v] : left[v], sib = side ? left[v] : right[v];
        for (std::size_t q = 0; q < ns; ++q) {
          const SankoffColumn& col = cols[q];
          const std::int32_t m =
              optim::sankoff_combine(col, wide.L(sib) + col.offset, optim::combine_plain, O(v) + col.offset, optim::combine_from_child, O(c) + col.offset);
          OK(c)[q] = sat(std::int64_t{m} + KD(sib, q) + OK(v)[q]);
        }
        for (int j = 0; j < C; ++j) combine(wide.CD(sib) + 2 * j, OR(v) + 2 * j, OR(c) + 2 * j);
        stack[top++] = c;
      }
    }
  }
  wclip.resize(static_cast<std::size_t>(nc) * V);
  wclip_range.resize(static_cast<std::size_t>(nc) * 2 * C);
  wclip_mask.resize(static_cast<std::size_t>(nc) * ns + 1);
  wclip_delta.assign(nc, 0);
  wclip_min_delta = 0;
  const std::int32_t* dn = wide.D(n);
  for (int j = 0; j < nc; ++j) {
    std::int32_t* F = wclip.data() + static_cast<std::size_t>(j) * V;
    const int v = cnode[j];
    const bool identity = j == 0;
    std::int64_t delta = 0;
    for (std::size_t q = 0; q < ns; ++q) {
      const SankoffColumn& col = cols[q];
      const std::int32_t* root = dn + col.offset;
      std::int32_t m_root = 0;
      if (!identity) {
        m_root = optim::sankoff_combine(col, wide.L(v) + col.offset, optim::combine_plain, O(v) + col.offset, optim::combine_from_child, tc + col.offset);
        root = tc + col.offset;
      }
      std::uint32_t* fmask = &wclip_mask[static_cast<std::size_t>(j) * ns + q];
      const std::int32_t m_f = identity
                                   ? optim::sankoff_combine(col, wide.L(n) + col.offset, optim::combine_plain, nullptr, optim::combine_plain, F + col.offset, fmask)
                                   : optim::sankoff_combine(col, root, optim::combine_from_child, nullptr, optim::combine_plain, F + col.offset, fmask);
      if (asymmetric && col.asymmetric && !identity) {
        // What the clip costs rooted here, against what it costs where it is.
        const std::int64_t here = std::int64_t{m_f} + m_root + KD(v, q) + OK(v)[q];
        delta += (here - KD(n, q)) * col.weight * unit;
      }
    }
    std::int32_t* R = wclip_range.data() + static_cast<std::size_t>(j) * 2 * C;
    if (identity) copy_bytes(R, wide.CD(n), sizeof(std::int32_t) * 2 * C);
    else
      for (int q = 0; q < C; ++q) combine(wide.CD(v) + 2 * q, OR(v) + 2 * q, R + 2 * q);
    wclip_delta[j] = delta;
    wclip_min_delta = std::min(wclip_min_delta, delta);
  }
}

std::int32_t Engine::wide_join(int j, int target, std::int32_t narrow, std::int32_t bound, std::int32_t* ok) {
  const optim::WideColumns& WC = packed.wide;
  const auto& cols = WC.sankoff;
  const std::size_t ns = cols.size();
  const int V = wide.V, C = wide.C;
  std::int64_t total = static_cast<std::int64_t>(narrow) * unit + wclip_delta[j];
  *ok = 0;
  if (total > bound) return 0;
  const std::int32_t* F = wclip.data() + static_cast<std::size_t>(j) * V;
  const std::uint32_t* fm = wclip_mask.data() + static_cast<std::size_t>(j) * ns;
  const std::int32_t* E = e2p[target];
  const std::uint32_t* em = m2p[target];
  if (!add_sankoff_joins(E, em, F, fm, bound, total)) return 0;
  const std::int32_t* R = wclip_range.data() + static_cast<std::size_t>(j) * 2 * C;
  const std::int32_t* T = ce2p[target];
  for (int q = 0; q < C; ++q) {
    total += static_cast<std::int64_t>(distance(R + 2 * q, T + 2 * q)) * WC.cont[q].weight;
    if (total > bound) return 0;
  }
  *ok = 1;
  return static_cast<std::int32_t>(total);
}

bool Engine::add_sankoff_joins(const std::int32_t* E, const std::uint32_t* em, const std::int32_t* F,
                               const std::uint32_t* fm, std::int64_t bound, std::int64_t& total) {
  const auto& cols = packed.wide.sankoff;
  const int ns = static_cast<int>(cols.size());
  // Columns whose sets of least cost meet cost nothing: find the others first, as bits;
  // each of them costs at least its weight (costs are whole numbers), which may already
  // put the move above the bound. Then cost them.
  const int words = (ns + 63) / 64;
  join_bits.resize(words + 1);
  std::uint64_t* bits = join_bits.data();
  const int count = nonmeeting(fm, em, ns, bits);
  if (total + count * least_column_weight * unit > bound) return false;
  for (int w = 0; w < words; ++w)
    for (std::uint64_t b = bits[w]; b; b &= b - 1) {
      const SankoffColumn& col = cols[static_cast<std::size_t>(w) * 64 + std::countr_zero(b)];
      const std::int32_t* e = E + col.offset;
      const std::int32_t* f = F + col.offset;
      std::int32_t m = wide_infinity;
      for (int st = 0; st < col.k; ++st) m = std::min(m, e[st] + f[st]);
      total += static_cast<std::int64_t>(m) * col.weight * unit;
      if (total > bound) return false;
    }
  return true;
}

std::int64_t Engine::wide_block_bound(int j, const std::uint32_t* masks) const {
  const auto& cols = packed.wide.sankoff;
  const std::size_t ns = cols.size();
  const std::uint32_t* fm = wclip_mask.data() + static_cast<std::size_t>(j) * ns;
  // Costs are whole numbers: a column whose sets of least cost do not meet costs at least
  // its weight.
  block_bits.resize((ns + 63) / 64 + 1);
  const std::int64_t least = nonmeeting(fm, masks, static_cast<int>(ns), block_bits.data()) * least_column_weight;
  return wclip_delta[j] + least * unit;
}

std::int32_t Engine::leaf_join(int t, int b, std::int32_t bound, std::int32_t* ok) {
  if (!has_wide) return join_count(D(t), E(b), bound, ok);
  const std::int32_t nb = bound < 0 ? -1 : bound / unit;
  const std::int32_t narrow = join_count(D(t), E(b), nb, ok);
  if (!*ok) return 0;
  const optim::WideColumns& WC = packed.wide;
  const auto& cols = WC.sankoff;
  const std::size_t ns = cols.size();
  const int C = wide.C;
  std::int64_t total = static_cast<std::int64_t>(narrow) * unit;
  *ok = 0;
  const std::int32_t* E2 = wide.E(b);
  const std::uint32_t* em = wide.masks.data() + static_cast<std::size_t>(b) * ns;
  // The terminal seen from the new node (its lifted set): the least cost from each state
  // of the node to one of the terminal's states.
  const std::int32_t* T = wide.L(t);
  if (!add_sankoff_joins(E2, em, T, term_masks.data() + static_cast<std::size_t>(t) * ns, bound, total)) return 0;
  for (int q = 0; q < C; ++q) {
    total += static_cast<std::int64_t>(distance(wide.CD(t) + 2 * q, wide.CE(b) + 2 * q)) * WC.cont[q].weight;
    if (total > bound) return 0;
  }
  *ok = 1;
  return static_cast<std::int32_t>(total);
}

}  // namespace qax::search

namespace qax::search {

// After a change of topology (old children lists given): first-pass sets again where a
// node's children changed or a child's set changed, column by column; outside and branch
// sets where the sets they come from changed. The score follows the normalisers.
void Engine::wide_update(const std::vector<int>& old_left, const std::vector<int>& old_right) {
  const optim::WideColumns& WC = packed.wide;
  const auto& cols = WC.sankoff;
  const int ns = static_cast<int>(cols.size());
  const int C = wide.C;
  const int ncols = ns + C;
  const int B = (ncols + 63) / 64;
  const int cnt = inner_preorder();
  if (wide.lifted.size() != static_cast<std::size_t>(nn) * wide.V) wide.lift_all();
  dbits.assign(static_cast<std::size_t>(nn) * B, 0);
  ubits.assign(static_cast<std::size_t>(nn) * B, 0);
  std::vector<std::uint64_t>& need = need_bits;
  need.assign(B, 0);
  auto moved = [&](int v) {
    return !((left[v] == old_left[v] && right[v] == old_right[v]) || (left[v] == old_right[v] && right[v] == old_left[v]));
  };
  auto all = [&]() {
    for (int i = 0; i < B; ++i) need[i] = ~0ull;
    if (ncols % 64) need[B - 1] = (1ull << (ncols % 64)) - 1;
  };
  auto bits_of = [&](std::vector<std::uint64_t>& v, int n) { return v.data() + static_cast<std::size_t>(n) * B; };
  std::int32_t* ta = wtmp.data();
  wtmp.resize(4 * static_cast<std::size_t>(wide.V) + 8);
  ta = wtmp.data();
  std::int32_t* tb = ta + wide.V;
  std::int32_t* tc = tb + wide.V;
  std::int32_t range[2];
  // First pass.
  for (int k = cnt - 1; k >= 0; --k) {
    const int v = order[k], a = left[v], b = right[v];
    if (v != nt && old_left[v] < 0) {
      // A node new to the tree (an insertion): nothing of it counted yet.
      std::fill_n(wide.node_min.begin() + static_cast<std::ptrdiff_t>(v) * ns, ns, 0);
      std::fill_n(wide.node_gap.begin() + static_cast<std::ptrdiff_t>(v) * C, C, 0);
    }
    if (v == nt || moved(v)) all();
    else {
      const std::uint64_t* da = bits_of(dbits, a);
      const std::uint64_t* db = bits_of(dbits, b);
      bool any = false;
      for (int i = 0; i < B; ++i) { need[i] = da[i] | db[i]; any |= need[i] != 0; }
      if (!any) continue;
    }
    std::uint64_t* dv = bits_of(dbits, v);
    for (int i = 0; i < B; ++i)
      for (std::uint64_t m = need[i]; m; m &= m - 1) {
        const int q = i * 64 + __builtin_ctzll(m);
        if (q < ns) {
          const SankoffColumn& col = cols[q];
          const std::int32_t mn = optim::sankoff_combine(col, wide.L(a) + col.offset, optim::combine_plain, wide.L(b) + col.offset, optim::combine_plain, tc);
          std::int32_t& old_min = wide.node_min[static_cast<std::size_t>(v) * ns + q];
          if (v == nt) {
            // The root: states restricted, then its least cost.
            std::int32_t best = wide_infinity;
            for (int st = 0; st < col.k; ++st) {
              if (!(col.root_mask >> st & 1)) tc[st] = wide_infinity;
              best = std::min(best, tc[st]);
            }
            wide.sankoff_units += (static_cast<std::int64_t>(mn) + best - old_min - wide.root_best[q]) * col.weight * unit;
            wide.root_best[q] = best;
          } else {
            wide.sankoff_units += static_cast<std::int64_t>(mn - old_min) * col.weight * unit;
          }
          old_min = mn;
          std::int32_t* x = wide.D(v) + col.offset;
          if (std::memcmp(x, tc, sizeof(std::int32_t) * col.k) != 0) {
            copy_bytes(x, tc, sizeof(std::int32_t) * col.k);
            optim::sankoff_from_child(col, x, wide.L(v) + col.offset);
            dv[i] |= 1ull << (q % 64);
          }
        } else {
          const int j = q - ns;
          const std::int32_t* x = wide.CD(a) + 2 * j;
          const std::int32_t* y = wide.CD(b) + 2 * j;
          combine(x, y, range);
          const std::int32_t g = distance(x, y);
          std::int32_t& old_gap = wide.node_gap[static_cast<std::size_t>(v) * C + j];
          wide.cont_units += static_cast<std::int64_t>(g - old_gap) * WC.cont[j].weight;
          old_gap = g;
          std::int32_t* z = wide.CD(v) + 2 * j;
          if (z[0] != range[0] || z[1] != range[1]) {
            z[0] = range[0];
            z[1] = range[1];
            dv[i] |= 1ull << (q % 64);
          }
        }
      }
  }
  // What normalising took off below each node (asymmetric rerootings use it).
  for (int k = cnt - 1; k >= 0; --k) {
    const int v = order[k], a = left[v], b = right[v];
    std::int32_t* kv = wide.offsets.data() + static_cast<std::size_t>(v) * ns;
    const std::int32_t* mv = wide.node_min.data() + static_cast<std::size_t>(v) * ns;
    const std::int32_t* ka = a < nt ? nullptr : wide.offsets.data() + static_cast<std::size_t>(a) * ns;
    const std::int32_t* kb = b < nt ? nullptr : wide.offsets.data() + static_cast<std::size_t>(b) * ns;
    for (int q = 0; q < ns; ++q) kv[q] = sat(std::int64_t{mv[q]} + (ka ? ka[q] : 0) + (kb ? kb[q] : 0));
  }
  // Outside sets of column q of c: from its sister's first-pass set and its parent's
  // outside set (the root: the other child's, restricted to the allowed root states).
  auto outside_col = [&](int q, int c, int sib, int v) {
    std::uint64_t* uc = bits_of(ubits, c);
    if (q < ns) {
      const SankoffColumn& col = cols[q];
      if (v == nt) {
        const std::int32_t* la = wide.L(sib) + col.offset;
        for (int st = 0; st < col.k; ++st) tc[st] = (col.root_mask >> st & 1) ? la[st] : wide_infinity;
        optim::sankoff_combine(col, tc, optim::combine_plain, nullptr, optim::combine_plain, tc);
      } else {
        optim::sankoff_combine(col, wide.L(sib) + col.offset, optim::combine_plain, wide.U(v) + col.offset, optim::combine_from_parent, tc);
      }
      std::int32_t* x = wide.U(c) + col.offset;
      if (std::memcmp(x, tc, sizeof(std::int32_t) * col.k) != 0) {
        copy_bytes(x, tc, sizeof(std::int32_t) * col.k);
        uc[q / 64] |= 1ull << (q % 64);
      }
    } else {
      const int j = q - ns;
      if (v == nt) {
        range[0] = wide.CD(sib)[2 * j];
        range[1] = wide.CD(sib)[2 * j + 1];
      } else {
        combine(wide.CU(v) + 2 * j, wide.CD(sib) + 2 * j, range);
      }
      std::int32_t* z = wide.CU(c) + 2 * j;
      if (z[0] != range[0] || z[1] != range[1]) {
        z[0] = range[0];
        z[1] = range[1];
        uc[q / 64] |= 1ull << (q % 64);
      }
    }
  };
  for (int k = 0; k < cnt; ++k) {
    const int v = order[k];
    const bool mv = moved(v);
    for (int side = 0; side < 2; ++side) {
      const int c = side ? right[v] : left[v], sib = side ? left[v] : right[v];
      if (mv) all();
      else {
        const std::uint64_t* uv = v == nt ? nullptr : bits_of(ubits, v);
        const std::uint64_t* ds = bits_of(dbits, sib);
        bool any = false;
        for (int i = 0; i < B; ++i) { need[i] = (uv ? uv[i] : 0) | ds[i]; any |= need[i] != 0; }
        if (!any) continue;
      }
      for (int i = 0; i < B; ++i)
        for (std::uint64_t m = need[i]; m; m &= m - 1) outside_col(i * 64 + __builtin_ctzll(m), c, sib, v);
    }
  }
  // Branch sets where the first-pass or outside set changed (all of them below a node whose
  // children changed).
  for (int k = 0; k < cnt; ++k) {
    const int v = order[k];
    const bool mv = moved(v);
    for (int c : {left[v], right[v]}) {
      if (mv || (c >= nt && moved(c))) all();
      else {
        const std::uint64_t* dc = bits_of(dbits, c);
        const std::uint64_t* uc = bits_of(ubits, c);
        bool any = false;
        for (int i = 0; i < B; ++i) { need[i] = dc[i] | uc[i]; any |= need[i] != 0; }
        if (!any) continue;
      }
      std::uint32_t* masks = wide.masks.data() + static_cast<std::size_t>(c) * ns;
      for (int i = 0; i < B; ++i)
        for (std::uint64_t m = need[i]; m; m &= m - 1) {
          const int q = i * 64 + __builtin_ctzll(m);
          if (q < ns) {
            const SankoffColumn& col = cols[q];
            optim::sankoff_combine(col, wide.L(c) + col.offset, optim::combine_plain, wide.U(c) + col.offset, optim::combine_from_parent, wide.E(c) + col.offset,
                                   &masks[q]);
          } else {
            const int j = q - ns;
            combine(wide.CD(c) + 2 * j, wide.CU(c) + 2 * j, wide.CE(c) + 2 * j);
          }
        }
    }
  }
  wide_score = wide.score();
  for (int v : overlay) {
    e2p[v] = wide.E(v);
    ce2p[v] = wide.CE(v);
    m2p[v] = wide.masks.data() + static_cast<std::size_t>(v) * ns;
  }
  overlay.clear();
}

}  // namespace qax::search
