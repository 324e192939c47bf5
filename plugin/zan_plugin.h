/*
 * The plugin boundary of zan: the one header a plugin compiles against.
 *
 * A plugin is a shared library exporting `zan_plugin_init` and, optionally,
 * `zan_plugin_capabilities` and the table symbols below. The host reads every
 * record in place through these layouts and never copies or frees them: all
 * descriptors, tables and strings belong to the plugin and must stay valid
 * until the library is closed at process exit. Records the host builds
 * (requests, parameters, buffers) live for one call, except the parameters
 * given to `configure`, which stay alive until `destroy`.
 *
 * Layout: 64-bit little-endian target, pointers and sizes 8 bytes, strings
 * are NUL-terminated UTF-8, a status is an int32_t with 0 meaning success.
 * Offsets and strides are binding; the `reserved` fields keep them and are
 * never read by the host. Plain C (C99 or later) and C++.
 */
#ifndef ZAN_PLUGIN_H
#define ZAN_PLUGIN_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ABI numbers. */
enum {
  kZanPluginAbi = 1,        /* ZANPluginInfo.abi */
  kZanHostApiVersion = 1,   /* ZANHostAPI.version */
  kZanDescriptorAbi = 1,    /* abi of every descriptor but ZANRuntimeV2Desc */
  kZanRuntimeV2Abi = 3,     /* ZANRuntimeV2Desc.abi */
  kZanStreamDescMinSize = 24 /* least ZANRuntimeV2SDesc.size */
};

/* Capability bit with a meaning in the host, on ZANBackendDesc.caps: the
 * backend's devices are not GPUs, so `zan ls devices` leaves it out of its
 * GPU list. Every other caps bit is the plugin's own. */
enum { kBackendCapHost = 1 };

/* A slot the host never calls; fill it with any non-null function. */
typedef void (*ZANSlotFn)(void);

/* ---- Host side ---------------------------------------------------------- */

typedef struct ZANHostAPI {
  uint32_t version; /* 1 */
  uint32_t reserved04;
  void (*hostLog)(int level, const char* text); /* "[zan plugin] text" on stderr */
  void* (*hostAlloc)(uint64_t size);
  void (*hostFree)(void* p);
} ZANHostAPI;

/* ---- Plugin identity and commands --------------------------------------- */

typedef struct ZANCommand {
  const char* name;        /* the command word, matched exactly */
  const char* description; /* shown by `zan plugins` */
  /* argv[0] is the command word; context is null. 4 is reserved: the host
   * reads it as "no such command". */
  int32_t (*run)(void* context, int argc, char** argv);
} ZANCommand;

typedef struct ZANPluginInfo {
  uint32_t abi;     /* kZanPluginAbi */
  uint32_t version; /* the plugin's own version */
  const char* name;
  const char* description;
  const ZANCommand* commands;
  uint32_t commandCount;
  uint32_t reserved24;
} ZANPluginInfo;

/* ---- Records the host fills or clears ----------------------------------- */

/* Probe records: cleared before each probe; strings may be null and must
 * outlive the call. confidence >= 1 claims, higher wins. */
typedef struct ZANRuntimeProbe {
  int32_t confidence;
  uint32_t reserved04;
  const char* architecture;
  const char* backend; /* the head of the create hint */
  const char* reason;
} ZANRuntimeProbe;

typedef struct ZANProbeResult {
  int32_t confidence;
  uint32_t reserved04;
  const char* format;
  const char* architecture;
  const char* reason;
} ZANProbeResult;

typedef struct ZANTrainerProbe {
  int32_t confidence;
  uint32_t reserved04;
  const char* kind;
  const char* reason;
} ZANTrainerProbe;

