// The client on the IPC framework's client role: one endpoint whose loop
// thread connects (and reconnects), a queue of outgoing requests, request ids
// matched to their answers, and the events handed to a callback or kept for
// NextEvent().
//
// Requests and reconnection. The types asked for are kept in |wanted| as the
// caller's latest intent, in the order first asked. Requests go through one
// FIFO queue that outlives a connection, so a request made while no
// connection exists is sent after the next connect; after a reconnection the
// client appends one subscription per wanted type behind whatever was still
// queued, so the service ends up with exactly the wanted set whatever order
// the caller's requests and the reconnection came in.

#include <sched.h>
#include <string.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <thread>

#include "kavobpf/kavobpf_client.h"
#include "utils/kavo_bpf_ipc_helper.h"

namespace kavobpf {

namespace {

// Buffers of the connection, each way: the service's own size.
constexpr int kBufferSize = 32768;
constexpr int kEpollSizeHint = 4;
constexpr int kEventsPerWait = 16;
constexpr char kThreadName[] = "kavobpf_client";

}  // namespace

struct Client::Impl {
  Impl(ClientOptions options, ClientCallbacks callbacks);

  // Queues one request; |done| gets its result exactly once.
  void send(uint32_t code, const void* data, uint32_t size, std::function<void(int)> done);
  // Starts a request with a completion and waits up to |timeout| for it.
  int await(const std::function<void(std::function<void(int)>)>& start,
            std::chrono::milliseconds timeout);
  void subscribe(int32_t type, bool on, std::function<void(int)> done);
  // Arms the connection for writing, when there is one.
  void flush();
  bool onLoopThread() const { return std::this_thread::get_id() == loopThread.load(); }
  void finish(unsigned reqId, int result);
  void close();

  // Loop-thread handlers.
  int onConnected(int fd);
  void countReconnection() {
    std::lock_guard<std::mutex> guard(mutex);
    ++stats.reconnections;
  }
  int onClosed(int fd);
  int onResponse(char* body, unsigned size);
  int onEvent(char* body, unsigned size);

  const ClientOptions options;
  const ClientCallbacks callbacks;
  IpcPackageManager outgoing;
  IpcReqCallBackManager requests;
  std::unique_ptr<IpcPackageHandler> handler;
  std::unique_ptr<UnixIpcManager> endpoint;
  std::atomic<std::thread::id> loopThread{};
  // Answers taken out by handleReqCallBack, whose callbacks run under the
  // manager's lock; their |done| functions run after it, so they may request
  // again. Loop thread only.
  std::vector<std::pair<unsigned, int>> answered;
  // Whether the caller was last told "connected" (kConnected, kReconnected)
  // rather than kLost, so that a connection lost before it was reported is
  // not reported lost either. Loop thread only.
  bool reportedUp = false;

