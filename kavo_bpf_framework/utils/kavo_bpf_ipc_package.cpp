// Building second-level packages and the per-connection outgoing queue.
//
// A queued package is copied into a send buffer behind its first-level size:
//
//   write buffer  |.. sent ..|c|  unsent  |d| size | package (size bytes) |  free  |N
//                                          ^ appended at d, only when 4 + size fits
//
// A package that fits only once the buffer has drained stays queued; one
// that could never fit (4 + size > N) is dropped when it reaches the front.

#define LOG_TAG "BpfUtils"

#include "utils/kavo_bpf_ipc_package.h"

#include <android-base/logging.h>
#include <android/log.h>
#include <limits.h>
#include <string.h>

#include <algorithm>
#include <chrono>
#include <string>

#include "service/kavo_bpf_error_log.h"
#include "utils/kavo_bpf_helper.h"

namespace {

constexpr char kTag[] = "BpfUtils";
// From here on size + 4 overflows 32 bits: the size field is garbage.
constexpr uint32_t kDamagedPackageSize = 0xFFFFFFFC;
constexpr uint32_t kSecondLevelHeaderSize = sizeof(KavoIpcSecondLevelPackageHeader);
constexpr uint32_t kReqRespHeaderSize = kSecondLevelHeaderSize + sizeof(KavoReqIpcPackageHeader);
static_assert(sizeof(KavoReqIpcPackageHeader) == sizeof(KavoRespIpcPackageHeader),
              "requests and responses share one layout");

// Appends to a send buffer in the two pieces a queued package is written as:
// its u32 size, then its bytes.
class SendBufferWriter {
 public:
  explicit SendBufferWriter(BufferState* buffer) : buffer_(buffer) {}
  bool write(uint32_t size) { return buffer_->write(&size, sizeof(size)); }
  bool write(const std::vector<char>& bytes) { return buffer_->write(bytes.data(), bytes.size()); }

 private:
  BufferState* buffer_;
};

void PutU32(char* at, uint32_t value) { memcpy(at, &value, sizeof(value)); }

// type | size | first | second | dataSize | data: a request or a response.
// |available| bytes of |data| exist; the rest of dataSize stays zero.
KavoIpcPackage BuildReqRespPackage(uint32_t type, uint32_t first, uint32_t second,
                                   uint32_t dataSize, const char* data, size_t available) {
  KavoIpcPackage package;
  package.size = kReqRespHeaderSize + dataSize;
  package.data.assign(package.size, 0);
  char* p = package.data.data();
  PutU32(p, type);
  PutU32(p + 4, package.size - kSecondLevelHeaderSize);
  PutU32(p + 8, first);
  PutU32(p + 12, second);
  PutU32(p + 16, dataSize);
  const size_t copied = std::min<size_t>(dataSize, available);
  if (copied != 0) memcpy(p + kReqRespHeaderSize, data, copied);
  return package;
}

void LogPackageDamaged() {
  __android_log_print(ANDROID_LOG_ERROR, kTag, "The ipc package is damaged! remove this package");
}

void RecordPackageTooBig(int errorCode, const char* error) {
  Kavo::Bpf::RecordBpfServiceErrorInfo(errorCode, error);
  __android_log_print(ANDROID_LOG_ERROR, kTag, "The ipc package is too big! remove this package");
}

}  // namespace

void IpcPackageManager::appendRespIpcPackage(KavoRespIpcPackage* resp) {
  if (resp->dataSize > UINT32_MAX - kReqRespHeaderSize) {
    __android_log_print(ANDROID_LOG_ERROR, kTag, "[AppendRespIpc] ipc package too big: %u",
                        resp->dataSize);
    return;
  }
  enqueue(BuildReqRespPackage(KAVO_IPC_RESPONSE, resp->reqId, static_cast<uint32_t>(resp->result),
                              resp->dataSize, resp->data.data(), resp->data.size()),
          Kavo::Bpf::KAVO_ERROR_QUEUE_FULL_RESPONSE,
          "[AppendRespIpc] ipc Package Queue too big: %zu");
}

void IpcPackageManager::appendReqIpcPackage(KavoReqIpcPackage* req) {
  if (req->dataSize > UINT32_MAX - kReqRespHeaderSize) {
    __android_log_print(ANDROID_LOG_ERROR, kTag, "[AppendReqIpc] ipc package too big: %u",
                        req->dataSize);
    return;
  }
  enqueue(BuildReqRespPackage(KAVO_IPC_REQUEST, req->reqId, req->reqType, req->dataSize, req->data,
                              req->data != nullptr ? req->dataSize : 0),
          Kavo::Bpf::KAVO_ERROR_QUEUE_FULL_REQUEST,
          "[AppendReqIpc] ipc Package Queue too big: %zu");
}

bool IpcPackageManager::buildAndAppendSecondIpcPackage(unsigned type, char* data, unsigned size) {
  if (type > KAVO_IPC_RAW_EVENT) return false;
  if (size > UINT32_MAX - kSecondLevelHeaderSize) {
    __android_log_print(ANDROID_LOG_ERROR, kTag, "[AppendSecondIpc] ipc package too big: %u", size);
    return false;
  }
  KavoIpcPackage package;
  package.size = kSecondLevelHeaderSize + size;
  package.data.resize(package.size);
  PutU32(package.data.data(), type);
  PutU32(package.data.data() + 4, size);
  if (size != 0 && data != nullptr) memcpy(package.data.data() + kSecondLevelHeaderSize, data, size);
  enqueue(std::move(package), Kavo::Bpf::KAVO_ERROR_QUEUE_FULL_SECOND_LEVEL,
          "[AppendSecondIpc] ipc Package Queue too big: %zu");
  return true;
}

