// The ZAN2 frame every container reader and writer shares: the 64-byte
// header, the 24-byte section table entries, the kind and section type
// codes, the on-disk tensor record, and the header checksum. All integers
// in the file are little-endian; the decoders here assemble them byte by
// byte, so they work on any buffer alignment.
#pragma once

#include <cstddef>
#include <cstdint>

// Table entries and tensor records are read in place from mappings.
static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "ZAN2 files are little-endian, as this host must be");

namespace tov::zan2 {

constexpr char kMagic[4] = {'Z', 'A', 'N', '2'};
constexpr uint32_t kVersion = 2;
constexpr uint32_t kEndianMark = 0x01020304;
constexpr size_t kHeaderSize = 64;
constexpr size_t kSectionEntrySize = 24;
constexpr size_t kCrcHeaderBytes = 56;  // the header up to its crc field
constexpr uint64_t kAlign = 64;         // every section starts on this

// What a container holds, as the header's `kind` says.
enum Kind : uint16_t {
  kKindLegacyModel = 0,
  kKindModel = 1,
  kKindPlugin = 2,
  kKindDataset = 3,
  kKindBundle = 4,
  kKindRepo = 5,
  kKindApp = 6,
};
// "model", "app", ...; "unknown-kind" for a code no row names.
const char* kindName(uint32_t kind);

enum class SectionType : uint32_t {
  Meta = 1,
  Tokenizer = 2,
  TensorIndex = 4,
  WeightData = 5,
  QuantInfo = 6,
  AppManifest = 13,
  AppPayload = 14,
  AppIndex = 15,
};

struct Header {
  char magic[4] = {};
  uint32_t version = 0;
  uint32_t endian = 0;
  uint32_t sectionCount = 0;
  uint32_t modelType = 0;
  uint64_t hiddenSize = 0;
  uint32_t layers = 0;
  uint32_t vocab = 0;
  uint32_t tensorCount = 0;
  uint16_t kind = 0;
  uint64_t crc = 0;

  bool magicOk() const;
};

// A section table entry. The table sits at offset 64 of the file, so in a
// mapping the entries are naturally aligned and can be read in place.
struct SectionEntry {
  uint32_t type = 0;
  uint32_t flags = 0;
  uint64_t offset = 0;
  uint64_t size = 0;
};
static_assert(sizeof(SectionEntry) == 24, "section entry is 24 bytes");

// Decoders of exactly kHeaderSize / kSectionEntrySize bytes, and encoders
// that write those bytes (reserved bytes zero).
Header decodeHeader(const uint8_t* bytes);
SectionEntry decodeSection(const uint8_t* bytes);
void encodeHeader(const Header& h, uint8_t* bytes);
void encodeSection(const SectionEntry& s, uint8_t* bytes);

// One record of the TensorIndex section, as it lies in the file; the
// section starts 64-aligned, so records in a mapping are naturally aligned.
struct TensorRecord {
  char name[64];  // zero-padded; 64 bytes long means no terminator
  uint8_t unused0[2];
  uint16_t dtype;
  uint16_t ndim;
  uint8_t unused1[2];
  uint64_t dims[4];
  uint64_t offset;  // from the start of WeightData
  uint64_t size;
  uint8_t unused2[8];
};
static_assert(sizeof(TensorRecord) == 128, "tensor record is 128 bytes");
constexpr size_t kTensorRecordSize = 128;
constexpr size_t kQuantRecordSize = 32;

// 64-bit CRC, ECMA-182 polynomial driven by right shifts, start 0, no final
// xor. The table is built on the first call.
uint64_t crc64(const void* data, size_t length);
uint64_t crc64(uint64_t crc, const void* data, size_t length);  // continues `crc`

// The header checksum: the first 56 header bytes, then the section table.
uint64_t headerCrc(const uint8_t* header, const uint8_t* table, uint32_t sectionCount);

// Little-endian field access on unaligned bytes.
inline uint16_t rdU16(const uint8_t* p) { return static_cast<uint16_t>(p[0] | (p[1] << 8)); }
inline uint32_t rdU32(const uint8_t* p) {
  return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) | (static_cast<uint32_t>(p[2]) << 16) |
         (static_cast<uint32_t>(p[3]) << 24);
}
inline uint64_t rdU64(const uint8_t* p) { return rdU32(p) | (static_cast<uint64_t>(rdU32(p + 4)) << 32); }
inline void wrU16(uint8_t* p, uint16_t v) {
  p[0] = static_cast<uint8_t>(v);
  p[1] = static_cast<uint8_t>(v >> 8);
}
inline void wrU32(uint8_t* p, uint32_t v) {
  for (int i = 0; i < 4; ++i) p[i] = static_cast<uint8_t>(v >> (8 * i));
}
inline void wrU64(uint8_t* p, uint64_t v) {
  for (int i = 0; i < 8; ++i) p[i] = static_cast<uint8_t>(v >> (8 * i));
}

}  // namespace tov::zan2
