// Test tool: assembles ZANA text into a binary ZANB file, so CLI tests can
// make binary fixtures from readable sources.
//   zana2zanb in.zana out.zanb
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>

#include "bytecode/zanb.h"

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: zana2zanb in.zana out.zanb\n");
    return 2;
  }
  std::ifstream in(argv[1], std::ios::binary);
  if (!in) {
    std::fprintf(stderr, "zana2zanb: cannot open %s\n", argv[1]);
    return 1;
  }
  std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  tov::zanb::Module m;
  std::string err;
  if (!tov::zanb::assemble(text, m, err)) {
    std::fprintf(stderr, "zana2zanb: %s: %s\n", argv[1], err.c_str());
    return 1;
  }
  std::vector<uint8_t> bytes = tov::zanb::writeModule(m);
  std::ofstream out(argv[2], std::ios::binary);
  out.write(reinterpret_cast<const char*>(bytes.data()), std::streamsize(bytes.size()));
  return out ? 0 : 1;
}
