#include "kavobpf_client_session.h"

#include <sched.h>
#include <stdio.h>
#include <string.h>

namespace kavo::client {

namespace {

constexpr int kBufferSize = 32768;

}  // namespace

ClientSession::ClientSession(std::string socketName, std::vector<int> eventTypes, EventCallback onEvent)
    : socketName_(std::move(socketName)), eventTypes_(std::move(eventTypes)), onEvent_(std::move(onEvent)) {
  handler_ = std::make_unique<IpcPackageHandler>(std::map<unsigned, IpcPackageHandlerFunc>{
      {KAVO_IPC_REQUEST, nullptr},
      {KAVO_IPC_RESPONSE, [this](int, char* body, unsigned size) { return onResponse(body, size); }},
      {KAVO_IPC_RESERVED, nullptr},
      {KAVO_IPC_RAW_EVENT,
       [this](int, char* body, unsigned size) {
         onEvent_(body, size);
         return 0;
       }},
  });
  IpcHandlerState handlers;
  handlers.compactReadBuffer = true;
  handlers.readHandler = [this](int fd, BufferState* buffer) {
    handler_->handleAllIpcPackageInBuffer(fd, buffer);
    return 0;
  };
  handlers.writeHandler = [this](int, BufferState* buffer) {
    while (outgoing_.fillNextIpcPackageToBuffer(buffer)) {
    }
    return 0;
  };
  handlers.connectionHandler = [this](int fd) { return onConnected(fd); };
  handlers.closeHandler = [this](int fd) { return onClosed(fd); };
  cpu_set_t cpus;
  CPU_ZERO(&cpus);
  sched_getaffinity(0, sizeof(cpus), &cpus);
  endpoint_ = std::make_unique<UnixIpcManager>(false, kBufferSize, socketName_, handlers, "kavobpf_client",
                                               cpus, 4, 16);
}

ClientSession::~ClientSession() { Stop(); }

bool ClientSession::Start() { return endpoint_->start(); }

void ClientSession::Stop() { endpoint_->stop(); }

int ClientSession::onConnected(int fd) {
  {
    std::lock_guard<std::mutex> guard(mutex_);
    fd_ = fd;
    pending_ = static_cast<int>(eventTypes_.size());
  }
  for (int type : eventTypes_) {
    int32_t eventType = type;
    KavoReqIpcPackage request;
    request.reqId = requests_.getReqId();
    request.reqType = KAVO_REQ_SUBSCRIBE;
    request.dataSize = sizeof(eventType);
    request.data = reinterpret_cast<const char*>(&eventType);
    requests_.addIpcReqCallBack(request.reqId, [this](unsigned, int result, char*, unsigned) {
      std::lock_guard<std::mutex> guard(mutex_);
      (result == 0 ? ok_ : refused_) += 1;
      if (pending_ > 0) --pending_;
      changed_.notify_all();
      return 0;
    });
    outgoing_.appendReqIpcPackage(&request);
  }
  endpoint_->notifyNeedWriteData(fd);
  changed_.notify_all();
  return 0;
}

int ClientSession::onClosed(int) {
  std::lock_guard<std::mutex> guard(mutex_);
  fd_ = -1;
  fprintf(stderr, "kavobpf_client: connection to %s lost, reconnecting\n", socketName_.c_str());
  return 0;
}

int ClientSession::onResponse(char* body, unsigned size) {
  KavoRespIpcPackageHeader header;
  if (size < sizeof(header)) return 0;
  memcpy(&header, body, sizeof(header));
  if (header.dataSize > size - sizeof(header)) return 0;  // would read past the package
  requests_.handleReqCallBack(reinterpret_cast<const KavoRespIpcPackageHeader*>(body));
  return 0;
}

bool ClientSession::WaitConnected(std::chrono::milliseconds timeout) {
  std::unique_lock<std::mutex> lock(mutex_);
  return changed_.wait_for(lock, timeout, [this] { return fd_ >= 0; });
}

bool ClientSession::WaitSubscribed(std::chrono::milliseconds timeout) {
  std::unique_lock<std::mutex> lock(mutex_);
  return changed_.wait_for(lock, timeout, [this] { return fd_ >= 0 && pending_ == 0; });
}

int ClientSession::okResponses() const {
  std::lock_guard<std::mutex> guard(mutex_);
  return ok_;
}

int ClientSession::refusedResponses() const {
  std::lock_guard<std::mutex> guard(mutex_);
  return refused_;
}

}  // namespace kavo::client
