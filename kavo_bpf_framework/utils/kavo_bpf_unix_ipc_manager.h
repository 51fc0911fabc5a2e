#pragma once

// UnixIpcManager: one end of a Unix-domain stream socket, in one of two roles.
//   server: listens on a named socket (abstract namespace unless init made
//           it) and serves any number of clients;
//   client: connects to such a server (file-system namespace first, then
//           abstract) and reconnects, every 5 seconds without limit, when the
//           server goes away.
// It owns an EpollManager whose thread does all socket work, keeps one read
// and one write BufferState per connection, and hands them to its owner
// through the handlers of an IpcHandlerState: the owner's read handler parses
// the read buffer, its write handler fills the write buffer, and the endpoint
// moves the bytes. It knows nothing of what the bytes mean. In the server
// role the owner may also decide, from the credentials the kernel gives for
// a new connection, whether it is served at all (IpcHandlerState::peerFilter).
//
// A connection is identified by its socket descriptor everywhere. The
// endpoint owns its socket and its connections: a connection is closed on
// hang-up, and what is still open is closed when the endpoint is destroyed.
// Neither stop() nor a lost server closes anything else.
//
// Per connection: a read buffer the receive fills and the read handler
// consumes, and a write buffer the write handler fills and the send drains:
//
//   read   |.. consumed ..|c|  unread frames  |d|  recv() appends here  |N
//   write  |.. sent ......|c|  unsent         |d|  handler appends here |N
//
// A send that finds the socket full 10 times, and once more after a second,
// drops the unsent bytes (error-log code 1); the connection stays open.
//
// Threading: every callback runs on the loop thread, except the write path,
// which any thread may drive through writeDataNow() or tryWriteDataNow(); a
// per-connection write lock serialises it. notifyNeedWriteData() may be
// called from any thread.

#include <sched.h>
#include <stdint.h>
#include <sys/epoll.h>

#include <atomic>
#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>

#include "utils/kavo_bpf_epoll_manager.h"
#include "utils/kavo_bpf_export.h"
#include "utils/kavo_bpf_ipc_buffer.h"
#include "utils/kavo_bpf_peer_credentials.h"

struct KAVO_EXPORT IpcHandlerState {
  // Before each receive, move the unread bytes of the read buffer to its start.
  bool compactReadBuffer = false;
  // Close and clean up a connection whose receive or read handler fails.
  bool closeOnError = false;
  // Carried along for the owner; the endpoint never reads it.
  bool extraFlag = false;
  // Consumes received bytes; -1 means failure.
  std::function<int(int fd, BufferState* readBuffer)> readHandler;
  // Appends bytes to send; -1 means failure.
  std::function<int(int fd, BufferState* writeBuffer)> writeHandler;
  // Told of each new connection.
  std::function<int(int fd)> connectionHandler;
  // Told of each connection closed through a hang-up.
  std::function<int(int fd)> closeHandler;
  // Server role: whether a new connection is served, judged by its peer's
  // credentials before a single byte of it is read. A refused connection is
  // closed at once: no buffers, no registration, no connection handler.
  // Empty: every peer is served.
  std::function<bool(const PeerCredentials& peer)> peerFilter;
};

class KAVO_EXPORT UnixIpcManager {
 public:
  // serverRole, per-connection buffer size (also SO_SNDBUF/SO_RCVBUF), socket
  // name, handlers, loop thread name, loop CPUs, epoll size hint, events per wait.
  UnixIpcManager(bool serverRole, int bufferSize, std::string socketName,
                 IpcHandlerState handlers, const char* threadName, cpu_set_t cpus,
                 int epollSize, int maxEvents);
  // As above, with the loop thread on the caller's current CPUs.
  UnixIpcManager(bool serverRole, int bufferSize, std::string socketName,
                 IpcHandlerState handlers, const char* threadName, int epollSize, int maxEvents);
  // As above, with the thread named "BpfUtils".
  UnixIpcManager(bool serverRole, int bufferSize, std::string socketName,
                 IpcHandlerState handlers, int epollSize, int maxEvents);
  virtual ~UnixIpcManager();

  UnixIpcManager(const UnixIpcManager&) = delete;
  UnixIpcManager& operator=(const UnixIpcManager&) = delete;

