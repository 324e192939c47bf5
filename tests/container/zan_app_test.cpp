// App containers: collecting directories (skipped names, links, modes, entry), the exact byte
// layout of a packed file, and hostile containers given to read.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <tuple>
#include <vector>

#include "container/zan2.h"
#include "container/zan_app.h"
#include "tests/test_tmp.h"

namespace {

namespace fs = std::filesystem;
using tov::zanapp::File;
using tov::zanapp::PackOptions;

fs::path freshDir(const std::string& name) {
  const fs::path d = fs::path(testTempDir()) / ("zanapp_" + name);
  fs::remove_all(d);
  fs::create_directories(d);
  return d;
}

void put(const fs::path& p, const std::string& text, bool exec = false) {
  fs::create_directories(p.parent_path());
  std::ofstream(p, std::ios::binary) << text;
  fs::permissions(p, exec ? fs::perms(0755) : fs::perms(0644));
}

std::string slurp(const fs::path& p) {
  std::ifstream in(p, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

std::vector<std::string> paths(const std::vector<File>& files) {
  std::vector<std::string> out;
  for (const File& f : files) out.push_back(f.path);
  return out;
}

#ifdef _WIN32
// Windows has no execute bits (a file runs by its name) and makes symbolic
// links only with extra privileges.
constexpr bool kPosixFiles = false;
#else
constexpr bool kPosixFiles = true;
#endif

TEST(ZanApp, CollectWalksAndSkips) {
  const fs::path d = freshDir("collect");
  // Each file holds its own name; node_modules is a file named like a skipped directory.
  for (const char* f : {"main.zanb", ".gitignore", "node_modules", ".git/config", "assets/.gradle/x",
                        "assets/img/b.png", "assets/a b.txt", "real.txt"})
    put(d / f, f);
  put(d / "run.sh", "#!/bin/sh\n", true);
  if (kPosixFiles) {
    fs::create_symlink("real.txt", d / "link.txt");
    fs::create_symlink("missing", d / "broken");
    fs::create_directory_symlink(d / "assets", d / "dirlink");
  }
  std::vector<File> files;
  PackOptions o;
  std::string err;
  ASSERT_TRUE(tov::zanapp::collect(d.string(), files, o, err)) << err;
  std::vector<std::string> want = {".gitignore", "assets/a b.txt", "assets/img/b.png", "link.txt",
                                   "main.zanb",  "real.txt",       "run.sh"};
  if (!kPosixFiles) want.erase(want.begin() + 3);
  ASSERT_EQ(paths(files), want);
  if (kPosixFiles) { EXPECT_EQ(files[3].bytes, "real.txt"); EXPECT_EQ(files[6].mode, 0755u); }
  EXPECT_EQ(files[0].mode, 0644u);
  EXPECT_EQ(o.platform, "zanb");
  EXPECT_EQ(o.entry, "main.zanb");

  std::vector<File> none;
  EXPECT_FALSE(tov::zanapp::collect((d / "nope").string(), none, o, err));
  EXPECT_EQ(err, "'" + (d / "nope").string() + "' is not a directory");
  const fs::path empty = freshDir("empty");
  put(empty / ".git/HEAD", "x");
  EXPECT_FALSE(tov::zanapp::collect(empty.string(), none, o, err));
  EXPECT_EQ(err, "no files under '" + empty.string() + "'");
}

TEST(ZanApp, PackLayoutByteByByte) {
  const fs::path out = freshDir("layout") / "a.zan";
  PackOptions o;
  o.name = "t\"q";
  o.extra = "\"icon\":\"i.png\",\"n\":3";
  std::vector<File> files = {{"b.bin", std::string(70, 'b'), 0644}, {"a.zanb", "ZANBxyz", 0755}};
  std::string err;
  ASSERT_TRUE(tov::zanapp::pack(out.string(), o, files, err)) << err;
  const std::string f = slurp(out);
  const uint8_t* b = reinterpret_cast<const uint8_t*>(f.data());
  const tov::zan2::Header h = tov::zan2::decodeHeader(b);
  EXPECT_TRUE(h.magicOk());
  EXPECT_EQ(std::tie(h.version, h.sectionCount, h.kind), std::make_tuple(2u, 3u, uint16_t(6)));
  EXPECT_EQ(h.modelType + h.hiddenSize + h.layers + h.vocab + h.tensorCount, 0u);
  EXPECT_EQ(h.crc, tov::zan2::crc64((f.substr(0, 56) + f.substr(64, 72)).data(), 128));
  EXPECT_EQ(f.substr(136, 56), std::string(56, '\0'));

  const std::string manifest =
      "{\"kind\":\"zanb-app\",\"name\":\"t\\\"q\",\"version\":\"0.1.0\",\"desc\":\"\",\"platform\":\"zanb\","
      "\"entry\":\"a.zanb\",\"flutter\":false,\"icon\":\"i.png\",\"n\":3,\"indexSection\":2,\"payloadSection\":1}\n";
  // Manifest, payload, index: type, offset and bytes; the file ends with the index.
  const uint64_t payAt = (manifest.size() + 255) / 64 * 64, idxAt = (payAt + 77 + 63) / 64 * 64;
  const std::tuple<uint32_t, uint64_t, std::string> want[] = {
      {13, 192, manifest}, {14, payAt, "ZANBxyz" + std::string(70, 'b')},
      {15, idxAt, "755 0 7 a.zanb\n644 7 70 b.bin\n"}};
  for (int i = 0; i < 3; ++i) {
    const tov::zan2::SectionEntry s = tov::zan2::decodeSection(b + 64 + 24 * i);
    EXPECT_EQ(std::make_tuple(s.type, s.offset, f.substr(s.offset, s.size)), want[i]) << i;
    EXPECT_EQ(s.flags, 0u);
  }
  EXPECT_EQ(f.size(), idxAt + std::get<2>(want[2]).size());
}

// A container built by hand: sections given as (type, offset, size) over a
// body placed from offset 192.
std::string container(const std::vector<tov::zan2::SectionEntry>& secs, const std::string& body,
                      uint32_t count = 0) {
  std::string f(64 + 24 * secs.size(), '\0');
  tov::zan2::Header h;
  std::memcpy(h.magic, "ZAN2", 4);
  h.sectionCount = count ? count : uint32_t(secs.size());
  tov::zan2::encodeHeader(h, reinterpret_cast<uint8_t*>(f.data()));
  for (size_t i = 0; i < secs.size(); ++i)
    tov::zan2::encodeSection(secs[i], reinterpret_cast<uint8_t*>(f.data() + 64 + 24 * i));
  f.resize(std::max<size_t>(f.size(), 192), '\0');
  return f + body;
}

TEST(ZanApp, HostileContainers) {
  const std::string idx = "644 0 3 ok.txt\n644 1 2 ../evil\n644 0 1 a..b\n644 0 1 \n6440 1 x\n644 2 1 last.txt\nno-nl";
  const uint64_t payAt = 192, idxAt = 192 + 8;
  const std::string body = std::string("PAY") + std::string(5, '\0') + idx;
  const std::string huge = "644 18446744073709551615 2 w\n";  // offset + size wraps
  const char* notApp = "not an app container (no AppPayload/AppIndex)";
  const tov::zan2::SectionEntry pay{14, 0, payAt, 3}, index{15, 0, idxAt, idx.size()};
  const struct { std::string file; const char* err; const char* manifest = "kept"; } cases[] = {  // err null: reads
      {"", "cannot read @"}, {std::string(63, 'Z'), "cannot read @"},
      {"ZAN3" + std::string(100, '\0'), "not an ZAN container"}, {container({}, "", 0), "bad section count"},
      {container({}, "", 65537), "bad section count"}, {container({pay}, body), notApp},
      {container({}, "", 5).substr(0, 64 + 24 * 5 - 1), "truncated section table"},
      {container({{1, 0, 192, 4}, {4, 0, 196, 0}, {5, 0, 196, 0}}, "meta"), notApp},
      {container({pay, {15, 0, idxAt, 1 << 20}}, body), "section out of bounds"},
      {container({{14, 0, ~0ULL, 2}, index}, body), "section out of bounds"},
      {container({pay, index}, body), nullptr},  // no manifest: left as it was
      // The last manifest entry counts.
      {container({{13, 0, 400, 5}, pay, index, {13, 0, 192, 3}}, body), nullptr, "PAY"},
      {container({{14, 0, payAt, 2}, index}, body), "entry out of bounds: ok.txt"},
      {container({pay, {15, 0, idxAt, huge.size()}}, body.substr(0, 8) + huge), "entry out of bounds: w"},
  };
  const std::string path = (freshDir("hostile") / "h.zan").string();
  for (const auto& c : cases) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << c.file;
    std::string manifest = "kept", err;
    std::vector<File> files;
    const bool ok = tov::zanapp::read(path, manifest, files, err);
    if (!c.err) {
      ASSERT_TRUE(ok) << err;
      EXPECT_EQ(manifest, c.manifest);
      ASSERT_EQ(paths(files), (std::vector<std::string>{"ok.txt", "last.txt"}));
      EXPECT_EQ(std::tie(files[0].bytes, files[1].bytes), std::make_tuple("PAY", "Y"));
      continue;
    }
    EXPECT_FALSE(ok);
    EXPECT_EQ(err, std::string(c.err) == "cannot read @" ? "cannot read " + path : c.err);
  }
}

}  // namespace
