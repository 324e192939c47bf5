#include "packages/http_get.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "tests/packages/server_proc.h"
#include "tests/test_tmp.h"

namespace {

const std::string kServer = std::string(ZAN_TEST_SOURCE_DIR) + "/packages/raw_http_server.py";

std::string bigBody() {
  std::string s(100000, '\0');
  for (size_t i = 0; i < s.size(); ++i) s[i] = static_cast<char>((i * 7) & 0xFF);
  return s;
}

std::string slurp(const std::string& path) {
  std::ifstream f(path, std::ios::binary);
  std::stringstream ss;
  ss << f.rdbuf();
  return ss.str();
}

using tov::httpGetProg;

TEST(HttpGet, PlainRepliesGoodAndHostile) {
  ServerProc srv({"python3", kServer});
  ASSERT_GT(srv.port, 0);
  struct Case {
    const char* path;
    bool ok;
    std::string body;
  } cases[] = {
      {"/ok", true, "hello world"},
      {"/nolen", true, "until close"},  // ends at the peer's close
      {"/short", false, ""},            // 8 of 10 announced bytes
      {"/long", true, "1234567890"},    // cut to the announced 10
      {"/301", false, ""},              // redirects are not followed
      {"/404", false, ""},
      {"/split", true, "body"},         // headers over several packets
      {"/early", false, ""},            // closed inside the headers
      {"/upper", true, "abcde"},        // header name in capitals, blanks before the value
      {"/zero", true, ""},
      {"/http10", true, "ok"},
      {"/big", true, bigBody()},
  };
  for (const Case& c : cases) {
    std::string out = "stale";
    EXPECT_EQ(httpGetProg(srv.base() + c.path, out, nullptr, nullptr), c.ok) << c.path;
    if (c.ok) {
      EXPECT_EQ(out, c.body) << c.path;
    }
  }
  // The request line and headers, byte for byte; the query goes along.
  std::string out;
  ASSERT_TRUE(tov::httpGetAny(srv.base() + "/echo?b=1&c=%20", out));
  EXPECT_EQ(out, "GET /echo?b=1&c=%20 HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(srv.port) +
                     "\r\nConnection: close\r\n\r\n");
  ASSERT_TRUE(tov::httpGetAny(srv.base(), out));
  EXPECT_EQ(out.substr(0, 16), "GET / HTTP/1.1\r\n");
  // Headers are dropped off the https route.
  ASSERT_TRUE(tov::httpGetAnyH2(srv.base() + "/echo", "Accept: x", "X-A: b", out));
  EXPECT_EQ(out.find("Accept"), std::string::npos);
  for (const char* bad : {"", "HTTP://127.0.0.1/ok", "ftp://127.0.0.1/ok", "http://127.0.0.1:1/ok"})
    EXPECT_FALSE(tov::httpGetAny(bad, out)) << bad;
}

struct Seen {
  std::vector<std::pair<size_t, size_t>> calls;
  static void record(size_t done, size_t total, void* ctx) {
    static_cast<Seen*>(ctx)->calls.emplace_back(done, total);
  }
};

TEST(HttpGet, ProgressSeesBodyBytesAndTotal) {
  ServerProc srv({"python3", kServer});
  std::string out;
  Seen big;
  ASSERT_TRUE(httpGetProg(srv.base() + "/big", out, Seen::record, &big));
  ASSERT_FALSE(big.calls.empty());
  EXPECT_EQ(big.calls.back(), std::make_pair(size_t(100000), size_t(100000)));
  for (size_t i = 1; i < big.calls.size(); ++i) EXPECT_LE(big.calls[i - 1].first, big.calls[i].first);
  Seen nolen;
  ASSERT_TRUE(httpGetProg(srv.base() + "/nolen", out, Seen::record, &nolen));
  ASSERT_FALSE(nolen.calls.empty());
  EXPECT_EQ(nolen.calls.back(), std::make_pair(size_t(11), size_t(0)));
}

TEST(HttpGet, ProgressLine) {
  char bar[21];
  const std::pair<size_t, const char*> bars[] = {{0, "...................."},
                                                 {4, "...................."},
                                                 {5, "#..................."},
                                                 {99, "###################."},
                                                 {250, "####################"}};
  for (auto [pct, want] : bars) {
    tov::renderBar(bar, pct);
    EXPECT_STREQ(bar, want) << pct;
  }
  const std::string path = testTempDir() + "progress.txt";
  std::fflush(stdout);
  const int saved = dup(1);
  std::FILE* f = std::fopen(path.c_str(), "w");
  dup2(fileno(f), 1);
  tov::DownloadProgress p;
  p.index = 3;
  p.count = 12;
  p.name = "libzan_a_rather_long_plugin_name_beyond_32.so";
  tov::onInitProgress(1, 2, &p);  // disabled: nothing
  p.enabled = true;
  tov::onInitProgress(1, 2, &p);
  tov::onInitProgress(5, 0, &p);
  std::fflush(stdout);
  dup2(saved, 1);
  close(saved);
  std::fclose(f);
  const std::string line1 = "  [ 3/12] libzan_a_rather_long_plugin_name [##########..........]  50%";
  const std::string line2 = "  [ 3/12] libzan_a_rather_long_plugin_name [....................]   0%";
  EXPECT_EQ(slurp(path), line1 + "\r" + std::string(line1.size(), ' ') + "\r" + line2);
  EXPECT_EQ(p.lastWidth, static_cast<int>(line2.size()));
}

// A stand-in curl that logs its arguments, one per line, and prints a body.
struct FakeCurl {
  std::string dir = testTempDir() + "fakecurl/";
  std::string log = dir + "log";
  std::string oldPath = std::getenv("PATH") ? std::getenv("PATH") : "";
  FakeCurl() {
    std::filesystem::create_directories(dir);
    std::ofstream(dir + "curl") << "#!/bin/sh\nfor a in \"$@\"; do echo \"$a\" >> " << log
                                << "; done\necho --- >> " << log << "\nprintf fake-body\n";
    std::filesystem::permissions(dir + "curl", std::filesystem::perms::owner_all);
    setenv("PATH", (dir + ":" + oldPath).c_str(), 1);
  }
  ~FakeCurl() { setenv("PATH", oldPath.c_str(), 1); }
};

TEST(HttpGet, CurlCommandLineAndShellSafety) {
  FakeCurl curl;
  std::string out;
  ASSERT_TRUE(tov::httpGetAnyHdr("https://h.example/a-b_c.zan?x=1&y=%2F+~", "", out));
  EXPECT_EQ(out, "fake-body");
  ASSERT_TRUE(tov::httpGetAnyHdr("https://h/x", "X-Token:abc", out));
  ASSERT_TRUE(tov::httpGetAnyH2("https://h/y", "Accept: application/vnd.github.raw", "Bad: \"q\"", out));
  EXPECT_EQ(slurp(curl.log),
            "-fsSL\n--max-time\n120\nhttps://h.example/a-b_c.zan?x=1&y=%2F+~\n---\n"
            "-fsSL\n--max-time\n120\n-H\nX-Token:abc\nhttps://h/x\n---\n"
            "-fsSL\n--max-time\n120\n-H\nAccept: application/vnd.github.raw\nhttps://h/y\n---\n");
  std::filesystem::remove(curl.log);

  const std::string pwned = testTempDir() + "pwned";
  const std::string hostile[] = {
      "https://h/a';touch " + pwned + ";'", "https://h/$(touch " + pwned + ")", "https://h/`touch " + pwned + "`",
      "https://h/a b", "https://h/a\"b", "https://h/a#b", "https://h/a|b", "https://h/a\nb",
      "https://h/" + std::string(2048, 'a'),
  };
  for (const std::string& url : hostile) {
    EXPECT_FALSE(tov::httpGetAny(url, out)) << url;
    EXPECT_FALSE(tov::httpGetAnyH2(url, "", "", out)) << url;
  }
  EXPECT_FALSE(tov::httpGetAnyHdr("https://h/ok", "X: a'b", out));
  EXPECT_FALSE(tov::httpGetAnyHdr("https://h/ok", "X: a b", out));  // no blank on this route
  EXPECT_FALSE(std::filesystem::exists(curl.log));
  EXPECT_FALSE(std::filesystem::exists(pwned));
  std::string cmd;
  EXPECT_TRUE(tov::curlCommandLine("https://h/" + std::string(2038, 'a'), "", cmd));  // 2048 bytes
}

TEST(HttpGet, HttpsThroughRealCurl) {
  const std::string dir = testTempDir() + "tls/";
  std::filesystem::create_directories(dir);
  const std::string gen = "openssl req -x509 -newkey rsa:2048 -nodes -days 1 -subj /CN=127.0.0.1 "
                          "-addext subjectAltName=IP:127.0.0.1 -keyout " + dir + "key.pem -out " + dir +
                          "cert.pem >/dev/null 2>&1";
  ASSERT_EQ(std::system(gen.c_str()), 0);
  ServerProc srv({"python3", kServer, "--tls", dir + "cert.pem", dir + "key.pem"});
  ASSERT_GT(srv.port, 0);
  setenv("CURL_CA_BUNDLE", (dir + "cert.pem").c_str(), 1);
  const std::string base = "https://127.0.0.1:" + std::to_string(srv.port);
  std::string out;
  EXPECT_TRUE(tov::httpGetAny(base + "/ok", out));
  EXPECT_EQ(out, "hello world");
  EXPECT_TRUE(tov::httpGetAny(base + "/301", out));  // curl follows to /ok
  EXPECT_EQ(out, "hello world");
  EXPECT_FALSE(tov::httpGetAny(base + "/zero", out));  // an empty body fails here
  EXPECT_FALSE(tov::httpGetAny(base + "/404", out));
  ASSERT_TRUE(tov::httpGetAnyH2(base + "/echo", "Accept: a/b", "X-Q: \"dropped\"", out));
  EXPECT_NE(out.find("\r\nAccept: a/b\r\n"), std::string::npos);
  EXPECT_EQ(out.find("X-Q"), std::string::npos);
  unsetenv("CURL_CA_BUNDLE");
  EXPECT_FALSE(tov::httpGetAny(base + "/ok", out));  // an untrusted certificate
}

}  // namespace
