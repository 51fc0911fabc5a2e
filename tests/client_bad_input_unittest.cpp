// Clients that send the service what it never asked for: garbage, sizes no
// buffer can hold, frames that stop half way, packages and event types it
// does not know, and frames whose inner sizes contradict their frame. What
// can be dropped costs only its own bytes, logged and recorded; a frame that
// passes the completeness check with a lying inner size ends the service on
// its fatal check, as the framing's invariants require.

#include <signal.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <android-base/properties.h>

#include <chrono>
#include <random>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "support/ipc_test_server.h"
#include "support/log_capture.h"
#include "support/harness.h"
#include "support/wire.h"
#include "service/kavo_bpf_error_log.h"
#include "service/kavo_bpf_event_manager.h"
#include "service/kavo_bpf_service.h"
#include "support/processes.h"
#include "utils/kavo_bpf_file.h"
#include "support/wait_until.h"

namespace Kavo::Bpf {
namespace {

using namespace std::chrono_literals;
using kavo::test::WaitUntil;
using kavo::test::AsResponse;
using kavo::test::PackageFrame;
using kavo::test::RawClient;
using kavo::test::RawFrame;
using kavo::test::RequestFrame;

// The service with its endpoint up and the kernel side not ready.
void StartService() {
  android::base::SetProperty("sys.kavo_bpf_ready", "0");
  ASSERT_TRUE(BpfServiceMain());
}

std::string U32(uint32_t value) { return std::string(reinterpret_cast<const char*>(&value), 4); }

std::string Record(uint32_t type, size_t size = 32) {
  std::string record(size, '\0');
  memcpy(&record[0], &type, 4);
  return record;
}

bool ErrorLogHas(const std::string& text) {
  return kavo::test::ReadFile(KAVO_ERROR_LOG_PATH).find(text) != std::string::npos;
}

size_t OpenDescriptors() {
  size_t count = 0;
  ForEachDirEntry("/proc/self/fd", [&count](const char* name) {
    if (name[0] != '.') ++count;
    return LineAction::kContinue;
  });
  return count;
}

// The next response on |client|, skipping events.
std::optional<kavo::test::Response> NextResponse(RawClient& client) {
  while (auto frame = client.ReadFrame(2s)) {
    if (auto response = AsResponse(*frame)) return response;
  }
  return std::nullopt;
}

TEST(ClientBadInput, GarbageAndHugeSizesCostOnlyTheirOwnBytes) {
  kavo::test::RunInNamespace([] {
    StartService();
    kavo::test::LogCapture log;
    RawClient noisy, bystander;
    ASSERT_TRUE(noisy.Connect());
    ASSERT_TRUE(bystander.Connect());
    ASSERT_TRUE(bystander.Send(RequestFrame(1, 51, KAVO_EVENT_CGROUP_ATTACH)));
    ASSERT_TRUE(NextResponse(bystander));

    // 300 bytes of noise whose first word announces far more than a buffer holds.
    std::mt19937 random(9);
    std::string noise = U32(0xA5A5A5A5);
    while (noise.size() < 300) noise += static_cast<char>(random());
    ASSERT_TRUE(noisy.Send(noise));
    EXPECT_TRUE(WaitUntil([] { return ErrorLogHas("packageSize: 2779096489, cursor: 0, data: 300, bufferSize: 32768, Buffer hexdump: a5 a5 a5 a5 "); }));
    // One byte more than the buffer, and a size that wraps the 32-bit total.
    ASSERT_TRUE(noisy.Send(U32(32765)));
    EXPECT_TRUE(WaitUntil([] { return ErrorLogHas("ErrorCode: 2\nError: Ipc package damage, packageSize: 32769, cursor: 0, data: 4,"); }));
    ASSERT_TRUE(noisy.Send(U32(0xFFFFFFFD)));
    EXPECT_TRUE(WaitUntil([] { return ErrorLogHas("ErrorCode: 2\nError: Ipc package damage, packageSize: 1, cursor: 0, data: 4,"); }));
    EXPECT_EQ(3u, log.Count("Ipc package too big or damage, clear buffer.", ANDROID_LOG_ERROR));

    // The noisy connection is kept and its next request answered; the
    // bystander noticed nothing.
    ASSERT_TRUE(noisy.Send(RequestFrame(9, 51, KAVO_EVENT_CGROUP_ATTACH)));
    auto response = NextResponse(noisy);
    ASSERT_TRUE(response);
    EXPECT_EQ(9u, response->reqId);
    EXPECT_EQ(0, response->result);
    std::string record = Record(KAVO_EVENT_CGROUP_ATTACH);
    EventManager::GetInstance()->AppendEvent(&record[0], static_cast<unsigned>(record.size()));
    EXPECT_EQ(record, noisy.ReadEvent(2s).value_or(""));
    EXPECT_EQ(record, bystander.ReadEvent(2s).value_or(""));
  });
}

TEST(ClientBadInput, FramesThatStopHalfWay) {
  kavo::test::RunInNamespace([] {
    StartService();
    KavoBpfService* service = KavoBpfService::GetInstance();
    {
      RawClient first;  // the endpoint is up once it accepts someone
      ASSERT_TRUE(first.Connect());
      ASSERT_TRUE(WaitUntil([&] { return service->getClientQueueLengths().size() == 1; }));
    }
    ASSERT_TRUE(WaitUntil([&] { return service->getClientQueueLengths().empty(); }));
    const size_t descriptors = OpenDescriptors();
    const std::string request = RequestFrame(1, 51, KAVO_EVENT_PROCESS_CREATED);

    // Ten bytes of a request, then silence: nobody else waits for the rest.
    RawClient halting, other;
    ASSERT_TRUE(halting.Connect());
    ASSERT_TRUE(halting.Send(request.substr(0, 10)));
    ASSERT_TRUE(other.Connect());
    ASSERT_TRUE(other.Send(RequestFrame(2, 51, KAVO_EVENT_PROCESS_CREATED)));
    auto answered = NextResponse(other);
    ASSERT_TRUE(answered);
    EXPECT_EQ(2u, answered->reqId);
    // The rest arrives much later: the kept half makes a whole request.
    std::this_thread::sleep_for(300ms);
    ASSERT_TRUE(halting.Send(request.substr(10)));
    answered = NextResponse(halting);
    ASSERT_TRUE(answered);
    EXPECT_EQ(1u, answered->reqId);
    EXPECT_EQ(0, answered->result);

    // A client that leaves in the middle of a frame leaves nothing behind.
    {
      RawClient leaving;
      ASSERT_TRUE(leaving.Connect());
      ASSERT_TRUE(WaitUntil([&] { return service->getClientQueueLengths().size() == 3; }));
      ASSERT_TRUE(leaving.Send(request.substr(0, 13)));
    }
    EXPECT_TRUE(WaitUntil([&] { return service->getClientQueueLengths().size() == 2; }));
    std::string record = Record(KAVO_EVENT_PROCESS_CREATED);
    EventManager::GetInstance()->AppendEvent(&record[0], static_cast<unsigned>(record.size()));
    EXPECT_TRUE(halting.ReadEvent(2s));
    EXPECT_TRUE(other.ReadEvent(2s));

    halting.Close();
    other.Close();
    EXPECT_TRUE(WaitUntil([&] { return service->getClientQueueLengths().empty(); }));
    EXPECT_TRUE(EventManager::GetInstance()->observersOf(KAVO_EVENT_PROCESS_CREATED).empty());
    EXPECT_TRUE(WaitUntil([&] { return OpenDescriptors() == descriptors; }))
        << OpenDescriptors() << " open, " << descriptors << " before";
  });
}

TEST(ClientBadInput, PackagesAndEventTypesTheServiceDoesNotKnow) {
  kavo::test::RunInNamespace([] {
    StartService();
    RawClient client;
    ASSERT_TRUE(client.Connect());
    // Packages only the service sends (a response, an event), the reserved
    // type, a type that does not exist, a frame too short for a package
    // header and an empty one: all ignored, none answered.
    ASSERT_TRUE(client.Send(PackageFrame(KAVO_IPC_RESPONSE, U32(5) + U32(0) + U32(0)) +
                            PackageFrame(KAVO_IPC_RAW_EVENT, Record(KAVO_EVENT_TASK_CREATE)) +
                            PackageFrame(KAVO_IPC_RESERVED, "reserved") + PackageFrame(9, "nine") +
                            RawFrame("ab") + RawFrame("")));
    // A subscription to an event type nothing produces is accepted; the
    // first thing to come back is its answer.
    ASSERT_TRUE(client.Send(RequestFrame(4, 51, 4242)));
    auto frame = client.ReadFrame(2s);
    ASSERT_TRUE(frame && AsResponse(*frame));
    EXPECT_EQ(4u, AsResponse(*frame)->reqId);
    EXPECT_EQ(0, AsResponse(*frame)->result);
    // Such a record never gets past the dispatcher.
    std::string record = Record(4242);
    EXPECT_EQ(-1, KavoBpfService::handleBpfRingBuffEvent(nullptr, &record[0], static_cast<unsigned>(record.size())));
    EXPECT_FALSE(client.ReadFrame(300ms));
    // And the connection is as good as new.
    ASSERT_TRUE(client.Send(RequestFrame(5, 51, KAVO_EVENT_FD_UPDATE)));
    auto response = NextResponse(client);
    ASSERT_TRUE(response);
    EXPECT_EQ(5u, response->reqId);
  });
}

// Runs kavobpfd, sends it |frame| and expects it to end on |check|.
void ExpectFatalCheck(const std::string& frame, const std::string& check) {
  kavo::test::ChildProcess daemon({kavo::test::ToolPath("kavobpfd"), "--prop", "sys.kavo_bpf_ready=0"});
  RawClient client;
  ASSERT_TRUE(client.Connect(kavo::test::kServiceSocket, 10s)) << daemon.Output();
  ASSERT_TRUE(client.Send(frame));
  int status = 0;
  ASSERT_TRUE(daemon.WaitExit(5s, &status)) << "still running\n" << daemon.Output();
  EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT) << daemon.Output();
  EXPECT_NE(std::string::npos, daemon.Output().find(check)) << daemon.Output();
}

TEST(ClientBadInput, InnerSizesThatContradictTheFrameEndTheServiceOnItsCheck) {
  kavo::test::RunInNamespace([] {
    // A 12-byte frame whose package header claims 100 bytes of body.
    ExpectFatalCheck(U32(12) + U32(KAVO_IPC_REQUEST) + U32(100) + U32(0),
                     "Check failed: packagePtr->size == size - sizeof(KavoIpcSecondLevelPackageHeader)");
    // A subscription whose request header claims 8 bytes of data, with 4 there.
    ExpectFatalCheck(U32(24) + U32(KAVO_IPC_REQUEST) + U32(16) + U32(1) + U32(51) + U32(8) + U32(2),
                     "Check failed: ((KavoReqIpcPackageHeader*)data)->dataSize == size - "
                     "sizeof(KavoReqIpcPackageHeader)");
  });
}

}  // namespace
}  // namespace Kavo::Bpf
