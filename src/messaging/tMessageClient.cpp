#include "messaging/tMessageClient.h"

#include "frame/Log.h"
#include "frame/Text.h"
#include "messaging/DataSourceInfo.h"
#include "messaging/DataSourceMessage.h"
#include "messaging/LocalStream.h"
#include "messaging/MessageFrame.h"

namespace {

constexpr std::chrono::milliseconds kTick{500};
constexpr int32_t kRetryTicks = 20;

/// An application that neither takes a connection nor reads must not hold up the daemon's end.
constexpr std::chrono::milliseconds kDeliveryTimeout{2000};

}  // namespace

void tMessageClient::PublishDataSource(DataSourceInfo& info) {
  std::string text = BuildDataSourceMessage(info);
  if (LogsAt(kLogInfo)) Log(Printable(text), kLogInfo);
  if (text.size() > kMaxMessageBytes) {
    Log("PublishDataSource: message of " + std::to_string(text.size()) +
            " bytes refused, at most " + std::to_string(kMaxMessageBytes) + " can be sent",
        kLogError);
    return;
  }
  const tMutexLock lock(m_QueueLock);
  m_Queue.push_back(std::move(text));
  m_RetryTicks = 0;
  Wake();
}

void tMessageClient::ClearPending() {
  std::deque<std::string> discarded;
  const tMutexLock lock(m_QueueLock);
  m_Queue.swap(discarded);
}

size_t tMessageClient::PendingCount() {
  const tMutexLock lock(m_QueueLock);
  return m_Queue.size();
}

void tMessageClient::StopAfterDelivery() {
  using std::chrono::steady_clock;
  const auto deadline = steady_clock::now() + kDeliveryTimeout;
  Stop();
  for (;;) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - steady_clock::now());
    if (left <= std::chrono::milliseconds::zero() || !_DeliverOne(left)) return;
  }
}

void tMessageClient::run() {
  Log("tMessageClient::run", kLogDebug);
  while (!StopRequested()) {
    WaitForWake(kTick);
    if (StopRequested()) return;
    if (!_AttemptIsDue()) continue;
    if (_DeliverOne(kDeliveryTimeout)) {
      const tMutexLock lock(m_QueueLock);
      m_RetryTicks = 0;
    }
  }
}

bool tMessageClient::_AttemptIsDue() {
  const tMutexLock lock(m_QueueLock);
  if (m_RetryTicks != 0 && m_RetryTicks != kRetryTicks) {
    ++m_RetryTicks;
    return false;
  }
  // Counted as failed in advance: a text published during the attempt resets the counter, and a
  // failure noted afterwards would make that text wait.
  m_RetryTicks = 1;
  return true;
}

bool tMessageClient::_DeliverOne(std::chrono::milliseconds timeout) {
  if (PendingCount() == 0) return false;
  tLocalStream stream(timeout);
  if (!stream.Connect(m_Port)) return false;
  std::string text;
  if (!_TakeOldest(text)) return false;
  tFrameBuffer frame;
  const size_t frameBytes = EncodeFrame(text, frame);
  Log("data size: " + std::to_string(2 * text.size()), kLogDebug);
  return stream.Send({frame.data(), frameBytes});
}

bool tMessageClient::_TakeOldest(std::string& text) {
  const tMutexLock lock(m_QueueLock);
  if (m_Queue.empty()) return false;
  text = std::move(m_Queue.front());
  m_Queue.pop_front();
  return true;
}
