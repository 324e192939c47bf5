#include "packages/install_plan.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "packages/manifest.h"

namespace {

using tov::DepSpec;
using tov::SourceManifest;
using namespace std::string_literals;

std::string summary(const std::vector<SourceManifest>& ms) {
  std::string out;
  for (const auto& m : ms) {
    out += m.source + "|" + m.name + "|" + m.version + "|" + m.desc;
    for (const auto& d : m.deps) out += " dep:" + d.name + "@" + d.version;
    for (const auto& f : m.files)
      out += " " + f.file + ":" + std::to_string(f.size) + ":" + f.sha256 + ":" + f.url + ":" + f.apiUrl;
    out += "\n";
  }
  return out;
}

TEST(Manifest, Forms) {
  const struct {
    std::string body, want;
  } cases[] = {
      {R"({"packages":[{"name":"a","version":"1","desc":"d","files":[{"file":"a.so","size":3,"sha256":"ab"}]},
          {"name":"b","files":[{"file":""},{"size":1}]},
          {"name":"c","dependencies":[{"name":"a","version":">=1"},"x",{"version":"2"},{"name":""}],
           "files":[{"file":"c.so","size":12.5},{"file":"d.so","size":"7"},{"file":"e.so","size":-2}]}]})",
       "L|a|1|d a.so:3:ab:U/a.so:A/a.so\n"
       "L|c|| dep:a@>=1 c.so:0::U/c.so:A/c.so d.so:0::U/d.so:A/d.so e.so:18446744073709551614::U/e.so:A/e.so\n"},
      // `packages` that is no array: the root is the one package.
      {R"({"packages":"x","files":[{"file":"r.so","size":1e30}]})", "L|L|| r.so:0::U/r.so:A/r.so\n"},
      {R"({"files":[]})", "L|L||\n"},
      {R"({"name":5,"version":[],"files":[]})", "L|||\n"},
      {R"({"packages":[]})", ""},
      {R"({"name":"x"})", ""},
      {R"([{"files":[]}])", ""},
      {"not json", ""},
      {std::string(10000, '[') + std::string(10000, ']'), ""},
      {"{\"files\":[{\"file\":\"a\\u0000b\"}]}", "L|L|| a\0b:0::U/a\0b:A/a\0b\n"s},
  };
  for (const auto& c : cases) {
    std::vector<SourceManifest> out;
    tov::manifestToRecords("L", c.body, "U/", "A/", out);
    EXPECT_EQ(summary(out), c.want) << c.body.substr(0, 80);
  }
  std::vector<SourceManifest> out;
  tov::manifestToRecords("", R"({"files":[{"file":"f"}]})", "U/", "", out);
  EXPECT_EQ(summary(out), "|pkg|| f:0::U/f:\n");
}

TEST(Version, Constraints) {
  const struct {
    const char *have, *want;
    bool ok;
  } cases[] = {
      {"1.0", "", true},        {"1.10", ">1.9", true}, {"1.9", ">1.9", false},   {"1.2.0", "1.2", true},
      {"1.2", "==1.2.0", true}, {"1.3", "1.2", false},  {"2.0", "<3", false},     {"3", "<3", true},
      {"2.0", ">=2.0", true},   {"1.9", ">=2.0", false}, {"rel1.2", "1.2", true}, {"1.2-rc3", "1.3", true},
      {"", "0", true},          {"", ">0", false},      {"1..2", "1.0.2", true},  {"99999999999999999999", ">1", true},
      {"2", ">=10", false},     {"1.2.3", ">1.2.2.9", true},
  };
  for (const auto& c : cases) EXPECT_EQ(tov::versionOk(c.have, c.want), c.ok) << c.have << " vs " << c.want;
}

SourceManifest pkg(const std::string& name, const std::string& version, std::vector<DepSpec> deps = {}) {
  SourceManifest m{"", name, version};
  m.deps = std::move(deps);
  return m;
}

TEST(Resolve, ChainsDiamondsCyclesAndInstalled) {
  // A chain listed before what it needs, a diamond, a cycle, a missing dependency,
  // a version too old, and z needing w 2.0 which only the installed list has.
  std::vector<SourceManifest> ms = {
      pkg("d", "1", {{"c", ""}}), pkg("c", "1", {{"b", ">=1"}}), pkg("b", "1.5"), pkg("top", "1", {{"l", ""}, {"r", ""}}),
      pkg("l", "1", {{"base", ""}}), pkg("r", "1", {{"base", ">1"}}), pkg("base", "2"), pkg("x", "1", {{"y", ""}}),
      pkg("y", "1", {{"x", ""}}), pkg("m", "1", {{"nothere", ""}, {"b", ">=2.0"}}), pkg("n", "1", {{"m", ""}}),
      pkg("z", "1", {{"w", "2.0"}})};
  std::string resolved, gaps;  // strung up to compare whole
  for (auto& d : tov::resolveDeps(ms, {{"w", "2.0.0"}}))
    gaps += ms[d.index].name + ":" + d.dep.name + "@" + d.dep.version + " ";
  for (auto& m : ms) resolved += m.resolved ? '1' : '0';
  EXPECT_EQ(resolved, "111111100001");
  EXPECT_EQ(gaps, "x:y@ y:x@ m:nothere@ m:b@>=2.0 n:m@ ");
  // An installed member breaks the cycle.
  tov::resolveDeps(ms, {{"y", "0"}});
  EXPECT_TRUE(ms[7].resolved && ms[8].resolved);
  EXPECT_FALSE(tov::resolveDeps(ms, {}).empty());
  EXPECT_FALSE(ms[7].resolved);
  // Twenty thousand packages, each needing the next, listed head first.
  std::vector<SourceManifest> chain;
  for (int i = 0; i < 20000; ++i)
    chain.push_back(pkg("p" + std::to_string(i), "1", {{"p" + std::to_string(i + 1), ""}}));
  chain.back().deps.clear();
  EXPECT_TRUE(tov::resolveDeps(chain, {}).empty() && chain[0].resolved);
}

}  // namespace
