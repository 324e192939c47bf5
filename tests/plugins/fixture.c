/* Test plugins. One source built into several libraries; FIXTURE selects 1 alpha (a good record in every
 * table, commands, capabilities), 2 beta (ids that repeat alpha's, its own probes and devices), 3 bad (a
 * refused record before a good one in every table, a null table with a non-zero count), 4 initnull,
 * 5 wrongabi (ABI 2), 6 noinit, 7 initonly (only zan_plugin_init). Cases vary behaviour through the
 * environment, read at call time: ZAN_TEST_<ALPHA|BETA|IMPORT|TRAIN>_CONF / _RC (a probe's confidence and
 * result), ZAN_TEST_DEVICES (devices of alpha's GPU backend, default 2), ZAN_TEST_ENUM_RC / _RC2 (results
 * of its first and second enumerate). */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "plugin/zan_plugin.h"

#ifndef FIXTURE
#error "FIXTURE must be set"
#endif

#if FIXTURE != 6
static const ZANHostAPI* gHost;
#endif

#if FIXTURE == 1 || FIXTURE == 2 || FIXTURE == 3

#if FIXTURE == 1
#define NAME "alpha"
#define ENV(s) "ZAN_TEST_ALPHA_" s
#elif FIXTURE == 2
#define NAME "beta"
#define ENV(s) "ZAN_TEST_BETA_" s
#else
#define NAME "bad"
#define ENV(s) "ZAN_TEST_BAD_" s
#endif

static void slot(void) {}

static int envInt(const char* name, int fallback) {
  const char* v = getenv(name);
  return v && *v ? atoi(v) : fallback;
}

static int32_t runtimeProbe(const char* path, ZANRuntimeProbe* out) {
  out->confidence = envInt(ENV("CONF"), 0);
  out->architecture = "llama";
  out->backend = NAME "-cpu";
  out->reason = NAME " looked at the file";
  return envInt(ENV("RC"), 0);
}

static int32_t importerProbe(const char* path, ZANProbeResult* out) {
  out->confidence = envInt("ZAN_TEST_IMPORT_CONF", 0);
  out->format = FIXTURE == 1 ? "gguf" : NULL;
  out->architecture = FIXTURE == 1 ? "llama" : NULL;
  out->reason = NULL;
  return envInt("ZAN_TEST_IMPORT_RC", 0);
}

#if FIXTURE != 3
static int32_t trainerProbe(const char* path, ZANTrainerProbe* out) {
  out->confidence = envInt("ZAN_TEST_TRAIN_CONF", 0);
  out->kind = FIXTURE == 1 ? "lora" : NULL;
  out->reason = "fits";
  return envInt("ZAN_TEST_TRAIN_RC", 0);
}

static int32_t train(const ZANTuneRequest* req) { return 0; }
#endif
static int32_t chatTurn(void* h, const char* text, char* out, uint64_t cap) { return 0; }
static int32_t chatClear(void* h) { return 0; }
static int32_t stream(void* h, const char* text, ZANTokenFn fn, void* user, volatile int* stop) { return 0; }
static int32_t formatOpen(const char* path, void** handle) { return 1; }
static int32_t formatClose(void* handle) { return 0; }

static ZANBackendDeviceInfo kGpus[] = {
    {0, 0, "gpu-a", "Test GPU A", 0, 0, 8589934592ull, 1, 3, 0x10},
    {0, 1, "gpu-b", "Test GPU B", 0, 0, 4294967296ull, 2, 0, 0x20},
    {0, 2, "gpu-c", NULL, 0, 0, 0, 0, 0, 0},
};

/* Stores up to `capacity` of the configured devices; ZAN_TEST_DEVICES may
 * claim more than exist, and then only the three above are filled. */
static int32_t enumerateGpus(ZANDeviceQuery* q) {
  const int want = envInt("ZAN_TEST_DEVICES", 2);
  if (!q->devices) {
    q->count = (uint32_t)want;
    return envInt("ZAN_TEST_ENUM_RC", 0);
  }
  uint32_t n = q->capacity < 3 ? q->capacity : 3;
  for (uint32_t i = 0; i < n; ++i) q->devices[i] = kGpus[i];
  q->count = n;
  return envInt("ZAN_TEST_ENUM_RC2", 0);
}

