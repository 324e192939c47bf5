// Indices of the run loop's jump table. Typed instructions take four
// entries (opcode * 4 + type, type codes above 3 folded into f64); untyped
// ones use opcode * 4. The entries past the opcodes are decoder-made.
#pragma once

#include <cstdint>

namespace tov::zanb {

enum : uint32_t {
  kXEnd = 72 * 4,    // fell off the function's end: return nothing
  kXJumpOut,         // jumped backwards out of the function
  kXUnknown,         // opcode above 71, or min/max/copysign
  kXConv,            // convert kind k is kXConv + k
  kXConvBad = kXConv + 26,
  // A compare followed by jz/jnz on its result runs as one step in the plain
  // loop: kXFused + ((op - eq) * 4 + type) * 2 + (jnz ? 1 : 0). The jump
  // stays decoded behind it, for its target and for jumps that land on it.
  kXFused,
  // An i32/i64 add right before such a pair (a counted loop's step) goes on
  // to the pair by a direct jump: kXAddThen + type * 80 + (pair - kXFused).
  kXAddThen = kXFused + 10 * 4 * 2,
  kXCount = kXAddThen + 2 * 80

};

// The slot stack holds every live frame; a run that needs more traps with
// "call stack exhausted" rather than exhausting the host.
inline constexpr uint64_t kMaxStackSlots = uint64_t(1) << 27;
inline constexpr uint64_t kMaxFrames = uint64_t(1) << 24;

}  // namespace tov::zanb
