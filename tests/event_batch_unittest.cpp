// A ring monitor forwarding in batches: every client gets exactly the events
// it subscribed to, in the order they were made (each raw record, then the
// derived events its handler published), across batch after batch, a record
// too big for any batch included, and nothing waits once the batch is flushed.

#include <string.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/event_sink.h"
#include "support/harness.h"
#include "service/kavo_bpf_event_manager.h"
#include "service/kavo_bpf_service.h"

namespace Kavo::Bpf {
namespace {

using kavo::test::EventSink;

template <typename Record>
std::string Bytes(const Record& record) {
  return std::string(reinterpret_cast<const char*>(&record), sizeof(record));
}

// Through the dispatch, as a ring hands records over.
void Dispatch(std::string record) {
  KavoBpfService::handleBpfRingBuffEvent(nullptr, &record[0], static_cast<unsigned>(record.size()));
}

TEST(EventBatch, EachClientGetsItsEventsInTheOrderTheyWereMade) {
  kavo::test::RunInNamespace([] {
    KavoBpfService::GetInstance();
    EventSink processes({KAVO_EVENT_TASK_CREATE, KAVO_EVENT_TASK_EXIT, KAVO_EVENT_PROCESS_CREATED,
                         KAVO_EVENT_PROCESS_EXITED},
                        1000);
    EventSink exits({KAVO_EVENT_PROCESS_EXITED, KAVO_EVENT_TASK_EXIT}, 1001);
    EventSink memory({KAVO_EVENT_RSS_STAT}, 1002);
    std::vector<std::string> toProcesses, toExits, toMemory;

    {
      EventManager::BatchScope batch;
      // 100 short-lived processes: five events each, so batch after batch
      // fills and goes out while the records keep coming.
      for (int i = 0; i < 100; ++i) {
        const int pid = 7000 + i;
        kavo_fork_event fork = {};
        fork.header.type = KAVO_EVENT_TASK_CREATE;
        fork.header.time_ns = 1000 + i;
        fork.ppid = 1;
        fork.pid = pid;
        fork.uid = 10000 + i;
        snprintf(fork.comm, sizeof(fork.comm), "proc%d", i);
        fork.kind = KAVO_TASK_PROCESS;
        kavo_process_created_event created = {KAVO_EVENT_PROCESS_CREATED, pid, 1, 10000 + i, {}};
        memcpy(created.comm, fork.comm, sizeof(created.comm));
        kavo_rss_event rss = {};
        rss.header.type = KAVO_EVENT_RSS_STAT;
        rss.header.time_ns = 2000 + i;
        rss.pid = pid;
        rss.member = KAVO_RSS_ANON;
        rss.size = 4096 * i;
        kavo_exit_event exit = {};
        exit.header.type = KAVO_EVENT_TASK_EXIT;
        exit.header.time_ns = 3000 + i;
        exit.pid = pid;
        memcpy(exit.comm, fork.comm, sizeof(exit.comm));
        exit.kind = KAVO_TASK_PROCESS;
        kavo_process_exited_event exited = {KAVO_EVENT_PROCESS_EXITED, pid, {}};
        memcpy(exited.comm, exit.comm, sizeof(exited.comm));

        Dispatch(Bytes(fork));
        Dispatch(Bytes(rss));
        Dispatch(Bytes(exit));
        toProcesses.insert(toProcesses.end(), {Bytes(fork), Bytes(created), Bytes(exit), Bytes(exited)});
        toExits.insert(toExits.end(), {Bytes(exit), Bytes(exited)});
        toMemory.push_back(Bytes(rss));

        if (i == 50) {
          // A record bigger than a whole batch goes out after what came before.
          std::string huge(EventBatch::kMaxBytes + 1, 'h');
          const uint32_t type = KAVO_EVENT_RSS_STAT;
          memcpy(&huge[0], &type, sizeof(type));
          EventManager::GetInstance()->AppendEvent(&huge[0], static_cast<unsigned>(huge.size()));
          toMemory.push_back(huge);
        }
      }
      batch.flush();
      // Flushed: everything made so far is queued, nothing waits.
      EXPECT_EQ(toProcesses, processes.Drain());
      EXPECT_EQ(toExits, exits.Drain());
      EXPECT_EQ(toMemory, memory.Drain());

      // Less than a batch, handed over when the scope ends.
      kavo_process_exited_event late = {KAVO_EVENT_PROCESS_EXITED, 9999, {'l', 'a', 't', 'e'}};
      EventManager::GetInstance()->AppendEvent(reinterpret_cast<char*>(&late), sizeof(late));
      toExits = {Bytes(late)};
    }
    EXPECT_EQ(toExits, processes.Drain());
    EXPECT_EQ(toExits, exits.Drain());
    EXPECT_TRUE(memory.Drain().empty());
  });
}

}  // namespace
}  // namespace Kavo::Bpf
