// Packing and passes of the wide columns (Sankoff and continuous).
#include "optim/wide.h"

#include <algorithm>
#include <bit>

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#endif

#include "dataset/costs.h"
#include "dataset/dataset.h"
#include "optim/packed.h"

namespace qax::optim {

using qax::dataset::dataset;

namespace {

inline std::int32_t sat(std::int64_t v) { return v >= wide_infinity ? wide_infinity : static_cast<std::int32_t>(v); }

// The range of two ranges: their intersection, or the gap between them; returns the gap.
inline std::int32_t combine(const std::int32_t* a, const std::int32_t* b, std::int32_t* out) {
  if (a[0] > b[1]) {
    const std::int32_t g = a[0] - b[1];
    out[0] = b[1];
    out[1] = a[0];
    return g;
  }
  if (b[0] > a[1]) {
    const std::int32_t g = b[0] - a[1];
    out[0] = a[1];
    out[1] = b[0];
    return g;
  }
  out[0] = std::max(a[0], b[0]);
  out[1] = std::min(a[1], b[1]);
  return 0;
}

// Subtracts the least finite cost of the column from its vector; returns it.
inline std::int32_t normalise_column(std::int32_t* x, int k) {
  std::int32_t m = wide_infinity;
  for (int s = 0; s < k; ++s) m = std::min(m, x[s]);
  if (m == 0 || m >= wide_infinity) return m >= wide_infinity ? 0 : 0;
  for (int s = 0; s < k; ++s)
    if (x[s] < wide_infinity) x[s] -= m;
  return m;
}

}  // namespace

void pack_wide_columns(WideColumns& w, const std::vector<int>& from_packed, const std::vector<std::uint8_t>& sankoff_chars) {
  w = WideColumns{};
  const int nterm = static_cast<int>(from_packed.size());
  const std::uint32_t missing = dataset.missing_value();
  w.sankoff_of.assign(dataset.nchar, -1);
  w.cont_of.assign(dataset.nchar, -1);
  for (int c = 0; c < dataset.nchar; ++c) {
    const auto& r = dataset.chars[c];
    if (c < static_cast<int>(sankoff_chars.size()) && sankoff_chars[c]) {
      SankoffColumn col;
      col.character = c;
      col.weight = r.weight;
      std::uint32_t seen = 0;
      for (int t : from_packed) {
        const std::uint32_t v = dataset.cell(t, c);
        if (v != missing) seen |= v;
      }
      const int user_max = qax::dataset::user_min_max.max_state(c);
      if (user_max >= 0) seen |= (user_max >= 31 ? ~0u : (2u << user_max) - 1);
      int dense[32];
      std::fill(std::begin(dense), std::end(dense), -1);
      for (std::uint32_t b = seen; b; b &= b - 1) {
        const int s = std::countr_zero(b);
        dense[s] = col.k;
        col.state_of[col.k++] = static_cast<std::int8_t>(s);
      }
      col.cost.assign(static_cast<std::size_t>(col.k) * col.k, 0);
      for (int i = 0; i < col.k; ++i)
        for (int j = 0; j < col.k; ++j)
          col.cost[i * col.k + j] = qax::dataset::cost_of(c, col.state_of[i], col.state_of[j]);
      for (int i = 0; i < col.k; ++i)
        for (int j = 0; j < col.k; ++j)
          if (col.cost[i * col.k + j] != col.cost[j * col.k + i]) col.asymmetric = true;
      col.root_mask = col.k >= 32 ? ~0u : (1u << col.k) - 1;
      if (r.ancestral && nterm > 0) {
        const std::uint32_t v = dataset.cell(from_packed[0], c);
        if (v != missing) {
          std::uint32_t m = 0;
          for (std::uint32_t b = v & seen; b; b &= b - 1) m |= 1u << dense[std::countr_zero(b)];
          if (m) col.root_mask = m;
        }
      }
      if (col.k <= wide_lanes) {
        col.lanes.assign(2 * static_cast<std::size_t>(col.k) * wide_lanes, wide_infinity);
        for (int a = 0; a < col.k; ++a)
          for (int t = 0; t < col.k; ++t) {
            col.lanes[static_cast<std::size_t>(a) * wide_lanes + t] = col.cost[t * col.k + a];
            col.lanes[static_cast<std::size_t>(col.k + a) * wide_lanes + t] = col.cost[a * col.k + t];
          }
      }
      col.offset = w.vector_length;
      w.sankoff_of[c] = static_cast<int>(w.sankoff.size());
      w.vector_length += col.k;
      w.sankoff.push_back(std::move(col));
    } else if (r.is_continuous && r.format == qax::dataset::format_continuous && r.active && r.weight != 0) {
      w.cont_of[c] = static_cast<int>(w.cont.size());
      w.cont.push_back(ContinuousColumn{c, r.weight});
    }
  }
  w.unit = w.cont.empty() ? 1 : 1000;
  w.term.assign(static_cast<std::size_t>(nterm) * w.vector_length, 0);
  for (int k = 0; k < nterm; ++k) {
    std::int32_t* v = w.term.data() + static_cast<std::size_t>(k) * w.vector_length;
    for (const SankoffColumn& col : w.sankoff) {
      const std::uint32_t cell = dataset.cell(from_packed[k], col.character);
      for (int s = 0; s < col.k; ++s)
        v[col.offset + s] = (cell == missing || (cell >> col.state_of[s] & 1)) ? 0 : wide_infinity;
    }
  }
  const int C = static_cast<int>(w.cont.size());
  w.term_range.assign(static_cast<std::size_t>(nterm) * 2 * C, 0);
  for (int k = 0; k < nterm; ++k)
    for (int j = 0; j < C; ++j) {
      std::uint32_t cell = dataset.cell(from_packed[k], w.cont[j].character);
      if (cell == qax::dataset::continuous_inapplicable) cell = qax::dataset::continuous_missing;
      w.term_range[(static_cast<std::size_t>(k) * C + j) * 2] = static_cast<std::int32_t>(cell & 0xFFFF);
      w.term_range[(static_cast<std::size_t>(k) * C + j) * 2 + 1] = static_cast<std::int32_t>(cell >> 16);
    }
}

namespace {

// The two transfers with the number of states known when compiling, so that the loops over
// states unroll; a row whose own entry is 0 is a state of least cost and needs no search.
template <int K, bool FromParent>
inline void transfer_fixed(const std::int32_t* __restrict c, const std::int32_t* __restrict v,
                           std::int32_t* __restrict out) noexcept {
  for (int t = 0; t < K; ++t) {
    std::int32_t best = v[t];   // cost[t][t] is 0
    if (best == 0) {            // a state of least cost (costs are never negative)
      out[t] = 0;
      continue;
    }
    for (int a = 0; a < K; ++a) best = std::min(best, (FromParent ? c[a * K + t] : c[t * K + a]) + v[a]);
    out[t] = best >= wide_infinity ? wide_infinity : best;
  }
}

template <bool FromParent>
inline void transfer_any(int k, const std::int32_t* c, const std::int32_t* v, std::int32_t* out) noexcept {
  for (int t = 0; t < k; ++t) {
    std::int32_t best = v[t];
    if (best == 0) {
      out[t] = 0;
      continue;
    }
    for (int a = 0; a < k; ++a) best = std::min(best, (FromParent ? c[a * k + t] : c[t * k + a]) + v[a]);
    out[t] = best >= wide_infinity ? wide_infinity : best;
  }
}

#if defined(__x86_64__) || defined(__i386__)
// The first k lanes of x into out[0..k): plain stores, overlapping for k below 8, which are
// much faster than a masked store on some processors.
__attribute__((target("avx2"))) inline void store_lanes(std::int32_t* out, __m256i x, int k) noexcept {
  if (k == 8) {
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(out), x);
  } else if (k >= 4) {
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out), _mm256_castsi256_si128(x));
    const __m256i from = _mm256_add_epi32(_mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7), _mm256_set1_epi32(k - 4));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out + k - 4), _mm256_castsi256_si128(_mm256_permutevar8x32_epi32(x, from)));
  } else if (k >= 2) {
    _mm_storel_epi64(reinterpret_cast<__m128i*>(out), _mm256_castsi256_si128(x));
    if (k == 3) out[2] = _mm256_extract_epi32(x, 2);
  } else if (k == 1) {
    out[0] = _mm256_cvtsi256_si32(x);
  }
}

