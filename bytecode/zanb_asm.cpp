// ZANA text form: assemble and disassemble.
//
// The assembler is line-at-a-time and linear in the size of the text: every
// line is copied once into a reused buffer (so strtoll can never run into
// the next line), and each key search is one pass over that line.
#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <unordered_map>

#include "bytecode/zanb.h"

namespace tov::zanb {

namespace {

// The one whitespace set of tokens(): isspace in the C locale.
bool isSpace(char ch) { return std::isspace(static_cast<unsigned char>(ch)) != 0; }

// Blank-line and line-start tests use only these four.
bool isBlankChar(char ch) { return ch == ' ' || ch == '\t' || ch == '\r' || ch == '\n'; }

bool isDigit(char ch) { return ch >= '0' && ch <= '9'; }

// Up to `max` whitespace-separated words of `line`; stops early so a long
// line of many words costs only what is looked at.
size_t tokens(std::string_view line, std::string_view* out, size_t max) {
  size_t n = 0, i = 0;
  while (n < max) {
    while (i < line.size() && isSpace(line[i])) ++i;
    if (i == line.size()) break;
    size_t start = i;
    while (i < line.size() && !isSpace(line[i])) ++i;
    out[n++] = line.substr(start, i - start);
  }
  return n;
}

// `line` must be the NUL-terminated copy of one line: strtoll stops at its
// end. The key is searched in the whole line, NUL bytes and all.
bool numField64(const std::string& line, const char* key, int64_t& out) {
  size_t at = line.find(key);
  if (at == std::string::npos) return false;
  const char* start = line.c_str() + at + std::strlen(key);
  char* end = nullptr;
  long long v = std::strtoll(start, &end, 0);
  if (end == start) return false;
  out = v;
  return true;
}

// As numField64, narrowed to the low 32 bits ("a=-1" is 0xFFFFFFFF).
bool numField(const std::string& line, const char* key, uint32_t& out) {
  int64_t v;
  if (!numField64(line, key, v)) return false;
  out = uint32_t(uint64_t(v));
  return true;
}

// Unsigned 64-bit field (const bits=, header page counts).
bool numFieldU64(const std::string& line, const char* key, uint64_t& out) {
  size_t at = line.find(key);
  if (at == std::string::npos) return false;
  const char* start = line.c_str() + at + std::strlen(key);
  char* end = nullptr;
  unsigned long long v = std::strtoull(start, &end, 0);
  if (end == start) return false;
  out = v;
  return true;
}

// Opcode by exact name, built once from kOpNames.
int lookupOp(std::string_view word) {
  static const std::unordered_map<std::string_view, uint8_t> table = [] {
    std::unordered_map<std::string_view, uint8_t> t;
    for (uint32_t i = 0; i < kOpCount; ++i) t.emplace(kOpNames[i], uint8_t(i));
    return t;
  }();
  auto it = table.find(word);
  return it == table.end() ? -1 : it->second;
}

int lookupType(std::string_view s) {
  for (uint32_t t = 0; t < 4; ++t)
    if (s == typeName(t)) return int(t);
  return -1;
}

int lookupConv(std::string_view s) {
  for (uint32_t k = 0; k < kConvCount; ++k)
    if (s == kConvNames[k]) return int(k);
  return -1;
}

bool startsWith4(std::string_view s, const char* four) {
  return s.size() >= 4 && std::memcmp(s.data(), four, 4) == 0;
}

// One instruction line of the open function. False with err (no line
// prefix) on failure.
bool assembleInsn(const std::string& line, std::string_view* toks, size_t nt, Insn& insn,
                  std::string& err) {
  size_t i = isDigit(toks[0][0]) ? 1 : 0;  // listing position, not read
  std::string_view mnem = toks[i];
  std::string_view word = mnem;
  int type = -1;
  size_t dot = mnem.find('.');
  if (dot != std::string_view::npos) {
    word = mnem.substr(0, dot);
    std::string_view suffix = mnem.substr(dot + 1);
    type = lookupType(suffix);
    if (type < 0) {
      err = "bad type '" + std::string(suffix) + "'";
      return false;
    }
  }

  insn = Insn{};
  if (word == "const") {
    if (type < 0) {
      err = "const needs a type";
      return false;
    }
    numField(line, "a=", insn.a);
    uint64_t imm;
    if (!numFieldU64(line, "bits=", imm)) {
      // b and c as 64-bit values: a negative b fills the high half too.
      int64_t b = 0, c = 0;
      numField64(line, "b=", b);
      numField64(line, "c=", c);
      imm = (uint64_t(c) << 32) | uint64_t(b);
    }
    insn.opInfo = Op_const | uint32_t(type) << 8;
    insn.b = uint32_t(imm);
    insn.c = uint32_t(imm >> 32);
    return true;
  }
  if (word == "convert") {
    // A suffix on convert is accepted and dropped.
    if (i + 1 >= nt) {
      err = "convert needs a kind";
      return false;
    }
    int kind = lookupConv(toks[i + 1]);
    if (kind < 0) {
      err = "unknown conversion";
      return false;
    }
    insn.opInfo = Op_convert;
    numField(line, "a=", insn.a);
    numField(line, "b=", insn.b);
    insn.c = uint32_t(kind);
    return true;
  }
  int op = lookupOp(word);
  if (op < 0) {
    err = "unknown op '" + std::string(word) + "'";
    return false;
  }
  insn.opInfo = uint32_t(op) | uint32_t(type < 0 ? 0 : type) << 8;
  numField(line, "a=", insn.a);
  numField(line, "b=", insn.b);
  numField(line, "c=", insn.c);
  return true;
}

// Appends one formatted line, cut at 255 bytes like the fixed buffer it is
// printed through.
void appendLine(std::string& out, const char* fmt, ...) {
  char buf[256];
  va_list ap;
  va_start(ap, fmt);
  int n = std::vsnprintf(buf, sizeof buf, fmt, ap);
  va_end(ap);
  if (n <= 0) return;
  out.append(buf, size_t(n) < sizeof buf ? size_t(n) : sizeof buf - 1);
}

}  // namespace

bool assemble(const std::string& text, Module& module, std::string& err) {
  module = Module{};
  Module m;
  std::memcpy(m.header.magic, kMagic, 4);
  m.header.version = kVersion;

  std::string line;  // NUL-terminated copy of the current line
  bool inFunc = false;
  size_t lineNo = 0;
  size_t pos = 0;
  while (pos < text.size()) {
    size_t nl = text.find('\n', pos);
    size_t stop = nl == std::string::npos ? text.size() : nl;
    line.assign(text, pos, stop - pos);
    pos = stop + 1;
    ++lineNo;

    size_t first = 0;
    while (first < line.size() && isBlankChar(line[first])) ++first;
    if (first == line.size()) continue;
    if (line[first] == '#' || line[first] == ';') continue;
    std::string_view rest = std::string_view(line).substr(first);

    auto fail = [&](const std::string& what) {
      err = "line " + std::to_string(lineNo) + ": " + what;
      return false;
    };

    if (startsWith4(rest, "ZANB")) {
      // A field this line lacks keeps what it had: 0, or an earlier header's.
      numField(line, "entry=", m.header.entry);
      numFieldU64(line, "mem=", m.header.memMinPages);
      numFieldU64(line, "..", m.header.memMaxPages);
      continue;
    }

    std::string_view toks[3];
    if (startsWith4(rest, "func")) {
      if (tokens(line, toks, 3) < 3) return fail("bad func line");
      FuncMeta f{};
      f.nameOff = uint32_t(m.names.size());
      f.nameLen = uint32_t(toks[2].size());
      m.names.append(toks[2]);
      numField(line, "params=", f.params);
      numField(line, "rets=", f.rets);
      numField(line, "slots=", f.slots);
      numField(line, "argBase=", f.argBase);
      f.codeStart = uint32_t(m.code.size());
      m.funcs.push_back(f);
      inFunc = true;
      continue;
    }

    // Position, mnemonic and (for convert) the kind: three words at most.
    size_t nt = tokens(line, toks, 3);
    if (nt == 0 || (nt == 1 && isDigit(toks[0][0]))) continue;  // no mnemonic
    if (!inFunc) return fail("instruction outside a func");
    Insn insn;
    std::string what;
    if (!assembleInsn(line, toks, nt, insn, what)) return fail(what);
    m.code.push_back(insn);
    ++m.funcs.back().codeLen;
  }

  if (m.funcs.empty()) {
    err = "no functions in input";
    return false;
  }
  m.header.flags = m.names.empty() ? 0 : 1;
  m.header.funcCount = uint32_t(m.funcs.size());
  m.header.namesSize = uint32_t(m.names.size());
  m.header.codeCount = m.code.size();
  module = std::move(m);
  return true;
}

std::string disassemble(const Module& module) {
  const Header& h = module.header;
  std::string out;
  appendLine(out,
             "ZANB v%u: funcs=%u globals=%u data=%zuB code=%llu insn entry=%u mem=%llu..%llu "
             "pages\n",
             h.version, h.funcCount, h.globalCount, module.data.size(),
             (unsigned long long)h.codeCount, h.entry, (unsigned long long)h.memMinPages,
             (unsigned long long)h.memMaxPages);
  for (size_t fi = 0; fi < module.funcs.size(); ++fi) {
    const FuncMeta& f = module.funcs[fi];
    std::string name = module.name(uint32_t(fi));
    appendLine(out, "func %zu %s params=%u rets=%u slots=%u argBase=%u code=[%u,%u)\n", fi,
               name.c_str(), f.params, f.rets, f.slots, f.argBase, f.codeStart,
               uint32_t(f.codeStart + f.codeLen));
    // Ranges are not trusted: stop at the end of the code array.
    uint64_t end = uint64_t(f.codeStart) + f.codeLen;
    if (end > module.code.size()) end = module.code.size();
    for (uint64_t pc = f.codeStart; pc < end; ++pc) {
      const Insn& in = module.code[pc];
      uint32_t op = in.op();
      uint32_t idx = uint32_t(pc);
      if (op == Op_const)
        appendLine(out, "  %5u  const.%s a=%u bits=0x%llx\n", idx, typeName(in.type()), in.a,
                   (unsigned long long)in.imm());
      else if (op < Op_jmp || op == Op_reinterpret)
        appendLine(out, "  %5u  %s.%s a=%u b=%u c=%u\n", idx, opName(op), typeName(in.type()), in.a,
                   in.b, in.c);
      else if (op == Op_convert)
        appendLine(out, "  %5u  convert %s a=%u b=%u\n", idx, convName(in.c), in.a, in.b);
      else
        appendLine(out, "  %5u  %s a=%u b=%u c=%u\n", idx, opName(op), in.a, in.b, in.c);
    }
  }
  return out;
}

}  // namespace tov::zanb
