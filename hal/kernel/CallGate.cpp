#include "hal/kernel/CallGate.h"

#include <memory>
#include <string>

#include "hal/face/HalNames.h"
#include "hal/face/VolumeError.h"
#include "hal/kernel/Log.h"

namespace halkernel {
namespace {

std::string OrEmpty(const char* text) {
  return text != nullptr ? text : "";
}

/// SENDER MEMBER PATH
std::string CallText(GDBusMessage* call) {
  return OrEmpty(g_dbus_message_get_sender(call)) + " " + OrEmpty(g_dbus_message_get_member(call)) +
         " " + OrEmpty(g_dbus_message_get_path(call));
}

/// A call without interface may mean the volume interface's method.
bool IsForRootOnly(GDBusMessage* call) {
  const std::string interface = OrEmpty(g_dbus_message_get_interface(call));
  const std::string member = OrEmpty(g_dbus_message_get_member(call));
  return (interface.empty() || interface == hal::kVolumeInterface) &&
         (member == "Mount" || member == "Unmount" || member == "Eject");
}

}  // namespace

bool CallGate::TakesOver(GDBusMessage* call) {
  Log(LOG_DEBUG, "call " + CallText(call));
  if (!IsForRootOnly(call)) return false;
  const std::shared_ptr<GDBusMessage> kept(G_DBUS_MESSAGE(g_object_ref(call)), g_object_unref);
  service_->AskUser(
      OrEmpty(g_dbus_message_get_sender(call)), [this, kept](std::optional<unsigned> uid) {
        if (uid == 0U) {
          service_->Serve(kept.get());
          return;
        }
        service_->Answer(kept.get(),
                         hal::CallResult::Error(ErrorName(hal::VolumeFault::PermissionDenied),
                                                "Only root may mount, unmount and eject"));
      });
  return true;
}

void CallGate::Answered(GDBusMessage* call, const hal::CallResult& result) {
  if (result.errorName.empty()) return;
  Log(IsForRootOnly(call) ? LOG_NOTICE : LOG_DEBUG,
      "refused " + CallText(call) + ": " + result.errorName + ": " + result.errorText);
}

void CallGate::Sent(const hal::Signal& signal) {
  const glib::CharPointer body(signal.body != nullptr ? g_variant_print(signal.body, FALSE)
                                                      : nullptr);
  Log(LOG_DEBUG, "signal " + signal.member + " " + signal.path + OrEmpty(body.get()));
}

}  // namespace halkernel
