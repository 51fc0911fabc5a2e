// The service's side of the client protocol, in-process over its real
// socket, with the test playing the ring monitors (AppendEvent): clients that
// subscribe, unsubscribe and leave; clients that send garbage, frames too big,
// halves of frames and packages the service never asked for; frames whose
// inner sizes lie; and kavobpf_client printing what arrives.

#include <android-base/properties.h>

#include <gtest/gtest.h>

#include "service/kavo_bpf_error_log.h"
#include "service/kavo_bpf_event_manager.h"
#include "service/kavo_bpf_service.h"
#include "support/harness.h"
#include "support/log_capture.h"
#include "support/processes.h"
#include "support/wait_until.h"
#include "support/wire.h"

namespace Kavo::Bpf {
namespace {

using namespace std::chrono_literals;
using namespace kavo::test;

// The endpoint up, the kernel side not ready: nothing but the test produces events.
void StartService() {
  android::base::SetProperty("sys.kavo_bpf_ready", "0");
  ASSERT_TRUE(BpfServiceMain());
}

// A record of |size| bytes: its type, then its sequence number where a payload begins.
std::string Record(uint32_t type, uint32_t sequence, size_t size = 32) {
  return U32(type) + std::string(12, '\0') + U32(sequence) + std::string(size - 20, '\0');
}

void Publish(std::string record) { EventManager::GetInstance()->AppendEvent(&record[0], unsigned(record.size())); }

// The next frames on |client| are the answers {reqId, result} in this order.
void ExpectAnswers(RawClient& client, std::vector<std::pair<uint32_t, int32_t>> answers) {
  for (auto [reqId, result] : answers) {
    auto frame = client.ReadFrame(5s);  // 24 bytes: size, type 1, size 12, reqId, result, no data
    EXPECT_TRUE(frame && frame->type == 1 && frame->body == U32(reqId) + U32(uint32_t(result)) + U32(0)) << reqId;
  }
}

TEST(ClientService, SubscribersGetTheirEventsUntilTheyUnsubscribeOrLeave) {
  RunInNamespace([] {
    StartService();
    auto clients = [] { return KavoBpfService::GetInstance()->getClientQueueLengths().size(); };
    // One leaves without a word (and the first client's costs are paid before counting).
    ASSERT_TRUE(RawClient().Connect() && WaitUntil([&] { return clients() == 1; }));
    ASSERT_TRUE(WaitUntil([&] { return clients() == 0; }));
    const size_t descriptors = OpenDescriptors(getpid());

    // b stops half way through its request; a is served meanwhile, then the
    // rest of b's request arrives and makes it whole. c will leave in the
    // middle of a request.
    RawClient a, b, c;
    ASSERT_TRUE(a.Connect() && b.Connect() && c.Connect() && c.Send(RequestFrame(1, 51, KAVO_EVENT_RSS_STAT).substr(0, 13)));
    const std::string bRequest = RequestFrame(2, 51, KAVO_EVENT_RSS_STAT);
    ASSERT_TRUE(b.Send(bRequest.substr(0, 10)) && a.Send(RequestFrame(7, 51, KAVO_EVENT_RSS_STAT)));
    ExpectAnswers(a, {{7, 0}});
    ASSERT_TRUE(b.Send(bRequest.substr(10)));
    ExpectAnswers(b, {{2, 0}});
    for (uint32_t i = 0; i < 3; ++i) Publish(Record(KAVO_EVENT_RSS_STAT, i));
    Publish(Record(KAVO_EVENT_TASK_CREATE, 3));  // nobody asked for it
    for (RawClient* client : {&a, &b}) {
      for (uint32_t i = 0; i < 3; ++i) EXPECT_EQ(Record(KAVO_EVENT_RSS_STAT, i), client->ReadEvent(5s).value_or("none"));
    }

    // Many requests in one read, answered in order: an unsubscription, a
    // code nobody knows and a subscription without its event type (both
    // refused, changing nothing), a type subscribed twice and unsubscribed once.
    ASSERT_TRUE(a.Send(RequestFrame(10, 52, KAVO_EVENT_RSS_STAT) + RequestFrame(11, 7, KAVO_EVENT_CGROUP_ATTACH) +
                       PackageFrame(0, U32(12) + U32(51) + U32(0)) + RequestFrame(13, 51, KAVO_EVENT_TASK_CREATE) +
                       RequestFrame(14, 51, KAVO_EVENT_TASK_CREATE) + RequestFrame(15, 52, KAVO_EVENT_TASK_CREATE) +
                       RequestFrame(16, 51, KAVO_EVENT_CGROUP_ATTACH)));
    ExpectAnswers(a, {{10, 0}, {11, -1}, {12, -1}, {13, 0}, {14, 0}, {15, 0}, {16, 0}});
    for (uint32_t type : {KAVO_EVENT_RSS_STAT, KAVO_EVENT_TASK_CREATE, KAVO_EVENT_CGROUP_ATTACH}) Publish(Record(type, 4, 112));
    EXPECT_EQ(Record(KAVO_EVENT_CGROUP_ATTACH, 4, 112), a.ReadEvent(5s).value_or("none"));
    EXPECT_EQ(Record(KAVO_EVENT_RSS_STAT, 4, 112), b.ReadEvent(5s).value_or("none"));

    // Leaving takes the queue, the descriptor and every subscription with it.
    const std::vector<int> aFd = EventManager::GetInstance()->observersOf(KAVO_EVENT_CGROUP_ATTACH);
    ASSERT_EQ(1u, aFd.size());
    for (RawClient* client : {&a, &b, &c}) client->Close();
    ASSERT_TRUE(WaitUntil([&] { return clients() == 0 && OpenDescriptors(getpid()) == descriptors; }));
    EXPECT_FALSE(EventManager::GetInstance()->hasObserverEntry(aFd[0]));
    for (int type : {KAVO_EVENT_RSS_STAT, KAVO_EVENT_CGROUP_ATTACH}) EXPECT_TRUE(EventManager::GetInstance()->observersOf(type).empty());
  });
}

TEST(ClientBadInput, DamagedFramesAndStrangePackagesCostOnlyTheirOwnBytes) {
  RunInNamespace([] {
    StartService();
    LogCapture log;
    RawClient noisy, bystander;
    ASSERT_TRUE(noisy.Connect() && bystander.Connect() && bystander.Send(RequestFrame(1, 51, KAVO_EVENT_CGROUP_ATTACH)));
    ExpectAnswers(bystander, {{1, 0}});

    // Garbage announcing 2.7 GB drops what is buffered, on the record (the
    // sizes around the buffer's own are the framework's story).
    ASSERT_TRUE(noisy.Send(U32(0xA5A5A5A5) + std::string(296, '\x5a')));
    EXPECT_TRUE(WaitUntil([] {
      return ReadFile(KAVO_ERROR_LOG_PATH).find("ErrorCode: 2\nError: Ipc package damage, packageSize: 2779096489, cursor: 0, data: 300, "
                                                "bufferSize: 32768, Buffer hexdump: a5 a5 a5 a5 ") != std::string::npos;
    }));
    EXPECT_EQ(1u, log.Count("Ipc package too big or damage, clear buffer.", ANDROID_LOG_ERROR));

    // Packages only the service sends, the reserved type, a type that does
    // not exist, frames too short for a package header: ignored, unanswered.
    ASSERT_TRUE(noisy.Send(PackageFrame(1, U32(5) + U32(0) + U32(0)) + PackageFrame(3, Record(KAVO_EVENT_TASK_CREATE, 0)) +
                           PackageFrame(2, "reserved") + PackageFrame(9, "nine") + RawFrame("ab") + RawFrame("") +
                           RequestFrame(4, 51, 4242) + RequestFrame(5, 51, KAVO_EVENT_CGROUP_ATTACH)));
    // A type nothing produces is accepted (the dispatcher refuses such records).
    ExpectAnswers(noisy, {{4, 0}, {5, 0}});
    Publish(Record(KAVO_EVENT_CGROUP_ATTACH, 8));
    for (RawClient* c : {&noisy, &bystander}) EXPECT_EQ(Record(KAVO_EVENT_CGROUP_ATTACH, 8), c->ReadEvent(5s).value_or("none"));
  });
}

// Starts the service in this (death-test) process and sends it |frame|.
void SendToService(const std::string& frame) {
  StartService();
  RawClient client;
  if (client.Connect() && client.Send(frame)) client.ReadFrame(10s);
}

TEST(ClientBadInput, InnerSizesThatContradictTheFrameEndTheServiceOnItsCheck) {
  RunInNamespace([] {
    // A 12-byte frame whose package header claims 100 bytes of body; a
    // subscription whose request header claims 8 bytes of data, with 4 there.
    EXPECT_DEATH(SendToService(U32(12) + U32(0) + U32(100) + U32(0)),
                 "Check failed: packagePtr->size == size - sizeof\\(KavoIpcSecondLevelPackageHeader\\)");
    EXPECT_DEATH(SendToService(PackageFrame(0, U32(1) + U32(51) + U32(8) + U32(2))),
                 "Check failed: \\(\\(KavoReqIpcPackageHeader\\*\\)data\\)->dataSize == size - sizeof\\(KavoReqIpcPackageHeader\\)");
  });
}

TEST(ClientService, KavobpfClientPrintsWhatArrives) {
  const std::string tool = ToolPath("kavobpf_client");
  RunInNamespace([tool] {
    // A wrong event name, then no service to answer.
    for (auto [events, code, says] : {std::tuple{"no_such_event", 2, "Usage: kavobpf_client"},
                                      {"1", 1, "no service answered on /mnt/bpfframework/kavobpfdispatcher within 1 s"}}) {
      auto run = RunCommand({tool, "--events", events, "--connect-timeout", "1"}, 10);
      EXPECT_TRUE(run.exitCode == code && run.output.find(says) != std::string::npos) << run.output;
    }

    StartService();
    ASSERT_TRUE(RawClient().Connect());  // listening: a refused first try would cost the tools 5 s
    ChildProcess text({tool, "--events", "kmem_rss_info,process_created,99999", "--count", "4"});
    ChildProcess json({tool, "--events", "50002", "--json", "--duration", "1"});
    for (auto* client : {&text, &json}) ASSERT_TRUE(client->WaitForOutput("kavobpf_client: subscribed")) << client->Output();
    kavo_rss_event rss = {{KAVO_EVENT_RSS_STAT, 0, 123456789}, 4321, KAVO_RSS_ANON, 8192};
    kavo_process_created_event created = {KAVO_EVENT_PROCESS_CREATED, 77, 1, 10001, "my \"app\""};
    kavo_process_exited_event exited = {KAVO_EVENT_PROCESS_EXITED, 88, "qu\"ote\\sl"};
    auto bytes = [](const auto& record, size_t size) { return std::string(reinterpret_cast<const char*>(&record), size); };
    // The last RSS record is cut short: shown as hex, not misread. The third is of type 99999.
    for (const std::string& record : {bytes(rss, sizeof(rss)), bytes(created, sizeof(created)), std::string("\x9f\x86\x01\x00\x01\x02", 6),
                                      bytes(rss, 20), bytes(exited, sizeof(exited))}) Publish(record);
    int status = -1;
    for (auto* client : {&text, &json}) EXPECT_TRUE(client->WaitExit(5s, &status) && status == 0) << client->Output();
    for (const char* line :
         {"kmem_rss_info time_ns=123456789 pid=4321 member=anon size_kib=8KiB\n", "process_created pid=77 ppid=1 uid=10001 comm=my \"app\"\n",
          "type=99999 size=6 hex=9f 86 01 00 01 02 \n", "kmem_rss_info time_ns=123456789 size=20 hex=01 00",
          "kavobpf_client: 4 events (kmem_rss_info: 2, process_created: 1, 99999: 1); subscriptions: 3 accepted, 0 refused (result -1)"}) {
      EXPECT_NE(std::string::npos, text.Output().find(line)) << text.Output();
    }
    for (const char* part : {"{\"type\":50002,\"name\":\"process_exited\",\"recv_ns\":", ",\"pid\":88,\"comm\":\"qu\\\"ote\\\\sl\"}\n"})
      EXPECT_NE(std::string::npos, json.Output().find(part)) << json.Output();
  });
}

}  // namespace
}  // namespace Kavo::Bpf
