/*
 * A test plugin for the model commands: runtimes, an importer, a trainer and
 * a "zan2" format that answer with what the host sent them, so that tests
 * can check the host's records byte for byte. Runtimes claim files by ending:
 *   .rec     generate and chatTurn answer with the create hint and every
 *            ZANGenParams field; no streaming record, so chat blocks
 *   .stream  chatTurnStream emits the line word by word; with
 *            ZAN_TEST_STREAM_FOREVER it emits "tick " until *stop becomes 1
 *   .bench   bench answers the ms/token values of ZAN_TEST_BENCH_MS in turn
 *            ("3.0,1.0,fail,..."; "fail" returns 9)
 *   .v1      a probe record with no v2 record; .noterm: generate fills the
 *            whole buffer with "x" and no terminator
 * create fails for a model path containing "fail"; ZAN_TEST_GEN_RC sets the
 * result of generate. Every call that matters leaves a line on stderr.
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "plugin/zan_plugin.h"

static void slot(void) {}

static int envInt(const char* name, int fallback) {
  const char* v = getenv(name);
  return v && *v ? atoi(v) : fallback;
}

static int endsWith(const char* s, const char* suffix) {
  size_t n = strlen(s), m = strlen(suffix);
  return n >= m && memcmp(s + n - m, suffix, m) == 0;
}

typedef struct Session {
  char hint[512];
  const ZANGenParams* params; /* from configure, read again on every turn */
  int turns, benchRun;
} Session;

static int32_t probeBy(const char* path, ZANRuntimeProbe* out, const char* ending, int confidence) {
  if (!endsWith(path, ending)) return 0;
  out->confidence = confidence;
  out->architecture = "llama";
  out->backend = "testcpu";
  out->reason = "ending matches";
  return 0;
}

static int32_t probeRec(const char* p, ZANRuntimeProbe* o) { return probeBy(p, o, ".rec", 60); }
static int32_t probeStream(const char* p, ZANRuntimeProbe* o) { return probeBy(p, o, ".stream", 60); }
static int32_t probeBench(const char* p, ZANRuntimeProbe* o) { return probeBy(p, o, ".bench", 60); }
static int32_t probeV1(const char* p, ZANRuntimeProbe* o) { return probeBy(p, o, ".v1", 60); }
static int32_t probeNoterm(const char* p, ZANRuntimeProbe* o) { return probeBy(p, o, ".noterm", 60); }

static int32_t create(const char* model, const char* hint, void** out, char* err, uint64_t cap) {
  fprintf(stderr, "[model] create %s hint='%s'\n", model, hint);
  if (strstr(model, "fail")) {
    snprintf(err, (size_t)cap, "cannot open %s", model);
    return 3;
  }
  Session* s = (Session*)calloc(1, sizeof *s);
  snprintf(s->hint, sizeof s->hint, "%s", hint);
  *out = s;
  return 0;
}

static void destroy(void* h) {
  fprintf(stderr, "[model] destroy\n");
  free(h);
}

static void describe(const Session* s, const ZANGenParams* p, char* out, uint64_t cap, const char* what,
                     const char* text) {
  if (!p) { /* never configured */
    snprintf(out, (size_t)cap, "%s '%s' hint='%s' unconfigured", what, text, s->hint);
    return;
  }
  snprintf(out, (size_t)cap,
           "%s '%s' hint='%s' size=%u temp=%.2f topK=%d topP=%.2f seed=%llu maxNew=%u fixedA=%d fixedB=%u "
           "ctx=%u kv=%d system=%s%s%s",
           what, text, s->hint, p->size, p->temperature, p->topK, p->topP, (unsigned long long)p->seed, p->maxNew,
           p->fixedA, p->fixedB, p->contextCap, p->kvType, p->systemPrompt ? "'" : "", p->systemPrompt ? p->systemPrompt : "null",
           p->systemPrompt ? "'" : "");
}

static int32_t generate(void* h, const char* prompt, const ZANGenParams* p, char* out, uint64_t cap) {
  describe((Session*)h, p, out, cap, "generate", prompt);
  return envInt("ZAN_TEST_GEN_RC", 0);
}

static int32_t configure(void* h, const ZANGenParams* p) {
  ((Session*)h)->params = p;
  fprintf(stderr, "[model] configure maxNew=%u\n", p->maxNew);
  return 0;
}

