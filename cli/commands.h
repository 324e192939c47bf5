// The command handlers that main calls. Each prints its own results and
// messages and returns the process exit code.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

// Help: the language chosen by the words from argv[first] on, and the texts.
bool helpWantsZh(int argc, char** argv, int first);
const std::string& helpText(bool zh);
extern const char kLsUsage[];

// `zan run <file> ...`: chooses the module, app or model route.
int cmdRun(int argc, char** argv);
// A module file (binary ZANB or ZANA text); guest arguments start at argv[firstArg].
int cmdRunModuleFile(const char* path, int argc, char** argv, int firstArg);
// Runs module bytes with the given guest arguments; `path` names it in messages.
int runZanbBlob(const uint8_t* bytes, uint64_t size, const std::vector<std::string>& args,
                const char* path);

// Model tooling: `convert`, `tune` and `info` through plugins (they load
// them once their arguments passed), `type` without any.
int cmdConvert(int argc, char** argv);
int cmdTune(int argc, char** argv);
int cmdInfo(int argc, char** argv);
int cmdType(int argc, char** argv);

// The runtime-plugin drivers of `run`, `chat` and `bench` on a model.
struct RunOpts;
int cmdRunViaPlugin(const RunOpts& opts, const std::string& prompt);
int cmdChatViaPlugin(const RunOpts& opts);
int cmdBenchViaPlugin(const RunOpts& opts);
// `chat` and `bench` on a model: usage, flags, then their drivers.
int cmdChat(int argc, char** argv);
int cmdBench(int argc, char** argv);

// App containers: `pack`, `appinfo`, `pack-apk`, and the app route of
// `run`, whose guest arguments start at argv[firstArg].
int cmdPackApp(int argc, char** argv);
int cmdAppInfo(int argc, char** argv);
int cmdPackApk(int argc, char** argv);
int cmdRunAppContainer(const char* path, int argc, char** argv, int firstArg);
// The model route of `run`: flags, then the plugin driver.
int cmdRunModel(int argc, char** argv);

// A word that no row of main's table claims: loads the plugins (unless a
// handler already did) and runs the plugin command of that name, mapping
// its result to the exit code.
int cmdPluginCommand(int argc, char** argv);

// Listings of the plugin registries; main has loaded the plugins.
int cmdRuntime(int argc, char** argv);
int cmdBackend(int argc, char** argv);
int cmdExecution(int argc, char** argv);
int cmdImporter(int argc, char** argv);
int cmdTrainer(int argc, char** argv);
int cmdTokenizer(int argc, char** argv);
int cmdSampler(int argc, char** argv);
int cmdPlugins(int argc, char** argv);
// `zan ls devices`: loads the plugins, then the CPU and GPU blocks.
int cmdLsDevices();
