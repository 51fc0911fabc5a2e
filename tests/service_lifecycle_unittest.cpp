// Starting, holding, switching and stopping the service as a host does it.

#include <android-base/properties.h>
#include <android/log.h>

#include <chrono>
#include <thread>

#include <gtest/gtest.h>

#include "support/kernel_stand_ins.h"
#include "support/log_capture.h"
#include "support/harness.h"
#include "service/kavo_bpf_service.h"
#include "support/wait_until.h"

namespace Kavo::Bpf {
namespace {

using namespace std::chrono_literals;
using kavo::test::WaitUntil;
using kavo::test::PathExists;
using kavo::test::ThreadNames;

constexpr char kDisable[] = "persist.sys.stability.bpfframework.disable";
constexpr char kReady[] = "sys.kavo_bpf_ready";

bool HasThread(const char* name) {
  return ThreadNames().find(std::string(name) + ",") != std::string::npos;
}

TEST(ServiceLifecycle, DisablePropertyOnlyExactlyOne) {
  kavo::test::RunInNamespace([] {
    android::base::SetProperty(kDisable, "1");
    kavo::test::LogCapture log;
    EXPECT_FALSE(BpfServiceMain());
    EXPECT_TRUE(log.Contains("[BpfServiceMain] Starting KAVO Bpf Service disabled!", ANDROID_LOG_INFO));
    std::this_thread::sleep_for(100ms);
    EXPECT_FALSE(HasThread("BpfServicePoll")) << ThreadNames();
    EXPECT_FALSE(PathExists("/data/kavolog/stability/kavobpfframework"));
  });
  for (const char* value : {"0", "", "true", "11"}) {
    SCOPED_TRACE(value);
    kavo::test::RunInNamespace([value] {
      android::base::SetProperty(kDisable, value);
      android::base::SetProperty(kReady, "0");
      kavo::test::LogCapture log;
      EXPECT_TRUE(BpfServiceMain());
      EXPECT_TRUE(log.Contains("[BpfServiceMain] Starting KAVO Bpf Service", ANDROID_LOG_INFO));
      EXPECT_TRUE(WaitUntil([] { return HasThread("BpfServicePoll"); })) << ThreadNames();
      EXPECT_TRUE(PathExists("/data/kavolog/stability/kavobpfframework"));
      KavoBpfService::GetInstance()->stop();
      KavoBpfService::GetInstance()->Wait();
    });
  }
}

TEST(ServiceLifecycle, NothingAttachedUntilReady) {
  kavo::test::RunInNamespace([] {
    android::base::SetProperty(kReady, "0");
    android::base::SetProperty("ro.kernel.version", "6.1");
    kavo::test::LogCapture log;
    ASSERT_TRUE(BpfServiceMain());
    std::this_thread::sleep_for(2500ms);
    EXPECT_FALSE(log.Contains("Attach bpf prog start"));
    EXPECT_FALSE(HasThread("BpfServicePGpl")) << ThreadNames();

    android::base::SetProperty(kReady, "1");
    // Both sets are walked; without pinned programs every attach fails, logged.
    EXPECT_TRUE(log.WaitFor("Attach bpf prog start: KavoBpfDefineset", 1, 5s));
    EXPECT_TRUE(log.WaitFor("Attach bpf prog start: KavoBpfGplDefineset", 1, 5s));
    EXPECT_TRUE(log.WaitFor("[KavoBpfService][eventProduceThread] Attach all kavo bpf error: 5", 1, 5s));
    EXPECT_TRUE(log.WaitFor("[KavoBpfService][gpleventProduceThread] Attach all kavo bpf error: 7", 1, 5s));
    EXPECT_TRUE(log.Contains("[AttachTracepointProgram] Retrieve tracepoint prog failed: sched_sched_switch"));

    KavoBpfService::GetInstance()->stop();
    auto before = std::chrono::steady_clock::now();
    EXPECT_EQ(0, KavoBpfService::GetInstance()->Wait());
    EXPECT_LT(std::chrono::steady_clock::now() - before, 2s);
  });
}

TEST(ServiceLifecycle, StopDuringReadyWaitEndsPromptly) {
  kavo::test::RunInNamespace([] {
    android::base::SetProperty(kReady, "0");
    ASSERT_TRUE(BpfServiceMain());
    ASSERT_TRUE(WaitUntil([] { return HasThread("BpfServicePoll"); }));
    auto before = std::chrono::steady_clock::now();
    KavoBpfService::GetInstance()->stop();
    EXPECT_EQ(0, KavoBpfService::GetInstance()->Wait());
    EXPECT_LT(std::chrono::steady_clock::now() - before, 1500ms);
    // Gone, though not necessarily at the instant Wait() returns: the IPC
    // loop thread, which the producer thread starts and stop() only stops,
    // bears its creator's name until it first runs and names itself, which
    // on a busy machine can be after this point; and a joined thread leaves
    // /proc a moment after join() returns.
    EXPECT_TRUE(WaitUntil([] { return !HasThread("BpfServicePoll"); }, 2s)) << ThreadNames();
    // A second Wait() after the stop returns at once.
    EXPECT_EQ(0, KavoBpfService::GetInstance()->Wait());
  });
}

TEST(ServiceLifecycle, SwitchesKeepEachOthersBits) {
  kavo::test::RunInNamespace([] {
    std::string why;
    if (!kavo::test::PinRingMaps(&why)) KAVO_KERNEL_SKIP(why);
    const std::string& ring0 = KavoBpfService::RINGBUF_STATUS_PATH[0];
    const std::string& ring1 = KavoBpfService::RINGBUF_STATUS_PATH[1];
    KavoBpfService* service = KavoBpfService::GetInstance();

    // The kernel side's full bit and an unused bit must survive the switches.
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

    EXPECT_FALSE(service->enableCoreBpf(2, true));
    EXPECT_FALSE(service->enableNormalBpf(2, true));
    EXPECT_FALSE(service->enableCoreBpf(-1, true));
    EXPECT_EQ(0x1 | 0x40 | 0x4, kavo::test::ReadControlWord(ring0));
    EXPECT_EQ(0x4, kavo::test::ReadControlWord(ring1));

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
  });
}

TEST(ServiceLifecycle, SwitchWithoutAMapFails) {
  kavo::test::RunInNamespace([] {
    EXPECT_FALSE(KavoBpfService::GetInstance()->enableCoreBpf(0, true));
  });
}

}  // namespace
}  // namespace Kavo::Bpf
