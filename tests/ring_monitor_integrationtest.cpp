// The ring monitors against the real kernel side: a burst of forks reaches a
// client whole, a ring that ran full is reported and cleared, the state
// record shows the load when signal 50 asks for it, poll failures end a
// monitor only when six come in a row, stop() ends the monitors blocked in
// their poll, and the programs wake a consumer that waits but not one that
// says it is awake.

#include <android-base/properties.h>
#include <android-base/unique_fd.h>
#include <android/log.h>
#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/mman.h>
#include <unistd.h>

#include <chrono>
#include <future>
#include <map>
#include <sstream>
#include <thread>

#include "bpf/kavo_bpf_records.h"
#include "support/kernel_stand_ins.h"
#include "support/event_sink.h"
#include "support/kernel.h"
#include "support/log_capture.h"
#include "support/harness.h"
#include "service/kavo_bpf_ring_wakeup.h"
#include "service/kavo_bpf_service.h"
#include "service/kavo_bpf_signals.h"
#include "service/kavo_bpf_state.h"
#include "support/wait_until.h"

namespace {

using namespace std::chrono_literals;
using kavo::test::WaitUntil;
using Kavo::Bpf::KavoBpfDataState;
using Kavo::Bpf::KavoBpfService;
using kavo::test::ReadControlWord;

constexpr int64_t kProducersOn = KAVO_RING_CORE_ENABLED_BIT | KAVO_RING_NORMAL_ENABLED_BIT;

// Successful polls the state record holds, over its whole window.
uint64_t PollsCounted() {
  KavoBpfDataState* state = KavoBpfDataState::GetInstance();
  uint64_t polls = 0;
  for (long long t = state->oldestSecond(); t <= state->newestSecond(); ++t) {
    polls += state->counterAt(t, KavoBpfDataState::kPollCounter);
  }
  return polls;
}

// Stops the service and checks both monitors said goodbye, promptly.
void StopService(KavoBpfService* service, const kavo::test::LogCapture& log) {
  auto before = std::chrono::steady_clock::now();
  service->stop();
  auto waited = std::async(std::launch::async, [service] { return service->Wait(); });
  ASSERT_EQ(std::future_status::ready, waited.wait_for(3s))
      << "monitors still polling after stop()";
  EXPECT_LT(std::chrono::steady_clock::now() - before, 2s);
  EXPECT_TRUE(log.Contains("[KavoBpfService][eventMonitor] Stop Event Produce Thread...",
                           ANDROID_LOG_WARN));
  EXPECT_TRUE(log.Contains("[KavoBpfService][gpleventMonitor] Stop GPL Event Produce Thread...",
                           ANDROID_LOG_WARN));
}

TEST(RingMonitor, EveryForkOfABurstReachesTheClientAndStopEndsBothMonitors) {
  kavo::test::RunInNamespace([] {
    std::string why;
    if (!kavo::test::BpfAvailable(&why)) KAVO_KERNEL_SKIP(why);
    kavo::test::LogCapture log;
    KavoBpfService* service = kavo::test::StartServiceOnKernel(&why);
    ASSERT_NE(nullptr, service) << why;
    kavo::test::EventSink client({KAVO_EVENT_TASK_CREATE, KAVO_EVENT_TASK_EXIT});

    constexpr int kChildren = 200;
    std::vector<pid_t> children = kavo::test::ForkAndReapChildren(kChildren);
    ASSERT_EQ(static_cast<size_t>(kChildren), children.size());
    std::map<pid_t, int> births, deaths;
    for (pid_t child : children) births[child] = deaths[child] = 0;
    auto collect = [&] {
      for (const std::string& record : client.Drain()) {
        if (kavo::test::RecordType(record) == KAVO_EVENT_TASK_CREATE) {
          auto fork = kavo::test::RecordAs<kavo_fork_event>(record);
          if (births.count(fork.pid) && fork.kind == KAVO_TASK_PROCESS) ++births[fork.pid];
        } else {
          auto exit = kavo::test::RecordAs<kavo_exit_event>(record);
          if (deaths.count(exit.pid) && exit.kind == KAVO_TASK_PROCESS) ++deaths[exit.pid];
        }
      }
      for (pid_t child : children) {
        if (births[child] == 0 || deaths[child] == 0) return false;
      }
      return true;
    };
    EXPECT_TRUE(WaitUntil(collect, 20s));
    collect();
    for (pid_t child : children) {
      EXPECT_EQ(1, births[child]) << "child " << child;
      EXPECT_EQ(1, deaths[child]) << "child " << child;
    }
    StopService(service, log);
  });
}

TEST(RingMonitor, Signal50WritesTheLoadIntoTheStateRecord) {
  kavo::test::RunInNamespace([] {
    std::string why;
    if (!kavo::test::BpfAvailable(&why)) KAVO_KERNEL_SKIP(why);
    kavo::test::LogCapture log;
    KavoBpfService* service = kavo::test::StartServiceOnKernel(&why);
    ASSERT_NE(nullptr, service) << why;
    kavo::test::ForkAndReapChildren(100);

    // The dump runs off the signal handler; wait for that thread to finish it.
    uint64_t served = Kavo::Bpf::CompletedDumps();
    auto counted = [] {
      KavoBpfDataState* state = KavoBpfDataState::GetInstance();
      uint64_t forks = 0;
      for (long long t = state->oldestSecond(); t <= state->newestSecond(); ++t) {
        forks += state->counterAt(t, KAVO_EVENT_TASK_CREATE);
      }
      return forks >= 100;
    };
    ASSERT_TRUE(WaitUntil(counted, 20s));
    ASSERT_EQ(0, kill(getpid(), Kavo::Bpf::kSignalDumpState));
    ASSERT_TRUE(WaitUntil([served] { return Kavo::Bpf::CompletedDumps() > served; }, 10s));

    std::istringstream text(kavo::test::ReadFile(KavoBpfDataState::KAVOTASK_DUMP_TEMPLATE));
    std::string line;
    ASSERT_TRUE(std::getline(text, line));
    EXPECT_EQ(
        0u,
        line.find("EventCount, kavo_task_init, kmem_rss_info, sched_task_create, sched_task_exit, "
                  "dmabuf_size_info, cgroup_attach_cpuset_info, fd_update_info, dmabuf_update, "
                  "PollCount, "))
        << line;
    EXPECT_EQ(" \r", line.substr(line.size() - 2));
    long long forks = 0, polls = 0;
    int rows = 0;
    while (std::getline(text, line)) {
      ++rows;
      ASSERT_EQ('\r', line.back()) << line;
      std::istringstream fields(line);
      std::vector<long long> numbers;
      std::string field;
      while (std::getline(fields, field, ',')) {
        if (field != " \r") numbers.push_back(std::stoll(field));
      }
      ASSERT_EQ(10u, numbers.size()) << line;
      long long events = 0;
      for (int type = 0; type <= KAVO_EVENT_RAW_MAX; ++type) events += numbers[1 + type];
      EXPECT_EQ(events, numbers[0]) << "EventCount is the sum of the eight event columns: " << line;
      forks += numbers[1 + KAVO_EVENT_TASK_CREATE];
      polls += numbers[9];
    }
    EXPECT_GE(rows, 1);
    EXPECT_GE(forks, 100);
    EXPECT_GT(polls, 0);
    StopService(service, log);
  });
}

// Records of ring 0 as a consumer takes them, by the pid they are about.
struct TakenRecords {
  std::vector<std::pair<uint32_t, int32_t>> records;  // type, pid

