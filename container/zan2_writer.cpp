#include "container/zan2_writer.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace tov::zan2 {

namespace {

void putU16(std::string& s, uint16_t v) {
  uint8_t b[2];
  wrU16(b, v);
  s.append(reinterpret_cast<char*>(b), 2);
}
void putU32(std::string& s, uint32_t v) {
  uint8_t b[4];
  wrU32(b, v);
  s.append(reinterpret_cast<char*>(b), 4);
}
void putU64(std::string& s, uint64_t v) {
  uint8_t b[8];
  wrU64(b, v);
  s.append(reinterpret_cast<char*>(b), 8);
}
void putStr(std::string& s, std::string_view v) {
  putU32(s, static_cast<uint32_t>(v.size()));
  s.append(v);
}

uint64_t alignUp(uint64_t v) { return (v + kAlign - 1) / kAlign * kAlign; }

// Sequential output with zero padding and progress.
struct Out {
  FILE* f;
  uint64_t pos = 0, total = 0, lastReport = 0;
  const std::function<void(uint64_t, uint64_t)>* progress = nullptr;
  bool ok = true;

  void put(const void* p, uint64_t n) {
    const uint8_t* b = static_cast<const uint8_t*>(p);
    while (ok && n) {
      const size_t chunk = static_cast<size_t>(std::min<uint64_t>(n, 8u << 20));
      if (std::fwrite(b, 1, chunk, f) != chunk) ok = false;
      b += chunk;
      n -= chunk;
      pos += chunk;
      if (*progress && (pos - lastReport >= (64u << 20) || pos == total)) {
        lastReport = pos;
        (*progress)(pos, total);
      }
    }
  }
  void padTo(uint64_t at) {
    static const uint8_t zeros[kAlign] = {};
    while (ok && pos < at) put(zeros, std::min<uint64_t>(at - pos, kAlign));
  }
};

}  // namespace

bool encodeTokenizer(const TokenizerData& tok, std::string& out, std::string& err) {
  for (size_t n : {tok.vocab.size(), tok.scores.size(), tok.tokenTypes.size(), tok.merges.size()})
    if (n > kTokenizerCountLimit) {
      err = "tokenizer table of " + std::to_string(n) + " entries is above the limit";
      return false;
    }
  out.clear();
  out.append("TKNZ", 4);
  putStr(out, tok.name);
  putU32(out, static_cast<uint32_t>(tok.vocab.size()));
  for (const std::string& s : tok.vocab) putStr(out, s);
  putU32(out, static_cast<uint32_t>(tok.scores.size()));
  for (uint32_t v : tok.scores) putU32(out, v);
  putU32(out, static_cast<uint32_t>(tok.tokenTypes.size()));
  for (uint32_t v : tok.tokenTypes) putU32(out, v);
  putU32(out, static_cast<uint32_t>(tok.merges.size()));
  for (const std::string& s : tok.merges) putStr(out, s);
  for (uint32_t v : tok.special) putU32(out, v);
  out.push_back(tok.addBos ? 1 : 0);
  return true;
}

void ModelWriter::metaKey(std::string_view key, uint8_t type) {
  if (key.size() > 0xFFFF && error_.empty()) error_ = "meta key longer than 65535 bytes";
  if (key == "container.kind") hasKind_ = true;
  if (key == "container.version") hasVersion_ = true;
  putU16(meta_, static_cast<uint16_t>(key.size()));
  meta_.append(key.substr(0, 0xFFFF));
  meta_.push_back(static_cast<char>(type));
  ++metaCount_;
}

void ModelWriter::metaU32(std::string_view key, uint32_t v) {
  metaKey(key, 0);
  putU32(meta_, v);
}
void ModelWriter::metaI32(std::string_view key, int32_t v) {
  metaKey(key, 1);
  putU32(meta_, static_cast<uint32_t>(v));
}
void ModelWriter::metaF32(std::string_view key, float v) {
  metaKey(key, 2);
  uint32_t bits;
  std::memcpy(&bits, &v, 4);
  putU32(meta_, bits);
}
void ModelWriter::metaU64(std::string_view key, uint64_t v) {
  metaKey(key, 3);
  putU64(meta_, v);
}
void ModelWriter::metaStr(std::string_view key, std::string_view v) {
  metaKey(key, 4);
  if (v.size() > 0xFFFFFFFFu && error_.empty()) error_ = "meta string longer than 4 GiB";
  putStr(meta_, v);
}
void ModelWriter::metaU32Array(std::string_view key, const uint32_t* values, uint32_t count) {
  metaKey(key, 5);
  putU32(meta_, count);
  for (uint32_t i = 0; i < count; ++i) putU32(meta_, values[i]);
}

bool ModelWriter::addTensor(const TensorSpec& t, std::string& err) {
  if (t.name.empty() || t.name.size() > 64 || t.name.find('\0') != std::string::npos) {
    err = "tensor name '" + t.name + "' must be 1 to 64 bytes without a zero byte";
    return false;
  }
  if (t.ndim > 4) {
    err = "tensor '" + t.name + "' has " + std::to_string(t.ndim) + " dimensions, at most 4 fit";
    return false;
  }
  if (t.size && !t.data) {
    err = "tensor '" + t.name + "' has no data";
    return false;
  }
  if (tensors_.size() >= 0xFFFFFFFFu) {
    err = "too many tensors";
    return false;
  }
  tensors_.push_back(t);
  if (t.quant) quantInfo_ = true;
  return true;
}

