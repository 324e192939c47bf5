#include "packages/sources.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "base/json.h"
#include "packages/pkg_files.h"

#ifndef ZAN_DEFAULT_SERVER
#define ZAN_DEFAULT_SERVER "http://203.0.113.80:8080"
#endif
#ifndef ZAN_GITHUB_API_BASE
#define ZAN_GITHUB_API_BASE "https://api.github.com"
#endif
#ifndef ZAN_GITHUB_RAW_BASE
#define ZAN_GITHUB_RAW_BASE "https://raw.githubusercontent.com"
#endif

namespace tov {

const char kSourcesHeader[] =
    "# ZAN plugin software sources (apt-style; one per line)\n"
    "#   zan <url>                      static repo (<url>/manifest.json + <url>/plugins/*)\n"
    "#   zan <url>.zan                 single-file container source (repo/plugin; plugins+versions+runtime json "
    "inside)\n"
    "#   zan <url> github-topic=<topic> GitHub repos carrying the topic (optional raw=<base>)\n";

const std::string& defaultSourcesText() {
  static const std::string text = std::string(kSourcesHeader) + "zan " ZAN_DEFAULT_SERVER "\n" +
                                  "zan " ZAN_GITHUB_API_BASE " github-topic=zan-plugin raw=" ZAN_GITHUB_RAW_BASE "\n";
  return text;
}

namespace {

std::string envOr(const char* name, const char* fallback) {
  const char* v = std::getenv(name);
  return v ? v : fallback;
}

bool isBlank(char c) { return c == ' ' || c == '\t'; }

}  // namespace

// Lines at 0x0A; a last line without one counts, an empty tail does not.
std::vector<std::string> splitLines(const std::string& text) {
  std::vector<std::string> lines;
  size_t start = 0;
  while (start < text.size()) {
    size_t nl = text.find('\n', start);
    if (nl == std::string::npos) nl = text.size();
    lines.push_back(text.substr(start, nl - start));
    start = nl + 1;
  }
  return lines;
}

namespace {

// Sources out of one older JSON file; empty on any failure.
std::vector<Source> sourcesFromJson(const std::string& path) {
  std::vector<Source> list;
  std::string text;
  if (!readWholeFile(path, text)) return list;
  json::Value root;
  if (!json::parse(text, root, 64).ok() || !root.isObject()) return list;
  const json::Value* arr = root.get("sources");
  if (!arr || !arr->isArray()) return list;
  for (const json::Value& el : arr->items) {
    if (!el.isObject()) continue;
    Source s;
    const json::Value* type = el.get("type");
    s.type = type ? type->asString() : "server";
    for (auto [key, field] : {std::pair{"url", &s.url}, {"raw", &s.raw}, {"topic", &s.topic}})
      if (const json::Value* v = el.get(key)) *field = v->asString();
    if (!s.url.empty()) list.push_back(std::move(s));
  }
  return list;
}

}  // namespace

std::string sourcesConfigPath() {
  if (const char* p = std::getenv("ZAN_SOURCES")) return p;
  return envOr("HOME", "") + "/.zan/sources.list";
}

bool parseSourceLine(const std::string& line, Source& source) {
  std::vector<std::string> words;
  size_t i = 0;
  while (i < line.size()) {
    while (i < line.size() && isBlank(line[i])) ++i;
    const size_t start = i;
    while (i < line.size() && !isBlank(line[i])) ++i;
    if (i > start) words.push_back(line.substr(start, i - start));
  }
  if (words.size() < 2 || (words[0] != "zan" && words[0] != "deb")) return false;
  source = Source{};
  source.url = words[1];
  for (size_t w = 2; w < words.size(); ++w) {
    const size_t eq = words[w].find('=');
    if (eq == std::string::npos) continue;
    const std::string key = words[w].substr(0, eq);
    const std::string value = words[w].substr(eq + 1);
    if (key == "github-topic") {
      source.type = "github-topic";
      if (source.topic.empty()) source.topic = value;
    } else if (key == "topic") {
      source.topic = value;
    } else if (key == "raw") {
      source.raw = value;
    }
  }
  return true;
}

std::vector<Source> parseSourcesText(const std::string& text) {
  std::vector<Source> list;
  for (const std::string& line : splitLines(text)) {
    size_t i = 0;
    while (i < line.size() && isBlank(line[i])) ++i;
    if (i == line.size() || line[i] == '#') continue;
    Source s;
    if (parseSourceLine(line.substr(i), s)) list.push_back(std::move(s));
  }
  return list;
}

std::string sourceLine(const Source& source) {
  std::string line = "zan " + source.url;
  if (source.type == "github-topic") {
    line += " github-topic=" + (source.topic.empty() ? std::string("zan-plugin") : source.topic);
    if (!source.raw.empty()) line += " raw=" + source.raw;
  }
  return line;
}

bool saveSources(const std::vector<Source>& list) {
  const std::string path = sourcesConfigPath();
  mkdirParents(path);
  std::string text = kSourcesHeader;
  for (const Source& s : list) text += sourceLine(s) + "\n";
  return writeFile(path, text);
}

std::vector<Source> loadSources() {
  std::string text;
  if (readWholeFile(sourcesConfigPath(), text)) {
    std::vector<Source> list = parseSourcesText(text);
    if (!list.empty()) return list;
  }
  const std::string home = envOr("HOME", "");
  const std::string xdg = envOr("XDG_CONFIG_HOME", "");
  const std::string older[] = {home + "/.zan/sources.json",
                               (xdg.empty() ? home + "/.config" : xdg) + "/zan/sources.json"};
  for (const std::string& path : older) {
    std::vector<Source> list = sourcesFromJson(path);
    if (list.empty()) continue;
    saveSources(list);  // a failed migration still serves this run
    return list;
  }
  return parseSourcesText(defaultSourcesText());
}

}  // namespace tov

