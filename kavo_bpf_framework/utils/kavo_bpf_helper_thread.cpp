// Naming and pinning of the service's threads.

#include <sys/prctl.h>
#include <unistd.h>

#include "utils/kavo_bpf_helper.h"

namespace Kavo::Bpf {

cpu_set_t ServiceCpuSet() {
  cpu_set_t cpus;
  CPU_ZERO(&cpus);
  for (int cpu = 0; cpu <= 2; ++cpu) CPU_SET(cpu, &cpus);
  return cpus;
}

bool NameAndPinThread(const char* name, const cpu_set_t& cpus) {
  prctl(PR_SET_NAME, name, 0, 0, 0);
  return sched_setaffinity(gettid(), sizeof(cpus), &cpus) == 0;
}

}  // namespace Kavo::Bpf
