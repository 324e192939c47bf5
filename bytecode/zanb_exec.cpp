// The run loop, compiled twice from zanb_exec.inc: a plain copy, and a traced
// copy that also counts steps, fills the trace ring and prints the program
// counter trace. The choice is made once per run.
#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdio>
#include <cstring>

#include "bytecode/zanb_vm_impl.h"
#include "bytecode/zanb_xops.h"

namespace tov::zanb {
namespace {

inline float f32(Value v) { return std::bit_cast<float>(uint32_t(v)); }
inline double f64(Value v) { return std::bit_cast<double>(v); }
inline Value pf32(float f) { return std::bit_cast<uint32_t>(f); }
inline Value pf64(double d) { return std::bit_cast<uint64_t>(d); }

// The minimum divided by -1 overflows; the machine gives the minimum back
// (and 0 for the remainder) instead of letting the host fault.
inline int32_t divS32(int32_t x, int32_t y) { return y == -1 ? int32_t(0u - uint32_t(x)) : x / y; }
inline int32_t remS32(int32_t x, int32_t y) { return y == -1 ? 0 : x % y; }
inline int64_t divS64(int64_t x, int64_t y) { return y == -1 ? int64_t(0ull - uint64_t(x)) : x / y; }
inline int64_t remS64(int64_t x, int64_t y) { return y == -1 ? 0 : x % y; }

inline uint32_t rotl32(uint32_t x, uint32_t n) { return std::rotl(x, int(n & 31)); }
inline uint32_t rotr32(uint32_t x, uint32_t n) { return std::rotr(x, int(n & 31)); }
inline uint64_t rotl64(uint64_t x, uint64_t n) { return std::rotl(x, int(n & 63)); }
inline uint64_t rotr64(uint64_t x, uint64_t n) { return std::rotr(x, int(n & 63)); }

// Truncations of kinds 13 to 20.
inline Value truncToI32S(double v) {  // 13, 15
  double t = std::trunc(v);
  if (!(t >= -2147483648.0 && t < 2147483648.0)) return 0x80000000u;
  return uint32_t(int32_t(t));
}
inline Value truncToI32U(double v) {  // 14, 16: via a signed 64-bit integer
  if (!(std::fabs(v) < 9223372036854775808.0)) return 0;
  return uint32_t(uint64_t(int64_t(v)));
}
inline Value truncToI64S(double v) {  // 17, 19
  double t = std::trunc(v);
  if (!(t >= -9223372036854775808.0 && t < 9223372036854775808.0)) return 0x8000000000000000ull;
  return uint64_t(int64_t(t));
}
inline Value truncToI64U(double v) {  // 18, 20
  if (v >= 9223372036854775808.0)
    return truncToI64S(v - 9223372036854775808.0) ^ 0x8000000000000000ull;
  return truncToI64S(v);
}

}  // namespace

#define ZANB_TRACED 0
#define ZANB_EXEC_NAME execPlain
#include "bytecode/zanb_exec.inc"
#undef ZANB_TRACED
#undef ZANB_EXEC_NAME

#define ZANB_TRACED 1
#define ZANB_EXEC_NAME execTraced
#include "bytecode/zanb_exec.inc"
#undef ZANB_TRACED
#undef ZANB_EXEC_NAME

}  // namespace tov::zanb
