// The listings of what the plugin host found: one command per record kind
// with list, info and, where a kind has one, probe; the loaded plugins; a
// backend's devices; and `zan ls devices`. main has run loadAll before any
// of these but `ls devices`, which loads for itself.
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "cli/commands.h"
#include "cli/devices.h"
#include "packages/installed.h"
#include "plugin/plugin_manager.h"

using tov::PluginManager;

namespace {

const char* orEmpty(const char* s) { return s ? s : ""; }
const char* orQuestion(const char* s) { return s ? s : "?"; }
unsigned long long ull(uint64_t v) { return static_cast<unsigned long long>(v); }

PluginManager& mgr() { return PluginManager::instance(); }

// The info text most kinds share; the others add one line to it.
template <typename D>
bool printInfo(const D* d) {
  if (d)
    std::printf("id: %s\nname: %s\nabi: %u\ncapabilities: 0x%llx\n", d->id, orEmpty(d->name), d->abi,
                ull(d->caps));
  return d != nullptr;
}

// One record kind: its words and messages, and how it lists, shows and
// probes. Unused operations are null.
struct Kind {
  const char* usage;
  const char* infoUsage;
  const char* probeUsage;
  const char* notFound;
  const char* head;
  size_t (*count)();
  void (*row)(size_t i);
  bool (*info)(const char* id);  // false: no such id
  bool (*probe)(const char* path);  // false: no winner, message printed
};

int runKind(const Kind& k, int argc, char** argv, bool devices = false) {
  const char* sub = argc > 2 ? argv[2] : nullptr;
  const char* arg = argc > 3 ? argv[3] : nullptr;
  if (!sub || !std::strcmp(sub, "list")) {
    const size_t n = k.count();
    std::printf(k.head, n);
    if (n == 0) std::fputs("  (none)\n", stdout);
    for (size_t i = 0; i < n; ++i) k.row(i);
    return 0;
  }
  if (!std::strcmp(sub, "info")) {
    if (!arg) {
      std::fputs(k.infoUsage, stderr);
      return 2;
    }
    if (k.info(arg)) return 0;
    std::fprintf(stderr, k.notFound, arg);
    return 1;
  }
  if (k.probe && !std::strcmp(sub, "probe")) {
    if (!arg) {
      std::fputs(k.probeUsage, stderr);
      return 2;
    }
    return k.probe(arg) ? 0 : 1;
  }
  if (devices && !std::strcmp(sub, "devices")) {
    if (!arg) {
      std::fputs("usage: zan backend devices <id>\n", stderr);
      return 2;
    }
    return -1;  // the caller lists them
  }
  std::fputs(k.usage, stderr);
  return 2;
}

// The two enumerate calls: the count, then that many zeroed records.
struct Enumerated {
  int firstRc = 0, secondRc = 0;
  uint32_t firstCount = 0;
  std::vector<ZANBackendDeviceInfo> devices;
};
Enumerated enumerate(const ZANBackendDesc* b) {
  Enumerated e;
  ZANDeviceQuery q{0, 0, nullptr};
  e.firstRc = b->enumerate(&q);
  e.firstCount = q.count;
  if (e.firstRc != 0 || q.count == 0) return e;
  const uint32_t n = q.count;
  e.devices.assign(n, ZANBackendDeviceInfo{});
  q = ZANDeviceQuery{n, n, e.devices.data()};
  e.secondRc = b->enumerate(&q);
  // The host reads at most what it gave room for.
  if (q.count < n) e.devices.resize(q.count);
  return e;
}

const Kind kRuntime = {
    "usage: zan runtime list | info <id> | probe <model>\n",
    "usage: zan runtime info <id>\n",
    "usage: zan runtime probe <model.zan>\n",
    "zan: runtime '%s' not found\n",
    "RUNTIMES (%zu loaded):\n",
    [] { return mgr().runtimes.size(); },
    [](size_t i) {
      const ZANRuntimeDesc* d = mgr().runtimes[i];
      std::printf("  %-20s %-32s ABI %u caps=0x%llx\n", orEmpty(d->id), orEmpty(d->name), d->abi, ull(d->caps));
    },
    [](const char* id) { return printInfo(mgr().findRuntime(id)); },
    [](const char* path) {
      ZANRuntimeProbe p{};
      const ZANRuntimeDesc* d = mgr().probeModel(path, &p);
      if (!d) {
        std::fprintf(stderr, "runtime unavailable for %s\n", path);
        return false;
      }
      std::printf("runtime: %s\nconfidence: %d\narchitecture: %s\nbackend: %s\nreason: %s\n", orEmpty(d->id),
                  p.confidence, orEmpty(p.architecture), orEmpty(p.backend), orEmpty(p.reason));
      return true;
    },
};

const Kind kBackend = {
    "usage: zan backend list | info <id> | devices <id>\n",
    "usage: zan backend info <id>\n",
    nullptr,
    "zan: backend '%s' not found\n",
    "BACKENDS (%zu loaded):\n",
    [] { return mgr().backends.size(); },
    [](size_t i) {
      const ZANBackendDesc* d = mgr().backends[i];
      std::printf("  %-16s %-28s ABI %u v%s\n", orEmpty(d->id), orEmpty(d->name), d->abi, orQuestion(d->version));
    },
    [](const char* id) {
      const ZANBackendDesc* d = mgr().findBackend(id);
      if (d)
        std::printf("id: %s\nname: %s\nversion: %s\nabi: %u\ncapabilities: 0x%llx\n", d->id, orEmpty(d->name),
                    orQuestion(d->version), d->abi, ull(d->caps));
      return d != nullptr;
    },
    nullptr,
};

const Kind kExecution = {
    "usage: zan execution list | info <id>\n",
    "usage: zan execution info <id>\n",
    nullptr,
    "zan: execution '%s' not found\n",
    "EXECUTIONS (%zu loaded):\n",
    [] { return mgr().execs.size(); },
    [](size_t i) {
      const ZANExecutionDesc* d = mgr().execs[i];
      std::printf("  %-16s %-28s ABI %u caps=0x%llx\n", orEmpty(d->id), orEmpty(d->name), d->abi, ull(d->caps));
    },
    [](const char* id) { return printInfo(mgr().findExec(id)); },
    nullptr,
};

const Kind kImporter = {
    "usage: zan importer list | info <id> | probe <path>\n",
    "usage: zan importer info <id>\n",
    "usage: zan importer probe <path>\n",
    "zan: importer '%s' not found\n",
    "IMPORTERS (%zu loaded):\n",
    [] { return mgr().importers.size(); },
    [](size_t i) {
      const ZANImporterDesc* d = mgr().importers[i];
      std::printf("  %-10s %-34s caps=0x%llx ext=%s\n", orEmpty(d->id), orEmpty(d->name), ull(d->caps),
                  orEmpty(d->extensions));
    },
    [](const char* id) {
      const ZANImporterDesc* d = mgr().findImporter(id);
      if (d)
        std::printf("id: %s\nname: %s\nabi: %u\ncapabilities: 0x%llx\nextensions: %s\n", d->id, orEmpty(d->name),
                    d->abi, ull(d->caps), orEmpty(d->extensions));
      return d != nullptr;
    },
    [](const char* path) {
      ZANProbeResult p{};
      const ZANImporterDesc* d = mgr().probePath(path, &p);
      if (!d) {
        std::fprintf(stderr, "no importer for %s\n", path);
        return false;
      }
      std::printf("importer: %s\nconfidence: %d\nformat: %s\narchitecture: %s\nreason: %s\n", orEmpty(d->id),
                  p.confidence, orEmpty(p.format), orEmpty(p.architecture), orEmpty(p.reason));
      return true;
    },
};

const Kind kTrainer = {
    "usage: zan trainer list | info <id> | probe <model.zan>\n",
    "usage: zan trainer info <id>\n",
    "usage: zan trainer probe <model.zan>\n",
    "zan: trainer '%s' not found\n",
    "TRAINERS (%zu loaded):\n",
    [] { return mgr().trainers.size(); },
    [](size_t i) {
      const ZANTrainerDesc* d = mgr().trainers[i];
      std::printf("  %-10s %-44s ABI %u caps=0x%llx\n", orEmpty(d->id), orEmpty(d->name), d->abi, ull(d->caps));
    },
    [](const char* id) { return printInfo(mgr().findTrainer(id)); },
    [](const char* path) {
      ZANTrainerProbe p{};
      const ZANTrainerDesc* d = mgr().probeTrainer(path, &p);
      if (!d) {
        std::fprintf(stderr, "no trainer for %s\n", path);
        return false;
      }
      std::printf("trainer: %s\nconfidence: %d\nkind: %s\nreason: %s\n", orEmpty(d->id), p.confidence,
                  orEmpty(p.kind), orEmpty(p.reason));
      return true;
    },
};

const Kind kTokenizer = {
    "usage: zan tokenizer list | info <id>\n",
    "usage: zan tokenizer info <id>\n",
    nullptr,
    "zan: tokenizer '%s' not found\n",
    "TOKENIZERS (%zu loaded):\n",
    [] { return mgr().tokenizers.size(); },
    [](size_t i) {
      const ZANTokenizerDesc* d = mgr().tokenizers[i];
      std::printf("  %-10s %-44s ABI %u caps=0x%llx format=%s\n", orEmpty(d->id), orEmpty(d->name), d->abi,
                  ull(d->caps), orEmpty(d->format));
    },
    [](const char* id) {
      const ZANTokenizerDesc* d = mgr().findTokenizer(id);
      if (d)
        std::printf("id: %s\nname: %s\nabi: %u\ncapabilities: 0x%llx\nformat: %s\n", d->id, orEmpty(d->name), d->abi,
                    ull(d->caps), orEmpty(d->format));
      return d != nullptr;
    },
    nullptr,
};

const Kind kSampler = {
    "usage: zan sampler list | info <id>\n",
    "usage: zan sampler info <id>\n",
    nullptr,
    "zan: sampler '%s' not found\n",
    "SAMPLERS (%zu loaded):\n",
    [] { return mgr().samplers.size(); },
    [](size_t i) {
      const ZANSamplerDesc* d = mgr().samplers[i];
      std::printf("  %-10s %-52s ABI %u caps=0x%llx\n", orEmpty(d->id), orEmpty(d->name), d->abi, ull(d->caps));
    },
    [](const char* id) { return printInfo(mgr().findSampler(id)); },
    nullptr,
};

const char kGpuFooter[] = "(indices above match -g <gpu index> and -cpu <cpu index>)\n";

}  // namespace

