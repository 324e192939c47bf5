// `zan remove` and `zan upgrade`: taking installed packages away file by
// file (keeping what another package still lists), and refreshing what
// the sources offer anew through the install pipeline or, for container
// installs, through the container installer.
#pragma once

#include <string>
#include <vector>

#include "packages/installed.h"

namespace tov {

// The entries a command word names: exact name matches if there is any,
// otherwise every entry whose name contains the word. Indices in list
// order; `ambiguous` is set when several substring matches and no exact
// one were found.
std::vector<size_t> matchInstalled(const std::vector<InstalledEntry>& list, const std::string& word, bool& ambiguous);

// The commands; each gives the exit code.
int cmdRemove(int argc, char** argv);
int cmdUpgrade(int argc, char** argv);

}  // namespace tov
