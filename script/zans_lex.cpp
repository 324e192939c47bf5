// Lexer: physical lines joined into logical lines while brackets are open,
// then each logical line cut into number, string, identifier and operator
// tokens, with its indentation.
#include <cstdlib>
#include <cstring>

#include "script/zans_impl.h"

namespace tov::zans {

namespace {

// Searched in this order, first match wins; "-" before "->" means "->"
// always lexes as "-" and ">".
const char* const kOp[] = {"==", "!=", "<=", ">=", "=", "+", "-", "*", "/", "%",
                           "<",  ">",  "(",  ")",  ",", "[", "]", ".", "->"};

// Open minus closed brackets up to a "#"; strings are not known here.
int64_t balanceOf(const char* p, size_t n) {
  int64_t b = 0;
  for (size_t i = 0; i < n; ++i) {
    const char ch = p[i];
    if (ch == '#') break;
    if (ch == '(' || ch == '[') ++b;
    else if (ch == ')' || ch == ']') --b;
  }
  return b;
}

bool isLetter(unsigned char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }
bool isDigit(unsigned char c) { return c >= '0' && c <= '9'; }
int hexValue(unsigned char c) {
  if (isDigit(c)) return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

bool tokenize(const std::string& text, Line& line, std::string& error) {
  size_t i = 0;
  const size_t n = text.size();
  int32_t indent = 0;
  for (; i < n && (text[i] == ' ' || text[i] == '\t'); ++i) indent += text[i] == '\t' ? 4 : 1;
  line.indent = indent;
  while (i < n) {
    const unsigned char c = static_cast<unsigned char>(text[i]);
    if (c == '\t' || c == '\r' || c == ' ') {
      ++i;
      continue;
    }
    if (c == '#') break;
    Token t;
    if (c == '0' && i + 1 < n && (text[i + 1] == 'x' || text[i + 1] == 'X')) {
      uint64_t v = 0;
      i += 2;
      for (int h; i < n && (h = hexValue(static_cast<unsigned char>(text[i]))) >= 0; ++i) v = v << 4 | uint64_t(h);
      t.kind = kNumber;
      t.number = double(v);
    } else if (isDigit(c) || (c == '.' && i + 1 < n && isDigit(static_cast<unsigned char>(text[i + 1])))) {
      const char* start = text.c_str() + i;
      char* end = nullptr;
      t.kind = kNumber;
      t.number = std::strtod(start, &end);
      i += end > start ? size_t(end - start) : 1;
    } else if (c == '"') {
      t.kind = kString;
      ++i;
      bool closed = false;
      while (i < n) {
        char ch = text[i++];
        if (ch == '"') {
          closed = true;
          break;
        }
        if (ch == '\\') {
          if (i >= n) break;
          ch = text[i++];
          if (ch == 'n') ch = '\n';
          else if (ch == 't') ch = '\t';
        }
        t.text.push_back(ch);
      }
      if (!closed) {
        error = Compiler::at(line) + "unterminated string";
        return false;
      }
    } else if (isLetter(c) || c == '_') {
      t.kind = kIdent;
      const size_t start = i;
      while (i < n && (isLetter(static_cast<unsigned char>(text[i])) || isDigit(static_cast<unsigned char>(text[i])) ||
                       text[i] == '_'))
        ++i;
      t.text.assign(text, start, i - start);
    } else {
      const char* op = nullptr;
      for (const char* o : kOp) {
        const size_t len = std::strlen(o);
        if (text.compare(i, len, o) == 0) {
          op = o;
          break;
        }
      }
      if (!op) {
        error = Compiler::at(line) + "unexpected character '" + char(c) + "'";
        return false;
      }
      t.kind = kOperator;
      t.text = op;
      i += t.text.size();
    }
    line.tokens.push_back(std::move(t));
  }
  line.blank = line.tokens.empty();
  return true;
}

}  // namespace

std::string Compiler::at(const Line& line) { return "line " + std::to_string(line.lineNo) + ": "; }

bool Compiler::lex(std::string& error) {
  // Physical lines as [start, end) ranges of the source.
  std::vector<std::pair<size_t, size_t>> phys;
  size_t start = 0;
  for (;;) {
    const size_t nl = source.find('\n', start);
    if (nl == std::string::npos) {
      phys.emplace_back(start, source.size());
      break;
    }
    phys.emplace_back(start, nl);
    start = nl + 1;
  }
  lines.clear();
  for (size_t i = 0; i < phys.size();) {
    Line line;
    line.lineNo = int32_t(i + 1 > 0x7FFFFFFF ? 0x7FFFFFFF : i + 1);
    std::string text = source.substr(phys[i].first, phys[i].second - phys[i].first);
    int64_t balance = balanceOf(text.data(), text.size());
    ++i;
    while (balance >= 1 && i < phys.size()) {
      const size_t len = phys[i].second - phys[i].first;
      if (len > 0) {
        text.push_back(' ');
        text.append(source, phys[i].first, len);
        balance += balanceOf(source.data() + phys[i].first, len);
      }
      ++i;
    }
    if (!tokenize(text, line, error)) return false;
    lines.push_back(std::move(line));
  }
  return true;
}

}  // namespace tov::zans
