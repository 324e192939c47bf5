#include "packages/sha256.h"

#include <cstdio>
#include <cstring>
#include <vector>

#if defined(__x86_64__) || defined(__i386__)
#define ZAN_SHA_X86 1
#include <cpuid.h>
#include <immintrin.h>
#endif

namespace tov {
namespace {

alignas(16) const uint32_t kK[64] = {
    0x428a2f98, 0x71374491, 0xb5c0fbcf, 0xe9b5dba5, 0x3956c25b, 0x59f111f1, 0x923f82a4, 0xab1c5ed5,
    0xd807aa98, 0x12835b01, 0x243185be, 0x550c7dc3, 0x72be5d74, 0x80deb1fe, 0x9bdc06a7, 0xc19bf174,
    0xe49b69c1, 0xefbe4786, 0x0fc19dc6, 0x240ca1cc, 0x2de92c6f, 0x4a7484aa, 0x5cb0a9dc, 0x76f988da,
    0x983e5152, 0xa831c66d, 0xb00327c8, 0xbf597fc7, 0xc6e00bf3, 0xd5a79147, 0x06ca6351, 0x14292967,
    0x27b70a85, 0x2e1b2138, 0x4d2c6dfc, 0x53380d13, 0x650a7354, 0x766a0abb, 0x81c2c92e, 0x92722c85,
    0xa2bfe8a1, 0xa81a664b, 0xc24b8b70, 0xc76c51a3, 0xd192e819, 0xd6990624, 0xf40e3585, 0x106aa070,
    0x19a4c116, 0x1e376c08, 0x2748774c, 0x34b0bcb5, 0x391c0cb3, 0x4ed8aa4a, 0x5b9cca4f, 0x682e6ff3,
    0x748f82ee, 0x78a5636f, 0x84c87814, 0x8cc70208, 0x90befffa, 0xa4506ceb, 0xbef9a3f7, 0xc67178f2,
};

inline uint32_t rotr(uint32_t x, int n) { return (x >> n) | (x << (32 - n)); }

inline uint32_t loadBe32(const uint8_t* p) {
  return uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | uint32_t(p[3]);
}

void blocksPortable(uint32_t state[8], const uint8_t* data, size_t blocks) {
  for (; blocks; --blocks, data += 64) {
    uint32_t w[64];
    for (int i = 0; i < 16; ++i) w[i] = loadBe32(data + 4 * i);
    for (int i = 16; i < 64; ++i) {
      const uint32_t s0 = rotr(w[i - 15], 7) ^ rotr(w[i - 15], 18) ^ (w[i - 15] >> 3);
      const uint32_t s1 = rotr(w[i - 2], 17) ^ rotr(w[i - 2], 19) ^ (w[i - 2] >> 10);
      w[i] = w[i - 16] + s0 + w[i - 7] + s1;
    }
    uint32_t a = state[0], b = state[1], c = state[2], d = state[3];
    uint32_t e = state[4], f = state[5], g = state[6], h = state[7];
    for (int i = 0; i < 64; ++i) {
      const uint32_t t1 = h + (rotr(e, 6) ^ rotr(e, 11) ^ rotr(e, 25)) + ((e & f) ^ (~e & g)) + kK[i] + w[i];
      const uint32_t t2 = (rotr(a, 2) ^ rotr(a, 13) ^ rotr(a, 22)) + ((a & b) ^ (a & c) ^ (b & c));
      h = g;
      g = f;
      f = e;
      e = d + t1;
      d = c;
      c = b;
      b = a;
      a = t1 + t2;
    }
    state[0] += a;
    state[1] += b;
    state[2] += c;
    state[3] += d;
    state[4] += e;
    state[5] += f;
    state[6] += g;
    state[7] += h;
  }
}

#ifdef ZAN_SHA_X86
// The SHA extensions keep the state as two vectors, ABEF and CDGH, and do
// two rounds per sha256rnds2. The sixteen groups of four rounds are written
// once; with constant indices the compiler unrolls them into registers.
__attribute__((target("sha,sse4.1,ssse3"))) void blocksShaNi(uint32_t state[8], const uint8_t* data, size_t blocks) {
  const __m128i byteSwap = _mm_set_epi64x(0x0c0d0e0f08090a0bULL, 0x0405060700010203ULL);
  __m128i tmp = _mm_shuffle_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(&state[0])), 0xB1);
  __m128i s1 = _mm_shuffle_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(&state[4])), 0x1B);
  __m128i s0 = _mm_alignr_epi8(tmp, s1, 8);  // ABEF
  s1 = _mm_blend_epi16(s1, tmp, 0xF0);       // CDGH

  for (; blocks; --blocks, data += 64) {
    const __m128i abefSave = s0, cdghSave = s1;
    __m128i m[4];
#pragma GCC unroll 16
    for (int g = 0; g < 16; ++g) {
      __m128i& w = m[g & 3];
      __m128i& prev = m[(g + 3) & 3];
      __m128i& next = m[(g + 1) & 3];
      if (g < 4) w = _mm_shuffle_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(data + 16 * g)), byteSwap);
      __m128i msg = _mm_add_epi32(w, _mm_load_si128(reinterpret_cast<const __m128i*>(&kK[4 * g])));
      s1 = _mm_sha256rnds2_epu32(s1, s0, msg);
      if (g >= 3 && g <= 14) {
        next = _mm_add_epi32(next, _mm_alignr_epi8(w, prev, 4));
        next = _mm_sha256msg2_epu32(next, w);
      }
      msg = _mm_shuffle_epi32(msg, 0x0E);
      s0 = _mm_sha256rnds2_epu32(s0, s1, msg);
      if (g >= 1 && g <= 12) prev = _mm_sha256msg1_epu32(prev, w);
    }
    s0 = _mm_add_epi32(s0, abefSave);
    s1 = _mm_add_epi32(s1, cdghSave);
  }

  tmp = _mm_shuffle_epi32(s0, 0x1B);    // FEBA
  s1 = _mm_shuffle_epi32(s1, 0xB1);     // DCHG
  s0 = _mm_blend_epi16(tmp, s1, 0xF0);  // DCBA
  s1 = _mm_alignr_epi8(s1, tmp, 8);     // ABEF
  _mm_storeu_si128(reinterpret_cast<__m128i*>(&state[0]), s0);
  _mm_storeu_si128(reinterpret_cast<__m128i*>(&state[4]), s1);
}