// Eight states at once: for each state a of the other end, its cost plus the lanes of row a,
// the least kept per lane. Chosen once at start where the processor has AVX2.
__attribute__((target("avx2"))) void transfer_lanes_avx2(const std::int32_t* lanes, int k, const std::int32_t* v,
                                                          std::int32_t* out) noexcept {
  __m256i best = _mm256_set1_epi32(wide_infinity);
  for (int a = 0; a < k; ++a) {
    const __m256i row = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(lanes + a * wide_lanes));
    best = _mm256_min_epi32(best, _mm256_add_epi32(row, _mm256_set1_epi32(v[a])));
  }
  // Only the column's own k entries are written: columns lie side by side in a vector.
  store_lanes(out, best, k);
}

// One operand of a combination in lanes: the vector as it is (lanes past k get 0), or
// transferred from a child or from a parent.
__attribute__((target("avx2"))) inline __m256i operand_lanes(const SankoffColumn& col, const std::int32_t* v, int how,
                                                            __m256i keep) noexcept {
  if (how == combine_plain) return _mm256_maskload_epi32(v, keep);
  const std::int32_t* lanes = col.lanes.data() + (how == combine_from_parent ? col.k * wide_lanes : 0);
  __m256i best = _mm256_set1_epi32(wide_infinity);
  for (int a = 0; a < col.k; ++a) {
    const __m256i row = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(lanes + a * wide_lanes));
    best = _mm256_min_epi32(best, _mm256_add_epi32(row, _mm256_set1_epi32(v[a])));
  }
  return best;
}

