// Script compiler: errors.tbl's messages; *.zst cases run on a host that logs each call.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "bytecode/zanb.h"
#include "bytecode/zanb_vm.h"
#include "script/zans.h"

namespace {

using tov::zanb::GuestMem;

// Strings quoted, colours in hex; widget fields that carry strings shown as them.
class Recorder : public tov::zanb::UiHost {
 public:
  std::ostringstream log;
  std::vector<std::array<int, 3>> events;
  size_t next = 0;
  int ex = 0, ey = 0;

  template <class... A>
  void rec(const char* name, const A&... a) {
    log << name;
    ((log << ' ' << a), ...);
    log << '\n';
  }
  static std::string q(const std::string& s) { return '"' + s + '"'; }
  static std::string hex(uint32_t v) { return (std::ostringstream() << "0x" << std::hex << v).str(); }

  bool winOpen(const std::string& t, int w, int h, int f) override { return rec("win", q(t), w, h, f), true; }
  bool winPump() override { return true; }
  void present() override { rec("present"); }
  void clear(uint32_t c) override { rec("clear", hex(c)); }
  void fillRect(int x, int y, int w, int h, uint32_t c) override { rec("rect", x, y, w, h, hex(c)); }
  void line(int x0, int y0, int x1, int y1, uint32_t c, int w) override { rec("line", x0, y0, x1, y1, hex(c), w); }
  void circle(int x, int y, int r, uint32_t c) override { rec("circle", x, y, r, hex(c)); }
  void text(int x, int y, const std::string& s, uint32_t c, int k) override { rec("text", x, y, q(s), hex(c), k); }
  int pollEvent(int&, int&) override {
    if (next >= events.size()) return 0;
    ex = events[next][1], ey = events[next][2];
    return events[next++][0];
  }
  int eventX() const override { return ex; }
  int eventY() const override { return ey; }
  void sleepMs(int ms) override { rec("sleep", ms); }
  void uiOpen(const std::string& t, int w, int h) override { rec("uiOpen", q(t), w, h); }
  void uiCmd(uint32_t word, uint32_t a, uint32_t b, uint32_t c, uint32_t d, GuestMem m, int e) override {
    static const std::map<uint32_t, std::string> kStrings = {{9, "a"},  {10, "c"}, {12, "cd"}, {13, "c"},
                                                             {17, "b"}, {23, "e"}, {26, "e"}};  // by word
    const uint32_t f[5] = {a, b, c, d, uint32_t(e)};
    log << "ui " << word;
    const std::string strs = kStrings.count(word) ? kStrings.at(word) : "";
    for (int i = 0; i < 5; ++i) {
      std::string s;  // the guest string at f[i]
      for (uint32_t at = f[i]; at < m.size && m.base[at] && s.size() < 256;) s.push_back(char(m.base[at++]));
      const bool isStr = strs.find(char('a' + i)) != std::string::npos && f[i];
      log << " " << (isStr ? q(s) : f[i] >= 0x10000 ? hex(f[i]) : std::to_string(f[i]));
    }
    log << "\n";
  }
  uint32_t uiPresent(GuestMem, uint32_t) override { return rec("uiPresent"), 0; }
  void uiTheme(uint32_t v) override { rec("uiTheme", v); }
  uint32_t uiToken(uint32_t id) const override { return 0x1000 + id; }
  uint32_t uiResultWord(uint32_t id) const override { return id == 29 ? 1500 : 100 + id; }
  int fetchStart(const std::string& u, const std::string& p) override { return rec("fetchStart", u, p), 7; }
  int fetchState(int j) const override { return 40 + j; }
  std::string fetchFile(int) const override { return "f.bin"; }
  int imageState(int id) override { return rec("imageState", id), 2; }
  bool dataWrite(const std::string& k, const std::string& v) override { return rec("dataWrite", k + "=" + v), true; }
  bool dataRead(const std::string& k, std::string* v) override { return *v = "v:" + k, true; }
  int textWidth(const std::string& s, uint32_t style) override { return rec("textWidth", s, style), int(s.size()) * 10; }
  int storeNum(int id, int row, uint32_t field) const override { return id * 100 + row * 10 + int(field); }
};

// "=== title", an optional "exit: N", the source, then "--- stdout|host|listing|events" blocks.
struct Case { std::string title; std::map<std::string, std::string> block; int exit = 0; };

std::vector<Case> readCases(const std::filesystem::path& path) {
  std::ifstream in(path);
  std::vector<Case> cases;
  std::string line, block;
  while (std::getline(in, line)) {
    if (line.rfind("=== ", 0) == 0) {
      cases.push_back({path.filename().string() + ": " + line.substr(4), {}});
      block = "source";
    } else if (cases.empty()) {
    } else if (line.rfind("--- ", 0) == 0) {
      cases.back().block[block = line.substr(4)];
    } else if (block == "source" && cases.back().block[block].empty() && line.rfind("exit: ", 0) == 0) {
      cases.back().exit = std::stoi(line.substr(6));
    } else {
      cases.back().block[block] += line + "\n";
    }
  }
  for (Case& c : cases)
    for (auto& [name, s] : c.block)
      while (s.size() >= 2 && s.compare(s.size() - 2, 2, "\n\n") == 0) s.pop_back();
  return cases;
}

std::string unescape(const std::string& s) {
  std::string out;
  for (size_t i = 0; i < s.size(); ++i) {
    const char e = s[i] == '\\' && i + 1 < s.size() ? s[++i] : 0;
    out += !e ? s[i] : e == 'n' ? '\n' : e == 't' ? '\t' : e;
  }
  return out;
}

// errors.tbl: one case a line, "SOURCE => MESSAGE".
TEST(Zans, Errors) {
  std::ifstream in(std::string(ZAN_SCRIPT_CASES) + "/errors.tbl");
  ASSERT_TRUE(in.is_open());
  for (std::string lineText; std::getline(in, lineText);) {
    const size_t arrow = lineText.find(" => ");
    if (lineText.empty() || lineText[0] == '#' || arrow == std::string::npos) continue;
    tov::zanb::Module m;
    std::string err;
    EXPECT_FALSE(tov::zans::compile(unescape(lineText.substr(0, arrow)), m, err)) << lineText;
    EXPECT_EQ(err, lineText.substr(arrow + 4)) << lineText;
  }
}

// Compiles and runs source: its exit code, or -1000 when it does not compile.
int compileAndRun(const std::string& source, tov::zanb::VmConfig& cfg, std::string& err,
                  const std::string* listing = nullptr) {
  tov::zanb::Module m;
  if (!tov::zans::compile(source, m, err)) return -1000;
  if (listing) { EXPECT_EQ(tov::zanb::disassemble(m), *listing); }
  const std::vector<uint8_t> bytes = tov::zanb::writeModule(m);
  return tov::zanb::runModule(bytes.data(), bytes.size(), cfg, err);
}

TEST(Zans, Cases) {
  std::vector<std::filesystem::path> files;
  for (const auto& e : std::filesystem::directory_iterator(ZAN_SCRIPT_CASES))
    if (e.path().extension() == ".zst") files.push_back(e.path());
  std::sort(files.begin(), files.end());
  ASSERT_FALSE(files.empty());
  for (const auto& f : files)
    for (Case& c : readCases(f)) {
      SCOPED_TRACE(c.title);
      Recorder host;
      std::istringstream ev(c.block["events"]);
      for (std::array<int, 3> e; ev >> e[0] >> e[1] >> e[2];) host.events.push_back(e);
      std::string err, out;
      tov::zanb::VmConfig cfg;
      cfg.host = &host;
      cfg.args = {"case.zanb"};
      cfg.stepLimit = 20'000'000;
      cfg.onStdout = [&](const uint8_t* p, uint64_t n) { out.append(reinterpret_cast<const char*>(p), n); };
      EXPECT_EQ(compileAndRun(c.block["source"], cfg, err, c.block.count("listing") ? &c.block["listing"] : nullptr),
                c.exit) << err;
      EXPECT_EQ(out, c.block["stdout"]);
      if (c.block.count("host")) { EXPECT_EQ(host.log.str(), c.block["host"]); }
    }
}

std::string repeat(const std::string& s, size_t n) {
  std::string r;
  while (n--) r += s;
  return r;
}

// Sources no one writes by hand: none may crash, hang or exhaust the stack.
TEST(Zans, HostileSources) {
  std::string deepIfs = "func main\n";
  for (int i = 0; i < 10000; ++i) deepIfs += std::string(size_t(i) + 1, ' ') + "if 1\n";
  std::string manyFuncs;
  for (int i = 0; i < 100000; ++i) manyFuncs += "func f" + std::to_string(i) + "\n  return " + std::to_string(i) + "\n";
  manyFuncs += "func main\n  exit f99999()\n";
  const struct { std::string source, error; int exit; } kCases[] = {  // no error: compiles and runs to `exit`
      {"func main\r\n  if 1\r\n    exit 3\r\n", "", 3},
      {"func main\n  exit " + repeat("1 + ", 250000) + "1\n", "", 250001},
      {"func main\n  exit " + repeat("(", 10000) + "1" + repeat(")", 10000) + "\n",
       "line 2: expression nested too deeply", 0},
      {"func main\n  exit " + repeat("-", 100000) + "1\n", "line 2: expression nested too deeply", 0},
      {"func main\n  exit (((1\n", "", 1},
      {"func main\n  print \"\xff\xfe\"\n  exit 4\n", "", 4},
      {"func main\n  exit \xff\n", "line 2: unexpected character '\xff'", 0},
      {std::string("func main\n  exit 1\0\n", 20), std::string("line 2: unexpected character '\0'", 32), 0},
      {"func main\n  exit " + repeat("pump + ", 600000) + "1\n", "line 2: the function needs more than 4194304 slots",
       0},
      {"func main\n" + repeat("  buf b 4096\n", 17000), "line 16386: the program's data would exceed 67108864 bytes",
       0},
      {"func main\n  field 1 f 1e300\n", "line 2: the program's data would exceed 67108864 bytes", 0},
      {deepIfs, "line 202: blocks nested too deeply", 0},
      {manyFuncs, "", 99999},
  };
  for (const auto& c : kCases) {
    tov::zanb::VmConfig cfg;
    cfg.stepLimit = 10'000'000;
    std::string err;
    EXPECT_EQ(compileAndRun(c.source, cfg, err), c.error.empty() ? c.exit : -1000) << c.source.substr(0, 40);
    if (!c.error.empty()) { EXPECT_EQ(err, c.error) << c.source.substr(0, 40); }
  }
}

}  // namespace
