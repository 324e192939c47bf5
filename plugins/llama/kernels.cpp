// Matrix-vector and batched matrix kernels of the llama runtime for F32,
// F16, BF16, Q8_0, Q4_0 and K-quant (Q2_K..Q6_K) weight rows, half/bfloat16
// conversions, row dequantisation and the worker pool that spreads rows
// over the cores.
//
// A K-quant super-block of 256 weights is first unpacked into 256 small
// integers with a scale and an offset per group of 16 (w = scale * q - min),
// the same form for every K type; dot products then run over that form
// against the 8-bit activations, and dequantisation is one multiply-add.
//
// Two paths compute the same thing: a portable one in plain C++ and one for
// AVX2+FMA+F16C, compiled per function with a target attribute (the rest of
// the build stays baseline x86-64) and chosen at run time from what the CPU
// reports. For the quantised weights both paths first quantise x to 8 bits
// per 32-element block, as the weights are, and take integer dot products
// per block; they quantise identically, so their results differ only in the
// order of float additions.
#include "plugins/llama/kernels.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstring>
#include <limits>
#include <system_error>

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#define LLAMA_KERNELS_X86 1
#else
#define LLAMA_KERNELS_X86 0
#endif

namespace llama {
namespace {

constexpr size_t kBlock = 32;    // elements per quantised block
constexpr size_t kQ8Bytes = 34;  // fp16 d + 32 int8
constexpr size_t kQ4Bytes = 18;  // fp16 d + 16 bytes of nibbles

inline uint16_t loadU16(const uint8_t* p) {
  uint16_t v;
  std::memcpy(&v, p, 2);
  return v;
}

inline float loadF32(const uint8_t* p) {
  float v;
  std::memcpy(&v, p, 4);
  return v;
}

inline uint32_t floatBits(float f) {
  uint32_t u;
  std::memcpy(&u, &f, 4);
  return u;
}

inline float bitsFloat(uint32_t u) {
  float f;
  std::memcpy(&f, &u, 4);
  return f;
}

// ---------------------------------------------------------------------------
// Activation quantisation shared by both paths: per block of 32,
// d = max|x| / 127 and q = x * (1/d) rounded to nearest even.

inline int8_t roundToI8(float v) {
  float r = std::nearbyint(v);
  // Finite inputs stay within [-127, 127]; NaN (from a NaN or inf x) is 0.
  return (r >= -127.f && r <= 127.f) ? int8_t(r) : int8_t(0);
}

// x quantised; each thread has its own buffers. The fast path also keeps,
// per block, 8 * sum(q) spread over 8 int32 lanes.
struct QuantX {
  std::vector<int8_t> q;
  std::vector<float> d;
  std::vector<int32_t> bias;
  std::vector<int32_t> sum16;  // sum of q per 16 elements (K-quants only)
  std::vector<float> d16, m16;  // per 16 elements: d of its block, and d * sum16
  void reserve(size_t blocks) {
    if (d.size() >= blocks) return;
    q.resize(blocks * kBlock);
    d.resize(blocks);
    bias.resize(blocks * 8);
    sum16.resize(blocks * 2);
    d16.resize(blocks * 2);
    m16.resize(blocks * 2);
  }
  void fillSums(size_t blocks) {
    for (size_t g = 0; g < 2 * blocks; ++g) {
      int32_t t = 0;
      for (size_t i = 0; i < 16; ++i) t += q[g * 16 + i];
      sum16[g] = t;
      d16[g] = d[g / 2];
      m16[g] = d[g / 2] * float(t);
    }
  }
};

QuantX& threadQuantX() {
  thread_local QuantX buf;
  return buf;
}

void quantisePortable(const float* x, size_t blocks, QuantX& out) {
  int8_t* q = out.q.data();
  float* d = out.d.data();
  for (size_t b = 0; b < blocks; ++b) {
    const float* xb = x + b * kBlock;
    float amax = 0.f;
    for (size_t i = 0; i < kBlock; ++i) amax = std::max(amax, std::fabs(xb[i]));
    const float db = amax / 127.f;
    const float id = db != 0.f ? 1.f / db : 0.f;
    for (size_t i = 0; i < kBlock; ++i) q[b * kBlock + i] = roundToI8(xb[i] * id);
    d[b] = db;
  }
}

// ---------------------------------------------------------------------------
// K-quant super-blocks (256 weights each). Byte layouts, in order:
//   Q2_K  84 B: scales[16] (low nibble scale, high nibble min), qs[64]
//               (2 bits each), f16 d, f16 dmin
//   Q3_K 110 B: hmask[32] (third bit), qs[64] (low 2 bits), scales[12]
//               (16 six-bit scales, stored +32), f16 d
//   Q4_K 144 B: f16 d, f16 dmin, scales[12] (8 six-bit scales and mins),
//               qs[128] (4 bits each)
//   Q5_K 176 B: f16 d, f16 dmin, scales[12], qh[32] (fifth bit), qs[128]
//   Q6_K 210 B: ql[128] (low 4 bits), qh[64] (high 2 bits), int8
//               scales[16], f16 d

constexpr size_t kSuper = 256;

size_t superBytes(DType t) {
  switch (t) {
    case kQ2_K: return 84;
    case kQ3_K: return 110;
    case kQ4_K: return 144;
    case kQ5_K: return 176;
    case kQ6_K: return 210;
    default: return 0;
  }
}

bool isKQuant(DType t) { return superBytes(t) != 0; }

// One super-block as w[i] = scale[i / 16] * q[i] - min[i / 16].
struct alignas(32) Unpacked {
  int8_t q[kSuper];
  float scale[16], min[16];
};

// The scales given the super-block's f16 scales as floats (d at the
// offset each layout keeps it; dmin after it).
void scalesQ2K(const uint8_t* p, float d, float dmin, Unpacked& u) {
  const uint8_t* sc = p;
  for (int g = 0; g < 16; ++g) {
    u.scale[g] = d * float(sc[g] & 15);
    u.min[g] = dmin * float(sc[g] >> 4);
  }
}

void unpackQ2K(const uint8_t* p, Unpacked& u) {
  const uint8_t* qs = p + 16;
  scalesQ2K(p, f16ToF32(loadU16(p + 80)), f16ToF32(loadU16(p + 82)), u);
  // Each half of 128 weights takes 32 bytes; weight 32 * j + k of the half
  // is bits 2j..2j+1 of byte k.
  for (int h = 0; h < 2; ++h)
    for (int j = 0; j < 4; ++j)
      for (int k = 0; k < 32; ++k) u.q[128 * h + 32 * j + k] = int8_t((qs[32 * h + k] >> (2 * j)) & 3);
}

void scalesQ3K(const uint8_t* p, float d, float, Unpacked& u) {
  const uint8_t* sc = p + 96;
  for (int g = 0; g < 16; ++g) {
    const int low = g < 8 ? sc[g] & 15 : sc[g - 8] >> 4;
    const int high = (sc[8 + g % 4] >> (2 * (g / 4))) & 3;
    u.scale[g] = d * float((low | high << 4) - 32);
    u.min[g] = 0.f;
  }
}

void unpackQ3K(const uint8_t* p, Unpacked& u) {
  const uint8_t* hmask = p;
  const uint8_t* qs = p + 32;
  scalesQ3K(p, f16ToF32(loadU16(p + 108)), 0.f, u);
  // As Q2_K for the low bits; the high bit of weight 32 * j + k of half h
  // is bit 4h + j of hmask[k], and a clear bit subtracts 4.
  for (int h = 0; h < 2; ++h)
    for (int j = 0; j < 4; ++j)
      for (int k = 0; k < 32; ++k) {
        const int lo = (qs[32 * h + k] >> (2 * j)) & 3;
        const int hi = (hmask[k] >> (4 * h + j)) & 1;
        u.q[128 * h + 32 * j + k] = int8_t(lo - (hi ? 0 : 4));
      }
}

// The 6-bit scale and min of group j (0..7) of Q4_K/Q5_K.
inline void scaleMinK4(const uint8_t* s, int j, int& sc, int& m) {
  if (j < 4) {
    sc = s[j] & 63;
    m = s[j + 4] & 63;
  } else {
    sc = (s[j + 4] & 15) | ((s[j - 4] >> 6) << 4);
    m = (s[j + 4] >> 4) | ((s[j] >> 6) << 4);
  }
}

// Q4_K and Q5_K: chunk c of 64 weights takes 32 bytes of qs, low nibbles
// first (group 2c), then high nibbles (group 2c + 1); Q5_K's fifth bits are
// bits 2c and 2c + 1 of qh[k].
void scalesQ45K(const uint8_t* p, float d, float dmin, Unpacked& u) {
  for (int j = 0; j < 8; ++j) {
    int s, m;
    scaleMinK4(p + 4, j, s, m);
    u.scale[2 * j] = u.scale[2 * j + 1] = d * float(s);
    u.min[2 * j] = u.min[2 * j + 1] = dmin * float(m);
  }
}

template <bool kFive>
void unpackQ45K(const uint8_t* p, Unpacked& u) {
  const uint8_t* qh = p + 16;
  const uint8_t* qs = p + (kFive ? 48 : 16);
  scalesQ45K(p, f16ToF32(loadU16(p)), f16ToF32(loadU16(p + 2)), u);
  for (int c = 0; c < 4; ++c)
    for (int k = 0; k < 32; ++k) {
      int lo = qs[32 * c + k] & 15, hi = qs[32 * c + k] >> 4;
      if (kFive) {
        lo |= ((qh[k] >> (2 * c)) & 1) << 4;
        hi |= ((qh[k] >> (2 * c + 1)) & 1) << 4;
      }
      u.q[64 * c + k] = int8_t(lo);
      u.q[64 * c + 32 + k] = int8_t(hi);
    }
}

void scalesQ6K(const uint8_t* p, float d, float, Unpacked& u) {
  const auto* sc = reinterpret_cast<const int8_t*>(p + 192);
  for (int g = 0; g < 16; ++g) {
    u.scale[g] = d * float(sc[g]);
    u.min[g] = 0.f;
  }
}

void unpackQ6K(const uint8_t* p, Unpacked& u) {
  const uint8_t* ql = p;
  const uint8_t* qh = p + 128;
  scalesQ6K(p, f16ToF32(loadU16(p + 208)), 0.f, u);
  // Half h: 64 bytes of ql and 32 of qh. Weight 32 * j + k takes the low
  // (j < 2) or high (j >= 2) nibble of ql[32 * (j & 1) + k] and bits
  // 2j..2j+1 of qh[k], less 32.
  for (int h = 0; h < 2; ++h)
    for (int j = 0; j < 4; ++j)
      for (int k = 0; k < 32; ++k) {
        const uint8_t l = ql[64 * h + 32 * (j & 1) + k];
        const int lo = j < 2 ? l & 15 : l >> 4;
        const int hi = (qh[32 * h + k] >> (2 * j)) & 3;
        u.q[128 * h + 32 * j + k] = int8_t((lo | hi << 4) - 32);
      }
}

using UnpackFn = void (*)(const uint8_t*, Unpacked&);

UnpackFn unpacker(DType t) {
  switch (t) {
    case kQ2_K: return unpackQ2K;
    case kQ3_K: return unpackQ3K;
    case kQ4_K: return unpackQ45K<false>;
    case kQ5_K: return unpackQ45K<true>;
    case kQ6_K: return unpackQ6K;
    default: return nullptr;
  }
}

// Rows of K-quant super-blocks against quantised x; x block b covers
// groups 2b and 2b + 1.
template <DType kT>
void rowsKPortable(const uint8_t* W, size_t cols, const QuantX& qx, float* y, size_t r0, size_t r1) {
  const size_t supers = cols / kSuper, bytes = superBytes(kT);
  const UnpackFn unpack = unpacker(kT);
  Unpacked u;
  for (size_t r = r0; r < r1; ++r) {
    const uint8_t* p = W + r * supers * bytes;
    float acc = 0.f;
    for (size_t s = 0; s < supers; ++s, p += bytes) {
      unpack(p, u);
      for (size_t g = 0; g < 16; ++g) {
        const size_t b = s * 8 + g / 2;
        const int8_t* xq = qx.q.data() + s * kSuper + g * 16;
        int32_t t = 0;
        for (size_t i = 0; i < 16; ++i) t += int32_t(u.q[g * 16 + i]) * xq[i];
        acc += qx.d[b] * (u.scale[g] * float(t) - u.min[g] * float(qx.sum16[s * 16 + g]));
      }
    }
    y[r] = acc;
  }
}

// ---------------------------------------------------------------------------
// Portable path.

// Several independent accumulators so the additions can overlap.
template <typename Load>
float dotFloatRow(const uint8_t* row, size_t cols, const float* x, size_t stride, Load load) {
  float acc[8] = {0, 0, 0, 0, 0, 0, 0, 0};
  size_t c = 0;
  for (; c + 8 <= cols; c += 8)
    for (size_t k = 0; k < 8; ++k) acc[k] += load(row + (c + k) * stride) * x[c + k];
  float tail = 0.f;
  for (; c < cols; ++c) tail += load(row + c * stride) * x[c];
  return ((acc[0] + acc[4]) + (acc[1] + acc[5])) + ((acc[2] + acc[6]) + (acc[3] + acc[7])) + tail;
}

void rowsF32Portable(const uint8_t* W, size_t cols, const float* x, float* y, size_t r0, size_t r1) {
  for (size_t r = r0; r < r1; ++r) y[r] = dotFloatRow(W + r * cols * 4, cols, x, 4, loadF32);
}

void rowsF16Portable(const uint8_t* W, size_t cols, const float* x, float* y, size_t r0, size_t r1) {
  auto load = [](const uint8_t* p) { return f16ToF32(loadU16(p)); };
  for (size_t r = r0; r < r1; ++r) y[r] = dotFloatRow(W + r * cols * 2, cols, x, 2, load);
}

void rowsBF16Portable(const uint8_t* W, size_t cols, const float* x, float* y, size_t r0, size_t r1) {
  auto load = [](const uint8_t* p) { return bf16ToF32(loadU16(p)); };
  for (size_t r = r0; r < r1; ++r) y[r] = dotFloatRow(W + r * cols * 2, cols, x, 2, load);
}

void rowsQ8Portable(const uint8_t* W, size_t cols, const QuantX& qx, float* y, size_t r0, size_t r1) {
  const size_t blocks = cols / kBlock;
  const int8_t* q = qx.q.data();
  const float* d = qx.d.data();
  for (size_t r = r0; r < r1; ++r) {
    const uint8_t* p = W + r * blocks * kQ8Bytes;
    float acc0 = 0.f, acc1 = 0.f;
    for (size_t b = 0; b < blocks; ++b, p += kQ8Bytes) {
      const int8_t* w = reinterpret_cast<const int8_t*>(p + 2);
      const int8_t* xq = q + b * kBlock;
      int32_t s = 0;
      for (size_t i = 0; i < kBlock; ++i) s += int32_t(w[i]) * int32_t(xq[i]);
      const float v = f16ToF32(loadU16(p)) * d[b] * float(s);
      if (b & 1)
        acc1 += v;
      else
        acc0 += v;
    }
    y[r] = acc0 + acc1;
  }
}

void rowsQ4Portable(const uint8_t* W, size_t cols, const QuantX& qx, float* y, size_t r0, size_t r1) {
  const size_t blocks = cols / kBlock;
  const int8_t* q = qx.q.data();
  const float* d = qx.d.data();
  for (size_t r = r0; r < r1; ++r) {
    const uint8_t* p = W + r * blocks * kQ4Bytes;
    float acc0 = 0.f, acc1 = 0.f;
    for (size_t b = 0; b < blocks; ++b, p += kQ4Bytes) {
      const uint8_t* nib = p + 2;
      const int8_t* xq = q + b * kBlock;
      int32_t s = 0;
      for (size_t j = 0; j < kBlock / 2; ++j) {
        s += (int32_t(nib[j] & 15) - 8) * int32_t(xq[j]);
        s += (int32_t(nib[j] >> 4) - 8) * int32_t(xq[j + 16]);
      }
      const float v = f16ToF32(loadU16(p)) * d[b] * float(s);
      if (b & 1)
        acc1 += v;
      else
        acc0 += v;
    }
    y[r] = acc0 + acc1;
  }
}

void tilePortable(const float* Wf, size_t rows, size_t cols, const float* X, size_t n, float* Y, size_t ldy) {
  for (size_t i = 0; i < n; ++i)
    for (size_t r = 0; r < rows; ++r) Y[i * ldy + r] = dotFloatRow(reinterpret_cast<const uint8_t*>(Wf + r * cols), cols, X + i * cols, 4, loadF32);
}

void attnScoresPortable(const float* q, const float* keys, size_t stride, size_t count, size_t n, float scale,
                        float* scores) {
  for (size_t t = 0; t < count; ++t) {
    const float* k = keys + t * stride;
    float dot = 0.f;
    for (size_t c = 0; c < n; ++c) dot += q[c] * k[c];
    scores[t] = dot * scale;
  }
}

void attnMixPortable(const float* a, const float* vals, size_t stride, size_t count, size_t n, float* out) {
  std::fill(out, out + n, 0.f);
  for (size_t t = 0; t < count; ++t)
    for (size_t c = 0; c < n; ++c) out[c] += a[t] * vals[t * stride + c];
}

// ---------------------------------------------------------------------------
// AVX2 + FMA + F16C path.

#if LLAMA_KERNELS_X86
#define LLAMA_FAST __attribute__((target("avx2,fma,f16c")))

LLAMA_FAST inline float hsum(__m256 v) {
  __m128 s = _mm_add_ps(_mm256_castps256_ps128(v), _mm256_extractf128_ps(v, 1));
  s = _mm_add_ps(s, _mm_movehl_ps(s, s));
  s = _mm_add_ss(s, _mm_shuffle_ps(s, s, 1));
  return _mm_cvtss_f32(s);
}

LLAMA_FAST inline float hmax(__m256 v) {
  __m128 s = _mm_max_ps(_mm256_castps256_ps128(v), _mm256_extractf128_ps(v, 1));
  s = _mm_max_ps(s, _mm_movehl_ps(s, s));
  s = _mm_max_ss(s, _mm_shuffle_ps(s, s, 1));
  return _mm_cvtss_f32(s);
}

// Same arithmetic as quantisePortable, eight lanes at a time.
LLAMA_FAST void quantiseFast(const float* x, size_t blocks, QuantX& out) {
  const __m256 absMask = _mm256_castsi256_ps(_mm256_set1_epi32(0x7fffffff));
  const __m256i order = _mm256_setr_epi32(0, 4, 1, 5, 2, 6, 3, 7);
  const __m256i intMin = _mm256_set1_epi32(std::numeric_limits<int32_t>::min());
  for (size_t b = 0; b < blocks; ++b) {
    const float* xb = x + b * kBlock;
    __m256 v[4];
    for (int k = 0; k < 4; ++k) v[k] = _mm256_loadu_ps(xb + 8 * k);
    const __m256 m = _mm256_max_ps(_mm256_max_ps(_mm256_and_ps(v[0], absMask), _mm256_and_ps(v[1], absMask)),
                                   _mm256_max_ps(_mm256_and_ps(v[2], absMask), _mm256_and_ps(v[3], absMask)));
    const float amax = hmax(m);
    const float db = amax / 127.f;
    const float id = db != 0.f ? 1.f / db : 0.f;
    const __m256 vid = _mm256_set1_ps(id);
    __m256i i[4];
    for (int k = 0; k < 4; ++k) {
      i[k] = _mm256_cvtps_epi32(_mm256_round_ps(_mm256_mul_ps(v[k], vid), _MM_FROUND_TO_NEAREST_INT | _MM_FROUND_NO_EXC));
      // Finite x stays within [-127, 127]; a NaN lane converts to INT_MIN
      // and becomes 0, as on the portable path.
      i[k] = _mm256_andnot_si256(_mm256_cmpeq_epi32(i[k], intMin), i[k]);
    }
    const __m256i sum = _mm256_add_epi32(_mm256_add_epi32(i[0], i[1]), _mm256_add_epi32(i[2], i[3]));
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(&out.bias[b * 8]), _mm256_slli_epi32(sum, 3));
    // The packs interleave 128-bit lanes; the permute puts them back in order.
    __m256i p = _mm256_packs_epi16(_mm256_packs_epi32(i[0], i[1]), _mm256_packs_epi32(i[2], i[3]));
    p = _mm256_permutevar8x32_epi32(p, order);
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(&out.q[b * kBlock]), p);
    out.d[b] = db;
  }
}