#if FIXTURE == 1
static const ZANBackendDeviceInfo kHostCpu = {0, 0, "cpu0", "Host CPU", 0, 0, 1024, 0, 0, kBackendCapHost};
static int32_t enumerateHost(ZANDeviceQuery* q) {
  q->count = 1;
  if (q->devices) q->devices[0] = kHostCpu;
  return 0;
}
#endif

/* In the bad fixture a refused record stands before each good one. */
#if FIXTURE == 3
#define REFUSED(...) __VA_ARGS__,
#else
#define REFUSED(...)
#endif

static const ZANRuntimeV2Desc kRuntimesV2[] = {REFUSED({kZanRuntimeV2Abi, 0, NAME "-rt", {0}, 0, 0, 0, 0, 0, 0, NULL, chatClear, 0})
    {kZanRuntimeV2Abi, 0, NAME "-rt", {0}, 0, 0, 0, 0, 0, 0, chatTurn, chatClear, 0}};
static const ZANRuntimeV2SDesc kRuntimesV2S[] = {REFUSED({1, 16, NAME "-rt", stream})
    {1, 24, NAME "-rt", stream}};
static const ZANExecutionDesc kExecs[] = {REFUSED({2, 0, NAME "-exec", "Refused Exec", 0, {0}, slot, 0, slot, {0}})
    {1, 0, NAME "-exec", "Test Execution " NAME, 0x4, {0}, slot, 0, slot, {0}}};
static const ZANFormatDesc kFormats[] = {REFUSED({1, 0, "zan2", 0, formatOpen, NULL, 0, 0, 0, 0})
    {1, 0, NAME "-fmt", 0, formatOpen, formatClose, 0, 0, 0, 0}};
static const ZANTokenizerDesc kTokenizers[] = {REFUSED({1, 0, NAME "-tok", "Refused", 0, NULL, slot, 0, NULL, slot, {0}})
    {1, 0, NAME "-tok", "Test Tokenizer " NAME, FIXTURE == 1 ? 0 : 0x3, FIXTURE == 1 ? "spm" : NULL, slot, 0, slot,
     slot, {0}}};
static const ZANSamplerDesc kSamplers[] = {REFUSED({1, 0, NAME "-samp", "Refused", 0, NULL, 0, slot, {0}})
    {1, 0, NAME "-samp", "Test Sampler " NAME, 0x8, slot, 0, slot, {0}}};
#if FIXTURE != 3
static const ZANTrainerDesc kTrainers[] = {REFUSED({1, 0, NAME "-train", "Refused", 0, trainerProbe, NULL})
    {1, 0, NAME "-train", "Test Trainer " NAME, 0x1, trainerProbe, train}};
#endif
static const ZANBackendDesc kBackends[] = {
    REFUSED({1, 0, "refused", "Refused", NULL, 0, 0, NULL, NULL, slot, 0})
    {1, 0, NAME "-gpu", "Test GPU backend " NAME, FIXTURE == 1 ? "1.2" : NULL, 0x2, 0,
          FIXTURE == 1 ? enumerateGpus : NULL, slot, slot, 0},
#if FIXTURE == 1
    {1, 0, NAME "-host", "Test host backend", "0.9", kBackendCapHost | 0x4, 0, enumerateHost, slot, slot, 0},
#endif
};
static const ZANRuntimeDesc kRuntimes[] = {REFUSED({0, 0, NAME "-rt", "Refused", 0, runtimeProbe, slot, {0}})
    {1, 0, FIXTURE == 2 ? "alpha-rt" : NAME "-rt", "Test Runtime " NAME, FIXTURE == 1 ? 0 : 0x6, runtimeProbe, slot,
     {0}}};
static const ZANImporterDesc kImporters[] = {REFUSED({1, 0, NAME "-imp", "Refused", 0, NULL, NULL, 0, NULL})
    {1, 0, NAME "-imp", "Test Importer " NAME, 0x1, FIXTURE == 1 ? ".gguf" : NULL, importerProbe, 0, NULL}};

