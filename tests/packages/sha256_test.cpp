// SHA-256 against the published vectors and against coreutils' sha256sum on
// random files of many sizes, through both block routines.
#include "packages/sha256.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "tests/test_tmp.h"

namespace {

// Runs `check` with the SHA instructions (where the machine has them) and
// with the portable code.
template <class F>
void bothRoutes(F check) {
  for (bool allow : {true, false}) {
    tov::sha256AllowShaNi(allow);
    check(allow);
  }
  tov::sha256AllowShaNi(true);
}

TEST(Sha256, PublishedVectors) {
  const std::pair<std::string, std::string> cases[] = {
      {"", "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855"},
      {"abc", "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"},
      {"abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq",
       "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1"},
      {"abcdefghbcdefghicdefghijdefghijkefghijklfghijklmghijklmnhijklmnoijklmnopjklmnopqklmnopqrlmnopqrsmnopqrst"
       "nopqrstu",
       "cf5b16a778af8380036ce59e7b0492370b249b11e8f07a51afac45037afee9d1"},
      {std::string(1000000, 'a'), "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0"},
  };
  bothRoutes([&](bool allow) {
    for (const auto& [input, digest] : cases) EXPECT_EQ(tov::sha256Hex(input), digest) << input.size() << allow;
  });
  // A silent fallback on a machine with the extensions would hide a broken
  // detection.
  std::ifstream cpu("/proc/cpuinfo");
  const std::string all((std::istreambuf_iterator<char>(cpu)), {});
  if (!all.empty()) {
    EXPECT_EQ(tov::sha256UsesShaNi(), all.find(" sha_ni") != std::string::npos);
  }
}

// Every length around the block edges (55/56 decide whether the length
// fits in the last block), then larger ones up to a few MiB; sha256sum
// hashes all files in one run and fileSha must agree with each line.
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
  bothRoutes([&](bool allow) {
    for (size_t i = 0; i < sizes.size(); ++i)
      if (allow || sizes[i] < 70000) {  // the portable code is slow in debug builds
        EXPECT_EQ(tov::fileSha(dir + std::to_string(i)), want[i]) << "size " << sizes[i] << " allow=" << allow;
      }
  });
  // Updates split at uneven points give the same digest as one.
  tov::Sha256 h;
  for (size_t at = 0, step = 1; at < bytes.size(); at += step, step = step * 3 % 997 + 1)
    h.update(bytes.data() + at, std::min(step, bytes.size() - at));
  EXPECT_EQ(h.finishHex(), want.back());
  EXPECT_EQ(tov::fileSha(dir + "missing"), "");
}

}  // namespace
