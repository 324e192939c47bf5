// Model tooling commands: `convert` and `tune` write a model through an
// importer or trainer plugin, `info` summarises one through the "zan2"
// format plugin, and `type` reads any container's header on its own.
#include <chrono>
#include <cstdio>
#include <cstring>
#include <vector>

#include "base/compat.h"
#include "cli/commands.h"
#include "container/zan2.h"
#include "plugin/plugin_manager.h"

namespace zan2 = tov::zan2;
using tov::PluginManager;

namespace {

constexpr size_t kErrCap = 512;

// A cleared error buffer with one zero byte past what the plugin is told.
struct ErrBuffer {
  char text[kErrCap + 1] = {};
  const char* orNoDetail() const { return text[0] ? text : "(no detail)"; }
};

}  // namespace

int cmdConvert(int argc, char** argv) {
  if (argc < 4) {
    std::fputs("usage: zan convert <model.gguf|model.safetensors|pytorch_model.bin|model_dir> <model.zan>\n", stderr);
    return 2;
  }
  const char* src = argv[2];
  const char* dst = argv[3];
  PluginManager& mgr = PluginManager::instance();
  mgr.loadAll();
  ZANProbeResult probe;
  std::memset(&probe, 0, sizeof probe);
  const ZANImporterDesc* imp = mgr.probePath(src, &probe);
  if (!imp || !imp->convert) {
    std::fprintf(stderr, "zan convert: no importer plugin for '%s' (zan importer list)\n", src);
    return 1;
  }
  ErrBuffer err;
  uint64_t tensors = 0, bytes = 0;
  ZANConvertRequest req;
  std::memset(&req, 0, sizeof req);
  req.size = sizeof req;
  req.outPath = dst;
  req.err = err.text;
  req.errCap = kErrCap;
  req.outTensors = &tensors;
  req.outBytes = &bytes;
  const auto t0 = std::chrono::steady_clock::now();
  const int32_t rc = imp->convert(src, &req);
  const auto t1 = std::chrono::steady_clock::now();
  const double seconds =
      static_cast<double>(std::chrono::duration_cast<std::chrono::nanoseconds>(t1 - t0).count()) / 1000000000.0;
  const char* id = imp->id ? imp->id : "";
  if (rc != 0) {
    std::fprintf(stderr, "zan convert: importer '%s' failed (%d): %s\n", id, rc, err.orNoDetail());
    return 1;
  }
  std::fputs("ZAN2\n", stdout);
  std::printf("  importer : %s (%s)\n", id, probe.format ? probe.format : "?");
  std::printf("  arch   : %s\n", probe.architecture && *probe.architecture ? probe.architecture : "generic");
  std::printf("  output : %s (%.2f MB, %zu tensors) in %.1f s\n", dst, static_cast<double>(bytes) / 1048576.0,
              static_cast<size_t>(tensors), seconds);
  return 0;
}

int cmdTune(int argc, char** argv) {
  if (argc <= 4) {
    std::fputs("usage: zan tune [--trainer <id>] [-cpu] <model.zan> <data.txt> <out.zan>\n"
               "  -cpu  force CPU tuning (default: discrete GPU)\n",
               stderr);
    return 2;
  }
  bool forceCpu = false;
  const char* trainerId = nullptr;
  std::vector<const char*> positionals;
  for (int i = 2; i < argc; ++i) {
    const char* w = argv[i];
    if (!std::strcmp(w, "-cpu") || !std::strcmp(w, "--cpu")) {
      forceCpu = true;
    } else if (!std::strcmp(w, "-gpu") || !std::strcmp(w, "--gpu")) {
      forceCpu = false;
    } else if (!std::strcmp(w, "--trainer") && i + 1 < argc) {
      trainerId = argv[++i];
    } else {
      positionals.push_back(w);
    }
  }
  if (positionals.size() < 3) {
    std::fputs("usage: zan tune [--trainer <id>] [-cpu] <model.zan> <data.txt> <out.zan>\n", stderr);
    return 2;
  }
  PluginManager& mgr = PluginManager::instance();
  mgr.loadAll();
  ZANTrainerProbe probe;
  std::memset(&probe, 0, sizeof probe);
  const ZANTrainerDesc* tr = trainerId ? mgr.findTrainer(trainerId) : mgr.probeTrainer(positionals[0], &probe);
  if (!tr) {
    std::fprintf(stderr, "zan tune: no trainer plugin for %s (zan trainer list)\n", positionals[0]);
    return 1;
  }
  ErrBuffer err;
  uint64_t tensors = 0;
  ZANTuneRequest req;
  std::memset(&req, 0, sizeof req);
  req.size = sizeof req;
  req.modelPath = positionals[0];
  req.dataPath = positionals[1];
  req.outPath = positionals[2];
  req.err = err.text;
  req.errCap = kErrCap;
  req.outTensors = &tensors;
  req.forceCpu = forceCpu ? 1 : 0;
  const int32_t rc = tr->train(&req);
  const char* id = tr->id ? tr->id : "";
  if (rc != 0) {
    std::fprintf(stderr, "zan tune: trainer '%s' failed (%d): %s\n", id, rc, err.orNoDetail());
    return 1;
  }
  std::fputs("TUNED\n", stdout);
  std::printf("  trainer : %s (%s)\n", id, probe.kind ? probe.kind : "?");
  std::printf("  output : %s (%zu tensors)\n", positionals[2], static_cast<size_t>(tensors));
  return 0;
}

