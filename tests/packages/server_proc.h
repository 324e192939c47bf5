// A test server in a child process: ready once it printed "READY <port>" (its
// later lines stay readable on `out`), killed and reaped with the object.
#pragma once

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

// Replies a static server cannot give; see its own comment.
inline const std::string kRawServer = std::string(ZAN_TEST_SOURCE_DIR) + "/packages/raw_http_server.py";

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
#include <sys/wait.h>
#include <unistd.h>

#define SKIP_WITHOUT_SERVER_PROCESS() (void)0
struct ServerProc {
  pid_t pid = -1;
  int port = 0;
  std::FILE* out = nullptr;
  explicit ServerProc(std::vector<std::string> args) {
    int fds[2];
    if (pipe(fds) != 0 || (pid = fork()) < 0) return;
    if (pid == 0) {
      dup2(fds[1], 1);
      std::vector<char*> argv;
      for (std::string& a : args) argv.push_back(a.data());
      argv.push_back(nullptr);
      execvp(argv[0], argv.data());
      _exit(127);
    }
    close(fds[1]);
    char line[64] = {};
    out = fdopen(fds[0], "r");
    if (std::fgets(line, sizeof line, out) && !std::strncmp(line, "READY ", 6)) port = std::atoi(line + 6);
  }
  ~ServerProc() {
    if (pid > 0) kill(pid, SIGKILL), waitpid(pid, nullptr, 0);
    if (out) std::fclose(out);
  }
  std::string base() const { return "http://127.0.0.1:" + std::to_string(port); }
};
#endif
