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

// `zan type <file>`: a container's header and section table, no plugins.
int cmdType(int argc, char** argv);

// Routes whose full handlers come with the app-container and plugin work.
// Until then an app container is refused and no runtime claims a model.
int cmdRunAppContainer(const char* path, int argc, char** argv, int firstArg);
int cmdRunModel(int argc, char** argv);

// Commands that installed plugins provide, for words no row of main's table
// claims. Gives 0 on success, 4 when no loaded plugin provides `word`, and any
// other value when the plugin command failed; argv[0] is the command word.
int runPluginCommand(const char* word, int argc, char** argv);
