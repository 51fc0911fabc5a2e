// Starting, holding, switching and stopping the service as a host does it,
// on a device that is not what it expects (no BPF file system, no writable
// /data), and what its ring dispatch and status check do with hand-made
// records and rings.

#include <android-base/properties.h>
#include <signal.h>
#include <sys/mount.h>

#include <gtest/gtest.h>

#include "support/event_sink.h"
#include "support/harness.h"
#include "support/kernel_stand_ins.h"
#include "support/log_capture.h"
#include "support/wait_until.h"
#include "support/wire.h"
#include "service/kavo_bpf_service.h"
#include "service/kavo_bpf_signals.h"

// The wall clock the service reads, held still where a test sets it: the
// status check's 30-second rule is walked without waiting half a minute.
static std::atomic<time_t> gWallClock{0};
extern "C" time_t time(time_t* out) noexcept {
  struct timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  const time_t t = gWallClock.load() != 0 ? gWallClock.load() : now.tv_sec;
  if (out != nullptr) *out = t;
  return t;
}

namespace Kavo::Bpf {
namespace {

using namespace std::chrono_literals;
using namespace kavo::test;

bool HasThread(const char* name) { return ThreadNames().find(std::string(name) + ",") != std::string::npos; }

// A client subscribes and is answered.
void ExpectServed(uint32_t reqId) {
  RawClient client;
  ASSERT_TRUE(client.Connect() && client.Send(RequestFrame(reqId, 51, KAVO_EVENT_TASK_CREATE)));
  auto frame = client.ReadFrame(2s);
  EXPECT_TRUE(frame && AsResponse(*frame) && AsResponse(*frame)->reqId == reqId && AsResponse(*frame)->result == 0) << reqId;
}

void ExpectPromptStop() {
  auto before = std::chrono::steady_clock::now();
  KavoBpfService::GetInstance()->stop();
  EXPECT_TRUE(KavoBpfService::GetInstance()->Wait() == 0 && std::chrono::steady_clock::now() - before < 2s);
  EXPECT_EQ(0, KavoBpfService::GetInstance()->Wait());  // again: at once
}

TEST(ServiceLifecycle, OnlyExactlyOneDisablesAndAStopEndsTheReadyWait) {
  for (const char* value : {"1", "0", "", "true", "11"}) {
    RunInNamespace([value] {
      android::base::SetProperty("persist.sys.stability.bpfframework.disable", value);
      android::base::SetProperty("sys.kavo_bpf_ready", "0");
      LogCapture log;
      const bool disabled = std::string(value) == "1";
      EXPECT_TRUE(BpfServiceMain() == !disabled && log.Contains("[BpfServiceMain] Starting KAVO Bpf Service disabled!", ANDROID_LOG_INFO) == disabled) << value;
      EXPECT_TRUE(log.Contains("[BpfServiceMain] Starting KAVO Bpf Service", ANDROID_LOG_INFO) &&
                  PathExists("/data/kavolog/stability/kavobpfframework") == !disabled);
      if (disabled) return;  // nothing started
      ExpectServed(1);  // clients are served while the kernel side is not ready
      ExpectPromptStop();
      EXPECT_TRUE(!log.Contains("Attach bpf prog start") && WaitUntil([] { return !HasThread("BpfServicePoll"); }, 2s)) << ThreadNames();
    });
  }
}

// No BPF file system (nothing pinned, nothing can be) and a read-only, empty
// /data: once the kernel side is reported ready, every step that needs what
// is missing logs and is skipped; losses and dumps only reach the log; the
// service serves its clients and stops promptly.
TEST(ServiceLifecycle, ReadyOnADeviceWithoutBpfFileSystemOrWritableData) {
  RunInNamespace([] {
    ASSERT_EQ(0, mount("tmpfs", "/sys/fs/bpf", "tmpfs", 0, "mode=0700")) << strerror(errno);
    ASSERT_TRUE(umount2("/data", MNT_DETACH) == 0 && mount("tmpfs", "/data", "tmpfs", MS_RDONLY, nullptr) == 0) << strerror(errno);
    android::base::SetProperty("sys.kavo_bpf_ready", "0");
    android::base::SetProperty("ro.kernel.version", "6.1");
    LogCapture log;
    ASSERT_TRUE(BpfServiceMain());
    ExpectServed(1);
    EXPECT_FALSE(HasThread("BpfServicePGpl")) << ThreadNames();
    android::base::SetProperty("sys.kavo_bpf_ready", "1");
    // Every program of both catalogues was looked for and counted missing.
    for (const char* line : {"[KavoBpfService][eventProduceThread] Attach all kavo bpf error: 5",
                             "[KavoBpfService][gpleventProduceThread] Attach all kavo bpf error: 7",
                             "[AttachTracepointProgram] Retrieve tracepoint prog failed: sched_sched_switch",
                             "[KavoBpfService][eventMonitor] KAVOBPF: get ringbuf failed: No such file or directory, map fd: -1",
                             "[KavoBpfService][gpleventMonitor] KAVOBPF: get ringbuf failed: No such file or directory, map fd: -1",
                             "[KavoBpfService][InitBpfMap] get processInodeMap failed: No such file or directory"}) {
      EXPECT_TRUE(log.WaitFor(line)) << line;
    }
    EXPECT_FALSE(log.Contains("ring buf poll"));  // no monitor ever polled

    // A damaged frame is lost as usual; its record only reaches the log.
    RawClient client;  // announces a frame of 40000 bytes
    ASSERT_TRUE(client.Connect() && client.Send(std::string("\x40\x9c\x00\x00", 4)));
    EXPECT_TRUE(log.WaitFor("failed to write /data/kavolog/stability/kavobpfframework/error.log, error: ") &&
                log.Contains("failed to read /data/kavolog/stability/kavobpfframework/error.log, error: No such file or directory"));
    // Signals 50 to 54 (the monitors installed them before giving up): the
    // state record and the dumps of all tasks say why they wrote nothing.
    for (int signal = kSignalDumpState; signal <= kSignalDumpNonKernelTasksNormal; ++signal) {
      const uint64_t served = CompletedDumps();
      EXPECT_TRUE(kill(getpid(), signal) == 0 && WaitUntil([served] { return CompletedDumps() > served; })) << "signal " << signal;
    }
    EXPECT_EQ(1u, log.Count("[KavoBpfDataState][DumpState] open file failed!", ANDROID_LOG_ERROR));
    EXPECT_TRUE(log.Count("failed to dump kavo task, error: ", ANDROID_LOG_ERROR) == 2u && !PathExists("/data/kavolog"));
    ExpectServed(2);
    ExpectPromptStop();
  });
}

TEST(ServiceLifecycle, RingSwitchesAndTheThrottledStatusCheck) {
  RunInNamespace([] {
    KavoBpfService* service = KavoBpfService::GetInstance();
    EXPECT_FALSE(service->enableCoreBpf(0, true));  // no status map yet
    std::string why;
    if (!PinRingMaps(&why)) KAVO_KERNEL_SKIP(why);
    const std::string &status0 = KavoBpfService::RINGBUF_STATUS_PATH[0], &status1 = KavoBpfService::RINGBUF_STATUS_PATH[1];
    // Each switch flips its own bit: the kernel side's full bit, an unused
    // bit and the other ring stay as they were.
    ASSERT_TRUE(WriteControlWord(status0, 0x1 | 0x40));
    EXPECT_TRUE(service->enableCoreBpf(0, true) && service->enableNormalBpf(0, true) && ReadControlWord(status0) == (0x1 | 0x40 | 0x2 | 0x4));
    EXPECT_TRUE(service->enableCoreBpf(0, false) && ReadControlWord(status0) == (0x1 | 0x40 | 0x4) && ReadControlWord(status1) == 0);
    for (int ring : {-1, 2}) EXPECT_FALSE(service->enableCoreBpf(ring, true) || service->enableNormalBpf(ring, true) || service->checkBpfRingBuffStatus(ring, true));
    // Two threads flipping different bits never lose each other's.
    std::thread core([service] { for (int i = 0; i < 500; ++i) service->enableCoreBpf(1, i % 2 == 0); });
    for (int i = 0; i < 500; ++i) service->enableNormalBpf(1, true);
    core.join();
    EXPECT_EQ(0x4, ReadControlWord(status1));

    // The status check after each poll looks at most every 30 s: 29 s after
    // a look a full bit waits, at 30 and 31 s it is reported and cleared
    // (the producers stay on). A forced check looks at once.
    LogCapture log;
    for (auto [at, looks] : {std::pair{1700000000, true}, {1700000029, false}, {1700000030, true}, {1700000061, true}, {1700000062, false}}) {
      gWallClock = at;
      ASSERT_TRUE(WriteControlWord(status0, KAVO_RING_FULL_BIT | 0x4));
      EXPECT_TRUE(service->checkBpfRingBuffStatus(0, false) == !looks && ReadControlWord(status0) == (looks ? 0x4 : 0x5)) << at;
    }
    EXPECT_TRUE(!service->checkBpfRingBuffStatus(0, true) && service->checkBpfRingBuffStatus(0, true));
    for (const char* line : {"bpf ringbuff full!", "avail data: "})
      EXPECT_EQ(4u, log.Count(std::string("[KavoBpfService][checkBpfRingBuffStatus] ") + line, ANDROID_LOG_WARN)) << line;
    gWallClock = 0;
  });
}

// Which programs a kernel takes, by the version conditions of the catalogue.
TEST(ServiceLifecycle, KernelVersionConditions) {
  // Unset counts as 0.0; a damaged property takes nothing, and ends no thread.
  struct { const char* kernel; std::vector<const char*> pass, fail; } cases[] = {
      {"5.10", {"5.9+", "5.10+", "5.10-", "5.11-", "5.4-5.10", "5.10-5.15", "5.10"}, {"5.11+", "5.9-", "5.4-5.9", "5.11-6.1", "5.9", ""}},
      {"5.15.78", {"5.15"}, {"5.16+"}}, {"6", {"6.0"}, {"6.1+"}}, {"", {"0.0"}, {"5.0+"}}, {"five.ten", {}, {"5.0+"}}};
  for (const auto& c : cases) {
    android::base::SetProperty("ro.kernel.version", c.kernel);
    for (const char* condition : c.pass) EXPECT_TRUE(CheckBpfCompatibility(condition)) << c.kernel << " " << condition;
    for (const char* condition : c.fail) EXPECT_FALSE(CheckBpfCompatibility(condition)) << c.kernel << " " << condition;
  }
}

// What the ring dispatch does with one record, as subscribed clients and the
// state record see it: types 0 to 7 reach their subscribers byte for byte
// and are counted, others are refused, counted nowhere and reach nobody.
TEST(ServiceLifecycle, DispatchOfRecordsByType) {
  KavoBpfService::GetInstance();
  EventSink subscriber({KAVO_EVENT_CGROUP_ATTACH, KAVO_EVENT_DMABUF_UPDATE, 8, 9}, 1000);
  kavo_cgroup_attach_event attach = {{KAVO_EVENT_CGROUP_ATTACH, 0, 123456789}, 4242, 2, 77, "surfaceflinger", "/top-app"};
  kavo_dmabuf_update_event update = {{KAVO_EVENT_DMABUF_UPDATE, 0, 5}, 4242, KAVO_DMABUF_MMAP, 17, 4096, 8192, "gpu"};
  for (const std::string& record : {Bytes(attach), Bytes(update)}) {
    const uint64_t before = Counted(RecordType(record));
    EXPECT_TRUE(DispatchBytes(record) == 0 && Counted(RecordType(record)) == before + 1) << RecordType(record);
    EXPECT_EQ(std::vector<std::string>{record}, subscriber.Drain()) << "as the kernel wrote it";
  }

  LogCapture log;
  uint64_t before[KAVO_EVENT_RAW_MAX + 1];
  for (int type = 0; type <= KAVO_EVENT_RAW_MAX; ++type) before[type] = Counted(type);
  for (uint32_t type : {8u, 9u})
    EXPECT_TRUE(Dispatch(kavo_event_header{type, 0, 1}) == -1 && log.Contains("[KavoBpfService] handleEvent ERROR!!! Type: " + std::to_string(type), ANDROID_LOG_ERROR));
  // A record too short to hold a type is refused the same way, without a read past it.
  EXPECT_TRUE(DispatchBytes(std::string("\x05\x00", 2)) == -1 && log.Contains("[KavoBpfService] handleEvent ERROR!!! Size: 2", ANDROID_LOG_ERROR));
  EXPECT_TRUE(subscriber.Drain().empty());
  for (int type = 0; type <= KAVO_EVENT_RAW_MAX; ++type) EXPECT_EQ(before[type], Counted(type)) << type;
}

}  // namespace
}  // namespace Kavo::Bpf
