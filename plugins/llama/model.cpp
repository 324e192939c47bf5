#include "plugins/llama/model.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstring>

namespace llama {

namespace {

using tov::zan2::SectionType;

void rmsnorm(float* out, const float* x, const float* w, size_t n, float eps) {
  double ss = 0;
  for (size_t i = 0; i < n; ++i) ss += double(x[i]) * x[i];
  const float scale = float(1.0 / std::sqrt(ss / double(n) + eps));
  for (size_t i = 0; i < n; ++i) out[i] = x[i] * scale * w[i];
}

// One row of `n` floats (n a multiple of 32) as Q8_0 or Q4_0 blocks.
void quantizeRow(KvType t, const float* x, size_t n, uint8_t* out) {
  for (size_t b = 0; b < n / 32; ++b) {
    const float* v = x + b * 32;
    if (t == KvType::Q8_0) {
      float amax = 0;
      for (int i = 0; i < 32; ++i) amax = std::max(amax, std::fabs(v[i]));
      const float d = amax / 127.0f, id = d ? 1.0f / d : 0.0f;
      const uint16_t h = f32ToF16(d);
      std::memcpy(out, &h, 2);
      for (int i = 0; i < 32; ++i) out[2 + i] = uint8_t(int8_t(std::lround(v[i] * id)));
      out += 34;
    } else {
      float amax = 0, max = 0;
      for (int i = 0; i < 32; ++i)
        if (std::fabs(v[i]) > amax) amax = std::fabs(v[i]), max = v[i];
      const float d = max / -8.0f, id = d ? 1.0f / d : 0.0f;
      const uint16_t h = f32ToF16(d);
      std::memcpy(out, &h, 2);
      for (int i = 0; i < 16; ++i) {
        const int lo = std::min(15, int(v[i] * id + 8.5f)), hi = std::min(15, int(v[i + 16] * id + 8.5f));
        out[2 + i] = uint8_t(std::max(0, lo) | (std::max(0, hi) << 4));
      }
      out += 18;
    }
  }
}

}  // namespace

bool Model::matrix(const char* name, size_t rows, size_t cols, Matrix& m, std::string& err) {
  const tov::TensorView t = reader_.tensorView(name);
  if (!t.data) {
    err = std::string("missing tensor ") + name;
    return false;
  }
  if (!dtypeSupported(t.dtype)) {
    err = std::string("tensor ") + name + " has unsupported type " + std::to_string(t.dtype);
    return false;
  }
  const size_t block = blockElems(DType(t.dtype));
  if (t.ndim == 2 && t.dims[0] == cols && cols % block) {
    err = std::string("tensor ") + name + " has rows of " + std::to_string(cols) + " elements, not a multiple of " +
          std::to_string(block) + " as its type needs";
    return false;
  }
  if (t.ndim != 2 || t.dims[0] != cols || t.dims[1] != rows || t.size != rows * rowBytes(DType(t.dtype), cols)) {
    err = std::string("tensor ") + name + " has the wrong shape for this model";
    return false;
  }
  m = Matrix{DType(t.dtype), t.data, rows, cols};
  weightBytes_ += t.size;
  return true;
}

bool Model::vector(const char* name, size_t n, std::vector<float>& v, std::string& err, bool optional) {
  const tov::TensorView t = reader_.tensorView(name);
  if (!t.data && optional) return true;
  if (!t.data || !dtypeSupported(t.dtype) || t.dims[0] != n || (t.ndim == 2 && t.dims[1] != 1) ||
      rowBytes(DType(t.dtype), n) == 0 || t.size != rowBytes(DType(t.dtype), n)) {
    err = std::string("missing or malformed tensor ") + name;
    return false;
  }
  v.resize(n);
  dequantRow(DType(t.dtype), t.data, 0, n, v.data());
  weightBytes_ += t.size;
  return true;
}

bool Model::load(const std::string& path, std::string& err) {
  const tov::ZAN2Result r = reader_.open(path.c_str());
  if (!r.ok()) {
    err = r.message;
    return false;
  }
  std::string arch;
  reader_.getMetaStr("general.architecture", arch);
  if (arch != "llama" && arch != "mistral" && arch != "qwen2" && arch != "qwen3") {
    err = "architecture '" + arch.substr(0, 64) + "' is not supported (llama, mistral, qwen2 and qwen3 are)";
    return false;
  }
  hp_.arch = arch;
  hp_.ropeNeox = arch == "qwen2" || arch == "qwen3";
  auto u32 = [&](const char* key, uint32_t fallback) {
    uint32_t v = fallback;
    reader_.getMetaU32(key, v);
    return v;
  };
  hp_.dim = u32("model.embedding_length", 0);
  hp_.layers = u32("model.block_count", 0);
  hp_.ff = u32("model.feed_forward_length", 0);
  hp_.heads = u32("model.head_count", 0);
  hp_.kvHeads = u32("model.head_count_kv", hp_.heads);
  hp_.context = u32("model.context_length", 2048);
  reader_.getMetaF32("model.rope_freq_base", hp_.ropeBase);
  reader_.getMetaF32("model.rms_epsilon", hp_.eps);
  if (!hp_.dim || !hp_.layers || !hp_.ff || !hp_.heads || !hp_.kvHeads || hp_.heads % hp_.kvHeads) {
    err = "the model's hyper-parameters are missing or inconsistent";
    return false;
  }
  // Heads may be narrower or wider than dim / heads when the file says so.
  hp_.headDim = u32("model.key_length", hp_.dim % hp_.heads ? 0 : hp_.dim / hp_.heads);
  if (hp_.headDim == 0 || hp_.headDim % 2 || hp_.headDim > 4096 || u32("model.value_length", hp_.headDim) != hp_.headDim) {
    err = "the model's hyper-parameters are missing or inconsistent";
    return false;
  }
  hp_.qDim = hp_.headDim * hp_.heads;
  hp_.kvDim = hp_.headDim * hp_.kvHeads;

  tov::TokenizerData td;
  if (!reader_.readTokenizer(td)) {
    err = "the model has no readable tokenizer section";
    return false;
  }
  std::string pre;
  reader_.getMetaStr("tokenizer.pre", pre);
  if (!tok_.init(td, err, pre)) return false;
  hp_.vocab = u32("model.vocab_size", uint32_t(tok_.size()));

  if (!matrix("token_embd.weight", hp_.vocab, hp_.dim, embed_, err)) return false;
  if (!vector("output_norm.weight", hp_.dim, outNorm_, err)) return false;
  if (reader_.findTensor("output.weight")) {
    if (!matrix("output.weight", hp_.vocab, hp_.dim, output_, err)) return false;
  } else {
    output_ = embed_;  // tied
  }
  layers_.resize(hp_.layers);
  for (uint32_t l = 0; l < hp_.layers; ++l) {
    Layer& L = layers_[l];
    auto name = [&](const char* part) { return "blk." + std::to_string(l) + "." + part; };
    if (!vector(name("attn_norm.weight").c_str(), hp_.dim, L.attnNorm, err) ||
        !vector(name("ffn_norm.weight").c_str(), hp_.dim, L.ffnNorm, err) ||
        !vector(name("attn_q.bias").c_str(), hp_.qDim, L.bq, err, true) ||
        !vector(name("attn_k.bias").c_str(), hp_.kvDim, L.bk, err, true) ||
        !vector(name("attn_v.bias").c_str(), hp_.kvDim, L.bv, err, true) ||
        !vector(name("attn_q_norm.weight").c_str(), hp_.headDim, L.qNorm, err, true) ||
        !vector(name("attn_k_norm.weight").c_str(), hp_.headDim, L.kNorm, err, true) ||
        !matrix(name("attn_q.weight").c_str(), hp_.qDim, hp_.dim, L.wq, err) ||
        !matrix(name("attn_k.weight").c_str(), hp_.kvDim, hp_.dim, L.wk, err) ||
        !matrix(name("attn_v.weight").c_str(), hp_.kvDim, hp_.dim, L.wv, err) ||
        !matrix(name("attn_output.weight").c_str(), hp_.dim, hp_.qDim, L.wo, err) ||
        !matrix(name("ffn_gate.weight").c_str(), hp_.ff, hp_.dim, L.gate, err) ||
        !matrix(name("ffn_up.weight").c_str(), hp_.ff, hp_.dim, L.up, err) ||
        !matrix(name("ffn_down.weight").c_str(), hp_.dim, hp_.ff, L.down, err))
      return false;
  }
  pool_ = std::make_unique<ThreadPool>(0);
  logits_.assign(hp_.vocab, 0);
  ropeFreq_.resize(hp_.headDim / 2);
  for (uint32_t i = 0; i < hp_.headDim / 2; ++i)
    ropeFreq_[i] = float(std::pow(double(hp_.ropeBase), -2.0 * i / double(hp_.headDim)));
  return true;
}

bool Model::initCache(uint32_t context, KvType type, std::string& err) {
  if (context == 0) context = 1;
  if (type != KvType::F16 && hp_.kvDim % 32) {
    err = "a quantised KV cache needs a KV width that is a multiple of 32";
    return false;
  }
  kvType_ = type;
  kvRowBytes_ = type == KvType::F16 ? hp_.kvDim * 2 : rowBytes(type == KvType::Q8_0 ? kQ8_0 : kQ4_0, hp_.kvDim);
  const uint64_t bytes = uint64_t(context) * kvRowBytes_;
  if (bytes > (uint64_t(1) << 36)) {
    err = "the KV cache for " + std::to_string(context) + " positions would be too large";
    return false;
  }
  kCache_.assign(hp_.layers, std::vector<uint8_t>(size_t(bytes)));
  vCache_.assign(hp_.layers, std::vector<uint8_t>(size_t(bytes)));
  cacheLen_ = context;
  att_.assign(size_t(context) * hp_.kvDim * 2, 0);
  return true;
}

void Model::storeKv(uint32_t layer, uint32_t pos, const float* k, const float* v) {
  uint8_t* kr = kCache_[layer].data() + size_t(pos) * kvRowBytes_;
  uint8_t* vr = vCache_[layer].data() + size_t(pos) * kvRowBytes_;
  if (kvType_ == KvType::F16) {
    for (uint32_t i = 0; i < hp_.kvDim; ++i) {
      const uint16_t hk = f32ToF16(k[i]), hv = f32ToF16(v[i]);
      std::memcpy(kr + 2 * i, &hk, 2);
      std::memcpy(vr + 2 * i, &hv, 2);
    }
  } else {
    quantizeRow(kvType_, k, hp_.kvDim, kr);
    quantizeRow(kvType_, v, hp_.kvDim, vr);
  }
}

void Model::loadKvRow(const std::vector<uint8_t>& cache, size_t row, float* out) const {
  const DType t = kvType_ == KvType::F16 ? kF16 : kvType_ == KvType::Q8_0 ? kQ8_0 : kQ4_0;
  dequantRow(t, cache.data(), row, hp_.kvDim, out);
}

void Model::mm(const Matrix& m, const float* x, size_t n, float* y) {
  matmul(*pool_, m.type, m.data, m.rows, m.cols, x, n, y);
}

void Model::forwardBatch(const int32_t* tokens, size_t n, uint32_t pos) {
  for (size_t done = 0; done < n;) {
    const size_t k = std::min(maxBatch_, n - done);
    runBatch(tokens + done, k, pos + uint32_t(done));
    done += k;
  }
}

// Causal attention of rows [0, n) of q_ (positions pos, pos + 1, ...) over
// the cache up to each row's own position, into attOut_.
void Model::attention(uint32_t l, size_t n, uint32_t pos) {
  const Hparams& h = hp_;
  const float attScale = 1.0f / std::sqrt(float(h.headDim));
  const uint32_t group = h.heads / h.kvHeads;
  float* keys = att_.data();
  float* vals = att_.data() + size_t(cacheLen_) * h.kvDim;
  const size_t last = pos + n;  // positions [0, last) are in the cache
  // The cached keys and values of every position so far, as floats, each
  // KV head's rows together: [kv head][position][headDim].
  const size_t headStride = size_t(cacheLen_) * h.headDim;
  pool_->run(last, [&](size_t b, size_t e) {
    thread_local std::vector<float> row;
    row.resize(h.kvDim);
    for (size_t t = b; t < e; ++t)
      for (int kv = 0; kv < 2; ++kv) {
        loadKvRow(kv ? vCache_[l] : kCache_[l], t, row.data());
        float* dst = (kv ? vals : keys) + t * h.headDim;
        for (uint32_t g = 0; g < h.kvHeads; ++g)
          std::memcpy(dst + g * headStride, row.data() + size_t(g) * h.headDim, h.headDim * sizeof(float));
      }
  });
  // Later rows attend to more positions: the threads take (row, head)
  // items one by one, longest first, so they finish together.
  std::atomic<size_t> next{0};
  const size_t items = n * h.heads;
  pool_->run(pool_->size(), [&](size_t, size_t) {
    thread_local std::vector<float> scratch;
    scratch.resize(cacheLen_);
    float* sc = scratch.data();
    for (size_t k; (k = next.fetch_add(1, std::memory_order_relaxed)) < items;) {
      const size_t item = items - 1 - k;
      const size_t i = item / h.heads, hd = item % h.heads;
      const size_t upto = pos + i;  // the row's own position, inclusive
      const float* q = q_.data() + i * h.qDim + hd * h.headDim;
      const size_t kvOff = (hd / group) * headStride;
      attnScores(q, keys + kvOff, h.headDim, upto + 1, h.headDim, attScale, sc);
      float maxv = -INFINITY;
      for (size_t t = 0; t <= upto; ++t) maxv = std::max(maxv, sc[t]);
      double sum = 0;
      for (size_t t = 0; t <= upto; ++t) sum += (sc[t] = std::exp(sc[t] - maxv));
      const float inv = float(1.0 / sum);
      for (size_t t = 0; t <= upto; ++t) sc[t] *= inv;
      attnMix(sc, vals + kvOff, h.headDim, upto + 1, h.headDim, attOut_.data() + i * h.qDim + hd * h.headDim);
    }
  });
}

void Model::runBatch(const int32_t* tokens, size_t n, uint32_t pos) {
  const Hparams& h = hp_;
  if (n > bufRows_) {
    x_.assign(n * h.dim, 0);
    xb_.assign(n * h.dim, 0);
    q_.assign(n * h.qDim, 0);
    attOut_.assign(n * h.qDim, 0);
    k_.assign(n * h.kvDim, 0);
    v_.assign(n * h.kvDim, 0);
    hb_.assign(n * h.ff, 0);
    hb2_.assign(n * h.ff, 0);
    bufRows_ = n;
  }
  for (size_t i = 0; i < n; ++i) {
    int32_t token = tokens[i];
    if (token < 0 || uint32_t(token) >= h.vocab) token = 0;
    dequantRow(embed_.type, embed_.data, size_t(token), h.dim, x_.data() + i * h.dim);
  }

  // Rotates each head of vec (nHeads of headDim) by the angles of `p`.
  auto rope = [&](float* vec, uint32_t nHeads, uint32_t p) {
    const uint32_t half = h.headDim / 2;
    for (uint32_t hd = 0; hd < nHeads; ++hd) {
      float* v = vec + size_t(hd) * h.headDim;
      for (uint32_t i = 0; i < half; ++i) {
        const float a = float(p) * ropeFreq_[i], c = std::cos(a), s = std::sin(a);
        const uint32_t i0 = h.ropeNeox ? i : 2 * i, i1 = h.ropeNeox ? i + half : 2 * i + 1;
        const float v0 = v[i0], v1 = v[i1];
        v[i0] = v0 * c - v1 * s;
        v[i1] = v0 * s + v1 * c;
      }
    }
  };
  auto addBias = [](float* y, const std::vector<float>& b, size_t n, size_t width) {
    if (b.empty()) return;
    for (size_t i = 0; i < n; ++i)
      for (size_t c = 0; c < width; ++c) y[i * width + c] += b[c];
  };
  auto headNorm = [&](float* vec, uint32_t nHeads, const std::vector<float>& w) {
    if (w.empty()) return;
    for (uint32_t hd = 0; hd < nHeads; ++hd) rmsnorm(vec + size_t(hd) * h.headDim, vec + size_t(hd) * h.headDim, w.data(), h.headDim, h.eps);
  };

  for (uint32_t l = 0; l < h.layers; ++l) {
    Layer& L = layers_[l];
    for (size_t i = 0; i < n; ++i) rmsnorm(xb_.data() + i * h.dim, x_.data() + i * h.dim, L.attnNorm.data(), h.dim, h.eps);
    mm(L.wq, xb_.data(), n, q_.data());
    mm(L.wk, xb_.data(), n, k_.data());
    mm(L.wv, xb_.data(), n, v_.data());
    addBias(q_.data(), L.bq, n, h.qDim);
    addBias(k_.data(), L.bk, n, h.kvDim);
    addBias(v_.data(), L.bv, n, h.kvDim);
    for (size_t i = 0; i < n; ++i) {
      float* q = q_.data() + i * h.qDim;
      float* k = k_.data() + i * h.kvDim;
      headNorm(q, h.heads, L.qNorm);
      headNorm(k, h.kvHeads, L.kNorm);
      rope(q, h.heads, pos + uint32_t(i));
      rope(k, h.kvHeads, pos + uint32_t(i));
      storeKv(l, pos + uint32_t(i), k, v_.data() + i * h.kvDim);
    }
    attention(l, n, pos);
    mm(L.wo, attOut_.data(), n, xb_.data());
    for (size_t i = 0; i < n * h.dim; ++i) x_[i] += xb_[i];

    for (size_t i = 0; i < n; ++i) rmsnorm(xb_.data() + i * h.dim, x_.data() + i * h.dim, L.ffnNorm.data(), h.dim, h.eps);
    mm(L.gate, xb_.data(), n, hb_.data());
    mm(L.up, xb_.data(), n, hb2_.data());
    for (size_t i = 0; i < n * h.ff; ++i) {
      const float g = hb_[i];
      hb_[i] = g / (1.0f + std::exp(-g)) * hb2_[i];
    }
    mm(L.down, hb_.data(), n, xb_.data());
    for (size_t i = 0; i < n * h.dim; ++i) x_[i] += xb_[i];
  }
  // Only the last position's next token is wanted.
  rmsnorm(xb_.data(), x_.data() + (n - 1) * h.dim, outNorm_.data(), h.dim, h.eps);
  mm(output_, xb_.data(), 1, logits_.data());
}

}  // namespace llama
