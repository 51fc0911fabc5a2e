// A kernel that refuses programs. The loader, without the rights to load
// them, says which set the kernel refused and pins nothing; the service,
// given a pinned program the kernel will not attach where the catalogue says,
// logs and counts that one and runs with all the others.

#include <android/log.h>
#include <unistd.h>

#include <string>

#include <gtest/gtest.h>

#include "support/kernel_stand_ins.h"
#include "support/event_sink.h"
#include "support/kernel.h"
#include "support/log_capture.h"
#include "support/harness.h"
#include "service/kavo_bpf_service.h"
#include "support/processes.h"

namespace {

using Kavo::Bpf::KavoBpfService;
using kavo::test::RunCommand;
using kavo::test::ToolPath;

TEST(KernelRefusal, TheLoaderSaysWhichSetWasRefusedAndPinsNothing) {
  kavo::test::RunInNamespace([] {
    std::string why;
    if (!kavo::test::BpfAvailable(&why)) KAVO_KERNEL_SKIP(why);
    // Root, but without the capabilities that loading BPF programs takes:
    // the file system lets the loader in, the bpf() call does not.
    auto refused = RunCommand({"setpriv", "--inh-caps=-all", "--bounding-set=-bpf,-sys_admin,-perfmon",
                               ToolPath("kavobpf_loader")});
    EXPECT_EQ(1, refused.exitCode) << refused.output;
    EXPECT_NE(std::string::npos,
              refused.output.find("kavobpf_loader: the kernel refused KavoBpfDefineset: Operation not "
                                  "permitted (needs root, or CAP_BPF and CAP_PERFMON)"))
        << refused.output;
    for (const std::string& pin : kavo::test::LoaderPins()) {
      EXPECT_FALSE(kavo::test::PathExists(pin)) << pin;
    }
    // With its rights back, the same loader pins everything.
    auto loaded = RunCommand({ToolPath("kavobpf_loader")});
    EXPECT_EQ(0, loaded.exitCode) << loaded.output;
    for (const std::string& pin : kavo::test::LoaderPins()) EXPECT_TRUE(kavo::test::PathExists(pin)) << pin;
  });
}

TEST(KernelRefusal, TheServiceRunsWithWhatTheKernelAttaches) {
  kavo::test::RunInNamespace([] {
    std::string why;
    if (!kavo::test::BpfAvailable(&why)) KAVO_KERNEL_SKIP(why);
    std::string loaded;
    ASSERT_TRUE(kavo::test::LoadKernelSide(&why, {}, &loaded)) << why;
    // The context-switch program's pin now holds a socket filter, which the
    // kernel will not attach to a tracepoint.
    const std::string switchPin =
        KavoBpfService::BPF_FS_PATH + "/prog_KavoBpfDefineset_tracepoint_sched_sched_switch";
    ASSERT_TRUE(kavo::test::PinForeignProgram(switchPin, &why)) << why;

    kavo::test::LogCapture log;
    KavoBpfService* service = kavo::test::StartServiceOnPinnedKernelSide(&why);
    ASSERT_NE(nullptr, service) << why;
    EXPECT_TRUE(log.WaitFor("[KavoBpfService][eventProduceThread] Attach all kavo bpf error: "));
    EXPECT_EQ(1u, log.Count("Attach tracepoint prog failed: KavoBpfDefineset, type: sched_sched_switch, msg: ",
                            ANDROID_LOG_ERROR));
    // The refused program is one failure; fd_install is another where the
    // kernel takes neither its kprobe nor the trampoline twin.
    int failures = 1 + (kavo::test::PinnedProbeAttaches(kavo::test::PinnedProbeOf(
                            loaded, "KavoBpfDefineset", "enter_fd_install"))
                            ? 0
                            : 1);
    EXPECT_TRUE(log.Contains("[KavoBpfService][eventProduceThread] Attach all kavo bpf error: " +
                             std::to_string(failures)));

    // The fork program next to it was attached and its records flow.
    kavo::test::EventSink client({KAVO_EVENT_TASK_CREATE});
    std::vector<pid_t> children = kavo::test::ForkAndReapChildren(1);
    ASSERT_EQ(1u, children.size());
    bool seen = false;
    for (int i = 0; i < 100 && !seen; ++i) {
      for (const std::string& record : client.Drain()) {
        seen = seen || kavo::test::RecordAs<kavo_fork_event>(record).pid == children[0];
      }
      if (!seen) usleep(20000);
    }
    EXPECT_TRUE(seen) << "no fork record for " << children[0];
    service->stop();
    EXPECT_EQ(0, service->Wait());
  });
}

}  // namespace