void printSourceUsage(bool chinese) {
  if (chinese) {
    std::fputs("用法: zan source list | reset\n"
               "      zan source add <url> [key=value ...]\n"
               "      zan source remove <子串>\n"
               "  例: zan source add http://192.168.1.20:8080\n"
               "  例: zan source add https://api.github.com github-topic=zan-plugin\n"
               "  例: zan add-source http://10.0.0.5:8080   (顶层别名)\n"
               "  文件: ~/.zan/sources.list (apt 风格, 可手改)\n",
               stderr);
    return;
  }
  std::fputs("usage: zan source list | reset\n"
             "       zan source add <url> [key=value ...]\n"
             "       zan source remove <substring>\n"
             "  e.g. zan source add http://192.168.1.20:8080\n"
             "  e.g. zan source add https://api.github.com github-topic=zan-plugin\n"
             "  e.g. zan add-source http://10.0.0.5:8080   (top alias)\n"
             "  file: ~/.zan/sources.list (apt-style, hand-editable)\n",
             stderr);
}

namespace {

using tov::Source;
using tov::sourcesConfigPath;
using tov::saveSources;
using tov::parseSourcesText;
using tov::defaultSourcesText;

bool langZh(int argc, char** argv) {
  bool zh = false;
  for (int i = 3; i < argc; ++i) {
    if (!std::strcmp(argv[i], "-c") || !std::strcmp(argv[i], "--cn")) zh = true;
    else if (!std::strcmp(argv[i], "-e") || !std::strcmp(argv[i], "--en")) zh = false;
  }
  return zh;
}

int cannotWrite(const std::string& path) {
  std::fprintf(stderr, "zan source: cannot write %s\n", path.c_str());
  return 1;
}

int sourceList() {
  const std::string path = sourcesConfigPath();
  std::FILE* f = std::fopen(path.c_str(), "rb");
  if (!f) {
    if (!saveSources(parseSourcesText(defaultSourcesText()))) return cannotWrite(path);
    f = std::fopen(path.c_str(), "rb");
  }
  if (!f) {
    std::fputs(defaultSourcesText().c_str(), stdout);
    return 0;
  }
  char block[4096];
  size_t n;
  while ((n = std::fread(block, 1, sizeof block, f)) > 0) std::fwrite(block, 1, n, stdout);
  std::fclose(f);
  return 0;
}

int sourceAdd(int argc, char** argv) {
  Source s;
  s.url = argv[3];
  for (int i = 4; i < argc; ++i) {
    const char* eq = std::strchr(argv[i], '=');
    if (!eq) {
      std::fprintf(stderr, "zan source add: expected key=value, got '%s'\n", argv[i]);
      return 2;
    }
    const std::string key(argv[i], static_cast<size_t>(eq - argv[i]));
    if (key == "github-topic") {
      s.type = "github-topic";
      s.topic = eq + 1;
    } else if (key == "raw") {
      s.raw = eq + 1;
    } else if (key == "topic") {
      s.topic = eq + 1;
    } else {
      std::fprintf(stderr, "zan source add: unknown key '%s'\n", key.c_str());
      return 2;
    }
  }
  std::vector<Source> list = tov::loadSources();
  for (const Source& e : list)
    if (e.type == s.type && e.url == s.url && (s.type != "github-topic" || e.topic == s.topic)) {
      std::fprintf(stderr, "zan source: '%s' already present - no change\n", s.url.c_str());
      return 0;
    }
  list.push_back(s);
  if (!saveSources(list)) return cannotWrite(sourcesConfigPath());
  std::printf("added: %s\n", tov::sourceLine(s).c_str());
  return 0;
}

int sourceRemove(const char* needle) {
  const std::string path = sourcesConfigPath();
  std::string text;
  if (!tov::readWholeFile(path, text)) {
    std::fprintf(stderr, "zan source: no %s yet\n", path.c_str());
    return 0;
  }
  size_t matched = 0;
  std::string kept;
  for (const std::string& line : tov::splitLines(text)) {
    if (line.find(needle) != std::string::npos) {
      ++matched;
      continue;
    }
    kept += line + "\n";
  }
  if (matched == 0) {
    std::fprintf(stderr, "zan source: nothing matches '%s'\n", needle);
    return 2;
  }
  if (!saveSources(parseSourcesText(kept))) return cannotWrite(path);
  std::printf("removed %zu matching line(s)\n", matched);
  return 0;
}

}  // namespace

int cmdSource(int argc, char** argv) {
  const bool zh = langZh(argc, argv);
  if (argc < 3) {
    printSourceUsage(zh);
    return 2;
  }
  const std::string sub = argv[2];
  if (sub == "list") return sourceList();
  if (sub == "reset") {
    const std::string path = sourcesConfigPath();
    if (!saveSources(parseSourcesText(defaultSourcesText()))) return cannotWrite(path);
    std::printf("zan source: reset to defaults (%s)\n", path.c_str());
    return 0;
  }
  if ((sub == "add" || sub == "remove") && argc < 4) {
    printSourceUsage(zh);
    return 2;
  }
  if (sub == "add") return sourceAdd(argc, argv);
  if (sub == "remove") return sourceRemove(argv[3]);
  printSourceUsage(zh);
  return 2;
}
