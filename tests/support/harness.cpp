#include "support/harness.h"

#include <android-base/file.h>
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <vector>

namespace kavo::test {

namespace {

// The child's results go to the parent as lines of NUL-separated fields:
// kind ('F' failure, 'S' skip), file, line, message.
void Send(int fd, char kind, const std::string& file, int line, const std::string& message) {
  std::string record = std::string(1, kind) + '\0' + file + '\0' + std::to_string(line) + '\0' + message + '\0';
  android::base::WriteFully(fd, record.data(), record.size());
}

struct ResultForwarder : ::testing::EmptyTestEventListener {
  explicit ResultForwarder(int fd) : fd(fd) {}
  void OnTestPartResult(const ::testing::TestPartResult& r) override {
    if (r.skipped() || r.failed()) Send(fd, r.skipped() ? 'S' : 'F', r.file_name() ? r.file_name() : "", r.line_number(), r.message());
  }
  const int fd;
};

[[noreturn]] void RunChild(const std::function<void()>& body, const NamespaceOptions& options, int resultFd) {
  ::testing::TestEventListeners& listeners = ::testing::UnitTest::GetInstance()->listeners();
  delete listeners.Release(listeners.default_result_printer());
  listeners.Append(new ResultForwarder(resultFd));
  std::string why;
  PrivateMounts mounts;
  mounts.fakeProc = options.fakeProc;
  if (EnterPrivateNamespaces(mounts, &why)) {
    body();
  } else {
    Send(resultFd, KernelRequired() ? 'F' : 'S', __FILE__, __LINE__, "kernel refused the test namespace: " + why);
  }
  fflush(nullptr);
  _exit(0);
}

}  // namespace

bool KernelRequired() {
  const char* value = getenv("KAVO_REQUIRE_KERNEL");
  return value != nullptr && strcmp(value, "1") == 0;
}

bool KernelKnownToLack(const std::string& feature) {
  const char* lacks = getenv("KAVO_KERNEL_LACKS");
  std::string list = "," + std::string(lacks != nullptr ? lacks : "") + ",";
  return list.find("," + feature + ",") != std::string::npos;
}

void RunInNamespace(const std::function<void()>& body, const NamespaceOptions& options) {
  int fds[2];
  ASSERT_EQ(0, pipe2(fds, O_CLOEXEC)) << strerror(errno);
  fflush(nullptr);
  pid_t child = fork();
  ASSERT_GE(child, 0) << strerror(errno);
  if (child == 0) {
    close(fds[0]);
    RunChild(body, options, fds[1]);
  }
  close(fds[1]);
  // Everything the child reports, until it closes the pipe or its time is up.
  std::string results;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(options.timeoutSeconds);
  bool timedOut = false;
  for (char chunk[4096];;) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    struct pollfd pfd = {fds[0], POLLIN, 0};
    if ((timedOut = left.count() <= 0)) break;
    if (poll(&pfd, 1, static_cast<int>(left.count())) <= 0) continue;
    ssize_t n = read(fds[0], chunk, sizeof(chunk));
    if (n == 0 || (n < 0 && errno != EINTR)) break;
    if (n > 0) results.append(chunk, static_cast<size_t>(n));
  }
  close(fds[0]);
  if (timedOut) kill(child, SIGKILL);
  int status = 0;
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  std::vector<std::string> fields;
  for (size_t at = 0, end; (end = results.find('\0', at)) != std::string::npos; at = end + 1) fields.push_back(results.substr(at, end - at));
  const std::string* skipMessage = nullptr;
  for (size_t i = 0; i + 3 < fields.size(); i += 4) {
    if (fields[i] == "F") ADD_FAILURE_AT(fields[i + 1].c_str(), atoi(fields[i + 2].c_str())) << fields[i + 3];
    if (fields[i] == "S") skipMessage = &fields[i + 3];
  }
  if (timedOut) {
    ADD_FAILURE() << "test child timed out after " << options.timeoutSeconds << " s";
  } else if (WIFSIGNALED(status)) {
    ADD_FAILURE() << "test child died of signal " << WTERMSIG(status) << " (" << strsignal(WTERMSIG(status)) << ")";
  } else if (WIFEXITED(status) && WEXITSTATUS(status) != 0) {
    ADD_FAILURE() << "test child exited with " << WEXITSTATUS(status);
  }
  if (skipMessage != nullptr) GTEST_SKIP() << *skipMessage;
}

}  // namespace kavo::test
