// zan_llama: the runtime plugin that runs llama-family models on the CPU.
// probe claims ZAN2 model containers whose architecture is llama; create
// maps the model and allocates the KV cache from the create hint; generate
// completes a prompt, the chat entries keep a conversation in the cache and
// stream tokens as they come, bench times decoding.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <numeric>
#include <string>
#include <vector>

#include "container/zan2.h"
#include "plugin/zan_plugin.h"
#include "plugins/llama/model.h"

namespace {

using llama::Model;

// Reproducible random numbers: splitmix64, the same on every machine.
struct Rng {
  uint64_t s;
  uint64_t next() {
    uint64_t z = (s += 0x9E3779B97F4A7C15ULL);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ULL;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBULL;
    return z ^ (z >> 31);
  }
  double uniform() { return double(next() >> 11) * (1.0 / 9007199254740992.0); }
};

struct Sampling {
  float temperature = 0.8f;
  int32_t topK = 40;
  float topP = 0.95f;
  uint32_t maxNew = 256;
  uint32_t contextCap = 0;
  std::string system;
};

int32_t argmax(const std::vector<float>& v) {
  return int32_t(std::max_element(v.begin(), v.end()) - v.begin());
}

// Temperature 0 (or below) is greedy; otherwise top-k, then top-p over the
// softmax of the scaled logits.
int32_t sample(const std::vector<float>& logits, const Sampling& s, Rng& rng) {
  if (!(s.temperature > 0)) return argmax(logits);
  std::vector<int32_t> ids(logits.size());
  std::iota(ids.begin(), ids.end(), 0);
  size_t k = s.topK > 0 ? std::min<size_t>(size_t(s.topK), ids.size()) : ids.size();
  std::partial_sort(ids.begin(), ids.begin() + long(k), ids.end(),
                    [&](int32_t a, int32_t b) { return logits[a] > logits[b] || (logits[a] == logits[b] && a < b); });
  ids.resize(k);
  std::vector<double> p(k);
  const double maxv = logits[ids[0]];
  double sum = 0;
  for (size_t i = 0; i < k; ++i) sum += (p[i] = std::exp((logits[ids[i]] - maxv) / s.temperature));
  if (s.topP > 0 && s.topP < 1) {
    double cum = 0;
    size_t keep = k;
    for (size_t i = 0; i < k; ++i) {
      cum += p[i] / sum;
      if (cum >= s.topP) {
        keep = i + 1;
        break;
      }
    }
    k = keep;
    sum = 0;
    for (size_t i = 0; i < k; ++i) sum += p[i];
  }
  double r = rng.uniform() * sum;
  for (size_t i = 0; i < k; ++i) {
    r -= p[i];
    if (r <= 0) return ids[i];
  }
  return ids[k - 1];
}

enum class Template { ChatML, Llama2, Plain };

struct Session {
  Model model;
  Sampling sampling;
  Rng rng{42};
  uint32_t pos = 0;  // next free cache position
  Template tmpl = Template::Plain;
  int32_t endOfTurn = -1;  // a token that ends an answer besides EOS
  bool firstTurn = true;
};

// Copies `text` into `out` of `cap` bytes, cut at a character boundary,
// always terminated.
void answer(const std::string& text, char* out, uint64_t cap) {
  if (!out || cap == 0) return;
  size_t n = std::min<uint64_t>(text.size(), cap - 1);
  while (n < text.size() && n > 0 && (uint8_t(text[n]) & 0xC0) == 0x80) --n;
  std::memcpy(out, text.data(), n);
  out[n] = 0;
}

void setErr(char* err, uint64_t cap, const std::string& msg) { answer(msg, err, cap); }

uint32_t limit(const Session& s) {
  uint32_t n = s.model.cacheSize();
  if (s.sampling.contextCap) n = std::min(n, s.sampling.contextCap);
  return n;
}

// Feeds tokens at the following positions, as batches; false (with nothing
// fed) when they don't fit in the context.
bool feed(Session& s, const std::vector<int32_t>& tokens) {
  if (tokens.empty()) return true;
  if (uint64_t(s.pos) + tokens.size() > limit(s)) return false;
  s.model.forwardBatch(tokens.data(), tokens.size(), s.pos);
  s.pos += uint32_t(tokens.size());
  return true;
}

// Says on standard error why `tokens` can't be fed.
void tooLong(const Session& s, size_t tokens) {
  std::fprintf(stderr, "zan_llama: the prompt is %zu tokens; with %u already in use the context of %u holds only %u more\n",
               tokens, s.pos, limit(s), limit(s) - std::min(s.pos, limit(s)));
}

// Samples up to maxNew tokens after what was fed, handing each piece of text
// to `emit` as soon as it is whole UTF-8. Ends at EOS, the end-of-turn token,
// a full context, or when *stop becomes non-zero. The first piece loses one
// leading space.
template <typename Emit>
void generateTokens(Session& s, Emit emit, volatile int* stop = nullptr) {
  const llama::Tokenizer& tok = s.model.tokenizer();
  llama::Detokenizer detok(tok);
  bool first = true;
  for (uint32_t n = 0; n < s.sampling.maxNew; ++n) {
    if (stop && *stop) break;
    const int32_t id = sample(s.model.logits(), s.sampling, s.rng);
    if (id == tok.eos() || id == s.endOfTurn) {
      // The end token still goes into the cache, so the next turn follows it.
      if (s.pos < limit(s)) s.model.forward(id, s.pos++);
      break;
    }
    std::string text = detok.push(id);
    if (first && !text.empty()) {
      if (text[0] == ' ') text.erase(0, 1);
      first = false;
    }
    if (!text.empty()) emit(text);
    if (s.pos >= limit(s)) break;
    s.model.forward(id, s.pos++);
  }
  std::string rest = detok.flush();
  if (!rest.empty()) emit(rest);
}

void configureFrom(Session& s, const ZANGenParams* p) {
  if (!p) return;
  s.sampling.temperature = p->temperature;
  s.sampling.topK = p->topK;
  s.sampling.topP = p->topP;
  s.sampling.maxNew = p->maxNew;
  s.sampling.contextCap = p->contextCap;
  s.sampling.system = p->systemPrompt ? p->systemPrompt : "";
  s.rng = Rng{p->seed};
}

// The tokens of one user turn in the model's chat form.
std::vector<int32_t> turnTokens(Session& s, const std::string& text) {
  const llama::Tokenizer& tok = s.model.tokenizer();
  const std::string& sys = s.sampling.system;
  std::string t;
  bool bos = false;
  switch (s.tmpl) {
    case Template::ChatML:
      if (s.firstTurn && !sys.empty()) t += "<|im_start|>system\n" + sys + "<|im_end|>\n";
      t += "<|im_start|>user\n" + text + "<|im_end|>\n<|im_start|>assistant\n";
      bos = s.firstTurn && tok.addBos();
      break;
    case Template::Llama2:
      t = "[INST] ";
      if (s.firstTurn && !sys.empty()) t += "<<SYS>>\n" + sys + "\n<</SYS>>\n\n";
      t += text + " [/INST]";
      bos = tok.addBos();
      break;
    case Template::Plain:
      if (s.firstTurn && !sys.empty()) t += sys + "\n\n";
      t += "User: " + text + "\nAssistant:";
      bos = s.firstTurn && tok.addBos();
      break;
  }
  s.firstTurn = false;
  return tok.encode(t, bos, true);
}

// ---- Plugin entry points ---------------------------------------------------

int32_t probe(const char* path, ZANRuntimeProbe* out) {
  // Only the header is read here; other files are refused at once.
  FILE* f = std::fopen(path, "rb");
  if (!f) return 1;
  uint8_t head[tov::zan2::kHeaderSize];
  const size_t got = std::fread(head, 1, sizeof head, f);
  std::fclose(f);
  if (got != sizeof head) return 1;
  const tov::zan2::Header h = tov::zan2::decodeHeader(head);
  if (!h.magicOk() || (h.kind != tov::zan2::kKindModel && h.kind != tov::zan2::kKindLegacyModel)) return 1;
  tov::ZAN2Reader r;
  if (!r.open(path).ok()) return 1;
  // Every model container is claimed, so that create can say which
  // architecture it doesn't run.
  static std::string arch;
  r.getMetaStr("general.architecture", arch);
  const bool known = arch == "llama" || arch == "mistral" || arch == "qwen2" || arch == "qwen3";
  out->confidence = known ? 80 : 10;
  out->architecture = arch.c_str();
  out->backend = "cpu";
  out->reason = "ZAN2 llama model";
  return 0;
}

int32_t create(const char* modelPath, const char* hint, void** outHandle, char* err, uint64_t errCap) {
  auto s = std::make_unique<Session>();
  std::string e;
  if (!s->model.load(modelPath, e)) {
    setErr(err, errCap, std::string(modelPath) + ": " + e);
    return 1;
  }
  // The hint: backend first, then "key=value;" items; unknown ones are ignored.
  uint32_t context = std::min<uint32_t>(s->model.hp().context, 4096);
  llama::KvType kv = llama::KvType::F16;
  std::string h = hint ? hint : "";
  for (size_t at = 0; at <= h.size();) {
    size_t end = h.find(';', at);
    if (end == std::string::npos) end = h.size();
    const std::string item = h.substr(at, end - at);
    if (item.rfind("ctx=", 0) == 0) {
      const long long n = std::atoll(item.c_str() + 4);
      if (n > 0) context = uint32_t(std::min<long long>(n, s->model.hp().context ? s->model.hp().context : n));
    } else if (item == "kv=f16") {
      kv = llama::KvType::F16;
    } else if (item == "kv=q8_0") {
      kv = llama::KvType::Q8_0;
    } else if (item == "kv=q4_0") {
      kv = llama::KvType::Q4_0;
    } else if (item.rfind("batch=", 0) == 0) {
      // Prompt tokens per batch; 1 runs them one at a time.
      const long long n = std::atoll(item.c_str() + 6);
      if (n > 0) s->model.setMaxBatch(size_t(std::min<long long>(n, 4096)));
    }
    at = end + 1;
  }
  if (!s->model.initCache(context, kv, e)) {
    setErr(err, errCap, e);
    return 1;
  }
  const llama::Tokenizer& tok = s->model.tokenizer();
  static bool warned = false;
  if (!tok.warning().empty() && !warned) {
    std::fprintf(stderr, "zan_llama: %s\n", tok.warning().c_str());
    warned = true;
  }
  if (int32_t id = tok.find("<|im_end|>"); id >= 0 && tok.find("<|im_start|>") >= 0) {
    s->tmpl = Template::ChatML;
    s->endOfTurn = id;
  } else if (tok.kind() == llama::Tokenizer::Kind::Spm && tok.bos() >= 0 && tok.eos() >= 0) {
    s->tmpl = Template::Llama2;
  }
  *outHandle = s.release();
  return 0;
}

void destroy(void* handle) { delete static_cast<Session*>(handle); }

int32_t generate(void* handle, const char* prompt, const ZANGenParams* params, char* out, uint64_t outCap) {
  Session& s = *static_cast<Session*>(handle);
  configureFrom(s, params);
  s.pos = 0;
  const llama::Tokenizer& tok = s.model.tokenizer();
  // Control tokens the file marks (such as "<|im_start|>") stay whole.
  std::vector<int32_t> tokens = tok.encode(prompt ? prompt : "", tok.addBos(), true);
  if (tokens.empty() && tok.bos() >= 0) tokens.push_back(tok.bos());
  if (tokens.empty() || !feed(s, tokens)) {
    if (!tokens.empty()) tooLong(s, tokens.size());
    answer("", out, outCap);
    return tokens.empty() ? 2 : 3;  // nothing to complete, or the prompt doesn't fit
  }
  std::string text;
  generateTokens(s, [&](const std::string& piece) { text += piece; });
  answer(text, out, outCap);
  return 0;
}

int32_t configure(void* handle, const ZANGenParams* params) {
  configureFrom(*static_cast<Session*>(handle), params);
  return 0;
}

// Feeds a user turn. When the conversation no longer fits the context, it
// is forgotten and the turn starts a new one; false when even that fails.
bool feedTurn(Session& s, const char* text) {
  const uint32_t start = s.pos;
  const bool first = s.firstTurn;
  std::vector<int32_t> tokens = turnTokens(s, text ? text : "");
  if (start + tokens.size() < limit(s)) return feed(s, tokens);
  if (first) {
    tooLong(s, tokens.size());
    return false;
  }
  s.pos = 0;
  s.firstTurn = true;
  tokens = turnTokens(s, text ? text : "");
  if (tokens.size() < limit(s) && feed(s, tokens)) return true;
  tooLong(s, tokens.size());
  return false;
}

int32_t chatStream(void* handle, const char* text, ZANTokenFn onToken, void* user, volatile int* stop) {
  Session& s = *static_cast<Session*>(handle);
  if (!feedTurn(s, text)) return 3;  // the turn alone is longer than the context
  generateTokens(
      s, [&](const std::string& piece) { onToken(piece.data(), uint32_t(piece.size()), user); }, stop);
  return 0;
}

int32_t chatTurn(void* handle, const char* text, char* out, uint64_t outCap) {
  Session& s = *static_cast<Session*>(handle);
  std::string reply;
  if (!feedTurn(s, text)) {
    answer("", out, outCap);
    return 3;
  }
  generateTokens(s, [&](const std::string& piece) { reply += piece; });
  answer(reply, out, outCap);
  return 0;
}

int32_t chatClear(void* handle) {
  Session& s = *static_cast<Session*>(handle);
  s.pos = 0;
  s.firstTurn = true;
  return 0;
}

int32_t bench(void* handle, const ZANBenchRequest* req, ZANBenchResult* out) {
  Session& s = *static_cast<Session*>(handle);
  const llama::Tokenizer& tok = s.model.tokenizer();
  const uint32_t warmup = req->warmup, tokens = std::max<uint32_t>(req->tokens, 1);
  if (uint64_t(warmup) + tokens + 1 > limit(s)) return 3;  // more tokens than the context holds
  s.pos = 0;
  int32_t id = tok.bos() >= 0 ? tok.bos() : 0;
  using Clock = std::chrono::steady_clock;
  Clock::time_point start;
  for (uint32_t i = 0; i < warmup + tokens; ++i) {
    if (i == warmup) start = Clock::now();
    s.model.forward(id, s.pos++);
    id = argmax(s.model.logits());
  }
  const double ms = std::chrono::duration<double, std::milli>(Clock::now() - start).count() / tokens;
  out->msPerToken = ms;
  out->tokensPerSecond = ms > 0 ? 1000.0 / ms : 0;
  return 0;
}

void slot() {}

const ZANRuntimeDesc kRuntimes[] = {
    {kZanDescriptorAbi, 0, "llama", "llama-family models on the CPU", 0, probe, slot, {0, 0}},
};
const ZANRuntimeV2Desc kRuntimesV2[] = {
    {kZanRuntimeV2Abi, 0, "llama", {0, 0, 0}, create, destroy, 0, generate, bench, configure, chatTurn, chatClear, 0},
};
const ZANRuntimeV2SDesc kStreams[] = {{kZanDescriptorAbi, sizeof(ZANRuntimeV2SDesc), "llama", chatStream}};
const ZANPluginInfo kInfo = {kZanPluginAbi, 1, "llama", "runs llama-family models on the CPU", nullptr, 0, 0};

}  // namespace

