// Clients of the service over its real socket: subscribing, being refused,
// receiving events, leaving, and reading too slowly.

#include <android-base/properties.h>
#include <string.h>
#include <sys/epoll.h>

#include <android-base/unique_fd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "support/harness.h"
#include "support/wire.h"
#include "service/kavo_bpf_error_log.h"
#include "service/kavo_bpf_event_manager.h"
#include "service/kavo_bpf_service.h"
#include "support/wait_until.h"

namespace Kavo::Bpf {
namespace {

using namespace std::chrono_literals;
using kavo::test::WaitUntil;
using kavo::test::AsResponse;
using kavo::test::RawClient;
using kavo::test::RequestFrame;

// The service with its endpoint up and the kernel side not ready: clients can
// talk to it, and the test plays the ring monitors by calling AppendEvent.
void StartService() {
  android::base::SetProperty("sys.kavo_bpf_ready", "0");
  ASSERT_TRUE(BpfServiceMain());
}

std::string Record(uint32_t type, uint32_t sequence, size_t size = 32) {
  std::string record(size, '\0');
  memcpy(&record[0], &type, 4);
  memcpy(&record[16], &sequence, 4);
  return record;
}

void Publish(const std::string& record) {
  std::string copy = record;
  EventManager::GetInstance()->AppendEvent(&copy[0], static_cast<unsigned>(copy.size()));
}

size_t Subscribers(int type) { return EventManager::GetInstance()->observersOf(type).size(); }

TEST(ClientService, SubscribeThenEventsArrive) {
  kavo::test::RunInNamespace([] {
    StartService();
    RawClient client;
    ASSERT_TRUE(client.Connect());
    ASSERT_TRUE(client.Send(RequestFrame(7, 51, KAVO_EVENT_RSS_STAT)));
    auto frame = client.ReadFrame(2s);
    ASSERT_TRUE(frame);
    auto response = AsResponse(*frame);
    ASSERT_TRUE(response);
    EXPECT_EQ(7u, response->reqId);
    EXPECT_EQ(0, response->result);
    EXPECT_EQ(0u, response->dataSize);
    EXPECT_EQ(12u, frame->body.size());  // a 24-byte frame on the wire

    for (uint32_t i = 0; i < 3; ++i) Publish(Record(KAVO_EVENT_RSS_STAT, i));
    Publish(Record(KAVO_EVENT_TASK_CREATE, 99));  // not subscribed
    for (uint32_t i = 0; i < 3; ++i) {
      auto event = client.ReadEvent(2s);
      ASSERT_TRUE(event) << i;
      EXPECT_EQ(Record(KAVO_EVENT_RSS_STAT, i), *event);  // the record, unchanged
    }
    EXPECT_FALSE(client.ReadFrame(300ms));
  });
}

TEST(ClientService, RefusedAndDamagedRequests) {
  kavo::test::RunInNamespace([] {
    StartService();
    RawClient client;
    ASSERT_TRUE(client.Connect());
    // An unknown request code is answered with -1 and changes nothing.
    ASSERT_TRUE(client.Send(RequestFrame(1, 7, KAVO_EVENT_RSS_STAT)));
    auto frame = client.ReadFrame(2s);
    ASSERT_TRUE(frame && AsResponse(*frame));
    EXPECT_EQ(1u, AsResponse(*frame)->reqId);
    EXPECT_EQ(-1, AsResponse(*frame)->result);
    EXPECT_EQ(0u, Subscribers(KAVO_EVENT_RSS_STAT));

    // A subscription without its event type is refused, nothing read past it.
    std::string shortRequest;
    for (uint32_t v : {20u, 0u, 12u, 2u, 51u, 0u}) shortRequest.append(reinterpret_cast<char*>(&v), 4);
    ASSERT_TRUE(client.Send(shortRequest));
    frame = client.ReadFrame(2s);
    ASSERT_TRUE(frame && AsResponse(*frame));
    EXPECT_EQ(2u, AsResponse(*frame)->reqId);
    EXPECT_EQ(-1, AsResponse(*frame)->result);

    // The connection is still good for a real subscription.
    ASSERT_TRUE(client.Send(RequestFrame(3, 51, 50001)));
    frame = client.ReadFrame(2s);
    ASSERT_TRUE(frame && AsResponse(*frame));
    EXPECT_EQ(0, AsResponse(*frame)->result);
    EXPECT_EQ(1u, Subscribers(50001));
  });
}

TEST(ClientService, SubscribeAndUnsubscribeInOneRead) {
  kavo::test::RunInNamespace([] {
    StartService();
    RawClient client;
    ASSERT_TRUE(client.Connect());
    ASSERT_TRUE(client.Send(RequestFrame(10, 51, KAVO_EVENT_TASK_CREATE) +
                            RequestFrame(11, 52, KAVO_EVENT_TASK_CREATE)));
    for (uint32_t reqId : {10u, 11u}) {
      auto frame = client.ReadFrame(2s);
      ASSERT_TRUE(frame && AsResponse(*frame));
      EXPECT_EQ(reqId, AsResponse(*frame)->reqId);
      EXPECT_EQ(0, AsResponse(*frame)->result);
    }
    Publish(Record(KAVO_EVENT_TASK_CREATE, 1));
    EXPECT_FALSE(client.ReadFrame(300ms));
  });
}

TEST(ClientService, ClosedClientLeavesNothingBehind) {
  kavo::test::RunInNamespace([] {
    StartService();
    KavoBpfService* service = KavoBpfService::GetInstance();
    {
      RawClient idle;  // connects and closes without a word
      ASSERT_TRUE(idle.Connect());
      ASSERT_TRUE(WaitUntil([&] { return service->getClientQueueLengths().size() == 1; }));
    }
    ASSERT_TRUE(WaitUntil([&] { return service->getClientQueueLengths().empty(); }));

    RawClient a, b;
    ASSERT_TRUE(a.Connect());
    ASSERT_TRUE(b.Connect());
    for (RawClient* c : {&a, &b}) {
      ASSERT_TRUE(c->Send(RequestFrame(1, 51, KAVO_EVENT_CGROUP_ATTACH) + RequestFrame(2, 51, 50002)));
      ASSERT_TRUE(c->ReadFrame(2s));
      ASSERT_TRUE(c->ReadFrame(2s));
    }
    // Subscribers in the order they subscribed: an event is queued for and
    // handed to the first before the second. Both get it.
    std::vector<int> order = EventManager::GetInstance()->observersOf(KAVO_EVENT_CGROUP_ATTACH);
    ASSERT_EQ(2u, order.size());
    EXPECT_EQ(order, EventManager::GetInstance()->observersOf(50002));
    Publish(Record(KAVO_EVENT_CGROUP_ATTACH, 5, 112));
    EXPECT_TRUE(a.ReadEvent(2s));
    EXPECT_TRUE(b.ReadEvent(2s));

    a.Close();
    ASSERT_TRUE(WaitUntil([&] { return service->getClientQueueLengths().size() == 1; }));
    EXPECT_EQ(std::vector<int>{order[1]}, EventManager::GetInstance()->observersOf(KAVO_EVENT_CGROUP_ATTACH));
    EXPECT_EQ(std::vector<int>{order[1]}, EventManager::GetInstance()->observersOf(50002));
    EXPECT_FALSE(EventManager::GetInstance()->hasObserverEntry(order[0]));
    b.Close();
    ASSERT_TRUE(WaitUntil([&] { return service->getClientQueueLengths().empty(); }));
    EXPECT_EQ(0u, Subscribers(KAVO_EVENT_CGROUP_ATTACH));
    EXPECT_FALSE(EventManager::GetInstance()->hasObserverEntry(order[1]));
  });
}

// Subscribers are served in the order they subscribed: one thread queues and
// wakes them in that order and, from idle, the IPC thread sends in that
// order, so the first subscriber's socket becomes readable first. The test's own epoll
// instance, asked for one event at a time, reports sockets in the order they
// became readable.
TEST(ClientService, FirstSubscriberIsServedFirst) {
  kavo::test::RunInNamespace([] {
    StartService();
    RawClient early, late;  // connected in this order...
    ASSERT_TRUE(early.Connect());
    ASSERT_TRUE(late.Connect());
    int type = KAVO_EVENT_DMABUF_UPDATE;
    for (bool lateFirst : {false, true}) {
      // ...and subscribed in either order.
      RawClient* first = lateFirst ? &late : &early;
      RawClient* second = lateFirst ? &early : &late;
      for (RawClient* c : {first, second}) {
        ASSERT_TRUE(c->Send(RequestFrame(1, 51, type)));
        ASSERT_TRUE(c->ReadFrame(2s));
      }
      for (uint32_t round = 0; round < 20; ++round) {
        // Let the IPC thread finish the last round and drop its write
        // interests; a writer still awake from before could otherwise be
        // served the moment its package is queued.
        std::this_thread::sleep_for(20ms);
        // A fresh epoll instance each round: an old one keeps last round's
        // ready entries in its list, ahead of new arrivals.
        android::base::unique_fd epollFd(epoll_create1(EPOLL_CLOEXEC));
        for (RawClient* c : {first, second}) {
          epoll_event watch = {};
          watch.events = EPOLLIN;
          watch.data.fd = c->fd();
          ASSERT_EQ(0, epoll_ctl(epollFd.get(), EPOLL_CTL_ADD, c->fd(), &watch));
        }
        Publish(Record(type, round, 64));
        epoll_event ready = {};
        ASSERT_EQ(1, epoll_wait(epollFd.get(), &ready, 1, 2000));
        EXPECT_EQ(first->fd(), ready.data.fd) << "round " << round;
        ASSERT_TRUE(first->ReadEvent(2s));
        ASSERT_TRUE(second->ReadEvent(2s));
      }
      ++type;  // a fresh subscription list for the reversed order
    }
  });
}

}  // namespace
}  // namespace Kavo::Bpf
