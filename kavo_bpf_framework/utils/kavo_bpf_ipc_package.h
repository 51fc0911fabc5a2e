#pragma once

// What travels inside a first-level frame, and the per-connection outgoing
// queue that holds packages until the connection is writable.
//
// Second-level package (the body of one frame; u32 fields, host order, may be
// unaligned in a buffer):
//
//   0        4        8
//   +--------+--------+------------------------+
//   |  type  |  size  |  body (size bytes)     |
//   +--------+--------+------------------------+
//   type 0 request:   reqId | reqType | dataSize | data   (51 subscribe, 52 unsubscribe)
//   type 1 response:  reqId | result  | dataSize | data
//   type 2 reserved
//   type 3 raw event: the ring-buffer record as received (u32 event type first)
//
// Whole frames as they stand on the socket (u32 each):
//   subscribe   24, 0, 16, reqId, 51, 4, eventType
//   response    20, 1, 12, reqId, result, 0
//   raw event   n + 8, 3, n, <n event bytes>
//
// IpcPackageManager is thread-safe: appends come from the producer threads
// and the IPC thread, fills from the IPC thread. A queue that finds more than
// 10000 packages on an append drops its oldest down to 5000 (error log codes
// 3 to 6); a package that can never fit a send buffer is dropped when it
// reaches the front (codes 7 and 8). Packages are queued as the frames they
// become (FrameQueue), so queueing one allocates nothing and it is copied
// once in, straight from the caller's bytes, and once out.

#include <stddef.h>
#include <stdint.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <vector>

#include "utils/kavo_bpf_export.h"
#include "utils/kavo_bpf_ipc_buffer.h"
#include "utils/kavo_bpf_ipc_frame_queue.h"

enum KavoIpcPackageType : uint32_t {
  KAVO_IPC_REQUEST = 0,
  KAVO_IPC_RESPONSE = 1,
  KAVO_IPC_RESERVED = 2,
  KAVO_IPC_RAW_EVENT = 3,
};

enum KavoIpcRequestType : uint32_t {
  KAVO_REQ_SUBSCRIBE = 51,
  KAVO_REQ_UNSUBSCRIBE = 52,
};

struct KavoIpcSecondLevelPackageHeader {
  uint32_t type;
  uint32_t size;  // bytes after this header
};
static_assert(sizeof(KavoIpcSecondLevelPackageHeader) == 8, "wire layout");

struct KavoReqIpcPackageHeader {
  uint32_t reqId;
  uint32_t reqType;
  uint32_t dataSize;  // bytes after this header
};
static_assert(sizeof(KavoReqIpcPackageHeader) == 12, "wire layout");

struct KavoRespIpcPackageHeader {
  uint32_t reqId;
  int32_t result;
  uint32_t dataSize;  // bytes after this header
};
static_assert(sizeof(KavoRespIpcPackageHeader) == 12, "wire layout");

// One outgoing package as a value: a complete second-level package, without
// the first-level size. The queue holds the same size and bytes, as a frame.
struct KAVO_EXPORT KavoIpcPackage {
  uint32_t size = 0;
  std::vector<char> data;
};

// Bytes to queue, owned by the caller.
struct KAVO_EXPORT KavoIpcBytes {
  const char* data = nullptr;
  uint32_t size = 0;
};

// A request to queue; |data| (dataSize bytes) stays owned by the caller.
struct KAVO_EXPORT KavoReqIpcPackage {
  uint32_t reqId = 0;
  uint32_t reqType = 0;
  uint32_t dataSize = 0;
  const char* data = nullptr;
};

// A response to queue; the first dataSize bytes of |data| are sent.
struct KAVO_EXPORT KavoRespIpcPackage {
  uint32_t reqId = 0;
  int32_t result = 0;
  uint32_t dataSize = 0;
  std::vector<char> data;
};

class KAVO_EXPORT IpcPackageManager {
 public:
  static constexpr size_t kQueueHighWater = 10000;
  static constexpr size_t kQueueTrimTarget = 5000;

  IpcPackageManager() = default;
  IpcPackageManager(const IpcPackageManager&) = delete;
  IpcPackageManager& operator=(const IpcPackageManager&) = delete;

  void appendRespIpcPackage(KavoRespIpcPackage* resp);
  void appendReqIpcPackage(KavoReqIpcPackage* req);
  // False (nothing queued) when type > 3.
  bool buildAndAppendSecondIpcPackage(unsigned type, char* data, unsigned size);
  // buildAndAppendSecondIpcPackage for each of |count| bodies in order (the
  // same packages, trims, error records and log lines), under one lock, with
  // one wake of the waiters; a producer with many events waits once for a
  // queue the IPC thread is draining. False (nothing queued) when type > 3.
  bool buildAndAppendSecondIpcPackages(unsigned type, const KavoIpcBytes* bodies, size_t count);
  // Queues |size| bytes that already are a complete second-level package.
  void buildAndAppendIpcPackage(char* data, unsigned size);

  // Moves at most one package, behind its 4-byte size, into |buffer|; true
  // when one was moved.
  bool fillNextIpcPackageToBuffer(BufferState* buffer);
  // The same as calling fillNextIpcPackageToBuffer until it returns false
  // (the same bytes, drops and error records), under one lock. Returns the
  // number of packages moved.
  size_t fillNextIpcPackagesToBuffer(BufferState* buffer);
  // Moves as many packages as fit; true unless the package looked at last was
  // damaged or too big (and so dropped).
  bool fillIpcPackageToBuffer(BufferState* buffer);

  // Blocks until a package is queued or |timeoutMs| passed.
  void waitEventReady(int timeoutMs);
  void notifyEventReady();
  // A hint, read without the lock.
  size_t getIpcPackageCount() const;

 private:
  // Queues a package of |size| bytes, trimming a runaway queue first; |fill|
  // writes the bytes into the queue's storage under the lock (the package is
  // built in place). |errorCode| and |logFormat| name the operation in the
  // error record and the log line.
  template <typename Fill>
  void enqueue(uint32_t size, int errorCode, const char* logFormat, const Fill& fill);
  // With mutex_ held, before a push: cuts a runaway queue back and returns
  // the count it found (0 when it did not cut); the caller reports it
  // (ReportTrim) once unlocked.
  size_t trimLocked();
  static void ReportTrim(size_t trimmedFrom, int errorCode, const char* logFormat);
  // fillNextIpcPackageToBuffer with mutex_ held. A package dropped for being
  // bigger than |buffer| sets *tooBig: the caller records it once unlocked.
  bool moveFrontLocked(BufferState* buffer, bool* tooBig);

  std::mutex mutex_;
  FrameQueue queue_;
  std::condition_variable cond_;
  // queue_.size(), kept for the readers that do not take the mutex.
  std::atomic<size_t> count_{0};
};
