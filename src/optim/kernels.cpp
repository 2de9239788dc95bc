// The bit kernels and their selection. One source, three instantiations: 32-bit words with
// the popcount table, 64-bit words with the table, 256-bit vectors with hardware popcount.
#include "optim/kernels.h"

#include <bit>

#include "optim/field_ops.h"

namespace qax::optim {

using namespace qax::optim::ops;

namespace {

std::uint8_t popcount_table[65536];
[[maybe_unused]] const bool table_ready = [] {
  for (int i = 0; i < 65536; ++i) popcount_table[i] = static_cast<std::uint8_t>(std::popcount(static_cast<unsigned>(i)));
  return true;
}();

// Marked fields of one chunk; vectors use the popcount instruction of their target.
template <int C, class V> QAX_INLINE int count_fields(V e) {
  if constexpr (sizeof(V) == 32) {
    return __builtin_popcountll(e[0]) + __builtin_popcountll(e[1]) + __builtin_popcountll(e[2]) +
           __builtin_popcountll(e[3]);
  } else {
    return count_table<C>(popcount_table, e);
  }
}

enum Count { count_equal = 0, count_word = 1, count_column = 2 };

// Weighted count of the marks of one 32-bit word w (weighted modes run on 32-bit words only).
template <int C, int M> QAX_INLINE std::int32_t weigh(const Layout& L, int w, std::uint32_t e) {
  if constexpr (M == count_word) {
    return count_table<C>(popcount_table, e) * L.word_weight[w];
  } else {
    // Column walk: the mark of field k is bit k*width (class 0) or k*width+width-1, so
    // ctz >> log2(width) is the field. Example class 0, e = 0x14 -> fields 1 and 2.
    constexpr int shift = C == 0 ? 1 : C == 1 ? 2 : 3;
    std::int32_t s = 0;
    const std::int32_t* fw = L.field_weight + L.record_base[w];
    for (; e; e &= e - 1) s += fw[std::countr_zero(e) >> shift];
    return s;
  }
}

// ---- First pass ---------------------------------------------------------------------------
// One node, class 1, a = 0x21 (fields: {0}, {1}), b = 0x41 (fields: {0}, {2}):
//   x = 0x01, empty = 0x80 (field 1), full = 0xF0, down = 0x01 | (0x61 & 0xF0) = 0x61,
//   union mask = 0x61 | 0xF0 = 0xF1, one step.
template <int C, class V, int M> QAX_INLINE std::int32_t down_chunk(const Layout& L, int i, const std::uint32_t* a,
                                                                      const std::uint32_t* b, std::uint32_t* d,
                                                                      std::uint32_t* u) {
  V va = load<V>(a + i), vb = load<V>(b + i);
  V x = va & vb;
  V e = empty_of<C>(x);
  V full = full_of<C>(e);
  store<V>(d + i, x | ((va | vb) & full));
  store<V>(u + i, va | vb | full);
  if constexpr (M == count_equal) return count_fields<C>(e);
  else return weigh<C, M>(L, i, static_cast<std::uint32_t>(e));
}

template <int C, class V, int M> QAX_INLINE std::int32_t down_region(const Layout& L, int s, int e, const std::uint32_t* a,
                                                                       const std::uint32_t* b, std::uint32_t* d,
                                                                       std::uint32_t* u) {
  std::int32_t steps = 0;
  int i = s;
  if constexpr (sizeof(V) == 32)
    for (; i + 8 <= e; i += 8) steps += down_chunk<C, V, M>(L, i, a, b, d, u);
  if constexpr (sizeof(V) >= 8)
    for (; i + 2 <= e; i += 2) steps += down_chunk<C, std::uint64_t, M>(L, i, a, b, d, u);
  for (; i < e; ++i) steps += down_chunk<C, std::uint32_t, M>(L, i, a, b, d, u);
  return steps;
}

// Class 4: one 32-state field per word; a step when the intersection is empty.
QAX_INLINE std::int32_t down_wide(const Layout& L, const std::uint32_t* a, const std::uint32_t* b, std::uint32_t* d,
                                  std::uint32_t* u) {
  std::int32_t steps = 0;
  for (int i = L.end2; i < L.end4; ++i) {
    std::uint32_t x = a[i] & b[i], un = a[i] | b[i];
    std::uint32_t full = x ? 0u : ~0u;
    d[i] = x | (un & full);
    u[i] = un | full;
    steps += x ? 0 : L.word_weight[i];
  }
  return steps;
}

template <class V, int M> QAX_INLINE std::int32_t down_pass_impl(const Layout& L, const NodeSets* ns, const int* order,
                                                                 int count, const int* left, const int* right) {
  std::int32_t steps = 0;
  for (int k = count - 1; k >= 0; --k) {
    const int n = order[k];
    const std::uint32_t* __restrict a = ns[left[n]].down_set;
    const std::uint32_t* __restrict b = ns[right[n]].down_set;
    std::uint32_t* __restrict d = ns[n].down_set;
    std::uint32_t* __restrict u = ns[n].union_mask;
    steps += down_region<0, V, M>(L, 0, L.end0, a, b, d, u);
    steps += down_region<1, V, M>(L, L.end0, L.end1, a, b, d, u);
    steps += down_region<2, V, M>(L, L.end1, L.end2, a, b, d, u);
    steps += down_wide(L, a, b, d, u);
  }
  return steps;
}

// ---- Second pass --------------------------------------------------------------------------
template <int C, class V> QAX_INLINE void up_chunk(int i, const std::uint32_t* d, const std::uint32_t* u,
                                                   const std::uint32_t* f, std::uint32_t* fin, std::uint32_t* br) {
  V vd = load<V>(d + i), vf = load<V>(f + i);
  V r = final_of<C>(vd, load<V>(u + i), vf);
  store<V>(fin + i, r);
  store<V>(br + i, r | vf);
}
// A terminal's branch set: f where f lies inside d, else f | d.
template <int C, class V> QAX_INLINE void tip_chunk(int i, const std::uint32_t* d, const std::uint32_t* f,
                                                    std::uint32_t* br) {
  V vd = load<V>(d + i), vf = load<V>(f + i);
  store<V>(br + i, vf | (nonzero_of<C>(vf & ~vd) & vd));
}

template <int C, class V, bool Tip> QAX_INLINE void up_region(int s, int e, const std::uint32_t* d, const std::uint32_t* u,
                                                              const std::uint32_t* f, std::uint32_t* fin,
                                                              std::uint32_t* br) {
  int i = s;
  if constexpr (sizeof(V) == 32)
    for (; i + 8 <= e; i += 8) Tip ? tip_chunk<C, V>(i, d, f, br) : up_chunk<C, V>(i, d, u, f, fin, br);
  if constexpr (sizeof(V) >= 8)
    for (; i + 2 <= e; i += 2)
      Tip ? tip_chunk<C, std::uint64_t>(i, d, f, br) : up_chunk<C, std::uint64_t>(i, d, u, f, fin, br);
  for (; i < e; ++i) Tip ? tip_chunk<C, std::uint32_t>(i, d, f, br) : up_chunk<C, std::uint32_t>(i, d, u, f, fin, br);
}

template <bool Tip> QAX_INLINE void up_wide(const Layout& L, const std::uint32_t* d, const std::uint32_t* u,
                                            const std::uint32_t* f, std::uint32_t* fin, std::uint32_t* br) {
  for (int i = L.end2; i < L.end4; ++i) {
    const std::uint32_t mask = (f[i] & ~d[i]) ? ~0u : 0u;
    if constexpr (Tip) {
      br[i] = f[i] | (mask & d[i]);
    } else {
      const std::uint32_t r = (((d[i] | (u[i] & f[i])) ^ f[i]) & mask) ^ f[i];
      fin[i] = r;
      br[i] = r | f[i];
    }
  }
}

template <class V, bool Tip> QAX_INLINE void up_node(const Layout& L, const std::uint32_t* d, const std::uint32_t* u,
                                                     const std::uint32_t* f, std::uint32_t* fin, std::uint32_t* br) {
  up_region<0, V, Tip>(0, L.end0, d, u, f, fin, br);
  up_region<1, V, Tip>(L.end0, L.end1, d, u, f, fin, br);
  up_region<2, V, Tip>(L.end1, L.end2, d, u, f, fin, br);
  up_wide<Tip>(L, d, u, f, fin, br);
}

template <class V> QAX_INLINE void up_pass_impl(const Layout& L, const NodeSets* ns, const int* order, int count,
                                                const int* anc, int nterm, int terminals) {
  const int root = order[0];
  for (int i = 0; i < L.nwords; ++i) ns[root].final_set[i] = ns[root].down_set[i];
  for (int k = 1; k < count; ++k) {
    const int n = order[k];
    up_node<V, false>(L, ns[n].down_set, ns[n].union_mask, ns[anc[n]].final_set, ns[n].final_set, ns[n].branch_set);
  }
  if (!terminals) return;
  for (int t = nterm - 1; t >= 1; --t) {
    if (anc[t] < 0) continue;
    up_node<V, true>(L, ns[t].down_set, nullptr, ns[anc[t]].final_set, nullptr, ns[t].branch_set);
  }
  for (int i = 0; i < L.nwords; ++i) ns[0].branch_set[i] = ns[root].down_set[i];
}

// ---- Join ---------------------------------------------------------------------------------
// Cost of putting the clip on a branch: the fields where clip and branch sets do not meet.
// Class 0, two fields written high to low: clip 10'01 ({1} and {0}), branch 01'11 ({0} and
// {0,1}): x = 00'01, empty = 01'00 -> one step, in the high field. The sum is checked
// against the bound after every chunk: the first excess stops the join (join_ok 0).
template <int C, class V, int M, bool Between> QAX_INLINE std::int32_t join_chunk(const Layout& L, int i,
                                                                                 const std::uint32_t* c,
                                                                                 const std::uint32_t* t1,
                                                                                 const std::uint32_t* t2) {
  V t = load<V>(t1 + i);
  if constexpr (Between) t = t | load<V>(t2 + i);
  V e = empty_of<C>(load<V>(c + i) & t);
  if constexpr (M == count_equal) return count_fields<C>(e);
  else return weigh<C, M>(L, i, static_cast<std::uint32_t>(e));
}

template <int C, class V, int M, bool Between> QAX_INLINE bool join_region(const Layout& L, int s, int e,
                                                                          const std::uint32_t* c,
                                                                          const std::uint32_t* t1,
                                                                          const std::uint32_t* t2, std::int32_t& sum,
                                                                          std::int32_t bound) {
  int i = s;
  if constexpr (sizeof(V) == 32)
    for (; i + 8 <= e; i += 8)
      if ((sum += join_chunk<C, V, M, Between>(L, i, c, t1, t2)) > bound) return false;
  if constexpr (sizeof(V) >= 8)
    for (; i + 2 <= e; i += 2)
      if ((sum += join_chunk<C, std::uint64_t, M, Between>(L, i, c, t1, t2)) > bound) return false;
  for (; i < e; ++i)
    if ((sum += join_chunk<C, std::uint32_t, M, Between>(L, i, c, t1, t2)) > bound) return false;
  return true;
}

template <class V, int M, bool Between> QAX_INLINE std::int32_t join_impl(const Layout& L, const std::uint32_t* c,
                                                                         const std::uint32_t* t1,
                                                                         const std::uint32_t* t2, std::int32_t bound,
                                                                         std::int32_t* ok) {
  std::int32_t sum = 0;
  *ok = 0;
  if (!join_region<0, V, M, Between>(L, 0, L.end0, c, t1, t2, sum, bound)) return sum;
  if (!join_region<1, V, M, Between>(L, L.end0, L.end1, c, t1, t2, sum, bound)) return sum;
  if (!join_region<2, V, M, Between>(L, L.end1, L.end2, c, t1, t2, sum, bound)) return sum;
  for (int i = L.end2; i < L.end4; ++i) {
    std::uint32_t t = t1[i];
    if constexpr (Between) t |= t2[i];
    if (!(c[i] & t) && (sum += L.word_weight[i]) > bound) return sum;
  }
  *ok = 1;
  return sum;
}

// ---- Instantiations -----------------------------------------------------------------------
#define QAX_VARIANT(NAME, V, M, ATTR)                                                                               \
  ATTR std::int32_t down_##NAME(const Layout& L, const NodeSets* ns, const int* o, int n, const int* l,           \
                                const int* r) {                                                                   \
    return down_pass_impl<V, M>(L, ns, o, n, l, r);                                                               \
  }                                                                                                               \
  ATTR std::int32_t join_##NAME(const Layout& L, const std::uint32_t* c, const std::uint32_t* a,                  \
                                const std::uint32_t* b, std::int32_t bound, std::int32_t* ok) {                   \
    return join_impl<V, M, false>(L, c, a, b, bound, ok);                                                         \
  }                                                                                                               \
  ATTR std::int32_t between_##NAME(const Layout& L, const std::uint32_t* c, const std::uint32_t* a,               \
                                   const std::uint32_t* b, std::int32_t bound, std::int32_t* ok) {                \
    return join_impl<V, M, true>(L, c, a, b, bound, ok);                                                          \
  }

