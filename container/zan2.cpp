#include "container/zan2.h"

#include <cstring>

namespace tov::zan2 {

const char* kindName(uint32_t kind) {
  switch (kind) {
    case kKindLegacyModel: return "model (legacy/unmarked)";
    case kKindModel: return "model";
    case kKindPlugin: return "plugin";
    case kKindDataset: return "dataset";
    case kKindBundle: return "bundle";
    case kKindRepo: return "repo";
    case kKindApp: return "app";
    default: return "unknown-kind";
  }
}

bool Header::magicOk() const { return std::memcmp(magic, kMagic, 4) == 0; }

Header decodeHeader(const uint8_t* b) {
  Header h;
  std::memcpy(h.magic, b, 4);
  h.version = rdU32(b + 4);
  h.endian = rdU32(b + 8);
  h.sectionCount = rdU32(b + 12);
  h.modelType = rdU32(b + 16);
  h.hiddenSize = rdU64(b + 24);
  h.layers = rdU32(b + 32);
  h.vocab = rdU32(b + 36);
  h.tensorCount = rdU32(b + 40);
  h.kind = rdU16(b + 44);
  h.crc = rdU64(b + 56);
  return h;
}

SectionEntry decodeSection(const uint8_t* b) {
  return {rdU32(b), rdU32(b + 4), rdU64(b + 8), rdU64(b + 16)};
}

void encodeHeader(const Header& h, uint8_t* b) {
  std::memset(b, 0, kHeaderSize);
  std::memcpy(b, h.magic, 4);
  wrU32(b + 4, h.version);
  wrU32(b + 8, h.endian);
  wrU32(b + 12, h.sectionCount);
  wrU32(b + 16, h.modelType);
  wrU64(b + 24, h.hiddenSize);
  wrU32(b + 32, h.layers);
  wrU32(b + 36, h.vocab);
  wrU32(b + 40, h.tensorCount);
  wrU16(b + 44, h.kind);
  wrU64(b + 56, h.crc);
}

void encodeSection(const SectionEntry& s, uint8_t* b) {
  wrU32(b, s.type);
  wrU32(b + 4, s.flags);
  wrU64(b + 8, s.offset);
  wrU64(b + 16, s.size);
}

namespace {

const uint64_t* crcTable() {
  static uint64_t table[256];
  static bool built = false;
  if (!built) {
    for (uint64_t i = 0; i < 256; ++i) {
      uint64_t r = i;
      for (int k = 0; k < 8; ++k) r = (r & 1) ? (r >> 1) ^ 0x42F0E1EBA9EA3693ULL : r >> 1;
      table[i] = r;
    }
    built = true;
  }
  return table;
}

}  // namespace

uint64_t crc64(uint64_t crc, const void* data, size_t length) {
  const uint64_t* table = crcTable();
  const uint8_t* p = static_cast<const uint8_t*>(data);
  for (size_t i = 0; i < length; ++i) crc = (crc >> 8) ^ table[(p[i] ^ crc) & 0xFF];
  return crc;
}

uint64_t crc64(const void* data, size_t length) { return crc64(0, data, length); }

uint64_t headerCrc(const uint8_t* header, const uint8_t* table, uint32_t sectionCount) {
  const uint64_t crc = crc64(0, header, kCrcHeaderBytes);
  return crc64(crc, table, static_cast<size_t>(sectionCount) * kSectionEntrySize);
}

}  // namespace tov::zan2
