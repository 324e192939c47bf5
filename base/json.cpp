#include "base/json.h"

#include <cctype>
#include <cstdlib>
#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace tov::json {

const std::string Value::kEmpty;

const Value* Value::get(const char* key) const {
  if (kind != Kind::Object || !key) return nullptr;
  const size_t n = std::strlen(key);
  for (const Member& m : members)
    if (m.key.size() == n && std::memcmp(m.key.data(), key, n) == 0) return &m.value;
  return nullptr;
}

int64_t Value::asInt(int64_t fallback) const {
  if (kind != Kind::Number) return fallback;
  // The range test also turns away NaN, so the cast below is defined.
  if (!(number >= -9223372036854775808.0 && number < 9223372036854775808.0)) return fallback;
  const int64_t i = static_cast<int64_t>(number);
  return static_cast<double>(i) == number ? i : fallback;
}

namespace {

ParseResult ok() { return {}; }
ParseResult fail(const char* message) { return {1, message}; }

// Bytes a string run stops at: the closing quote, the backslash, and every
// control byte, which is an error inside a string.
struct StopTable {
  bool stop[256];
  constexpr StopTable() : stop() {
    for (int c = 0; c < 0x20; ++c) stop[c] = true;
    stop[static_cast<unsigned char>('"')] = true;
    stop[static_cast<unsigned char>('\\')] = true;
  }
};
constexpr StopTable kStop;

inline bool isWs(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }
inline bool isDigit(char c) { return c >= '0' && c <= '9'; }

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// Four hexadecimal digits at text[at..at+4), or -1.
long hex4(const char* text, size_t length, size_t at) {
  if (length - at < 4) return -1;
  long v = 0;
  for (size_t i = 0; i < 4; ++i) {
    const int d = hexValue(text[at + i]);
    if (d < 0) return -1;
    v = v * 16 + d;
  }
  return v;
}

void appendUtf8(std::string& out, uint32_t cp) {
  char b[4];
  size_t n;
  if (cp < 0x80) {
    b[0] = static_cast<char>(cp);
    n = 1;
  } else if (cp < 0x800) {
    b[0] = static_cast<char>(0xC0 | (cp >> 6));
    b[1] = static_cast<char>(0x80 | (cp & 0x3F));
    n = 2;
  } else if (cp < 0x10000) {
    b[0] = static_cast<char>(0xE0 | (cp >> 12));
    b[1] = static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    b[2] = static_cast<char>(0x80 | (cp & 0x3F));
    n = 3;
  } else {
    b[0] = static_cast<char>(0xF0 | (cp >> 18));
    b[1] = static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
    b[2] = static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    b[3] = static_cast<char>(0x80 | (cp & 0x3F));
    n = 4;
  }
  out.append(b, n);
}

// Powers of ten that a double holds exactly.
constexpr double kPow10[] = {1e0,  1e1,  1e2,  1e3,  1e4,  1e5,  1e6,  1e7,  1e8,  1e9,  1e10, 1e11,
                             1e12, 1e13, 1e14, 1e15, 1e16, 1e17, 1e18, 1e19, 1e20, 1e21, 1e22};

// The common short numbers without the C library: with at most 15
// significant digits and a decimal exponent within 22 the mantissa and the
// power are both exact, so one multiplication or division rounds exactly as
// the full conversion would. Anything else answers false and takes the slow
// path, which also decides what is malformed.
bool fastNumber(const char* p, const char* end, double& out) {
  bool neg = false;
  if (p < end && *p == '-') {
    neg = true;
    ++p;
  }
  uint64_t mant = 0;
  int digits = 0, fracDigits = 0;
  bool any = false;
  for (; p < end && isDigit(*p); ++p) {
    any = true;
    if (mant == 0 && *p == '0') continue;  // leading zeros carry nothing
    if (++digits > 15) return false;
    mant = mant * 10 + static_cast<uint64_t>(*p - '0');
  }
  if (p < end && *p == '.') {
    for (++p; p < end && isDigit(*p); ++p) {
      any = true;
      if (++fracDigits > 22) return false;
      if (mant == 0 && *p == '0') continue;
      if (++digits > 15) return false;
      mant = mant * 10 + static_cast<uint64_t>(*p - '0');
    }
  }
  if (!any) return false;
  int exp = -fracDigits;
  if (p < end) {  // an exponent
    ++p;
    bool eneg = false;
    if (p < end && (*p == '+' || *p == '-')) eneg = *p++ == '-';
    if (p == end) return false;
    int e = 0;
    for (; p < end; ++p) {
      if (e > 1000) return false;
      e = e * 10 + (*p - '0');
    }
    exp += eneg ? -e : e;
  }
  if (exp < -22 || exp > 22) return false;
  double v = static_cast<double>(mant);
  v = exp < 0 ? v / kPow10[-exp] : v * kPow10[exp];
  out = neg ? -v : v;
  return true;
}

}  // namespace