// Sum over 32 products of signed bytes w and q, as 8 int32 lanes. maddubs
// wants one unsigned operand, so it gets |w| and q takes w's sign; pairs
// stay below 2*128*127 and never saturate.
LLAMA_FAST inline __m256i dotI8(__m256i w, __m256i q) {
  const __m256i s16 = _mm256_maddubs_epi16(_mm256_sign_epi8(w, w), _mm256_sign_epi8(q, w));
  return _mm256_madd_epi16(s16, _mm256_set1_epi16(1));
}

// The 32 nibbles of a Q4_0 block as unsigned bytes 0..15: the low nibbles
// (elements 0..15) in the low half, the high ones (16..31) in the high half.
LLAMA_FAST inline __m256i loadNibbles(const uint8_t* nib) {
  const __m256i both = _mm256_broadcastsi128_si256(_mm_loadu_si128(reinterpret_cast<const __m128i*>(nib)));
  return _mm256_and_si256(_mm256_srlv_epi64(both, _mm256_setr_epi64x(0, 0, 4, 4)), _mm256_set1_epi8(0x0f));
}

LLAMA_FAST inline __m256i loadI8(const void* p) { return _mm256_loadu_si256(static_cast<const __m256i*>(p)); }

// The fp16 scales of 8 blocks kBytes apart, as f32. They are gathered in
// integer registers, off the vector units the dot products keep busy.
template <size_t kBytes>
LLAMA_FAST inline __m256 halfScales8(const uint8_t* p) {
  auto h = [p](int k) { return uint64_t(loadU16(p + k * kBytes)); };
  const uint64_t lo = h(0) | h(1) << 16 | h(2) << 32 | h(3) << 48;
  const uint64_t hi = h(4) | h(5) << 16 | h(6) << 32 | h(7) << 48;
  return _mm256_cvtph_ps(_mm_set_epi64x(int64_t(hi), int64_t(lo)));
}

