// The IPC framework is not built yet: an endpoint that does nothing.

#include "utils/kavo_bpf_ipc_helper.h"

UnixIpcManager::UnixIpcManager(bool serverRole, int bufferSize, std::string socketName,
                               IpcHandlerState handlers, const char*, cpu_set_t, int, int)
    : socketName_(std::move(socketName)), serverRole_(serverRole), bufferSize_(bufferSize),
      handlers_(std::move(handlers)) {}
UnixIpcManager::~UnixIpcManager() = default;
bool UnixIpcManager::createServer() { return false; }
bool UnixIpcManager::connect() { return false; }
bool UnixIpcManager::start() { return true; }
bool UnixIpcManager::stop() { return true; }
bool UnixIpcManager::notifyNeedWriteData(int) { return false; }
IpcPackageHandler::IpcPackageHandler(std::map<unsigned, IpcPackageHandlerFunc> handlers)
    : handlers_(std::move(handlers)) {}
bool IpcPackageManager::buildAndAppendSecondIpcPackage(unsigned, char*, unsigned) { return false; }
EpollManager::~EpollManager() = default;
