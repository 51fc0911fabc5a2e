#pragma once

// The running kernel's "major.minor" (from uname), as the service's
// ro.kernel.version property carries it on a device. Shared by kavobpfd,
// which sets the property on Linux, and the tests and benchmarks.

#include <sys/utsname.h>

#include <string>

namespace kavo {

inline std::string RunningKernelVersion() {
  struct utsname uts;
  if (uname(&uts) != 0) return "0.0";
  std::string release(uts.release);
  size_t first = release.find('.');
  if (first == std::string::npos) return release;
  return release.substr(0, release.find_first_not_of("0123456789", first + 1));
}

}  // namespace kavo
