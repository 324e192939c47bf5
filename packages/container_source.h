// Container sources: a ZAN2 container of kind 2 (plugin) or 5 (repo) whose
// section 0 is a JSON manifest naming plugin files by section index. This
// unit probes such a file, extracts its files into the install directory,
// records them in the installed state under the origin "zan://<address or
// absolute path>", and drops what an earlier run of the same origin
// installed that the container no longer holds. It prints its own progress
// and errors, as the install commands it serves expect.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace tov {

// One section table entry as read here; `flags` is not read.
struct ZanSec {
  uint32_t type = 0;
  uint64_t offset = 0;
  uint64_t size = 0;
};

// True if `path` opens, has 64 header bytes and starts with "ZAN2". `kind`
// gets the header's kind; `sections` the table, left empty when the count
// is not 1..65536 or the table cannot be read (still true).
bool zanContainerProbe(const std::string& path, uint16_t* kind, std::vector<ZanSec>* sections);
// Copies the section's bytes into `target` ("wb"); false on any short read
// or write.
bool zanExtractSection(const std::string& path, const ZanSec& section, const std::string& target);
// $HOME/.zan/cache (or ./.zan/cache) + the address's last path element
// without its query, "container.zan" when that is empty. Makes the directory.
std::string zanCachePathFor(const std::string& address);

// Installs the plugins of a container file into `dir`. `names`: null, or
// the exact package names wanted. `origin`: null for "zan://" + absolute
// path. 0 done, 1 a failure, 2 nothing matched or not a repo/plugin container.
int installFromZanContainer(const std::string& path, const std::string& dir, bool force,
                            const std::vector<std::string>* names, const std::string* origin);
// Fetches a container address into the cache and installs from it (or only
// names it with `listOnly`). Sets `served` on success; result as above.
int installContainerUrl(const std::string& url, const std::string& dir, bool force,
                        const std::vector<std::string>* names, bool listOnly, bool& served);

}  // namespace tov
