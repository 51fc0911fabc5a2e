// The endpoint's setup and teardown: construction, start and stop, the
// listening socket or the connection to the server, accepting clients, and
// the hang-up of a connection or of the listening socket. The bytes moving
// through a connection are in kavo_bpf_unix_ipc_connection.cpp.

#include "utils/kavo_bpf_unix_ipc_manager.h"

#include <android/log.h>
#include <errno.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>

namespace {

// The client role tries again this long after a failed connect, forever.
constexpr auto kReconnectPeriod = std::chrono::seconds(5);
// At most this many refused peers are logged one by one per period; the
// rest are counted and the count logged with the next refusal after it.
constexpr unsigned kRefusalsLoggedPerPeriod = 10;
constexpr int64_t kRefusalLogPeriodSeconds = 60;

cpu_set_t CurrentCpus() {
  cpu_set_t cpus;
  CPU_ZERO(&cpus);
  if (sched_getaffinity(0, sizeof(cpus), &cpus) != 0) {
    // An empty set: the epoll manager falls back to CPU 0.
    __android_log_print(ANDROID_LOG_ERROR, "BpfUtils",
                        "[EpollManager] init cpu affinity failed! so use default affinity. %s",
                        strerror(errno));
    CPU_ZERO(&cpus);
  }
  return cpus;
}

}  // namespace

UnixIpcManager::UnixIpcManager(bool serverRole, int bufferSize, std::string socketName,
                               IpcHandlerState handlers, const char* threadName, cpu_set_t cpus,
                               int epollSize, int maxEvents)
    : socketName_(std::move(socketName)),
      serverRole_(serverRole),
      bufferSize_(bufferSize),
      handlers_(std::move(handlers)) {
  // Called through the virtual table: a subclass may make its own socket.
  auto init = [this]() -> int { return serverRole_ ? createServer() : connect(); };
  epollManager_ = std::make_unique<EpollManager>(epollSize, maxEvents, init, threadName, cpus, -1);
}

UnixIpcManager::UnixIpcManager(bool serverRole, int bufferSize, std::string socketName,
                               IpcHandlerState handlers, const char* threadName, int epollSize,
                               int maxEvents)
    : UnixIpcManager(serverRole, bufferSize, std::move(socketName), std::move(handlers),
                     threadName, CurrentCpus(), epollSize, maxEvents) {}

UnixIpcManager::UnixIpcManager(bool serverRole, int bufferSize, std::string socketName,
                               IpcHandlerState handlers, int epollSize, int maxEvents)
    : UnixIpcManager(serverRole, bufferSize, std::move(socketName), std::move(handlers), nullptr,
                     CurrentCpus(), epollSize, maxEvents) {}

UnixIpcManager::~UnixIpcManager() {
  interruptReconnect();
  // Deleted through a copy of the pointer: a callback still running while the
  // loop is joined uses epollManager_, which must stay set until then.
  delete epollManager_.get();
  epollManager_.release();
  // The loop is gone: nothing else touches the fds now. The listening
  // socket goes first, so that a client told of its closed connection
  // cannot reconnect to a server that is on its way out.
  if (socketFd_ != -1 && connections_.count(socketFd_) == 0) close(socketFd_);
  for (int fd : connections_) close(fd);
}

bool UnixIpcManager::start() {
  if (epollManager_ == nullptr) {
    __android_log_print(ANDROID_LOG_ERROR, logTag_, "[UnixIpcManager] epoll manager not exists!");
    return false;
  }
  __android_log_print(ANDROID_LOG_INFO, logTag_, "[UnixIpcManager][start] Start epoll Manager...");
  if (serverRole_) {
    __android_log_print(ANDROID_LOG_INFO, logTag_, "[UnixIpcManager][start] Create server: %s",
                        socketName_.c_str());
  } else {
    __android_log_print(ANDROID_LOG_INFO, logTag_,
                        "[UnixIpcManager][start] Connection to server: %s", socketName_.c_str());
  }
  epollManager_->start();
  return true;
}

bool UnixIpcManager::stop() {
  __android_log_print(ANDROID_LOG_INFO, logTag_, "[UnixIpcManager][stop] Stop epoll Manager...");
  interruptReconnect();
  if (epollManager_ == nullptr) return false;
  epollManager_->stop();
  return true;
}

bool UnixIpcManager::writeDataNow(int fd) {
  return epollManager_ != nullptr && epollManager_->writeEventNow(fd);
}

bool UnixIpcManager::notifyNeedWriteData(int fd) {
  return epollManager_ != nullptr && epollManager_->notifyWriteEventReady(fd);
}

bool UnixIpcManager::notifyNeedWriteDataIfArmed(int fd) {
  return epollManager_ != nullptr && epollManager_->notifyWriteEventIfArmed(fd);
}

