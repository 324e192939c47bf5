// The options of `run`, `chat` and `bench` on a model: the record, the flag
// parser, the spreading of layers over devices, and the two texts made from
// them: the create hint for the runtime plugin and the echo on stderr.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct RunOpts {
  // One assignment of layers to one device.
  struct DevSpec {
    char kind = 'g';  // 'g' a GPU, 'c' a CPU
    int32_t index = 0;
    int32_t layers = 0;  // meaningful when `all` is false
    bool all = false;    // takes all the layers that remain
  };

  std::string model;
  std::string prompt;
  std::string promptFile;
  bool chat = false;
  bool cpuOnly = false;
  float temperature = 0.8f;
  int32_t topK = 40;
  float topP = 0.95f;
  uint64_t seed = 42;
  uint64_t maxNew = 256;
  uint64_t warmup = 10;
  uint64_t tokens = 100;
  uint64_t runs = 1;
  uint64_t prefill = 0;
  bool perf = false;
  bool viaPlugin = false;
  bool contextSet = false;
  uint64_t context = 8192;
  bool kvSet = false;
  std::string kv = "f16";
  bool systemSet = false;
  std::string systemPrompt;
  std::vector<DevSpec> devices;
};

// Reads argv[3] onward (argv[2] is the model). False after printing why.
bool parseFlags(int argc, char** argv, RunOpts& opts);

// "f16" 0, "q8_0" 1, "q4_0" 2; false for any other name, `out` untouched.
bool kvNameToType(const std::string& name, int32_t& out);

// "all"/"ALL", or a whole decimal count of 1 or more.
bool parseLayersArg(const std::string& text, int32_t& layers, bool& all);

// The text of a file of that name (at most 1 MiB, trailing CR and LF
// stripped), or the argument itself when no such file opens.
std::string systemFromArg(const std::string& text);

// "backend;ctx=N;kv=NAME;plan=g0:20,c0:all;" with the items that were set;
// just the backend when none was. A null backend counts as empty.
std::string makeCreateHint(const char* backend, const RunOpts& opts);

// The "[cfg] ..." line on stderr, when any of the echoed options was set.
void printRunCfg(const RunOpts& opts);
