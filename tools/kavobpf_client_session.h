#pragma once

// One client's conversation with the service, on the IPC framework's client
// role: connect (retrying every 5 seconds), subscribe to event types, count
// the responses, and hand every received event record to a callback. After a
// lost connection the endpoint reconnects and the session subscribes again.
//
// Callbacks run on the endpoint's loop thread; the wait functions may be
// called from any other thread.

#include <stddef.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "utils/kavo_bpf_ipc_helper.h"

namespace kavo::client {

class ClientSession {
 public:
  using EventCallback = std::function<void(const char* record, size_t size)>;

  ClientSession(std::string socketName, std::vector<int> eventTypes, EventCallback onEvent);
  ~ClientSession();

  bool Start();
  void Stop();
  // True once connected (and subscriptions sent) within |timeout|.
  bool WaitConnected(std::chrono::milliseconds timeout);
  // True once every subscription of the current connection was answered.
  bool WaitSubscribed(std::chrono::milliseconds timeout);

  int okResponses() const;
  int refusedResponses() const;

 private:
  int onConnected(int fd);
  int onClosed(int fd);
  int onResponse(char* body, unsigned size);

  std::string socketName_;
  std::vector<int> eventTypes_;
  EventCallback onEvent_;

  IpcPackageManager outgoing_;
  IpcReqCallBackManager requests_;
  std::unique_ptr<IpcPackageHandler> handler_;
  std::unique_ptr<UnixIpcManager> endpoint_;

  mutable std::mutex mutex_;
  std::condition_variable changed_;
  int fd_ = -1;
  int pending_ = 0;
  int ok_ = 0;
  int refused_ = 0;
};

}  // namespace kavo::client
