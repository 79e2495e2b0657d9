#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <thread>

#include "sharing/UdpRxSocket.h"
#include "sharing/UdpTxSocket.h"
#include "support/CapturedLog.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

using tBytes = std::vector<uint8_t>;

constexpr in_addr_t kLoopback = INADDR_LOOPBACK;

/// A datagram socket bound to a free port of every address, which nobody else can take meanwhile.
class tTakenPort {
 public:
  explicit tTakenPort(in_addr_t on = INADDR_ANY)
      : m_Socket(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(on);
    socklen_t length = sizeof address;
    EXPECT_EQ(bind(m_Socket.Get(), reinterpret_cast<const sockaddr*>(&address), length), 0);
    EXPECT_EQ(getsockname(m_Socket.Get(), reinterpret_cast<sockaddr*>(&address), &length), 0);
    m_Port = ntohs(address.sin_port);
  }

  [[nodiscard]] uint16_t Port() const { return m_Port; }
  [[nodiscard]] int Get() const { return m_Socket.Get(); }

 private:
  tFileDescriptor m_Socket;
  uint16_t m_Port = 0;
};

/// A port for the test's own sockets, which the kernel gives to nobody meanwhile: it is taken on an
/// address that nothing is sent to.
class tOwnPort {
 public:
  tOwnPort() {
    const int on = 1;
    EXPECT_EQ(setsockopt(m_Holder.Get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on), 0);
  }

  operator uint16_t() const { return m_Holder.Port(); }

 private:
  tTakenPort m_Holder{0x7F000002};  // 127.0.0.2
};

/// Sends from an own address to a port of this machine.
void SendTo(uint16_t port, const tBytes& bytes) {
  CUdpTxSocket sender;
  ASSERT_TRUE(sender.Create(1));
  sender.SetAddress("127.0.0.1", port);
  ASSERT_TRUE(sender.TxPacket(bytes));
}

TEST(UdpTxSocket, SendsOneDatagramToItsDestination) {
  const tTakenPort receiver;
  CUdpTxSocket byText;
  CUdpTxSocket byNumber;
  ASSERT_TRUE(byText.Create(5));
  ASSERT_TRUE(byNumber.Create(5));
  EXPECT_TRUE(byText.SetAddress("127.0.0.1", receiver.Port()));
  EXPECT_TRUE(byNumber.SetAddress(kLoopback, receiver.Port()));
  const tBytes bytes{1, 0, 2, 0xFF};
  for (CUdpTxSocket* sender : {&byText, &byNumber}) {
    ASSERT_TRUE(sender->TxPacket(bytes));
    tBytes received(10);
    const ssize_t length = recv(receiver.Get(), received.data(), received.size(), 0);
    ASSERT_EQ(length, 4);
    received.resize(4);
    EXPECT_EQ(received, bytes);
  }
}

TEST(UdpTxSocket, SendsAnEmptyDatagram) {
  const tTakenPort receiver;
  SendTo(receiver.Port(), {});
  uint8_t byte = 0;
  EXPECT_EQ(recv(receiver.Get(), &byte, 1, 0), 0);
}

TEST(UdpTxSocket, IsBoundToThePortAsItStandsInNetworkOrder) {
  const tOwnPort port;
  const tTakenPort receiver;
  CUdpTxSocket sender;
  ASSERT_TRUE(sender.Create(1));
  ASSERT_TRUE(sender.Bind("127.0.0.1", htons(port)));
  sender.SetAddress(kLoopback, receiver.Port());
  ASSERT_TRUE(sender.TxPacket(tBytes{1}));
  sockaddr_in source{};
  socklen_t length = sizeof source;
  uint8_t byte = 0;
  ASSERT_EQ(recvfrom(receiver.Get(), &byte, 1, 0, reinterpret_cast<sockaddr*>(&source), &length),
            1);
  EXPECT_EQ(ntohs(source.sin_port), port);
}

