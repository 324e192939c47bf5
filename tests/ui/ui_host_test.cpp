// Canvas drawing against per-pixel definitions, the key and UTF-8 helpers,
// and RuntimeHost without a screen: scripted input, fonts, text, pumping.
#include <gtest/gtest.h>

#include <climits>
#include <cstdlib>
#include <functional>

#include "ui/ui_host.h"
#include "ui/ui_window_impl.h"
#include "ui/zan_ui_runtime.h"

namespace {
using namespace tov::ui;
using tov::zanui::RuntimeHost;

constexpr uint32_t C = 0xFF00FF00, B = kOpaqueBlack;
constexpr int W = 9, H = 7;

Canvas blank() {
  Canvas c;
  c.width = W;
  c.height = H;
  c.pixels.assign(W * H, B);
  return c;
}

// The pixels a predicate selects, painted C on black.
std::vector<uint32_t> expect(const std::function<bool(long long, long long)>& on) {
  std::vector<uint32_t> v(W * H, B);
  for (int y = 0; y < H; ++y)
    for (int x = 0; x < W; ++x)
      if (on(x, y)) v[y * W + x] = C;
  return v;
}

bool inBox(long long px, long long py, long long x, long long y, long long w, long long h) {
  return px >= x && px < x + w && py >= y && py < y + h;
}

// Points of a line by its definition, every step walked.
std::function<bool(long long, long long)> linePoints(long long x0, long long y0, long long x1,
                                                     long long y1) {
  return [=](long long px, long long py) {
    long long dx = x1 - x0, dy = y1 - y0, steps = std::max(llabs(dx), llabs(dy));
    if (steps == 0) return px == x0 && py == y0;
    for (long long i = 0; i <= steps; ++i)
      if (x0 + dx * i / steps == px && y0 + dy * i / steps == py) return true;
    return false;
  };
}

TEST(UiCanvas, OperationsMatchTheirDefinitions) {
  struct Row {
    const char* what;
    std::function<void(Canvas&)> draw;
    std::function<bool(long long, long long)> on;
  };
  auto rect = [](int x, int y, int w, int h) {
    return Row{"", [=](Canvas& c) { c.fillRect(x, y, w, h, C); },
               [=](long long px, long long py) { return inBox(px, py, x, y, w, h); }};
  };
  auto stroke = [](int x, int y, int w, int h, int t) {
    return [=](long long px, long long py) {
      return inBox(px, py, x, y, w, t) || inBox(px, py, x, y + h - t, w, t) ||
             inBox(px, py, x, y, t, h) || inBox(px, py, x + w - t, y, t, h);
    };
  };
  auto disc = [](long long cx, long long cy, long long r) {
    return [=](long long px, long long py) {
      long long dx = px - cx, dy = py - cy;
      return r >= 0 && llabs(dx) <= r && llabs(dy) <= r && dx * dx + dy * dy <= r * r;
    };
  };
  std::vector<Row> rows = {
      rect(2, 1, 3, 4), rect(-2, -3, 4, 5), rect(7, 5, 10, 10), rect(3, 3, -2, 2),
      rect(3, 3, 2, -2), rect(INT_MIN, INT_MIN, INT_MAX, INT_MAX), rect(1, 1, INT_MAX, INT_MAX),
      rect(W, 0, 1, 1), rect(0, H, 1, 1), rect(-1, 0, 1, H),
      {"stroke", [](Canvas& c) { c.strokeRect(1, 1, 6, 5, C, 1); }, stroke(1, 1, 6, 5, 1)},
      {"thick stroke", [](Canvas& c) { c.strokeRect(1, 1, 6, 5, C, 4); },
       [](long long px, long long py) { return inBox(px, py, 1, 1, 6, 5); }},
      {"stroke off the edges", [](Canvas& c) { c.strokeRect(-2, -2, 8, 20, C, 3); },
       stroke(-2, -2, 8, 20, 3)},
      {"line", [](Canvas& c) { c.line(0, 0, 8, 3, C); }, linePoints(0, 0, 8, 3)},
      {"line backwards", [](Canvas& c) { c.line(7, 6, 1, 0, C); }, linePoints(7, 6, 1, 0)},
      {"steep line", [](Canvas& c) { c.line(4, -5, 2, 12, C); }, linePoints(4, -5, 2, 12)},
      {"line from far off", [](Canvas& c) { c.line(-1000, 2, 1000, 5, C); },
       linePoints(-1000, 2, 1000, 5)},
      {"point", [](Canvas& c) { c.line(3, 3, 3, 3, C); }, linePoints(3, 3, 3, 3)},
      {"point outside", [](Canvas& c) { c.line(-1, 3, -1, 3, C); }, linePoints(-1, 3, -1, 3)},
      {"line across the int range", [](Canvas& c) { c.line(INT_MIN, 2, INT_MAX, 2, C); },
       [](long long, long long py) { return py == 2; }},
      {"disc", [](Canvas& c) { c.circle(4, 3, 3, C); }, disc(4, 3, 3)},
      {"disc cut by the corner", [](Canvas& c) { c.circle(0, 6, 4, C); }, disc(0, 6, 4)},
      {"r 0 on the border", [](Canvas& c) { c.circle(8, 0, 0, C); }, disc(8, 0, 0)},
      {"negative r", [](Canvas& c) { c.circle(4, 3, -1, C); }, disc(4, 3, -1)},
      {"huge r", [](Canvas& c) { c.circle(4, 3, INT_MAX, C); }, disc(4, 3, INT_MAX)},
      {"centre far off", [](Canvas& c) { c.circle(-10, 3, 12, C); }, disc(-10, 3, 12)},
  };
  for (const Row& r : rows) {
    Canvas c = blank();
    r.draw(c);
    EXPECT_EQ(c.pixels, expect(r.on)) << r.what;
  }
}

TEST(UiCanvas, BlitUtf8AndKeyTable) {
  Canvas c = blank();
  std::vector<uint32_t> src(12 * 2);
  for (size_t i = 0; i < src.size(); ++i) src[i] = uint32_t(i + 1);
  c.blit(src.data(), 12, 2);  // wider than the canvas: cut to 9 columns, stride 12
  EXPECT_EQ(c.pixels[0], 1u);
  EXPECT_EQ(c.pixels[8], 9u);
  EXPECT_EQ(c.pixels[W], 13u);
  EXPECT_EQ(c.pixels[2 * W], B);

  const std::pair<uint32_t, std::string> utf8[] = {
      {0, ""}, {0x41, "A"}, {0x7F, "\x7F"}, {0x80, "\xC2\x80"}, {0x7FF, "\xDF\xBF"},
      {0x800, "\xE0\xA0\x80"}, {0xFFFF, "\xEF\xBF\xBF"}, {0x1F600, "\xF0\x9F\x98\x80"}};
  for (const auto& [cp, bytes] : utf8) {
    std::string s;
    appendUtf8(s, cp);
    EXPECT_EQ(s, bytes) << cp;
  }

  const std::pair<uint32_t, int32_t> keys[] = {
      {7, 0}, {8, 0xFF08}, {9, 0xFF09}, {13, 0xFF0D}, {16, 0}, {27, 0xFF1B}, {35, 0xFF57},
      {36, 0xFF50}, {37, 0xFF51}, {38, 0xFF52}, {39, 0xFF53}, {40, 0xFF54}, {45, 0}, {46, 0xFF9F},
      {47, 0}, {65, 0}};
  for (const auto& [vk, key] : keys) EXPECT_EQ(keyFromVirtualKey(vk), key) << vk;
}

// Environment for one host; every variable not named is unset.
struct Env {
  explicit Env(std::initializer_list<std::pair<const char*, const char*>> vars) {
    reset();
    for (auto [n, v] : vars) setenv(n, v, 1);
  }
  ~Env() { reset(); }
  static void reset() {
    for (const char* n : {"ZAN_UI_SCRIPT", "ZAN_UI_KEYS", "ZAN_UI_DRAG", "ZAN_UI_HOVER",
                          "ZAN_UI_WHEEL", "ZAN_UI_EXIT_AFTER", "ZAN_UI_DUMP", "DISPLAY"})
      unsetenv(n);
  }
};

std::string clicks(const RuntimeHost& h) {
  std::string s;
  for (auto c : h.scriptClicks) s += std::to_string(c.x) + "," + std::to_string(c.y) + "/" + std::to_string(c.wait) + " ";
  return s;
}
std::string keys(const RuntimeHost& h) {
  std::string s;
  for (auto k : h.keyScript)
    s += std::to_string(k.key) + ":" + k.text + ":" + std::to_string(k.mods) + ":" + std::to_string(k.wait) + " ";
  return s;
}

TEST(UiRuntimeHost, ScriptedInputIsParsedAtConstruction) {
  struct Row {
    const char* var;
    const char* value;
    std::string parsed;
  };
  const std::vector<Row> rows = {
      {"ZAN_UI_SCRIPT", "wait3;10,20;wait2;30,40", "10,20/3 30,40/2 "},
      {"ZAN_UI_SCRIPT", "wait5", ""},
      {"ZAN_UI_SCRIPT", "1,2xyz;;bad;wait-4;wait1;-3,4;wait9;", "1,2/0 -3,4/1 "},
      {"ZAN_UI_KEYS", "Ctrl+a,wait4,Return", "0:a:2:0 65293::0:4 "},
      {"ZAN_UI_KEYS", "a+b,,Shift+Alt+Left,ctrl+,wait2,\xC3\xA9x,wait,\xE2\x82", "0:a:0:0 0:+:0:0 0:b:0:0 65361::5:0 0:\xC3\xA9:0:2 0:x:0:0 0:\xE2\x82:0:0 "},
      {"ZAN_UI_KEYS", "Enter,Backspace,BackSpace,Delete,delete", "65293::0:0 65288::0:0 65288::0:0 65439::0:0 0:d:0:0 0:e:0:0 0:l:0:0 0:e:0:0 0:t:0:0 0:e:0:0 "},
  };
  for (const Row& r : rows) {
    Env env({{r.var, r.value}});
    RuntimeHost h;
    EXPECT_EQ(std::string(r.var) == "ZAN_UI_KEYS" ? keys(h) : clicks(h), r.parsed) << r.value;
  }

  Env env({{"ZAN_UI_DRAG", "0,0,10,-5,4"}, {"ZAN_UI_HOVER", "7,x"}, {"ZAN_UI_WHEEL", "1,2,3;x;4,5,-1;"}});
  RuntimeHost h;
  std::string drag;
  for (auto p : h.dragPoints) drag += std::to_string(p.x) + "," + std::to_string(p.y) + (p.held ? "h " : " ");
  EXPECT_EQ(drag, "0,0h 2,-1h 5,-2h 7,-3h 10,-5h 10,-5 ");
  EXPECT_FALSE(h.hoverPending);
  EXPECT_EQ(h.hoverX, -1);
  ASSERT_EQ(h.wheelSteps.size(), 2u);
  EXPECT_EQ(h.wheelSteps[1].delta, -1);

  Env env2({{"ZAN_UI_DRAG", "1,1,3"}, {"ZAN_UI_HOVER", "7,8"}});
  RuntimeHost h2;
  EXPECT_TRUE(h2.dragPoints.empty());
  EXPECT_TRUE(h2.hoverPending);
  EXPECT_EQ(h2.hoverY, 8);
  Env env3({{"ZAN_UI_DRAG", "0,0,3,3,0"}});
  EXPECT_EQ(RuntimeHost().dragPoints.size(), 3u);  // steps below 1 count as 1
}

TEST(UiRuntimeHost, PollsDeliverWindowEventsBeforeScriptedClicks) {
  Env env({{"ZAN_UI_SCRIPT", "wait3;10,20;wait2;30,40"}});
  RuntimeHost h;
  std::string seen;
  for (int i = 0; i < 9; ++i) {
    int x = -1, y = -1;
    int k = h.pollEvent(x, y);
    seen += std::to_string(k) + "@" + std::to_string(x) + "," + std::to_string(y) + " ";
  }
  EXPECT_EQ(seen, "0@0,0 0@0,0 0@0,0 1@10,20 0@0,0 0@0,0 1@30,40 0@0,0 0@0,0 ");
  EXPECT_EQ(h.eventX(), 30);

  Env env2({{"ZAN_UI_SCRIPT", "5,6"}});
  RuntimeHost g;
  g.fontTried = true;
  ASSERT_TRUE(g.winOpen("t", 4, 4, 0));
  EXPECT_EQ(g.window->backend, "ppm");
  InputEvent wheel;
  wheel.kind = kEventWheel;
  wheel.x = -1;
  g.window->impl->queue.push_back(wheel);
  int x = 0, y = 0;
  EXPECT_EQ(g.pollEvent(x, y), kEventWheel);
  EXPECT_EQ(x, -1);
  InputEvent e;
  ASSERT_TRUE(g.pollInputEvent(e));
  EXPECT_EQ(e.kind, kEventButton);
  EXPECT_EQ(e.y, 6);
  EXPECT_FALSE(g.pollInputEvent(e));
}

TEST(UiRuntimeHost, PumpEndsAfterFramesAndWithoutAWindow) {
  Env env({{"ZAN_UI_EXIT_AFTER", "3"}});
  RuntimeHost h;
  EXPECT_FALSE(h.winPump());  // no window
  h.fontTried = true;
  ASSERT_TRUE(h.winOpen("t", 2, 2, 0));
  std::string seen;
  for (int i = 0; i < 4; ++i) {
    seen += h.winPump() ? "T" : "F";
    h.present();
  }
  EXPECT_EQ(seen, "TTTF");

  // Absurd sizes: an empty canvas, or no window at all; never a crash.
  Env env2({});
  RuntimeHost g;
  g.fontTried = true;
  EXPECT_TRUE(g.winOpen("zero", 0, -5, 0));
  EXPECT_EQ(g.window->canvas.pixels.size(), 0u);
  g.fillRect(0, 0, 5, 5, C);
  g.text(0, 0, "ab", C, 1);
  EXPECT_FALSE(g.winOpen("huge", 100000, 100000, 0));
  EXPECT_EQ(g.window->canvas.width, 0);  // the old window stays
}

// PSF files built here: glyph g of a 256-glyph font has row r = g ^ r.
std::vector<uint8_t> psf1(int height, int mode = 0) {
  std::vector<uint8_t> b = {0x36, 0x04, uint8_t(mode), uint8_t(height)};
  int count = mode & 1 ? 512 : 256;
  for (int g = 0; g < count; ++g)
    for (int r = 0; r < height; ++r) b.push_back(uint8_t(g ^ r));
  return b;
}
void put32(std::vector<uint8_t>& b, size_t at, uint32_t v) {
  for (int i = 0; i < 4; ++i) b[at + i] = uint8_t(v >> (8 * i));
}
// width 10, height 3: two bytes per row, 6 bytes a glyph; 4 glyphs, all set.
std::vector<uint8_t> psf2(uint32_t count = 4, uint32_t width = 10, uint32_t height = 3) {
  std::vector<uint8_t> b(32 + 4 * 6, 0xFF);
  const uint8_t magic[] = {0x72, 0xB5, 0x4A, 0x86};
  std::copy(magic, magic + 4, b.begin());
  put32(b, 4, 0);
  put32(b, 8, 32);
  put32(b, 12, 0);
  put32(b, 16, count);
  put32(b, 20, 6);
  put32(b, 24, height);
  put32(b, 28, width);
  return b;
}

TEST(UiRuntimeHost, PsfFontsAreCheckedBeforeTheyReplaceTheGlyphs) {
  RuntimeHost h;
  ASSERT_TRUE(h.parsePsf(psf1(8, 1)));
  EXPECT_EQ(h.glyphCount, 512u);
  EXPECT_EQ(h.glyphHeight, 8);
  ASSERT_TRUE(h.parsePsf(psf2()));
  EXPECT_EQ(h.glyphWidth, 10);
  EXPECT_EQ(h.glyphBytes, 6);

  auto cut = [](std::vector<uint8_t> b) { b.pop_back(); return b; };
  auto head = [](std::vector<uint8_t> b, size_t n) { b.resize(n); return b; };
  auto set = [](std::vector<uint8_t> b, size_t at, uint32_t v) { put32(b, at, v); return b; };
  const std::vector<std::vector<uint8_t>> bad = {
      {}, {0x36, 0x04, 0, 16}, cut(psf1(16)), cut(psf1(4, 1)), psf1(0), {0x36, 0x05, 0, 1, 0},
      cut(psf2()), set(psf2(), 16, 5), set(psf2(), 16, 0x40000000), set(psf2(), 16, 0),
      set(psf2(), 28, 65), set(psf2(), 24, 0), set(psf2(), 8, 0), set(psf2(), 8, 0xFFFFFFF0),
      set(psf2(), 20, 0), set(psf2(), 20, 0xFFFFFFFF), head(psf2(), 31),
      {0x72, 0xB5, 0x4A, 0x87, 0}, {'P', 'K', 3, 4, 0, 0}};
  for (size_t i = 0; i < bad.size(); ++i) {
    EXPECT_FALSE(h.parsePsf(bad[i])) << i;
    EXPECT_EQ(h.glyphWidth, 10) << i;
    EXPECT_EQ(h.glyphCount, 4u) << i;
  }
}

TEST(UiRuntimeHost, TextDrawsGlyphBitsOrHollowBoxes) {
  Env env({});
  RuntimeHost h;
  h.fontTried = true;
  ASSERT_TRUE(h.winOpen("t", 40, 40, 0));
  const Canvas& c = h.window->canvas;
  auto at = [&](int x, int y) { return c.pixels[y * c.width + x]; };

  // No font: 8x16 hollow boxes; scale 0 draws as 1.
  h.text(1, 2, "a", C, 0);
  for (int y = 0; y < 40; ++y)
    for (int x = 0; x < 40; ++x)
      ASSERT_EQ(at(x, y), inBox(x, y, 1, 2, 8, 16) && !inBox(x, y, 2, 3, 6, 14) ? C : B) << x << "," << y;

  // A 4-row PSF1 font, scale 2, a line feed: glyph 'A' (0x41) under glyph 0x41.
  ASSERT_TRUE(h.parsePsf(psf1(4)));
  h.clear(B);
  h.text(3, 1, "A\nA", C, 2);
  for (int y = 0; y < 40; ++y)
    for (int x = 0; x < 40; ++x) {
      int col = (x - 3) / 2, row = (y - 1) / 2 % 4;
      bool inGlyph = x >= 3 && x < 19 && y >= 1 && y < 17;
      bool bit = inGlyph && ((0x41 ^ row) & (0x80 >> col));
      ASSERT_EQ(at(x, y), bit ? C : B) << x << "," << y;
    }

  // Beyond the glyph count: a hollow box of the font's cell; text has no background.
  ASSERT_TRUE(h.parsePsf(psf2()));
  h.clear(0xFF123456);
  h.text(0, 0, std::string("\x03\x04", 2), C, 1);
  EXPECT_EQ(at(9, 2), C);       // glyph 3: all ten columns set
  EXPECT_EQ(at(10, 0), C);      // glyph 4: a box from x 10
  EXPECT_EQ(at(11, 1), B);      // its inside
  EXPECT_EQ(at(20, 0), 0xFF123456u);
}

}  // namespace
