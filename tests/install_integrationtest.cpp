// The installed package as a user meets it: `cmake --install` into a fresh
// prefix, the example built against it once with pkg-config and once with
// find_package, the installed loader and daemon started, and both builds of
// the example printing a process this test forks.

#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "support/harness.h"
#include "support/processes.h"
#include "support/system.h"

namespace {

void Shell(const std::string& command) {
  auto result = kavo::test::RunCommand({"/bin/sh", "-c", command}, 240);
  EXPECT_EQ(0, result.exitCode) << command << "\n" << result.output;
}

TEST(Install, TheExampleBuildsAgainstThePackageAndSeesProcesses) {
  kavo::test::NamespaceOptions options;
  options.timeoutSeconds = 280;
  kavo::test::RunInNamespace([] {
    char dir[] = "/tmp/kavo-install-XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(dir));
    const std::string root = dir, prefix = root + "/prefix", example = KAVO_SOURCE_DIR "/examples";
    Shell("cmake --install " KAVO_BINARY_DIR " --prefix " + prefix + " > /dev/null");
    for (const char* installed : {"bin/kavobpfd", "bin/kavobpf_loader", "bin/kavobpf_client", "lib/libkavobpfservice.so",
                                  "lib/libkavobpfclient.so.1", "lib/libkavobpfclient.a", "include/kavobpf/kavobpf_client.h"}) {
      EXPECT_TRUE(kavo::test::PathExists(prefix + "/" + installed)) << installed;
    }
    EXPECT_NE(std::string::npos, kavo::test::ReadFile(prefix + "/lib/systemd/system/kavobpfd.service")
                                     .find("ExecStartPre=" + prefix + "/bin/kavobpf_loader"));
    // Built the way a user builds it, with the compiler (and sanitizers) of
    // this build, so that it links against what was installed.
    const std::string pkgConfig = "PKG_CONFIG_PATH=" + prefix + "/lib/pkgconfig ";
    Shell(pkgConfig + KAVO_CXX " " KAVO_CXX_FLAGS " -std=c++17 -Wall -Wextra -Werror " + example + "/watch_processes.cpp $(" +
          pkgConfig + "pkg-config --cflags --libs kavobpfclient) -Wl,-rpath," + prefix + "/lib -o " + root + "/watch_pkgconfig");
    Shell("cmake -S " + example + " -B " + root + "/build -G Ninja -DCMAKE_CXX_COMPILER=" KAVO_CXX " '-DCMAKE_CXX_FLAGS=" KAVO_CXX_FLAGS
          "' -DCMAKE_PREFIX_PATH=" + prefix + " > /dev/null && cmake --build " + root + "/build > /dev/null");
    ASSERT_FALSE(::testing::Test::HasFailure());

    kavo::test::KavoSystem system({{}, {}, prefix + "/bin"});
    std::string why;
    if (!system.Start(&why)) KAVO_KERNEL_SKIP(why);
    kavo::test::ChildProcess byPkgConfig({root + "/watch_pkgconfig", "30"}), byCMake({root + "/build/watch_processes", "30"});
    for (auto* watcher : {&byPkgConfig, &byCMake}) ASSERT_TRUE(watcher->WaitForOutput("watching\n")) << watcher->Output();
    pid_t child = fork();
    if (child == 0) {
      prctl(PR_SET_NAME, "kavo-installed");
      _exit(0);
    }
    waitpid(child, nullptr, 0);
    for (auto* watcher : {&byPkgConfig, &byCMake}) {
      EXPECT_TRUE(watcher->WaitForOutput("created pid=" + std::to_string(child) + " ppid=" + std::to_string(getpid())));
      EXPECT_TRUE(watcher->WaitForOutput("exited pid=" + std::to_string(child) + " comm=kavo-installed\n")) << watcher->Output();
    }
    EXPECT_EQ(0, system.Stop());
    kavo::test::RunCommand({"rm", "-rf", root});
  }, options);
}

}  // namespace