static int32_t chatTurn(void* h, const char* text, char* out, uint64_t cap) {
  Session* s = (Session*)h;
  char what[32];
  snprintf(what, sizeof what, "turn %d", ++s->turns);
  describe(s, s->params, out, cap, what, text);
  return 0;
}

static int32_t chatClear(void* h) {
  ((Session*)h)->turns = 0;
  fprintf(stderr, "[model] clear\n");
  return 0;
}

static int32_t chatStream(void* h, const char* text, ZANTokenFn onToken, void* user, volatile int* stop) {
  Session* s = (Session*)h;
  ++s->turns;
  if (getenv("ZAN_TEST_STREAM_FOREVER")) {
    /* Until Ctrl-C, or a minute at most so a broken host can't hang a test. */
    for (int i = 0; i < 3000 && !*stop; ++i) {
      struct timespec t = {0, 20 * 1000000L};
      onToken("tick ", 5, user);
      nanosleep(&t, NULL);
    }
    onToken(*stop ? "[stopped]" : "[timeout]", 9, user);
    return 0;
  }
  /* One token per word, with its leading space; the stop word is read
   * between tokens. */
  const char* p = text;
  while (*p && !*stop) {
    const char* start = p;
    while (*p == ' ') ++p;
    while (*p && *p != ' ') ++p;
    onToken(start, (uint32_t)(p - start), user);
  }
  return 0;
}

static int32_t bench(void* h, const ZANBenchRequest* req, ZANBenchResult* out) {
  Session* s = (Session*)h;
  fprintf(stderr, "[model] bench size=%u tokens=%u warmup=%u maxNew=%u fixedC=%u\n", req->size, req->tokens,
          req->warmup, req->maxNew, req->fixedC);
  const char* list = getenv("ZAN_TEST_BENCH_MS");
  if (!list) list = "1.0";
  /* The value for this run: the run's own entry, or the last one. */
  const char* p = list;
  for (int i = 0; i < s->benchRun && strchr(p, ','); ++i) p = strchr(p, ',') + 1;
  ++s->benchRun;
  if (!strncmp(p, "fail", 4)) return 9;
  out->msPerToken = atof(p);
  out->tokensPerSecond = out->msPerToken > 0 ? 1000.0 / out->msPerToken : 0;
  return 0;
}

static int32_t generateNoTerm(void* h, const char* prompt, const ZANGenParams* p, char* out, uint64_t cap) {
  memset(out, 'x', (size_t)cap);
  return 0;
}

static const ZANRuntimeDesc kRuntimes[] = {
    {1, 0, "rec", "Recording runtime", 0, probeRec, slot, {0}},
    {1, 0, "stream", "Streaming runtime", 0, probeStream, slot, {0}},
    {1, 0, "bench", "Bench runtime", 0, probeBench, slot, {0}},
    {1, 0, "v1", "Probe only", 0, probeV1, slot, {0}},
    {1, 0, "noterm", "No terminator", 0, probeNoterm, slot, {0}},
};

static const ZANRuntimeV2Desc kRuntimesV2[] = {
    {3, 0, "rec", {0}, create, destroy, 0, generate, NULL, configure, chatTurn, chatClear, 0},
    {3, 0, "stream", {0}, create, destroy, 0, NULL, NULL, configure, chatTurn, chatClear, 0},
    {3, 0, "bench", {0}, create, destroy, 0, generate, bench, configure, chatTurn, chatClear, 0},
    {3, 0, "noterm", {0}, create, destroy, 0, generateNoTerm, NULL, configure, chatTurn, chatClear, 0},
};

static const ZANRuntimeV2SDesc kStreams[] = {{1, 24, "stream", chatStream}};

static int32_t importProbe(const char* path, ZANProbeResult* out) {
  if (endsWith(path, ".gguf")) {
    out->confidence = 10;
    out->format = envInt("ZAN_TEST_NULL_FORMAT", 0) ? NULL : "gguf";
    out->architecture = getenv("ZAN_TEST_ARCH");
  }
  return 0;
}

