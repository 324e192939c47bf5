// HttpFetcher against real servers on 127.0.0.1: the catalog over a python
// http.server holding store.json files, a server that stalls mid-body, and
// the file and command jobs.
#include "store/http_fetch.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>

#include <sys/stat.h>

#include "store/zan_catalog.h"
#include "tests/packages/server_proc.h"
#include "tests/test_tmp.h"

using tov::catalog::Catalog;
using tov::fetch::HttpFetcher;

namespace {

const char kStaticServer[] =
    "import functools, http.server, sys\n"
    "class H(http.server.SimpleHTTPRequestHandler):\n"
    "    def log_message(self, *a): pass\n"
    "s = http.server.ThreadingHTTPServer(('127.0.0.1', 0), functools.partial(H, directory=sys.argv[1]))\n"
    "print('READY', s.server_address[1], flush=True)\n"
    "s.serve_forever()\n";

void put(const std::string& path, const std::string& text) {
  for (size_t at = path.find('/', 1); at != std::string::npos; at = path.find('/', at + 1))
    mkdir(path.substr(0, at).c_str(), 0755);
  std::ofstream(path, std::ios::binary) << text;
}

// Pumps until `done` holds, waiting on the fetcher between pumps.
template <class Done>
bool pumpUntil(HttpFetcher& f, Done done, const std::function<void()>& pump) {
  for (int i = 0; i < 100 && !done(); ++i) {
    f.wait(10000);
    pump();
  }
  return done();
}

TEST(HttpFetcher, CatalogOverStaticServer) {
  const std::string root = testTempDir() + "idx/";
  put(root + "good/store.json", R"({"apps":[{"id":"a","package":"/a.zan"},{"name":"B","version":"2.1"}]})");
  put(root + "gh/repos/o/r/contents/store.json", R"({"apps":[{"id":"g","package":"g.zan"}]})");
  put(root + "empty/store.json", "");
  put(root + "notjson/store.json", "<html>not found</html>");
  put(root + "fields/store.json", R"({"apps":[{"id":5,"title":["x"],"name":"N","size":"1"},{"version":"7"},{"id":"k"}]})");
  std::ostringstream many;
  many << "{\"apps\":[";
  for (int i = 0; i < 5000; ++i) many << (i ? "," : "") << "{\"id\":\"app" << i << "\",\"size\":" << i * 1000 << "}";
  put(root + "many/store.json", many.str() + "]}");

  ServerProc srv({"python3", "-u", "-c", kStaticServer, root});
  ASSERT_GT(srv.port, 0);
  setenv("ZAN_GITHUB_API", (srv.base() + "/gh").c_str(), 1);
  setenv("ZAN_STORE_REPOS", "o/r", 1);
  setenv("ZAN_STORE_URL", (srv.base() + "/good").c_str(), 1);
  HttpFetcher* f = nullptr;
  Catalog c([&] {
    auto made = std::make_unique<HttpFetcher>();
    f = made.get();
    return made;
  });
  const char* dirs[] = {"good", "empty", "notjson", "fields", "many", "missing"};
  for (const char* d : dirs) c.load(srv.base() + "/" + d);  // all in flight at once
  EXPECT_EQ(c.state(1), 0);
  ASSERT_TRUE(pumpUntil(*f, [&] { for (int j = 1; j <= 6; ++j) if (c.state(j) == 0) return false; return true; },
                        [&] { c.pump(); }));
  unsetenv("ZAN_GITHUB_API");
  unsetenv("ZAN_STORE_REPOS");
  unsetenv("ZAN_STORE_URL");

  const std::string gh = " github: 1 app(s);";
  EXPECT_EQ(c.report(1), "3 entry(s); official: 2 app(s);" + gh);
  EXPECT_EQ(c.report(2), "1 entry(s); official: 0 app(s);" + gh);
  EXPECT_EQ(c.report(3), "1 entry(s); official: 0 app(s);" + gh);
  EXPECT_EQ(c.report(4), "3 entry(s); official: 2 app(s);" + gh);
  EXPECT_EQ(c.report(5), "5001 entry(s); official: 5000 app(s);" + gh);
  EXPECT_EQ(c.report(6), "1 entry(s); official: cannot fetch " + srv.base() + "/missing/store.json;" + gh);
  for (int j = 1; j <= 6; ++j) EXPECT_EQ(c.state(j), 1);
  EXPECT_EQ(c.text(1, 0, 3), srv.base() + "/good/a.zan");
  EXPECT_EQ(c.text(1, 1, 0), "B");
  EXPECT_EQ(c.num(1, 1, 0), 2001000);
  EXPECT_EQ(c.text(1, 2, 3), "https://raw.githubusercontent.com/o/r/main/g.zan");
  EXPECT_EQ(c.text(4, 0, 0), "N");
  EXPECT_EQ(c.text(4, 0, 6), "");
  EXPECT_EQ(c.text(4, 1, 6), "k");
  EXPECT_EQ(c.text(5, 4999, 6), "app4999");
  EXPECT_EQ(c.num(5, 4999, 1), 4999000);
}

TEST(HttpFetcher, StallingServerLeavesJobsPendingWithoutBlocking) {
  const std::string root = testTempDir() + "stall/";
  put(root + "s.json", std::string(1000, 'x'));
  auto srv = std::make_unique<ServerProc>(
      std::vector<std::string>{"python3", std::string(ZAN_TEST_SOURCE_DIR) + "/packages/raw_http_server.py",
                               "--root", root, "--stall-at", "5"});
  ASSERT_GT(srv->port, 0);
  const std::string url = srv->base() + "/file/s.json";
  HttpFetcher f;
  const int first = f.startText(url, "stalled", ""), second = f.startText(url, "queued", "");
  const int third = f.startText(url, "cancelled", "");
  ASSERT_EQ(srv->readLine(), "STALL /file/s.json");
  f.pump();
  EXPECT_FALSE(f.wait(0));  // nothing finished, and pump came straight back
  EXPECT_EQ(f.state(first), 0);
  EXPECT_EQ(f.state(second), 0);
  EXPECT_EQ(f.cancel(third), 1);
  EXPECT_EQ(f.state(third), 2);
  EXPECT_EQ(f.error(third), "cancelled");
  EXPECT_EQ(f.cancel(third), 0);

  srv.reset();  // the server goes: the short body fails, the next can't connect
  ASSERT_TRUE(pumpUntil(f, [&] { return f.state(first) != 0 && f.state(second) != 0; }, [&] { f.pump(); }));
  EXPECT_EQ(f.state(first), 2);
  EXPECT_EQ(f.error(first), "cannot fetch " + url);
  EXPECT_EQ(f.state(second), 2);
  EXPECT_EQ(f.body(first), "");
}

TEST(HttpFetcher, FileAndCommandJobs) {
  const std::string root = testTempDir() + "files/";
  put(root + "src/a.bin", std::string("ab\0cd", 5));
  ServerProc srv({"python3", "-u", "-c", kStaticServer, root + "src"});
  ASSERT_GT(srv.port, 0);
  HttpFetcher f;
  const int file = f.start(srv.base() + "/a.bin", root + "out.bin");
  const int cmd = f.startCommand({"sh", "-c", "printf 'hi there'"});
  const int bad = f.startCommand({"false"});
  EXPECT_TRUE(f.owns(root + "out.bin"));
  ASSERT_TRUE(pumpUntil(f, [&] { return f.state(file) && f.state(cmd) && f.state(bad); }, [&] { f.pump(); }));
  EXPECT_FALSE(f.owns(root + "out.bin"));
  EXPECT_EQ(f.state(file), 1);
  EXPECT_EQ(f.got(file), 5u);
  EXPECT_EQ(f.total(file), 5u);
  std::ifstream in(root + "out.bin", std::ios::binary);
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), std::string("ab\0cd", 5));
  EXPECT_EQ(f.commandOutput(cmd), "hi there");
  EXPECT_EQ(f.state(bad), 2);
  EXPECT_EQ(f.state(0), 4);
  EXPECT_EQ(f.state(99), 4);
  EXPECT_EQ(f.cacheName("https://h/x/a b.zan?q=1"), "a_b.zan");
  EXPECT_EQ(f.cacheName("http://h/"), "index");
}

}  // namespace
