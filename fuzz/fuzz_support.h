#pragma once

// What every fuzz target of the service needs around the code under test:
// a quiet log, and private mounts over the fixed paths the service writes
// and reads, so that a run neither touches the machine's files nor depends
// on them.
//
//   extern "C" int LLVMFuzzerInitialize(int*, char***) {
//     kavo::fuzz::QuietLog();
//     kavo::fuzz::PrivateMounts(/*fakeProc=*/true, /*bpffs=*/false);
//     return 0;
//   }
//
// Called once, from LLVMFuzzerInitialize, before any other thread exists.

#include <stdint.h>

#include <algorithm>
#include <string>

namespace kavo::fuzz {

// Enters a private mount namespace with a tmpfs over /data, and with
// |fakeProc| an empty tmpfs over /proc (this process's own entries still lead
// into a real procfs, for the sanitizers), with |bpffs| a fresh bpffs. False
// (with a line on stderr) when something was refused; the target then runs
// on whatever is there.
bool PrivateMounts(bool fakeProc, bool bpffs);

// Drops every log line below fatal: a fuzz run logs a lot and reads none of it.
void QuietLog();

// Reads the input front to back; past its end it yields zeros.
class Input {
 public:
  Input(const uint8_t* data, size_t size) : data_(data), size_(size) {}
  bool empty() const { return at_ >= size_; }
  uint8_t Byte() { return at_ < size_ ? data_[at_++] : 0; }
  uint32_t U16() { return Byte() | (static_cast<uint32_t>(Byte()) << 8); }
  uint32_t U32() { return U16() | (U16() << 16); }
  std::string Bytes(size_t n) {
    std::string out(n, '\0');
    for (size_t i = 0; i < n; ++i) out[i] = static_cast<char>(Byte());
    return out;
  }
  const uint8_t* rest() const { return data_ + std::min(at_, size_); }
  size_t restSize() const { return size_ - std::min(at_, size_); }

 private:
  const uint8_t* data_;
  size_t size_;
  size_t at_ = 0;
};

}  // namespace kavo::fuzz
