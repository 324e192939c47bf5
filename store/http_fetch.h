// HttpFetcher: the transfer interface of store/zan_fetch.h with a real
// transport. Transfers run one after another on a worker thread over the
// package manager's HTTP retrieval (packages/http_get.h: plain http:// built
// in, https:// through curl); `pump`, on the caller's thread, hands the
// finished ones over to their jobs. Owns the worker and the jobs.
//
// Beyond the contract:
// - `start` writes the body straight to `dest` once the whole of it came.
// - `startCommand` runs argv[0] with its arguments, without a shell, and
//   keeps its standard output; a non-zero exit status fails the job. The
//   Windows build fails every command job.
// - `startExternal` is not supported and gives 0.
// - `got` and `total` move at each pump while a plain-HTTP transfer runs.
// - `cancel` fails a running job at once with the error "cancelled"; a
//   transfer already under way runs to its end and its result is dropped.
// - Destruction does not wait for a transfer under way: the worker is left
//   to end it on its own and then exits.
#pragma once

#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "store/zan_fetch.h"

namespace tov::fetch {

class HttpFetcher : public Fetcher {
 public:
  HttpFetcher();
  ~HttpFetcher() override;

  // HOME + "/.zan/cache/store", and the URL's last path element with bytes
  // other than letters, digits, ".", "-" and "_" turned into "_" ("index"
  // when it is empty).
  std::string cacheDir() const override;
  std::string cacheName(const std::string& url) const override;

  int start(const std::string& url, const std::string& dest) override;
  int startText(const std::string& url, const std::string& label, const std::string& header) override;
  int startCommand(const std::vector<std::string>& argv) override;

  void pump() override;

  int state(int id) const override;  // 4 for an unknown id
  uint64_t got(int id) const override;
  uint64_t total(int id) const override;
  const std::string& error(int id) const override;
  const std::string& body(int id) const override;
  const std::string& dest(int id) const override;
  const std::string& commandOutput(int id) const override;
  int cancel(int id) override;
  Job* find(int id) const override;
  bool owns(const std::string& path) const override;

  // Counts `n` more bytes as received by `job`.
  void step(Job* job, uint64_t n) override;
  // Ends `job`: state 1 with `text` as its body or output, or state 2 with
  // `text` as its error. A job that has ended already stays as it is.
  void finish(Job& job, bool ok, const std::string& text) override;

  // Blocks until a finished transfer waits for `pump`, or `ms` passed; true
  // in the first case. For a host with nothing else to do than wait.
  bool wait(unsigned ms);

  struct Shared;  // the queues the worker and the caller share

 private:
  int queue(Job* job, int kind);

  std::shared_ptr<Shared> shared_;
  std::thread worker_;
  int nextId_ = 1;
};

}  // namespace tov::fetch