bool UnixIpcManager::createServer() {
  if (!serverRole_) {
    __android_log_print(ANDROID_LOG_ERROR, logTag_, "[UnixIpcManager] Create server in client manager");
    return false;
  }
  int fd = CreateNonblockingServerSocket(socketName_.c_str());
  if (fd == -1) {
    __android_log_print(ANDROID_LOG_ERROR, logTag_,
                        "[UnixIpcManager] Create server Socket failed: %d, message: %s", errno,
                        strerror(errno));
    return false;
  }
  socketFd_ = fd;
  EpollCallback callbacks;
  callbacks.readCallback = [this](epoll_event event) { return onServerReadableCallback(event); };
  callbacks.closeCallback = [this](epoll_event event) { return onServerCloseCallback(event); };
  epollManager_->addMonitorFd(fd, std::move(callbacks));
  return true;
}

bool UnixIpcManager::connect() {
  if (serverRole_) {
    __android_log_print(ANDROID_LOG_ERROR, logTag_, "[UnixIpcManager] Create client in server manager");
    return false;
  }
  // The loop thread waits here until the server is there; only stop() ends
  // the attempts early.
  int fd;
  while ((fd = ConnectToServer(socketName_.c_str())) == -1) {
    __android_log_print(ANDROID_LOG_ERROR, logTag_,
                        "[UnixIpcManager] Connect failed: %d, message: %s, clientFd: %d, Wait 5 senconds",
                        errno, strerror(errno), fd);
    if (!waitBeforeReconnect()) return false;
  }
  socketFd_ = fd;
  setSocketBufferSizes(fd, fd);
  registerConnection(fd, prepareConnection(fd));
  return true;
}

bool UnixIpcManager::waitBeforeReconnect() {
  std::unique_lock<std::mutex> lock(stopMutex_);
  return !stopCondition_.wait_for(lock, kReconnectPeriod, [this] { return stopping_; });
}

void UnixIpcManager::interruptReconnect() {
  {
    std::lock_guard<std::mutex> guard(stopMutex_);
    stopping_ = true;
  }
  stopCondition_.notify_all();
}

int UnixIpcManager::onServerReadableCallback(epoll_event event) {
  // One client per event; the level-triggered listening socket raises
  // another event for each further pending connection.
  int fd = accept4(event.data.fd, nullptr, nullptr, SOCK_CLOEXEC);
  if (fd == -1) {
    __android_log_print(ANDROID_LOG_ERROR, logTag_, "[UnixIpcManager] Accept client failed: %d, message: %s",
                        errno, strerror(errno));
    return IPC_CB_FAILED;
  }
  if (!admit(fd)) {
    close(fd);
    return IPC_CB_CLOSED;
  }
  if (!Setnonblocking(fd)) {
    int error = errno;
    close(fd);
    __android_log_print(ANDROID_LOG_ERROR, logTag_,
                        "[UnixIpcManager] Setnonblocking (client) failed: %d, message: %s", error,
                        strerror(error));
    return IPC_CB_FAILED;
  }
  EpollCallback callbacks = prepareConnection(fd);
  // The listening socket names the failure, as field logs always showed it.
  setSocketBufferSizes(fd, socketFd_);
  registerConnection(fd, std::move(callbacks));
  return IPC_CB_NEW_CONNECTION;
}

bool UnixIpcManager::admit(int fd) {
  if (!handlers_.peerFilter) return true;
  PeerCredentials peer;
  const bool known = ReadPeerCredentials(fd, &peer);
  if (known && handlers_.peerFilter(peer)) return true;
  const int error = errno;

  const int64_t now = std::chrono::duration_cast<std::chrono::seconds>(
                          std::chrono::steady_clock::now().time_since_epoch()).count();
  if (now - refusals_.periodStart >= kRefusalLogPeriodSeconds) {
    if (refusals_.unlogged != 0) {
      __android_log_print(ANDROID_LOG_WARN, logTag_,
                          "[UnixIpcManager] Refused %u more peers without logging each",
                          refusals_.unlogged);
    }
    refusals_ = RefusalLog{now, 0, 0};
  }
  if (refusals_.logged >= kRefusalsLoggedPerPeriod) {
    ++refusals_.unlogged;
  } else if (++refusals_.logged, known) {
    __android_log_print(ANDROID_LOG_WARN, logTag_, "[UnixIpcManager] Refused peer: pid: %d, uid: %u, gid: %u",
                        static_cast<int>(peer.pid), static_cast<unsigned>(peer.uid),
                        static_cast<unsigned>(peer.gid));
  } else {
    __android_log_print(ANDROID_LOG_WARN, logTag_,
                        "[UnixIpcManager] Refused peer: its credentials cannot be read: %s", strerror(error));
  }
  return false;
}

