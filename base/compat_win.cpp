// Windows side of the platform layer: dlopen and mmap and their kin over
// Win32, with UTF-8 paths converted at this edge. Built only on Windows.
#ifdef _WIN32

#include "base/compat.h"

#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#ifndef NOMINMAX
#define NOMINMAX
#endif
#include <windows.h>

#include <winsock2.h>

#include <fcntl.h>
#include <io.h>

#include <climits>
#include <cstdio>
#include <cstring>
#include <unordered_map>

namespace {

constexpr int kPathChars = 4096;
// LOAD_LIBRARY_SEARCH_DLL_LOAD_DIR | LOAD_LIBRARY_SEARCH_DEFAULT_DIRS: a
// plugin's own directory is searched for its dependencies. Spelled out
// because older SDKs lack the names.
constexpr DWORD kLoadFlags = 0x1100;
// FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS.
constexpr DWORD kFormatFlags = 0x1200;

// One live view.
struct MapRec {
  HANDLE file;  // duplicate of the descriptor's handle
  HANDLE mapping;
  void* view;
  size_t length;
};

// View address -> record. Never destroyed, so a munmap from a static
// destructor still finds it; process exit returns the memory.
std::unordered_map<void*, MapRec>& mapRecs() {
  static auto* recs = new std::unordered_map<void*, MapRec>;
  return *recs;
}

// The one lock of the layer; guards mapRecs and nothing else, held for the
// table operation alone. Static initialisation: nothing to create or free.
SRWLOCK gMapLock = SRWLOCK_INIT;

struct MapLock {
  MapLock() { AcquireSRWLockExclusive(&gMapLock); }
  ~MapLock() { ReleaseSRWLockExclusive(&gMapLock); }
  MapLock(const MapLock&) = delete;
  MapLock& operator=(const MapLock&) = delete;
};

HMODULE selfOr(void* handle) {
  return handle ? static_cast<HMODULE>(handle) : GetModuleHandleW(nullptr);
}

}  // namespace

void* dlopen(const char* path, int flags) {
  (void)flags;
  if (!path || !*path) return GetModuleHandleW(nullptr);
  wchar_t wpath[kPathChars];
  if (MultiByteToWideChar(CP_UTF8, 0, path, -1, wpath, kPathChars) == 0) return nullptr;
  HMODULE h = LoadLibraryExW(wpath, nullptr, kLoadFlags);
  // The search flags need an absolute path and a newer loader; fall back.
  if (!h) h = LoadLibraryW(wpath);
  return h;
}

void* dlsym(void* handle, const char* name) {
  FARPROC proc = GetProcAddress(selfOr(handle), name);
  return reinterpret_cast<void*>(proc);
}

int dlclose(void* handle) {
  if (!handle) return 0;
  return FreeLibrary(static_cast<HMODULE>(handle)) ? 0 : 1;
}

char* dlerror() {
  static thread_local char text[256];
  const DWORD code = GetLastError();  // first, before anything can reset it
  wchar_t wmsg[192];
  DWORD wlen = FormatMessageW(kFormatFlags, nullptr, code,
                              MAKELANGID(LANG_NEUTRAL, SUBLANG_DEFAULT), wmsg, 192, nullptr);
  if (wlen > 0) {
    // 3 bytes per UTF-16 unit at most; convert whole, then cut to 255 bytes
    // at a character boundary.
    char utf8[192 * 3 + 1];
    int n = WideCharToMultiByte(CP_UTF8, 0, wmsg, int(wlen), utf8, int(sizeof utf8) - 1, nullptr,
                                nullptr);
    // System texts end in a line break, which a message line adds itself.
    while (n > 0 && (utf8[n - 1] == '\n' || utf8[n - 1] == '\r' || utf8[n - 1] == ' ')) --n;
    if (n > 0) {
      if (n > 255) {
        n = 255;
        while (n > 0 && (static_cast<unsigned char>(utf8[n]) & 0xC0) == 0x80) --n;
      }
      std::memcpy(text, utf8, size_t(n));
      text[n] = '\0';
      return text;
    }
  }
  std::snprintf(text, sizeof text, "Win32 error %lu", static_cast<unsigned long>(code));
  return text;
}

void* mmap(void* address, size_t length, int protection, int flags, int fd, int64_t offset) {
  (void)address;
  (void)protection;
  (void)flags;
  if (fd < 0 || length == 0 || offset < 0) return MAP_FAILED;
  intptr_t os = _get_osfhandle(fd);
  if (os == -1 || os == -2) return MAP_FAILED;  // -2: no stream behind the descriptor

  // A handle of our own, so the caller may close the descriptor at once.
  HANDLE self = GetCurrentProcess();
  HANDLE file = nullptr;
  if (!DuplicateHandle(self, reinterpret_cast<HANDLE>(os), self, &file, 0, FALSE,
                       DUPLICATE_SAME_ACCESS))
    return MAP_FAILED;

  // The mapping must reach the end of the view, not just be `length` long.
  const uint64_t off = uint64_t(offset);
  const uint64_t reach = off + uint64_t(length);
  if (reach < off) {
    CloseHandle(file);
    return MAP_FAILED;
  }
  HANDLE mapping = CreateFileMappingW(file, nullptr, PAGE_READONLY, DWORD(reach >> 32),
                                      DWORD(reach & 0xFFFFFFFFu), nullptr);
  if (!mapping) {
    CloseHandle(file);
    return MAP_FAILED;
  }
  void* view =
      MapViewOfFile(mapping, FILE_MAP_READ, DWORD(off >> 32), DWORD(off & 0xFFFFFFFFu), length);
  if (!view) {
    CloseHandle(mapping);
    CloseHandle(file);
    return MAP_FAILED;
  }
  {
    MapLock lock;
    mapRecs()[view] = MapRec{file, mapping, view, length};
  }
  return view;
}

