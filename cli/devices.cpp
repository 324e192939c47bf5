#include "cli/devices.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <dirent.h>

#include "base/compat.h"

CpuSummary readCpuSummary(const std::string& root) {
  CpuSummary s;
  if (FILE* f = std::fopen((root + "/proc/cpuinfo").c_str(), "r")) {
    char line[1024];
    while (std::fgets(line, sizeof line, f)) {
      if (!std::strncmp(line, "processor", 9)) ++s.count;
      if (s.model == "host" && !std::strncmp(line, "model name", 10)) {
        const char* colon = std::strchr(line, ':');
        if (!colon) continue;
        const char* b = colon + 1;
        while (*b == ' ' || *b == '\t') ++b;
        size_t n = std::strlen(b);
        while (n && (b[n - 1] == '\n' || b[n - 1] == '\r')) --n;
        if (n) s.model.assign(b, n);
      }
    }
    std::fclose(f);
  }
  if (s.count == 0) {
    s.count = zanCompatCpuCount();
  }
  return s;
}

namespace {

// The first line of a small file, at most 64 bytes.
bool firstLine(const std::string& path, char (&buf)[65]) {
  FILE* f = std::fopen(path.c_str(), "r");
  if (!f) return false;
  const bool ok = std::fgets(buf, sizeof buf, f) != nullptr;
  std::fclose(f);
  return ok;
}

}  // namespace

std::vector<SysGpu> readDrmGpus(const std::string& root) {
  std::vector<SysGpu> gpus;
  const std::string dir = root + "/sys/class/drm";
  DIR* d = opendir(dir.c_str());
  if (!d) return gpus;
  std::vector<std::string> cards;
  while (const dirent* e = readdir(d))
    if (!std::strncmp(e->d_name, "card", 4) && std::isdigit(static_cast<unsigned char>(e->d_name[4])))
      cards.push_back(e->d_name);
  closedir(d);
  for (const std::string& card : cards) {
    char line[65];
    if (!firstLine(dir + "/" + card + "/device/vendor", line)) continue;
    const unsigned long vendor = std::strtoul(line, nullptr, 16);
    const char* name = vendor == 0x1002 ? "AMD" : vendor == 0x10de ? "NVIDIA" : vendor == 0x8086 ? "Intel" : nullptr;
    if (!name) continue;
    uint64_t vram = 0;
    if (firstLine(dir + "/" + card + "/device/mem_info_vram_total", line)) {
      char* end = nullptr;
      const unsigned long long v = std::strtoull(line, &end, 10);
      if (end != line) vram = v;
    }
    gpus.push_back({name, vram});
  }
  std::stable_sort(gpus.begin(), gpus.end(), [](const SysGpu& a, const SysGpu& b) { return a.vramBytes > b.vramBytes; });
  return gpus;
}
