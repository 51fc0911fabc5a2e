// Handlers, /proc readers, map seeding and client callbacks that are not built
// yet; each moves to its own file when it is.

#include "service/kavo_bpf_service.h"

namespace Kavo::Bpf {

int KavoBpfService::handleKavoTaskInitEvent(char*, long long) { return 0; }
int KavoBpfService::handleKmem_RssStat(char*, long long) { return 0; }
int KavoBpfService::handleSched_SchedProcessFork(char*, long long) { return 0; }
int KavoBpfService::handleSched_SchedProcessExit(char*, long long) { return 0; }
void KavoBpfService::initTaskInfo() {}
int KavoBpfService::getProcessInfo(int, UpdateProcessExdata*) { return -1; }
long KavoBpfService::GetFdSize(const std::string&) { return 0; }
uint64_t KavoBpfService::GetFdInode(const std::string&) { return 0; }
int KavoBpfService::initBpfMap() { return 0; }
void KavoBpfService::initFdBpfProg() {}
void KavoBpfService::initDmabufBpfProg() {}
int KavoBpfService::onClientLibReadable(int, BufferState*) { return 0; }
int KavoBpfService::onClientLibWriteable(int, BufferState*) { return 0; }
int KavoBpfService::onClientLibConnection(int) { return 0; }
int KavoBpfService::onClientLibClose(int) { return 0; }
int KavoBpfService::onEventProvideReqCallBack(int, char*, unsigned int) { return 0; }

}  // namespace Kavo::Bpf