  static int Take(void* ctx, void* data, size_t size) {
    if (size < sizeof(kavo_fork_event)) return 0;
    kavo_fork_event record;
    memcpy(&record, data, sizeof(record));
    static_cast<TakenRecords*>(ctx)->records.emplace_back(record.header.type, record.pid);
    return 0;
  }
  bool hasFork(pid_t pid) const {
    for (const auto& [type, about] : records) {
      if (type == KAVO_EVENT_TASK_CREATE && about == pid) return true;
    }
    return false;
  }
};

TEST(RingMonitor, ProducersWakeAWaitingConsumerButNotOneThatIsAwake) {
  kavo::test::RunInNamespace([] {
    std::string why;
    if (!kavo::test::BpfAvailable(&why)) KAVO_KERNEL_SKIP(why);
    ASSERT_TRUE(kavo::test::LoadKernelSide(&why)) << why;
    const std::string dir = KavoBpfService::BPF_PROG_DIR;
    ASSERT_GE(Kavo::Bpf::AttachTracepointProgram(dir, "KavoBpfDefineset", "sched_sched_process_fork", "sched",
                                                 "sched_process_fork"),
              0);
    ASSERT_TRUE(KavoBpfService::GetInstance()->enableCoreBpf(0, true));

    android::base::unique_fd ring(bpf_obj_get(KavoBpfService::RINGBUF_MAP_PATH[0].c_str()));
    ASSERT_GE(ring.get(), 0);
    TakenRecords taken;
    struct ring_buffer* consumer = ring_buffer__new(ring.get(), TakenRecords::Take, &taken, nullptr);
    ASSERT_NE(nullptr, consumer);
    const int epollFd = ring_buffer__epoll_fd(consumer);
    epoll_event event;
    Kavo::Bpf::RingWakeup wakeup;
    ASSERT_TRUE(wakeup.map(KavoBpfService::RINGBUF_CONSUMER_PATH[0], ring.get()));
    android::base::unique_fd wordFd(bpf_obj_get(KavoBpfService::RINGBUF_CONSUMER_PATH[0].c_str()));
    void* word = mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED, wordFd.get(), 0);
    ASSERT_NE(MAP_FAILED, word);

    // A consumer busy with what it has: the programs see it awake for good.
    *static_cast<volatile uint64_t*>(word) = UINT64_MAX;
    for (int settle = 0; settle < 2; ++settle) {
      // Take what came before, and any wake-up it raised.
      do {
        ring_buffer__consume(consumer);
      } while (epoll_wait(epollFd, &event, 1, 0) > 0);
      std::this_thread::sleep_for(10ms);
    }
    const pid_t unwoken = kavo::test::ForkAndReapChildren(1).at(0);
    EXPECT_EQ(0, epoll_wait(epollFd, &event, 1, 200)) << "a record woke a consumer that is awake";
    // Its record is there all the same, for the consumer's look before it waits.
    EXPECT_TRUE(wakeup.beforeWait());
    EXPECT_EQ(0u, *static_cast<volatile uint64_t*>(word));
    ring_buffer__consume(consumer);
    EXPECT_TRUE(taken.hasFork(unwoken));

    // Waiting now: once its look found nothing, the next record wakes it.
    bool pending = true;
    for (int look = 0; look < 1000 && (pending = wakeup.beforeWait()); ++look) ring_buffer__consume(consumer);
    ASSERT_FALSE(pending) << "records kept coming";
    const pid_t woken = kavo::test::ForkAndReapChildren(1).at(0);
    EXPECT_TRUE(WaitUntil(
        [&] {
          if (epoll_wait(epollFd, &event, 1, 100) > 0) ring_buffer__consume(consumer);
          return taken.hasFork(woken);
        },
        10s))
        << "the consumer was not woken for its record";
    munmap(word, 4096);
    ring_buffer__free(consumer);
  });
}

