// The three drivers of a runtime plugin: `run` (one answer), `chat` (a loop
// of turns, streamed where the runtime can, with Ctrl-C ending a turn) and
// `bench` (timed runs and their statistics). Each probes for a runtime,
// creates it with the hint of the options, works, and always destroys it.
#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "cli/commands.h"
#include "cli/run_opts.h"
#include "plugin/plugin_manager.h"

using tov::PluginManager;

namespace {

constexpr size_t kErrCap = 512;
constexpr size_t kOutCap = 65536;

volatile int* gChatStop = nullptr;

void chatSigint(int) {
  if (gChatStop) *gChatStop = 1;
  // Windows puts the default back before each call; stay in place until the
  // turn ends.
  std::signal(SIGINT, chatSigint);
}

void chatOnToken(const char* bytes, uint32_t length, void* user) {
  std::fwrite(bytes, 1, length, stdout);
  std::fflush(stdout);
}

const char* orEmpty(const char* s) { return s ? s : ""; }

// The start every driver shares: load, probe, and the v2 record of the
// winner. Gives the probe's winner or null after printing why.
const ZANRuntimeDesc* findRuntime(const RunOpts& opts, ZANRuntimeProbe& probe, const ZANRuntimeV2Desc*& v2) {
  PluginManager& mgr = PluginManager::instance();
  mgr.loadAll();
  std::memset(&probe, 0, sizeof probe);
  const ZANRuntimeDesc* rt = mgr.probeModel(opts.model.c_str(), &probe);
  if (!rt) {
    std::fprintf(stderr, "runtime unavailable for %s (no runtime plugin matched)\n", opts.model.c_str());
    return nullptr;
  }
  v2 = mgr.findRuntimeV2(rt->id);
  return rt;
}

// create with the hint; null after printing the runtime's own reason.
void* createRuntime(const ZANRuntimeV2Desc* v2, const RunOpts& opts, const ZANRuntimeProbe& probe) {
  const std::string hint = makeCreateHint(probe.backend, opts);
  // The runtime may leave the buffer without a terminator; the last byte
  // stays zero whatever it writes before it.
  char err[kErrCap + 1] = {};
  void* handle = nullptr;
  const int32_t rc = v2->create ? v2->create(opts.model.c_str(), hint.c_str(), &handle, err, kErrCap) : -1;
  if (rc != 0 || !handle) {
    std::fprintf(stderr, "zan: runtime create failed: %s\n", err);
    return nullptr;
  }
  return handle;
}

ZANGenParams genParams(const RunOpts& opts, uint32_t maxNew) {
  ZANGenParams p;
  std::memset(&p, 0, sizeof p);
  p.size = sizeof p;
  p.temperature = opts.temperature;
  p.topK = opts.topK;
  p.topP = opts.topP;
  p.seed = opts.seed;
  p.maxNew = maxNew;
  p.fixedA = -1;
  p.fixedB = 0;
  p.contextCap = opts.contextSet ? static_cast<uint32_t>(opts.context) : 0;
  int32_t kv = 0;
  kvNameToType(opts.kv, kv);
  p.kvType = kv;
  p.systemPrompt = opts.systemSet ? opts.systemPrompt.c_str() : nullptr;
  return p;
}

// An answer buffer with one byte past the capacity that stays zero, so an
// answer without its terminator still ends inside the buffer.
struct OutBuffer {
  std::vector<char> bytes = std::vector<char>(kOutCap + 1, 0);
  char* data() { return bytes.data(); }
};

}  // namespace

