#include "messaging/tMessageClient.h"

#include <gmock/gmock.h>
#include <sys/socket.h>

#include "messaging/DataSourceInfo.h"
#include "messaging/DataSourceMessage.h"
#include "messaging/MessageFrame.h"
#include "support/CapturedLog.h"
#include "support/Deadline.h"
#include "support/LoopbackListener.h"
#include "support/ProgramTime.h"

using testing::Contains;
using testing::ElementsAre;

namespace {

std::string RemovalText(const std::string& path) {
  DataSourceInfo info{.path = path};
  return BuildDataSourceMessage(info);
}

std::string RemovalFrame(const std::string& path) {
  tFrameBuffer frame;
  const size_t length = EncodeFrame(RemovalText(path), frame);
  return std::string(reinterpret_cast<const char*>(frame.data()), length);
}

/// A client for the listener's port, stopped at the end of the test.
class MessageClient : public testing::Test {
 protected:
  ~MessageClient() override { m_Client.Stop(); }

  void Publish(const std::string& path) {
    DataSourceInfo info{.path = path};
    m_Client.PublishDataSource(info);
  }

  tCapturedLog m_Log;
  tLoopbackListener m_Listener;
  tMessageClient m_Client{m_Listener.Port()};
};

TEST_F(MessageClient, SendsOneFrameAConnectionOldestFirst) {
  m_Listener.Listen();
  Publish("/media/a");
  Publish("/media/b");
  m_Client.Start();
  Publish("/media/c");
  EXPECT_EQ(m_Listener.ReceiveAll(), RemovalFrame("/media/a"));
  EXPECT_EQ(m_Listener.ReceiveAll(), RemovalFrame("/media/b"));
  EXPECT_EQ(m_Listener.ReceiveAll(), RemovalFrame("/media/c"));
}

TEST_F(MessageClient, SendsAFreshTextAfterAnIdleTime) {
  m_Listener.Listen();
  m_Client.Start();
  for (const char* path : {"/media/a", "/media/b"}) {
    Publish(path);
    EXPECT_EQ(m_Listener.ReceiveAll(), RemovalFrame(path));
  }
}

TEST_F(MessageClient, KeepsTextsWhileNobodyListensAndTriesAgainWithTheNextOne) {
  m_Client.Start();
  Publish("/media/a");
  Publish("/media/b");
  m_Listener.Listen();
  Publish("/media/c");
  EXPECT_EQ(m_Listener.ReceiveAll(), RemovalFrame("/media/a"));
  EXPECT_EQ(m_Listener.ReceiveAll(), RemovalFrame("/media/b"));
  EXPECT_EQ(m_Listener.ReceiveAll(), RemovalFrame("/media/c"));
}

TEST_F(MessageClient, DoesNotWaitOutItsBackOffWhenAnotherTextComes) {
  tWaitsInHand waits;
  m_Listener.ListenWithFullQueue();
  Publish("/media/a");
  m_Client.Start();
  ASSERT_TRUE(waits.AwaitWait()) << "the first attempt is over";
  m_Listener.EmptyQueue();
  ASSERT_TRUE(waits.TimeOut());
  EXPECT_FALSE(m_Listener.HasConnection()) << "the next attempt is not due";
  Publish("/media/b");
  EXPECT_EQ(m_Listener.ReceiveAll(), RemovalFrame("/media/a"));
  ASSERT_TRUE(waits.TimeOut());
  EXPECT_EQ(m_Listener.ReceiveAll(), RemovalFrame("/media/b"));
}

TEST_F(MessageClient, SendsTheLongestTextWhole) {
  const std::string path(kMaxMessageBytes - RemovalText("").size(), 'p');
  m_Listener.Listen();
  m_Client.Start();
  Publish(path);
  EXPECT_EQ(m_Listener.ReceiveAll(), RemovalFrame(path));
}

TEST_F(MessageClient, RefusesATextThatIsTooLongWithAnErrorLine) {
  m_Listener.Listen();
  m_Client.Start();
  const std::vector<size_t> sizes{kMaxMessageBytes + 1, 40'000, 2'000'000};
  for (const size_t size : sizes) Publish(std::string(size - RemovalText("").size(), 'p'));
  Publish("/media/a");
  EXPECT_EQ(m_Listener.ReceiveAll(), RemovalFrame("/media/a"));
  m_Client.Stop();
  EXPECT_FALSE(m_Listener.HasConnection());
  EXPECT_THAT(m_Log.Lines(),
              Contains(testing::Field(&tLogLine::level, kLogError)).Times(sizes.size()));
  for (const size_t size : sizes) {
    EXPECT_TRUE(m_Log.Holds(kLogError, "PublishDataSource: message of " + std::to_string(size) +
                                           " bytes refused, at most 8190 can be sent"));
  }
}

TEST_F(MessageClient, LogsTheWholeTextWhenItIsPublishedAndItsSizeWhenItIsSent) {
  m_Listener.Listen();
  Publish("/media/a");
  EXPECT_THAT(m_Log.Lines(), ElementsAre(tLogLine{kLogInfo, RemovalText("/media/a")}));
  m_Client.Start();
  static_cast<void>(m_Listener.ReceiveAll());
  m_Client.Stop();
  const std::string size = std::to_string(2 * RemovalText("/media/a").size());
  EXPECT_THAT(m_Log.Lines(), ElementsAre(tLogLine{kLogInfo, RemovalText("/media/a")},
                                         tLogLine{kLogDebug, "tMessageClient::run"},
                                         tLogLine{kLogDebug, "data size: " + size}));
}

TEST_F(MessageClient, CorrectsTheKeyInTheCallersRecord) {
  DataSourceInfo card{.arrival = true, .memoryCard = true, .key = std::string(32, '0')};
  m_Client.PublishDataSource(card);
  EXPECT_EQ(card.key, std::string(30, '0') + "01");
}

TEST_F(MessageClient, ClearPendingDiscardsWhatWasNotSent) {
  m_Listener.Listen();
  Publish("/media/a");
  Publish("/media/b");
  m_Client.ClearPending();
  Publish("/media/c");
  m_Client.Start();
  EXPECT_EQ(m_Listener.ReceiveAll(), RemovalFrame("/media/c"));
  m_Client.Stop();
  EXPECT_FALSE(m_Listener.HasConnection());
}

TEST_F(MessageClient, ClearPendingOfAnEmptyQueueIsHarmless) {
  m_Listener.Listen();
  m_Client.ClearPending();
  m_Client.Start();
  m_Client.ClearPending();
  Publish("/media/a");
  EXPECT_EQ(m_Listener.ReceiveAll(), RemovalFrame("/media/a"));
}

TEST_F(MessageClient, GoesOnAfterAnApplicationThatResets) {
  m_Listener.Listen();
  m_Client.Start();
  Publish("/media/a");
  {
    const tFileDescriptor connection = m_Listener.Accept();
    char first = 1;
    ASSERT_EQ(read(connection.Get(), &first, 1), 1);  // the text is on its way
    const linger reset{1, 0};
    ASSERT_EQ(setsockopt(connection.Get(), SOL_SOCKET, SO_LINGER, &reset, sizeof reset), 0);
  }
  Publish("/media/b");
  EXPECT_EQ(m_Listener.ReceiveAll(), RemovalFrame("/media/b"));
}

TEST_F(MessageClient, IsNotHeldUpByAnApplicationThatNeverReads) {
  m_Listener.Listen();
  m_Client.Start();
  std::vector<tFileDescriptor> neverRead;
  const std::string path(kMaxMessageBytes - RemovalText("").size(), 'p');
  for (int message = 0; message < 3; ++message) {
    Publish(path);
    neverRead.push_back(m_Listener.Accept());
  }
  m_Client.Stop();
  EXPECT_EQ(neverRead.size(), 3U);
}

TEST_F(MessageClient, StopsWhileItsConnectionGetsNoAnswer) {
  m_Listener.ListenWithFullQueue();
  const int others = m_Listener.UnansweredConnections();
  m_Client.Start();
  Publish("/media/a");
  ASSERT_TRUE(Eventually([&] { return m_Listener.UnansweredConnections() > others; }));
  const auto start = std::chrono::steady_clock::now();
  m_Client.Stop();
  EXPECT_LT(std::chrono::steady_clock::now() - start, kDeadline);
}

TEST_F(MessageClient, StopsAtOnceWithTextsThatNobodyWants) {
  m_Client.Start();
  for (int message = 0; message < 100; ++message) Publish("/media/a");
  const auto start = std::chrono::steady_clock::now();
  m_Client.Stop();
  EXPECT_LT(std::chrono::steady_clock::now() - start, kDeadline);
}

TEST_F(MessageClient, SendsWhatWasLeftWhenItIsStartedAgain) {
  m_Client.Start();
  Publish("/media/a");
  m_Client.Stop();
  m_Listener.Listen();
  Publish("/media/b");
  m_Client.Start();
  EXPECT_EQ(m_Listener.ReceiveAll(), RemovalFrame("/media/a"));
  EXPECT_EQ(m_Listener.ReceiveAll(), RemovalFrame("/media/b"));
}

TEST_F(MessageClient, LosesNoTextOfManyPublishers) {
  constexpr int kPublishers = 3;
  m_Listener.Listen();
  std::vector<std::thread> publishers;
  std::vector<std::string> expected;
  for (int publisher = 0; publisher < kPublishers; ++publisher) {
    const std::string path = "/media/" + std::to_string(publisher);
    expected.push_back(RemovalFrame(path));
    publishers.emplace_back([this, path] { Publish(path); });
  }
  m_Client.Start();
  for (std::thread& publisher : publishers) publisher.join();
  std::vector<std::string> received;
  for (int message = 0; message < kPublishers; ++message) {
    received.push_back(m_Listener.ReceiveAll());
  }
  EXPECT_THAT(received, testing::UnorderedElementsAreArray(expected));
}

}  // namespace