#define QAX_AVX2 __attribute__((target("avx2,popcnt")))
QAX_VARIANT(w32_equal, std::uint32_t, count_equal, )
QAX_VARIANT(w32_word, std::uint32_t, count_word, )
QAX_VARIANT(w32_column, std::uint32_t, count_column, )
QAX_VARIANT(w64_equal, std::uint64_t, count_equal, )
QAX_VARIANT(avx2_equal, v4u64, count_equal, QAX_AVX2)

void up_w32(const Layout& L, const NodeSets* ns, const int* o, int n, const int* a, int nt, int tips) {
  up_pass_impl<std::uint32_t>(L, ns, o, n, a, nt, tips);
}
void up_w64(const Layout& L, const NodeSets* ns, const int* o, int n, const int* a, int nt, int tips) {
  up_pass_impl<std::uint64_t>(L, ns, o, n, a, nt, tips);
}
QAX_AVX2 void up_avx2(const Layout& L, const NodeSets* ns, const int* o, int n, const int* a, int nt, int tips) {
  up_pass_impl<v4u64>(L, ns, o, n, a, nt, tips);
}

}  // namespace

const std::uint8_t* popcount16 = popcount_table;

int kernel_override = kernel_auto;
Kernels kernels;

CpuFeatures detect_cpu() noexcept {
  CpuFeatures f;
  __builtin_cpu_init();
  f.avx2 = __builtin_cpu_supports("avx2") && __builtin_cpu_supports("popcnt");
  return f;
}

