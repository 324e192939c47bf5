// Internal state of one Vm run, shared by the run loop (zanb_vm.cpp) and the
// system calls (zanb_syscall.cpp). Not for use outside bytecode/.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "bytecode/zanb.h"
#include "bytecode/zanb_vm.h"

namespace tov::zanb {

// Instructions are decoded once per function, when the function is first
// entered, into this form: `x` indexes the run loop's jump table and already
// folds the type code in (the loop then replaces it by the handler's address
// offset), jump targets are made relative to the function,
// and two entries are appended behind the last instruction:
//   [codeLen]     falling off the end: return with no value;
//   [codeLen + 1] a jump that left the function backwards: trap.
struct DInsn {
  uint32_t x;
  uint32_t a;
  uint32_t b;
  uint32_t c;
};

struct Frame {
  uint32_t func;
  uint32_t pc;       // decoded index to resume at; written only when calling
  int32_t retSlot;   // caller's slot for the result; -1 for the entry frame
  uint32_t nslots;   // this frame's slot count
  uint64_t base;     // first slot in the slot stack
};

struct RingEntry {
  uint32_t func, pc, opInfo, a, b, c;
};

// Linear guest memory. calloc'd so that large sizes are mapped lazily;
// every byte the guest has not written is zero.
class GuestMemory {
 public:
  GuestMemory() = default;
  GuestMemory(const GuestMemory&) = delete;
  GuestMemory& operator=(const GuestMemory&) = delete;
  ~GuestMemory();
  // Resizes to exactly n bytes; new bytes are zero. False if it cannot be
  // allocated (the old contents stay).
  bool resize(uint64_t n);
  uint8_t* data() { return base_; }
  uint64_t size() const { return size_; }

 private:
  uint8_t* base_ = nullptr;
  uint64_t size_ = 0;
};

struct Vm::Impl {
  Module module;
  VmConfig config;
  GuestMemory memory;
  std::vector<Frame> frames;
  std::vector<Value> stack;  // every frame's slots, one after another
  std::vector<uint64_t> globals;
  uint64_t steps = 0;
  int32_t exitCode = 0;
  bool exited = false;
  std::string fault;

  // Decoded code per function and whether it passed validateSlots.
  std::vector<std::vector<DInsn>> dcode;
  std::vector<uint8_t> validated;

  // Trace ring (ZAN_ZANB_RING*).
  static constexpr uint32_t kRingSize = 4096;
  std::vector<RingEntry> ring;
  uint32_t ringCount = 0;
  bool ringOn = false;
  uint32_t ringFunc = 0xFFFFFFFF;
  uint32_t ringLo = 0;
  uint32_t ringHi = 0xFFFFFFFF;

  bool callTrace = false;  // ZAN_ZANB_TRACE
  bool pcTrace = false;    // ZAN_ZANB_PCTRACE
  bool fuseCompares = false;  // decode compare+branch pairs as one step (plain loop only)
  uint32_t argsAvail = 0;  // slots readable from a syscall's first argument

  // The one gate to guest memory: a pointer to [addr, addr+len) or null with
  // `fault` set.
  uint8_t* memPtr(uint64_t addr, uint64_t len);
  Value syscall(uint32_t number, Value* args, bool& ok);
  // Calls 10 to 55, through `config.host` or to their defaults.
  Value hostCall(uint32_t number, Value* args);
  // Length of the zero-terminated text at `addr`: at most 4096, cut at the
  // end of memory, counted through memPtr, so running off the end leaves
  // `fault` set for the next load.
  uint64_t textLength(uint64_t addr);
  void writeOut(int fd, const uint8_t* p, uint64_t n);
  void printRing();

  // Run-loop pieces (zanb_vm.cpp).
  bool validateAndDecode(uint32_t func, std::string& err);
  bool growStack(uint64_t slots);
  // Traced loop, before each instruction: step limit, ring, pc trace.
  bool traceStep(uint32_t func, uint32_t pc, std::string& err);
  void traceCall(uint32_t callee, uint32_t params, uint32_t c, const Value* S, uint32_t nslots);
  int execPlain(std::string& err);
  int execTraced(std::string& err);
};

// Argument count the run loop checks before a system call.
uint32_t syscallNeed(uint32_t number);

}  // namespace tov::zanb
