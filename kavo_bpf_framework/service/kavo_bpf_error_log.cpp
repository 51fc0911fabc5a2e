#include "service/kavo_bpf_error_log.h"

#include <android/log.h>
#include <errno.h>
#include <string.h>
#include <sys/prctl.h>
#include <time.h>
#include <unistd.h>

#include <mutex>
#include <string>
#include <vector>

#include "utils/kavo_bpf_file.h"
#include "utils/kavo_bpf_helper.h"

namespace Kavo::Bpf {

const char* const KAVO_ERROR_LOG_DIR = "/data/kavolog/stability/kavobpfframework/";
const char* const KAVO_ERROR_LOG_PATH = "/data/kavolog/stability/kavobpfframework/error.log";
const char* const KAVO_ERROR_OLD_LOG_PATH = "/data/kavolog/stability/kavobpfframework/error.old.log";

namespace {

constexpr char kTag[] = "BpfUtils";
// The newest record plus this many lines of the older ones are kept.
constexpr size_t kKeptOldLines = 4999;

std::mutex& ErrorLogLock() {
  static std::mutex lock;
  return lock;
}

std::string ReadCmdline() {
  std::string cmdline;
  ScopedFile file = OpenForRead("/proc/self/cmdline");
  if (!file) return cmdline;
  char chunk[512];
  size_t n;
  while ((n = fread(chunk, 1, sizeof(chunk), file.get())) > 0) cmdline.append(chunk, n);
  for (char& c : cmdline) {
    if (c == '\0') c = ' ';
  }
  if (!cmdline.empty() && cmdline.back() == ' ') cmdline.pop_back();
  return cmdline;
}

std::string ThreadName() {
  char name[17] = {};
  if (prctl(PR_GET_NAME, name, 0, 0, 0) != 0) return "";
  return name;
}

}  // namespace

int InitBpfServiceErrorLog() {
  MakeDirs(KAVO_ERROR_LOG_DIR, 0775);
  return rename(KAVO_ERROR_LOG_PATH, KAVO_ERROR_OLD_LOG_PATH);
}

void RecordBpfServiceErrorInfo(int errorCode, std::string const& error) {
  time_t now = time(nullptr);
  struct tm local;
  char timeText[64] = {};
  if (localtime_r(&now, &local) != nullptr) {
    strftime(timeText, sizeof(timeText), "%Y-%m-%d %H:%M:%S", &local);
  }
  std::string record = StringPrintf(
      "----------\nTime: %s\nPid: %d\nTid: %d\nCmdline: %s\nComm: %s\nErrorCode: %d\nError: %s\n",
      timeText, getpid(), gettid(), ReadCmdline().c_str(), ThreadName().c_str(), errorCode,
      error.c_str());

  std::lock_guard<std::mutex> guard(ErrorLogLock());
  std::vector<std::string> lines;
  lines.push_back(std::move(record));
  {
    ScopedFile old = OpenForRead(KAVO_ERROR_LOG_PATH);
    if (!old) {
      __android_log_print(ANDROID_LOG_ERROR, kTag, "failed to read %s, error: %s",
                          KAVO_ERROR_LOG_PATH, strerror(errno));
    } else {
      ForEachLine(old.get(), [&lines](std::string_view line) {
        if (lines.size() > kKeptOldLines) return LineAction::kStop;
        lines.emplace_back(line);
        return lines.size() > kKeptOldLines ? LineAction::kStop : LineAction::kContinue;
      });
    }
  }
  ScopedFile out(fopen(KAVO_ERROR_LOG_PATH, "we"));
  if (!out) {
    __android_log_print(ANDROID_LOG_ERROR, kTag, "failed to write %s, error: %s",
                        KAVO_ERROR_LOG_PATH, strerror(errno));
    return;
  }
  for (const std::string& line : lines) {
    fwrite(line.data(), 1, line.size(), out.get());
    fputc('\n', out.get());
  }
  fflush(out.get());
}

void InstallErrorLogAsIpcRecorder() { SetIpcErrorRecorder(&RecordBpfServiceErrorInfo); }

}  // namespace Kavo::Bpf