LLAMA_FAST inline __m256i q8Block(const uint8_t* p, const int8_t* q) { return dotI8(loadI8(p + 2), loadI8(q)); }

// Q4_0: sum((u - 8) * q) = sum(u * q) - 8 * sum(q); u is unsigned, so
// maddubs takes it as it is, and pairs stay below 2*15*127.
LLAMA_FAST inline __m256i q4Block(const uint8_t* p, const int8_t* q, const int32_t* bias) {
  const __m256i s16 = _mm256_maddubs_epi16(loadNibbles(p + 2), loadI8(q));
  return _mm256_sub_epi32(_mm256_madd_epi16(s16, _mm256_set1_epi16(1)), loadI8(bias));
}

// Rows of Q8_0 or Q4_0 blocks against quantised x, 8 blocks a step: the 8
// scale products dw * dx come from one conversion and one multiply, and
// each block takes its own with one in-lane shuffle.
template <size_t kBytes, bool kQ4>
LLAMA_FAST void rowsQuantFast(const uint8_t* W, size_t cols, const QuantX& qx, float* y, size_t r0, size_t r1) {
  const size_t blocks = cols / kBlock;
  const int8_t* q = qx.q.data();
  const float* d = qx.d.data();
  const int32_t* bias = qx.bias.data();
  // Block b at p, as 8 f32 lanes.
  auto dot = [q, bias](const uint8_t* p, size_t b) LLAMA_FAST {
    return _mm256_cvtepi32_ps(kQ4 ? q4Block(p, q + b * kBlock, bias + 8 * b) : q8Block(p, q + b * kBlock));
  };
  for (size_t r = r0; r < r1; ++r) {
    const uint8_t* p = W + r * blocks * kBytes;
    __m256 acc0 = _mm256_setzero_ps(), acc1 = _mm256_setzero_ps();
    __m256 acc2 = _mm256_setzero_ps(), acc3 = _mm256_setzero_ps();
    size_t b = 0;
    for (; b + 8 <= blocks; b += 8, p += 8 * kBytes) {
      // Q4_0 does the most work per byte, and there a prefetch 2 KiB ahead
      // helps memory keep up; Q8_0 streams as fast without one.
      if (kQ4)
        for (size_t o = 0; o < 8 * kBytes; o += 64) _mm_prefetch(reinterpret_cast<const char*>(p + 2048 + o), _MM_HINT_T0);
      const __m256 sc = _mm256_mul_ps(halfScales8<kBytes>(p), _mm256_loadu_ps(d + b));
      const __m256 lo = _mm256_permute2f128_ps(sc, sc, 0x00), hi = _mm256_permute2f128_ps(sc, sc, 0x11);
      acc0 = _mm256_fmadd_ps(_mm256_permute_ps(lo, 0x00), dot(p, b), acc0);
      acc1 = _mm256_fmadd_ps(_mm256_permute_ps(lo, 0x55), dot(p + kBytes, b + 1), acc1);
      acc2 = _mm256_fmadd_ps(_mm256_permute_ps(lo, 0xaa), dot(p + 2 * kBytes, b + 2), acc2);
      acc3 = _mm256_fmadd_ps(_mm256_permute_ps(lo, 0xff), dot(p + 3 * kBytes, b + 3), acc3);
      acc0 = _mm256_fmadd_ps(_mm256_permute_ps(hi, 0x00), dot(p + 4 * kBytes, b + 4), acc0);
      acc1 = _mm256_fmadd_ps(_mm256_permute_ps(hi, 0x55), dot(p + 5 * kBytes, b + 5), acc1);
      acc2 = _mm256_fmadd_ps(_mm256_permute_ps(hi, 0xaa), dot(p + 6 * kBytes, b + 6), acc2);
      acc3 = _mm256_fmadd_ps(_mm256_permute_ps(hi, 0xff), dot(p + 7 * kBytes, b + 7), acc3);
    }
    for (; b < blocks; ++b, p += kBytes)
      acc0 = _mm256_fmadd_ps(_mm256_set1_ps(_cvtsh_ss(loadU16(p)) * d[b]), dot(p, b), acc0);
    y[r] = hsum(_mm256_add_ps(_mm256_add_ps(acc0, acc1), _mm256_add_ps(acc2, acc3)));
  }
}