TEST(RingMonitor, AFullRingIsReportedClearedAndKeepsItsProducers) {
  kavo::test::RunInNamespace([] {
    std::string why;
    if (!kavo::test::BpfAvailable(&why)) KAVO_KERNEL_SKIP(why);
    ASSERT_TRUE(kavo::test::LoadKernelSide(&why, {"--ring-size", "4096"})) << why;
    const std::string dir = KavoBpfService::BPF_PROG_DIR;
    // Only fork and exit: no other producer can refill the ring behind the test.
    ASSERT_GE(
        Kavo::Bpf::AttachTracepointProgram(dir, "KavoBpfDefineset", "sched_sched_process_fork",
                                           "sched", "sched_process_fork"),
        0);
    ASSERT_GE(
        Kavo::Bpf::AttachTracepointProgram(dir, "KavoBpfDefineset", "sched_sched_process_exit",
                                           "sched", "sched_process_exit"),
        0);
    KavoBpfService* service = KavoBpfService::GetInstance();
    ASSERT_TRUE(service->enableCoreBpf(0, true));
    ASSERT_TRUE(service->enableNormalBpf(0, true));

    // Nobody consumes: a page holds about 80 of the 200 fork and 200 exit records.
    kavo::test::ForkAndReapChildren(200);
    const std::string status = KavoBpfService::RINGBUF_STATUS_PATH[0];
    ASSERT_EQ(kProducersOn | static_cast<int64_t>(KAVO_RING_FULL_BIT), ReadControlWord(status));
    kavo::test::DrainRing(KavoBpfService::RINGBUF_MAP_PATH[0]);  // the consumer catches up

    kavo::test::LogCapture log;
    EXPECT_FALSE(service->checkBpfRingBuffStatus(0, false));
    EXPECT_EQ(1u, log.Count("[KavoBpfService][checkBpfRingBuffStatus] bpf ringbuff full!",
                            ANDROID_LOG_WARN));
    EXPECT_EQ(1u,
              log.Count("[KavoBpfService][checkBpfRingBuffStatus] avail data: ", ANDROID_LOG_WARN));
    EXPECT_TRUE(log.Contains(", ringbuf size: 4096, cons pos: "))
        << "the kernel's view when it gave up";
    EXPECT_EQ(kProducersOn, ReadControlWord(status));

    // Within 30 seconds only a forced check looks again.
    ASSERT_TRUE(kavo::test::WriteControlWord(status, kProducersOn | KAVO_RING_FULL_BIT));
    EXPECT_TRUE(service->checkBpfRingBuffStatus(0, false));
    EXPECT_EQ(kProducersOn | static_cast<int64_t>(KAVO_RING_FULL_BIT), ReadControlWord(status));
    EXPECT_FALSE(service->checkBpfRingBuffStatus(0, true));
    EXPECT_EQ(kProducersOn, ReadControlWord(status));
    EXPECT_TRUE(service->checkBpfRingBuffStatus(0, true));
    EXPECT_EQ(2u, log.Count("bpf ringbuff full!"));
    EXPECT_FALSE(service->checkBpfRingBuffStatus(2, true));
  });
}

