#include "packages/container_source.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <sys/stat.h>

#include "base/compat.h"
#include "base/json.h"
#include "container/zan2.h"
#include "packages/http_get.h"
#include "packages/installed.h"
#include "packages/pkg_files.h"

namespace tov {
namespace {

constexpr size_t kCopyBlock = 65536;
constexpr uint32_t kMaxSections = 65536;

bool seekTo(std::FILE* f, uint64_t offset) {
  if (offset > static_cast<uint64_t>(INT64_MAX)) return false;
#ifdef _WIN32
  return _fseeki64(f, static_cast<int64_t>(offset), SEEK_SET) == 0;
#else
  return fseeko(f, static_cast<off_t>(offset), SEEK_SET) == 0;
#endif
}

// -1 when the file does not exist.
int64_t fileSize(const std::string& path) {
  struct stat st;
  if (stat(path.c_str(), &st) != 0) return -1;
  return static_cast<int64_t>(st.st_size);
}

// A name that would leave the directory it is joined to.
bool escapesDir(const std::string& name) { return name.empty() || name[0] == '/' || name.find("..") != std::string::npos; }

// Section 0, bounded by the file's size before anything is allocated.
bool readManifest(const std::string& path, const ZanSec& sec, std::string& out) {
  const int64_t size = fileSize(path);
  if (size < 0 || sec.offset > static_cast<uint64_t>(size) || sec.size > static_cast<uint64_t>(size) - sec.offset)
    return false;
  std::FILE* f = std::fopen(path.c_str(), "rb");
  if (!f) return false;
  out.resize(static_cast<size_t>(sec.size));
  const bool ok = seekTo(f, sec.offset) && (out.empty() || std::fread(out.data(), 1, out.size(), f) == out.size());
  std::fclose(f);
  return ok;
}

std::string str(const json::Value& obj, const char* key) {
  const json::Value* v = obj.get(key);
  return v ? v->asString() : std::string();
}

// The state of one container install.
struct Run {
  const std::string& path;
  const std::string& dir;
  bool force;
  const std::vector<std::string>* names;
  const std::string& origin;
  const std::vector<ZanSec>& sections;
  std::vector<InstalledEntry> state;
  size_t installed = 0;
  size_t failed = 0;

  bool sectionIndex(const json::Value& obj, size_t& index) const {
    const json::Value* s = obj.get("section");
    if (!s) return false;
    const int64_t n = s->asInt(0);
    if (n < 0 || static_cast<uint64_t>(n) >= sections.size()) return false;
    index = static_cast<size_t>(n);
    return true;
  }

  void plugin(const json::Value& obj, size_t i, const std::string& rootVersion) {
    const std::string name = str(obj, "name");
    if (names) {
      bool wanted = false;
      for (const std::string& n : *names) wanted = wanted || n == name;
      if (!wanted) {
        std::printf("skip %s (not selected)\n", name.c_str());
        return;
      }
    }
    const json::Value* files = obj.get("files");
    if (!obj.isObject() || name.empty() || !files || !files->isArray()) {
      std::fprintf(stderr, "zan: manifest plugin[%zu] missing name/files\n", i);
      return;
    }
    InstalledEntry entry{name, str(obj, "version"), origin, str(obj, "desc"), {}};
    if (entry.version.empty()) entry.version = rootVersion;
    bool bad = false;
    for (const json::Value& f : files->items) {
      const std::string fname = f.isObject() ? str(f, "name") : std::string();
      size_t si = 0;
      if (!f.isObject() || escapesDir(fname) || !sectionIndex(f, si)) {
        std::fprintf(stderr, "zan: %s: bad file entry '%s'\n", name.c_str(), fname.c_str());
        bad = true;
        continue;
      }
      const ZanSec& sec = sections[si];
      const json::Value* bytes = f.get("bytes");
      if (bytes && static_cast<uint64_t>(bytes->asInt(0)) != sec.size) {
        std::fprintf(stderr, "zan: %s: size mismatch for %s\n", name.c_str(), fname.c_str());
        bad = true;
        continue;
      }
      const std::string target = dir + "/" + fname;
      const bool present = !force && bytes && fileSize(target) == static_cast<int64_t>(sec.size);
      if (!present) {
        mkdirParents(target);
        if (!zanExtractSection(path, sec, target)) {
          std::fprintf(stderr, "zan: extract failed for %s\n", target.c_str());
          bad = true;
          continue;
        }
      }
      entry.files.push_back(fname);
    }
    if (bad) {
      ++failed;
      return;
    }
    bool replaced = false;
    for (InstalledEntry& e : state)
      if (!replaced && e.name == name) {
        e = entry;
        replaced = true;
      }
    if (!replaced) state.push_back(entry);
    ++installed;
    std::printf("installed %s %s (from %s)\n", name.c_str(), entry.version.c_str(), path.c_str());
  }