__attribute__((target("avx2"))) std::int32_t combine_lanes(const SankoffColumn& col, const std::int32_t* a, int how_a,
                                                            const std::int32_t* b, int how_b, std::int32_t* out,
                                                            std::uint32_t* zeros) noexcept {
  alignas(32) static const std::int32_t first[16] = {-1, -1, -1, -1, -1, -1, -1, -1, 0, 0, 0, 0, 0, 0, 0, 0};
  const int k = col.k;
  const __m256i keep = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(first + wide_lanes - k));
  const __m256i inf = _mm256_set1_epi32(wide_infinity);
  __m256i x = operand_lanes(col, a, how_a, keep);
  if (b) x = _mm256_min_epi32(_mm256_add_epi32(x, operand_lanes(col, b, how_b, keep)), inf);
  x = _mm256_blendv_epi8(inf, x, keep);
  __m256i m = _mm256_min_epi32(x, _mm256_permute2x128_si256(x, x, 1));
  m = _mm256_min_epi32(m, _mm256_shuffle_epi32(m, 0x4E));
  m = _mm256_min_epi32(m, _mm256_shuffle_epi32(m, 0xB1));
  std::int32_t least = _mm256_cvtsi256_si32(m);
  if (least >= wide_infinity) least = 0;
  else if (least > 0) x = _mm256_sub_epi32(x, _mm256_and_si256(m, _mm256_cmpgt_epi32(inf, x)));
  store_lanes(out, x, k);
  if (zeros)
    *zeros = static_cast<std::uint32_t>(_mm256_movemask_ps(_mm256_castsi256_ps(_mm256_cmpeq_epi32(x, _mm256_setzero_si256())))) &
             ((1u << k) - 1);
  return least;
}

