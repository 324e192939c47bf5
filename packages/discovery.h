// Fetching package records: a static server's manifest.json, the GitHub
// repository search by topic, and a repository's own manifest. Each fetch
// gives true or false and an error text; the walk over the sources that
// prints and retries belongs to the install command.
#pragma once

#include <string>
#include <vector>

#include "packages/manifest.h"
#include "packages/sources.h"

namespace tov {

// "Authorization: Bearer <token>" from ZAN_GITHUB_TOKEN; empty when it is
// unset, empty, or holds a byte other than letters, digits, "-", "." or "_".
std::string ghAuthHeader();

// <url>/manifest.json; files come from <url>/plugins/. Appends to `out`;
// false (with `error`) when the fetch fails or gives no record.
bool fetchServerManifest(const Source& source, std::vector<SourceManifest>& out, std::string& error);

// The repositories carrying the source's topic (one page of at most 100).
// A reply that is not the expected JSON fails with an empty `error`.
bool fetchGithubRepos(const Source& source, std::vector<RepoItem>& repos, std::string& error);

// zan-plugin/manifest.json of one repository, from the raw host first and
// the contents API second. Appends to `out`.
bool fetchGithubRepoManifest(const Source& source, const RepoItem& repo, std::vector<SourceManifest>& out,
                             std::string& error);

// The raw-file base of a GitHub source: `raw`, or `url` when that is empty.
std::string githubRawBase(const Source& source);

}  // namespace tov
