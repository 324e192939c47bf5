// A test server in a child process: started with its arguments, ready once
// it printed "READY <port>", killed and reaped when the object goes.
#pragma once

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include <sys/wait.h>
#include <unistd.h>

struct ServerProc {
  pid_t pid = -1;
  int port = 0;
  std::FILE* out = nullptr;  // the server's standard output

  explicit ServerProc(const std::vector<std::string>& args) {
    int fds[2];
    if (pipe(fds) != 0) return;
    pid = fork();
    if (pid == 0) {
      dup2(fds[1], 1);
      close(fds[0]);
      close(fds[1]);
      std::vector<char*> argv;
      for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
      argv.push_back(nullptr);
      execvp(argv[0], argv.data());
      _exit(127);
    }
    close(fds[1]);
    out = fdopen(fds[0], "r");
    std::string line = readLine();
    if (line.rfind("READY ", 0) == 0) port = std::atoi(line.c_str() + 6);
  }
  ~ServerProc() {
    if (pid > 0) {
      kill(pid, SIGKILL);
      waitpid(pid, nullptr, 0);
    }
    if (out) std::fclose(out);
  }
  // One line of the server's output without its newline; empty at its end.
  std::string readLine() {
    std::string line;
    int c;
    while (out && (c = std::fgetc(out)) != EOF && c != '\n') line.push_back(static_cast<char>(c));
    return line;
  }
  std::string base() const { return "http://127.0.0.1:" + std::to_string(port); }
};
