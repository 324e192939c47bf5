// The window layer on Win32: a window of the requested client size, a
// 32-bit top-down DIB section that `present` fills with one copy and
// WM_PAINT puts on the screen with one BitBlt, and the window procedure
// that turns messages into InputEvents.
#include <algorithm>
#include <cstring>
#include <mutex>
#include <string>

#include "ui/ui_window_impl.h"

namespace tov::ui {

// The values this layer relies on, as the headers define them.
static_assert(sizeof(BITMAPINFOHEADER) == 40);
static_assert(WS_OVERLAPPEDWINDOW == 0xCF0000);
static_assert(CS_OWNDC == 0x20);
static_assert(ERROR_CLASS_ALREADY_EXISTS == 1410);
static_assert(UNICODE_NOCHAR == 0xFFFF);
static_assert(VK_BACK == 8 && VK_TAB == 9 && VK_RETURN == 13 && VK_ESCAPE == 27);
static_assert(VK_END == 35 && VK_HOME == 36 && VK_LEFT == 37 && VK_UP == 38);
static_assert(VK_RIGHT == 39 && VK_DOWN == 40 && VK_DELETE == 46);

namespace {

const char kClassName[] = "ZanUiHostWindow";
const wchar_t kClassNameW[] = L"ZanUiHostWindow";
HINSTANCE win32ClassInstance = nullptr;

using SetAwarenessFn = BOOL(WINAPI*)(HANDLE);
using DpiForWindowFn = UINT(WINAPI*)(HWND);

void win32EnableDpiAwareness() {
  HMODULE user32 = GetModuleHandleA("user32.dll");
  auto set = user32 ? reinterpret_cast<SetAwarenessFn>(
                          reinterpret_cast<void*>(GetProcAddress(user32, "SetProcessDpiAwarenessContext")))
                    : nullptr;
  // -4: per-monitor awareness, version 2.
  if (!set || !set(reinterpret_cast<HANDLE>(intptr_t(-4)))) SetProcessDPIAware();
}

LRESULT CALLBACK windowProc(HWND hwnd, UINT msg, WPARAM wp, LPARAM lp);

void win32EnsureClass() {
  HINSTANCE instance = GetModuleHandleA(nullptr);
  WNDCLASSEXA wc{};
  wc.cbSize = sizeof wc;
  wc.style = CS_OWNDC;
  wc.lpfnWndProc = windowProc;
  wc.hInstance = instance;
  wc.hCursor = LoadCursorA(nullptr, reinterpret_cast<LPCSTR>(IDC_ARROW));
  wc.lpszClassName = kClassName;
  if (RegisterClassExA(&wc) || GetLastError() == ERROR_CLASS_ALREADY_EXISTS)
    win32ClassInstance = instance;
}

bool held(int vk) { return GetKeyState(vk) < 0; }

void queue(Window::Impl& m, int32_t kind, int32_t x = 0, int32_t y = 0) {
  InputEvent e;
  e.kind = kind;
  e.x = x;
  e.y = y;
  m.queue.push_back(std::move(e));
}

// A 32-bit top-down bitmap of w by h in `memDc`, zeroed; on failure the
// record has no bitmap.
void makeBitmap(Window::Impl& m, int32_t w, int32_t h) {
  BITMAPINFO bi{};
  bi.bmiHeader.biSize = sizeof(BITMAPINFOHEADER);
  bi.bmiHeader.biWidth = w;
  bi.bmiHeader.biHeight = -h;
  bi.bmiHeader.biPlanes = 1;
  bi.bmiHeader.biBitCount = 32;
  bi.bmiHeader.biCompression = BI_RGB;
  void* bits = nullptr;
  m.dib = CreateDIBSection(m.memDc, &bi, DIB_RGB_COLORS, &bits, nullptr, 0);
  m.dibBits = bits;
  if (m.memDc && m.dib && m.dibBits) {
    HGDIOBJ old = SelectObject(m.memDc, m.dib);
    if (!m.oldBitmap) m.oldBitmap = static_cast<HBITMAP>(old);
    std::memset(m.dibBits, 0, size_t(w) * size_t(h) * 4);
    m.dibWidth = w;
    m.dibHeight = h;
  }
}

void onKey(Window::Impl& m, WPARAM wp, LPARAM lp) {
  if (lp & (LPARAM(1) << 30)) return;  // auto-repeat: one event per press
  UINT vk = UINT(wp);
  if (vk == VK_SHIFT) vk = MapVirtualKeyA(UINT((lp >> 16) & 0xFF), 3);
  const int32_t key = keyFromVirtualKey(vk);
  if (!key) return;
  InputEvent e;
  e.kind = kEventKey;
  e.key = key;
  e.mods = (held(VK_SHIFT) ? kModShift : 0) | (held(VK_CONTROL) ? kModCtrl : 0) |
           (held(VK_MENU) ? kModAlt : 0);
  m.queue.push_back(std::move(e));
}

LRESULT onChar(Window::Impl& m, UINT msg, WPARAM wp) {
  if (msg == WM_UNICHAR && wp == UNICODE_NOCHAR) return 1;
  uint32_t cp = uint32_t(wp);
  if (cp >= 0xD800 && cp <= 0xDBFF) {
    m.pendingHighSurrogate = cp;
    return 0;
  }
  if (cp >= 0xDC00 && cp <= 0xDFFF) {
    if (!m.pendingHighSurrogate) return 0;
    cp = ((m.pendingHighSurrogate - 0xD800) << 10) + cp - 0xDC00 + 0x10000;
  }
  m.pendingHighSurrogate = 0;
  if (cp < 32 || (cp >= 0xE000 && cp <= 0xF8FF)) return 0;
  if (held(VK_CONTROL) || held(VK_MENU)) return 0;
  InputEvent e;
  e.kind = kEventKey;
  appendUtf8(e.text, cp);
  e.mods = held(VK_SHIFT) ? kModShift : 0;
  m.queue.push_back(std::move(e));
  return 0;
}

LRESULT CALLBACK windowProc(HWND hwnd, UINT msg, WPARAM wp, LPARAM lp) {
  auto* m = reinterpret_cast<Window::Impl*>(GetWindowLongPtrA(hwnd, GWLP_USERDATA));
  if (!m) return DefWindowProcA(hwnd, msg, wp, lp);
  const int32_t lx = int16_t(LOWORD(lp)), ly = int16_t(HIWORD(lp));
  switch (msg) {
    case WM_DESTROY:
      PostQuitMessage(0);
      return 0;
    case WM_SIZE:
      m->clientWidth = LOWORD(lp);
      m->clientHeight = HIWORD(lp);
      if (m->clientWidth && m->clientHeight) {
        m->pendingWidth = m->clientWidth;
        m->pendingHeight = m->clientHeight;
      }
      return 0;
    case WM_SETFOCUS:
      CreateCaret(hwnd, nullptr, 0, 0);
      ShowCaret(hwnd);
      m->caretActive = true;
      return 0;
    case WM_KILLFOCUS:
      if (m->caretActive) {
        DestroyCaret();
        m->caretActive = false;
      }
      return 0;
    case WM_PAINT: {
      PAINTSTRUCT ps;
      HDC dc = BeginPaint(hwnd, &ps);
      if (m->memDc && m->dib)
        BitBlt(dc, 0, 0, m->clientWidth, m->clientHeight, m->memDc, 0, 0, SRCCOPY);
      EndPaint(hwnd, &ps);
      return 0;
    }
    case WM_ERASEBKGND:
      return 1;
    case WM_CLOSE:
      DestroyWindow(hwnd);
      queue(*m, kEventClose);
      return 0;
    case WM_LBUTTONDOWN:
    case WM_LBUTTONUP:
      m->buttonDown = msg == WM_LBUTTONDOWN;
      m->lastX = lx;
      m->lastY = ly;
      queue(*m, kEventButton, lx, ly);
      return 0;
    case WM_MOUSEMOVE:
      m->lastX = lx;
      m->lastY = ly;
      queue(*m, kEventMove, lx, ly);
      return 0;
    case WM_MOUSEWHEEL: {
      POINT p{lx, ly};  // screen coordinates
      ScreenToClient(hwnd, &p);
      m->lastX = p.x;
      m->lastY = p.y;
      queue(*m, kEventMove, p.x, p.y);
      queue(*m, kEventWheel, int16_t(HIWORD(wp)) < 1 ? 1 : -1);
      return 0;
    }
    case WM_KEYDOWN:
    case WM_SYSKEYDOWN:
      onKey(*m, wp, lp);
      return 0;
    case WM_CHAR:
    case WM_SYSCHAR:
    case WM_UNICHAR:
      return onChar(*m, msg, wp);
    default:
      return DefWindowProcA(hwnd, msg, wp, lp);
  }
}

}  // namespace

bool platformOpen(Window& w, const std::string& title) {
  static std::once_flag dpiOnce, classOnce;
  std::call_once(dpiOnce, win32EnableDpiAwareness);
  std::call_once(classOnce, win32EnsureClass);
  if (!win32ClassInstance) return false;

  const int32_t width = w.canvas.width, height = w.canvas.height;
  RECT r{0, 0, width, height};
  AdjustWindowRect(&r, WS_OVERLAPPEDWINDOW, FALSE);
  std::wstring wide;
  if (!title.empty()) {
    int n = MultiByteToWideChar(65001, MB_ERR_INVALID_CHARS, title.data(), int(title.size()), nullptr, 0);
    if (n > 0) {
      wide.resize(size_t(n));
      MultiByteToWideChar(65001, MB_ERR_INVALID_CHARS, title.data(), int(title.size()), wide.data(), n);
    }
  }
  HWND hwnd = CreateWindowExW(0, kClassNameW, wide.c_str(), WS_OVERLAPPEDWINDOW, CW_USEDEFAULT,
                              CW_USEDEFAULT, r.right - r.left, r.bottom - r.top, nullptr, nullptr,
                              win32ClassInstance, nullptr);
  if (!hwnd) return false;

  Window::Impl& m = *w.impl;
  m.hwnd = hwnd;
  SetWindowLongPtrA(hwnd, GWLP_USERDATA, reinterpret_cast<LONG_PTR>(&m));
  RECT client{};
  GetClientRect(hwnd, &client);
  m.clientWidth = client.right - client.left;
  m.clientHeight = client.bottom - client.top;
  if (m.clientWidth < 1 || m.clientHeight < 1) {
    m.clientWidth = width;
    m.clientHeight = height;
  }
  HMODULE user32 = GetModuleHandleA("user32.dll");
  auto dpiFor = user32 ? reinterpret_cast<DpiForWindowFn>(
                             reinterpret_cast<void*>(GetProcAddress(user32, "GetDpiForWindow")))
                       : nullptr;
  UINT dpi = dpiFor ? dpiFor(hwnd) : 0;
  if (!dpi) {
    if (HDC dc = GetDC(hwnd)) {
      int caps = GetDeviceCaps(dc, LOGPIXELSX);
      if (caps > 0) dpi = UINT(caps);
      ReleaseDC(hwnd, dc);
    }
  }
  if (dpi) m.dpiScale = dpi / 96.0;

  HDC screen = GetDC(nullptr);
  m.memDc = CreateCompatibleDC(screen);
  ReleaseDC(nullptr, screen);
  makeBitmap(m, m.clientWidth, m.clientHeight);

  ShowWindow(hwnd, SW_SHOW);
  UpdateWindow(hwnd);
  SetForegroundWindow(hwnd);
  w.backend = "win32";
  return true;
}

bool platformPump(Window& w) {
  Window::Impl& m = *w.impl;
  MSG msg;
  while (PeekMessageA(&msg, nullptr, 0, 0, PM_REMOVE)) {
    if (msg.message == WM_QUIT) {
      queue(m, kEventClose);
      return false;
    }
    TranslateMessage(&msg);
    DispatchMessageA(&msg);
    if (msg.message == WM_CLOSE) {
      if (m.queue.empty() || m.queue.back().kind != kEventClose) queue(m, kEventClose);
      return false;
    }
  }
  return true;
}

void platformPresent(Window& w) {
  Window::Impl& m = *w.impl;
  if (!m.hwnd) return;
  if (m.dibBits) {
    // Canvas and bitmap were sized apart: copy what both hold.
    const int32_t cols = std::min(w.canvas.width, m.dibWidth);
    const int32_t rows = std::min(w.canvas.height, m.dibHeight);
    auto* dst = static_cast<uint32_t*>(m.dibBits);
    for (int32_t y = 0; y < rows; ++y)
      std::memcpy(dst + size_t(y) * m.dibWidth, w.canvas.pixels.data() + size_t(y) * w.canvas.width,
                  size_t(std::max(cols, 0)) * 4);
  }
  GdiFlush();
  InvalidateRect(m.hwnd, nullptr, FALSE);
  UpdateWindow(m.hwnd);
  ++m.framesPresented;
}

void platformResize(Window& w) {
  Window::Impl& m = *w.impl;
  if (!m.hwnd) return;
  if (m.oldBitmap) SelectObject(m.memDc, m.oldBitmap);
  if (m.dib) DeleteObject(m.dib);
  m.dib = nullptr;
  m.dibBits = nullptr;
  m.dibWidth = m.dibHeight = 0;
  makeBitmap(m, w.canvas.width, w.canvas.height);
}

void platformClose(Window& w) {
  Window::Impl& m = *w.impl;
  if (m.hwnd) {
    SetWindowLongPtrA(m.hwnd, GWLP_USERDATA, 0);
    DestroyWindow(m.hwnd);
  }
  if (m.memDc && m.oldBitmap) SelectObject(m.memDc, m.oldBitmap);
  if (m.dib) DeleteObject(m.dib);
  if (m.memDc) DeleteDC(m.memDc);
  m.queue.clear();
}

uint32_t platformPid(const Window& w) {
  DWORD pid = 0;
  if (w.impl->hwnd) GetWindowThreadProcessId(w.impl->hwnd, &pid);
  return uint32_t(pid);
}

}  // namespace tov::ui
