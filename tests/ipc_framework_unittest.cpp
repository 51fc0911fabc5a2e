// The IPC framework alone, as the service and the client library lean on it:
// which frames are whole and which are dropped, how a client's queue is cut
// back and packed into send buffers, when the loop writes, and what a peer
// that stops reading costs. The framework keeps no files of its own: what it
// loses goes to the recorder its user installed.

#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "support/harness.h"
#include "support/log_capture.h"
#include "support/wait_until.h"
#include "support/wire.h"
#include "utils/kavo_bpf_helper_string.h"
#include "utils/kavo_bpf_ipc_error.h"
#include "utils/kavo_bpf_ipc_helper.h"

namespace {

using kavo::test::PackageFrame;
using kavo::test::U32;

// What the framework loses, recorded as its user would, newest first. Every
// loss in these tests is met on the test's own thread.
std::string gLosses;
[[maybe_unused]] const IpcErrorRecorder kRecorder = SetIpcErrorRecorder([](int code, const std::string& error) {
  gLosses.insert(0, "----------\nErrorCode: " + std::to_string(code) + "\nError: " + error + "\n");
});

// Whether the newest loss on record is |code| with a text that begins with |text|.
bool NewestLoss(int code, const std::string& text) {
  return gLosses.find("----------\nErrorCode: " + std::to_string(code) + "\nError: " + text) == 0;
}

// An empty buffer of the size the service and the client library use, its
// storage allocated whole: these tests set the cursors by hand.
BufferState SendBuffer() {
  BufferState buffer;
  buffer.setSize(32768);
  const std::vector<char> whole(32768);
  buffer.write(whole.data(), whole.size());
  buffer.resetCursors();
  return buffer;
}

TEST(IpcFramework, FramesUpToTheBufferSizeArriveWholeLargerOnesAreDropped) {
  kavo::test::LogCapture log;
  BufferState buffer = SendBuffer();
  unsigned header = 0, size = 0;
  // By announced size: whole once all of it is there (the header alone for
  // an empty package, the whole buffer for the largest), or damaged at once.
  for (uint32_t announced : {0u, 32763u, 32764u, 32765u, 0xFFFFFFFDu}) {
    SCOPED_TRACE(announced);
    buffer.resetCursors();
    ASSERT_TRUE(buffer.write(U32(announced).data(), 4));
    for (unsigned held = 3 + announced; announced <= 32764 && held <= 4 + announced; ++held) {
      buffer.bufferDataCursor = held;
      EXPECT_EQ(held == 4 + announced, CheckIpcPackageComplete(&buffer, &header, &size) && header == 4 && size == announced) << held;
    }
    if (announced <= 32764) continue;
    // The connection's bytes are gone, not the connection.
    EXPECT_TRUE(!CheckIpcPackageComplete(&buffer, &header, &size) && buffer.bufferDataCursor == 0u);
    EXPECT_TRUE(NewestLoss(2, "Ipc package damage, packageSize: " + std::to_string(uint32_t(announced + 4)) + ", cursor: 0, data: 4, bufferSize: 32768, "
                              "Buffer hexdump: " + Kavo::Bpf::ConvertToHexString(U32(announced).data(), 4) + "\n"));
  }
  EXPECT_EQ(2u, log.Count("Ipc package too big or damage, clear buffer.", ANDROID_LOG_ERROR));
}

// A server endpoint with the service's buffer size on CPU 0, started, and a
// raw client connected to it.
struct Endpoint {
  bool Start(const std::string& name, const IpcHandlerState& handlers) {
    cpu_set_t cpus{};
    CPU_SET(0, &cpus);
    server = std::make_unique<UnixIpcManager>(true, 32768, name, handlers, "IpcFrameworkTest", cpus, 10, 32);
    return server->start() && client.Connect(name);
  }
  std::unique_ptr<UnixIpcManager> server;
  kavo::test::RawClient client;
};

// Everything queued, as the client reads it, one 32768-byte send buffer after another.
std::string Drain(IpcPackageManager* queue, bool inOneGo) {
  std::string sent;
  BufferState buffer = SendBuffer();
  for (int round = 0; round < 1000 && queue->getIpcPackageCount() != 0; ++round) {
    buffer.resetCursors();
    if (inOneGo) queue->fillNextIpcPackagesToBuffer(&buffer);
    while (!inOneGo && queue->fillNextIpcPackageToBuffer(&buffer)) {}
    sent.append(buffer.data(), buffer.bufferDataCursor);
  }
  return sent;
}

TEST(IpcFramework, AClientThatStopsReadingKeepsItsNewestPackages) {
  kavo::test::LogCapture log;
  // Every way of queueing, with the error kind and log line it reports.
  const std::vector<std::tuple<int, std::string, std::function<void(IpcPackageManager*, uint32_t)>>> ways = {
      {3, "[BuildAndAppendIpc]", [](IpcPackageManager* q, uint32_t i) { q->buildAndAppendIpcPackage(reinterpret_cast<char*>(&i), 4); }},
      {4, "[AppendSecondIpc]", [](IpcPackageManager* q, uint32_t i) { q->buildAndAppendSecondIpcPackage(3, reinterpret_cast<char*>(&i), 4); }},
      {5, "[AppendReqIpc]", [](IpcPackageManager* q, uint32_t i) { KavoReqIpcPackage r{i, 51, 0, nullptr}; q->appendReqIpcPackage(&r); }},
      {6, "[AppendRespIpc]", [](IpcPackageManager* q, uint32_t i) { KavoRespIpcPackage r; r.reqId = i; q->appendRespIpcPackage(&r); }}};
  for (const auto& [code, prefix, append] : ways) {
    SCOPED_TRACE(code);
    IpcPackageManager queue;
    for (uint32_t i = 1; i <= 10002; ++i) {
      append(&queue, i);
      // Up to 10001 queued nothing is cut; the append that finds 10001 cuts the queue to its 5000 newest.
      EXPECT_TRUE(i < 10000 || queue.getIpcPackageCount() == (i <= 10001 ? i : 5001u)) << i << ": " << queue.getIpcPackageCount();
    }
    EXPECT_TRUE(log.Count(prefix + " ipc Package Queue too big: 10001", ANDROID_LOG_ERROR) == 1u && NewestLoss(code, "B&A Ipc Package queue full 10000\n"));
    const std::string sent = Drain(&queue, false);
    EXPECT_TRUE(sent.find(U32(5001)) == std::string::npos && sent.find(U32(5002)) < sent.find(U32(10002)));
  }

  // A send buffer takes a package of 32764 bytes exactly; one of 32765 can
  // never be sent and goes on the record; one byte short of room, the next
  // package waits for a drained buffer.
  IpcPackageManager queue;
  std::string big(32765, 'b');
  for (unsigned size : {32764u, 32765u}) queue.buildAndAppendIpcPackage(&big[0], size);
  queue.buildAndAppendSecondIpcPackage(3, &big[0], 10);
  BufferState buffer = SendBuffer();
  EXPECT_TRUE(queue.fillNextIpcPackageToBuffer(&buffer) && buffer.bufferDataCursor == 32768);
  buffer.resetCursors();
  EXPECT_TRUE(!queue.fillNextIpcPackageToBuffer(&buffer) && NewestLoss(8, "fillNextIpcPackageToBuffer ipc package damaged\n"));
  for (unsigned room : {21u, 22u}) {  // the next package takes 22 bytes
    buffer.bufferDataCursor = 32768 - room;
    EXPECT_EQ(room == 22, queue.fillNextIpcPackageToBuffer(&buffer)) << room;
  }
  queue.buildAndAppendIpcPackage(&big[0], 32765);
  EXPECT_TRUE(!queue.fillIpcPackageToBuffer(&buffer) && NewestLoss(7, "fillIpcPackageToBuffer ipc package damaged\n"));

  // Events queued in batches and packed in one go reach the client as the
  // same bytes, trims and records as one at a time, across the queue's blocks.
  IpcPackageManager oneByOne, batched;
  std::vector<std::string> events;
  std::vector<KavoIpcBytes> bodies;
  for (uint32_t i = 0; i < 15003; ++i) events.push_back(i == 12000 ? big : U32(i) + std::string(i % 50, char(i)));
  events[12001] = big.substr(0, 32755), events[12002] = big.substr(0, 32756);  // frames of 32767 and 32768 bytes
  const size_t trims = log.Count("[AppendSecondIpc]"), records = gLosses.size();
  for (std::string& e : events) bodies.push_back({e.data(), uint32_t(e.size())}), oneByOne.buildAndAppendSecondIpcPackage(3, &e[0], unsigned(e.size()));
  const std::string expected = Drain(&oneByOne, false), lost = gLosses;
  for (size_t at = 0; at < bodies.size(); at += 7) batched.buildAndAppendSecondIpcPackages(3, &bodies[at], std::min<size_t>(7, bodies.size() - at));
  EXPECT_TRUE(expected == Drain(&batched, true));
  EXPECT_EQ(trims + 4, log.Count("[AppendSecondIpc]"));  // two trims each
  EXPECT_EQ(lost.substr(0, lost.size() - records), gLosses.substr(0, lost.size() - records));
  // The newest 5001 survive; frames one byte short of a send buffer and of
  // its size go over, the one above it (12 + 32765 bytes) is dropped.
  EXPECT_TRUE(expected.find(PackageFrame(3, events[10002])) == 0 && expected.find(PackageFrame(3, events.back())) == expected.size() - 18);
  EXPECT_TRUE(expected.find(PackageFrame(3, events[12001])) != std::string::npos && expected.find(PackageFrame(3, events[12002])) != std::string::npos);
  EXPECT_EQ(std::string::npos, expected.find(big.substr(0, 32757)));
}

TEST(IpcFramework, TheLoopWritesWhileSomethingIsLeftAndAStalledPeerCostsItsBytes) {
  kavo::test::RunInNamespace([] {
    kavo::test::LogCapture log;
    std::string scratch(1 << 20, 's');
    int pair[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, pair));
    cpu_set_t cpus{};
    CPU_SET(0, &cpus);
    std::mutex mutex;
    std::vector<uint32_t> calls;  // the events each callback was called with
    std::atomic<int> rounds{3};
    EpollManager loop(10, 32, nullptr, "IpcFrameworkTest", cpus, -1);
    EXPECT_FALSE(loop.notifyWriteEventIfArmed(pair[0]));
    EXPECT_TRUE(!loop.notifyWriteEventReady(pair[0]) && log.Contains("[EpollManager][notifyWriteEventReady] the socket fd does not exist"));
    // Three rounds of data, then nothing left: write interest is dropped, so
    // the next readable event comes without EPOLLOUT.
    EpollCallback callbacks;
    // Asked from inside the write callback, the request that counts only
    // while the loop writes finds EPOLLOUT on.
    std::vector<bool> armedWhileWriting;
    callbacks.writeCallback = [&](epoll_event e) {
      std::lock_guard<std::mutex> g(mutex);
      if (calls.empty()) armedWhileWriting.push_back(loop.notifyWriteEventIfArmed(pair[0]));
      calls.push_back(e.events);
      return --rounds > 0 ? 0 : -3;
    };
    callbacks.readCallback = [&](epoll_event e) { std::lock_guard<std::mutex> g(mutex); calls.push_back(e.events); return int(read(pair[0], &scratch[0], 1)) - 1; };
    ASSERT_TRUE(loop.addMonitorFd(pair[0], callbacks));
    EXPECT_FALSE(loop.notifyWriteEventIfArmed(pair[0]));
    loop.start();
    ASSERT_TRUE(loop.notifyWriteEventReady(pair[0]));
    auto called = [&](size_t n) { return kavo::test::WaitUntil([&] { std::lock_guard<std::mutex> g(mutex); return calls.size() >= n; }); };
    ASSERT_TRUE(called(3) && write(pair[1], "x", 1) == 1 && called(4));
    EXPECT_EQ((std::vector<uint32_t>{EPOLLOUT, EPOLLOUT, EPOLLOUT, EPOLLIN}), calls);
    EXPECT_EQ(std::vector<bool>{true}, armedWhileWriting);
    EXPECT_FALSE(loop.notifyWriteEventIfArmed(pair[0]));
    loop.stop();

    // A peer that reads nothing: ten yields, one more try after a second's
    // pause, then the unsent bytes are dropped and on the record.
    UnixIpcManager endpoint(true, 32768, "kavo_unused", IpcHandlerState(), "IpcFrameworkTest", cpus, 10, 32);
    while (send(pair[0], scratch.data(), 4096, MSG_DONTWAIT) > 0) {}
    BufferState buffer = SendBuffer();
    buffer.bufferDataCursor = 32768;
    EXPECT_FALSE(endpoint.ensureDataSend(pair[0], &buffer));
    EXPECT_TRUE(log.Contains("[UnixIpcManager] Socket buffer full! tryCount: 11", ANDROID_LOG_WARN) && !log.Contains("tryCount: 12") &&
                log.Contains("[UnixIpcManager] Clear send buffer"));
    EXPECT_TRUE(NewestLoss(1, "Send data 10 times failed. bufferCursor: 0, bufferDataCursor: 32768\n"));
    // Once the peer reads again, what is sent next reaches it.
    while (recv(pair[1], &scratch[0], scratch.size(), MSG_DONTWAIT) > 0) {}
    ASSERT_TRUE(buffer.bufferDataCursor == 0 && buffer.write("alive", 5));
    EXPECT_TRUE(endpoint.ensureDataSend(pair[0], &buffer) && recv(pair[1], &scratch[0], scratch.size(), 0) == 5);
    EXPECT_FALSE(kavo::test::PathExists("/data/kavolog"));
    for (int fd : pair) close(fd);
  });
}

