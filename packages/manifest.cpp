#include "packages/manifest.h"

namespace tov {

std::string manifestStr(const json::Value& value, const char* key, const std::string& fallback) {
  const json::Value* v = value.isObject() ? value.get(key) : nullptr;
  return v ? v->asString() : fallback;
}

std::vector<DepSpec> parseDeps(const json::Value* value) {
  std::vector<DepSpec> deps;
  if (!value || !value->isArray()) return deps;
  for (const json::Value& item : value->items) {
    if (!item.isObject()) continue;
    DepSpec d{manifestStr(item, "name", ""), manifestStr(item, "version", "")};
    if (!d.name.empty()) deps.push_back(std::move(d));
  }
  return deps;
}

namespace {

// One package object; false when it has no `files` array at all.
bool readPackage(const json::Value& pkg, const std::string& label, const std::string& urlPrefix,
                 const std::string& apiPrefix, SourceManifest& m) {
  m.source = label;
  m.name = manifestStr(pkg, "name", label.empty() ? "pkg" : label);
  m.version = manifestStr(pkg, "version", "");
  m.desc = manifestStr(pkg, "desc", "");
  m.deps = parseDeps(pkg.isObject() ? pkg.get("dependencies") : nullptr);
  const json::Value* files = pkg.isObject() ? pkg.get("files") : nullptr;
  if (!files || !files->isArray()) return false;
  for (const json::Value& f : files->items) {
    if (!f.isObject()) continue;
    PlanItem item;
    item.file = manifestStr(f, "file", "");
    if (item.file.empty()) continue;
    item.sha256 = manifestStr(f, "sha256", "");
    item.url = urlPrefix + item.file;
    if (!apiPrefix.empty()) item.apiUrl = apiPrefix + item.file;
    // Only an exact integer is a size; a negative one wraps around and can
    // never match, so such a file fails its size check.
    if (const json::Value* s = f.get("size")) item.size = uint64_t(s->asInt(0));
    m.files.push_back(std::move(item));
  }
  return true;
}

}  // namespace

void manifestToRecords(const std::string& label, const std::string& body, const std::string& urlPrefix,
                       const std::string& apiPrefix, std::vector<SourceManifest>& out) {
  json::Value root;
  if (!json::parse(body, root, 64).ok() || !root.isObject()) return;
  const json::Value* packages = root.get("packages");
  if (packages && packages->isArray()) {
    for (const json::Value& pkg : packages->items) {
      SourceManifest m;
      if (readPackage(pkg, label, urlPrefix, apiPrefix, m) && !m.files.empty()) out.push_back(std::move(m));
    }
    return;
  }
  SourceManifest m;
  if (readPackage(root, label, urlPrefix, apiPrefix, m)) out.push_back(std::move(m));
}

}  // namespace tov
