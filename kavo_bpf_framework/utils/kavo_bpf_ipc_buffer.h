#pragma once

// The lowest layer of the IPC framework: the per-connection byte buffer, the
// first-level framing of the byte stream, and the socket helpers.
//
// First-level frame (both directions, back to back, host byte order):
//
//   0        4                      4 + size
//   +--------+----------------------+--------+-------------------
//   |  size  |  body (size bytes)   |  size  |  body ...
//   +--------+----------------------+--------+-------------------
//     u32, not counting itself
//
// A frame must fit whole in the receiving buffer: 4 + size <= buffer size
// (32768 at the service), so the largest body is 32764 bytes. A size that
// cannot fit is a damaged frame: the buffered bytes of the connection are
// dropped, error-log code 2 is recorded, and the next bytes received start a
// new frame.
//
// BufferState is thread-compatible; its owner (UnixIpcManager) serialises use.

#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include <algorithm>
#include <memory>
#include <utility>
#include <vector>

#include "utils/kavo_bpf_export.h"

// Size of the first-level header.
constexpr unsigned ipcPackageHeaderSize = 4;

// Leaves new elements uninitialised: bytes are only ever read between the
// cursors, where they were written first.
template <typename T>
struct UninitializedAllocator : std::allocator<T> {
  template <typename U>
  struct rebind {
    using other = UninitializedAllocator<U>;
  };
  UninitializedAllocator() = default;
  template <typename U>
  UninitializedAllocator(const UninitializedAllocator<U>&) noexcept {}
  template <typename U>
  void construct(U* p) noexcept {
    ::new (static_cast<void*>(p)) U;
  }
  template <typename U, typename... Args>
  void construct(U* p, Args&&... args) {
    ::new (static_cast<void*>(p)) U(std::forward<Args>(args)...);
  }
};

// One connection's buffer for one direction. Data lies in
// [bufferCursor, bufferDataCursor); bufferCursor <= bufferDataCursor <= size().
//
// size() is the buffer size the frame rule speaks of (32 KiB at the service);
// the storage behind it starts at kInitialStorage bytes and doubles when a
// write or a receive needs more, up to size(). Most connections never send
// or receive more than a few hundred bytes at once, and a buffer allocated
// whole would cost two or more pages each.
struct KAVO_EXPORT BufferState {
  static constexpr size_t kInitialStorage = 1024;

  size_t bufferCursor = 0;
  size_t bufferDataCursor = 0;

  // Empties the buffer and sets its size; storage is allocated as needed.
  void setSize(size_t size) {
    resetCursors();
    limit_ = size;
    storage_.clear();
    storage_.shrink_to_fit();
    storage_.resize(std::min(size, kInitialStorage));
  }
  size_t size() const { return limit_; }
  // Bytes allocated so far; data() is valid up to here.
  size_t capacity() const { return storage_.size(); }
  char* data() { return storage_.data(); }
  const char* data() const { return storage_.data(); }
  size_t unread() const { return bufferDataCursor - bufferCursor; }
  size_t freeRoom() const { return limit_ - bufferDataCursor; }
  void resetCursors() { bufferCursor = bufferDataCursor = 0; }

  // The receive step: where the next receive writes and how many bytes it
  // may take (*room; 0 only when the buffer holds size() bytes). A full
  // storage doubles first.
  char* receiveRoom(size_t* room) {
    if (bufferDataCursor >= capacity()) grow();
    *room = bufferDataCursor < capacity() ? capacity() - bufferDataCursor : 0;
    return storage_.data() + std::min(bufferDataCursor, capacity());
  }
  // Accounts |n| bytes received into receiveRoom()'s |room|. A receive that
  // filled its room may have left more behind, or a larger frame: the
  // storage doubles for the next one.
  void received(size_t n, size_t room) {
    if (n > room || bufferDataCursor + n > capacity()) return;
    bufferDataCursor += n;
    if (n == room) grow();
  }

  // Checked read: a pointer to the next |n| bytes, consumed; null (nothing
  // consumed) when fewer than |n| bytes are buffered, or when the cursors ran
  // past the storage (a broken buffer is never read outside its bytes).
  char* read(size_t n) {
    if (n > capacity() || bufferDataCursor > capacity() || bufferCursor + n > bufferDataCursor) {
      return nullptr;
    }
    char* p = storage_.data() + bufferCursor;
    bufferCursor += n;
    return p;
  }

  // Checked append at the end of the data; false (nothing written) when the
  // bytes do not fit in size(), or when the data cursor ran past the storage.
  bool write(const void* bytes, size_t n) {
    if (bufferDataCursor > capacity() || bufferDataCursor > limit_ || n > freeRoom()) return false;
    const size_t end = bufferDataCursor + n;
    if (end > capacity()) growFor(end);
    if (n != 0) memcpy(storage_.data() + bufferDataCursor, bytes, n);
    bufferDataCursor = end;
    return true;
  }

 private:
  // Storage for |bytes| at least, and at least double what there is, in
  // one step; never more than size().
  void growFor(size_t bytes) {
    const size_t target = std::min(limit_, std::max(bytes, 2 * capacity()));
    if (target > capacity()) storage_.resize(target);
  }
  void grow() { growFor(capacity() + 1); }

  size_t limit_ = 0;
  std::vector<char, UninitializedAllocator<char>> storage_;
};

// Whether a whole frame starts at bufferCursor. Sets *headerSize to 4 and,
// once the header is there, *packageSize to the announced body size. Drops a
// damaged frame as described above. Never moves bufferCursor otherwise.
KAVO_EXPORT bool CheckIpcPackageComplete(BufferState* buffer, unsigned* headerSize,
                                         unsigned* packageSize);

// epoll_ctl ADD / MOD of |fd| with |events|, fd as the data word.
KAVO_EXPORT bool EpollCtlAdd(int epollFd, int fd, unsigned events);
KAVO_EXPORT bool EpollCtlMod(int epollFd, int fd, unsigned events);
// Adds O_NONBLOCK to the file status flags.
KAVO_EXPORT bool Setnonblocking(int fd);
// A listening, non-blocking, close-on-exec stream socket: the one init made
// for |name|, or a new one bound to |name| in the abstract namespace. -1 on failure.
KAVO_EXPORT int CreateNonblockingServerSocket(const char* name);
// A connected non-blocking stream socket to |name|: the file-system namespace
// first, then the abstract one. -1 on failure.
KAVO_EXPORT int ConnectToServer(const char* name);
