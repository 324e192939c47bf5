// main: one command word, one handler, one exit code.
#include <cstdio>
#include <cstring>

#include "cli/commands.h"

int main(int argc, char** argv) {
  if (argc <= 1) {
    std::fputs(helpText(false).c_str(), stdout);
    return 2;
  }
  const char* w = argv[1];
  if (!std::strcmp(w, "help") || !std::strcmp(w, "-help") || !std::strcmp(w, "-h") ||
      !std::strcmp(w, "--help")) {
    std::fputs(helpText(helpWantsZh(argc, argv, 2)).c_str(), stdout);
    return 0;
  }
  if (!std::strcmp(w, "run")) return cmdRun(argc, argv);
  std::fprintf(stderr, "zan: unknown command '%s'\nplugin providing command '%s' is not installed\n", w, w);
  return 2;
}
