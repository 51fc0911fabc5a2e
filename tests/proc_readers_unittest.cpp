// Reading a process's name and parent, and a descriptor's size and inode, out
// of /proc files as the kernel writes them, and as they look when damaged.

#include <android/log.h>

#include <gtest/gtest.h>

#include "support/fake_proc.h"
#include "support/log_capture.h"
#include "support/harness.h"
#include "service/kavo_bpf_service.h"

namespace Kavo::Bpf {
namespace {

using kavo::test::WriteFile;

TEST(ProcReaders, NameAndParent) {
  kavo::test::RunInNamespace(
      [] {
        KavoBpfService* service = KavoBpfService::GetInstance();
        kavo::test::FakeProcess app;
        app.pid = 4321;
        app.name = "com.example.app";  // 15 characters, copied whole
        app.ppid = 610;
        kavo::test::WriteFakeProcess(app);
        UpdateProcessExdata info = {};
        ASSERT_EQ(0, service->getProcessInfo(4321, &info));
        EXPECT_EQ(4321, info.pid);
        EXPECT_EQ(610, info.ppid);
        EXPECT_STREQ("com.example.app", info.comm);

        // Parent before name, a name too long for the kernel, and a damaged
        // parent line that is skipped rather than fatal.
        WriteFile("/proc/77/status", "PPid:\t12\nName:\tabcdefghijklmnopqrstuvwxyz\nPPid:\tgarbage\n");
        info = {};
        ASSERT_EQ(0, service->getProcessInfo(77, &info));
        EXPECT_EQ(12, info.ppid);
        EXPECT_STREQ("abcdefghijklmno", info.comm);

        // A process that is gone leaves the caller's record alone.
        kavo::test::LogCapture log;
        UpdateProcessExdata untouched = {5, 6, "keep"};
        EXPECT_EQ(-1, service->getProcessInfo(78, &untouched));
        EXPECT_EQ(6, untouched.ppid);
        EXPECT_STREQ("keep", untouched.comm);
        EXPECT_TRUE(log.Contains("[KavoBpfService][GPI] Task not exists, errno info: No such file or directory",
                                 ANDROID_LOG_WARN));
      },
      kavo::test::FakeProc());
}

TEST(ProcReaders, DescriptorSizeAndInode) {
  kavo::test::RunInNamespace(
      [] {
        KavoBpfService* service = KavoBpfService::GetInstance();
        kavo::test::AddFakeFd(300, 9, "/dmabuf:", 8192, 5000000000LL);
        const std::string fdinfo = "/proc/300/fdinfo/9";
        EXPECT_EQ(8192, service->GetFdSize(fdinfo));
        EXPECT_EQ(5000000000ull, service->GetFdInode(fdinfo));  // above 2^32, whole

        kavo::test::LogCapture log;
        WriteFile("/proc/300/fdinfo/10", "pos:\t0\nflags:\t02\n");
        EXPECT_EQ(0, service->GetFdSize("/proc/300/fdinfo/10"));
        EXPECT_EQ(0u, service->GetFdInode("/proc/300/fdinfo/10"));
        EXPECT_TRUE(log.Lines().empty());  // no such line is no failure

        WriteFile("/proc/300/fdinfo/11", "size:\tlots\nino:\t-4\n");
        EXPECT_EQ(0, service->GetFdSize("/proc/300/fdinfo/11"));
        EXPECT_EQ(0u, service->GetFdInode("/proc/300/fdinfo/11"));

        EXPECT_EQ(0, service->GetFdSize("/proc/300/fdinfo/12"));
        EXPECT_EQ(0u, service->GetFdInode("/proc/300/fdinfo/12"));
        EXPECT_EQ(2u, log.Count("Unable to open /proc/300/fdinfo/12", ANDROID_LOG_WARN));
      },
      kavo::test::FakeProc());
}

}  // namespace
}  // namespace Kavo::Bpf