int cmdRunViaPlugin(const RunOpts& opts, const std::string& prompt) {
  ZANRuntimeProbe probe;
  const ZANRuntimeV2Desc* v2 = nullptr;
  const ZANRuntimeDesc* rt = findRuntime(opts, probe, v2);
  if (!rt) return 2;
  if (!v2 || !v2->generate) {
    std::fprintf(stderr, "runtime '%s' lacks the required v2 capability - legacy path is the fallback\n",
                 orEmpty(rt->id));
    return 2;
  }
  std::fprintf(stderr, "[plugin-runtime] %s (%s)\n", orEmpty(rt->id), orEmpty(probe.backend));
  void* handle = createRuntime(v2, opts, probe);
  if (!handle) return 1;
  printRunCfg(opts);
  const ZANGenParams params = genParams(opts, static_cast<uint32_t>(opts.maxNew));
  OutBuffer out;
  int32_t rc;
  if (!opts.chat) {
    rc = v2->generate(handle, prompt.c_str(), &params, out.data(), kOutCap);
  } else {
    if (v2->configure) v2->configure(handle, &params);
    rc = v2->chatTurn(handle, prompt.c_str(), out.data(), kOutCap);
  }
  if (v2->destroy) v2->destroy(handle);
  if (rc != 0) {
    std::fprintf(stderr, "zan: generation failed (%d)\n", rc);
    return 1;
  }
  std::printf("%s\n", out.data());
  return 0;
}

int cmdChatViaPlugin(const RunOpts& opts) {
  ZANRuntimeProbe probe;
  const ZANRuntimeV2Desc* v2 = nullptr;
  const ZANRuntimeDesc* rt = findRuntime(opts, probe, v2);
  if (!rt) return 2;
  const char* id = orEmpty(rt->id);
  if (!v2) {
    std::fprintf(stderr, "runtime '%s' has no chat capability (ABI v2) - legacy chat is the fallback\n", id);
    return 2;
  }
  void* handle = createRuntime(v2, opts, probe);
  if (!handle) return 1;
  printRunCfg(opts);
  // Kept alive until destroy: the runtime may read it on every turn.
  const ZANGenParams params = genParams(opts, 512);
  if (v2->configure) v2->configure(handle, &params);
  std::printf("Halden chat (plugin runtime %s)\n", id);
  std::fputs("commands: /exit /quit, /clear\n", stdout);

  OutBuffer out;
  std::string line;
  for (;;) {
    std::fputs("User: ", stdout);
    std::fflush(stdout);
    line.clear();
    int c;
    while ((c = std::fgetc(stdin)) != EOF && c != '\n') line.push_back(static_cast<char>(c));
    if (c == EOF && line.empty()) break;
    if (line == "/exit" || line == "/quit") break;
    if (line == "/clear") {
      v2->chatClear(handle);
      std::fflush(stdout);
      continue;
    }
    std::fputs("\nModel: ", stdout);
    std::fflush(stdout);
    const ZANRuntimeV2SDesc* stream = PluginManager::instance().findRuntimeV2S(rt->id);
    if (stream && stream->chatTurnStream) {
      std::fprintf(stderr, "[zan chat] streaming via %s (v2s)\n", id);
      volatile int stop = 0;
      void (*previous)(int) = std::signal(SIGINT, chatSigint);
      gChatStop = &stop;
      const int32_t rc = stream->chatTurnStream(handle, line.c_str(), chatOnToken, nullptr, &stop);
      gChatStop = nullptr;
      if (previous != SIG_DFL && previous != SIG_ERR) std::signal(SIGINT, previous);
      if (rc != 0) {
        std::fflush(stdout);
        std::fprintf(stderr, "\nzan: chat stream failed (%d)\n", rc);
        break;
      }
      std::fputs("\n", stdout);
    } else {
      std::fprintf(stderr, "[zan chat] runtime %s has no v2s - blocking chat_turn fallback\n", id);
      std::memset(out.data(), 0, kOutCap);
      const int32_t rc = v2->chatTurn(handle, line.c_str(), out.data(), kOutCap);
      if (rc != 0) {
        std::fflush(stdout);
        std::fprintf(stderr, "zan: chat_turn failed (%d)\n", rc);
        break;
      }
      std::printf("%s\n", out.data());
    }
  }
  std::fflush(stdout);
  if (v2->destroy) v2->destroy(handle);
  return 0;
}

