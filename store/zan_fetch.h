// Background transfers: the interface a polling host uses to run downloads
// while it keeps drawing. A caller starts a job and gets its id, calls
// `pump` now and then, and reads the state and the result by that id.
//
// `Fetcher` itself has no transport: every operation gives the fixed value
// noted beside it, so every job reads as failed with an empty error at once.
// A subclass that really transfers (HttpFetcher, store/http_fetch.h)
// overrides the operations and keeps the contract written here.
//
// Contract, for every implementation:
// - All calls come from one thread, the caller's. A job changes only inside
//   `pump`: between two pumps `state`, `got`, `total` and the texts of a job
//   stay as they are, and `pump` never blocks on a transfer.
// - Job ids are positive and never reused by one Fetcher; 0 means "no job"
//   and is what a start operation gives when it cannot start one. An id that
//   names no job is no error: `state` gives a failed value for it and the
//   text getters give the shared empty text.
// - `state`: 0 while running, 1 when done; any other value means failed.
//   A job leaves 0 once and then keeps its state.
// - `body` holds the text of a finished `startText` job, `dest` the file of
//   a `start` job, `commandOutput` the output of a `startCommand` job,
//   `error` the failure text of a failed one. References stay valid until
//   the next `pump` or the Fetcher's end.
// - The Fetcher owns its jobs and frees them in its destructor.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace tov::fetch {

// One job's record. The fields are the Fetcher's to set; callers read them.
struct Job {
  int id = 0;
  int state = 0;           // 0 running, 1 done, other values failed
  uint64_t got = 0;        // bytes so far
  uint64_t total = 0;      // bytes expected, 0 when unknown
  std::string url;         // what is fetched
  std::string label;       // names the transfer in messages
  std::string header;      // one request header line, or empty
  std::string dest;        // the file of a `start` job
  std::string body;        // the text of a `startText` job
  std::string output;      // the output of a `startCommand` job
  std::string error;       // why the job failed
  std::vector<std::string> argv;  // the command of a `startCommand` job
};

class Fetcher {
 public:
  Fetcher() = default;
  Fetcher(const Fetcher&) = delete;
  Fetcher& operator=(const Fetcher&) = delete;
  virtual ~Fetcher();

  // Directory of the transfer cache ("" here).
  virtual std::string cacheDir() const;
  // File name for `url` in the cache ("" here).
  virtual std::string cacheName(const std::string& url) const;

  // Download `url` to the file `dest`; gives the job id (0 here).
  virtual int start(const std::string& url, const std::string& dest);
  // Download `url` into memory; `label` names the transfer for messages,
  // `header` is one request header line or empty. Gives the id (0 here).
  virtual int startText(const std::string& url, const std::string& label, const std::string& header);
  // A job run by an outside program; the meaning of the arguments belongs
  // to the implementation (0 here, and in every implementation so far).
  virtual int startExternal(const std::string& a, const std::string& b, bool flag, const std::string& c,
                            const std::string& d);
  // A job that runs a command, argv[0] being the program (0 here).
  virtual int startCommand(const std::vector<std::string>& argv);

  // Advances all running jobs without blocking (nothing here).
  virtual void pump();

  virtual int state(int id) const;       // 4 here, for every id
  virtual uint64_t got(int id) const;    // 0 here
  virtual uint64_t total(int id) const;  // 0 here
  virtual const std::string& error(int id) const;          // kNone here
  virtual const std::string& body(int id) const;           // kNone here
  virtual const std::string& dest(int id) const;           // kNone here
  virtual const std::string& commandOutput(int id) const;  // kNone here
  // Stops a job: 1 when a running job was stopped, else 0 (0 here).
  virtual int cancel(int id);
  // The job's record, or null (null here).
  virtual Job* find(int id) const;
  // Whether `path` is the destination of a running job (false here).
  virtual bool owns(const std::string& path) const;

  // One unit of work on `job`, `n` its size in bytes (nothing here).
  virtual void step(Job* job, uint64_t n);
  // Ends `job`: done with `text` as its result, or failed with `text` as
  // its error (nothing here).
  virtual void finish(Job& job, bool ok, const std::string& text);

  // The shared empty text the getters give for a job without such a text.
  static const std::string& none();

  // Set to 16 by the creator; how many transfers may run at once.
  int32_t maxActive = 16;

 protected:
  std::vector<Job*> jobs_;  // owned
};

}  // namespace tov::fetch