// Eight f32 weights from row element c on, for each float format.
struct LoadF32 {
  static constexpr size_t kSize = 4;
  LLAMA_FAST static __m256 load(const uint8_t* row, size_t c) {
    return _mm256_loadu_ps(reinterpret_cast<const float*>(row + c * 4));
  }
  static float scalar(const uint8_t* row, size_t c) { return loadF32(row + c * 4); }
};
struct LoadF16 {
  static constexpr size_t kSize = 2;
  LLAMA_FAST static __m256 load(const uint8_t* row, size_t c) {
    return _mm256_cvtph_ps(_mm_loadu_si128(reinterpret_cast<const __m128i*>(row + c * 2)));
  }
  static float scalar(const uint8_t* row, size_t c) { return f16ToF32(loadU16(row + c * 2)); }
};
struct LoadBF16 {
  static constexpr size_t kSize = 2;
  LLAMA_FAST static __m256 load(const uint8_t* row, size_t c) {
    const __m256i w = _mm256_cvtepu16_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(row + c * 2)));
    return _mm256_castsi256_ps(_mm256_slli_epi32(w, 16));
  }
  static float scalar(const uint8_t* row, size_t c) { return bf16ToF32(loadU16(row + c * 2)); }
};

template <typename L>
LLAMA_FAST void rowsFloatFast(const uint8_t* W, size_t cols, const float* x, float* y, size_t r0, size_t r1) {
  for (size_t r = r0; r < r1; ++r) {
    const uint8_t* row = W + r * cols * L::kSize;
    __m256 acc0 = _mm256_setzero_ps(), acc1 = _mm256_setzero_ps();
    __m256 acc2 = _mm256_setzero_ps(), acc3 = _mm256_setzero_ps();
    size_t c = 0;
    for (; c + 32 <= cols; c += 32) {
      acc0 = _mm256_fmadd_ps(L::load(row, c), _mm256_loadu_ps(x + c), acc0);
      acc1 = _mm256_fmadd_ps(L::load(row, c + 8), _mm256_loadu_ps(x + c + 8), acc1);
      acc2 = _mm256_fmadd_ps(L::load(row, c + 16), _mm256_loadu_ps(x + c + 16), acc2);
      acc3 = _mm256_fmadd_ps(L::load(row, c + 24), _mm256_loadu_ps(x + c + 24), acc3);
    }
    for (; c + 8 <= cols; c += 8) acc0 = _mm256_fmadd_ps(L::load(row, c), _mm256_loadu_ps(x + c), acc0);
    float sum = hsum(_mm256_add_ps(_mm256_add_ps(acc0, acc1), _mm256_add_ps(acc2, acc3)));
    for (; c < cols; ++c) sum = std::fma(L::scalar(row, c), x[c], sum);
    y[r] = sum;
  }
}

// unpack() with the integers 32 at a time (the scales stay scalar): the
// same values as the portable unpackers.
LLAMA_FAST inline __m256i bits(__m256i v, int shift, uint8_t mask) {
  return _mm256_and_si256(_mm256_srli_epi16(v, shift), _mm256_set1_epi8(char(mask)));
}

template <DType kT>
LLAMA_FAST void unpackFast(const uint8_t* p, Unpacked& u) {
  auto store = [&u](size_t at, __m256i v) LLAMA_FAST { _mm256_store_si256(reinterpret_cast<__m256i*>(u.q + at), v); };
  auto load = [p](size_t at) LLAMA_FAST { return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p + at)); };
  if constexpr (kT == kQ2_K || kT == kQ3_K) {
    // Scales (and the float conversion) as the portable path does them.
    if (kT == kQ2_K) scalesQ2K(p, _cvtsh_ss(loadU16(p + 80)), _cvtsh_ss(loadU16(p + 82)), u);
    else scalesQ3K(p, _cvtsh_ss(loadU16(p + 108)), 0.f, u);
    const __m256i hmask = load(0);
    for (int h = 0; h < 2; ++h) {
      const __m256i qs = load(kT == kQ2_K ? 16 + 32 * h : 32 + 32 * h);
      for (int j = 0; j < 4; ++j) {
        __m256i q = bits(qs, 2 * j, 3);
        if (kT == kQ3_K)  // a clear high bit subtracts 4
          q = _mm256_sub_epi8(_mm256_or_si256(q, _mm256_slli_epi16(bits(hmask, 4 * h + j, 1), 2)), _mm256_set1_epi8(4));
        store(128 * h + 32 * j, q);
      }
    }
  } else if constexpr (kT == kQ4_K || kT == kQ5_K) {
    scalesQ45K(p, _cvtsh_ss(loadU16(p)), _cvtsh_ss(loadU16(p + 2)), u);
    const __m256i qh = load(16);
    for (int c = 0; c < 4; ++c) {
      const __m256i qs = load((kT == kQ5_K ? 48 : 16) + 32 * c);
      __m256i lo = bits(qs, 0, 15), hi = bits(qs, 4, 15);
      if (kT == kQ5_K) {
        lo = _mm256_or_si256(lo, _mm256_slli_epi16(bits(qh, 2 * c, 1), 4));
        hi = _mm256_or_si256(hi, _mm256_slli_epi16(bits(qh, 2 * c + 1, 1), 4));
      }
      store(64 * c, lo);
      store(64 * c + 32, hi);
    }
  } else {
    scalesQ6K(p, _cvtsh_ss(loadU16(p + 208)), 0.f, u);
    for (int h = 0; h < 2; ++h) {
      const __m256i qh = load(128 + 32 * h);
      for (int j = 0; j < 4; ++j) {
        const __m256i l = load(64 * h + 32 * (j & 1));
        const __m256i lo = j < 2 ? bits(l, 0, 15) : bits(l, 4, 15);
        const __m256i q = _mm256_or_si256(lo, _mm256_slli_epi16(bits(qh, 2 * j, 3), 4));
        store(128 * h + 32 * j, _mm256_sub_epi8(q, _mm256_set1_epi8(32)));
      }
    }
  }
}

// K-quant rows: each super-block is unpacked, then 32 weights a step; the
// two groups of 16 in a step are the low and high 128-bit halves of the
// integer dot product, so one vector of two scales serves both.
template <DType kT>
LLAMA_FAST void rowsKFast(const uint8_t* W, size_t cols, const QuantX& qx, float* y, size_t r0, size_t r1) {
  const size_t supers = cols / kSuper, bytes = superBytes(kT);
  alignas(32) Unpacked u;
  for (size_t r = r0; r < r1; ++r) {
    const uint8_t* p = W + r * supers * bytes;
    __m256 acc0 = _mm256_setzero_ps(), acc1 = _mm256_setzero_ps(), accM = _mm256_setzero_ps();
    for (size_t s = 0; s < supers; ++s, p += bytes) {
      unpackFast<kT>(p, u);
      const int8_t* xq = qx.q.data() + s * kSuper;
      // Scale products of groups 0..7 and 8..15; block b takes groups 2b
      // and 2b + 1 into its two halves.
      const __m256 lo = _mm256_mul_ps(_mm256_load_ps(u.scale), _mm256_loadu_ps(&qx.d16[s * 16]));
      const __m256 hi = _mm256_mul_ps(_mm256_load_ps(u.scale + 8), _mm256_loadu_ps(&qx.d16[s * 16 + 8]));
      for (size_t b = 0; b < 8; b += 2) {
        const __m256 src = b < 4 ? lo : hi;
        const int g = int(2 * (b % 4));
        const __m256 s0 = _mm256_permutevar8x32_ps(src, _mm256_setr_epi32(g, g, g, g, g + 1, g + 1, g + 1, g + 1));
        const __m256 s1 =
            _mm256_permutevar8x32_ps(src, _mm256_setr_epi32(g + 2, g + 2, g + 2, g + 2, g + 3, g + 3, g + 3, g + 3));
        acc0 = _mm256_fmadd_ps(s0, _mm256_cvtepi32_ps(dotI8(loadI8(u.q + 32 * b), loadI8(xq + 32 * b))), acc0);
        acc1 = _mm256_fmadd_ps(s1, _mm256_cvtepi32_ps(dotI8(loadI8(u.q + 32 * b + 32), loadI8(xq + 32 * b + 32))), acc1);
      }
      if (kT == kQ2_K || kT == kQ4_K || kT == kQ5_K) {
        accM = _mm256_fmadd_ps(_mm256_load_ps(u.min), _mm256_loadu_ps(&qx.m16[s * 16]), accM);
        accM = _mm256_fmadd_ps(_mm256_load_ps(u.min + 8), _mm256_loadu_ps(&qx.m16[s * 16 + 8]), accM);
      }
    }
    y[r] = hsum(_mm256_add_ps(acc0, acc1)) - hsum(accM);
  }
}

