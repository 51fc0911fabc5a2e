#pragma once

// libkavobpfclient: the events of the KAVO BPF service, for programs that
// want to watch what processes do to memory, threads, descriptors and
// dma-bufs without speaking its wire protocol themselves.
//
//   kavobpf::Client client;                        // the service's socket
//   if (!client.Connect(std::chrono::seconds(5))) return 1;
//   client.Subscribe(KAVO_EVENT_PROCESS_CREATED);  // 0 accepted, -1 refused
//   while (auto event = client.NextEvent(std::chrono::seconds(1))) {
//     if (auto* created = event->as<kavo_process_created_event>()) {
//       printf("%d %s\n", created->pid, kavobpf::Text(created->comm).data());
//     }
//   }
//
// Events arrive as typed values: the record layouts of
// "bpf/kavo_bpf_records.h", the same ones the kernel programs write and the
// service derives, with their fields named. docs/PROTOCOL.md describes the
// bytes underneath.
//
// Threads. Each Client runs one thread of its own (named "kavobpf_client")
// that connects, reads and writes the socket, and reconnects every 5 seconds
// while the service is away. Every callback given in ClientCallbacks runs on
// that thread, one at a time, in the order the service sent things; a
// callback must not block for long (events wait meanwhile) and must not call
// the blocking functions of its own Client (they would wait for the very
// thread that runs the callback: they return kInCallback instead). All other
// member functions may be called from any thread.
//
// Reconnection. When the service goes away the client keeps the event types
// it was asked for, reconnects once the service is back, subscribes to them
// again, and once the service has answered those subscriptions tells
// ClientCallbacks::onConnection (kReconnected): from then on no event of
// those types is missed. A connection that is lost again before that is not
// reported at all. Events the service produced while no connection existed
// are not delivered.

#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "bpf/kavo_bpf_records.h"

#define KAVOBPF_CLIENT_API __attribute__((visibility("default")))

namespace kavobpf {

// Where the service listens.
inline constexpr char kDefaultSocket[] = "/mnt/bpfframework/kavobpfdispatcher";

// The request codes the service understands; each takes the event type as
// its data (an int32).
inline constexpr uint32_t kRequestSubscribe = 51;
inline constexpr uint32_t kRequestUnsubscribe = 52;

// ---- Event types -------------------------------------------------------------

// The event types are the KAVO_EVENT_* constants of the record header: raw
// kernel records 0 to 7 and the service's derived events 50001 to 50004.
// Their names: "kavo_task_init", "kmem_rss_info", "sched_task_create",
// "sched_task_exit", "dmabuf_size_info", "cgroup_attach_cpuset_info",
// "fd_update_info", "dmabuf_update", "process_created", "process_exited",
// "thread_count_changed", "memory_changed".

// The name of a known type; empty for any other.
KAVOBPF_CLIENT_API std::string_view EventTypeName(int32_t type);
// A type given by name or by number (any int32, known or not); false for
// anything else.
KAVOBPF_CLIENT_API bool ParseEventType(std::string_view text, int32_t* type);
// The twelve known types, raw ones first.
KAVOBPF_CLIENT_API const std::vector<int32_t>& KnownEventTypes();

// ---- Events ------------------------------------------------------------------

// One event as a typed value: which alternative it holds follows from the
// type. std::monostate when the type is not one of the twelve, or the record
// is shorter than its layout (then |undecoded| holds its bytes).
using EventRecord =
    std::variant<std::monostate, kavo_task_init_event, kavo_rss_event, kavo_fork_event,
                 kavo_exit_event, kavo_dmabuf_size_event, kavo_cgroup_attach_event,
                 kavo_fd_update_event, kavo_dmabuf_update_event, kavo_process_created_event,
                 kavo_process_exited_event, kavo_thread_count_event, kavo_memory_changed_event>;

struct Event {
  int32_t type = -1;     // the record's first 4 bytes
  EventRecord record;    // the decoded record
  std::vector<uint8_t> undecoded;  // the bytes of a record that was not decoded
  size_t size = 0;       // bytes the service sent for this record

