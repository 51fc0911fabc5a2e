// Building second-level packages and the per-connection outgoing queue.
//
// A queued package is copied into a send buffer behind its first-level size:
//
//   write buffer  |.. sent ..|c|  unsent  |d| size | package (size bytes) |  free  |N
//                                          ^ appended at d, only when 4 + size fits
//
// A package that fits only once the buffer has drained stays queued; one
// that could never fit (4 + size > N) is dropped when it reaches the front.
// The queue already holds each package behind its size (FrameQueue), so the
// copy out is the frame as it stands.

#define LOG_TAG "BpfUtils"

#include "utils/kavo_bpf_ipc_package.h"

#include <android-base/logging.h>
#include <android/log.h>
#include <limits.h>
#include <string.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <vector>

#include "utils/kavo_bpf_ipc_error.h"
#include "utils/kavo_bpf_helper_string.h"

namespace {

constexpr char kTag[] = "BpfUtils";
// From here on size + 4 overflows 32 bits: the size field is garbage.
constexpr uint32_t kDamagedPackageSize = 0xFFFFFFFC;
constexpr uint32_t kSecondLevelHeaderSize = sizeof(KavoIpcSecondLevelPackageHeader);
constexpr uint32_t kReqRespHeaderSize = kSecondLevelHeaderSize + sizeof(KavoReqIpcPackageHeader);
static_assert(sizeof(KavoReqIpcPackageHeader) == sizeof(KavoRespIpcPackageHeader),
              "requests and responses share one layout");

// A queued package as the send path sees it: its size and its bytes.
struct QueuedPackage {
  struct Bytes {
    const char* data;
    uint32_t size;
  };
  uint32_t size;
  Bytes data;
};

// Appends to a send buffer in the two pieces a queued package is written as:
// its u32 size, then its bytes.
class SendBufferWriter {
 public:
  explicit SendBufferWriter(BufferState* buffer) : buffer_(buffer) {}
  bool write(uint32_t size) { return buffer_->write(&size, sizeof(size)); }
  bool write(const QueuedPackage::Bytes& bytes) { return buffer_->write(bytes.data, bytes.size); }

 private:
  BufferState* buffer_;
};

void PutU32(char* at, uint32_t value) { memcpy(at, &value, sizeof(value)); }

// type | size | first | second | dataSize | data, written at |p|: a request
// or a response. |available| bytes of |data| exist; the rest stays zero.
void BuildReqResp(char* p, uint32_t type, uint32_t first, uint32_t second, uint32_t dataSize,
                  const char* data, size_t available) {
  PutU32(p, type);
  PutU32(p + 4, kReqRespHeaderSize - kSecondLevelHeaderSize + dataSize);
  PutU32(p + 8, first);
  PutU32(p + 12, second);
  PutU32(p + 16, dataSize);
  const size_t copied = std::min<size_t>(dataSize, available);
  if (copied != 0) memcpy(p + kReqRespHeaderSize, data, copied);
  memset(p + kReqRespHeaderSize + copied, 0, dataSize - copied);
}

void LogPackageDamaged() {
  __android_log_print(ANDROID_LOG_ERROR, kTag, "The ipc package is damaged! remove this package");
}

void RecordPackageTooBig(int errorCode, const char* error) {
  RecordIpcError(errorCode, error);
  __android_log_print(ANDROID_LOG_ERROR, kTag, "The ipc package is too big! remove this package");
}

}  // namespace

void IpcPackageManager::appendRespIpcPackage(KavoRespIpcPackage* resp) {
  if (resp->dataSize > UINT32_MAX - kReqRespHeaderSize) {
    __android_log_print(ANDROID_LOG_ERROR, kTag, "[AppendRespIpc] ipc package too big: %u",
                        resp->dataSize);
    return;
  }
  enqueue(kReqRespHeaderSize + resp->dataSize, KAVO_ERROR_QUEUE_FULL_RESPONSE,
          "[AppendRespIpc] ipc Package Queue too big: %zu", [resp](char* p) {
            BuildReqResp(p, KAVO_IPC_RESPONSE, resp->reqId, static_cast<uint32_t>(resp->result),
                         resp->dataSize, resp->data.data(), resp->data.size());
          });
}

void IpcPackageManager::appendReqIpcPackage(KavoReqIpcPackage* req) {
  if (req->dataSize > UINT32_MAX - kReqRespHeaderSize) {
    __android_log_print(ANDROID_LOG_ERROR, kTag, "[AppendReqIpc] ipc package too big: %u",
                        req->dataSize);
    return;
  }
  enqueue(kReqRespHeaderSize + req->dataSize, KAVO_ERROR_QUEUE_FULL_REQUEST,
          "[AppendReqIpc] ipc Package Queue too big: %zu", [req](char* p) {
            BuildReqResp(p, KAVO_IPC_REQUEST, req->reqId, req->reqType, req->dataSize, req->data,
                         req->data != nullptr ? req->dataSize : 0);
          });
}

