// The plugin manager's search list, and commands and shutdown on the built test plugins.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "base/compat.h"
#include "plugin/plugin_manager.h"
#include "tests/test_tmp.h"

namespace {

using tov::PluginManager;
namespace fs = std::filesystem;

const std::string kPlugins = ZAN_TEST_PLUGIN_DIR;

// Sets (or with null, clears) an environment variable for one scope.
struct EnvVar {
  EnvVar(const char* name, const char* value) : name(name), had(std::getenv(name)), old(had ? std::getenv(name) : "") {
    value ? setenv(name, value, 1) : unsetenv(name);
  }
  ~EnvVar() { had ? setenv(name, old.c_str(), 1) : unsetenv(name); }
  const char* name;
  bool had;
  std::string old;
};

std::string exePlugins() {
  char exe[4096];
  EXPECT_EQ(zanCompatExePath(exe, sizeof exe), 0);
  return (fs::path(exe).parent_path() / "plugins").string();
}

TEST(PluginSearchList, Rules) {
  const fs::path home = fs::path(testTempDir()) / "zan-home";
  fs::create_directories(home / ".local/lib/zan/plugins");
  fs::create_directories(home / ".zan/plugin");
  const std::string h = home.string();
  // The test binary sits beside the plugin fixture directory, so its own
  // "plugins" directory exists.
  ASSERT_TRUE(fs::is_directory(exePlugins()));
  const struct { const char* path; const char* home; const char* profile; std::vector<std::string> want; } cases[] = {
      {"/a:/b;;/c:", h.c_str(), nullptr, {"/a", "/b", "/c", h + "/.local/lib/zan/plugins", h + "/.zan/plugin"}},
      {":;", nullptr, nullptr, {exePlugins(), "./plugins"}},
      {nullptr, "/nonexistent-home", nullptr, {exePlugins(), "./plugins"}},
      {"/a", nullptr, h.c_str(), {"/a", h + "/.local/lib/zan/plugins", h + "/.zan/plugin"}},
      {"/a", "/nonexistent-home", h.c_str(), {"/a"}},  // HOME wins over USERPROFILE
      {"x", "", nullptr, {"x"}},  // "/.local/..." and "/.zan/plugin" don't exist here
  };
  for (const auto& c : cases) {
    EnvVar p("ZAN_PLUGIN_PATH", c.path), hv("HOME", c.home), up("USERPROFILE", c.profile);
    EXPECT_EQ(tov::pluginSearchList(), c.want) << (c.path ? c.path : "(unset)");
  }
}

class Registry : public ::testing::Test {
 protected:
  void SetUp() override { mgr.scanDir(kPlugins + "/good"); }
  PluginManager mgr;
};

TEST_F(Registry, CommandsAndShutdown) {
  char word[] = "fails";
  char* argv[] = {word, nullptr};
  EXPECT_EQ(mgr.runCommand("fails", 1, argv), 7);
  EXPECT_EQ(mgr.runCommand("nothing", 1, argv), 1);
  EXPECT_EQ(mgr.runCommand("fail", 1, argv), 4);
  EXPECT_EQ(mgr.runCommand("failsx", 1, argv), 4);
  mgr.shutdown();
  EXPECT_TRUE(mgr.plugins.empty() && mgr.runtimes.empty() && mgr.backends.empty() && mgr.pluginCaps.empty());
  EXPECT_EQ(mgr.runCommand("fails", 1, argv), 4);
}

}  // namespace
