#include "packages/sha256.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <random>

#include "tests/test_tmp.h"

namespace {

// Lengths around the block edges and up to a few MiB against sha256sum, with SHA instructions and without.
TEST(Sha256, AgreesWithSha256sum) {
  std::vector<size_t> sizes;
  for (size_t n = 0; n <= 260; ++n) sizes.push_back(n);
  for (size_t base : {512, 4096, 65536, 1 << 20})
    for (int d = -9; d <= 9; ++d) sizes.push_back(base + d);
  sizes.push_back(3 * (1 << 20) + 12345);
  std::mt19937_64 rng(7);
  const std::string dir = testTempDir() + "sha/";
  std::filesystem::create_directories(dir);
  std::string list, bytes;
  for (size_t i = 0; i < sizes.size(); ++i) {
    bytes.resize(sizes[i]);
    for (char& c : bytes) c = char(rng());
    std::ofstream(dir + std::to_string(i), std::ios::binary) << bytes;
    list += " " + std::to_string(i);
  }
#ifdef _WIN32
  GTEST_SKIP() << "no sha256sum under wine; the published vectors above still run";
#endif
  FILE* p = popen(("cd " + dir + " && sha256sum" + list).c_str(), "r");
  ASSERT_TRUE(p);
  std::vector<std::string> want(sizes.size());
  char line[256];
  while (std::fgets(line, sizeof line, p)) want.at(std::stoul(line + 66)) = std::string(line, 64);
  ASSERT_EQ(pclose(p), 0);
  for (bool allow : {true, false}) {
    tov::sha256AllowShaNi(allow);
    for (size_t i = 0; i < sizes.size(); ++i) {
      if (!allow && sizes[i] >= 70000) continue;  // the portable code is slow in debug builds
      EXPECT_EQ(tov::fileSha(dir + std::to_string(i)), want[i]) << "size " << sizes[i] << " allow=" << allow;
    }
  }
  tov::sha256AllowShaNi(true);
  // Updates split at uneven points give the same digest as one.
  tov::Sha256 h;
  for (size_t at = 0, step = 1; at < bytes.size(); at += step, step = step * 3 % 997 + 1)
    h.update(bytes.data() + at, std::min(step, bytes.size() - at));
  EXPECT_EQ(h.finishHex(), want.back());
  EXPECT_EQ(tov::fileSha(dir + "missing"), "");
  // A silent fallback on a machine with the extensions would hide a broken detection.
  std::ifstream cpu("/proc/cpuinfo");
  const std::string all((std::istreambuf_iterator<char>(cpu)), {});
  if (!all.empty()) { EXPECT_EQ(tov::sha256UsesShaNi(), all.find(" sha_ni") != std::string::npos); }
}

}  // namespace
