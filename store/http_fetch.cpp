// HttpFetcher: one worker thread runs the transfers in the order they were
// started; the caller's thread sees their results only through pump.
#include "store/http_fetch.h"

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <mutex>
#include <set>

#ifndef _WIN32
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;
#endif

#include "packages/http_get.h"

namespace tov::fetch {

namespace {

enum Kind { kText, kFile, kCommand };

struct Task {
  int id;
  int kind;
  std::string url, header, dest;
  std::vector<std::string> argv;
};

struct Result {
  int id;
  bool ok;
  std::string text;  // body, output or error
  uint64_t got;
};

}  // namespace

struct HttpFetcher::Shared {
  std::mutex m;
  std::condition_variable work;   // a task came, or stop
  std::condition_variable ready;  // a result came
  std::deque<Task> todo;
  std::vector<Result> done;
  std::set<int> cancelled;  // ids whose task is not to start
  bool stop = false;
  bool busy = false;
  int current = 0;  // id of the transfer under way
  uint64_t curGot = 0, curTotal = 0;
};

namespace {

using Shared = HttpFetcher::Shared;

void onProgress(size_t done, size_t total, void* ctx) {
  auto* s = static_cast<Shared*>(ctx);
  std::lock_guard<std::mutex> lock(s->m);
  s->curGot = done;
  s->curTotal = total;
}

bool getText(Shared& s, const Task& t, std::string& out) {
  // Plain HTTP goes straight to the built-in client so that progress shows;
  // it sends no extra header anyway.
  if (t.url.rfind("http://", 0) == 0) return httpGetProg(t.url, out, onProgress, &s);
  return httpGetAnyHdr(t.url, t.header, out);
}

bool writeWhole(const std::string& path, const std::string& bytes) {
  FILE* f = std::fopen(path.c_str(), "wb");
  if (!f) return false;
  const bool ok = std::fwrite(bytes.data(), 1, bytes.size(), f) == bytes.size();
  return std::fclose(f) == 0 && ok;
}

// Runs argv without a shell and collects its standard output.
bool runCommand(const std::vector<std::string>& argv, std::string& out, std::string& err) {
#ifdef _WIN32
  err = "commands are not run on this platform";
  return false;
#else
  if (argv.empty()) {
    err = "no command";
    return false;
  }
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) {
    err = "cannot make a pipe";
    return false;
  }
  std::vector<char*> args;
  for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  posix_spawn_file_actions_t fa;
  posix_spawn_file_actions_init(&fa);
  posix_spawn_file_actions_adddup2(&fa, fds[1], 1);
  // The command gets the usual signal mask back, SIGPIPE included.
  posix_spawnattr_t attr;
  posix_spawnattr_init(&attr);
  sigset_t empty;
  sigemptyset(&empty);
  posix_spawnattr_setsigmask(&attr, &empty);
  posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGMASK);
  pid_t pid;
  const int rc = posix_spawnp(&pid, args[0], &fa, &attr, args.data(), environ);
  posix_spawnattr_destroy(&attr);
  posix_spawn_file_actions_destroy(&fa);
  close(fds[1]);
  if (rc != 0) {
    close(fds[0]);
    err = "cannot run " + argv[0];
    return false;
  }
  char block[16384];
  for (ssize_t n; (n = read(fds[0], block, sizeof block)) != 0;)
    if (n > 0) out.append(block, size_t(n));
    else if (errno != EINTR) break;
  close(fds[0]);
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  if (WIFEXITED(status) && WEXITSTATUS(status) == 0) return true;
  err = argv[0] + " failed";
  return false;
#endif
}

Result runTask(Shared& s, const Task& t) {
  Result r{t.id, false, {}, 0};
  std::string out, err;
  if (t.kind == kCommand) {
    r.ok = runCommand(t.argv, out, err);
  } else if (!getText(s, t, out)) {
    err = "cannot fetch " + t.url;
  } else if (t.kind == kFile && !writeWhole(t.dest, out)) {
    err = "cannot write " + t.dest;
  } else {
    r.ok = true;
  }
  r.got = out.size();
  r.text = r.ok ? (t.kind == kFile ? std::string() : std::move(out)) : err;
  return r;
}

void workerLoop(std::shared_ptr<Shared> s) {
  // A peer that closes early must fail the transfer, not end the process:
  // SIGPIPE from our sends stays pending on this thread.
#ifndef _WIN32
  sigset_t pipeSet;
  sigemptyset(&pipeSet);
  sigaddset(&pipeSet, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &pipeSet, nullptr);
#endif
  std::unique_lock<std::mutex> lock(s->m);
  for (;;) {
    s->work.wait(lock, [&] { return s->stop || !s->todo.empty(); });
    if (s->stop) return;
    Task t = std::move(s->todo.front());
    s->todo.pop_front();
    if (s->cancelled.erase(t.id)) continue;
    s->busy = true;
    s->current = t.id;
    s->curGot = s->curTotal = 0;
    lock.unlock();
    Result r = runTask(*s, t);
    lock.lock();
    s->busy = false;
    s->current = 0;
    s->done.push_back(std::move(r));
    s->ready.notify_all();
  }
}

bool isNameByte(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' || c == '-' ||
         c == '_';
}

}  // namespace

