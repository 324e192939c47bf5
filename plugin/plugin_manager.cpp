#include "plugin/plugin_manager.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <dirent.h>
#include <sys/stat.h>

#include "base/compat.h"

namespace tov {

namespace {

void hostLog(int level, const char* text) { std::fprintf(stderr, "[zan plugin] %s\n", text ? text : ""); }
void* hostAlloc(uint64_t size) { return std::malloc(static_cast<size_t>(size)); }
void hostFree(void* p) { std::free(p); }

#ifdef _WIN32
constexpr const char* kLibSuffix = ".dll";
#else
constexpr const char* kLibSuffix = ".so";
#endif

bool isDirectory(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool startsWith(const std::string& s, const char* prefix) { return s.rfind(prefix, 0) == 0; }

bool qualifies(const std::string& name) {
  const size_t n = std::strlen(kLibSuffix);
  return name.size() >= 5 && name.size() >= n && name.compare(name.size() - n, n, kLibSuffix) == 0 &&
         (startsWith(name, "libzan_") || startsWith(name, "zan_"));
}

template <typename T>
const T* findById(const std::vector<const T*>& registry, const char* id) {
  if (!id) return nullptr;
  for (const T* d : registry)
    if (d->id && std::strcmp(d->id, id) == 0) return d;
  return nullptr;
}

// The all-bits rule: non-zero caps holding every bit of the mask.
template <typename T>
const T* findAllBits(const std::vector<const T*>& registry, uint64_t mask) {
  for (const T* d : registry)
    if (d->caps != 0 && (d->caps & mask) == mask) return d;
  return nullptr;
}

template <typename T, typename R>
const T* probeAll(const std::vector<const T*>& registry, const char* path, R* out) {
  const T* winner = nullptr;
  int32_t best = 0;
  for (const T* d : registry) {
    if (!d->probe) continue;
    R local;
    std::memset(&local, 0, sizeof local);
    if (d->probe(path, &local) == 0 && local.confidence >= 1 && local.confidence > best) {
      winner = d;
      best = local.confidence;
      if (out) *out = local;
    }
  }
  return winner;
}

// Walks one descriptor table: records that pass `ok` join `registry`, the
// others are reported by index and skipped.
template <typename T, typename Ok>
void walkTable(void* handle, const char* symbol, const char* tag, const std::string& path,
               std::vector<const T*>& registry, Ok ok) {
  void* sym = dlsym(handle, symbol);
  if (!sym) return;
  uint32_t count = 0;
  const T* table = static_cast<const T*>(reinterpret_cast<ZANPluginTableFn>(sym)(&count));
  for (uint32_t i = 0; i < count; ++i) {
    if (table && ok(table[i]))
      registry.push_back(&table[i]);
    else
      std::fprintf(stderr, "[%s] %s: bad descriptor #%u - skipped\n", tag, path.c_str(), i);
  }
}

}  // namespace

const ZANHostAPI kHostAPI = {kZanHostApiVersion, 0, hostLog, hostAlloc, hostFree};

std::vector<std::string> pluginSearchList() {
  std::vector<std::string> list;
  if (const char* env = std::getenv("ZAN_PLUGIN_PATH")) {
    std::string piece;
    for (const char* p = env;; ++p) {
      if (*p == ':' || *p == ';' || *p == '\0') {
        if (!piece.empty()) list.push_back(piece);
        piece.clear();
        if (*p == '\0') break;
      } else {
        piece.push_back(*p);
      }
    }
  }
  if (list.empty()) {
    char exe[4096];
    if (zanCompatExePath(exe, sizeof exe) == 0) {
      const std::string path = exe;
      const size_t slash = path.find_last_of("/\\");
      if (slash != std::string::npos) {
        const std::string dir = path.substr(0, slash + 1) + "plugins";
        if (isDirectory(dir)) list.push_back(dir);
      }
    }
    list.push_back("./plugins");
  }
  const char* home = std::getenv("HOME");
  if (!home) home = std::getenv("USERPROFILE");
  if (home) {
    for (const char* sub : {"/.local/lib/zan/plugins", "/.zan/plugin"}) {
      const std::string dir = std::string(home) + sub;
      if (isDirectory(dir)) list.push_back(dir);
    }
  }
  return list;
}

PluginManager& PluginManager::instance() {
  static PluginManager mgr;
  return mgr;
}

void PluginManager::loadAll() {
  static bool warned = false;
  if (frozen) {
    if (!warned) {
      std::fputs("[zan plugin] registries frozen: plugin load ignored\n", stderr);
      warned = true;
    }
    return;
  }
  if (loading) return;
  loading = true;
  for (const std::string& dir : pluginSearchList()) scanDir(dir);
  frozen = true;
}

void PluginManager::scanDir(const std::string& dir) {
  if (!isDirectory(dir)) return;
  DIR* d = opendir(dir.c_str());
  if (!d) return;
  std::vector<std::string> paths;
  while (const dirent* e = readdir(d)) {
    const std::string name = e->d_name;
    if (qualifies(name)) paths.push_back(dir + "/" + name);
  }
  closedir(d);
  std::sort(paths.begin(), paths.end());
  for (const std::string& p : paths) loadPlugin(p);
}

void PluginManager::loadPlugin(const std::string& path) {
  void* handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (!handle) {
    const char* why = dlerror();
    std::fprintf(stderr, "[zan plugin] load failed: %s: %s\n", path.c_str(), why ? why : "unknown error");
    return;
  }
  void* init = dlsym(handle, "zan_plugin_init");
  if (!init) {
    std::fprintf(stderr, "[zan plugin] %s: no %s symbol\n", path.c_str(), "zan_plugin_init");
    dlclose(handle);
    return;
  }
  const ZANPluginInfo* info = reinterpret_cast<ZANPluginInitFn>(init)(&kHostAPI);
  if (!info || info->abi != kZanPluginAbi) {
    std::fprintf(stderr, "[zan plugin] %s: ABI mismatch (want %u, got %u) - skipped\n", path.c_str(),
                 unsigned(kZanPluginAbi), info ? info->abi : 0u);
    dlclose(handle);
    return;
  }
  void* caps = dlsym(handle, "zan_plugin_capabilities");
  pluginCaps.push_back(caps ? reinterpret_cast<ZANPluginCapsFn>(caps)() : 0);
  plugins.push_back({handle, path, info});

  walkTable(handle, "zan_plugin_runtimes_v2", "zan runtime-v2", path, runtimesV2, [](const ZANRuntimeV2Desc& d) {
    return d.abi == kZanRuntimeV2Abi && d.chatTurn && d.chatClear;
  });
  walkTable(handle, "zan_plugin_runtimes_v2s", "zan runtime-v2s", path, runtimesV2S,
            [](const ZANRuntimeV2SDesc& d) {
              return d.abi == kZanDescriptorAbi && d.chatTurnStream && d.size >= kZanStreamDescMinSize;
            });
  walkTable(handle, "zan_plugin_executions", "zan exec", path, execs, [](const ZANExecutionDesc& d) {
    return d.abi == kZanDescriptorAbi && d.slot38 && d.slot48;
  });
  walkTable(handle, "zan_plugin_format", "zan format", path, formats, [](const ZANFormatDesc& d) {
    return d.abi == kZanDescriptorAbi && d.open && d.close;
  });
  walkTable(handle, "zan_plugin_tokenizers", "zan tokenizer", path, tokenizers, [](const ZANTokenizerDesc& d) {
    return d.abi == kZanDescriptorAbi && d.slot28 && d.slot38 && d.slot40;
  });
  walkTable(handle, "zan_plugin_samplers", "zan sampler", path, samplers, [](const ZANSamplerDesc& d) {
    return d.abi == kZanDescriptorAbi && d.slot20 && d.slot30;
  });
  walkTable(handle, "zan_plugin_trainers", "zan trainer", path, trainers, [](const ZANTrainerDesc& d) {
    return d.abi == kZanDescriptorAbi && d.probe && d.train;
  });
  walkTable(handle, "zan_plugin_backends", "zan backend", path, backends, [](const ZANBackendDesc& d) {
    return d.abi == kZanDescriptorAbi && d.slot38 && d.slot40;
  });
  walkTable(handle, "zan_plugin_runtimes", "zan runtime", path, runtimes, [](const ZANRuntimeDesc& d) {
    return d.abi == kZanDescriptorAbi && d.probe && d.slot28;
  });
  walkTable(handle, "zan_plugin_importers", "zan importer", path, importers, [](const ZANImporterDesc& d) {
    return d.abi == kZanDescriptorAbi && d.probe;
  });
}

void PluginManager::shutdown() {
  for (LoadedPlugin& p : plugins) {
    if (p.handle) dlclose(p.handle);
    p.handle = nullptr;
    p.info = nullptr;
  }
  plugins.clear();
  importers.clear();
  runtimes.clear();
  runtimesV2.clear();
  runtimesV2S.clear();
  backends.clear();
  execs.clear();
  formats.clear();
  tokenizers.clear();
  samplers.clear();
  trainers.clear();
  pluginCaps.clear();
}

const ZANRuntimeDesc* PluginManager::findRuntime(const char* id) const { return findById(runtimes, id); }
const ZANRuntimeV2Desc* PluginManager::findRuntimeV2(const char* id) const { return findById(runtimesV2, id); }
const ZANRuntimeV2SDesc* PluginManager::findRuntimeV2S(const char* id) const { return findById(runtimesV2S, id); }
const ZANBackendDesc* PluginManager::findBackend(const char* id) const { return findById(backends, id); }
const ZANExecutionDesc* PluginManager::findExec(const char* id) const { return findById(execs, id); }
const ZANFormatDesc* PluginManager::findFormat(const char* id) const { return findById(formats, id); }
const ZANImporterDesc* PluginManager::findImporter(const char* id) const { return findById(importers, id); }
const ZANTokenizerDesc* PluginManager::findTokenizer(const char* id) const { return findById(tokenizers, id); }
const ZANSamplerDesc* PluginManager::findSampler(const char* id) const { return findById(samplers, id); }
const ZANTrainerDesc* PluginManager::findTrainer(const char* id) const { return findById(trainers, id); }

const ZANBackendDesc* PluginManager::findBackendByCapability(uint64_t mask) const {
  for (const ZANBackendDesc* d : backends)
    if (d->caps & mask) return d;
  return nullptr;
}
const ZANRuntimeDesc* PluginManager::findRuntimeByCapability(uint64_t mask) const {
  return findAllBits(runtimes, mask);
}
const ZANExecutionDesc* PluginManager::findExecByCapability(uint64_t mask) const { return findAllBits(execs, mask); }
const ZANImporterDesc* PluginManager::findImporterByCapability(uint64_t mask) const {
  return findAllBits(importers, mask);
}
const ZANSamplerDesc* PluginManager::findSamplerByCapability(uint64_t mask) const {
  return findAllBits(samplers, mask);
}
const ZANTokenizerDesc* PluginManager::findTokenizerByCapability(uint64_t mask) const {
  return findAllBits(tokenizers, mask);
}
const ZANTrainerDesc* PluginManager::findTrainerByCapability(uint64_t mask) const {
  return findAllBits(trainers, mask);
}

const ZANRuntimeDesc* PluginManager::probeModel(const char* path, ZANRuntimeProbe* out) const {
  return probeAll(runtimes, path, out);
}
const ZANImporterDesc* PluginManager::probePath(const char* path, ZANProbeResult* out) const {
  return probeAll(importers, path, out);
}
const ZANTrainerDesc* PluginManager::probeTrainer(const char* path, ZANTrainerProbe* out) const {
  return probeAll(trainers, path, out);
}

int PluginManager::runCommand(const char* word, int argc, char** argv) const {
  const size_t len = word ? std::strlen(word) : 0;
  for (const LoadedPlugin& p : plugins) {
    if (!p.info || !p.info->commands) continue;
    for (uint32_t i = 0; i < p.info->commandCount; ++i) {
      const ZANCommand& c = p.info->commands[i];
      if (!c.name || std::strlen(c.name) != len || std::memcmp(c.name, word ? word : "", len) != 0) continue;
      if (!c.run) return 1;
      return c.run(nullptr, argc, argv);
    }
  }
  return 4;
}

}  // namespace tov
