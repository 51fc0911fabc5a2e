// Outgoing packages: their bytes, the bounds of a client's queue, how they
// fit a send buffer, and the requesting end's response callbacks.

#include <string.h>

#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/ipc_test_server.h"
#include "support/log_capture.h"
#include "support/harness.h"
#include "support/wire.h"
#include "support/ipc_error_capture.h"

namespace {

// What the framework loses, as its user would record it.
[[maybe_unused]] const bool kCapturing = (kavo::test::CaptureIpcErrors(), true);

std::string U32(uint32_t value) { return std::string(reinterpret_cast<const char*>(&value), 4); }

// Everything queued, as the bytes a client would read.
std::string Drain(IpcPackageManager* queue) {
  std::string sent;
  BufferState buffer;
  buffer.buffer.resize(32768);
  for (bool more = true; more;) {
    buffer.resetCursors();
    more = false;
    while (queue->fillNextIpcPackageToBuffer(&buffer)) more = true;
    sent.append(buffer.data(), buffer.bufferDataCursor);
  }
  return sent;
}

TEST(IpcPackage, BytesOnTheWire) {
  IpcPackageManager queue;
  KavoRespIpcPackage response;
  response.reqId = 7;
  response.result = -1;
  queue.appendRespIpcPackage(&response);
  int32_t eventType = 3;
  KavoReqIpcPackage request{9, KAVO_REQ_SUBSCRIBE, 4, reinterpret_cast<const char*>(&eventType)};
  queue.appendReqIpcPackage(&request);
  char event[] = "evt!";
  EXPECT_FALSE(queue.buildAndAppendSecondIpcPackage(4, event, 4));  // no such type: nothing queued
  EXPECT_TRUE(queue.buildAndAppendSecondIpcPackage(3, event, 0));
  queue.buildAndAppendIpcPackage(event, 4);  // already a package: sent as it is
  EXPECT_EQ(4u, queue.getIpcPackageCount());
  EXPECT_EQ(U32(20) + U32(1) + U32(12) + U32(7) + U32(0xFFFFFFFF) + U32(0) +
                kavo::test::RequestFrame(9, 51, 3) + kavo::test::PackageFrame(3, "") + U32(4) + "evt!",
            Drain(&queue));
}

TEST(IpcPackage, ARunawayQueueKeepsItsNewestHalf) {
  kavo::test::RunInNamespace([] {
    kavo::test::LogCapture log;
    // Each way of queueing, with the error kind and log line it reports.
    const std::vector<std::pair<std::string, std::function<void(IpcPackageManager*, uint32_t)>>> ways = {
        {"ErrorCode: 3/[BuildAndAppendIpc]",
         [](IpcPackageManager* q, uint32_t i) { q->buildAndAppendIpcPackage(reinterpret_cast<char*>(&i), 4); }},
        {"ErrorCode: 4/[AppendSecondIpc]",
         [](IpcPackageManager* q, uint32_t i) { q->buildAndAppendSecondIpcPackage(3, reinterpret_cast<char*>(&i), 4); }},
        {"ErrorCode: 5/[AppendReqIpc]", [](IpcPackageManager* q, uint32_t i) {
           KavoReqIpcPackage request{i, 0, 0, nullptr};
           q->appendReqIpcPackage(&request);
         }},
        {"ErrorCode: 6/[AppendRespIpc]", [](IpcPackageManager* q, uint32_t i) {
           KavoRespIpcPackage response;
           response.reqId = i;
           q->appendRespIpcPackage(&response);
         }},
    };
    for (const auto& [kind, append] : ways) {
      SCOPED_TRACE(kind);
      const std::string code = kind.substr(0, kind.find('/'));
      const std::string line = kind.substr(kind.find('/') + 1) + " ipc Package Queue too big: 10001";
      IpcPackageManager queue;  // a client that stopped reading while events kept coming
      for (uint32_t i = 0; i <= 10000; ++i) append(&queue, i);
      EXPECT_EQ(10001u, queue.getIpcPackageCount());
      EXPECT_FALSE(log.Contains(line));
      append(&queue, 10001);
      EXPECT_EQ(5001u, queue.getIpcPackageCount());
      EXPECT_TRUE(log.Contains(line, ANDROID_LOG_ERROR));
      EXPECT_EQ(0u, kavo::test::RecordedIpcErrors()
                        .find("----------\n")); // newest on top
      EXPECT_NE(std::string::npos, kavo::test::RecordedIpcErrors()
                                       .find(code + "\nError: B&A Ipc Package queue full 10000\n"));
      // The oldest survivor is number 5001, the newest 10001.
      std::string sent = Drain(&queue);
      EXPECT_EQ(std::string::npos, sent.find(U32(5000)));
      EXPECT_NE(std::string::npos, sent.find(U32(5001)));
      EXPECT_NE(std::string::npos, sent.find(U32(10001)));
    }
  });
}

// How often |needle| stands in |text|.
size_t Occurrences(const std::string& text, const std::string& needle) {
  size_t count = 0;
  for (size_t at = text.find(needle); at != std::string::npos; at = text.find(needle, at + 1)) ++count;
  return count;
}

TEST(IpcPackage, AppendingABatchQueuesWhatAppendingOneByOneQueues) {
  kavo::test::RunInNamespace([] {
    kavo::test::LogCapture log;
    const std::string line = "[AppendSecondIpc] ipc Package Queue too big: 10001";
    // Two clients that stopped reading, 9998 events behind, then a burst that
    // takes each over the mark twice: at its 4th event (10001 queued) and
    // 5001 events later.
    IpcPackageManager oneByOne, batched;
    for (uint32_t i = 0; i < 9998; ++i) {
      oneByOne.buildAndAppendSecondIpcPackage(3, reinterpret_cast<char*>(&i), 4);
      batched.buildAndAppendSecondIpcPackage(3, reinterpret_cast<char*>(&i), 4);
    }
    std::vector<uint32_t> burst;
    for (uint32_t i = 9998; i < 9998 + 5006; ++i) burst.push_back(i);
    std::vector<KavoIpcBytes> bodies;
    for (const uint32_t& value : burst) bodies.push_back({reinterpret_cast<const char*>(&value), 4});

    EXPECT_FALSE(batched.buildAndAppendSecondIpcPackages(4, bodies.data(), 3));  // no such type
    EXPECT_EQ(9998u, batched.getIpcPackageCount());

    // Up to the mark and one past it: no trim yet, either way.
    for (size_t i = 0; i < 3; ++i) {
      oneByOne.buildAndAppendSecondIpcPackage(3, const_cast<char*>(bodies[i].data), 4);
    }
    EXPECT_TRUE(batched.buildAndAppendSecondIpcPackages(3, bodies.data(), 3));
    EXPECT_EQ(10001u, oneByOne.getIpcPackageCount());
    EXPECT_EQ(10001u, batched.getIpcPackageCount());
    EXPECT_EQ(0u, log.Count(line));
    const size_t recordsBefore = Occurrences(kavo::test::RecordedIpcErrors(), "ErrorCode: 4\n");

    // The rest: two trims each, in one batch or one at a time.
    for (size_t i = 3; i < bodies.size(); ++i) {
      oneByOne.buildAndAppendSecondIpcPackage(3, const_cast<char*>(bodies[i].data), 4);
    }
    EXPECT_EQ(2u, log.Count(line, ANDROID_LOG_ERROR));
    EXPECT_TRUE(batched.buildAndAppendSecondIpcPackages(3, bodies.data() + 3, bodies.size() - 3));
    EXPECT_EQ(4u, log.Count(line, ANDROID_LOG_ERROR));
    EXPECT_EQ(recordsBefore + 4, Occurrences(kavo::test::RecordedIpcErrors(), "ErrorCode: 4\n"));
    EXPECT_EQ(oneByOne.getIpcPackageCount(), batched.getIpcPackageCount());
    const std::string sent = Drain(&oneByOne);
    EXPECT_TRUE(sent == Drain(&batched));
    // What survived: the 5002 newest, numbers 10002 to 15003.
    EXPECT_EQ(5002u * 16, sent.size());
    EXPECT_EQ(kavo::test::PackageFrame(3, U32(10002)), sent.substr(0, 16));
    EXPECT_EQ(kavo::test::PackageFrame(3, U32(15003)), sent.substr(sent.size() - 16));
  });
}

TEST(IpcPackage, PackagesFitTheSendBufferWholeOrWait) {
  kavo::test::RunInNamespace([] {
    IpcPackageManager queue;
    std::vector<char> big(32765, 'b');
    queue.buildAndAppendIpcPackage(big.data(), 32764);  // with its size: 32768, exactly
    queue.buildAndAppendIpcPackage(big.data(), 32765);  // can never be sent
    queue.buildAndAppendSecondIpcPackage(3, big.data(), 10);
    BufferState buffer;
    buffer.buffer.resize(32768);
    EXPECT_TRUE(queue.fillNextIpcPackageToBuffer(&buffer));
    EXPECT_EQ(32768u, buffer.bufferDataCursor);
    buffer.resetCursors();
    EXPECT_FALSE(queue.fillNextIpcPackageToBuffer(&buffer));  // dropped, on the record
    EXPECT_EQ(1u, queue.getIpcPackageCount());
    EXPECT_NE(std::string::npos, kavo::test::RecordedIpcErrors()
                                     .find("ErrorCode: 8\nError: fillNextIpcPackageToBuffer ipc package damaged\n"));
    // Short of room by one byte, the 22-byte frame waits for a drained buffer.
    buffer.bufferDataCursor = 32768 - 21;
    EXPECT_FALSE(queue.fillNextIpcPackageToBuffer(&buffer));
    EXPECT_EQ(1u, queue.getIpcPackageCount());
    buffer.bufferDataCursor = 32768 - 22;
    EXPECT_TRUE(queue.fillNextIpcPackageToBuffer(&buffer));

    // Packing many: true means nothing was wrong, whether or not all fit.
    BufferState small;
    small.buffer.resize(40);
    for (int i = 0; i < 3; ++i) queue.buildAndAppendSecondIpcPackage(3, big.data(), 4);
    EXPECT_TRUE(queue.fillIpcPackageToBuffer(&small));
    EXPECT_EQ(32u, small.bufferDataCursor);  // two 16-byte frames; the third waits
    small.resetCursors();
    queue.buildAndAppendIpcPackage(big.data(), 37);  // bigger than the whole buffer
    EXPECT_FALSE(queue.fillIpcPackageToBuffer(&small));
    EXPECT_EQ(0u, queue.getIpcPackageCount());
    EXPECT_NE(std::string::npos, kavo::test::RecordedIpcErrors()
                                     .find("ErrorCode: 7\nError: fillIpcPackageToBuffer ipc package damaged\n"));
  });
}

TEST(IpcPackageDeathTest, ASendBufferPastItsEndIsFatal) {
  IpcPackageManager queue;
  queue.buildAndAppendSecondIpcPackage(3, nullptr, 0);
  BufferState broken;
  broken.buffer.resize(64);
  broken.bufferDataCursor = 65;  // its cursor ran past the storage
  EXPECT_DEATH(queue.fillNextIpcPackageToBuffer(&broken), "Check failed: bufferState->write\\(ipcPackage\\.size\\)");
}

TEST(IpcRequestCallbacks, EachResponseReachesItsRequestOnce) {
  kavo::test::LogCapture log;
  IpcReqCallBackManager callbacks;
  EXPECT_EQ(0u, callbacks.getReqId());
  EXPECT_EQ(1u, callbacks.getReqId());
  std::vector<std::string> calls;
  auto callback = [&](const std::string& name) {
    return [&calls, name](unsigned reqId, int result, char* data, unsigned dataSize) {
      calls.push_back(name + ":" + std::to_string(reqId) + ":" + std::to_string(result) + ":" +
                      std::string(data, dataSize));
      return 0;
    };
  };
  EXPECT_TRUE(callbacks.addIpcReqCallBack(7, callback("first")));
  EXPECT_FALSE(callbacks.addIpcReqCallBack(7, callback("second")));  // replaces the first
  EXPECT_TRUE(callbacks.addIpcReqCallBack(8, callback("abandoned")));
  EXPECT_TRUE(callbacks.delIpcReq(8));

  // A response body as it stands in a read buffer, at an odd offset.
  std::string bytes = "?" + U32(7) + U32(static_cast<uint32_t>(-1)) + U32(2) + "ok";
  auto* response = reinterpret_cast<const KavoRespIpcPackageHeader*>(bytes.data() + 1);
  EXPECT_TRUE(callbacks.handleReqCallBack(response));
  EXPECT_FALSE(callbacks.handleReqCallBack(response));
  EXPECT_TRUE(log.Contains("[IRCB Manager] Unknow request callback functuin: reqId: 7", ANDROID_LOG_ERROR));
  EXPECT_EQ((std::vector<std::string>{"second:7:-1:ok"}), calls);
}

}  // namespace
