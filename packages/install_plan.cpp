#include "packages/install_plan.h"

#include <unordered_map>

namespace tov {

std::vector<int64_t> versionParts(const std::string& text) {
  std::vector<int64_t> parts;
  int64_t cur = 0;
  for (char c : text) {
    if (c >= '0' && c <= '9') {
      // Saturate instead of overflowing on absurdly long digit runs.
      cur = cur > (int64_t(1) << 40) ? cur : cur * 10 + (c - '0');
    } else if (c == '.') {
      parts.push_back(cur);
      cur = 0;
    } else {
      cur = 0;
    }
  }
  parts.push_back(cur);
  return parts;
}

bool versionOk(const std::string& have, const std::string& want) {
  if (want.empty()) return true;
  enum { Ge, Gt, Eq } op = Eq;
  std::string rest = want;
  if (want.compare(0, 2, ">=") == 0) {
    op = Ge;
    rest = want.substr(2);
  } else if (want.compare(0, 2, "==") == 0) {
    rest = want.substr(2);
  } else if (want[0] == '>') {
    op = Gt;
    rest = want.substr(1);
  }
  const std::vector<int64_t> a = versionParts(have), b = versionParts(rest);
  int cmp = 0;
  for (size_t i = 0; i < a.size() || i < b.size(); ++i) {
    const int64_t x = i < a.size() ? a[i] : 0, y = i < b.size() ? b[i] : 0;
    if (x != y) {
      cmp = x < y ? -1 : 1;
      break;
    }
  }
  return op == Ge ? cmp >= 0 : op == Gt ? cmp > 0 : cmp == 0;
}

namespace {

using NameIndex = std::unordered_map<std::string, std::vector<size_t>>;

bool depMet(const DepSpec& dep, const std::vector<SourceManifest>& manifests, const NameIndex& resolvedByName,
            const std::vector<DepSpec>& installed) {
  if (auto it = resolvedByName.find(dep.name); it != resolvedByName.end())
    for (size_t j : it->second)
      if (versionOk(manifests[j].version, dep.version)) return true;
  for (const DepSpec& e : installed)
    if (e.name == dep.name && versionOk(e.version, dep.version)) return true;
  return false;
}

// For each name, the manifests that depend on it.
NameIndex dependentsByName(const std::vector<SourceManifest>& manifests) {
  NameIndex out;
  for (size_t i = 0; i < manifests.size(); ++i)
    for (const DepSpec& d : manifests[i].deps) out[d.name].push_back(i);
  return out;
}

}  // namespace

// Resolving only ever adds: a manifest once resolved stays so and can only
// help others. So the fixed point does not depend on the order of visits,
// and a work list (recheck the dependents of each newly resolved name)
// reaches the same set as repeated whole passes, without their n^2 passes
// on a long chain.
std::vector<MissingDep> resolveDeps(std::vector<SourceManifest>& manifests, const std::vector<DepSpec>& installed) {
  NameIndex resolvedByName;
  const NameIndex dependents = dependentsByName(manifests);
  std::vector<size_t> work;
  for (size_t i = manifests.size(); i-- > 0;) {
    manifests[i].resolved = false;
    work.push_back(i);
  }
  while (!work.empty()) {
    const size_t i = work.back();
    work.pop_back();
    SourceManifest& m = manifests[i];
    if (m.resolved) continue;
    bool all = true;
    for (const DepSpec& d : m.deps)
      if (!depMet(d, manifests, resolvedByName, installed)) {
        all = false;
        break;
      }
    if (!all) continue;
    m.resolved = true;
    resolvedByName[m.name].push_back(i);
    if (auto it = dependents.find(m.name); it != dependents.end())
      for (size_t k : it->second)
        if (!manifests[k].resolved) work.push_back(k);
  }
  std::vector<MissingDep> missing;
  for (size_t i = 0; i < manifests.size(); ++i) {
    if (manifests[i].resolved) continue;
    for (const DepSpec& d : manifests[i].deps)
      if (!depMet(d, manifests, resolvedByName, installed)) missing.push_back({i, d});
  }
  return missing;
}

bool manifestMatches(const SourceManifest& m, const std::string& name) {
  if (m.name.find(name) != std::string::npos) return true;
  for (const PlanItem& f : m.files)
    if (f.file.find(name) != std::string::npos) return true;
  return false;
}

std::vector<bool> selectPackages(const std::vector<SourceManifest>& manifests, const std::vector<std::string>& names,
                                 std::vector<std::string>& notFound) {
  const size_t n = manifests.size();
  std::vector<bool> selected(n, false);
  for (size_t i = 0; i < n; ++i) {
    if (!manifests[i].resolved) continue;
    if (names.empty()) selected[i] = true;
    for (const std::string& name : names)
      if (manifestMatches(manifests[i], name)) selected[i] = true;
  }
  // Packages that depend on a selected one come along, transitively.
  const NameIndex dependents = dependentsByName(manifests);
  std::vector<size_t> work;
  for (size_t i = 0; i < n; ++i)
    if (selected[i]) work.push_back(i);
  while (!work.empty()) {
    const size_t j = work.back();
    work.pop_back();
    auto it = dependents.find(manifests[j].name);
    if (it == dependents.end()) continue;
    for (size_t i : it->second)
      if (!selected[i] && manifests[i].resolved) {
        selected[i] = true;
        work.push_back(i);
      }
  }
  for (const std::string& name : names) {
    bool found = false;
    for (size_t i = 0; i < n && !found; ++i) found = selected[i] && manifestMatches(manifests[i], name);
    if (!found) notFound.push_back(name);
  }
  return selected;
}

std::vector<PlanItem> buildPlan(const std::vector<SourceManifest>& manifests, const std::vector<bool>& selected,
                                std::vector<std::string>& conflicts) {
  std::vector<PlanItem> plan;
  std::unordered_map<std::string, size_t> byFile;
  for (size_t i = 0; i < manifests.size(); ++i) {
    if (!selected[i]) continue;
    for (const PlanItem& f : manifests[i].files) {
      auto [it, fresh] = byFile.emplace(f.file, plan.size());
      if (fresh)
        plan.push_back(f);
      else if (plan[it->second].sha256 != f.sha256)
        conflicts.push_back(f.file);
    }
  }
  return plan;
}

bool safePlanName(const std::string& file) {
  if (file.empty() || file == "." || file == ".." || file.find('/') != std::string::npos ||
      file.find('\0') != std::string::npos)
    return false;
#ifdef _WIN32
  if (file.find('\\') != std::string::npos || file.find(':') != std::string::npos) return false;
#endif
  return true;
}

}  // namespace tov
