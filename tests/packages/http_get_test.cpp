#include "packages/http_get.h"

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "tests/packages/server_proc.h"
#include "tests/test_tmp.h"

namespace {

void recordProgress(size_t done, size_t total, void* ctx) {
  static_cast<std::vector<std::pair<size_t, size_t>>*>(ctx)->emplace_back(done, total);
}

TEST(HttpGet, PlainRepliesGoodAndHostile) {
  SKIP_WITHOUT_SERVER_PROCESS();
  ServerProc srv({});
  ASSERT_GT(srv.port, 0);
  std::string big(100000, '\0');
  for (size_t i = 0; i < big.size(); ++i) big[i] = static_cast<char>((i * 7) & 0xFF);
  const std::tuple<const char*, bool, std::string, size_t> cases[] = {
      // path, result, body, the total the last progress call saw
      {"/ok", true, "hello world", 11},   {"/nolen", true, "until close", 0}, {"/short", false, "", 10},
      {"/long", true, "1234567890", 10},  {"/301", false, "", 0},            {"/404", false, "", 7},
      {"/split", true, "body", 4},        {"/early", false, "", SIZE_MAX},          {"/upper", true, "abcde", 5},
      {"/zero", true, "", 0},             {"/http10", true, "ok", 2},        {"/big", true, big, 100000},
  };
  for (const auto& [path, ok, body, total] : cases) {
    std::string out = "stale";
    std::vector<std::pair<size_t, size_t>> seen;
    EXPECT_EQ(tov::httpGetProg(srv.base() + path, out, recordProgress, &seen), ok) << path;
    EXPECT_TRUE(!ok || out == body) << path;
    EXPECT_EQ(seen.empty() ? SIZE_MAX : seen.back().second, total) << path;
  }
  std::string out;  // the request, byte for byte
  ASSERT_TRUE(tov::httpGetAny(srv.base() + "/echo?b=1&c=%20", out));
  EXPECT_EQ(out, "GET /echo?b=1&c=%20 HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(srv.port) +
                     "\r\nConnection: close\r\n\r\n");
  ASSERT_TRUE(tov::httpGetAnyH2(srv.base(), "Accept: x", "X-A: b", out));  // headers only go to curl
  EXPECT_EQ(out.substr(0, 16), "GET / HTTP/1.1\r\n");
  EXPECT_EQ(out.find("Accept"), std::string::npos);
  for (const char* bad : {"", "HTTP://127.0.0.1/ok", "ftp://127.0.0.1/ok", "http://127.0.0.1:1/ok"})
    EXPECT_FALSE(tov::httpGetAny(bad, out)) << bad;
}

#ifdef _WIN32
TEST(HttpGet, CurlRoute) {
  std::string cmd;  // cmd.exe quoting, checked here since no curl.exe runs under wine
  ASSERT_TRUE(tov::curlCommandLine("https://h/a?x=1&y=%2F", "X-T:1", cmd));
  EXPECT_EQ(cmd, "curl.exe -fsSL --max-time 120 -H \"X-T:1\" \"https://h/a?x=1&y=%2F\" 2>NUL");
  GTEST_SKIP() << "the curl route runs only on Linux here: no curl.exe or sh under wine";
}
#else
TEST(HttpGet, CurlCommandLineAndShellSafety) {
  // A stand-in curl on PATH logs its arguments one per line; it fails for /404 and sends nothing for /empty.
  const std::string dir = testTempDir() + "fakecurl/", log = dir + "log", pwned = testTempDir() + "pwned";
  std::filesystem::create_directories(dir);
  std::ofstream(dir + "curl") << "#!/bin/sh\ncase \"$*\" in *404) exit 22;; *empty) exit 0;; esac\n"
                              << "for a; do echo \"$a\" >> " << log << "; done\nprintf fake\n";
  std::filesystem::permissions(dir + "curl", std::filesystem::perms::owner_all);
  const std::string oldPath = std::getenv("PATH");
  setenv("PATH", (dir + ":" + oldPath).c_str(), 1);
  std::string out;
  EXPECT_TRUE(tov::httpGetAnyHdr("https://h.example/a-b_c.zan?x=1&y=%2F+~", "", out));
  EXPECT_EQ(out, "fake");
  EXPECT_TRUE(tov::httpGetAnyHdr("https://h/x", "X-Token:abc", out));
  EXPECT_TRUE(tov::httpGetAnyH2("https://h/y", "Accept: a/b", "Bad: \"q\"", out));
  EXPECT_TRUE(tov::httpGetAny("https://h/" + std::string(2038, 'a'), out));  // 2048 bytes pass
  for (const std::string& url : {"https://h/a';touch " + pwned + ";'", "https://h/$(touch " + pwned + ")",
                                 "https://h/`touch " + pwned + "`", std::string("https://h/a b"),
                                 std::string("https://h/a#b"), std::string("https://h/a\nb"),
                                 "https://h/" + std::string(2039, 'a')}) {
    EXPECT_FALSE(tov::httpGetAny(url, out)) << url;
    EXPECT_FALSE(tov::httpGetAnyH2(url, "", "", out)) << url;
  }
  for (const char* header : {"X: a'b", "X: a b"})  // no quote, and on this route no blank
    EXPECT_FALSE(tov::httpGetAnyHdr("https://h/ok", header, out)) << header;
  for (const char* url : {"https://h/404", "https://h/empty"}) EXPECT_FALSE(tov::httpGetAny(url, out)) << url;
  setenv("PATH", oldPath.c_str(), 1);
  std::stringstream logged;
  logged << std::ifstream(log).rdbuf();
  EXPECT_EQ(logged.str(), "-fsSL\n--max-time\n120\nhttps://h.example/a-b_c.zan?x=1&y=%2F+~\n"
                        "-fsSL\n--max-time\n120\n-H\nX-Token:abc\nhttps://h/x\n"
                        "-fsSL\n--max-time\n120\n-H\nAccept: a/b\nhttps://h/y\n"
                        "-fsSL\n--max-time\n120\nhttps://h/" + std::string(2038, 'a') + "\n");
  EXPECT_FALSE(std::filesystem::exists(pwned));
}
#endif

}  // namespace
