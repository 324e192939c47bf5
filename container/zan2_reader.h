// The memory-mapped reader of model containers. The file is mapped once,
// read-only; tensor views point into the mapping and are never copied. Only
// the metadata entries and the quantisation records are decoded into memory.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "container/zan2.h"

namespace tov {

enum class MetaType : uint8_t { U32 = 0, I32 = 1, F32 = 2, U64 = 3, Str = 4, U32Array = 5 };

// One decoded metadata entry; views stay valid while the reader is open.
struct MetaEntryView {
  std::string_view key;
  MetaType type = MetaType::U32;
  uint32_t u32 = 0;
  int32_t i32 = 0;
  float f32 = 0;
  uint64_t u64 = 0;
  std::string_view text;
  const uint32_t* values = nullptr;
  uint32_t count = 0;
};

// A tensor's bytes inside the mapping. All zero when there is no such
// tensor, or its record is malformed (more than 4 dims, or bytes outside
// the weight section).
struct TensorView {
  const uint8_t* data = nullptr;
  uint64_t size = 0;
  uint16_t dtype = 0;
  uint16_t ndim = 0;
  uint64_t dims[4] = {};
  uint64_t quant = 0;  // first 8 bytes of the tensor's QuantInfo record
};

// The Tokenizer section. The two value tables and the four numbers are
// carried as written; their meaning (scores, token types, the bos, eos, unk
// and pad ids) belongs to the plugins that write and read them.
struct TokenizerData {
  std::vector<std::string> vocab;
  std::vector<uint32_t> scores;
  std::vector<uint32_t> tokenTypes;
  std::vector<std::string> merges;
  uint32_t special[4] = {};
  bool addBos = false;
  std::string name;
};

constexpr uint32_t kTokenizerCountLimit = 0x4000000;

struct ZAN2Result {
  uint8_t code = 0;  // 0 success, 1 failure
  std::string message;
  bool ok() const { return code == 0; }
};

class ZAN2Reader {
 public:
  ZAN2Reader() = default;
  ~ZAN2Reader() { close(); }
  ZAN2Reader(const ZAN2Reader&) = delete;
  ZAN2Reader& operator=(const ZAN2Reader&) = delete;

  // Maps and checks `path`; a failure leaves the reader closed.
  ZAN2Result open(const char* path);
  void close();
  bool isOpen() const { return open_; }

  const zan2::Header& header() const { return header_; }
  const zan2::SectionEntry* section(zan2::SectionType type) const;
  const uint8_t* sectionData(zan2::SectionType type) const;
  uint64_t sectionSize(zan2::SectionType type) const;

  // Binary search over the sorted index, names compared on 64 bytes.
  const zan2::TensorRecord* findTensor(const char* name) const;
  TensorView tensorView(uint32_t index) const;
  TensorView tensorView(const char* name) const;

  size_t metaCount() const { return meta_.size(); }
  bool metaAt(size_t index, MetaEntryView& view) const;
  // The first entry with exactly this key and this type; other types are
  // passed over.
  bool getMetaU32(const char* key, uint32_t& out) const;
  bool getMetaI32(const char* key, int32_t& out) const;
  bool getMetaF32(const char* key, float& out) const;
  bool getMetaU64(const char* key, uint64_t& out) const;
  bool getMetaStr(const char* key, std::string& out) const;
  bool getMetaU32Array(const char* key, const uint32_t*& values, uint32_t& count) const;

  bool aligned64() const;
  // False when the section is missing, its magic is wrong, a count is above
  // the limit, or it ends early; `out` may then be partly filled.
  bool readTokenizer(TokenizerData& out) const;

 private:
  struct MetaEntry {
    std::string key;
    MetaType type;
    uint64_t scalar;  // u32, i32 and f32 bits, or u64
    std::string text;
    std::vector<uint32_t> values;
  };

  ZAN2Result fail(const char* message);
  ZAN2Result decodeMeta();
  const MetaEntry* findMeta(const char* key, MetaType type) const;
  TensorView viewOf(uint32_t index) const;

  zan2::Header header_;
  const uint8_t* table_ = nullptr;  // section table inside the mapping
  const uint8_t* map_ = nullptr;
  size_t mapLength_ = 0;
  int fd_ = -1;
  std::vector<MetaEntry> meta_;
  std::vector<uint8_t> quant_;  // whole 32-byte QuantInfo records
  bool open_ = false;
};

}  // namespace tov
