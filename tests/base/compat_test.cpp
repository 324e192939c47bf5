// Platform layer on the build machine: the three helpers, and the dl and
// mmap names the core uses, against a real library and a real file.
#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include <fcntl.h>
#include <unistd.h>

#include "base/compat.h"
#include "tests/test_tmp.h"

#ifdef _WIN32
#include <io.h>
// A library every process has, and a function in it.
constexpr const char* kSystemLib = "msvcrt.dll";
int pipe(int fds[2]) { return _pipe(fds, 4096, 0); }
#else
constexpr const char* kSystemLib = "libm.so.6";
#endif

namespace {

TEST(Compat, SleepBlocksAtLeastThatLong) {
  auto t0 = std::chrono::steady_clock::now();
  zanCompatSleepMs(20);
  EXPECT_GE(std::chrono::steady_clock::now() - t0, std::chrono::milliseconds(20));
  zanCompatSleepMs(0);  // returns at once
}

TEST(Compat, DlopenRealLibrary) {
  void* lib = dlopen(kSystemLib, RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(lib, nullptr) << dlerror();
  void* sym = dlsym(lib, "cos");
  ASSERT_NE(sym, nullptr) << dlerror();
  double (*cosFn)(double) = reinterpret_cast<double (*)(double)>(sym);
  EXPECT_EQ(cosFn(0.0), 1.0);
  EXPECT_DOUBLE_EQ(cosFn(std::acos(-1.0)), -1.0);
  EXPECT_EQ(dlsym(lib, "zan_no_such_symbol"), nullptr);
  EXPECT_NE(dlerror(), nullptr);
  EXPECT_EQ(dlclose(lib), 0);
}

TEST(Compat, MmapOutlivesItsDescriptor) {
  std::string path = testTempDir() + "mapped-XXXXXX";
  int fd = mkstemp(path.data());
  ASSERT_GE(fd, 0);
  std::string content;
  for (int i = 0; i < 10000; ++i) content += char('a' + i % 26);
  ASSERT_EQ(write(fd, content.data(), content.size()), ssize_t(content.size()));

  void* view = mmap(nullptr, content.size(), PROT_READ, MAP_PRIVATE, fd, 0);
  close(fd);
  unlink(path.c_str());
  ASSERT_NE(view, MAP_FAILED);
  EXPECT_EQ(madvise(view, content.size(), MADV_WILLNEED), 0);
  EXPECT_EQ(std::memcmp(view, content.data(), content.size()), 0);
  EXPECT_EQ(munmap(view, content.size()), 0);
}

}  // namespace
