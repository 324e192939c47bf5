// Prints each input event of a window as "kind key mods text" until it closes:
// key codes a bytecode program never sees. ui/x11_window.py drives it.
#include <cstdio>

#include "base/compat.h"
#include "ui/ui_host.h"

int main() {
  zanCompatInitConsole();
  tov::ui::Window w(160, 48, "zan-keys-test");
  w.present();
  std::printf("READY %s\n", w.backend.c_str());
  std::fflush(stdout);
  tov::ui::InputEvent e;
  for (bool open = true; open;) {
    open = w.pump();
    while (w.nextInput(e)) std::printf("%d %d %d %s\n", e.kind, e.key, e.mods, e.text.empty() ? "-" : e.text.c_str());
    std::fflush(stdout);
    if (open) zanCompatSleepMs(2);  // idle between polls
  }
  return 0;
}
