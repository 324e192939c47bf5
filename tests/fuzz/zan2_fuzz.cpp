// libFuzzer target: ZAN2Reader::open on any file, then every accessor over
// what it accepted, touching each byte a view hands out.
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

#include <unistd.h>

#include "container/zan2_reader.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const std::string path = "/tmp/zan2_fuzz_" + std::to_string(getpid()) + ".zan";
  FILE* f = std::fopen(path.c_str(), "wb");
  if (!f) return 0;
  std::fwrite(data, 1, size, f);
  std::fclose(f);

  tov::ZAN2Reader r;
  if (!r.open(path.c_str()).ok()) return 0;
  uint8_t sink = 0;
  r.aligned64();
  tov::MetaEntryView view;
  for (size_t i = 0; r.metaAt(i, view); ++i) {
    for (char c : view.key) sink ^= static_cast<uint8_t>(c);
    for (uint32_t k = 0; k < view.count; ++k) sink ^= static_cast<uint8_t>(view.values[k]);
  }
  for (uint32_t i = 0; i < r.header().tensorCount && i < 4096; ++i) {
    const tov::TensorView v = r.tensorView(i);
    for (uint64_t b = 0; b < v.size; b += 4096) sink ^= v.data[b];
    if (v.size) sink ^= v.data[v.size - 1];
    const auto* rec = reinterpret_cast<const tov::zan2::TensorRecord*>(
                          r.sectionData(tov::zan2::SectionType::TensorIndex)) + i;
    std::string name(rec->name, strnlen(rec->name, 64));
    r.findTensor(name.c_str());
  }
  tov::TokenizerData tok;
  r.readTokenizer(tok);
  asm volatile("" : : "g"(sink));  // keeps the reads
  return 0;
}
