// Canvas drawing against per-pixel definitions, the key and UTF-8 helpers,
// and RuntimeHost without a screen: scripted input, fonts, text, pumping.
#include <gtest/gtest.h>

#include <climits>
#include <cstdlib>
#include <fstream>
#include <numeric>

#include "tests/test_tmp.h"
#include "ui/ui_host.h"
#include "ui/ui_window_impl.h"
#include "ui/zan_ui_runtime.h"

namespace {
using namespace tov::ui;
using tov::zanui::RuntimeHost;
using ll = long long;

constexpr uint32_t C = 0xFF00FF00, B = kOpaqueBlack;

bool inBox(ll px, ll py, ll x, ll y, ll w, ll h) { return px >= x && px < x + w && py >= y && py < y + h; }

// 'f' fillRect(a,b,c,d), 's' strokeRect(a,b,c,d, thickness e), 'l' line(a,b)-(c,d),
// 'c' circle(a,b, r c); on() says from the definitions whether (px, py) is painted.
struct Draw {
  char op;
  ll a, b, c, d = 0, e = 0;
  bool on(ll px, ll py) const {
    switch (op) {
      case 'f': return inBox(px, py, a, b, c, d);
      case 's':
        return inBox(px, py, a, b, c, e) || inBox(px, py, a, b + d - e, c, e) ||
               inBox(px, py, a, b, e, d) || inBox(px, py, a + c - e, b, e, d);
      case 'l': {
        ll dx = c - a, dy = d - b, steps = std::max(llabs(dx), llabs(dy));
        if (steps > 100000) return py == b;  // only horizontal ones that long
        for (ll i = 0; i <= steps; ++i)
          if (a + (steps ? dx * i / steps : 0) == px && b + (steps ? dy * i / steps : 0) == py) return true;
        return false;
      }
      default: {
        ll dx = px - a, dy = py - b;
        return c >= 0 && llabs(dx) <= c && llabs(dy) <= c && dx * dx + dy * dy <= c * c;
      }
    }
  }
};

TEST(UiCanvas, OperationsMatchTheirDefinitions) {
  constexpr int W = 9, H = 7;
  const Draw rows[] = {
      {'f', 2, 1, 3, 4}, {'f', -2, -3, 4, 5}, {'f', 7, 5, 10, 10}, {'f', 3, 3, -2, 2}, {'f', W, 0, 1, 1},
      {'f', INT_MIN, INT_MIN, INT_MAX, INT_MAX}, {'f', 1, 1, INT_MAX, INT_MAX}, {'f', 0, H, 1, 1}, {'f', -1, 0, 1, H},
      {'s', 1, 1, 6, 5, 1}, {'s', 1, 1, 6, 5, 4}, {'s', -2, -2, 8, 20, 3}, {'l', 0, 0, 8, 3}, {'l', 7, 6, 1, 0},
      {'l', 4, -5, 2, 12}, {'l', -1000, 2, 1000, 5}, {'l', 3, 3, 3, 3}, {'l', -1, 3, -1, 3}, {'l', INT_MIN, 2, INT_MAX, 2},
      {'c', 4, 3, 3}, {'c', 0, 6, 4}, {'c', 8, 0, 0}, {'c', 4, 3, -1}, {'c', 4, 3, INT_MAX}, {'c', -10, 3, 12}};
  for (const Draw& r : rows) {
    Canvas c{W, H, std::vector<uint32_t>(W * H, B)};
    int32_t a = int32_t(r.a), b = int32_t(r.b), cc = int32_t(r.c), d = int32_t(r.d);
    r.op == 'f' ? c.fillRect(a, b, cc, d, C) : r.op == 's' ? c.strokeRect(a, b, cc, d, C, int32_t(r.e))
                : r.op == 'l' ? c.line(a, b, cc, d, C) : c.circle(a, b, cc, C);
    for (int y = 0; y < H; ++y)
      for (int x = 0; x < W; ++x)
        ASSERT_EQ(c.pixels[y * W + x], r.on(x, y) ? C : B)
            << r.op << " " << r.a << " " << r.b << " " << r.c << " " << r.d << " at " << x << "," << y;
  }
}

TEST(UiCanvas, BlitUtf8AndKeyTable) {
  Canvas c{9, 7, std::vector<uint32_t>(63, B)};
  std::vector<uint32_t> src(12 * 2);
  std::iota(src.begin(), src.end(), 1u);
  c.blit(src.data(), 12, 2);  // wider than the canvas: cut to 9 columns, stride 12
  EXPECT_EQ(std::vector<uint32_t>(c.pixels.begin() + 8, c.pixels.begin() + 10), (std::vector<uint32_t>{9, 13}));
  EXPECT_EQ(c.pixels[18], B);

  std::string s;
  for (uint32_t cp : {0u, 0x7Fu, 0x80u, 0x7FFu, 0x800u, 0xFFFFu, 0x10000u}) appendUtf8(s, cp);
  EXPECT_EQ(s, "\x7F\xC2\x80\xDF\xBF\xE0\xA0\x80\xEF\xBF\xBF\xF0\x90\x80\x80");  // 0 writes nothing
  // Windows virtual keys 8 to 46; the rest give nothing.
  std::string keys;
  for (uint32_t vk = 0; vk <= 300; ++vk)
    if (int32_t k = keyFromVirtualKey(vk)) keys += std::to_string(vk) + ":" + std::to_string(k - 0xFF00) + " ";
  EXPECT_EQ(keys, "8:8 9:9 13:13 27:27 35:87 36:80 37:81 38:82 39:83 40:84 46:159 ");
}

// Every scripted-input variable unset, then `vars`.
void setEnv(std::initializer_list<std::pair<const char*, const char*>> vars) {
  for (const char* n : {"ZAN_UI_SCRIPT", "ZAN_UI_KEYS", "ZAN_UI_DRAG", "ZAN_UI_HOVER", "ZAN_UI_WHEEL",
                        "ZAN_UI_EXIT_AFTER", "ZAN_UI_DUMP", "DISPLAY"})
    unsetenv(n);
  for (auto [n, v] : vars) setenv(n, v, 1);
}

std::string scripted(const RuntimeHost& h) {
  std::string s;
  auto n = [](ll v) { return std::to_string(v); };
  for (auto c : h.scriptClicks) s += "click " + n(c.x) + "," + n(c.y) + "/" + n(c.wait) + " ";
  for (auto k : h.keyScript) s += "key " + n(k.key) + ":" + k.text + ":" + n(k.mods) + "/" + n(k.wait) + " ";
  for (auto p : h.dragPoints) s += "drag " + n(p.x) + "," + n(p.y) + (p.held ? "+ " : " ");
  for (auto w : h.wheelSteps) s += "wheel " + n(w.x) + "," + n(w.y) + "," + n(w.delta) + " ";
  if (h.hoverPending) s += "hover " + n(h.hoverX) + "," + n(h.hoverY) + " ";
  return s;
}

// Windows' UTF-16 environment turns a broken UTF-8 end into U+FFFD.
#ifdef _WIN32
#define kCutShort "\xEF\xBF\xBD"
constexpr bool kWindows = true;
#else
#define kCutShort "\xE2\x82"
constexpr bool kWindows = false;
#endif

TEST(UiRuntimeHost, ScriptedInputIsParsedAtConstruction) {
  const std::tuple<const char*, const char*, std::string> rows[] = {
      {"ZAN_UI_SCRIPT", "wait3;10,20;wait2;30,40", "click 10,20/3 click 30,40/2 "}, {"ZAN_UI_SCRIPT", "wait5", ""},
      {"ZAN_UI_SCRIPT", "1,2xyz;;bad;wait-4;wait1;-3,4;wait9;", "click 1,2/0 click -3,4/1 "},
      {"ZAN_UI_KEYS", "Ctrl+a,wait4,Return", "key 0:a:2/0 key 65293::0/4 "},
      {"ZAN_UI_KEYS", "a+b,,Shift+Alt+Left,ctrl+,wait2,\xC3\xA9x,wait,\xE2\x82",
       "key 0:a:0/0 key 0:+:0/0 key 0:b:0/0 key 65361::5/0 key 0:\xC3\xA9:0/2 key 0:x:0/0 key 0:" kCutShort ":0/0 "},
      {"ZAN_UI_KEYS", "Enter,Backspace,Delete,del", "key 65293::0/0 key 65288::0/0 key 65439::0/0 "
                                                   "key 0:d:0/0 key 0:e:0/0 key 0:l:0/0 "},
      {"ZAN_UI_DRAG", "0,0,10,-5,4", "drag 0,0+ drag 2,-1+ drag 5,-2+ drag 7,-3+ drag 10,-5+ drag 10,-5 "},
      {"ZAN_UI_DRAG", "0,0,3,3,0", "drag 0,0+ drag 3,3+ drag 3,3 "}, {"ZAN_UI_DRAG", "1,1,3", ""},
      {"ZAN_UI_HOVER", "7,x", ""}, {"ZAN_UI_HOVER", "7,8", "hover 7,8 "},
      {"ZAN_UI_WHEEL", "1,2,3;x;4,5,-1;", "wheel 1,2,3 wheel 4,5,-1 "},
  };
  for (const auto& [var, value, parsed] : rows) {
    setEnv({{var, value}});
    EXPECT_EQ(scripted(RuntimeHost()), parsed) << var << "=" << value;
  }
}

TEST(UiRuntimeHost, PollingPumpingAndAbsurdSizes) {
  setEnv({{"ZAN_UI_SCRIPT", "wait3;10,20;wait2;30,40"}, {"ZAN_UI_EXIT_AFTER", "3"}});
  RuntimeHost h;
  EXPECT_FALSE(h.winPump());  // no window yet
  std::string seen;
  for (int i = 0; i < 9; ++i) {
    int x = -1, y = -1, k = h.pollEvent(x, y);
    seen += std::to_string(k) + "@" + std::to_string(x) + "," + std::to_string(y) + " ";
  }
  EXPECT_EQ(seen, "0@0,0 0@0,0 0@0,0 1@10,20 0@0,0 0@0,0 1@30,40 0@0,0 0@0,0 ");
  EXPECT_EQ(h.eventX(), 30);

  // Window events first, whole records through pollInputEvent.
  setEnv({{"ZAN_UI_SCRIPT", "5,6"}, {"ZAN_UI_EXIT_AFTER", "3"}});
  RuntimeHost g;
  g.fontTried = true;
  ASSERT_TRUE(g.winOpen("t", 4, 4, 0));
  EXPECT_EQ(g.window->backend, kWindows ? "win32" : "ppm");  // under wine there is always a display
  g.window->impl->queue.push_back({kEventWheel, -1, 0, 0, "", 0});
  g.window->impl->queue.push_back({kEventKey, 0, 0, 0, "a", 1});
  int x = 0, y = 0;
  EXPECT_EQ(g.pollEvent(x, y) * 10 + x, kEventWheel * 10 - 1);
  InputEvent e;
  ASSERT_TRUE(g.pollInputEvent(e));
  EXPECT_EQ(e.text, "a");
  ASSERT_TRUE(g.pollInputEvent(e));
  EXPECT_EQ(e.kind * 100 + e.y, 106);
  EXPECT_FALSE(g.pollInputEvent(e));
  for (int i = 0; i < 4; ++i) seen += g.winPump() ? "T" : "F", g.present();
  EXPECT_EQ(seen.substr(seen.size() - 4), "TTTF");

  // An empty canvas draws nothing; one beyond memory leaves the old window.
  EXPECT_TRUE(g.winOpen("zero", 0, -5, 0));
  EXPECT_EQ(g.window->canvas.pixels.size(), 0u);
  g.fillRect(0, 0, 5, 5, C);
  g.text(0, 0, "ab", C, 1);
  EXPECT_FALSE(g.winOpen("huge", 100000, 100000, 0));
  EXPECT_EQ(g.window->canvas.width, 0);
}

void put32(std::vector<uint8_t>& b, size_t at, uint32_t v) {
  for (int i = 0; i < 4; ++i) b[at + i] = uint8_t(v >> (8 * i));
}
// PSF1 of 256 or 512 glyphs: glyph g has row r = g ^ r.
std::vector<uint8_t> psf1(int height, int mode = 0) {
  std::vector<uint8_t> b = {0x36, 0x04, uint8_t(mode), uint8_t(height)};
  for (int g = 0; g < (mode & 1 ? 512 : 256); ++g)
    for (int r = 0; r < height; ++r) b.push_back(uint8_t(g ^ r));
  return b;
}
// PSF2 of 4 glyphs, 10 wide and 3 high: 2 bytes a row, 6 a glyph, all set.
std::vector<uint8_t> psf2() {
  std::vector<uint8_t> b(32 + 4 * 6, 0xFF);
  const uint32_t header[] = {0x864AB572, 0, 32, 0, 4, 6, 3, 10};
  for (int i = 0; i < 8; ++i) put32(b, 4 * i, header[i]);
  return b;
}

TEST(UiRuntimeHost, PsfFontsAreCheckedBeforeTheyReplaceTheGlyphs) {
  RuntimeHost h;
  ASSERT_TRUE(h.parsePsf(psf1(8, 1)));
  EXPECT_EQ(h.glyphCount * 100 + h.glyphHeight, 51208u);
  ASSERT_TRUE(h.parsePsf(psf2()));
  EXPECT_EQ(h.glyphBytes, 6);

  auto cut = [](std::vector<uint8_t> b, size_t n) { b.resize(b.size() - n); return b; };
  auto set = [](std::vector<uint8_t> b, size_t at, uint32_t v) { put32(b, at, v); return b; };
  const std::vector<std::vector<uint8_t>> bad = {
      {}, {0x36, 0x04, 0, 16}, cut(psf1(16), 1), cut(psf1(4, 1), 1), psf1(0), {0x36, 0x05, 0, 1, 0},
      cut(psf2(), 1), set(psf2(), 16, 5), set(psf2(), 16, 0x40000000), set(psf2(), 16, 0),
      set(psf2(), 28, 65), set(psf2(), 28, 0), set(psf2(), 24, 0), set(psf2(), 8, 0), set(psf2(), 8, 0xFFFFFFF0),
      set(psf2(), 20, 0), set(psf2(), 20, 0xFFFFFFFF), cut(psf2(), 25), {0x72, 0xB5, 0x4A, 0x87, 0},
      {'P', 'K', 3, 4, 0, 0}};
  for (size_t i = 0; i < bad.size(); ++i) {
    EXPECT_FALSE(h.parsePsf(bad[i])) << i;
    EXPECT_EQ(h.glyphWidth * 100 + h.glyphCount, 1004u) << i;
  }
  const std::string dir = testTempDir() + "a dir/";
  std::filesystem::create_directories(dir);
  std::ofstream(dir + "text.psf") << "not a font";
  std::ofstream(dir + "text.psf.gz") << "not gzip";
  for (const char* name : {"missing.psf", "missing.psf.gz", "text.psf", "text.psf.gz"})
    EXPECT_FALSE(h.loadOne(dir + name)) << name;
  EXPECT_EQ(h.glyphWidth * 100 + h.glyphCount, 1004u);
  const std::vector<uint8_t> font = psf1(8);
  std::ofstream(dir + "ok.psf", std::ios::binary).write(reinterpret_cast<const char*>(font.data()), font.size());
  EXPECT_TRUE(h.loadOne(dir + "ok.psf"));
  EXPECT_EQ(h.glyphWidth * 1000 + h.glyphCount, 8256u);
}

TEST(UiRuntimeHost, TextDrawsGlyphBitsOrHollowBoxes) {
  setEnv({});
  RuntimeHost h;
  h.fontTried = true;
  ASSERT_TRUE(h.winOpen("t", 40, 40, 0));
  auto check = [&](auto expected) {
    for (int y = 0; y < 40; ++y)
      for (int x = 0; x < 40; ++x) ASSERT_EQ(h.window->canvas.pixels[y * 40 + x], expected(x, y)) << x << "," << y;
  };
  // No font: 8x16 hollow boxes, cut by the bottom edge; scale 0 draws as 1.
  h.text(1, 30, "a", C, 0);
  check([](int x, int y) { return inBox(x, y, 1, 30, 8, 16) && !inBox(x, y, 2, 31, 6, 14) ? C : B; });

  // PSF1 4 rows high, scale 2, a line feed: the second 'A' right under the first.
  ASSERT_TRUE(h.parsePsf(psf1(4)));
  h.clear(B);
  h.text(3, 1, "A\nA", C, 2);
  check([](int x, int y) {
    int col = (x - 3) / 2, row = (y - 1) / 2 % 4;
    return inBox(x, y, 3, 1, 16, 16) && ((0x41 ^ row) & (0x80 >> col)) ? C : B;
  });

  // PSF2 glyph 3 sets all ten columns; 4 is past the count: a hollow cell. No background.
  ASSERT_TRUE(h.parsePsf(psf2()));
  h.clear(0xFF123456);
  h.text(0, 0, "\x03\x04", C, 1);
  check([](int x, int y) {
    return inBox(x, y, 0, 0, 20, 3) && !inBox(x, y, 11, 1, 8, 1) ? C : x >= 11 && x < 19 && y == 1 ? B : 0xFF123456;
  });
}

}  // namespace
