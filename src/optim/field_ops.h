// Field arithmetic shared by all kernel variants: the same expressions on 32-bit words,
// 64-bit words and 256-bit vectors (GCC vector extension), so that the variants are
// template instantiations of one source. Everything here is forced inline so that it takes
// the instruction set of the kernel that calls it.
#pragma once

#include <cstdint>
#include <cstring>

#define QAX_INLINE [[gnu::always_inline]] inline

#pragma GCC diagnostic ignored "-Wpsabi"

namespace qax::optim::ops {

typedef std::uint64_t v4u64 __attribute__((vector_size(32)));

template <class V> struct lane { using type = V; };
template <> struct lane<v4u64> { using type = std::uint64_t; };

// A 32-bit pattern repeated over the lane: 0x55555555 -> 0x5555555555555555 for 64 bits.
template <class V> QAX_INLINE typename lane<V>::type pat(std::uint32_t p) {
  using L = typename lane<V>::type;
  return static_cast<L>(static_cast<L>(p) * static_cast<L>(0x100000001ull));
}

template <class V> QAX_INLINE V load(const std::uint32_t* p) {
  V v;
  std::memcpy(&v, p, sizeof(V));
  return v;
}
template <class V> QAX_INLINE void store(std::uint32_t* p, V v) { std::memcpy(p, &v, sizeof(V)); }

// empty_of<C>(x), x = a & b: one bit per field whose intersection is empty.
//   class 0 (2-bit): the low bit of the field.   x = 01 00 10 -> empty = 00 01 00
//   class 1 (4-bit): the top bit of the field. For x = 0x0300: (x & 0x7777) + 0x7777 = 0x7A77,
//     fields 0, 1, 3 have their top bit clear both there and in x -> empty = 0x8088.
//   class 2 (8-bit): the same with 0x7F and 0x80.
//   class 4 (32-bit): handled on 32-bit words only, by `x == 0`.
template <int C, class V> QAX_INLINE V empty_of(V x) {
  if constexpr (C == 0) return ~((x >> 1) | x) & pat<V>(0x55555555u);
  else if constexpr (C == 1) return ~(((x & pat<V>(0x77777777u)) + pat<V>(0x77777777u)) | x) & pat<V>(0x88888888u);
  else return ~(((x & pat<V>(0x7F7F7F7Fu)) + pat<V>(0x7F7F7F7Fu)) | x) & pat<V>(0x80808080u);
}

// full_of<C>(e): every bit of each field marked in e. Class 1: e = 0x8 -> 0x8 | (0x8 - 0x1) = 0xF.
template <int C, class V> QAX_INLINE V full_of(V e) {
  if constexpr (C == 0) return e | (e << 1);
  else if constexpr (C == 1) return e | (e - (e >> 3));
  else return e | (e - (e >> 7));
}

// nonzero_of<C>(m): every bit of each field of m that is not zero.
template <int C, class V> QAX_INLINE V nonzero_of(V m) {
  if constexpr (C == 0) {
    V t = (m | (m >> 1)) & pat<V>(0x55555555u);
    return t | (t << 1);
  } else if constexpr (C == 1) {
    V t = (((m & pat<V>(0x77777777u)) + pat<V>(0x77777777u)) | m) & pat<V>(0x88888888u);
    return t | (t - (t >> 3));
  } else {
    V t = (((m & pat<V>(0x7F7F7F7Fu)) + pat<V>(0x7F7F7F7Fu)) | m) & pat<V>(0x80808080u);
    return t | (t - (t >> 7));
  }
}

// Number of marked fields in e, through the 16-bit table: the marks of the upper half are
// shifted into the free bit positions of the lower half. Class 0, 32 bits: marks sit on even
// bits; e >> 15 puts marks 16..30 on the odd bits 1..15, so one lookup counts all 16 fields.
template <int C> QAX_INLINE int count_table(const std::uint8_t* pc, std::uint32_t e) {
  if constexpr (C == 0) return pc[((e >> 15) | e) & 0xFFFF];
  else if constexpr (C == 1) return pc[((e >> 17) | e) & 0xCCCC];
  else return pc[((e >> 17) | e) & 0xC0C0];
}
template <int C> QAX_INLINE int count_table(const std::uint8_t* pc, std::uint64_t e) {
  if constexpr (C == 0) return pc[(e | (e >> 15)) & 0xFFFF] + pc[((e >> 32) | (e >> 47)) & 0xFFFF];
  else return pc[((e >> 51) | (e >> 34) | (e >> 17) | e) & 0xFFFF];
}

// Fields of word i whose intersection x is empty, one mark per field, for words of any
// class (class boundaries end0..end2 of the layout; later words hold one 32-bit field):
// field k of the word is marked by bit k << shift.
QAX_INLINE std::uint32_t empty_marks(int i, int end0, int end1, int end2, std::uint32_t x, int& shift) {
  if (i < end0) { shift = 1; return empty_of<0>(x); }
  if (i < end1) { shift = 2; return empty_of<1>(x); }
  if (i < end2) { shift = 3; return empty_of<2>(x); }
  shift = 0;
  return x ? 0u : 1u;
}

// Final set of a node from its down set d, union mask u and the ancestor's final set f:
// where f has states outside d, d | (u & f); elsewhere f (Fitch's first rule).
//   d = 01, u = 01, f = 11 (class 0): missing = 10, mask = 11 -> final = 01 | 01 = 01.
template <int C, class V> QAX_INLINE V final_of(V d, V u, V f) {
  V mask = nonzero_of<C>(f & ~d);
  return (((d | (u & f)) ^ f) & mask) ^ f;
}

}  // namespace qax::optim::ops
