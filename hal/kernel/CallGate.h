#pragma once

#include "hal/face/HalService.h"
#include "hal/face/ICallObserver.h"

namespace halkernel {

/// Allows only root to mount, unmount and eject, whatever the bus's own policy says, and writes the
/// traffic on the bus to the debug log. Asks the bus for a client's user; other calls are served
/// meanwhile.
class CallGate : public hal::ICallObserver {
 public:
  /// Sets who serves and answers the calls that are taken over. Not owned. To be called before the
  /// first call.
  void SetService(hal::HalService* service) { service_ = service; }

  // ICallObserver
  bool TakesOver(GDBusMessage* call) override;
  void Answered(GDBusMessage* call, const hal::CallResult& result) override;
  void Sent(const hal::Signal& signal) override;

 private:
  hal::HalService* service_ = nullptr;
};

}  // namespace halkernel
