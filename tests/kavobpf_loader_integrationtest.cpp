// kavobpf_loader as the platform runs it: it pins every program and map the
// service looks for, can be run again, cleans up after itself, and says in
// one line what is wrong when it cannot do its job.

#include <android-base/unique_fd.h>
#include <bpf/bpf.h>
#include <gtest/gtest.h>
#include <sys/mount.h>

#include <algorithm>
#include <string>
#include <vector>

#include "kernel_side.h"
#include "ns_harness.h"
#include "service/kavo_bpf_service.h"
#include "test_process.h"

namespace {

using Kavo::Bpf::KavoBpfService;
using kavo::test::PathExists;
using kavo::test::RunCommand;
using kavo::test::ToolPath;

struct bpf_map_info MapInfo(const std::string& path) {
  struct bpf_map_info info = {};
  android::base::unique_fd fd(bpf_obj_get(path.c_str()));
  __u32 length = sizeof(info);
  if (fd.get() >= 0) bpf_obj_get_info_by_fd(fd.get(), &info, &length);
  return info;
}

size_t Lines(const std::string& text) { return std::count(text.begin(), text.end(), '\n'); }

TEST(KavobpfLoader, PinsEverythingTheServiceOpensAndCleansUp) {
  kavo::test::RunInNamespace([] {
    std::string why;
    if (!kavo::test::BpfAvailable(&why)) KAVO_KERNEL_SKIP(why);
    auto first = RunCommand({ToolPath("kavobpf_loader")});
    ASSERT_EQ(0, first.exitCode) << first.output;
    for (const std::string& path : kavo::test::LoaderPins()) EXPECT_TRUE(PathExists(path)) << path;

    // The layouts the service relies on.
    struct bpf_map_info status = MapInfo(KavoBpfService::RINGBUF_STATUS_PATH[0]);
    EXPECT_EQ(BPF_MAP_TYPE_ARRAY, status.type);
    EXPECT_EQ(4u, status.key_size);
    EXPECT_EQ(8u, status.value_size);
    EXPECT_EQ(5u, status.max_entries);
    struct bpf_map_info fdMap =
        MapInfo(KavoBpfService::BPF_FS_PATH + "/map_KavoBpfDefineset_open_fd_caller_map");
    EXPECT_EQ(4u, fdMap.key_size);
    EXPECT_EQ(48u, fdMap.value_size);
    EXPECT_EQ(BPF_MAP_TYPE_RINGBUF, MapInfo(KavoBpfService::RINGBUF_MAP_PATH[1]).type);

    // Again, with small rings: the earlier pins are replaced, not refused.
    auto second = RunCommand({ToolPath("kavobpf_loader"), "--ring-size", "8192"});
    ASSERT_EQ(0, second.exitCode) << second.output;
    EXPECT_EQ(1u, Lines(second.output)) << second.output;
    for (int ring = 0; ring < KavoBpfService::kRingCount; ++ring) {
      EXPECT_EQ(8192u, MapInfo(KavoBpfService::RINGBUF_MAP_PATH[ring]).max_entries);
    }

    auto unload = RunCommand({ToolPath("kavobpf_loader"), "--unload"});
    ASSERT_EQ(0, unload.exitCode) << unload.output;
    for (const std::string& path : kavo::test::LoaderPins()) EXPECT_FALSE(PathExists(path)) << path;
    EXPECT_FALSE(PathExists(KavoBpfService::BPF_FS_PATH));
    // Nothing left to unload is not an error either.
    EXPECT_EQ(0, RunCommand({ToolPath("kavobpf_loader"), "--unload"}).exitCode);
  });
}

TEST(KavobpfLoader, RefusesBadRingSizesWithOneLine) {
  for (const char* size : {"1000", "4095", "12288", "0", "-4096", "4k", "", "4294967296"}) {
    auto result = RunCommand({ToolPath("kavobpf_loader"), "--ring-size", size});
    EXPECT_EQ(2, result.exitCode) << size << ": " << result.output;
    EXPECT_EQ(1u, Lines(result.output)) << result.output;
    EXPECT_NE(std::string::npos, result.output.find("--ring-size")) << result.output;
  }
  for (const std::vector<std::string>& bad :
       {std::vector<std::string>{"--ring-size"}, {"--bogus"}, {"stray"}}) {
    std::vector<std::string> argv = {ToolPath("kavobpf_loader")};
    argv.insert(argv.end(), bad.begin(), bad.end());
    auto result = RunCommand(argv);
    EXPECT_EQ(2, result.exitCode) << bad[0] << ": " << result.output;
    EXPECT_EQ(1u, Lines(result.output)) << result.output;
  }
  auto help = RunCommand({ToolPath("kavobpf_loader"), "--help"});
  EXPECT_EQ(0, help.exitCode);
  for (const char* documented : {"--ring-size BYTES", "--unload", "/sys/fs/bpf/kavo/"}) {
    EXPECT_NE(std::string::npos, help.output.find(documented)) << documented;
  }
}

TEST(KavobpfLoader, SaysWhatIsMissing) {
  kavo::test::RunInNamespace([] {
    std::string why;
    if (!kavo::test::BpfAvailable(&why)) KAVO_KERNEL_SKIP(why);
    // Without the rights: bpffs is root's, and so is bpf().
    auto nobody = RunCommand({"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups",
                              ToolPath("kavobpf_loader")});
    EXPECT_NE(0, nobody.exitCode) << nobody.output;
    EXPECT_NE(std::string::npos, nobody.output.find("needs root")) << nobody.output;
    EXPECT_EQ(1u, Lines(nobody.output)) << nobody.output;

    // A plain directory where bpffs should be.
    ASSERT_EQ(0, mount("tmpfs", "/sys/fs/bpf", "tmpfs", 0, nullptr));
    auto noBpffs = RunCommand({ToolPath("kavobpf_loader")});
    EXPECT_EQ(1, noBpffs.exitCode) << noBpffs.output;
    EXPECT_EQ(1u, Lines(noBpffs.output)) << noBpffs.output;
    EXPECT_NE(std::string::npos, noBpffs.output.find("no BPF file system mounted at /sys/fs/bpf"))
        << noBpffs.output;
    EXPECT_FALSE(PathExists("/sys/fs/bpf/kavo"));
  });
}

}  // namespace