bool cpuHasShaNi() {
  unsigned a, b, c, d;
  if (!__get_cpuid(1, &a, &b, &c, &d)) return false;
  const bool ssse3 = c & (1u << 9), sse41 = c & (1u << 19);
  if (!__get_cpuid_count(7, 0, &a, &b, &c, &d)) return false;
  return ssse3 && sse41 && (b & (1u << 29));
}
#endif

using BlockFn = void (*)(uint32_t*, const uint8_t*, size_t);

bool gAllowShaNi = true;

BlockFn blockFn() {
#ifdef ZAN_SHA_X86
  static const bool has = cpuHasShaNi();
  if (has && gAllowShaNi) return blocksShaNi;
#endif
  return blocksPortable;
}

}  // namespace

bool sha256UsesShaNi() { return blockFn() != blocksPortable; }
void sha256AllowShaNi(bool allow) { gAllowShaNi = allow; }

void Sha256::reset() {
  static const uint32_t kInit[8] = {0x6a09e667, 0xbb67ae85, 0x3c6ef372, 0xa54ff53a,
                                    0x510e527f, 0x9b05688c, 0x1f83d9ab, 0x5be0cd19};
  std::memcpy(state_, kInit, sizeof state_);
  total_ = 0;
  used_ = 0;
}

void Sha256::update(const void* data, size_t length) {
  const uint8_t* p = static_cast<const uint8_t*>(data);
  total_ += length;
  if (used_) {
    const size_t take = length < 64 - used_ ? length : 64 - used_;
    std::memcpy(buffer_ + used_, p, take);
    used_ += take;
    p += take;
    length -= take;
    if (used_ < 64) return;
    blockFn()(state_, buffer_, 1);
    used_ = 0;
  }
  if (length >= 64) {
    blockFn()(state_, p, length / 64);
    p += length & ~size_t(63);
    length &= 63;
  }
  std::memcpy(buffer_, p, length);
  used_ = length;
}

void Sha256::finish(uint8_t digest[32]) {
  const uint64_t bits = total_ * 8;
  uint8_t tail[72] = {0x80};
  // Pad to 56 mod 64, then the length in bits, big-endian.
  const size_t pad = (used_ < 56 ? 56 : 120) - used_;
  for (int i = 0; i < 8; ++i) tail[pad + i] = uint8_t(bits >> (56 - 8 * i));
  update(tail, pad + 8);
  for (int i = 0; i < 8; ++i) {
    digest[4 * i] = uint8_t(state_[i] >> 24);
    digest[4 * i + 1] = uint8_t(state_[i] >> 16);
    digest[4 * i + 2] = uint8_t(state_[i] >> 8);
    digest[4 * i + 3] = uint8_t(state_[i]);
  }
}

std::string Sha256::finishHex() {
  uint8_t digest[32];
  finish(digest);
  static const char kHex[] = "0123456789abcdef";
  std::string out(64, '0');
  for (int i = 0; i < 32; ++i) {
    out[2 * i] = kHex[digest[i] >> 4];
    out[2 * i + 1] = kHex[digest[i] & 15];
  }
  return out;
}

std::string sha256Hex(std::string_view bytes) {
  Sha256 h;
  h.update(bytes.data(), bytes.size());
  return h.finishHex();
}

std::string fileSha(const std::string& path) {
  FILE* f = std::fopen(path.c_str(), "rb");
  if (!f) return "";
  Sha256 h;
  std::vector<uint8_t> block(65536);
  size_t n;
  while ((n = std::fread(block.data(), 1, block.size(), f)) > 0) h.update(block.data(), n);
  std::fclose(f);
  return h.finishHex();
}

}  // namespace tov