bool IpcPackageManager::buildAndAppendSecondIpcPackage(unsigned type, char* data, unsigned size) {
  if (type > KAVO_IPC_RAW_EVENT) return false;
  if (size > UINT32_MAX - kSecondLevelHeaderSize) {
    __android_log_print(ANDROID_LOG_ERROR, kTag, "[AppendSecondIpc] ipc package too big: %u", size);
    return false;
  }
  enqueue(kSecondLevelHeaderSize + size, KAVO_ERROR_QUEUE_FULL_SECOND_LEVEL,
          "[AppendSecondIpc] ipc Package Queue too big: %zu", [type, data, size](char* p) {
            PutU32(p, type);
            PutU32(p + 4, size);
            if (data != nullptr) {
              memcpy(p + kSecondLevelHeaderSize, data, size);
            } else {
              memset(p + kSecondLevelHeaderSize, 0, size);
            }
          });
  return true;
}

void IpcPackageManager::buildAndAppendIpcPackage(char* data, unsigned size) {
  enqueue(size, KAVO_ERROR_QUEUE_FULL_PACKAGE,
          "[BuildAndAppendIpc] ipc Package Queue too big: %zu", [data, size](char* p) {
            if (data != nullptr) {
              memcpy(p, data, size);
            } else {
              memset(p, 0, size);
            }
          });
}

template <typename Fill>
void IpcPackageManager::enqueue(uint32_t size, int errorCode, const char* logFormat, const Fill& fill) {
  size_t trimmedFrom;
  {
    std::lock_guard<std::mutex> guard(mutex_);
    trimmedFrom = trimLocked();
    // Built in place: the bytes are copied once, from the caller's record
    // (a few dozen bytes for an event) into the queue's storage.
    fill(queue_.push(size));
    count_.store(queue_.count(), std::memory_order_relaxed);
    cond_.notify_all();
  }
  ReportTrim(trimmedFrom, errorCode, logFormat);
}

size_t IpcPackageManager::trimLocked() {
  if (queue_.count() <= kQueueHighWater) return 0;
  // A client that stopped reading: keep the newest packages.
  const size_t trimmedFrom = queue_.count();
  while (queue_.count() > kQueueTrimTarget) queue_.pop();
  return trimmedFrom;
}

void IpcPackageManager::ReportTrim(size_t trimmedFrom, int errorCode, const char* logFormat) {
  // The record rewrites a file: never while producers wait for the queue.
  if (trimmedFrom == 0) return;
  RecordIpcError(errorCode,
                 Kavo::Bpf::StringPrintf("B&A Ipc Package queue full %d", static_cast<int>(kQueueHighWater)));
  __android_log_print(ANDROID_LOG_ERROR, kTag, logFormat, trimmedFrom);
}

bool IpcPackageManager::buildAndAppendSecondIpcPackages(unsigned type, const KavoIpcBytes* bodies,
                                                        size_t count) {
  if (type > KAVO_IPC_RAW_EVENT) return false;
  constexpr char kLogFormat[] = "[AppendSecondIpc] ipc Package Queue too big: %zu";
  // Trims are rare (a client that stopped reading): this allocates only then.
  std::vector<size_t> trims;
  {
    std::lock_guard<std::mutex> guard(mutex_);
    for (size_t i = 0; i < count; ++i) {
      const KavoIpcBytes& body = bodies[i];
      if (body.size > UINT32_MAX - kSecondLevelHeaderSize) {
        __android_log_print(ANDROID_LOG_ERROR, kTag, "[AppendSecondIpc] ipc package too big: %u", body.size);
        continue;
      }
      if (size_t trimmedFrom = trimLocked()) trims.push_back(trimmedFrom);
      char* p = queue_.push(kSecondLevelHeaderSize + body.size);
      PutU32(p, type);
      PutU32(p + 4, body.size);
      if (body.data != nullptr) {
        memcpy(p + kSecondLevelHeaderSize, body.data, body.size);
      } else {
        memset(p + kSecondLevelHeaderSize, 0, body.size);
      }
    }
    count_.store(queue_.count(), std::memory_order_relaxed);
    cond_.notify_all();
  }
  for (size_t trimmedFrom : trims) ReportTrim(trimmedFrom, KAVO_ERROR_QUEUE_FULL_SECOND_LEVEL, kLogFormat);
  return true;
}