  // Run on the loop thread as its init function, and again on restarts.
  virtual bool createServer();
  virtual bool connect();
  // Starts the loop thread; the socket is made or connected there.
  virtual bool start();
  // Stops the loop thread (does not join; the destructor does).
  virtual bool stop();

  // Drains the connection's write path on the caller's thread.
  bool writeDataNow(int fd);
  // Asks the loop for EPOLLOUT on fd: the write handler runs when it is writable.
  bool notifyNeedWriteData(int fd);
  // notifyNeedWriteData() for a connection the loop is writing to already,
  // without waking it; false (the caller still owes notifyNeedWriteData())
  // when the loop is not.
  bool notifyNeedWriteDataIfArmed(int fd);
  // Sends what the write handler has for fd on the caller's thread, as far
  // as the socket takes it without waiting; whatever is left (socket full,
  // another writer busy, a failed send) goes to the loop as with
  // notifyNeedWriteData(). Saves waking the loop thread for a few frames.
  // True when everything went.
  bool tryWriteDataNow(int fd);
  // Sends the whole buffer (see the retry rule in the implementation).
  bool ensureDataSend(int fd, BufferState* writeBuffer);

  // The listening socket (server) or the connection to the server (client); -1 before.
  int socketFd() const { return socketFd_; }

  // Epoll callbacks of the listening socket and of a connection.
  int onServerReadableCallback(epoll_event event);
  int onServerCloseCallback(epoll_event event);
  int onClientReadableCallback(epoll_event event);
  int onCommWriteCallback(epoll_event event);
  int onClientCloseCallback(epoll_event event);

  bool allocateReadBufferForFd(int fd);
  bool allocateWriteBufferForFd(int fd);
  bool freeBufferForFd(int fd);

 private:
  // The connection's epoll callbacks, with its buffers allocated.
  EpollCallback prepareConnection(int fd);
  // Registers a prepared connection with the loop and tells the owner.
  void registerConnection(int fd, EpollCallback callbacks);
  // SO_SNDBUF and SO_RCVBUF to the buffer size; |loggedFd| names it on failure.
  void setSocketBufferSizes(int fd, int loggedFd);
  // Removes fd from the loop and closes it; false (logged) when close failed.
  bool unregisterAndClose(int fd);
  // Closes a connection whose receive or read handler failed; the client
  // role reconnects when it was the connection to the server.
  int closeAfterFailure(int fd, const char* lostFormat, const char* reconnectFailedFormat);
  // The fd's write lock, created if absent; shared so that it outlives its
  // table entry while a writer still holds it.
  std::shared_ptr<std::mutex> writeLockFor(int fd);
  // The fd's write lock if it has one; never creates it (a closed fd gets none).
  std::shared_ptr<std::mutex> existingWriteLock(int fd);
  // Asks the peer filter about a new connection; false when it is refused.
  bool admit(int fd);
  // Waits out the reconnect period; false when stop() came first.
  bool waitBeforeReconnect();
  void interruptReconnect();

  std::string socketName_;
  bool serverRole_;
  std::mutex bufferMutex_;  // read buffers and the connection set
  int bufferSize_;
  std::map<int, BufferState> readBuffers_;
  std::map<int, BufferState> writeBuffers_;
  std::map<int, std::shared_ptr<std::mutex>> writeLocks_;
  // Guards the write-buffer and write-lock tables for lookups from any
  // thread; held only briefly and never while waiting for another lock.
  std::mutex writeTableMutex_;
  std::set<int> connections_;  // closed with the endpoint
  std::unique_ptr<EpollManager> epollManager_;
  IpcHandlerState handlers_;
  std::atomic<int> socketFd_{-1};
  const char* logTag_ = "BpfUtils";
  std::mutex stopMutex_;
  std::condition_variable stopCondition_;
  bool stopping_ = false;  // guarded by stopMutex_
  // Refused peers are logged a few per period, so that a flood of them
  // cannot flood the log (loop thread only).
  struct RefusalLog {
    int64_t periodStart = 0;
    unsigned logged = 0;
    unsigned unlogged = 0;
  } refusals_;
};
