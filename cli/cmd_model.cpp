// Model tooling commands that need no plugin: `type` reads any container's
// header and section table on its own.
#include <cstdio>
#include <vector>

#include "cli/commands.h"
#include "container/zan2.h"

namespace zan2 = tov::zan2;

int cmdType(int argc, char** argv) {
  if (argc < 3) {
    std::fputs("usage: zan type <file.zan>\n", stderr);
    return 2;
  }
  const char* path = argv[2];
  FILE* f = std::fopen(path, "rb");
  if (!f) {
    std::fprintf(stderr, "zan type: cannot open %s\n", path);
    return 1;
  }
  uint8_t bytes[zan2::kHeaderSize];
  const size_t got = std::fread(bytes, 1, sizeof bytes, f);
  std::fclose(f);
  if (got != sizeof bytes) {
    std::fprintf(stderr, "zan type: %s is not a complete ZAN2 header\n", path);
    return 1;
  }
  const zan2::Header h = zan2::decodeHeader(bytes);
  if (!h.magicOk()) {
    std::fprintf(stderr, "zan type: %s is not an ZAN file (bad magic)\n", path);
    return 1;
  }
  std::printf("file: %s\n", path);
  std::printf("  kind: %s (code %u)\n", zan2::kindName(h.kind), h.kind);
  std::printf("  format: ZAN2 v%u endian=%s\n", h.version, h.endian == zan2::kEndianMark ? "le" : "be?");
  if (h.kind == zan2::kKindLegacyModel || h.kind == zan2::kKindModel) {
    std::printf("  modelType: %u | sections %u | tensors %u\n", h.modelType, h.sectionCount, h.tensorCount);
    if (h.hiddenSize || h.layers)
      std::printf("  hidden %llu | layers %u | vocab %u\n", static_cast<unsigned long long>(h.hiddenSize), h.layers,
                  h.vocab);
  } else if (h.kind == zan2::kKindApp) {
    std::printf("  app sections %u (AppManifest/AppPayload/AppIndex)\n", h.sectionCount);
  } else {
    std::printf("  sections %u | tensors %u (non-model payloads may differ)\n", h.sectionCount, h.tensorCount);
  }

  // The table is shown only when all of it can be read; otherwise it is
  // left out without a word.
  if (h.sectionCount >= 1 && h.sectionCount <= 65536 && (f = std::fopen(path, "rb"))) {
    std::vector<uint8_t> table(h.sectionCount * zan2::kSectionEntrySize);
    const bool whole = std::fseek(f, zan2::kHeaderSize, SEEK_SET) == 0 &&
                       std::fread(table.data(), 1, table.size(), f) == table.size();
    std::fclose(f);
    if (whole) {
      std::fputs("  sections table:\n", stdout);
      const uint32_t shown = h.sectionCount < 64 ? h.sectionCount : 64;
      for (uint32_t i = 0; i < shown; ++i) {
        const zan2::SectionEntry s = zan2::decodeSection(&table[i * zan2::kSectionEntrySize]);
        std::printf("    [%u] type=%u flags=%u off=%llu size=%llu\n", i, s.type, s.flags,
                    static_cast<unsigned long long>(s.offset), static_cast<unsigned long long>(s.size));
      }
      if (h.sectionCount > shown) std::printf("    ... (%u more)\n", h.sectionCount - shown);
    }
  }
  std::fputs("  (authoritative type copy lives in META: container.kind / container.version)\n", stdout);
  return 0;
}
