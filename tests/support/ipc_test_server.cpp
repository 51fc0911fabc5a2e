#include "support/ipc_test_server.h"

#include <chrono>
#include <thread>

namespace kavo::test {

IpcTestServer::IpcTestServer(const std::string& name, bool closeOnError)
    : handler_({{KAVO_IPC_REQUEST, [this](int, char* body, unsigned size) {
                   Record("pkg:" + std::string(body, size));
                   return std::string(body, size) == "fail" ? -1 : 0;
                 }}}) {
  IpcHandlerState handlers;
  handlers.compactReadBuffer = true;
  handlers.closeOnError = closeOnError;
  handlers.readHandler = [this](int fd, BufferState* buffer) {
    int result = handler_.handleAllIpcPackageInBuffer(fd, buffer);
    Record("read");
    return result == 0 ? -1 : 0;
  };
  handlers.writeHandler = [this](int fd, BufferState* buffer) {
    IpcPackageManager& queue = Queue(fd);
    while (queue.fillNextIpcPackageToBuffer(buffer)) {
    }
    return 0;
  };
  handlers.connectionHandler = [this](int fd) {
    Queue(fd);
    Record("connect:" + std::to_string(fd));
    std::lock_guard<std::mutex> guard(mutex_);
    return fd_ = fd;
  };
  handlers.closeHandler = [this](int fd) {
    Record("close:" + std::to_string(fd));
    return 0;
  };
  cpu_set_t cpus;
  CPU_ZERO(&cpus);
  CPU_SET(0, &cpus);
  endpoint_ = std::make_unique<UnixIpcManager>(true, 32768, name, handlers, "IpcTestServer", cpus,
                                               10, 32);
  endpoint_->start();
  for (int i = 0; i < 5000 && endpoint_->socketFd() == -1; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
}

IpcTestServer::~IpcTestServer() { endpoint_.reset(); }

void IpcTestServer::Record(const std::string& event) {
  std::lock_guard<std::mutex> guard(mutex_);
  events_.push_back(event);
}

std::vector<std::string> IpcTestServer::Events() const {
  std::lock_guard<std::mutex> guard(mutex_);
  return events_;
}

size_t IpcTestServer::Count(const std::string& prefix) const {
  size_t n = 0;
  for (const std::string& event : Events()) n += event.rfind(prefix, 0) == 0;
  return n;
}

bool IpcTestServer::WaitFor(const std::string& prefix, size_t count) const {
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (Count(prefix) < count) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

int IpcTestServer::fd() const {
  std::lock_guard<std::mutex> guard(mutex_);
  return fd_;
}

IpcPackageManager& IpcTestServer::Queue(int fd) {
  std::lock_guard<std::mutex> guard(mutex_);
  return queues_[fd];
}

void IpcTestServer::Send(int fd, uint32_t type, const std::string& body) {
  std::string copy = body;
  Queue(fd).buildAndAppendSecondIpcPackage(type, copy.data(), static_cast<unsigned>(copy.size()));
  endpoint_->notifyNeedWriteData(fd);
}

}  // namespace kavo::test