typedef struct ZANGenParams {
  uint32_t size; /* 56 */
  float temperature;
  int32_t topK;
  float topP;
  uint64_t seed;
  uint32_t maxNew;
  int32_t fixedA; /* always -1 */
  uint32_t fixedB; /* always 0 */
  uint32_t contextCap; /* 0: the model's own */
  int32_t kvType;      /* 0 f16, 1 q8_0, 2 q4_0 */
  uint32_t reserved2c;
  const char* systemPrompt; /* may be null */
} ZANGenParams;

typedef struct ZANBenchRequest {
  uint32_t size; /* 20 */
  uint32_t tokens;
  uint32_t warmup;
  uint32_t maxNew;
  uint32_t fixedC; /* always 0 */
} ZANBenchRequest;

typedef struct ZANBenchResult {
  uint64_t reserved00;
  double msPerToken;
  double tokensPerSecond;
  uint64_t reserved18;
} ZANBenchResult;

typedef struct ZANTuneRequest {
  uint32_t size; /* 64 */
  uint32_t reserved04;
  const char* modelPath;
  const char* dataPath;
  const char* outPath;
  char* err; /* cleared host buffer of errCap bytes */
  uint64_t errCap;
  uint64_t* outTensors;
  uint32_t forceCpu;
  uint32_t reserved3c;
} ZANTuneRequest;

typedef struct ZANConvertRequest {
  uint32_t size; /* 56 */
  uint32_t reserved04;
  const char* outPath;
  char* err; /* cleared host buffer of errCap bytes */
  uint64_t errCap;
  uint64_t* outTensors;
  uint64_t* outBytes;
  uint64_t reserved30;
} ZANConvertRequest;

typedef struct ZANBackendDeviceInfo {
  uint32_t reserved00;
  uint32_t index;
  const char* id;
  const char* name;
  uint64_t reserved18;
  uint64_t reserved20;
  uint64_t memory; /* bytes */
  uint32_t apiMajor;
  uint32_t apiMinor;
  uint64_t caps;
} ZANBackendDeviceInfo;

/* Two calls: first with devices null (store the count), then with an array
 * of `capacity` zeroed records; never store more than `capacity`. */
typedef struct ZANDeviceQuery {
  uint32_t count;
  uint32_t capacity;
  ZANBackendDeviceInfo* devices;
} ZANDeviceQuery;

/* The host gives 32 and 64 bytes for these and doesn't clear them. */
typedef struct ZANFormatInfo {
  uint32_t reserved00;
  uint32_t version;
  uint32_t sections;
  uint32_t tensors;
  uint64_t size; /* file size in bytes */
  uint64_t reserved18;
} ZANFormatInfo;

typedef struct ZANTensorInfo {
  const char* name; /* may be null */
  uint16_t dtype;
  uint16_t ndim;
  uint32_t reserved0c;
  uint64_t reserved10[5];
  uint64_t size;
} ZANTensorInfo;

/* Writes exactly `length` bytes of a streamed answer; no terminator needed. */
typedef void (*ZANTokenFn)(const char* bytes, uint32_t length, void* user);

/* ---- Descriptors, one table per kind ------------------------------------ */

typedef struct ZANRuntimeDesc { /* stride 0x40 */
  uint32_t abi;                 /* 1 */
  uint32_t reserved04;
  const char* id;
  const char* name;
  uint64_t caps;
  int32_t (*probe)(const char* path, ZANRuntimeProbe* out); /* required */
  ZANSlotFn slot28;                                          /* required */
  uint64_t reserved30[2];
} ZANRuntimeDesc;

typedef struct ZANRuntimeV2Desc { /* stride 0x70 */
  uint32_t abi;                   /* 3 */
  uint32_t reserved04;
  const char* id; /* the id of the ZANRuntimeDesc that matched */
  uint64_t reserved10[3];
  int32_t (*create)(const char* modelPath, const char* hint, void** outHandle, char* err, uint64_t errCap);
  void (*destroy)(void* handle);
  uint64_t reserved38;
  /* May be null: `zan run` then refuses. */
  int32_t (*generate)(void* handle, const char* prompt, const ZANGenParams* params, char* out, uint64_t outCap);
  /* May be null: `zan bench` then refuses. */
  int32_t (*bench)(void* handle, const ZANBenchRequest* req, ZANBenchResult* out);
  int32_t (*configure)(void* handle, const ZANGenParams* params);
  int32_t (*chatTurn)(void* handle, const char* text, char* out, uint64_t outCap); /* required */
  int32_t (*chatClear)(void* handle);                                              /* required */
  uint64_t reserved68;
} ZANRuntimeV2Desc;

