#include "cli/run_opts.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

bool is(const char* word, std::initializer_list<const char*> names) {
  for (const char* n : names)
    if (!std::strcmp(word, n)) return true;
  return false;
}

// Every numeric flag reads with the C library's plain conversions, so text
// that isn't a number reads as 0.
uint64_t toU64(const char* s) { return std::strtoull(s, nullptr, 10); }

// The checks run once all words are read: one device entry per kind (or a
// second one on the index that the rule below allows), "all" only last, and
// a plan that leaves the rest to one side.
bool completeDevices(std::vector<RunOpts::DevSpec>& specs) {
  if (specs.empty()) return true;
  // The first entry of a kind keeps its index plus 1 in one byte; a later
  // entry of that kind must name exactly that index.
  uint8_t firstOf[2] = {0, 0};
  for (size_t i = 0; i < specs.size(); ++i) {
    const RunOpts::DevSpec& s = specs[i];
    uint8_t& first = firstOf[s.kind == 'c'];
    if (first == 0) {
      first = static_cast<uint8_t>(s.index + 1);
    } else if (s.index != first) {
      std::fputs("zan: multiple specs for the same device kind - combine them or use 'all' once\n", stderr);
      return false;
    }
    if (s.all) {
      if (i + 1 != specs.size()) {
        std::fputs("zan: 'all' may appear only once and must be the last device spec\n", stderr);
        return false;
      }
      return true;
    }
  }
  if (specs.size() == 2) {
    std::fputs("zan: give one side 'all' when assigning both cpu and gpu layers (e.g. -g 0 20 -cpu 0 all)\n",
               stderr);
    return false;
  }
  const RunOpts::DevSpec last = specs.back();
  RunOpts::DevSpec rest;
  rest.kind = last.kind == 'g' ? 'c' : 'g';
  rest.index = last.kind == 'g' ? 0 : last.index;
  rest.all = true;
  specs.push_back(rest);
  return true;
}

}  // namespace

bool kvNameToType(const std::string& name, int32_t& out) {
  if (name == "f16") out = 0;
  else if (name == "q8_0") out = 1;
  else if (name == "q4_0") out = 2;
  else return false;
  return true;
}

bool parseLayersArg(const std::string& text, int32_t& layers, bool& all) {
  if (text.empty()) return false;
  if (text == "all" || text == "ALL") {
    all = true;
    return true;
  }
  int64_t v = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return false;
    v = v * 10 + (c - '0');
    if (v > INT32_MAX) return false;
  }
  if (v < 1) return false;
  layers = static_cast<int32_t>(v);
  all = false;
  return true;
}

std::string systemFromArg(const std::string& text) {
  FILE* f = std::fopen(text.c_str(), "rb");
  if (!f) return text;
  std::string out;
  char block[8192];
  const size_t limit = 1048576;
  while (out.size() < limit) {
    const size_t want = std::min(sizeof block, limit - out.size());
    const size_t got = std::fread(block, 1, want, f);
    out.append(block, got);
    if (got < want) break;
  }
  std::fclose(f);
  while (!out.empty() && (out.back() == '\n' || out.back() == '\r')) out.pop_back();
  return out;
}