bool lanes_supported() noexcept {
  __builtin_cpu_init();
  return __builtin_cpu_supports("avx2");
}
#else
void transfer_lanes_avx2(const std::int32_t*, int, const std::int32_t*, std::int32_t*) noexcept {}
std::int32_t combine_lanes(const SankoffColumn&, const std::int32_t*, int, const std::int32_t*, int, std::int32_t*,
                           std::uint32_t*) noexcept {
  return 0;
}
bool lanes_supported() noexcept { return false; }
#endif

const bool use_lanes = lanes_supported();

template <bool FromParent>
inline void transfer(const SankoffColumn& col, const std::int32_t* v, std::int32_t* out) noexcept {
  if (use_lanes && !col.lanes.empty()) {
    transfer_lanes_avx2(col.lanes.data() + (FromParent ? col.k * wide_lanes : 0), col.k, v, out);
    return;
  }
  const std::int32_t* c = col.cost.data();
  switch (col.k) {
    case 2: transfer_fixed<2, FromParent>(c, v, out); return;
    case 3: transfer_fixed<3, FromParent>(c, v, out); return;
    case 4: transfer_fixed<4, FromParent>(c, v, out); return;
    case 5: transfer_fixed<5, FromParent>(c, v, out); return;
    case 6: transfer_fixed<6, FromParent>(c, v, out); return;
    case 7: transfer_fixed<7, FromParent>(c, v, out); return;
    case 8: transfer_fixed<8, FromParent>(c, v, out); return;
    default: transfer_any<FromParent>(col.k, c, v, out); return;
  }
}

}  // namespace

std::int32_t sankoff_combine(const SankoffColumn& col, const std::int32_t* a, int how_a, const std::int32_t* b,
                             int how_b, std::int32_t* out, std::uint32_t* zeros) noexcept {
  if (use_lanes && !col.lanes.empty()) return combine_lanes(col, a, how_a, b, how_b, out, zeros);
  const int k = col.k;
  std::int32_t ta[32], tb[32];
  auto take = [&](const std::int32_t* v, int how, std::int32_t* t) -> const std::int32_t* {
    if (how == combine_plain) return v;
    if (how == combine_from_child) transfer<false>(col, v, t);
    else transfer<true>(col, v, t);
    return t;
  };
  const std::int32_t* x = take(a, how_a, ta);
  const std::int32_t* y = b ? take(b, how_b, tb) : nullptr;
  std::int32_t least = wide_infinity;
  for (int s = 0; s < k; ++s) {
    out[s] = y ? sat(std::int64_t{x[s]} + y[s]) : x[s];
    least = std::min(least, out[s]);
  }
  if (least >= wide_infinity) least = 0;
  else if (least > 0)
    for (int s = 0; s < k; ++s)
      if (out[s] < wide_infinity) out[s] -= least;
  if (zeros) {
    std::uint32_t z = 0;
    for (int s = 0; s < k; ++s) z |= static_cast<std::uint32_t>(out[s] == 0) << s;
    *zeros = z;
  }
  return least;
}

void sankoff_from_child(const SankoffColumn& col, const std::int32_t* v, std::int32_t* out) noexcept {
  transfer<false>(col, v, out);
}

void sankoff_from_parent(const SankoffColumn& col, const std::int32_t* v, std::int32_t* out) noexcept {
  transfer<true>(col, v, out);
}

void WideState::lift_all() {
  const WideColumns& w = packed.wide;
  lifted.resize(static_cast<std::size_t>(nn) * V);
  for (int n = 0; n < nn; ++n)
    for (const SankoffColumn& col : w.sankoff) sankoff_from_child(col, D(n) + col.offset, L(n) + col.offset);
}

