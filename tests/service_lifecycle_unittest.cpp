// Starting, holding, switching and stopping the service as a host does it,
// on a device that is not what it expects (no BPF file system, no writable
// /data), and what its ring dispatch and status check do with hand-made
// records and rings.

#include <android-base/properties.h>
#include <android/log.h>
#include <signal.h>
#include <string.h>
#include <sys/mount.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "support/event_sink.h"
#include "support/harness.h"
#include "support/kernel_stand_ins.h"
#include "support/log_capture.h"
#include "support/wait_until.h"
#include "support/wire.h"
#include "service/kavo_bpf_service.h"
#include "service/kavo_bpf_signals.h"
#include "service/kavo_bpf_state.h"

// The wall clock the service reads, held still by a test when it is set:
// the status check's 30-second rule is walked without waiting half a minute.
namespace {
std::atomic<time_t> gWallClock{0};
}  // namespace

extern "C" time_t time(time_t* out) noexcept {
  struct timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  time_t t = gWallClock.load() != 0 ? gWallClock.load() : now.tv_sec;
  if (out != nullptr) *out = t;
  return t;
}

namespace Kavo::Bpf {
namespace {

using namespace std::chrono_literals;
using kavo::test::LogCapture;
using kavo::test::ThreadNames;
using kavo::test::WaitUntil;

bool HasThread(const char* name) { return ThreadNames().find(std::string(name) + ",") != std::string::npos; }

// A client subscribes and is answered.
void ExpectServed(uint32_t reqId) {
  kavo::test::RawClient client;
  ASSERT_TRUE(client.Connect());
  ASSERT_TRUE(client.Send(kavo::test::RequestFrame(reqId, 51, KAVO_EVENT_TASK_CREATE)));
  auto frame = client.ReadFrame(2s);
  ASSERT_TRUE(frame && kavo::test::AsResponse(*frame));
  EXPECT_EQ(reqId, kavo::test::AsResponse(*frame)->reqId);
  EXPECT_EQ(0, kavo::test::AsResponse(*frame)->result);
}

void ExpectPromptStop() {
  auto before = std::chrono::steady_clock::now();
  KavoBpfService::GetInstance()->stop();
  EXPECT_EQ(0, KavoBpfService::GetInstance()->Wait());
  EXPECT_LT(std::chrono::steady_clock::now() - before, 2s);
  EXPECT_EQ(0, KavoBpfService::GetInstance()->Wait());  // again: at once
}

TEST(ServiceLifecycle, OnlyExactlyOneDisablesAndAStopEndsTheReadyWait) {
  kavo::test::RunInNamespace([] {
    android::base::SetProperty("persist.sys.stability.bpfframework.disable", "1");
    LogCapture log;
    EXPECT_FALSE(BpfServiceMain());
    EXPECT_TRUE(log.Contains("[BpfServiceMain] Starting KAVO Bpf Service disabled!", ANDROID_LOG_INFO));
    EXPECT_FALSE(HasThread("BpfServicePoll")) << ThreadNames();
    EXPECT_FALSE(kavo::test::PathExists("/data/kavolog/stability/kavobpfframework"));
  });
  for (const char* value : {"0", "", "true", "11"}) {
    kavo::test::RunInNamespace([value] {
      android::base::SetProperty("persist.sys.stability.bpfframework.disable", value);
      android::base::SetProperty("sys.kavo_bpf_ready", "0");
      LogCapture log;
      EXPECT_TRUE(BpfServiceMain()) << value;
      EXPECT_TRUE(log.Contains("[BpfServiceMain] Starting KAVO Bpf Service", ANDROID_LOG_INFO));
      EXPECT_TRUE(kavo::test::PathExists("/data/kavolog/stability/kavobpfframework"));
      ExpectServed(1);  // clients are served while the kernel side is not ready
      EXPECT_FALSE(log.Contains("Attach bpf prog start"));
      ExpectPromptStop();
      EXPECT_TRUE(WaitUntil([] { return !HasThread("BpfServicePoll"); }, 2s)) << ThreadNames();
    });
  }
}

// Without a BPF file system nothing is pinned and nothing can be: once the
// kernel side is reported ready, every step that needs it logs and is
// skipped, and the service keeps serving clients.
TEST(ServiceLifecycle, ReadyWithoutABpfFileSystem) {
  kavo::test::RunInNamespace([] {
    ASSERT_EQ(0, mount("tmpfs", "/sys/fs/bpf", "tmpfs", 0, "mode=0700")) << strerror(errno);
    android::base::SetProperty("sys.kavo_bpf_ready", "0");
    android::base::SetProperty("ro.kernel.version", "6.1");
    LogCapture log;
    ASSERT_TRUE(BpfServiceMain());
    ExpectServed(1);
    EXPECT_FALSE(log.Contains("Attach bpf prog start"));
    EXPECT_FALSE(HasThread("BpfServicePGpl")) << ThreadNames();

    android::base::SetProperty("sys.kavo_bpf_ready", "1");
    EXPECT_TRUE(log.WaitFor("Attach bpf prog start: KavoBpfDefineset"));
    EXPECT_TRUE(log.WaitFor("Attach bpf prog start: KavoBpfGplDefineset"));
    // Every program of both catalogues was looked for and counted missing.
    EXPECT_TRUE(log.WaitFor("[KavoBpfService][eventProduceThread] Attach all kavo bpf error: 5"));
    EXPECT_TRUE(log.WaitFor("[KavoBpfService][gpleventProduceThread] Attach all kavo bpf error: 7"));
    EXPECT_TRUE(log.Contains("[AttachTracepointProgram] Retrieve tracepoint prog failed: sched_sched_switch"));
    for (const char* monitor : {"eventMonitor", "gpleventMonitor"}) {
      EXPECT_TRUE(log.WaitFor(std::string("[KavoBpfService][") + monitor +
                              "] KAVOBPF: get ringbuf failed: No such file or directory, map fd: -1"));
    }
    EXPECT_TRUE(log.Contains("[KavoBpfService][InitBpfMap] get processInodeMap failed: No such file or directory"));
    EXPECT_TRUE(log.Contains("[KavoBpfService][eventProduceThread] Init bpf map failed"));
    EXPECT_FALSE(log.Contains("ring buf poll"));  // no monitor ever polled
    ExpectServed(2);
    ExpectPromptStop();
  });
}

TEST(ServiceLifecycle, WithoutAWritableDataDirectoryLossesAndDumpsOnlyReachTheLog) {
  kavo::test::RunInNamespace([] {
    ASSERT_EQ(0, umount2("/data", MNT_DETACH));
    ASSERT_EQ(0, mount("tmpfs", "/data", "tmpfs", MS_RDONLY, nullptr)) << strerror(errno);
    android::base::SetProperty("sys.kavo_bpf_ready", "1");
    LogCapture log;
    ASSERT_TRUE(BpfServiceMain());
    // The monitors install the dump signals before they look for their rings.
    ASSERT_TRUE(log.WaitFor("[KavoBpfService][eventMonitor] KAVOBPF: get ringbuf failed: "));
    ASSERT_TRUE(log.WaitFor("[KavoBpfService][gpleventMonitor] KAVOBPF: get ringbuf failed: "));

    // A damaged frame is lost as usual; its record only reaches the log.
    kavo::test::RawClient client;
    ASSERT_TRUE(client.Connect());
    const uint32_t tooBig = 40000;
    ASSERT_TRUE(client.Send(std::string(reinterpret_cast<const char*>(&tooBig), 4)));
    EXPECT_TRUE(log.WaitFor("failed to write /data/kavolog/stability/kavobpfframework/error.log, error: "));
    EXPECT_TRUE(log.Contains(
        "failed to read /data/kavolog/stability/kavobpfframework/error.log, error: No such file or directory"));
    ExpectServed(3);

    // Signals 50 to 54: the state record and the dumps of all tasks say why
    // they wrote nothing, the filtered dumps stay silent, the process lives.
    for (int signal = kSignalDumpState; signal <= kSignalDumpNonKernelTasksNormal; ++signal) {
      uint64_t served = CompletedDumps();
      ASSERT_EQ(0, kill(getpid(), signal));
      EXPECT_TRUE(WaitUntil([served] { return CompletedDumps() > served; })) << "signal " << signal;
    }
    EXPECT_EQ(1u, log.Count("[KavoBpfDataState][DumpState] open file failed!", ANDROID_LOG_ERROR));
    EXPECT_EQ(2u, log.Count("failed to dump kavo task, error: ", ANDROID_LOG_ERROR));
    EXPECT_FALSE(kavo::test::PathExists("/data/kavolog"));
    ExpectServed(4);
    ExpectPromptStop();
  });
}

TEST(ServiceLifecycle, RingSwitchesAndTheThrottledStatusCheck) {
  kavo::test::RunInNamespace([] {
    KavoBpfService* service = KavoBpfService::GetInstance();
    EXPECT_FALSE(service->enableCoreBpf(0, true));  // no status map yet
    std::string why;
    if (!kavo::test::PinRingMaps(&why)) KAVO_KERNEL_SKIP(why);
    const std::string& ring0 = KavoBpfService::RINGBUF_STATUS_PATH[0];
    const std::string& ring1 = KavoBpfService::RINGBUF_STATUS_PATH[1];

    // The kernel side's full bit and an unused bit survive the switches.
    ASSERT_TRUE(kavo::test::WriteControlWord(ring0, 0x1 | 0x40));
    EXPECT_TRUE(service->enableCoreBpf(0, true));
    EXPECT_EQ(0x1 | 0x40 | 0x2, kavo::test::ReadControlWord(ring0));
    EXPECT_TRUE(service->enableNormalBpf(0, true));
    EXPECT_EQ(0x1 | 0x40 | 0x2 | 0x4, kavo::test::ReadControlWord(ring0));
    EXPECT_TRUE(service->enableCoreBpf(0, false));
    EXPECT_EQ(0x1 | 0x40 | 0x4, kavo::test::ReadControlWord(ring0));
    EXPECT_EQ(0, kavo::test::ReadControlWord(ring1));  // the other ring is untouched
    EXPECT_TRUE(service->enableNormalBpf(1, true));
    EXPECT_EQ(0x4, kavo::test::ReadControlWord(ring1));
    for (int ring : {-1, 2}) {
      EXPECT_FALSE(service->enableCoreBpf(ring, true));
      EXPECT_FALSE(service->enableNormalBpf(ring, true));
      EXPECT_FALSE(service->checkBpfRingBuffStatus(ring, true));
    }
    // Two threads flipping different bits never lose each other's.
    std::thread core([service] {
      for (int i = 0; i < 500; ++i) service->enableCoreBpf(1, i % 2 == 0);
    });
    std::thread normal([service] {
      for (int i = 0; i < 500; ++i) service->enableNormalBpf(1, true);
    });
    core.join();
    normal.join();
    EXPECT_EQ(0x4, kavo::test::ReadControlWord(ring1));

    // The status check after each poll looks at most every 30 s: 29 s after
    // a look the full bit waits, at 30 and 31 s it is reported and cleared
    // (the producers stay on).
    LogCapture log;
    struct Step {
      time_t at;
      bool looks;
    } steps[] = {{1700000000, true}, {1700000029, false}, {1700000030, true}, {1700000061, true}};
    for (const Step& step : steps) {
      gWallClock = step.at;
      ASSERT_TRUE(kavo::test::WriteControlWord(ring0, KAVO_RING_FULL_BIT | 0x4));
      EXPECT_EQ(!step.looks, service->checkBpfRingBuffStatus(0, false)) << step.at;
      EXPECT_EQ(step.looks ? 0x4 : 0x5, kavo::test::ReadControlWord(ring0)) << step.at;
    }
    EXPECT_EQ(3u, log.Count("[KavoBpfService][checkBpfRingBuffStatus] bpf ringbuff full!", ANDROID_LOG_WARN));
    EXPECT_EQ(3u, log.Count("[KavoBpfService][checkBpfRingBuffStatus] avail data: ", ANDROID_LOG_WARN));
    gWallClock = 1700000062;  // a forced check looks at once
    ASSERT_TRUE(kavo::test::WriteControlWord(ring0, KAVO_RING_FULL_BIT | 0x4));
    EXPECT_FALSE(service->checkBpfRingBuffStatus(0, true));
    EXPECT_TRUE(service->checkBpfRingBuffStatus(0, true));
    gWallClock = 0;
  });
}

// Which programs a kernel takes, by the version conditions of the catalogue.
TEST(ServiceLifecycle, KernelVersionConditions) {
  struct {
    const char* kernel;
    std::vector<const char*> pass, fail;
  } cases[] = {
      {"5.10", {"5.9+", "5.10+", "5.10-", "5.11-", "5.4-5.10", "5.10-5.15", "5.10"}, {"5.11+", "5.9-", "5.4-5.9", "5.11-6.1", "5.9", ""}},
      {"5.15.78", {"5.15"}, {"5.16+"}},
      {"6", {"6.0"}, {"6.1+"}},
      {"", {"0.0"}, {"5.0+"}},  // unset counts as 0.0
      {"five.ten", {}, {"5.0+"}},  // a damaged property takes nothing, and ends no thread
  };
  for (const auto& c : cases) {
    android::base::SetProperty("ro.kernel.version", c.kernel);
    for (const char* condition : c.pass) EXPECT_TRUE(CheckBpfCompatibility(condition)) << c.kernel << " " << condition;
    for (const char* condition : c.fail) EXPECT_FALSE(CheckBpfCompatibility(condition)) << c.kernel << " " << condition;
  }
}

// Counter |type| of the service's state record, over all the seconds it holds.
uint32_t CountNow(int type) {
  KavoBpfDataState* state = KavoBpfDataState::GetInstance();
  uint32_t count = 0;
  for (long long t = state->oldestSecond(); t <= state->newestSecond(); ++t) count += state->counterAt(t, type);
  return count;
}

// What the ring dispatch does with one record, as subscribed clients and the
// state record see it: types 0 to 7 reach their subscribers byte for byte
// and are counted, others are refused, counted nowhere and reach nobody.
TEST(ServiceLifecycle, DispatchOfRecordsByType) {
  KavoBpfService::GetInstance();
  kavo::test::EventSink cgroup({KAVO_EVENT_CGROUP_ATTACH, KAVO_EVENT_DMABUF_UPDATE, 8, 9}, 1000);
  kavo::test::EventSink others({KAVO_EVENT_TASK_CREATE, KAVO_EVENT_PROCESS_CREATED, KAVO_EVENT_PROCESS_EXITED,
                                KAVO_EVENT_THREAD_COUNT_CHANGED, KAVO_EVENT_MEMORY_CHANGED}, 1001);
  kavo_cgroup_attach_event attach = {};
  attach.header = {KAVO_EVENT_CGROUP_ATTACH, 0, 123456789};
  attach.pid = 4242, attach.dst_level = 2, attach.dst_id = 77;
  strcpy(attach.comm, "surfaceflinger");
  strcpy(attach.dst_path, "/top-app");
  kavo_dmabuf_update_event update = {};
  update.header = {KAVO_EVENT_DMABUF_UPDATE, 0, 5};
  for (const std::string& record : {std::string(reinterpret_cast<char*>(&attach), sizeof(attach)),
                                    std::string(reinterpret_cast<char*>(&update), sizeof(update))}) {
    const int type = kavo::test::RecordType(record);
    const uint32_t before = CountNow(type);
    EXPECT_EQ(0, kavo::test::DispatchBytes(record)) << type;
    EXPECT_EQ(before + 1, CountNow(type));
    EXPECT_EQ(std::vector<std::string>{record}, cgroup.Drain()) << "as the kernel wrote it";
  }
  EXPECT_TRUE(others.Drain().empty());  // no handler runs: nothing derived

  LogCapture log;
  uint32_t before[KavoBpfDataState::kCounters];
  for (int type = 0; type < KavoBpfDataState::kCounters; ++type) before[type] = CountNow(type);
  for (uint32_t type : {8u, 9u}) {
    kavo_event_header record = {type, 0, 1};
    EXPECT_EQ(-1, kavo::test::Dispatch(record));
    EXPECT_TRUE(log.Contains("[KavoBpfService] handleEvent ERROR!!! Type: " + std::to_string(type), ANDROID_LOG_ERROR));
  }
  // A record too short to hold a type is refused the same way, without a read past it.
  EXPECT_EQ(-1, kavo::test::DispatchBytes(std::string("\x05\x00", 2)));
  EXPECT_TRUE(log.Contains("[KavoBpfService] handleEvent ERROR!!! Size: 2", ANDROID_LOG_ERROR));
  EXPECT_TRUE(cgroup.Drain().empty());
  for (int type = 0; type <= KAVO_EVENT_RAW_MAX; ++type) EXPECT_EQ(before[type], CountNow(type)) << type;
}

}  // namespace
}  // namespace Kavo::Bpf
