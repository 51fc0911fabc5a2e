// The bytes of one connection: receiving into its read buffer for the read
// handler, filling its write buffer through the write handler and sending it,
// and the buffer tables behind both.
//
// Locks: the read-buffer table and the connection set are guarded by the
// buffer mutex; each connection's write buffer by its own write lock, which
// any thread may take through writeDataNow() or tryWriteDataNow(); the two
// write tables by a leaf mutex held only for a lookup. Order: buffer mutex,
// write lock, table mutex.
//
// A write buffer is empty between two writers, except for what
// tryWriteDataNow() could not send without waiting: the next writer sends
// that first, so frames leave in the order the handler gave them.

#include <android/log.h>
#include <errno.h>
#include <sched.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

#include "utils/kavo_bpf_ipc_error.h"
#include "utils/kavo_bpf_helper_string.h"
#include "utils/kavo_bpf_unix_ipc_manager.h"

namespace {

// Blocked sends that are yielded between; one more follows after a pause.
constexpr int kSendYields = 10;
constexpr unsigned kSendPauseSeconds = 1;

}  // namespace

int UnixIpcManager::onClientReadableCallback(epoll_event event) {
  const int fd = event.data.fd;
  BufferState* readBuffer = nullptr;
  {
    std::lock_guard<std::mutex> guard(bufferMutex_);
    auto it = readBuffers_.find(fd);
    if (it != readBuffers_.end()) readBuffer = &it->second;
  }
  // Entries are only freed on this thread, so the pointer stays good.
  if (readBuffer == nullptr) {
    __android_log_print(ANDROID_LOG_ERROR, logTag_,
                        "[UnixIpcManager][ClientCallback] Not allocate read buffer for the fd(%d)!", fd);
    return IPC_CB_FAILED;
  }

  if (handlers_.compactReadBuffer) {
    // Move the partial frame to the front so a whole frame always fits.
    if (readBuffer->bufferDataCursor > readBuffer->bufferCursor) {
      const size_t unread = readBuffer->bufferDataCursor - readBuffer->bufferCursor;
      memmove(readBuffer->data(), readBuffer->data() + readBuffer->bufferCursor, unread);
      readBuffer->bufferDataCursor = unread;
    } else {
      readBuffer->bufferDataCursor = 0;
    }
    readBuffer->bufferCursor = 0;
  }
  if (readBuffer->bufferDataCursor >= readBuffer->size()) {
    // Cleared first, so the lines below report 0 and an empty dump.
    readBuffer->resetCursors();
    __android_log_print(ANDROID_LOG_ERROR, logTag_,
                        "[UnixIpcManager] client readable callback buffer exception!");
    __android_log_print(ANDROID_LOG_ERROR, logTag_,
                        "[UnixIpcManager] client readable cb buffersize: %zd, bufferDataCursor: %zd",
                        static_cast<ssize_t>(readBuffer->size()),
                        static_cast<ssize_t>(readBuffer->bufferDataCursor));
    __android_log_print(ANDROID_LOG_ERROR, logTag_,
                        "[UnixIpcManager] client readable buffer hexdump: %s",
                        Kavo::Bpf::ConvertToHexString(readBuffer->data(),
                                                      static_cast<int>(readBuffer->bufferDataCursor))
                            .c_str());
  }

  // One receive per event keeps the loop fair between connections.
  size_t room = 0;
  char* into = readBuffer->receiveRoom(&room);
  ssize_t received = recvfrom(fd, into, room, 0, nullptr, nullptr);
  if (received == 0) return IPC_CB_NOTHING_MORE;  // the hang-up event cleans up
  if (received < 0) {
    __android_log_print(ANDROID_LOG_ERROR, logTag_, "[UnixIpcManager] Recv data failed: %d, message: %s",
                        errno, strerror(errno));
    readBuffer->resetCursors();
    if (!handlers_.closeOnError) return IPC_CB_FAILED;
    return closeAfterFailure(fd, "[UnixIpcManager] Server socket abnormal close!! (%s)",
                             "[UnixIpcManager] Reconnect to server failed! (%s)");
  }
  readBuffer->received(static_cast<size_t>(received), room);
  if (!handlers_.readHandler || handlers_.readHandler(fd, readBuffer) != -1) return IPC_CB_HANDLED;

  __android_log_print(ANDROID_LOG_ERROR, logTag_,
                      "[UnixIpcManager] Callback ipc read handler failed: %d, message: %s", errno,
                      strerror(errno));
  readBuffer->resetCursors();
  if (!handlers_.closeOnError) return IPC_CB_HANDLED;
  return closeAfterFailure(fd, "[UnixIpcManager] Server socket abnormal close! (%s)",
                           "[UnixIpcManager] Restart server failed! (%s)");
}

