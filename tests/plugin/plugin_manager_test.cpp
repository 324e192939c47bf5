// The plugin manager on the built test plugins: the search list, the
// frozen-registry warning, probes and their tie rules, lookups by id and by
// capability, commands, and shutdown.
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
class EnvVar {
 public:
  EnvVar(const char* name, const char* value) : name_(name) {
    if (const char* old = std::getenv(name)) old_ = old, had_ = true;
    value ? setenv(name, value, 1) : unsetenv(name);
  }
  ~EnvVar() { had_ ? setenv(name_, old_.c_str(), 1) : unsetenv(name_); }

 private:
  const char* name_;
  std::string old_;
  bool had_ = false;
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
  const struct {
    const char* path;
    const char* home;
    const char* profile;
    std::vector<std::string> want;
  } cases[] = {
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

TEST_F(Registry, ProbeTiesAndOut) {
  const struct {
    const char *alpha, *beta, *betaRc;
    const char* backend;  // of the winner; null: no winner
    int confidence;
  } cases[] = {
      {"50", "50", "0", "alpha-cpu", 50}, {"40", "50", "0", "beta-cpu", 50}, {"10", "90", "1", "alpha-cpu", 10},
      {"0", "-5", "0", nullptr, 0},       {"1", "0", "0", "alpha-cpu", 1},
  };
  for (const auto& c : cases) {
    EnvVar a("ZAN_TEST_ALPHA_CONF", c.alpha), b("ZAN_TEST_BETA_CONF", c.beta), rc("ZAN_TEST_BETA_RC", c.betaRc);
    ZANRuntimeProbe out{};
    out.confidence = 77;  // untouched without a winner
    const ZANRuntimeDesc* d = mgr.probeModel("m.zan", &out);
    if (!c.backend) {
      EXPECT_EQ(d, nullptr);
      EXPECT_EQ(out.confidence, 77);
      continue;
    }
    ASSERT_NE(d, nullptr);
    EXPECT_STREQ(out.backend, c.backend);
    EXPECT_EQ(out.confidence, c.confidence);
    EXPECT_EQ(d, std::string(c.backend) == "alpha-cpu" ? mgr.runtimes[0] : mgr.runtimes[1]);
    EXPECT_EQ(mgr.probeModel("m.zan", nullptr), d);
  }
}

TEST_F(Registry, LookupsById) {
  ASSERT_EQ(mgr.runtimes.size(), 2u);
  EXPECT_EQ(mgr.findRuntime("alpha-rt"), mgr.runtimes[0]);  // the first of two
  EXPECT_EQ(mgr.findRuntime(nullptr), nullptr);
  EXPECT_EQ(mgr.findRuntime("ALPHA-RT"), nullptr);
  EXPECT_EQ(mgr.findRuntime("alpha"), nullptr);
  EXPECT_NE(mgr.findRuntimeV2("beta-rt"), nullptr);
  EXPECT_NE(mgr.findRuntimeV2S("alpha-rt"), nullptr);
  EXPECT_EQ(mgr.findBackend("beta-gpu"), mgr.backends[2]);
  EXPECT_NE(mgr.findExec("beta-exec"), nullptr);
  EXPECT_NE(mgr.findFormat("alpha-fmt"), nullptr);
  EXPECT_EQ(mgr.findFormat("zan2"), nullptr);
  EXPECT_NE(mgr.findImporter("alpha-imp"), nullptr);
  EXPECT_NE(mgr.findTokenizer("beta-tok"), nullptr);
  EXPECT_NE(mgr.findSampler("alpha-samp"), nullptr);
  EXPECT_NE(mgr.findTrainer("beta-train"), nullptr);
}

TEST_F(Registry, LookupsByCapability) {
  // Backends: alpha-gpu 0x2, alpha-host 0x5, beta-gpu 0x2; any bit matches.
  EXPECT_EQ(mgr.findBackendByCapability(kBackendCapHost), mgr.backends[1]);
  EXPECT_EQ(mgr.findBackendByCapability(0x3), mgr.backends[0]);
  EXPECT_EQ(mgr.findBackendByCapability(0), nullptr);
  EXPECT_EQ(mgr.findBackendByCapability(0x8), nullptr);
  // The others need every bit, and skip caps of 0 even for an empty mask.
  EXPECT_EQ(mgr.findRuntimeByCapability(0), mgr.runtimes[1]);
  EXPECT_EQ(mgr.findRuntimeByCapability(0x6), mgr.runtimes[1]);
  EXPECT_EQ(mgr.findRuntimeByCapability(0x7), nullptr);
  EXPECT_EQ(mgr.findTokenizerByCapability(0x1), mgr.tokenizers[1]);
  EXPECT_EQ(mgr.findExecByCapability(0x4), mgr.execs[0]);
  EXPECT_EQ(mgr.findImporterByCapability(0x1), mgr.importers[0]);
  EXPECT_EQ(mgr.findSamplerByCapability(0x9), nullptr);
  EXPECT_EQ(mgr.findTrainerByCapability(0), mgr.trainers[0]);
}

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

TEST(PluginManagerLoad, FrozenWarnsOnce) {
  EnvVar p("ZAN_PLUGIN_PATH", (kPlugins + "/good").c_str());
  PluginManager mgr;
  mgr.loadAll();
  EXPECT_TRUE(mgr.frozen);
  ASSERT_EQ(mgr.plugins.size(), 2u);
  EXPECT_EQ(mgr.pluginCaps, (std::vector<uint64_t>{0x30, 0}));
  ::testing::internal::CaptureStderr();
  mgr.loadAll();
  mgr.loadAll();
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "[zan plugin] registries frozen: plugin load ignored\n");
  EXPECT_EQ(mgr.plugins.size(), 2u);
}

}  // namespace
