// The service on a device that is not what it expects: no BPF file system
// where the programs should be pinned, and no writable /data for its logs
// and dumps. Every step that needs the missing piece logs and is skipped;
// the service keeps serving its clients and stops cleanly.

#include <android-base/properties.h>
#include <android/log.h>
#include <signal.h>
#include <string.h>
#include <sys/mount.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include <gtest/gtest.h>

#include "support/log_capture.h"
#include "support/harness.h"
#include "support/wire.h"
#include "service/kavo_bpf_error_log.h"
#include "service/kavo_bpf_service.h"
#include "service/kavo_bpf_signals.h"
#include "support/wait_until.h"

namespace Kavo::Bpf {
namespace {

using namespace std::chrono_literals;
using kavo::test::WaitUntil;
using kavo::test::AsResponse;
using kavo::test::RawClient;
using kavo::test::RequestFrame;

// Starts the service as if the kernel side had reported ready, and waits
// until both monitors gave up for want of their rings.
void StartServiceWithoutRings(const kavo::test::LogCapture& log) {
  android::base::SetProperty("ro.kernel.version", "6.1");
  android::base::SetProperty("sys.kavo_bpf_ready", "1");
  ASSERT_TRUE(BpfServiceMain());
  ASSERT_TRUE(log.WaitFor("[KavoBpfService][eventMonitor] KAVOBPF: get ringbuf failed: ", 1, 10s));
  ASSERT_TRUE(log.WaitFor("[KavoBpfService][gpleventMonitor] KAVOBPF: get ringbuf failed: ", 1, 10s));
}

void ExpectServed(uint32_t reqId) {
  RawClient client;
  ASSERT_TRUE(client.Connect());
  ASSERT_TRUE(client.Send(RequestFrame(reqId, 51, KAVO_EVENT_TASK_CREATE)));
  auto frame = client.ReadFrame(2s);
  ASSERT_TRUE(frame && AsResponse(*frame));
  EXPECT_EQ(reqId, AsResponse(*frame)->reqId);
  EXPECT_EQ(0, AsResponse(*frame)->result);
}

void ExpectPromptStop() {
  auto before = std::chrono::steady_clock::now();
  KavoBpfService::GetInstance()->stop();
  EXPECT_EQ(0, KavoBpfService::GetInstance()->Wait());
  EXPECT_LT(std::chrono::steady_clock::now() - before, 2s);
}

TEST(ServiceFaults, WithoutABpfFileSystemEveryKernelStepIsLoggedAndSkipped) {
  kavo::test::RunInNamespace([] {
    // A plain directory where bpffs belongs: nothing is pinned, nothing can be.
    ASSERT_EQ(0, mount("tmpfs", "/sys/fs/bpf", "tmpfs", 0, "mode=0700")) << strerror(errno);
    kavo::test::LogCapture log;
    StartServiceWithoutRings(log);
    EXPECT_TRUE(log.Contains(
        "[KavoBpfService][eventMonitor] KAVOBPF: get ringbuf failed: No such file or directory, map fd: ",
        ANDROID_LOG_ERROR));
    EXPECT_TRUE(log.Contains("[KavoBpfService][InitBpfMap] get processInodeMap failed: No such file or directory"));
    EXPECT_TRUE(log.Contains("[KavoBpfService][eventProduceThread] Init bpf map failed"));
    // Every program of both catalogues was looked for and counted missing.
    EXPECT_TRUE(log.WaitFor("[KavoBpfService][eventProduceThread] Attach all kavo bpf error: 5"));
    EXPECT_TRUE(log.WaitFor("[KavoBpfService][gpleventProduceThread] Attach all kavo bpf error: 7"));
    EXPECT_FALSE(log.Contains("ring buf poll"));  // no monitor ever polled

    ExpectServed(1);
    ExpectServed(2);
    ExpectPromptStop();
  });
}

// A missing ring is reported with the descriptor of a failed open, -1 (libbpf
// itself returns -errno, which must not leak into the message).
TEST(ServiceFaults, AMissingRingIsReportedWithDescriptorMinusOne) {
  kavo::test::RunInNamespace([] {
    kavo::test::LogCapture log;
    StartServiceWithoutRings(log);
    EXPECT_TRUE(log.Contains(
        "[KavoBpfService][eventMonitor] KAVOBPF: get ringbuf failed: No such file or directory, map fd: -1"));
    EXPECT_TRUE(log.Contains(
        "[KavoBpfService][gpleventMonitor] KAVOBPF: get ringbuf failed: No such file or directory, map fd: -1"));
    ExpectPromptStop();
  });
}

TEST(ServiceFaults, WithoutAWritableDataDirectoryLossesAndDumpsOnlyReachTheLog) {
  kavo::test::RunInNamespace([] {
    // An empty, read-only /data: the log directory is missing and cannot be made.
    ASSERT_EQ(0, umount2("/data", MNT_DETACH));
    ASSERT_EQ(0, mount("tmpfs", "/data", "tmpfs", MS_RDONLY, nullptr)) << strerror(errno);
    kavo::test::LogCapture log;
    StartServiceWithoutRings(log);  // the monitors installed the dump signals first

    // A damaged frame is lost as usual; its record only reaches the log.
    RawClient client;
    ASSERT_TRUE(client.Connect());
    const uint32_t tooBig = 40000;
    ASSERT_TRUE(client.Send(std::string(reinterpret_cast<const char*>(&tooBig), 4)));
    EXPECT_TRUE(log.WaitFor("failed to write /data/kavolog/stability/kavobpfframework/error.log, error: "));
    EXPECT_TRUE(log.Contains("failed to read /data/kavolog/stability/kavobpfframework/error.log, error: No such file or directory"));
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

}  // namespace
}  // namespace Kavo::Bpf
