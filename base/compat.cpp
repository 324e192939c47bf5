// POSIX side of the platform layer: only the small helpers; dlopen, mmap and
// the rest are the system's own.
#include "base/compat.h"

#ifndef _WIN32
#include <cerrno>
#include <cstdio>
#include <ctime>

#include <unistd.h>

int zanCompatGetcwd(char* buf, size_t size) {
  // getcwd(nullptr, ...) would allocate on glibc; the caller owns the buffer.
  if (!buf || size == 0) return -1;
  return getcwd(buf, size) ? 0 : -1;
}

int zanCompatExePath(char* buf, size_t size) {
  if (!buf || size == 0) return -1;
  const ssize_t n = readlink("/proc/self/exe", buf, size);
  if (n < 0 || size_t(n) >= size) return -1;  // a full buffer may be cut short
  buf[n] = '\0';
  return 0;
}

int zanCompatIsatty(int fd) { return isatty(fd); }

void zanCompatSleepMs(unsigned ms) {
  timespec left{time_t(ms / 1000), long(ms % 1000) * 1000000L};
  // A signal cuts nanosleep short; sleep out the rest.
  while (nanosleep(&left, &left) != 0 && errno == EINTR) {
  }
}

void zanCompatInitConsole() {}

unsigned zanCompatCpuCount() {
  const long n = sysconf(_SC_NPROCESSORS_ONLN);
  return n > 0 ? unsigned(n) : 1;
}

uint64_t zanCompatMemoryBytes() {
  const long pages = sysconf(_SC_PHYS_PAGES), page = sysconf(_SC_PAGESIZE);
  return pages > 0 && page > 0 ? uint64_t(pages) * uint64_t(page) : 0;
}

int zanCompatRename(const char* from, const char* to) { return std::rename(from, to) == 0 ? 0 : -1; }

int zanCompatDeviceName(const char*) { return 0; }

int zanCompatNetInit() { return 0; }
#endif
