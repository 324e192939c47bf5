// Image recognition, the fixed decode failures and the circular mask.
#include <gtest/gtest.h>

#include <fstream>

#include "tests/test_tmp.h"
#include "ui/zan_img.h"

namespace {
using namespace tov::img;

TEST(ZanImg, SniffAndDecodeReasons) {
  const char* unknown = "not a png, jpeg or webp image";
  const std::tuple<std::string, int, const char*> rows[] = {
      {"\xFF\xD8", kUnknown, unknown}, {"\xFF\xD8\xFF", kJpeg, "jpeg: support not built in"},
      {"\x89PNG", kUnknown, unknown}, {"\x89PNG\r\n\x1a\n", kPng, "png: support not built in"},
      {std::string("RIFF\0\0\0\0WEBP", 12), kWebp, "webp: support not built in"},
      {std::string("RIFF\0\0\0\0WAVE", 12), kUnknown, unknown},
      {std::string("RIFF\0\0\0\0WEB", 11), kUnknown, unknown}};
  for (const auto& [bytes, format, reason] : rows) {
    const auto* p = reinterpret_cast<const uint8_t*>(bytes.data());
    EXPECT_EQ(sniff(p, bytes.size()), format) << bytes.size();
    Image out{7, 0, {}};
    std::string err;
    EXPECT_FALSE(decodeMemory(p, bytes.size(), &out, &err));
    EXPECT_EQ(err + std::to_string(out.width), reason + std::string("7"));
  }
  const std::string dir = testTempDir(), empty = dir + "empty.png", jpg = dir + "a.jpg";
  std::ofstream(empty).flush();
  std::ofstream(jpg) << "\xFF\xD8\xFF\xE0";
  for (const auto& [path, reason] : {std::pair{empty, "cannot read " + empty},
                                     {dir + "missing", "cannot read " + dir + "missing"},
                                     {jpg, std::string("jpeg: support not built in")}}) {
    std::string err;
    EXPECT_FALSE(decodeFile(path, nullptr, &err));
    EXPECT_EQ(err, reason);
  }
}

TEST(ZanImg, CircleMaskFadesAlphaOutsideTheCentredDisc) {
  // Alphas worked out by hand from the distances to the centre, r being
  // half the shorter side: 1x1 d 0, r 0.5 (coverage 0.5); 4x2 r 1, inner
  // columns d 0.7071 (0.2929), outer ones d 1.58 (outside); 3x3 r 1.5,
  // corners d 1.414 (0.0858), edges d 1 (0.5); 2x1 r 0.5, both d exactly r.
  const std::tuple<int, int, std::vector<uint32_t>> rows[] = {
      {1, 1, {128}}, {4, 2, {0, 75, 75, 0, 0, 75, 75, 0}},
      {3, 3, {22, 128, 22, 128, 255, 128, 22, 128, 22}}, {2, 1, {0, 0}}};
  for (const auto& [w, h, alphas] : rows) {
    Image m = circleMask(Image{w, h, std::vector<uint32_t>(size_t(w * h), 0xFFABCDEF)});
    for (size_t i = 0; i < alphas.size(); ++i) EXPECT_EQ(m.pixels[i], alphas[i] << 24 | 0xABCDEF) << w << "x" << h;
  }
  Image shortVec{3, 3, {1, 2}}, zero{0, 5, {}};
  EXPECT_EQ(circleMask(shortVec).pixels, shortVec.pixels);
  EXPECT_EQ(circleMask(zero).width, 0);
}

}  // namespace
