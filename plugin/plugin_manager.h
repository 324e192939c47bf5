// The plugin registry of the process: finds plugin libraries, checks their
// ABI, files every usable descriptor under its kind, and answers lookups by
// id, by capability, by probe and by command word. Loading happens at most
// once; afterwards the registries are frozen. The registries hold bare
// pointers into the libraries' own tables, which stay open until shutdown.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "plugin/zan_plugin.h"

namespace tov {

struct LoadedPlugin {
  void* handle = nullptr;
  std::string path;  // as scanned
  const ZANPluginInfo* info = nullptr;
};

// The directories loadAll scans, in order: ZAN_PLUGIN_PATH split at ":" and
// ";", or else the executable's plugins directory and ./plugins; then the
// two per-user directories that exist.
std::vector<std::string> pluginSearchList();

class PluginManager {
 public:
  static PluginManager& instance();

  PluginManager() = default;
  ~PluginManager() { shutdown(); }
  PluginManager(const PluginManager&) = delete;
  PluginManager& operator=(const PluginManager&) = delete;

  void loadAll();
  void scanDir(const std::string& dir);
  void loadPlugin(const std::string& path);
  void shutdown();

  // Lookups by id: the first registered record with exactly this id.
  const ZANRuntimeDesc* findRuntime(const char* id) const;
  const ZANRuntimeV2Desc* findRuntimeV2(const char* id) const;
  const ZANRuntimeV2SDesc* findRuntimeV2S(const char* id) const;
  const ZANBackendDesc* findBackend(const char* id) const;
  const ZANExecutionDesc* findExec(const char* id) const;
  const ZANFormatDesc* findFormat(const char* id) const;
  const ZANImporterDesc* findImporter(const char* id) const;
  const ZANTokenizerDesc* findTokenizer(const char* id) const;
  const ZANSamplerDesc* findSampler(const char* id) const;
  const ZANTrainerDesc* findTrainer(const char* id) const;

  // Lookups by capability. Backends match on any bit of `mask`; the others
  // need non-zero caps holding every bit of it.
  const ZANBackendDesc* findBackendByCapability(uint64_t mask) const;
  const ZANRuntimeDesc* findRuntimeByCapability(uint64_t mask) const;
  const ZANExecutionDesc* findExecByCapability(uint64_t mask) const;
  const ZANImporterDesc* findImporterByCapability(uint64_t mask) const;
  const ZANSamplerDesc* findSamplerByCapability(uint64_t mask) const;
  const ZANTokenizerDesc* findTokenizerByCapability(uint64_t mask) const;
  const ZANTrainerDesc* findTrainerByCapability(uint64_t mask) const;

  // Probes: every candidate is asked; the strictly highest confidence of at
  // least 1 with result 0 wins, ties keep the earlier. `out` (may be null)
  // is written only by a winner.
  const ZANRuntimeDesc* probeModel(const char* path, ZANRuntimeProbe* out) const;
  const ZANImporterDesc* probePath(const char* path, ZANProbeResult* out) const;
  const ZANTrainerDesc* probeTrainer(const char* path, ZANTrainerProbe* out) const;

  // The first plugin command named `word` runs; 4 when none is.
  int runCommand(const char* word, int argc, char** argv) const;

  std::vector<LoadedPlugin> plugins;
  std::vector<const ZANImporterDesc*> importers;
  std::vector<const ZANRuntimeDesc*> runtimes;
  std::vector<const ZANRuntimeV2Desc*> runtimesV2;
  std::vector<const ZANRuntimeV2SDesc*> runtimesV2S;
  std::vector<const ZANBackendDesc*> backends;
  std::vector<const ZANExecutionDesc*> execs;
  std::vector<const ZANFormatDesc*> formats;
  std::vector<const ZANTokenizerDesc*> tokenizers;
  std::vector<const ZANSamplerDesc*> samplers;
  std::vector<const ZANTrainerDesc*> trainers;
  std::vector<uint64_t> pluginCaps;
  bool frozen = false;
  bool loading = false;
};

// The one host record handed to every plugin's init.
extern const ZANHostAPI kHostAPI;

}  // namespace tov
