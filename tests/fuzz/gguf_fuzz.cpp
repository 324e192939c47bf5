// libFuzzer target: the GGUF reader on any bytes, in an allocation of
// exactly their size, then every array accessor over what it accepted.
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>

#include "plugins/gguf/gguf.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::unique_ptr<uint8_t[]> copy(new uint8_t[size ? size : 1]);
  if (size) std::memcpy(copy.get(), data, size);
  gguf::File f;
  std::string err;
  if (!gguf::parse(copy.get(), size, f, err)) return 0;
  size_t sink = 0;
  for (const gguf::KV& kv : f.kvs) {
    for (std::string_view s : gguf::stringArray(kv)) sink += s.size();
    sink += gguf::u32Array(kv).size() + gguf::f32BitsArray(kv).size();
  }
  for (const gguf::TensorInfo& t : f.tensors)
    if (t.size) sink += t.data[0] + t.data[t.size - 1];
  asm volatile("" : : "g"(sink));  // keeps the reads
  return 0;
}