int cmdRuntime(int argc, char** argv) { return runKind(kRuntime, argc, argv); }
int cmdExecution(int argc, char** argv) { return runKind(kExecution, argc, argv); }
int cmdImporter(int argc, char** argv) { return runKind(kImporter, argc, argv); }
int cmdTrainer(int argc, char** argv) { return runKind(kTrainer, argc, argv); }
int cmdTokenizer(int argc, char** argv) { return runKind(kTokenizer, argc, argv); }
int cmdSampler(int argc, char** argv) { return runKind(kSampler, argc, argv); }

int cmdBackend(int argc, char** argv) {
  const int rc = runKind(kBackend, argc, argv, true);
  if (rc != -1) return rc;
  const char* id = argv[3];
  const ZANBackendDesc* b = mgr().findBackend(id);
  if (!b) {
    std::fprintf(stderr, "zan: backend '%s' not found\n", id);
    return 1;
  }
  if (!b->enumerate) {
    std::fprintf(stderr, "zan: backend '%s' cannot enumerate\n", id);
    return 1;
  }
  const Enumerated e = enumerate(b);
  if (e.firstRc != 0 || e.firstCount == 0) {
    std::fprintf(stderr, "zan: no devices (rc=%d)\n", e.firstRc);
    return 1;
  }
  if (e.secondRc != 0) {
    std::fprintf(stderr, "zan: enumerate failed (rc=%d)\n", e.secondRc);
    return 1;
  }
  for (const ZANBackendDeviceInfo& d : e.devices)
    std::printf("%u: id=%s name=%s api=%u.%u memory=%llu caps=0x%llx\n", d.index, orEmpty(d.id), orEmpty(d.name),
                d.apiMajor, d.apiMinor, ull(d.memory), ull(d.caps));
  return 0;
}