int UnixIpcManager::closeAfterFailure(int fd, const char* lostFormat,
                                      const char* reconnectFailedFormat) {
  const bool serverLost = fd == socketFd_;
  if (serverLost) socketFd_ = -1;
  if (!unregisterAndClose(fd)) return IPC_CB_FAILED;
  freeBufferForFd(fd);
  if (!serverLost) return IPC_CB_CLOSED;
  __android_log_print(ANDROID_LOG_ERROR, logTag_, lostFormat, socketName_.c_str());
  if (!connect()) __android_log_print(ANDROID_LOG_ERROR, logTag_, reconnectFailedFormat, socketName_.c_str());
  return IPC_CB_CLOSED;
}

int UnixIpcManager::onCommWriteCallback(epoll_event event) {
  const int fd = event.data.fd;
  std::shared_ptr<std::mutex> writeLock = writeLockFor(fd);
  std::lock_guard<std::mutex> guard(*writeLock);

  BufferState* writeBuffer = nullptr;
  {
    std::lock_guard<std::mutex> tables(writeTableMutex_);
    // The guard looks at key 1 (key 0 for fd 0), not at fd: kept as the
    // protocol has always behaved. Any other fd without a write buffer gets
    // an empty one here.
    if (writeBuffers_.count(fd != 0 ? 1 : 0) == 0) writeBuffer = &writeBuffers_[fd];
  }
  if (writeBuffer == nullptr) {
    __android_log_print(ANDROID_LOG_ERROR, logTag_,
                        "[UnixIpcManager][ClientCallback] Not allocate write buffer for the fd(%d)!", fd);
    return IPC_CB_FAILED;
  }

  // One send with its retry rule per writable event, as for any fill.
  const bool leftover = writeBuffer->unread() != 0;
  if (!leftover) {
    writeBuffer->resetCursors();
    if (handlers_.writeHandler && handlers_.writeHandler(fd, writeBuffer) == -1) {
      __android_log_print(ANDROID_LOG_ERROR, logTag_,
                          "[UnixIpcManager] Callback ipc write handler failed: %d, message: %s", errno,
                          strerror(errno));
      return IPC_CB_FAILED;
    }
  }
  if (writeBuffer->bufferCursor == writeBuffer->bufferDataCursor) return IPC_CB_NOTHING_MORE;
  if (!ensureDataSend(fd, writeBuffer)) {
    __android_log_print(ANDROID_LOG_ERROR, logTag_, "[UnixIpcManager] Send ipc data failed: %d, message: %s",
                        errno, strerror(errno));
    return IPC_CB_FAILED;
  }
  // EPOLLOUT stays: the handler is asked again at the next writable event.
  return IPC_CB_HANDLED;
}

bool UnixIpcManager::ensureDataSend(int fd, BufferState* writeBuffer) {
  if (writeBuffer->bufferCursor == writeBuffer->bufferDataCursor) {
    writeBuffer->resetCursors();
    return true;
  }
  // Partial sends do not count; only sends refused with EAGAIN do.
  int tries = 0;
  while (tries <= kSendYields) {
    if (tries == kSendYields) sleep(kSendPauseSeconds);
    const size_t left = writeBuffer->bufferDataCursor - writeBuffer->bufferCursor;
    // MSG_NOSIGNAL: a peer gone away is an error here, whichever thread sends.
    ssize_t sent = sendto(fd, writeBuffer->data() + writeBuffer->bufferCursor, left, MSG_NOSIGNAL,
                          nullptr, 0);
    if (sent >= 0) {
      const size_t next = writeBuffer->bufferCursor + static_cast<size_t>(sent);
      if (next <= writeBuffer->capacity() && next <= writeBuffer->bufferDataCursor) {
        writeBuffer->bufferCursor = next;
      }
    } else if (errno == EAGAIN) {
      ++tries;
      __android_log_print(ANDROID_LOG_WARN, logTag_,
                          "[UnixIpcManager] Socket buffer full! tryCount: %d, message: %s", tries,
                          strerror(EAGAIN));
      sched_yield();
    } else {
      __android_log_print(ANDROID_LOG_ERROR, logTag_,
                          "[UnixIpcManager] Send data failed! leftSize: %zd, error: %d, message: %s, "
                          "clientFd: %d",
                          static_cast<ssize_t>(left), errno, strerror(errno), fd);
      return false;
    }
    if (writeBuffer->bufferCursor == writeBuffer->bufferDataCursor) {
      writeBuffer->resetCursors();
      return true;
    }
  }

  const ssize_t left = static_cast<ssize_t>(writeBuffer->bufferDataCursor - writeBuffer->bufferCursor);
  __android_log_print(ANDROID_LOG_ERROR, logTag_,
                      "[UnixIpcManager] Send data 10 times failed! leftSize: %zd, error: %d, "
                      "message: %s, clientFd: %d",
                      left, EAGAIN, strerror(EAGAIN), fd);
  __android_log_print(ANDROID_LOG_ERROR, logTag_, "[UnixIpcManager] Clear send buffer");
  RecordIpcError(
      KAVO_ERROR_SEND_DROPPED,
      Kavo::Bpf::StringPrintf("Send data 10 times failed. bufferCursor: %zd, bufferDataCursor: %zd",
                              static_cast<ssize_t>(writeBuffer->bufferCursor),
                              static_cast<ssize_t>(writeBuffer->bufferDataCursor)));
  writeBuffer->resetCursors();
  return false;
}