TEST(RingMonitor, SixPollFailuresInARowEndAMonitorFiveDoNot) {
  kavo::test::RunInNamespace([] {
    std::string why;
    if (!kavo::test::PinRingMaps(&why)) KAVO_KERNEL_SKIP(why);
    const std::string ring = KavoBpfService::RINGBUF_MAP_PATH[0];
    // The producer thread holds in its ready wait; the test runs the monitor.
    android::base::SetProperty("sys.kavo_bpf_ready", "0");
    ASSERT_TRUE(Kavo::Bpf::BpfServiceMain());
    KavoBpfService* service = KavoBpfService::GetInstance();
    kavo::test::LogCapture log;

    // Six records no program writes: each fails the poll that meets it.
    ASSERT_TRUE(kavo::test::WriteRingRecords(ring, 9, 6, &why)) << why;
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(-1, service->eventMonitor());
    EXPECT_GE(std::chrono::steady_clock::now() - start, 5s)
        << "a pause of a second after each failure";
    EXPECT_EQ(6u, log.Count("[KavoBpfService][eventMonitor] KAVOBPF: ret -1 .Error ring buf poll. ",
                            ANDROID_LOG_ERROR));
    EXPECT_EQ(6u, log.Count("handleEvent ERROR!!! Type: 9"));

    // Five, then a good record: the count starts again and the monitor polls on.
    log.Clear();
    kavo::test::EventSink client({KAVO_EVENT_CGROUP_ATTACH});
    ASSERT_TRUE(kavo::test::WriteRingRecords(ring, 9, 5, &why)) << why;
    ASSERT_TRUE(kavo::test::WriteRingRecords(ring, KAVO_EVENT_CGROUP_ATTACH, 1, &why, 112)) << why;
    auto monitor = std::async(std::launch::async, [service] { return service->eventMonitor(); });
    size_t delivered = 0;
    EXPECT_TRUE(WaitUntil([&] { return (delivered += client.Drain().size()) == 1; }, 15s));
    // The poll that delivered it goes on reading the ring until it is empty:
    // the next bad record must come after that poll returned, which the poll
    // counter of the state record shows.
    EXPECT_TRUE(WaitUntil([] { return PollsCounted() > 0; }, 5s));
    ASSERT_TRUE(kavo::test::WriteRingRecords(ring, 9, 1, &why)) << why;
    EXPECT_TRUE(log.WaitFor("Error ring buf poll", 6, 5s));
    EXPECT_EQ(std::future_status::timeout, monitor.wait_for(1500ms))
        << "a sixth failure after a success";

    // Blocked in a poll without time limit, it still ends at once on stop().
    std::this_thread::sleep_for(1200ms);
    auto before = std::chrono::steady_clock::now();
    service->stop();
    ASSERT_EQ(std::future_status::ready, monitor.wait_for(2s));
    EXPECT_EQ(0, monitor.get());
    EXPECT_LT(std::chrono::steady_clock::now() - before, 1s);
    EXPECT_TRUE(log.Contains("[KavoBpfService][eventMonitor] Stop Event Produce Thread..."));
    service->Wait();
  });
}

}  // namespace
