// The pure middle of an install run: version constraints, dependency
// resolution against what is offered and what is installed, selection by
// name, and the one deduplicated plan of files. Nothing here touches the
// disk or the network, and nothing prints: the command turns the results
// into messages.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "packages/manifest.h"

namespace tov {

// Whether version `have` meets `want`: empty (any), ">=V", ">V", "==V", or
// a bare V meaning "==V". Versions compare as dot-separated integers; see
// versionParts.
bool versionOk(const std::string& have, const std::string& want);

// The integer components of a version text: digits build the current
// component, "." closes it, any other byte discards the digits so far.
std::vector<int64_t> versionParts(const std::string& text);

// A dependency that nothing satisfies, for the package at `index`.
struct MissingDep {
  size_t index;
  DepSpec dep;
};

// Sets `resolved` on every manifest whose dependencies are all met by a
// resolved manifest or an installed package (`installed`: the name and
// version of each installed entry), repeating until nothing changes; cycles
// never resolve unless something installed breaks them. Gives, per
// unresolved manifest, each dependency that stays unmet.
std::vector<MissingDep> resolveDeps(std::vector<SourceManifest>& manifests, const std::vector<DepSpec>& installed);

// Whether `name` occurs in the package's name or in one of its file names.
bool manifestMatches(const SourceManifest& m, const std::string& name);

// Selection among resolved manifests: all of them without names, otherwise
// those that match a name; then, until nothing changes, every resolved
// manifest that depends on a selected one. `notFound` gets each name that
// no selected manifest matches, in order.
std::vector<bool> selectPackages(const std::vector<SourceManifest>& manifests, const std::vector<std::string>& names,
                                 std::vector<std::string>& notFound);

// The files of the selected manifests in order, each file name once: the
// first offer wins. `conflicts` gets each later offer of a name whose
// digest differs from the first's.
std::vector<PlanItem> buildPlan(const std::vector<SourceManifest>& manifests, const std::vector<bool>& selected,
                                std::vector<std::string>& conflicts);

// A plan file name that may be written into the install directory: no
// "/", not "..", and (beyond what the server could mean) not empty, not
// "." and without a NUL or a backslash, which would name another place on
// some platform.
bool safePlanName(const std::string& file);

}  // namespace tov
