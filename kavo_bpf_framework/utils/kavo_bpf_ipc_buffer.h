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

#include <memory>
#include <utility>
#include <vector>

#include "utils/kavo_bpf_export.h"

// Size of the first-level header.
constexpr unsigned ipcPackageHeaderSize = 4;

// Leaves new elements uninitialised. A connection's buffers are sized to the
// largest frame (32 KiB each way at the service) but an idle connection uses
// a few hundred bytes of them; untouched, the rest costs no memory. Bytes are
// only ever read between the cursors, where they were written first.
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
struct KAVO_EXPORT BufferState {
  size_t bufferCursor = 0;
  size_t bufferDataCursor = 0;
  std::vector<char, UninitializedAllocator<char>> buffer;

  size_t size() const { return buffer.size(); }
  char* data() { return buffer.data(); }
  const char* data() const { return buffer.data(); }
  size_t unread() const { return bufferDataCursor - bufferCursor; }
  size_t freeRoom() const { return buffer.size() - bufferDataCursor; }
  void resetCursors() { bufferCursor = bufferDataCursor = 0; }

  // Checked read: a pointer to the next |n| bytes, consumed; null (nothing
  // consumed) when fewer than |n| bytes are buffered, or when the cursors ran
  // past the storage (a broken buffer is never read outside its bytes).
  char* read(size_t n) {
    if (n > buffer.size() || bufferDataCursor > buffer.size() || bufferCursor + n > bufferDataCursor) {
      return nullptr;
    }
    char* p = buffer.data() + bufferCursor;
    bufferCursor += n;
    return p;
  }

  // Checked append at the end of the data; false (nothing written) when the
  // bytes do not fit, or when the data cursor ran past the storage.
  bool write(const void* bytes, size_t n) {
    if (bufferDataCursor > buffer.size() || n > freeRoom()) return false;
    if (n != 0) memcpy(buffer.data() + bufferDataCursor, bytes, n);
    bufferDataCursor += n;
    return true;
  }
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
