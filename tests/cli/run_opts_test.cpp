// The run options: flag grammar and refusals, device plans, the create hint
// and the [cfg] echo, and system prompts read from files.
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "cli/run_opts.h"
#include "tests/test_tmp.h"

namespace {

// Runs parseFlags on `zan run m.zan <words>`; gives the result, and the
// options and stderr through the out-parameters.
bool parse(const std::vector<std::string>& words, RunOpts& opts, std::string& err) {
  std::vector<std::string> all = {"zan", "run", "m.zan"};
  all.insert(all.end(), words.begin(), words.end());
  std::vector<char*> argv;
  for (std::string& w : all) argv.push_back(w.data());
  ::testing::internal::CaptureStderr();
  const bool ok = parseFlags(static_cast<int>(argv.size()), argv.data(), opts);
  err = ::testing::internal::GetCapturedStderr();
  return ok;
}

std::string plan(const RunOpts& o) { return makeCreateHint("b", o); }

TEST(RunOpts, Defaults) {
  RunOpts o;
  std::string err;
  ASSERT_TRUE(parse({}, o, err));
  EXPECT_EQ(err, "");
  EXPECT_EQ(o.temperature, 0.8f);
  EXPECT_EQ(o.topK, 40);
  EXPECT_EQ(o.topP, 0.95f);
  EXPECT_EQ(o.seed, 42u);
  EXPECT_EQ(o.maxNew, 256u);
  EXPECT_EQ(o.warmup, 10u);
  EXPECT_EQ(o.tokens, 100u);
  EXPECT_EQ(o.runs, 1u);
  EXPECT_EQ(o.context, 8192u);
  EXPECT_EQ(o.kv, "f16");
  EXPECT_FALSE(o.contextSet || o.kvSet || o.systemSet || o.chat || o.cpuOnly || o.perf || o.viaPlugin);
  EXPECT_EQ(makeCreateHint("cpu", o), "cpu");
  EXPECT_EQ(makeCreateHint(nullptr, o), "");
  ::testing::internal::CaptureStderr();
  printRunCfg(o);
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
}

TEST(RunOpts, EveryFlag) {
  RunOpts o;
  std::string err;
  ASSERT_TRUE(parse({"--temp", "0.5", "--top-k", "7", "--top-p", "0.25", "--seed", "18446744073709551615", "-n",
                     "64", "--warmup", "3", "--tokens", "9", "--runs", "5", "--prefill", "11", "--perf", "--via-plugin",
                     "--cpu", "--chat", "-p", "-x", "-f", "file.txt", "--max-new", "65", "-context", "100", "-v",
                     "q4_0", "-system", "sys", "extra", "--gpu"},
                    o, err));
  EXPECT_EQ(err, "zan: ignoring unknown option 'extra'\n");
  EXPECT_EQ(o.temperature, 0.5f);
  EXPECT_EQ(o.topK, 7);
  EXPECT_EQ(o.topP, 0.25f);
  EXPECT_EQ(o.seed, 18446744073709551615u);
  EXPECT_EQ(o.maxNew, 65u);  // a repeated flag overwrites
  EXPECT_EQ(o.warmup, 3u);
  EXPECT_EQ(o.tokens, 9u);
  EXPECT_EQ(o.runs, 5u);
  EXPECT_EQ(o.prefill, 11u);
  EXPECT_TRUE(o.perf && o.viaPlugin && o.chat);
  EXPECT_FALSE(o.cpuOnly);  // --gpu came last
  EXPECT_EQ(o.prompt, "-x");  // a value is the next word, whatever it looks like
  EXPECT_EQ(o.promptFile, "file.txt");
  EXPECT_TRUE(o.contextSet && o.kvSet && o.systemSet);
  EXPECT_EQ(o.context, 100u);
  EXPECT_EQ(o.kv, "q4_0");
  EXPECT_EQ(o.systemPrompt, "sys");
  EXPECT_EQ(makeCreateHint("cpu", o), "cpu;ctx=100;kv=q4_0;");
  ::testing::internal::CaptureStderr();
  printRunCfg(o);
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "[cfg] ctx=100 kv=q4_0 system=3 chars\n");
}

TEST(RunOpts, Refusals) {
  const struct {
    std::vector<std::string> words;
    const char* err;
  } cases[] = {
      {{"-n"}, "zan: missing value for -n\n"},
      {{"--temp"}, "zan: missing value for --temp\n"},
      {{"-g", "0"}, "zan: missing value for -g\n"},
      {{"-c", "0"}, "zan: -context needs a positive token count\n"},
      {{"--context", "abc"}, "zan: -context needs a positive token count\n"},
      {{"-c", "-5"}, "zan: -context needs a positive token count\n"},
      {{"-kv", "Q8_0"}, "zan: -kv value must be f16, q8_0 or q4_0 (got 'Q8_0')\n"},
      {{"--kv", ""}, "zan: -kv value must be f16, q8_0 or q4_0 (got '')\n"},
      {{"-g", "-1", "all"}, "zan: -g needs a non-negative device index\n"},
      {{"-gpu", "0", "0"}, "zan: -gpu layer count must be a positive number or 'all'\n"},
      {{"-g", "0", "-5"}, "zan: -g layer count must be a positive number or 'all'\n"},
      {{"-g", "0", "12x"}, "zan: -g layer count must be a positive number or 'all'\n"},
      {{"-cpu", "0", ""}, "zan: -cpu layer count must be a positive number or 'all'\n"},
      {{"-cpu", "-2", "4"}, "zan: -cpu needs a non-negative device index\n"},
      {{"-g", "0", "all", "-cpu", "0", "4"}, "zan: 'all' may appear only once and must be the last device spec\n"},
      {{"-g", "0", "10", "-cpu", "0", "10"},
       "zan: give one side 'all' when assigning both cpu and gpu layers (e.g. -g 0 20 -cpu 0 all)\n"},
      {{"-g", "0", "10", "-g", "0", "all"},
       "zan: multiple specs for the same device kind - combine them or use 'all' once\n"},
      {{"-g", "0", "10", "-g", "2", "all"},
       "zan: multiple specs for the same device kind - combine them or use 'all' once\n"},
  };
  for (const auto& c : cases) {
    RunOpts o;
    std::string err;
    EXPECT_FALSE(parse(c.words, o, err)) << c.words[0];
    EXPECT_EQ(err, c.err) << c.words[0];
  }
}

