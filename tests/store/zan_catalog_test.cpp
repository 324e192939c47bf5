// The store catalog over the plain Fetcher, over a scripted one, and its
// store.json reader on good and hostile input.
#include <gtest/gtest.h>

#include <cstdlib>
#include <map>
#include <string>
#include <vector>

#include "store/zan_catalog.h"

using tov::catalog::Catalog;
using tov::catalog::Entry;

namespace {

// Sets (or, with null, unsets) a variable for one scope.
struct EnvVar {
  std::string name;
  bool had;
  std::string old;
  EnvVar(const char* n, const char* value) : name(n), had(std::getenv(n)), old(had ? std::getenv(n) : "") {
    value ? setenv(n, value, 1) : unsetenv(n);
  }
  ~EnvVar() { had ? setenv(name.c_str(), old.c_str(), 1) : unsetenv(name.c_str()); }
};

// Answers startText with ids 1, 2, ... and records the calls; states and
// bodies come from the test.
struct ScriptedFetcher : tov::fetch::Fetcher {
  std::vector<std::string>* calls;
  std::map<int, int> states;
  std::map<int, std::string> bodies, errors;
  int next = 1;
  explicit ScriptedFetcher(std::vector<std::string>* c) : calls(c) {}
  int startText(const std::string& url, const std::string& label, const std::string& header) override {
    calls->push_back(url + "|" + label + "|" + header);
    return next++;
  }
  int state(int id) const override { return states.count(id) ? states.at(id) : 0; }
  const std::string& body(int id) const override { return bodies.count(id) ? bodies.at(id) : none(); }
  const std::string& error(int id) const override { return errors.count(id) ? errors.at(id) : none(); }
};

TEST(Catalog, PlainFetcherFailsEverySourceAtTheFirstPump) {
  tov::fetch::Fetcher f;
  for (int id : {0, -1, 1, 1 << 30}) EXPECT_EQ(f.state(id), 4);
  EXPECT_EQ(f.startText("http://x/", "l", ""), 0);
  EXPECT_EQ(f.body(0), "");
  EXPECT_EQ(&f.body(3), &f.error(-2));

  Catalog c;
  c.pump();  // no fetcher yet: nothing happens
  EXPECT_EQ(c.find(1), nullptr);
  const int job = c.load("");
  EXPECT_EQ(job, 1);
  EXPECT_EQ(c.state(job), 0);
  EXPECT_EQ(c.report(job), "0 entry(s);");
  c.pump();
  EXPECT_EQ(c.state(job), 2);
  EXPECT_EQ(c.find(job)->fetchCount, 2);
  EXPECT_EQ(c.report(job), "0 entry(s); official: ; github: ;");
  for (int bad : {0, -1, 2}) {
    EXPECT_EQ(c.state(bad), 2);
    EXPECT_EQ(c.count(bad), 0);
    EXPECT_EQ(c.report(bad), "");
  }
  EXPECT_EQ(c.text(job, 0, 7), "");
  EXPECT_EQ(c.num(job, 0, 2), 0);
}

TEST(Catalog, LoadAsksOfficialAndFirstRepoThenMergesBoth) {
  EnvVar url("ZAN_STORE_URL", "http://srv:81/base"), api("ZAN_GITHUB_API", "http://gh");
  EnvVar repos("ZAN_STORE_REPOS", " a/b , ,c/d "), token("ZAN_GITHUB_TOKEN", "tok");
  EXPECT_EQ(Catalog::repos(), (std::vector<std::string>{"a/b", "c/d"}));
  std::vector<std::string> calls;
  ScriptedFetcher* f = nullptr;
  Catalog c([&] {
    auto made = std::make_unique<ScriptedFetcher>(&calls);
    f = made.get();
    return made;
  });
  const int job = c.load("http://other/");
  EXPECT_EQ(calls, (std::vector<std::string>{"http://other/store.json|the official index|",
                                             "http://gh/repos/a/b/contents/store.json|the GitHub index|"
                                             "Authorization: Bearer tok"}));
  f->states[1] = 1;
  c.pump();
  EXPECT_EQ(c.state(job), 0);  // the GitHub transfer still runs
  f->states[2] = 1;
  f->bodies[1] = R"({"apps":[{"id":"x","package":"/a/b.zan"},{"id":"y","packageUrl":"rel.zan","package":"z"}]})";
  f->bodies[2] = R"({"apps":[{"name":"N","package":"//p/q.zan","version":"3.4"}]})";
  c.pump();
  EXPECT_EQ(c.state(job), 1);
  EXPECT_EQ(c.report(job), "3 entry(s); official: 2 app(s); github: 1 app(s);");
  // Relative packages resolve under ZAN_STORE_URL, not the url of load.
  EXPECT_EQ(c.text(job, 0, 3), "http://srv:81/base/a/b.zan");
  EXPECT_EQ(c.text(job, 1, 3), "rel.zan");
  EXPECT_EQ(c.text(job, 2, 3), "https://raw.githubusercontent.com/a/b/main/p/q.zan");
  EXPECT_EQ(c.text(job, 2, 4), "github:a/b");
  EXPECT_EQ(c.num(job, 2, 0), 3004000);
  EXPECT_EQ(c.text(job, 3, 0), "");

  // One source failing, the other with no rows: failed, with both words.
  const int second = c.load("");
  f->states[3] = 1;
  f->bodies[3] = "not json";
  f->states[4] = 2;
  f->errors[4] = "boom";
  c.pump();
  EXPECT_EQ(c.state(second), 2);
  EXPECT_EQ(c.report(second), "0 entry(s); official: 0 app(s); github: boom;");
}

TEST(Catalog, ParseStoreFillsEveryField) {
  std::vector<Entry> rows;
  Catalog::parseStore(R"({"apps":[
      {"id":"a","title":"","name":"Named","description":"D","size":12345678901,"version":"1.2.3"},
      {"id":"b","title":7,"summary":"S","description":"D","kind":"tool","size":"9","package":"https://h/p"},
      {"title":"","name":""}, {"summary":"only"}, 5, "x",
      {"id":"c","size":-3,"package":"sub/c.zan"},
      {"title":"T","size":1e300}]})",
                      "official", "http://base/", "", rows);
  ASSERT_EQ(rows.size(), 4u);
  EXPECT_EQ(rows[0].title, "Named");
  EXPECT_EQ(rows[0].summary, "D");
  EXPECT_EQ(rows[0].kind, "app");
  EXPECT_EQ(rows[0].size, 12345678901u);
  EXPECT_EQ(rows[0].versionCode, 1002003);
  EXPECT_EQ(rows[1].title, "b");  // a number under "title" reads as empty
  EXPECT_EQ(rows[1].summary, "S");
  EXPECT_EQ(rows[1].kind, "tool");
  EXPECT_EQ(rows[1].size, 0u);
  EXPECT_EQ(rows[1].packageUrl, "https://h/p");
  EXPECT_EQ(rows[2].size, 0u);
  EXPECT_EQ(rows[2].packageUrl, "http://base/sub/c.zan");
  EXPECT_EQ(rows[3].id, "");
  EXPECT_EQ(rows[3].size, UINT64_MAX);
  EXPECT_EQ(rows[3].source, "official");
}

