#include "plugins/gguf/gguf.h"

#include <cstring>

namespace gguf {

namespace {

constexpr int kMaxArrayDepth = 8;

template <typename T>
T load(const uint8_t* p) {
  T v;
  std::memcpy(&v, p, sizeof v);  // GGUF is little-endian, as is every host we build for
  return v;
}

size_t scalarSize(Type t) {
  switch (t) {
    case Type::U8: case Type::I8: case Type::Bool: return 1;
    case Type::U16: case Type::I16: return 2;
    case Type::U32: case Type::I32: case Type::F32: return 4;
    case Type::U64: case Type::I64: case Type::F64: return 8;
    default: return 0;
  }
}

struct Cursor {
  const uint8_t* base;
  uint64_t size;
  uint64_t pos = 0;
  std::string& err;

  uint64_t left() const { return size - pos; }
  bool need(uint64_t n, const char* what) {
    if (left() < n) {
      err = std::string("truncated ") + what;
      return false;
    }
    return true;
  }
  bool u32(uint32_t& v, const char* what) {
    if (!need(4, what)) return false;
    v = load<uint32_t>(base + pos);
    pos += 4;
    return true;
  }
  bool u64(uint64_t& v, const char* what) {
    if (!need(8, what)) return false;
    v = load<uint64_t>(base + pos);
    pos += 8;
    return true;
  }
  bool str(std::string_view& s, const char* what) {
    uint64_t n;
    if (!u64(n, what)) return false;
    if (n > left()) {
      err = std::string(what) + " is longer than the file";
      return false;
    }
    s = std::string_view(reinterpret_cast<const char*>(base + pos), static_cast<size_t>(n));
    pos += n;
    return true;
  }
  // Steps over the elements of an array, checking each one.
  bool skipArray(Type elem, uint64_t count, int depth) {
    if (depth > kMaxArrayDepth) {
      err = "arrays nested too deeply";
      return false;
    }
    if (const size_t w = scalarSize(elem)) {
      if (count > left() / w) {
        err = "array is longer than the file";
        return false;
      }
      pos += count * w;
      return true;
    }
    if (elem == Type::String) {
      // Each string takes at least its 8-byte length.
      if (count > left() / 8) {
        err = "array is longer than the file";
        return false;
      }
      std::string_view s;
      for (uint64_t i = 0; i < count; ++i)
        if (!str(s, "array string")) return false;
      return true;
    }
    if (elem == Type::Array) {
      if (count > left() / 12) {
        err = "array is longer than the file";
        return false;
      }
      for (uint64_t i = 0; i < count; ++i) {
        uint32_t t;
        uint64_t n;
        if (!u32(t, "array type") || !u64(n, "array length")) return false;
        if (t > uint32_t(Type::F64)) {
          err = "unknown value type " + std::to_string(t);
          return false;
        }
        if (!skipArray(Type(t), n, depth + 1)) return false;
      }
      return true;
    }
    err = "unknown value type " + std::to_string(uint32_t(elem));
    return false;
  }
};

// Bytes of `n` elements of a tensor type; false for a type we don't size or
// a row length that doesn't fill whole blocks.
bool tensorBytes(uint32_t type, uint64_t n, uint64_t ne0, uint64_t& out) {
  uint64_t elems, bytes;
  if (!blockShape(type, elems, bytes) || ne0 % elems) return false;
  out = n / elems * bytes;
  return true;
}

}  // namespace

bool blockShape(uint32_t type, uint64_t& elems, uint64_t& bytes) {
  elems = 256;
  switch (type) {
    case kF32: elems = 1, bytes = 4; return true;
    case kF16: case kBF16: elems = 1, bytes = 2; return true;
    case kQ8_0: elems = 32, bytes = 34; return true;
    case kQ4_0: elems = 32, bytes = 18; return true;
    case kQ2_K: bytes = 84; return true;
    case kQ3_K: bytes = 110; return true;
    case kQ4_K: bytes = 144; return true;
    case kQ5_K: bytes = 176; return true;
    case kQ6_K: bytes = 210; return true;
    default: return false;
  }
}

const char* typeName(Type t) {
  static const char* const kNames[] = {"u8",  "i8",  "u16",  "i16",   "u32", "i32", "f32",
                                       "bool", "string", "array", "u64", "i64", "f64"};
  return uint32_t(t) <= uint32_t(Type::F64) ? kNames[uint32_t(t)] : "?";
}

std::string tensorTypeName(uint32_t type) {
  static const char* const kNames[] = {"F32",  "F16",  "Q4_0", "Q4_1", "Q4_2", "Q4_3", "Q5_0", "Q5_1",
                                       "Q8_0", "Q8_1", "Q2_K", "Q3_K", "Q4_K", "Q5_K", "Q6_K", "Q8_K",
                                       "IQ2_XXS", "IQ2_XS", "IQ3_XXS", "IQ1_S", "IQ4_NL", "IQ3_S", "IQ2_S",
                                       "IQ4_XS", "I8", "I16", "I32", "I64", "F64", "IQ1_M", "BF16"};
  if (type < sizeof kNames / sizeof kNames[0]) return kNames[type];
  return "type " + std::to_string(type);
}

bool KV::isInteger() const {
  switch (type) {
    case Type::U8: case Type::I8: case Type::U16: case Type::I16: case Type::U32:
    case Type::I32: case Type::U64: case Type::I64: return true;
    default: return false;
  }
}

const KV* File::find(std::string_view key) const {
  for (const KV& kv : kvs)
    if (kv.key == key) return &kv;
  return nullptr;
}

bool File::getU32(std::string_view key, uint32_t& out) const {
  const KV* kv = find(key);
  if (!kv || !kv->isInteger() || kv->i < 0 || kv->u > 0xFFFFFFFFu) return false;
  out = static_cast<uint32_t>(kv->u);
  return true;
}

bool File::getF32(std::string_view key, float& out) const {
  const KV* kv = find(key);
  if (!kv) return false;
  if (kv->isFloat()) out = static_cast<float>(kv->f);
  else if (kv->isInteger()) out = static_cast<float>(kv->i);
  else return false;
  return true;
}

std::string_view File::getStr(std::string_view key) const {
  const KV* kv = find(key);
  return kv && kv->type == Type::String ? kv->str : std::string_view();
}

bool parse(const uint8_t* data, uint64_t size, File& out, std::string& err, bool withTensors) {
  Cursor c{data, size, 0, err};
  if (size < 4 || std::memcmp(data, "GGUF", 4) != 0) {
    err = "not a GGUF file (bad magic)";
    return false;
  }
  c.pos = 4;
  if (!c.u32(out.version, "header")) return false;
  if (out.version != 2 && out.version != 3) {
    err = "unsupported GGUF version " + std::to_string(out.version) + " (2 and 3 are read)";
    return false;
  }
  uint64_t tensorCount, kvCount;
  if (!c.u64(tensorCount, "header") || !c.u64(kvCount, "header")) return false;
  // Each entry takes at least a key length, a type and one byte of value;
  // each tensor record at least 8 + 4 + 4 + 8 bytes.
  if (kvCount > c.left() / 13) {
    err = "metadata count " + std::to_string(kvCount) + " is more than the file holds";
    return false;
  }
  if (tensorCount > c.left() / 24) {
    err = "tensor count " + std::to_string(tensorCount) + " is more than the file holds";
    return false;
  }
  out.kvs.clear();
  out.kvs.reserve(static_cast<size_t>(kvCount));
  for (uint64_t k = 0; k < kvCount; ++k) {
    KV kv;
    uint32_t t;
    if (!c.str(kv.key, "metadata key") || !c.u32(t, "metadata type")) return false;
    if (t > uint32_t(Type::F64)) {
      err = "metadata '" + std::string(kv.key) + "' has unknown value type " + std::to_string(t);
      return false;
    }
    kv.type = Type(t);
    if (kv.type == Type::String) {
      if (!c.str(kv.str, "metadata string")) return false;
    } else if (kv.type == Type::Array) {
      uint32_t et;
      if (!c.u32(et, "array type") || !c.u64(kv.count, "array length")) return false;
      if (et > uint32_t(Type::F64)) {
        err = "metadata '" + std::string(kv.key) + "' has unknown element type " + std::to_string(et);
        return false;
      }
      kv.elemType = Type(et);
      kv.elems = data + c.pos;
      if (!c.skipArray(kv.elemType, kv.count, 1)) {
        err = "metadata '" + std::string(kv.key) + "': " + err;
        return false;
      }
    } else {
      const size_t w = scalarSize(kv.type);
      if (!c.need(w, "metadata value")) return false;
      const uint8_t* p = data + c.pos;
      switch (kv.type) {
        case Type::U8: kv.u = p[0], kv.i = p[0]; break;
        case Type::I8: kv.i = int8_t(p[0]), kv.u = uint64_t(kv.i); break;
        case Type::Bool: kv.u = kv.i = p[0] != 0; break;
        case Type::U16: kv.u = load<uint16_t>(p), kv.i = int64_t(kv.u); break;
        case Type::I16: kv.i = load<int16_t>(p), kv.u = uint64_t(kv.i); break;
        case Type::U32: kv.u = load<uint32_t>(p), kv.i = int64_t(kv.u); break;
        case Type::I32: kv.i = load<int32_t>(p), kv.u = uint64_t(kv.i); break;
        case Type::U64: kv.u = load<uint64_t>(p), kv.i = int64_t(kv.u); break;
        case Type::I64: kv.i = load<int64_t>(p), kv.u = uint64_t(kv.i); break;
        case Type::F32: kv.f = load<float>(p); break;
        case Type::F64: kv.f = load<double>(p); break;
        default: break;
      }
      // A u64 above the i64 range must not read as a negative integer.
      if (kv.type == Type::U64 && kv.i < 0) kv.i = INT64_MAX;
      c.pos += w;
    }
    out.kvs.push_back(kv);
  }
  if (const KV* a = out.find("general.alignment")) {
    if (!a->isInteger() || a->u == 0 || (a->u & (a->u - 1)) != 0 || a->u > (1u << 20)) {
      err = "general.alignment must be a power of two";
      return false;
    }
    out.alignment = a->u;
  }
  if (!withTensors) return true;

  out.tensors.clear();
  out.tensors.reserve(static_cast<size_t>(tensorCount));
  for (uint64_t n = 0; n < tensorCount; ++n) {
    TensorInfo ti;
    if (!c.str(ti.name, "tensor name") || !c.u32(ti.nDims, "tensor dimensions")) return false;
    const std::string name(ti.name);
    if (ti.nDims == 0 || ti.nDims > 4) {
      err = "tensor '" + name + "' has " + std::to_string(ti.nDims) + " dimensions (1 to 4 are read)";
      return false;
    }
    uint64_t elements = 1;
    for (uint32_t d = 0; d < ti.nDims; ++d) {
      if (!c.u64(ti.dims[d], "tensor dimensions")) return false;
      if (ti.dims[d] == 0 || elements > UINT64_MAX / 64 / ti.dims[d]) {
        err = "tensor '" + name + "' has impossible dimensions";
        return false;
      }
      elements *= ti.dims[d];
    }
    if (!c.u32(ti.type, "tensor type") || !c.u64(ti.offset, "tensor offset")) return false;
    if (!tensorBytes(ti.type, elements, ti.dims[0], ti.size)) {
      uint64_t be, bb;
      err = "tensor '" + name + "' has type " + tensorTypeName(ti.type) +
            (blockShape(ti.type, be, bb) ? " with rows of " + std::to_string(ti.dims[0]) +
                                               " elements, not a multiple of its block of " + std::to_string(be)
                                         : std::string(", which is not supported (F32, F16, BF16, Q8_0, Q4_0, Q2_K, "
                                                       "Q3_K, Q4_K, Q5_K, Q6_K are)"));
      return false;
    }
    if (ti.offset % out.alignment != 0) {
      err = "tensor '" + name + "' starts at a misaligned offset " + std::to_string(ti.offset);
      return false;
    }
    out.tensors.push_back(ti);
  }
  out.dataOffset = (c.pos + out.alignment - 1) / out.alignment * out.alignment;
  if (out.dataOffset > size) out.dataOffset = size;
  const uint64_t dataSize = size - out.dataOffset;
  for (TensorInfo& ti : out.tensors) {
    if (ti.offset > dataSize || ti.size > dataSize - ti.offset) {
      err = "tensor '" + std::string(ti.name) + "' reaches past the end of the file";
      return false;
    }
    ti.data = data + out.dataOffset + ti.offset;
  }
  return true;
}

std::vector<std::string_view> stringArray(const KV& kv) {
  std::vector<std::string_view> out;
  if (kv.type != Type::Array || kv.elemType != Type::String) return out;
  out.reserve(static_cast<size_t>(kv.count));
  const uint8_t* p = kv.elems;
  for (uint64_t i = 0; i < kv.count; ++i) {
    const uint64_t n = load<uint64_t>(p);
    out.emplace_back(reinterpret_cast<const char*>(p + 8), static_cast<size_t>(n));
    p += 8 + n;
  }
  return out;
}

std::vector<uint32_t> u32Array(const KV& kv) {
  std::vector<uint32_t> out;
  if (kv.type != Type::Array) return out;
  const size_t w = scalarSize(kv.elemType);
  if (!w || kv.elemType == Type::F32 || kv.elemType == Type::F64) return out;
  out.reserve(static_cast<size_t>(kv.count));
  for (uint64_t i = 0; i < kv.count; ++i) {
    uint64_t v = 0;
    std::memcpy(&v, kv.elems + i * w, w);
    if ((kv.elemType == Type::I8 || kv.elemType == Type::I16) && (v >> (w * 8 - 1)) & 1)
      v |= ~uint64_t(0) << (w * 8);  // sign-extend
    out.push_back(static_cast<uint32_t>(v));
  }
  return out;
}

std::vector<uint32_t> f32BitsArray(const KV& kv) {
  std::vector<uint32_t> out;
  if (kv.type != Type::Array || (kv.elemType != Type::F32 && kv.elemType != Type::F64)) return out;
  out.reserve(static_cast<size_t>(kv.count));
  for (uint64_t i = 0; i < kv.count; ++i) {
    float f = kv.elemType == Type::F32 ? load<float>(kv.elems + i * 4) : float(load<double>(kv.elems + i * 8));
    uint32_t bits;
    std::memcpy(&bits, &f, 4);
    out.push_back(bits);
  }
  return out;
}

}  // namespace gguf
