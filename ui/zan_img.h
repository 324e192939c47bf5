// Image helpers: recognition of PNG, JPEG and WebP by their first bytes,
// the decode entry points (no codec is built in: each gives a fixed reason),
// and a circular alpha mask over decoded pixels.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace tov::img {

struct Image {
  int32_t width = 0;
  int32_t height = 0;
  std::vector<uint32_t> pixels;  // 0xAARRGGBB, row-major, top row first
};

enum Format : int { kUnknown = 0, kPng = 1, kJpeg = 2, kWebp = 3 };

int sniff(const uint8_t* bytes, size_t size);
// False with `error` set; `out` is left alone.
bool decodeMemory(const uint8_t* bytes, size_t size, Image* out, std::string* error);
// Reads the whole file first; an unreadable or empty file is "cannot read <path>".
bool decodeFile(const std::string& path, Image* out, std::string* error);
// A copy with alpha outside the centred disc of the shorter side faded to 0
// over one pixel; a malformed image comes back unchanged.
Image circleMask(const Image& source);

}  // namespace tov::img
