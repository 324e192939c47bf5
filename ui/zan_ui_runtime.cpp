// RuntimeHost: window, drawing, text from a console font, polling with
// scripted input, sleeping.
#include "ui/zan_ui_runtime.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <stdexcept>
#include <thread>

namespace tov::zanui {

namespace {

// Entries of a list; a separator at the very end ends the list.
std::vector<std::string> splitList(const std::string& s, char sep) {
  std::vector<std::string> out;
  size_t start = 0;
  while (start <= s.size()) {
    size_t end = s.find(sep, start);
    if (end == std::string::npos) end = s.size();
    if (end == s.size() && start == s.size() && !out.empty()) break;
    out.push_back(s.substr(start, end - start));
    start = end + 1;
  }
  return out;
}

std::string envText(const char* name) {
  const char* v = std::getenv(name);
  return v ? v : "";
}

void parseClicks(RuntimeHost& h) {
  int32_t wait = 0;
  for (const std::string& e : splitList(envText("ZAN_UI_SCRIPT"), ';')) {
    int a, b;
    if (std::sscanf(e.c_str(), "wait%d", &a) == 1) {
      if (a >= 0) wait += a;
    } else if (std::sscanf(e.c_str(), "%d,%d", &a, &b) == 2) {
      h.scriptClicks.push_back({a, b, wait});
      wait = 0;
    }
  }
  if (!h.scriptClicks.empty()) h.scriptWait = h.scriptClicks[0].wait;
}

void parseKeys(RuntimeHost& h) {
  int32_t wait = 0;
  for (std::string item : splitList(envText("ZAN_UI_KEYS"), ',')) {
    if (item.empty()) continue;
    if (item.size() >= 4 && item.compare(0, 4, "wait") == 0) {
      int n = std::atoi(item.c_str() + 4);
      if (n >= 0) wait += n;
      continue;
    }
    int32_t mods = 0;
    for (size_t plus; (plus = item.find('+')) != std::string::npos;) {
      const std::string part = item.substr(0, plus);
      if (part == "Ctrl" || part == "ctrl") mods |= tov::ui::kModCtrl;
      else if (part == "Alt" || part == "alt") mods |= tov::ui::kModAlt;
      else if (part == "Shift" || part == "shift") mods |= tov::ui::kModShift;
      else break;
      item.erase(0, plus + 1);
    }
    if (item.empty()) continue;
    if (int32_t key = editKeyByName(item)) {
      h.keyScript.push_back({key, "", mods, wait});
      wait = 0;
      continue;
    }
    for (size_t i = 0; i < item.size();) {
      const uint8_t lead = uint8_t(item[i]);
      size_t n = (lead & 0xE0) == 0xC0 ? 2 : (lead & 0xF0) == 0xE0 ? 3 : (lead & 0xF8) == 0xF0 ? 4 : 1;
      n = std::min(n, item.size() - i);
      h.keyScript.push_back({0, item.substr(i, n), mods, wait});
      wait = 0;
      i += n;
    }
  }
}

void parseDrag(RuntimeHost& h) {
  int x0, y0, x1, y1, steps = 8;
  const std::string v = envText("ZAN_UI_DRAG");
  if (std::sscanf(v.c_str(), "%d,%d,%d,%d,%d", &x0, &y0, &x1, &y1, &steps) < 4) return;
  if (steps < 1) steps = 1;
  for (int64_t i = 0; i <= steps; ++i)
    h.dragPoints.push_back({int32_t(x0 + (int64_t(x1) - x0) * i / steps),
                            int32_t(y0 + (int64_t(y1) - y0) * i / steps), true});
  h.dragPoints.push_back({x1, y1, false});
}

void parseHoverAndWheel(RuntimeHost& h) {
  int a, b, c;
  if (std::sscanf(envText("ZAN_UI_HOVER").c_str(), "%d,%d", &a, &b) == 2) {
    h.hoverX = a;
    h.hoverY = b;
    h.hoverPending = true;
  }
  const std::string wheel = envText("ZAN_UI_WHEEL");
  if (wheel.empty()) return;
  for (const std::string& e : splitList(wheel, ';'))
    if (std::sscanf(e.c_str(), "%d,%d,%d", &a, &b, &c) == 3) h.wheelSteps.push_back({a, b, c});
}

uint32_t le32(const uint8_t* p) {
  return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
}

// fillRect with 64-bit geometry: cut to the canvas first so that large
// scales and far pens cannot overflow the canvas' 32-bit arguments.
void fill64(tov::ui::Canvas& c, int64_t x, int64_t y, int64_t w, int64_t h, uint32_t color) {
  if (w <= 0 || h <= 0) return;
  const int64_t x0 = std::max<int64_t>(x, 0), y0 = std::max<int64_t>(y, 0);
  const int64_t x1 = std::min<int64_t>(x + w, c.width), y1 = std::min<int64_t>(y + h, c.height);
  if (x0 >= x1 || y0 >= y1) return;
  c.fillRect(int32_t(x0), int32_t(y0), int32_t(x1 - x0), int32_t(y1 - y0), color);
}

}  // namespace

int32_t editKeyByName(const std::string& name) {
  static const struct {
    const char* name;
    int32_t key;
  } kNames[] = {
      {"BackSpace", tov::ui::kKeyBackSpace}, {"Backspace", tov::ui::kKeyBackSpace},
      {"Tab", tov::ui::kKeyTab},             {"Return", tov::ui::kKeyReturn},
      {"Enter", tov::ui::kKeyReturn},        {"Escape", tov::ui::kKeyEscape},
      {"Home", tov::ui::kKeyHome},           {"Left", tov::ui::kKeyLeft},
      {"Up", tov::ui::kKeyUp},               {"Right", tov::ui::kKeyRight},
      {"Down", tov::ui::kKeyDown},           {"End", tov::ui::kKeyEnd},
      {"Delete", tov::ui::kKeyDelete},
  };
  for (const auto& n : kNames)
    if (name == n.name) return n.key;
  return 0;
}

RuntimeHost::RuntimeHost() {
  parseClicks(*this);
  parseKeys(*this);
  parseDrag(*this);
  parseHoverAndWheel(*this);
}

RuntimeHost::~RuntimeHost() = default;

bool RuntimeHost::winOpen(const std::string& title, int width, int height, int flags) {
  if (!fontTried) loadFont();
  std::unique_ptr<tov::ui::Window> next;
  try {
    next = std::make_unique<tov::ui::Window>(width, height, title);
  } catch (const std::length_error&) {
    return false;  // a canvas beyond memory: no new window, the old one stays
  } catch (const std::bad_alloc&) {
    return false;
  }
  window = std::move(next);
  return window->open;
}

bool RuntimeHost::winPump() {
  const char* exitAfter = std::getenv("ZAN_UI_EXIT_AFTER");
  if (exitAfter) {
    const int n = std::atoi(exitAfter);
    if (n >= 1 && framesPresented >= n) return false;
  }
  fetchPump();
  storePump();
  if (!window) return false;
  const bool keepGoing = window->pump();
  window->takeResize(nullptr, nullptr);  // the canvas keeps its size
  return keepGoing;
}

void RuntimeHost::present() {
  if (window) window->present();
  ++framesPresented;
}

void RuntimeHost::clear(uint32_t color) {
  if (window) std::fill(window->canvas.pixels.begin(), window->canvas.pixels.end(), color);
}

void RuntimeHost::fillRect(int x, int y, int width, int height, uint32_t color) {
  if (window) window->canvas.fillRect(x, y, width, height, color);
}

void RuntimeHost::line(int x0, int y0, int x1, int y1, uint32_t color, int) {
  if (window) window->canvas.line(x0, y0, x1, y1, color);
}

void RuntimeHost::circle(int x, int y, int radius, uint32_t color) {
  if (window) window->canvas.circle(x, y, radius, color);
}

void RuntimeHost::drawGlyph(int64_t px, int64_t py, uint32_t c, uint32_t color, int64_t s) {
  tov::ui::Canvas& cv = window->canvas;
  if (fontGlyphs.empty() || c >= glyphCount) {
    fill64(cv, px, py, glyphWidth * s, glyphHeight * s, color);
    fill64(cv, px + s, py + s, (glyphWidth - 2) * s, (glyphHeight - 2) * s, tov::ui::kOpaqueBlack);
    return;
  }
  const int32_t rowBytes = (glyphWidth + 7) / 8;
  const uint8_t* g = fontGlyphs.data() + size_t(c) * glyphBytes;
  for (int32_t row = 0; row < glyphHeight; ++row) {
    for (int32_t col = 0; col < glyphWidth; ++col) {
      const int32_t at = row * rowBytes + col / 8;
      if (at >= glyphBytes || !(g[at] & (0x80 >> (col % 8)))) continue;
      fill64(cv, px + col * s, py + row * s, s, s, color);
    }
  }
}

void RuntimeHost::text(int x, int y, const std::string& s, uint32_t color, int scale) {
  if (!window) return;
  const int64_t sc = scale < 1 ? 1 : scale;
  const int64_t cellW = glyphWidth * sc, cellH = glyphHeight * sc;
  int64_t px = x, py = y;
  for (unsigned char ch : s) {
    if (ch == '\n') {
      px = x;
      py += cellH;
      continue;
    }
    if (py >= window->canvas.height) break;  // every later glyph is below the canvas
    if (px < window->canvas.width && px + cellW > 0 && py + cellH > 0)
      drawGlyph(px, py, ch, color, sc);
    px += cellW;
  }
}

bool RuntimeHost::takeScriptedClick(int32_t& x, int32_t& y) {
  if (scriptPos >= scriptClicks.size()) return false;
  if (scriptWait >= 1) {
    --scriptWait;
    return false;
  }
  x = lastEventX = scriptClicks[scriptPos].x;
  y = lastEventY = scriptClicks[scriptPos].y;
  ++scriptPos;
  scriptWait = scriptPos < scriptClicks.size() ? scriptClicks[scriptPos].wait : 0;
  return true;
}

int RuntimeHost::pollEvent(int& x, int& y) {
  if (std::getenv("ZAN_UI_DEBUG"))
    std::fprintf(stderr, "[ui-poll] win=%d script=%zu pos=%zu wait=%d\n", window ? 1 : 0,
                 scriptClicks.size(), scriptPos, scriptWait);
  tov::ui::InputEvent e;
  if (window && window->nextInput(e)) {
    x = lastEventX = e.x;
    y = lastEventY = e.y;
    return e.kind;
  }
  if (takeScriptedClick(x, y)) return tov::ui::kEventButton;
  x = y = 0;
  return tov::ui::kEventNone;
}

bool RuntimeHost::pollInputEvent(tov::ui::InputEvent& out) {
  out = tov::ui::InputEvent();
  if (window && window->nextInput(out)) {
    lastEventX = out.x;
    lastEventY = out.y;
    return true;
  }
  if (takeScriptedClick(out.x, out.y)) {
    out.kind = tov::ui::kEventButton;
    return true;
  }
  out = tov::ui::InputEvent();
  return false;
}

void RuntimeHost::sleepMs(int ms) {
  if (ms > 0) std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}

void RuntimeHost::uiOpen(const std::string& title, int width, int height) {
  if (!window) winOpen(title, width, height, 1);
}

void RuntimeHost::loadFont() {
  fontTried = true;
  const std::string chosen = envText("ZAN_UI_FONT");
  if (!chosen.empty() && loadOne(chosen)) return;
  static const char* const kSystemFonts[] = {
      "/usr/share/consolefonts/CyrSlav-VGA28x16.psf.gz",
      "/usr/share/consolefonts/CyrSlav-VGA14.psf.gz",
      "/usr/share/consolefonts/FullCyrSlav-Fixed13.psf.gz",
      "/usr/share/consolefonts/default8x16.psf.gz",
      "/usr/share/consolefonts/LatArCyrHeb-16.psf.gz",
  };
  for (const char* path : kSystemFonts)
    if (loadOne(path)) return;
}

bool RuntimeHost::loadOne(const std::string& path) {
  // The file comes through a shell pipe: gzip for ".gz" names, cat for the
  // rest, the path between single quotes as given. No bytes fails.
  std::vector<uint8_t> bytes;
  char chunk[4096];
  const bool gz = path.size() >= 4 && path.compare(path.size() - 3, 3, ".gz") == 0;
#ifdef _WIN32
  // Windows has neither program: plain files are read directly.
  if (gz) return false;
  FILE* f = std::fopen(path.c_str(), "rb");
  if (!f) return false;
  for (size_t n; (n = std::fread(chunk, 1, sizeof chunk, f)) > 0;) bytes.insert(bytes.end(), chunk, chunk + n);
  std::fclose(f);
#else
  const std::string cmd = std::string(gz ? "gzip -dc '" : "cat '") + path + "' 2>/dev/null";
  FILE* p = popen(cmd.c_str(), "r");
  if (!p) return false;
  for (size_t n; (n = std::fread(chunk, 1, sizeof chunk, p)) > 0;) bytes.insert(bytes.end(), chunk, chunk + n);
  pclose(p);
#endif
  if (bytes.empty()) return false;
  return parsePsf(bytes);
}

bool RuntimeHost::parsePsf(const std::vector<uint8_t>& b) {
  if (b.size() < 5) return false;
  uint64_t offset, count, charSize;
  int32_t width, height;
  if (b[0] == 0x72) {
    if (b.size() < 32 || b[1] != 0xB5 || b[2] != 0x4A || b[3] != 0x86) return false;
    offset = le32(&b[8]);
    count = le32(&b[16]);
    charSize = le32(&b[20]);
    const uint32_t h = le32(&b[24]), w = le32(&b[28]);
    if (!offset || !count || !charSize || h < 1 || h > 64 || w < 1 || w > 64) return false;
    width = int32_t(w);
    height = int32_t(h);
  } else if (b[0] == 0x36) {
    if (b[1] != 0x04 || b[3] == 0) return false;
    offset = 4;
    count = (b[2] & 1) ? 512 : 256;
    charSize = b[3];
    width = 8;
    height = b[3];
  } else {
    return false;
  }
  // charSize is at most 2^32 - 1 and count too: the product fits in 64 bits.
  if (b.size() < offset || (b.size() - offset) / charSize < count) return false;
  if (charSize > 0x7FFFFFFF) return false;
  fontGlyphs.assign(b.begin() + ptrdiff_t(offset), b.begin() + ptrdiff_t(offset + count * charSize));
  glyphWidth = width;
  glyphHeight = height;
  glyphBytes = int32_t(charSize);
  glyphCount = uint32_t(count);
  return true;
}

}  // namespace tov::zanui