static int32_t convert(const char* src, const ZANConvertRequest* req) {
  fprintf(stderr, "[model] convert %s -> %s size=%u errCap=%llu\n", src, req->outPath, req->size,
          (unsigned long long)req->errCap);
  if (strstr(src, "bad")) {
    snprintf(req->err, (size_t)req->errCap, "tensor blk.0 has type 99");
    return 3;
  }
  FILE* f = fopen(req->outPath, "wb");
  if (!f) return 5;
  fputs("converted\n", f);
  fclose(f);
  *req->outTensors = 9;
  *req->outBytes = 3 * 1048576 / 2; /* what a real model of 1.5 MB would report */
  return 0;
}

static const ZANImporterDesc kImporters[] = {
    {1, 0, "gguf", "Test GGUF importer", 0, ".gguf", importProbe, 0, convert},
};

static int32_t trainProbe(const char* path, ZANTrainerProbe* out) {
  if (!endsWith(path, ".zan")) return 0;
  out->confidence = 20;
  out->kind = "lora";
  return 0;
}

static int32_t train(const ZANTuneRequest* req) {
  fprintf(stderr, "[model] train size=%u model=%s data=%s out=%s forceCpu=%u errCap=%llu\n", req->size,
          req->modelPath, req->dataPath, req->outPath, req->forceCpu, (unsigned long long)req->errCap);
  int rc = envInt("ZAN_TEST_TRAIN_RC", 0);
  if (rc) {
    snprintf(req->err, (size_t)req->errCap, "out of data");
    return rc;
  }
  *req->outTensors = 3;
  return 0;
}

static const ZANTrainerDesc kTrainers[] = {{1, 0, "lora", "Test trainer", 0, trainProbe, train}};

typedef struct Opened { long size; } Opened;

static int32_t fmtOpen(const char* path, void** out) {
  FILE* f = fopen(path, "rb");
  if (!f) return 5;
  fseek(f, 0, SEEK_END);
  Opened* o = (Opened*)malloc(sizeof *o);
  o->size = ftell(f);
  fclose(f);
  *out = o;
  return 0;
}

static int32_t fmtClose(void* h) {
  fprintf(stderr, "[model] format close\n");
  free(h);
  return 0;
}

static int32_t fmtInfo(void* h, ZANFormatInfo* out) {
  out->version = 2;
  out->sections = 5;
  out->tensors = (uint32_t)envInt("ZAN_TEST_TENSORS", 9);
  out->size = (uint64_t)((Opened*)h)->size;
  return 0;
}

static int32_t fmtTensor(void* h, uint32_t index, ZANTensorInfo* out) {
  static char names[16][16];
  snprintf(names[index % 16], sizeof names[0], "t%u", index);
  out->name = index == 3 ? NULL : names[index % 16];
  out->dtype = (uint16_t)index;
  out->ndim = 2;
  out->size = index * 100u;
  return 0;
}

static const ZANFormatDesc kFormats[] = {{1, 0, "zan2", 0, fmtOpen, fmtClose, fmtInfo, 0, fmtTensor, 0}};

#define COUNT(a) (*count = (uint32_t)(sizeof(a) / sizeof(a)[0]), (a))
ZAN_PLUGIN_EXPORT const ZANRuntimeDesc* zan_plugin_runtimes(uint32_t* count) { return COUNT(kRuntimes); }
ZAN_PLUGIN_EXPORT const ZANRuntimeV2Desc* zan_plugin_runtimes_v2(uint32_t* count) { return COUNT(kRuntimesV2); }
ZAN_PLUGIN_EXPORT const ZANRuntimeV2SDesc* zan_plugin_runtimes_v2s(uint32_t* count) { return COUNT(kStreams); }
ZAN_PLUGIN_EXPORT const ZANImporterDesc* zan_plugin_importers(uint32_t* count) { return COUNT(kImporters); }
ZAN_PLUGIN_EXPORT const ZANTrainerDesc* zan_plugin_trainers(uint32_t* count) { return COUNT(kTrainers); }
ZAN_PLUGIN_EXPORT const ZANFormatDesc* zan_plugin_format(uint32_t* count) { return COUNT(kFormats); }

static const ZANPluginInfo kInfo = {1, 1, "model", "model commands test plugin", NULL, 0, 0};
ZAN_PLUGIN_EXPORT const ZANPluginInfo* zan_plugin_init(const ZANHostAPI* host) { return &kInfo; }
