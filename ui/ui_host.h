// The pixel surface and the window around it. A Canvas is a plain buffer of
// 0xAARRGGBB words with clipped drawing; a Window owns one, shows it on the
// screen (Win32, or X11 on Linux) and queues the platform's input as
// InputEvents. When no real window can be made the same object dumps frames
// to binary PPM files instead ("ppm"), so callers never see a difference.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace tov::ui {

// Event codes, shared with the bytecode machine.
enum : int32_t {
  kEventNone = 0,
  kEventButton = 1,  // left button down or up; Window::buttonHeld tells which
  kEventKey = 2,
  kEventClose = 3,
  kEventWheel = 4,  // x: +1 towards the user, -1 away
  kEventMove = 5,
};

// Key codes: X11 keysym numbers on every platform.
enum : int32_t {
  kKeyBackSpace = 0xFF08,
  kKeyTab = 0xFF09,
  kKeyReturn = 0xFF0D,
  kKeyEscape = 0xFF1B,
  kKeyHome = 0xFF50,
  kKeyLeft = 0xFF51,
  kKeyUp = 0xFF52,
  kKeyRight = 0xFF53,
  kKeyDown = 0xFF54,
  kKeyEnd = 0xFF57,
  kKeyDelete = 0xFF9F,
};

// Modifier bits.
enum : int32_t { kModShift = 1, kModCtrl = 2, kModAlt = 4 };

constexpr uint32_t kOpaqueBlack = 0xFF000000u;

struct Canvas {
  int32_t width = 0;  // also the row stride
  int32_t height = 0;
  std::vector<uint32_t> pixels;  // row-major, top row first

  // Every call clips to the canvas and draws the part inside; nothing is an
  // error. Colours are stored as given: no blending.
  void fillRect(int32_t x, int32_t y, int32_t w, int32_t h, uint32_t color);
  // The outline inside the rectangle, as four filled bands.
  void strokeRect(int32_t x, int32_t y, int32_t w, int32_t h, uint32_t color, int32_t thickness);
  // max(|dx|,|dy|)+1 points with truncating division, not Bresenham.
  void line(int32_t x0, int32_t y0, int32_t x1, int32_t y1, uint32_t color);
  // A filled disc; r 0 is one pixel, a negative r nothing.
  void circle(int32_t cx, int32_t cy, int32_t r, uint32_t color);
  // w by h pixels of `src` (stride w) at the origin, cut to the canvas.
  void blit(const uint32_t* src, int32_t w, int32_t h);
};

struct InputEvent {
  int32_t kind = kEventNone;
  int32_t x = 0;  // for a wheel event the step
  int32_t y = 0;
  int32_t key = 0;   // a special key, else 0
  std::string text;  // one UTF-8 character, else empty
  int32_t mods = 0;
};

// Appends code point `cp` as UTF-8 (1 to 4 bytes); 0 appends nothing.
void appendUtf8(std::string& out, uint32_t cp);

class Window {
 public:
  struct Impl;

  // Makes the canvas (opaque black) and, when it can, the real window.
  // Sizes below 0 count as 0; a canvas of more than kMaxPixels pixels
  // throws std::length_error, as a vector too large for memory would.
  Window(int32_t width, int32_t height, const std::string& title);
  ~Window();
  Window(const Window&) = delete;
  Window& operator=(const Window&) = delete;

  // Handles all pending platform messages; false when the window closes.
  bool pump();
  // Shows the canvas, or dumps it when ZAN_UI_DUMP asks for that.
  void present();
  // The oldest queued event; false when there is none.
  bool nextInput(InputEvent& out);
  // The oldest event's kind with its x and y; 0 (x, y untouched) when none.
  int32_t nextEvent(int32_t& x, int32_t& y);
  // Reports and clears a resize the platform made; either pointer may be null.
  bool takeResize(int32_t* width, int32_t* height);
  void resizeCanvas(int32_t width, int32_t height);
  bool buttonHeld() const;
  double devicePixelRatio() const;
  uint32_t windowPid() const;

  // 8192 by 8192: beyond any screen, and 256 MiB of pixels.
  static constexpr uint64_t kMaxPixels = uint64_t(1) << 26;

  std::unique_ptr<Impl> impl;
  Canvas canvas;
  bool open = false;
  std::string backend;  // "win32", "x11" or "ppm"
};

}  // namespace tov::ui
