// JSON parse throughput of our reader (base/json) side by side with
// RapidJSON's DOM parser and nlohmann::json, on a generated package-catalog
// document.
//
// The document is built here from a fixed seed, so every run parses the same
// bytes: thousands of package records with names, versions, descriptions
// carrying escapes and non-ASCII UTF-8, sha256 strings, integer sizes, float
// ratings, booleans, nulls, dependency lists and nested file lists. It is
// parsed twice over: indented (two spaces, as manifests are usually stored)
// and compact, with the same records.
//
// Each round parses the document once with every parser, the order rotating
// from round to round; the best time of each parser counts. Only the parse
// call is timed; freeing the tree is timed apart and shown for information.
// After every parse the tree is walked: all three must agree on the number
// of nodes of each kind, string bytes and the sum of the numbers, and on the
// record and file counts and sizes the generator knows. A failed parse or a
// disagreement exits with status 1; a missed speed target only says MISSED.
//
// Usage: json_bench [megabytes] [rounds] [zan|rapidjson|nlohmann]
//   defaults 20 and 5; a parser name runs that parser alone (for profiling).
//        json_bench --dump indented|compact [megabytes]
//   writes the document to standard output instead.
#if defined(__SSE2__) && !defined(RAPIDJSON_SSE2)
// Our reader scans strings 16 bytes at a time with SSE2; RapidJSON gets the
// same instruction set.
#define RAPIDJSON_SSE2
#endif

#include <rapidjson/document.h>
#include <rapidjson/error/en.h>

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "base/json.h"

namespace {

// ---------------------------------------------------------------------------
// The document.

// splitmix64: a fixed sequence on every platform (the standard distributions
// are not portable).
struct Rng {
  uint64_t s;
  uint64_t next() {
    uint64_t z = (s += 0x9E3779B97F4A7C15ull);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    return z ^ (z >> 31);
  }
  // In [lo, hi].
  int64_t range(int64_t lo, int64_t hi) { return lo + int64_t(next() % uint64_t(hi - lo + 1)); }
  bool chance(int percent) { return int(next() % 100) < percent; }
  double unit() { return double(next() >> 11) * (1.0 / 9007199254740992.0); }
  template <size_t N>
  const char* pick(const char* const (&list)[N]) {
    return list[next() % N];
  }
};

const char* const kWords[] = {
    "fast",     "library",  "parser",   "network", "secure",    "stream",   "toolkit",  "bindings",
    "compiler", "runtime",  "graphics", "audio",   "video",     "font",     "config",   "daemon",
    "client",   "server",   "utility",  "plugin",  "framework", "archive",  "compress", "crypto",
    "database", "driver",   "kernel",   "module",  "package",   "manager",  "terminal", "editor",
    "image",    "codec",    "protocol", "cache",   "queue",     "logging",  "metrics",  "test",
    "async",    "memory",   "thread",   "vector",  "matrix",    "geometry", "locale",   "unicode",
    "markdown", "template", "schema",   "query",   "index",     "search",   "sync",     "backup",
};
const char* const kPrefixes[] = {"", "", "", "lib", "lib", "python3-", "node-", "golang-", "ruby-", "r-cran-"};
const char* const kArches[] = {"amd64", "amd64", "amd64", "arm64", "all", "all", "i386", "riscv64"};
const char* const kSections[] = {"libs", "devel", "utils", "net", "python", "javascript", "doc", "admin",
                                 "graphics", "sound", "text", "web"};
const char* const kPriorities[] = {"optional", "optional", "optional", "standard", "important", "extra"};
const char* const kLicenses[] = {"MIT", "Apache-2.0", "GPL-2.0-or-later", "GPL-3.0-only", "BSD-3-Clause",
                                 "LGPL-2.1+", "MPL-2.0", "ISC", "Zlib", "Artistic-2.0"};
const char* const kPeople[] = {"José Fernández", "Jürgen Müller",  "Łukasz Nowak",    "Søren Kierkegaard",
                               "François Dupont", "Ana Lima",      "山田 太郎",        "Алексей Иванов",
                               "Νίκος Παππάς",     "Chen Wei",      "O'Brien, Siobhán", "Zoë Ashworth",
                               "Mehmet Yılmaz",   "Priya Natarajan", "Björk Guðmundsdóttir", "Tom Smith"};
const char* const kDomains[] = {"example.org", "lists.example.net", "users.example.com", "dev.example.io"};
const char* const kTags[] = {"role::shared-lib", "devel::library", "implemented-in::c", "implemented-in::python",
                             "interface::commandline", "scope::utility", "uitoolkit::gtk", "use::compressing",
                             "works-with::text", "protocol::http", "security::cryptography", "suite::gnome"};
const char* const kConstraints[] = {">= 1.2", ">= 2.36", "<< 3.0~", "= 1.0.4-2", ">= 0.9.8", ">= 12"};
const char* const kDirs[] = {"/usr/lib/x86_64-linux-gnu/", "/usr/share/doc/", "/usr/bin/", "/usr/include/",
                             "/usr/share/man/man1/", "/etc/", "/usr/share/locale/fr/LC_MESSAGES/",
                             "/usr/lib/python3/dist-packages/"};
const char* const kExts[] = {".so.1", ".h", ".gz", ".py", ".mo", ".conf", ".json", "", ".1.gz", ".txt"};
// Description pieces, already JSON text: escapes and raw UTF-8 of every width.
const char* const kFlavour[] = {
    "\\\"batteries included\\\"",
    "see the \\\"README\\\" for details",
    "\\n\\nFeatures:\\n\\t* streaming\\n\\t* zero-copy",
    "installs into C:\\\\Program Files\\\\Tool on Windows",
    "caf\\u00e9 na\\u00efve r\\u00e9sum\\u00e9",
    "2010\\u20132024",
    "rocket \\ud83d\\ude80 launch",
    "naïve Zürich façade",
    "日本語の説明文",
    "Ελληνική περιγραφή",
    "описание пакета",
    "emoji 😀 and ✓",
    "docs at https:\\/\\/docs.example.org\\/latest\\/",
    "50% faster — really",
    "tabs\\tand\\tcolumns",
};

// Appends JSON text with indentation (two spaces, ": " after keys, "[]" for
// empty arrays) or none at all.
class Emitter {
 public:
  explicit Emitter(bool pretty) : pretty_(pretty) {}
  std::string out;

