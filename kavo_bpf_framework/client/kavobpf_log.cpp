// Routing the Android log of the process to a handler of the caller's.

#include <android/log.h>

#include <mutex>

#include "kavobpf/kavobpf_client.h"

namespace kavobpf {

namespace {

std::mutex gLogLock;
LogHandler gLogHandler;

void Route(const struct __android_logger_data* data, const char* message) {
  LogHandler handler;
  {
    std::lock_guard<std::mutex> guard(gLogLock);
    handler = gLogHandler;
  }
  if (handler) handler(data->priority, data->tag != nullptr ? data->tag : "", message);
}

}  // namespace

void SetLogHandler(LogHandler handler) {
  {
    std::lock_guard<std::mutex> guard(gLogLock);
    gLogHandler = std::move(handler);
  }
  __android_log_set_logger(&Route);
}

}  // namespace kavobpf
