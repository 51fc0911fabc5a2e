#include "support/ipc_error_capture.h"

#include <mutex>

#include "utils/kavo_bpf_ipc_error.h"

namespace kavo::test {

namespace {

std::mutex gLock;
std::string gRecords;

void Record(int errorCode, const std::string& error) {
  std::lock_guard<std::mutex> guard(gLock);
  gRecords.insert(0, "----------\nErrorCode: " + std::to_string(errorCode) + "\nError: " + error + "\n");
}

}  // namespace

void CaptureIpcErrors() { SetIpcErrorRecorder(&Record); }

std::string RecordedIpcErrors() {
  std::lock_guard<std::mutex> guard(gLock);
  return gRecords;
}

}  // namespace kavo::test
