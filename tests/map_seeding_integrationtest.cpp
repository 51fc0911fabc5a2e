// Seeding the pinned descriptor and dma-buf maps from /proc: over made-up
// process trees with known answers, over the live /proc through kavobpfd, and
// with the maps missing; and the descriptor map kept by the program on
// fd_install alone, with no seeding at all.

#include <android/log.h>
#include <bpf/bpf.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <android-base/unique_fd.h>

#include <chrono>
#include <map>
#include <thread>

#include <gtest/gtest.h>

#include "bpf/kavo_bpf_records.h"
#include "support/kernel_stand_ins.h"
#include "support/event_sink.h"
#include "support/fake_proc.h"
#include "support/kernel.h"
#include "support/log_capture.h"
#include "support/harness.h"
#include "support/wire.h"
#include "service/kavo_bpf_service.h"
#include "support/processes.h"
#include "utils/kavo_bpf_file.h"
#include "support/wait_until.h"

namespace Kavo::Bpf {
namespace {

using namespace std::chrono_literals;
using kavo::test::AddFakeFd;
using kavo::test::FakeProcess;
using kavo::test::WriteFakeProcess;

constexpr char kFdMap[] = "/sys/fs/bpf/kavo/map_KavoBpfDefineset_open_fd_caller_map";
const std::string kGpl = "/sys/fs/bpf/kavo/map_KavoBpfGplDefineset_";

void LoadPrograms() {
  auto loader = kavo::test::RunCommand({kavo::test::ToolPath("kavobpf_loader")});
  if (loader.exitCode != 0) KAVO_KERNEL_SKIP("kavobpf_loader: " + loader.output);
}

// Every key and value of a pinned hash map.
template <typename Key, typename Value>
std::map<Key, Value> Dump(const std::string& path) {
  std::map<Key, Value> entries;
  android::base::unique_fd fd(bpf_obj_get(path.c_str()));
  EXPECT_GE(fd.get(), 0) << path;
  Key key, next;
  Key* previous = nullptr;
  while (bpf_map_get_next_key(fd.get(), previous, &next) == 0) {
    Value value;
    if (bpf_map_lookup_elem(fd.get(), &next, &value) == 0) entries[next] = value;
    key = next;
    previous = &key;
  }
  return entries;
}

TEST(MapSeeding, DescriptorCountsFromMadeUpProc) {
  kavo::test::RunInNamespace([] {
    LoadPrograms();
    if (::testing::Test::IsSkipped() || ::testing::Test::HasFailure()) return;
    kavo::test::MountFakeProc();
    FakeProcess first;
    first.pid = 100;
    first.name = "abcdefgh";
    WriteFakeProcess(first);
    for (int fd = 0; fd < 3; ++fd) AddFakeFd(100, fd, "/dev/null");
    FakeProcess second;  // a shorter name after a longer one
    second.pid = 101;
    second.name = "xy";
    WriteFakeProcess(second);
    AddFakeFd(101, 0, "/dev/null");
    FakeProcess longName;
    longName.pid = 102;
    longName.name = "averyveryverylongname";
    WriteFakeProcess(longName);
    FakeProcess noFds;  // gone before its fd directory was read
    noFds.pid = 103;
    noFds.withFdDir = false;
    WriteFakeProcess(noFds);
    kavo::test::MakeDirs("/proc/self/fd");
    kavo::test::MakeDirs("/proc/sys");

    KavoBpfService::GetInstance()->initFdBpfProg();
    auto entries = Dump<int32_t, kavo_fd_info>(kFdMap);
    ASSERT_EQ(3u, entries.size());
    ASSERT_EQ(1u, entries.count(100));
    EXPECT_EQ(100, entries[100].pid);
    EXPECT_EQ(3u, entries[100].fd_count);
    EXPECT_EQ(3u, entries[100].reported_fd_count);
    EXPECT_EQ(0u, entries[100].reserved);
    EXPECT_EQ(0u, entries[100].reserved2);
    EXPECT_STREQ("averyveryverylo", entries[102].comm);  // 15 characters and a zero
    EXPECT_EQ(0u, entries[102].fd_count);

    // The name record is reused from process to process, so a shorter name
    // keeps the tail of the one written before it. Which one that was depends
    // on the order /proc lists them in.
    std::vector<int> order;
    ForEachDirEntry("/proc", [&order](const char* name) {
      if (IsDigits(name)) order.push_back(atoi(name));
      return LineAction::kContinue;
    });
    char expected[KAVO_COMM_LEN] = {};
    for (int pid : order) {
      if (pid == 103) continue;
      const char* name = pid == 100 ? "abcdefgh" : pid == 101 ? "xy" : "averyveryverylongname";
      memcpy(expected, name, std::min(strlen(name), sizeof(expected)));
      expected[KAVO_COMM_LEN - 1] = '\0';
      if (pid == 101) break;
    }
    EXPECT_EQ(0, memcmp(expected, entries[101].comm, KAVO_COMM_LEN))
        << std::string(entries[101].comm, KAVO_COMM_LEN);
  });
}

TEST(MapSeeding, DmabufBuffersAndTotalsFromMadeUpProc) {
  kavo::test::RunInNamespace([] {
    LoadPrograms();
    if (::testing::Test::IsSkipped() || ::testing::Test::HasFailure()) return;
    kavo::test::MountFakeProc();
    FakeProcess a;  // two descriptors on one buffer, and a mapping of it
    a.pid = 200;
    WriteFakeProcess(a);
    AddFakeFd(200, 3, "/dmabuf:", 4096, 17);
    AddFakeFd(200, 4, "/dmabuf:", 4096, 17);
    AddFakeFd(200, 5, "/dev/null");
    kavo::test::WriteFakeMaps(200,
                              "7f0000000000-7f0000001000 rw-s 00000000 00:0c 17      /dmabuf:\n"
                              "7f0000002000-7f0000003000 r-xp 00000000 08:01 99      /system/lib/libc.so\n");
    FakeProcess b;  // shares buffer 17, has its own 18; no maps file
    b.pid = 201;
    WriteFakeProcess(b);
    AddFakeFd(201, 5, "/dmabuf:", 4096, 17);
    AddFakeFd(201, 6, "/dmabuf:", 1 << 20, 18);
    FakeProcess ignored;  // size 0, inode 0, no fdinfo at all: nothing counts
    ignored.pid = 202;
    WriteFakeProcess(ignored);
    AddFakeFd(202, 3, "/dmabuf:", 0, 19);
    AddFakeFd(202, 4, "/dmabuf:", 8192, 0);
    AddFakeFd(202, 5, "/dmabuf:");
    FakeProcess plain;  // no dma-bufs: no record, maps never read
    plain.pid = 203;
    WriteFakeProcess(plain);
    AddFakeFd(203, 1, "/dev/null");

    kavo::test::LogCapture log;
    KavoBpfService::GetInstance()->initDmabufBpfProg();

    auto buffers = Dump<uint64_t, kavo_dmabuf_buffer>(kGpl + "dmabuf_allocate_map");
    ASSERT_EQ(2u, buffers.size());
    // A shared buffer names the process met later in the walk.
    int later = -1;
    ForEachDirEntry("/proc", [&later](const char* name) {
      if (strcmp(name, "200") == 0 || strcmp(name, "201") == 0) later = atoi(name);
      return LineAction::kContinue;
    });
    EXPECT_EQ(later, buffers[17].pid);
    EXPECT_EQ(4096, buffers[17].size);
    EXPECT_EQ(201, buffers[18].pid);
    EXPECT_EQ(1 << 20, buffers[18].size);

    for (const char* map : {"dmabuf_size_map", "dmabuf_perprocess_size_map"}) {
      auto totals = Dump<int32_t, dmabuf_stat>(kGpl + map);
      ASSERT_EQ(2u, totals.size()) << map;
      EXPECT_EQ(8192, totals[200].total) << map;  // one buffer, two descriptors
      EXPECT_EQ(4096 + (1 << 20), totals[201].total) << map;
      EXPECT_EQ(0, totals[200].reserved);
    }
    EXPECT_TRUE(log.Contains("[KavoBpfService][IMIT] Task not exists, so we skip it (/proc/201/maps)",
                             ANDROID_LOG_WARN));
    EXPECT_FALSE(log.Contains("/proc/203/maps"));
    EXPECT_FALSE(log.Contains("/proc/200/maps"));
  });
}

TEST(MapSeeding, LiveProcThroughKavobpfd) {
  kavo::test::RunInNamespace([] {
    LoadPrograms();
    if (::testing::Test::IsSkipped() || ::testing::Test::HasFailure()) return;
    // A process holding a known set of descriptors: 0-2 and 3..9.
    kavo::test::ChildProcess holder(
        {"bash", "-c", "exec 3</dev/null 4</dev/null 5</dev/null 6</dev/null 7</dev/null 8</dev/null "
                       "9</dev/null; exec sleep 60"});
    std::this_thread::sleep_for(300ms);
    size_t expected = 0;
    ForEachDirEntry(("/proc/" + std::to_string(holder.pid()) + "/fd").c_str(), [&expected](const char* fd) {
      if (fd[0] != '.') ++expected;
      return LineAction::kContinue;
    });
    ASSERT_GE(expected, 10u);  // and whatever the test process let it inherit

    kavo::test::ChildProcess daemon({kavo::test::ToolPath("kavobpfd"), "--seed-fd"});
    kavo_fd_info info = {};
    bool seeded = false;
    for (int i = 0; i < 100 && !seeded; ++i) {
      std::this_thread::sleep_for(100ms);
      android::base::unique_fd map(bpf_obj_get(kFdMap));
      int32_t pid = holder.pid();
      seeded = map.get() >= 0 && bpf_map_lookup_elem(map.get(), &pid, &info) == 0;
    }
    ASSERT_TRUE(seeded) << daemon.Output();
    EXPECT_EQ(expected, info.fd_count);
    EXPECT_EQ(expected, info.reported_fd_count);
    EXPECT_EQ(0, strncmp("sleep", info.comm, 5));  // the rest may be an earlier, longer name
    EXPECT_TRUE(daemon.Signal(SIGTERM));
    int status;
    EXPECT_TRUE(daemon.WaitExit(2s, &status));
  });
}

// A child of the test that opens and closes descriptors when told to and
// does nothing else, so every fd_install of its process is one the test
// asked for. It only makes async-signal-safe calls: the test process has the
// service's threads.
class DescriptorHolder {
 public:
  DescriptorHolder() {
    int commands[2], acks[2];
    if (pipe(commands) != 0 || pipe(acks) != 0) return;
    pid_ = fork();
    if (pid_ == 0) {
      close(commands[1]);
      close(acks[0]);
      static int held[1024];
      int count = 0;
      int change;
      while (read(commands[0], &change, sizeof(change)) == sizeof(change) && change != 0) {
        for (; change > 0 && count < 1024; --change) held[count++] = open("/dev/null", O_RDONLY);
        for (; change < 0 && count > 0; ++change) close(held[--count]);
        if (write(acks[1], "k", 1) != 1) break;
      }
      _exit(0);
    }
    close(commands[0]);
    close(acks[1]);
    commands_.reset(commands[1]);
    acks_.reset(acks[0]);
  }
  ~DescriptorHolder() {
    if (pid_ <= 0) return;
    int end = 0;
    (void)!write(commands_.get(), &end, sizeof(end));
    int status;
    while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
    }
  }
  DescriptorHolder(const DescriptorHolder&) = delete;
  DescriptorHolder& operator=(const DescriptorHolder&) = delete;

