// Test tool: writes a llama-family GGUF model file with seeded random
// weights, so importer tests have GGUF input without downloading a model.
// It owns the GGUF writer, the weight generator and the ggml encodings
// (F32, F16, BF16, Q8_0, Q4_0, the K-quants Q2_K..Q6_K and, for refusal
// tests, Q4_1).
//
//   gguf_gen --out FILE [--version 2|3] [--type TYPE] [--arch ARCH]
//            [--dim 64] [--layers 2] [--ff 160] [--heads 4] [--kv-heads 2]
//            [--head-dim N] [--vocab 96] [--ctx 256] [--seed 1]
//            [--tokenizer llama|gpt2] [--pre NAME] [--tied]
//            [--expect FILE.json] [--bad-type] [--alignment 32]
//            [--no-test-keys] [--verbose]
//
// TYPE: f32 f16 bf16 q8_0 q4_0 q2_k q3_k q4_k q5_k q6_k, or q4_k_m (Q4_K
// with Q6_K for attn_v, ffn_down and output, as the usual mixed files are).
// ARCH: llama, mistral (the same layout), qwen2 (biases on Q, K and V),
// qwen3 (RMSNorm weights for each head of Q and K). --head-dim writes
// attention.key_length/value_length and sizes Q by heads * N. --pre writes
// tokenizer.ggml.pre. The K-quants encode each super-block of 256 simply:
// per group, scale (and offset) from its range, 6 or 4 bits of each
// relative to the super-block's f16 scales, then every value rounded to
// the nearest level.
//
// Nothing is printed on stdout unless --verbose is given; errors go to
// stderr (exit 2 for a bad command line, 1 for a failed write).
//
// File layout: header, metadata, tensor infos, zero padding up to
// general.alignment, then each tensor's data padded to the alignment (the
// last one too), as llama.cpp's loader expects. Tensors use ggml order:
// dims[0] is the innermost dimension (the input features of a weight).
//
// Weights are reproducible on any machine: tensor number t (0-based, in file
// order) draws from xorshift64* seeded with mix64(seed + (t + 1) * golden),
// one 64-bit draw per element. The four 16-bit fields of a draw are summed
// and centred (an Irwin-Hall approximation of a normal), s in
// [-131070, 131070], and the value is float(s * 0.02 / 37837.2269) for
// weights (standard deviation 0.02) and float(1.0 + s * 0.05 / 37837.2269)
// for norms, each computed in double and rounded to float once. Quantised
// types follow ggml's reference quantisers (quantize_row_q8_0_ref and
// friends), F16 and BF16 round to nearest even.
//
// --expect writes what was written as JSON:
//   {"version": V, "alignment": A, "tensor_count": N, "kv_count": K,
//    "data_offset": D, "file_size": S,
//    "metadata": [{"key": K, "type": T, "value": V}, ...
//                 {"key": K, "type": "array", "element_type": T,
//                  "length": L, "head": [first <= 8 values], "last": V}],
//    "tensors": [{"name": N, "type": "q8_0", "type_id": 8, "dims": [...],
//                 "offset": O, "size": B}, ...]}
// Type names: u8 i8 u16 i16 u32 i32 f32 bool string array u64 i64 f64.
// u64 and i64 values are decimal strings (exact in any JSON reader); f32
// values are printed as the exact double they widen to. An element of a
// nested array is itself {"element_type", "length", "head", "last"}; "last"
// is null for an empty array. Tensor offsets are relative to the data
// section, which starts at data_offset in the file; size excludes padding.
#include <algorithm>
#include <bit>
#include <cctype>
#include <cerrno>
#include <cfloat>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <set>
#include <string>
#include <string_view>
#include <vector>

static_assert(std::endian::native == std::endian::little, "gguf_gen writes little-endian files from memory");

