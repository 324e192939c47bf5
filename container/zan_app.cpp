#include "container/zan_app.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <system_error>

#include "base/json.h"
#include "container/zan2.h"

namespace tov::zanapp {

namespace fs = std::filesystem;

namespace {

constexpr uint64_t kManifestOffset = 192;
constexpr uint32_t kSections = 3;


bool isModuleName(const std::string& p) { return p.ends_with(".zanb") || p.ends_with(".zana"); }
bool isTopLevel(const File& f) { return f.path.find('/') == std::string::npos; }
bool isExecutable(const File& f) { return (f.mode & 0111) != 0; }

void sortFiles(std::vector<File>& files) {
  std::sort(files.begin(), files.end(), [](const File& a, const File& b) { return a.path < b.path; });
}

bool skippedName(const std::string& name) {
  return name == ".git" || name == ".dart_tool" || name == "node_modules" || name == ".gradle";
}

uint64_t alignUp64(uint64_t v) { return (v + 63) & ~uint64_t(63); }

// Fills `platform` and `entry` where they are empty, from the top-level
// files of a sorted list.
void detect(const std::vector<File>& files, PackOptions& o) {
  bool hasExe = false, hasIndex = false, hasBootstrap = false, hasAssets = false;
  const File* exeEntry = nullptr;
  const File* bytecodeEntry = nullptr;
  for (const File& f : files) {
    if (f.path == "data/flutter_assets" || f.path.rfind("data/flutter_assets/", 0) == 0) hasAssets = true;
    if (!isTopLevel(f)) continue;
    if (f.path.ends_with(".exe")) {
      if (!hasExe) exeEntry = &f;
      hasExe = true;
    }
    if (isModuleName(f.path) && (!bytecodeEntry || f.path < bytecodeEntry->path)) bytecodeEntry = &f;
    if (f.path == "index.html") hasIndex = true;
    if (f.path == "flutter_bootstrap.js") hasBootstrap = true;
  }
  if (o.platform.empty()) {
    if (hasExe) o.platform = "windows";
    else if (bytecodeEntry) o.platform = "zanb";
    else if (hasIndex && hasBootstrap) o.platform = "web";
    else if (hasAssets) o.platform = "linux";
    else o.platform = "zanb";
  }
  if (o.entry.empty()) {
    const File* firstExec = nullptr;
    const File* firstTop = nullptr;
    for (const File& f : files) {
      if (!isTopLevel(f)) continue;
      if (!firstTop) firstTop = &f;
      if (!firstExec && isExecutable(f)) firstExec = &f;
    }
    if (bytecodeEntry) o.entry = bytecodeEntry->path;
    else if (o.platform == "web") o.entry = "index.html";
    else if (hasExe) o.entry = exeEntry->path;
    else if (firstExec) o.entry = firstExec->path;
    else if (firstTop) o.entry = firstTop->path;
  }
}

bool readWhole(const std::string& path, std::string& out) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return false;
  out.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  return !in.bad();
}

}  // namespace

bool collect(const std::string& dir, std::vector<File>& files, PackOptions& options, std::string& err) {
  std::error_code ec;
  if (!fs::is_directory(dir, ec)) {
    err = "'" + dir + "' is not a directory";
    return false;
  }
  std::vector<File> found;
  fs::recursive_directory_iterator it(dir, fs::directory_options::skip_permission_denied, ec), end;
  for (; !ec && it != end; it.increment(ec)) {
    const fs::directory_entry& e = *it;
    if (skippedName(e.path().filename().string())) {
      if (e.is_directory(ec) && !e.is_symlink(ec)) it.disable_recursion_pending();
      continue;
    }
    if (!e.is_regular_file(ec)) continue;  // follows a link to see what it leads to
    File f;
    f.path = e.path().lexically_relative(dir).generic_string();
    if (f.path.empty() || f.path == ".") continue;
    if (!readWhole(e.path().string(), f.bytes)) {
      err = "cannot read " + e.path().string();
      return false;
    }
    std::error_code pe;
    const fs::perms p = fs::status(e.path(), pe).permissions();
    const bool exec = !pe && (p & (fs::perms::owner_exec | fs::perms::group_exec | fs::perms::others_exec)) !=
                                 fs::perms::none;
    f.mode = exec ? 0755 : 0644;
    found.push_back(std::move(f));
  }
  if (found.empty()) {
    err = "no files under '" + dir + "'";
    return false;
  }
  sortFiles(found);
  if (options.platform.empty() || options.entry.empty()) detect(found, options);
  for (File& f : found) files.push_back(std::move(f));
  return true;
}

