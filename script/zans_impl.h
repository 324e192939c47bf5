// The compiler's state and the pieces its phases share: tokens and logical
// lines (zans_lex), expressions and built-ins (zans_expr), statements and
// the module (zans_stmt), widget statements (zans_ui).
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "bytecode/zanb.h"
#include "script/zans.h"

namespace tov::zans {

enum TokKind : int32_t { kNumber = 0, kString = 1, kIdent = 2, kOperator = 3 };

struct Token {
  int32_t kind = kNumber;
  double number = 0;
  std::string text;  // decoded string, identifier or operator; empty for a number
};

struct Line {
  int32_t lineNo = 0;  // first physical line of a joined logical line
  int32_t indent = 0;  // blank counts 1, tab 4
  std::vector<Token> tokens;
  bool blank = true;
};

// The result of every expression level. Forms: number (f64 slot), integer
// (i32 in the low half), string (literal address/length or a slot holding
// an address). Tables carry their base and element layout.
struct EValue {
  int32_t slot = -1;
  bool isString = false;
  bool isInt = false;
  int32_t strSlot = -1;
  uint32_t strAddr = 0;
  uint32_t strLen = 0;
  bool isConst = false;
  double constValue = 0;
  bool isArray = false;
  uint32_t arrBase = 0;
  uint32_t arrCount = 0;
  uint32_t elemSize = 8;
  bool elemIsString = false;
};

struct FuncRec {
  std::string name;
  std::vector<std::string> params;
  size_t funcLine = 0;  // index of the `func` line in `lines`
  size_t bodyLine = 0;  // the line behind it
  int32_t index = 0;
};

// Bounds that keep hostile sources from exhausting the stack or memory.
inline constexpr int kMaxExprDepth = 200;
inline constexpr int kMaxBlockDepth = 200;
inline constexpr uint32_t kMaxSlots = 1u << 22;
inline constexpr size_t kMaxData = 64u << 20;

struct Compiler {
  std::string source;
  zanb::Module& mod;
  std::vector<Line> lines;
  std::vector<FuncRec> funcList;

  std::map<std::string, size_t> functions;  // name -> index in funcList (= function index)
  std::map<std::string, int32_t> locals;
  std::map<std::string, EValue> tables;
  std::map<std::string, std::pair<uint32_t, uint32_t>> stringConsts;
  std::map<std::string, double> numberConsts;
  std::set<std::string> intLocals;
  std::map<uint32_t, uint32_t> bufferCaps;
  std::map<std::string, std::pair<uint32_t, uint32_t>> stringVars;

  uint32_t nextSlot = 0;
  uint32_t minSlots = 0;  // immediates that the machine checks against the frame
  int exprDepth = 0;
  int blockDepth = 0;
  bool dataOverflow = false;

  explicit Compiler(const std::string& src, zanb::Module& m) : source(src), mod(m) {}

  // --- lexer (zans_lex.cpp)
  bool lex(std::string& error);
  static std::string at(const Line& line);

  // --- emission helpers (zans_expr.cpp)
  uint32_t newSlot() { return nextSlot++; }
  uint32_t newSlots(uint32_t n) {
    const uint32_t first = nextSlot;
    nextSlot += n;
    return first;
  }
  void emit(uint32_t op, uint32_t a, uint32_t b = 0, uint32_t c = 0);
  uint32_t constI32(uint32_t v);
  uint32_t constF64(double v);
  void constI32To(uint32_t slot, uint32_t v);
  uint32_t dataBytes(const void* bytes, size_t length);
  void stringLit(const std::string& bytes, uint32_t& addr, uint32_t& len);
  uint32_t asF64(const EValue& v);
  uint32_t idxI32(const EValue& v);
  // The value as an f64 or i32 slot, converting where needed; false for a
  // string, with a line message.
  bool numSlot(const Line& line, const EValue& v, uint32_t& slot, std::string& error);
  bool intSlot(const Line& line, const EValue& v, uint32_t& slot, std::string& error,
               const std::string& stringMsg = "");
  uint32_t arrLoad(const EValue& table, uint32_t indexSlot, bool asInt);

  // --- expressions (zans_expr.cpp)
  bool orExpr(const Line& line, size_t& pos, EValue& out, std::string& error);
  bool andExpr(const Line& line, size_t& pos, EValue& out, std::string& error);
  bool bitwiseInt(const Line& line, tov::zanb::Op opcode, EValue& out, EValue& r, std::string& error);
  bool cmpExpr(const Line& line, size_t& pos, EValue& out, std::string& error);
  bool addExpr(const Line& line, size_t& pos, EValue& out, std::string& error);
  bool mulExpr(const Line& line, size_t& pos, EValue& out, std::string& error);
  bool unary(const Line& line, size_t& pos, EValue& out, std::string& error);
  bool prefixOperand(const Line& line, size_t& pos, EValue& v, uint32_t& z, uint32_t& s, EValue& out,
                     std::string& error);
  bool primary(const Line& line, size_t& pos, EValue& out, std::string& error);
  bool callUser(const Line& line, size_t& pos, const std::string& name, EValue& out, std::string& error);
  bool tableLiteral(const Line& line, size_t& pos, EValue& out, std::string& error);
  bool ui2Str(const Line& line, size_t& pos, uint32_t& outSlot, std::string& error);
  // Built-in words of primary: true when `word` is one (then `error` tells
  // whether it compiled).
  bool builtin(const Line& line, size_t& pos, const std::string& word, EValue& out, std::string& error,
               bool& handled);
  bool isBuffer(const std::string& name) const;
  // A syscall with a block of consecutive new slots; each item is a slot
  // to move (isConst false) or a value to load.
  struct BlockItem {
    bool isConst;
    uint32_t v;
  };
  uint32_t syscallBlock(uint32_t number, const std::vector<BlockItem>& items);
  uint32_t zeroBlockCall(uint32_t number, uint32_t n);

  // --- statements and module (zans_stmt.cpp)
  bool compileAll(std::string& error);
  bool emitBlock(size_t& lineIndex, int32_t indent, std::string& error);
  bool emitStmt(size_t& lineIndex, int32_t indent, std::string& error);
  bool nestedBlock(size_t& lineIndex, int32_t indent, std::string& error);
  bool drawStmt(const Line& line, std::string& error);
  bool reserveBuf(const Line& line, bool inFunction, std::string& error);
  bool checkData(const Line& line, std::string& error);

  // --- widget statements (zans_ui.cpp)
  bool ui2Stmt(size_t& lineIndex, int32_t indent, std::string& error);
  void ui2Cmd(uint32_t word, int32_t a, int32_t b, int32_t c, int32_t d, int32_t e);
};

// Low bits of a truncated double, as the machine's i32 slots hold them.
uint32_t truncU32(double v);
int32_t styleId(const std::string& word);

}  // namespace tov::zans
