#include "packages/sources.h"

#include <gtest/gtest.h>

#include <fstream>

#include "packages/installed.h"  // installedStatePath
#include "packages/pkg_files.h"
#include "tests/test_tmp.h"

namespace {

std::string describe(const tov::Source& s) { return s.type + "|" + s.url + "|" + s.raw + "|" + s.topic; }

TEST(Sources, LineParsingAndSavedForm) {
  const std::tuple<const char*, const char*, const char*> cases[] = {
      // line, type|url|raw|topic (null: no source), saved line
      {"deb\thttp://a  topic=t raw=r junk # raw=x", "server|http://a|x|t", "zan http://a"},
      {"zan https://g github-topic=a topic=b", "github-topic|https://g||b", "zan https://g github-topic=b"},
      {"zan https://g topic=b github-topic=a", "github-topic|https://g||b", "zan https://g github-topic=b"},
      {"zan https://g github-topic= raw=R", "github-topic|https://g|R|", "zan https://g github-topic=zan-plugin raw=R"},
      {"zan http://cr\r =v", "server|http://cr\r||", "zan http://cr\r"},
      {"zan", nullptr, ""}, {"apt http://a", nullptr, ""}, {"ZAN http://a", nullptr, ""},
  };
  for (const auto& [line, parsed, saved] : cases) {
    tov::Source s;
    ASSERT_EQ(tov::parseSourceLine(line, s), parsed != nullptr) << line;
    if (!parsed) continue;
    EXPECT_EQ(describe(s), parsed) << line;
    EXPECT_EQ(tov::sourceLine(s), saved) << line;
  }
  const std::string text = std::string("  # c\n\t\n \tzan http://one\nzan http://n\0ul\n#zan http://no\n", 56) +
                           "zan http://" + std::string(100000, 'a') + "\nzan http://last";
  const auto list = tov::parseSourcesText(text);
  ASSERT_EQ(list.size(), 4u);
  EXPECT_EQ(list[1].url, std::string("http://n\0ul", 11));
  EXPECT_EQ(list[2].url.size(), 100007u);
  EXPECT_EQ(list[3].url, "http://last");
}

TEST(Sources, LoadOrderMigrationAndStatePath) {
  const std::string home = testTempDir() + "home";
  auto put = [&](const std::string& rel, const std::string& text) {
    tov::mkdirParents(home + "/" + rel);
    std::ofstream(home + "/" + rel, std::ios::binary) << text;
  };
  setenv("HOME", home.c_str(), 1);
  unsetenv("XDG_CONFIG_HOME");
  const std::string defaults = describe(tov::parseSourcesText(tov::defaultSourcesText())[0]);
  EXPECT_EQ(describe(tov::loadSources()[0]), defaults);
  EXPECT_FALSE(std::filesystem::exists(home + "/.zan"));  // defaults stay in memory
  put(".zan/sources.list", "# only comments\n");
  put(".config/zan/sources.json", R"({"sources":[1,{"url":""},{"type":"odd","url":"http://x","raw":"r"}]})");
  EXPECT_EQ(describe(tov::loadSources()[0]), "odd|http://x|r|");  // as read, not as saved
  std::string saved;
  tov::readWholeFile(home + "/.zan/sources.list", saved);
  EXPECT_EQ(saved, std::string(tov::kSourcesHeader) + "zan http://x\n");
  put(".zan/sources.json", R"({"sources":[{"url":"http://home"}]})");
  EXPECT_EQ(tov::loadSources()[0].url, "http://x");  // the text file wins once it has a line
  put(".zan/sources.list", "junk\n");
  EXPECT_EQ(tov::loadSources()[0].url, "http://home");  // ~/.zan before XDG
  put(".zan/sources.list", "");
  put(".zan/sources.json", "{\"sources\":[");
  setenv("XDG_CONFIG_HOME", (home + "/xdg").c_str(), 1);
  put("xdg/zan/sources.json", R"({"sources":{"url":"http://obj"}})");
  EXPECT_EQ(describe(tov::loadSources()[0]), defaults);
  unsetenv("XDG_CONFIG_HOME");

  EXPECT_EQ(tov::installedStatePath(), home + "/.zan/installed.json");
  for (auto [src, state] : {std::pair{"/etc/s.list", "/etc/installed.json"}, {"plain", "plaininstalled.json"},
#ifndef _WIN32  // Windows keeps no empty variables
                            {"", "installed.json"}
#endif
       }) {
    setenv("ZAN_SOURCES", src, 1);
    EXPECT_EQ(tov::installedStatePath(), state);
  }
  unsetenv("ZAN_SOURCES");
}

}  // namespace
