#include "tools/monitor/LoopbackCapture.h"

#include <glib-unix.h>
#include <pcap/pcap.h>

#include <utility>

namespace tools {

namespace {

constexpr const char* kInterface = "lo";
/// More than any packet of the loopback interface has.
constexpr int kSnapshotBytes = 262144;
constexpr int kBufferBytes = 4 << 20;
/// How long the kernel gathers packets. Without that it would set a whole snapshot's room aside for
/// each, and there would be none for more than a few.
constexpr int kGatherMs = static_cast<int>(LoopbackCapture::kDelay.count());
/// How many packets are taken at once, so that a flood cannot keep timers and signals waiting.
constexpr int kBatchPackets = 64;
constexpr int kMaxDrainBatches = 256;

std::string Reason(pcap* capture, int status) {
  const std::string detail = pcap_geterr(capture);
  std::string reason = std::string(": ") + pcap_statustostr(status);
  if (!detail.empty()) reason += " (" + detail + ")";
  if (status == PCAP_ERROR_PERM_DENIED)
    reason += "; it requires root, or the capability CAP_NET_RAW";
  return reason;
}

/// Sets the filter and makes reads return at once. Returns false on failure; `pcap_geterr` has the
/// reason.
bool Prepare(pcap* capture, std::uint16_t port) {
  const std::string filter = "ip host 127.0.0.1 and tcp port " + std::to_string(port);
  bpf_program program{};
  if (pcap_compile(capture, &program, filter.c_str(), 1, PCAP_NETMASK_UNKNOWN) != 0) return false;
  const int status = pcap_setfilter(capture, &program);
  pcap_freecode(&program);
  char error[PCAP_ERRBUF_SIZE];
  return status == 0 && pcap_setnonblock(capture, 1, error) == 0;
}

std::chrono::system_clock::time_point Time(const pcap_pkthdr& header) {
  const auto sinceEpoch =
      std::chrono::seconds(header.ts.tv_sec) + std::chrono::microseconds(header.ts.tv_usec);
  return std::chrono::system_clock::time_point(sinceEpoch);
}

}  // namespace

LoopbackCapture::LoopbackCapture(SegmentHandler onSegment)
    : onSegment_(std::move(onSegment)), capture_(nullptr, pcap_close) {}

LoopbackCapture::~LoopbackCapture() = default;

bool LoopbackCapture::Open(std::uint16_t port, std::string& error) {
  char reason[PCAP_ERRBUF_SIZE] = "";
  capture_.reset(pcap_create(kInterface, reason));
  if (capture_ == nullptr) {
    error = std::string("cannot capture on ") + kInterface + ": " + reason;
    return false;
  }
  pcap_set_snaplen(capture_.get(), kSnapshotBytes);
  pcap_set_buffer_size(capture_.get(), kBufferBytes);
  pcap_set_timeout(capture_.get(), kGatherMs);
  if (const int status = pcap_activate(capture_.get()); status < 0) {
    error = std::string("cannot capture on ") + kInterface + Reason(capture_.get(), status);
    return false;
  }
  if (pcap_datalink(capture_.get()) != DLT_EN10MB || !Prepare(capture_.get(), port)) {
    error = std::string("cannot capture on ") + kInterface + ": " + pcap_geterr(capture_.get());
    return false;
  }
  GSource* source = g_unix_fd_source_new(pcap_get_selectable_fd(capture_.get()), G_IO_IN);
  g_source_set_callback(source, G_SOURCE_FUNC(OnReadable), this, nullptr);
  readable_ = glib::EventSource(source);
  return true;
}

gboolean LoopbackCapture::OnReadable(int, GIOCondition, gpointer self) {
  static_cast<LoopbackCapture*>(self)->TakeBatch();
  return G_SOURCE_CONTINUE;
}

bool LoopbackCapture::TakeBatch() {
  const auto onPacket = [](u_char* self, const pcap_pkthdr* header, const u_char* bytes) {
    const auto segment = ReadSegment({reinterpret_cast<const char*>(bytes), header->caplen});
    if (segment) reinterpret_cast<LoopbackCapture*>(self)->onSegment_(*segment, Time(*header));
  };
  return pcap_dispatch(capture_.get(), kBatchPackets, onPacket, reinterpret_cast<u_char*>(this)) >
         0;
}

bool LoopbackCapture::Drain() {
  for (int batch = 0; batch < kMaxDrainBatches; ++batch) {
    if (!TakeBatch()) return true;
  }
  return false;
}

unsigned LoopbackCapture::TakeMissed() {
  pcap_stat statistics{};
  if (pcap_stats(capture_.get(), &statistics) != 0) return 0;
  return statistics.ps_drop - std::exchange(missed_, statistics.ps_drop);
}

}  // namespace tools
