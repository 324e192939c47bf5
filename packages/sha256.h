// SHA-256 (FIPS 180-4) of our own, for the digests the package manager
// checks. Whole 64-byte blocks go to the processor's SHA instructions when
// it has them (checked once, at run time) and to portable code otherwise;
// both give the same digest.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace tov {

class Sha256 {
 public:
  Sha256() { reset(); }
  void reset();
  void update(const void* data, size_t length);
  // The 32 digest bytes; the object must be reset before further use.
  void finish(uint8_t digest[32]);
  // finish() as 64 lower-case hexadecimal characters.
  std::string finishHex();

 private:
  uint32_t state_[8];
  uint64_t total_;  // bytes fed so far
  uint8_t buffer_[64];
  size_t used_;  // bytes waiting in buffer_
};

// The digest of `bytes` as lower-case hexadecimal.
std::string sha256Hex(std::string_view bytes);

// The digest of the file at `path`, read in blocks of 65536 bytes; empty
// if it cannot be opened (an empty file gives the digest of no bytes).
std::string fileSha(const std::string& path);

// Whether whole blocks go to the SHA instructions on this machine.
bool sha256UsesShaNi();
// Forces the portable code (false) or allows the SHA instructions again
// (true), so both can be checked against each other on one machine.
void sha256AllowShaNi(bool allow);

}  // namespace tov
