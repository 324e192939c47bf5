// The one JSON reader: a recursive-descent parser into a plain tree of
// Values. The input is never copied; only strings are built. The small
// escaping writers and the one-field scanner live here too, so that every
// rule about JSON text stands in one file.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <vector>

namespace tov::json {

enum class Kind : uint8_t { Null = 0, Bool = 1, Number = 2, String = 3, Object = 4, Array = 5 };

struct Member;

// One node. Every node carries the storage of every kind; only that of its
// own kind has meaning. A Value owns its subtree and is moved, not copied,
// by the parser.
struct Value {
  Kind kind = Kind::Null;
  bool boolean = false;
  double number = 0.0;
  std::string string;
  std::vector<Member> members;  // Object pairs, in the order of the text
  std::vector<Value> items;     // Array elements, in the order of the text

  static const std::string kEmpty;

  Value() = default;
  Value(Value&&) noexcept = default;
  Value& operator=(Value&&) noexcept = default;
  Value(const Value&) = delete;
  Value& operator=(const Value&) = delete;

  bool isNull() const { return kind == Kind::Null; }
  bool isBool() const { return kind == Kind::Bool; }
  bool isNumber() const { return kind == Kind::Number; }
  bool isString() const { return kind == Kind::String; }
  bool isObject() const { return kind == Kind::Object; }
  bool isArray() const { return kind == Kind::Array; }

  // The value of the first member whose key has exactly these bytes; null
  // when there is none or this is not an object.
  const Value* get(const char* key) const;

  // A field of the wrong kind reads like an absent one.
  const std::string& asString() const { return kind == Kind::String ? string : kEmpty; }
  // A number that is exactly a 64-bit integer, else `fallback`.
  int64_t asInt(int64_t fallback = 0) const;
  double asNumber(double fallback = 0.0) const { return kind == Kind::Number ? number : fallback; }
  bool asBool(bool fallback = false) const { return kind == Kind::Bool ? boolean : fallback; }
};

struct Member {
  std::string key;
  Value value;
};

struct ParseResult {
  uint8_t code = 0;     // 0 success, 1 failure
  std::string message;  // empty on success, else one "json: ..." text
  bool ok() const { return code == 0; }
};

// Parses exactly one document of `length` bytes into `out`. `text` need not
// end in a zero byte. After a failure `out` holds nothing meaningful.
ParseResult parse(const char* text, size_t length, Value& out, uint64_t maxDepth = 64);
inline ParseResult parse(std::string_view text, Value& out, uint64_t maxDepth = 64) {
  return parse(text.data() ? text.data() : "", text.size(), out, maxDepth);
}

namespace detail {

// The state of one parse, on the caller's stack. Containers collect their
// elements in a scratch vector kept per depth and move them once into a
// vector of the exact size, so no node is moved twice while a container
// grows.
struct Parser {
  const char* text;
  size_t length;
  uint64_t maxDepth;
  size_t pos = 0;
  std::deque<std::vector<Member>> memberScratch;  // by depth
  std::deque<std::vector<Value>> itemScratch;     // by depth

  ParseResult value(Value& out, uint64_t depth);
  ParseResult object(Value& out, uint64_t depth);
  ParseResult array(Value& out, uint64_t depth);
  ParseResult string(std::string& out);
  ParseResult string(Value& out);
  ParseResult number(Value& out);
  void skipWs();
};

}  // namespace detail
}  // namespace tov::json

namespace tov {

// A backslash before every `"` and `\`; nothing else changes, no quotes added.
std::string jsonEsc2(std::string_view text);

// Reads the string value of `key` out of JSON text without parsing it: from
// the first place the quoted key occurs, key or value, the next `:`, then a
// quoted string with backslashes taking the next byte literally. `out` is
// left alone unless such a string follows.
void jsonStringField(std::string_view text, const char* key, std::string& out);

namespace zanapp {
// A complete JSON string literal, quotes included: \" \\ \n \r \t, other bytes
// below 0x20 as \u00xx, every other byte unchanged.
std::string jsonEscape(std::string_view text);
}  // namespace zanapp

}  // namespace tov