  mutable std::mutex mutex;
  std::condition_variable changed;
  int fd = -1;
  bool started = false;
  bool everConnected = false;
  bool closed = false;
  std::vector<int32_t> wanted;
  std::map<unsigned, std::function<void(int)>> pending;
  std::deque<Event> events;
  Stats stats;
};

Client::Impl::Impl(ClientOptions opts, ClientCallbacks cbs)
    : options(std::move(opts)), callbacks(std::move(cbs)) {
  handler = std::make_unique<IpcPackageHandler>(std::map<unsigned, IpcPackageHandlerFunc>{
      {KAVO_IPC_REQUEST, nullptr},
      {KAVO_IPC_RESPONSE, [this](int, char* body, unsigned size) { return onResponse(body, size); }},
      {KAVO_IPC_RESERVED, nullptr},
      {KAVO_IPC_RAW_EVENT, [this](int, char* body, unsigned size) { return onEvent(body, size); }},
  });
  IpcHandlerState handlers;
  handlers.compactReadBuffer = true;
  handlers.readHandler = [this](int fd, BufferState* buffer) {
    handler->handleAllIpcPackageInBuffer(fd, buffer);
    return 0;
  };
  handlers.writeHandler = [this](int, BufferState* buffer) {
    outgoing.fillNextIpcPackagesToBuffer(buffer);
    return 0;
  };
  handlers.connectionHandler = [this](int fd) { return onConnected(fd); };
  handlers.closeHandler = [this](int fd) { return onClosed(fd); };
  cpu_set_t cpus;
  CPU_ZERO(&cpus);
  if (sched_getaffinity(0, sizeof(cpus), &cpus) != 0) CPU_SET(0, &cpus);
  endpoint = std::make_unique<UnixIpcManager>(false, kBufferSize, options.socket, handlers,
                                              kThreadName, cpus, kEpollSizeHint, kEventsPerWait);
}

void Client::Impl::send(uint32_t code, const void* data, uint32_t size, std::function<void(int)> done) {
  const unsigned reqId = requests.getReqId();
  {
    std::unique_lock<std::mutex> lock(mutex);
    if (closed) {
      lock.unlock();
      if (done) done(kClosed);
      return;
    }
    pending.emplace(reqId, std::move(done));
  }
  requests.addIpcReqCallBack(reqId, [this](unsigned id, int result, char*, unsigned) {
    answered.emplace_back(id, result);
    return 0;
  });
  KavoReqIpcPackage package;
  package.reqId = reqId;
  package.reqType = code;
  package.dataSize = size;
  package.data = static_cast<const char*>(data);
  outgoing.appendReqIpcPackage(&package);
  flush();
}

void Client::Impl::flush() {
  int connection;
  {
    std::lock_guard<std::mutex> guard(mutex);
    connection = fd;
  }
  if (connection >= 0) endpoint->notifyNeedWriteData(connection);
}

void Client::Impl::finish(unsigned reqId, int result) {
  std::function<void(int)> done;
  {
    std::lock_guard<std::mutex> guard(mutex);
    auto it = pending.find(reqId);
    if (it == pending.end()) return;
    done = std::move(it->second);
    pending.erase(it);
  }
  if (done) done(result);
}

int Client::Impl::await(const std::function<void(std::function<void(int)>)>& start,
                        std::chrono::milliseconds timeout) {
  if (onLoopThread()) return kInCallback;
  // Shared with the completion, which may run after this caller gave up.
  struct Answer {
    std::mutex mutex;
    std::condition_variable arrived;
    std::optional<int> result;
  };
  auto answer = std::make_shared<Answer>();
  start([answer](int result) {
    std::lock_guard<std::mutex> guard(answer->mutex);
    answer->result = result;
    answer->arrived.notify_all();
  });
  std::unique_lock<std::mutex> lock(answer->mutex);
  if (!answer->arrived.wait_for(lock, timeout, [&] { return answer->result.has_value(); })) {
    return kNoAnswer;
  }
  return *answer->result;
}

void Client::Impl::subscribe(int32_t type, bool on, std::function<void(int)> done) {
  {
    std::lock_guard<std::mutex> guard(mutex);
    auto it = std::find(wanted.begin(), wanted.end(), type);
    if (on && it == wanted.end()) wanted.push_back(type);
    if (!on && it != wanted.end()) wanted.erase(it);
  }
  send(on ? kRequestSubscribe : kRequestUnsubscribe, &type, sizeof(type), std::move(done));
}

int Client::Impl::onConnected(int connection) {
  loopThread = std::this_thread::get_id();
  bool again;
  std::vector<int32_t> resubscribe;
  {
    std::lock_guard<std::mutex> guard(mutex);
    fd = connection;
    again = everConnected;
    everConnected = true;
    if (again) resubscribe = wanted;
  }
  if (!again || resubscribe.empty()) {
    if (again) countReconnection();
    reportedUp = true;
    if (callbacks.onConnection) {
      callbacks.onConnection(again ? ConnectionChange::kReconnected : ConnectionChange::kConnected);
    }
  } else {
    // A reconnection is reported once the service has answered every
    // subscription again, so that a caller told of it misses no event of a
    // type it asked for. Answers come on this thread; a connection lost
    // before they all came reports nothing, its successor does.
    auto unanswered = std::make_shared<size_t>(resubscribe.size());
    for (int32_t type : resubscribe) {
      send(kRequestSubscribe, &type, sizeof(type), [this, unanswered](int result) {
        if (result == kClosed || --*unanswered != 0) return;
        countReconnection();
        reportedUp = true;
        if (callbacks.onConnection) callbacks.onConnection(ConnectionChange::kReconnected);
      });
    }
  }
  endpoint->notifyNeedWriteData(connection);
  changed.notify_all();
  return 0;
}

int Client::Impl::onClosed(int) {
  {
    std::lock_guard<std::mutex> guard(mutex);
    fd = -1;
  }
  if (reportedUp && callbacks.onConnection) callbacks.onConnection(ConnectionChange::kLost);
  reportedUp = false;
  changed.notify_all();
  return 0;
}

int Client::Impl::onResponse(char* body, unsigned size) {
  KavoRespIpcPackageHeader header;
  if (size < sizeof(header)) return 0;
  memcpy(&header, body, sizeof(header));
  if (header.dataSize > size - sizeof(header)) return 0;  // would read past the package
  requests.handleReqCallBack(reinterpret_cast<const KavoRespIpcPackageHeader*>(body));
  std::vector<std::pair<unsigned, int>> done;
  done.swap(answered);
  for (const auto& [reqId, result] : done) finish(reqId, result);
  return 0;
}

int Client::Impl::onEvent(char* body, unsigned size) {
  Event event = DecodeEvent(body, size);
  if (callbacks.onEvent) {
    {
      std::lock_guard<std::mutex> guard(mutex);
      ++stats.events;
    }
    callbacks.onEvent(event);
    return 0;
  }
  {
    std::lock_guard<std::mutex> guard(mutex);
    ++stats.events;
    if (events.size() >= options.maxQueuedEvents) {
      events.pop_front();
      ++stats.droppedEvents;
    }
    events.push_back(std::move(event));
  }
  changed.notify_one();
  return 0;
}

void Client::Impl::close() {
  {
    std::lock_guard<std::mutex> guard(mutex);
    if (closed) return;
    closed = true;
  }
  // Ends a reconnect pause at once, then joins the loop thread and closes
  // the connection: no handler runs after this.
  endpoint->stop();
  endpoint.reset();
  std::map<unsigned, std::function<void(int)>> unanswered;
  {
    std::lock_guard<std::mutex> guard(mutex);
    unanswered.swap(pending);
    fd = -1;
  }
  for (auto& [reqId, done] : unanswered) {
    if (done) done(kClosed);
  }
  changed.notify_all();
}

Client::Client(ClientOptions options, ClientCallbacks callbacks)
    : impl_(std::make_unique<Impl>(std::move(options), std::move(callbacks))) {}

Client::~Client() { Close(); }

bool Client::Connect(std::chrono::milliseconds timeout) {
  Impl& impl = *impl_;
  std::unique_lock<std::mutex> lock(impl.mutex);
  if (impl.closed) return false;
  if (!impl.started) {
    impl.started = true;
    lock.unlock();
    impl.endpoint->start();
    lock.lock();
  }
  if (impl.onLoopThread()) return impl.fd >= 0;
  return impl.changed.wait_for(lock, timeout, [&] { return impl.fd >= 0 || impl.closed; }) &&
         impl.fd >= 0;
}

bool Client::connected() const {
  std::lock_guard<std::mutex> guard(impl_->mutex);
  return impl_->fd >= 0;
}

int Client::Subscribe(int32_t type, std::chrono::milliseconds timeout) {
  return impl_->await([&](std::function<void(int)> done) { impl_->subscribe(type, true, std::move(done)); },
                      timeout);
}

int Client::Unsubscribe(int32_t type, std::chrono::milliseconds timeout) {
  return impl_->await([&](std::function<void(int)> done) { impl_->subscribe(type, false, std::move(done)); },
                      timeout);
}

void Client::SubscribeAsync(int32_t type, std::function<void(int result)> done) {
  impl_->subscribe(type, true, std::move(done));
}

void Client::UnsubscribeAsync(int32_t type, std::function<void(int result)> done) {
  impl_->subscribe(type, false, std::move(done));
}

int Client::Request(uint32_t code, const void* data, uint32_t size, std::chrono::milliseconds timeout) {
  return impl_->await([&](std::function<void(int)> done) { impl_->send(code, data, size, std::move(done)); },
                      timeout);
}

std::optional<Event> Client::NextEvent(std::chrono::milliseconds timeout) {
  Impl& impl = *impl_;
  std::unique_lock<std::mutex> lock(impl.mutex);
  if (impl.callbacks.onEvent) return std::nullopt;
  // Events still queued when the client is closed are not handed out: the
  // caller closed it to stop hearing from the service.
  if (!impl.changed.wait_for(lock, timeout, [&] { return !impl.events.empty() || impl.closed; }) ||
      impl.closed) {
    return std::nullopt;
  }
  Event event = std::move(impl.events.front());
  impl.events.pop_front();
  return event;
}

Client::Stats Client::stats() const {
  std::lock_guard<std::mutex> guard(impl_->mutex);
  return impl_->stats;
}

void Client::Close() { impl_->close(); }

}  // namespace kavobpf