namespace detail {

void Parser::skipWs() {
  while (pos < length && isWs(text[pos])) ++pos;
}

ParseResult Parser::value(Value& out, uint64_t depth) {
  if (maxDepth < depth) return fail("json: too deep");
  skipWs();
  if (pos >= length) return fail("json: unexpected end");
  const char c = text[pos];
  switch (c) {
    case '"':
      return string(out);
    case '[':
      return array(out, depth);
    case '{':
      return object(out, depth);
    case 't':
      if (length - pos < 4 || std::memcmp(text + pos, "true", 4) != 0) return fail("json: bad literal");
      out.kind = Kind::Bool;
      out.boolean = true;
      pos += 4;
      return ok();
    case 'f':
      if (length - pos < 5 || std::memcmp(text + pos, "false", 5) != 0) return fail("json: bad literal");
      out.kind = Kind::Bool;
      out.boolean = false;
      pos += 5;
      return ok();
    case 'n':
      if (length - pos < 4 || std::memcmp(text + pos, "null", 4) != 0) return fail("json: bad literal");
      out.kind = Kind::Null;
      pos += 4;
      return ok();
    default:
      if (c == '-' || isDigit(c)) return number(out);
      return fail("json: unexpected char");
  }
}

ParseResult Parser::number(Value& out) {
  out.kind = Kind::Number;
  const size_t start = pos;
  if (pos < length && text[pos] == '-') ++pos;
  while (pos < length && isDigit(text[pos])) ++pos;
  if (pos < length && text[pos] == '.') {
    ++pos;
    while (pos < length && isDigit(text[pos])) ++pos;
  }
  if (pos < length && (text[pos] == 'e' || text[pos] == 'E')) {
    ++pos;
    if (pos < length && (text[pos] == '+' || text[pos] == '-')) ++pos;
    while (pos < length && isDigit(text[pos])) ++pos;
  }
  const size_t n = pos - start;
  if (n >= 64) return fail("json: number too long");
  if (fastNumber(text + start, text + pos, out.number)) return ok();
  char buf[64];
  std::memcpy(buf, text + start, n);
  buf[n] = 0;
  char* end = nullptr;
  out.number = std::strtod(buf, &end);
  if (end != buf + n) return fail("json: bad number");
  return ok();
}

ParseResult Parser::string(Value& out) {
  out.kind = Kind::String;
  return string(out.string);
}

ParseResult Parser::string(std::string& out) {
  out.clear();
  skipWs();
  if (pos >= length || text[pos] != '"') return fail("json: string");
  ++pos;
  if (pos >= length) return fail("json: unterminated string");
  for (;;) {
    // A run of plain bytes is appended in one piece.
    const size_t run = pos;
#if defined(__SSE2__)
    const __m128i quote = _mm_set1_epi8('"'), slash = _mm_set1_epi8('\\'), space = _mm_set1_epi8(0x20);
    const __m128i flip = _mm_set1_epi8(static_cast<char>(0x80));
    while (length - pos >= 16) {
      const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(text + pos));
      // Unsigned "below 0x20" through a signed compare of sign-flipped bytes.
      const __m128i ctl = _mm_cmplt_epi8(_mm_xor_si128(v, flip), _mm_xor_si128(space, flip));
      const __m128i hit = _mm_or_si128(_mm_or_si128(_mm_cmpeq_epi8(v, quote), _mm_cmpeq_epi8(v, slash)), ctl);
      const int mask = _mm_movemask_epi8(hit);
      if (mask) {
        pos += static_cast<size_t>(__builtin_ctz(static_cast<unsigned>(mask)));
        goto stopped;
      }
      pos += 16;
    }
#endif
    while (pos < length && !kStop.stop[static_cast<unsigned char>(text[pos])]) ++pos;
#if defined(__SSE2__)
  stopped:
#endif
    out.append(text + run, pos - run);
    if (pos >= length) return fail("json: unterminated string");
    const unsigned char c = static_cast<unsigned char>(text[pos]);
    if (c == '"') {
      ++pos;
      return ok();
    }
    if (c < 0x20) return fail("json: control char");
    // A backslash.
    if (pos + 1 >= length) return fail("json: escape");
    const char e = text[pos + 1];
    pos += 2;
    switch (e) {
      case '"': out.push_back('"'); break;
      case '\\': out.push_back('\\'); break;
      case '/': out.push_back('/'); break;
      case 'b': out.push_back('\b'); break;
      case 'f': out.push_back('\f'); break;
      case 'n': out.push_back('\n'); break;
      case 'r': out.push_back('\r'); break;
      case 't': out.push_back('\t'); break;
      case 'u': {
        const long cu = hex4(text, length, pos);
        if (cu < 0) return fail("json: \\u");
        pos += 4;
        uint32_t cp = static_cast<uint32_t>(cu);
        if (cp >= 0xDC00 && cp <= 0xDFFF) return fail("json: lone low surrogate");
        if (cp >= 0xD800 && cp <= 0xDBFF) {
          if (length - pos < 6 || text[pos] != '\\' || text[pos + 1] != 'u') return fail("json: surrogate pair");
          const long lo = hex4(text, length, pos + 2);
          if (lo < 0xDC00 || lo > 0xDFFF) return fail("json: surrogate pair");
          pos += 6;
          cp = 0x10000 + ((cp - 0xD800) << 10) + (static_cast<uint32_t>(lo) - 0xDC00);
        }
        appendUtf8(out, cp);
        break;
      }
      default:
        return fail("json: bad escape");
    }
    if (pos >= length) return fail("json: unterminated string");
  }
}

