// SHA-256 throughput of packages/sha256 (fileSha, the routine that checks
// installed files) next to coreutils' sha256sum and `openssl dgst -sha256`
// on the same 512 MiB file, warm in the page cache. Each is timed best of
// three; the digests must agree.
//
//   sha256_bench <work-dir>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include "packages/sha256.h"

namespace {

using Clock = std::chrono::steady_clock;

double seconds(Clock::time_point a, Clock::time_point b) { return std::chrono::duration<double>(b - a).count(); }

// Runs a shell command and gives its first output word (the digest).
bool runDigest(const std::string& cmd, std::string& digest, double& best) {
  best = 1e30;
  for (int i = 0; i < 3; ++i) {
    const auto t0 = Clock::now();
    FILE* p = popen(cmd.c_str(), "r");
    if (!p) return false;
    char line[512] = {0};
    const bool got = std::fgets(line, sizeof line, p) != nullptr;
    if (pclose(p) != 0 || !got) return false;
    const double s = seconds(t0, Clock::now());
    best = s < best ? s : best;
    std::string l(line);
    const size_t eq = l.rfind("= ");  // openssl: "SHA2-256(file)= <hex>"
    digest = eq != std::string::npos ? l.substr(eq + 2, 64) : l.substr(0, 64);
  }
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: sha256_bench <work-dir>\n");
    return 2;
  }
  std::filesystem::create_directories(argv[1]);
  const std::string path = std::string(argv[1]) + "/sha256_512m.bin";
  const size_t kSize = size_t(512) << 20;
  std::error_code ec;
  if (std::filesystem::file_size(path, ec) != kSize) {
    FILE* f = std::fopen(path.c_str(), "wb");
    if (!f) return 1;
    std::mt19937_64 rng(1);
    std::vector<uint64_t> block(1 << 17);
    for (size_t done = 0; done < kSize; done += block.size() * 8) {
      for (auto& w : block) w = rng();
      if (std::fwrite(block.data(), 8, block.size(), f) != block.size()) return 1;
    }
    std::fclose(f);
  }
  // Warm the cache, so every contender reads from memory.
  tov::fileSha(path);

  double ours = 1e30;
  std::string ourDigest;
  for (int i = 0; i < 3; ++i) {
    const auto t0 = Clock::now();
    ourDigest = tov::fileSha(path);
    const double s = seconds(t0, Clock::now());
    ours = s < ours ? s : ours;
  }
  std::string sumDigest, sslDigest;
  double sum = 0, ssl = 0;
  if (!runDigest("sha256sum '" + path + "'", sumDigest, sum) ||
      !runDigest("openssl dgst -sha256 '" + path + "'", sslDigest, ssl)) {
    std::fprintf(stderr, "sha256_bench: sha256sum or openssl failed\n");
    return 1;
  }
  if (ourDigest != sumDigest || ourDigest != sslDigest) {
    std::fprintf(stderr, "sha256_bench: digests differ: %s %s %s\n", ourDigest.c_str(), sumDigest.c_str(),
                 sslDigest.c_str());
    return 1;
  }
  const double mib = double(kSize) / (1 << 20);
  std::printf("SHA-256 of a 512 MiB file (best of 3, page cache warm; SHA instructions: %s)\n",
              tov::sha256UsesShaNi() ? "yes" : "no");
  std::printf("  %-22s %8.3f s %8.0f MiB/s\n", "zan fileSha", ours, mib / ours);
  std::printf("  %-22s %8.3f s %8.0f MiB/s   zan is %.2fx its speed\n", "sha256sum", sum, mib / sum, sum / ours);
  std::printf("  %-22s %8.3f s %8.0f MiB/s   zan is %.2fx its speed\n", "openssl dgst -sha256", ssl, mib / ssl,
              ssl / ours);
  if (ssl / ours < 1.0) std::printf("  note: slower than openssl dgst\n");
  return 0;
}
