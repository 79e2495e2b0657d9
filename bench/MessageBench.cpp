// Messages to the application: building one, and publishing one until it is delivered, beside the
// bare system calls that a delivery takes.

#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <thread>

#include "Allocations.h"
#include "frame/FileDescriptor.h"
#include "frame/Log.h"
#include "messaging/DataSourceInfo.h"
#include "messaging/DataSourceMessage.h"
#include "messaging/MessageFrame.h"
#include "messaging/tMessageClient.h"

namespace {

constexpr int kTexts = 10000;
constexpr std::chrono::milliseconds kTimeout{2000};

DataSourceInfo Arrival() {
  return {.arrival = true,
          .path = "/media/sda1",
          .friendlyName = " - Chart Port",
          .contentId = "C0FFEE-2023-11",
          .serialNumber = "4711-0815"};
}

/// An application on a thread of its own: takes every connection and reads it to its end.
class tApplication {
 public:
  tApplication() : m_Listener(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    m_Address.sin_family = AF_INET;
    m_Address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof m_Address;
    auto* const address = reinterpret_cast<sockaddr*>(&m_Address);
    if (bind(m_Listener.Get(), address, length) != 0 || listen(m_Listener.Get(), 128) != 0 ||
        getsockname(m_Listener.Get(), address, &length) != 0) {
      std::abort();
    }
    m_Thread = std::thread([this] { _ReadAll(); });
  }

  ~tApplication() {
    shutdown(m_Listener.Get(), SHUT_RDWR);
    m_Thread.join();
  }

  [[nodiscard]] const sockaddr_in& Address() const { return m_Address; }
  [[nodiscard]] int Port() const { return ntohs(m_Address.sin_port); }

 private:
  void _ReadAll() {
    char bytes[sizeof(tFrameBuffer)];
    for (;;) {
      const tFileDescriptor connection(accept(m_Listener.Get(), nullptr, nullptr));
      if (!connection.IsOpen()) return;
      while (recv(connection.Get(), bytes, sizeof bytes, 0) > 0) {
      }
    }
  }

  tFileDescriptor m_Listener;
  sockaddr_in m_Address{};
  std::thread m_Thread;
};

class tOpenMessageClient : public tMessageClient {
 public:
  using tMessageClient::_DeliverOne;
  using tMessageClient::tMessageClient;
};

void BuildMessage(benchmark::State& state) {
  tFrameBuffer frame;
  DataSourceInfo info = Arrival();
  for (auto _ : state) benchmark::DoNotOptimize(EncodeFrame(BuildDataSourceMessage(info), frame));
}
BENCHMARK(BuildMessage);

void CountAllocations(benchmark::State& state, size_t before) {
  state.counters["allocations"] = benchmark::Counter(
      static_cast<double>(AllocationCount() - before), benchmark::Counter::kAvgIterations);
}

void PublishToDelivered(benchmark::State& state) {
  SetLogLevel(0);
  tApplication application;
  tOpenMessageClient client(application.Port());
  DataSourceInfo info = Arrival();
  const size_t before = AllocationCount();
  for (auto _ : state) {
    client.PublishDataSource(info);
    if (!client._DeliverOne(kTimeout)) state.SkipWithError("a message was not delivered");
  }
  CountAllocations(state, before);
}
BENCHMARK(PublishToDelivered)->Iterations(kTexts);

void BareConnectSendClose(benchmark::State& state) {
  tApplication application;
  tFrameBuffer frame;
  DataSourceInfo info = Arrival();
  const size_t length = EncodeFrame(BuildDataSourceMessage(info), frame);
  const sockaddr_in address = application.Address();
  const size_t before = AllocationCount();
  for (auto _ : state) {
    const int connection = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (connect(connection, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        send(connection, frame.data(), length, MSG_NOSIGNAL) != static_cast<ssize_t>(length)) {
      state.SkipWithError("a message was not delivered");
    }
    close(connection);
  }
  CountAllocations(state, before);
}
BENCHMARK(BareConnectSendClose)->Iterations(kTexts);

}  // namespace
