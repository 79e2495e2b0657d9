#pragma once

#include "hal/face/CallResult.h"

namespace hal {

/// Sees every call before it is carried out, every answer, and every signal. All of it on the main
/// thread.
class ICallObserver {
 public:
  virtual ~ICallObserver() = default;
  /// True: the service leaves this call alone. The observer then hands it to HalService::Serve or
  /// HalService::Answer, or to neither.
  virtual bool TakesOver(GDBusMessage* call) = 0;
  /// Just before the answer is sent; also for a call that wants no answer and gets none.
  virtual void Answered(GDBusMessage* call, const CallResult& result) = 0;
  virtual void Sent(const Signal& signal) = 0;
};

}  // namespace hal
