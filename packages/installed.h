// The installed state: installed.json beside the sources file, recording
// which packages came from where and which files (relative to the install
// directory) belong to each; and the listing `zan ls plugins`.
#pragma once

#include <string>
#include <vector>

namespace tov {

struct InstalledEntry {
  std::string name;
  std::string version;
  std::string origin;  // the manifest's source label, or "zan://" + container address or path
  std::string desc;
  std::vector<std::string> files;
};

// The directory part of sourcesConfigPath() (through its last "/", or the
// whole path when it has none) followed by "installed.json".
std::string installedStatePath();
// The recorded entries; empty when the file is missing or damaged. Entries
// without a name are dropped.
std::vector<InstalledEntry> loadInstalled();
// The state file's exact text for `list`.
std::string installedText(const std::vector<InstalledEntry>& list);
// Writes installedText to the state path (making its directory); a failure
// is not reported.
void saveInstalled(const std::vector<InstalledEntry>& list);

}  // namespace tov

// `zan ls plugins [-a]` and `zan plugin ls [-a]`; options from argv[3] on.
// Always succeeds.
void cmdInstalledLs(int argc, char** argv);