typedef struct ZANRuntimeV2SDesc { /* stride 0x18 */
  uint32_t abi;                    /* 1 */
  uint32_t size;                   /* at least 24 */
  const char* id;
  /* `*stop` becomes 1 on Ctrl-C; read it through the volatile pointer. */
  int32_t (*chatTurnStream)(void* handle, const char* text, ZANTokenFn onToken, void* user,
                            volatile int* stop); /* required */
} ZANRuntimeV2SDesc;

typedef struct ZANExecutionDesc { /* stride 0x60 */
  uint32_t abi;                   /* 1 */
  uint32_t reserved04;
  const char* id;
  const char* name;
  uint64_t caps;
  uint64_t reserved20[3];
  ZANSlotFn slot38; /* required */
  uint64_t reserved40;
  ZANSlotFn slot48; /* required */
  uint64_t reserved50[2];
} ZANExecutionDesc;

typedef struct ZANFormatDesc { /* stride 0x48 */
  uint32_t abi;                /* 1 */
  uint32_t reserved04;
  const char* id;
  uint64_t reserved10;
  int32_t (*open)(const char* path, void** outHandle); /* required */
  int32_t (*close)(void* handle);                      /* required */
  int32_t (*getInfo)(void* handle, ZANFormatInfo* out);
  uint64_t reserved30;
  int32_t (*getTensor)(void* handle, uint32_t index, ZANTensorInfo* out);
  uint64_t reserved40;
} ZANFormatDesc;

typedef struct ZANTokenizerDesc { /* stride 0x60 */
  uint32_t abi;                   /* 1 */
  uint32_t reserved04;
  const char* id;
  const char* name;
  uint64_t caps;
  const char* format; /* may be null */
  ZANSlotFn slot28;   /* required */
  uint64_t reserved30;
  ZANSlotFn slot38; /* required */
  ZANSlotFn slot40; /* required */
  uint64_t reserved48[3];
} ZANTokenizerDesc;

typedef struct ZANSamplerDesc { /* stride 0x48 */
  uint32_t abi;                 /* 1 */
  uint32_t reserved04;
  const char* id;
  const char* name;
  uint64_t caps;
  ZANSlotFn slot20; /* required */
  uint64_t reserved28;
  ZANSlotFn slot30; /* required */
  uint64_t reserved38[2];
} ZANSamplerDesc;

typedef struct ZANTrainerDesc { /* stride 0x30 */
  uint32_t abi;                 /* 1 */
  uint32_t reserved04;
  const char* id;
  const char* name;
  uint64_t caps;
  int32_t (*probe)(const char* modelPath, ZANTrainerProbe* out); /* required */
  int32_t (*train)(const ZANTuneRequest* req);                   /* required */
} ZANTrainerDesc;

typedef struct ZANBackendDesc { /* stride 0x50; version comes before caps */
  uint32_t abi;                 /* 1 */
  uint32_t reserved04;
  const char* id;
  const char* name;
  const char* version; /* may be null */
  uint64_t caps;
  uint64_t reserved28;
  int32_t (*enumerate)(ZANDeviceQuery* q); /* may be null */
  ZANSlotFn slot38;                        /* required */
  ZANSlotFn slot40;                        /* required */
  uint64_t reserved48;
} ZANBackendDesc;

