// The pinned descriptor and dma-buf maps: seeded from made-up process trees
// with known answers, from the live /proc through kavobpfd, not at all when
// the maps are missing; and the descriptor map kept by the program on
// fd_install alone, reporting at each step of 64 descriptors.

#include <android/log.h>
#include <bpf/bpf.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <android-base/unique_fd.h>

#include <chrono>
#include <filesystem>
#include <map>

#include <gtest/gtest.h>

#include "bpf/kavo_bpf_records.h"
#include "service/kavo_bpf_service.h"
#include "support/event_sink.h"
#include "support/fake_proc.h"
#include "support/harness.h"
#include "support/kernel.h"
#include "support/kernel_stand_ins.h"
#include "support/log_capture.h"
#include "support/processes.h"
#include "support/wait_until.h"

namespace {

using namespace std::chrono_literals;
using Kavo::Bpf::KavoBpfService;
using namespace kavo::test;

const std::string kFdMap = "/sys/fs/bpf/kavo/map_KavoBpfDefineset_open_fd_caller_map";
const std::string kGpl = "/sys/fs/bpf/kavo/map_KavoBpfGplDefineset_";

// Every key and value of a pinned hash map.
template <typename Key, typename Value>
std::map<Key, Value> Dump(const std::string& path) {
  std::map<Key, Value> entries;
  android::base::unique_fd fd(bpf_obj_get(path.c_str()));
  Key key, next;
  for (Key* previous = nullptr; bpf_map_get_next_key(fd.get(), previous, &next) == 0; previous = &key) {
    Value value;
    if (bpf_map_lookup_elem(fd.get(), &next, &value) == 0) entries[next] = value;
    key = next;
  }
  return entries;
}

void WriteProcess(int pid, const std::string& name, bool withFdDir = true) {
  FakeProcess process;
  process.pid = pid, process.name = name, process.withFdDir = withFdDir;
  kavo::test::WriteFakeProcess(process);
}

TEST(MapSeeding, DescriptorsAndDmabufsFromAMadeUpProcAndMissingMaps) {
  kavo::test::RunInNamespace([] {
    std::string why;
    if (!kavo::test::LoadKernelSide(&why)) KAVO_KERNEL_SKIP(why);
    ASSERT_TRUE(MountFakeProc(/*keepOwnProc=*/false, &why)) << why;  // the loader ran on the real one
    WriteProcess(100, "abcdefgh");
    for (int fd = 0; fd < 3; ++fd) AddFakeFd(100, fd, "/dev/null");
    WriteProcess(101, "averyveryverylongname");
    WriteProcess(102, "gone", false);  // gone before its fd directory was read
    WriteProcess(200, "a");            // two descriptors on buffer 17 and a mapping of it
    AddFakeFd(200, 3, "/dmabuf:", 4096, 17);
    AddFakeFd(200, 4, "/dmabuf:", 4096, 17);
    kavo::test::WriteFile("/proc/200/maps", "7f0000000000-7f0000001000 rw-s 00000000 00:0c 17      /dmabuf:\n");
    WriteProcess(201, "b");  // buffer 17 shared, 18 its own, no maps file
    AddFakeFd(201, 6, "/dmabuf:", 1 << 20, 18);
    WriteProcess(202, "c");  // size 0, inode 0, no fdinfo: nothing counts
    AddFakeFd(202, 3, "/dmabuf:", 0, 19);
    AddFakeFd(202, 4, "/dmabuf:", 8192, 0);
    AddFakeFd(202, 5, "/dmabuf:");
    kavo::test::MakeDirs("/proc/self/fd");

    kavo::test::LogCapture log;
    KavoBpfService* service = KavoBpfService::GetInstance();
    service->initFdBpfProg();
    auto fds = Dump<int32_t, kavo_fd_info>(kFdMap);
    EXPECT_EQ(5u, fds.size());
    EXPECT_EQ(std::make_tuple(100, __u64{3}, __u64{3}, __u32{0}),
              std::make_tuple(fds[100].pid, fds[100].fd_count, fds[100].reported_fd_count, fds[100].reserved));
    EXPECT_STREQ("averyveryverylo", fds[101].comm);  // 15 characters and a zero
    EXPECT_EQ(0u, fds[101].fd_count);
    EXPECT_EQ(0u, fds.count(102));

    service->initDmabufBpfProg();
    auto buffers = Dump<uint64_t, kavo_dmabuf_buffer>(kGpl + "dmabuf_allocate_map");
    ASSERT_EQ(2u, buffers.size());
    EXPECT_EQ(std::make_tuple(4096, 201, 1 << 20), std::make_tuple(buffers[17].size, buffers[18].pid, buffers[18].size))
        << "buffer 17 charged once, 18 to its holder";
    for (const char* map : {"dmabuf_size_map", "dmabuf_perprocess_size_map"}) {
      auto totals = Dump<int32_t, dmabuf_stat>(kGpl + map);
      EXPECT_EQ(2u, totals.size()) << map;
      EXPECT_EQ(8192, totals[200].total) << map;  // one buffer, two descriptors
      EXPECT_EQ(1 << 20, totals[201].total) << map;
    }
    EXPECT_TRUE(log.Contains("[KavoBpfService][IMIT] Task not exists, so we skip it (/proc/201/maps)", ANDROID_LOG_WARN));
    EXPECT_FALSE(log.Contains("/proc/200/maps"));

    // Without the maps each seeding stops at its first and says why.
    // Unpinned here rather than by the loader: a sanitizer's leak check in a
    // child would read this made-up /proc as its own.
    std::error_code error;
    std::filesystem::remove_all(KavoBpfService::BPF_FS_PATH, error);
    ASSERT_FALSE(error) << error.message();
    ASSERT_TRUE(kavo::test::PinRingMaps(&why)) << why;
    log.Clear();
    EXPECT_EQ(-1, service->initBpfMap());
    EXPECT_TRUE(log.Contains("[KavoBpfService][InitBpfMap] get processInodeMap failed: No such file or directory"));
    service->initFdBpfProg();
    EXPECT_TRUE(log.Contains(
        "[KavoBpfService][INIT] get map_KavoBpfDefineset_open_fd_caller_map(-1) failed! No such file or directory"));
    service->initDmabufBpfProg();
    EXPECT_TRUE(log.Contains("[KavoBpfService][INIT] get dmabufAllocateMap(-1) failed! No such file or directory"));
    EXPECT_FALSE(log.Contains("dmabufSizeMap"));
  });
}

// A child that opens and closes descriptors when told to and does nothing
// else, so every fd_install of its process is one the test asked for.
class DescriptorHolder {
 public:
  DescriptorHolder() {
    int ends[2];  // commands one way, acknowledgements the other
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0) return;
    pid_ = fork();
    if (pid_ == 0) {  // async-signal-safe calls only: the parent has threads
      static int held[1024];
      int count = 0, change;
      while (read(ends[1], &change, sizeof(change)) == sizeof(change) && change != 0) {
        for (; change > 0 && count < 1024; --change) held[count++] = open("/dev/null", O_RDONLY);
        for (; change < 0 && count > 0; ++change) close(held[--count]);
        if (write(ends[1], "k", 1) != 1) break;
      }
      _exit(0);
    }
    close(ends[1]);
    control_.reset(ends[0]);
  }
  ~DescriptorHolder() {
    Change(0);  // the end
    if (pid_ > 0) waitpid(pid_, nullptr, 0);
  }
  pid_t pid() const { return pid_; }
  // Opens (|change| > 0) or closes (< 0) that many descriptors.
  bool Change(int change) {
    char ack;
    return write(control_.get(), &change, sizeof(change)) == sizeof(change) && read(control_.get(), &ack, 1) == 1;
  }
  uint64_t OpenCount() const { return kavo::test::OpenDescriptors(pid_); }

