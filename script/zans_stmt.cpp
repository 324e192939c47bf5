// Statements and program layout: the function scan, module-level `let` and
// `buf`, function bodies by emitBlock/emitStmt with control flow lowered to
// jz/jmp at absolute targets, draw statements, and the finished Module.
#include <algorithm>
#include <cmath>
#include <cstring>

#include "script/zans_impl.h"

namespace tov::zans {

using namespace tov::zanb;

namespace {

constexpr uint32_t op(Op o, Type t = kI32) { return uint32_t(o) | (uint32_t(t) << 8); }
constexpr uint32_t kNoValue = 0xFFFFFFFF;

bool isOp(const Line& line, size_t pos, const char* text) {
  return pos < line.tokens.size() && line.tokens[pos].kind == kOperator && line.tokens[pos].text == text;
}
bool isWord(const Line& line, size_t pos, const char* text) {
  return pos < line.tokens.size() && line.tokens[pos].kind == kIdent && line.tokens[pos].text == text;
}

struct DrawRow {
  const char* word;
  uint32_t number;
};
const DrawRow kDraw[] = {{"win", 10},    {"clear", 13}, {"rect", 14},    {"line", 15},
                         {"circle", 16}, {"text", 17},  {"present", 12}, {"sleep", 19}};

}  // namespace

bool Compiler::checkData(const Line& line, std::string& error) {
  if (dataOverflow) {
    error = at(line) + "the program's data would exceed " + std::to_string(kMaxData) + " bytes";
    return false;
  }
  if (nextSlot > kMaxSlots) {
    error = at(line) + "the function needs more than " + std::to_string(kMaxSlots) + " slots";
    return false;
  }
  return true;
}

bool Compiler::reserveBuf(const Line& line, bool inFunction, std::string& error) {
  const auto& t = line.tokens;
  if (t.size() < 2 || t[1].kind != kIdent || (!inFunction && (t.size() < 3 || t[2].kind != kNumber))) {
    error = at(line) + "expected: buf <name> <capacity>";
    return false;
  }
  if (t.size() < 3 || t[2].kind != kNumber) {
    error = at(line) + "buf needs a capacity in bytes";
    return false;
  }
  const double cap = std::trunc(t[2].number);
  if (!(cap >= 2 && cap <= 4096)) {
    error = at(line) + "buf capacity must be 2..4096 bytes";
    return false;
  }
  const std::vector<uint8_t> zeros(size_t(cap), 0);
  const uint32_t addr = dataBytes(zeros.data(), zeros.size());
  stringVars[t[1].text] = {addr, 0};
  bufferCaps[addr] = uint32_t(cap);
  return checkData(line, error);
}

bool Compiler::emitBlock(size_t& li, int32_t indent, std::string& error) {
  ++blockDepth;
  struct Leave {
    int& d;
    ~Leave() { --d; }
  } leave{blockDepth};
  if (blockDepth > kMaxBlockDepth) {
    error = at(lines[li]) + "blocks nested too deeply";
    return false;
  }
  for (;;) {
    while (li < lines.size() && lines[li].blank) ++li;
    if (li >= lines.size() || lines[li].indent < indent) return true;
    if (lines[li].indent > indent) {
      error = at(lines[li]) + "unexpected indentation";
      return false;
    }
    if (!emitStmt(li, indent, error)) return false;
  }
}

bool Compiler::nestedBlock(size_t& li, int32_t indent, std::string& error) {
  size_t j = li;
  while (j < lines.size() && lines[j].blank) ++j;
  if (j < lines.size() && lines[j].indent > indent) {
    li = j;
    return emitBlock(li, lines[j].indent, error);
  }
  return true;
}

bool Compiler::drawStmt(const Line& line, std::string& error) {
  const std::string& w = line.tokens[0].text;
  uint32_t number = 0;
  for (const DrawRow& r : kDraw)
    if (w == r.word) number = r.number;
  const uint32_t base = newSlots(6);
  for (uint32_t i = 0; i < 6; ++i) constI32To(base + i, 0);
  uint32_t n = 0;
  size_t pos = 1;
  while (pos < line.tokens.size()) {
    const Token& t = line.tokens[pos];
    if (w == "win" && n == 0) {
      if (t.kind != kString) {
        error = at(line) + "win needs a title string";
        return false;
      }
      uint32_t addr, len;
      stringLit(t.text, addr, len);
      constI32To(base, addr);
      constI32To(base + 1, len);
      n = 2;
      ++pos;
      continue;
    }
    if (w == "text" && n == 2) {
      if (t.kind == kNumber) {
        error = at(line) + "text needs a string";
        return false;
      }
      auto sv = t.kind == kIdent ? stringVars.find(t.text) : stringVars.end();
      if (t.kind == kString || sv != stringVars.end()) {
        uint32_t addr, len;
        if (t.kind == kString) stringLit(t.text, addr, len);
        else addr = sv->second.first, len = sv->second.second;
        constI32To(base + 2, addr);
        constI32To(base + 3, len);
        ++pos;
      } else {
        EValue v;
        if (!orExpr(line, pos, v, error)) return false;
        if (v.isString && v.strSlot < 0) {
          constI32To(base + 2, v.strAddr);
          constI32To(base + 3, v.strLen);
        } else if (v.isString) {
          emit(op(Op_mov), base + 2, uint32_t(v.strSlot));
        } else {
          uint32_t s;
          if (!intSlot(line, v, s, error)) return false;
          emit(op(Op_mov), base + 2, s);
        }
      }
      n = 4;
      continue;
    }
    if (t.kind == kNumber) {
      if (n > 5) {
        error = at(line) + "too many arguments";
        return false;
      }
      constI32To(base + n, truncU32(t.number));
      ++n;
      ++pos;
      continue;
    }
    EValue v;
    if (!orExpr(line, pos, v, error)) return false;
    if (v.isString) {
      error = at(line) + "unexpected string argument";
      return false;
    }
    if (n > 5) {
      error = at(line) + "too many arguments";
      return false;
    }
    uint32_t s;
    if (!intSlot(line, v, s, error)) return false;
    emit(op(Op_mov), base + n, s);
    ++n;
  }
  if (w == "win" && n < 5) constI32To(base + 4, 1);
  const uint32_t r = newSlot();
  emit(op(Op_syscall), number, r, base);
  return true;
}

bool Compiler::emitStmt(size_t& li, int32_t indent, std::string& error) {
  const Line& line = lines[li];
  const auto& t = line.tokens;
  {
    std::string e;
    if (ui2Stmt(li, indent, e)) return checkData(line, error);
    if (!e.empty()) {
      error = e;
      return false;
    }
  }
  const std::string w = t[0].kind == kIdent ? t[0].text : std::string();
  // `text = 1` and `line[0] = 2` are assignments, whatever the word.
  const bool assigns = t.size() > 1 && (isOp(line, 1, "=") || isOp(line, 1, "["));
  for (const DrawRow& r : kDraw)
    if (w == r.word && !assigns) {
      ++li;
      return drawStmt(line, error) && checkData(line, error);
    }
  size_t pos = 1;
  if (w == "let") {
    if (t.size() < 4 || t[1].kind != kIdent || !isOp(line, 2, "=")) {
      error = at(line) + "expected: let name = value";
      return false;
    }
    const std::string& name = t[1].text;
    if (tables.count(name)) {
      error = at(line) + "'" + name + "' is already a module-level table; a local of the same name would leave '" +
              name + "' and '" + name + "[...]' meaning different things -- rename one of them";
      return false;
    }
    pos = 3;
    EValue v;
    if (!orExpr(line, pos, v, error)) return false;
    if (v.isString) {
      if (v.strAddr == 0) {
        error = at(line) + "let cannot bind a string that is only known at run time";
        return false;
      }
      stringVars[name] = {v.strAddr, v.strLen};
    } else if (v.isArray) {
      tables[name] = v;
      locals[name] = v.slot;
      intLocals.insert(name);
    } else {
      const uint32_t s = newSlot();
      emit(op(Op_mov, v.isInt ? kI32 : kF64), s, uint32_t(v.slot));
      locals[name] = int32_t(s);
      if (v.isInt) intLocals.insert(name);
      else intLocals.erase(name);
    }
  } else if (w == "print") {
    uint32_t addr = 0, len = 0;
    int32_t runSlot = -1;
    if (t.size() > 1 && t[1].kind == kString) {
      stringLit(t[1].text, addr, len);
    } else {
      EValue v;
      if (t.size() >= 2 && !orExpr(line, pos, v, error)) return false;
      if (!v.isString) {
        error = at(line) + "print needs a string";
        return false;
      }
      addr = v.strAddr, len = v.strLen, runSlot = v.strSlot;
    }
    const uint32_t b = newSlots(4);
    constI32To(b, 1);
    if (runSlot >= 0) {
      emit(op(Op_mov), b + 1, uint32_t(runSlot));
      constI32To(b + 2, 0);
    } else {
      constI32To(b + 1, addr);
      constI32To(b + 2, len);
    }
    emit(op(Op_syscall), 1, b + 3, b);
    uint32_t nlAddr, nlLen;
    stringLit("\n", nlAddr, nlLen);
    const uint32_t b2 = newSlots(4);
    constI32To(b2, 1);
    constI32To(b2 + 1, nlAddr);
    constI32To(b2 + 2, nlLen);
    emit(op(Op_syscall), 1, b2 + 3, b2);
  } else if (w == "return") {
    if (t.size() == 1) {
      emit(op(Op_ret), kNoValue);
    } else {
      EValue v;
      if (!orExpr(line, pos, v, error)) return false;
      if (v.isString) {
        const uint32_t s = newSlot();
        if (v.strSlot >= 0) emit(op(Op_mov), s, uint32_t(v.strSlot));
        else constI32To(s, v.strAddr);
        emit(op(Op_ret), s);
      } else {
        // Results are numbers: an integer is widened here, not reinterpreted.
        uint32_t s;
        if (!numSlot(line, v, s, error)) return false;
        emit(op(Op_ret), s);
      }
    }
  } else if (w == "exit") {
    if (t.size() == 1) {
      error = at(line) + "exit needs a value";
      return false;
    }
    EValue v;
    if (!orExpr(line, pos, v, error)) return false;
    uint32_t s;
    if (!intSlot(line, v, s, error)) return false;
    const uint32_t a = newSlot();
    emit(op(Op_mov), a, s);
    const uint32_t r = newSlot();
    emit(op(Op_syscall), 0, r, a);
  } else if (w == "if" || w == "while") {
    const uint32_t head = uint32_t(mod.code.size());
    EValue v;
    if (!orExpr(line, pos, v, error)) return false;
    uint32_t c;
    if (!intSlot(line, v, c, error)) return false;
    const size_t jz = mod.code.size();
    emit(op(Op_jz), 0, c);
    ++li;
    if (!nestedBlock(li, indent, error)) return false;
    if (w == "while") {
      emit(op(Op_jmp), head);
      mod.code[jz].a = uint32_t(mod.code.size());
      return checkData(line, error);
    }
    size_t j = li;
    while (j < lines.size() && lines[j].blank) ++j;
    if (j < lines.size() && lines[j].indent == indent && isWord(lines[j], 0, "else")) {
      const size_t jmp = mod.code.size();
      emit(op(Op_jmp), 0);
      mod.code[jz].a = uint32_t(mod.code.size());
      li = j + 1;
      if (!nestedBlock(li, indent, error)) return false;
      mod.code[jmp].a = uint32_t(mod.code.size());
    } else {
      mod.code[jz].a = uint32_t(mod.code.size());
    }
    return checkData(line, error);
  } else if (w == "loop") {
    if (t.size() < 6 || t[1].kind != kIdent || !isWord(line, 2, "from") || !isWord(line, 4, "to")) {
      error = at(line) + "expected: loop i from a to b";
      return false;
    }
    EValue a, b;
    pos = 3;
    if (!orExpr(line, pos, a, error)) return false;
    pos = 5;
    if (!orExpr(line, pos, b, error)) return false;
    const uint32_t i = newSlot();
    locals[t[1].text] = int32_t(i);
    intLocals.erase(t[1].text);
    uint32_t as;
    if (!numSlot(line, a, as, error)) return false;
    emit(op(Op_mov, kF64), i, as);
    const uint32_t head = uint32_t(mod.code.size());
    uint32_t bs;
    if (!numSlot(line, b, bs, error)) return false;
    const uint32_t c = newSlot();
    emit(op(Op_lt_s, kF64), c, i, bs);
    const size_t jz = mod.code.size();
    emit(op(Op_jz), 0, c);
    ++li;
    if (!nestedBlock(li, indent, error)) return false;
    const uint32_t one = constF64(1.0);
    emit(op(Op_add, kF64), i, i, one);
    emit(op(Op_jmp), head);
    mod.code[jz].a = uint32_t(mod.code.size());
    return checkData(line, error);
  } else if (w == "func") {
    // A nested function is compiled on its own; its body is no part of
    // this one.
    ++li;
    while (li < lines.size() && (lines[li].blank || lines[li].indent > indent)) ++li;
    return true;
  } else if (!w.empty() && t.size() > 1 && isOp(line, 1, "=")) {
    auto l = locals.find(w);
    if (l == locals.end()) {
      error = at(line) + "unknown variable '" + w + "'";
      return false;
    }
    const uint32_t target = uint32_t(l->second);
    const bool isInt = intLocals.count(w) > 0;
    pos = 2;
    EValue v;
    if (!orExpr(line, pos, v, error)) return false;
    if (v.isString) {
      error = at(line) + "cannot assign a string literal";
      return false;
    }
    uint32_t s;
    if (isInt ? !intSlot(line, v, s, error) : !numSlot(line, v, s, error)) return false;
    emit(op(Op_mov, isInt ? kI32 : kF64), target, s);
  } else if (!w.empty() && t.size() > 1 && isOp(line, 1, "[")) {
    auto tb = tables.find(w);
    if (tb == tables.end()) {
      error = at(line) + "'" + w + "' is not an array";
      return false;
    }
    const EValue table = tb->second;
    if (table.elemIsString) {
      error = at(line) + "cannot assign string elements yet";
      return false;
    }
    pos = 2;
    EValue idx, v;
    if (!orExpr(line, pos, idx, error)) return false;
    if (!isOp(line, pos, "]") || !isOp(line, pos + 1, "=")) {
      error = at(line) + "expected = after the index";
      return false;
    }
    pos += 2;
    if (!orExpr(line, pos, v, error)) return false;
    const uint32_t shift = constI32(table.elemSize == 8 ? 3 : 2);
    uint32_t is, vs;
    if (!intSlot(line, idx, is, error)) return false;
    const uint32_t off = newSlot();
    emit(op(Op_shl, kI32), off, is, shift);
    const uint32_t base = constI32(table.arrBase);
    const uint32_t addr = newSlot();
    emit(op(Op_add, kI32), addr, off, base);
    if (!numSlot(line, v, vs, error)) return false;
    emit(op(Op_store, kF64), addr, vs, 0);
  } else if (!w.empty()) {
    pos = 0;
    EValue v;
    if (!orExpr(line, pos, v, error)) return false;
  } else {
    error = at(line) + "cannot parse statement";
    return false;
  }
  ++li;
  return checkData(line, error);
}

bool Compiler::compileAll(std::string& error) {
  // Function scan, at any indentation.
  for (size_t i = 0; i < lines.size(); ++i) {
    const Line& line = lines[i];
    if (line.blank || line.tokens.size() < 2 || !isWord(line, 0, "func")) continue;
    if (line.tokens[1].kind != kIdent) {
      error = at(line) + "func needs a name";
      return false;
    }
    FuncRec f;
    f.name = line.tokens[1].text;
    f.funcLine = i;
    f.bodyLine = i + 1;
    if (line.tokens.size() > 2) {
      if (!isOp(line, 2, "(")) {
        error = at(line) + "expected ( after the name";
        return false;
      }
      for (size_t p = 3; p < line.tokens.size(); ++p) {
        const Token& t = line.tokens[p];
        if (isOp(line, p, ",")) continue;
        if (isOp(line, p, ")")) break;
        if (t.kind != kIdent) {
          error = at(line) + "bad parameter";
          return false;
        }
        f.params.push_back(t.text);
      }
    }
    funcList.push_back(std::move(f));
  }
  if (funcList.empty()) {
    error = "no func in the source";
    return false;
  }
  for (size_t i = 1; i < funcList.size(); ++i)
    if (funcList[i].name == "main") {
      std::swap(funcList[0], funcList[i]);
      break;
    }
  for (size_t i = 0; i < funcList.size(); ++i) {
    funcList[i].index = int32_t(i);
    functions[funcList[i].name] = i;
  }

  // Module-level scan: constants, tables, strings and buffers; any other
  // line is skipped, and nothing here runs.
  for (size_t i = 0; i < lines.size();) {
    const Line& line = lines[i];
    if (line.blank || line.tokens.size() < 2 || line.tokens[0].kind != kIdent) {
      ++i;
      continue;
    }
    const std::string& w = line.tokens[0].text;
    if (w == "func") {
      for (++i; i < lines.size() && (lines[i].blank || lines[i].indent > line.indent);) ++i;
      continue;
    }
    if (w == "buf") {
      if (!reserveBuf(line, false, error)) return false;
    } else if (w == "let" && line.tokens.size() >= 4 && line.tokens[1].kind == kIdent && isOp(line, 2, "=")) {
      size_t pos = 3;
      EValue v;
      if (!orExpr(line, pos, v, error)) return false;
      const std::string& name = line.tokens[1].text;
      if (v.isArray) tables[name] = v;
      else if (v.isString) stringConsts[name] = {v.strAddr, v.strLen};
      else if (v.isConst) numberConsts[name] = v.constValue;
      nextSlot = 0;
      if (!checkData(line, error)) return false;
    }
    ++i;
  }
  mod.code.clear();

  for (const FuncRec& f : funcList) {
    FuncMeta meta{};
    meta.nameOff = uint32_t(mod.names.size());
    meta.nameLen = uint32_t(f.name.size());
    mod.names += f.name;
    locals.clear();
    intLocals.clear();
    for (size_t i = 0; i < f.params.size(); ++i) locals[f.params[i]] = int32_t(i);
    nextSlot = uint32_t(f.params.size());
    minSlots = 0;
    meta.codeStart = uint32_t(mod.code.size());
    size_t li = f.bodyLine;
    while (li < lines.size() && lines[li].blank) ++li;
    const int32_t funcIndent = lines[f.funcLine].indent;
    if (li < lines.size() && lines[li].indent > funcIndent) {
      if (!emitBlock(li, lines[li].indent, error)) return false;
      while (li < lines.size() && lines[li].blank) ++li;
      // Back to an indentation that no block of this function opened.
      if (li < lines.size() && lines[li].indent > funcIndent) {
        error = at(lines[li]) + "unexpected indentation";
        return false;
      }
    }
    emit(op(Op_ret), kNoValue);
    meta.params = uint32_t(f.params.size());
    meta.rets = 1;
    uint32_t slots = std::max(nextSlot + 8, meta.params + 1);
    meta.slots = std::max(slots, minSlots);
    meta.argBase = 0;
    meta.codeLen = uint32_t(mod.code.size()) - meta.codeStart;
    mod.funcs.push_back(meta);
  }

  Header& h = mod.header;
  std::memcpy(h.magic, kMagic, 4);
  h.version = kVersion;
  h.flags = mod.names.empty() ? 0 : 1;
  h.entry = 0;
  h.funcCount = uint32_t(mod.funcs.size());
  h.globalCount = 0;
  h.namesSize = uint32_t(mod.names.size());
  h.codeCount = mod.code.size();
  const uint64_t dataSize = mod.data.size();
  h.memMinPages = h.memMaxPages = (dataSize + kDataBase + 65535) / 65536;
  if (dataSize) mod.dataSegs.push_back(DataSeg{kDataBase, dataSize, 0});
  h.dataSegCount = uint32_t(mod.dataSegs.size());
  return true;
}

bool compile(const std::string& source, zanb::Module& out, std::string& error) {
  out = zanb::Module{};
  error.clear();
  Compiler c(source, out);
  if (!c.lex(error) || !c.compileAll(error)) {
    out = zanb::Module{};
    return false;
  }
  return true;
}

}  // namespace tov::zans
