#include <gmock/gmock.h>

#include <chrono>
#include <string>
#include <vector>

#include "tools/monitor/Deliveries.h"

using std::chrono::milliseconds;
using std::chrono::seconds;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using tools::Deliveries;
using tools::Endpoint;
using tools::Segment;

namespace {

using namespace std::string_literals;

constexpr Endpoint kApplication{0x7F000001, 8080};
constexpr std::uint32_t kIsn = 5000;

std::string Encoded(const std::string& text) {
  const auto number = [](std::size_t value) {
    return std::string{static_cast<char>(value >> 8), static_cast<char>(value & 0xFF)};
  };
  std::string frame = number(4 + 2 * text.size()) + "\0\0"s + number(2 * text.size());
  for (const char c : text) frame += std::string{'\0', c};
  return frame;
}

const std::string kRemoval = Encoded(
    R"(<message version="1" type="datasource"><content><dataremoval path="/media/a"/></content></message>)");

/// A network in which a test says what passes; what is shown is collected as short texts.
class Wire {
 public:
  Endpoint peer{0x7F000001, 40000};
  std::vector<std::string> shown;

  Wire()
      : deliveries_(
            kApplication,
            {[this](const tools::Received& received) {
               shown.push_back(received.message ? "removal of " + received.message->path
                                                : received.fault);
             },
             [this](const tools::Incident& incident) { shown.push_back(Text(incident)); }}) {}

  void Syn() { Pass({.from = peer, .to = kApplication, .sequence = kIsn, .syn = true}); }
  void Answer() { Pass({.from = kApplication, .to = peer, .syn = true, .ack = true}); }
  void Open() {
    Syn();
    Answer();
  }
  void Data(std::string_view bytes, std::uint32_t at = 0) {
    Pass({.from = peer,
          .to = kApplication,
          .sequence = kIsn + 1 + at,
          .ack = true,
          .payload = bytes});
  }
  void Fin(std::size_t at) {
    Pass({.from = peer,
          .to = kApplication,
          .sequence = kIsn + 1 + static_cast<std::uint32_t>(at),
          .ack = true,
          .fin = true});
  }
  void PeerReset() { Pass({.from = peer, .to = kApplication, .rst = true}); }
  void ApplicationFin() { Pass({.from = kApplication, .to = peer, .ack = true, .fin = true}); }
  void ApplicationReset() { Pass({.from = kApplication, .to = peer, .ack = true, .rst = true}); }
  void Pass(const Segment& segment) { deliveries_.Hear(segment, {}, now_); }
  void After(Deliveries::Clock::duration time) {
    now_ += time;
    deliveries_.Tick({}, now_);
  }

 private:
  static std::string Text(const tools::Incident& incident) {
    const std::string about =
        incident.message.empty() ? "" : incident.message + " of " + incident.path + ": ";
    switch (incident.mishap) {
      case tools::Mishap::Refused:
        return "refused: " + about + incident.reason;
      case tools::Mishap::Waiting:
        return "waiting: " + about + incident.reason;
      case tools::Mishap::Late:
        return "late: " + about + incident.reason;
      case tools::Mishap::Lost:
        return "lost: " + about + incident.reason;
    }
    return "";
  }

