// zan_zan2: the format plugin for ZAN2 model containers, over the core's
// memory-mapped reader. `zan info model.zan` asks it for the summary and the
// first tensors.
#include <cstring>
#include <string>
#include <vector>

#include "container/zan2_reader.h"
#include "plugin/zan_plugin.h"

namespace {

struct Handle {
  tov::ZAN2Reader reader;
  std::vector<std::string> names;  // terminated copies of the 64-byte names
  uint64_t fileSize = 0;
};

int32_t open(const char* path, void** out) {
  auto* h = new Handle;
  const tov::ZAN2Result r = h->reader.open(path);
  if (!r.ok()) {
    delete h;
    return 1;
  }
  const auto* records = reinterpret_cast<const tov::zan2::TensorRecord*>(
      h->reader.sectionData(tov::zan2::SectionType::TensorIndex));
  const uint32_t n = h->reader.header().tensorCount;
  h->names.reserve(n);
  for (uint32_t i = 0; i < n; ++i) h->names.emplace_back(records[i].name, strnlen(records[i].name, 64));
  if (FILE* f = std::fopen(path, "rb")) {
    std::fseek(f, 0, SEEK_END);
    h->fileSize = static_cast<uint64_t>(std::ftell(f));
    std::fclose(f);
  }
  *out = h;
  return 0;
}

int32_t close(void* handle) {
  delete static_cast<Handle*>(handle);
  return 0;
}

int32_t getInfo(void* handle, ZANFormatInfo* out) {
  const Handle* h = static_cast<Handle*>(handle);
  out->version = h->reader.header().version;
  out->sections = h->reader.header().sectionCount;
  out->tensors = h->reader.header().tensorCount;
  out->size = h->fileSize;
  return 0;
}

int32_t getTensor(void* handle, uint32_t index, ZANTensorInfo* out) {
  const Handle* h = static_cast<Handle*>(handle);
  if (index >= h->names.size()) return 1;
  const auto* rec = reinterpret_cast<const tov::zan2::TensorRecord*>(
                        h->reader.sectionData(tov::zan2::SectionType::TensorIndex)) + index;
  out->name = h->names[index].c_str();
  out->dtype = rec->dtype;
  out->ndim = rec->ndim;
  out->size = rec->size;
  return 0;
}

const ZANFormatDesc kFormats[] = {{kZanDescriptorAbi, 0, "zan2", 0, open, close, getInfo, 0, getTensor, 0}};
const ZANPluginInfo kInfo = {kZanPluginAbi, 1, "zan2", "reads ZAN2 model containers", nullptr, 0, 0};

}  // namespace

extern "C" {
ZAN_PLUGIN_EXPORT const ZANPluginInfo* zan_plugin_init(const ZANHostAPI*) { return &kInfo; }
ZAN_PLUGIN_EXPORT const ZANFormatDesc* zan_plugin_format(uint32_t* count) {
  *count = 1;
  return kFormats;
}
}
