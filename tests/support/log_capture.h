#pragma once

// Captures what the code under test writes to the Android log, so a test can
// check for the exact lines the service promises. Lines are still echoed to
// stderr unless KAVO_TEST_QUIET=1.
//
//   kavo::test::LogCapture log;
//   ... run code ...
//   EXPECT_TRUE(log.Contains("Skip bpf prog: KavoBpfGplDefineset"));
//
// Thread-safe. One capture is active at a time (the newest one).

#include <android/log.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

namespace kavo::test {

struct LogLine {
  int priority;
  std::string tag, message;
};

class LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  // Lines whose message (every line for "") contains |needle| (and has |priority|, when given).
  size_t Count(const std::string& needle, int priority = -1) const;
  bool Contains(const std::string& needle, int priority = -1) const { return Count(needle, priority) > 0; }
  // Waits until Count(needle) >= count, or the timeout passed.
  bool WaitFor(const std::string& needle, size_t count = 1, std::chrono::milliseconds timeout = std::chrono::seconds(10)) const;
  void Clear();

 private:
  static void Logger(const struct __android_logger_data* data, const char* message);
  size_t CountLocked(const std::string& needle, int priority) const;

  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  std::vector<LogLine> lines_;
  bool echo_;
};

}  // namespace kavo::test
