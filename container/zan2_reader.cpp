#include "container/zan2_reader.h"

#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#ifdef _WIN32
#include <io.h>
#else
#include <unistd.h>
#endif

#include "base/compat.h"

#ifndef O_BINARY
#define O_BINARY 0
#endif

namespace tov {

using zan2::rdU16;
using zan2::rdU32;
using zan2::rdU64;
using zan2::SectionType;

namespace {

constexpr int kAdviseHugePages = 14;
// The checksum buffer holds the header and at most this many table entries.
constexpr uint32_t kMaxSections = 16;

// Reads little-endian values from a bounded byte range; every read checks
// that the bytes are there.
struct Cursor {
  const uint8_t* p;
  uint64_t left;

  bool u8(uint8_t& v) {
    if (left < 1) return false;
    v = *p++;
    --left;
    return true;
  }
  bool u16(uint16_t& v) {
    if (left < 2) return false;
    v = rdU16(p);
    p += 2;
    left -= 2;
    return true;
  }
  bool u32(uint32_t& v) {
    if (left < 4) return false;
    v = rdU32(p);
    p += 4;
    left -= 4;
    return true;
  }
  bool u64(uint64_t& v) {
    if (left < 8) return false;
    v = rdU64(p);
    p += 8;
    left -= 8;
    return true;
  }
  bool bytes(uint64_t n, std::string& out) {
    if (left < n) return false;
    out.assign(reinterpret_cast<const char*>(p), static_cast<size_t>(n));
    p += n;
    left -= n;
    return true;
  }
  bool str(std::string& out) {
    uint32_t n;
    return u32(n) && bytes(n, out);
  }
  bool u32s(uint64_t n, std::vector<uint32_t>& out) {
    if (left / 4 < n) return false;
    out.resize(static_cast<size_t>(n));
    for (auto& v : out) u32(v);
    return true;
  }
};

}  // namespace

ZAN2Result ZAN2Reader::fail(const char* message) {
  close();
  return {1, message};
}

ZAN2Result ZAN2Reader::open(const char* path) {
  close();
  if (!path) return {1, "ZAN2: null path"};
  fd_ = ::open(path, O_RDONLY | O_BINARY);
  if (fd_ < 0) {
    fd_ = -1;
    return {1, "ZAN2: cannot open file"};
  }
  struct stat st;
  if (fstat(fd_, &st) != 0 || st.st_size <= 0) return fail("ZAN2: cannot stat file");
  mapLength_ = static_cast<size_t>(st.st_size);
  void* m = mmap(nullptr, mapLength_, PROT_READ, MAP_PRIVATE, fd_, 0);
  if (m == MAP_FAILED) {
    mapLength_ = 0;
    return fail("ZAN2: mmap failed");
  }
  map_ = static_cast<const uint8_t*>(m);
  madvise(m, mapLength_, kAdviseHugePages);
  const uint64_t fileSize = mapLength_;

  if (fileSize < zan2::kHeaderSize) return fail("ZAN2: file too small");
  header_ = zan2::decodeHeader(map_);
  if (!header_.magicOk()) return fail("ZAN2: bad magic");
  if (header_.version != zan2::kVersion) return fail("ZAN2: unsupported version");
  if (header_.endian != zan2::kEndianMark) return fail("ZAN2: big-endian files unsupported");
  const uint32_t count = header_.sectionCount;
  if (fileSize < zan2::kHeaderSize + zan2::kSectionEntrySize * static_cast<uint64_t>(count))
    return fail("ZAN2: truncated section table");
  if (count > kMaxSections) return fail("ZAN2: too many sections");
  table_ = map_ + zan2::kHeaderSize;

  uint8_t buf[zan2::kCrcHeaderBytes + zan2::kSectionEntrySize * kMaxSections];
  std::memcpy(buf, map_, zan2::kCrcHeaderBytes);
  std::memcpy(buf + zan2::kCrcHeaderBytes, table_, zan2::kSectionEntrySize * count);
  if (zan2::crc64(buf, zan2::kCrcHeaderBytes + zan2::kSectionEntrySize * count) != header_.crc)
    return fail("ZAN2: CRC mismatch");
  if (count == 0) return fail("ZAN2: missing tensor index");

  for (uint32_t i = 0; i < count; ++i) {
    const zan2::SectionEntry s = zan2::decodeSection(table_ + i * zan2::kSectionEntrySize);
    if (s.offset % zan2::kAlign != 0 || s.offset > fileSize || s.size > fileSize - s.offset)
      return fail("ZAN2: bad section bounds");
  }
  const uint64_t tensors = header_.tensorCount;
  if (!section(SectionType::TensorIndex) || sectionSize(SectionType::TensorIndex) < tensors * zan2::kTensorRecordSize)
    return fail("ZAN2: missing tensor index");
  const bool hasQuant = section(SectionType::QuantInfo) != nullptr;
  if (hasQuant && sectionSize(SectionType::QuantInfo) < tensors * zan2::kQuantRecordSize)
    return fail("ZAN2: bad quant info");
  if (!section(SectionType::WeightData)) return fail("ZAN2: missing weight data");

  ZAN2Result meta = decodeMeta();
  if (!meta.ok()) return fail(meta.message.c_str());

  if (hasQuant) {
    const uint64_t size = sectionSize(SectionType::QuantInfo) / zan2::kQuantRecordSize * zan2::kQuantRecordSize;
    const uint8_t* q = sectionData(SectionType::QuantInfo);
    quant_.assign(q, q + size);
  }
  open_ = true;
  return {};
}

ZAN2Result ZAN2Reader::decodeMeta() {
  const uint8_t* data = sectionData(SectionType::Meta);
  const uint64_t size = sectionSize(SectionType::Meta);
  if (!data || size < 4) return {1, "ZAN2: missing meta section"};
  Cursor c{data, size};
  uint32_t count = 0;
  c.u32(count);
  // Every entry takes at least three bytes, which bounds what to reserve.
  meta_.reserve(static_cast<size_t>(std::min<uint64_t>(count, c.left / 3)));
  for (uint32_t i = 0; i < count; ++i) {
    MetaEntry e{};
    uint16_t keyLen;
    if (!c.u16(keyLen) || !c.bytes(keyLen, e.key)) return {1, "ZAN2: bad meta key"};
    uint8_t type;
    if (!c.u8(type)) return {1, "ZAN2: bad meta type"};
    if (type > 5) return {1, "ZAN2: unknown meta type"};
    e.type = static_cast<MetaType>(type);
    switch (e.type) {
      case MetaType::U32:
      case MetaType::I32:
      case MetaType::F32: {
        uint32_t v;
        if (!c.u32(v)) {
          static const char* const kMsg[] = {"ZAN2: bad meta u32", "ZAN2: bad meta i32", "ZAN2: bad meta f32"};
          return {1, kMsg[type]};
        }
        e.scalar = v;
        break;
      }
      case MetaType::U64:
        if (!c.u64(e.scalar)) return {1, "ZAN2: bad meta u64"};
        break;
      case MetaType::Str:
        if (!c.str(e.text)) return {1, "ZAN2: bad meta str"};
        break;
      case MetaType::U32Array: {
        uint32_t n;
        if (!c.u32(n) || !c.u32s(n, e.values)) return {1, "ZAN2: bad meta array"};
        break;
      }
    }
    meta_.push_back(std::move(e));
  }
  return {};
}

void ZAN2Reader::close() {
  if (map_) munmap(const_cast<uint8_t*>(map_), mapLength_);
  if (fd_ >= 0) ::close(fd_);
  map_ = nullptr;
  table_ = nullptr;
  mapLength_ = 0;
  fd_ = -1;
  meta_.clear();
  meta_.shrink_to_fit();
  quant_.clear();
  quant_.shrink_to_fit();
  header_ = zan2::Header{};
  open_ = false;
}

const zan2::SectionEntry* ZAN2Reader::section(SectionType type) const {
  if (!table_) return nullptr;
  const auto* entries = reinterpret_cast<const zan2::SectionEntry*>(table_);
  for (uint32_t i = 0; i < header_.sectionCount; ++i)
    if (entries[i].type == static_cast<uint32_t>(type)) return &entries[i];
  return nullptr;
}

const uint8_t* ZAN2Reader::sectionData(SectionType type) const {
  const zan2::SectionEntry* s = section(type);
  return s ? map_ + s->offset : nullptr;
}

uint64_t ZAN2Reader::sectionSize(SectionType type) const {
  const zan2::SectionEntry* s = section(type);
  return s ? s->size : 0;
}

const zan2::TensorRecord* ZAN2Reader::findTensor(const char* name) const {
  if (!open_ || !name) return nullptr;
  const auto* records = reinterpret_cast<const zan2::TensorRecord*>(sectionData(SectionType::TensorIndex));
  size_t lo = 0, hi = header_.tensorCount;
  while (lo < hi) {
    const size_t mid = lo + (hi - lo) / 2;
    const int c = std::strncmp(name, records[mid].name, sizeof records[mid].name);
    if (c == 0) return &records[mid];
    if (c < 0)
      hi = mid;
    else
      lo = mid + 1;
  }
  return nullptr;
}

TensorView ZAN2Reader::viewOf(uint32_t index) const {
  TensorView v;
  const auto* rec = reinterpret_cast<const zan2::TensorRecord*>(sectionData(SectionType::TensorIndex)) + index;
  const uint64_t weightSize = sectionSize(SectionType::WeightData);
  if (rec->ndim > 4 || rec->offset > weightSize || rec->size > weightSize - rec->offset) return v;
  v.data = sectionData(SectionType::WeightData) + rec->offset;
  v.size = rec->size;
  v.dtype = rec->dtype;
  v.ndim = rec->ndim;
  for (int i = 0; i < 4; ++i) v.dims[i] = rec->dims[i];
  const uint64_t q = static_cast<uint64_t>(index) * zan2::kQuantRecordSize;
  if (q < quant_.size()) v.quant = rdU64(quant_.data() + q);
  return v;
}

TensorView ZAN2Reader::tensorView(uint32_t index) const {
  if (!open_ || index >= header_.tensorCount) return {};
  return viewOf(index);
}

TensorView ZAN2Reader::tensorView(const char* name) const {
  const zan2::TensorRecord* rec = findTensor(name);
  if (!rec) return {};
  const auto* first = reinterpret_cast<const zan2::TensorRecord*>(sectionData(SectionType::TensorIndex));
  return viewOf(static_cast<uint32_t>(rec - first));
}

bool ZAN2Reader::metaAt(size_t index, MetaEntryView& view) const {
  if (index >= meta_.size()) return false;
  const MetaEntry& e = meta_[index];
  view = MetaEntryView{};
  view.key = e.key;
  view.type = e.type;
  switch (e.type) {
    case MetaType::U32: view.u32 = static_cast<uint32_t>(e.scalar); break;
    case MetaType::I32: view.i32 = static_cast<int32_t>(static_cast<uint32_t>(e.scalar)); break;
    case MetaType::F32: {
      const uint32_t bits = static_cast<uint32_t>(e.scalar);
      std::memcpy(&view.f32, &bits, 4);
      break;
    }
    case MetaType::U64: view.u64 = e.scalar; break;
    case MetaType::Str: view.text = e.text; break;
    case MetaType::U32Array:
      view.values = e.values.data();
      view.count = static_cast<uint32_t>(e.values.size());
      break;
  }
  return true;
}

const ZAN2Reader::MetaEntry* ZAN2Reader::findMeta(const char* key, MetaType type) const {
  if (!key) return nullptr;
  for (const MetaEntry& e : meta_)
    if (e.type == type && e.key == key) return &e;
  return nullptr;
}

bool ZAN2Reader::getMetaU32(const char* key, uint32_t& out) const {
  const MetaEntry* e = findMeta(key, MetaType::U32);
  if (e) out = static_cast<uint32_t>(e->scalar);
  return e;
}

bool ZAN2Reader::getMetaI32(const char* key, int32_t& out) const {
  const MetaEntry* e = findMeta(key, MetaType::I32);
  if (e) out = static_cast<int32_t>(static_cast<uint32_t>(e->scalar));
  return e;
}

bool ZAN2Reader::getMetaF32(const char* key, float& out) const {
  const MetaEntry* e = findMeta(key, MetaType::F32);
  if (e) {
    const uint32_t bits = static_cast<uint32_t>(e->scalar);
    std::memcpy(&out, &bits, 4);
  }
  return e;
}

bool ZAN2Reader::getMetaU64(const char* key, uint64_t& out) const {
  const MetaEntry* e = findMeta(key, MetaType::U64);
  if (e) out = e->scalar;
  return e;
}

bool ZAN2Reader::getMetaStr(const char* key, std::string& out) const {
  const MetaEntry* e = findMeta(key, MetaType::Str);
  if (e) out = e->text;
  return e;
}

bool ZAN2Reader::getMetaU32Array(const char* key, const uint32_t*& values, uint32_t& count) const {
  const MetaEntry* e = findMeta(key, MetaType::U32Array);
  if (e) {
    values = e->values.data();
    count = static_cast<uint32_t>(e->values.size());
  }
  return e;
}

bool ZAN2Reader::aligned64() const {
  if (!open_) return false;
  for (uint32_t i = 0; i < header_.sectionCount; ++i)
    if (reinterpret_cast<const zan2::SectionEntry*>(table_)[i].offset % zan2::kAlign != 0) return false;
  return true;
}

bool ZAN2Reader::readTokenizer(TokenizerData& out) const {
  const uint8_t* data = sectionData(SectionType::Tokenizer);
  if (!open_ || !data) return false;
  Cursor c{data, sectionSize(SectionType::Tokenizer)};
  std::string magic;
  if (!c.bytes(4, magic) || magic != "TKNZ") return false;
  if (!c.str(out.name)) return false;
  // Counts are bounded by the limit and by the bytes left: every element
  // takes at least four.
  auto count = [&](uint32_t& n) { return c.u32(n) && n <= kTokenizerCountLimit && n <= c.left / 4; };
  auto strings = [&](std::vector<std::string>& v) {
    uint32_t n;
    if (!count(n)) return false;
    v.resize(n);
    for (auto& s : v)
      if (!c.str(s)) return false;
    return true;
  };
  auto values = [&](std::vector<uint32_t>& v) {
    uint32_t n;
    return count(n) && c.u32s(n, v);
  };
  if (!strings(out.vocab) || !values(out.scores) || !values(out.tokenTypes) || !strings(out.merges)) return false;
  for (uint32_t& v : out.special)
    if (!c.u32(v)) return false;
  uint8_t b;
  if (!c.u8(b)) return false;
  out.addBos = b != 0;
  return true;
}

}  // namespace tov
