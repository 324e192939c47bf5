// A reader of GGUF model files (versions 2 and 3) over bytes in memory:
// the metadata entries and the tensor table, every length and count checked
// against the bytes that are there. Nothing is copied; views point into the
// given buffer.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace gguf {

enum class Type : uint32_t {
  U8 = 0, I8 = 1, U16 = 2, I16 = 3, U32 = 4, I32 = 5, F32 = 6, Bool = 7,
  String = 8, Array = 9, U64 = 10, I64 = 11, F64 = 12,
};
const char* typeName(Type t);

// Tensor element types this reader sizes (ggml numbering).
enum TensorType : uint32_t {
  kF32 = 0, kF16 = 1, kQ4_0 = 2, kQ8_0 = 8, kQ2_K = 10, kQ3_K = 11, kQ4_K = 12, kQ5_K = 13, kQ6_K = 14, kBF16 = 30
};
// Elements and bytes per block of a type this reader sizes (1 and 4 for
// F32); false for any other type.
bool blockShape(uint32_t type, uint64_t& elems, uint64_t& bytes);
// "F32", "Q4_1", ...; "type N" for a number without a name.
std::string tensorTypeName(uint32_t type);

struct KV {
  std::string_view key;
  Type type = Type::U8;
  // Scalars: integers in `i` (signed) and `u` (the same bits, unsigned),
  // floats in `f`, strings in `str`.
  int64_t i = 0;
  uint64_t u = 0;
  double f = 0;
  std::string_view str;
  // Arrays: element type, count, and where the elements start.
  Type elemType = Type::U8;
  uint64_t count = 0;
  const uint8_t* elems = nullptr;

  bool isInteger() const;
  bool isFloat() const { return type == Type::F32 || type == Type::F64; }
};

struct TensorInfo {
  std::string_view name;
  uint32_t nDims = 0;
  uint64_t dims[4] = {1, 1, 1, 1};
  uint32_t type = 0;
  uint64_t offset = 0;  // from the start of the data section
  uint64_t size = 0;    // bytes
  const uint8_t* data = nullptr;
};

struct File {
  uint32_t version = 0;
  uint64_t alignment = 32;
  uint64_t dataOffset = 0;  // absolute
  std::vector<KV> kvs;
  std::vector<TensorInfo> tensors;

  const KV* find(std::string_view key) const;
  // An integer-valued entry of any integer type; false if absent or not an
  // integer or out of the range of u32.
  bool getU32(std::string_view key, uint32_t& out) const;
  bool getF32(std::string_view key, float& out) const;
  std::string_view getStr(std::string_view key) const;
};

// Parses the header and metadata, and with `withTensors` the tensor table
// too (sizes, alignment and bounds checked; every tensor type must be one of
// the ten above). False with a message in `err`.
bool parse(const uint8_t* data, uint64_t size, File& out, std::string& err, bool withTensors = true);

// The strings of a string array, or the numbers of a numeric one, in order;
// the array was checked by parse, so these cannot fail.
std::vector<std::string_view> stringArray(const KV& kv);
std::vector<uint32_t> u32Array(const KV& kv);  // integers as their low 32 bits
std::vector<uint32_t> f32BitsArray(const KV& kv);  // floats as binary32 bits

}  // namespace gguf
