#include "packages/remove_upgrade.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "packages/cmd_install.h"
#include "packages/container_source.h"
#include "packages/discovery.h"
#include "packages/http_get.h"
#include "packages/install_pipeline.h"
#include "packages/pkg_files.h"
#include "packages/sha256.h"
#include "packages/sources.h"

namespace tov {

std::vector<size_t> matchInstalled(const std::vector<InstalledEntry>& list, const std::string& word, bool& ambiguous) {
  std::vector<size_t> hits;
  bool exact = false;
  for (size_t i = 0; i < list.size(); ++i) {
    if (list[i].name == word) {
      if (!exact) hits.clear();
      exact = true;
      hits.push_back(i);
    } else if (!exact && list[i].name.find(word) != std::string::npos) {
      hits.push_back(i);
    }
  }
  ambiguous = !exact && hits.size() > 1;
  return hits;
}

namespace {

const char kRemoveUsage[] =
    "usage: zan remove <name ...> [--dir DIR] [-y]\n"
    "  names: installed package names (substring match; an exact match wins)\n"
    "  files shared with other installed packages are kept\n"
    "  --dir   install dir (default $HOME/.zan/plugin)\n"
    "  -y, --yes  skip the confirmation prompt\n";

const char kUpgradeUsage[] =
    "usage: zan upgrade [name ...] [--dir DIR] [-y]\n"
    "  no names: upgrade every installed package that has a newer version\n"
    "  names:    upgrade only the matching installed packages\n"
    "  --dir     install dir (default $HOME/.zan/plugin)\n"
    "  -y, --yes skip the confirmation prompt\n";

struct Args {
  std::vector<std::string> names;
  std::string dir;
  bool haveDir = false;
  bool assumeYes = false;
};

// The shared options of remove and upgrade. Gives -1 to go on, else the
// exit code.
int readArgs(int argc, char** argv, const char* usage, Args& a) {
  for (int i = 2; i < argc; ++i) {
    const char* w = argv[i];
    if (!std::strcmp(w, "--dir")) {
      if (i + 1 >= argc) {
        std::fputs("zan: --dir needs a value\n", stderr);
        return 2;
      }
      a.dir = argv[++i];
      a.haveDir = true;
    } else if (!std::strcmp(w, "-y") || !std::strcmp(w, "--yes")) {
      a.assumeYes = true;
    } else if (!std::strcmp(w, "-h") || !std::strcmp(w, "--help")) {
      std::fputs(usage, stdout);
      return 0;
    } else if (w[0] == '-') {
      std::fprintf(stderr, "zan: unknown option '%s'\n", w);
      return 2;
    } else {
      a.names.push_back(w);
    }
  }
  return -1;
}

// Without --dir the directory is $HOME/.zan/plugin.
bool dirFromHome(Args& a) {
  if (a.haveDir) return true;
  const char* home = std::getenv("HOME");
  if (!home) {
    std::fputs("zan: HOME not set; use --dir\n", stderr);
    return false;
  }
  a.dir = std::string(home) + "/.zan/plugin";
  return true;
}

void printAmbiguous(const std::vector<InstalledEntry>& list, const std::string& word, const std::vector<size_t>& hits) {
  std::fprintf(stderr, "zan: '%s' is ambiguous, matches:", word.c_str());
  for (size_t i : hits) std::fprintf(stderr, " %s", list[i].name.c_str());
  std::fputs(" (use the full name)\n", stderr);
}

const char* orQuestion(const std::string& s) { return s.empty() ? "?" : s.c_str(); }

// A recorded file name that stays inside the install directory. The state
// is our own file, but a hand-edited one must not make remove delete
// elsewhere.
bool insideDir(const std::string& file) {
  return !file.empty() && file[0] != '/' && file.find("..") == std::string::npos &&
         file.find('\\') == std::string::npos;
}

bool listsFile(const InstalledEntry& e, const std::string& file) {
  for (const std::string& f : e.files)
    if (f == file) return true;
  return false;
}

}  // namespace

int cmdRemove(int argc, char** argv) {
  Args a;
  if (const int rc = readArgs(argc, argv, kRemoveUsage, a); rc >= 0) return rc;
  if (a.names.empty()) {
    std::fputs("usage: zan remove <name ...> (zan plugin ls)\n", stderr);
    return 2;
  }
  if (!dirFromHome(a)) return 2;

  std::vector<InstalledEntry> list = loadInstalled();
  std::vector<bool> marked(list.size(), false);
  int rc = 0;
  size_t nMarked = 0;
  for (const std::string& name : a.names) {
    bool ambiguous;
    const std::vector<size_t> hits = matchInstalled(list, name, ambiguous);
    if (hits.empty()) {
      std::fprintf(stderr, "zan: package '%s' not installed (plugin ls)\n", name.c_str());
      rc = 1;
    } else if (ambiguous) {
      printAmbiguous(list, name, hits);
      rc = 1;
    } else {
      for (size_t i : hits) nMarked += !marked[i], marked[i] = true;
    }
  }
  if (!nMarked) return rc;

  if (shouldPrompt(a.assumeYes)) {
    std::printf("The following package(s) will be removed (%s):\n", a.dir.c_str());
    for (size_t i = 0; i < list.size(); ++i) {
      if (!marked[i]) continue;
      std::printf("  %s %s\n", list[i].name.c_str(), orQuestion(list[i].version));
      if (!list[i].desc.empty()) std::printf("      %s\n", list[i].desc.c_str());
    }
    std::printf("Remove %zu package(s)? [y/N] ", nMarked);
    std::fflush(stdout);
    if (!readYes()) {
      std::puts("zan: remove aborted");
      return 1;
    }
  }

  // Files go first and the record after, so an interrupted run leaves
  // entries whose files are gone, which upgrade finds due again, and never
  // files that nothing records.
  size_t deleted = 0;
  std::vector<InstalledEntry> kept;
  for (size_t i = 0; i < list.size(); ++i) {
    if (!marked[i]) continue;
    for (const std::string& f : list[i].files) {
      bool shared = false;
      for (size_t j = 0; j < list.size() && !shared; ++j) shared = !marked[j] && listsFile(list[j], f);
      if (shared || !insideDir(f)) continue;
      if (std::remove((a.dir + "/" + f).c_str()) == 0) ++deleted;
    }
    std::printf("removed %s (%zu files)\n", list[i].name.c_str(), list[i].files.size());
  }
  for (size_t i = 0; i < list.size(); ++i)
    if (!marked[i]) kept.push_back(std::move(list[i]));
  saveInstalled(kept);
  std::printf("zan: %zu removed, %zu files deleted\n", nMarked, deleted);
  return rc;
}

namespace {

// What the sources offer, read once with no retries and no containers.
std::vector<SourceManifest> readOffers() {
  std::vector<SourceManifest> offers;
  for (const Source& src : loadSources()) {
    std::string error;
    if (src.type == "server") {
      if (!fetchServerManifest(src, offers, error))
        std::fprintf(stderr, "zan: source %s failed: %s\n", src.url.c_str(), error.c_str());
    } else if (src.type == "github-topic") {
      std::vector<RepoItem> repos;
      if (!fetchGithubRepos(src, repos, error)) {
        std::fprintf(stderr, "zan: source %s failed: %s\n", src.url.c_str(), error.c_str());
        continue;
      }
      for (const RepoItem& r : repos) fetchGithubRepoManifest(src, r, offers, error);
    }
  }
  return offers;
}

// An entry installed from a container: fetch the container again (or find
// its local file) and run the installer with force for this name only.
void refreshContainer(const InstalledEntry& e, const std::string& dir) {
  const std::string address = e.origin.substr(6);
  std::string path = address;
  bool ok;
  if (address.rfind("http://", 0) == 0 || address.rfind("https://", 0) == 0) {
    std::string body;
    path = zanCachePathFor(address);
    ok = httpGetAny(address, body) && writeFile(path, body);
  } else {
    std::FILE* f = std::fopen(path.c_str(), "rb");
    ok = f != nullptr;
    if (f) std::fclose(f);
  }
  if (!ok) {
    std::fprintf(stderr, "zan: %s: cannot refresh container source %s\n", e.name.c_str(), address.c_str());
    return;
  }
  const std::vector<std::string> names = {e.name};
  std::fflush(stdout);
  installFromZanContainer(path, dir, true, &names, &e.origin);
}

// Same version, but the files on disk or in the lists disagree.
bool filesDisagree(const InstalledEntry& e, const SourceManifest& m, const std::string& dir) {
  for (const PlanItem& f : m.files)
    if (!listsFile(e, f.file)) return true;
  for (const std::string& f : e.files) {
    const PlanItem* item = nullptr;
    for (const PlanItem& p : m.files)
      if (p.file == f) {
        item = &p;
        break;
      }
    if (!item) return true;
    if (!item->sha256.empty() && fileSha(dir + "/" + f) != item->sha256) return true;
  }
  return false;
}

const SourceManifest* firstRecord(const std::vector<SourceManifest>& offers, const std::string& name) {
  for (const SourceManifest& m : offers)
    if (m.name == name) return &m;
  return nullptr;
}

}  // namespace

int cmdUpgrade(int argc, char** argv) {
  Args a;
  if (const int rc = readArgs(argc, argv, kUpgradeUsage, a); rc >= 0) return rc;
  if (!dirFromHome(a)) return 2;

  const std::vector<InstalledEntry> list = loadInstalled();
  if (list.empty()) {
    std::fputs("zan: nothing installed to upgrade\n", stderr);
    return 0;
  }
  std::vector<bool> chosen(list.size(), a.names.empty());
  for (const std::string& name : a.names) {
    bool ambiguous;
    const std::vector<size_t> hits = matchInstalled(list, name, ambiguous);
    if (hits.empty()) {
      std::fprintf(stderr, "zan: package '%s' is not installed (install it with `zan install %s`)\n", name.c_str(),
                   name.c_str());
      return 1;
    }
    if (ambiguous) {
      printAmbiguous(list, name, hits);
      return 1;
    }
    for (size_t i : hits) chosen[i] = true;
  }

  const std::vector<SourceManifest> offers = readOffers();
  std::vector<size_t> due;
  for (size_t i = 0; i < list.size(); ++i) {
    if (!chosen[i]) continue;
    const InstalledEntry& e = list[i];
    if (e.origin.rfind("zan://", 0) == 0 && e.origin.size() > 6) {
      refreshContainer(e, a.dir);
      continue;
    }
    const SourceManifest* m = firstRecord(offers, e.name);
    if (!m) {
      std::fprintf(stderr, "zan: %s: no manifest in any source (cannot check upgrades)\n", e.name.c_str());
      continue;
    }
    if (m->version != e.version || filesDisagree(e, *m, a.dir)) due.push_back(i);
  }
  if (due.empty()) {
    if (!a.names.empty())
      std::puts("zan: requested package(s) up-to-date");
    else
      std::printf("zan: all %zu installed package(s) up-to-date\n", list.size());
    return 0;
  }

  if (shouldPrompt(a.assumeYes)) {
    std::puts("The following package(s) will be upgraded:");
    for (size_t i : due) {
      const SourceManifest* m = firstRecord(offers, list[i].name);
      std::printf("  %s %s -> %s\n", list[i].name.c_str(), orQuestion(list[i].version),
                  m ? orQuestion(m->version) : "?");
    }
    std::printf("Upgrade %zu package(s)? [y/N] ", due.size());
    std::fflush(stdout);
    if (!readYes()) {
      std::puts("zan: upgrade aborted");
      return 1;
    }
  }

  std::vector<std::string> words = {argv[0], "install"};
  if (a.assumeYes) words.push_back("-y");
  words.push_back("--dir");
  words.push_back(a.dir);
  for (size_t i : due) words.push_back(list[i].name);
  std::vector<char*> wordPtrs;
  for (std::string& w : words) wordPtrs.push_back(w.data());
  wordPtrs.push_back(nullptr);
  return ::cmdInstall(int(words.size()), wordPtrs.data());
}

}  // namespace tov
