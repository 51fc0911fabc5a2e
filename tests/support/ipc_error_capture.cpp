#include "support/ipc_error_capture.h"

#include <mutex>

#include "utils/kavo_bpf_ipc_error.h"

namespace kavo::test {

static std::mutex gLock;
static std::string gRecords;

void CaptureIpcErrors() {
  SetIpcErrorRecorder([](int errorCode, const std::string& error) {
    std::lock_guard<std::mutex> guard(gLock);
    gRecords.insert(0, "----------\nErrorCode: " + std::to_string(errorCode) + "\nError: " + error + "\n");
  });
}

std::string RecordedIpcErrors() {
  std::lock_guard<std::mutex> guard(gLock);
  return gRecords;
}

}  // namespace kavo::test
