// A scratch directory of this test process, removed when it ends. ctest
// runs tests in parallel processes, so every process gets its own.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include <unistd.h>

#ifdef _WIN32
#include <cstdlib>
// The POSIX environment calls the tests use. An empty value removes the
// variable here: the C runtime keeps no empty ones.
inline int setenv(const char* name, const char* value, int) { return _putenv_s(name, value); }
inline int unsetenv(const char* name) { return _putenv_s(name, ""); }
#endif

inline const std::string& testTempDir() {
  struct Dir {
    std::filesystem::path path;
    Dir() : path(std::filesystem::path(::testing::TempDir()) / ("zan-test-" + std::to_string(getpid()))) {
      std::filesystem::remove_all(path);
      std::filesystem::create_directories(path);
    }
    ~Dir() { std::error_code ec; std::filesystem::remove_all(path, ec); }
  };
  static const Dir dir;
  static const std::string text = dir.path.string() + "/";
  return text;
}