  // The record as layout T, or null when it holds another one.
  template <typename T>
  const T* as() const {
    return std::get_if<T>(&record);
  }
};

// Decodes one record (u32 type first) as the service sends it.
KAVOBPF_CLIENT_API Event DecodeEvent(const void* data, size_t size);

// A name field of a record (comm, cgroup path) as text, up to its first NUL.
template <size_t N>
std::string_view Text(const char (&field)[N]) {
  return std::string_view(field, strnlen(field, N));
}

// ---- Client ------------------------------------------------------------------

// What a request came back with: the service's answer (0 or -1), or why
// there was none.
enum RequestResult : int {
  kAccepted = 0,      // the service did what was asked
  kRefused = -1,      // the service did not understand the request
  kNoAnswer = -2,     // no answer within the time given (it may still come)
  kClosed = -3,       // the client was closed first
  kInCallback = -4,   // a blocking request from one of this client's callbacks
};

struct ClientOptions {
  // The service's socket: a path or an abstract name.
  std::string socket = kDefaultSocket;
  // Events kept for NextEvent() when no event callback is set; past this the
  // oldest are dropped (and counted in Stats::droppedEvents).
  size_t maxQueuedEvents = 10000;
};

enum class ConnectionChange {
  kConnected,    // the first connection
  kLost,         // the service went away; the client is reconnecting
  kReconnected,  // connected again and subscribed again to every type asked for
};

struct ClientCallbacks {
  // Each event. When empty, events wait for NextEvent().
  std::function<void(const Event&)> onEvent;
  // Each change of the connection.
  std::function<void(ConnectionChange)> onConnection;
};

class KAVOBPF_CLIENT_API Client {
 public:
  struct Stats {
    uint64_t events = 0;         // events received
    uint64_t droppedEvents = 0;  // events dropped from a full NextEvent() queue
    uint32_t reconnections = 0;  // kReconnected reports: connected and subscribed again
  };

  explicit Client(ClientOptions options = {}, ClientCallbacks callbacks = {});
  // Closes the client.
  ~Client();
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  // Starts connecting and waits until connected or |timeout| passed; true
  // when connected. After a false the client goes on trying in the background
  // (every 5 seconds) until it connects or is closed.
  bool Connect(std::chrono::milliseconds timeout);
  bool connected() const;

  // Subscribes to (unsubscribes from) one event type and waits for the
  // service's answer: a RequestResult. The type is remembered (forgotten) at
  // once, whatever the answer, and subscribed again after a reconnection. A
  // request made while disconnected is sent once connected.
  int Subscribe(int32_t type, std::chrono::milliseconds timeout = std::chrono::seconds(5));
  int Unsubscribe(int32_t type, std::chrono::milliseconds timeout = std::chrono::seconds(5));
  // The same without waiting: |done| gets the RequestResult on the client's
  // thread, or kClosed on the thread that closes the client first. May be
  // called from a callback.
  void SubscribeAsync(int32_t type, std::function<void(int result)> done = {});
  void UnsubscribeAsync(int32_t type, std::function<void(int result)> done = {});
  // Any request code with any data, for codes this library does not know;
  // the service answers -1 to a code it does not understand.
  int Request(uint32_t code, const void* data, uint32_t size,
              std::chrono::milliseconds timeout = std::chrono::seconds(5));

  // The next event, waiting up to |timeout|; nothing when none came, when
  // an event callback is set, or once the client is closed.
  std::optional<Event> NextEvent(std::chrono::milliseconds timeout);

  Stats stats() const;
  // Disconnects and stops the client's thread; requests still waiting end
  // with kClosed. Nothing is called back after Close() returns. Not to be
  // called from a callback.
  void Close();

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

// Where this library's log lines go (connection retries and what the
// connection layer reports). By default they go to the process's Android log,
// which is stderr on a Linux host. A handler takes them instead; an empty
// handler drops them. This is process-wide: it becomes the logger of every
// Android log user in the process.
using LogHandler = std::function<void(int priority, const char* tag, const char* message)>;
KAVOBPF_CLIENT_API void SetLogHandler(LogHandler handler);

}  // namespace kavobpf
