// The host a bytecode program talks to when `zan run` starts it: one window
// with its canvas, a bitmap console font (PSF1/PSF2) for text, and input
// replayed from environment variables so that a run can be driven and
// recorded with no person and no screen. Immediate mode: the program
// repaints, presents, polls and sleeps in its own loop; nothing is retained.
// Downloads, images, the store and installation answer 0 or empty here.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "bytecode/zanb_vm.h"
#include "ui/ui_host.h"

namespace tov::zanui {

struct ScriptClick {
  int32_t x, y, wait;
};
struct WheelStep {
  int32_t x, y, delta;
};
struct DragPoint {
  int32_t x, y;
  bool held;
};
struct ScriptKey {
  int32_t key;
  std::string text;
  int32_t mods;
  int32_t wait;
};

// The key code of a key name ("Return", "Left", ...), case-sensitive; 0 for
// any other name.
int32_t editKeyByName(const std::string& name);

class RuntimeHost : public tov::zanb::UiHost {
 public:
  // Reads the scripted input from the environment; opens nothing.
  RuntimeHost();
  ~RuntimeHost() override;

  bool winOpen(const std::string& title, int width, int height, int flags) override;
  bool winPump() override;
  void present() override;
  void clear(uint32_t color) override;
  void fillRect(int x, int y, int width, int height, uint32_t color) override;
  void line(int x0, int y0, int x1, int y1, uint32_t color, int width) override;
  void circle(int x, int y, int radius, uint32_t color) override;
  void text(int x, int y, const std::string& s, uint32_t color, int scale) override;
  int pollEvent(int& x, int& y) override;
  int eventX() const override { return lastEventX; }
  int eventY() const override { return lastEventY; }
  void sleepMs(int ms) override;
  void uiOpen(const std::string& title, int width, int height) override;
  void fetchPump() override {}
  void storePump() override {}
  int fetchState(int) const override { return 0; }
  int imageState(int) override { return 0; }
  int storeState(int) const override { return 0; }

  // pollEvent with the whole record; a scripted click fills kind, x and y.
  bool pollInputEvent(tov::ui::InputEvent& out);
  // The font search: ZAN_UI_FONT, then the console fonts of the system.
  void loadFont();
  // One font file (gzip'd or plain) into the glyphs; false changes nothing.
  bool loadOne(const std::string& path);
  // A PSF1 or PSF2 font from its bytes; false changes nothing.
  bool parsePsf(const std::vector<uint8_t>& bytes);
  void resizeCanvas(int32_t, int32_t) {}  // the canvas keeps its size for the run

  std::vector<ScriptClick> scriptClicks;
  int32_t scriptWait = 0;
  std::vector<WheelStep> wheelSteps;
  std::vector<DragPoint> dragPoints;
  int32_t hoverX = -1, hoverY = -1;
  bool hoverPending = false;
  size_t scriptPos = 0;
  std::vector<ScriptKey> keyScript;
  int32_t lastEventX = 0, lastEventY = 0;
  std::unique_ptr<tov::ui::Window> window;
  std::vector<uint8_t> fontGlyphs;
  bool fontTried = false;
  int32_t framesPresented = 0;
  int32_t glyphWidth = 8, glyphHeight = 16;
  int32_t glyphBytes = 16;
  uint32_t glyphCount = 0;

 private:
  // The next scripted click when it is due; counts down the wait otherwise.
  bool takeScriptedClick(int32_t& x, int32_t& y);
  void drawGlyph(int64_t px, int64_t py, uint32_t c, uint32_t color, int64_t s);
};

}  // namespace tov::zanui
