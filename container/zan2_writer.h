// Writes model containers: the header and its checksum, then the Meta,
// Tokenizer, TensorIndex, QuantInfo and WeightData sections, each starting
// 64-aligned, with tensors sorted by name and each tensor's bytes 64-aligned
// inside WeightData. Tensor bytes are not copied: they are read from the
// caller's memory while `write` runs.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "container/zan2.h"
#include "container/zan2_reader.h"

namespace tov::zan2 {

struct TensorSpec {
  std::string name;      // 1 to 64 bytes, no zero byte
  uint16_t dtype = 0;
  uint16_t ndim = 0;     // at most 4
  uint64_t dims[4] = {};
  const void* data = nullptr;  // `size` bytes, valid until write() returns
  uint64_t size = 0;
  uint64_t quant = 0;    // first 8 bytes of the tensor's QuantInfo record
};

class ModelWriter {
 public:
  // Header fields; the section and tensor counts and the checksum are filled in.
  uint16_t kind = kKindModel;
  uint32_t modelType = 0;
  uint64_t hiddenSize = 0;
  uint32_t layers = 0;
  uint32_t vocab = 0;
  // Called now and then during write() with bytes written and bytes in all.
  std::function<void(uint64_t done, uint64_t total)> progress;

  // Meta entries, written in the order given. "container.kind" and
  // "container.version" are added first unless given here.
  void metaU32(std::string_view key, uint32_t v);
  void metaI32(std::string_view key, int32_t v);
  void metaF32(std::string_view key, float v);
  void metaU64(std::string_view key, uint64_t v);
  void metaStr(std::string_view key, std::string_view v);
  void metaU32Array(std::string_view key, const uint32_t* values, uint32_t count);

  bool addTensor(const TensorSpec& t, std::string& err);
  // Writes the QuantInfo section even when every record is zero.
  void forceQuantInfo() { quantInfo_ = true; }
  void setTokenizer(const TokenizerData& tok) { tokenizer_ = &tok; }  // kept by pointer

  // Writes the container to `path` (straight to it, no temporary name).
  bool write(const char* path, std::string& err) const;

 private:
  void metaKey(std::string_view key, uint8_t type);

  std::string meta_;  // encoded entries
  uint32_t metaCount_ = 0;
  bool hasKind_ = false, hasVersion_ = false;
  std::string error_;  // first error of a meta call, reported by write()
  std::vector<TensorSpec> tensors_;
  bool quantInfo_ = false;
  const TokenizerData* tokenizer_ = nullptr;
};

// The Tokenizer section's bytes for `tok`; false with `err` when a count is
// above the limit.
bool encodeTokenizer(const TokenizerData& tok, std::string& out, std::string& err);

}  // namespace tov::zan2
