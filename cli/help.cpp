// Help texts (English and Chinese) and the language choice.
#include <cstring>

#include "cli/commands.h"

bool helpWantsZh(int argc, char** argv, int first) {
  bool zh = false;
  for (int i = first; i < argc; ++i) {
    if (!std::strcmp(argv[i], "-c") || !std::strcmp(argv[i], "--cn")) zh = true;
    else if (!std::strcmp(argv[i], "-e") || !std::strcmp(argv[i], "--en")) zh = false;
  }
  return zh;
}

const std::string& helpText(bool zh) {
  static const std::string en = "zan - Halden unified command line\n\n";
  static const std::string cn = "zan - Halden 统一命令行\n\n";
  return zh ? cn : en;
}

const char kLsUsage[] = "";
