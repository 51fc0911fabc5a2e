// Splitting a read buffer into packages and dispatching them by type; request
// ids and response callbacks for the requesting end.
//
// One pass over a read buffer (c = bufferCursor, d = bufferDataCursor):
//
//   |c| 4 | type | size | body | 4 | type | size | body | 4 | ty..|d|
//      `------- frame 1 -------'   `------ frame 2 -------'  `- partial: stays -'
//
// Each whole frame is consumed and its body handed to the handler of its
// type; a partial frame stays for the next receive; a handler's -1 stops the
// pass with the later frames still unread.

#define LOG_TAG "BpfUtils"

#include "utils/kavo_bpf_ipc_package_handler.h"

#include <android-base/logging.h>
#include <android/log.h>
#include <string.h>

namespace {

constexpr char kTag[] = "BpfUtils";

}  // namespace

IpcPackageHandler::IpcPackageHandler(std::map<unsigned, IpcPackageHandlerFunc> handlers)
    : handlers_(std::move(handlers)) {}

int IpcPackageHandler::handleAllIpcPackageInBuffer(int fd, BufferState* readBufferState) {
  while (readBufferState->bufferCursor != readBufferState->bufferDataCursor) {
    unsigned headerSize = 0;
    unsigned packageSize = 0;
    if (!CheckIpcPackageComplete(readBufferState, &headerSize, &packageSize)) return 1;
    CHECK(readBufferState->read(ipcPackageHeaderSize) != nullptr);
    // Present: the completeness check saw the whole frame inside the buffer.
    char* package = readBufferState->read(packageSize);
    if (package == nullptr) return 1;
    if (handleSecondIpcPackage(fd, package, packageSize) == -1) return 0;
  }
  return 1;
}

int IpcPackageHandler::handleSecondIpcPackage(int fd, char* package, unsigned size) {
  if (size < sizeof(KavoIpcSecondLevelPackageHeader)) {
    // Too short to hold the header that says what it is: nothing to check
    // against, and nothing to read without running past the frame.
    __android_log_print(ANDROID_LOG_ERROR, kTag,
                        "[IpcPackageHandler] package of %u bytes has no room for its header, fd: %d",
                        size, fd);
    return 0;
  }
  // The package may stand at any offset of the read buffer.
  KavoIpcSecondLevelPackageHeader header;
  memcpy(&header, package, sizeof(header));
  const KavoIpcSecondLevelPackageHeader* packagePtr = &header;
  CHECK(packagePtr->size == size - sizeof(KavoIpcSecondLevelPackageHeader));

  auto it = handlers_.find(packagePtr->type);
  if (it == handlers_.end() || !it->second) return 0;
  return it->second(fd, package + sizeof(KavoIpcSecondLevelPackageHeader), packagePtr->size);
}

unsigned IpcReqCallBackManager::getReqId() {
  std::lock_guard<std::mutex> guard(mutex_);
  return nextReqId_++;  // wraps modulo 2^32
}

bool IpcReqCallBackManager::addIpcReqCallBack(unsigned reqId, IpcReqCallBack callback) {
  std::lock_guard<std::mutex> guard(mutex_);
  auto [it, inserted] = callbacks_.insert_or_assign(reqId, std::move(callback));
  (void)it;
  return inserted;
}

bool IpcReqCallBackManager::delIpcReq(unsigned reqId) {
  std::lock_guard<std::mutex> guard(mutex_);
  return callbacks_.erase(reqId) != 0;
}

bool IpcReqCallBackManager::handleReqCallBack(const KavoRespIpcPackageHeader* resp) {
  // The response may stand at any offset of a read buffer.
  KavoRespIpcPackageHeader header;
  memcpy(&header, resp, sizeof(header));
  char* data = const_cast<char*>(reinterpret_cast<const char*>(resp)) + sizeof(header);

  std::lock_guard<std::mutex> guard(mutex_);
  auto it = callbacks_.find(header.reqId);
  if (it == callbacks_.end()) {
    __android_log_print(ANDROID_LOG_ERROR, kTag,
                        "[IRCB Manager] Unknow request callback functuin: reqId: %u", header.reqId);
    return false;
  }
  // Out of the table first: each callback runs at most once.
  IpcReqCallBack callback = std::move(it->second);
  callbacks_.erase(it);
  if (callback) callback(header.reqId, header.result, data, header.dataSize);
  return true;
}
