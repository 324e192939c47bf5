// The GGUF reader on hand-made files, good and hostile: refusals name what
// is wrong. The shipped importer is driven by tests/cli/shipped.py.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "plugins/gguf/gguf.h"

namespace {

// Little-endian pieces of a GGUF file.
std::string u32(uint32_t v) { return std::string(reinterpret_cast<const char*>(&v), 4); }
std::string u64(uint64_t v) { return std::string(reinterpret_cast<const char*>(&v), 8); }
std::string str(const std::string& s) { return u64(s.size()) + s; }
std::string kv(const std::string& key, uint32_t type, const std::string& value) { return str(key) + u32(type) + value; }

struct Tensor { std::string name; std::vector<uint64_t> dims; uint32_t type; uint64_t offset; };

// A file with these entries and tensors; the data section (32-aligned) holds `data` bytes.
std::string file(const std::vector<std::string>& kvs, const std::vector<Tensor>& tensors, size_t data,
                 uint32_t version = 3) {
  std::string f = "GGUF" + u32(version) + u64(tensors.size()) + u64(kvs.size());
  for (const std::string& k : kvs) f += k;
  for (const Tensor& t : tensors) {
    f += str(t.name) + u32(uint32_t(t.dims.size()));
    for (uint64_t d : t.dims) f += u64(d);
    f += u32(t.type) + u64(t.offset);
  }
  f.resize((f.size() + 31) / 32 * 32, '\0');
  for (size_t i = 0; i < data; ++i) f.push_back(char(i * 7));
  return f;
}

const std::vector<std::string> kMeta = {
    kv("general.architecture", 8, str("llama")),
    kv("llama.embedding_length", 4, u32(32)),
    kv("llama.block_count", 5, u32(2)),
    kv("llama.rope.freq_base", 6, u32(0x461C4000)),  // 10000.0f
    kv("test.u64", 10, u64(~0ULL)),
    kv("test.bool", 7, std::string(1, '\1')),
    kv("tokenizer.ggml.tokens", 9, u32(8) + u64(3) + str("<unk>") + str("<s>") + str("a b")),
    kv("tokenizer.ggml.token_type", 9, u32(1) + u64(3) + std::string("\2\3\xff", 3)),
    kv("test.nested", 9, u32(9) + u64(2) + u32(4) + u64(1) + u32(5) + u32(0) + u64(0)),
};
const std::vector<Tensor> kTensors = {{"tok_embd.weight", {32, 3}, 8, 0}, {"norm", {32}, 0, 128}};
const size_t kData = 128 + 128;

// A good file read, then hostile ones refused.
TEST(Gguf, ReadsAGoodFileAndRefusesHostileOnes) {
  const std::string f = file(kMeta, kTensors, kData);
  gguf::File g;
  std::string err;
  ASSERT_TRUE(gguf::parse(reinterpret_cast<const uint8_t*>(f.data()), f.size(), g, err)) << err;
  EXPECT_EQ(g.version, 3u);
  EXPECT_EQ(g.getStr("general.architecture"), "llama");
  uint32_t v = 0;
  float fv = 0;
  EXPECT_TRUE(g.getU32("llama.block_count", v) && v == 2u) << v;
  EXPECT_FALSE(g.getU32("test.u64", v));  // out of the u32 range
  EXPECT_TRUE(g.getF32("llama.rope.freq_base", fv) && fv == 10000.0f) << fv;
  EXPECT_EQ(g.find("test.bool")->u, 1u);
  EXPECT_EQ(gguf::stringArray(*g.find("tokenizer.ggml.tokens")), (std::vector<std::string_view>{"<unk>", "<s>", "a b"}));
  EXPECT_EQ(gguf::u32Array(*g.find("tokenizer.ggml.token_type")), (std::vector<uint32_t>{2, 3, 0xFFFFFFFF}));
  ASSERT_EQ(g.tensors.size(), 2u);
  EXPECT_EQ(g.tensors[0].size, 3u * 34);  // one Q8_0 block per row
  EXPECT_EQ(g.tensors[1].size, 128u);
  EXPECT_EQ(g.tensors[1].data - g.tensors[0].data, 128);

  const struct { std::string file; const char* err; } cases[] = {
      {"GGML" + std::string(60, '\0'), "not a GGUF file (bad magic)"},
      {file(kMeta, kTensors, kData, 1), "unsupported GGUF version 1 (2 and 3 are read)"},
      {"GGUF" + u32(3) + u64(0) + u64(~0ULL), "metadata count 18446744073709551615 is more than the file holds"},
      {"GGUF" + u32(3) + u64(1ULL << 60) + u64(0), "tensor count 1152921504606846976 is more than the file holds"},
      {file({kv("k", 8, u64(1ULL << 40))}, {}, 0), "metadata string is longer than the file"},
      {file({kv("k", 9, u32(4) + u64(~0ULL / 2))}, {}, 0), "metadata 'k': array is longer than the file"},
      {file({kv("k", 9, u32(8) + u64(2) + str("a") + u64(99))}, {}, 0),
       "metadata 'k': array string is longer than the file"},
      {file({kv("k", 13, "")}, {}, 0), "metadata 'k' has unknown value type 13"},
      {file({kv("general.alignment", 4, u32(48))}, {}, 0), "general.alignment must be a power of two"},
      {file({}, {{"big", {32, 4}, 0, 0}}, 100), "tensor 'big' reaches past the end of the file"},
      {file({}, {{"far", {32}, 0, ~0ULL - 31}}, 128), "tensor 'far' reaches past the end of the file"},
      {file({}, {{"odd", {32}, 0, 8}}, 256), "tensor 'odd' starts at a misaligned offset 8"},
      {file({}, {{"blk.0.attn_q.weight", {32, 2}, 3, 0}}, 256),
       "tensor 'blk.0.attn_q.weight' has type Q4_1, which is not supported (F32, F16, BF16, Q8_0, Q4_0, Q2_K, Q3_K, Q4_K, Q5_K, Q6_K are)"},
      {file({}, {{"q", {33, 2}, 2, 0}}, 256), "tensor 'q' has type Q4_0 with rows of 33 elements, not a multiple of its block of 32"},
      {file({}, {{"k", {320, 1}, 12, 0}}, 256), "tensor 'k' has type Q4_K with rows of 320 elements, not a multiple of its block of 256"},
      {file({}, {{"five", {1, 1, 1, 1, 1}, 0, 0}}, 64), "tensor 'five' has 5 dimensions (1 to 4 are read)"},
      {file({}, {{"huge", {1ULL << 40, 1ULL << 40}, 0, 0}}, 64), "tensor 'huge' has impossible dimensions"},
  };
  for (const auto& c : cases) {
    gguf::File g;
    std::string err;
    EXPECT_FALSE(gguf::parse(reinterpret_cast<const uint8_t*>(c.file.data()), c.file.size(), g, err)) << c.err;
    EXPECT_EQ(err, c.err);
  }
  // Every cut of a good file is refused without reading past the cut: each
  // prefix lies in an allocation of exactly its size.
  for (size_t n = 0; n < f.size() - 100; ++n) {
    std::vector<uint8_t> prefix(f.begin(), f.begin() + long(n));
    gguf::File g;
    std::string err;
    EXPECT_FALSE(gguf::parse(prefix.data(), n, g, err)) << n;
  }
}

}  // namespace
