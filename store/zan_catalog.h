// The store catalog: the list of applications the store shows. Each `load`
// asks the official server and one GitHub repository for their store.json
// through a Fetcher, and `pump` turns the answers into the rows of a job,
// which callers read by number. Owns its Fetcher and its jobs; everything
// runs on the caller's thread, and nothing blocks.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "store/zan_fetch.h"

namespace tov::catalog {

// One application row. The codes of `Catalog::text` and `Catalog::num`
// are given beside the fields.
struct Entry {
  std::string id;          // text 6
  std::string title;       // text 0: "title", else "name", else the id
  std::string summary;     // text 2: "summary", else "description"
  std::string kind;        // text 1: "app" when empty
  std::string version;     // text 5
  std::string source;      // text 4: "official" or "github:owner/name"
  std::string packageUrl;  // text 3: resolved against the index's base
  int32_t versionCode = 0; // num 0: major * 1000000 + minor * 1000 + patch
  uint64_t size = 0;       // num 1
};

// The default official server and repository, used when the environment
// names none.
extern const char kDefaultStoreUrl[];
extern const char kDefaultGithubApi[];
extern const char kDefaultRepo[];
extern const char kGithubRawBase[];

class Catalog {
 public:
  struct Job {
    int32_t state = 0;           // 0 loading, 1 ready, 2 failed
    int32_t fetchIds[2] = {0, 0};  // the official index first
    int32_t fetchCount = 0;      // transfers in use, at most 2
    std::vector<Entry> entries;  // official rows first
    std::string status;          // per-source tail of `report`
    std::string repo;            // the repository the GitHub transfer asks
  };

  // Makes the Fetcher on the first `load`; an empty factory makes the plain
  // one, which has no transport.
  using FetcherFactory = std::function<std::unique_ptr<fetch::Fetcher>()>;
  explicit Catalog(FetcherFactory makeFetcher = {});
  ~Catalog();
  Catalog(const Catalog&) = delete;
  Catalog& operator=(const Catalog&) = delete;

  // Starts a job over `url` (empty: the official server) and gives its
  // number, counted from 1.
  int load(const std::string& url);
  // Advances the transfers and ends the jobs whose transfers all ended.
  void pump();

  // The job's record, or null for a number outside 1..count.
  const Job* find(int job) const;
  int state(int job) const;  // 2 for a number `find` refuses
  int count(int job) const;  // 0 for a number `find` refuses
  // A row's text or number by field code; empty or 0 for an unknown code, a
  // refused job or a row out of range.
  const std::string& text(int job, int row, int field) const;
  int64_t num(int job, int row, int field) const;
  // "<n> entry(s);" and the job's status; empty for a refused job.
  std::string report(int job) const;

  // The environment, with its defaults.
  static std::string officialUrl();    // ZAN_STORE_URL
  static std::string githubApiBase();  // ZAN_GITHUB_API
  static std::string githubToken();    // ZAN_GITHUB_TOKEN
  static std::vector<std::string> repos();  // ZAN_STORE_REPOS, split at ","

  // `base` + `rel` with one "/" between them; `rel` alone for an empty base.
  static std::string join(const std::string& base, const std::string& rel);
  // Appends the rows of a store.json text. Text that isn't such a file adds
  // nothing. Package paths resolve under `repo` on GitHub when it is given,
  // else against `base`.
  static void parseStore(const std::string& text, const std::string& source, const std::string& base,
                         const std::string& repo, std::vector<Entry>& entries);
  // "1.2.3" gives 1002003; reading stops at the first other character after
  // a digit.
  static int32_t versionCode(const std::string& version);

  fetch::Fetcher* fetcher() const { return fetcher_.get(); }

 private:
  void finish(Job& job);

  FetcherFactory makeFetcher_;
  std::unique_ptr<fetch::Fetcher> fetcher_;
  std::vector<std::unique_ptr<Job>> jobs_;
};

}  // namespace tov::catalog
