// Writes a few model containers into a directory, the ZAN2 fuzzer's seeds,
// and with a second directory a few app containers, the app fuzzer's.
#include <cstdio>
#include <string>

#include "container/zan2_writer.h"
#include "container/zan_app.h"

int main(int argc, char** argv) {
  if (argc != 2 && argc != 3) {
    std::fputs("usage: zan2_seeds <zan2-dir> [<app-dir>]\n", stderr);
    return 2;
  }
  static const char kBytes[1024] = {1, 2, 3};
  const tov::TokenizerData tok{.vocab = {"<s>", "a", "b"}, .scores = {0, 1, 2}, .tokenTypes = {}, .merges = {"a b"},
                               .special = {}, .addBos = false, .name = "spm"};
  std::string err;
  auto failed = [&] { return std::fprintf(stderr, "zan2_seeds: %s\n", err.c_str()), 1; };
  for (int n = 0; n < 3; ++n) {
    tov::zan2::ModelWriter w;
    w.metaStr("general.architecture", "llama");
    w.metaU32("llama.block_count", 2);
    w.metaF32("eps", 1e-5f);
    w.metaU64("big", 1ULL << 40);
    w.metaI32("neg", -1);
    const uint32_t arr[] = {1, 2, 3};
    w.metaU32Array("arr", arr, 3);
    if (n > 0) w.setTokenizer(tok);
    for (int t = 0; t < n * 2; ++t)
      w.addTensor({"blk." + std::to_string(t) + ".w", 0, 2, {10, 3}, kBytes, 30 + 100u * t, n == 2 ? 8u : 0u}, err);
    if (!w.write((std::string(argv[1]) + "/seed" + std::to_string(n) + ".zan").c_str(), err)) return failed();
  }
  for (int n = 0; argc == 3 && n < 2; ++n) {
    tov::zanapp::PackOptions o;
    o.name = "seed";
    o.extra = n ? "\"icon\":\"a.png\"" : "";
    std::vector<tov::zanapp::File> files = {{"main.zana", "func 0 main slots=1\nret\n", 0644},
                                            {"lib/a b.txt", std::string(40 * n, 'x'), 0755}};
    if (!tov::zanapp::pack(std::string(argv[2]) + "/app" + std::to_string(n) + ".zan", o, files, err))
      return failed();
  }
  return 0;
}
