#include "packages/sources.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "packages/installed.h"
#include "packages/pkg_files.h"
#include "tests/test_tmp.h"

namespace {

using tov::Source;

std::string describe(const Source& s) { return s.type + "|" + s.url + "|" + s.raw + "|" + s.topic; }

TEST(Sources, LineParsingAndSavedForm) {
  struct Case {
    const char* line;
    const char* parsed;  // type|url|raw|topic, or null: not a source
    const char* saved;
  } cases[] = {
      {"zan http://a", "server|http://a||", "zan http://a"},
      {"deb\thttp://a  topic=t raw=r junk # raw=x", "server|http://a|x|t", "zan http://a"},
      {"zan https://g github-topic=a topic=b", "github-topic|https://g||b", "zan https://g github-topic=b"},
      {"zan https://g topic=b github-topic=a", "github-topic|https://g||b", "zan https://g github-topic=b"},
      {"zan https://g github-topic= raw=https://r", "github-topic|https://g|https://r|",
       "zan https://g github-topic=zan-plugin raw=https://r"},
      {"zan http://cr\r", "server|http://cr\r||", "zan http://cr\r"},
      {"zan http://a =v =", "server|http://a||", "zan http://a"},
      {"zan", nullptr, nullptr},
      {"apt http://a", nullptr, nullptr},
      {"ZAN http://a", nullptr, nullptr},
      {"", nullptr, nullptr},
  };
  for (const Case& c : cases) {
    Source s;
    s.type = "stale";
    ASSERT_EQ(tov::parseSourceLine(c.line, s), c.parsed != nullptr) << c.line;
    if (!c.parsed) continue;
    EXPECT_EQ(describe(s), c.parsed) << c.line;
    EXPECT_EQ(tov::sourceLine(s), c.saved) << c.line;
  }
  const std::string text = std::string("  # c\n\t\n \tzan http://one\nzan http://n\0ul\n#zan http://no\n", 56) +
                           "zan http://" + std::string(100000, 'a') + "\nzan http://last";
  const auto list = tov::parseSourcesText(text);
  ASSERT_EQ(list.size(), 4u);
  EXPECT_EQ(list[0].url, "http://one");
  EXPECT_EQ(list[1].url, std::string("http://n\0ul", 11));
  EXPECT_EQ(list[2].url.size(), 100007u);
  EXPECT_EQ(list[3].url, "http://last");
}

struct Env {
  std::string root = testTempDir() + "env-" + ::testing::UnitTest::GetInstance()->current_test_info()->name() + "/";
  std::string oldHome = std::getenv("HOME") ? std::getenv("HOME") : "";
  Env() {
    std::filesystem::create_directories(root);
    setenv("HOME", root.substr(0, root.size() - 1).c_str(), 1);
    unsetenv("ZAN_SOURCES");
    unsetenv("XDG_CONFIG_HOME");
  }
  ~Env() {
    setenv("HOME", oldHome.c_str(), 1);
    unsetenv("ZAN_SOURCES");
    unsetenv("XDG_CONFIG_HOME");
  }
  void put(const std::string& rel, const std::string& text) {
    tov::mkdirParents(root + rel);
    std::ofstream(root + rel, std::ios::binary) << text;
  }
  std::string get(const std::string& rel) {
    std::string s;
    tov::readWholeFile(root + rel, s);
    return s;
  }
};

TEST(Sources, LoadOrderAndMigration) {
  Env env;
  const std::string defaults = describe(tov::parseSourcesText(tov::defaultSourcesText())[0]);
  EXPECT_EQ(describe(tov::loadSources()[0]), defaults);
  EXPECT_FALSE(std::filesystem::exists(env.root + ".zan/sources.list"));  // defaults stay in memory

  // XDG first falls back to ~/.config when unset; a comment-only list counts as none.
  env.put(".zan/sources.list", "# only comments\n");
  env.put(".config/zan/sources.json",
          R"({"sources":[1,{"url":""},{"type":"odd","url":"http://x","raw":"r","topic":"t"}]})");
  auto list = tov::loadSources();
  ASSERT_EQ(list.size(), 1u);
  EXPECT_EQ(describe(list[0]), "odd|http://x|r|t");  // as read, not as saved
  EXPECT_EQ(env.get(".zan/sources.list"), std::string(tov::kSourcesHeader) + "zan http://x\n");

  // The text file now has a valid line and wins; ~/.zan/sources.json is tried before XDG.
  env.put(".zan/sources.json", R"({"sources":[{"url":"http://home"}]})");
  EXPECT_EQ(tov::loadSources()[0].url, "http://x");
  env.put(".zan/sources.list", "junk\n");
  EXPECT_EQ(describe(tov::loadSources()[0]), "server|http://home||");

  // Bad JSON files pass silently to the next one, then to the defaults.
  env.put(".zan/sources.list", "");
  env.put(".zan/sources.json", "{\"sources\":[");
  setenv("XDG_CONFIG_HOME", (env.root + "xdg").c_str(), 1);
  env.put("xdg/zan/sources.json", R"({"sources":{"url":"http://obj"}})");
  EXPECT_EQ(describe(tov::loadSources()[0]), defaults);
  env.put("xdg/zan/sources.json", R"({"sources":[{"url":"http://xdg"}]})");
  EXPECT_EQ(tov::loadSources()[0].url, "http://xdg");
  unsetenv("XDG_CONFIG_HOME");
}

TEST(Sources, StateFollowsTheSourcesPath) {
  Env env;
  EXPECT_EQ(tov::sourcesConfigPath(), env.root + ".zan/sources.list");
  EXPECT_EQ(tov::installedStatePath(), env.root + ".zan/installed.json");
  const std::pair<const char*, const char*> paths[] = {
      {"/etc/zan/s.list", "/etc/zan/installed.json"}, {"plain", "plaininstalled.json"}, {"", "installed.json"}};
  for (auto [src, state] : paths) {
    setenv("ZAN_SOURCES", src, 1);
    EXPECT_EQ(tov::sourcesConfigPath(), src);
    EXPECT_EQ(tov::installedStatePath(), state);
  }
  unsetenv("ZAN_SOURCES");
}

TEST(Installed, ExactTextAndDamagedFiles) {
  Env env;
  std::vector<tov::InstalledEntry> list = {
      {"a", "1.0", "zan://x", "say \"hi\"\\\n\x01", {"libzan_a.so", "sub/b.so"}},
      {"b", "", "", "", {}},
  };
  const std::string text = "{\n  \"plugins\": [\n"
                           "    {\"name\":\"a\",\"version\":\"1.0\",\"origin\":\"zan://x\",\"desc\":\"say \\\"hi\\\"\\\\"
                           "\\u000a\\u0001\",\"files\":[\"libzan_a.so\",\"sub/b.so\"]},\n"
                           "    {\"name\":\"b\",\"version\":\"\",\"origin\":\"\",\"desc\":\"\",\"files\":[]}\n"
                           "  ]\n}\n";
  EXPECT_EQ(tov::installedText(list), text);
  EXPECT_EQ(tov::installedText({}), "{\n  \"plugins\": [\n  ]\n}\n");
  tov::saveInstalled(list);  // makes ~/.zan
  auto back = tov::loadInstalled();
  ASSERT_EQ(back.size(), 2u);
  EXPECT_EQ(back[0].desc, list[0].desc);
  EXPECT_EQ(back[0].files, list[0].files);

  env.put(".zan/installed.json", R"({"plugins":[{"name":"n","version":3,"files":["f",7]},{"name":""},5,{"desc":"x"}]})");
  back = tov::loadInstalled();
  ASSERT_EQ(back.size(), 1u);
  EXPECT_EQ(back[0].version, "");
  EXPECT_EQ(back[0].files, (std::vector<std::string>{"f", ""}));
  for (const std::string& bad : {text.substr(0, text.size() / 2), std::string("not json"), std::string("[]"),
                                std::string(R"({"plugins":{}})")}) {
    env.put(".zan/installed.json", bad);
    EXPECT_TRUE(tov::loadInstalled().empty()) << bad;
  }
}

}  // namespace
