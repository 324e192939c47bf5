// Help texts (English and Chinese) and the language choice.
//
// Both texts come from the one table of rows below, so a row can't be added to
// one language and forgotten in the other. Every row is printed the same way:
// two spaces, the usage form padded to kFormWidth, then the text. A form too
// long for its column ends its line, and the text goes on the next line at the
// text column.
#include <cstring>

#include "cli/commands.h"

bool helpWantsZh(int argc, char** argv, int first) {
  bool zh = false;
  for (int i = first; i < argc; ++i) {
    if (!std::strcmp(argv[i], "-c") || !std::strcmp(argv[i], "--cn")) zh = true;
    else if (!std::strcmp(argv[i], "-e") || !std::strcmp(argv[i], "--en")) zh = false;
  }
  return zh;
}

namespace {

constexpr size_t kIndent = 2;
constexpr size_t kFormWidth = 40;  // the text starts at column kIndent + kFormWidth

// One line of the help. `zh` null: the row is left out of the Chinese text.
// `def`: the default an option row prints behind its text, or null;
// `defZh` its Chinese wording where the default is words rather than a value.
struct Row {
  const char* form;
  const char* en;
  const char* zh;
  const char* def = nullptr;
  const char* defZh = nullptr;
};

struct Block {
  const char* en;
  const char* zh;
  const Row* rows;
  size_t count;
};

const Row kCommandRows[] = {
    {"chat <model.zan> [options]", "interactive chat (streaming)", "交互式对话(流式输出)"},
    {"run <model.zan> -p PROMPT [opt]", "one-shot generation", "单次生成"},
    {"run <app.zan> [args...]", "run a packed app (ZANB entry)", "运行打包好的应用(ZANB 入口)"},
    {"run <module.zanb> [args...]", "run a bare bytecode module", "运行裸字节码模块"},
    {"build <projectDir> [-o out.zan]", "compile C/C++ (to bytecode) or Flutter into a .zan app",
     "把 C/C++(编译为字节码)或 Flutter 项目构建为 .zan 应用"},
    {"bench <model.zan> [options]", "real decode benchmark (GPU)", "真实解码基准测试(GPU)"},
    {"update", "refresh package lists from sources", "从软件源刷新软件包列表"},
    {"install [name ...] [--force]", "fetch and install plugins by name", "按名称获取并安装插件"},
    {"remove <name ...>", "uninstall installed packages", "卸载已安装的软件包"},
    {"upgrade [name ...]", "upgrade installed packages (all or by name)",
     "升级已安装的软件包(全部或按名称)"},
    {"source list|add|remove|reset", "manage software sources", "管理软件源"},
    {"add-source <id> <type> <URL>", "add a software source (alias of source add)",
     "添加软件源(source add 的别名)"},
    {"tune <model.zan> <data.txt> <out.zan>", "deterministic simple tune", "确定性的简单微调"},
    {"convert <src> <dst.zan>", "convert model to ZAN v2", "把模型转换为 ZAN v2"},
    {"info <model.zan>", "print model summary", "打印模型摘要(结构与分词器)"},
    {"type <file.zan>", "print container kind (universal)", "打印容器类型(通用)"},
    {"store [--zanb <store.zan>]",
     "launch the software store (ZANB store; the archived Flutter store is only a fallback)",
     "启动软件商店(ZANB 商店;归档的 Flutter 商店仅作后备)"},
    {"pack <module.zanb> [-o app.zan]", "pack bytecode (+ --assets DIR) into a runnable app container",
     "把字节码(+ --assets DIR)打包成可运行的应用容器"},
    {"appinfo <app.zan> [--json]", "print a container's manifest, the metadata publishing reads back",
     nullptr},
    {"pack-apk <app.zan> [-o out.apk]", "wrap a ZANB container into an installable Android APK (shell)",
     "把 ZANB 容器封装成可安装的 Android APK(shell)"},
    {"plugins | plugin list", "list loaded plugins", "列出已加载的插件"},
    {"ls <plugins|devices>", "list installed packages or CPU/GPU devices (indices for -g and -cpu)",
     "列出已安装的软件包或 CPU/GPU 设备(-g 和 -cpu 所用的编号)"},
    {"plugin ls [-a]", "list installed packages (alias of ls plugins; -a expands files)",
     "列出已安装的软件包(ls plugins 的别名;-a 展开文件)"},
    {"backend list, backend info <id>, backend devices <id>", "list, details, enumerate devices",
     "列表、详情、枚举设备"},
    {"runtime list, runtime info <id>, runtime probe <model.zan>",
     "list, details, best runtime for a model", "列表、详情、为模型挑选最合适的 runtime"},
    {"execution list, execution info <id>", "list, details", "列表、详情"},
    {"importer list, importer info <id>, importer probe <path>",
     "list, details, best importer for a file", "列表、详情、为文件挑选最合适的导入器"},
    {"tokenizer list, tokenizer info <id>", "list, details", "列表、详情"},
    {"sampler list, sampler info <id>", "list, details", "列表、详情"},
    {"trainer list, trainer info <id>, trainer probe <model.zan>",
     "list, details, best trainer for a model", "列表、详情、为模型挑选最合适的训练器"},
    {"plugin info <name>", "plugin details", "插件详情"},
    // Not a command: a note standing in the table, in both languages.
    {nullptr, "(other commands come from installed plugins)", "(其他命令由已安装的插件提供)"},
    {"help | -help | -h", "show this help", "显示本帮助;help -c 中文 / help -e 英文"},
};

const Row kChatRunRows[] = {
    {"--gpu | --cpu", "runtime backend", "运行后端", "GPU with CPU fallback", "GPU,不可用时回退到 CPU"},
    {"--temp T", "sampling temperature", "采样温度", "0.8"},
    {"--top-k K", "top-k sampling", "top-k 采样", "40"},
    {"--top-p P", "nucleus p", "核采样 p", "0.95"},
    {"--seed S", "sampler seed", "采样器种子", "42"},
    {"--max-new N", "max generated tokens; -n N is its alias", "最多生成的 token 数;-n N 是它的别名",
     "256"},
};

const Row kRunOnlyRows[] = {
    {"--via-plugin", "route generation through runtime plugin", "通过 runtime 插件完成生成"},
    {"-p, --prompt TEXT", "prompt text (raw completion unless --chat)",
     "提示文本(不加 --chat 时为原样续写)"},
    {"-f FILE", "read prompt from FILE", "从 FILE 读取提示文本"},
    {"--chat", "format prompt as a single user turn", "把提示文本包装成一轮用户对话"},
};

const Row kCommonRows[] = {
    {"-g, -gpu ID LAYERS", "assign LAYERS layers (or 'all') to GPU ID",
     "把前 LAYERS 层分配给 GPU ID('all' 表示其余全部层)"},
    {"-cpu ID LAYERS", "assign LAYERS layers (or 'all') to CPU ID",
     "把前 LAYERS 层分配给 CPU ID('all' 表示其余全部层)"},
    {"-c, -context N", "context length cap", "上下文长度上限", "8192"},
    {"-kv, -v TYPE", "kv cache type: f16, q8_0, q4_0", "kv 缓存类型: f16、q8_0、q4_0", "f16"},
    {"-s, -system TEXT|FILE", "system prompt (text or text file; chat)",
     "系统提示(文本或文本文件;chat)"},
};

const Row kBenchRows[] = {
    {"--warmup W", "warmup tokens before measuring", "测量前预热的 token 数", "10"},
    {"--tokens N", "tokens per run", "每轮的 token 数", "100"},
    {"--runs R", "number of runs", "运行轮数", "1"},
    {"--prefill N", "fill context to N tokens first (long-ctx)", "先把上下文填到 N 个 token(长上下文)"},
    {"--perf", "dump per-shape GPU histogram after bench", "测试结束后输出按形状统计的 GPU 直方图"},
};

const Row kExampleRows[] = {
    {"zan chat model.zan", "", ""},
    {"zan run model.zan -p \"Hello\" --chat -n 64", "", ""},
    {"zan bench model.zan --warmup 10 --tokens 100 --runs 3", "", ""},
    {"zan convert weights.bin model.zan", "", ""},
    {"zan info model.zan", "", ""},
    {"zan help -c", "show this help in Chinese", "以中文显示本帮助"},
};

template <size_t N>
constexpr Block block(const char* en, const char* zh, const Row (&rows)[N]) {
  return {en, zh, rows, N};
}

const Block kBlocks[] = {
    block("commands:\n", "命令:\n", kCommandRows),
    block("chat/run options:\n", "chat/run 选项:\n", kChatRunRows),
    block("run-only options:\n", "run 专属选项:\n", kRunOnlyRows),
    block("common options (runtime support may vary):\n", "通用选项(各 runtime 支持程度不同):\n",
          kCommonRows),
    block("bench options:\n", "bench 选项:\n", kBenchRows),
    block("examples:\n", "示例:\n", kExampleRows),
};

void appendRow(std::string& out, const Row& row, bool zh) {
  std::string text = zh ? row.zh : row.en;
  if (row.def) {
    if (!zh && !text.empty()) text += ' ';  // Chinese sets no space before "("
    text += zh ? "(默认: " : "(default: ";
    text += zh && row.defZh ? row.defZh : row.def;
    text += ")";
  }
  out.append(kIndent, ' ');
  if (!row.form) {  // a note: the text alone, at the form's column
    out += text;
    out += '\n';
    return;
  }
  out += row.form;
  if (!text.empty()) {
    size_t len = std::strlen(row.form);
    if (len + 2 <= kFormWidth) {
      out.append(kFormWidth - len, ' ');
    } else {
      out += '\n';
      out.append(kIndent + kFormWidth, ' ');
    }
    out += text;
  }
  out += '\n';
}

std::string buildHelp(bool zh) {
  std::string out = zh ? "zan - Halden 统一命令行\n\n" : "zan - Halden unified command line\n\n";
  out += zh ? "用法: zan <命令> [参数]\n\n" : "usage: zan <command> [arguments]\n\n";
  bool first = true;
  for (const Block& b : kBlocks) {
    if (!first) out += '\n';
    first = false;
    out += zh ? b.zh : b.en;
    for (size_t i = 0; i < b.count; ++i)
      if (!zh || b.rows[i].zh) appendRow(out, b.rows[i], zh);
  }
  return out;
}

}  // namespace

const std::string& helpText(bool zh) {
  static const std::string en = buildHelp(false);
  static const std::string cn = buildHelp(true);
  return zh ? cn : en;
}

const char kLsUsage[] =
    "usage: zan ls <topic>\n"
    "  plugins [-a]     installed packages (alias: zan plugin ls)\n"
    "  devices          cpu/gpu devices with indices (for -g / -cpu)\n"
    "  (loaded plugins: `zan plugins`)\n";
