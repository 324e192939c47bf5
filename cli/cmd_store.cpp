// `zan store`: finds the software store and starts it. The store is an
// application of its own: a bytecode app that runs in this process, or an
// older native build that is only started. cmdStore walks the forms in a
// fixed order and takes the first it finds; it loads no plugin.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>
#ifndef _WIN32
#include <spawn.h>
#endif

#include "base/compat.h"
#include "cli/commands.h"

#ifndef _WIN32
extern char** environ;
#endif

namespace {

const char kStoreUsage[] =
    "usage: zan store [--zan <store.zan>]\n"
    "  launch the ZAN software store (zan-store, Flutter).\n"
    "  resolution order:\n"
    "    --zan <file>            app container (extract + run)\n"
    "    ~/.zan/apps/zan-store.zan  store compiled by zan build\n"
    "    $ZAN_STORE_APP          path to the store executable\n"
    "    ~/.zan/apps/zan-store   previously extracted store\n"
    "    repo build bundle       apps/zan_store build output\n";


bool isRegularFile(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

std::string envText(const char* name) {
  const char* v = std::getenv(name);
  return v ? v : "";
}

// Starts `path` as a process of its own and does not wait for it. It runs
// in its own directory, where a bundled build keeps its data, so what it
// writes relative to its working directory stays inside the store.
bool launch(const std::string& path, std::string& err) {
#ifdef _WIN32
  const std::string cmd = "start \"\" \"" + path + "\"";
  if (std::system(cmd.c_str()) == 0) return true;
  err = "the shell could not start it";
  return false;
#else
  char cwd[4096];
  if (zanCompatGetcwd(cwd, sizeof cwd) != 0) {
    err = "cannot read the working directory";
    return false;
  }
  const std::string full = path[0] == '/' ? path : std::string(cwd) + "/" + path;
  const size_t slash = full.rfind('/');
  const std::string dir = slash == 0 ? "/" : full.substr(0, slash);
  // Change our own directory around the spawn: one thread, and no
  // working-directory action in portable posix_spawn.
  if (chdir(dir.c_str()) != 0) {
    err = std::strerror(errno);
    return false;
  }
  char* argv[] = {const_cast<char*>(full.c_str()), nullptr};
  pid_t pid;
  std::fflush(stdout);
  std::fflush(stderr);
  const int rc = posix_spawn(&pid, full.c_str(), nullptr, nullptr, argv, environ);
  const bool back = chdir(cwd) == 0;
  if (rc != 0) err = std::strerror(rc);
  return rc == 0 && back;
#endif
}

// Whether `a` was modified at the same time as `b` or later.
bool notOlder(const struct stat& a, const struct stat& b) {
#ifdef _WIN32
  return a.st_mtime >= b.st_mtime;
#else
  if (a.st_mtim.tv_sec != b.st_mtim.tv_sec) return a.st_mtim.tv_sec > b.st_mtim.tv_sec;
  return a.st_mtim.tv_nsec >= b.st_mtim.tv_nsec;
#endif
}

int startStore(const std::string& path) {
  std::string err;
  if (launch(path, err)) return 0;
  std::fprintf(stderr, "zan store: cannot start %s: %s\n", path.c_str(), err.c_str());
  return 1;
}

}  // namespace

std::string exeDirOf() {
  char exe[4096];
  if (zanCompatExePath(exe, sizeof exe) != 0) return {};
  const std::string path = exe;
  const size_t sep = path.find_last_of("\\/");
  return sep == std::string::npos ? "." : path.substr(0, sep);
}

std::string findExecutableIn(const std::string& dir) {
  DIR* d = opendir(dir.c_str());
  if (!d) return {};
  std::string found;
  while (dirent* e = readdir(d)) {
    const std::string name = e->d_name;
    if (name == "." || name == "..") continue;
    if (name.ends_with(".so")) continue;
    if (name.find('.') != std::string::npos && !(name.size() > 3 && name.ends_with(".sh"))) continue;
    const std::string path = dir + "/" + name;
    struct stat st;
    if (stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode) || !(st.st_mode & 0111)) continue;
    found = path;
    break;
  }
  closedir(d);
  return found;
}