// Rows of X times rows of f32 weights: Y[i * ldy + r] for tokens [0, n) and
// rows [0, rows) of Wf (rows of `cols` floats). Two rows by four tokens a
// step, eight accumulators; short steps repeat the last row or token and
// drop the extra results.
LLAMA_FAST void tileFast(const float* Wf, size_t rows, size_t cols, const float* X, size_t n, float* Y, size_t ldy) {
  for (size_t i = 0; i < n; i += 4) {
    const float* x[4];
    for (size_t k = 0; k < 4; ++k) x[k] = X + std::min(i + k, n - 1) * cols;
    for (size_t r = 0; r < rows; r += 2) {
      const float* w0 = Wf + r * cols;
      const float* w1 = Wf + std::min(r + 1, rows - 1) * cols;
      __m256 a00 = _mm256_setzero_ps(), a01 = _mm256_setzero_ps(), a02 = _mm256_setzero_ps(),
             a03 = _mm256_setzero_ps(), a10 = _mm256_setzero_ps(), a11 = _mm256_setzero_ps(),
             a12 = _mm256_setzero_ps(), a13 = _mm256_setzero_ps();
      size_t c = 0;
      for (; c + 8 <= cols; c += 8) {
        const __m256 v0 = _mm256_loadu_ps(w0 + c), v1 = _mm256_loadu_ps(w1 + c);
        __m256 xv = _mm256_loadu_ps(x[0] + c);
        a00 = _mm256_fmadd_ps(v0, xv, a00);
        a10 = _mm256_fmadd_ps(v1, xv, a10);
        xv = _mm256_loadu_ps(x[1] + c);
        a01 = _mm256_fmadd_ps(v0, xv, a01);
        a11 = _mm256_fmadd_ps(v1, xv, a11);
        xv = _mm256_loadu_ps(x[2] + c);
        a02 = _mm256_fmadd_ps(v0, xv, a02);
        a12 = _mm256_fmadd_ps(v1, xv, a12);
        xv = _mm256_loadu_ps(x[3] + c);
        a03 = _mm256_fmadd_ps(v0, xv, a03);
        a13 = _mm256_fmadd_ps(v1, xv, a13);
      }
      float out[2][4] = {{hsum(a00), hsum(a01), hsum(a02), hsum(a03)}, {hsum(a10), hsum(a11), hsum(a12), hsum(a13)}};
      for (; c < cols; ++c)
        for (size_t k = 0; k < 4; ++k) {
          out[0][k] = std::fma(w0[c], x[k][c], out[0][k]);
          out[1][k] = std::fma(w1[c], x[k][c], out[1][k]);
        }
      for (size_t k = 0; k < 4 && i + k < n; ++k) {
        Y[(i + k) * ldy + r] = out[0][k];
        if (r + 1 < rows) Y[(i + k) * ldy + r + 1] = out[1][k];
      }
    }
  }
}

// Q8_0 rows as f32, 32 weights a step.
LLAMA_FAST void dequantQ8Fast(const uint8_t* w, size_t cols, float* out) {
  for (size_t b = 0; b < cols / kBlock; ++b, w += kQ8Bytes, out += kBlock) {
    const __m256 d = _mm256_set1_ps(_cvtsh_ss(loadU16(w)));
    for (size_t k = 0; k < 4; ++k) {
      const __m256i q = _mm256_cvtepi8_epi32(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(w + 2 + 8 * k)));
      _mm256_storeu_ps(out + 8 * k, _mm256_mul_ps(d, _mm256_cvtepi32_ps(q)));
    }
  }
}

LLAMA_FAST void attnScoresFast(const float* q, const float* keys, size_t stride, size_t count, size_t n, float scale,
                               float* scores) {
  for (size_t t = 0; t < count; ++t) {
    const float* k = keys + t * stride;
    __m256 acc = _mm256_setzero_ps();
    size_t c = 0;
    for (; c + 8 <= n; c += 8) acc = _mm256_fmadd_ps(_mm256_loadu_ps(q + c), _mm256_loadu_ps(k + c), acc);
    float dot = hsum(acc);
    for (; c < n; ++c) dot += q[c] * k[c];
    scores[t] = dot * scale;
  }
}

LLAMA_FAST void attnMixFast(const float* a, const float* vals, size_t stride, size_t count, size_t n, float* out) {
  size_t c = 0;
  // 64 columns a pass, eight accumulators over all rows.
  for (; c + 64 <= n; c += 64) {
    __m256 acc[8];
    for (int k = 0; k < 8; ++k) acc[k] = _mm256_setzero_ps();
    for (size_t t = 0; t < count; ++t) {
      const __m256 w = _mm256_set1_ps(a[t]);
      const float* v = vals + t * stride + c;
      for (int k = 0; k < 8; ++k) acc[k] = _mm256_fmadd_ps(w, _mm256_loadu_ps(v + 8 * k), acc[k]);
    }
    for (int k = 0; k < 8; ++k) _mm256_storeu_ps(out + c + 8 * k, acc[k]);
  }
  for (; c + 8 <= n; c += 8) {
    __m256 acc = _mm256_setzero_ps();
    for (size_t t = 0; t < count; ++t) acc = _mm256_fmadd_ps(_mm256_set1_ps(a[t]), _mm256_loadu_ps(vals + t * stride + c), acc);
    _mm256_storeu_ps(out + c, acc);
  }
  for (; c < n; ++c) {
    float v = 0.f;
    for (size_t t = 0; t < count; ++t) v += a[t] * vals[t * stride + c];
    out[c] = v;
  }
}

bool cpuHasFast() {
  static const bool has = [] {
    __builtin_cpu_init();
    return __builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma") && __builtin_cpu_supports("f16c");
  }();
  return has;
}
// ---------------------------------------------------------------------------
// Batched Q8_0/Q4_0 products with AVX-512 VNNI (on 256-bit vectors): the
// weights of 8 rows are repacked so that one 32-byte vector holds 4
// consecutive weights of each of the 8 rows, and vpdpbusd adds their
// products with 4 activation bytes broadcast to all rows, giving 8 rows'
// block sums in one vector with no horizontal additions. vpdpbusd wants
// unsigned activations, so they are stored plus 128 and each row's block
// starts from -128 * (sum of its weights).

#define LLAMA_VNNI __attribute__((target("avx2,fma,f16c,avx512f,avx512vl,avx512vnni")))

template <DType kT>
LLAMA_FAST void unpackFast(const uint8_t* p, Unpacked& u);

LLAMA_FAST void unpackWith(DType t, const uint8_t* p, Unpacked& u) {
  switch (t) {
    case kQ2_K: return unpackFast<kQ2_K>(p, u);
    case kQ3_K: return unpackFast<kQ3_K>(p, u);
    case kQ4_K: return unpackFast<kQ4_K>(p, u);
    case kQ5_K: return unpackFast<kQ5_K>(p, u);
    default: return unpackFast<kQ6_K>(p, u);
  }
}

bool cpuHasVnni() {
  static const bool has = [] {
    __builtin_cpu_init();
    return cpuHasFast() && __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512vl") &&
           __builtin_cpu_supports("avx512vnni");
  }();
  return has;
}

// 8 rows in groups of G weights (32 for Q8_0/Q4_0, 16 for the K-quants,
// whose groups also carry an offset): for group g, bytes
// [g][k / 4][row][k % 4], the scales [g][row], the offsets [g][row] (K
// only) and the corrections [g][row].
struct Packed8 {
  size_t group = 32;
  bool offsets = false;
  std::vector<int8_t> w;
  std::vector<float> d, m;
  std::vector<int32_t> corr;
};

