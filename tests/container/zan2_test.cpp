// The ZAN2 frame, the model reader's checks in their order, metadata, and round trips through the
// model writer. Containers are built byte by byte here, independently of the writer.
#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <functional>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "container/zan2.h"
#include "container/zan2_reader.h"
#include "container/zan2_writer.h"
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
  uint64_t u64v = 0;
  int32_t i32 = 0;
  float f = 0;
  std::string s;
  const uint32_t* vals = nullptr;
  uint32_t n = 0;
  ASSERT_TRUE(r.getMetaU64("llama.block_count", u64v) && r.getMetaI32("neg", i32) && r.getMetaF32("eps", f) &&
              r.getMetaStr("general.architecture", s) && r.getMetaU32Array("arr", vals, n));
  EXPECT_EQ(std::tie(u64v, i32, f, s, n), std::make_tuple(uint64_t(64), -5, 1e-5f, std::string("llama"), 3u));
  EXPECT_EQ(vals[2], 0xFFFFFFFFu);

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

}  // namespace
