// Image recognition, the fixed decode failures and the circular mask.
#include <gtest/gtest.h>

#include <fstream>

#include "tests/test_tmp.h"
#include "ui/zan_img.h"

namespace {
using namespace tov::img;

TEST(ZanImg, SniffAndDecodeReasons) {
  struct Row {
    std::string bytes;
    int format;
    const char* error;
  };
  const std::string png = "\x89PNG\r\n\x1a\n";
  const Row rows[] = {
      {"\xFF\xD8", kUnknown, "not a png, jpeg or webp image"},
      {"\xFF\xD8\xFF", kJpeg, "jpeg: support not built in"},
      {png.substr(0, 4), kUnknown, "not a png, jpeg or webp image"},
      {png, kPng, "png: support not built in"},
      {"RIFF\0\0\0\0WEBP", kWebp, "webp: support not built in"},
      {std::string("RIFF\0\0\0\0WAVE", 12), kUnknown, "not a png, jpeg or webp image"},
      {std::string("RIFF\0\0\0\0WEB", 11), kUnknown, "not a png, jpeg or webp image"},
  };
  for (const Row& r : rows) {
    std::string bytes = r.bytes;
    if (r.format == kWebp) bytes = std::string("RIFF\0\0\0\0WEBP", 12);
    const auto* p = reinterpret_cast<const uint8_t*>(bytes.data());
    EXPECT_EQ(sniff(p, bytes.size()), r.format) << bytes.size();
    Image out;
    out.width = 7;
    std::string err;
    EXPECT_FALSE(decodeMemory(p, bytes.size(), &out, &err));
    EXPECT_EQ(err, r.error);
    EXPECT_EQ(out.width, 7);
  }
  const std::string empty = testTempDir() + "empty.png", jpg = testTempDir() + "a.jpg";
  std::ofstream(empty).flush();
  std::ofstream(jpg) << "\xFF\xD8\xFF\xE0";
  std::string err;
  EXPECT_FALSE(decodeFile(empty, nullptr, &err));
  EXPECT_EQ(err, "cannot read " + empty);
  EXPECT_FALSE(decodeFile(testTempDir() + "missing", nullptr, &err));
  EXPECT_EQ(err, "cannot read " + testTempDir() + "missing");
  EXPECT_FALSE(decodeFile(jpg, nullptr, &err));
  EXPECT_EQ(err, "jpeg: support not built in");
}

TEST(ZanImg, CircleMaskFadesAlphaOutsideTheCentredDisc) {
  Image one{1, 1, {0xFF112233}};
  EXPECT_EQ(circleMask(one).pixels[0], 0x80112233u);  // d 0, r 0.5: coverage 0.5

  // 4 by 2: r 1, centre (1.5, 0.5). Distances by hand: columns 1 and 2 are
  // sqrt(0.5) away (coverage 1 - 0.7071 = 0.2929, alpha 75); columns 0 and 3
  // sqrt(2.5) away (outside, 0).
  Image wide{4, 2, std::vector<uint32_t>(8, 0xFFABCDEF)};
  Image m = circleMask(wide);
  const uint32_t a[4] = {0, 75, 75, 0};
  for (int i = 0; i < 8; ++i) EXPECT_EQ(m.pixels[i], (a[i % 4] << 24) | 0xABCDEF) << i;

  // Exactly at r: 3 by 3, r 1.5, centre (1,1); no pixel is 1.5 away, but the
  // corners are sqrt(2) > r - 1: coverage 0.0858, alpha 22; edges d 1: 0.5.
  Image sq{3, 3, std::vector<uint32_t>(9, 0xFF000000)};
  Image s = circleMask(sq);
  EXPECT_EQ(s.pixels[0] >> 24, 22u);
  EXPECT_EQ(s.pixels[1] >> 24, 128u);
  EXPECT_EQ(s.pixels[4] >> 24, 255u);
  // 2 by 1: r 0.5, centre (0.5, 0): both pixels exactly at r, alpha 0.
  Image pair{2, 1, std::vector<uint32_t>(2, 0xFF000000)};
  EXPECT_EQ(circleMask(pair).pixels, std::vector<uint32_t>(2, 0));

  Image shortVec{3, 3, {1, 2}};
  EXPECT_EQ(circleMask(shortVec).pixels, shortVec.pixels);
  Image zero{0, 5, {}};
  EXPECT_EQ(circleMask(zero).width, 0);
}

}  // namespace
