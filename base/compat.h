// Platform layer: shared libraries, read-only file mappings, and a few small
// helpers. On POSIX these are the system's own functions; on Windows
// compat_win.cpp supplies the same names, so no other file needs a platform
// branch. Paths are UTF-8 on every platform.
#pragma once

#include <cstddef>
#include <cstdint>

#ifdef _WIN32
// Values as on Linux; on Windows the flags are accepted and ignored.
#define RTLD_LAZY 0x1
#define RTLD_NOW 0x2
#define RTLD_GLOBAL 0x100
#define RTLD_LOCAL 0

#define PROT_NONE 0x0
#define PROT_READ 0x1
#define MAP_SHARED 0x1
#define MAP_PRIVATE 0x2
#define MAP_FAILED ((void*)-1)

#define MADV_NORMAL 0
#define MADV_RANDOM 1
#define MADV_SEQUENTIAL 2
#define MADV_WILLNEED 3
#define MADV_DONTNEED 4

// A null or empty path gives the program's own handle.
void* dlopen(const char* path, int flags);
// A null handle means the program itself.
void* dlsym(void* handle, const char* name);
// 0 on success; a null handle gives 0.
int dlclose(void* handle);
// The thread's last system error as text; valid until the next call on the
// same thread, so ask directly after the failing call.
char* dlerror();

// Read-only view of `length` bytes of `fd` from `offset`; `address`,
// `protection` and `flags` are ignored. The view outlives the descriptor.
void* mmap(void* address, size_t length, int protection, int flags, int fd, int64_t offset);
// Always 0; an address that was never mapped is ignored.
int munmap(void* address, size_t length);
// A hint only; always 0.
int madvise(void* address, size_t length, int advice);
#else
#include <dlfcn.h>
#include <sys/mman.h>
#endif

// Working directory as zero-terminated UTF-8 into `buf` of `size` bytes:
// 0, or -1 when it does not fit or cannot be read.
int zanCompatGetcwd(char* buf, size_t size);
// Full path of the running executable as zero-terminated UTF-8 into `buf`
// of `size` bytes: 0, or -1 when it does not fit or cannot be read.
int zanCompatExePath(char* buf, size_t size);
// Non-zero if `fd` is a terminal.
int zanCompatIsatty(int fd);
// Blocks the calling thread for `ms` milliseconds.
void zanCompatSleepMs(unsigned ms);

// Readies the standard streams once at start: on Windows standard output and
// error pass bytes through unchanged (no CR before LF) and a console shows
// them as UTF-8; standard input stays in text mode, so a console line ends in
// a plain LF. Elsewhere it does nothing.
void zanCompatInitConsole();
// Logical processors online, at least 1.
unsigned zanCompatCpuCount();
// Physical memory in bytes, 0 when unknown.
uint64_t zanCompatMemoryBytes();
// Renames `from` to `to`, replacing a file already at `to` on every
// platform (Windows' own rename refuses to): 0, or -1.
int zanCompatRename(const char* from, const char* to);
// Non-zero if the last part of `path` names a device rather than a file:
// on Windows CON, PRN, AUX, NUL, COM1-9 and LPT1-9, in any case and with any
// extension ("nul.txt" too), and paths under "\\.\". Always 0 elsewhere.
int zanCompatDeviceName(const char* path);
// Starts the platform's socket library before the first socket call; safe to
// call more than once. 0, or -1 when sockets cannot be used.
int zanCompatNetInit();