int munmap(void* address, size_t length) {
  (void)length;
  if (!address) return 0;
  MapRec rec;
  {
    MapLock lock;
    auto& recs = mapRecs();
    auto it = recs.find(address);
    if (it == recs.end()) return 0;
    rec = it->second;
    recs.erase(it);
  }
  UnmapViewOfFile(rec.view);
  CloseHandle(rec.mapping);
  CloseHandle(rec.file);
  return 0;
}

int madvise(void* address, size_t length, int advice) {
  (void)address;
  (void)length;
  (void)advice;
  return 0;
}

namespace {

// `wlen` wide characters as zero-terminated UTF-8 into `buf`; room for the
// terminator is kept back, and a text that does not fit fails as a whole.
int wideToUtf8(const wchar_t* wide, DWORD wlen, char* buf, size_t size) {
  if (!buf || size < 2) return -1;
  int room = size - 1 > size_t(INT_MAX) ? INT_MAX : int(size - 1);
  int n = WideCharToMultiByte(CP_UTF8, 0, wide, int(wlen), buf, room, nullptr, nullptr);
  if (n < 1) return -1;
  buf[n] = '\0';
  return 0;
}

}  // namespace

int zanCompatGetcwd(char* buf, size_t size) {
  wchar_t wdir[kPathChars];
  DWORD wlen = GetCurrentDirectoryW(kPathChars, wdir);
  if (wlen == 0 || wlen > kPathChars - 1) return -1;
  return wideToUtf8(wdir, wlen, buf, size);
}

int zanCompatExePath(char* buf, size_t size) {
  wchar_t wpath[kPathChars];
  DWORD wlen = GetModuleFileNameW(nullptr, wpath, kPathChars);
  // A full buffer means the path was cut short.
  if (wlen == 0 || wlen >= kPathChars) return -1;
  return wideToUtf8(wpath, wlen, buf, size);
}

int zanCompatIsatty(int fd) { return _isatty(fd); }

void zanCompatSleepMs(unsigned ms) { Sleep(ms); }

void zanCompatInitConsole() {
  // Text mode would turn every LF into CR LF; the output is the same bytes
  // as on every other platform. Input keeps text mode: a console line then
  // ends in LF and Ctrl-Z ends the input, as Windows users expect.
  std::fflush(stdout);
  std::fflush(stderr);
  _setmode(_fileno(stdout), _O_BINARY);
  _setmode(_fileno(stderr), _O_BINARY);
  // A console decodes what it is given in its output code page.
  SetConsoleOutputCP(CP_UTF8);
  SetConsoleCP(CP_UTF8);
}

unsigned zanCompatCpuCount() {
  const DWORD n = GetActiveProcessorCount(ALL_PROCESSOR_GROUPS);
  return n > 0 ? unsigned(n) : 1;
}

uint64_t zanCompatMemoryBytes() {
  MEMORYSTATUSEX st;
  st.dwLength = sizeof st;
  return GlobalMemoryStatusEx(&st) ? uint64_t(st.ullTotalPhys) : 0;
}

int zanCompatRename(const char* from, const char* to) {
  wchar_t wfrom[kPathChars], wto[kPathChars];
  if (!from || !to || MultiByteToWideChar(CP_UTF8, 0, from, -1, wfrom, kPathChars) == 0 ||
      MultiByteToWideChar(CP_UTF8, 0, to, -1, wto, kPathChars) == 0)
    return -1;
  return MoveFileExW(wfrom, wto, MOVEFILE_REPLACE_EXISTING) ? 0 : -1;
}

int zanCompatDeviceName(const char* path) {
  if (!path) return 0;
  if (std::strncmp(path, "\\\\.\\", 4) == 0 || std::strncmp(path, "//./", 4) == 0) return 1;
  const char* name = path;
  for (const char* p = path; *p; ++p)
    if (*p == '/' || *p == '\\' || (*p == ':' && p == path + 1)) name = p + 1;
  // The stem: up to the first dot, trailing blanks dropped.
  size_t n = 0;
  while (name[n] && name[n] != '.' && name[n] != ':') ++n;
  while (n > 0 && name[n - 1] == ' ') --n;
  char stem[5] = {};
  if (n < 3 || n > 4) return 0;
  for (size_t i = 0; i < n; ++i) stem[i] = char(name[i] >= 'a' && name[i] <= 'z' ? name[i] - 32 : name[i]);
  if (n == 3) return !std::strcmp(stem, "CON") || !std::strcmp(stem, "PRN") || !std::strcmp(stem, "AUX") ||
                     !std::strcmp(stem, "NUL");
  return (!std::strncmp(stem, "COM", 3) || !std::strncmp(stem, "LPT", 3)) && stem[3] >= '1' && stem[3] <= '9';
}

int zanCompatNetInit() {
  // WSAStartup counts its calls; one successful start lasts the process.
  static const int status = [] {
    WSADATA data;
    return WSAStartup(MAKEWORD(2, 2), &data) == 0 ? 0 : -1;
  }();
  return status;
}

#endif  // _WIN32
