// The JSON reader against the public conformance corpus and its own rules,
// plus the escaping writers and the one-field scanner.
#include <gtest/gtest.h>

#include <cmath>
#include <fstream>
#include <iterator>
#include <string>

#include "base/json.h"

namespace {

using tov::json::Kind;
using tov::json::parse;
using tov::json::Value;

std::string readFile(const std::string& path) {
  std::ifstream f(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(f), {}};
}

// Empty on success, else the message.
std::string outcome(const std::string& text, Value* keep = nullptr) {
  Value v;
  const auto r = parse(text.data(), text.size(), keep ? *keep : v);
  EXPECT_EQ(r.code, r.message.empty() ? 0 : 1) << text;
  return r.message;
}

TEST(Json, ConformanceCorpus) {
  const std::string dir = ZAN_TESTDATA "/json/";
  std::ifstream tsv(dir + "EXPECTED.tsv");
  int rows = 0;
  for (std::string line; std::getline(tsv, line); ++rows) {  // file, accept or reject, message
    const size_t t1 = line.find('\t'), t2 = line.find('\t', t1 + 1);
    ASSERT_NE(t2, std::string::npos) << line;
    const std::string file = line.substr(0, t1);
    const std::string want = line.substr(t1 + 1, t2 - t1 - 1) == "accept" ? "" : line.substr(t2 + 1);
    EXPECT_EQ(outcome(readFile(dir + "test_parsing/" + file)), want) << file;
  }
  EXPECT_EQ(rows, 318);
}

TEST(Json, Outcomes) {
  const std::string n63 = "1" + std::string(61, '0') + "5", n64 = "-" + n63;
  // Escapes decode to UTF-8 of one to four bytes; other bytes pass as they are.
  const struct { std::string text, message, decoded = {}; } cases[] = {
      {R"("\u0041\u00e9\u07ff")", "", "A\xC3\xA9\xDF\xBF"},
      {R"("\u0800\u20ac\uffff")", "", "\xE0\xA0\x80\xE2\x82\xAC\xEF\xBF\xBF"},
      {R"("\ud83d\ude00\udbff\udfff")", "", "\xF0\x9F\x98\x80\xF4\x8F\xBF\xBF"},
      {R"("\b\f\n\r\t\/\\\"é")", "", "\b\f\n\r\t/\\\"é"},
      {" \t\r\n", "json: unexpected end"}, {"{ \n}", ""}, {"[ ]", ""}, {"{\"a\":1,}", "json: object key"},
      {"{1:2}", "json: object key"}, {"{\"a\" 1}", "json: colon"}, {"{\"a\":1 \"b\":2}", "json: comma"},
      {"[1 2]", "json: comma"}, {"truex", "json: trailing data"}, {"tru", "json: bad literal"},
      {"nul", "json: bad literal"}, {"fals", "json: bad literal"}, {"0x10", "json: trailing data"},
      {"[0x10]", "json: comma"}, {"007", ""}, {"-.5", ""}, {"1.", ""}, {"1.e5", ""}, {"-", "json: bad number"},
      {"1e", "json: bad number"}, {"1e+", "json: bad number"}, {"1e999", ""}, {n63, ""},
      {n64, "json: number too long"}, {std::string(64, '0'), "json: number too long"},
      {std::string("\0", 1), "json: unexpected char"}, {std::string("\"a\0\"", 4), "json: control char"},
      {"\"\x1f\"", "json: control char"}, {"\"\\u0000\"", ""}, {"\"abc", "json: unterminated string"},
      {"\"\\n", "json: unterminated string"}, {"\"abc\\", "json: escape"}, {"\"\\x\"", "json: bad escape"},
      {"\"\\u12\"", "json: \\u"}, {"\"\\u12", "json: \\u"}, {"\"\\u12g4\"", "json: \\u"},
      {"\"\\ude00\"", "json: lone low surrogate"}, {"\"\\udc00\"", "json: lone low surrogate"},
      {"\"\\ud83d\"", "json: surrogate pair"}, {"\"\\ud83dx\\ude00\"", "json: surrogate pair"},
      {"\"\\ud83d\\u0041\"", "json: surrogate pair"}, {"\"\\ud83d\\ude0", "json: surrogate pair"},
      {"+1", "json: unexpected char"}, {std::string(65, '[') + std::string(65, ']'), ""},
      {std::string(66, '[') + std::string(66, ']'), "json: too deep"}, {std::string(100000, '{'), "json: object key"},
      {std::string(50000, '[') + "{\"a\":" + std::string(50000, '{'), "json: too deep"},
  };
  for (const auto& c : cases) {
    Value v;
    EXPECT_EQ(outcome(c.text, &v), c.message) << c.text.substr(0, 80);
    if (!c.decoded.empty()) { EXPECT_EQ(v.string, c.decoded) << c.text; }
  }
}

