// Widget statements: each compiles to one command word sent through system
// call 23; a container's children follow it and word 0 closes it, so the
// stream is the tree in prefix order. Also the statements that serve widget
// programs (ui, uitheme, show, buf, strcopy, storetext, fmt).
#include <cmath>
#include <functional>

#include "script/zans_impl.h"

namespace tov::zans {

using namespace tov::zanb;

namespace {

constexpr uint32_t op(Op o, Type t = kI32) { return uint32_t(o) | (uint32_t(t) << 8); }

bool isOp(const Line& line, size_t pos, const char* text) {
  return pos < line.tokens.size() && line.tokens[pos].kind == kOperator && line.tokens[pos].text == text;
}
bool isKind(const Line& line, size_t pos, int32_t kind) {
  return pos < line.tokens.size() && line.tokens[pos].kind == kind;
}

struct Icon {
  const char* name;
  uint32_t code;
  uint32_t group;
};
const Icon kIcons[] = {
    {"none", 0, 0},           {"back", 0xE092, 1},         {"forward", 0xE09B, 2},
    {"close", 0xE16A, 3},     {"gear", 0xE57F, 4},         {"settings", 0xE57F, 4},
    {"search", 0xE567, 5},    {"check", 0xE156, 6},        {"add", 0xE047, 7},
    {"remove", 0xE516, 8},    {"chevron", 0xE15F, 9},      {"more", 0xE401, 10},
    {"star", 0xE5F9, 11},     {"download", 0xE201, 12},    {"image", 0xE332, 15},
    {"play", 0xE4CB, 16},     {"pause", 0xE47C, 17},       {"home", 0xE318, 18},
    {"person", 0xE491, 19},   {"lock", 0xE3AE, 20},        {"info", 0xE33C, 21},
    {"edit", 0xE21A, 22},     {"refresh", 0xE514, 23},     {"apps", 0xE08F, 24},
    {"games", 0xE2D1, 25},    {"theme", 0xE37A, 26},       {"send", 0xE571, 14},
    {"delete", 0xE1B9, 13},   {"update", 0xE637, 27},      {"checkcircle", 0xE159, 28},
    {"deletesweep", 0xE1BC, 29}, {"stopcircle", 0xE607, 30}, {"cloudoff", 0xE173, 31},
    {"apps_outlined", 0xEE80, 24}, {"gear_outlined", 0xF36E, 4}, {"theme_outlined", 0xF162, 26},
    {"update_outlined", 0xEFAB, 27}, {"stop_outlined", 0xF3E9, 30}, {"cloudoff_outlined", 0xEF61, 31},
    {"star_border", 0xE5FA, 11}, {"star_half", 0xE5FC, 11},
};
static_assert(sizeof(kIcons) / sizeof(kIcons[0]) == 41);

uint32_t iconId(const std::string& name) {
  for (const Icon& i : kIcons)
    if (name == i.name) return 0x80000000u | i.group << 16 | i.code;
  return 0;
}

// Statement words: widget words by their command word, the others by a
// code of their own from 100 up.
enum : int { kUi = 100, kTheme, kShow, kBuf, kStrcopy, kStoretext, kFmt };
const struct {
  const char* word;
  int code;
} kWords[] = {
    {"col", 1},        {"column", 1},   {"row", 2},         {"stack", 3},     {"pad", 4},
    {"padding", 4},    {"center", 5},   {"expand", 6},      {"sized", 7},     {"scroll", 8},
    {"text", 9},       {"button", 10},  {"card", 11},       {"listtile", 12}, {"switch", 13},
    {"divider", 14},   {"icon", 15},    {"spacer", 16},     {"appbar", 17},   {"image", 18},
    {"progress", 19},  {"animated", 20}, {"route", 21},     {"tap", 22},      {"inkwell", 22},
    {"field", 23},     {"navrail", 24}, {"navbar", 25},     {"navigationbar", 25},
    {"fab", 26},       {"floatingactionbutton", 26},        {"iconbutton", 27}, {"iconbtn", 27},
    {"ui", kUi},       {"uitheme", kTheme}, {"uitheme_mode", kTheme}, {"show", kShow}, {"buf", kBuf},
    {"strcopy", kStrcopy}, {"storetext", kStoretext}, {"fmt", kFmt},
};

int buttonVariant(const std::string& w) {
  if (w == "tonal") return 1;
  if (w == "outlined") return 2;
  if (w == "flat" || w == "text") return 3;
  if (w == "icon") return 4;
  if (w == "danger") return 5;
  return 0;
}

int easeCode(const std::string& w) {
  static const char* const kEase[] = {"linear", "ease", "easein", "easeout", "easeinout", "decelerate", "accelerate"};
  for (int i = 0; i < 7; ++i)
    if (w == kEase[i]) return i;
  return 1;
}

}  // namespace

void Compiler::ui2Cmd(uint32_t word, int32_t a, int32_t b, int32_t c, int32_t d, int32_t e) {
  const uint32_t base = newSlots(6);
  for (uint32_t i = 0; i < 6; ++i) constI32To(base + i, 0);
  emit(op(Op_mov), base, constI32(word));
  const int32_t fields[5] = {a, b, c, d, e};
  for (uint32_t i = 0; i < 5; ++i)
    if (fields[i] >= 0) emit(op(Op_mov), base + 1 + i, uint32_t(fields[i]));
  emit(op(Op_syscall), 23, newSlot(), base);
}

bool Compiler::ui2Stmt(size_t& li, int32_t indent, std::string& error) {
  const Line& line = lines[li];
  const auto& t = line.tokens;
  if (t.empty() || t[0].kind != kIdent) return false;
  const std::string& w = t[0].text;
  if (t.size() > 1 && ((isOp(line, 1, "(") && functions.count(w)) || isOp(line, 1, "=") || isOp(line, 1, "[")))
    return false;
  int code = -1;
  for (const auto& k : kWords)
    if (w == k.word) code = k.code;
  if (code < 0) return false;
  if (code == 9 && isKind(line, 1, kNumber)) return false;  // the draw statement `text x y ...`

  size_t pos = 1;
  const size_t n = t.size();
  auto c32 = [&](uint32_t v) { return int32_t(constI32(v)); };
  // A number: a constant with a whole value in u32 range loads as such,
  // anything else as an integer slot; what fails to parse is the default.
  auto num = [&](uint32_t def) -> int32_t {
    if (pos >= n) return c32(def);
    if (t[pos].kind == kNumber) return c32(truncU32(t[pos++].number));
    if (t[pos].kind != kIdent && !isOp(line, pos, "(")) return c32(def);
    const size_t save = pos;
    EValue v;
    std::string e;
    if (orExpr(line, pos, v, e) && !v.isString && v.slot >= 0) {
      if (v.isConst && v.constValue == std::trunc(v.constValue) && v.constValue >= 0 && v.constValue <= 4294967295.0)
        return c32(uint32_t(v.constValue));
      uint32_t s;
      if (intSlot(line, v, s, e)) return int32_t(s);
    }
    pos = save;
    return c32(def);
  };
  auto icon = [&]() -> int32_t {
    if (isKind(line, pos, kIdent) && !locals.count(t[pos].text) && !tables.count(t[pos].text))
      return c32(iconId(t[pos++].text));
    return num(0);
  };
  auto word = [&](const char* def) -> std::string { return isKind(line, pos, kIdent) ? t[pos++].text : def; };
  auto str = [&](int32_t& slot) -> bool {
    uint32_t s;
    if (!ui2Str(line, pos, s, error)) return false;
    slot = int32_t(s);
    return true;
  };
  auto leftover = [&]() -> bool {
    if (pos < n) {
      error = at(line) + "unexpected '" + t[pos].text + "' after " + w;
      return false;
    }
    return true;
  };
  auto fail = [&](const char* msg) {
    error = at(line) + msg;
    return false;
  };
  auto bufferAt = [&](size_t p, const char* expected, const char* needsBuf, uint32_t& addr, uint32_t& cap) {
    auto s = isKind(line, p, kIdent) ? stringVars.find(t[p].text) : stringVars.end();
    if (s == stringVars.end()) return fail(expected);
    auto c = bufferCaps.find(s->second.first);
    if (c == bufferCaps.end()) return fail(needsBuf);
    addr = s->second.first;
    cap = c->second;
    return true;
  };

  // Containers: their numbers, the command, the nested block, word 0.
  if (code <= 8 || code == 11 || code == 20 || code == 21 || code == 22 || code == 24 || code == 25) {
    int32_t f[4] = {-1, -1, -1, -1};
    switch (code) {
      case 1: case 2: f[0] = num(8); break;
      case 4: for (int i = 0; i < 4; ++i) f[i] = num(0); break;
      case 6: case 8: f[0] = num(1); break;
      case 7: f[0] = num(0), f[1] = num(0); break;
      case 11: f[0] = num(1), f[1] = num(0); break;
      case 20: f[0] = num(200), f[1] = c32(uint32_t(easeCode(word("ease")))); break;
      case 21: f[0] = num(1), f[1] = num(1); break;
      case 22: f[0] = num(0); break;
      case 24: f[0] = num(0), f[1] = num(12), f[2] = num(0), f[3] = c32(2); break;
      case 25: f[0] = num(0), f[1] = num(0), f[2] = num(0), f[3] = c32(2); break;
      default: break;
    }
    ui2Cmd(uint32_t(code), f[0], f[1], f[2], f[3], -1);
    ++li;
    if (!nestedBlock(li, indent, error)) return false;
    ui2Cmd(0, -1, -1, -1, -1, -1);
    return true;
  }

  int32_t a = -1, b = -1, c = -1, d = -1, e = -1;
  switch (code) {
    case 9: {  // text <string> [style] [number] [number]
      if (!str(a)) return false;
      b = c32(uint32_t(isKind(line, pos, kIdent) ? styleId(t[pos++].text) : 0));
      c = num(0), d = num(0);
      break;
    }
    case 10: {  // button <id> <label> [variant] [style]
      a = num(0);
      if (!str(c)) return false;
      b = c32(uint32_t(buttonVariant(word("filled"))));
      d = c32(uint32_t(isKind(line, pos, kIdent) ? styleId(t[pos++].text) : 0));
      break;
    }
    case 12: {  // listtile <id> <title> [subtitle] [icon]
      a = num(0);
      if (!str(c)) return false;
      if (isKind(line, pos, kString) ||
          (isKind(line, pos, kIdent) && (tables.count(t[pos].text) || stringVars.count(t[pos].text))))
        if (!str(d)) return false;
      b = icon();
      break;
    }
    case 13: {  // switch <id> [state] [label]
      a = num(0);
      if (isKind(line, pos, kIdent)) {
        const std::string& s = t[pos++].text;
        b = c32(s == "on" || s == "true" || s == "yes" ? 1 : 0);
      } else {
        b = num(0);
      }
      if (isKind(line, pos, kString)) {
        uint32_t addr, len;
        stringLit(t[pos++].text, addr, len);
        c = c32(addr);
      }
      break;
    }
    case 14: a = num(0); break;
    case 15: a = icon(), b = num(24), c = num(0); break;
    case 16: a = num(8), b = num(0); break;
    case 18: a = num(0), b = num(0), c = num(0); break;
    case 19: a = num(1000); break;
    case 17: {  // appbar <title> [back [id]] [icon] [id]
      if (!str(b)) return false;
      uint32_t hasBack = 0, backId = 0, iconWord = 0, action = 0;
      bool hasIcon = false;
      if (isKind(line, pos, kIdent) && t[pos].text == "back") {
        ++pos;
        hasBack = 1, backId = 1;
        if (isKind(line, pos, kNumber)) backId = truncU32(t[pos++].number);
      }
      if (isKind(line, pos, kIdent)) iconWord = iconId(t[pos++].text), hasIcon = true;
      if (isKind(line, pos, kNumber)) action = truncU32(t[pos++].number);
      else action = hasIcon ? 2 : 0;
      a = c32(action << 16 | hasBack);
      c = c32(iconWord);
      d = c32(backId);
      break;
    }
    case 23: {  // field <id> <name> <capacity> [hint] [multiline] [password]
      if (!isKind(line, 1, kNumber)) return fail("expected: field <id> <name> <capacity> [hint]");
      if (!isKind(line, 2, kIdent)) return fail("field needs a variable name");
      if (!isKind(line, 3, kNumber)) return fail("field needs a buffer capacity in bytes");
      const double cap = std::trunc(t[3].number);
      if (!(cap >= 2)) return fail("field capacity must leave room for at least one byte and the NUL");
      if (cap > double(kMaxData)) {
        dataOverflow = true;
        return checkData(line, error);
      }
      pos = 4;
      std::string hint;
      bool hasHint = false;
      if (isKind(line, pos, kString)) hint = t[pos++].text, hasHint = true;
      uint32_t flags = 0;
      if (isKind(line, pos, kIdent) && t[pos].text == "multiline") flags |= 1, ++pos;
      if (isKind(line, pos, kIdent) && t[pos].text == "password") flags |= 2, ++pos;
      if (!leftover()) return false;
      const std::vector<uint8_t> zeros(size_t(cap), 0);
      const uint32_t addr = dataBytes(zeros.data(), zeros.size());
      if (hasHint) {
        uint32_t hAddr, hLen;
        stringLit(hint, hAddr, hLen);
        e = c32(hAddr);
      }
      stringVars[t[2].text] = {addr, 0};
      a = c32(truncU32(t[1].number)), b = c32(addr), c = c32(uint32_t(cap)), d = c32(flags);
      break;
    }
    case 26: {  // fab <id> <icon> [small|large] [tonal|outlined] [extended <label>]
      if (!isKind(line, 1, kNumber)) return fail("expected: fab <id> <icon> [small|large] [tonal|outlined]");
      a = c32(truncU32(t[1].number));
      pos = 2;
      uint32_t iconWord = isKind(line, pos, kIdent) ? iconId(t[pos++].text) : 0, size = 56, variant = 0;
      while (isKind(line, pos, kIdent)) {
        const std::string& o = t[pos].text;
        if (o == "small") size = 40;
        else if (o == "large") size = 96;
        else if (o == "tonal") variant = 1;
        else if (o == "outlined") variant = 2;
        else if (o == "extended") {
          ++pos;
          if (!str(e)) return false;
          continue;
        } else break;
        ++pos;
      }
      b = c32(size), c = c32(iconWord), d = c32(variant);
      break;
    }
    case 27: {  // iconbutton <id> <icon> [variant] [size]
      if (!isKind(line, 1, kNumber)) return fail("expected: iconbutton <id> <icon> [variant] [size]");
      a = c32(truncU32(t[1].number));
      pos = 2;
      b = c32(isKind(line, pos, kIdent) ? iconId(t[pos++].text) : 0);
      uint32_t variant = 0;
      if (isKind(line, pos, kIdent)) {
        const std::string& v = t[pos++].text;
        if (v == "filled") variant = 1;
        else if (v == "tonal") variant = 2;
        else if (v == "outlined") variant = 3;
        else return fail(("unknown icon button variant '" + v + "'").c_str());
      }
      c = c32(variant);
      d = c32(isKind(line, pos, kNumber) ? truncU32(t[pos++].number) : 40);
      break;
    }
    case kUi: {  // ui <title> [w] [h]
      int32_t title;
      if (isKind(line, pos, kString)) {
        uint32_t addr, len;
        stringLit(t[pos++].text, addr, len);
        title = c32(addr);
      } else if (!str(title)) {
        return false;
      }
      const int32_t width = num(900), height = num(600);
      if (!leftover()) return false;
      syscallBlock(22, {{false, uint32_t(title)}, {false, uint32_t(width)}, {false, uint32_t(height)},
                        {true, 0}, {true, 0}, {true, 0}});
      ++li;
      return true;
    }
    case kTheme: {
      EValue v;
      if (!orExpr(line, pos, v, error)) return false;
      uint32_t s;
      if (!intSlot(line, v, s, error, "uitheme needs a number: 0 dark, 1 light")) return false;
      if (!leftover()) return false;
      syscallBlock(27, {{false, s}});
      ++li;
      return true;
    }
    case kShow:
      if (!leftover()) return false;
      zeroBlockCall(24, 30);
      ++li;
      return true;
    case kBuf:
      if (!reserveBuf(line, true, error)) return false;
      ++li;
      return true;
    case kStrcopy: {
      uint32_t addr, cap;
      if (!bufferAt(1, "expected: strcopy <buf name> <string>", "strcopy needs a buffer declared with `buf`", addr,
                    cap))
        return false;
      pos = 2;
      if (pos >= n) return fail("expected: strcopy <buf name> <string>");
      int32_t s;
      if (!str(s) || !leftover()) return false;
      syscallBlock(40, {{true, addr}, {true, cap}, {false, uint32_t(s)}});
      ++li;
      return true;
    }
    case kStoretext: {
      const char* expected = "expected: storetext <job> <index> <field> <buf name>";
      std::vector<BlockItem> items;
      for (int i = 0; i < 3; ++i) {
        if (i && isOp(line, pos, ",")) ++pos;
        if (pos >= n) return fail(expected);
        EValue v;
        uint32_t s;
        if (!orExpr(line, pos, v, error) || !intSlot(line, v, s, error)) return false;
        items.push_back({false, s});
      }
      if (isOp(line, pos, ",")) ++pos;
      uint32_t addr, cap;
      if (!bufferAt(pos, expected, "storetext needs a buffer declared with `buf`", addr, cap)) return false;
      ++pos;
      if (!leftover()) return false;
      items.push_back({true, addr});
      items.push_back({true, cap});
      syscallBlock(38, items);
      ++li;
      return true;
    }
    case kFmt: {
      const char* expected = "expected: fmt <buf name> <value> [decimals]";
      uint32_t addr, cap;
      if (!bufferAt(1, expected, "fmt needs a buffer declared with `buf`", addr, cap)) return false;
      pos = 2;
      if (pos >= n) return fail(expected);
      EValue v;
      if (!orExpr(line, pos, v, error)) return false;
      uint32_t s;
      if (!intSlot(line, v, s, error, "fmt needs a number")) return false;
      uint32_t decimals = 0, suffix = 0;
      for (int i = 0; i < 2 && pos < n; ++i) {
        if (t[pos].kind == kNumber) {
          const double dec = std::trunc(t[pos++].number);
          if (!(dec >= 0 && dec <= 3)) return fail("fmt decimals must be 0..3");
          decimals = uint32_t(dec);
        } else if (t[pos].kind == kString) {
          uint32_t len;
          stringLit(t[pos++].text, suffix, len);
        }
      }
      if (!leftover()) return false;
      syscallBlock(29, {{true, addr}, {true, cap}, {false, s}, {true, decimals}, {true, suffix}});
      ++li;
      return true;
    }
    default:
      return false;
  }
  if (!leftover()) return false;
  ui2Cmd(uint32_t(code), a, b, c, d, e);
  ++li;
  return true;
}

}  // namespace tov::zans
