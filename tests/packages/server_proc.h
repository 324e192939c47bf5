// A test server in a child process: ready once it printed "READY <port>",
// killed and reaped with the object.
#pragma once

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <sys/wait.h>
#include <unistd.h>

struct ServerProc {
  pid_t pid = -1;
  int port = 0;
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
    std::FILE* out = fdopen(fds[0], "r");
    if (std::fgets(line, sizeof line, out) && !std::strncmp(line, "READY ", 6)) port = std::atoi(line + 6);
    std::fclose(out);
  }
  ~ServerProc() {
    if (pid > 0) kill(pid, SIGKILL), waitpid(pid, nullptr, 0);
  }
  std::string base() const { return "http://127.0.0.1:" + std::to_string(port); }
};