// A producer thread may send a client's frames itself: what the socket takes
// goes at once without the loop, what it does not take the loop sends after
// it, and the peer reads every byte in the order the handler gave them.
TEST(IpcFramework, ASenderOnAnotherThreadSendsWhatFitsAndTheLoopTheRestInOrder) {
  kavo::test::RunInNamespace([] {
    std::mutex mutex;
    std::string pending;  // what the write handler hands out, as much as fits
    std::set<std::thread::id> writers;
    std::atomic<int> connection{-1};
    IpcHandlerState handlers;
    handlers.connectionHandler = [&](int fd) { return connection = fd, 0; };
    handlers.writeHandler = [&](int, BufferState* buffer) {
      std::lock_guard<std::mutex> guard(mutex);
      writers.insert(std::this_thread::get_id());
      const size_t n = std::min(pending.size(), buffer->freeRoom());
      buffer->write(pending.data(), n);
      pending.erase(0, n);
      return 0;
    };
    Endpoint endpoint;
    ASSERT_TRUE(endpoint.Start("kavo_try_write", handlers));
    UnixIpcManager& server = *endpoint.server;
    kavo::test::RawClient& client = endpoint.client;
    ASSERT_TRUE(kavo::test::WaitUntil([&] { return connection >= 0; }));
    auto receive = [&](size_t bytes) {
      std::string got(bytes, '\0');
      for (size_t at = 0; at < bytes;) {
        ssize_t n = recv(client.fd(), &got[at], bytes - at, 0);
        if (n <= 0) break;
        at += static_cast<size_t>(n);
      }
      return got;
    };
    pending = "a few frames";
    EXPECT_TRUE(server.tryWriteDataNow(connection));
    EXPECT_EQ("a few frames", receive(12));
    EXPECT_EQ(std::set<std::thread::id>{std::this_thread::get_id()}, writers) << "the loop was not needed";

    std::string stream(1 << 20, '\0');
    for (size_t i = 0; i < stream.size(); ++i) stream[i] = static_cast<char>(i % 251);
    pending = stream;
    EXPECT_FALSE(server.tryWriteDataNow(connection)) << "a megabyte does not fit a socket";
    EXPECT_EQ(stream, receive(stream.size()));
    EXPECT_EQ(2u, writers.size()) << "the loop sent the rest";
    server.stop();
  });
}