 private:
  pid_t pid_ = -1;
  android::base::unique_fd control_;
};

// The descriptor map kept by the program on fd_install (seeding it from the
// live /proc is the restart story's): a new process's entry at its first new
// descriptor, each one counted after, a recount and a report once the count
// moved a step from the last report. Closing shows at the next recount only.
TEST(MapSeeding, TheFdProgramFollowsAProcessAndReportsEachStep) {
  kavo::test::RunInNamespace([] {
    std::string why, loaded;
    if (!kavo::test::LoadKernelSide(&why, {}, &loaded)) KAVO_KERNEL_SKIP(why);
    kavo::test::PinnedProbe fdProgram = kavo::test::PinnedProbeOf(loaded, "KavoBpfDefineset", "enter_fd_install");
    if (!kavo::test::PinnedProbeAttaches(fdProgram)) {
      KAVO_KERNEL_FEATURE_SKIP("trampolines", "nothing attaches on fd_install (no kprobes); the loader said:\n" + loaded);
    }
    KavoBpfService* service = kavo::test::StartServiceOnPinnedKernelSide(&why);
    ASSERT_NE(nullptr, service) << why;
    kavo::test::EventSink sink({KAVO_EVENT_FD_UPDATE});
    android::base::unique_fd fdMap(bpf_obj_get(kFdMap.c_str()));
    DescriptorHolder child;
    const int32_t pid = child.pid();
    auto entry = [&] {
      kavo_fd_info info = {};
      EXPECT_EQ(0, bpf_map_lookup_elem(fdMap.get(), &pid, &info)) << "no entry for " << pid;
      return info;
    };
    std::vector<kavo_fd_update_event> records;
    auto reports = [&] {
      for (const std::string& record : sink.Drain()) {
        auto update = kavo::test::RecordAs<kavo_fd_update_event>(record);
        if (update.pid == pid) records.push_back(update);
      }
      return records.size();
    };
    constexpr uint64_t kStep = KAVO_FD_REPORT_STEP;
    ASSERT_TRUE(child.Change(1));
    const uint64_t first = child.OpenCount();
    kavo_fd_info info = entry();
    EXPECT_EQ(std::make_tuple(first, first, std::string(program_invocation_short_name).substr(0, 15)),
              std::make_tuple(info.fd_count, info.reported_fd_count, std::string(info.comm)));
    // Just below the step: counted, not reported; at it: reported; just above: not again.
    ASSERT_TRUE(child.Change(kStep - 1));
    EXPECT_EQ(first + kStep - 1, entry().fd_count);
    EXPECT_EQ(first, entry().reported_fd_count);
    ASSERT_TRUE(child.Change(1));
    ASSERT_TRUE(kavo::test::WaitUntil([&] { return reports() >= 1; }));
    ASSERT_TRUE(child.Change(1));
    EXPECT_EQ(first + kStep + 1, entry().fd_count);
    EXPECT_EQ(first + kStep, entry().reported_fd_count);
    // 300 in all, then all closed (unseen), then 100 opened: the 21st comes a
    // step from the last report, and the recount finds the drop.
    ASSERT_TRUE(child.Change(300 - 1 - static_cast<int>(kStep) - 1));
    EXPECT_EQ(child.OpenCount(), entry().fd_count);
    ASSERT_TRUE(child.Change(-300));
    EXPECT_EQ(first + 299, entry().fd_count);
    ASSERT_TRUE(child.Change(100));
    EXPECT_EQ(child.OpenCount(), entry().fd_count);
    ASSERT_TRUE(kavo::test::WaitUntil([&] { return reports() >= 6; }));
    const std::vector<std::pair<__u64, __u64>> expected = {{first + kStep, first},
                                                           {first + 2 * kStep, first + kStep},
                                                           {first + 3 * kStep, first + 2 * kStep},
                                                           {first + 4 * kStep, first + 3 * kStep},
                                                           {first + 20, first + 4 * kStep},
                                                           {first + 20 + kStep, first + 20}};
    ASSERT_EQ(expected.size(), records.size());
    for (size_t i = 0; i < records.size(); ++i)
      EXPECT_EQ(expected[i], std::make_pair(records[i].fd_count, records[i].reported_fd_count)) << i;
    service->stop();
    EXPECT_EQ(0, service->Wait());
  });
}

}  // namespace
