// zan_gguf: the importer plugin for GGUF models. probe claims a file by its
// magic and names the architecture from its metadata; convert writes a ZAN2
// model container (kind 1) with the hyper-parameters as meta entries, the
// tensors sorted by name with their bytes 64-aligned, a quantisation record
// per tensor and the tokenizer section. The output goes to a temporary name
// beside the destination and is renamed into place only when complete.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <deque>
#include <string>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/compat.h"
#include "container/zan2_writer.h"
#include "plugin/zan_plugin.h"
#include "plugins/gguf/gguf.h"

namespace {

// A read-only mapping of a whole file.
struct Mapping {
  const uint8_t* data = nullptr;
  uint64_t size = 0;
  ~Mapping() {
    if (data) munmap(const_cast<uint8_t*>(data), static_cast<size_t>(size));
  }
  bool open(const char* path, std::string& err) {
    const int fd = ::open(path, O_RDONLY);
    if (fd < 0) {
      err = std::string("cannot open ") + path + ": " + std::strerror(errno);
      return false;
    }
    struct stat st;
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
      ::close(fd);
      err = std::string(path) + " is not a regular file";
      return false;
    }
    size = static_cast<uint64_t>(st.st_size);
    if (size == 0) {
      ::close(fd);
      err = std::string(path) + " is empty";
      return false;
    }
    void* m = mmap(nullptr, static_cast<size_t>(size), PROT_READ, MAP_PRIVATE, fd, 0);
    ::close(fd);
    if (m == MAP_FAILED) {
      err = std::string("cannot map ") + path;
      return false;
    }
    data = static_cast<const uint8_t*>(m);
    return true;
  }
};

// Texts handed to the host must outlive the call; they are kept here for the
// life of the library.
const char* keep(std::string_view s) {
  static std::deque<std::string> texts;
  for (const std::string& t : texts)
    if (t == s) return t.c_str();
  texts.emplace_back(s);
  return texts.back().c_str();
}

void setErr(const ZANConvertRequest* req, const std::string& msg) {
  if (req->err && req->errCap) std::snprintf(req->err, static_cast<size_t>(req->errCap), "%s", msg.c_str());
}

// The first 8 bytes of a tensor's quantisation record: elements and bytes
// per block for the block formats, 0 for plain floats.
uint64_t quantWord(uint32_t type) {
  uint64_t elems, bytes;
  if (!gguf::blockShape(type, elems, bytes) || elems == 1) return 0;
  return (elems << 32) | bytes;
}

int32_t probe(const char* path, ZANProbeResult* out) {
  Mapping m;
  std::string err;
  if (!m.open(path, err) || m.size < 4 || std::memcmp(m.data, "GGUF", 4) != 0) return 1;
  gguf::File f;
  if (!gguf::parse(m.data, m.size, f, err, false)) return 1;
  out->confidence = 90;
  out->format = "gguf";
  const std::string_view arch = f.getStr("general.architecture");
  out->architecture = arch.empty() ? nullptr : keep(arch);
  out->reason = keep("GGUF v" + std::to_string(f.version) + " header");
  return 0;
}

struct Progress {
  bool show = false;
  int lastPercent = -1;
  void operator()(uint64_t done, uint64_t total) {
    if (!show || total == 0) return;
    const int percent = static_cast<int>(done * 100 / total);
    if (percent == lastPercent) return;
    lastPercent = percent;
    std::fprintf(stderr, "\r[zan gguf] writing %3d%% (%llu of %llu MB)", percent,
                 static_cast<unsigned long long>(done >> 20), static_cast<unsigned long long>(total >> 20));
    if (done == total) std::fputs("\n", stderr);
    std::fflush(stderr);
  }
};