extern "C" {
ZAN_PLUGIN_EXPORT const ZANPluginInfo* zan_plugin_init(const ZANHostAPI*) { return &kInfo; }
ZAN_PLUGIN_EXPORT const ZANRuntimeDesc* zan_plugin_runtimes(uint32_t* count) {
  *count = 1;
  return kRuntimes;
}
ZAN_PLUGIN_EXPORT const ZANRuntimeV2Desc* zan_plugin_runtimes_v2(uint32_t* count) {
  *count = 1;
  return kRuntimesV2;
}
ZAN_PLUGIN_EXPORT const ZANRuntimeV2SDesc* zan_plugin_runtimes_v2s(uint32_t* count) {
  *count = 1;
  return kStreams;
}

// For tests: the logits after each of `n` tokens fed from position 0
// (n * vocab floats into `out`), and `steps` greedy token ids after them.
// Give 0, or 1 with nothing written when the model can't be loaded.
ZAN_PLUGIN_EXPORT int zan_llama_test_run(const char* model, const int32_t* tokens, int n, float* logits, int steps,
                                         int32_t* greedy, const char* hint) {
  void* handle = nullptr;
  char err[512] = {};
  if (create(model, hint ? hint : "cpu", &handle, err, sizeof err) != 0) {
    std::fprintf(stderr, "zan_llama_test_run: %s\n", err);
    return 1;
  }
  Session& s = *static_cast<Session*>(handle);
  const size_t vocab = s.model.hp().vocab;
  for (int i = 0; i < n; ++i) {
    s.model.forward(tokens[i], s.pos++);
    if (logits) std::memcpy(logits + size_t(i) * vocab, s.model.logits().data(), vocab * sizeof(float));
  }
  for (int i = 0; i < steps; ++i) {
    greedy[i] = argmax(s.model.logits());
    s.model.forward(greedy[i], s.pos++);
  }
  destroy(handle);
  return 0;
}

// For tests and the bench: feeds `n` tokens from position 0 as one prompt
// (the create hint's batch= sets how many go through together), and gives
// the logits after the last (vocab floats into `logits`, if given) and the
// milliseconds the prompt took. 0, or 1 when the model can't be loaded or
// the prompt doesn't fit.
ZAN_PLUGIN_EXPORT int zan_llama_test_prompt(const char* model, const int32_t* tokens, int n, float* logits,
                                            double* ms, const char* hint) {
  void* handle = nullptr;
  char err[512] = {};
  if (n <= 0 || create(model, hint ? hint : "cpu", &handle, err, sizeof err) != 0) {
    std::fprintf(stderr, "zan_llama_test_prompt: %s\n", err);
    return 1;
  }
  Session& s = *static_cast<Session*>(handle);
  const auto start = std::chrono::steady_clock::now();
  const bool ok = feed(s, std::vector<int32_t>(tokens, tokens + n));
  if (ms) *ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
  if (ok && logits) std::memcpy(logits, s.model.logits().data(), s.model.hp().vocab * sizeof(float));
  destroy(handle);
  return ok ? 0 : 1;
}
}
