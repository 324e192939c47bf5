// The ZAN2 frame, the model reader's checks in their order, metadata, and round trips through the
// model writer; app containers: collecting directories (skipped names, links, modes, entry), the
// exact byte layout of a packed file, and hostile containers given to read. Containers are built
// byte by byte here, independently of the writers.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "container/zan2.h"
#include "container/zan2_reader.h"
#include "container/zan2_writer.h"
#include "container/zan_app.h"
#include "tests/test_tmp.h"

namespace {

using namespace tov;
using zan2::SectionType;

std::string u16(uint16_t v) { return std::string{char(v), char(v >> 8)}; }
std::string u32(uint32_t v) { return u16(uint16_t(v)) + u16(uint16_t(v >> 16)); }
std::string u64(uint64_t v) { return u32(uint32_t(v)) + u32(uint32_t(v >> 32)); }
struct Sec { uint32_t type; std::string bytes; };

// A model container with these sections, 64-aligned in order, and a right CRC.
std::string build(const std::vector<Sec>& secs, uint32_t tensorCount = 0) {
  std::string table, body;
  uint64_t at = (64 + 24 * secs.size() + 63) / 64 * 64;
  for (const Sec& s : secs) {
    table += u32(s.type) + u32(0) + u64(at) + u64(s.bytes.size());
    body.resize(at - 64 - 24 * secs.size(), '\0');
    body += s.bytes;
    at = (at + s.bytes.size() + 63) / 64 * 64;
  }
  std::string h = "ZAN2" + u32(2) + u32(0x01020304) + u32(uint32_t(secs.size())) + u32(0) + u32(0) + u64(0) +
                  u32(0) + u32(0) + u32(tensorCount) + u16(1) + std::string(10, '\0');
  const std::string crcInput = h + table;
  return h + u64(zan2::crc64(crcInput.data(), crcInput.size())) + table + body;
}

void refreshCrc(std::string& file) {
  const uint32_t count = zan2::rdU32(reinterpret_cast<const uint8_t*>(file.data() + 12));
  std::string in = file.substr(0, 56) + file.substr(64, 24 * size_t(count));
  const std::string crc = u64(zan2::crc64(in.data(), in.size()));
  file.replace(56, 8, crc);
}

const std::string kEmptyMeta = u32(0);
std::string minimal(uint32_t tensors = 0) {
  return build({{1, kEmptyMeta}, {4, std::string(128 * tensors, '\0')}, {5, ""}}, tensors);
}

std::string tempPath(const std::string& name) { return testTempDir() + "zan2_" + name; }

std::string writeTemp(const std::string& bytes, const std::string& name = "case.zan") {
  const std::string path = tempPath(name);
  std::ofstream(path, std::ios::binary | std::ios::trunc).write(bytes.data(), std::streamsize(bytes.size()));
  return path;
}

std::string openMessage(const std::string& bytes) {
  ZAN2Reader r;
  const ZAN2Result res = r.open(writeTemp(bytes).c_str());
  EXPECT_EQ(r.isOpen(), res.ok());
  return res.message;
}

TEST(Zan2, Crc64AndKindNames) {
  EXPECT_EQ(zan2::crc64("abc", 3), 0x4E585630ADB2B002ULL);
  EXPECT_EQ(zan2::crc64("", 0), 0u);
  const std::string text = "The quick brown fox jumps over the lazy dog";
  EXPECT_EQ(zan2::crc64(zan2::crc64(text.data(), 10), text.data() + 10, text.size() - 10),
            zan2::crc64(text.data(), text.size()));
  const char* names[] = {"model (legacy/unmarked)", "model", "plugin", "dataset", "bundle", "repo", "app",
                         "unknown-kind"};
  for (uint32_t k = 0; k < 8; ++k) EXPECT_STREQ(zan2::kindName(k), names[k]) << k;
  EXPECT_STREQ(zan2::kindName(0xFFFF), "unknown-kind");
}

TEST(Zan2, OpenChecksInOrder) {
  using Patch = std::function<void(std::string&)>;
  auto setU32 = [](size_t at, uint32_t v) { return [=](std::string& f) { f.replace(at, 4, u32(v)); }; };
  auto setU64 = [](size_t at, uint64_t v) { return [=](std::string& f) { f.replace(at, 8, u64(v)); }; };
  auto then = [](Patch a, Patch b) { return [=](std::string& f) { a(f), b(f); }; };
  const Patch crc = refreshCrc, flip70 = [](std::string& f) { f[70] ^= 1; };
  const std::string base = minimal();
  // Section 0 entry at 64, section 1 at 88, section 2 at 112.
  const struct { const char* what; std::string file; Patch patch; const char* message; } cases[] = {
      {"valid", base, nullptr, ""}, {"empty file", "", nullptr, "ZAN2: cannot stat file"},
      {"63 bytes", base.substr(0, 63), nullptr, "ZAN2: file too small"},
      {"magic", base, [](std::string& f) { f[3] = '3'; }, "ZAN2: bad magic"},
      {"version", base, setU32(4, 3), "ZAN2: unsupported version"},
      {"endian", base, setU32(8, 0x04030201), "ZAN2: big-endian files unsupported"},
      {"table cut", base.substr(0, 64 + 24 * 3 - 1), nullptr, "ZAN2: truncated section table"},
      {"17 sections", base + std::string(1024, '\0'), setU32(12, 17), "ZAN2: too many sections"},
      {"17 sections, short", base, setU32(12, 17), "ZAN2: truncated section table"},
      {"crc", base, setU64(56, 1), "ZAN2: CRC mismatch"}, {"a table byte", base, flip70, "ZAN2: CRC mismatch"},
      {"no sections", base, then(setU32(12, 0), crc), "ZAN2: missing tensor index"},
      {"offset 104", base + std::string(256, '\0'), then(setU64(88 + 8, 104), crc), "ZAN2: bad section bounds"},
      {"past the end", base, then(setU64(88 + 16, 1), crc), "ZAN2: bad section bounds"},
      {"size overflows", base, then(setU64(112 + 16, ~0ULL), crc), "ZAN2: bad section bounds"},
      {"no index", base, then(setU32(88, 9), crc), "ZAN2: missing tensor index"},
      {"index too small", base, then(setU32(40, 1), crc), "ZAN2: missing tensor index"},
      {"quant too small", build({{1, kEmptyMeta}, {4, std::string(128, 'x')}, {6, std::string(31, 'q')}, {5, ""}}, 1),
       nullptr, "ZAN2: bad quant info"},
      {"no weights", base, then(setU32(112, 9), crc), "ZAN2: missing weight data"},
      {"no meta", base, then(setU32(64, 9), crc), "ZAN2: missing meta section"},
      {"meta of 3 bytes", build({{1, "\0\0\0"}, {4, ""}, {5, ""}}), nullptr, "ZAN2: missing meta section"},
  };
  for (const auto& c : cases) {
    std::string f = c.file;
    if (c.patch) c.patch(f);
    EXPECT_EQ(openMessage(f), c.message) << c.what;
  }

  ZAN2Reader r;
  EXPECT_EQ(r.open(nullptr).message, "ZAN2: null path");
  EXPECT_EQ(r.open(tempPath("does-not-exist").c_str()).message, "ZAN2: cannot open file");
}

TEST(Zan2, MetaDecoding) {
  const std::string key = u16(1) + "k";
  auto type = [](char t) { return std::string(1, t); };
  const struct { std::string meta; const char* message; } cases[] = {
      {u32(0), ""}, {u32(1), "ZAN2: bad meta key"}, {u32(1) + "\x05", "ZAN2: bad meta key"},
      {u32(1) + u16(5) + "abc", "ZAN2: bad meta key"}, {u32(1) + key, "ZAN2: bad meta type"},
      {u32(1) + key + type(6), "ZAN2: unknown meta type"},
      {u32(1) + key + type(0) + "abc", "ZAN2: bad meta u32"},
      {u32(1) + key + type(1) + "abc", "ZAN2: bad meta i32"}, {u32(1) + key + type(2), "ZAN2: bad meta f32"},
      {u32(1) + key + type(3) + "1234567", "ZAN2: bad meta u64"},
      {u32(1) + key + type(4) + "abc", "ZAN2: bad meta str"},
      {u32(1) + key + type(4) + u32(10) + "ab", "ZAN2: bad meta str"},
      {u32(1) + key + type(5) + u32(3) + u64(0), "ZAN2: bad meta array"},
      {u32(1) + key + type(5) + u32(0x40000000), "ZAN2: bad meta array"},
      {u32(2) + key + type(0) + u32(1), "ZAN2: bad meta key"},
      {u32(0xFFFFFFFF) + key + type(0) + u32(1), "ZAN2: bad meta key"},
  };
  for (const auto& c : cases) {
    const std::string meta(c.meta.data(), c.meta.size());
    EXPECT_EQ(openMessage(build({{5, ""}, {4, ""}, {1, meta}})), c.message) << testing::PrintToString(meta);
  }
}

struct Model { std::vector<std::string> data; std::vector<zan2::TensorSpec> specs; };

Model sampleTensors() {
  const std::vector<std::string> names = {"tok_embd", "output.weight", std::string(64, 'w'), "blk.0.attn_q",
                                          "blk.0.attn_k", "a", "z"};
  const uint64_t sizes[] = {1000, 64, 63, 0, 1, 4096, 129};
  std::mt19937 rng(7);
  Model m;
  m.data.resize(names.size());  // sized first: the specs point into these strings
  for (size_t i = 0; i < names.size(); ++i) {
    for (uint64_t k = 0; k < sizes[i]; ++k) m.data[i] += char(rng());
    zan2::TensorSpec t{names[i], uint16_t(i), uint16_t(i % 5), {i * 10, i * 10 + 1, i * 10 + 2, i * 10 + 3},
                       m.data[i].data(), sizes[i], i == 2 ? 0x0123456789ABCDEFULL : i};
    m.specs.push_back(t);
  }
  return m;
}

TEST(Zan2, WriterRoundTrip) {
  Model m = sampleTensors();
  zan2::ModelWriter w;
  w.modelType = 3;
  w.hiddenSize = 4096;
  w.layers = 32;
  w.vocab = 2;
  w.metaStr("general.architecture", "llama");
  w.metaU32("llama.block_count", 32);
  w.metaU64("llama.block_count", 64);  // same key, other type
  w.metaI32("neg", -5);
  w.metaF32("eps", 1e-5f);
  const uint32_t arr[] = {1, 2, 0xFFFFFFFF};
  w.metaU32Array("arr", arr, 3);
  const TokenizerData tok{.vocab = {"<s>", "</s>", std::string("\0x", 2)}, .scores = {1, 2, 3},
                          .tokenTypes = {3, 3, 1}, .merges = {"a b"}, .special = {1}, .addBos = true,
                          .name = "gpt2"};
  w.setTokenizer(tok);
  std::string err;
  for (const auto& t : m.specs) ASSERT_TRUE(w.addTensor(t, err)) << err;
  const std::string path = tempPath("roundtrip.zan");
  ASSERT_TRUE(w.write(path.c_str(), err)) << err;

  ZAN2Reader r;
  const ZAN2Result res = r.open(path.c_str());
  ASSERT_TRUE(res.ok()) << res.message;
  EXPECT_TRUE(r.aligned64());
  const zan2::Header& h = r.header();
  EXPECT_EQ(std::tie(h.kind, h.modelType, h.hiddenSize, h.layers, h.tensorCount),
            std::make_tuple(uint16_t(1), 3u, 4096u, 32u, uint32_t(m.specs.size())));

  for (auto [key, want] : {std::pair{"container.kind", 1u}, {"container.version", 2u}, {"llama.block_count", 32u}}) {
    uint32_t u = 0;
    EXPECT_TRUE(r.getMetaU32(key, u) && u == want) << key << " " << u;
  }
  struct { uint64_t u = 0; int32_t i = 0; float f = 0; std::string s; const uint32_t* a = nullptr; uint32_t n = 0; } g;
  ASSERT_TRUE(r.getMetaU64("llama.block_count", g.u) && r.getMetaI32("neg", g.i) && r.getMetaF32("eps", g.f) &&
              r.getMetaStr("general.architecture", g.s) && r.getMetaU32Array("arr", g.a, g.n));
  EXPECT_EQ(std::tie(g.u, g.i, g.f, g.s, g.n, g.a[2]),
            std::make_tuple(uint64_t(64), -5, 1e-5f, std::string("llama"), 3u, 0xFFFFFFFFu));

  TokenizerData back;
  ASSERT_TRUE(r.readTokenizer(back));
  EXPECT_EQ(std::tie(back.name, back.vocab, back.scores, back.tokenTypes, back.merges, back.special[0], back.addBos),
            std::tie(tok.name, tok.vocab, tok.scores, tok.tokenTypes, tok.merges, tok.special[0], tok.addBos));

  // Every tensor is found by name, its bytes 64-aligned; the index is sorted.
  const uint8_t* weights = r.sectionData(SectionType::WeightData);
  for (size_t i = 0; i < m.specs.size(); ++i) {
    const zan2::TensorSpec& t = m.specs[i];
    const zan2::TensorRecord* rec = r.findTensor(t.name.c_str());
    ASSERT_NE(rec, nullptr) << t.name;
    EXPECT_EQ(std::string(rec->name, strnlen(rec->name, 64)), t.name);
    const TensorView v = r.tensorView(t.name.c_str());
    ASSERT_EQ(v.size, t.size) << t.name;
    EXPECT_EQ(std::memcmp(v.data, m.data[i].data(), t.size), 0) << t.name;
    EXPECT_EQ((v.data - weights) % 64, 0) << t.name;
    EXPECT_EQ(std::tie(v.dtype, v.ndim, v.dims[3], v.quant), std::tie(t.dtype, t.ndim, t.dims[3], t.quant));
  }
  const auto* recs = reinterpret_cast<const zan2::TensorRecord*>(r.sectionData(SectionType::TensorIndex));
  for (uint32_t i = 0; i + 1 < h.tensorCount; ++i) EXPECT_LT(std::strncmp(recs[i].name, recs[i + 1].name, 64), 0);
  // Names compare on 64 bytes only.
  EXPECT_NE(r.findTensor((std::string(64, 'w') + "extra!").c_str()), nullptr);

  // A record of 5 dims, or one reaching past WeightData, gives an empty view;
  // the index isn't under the checksum, so the file still opens.
  std::ifstream in(path, std::ios::binary);
  std::string file((std::istreambuf_iterator<char>(in)), {});
  const size_t index = r.section(SectionType::TensorIndex)->offset;
  file.replace(index + 68, 2, u16(5));
  file.replace(index + 128 + 112, 8, u64(1ULL << 40));
  ZAN2Reader odd;
  ASSERT_TRUE(odd.open(writeTemp(file, "odd.zan").c_str()).ok());
  EXPECT_EQ(odd.tensorView(0u).data, nullptr);
  EXPECT_EQ(odd.tensorView(1u).size, 0u);
  EXPECT_NE(odd.tensorView(2u).data, nullptr);
}

TEST(Zan2, WriterRefusals) {
  zan2::ModelWriter w;
  std::string err;
  EXPECT_FALSE(w.addTensor({std::string(65, 'n')}, err));
  EXPECT_FALSE(w.addTensor({"x", 0, 5}, err));
  EXPECT_EQ(err, "tensor 'x' has 5 dimensions, at most 4 fit");
  ASSERT_TRUE(w.addTensor({"x", 0, 1}, err) && w.addTensor({"x", 0, 1}, err)) << err;
  EXPECT_FALSE(w.write(tempPath("dup.zan").c_str(), err));
  EXPECT_EQ(err, "tensor 'x' is given twice");

  zan2::ModelWriter empty;
  ASSERT_TRUE(empty.write(tempPath("empty-model.zan").c_str(), err)) << err;
  ZAN2Reader r;
  EXPECT_TRUE(r.open(tempPath("empty-model.zan").c_str()).ok());
  EXPECT_FALSE(empty.write("/nonexistent-dir/x.zan", err));
  EXPECT_EQ(err, "cannot create /nonexistent-dir/x.zan: No such file or directory");
}

// ---- app containers ----

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
// Windows has no execute bits (a file runs by its name) and makes symbolic links only with extra privileges.
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
  EXPECT_EQ(std::tie(o.platform, o.entry), std::make_tuple("zanb", "main.zanb"));

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

// A container built by hand: sections given as (type, offset, size) over a body placed from offset 192.
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
