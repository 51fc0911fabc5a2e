#include "fuzz_support.h"

#include "support/namespaces.h"

#include <android/log.h>
#include <stdio.h>

#include <string>

namespace kavo::fuzz {

namespace {

void DropBelowFatal(const struct __android_logger_data* data, const char* message) {
  if (data->priority >= ANDROID_LOG_FATAL) __android_log_stderr_logger(data, message);
}

}  // namespace

bool PrivateMounts(bool fakeProc, bool bpffs) {
  kavo::test::PrivateMounts mounts{/*network=*/false, /*mnt=*/false, bpffs, fakeProc, /*keepOwnProc=*/true};
  std::string why;
  if (kavo::test::EnterPrivateNamespaces(mounts, &why)) return true;
  fprintf(stderr, "fuzz: %s\n", why.c_str());
  return false;
}

void QuietLog() { __android_log_set_logger(DropBelowFatal); }

}  // namespace kavo::fuzz