typedef struct ZANImporterDesc { /* stride 0x40 */
  uint32_t abi;                  /* 1 */
  uint32_t reserved04;
  const char* id;
  const char* name;
  uint64_t caps;
  const char* extensions; /* may be null */
  int32_t (*probe)(const char* path, ZANProbeResult* out); /* required */
  uint64_t reserved30;
  /* May be null: the importer can't convert. */
  int32_t (*convert)(const char* srcPath, const ZANConvertRequest* req);
} ZANImporterDesc;

/* ---- Exported symbols, in the order the host looks them up -------------- */

#if defined(_WIN32)
#define ZAN_PLUGIN_EXPORT __declspec(dllexport)
#else
#define ZAN_PLUGIN_EXPORT __attribute__((visibility("default")))
#endif

typedef const ZANPluginInfo* (*ZANPluginInitFn)(const ZANHostAPI* host); /* zan_plugin_init, required */
typedef uint64_t (*ZANPluginCapsFn)(void);                                /* zan_plugin_capabilities */
/* Every table symbol: store the record count, return the first record. */
typedef const void* (*ZANPluginTableFn)(uint32_t* count);

/* ---- Compile-time checks of the binding layout -------------------------- */

#if defined(__cplusplus)
#define ZAN_ABI_CHECK(cond, name) static_assert(cond, #name)
#elif defined(__STDC_VERSION__) && __STDC_VERSION__ >= 201112L
#define ZAN_ABI_CHECK(cond, name) _Static_assert(cond, #name)
#else
#define ZAN_ABI_CHECK(cond, name) typedef char zan_abi_check_##name[(cond) ? 1 : -1]
#endif

ZAN_ABI_CHECK(sizeof(void*) == 8, pointer_is_8_bytes);
ZAN_ABI_CHECK(offsetof(ZANHostAPI, hostLog) == 0x08 && offsetof(ZANHostAPI, hostAlloc) == 0x10 &&
                  offsetof(ZANHostAPI, hostFree) == 0x18,
              host_api);
ZAN_ABI_CHECK(offsetof(ZANPluginInfo, version) == 0x04 && offsetof(ZANPluginInfo, name) == 0x08 &&
                  offsetof(ZANPluginInfo, description) == 0x10 && offsetof(ZANPluginInfo, commands) == 0x18 &&
                  offsetof(ZANPluginInfo, commandCount) == 0x20,
              plugin_info);
ZAN_ABI_CHECK(sizeof(ZANCommand) == 0x18 && offsetof(ZANCommand, description) == 0x08 &&
                  offsetof(ZANCommand, run) == 0x10,
              command);
ZAN_ABI_CHECK(sizeof(ZANRuntimeDesc) == 0x40 && offsetof(ZANRuntimeDesc, id) == 0x08 &&
                  offsetof(ZANRuntimeDesc, name) == 0x10 && offsetof(ZANRuntimeDesc, caps) == 0x18 &&
                  offsetof(ZANRuntimeDesc, probe) == 0x20 && offsetof(ZANRuntimeDesc, slot28) == 0x28,
              runtime_desc);
ZAN_ABI_CHECK(sizeof(ZANRuntimeV2Desc) == 0x70 && offsetof(ZANRuntimeV2Desc, id) == 0x08 &&
                  offsetof(ZANRuntimeV2Desc, create) == 0x28 && offsetof(ZANRuntimeV2Desc, destroy) == 0x30 &&
                  offsetof(ZANRuntimeV2Desc, generate) == 0x40 && offsetof(ZANRuntimeV2Desc, bench) == 0x48 &&
                  offsetof(ZANRuntimeV2Desc, configure) == 0x50 && offsetof(ZANRuntimeV2Desc, chatTurn) == 0x58 &&
                  offsetof(ZANRuntimeV2Desc, chatClear) == 0x60,
              runtime_v2_desc);
ZAN_ABI_CHECK(sizeof(ZANRuntimeV2SDesc) == 0x18 && offsetof(ZANRuntimeV2SDesc, size) == 0x04 &&
                  offsetof(ZANRuntimeV2SDesc, id) == 0x08 && offsetof(ZANRuntimeV2SDesc, chatTurnStream) == 0x10,
              runtime_v2s_desc);
