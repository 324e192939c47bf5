#include "packages/discovery.h"

#include <cstdlib>

#include "base/json.h"
#include "packages/http_get.h"

namespace tov {

std::string ghAuthHeader() {
  const char* token = std::getenv("ZAN_GITHUB_TOKEN");
  if (!token || !*token) return "";
  for (const char* p = token; *p; ++p) {
    const char c = *p;
    const bool ok =
        (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '.' || c == '_';
    if (!ok) return "";
  }
  return std::string("Authorization: Bearer ") + token;
}

std::string githubRawBase(const Source& source) { return source.raw.empty() ? source.url : source.raw; }

bool fetchServerManifest(const Source& source, std::vector<SourceManifest>& out, std::string& error) {
  std::string body;
  if (!httpGetAnyHdr(source.url + "/manifest.json", "", body)) {
    error = "cannot fetch " + source.url + "/manifest.json";
    return false;
  }
  const size_t before = out.size();
  manifestToRecords(source.url, body, source.url + "/plugins/", "", out);
  if (out.size() == before) {
    error = "bad manifest from " + source.url;
    return false;
  }
  return true;
}

bool fetchGithubRepos(const Source& source, std::vector<RepoItem>& repos, std::string& error) {
  const std::string topic = source.topic.empty() ? "zan-plugin" : source.topic;
  std::string body;
  if (!httpGetAnyH2(source.url + "/search/repositories?q=topic%3A" + topic + "&per_page=100",
                    "Accept: application/vnd.github+json", ghAuthHeader(), body)) {
    error = "github search failed for topic " + topic;
    return false;
  }
  json::Value root;
  const json::Value* items = nullptr;
  if (!json::parse(body, root, 64).ok() || !root.isObject() || !(items = root.get("items")) || !items->isArray())
    return false;
  for (const json::Value& item : items->items) {
    RepoItem r{manifestStr(item, "full_name", ""), manifestStr(item, "default_branch", "main")};
    if (!r.fullName.empty()) repos.push_back(std::move(r));
  }
  return true;
}

bool fetchGithubRepoManifest(const Source& source, const RepoItem& repo, std::vector<SourceManifest>& out,
                             std::string& error) {
  const std::string base = githubRawBase(source);
  const std::string raw = base + "/" + repo.fullName + "/" + repo.branch + "/zan-plugin/";
  const std::string api = source.url + "/repos/" + repo.fullName + "/contents/zan-plugin/";
  std::string body;
  if (!httpGetAnyHdr(raw + "manifest.json", "", body) &&
      !httpGetAnyH2(api + "manifest.json", "Accept: application/vnd.github.raw", ghAuthHeader(), body)) {
    error = "no zan-plugin manifest in " + repo.fullName;
    return false;
  }
  const size_t before = out.size();
  manifestToRecords(repo.fullName, body, raw, api, out);
  if (out.size() == before) {
    error = "bad manifest in " + repo.fullName;
    return false;
  }
  return true;
}

}  // namespace tov