namespace {

// The scratch vector of `depth`, made on first use; a deque keeps the
// references of shallower depths valid while deeper ones are added.
template <typename T>
std::vector<T>& scratchAt(std::deque<std::vector<T>>& scratch, uint64_t depth) {
  while (scratch.size() <= depth) scratch.emplace_back();
  std::vector<T>& v = scratch[depth];
  v.clear();
  return v;
}

template <typename T>
void moveInto(std::vector<T>& from, std::vector<T>& to) {
  to.reserve(from.size());
  for (T& x : from) to.push_back(std::move(x));
  from.clear();
}

}  // namespace

ParseResult Parser::object(Value& out, uint64_t depth) {
  out.kind = Kind::Object;
  skipWs();
  if (pos >= length || text[pos] != '{') return fail("json: object");
  ++pos;
  skipWs();
  if (pos < length && text[pos] == '}') {
    ++pos;
    return ok();
  }
  std::vector<Member>& members = scratchAt(memberScratch, depth);
  for (;;) {
    skipWs();
    if (pos >= length || text[pos] != '"') return fail("json: object key");
    Member& m = members.emplace_back();
    ParseResult r = string(m.key);
    if (!r.ok()) return r;
    skipWs();
    if (pos >= length || text[pos] != ':') return fail("json: colon");
    ++pos;
    r = value(m.value, depth + 1);
    if (!r.ok()) return r;
    skipWs();
    if (pos < length && text[pos] == '}') {
      ++pos;
      moveInto(members, out.members);
      return ok();
    }
    if (pos >= length || text[pos] != ',') return fail("json: comma");
    ++pos;
  }
}

ParseResult Parser::array(Value& out, uint64_t depth) {
  out.kind = Kind::Array;
  skipWs();
  if (pos >= length || text[pos] != '[') return fail("json: array");
  ++pos;
  skipWs();
  if (pos < length && text[pos] == ']') {
    ++pos;
    return ok();
  }
  std::vector<Value>& items = scratchAt(itemScratch, depth);
  for (;;) {
    ParseResult r = value(items.emplace_back(), depth + 1);
    if (!r.ok()) return r;
    skipWs();
    if (pos < length && text[pos] == ']') {
      ++pos;
      moveInto(items, out.items);
      return ok();
    }
    if (pos >= length || text[pos] != ',') return fail("json: comma");
    ++pos;
  }
}

}  // namespace detail

ParseResult parse(const char* text, size_t length, Value& out, uint64_t maxDepth) {
  if (!text) return fail("json: null input");
  detail::Parser p{text, length, maxDepth, 0, {}, {}};
  ParseResult r = p.value(out, 0);
  if (!r.ok()) return r;
  p.skipWs();
  if (p.pos != length) return fail("json: trailing data");
  return ok();
}

}  // namespace tov::json

namespace tov {

std::string jsonEsc2(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (char c : text) {
    if (c == '"' || c == '\\') out.push_back('\\');
    out.push_back(c);
  }
  return out;
}

void jsonStringField(std::string_view text, const char* key, std::string& out) {
  std::string needle;
  needle.reserve(std::strlen(key) + 2);
  needle.push_back('"');
  needle.append(key);
  needle.push_back('"');
  const size_t at = text.find(needle);
  if (at == std::string_view::npos) return;
  size_t p = text.find(':', at + needle.size());
  if (p == std::string_view::npos || p + 1 == text.size()) return;
  ++p;
  while (p < text.size() && std::isspace(static_cast<unsigned char>(text[p]))) ++p;
  if (p >= text.size() || text[p] != '"') return;
  std::string value;
  for (++p; p < text.size() && text[p] != '"'; ++p) {
    if (text[p] == '\\' && p + 1 < text.size()) ++p;
    value.push_back(text[p]);
  }
  out = std::move(value);
}

namespace zanapp {

std::string jsonEscape(std::string_view text) {
  std::string out;
  out.reserve(text.size() + 2);
  out.push_back('"');
  for (char ch : text) {
    const unsigned char c = static_cast<unsigned char>(ch);
    switch (c) {
      case '"': out += "\\\""; break;
      case '\\': out += "\\\\"; break;
      case '\n': out += "\\n"; break;
      case '\r': out += "\\r"; break;
      case '\t': out += "\\t"; break;
      default:
        if (c < 0x20) {
          static const char kHex[] = "0123456789abcdef";
          const char u[6] = {'\\', 'u', '0', '0', kHex[c >> 4], kHex[c & 15]};
          out.append(u, 6);
        } else {
          out.push_back(ch);
        }
    }
  }
  out.push_back('"');
  return out;
}

}  // namespace zanapp
}  // namespace tov
