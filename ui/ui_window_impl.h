// The platform record behind a Window and the hooks each window layer
// supplies (ui_window_win32.cpp, ui_window_x11.cpp, or ui_window_none.cpp
// where there is no window system). Not for use outside ui/.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "ui/ui_host.h"

#ifdef _WIN32
#ifndef NOMINMAX
#define NOMINMAX
#endif
#include <windows.h>
#endif

namespace tov::ui {

struct X11Window;  // the X11 layer's own record

struct Window::Impl {
#ifdef _WIN32
  HWND hwnd = nullptr;
  HDC memDc = nullptr;
  HBITMAP dib = nullptr;
  HBITMAP oldBitmap = nullptr;
  void* dibBits = nullptr;
  int32_t dibWidth = 0, dibHeight = 0;  // the bitmap's own size, for present's copy
#else
  X11Window* x11 = nullptr;
#endif
  int32_t clientWidth = 0, clientHeight = 0;
  double dpiScale = 1.0;
  bool caretActive = false;
  int32_t lastX = 0, lastY = 0;
  uint32_t pendingHighSurrogate = 0;
  int32_t framesPresented = 0;
  bool buttonDown = false;
  int32_t pendingWidth = 0, pendingHeight = 0;
  std::vector<InputEvent> queue;  // arrival order, taken from the front
};

// The window layer. `platformOpen` makes the real window of a client size
// for `w.canvas`, sets `w.backend` and gives true, or leaves everything as
// it was and gives false. The others are called only on a window it made.
bool platformOpen(Window& w, const std::string& title);
bool platformPump(Window& w);
void platformPresent(Window& w);
// After the canvas took a new size: the shown bitmap follows it.
void platformResize(Window& w);
void platformClose(Window& w);
// The process that owns the window; 0 when the platform cannot tell.
uint32_t platformPid(const Window& w);

// The key code of a special key on Windows, by virtual key; 0 for any other.
int32_t keyFromVirtualKey(uint32_t vk);

}  // namespace tov::ui
