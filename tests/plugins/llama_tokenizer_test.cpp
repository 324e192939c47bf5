// The llama runtime's tokenizer on small hand-made vocabularies; every
// expected id is worked out by hand from them.
#include <gtest/gtest.h>

#include <bit>
#include <string>
#include <vector>

#include "container/zan2_reader.h"
#include "plugins/llama/tokenizer.h"

namespace {

constexpr uint32_t kNone = 0xFFFFFFFFu;

struct Tok { std::string text; float score; uint32_t type; };

tov::TokenizerData makeData(const char* name, const std::vector<Tok>& toks, std::vector<std::string> merges = {},
                            uint32_t bos = kNone, uint32_t eos = kNone, uint32_t unk = kNone, bool addBos = false) {
  tov::TokenizerData d;
  d.name = name;
  for (const Tok& t : toks) {
    d.vocab.push_back(t.text);
    d.scores.push_back(std::bit_cast<uint32_t>(t.score));
    d.tokenTypes.push_back(t.type);
  }
  d.merges = std::move(merges);
  d.special[0] = bos, d.special[1] = eos, d.special[2] = unk, d.special[3] = kNone;
  d.addBos = addBos;
  return d;
}

// SentencePiece-style vocabulary. Type 1 normal, 2 unknown, 3 control, 4 user-defined, 5 unused, 6 byte.
const std::vector<Tok> kSpmVocab = {
    {"<unk>", 0, 2}, {"<s>", 0, 3}, {"</s>", 0, 3}, {"<0x0A>", 0, 6}, {"<0xC3>", 0, 6},  // 0-4
    {"<0xA9>", 0, 6}, {"<0xF0>", 0, 6}, {"<0x9F>", 0, 6}, {"<0x98>", 0, 6}, {"<0x80>", 0, 6},  // 5-9
    {"▁", -1, 1}, {"a", -2, 1}, {"b", -2, 1}, {"c", -2, 1}, {"d", -2, 1},  // 10-14
    {"ab", -5, 1}, {"bc", -3, 1}, {"cd", -4, 1}, {"▁a", -6, 1}, {"▁b", -1.5, 1},  // 15-19
    {"▁▁", -7, 1}, {"dd", -8, 1}, {"<", -2, 1}, {">", -2, 1}, {"<ab>", 0, 3},  // 20-24
    {"b>", -10, 4}, {"<pad>", 0, 5},                                  // 25-26
};

llama::Tokenizer made(const tov::TokenizerData& d) {
  llama::Tokenizer t;
  std::string err;
  EXPECT_TRUE(t.init(d, err)) << err;
  return t;
}
llama::Tokenizer spm() { return made(makeData("llama", kSpmVocab, {}, 1, 2, 0, true)); }

// Byte-level BPE: "Ġ" is the space, "Ċ" the newline, "Ã©" the bytes of "é"; ids from 0, ten a line.
std::vector<Tok> bpeVocab() {
  std::vector<Tok> v = {{"<|endoftext|>", 0, 3}};
  for (const char* t : {"h",  "e",  "l",    "o",  "Ġ",      "w",  "r",  "d",    "'",     "s",   // 1-10
                        "1",  "2",  "!",    ",",  "Ċ",      "he", "ll", "hell", "hello", "lo",  // 11-20
                        "Ġw", "or", "Ġwor", "ld", "Ġworld", "'s", "12", "o1",   "e'",    "ĠĠ",  // 21-30
                        "ĊĊ", "!,", "Ġ!",   "Ã",  "©",      "Ã©", "©!", "el"})                  // 31-38
    v.push_back({t, 0, 1});
  return v;
}

// By rank. The first three would join characters across word boundaries
// if pre-tokenisation missed them; "d d" makes a piece outside the vocabulary.
const std::vector<std::string> kBpeMerges = {
    "o 1",   "e '",  "© !",   "Ġ Ġ", "Ċ Ċ",     "h e", "l l", "he ll", "l o", "hell o", "Ġ w",
    "o r",   "Ġw or", "l d", "Ġwor ld", "' s", "1 2", "! ,", "Ġ !",   "Ã ©", "e l",    "d d",
};

struct Case { std::string text; bool special; std::vector<int32_t> ids; };

void expectEncodings(const llama::Tokenizer& t, const std::vector<Case>& cases) {
  for (const Case& c : cases) EXPECT_EQ(t.encode(c.text, false, c.special), c.ids) << c.text << " " << c.special;
}

// SPM: merges by score, byte fallback, control and user-defined tokens.
TEST(LlamaTokenizer, Spm) {
  expectEncodings(spm(), {
      // "ab" (-5) goes before the leftmost "▁a" (-6), which then can't happen; "bc" (-3) beats "ab" (-5)
      // and the lower "▁a" waits, then merges; of equal scores, the leftmost "dd" first.
      {"", false, {}}, {"ab", false, {10, 15}}, {"abc", false, {18, 16}}, {"abcd", false, {18, 16, 14}},
      {"ddd", false, {10, 21, 14}}, {"é", false, {10, 4, 5}}, {"😀", false, {10, 6, 7, 8, 9}},
      {"a\nb", false, {18, 3, 12}}, {"\xC3", false, {10, 4}},  // a broken character: its byte
      {"z", false, {10, 0}},                                       // no byte token for "z": unknown
      // The space prefix only at the start of the whole text; longest first: "<ab>" before the
      // user-defined "b>" inside it.
      {"<ab>", true, {24}}, {"<ab>", false, {10, 22, 15, 23}}, {"a<ab>b", true, {18, 24, 12}},
      {"a<ab>b", false, {18, 22, 15, 23, 12}}, {"b> a", true, {25, 18}}, {"<ab>b>", true, {24, 25}},
  });
}

// Byte-level BPE: merges by rank after pre-tokenisation.
TEST(LlamaTokenizer, Bpe) {
  expectEncodings(made(makeData("gpt2", bpeVocab(), kBpeMerges, 0, 0)), {
      {"", false, {}}, {"hello world", false, {19, 25}},
      {"ell", false, {2, 17}},  // "l l" (6) before the leftmost "e l" (20)
      {"llo", false, {17, 4}}, {"dd", false, {8, 8}},  // "dd" is no token: its characters
      {"hex", false, {16}},  // "x" is no token and there is no unknown
      {"hé!", false, {1, 36, 13}}, {"he's", false, {16, 26}}, {"he'll", false, {16, 9, 17}},
      {"hello12", false, {19, 27}}, {" !,", false, {5, 32}}, {"hello  world", false, {19, 5, 25}},
      {"hello  ", false, {19, 30}}, {"hello\n\nworld", false, {19, 15, 15, 6, 22, 24}},
      {"hello\n\n", false, {19, 31}}, {"hello<|endoftext|>", true, {19, 0}},
  });
}

// Words of each pre-tokenizer split, worked out by hand from its pattern.
TEST(LlamaTokenizer, PreTokenizerSplits) {
  using llama::PreSplit;
  struct Case { PreSplit kind; const char* text; std::vector<std::string_view> words; };
  const Case cases[] = {
      {PreSplit::Gpt2, "I'm don'T", {"I", "'m", " don", "'", "T"}},
      {PreSplit::Gpt2, "hello  world 12345", {"hello", " ", " world", " 12345"}},
      {PreSplit::Gpt2, "Hi!!! ok\n\nb", {"Hi", "!!!", " ok", "\n", "\n", "b"}},
      {PreSplit::Gpt2, "caf\xC3\xA9 \xE6\x97\xA5\xE6\x9C\xAC \xF0\x9F\x91\x8D\xF0\x9F\x91\x8D x",
       {"caf\xC3\xA9", " \xE6\x97\xA5\xE6\x9C\xAC", " \xF0\x9F\x91\x8D\xF0\x9F\x91\x8D", " x"}},
      {PreSplit::Llama3, "I'M don'T", {"I", "'M", " don", "'T"}},
      {PreSplit::Llama3, "price: 1234567", {"price", ":", " ", "123", "456", "7"}},
      {PreSplit::Llama3, "(hello) world", {"(hello", ")", " world"}},
      {PreSplit::Llama3, "a\n\nb", {"a", "\n\n", "b"}},
      {PreSplit::Llama3, "x  \n  y", {"x", "  \n", " ", " y"}},
      {PreSplit::Llama3, "!!!\n\nok  ", {"!!!\n\n", "ok", "  "}},
      {PreSplit::Llama3, "ok \xF0\x9F\x91\x8D\xF0\x9F\x91\x8D \xE6\x97\xA5\xE6\x9C\xAC\xE8\xAA\x9E" "12",
       {"ok", " \xF0\x9F\x91\x8D\xF0\x9F\x91\x8D", " \xE6\x97\xA5\xE6\x9C\xAC\xE8\xAA\x9E", "12"}},
      {PreSplit::Qwen2, "price: 1234", {"price", ":", " ", "1", "2", "3", "4"}},
      {PreSplit::Qwen2, "We'RE\tgo", {"We", "'RE", "\tgo"}},
  };
  for (const Case& c : cases) EXPECT_EQ(llama::splitWords(c.kind, c.text), c.words) << c.text;

  // An unknown name falls back to the GPT-2 split; merges must join tokens.
  llama::Tokenizer t;
  std::string err;
  const std::vector<Tok> v = {{"a", 0, 1}, {"b", 0, 1}, {"ab", 0, 1}};
  ASSERT_TRUE(t.init(makeData("gpt2", v, {"a b"}), err, "tekken")) << err;
  EXPECT_EQ(t.warning(), "unknown pre-tokenizer \"tekken\": using the GPT-2 split");
  ASSERT_TRUE(t.init(makeData("gpt2", v, {"a b"}), err, "qwen2")) << err;
  EXPECT_EQ(t.warning(), "");
  EXPECT_FALSE(t.init(makeData("gpt2", v, {"a b", "ab c"}), err));
  EXPECT_EQ(err, "the tokenizer's merge 1 (\"ab c\") does not join two tokens of its vocabulary");
  EXPECT_FALSE(t.init(makeData("gpt2", v, {"ab"}), err));
}

TEST(LlamaTokenizer, DetokenizerStreamsWholeCharacters) {
  const llama::Tokenizer t = spm();
  struct Step { int32_t id; std::string out; };  // id -1: flush
  const std::vector<std::vector<Step>> streams = {
      {{6, ""}, {7, ""}, {8, ""}, {9, "😀"}}, {{4, ""}, {5, "é"}},
      {{11, "a"}, {10, " "}, {4, ""}, {18, "\uFFFD a"}},  // a space can't continue "\xC3"
      {{6, ""}, {1, ""}, {7, ""}, {8, ""}, {9, "😀"}},  // a control token in between
      {{9, "\uFFFD"}},                                   // a lone continuation byte at once
      {{6, ""}, {9, "\uFFFD\uFFFD"}},                    // "\xF0\x80" never starts a character
      {{4, ""}, {6, "\uFFFD"}, {7, ""}, {8, ""}, {9, "\xF0\x9F\x98\x80"}},
      {{6, ""}, {7, ""}, {-1, "\uFFFD"}},  // an unfinished character
  };
  for (size_t s = 0; s < streams.size(); ++s) {
    llama::Detokenizer d(t);
    for (size_t k = 0; k < streams[s].size(); ++k)
      EXPECT_EQ(streams[s][k].id < 0 ? d.flush() : d.push(streams[s][k].id), streams[s][k].out)
          << "stream " << s << " step " << k;
    EXPECT_EQ(d.flush(), "") << "stream " << s;
  }
}

TEST(LlamaTokenizer, InitChecksTheData) {
  const std::vector<Tok> small = {{"<unk>", 0, 2}, {"a", -1, 1}};
  struct Bad { const char* what; tov::TokenizerData data; };
  std::vector<Bad> bad = {
      {"empty vocabulary", makeData("llama", {})}, {"unknown name", makeData("bert", small)},
      {"scores", makeData("llama", small)}, {"types", makeData("llama", small)},
      {"bos", makeData("llama", small, {}, 2)}, {"eos", makeData("llama", small, {}, kNone, 7)},
      {"unk", makeData("gpt2", small, {}, kNone, kNone, 2)}, {"pad", makeData("llama", small)},
  };
  bad[2].data.scores.pop_back();
  bad[3].data.tokenTypes.push_back(1);
  bad[7].data.special[3] = 2;
  for (const Bad& b : bad) {
    llama::Tokenizer t;
    std::string err;
    EXPECT_FALSE(t.init(b.data, err)) << b.what;
    EXPECT_NE(err, "") << b.what;
  }

  // No scores or types: "<0x41>" is taken for a byte token; with no BOS and
  // no unknown token, a character without any token is left out.
  tov::TokenizerData bare = makeData("llama", {{"<0x41>", 0, 0}, {"▁", 0, 0}, {"b", 0, 0}, {"b", 0, 0}});
  bare.scores.clear(), bare.tokenTypes.clear();  // a repeated text keeps its first id
  const llama::Tokenizer t = made(bare);
  EXPECT_TRUE(t.bos() == -1 && t.eos() == -1) << t.bos() << " " << t.eos();
  EXPECT_EQ(t.encode("Ab", true), (std::vector<int32_t>{1, 0, 2}));
  EXPECT_EQ(t.encode("z", true), (std::vector<int32_t>{1}));
  EXPECT_EQ(t.piece(0), "A");
}

}  // namespace
