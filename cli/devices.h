// What the machine says about its processors and graphics cards, for
// `zan ls devices`. Each reader takes the file-system root to read under
// ("" for the real one), so tests can point it at a tree of their own.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct CpuSummary {
  std::string model = "host";  // the first "model name" line
  unsigned count = 0;          // logical cores
};

// From <root>/proc/cpuinfo; the operating system's processor count when the
// file can't be read or names no processor.
CpuSummary readCpuSummary(const std::string& root);

struct SysGpu {
  const char* vendor;  // "AMD", "NVIDIA" or "Intel"
  uint64_t vramBytes;  // 0 when unknown
};

// The cards of <root>/sys/class/drm of the three known vendors, largest
// VRAM first, directory order among equals.
std::vector<SysGpu> readDrmGpus(const std::string& root);
