#include "support/harness.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <vector>

namespace kavo::test {

namespace {

// One record on the child-to-parent pipe:
//   u32 kind | u32 line | u32 file length | file | u32 message length | message
enum RecordKind : uint32_t { kFailure = 1, kSkip = 2 };

void WriteAll(int fd, const void* data, size_t size) {
  const char* p = static_cast<const char*>(data);
  while (size > 0) {
    ssize_t n = write(fd, p, size);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return;
    p += n;
    size -= static_cast<size_t>(n);
  }
}

void SendRecord(int fd, uint32_t kind, const std::string& file, uint32_t line,
                const std::string& message) {
  std::string buffer;
  auto put32 = [&buffer](uint32_t v) { buffer.append(reinterpret_cast<const char*>(&v), 4); };
  put32(kind);
  put32(line);
  put32(static_cast<uint32_t>(file.size()));
  buffer += file;
  put32(static_cast<uint32_t>(message.size()));
  buffer += message;
  WriteAll(fd, buffer.data(), buffer.size());
}

// Forwards the child's results to the parent.
class ResultForwarder : public ::testing::EmptyTestEventListener {
 public:
  explicit ResultForwarder(int fd) : fd_(fd) {}
  void OnTestPartResult(const ::testing::TestPartResult& result) override {
    uint32_t kind;
    if (result.skipped()) {
      kind = kSkip;
    } else if (result.failed()) {
      kind = kFailure;
    } else {
      return;
    }
    SendRecord(fd_, kind, result.file_name() ? result.file_name() : "", 
               result.line_number() < 0 ? 0 : static_cast<uint32_t>(result.line_number()),
               result.message());
  }

 private:
  int fd_;
};

[[noreturn]] void RunChild(const std::function<void()>& body, const NamespaceOptions& options,
                           int resultFd) {
  ::testing::TestEventListeners& listeners = ::testing::UnitTest::GetInstance()->listeners();
  delete listeners.Release(listeners.default_result_printer());
  listeners.Append(new ResultForwarder(resultFd));

  std::string why;
  PrivateMounts mounts;
  mounts.fakeProc = options.fakeProc;
  if (!EnterPrivateNamespaces(mounts, &why)) {
    SendRecord(resultFd, KernelRequired() ? kFailure : kSkip, __FILE__, __LINE__,
               "kernel refused the test namespace: " + why);
  } else {
    body();
  }
  fflush(nullptr);
  _exit(0);
}

struct Record {
  uint32_t kind;
  uint32_t line;
  std::string file;
  std::string message;
};

// Parses whole records off the front of |buffer|.
void ParseRecords(std::string* buffer, std::vector<Record>* records) {
  size_t pos = 0;
  auto get32 = [&](size_t at, uint32_t* v) {
    if (at + 4 > buffer->size()) return false;
    memcpy(v, buffer->data() + at, 4);
    return true;
  };
  while (true) {
    Record r;
    uint32_t fileLength, messageLength;
    size_t at = pos;
    if (!get32(at, &r.kind) || !get32(at + 4, &r.line) || !get32(at + 8, &fileLength)) break;
    at += 12;
    if (at + fileLength > buffer->size()) break;
    r.file = buffer->substr(at, fileLength);
    at += fileLength;
    if (!get32(at, &messageLength)) break;
    at += 4;
    if (at + messageLength > buffer->size()) break;
    r.message = buffer->substr(at, messageLength);
    pos = at + messageLength;
    records->push_back(std::move(r));
  }
  buffer->erase(0, pos);
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

  std::string buffer;
  std::vector<Record> records;
  bool timedOut = false;
  struct timespec start;
  clock_gettime(CLOCK_MONOTONIC, &start);
  while (true) {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    long elapsedMs = (now.tv_sec - start.tv_sec) * 1000 + (now.tv_nsec - start.tv_nsec) / 1000000;
    long leftMs = options.timeoutSeconds * 1000L - elapsedMs;
    if (leftMs <= 0) {
      timedOut = true;
      break;
    }
    struct pollfd pfd = {fds[0], POLLIN, 0};
    int ready = poll(&pfd, 1, static_cast<int>(leftMs));
    if (ready < 0 && errno == EINTR) continue;
    if (ready <= 0) continue;
    char chunk[4096];
    ssize_t n = read(fds[0], chunk, sizeof(chunk));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;  // the child is done (or gone)
    buffer.append(chunk, static_cast<size_t>(n));
    ParseRecords(&buffer, &records);
  }
  close(fds[0]);
  if (timedOut) kill(child, SIGKILL);
  int status = 0;
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }

  bool skipped = false;
  std::string skipMessage;
  for (const Record& r : records) {
    if (r.kind == kFailure) {
      ADD_FAILURE_AT(r.file.c_str(), static_cast<int>(r.line)) << r.message;
    } else if (r.kind == kSkip) {
      skipped = true;
      skipMessage = r.message;
    }
  }
  if (timedOut) {
    ADD_FAILURE() << "test child timed out after " << options.timeoutSeconds << " s";
  } else if (WIFSIGNALED(status)) {
    ADD_FAILURE() << "test child died of signal " << WTERMSIG(status) << " ("
                  << strsignal(WTERMSIG(status)) << ")";
  } else if (WIFEXITED(status) && WEXITSTATUS(status) != 0) {
    ADD_FAILURE() << "test child exited with " << WEXITSTATUS(status);
  }
  if (skipped) GTEST_SKIP() << skipMessage;
}

void MountFakeProc() {
  std::string why;
  ASSERT_TRUE(kavo::test::MountFakeProc(false, &why)) << why;
}

}  // namespace kavo::test
