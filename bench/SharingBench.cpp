// Announcements and the list of shares, each beside the least that could do it. Needs a network
// with an eth0 that has a link-local address.

#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <sys/socket.h>

#include <ctime>
#include <map>
#include <string>

#include "frame/FileDescriptor.h"
#include "frame/Log.h"
#include "frame/tThread.h"
#include "sharing/ExportTable.h"
#include "sharing/IServiceBrowserCallback.h"
#include "sharing/NfsServiceMessage.h"
#include "sharing/ServiceList.h"
#include "sharing/ServicePublisher.h"
#include "sharing/SharingNames.h"

namespace {

NFS_DATA_T Service(int number) {
  NFS_DATA_T service;
  service.path = "/media/sd" + std::to_string(number);
  service.friendlyName = " - Chart Port";
  return service;
}

// ---- The publisher

class tOpenPublisher : public CServicePublisher {
 public:
  using CServicePublisher::_AnnounceAll;
  using CServicePublisher::_IsNetWorkReConfigured;
  using CServicePublisher::CServicePublisher;
};

void AnnounceAll(benchmark::State& state) {
  SetLogLevel(kLogInfo);
  tExportTable exports;
  for (int i = 0; i < state.range(0); ++i) exports.services.insert(Service(i));
  tOpenPublisher publisher(exports);
  if (!publisher._IsNetWorkReConfigured()) state.SkipWithError("eth0 has no link-local address");
  CNfsServiceMessage message;
  for (auto _ : state) {
    const tMutexLock lock(exports.mutex);
    publisher._AnnounceAll(message);
  }
}

void BareSendto(benchmark::State& state) {
  CNfsServiceMessage message;
  message.Set(kServiceAnnounced, Service(0));
  const auto datagram = message.Datagram();
  sockaddr_in group{};
  group.sin_family = AF_INET;
  group.sin_port = htons(kAnnouncementPort);
  group.sin_addr.s_addr = inet_addr(kAnnouncementGroup);
  const tFileDescriptor sender(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  const int timeToLive = kAnnouncementTimeToLive;
  setsockopt(sender.Get(), IPPROTO_IP, IP_MULTICAST_TTL, &timeToLive, sizeof timeToLive);
  for (auto _ : state) {
    for (int i = 0; i < state.range(0); ++i) {
      if (sendto(sender.Get(), datagram.data(), datagram.size(), MSG_NOSIGNAL,
                 reinterpret_cast<const sockaddr*>(&group), sizeof group) < 0) {
        state.SkipWithError("sendto failed");
      }
    }
  }
}

BENCHMARK(AnnounceAll)->RangeMultiplier(10)->Range(1, 1000);
BENCHMARK(BareSendto)->RangeMultiplier(10)->Range(1, 1000);

void Decode(benchmark::State& state) {
  CNfsServiceMessage sent;
  sent.Set(kServiceAnnounced, Service(0));
  CNfsServiceMessage received;
  for (auto _ : state) benchmark::DoNotOptimize(received.Decode(sent.Datagram()));
}
BENCHMARK(Decode);

// ---- The list

/// A share lives for thirty ticks; it is renewed before the last one.
constexpr int kTicksPerRenewal = 29;

class tReceiver : public IServiceBrowserCallback {
 public:
  bool OnServiceAdded(const NFS_DATA_T&) override { return true; }
  void OnServiceRemoved(const NFS_DATA_T&) override {}
  void OnPeerFound(const std::string&) override {}
};

class tOpenServiceList : public CServiceList {
 public:
  using CServiceList::_CountDown;
  using CServiceList::CServiceList;
};

/// Sleeps. A lock costs more in a process that has a second thread, as the daemon has.
class tSecondThread : public tThread {
 private:
  void run() override {
    while (!StopRequested()) WaitForWake(std::chrono::hours(1));
  }
};

double ThreadSeconds() {
  timespec now{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

/// Times the ticks between two renewals, which do not count themselves; the counter "ticks" says
/// how many one iteration has.
template <typename tRenew, typename tTick>
void TimeTicks(benchmark::State& state, tRenew renew, tTick tick) {
  tSecondThread second;
  second.Start();
  for (auto _ : state) {
    renew();
    const double begin = ThreadSeconds();
    for (int i = 0; i < kTicksPerRenewal; ++i) tick();
    state.SetIterationTime(ThreadSeconds() - begin);
  }
  second.Stop();
  state.counters["ticks"] = kTicksPerRenewal;
}

void ListTick(benchmark::State& state) {
  tReceiver receiver;
  tOpenServiceList list(&receiver);
  const auto count = static_cast<int>(state.range(0));
  const auto renew = [&] {
    for (int i = 0; i < count; ++i) list.Add(Service(i));
  };
  TimeTicks(state, renew, [&] { list._CountDown(); });
}

void WalkMap(benchmark::State& state) {
  std::map<std::string, NFS_DATA_T> services;
  const auto count = static_cast<int>(state.range(0));
  const auto renew = [&] {
    for (int i = 0; i < count; ++i) services[Service(i).path] = Service(i);
  };
  TimeTicks(state, renew, [&] {
    for (auto& [path, service] : services) service.remainingLifeMs -= 100;
    benchmark::ClobberMemory();
  });
}

BENCHMARK(ListTick)->RangeMultiplier(10)->Range(1, 10'000)->UseManualTime();
BENCHMARK(WalkMap)->RangeMultiplier(10)->Range(1, 10'000)->UseManualTime();

}  // namespace
