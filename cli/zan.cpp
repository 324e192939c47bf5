// main: one command word, one handler, one exit code.
//
// main reads nothing and loads nothing before it has looked at the command
// word. It walks kCommands in order and runs the first row that claims the
// word; a word no row claims, and a row whose handler isn't built yet, go to
// the commands that plugins provide.
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <vector>

#include "base/compat.h"
#include "cli/commands.h"
#include "packages/cmd_install.h"
#include "packages/install_pipeline.h"
#include "packages/installed.h"
#include "packages/remove_upgrade.h"
#include "packages/sources.h"
#include "plugin/plugin_manager.h"

int cmdPluginCommand(int argc, char** argv) {
  tov::PluginManager& mgr = tov::PluginManager::instance();
  if (!mgr.frozen) mgr.loadAll();
  const char* word = argv[1];
  const int rc = mgr.runCommand(word, argc - 1, argv + 1);
  if (rc == 0) return 0;
  if (rc == 4) {
    std::fprintf(stderr, "zan: unknown command '%s'\nplugin providing command '%s' is not installed\n",
                 word, word);
    return 2;
  }
  std::fprintf(stderr, "zan: plugin command '%s' failed (%d)\n", word, rc);
  return 1;
}

namespace {

// Whether a row's branch loads the plugins, and when. main loads for the
// rows marked Yes; the others load in their handlers, if at all.
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

// `zan ls [topic]`. The usage is asked for, so it goes to standard output
// with 0; "-help" is not one of the ways to ask and counts as a bad topic.
int cmdLs(int argc, char** argv) {
  const char* topic = argc > 2 ? argv[2] : nullptr;
  if (!topic || !std::strcmp(topic, "help") || !std::strcmp(topic, "--help") ||
      !std::strcmp(topic, "-h")) {
    std::fputs(kLsUsage, stdout);
    return 0;
  }
  if (!std::strcmp(topic, "devices")) return cmdLsDevices();
  if (!std::strcmp(topic, "plugins")) {
    cmdInstalledLs(argc, argv);
    return 0;
  }
  std::fputs("usage: zan ls plugins | zan ls devices\n", stderr);
  return 2;
}

// `add-source` and `addrepo`: the rest of the line is a `source add`.
int cmdAddSource(int argc, char** argv) {
  std::vector<char*> words = {argv[0], const_cast<char*>("source"), const_cast<char*>("add")};
  for (int i = 2; i < argc; ++i) words.push_back(argv[i]);
  words.push_back(nullptr);
  return cmdSource(static_cast<int>(words.size()) - 1, words.data());
}

// `update`: the install pipeline that stops once it knows what is on offer.
int cmdUpdate(int argc, char** argv) {
  tov::gOnlyUpdate = true;
  const int rc = cmdInstall(argc, argv);
  tov::gOnlyUpdate = false;
  return rc;
}

// In this order; the first row whose word or alias equals argv[1] runs.
const Command kCommands[] = {
    {{"tune"}, cmdTune, Loads::AfterArgs},
    {{"runtime"}, cmdRuntime, Loads::Yes},
    {{"backend"}, cmdBackend, Loads::Yes},
    {{"execution", "executions"}, cmdExecution, Loads::Yes},
    {{"importer", "importers"}, cmdImporter, Loads::Yes},
    {{"trainer", "trainers"}, cmdTrainer, Loads::Yes},
    {{"tokenizer", "tokenizers"}, cmdTokenizer, Loads::Yes},
    {{"sampler", "samplers"}, cmdSampler, Loads::Yes},
    {{"ls"}, cmdLs, Loads::InHandler},  // only `ls devices` loads
    {{"plugins", "plugin"}, cmdPlugins, Loads::Yes},
    {{"chat"}, cmdChat, Loads::InHandler},
    {{"run"}, cmdRun, Loads::InHandler},  // the model route only
    {{"bench"}, cmdBench, Loads::InHandler},
    {{"info"}, cmdInfo, Loads::AfterArgs},
    {{"type"}, cmdType, Loads::No},
    {{"store"}, cmdStore, Loads::No},
    {{"pack"}, cmdPackApp, Loads::No},
    {{"appinfo"}, cmdAppInfo, Loads::No},
    {{"pack-apk"}, cmdPackApk, Loads::No},
    {{"update"}, cmdUpdate, Loads::No},
    {{"install"}, cmdInstall, Loads::No},
    {{"remove", "uninstall"}, tov::cmdRemove, Loads::No},
    {{"upgrade"}, tov::cmdUpgrade, Loads::No},
    {{"source"}, cmdSource, Loads::No},
    {{"add-source", "addrepo"}, cmdAddSource, Loads::No},
    {{"convert"}, cmdConvert, Loads::AfterArgs},
};

bool claims(const Command& c, const char* word) {
  for (const char* w : c.words)
    if (w && !std::strcmp(w, word)) return true;
  return false;
}

}  // namespace

int main(int argc, char** argv) {
  zanCompatInitConsole();
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
  for (const Command& c : kCommands) {
    if (!claims(c, word)) continue;
    if (!c.run) return cmdPluginCommand(argc, argv);
    if (c.loads == Loads::Yes) tov::PluginManager::instance().loadAll();
    return c.run(argc, argv);
  }
  return cmdPluginCommand(argc, argv);
}
