// The machine readers of `zan ls devices` on file trees made here.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "base/compat.h"
#include "cli/devices.h"
#include "tests/test_tmp.h"

namespace {

namespace fs = std::filesystem;

void put(const fs::path& p, const std::string& text) {
  fs::create_directories(p.parent_path());
  std::ofstream(p, std::ios::binary) << text;
}

fs::path freshRoot(const char* name) {
  const fs::path root = fs::path(testTempDir()) / name;
  fs::remove_all(root);
  return root;
}

TEST(Devices, CpuInfo) {
  const unsigned osCount = zanCompatCpuCount();
  const struct { const char* cpuinfo, *model; unsigned count; } cases[] = {  // cpuinfo null: no file
      {"processor\t: 0\nmodel name\t: \t Test CPU 9000\r\nprocessor\t: 1\nmodel name\t: Other\n", "Test CPU 9000", 2},
      {"processor : 0\nmodel name without colon\nmodel name :\nmodel name: Late\n", "Late", 1},
      {"model name\t: Only a model\n", "Only a model", osCount},  // no processor lines
      {nullptr, "host", osCount},
      {"processors: 4\nprocessor\n", "host", 2},
  };
  for (const auto& c : cases) {
    const fs::path root = freshRoot("cpu");
    if (c.cpuinfo) put(root / "proc/cpuinfo", c.cpuinfo);
    const CpuSummary s = readCpuSummary(root.string());
    EXPECT_EQ(s.model, c.model) << (c.cpuinfo ? c.cpuinfo : "(none)");
    EXPECT_EQ(s.count, c.count);
  }
  // A line longer than the reader's buffer goes on as a further line.
  const fs::path root = freshRoot("cpu-long");
  put(root / "proc/cpuinfo", "model name: " + std::string(1030, 'x') + "\nprocessor: 0\n");
  EXPECT_EQ(readCpuSummary(root.string()).model, std::string(1023 - 12, 'x'));
}

TEST(Devices, DrmCards) {
  const fs::path root = freshRoot("drm");
  const fs::path drm = root / "sys/class/drm";
  put(drm / "card0/device/vendor", "0x8086\n");  // Intel, no VRAM file
  put(drm / "card1/device/vendor", "0x1002\n");                                      // AMD 8 GiB
  put(drm / "card1/device/mem_info_vram_total", "8589934592\n");
  put(drm / "card2/device/vendor", "0x10de");                                        // NVIDIA 16 GiB
  put(drm / "card2/device/mem_info_vram_total", "17179869184");
  put(drm / "card3/device/vendor", "0x1234\n");                                      // unknown vendor
  fs::create_directories(drm / "card0-DP-1");                                        // a connector
  put(drm / "renderD128/device/vendor", "0x1002\n");
  fs::create_directories(drm / "card4");                                             // no vendor file
  std::string seen;  // largest VRAM first
  for (const SysGpu& g : readDrmGpus(root.string()))
    seen += std::string(g.vendor) + ":" + std::to_string(g.vramBytes) + " ";
  EXPECT_EQ(seen, "NVIDIA:17179869184 AMD:8589934592 Intel:0 ");
  EXPECT_TRUE(readDrmGpus((root / "nothing").string()).empty());
}

}  // namespace
