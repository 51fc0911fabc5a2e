// What the ring dispatch does with one record, as a subscribed client and the
// state record see it: valid records reach their subscribers byte for byte
// and are counted; a record of an unknown type is counted nowhere, reaches
// nobody and fails the poll that delivered it.

#include <gtest/gtest.h>
#include <string.h>

#include <string>

#include "bpf/kavo_bpf_records.h"
#include "support/event_sink.h"
#include "support/log_capture.h"
#include "service/kavo_bpf_service.h"
#include "service/kavo_bpf_state.h"

namespace {

using Kavo::Bpf::KavoBpfDataState;
using Kavo::Bpf::KavoBpfService;

// Counter |type| of the current second of the service's state record.
uint32_t CountNow(int type) {
  KavoBpfDataState* state = KavoBpfDataState::GetInstance();
  return state->counterAt(state->newestSecond(), type);
}

TEST(RingDispatch, CgroupRecordOnlyReachesItsSubscribers) {
  KavoBpfService::GetInstance();
  kavo::test::EventSink cgroupClient({KAVO_EVENT_CGROUP_ATTACH});
  kavo::test::EventSink otherClient(
      {KAVO_EVENT_TASK_CREATE, KAVO_EVENT_PROCESS_CREATED, KAVO_EVENT_PROCESS_EXITED,
       KAVO_EVENT_THREAD_COUNT_CHANGED, KAVO_EVENT_MEMORY_CHANGED},
      1001);

  kavo_cgroup_attach_event record = {};
  record.header.type = KAVO_EVENT_CGROUP_ATTACH;
  record.header.time_ns = 123456789;
  record.pid = 4242;
  record.dst_level = 2;
  record.dst_id = 77;
  strcpy(record.comm, "surfaceflinger");
  strcpy(record.dst_path, "/top-app");
  uint32_t before = CountNow(KAVO_EVENT_CGROUP_ATTACH);

  EXPECT_EQ(0, KavoBpfService::handleBpfRingBuffEvent(nullptr, &record, sizeof(record)));

  EXPECT_EQ(before + 1, CountNow(KAVO_EVENT_CGROUP_ATTACH));
  auto received = cgroupClient.Drain();
  ASSERT_EQ(1u, received.size());
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(&record), sizeof(record)), received[0])
      << "clients get the record as the kernel wrote it";
  // No handler runs for it: nothing is derived, nothing else is forwarded.
  EXPECT_TRUE(otherClient.Drain().empty());
}

TEST(RingDispatch, UnknownTypeIsReportedAndGoesNowhere) {
  KavoBpfService::GetInstance();
  kavo::test::LogCapture log;
  kavo::test::EventSink client({9, KAVO_EVENT_CGROUP_ATTACH});
  uint32_t before[KavoBpfDataState::kCounters];
  for (int type = 0; type < KavoBpfDataState::kCounters; ++type) before[type] = CountNow(type);

  kavo_event_header record = {};
  record.type = 9;
  EXPECT_EQ(-1, KavoBpfService::handleBpfRingBuffEvent(nullptr, &record, sizeof(record)));
  EXPECT_TRUE(log.Contains("[KavoBpfService] handleEvent ERROR!!! Type: 9", ANDROID_LOG_ERROR));
  EXPECT_TRUE(client.Drain().empty());
  for (int type = 0; type < KavoBpfDataState::kCounters; ++type) {
    EXPECT_EQ(before[type], CountNow(type)) << "counter " << type;
  }

  // A record too short to hold a type is refused the same way, without a read past it.
  uint16_t stub = 5;
  EXPECT_EQ(-1, KavoBpfService::handleBpfRingBuffEvent(nullptr, &stub, sizeof(stub)));
  EXPECT_TRUE(log.Contains("[KavoBpfService] handleEvent ERROR!!! Size: 2", ANDROID_LOG_ERROR));
  EXPECT_TRUE(client.Drain().empty());
}

}  // namespace
