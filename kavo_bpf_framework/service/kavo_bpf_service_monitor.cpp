// Ring monitors and dispatch: not built yet; the producer threads end here.

#include "service/kavo_bpf_service.h"

namespace Kavo::Bpf {

int KavoBpfService::eventMonitor() { return monitorRing(kRingDefineset); }
int KavoBpfService::gpleventMonitor() { return monitorRing(kRingGplDefineset); }
int KavoBpfService::monitorRing(int) { return -1; }
int KavoBpfService::handleBpfRingBuffEvent(void*, void*, unsigned int) { return 0; }
int KavoBpfService::handleBpfPassthrough(char*, long long) { return 0; }
bool KavoBpfService::checkBpfRingBuffStatus(int, bool) { return true; }

}  // namespace Kavo::Bpf
