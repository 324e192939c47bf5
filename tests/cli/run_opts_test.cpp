// The run options: flag grammar and refusals, device plans, the create hint and the [cfg] echo.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "cli/run_opts.h"

namespace {

// parseFlags on `zan run m.zan <words>`; the options and stderr through the out-parameters.
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

TEST(RunOpts, Refusals) {
  const std::string ctx = "zan: -context needs a positive token count\n", kv = "zan: -kv value must be f16, q8_0 or q4_0",
                    count = " layer count must be a positive number or 'all'\n",
                    twice = "zan: multiple specs for the same device kind - combine them or use 'all' once\n";
  const struct { std::vector<std::string> words; std::string err; } cases[] = {
      {{"-n"}, "zan: missing value for -n\n"}, {{"--temp"}, "zan: missing value for --temp\n"},
      {{"-g", "0"}, "zan: missing value for -g\n"}, {{"-c", "0"}, ctx}, {{"--context", "abc"}, ctx}, {{"-c", "-5"}, ctx},
      {{"-kv", "Q8_0"}, kv + " (got 'Q8_0')\n"}, {{"--kv", ""}, kv + " (got '')\n"},
      {{"-g", "-1", "all"}, "zan: -g needs a non-negative device index\n"},
      {{"-cpu", "-2", "4"}, "zan: -cpu needs a non-negative device index\n"},
      {{"-gpu", "0", "0"}, "zan: -gpu" + count}, {{"-g", "0", "-5"}, "zan: -g" + count},
      {{"-g", "0", "12x"}, "zan: -g" + count}, {{"-cpu", "0", ""}, "zan: -cpu" + count},
      {{"-g", "0", "all", "-cpu", "0", "4"}, "zan: 'all' may appear only once and must be the last device spec\n"},
      {{"-g", "0", "10", "-cpu", "0", "10"},
       "zan: give one side 'all' when assigning both cpu and gpu layers (e.g. -g 0 20 -cpu 0 all)\n"},
      {{"-g", "0", "10", "-g", "0", "all"}, twice}, {{"-g", "0", "10", "-g", "2", "all"}, twice},
  };
  for (const auto& c : cases) {
    RunOpts o;
    std::string err;
    EXPECT_FALSE(parse(c.words, o, err)) << c.words[0];
    EXPECT_EQ(err, c.err) << c.words[0];
  }
}

TEST(RunOpts, DevicePlans) {
  const struct { std::vector<std::string> words; const char* hint; const char* cfg; } cases[] = {
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

}  // namespace