namespace {

// ---------------------------------------------------------------- numbers

uint16_t f32ToF16(float f) {
  const uint32_t x = std::bit_cast<uint32_t>(f);
  const uint16_t sign = uint16_t((x >> 16) & 0x8000u);
  const uint32_t a = x & 0x7FFFFFFFu;
  if (a >= 0x7F800000u) return uint16_t(sign | (a > 0x7F800000u ? 0x7E00u : 0x7C00u));
  if (a >= 0x477FF000u) return uint16_t(sign | 0x7C00u);  // 65520 and up round to infinity
  const uint32_t e = a >> 23;
  if (e < 113) {  // below 2^-14: a subnormal half or zero
    if (e < 102) return sign;
    const uint32_t m = (a & 0x7FFFFFu) | 0x800000u;
    const uint32_t shift = 126 - e;
    uint32_t h = m >> shift;
    const uint32_t rem = m & ((1u << shift) - 1);
    const uint32_t half = 1u << (shift - 1);
    if (rem > half || (rem == half && (h & 1))) ++h;
    return uint16_t(sign | h);
  }
  uint32_t h = ((e - 112) << 10) | ((a >> 13) & 0x3FFu);
  const uint32_t rem = a & 0x1FFFu;
  if (rem > 0x1000u || (rem == 0x1000u && (h & 1))) ++h;
  return uint16_t(sign | h);
}

uint16_t f32ToBf16(float f) {
  const uint32_t x = std::bit_cast<uint32_t>(f);
  if ((x & 0x7FFFFFFFu) > 0x7F800000u) return uint16_t((x >> 16) | 0x40u);  // quiet NaN
  return uint16_t((x + 0x7FFFu + ((x >> 16) & 1u)) >> 16);
}

uint64_t mix64(uint64_t z) {
  z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
  z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
  return z ^ (z >> 31);
}

struct Rng {
  uint64_t s;
  Rng(uint64_t seed, uint64_t tensorIndex) : s(mix64(seed + (tensorIndex + 1) * 0x9E3779B97F4A7C15ull)) {
    if (s == 0) s = 1;
  }
  uint64_t next() {
    s ^= s >> 12;
    s ^= s << 25;
    s ^= s >> 27;
    return s * 0x2545F4914F6CDD1Dull;
  }
  // Centred sum of the four 16-bit fields of one draw.
  double centred() {
    const uint64_t r = next();
    const int64_t sum = int64_t(r & 0xFFFF) + int64_t((r >> 16) & 0xFFFF) + int64_t((r >> 32) & 0xFFFF) +
                        int64_t(r >> 48);
    return double(sum - 131070);
  }
};

constexpr double kSumStd = 37837.2269;  // sqrt((2^32 - 1) / 3), the spread of the centred sum
constexpr double kWeightScale = 0.02 / kSumStd;
constexpr double kNormScale = 0.05 / kSumStd;

// ---------------------------------------------------------------- ggml types

enum : uint32_t {
  kF32 = 0, kF16 = 1, kQ4_0 = 2, kQ4_1 = 3, kQ8_0 = 8, kQ2_K = 10, kQ3_K = 11, kQ4_K = 12, kQ5_K = 13, kQ6_K = 14,
  kBF16 = 30, kQ4_K_M = 1000  // a mix, not a tensor type
};

struct TypeInfo {
  uint32_t id;
  const char* name;
  uint64_t blockElems;
  uint64_t blockBytes;
};

constexpr TypeInfo kTypes[] = {
    {kF32, "f32", 1, 4},     {kF16, "f16", 1, 2},     {kBF16, "bf16", 1, 2},
    {kQ8_0, "q8_0", 32, 34}, {kQ4_0, "q4_0", 32, 18}, {kQ4_1, "q4_1", 32, 20},
    {kQ2_K, "q2_k", 256, 84}, {kQ3_K, "q3_k", 256, 110}, {kQ4_K, "q4_k", 256, 144},
    {kQ5_K, "q5_k", 256, 176}, {kQ6_K, "q6_k", 256, 210}, {kQ4_K_M, "q4_k_m", 256, 144},
};

const TypeInfo& typeInfo(uint32_t id) {
  for (const TypeInfo& t : kTypes)
    if (t.id == id) return t;
  std::abort();
}

// llama.cpp's general.file_type for a model whose weights are mostly `id`.
uint32_t fileType(uint32_t id) {
  switch (id) {
    case kF32: return 0;
    case kF16: return 1;
    case kQ4_0: return 2;
    case kQ8_0: return 7;
    case kQ2_K: return 10;
    case kQ3_K: return 11;
    case kQ4_K: return 14;
    case kQ5_K: return 16;
    case kQ6_K: return 18;
    case kQ4_K_M: return 15;
    case kBF16: return 32;
  }
  return 0;
}

uint8_t* put16(uint8_t* p, uint16_t v) {
  p[0] = uint8_t(v);
  p[1] = uint8_t(v >> 8);
  return p + 2;
}

// roundf (halves away from zero) without a library call or a branch: the
// sum is exact in double for a float of magnitude below 2^29.
int roundHalfAway(float v) {
  return int(double(v) + std::copysign(0.5, double(v)));
}

int clampRound(float v, int lo, int hi) { return std::min(hi, std::max(lo, roundHalfAway(v))); }

float half(float f) {  // f rounded to the nearest half, as a float
  const uint16_t h = f32ToF16(f);
  const uint32_t e = (h >> 10) & 31, m = h & 1023;
  const float mag = e == 0 ? float(m) * 0x1p-24f : std::ldexp(float(m | 1024), int(e) - 25);
  return (h & 0x8000) ? -mag : mag;
}

// One K-quant super-block of 256 values: the stored levels u (0..2^bits-1),
// per-group integer scales and offsets, and the two f16 super scales.
struct KBlock {
  int u[256];
  int sc[16], mn[16];
  uint16_t d, dmin;
};

// groups of 256 / groups values; asymmetric types keep w = d*sc*u - dmin*m,
// symmetric ones w = d*sc*(u - zero) with a signed sc.
void kQuantise(const float* x, int groups, int bits, int scaleBits, bool asym, KBlock& k) {
  const int per = 256 / groups, top = (1 << bits) - 1, smax = (1 << scaleBits) - 1;
  float gs[16], gm[16];
  for (int g = 0; g < groups; ++g) {
    float lo = 0.f, hi = 0.f, amax = 0.f;
    for (int i = 0; i < per; ++i) {
      const float v = x[g * per + i];
      lo = std::min(lo, v), hi = std::max(hi, v), amax = std::max(amax, std::fabs(v));
    }
    gs[g] = asym ? (hi - lo) / float(top) : amax / float((top + 1) / 2);
    gm[g] = -lo;
  }
  float maxS = 0.f, maxM = 0.f;
  for (int g = 0; g < groups; ++g) maxS = std::max(maxS, gs[g]), maxM = std::max(maxM, gm[g]);
  const int sTop = asym ? smax : smax / 2;  // signed 6-bit or 8-bit scales use half the range
  const float d = half(maxS / float(sTop)), dmin = half(maxM / float(smax));
  k.d = f32ToF16(d), k.dmin = f32ToF16(dmin);
  const int zero = asym ? 0 : (top + 1) / 2;
  for (int g = 0; g < groups; ++g) {
    k.sc[g] = d > 0 ? clampRound(gs[g] / d, 0, sTop) : 0;
    k.mn[g] = asym && dmin > 0 ? clampRound(gm[g] / dmin, 0, smax) : 0;
    const float s = d * float(k.sc[g]), m = dmin * float(k.mn[g]);
    for (int i = 0; i < per; ++i)
      k.u[g * per + i] = s > 0 ? clampRound((x[g * per + i] + m) / s + float(zero), 0, top) : zero;
  }
}

uint8_t* encodeK(uint32_t type, const float* x, uint8_t* p) {
  KBlock k;
  switch (type) {
    case kQ2_K: {
      kQuantise(x, 16, 2, 4, true, k);
      std::memset(p, 0, 84);
      for (int g = 0; g < 16; ++g) p[g] = uint8_t(k.sc[g] | k.mn[g] << 4);
      for (int h = 0; h < 2; ++h)
        for (int j = 0; j < 4; ++j)
          for (int i = 0; i < 32; ++i) p[16 + 32 * h + i] |= uint8_t(k.u[128 * h + 32 * j + i] << (2 * j));
      put16(p + 80, k.d);
      put16(p + 82, k.dmin);
      return p + 84;
    }
    case kQ3_K: {
      kQuantise(x, 16, 3, 6, false, k);
      std::memset(p, 0, 110);
      for (int h = 0; h < 2; ++h)
        for (int j = 0; j < 4; ++j)
          for (int i = 0; i < 32; ++i) {
            const int u = k.u[128 * h + 32 * j + i];
            p[32 + 32 * h + i] |= uint8_t((u & 3) << (2 * j));
            p[i] |= uint8_t((u >> 2) << (4 * h + j));
          }
      for (int g = 0; g < 16; ++g) {
        const int v = k.sc[g] + 32;  // stored with an offset of 32
        p[96 + (g < 8 ? g : g - 8)] |= uint8_t((v & 15) << (g < 8 ? 0 : 4));
        p[96 + 8 + g % 4] |= uint8_t((v >> 4) << (2 * (g / 4)));
      }
      put16(p + 108, k.d);
      return p + 110;
    }
    case kQ4_K:
    case kQ5_K: {
      const bool five = type == kQ5_K;
      kQuantise(x, 8, five ? 5 : 4, 6, true, k);
      const size_t bytes = five ? 176 : 144;
      std::memset(p, 0, bytes);
      put16(p, k.d);
      put16(p + 2, k.dmin);
      uint8_t* s = p + 4;
      for (int j = 0; j < 8; ++j) {
        if (j < 4) {
          s[j] |= uint8_t(k.sc[j]);
          s[j + 4] |= uint8_t(k.mn[j]);
        } else {
          s[j + 4] = uint8_t((k.sc[j] & 15) | (k.mn[j] & 15) << 4);
          s[j - 4] |= uint8_t((k.sc[j] >> 4) << 6);
          s[j] |= uint8_t((k.mn[j] >> 4) << 6);
        }
      }
      uint8_t* qh = p + 16;
      uint8_t* qs = p + (five ? 48 : 16);
      for (int c = 0; c < 4; ++c)
        for (int i = 0; i < 32; ++i) {
          const int lo = k.u[64 * c + i], hi = k.u[64 * c + 32 + i];
          qs[32 * c + i] = uint8_t((lo & 15) | (hi & 15) << 4);
          if (five) qh[i] |= uint8_t((lo >> 4) << (2 * c) | (hi >> 4) << (2 * c + 1));
        }
      return p + bytes;
    }
    case kQ6_K: {
      kQuantise(x, 16, 6, 8, false, k);
      std::memset(p, 0, 210);
      for (int h = 0; h < 2; ++h)
        for (int j = 0; j < 4; ++j)
          for (int i = 0; i < 32; ++i) {
            const int u = k.u[128 * h + 32 * j + i];
            p[64 * h + 32 * (j & 1) + i] |= uint8_t((u & 15) << (j < 2 ? 0 : 4));
            p[128 + 32 * h + i] |= uint8_t((u >> 4) << (2 * j));
          }
      for (int g = 0; g < 16; ++g) p[192 + g] = uint8_t(int8_t(k.sc[g]));
      put16(p + 208, k.d);
      return p + 210;
    }
  }
  std::abort();
}

// Writes the encoding of x (a whole number of blocks) at p, which has room
// for it, and returns the end.
uint8_t* encode(uint32_t type, const float* x, size_t n, uint8_t* p) {
  switch (type) {
    case kF32:
      std::memcpy(p, x, n * 4);
      return p + n * 4;
    case kF16:
      for (size_t i = 0; i < n; ++i) p = put16(p, f32ToF16(x[i]));
      return p;
    case kBF16:
      for (size_t i = 0; i < n; ++i) p = put16(p, f32ToBf16(x[i]));
      return p;
    case kQ8_0:
      for (size_t b = 0; b < n; b += 32) {
        const float* v = x + b;
        float amax = 0.0f;
        for (int j = 0; j < 32; ++j) amax = std::max(amax, std::fabs(v[j]));
        const float d = amax / 127.0f;
        const float id = d != 0.0f ? 1.0f / d : 0.0f;
        p = put16(p, f32ToF16(d));
        for (int j = 0; j < 32; ++j) *p++ = uint8_t(int8_t(roundHalfAway(v[j] * id)));
      }
      return p;
    case kQ4_0:
      for (size_t b = 0; b < n; b += 32) {
        const float* v = x + b;
        float amax = 0.0f, max = 0.0f;  // max keeps its sign
        for (int j = 0; j < 32; ++j) {
          if (amax < std::fabs(v[j])) {
            amax = std::fabs(v[j]);
            max = v[j];
          }
        }
        const float d = max / -8.0f;
        const float id = d != 0.0f ? 1.0f / d : 0.0f;
        p = put16(p, f32ToF16(d));
        for (int j = 0; j < 16; ++j) {
          const int q0 = std::min(15, int(int8_t(v[j] * id + 8.5f)));
          const int q1 = std::min(15, int(int8_t(v[j + 16] * id + 8.5f)));
          *p++ = uint8_t(q0 | (q1 << 4));
        }
      }
      return p;
    case kQ4_1:
      for (size_t b = 0; b < n; b += 32) {
        const float* v = x + b;
        float mn = FLT_MAX, mx = -FLT_MAX;
        for (int j = 0; j < 32; ++j) {
          mn = std::min(mn, v[j]);
          mx = std::max(mx, v[j]);
        }
        const float d = (mx - mn) / 15.0f;
        const float id = d != 0.0f ? 1.0f / d : 0.0f;
        p = put16(p, f32ToF16(d));
        p = put16(p, f32ToF16(mn));
        for (int j = 0; j < 16; ++j) {
          const int q0 = std::min(15, int(int8_t((v[j] - mn) * id + 0.5f)));
          const int q1 = std::min(15, int(int8_t((v[j + 16] - mn) * id + 0.5f)));
          *p++ = uint8_t(q0 | (q1 << 4));
        }
      }
      return p;
    case kQ2_K:
    case kQ3_K:
    case kQ4_K:
    case kQ5_K:
    case kQ6_K:
      for (size_t b = 0; b < n; b += 256) p = encodeK(type, x + b, p);
      return p;
  }
  std::abort();
}

// ---------------------------------------------------------------- metadata

enum class VT : uint32_t { U8, I8, U16, I16, U32, I32, F32, Bool, Str, Arr, U64, I64, F64 };

const char* vtName(VT t) {
  static const char* const names[] = {"u8",   "i8",     "u16",   "i16", "u32", "i32", "f32",
                                      "bool", "string", "array", "u64", "i64", "f64"};
  return names[uint32_t(t)];
}

struct Value {
  VT type = VT::U8;
  uint64_t u = 0;  // unsigned kinds and bool
  int64_t i = 0;   // signed kinds
  double f = 0;    // f32 (exactly representable) and f64
  std::string s;
  VT elemType = VT::U8;
  std::vector<Value> items;
};

Value vU(VT t, uint64_t u) { Value v; v.type = t; v.u = u; return v; }
Value vI(VT t, int64_t i) { Value v; v.type = t; v.i = i; return v; }
Value vF32(float f) { Value v; v.type = VT::F32; v.f = f; return v; }
Value vF64(double f) { Value v; v.type = VT::F64; v.f = f; return v; }
Value vBool(bool b) { Value v; v.type = VT::Bool; v.u = b; return v; }
Value vStr(std::string s) { Value v; v.type = VT::Str; v.s = std::move(s); return v; }
Value vArr(VT elem, std::vector<Value> items) {
  Value v;
  v.type = VT::Arr;
  v.elemType = elem;
  v.items = std::move(items);
  return v;
}

struct Kv {
  std::string key;
  Value value;
};

class Bytes {
 public:
  std::vector<uint8_t> b;
  void raw(const void* p, size_t n) {
    const uint8_t* c = static_cast<const uint8_t*>(p);
    b.insert(b.end(), c, c + n);
  }
  template <typename T>
  void num(T v) { raw(&v, sizeof v); }
  void str(const std::string& s) {
    num<uint64_t>(s.size());
    raw(s.data(), s.size());
  }
  void value(const Value& v) {
    switch (v.type) {
      case VT::U8: num<uint8_t>(uint8_t(v.u)); break;
      case VT::I8: num<int8_t>(int8_t(v.i)); break;
      case VT::U16: num<uint16_t>(uint16_t(v.u)); break;
      case VT::I16: num<int16_t>(int16_t(v.i)); break;
      case VT::U32: num<uint32_t>(uint32_t(v.u)); break;
      case VT::I32: num<int32_t>(int32_t(v.i)); break;
      case VT::F32: num<float>(float(v.f)); break;
      case VT::Bool: num<uint8_t>(v.u ? 1 : 0); break;
      case VT::Str: str(v.s); break;
      case VT::Arr:
        num<uint32_t>(uint32_t(v.elemType));
        num<uint64_t>(v.items.size());
        for (const Value& item : v.items) value(item);
        break;
      case VT::U64: num<uint64_t>(v.u); break;
      case VT::I64: num<int64_t>(v.i); break;
      case VT::F64: num<double>(v.f); break;
    }
  }
};

// ---------------------------------------------------------------- JSON

std::string jsonString(std::string_view s) {
  std::string out = "\"";
  for (unsigned char c : s) {
    if (c == '"' || c == '\\') {
      out += '\\';
      out += char(c);
    } else if (c < 0x20) {
      char buf[8];
      std::snprintf(buf, sizeof buf, "\\u%04x", c);
      out += buf;
    } else {
      out += char(c);
    }
  }
  return out + "\"";
}

std::string jsonDouble(double d) {
  char buf[40];
  std::snprintf(buf, sizeof buf, "%.17g", d);
  return buf;
}

std::string jsonArrayFields(const Value& v);

std::string jsonScalar(const Value& v) {
  switch (v.type) {
    case VT::U8: case VT::U16: case VT::U32: return std::to_string(v.u);
    case VT::I8: case VT::I16: case VT::I32: return std::to_string(v.i);
    case VT::U64: return "\"" + std::to_string(v.u) + "\"";
    case VT::I64: return "\"" + std::to_string(v.i) + "\"";
    case VT::F32: case VT::F64: return jsonDouble(v.f);
    case VT::Bool: return v.u ? "true" : "false";
    case VT::Str: return jsonString(v.s);
    case VT::Arr: return "{" + jsonArrayFields(v) + "}";
  }
  return "null";
}

std::string jsonArrayFields(const Value& v) {
  std::string out = "\"element_type\": " + jsonString(vtName(v.elemType)) +
                    ", \"length\": " + std::to_string(v.items.size()) + ", \"head\": [";
  const size_t head = std::min<size_t>(8, v.items.size());
  for (size_t i = 0; i < head; ++i) out += (i ? ", " : "") + jsonScalar(v.items[i]);
  out += "], \"last\": " + (v.items.empty() ? std::string("null") : jsonScalar(v.items.back()));
  return out;
}

// ---------------------------------------------------------------- model

struct Options {
  std::string out, expect;
  uint32_t version = 3;
  uint32_t type = kF32;
  uint64_t dim = 64, layers = 2, ff = 160, heads = 4, kvHeads = 2, vocab = 96, ctx = 256, seed = 1;
  uint64_t headDim = 0;  // 0: dim / heads, and no key_length entry
  uint64_t alignment = 32;
  std::string arch = "llama", pre;
  bool gpt2 = false, tied = false, badType = false, testKeys = true, verbose = false;
};

struct Tensor {
  std::string name;
  std::vector<uint64_t> dims;
  uint32_t type;
  bool norm;
  uint64_t offset = 0;
  uint64_t size = 0;
};

uint64_t alignUp(uint64_t x, uint64_t a) { return (x + a - 1) / a * a; }

const std::string kSp = "\xE2\x96\x81";  // U+2581, SentencePiece's word start
const char* const kWords[] = {"the", "a",    "and",  "of",   "to",    "in",    "is",   "it",    "that", "was",
                              "for", "on",   "with", "as",   "he",    "be",    "at",   "by",    "this", "had",
                              "not", "are",  "but",  "from", "or",    "have",  "an",   "they",  "which", "one",
                              "you", "were", "her",  "all",  "she",   "there", "would", "their", "we",   "him"};

std::string letters(uint64_t index, int len) {
  std::string s(size_t(len), 'a');
  for (int k = len - 1; k >= 0; --k) {
    s[size_t(k)] = char('a' + index % 26);
    index /= 26;
  }
  return s;
}

struct Vocab {
  std::vector<std::string> tokens;
  std::vector<float> scores;
  std::vector<int32_t> types;
  std::vector<std::string> merges;
  uint32_t bos = 0, eos = 0, unk = 0, pad = 0;
};

bool buildLlamaVocab(uint64_t n, Vocab& v) {
  std::set<std::string> seen;
  auto add = [&](const std::string& t, int32_t type, float score) {
    if (v.tokens.size() >= n || !seen.insert(t).second) return;
    v.tokens.push_back(t);
    v.types.push_back(type);
    v.scores.push_back(score);
  };
  add("<unk>", 2, 0.0f);
  add("<s>", 3, 0.0f);
  add("</s>", 3, 0.0f);
  v.unk = 0, v.bos = 1, v.eos = 2, v.pad = 0;
  if (n >= 512) {
    for (int b = 0; b < 256; ++b) {
      char buf[8];
      std::snprintf(buf, sizeof buf, "<0x%02X>", b);
      add(buf, 6, 0.0f);
    }
  }
  float score = 0.0f;
  auto piece = [&](const std::string& t) {
    const size_t before = v.tokens.size();
    add(t, 1, score);
    if (v.tokens.size() != before) score -= 1.0f;
  };
  for (const char* w : kWords) piece(kSp + w);
  // Multi-byte pieces: two-, three- and four-byte UTF-8 sequences.
  piece(kSp + "caf\xC3\xA9");
  piece(kSp + "\xE6\x97\xA5\xE6\x9C\xAC");
  piece("\xF0\x9F\x99\x82");
  piece(kSp);
  for (char c = 'a'; c <= 'z'; ++c) piece(std::string(1, c));
  for (char c = 'A'; c <= 'Z'; ++c) piece(std::string(1, c));
  for (char c = '0'; c <= '9'; ++c) piece(std::string(1, c));
  for (char c : std::string_view(".,!?'\"-:;()")) piece(std::string(1, c));
  for (int len = 2; v.tokens.size() < n && len <= 5; ++len) {
    uint64_t count = 1;
    for (int k = 0; k < len; ++k) count *= 26;
    for (uint64_t i = 0; i < count && v.tokens.size() < n; ++i) piece(kSp + letters(i, len));
    for (uint64_t i = 0; i < count && v.tokens.size() < n; ++i) piece(letters(i, len));
  }
  return v.tokens.size() == n;
}

// GPT-2's byte-to-unicode table, in its order: printable Latin-1 bytes map
// to themselves, the rest to U+0100 and up.
std::vector<std::string> gpt2ByteChars() {
  auto utf8 = [](uint32_t cp) {
    std::string s;
    if (cp < 0x80) {
      s += char(cp);
    } else {
      s += char(0xC0 | (cp >> 6));
      s += char(0x80 | (cp & 0x3F));
    }
    return s;
  };
  std::vector<std::string> out;
  std::vector<bool> direct(256, false);
  for (uint32_t b = 0; b < 256; ++b) {
    direct[b] = (b >= '!' && b <= '~') || (b >= 0xA1 && b <= 0xAC) || (b >= 0xAE && b <= 0xFF);
    if (direct[b]) out.push_back(utf8(b));
  }
  uint32_t next = 256;
  for (uint32_t b = 0; b < 256; ++b)
    if (!direct[b]) out.push_back(utf8(next++));
  return out;
}

bool buildGpt2Vocab(uint64_t n, Vocab& v) {
  const std::string G = "\xC4\xA0";  // U+0120, the byte-level space
  std::set<std::string> seen;
  auto add = [&](const std::string& t) {
    if (v.tokens.size() + 1 >= n || !seen.insert(t).second) return false;
    v.tokens.push_back(t);
    v.types.push_back(1);
    v.scores.push_back(-float(v.tokens.size() - 1));
    return true;
  };
  if (n >= 512) {
    for (const std::string& c : gpt2ByteChars()) add(c);
  } else {
    const uint64_t base = std::min<uint64_t>(95, n - 1 - n / 3);
    std::vector<std::string> small = {G};
    for (char c = 'a'; c <= 'z'; ++c) small.emplace_back(1, c);
    for (char c = 'A'; c <= 'Z'; ++c) small.emplace_back(1, c);
    for (char c = '0'; c <= '9'; ++c) small.emplace_back(1, c);
    for (char c = '!'; c <= '~'; ++c)
      if (!std::isalnum(static_cast<unsigned char>(c))) small.emplace_back(1, c);
    for (uint64_t i = 0; i < base && i < small.size(); ++i) add(small[i]);
  }
  auto merge = [&](const std::string& a, const std::string& b) {
    if (!seen.count(a) || !seen.count(b)) return;
    if (add(a + b)) v.merges.push_back(a + " " + b);
  };
  for (const char* w : kWords) {
    for (int spaced = 1; spaced >= 0; --spaced) {
      std::string cur = spaced ? G : std::string(1, w[0]);
      for (const char* c = spaced ? w : w + 1; *c; ++c) {
        merge(cur, std::string(1, *c));
        cur += *c;
      }
    }
  }
  for (char c = 'a'; c <= 'z'; ++c) merge(G, std::string(1, c));
  for (int len = 2; v.tokens.size() + 1 < n && len <= 6; ++len) {
    uint64_t count = 1;
    for (int k = 0; k < len; ++k) count *= 26;
    for (uint64_t i = 0; i < count && v.tokens.size() + 1 < n; ++i) {
      const std::string w = letters(i, len);
      const std::string head = w.substr(0, size_t(len - 1)), tail = w.substr(size_t(len - 1));
      merge(head, tail);
      merge(G + head, tail);
    }
  }
  if (v.tokens.size() + 1 != n) return false;
  v.tokens.push_back("<|endoftext|>");
  v.types.push_back(3);
  v.scores.push_back(0.0f);
  v.bos = v.eos = v.unk = v.pad = uint32_t(n - 1);
  return true;
}

std::vector<Kv> buildMetadata(const Options& o, const Vocab& voc) {
  std::vector<Kv> kv;
  auto u32 = [&](const char* k, uint64_t x) { kv.push_back({k, vU(VT::U32, x)}); };
  const char* tname = typeInfo(o.type).name;
  const std::string& a = o.arch;
  kv.push_back({"general.architecture", vStr(a)});
  kv.push_back({"general.name", vStr("gguf_gen " + a + " " + std::string(tname) + " d" + std::to_string(o.dim) +
                                     " l" + std::to_string(o.layers) + " seed " + std::to_string(o.seed))});
  u32("general.alignment", o.alignment);
  u32("general.file_type", fileType(o.type));
  if (typeInfo(o.type).blockElems > 1) u32("general.quantization_version", 2);
  const uint64_t headDim = o.headDim ? o.headDim : o.dim / o.heads;
  u32((a + ".context_length").c_str(), o.ctx);
  u32((a + ".embedding_length").c_str(), o.dim);
  u32((a + ".block_count").c_str(), o.layers);
  u32((a + ".feed_forward_length").c_str(), o.ff);
  u32((a + ".rope.dimension_count").c_str(), headDim);
  u32((a + ".attention.head_count").c_str(), o.heads);
  u32((a + ".attention.head_count_kv").c_str(), o.kvHeads);
  if (o.headDim) {
    u32((a + ".attention.key_length").c_str(), o.headDim);
    u32((a + ".attention.value_length").c_str(), o.headDim);
  }
  kv.push_back({a + ".rope.freq_base", vF32(a == "llama" ? 10000.0f : 1000000.0f)});
  kv.push_back({a + ".attention.layer_norm_rms_epsilon", vF32(a == "llama" ? 1e-5f : 1e-6f)});
  u32((a + ".vocab_size").c_str(), o.vocab);

  kv.push_back({"tokenizer.ggml.model", vStr(o.gpt2 ? "gpt2" : "llama")});
  if (!o.pre.empty()) kv.push_back({"tokenizer.ggml.pre", vStr(o.pre)});
  std::vector<Value> tokens, scores, types, merges;
  for (const std::string& t : voc.tokens) tokens.push_back(vStr(t));
  for (float s : voc.scores) scores.push_back(vF32(s));
  for (int32_t t : voc.types) types.push_back(vI(VT::I32, t));
  kv.push_back({"tokenizer.ggml.tokens", vArr(VT::Str, std::move(tokens))});
  kv.push_back({"tokenizer.ggml.scores", vArr(VT::F32, std::move(scores))});
  kv.push_back({"tokenizer.ggml.token_type", vArr(VT::I32, std::move(types))});
  if (o.gpt2) {
    for (const std::string& m : voc.merges) merges.push_back(vStr(m));
    kv.push_back({"tokenizer.ggml.merges", vArr(VT::Str, std::move(merges))});
  }
  u32("tokenizer.ggml.bos_token_id", voc.bos);
  u32("tokenizer.ggml.eos_token_id", voc.eos);
  u32("tokenizer.ggml.unknown_token_id", voc.unk);
  u32("tokenizer.ggml.padding_token_id", voc.pad);
  kv.push_back({"tokenizer.ggml.add_bos_token", vBool(!o.gpt2)});

  if (o.testKeys) {
    // One key of every value type the model keys above leave out, plus
    // arrays of several element types, an empty array and a nested array
    // (llama.cpp's own loader refuses nested arrays: --no-test-keys drops
    // all of these).
    kv.push_back({"test.u8", vU(VT::U8, 200)});
    kv.push_back({"test.i8", vI(VT::I8, -100)});
    kv.push_back({"test.u16", vU(VT::U16, 60000)});
    kv.push_back({"test.i16", vI(VT::I16, -30000)});
    kv.push_back({"test.i32", vI(VT::I32, -2000000000)});
    kv.push_back({"test.u64", vU(VT::U64, UINT64_MAX)});
    kv.push_back({"test.i64", vI(VT::I64, INT64_MIN + 1)});
    kv.push_back({"test.f64", vF64(3.141592653589793)});
    kv.push_back({"test.bool", vBool(false)});
    kv.push_back({"test.string.empty", vStr("")});
    kv.push_back({"test.string.escapes", vStr("tab\tquote\"backslash\\newline\n")});
    kv.push_back({"test.array.u8", vArr(VT::U8, {vU(VT::U8, 0), vU(VT::U8, 255)})});
    kv.push_back({"test.array.i16", vArr(VT::I16, {vI(VT::I16, -32768), vI(VT::I16, 32767)})});
    kv.push_back({"test.array.u64", vArr(VT::U64, {vU(VT::U64, 0), vU(VT::U64, 1ull << 53 | 1), vU(VT::U64, UINT64_MAX)})});
    kv.push_back({"test.array.i64", vArr(VT::I64, {vI(VT::I64, INT64_MIN), vI(VT::I64, -1)})});
    kv.push_back({"test.array.f64", vArr(VT::F64, {vF64(-0.5), vF64(1e-300), vF64(6.02214076e23)})});
    kv.push_back({"test.array.bool", vArr(VT::Bool, {vBool(true), vBool(false), vBool(true)})});
    kv.push_back({"test.array.empty", vArr(VT::I32, {})});
    kv.push_back({"test.nested", vArr(VT::Arr, {vArr(VT::I32, {vI(VT::I32, 1), vI(VT::I32, 2), vI(VT::I32, 3)}),
                                                vArr(VT::Str, {vStr("x"), vStr("y")}),
                                                vArr(VT::U8, {})})});
  }
  return kv;
}

std::vector<Tensor> buildTensors(const Options& o) {
  const uint64_t headDim = o.headDim ? o.headDim : o.dim / o.heads;
  const uint64_t qDim = headDim * o.heads, kvDim = headDim * o.kvHeads;
  std::vector<Tensor> t;
  // q4_k_m: Q6_K where the usual mixed files spend more bits.
  auto typeOf = [&](const std::string& name) {
    if (o.type != kQ4_K_M) return o.type;
    const bool more = name == "output.weight" || name.find("attn_v.") != std::string::npos ||
                      name.find("ffn_down.") != std::string::npos;
    return more ? uint32_t(kQ6_K) : uint32_t(kQ4_K);
  };
  auto w = [&](std::string name, uint64_t in, uint64_t out) {
    const uint32_t type = typeOf(name);
    t.push_back({std::move(name), {in, out}, type, false});
  };
  auto norm = [&](std::string name, uint64_t n) { t.push_back({std::move(name), {n}, kF32, true}); };
  auto bias = [&](std::string name, uint64_t n) { t.push_back({std::move(name), {n}, kF32, false}); };
  w("token_embd.weight", o.dim, o.vocab);
  norm("output_norm.weight", o.dim);
  if (!o.tied) w("output.weight", o.dim, o.vocab);
  for (uint64_t l = 0; l < o.layers; ++l) {
    const std::string p = "blk." + std::to_string(l) + ".";
    norm(p + "attn_norm.weight", o.dim);
    w(p + "attn_q.weight", o.dim, qDim);
    if (l == 0 && o.badType) t.back().type = kQ4_1;
    w(p + "attn_k.weight", o.dim, kvDim);
    w(p + "attn_v.weight", o.dim, kvDim);
    if (o.arch == "qwen2") {
      bias(p + "attn_q.bias", qDim);
      bias(p + "attn_k.bias", kvDim);
      bias(p + "attn_v.bias", kvDim);
    }
    if (o.arch == "qwen3") {
      norm(p + "attn_q_norm.weight", headDim);
      norm(p + "attn_k_norm.weight", headDim);
    }
    w(p + "attn_output.weight", qDim, o.dim);
    norm(p + "ffn_norm.weight", o.dim);
    w(p + "ffn_gate.weight", o.dim, o.ff);
    w(p + "ffn_up.weight", o.dim, o.ff);
    w(p + "ffn_down.weight", o.ff, o.dim);
  }
  uint64_t at = 0;
  for (Tensor& x : t) {
    const TypeInfo& ti = typeInfo(x.type);
    uint64_t rows = 1;
    for (size_t k = 1; k < x.dims.size(); ++k) rows *= x.dims[k];
    x.size = rows * (x.dims[0] / ti.blockElems) * ti.blockBytes;
    x.offset = at;
    at = alignUp(at + x.size, o.alignment);
  }
  return t;
}

// ---------------------------------------------------------------- output

class Out {
 public:
  explicit Out(const std::string& path) : f_(std::fopen(path.c_str(), "wb")), good_(f_ != nullptr) {
    if (f_) std::setvbuf(f_, nullptr, _IOFBF, 1 << 20);
  }
  ~Out() {
    if (f_) std::fclose(f_);
  }
  bool ok() const { return f_ != nullptr && good_; }
  void write(const void* p, size_t n) {
    if (good_ && n && std::fwrite(p, 1, n, f_) != n) good_ = false;
  }
  void zeros(size_t n) {
    static const uint8_t z[256] = {};
    while (n) {
      const size_t k = std::min(n, sizeof z);
      write(z, k);
      n -= k;
    }
  }
  bool close() {
    if (!f_) return false;
    const bool closed = std::fclose(f_) == 0;
    f_ = nullptr;
    return good_ && closed;
  }

