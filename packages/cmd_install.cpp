// `zan install`: options, the install directory, seeding the sources file,
// a local container named on the command line; then the pipeline.
#include "packages/cmd_install.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "packages/container_source.h"
#include "packages/install_pipeline.h"
#include "packages/pkg_files.h"
#include "packages/sources.h"

namespace {

const char kInstallUsage[] =
    "usage: zan install [name ...] [--repo URL] [--dir DIR] [--force] [--list]\n"
    "  names: package names or file substrings; empty = all\n"
    "         or a single *.zan repo/plugin container\n"
    "  default: install plugins from all enabled software sources\n"
    "          (zan source list to view / add / remove)\n"
    "  --repo  single server source override (default: all sources)\n"
    "  --dir   install dir (default $HOME/.zan/plugin)\n"
    "  --force re-download even when sha256 matches\n"
    "  -y, --yes  skip the install confirmation prompt\n"
    "  --list  only print the aggregated manifest\n"
    "  progress bar: opt in via ZAN_PROGRESS=1 on a TTY\n";


}  // namespace

namespace tov {

int parseInstallOptions(int argc, char** argv, InstallOptions& o) {
  for (int i = 2; i < argc; ++i) {
    const std::string w = argv[i];
    if (w == "--repo" || w == "--dir") {
      if (i + 1 >= argc) {
        std::fprintf(stderr, "zan: missing value for %s\n", w.c_str());
        return 2;
      }
      (w == "--repo" ? o.repo : o.dir) = argv[++i];
    } else if (w == "--force") {
      o.force = true;
    } else if (w == "-y" || w == "--yes") {
      o.assumeYes = true;
    } else if (w == "--list") {
      o.listOnly = true;
    } else if (w == "-h" || w == "--help") {
      std::fputs(kInstallUsage, stdout);
      return 0;
    } else if (!w.empty() && w[0] == '-') {
      std::fprintf(stderr, "zan: unknown option '%s'\n", w.c_str());
      return 2;
    } else {
      o.names.push_back(w);
    }
  }
  return -1;
}

int prepareInstall(InstallOptions& o) {
  if (o.dir.empty()) {
    const char* home = std::getenv("HOME");
    if (!home) {
      std::fputs("zan: HOME not set; use --dir\n", stderr);
      return 2;
    }
    o.dir = std::string(home) + "/.zan/plugin";
  }
  mkdirParents(o.dir + "/");
  if (o.repo.empty()) {
    const std::string path = sourcesConfigPath();
    std::FILE* f = std::fopen(path.c_str(), "rb");
    if (f) {
      std::fclose(f);
    } else if (saveSources(parseSourcesText(defaultSourcesText()))) {
      std::printf("zan: sources.list initialized (%s)\n", path.c_str());
    }
  }
  return -1;
}

int installLocalContainer(const InstallOptions& o) {
  if (o.names.size() != 1) return -1;
  const std::string& name = o.names[0];
  uint16_t kind = 0;
  if (name.size() > 4 && name.ends_with(".zan")) {
    if (!zanContainerProbe(name, &kind, nullptr)) {
      std::fprintf(stderr, "zan: %s is not an ZAN container\n", name.c_str());
      return 2;
    }
    if (kind == 2 || kind == 5) return installFromZanContainer(name, o.dir, o.force, nullptr, nullptr);
    std::fprintf(stderr, "zan: %s is a kind=%u container; install accepts repo/plugin only\n", name.c_str(),
                 unsigned(kind));
    return 2;
  }
  if (name.find('.') != std::string::npos && zanContainerProbe(name, nullptr, nullptr)) {
    std::fprintf(stderr, "zan: %s looks like an ZAN container; rename to *.zan or give a package name\n",
                 name.c_str());
    return 2;
  }
  return -1;
}

}  // namespace tov

int cmdInstall(int argc, char** argv) {
  tov::InstallOptions o;
  int rc = tov::parseInstallOptions(argc, argv, o);
  if (rc < 0) rc = tov::prepareInstall(o);
  if (rc < 0) rc = tov::installLocalContainer(o);
  if (rc >= 0) return rc;
  return tov::runInstallPipeline(o);
}
