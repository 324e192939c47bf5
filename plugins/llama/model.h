// A llama-family model (llama, mistral, qwen2, qwen3) over a memory-mapped
// ZAN2 container: the weights stay in the mapping (nothing is copied but the
// small norm and bias vectors), and the forward pass runs RMSNorm, rotary
// position embedding (adjacent pairs or NEOX halves), grouped-query
// attention over a KV cache, and a SwiGLU feed-forward. A batch of tokens
// goes through each layer together as matrix-matrix products, with the
// causal mask in attention; the matrix products are spread over a pool.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "container/zan2_reader.h"
#include "plugins/llama/kernels.h"
#include "plugins/llama/tokenizer.h"

namespace llama {

struct Hparams {
  std::string arch;
  uint32_t dim = 0, layers = 0, ff = 0, heads = 0, kvHeads = 0, vocab = 0, context = 0;
  uint32_t headDim = 0, qDim = 0, kvDim = 0;
  float ropeBase = 10000.0f, eps = 1e-5f;
  bool ropeNeox = false;  // rotate (i, i + headDim/2) instead of (2i, 2i + 1)
};

// A matrix of `rows` rows of `cols` elements inside the mapping.
struct Matrix {
  DType type = kF32;
  const uint8_t* data = nullptr;
  size_t rows = 0, cols = 0;
};

struct Layer {
  std::vector<float> attnNorm, ffnNorm;
  std::vector<float> bq, bk, bv;    // biases of Q, K, V (qwen2), or empty
  std::vector<float> qNorm, kNorm;  // per-head RMSNorm of Q and K (qwen3), or empty
  Matrix wq, wk, wv, wo, gate, up, down;
};

enum class KvType { F16 = 0, Q8_0 = 1, Q4_0 = 2 };

class Model {
 public:
  // Maps the container and finds every tensor; false with `err`.
  bool load(const std::string& path, std::string& err);

  const Hparams& hp() const { return hp_; }
  const Tokenizer& tokenizer() const { return tok_; }
  uint64_t weightBytes() const { return weightBytes_; }

  // The KV cache for `context` positions of the given element type. Called
  // once before forward; false with `err` when it can't be allocated.
  bool initCache(uint32_t context, KvType type, std::string& err);
  uint32_t cacheSize() const { return cacheLen_; }

  // Runs token `token` at position `pos` (< cacheSize()) and leaves the
  // logits of the next token in logits().
  void forward(int32_t token, uint32_t pos) { forwardBatch(&token, 1, pos); }
  // Runs tokens[0, n) at positions pos, pos + 1, ... (pos + n <= cacheSize())
  // in batches of up to `maxBatch`, and leaves the logits after the last
  // one; the output layer runs for that position only.
  void forwardBatch(const int32_t* tokens, size_t n, uint32_t pos);
  void setMaxBatch(size_t n) { maxBatch_ = n ? n : 1; }
  const std::vector<float>& logits() const { return logits_; }

 private:
  bool matrix(const char* name, size_t rows, size_t cols, Matrix& m, std::string& err);
  bool vector(const char* name, size_t n, std::vector<float>& v, std::string& err, bool optional = false);
  void runBatch(const int32_t* tokens, size_t n, uint32_t pos);
  void attention(uint32_t layer, size_t n, uint32_t pos);
  void storeKv(uint32_t layer, uint32_t pos, const float* k, const float* v);
  void loadKvRow(const std::vector<uint8_t>& cache, size_t row, float* out) const;
  void mm(const Matrix& m, const float* x, size_t n, float* y);

  tov::ZAN2Reader reader_;
  Hparams hp_;
  Tokenizer tok_;
  Matrix embed_, output_;
  std::vector<float> outNorm_;
  std::vector<Layer> layers_;
  uint64_t weightBytes_ = 0;

  std::unique_ptr<ThreadPool> pool_;
  KvType kvType_ = KvType::F16;
  uint32_t cacheLen_ = 0;
  size_t kvRowBytes_ = 0;
  std::vector<std::vector<uint8_t>> kCache_, vCache_;  // per layer, cacheLen_ rows of kvDim
  size_t maxBatch_ = 512, bufRows_ = 0;
  // Per batch row: x_, xb_ (dim), q_, attOut_ (qDim), k_, v_ (kvDim), hb_,
  // hb2_ (ff). att_: the cached keys then values as floats.
  std::vector<float> x_, xb_, q_, k_, v_, att_, attOut_, hb_, hb2_, logits_, ropeFreq_;
};

}  // namespace llama
