// Canvas drawing, the event queue and the frame dumper: the platform-free
// half of the window. The window layers supply the rest (ui_window_impl.h).
#include "ui/ui_host.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>

#include "ui/ui_window_impl.h"

#ifdef _WIN32
#include <windows.h>
#else
#include <unistd.h>
#endif

namespace tov::ui {

namespace {

// Fills the half-open box [x0,x1) x [y0,y1), cut to the canvas. 64-bit so
// that x + w cannot overflow.
void fillBox(Canvas& c, int64_t x0, int64_t y0, int64_t x1, int64_t y1, uint32_t color) {
  x0 = std::max<int64_t>(x0, 0);
  y0 = std::max<int64_t>(y0, 0);
  x1 = std::min<int64_t>(x1, c.width);
  y1 = std::min<int64_t>(y1, c.height);
  for (int64_t y = y0; y < y1; ++y) {
    uint32_t* row = c.pixels.data() + y * c.width;
    std::fill(row + x0, row + std::max(x0, x1), color);
  }
}

// The first i in [lo, hi] for which `pred` holds, pred being false then
// true along i; hi + 1 when it never holds.
template <class Pred>
int64_t firstTrue(int64_t lo, int64_t hi, Pred pred) {
  int64_t end = hi + 1;
  while (lo < end) {
    int64_t mid = lo + (end - lo) / 2;
    if (pred(mid)) end = mid;
    else lo = mid + 1;
  }
  return lo;
}

// The steps [a, b] of a line along which c0 + d*i/steps lies in [0, lim).
// The coordinate is monotonic in i, so both ends are found by bisection and
// a line far outside the canvas costs nothing.
void axisRange(int64_t c0, int64_t d, int64_t steps, int64_t lim, int64_t& a, int64_t& b) {
  auto at = [&](int64_t i) { return c0 + int64_t(__int128(d) * i / steps); };
  if (d >= 0) {
    a = firstTrue(0, steps, [&](int64_t i) { return at(i) >= 0; });
    b = firstTrue(0, steps, [&](int64_t i) { return at(i) >= lim; }) - 1;
  } else {
    a = firstTrue(0, steps, [&](int64_t i) { return at(i) < lim; });
    b = firstTrue(0, steps, [&](int64_t i) { return at(i) < 0; }) - 1;
  }
}

bool envOn(const char* name) {
  const char* v = std::getenv(name);
  return v && v[0] && v[0] != '0';
}

uint32_t currentPid() {
#ifdef _WIN32
  return uint32_t(GetCurrentProcessId());
#else
  return uint32_t(getpid());
#endif
}

}  // namespace

void Canvas::fillRect(int32_t x, int32_t y, int32_t w, int32_t h, uint32_t color) {
  fillBox(*this, x, y, int64_t(x) + w, int64_t(y) + h, color);
}

void Canvas::strokeRect(int32_t x, int32_t y, int32_t w, int32_t h, uint32_t color,
                        int32_t thickness) {
  const int64_t x1 = int64_t(x) + w, y1 = int64_t(y) + h, t = thickness;
  fillBox(*this, x, y, x1, y + t, color);
  fillBox(*this, x, y1 - t, x1, y1, color);
  fillBox(*this, x, y, x + t, y1, color);
  fillBox(*this, x1 - t, y, x1, y1, color);
}

void Canvas::line(int32_t x0, int32_t y0, int32_t x1, int32_t y1, uint32_t color) {
  const int64_t dx = int64_t(x1) - x0, dy = int64_t(y1) - y0;
  const int64_t steps = std::max(dx < 0 ? -dx : dx, dy < 0 ? -dy : dy);
  if (steps == 0) {
    fillBox(*this, x0, y0, int64_t(x0) + 1, int64_t(y0) + 1, color);
    return;
  }
  int64_t ax, bx, ay, by;
  axisRange(x0, dx, steps, width, ax, bx);
  axisRange(y0, dy, steps, height, ay, by);
  for (int64_t i = std::max(ax, ay), last = std::min(bx, by); i <= last; ++i) {
    int64_t px = x0 + int64_t(__int128(dx) * i / steps);
    int64_t py = y0 + int64_t(__int128(dy) * i / steps);
    pixels[size_t(py * width + px)] = color;
  }
}

void Canvas::circle(int32_t cx, int32_t cy, int32_t r, uint32_t color) {
  if (r < 0) return;
  const int64_t rr = int64_t(r) * r;
  // Only the rows inside the canvas; each row of the disc is one span.
  const int64_t dyLo = std::max<int64_t>(-r, -int64_t(cy));
  const int64_t dyHi = std::min<int64_t>(r, int64_t(height) - 1 - cy);
  for (int64_t dy = dyLo; dy <= dyHi; ++dy) {
    const int64_t left = rr - dy * dy;
    int64_t m = int64_t(std::sqrt(double(left)));
    while (m * m > left) --m;
    while ((m + 1) * (m + 1) <= left) ++m;
    fillBox(*this, cx - m, cy + dy, cx + m + 1, cy + dy + 1, color);
  }
}

void Canvas::blit(const uint32_t* src, int32_t w, int32_t h) {
  const int32_t cols = std::min(w, width), rows = std::min(h, height);
  for (int32_t y = 0; y < rows; ++y)
    std::copy(src + size_t(y) * w, src + size_t(y) * w + std::max(cols, 0),
              pixels.data() + size_t(y) * width);
}

void appendUtf8(std::string& out, uint32_t cp) {
  if (cp == 0) return;
  if (cp < 0x80) {
    out += char(cp);
  } else if (cp < 0x800) {
    out += char(0xC0 | (cp >> 6));
    out += char(0x80 | (cp & 0x3F));
  } else if (cp < 0x10000) {
    out += char(0xE0 | (cp >> 12));
    out += char(0x80 | ((cp >> 6) & 0x3F));
    out += char(0x80 | (cp & 0x3F));
  } else {
    out += char(0xF0 | ((cp >> 18) & 0x07));
    out += char(0x80 | ((cp >> 12) & 0x3F));
    out += char(0x80 | ((cp >> 6) & 0x3F));
    out += char(0x80 | (cp & 0x3F));
  }
}

int32_t keyFromVirtualKey(uint32_t vk) {
  // Indexed by virtual key minus 8, for virtual keys 8 to 46.
  static const int32_t kTable[39] = {
      kKeyBackSpace, kKeyTab, 0, 0, 0, kKeyReturn, 0, 0, 0, 0,  // 8-17
      0, 0, 0, 0, 0, 0, 0, 0, 0, kKeyEscape,                    // 18-27
      0, 0, 0, 0, 0, 0, 0, kKeyEnd, kKeyHome, kKeyLeft,         // 28-37
      kKeyUp, kKeyRight, kKeyDown, 0, 0, 0, 0, 0, kKeyDelete,   // 38-46
  };
  return vk >= 8 && vk <= 46 ? kTable[vk - 8] : 0;
}

Window::Window(int32_t width, int32_t height, const std::string& title) {
  canvas.width = std::max(width, 0);
  canvas.height = std::max(height, 0);
  const uint64_t count = uint64_t(canvas.width) * uint64_t(canvas.height);
  if (count > kMaxPixels) throw std::length_error("canvas too large");
  canvas.pixels.assign(size_t(count), kOpaqueBlack);
  impl = std::make_unique<Impl>();
  if (!platformOpen(*this, title)) backend = "ppm";
  open = true;
}

Window::~Window() {
  if (backend != "ppm") platformClose(*this);
}

bool Window::pump() {
  if (backend == "ppm") return true;
  return platformPump(*this);
}

void Window::present() {
  if (backend != "ppm") {
    platformPresent(*this);
    return;
  }
  Impl& m = *impl;
  if (!envOn("ZAN_UI_DUMP")) {
    ++m.framesPresented;
    return;
  }
  const char* maxText = std::getenv("ZAN_UI_DUMP_MAX");
  int limit = maxText ? std::atoi(maxText) : 8;
  if (limit < 1) limit = 8;
  if (m.framesPresented >= limit) {
    ++m.framesPresented;
    return;
  }
  const int frame = m.framesPresented++;
  char path[64];
  std::snprintf(path, sizeof path, "/tmp/zan-ui-frame-%03d.ppm", frame);
  FILE* f = std::fopen(path, "wb");
  if (!f) return;
  std::fprintf(f, "P6\n%d %d\n255\n", canvas.width, canvas.height);
  std::vector<uint8_t> row(size_t(canvas.width) * 3);
  for (int32_t y = 0; y < canvas.height; ++y) {
    const uint32_t* p = canvas.pixels.data() + size_t(y) * canvas.width;
    for (int32_t x = 0; x < canvas.width; ++x) {
      row[3 * x] = uint8_t(p[x] >> 16);
      row[3 * x + 1] = uint8_t(p[x] >> 8);
      row[3 * x + 2] = uint8_t(p[x]);
    }
    std::fwrite(row.data(), 1, row.size(), f);
  }
  std::fclose(f);
  std::printf("zan-ui: wrote %s\n", path);
}

bool Window::nextInput(InputEvent& out) {
  std::vector<InputEvent>& q = impl->queue;
  if (q.empty()) return false;
  out = std::move(q.front());
  q.erase(q.begin());
  return true;
}

int32_t Window::nextEvent(int32_t& x, int32_t& y) {
  InputEvent e;
  if (!nextInput(e)) return kEventNone;
  x = e.x;
  y = e.y;
  return e.kind;
}

bool Window::takeResize(int32_t* width, int32_t* height) {
  Impl& m = *impl;
  if (m.pendingWidth < 1 || m.pendingHeight < 1) return false;
  if (std::getenv("ZAN_RESIZE_DEBUG"))
    std::fprintf(stderr, "[resize] takeResize %dx%d\n", m.pendingWidth, m.pendingHeight);
  if (width) *width = m.pendingWidth;
  if (height) *height = m.pendingHeight;
  m.pendingWidth = m.pendingHeight = 0;
  return true;
}

void Window::resizeCanvas(int32_t width, int32_t height) {
  if (width < 1 || height < 1 || (width == canvas.width && height == canvas.height)) return;
  const uint64_t count = uint64_t(width) * uint64_t(height);
  if (count > kMaxPixels) throw std::length_error("canvas too large");
  canvas.width = width;
  canvas.height = height;
  canvas.pixels.assign(size_t(count), kOpaqueBlack);
  if (backend != "ppm") platformResize(*this);
}

bool Window::buttonHeld() const { return impl && impl->buttonDown; }

double Window::devicePixelRatio() const { return impl ? impl->dpiScale : 1.0; }

uint32_t Window::windowPid() const {
  uint32_t pid = backend != "ppm" && impl ? platformPid(*this) : 0;
  return pid ? pid : currentPid();
}

}  // namespace tov::ui