int32_t convert(const char* src, const ZANConvertRequest* req) {
  if (!req || !req->outPath) return 2;
  Mapping m;
  std::string err;
  if (!m.open(src, err)) {
    setErr(req, err);
    return 1;
  }
  gguf::File f;
  if (!gguf::parse(m.data, m.size, f, err)) {
    setErr(req, err);
    return 1;
  }
  const std::string arch(f.getStr("general.architecture").empty() ? "llama" : f.getStr("general.architecture"));
  auto hp = [&](const char* name) { return arch + "." + name; };

  tov::zan2::ModelWriter w;
  w.kind = tov::zan2::kKindModel;
  w.modelType = arch == "llama" ? 1 : 0;
  uint32_t v = 0;
  float fv = 0;
  w.metaStr("general.architecture", arch);
  if (!f.getStr("general.name").empty()) w.metaStr("general.name", f.getStr("general.name"));
  w.metaStr("source.format", "gguf");
  w.metaU32("source.version", f.version);
  // Hyper-parameters under one set of names, whatever the architecture.
  const struct {
    const char* from;
    const char* to;
  } ints[] = {
      {"context_length", "model.context_length"},     {"embedding_length", "model.embedding_length"},
      {"block_count", "model.block_count"},           {"feed_forward_length", "model.feed_forward_length"},
      {"attention.head_count", "model.head_count"},   {"attention.head_count_kv", "model.head_count_kv"},
      {"vocab_size", "model.vocab_size"},             {"rope.dimension_count", "model.rope_dimension_count"},
      {"attention.key_length", "model.key_length"},   {"attention.value_length", "model.value_length"},
  };
  for (const auto& e : ints)
    if (f.getU32(hp(e.from), v)) w.metaU32(e.to, v);
  if (f.getF32(hp("rope.freq_base"), fv)) w.metaF32("model.rope_freq_base", fv);
  if (f.getF32(hp("attention.layer_norm_rms_epsilon"), fv)) w.metaF32("model.rms_epsilon", fv);
  if (f.getU32(hp("embedding_length"), v)) w.hiddenSize = v;
  if (f.getU32(hp("block_count"), v)) w.layers = v;

  tov::TokenizerData tok;
  if (const gguf::KV* tokens = f.find("tokenizer.ggml.tokens")) {
    for (std::string_view s : gguf::stringArray(*tokens)) tok.vocab.emplace_back(s);
    if (const gguf::KV* kv = f.find("tokenizer.ggml.scores")) tok.scores = gguf::f32BitsArray(*kv);
    if (const gguf::KV* kv = f.find("tokenizer.ggml.token_type")) tok.tokenTypes = gguf::u32Array(*kv);
    if (const gguf::KV* kv = f.find("tokenizer.ggml.merges"))
      for (std::string_view s : gguf::stringArray(*kv)) tok.merges.emplace_back(s);
    const char* ids[] = {"tokenizer.ggml.bos_token_id", "tokenizer.ggml.eos_token_id",
                         "tokenizer.ggml.unknown_token_id", "tokenizer.ggml.padding_token_id"};
    for (int i = 0; i < 4; ++i) tok.special[i] = f.getU32(ids[i], v) ? v : 0xFFFFFFFFu;
    const gguf::KV* addBos = f.find("tokenizer.ggml.add_bos_token");
    const std::string_view model = f.getStr("tokenizer.ggml.model");
    tok.addBos = addBos ? addBos->u != 0 : model == "llama";
    tok.name = std::string(model);
    w.metaStr("tokenizer.model", tok.name);
    if (!f.getStr("tokenizer.ggml.pre").empty()) w.metaStr("tokenizer.pre", f.getStr("tokenizer.ggml.pre"));
    w.setTokenizer(tok);
  }
  uint32_t vocab = static_cast<uint32_t>(tok.vocab.size());
  if (f.getU32(hp("vocab_size"), v)) vocab = v;
  else if (vocab) w.metaU32("model.vocab_size", vocab);
  w.vocab = vocab;

  uint64_t weightBytes = 0;
  for (const gguf::TensorInfo& t : f.tensors) {
    if (t.name.size() > 64) {
      setErr(req, "tensor name '" + std::string(t.name) + "' is longer than 64 bytes");
      return 1;
    }
    tov::zan2::TensorSpec s;
    s.name = std::string(t.name);
    s.dtype = static_cast<uint16_t>(t.type);
    s.ndim = static_cast<uint16_t>(t.nDims);
    for (int d = 0; d < 4; ++d) s.dims[d] = d < int(t.nDims) ? t.dims[d] : 0;
    s.data = t.data;
    s.size = t.size;
    s.quant = quantWord(t.type);
    if (!w.addTensor(s, err)) {
      setErr(req, err);
      return 1;
    }
    weightBytes += t.size;
  }
  w.forceQuantInfo();

  Progress progress;
  progress.show = weightBytes >= (64u << 20);
  w.progress = [&](uint64_t done, uint64_t total) { progress(done, total); };

  const std::string dst = req->outPath;
  const std::string tmp = dst + ".tmp." + std::to_string(getpid());
  if (!w.write(tmp.c_str(), err)) {
    std::remove(tmp.c_str());
    setErr(req, err);
    return 1;
  }
  if (zanCompatRename(tmp.c_str(), dst.c_str()) != 0) {
    const std::string why = std::strerror(errno);
    std::remove(tmp.c_str());
    setErr(req, "cannot move the output into place at " + dst + ": " + why);
    return 1;
  }
  struct stat st;
  if (req->outTensors) *req->outTensors = f.tensors.size();
  if (req->outBytes) *req->outBytes = stat(dst.c_str(), &st) == 0 ? static_cast<uint64_t>(st.st_size) : 0;
  return 0;
}

const ZANImporterDesc kImporters[] = {
    {kZanDescriptorAbi, 0, "gguf", "GGUF importer (v2, v3: F32 F16 BF16 Q8_0 Q4_0 Q2_K..Q6_K)", 0, ".gguf", probe, 0, convert},
};

const ZANPluginInfo kInfo = {kZanPluginAbi, 1, "gguf", "imports GGUF models into ZAN2 containers", nullptr, 0, 0};

}  // namespace

extern "C" {
ZAN_PLUGIN_EXPORT const ZANPluginInfo* zan_plugin_init(const ZANHostAPI*) { return &kInfo; }
ZAN_PLUGIN_EXPORT const ZANImporterDesc* zan_plugin_importers(uint32_t* count) {
  *count = 1;
  return kImporters;
}
}
