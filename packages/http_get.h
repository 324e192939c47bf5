// Every network read of the package manager: a built-in HTTP/1.1 GET on
// plain sockets for http:// addresses, and an outside `curl` for https://.
// Each call blocks, reads one whole reply into `out` and answers true or
// false; saying what failed is the caller's business. The download progress
// line lives here too.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace tov {

// Called after each received block once the headers are complete: body
// bytes so far, and the announced length or 0 when there is none.
using HttpProgressFn = void (*)(size_t done, size_t total, void* ctx);

// The built-in client: "http://" only, one IPv4 connection, 60-second socket
// timeouts, status 200 only, no redirects, no transfer encodings. A body
// shorter than its Content-Length fails; a longer one is cut to it.
bool httpGetProg(const std::string& url, std::string& out, HttpProgressFn progress, void* progressCtx);

// "https://..." goes to curl with at most one extra request header (which,
// like the address, must pass the shell-safe character rule, or nothing is
// started); any other address goes to httpGetProg and the header is dropped.
bool httpGetAnyHdr(const std::string& url, const std::string& header, std::string& out);
// The same with two headers; on the curl route a header outside the header
// character rule is dropped rather than failing the call.
bool httpGetAnyH2(const std::string& url, const std::string& header1, const std::string& header2,
                  std::string& out);
inline bool httpGetAny(const std::string& url, std::string& out) { return httpGetAnyHdr(url, "", out); }

// The curl command line for an https address, or false when the address or
// header breaks the character rule (and so must never reach a shell).
bool curlCommandLine(const std::string& url, const std::string& header, std::string& cmd);

// The state behind one file's progress line; the caller owns it.
struct DownloadProgress {
  size_t index = 0;  // from 1
  size_t count = 0;
  std::string name;
  bool enabled = false;  // false makes onInitProgress a no-op
  int lastWidth = 0;     // length of the line printed last
};

// An HttpProgressFn whose `ctx` is a DownloadProgress: redraws the line
// "  [ i/n ] name [####....]  pp%" on standard output, without a newline.
void onInitProgress(size_t done, size_t total, void* ctx);
// Fills `buffer` (21 bytes) with the 20-character bar for `percent`.
void renderBar(char* buffer, size_t percent);

}  // namespace tov
