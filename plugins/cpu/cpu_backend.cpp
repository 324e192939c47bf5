// zan_cpu: the host CPU as a backend device. It is marked as a host backend,
// so `zan ls devices` leaves it out of the GPU list, while
// `zan backend devices cpu` shows it with its model, cores and memory.
#include <cstdio>
#include <cstring>
#include <string>

#include "base/compat.h"
#include "plugin/zan_plugin.h"

namespace {

void slot() {}

// What the machine says, read once; the texts stay for the library's life.
struct Host {
  std::string model = "host CPU";
  std::string name;
  unsigned cores = 0;
  uint64_t memory = 0;
};

const Host& host() {
  static const Host h = [] {
    Host h;
    if (FILE* f = std::fopen("/proc/cpuinfo", "r")) {
      char line[1024];
      while (std::fgets(line, sizeof line, f)) {
        if (std::strncmp(line, "model name", 10) != 0) continue;
        const char* colon = std::strchr(line, ':');
        if (!colon) continue;
        std::string m = colon + 1;
        m.erase(0, m.find_first_not_of(" \t"));
        while (!m.empty() && (m.back() == '\n' || m.back() == '\r')) m.pop_back();
        if (!m.empty()) h.model = m;
        break;
      }
      std::fclose(f);
    }
    h.cores = zanCompatCpuCount();
    h.memory = zanCompatMemoryBytes();
    h.name = h.model + " (" + std::to_string(h.cores) + " logical cores)";
    return h;
  }();
  return h;
}

int32_t enumerate(ZANDeviceQuery* q) {
  const Host& h = host();
  if (q->devices && q->capacity >= 1) {
    ZANBackendDeviceInfo& d = q->devices[0];
    d.index = 0;
    d.id = "cpu0";
    d.name = h.name.c_str();
    d.memory = h.memory;
    d.apiMajor = 1;
    d.apiMinor = 0;
    d.caps = kBackendCapHost;
  }
  q->count = 1;
  return 0;
}

const ZANBackendDesc kBackends[] = {
    {kZanDescriptorAbi, 0, "cpu", "Host CPU", "1.0", kBackendCapHost, 0, enumerate, slot, slot, 0},
};
const ZANPluginInfo kInfo = {kZanPluginAbi, 1, "cpu", "the host CPU as a backend device", nullptr, 0, 0};

}  // namespace

extern "C" {
ZAN_PLUGIN_EXPORT const ZANPluginInfo* zan_plugin_init(const ZANHostAPI*) { return &kInfo; }
ZAN_PLUGIN_EXPORT const ZANBackendDesc* zan_plugin_backends(uint32_t* count) {
  *count = 1;
  return kBackends;
}
}
