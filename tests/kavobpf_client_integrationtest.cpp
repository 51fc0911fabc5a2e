// kavobpf_client as its users run it: wrong arguments, no service, and a
// service that sends a few events of known content.

#include <android-base/properties.h>
#include <signal.h>
#include <string.h>
#include <sys/wait.h>

#include <chrono>
#include <string>

#include <gtest/gtest.h>

#include "support/harness.h"
#include "support/wire.h"
#include "service/kavo_bpf_event_manager.h"
#include "service/kavo_bpf_service.h"
#include "support/processes.h"

namespace Kavo::Bpf {
namespace {

using namespace std::chrono_literals;
using kavo::test::ChildProcess;
using kavo::test::RunCommand;
using kavo::test::ToolPath;

template <typename Record>
void Publish(Record record) {
  EventManager::GetInstance()->AppendEvent(reinterpret_cast<char*>(&record), sizeof(record));
}

TEST(KavobpfClient, BadArgumentsShowUsage) {
  for (const std::vector<std::string>& args :
       {std::vector<std::string>{}, {"--events", "no_such_event"}, {"--events", "1", "--count", "0"},
        {"--events", "1", "--duration", "soon"}, {"--events", "1", "--bogus"}, {"--events"}}) {
    std::vector<std::string> argv = {ToolPath("kavobpf_client")};
    argv.insert(argv.end(), args.begin(), args.end());
    auto result = RunCommand(argv, 5);
    EXPECT_EQ(2, result.exitCode) << result.output;
    EXPECT_NE(std::string::npos, result.output.find("Usage: kavobpf_client")) << result.output;
  }
  auto help = RunCommand({ToolPath("kavobpf_client"), "--help"}, 5);
  EXPECT_EQ(0, help.exitCode);
  for (const char* documented : {"--events", "--json", "--count", "--duration", "--connect-timeout",
                                 "process_created", "memory_changed", "kmem_rss_info"}) {
    EXPECT_NE(std::string::npos, help.output.find(documented)) << documented;
  }
}

TEST(KavobpfClient, GivesUpWhenNoServiceAnswers) {
  kavo::test::RunInNamespace([] {
    auto before = std::chrono::steady_clock::now();
    auto result = RunCommand({ToolPath("kavobpf_client"), "--events", "1", "--connect-timeout", "1"}, 10);
    EXPECT_EQ(1, result.exitCode) << result.output;
    EXPECT_NE(std::string::npos,
              result.output.find("no service answered on /mnt/bpfframework/kavobpfdispatcher within 1 s"))
        << result.output;
    EXPECT_LT(std::chrono::steady_clock::now() - before, 4s);
  });
}

TEST(KavobpfClient, PrintsDecodedEventsUntilItsCount) {
  kavo::test::RunInNamespace([] {
    android::base::SetProperty("sys.kavo_bpf_ready", "0");
    ASSERT_TRUE(BpfServiceMain());
    // Listening before the client starts: a refused first attempt would cost
    // it its 5-second retry period.
    ASSERT_TRUE(kavo::test::RawClient().Connect());
    ChildProcess client({ToolPath("kavobpf_client"), "--events", "kmem_rss_info,process_created,99999",
                         "--count", "4"});
    ASSERT_TRUE(client.WaitForOutput("kavobpf_client: subscribed", 5s)) << client.Output();

    kavo_rss_event rss = {};
    rss.header.type = KAVO_EVENT_RSS_STAT;
    rss.header.time_ns = 123456789;
    rss.pid = 4321;
    rss.member = KAVO_RSS_ANON;
    rss.size = 8192;
    Publish(rss);
    kavo_process_created_event created = {KAVO_EVENT_PROCESS_CREATED, 77, 1, 10001, "my \"app\""};
    Publish(created);
    char unknown[6] = {static_cast<char>(0x9f), static_cast<char>(0x86), 0x01, 0x00, 0x01, 0x02};  // type 99999
    EventManager::GetInstance()->AppendEvent(unknown, sizeof(unknown));
    kavo_rss_event shortened = rss;  // cut short: shown as hex, not misread
    EventManager::GetInstance()->AppendEvent(reinterpret_cast<char*>(&shortened), 20);

    int status = 0;
    ASSERT_TRUE(client.WaitExit(5s, &status)) << client.Output();
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    std::string out = client.Output();
    EXPECT_NE(std::string::npos,
              out.find("kmem_rss_info time_ns=123456789 pid=4321 member=anon size_kib=8KiB\n"))
        << out;
    EXPECT_NE(std::string::npos, out.find("process_created pid=77 ppid=1 uid=10001 comm=my \"app\"\n")) << out;
    EXPECT_NE(std::string::npos, out.find("type=99999 size=6 hex=9f 86 01 00 01 02 \n")) << out;
    EXPECT_NE(std::string::npos, out.find("kmem_rss_info time_ns=123456789 size=20 hex=01 00")) << out;
    EXPECT_NE(std::string::npos,
              out.find("kavobpf_client: 4 events (kmem_rss_info: 2, process_created: 1, 99999: 1); "
                       "subscriptions: 3 accepted, 0 refused (result -1)"))
        << out;
  });
}

TEST(KavobpfClient, JsonLinesForADuration) {
  kavo::test::RunInNamespace([] {
    android::base::SetProperty("sys.kavo_bpf_ready", "0");
    ASSERT_TRUE(BpfServiceMain());
    // Listening before the client starts: a refused first attempt would cost
    // it its 5-second retry period.
    ASSERT_TRUE(kavo::test::RawClient().Connect());
    ChildProcess client({ToolPath("kavobpf_client"), "--events", "50002", "--json", "--duration", "1.5"});
    ASSERT_TRUE(client.WaitForOutput("kavobpf_client: subscribed", 5s)) << client.Output();
    kavo_process_exited_event exited = {KAVO_EVENT_PROCESS_EXITED, 88, "qu\"ote\\sl"};
    Publish(exited);
    int status = 0;
    ASSERT_TRUE(client.WaitExit(5s, &status)) << client.Output();
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    std::string out = client.Output();
    EXPECT_NE(std::string::npos, out.find("{\"type\":50002,\"name\":\"process_exited\",\"recv_ns\":")) << out;
    EXPECT_NE(std::string::npos, out.find(",\"pid\":88,\"comm\":\"qu\\\"ote\\\\sl\"}\n")) << out;
  });
}

}  // namespace
}  // namespace Kavo::Bpf
