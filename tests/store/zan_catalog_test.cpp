// The store catalog over the plain Fetcher, over a scripted one, and its store.json reader.
#include "store/zan_catalog.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <map>

#include "tests/test_tmp.h"

using tov::catalog::Catalog;
using tov::catalog::Entry;

namespace {

// Answers startText with ids 1, 2, ... and records the calls; states and bodies come from the test.
struct ScriptedFetcher : tov::fetch::Fetcher {
  std::vector<std::string> calls;
  std::map<int, int> states;
  std::map<int, std::string> bodies;
  int startText(const std::string& url, const std::string& label, const std::string& header) override {
    calls.push_back(url + "|" + label + "|" + header);
    return int(calls.size());
  }
  int state(int id) const override { return states.count(id) ? states.at(id) : 0; }
  const std::string& body(int id) const override { return bodies.count(id) ? bodies.at(id) : none(); }
  const std::string& error(int id) const override { return state(id) == 2 ? bodies.at(id) : none(); }
};

// Every field of the rows parsed from `text`, one line per row.
std::vector<std::string> rows(const std::string& text, const std::string& repo = "") {
  std::vector<Entry> es;
  Catalog::parseStore(text, "src", "http://base/", repo, es);
  std::vector<std::string> out;
  for (const Entry& e : es)
    out.push_back(e.id + "|" + e.title + "|" + e.summary + "|" + e.kind + "|" + e.version + "|" + e.source + "|" +
                  e.packageUrl + "|" + std::to_string(e.versionCode) + "|" + std::to_string(e.size));
  return out;
}

TEST(Catalog, PlainFetcherFailsEverySourceAtTheFirstPump) {
  tov::fetch::Fetcher f;
  for (int id : {0, -1, 1, 1 << 30}) EXPECT_EQ(f.state(id), 4);
  EXPECT_EQ(f.startText("http://x/", "l", ""), 0);
  EXPECT_EQ(&f.body(3), &f.error(-2));  // the one shared empty text

  Catalog c;
  c.pump();  // no fetcher yet
  const int job = c.load("");
  EXPECT_EQ(c.report(job), "0 entry(s);");
  c.pump();
  EXPECT_EQ(c.state(job), 2);
  EXPECT_EQ(c.report(job), "0 entry(s); official: ; github: ;");
  for (int bad : {0, -1, 2}) EXPECT_EQ(c.state(bad) * 10 + c.count(bad) + int(c.report(bad).size()), 20);
  EXPECT_EQ(c.text(job, 0, 7), "");
  EXPECT_EQ(c.num(job, 0, 2), 0);
}

TEST(Catalog, LoadAsksOfficialAndFirstRepoThenReadsBoth) {
  setenv("ZAN_STORE_URL", "http://srv:81/base", 1);
  setenv("ZAN_GITHUB_API", "http://gh", 1);
  setenv("ZAN_STORE_REPOS", " a/b ,\t,c/d\t", 1);
  setenv("ZAN_GITHUB_TOKEN", "tok", 1);
  ScriptedFetcher* f = nullptr;
  Catalog c([&] { return std::unique_ptr<tov::fetch::Fetcher>(f = new ScriptedFetcher); });
  const int job = c.load("http://other/");
  EXPECT_EQ(Catalog::repos(), (std::vector<std::string>{"a/b", "c/d"}));
  EXPECT_EQ(f->calls, (std::vector<std::string>{"http://other/store.json|the official index|",
                                                "http://gh/repos/a/b/contents/store.json|the GitHub index|"
                                                "Authorization: Bearer tok"}));
  f->states = {{1, 1}};
  f->bodies = {{1, R"({"apps":[{"id":"x","package":"/a/b.zan"},{"id":"y","packageUrl":"r.zan","package":"z"}]})"},
               {2, R"({"apps":[{"name":"N","package":"//p/q.zan"}]})"}, {3, "not json"}, {4, "boom"}};
  c.pump();
  EXPECT_EQ(c.state(job), 0);  // the GitHub transfer still runs
  f->states = {{1, 1}, {2, 1}, {3, 1}, {4, 2}};
  const int second = c.load("");
  c.pump();
  for (const char* v : {"ZAN_STORE_URL", "ZAN_GITHUB_API", "ZAN_STORE_REPOS", "ZAN_GITHUB_TOKEN"}) unsetenv(v);
  EXPECT_EQ(c.state(job), 1);
  EXPECT_EQ(c.report(job), "3 entry(s); official: 2 app(s); github: 1 app(s);");
  // Relative packages resolve under ZAN_STORE_URL, not the url of load.
  EXPECT_EQ(c.text(job, 0, 3), "http://srv:81/base/a/b.zan");
  EXPECT_EQ(c.text(job, 1, 3), "r.zan");
  EXPECT_EQ(c.text(job, 2, 3), "https://raw.githubusercontent.com/a/b/main/p/q.zan");
  EXPECT_EQ(c.text(job, 2, 4), "github:a/b");
  EXPECT_EQ(c.state(second), 2);
  EXPECT_EQ(c.report(second), "0 entry(s); official: 0 app(s); github: boom;");
}

TEST(Catalog, ParseStoreFieldsFallbacksAndVersionCodes) {
  EXPECT_EQ(rows(R"({"apps":[
      {"id":"a","title":"","name":"Nm","description":"D","size":12345678901,"version":"1.2.3"},
      {"id":"b","title":7,"summary":"S","description":"D","kind":"tool","size":"9","package":"https://h/p"},
      {"title":"","name":""}, {"summary":"only"}, 5, "x", {"id":"c","size":-3,"package":"sub/c.zan"},
      {"title":"T","size":1e300,"version":"v2.0-rc1"}]})"),
            (std::vector<std::string>{"a|Nm|D|app|1.2.3|src||1002003|12345678901", "b|b|S|tool||src|https://h/p|0|0",
                                      "c|c||app||src|http://base/sub/c.zan|0|0",
                                      "|T||app|v2.0-rc1|src||2000000|18446744073709551615"}));
  EXPECT_EQ(rows(R"({"apps":[{"id":"g","package":"/x.zan"}]})", "o/r"),
            (std::vector<std::string>{"g|g||app||src|https://raw.githubusercontent.com/o/r/main/x.zan|0|0"}));
  const std::pair<const char*, int32_t> cases[] = {  // version codes
      {"1.2.3", 1002003}, {"v1.2", 1002000}, {"1.2.3-beta", 1002003}, {"1.2.3.4", 1002004}, {"", 0},
      {"rel-7", 7000000}, {"2..5", 2000005}, {"99999999999.1", int32_t(1215752191u * 1000000u + 1000u)}};
  for (const auto& [text, code] : cases) EXPECT_EQ(Catalog::versionCode(text), code) << text;
}

TEST(Catalog, HostileIndexes) {
  const std::string deep = "{\"apps\":" + std::string(10000, '[') + std::string(10000, ']') + "}";
  for (const std::string& in : {std::string(), std::string("{"), std::string("[]"), std::string("{\"apps\":{}}"),
                                std::string("{\"apps\":[]} x"), deep, std::string("{\"apps\":[{\"id\":\"a\"}]")})
    EXPECT_TRUE(rows(in).empty()) << in.substr(0, 40);
  // Bytes that aren't UTF-8 pass through; a number past every range is the largest size.
  EXPECT_EQ(rows("{\"apps\":[{\"id\":\"\xff\xfe\",\"size\":1e999}]}"),
            (std::vector<std::string>{"\xff\xfe|\xff\xfe||app||src||0|18446744073709551615"}));
}

}  // namespace
