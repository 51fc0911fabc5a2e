// The service's side of the client protocol: a queue per connection, requests
// to subscribe (51) and unsubscribe (52) from event types, one response per
// request, and the write path that packs queued packages into the
// connection's send buffer. Everything here runs on the IPC thread.
//
// packageManagers is read by EventManager::AppendEvent on the producer
// threads under kavoRawEventManagerLock, so entries are inserted and erased
// under that lock too; lookups on this thread need no lock.

#include <android-base/logging.h>
#include <android/log.h>
#include <string.h>

#include "service/kavo_bpf_event_manager.h"
#include "service/kavo_bpf_service.h"

namespace Kavo::Bpf {

namespace {

constexpr char kTag[] = "BpfService";

}  // namespace

int KavoBpfService::onClientLibConnection(int fd) {
  std::lock_guard<std::mutex> guard(EventManager::kavoRawEventManagerLock);
  packageManagers.try_emplace(fd);
  return 0;
}

int KavoBpfService::onClientLibClose(int fd) {
  // Once the connection is nobody's subscriber, no producer looks for its queue.
  EventManager::GetInstance()->EraseObserver(fd);
  std::lock_guard<std::mutex> guard(EventManager::kavoRawEventManagerLock);
  packageManagers.erase(fd);
  return 0;
}

int KavoBpfService::onClientLibReadable(int fd, BufferState* readBuffer) {
  BufferState* readBufferState = readBuffer;
  while (readBufferState->bufferCursor != readBufferState->bufferDataCursor) {
    unsigned headerSize = 0;
    unsigned packageSize = 0;
    if (!CheckIpcPackageComplete(readBufferState, &headerSize, &packageSize)) return 0;
    CHECK(readBufferState->read(ipcPackageHeaderSize) != nullptr);
    char* package = readBufferState->read(packageSize);
    CHECK(package != nullptr);
    if (packageHandler->handleSecondIpcPackage(fd, package, packageSize) != -1) continue;

    __android_log_print(ANDROID_LOG_ERROR, kTag,
                        "[KavoBpfService] Resv event: bufferCursor (%zd), numSize (%zd), dataSize (%zd), readCount (%zd)",
                        readBufferState->bufferCursor, static_cast<size_t>(headerSize),
                        static_cast<size_t>(packageSize), readBufferState->bufferDataCursor);
    const char* frame = package - ipcPackageHeaderSize;
    __android_log_print(ANDROID_LOG_ERROR, kTag, "[KavoBpfService] BUFFER HEXDUMP: %s",
                        ConvertToHexString(frame, static_cast<int>(packageSize + ipcPackageHeaderSize)).c_str());
    return -1;
  }
  return 0;
}

int KavoBpfService::onClientLibWriteable(int fd, BufferState* writeBuffer) {
  // Events the monitors handed over go into the queues first.
  EventManager::GetInstance()->deliverHandedOver();
  auto it = packageManagers.find(fd);
  if (it == packageManagers.end()) return 0;
  // Whole packages back to back, until the next one does not fit: what
  // repeated fillNextIpcPackageToBuffer calls do, under one lock of the queue
  // rather than one per package, so producers appending meanwhile wait once.
  it->second.fillNextIpcPackagesToBuffer(writeBuffer);
  return 0;
}

int KavoBpfService::onEventProvideReqCallBack(int fd, char* data, unsigned int size) {
  KavoReqIpcPackageHeader request;
  if (size < sizeof(request)) {
    // Too short to hold a request header: there is no reqId to answer.
    __android_log_print(ANDROID_LOG_ERROR, kTag, "[KavoBpfService] request too short: %u bytes, fd: %d", size, fd);
    return 0;
  }
  memcpy(&request, data, sizeof(request));
  if (request.dataSize != size - sizeof(KavoReqIpcPackageHeader)) {
    LOG(FATAL) << "Check failed: ((KavoReqIpcPackageHeader*)data)->dataSize == size - "
                  "sizeof(KavoReqIpcPackageHeader) ";
  }

  KavoRespIpcPackage response;
  response.reqId = request.reqId;
  response.result = -1;
  response.dataSize = 0;
  if (request.reqType == KAVO_REQ_SUBSCRIBE || request.reqType == KAVO_REQ_UNSUBSCRIBE) {
    int32_t eventType;
    // A subscription without its event type is refused rather than read past
    // the end of the package.
    if (request.dataSize >= sizeof(eventType)) {
      memcpy(&eventType, data + sizeof(request), sizeof(eventType));
      EventManager* events = EventManager::GetInstance();
      if (request.reqType == KAVO_REQ_UNSUBSCRIBE) {
        events->DelObserverEvent(fd, eventType);
      } else {
        events->AddObserverEvent(fd, eventType);
      }
      response.result = 0;
    }
  }

  IpcPackageManager* queue;
  {
    std::lock_guard<std::mutex> guard(EventManager::kavoRawEventManagerLock);
    queue = &packageManagers.try_emplace(fd).first->second;
  }
  queue->appendRespIpcPackage(&response);
  ipcManager->notifyNeedWriteData(fd);
  return 0;
}

std::map<int, size_t> KavoBpfService::getClientQueueLengths() {
  std::lock_guard<std::mutex> guard(EventManager::kavoRawEventManagerLock);
  std::map<int, size_t> lengths;
  for (const auto& [fd, queue] : packageManagers) lengths[fd] = queue.getIpcPackageCount();
  return lengths;
}

}  // namespace Kavo::Bpf
