// The commands on app containers: `pack` makes one from a module, a single
// program or a directory; `appinfo` shows its manifest; `pack-apk` hands it
// to an outside script; and `run` of a container executes its bytecode
// entry straight from memory.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <sys/stat.h>
#include <unistd.h>

#include "base/compat.h"
#include "base/json.h"
#include "bytecode/zanb.h"
#include "cli/commands.h"
#include "container/zan_app.h"

using tov::zanapp::File;
using tov::zanapp::PackOptions;

namespace {


std::string afterLastSlash(const std::string& path) {
  const size_t slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

// The name behind the last "/" without its last extension, unless the dot
// begins the name.
std::string baseName(const std::string& path) {
  std::string name = afterLastSlash(path);
  const size_t dot = name.rfind('.');
  if (dot != std::string::npos && dot != 0) name.erase(dot);
  return name;
}

bool isDirectory(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

// The manifest's string under `key`: a member of another kind reads as "".
std::string manifestStr(const tov::json::Value& v, const char* key, const std::string& fallback = "") {
  const tov::json::Value* m = v.get(key);
  return m ? m->asString() : fallback;
}

}  // namespace

int cmdPackApp(int argc, char** argv) {
  std::string input, output, name, version = "0.1.0", desc, assets;
  bool haveDesc = false;
  for (int i = 2; i < argc; ++i) {
    const char* w = argv[i];
    const bool hasValue = i + 1 < argc;
    if (hasValue && (!std::strcmp(w, "-o") || !std::strcmp(w, "--out"))) output = argv[++i];
    else if (hasValue && !std::strcmp(w, "--name")) name = argv[++i];
    else if (hasValue && !std::strcmp(w, "--version")) version = argv[++i];
    else if (hasValue && !std::strcmp(w, "--desc")) desc = argv[++i], haveDesc = true;
    else if (hasValue && !std::strcmp(w, "--assets")) assets = argv[++i];
    else if (input.empty()) input = w;
    else {
      std::fprintf(stderr, "zan pack: unknown option '%s'\n", w);
      return 2;
    }
  }
  if (input.empty()) {
    std::fputs("usage: zan pack <module.zanb|appdir> [-o out.zan] [--assets DIR] [--name N] [--version V] "
               "[--desc TEXT]\n",
               stderr);
    return 2;
  }
  if (output.empty()) output = baseName(input) + ".zan";
  for (const std::string* p : {&input, &output})
    if (zanCompatDeviceName(p->c_str())) {
      std::fprintf(stderr, "zan pack: %s names a device, not a file\n", p->c_str());
      return 1;
    }

  PackOptions opts;
  std::vector<File> files;
  std::string err;
  if (isDirectory(input)) {
    if (!tov::zanapp::collect(input, files, opts, err)) {
      std::fprintf(stderr, "zan pack: %s\n", err.c_str());
      return 1;
    }
  } else {
    File f;
    FILE* in = std::fopen(input.c_str(), "rb");
    bool ok = in != nullptr;
    if (in) {
      char block[65536];
      size_t got;
      while ((got = std::fread(block, 1, sizeof block, in)) > 0) f.bytes.append(block, got);
      ok = !std::ferror(in);
      std::fclose(in);
    }
    if (!ok) {
      std::fprintf(stderr, "zan pack: cannot read %s\n", input.c_str());
      return 1;
    }
    f.path = afterLastSlash(input);
    f.mode = 0644;
    opts.entry = f.path;
    opts.platform = input.ends_with(".zana") || input.ends_with(".zanb") ? "zanb" : "linux";
    files.push_back(std::move(f));
  }
  if (!assets.empty()) {
    PackOptions assetOpts;
    std::vector<File> extra;
    if (!tov::zanapp::collect(assets, extra, assetOpts, err)) {
      std::fprintf(stderr, "zan pack: assets: %s\n", err.c_str());
      return 1;
    }
    for (File& f : extra)
      if (f.path != opts.entry) files.push_back(std::move(f));
  }
  opts.name = name.empty() ? baseName(input) : name;
  opts.version = version;
  if (haveDesc) opts.desc = desc;
  if (opts.entry.empty()) opts.entry = files.front().path;
  uint64_t payload = 0;
  for (const File& f : files) payload += f.bytes.size();
  const size_t count = files.size();
  if (!tov::zanapp::pack(output, opts, std::move(files), err)) {
    std::fprintf(stderr, "zan pack: %s\n", err.c_str());
    return 1;
  }
  std::printf("zan pack: %s -> %s (%s %s, entry=%s, %zu files, %llu B payload)\n", input.c_str(), output.c_str(),
              opts.name.c_str(), opts.version.c_str(), opts.entry.c_str(), count,
              static_cast<unsigned long long>(payload));
  return 0;
}

int cmdPackApk(int argc, char** argv) {
  if (argc < 3) {
    std::fputs("usage: zan pack-apk <app.zan> [-o out.apk] [--name N] [--package com.example.app]\n"
               "  wrap an ZANB .zan into an Android APK (arm64-v8a + x86_64)\n",
               stderr);
    return 2;
  }
  const std::string app = argv[2];
  std::string output, name, package;
  bool haveName = false, havePackage = false;
  for (int i = 3; i < argc; i += 2) {
    const char* w = argv[i];
    const bool known = !std::strcmp(w, "-o") || !std::strcmp(w, "--out") || !std::strcmp(w, "--name") ||
                       !std::strcmp(w, "--package");
    if (!known) {
      std::fprintf(stderr, "zan pack-apk: unknown option '%s'\n", w);
      return 2;
    }
    if (i + 1 >= argc) return 2;
    const char* v = argv[i + 1];
    if (!std::strcmp(w, "--name")) name = v, haveName = true;
    else if (!std::strcmp(w, "--package")) package = v, havePackage = true;
    else output = v;
  }
  if (output.empty()) {
    const size_t dot = app.rfind('.');
    output = (dot == std::string::npos ? app : app.substr(0, dot)) + ".apk";
  }
  std::vector<std::string> candidates;
  if (const char* env = std::getenv("ZAN_APK_SCRIPT"); env && *env) candidates.push_back(env);
  char exe[4096];
  if (zanCompatExePath(exe, sizeof exe) == 0) {
    std::string dir = exe;
    const size_t slash = dir.find_last_of("/\\");
    dir = slash == std::string::npos ? "." : dir.substr(0, slash);
    for (const char* rel : {"/build-apk.sh", "/../scripts/build-apk.sh", "/../../scripts/build-apk.sh"})
      candidates.push_back(dir + rel);
  }
  candidates.push_back("./scripts/build-apk.sh");
  const std::string* script = nullptr;
  for (const std::string& c : candidates)
    if (access(c.c_str(), X_OK) == 0) {
      script = &c;
      break;
    }
  if (!script) {
    std::fputs("zan pack-apk: build-apk.sh not found (set $ZAN_APK_SCRIPT)\n", stderr);
    return 1;
  }
  std::string cmd = *script + " " + app + " " + output;
  if (haveName) cmd += " --name '" + name + "'";
  if (havePackage) cmd += " --package '" + package + "'";
  std::fflush(stdout);
  return std::system(cmd.c_str()) == 0 ? 0 : 1;
}

int cmdAppInfo(int argc, char** argv) {
  bool json = false;
  const char* path = nullptr;
  for (int i = 2; i < argc; ++i) {
    if (!std::strcmp(argv[i], "--json")) {
      json = true;
    } else if (!path) {
      path = argv[i];
    } else {
      std::fprintf(stderr, "zan appinfo: unknown argument '%s'\n", argv[i]);
      return 2;
    }
  }
  if (!path) {
    std::fputs("usage: zan appinfo <app.zan> [--json]\n", stderr);
    return 2;
  }
  std::string manifest, err;
  std::vector<File> files;
  if (zanCompatDeviceName(path)) {
    std::fprintf(stderr, "zan appinfo: %s names a device, not a file\n", path);
    return 1;
  }
  if (!tov::zanapp::read(path, manifest, files, err)) {
    std::fprintf(stderr, "zan appinfo: %s\n", err.c_str());
    return 1;
  }
  if (json) {
    std::fwrite(manifest.data(), 1, manifest.size(), stdout);
    std::fputs("\n", stdout);
    return 0;
  }
  tov::json::Value v;
  if (!tov::json::parse(manifest, v).ok() || !v.isObject()) {
    std::fprintf(stderr, "zan appinfo: %s carries no manifest object\n", path);
    return 1;
  }
  uint64_t payload = 0;
  for (const File& f : files) payload += f.bytes.size();
  std::printf("name:     %s\n", manifestStr(v, "name").c_str());
  std::printf("version:  %s\n", manifestStr(v, "version").c_str());
  std::printf("kind:     %s\n", manifestStr(v, "kind", "app").c_str());
  std::printf("platform: %s\n", manifestStr(v, "platform").c_str());
  std::printf("entry:    %s\n", manifestStr(v, "entry").c_str());
  const std::string desc = manifestStr(v, "desc");
  if (!desc.empty()) std::printf("desc:     %s\n", desc.c_str());
  std::printf("files:    %zu\n", files.size());
  std::printf("payload:  %llu\n", static_cast<unsigned long long>(payload));
  struct stat st;
  if (stat(path, &st) == 0) std::printf("size:     %lld\n", static_cast<long long>(st.st_size));
  return 0;
}

int cmdRunAppContainer(const char* path, int argc, char** argv, int firstArg) {
  std::string manifest, err;
  std::vector<File> files;
  if (!tov::zanapp::read(path, manifest, files, err)) {
    std::fprintf(stderr, "zan run: %s: %s\n", path, err.c_str());
    return 1;
  }
  std::string entry, platform;
  tov::jsonStringField(manifest, "entry", entry);
  tov::jsonStringField(manifest, "platform", platform);  // read, but it changes nothing here
  const File* chosen = nullptr;
  if (!entry.empty())
    for (const File& f : files)
      if (f.path == entry) {
        chosen = &f;
        break;
      }
  if (!chosen)
    for (const File& f : files)
      if (f.path.ends_with(".zanb") || f.path.ends_with(".zana")) {
        chosen = &f;
        break;
      }
  if (!chosen) {
    std::fprintf(stderr,
                 "zan run: %s has no runnable entry (entry='%s').\n"
                 "  The core executes ZANB entries; native bundles are launched by the store.\n",
                 path, entry.c_str());
    return 2;
  }
  std::vector<std::string> args{entry.empty() ? chosen->path : entry};
  for (int i = firstArg; i < argc; ++i) args.emplace_back(argv[i]);
  const std::string& bytes = chosen->bytes;
  if (bytes.size() >= 4 && std::memcmp(bytes.data(), tov::zanb::kMagic, 4) == 0)
    return runZanbBlob(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size(), args, path);
  tov::zanb::Module m;
  if (!tov::zanb::assemble(bytes, m, err)) {
    std::fprintf(stderr, "zan run: entry '%s' is not ZAN bytecode\n", chosen->path.c_str());
    return 2;
  }
  const std::vector<uint8_t> blob = tov::zanb::writeModule(m);
  return runZanbBlob(blob.data(), blob.size(), args, path);
}
