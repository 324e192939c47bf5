// The install pipeline behind `install`, `update` and `upgrade`, from the
// walk over the sources to the recorded state: discovery with its retries,
// resolution, selection, the plan, the confirmation, checked downloads
// moved into place, and one write of the installed state. These are
// command-level functions: they print their messages and give exit codes.
#pragma once

#include <string>
#include <vector>

#include "packages/cmd_install.h"

namespace tov {

// Set by main for the length of an `update` run: the pipeline stops after
// the plan and reports what is available.
extern bool gOnlyUpdate;

// Everything after the local-container check (`opts.dir` made): walks the sources (or the
// --repo one), then resolves, selects, plans, confirms, downloads and
// records. Gives the exit code.
int runInstallPipeline(const InstallOptions& opts);

// Whether to ask before changing anything: not with -y, and otherwise only
// when standard input is a terminal or ZAN_CONFIRM is set.
bool shouldPrompt(bool assumeYes);
// Reads one line of standard input: true if its first character that is
// not a blank or tab is "y" or "Y". End of input is a no.
bool readYes();

// Replaces `to` by `from` in one step, also where the platform's rename
// refuses an existing target.
bool replaceFile(const std::string& from, const std::string& to);

}  // namespace tov
