// Tokenizer of the llama runtime. Both kinds merge adjacent symbols through a
// priority queue over a linked list of symbols, so a text of n characters
// costs O(n log n): SPM takes the pair whose joined text is the best-scored
// piece, BPE the pair with the lowest merge rank; ties go to the leftmost.
#include "plugins/llama/tokenizer.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstring>
#include <limits>
#include <queue>

namespace llama {

namespace {

constexpr uint32_t kAbsent = 0xFFFFFFFFu;
// GGUF token types.
constexpr uint32_t kNormal = 1, kUnknown = 2, kControl = 3, kUserDefined = 4, kUnused = 5, kByte = 6;

constexpr std::string_view kSpmSpace = "\xE2\x96\x81";    // U+2581, the SPM space
constexpr std::string_view kSpmUnknown = "\xE2\x96\x85";  // U+2585, shown for the unknown token

// ---------------------------------------------------------------- UTF-8

enum class Utf8 { Complete, Truncated, Invalid };

// The character starting at s[i]: Complete with its length; Truncated when
// s ends inside a well-formed start (len = the bytes there are); Invalid
// (len 1) when no bytes that follow could ever make it a character.
Utf8 utf8At(std::string_view s, size_t i, size_t& len) {
  const auto b = uint8_t(s[i]);
  size_t need;
  uint8_t lo = 0x80, hi = 0xBF;  // allowed range of the second byte
  if (b < 0x80) {
    len = 1;
    return Utf8::Complete;
  } else if (b >= 0xC2 && b <= 0xDF) {
    need = 2;
  } else if (b >= 0xE0 && b <= 0xEF) {
    need = 3;
    if (b == 0xE0) lo = 0xA0;       // no overlong forms
    else if (b == 0xED) hi = 0x9F;  // no surrogates
  } else if (b >= 0xF0 && b <= 0xF4) {
    need = 4;
    if (b == 0xF0) lo = 0x90;
    else if (b == 0xF4) hi = 0x8F;  // nothing above U+10FFFF
  } else {
    len = 1;
    return Utf8::Invalid;
  }
  for (size_t k = 1; k < need; ++k) {
    if (i + k >= s.size()) {
      len = s.size() - i;
      return Utf8::Truncated;
    }
    const auto c = uint8_t(s[i + k]);
    if (c < (k == 1 ? lo : 0x80) || c > (k == 1 ? hi : 0xBF)) {
      len = 1;
      return Utf8::Invalid;
    }
  }
  len = need;
  return Utf8::Complete;
}

// Length of the character at s[i] for splitting text: a broken one is a
// single byte.
size_t charLen(std::string_view s, size_t i) {
  size_t len;
  return utf8At(s, i, len) == Utf8::Complete ? len : 1;
}

// The byte of a "<0xAB>" text, or -1.
int byteOfText(std::string_view s) {
  if (s.size() != 6 || s[0] != '<' || s[1] != '0' || s[2] != 'x' || s[5] != '>') return -1;
  int v = 0;
  for (size_t k = 3; k < 5; ++k) {
    const char c = s[k];
    int d;
    if (c >= '0' && c <= '9') d = c - '0';
    else if (c >= 'A' && c <= 'F') d = c - 'A' + 10;
    else if (c >= 'a' && c <= 'f') d = c - 'a' + 10;
    else return -1;
    v = v * 16 + d;
  }
  return v;
}

// ---------------------------------------------------- GPT-2 byte alphabet

// Printable bytes stand for themselves; the others (controls, space, DEL,
// the Latin-1 gaps) are given the code points from U+0100 up, in order.
struct ByteAlphabet {
  std::string text[256];  // UTF-8 of the code point of each byte
  int16_t byteOf[512];    // code point -> byte, or -1
};

const ByteAlphabet& byteAlphabet() {
  static const ByteAlphabet a = [] {
    ByteAlphabet m;
    std::fill(std::begin(m.byteOf), std::end(m.byteOf), int16_t(-1));
    unsigned next = 256;
    for (unsigned b = 0; b < 256; ++b) {
      const bool printable = (b >= 33 && b <= 126) || (b >= 161 && b <= 172) || (b >= 174 && b <= 255);
      const unsigned cp = printable ? b : next++;
      m.byteOf[cp] = int16_t(b);
      if (cp < 0x80) {
        m.text[b] = std::string(1, char(cp));
      } else {
        m.text[b] = {char(0xC0 | (cp >> 6)), char(0x80 | (cp & 0x3F))};
      }
    }
    return m;
  }();
  return a;
}

// ------------------------------------------------------ pre-tokenisation

#include "plugins/llama/unicode_classes.inc"

enum class Cls : uint8_t { Letter, Digit, Space, Other };

bool inRanges(const uint32_t (*r)[2], size_t n, uint32_t cp) {
  size_t lo = 0, hi = n;
  while (lo < hi) {
    const size_t mid = (lo + hi) / 2;
    if (cp < r[mid][0]) hi = mid;
    else if (cp > r[mid][1]) lo = mid + 1;
    else return true;
  }
  return false;
}

// The code point of the character at s[i] of `len` bytes (a broken byte
// stands for itself).
uint32_t codePoint(std::string_view s, size_t i, size_t len) {
  const auto b = uint8_t(s[i]);
  if (len == 1) return b;
  uint32_t cp = b & (0xFFu >> (len + 1));
  for (size_t k = 1; k < len; ++k) cp = cp << 6 | (uint8_t(s[i + k]) & 0x3Fu);
  return cp;
}

Cls classOf(uint32_t cp) {
  if (cp < 0x80) {
    if ((cp >= 'a' && cp <= 'z') || (cp >= 'A' && cp <= 'Z')) return Cls::Letter;
    if (cp >= '0' && cp <= '9') return Cls::Digit;
    if (cp == ' ' || (cp >= '\t' && cp <= '\r')) return Cls::Space;
    return Cls::Other;
  }
  switch (cp) {
    case 0x85: case 0xA0: case 0x1680: case 0x2028: case 0x2029: case 0x202F: case 0x205F: case 0x3000:
      return Cls::Space;
    default: break;
  }
  if (cp >= 0x2000 && cp <= 0x200A) return Cls::Space;
  if (inRanges(kLetterRanges, std::size(kLetterRanges), cp)) return Cls::Letter;
  if (inRanges(kNumberRanges, std::size(kNumberRanges), cp)) return Cls::Digit;
  return Cls::Other;
}

struct Char {
  size_t off, len;
  Cls cls;
  char ascii;  // the character when it is ASCII, else 0
};

// Splits `text` into words by one of the patterns
//   GPT-2:  's|'t|'re|'ve|'m|'ll|'d| ?\p{L}+| ?\p{N}+| ?[^\s\p{L}\p{N}]+|\s+(?!\S)|\s+
//   llama3: (?i:'s|'t|'re|'ve|'m|'ll|'d)|[^\r\n\p{L}\p{N}]?\p{L}+|\p{N}{1,3}|
//           ?[^\s\p{L}\p{N}]+[\r\n]*|\s*[\r\n]+|\s+(?!\S)|\s+
//   qwen2:  as llama3 with \p{N} for \p{N}{1,3}
// as byte ranges: at each point the first alternative that matches wins.
void preWords(PreSplit kind, std::string_view text, std::vector<std::pair<size_t, size_t>>& words) {
  std::vector<Char> cs;
  for (size_t i = 0; i < text.size();) {
    const size_t len = charLen(text, i);
    const uint32_t cp = codePoint(text, i, len);
    cs.push_back({i, len, len == 1 && uint8_t(text[i]) >= 0x80 ? Cls::Letter : classOf(cp), cp < 0x80 ? char(cp) : '\0'});
    i += len;
  }
  const size_t n = cs.size();
  const bool fold = kind != PreSplit::Gpt2;  // contractions in any case
  auto is = [&](size_t k, char c) {
    if (k >= n) return false;
    const char a = cs[k].ascii;
    return a == c || (fold && a >= 'A' && a <= 'Z' && a + ('a' - 'A') == c);
  };
  auto cls = [&](size_t k) { return k < n ? cs[k].cls : Cls::Space; };
  auto newline = [&](size_t k) { return k < n && (cs[k].ascii == '\r' || cs[k].ascii == '\n'); };
  auto run = [&](size_t k, Cls c) {
    while (k < n && cs[k].cls == c) ++k;
    return k;
  };
  size_t i = 0;
  while (i < n) {
    size_t end = i;  // one past the last character of this word
    if (is(i, '\'') && (is(i + 1, 's') || is(i + 1, 't') || is(i + 1, 'm') || is(i + 1, 'd'))) {
      end = i + 2;
    } else if (is(i, '\'') && ((is(i + 1, 'r') && is(i + 2, 'e')) || (is(i + 1, 'v') && is(i + 2, 'e')) ||
                               (is(i + 1, 'l') && is(i + 2, 'l')))) {
      end = i + 3;
    } else if (kind == PreSplit::Gpt2) {
      size_t j = i;
      if (is(i, ' ') && i + 1 < n && cs[i + 1].cls != Cls::Space) j = i + 1;
      if (cs[j].cls != Cls::Space) {
        end = run(j, cs[j].cls);
      } else {
        // A run of whitespace: all of it at the end of the text, else all
        // but its last character (which may start the next word), and at
        // least one.
        const size_t k = run(i, Cls::Space);
        end = (k == n || k - i == 1) ? k : k - 1;
      }
    } else if (cls(i) == Cls::Letter) {
      end = run(i, Cls::Letter);
    } else if (cls(i) != Cls::Digit && !newline(i) && cls(i + 1) == Cls::Letter) {
      end = run(i + 1, Cls::Letter);
    } else if (cls(i) == Cls::Digit) {
      const size_t most = kind == PreSplit::Qwen2 ? 1 : 3;
      end = std::min(run(i, Cls::Digit), i + most);
    } else if (cls(i) == Cls::Other || (is(i, ' ') && cls(i + 1) == Cls::Other)) {
      end = run(cls(i) == Cls::Other ? i : i + 1, Cls::Other);
      while (newline(end)) ++end;
    } else {
      // Whitespace: up to its last newline when it has one; otherwise as
      // in the GPT-2 split.
      const size_t k = run(i, Cls::Space);
      size_t lastNl = n;
      for (size_t m = i; m < k; ++m)
        if (newline(m)) lastNl = m;
      if (lastNl != n) end = lastNl + 1;
      else end = (k == n || k - i == 1) ? k : k - 1;
    }
    const size_t from = cs[i].off, to = end < n ? cs[end].off : text.size();
    words.emplace_back(from, to - from);
    i = end;
  }
}

// ------------------------------------------------------- symbol merging

struct Sym {
  size_t off, len;  // bytes of the text; len 0 once merged into its left
  int64_t prev, next;
};

struct Pair {
  double key;  // higher merges first
  int64_t left, right;
  size_t len;  // joined length when queued; differs once either side changed
};

struct PairOrder {
  bool operator()(const Pair& a, const Pair& b) const {
    return a.key < b.key || (a.key == b.key && a.left > b.left);
  }
};

// Symbols over `text`, one per character.
std::vector<Sym> charSymbols(std::string_view text) {
  std::vector<Sym> syms;
  for (size_t i = 0; i < text.size();) {
    const size_t len = charLen(text, i);
    const auto k = int64_t(syms.size());
    syms.push_back({i, len, k - 1, -1});
    if (k > 0) syms[size_t(k - 1)].next = k;
    i += len;
  }
  return syms;
}

// Merges neighbours while keyOf(left, right, key) accepts some pair,
// always taking the best key, leftmost among equals.
template <class KeyOf>
void mergeSymbols(std::string_view text, std::vector<Sym>& syms, const KeyOf& keyOf) {
  std::priority_queue<Pair, std::vector<Pair>, PairOrder> queue;
  auto offer = [&](int64_t l, int64_t r) {
    if (l < 0 || r < 0) return;
    const Sym& a = syms[size_t(l)];
    const Sym& b = syms[size_t(r)];
    double key;
    if (keyOf(text.substr(a.off, a.len), text.substr(b.off, b.len), key)) queue.push({key, l, r, a.len + b.len});
  };
  for (size_t i = 1; i < syms.size(); ++i) offer(int64_t(i - 1), int64_t(i));
  while (!queue.empty()) {
    const Pair p = queue.top();
    queue.pop();
    Sym& l = syms[size_t(p.left)];
    Sym& r = syms[size_t(p.right)];
    if (l.len == 0 || r.len == 0 || l.next != p.right || l.len + r.len != p.len) continue;  // stale
    l.len += r.len;
    r.len = 0;
    l.next = r.next;
    if (r.next >= 0) syms[size_t(r.next)].prev = p.left;
    offer(l.prev, p.left);
    offer(p.left, l.next);
  }
}

}  // namespace

std::vector<std::string_view> splitWords(PreSplit kind, std::string_view text) {
  std::vector<std::pair<size_t, size_t>> words;
  preWords(kind, text, words);
  std::vector<std::string_view> out;
  for (const auto& [off, len] : words) out.push_back(text.substr(off, len));
  return out;
}

// ------------------------------------------------------------ Tokenizer

bool Tokenizer::init(const tov::TokenizerData& data, std::string& err, std::string_view pre) {
  *this = Tokenizer();
  if (pre.empty() || pre == "default" || pre == "gpt2" || pre == "gpt-2") {
    pre_ = PreSplit::Gpt2;
  } else if (pre == "llama-bpe" || pre == "llama3" || pre == "llama-v3") {
    pre_ = PreSplit::Llama3;
  } else if (pre == "qwen2") {
    pre_ = PreSplit::Qwen2;
  } else {
    pre_ = PreSplit::Gpt2;
    if (data.name == "gpt2")
      warning_ = "unknown pre-tokenizer \"" + std::string(pre.substr(0, 64)) + "\": using the GPT-2 split";
  }
  if (data.name == "llama") {
    kind_ = Kind::Spm;
  } else if (data.name == "gpt2") {
    kind_ = Kind::Bpe;
  } else {
    err = "unknown tokenizer \"" + data.name.substr(0, 64) + "\"";
    return false;
  }
  const size_t n = data.vocab.size();
  if (n == 0) {
    err = "the tokenizer has an empty vocabulary";
    return false;
  }
  if (n > size_t(INT32_MAX)) {
    err = "the tokenizer's vocabulary is too large";
    return false;
  }
  if (!data.scores.empty() && data.scores.size() != n) {
    err = "the tokenizer has " + std::to_string(data.scores.size()) + " scores for " + std::to_string(n) + " tokens";
    return false;
  }
  if (!data.tokenTypes.empty() && data.tokenTypes.size() != n) {
    err = "the tokenizer has " + std::to_string(data.tokenTypes.size()) + " token types for " + std::to_string(n) +
          " tokens";
    return false;
  }
  static const char* const kSpecialNames[4] = {"BOS", "EOS", "unknown", "padding"};
  for (int k = 0; k < 4; ++k) {
    if (data.special[k] != kAbsent && data.special[k] >= n) {
      err = std::string("the tokenizer's ") + kSpecialNames[k] + " token " + std::to_string(data.special[k]) +
            " is outside its vocabulary of " + std::to_string(n);
      return false;
    }
  }

  vocab_ = data.vocab;
  scores_.assign(n, 0.0f);
  for (size_t i = 0; i < data.scores.size(); ++i) {
    float f;
    std::memcpy(&f, &data.scores[i], sizeof f);
    scores_[i] = std::isnan(f) ? -std::numeric_limits<float>::infinity() : f;  // NaN would break the ordering
  }
  types_.assign(n, kNormal);
  for (size_t i = 0; i < n; ++i) {
    if (!data.tokenTypes.empty()) {
      const uint32_t t = data.tokenTypes[i];
      types_[i] = (t >= kNormal && t <= kByte) ? t : kNormal;
    } else if (kind_ == Kind::Spm && byteOfText(vocab_[i]) >= 0) {
      types_[i] = kByte;
    }
  }

  std::fill(std::begin(byteTokens_), std::end(byteTokens_), -1);
  ids_.reserve(n);
  for (size_t i = 0; i < n; ++i) {
    const std::string& t = vocab_[i];
    ids_.emplace(t, int32_t(i));  // a repeated text keeps its first id
    maxLen_ = std::max(maxLen_, t.size());
    if (kind_ == Kind::Spm) {
      const int b = byteOfText(t);
      if (b >= 0 && byteTokens_[b] < 0) byteTokens_[b] = int32_t(i);
    }
    if ((types_[i] == kControl || types_[i] == kUserDefined) && !t.empty()) controls_.push_back(int32_t(i));
  }
  std::stable_sort(controls_.begin(), controls_.end(),
                   [&](int32_t a, int32_t b) { return vocab_[size_t(a)].size() > vocab_[size_t(b)].size(); });

  if (kind_ == Kind::Bpe) {
    mergeRank_.reserve(data.merges.size());
    for (size_t r = 0; r < data.merges.size() && r <= size_t(INT32_MAX); ++r) {
      const std::string& m = data.merges[r];
      const size_t sp = m.find(' ');
      if (sp == std::string::npos || sp == 0 || sp + 1 == m.size() || ids_.count(std::string_view(m).substr(0, sp)) == 0 ||
          ids_.count(std::string_view(m).substr(sp + 1)) == 0) {
        err = "the tokenizer's merge " + std::to_string(r) + " (\"" + m.substr(0, 64) +
              "\") does not join two tokens of its vocabulary";
        return false;
      }
      mergeRank_.emplace(m, int32_t(r));  // a repeated merge keeps its first rank
    }
  }

  auto id = [](uint32_t v) { return v == kAbsent ? -1 : int32_t(v); };
  bos_ = id(data.special[0]);
  eos_ = id(data.special[1]);
  unk_ = id(data.special[2]);
  addBos_ = data.addBos;
  return true;
}

int32_t Tokenizer::find(std::string_view text) const {
  const auto it = ids_.find(text);
  return it == ids_.end() ? -1 : it->second;
}

int32_t Tokenizer::pieceId(std::string_view text) const {
  if (text.size() > maxLen_) return -1;
  const int32_t id = find(text);
  if (id < 0) return -1;
  const uint32_t t = types_[size_t(id)];
  return (t == kNormal || t == kUserDefined) ? id : -1;
}

bool Tokenizer::isControl(int32_t id) const {
  return id >= 0 && size_t(id) < types_.size() && types_[size_t(id)] == kControl;
}

std::vector<int32_t> Tokenizer::encode(std::string_view text, bool addBos, bool special) const {
  std::vector<int32_t> out;
  if (vocab_.empty()) return out;
  if (addBos && bos_ >= 0) out.push_back(bos_);
  if (text.empty()) return out;

  // Cut out the control tokens, longest text first over the whole text.
  struct Frag {
    size_t off, len;
    int32_t id;  // >= 0: the fragment is this token
  };
  std::vector<Frag> frags{{0, text.size(), -1}}, next;
  if (special) {
    for (const int32_t c : controls_) {
      const std::string_view ct = vocab_[size_t(c)];
      next.clear();
      for (const Frag& f : frags) {
        if (f.id >= 0 || f.len < ct.size()) {
          next.push_back(f);
          continue;
        }
        const std::string_view s = text.substr(f.off, f.len);
        size_t from = 0;
        for (size_t at; (at = s.find(ct, from)) != std::string_view::npos; from = at + ct.size()) {
          if (at > from) next.push_back({f.off + from, at - from, -1});
          next.push_back({f.off + at, ct.size(), c});
        }
        if (from < s.size()) next.push_back({f.off + from, s.size() - from, -1});
      }
      frags.swap(next);
    }
  }

  for (const Frag& f : frags) {
    if (f.id >= 0) {
      out.push_back(f.id);
    } else if (kind_ == Kind::Spm) {
      // The space prefix goes only before text that starts the whole input.
      encodeSpm(text.substr(f.off, f.len), f.off == 0, out);
    } else {
      encodeBpe(text.substr(f.off, f.len), out);
    }
  }
  return out;
}

void Tokenizer::encodeSpm(std::string_view text, bool prefix, std::vector<int32_t>& out) const {
  std::string s;
  s.reserve(text.size() + 3);
  if (prefix) s += kSpmSpace;
  for (const char c : text) {
    if (c == ' ') s += kSpmSpace;
    else s += c;
  }
  std::vector<Sym> syms = charSymbols(s);
  mergeSymbols(s, syms, [&](std::string_view l, std::string_view r, double& key) {
    const int32_t id = pieceId(std::string_view(l.data(), l.size() + r.size()));  // l and r are adjacent in s
    if (id < 0) return false;
    key = scores_[size_t(id)];
    return true;
  });
  for (int64_t k = syms.empty() ? -1 : 0; k >= 0; k = syms[size_t(k)].next) {
    const std::string_view piece = std::string_view(s).substr(syms[size_t(k)].off, syms[size_t(k)].len);
    const int32_t id = pieceId(piece);
    if (id >= 0) {
      out.push_back(id);
      continue;
    }
    // Byte fallback: all its bytes as byte tokens, or else one unknown token.
    const bool bytes = std::all_of(piece.begin(), piece.end(), [&](char c) { return byteTokens_[uint8_t(c)] >= 0; });
    if (bytes) {
      for (const char c : piece) out.push_back(byteTokens_[uint8_t(c)]);
    } else if (unk_ >= 0) {
      out.push_back(unk_);
    }
  }
}

void Tokenizer::encodeBpe(std::string_view text, std::vector<int32_t>& out) const {
  const ByteAlphabet& alpha = byteAlphabet();
  std::vector<std::pair<size_t, size_t>> words;
  preWords(pre_, text, words);
  std::string mapped, pairText;
  std::vector<Sym> syms;
  for (const auto& [off, len] : words) {
    mapped.clear();
    syms.clear();
    for (size_t i = 0; i < len; ++i) {
      const std::string& t = alpha.text[uint8_t(text[off + i])];
      const auto k = int64_t(syms.size());
      syms.push_back({mapped.size(), t.size(), k - 1, k + 1 < int64_t(len) ? k + 1 : -1});
      mapped += t;
    }
    mergeSymbols(mapped, syms, [&](std::string_view l, std::string_view r, double& key) {
      pairText.assign(l);
      pairText += ' ';
      pairText += r;
      const auto it = mergeRank_.find(std::string_view(pairText));
      if (it == mergeRank_.end()) return false;
      key = -double(it->second);
      return true;
    });
    for (int64_t k = syms.empty() ? -1 : 0; k >= 0; k = syms[size_t(k)].next) {
      const std::string_view piece = std::string_view(mapped).substr(syms[size_t(k)].off, syms[size_t(k)].len);
      const int32_t id = pieceId(piece);
      if (id >= 0) {
        out.push_back(id);
        continue;
      }
      // Not a token: its characters one by one.
      for (size_t i = 0; i < piece.size();) {
        const size_t cl = charLen(piece, i);
        const int32_t cid = pieceId(piece.substr(i, cl));
        if (cid >= 0) out.push_back(cid);
        else if (unk_ >= 0) out.push_back(unk_);
        i += cl;
      }
    }
  }
}

std::string Tokenizer::piece(int32_t id) const {
  if (id < 0 || size_t(id) >= vocab_.size()) return {};
  const uint32_t t = types_[size_t(id)];
  const std::string& text = vocab_[size_t(id)];
  if (t == kControl || t == kUnused) return {};
  std::string out;
  if (kind_ == Kind::Spm) {
    if (t == kByte) {
      const int b = byteOfText(text);
      return b < 0 ? std::string() : std::string(1, char(b));
    }
    if (t == kUnknown) return std::string(kSpmUnknown);
    out.reserve(text.size());
    for (size_t i = 0; i < text.size();) {
      if (text.compare(i, kSpmSpace.size(), kSpmSpace) == 0) {
        out += ' ';
        i += kSpmSpace.size();
      } else {
        out += text[i++];
      }
    }
    return out;
  }
  if (t == kUserDefined) return text;
  if (t != kNormal) return {};
  // Each character of the byte alphabet back to its byte; anything else
  // (not produced by the alphabet) as it is.
  const ByteAlphabet& alpha = byteAlphabet();
  out.reserve(text.size());
  for (size_t i = 0; i < text.size();) {
    size_t len;
    if (utf8At(text, i, len) == Utf8::Complete && len <= 2) {
      const auto b0 = uint8_t(text[i]);
      const unsigned cp = len == 1 ? b0 : ((b0 & 0x1Fu) << 6) | (uint8_t(text[i + 1]) & 0x3Fu);
      if (cp < 512 && alpha.byteOf[cp] >= 0) {
        out += char(alpha.byteOf[cp]);
        i += len;
        continue;
      }
    }
    const size_t cl = charLen(text, i);
    out.append(text, i, cl);
    i += cl;
  }
  return out;
}

// ---------------------------------------------------------- Detokenizer

// Bytes that can never be part of a character go out as U+FFFD, so
// everything handed out is valid UTF-8 whatever the model samples.
constexpr char kReplacement[] = "\xEF\xBF\xBD";

std::string Detokenizer::push(int32_t id) {
  pending_ += tok_.piece(id);
  // Everything up to the start of a character that may still complete.
  std::string out;
  size_t i = 0;
  while (i < pending_.size()) {
    size_t len;
    const Utf8 kind = utf8At(pending_, i, len);
    if (kind == Utf8::Truncated) break;
    if (kind == Utf8::Invalid) out += kReplacement;
    else out.append(pending_, i, len);
    i += len;
  }
  pending_.erase(0, i);
  return out;
}

std::string Detokenizer::flush() {
  // What is held back is the start of a character that never completed.
  std::string out = pending_.empty() ? "" : kReplacement;
  pending_.clear();
  return out;
}

}  // namespace llama
