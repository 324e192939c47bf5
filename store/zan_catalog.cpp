// The store catalog: jobs over two indexes, and the store.json reader.
#include "store/zan_catalog.h"

#include <cstdlib>

#include "base/json.h"

namespace tov::catalog {

const char kDefaultStoreUrl[] = "http://store.halden.dev:8680";
const char kDefaultGithubApi[] = "https://api.github.com";
const char kDefaultRepo[] = "halden-apps/zan-store";
const char kGithubRawBase[] = "https://raw.githubusercontent.com";

namespace {

std::string envText(const char* name) {
  const char* v = std::getenv(name);
  return v ? v : "";
}

bool startsWith(const std::string& s, const char* prefix) { return s.rfind(prefix, 0) == 0; }

// The string under `key`; a member of another kind reads as empty.
const std::string& str(const json::Value& obj, const char* key) {
  const json::Value* v = obj.get(key);
  return v ? v->asString() : json::Value::kEmpty;
}

// A JSON number as an unsigned 64-bit count: negative ones and NaN give 0,
// ones beyond the range the largest value, fractions are cut off.
uint64_t toU64(double d) {
  if (!(d > 0)) return 0;
  if (d >= 18446744073709551616.0) return UINT64_MAX;
  return static_cast<uint64_t>(d);
}

const std::string kEmptyText;

}  // namespace

Catalog::Catalog(FetcherFactory makeFetcher) : makeFetcher_(std::move(makeFetcher)) {}
Catalog::~Catalog() = default;

std::string Catalog::officialUrl() {
  std::string v = envText("ZAN_STORE_URL");
  return v.empty() ? kDefaultStoreUrl : v;
}

std::string Catalog::githubApiBase() {
  std::string v = envText("ZAN_GITHUB_API");
  return v.empty() ? kDefaultGithubApi : v;
}

std::string Catalog::githubToken() { return envText("ZAN_GITHUB_TOKEN"); }

std::vector<std::string> Catalog::repos() {
  const char* v = std::getenv("ZAN_STORE_REPOS");
  if (!v) return {kDefaultRepo};
  std::vector<std::string> out;
  const std::string list = v;
  size_t at = 0;
  while (at <= list.size()) {
    size_t comma = list.find(',', at);
    if (comma == std::string::npos) comma = list.size();
    size_t b = at, e = comma;
    while (b < e && (list[b] == ' ' || list[b] == '\t')) ++b;
    while (e > b && (list[e - 1] == ' ' || list[e - 1] == '\t')) --e;
    if (e > b) out.push_back(list.substr(b, e - b));
    at = comma + 1;
  }
  return out;
}

std::string Catalog::join(const std::string& base, const std::string& rel) {
  if (base.empty()) return rel;
  if (base.back() == '/') return base + rel;
  return base + "/" + rel;
}

int32_t Catalog::versionCode(const std::string& version) {
  // Unsigned, so that a run of digits too long for 32 bits wraps instead of
  // overflowing.
  uint32_t slots[3] = {0, 0, 0};
  int used = 0;
  uint32_t run = 0;
  bool digit = false;
  for (char c : version) {
    if (c >= '0' && c <= '9') {
      run = run * 10u + uint32_t(c - '0');
      digit = true;
    } else if (c == '.') {
      if (used < 2) slots[used++] = run;
      run = 0;
    } else if (digit) {
      break;
    }
  }
  if (used < 3) slots[used] = run;
  return static_cast<int32_t>(slots[0] * 1000000u + slots[1] * 1000u + slots[2]);
}

void Catalog::parseStore(const std::string& text, const std::string& source, const std::string& base,
                         const std::string& repo, std::vector<Entry>& entries) {
  json::Value root;
  if (!json::parse(text, root).ok() || !root.isObject()) return;
  const json::Value* apps = root.get("apps");
  if (!apps || !apps->isArray()) return;
  for (const json::Value& app : apps->items) {
    if (!app.isObject()) continue;
    Entry e;
    e.id = str(app, "id");
    e.title = str(app, "title");
    if (e.title.empty()) e.title = str(app, "name");
    if (e.title.empty()) e.title = e.id;
    e.summary = str(app, "summary");
    if (e.summary.empty()) e.summary = str(app, "description");
    e.kind = str(app, "kind");
    if (e.kind.empty()) e.kind = "app";
    e.version = str(app, "version");
    e.source = source;
    e.packageUrl = str(app, "packageUrl");
    if (e.packageUrl.empty()) {
      const std::string& pkg = str(app, "package");
      if (startsWith(pkg, "http://") || startsWith(pkg, "https://")) {
        e.packageUrl = pkg;
      } else if (!pkg.empty()) {
        const std::string path = pkg.substr(std::min(pkg.find_first_not_of('/'), pkg.size()));
        e.packageUrl = repo.empty() ? join(base, path) : std::string(kGithubRawBase) + "/" + repo + "/main/" + path;
      }
    }
    e.versionCode = versionCode(e.version);
    if (const json::Value* size = app.get("size"); size && size->isNumber()) e.size = toU64(size->number);
    if (e.id.empty() && e.title.empty()) continue;
    entries.push_back(std::move(e));
  }
}

int Catalog::load(const std::string& url) {
  if (!fetcher_) fetcher_ = makeFetcher_ ? makeFetcher_() : std::make_unique<fetch::Fetcher>();
  auto job = std::make_unique<Job>();
  const std::string base = url.empty() ? officialUrl() : url;
  job->fetchIds[job->fetchCount++] = fetcher_->startText(join(base, "store.json"), "the official index", "");
  const std::vector<std::string> list = repos();
  const std::string token = githubToken();
  const std::string header = token.empty() ? "" : "Authorization: Bearer " + token;
  for (size_t i = 0; job->fetchCount < 2 && i < list.size(); ++i) {
    if (job->repo.empty()) job->repo = list[i];
    job->fetchIds[job->fetchCount++] = fetcher_->startText(
        githubApiBase() + "/repos/" + list[i] + "/contents/store.json", "the GitHub index", header);
  }
  jobs_.push_back(std::move(job));
  return static_cast<int>(jobs_.size());
}

void Catalog::pump() {
  if (!fetcher_) return;
  fetcher_->pump();
  for (auto& job : jobs_) {
    if (job->state != 0) continue;
    bool running = false;
    for (int i = 0; i < job->fetchCount; ++i) running = running || fetcher_->state(job->fetchIds[i]) == 0;
    if (!running) finish(*job);
  }
}

void Catalog::finish(Job& job) {
  const std::string base = join(officialUrl(), "");
  if (job.fetchCount < 1) {
    job.state = 2;
    return;
  }
  bool good = false;
  for (int i = 0; i < job.fetchCount; ++i) {
    const int id = job.fetchIds[i];
    const bool official = i == 0;
    const char* label = official ? " official: " : " github: ";
    if (fetcher_->state(id) != 1) {
      job.status += label + fetcher_->error(id) + ";";
      continue;
    }
    const size_t before = job.entries.size();
    if (official)
      parseStore(fetcher_->body(id), "official", base, "", job.entries);
    else
      parseStore(fetcher_->body(id), "github:" + job.repo, "", job.repo, job.entries);
    const size_t added = job.entries.size() - before;
    job.status += label + std::to_string(added) + " app(s);";
    good = good || added > 0;
  }
  job.state = good ? 1 : 2;
}

const Catalog::Job* Catalog::find(int job) const {
  if (job < 1 || size_t(job) > jobs_.size()) return nullptr;
  return jobs_[size_t(job) - 1].get();
}

int Catalog::state(int job) const {
  const Job* j = find(job);
  return j ? j->state : 2;
}

int Catalog::count(int job) const {
  const Job* j = find(job);
  return j ? static_cast<int>(j->entries.size()) : 0;
}

const std::string& Catalog::text(int job, int row, int field) const {
  const Job* j = find(job);
  if (!j || row < 0 || size_t(row) >= j->entries.size()) return kEmptyText;
  const Entry& e = j->entries[size_t(row)];
  switch (field) {
    case 0: return e.title;
    case 1: return e.kind;
    case 2: return e.summary;
    case 3: return e.packageUrl;
    case 4: return e.source;
    case 5: return e.version;
    case 6: return e.id;
    default: return kEmptyText;
  }
}

int64_t Catalog::num(int job, int row, int field) const {
  const Job* j = find(job);
  if (!j || row < 0 || size_t(row) >= j->entries.size()) return 0;
  const Entry& e = j->entries[size_t(row)];
  if (field == 0) return e.versionCode;
  if (field == 1) return static_cast<int64_t>(e.size);
  return 0;
}

std::string Catalog::report(int job) const {
  const Job* j = find(job);
  if (!j) return {};
  return std::to_string(j->entries.size()) + " entry(s);" + j->status;
}

}  // namespace tov::catalog