#define COUNT(a) (*count = (uint32_t)(sizeof(a) / sizeof(a)[0]), (a))
ZAN_PLUGIN_EXPORT const ZANRuntimeV2Desc* zan_plugin_runtimes_v2(uint32_t* count) { return COUNT(kRuntimesV2); }
ZAN_PLUGIN_EXPORT const ZANRuntimeV2SDesc* zan_plugin_runtimes_v2s(uint32_t* count) { return COUNT(kRuntimesV2S); }
ZAN_PLUGIN_EXPORT const ZANExecutionDesc* zan_plugin_executions(uint32_t* count) { return COUNT(kExecs); }
ZAN_PLUGIN_EXPORT const ZANFormatDesc* zan_plugin_format(uint32_t* count) { return COUNT(kFormats); }
ZAN_PLUGIN_EXPORT const ZANTokenizerDesc* zan_plugin_tokenizers(uint32_t* count) { return COUNT(kTokenizers); }
ZAN_PLUGIN_EXPORT const ZANSamplerDesc* zan_plugin_samplers(uint32_t* count) { return COUNT(kSamplers); }
ZAN_PLUGIN_EXPORT const ZANBackendDesc* zan_plugin_backends(uint32_t* count) { return COUNT(kBackends); }
ZAN_PLUGIN_EXPORT const ZANRuntimeDesc* zan_plugin_runtimes(uint32_t* count) { return COUNT(kRuntimes); }
ZAN_PLUGIN_EXPORT const ZANImporterDesc* zan_plugin_importers(uint32_t* count) { return COUNT(kImporters); }
#if FIXTURE == 3
/* A null table with a count: every record is refused. */
ZAN_PLUGIN_EXPORT const ZANTrainerDesc* zan_plugin_trainers(uint32_t* count) {
  *count = 2;
  return NULL;
}
#else
ZAN_PLUGIN_EXPORT const ZANTrainerDesc* zan_plugin_trainers(uint32_t* count) { return COUNT(kTrainers); }
#endif

/* `hello` shows what the host passed; the others give fixed results. */
static int32_t hello(void* context, int argc, char** argv) {
  printf("hello from %s: context=%s argc=%d", NAME, context ? "set" : "null", argc);
  for (int i = 0; i < argc; ++i) printf(" [%s]", argv[i]);
  printf("\n");
  if (gHost) gHost->hostLog(3, "hello logged through the host");
  return 0;
}
static int32_t fails(void* context, int argc, char** argv) { return 7; }
static int32_t four(void* context, int argc, char** argv) { return 4; }

static const ZANCommand kCommands[] = {
    {"hello", "greets", hello},
    {"fails", "always fails with 7", fails},
    {"four", "returns 4", four},
    {"nothing", "has no run", NULL},
    {"", "the empty word", hello},
};

static const ZANPluginInfo kInfo = {1, FIXTURE == 1 ? 3 : 1, NAME, "test plugin " NAME, kCommands,
                                    FIXTURE == 1 ? 5 : FIXTURE == 2 ? 1 : 0, 0};

#if FIXTURE == 1
ZAN_PLUGIN_EXPORT uint64_t zan_plugin_capabilities(void) { return 0x30; }
#endif

#elif FIXTURE == 5 || FIXTURE == 7

static const ZANPluginInfo kInfo = {FIXTURE == 5 ? 2 : 1, 1, FIXTURE == 7 ? "initonly" : "never", NULL, NULL, 0, 0};

#endif

#if FIXTURE != 6
ZAN_PLUGIN_EXPORT const ZANPluginInfo* zan_plugin_init(const ZANHostAPI* host) {
  gHost = host;
#if FIXTURE == 4
  return NULL;
#else
  return &kInfo;
#endif
}
#else
/* Looks like a plugin, but the host can't start it. */
ZAN_PLUGIN_EXPORT int zan_plugin_version(void) { return 1; }
#endif