  void begin(char c) {
    prefix();
    out.push_back(c);
    first_.push_back(true);
  }
  void end(char c) {
    const bool empty = first_.back();
    first_.pop_back();
    if (pretty_ && !empty) newline();
    out.push_back(c);
  }
  void key(std::string_view k) {
    prefix();
    out.push_back('"');
    out.append(k);
    out.append(pretty_ ? "\": " : "\":");
    afterKey_ = true;
  }
  // `text` is already JSON string content.
  void str(std::string_view text) {
    prefix();
    out.push_back('"');
    out.append(text);
    out.push_back('"');
  }
  void integer(int64_t v) {
    prefix();
    char b[24];
    out.append(b, std::to_chars(b, b + sizeof b, v).ptr);
  }
  void number(const char* format, double v) {
    prefix();
    char b[40];
    out.append(b, size_t(std::snprintf(b, sizeof b, format, v)));
  }
  void raw(const char* literal) {
    prefix();
    out.append(literal);
  }
  void boolean(bool v) { raw(v ? "true" : "false"); }
  void null() { raw("null"); }

 private:
  void newline() {
    out.push_back('\n');
    out.append(2 * first_.size(), ' ');
  }
  void prefix() {
    if (afterKey_) {
      afterKey_ = false;
      return;
    }
    if (first_.empty()) return;
    if (!first_.back()) out.push_back(',');
    first_.back() = false;
    if (pretty_) newline();
  }