  void configs(const json::Value* list) {
    if (!list || !list->isArray()) return;
    const char* home = std::getenv("HOME");
    for (const json::Value& c : list->items) {
      const std::string name = c.isObject() ? str(c, "name") : std::string();
      size_t si = 0;
      if (!c.isObject() || escapesDir(name) || !sectionIndex(c, si)) {
        std::fprintf(stderr, "zan: bad config entry in %s\n", path.c_str());
        ++failed;
        continue;
      }
      const std::string target = std::string(home ? home : ".") + "/.zan/" + name;
      mkdirParents(target);
      if (!zanExtractSection(path, sections[si], target)) {
        std::fprintf(stderr, "zan: config extract failed %s\n", target.c_str());
        ++failed;
        continue;
      }
      std::printf("config %s -> %s\n", name.c_str(), target.c_str());
    }
  }
};

}  // namespace

bool zanContainerProbe(const std::string& path, uint16_t* kind, std::vector<ZanSec>* sections) {
  if (sections) sections->clear();
  std::FILE* f = std::fopen(path.c_str(), "rb");
  if (!f) return false;
  uint8_t head[zan2::kHeaderSize];
  if (std::fread(head, 1, sizeof head, f) != sizeof head || std::memcmp(head, zan2::kMagic, 4) != 0) {
    std::fclose(f);
    return false;
  }
  const zan2::Header h = zan2::decodeHeader(head);
  if (kind) *kind = h.kind;
  if (sections && h.sectionCount >= 1 && h.sectionCount <= kMaxSections) {
    std::vector<uint8_t> table(size_t(h.sectionCount) * zan2::kSectionEntrySize);
    if (seekTo(f, zan2::kHeaderSize) && std::fread(table.data(), 1, table.size(), f) == table.size()) {
      for (uint32_t i = 0; i < h.sectionCount; ++i) {
        const zan2::SectionEntry e = zan2::decodeSection(table.data() + size_t(i) * zan2::kSectionEntrySize);
        sections->push_back({e.type, e.offset, e.size});
      }
    }
  }
  std::fclose(f);
  return true;
}

bool zanExtractSection(const std::string& path, const ZanSec& section, const std::string& target) {
  std::FILE* in = std::fopen(path.c_str(), "rb");
  if (!in) return false;
  if (!seekTo(in, section.offset)) {
    std::fclose(in);
    return false;
  }
  std::FILE* out = std::fopen(target.c_str(), "wb");
  if (!out) {
    std::fclose(in);
    return false;
  }
  std::vector<char> block(kCopyBlock);
  uint64_t left = section.size;
  bool ok = true;
  while (ok && left > 0) {
    const size_t want = left < kCopyBlock ? static_cast<size_t>(left) : kCopyBlock;
    const size_t got = std::fread(block.data(), 1, want, in);
    ok = got == want && std::fwrite(block.data(), 1, got, out) == got;
    left -= got;
  }
  std::fclose(in);
  ok = std::fclose(out) == 0 && ok;
  return ok;
}

std::string zanCachePathFor(const std::string& address) {
  const char* home = std::getenv("HOME");
  const std::string dir = std::string(home ? home : ".") + "/.zan/cache";
  mkdirParents(dir + "/");
  const size_t slash = address.rfind('/');
  std::string name = slash == std::string::npos ? address : address.substr(slash + 1);
  name = name.substr(0, name.find('?'));
  if (name.empty()) name = "container.zan";
  return dir + "/" + name;
}

int installFromZanContainer(const std::string& path, const std::string& dir, bool force,
                            const std::vector<std::string>* names, const std::string* origin) {
  uint16_t kind = 0;
  std::vector<ZanSec> sections;
  const bool probed = zanContainerProbe(path, &kind, &sections);
  if (!probed || sections.empty() || (kind != zan2::kKindRepo && kind != zan2::kKindPlugin)) {
    std::fprintf(stderr, "zan: %s is not an ZAN repo/plugin container (kind=%u, sections=%zu)\n", path.c_str(),
                 unsigned(kind), sections.size());
    return 2;
  }
  std::string text;
  if (!readManifest(path, sections[0], text)) {
    std::fprintf(stderr, "zan: cannot read manifest of %s\n", path.c_str());
    return 1;
  }
  json::Value root;
  if (!json::parse(text, root, 64).ok() || !root.isObject()) {
    std::fprintf(stderr, "zan: bad container manifest in %s\n", path.c_str());
    return 1;
  }
  std::string own;
  if (origin) {
    own = *origin;
  } else if (!path.empty() && path[0] == '/') {
    own = "zan://" + path;
  } else {
    char cwd[4096];
    own = zanCompatGetcwd(cwd, sizeof cwd) == 0 ? "zan://" + std::string(cwd) + "/" + path : "zan://" + path;
  }

  Run run{path, dir, force, names, own, sections, loadInstalled()};
  const std::string mkind = str(root, "kind");
  const std::string rootVersion = str(root, "version");
  std::vector<std::string> held;  // the package names this container holds
  if (mkind == "plugin") {
    run.plugin(root, 0, rootVersion);
    held.push_back(str(root, "name"));
  } else if (mkind == "repo") {
    const json::Value* plugins = root.get("plugins");
    if (!plugins || !plugins->isArray() || plugins->items.empty()) {
      std::fputs("zan: repo container has no plugins\n", stderr);
      return 1;
    }
    for (size_t i = 0; i < plugins->items.size(); ++i) {
      run.plugin(plugins->items[i], i, rootVersion);
      held.push_back(str(plugins->items[i], "name"));
    }
    run.configs(root.get("configs"));
  } else {
    std::fprintf(stderr, "zan: unexpected container kind '%s'\n", mkind.c_str());
    return 1;
  }

  // What an earlier version of this container installed and this one lacks.
  for (size_t i = 0; i < run.state.size();) {
    const InstalledEntry& e = run.state[i];
    bool keep = e.origin != own;
    for (const std::string& h : held) keep = keep || h == e.name;
    if (keep) {
      ++i;
      continue;
    }
    for (const std::string& f : e.files)
      if (!escapesDir(f)) std::remove((dir + "/" + f).c_str());  // a damaged state names nothing outside dir
    run.state.erase(run.state.begin() + static_cast<std::ptrdiff_t>(i));
  }

  saveInstalled(run.state);
  std::printf("zan: %s: %zu installed/updated, %zu failed (container %s)\n", path.c_str(), run.installed,
              run.failed, mkind.c_str());
  if (names && run.installed == 0 && run.failed == 0) {
    std::fputs("zan: no plugin in container matches the request\n", stderr);
    return 2;
  }
  return run.failed > 0 ? 1 : 0;
}

int installContainerUrl(const std::string& url, const std::string& dir, bool force,
                        const std::vector<std::string>* names, bool listOnly, bool& served) {
  std::string body;
  if (!httpGetAnyHdr(url, "", body)) {
    std::fprintf(stderr, "zan: cannot fetch container source %s\n", url.c_str());
    return 1;
  }
  const std::string path = zanCachePathFor(url);
  if (!writeFile(path, body)) {
    std::fprintf(stderr, "zan: cannot cache %s\n", path.c_str());
    return 1;
  }
  std::fprintf(stderr, "zan: container source %s -> %s\n", url.c_str(), path.c_str());
  if (listOnly) {
    std::printf("  container: %s (plugins bundled; run zan install to materialize)\n", url.c_str());
    served = true;
    return 0;
  }
  const std::string origin = "zan://" + url;
  const int rc = installFromZanContainer(path, dir, force, names, &origin);
  if (rc == 0) served = true;
  return rc;
}

}  // namespace tov