// Rows [r0, r0 + 8) of W (rows past `rows` as zeros) into p.
LLAMA_VNNI void pack8(DType t, const uint8_t* W, size_t rows, size_t cols, size_t r0, Packed8& p) {
  const bool k = isKQuant(t);
  p.group = k ? 16 : kBlock;
  p.offsets = t == kQ2_K || t == kQ4_K || t == kQ5_K;
  const size_t groups = cols / p.group, rb = rowBytes(t, cols);
  p.w.resize(cols * 8);
  p.d.resize(groups * 8);
  p.m.resize(groups * 8);
  p.corr.resize(groups * 8);
  if (r0 + 8 > rows) {
    std::fill(p.w.begin(), p.w.end(), int8_t(0));
    std::fill(p.d.begin(), p.d.end(), 0.f);
    std::fill(p.m.begin(), p.m.end(), 0.f);
    std::fill(p.corr.begin(), p.corr.end(), 0);
  }
  alignas(32) Unpacked u;
  for (size_t j = 0; j < 8 && r0 + j < rows; ++j) {
    const uint8_t* row = W + (r0 + j) * rb;
    for (size_t g = 0; g < groups; ++g) {
      int8_t q[kBlock];
      const int8_t* src = q;
      if (k) {
        if (g % 16 == 0) unpackWith(t, row + (g / 16) * superBytes(t), u);
        src = u.q + (g % 16) * 16;
        p.d[g * 8 + j] = u.scale[g % 16];
        p.m[g * 8 + j] = u.min[g % 16];
      } else if (t == kQ8_0) {
        const uint8_t* blk = row + g * kQ8Bytes;
        p.d[g * 8 + j] = _cvtsh_ss(loadU16(blk));
        src = reinterpret_cast<const int8_t*>(blk + 2);
      } else {
        const uint8_t* blk = row + g * kQ4Bytes;
        p.d[g * 8 + j] = _cvtsh_ss(loadU16(blk));
        for (size_t i = 0; i < 16; ++i) {
          q[i] = int8_t((blk[2 + i] & 15) - 8);
          q[i + 16] = int8_t((blk[2 + i] >> 4) - 8);
        }
      }
      // Four bytes at a time to their place; the sum for the correction.
      int8_t* dst = p.w.data() + g * p.group * 8 + j * 4;
      for (size_t k4 = 0; k4 < p.group / 4; ++k4) std::memcpy(dst + 32 * k4, src + 4 * k4, 4);
      int32_t sum = 0;
      for (size_t i = 0; i < p.group; ++i) sum += src[i];
      p.corr[g * 8 + j] = -128 * sum;
    }
  }
}

// Y[i * ldy + r0 + j] for the 8 packed rows (j < live) and tokens [0, n):
// xu holds each token's activations plus 128, dx their scales per block of
// 32 and m16 (K offsets only) the scale times the sum of each 16.
template <size_t kGroup>
LLAMA_VNNI void tileVnni(const Packed8& p, size_t cols, const uint8_t* xu, const float* dx, const float* m16, size_t n,
                         float* Y, size_t ldy, size_t r0, size_t live) {
  const size_t groups = cols / kGroup, blocks = cols / kBlock;
  for (size_t i = 0; i < n; i += 4) {
    const size_t ti[4] = {i, std::min(i + 1, n - 1), std::min(i + 2, n - 1), std::min(i + 3, n - 1)};
    __m256 f[4] = {_mm256_setzero_ps(), _mm256_setzero_ps(), _mm256_setzero_ps(), _mm256_setzero_ps()};
    for (size_t g = 0; g < groups; ++g) {
      const __m256i c = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(&p.corr[g * 8]));
      __m256i a[4] = {c, c, c, c};
      const int8_t* wg = p.w.data() + g * kGroup * 8;
      const uint8_t* x[4];
      for (size_t t = 0; t < 4; ++t) x[t] = xu + ti[t] * cols + g * kGroup;
      for (size_t k = 0; k < kGroup / 4; ++k) {
        const __m256i w = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(wg + 32 * k));
        for (size_t t = 0; t < 4; ++t) {
          int32_t v;
          std::memcpy(&v, x[t] + 4 * k, 4);
          a[t] = _mm256_dpbusd_epi32(a[t], _mm256_set1_epi32(v), w);
        }
      }
      const __m256 d = _mm256_loadu_ps(&p.d[g * 8]);
      const size_t b = g * kGroup / kBlock;
      for (size_t t = 0; t < 4; ++t)
        f[t] = _mm256_fmadd_ps(_mm256_mul_ps(d, _mm256_set1_ps(dx[ti[t] * blocks + b])), _mm256_cvtepi32_ps(a[t]), f[t]);
      if (p.offsets) {
        const __m256 m = _mm256_loadu_ps(&p.m[g * 8]);
        for (size_t t = 0; t < 4; ++t) f[t] = _mm256_fnmadd_ps(m, _mm256_set1_ps(m16[ti[t] * groups + g]), f[t]);
      }
    }
    alignas(32) float out[4][8];
    for (size_t t = 0; t < 4; ++t) _mm256_store_ps(out[t], f[t]);
    for (size_t t = 0; t < 4 && i + t < n; ++t)
      for (size_t j = 0; j < live; ++j) Y[(i + t) * ldy + r0 + j] = out[t][j];
  }
}

#else
bool cpuHasFast() { return false; }
template <DType kT>
LLAMA_FAST void unpackFast(const uint8_t* p, Unpacked& u);

LLAMA_FAST void unpackWith(DType t, const uint8_t* p, Unpacked& u) {
  switch (t) {
    case kQ2_K: return unpackFast<kQ2_K>(p, u);
    case kQ3_K: return unpackFast<kQ3_K>(p, u);
    case kQ4_K: return unpackFast<kQ4_K>(p, u);
    case kQ5_K: return unpackFast<kQ5_K>(p, u);
    default: return unpackFast<kQ6_K>(p, u);
  }
}

bool cpuHasVnni() { return false; }
#endif

// ---------------------------------------------------------------------------
// Dispatch.

using FloatRowsFn = void (*)(const uint8_t*, size_t, const float*, float*, size_t, size_t);
using QuantRowsFn = void (*)(const uint8_t*, size_t, const QuantX&, float*, size_t, size_t);
using QuantiseFn = void (*)(const float*, size_t, QuantX&);

using TileFn = void (*)(const float*, size_t, size_t, const float*, size_t, float*, size_t);

struct Kernels {
  const char* name;
  FloatRowsFn f32, f16, bf16;
  QuantRowsFn q8, q4, q2k, q3k, q4k, q5k, q6k;
  QuantiseFn quantise;
  TileFn tile;
  void (*scores)(const float*, const float*, size_t, size_t, size_t, float, float*);
  void (*mix)(const float*, const float*, size_t, size_t, size_t, float*);
};

constexpr Kernels kPortable = {"portable",
                               rowsF32Portable,
                               rowsF16Portable,
                               rowsBF16Portable,
                               rowsQ8Portable,
                               rowsQ4Portable,
                               rowsKPortable<kQ2_K>,
                               rowsKPortable<kQ3_K>,
                               rowsKPortable<kQ4_K>,
                               rowsKPortable<kQ5_K>,
                               rowsKPortable<kQ6_K>,
                               quantisePortable,
                               tilePortable,
                               attnScoresPortable,
                               attnMixPortable};
#if LLAMA_KERNELS_X86
constexpr Kernels kFast = {"avx2+fma+f16c",
                           rowsFloatFast<LoadF32>,
                           rowsFloatFast<LoadF16>,
                           rowsFloatFast<LoadBF16>,
                           rowsQuantFast<kQ8Bytes, false>,
                           rowsQuantFast<kQ4Bytes, true>,
                           rowsKFast<kQ2_K>,
                           rowsKFast<kQ3_K>,
                           rowsKFast<kQ4_K>,
                           rowsKFast<kQ5_K>,
                           rowsKFast<kQ6_K>,
                           quantiseFast,
                           tileFast,
                           attnScoresFast,
                           attnMixFast};
#endif

std::atomic<bool> gForcePortable{false};

const Kernels& kernels() {
#if LLAMA_KERNELS_X86
  if (!gForcePortable.load(std::memory_order_relaxed) && cpuHasFast()) return kFast;
#endif
  return kPortable;
}

FloatRowsFn floatRows(const Kernels& k, DType t) {
  switch (t) {
    case kF32: return k.f32;
    case kF16: return k.f16;
    case kBF16: return k.bf16;
    default: return nullptr;
  }
}

QuantRowsFn quantRows(const Kernels& k, DType t) {
  switch (t) {
    case kQ8_0: return k.q8;
    case kQ4_0: return k.q4;
    case kQ2_K: return k.q2k;
    case kQ3_K: return k.q3k;
    case kQ4_K: return k.q4k;
    case kQ5_K: return k.q5k;
    case kQ6_K: return k.q6k;
    default: return nullptr;
  }
}

void fillNaN(float* y, size_t r0, size_t r1) {
  for (size_t r = r0; r < r1; ++r) y[r] = std::numeric_limits<float>::quiet_NaN();
}