  Deliveries::Clock::time_point now_{};
  Deliveries deliveries_;
};

constexpr const char* kShown = "removal of /media/a";
constexpr const char* kLate =
    "late: removal of /media/a: the application has not closed the connection for 2 s";
constexpr const char* kLost = "the application closed the connection before it had read everything";
constexpr const char* kWaiting = "waiting: a connection has not been answered for 2 s";

TEST(Deliveries, AnAcceptedMessageIsShownOnceAndNothingElse) {
  for (const bool applicationFirst : {false, true}) {
    Wire wire;
    wire.Open();
    wire.Data(kRemoval);
    if (applicationFirst) wire.ApplicationFin();
    wire.Fin(kRemoval.size());
    if (!applicationFirst) wire.ApplicationFin();
    wire.After(seconds(60));
    EXPECT_THAT(wire.shown, ElementsAre(kShown));
  }
}

TEST(Deliveries, AMessageMayComeInAnyPiecesAndAnyOrder) {
  const std::string_view frame = kRemoval;
  const struct {
    const char* name;
    std::vector<std::pair<std::size_t, std::size_t>> pieces;  ///< from, length
  } kTable[] = {
      {"two", {{0, 3}, {3, frame.size()}}},
      {"turned round", {{10, frame.size()}, {0, 10}}},
      {"the middle last", {{0, 1}, {50, frame.size()}, {1, 49}}},
      {"twice", {{0, 20}, {0, 20}, {20, frame.size()}, {20, frame.size()}}},
      {"overlapping", {{0, 30}, {10, 40}, {40, frame.size()}}},
  };
  for (const auto& row : kTable) {
    Wire wire;
    wire.Open();
    for (const auto& [from, length] : row.pieces) {
      wire.Data(frame.substr(from, length), static_cast<std::uint32_t>(from));
    }
    wire.Fin(frame.size());
    wire.ApplicationFin();
    EXPECT_THAT(wire.shown, ElementsAre(kShown)) << row.name;
  }
}

TEST(Deliveries, AnEndThatComesBeforeItsBytesWaitsForThem) {
  Wire wire;
  wire.Open();
  wire.Fin(kRemoval.size());
  EXPECT_THAT(wire.shown, IsEmpty());
  wire.Data(kRemoval);
  EXPECT_THAT(wire.shown, ElementsAre(kShown));
}

TEST(Deliveries, WhatGoesWrongIsTold) {
  const std::string half = kRemoval.substr(0, 8);
  const std::string cut = "the frame has 8 bytes instead of " + std::to_string(kRemoval.size());
  const struct {
    const char* name;
    void (*happens)(Wire& wire);
    std::vector<std::string> shown;
  } kTable[] = {
      {"refused",
       [](Wire& wire) {
         wire.Syn();
         wire.ApplicationReset();
       },
       {"refused: nobody listens on 127.0.0.1:8080"}},
      {"reset after the message",
       [](Wire& wire) {
         wire.Open();
         wire.Data(kRemoval);
         wire.ApplicationReset();
       },
       {kShown, "lost: removal of /media/a: "s + kLost}},
      {"reset after both ends of the peer",
       [](Wire& wire) {
         wire.Open();
         wire.Data(kRemoval);
         wire.Fin(kRemoval.size());
         wire.ApplicationReset();
       },
       {kShown, "lost: removal of /media/a: "s + kLost}},
      {"reset within the message",
       [](Wire& wire) {
         wire.Open();
         wire.Data(kRemoval.substr(0, 8));
         wire.ApplicationReset();
       },
       {cut + "; the application closed the connection", "lost: "s + kLost}},
      {"reset before the message",
       [](Wire& wire) {
         wire.Open();
         wire.ApplicationReset();
       },
       {"lost: "s + kLost}},
      {"closed, then reset by the message",
       [](Wire& wire) {
         wire.Open();
         wire.ApplicationFin();
         wire.Data(kRemoval);
         wire.ApplicationReset();
       },
       {kShown, "lost: removal of /media/a: "s + kLost}},
      {"closed by the peer within the message",
       [](Wire& wire) {
         wire.Open();
         wire.Data(kRemoval.substr(0, 8));
         wire.Fin(8);
       },
       {cut + "; the peer closed the connection"}},
      {"reset by the peer within the message",
       [](Wire& wire) {
         wire.Open();
         wire.Data(kRemoval.substr(0, 8));
         wire.PeerReset();
       },
       {cut + "; the peer reset the connection"}},
      {"closed by the peer without a byte",
       [](Wire& wire) {
         wire.Open();
         wire.Fin(0);
       },
       {"no byte was sent; the peer closed the connection"}},
      {"given up by the peer unanswered",
       [](Wire& wire) {
         wire.Syn();
         wire.PeerReset();
       },
       {}},
  };
  for (const auto& row : kTable) {
    Wire wire;
    row.happens(wire);
    EXPECT_EQ(wire.shown, row.shown) << row.name;
  }
}

TEST(Deliveries, AnApplicationThatDoesNotCloseIsLateOnceAfterTwoSeconds) {
  Wire wire;
  wire.Open();
  wire.After(seconds(1));
  wire.Data(kRemoval);
  wire.Fin(kRemoval.size());
  wire.After(milliseconds(1999));
  EXPECT_THAT(wire.shown, ElementsAre(kShown));
  wire.After(milliseconds(1));
  wire.After(seconds(10));
  EXPECT_THAT(wire.shown, ElementsAre(kShown, kLate));
}

TEST(Deliveries, AConnectionThatNobodyAnswersIsTold) {
  Wire wire;
  wire.Syn();
  wire.After(seconds(1));
  wire.Syn();  // sent again by the kernel, and still the same wait
  wire.After(seconds(1));
  wire.After(seconds(1));
  EXPECT_THAT(wire.shown, ElementsAre(kWaiting));
}

TEST(Deliveries, BytesThatWereNotCapturedAreToldAndTheNextConnectionIsRead) {
  Wire wire;
  wire.Open();
  wire.Data(std::string_view(kRemoval).substr(20), 20);
  wire.Fin(kRemoval.size());
  EXPECT_THAT(wire.shown, IsEmpty());
  wire.Pass({.from = wire.peer, .to = kApplication, .sequence = kIsn + 9, .syn = true});
  EXPECT_THAT(wire.shown, ElementsAre("some of its bytes were not captured"));

  wire.shown.clear();
  ++wire.peer.port;
  wire.Open();
  for (std::uint32_t at = 1; wire.shown.empty() && at < 10'000; at += 2) wire.Data("x", at);
  EXPECT_THAT(wire.shown, ElementsAre("some of its bytes were not captured"));
}

TEST(Deliveries, WhatCanBeNoFrameIsToldOnceAndTheRestIsPassedOver) {
  Wire wire;
  wire.Open();
  const std::string garbage(40'000, '\xff');
  for (int round = 0; round < 10; ++round) {
    wire.Data(garbage, static_cast<std::uint32_t>(40'000 * round));
  }
  wire.Fin(400'000);
  EXPECT_THAT(wire.shown, ElementsAre("the first length field is 65535, a frame has 4 to 16384; "
                                      "no frame can follow"));
}

TEST(Deliveries, ManyFramesOfOneConnectionAreAllShown) {
  Wire wire;
  wire.Open();
  std::string frames;
  for (int count = 0; count < 300; ++count) frames += kRemoval;
  wire.Data(frames);
  EXPECT_THAT(wire.shown, SizeIs(300));
}

TEST(Deliveries, WhatBelongsToNoConnectionIsPassedOver) {
  Wire wire;
  wire.Data(kRemoval);
  wire.Fin(0);
  wire.ApplicationReset();
  wire.Answer();
  wire.PeerReset();
  wire.Pass({.from = kApplication, .to = kApplication, .syn = true});
  wire.Pass({.from = {0x7F000002, 8080}, .to = {0x7F000002, 1}, .syn = true});
  wire.After(seconds(60));
  EXPECT_THAT(wire.shown, IsEmpty());
}

TEST(Deliveries, NoMoreConnectionsAreFollowedThanThereIsRoomFor) {
  Wire wire;
  wire.Open();
  wire.Data(std::string_view(kRemoval).substr(0, 8));
  for (std::size_t more = 1; more < Deliveries::kMaxConnections; ++more) {
    ++wire.peer.port;
    wire.Open();
  }
  EXPECT_THAT(wire.shown, IsEmpty());
  ++wire.peer.port;
  wire.Open();
  EXPECT_THAT(wire.shown, SizeIs(1));
  EXPECT_THAT(wire.shown.back(), testing::EndsWith("; too many connections are open"));
  wire.Data(kRemoval);
  EXPECT_THAT(wire.shown.back(), kShown);
}

TEST(Deliveries, APortThatIsUsedAgainIsANewConnection) {
  Wire wire;
  wire.Open();
  wire.Data(kRemoval);
  wire.Pass({.from = wire.peer, .to = kApplication, .sequence = kIsn + 1000, .syn = true});
  wire.Answer();
  wire.Pass({.from = wire.peer,
             .to = kApplication,
             .sequence = kIsn + 1001,
             .ack = true,
             .payload = kRemoval});
  EXPECT_THAT(wire.shown, ElementsAre(kShown, kShown));
}

}  // namespace
