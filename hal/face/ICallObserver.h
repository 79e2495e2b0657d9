#pragma once

#include "hal/face/CallResult.h"

namespace hal {

/// Sees every call before it is executed, every answer, and every signal; always on the main
/// thread.
class ICallObserver {
 public:
  virtual ~ICallObserver() = default;
  /// Returns true to take the call over from the service. The observer then passes it to
  /// HalService::Serve or HalService::Answer, or to neither.
  virtual bool TakesOver(GDBusMessage* call) = 0;
  /// Called just before the answer is sent, or would be if the call expected one.
  virtual void Answered(GDBusMessage* call, const CallResult& result) = 0;
  virtual void Sent(const Signal& signal) = 0;
};

}  // namespace hal
