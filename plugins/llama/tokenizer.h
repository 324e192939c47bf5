// Text to token ids and back for the llama runtime, from the tokenizer
// section of a model container: SentencePiece-style BPE by piece scores
// with byte fallback ("llama"), and byte-level BPE by merge ranks ("gpt2").
// Byte-level BPE first splits text into words by the pre-tokenizer the
// model names: the GPT-2 split, the llama-3 one ("llama-bpe": letters with
// one leading non-letter, digits in threes, newlines kept with the run
// before them) or qwen2's (the same with single digits).
// Decoding streams: bytes of a character that spans tokens are held back
// until the character is complete, so every piece handed out is valid UTF-8.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "container/zan2_reader.h"

namespace llama {

enum class PreSplit { Gpt2, Llama3, Qwen2 };

// The words of `text` under a pre-tokenizer split, in order; together they
// are the whole text.
std::vector<std::string_view> splitWords(PreSplit kind, std::string_view text);

class Tokenizer {
 public:
  enum class Kind { Spm, Bpe };

  // From the container's tokenizer data and the pre-tokenizer name ("" for
  // the default); false with `err` for an empty or inconsistent vocabulary,
  // merges that name unknown tokens or an unknown tokenizer name. A
  // pre-tokenizer name we don't know falls back to the GPT-2 split and
  // leaves a note in warning().
  bool init(const tov::TokenizerData& data, std::string& err, std::string_view pre = "");
  const std::string& warning() const { return warning_; }

  // Token ids of `text`; with `addBos` and a BOS id, BOS first. With
  // `special`, the texts of control tokens (such as "<|im_start|>") that
  // occur in `text` become those tokens instead of being split.
  std::vector<int32_t> encode(std::string_view text, bool addBos, bool special = false) const;

  // The bytes token `id` stands for ("▁" as a space, "<0xAB>" as that byte,
  // the GPT-2 byte alphabet mapped back); control tokens give "".
  std::string piece(int32_t id) const;

  Kind kind() const { return kind_; }
  size_t size() const { return vocab_.size(); }
  int32_t bos() const { return bos_; }  // -1 when there is none
  int32_t eos() const { return eos_; }
  bool addBos() const { return addBos_; }
  bool isControl(int32_t id) const;
  // The id of a piece exactly as the vocabulary spells it, or -1.
  int32_t find(std::string_view text) const;

 private:
  // Lets the maps be searched with a string_view, without a copy.
  struct TextHash {
    using is_transparent = void;
    size_t operator()(std::string_view s) const { return std::hash<std::string_view>()(s); }
  };
  using TextMap = std::unordered_map<std::string, int32_t, TextHash, std::equal_to<>>;

  // The id of `text` when it is a piece that encoding may produce (normal
  // or user-defined), else -1.
  int32_t pieceId(std::string_view text) const;
  void encodeSpm(std::string_view text, bool prefix, std::vector<int32_t>& out) const;
  void encodeBpe(std::string_view text, std::vector<int32_t>& out) const;

  Kind kind_ = Kind::Spm;
  PreSplit pre_ = PreSplit::Gpt2;
  std::string warning_;
  std::vector<std::string> vocab_;
  std::vector<float> scores_;    // one per token (0 when the data has none)
  std::vector<uint32_t> types_;  // one per token, GGUF token types 1..6
  TextMap ids_;
  TextMap mergeRank_;  // "a b" -> rank
  size_t maxLen_ = 0;  // longest token text
  int32_t bos_ = -1, eos_ = -1, unk_ = -1;
  bool addBos_ = false;
  int32_t byteTokens_[256] = {};  // SPM: id of "<0xAB>", or -1
  std::vector<int32_t> controls_;  // ids of control and user-defined tokens, longest text first
};

// Streams the text of generated tokens: push() gives what can be shown now,
// holding back the start of a character that isn't complete yet.
class Detokenizer {
 public:
  explicit Detokenizer(const Tokenizer& tok) : tok_(tok) {}
  std::string push(int32_t id);
  std::string flush();  // whatever is held back, as it is

 private:
  const Tokenizer& tok_;
  std::string pending_;
};

}  // namespace llama