 private:
  std::FILE* f_;
  bool good_;
};

bool writeTensorData(Out& out, const Options& o, const std::vector<Tensor>& tensors) {
  std::vector<float> x;
  std::vector<uint8_t> bytes;
  for (size_t t = 0; t < tensors.size(); ++t) {
    const Tensor& tensor = tensors[t];
    Rng rng(o.seed, t);
    const uint64_t ne0 = tensor.dims[0];
    uint64_t rows = 1;
    for (size_t k = 1; k < tensor.dims.size(); ++k) rows *= tensor.dims[k];
    const uint64_t chunkRows = std::max<uint64_t>(1, (uint64_t(1) << 18) / ne0);
    for (uint64_t r = 0; r < rows; r += chunkRows) {
      const size_t n = size_t(std::min(chunkRows, rows - r) * ne0);
      x.resize(n);
      if (tensor.norm) {
        for (size_t i = 0; i < n; ++i) x[i] = float(1.0 + rng.centred() * kNormScale);
      } else {
        for (size_t i = 0; i < n; ++i) x[i] = float(rng.centred() * kWeightScale);
      }
      const TypeInfo& ti = typeInfo(tensor.type);
      bytes.resize(n / ti.blockElems * ti.blockBytes);
      uint8_t* end = encode(tensor.type, x.data(), n, bytes.data());
      out.write(bytes.data(), size_t(end - bytes.data()));
    }
    out.zeros(size_t(alignUp(tensor.size, o.alignment) - tensor.size));
    if (!out.ok()) return false;
  }
  return true;
}

bool writeExpect(const Options& o, const std::vector<Kv>& kv, const std::vector<Tensor>& tensors, uint64_t dataOffset,
                 uint64_t fileSize) {
  std::string j = "{\n";
  j += "  \"version\": " + std::to_string(o.version) + ",\n";
  j += "  \"alignment\": " + std::to_string(o.alignment) + ",\n";
  j += "  \"tensor_count\": " + std::to_string(tensors.size()) + ",\n";
  j += "  \"kv_count\": " + std::to_string(kv.size()) + ",\n";
  j += "  \"data_offset\": " + std::to_string(dataOffset) + ",\n";
  j += "  \"file_size\": " + std::to_string(fileSize) + ",\n";
  j += "  \"metadata\": [\n";
  for (size_t i = 0; i < kv.size(); ++i) {
    const Value& v = kv[i].value;
    j += "    {\"key\": " + jsonString(kv[i].key) + ", \"type\": " + jsonString(vtName(v.type)) + ", ";
    j += v.type == VT::Arr ? jsonArrayFields(v) : "\"value\": " + jsonScalar(v);
    j += i + 1 < kv.size() ? "},\n" : "}\n";
  }
  j += "  ],\n  \"tensors\": [\n";
  for (size_t i = 0; i < tensors.size(); ++i) {
    const Tensor& t = tensors[i];
    j += "    {\"name\": " + jsonString(t.name) + ", \"type\": " + jsonString(typeInfo(t.type).name) +
         ", \"type_id\": " + std::to_string(t.type) + ", \"dims\": [";
    for (size_t k = 0; k < t.dims.size(); ++k) j += (k ? ", " : "") + std::to_string(t.dims[k]);
    j += "], \"offset\": " + std::to_string(t.offset) + ", \"size\": " + std::to_string(t.size);
    j += i + 1 < tensors.size() ? "},\n" : "}\n";
  }
  j += "  ]\n}\n";
  Out out(o.expect);
  out.write(j.data(), j.size());
  return out.ok() && out.close();
}

// ---------------------------------------------------------------- command line

[[noreturn]] void usage(const char* msg) {
  if (msg) std::fprintf(stderr, "gguf_gen: %s\n", msg);
  std::fprintf(stderr,
               "usage: gguf_gen --out FILE [--version 2|3] [--type TYPE] [--arch ARCH]\n"
               "                [--dim 64] [--layers 2] [--ff 160] [--heads 4] [--kv-heads 2]\n"
               "                [--head-dim N] [--vocab 96] [--ctx 256] [--seed 1]\n"
               "                [--tokenizer llama|gpt2] [--pre NAME] [--tied]\n"
               "                [--expect FILE.json] [--bad-type] [--alignment 32]\n"
               "                [--no-test-keys] [--verbose]\n"
               "TYPE: f32 f16 bf16 q8_0 q4_0 q2_k q3_k q4_k q5_k q6_k q4_k_m\n"
               "ARCH: llama mistral qwen2 qwen3\n");
  std::exit(2);
}

uint64_t parseCount(const char* opt, const char* s, uint64_t lo, uint64_t hi) {
  char* end = nullptr;
  errno = 0;
  const unsigned long long v = std::strtoull(s, &end, 10);
  if (errno || end == s || *end || *s == '-' || v < lo || v > hi) {
    std::fprintf(stderr, "gguf_gen: %s wants a whole number from %llu to %llu, not '%s'\n", opt,
                 (unsigned long long)lo, (unsigned long long)hi, s);
    std::exit(2);
  }
  return v;
}

Options parseArgs(int argc, char** argv) {
  Options o;
  for (int i = 1; i < argc; ++i) {
    const std::string_view a = argv[i];
    auto arg = [&]() -> const char* {
      if (i + 1 >= argc) usage((std::string(a) + " wants a value").c_str());
      return argv[++i];
    };
    if (a == "--out") o.out = arg();
    else if (a == "--expect") o.expect = arg();
    else if (a == "--version") o.version = uint32_t(parseCount("--version", arg(), 2, 3));
    else if (a == "--type") {
      const std::string_view t = arg();
      const TypeInfo* found = nullptr;
      for (const TypeInfo& ti : kTypes)
        if (t == ti.name && ti.id != kQ4_1) found = &ti;
      if (!found) usage("--type is one of f32, f16, bf16, q8_0, q4_0, q2_k, q3_k, q4_k, q5_k, q6_k, q4_k_m");
      o.type = found->id;
    }
    else if (a == "--dim") o.dim = parseCount("--dim", arg(), 1, 1 << 16);
    else if (a == "--layers") o.layers = parseCount("--layers", arg(), 0, 1024);
    else if (a == "--ff") o.ff = parseCount("--ff", arg(), 1, 1 << 18);
    else if (a == "--heads") o.heads = parseCount("--heads", arg(), 1, 1024);
    else if (a == "--kv-heads") o.kvHeads = parseCount("--kv-heads", arg(), 1, 1024);
    else if (a == "--head-dim") o.headDim = parseCount("--head-dim", arg(), 2, 4096);
    else if (a == "--arch") {
      o.arch = arg();
      if (o.arch != "llama" && o.arch != "mistral" && o.arch != "qwen2" && o.arch != "qwen3")
        usage("--arch is llama, mistral, qwen2 or qwen3");
    }
    else if (a == "--pre") o.pre = arg();
    else if (a == "--vocab") o.vocab = parseCount("--vocab", arg(), 32, 1000000);
    else if (a == "--ctx") o.ctx = parseCount("--ctx", arg(), 1, UINT32_MAX);
    else if (a == "--seed") o.seed = parseCount("--seed", arg(), 0, UINT64_MAX);
    else if (a == "--alignment") o.alignment = parseCount("--alignment", arg(), 1, 1 << 16);
    else if (a == "--tokenizer") {
      const std::string_view t = arg();
      if (t != "llama" && t != "gpt2") usage("--tokenizer is llama or gpt2");
      o.gpt2 = t == "gpt2";
    }
    else if (a == "--tied") o.tied = true;
    else if (a == "--bad-type") o.badType = true;
    else if (a == "--no-test-keys") o.testKeys = false;
    else if (a == "--verbose") o.verbose = true;
    else if (a == "--help" || a == "-h") usage(nullptr);
    else usage(("unknown argument '" + std::string(a) + "'").c_str());
  }
  if (o.out.empty()) usage("--out is required");
  if (o.dim % o.heads && !o.headDim) usage("--dim must be a multiple of --heads");
  if (o.heads % o.kvHeads) usage("--heads must be a multiple of --kv-heads");
  if ((o.alignment & (o.alignment - 1)) || o.alignment < 8) usage("--alignment must be a power of two, 8 or more");
  const bool blocks = typeInfo(o.type).blockElems > 1 || o.badType;
  if (blocks && (o.dim % 32 || o.ff % 32)) usage("--dim and --ff must be multiples of 32 for block types and --bad-type");
  const uint64_t qDim = (o.headDim ? o.headDim : o.dim / o.heads) * o.heads;
  if (typeInfo(o.type).blockElems == 256 && (o.dim % 256 || o.ff % 256 || qDim % 256))
    usage("--dim, --ff and the width of Q must be multiples of 256 for the K-quant types");
  return o;
}

}  // namespace