void WideState::init() {
  const WideColumns& w = packed.wide;
  nt = packed.nterm;
  nn = nt > 0 ? 2 * nt - 1 : 0;
  V = w.vector_length;
  C = static_cast<int>(w.cont.size());
  down.assign(static_cast<std::size_t>(nn) * V, 0);
  up.assign(static_cast<std::size_t>(nn) * V, 0);
  edge.assign(static_cast<std::size_t>(nn) * V, 0);
  cdown.assign(static_cast<std::size_t>(nn) * 2 * C, 0);
  cup.assign(static_cast<std::size_t>(nn) * 2 * C, 0);
  cedge.assign(static_cast<std::size_t>(nn) * 2 * C, 0);
  scratch.assign(2 * static_cast<std::size_t>(V) + 64, 0);
  column_steps.assign(w.sankoff.size() + C, 0);
  if (V) std::copy(w.term.begin(), w.term.end(), down.begin());
  if (C) std::copy(w.term_range.begin(), w.term_range.end(), cdown.begin());
}

void WideState::down_node(int n, int l, int r) {
  down_node_into(D(l), D(r), CD(l), CD(r), D(n), CD(n), nullptr);
}

void WideState::down_node_into(const std::int32_t* dl, const std::int32_t* dr, const std::int32_t* cl,
                               const std::int32_t* cr, std::int32_t* out, std::int32_t* cout,
                               std::int32_t* minima) {
  const WideColumns& w = packed.wide;
  for (std::size_t j = 0; j < w.sankoff.size(); ++j) {
    const SankoffColumn& col = w.sankoff[j];
    const std::int32_t m =
        sankoff_combine(col, dl + col.offset, combine_from_child, dr + col.offset, combine_from_child, out + col.offset);
    if (minima) minima[j] = m;
  }
  for (int j = 0; j < C; ++j) combine(cl + 2 * j, cr + 2 * j, cout + 2 * j);
}

void WideState::up_node_into(const std::int32_t* dsib, const std::int32_t* uparent, const std::int32_t* csib,
                             const std::int32_t* cuparent, std::int32_t* out, std::int32_t* cout) {
  const WideColumns& w = packed.wide;
  for (const SankoffColumn& col : w.sankoff)
    sankoff_combine(col, dsib + col.offset, combine_from_child, uparent + col.offset, combine_from_parent, out + col.offset);
  for (int j = 0; j < C; ++j) combine(cuparent + 2 * j, csib + 2 * j, cout + 2 * j);
}

void WideState::edge_into(const std::int32_t* d, const std::int32_t* u, const std::int32_t* cd, const std::int32_t* cu,
                          std::int32_t* out, std::int32_t* cout, std::uint32_t* masks) {
  const WideColumns& w = packed.wide;
  for (std::size_t j = 0; j < w.sankoff.size(); ++j) {
    const SankoffColumn& col = w.sankoff[j];
    std::uint32_t mask = 0;
    sankoff_combine(col, d + col.offset, combine_from_child, u + col.offset, combine_from_parent, out + col.offset, &mask);
    if (masks) masks[j] = mask;
  }
  for (int j = 0; j < C; ++j) combine(cd + 2 * j, cu + 2 * j, cout + 2 * j);
}

