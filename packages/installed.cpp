#include "packages/installed.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <dirent.h>

#include "base/json.h"
#include "packages/pkg_files.h"
#include "packages/sources.h"

namespace tov {
namespace {

// jsonEsc2 leaves control bytes raw, which the reader refuses; a desc with a
// newline must not make the whole state unreadable.
std::string esc(const std::string& text) {
  std::string out;
  for (char c : jsonEsc2(text)) {
    const unsigned char u = static_cast<unsigned char>(c);
    if (u < 0x20) {
      char buf[8];
      std::snprintf(buf, sizeof buf, "\\u%04x", u);
      out += buf;
    } else {
      out.push_back(c);
    }
  }
  return out;
}

}  // namespace

std::string installedStatePath() {
  const std::string src = sourcesConfigPath();
  const size_t slash = src.rfind('/');
  return (slash == std::string::npos ? src : src.substr(0, slash + 1)) + "installed.json";
}

std::vector<InstalledEntry> loadInstalled() {
  std::vector<InstalledEntry> list;
  std::string text;
  if (!readWholeFile(installedStatePath(), text)) return list;
  json::Value root;
  if (!json::parse(text, root, 64).ok() || !root.isObject()) return list;
  const json::Value* plugins = root.get("plugins");
  if (!plugins || !plugins->isArray()) return list;
  for (const json::Value& el : plugins->items) {
    InstalledEntry e;
    for (auto [key, field] : {std::pair{"name", &e.name},
                              {"version", &e.version},
                              {"origin", &e.origin},
                              {"desc", &e.desc}})
      if (const json::Value* v = el.get(key)) *field = v->asString();
    if (e.name.empty()) continue;
    if (const json::Value* files = el.get("files"); files && files->isArray())
      for (const json::Value& f : files->items) e.files.push_back(f.asString());
    list.push_back(std::move(e));
  }
  return list;
}

std::string installedText(const std::vector<InstalledEntry>& list) {
  std::string text = "{\n  \"plugins\": [\n";
  for (size_t i = 0; i < list.size(); ++i) {
    const InstalledEntry& e = list[i];
    text += "    {\"name\":\"" + esc(e.name) + "\",\"version\":\"" + esc(e.version) + "\",\"origin\":\"" +
            esc(e.origin) + "\",\"desc\":\"" + esc(e.desc) + "\",\"files\":[";
    for (size_t f = 0; f < e.files.size(); ++f) text += (f ? ",\"" : "\"") + esc(e.files[f]) + "\"";
    text += i + 1 < list.size() ? "]},\n" : "]}\n";
  }
  return text + "  ]\n}\n";
}

void saveInstalled(const std::vector<InstalledEntry>& list) {
  const std::string path = installedStatePath();
  mkdirParents(path);
  writeFile(path, installedText(list));
}

}  // namespace tov

namespace {

std::string cut(const std::string& s, size_t over, size_t keep) {
  return s.size() > over ? s.substr(0, keep) + "..." : s;
}

bool unmanagedName(const std::string& n) {
  return n.size() > 3 && n.compare(n.size() - 3, 3, ".so") == 0 &&
         (n.rfind("libzan_", 0) == 0 || n.rfind("zan_", 0) == 0);
}

}  // namespace

void cmdInstalledLs(int argc, char** argv) {
  bool all = false;
  for (int i = 3; i < argc; ++i) {
    if (!std::strcmp(argv[i], "-a") || !std::strcmp(argv[i], "--all")) all = true;
    if (!std::strcmp(argv[i], "-h") || !std::strcmp(argv[i], "--help")) {
      std::fputs("usage: zan ls plugins [-a]  (alias: zan plugin ls [-a])\n"
                 "  -a, --all  also expand the .so files of every package (plus version/source)\n",
                 stdout);
      return;
    }
  }
  std::vector<tov::InstalledEntry> rows = tov::loadInstalled();
  if (!all) {
    for (const tov::InstalledEntry& e : rows)
      std::printf("%-24s %s\n", e.name.c_str(), e.desc.empty() ? "-" : cut(e.desc, 56, 53).c_str());
    std::printf("total: %zu installed package(s) (use `zan ls plugins -a` for files)\n", rows.size());
    return;
  }
  for (tov::InstalledEntry& e : rows)
    if (e.version.empty()) e.version = "?";
  if (const char* home = std::getenv("HOME")) {
    if (DIR* d = opendir((std::string(home) + "/.zan/plugin").c_str())) {
      const size_t managed = rows.size();
      while (dirent* de = readdir(d)) {
        const std::string n = de->d_name;
        if (!unmanagedName(n)) continue;
        bool listed = false;
        for (size_t r = 0; r < managed && !listed; ++r)
          for (const std::string& f : rows[r].files) listed = listed || f == n;
        if (!listed) rows.push_back({n, "?", "unmanaged", "", {n}});
      }
      closedir(d);
    }
  }
  std::printf("%-24s %-10s %-10s %6s  %s\n", "name", "version", "source", "files", "desc");
  for (const tov::InstalledEntry& r : rows) {
    std::printf("%-24s %-10s %-10s %6zu  %s\n", r.name.c_str(), r.version.c_str(),
                r.origin.empty() ? "-" : r.origin.substr(0, 20).c_str(), r.files.size(), cut(r.desc, 44, 41).c_str());
    for (const std::string& f : r.files) std::printf("    %s\n", f.c_str());
  }
  std::printf("total: %zu installed package(s)\n", rows.size());
}