int cmdPlugins(int argc, char** argv) {
  const char* sub = argc > 2 ? argv[2] : nullptr;
  if (!sub || !std::strcmp(sub, "list")) {
    const auto& plugins = mgr().plugins;
    std::printf("ZAN plugins (%zu loaded):\n", plugins.size());
    if (plugins.empty()) std::fputs("  (none)\n", stdout);
    for (size_t i = 0; i < plugins.size(); ++i) {
      const ZANPluginInfo* p = plugins[i].info;
      std::printf("  %-16s v%u  ABI %u  caps=0x%llx  %s\n", orEmpty(p->name), p->version, p->abi,
                  ull(mgr().pluginCaps[i]), orEmpty(p->description));
      for (uint32_t c = 0; p->commands && c < p->commandCount; ++c)
        std::printf("      command: %s - %s\n", orEmpty(p->commands[c].name), orEmpty(p->commands[c].description));
    }
    return 0;
  }
  if (!std::strcmp(sub, "info")) {
    if (argc < 4) {
      std::fputs("usage: zan plugin info <name>\n", stderr);
      return 2;
    }
    for (const tov::LoadedPlugin& p : mgr().plugins)
      if (p.info && p.info->name && !std::strcmp(p.info->name, argv[3])) {
        std::printf("name: %s\nversion: %u\nabi: %u\ndescription: %s\npath: %s\n", p.info->name, p.info->version,
                    p.info->abi, orEmpty(p.info->description), p.path.c_str());
        return 0;
      }
    std::fprintf(stderr, "zan: plugin '%s' not loaded\n", argv[3]);
    return 1;
  }
  if (!std::strcmp(sub, "ls")) {
    cmdInstalledLs(argc, argv);
    return 0;
  }
  std::fputs("usage: zan plugins | zan plugin list | zan plugin ls [-a] | zan plugin info <name>\n", stderr);
  return 2;
}

