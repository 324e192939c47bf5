// The bytecode machine: one Vm loads one module and runs it once, on the
// caller's thread. It owns the guest memory, frames and globals of that run.
// The host object (window, drawing, input) is borrowed through VmConfig.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace tov::zanb {

using Value = uint64_t;  // one slot: raw bits, no tag

// The guest memory a host call may see: valid only during that call.
struct GuestMem {
  uint8_t* base = nullptr;
  uint64_t size = 0;
};

// Everything outside the machine that system calls 10 to 55 reach: window
// and drawing, input, widget commands, downloads, images, a key and value
// store, the store catalog and app installation. A host overrides what it
// supports; the rest answers the defaults given here. Numbers that come back
// as `int` are signed 32-bit, as the guest wrote them.
class UiHost {
 public:
  virtual ~UiHost() = default;
  virtual bool winOpen(const std::string& title, int width, int height, int flags) = 0;
  virtual bool winPump() = 0;
  virtual void present() = 0;
  virtual void clear(uint32_t color) = 0;
  virtual void fillRect(int x, int y, int width, int height, uint32_t color) = 0;
  virtual void line(int x0, int y0, int x1, int y1, uint32_t color, int width) = 0;
  virtual void circle(int x, int y, int radius, uint32_t color) = 0;
  virtual void text(int x, int y, const std::string& s, uint32_t color, int scale) = 0;
  virtual int pollEvent(int& x, int& y) = 0;
  virtual int eventX() const { return 0; }
  virtual int eventY() const { return 0; }
  virtual void sleepMs(int ms) = 0;
  virtual void uiOpen(const std::string& title, int width, int height) {}
  virtual void uiCmd(uint32_t a0, uint32_t a1, uint32_t a2, uint32_t a3, uint32_t a4, GuestMem mem,
                     int a5) {}
  virtual uint32_t uiPresent(GuestMem mem, uint32_t block) { return 0; }
  virtual void uiTheme(uint32_t theme) {}
  virtual uint32_t uiToken(uint32_t id) const { return 0; }
  virtual int fetchStart(const std::string& url, const std::string& path) { return 0; }
  virtual void fetchPump() {}
  virtual int fetchState(int job) const { return 4; }
  virtual uint32_t fetchGot(int job) const { return 0; }
  virtual uint32_t fetchTotal(int job) const { return 0; }
  virtual bool fetchCancel(int job) { return false; }
  virtual std::string fetchFile(int job) const { return {}; }
  virtual int scrollOffset(int id) const { return 0; }
  virtual int imageLoad(const std::string& path) { return 0; }
  virtual int imageState(int id) { return 2; }
  virtual int imageId(int id, bool round) { return 0; }
  virtual bool dataWrite(const std::string& key, const std::string& value) { return false; }
  virtual bool dataRead(const std::string& key, std::string* value) { return false; }
  virtual int textWidth(const std::string& s, uint32_t size) { return 0; }
  virtual int fetchThreads(int n) { return 0; }
  virtual int installStart(const std::string& what) { return 0; }
  virtual bool appInstall(const std::string& id) { return false; }
  virtual bool appInstalled(const std::string& id) const { return false; }
  virtual bool appOpen(const std::string& id) { return false; }
  virtual std::string installOutput(int job) const { return {}; }
  virtual int storeLoad(const std::string& url) { return 0; }
  virtual void storePump() {}
  virtual int storeState(int id) const { return 2; }
  virtual int storeCount(int id) const { return 0; }
  virtual std::string storeText(int id, int row, uint32_t field) const { return {}; }
  virtual int storeNum(int id, int row, uint32_t field) const { return 0; }
  virtual std::string storeReport(int id) const { return {}; }
  virtual uint32_t uiResultWord(uint32_t index) const { return 0; }
};

struct VmConfig {
  UiHost* host = nullptr;  // not owned; null answers every host call with its default
  std::vector<std::string> args;  // args[0] is the program path
  std::vector<std::string> env;
  std::function<void(const uint8_t*, uint64_t)> onStdout;  // empty: fwrite to stdout
  std::function<void(const uint8_t*, uint64_t)> onStderr;  // empty: fwrite to stderr
  // Bytes guest memory may reach: the initial pages, the data segments and
  // mem_grow all stay within it.
  uint64_t memLimit = 0x100000000ull;
  uint32_t stepLimit = 0;  // 0 = no limit
};

class Vm {
 public:
  Vm();
  ~Vm();
  Vm(const Vm&) = delete;
  Vm& operator=(const Vm&) = delete;

  bool load(const uint8_t* bytes, uint64_t size, const VmConfig& config, std::string& err);
  // The guest's exit code, or -1 after a trap or a failure to start.
  int run(std::string& err);

  struct Impl;

 private:
  Impl* impl_;
};

// Construct, load, run: -1 when load failed, else what run gave.
int runModule(const uint8_t* bytes, uint64_t size, const VmConfig& config, std::string& err);

}  // namespace tov::zanb