HttpFetcher::HttpFetcher() : shared_(std::make_shared<Shared>()) {
  worker_ = std::thread(workerLoop, shared_);
}

HttpFetcher::~HttpFetcher() {
  bool busy;
  {
    std::lock_guard<std::mutex> lock(shared_->m);
    shared_->stop = true;
    shared_->todo.clear();
    busy = shared_->busy;
  }
  shared_->work.notify_all();
  // A stalled peer may hold the worker for as long as its timeouts allow;
  // it owns a share of the queues, so it can finish after we are gone.
  if (busy)
    worker_.detach();
  else
    worker_.join();
}

std::string HttpFetcher::cacheDir() const {
  const char* home = std::getenv("HOME");
  return std::string(home ? home : "") + "/.zan/cache/store";
}

std::string HttpFetcher::cacheName(const std::string& url) const {
  std::string path = url.substr(0, url.find_first_of("?#"));
  std::string name = path.substr(path.rfind('/') == std::string::npos ? 0 : path.rfind('/') + 1);
  if (name.empty() || name == "." || name == "..") return "index";
  for (char& c : name)
    if (!isNameByte(c)) c = '_';
  return name;
}

int HttpFetcher::queue(Job* job, int kind) {
  job->id = nextId_++;
  jobs_.push_back(job);
  Task t{job->id, kind, job->url, job->header, job->dest, job->argv};
  {
    std::lock_guard<std::mutex> lock(shared_->m);
    shared_->todo.push_back(std::move(t));
  }
  shared_->work.notify_one();
  return job->id;
}

int HttpFetcher::start(const std::string& url, const std::string& dest) {
  Job* job = new Job;
  job->url = url;
  job->dest = dest;
  return queue(job, kFile);
}

int HttpFetcher::startText(const std::string& url, const std::string& label, const std::string& header) {
  Job* job = new Job;
  job->url = url;
  job->label = label;
  job->header = header;
  return queue(job, kText);
}

int HttpFetcher::startCommand(const std::vector<std::string>& argv) {
  Job* job = new Job;
  job->argv = argv;
  return queue(job, kCommand);
}

void HttpFetcher::pump() {
  std::vector<Result> done;
  int current;
  uint64_t curGot, curTotal;
  {
    // Only a swap under the lock: the worker never holds it across a
    // transfer, so this does not wait for the network.
    std::lock_guard<std::mutex> lock(shared_->m);
    done.swap(shared_->done);
    for (const Result& r : done) shared_->cancelled.erase(r.id);
    current = shared_->current;
    curGot = shared_->curGot;
    curTotal = shared_->curTotal;
  }
  if (Job* j = find(current); j && j->state == 0) {
    if (curGot > j->got) step(j, curGot - j->got);
    j->total = curTotal;
  }
  for (Result& r : done) {
    Job* j = find(r.id);
    if (!j) continue;
    if (r.ok && j->got < r.got) step(j, r.got - j->got);
    if (r.ok && j->total == 0) j->total = r.got;
    finish(*j, r.ok, r.text);
  }
}

Job* HttpFetcher::find(int id) const {
  if (id < 1 || id >= nextId_) return nullptr;
  return jobs_[size_t(id) - 1];  // ids are handed out in the order of jobs_
}

int HttpFetcher::state(int id) const {
  const Job* j = find(id);
  return j ? j->state : 4;
}

uint64_t HttpFetcher::got(int id) const {
  const Job* j = find(id);
  return j ? j->got : 0;
}

uint64_t HttpFetcher::total(int id) const {
  const Job* j = find(id);
  return j ? j->total : 0;
}

const std::string& HttpFetcher::error(int id) const {
  const Job* j = find(id);
  return j ? j->error : none();
}

const std::string& HttpFetcher::body(int id) const {
  const Job* j = find(id);
  return j ? j->body : none();
}

const std::string& HttpFetcher::dest(int id) const {
  const Job* j = find(id);
  return j ? j->dest : none();
}

const std::string& HttpFetcher::commandOutput(int id) const {
  const Job* j = find(id);
  return j ? j->output : none();
}

int HttpFetcher::cancel(int id) {
  Job* j = find(id);
  if (!j || j->state != 0) return 0;
  {
    std::lock_guard<std::mutex> lock(shared_->m);
    if (shared_->current != id) shared_->cancelled.insert(id);
  }
  finish(*j, false, "cancelled");
  return 1;
}

bool HttpFetcher::owns(const std::string& path) const {
  for (const Job* j : jobs_)
    if (j->state == 0 && !j->dest.empty() && j->dest == path) return true;
  return false;
}

void HttpFetcher::step(Job* job, uint64_t n) {
  if (job) job->got += n;
}

void HttpFetcher::finish(Job& job, bool ok, const std::string& text) {
  if (job.state != 0) return;
  job.state = ok ? 1 : 2;
  if (!ok)
    job.error = text;
  else if (!job.argv.empty())
    job.output = text;
  else if (job.dest.empty())
    job.body = text;
}

bool HttpFetcher::wait(unsigned ms) {
  std::unique_lock<std::mutex> lock(shared_->m);
  return shared_->ready.wait_for(lock, std::chrono::milliseconds(ms), [&] { return !shared_->done.empty(); });
}

}  // namespace tov::fetch
