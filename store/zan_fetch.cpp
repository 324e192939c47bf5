// The transfer interface without a transport: every operation gives its
// fixed value.
#include "store/zan_fetch.h"

namespace tov::fetch {

Fetcher::~Fetcher() {
  for (Job* j : jobs_) delete j;
}

const std::string& Fetcher::none() {
  static const std::string kNone;
  return kNone;
}

std::string Fetcher::cacheDir() const { return {}; }
std::string Fetcher::cacheName(const std::string&) const { return {}; }
int Fetcher::start(const std::string&, const std::string&) { return 0; }
int Fetcher::startText(const std::string&, const std::string&, const std::string&) { return 0; }
int Fetcher::startExternal(const std::string&, const std::string&, bool, const std::string&,
                           const std::string&) {
  return 0;
}
int Fetcher::startCommand(const std::vector<std::string>&) { return 0; }
void Fetcher::pump() {}
int Fetcher::state(int) const { return 4; }
uint64_t Fetcher::got(int) const { return 0; }
uint64_t Fetcher::total(int) const { return 0; }
const std::string& Fetcher::error(int) const { return none(); }
const std::string& Fetcher::body(int) const { return none(); }
const std::string& Fetcher::dest(int) const { return none(); }
const std::string& Fetcher::commandOutput(int) const { return none(); }
int Fetcher::cancel(int) { return 0; }
Job* Fetcher::find(int) const { return nullptr; }
bool Fetcher::owns(const std::string&) const { return false; }
void Fetcher::step(Job*, uint64_t) {}
void Fetcher::finish(Job&, bool, const std::string&) {}

}  // namespace tov::fetch