bool IpcPackageManager::moveFrontLocked(BufferState* buffer, bool* tooBig) {
  if (queue_.empty()) return false;
  const QueuedPackage ipcPackage = {queue_.frontSize(), {queue_.frontBytes(), queue_.frontSize()}};
  if (ipcPackage.size >= kDamagedPackageSize) {
    LogPackageDamaged();
    queue_.pop();
    return false;
  }
  const size_t wireSize = static_cast<size_t>(ipcPackage.size) + ipcPackageHeaderSize;
  if (wireSize > buffer->size()) {
    queue_.pop();
    *tooBig = true;
    return false;
  }
  // Not yet: it goes out on a later writable event, once the buffer drained.
  // (Cursors that ran past the storage pass this test and stop at the check.)
  if (wireSize > buffer->size() - buffer->bufferDataCursor) return false;

  SendBufferWriter writer(buffer);
  SendBufferWriter* bufferState = &writer;
  CHECK(bufferState->write(ipcPackage.size));
  CHECK(bufferState->write(ipcPackage.data));
  queue_.pop();
  return true;
}

bool IpcPackageManager::fillNextIpcPackageToBuffer(BufferState* buffer) {
  bool tooBig = false;
  bool moved;
  {
    std::lock_guard<std::mutex> guard(mutex_);
    moved = moveFrontLocked(buffer, &tooBig);
    count_.store(queue_.count(), std::memory_order_relaxed);
  }
  if (tooBig) {
    RecordPackageTooBig(KAVO_ERROR_FILL_NEXT_DAMAGED, "fillNextIpcPackageToBuffer ipc package damaged");
  }
  return moved;
}

size_t IpcPackageManager::fillNextIpcPackagesToBuffer(BufferState* buffer) {
  bool tooBig = false;
  size_t moved = 0;
  {
    std::lock_guard<std::mutex> guard(mutex_);
    // The queue stores each package as the frame it becomes on the wire, so
    // the packages that fit are copied a run at a time: the lock is held for
    // a few memcpy calls rather than a step per package, and producers
    // appending meanwhile rarely find it taken.
    while (!queue_.empty()) {
      const size_t room = buffer->bufferDataCursor <= buffer->size() ? buffer->freeRoom() : 0;
      size_t length;
      const char* run = queue_.frontRun(&length);
      size_t take = 0;
      size_t frames = 0;
      while (take < length) {
        uint32_t size;
        memcpy(&size, run + take, sizeof(size));
        const size_t wireSize = static_cast<size_t>(size) + ipcPackageHeaderSize;
        if (size >= kDamagedPackageSize || wireSize > buffer->size() || wireSize > room - take) break;
        take += wireSize;
        ++frames;
      }
      if (frames != 0) {
        SendBufferWriter writer(buffer);
        SendBufferWriter* bufferState = &writer;
        const QueuedPackage::Bytes frameRun = {run, static_cast<uint32_t>(take)};
        CHECK(bufferState->write(frameRun));
        queue_.popRun(frames, take);
        moved += frames;
        if (take == length) continue;  // the next block's frames
      }
      // The front package does not go as it is: one step decides, as for a
      // single package (it waits, or is dropped as damaged or too big).
      if (!moveFrontLocked(buffer, &tooBig)) break;
      ++moved;
    }
    count_.store(queue_.count(), std::memory_order_relaxed);
  }
  if (tooBig) {
    RecordPackageTooBig(KAVO_ERROR_FILL_NEXT_DAMAGED, "fillNextIpcPackageToBuffer ipc package damaged");
  }
  return moved;
}

bool IpcPackageManager::fillIpcPackageToBuffer(BufferState* buffer) {
  std::unique_lock<std::mutex> lock(mutex_);
  if (queue_.empty()) return false;

  SendBufferWriter writer(buffer);
  SendBufferWriter* bufferState = &writer;
  // 64-bit so that size + 4 cannot wrap.
  uint64_t lastSize = 0;
  while (!queue_.empty()) {
    const QueuedPackage ipcPackage = {queue_.frontSize(), {queue_.frontBytes(), queue_.frontSize()}};
    lastSize = ipcPackage.size;
    if (lastSize + ipcPackageHeaderSize > buffer->size() - buffer->bufferDataCursor) break;
    CHECK(bufferState->write(ipcPackage.size));
    CHECK(bufferState->write(ipcPackage.data));
    queue_.pop();
  }
  count_.store(queue_.count(), std::memory_order_relaxed);

  // Judge the package looked at last: when the queue ran empty it is one that
  // was written, which passes both tests.
  if (lastSize >= kDamagedPackageSize) {
    LogPackageDamaged();
    queue_.pop();
    count_.store(queue_.count(), std::memory_order_relaxed);
    return false;
  }
  if (lastSize + ipcPackageHeaderSize > buffer->size()) {
    queue_.pop();
    count_.store(queue_.count(), std::memory_order_relaxed);
    lock.unlock();
    RecordPackageTooBig(KAVO_ERROR_FILL_DAMAGED, "fillIpcPackageToBuffer ipc package damaged");
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
