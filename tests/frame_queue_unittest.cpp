// A client's outgoing queue under a stream of events: the frames it stores
// back to back keep their order and bytes across its blocks, and packing a
// send buffer in one go sends exactly what package-by-package packing sends.

#include <string.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/harness.h"
#include "support/ipc_error_capture.h"
#include "utils/kavo_bpf_ipc_frame_queue.h"
#include "utils/kavo_bpf_ipc_package.h"

namespace {

// What the framework loses, as its user would record it.
[[maybe_unused]] const bool kCapturing = (kavo::test::CaptureIpcErrors(), true);

std::string Pattern(uint32_t size, char seed) {
  std::string bytes(size, '\0');
  for (uint32_t i = 0; i < size; ++i) bytes[i] = static_cast<char>(seed + i * 7);
  return bytes;
}

void Push(FrameQueue* queue, const std::string& bytes) {
  memcpy(queue->push(static_cast<uint32_t>(bytes.size())), bytes.data(), bytes.size());
}

std::string PopFront(FrameQueue* queue) {
  std::string bytes(queue->frontBytes(), queue->frontSize());
  queue->pop();
  return bytes;
}

TEST(FrameQueue, FramesComeOutInOrderWholeAcrossBlocksAndStartsOver) {
  FrameQueue queue;
  // A burst of events, a package bigger than any block, and empty packages,
  // with the reader falling behind and catching up again.
  std::vector<std::string> sent;
  for (int i = 0; i < 1000; ++i) sent.push_back(Pattern(40 + i % 13, static_cast<char>(i)));
  sent.insert(sent.begin() + 500, Pattern(40000, 'b'));
  sent.insert(sent.begin() + 700, std::string());
  size_t next = 0;
  for (size_t i = 0; i < sent.size(); ++i) {
    Push(&queue, sent[i]);
    if (i % 3 == 0) {
      EXPECT_EQ(sent[next++], PopFront(&queue));
    }
  }
  EXPECT_EQ(sent.size() - next, queue.count());
  while (!queue.empty()) ASSERT_EQ(sent[next++], PopFront(&queue)) << next;
  EXPECT_EQ(sent.size(), next);

  // Drained: the next frames start the storage over, big or small.
  Push(&queue, Pattern(20000, 'x'));
  Push(&queue, "after");
  EXPECT_EQ(Pattern(20000, 'x'), PopFront(&queue));
  EXPECT_EQ("after", PopFront(&queue));
  EXPECT_TRUE(queue.empty());
}

// What the client reads: every send buffer the queue fills, one after the
// other, each filled by |fill|.
template <typename Fill>
std::string Drain(IpcPackageManager* queue, Fill fill) {
  std::string sent;
  BufferState buffer;
  buffer.buffer.resize(32768);
  for (int round = 0; round < 100 && queue->getIpcPackageCount() != 0; ++round) {
    buffer.resetCursors();
    fill(queue, &buffer);
    sent += "|" + std::string(buffer.data(), buffer.bufferDataCursor);
  }
  return sent;
}

TEST(IpcPackage, PackingABufferInOneGoSendsWhatPackingOneByOneSends) {
  kavo::test::RunInNamespace([] {
    // Events of a busy second, a package no send buffer can take, then more.
    auto load = [](IpcPackageManager* queue) {
      for (int i = 0; i < 3000; ++i) {
        std::string event = Pattern(40, static_cast<char>(i));
        queue->buildAndAppendSecondIpcPackage(3, &event[0], static_cast<unsigned>(event.size()));
      }
      std::string huge = Pattern(32765, 'h');
      queue->buildAndAppendIpcPackage(&huge[0], static_cast<unsigned>(huge.size()));
      KavoRespIpcPackage response;
      response.reqId = 9;
      queue->appendRespIpcPackage(&response);
      std::string big = Pattern(32764, 'g');  // with its size, exactly a buffer
      queue->buildAndAppendIpcPackage(&big[0], static_cast<unsigned>(big.size()));
    };

    IpcPackageManager oneByOne, inOneGo;
    load(&oneByOne);
    load(&inOneGo);
    const std::string expected = Drain(&oneByOne, [](IpcPackageManager* q, BufferState* b) {
      while (q->fillNextIpcPackageToBuffer(b)) {
      }
    });
    const std::string afterOne = kavo::test::RecordedIpcErrors();
    EXPECT_NE(std::string::npos, afterOne.find("ErrorCode: 8\nError: fillNextIpcPackageToBuffer ipc package damaged\n"));

    size_t moved = 0;
    const std::string actual = Drain(&inOneGo, [&moved](IpcPackageManager* q, BufferState* b) {
      moved += q->fillNextIpcPackagesToBuffer(b);
    });
    EXPECT_EQ(expected.size(), actual.size());
    EXPECT_TRUE(expected == actual);
    EXPECT_EQ(3002u, moved);  // all but the one dropped
    EXPECT_EQ(0u, inOneGo.getIpcPackageCount());
    // The dropped package is on the record again, once more.
    const std::string afterBoth = kavo::test::RecordedIpcErrors();
    size_t records = 0;
    for (size_t at = afterBoth.find("ErrorCode: 8\n"); at != std::string::npos;
         at = afterBoth.find("ErrorCode: 8\n", at + 1)) {
      ++records;
    }
    EXPECT_EQ(2u, records);
  });
}

}  // namespace