EpollCallback UnixIpcManager::prepareConnection(int fd) {
  EpollCallback callbacks;
  callbacks.closeCallback = [this](epoll_event event) { return onClientCloseCallback(event); };
  if (handlers_.readHandler) {
    callbacks.readCallback = [this](epoll_event event) { return onClientReadableCallback(event); };
    allocateReadBufferForFd(fd);
  }
  if (handlers_.writeHandler) {
    callbacks.writeCallback = [this](epoll_event event) { return onCommWriteCallback(event); };
    allocateWriteBufferForFd(fd);
  }
  return callbacks;
}

void UnixIpcManager::registerConnection(int fd, EpollCallback callbacks) {
  {
    std::lock_guard<std::mutex> guard(bufferMutex_);
    connections_.insert(fd);
  }
  epollManager_->addMonitorFd(fd, std::move(callbacks));
  if (handlers_.connectionHandler) handlers_.connectionHandler(fd);
}

void UnixIpcManager::setSocketBufferSizes(int fd, int loggedFd) {
  int size = bufferSize_;
  if (setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &size, sizeof(size)) != 0) {
    __android_log_print(ANDROID_LOG_ERROR, logTag_,
                        "[UnixIpcManager] Set send buffer size failed: %d, message: %s, clientFd: %d",
                        errno, strerror(errno), loggedFd);
  }
  if (setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, sizeof(size)) != 0) {
    __android_log_print(ANDROID_LOG_ERROR, logTag_,
                        "[UnixIpcManager] Set recv buffer size failed: %d, message: %s, clientFd: %d",
                        errno, strerror(errno), loggedFd);
  }
}

bool UnixIpcManager::unregisterAndClose(int fd) {
  epollManager_->delMonitorFd(fd);
  {
    std::lock_guard<std::mutex> guard(bufferMutex_);
    connections_.erase(fd);
  }
  // Another thread sends on a connection only while holding its write lock
  // and finding its write buffer (tryWriteDataNow): the buffer goes first,
  // so nobody sends on the number once it is closed, or reused.
  std::shared_ptr<std::mutex> writeLock = existingWriteLock(fd);
  if (writeLock != nullptr) {
    std::lock_guard<std::mutex> writing(*writeLock);
    std::lock_guard<std::mutex> tables(writeTableMutex_);
    writeBuffers_.erase(fd);
  }
  // Linux releases the fd even when close() reports an error.
  if (close(fd) != 0) {
    __android_log_print(ANDROID_LOG_ERROR, logTag_,
                        "[UnixIpcManager][ServerCallback] Close fd(%d) failed: %d, message: %s", fd,
                        errno, strerror(errno));
    return false;
  }
  return true;
}

int UnixIpcManager::onClientCloseCallback(epoll_event event) {
  const int fd = event.data.fd;
  const bool serverLost = fd == socketFd_;
  if (serverLost) socketFd_ = -1;
  if (!unregisterAndClose(fd)) return IPC_CB_FAILED;
  freeBufferForFd(fd);
  if (handlers_.closeHandler) handlers_.closeHandler(fd);
  if (!serverLost) return IPC_CB_HANDLED;

  __android_log_print(ANDROID_LOG_ERROR, logTag_,
                      "[UnixIpcManager][onClientCloseCallback] Server socket abnormal close! (%s)",
                      socketName_.c_str());
  if (connect()) return IPC_CB_HANDLED;
  __android_log_print(ANDROID_LOG_ERROR, logTag_, "[UnixIpcManager] Restart server failed! (%s)",
                      socketName_.c_str());
  return IPC_CB_FAILED;
}

int UnixIpcManager::onServerCloseCallback(epoll_event event) {
  const int fd = event.data.fd;
  const bool listenerLost = fd == socketFd_;
  if (listenerLost) socketFd_ = -1;
  if (!unregisterAndClose(fd)) return IPC_CB_FAILED;
  if (!listenerLost) {
    if (handlers_.closeHandler) handlers_.closeHandler(fd);
    freeBufferForFd(fd);
    return IPC_CB_HANDLED;
  }
  __android_log_print(ANDROID_LOG_ERROR, logTag_,
                      "[UnixIpcManager][onServerCloseCallback] Server socket abnormal close! (%s)",
                      socketName_.c_str());
  if (handlers_.closeHandler) handlers_.closeHandler(fd);
  if (createServer()) return IPC_CB_HANDLED;
  __android_log_print(ANDROID_LOG_ERROR, logTag_, "[UnixIpcManager] Restart server failed! (%s)",
                      socketName_.c_str());
  return IPC_CB_FAILED;
}
