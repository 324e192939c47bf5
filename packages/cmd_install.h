// The stages of `zan install` that come before any package manifest: the
// options, the install directory, seeding the sources file, and a local
// container named on the command line. Each stage
// gives -1 to go on, or the exit code.
#pragma once

#include <string>
#include <vector>

namespace tov {

struct InstallOptions {
  std::vector<std::string> names;
  std::string repo;
  std::string dir;
  bool force = false;
  bool assumeYes = false;
  bool listOnly = false;
};

// Options from argv[2] on; --help prints the usage (0).
int parseInstallOptions(int argc, char** argv, InstallOptions& o);
// The install directory (made) and, without --repo, the sources file.
int prepareInstall(InstallOptions& o);
// A single name that is a local container file.
int installLocalContainer(const InstallOptions& o);
}  // namespace tov

// `zan install`; the exit code.
int cmdInstall(int argc, char** argv);
