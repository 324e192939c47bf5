// The window layer on X11: a window of the canvas' size, the canvas shown
// with XPutImage, Expose repaints from the last presented frame, and the
// X11 input mapped onto the same InputEvents the Win32 layer yields (one key
// event per press, a wheel step after a move to the pointer, no control or
// private-use characters as text, a close as the last event).
#include <X11/XKBlib.h>
#include <X11/Xatom.h>
#include <X11/Xlib.h>
#include <X11/Xutil.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <set>

#include "ui/ui_window_impl.h"

namespace tov::ui {

struct X11Window {
  Display* dpy = nullptr;
  ::Window win = 0;
  GC gc = nullptr;
  XImage* image = nullptr;
  std::vector<uint32_t> bits;  // the image's pixels, owned here, not by Xlib
  Atom wmDelete = 0;
  bool closed = false;
  bool direct = false;  // the image takes 0xAARRGGBB words as they are
  std::set<unsigned> keysDown;  // for telling a first press from auto-repeat
};

namespace {

// A failed request must not end the process, as Xlib's default handler
// does; it is counted, so that a window the server refused is noticed.
int gXErrors = 0;
int countXError(Display*, XErrorEvent*) {
  ++gXErrors;
  return 0;
}

int32_t clampSide(int32_t v) { return std::clamp(v, 1, 32767); }

// The shift of a colour mask's lowest bit and the mask's width, to place an
// 8-bit channel into a visual's pixel.
uint32_t placeChannel(uint32_t v8, unsigned long mask) {
  if (!mask) return 0;
  int shift = 0, bits = 0;
  while (!((mask >> shift) & 1)) ++shift;
  while ((mask >> (shift + bits)) & 1) ++bits;
  uint32_t v = bits >= 8 ? v8 << (bits - 8) : v8 >> (8 - bits);
  return uint32_t(v << shift);
}

bool makeImage(X11Window& x, int32_t w, int32_t h) {
  Visual* visual = DefaultVisual(x.dpy, DefaultScreen(x.dpy));
  int depth = DefaultDepth(x.dpy, DefaultScreen(x.dpy));
  x.bits.assign(size_t(w) * size_t(h), 0);
  x.image = XCreateImage(x.dpy, visual, unsigned(depth), ZPixmap, 0,
                         reinterpret_cast<char*>(x.bits.data()), unsigned(w), unsigned(h), 32, 0);
  if (!x.image) return false;
  if (x.image->bytes_per_line != w * 4 || x.image->bits_per_pixel != 32) {
    // A visual whose rows are not 32-bit words: let Xlib own a buffer of its
    // own and fill it pixel by pixel.
    x.image->data = static_cast<char*>(std::calloc(size_t(x.image->bytes_per_line), size_t(h)));
    x.bits.clear();
  }
  x.direct = !x.bits.empty() && x.image->red_mask == 0xFF0000 &&
             x.image->green_mask == 0xFF00 && x.image->blue_mask == 0xFF &&
             x.image->byte_order == LSBFirst;
  return true;
}

void dropImage(X11Window& x) {
  if (!x.image) return;
  if (!x.bits.empty()) x.image->data = nullptr;  // ours, not Xlib's to free
  XDestroyImage(x.image);
  x.image = nullptr;
  x.bits.clear();
}

void putImage(X11Window& x) {
  if (x.closed || !x.image) return;
  XPutImage(x.dpy, x.win, x.gc, x.image, 0, 0, 0, 0, unsigned(x.image->width),
            unsigned(x.image->height));
}

int32_t modsOf(unsigned state) {
  return (state & ShiftMask ? kModShift : 0) | (state & ControlMask ? kModCtrl : 0) |
         (state & Mod1Mask ? kModAlt : 0);
}

// Special keys by keysym, keypad twins and X11's own Delete included.
int32_t specialKey(KeySym ks) {
  switch (ks) {
    case XK_BackSpace: return kKeyBackSpace;
    case XK_Tab: case XK_ISO_Left_Tab: case XK_KP_Tab: return kKeyTab;
    case XK_Return: case XK_KP_Enter: return kKeyReturn;
    case XK_Escape: return kKeyEscape;
    case XK_Home: case XK_KP_Home: return kKeyHome;
    case XK_Left: case XK_KP_Left: return kKeyLeft;
    case XK_Up: case XK_KP_Up: return kKeyUp;
    case XK_Right: case XK_KP_Right: return kKeyRight;
    case XK_Down: case XK_KP_Down: return kKeyDown;
    case XK_End: case XK_KP_End: return kKeyEnd;
    case XK_Delete: case XK_KP_Delete: return kKeyDelete;
    default: return 0;
  }
}

// The Unicode code point a keysym types, or 0.
uint32_t codePointOf(KeySym ks) {
  if ((ks >= 0x20 && ks <= 0x7E) || (ks >= 0xA0 && ks <= 0xFF)) return uint32_t(ks);
  // The keypad's space, operators, digits and "=" type their ASCII twins.
  if (ks == XK_KP_Space || (ks >= XK_KP_Multiply && ks <= XK_KP_9) || ks == XK_KP_Equal)
    return uint32_t(ks - 0xFF80);
  if ((ks & 0xFF000000) == 0x01000000) return uint32_t(ks & 0x00FFFFFF);
  return 0;
}

void queue(Window::Impl& m, int32_t kind, int32_t x, int32_t y) {
  InputEvent e;
  e.kind = kind;
  e.x = x;
  e.y = y;
  m.queue.push_back(std::move(e));
}

void onKeyPress(Window::Impl& m, X11Window& x, XKeyEvent& ev) {
  const bool repeat = !x.keysDown.insert(ev.keycode).second;
  char buf[16];
  KeySym ks = NoSymbol;
  XLookupString(&ev, buf, sizeof buf, &ks, nullptr);
  if (int32_t key = specialKey(ks)) {
    if (repeat) return;  // holding a key gives one key event
    InputEvent e;
    e.kind = kEventKey;
    e.key = key;
    e.mods = modsOf(ev.state);
    m.queue.push_back(std::move(e));
    return;
  }
  uint32_t cp = codePointOf(ks);
  if (cp < 32 || (cp >= 0xE000 && cp <= 0xF8FF)) return;
  if (ev.state & (ControlMask | Mod1Mask)) return;
  InputEvent e;
  e.kind = kEventKey;
  appendUtf8(e.text, cp);
  e.mods = ev.state & ShiftMask ? kModShift : 0;
  m.queue.push_back(std::move(e));
}

}  // namespace

bool platformOpen(Window& w, const std::string& title) {
  const char* display = std::getenv("DISPLAY");
  if (!display || !*display) return false;
  static std::once_flag once;
  std::call_once(once, [] { XSetErrorHandler(countXError); });
  Display* dpy = XOpenDisplay(nullptr);
  if (!dpy) return false;

  auto x = new X11Window;
  x->dpy = dpy;
  const int32_t cw = clampSide(w.canvas.width), ch = clampSide(w.canvas.height);
  const int screen = DefaultScreen(dpy);
  XSetWindowAttributes attrs{};
  attrs.background_pixel = BlackPixel(dpy, screen);
  attrs.event_mask = ExposureMask | ButtonPressMask | ButtonReleaseMask | PointerMotionMask |
                     KeyPressMask | KeyReleaseMask | StructureNotifyMask;
  const int errorsBefore = gXErrors;
  x->win = XCreateWindow(dpy, RootWindow(dpy, screen), 0, 0, unsigned(cw), unsigned(ch), 0,
                         CopyFromParent, InputOutput, CopyFromParent,
                         CWBackPixel | CWEventMask, &attrs);
  XSync(dpy, False);
  if (gXErrors != errorsBefore || !makeImage(*x, cw, ch)) {
    XDestroyWindow(dpy, x->win);
    XCloseDisplay(dpy);
    delete x;
    return false;
  }
  XStoreName(dpy, x->win, title.c_str());
  XChangeProperty(dpy, x->win, XInternAtom(dpy, "_NET_WM_NAME", False),
                  XInternAtom(dpy, "UTF8_STRING", False), 8, PropModeReplace,
                  reinterpret_cast<const unsigned char*>(title.data()), int(title.size()));
  long pid = long(getpid());
  XChangeProperty(dpy, x->win, XInternAtom(dpy, "_NET_WM_PID", False), XA_CARDINAL, 32,
                  PropModeReplace, reinterpret_cast<unsigned char*>(&pid), 1);
  XClassHint cls{const_cast<char*>("zan"), const_cast<char*>("ZanUiHostWindow")};
  XSetClassHint(dpy, x->win, &cls);
  x->wmDelete = XInternAtom(dpy, "WM_DELETE_WINDOW", False);
  XSetWMProtocols(dpy, x->win, &x->wmDelete, 1);
  XkbSetDetectableAutoRepeat(dpy, True, nullptr);
  x->gc = XCreateGC(dpy, x->win, 0, nullptr);
  XMapRaised(dpy, x->win);
  XSync(dpy, False);

  Window::Impl& m = *w.impl;
  m.x11 = x;
  m.clientWidth = cw;
  m.clientHeight = ch;
  if (const char* dpi = XGetDefault(dpy, "Xft", "dpi")) {
    double v = std::atof(dpi);
    if (v > 0) m.dpiScale = v / 96.0;
  }
  w.backend = "x11";
  return true;
}

bool platformPump(Window& w) {
  Window::Impl& m = *w.impl;
  X11Window& x = *m.x11;
  while (XPending(x.dpy)) {
    XEvent ev;
    XNextEvent(x.dpy, &ev);
    switch (ev.type) {
      case Expose:
        if (ev.xexpose.count == 0) putImage(x);
        break;
      case ConfigureNotify: {
        const int32_t cw = ev.xconfigure.width, ch = ev.xconfigure.height;
        if (cw != m.clientWidth || ch != m.clientHeight) {
          m.clientWidth = cw;
          m.clientHeight = ch;
          if (cw && ch) {
            m.pendingWidth = cw;
            m.pendingHeight = ch;
          }
        }
        break;
      }
      case ButtonPress:
      case ButtonRelease: {
        const XButtonEvent& b = ev.xbutton;
        m.lastX = b.x;
        m.lastY = b.y;
        if (b.button == Button1) {
          m.buttonDown = ev.type == ButtonPress;
          queue(m, kEventButton, b.x, b.y);
        } else if (ev.type == ButtonPress && (b.button == Button4 || b.button == Button5)) {
          // Button 4 turns away from the user, 5 towards.
          queue(m, kEventMove, b.x, b.y);
          queue(m, kEventWheel, b.button == Button5 ? 1 : -1, 0);
        }
        break;
      }
      case MotionNotify:
        m.lastX = ev.xmotion.x;
        m.lastY = ev.xmotion.y;
        queue(m, kEventMove, ev.xmotion.x, ev.xmotion.y);
        break;
      case KeyPress:
        onKeyPress(m, x, ev.xkey);
        break;
      case KeyRelease: {
        // Without detectable auto-repeat a held key sends release and press
        // with the same time: that pair is no release.
        XEvent next;
        if (XEventsQueued(x.dpy, QueuedAfterReading) && XPeekEvent(x.dpy, &next) &&
            next.type == KeyPress && next.xkey.time == ev.xkey.time &&
            next.xkey.keycode == ev.xkey.keycode)
          break;
        x.keysDown.erase(ev.xkey.keycode);
        break;
      }
      case ClientMessage:
        if (Atom(ev.xclient.data.l[0]) == x.wmDelete && !x.closed) {
          XDestroyWindow(x.dpy, x.win);
          XSync(x.dpy, False);
          x.closed = true;
          queue(m, kEventClose, 0, 0);
          return false;
        }
        break;
      case DestroyNotify:
        if (!x.closed) {
          x.closed = true;
          queue(m, kEventClose, 0, 0);
          return false;
        }
        break;
      default:
        break;
    }
  }
  return true;
}

void platformPresent(Window& w) {
  Window::Impl& m = *w.impl;
  X11Window& x = *m.x11;
  if (x.image) {
    const Canvas& c = w.canvas;
    const int32_t cols = std::min(c.width, x.image->width);
    const int32_t rows = std::min(c.height, x.image->height);
    for (int32_t y = 0; y < rows; ++y) {
      const uint32_t* src = c.pixels.data() + size_t(y) * c.width;
      if (x.direct) {
        std::copy(src, src + cols, x.bits.data() + size_t(y) * x.image->width);
        continue;
      }
      for (int32_t col = 0; col < cols; ++col) {
        const uint32_t p = src[col];
        XPutPixel(x.image, col, y,
                  placeChannel((p >> 16) & 0xFF, x.image->red_mask) |
                      placeChannel((p >> 8) & 0xFF, x.image->green_mask) |
                      placeChannel(p & 0xFF, x.image->blue_mask));
      }
    }
    putImage(x);
    XSync(x.dpy, False);
  }
  ++m.framesPresented;
}

void platformResize(Window& w) {
  X11Window& x = *w.impl->x11;
  dropImage(x);
  makeImage(x, w.canvas.width, w.canvas.height);
}

void platformClose(Window& w) {
  X11Window* x = w.impl->x11;
  if (!x) return;
  dropImage(*x);
  if (x->gc) XFreeGC(x->dpy, x->gc);
  if (!x->closed) XDestroyWindow(x->dpy, x->win);
  XCloseDisplay(x->dpy);
  delete x;
  w.impl->x11 = nullptr;
}

uint32_t platformPid(const Window& w) {
  X11Window& x = *w.impl->x11;
  if (x.closed) return 0;
  Atom type;
  int format;
  unsigned long count, after;
  unsigned char* data = nullptr;
  uint32_t pid = 0;
  if (XGetWindowProperty(x.dpy, x.win, XInternAtom(x.dpy, "_NET_WM_PID", False), 0, 1, False,
                         XA_CARDINAL, &type, &format, &count, &after, &data) == Success &&
      data && count == 1 && format == 32)
    pid = uint32_t(*reinterpret_cast<long*>(data));
  if (data) XFree(data);
  return pid;
}

}  // namespace tov::ui
