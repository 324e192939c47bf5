// App containers: a ZAN2 file of kind 6 holding a directory tree as a JSON
// manifest, one payload of all file bytes, and a text index of the files.
// Turns a directory into such a file and back; nothing is compressed and
// nothing is printed.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace tov::zanapp {

struct File {
  std::string path;  // relative, "/" separated
  std::string bytes;
  uint32_t mode = 0644;
};

struct PackOptions {
  std::string name;
  std::string version = "0.1.0";
  std::string desc;
  std::string platform;  // "zanb", "windows", "linux", "web", ...
  std::string entry;
  std::string extra;  // raw `"key":value` pairs placed into the manifest
};

// Walks `dir` into `files` (sorted by path) and fills `platform` and `entry`
// of `options` where they are empty.
bool collect(const std::string& dir, std::vector<File>& files, PackOptions& options, std::string& err);

// Writes a container; `files` is sorted here, `options` is left as given.
bool pack(const std::string& outPath, const PackOptions& options, std::vector<File> files, std::string& err);

// Reads a container: `manifest` gets the manifest text (when there is one),
// `files` one entry per usable index line, appended.
bool read(const std::string& path, std::string& manifest, std::vector<File>& files, std::string& err);

// collect, then pack.
bool packDirectory(const std::string& dir, const std::string& outPath, PackOptions options, std::string& err);

// The manifest text pack writes for these options (entry already chosen).
std::string manifestText(const PackOptions& options);

}  // namespace tov::zanapp