ZAN_ABI_CHECK(sizeof(ZANExecutionDesc) == 0x60 && offsetof(ZANExecutionDesc, caps) == 0x18 &&
                  offsetof(ZANExecutionDesc, slot38) == 0x38 && offsetof(ZANExecutionDesc, slot48) == 0x48,
              execution_desc);
ZAN_ABI_CHECK(sizeof(ZANFormatDesc) == 0x48 && offsetof(ZANFormatDesc, id) == 0x08 &&
                  offsetof(ZANFormatDesc, open) == 0x18 && offsetof(ZANFormatDesc, close) == 0x20 &&
                  offsetof(ZANFormatDesc, getInfo) == 0x28 && offsetof(ZANFormatDesc, getTensor) == 0x38,
              format_desc);
ZAN_ABI_CHECK(sizeof(ZANFormatInfo) == 32 && offsetof(ZANFormatInfo, version) == 0x04 &&
                  offsetof(ZANFormatInfo, sections) == 0x08 && offsetof(ZANFormatInfo, tensors) == 0x0C &&
                  offsetof(ZANFormatInfo, size) == 0x10,
              format_info);
ZAN_ABI_CHECK(sizeof(ZANTensorInfo) == 64 && offsetof(ZANTensorInfo, dtype) == 0x08 &&
                  offsetof(ZANTensorInfo, ndim) == 0x0A && offsetof(ZANTensorInfo, size) == 0x38,
              tensor_info);
ZAN_ABI_CHECK(sizeof(ZANTokenizerDesc) == 0x60 && offsetof(ZANTokenizerDesc, caps) == 0x18 &&
                  offsetof(ZANTokenizerDesc, format) == 0x20 && offsetof(ZANTokenizerDesc, slot28) == 0x28 &&
                  offsetof(ZANTokenizerDesc, slot38) == 0x38 && offsetof(ZANTokenizerDesc, slot40) == 0x40,
              tokenizer_desc);
ZAN_ABI_CHECK(sizeof(ZANSamplerDesc) == 0x48 && offsetof(ZANSamplerDesc, caps) == 0x18 &&
                  offsetof(ZANSamplerDesc, slot20) == 0x20 && offsetof(ZANSamplerDesc, slot30) == 0x30,
              sampler_desc);
ZAN_ABI_CHECK(sizeof(ZANTrainerDesc) == 0x30 && offsetof(ZANTrainerDesc, caps) == 0x18 &&
                  offsetof(ZANTrainerDesc, probe) == 0x20 && offsetof(ZANTrainerDesc, train) == 0x28,
              trainer_desc);
ZAN_ABI_CHECK(sizeof(ZANBackendDesc) == 0x50 && offsetof(ZANBackendDesc, version) == 0x18 &&
                  offsetof(ZANBackendDesc, caps) == 0x20 && offsetof(ZANBackendDesc, enumerate) == 0x30 &&
                  offsetof(ZANBackendDesc, slot38) == 0x38 && offsetof(ZANBackendDesc, slot40) == 0x40,
              backend_desc);
ZAN_ABI_CHECK(sizeof(ZANImporterDesc) == 0x40 && offsetof(ZANImporterDesc, caps) == 0x18 &&
                  offsetof(ZANImporterDesc, extensions) == 0x20 && offsetof(ZANImporterDesc, probe) == 0x28 &&
                  offsetof(ZANImporterDesc, convert) == 0x38,
              importer_desc);
ZAN_ABI_CHECK(sizeof(ZANRuntimeProbe) == 32 && offsetof(ZANRuntimeProbe, architecture) == 0x08 &&
                  offsetof(ZANRuntimeProbe, backend) == 0x10 && offsetof(ZANRuntimeProbe, reason) == 0x18,
              runtime_probe);
