#include "utils/kavo_bpf_ipc_error.h"

#include <atomic>

namespace {

std::atomic<IpcErrorRecorder> gRecorder{nullptr};

}  // namespace

IpcErrorRecorder SetIpcErrorRecorder(IpcErrorRecorder recorder) {
  return gRecorder.exchange(recorder, std::memory_order_acq_rel);
}

bool IpcErrorRecorderInstalled() { return gRecorder.load(std::memory_order_acquire) != nullptr; }

void RecordIpcError(int errorCode, const std::string& error) {
  IpcErrorRecorder recorder = gRecorder.load(std::memory_order_acquire);
  if (recorder != nullptr) recorder(errorCode, error);
}