// A connection's read buffer starts small and grows as the bytes demand: a
// burst of small frames larger than the first storage, frames one byte
// below and at the buffer size, arrive whole and in order. (One byte above
// is dropped whatever the storage: FramesUpToTheBufferSize, and on the
// service's socket ClientBadInput.)
TEST(IpcFramework, AReadBufferGrowsToTheLargestFrame) {
  kavo::test::RunInNamespace([] {
    std::mutex mutex;
    std::vector<std::string> bodies;
    IpcHandlerState handlers;
    handlers.compactReadBuffer = true;
    handlers.readHandler = [&](int, BufferState* buffer) {
      std::lock_guard<std::mutex> guard(mutex);
      for (unsigned header = 0, size = 0; CheckIpcPackageComplete(buffer, &header, &size);) {
        const char* body = buffer->read(header) != nullptr ? buffer->read(size) : nullptr;
        if (body == nullptr) return -1;
        bodies.emplace_back(body, size);
      }
      return 0;
    };
    auto arrived = [&](size_t n) {
      return kavo::test::WaitUntil([&] { std::lock_guard<std::mutex> g(mutex); return bodies.size() >= n; });
    };
    Endpoint endpoint;
    ASSERT_TRUE(endpoint.Start("kavo_grow", handlers));
    kavo::test::RawClient& client = endpoint.client;

    std::vector<std::string> sent;
    std::string wire;
    for (int i = 0; i < 400; ++i) sent.push_back(std::to_string(i) + std::string(i % 37, char('a' + i % 26)));
    for (size_t size : {32763u, 32764u}) {
      sent.emplace_back(size, '\0');
      for (size_t at = 0; at < size; ++at) sent.back()[at] = char(at % 253);
    }
    sent.push_back("last of the burst");
    for (const std::string& body : sent) wire += kavo::test::RawFrame(body);
    ASSERT_GT(wire.size(), 2 * BufferState::kInitialStorage + 2 * 32768);
    ASSERT_TRUE(client.Send(wire) && arrived(sent.size()));
    endpoint.server->stop();
    EXPECT_TRUE(bodies == sent);
  });
}

}  // namespace
