#pragma once

#include <list>
#include <string>

#include "hal/face/HalService.h"
#include "hal/face/ICallObserver.h"
#include "hal/sim/CallFaults.h"
#include "hal/sim/LineOutput.h"

namespace halsim {

/// Prints the traffic on the bus, and applies the waiting faults to calls.
class SimCalls : public hal::ICallObserver {
 public:
  explicit SimCalls(LineOutput& output) : output_(output) {}
  ~SimCalls() override;
  SimCalls(const SimCalls&) = delete;
  SimCalls& operator=(const SimCalls&) = delete;

  /// Sets who serves and answers the calls that are taken over. Not owned. To be called before the
  /// first call.
  void SetService(hal::HalService* service) { service_ = service; }

  CallFaults& Faults() { return faults_; }
  /// Serves the delayed calls.
  void ServeDelayed();
  /// Leaves the delayed calls without an answer for good.
  void DropDelayed();

  // ICallObserver
  bool TakesOver(GDBusMessage* call) override;
  void Answered(GDBusMessage* call, const hal::CallResult& result) override;
  void Sent(const hal::Signal& signal) override;

 private:
  struct DelayedCall {
    SimCalls* calls;
    glib::ObjectPointer<GDBusMessage> call;
    guint timer;
  };

  void Apply(const Fault& fault, GDBusMessage* call);
  void Postpone(GDBusMessage* call, unsigned ms);
  static gboolean OnDelayOver(gpointer data);
  void SayUnanswered(GDBusMessage* call);

  LineOutput& output_;
  hal::HalService* service_ = nullptr;
  CallFaults faults_;
  std::list<DelayedCall> delayed_;
};

}  // namespace halsim
