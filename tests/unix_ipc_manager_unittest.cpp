// The endpoint over real sockets: clients that misbehave, stop reading or
// leave, producers on many threads, and a client whose server goes away.

#include <cutils/sockets.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "support/ipc_test_server.h"
#include "support/log_capture.h"
#include "support/harness.h"
#include "support/wire.h"
#include "support/ipc_error_capture.h"

namespace {

// What the framework loses, as its user would record it.
[[maybe_unused]] const bool kCapturing = (kavo::test::CaptureIpcErrors(), true);

using namespace std::chrono_literals;
using kavo::test::IpcTestServer;
using kavo::test::PackageFrame;
using kavo::test::RawClient;

// True when the peer closed |fd| (EOF within a few seconds).
bool PeerClosed(int fd) {
  struct pollfd pfd = {fd, POLLIN, 0};
  char chunk[4096];
  while (poll(&pfd, 1, 5000) == 1) {
    if (recv(fd, chunk, sizeof(chunk), MSG_DONTWAIT) <= 0) return true;
  }
  return false;
}

TEST(UnixIpcManager, AFailingReadHandlerClosesOnlyWhenAskedTo) {
  kavo::test::RunInNamespace([] {
    // Close on error: closed and freed, without the close handler, which is
    // told of hang-ups only.
    {
      IpcTestServer server("kavo_fail_close");
      RawClient client;
      ASSERT_TRUE(client.Connect("kavo_fail_close"));
      ASSERT_TRUE(client.Send(PackageFrame(0, "fail")));
      EXPECT_TRUE(PeerClosed(client.fd()));
      EXPECT_EQ(0u, server.Count("close:"));
      EXPECT_FALSE(server.endpoint().notifyNeedWriteData(server.fd()));
    }
    // Otherwise it stays open with its read buffer emptied: the frame behind
    // the failing one is lost, the next one arrives.
    kavo::test::LogCapture log;
    IpcTestServer server("kavo_fail_open", false);
    RawClient client;
    ASSERT_TRUE(client.Connect("kavo_fail_open"));
    ASSERT_TRUE(client.Send(PackageFrame(0, "fail") + PackageFrame(0, "lost")));
    ASSERT_TRUE(server.WaitFor("read"));
    ASSERT_TRUE(client.Send(PackageFrame(0, "next")));
    ASSERT_TRUE(server.WaitFor("pkg:next"));
    EXPECT_EQ(0u, server.Count("pkg:lost"));
    EXPECT_TRUE(log.Contains("[UnixIpcManager] Callback ipc read handler failed"));
    // When the client leaves, the close handler is told once.
    const int fd = server.fd();
    client.Close();
    ASSERT_TRUE(server.WaitFor("close:" + std::to_string(fd)));
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(1u, server.Count("close:"));
    EXPECT_FALSE(server.endpoint().notifyNeedWriteData(fd));
  });
}

TEST(UnixIpcManager, AClientThatStopsReadingLosesDataNotItsConnection) {
  kavo::test::RunInNamespace([] {
    kavo::test::LogCapture log;
    IpcTestServer server("kavo_stalled");
    RawClient client;
    ASSERT_TRUE(client.Connect("kavo_stalled"));
    ASSERT_TRUE(server.WaitFor("connect:"));
    // Far more than the socket holds, sent from this thread; the client reads nothing.
    std::vector<char> big(32764, 'p');
    for (int i = 0; i < 8; ++i) server.Queue(server.fd()).buildAndAppendIpcPackage(big.data(), 32764);
    EXPECT_FALSE(server.endpoint().writeDataNow(server.fd()));
    // Ten yields, then the last try after a second's pause.
    EXPECT_TRUE(log.Contains("[UnixIpcManager] Socket buffer full! tryCount: 11", ANDROID_LOG_WARN));
    EXPECT_FALSE(log.Contains("tryCount: 12"));
    EXPECT_TRUE(log.Contains("[UnixIpcManager] Clear send buffer"));
    std::string errors = kavo::test::RecordedIpcErrors();
    EXPECT_NE(std::string::npos, errors.find("ErrorCode: 1\nError: Send data 10 times failed. bufferCursor: "));
    EXPECT_NE(std::string::npos, errors.find(", bufferDataCursor: 32768\n"));

    // Once the client reads again, what is sent next reaches it.
    server.Send(server.fd(), KAVO_IPC_RAW_EVENT, "alive");
    std::string received;
    while (received.find("alive") == std::string::npos) {
      char chunk[65536];
      ssize_t n = recv(client.fd(), chunk, sizeof(chunk), 0);
      ASSERT_GT(n, 0);
      received.append(chunk, static_cast<size_t>(n));
    }
    EXPECT_EQ(0u, server.Count("close:"));
  });
}

TEST(UnixIpcManager, ProducersOnManyThreadsKeepFramesWhole) {
  kavo::test::RunInNamespace([] {
    IpcTestServer server("kavo_producers");
    RawClient client;
    ASSERT_TRUE(client.Connect("kavo_producers"));
    ASSERT_TRUE(server.WaitFor("connect:"));
    const int fd = server.fd();
    // Half the producers leave the sending to the loop, half send themselves.
    constexpr uint32_t kThreads = 4, kEach = 500;
    std::vector<std::thread> producers;
    for (uint32_t t = 0; t < kThreads; ++t) {
      producers.emplace_back([&, t] {
        for (uint32_t i = 0; i < kEach; ++i) {
          uint32_t record[2] = {t, i};
          server.Queue(fd).buildAndAppendSecondIpcPackage(3, reinterpret_cast<char*>(record), 8);
          t % 2 == 0 ? server.endpoint().notifyNeedWriteData(fd) : server.endpoint().writeDataNow(fd);
        }
      });
    }
    std::vector<uint32_t> next(kThreads, 0);
    for (uint32_t n = 0; n < kThreads * kEach; ++n) {
      auto event = client.ReadEvent(10s);
      ASSERT_TRUE(event && event->size() == 8) << "event " << n;
      uint32_t record[2];
      memcpy(record, event->data(), 8);
      ASSERT_LT(record[0], kThreads);
      EXPECT_EQ(next[record[0]]++, record[1]);  // each producer's events in order
    }
    for (std::thread& producer : producers) producer.join();
  });
}

TEST(UnixIpcManager, TheClientRoleReconnectsWhenTheServerComesBack) {
  kavo::test::RunInNamespace([] {
    kavo::test::LogCapture log;
    std::atomic<int> responses{0}, connects{0}, closes{0};
    IpcPackageHandler packages({{KAVO_IPC_RESPONSE, [&](int, char*, unsigned) {
                                   ++responses;
                                   return 0;
                                 }}});
    IpcHandlerState handlers;
    handlers.readHandler = [&](int fd, BufferState* buffer) {
      return packages.handleAllIpcPackageInBuffer(fd, buffer) == 0 ? -1 : 0;
    };
    handlers.connectionHandler = [&](int) { return ++connects; };
    handlers.closeHandler = [&](int) { return ++closes; };
    cpu_set_t cpus;
    CPU_ZERO(&cpus);
    CPU_SET(0, &cpus);
    UnixIpcManager clientEnd(false, 32768, "kavo_reconnect", handlers, "IpcTestClient", cpus, 10, 32);

    // No server yet: the client keeps trying every five seconds.
    ASSERT_TRUE(clientEnd.start());
    ASSERT_TRUE(log.WaitFor("[UnixIpcManager] Connect failed: 111, message: Connection refused, "
                            "clientFd: -1, Wait 5 senconds"));
    for (int round = 1; round <= 2; ++round) {
      SCOPED_TRACE(round);
      auto server = std::make_unique<IpcTestServer>("kavo_reconnect");
      ASSERT_TRUE(server->WaitFor("connect:"));
      server->Send(server->fd(), KAVO_IPC_RESPONSE, "hello");
      for (int i = 0; i < 5000 && (responses < round || connects < round); ++i) {
        std::this_thread::sleep_for(1ms);
      }
      EXPECT_EQ(round, connects.load());
      EXPECT_EQ(round, responses.load());
      server.reset();  // the server goes away, sockets and all
      ASSERT_TRUE(log.WaitFor("[UnixIpcManager][onClientCloseCallback] Server socket abnormal close! "
                              "(kavo_reconnect)", static_cast<size_t>(round)));
      EXPECT_EQ(round, closes.load());
    }
    // Destroying the endpoint ends its wait for a server that does not return.
  });
}

TEST(UnixIpcManager, ServersBindAbstractNamesClientsTryPathsFirst) {
  kavo::test::RunInNamespace([] {
    // No socket from init: the server binds the name in the abstract namespace.
    int server = CreateNonblockingServerSocket("/mnt/kavo_both");
    ASSERT_GE(server, 0);
    EXPECT_EQ(-1, CreateNonblockingServerSocket("/mnt/kavo_both"));  // taken
    int client = ConnectToServer("/mnt/kavo_both");  // nothing at the path: abstract
    ASSERT_GE(client, 0);
    int accepted = accept(server, nullptr, nullptr);
    EXPECT_GE(accepted, 0);
    for (int fd : {accepted, client}) close(fd);
    // Once a file-system socket stands at the path, clients go there.
    int pathServer = socket_local_server("/mnt/kavo_both", ANDROID_SOCKET_NAMESPACE_FILESYSTEM, SOCK_STREAM);
    client = ConnectToServer("/mnt/kavo_both");
    ASSERT_GE(client, 0);
    accepted = accept(pathServer, nullptr, nullptr);
    EXPECT_GE(accepted, 0);
    EXPECT_EQ(-1, accept(server, nullptr, nullptr));  // non-blocking, and nobody came
    for (int fd : {accepted, client, pathServer, server}) close(fd);
    EXPECT_EQ(-1, ConnectToServer("kavo_nobody"));
  });
}

}  // namespace
