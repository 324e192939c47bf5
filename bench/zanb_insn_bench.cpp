// Nanoseconds per executed instruction on a long counted loop.
//
// The loop is assembled from ZANA text, written to a module and run with the
// default VmConfig. The number of instructions executed is known by
// construction (setup + kPerIter per iteration + the final exit), so the
// wall time divided by it is the machine's average cost per instruction,
// dispatch included. The guest exits with its loop counter, which checks
// that the loop really ran to the end.
//
// Usage: zanb_insn_bench [iterations] [repeats]   (defaults 200000000, 3)
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "bytecode/zanb.h"
#include "bytecode/zanb_vm.h"

namespace {

constexpr uint64_t kSetup = 4;    // instructions 0..3
constexpr uint64_t kPerIter = 4;  // instructions 4..7
constexpr uint64_t kTail = 1;     // instruction 8

std::string loopText(uint32_t iterations) {
  // S0 i, S1 n, S2 one, S3 s, S4 condition. The body runs at least once, so
  // the loop has no guard in front: iterations must be at least 1.
  return "ZANB entry=0\n"
         "func 0 loop params=0 rets=0 slots=8\n"
         "    0  const.i32 a=0 b=0\n"
         "    1  const.i32 a=1 b=" + std::to_string(iterations) + "\n"
         "    2  const.i32 a=2 b=1\n"
         "    3  const.i32 a=3 b=0\n"
         "    4  add.i32 a=3 b=3 c=0\n"
         "    5  add.i32 a=0 b=0 c=2\n"
         "    6  lt_s.i32 a=4 b=0 c=1\n"
         "    7  jnz a=4 b=4\n"
         "    8  syscall a=0 b=5 c=0\n";
}

}  // namespace

int main(int argc, char** argv) {
  uint32_t iterations = argc > 1 ? uint32_t(std::strtoul(argv[1], nullptr, 0)) : 200000000u;
  int repeats = argc > 2 ? std::atoi(argv[2]) : 3;
  if (iterations < 1 || iterations > 0x7FFFFFFFu || repeats < 1) {
    std::fprintf(stderr, "usage: zanb_insn_bench [iterations 1..2^31-1] [repeats >= 1]\n");
    return 2;
  }

  tov::zanb::Module m;
  std::string err;
  if (!tov::zanb::assemble(loopText(iterations), m, err)) {
    std::fprintf(stderr, "zanb_insn_bench: assemble: %s\n", err.c_str());
    return 1;
  }
  std::vector<uint8_t> bytes = tov::zanb::writeModule(m);
  tov::zanb::VmConfig config;

  const uint64_t insns = kSetup + kPerIter * uint64_t(iterations) + kTail;
  double best = 0;
  for (int r = 0; r < repeats; ++r) {
    auto t0 = std::chrono::steady_clock::now();
    int rc = tov::zanb::runModule(bytes.data(), bytes.size(), config, err);
    auto t1 = std::chrono::steady_clock::now();
    if (rc != int(iterations)) {
      std::fprintf(stderr, "zanb_insn_bench: run gave %d, expected %u (%s)\n", rc, iterations,
                   err.c_str());
      return 1;
    }
    double s = std::chrono::duration<double>(t1 - t0).count();
    if (r == 0 || s < best) best = s;
  }
  std::printf("zanb loop: %llu instructions in %.3f s (best of %d): %.2f ns/insn\n",
              (unsigned long long)insns, best, repeats, best * 1e9 / double(insns));
  return 0;
}