bool UnixIpcManager::tryWriteDataNow(int fd) {
  // A connection the loop is already writing to stays the loop's: a peer
  // that does not keep up is its to wait for, with its retry rule, once.
  if (epollManager_ == nullptr || epollManager_->writeInterestArmed(fd)) {
    notifyNeedWriteData(fd);
    return false;
  }
  std::shared_ptr<std::mutex> writeLock = existingWriteLock(fd);
  std::unique_lock<std::mutex> writing;
  if (writeLock != nullptr) writing = std::unique_lock<std::mutex>(*writeLock, std::try_to_lock);
  BufferState* writeBuffer = nullptr;
  if (writing.owns_lock()) {
    std::lock_guard<std::mutex> tables(writeTableMutex_);
    auto it = writeBuffers_.find(fd);
    if (it != writeBuffers_.end()) writeBuffer = &it->second;
  }
  // A connection another writer is busy with, or one not set up, is the
  // loop's to serve; a leftover of an earlier try goes first.
  while (writeBuffer != nullptr) {
    if (writeBuffer->unread() == 0) {
      writeBuffer->resetCursors();
      if (handlers_.writeHandler && handlers_.writeHandler(fd, writeBuffer) == -1) break;
      if (writeBuffer->unread() == 0) return true;
    }
    const ssize_t sent = sendto(fd, writeBuffer->data() + writeBuffer->bufferCursor, writeBuffer->unread(),
                                MSG_NOSIGNAL | MSG_DONTWAIT, nullptr, 0);
    // Full or failed: the loop's send waits, retries and logs as it always does.
    if (sent <= 0) break;
    writeBuffer->bufferCursor += static_cast<size_t>(sent);
  }
  if (writing.owns_lock()) writing.unlock();
  notifyNeedWriteData(fd);
  return false;
}

std::shared_ptr<std::mutex> UnixIpcManager::existingWriteLock(int fd) {
  std::lock_guard<std::mutex> tables(writeTableMutex_);
  auto it = writeLocks_.find(fd);
  return it == writeLocks_.end() ? nullptr : it->second;
}

std::shared_ptr<std::mutex> UnixIpcManager::writeLockFor(int fd) {
  std::lock_guard<std::mutex> tables(writeTableMutex_);
  std::shared_ptr<std::mutex>& lock = writeLocks_[fd];
  if (lock == nullptr) lock = std::make_shared<std::mutex>();
  return lock;
}

bool UnixIpcManager::allocateReadBufferForFd(int fd) {
  std::lock_guard<std::mutex> guard(bufferMutex_);
  BufferState& buffer = readBuffers_[fd];
  buffer.setSize(bufferSize_ > 0 ? static_cast<size_t>(bufferSize_) : 0);
  return true;
}

bool UnixIpcManager::allocateWriteBufferForFd(int fd) {
  // Under the fd's write lock: a writer on another thread may hold the buffer.
  std::shared_ptr<std::mutex> writeLock = writeLockFor(fd);
  std::lock_guard<std::mutex> guard(*writeLock);
  std::lock_guard<std::mutex> tables(writeTableMutex_);
  BufferState& buffer = writeBuffers_[fd];
  buffer.setSize(bufferSize_ > 0 ? static_cast<size_t>(bufferSize_) : 0);
  return true;
}

bool UnixIpcManager::freeBufferForFd(int fd) {
  std::lock_guard<std::mutex> guard(bufferMutex_);
  readBuffers_.erase(fd);
  std::shared_ptr<std::mutex> writeLock = writeLockFor(fd);
  {
    // Waits for a writer still busy with this connection.
    std::lock_guard<std::mutex> writing(*writeLock);
    std::lock_guard<std::mutex> tables(writeTableMutex_);
    writeBuffers_.erase(fd);
  }
  std::lock_guard<std::mutex> tables(writeTableMutex_);
  writeLocks_.erase(fd);
  return true;
}
