// zan_build: the `zan build` command. Compiles a script with the core's
// compiler and writes the module (.zanb), its listing (.zana) or an app
// container (.zan) with the module as its entry; a directory is packed with
// its compiled main.zs. Outputs go through a temporary name and a rename, so
// a failed build leaves nothing behind.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <sys/stat.h>

#include "bytecode/zanb.h"
#include "container/zan_app.h"
#include "plugin/zan_plugin.h"
#include "script/zans.h"

namespace {

const char kUsage[] =
    "usage: zan build <script.zs> [-o out.zanb|out.zana|out.zan]\n"
    "       zan build <dir> [-o out.zan]\n"
    "  compile a script (main.zs of a directory) to a bytecode module, its listing,\n"
    "  or an app container; without -o the output is <name>.zan here\n";


// The last path element without its last extension (unless the dot begins
// the name); trailing slashes are ignored.
std::string baseName(std::string path) {
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  const size_t slash = path.rfind('/');
  std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
  const size_t dot = name.rfind('.');
  if (dot != std::string::npos && dot != 0) name.erase(dot);
  return name;
}

bool isDirectory(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool readWhole(const std::string& path, std::string& out) {
  FILE* f = std::fopen(path.c_str(), "rb");
  if (!f) return false;
  char block[65536];
  size_t got;
  while ((got = std::fread(block, 1, sizeof block, f)) > 0) out.append(block, got);
  const bool ok = !std::ferror(f);
  std::fclose(f);
  return ok;
}

bool writeWhole(const std::string& path, const void* bytes, size_t size) {
  FILE* f = std::fopen(path.c_str(), "wb");
  if (!f) return false;
  const bool ok = std::fwrite(bytes, 1, size, f) == size;
  return std::fclose(f) == 0 && ok;
}

// The host turns any status but 0 into a "failed" line of its own; a
// command that has already said why it failed ends the process itself.
[[noreturn]] void quit(int code) {
  std::fflush(stdout);
  std::fflush(stderr);
  std::_Exit(code);
}

void say(const std::string& text) { std::fwrite(text.data(), 1, text.size(), stderr); }

int32_t runBuild(void*, int argc, char** argv) {
  std::string input, output;
  for (int i = 1; i < argc; ++i) {
    const char* w = argv[i];
    if (!std::strcmp(w, "-h") || !std::strcmp(w, "--help")) {
      std::fputs(kUsage, stdout);
      return 0;
    }
    if (!std::strcmp(w, "-o") || !std::strcmp(w, "--out")) {
      if (i + 1 >= argc) {
        std::fputs(kUsage, stderr);
        quit(2);
      }
      output = argv[++i];
    } else if (input.empty() && w[0] != '-') {
      input = w;
    } else {
      say(std::string("zan build: unknown option '") + w + "'\n");
      quit(2);
    }
  }
  if (input.empty()) {
    std::fputs(kUsage, stderr);
    quit(2);
  }
  const bool dir = isDirectory(input);
  std::string script = input;
  if (dir) script = (input.ends_with("/") ? input : input + "/") + "main.zs";
  if (output.empty()) output = baseName(input) + ".zan";
  if (!output.ends_with(".zanb") && !output.ends_with(".zana") && !output.ends_with(".zan")) {
    say("zan build: " + output + ": the output must end in .zanb, .zana or .zan\n");
    quit(2);
  }

  std::string source;
  if (!readWhole(script, source)) {
    say("zan build: cannot read " + script + "\n");
    quit(1);
  }
  tov::zanb::Module module;
  std::string err;
  if (!tov::zans::compile(source, module, err)) {
    say("zan build: " + script + ": " + err + "\n");
    quit(1);
  }
  const std::vector<uint8_t> bytes = tov::zanb::writeModule(module);

  const std::string tmp = output + ".tmp";
  bool ok;
  if (output.ends_with(".zanb")) {
    ok = writeWhole(tmp, bytes.data(), bytes.size());
    if (!ok) err = "cannot write " + tmp;
  } else if (output.ends_with(".zana")) {
    const std::string listing = tov::zanb::disassemble(module);
    ok = writeWhole(tmp, listing.data(), listing.size());
    if (!ok) err = "cannot write " + tmp;
  } else {
    // As `zan pack` packs a module or a directory, with the compiled
    // module as the entry.
    tov::zanapp::PackOptions opts;
    std::vector<tov::zanapp::File> files;
    const std::string entry = dir ? "main.zanb" : baseName(input) + ".zanb";
    if (dir) {
      ok = tov::zanapp::collect(input, files, opts, err);
      std::vector<tov::zanapp::File> kept;
      for (tov::zanapp::File& f : files)
        if (f.path != "main.zs" && f.path != entry) kept.push_back(std::move(f));
      files = std::move(kept);
    } else {
      ok = true;
    }
    tov::zanapp::File f;
    f.path = entry;
    f.bytes.assign(bytes.begin(), bytes.end());
    files.push_back(std::move(f));
    opts.entry = entry;
    opts.platform = "zanb";
    opts.name = baseName(input);
    ok = ok && tov::zanapp::pack(tmp, opts, std::move(files), err);
  }
  if (!ok || std::rename(tmp.c_str(), output.c_str()) != 0) {
    std::remove(tmp.c_str());
    say("zan build: " + (err.empty() ? "cannot write " + output : err) + "\n");
    quit(1);
  }
  return 0;
}

const ZANCommand kCommands[] = {{"build", "compile a script to a module, listing or app container", runBuild}};
const ZANPluginInfo kInfo = {kZanPluginAbi, 1, "build", "the script compiler: zan build", kCommands, 1, 0};

}  // namespace

extern "C" {
ZAN_PLUGIN_EXPORT const ZANPluginInfo* zan_plugin_init(const ZANHostAPI*) { return &kInfo; }
}
