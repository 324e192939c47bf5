// Streaming read bandwidth of this machine with all cores: sums a buffer far
// larger than the caches, several times, and prints the best GB/s. The llama
// bench sets decode speed against this figure.
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <thread>
#include <vector>

int main(int argc, char** argv) {
  const size_t bytes = (argc > 1 ? std::strtoull(argv[1], nullptr, 10) : 1024) << 20;
  const size_t n = bytes / sizeof(uint64_t);
  std::vector<uint64_t> buf(n);
  for (size_t i = 0; i < n; ++i) buf[i] = i;  // touch every page first
  const unsigned threads = std::max(1u, std::thread::hardware_concurrency());
  double best = 0;
  uint64_t sink = 0;
  for (int pass = 0; pass < 5; ++pass) {
    std::vector<uint64_t> sums(threads);
    const auto t0 = std::chrono::steady_clock::now();
    std::vector<std::thread> pool;
    for (unsigned t = 0; t < threads; ++t)
      pool.emplace_back([&, t] {
        const size_t b = n * t / threads, e = n * (t + 1) / threads;
        uint64_t s0 = 0, s1 = 0, s2 = 0, s3 = 0;
        size_t i = b;
        for (; i + 4 <= e; i += 4) s0 += buf[i], s1 += buf[i + 1], s2 += buf[i + 2], s3 += buf[i + 3];
        for (; i < e; ++i) s0 += buf[i];
        sums[t] = s0 + s1 + s2 + s3;
      });
    for (auto& th : pool) th.join();
    const double s = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    for (uint64_t v : sums) sink += v;
    best = std::max(best, double(bytes) / s / 1e9);
  }
  std::printf("%.2f GB/s (%u threads, %zu MB, check %llu)\n", best, threads, bytes >> 20,
              static_cast<unsigned long long>(sink & 0xFF));
  return 0;
}