std::int64_t WideState::compute(const int* left, const int* right, const int* order, int count, bool second,
                                bool per_column) {
  const WideColumns& w = packed.wide;
  sankoff_units = cont_units = 0;
  if (per_column) std::fill(column_steps.begin(), column_steps.end(), 0);
  if (count <= 0) return 0;
  const int ns = static_cast<int>(w.sankoff.size());
  minima.resize(ns + 1);
  offsets.resize(static_cast<std::size_t>(nn) * ns + 1);
  node_min.resize(static_cast<std::size_t>(nn) * ns + 1);
  node_gap.resize(static_cast<std::size_t>(nn) * C + 1);
  root_best.resize(ns + 1);
  for (int i = count - 1; i >= 0; --i) {
    const int n = order[i], l = left[n], r = right[n];
    down_node_into(D(l), D(r), CD(l), CD(r), D(n), CD(n), minima.data());
    std::int32_t* kn = offsets.data() + static_cast<std::size_t>(n) * ns;
    const std::int32_t* kl = l < nt ? nullptr : offsets.data() + static_cast<std::size_t>(l) * ns;
    const std::int32_t* kr = r < nt ? nullptr : offsets.data() + static_cast<std::size_t>(r) * ns;
    for (int j = 0; j < ns; ++j) kn[j] = sat(std::int64_t{minima[j]} + (kl ? kl[j] : 0) + (kr ? kr[j] : 0));
    std::copy(minima.begin(), minima.begin() + ns, node_min.begin() + static_cast<std::size_t>(n) * ns);
    if (n != nt)
      for (int j = 0; j < ns; ++j) {
        sankoff_units += static_cast<std::int64_t>(minima[j]) * w.sankoff[j].weight * w.unit;
        if (per_column) column_steps[j] += minima[j];
      }
    for (int j = 0; j < C; ++j) {
      const std::int32_t* x = CD(l) + 2 * j;
      const std::int32_t* y = CD(r) + 2 * j;
      const std::int32_t g = x[0] > y[1] ? x[0] - y[1] : y[0] > x[1] ? y[0] - x[1] : 0;
      node_gap[static_cast<std::size_t>(n) * C + j] = g;
      cont_units += static_cast<std::int64_t>(g) * w.cont[j].weight;
      if (per_column) column_steps[ns + j] += g;
    }
  }
  // The root: only the allowed states, and the cheapest gives the rest of the column's cost
  // (the root's vector was normalised before the states were restricted).
  std::int32_t* root = D(nt);
  for (int j = 0; j < ns; ++j) {
    const SankoffColumn& col = w.sankoff[j];
    std::int32_t best = wide_infinity;
    for (int s = 0; s < col.k; ++s) {
      if (!(col.root_mask >> s & 1)) root[col.offset + s] = wide_infinity;
      best = std::min(best, root[col.offset + s]);
    }
    root_best[j] = best;
    const std::int64_t total = static_cast<std::int64_t>(minima[j]) + best;
    sankoff_units += total * col.weight * w.unit;
    if (per_column) column_steps[j] += total;
  }
  if (second) {
    const int l0 = left[nt], x = right[nt];
    for (int side = 0; side < 2; ++side) {
      const int c = side ? l0 : x, o = side ? x : l0;
      root_outside(D(o), CD(o), U(c), CU(c));
    }
    for (int i = 1; i < count; ++i) {
      const int v = order[i];
      for (int side = 0; side < 2; ++side) {
        const int c = side ? right[v] : left[v], sib = side ? left[v] : right[v];
        up_node_into(D(sib), U(v), CD(sib), CU(v), U(c), CU(c));
      }
    }
    // Branch sets of every node but the root.
    masks.resize(static_cast<std::size_t>(nn) * ns + 1);
    for (int i = 0; i < count; ++i) {
      const int v = order[i];
      for (int c : {left[v], right[v]}) edge_into(D(c), U(c), CD(c), CU(c), E(c), CE(c), masks.data() + c * ns);
    }
  }
  return sankoff_units + cont_units;
}

void WideState::root_outside(const std::int32_t* d_other, const std::int32_t* c_other, std::int32_t* out,
                             std::int32_t* cout) {
  const WideColumns& w = packed.wide;
  for (const SankoffColumn& col : w.sankoff) {
    sankoff_from_child(col, d_other + col.offset, out + col.offset);
    for (int s = 0; s < col.k; ++s)
      if (!(col.root_mask >> s & 1)) out[col.offset + s] = wide_infinity;
    normalise_column(out + col.offset, col.k);
  }
  std::copy(c_other, c_other + 2 * C, cout);
}

double WideState::score() const noexcept {
  const int unit = packed.wide.unit;
  return static_cast<double>(sankoff_units / unit) +
         static_cast<double>(cont_units + packed.wide.extra_thousandths) / 1000.0;
}

}  // namespace qax::optim
