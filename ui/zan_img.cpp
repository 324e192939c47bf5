// Image recognition, the decode entry points and the circular mask.
#include "ui/zan_img.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>

namespace tov::img {

int sniff(const uint8_t* b, size_t n) {
  if (n >= 8 && b[0] == 0x89 && b[1] == 'P' && b[2] == 'N' && b[3] == 'G') return kPng;
  if (n >= 3 && b[0] == 0xFF && b[1] == 0xD8 && b[2] == 0xFF) return kJpeg;
  if (n >= 12 && std::memcmp(b, "RIFF", 4) == 0 && std::memcmp(b + 8, "WEBP", 4) == 0) return kWebp;
  return kUnknown;
}

bool decodeMemory(const uint8_t* bytes, size_t size, Image*, std::string* error) {
  static const char* const kReasons[] = {
      "not a png, jpeg or webp image",
      "png: support not built in",
      "jpeg: support not built in",
      "webp: support not built in",
  };
  if (error) *error = kReasons[sniff(bytes, size)];
  return false;
}

bool decodeFile(const std::string& path, Image* out, std::string* error) {
  std::vector<uint8_t> bytes;
  if (FILE* f = std::fopen(path.c_str(), "rb")) {
    std::vector<uint8_t> chunk(65536);
    for (size_t n; (n = std::fread(chunk.data(), 1, chunk.size(), f)) > 0;)
      bytes.insert(bytes.end(), chunk.begin(), chunk.begin() + ptrdiff_t(n));
    std::fclose(f);
  }
  if (bytes.empty()) {
    if (error) *error = "cannot read " + path;
    return false;
  }
  return decodeMemory(bytes.data(), bytes.size(), out, error);
}

Image circleMask(const Image& source) {
  Image out = source;
  if (out.width < 1 || out.height < 1 ||
      out.pixels.size() != size_t(out.width) * size_t(out.height))
    return out;
  const double r = std::min(out.width, out.height) * 0.5;
  const double cx = (out.width - 1) * 0.5, cy = (out.height - 1) * 0.5;
  for (int32_t y = 0; y < out.height; ++y) {
    for (int32_t x = 0; x < out.width; ++x) {
      const double dx = x - cx, dy = y - cy, d = std::sqrt(dx * dx + dy * dy);
      const double cover = d >= r ? 0.0 : d > r - 1 ? r - d : 1.0;
      uint32_t& p = out.pixels[size_t(y) * out.width + x];
      const uint32_t alpha = uint32_t((p >> 24) * cover + 0.5);
      p = (alpha << 24) | (p & 0x00FFFFFF);
    }
  }
  return out;
}

}  // namespace tov::img