int cmdInfo(int argc, char** argv) {
  if (argc < 3) {
    std::fputs("usage: zan info <model.zan>\n", stderr);
    return 2;
  }
  const char* path = argv[2];
  PluginManager& mgr = PluginManager::instance();
  mgr.loadAll();
  // A format without getInfo or getTensor can't give a summary either.
  const ZANFormatDesc* fmt = mgr.findFormat("zan2");
  if (!fmt || !fmt->getInfo || !fmt->getTensor) {
    std::fputs("zan info: zan2 format plugin not available (zan plugins)\n", stderr);
    return 1;
  }
  void* handle = nullptr;
  const int32_t rc = fmt->open(path, &handle);
  if (rc != 0) {
    std::fprintf(stderr, "zan info: cannot open %s (%d)%s%s\n", path, rc, "", "");
    return 1;
  }
  ZANFormatInfo info;
  std::memset(&info, 0, sizeof info);
  fmt->getInfo(handle, &info);
  std::printf("ZAN model: %s\n", path);
  std::printf("  version %u | sections %u | tensors %u | size %llu bytes\n", info.version, info.sections,
              info.tensors, static_cast<unsigned long long>(info.size));
  const uint32_t shown = info.tensors < 8 ? info.tensors : 8;
  for (uint32_t i = 0; i < shown; ++i) {
    ZANTensorInfo t;
    std::memset(&t, 0, sizeof t);
    fmt->getTensor(handle, i, &t);
    std::printf("  tensor[%u] %s dtype=%u ndim=%u size=%llu\n", i, t.name ? t.name : "?", t.dtype, t.ndim,
                static_cast<unsigned long long>(t.size));
  }
  if (info.tensors > 8) std::printf("  ... (%u tensors total)\n", info.tensors);
  fmt->close(handle);
  ZANRuntimeProbe probe;
  std::memset(&probe, 0, sizeof probe);
  if (const ZANRuntimeDesc* rt = mgr.probeModel(path, &probe))
    std::printf("  runtime: %s (conf %d, arch %s)\n", rt->id ? rt->id : "", probe.confidence,
                probe.architecture ? probe.architecture : "");
  return 0;
}

int cmdType(int argc, char** argv) {
  if (argc < 3) {
    std::fputs("usage: zan type <file.zan>\n", stderr);
    return 2;
  }
  const char* path = argv[2];
  if (zanCompatDeviceName(path)) {
    std::fprintf(stderr, "zan type: %s names a device, not a file\n", path);
    return 1;
  }
  FILE* f = std::fopen(path, "rb");
  if (!f) {
    std::fprintf(stderr, "zan type: cannot open %s\n", path);
    return 1;
  }
  uint8_t bytes[zan2::kHeaderSize];
  const size_t got = std::fread(bytes, 1, sizeof bytes, f);
  std::fclose(f);
  if (got != sizeof bytes) {
    std::fprintf(stderr, "zan type: %s is not a complete ZAN2 header\n", path);
    return 1;
  }
  const zan2::Header h = zan2::decodeHeader(bytes);
  if (!h.magicOk()) {
    std::fprintf(stderr, "zan type: %s is not an ZAN file (bad magic)\n", path);
    return 1;
  }
  std::printf("file: %s\n", path);
  std::printf("  kind: %s (code %u)\n", zan2::kindName(h.kind), h.kind);
  std::printf("  format: ZAN2 v%u endian=%s\n", h.version, h.endian == zan2::kEndianMark ? "le" : "be?");
  if (h.kind == zan2::kKindLegacyModel || h.kind == zan2::kKindModel) {
    std::printf("  modelType: %u | sections %u | tensors %u\n", h.modelType, h.sectionCount, h.tensorCount);
    if (h.hiddenSize || h.layers)
      std::printf("  hidden %llu | layers %u | vocab %u\n", static_cast<unsigned long long>(h.hiddenSize), h.layers,
                  h.vocab);
  } else if (h.kind == zan2::kKindApp) {
    std::printf("  app sections %u (AppManifest/AppPayload/AppIndex)\n", h.sectionCount);
  } else {
    std::printf("  sections %u | tensors %u (non-model payloads may differ)\n", h.sectionCount, h.tensorCount);
  }

  // The table is shown only when all of it can be read; otherwise it is
  // left out without a word.
  if (h.sectionCount >= 1 && h.sectionCount <= 65536 && (f = std::fopen(path, "rb"))) {
    std::vector<uint8_t> table(h.sectionCount * zan2::kSectionEntrySize);
    const bool whole = std::fseek(f, zan2::kHeaderSize, SEEK_SET) == 0 &&
                       std::fread(table.data(), 1, table.size(), f) == table.size();
    std::fclose(f);
    if (whole) {
      std::fputs("  sections table:\n", stdout);
      const uint32_t shown = h.sectionCount < 64 ? h.sectionCount : 64;
      for (uint32_t i = 0; i < shown; ++i) {
        const zan2::SectionEntry s = zan2::decodeSection(&table[i * zan2::kSectionEntrySize]);
        std::printf("    [%u] type=%u flags=%u off=%llu size=%llu\n", i, s.type, s.flags,
                    static_cast<unsigned long long>(s.offset), static_cast<unsigned long long>(s.size));
      }
      if (h.sectionCount > shown) std::printf("    ... (%u more)\n", h.sectionCount - shown);
    }
  }
  std::fputs("  (authoritative type copy lives in META: container.kind / container.version)\n", stdout);
  return 0;
}
