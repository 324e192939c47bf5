// Package records and the manifest JSON that servers and repositories offer.
// Owns the reading of a manifest into records; fetching it is discovery's
// business (packages/discovery.h).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "base/json.h"

namespace tov {

// What a package needs: a name, and a constraint in the grammar of
// versionOk (empty: any version).
struct DepSpec {
  std::string name;
  std::string version;
};

// One file to fetch.
struct PlanItem {
  std::string file;    // relative to the install directory
  std::string sha256;  // lower-case hex; empty: no check
  std::string url;     // first download address
  std::string apiUrl;  // second download address; empty for server sources
  uint64_t size = 0;   // expected bytes; 0: no check
};

// One package as a source offers it.
struct SourceManifest {
  std::string source;  // the source url, or the repository's full name
  std::string name;
  std::string version;
  std::string desc;
  std::vector<DepSpec> deps;
  std::vector<PlanItem> files;
  bool resolved = false;  // set by dependency resolution
};

// One hit of the GitHub repository search.
struct RepoItem {
  std::string fullName;  // owner/name
  std::string branch;    // default branch
};

// `value[key]` as a string if `value` is an object holding `key` (a value
// of another kind reads as empty), else `fallback`.
std::string manifestStr(const json::Value& value, const char* key, const std::string& fallback);

// The dependencies of a `dependencies` value; not an array: none.
std::vector<DepSpec> parseDeps(const json::Value* value);

// Parses a manifest `body` and appends its packages to `out`. A file's url
// is `urlPrefix` + file, its apiUrl `apiPrefix` + file (empty when
// `apiPrefix` is). A body that is not JSON or not an object adds nothing.
void manifestToRecords(const std::string& label, const std::string& body, const std::string& urlPrefix,
                       const std::string& apiPrefix, std::vector<SourceManifest>& out);

}  // namespace tov