bool parseFlags(int argc, char** argv, RunOpts& opts) {
  for (int i = 3; i < argc; ++i) {
    const char* flag = argv[i];
    // The value of a flag is the next word, whatever it looks like.
    auto value = [&](const char*& out) {
      if (i + 1 >= argc) {
        std::fprintf(stderr, "zan: missing value for %s\n", flag);
        return false;
      }
      out = argv[++i];
      return true;
    };
    const char* v = nullptr;
    if (is(flag, {"--gpu"})) {
      opts.cpuOnly = false;
    } else if (is(flag, {"--cpu"})) {
      opts.cpuOnly = true;
    } else if (is(flag, {"--chat"})) {
      opts.chat = true;
    } else if (is(flag, {"--via-plugin"})) {
      opts.viaPlugin = true;
    } else if (is(flag, {"--perf"})) {
      opts.perf = true;
    } else if (is(flag, {"--temp"})) {
      if (!value(v)) return false;
      opts.temperature = std::strtof(v, nullptr);
    } else if (is(flag, {"--top-k"})) {
      if (!value(v)) return false;
      opts.topK = std::atoi(v);
    } else if (is(flag, {"--top-p"})) {
      if (!value(v)) return false;
      opts.topP = std::strtof(v, nullptr);
    } else if (is(flag, {"--seed"})) {
      if (!value(v)) return false;
      opts.seed = toU64(v);
    } else if (is(flag, {"--max-new", "-n"})) {
      if (!value(v)) return false;
      opts.maxNew = toU64(v);
    } else if (is(flag, {"--warmup"})) {
      if (!value(v)) return false;
      opts.warmup = toU64(v);
    } else if (is(flag, {"--tokens"})) {
      if (!value(v)) return false;
      opts.tokens = toU64(v);
    } else if (is(flag, {"--runs"})) {
      if (!value(v)) return false;
      opts.runs = toU64(v);
    } else if (is(flag, {"--prefill"})) {
      if (!value(v)) return false;
      opts.prefill = toU64(v);
    } else if (is(flag, {"-p", "--prompt"})) {
      if (!value(v)) return false;
      opts.prompt = v;
    } else if (is(flag, {"-f"})) {
      if (!value(v)) return false;
      opts.promptFile = v;
    } else if (is(flag, {"-c", "-context", "--context"})) {
      if (!value(v)) return false;
      const long long n = std::atoll(v);
      if (n < 1) {
        std::fputs("zan: -context needs a positive token count\n", stderr);
        return false;
      }
      opts.contextSet = true;
      opts.context = static_cast<uint64_t>(n);
    } else if (is(flag, {"-kv", "-v", "--kv"})) {
      if (!value(v)) return false;
      int32_t type;
      if (!kvNameToType(v, type)) {
        std::fprintf(stderr, "zan: -kv value must be f16, q8_0 or q4_0 (got '%s')\n", v);
        return false;
      }
      opts.kvSet = true;
      opts.kv = v;
    } else if (is(flag, {"-s", "-system", "--system"})) {
      if (!value(v)) return false;
      opts.systemSet = true;
      opts.systemPrompt = systemFromArg(v);
    } else if (is(flag, {"-g", "-gpu", "-cpu"})) {
      const char *index, *layers;
      if (!value(index) || !value(layers)) return false;
      RunOpts::DevSpec spec;
      spec.kind = flag[1] == 'c' ? 'c' : 'g';
      spec.index = std::atoi(index);
      if (spec.index < 0) {
        std::fprintf(stderr, "zan: %s needs a non-negative device index\n", flag);
        return false;
      }
      if (!parseLayersArg(layers, spec.layers, spec.all)) {
        std::fprintf(stderr, "zan: %s layer count must be a positive number or 'all'\n", flag);
        return false;
      }
      opts.devices.push_back(spec);
    } else {
      std::fprintf(stderr, "zan: ignoring unknown option '%s'\n", flag);
    }
  }
  return completeDevices(opts.devices);
}

std::string makeCreateHint(const char* backend, const RunOpts& opts) {
  std::string hint = backend ? backend : "";
  if (!opts.contextSet && !opts.kvSet && opts.devices.empty()) return hint;
  hint += ";";
  if (opts.contextSet) hint += "ctx=" + std::to_string(opts.context) + ";";
  if (opts.kvSet) hint += "kv=" + opts.kv + ";";
  if (!opts.devices.empty()) {
    hint += "plan=";
    for (size_t i = 0; i < opts.devices.size(); ++i) {
      const RunOpts::DevSpec& d = opts.devices[i];
      if (i) hint += ",";
      hint += d.kind;
      hint += std::to_string(d.index) + ":" + (d.all ? std::string("all") : std::to_string(d.layers));
    }
    hint += ";";
  }
  return hint;
}

void printRunCfg(const RunOpts& opts) {
  if (!opts.contextSet && !opts.kvSet && !opts.systemSet && opts.devices.empty()) return;
  std::string line = "[cfg]";
  if (opts.contextSet) line += " ctx=" + std::to_string(opts.context);
  if (opts.kvSet) line += " kv=" + opts.kv;
  if (!opts.devices.empty()) {
    line += " devices:";
    for (const RunOpts::DevSpec& d : opts.devices)
      line += std::string(" ") + (d.kind == 'g' ? "gpu" : "cpu") + std::to_string(d.index) + "=" +
              (d.all ? std::string("all") : std::to_string(d.layers));
  }
  if (opts.systemSet) line += " system=" + std::to_string(opts.systemPrompt.size()) + " chars";
  line += "\n";
  std::fputs(line.c_str(), stderr);
}