  bool pretty_;
  bool afterKey_ = false;
  std::vector<bool> first_;
};

// What the generator put in, for checking the parsers against.
struct Expected {
  uint64_t records = 0, files = 0;
  int64_t sizeSum = 0, fileBytes = 0;
};

std::string sha256Hex(Rng& rng) {
  static const char kHex[] = "0123456789abcdef";
  std::string s;
  for (int i = 0; i < 4; ++i) {
    uint64_t w = rng.next();
    for (int j = 0; j < 16; ++j, w >>= 4) s.push_back(kHex[w & 15]);
  }
  return s;
}

std::string packageName(Rng& rng) {
  std::string n = rng.pick(kPrefixes);
  n += rng.pick(kWords);
  if (rng.chance(60)) {
    n += '-';
    n += rng.pick(kWords);
  }
  if (rng.chance(25)) n += std::to_string(rng.range(1, 12));
  return n;
}

std::string sentence(Rng& rng) {
  std::string s = rng.pick(kWords);
  s[0] = char(s[0] - 'a' + 'A');
  const int n = int(rng.range(4, 14));
  for (int i = 0; i < n; ++i) {
    s += ' ';
    s += rng.chance(12) ? rng.pick(kFlavour) : rng.pick(kWords);
  }
  s += rng.chance(80) ? ". " : "; ";
  return s;
}

void package(Emitter& e, Rng& rng, Expected& x) {
  const std::string name = packageName(rng);
  e.begin('{');
  e.key("name");
  e.str(name);
  e.key("version");
  // One draw per statement: the operands of + are evaluated in no fixed
  // order, and the document must not depend on the compiler.
  std::string version = std::to_string(rng.range(0, 4));
  version += '.';
  version += std::to_string(rng.range(0, 30));
  version += '.';
  version += std::to_string(rng.range(0, 200));
  if (rng.chance(50)) {
    version += '-';
    version += std::to_string(rng.range(1, 9));
  }
  if (rng.chance(10)) version += "+dfsg";
  if (rng.chance(5)) {
    version += "~rc";
    version += std::to_string(rng.range(1, 3));
  }
  e.str(version);
  e.key("architecture");
  e.str(rng.pick(kArches));
  e.key("section");
  e.str(rng.pick(kSections));
  e.key("priority");
  e.str(rng.pick(kPriorities));
  e.key("summary");
  std::string summary = rng.pick(kWords);
  summary += std::string(" ") + rng.pick(kWords);
  summary += std::string(" for ") + rng.pick(kWords);
  summary += std::string(" ") + rng.pick(kWords);
  e.str(summary);
  e.key("description");
  std::string d;
  for (int i = int(rng.range(1, 5)); i > 0; --i) d += sentence(rng);
  e.str(d);
  e.key("maintainer");
  e.begin('{');
  e.key("name");
  e.str(rng.pick(kPeople));
  e.key("email");
  std::string email = rng.pick(kWords);
  email += std::string(".") + rng.pick(kWords);
  email += std::string("@") + rng.pick(kDomains);
  e.str(email);
  e.end('}');
  e.key("homepage");
  if (rng.chance(15))
    e.null();
  else if (rng.chance(30))
    e.str("https:\\/\\/" + name + "." + rng.pick(kDomains) + "\\/");
  else
    e.str("https://" + name + "." + rng.pick(kDomains) + "/");
  e.key("license");
  if (rng.chance(8))
    e.null();
  else
    e.str(rng.pick(kLicenses));
  e.key("sha256");
  e.str(sha256Hex(rng));
  const int64_t size = rng.chance(70) ? rng.range(800, 400000) : rng.range(400000, 60000000);
  x.sizeSum += size;
  e.key("size");
  e.integer(size);
  e.key("installed_size");
  e.integer(size * rng.range(2, 5) / 1024 + 1);
  e.key("rating");
  if (rng.chance(10))
    e.null();
  else
    e.number("%.2f", 1.0 + 4.0 * rng.unit());
  e.key("popularity");
  const double scale = std::pow(10.0, -6.0 * rng.unit());
  e.number("%.6g", scale * rng.unit());
  e.key("downloads");
  e.integer(rng.range(0, 5000000000ll));
  e.key("released");
  e.integer(rng.range(1300000000, 1720000000));
  e.key("essential");
  e.boolean(rng.chance(3));
  e.key("deprecated");
  e.boolean(rng.chance(7));
  e.key("tags");
  e.begin('[');
  for (int i = int(rng.range(0, 5)); i > 0; --i) e.str(rng.pick(kTags));
  e.end(']');
  e.key("depends");
  e.begin('[');
  for (int i = int(rng.range(0, 8)); i > 0; --i) {
    e.begin('{');
    e.key("name");
    e.str(packageName(rng));
    e.key("constraint");
    if (rng.chance(40))
      e.null();
    else
      e.str(rng.pick(kConstraints));
    if (rng.chance(10)) {
      e.key("optional");
      e.boolean(true);
    }
    e.end('}');
  }
  e.end(']');
  e.key("files");
  e.begin('[');
  for (int i = int(rng.range(1, 24)); i > 0; --i) {
    const char* dir = rng.pick(kDirs);
    const int64_t fsize = rng.chance(85) ? rng.range(0, 60000) : rng.range(60000, 9000000);
    ++x.files;
    x.fileBytes += fsize;
    e.begin('{');
    e.key("path");
    std::string path = dir;
    if (std::strcmp(dir, "/usr/share/doc/") == 0) path += name + "/";
    path += rng.pick(kWords);
    if (rng.chance(30)) path += std::string("_") + rng.pick(kWords);
    path += rng.pick(kExts);
    e.str(path);
    e.key("size");
    e.integer(fsize);
    e.key("mode");
    e.str(rng.chance(80) ? "0644" : rng.chance(80) ? "0755" : "0600");
    if (rng.chance(35)) {
      e.key("sha256");
      e.str(sha256Hex(rng));
    }
    if (rng.chance(5)) {
      e.key("conffile");
      e.boolean(true);
    }
    e.end('}');
  }
  e.end(']');
  e.key("extra");
  if (rng.chance(70)) {
    e.null();
  } else {
    e.begin('{');
    e.key("multiarch");
    e.str(rng.chance(50) ? "same" : "foreign");
    e.key("build_ids");
    e.begin('[');
    for (int i = int(rng.range(1, 3)); i > 0; --i) e.str(sha256Hex(rng).substr(0, 40));
    e.end(']');
    e.key("source_date_epoch");
    e.integer(rng.range(1300000000, 1720000000));
    e.end('}');
  }
  e.end('}');
  ++x.records;
}

// A catalog of `records` packages, or, with records 0, of as many as it takes
// to reach `minBytes`.
std::string catalog(bool pretty, uint64_t records, size_t minBytes, Expected& x) {
  Rng rng{20240517};
  Emitter e(pretty);
  e.out.reserve(minBytes + minBytes / 8);
  e.begin('{');
  e.key("format");
  e.str("catalog/3");
  e.key("generated");
  e.str("2024-05-17T12:00:00Z");
  e.key("origin");
  e.begin('{');
  e.key("name");
  e.str("Example Archive — main");
  e.key("mirrors");
  e.begin('[');
  for (const char* d : kDomains) e.str(std::string("https:\\/\\/") + d + "\\/pool\\/");
  e.end(']');
  e.key("signed");
  e.boolean(true);
  e.end('}');
  e.key("packages");
  e.begin('[');
  while (records ? x.records < records : e.out.size() < minBytes) package(e, rng, x);
  e.end(']');
  e.end('}');
  return std::move(e.out);
}

// ---------------------------------------------------------------------------
// What a parsed tree holds, for comparing the parsers.

struct Shape {
  uint64_t nulls = 0, bools = 0, trues = 0, numbers = 0, strings = 0, objects = 0, arrays = 0;
  uint64_t members = 0, items = 0, stringBytes = 0;  // keys included
  double numberSum = 0;
  // The generator's figures, read from "packages".
  Expected x;
  bool catalogOk = false;
};

bool sameShape(const Shape& a, const Shape& b) {
  const double tol = 1e-9 * std::max(std::fabs(a.numberSum), 1.0);
  return a.nulls == b.nulls && a.bools == b.bools && a.trues == b.trues && a.numbers == b.numbers &&
         a.strings == b.strings && a.objects == b.objects && a.arrays == b.arrays && a.members == b.members &&
         a.items == b.items && a.stringBytes == b.stringBytes && std::fabs(a.numberSum - b.numberSum) <= tol &&
         a.catalogOk == b.catalogOk && a.x.records == b.x.records && a.x.files == b.x.files &&
         a.x.sizeSum == b.x.sizeSum && a.x.fileBytes == b.x.fileBytes;
}

// Ours.
void walk(const tov::json::Value& v, Shape& s) {
  using tov::json::Kind;
  switch (v.kind) {
    case Kind::Null: ++s.nulls; break;
    case Kind::Bool: ++s.bools, s.trues += v.boolean; break;
    case Kind::Number: ++s.numbers, s.numberSum += v.number; break;
    case Kind::String: ++s.strings, s.stringBytes += v.string.size(); break;
    case Kind::Object:
      ++s.objects;
      for (const tov::json::Member& m : v.members) {
        ++s.members, s.stringBytes += m.key.size();
        walk(m.value, s);
      }
      break;
    case Kind::Array:
      ++s.arrays;
      for (const tov::json::Value& i : v.items) ++s.items, walk(i, s);
      break;
  }
}

Shape shapeOf(const tov::json::Value& doc) {
  Shape s;
  walk(doc, s);
  const tov::json::Value* packages = doc.get("packages");
  if (!packages || !packages->isArray()) return s;
  s.catalogOk = true;
  for (const tov::json::Value& p : packages->items) {
    const tov::json::Value* size = p.get("size");
    const tov::json::Value* files = p.get("files");
    if (!size || !files || !files->isArray()) return s.catalogOk = false, s;
    ++s.x.records;
    s.x.sizeSum += size->asInt(-1);
    for (const tov::json::Value& f : files->items) {
      const tov::json::Value* fsize = f.get("size");
      if (!fsize) return s.catalogOk = false, s;
      ++s.x.files;
      s.x.fileBytes += fsize->asInt(-1);
    }
  }
  return s;
}

// RapidJSON.
void walk(const rapidjson::Value& v, Shape& s) {
  switch (v.GetType()) {
    case rapidjson::kNullType: ++s.nulls; break;
    case rapidjson::kFalseType: ++s.bools; break;
    case rapidjson::kTrueType: ++s.bools, ++s.trues; break;
    case rapidjson::kNumberType: ++s.numbers, s.numberSum += v.GetDouble(); break;
    case rapidjson::kStringType: ++s.strings, s.stringBytes += v.GetStringLength(); break;
    case rapidjson::kObjectType:
      ++s.objects;
      for (auto m = v.MemberBegin(); m != v.MemberEnd(); ++m) {
        ++s.members, s.stringBytes += m->name.GetStringLength();
        walk(m->value, s);
      }
      break;
    case rapidjson::kArrayType:
      ++s.arrays;
      for (const rapidjson::Value& i : v.GetArray()) ++s.items, walk(i, s);
      break;
  }
}

const rapidjson::Value* member(const rapidjson::Value& v, const char* key) {
  if (!v.IsObject()) return nullptr;
  auto m = v.FindMember(key);
  return m == v.MemberEnd() ? nullptr : &m->value;
}

Shape shapeOf(const rapidjson::Document& doc) {
  Shape s;
  walk(doc, s);
  const rapidjson::Value* packages = member(doc, "packages");
  if (!packages || !packages->IsArray()) return s;
  s.catalogOk = true;
  for (const rapidjson::Value& p : packages->GetArray()) {
    const rapidjson::Value* size = member(p, "size");
    const rapidjson::Value* files = member(p, "files");
    if (!size || !size->IsInt64() || !files || !files->IsArray()) return s.catalogOk = false, s;
    ++s.x.records;
    s.x.sizeSum += size->GetInt64();
    for (const rapidjson::Value& f : files->GetArray()) {
      const rapidjson::Value* fsize = member(f, "size");
      if (!fsize || !fsize->IsInt64()) return s.catalogOk = false, s;
      ++s.x.files;
      s.x.fileBytes += fsize->GetInt64();
    }
  }
  return s;
}

// nlohmann::json.
void walk(const nlohmann::json& v, Shape& s) {
  using T = nlohmann::json::value_t;
  switch (v.type()) {
    case T::null: ++s.nulls; break;
    case T::boolean: ++s.bools, s.trues += v.get<bool>(); break;
    case T::number_integer:
    case T::number_unsigned:
    case T::number_float: ++s.numbers, s.numberSum += v.get<double>(); break;
    case T::string: ++s.strings, s.stringBytes += v.get_ref<const std::string&>().size(); break;
    case T::object:
      ++s.objects;
      for (const auto& [key, value] : v.get_ref<const nlohmann::json::object_t&>()) {
        ++s.members, s.stringBytes += key.size();
        walk(value, s);
      }
      break;
    case T::array:
      ++s.arrays;
      for (const nlohmann::json& i : v.get_ref<const nlohmann::json::array_t&>()) ++s.items, walk(i, s);
      break;
    default: break;  // binary and discarded values do not come out of parse()
  }
}

const nlohmann::json* member(const nlohmann::json& v, const char* key) {
  if (!v.is_object()) return nullptr;
  auto m = v.find(key);
  return m == v.end() ? nullptr : &*m;
}

Shape shapeOf(const nlohmann::json& doc) {
  Shape s;
  walk(doc, s);
  const nlohmann::json* packages = member(doc, "packages");
  if (!packages || !packages->is_array()) return s;
  s.catalogOk = true;
  for (const nlohmann::json& p : *packages) {
    const nlohmann::json* size = member(p, "size");
    const nlohmann::json* files = member(p, "files");
    if (!size || !size->is_number_integer() || !files || !files->is_array()) return s.catalogOk = false, s;
    ++s.x.records;
    s.x.sizeSum += size->get<int64_t>();
    for (const nlohmann::json& f : *files) {
      const nlohmann::json* fsize = member(f, "size");
      if (!fsize || !fsize->is_number_integer()) return s.catalogOk = false, s;
      ++s.x.files;
      s.x.fileBytes += fsize->get<int64_t>();
    }
  }
  return s;
}

// ---------------------------------------------------------------------------
// Timing.

using Clock = std::chrono::steady_clock;
double seconds(Clock::time_point a, Clock::time_point b) { return std::chrono::duration<double>(b - a).count(); }

enum Parser { kZan, kRapid, kNlohmann, kParsers };
const char* const kParserNames[kParsers] = {"zan", "rapidjson", "nlohmann"};

struct Timing {
  double parse = 0, free = 0;  // best seconds
  bool ran = false;
};

// One parse with parser `p`: times it, walks the tree into `shape`, frees it.
// False with a message on stderr when the parser rejects the text.
bool parseOnce(Parser p, const std::string& text, double& parseS, double& freeS, Shape& shape) {
  switch (p) {
    case kZan: {
      auto v = std::make_unique<tov::json::Value>();
      const auto t0 = Clock::now();
      const tov::json::ParseResult r = tov::json::parse(text.data(), text.size(), *v);
      const auto t1 = Clock::now();
      parseS = seconds(t0, t1);
      if (!r.ok()) {
        std::fprintf(stderr, "json_bench: zan: %s\n", r.message.c_str());
        return false;
      }
      shape = shapeOf(*v);
      const auto t2 = Clock::now();
      v.reset();
      freeS = seconds(t2, Clock::now());
      return true;
    }
    case kRapid: {
      auto d = std::make_unique<rapidjson::Document>();
      const auto t0 = Clock::now();
      d->Parse(text.c_str());  // zero-terminated: RapidJSON's fast string stream
      const auto t1 = Clock::now();
      parseS = seconds(t0, t1);
      if (d->HasParseError()) {
        std::fprintf(stderr, "json_bench: rapidjson: %s at %zu\n", rapidjson::GetParseError_En(d->GetParseError()),
                     d->GetErrorOffset());
        return false;
      }
      shape = shapeOf(*d);
      const auto t2 = Clock::now();
      d.reset();
      freeS = seconds(t2, Clock::now());
      return true;
    }
    case kNlohmann: {
      auto j = std::make_unique<nlohmann::json>();
      try {
        const auto t0 = Clock::now();
        *j = nlohmann::json::parse(text.data(), text.data() + text.size());
        const auto t1 = Clock::now();
        parseS = seconds(t0, t1);
      } catch (const nlohmann::json::exception& e) {
        std::fprintf(stderr, "json_bench: nlohmann: %s\n", e.what());
        return false;
      }
      shape = shapeOf(*j);
      const auto t2 = Clock::now();
      j.reset();
      freeS = seconds(t2, Clock::now());
      return true;
    }
    default: return false;
  }
}

struct Document {
  const char* label;
  std::string text;
  Expected x;
  Timing t[kParsers];
};

std::string fmt(const char* format, double v) {
  char b[64];
  std::snprintf(b, sizeof b, format, v);
  return b;
}

void printTable(const std::vector<std::vector<std::string>>& rows) {
  std::vector<size_t> w;
  for (const auto& r : rows)
    for (size_t i = 0; i < r.size(); ++i) {
      if (w.size() <= i) w.push_back(0);
      w[i] = std::max(w[i], r[i].size());
    }
  for (const auto& r : rows) {
    std::string line;
    for (size_t i = 0; i < r.size(); ++i) {
      if (i) line += "  ";
      const std::string pad(w[i] - r[i].size(), ' ');
      line += i < 2 ? r[i] + pad : pad + r[i];  // text left, figures right
    }
    while (!line.empty() && line.back() == ' ') line.pop_back();
    std::printf("%s\n", line.c_str());
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc > 1 && std::strcmp(argv[1], "--dump") == 0) {
    const bool pretty = argc > 2 && std::strcmp(argv[2], "indented") == 0;
    const double mb = argc > 3 ? std::atof(argv[3]) : 20.0;
    if (argc < 3 || (!pretty && std::strcmp(argv[2], "compact") != 0) || !(mb > 0 && mb <= 1000)) {
      std::fprintf(stderr, "usage: json_bench --dump indented|compact [megabytes]\n");
      return 2;
    }
    Expected x, y;
    std::string text = catalog(true, 0, size_t(mb * 1e6), x);
    if (!pretty) text = catalog(false, x.records, text.size(), y);
    std::fwrite(text.data(), 1, text.size(), stdout);
    return 0;
  }
  const double megabytes = argc > 1 ? std::atof(argv[1]) : 20.0;
  const int rounds = argc > 2 ? std::atoi(argv[2]) : 5;
  int only = -1;
  if (argc > 3)
    for (int p = 0; p < kParsers; ++p)
      if (std::strcmp(argv[3], kParserNames[p]) == 0) only = p;
  if (!(megabytes > 0 && megabytes <= 1000) || rounds < 1 || (argc > 3 && only < 0) || argc > 4) {
    std::fprintf(stderr, "usage: json_bench [megabytes 0..1000] [rounds >= 1] [zan|rapidjson|nlohmann]\n");
    return 2;
  }

  Document docs[2] = {{"indented", {}, {}, {}}, {"compact", {}, {}, {}}};
  docs[0].text = catalog(true, 0, size_t(megabytes * 1e6), docs[0].x);
  docs[1].text = catalog(false, docs[0].x.records, docs[0].text.size(), docs[1].x);

  bool failed = false;
  for (Document& doc : docs) {
    Shape first;
    bool haveFirst = false;
    const char* firstName = nullptr;
    for (int r = 0; r < rounds && !failed; ++r) {
      for (int k = 0; k < kParsers; ++k) {
        const Parser p = Parser((r + k) % kParsers);
        if (only >= 0 && p != only) continue;
        double ps = 0, fs = 0;
        Shape s;
        if (!parseOnce(p, doc.text, ps, fs, s)) {
          std::fprintf(stderr, "json_bench: %s: %s rejected the document\n", doc.label, kParserNames[p]);
          failed = true;
          break;
        }
        const Expected& g = s.x;
        if (!s.catalogOk || g.records != doc.x.records || g.files != doc.x.files || g.sizeSum != doc.x.sizeSum ||
            g.fileBytes != doc.x.fileBytes) {
          std::fprintf(stderr,
                       "json_bench: %s: %s read %llu records, %llu files, sizes %lld, file bytes %lld; "
                       "generated %llu, %llu, %lld, %lld\n",
                       doc.label, kParserNames[p], (unsigned long long)g.records, (unsigned long long)g.files,
                       (long long)g.sizeSum, (long long)g.fileBytes, (unsigned long long)doc.x.records,
                       (unsigned long long)doc.x.files, (long long)doc.x.sizeSum, (long long)doc.x.fileBytes);
          failed = true;
          break;
        }
        if (!haveFirst) {
          first = s, haveFirst = true, firstName = kParserNames[p];
        } else if (!sameShape(first, s)) {
          std::fprintf(stderr,
                       "json_bench: %s: %s and %s disagree on the tree: "
                       "nodes %llu/%llu/%llu/%llu/%llu/%llu/%llu vs %llu/%llu/%llu/%llu/%llu/%llu/%llu, "
                       "string bytes %llu vs %llu, number sum %.17g vs %.17g\n",
                       doc.label, firstName, kParserNames[p], (unsigned long long)first.nulls,
                       (unsigned long long)first.bools, (unsigned long long)first.trues,
                       (unsigned long long)first.numbers, (unsigned long long)first.strings,
                       (unsigned long long)first.objects, (unsigned long long)first.arrays,
                       (unsigned long long)s.nulls, (unsigned long long)s.bools, (unsigned long long)s.trues,
                       (unsigned long long)s.numbers, (unsigned long long)s.strings, (unsigned long long)s.objects,
                       (unsigned long long)s.arrays, (unsigned long long)first.stringBytes,
                       (unsigned long long)s.stringBytes, first.numberSum, s.numberSum);
          failed = true;
          break;
        }
        Timing& t = doc.t[p];
        if (!t.ran || ps < t.parse) t.parse = ps;
        if (!t.ran || fs < t.free) t.free = fs;
        t.ran = true;
      }
    }
    if (failed) break;
  }
  if (failed) return 1;

  std::printf("json parse: best of %d rounds, parsers interleaved; MB = 10^6 bytes; "
              "free ms (not in MB/s) = dropping the tree\n",
              rounds);
  std::vector<std::vector<std::string>> rows = {
      {"document", "parser", "bytes", "records", "parse ms", "MB/s", "free ms"}};
  for (const Document& doc : docs)
    for (int p = 0; p < kParsers; ++p) {
      const Timing& t = doc.t[p];
      if (!t.ran) continue;
      rows.push_back({doc.label, kParserNames[p], std::to_string(doc.text.size()), std::to_string(doc.x.records),
                      fmt("%.1f", t.parse * 1e3), fmt("%.1f", double(doc.text.size()) / t.parse / 1e6),
                      fmt("%.1f", t.free * 1e3)});
    }
  printTable(rows);

  if (only < 0) {
    std::printf("\nspeed ratios (zan MB/s over the other's; higher is faster)\n");
    rows = {{"document", "", "zan/rapidjson", "target", "zan/nlohmann", "target"}};
    for (const Document& doc : docs) {
      const double vsRapid = doc.t[kRapid].parse / doc.t[kZan].parse;
      const double vsNlohmann = doc.t[kNlohmann].parse / doc.t[kZan].parse;
      rows.push_back({doc.label, "", fmt("%.3f", vsRapid), vsRapid >= 0.5 ? ">=0.5 ok" : ">=0.5 MISSED",
                      fmt("%.3f", vsNlohmann), vsNlohmann > 1.0 ? ">1.0 ok" : ">1.0 MISSED"});
    }
    printTable(rows);
  }
  return 0;
}