TEST(Catalog, VersionCodes) {
  const std::pair<const char*, int32_t> cases[] = {
      {"1.2.3", 1002003}, {"v1.2", 1002000}, {"1.2.3-beta", 1002003}, {"1.2.3.4", 1002004},
      {"", 0},            {"rel-7", 7000000},      {"2..5", 2000005},       {"99999999999.1", int32_t(1215752191u * 1000000u + 1000u)}};
  for (const auto& [text, code] : cases) EXPECT_EQ(Catalog::versionCode(text), code) << text;
}

TEST(Catalog, HostileIndexesAddNothingAndDoNotCrash) {
  std::string deep = "{\"apps\":";
  for (int i = 0; i < 10000; ++i) deep += "[";
  const std::string inputs[] = {"", "{", "[]", "{\"apps\":{}}", "{\"apps\":[]} x", deep,
                                std::string("{\"apps\":[{\"id\":\"\xff\xfe\"}]", 20)};
  for (const std::string& in : inputs) {
    std::vector<Entry> rows;
    Catalog::parseStore(in, "official", "", "", rows);
    EXPECT_TRUE(rows.empty()) << in.substr(0, 40);
  }
  std::vector<Entry> rows;  // bytes that aren't UTF-8 pass through unchanged
  Catalog::parseStore("{\"apps\":[{\"id\":\"\xff\xfe\",\"size\":1e999}]}", "official", "", "", rows);
  ASSERT_EQ(rows.size(), 1u);
  EXPECT_EQ(rows[0].title, "\xff\xfe");
  EXPECT_EQ(rows[0].size, UINT64_MAX);
}

}  // namespace