void IpcPackageManager::buildAndAppendIpcPackage(char* data, unsigned size) {
  KavoIpcPackage package;
  package.size = size;
  if (data != nullptr) {
    package.data.assign(data, data + size);
  } else {
    package.data.resize(size);
  }
  enqueue(std::move(package), Kavo::Bpf::KAVO_ERROR_QUEUE_FULL_PACKAGE,
          "[BuildAndAppendIpc] ipc Package Queue too big: %zu");
}

void IpcPackageManager::enqueue(KavoIpcPackage package, int errorCode, const char* logFormat) {
  size_t trimmedFrom = 0;
  {
    std::lock_guard<std::mutex> guard(mutex_);
    if (queue_.size() > kQueueHighWater) {
      // A client that stopped reading: keep the newest packages.
      trimmedFrom = queue_.size();
      while (queue_.size() > kQueueTrimTarget) queue_.pop_front();
    }
    queue_.push_back(std::move(package));
    count_.store(queue_.size(), std::memory_order_relaxed);
    cond_.notify_all();
  }
  // The record rewrites a file: not while producers wait for the queue.
  if (trimmedFrom != 0) {
    Kavo::Bpf::RecordBpfServiceErrorInfo(
        errorCode,
        Kavo::Bpf::StringPrintf("B&A Ipc Package queue full %d", static_cast<int>(kQueueHighWater)));
    __android_log_print(ANDROID_LOG_ERROR, kTag, logFormat, trimmedFrom);
  }
}

bool IpcPackageManager::fillNextIpcPackageToBuffer(BufferState* buffer) {
  std::unique_lock<std::mutex> lock(mutex_);
  if (queue_.empty()) return false;
  const KavoIpcPackage& ipcPackage = queue_.front();
  if (ipcPackage.size >= kDamagedPackageSize) {
    LogPackageDamaged();
    queue_.pop_front();
    count_.store(queue_.size(), std::memory_order_relaxed);
    return false;
  }
  const size_t wireSize = static_cast<size_t>(ipcPackage.size) + ipcPackageHeaderSize;
  if (wireSize > buffer->size()) {
    queue_.pop_front();
    count_.store(queue_.size(), std::memory_order_relaxed);
    lock.unlock();
    RecordPackageTooBig(Kavo::Bpf::KAVO_ERROR_FILL_NEXT_DAMAGED,
                        "fillNextIpcPackageToBuffer ipc package damaged");
    return false;
  }
  // Not yet: it goes out on a later writable event, once the buffer drained.
  // (Cursors that ran past the storage pass this test and stop at the check.)
  if (wireSize > buffer->size() - buffer->bufferDataCursor) return false;

  SendBufferWriter writer(buffer);
  SendBufferWriter* bufferState = &writer;
  CHECK(bufferState->write(ipcPackage.size));
  CHECK(bufferState->write(ipcPackage.data));
  queue_.pop_front();
  count_.store(queue_.size(), std::memory_order_relaxed);
  return true;
}

bool IpcPackageManager::fillIpcPackageToBuffer(BufferState* buffer) {
  std::unique_lock<std::mutex> lock(mutex_);
  if (queue_.empty()) return false;

  SendBufferWriter writer(buffer);
  SendBufferWriter* bufferState = &writer;
  // 64-bit so that size + 4 cannot wrap.
  uint64_t lastSize = 0;
  while (!queue_.empty()) {
    const KavoIpcPackage& ipcPackage = queue_.front();
    lastSize = ipcPackage.size;
    if (lastSize + ipcPackageHeaderSize > buffer->size() - buffer->bufferDataCursor) break;
    CHECK(bufferState->write(ipcPackage.size));
    CHECK(bufferState->write(ipcPackage.data));
    queue_.pop_front();
  }
  count_.store(queue_.size(), std::memory_order_relaxed);

  // Judge the package looked at last: when the queue ran empty it is one that
  // was written, which passes both tests.
  if (lastSize >= kDamagedPackageSize) {
    LogPackageDamaged();
    queue_.pop_front();
    count_.store(queue_.size(), std::memory_order_relaxed);
    return false;
  }
  if (lastSize + ipcPackageHeaderSize > buffer->size()) {
    queue_.pop_front();
    count_.store(queue_.size(), std::memory_order_relaxed);
    lock.unlock();
    RecordPackageTooBig(Kavo::Bpf::KAVO_ERROR_FILL_DAMAGED, "fillIpcPackageToBuffer ipc package damaged");
    return false;
  }
  return true;
}

void IpcPackageManager::waitEventReady(int timeoutMs) {
  if (count_.load(std::memory_order_relaxed) != 0) return;
  std::unique_lock<std::mutex> lock(mutex_);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  while (queue_.empty()) {
    if (cond_.wait_until(lock, deadline) == std::cv_status::timeout) break;
  }
}

void IpcPackageManager::notifyEventReady() { cond_.notify_all(); }

size_t IpcPackageManager::getIpcPackageCount() const {
  return count_.load(std::memory_order_relaxed);
}