std::string manifestText(const PackOptions& o) {
  const bool zanb = o.platform == "zanb";
  std::string m = "{\"kind\":";
  m += zanb ? "\"zanb-app\"" : "\"flutter-app\"";
  m += ",\"name\":" + jsonEscape(o.name);
  m += ",\"version\":" + jsonEscape(o.version);
  m += ",\"desc\":" + jsonEscape(o.desc);
  m += ",\"platform\":" + jsonEscape(o.platform);
  m += ",\"entry\":" + jsonEscape(o.entry);
  m += zanb ? ",\"flutter\":false" : ",\"flutter\":true";
  if (!o.extra.empty()) m += "," + o.extra;
  m += ",\"indexSection\":2,\"payloadSection\":1}\n";
  return m;
}

bool pack(const std::string& outPath, const PackOptions& options, std::vector<File> files, std::string& err) {
  if (files.empty()) {
    err = "no files to pack";
    return false;
  }
  sortFiles(files);
  PackOptions o = options;
  if (o.name.empty()) o.name = "app";
  if (o.version.empty()) o.version = "0.1.0";
  if (o.platform.empty()) o.platform = "zanb";
  if (o.entry.empty()) {
    for (const File& f : files)
      if (isTopLevel(f) && (f.path.ends_with(".zanb") || isExecutable(f))) {
        o.entry = f.path;
        break;
      }
    if (o.entry.empty()) o.entry = files.front().path;
  }

  const std::string manifest = manifestText(o);
  std::string index;
  uint64_t payloadSize = 0;
  char head[64];
  for (const File& f : files) {
    std::snprintf(head, sizeof head, "%o %llu %llu ", f.mode, static_cast<unsigned long long>(payloadSize),
                  static_cast<unsigned long long>(f.bytes.size()));
    index += head;
    index += f.path;
    index += '\n';
    payloadSize += f.bytes.size();
  }
  const uint64_t payloadAt = (manifest.size() + 255) & ~uint64_t(63);
  const uint64_t indexAt = alignUp64(payloadAt + payloadSize);

  zan2::Header h;
  std::memcpy(h.magic, zan2::kMagic, 4);
  h.version = zan2::kVersion;
  h.endian = zan2::kEndianMark;
  h.sectionCount = kSections;
  h.kind = zan2::kKindApp;
  uint8_t header[zan2::kHeaderSize];
  uint8_t table[kSections * zan2::kSectionEntrySize];
  zan2::encodeSection({uint32_t(zan2::SectionType::AppManifest), 0, kManifestOffset, manifest.size()}, table);
  zan2::encodeSection({uint32_t(zan2::SectionType::AppPayload), 0, payloadAt, payloadSize}, table + 24);
  zan2::encodeSection({uint32_t(zan2::SectionType::AppIndex), 0, indexAt, index.size()}, table + 48);
  zan2::encodeHeader(h, header);
  h.crc = zan2::headerCrc(header, table, kSections);
  zan2::encodeHeader(h, header);

  FILE* out = std::fopen(outPath.c_str(), "wb");
  if (!out) {
    err = "cannot create " + outPath;
    return false;
  }
  uint64_t pos = 0;
  bool ok = true;
  auto put = [&](const void* p, size_t n) {
    if (ok && n && std::fwrite(p, 1, n, out) != n) ok = false;
    pos += n;
  };
  auto padTo = [&](uint64_t at) {
    static const char zeros[64] = {};
    while (ok && pos < at) put(zeros, static_cast<size_t>(std::min<uint64_t>(64, at - pos)));
  };
  put(header, sizeof header);
  put(table, sizeof table);
  padTo(kManifestOffset);
  put(manifest.data(), manifest.size());
  padTo(payloadAt);
  for (const File& f : files) put(f.bytes.data(), f.bytes.size());
  padTo(indexAt);
  put(index.data(), index.size());
  if (std::fclose(out) != 0) ok = false;
  if (!ok) {
    err = "write failed for " + outPath;
    return false;
  }
  return true;
}