ZAN_ABI_CHECK(sizeof(ZANProbeResult) == 32 && offsetof(ZANProbeResult, format) == 0x08 &&
                  offsetof(ZANProbeResult, architecture) == 0x10 && offsetof(ZANProbeResult, reason) == 0x18,
              probe_result);
ZAN_ABI_CHECK(sizeof(ZANTrainerProbe) == 24 && offsetof(ZANTrainerProbe, kind) == 0x08 &&
                  offsetof(ZANTrainerProbe, reason) == 0x10,
              trainer_probe);
ZAN_ABI_CHECK(sizeof(ZANGenParams) == 56 && offsetof(ZANGenParams, temperature) == 0x04 &&
                  offsetof(ZANGenParams, topK) == 0x08 && offsetof(ZANGenParams, topP) == 0x0C &&
                  offsetof(ZANGenParams, seed) == 0x10 && offsetof(ZANGenParams, maxNew) == 0x18 &&
                  offsetof(ZANGenParams, fixedA) == 0x1C && offsetof(ZANGenParams, fixedB) == 0x20 &&
                  offsetof(ZANGenParams, contextCap) == 0x24 && offsetof(ZANGenParams, kvType) == 0x28 &&
                  offsetof(ZANGenParams, systemPrompt) == 0x30,
              gen_params);
ZAN_ABI_CHECK(sizeof(ZANBenchRequest) == 20 && offsetof(ZANBenchRequest, tokens) == 0x04 &&
                  offsetof(ZANBenchRequest, warmup) == 0x08 && offsetof(ZANBenchRequest, maxNew) == 0x0C &&
                  offsetof(ZANBenchRequest, fixedC) == 0x10,
              bench_request);
ZAN_ABI_CHECK(sizeof(ZANBenchResult) == 32 && offsetof(ZANBenchResult, msPerToken) == 0x08 &&
                  offsetof(ZANBenchResult, tokensPerSecond) == 0x10,
              bench_result);
ZAN_ABI_CHECK(sizeof(ZANTuneRequest) == 64 && offsetof(ZANTuneRequest, modelPath) == 0x08 &&
                  offsetof(ZANTuneRequest, dataPath) == 0x10 && offsetof(ZANTuneRequest, outPath) == 0x18 &&
                  offsetof(ZANTuneRequest, err) == 0x20 && offsetof(ZANTuneRequest, errCap) == 0x28 &&
                  offsetof(ZANTuneRequest, outTensors) == 0x30 && offsetof(ZANTuneRequest, forceCpu) == 0x38,
              tune_request);
ZAN_ABI_CHECK(sizeof(ZANConvertRequest) == 56 && offsetof(ZANConvertRequest, outPath) == 0x08 &&
                  offsetof(ZANConvertRequest, err) == 0x10 && offsetof(ZANConvertRequest, errCap) == 0x18 &&
                  offsetof(ZANConvertRequest, outTensors) == 0x20 && offsetof(ZANConvertRequest, outBytes) == 0x28,
              convert_request);
ZAN_ABI_CHECK(sizeof(ZANDeviceQuery) == 16 && offsetof(ZANDeviceQuery, capacity) == 0x04 &&
                  offsetof(ZANDeviceQuery, devices) == 0x08,
              device_query);
ZAN_ABI_CHECK(sizeof(ZANBackendDeviceInfo) == 64 && offsetof(ZANBackendDeviceInfo, index) == 0x04 &&
                  offsetof(ZANBackendDeviceInfo, id) == 0x08 && offsetof(ZANBackendDeviceInfo, name) == 0x10 &&
                  offsetof(ZANBackendDeviceInfo, memory) == 0x28 && offsetof(ZANBackendDeviceInfo, apiMajor) == 0x30 &&
                  offsetof(ZANBackendDeviceInfo, apiMinor) == 0x34 && offsetof(ZANBackendDeviceInfo, caps) == 0x38,
              backend_device_info);

#ifdef __cplusplus
}
#endif

#endif /* ZAN_PLUGIN_H */
