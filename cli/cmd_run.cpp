// `zan run`: the choice between module, app and model, and the module route
// down to the machine.
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "base/compat.h"
#include "bytecode/zanb.h"
#include "bytecode/zanb_vm.h"
#include "cli/commands.h"
#include "container/zan2.h"
#include "ui/zan_ui_runtime.h"

namespace {

// The first 64 bytes are a ZAN2 header of kind 6 (app).
bool isAppContainer(const char* path) {
  FILE* f = std::fopen(path, "rb");
  if (!f) return false;
  uint8_t bytes[tov::zan2::kHeaderSize];
  const size_t got = std::fread(bytes, 1, sizeof bytes, f);
  std::fclose(f);
  if (got != sizeof bytes) return false;
  const tov::zan2::Header h = tov::zan2::decodeHeader(bytes);
  return h.magicOk() && h.kind == tov::zan2::kKindApp;
}

}  // namespace

int runZanbBlob(const uint8_t* bytes, uint64_t size, const std::vector<std::string>& args,
                const char* path) {
  tov::zanui::RuntimeHost host;  // outlives the machine that borrows it
  tov::zanb::VmConfig cfg;
  cfg.host = &host;
  cfg.args = args;
  cfg.onStdout = [](const uint8_t* p, uint64_t n) {
    std::fwrite(p, 1, n, stdout);
    std::fflush(stdout);
  };
  cfg.onStderr = [](const uint8_t* p, uint64_t n) { std::fwrite(p, 1, n, stderr); };
  std::string err;
  int rc = tov::zanb::runModule(bytes, size, cfg, err);
  std::fflush(stdout);
  if (rc < 0) {
    std::fprintf(stderr, "zan run: %s: %s\n", path, err.c_str());
    return 1;
  }
  return rc;
}

int cmdRunModuleFile(const char* path, int argc, char** argv, int firstArg) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    std::fprintf(stderr, "zan run: cannot open %s\n", path);
    return 1;
  }
  std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  std::vector<std::string> args{path};
  for (int i = firstArg; i < argc; ++i) args.emplace_back(argv[i]);

  if (bytes.size() > 3 && std::memcmp(bytes.data(), tov::zanb::kMagic, 4) == 0)
    return runZanbBlob(bytes.data(), bytes.size(), args, path);

  tov::zanb::Module m;
  std::string err;
  if (!tov::zanb::assemble(std::string(bytes.begin(), bytes.end()), m, err)) {
    std::fprintf(stderr, "zan run: %s is neither ZANB bytecode nor ZANA text\n", path);
    return 2;
  }
  std::vector<uint8_t> blob = tov::zanb::writeModule(m);
  return runZanbBlob(blob.data(), blob.size(), args, path);
}

int cmdRun(int argc, char** argv) {
  if (argc < 3) {
    std::fputs(
        "usage: zan run <model.zan> -p PROMPT [options]\n"
        "       zan run <app.zan> [args...]   (ZANB app container)\n"
        "       zan run <module.zanb> [args...]\n",
        stderr);
    return 2;
  }
  std::string path = argv[2];
  if (zanCompatDeviceName(argv[2])) {
    std::fprintf(stderr, "zan run: %s names a device, not a file\n", argv[2]);
    return 1;
  }
  if (path.ends_with(".zanb") || path.ends_with(".zana")) return cmdRunModuleFile(argv[2], argc, argv, 3);
  if (isAppContainer(argv[2])) return cmdRunAppContainer(argv[2], argc, argv, 3);
  return cmdRunModel(argc, argv);
}
