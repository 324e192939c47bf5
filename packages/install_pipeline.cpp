#include "packages/install_pipeline.h"

#include <cstdio>
#include <cstdlib>

#ifdef _WIN32
#include <windows.h>
#endif

#include "base/compat.h"
#include "packages/container_source.h"
#include "packages/discovery.h"
#include "packages/http_get.h"
#include "packages/install_plan.h"
#include "packages/installed.h"
#include "packages/pkg_files.h"
#include "packages/sha256.h"
#include "packages/sources.h"

namespace tov {

bool gOnlyUpdate = false;

bool shouldPrompt(bool assumeYes) { return !assumeYes && (zanCompatIsatty(0) || std::getenv("ZAN_CONFIRM")); }

bool readYes() {
  std::string line;
  int c;
  while ((c = std::getchar()) != EOF && c != '\n') line.push_back(char(c));
  const size_t at = line.find_first_not_of(" \t");
  return at != std::string::npos && (line[at] == 'y' || line[at] == 'Y');
}

bool replaceFile(const std::string& from, const std::string& to) {
#ifdef _WIN32
  return MoveFileExA(from.c_str(), to.c_str(), MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH) != 0;
#else
  return std::rename(from.c_str(), to.c_str()) == 0;
#endif
}

namespace {

bool contains(const std::string& text, const char* part) { return text.find(part) != std::string::npos; }

size_t fileCount(const std::vector<SourceManifest>& ms) {
  size_t n = 0;
  for (const SourceManifest& m : ms) n += m.files.size();
  return n;
}

// What the walk over the sources yields.
struct Offers {
  std::vector<SourceManifest> records;
  bool served = false;  // a container was listed or installed without failure
};

// A container of one GitHub repository: plugins.zan at its root or under
// zan-plugin/, by the raw host or the contents API, cached on the way.
// Three passes, two seconds apart.
bool findRepoContainer(const Source& src, const RepoItem& repo, std::string& path, std::string& origin) {
  static const char* const kCandidates[] = {"plugins.zan", "zan-plugin/plugins.zan"};
  for (int pass = 0; pass < 3; ++pass) {
    if (pass) zanCompatSleepMs(2000);
    for (const char* cand : kCandidates) {
      const std::string raw = githubRawBase(src) + "/" + repo.fullName + "/" + repo.branch + "/" + cand;
      std::string body;
      if (!httpGetAnyHdr(raw, "", body) &&
          !httpGetAnyH2(src.url + "/repos/" + repo.fullName + "/contents/" + cand + "?ref=" + repo.branch,
                        "Accept: application/vnd.github.raw", ghAuthHeader(), body))
        continue;
      const std::string cache = zanCachePathFor(raw);
      if (!writeFile(cache, body)) continue;
      path = cache;
      origin = "zan://" + raw;
      return true;
    }
  }
  return false;
}

void walkGithubSource(const Source& src, const InstallOptions& opts, Offers& offers) {
  const std::vector<std::string>* names = opts.names.empty() ? nullptr : &opts.names;
  std::vector<RepoItem> repos;
  std::string error;
  bool ok = false;
  for (int attempt = 0; attempt < 6 && !ok; ++attempt) {
    if (attempt) zanCompatSleepMs(4000);
    repos.clear();
    error.clear();
    ok = fetchGithubRepos(src, repos, error);
  }
  if (!ok) {
    std::fprintf(stderr, "zan: source %s failed: %s\n", src.url.c_str(), error.c_str());
    return;
  }
  size_t withPlugins = 0;
  for (const RepoItem& repo : repos) {
    std::string path, origin;
    if (findRepoContainer(src, repo, path, origin)) {
      if (opts.listOnly) {
        std::printf("  container: %s (plugins.zan in %s)\n", origin.c_str(), repo.fullName.c_str());
        ++withPlugins;
        offers.served = true;
        continue;
      }
      std::fflush(stdout);
      const int rc = installFromZanContainer(path, opts.dir, opts.force, names, &origin);
      if (rc == 0) {
        ++withPlugins;
        offers.served = true;
      } else if (rc == 2) {
        std::fprintf(stderr, "zan: %s: container has no matching plugin\n", repo.fullName.c_str());
      } else {
        std::fprintf(stderr, "zan: %s: container install failed\n", repo.fullName.c_str());
      }
      continue;
    }
    for (int attempt = 0; attempt < 3; ++attempt) {
      if (attempt) zanCompatSleepMs(2000);
      if (fetchGithubRepoManifest(src, repo, offers.records, error)) {
        ++withPlugins;
        break;
      }
    }
  }
  std::fprintf(stderr, "zan: source %-22s %zu repos, %zu with plugins\n", src.url.c_str(), repos.size(), withPlugins);
}

// The first stage: the --repo server or every source in order. Gives -1 to
// go on with the records, or the exit code that ends the command.
int walkSources(const InstallOptions& opts, Offers& offers) {
  const std::vector<std::string>* names = opts.names.empty() ? nullptr : &opts.names;
  if (!opts.repo.empty()) {
    if (contains(opts.repo, ".zan"))
      return installContainerUrl(opts.repo, opts.dir, opts.force, names, opts.listOnly, offers.served);
    Source src;
    src.url = opts.repo;
    std::string error;
    if (!fetchServerManifest(src, offers.records, error)) {
      std::fprintf(stderr, "zan: source %s failed: %s\n", src.url.c_str(), error.c_str());
      std::fputs("zan: no plugin manifests available\n", stderr);
      return 1;
    }
    return -1;
  }
  for (const Source& src : loadSources()) {
    if (src.type == "server") {
      if (contains(src.url, ".zan")) {
        std::fflush(stdout);
        const int rc = installContainerUrl(src.url, opts.dir, opts.force, names, opts.listOnly, offers.served);
        if (rc != 0 && !opts.listOnly)
          std::fprintf(stderr, "zan: container source %s failed (%d)\n", src.url.c_str(), rc);
        continue;
      }
      std::vector<SourceManifest> got;
      std::string error;
      if (fetchServerManifest(src, got, error)) {
        std::fprintf(stderr, "zan: source %-22s %zu package(s), %zu file(s)\n", src.url.c_str(), got.size(),
                     fileCount(got));
        for (SourceManifest& m : got) offers.records.push_back(std::move(m));
      } else {
        std::fprintf(stderr, "zan: source %s failed: %s\n", src.url.c_str(), error.c_str());
      }
    } else if (src.type == "github-topic") {
      walkGithubSource(src, opts, offers);
    }
  }
  if (!offers.records.empty()) return -1;
  if (offers.served) return 0;
  std::fputs("zan: no plugin manifests available\n", stderr);
  return 1;
}

// One plan item fetched: the url by the built-in client with progress on
// even attempts, the API url through the general route on odd ones.
bool fetchItem(const PlanItem& item, DownloadProgress& progress, std::string& body) {
  for (int attempt = 0; attempt < 4; ++attempt) {
    const bool viaApi = attempt % 2;
    const std::string& url = viaApi ? item.apiUrl : item.url;
    if (url.empty()) continue;
    const bool ok = viaApi ? httpGetAnyH2(url, "Accept: application/vnd.github.raw", ghAuthHeader(), body)
                           : httpGetProg(url, body, onInitProgress, &progress);
    if (ok) return true;
    if (attempt < 3) zanCompatSleepMs(1000);
  }
  return false;
}

// Every file of the package is on disk with its digest (where one is given).
bool packageComplete(const SourceManifest& m, const std::string& dir) {
  for (const PlanItem& f : m.files) {
    if (!safePlanName(f.file)) return false;
    const std::string have = fileSha(dir + "/" + f.file);
    if (have.empty() || (!f.sha256.empty() && have != f.sha256)) return false;
  }
  return true;
}

}  // namespace

int runInstallPipeline(const InstallOptions& opts) {
  Offers offers;
  if (const int rc = walkSources(opts, offers); rc >= 0) return rc;
  std::vector<SourceManifest>& ms = offers.records;

  std::vector<DepSpec> have;
  for (const InstalledEntry& e : loadInstalled()) have.push_back({e.name, e.version});
  for (const MissingDep& md : resolveDeps(ms, have)) {
    const bool v = !md.dep.version.empty();
    std::fprintf(stderr, "zan: skipping %-28s missing dependency %s%s%s\n", ms[md.index].name.c_str(),
                 md.dep.name.c_str(), v ? " (need " : "", v ? (md.dep.version + ")").c_str() : "");
  }

  std::vector<std::string> notFound;
  const std::vector<bool> selected = selectPackages(ms, opts.names, notFound);
  for (const std::string& n : notFound) std::fprintf(stderr, "zan: package not found: %s\n", n.c_str());
  size_t nSelected = 0;
  for (bool s : selected) nSelected += s;
  if (!nSelected) {
    std::fputs("zan: no matching package (run `zan update` to list what is available)\n", stderr);
    return 1;
  }

  std::vector<std::string> conflicts;
  const std::vector<PlanItem> plan = buildPlan(ms, selected, conflicts);
  for (const std::string& f : conflicts)
    std::fprintf(stderr, "zan: '%s' also provided elsewhere with a different sha - keeping first\n", f.c_str());

  if (plan.empty()) {
    std::fputs("zan: nothing to install (all manifests skipped)\n", stderr);
    return 1;
  }
  if (gOnlyUpdate) {
    std::printf("zan update: %zu package(s), %zu file(s) available\n", ms.size(), plan.size());
    return 0;
  }
  if (opts.listOnly) {
    std::printf("%-40s %10s  %s\n", "file", "size", "sha256");
    for (const PlanItem& p : plan)
      std::printf("%-40s %10llu  %s\n", p.file.c_str(), (unsigned long long)p.size, p.sha256.c_str());
    return 0;
  }

  bool due = opts.force;
  for (size_t i = 0; i < plan.size() && !due; ++i) due = fileSha(opts.dir + "/" + plan[i].file) != plan[i].sha256;
  if (due && shouldPrompt(opts.assumeYes)) {
    std::printf("The following package(s) will be installed (%s):\n", opts.dir.c_str());
    for (size_t i = 0; i < ms.size(); ++i) {
      if (!selected[i]) continue;
      std::printf("  %s %s\n", ms[i].name.c_str(), ms[i].version.c_str());
      if (!ms[i].desc.empty()) std::printf("      %s\n", ms[i].desc.c_str());
    }
    std::printf("Install %zu package(s)? [y/N] ", nSelected);
    std::fflush(stdout);
    if (!readYes()) {
      std::puts("zan: install aborted");
      return 1;
    }
  }

  size_t installed = 0, upToDate = 0, failed = 0;
  const bool showProgress = zanCompatIsatty(1) && std::getenv("ZAN_PROGRESS");
  for (size_t i = 0; i < plan.size(); ++i) {
    const PlanItem& item = plan[i];
    if (!safePlanName(item.file)) {
      std::fprintf(stderr, "zan: skipping unsafe name '%s'\n", item.file.c_str());
      ++failed;
      continue;
    }
    const std::string target = opts.dir + "/" + item.file;
    const std::string sha = fileSha(target);
    if (!sha.empty() && sha == item.sha256 && !opts.force) {
      ++upToDate;
      continue;
    }
    DownloadProgress progress;
    progress.index = i + 1;
    progress.count = plan.size();
    progress.name = item.file;
    progress.enabled = showProgress;
    std::string body;
    const bool got = fetchItem(item, progress, body);
    if (showProgress) {
      if (progress.lastWidth > 0) std::printf("\r%*s\r", progress.lastWidth, "");
      std::fflush(stdout);
    }
    if (!got) {
      std::fprintf(stderr, "zan: download failed: %s\n", item.file.c_str());
      ++failed;
      continue;
    }
    if (!item.sha256.empty() && sha256Hex(body) != item.sha256) {
      std::fprintf(stderr, "zan: sha256 mismatch for %s\n", item.file.c_str());
      ++failed;
      continue;
    }
    if (item.size != 0 && item.size != body.size()) {
      std::fprintf(stderr, "zan: size mismatch for %s\n", item.file.c_str());
      ++failed;
      continue;
    }
    const std::string tmp = target + ".tmp";
    if (!writeFile(tmp, body) || !replaceFile(tmp, target)) {
      std::fprintf(stderr, "zan: cannot write %s\n", target.c_str());
      ++failed;
      continue;
    }
    std::printf("installed %s (%zu bytes)\n", item.file.c_str(), body.size());
    ++installed;
  }
  std::printf("zan: %zu installed, %zu up-to-date, %zu failed\n", installed, upToDate, failed);

  // Only what is complete on disk is recorded; a package that lost a file
  // keeps whatever entry it had.
  std::vector<InstalledEntry> list = loadInstalled();
  for (size_t i = 0; i < ms.size(); ++i) {
    const SourceManifest& m = ms[i];
    if (!selected[i] || m.files.empty() || !packageComplete(m, opts.dir)) continue;
    std::erase_if(list, [&](const InstalledEntry& e) { return e.name == m.name; });
    InstalledEntry e{m.name, m.version, m.source, m.desc, {}};
    for (const PlanItem& f : m.files) e.files.push_back(f.file);
    list.push_back(std::move(e));
  }
  saveInstalled(list);
  return failed ? 1 : 0;
}

}  // namespace tov