TEST(Json, NullInputAndDepthLimit) {
  Value v;
  EXPECT_EQ(parse(nullptr, 0, v).message, "json: null input");
  EXPECT_EQ(parse("[[1]]", 5, v, 1).message, "json: too deep");
  EXPECT_TRUE(parse("[[1]]", 5, v, 2).ok());
  EXPECT_EQ(parse("1", 1, v, 0).message, "");
  // The length bounds the text: what lies behind it is never looked at.
  EXPECT_TRUE(parse("[1]xyz", 3, v).ok());
  EXPECT_EQ(parse("\"ab\"", 3, v).message, "json: unterminated string");
}

TEST(Json, AsInt) {
  const struct { const char* text; int64_t want; } cases[] = {
      {"3.5", -7},  {"3.0", 3},   {"\"3\"", -7}, {"-0", 0},
      {"1e300", -7}, {"9223372036854775807", -7},  // rounds to 2^63, out of range
      {"-9223372036854775808", INT64_MIN}, {"9007199254740993", 9007199254740992}, {"true", -7},
  };
  for (const auto& c : cases) {
    Value v;
    ASSERT_EQ(outcome(c.text, &v), "") << c.text;
    EXPECT_EQ(v.asInt(-7), c.want) << c.text;
  }
  Value nan;
  nan.kind = Kind::Number;
  nan.number = std::nan("");
  EXPECT_EQ(nan.asInt(), 0);
}

TEST(Json, Writers) {
  EXPECT_EQ(tov::jsonEsc2("a\"b\\c\nd\x01"), "a\\\"b\\\\c\nd\x01");
  EXPECT_EQ(tov::jsonEsc2(""), "");
  EXPECT_EQ(tov::zanapp::jsonEscape(std::string("\"\\\n\r\t\b\f\x01\x1f\0 \x7f\xc3\xa9/", 15)),
            "\"\\\"\\\\\\n\\r\\t\\u0008\\u000c\\u0001\\u001f\\u0000 \x7f\xc3\xa9/\"");
  EXPECT_EQ(tov::zanapp::jsonEscape(""), "\"\"");
  // What jsonEscape writes, the reader reads back unchanged.
  std::string all;
  for (int c = 0; c < 256; ++c) all += static_cast<char>(c);
  Value v;
  const std::string lit = tov::zanapp::jsonEscape(all);
  ASSERT_EQ(outcome(lit, &v), "");
  EXPECT_EQ(v.asString(), all);
}

TEST(Json, StringField) {
  const struct { const char* text; const char* key; const char* want; } cases[] = {  // want "KEEP": out unchanged
      {"{\"entry\": \"main.zanb\"}", "entry", "main.zanb"},
      {"{\"entry\":\t\n \"a\\\"b\\nc\\\\\"}", "entry", "a\"bnc\\"}, {"{\"entry\": 5}", "entry", "KEEP"},
      {"{\"name\": \"entry\", \"x\": \"y\"}", "entry", "y"},  // the value matched; the next colon is taken
      {"{\"entry\": \"open", "entry", "open"}, {"{\"entry\": \"ends\\", "entry", "ends\\"},
      {"{\"entry\":", "entry", "KEEP"}, {"{\"entry\"", "entry", "KEEP"}, {"{\"entry\": ", "entry", "KEEP"},
      {"{\"other\": \"x\"}", "entry", "KEEP"}, {"{\"entry\": \"\\u0041\"}", "entry", "u0041"},
      {"{\"entry\": \"\"}", "entry", ""},
  };
  for (const auto& c : cases) {
    std::string out = "KEEP";
    tov::jsonStringField(c.text, c.key, out);
    EXPECT_EQ(out, c.want) << c.text;
  }
}

}  // namespace
