// main: one command word, one handler, one exit code.
//
// main reads nothing and loads nothing before it has looked at the command
// word. It walks kCommands in order and runs the first row that claims the
// word; a word no row claims, and a row whose handler isn't built yet, go to
// the commands that plugins provide.
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "cli/commands.h"

// Stand-in until the plugin host exists: no plugin can be loaded, and with no
// plugin loaded no command is provided, which is result 4. The plugin host
// replaces this with loadAll followed by PluginManager::runCommand.
int runPluginCommand(const char* word, int argc, char** argv) { return 4; }

namespace {

// Whether a row's branch loads the plugins, and when. Nothing reads it until
// the plugin host exists; it is kept with the row so that it can't drift.
enum class Loads : uint8_t {
  No,
  Yes,        // before the handler runs
  InHandler,  // the handler decides (some routes or topics only)
  AfterArgs,  // once the handler's arguments passed their checks
};

using Handler = int (*)(int argc, char** argv);

struct Command {
  const char* words[3];  // the word and its aliases; unused entries are null
  Handler run;           // null: not built yet, the word goes to the plugins
  Loads loads;
};

// A word no row claims. Plugin commands see argv from the command word on.
int cmdPluginCommand(int argc, char** argv) {
  const char* word = argv[1];
  int rc = runPluginCommand(word, argc - 1, argv + 1);
  if (rc == 0) return 0;
  if (rc == 4) {
    std::fprintf(stderr, "zan: unknown command '%s'\nplugin providing command '%s' is not installed\n",
                 word, word);
    return 2;
  }
  std::fprintf(stderr, "zan: plugin command '%s' failed (%d)\n", word, rc);
  return 1;
}

// `zan ls [topic]`. The usage is asked for, so it goes to standard output
// with 0; "-help" is not one of the ways to ask and counts as a bad topic.
int cmdLs(int argc, char** argv) {
  const char* topic = argc > 2 ? argv[2] : nullptr;
  if (!topic || !std::strcmp(topic, "help") || !std::strcmp(topic, "--help") ||
      !std::strcmp(topic, "-h")) {
    std::fputs(kLsUsage, stdout);
    return 0;
  }
  // The installed-package listing and the device listing aren't built yet.
  if (!std::strcmp(topic, "plugins") || !std::strcmp(topic, "devices")) return cmdPluginCommand(argc, argv);
  std::fputs("usage: zan ls plugins | zan ls devices\n", stderr);
  return 2;
}

// In this order; the first row whose word or alias equals argv[1] runs.
const Command kCommands[] = {
    {{"tune"}, nullptr, Loads::AfterArgs},
    {{"runtime"}, nullptr, Loads::Yes},
    {{"backend"}, nullptr, Loads::Yes},
    {{"execution", "executions"}, nullptr, Loads::Yes},
    {{"importer", "importers"}, nullptr, Loads::Yes},
    {{"trainer", "trainers"}, nullptr, Loads::Yes},
    {{"tokenizer", "tokenizers"}, nullptr, Loads::Yes},
    {{"sampler", "samplers"}, nullptr, Loads::Yes},
    {{"ls"}, cmdLs, Loads::InHandler},  // only `ls devices` loads
    {{"plugins", "plugin"}, nullptr, Loads::Yes},
    {{"chat"}, nullptr, Loads::InHandler},
    {{"run"}, cmdRun, Loads::InHandler},  // the model route only
    {{"bench"}, nullptr, Loads::InHandler},
    {{"info"}, nullptr, Loads::Yes},
    {{"type"}, cmdType, Loads::No},
    {{"store"}, nullptr, Loads::No},
    {{"pack"}, nullptr, Loads::No},
    {{"appinfo"}, nullptr, Loads::No},
    {{"pack-apk"}, nullptr, Loads::No},
    {{"update"}, nullptr, Loads::No},
    {{"install"}, nullptr, Loads::No},
    {{"remove", "uninstall"}, nullptr, Loads::No},
    {{"upgrade"}, nullptr, Loads::No},
    {{"source"}, nullptr, Loads::No},
    {{"add-source", "addrepo"}, nullptr, Loads::No},
    {{"convert"}, nullptr, Loads::AfterArgs},
};

bool claims(const Command& c, const char* word) {
  for (const char* w : c.words)
    if (w && !std::strcmp(w, word)) return true;
  return false;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc <= 1) {
    std::fputs(helpText(false).c_str(), stdout);
    return 2;
  }
  const char* word = argv[1];
  if (!std::strcmp(word, "help") || !std::strcmp(word, "-help") || !std::strcmp(word, "-h") ||
      !std::strcmp(word, "--help")) {
    std::fputs(helpText(helpWantsZh(argc, argv, 2)).c_str(), stdout);
    return 0;
  }
  for (const Command& c : kCommands)
    if (claims(c, word)) return c.run ? c.run(argc, argv) : cmdPluginCommand(argc, argv);
  return cmdPluginCommand(argc, argv);
}