inline void cpuRelax() {
#if LLAMA_KERNELS_X86
  __builtin_ia32_pause();
#else
  std::this_thread::yield();
#endif
}

// How long an idle thread polls for work before it sleeps: long enough to
// bridge the short gaps between the matrix products of one token. Past the
// first microseconds it polls with yields, so on a machine with more
// runnable threads than cores the thread it waits for gets the core.
constexpr auto kSpinPause = std::chrono::microseconds(4);
constexpr auto kSpin = std::chrono::microseconds(100);

// Polls until pred() or kSpin has passed; returns pred().
template <typename Pred>
bool spinFor(Pred pred) {
  const auto start = std::chrono::steady_clock::now();
  for (;;) {
    for (int i = 0; i < 16; ++i) {
      if (pred()) return true;
      cpuRelax();
    }
    const auto spent = std::chrono::steady_clock::now() - start;
    if (spent >= kSpin) return pred();
    if (spent >= kSpinPause) std::this_thread::yield();
  }
}

// Start of chunk i of n items split into `parts` nearly equal pieces.
inline size_t chunkStart(size_t n, unsigned parts, unsigned i) {
  return (n / parts) * i + std::min<size_t>(i, n % parts);
}

// ThreadPool::state_: run count above kRunShift, next chunk below.
constexpr int kRunShift = 16;
constexpr uint64_t kChunkMask = (uint64_t(1) << kRunShift) - 1;
constexpr unsigned kMaxThreads = 1024;
inline uint64_t runOf(uint64_t state) { return state >> kRunShift; }

// Claims and runs chunks of run `run` while there are any; true when this
// thread finished the last chunk of the run.
bool runChunks(std::atomic<uint64_t>& state, std::atomic<unsigned>& pending, uint64_t run,
               const std::function<void(size_t, size_t)>* fn, size_t n, unsigned parts) {
  bool last = false;
  uint64_t s = state.load(std::memory_order_acquire);
  while (runOf(s) == run && (s & kChunkMask) < parts) {
    if (!state.compare_exchange_weak(s, s + 1, std::memory_order_acq_rel, std::memory_order_acquire)) continue;
    const unsigned i = unsigned(s & kChunkMask);
    (*fn)(chunkStart(n, parts, i), chunkStart(n, parts, i + 1));
    last = pending.fetch_sub(1, std::memory_order_acq_rel) == 1;
    s = state.load(std::memory_order_acquire);
  }
  return last;
}

// Below this many weight bytes, waking the workers costs more than it saves.
constexpr size_t kMinParallelBytes = 32 * 1024;

}  // namespace

// ---------------------------------------------------------------------------
// Conversions.

float f16ToF32(uint16_t h) {
  const uint32_t sign = uint32_t(h & 0x8000) << 16;
  const uint32_t exp = (h >> 10) & 0x1f;
  uint32_t mant = h & 0x3ff;
  if (exp == 0x1f) return bitsFloat(sign | 0x7f800000 | (mant << 13));  // inf, NaN (payload kept)
  if (exp != 0) return bitsFloat(sign | ((exp + 112) << 23) | (mant << 13));
  if (mant == 0) return bitsFloat(sign);
  // Subnormal: mant * 2^-24; normalise so the leading 1 becomes implicit.
  int e = 113;  // exponent of 2^-14, biased for f32
  while (!(mant & 0x400)) {
    mant <<= 1;
    --e;
  }
  return bitsFloat(sign | (uint32_t(e) << 23) | ((mant & 0x3ff) << 13));
}

uint16_t f32ToF16(float f) {
  uint32_t x = floatBits(f);
  const uint16_t sign = uint16_t((x >> 16) & 0x8000);
  x &= 0x7fffffff;
  if (x > 0x7f800000) return uint16_t(sign | 0x7e00 | ((x >> 13) & 0x3ff));  // NaN, kept quiet
  if (x >= 0x47800000) return uint16_t(sign | 0x7c00);                       // >= 65536 or inf
  if (x < 0x38800000) {
    // Below 2^-14: the result is subnormal or zero. Adding 0.5 puts the
    // value's units of 2^-24 in the low mantissa bits of the sum, and the
    // float addition rounds them to nearest even.
    const float sum = bitsFloat(x) + 0.5f;
    return uint16_t(sign | (floatBits(sum) - floatBits(0.5f)));
  }
  // Normal: rebias the exponent and round the 13 dropped bits to nearest
  // even; a carry out of the mantissa bumps the exponent, up to inf.
  const uint32_t odd = (x >> 13) & 1;
  x += (uint32_t(15 - 127) << 23) + 0xfff + odd;
  return uint16_t(sign | (x >> 13));
}

float bf16ToF32(uint16_t h) { return bitsFloat(uint32_t(h) << 16); }

bool dtypeSupported(uint16_t t) { return blockElems(DType(t)) != 0; }

size_t blockElems(DType t) {
  switch (t) {
    case kF32:
    case kF16:
    case kBF16: return 1;
    case kQ8_0:
    case kQ4_0: return kBlock;
    case kQ2_K:
    case kQ3_K:
    case kQ4_K:
    case kQ5_K:
    case kQ6_K: return kSuper;
  }
  return 0;
}

size_t rowBytes(DType t, size_t cols) {
  switch (t) {
    case kF32: return cols * 4;
    case kF16:
    case kBF16: return cols * 2;
    case kQ8_0: return cols % kBlock ? 0 : cols / kBlock * kQ8Bytes;
    case kQ4_0: return cols % kBlock ? 0 : cols / kBlock * kQ4Bytes;
    default: return isKQuant(t) && cols % kSuper == 0 ? cols / kSuper * superBytes(t) : 0;
  }
}

// ---------------------------------------------------------------------------
// Products.

void matvecRows(DType t, const void* W, size_t cols, const float* x, float* y, size_t r0, size_t r1) {
  if (r0 >= r1) return;
  const Kernels& k = kernels();
  const uint8_t* w = static_cast<const uint8_t*>(W);
  if (FloatRowsFn fn = floatRows(k, t)) return fn(w, cols, x, y, r0, r1);
  QuantRowsFn fn = quantRows(k, t);
  if (!fn || rowBytes(t, cols) == 0) return fillNaN(y, r0, r1);
  const size_t blocks = cols / kBlock;
  QuantX& qx = threadQuantX();
  qx.reserve(blocks);
  k.quantise(x, blocks, qx);
  if (isKQuant(t)) qx.fillSums(blocks);
  fn(w, cols, qx, y, r0, r1);
}

void matvec(ThreadPool& pool, DType t, const void* W, size_t rows, size_t cols, const float* x, float* y) {
  if (rows == 0) return;
  const Kernels& k = kernels();
  const uint8_t* w = static_cast<const uint8_t*>(W);
  const bool serial = pool.size() == 1 || rows < 2 * size_t(pool.size()) || rows * rowBytes(t, cols) < kMinParallelBytes;
  if (FloatRowsFn fn = floatRows(k, t)) {
    if (serial) return fn(w, cols, x, y, 0, rows);
    return pool.run(rows, [&](size_t b, size_t e) { fn(w, cols, x, y, b, e); });
  }
  QuantRowsFn fn = quantRows(k, t);
  if (!fn || rowBytes(t, cols) == 0) return fillNaN(y, 0, rows);
  // x is quantised once, here, and every thread reads the same blocks.
  const size_t blocks = cols / kBlock;
  QuantX& qx = threadQuantX();
  qx.reserve(blocks);
  k.quantise(x, blocks, qx);
  if (isKQuant(t)) qx.fillSums(blocks);
  if (serial) return fn(w, cols, qx, y, 0, rows);
  pool.run(rows, [&](size_t b, size_t e) { fn(w, cols, qx, y, b, e); });
}

#if LLAMA_KERNELS_X86
void matmulVnni(ThreadPool& pool, DType t, const void* W, size_t rows, size_t cols, const float* X, size_t n, float* Y) {
  const size_t blocks = cols / kBlock;
  const bool k = isKQuant(t);
  thread_local std::vector<uint8_t> xu;
  thread_local std::vector<float> dx, m16;
  xu.resize(n * cols);
  dx.resize(n * blocks);
  m16.resize(k ? n * blocks * 2 : 0);
  uint8_t* xup = xu.data();
  float* dxp = dx.data();
  float* m16p = m16.data();
  pool.run(n, [&](size_t b, size_t e) {
    QuantX& qx = threadQuantX();
    qx.reserve(blocks);
    for (size_t i = b; i < e; ++i) {
      quantiseFast(X + i * cols, blocks, qx);
      for (size_t c = 0; c < cols; ++c) xup[i * cols + c] = uint8_t(qx.q[c] + 128);
      std::memcpy(dxp + i * blocks, qx.d.data(), blocks * sizeof(float));
      if (k) {
        qx.fillSums(blocks);
        std::memcpy(m16p + i * blocks * 2, qx.m16.data(), blocks * 2 * sizeof(float));
      }
    }
  });
  // Groups of 8 rows, handed out one at a time.
  const size_t groups = (rows + 7) / 8;
  std::atomic<size_t> next{0};
  const uint8_t* w = static_cast<const uint8_t*>(W);
  pool.run(std::min<size_t>(pool.size(), groups), [&](size_t, size_t) {
    thread_local Packed8 p;
    for (size_t g; (g = next.fetch_add(1, std::memory_order_relaxed)) < groups;) {
      pack8(t, w, rows, cols, g * 8, p);
      const size_t live = std::min<size_t>(8, rows - g * 8);
      if (k) tileVnni<16>(p, cols, xup, dxp, m16p, n, Y, rows, g * 8, live);
      else tileVnni<kBlock>(p, cols, xup, dxp, m16p, n, Y, rows, g * 8, live);
    }
  });
}
#endif