  pid_t pid() const { return pid_; }
  // Opens (|change| > 0) or closes (< 0) that many descriptors; true once done.
  bool Change(int change) {
    char ack;
    return pid_ > 0 && write(commands_.get(), &change, sizeof(change)) == sizeof(change) &&
           read(acks_.get(), &ack, 1) == 1;
  }
  // Its open descriptors, as /proc lists them.
  uint64_t OpenCount() const {
    uint64_t open = 0;
    ForEachDirEntry(("/proc/" + std::to_string(pid_) + "/fd").c_str(), [&open](const char* fd) {
      if (fd[0] != '.') ++open;
      return LineAction::kContinue;
    });
    return open;
  }

 private:
  pid_t pid_ = -1;
  android::base::unique_fd commands_;
  android::base::unique_fd acks_;
};

// Nothing seeds the map here: the program on fd_install makes the process's
// entry at its first new descriptor, counts each one after, and recounts and
// reports once the count moved a report step. Closing is not seen until the
// next recount, which the next report step of new descriptors brings.
TEST(MapSeeding, TheFdMapFollowsAProcessWithoutSeeding) {
  kavo::test::RunInNamespace([] {
    std::string why, loaded;
    if (!kavo::test::BpfAvailable(&why)) KAVO_KERNEL_SKIP(why);
    ASSERT_TRUE(kavo::test::LoadKernelSide(&why, {}, &loaded)) << why;
    kavo::test::PinnedProbe fdProgram =
        kavo::test::PinnedProbeOf(loaded, "KavoBpfDefineset", "enter_fd_install");
    if (!kavo::test::PinnedProbeAttaches(fdProgram)) {
      KAVO_KERNEL_FEATURE_SKIP("trampolines", "no program on fd_install attaches: the kernel has no kprobes, and " +
                                                  fdProgram.noTrampoline);
    }
    KavoBpfService* service = kavo::test::StartServiceOnPinnedKernelSide(&why);
    ASSERT_NE(nullptr, service) << why;
    kavo::test::EventSink sink({KAVO_EVENT_FD_UPDATE});
    android::base::unique_fd fdMap(bpf_obj_get(kFdMap));
    ASSERT_GE(fdMap.get(), 0);

    DescriptorHolder holder;
    ASSERT_GT(holder.pid(), 0);
    const int32_t pid = holder.pid();
    const std::string comm = std::string(program_invocation_short_name).substr(0, KAVO_COMM_LEN - 1);
    auto entry = [&] {
      kavo_fd_info info = {};
      EXPECT_EQ(0, bpf_map_lookup_elem(fdMap.get(), &pid, &info)) << "no entry for " << pid;
      return info;
    };
    std::vector<kavo_fd_update_event> records;  // the holder's, oldest first
    auto collected = [&] {
      for (const std::string& record : sink.Drain()) {
        auto update = kavo::test::RecordAs<kavo_fd_update_event>(record);
        if (update.pid == pid) records.push_back(update);
      }
      return records.size();
    };
    constexpr uint64_t kStep = KAVO_FD_REPORT_STEP;

    // Nothing seeded it. Its first new descriptor: an entry with the exact
    // count, no record.
    kavo_fd_info none;
    EXPECT_NE(0, bpf_map_lookup_elem(fdMap.get(), &pid, &none));
    ASSERT_TRUE(holder.Change(1));
    const uint64_t first = holder.OpenCount();
    kavo_fd_info info = entry();
    EXPECT_EQ(pid, info.pid);
    EXPECT_EQ(first, info.fd_count);
    EXPECT_EQ(first, info.reported_fd_count);
    EXPECT_EQ(comm, info.comm);

    // One short of the step: counted one by one, not reported.
    ASSERT_TRUE(holder.Change(kStep - 1));
    info = entry();
    EXPECT_EQ(first + kStep - 1, info.fd_count);
    EXPECT_EQ(holder.OpenCount(), info.fd_count);
    EXPECT_EQ(first, info.reported_fd_count);
    // At the step: recounted and reported; one past it: not again.
    ASSERT_TRUE(holder.Change(1));
    ASSERT_TRUE(kavo::test::WaitUntil([&] { return collected() >= 1; }));
    ASSERT_TRUE(holder.Change(1));
    info = entry();
    EXPECT_EQ(first + kStep + 1, info.fd_count);
    EXPECT_EQ(first + kStep, info.reported_fd_count);

    // 300 opened in all: a report at every further step, the map exact.
    ASSERT_TRUE(holder.Change(300 - 1 - static_cast<int>(kStep) - 1));
    info = entry();
    EXPECT_EQ(first + 299, info.fd_count);
    EXPECT_EQ(holder.OpenCount(), info.fd_count);
    EXPECT_EQ(first + 4 * kStep, info.reported_fd_count);
    ASSERT_TRUE(kavo::test::WaitUntil([&] { return collected() >= 4; }));

    // All 300 closed: unseen for now.
    ASSERT_TRUE(holder.Change(-300));
    EXPECT_EQ(first + 299, entry().fd_count);
    // 100 opened: the 21st brings the count a step from the last report, the
    // recount finds the drop, and the map follows from there.
    ASSERT_TRUE(holder.Change(100));
    info = entry();
    EXPECT_EQ(first + 99, info.fd_count);
    EXPECT_EQ(holder.OpenCount(), info.fd_count);
    ASSERT_TRUE(kavo::test::WaitUntil([&] { return collected() >= 6; }));

    const std::vector<std::pair<uint64_t, uint64_t>> expected = {
        {first + kStep, first},          {first + 2 * kStep, first + kStep},
        {first + 3 * kStep, first + 2 * kStep}, {first + 4 * kStep, first + 3 * kStep},
        {first + 20, first + 4 * kStep}, {first + 20 + kStep, first + 20}};
    ASSERT_EQ(expected.size(), records.size());
    for (size_t i = 0; i < records.size(); ++i) {
      EXPECT_EQ(static_cast<uint32_t>(KAVO_EVENT_FD_UPDATE), records[i].header.type) << i;
      EXPECT_EQ(expected[i].first, records[i].fd_count) << i;
      EXPECT_EQ(expected[i].second, records[i].reported_fd_count) << i;
      EXPECT_EQ(comm, records[i].comm) << i;
    }
    service->stop();
    EXPECT_EQ(0, service->Wait());
  });
}

TEST(MapSeeding, MissingMapsEndTheSeedingOnly) {
  kavo::test::RunInNamespace([] {
    std::string why;
    if (!kavo::test::PinRingMaps(&why)) KAVO_KERNEL_SKIP(why);
    kavo::test::LogCapture log;
    KavoBpfService* service = KavoBpfService::GetInstance();
    EXPECT_EQ(-1, service->initBpfMap());
    EXPECT_TRUE(log.Contains("[KavoBpfService][InitBpfMap] get processInodeMap failed: No such file or directory"));
    service->initFdBpfProg();
    EXPECT_TRUE(log.Contains("[KavoBpfService][INIT] update open_fd_caller_map !"));
    EXPECT_TRUE(log.Contains(
        "[KavoBpfService][INIT] get map_KavoBpfDefineset_open_fd_caller_map(-1) failed! No such file or directory"));
    service->initDmabufBpfProg();
    EXPECT_TRUE(log.Contains("[KavoBpfService][INIT] get dmabufAllocateMap(-1) failed! No such file or directory"));
    EXPECT_FALSE(log.Contains("dmabufSizeMap"));  // the first failure ends it
    EXPECT_FALSE(log.Contains("update open_fd_caller_map failed"));

    // The whole service goes on without them: it serves clients.
    kavo::test::ChildProcess daemon({kavo::test::ToolPath("kavobpfd"), "--seed-fd"});
    ASSERT_TRUE(daemon.WaitForOutput("[KavoBpfService][eventProduceThread] Init bpf map failed", 10s))
        << daemon.Output();
    ASSERT_TRUE(daemon.WaitForOutput("get dmabufAllocateMap(-1) failed!", 10s)) << daemon.Output();
    kavo::test::RawClient client;
    ASSERT_TRUE(client.Connect());
    ASSERT_TRUE(client.Send(kavo::test::RequestFrame(1, 51, 50001)));
    auto frame = client.ReadFrame(2s);
    ASSERT_TRUE(frame && kavo::test::AsResponse(*frame));
    EXPECT_EQ(0, kavo::test::AsResponse(*frame)->result);
    EXPECT_TRUE(daemon.Signal(SIGTERM));
    int status;
    EXPECT_TRUE(daemon.WaitExit(2s, &status));
  });
}

}  // namespace
}  // namespace Kavo::Bpf
