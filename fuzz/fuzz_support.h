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

#include <android/log.h>
#include <stdint.h>
#include <stdio.h>

#include <algorithm>
#include <string>

#include "support/namespaces.h"

namespace kavo::fuzz {

// Enters a private mount namespace with a tmpfs over /data, and with
// |fakeProc| an empty tmpfs over /proc (this process's own entries still lead
// into a real procfs, for the sanitizers), with |bpffs| a fresh bpffs. False
// (with a line on stderr) when something was refused; the target then runs
// on whatever is there.
inline bool PrivateMounts(bool fakeProc, bool bpffs) {
  std::string why;
  if (test::EnterPrivateNamespaces({/*network=*/false, /*mnt=*/false, bpffs, fakeProc, /*keepOwnProc=*/true}, &why)) return true;
  fprintf(stderr, "fuzz: %s\n", why.c_str());
  return false;
}

// Drops every log line below fatal: a fuzz run logs a lot and reads none of it.
inline void QuietLog() {
  __android_log_set_logger([](const struct __android_logger_data* data, const char* message) {
    if (data->priority >= ANDROID_LOG_FATAL) __android_log_stderr_logger(data, message);
  });
}

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
    for (char& c : out) c = static_cast<char>(Byte());
    return out;
  }
  // What is left, unread.
  std::string Rest() const { return std::string(reinterpret_cast<const char*>(data_) + std::min(at_, size_), size_ - std::min(at_, size_)); }

 private:
  const uint8_t* data_;
  size_t size_;
  size_t at_ = 0;
};

}  // namespace kavo::fuzz