int cmdStore(int argc, char** argv) {
  std::string zanb, zan;
  for (int i = 2; i < argc; i += 2) {
    const char* w = argv[i];
    if (!std::strcmp(w, "-h") || !std::strcmp(w, "--help")) {
      std::fputs(kStoreUsage, stdout);
      return 0;
    }
    std::string* value = !std::strcmp(w, "--zanb") ? &zanb : !std::strcmp(w, "--zan") ? &zan : nullptr;
    if (!value || i + 1 >= argc) {
      std::fprintf(stderr, "zan store: unknown option '%s'\n", w);
      return 2;
    }
    *value = argv[i + 1];
  }

  // The bytecode store wins over every other form, `--zan` included.
  const std::string exeDir = exeDirOf();
  const std::string candidates[] = {zanb,
                                    envText("ZAN_STORE_ZANB"),
                                    exeDir + "/store.zan",
                                    exeDir + "/../apps/store.zan",
                                    exeDir + "/store.zanb",
                                    "dist/apps/store.zan"};
  for (const std::string& c : candidates) {
    if (c.empty() || !isRegularFile(c)) continue;
    std::printf("zan store: running %s\n", c.c_str());
    std::fflush(stdout);
    if (c.ends_with(".zanb")) return cmdRunModuleFile(c.c_str(), argc, argv, 2);
    return cmdRunAppContainer(c.c_str(), argc, argv, 2);
  }

  const std::string base = envText("HOME") + "/.zan/apps/zan-store";
  std::string container = zan;
  struct stat st;
  if (container.empty() && stat((base + ".zan").c_str(), &st) == 0) container = base + ".zan";

  if (container.empty()) {
    const std::string app = envText("ZAN_STORE_APP");
    if (!app.empty()) return startStore(app);
    if (std::string exe = findExecutableIn(base); !exe.empty()) return startStore(exe);
    const size_t cut = exeDir.find("/build");
    const std::string root = cut == std::string::npos ? exeDir : exeDir.substr(0, cut);
    const std::string bundle = "/build/linux/x64/release/bundle";
    if (std::string exe = findExecutableIn(root + "/apps/zan_store" + bundle); !exe.empty())
      return startStore(exe);
    std::string flutter = envText("ZAN_FLUTTER");
    if (flutter.empty()) flutter = envText("HOME") + "/.flutter/bin/flutter";
    if (isRegularFile(flutter) && access(flutter.c_str(), X_OK) == 0) {
      std::fputs("zan store: building store (flutter build linux --release)...\n", stderr);
      const std::string app = root + "/apps/zan_store";
      const std::string cmd = "cd " + app + " && " + flutter + " build linux --release 2>&1";
      std::fflush(stdout);
      if (std::system(cmd.c_str()) == 0)
        if (std::string exe = findExecutableIn(app + bundle); !exe.empty()) return startStore(exe);
    }
    std::fputs(
        "zan store: no store found. Build it first:\n"
        "  cd apps/zan_store && flutter build linux --release\n"
        "then `zan store` (or: zan store --zan zan-store.zan)\n",
        stderr);
    return 1;
  }

  // Extract the container unless what was extracted before is as new as it.
  const std::string pack = exeDir + "/zan_flutter_pack";
  std::string exe = findExecutableIn(base);
  struct stat exeSt, boxSt;
  const bool current = !exe.empty() && stat(exe.c_str(), &exeSt) == 0 && stat(container.c_str(), &boxSt) == 0 &&
                       notOlder(exeSt, boxSt);
  if (!current) {
    const std::string cmd = pack + " extract " + container + " " + base;
    std::fflush(stdout);
    if (std::system(cmd.c_str()) != 0) {
      std::fprintf(stderr, "zan store: extract failed (%s not usable? install zan_flutter_pack next to zan)\n",
                   pack.c_str());
      return 1;
    }
    exe = findExecutableIn(base);
    if (exe.empty()) {
      std::fprintf(stderr, "zan store: no executable in %s\n", base.c_str());
      return 1;
    }
  }
  return startStore(exe);
}
