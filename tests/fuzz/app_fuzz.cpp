// libFuzzer target: the app container reader on any file.
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include <unistd.h>

#include "container/zan_app.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const std::string path = "/tmp/app_fuzz_" + std::to_string(getpid()) + ".zan";
  FILE* f = std::fopen(path.c_str(), "wb");
  if (!f) return 0;
  std::fwrite(data, 1, size, f);
  std::fclose(f);
  std::string manifest, err;
  std::vector<tov::zanapp::File> files;
  tov::zanapp::read(path, manifest, files, err);
  return 0;
}
