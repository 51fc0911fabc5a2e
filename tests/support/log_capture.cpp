#include "support/log_capture.h"

#include <stdlib.h>
#include <string.h>

#include <atomic>

namespace kavo::test {

namespace {
std::atomic<LogCapture*> gActive{nullptr};
}  // namespace

LogCapture::LogCapture() : echo_(getenv("KAVO_TEST_QUIET") == nullptr || strcmp(getenv("KAVO_TEST_QUIET"), "1") != 0) {
  gActive = this;
  __android_log_set_logger(&LogCapture::Logger);
}

LogCapture::~LogCapture() {
  LogCapture* self = this;
  if (gActive.compare_exchange_strong(self, nullptr)) __android_log_set_logger(__android_log_stderr_logger);
}

void LogCapture::Logger(const struct __android_logger_data* data, const char* message) {
  LogCapture* active = gActive.load();
  if (active == nullptr || active->echo_) __android_log_stderr_logger(data, message);
  if (active == nullptr) return;
  {
    std::lock_guard<std::mutex> guard(active->mutex_);
    active->lines_.push_back(LogLine{data->priority, data->tag ? data->tag : "", message ? message : ""});
  }
  active->changed_.notify_all();
}

size_t LogCapture::CountLocked(const std::string& needle, int priority) const {
  size_t n = 0;
  for (const LogLine& line : lines_) n += line.message.find(needle) != std::string::npos && (priority < 0 || line.priority == priority);
  return n;
}

size_t LogCapture::Count(const std::string& needle, int priority) const {
  std::lock_guard<std::mutex> guard(mutex_);
  return CountLocked(needle, priority);
}

bool LogCapture::WaitFor(const std::string& needle, size_t count, std::chrono::milliseconds timeout) const {
  std::unique_lock<std::mutex> lock(mutex_);
  return changed_.wait_for(lock, timeout, [&] { return CountLocked(needle, -1) >= count; });
}

void LogCapture::Clear() {
  std::lock_guard<std::mutex> guard(mutex_);
  // Gives the memory back too: tests that measure the heap clear first.
  std::vector<LogLine>().swap(lines_);
}

}  // namespace kavo::test
