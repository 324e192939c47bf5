// The window layer of a build with no window system: every Window is the
// "ppm" frame dumper.
#include "ui/ui_window_impl.h"

namespace tov::ui {

bool platformOpen(Window&, const std::string&) { return false; }
bool platformPump(Window&) { return true; }
void platformPresent(Window&) {}
void platformResize(Window&) {}
void platformClose(Window&) {}
uint32_t platformPid(const Window&) { return 0; }

}  // namespace tov::ui