void matmul(ThreadPool& pool, DType t, const void* W, size_t rows, size_t cols, const float* X, size_t n, float* Y) {
  if (n == 1) return matvec(pool, t, W, rows, cols, X, Y);
  if (rows == 0 || n == 0) return;
  const Kernels& k = kernels();
  if (blockElems(t) == 0 || rowBytes(t, cols) == 0) {
    for (size_t i = 0; i < n; ++i) fillNaN(Y + i * rows, 0, rows);
    return;
  }
#if LLAMA_KERNELS_X86
  if (t != kF32 && t != kF16 && t != kBF16 && &k != &kPortable && cpuHasVnni())
    return matmulVnni(pool, t, W, rows, cols, X, n, Y);
#endif
  // The quantised types see x as its 8-bit blocks, as matvec does.
  thread_local std::vector<float> xr;
  if (blockElems(t) > 1) {
    xr.resize(n * cols);
    float* dst = xr.data();
    pool.run(n, [&](size_t b, size_t e) {
      const size_t blocks = cols / kBlock;
      QuantX& qx = threadQuantX();
      qx.reserve(blocks);
      for (size_t i = b; i < e; ++i) {
        k.quantise(X + i * cols, blocks, qx);
        for (size_t c = 0; c < cols; ++c) dst[i * cols + c] = qx.d[c / kBlock] * float(qx.q[c]);
      }
    });
    X = xr.data();
  }
  // Blocks of rows whose f32 form (about 96 KiB) stays in the core's cache
  // while every token passes over it.
  const size_t chunk = std::max<size_t>(2, (96 * 1024 / 4 / cols) & ~size_t(1));
  const size_t chunks = (rows + chunk - 1) / chunk;
  const uint8_t* w = static_cast<const uint8_t*>(W);
  const size_t rb = rowBytes(t, cols);
  const bool fastQ8 = t == kQ8_0 && &k != &kPortable;
  // Threads take blocks one at a time, so one that runs slow (on a busy
  // machine) holds up nothing.
  std::atomic<size_t> next{0};
  pool.run(std::min<size_t>(pool.size(), chunks), [&](size_t, size_t) {
    thread_local std::vector<float> wf;
    wf.resize(chunk * cols);
    for (size_t c; (c = next.fetch_add(1, std::memory_order_relaxed)) < chunks;) {
      const size_t r0 = c * chunk, nr = std::min(chunk, rows - r0);
      for (size_t r = 0; r < nr; ++r) {
#if LLAMA_KERNELS_X86
        if (fastQ8) {
          dequantQ8Fast(w + (r0 + r) * rb, cols, wf.data() + r * cols);
          continue;
        }
#endif
        dequantRow(t, w, r0 + r, cols, wf.data() + r * cols);
      }
      k.tile(wf.data(), nr, cols, X, n, Y + r0, rows);
    }
  });
}

void dequantRow(DType t, const void* W, size_t row, size_t cols, float* out) {
  const uint8_t* w = static_cast<const uint8_t*>(W) + row * rowBytes(t, cols);
  switch (t) {
    case kF32: std::memcpy(out, w, cols * 4); return;
    case kF16:
      for (size_t c = 0; c < cols; ++c) out[c] = f16ToF32(loadU16(w + 2 * c));
      return;
    case kBF16:
      for (size_t c = 0; c < cols; ++c) out[c] = bf16ToF32(loadU16(w + 2 * c));
      return;
    case kQ8_0:
      if (cols % kBlock) break;
      for (size_t b = 0; b < cols / kBlock; ++b, w += kQ8Bytes) {
        const float d = f16ToF32(loadU16(w));
        for (size_t i = 0; i < kBlock; ++i) out[b * kBlock + i] = d * float(int8_t(w[2 + i]));
      }
      return;
    case kQ4_0:
      if (cols % kBlock) break;
      for (size_t b = 0; b < cols / kBlock; ++b, w += kQ4Bytes) {
        const float d = f16ToF32(loadU16(w));
        for (size_t j = 0; j < kBlock / 2; ++j) {
          out[b * kBlock + j] = d * float(int(w[2 + j] & 15) - 8);
          out[b * kBlock + j + 16] = d * float(int(w[2 + j] >> 4) - 8);
        }
      }
      return;
    default:
      if (!isKQuant(t) || cols % kSuper) break;
      Unpacked u;
      for (size_t s = 0; s < cols / kSuper; ++s, w += superBytes(t)) {
        unpacker(t)(w, u);
        for (size_t i = 0; i < kSuper; ++i) out[s * kSuper + i] = u.scale[i / 16] * float(u.q[i]) - u.min[i / 16];
      }
      return;
  }
  fillNaN(out, 0, cols);
}

void attnScores(const float* q, const float* keys, size_t stride, size_t count, size_t n, float scale, float* scores) {
  kernels().scores(q, keys, stride, count, n, scale, scores);
}

void attnMix(const float* a, const float* vals, size_t stride, size_t count, size_t n, float* out) {
  kernels().mix(a, vals, stride, count, n, out);
}

const char* kernelPath() { return kernels().name; }

void forcePortable(bool on) { gForcePortable.store(on, std::memory_order_relaxed); }

// ---------------------------------------------------------------------------
// ThreadPool.

ThreadPool::ThreadPool(unsigned threads) {
  if (threads == 0) threads = std::max(1u, std::thread::hardware_concurrency());
  threads = std::min(threads, kMaxThreads);
  workers_.reserve(threads - 1);
  for (unsigned i = 1; i < threads; ++i) {
    try {
      workers_.emplace_back([this, i] { work(i); });
    } catch (const std::system_error&) {
      break;  // no more threads to be had: run with those we have
    }
  }
}

ThreadPool::~ThreadPool() {
  {
    std::lock_guard<std::mutex> lk(mu_);
    stop_ = true;
    state_.store((runOf(state_.load()) + 1) << kRunShift, std::memory_order_release);
  }
  wake_.notify_all();
  for (std::thread& t : workers_) t.join();
}

void ThreadPool::run(size_t n, const std::function<void(size_t, size_t)>& fn) {
  if (n == 0) return;
  const unsigned parts = unsigned(std::min<size_t>(size(), n));
  if (parts == 1) return fn(0, n);
  uint64_t run;
  {
    std::lock_guard<std::mutex> lk(mu_);
    job_ = &fn;
    n_ = n;
    pending_.store(parts, std::memory_order_relaxed);
    run = runOf(state_.load(std::memory_order_relaxed)) + 1;
    state_.store(run << kRunShift, std::memory_order_release);
  }
  wake_.notify_all();
  if (runChunks(state_, pending_, run, &fn, n, parts)) return;
  if (spinFor([this] { return pending_.load(std::memory_order_acquire) == 0; })) return;
  std::unique_lock<std::mutex> lk(mu_);
  done_.wait(lk, [this] { return pending_.load(std::memory_order_acquire) == 0; });
}

void ThreadPool::work(unsigned) {
  uint64_t seen = 0;
  for (;;) {
    spinFor([&] { return runOf(state_.load(std::memory_order_acquire)) != seen; });
    const std::function<void(size_t, size_t)>* job;
    size_t n;
    {
      std::unique_lock<std::mutex> lk(mu_);
      wake_.wait(lk, [&] { return stop_ || runOf(state_.load(std::memory_order_relaxed)) != seen; });
      if (stop_) return;
      seen = runOf(state_.load(std::memory_order_relaxed));
      job = job_;
      n = n_;
    }
    // job and n belong to run `seen`; chunks are claimed only while that
    // run is current, so a stale job is never called.
    if (runChunks(state_, pending_, seen, job, n, unsigned(std::min<size_t>(size(), n)))) {
      std::lock_guard<std::mutex> lk(mu_);
      done_.notify_one();
    }
  }
}

}  // namespace llama
