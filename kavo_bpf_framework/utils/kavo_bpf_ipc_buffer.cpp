// First-level framing and the socket helpers of the IPC framework.
//
// How CheckIpcPackageComplete sees a read buffer (c = bufferCursor,
// d = bufferDataCursor, N = buffer size):
//
//   header not all there      |c|s s|              d          N   -> false
//   body not all there        |c|size|body..   d  |           N   -> false, wait
//   whole frame               |c|size|body....|...d           N   -> true
//   4 + size > N, or wraps    |c|size|  can never fit         N   -> damaged:
//                                  error log code 2, c = d = 0, false
//
// A damaged frame cannot be skipped (its length is the damaged part), so
// everything buffered for the connection is dropped and the next bytes
// received are taken as the start of a new frame.

#include "utils/kavo_bpf_ipc_buffer.h"

#include <android/log.h>
#include <cutils/sockets.h>
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <string>

#include "utils/kavo_bpf_ipc_error.h"
#include "utils/kavo_bpf_helper_string.h"

namespace {

constexpr char kTag[] = "BpfUtils";

bool EpollCtl(int epollFd, int op, int fd, unsigned events) {
  epoll_event event = {};
  event.events = events;
  event.data.fd = fd;
  return epoll_ctl(epollFd, op, fd, &event) != -1;
}

// Drops everything buffered after a frame that can never be completed.
void DropDamagedFrame(BufferState* buffer, uint32_t total) {
  const ssize_t packageSize = static_cast<ssize_t>(total);
  const ssize_t cursor = static_cast<ssize_t>(buffer->bufferCursor);
  const ssize_t data = static_cast<ssize_t>(buffer->bufferDataCursor);
  const ssize_t bufferSize = static_cast<ssize_t>(buffer->size());
  const std::string hexdump = Kavo::Bpf::ConvertToHexString(
      buffer->data(), static_cast<int>(std::min(buffer->bufferDataCursor, buffer->capacity())));

  RecordIpcError(
      KAVO_ERROR_DAMAGED_FRAME,
      Kavo::Bpf::StringPrintf("Ipc package damage, packageSize: %zd, cursor: %zd, data: %zd, "
                              "bufferSize: %zd, Buffer hexdump: %s",
                              packageSize, cursor, data, bufferSize, hexdump.c_str()));
  __android_log_print(ANDROID_LOG_ERROR, kTag,
                      "Ipc package too big or damage, clear buffer. packageSize: %zd, cursor: %zd, "
                      "data: %zd, bufferSize: %zd",
                      packageSize, cursor, data, bufferSize);
  __android_log_print(ANDROID_LOG_ERROR, kTag, "Buffer hexdump: %s", hexdump.c_str());
  buffer->resetCursors();
}

}  // namespace

bool CheckIpcPackageComplete(BufferState* buffer, unsigned* headerSize, unsigned* packageSize) {
  *headerSize = ipcPackageHeaderSize;
  // The second test only matters for cursors that ran past the storage: the
  // size field is never read from outside the buffer.
  if (buffer->bufferCursor + ipcPackageHeaderSize > buffer->bufferDataCursor ||
      buffer->bufferCursor + ipcPackageHeaderSize > buffer->capacity()) {
    return false;
  }
  uint32_t size;
  memcpy(&size, buffer->data() + buffer->bufferCursor, sizeof(size));
  *packageSize = size;

  // 32-bit on purpose: a size of 0xFFFFFFFD or more wraps and is damaged.
  const uint32_t total = ipcPackageHeaderSize + size;
  if (total >= size && total <= buffer->size()) {
    return buffer->bufferCursor + total <= buffer->bufferDataCursor;
  }
  DropDamagedFrame(buffer, total);
  return false;
}

bool EpollCtlAdd(int epollFd, int fd, unsigned events) {
  return EpollCtl(epollFd, EPOLL_CTL_ADD, fd, events);
}

bool EpollCtlMod(int epollFd, int fd, unsigned events) {
  return EpollCtl(epollFd, EPOLL_CTL_MOD, fd, events);
}

bool Setnonblocking(int fd) {
  int flags = fcntl(fd, F_GETFL);
  if (flags == -1) return false;
  return fcntl(fd, F_SETFL, flags | O_NONBLOCK) != -1;
}

int CreateNonblockingServerSocket(const char* name) {
  int fd = android_get_control_socket(name);
  const bool fromInit = fd != -1;
  if (!fromInit) {
    // socket_local_server binds and listens with the library's own backlog.
    fd = socket_local_server(name, ANDROID_SOCKET_NAMESPACE_ABSTRACT, SOCK_STREAM);
    if (fd < 0) {
      __android_log_print(ANDROID_LOG_ERROR, kTag, "Create socket: %s failed: %d, message: %s",
                          name, errno, strerror(errno));
      return -1;
    }
  }
  fcntl(fd, F_SETFD, FD_CLOEXEC);
  if (!Setnonblocking(fd)) {
    int error = errno;
    close(fd);
    __android_log_print(ANDROID_LOG_ERROR, kTag, "Setnonblocking (%s) failed: %d, message: %s",
                        name, error, strerror(error));
    return -1;
  }
  // init only binds the socket it hands over.
  if (fromInit && listen(fd, 4) != 0) {
    int error = errno;
    close(fd);
    __android_log_print(ANDROID_LOG_ERROR, kTag, "Listen (%s) failed: %s", name, strerror(error));
    return -1;
  }
  return fd;
}

int ConnectToServer(const char* name) {
  // A path names a file-system socket; a server that made its own socket
  // bound the name in the abstract namespace instead.
  int fd = socket_local_client(name, ANDROID_SOCKET_NAMESPACE_FILESYSTEM, SOCK_STREAM);
  if (fd == -1) fd = socket_local_client(name, ANDROID_SOCKET_NAMESPACE_ABSTRACT, SOCK_STREAM);
  if (fd == -1) {
    __android_log_print(ANDROID_LOG_ERROR, kTag, "Failed to create socket: %d, message: %s",
                        errno, strerror(errno));
    return -1;
  }
  if (!Setnonblocking(fd)) {
    close(fd);
    __android_log_print(ANDROID_LOG_ERROR, kTag, "Setnonblocking %s path failed: %d, message: %s",
                        name, errno, strerror(errno));
    return -1;
  }
  return fd;
}