int cmdLsDevices() {
  mgr().loadAll();
  const CpuSummary cpu = readCpuSummary("");
  std::printf("CPUs:\n  cpu %u: %u logical cores - %s\n", 0u, cpu.count, cpu.model.c_str());

  std::fputs("GPUs:\n", stdout);
  unsigned shown = 0;
  for (const ZANBackendDesc* b : mgr().backends) {
    if (!b->enumerate || (b->caps & kBackendCapHost)) continue;
    const Enumerated e = enumerate(b);
    if (e.firstRc != 0 || e.firstCount == 0 || e.secondRc != 0) continue;
    for (const ZANBackendDeviceInfo& d : e.devices)
      std::printf("  gpu %u: backend=%s idx=%u name=%s mem=%llu api=%u.%u\n", shown++, orEmpty(b->id), d.index,
                  orEmpty(d.name), ull(d.memory), d.apiMajor, d.apiMinor);
  }
  if (shown) {
    std::fputs(kGpuFooter, stdout);
    return 0;
  }

  std::fputs("GPUs (kernel /sys/class/drm):\n", stdout);
  const std::vector<SysGpu> gpus = readDrmGpus("");
  for (size_t i = 0; i < gpus.size(); ++i) {
    const std::string vram = gpus[i].vramBytes ? std::to_string(gpus[i].vramBytes >> 20) : "";
    std::printf("  gpu %zu: %s%s%s\n", i, gpus[i].vendor, gpus[i].vramBytes ? " vram=" : "", vram.c_str());
  }
  if (gpus.empty()) std::fputs("  (no GPU found)\n", stdout);
  std::fputs(kGpuFooter, stdout);
  return 0;
}