bool ModelWriter::write(const char* path, std::string& err) const {
  if (!error_.empty()) {
    err = error_;
    return false;
  }
  std::vector<const TensorSpec*> sorted;
  sorted.reserve(tensors_.size());
  for (const TensorSpec& t : tensors_) sorted.push_back(&t);
  std::sort(sorted.begin(), sorted.end(), [](const TensorSpec* a, const TensorSpec* b) { return a->name < b->name; });
  for (size_t i = 1; i < sorted.size(); ++i)
    if (sorted[i]->name == sorted[i - 1]->name) {
      err = "tensor '" + sorted[i]->name + "' is given twice";
      return false;
    }

  std::string meta;
  putU32(meta, metaCount_ + !hasKind_ + !hasVersion_);
  if (!hasKind_) {
    putU16(meta, 14);
    meta.append("container.kind");
    meta.push_back(0);
    putU32(meta, kind);
  }
  if (!hasVersion_) {
    putU16(meta, 17);
    meta.append("container.version");
    meta.push_back(0);
    putU32(meta, kVersion);
  }
  meta += meta_;

  std::string tokenizer;
  if (tokenizer_ && !encodeTokenizer(*tokenizer_, tokenizer, err)) return false;

  // Tensor offsets inside WeightData.
  std::vector<uint64_t> offsets(sorted.size());
  uint64_t weightSize = 0;
  for (size_t i = 0; i < sorted.size(); ++i) {
    offsets[i] = alignUp(weightSize);
    weightSize = offsets[i] + sorted[i]->size;
  }

  struct Planned {
    SectionType type;
    uint64_t size;
  };
  std::vector<Planned> plan = {{SectionType::Meta, meta.size()}};
  if (tokenizer_) plan.push_back({SectionType::Tokenizer, tokenizer.size()});
  plan.push_back({SectionType::TensorIndex, sorted.size() * kTensorRecordSize});
  if (quantInfo_) plan.push_back({SectionType::QuantInfo, sorted.size() * kQuantRecordSize});
  plan.push_back({SectionType::WeightData, weightSize});

  const uint32_t count = static_cast<uint32_t>(plan.size());
  std::vector<uint8_t> table(count * kSectionEntrySize);
  uint64_t at = alignUp(kHeaderSize + table.size());
  for (uint32_t i = 0; i < count; ++i) {
    encodeSection({static_cast<uint32_t>(plan[i].type), 0, at, plan[i].size}, &table[i * kSectionEntrySize]);
    at = alignUp(at + plan[i].size);
  }
  const uint64_t total = zan2::decodeSection(&table[(count - 1) * kSectionEntrySize]).offset + weightSize;

  Header h;
  std::memcpy(h.magic, kMagic, 4);
  h.version = kVersion;
  h.endian = kEndianMark;
  h.sectionCount = count;
  h.modelType = modelType;
  h.hiddenSize = hiddenSize;
  h.layers = layers;
  h.vocab = vocab;
  h.tensorCount = static_cast<uint32_t>(sorted.size());
  h.kind = kind;
  uint8_t header[kHeaderSize];
  encodeHeader(h, header);
  h.crc = headerCrc(header, table.data(), count);
  encodeHeader(h, header);

  FILE* f = std::fopen(path, "wb");
  if (!f) {
    err = std::string("cannot create ") + path + ": " + std::strerror(errno);
    return false;
  }
  Out out{f};
  out.total = total;
  out.progress = &progress;
  out.put(header, kHeaderSize);
  out.put(table.data(), table.size());
  for (uint32_t i = 0; i < count && out.ok; ++i) {
    out.padTo(zan2::decodeSection(&table[i * kSectionEntrySize]).offset);
    switch (plan[i].type) {
      case SectionType::Meta: out.put(meta.data(), meta.size()); break;
      case SectionType::Tokenizer: out.put(tokenizer.data(), tokenizer.size()); break;
      case SectionType::TensorIndex:
        for (size_t t = 0; t < sorted.size(); ++t) {
          TensorRecord r{};
          std::memcpy(r.name, sorted[t]->name.data(), sorted[t]->name.size());
          r.dtype = sorted[t]->dtype;
          r.ndim = sorted[t]->ndim;
          std::memcpy(r.dims, sorted[t]->dims, sizeof r.dims);
          r.offset = offsets[t];
          r.size = sorted[t]->size;
          out.put(&r, sizeof r);
        }
        break;
      case SectionType::QuantInfo:
        for (const TensorSpec* t : sorted) {
          uint8_t rec[kQuantRecordSize] = {};
          wrU64(rec, t->quant);
          out.put(rec, sizeof rec);
        }
        break;
      case SectionType::WeightData: {
        const uint64_t base = out.pos;
        for (size_t t = 0; t < sorted.size(); ++t) {
          out.padTo(base + offsets[t]);
          out.put(sorted[t]->data, sorted[t]->size);
        }
        break;
      }
      default: break;
    }
  }
  const int saved = errno;
  const bool closed = std::fclose(f) == 0;
  if (!out.ok || !closed) {
    err = std::string("cannot write ") + path + ": " + std::strerror(out.ok ? errno : saved);
    return false;
  }
  return true;
}

}  // namespace tov::zan2
