// HttpFetcher against raw_http_server.py: the catalog (with file and command jobs beside it), a stall mid-body.
#include "store/http_fetch.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>

#include "store/zan_catalog.h"
#include "tests/packages/server_proc.h"
#include "tests/test_tmp.h"

using tov::fetch::HttpFetcher;

namespace {

#ifdef _WIN32
TEST(HttpFetcher, LinuxOnly) {
  GTEST_SKIP() << "its servers and command jobs are Linux processes; no product command uses HttpFetcher";
}
#else

void put(const std::string& path, const std::string& text) {
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  std::ofstream(path, std::ios::binary) << text;
}

// Waits on the fetcher and pumps until `done` holds; no sleeping.
bool pumpUntil(HttpFetcher& f, const std::function<bool()>& done, const std::function<void()>& pump) {
  for (int i = 0; i < 100 && !done(); ++i) f.wait(10000), pump();
  return done();
}

TEST(HttpFetcher, CatalogAndJobsOverStaticServer) {
  const std::string root = testTempDir() + "idx/";
  put(root + "good/store.json", R"({"apps":[{"id":"a","package":"/a.zan"},{"name":"B","version":"2.1"}]})");
  put(root + "gh/repos/o/r/contents/store.json", R"({"apps":[{"id":"g"}]})");
  put(root + "empty/store.json", "");
  put(root + "notjson/store.json", "<html>not found</html>");
  std::ostringstream many;
  for (int i = 0; i < 5000; ++i) many << (i ? "," : "{\"apps\":[") << "{\"id\":\"app" << i << "\",\"size\":" << i * 1000 << "}";
  put(root + "many/store.json", many.str() + "]}");
  ServerProc srv({"--root", root});
  ASSERT_GT(srv.port, 0);
  const std::string base = srv.base() + "/file";  // the files under root
  setenv("ZAN_GITHUB_API", (base + "/gh").c_str(), 1);
  setenv("ZAN_STORE_REPOS", "o/r", 1);
  setenv("ZAN_STORE_URL", (base + "/good").c_str(), 1);
  HttpFetcher* f = nullptr;
  tov::catalog::Catalog c([&] { return std::unique_ptr<tov::fetch::Fetcher>(f = new HttpFetcher); });
  for (const char* d : {"good", "empty", "notjson", "many", "missing"}) c.load(base + "/" + d);
  EXPECT_EQ(c.state(1), 0);  // all five in flight at once
  const std::string data("ab\0cd", 5), out = root + "out.bin";
  put(root + "a.bin", data);
  const int file = f->start(base + "/a.bin", out);
  const int cmd = f->startCommand({"sh", "-c", "printf 'hi there'"}), bad = f->startCommand({"false"});
  EXPECT_TRUE(f->owns(out));
  // The worker runs jobs in order, so `bad` ends last.
  const auto allDone = [&] { for (int j = 1; j <= 5; ++j) if (c.state(j) == 0) return false; return f->state(bad) != 0; };
  ASSERT_TRUE(pumpUntil(*f, allDone, [&] { c.pump(); }));
  for (const char* v : {"ZAN_GITHUB_API", "ZAN_STORE_REPOS", "ZAN_STORE_URL"}) unsetenv(v);

  const std::string gh = " github: 1 app(s);", none = "1 entry(s); official: 0 app(s);" + gh;
  const std::string reports[] = {"3 entry(s); official: 2 app(s);" + gh, none, none,
                                 "5001 entry(s); official: 5000 app(s);" + gh,
                                 "1 entry(s); official: cannot fetch " + base + "/missing/store.json;" + gh};
  for (int j = 1; j <= 5; ++j) EXPECT_EQ(c.report(j) + std::to_string(c.state(j)), reports[j - 1] + "1");

  EXPECT_FALSE(f->owns(out));
  EXPECT_EQ(f->state(file) * 100 + f->state(bad) * 10 + f->state(bad + 1), 124);
  EXPECT_EQ(f->got(file) * 10 + f->total(file), 55u);
  std::ifstream in(out, std::ios::binary);
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), data);
  EXPECT_EQ(f->commandOutput(cmd), "hi there");
  EXPECT_EQ(f->cacheName("https://h/x/a b.zan?q=1") + f->cacheName("http://h/"), "a_b.zanindex");
}

TEST(HttpFetcher, StallingServerLeavesJobsPendingWithoutBlocking) {
  const std::string root = testTempDir() + "stall/";
  put(root + "s.json", std::string(1000, 'x'));
  auto srv = std::make_unique<ServerProc>(std::vector<std::string>{"--root", root, "--stall-at", "5"});
  const std::string url = srv->base() + "/file/s.json";
  HttpFetcher f;
  const int first = f.startText(url, "", ""), second = f.startText(url, "", ""), third = f.startText(url, "", "");
  char line[64];
  ASSERT_TRUE(std::fgets(line, sizeof line, srv->out));  // headers and 5 of 1000 body bytes are out
  EXPECT_STREQ(line, "STALL\n");
  f.pump();  // comes straight back, with nothing delivered
  EXPECT_FALSE(f.wait(0));
  EXPECT_EQ(f.state(first) + f.state(second), 0);
  EXPECT_EQ(f.cancel(third) * 10 + f.state(third), 12);
  EXPECT_EQ(f.error(third), "cancelled");
  EXPECT_EQ(f.cancel(third), 0);

  srv.reset();  // the short body fails; with no listener the next can't connect
  ASSERT_TRUE(pumpUntil(f, [&] { return f.state(first) && f.state(second); }, [&] { f.pump(); }));
  EXPECT_EQ(f.state(first) * 10 + f.state(second), 22);
  EXPECT_EQ(f.error(first), "cannot fetch " + url);
}

#endif

}  // namespace