bool read(const std::string& path, std::string& manifest, std::vector<File>& files, std::string& err) {
  std::string data;
  if (!readWhole(path, data) || data.size() < zan2::kHeaderSize) {
    err = "cannot read " + path;
    return false;
  }
  const uint8_t* bytes = reinterpret_cast<const uint8_t*>(data.data());
  const uint64_t size = data.size();
  if (std::memcmp(bytes, zan2::kMagic, 4) != 0) {
    err = "not an ZAN container";
    return false;
  }
  const uint32_t count = zan2::rdU32(bytes + 12);
  if (count == 0 || count > 65536) {
    err = "bad section count";
    return false;
  }
  if (size < zan2::kHeaderSize + uint64_t(count) * zan2::kSectionEntrySize) {
    err = "truncated section table";
    return false;
  }
  const zan2::SectionEntry none{};
  zan2::SectionEntry manifestSec = none, payload = none, index = none;
  bool hasManifest = false, hasPayload = false, hasIndex = false;
  for (uint32_t i = 0; i < count; ++i) {
    const zan2::SectionEntry s = zan2::decodeSection(bytes + zan2::kHeaderSize + i * zan2::kSectionEntrySize);
    switch (static_cast<zan2::SectionType>(s.type)) {
      case zan2::SectionType::AppManifest: manifestSec = s, hasManifest = true; break;
      case zan2::SectionType::AppPayload: payload = s, hasPayload = true; break;
      case zan2::SectionType::AppIndex: index = s, hasIndex = true; break;
      default: break;
    }
  }
  if (!hasPayload || !hasIndex) {
    err = "not an app container (no AppPayload/AppIndex)";
    return false;
  }
  auto inside = [&](const zan2::SectionEntry& s) { return s.offset <= size && s.size <= size - s.offset; };
  if (!inside(payload) || !inside(index)) {
    err = "section out of bounds";
    return false;
  }
  if (hasManifest && inside(manifestSec)) manifest.assign(data, manifestSec.offset, manifestSec.size);

  const std::string_view text(data.data() + index.offset, index.size);
  size_t lineStart = 0;
  for (size_t nl; (nl = text.find('\n', lineStart)) != std::string_view::npos; lineStart = nl + 1) {
    const std::string_view line = text.substr(lineStart, nl - lineStart);
    const size_t s1 = line.find(' ');
    const size_t s2 = s1 == std::string_view::npos ? s1 : line.find(' ', s1 + 1);
    const size_t s3 = s2 == std::string_view::npos ? s2 : line.find(' ', s2 + 1);
    if (s3 == std::string_view::npos) continue;
    const std::string modeText(line.substr(0, s1)), offText(line.substr(s1 + 1, s2 - s1 - 1)),
        sizeText(line.substr(s2 + 1, s3 - s2 - 1));
    const std::string filePath(line.substr(s3 + 1));
    if (filePath.empty() || filePath.find("..") != std::string::npos) continue;
    const uint64_t off = std::strtoull(offText.c_str(), nullptr, 10);
    const uint64_t len = std::strtoull(sizeText.c_str(), nullptr, 10);
    if (off > payload.size || len > payload.size - off) {
      err = "entry out of bounds: " + filePath;
      return false;
    }
    File f;
    f.path = filePath;
    f.mode = static_cast<uint32_t>(std::strtoul(modeText.c_str(), nullptr, 8));
    f.bytes.assign(data, payload.offset + off, len);
    files.push_back(std::move(f));
  }
  return true;
}

bool packDirectory(const std::string& dir, const std::string& outPath, PackOptions options, std::string& err) {
  std::vector<File> files;
  return collect(dir, files, options, err) && pack(outPath, options, std::move(files), err);
}

}  // namespace tov::zanapp
