// raw_http_server.py (replies a static server cannot give) in a child process: ready once it printed
// "READY <port> <pid>" (its later lines stay readable on `out`), killed and reaped with the object.
#pragma once

#include <csignal>
#include <cstdio>
#include <string>
#include <vector>

#ifdef _WIN32
// A Windows test program under wine cannot start these Linux python servers;
// the drivers run zan.exe against them from outside instead.
#define SKIP_WITHOUT_SERVER_PROCESS() GTEST_SKIP() << "no Linux server process from a Windows program"
struct ServerProc {
  int port = 0;
  explicit ServerProc(std::vector<std::string>) {}
  std::string base() const { return {}; }
};
#else
#define SKIP_WITHOUT_SERVER_PROCESS() (void)0
struct ServerProc {
  int pid = 0, port = 0;
  std::FILE* out = nullptr;
  explicit ServerProc(const std::vector<std::string>& args) {
    std::string cmd = "exec python3 '" ZAN_TEST_SOURCE_DIR "/packages/raw_http_server.py'";
    for (const std::string& a : args) cmd += " '" + a + "'";
    char line[64] = {};
    if ((out = popen(cmd.c_str(), "r")) && std::fgets(line, sizeof line, out) &&
        std::sscanf(line, "READY %d %d", &port, &pid) != 2)
      port = pid = 0;
  }
  ~ServerProc() {
    if (pid > 0) kill(pid, SIGKILL);
    if (out) pclose(out);
  }
  std::string base() const { return "http://127.0.0.1:" + std::to_string(port); }
};
#endif
