// HTTP retrieval. The plain client speaks just enough HTTP/1.1 for a static
// file server: one GET, "Connection: close", read to the peer's close. TLS
// is left to curl, which is reached through the shell, so every byte that
// goes into its command line is held to a small character set first.
#include "packages/http_get.h"

#include "base/compat.h"

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#ifdef _WIN32
#include <winsock2.h>
#include <ws2tcpip.h>
#define popen _popen
#define pclose _pclose
#else
#include <netdb.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>
#endif

namespace tov {
namespace {

constexpr size_t kBlock = 16384;
constexpr int kSocketTimeoutSeconds = 60;
constexpr size_t kMaxShellArg = 2048;

#ifdef _WIN32
using Socket = SOCKET;
constexpr Socket kNoSocket = INVALID_SOCKET;
constexpr int kSendFlags = 0;
void closeSocket(Socket s) { closesocket(s); }
void setTimeouts(Socket s) {
  const DWORD ms = kSocketTimeoutSeconds * 1000;
  setsockopt(s, SOL_SOCKET, SO_RCVTIMEO, reinterpret_cast<const char*>(&ms), sizeof ms);
  setsockopt(s, SOL_SOCKET, SO_SNDTIMEO, reinterpret_cast<const char*>(&ms), sizeof ms);
}
#else
using Socket = int;
constexpr Socket kNoSocket = -1;
// A peer that resets the connection must fail the send, not kill zan.
constexpr int kSendFlags = MSG_NOSIGNAL;
void closeSocket(Socket s) { close(s); }
void setTimeouts(Socket s) {
  timeval tv{kSocketTimeoutSeconds, 0};
  setsockopt(s, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
  setsockopt(s, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
}
#endif

#ifdef _WIN32
// The shell is cmd.exe: double quotes, and Windows' own curl.exe. A "%" in
// an address passes as it is unless "%NAME%" names a set variable.
const char kCurl[] = "curl.exe -fsSL --max-time 120";
const char kQuote[] = "\"";
const char kNoErrors[] = " 2>NUL";
#else
const char kCurl[] = "curl -fsSL --max-time 120";
const char kQuote[] = "'";
const char kNoErrors[] = " 2>/dev/null";
#endif

// ASCII only, whatever the locale.
bool asciiAlnum(unsigned char c) {
  return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
}

// The bytes an address may hold on its way to the shell: no quote, blank,
// `;`, `$`, backquote, `|`, `<`, `>`, `(`, `#` or newline can pass, so a
// single-quoted address stays one argument.
bool shellSafeAddress(const std::string& s) {
  if (s.size() > kMaxShellArg) return false;
  for (unsigned char c : s)
    if (!asciiAlnum(c) && (c == 0 || !std::strchr(":/._?&=%-+~", c))) return false;
  return true;
}

// Headers of the two-header route also allow the blank that "Name: value"
// needs; still no quote.
bool shellSafeHeader(const std::string& s) {
  for (unsigned char c : s)
    if (!asciiAlnum(c) && c != ' ' && (c == 0 || !std::strchr("+-./:_", c))) return false;
  return true;
}

bool runCurl(const std::string& cmd, std::string& out) {
  std::FILE* pipe = popen(cmd.c_str(), "r");
  if (!pipe) return false;
  std::string block(kBlock, '\0');
  size_t n;
  while ((n = std::fread(block.data(), 1, kBlock, pipe)) > 0) out.append(block.data(), n);
  const int status = pclose(pipe);
  return status == 0 && !out.empty();
}

// The value of the first "content-length:" in the header text, or -1.
long long contentLength(const std::string& head) {
  std::string lower(head);
  for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  const size_t at = lower.find("content-length:");
  if (at == std::string::npos) return -1;
  const size_t from = at + std::strlen("content-length:");
  const size_t cr = lower.find('\r', from);
  const std::string value = lower.substr(from, cr == std::string::npos ? std::string::npos : cr - from);
  return std::strtoll(value.c_str(), nullptr, 10);
}

}  // namespace

bool httpGetProg(const std::string& url, std::string& out, HttpProgressFn progress, void* progressCtx) {
  out.clear();
  static const char kScheme[] = "http://";
  if (url.compare(0, sizeof kScheme - 1, kScheme) != 0) return false;
  const std::string rest = url.substr(sizeof kScheme - 1);
  const size_t slash = rest.find('/');
  const std::string authority = rest.substr(0, slash);
  const std::string path = slash == std::string::npos ? "/" : rest.substr(slash);
  const size_t colon = authority.rfind(':');
  const std::string host = authority.substr(0, colon);
  const std::string port = colon == std::string::npos ? "80" : authority.substr(colon + 1);

  if (zanCompatNetInit() != 0) return false;
  addrinfo hints{};
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* res = nullptr;
  if (getaddrinfo(host.c_str(), port.c_str(), &hints, &res) != 0 || !res) return false;
  const Socket s = socket(res->ai_family, res->ai_socktype, res->ai_protocol);
  if (s == kNoSocket) {
    freeaddrinfo(res);
    return false;
  }
  setTimeouts(s);
  const int connected = connect(s, res->ai_addr, static_cast<int>(res->ai_addrlen));
  freeaddrinfo(res);
  if (connected != 0) {
    closeSocket(s);
    return false;
  }

  const std::string request = "GET " + path + " HTTP/1.1\r\nHost: " + authority + "\r\nConnection: close\r\n\r\n";
  const auto sent = send(s, request.data(), static_cast<int>(request.size()), kSendFlags);
  if (sent < 0 || static_cast<size_t>(sent) != request.size()) {
    closeSocket(s);
    return false;
  }

  std::string reply;
  std::string block(kBlock, '\0');
  size_t bodyAt = std::string::npos;  // offset behind the blank line, once seen
  long long length = -1;
  for (;;) {
    const auto n = recv(s, block.data(), static_cast<int>(kBlock), 0);
    if (n < 1) break;
    reply.append(block.data(), static_cast<size_t>(n));
    if (bodyAt == std::string::npos) {
      const size_t end = reply.find("\r\n\r\n");
      if (end != std::string::npos) {
        bodyAt = end + 4;
        length = contentLength(reply.substr(0, end));
      }
    }
    if (bodyAt != std::string::npos && progress)
      progress(reply.size() - bodyAt, length > 0 ? static_cast<size_t>(length) : 0, progressCtx);
  }
  closeSocket(s);

  if (reply.compare(0, 12, "HTTP/1.1 200") != 0 && reply.compare(0, 12, "HTTP/1.0 200") != 0) return false;
  if (bodyAt == std::string::npos) return false;
  const size_t bodySize = reply.size() - bodyAt;
  if (length >= 0) {
    if (bodySize < static_cast<unsigned long long>(length)) return false;  // cut short
    out.assign(reply, bodyAt, static_cast<size_t>(length));
  } else {
    out.assign(reply, bodyAt, std::string::npos);
  }
  return true;
}

bool curlCommandLine(const std::string& url, const std::string& header, std::string& cmd) {
  if (!shellSafeAddress(url)) return false;
  std::string option;
  if (!header.empty()) {
    if (!shellSafeAddress(header)) return false;
    option = std::string(" -H ") + kQuote + header + kQuote;
  }
  cmd = kCurl + option + " " + kQuote + url + kQuote + kNoErrors;
  return true;
}

bool httpGetAnyHdr(const std::string& url, const std::string& header, std::string& out) {
  out.clear();
  if (url.compare(0, 8, "https://") != 0) return httpGetProg(url, out, nullptr, nullptr);
  std::string cmd;
  if (!curlCommandLine(url, header, cmd)) return false;
  return runCurl(cmd, out);
}

bool httpGetAnyH2(const std::string& url, const std::string& header1, const std::string& header2,
                  std::string& out) {
  out.clear();
  if (url.compare(0, 8, "https://") != 0) return httpGetProg(url, out, nullptr, nullptr);
  std::string cmd;
  if (!curlCommandLine(url, "", cmd)) return false;
  std::string options;
  for (const std::string* h : {&header1, &header2})
    if (!h->empty() && shellSafeHeader(*h)) options += std::string(" -H ") + kQuote + *h + kQuote;
  cmd = kCurl + options + " " + kQuote + url + kQuote + kNoErrors;
  return runCurl(cmd, out);
}

void renderBar(char* buffer, size_t percent) {
  static const char fill[] = "####################";
  static const char rest[] = "....................";
  const size_t filled = percent > 100 ? 20 : percent * 20 / 100;
  std::memcpy(buffer, fill, filled);
  std::memcpy(buffer + filled, rest, 20 - filled);
  buffer[20] = '\0';
}

void onInitProgress(size_t done, size_t total, void* ctx) {
  DownloadProgress* p = static_cast<DownloadProgress*>(ctx);
  if (!p || !p->enabled) return;
  const size_t percent = total == 0 ? 0 : done * 100 / total;
  char bar[21];
  renderBar(bar, percent);
  char line[128];
  int width = std::snprintf(line, sizeof line, "  [%2zu/%-2zu] %-32.32s [%s] %3zu%%", p->index, p->count,
                            p->name.c_str(), bar, percent);
  if (width < 0) return;
  if (width >= static_cast<int>(sizeof line)) width = sizeof line - 1;
  if (p->lastWidth > 0) std::printf("\r%*s\r", p->lastWidth, "");
  std::fwrite(line, 1, static_cast<size_t>(width), stdout);
  p->lastWidth = width;
  std::fflush(stdout);
}

}  // namespace tov