Kernels select_kernels(const Packed& plan, CpuFeatures cpu, int choice) noexcept {
  Kernels k;
  if (plan.weight_mode == weights_word) {
    k = {"32-bit word weights", kernel_32, down_w32_word, up_w32, join_w32_word, between_w32_word};
    return k;
  }
  if (plan.weight_mode == weights_column) {
    k = {"32-bit column weights", kernel_32, down_w32_column, up_w32, join_w32_column, between_w32_column};
    return k;
  }
  if (choice == kernel_auto) choice = cpu.avx2 ? kernel_avx2 : plan.xbit ? kernel_64 : kernel_32;
  if (choice == kernel_avx2 && !cpu.avx2) choice = kernel_64;
  switch (choice) {
    case kernel_avx2: return {"avx2", kernel_avx2, down_avx2_equal, up_avx2, join_avx2_equal, between_avx2_equal};
    case kernel_64: return {"64-bit", kernel_64, down_w64_equal, up_w64, join_w64_equal, between_w64_equal};
    default: return {"32-bit", kernel_32, down_w32_equal, up_w32, join_w32_equal, between_w32_equal};
  }
}

void select_kernels_for_pack() noexcept {
  static const CpuFeatures cpu = detect_cpu();
  kernels = select_kernels(packed, cpu, kernel_override);
}

}  // namespace qax::optim
