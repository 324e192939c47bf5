#include "packages/pkg_files.h"

#include <cstdio>

#include <sys/stat.h>
#ifdef _WIN32
#include <direct.h>
#endif

namespace tov {
namespace {

void makeDir(const std::string& path) {
#ifdef _WIN32
  _mkdir(path.c_str());
#else
  mkdir(path.c_str(), 0755);
#endif
}

}  // namespace

void mkdirParents(const std::string& path) {
  const size_t last = path.rfind('/');
  if (last == std::string::npos) return;
  for (size_t i = 0; i <= last; ++i) {
    if (path[i] != '/') continue;
    const std::string prefix = path.substr(0, i);
    if (!prefix.empty() && prefix != "/") makeDir(prefix);
  }
}

bool writeFile(const std::string& path, const std::string& bytes) {
  std::FILE* f = std::fopen(path.c_str(), "wb");
  if (!f) return false;
  const size_t n = bytes.empty() ? 0 : std::fwrite(bytes.data(), 1, bytes.size(), f);
  const bool closed = std::fclose(f) == 0;
  return n == bytes.size() && closed;
}

bool readWholeFile(const std::string& path, std::string& out) {
  out.clear();
  std::FILE* f = std::fopen(path.c_str(), "rb");
  if (!f) return false;
  char block[4096];
  size_t n;
  while ((n = std::fread(block, 1, sizeof block, f)) > 0) out.append(block, n);
  const bool ok = !std::ferror(f);
  std::fclose(f);
  return ok;
}

}  // namespace tov
