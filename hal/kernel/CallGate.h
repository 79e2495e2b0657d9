#pragma once

#include "hal/face/HalService.h"
#include "hal/face/ICallObserver.h"

namespace halkernel {

/// Lets nobody but root mount, unmount or eject, whatever the bus's own policy says, and shows what
/// goes over the bus in the debug log. Who a client is, is asked of the bus; other calls are served
/// meanwhile.
class CallGate : public hal::ICallObserver {
 public:
  /// Who serves and answers the calls that are taken over. Not owned; before the first call.
  void SetService(hal::HalService* service) { service_ = service; }

  // ICallObserver
  bool TakesOver(GDBusMessage* call) override;
  void Answered(GDBusMessage* call, const hal::CallResult& result) override;
  void Sent(const hal::Signal& signal) override;

 private:
  hal::HalService* service_ = nullptr;
};

}  // namespace halkernel