int main(int argc, char** argv) {
  const Options o = parseArgs(argc, argv);

  Vocab voc;
  if (!(o.gpt2 ? buildGpt2Vocab(o.vocab, voc) : buildLlamaVocab(o.vocab, voc))) {
    std::fprintf(stderr, "gguf_gen: cannot make %llu distinct tokens\n", (unsigned long long)o.vocab);
    return 2;
  }
  const std::vector<Kv> kv = buildMetadata(o, voc);
  const std::vector<Tensor> tensors = buildTensors(o);

  Bytes head;
  head.raw("GGUF", 4);
  head.num<uint32_t>(o.version);
  head.num<uint64_t>(tensors.size());
  head.num<uint64_t>(kv.size());
  for (const Kv& k : kv) {
    head.str(k.key);
    head.num<uint32_t>(uint32_t(k.value.type));
    head.value(k.value);
  }
  for (const Tensor& t : tensors) {
    head.str(t.name);
    head.num<uint32_t>(uint32_t(t.dims.size()));
    for (uint64_t d : t.dims) head.num<uint64_t>(d);
    head.num<uint32_t>(t.type);
    head.num<uint64_t>(t.offset);
  }
  const uint64_t dataOffset = alignUp(head.b.size(), o.alignment);
  head.b.resize(dataOffset, 0);
  uint64_t fileSize = dataOffset;
  if (!tensors.empty()) fileSize += alignUp(tensors.back().offset + tensors.back().size, o.alignment);

  bool ok;
  {
    Out out(o.out);
    out.write(head.b.data(), head.b.size());
    ok = out.ok() && writeTensorData(out, o, tensors) && out.close();
  }
  if (!ok) {
    std::fprintf(stderr, "gguf_gen: cannot write %s: %s\n", o.out.c_str(), std::strerror(errno));
    std::remove(o.out.c_str());
    return 1;
  }
  if (!o.expect.empty() && !writeExpect(o, kv, tensors, dataOffset, fileSize)) {
    std::fprintf(stderr, "gguf_gen: cannot write %s: %s\n", o.expect.c_str(), std::strerror(errno));
    return 1;
  }
  if (o.verbose)
    std::printf("%s: GGUF v%u, %zu keys, %zu tensors, data at %llu, %llu bytes\n", o.out.c_str(), o.version,
                kv.size(), tensors.size(), (unsigned long long)dataOffset, (unsigned long long)fileSize);
  return 0;
}