int cmdBenchViaPlugin(const RunOpts& opts) {
  ZANRuntimeProbe probe;
  const ZANRuntimeV2Desc* v2 = nullptr;
  const ZANRuntimeDesc* rt = findRuntime(opts, probe, v2);
  if (!rt) return 2;
  if (!v2 || !v2->bench) {
    std::fprintf(stderr, "runtime '%s' lacks bench capability\n", orEmpty(rt->id));
    return 2;
  }
  std::fprintf(stderr, "[plugin-runtime] %s (%s)\n", orEmpty(rt->id), orEmpty(probe.backend));
  void* handle = createRuntime(v2, opts, probe);
  if (!handle) return 1;
  printRunCfg(opts);
  std::vector<double> ms;
  for (uint64_t run = 1; run <= opts.runs; ++run) {
    ZANBenchRequest req{sizeof(ZANBenchRequest), static_cast<uint32_t>(opts.tokens),
                        static_cast<uint32_t>(opts.warmup), static_cast<uint32_t>(opts.maxNew), 0};
    ZANBenchResult res;
    std::memset(&res, 0, sizeof res);
    const int32_t rc = v2->bench(handle, &req, &res);
    if (rc != 0) {
      std::fprintf(stderr, "zan: bench failed (%d)\n", rc);
      break;
    }
    ms.push_back(res.msPerToken);
    std::printf("run %llu: %.2f ms/token (%.2f tok/s)\n", static_cast<unsigned long long>(run), res.msPerToken,
                res.tokensPerSecond);
    std::fflush(stdout);
  }
  if (v2->destroy) v2->destroy(handle);
  if (!ms.empty()) {
    std::sort(ms.begin(), ms.end());
    double sum = 0;
    for (double v : ms) sum += v;
    const double mean = sum / static_cast<double>(ms.size());
    std::printf("mean %.2f ms | p50 %.2f | min %.2f | max %.2f | %.2f tok/s\n", mean, ms[ms.size() / 2], ms.front(),
                ms.back(), 1000.0 / mean);
  }
  return 0;
}

namespace {

// The prompt of `-f FILE` when no `-p` was given: the file's text with its
// trailing line ends taken off. False after saying why it can't be read.
bool readPromptFile(RunOpts& opts) {
  if (!opts.prompt.empty() || opts.promptFile.empty()) return true;
  FILE* f = std::fopen(opts.promptFile.c_str(), "rb");
  if (!f) {
    std::fprintf(stderr, "zan: cannot read prompt file '%s': %s\n", opts.promptFile.c_str(), std::strerror(errno));
    return false;
  }
  std::string text;
  char block[8192];
  size_t got;
  while ((got = std::fread(block, 1, sizeof block, f)) > 0) text.append(block, got);
  const bool failed = std::ferror(f);
  const int saved = errno;
  std::fclose(f);
  if (failed) {
    std::fprintf(stderr, "zan: cannot read prompt file '%s': %s\n", opts.promptFile.c_str(), std::strerror(saved));
    return false;
  }
  while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
  opts.prompt = text;
  return true;
}

}  // namespace

int cmdRunModel(int argc, char** argv) {
  RunOpts opts;
  if (!parseFlags(argc, argv, opts)) return 2;
  opts.model = argv[2];
  if (!readPromptFile(opts)) return 2;
  return cmdRunViaPlugin(opts, opts.prompt);
}

int cmdChat(int argc, char** argv) {
  if (argc < 3) {
    std::fputs("usage: zan chat <model.zan> [options]\n", stderr);
    return 2;
  }
  RunOpts opts;
  if (!parseFlags(argc, argv, opts)) return 2;
  opts.model = argv[2];
  return cmdChatViaPlugin(opts);
}

int cmdBench(int argc, char** argv) {
  if (argc < 3) {
    std::fputs("usage: zan bench <model.zan> [options]\n", stderr);
    return 2;
  }
  RunOpts opts;
  if (!parseFlags(argc, argv, opts)) return 2;
  opts.model = argv[2];
  return cmdBenchViaPlugin(opts);
}
