// Expressions: recursive descent, one function per precedence level, each
// emitting its instructions as soon as its operands are known. Every
// intermediate value gets a fresh slot; nothing is reused or optimised.
// Built-in words reach the host through numbered system calls.
#include <cmath>
#include <cstring>

#include "script/zans_impl.h"

namespace tov::zans {

using namespace tov::zanb;

namespace {

constexpr uint32_t op(Op o, Type t = kI32) { return uint32_t(o) | (uint32_t(t) << 8); }
constexpr uint32_t kConvI32ToF64 = 7;   // f64.convert_i32_s
constexpr uint32_t kConvF64ToI32 = 15;  // i32.trunc_f64_s

bool isOp(const Line& line, size_t pos, const char* text) {
  return pos < line.tokens.size() && line.tokens[pos].kind == kOperator && line.tokens[pos].text == text;
}
bool isWord(const Line& line, size_t pos, const char* text) {
  return pos < line.tokens.size() && line.tokens[pos].kind == kIdent && line.tokens[pos].text == text;
}

// Decrements a depth counter when the parse level returns.
struct DepthGuard {
  int& depth;
  explicit DepthGuard(int& d) : depth(d) { ++depth; }
  ~DepthGuard() { --depth; }
};

const char* const kNotNumber = "a string cannot be used as a number";

}  // namespace

uint32_t truncU32(double v) {
  if (!std::isfinite(v)) return 0;
  double t = std::fmod(std::trunc(v), 4294967296.0);
  if (t < 0) t += 4294967296.0;
  return uint32_t(t);
}

void Compiler::emit(uint32_t o, uint32_t a, uint32_t b, uint32_t c) {
  // The machine checks the conversion kind of `convert` against the frame
  // size like a slot, so a converting function needs that many slots.
  if ((o & 0xFF) == Op_convert && c + 1 > minSlots) minSlots = c + 1;
  mod.code.push_back(Insn{o, a, b, c});
}

uint32_t Compiler::constI32(uint32_t v) {
  const uint32_t s = newSlot();
  constI32To(s, v);
  return s;
}

void Compiler::constI32To(uint32_t slot, uint32_t v) { emit(op(Op_const, kI32), slot, v, 0); }

uint32_t Compiler::constF64(double v) {
  uint64_t bits;
  std::memcpy(&bits, &v, 8);
  const uint32_t s = newSlot();
  emit(op(Op_const, kF64), s, uint32_t(bits), uint32_t(bits >> 32));
  return s;
}

uint32_t Compiler::dataBytes(const void* bytes, size_t length) {
  const uint32_t addr = kDataBase + uint32_t(mod.data.size());
  if (mod.data.size() + length > kMaxData) {
    dataOverflow = true;
    return addr;
  }
  if (length) mod.data.insert(mod.data.end(), static_cast<const uint8_t*>(bytes),
                              static_cast<const uint8_t*>(bytes) + length);
  return addr;
}

void Compiler::stringLit(const std::string& bytes, uint32_t& addr, uint32_t& len) {
  std::string z = bytes;
  z.push_back('\0');
  addr = dataBytes(z.data(), z.size());
  len = uint32_t(bytes.size());
}

uint32_t Compiler::asF64(const EValue& v) {
  const uint32_t s = newSlot();
  emit(op(Op_convert), s, uint32_t(v.slot), kConvI32ToF64);
  return s;
}

uint32_t Compiler::idxI32(const EValue& v) {
  const uint32_t s = newSlot();
  emit(op(Op_convert), s, uint32_t(v.slot), kConvF64ToI32);
  return s;
}

bool Compiler::numSlot(const Line& line, const EValue& v, uint32_t& slot, std::string& error) {
  if (v.isString || v.slot < 0) {
    error = at(line) + kNotNumber;
    return false;
  }
  slot = v.isInt ? asF64(v) : uint32_t(v.slot);
  return true;
}

bool Compiler::intSlot(const Line& line, const EValue& v, uint32_t& slot, std::string& error,
                       const std::string& stringMsg) {
  if (v.isString || v.slot < 0) {
    error = at(line) + (stringMsg.empty() ? kNotNumber : stringMsg);
    return false;
  }
  slot = v.isInt ? uint32_t(v.slot) : idxI32(v);
  return true;
}

uint32_t Compiler::arrLoad(const EValue& table, uint32_t indexSlot, bool asInt) {
  const uint32_t shift = constI32(table.elemSize == 8 ? 3 : 2);
  const uint32_t off = newSlot();
  emit(op(Op_shl, kI32), off, indexSlot, shift);
  const uint32_t base = constI32(table.arrBase);
  const uint32_t addr = newSlot();
  emit(op(Op_add, kI32), addr, off, base);
  const uint32_t r = newSlot();
  emit(op(Op_load, asInt ? kI32 : kF64), r, addr, 0);
  return r;
}

uint32_t Compiler::syscallBlock(uint32_t number, const std::vector<BlockItem>& items) {
  const uint32_t base = newSlots(uint32_t(items.size()));
  for (size_t i = 0; i < items.size(); ++i) {
    if (items[i].isConst) constI32To(base + uint32_t(i), items[i].v);
    else emit(op(Op_mov), base + uint32_t(i), items[i].v);
  }
  const uint32_t r = newSlot();
  emit(op(Op_syscall), number, r, base);
  return r;
}

uint32_t Compiler::zeroBlockCall(uint32_t number, uint32_t n) {
  return syscallBlock(number, std::vector<BlockItem>(n, BlockItem{true, 0}));
}

bool Compiler::orExpr(const Line& line, size_t& pos, EValue& out, std::string& error) {
  DepthGuard guard(exprDepth);
  if (exprDepth > kMaxExprDepth) {
    error = at(line) + "expression nested too deeply";
    return false;
  }
  if (!andExpr(line, pos, out, error)) return false;
  while (isWord(line, pos, "or")) {
    ++pos;
    EValue r;
    if (!andExpr(line, pos, r, error) || !bitwiseInt(line, Op_or, out, r, error)) return false;
  }
  return true;
}

// `and` and `or` work on the 32-bit integer forms of both sides.
bool Compiler::bitwiseInt(const Line& line, Op opcode, EValue& out, EValue& r, std::string& error) {
  uint32_t ls, rs;
  if (!intSlot(line, out, ls, error) || !intSlot(line, r, rs, error)) return false;
  out = EValue{};
  out.slot = int32_t(newSlot());
  out.isInt = true;
  emit(op(opcode, kI32), uint32_t(out.slot), ls, rs);
  return true;
}

bool Compiler::andExpr(const Line& line, size_t& pos, EValue& out, std::string& error) {
  if (!cmpExpr(line, pos, out, error)) return false;
  while (isWord(line, pos, "and")) {
    ++pos;
    EValue r;
    if (!cmpExpr(line, pos, r, error) || !bitwiseInt(line, Op_and, out, r, error)) return false;
  }
  return true;
}

bool Compiler::cmpExpr(const Line& line, size_t& pos, EValue& out, std::string& error) {
  if (!addExpr(line, pos, out, error)) return false;
  static const struct {
    const char* text;
    Op op;
  } kCmp[] = {{"==", Op_eq}, {"!=", Op_ne}, {"<", Op_lt_s}, {">", Op_gt_s}, {"<=", Op_le_s}, {">=", Op_ge_s}};
  for (;;) {
    const Op* found = nullptr;
    for (const auto& c : kCmp)
      if (isOp(line, pos, c.text)) found = &c.op;
    if (!found) return true;
    ++pos;
    EValue r;
    if (!addExpr(line, pos, r, error)) return false;
    if (out.isString || r.isString) {
      error = at(line) +
              "cannot compare strings: there is no string comparison in the ABI (compare an index, a length or a "
              "numeric field instead)";
      return false;
    }
    uint32_t ls, rs;
    if (!numSlot(line, out, ls, error) || !numSlot(line, r, rs, error)) return false;
    out = EValue{};
    out.slot = int32_t(newSlot());
    out.isInt = true;
    emit(op(*found, kF64), uint32_t(out.slot), ls, rs);
  }
}

bool Compiler::addExpr(const Line& line, size_t& pos, EValue& out, std::string& error) {
  if (!mulExpr(line, pos, out, error)) return false;
  for (;;) {
    Op o;
    if (isOp(line, pos, "+")) o = Op_add;
    else if (isOp(line, pos, "-")) o = Op_sub;
    else return true;
    ++pos;
    EValue r;
    if (!mulExpr(line, pos, r, error)) return false;
    uint32_t ls, rs;
    if (!numSlot(line, out, ls, error) || !numSlot(line, r, rs, error)) return false;
    out = EValue{};
    out.slot = int32_t(newSlot());
    emit(op(o, kF64), uint32_t(out.slot), ls, rs);
  }
}

bool Compiler::mulExpr(const Line& line, size_t& pos, EValue& out, std::string& error) {
  if (!unary(line, pos, out, error)) return false;
  for (;;) {
    Op o;
    if (isOp(line, pos, "*")) o = Op_mul;
    else if (isOp(line, pos, "/")) o = Op_div_s;
    else if (isOp(line, pos, "%")) o = Op_rem_s;
    else return true;
    ++pos;
    EValue r;
    if (!unary(line, pos, r, error)) return false;
    uint32_t ls, rs;
    if (!numSlot(line, out, ls, error) || !numSlot(line, r, rs, error)) return false;
    out = EValue{};
    if (o == Op_rem_s) {
      // The machine's float rem_s gives +0.0; a script's % is the truncated
      // remainder a - trunc(a / b) * b, NaN for a zero divisor.
      const uint32_t q = newSlot(), t = newSlot(), m = newSlot();
      emit(op(Op_div_s, kF64), q, ls, rs);
      emit(op(Op_trunc, kF64), t, q);
      emit(op(Op_mul, kF64), m, t, rs);
      out.slot = int32_t(newSlot());
      emit(op(Op_sub, kF64), uint32_t(out.slot), ls, m);
    } else {
      out.slot = int32_t(newSlot());
      emit(op(o, kF64), uint32_t(out.slot), ls, rs);
    }
  }
}

// The operand of a prefix "-" or "not": a number in slot `s`, the constant 0 in `z`,
// and `out` reset to a fresh result slot.
bool Compiler::prefixOperand(const Line& line, size_t& pos, EValue& v, uint32_t& z, uint32_t& s, EValue& out,
                             std::string& error) {
  if (!unary(line, pos, v, error)) return false;
  if (v.isString || v.slot < 0) {
    error = at(line) + kNotNumber;
    return false;
  }
  z = constF64(0.0);
  if (!numSlot(line, v, s, error)) return false;
  out = EValue{};
  out.slot = int32_t(newSlot());
  return true;
}

bool Compiler::unary(const Line& line, size_t& pos, EValue& out, std::string& error) {
  DepthGuard guard(exprDepth);
  if (exprDepth > kMaxExprDepth) {
    error = at(line) + "expression nested too deeply";
    return false;
  }
  const size_t n = line.tokens.size();
  if (isOp(line, pos, "-")) {
    EValue v;
    uint32_t z, s;
    if (!prefixOperand(line, ++pos, v, z, s, out, error)) return false;
    emit(op(Op_sub, kF64), uint32_t(out.slot), z, s);
    if (v.isConst) {
      out.isConst = true;
      out.constValue = -v.constValue;
    }
    return true;
  }
  if (pos >= n || line.tokens[pos].kind != kIdent) return primary(line, pos, out, error);
  const std::string& w = line.tokens[pos].text;
  if (w == "not") {
    EValue v;
    uint32_t z, s;
    if (!prefixOperand(line, ++pos, v, z, s, out, error)) return false;
    out.isInt = true;
    emit(op(Op_eq, kF64), uint32_t(out.slot), s, z);
    return true;
  }
  if (w == "true" || w == "false") {
    ++pos;
    out = EValue{};
    out.slot = int32_t(constF64(w == "true" ? 1.0 : 0.0));
    return true;
  }
  if ((w == "trunc" || w == "floor" || w == "abs") && isOp(line, pos + 1, "(")) {
    const Op o = w == "trunc" ? Op_trunc : w == "floor" ? Op_floor : Op_abs;
    pos += 2;
    EValue v;
    if (!orExpr(line, pos, v, error)) return false;
    if (isOp(line, pos, ")")) ++pos;
    uint32_t s;
    if (!numSlot(line, v, s, error)) return false;
    out = EValue{};
    out.slot = int32_t(newSlot());
    emit(op(o, kF64), uint32_t(out.slot), s);
    return true;
  }
  if (w == "count" && isOp(line, pos + 1, "(") && pos + 2 < n && line.tokens[pos + 2].kind == kIdent &&
      isOp(line, pos + 3, ")")) {
    auto t = tables.find(line.tokens[pos + 2].text);
    if (t == tables.end()) {
      error = at(line) + "count() needs an array";
      return false;
    }
    pos += 4;
    out = EValue{};
    out.slot = int32_t(constF64(double(t->second.arrCount)));
    out.isConst = true;
    out.constValue = double(t->second.arrCount);
    return true;
  }
  if (isOp(line, pos + 1, "(") && functions.count(w)) return callUser(line, pos, w, out, error);
  return primary(line, pos, out, error);
}

bool Compiler::callUser(const Line& line, size_t& pos, const std::string& name, EValue& out, std::string& error) {
  pos += 2;
  std::vector<uint32_t> args;
  while (pos < line.tokens.size() && !isOp(line, pos, ")")) {
    EValue v;
    if (!orExpr(line, pos, v, error)) return false;
    if (v.isString) {
      error = at(line) + "string arguments are not supported yet";
      return false;
    }
    uint32_t s;
    if (!numSlot(line, v, s, error)) return false;
    args.push_back(s);
    if (isOp(line, pos, ",")) ++pos;
  }
  if (isOp(line, pos, ")")) ++pos;
  const FuncRec& f = funcList[functions[name]];
  if (args.size() != f.params.size()) {
    error = at(line) + name + " expects " + std::to_string(f.params.size()) + " arguments, got " +
            std::to_string(args.size());
    return false;
  }
  const uint32_t base = newSlots(uint32_t(args.empty() ? 1 : args.size()));
  for (size_t i = 0; i < args.size(); ++i) emit(op(Op_mov, kF64), base + uint32_t(i), args[i]);
  out = EValue{};
  out.slot = int32_t(newSlot());
  emit(op(Op_call), uint32_t(out.slot), uint32_t(f.index), base);
  return true;
}

bool Compiler::tableLiteral(const Line& line, size_t& pos, EValue& out, std::string& error) {
  ++pos;
  std::vector<EValue> elems;
  while (pos < line.tokens.size() && !isOp(line, pos, "]")) {
    EValue v;
    if (!orExpr(line, pos, v, error)) return false;
    elems.push_back(v);
    if (isOp(line, pos, ",")) ++pos;
  }
  if (isOp(line, pos, "]")) ++pos;
  if (elems.empty()) {
    error = at(line) + "empty arrays are not supported";
    return false;
  }
  for (const EValue& e : elems)
    if (e.isString != elems[0].isString) {
      error = at(line) + "array elements must share a type";
      return false;
    }
  std::vector<uint8_t> bytes;
  out = EValue{};
  if (elems[0].isString) {
    // Run-time strings have no address to store; they count as 0.
    for (const EValue& e : elems)
      for (int i = 0; i < 4; ++i) bytes.push_back(uint8_t(e.strAddr >> (8 * i)));
    out.elemSize = 4;
    out.elemIsString = true;
  } else {
    for (const EValue& e : elems) {
      if (e.isInt) {
        error = at(line) + "array elements must be plain numbers";
        return false;
      }
      if (!e.isConst) {
        error = at(line) + "array elements must be numeric literals";
        return false;
      }
      uint64_t b;
      std::memcpy(&b, &e.constValue, 8);
      for (int i = 0; i < 8; ++i) bytes.push_back(uint8_t(b >> (8 * i)));
    }
    out.elemSize = 8;
  }
  out.isArray = true;
  out.arrBase = dataBytes(bytes.data(), bytes.size());
  out.arrCount = uint32_t(elems.size());
  out.slot = int32_t(constI32(out.arrBase));
  out.isInt = true;
  return true;
}

bool Compiler::ui2Str(const Line& line, size_t& pos, uint32_t& outSlot, std::string& error) {
  const size_t save = pos;
  EValue v;
  if (!orExpr(line, pos, v, error)) return false;
  if (!v.isString) {
    pos = save;
    error = at(line) + "expected a string";
    return false;
  }
  outSlot = v.strSlot >= 0 ? uint32_t(v.strSlot) : constI32(v.strAddr);
  return true;
}

bool Compiler::primary(const Line& line, size_t& pos, EValue& out, std::string& error) {
  out = EValue{};
  if (pos >= line.tokens.size()) {
    error = at(line) + "expression expected";
    return false;
  }
  const Token& t = line.tokens[pos];
  switch (t.kind) {
    case kNumber:
      ++pos;
      out.slot = int32_t(constF64(t.number));
      out.isConst = true;
      out.constValue = t.number;
      return true;
    case kString:
      ++pos;
      out.isString = true;
      stringLit(t.text, out.strAddr, out.strLen);
      return true;
    case kOperator:
      if (t.text == "(") {
        ++pos;
        if (!orExpr(line, pos, out, error)) return false;
        if (isOp(line, pos, ")")) ++pos;
        return true;
      }
      if (t.text == "[") return tableLiteral(line, pos, out, error);
      error = at(line) + "unexpected token";
      return false;
    default:
      break;
  }
  const std::string name = t.text;
  bool handled = false;
  const bool ok = builtin(line, pos, name, out, error, handled);
  if (handled) return ok;
  out = EValue{};
  if (auto s = stringConsts.find(name); s != stringConsts.end()) {
    ++pos;
    out.isString = true;
    out.strAddr = s->second.first;
    out.strLen = s->second.second;
    return true;
  }
  if (auto c = numberConsts.find(name); c != numberConsts.end()) {
    ++pos;
    out.slot = int32_t(constF64(c->second));
    out.isConst = true;
    out.constValue = c->second;
    return true;
  }
  if (auto s = stringVars.find(name); s != stringVars.end()) {
    ++pos;
    out.isString = true;
    out.strSlot = int32_t(constI32(s->second.first));
    out.strAddr = s->second.first;  // known here; `let` binds it
    out.strLen = s->second.second;
    return true;
  }
  if (auto tb = tables.find(name); tb != tables.end()) {
    const EValue table = tb->second;
    ++pos;
    if (isOp(line, pos, "[")) {
      ++pos;
      EValue idx;
      if (!orExpr(line, pos, idx, error)) return false;
      if (isOp(line, pos, "]")) ++pos;
      uint32_t is;
      if (!intSlot(line, idx, is, error)) return false;
      const uint32_t r = arrLoad(table, is, table.elemIsString);
      if (table.elemIsString) {
        out.isString = true;
        out.strSlot = int32_t(r);
      } else {
        out.slot = int32_t(r);
      }
      return true;
    }
    out = table;
    out.slot = int32_t(constI32(table.arrBase));
    out.isInt = true;
    return true;
  }
  if (auto l = locals.find(name); l != locals.end()) {
    ++pos;
    out.slot = l->second;
    out.isInt = intLocals.count(name) > 0;
    return true;
  }
  error = at(line) + "unknown variable '" + name + "'";
  return false;
}

bool Compiler::isBuffer(const std::string& name) const {
  auto s = stringVars.find(name);
  return s != stringVars.end() && bufferCaps.count(s->second.first);
}

namespace {

// Calls with arguments. Kinds: S string, s optional string (0 when none),
// I integer, B buffer (address and capacity), Z the constant 0, T a style
// word.
struct CallRow {
  const char* word;
  uint32_t number;
  const char* kinds;
  const char* expected;   // B or T missing
  const char* needsBuf;   // B names a string without a capacity
  const char* stringMsg;  // I given a string
};

const CallRow kCalls[] = {
    {"strfind", 26, "SS", "", "", ""},
    {"appinstalled", 45, "S", "", "", ""},
    {"appinstall", 43, "S", "", "", ""},
    {"appopen", 44, "S", "", "", ""},
    {"installstart", 41, "S", "", "", ""},
    {"installoutput", 42, "IB", "expected: installoutput(<job>, <buf name>)",
     "installoutput needs a buffer declared with `buf`", ""},
    {"scrollpos", 55, "I", "", "", ""},
    {"imgload", 52, "S", "", "", ""},
    {"imgstate", 53, "IZ", "", "", ""},
    {"imgid", 54, "II", "", "", ""},
    {"datawrite", 50, "SS", "", "", ""},
    {"dataread", 51, "SB", "expected: dataread(<name>, <buf name>)", "dataread needs a buffer declared with `buf`",
     ""},
    {"textw", 49, "ST", "expected: textw(<string>, <style>)", "", ""},
    {"storereport", 47, "IB", "expected: storereport(<job>, <buf name>)",
     "storereport needs a buffer declared with `buf`", ""},
    {"fetchthreads", 48, "I", "", "", ""},
    {"fetchfile", 46, "IB", "expected: fetchfile(<job>, <buf name>)", "fetchfile needs a buffer declared with `buf`",
     ""},
    {"storeload", 35, "s", "", "", ""},
    {"storestate", 36, "I", "", "", ""},
    {"storecount", 37, "I", "", "", ""},
    {"storenum", 39, "III", "", "", ""},
    {"fetchstart", 30, "SS", "", "", ""},
    {"fetchstate", 31, "I", "", "", "fetchstate needs a job id"},
    {"fetchgot", 32, "I", "", "", "fetchgot needs a job id"},
    {"fetchtotal", 33, "I", "", "", "fetchtotal needs a job id"},
    {"fetchcancel", 34, "I", "", "", "fetchcancel needs a job id"},
    {"tcol", 28, "I", "", "", "tcol needs a colour role number"},
    {"themeColor", 28, "I", "", "", "tcol needs a colour role number"},
};

struct NoArgRow {
  const char* word;
  uint32_t number;
  uint32_t block;
};
const NoArgRow kNoArg[] = {{"show", 24, 30}, {"poll", 18, 6}, {"mousex", 20, 6}, {"mousey", 21, 6}, {"pump", 11, 6}};

struct ResultRow {
  const char* word;
  uint32_t id;
};
const ResultRow kResultWords[] = {{"submitted", 16}, {"caret", 17}, {"uiw", 27},     {"uiwidth", 27},
                                  {"uih", 28},       {"uiheight", 28}, {"uiScale", 29}, {"uiscale", 29}};

}  // namespace

int32_t styleId(const std::string& w) {
  static const struct {
    const char* name;
    int32_t id;
  } kStyles[] = {{"small", 1}, {"label", 2},    {"labelsmall", 3}, {"label_small", 3}, {"title", 4},
                 {"big", 5},   {"headline", 6}, {"display", 7},    {"mono", 8}};
  for (const auto& s : kStyles)
    if (w == s.name) return s.id;
  return 0;
}

bool Compiler::builtin(const Line& line, size_t& pos, const std::string& word, EValue& out, std::string& error,
                       bool& handled) {
  handled = true;
  out = EValue{};
  out.isInt = true;
  for (const NoArgRow& r : kNoArg)
    if (word == r.word) {
      ++pos;
      out.slot = int32_t(zeroBlockCall(r.number, r.block));
      return true;
    }
  for (const ResultRow& r : kResultWords)
    if (word == r.word) {
      ++pos;
      if (isOp(line, pos, "(")) ++pos;
      if (isOp(line, pos, ")")) ++pos;
      const uint32_t w = syscallBlock(25, {{true, r.id}});
      if (r.id != 29) {
        out.slot = int32_t(w);
        return true;
      }
      // The host gives the scale in thousandths.
      const uint32_t f = newSlot();
      emit(op(Op_convert), f, w, kConvI32ToF64);
      const uint32_t k = constF64(1000.0);
      out.isInt = false;
      out.slot = int32_t(newSlot());
      emit(op(Op_div_s, kF64), uint32_t(out.slot), f, k);
      return true;
    }
  if (word == "fieldlen") {
    ++pos;
    if (isOp(line, pos, "(")) ++pos;
    if (pos >= line.tokens.size() || line.tokens[pos].kind != kNumber) {
      EValue v;
      if (!orExpr(line, pos, v, error)) return false;
      error = at(line) + "fieldlen needs a literal field id";
      return false;
    }
    const double id = std::trunc(line.tokens[pos].number);
    ++pos;
    if (!(id >= 1 && id <= 8)) {
      error = at(line) + "fieldlen: the id must be between 1 and 8 (ids are small)";
      return false;
    }
    if (isOp(line, pos, ")")) ++pos;
    out.slot = int32_t(syscallBlock(25, {{true, 18 + uint32_t(id)}}));
    return true;
  }
  const CallRow* row = nullptr;
  for (const CallRow& r : kCalls)
    if (word == r.word) row = &r;
  if (!row) {
    handled = false;
    return false;
  }
  ++pos;
  if (isOp(line, pos, "(")) ++pos;
  std::vector<BlockItem> items;
  for (const char* k = row->kinds; *k; ++k) {
    if (k != row->kinds && isOp(line, pos, ",")) ++pos;
    switch (*k) {
      case 's':
        if (pos >= line.tokens.size() || isOp(line, pos, ")")) {
          items.push_back({true, 0});
          break;
        }
        [[fallthrough]];
      case 'S': {
        uint32_t s;
        if (!ui2Str(line, pos, s, error)) return false;
        items.push_back({false, s});
        break;
      }
      case 'I': {
        EValue v;
        if (!orExpr(line, pos, v, error)) return false;
        uint32_t s;
        if (!intSlot(line, v, s, error, row->stringMsg)) return false;
        items.push_back({false, s});
        break;
      }
      case 'Z':
        items.push_back({true, 0});
        break;
      case 'T': {
        if (pos >= line.tokens.size() || line.tokens[pos].kind != kIdent) {
          error = at(line) + row->expected;
          return false;
        }
        items.push_back({true, uint32_t(styleId(line.tokens[pos++].text))});
        break;
      }
      case 'B': {
        auto s = pos < line.tokens.size() && line.tokens[pos].kind == kIdent ? stringVars.find(line.tokens[pos].text)
                                                                             : stringVars.end();
        if (s == stringVars.end()) {
          error = at(line) + row->expected;
          return false;
        }
        auto cap = bufferCaps.find(s->second.first);
        if (cap == bufferCaps.end()) {
          error = at(line) + row->needsBuf;
          return false;
        }
        ++pos;
        items.push_back({true, s->second.first});
        items.push_back({true, cap->second});
        break;
      }
    }
  }
  if (isOp(line, pos, ")")) ++pos;
  out.slot = int32_t(syscallBlock(row->number, items));
  return true;
}

}  // namespace tov::zans