TEST(UdpTxSocket, KeepsTheErrorOfACallThatFails) {
  CUdpTxSocket sender;
  EXPECT_EQ(sender.LastError(), 0);
  ASSERT_TRUE(sender.Create(1));
  EXPECT_FALSE(sender.Bind("192.0.2.1", 0)) << "an address that is not this machine's";
  EXPECT_EQ(sender.LastError(), EADDRNOTAVAIL);
  sender.SetAddress("127.0.0.1", 9);
  EXPECT_FALSE(sender.TxPacket(tBytes(70'000)));
  EXPECT_EQ(sender.LastError(), EMSGSIZE);
}

TEST(UdpTxSocketDeathTest, NeedsADestination) {
  CUdpTxSocket sender;
  EXPECT_DEATH(
      sender.TxPacket(tBytes{1}),
      "voldrake: UdpTxSocket:[0-9]+: .*TxPacket.*: Assertion `m_AddressSet == true' failed");
}

TEST(UdpRxSocket, ReceivesADatagramAndTellsItsSender) {
  CUdpRxSocket socket;
  const tOwnPort port;
  ASSERT_TRUE(socket.CreateSocket(port));
  SendTo(port, {1, 2, 3});
  tBytes buffer(10);
  size_t length = 0;
  in_addr_t sender = 0;
  ASSERT_TRUE(socket.ReadFrom(buffer, &length, &sender));
  EXPECT_EQ(length, 3U);
  EXPECT_EQ(tBytes(buffer.begin(), buffer.begin() + 3), (tBytes{1, 2, 3}));
  EXPECT_EQ(sender, kLoopback);
}

TEST(UdpRxSocket, CutsADatagramToTheBuffer) {
  CUdpRxSocket socket;
  const tOwnPort port;
  ASSERT_TRUE(socket.CreateSocket(port));
  SendTo(port, {1, 2, 3});
  SendTo(port, {});
  tBytes buffer(2);
  size_t length = 0;
  ASSERT_TRUE(socket.ReadFrom(buffer, &length, nullptr));
  EXPECT_EQ(length, 2U);
  EXPECT_EQ(buffer, (tBytes{1, 2}));
  ASSERT_TRUE(socket.ReadFrom(buffer, &length, nullptr)) << "an empty datagram is one too";
  EXPECT_EQ(length, 0U);
}

TEST(UdpRxSocket, SharesItsPortWithOthersOfItsKindOnly) {
  const tCapturedLog log;
  const tOwnPort port;
  CUdpRxSocket first;
  CUdpRxSocket second;
  EXPECT_TRUE(first.CreateSocket(port));
  EXPECT_TRUE(second.CreateSocket(port));
  const tTakenPort taken;
  CUdpRxSocket third;
  EXPECT_FALSE(third.CreateSocket(taken.Port()));
  EXPECT_EQ(third.LastError(), EADDRINUSE);
  EXPECT_THAT(log.Lines(),
              ElementsAre(tLogLine{kLogInfo,
                                   "CUdpRxSocket::CreateSocket: Binding socket failed! "
                                   "Error: " +
                                       std::to_string(EADDRINUSE)}));
}

TEST(UdpRxSocket, NeverReturnsADatagramOfItsOwnUnit) {
  CUdpRxSocket socket;
  const tOwnPort port;
  ASSERT_TRUE(socket.CreateSocket(port));
  SendTo(port, {1});
  SendTo(port, {2});
  socket.Shutdown();  // what is queued is still read first
  tBytes buffer(10);
  size_t length = 0;
  std::string sender = "nobody";
  bool isPeer = true;
  EXPECT_EQ(socket.FilteredRead(buffer, &length, &sender, isPeer), tReadResult::kFailed);
  EXPECT_EQ(sender, "nobody");
  EXPECT_FALSE(isPeer);
}

TEST(UdpRxSocket, ShutdownEndsABlockedReadAndEveryLaterOneInSilence) {
  const tOwnPort port;
  CUdpRxSocket socket;
  ASSERT_TRUE(socket.CreateSocket(port));
  const tCapturedLog log;
  std::thread stopper([&] { socket.Shutdown(); });
  tBytes buffer(10);
  size_t length = 0;
  EXPECT_FALSE(socket.ReadFrom(buffer, &length, nullptr));
  stopper.join();
  EXPECT_FALSE(socket.ReadFrom(buffer, &length, nullptr));
  EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST(UdpRxSocket, CloseReportsThePortOnceAndNothingWithoutASocket) {
  const tCapturedLog log;
  const tOwnPort port;
  {
    CUdpRxSocket socket;
    socket.Close();
    EXPECT_THAT(log.Lines(), IsEmpty());
    ASSERT_TRUE(socket.CreateSocket(port));
    socket.Close();
    socket.Close();
  }
  EXPECT_THAT(log.Lines(), ElementsAre(tLogLine{kLogInfo, "CUdpRxSocket::Close: Closing port: " +
                                                              std::to_string(port)}));
}

TEST(UdpRxSocket, ReportsTheErrorOfAReadTwice) {
  const tCapturedLog log;
  CUdpRxSocket socket;
  tBytes buffer(1);
  size_t length = 0;
  EXPECT_FALSE(socket._BlockingRead(buffer, &length, nullptr));
  const std::string number = std::to_string(EBADF);
  EXPECT_EQ(socket.LastError(), EBADF);
  EXPECT_THAT(log.Lines(),
              ElementsAre(tLogLine{kLogInfo, "CUdpRxSocket::_BlockingRead: recvmsg failed! Port: " +
                                                 number + " Error: " + number}));
}

TEST(UdpRxSocket, ReportsAGroupThatItCannotJoinOrLeave) {
  const tCapturedLog log;
  const tOwnPort port;
  CUdpRxSocket socket;
  ASSERT_TRUE(socket.CreateSocket(port));
  EXPECT_FALSE(socket._AddMultiCast("127.0.0.1")) << "no multicast group";
  const std::string addError = std::to_string(socket.LastError());
  EXPECT_FALSE(socket._DropMultiCast("127.0.0.1"));
  const std::string dropError = std::to_string(socket.LastError());
  EXPECT_FALSE(socket._DropSavedMultiCast()) << "false in every case";
  EXPECT_THAT(log.Lines(),
              ElementsAre(tLogLine{kLogInfo,
                                   "CUdpRxSocket::_AddMultiCast: setsockopt(IP_ADD_MEMBERSHIP) "
                                   "failed! Error: " +
                                       addError},
                          tLogLine{kLogInfo,
                                   "CUdpRxSocket::_DropMultiCast: "
                                   "setsockopt(IP_DROP_MEMBERSHIP) failed! Error: " +
                                       dropError}));
}

TEST(UdpRxSocket, ReadsThePeersAddressInItsColonForm) {
  const struct {
    const char* text;
    bool valid;
  } cases[] = {
      {"", true},
      {"00:11:22:aa:BB:ff", true},
      {"0:1:2:a:b:f", true},
      {"00:11:22:33:44", false},
      {"00-11-22-33-44-55", false},
      {"001122334455", false},
      {"gg:11:22:33:44:55", false},
      {"peer", false},
  };
  for (const auto& [text, valid] : cases) {
    const tCapturedLog log;
    CUdpRxSocket socket;
    EXPECT_EQ(socket.SetPeerMac(text), valid) << text;
    if (valid) {
      EXPECT_THAT(log.Lines(), IsEmpty()) << text;
    } else {
      EXPECT_THAT(log.Lines(), ElementsAre(tLogLine{
                                   kLogError, std::string("Invalid peer MAC address: ") + text}));
    }
  }
}

TEST(UdpRxSocketDeathTest, NeedsAPlaceForTheLength) {
  CUdpRxSocket socket;
  tBytes buffer(1);
  EXPECT_DEATH(static_cast<void>(socket._BlockingRead(buffer, nullptr, nullptr)),
               "voldrake: UdpRxSocket:[0-9]+: .*_BlockingRead.*: Assertion `lenRx != 0' failed");
}

}  // namespace
