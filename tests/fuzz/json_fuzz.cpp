// libFuzzer target: the JSON reader on any bytes. The input is copied into
// an allocation of exactly its size, so a read past the end is caught.
#include <cstdint>
#include <cstring>
#include <memory>

#include "base/json.h"

namespace {

// Walks the tree the way callers do, so every accessor sees fuzzed nodes.
size_t walk(const tov::json::Value& v) {
  size_t n = 1 + v.asString().size() + static_cast<size_t>(v.asInt(0) & 1);
  for (const auto& m : v.members) n += m.key.size() + walk(m.value);
  for (const auto& item : v.items) n += walk(item);
  if (v.get("name")) ++n;
  return n;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::unique_ptr<char[]> text(new char[size ? size : 1]);
  if (size) std::memcpy(text.get(), data, size);
  tov::json::Value v;
  const tov::json::ParseResult r = tov::json::parse(text.get(), size, v);
  if (r.ok()) walk(v);
  std::string out;
  tov::jsonStringField(std::string_view(text.get(), size), "entry", out);
  return 0;
}