TEST(RunOpts, DevicePlans) {
  const struct {
    std::vector<std::string> words;
    const char* hint;
    const char* cfg;
  } cases[] = {
      {{"-g", "0", "20"}, "b;plan=g0:20,c0:all;", "[cfg] devices: gpu0=20 cpu0=all\n"},
      {{"-cpu", "1", "8"}, "b;plan=c1:8,g1:all;", "[cfg] devices: cpu1=8 gpu1=all\n"},
      {{"-cpu", "0", "4", "-g", "0", "all"}, "b;plan=c0:4,g0:all;", "[cfg] devices: cpu0=4 gpu0=all\n"},
      {{"-g", "0", "ALL"}, "b;plan=g0:all;", "[cfg] devices: gpu0=all\n"},
      {{"-g", "0", "10", "-g", "1", "all"}, "b;plan=g0:10,g1:all;", "[cfg] devices: gpu0=10 gpu1=all\n"},
      {{"-g", "0", "5", "-g", "1", "5", "-cpu", "2", "3"}, "b;plan=g0:5,g1:5,c2:3,g2:all;",
       "[cfg] devices: gpu0=5 gpu1=5 cpu2=3 gpu2=all\n"},
      {{"-c", "4096", "-kv", "q8_0", "-g", "0", "20", "-cpu", "0", "all"}, "b;ctx=4096;kv=q8_0;plan=g0:20,c0:all;",
       "[cfg] ctx=4096 kv=q8_0 devices: gpu0=20 cpu0=all\n"},
  };
  for (const auto& c : cases) {
    RunOpts o;
    std::string err;
    ASSERT_TRUE(parse(c.words, o, err)) << err;
    EXPECT_EQ(plan(o), c.hint);
    ::testing::internal::CaptureStderr();
    printRunCfg(o);
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), c.cfg);
  }
  RunOpts o;
  std::string err;
  ASSERT_TRUE(parse({"-g", "3", "all"}, o, err));
  EXPECT_EQ(makeCreateHint(nullptr, o), ";plan=g3:all;");
}

TEST(RunOpts, SmallParsers) {
  int32_t t = -9;
  EXPECT_TRUE(kvNameToType("f16", t));
  EXPECT_EQ(t, 0);
  EXPECT_TRUE(kvNameToType("q8_0", t));
  EXPECT_EQ(t, 1);
  EXPECT_TRUE(kvNameToType("q4_0", t));
  EXPECT_EQ(t, 2);
  EXPECT_FALSE(kvNameToType("q4_1", t));
  EXPECT_EQ(t, 2);

  const struct {
    const char* text;
    bool ok, all;
    int32_t layers;
  } cases[] = {{"all", true, true, 0}, {"ALL", true, true, 0}, {"All", false, false, 0}, {"1", true, false, 1},
               {"007", true, false, 7}, {"0", false, false, 0}, {"", false, false, 0}, {"+3", false, false, 0},
               {"99999999999", false, false, 0}};
  for (const auto& c : cases) {
    int32_t layers = 0;
    bool all = false;
    EXPECT_EQ(parseLayersArg(c.text, layers, all), c.ok) << c.text;
    if (c.ok) {
      EXPECT_EQ(all, c.all) << c.text;
      EXPECT_EQ(layers, c.layers) << c.text;
    }
  }
}

TEST(RunOpts, SystemFromFile) {
  const std::string dir = testTempDir();
  auto write = [&](const std::string& name, const std::string& text) {
    std::ofstream(dir + name, std::ios::binary) << text;
    return dir + name;
  };
  EXPECT_EQ(systemFromArg(write("sys1.txt", "be brief\r\n\n\r")), "be brief");
  EXPECT_EQ(systemFromArg(write("sys2.txt", "")), "");
  EXPECT_EQ(systemFromArg(write("sys3.txt", "a\nb\n")), "a\nb");
  EXPECT_EQ(systemFromArg(dir + "no-such-file.txt"), dir + "no-such-file.txt");
  EXPECT_EQ(systemFromArg("just words"), "just words");
  const std::string big(1048576 + 100, 'y');
  EXPECT_EQ(systemFromArg(write("sys4.txt", big)), std::string(1048576, 'y'));

  RunOpts o;
  std::string err;
  ASSERT_TRUE(parse({"-s", dir + "sys2.txt"}, o, err));
  EXPECT_TRUE(o.systemSet);
  ::testing::internal::CaptureStderr();
  printRunCfg(o);
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "[cfg] system=0 chars\n");
}

}  // namespace
