// The few file operations every part of the package manager shares: making
// the directories of a path, one straight write of a whole file, and reading
// a whole file.
#pragma once

#include <string>

namespace tov {

// Makes each directory on the way to the last "/" of `path` (and `path`
// itself when it ends in "/"), ignoring every error; whether it worked shows
// when the file is opened.
void mkdirParents(const std::string& path);
// Opens with "wb", writes, closes: true if it opened and every byte went out.
bool writeFile(const std::string& path, const std::string& bytes);
// The whole file into `out`; false if it cannot be opened or read.
bool readWholeFile(const std::string& path, std::string& out);

}  // namespace tov
