#include "hal/sim/SimCalls.h"

#include <optional>
#include <utility>
#include <variant>

#include "hal/sim/Quoting.h"

namespace halsim {
namespace {

std::string OrEmpty(const char* text) {
  return text != nullptr ? text : "";
}

/// The members of a tuple as text, without its parentheses.
std::string MembersText(GVariant* tuple) {
  std::string text;
  const gsize count = tuple != nullptr ? g_variant_n_children(tuple) : 0;
  for (gsize index = 0; index < count; ++index) {
    const glib::VariantPointer child(g_variant_get_child_value(tuple, index));
    const glib::CharPointer printed(g_variant_print(child.get(), FALSE));
    if (index > 0) text += ", ";
    text += printed.get();
  }
  return text;
}

/// SENDER PATH INTERFACE.MEMBER; without the interface when the call names none.
std::string CallText(GDBusMessage* call) {
  const std::string interface = OrEmpty(g_dbus_message_get_interface(call));
  return OrEmpty(g_dbus_message_get_sender(call)) + " " + OrEmpty(g_dbus_message_get_path(call)) +
         " " + interface + (interface.empty() ? "" : ".") +
         OrEmpty(g_dbus_message_get_member(call));
}

std::optional<std::string> FirstText(GDBusMessage* call) {
  GVariant* body = g_dbus_message_get_body(call);
  if (body == nullptr || g_variant_n_children(body) == 0) return std::nullopt;
  const glib::VariantPointer first(g_variant_get_child_value(body, 0));
  if (!g_variant_is_of_type(first.get(), G_VARIANT_TYPE_STRING)) return std::nullopt;
  return g_variant_get_string(first.get(), nullptr);
}

bool WantsNoAnswer(GDBusMessage* call) {
  return (g_dbus_message_get_flags(call) & G_DBUS_MESSAGE_FLAGS_NO_REPLY_EXPECTED) != 0;
}

}  // namespace

SimCalls::~SimCalls() {
  for (const DelayedCall& delayed : delayed_) g_source_remove(delayed.timer);
}

void SimCalls::ServeDelayed() {
  while (!delayed_.empty()) {
    const DelayedCall delayed = std::move(delayed_.front());
    delayed_.pop_front();
    g_source_remove(delayed.timer);
    service_->Serve(delayed.call.get());
  }
}

void SimCalls::DropDelayed() {
  for (const DelayedCall& delayed : std::exchange(delayed_, {})) {
    g_source_remove(delayed.timer);
    SayUnanswered(delayed.call.get());
  }
}

bool SimCalls::TakesOver(GDBusMessage* call) {
  output_.Line("call " + CallText(call) + "(" + MembersText(g_dbus_message_get_body(call)) + ")");
  const std::optional<Fault> fault =
      faults_.Take(OrEmpty(g_dbus_message_get_member(call)), FirstText(call));
  if (fault) Apply(*fault, call);
  return fault.has_value();
}

void SimCalls::Apply(const Fault& fault, GDBusMessage* call) {
  if (const auto* delay = std::get_if<Delay>(&fault)) {
    Postpone(call, delay->ms);
  } else if (const auto* refusal = std::get_if<Refusal>(&fault)) {
    service_->Answer(call, hal::CallResult::Error(refusal->errorName, refusal->text));
  } else if (const auto* odd = std::get_if<OddAnswer>(&fault)) {
    service_->Answer(call, hal::CallResult::Values(odd->values.get()));
  } else {
    SayUnanswered(call);
  }
}

void SimCalls::Postpone(GDBusMessage* call, unsigned ms) {
  DelayedCall& delayed = delayed_.emplace_back(
      DelayedCall{this, glib::ObjectPointer<GDBusMessage>(G_DBUS_MESSAGE(g_object_ref(call))), 0});
  delayed.timer = g_timeout_add(ms, &SimCalls::OnDelayOver, &delayed);
}

gboolean SimCalls::OnDelayOver(gpointer data) {
  auto* due = static_cast<DelayedCall*>(data);
  SimCalls* calls = due->calls;
  const glib::ObjectPointer<GDBusMessage> call = std::move(due->call);
  calls->delayed_.remove_if([due](const DelayedCall& delayed) { return &delayed == due; });
  calls->service_->Serve(call.get());
  return G_SOURCE_REMOVE;
}

void SimCalls::Answered(GDBusMessage* call, const hal::CallResult& result) {
  if (WantsNoAnswer(call)) {
    SayUnanswered(call);
  } else if (result.errorName.empty()) {
    output_.Line("reply " + CallText(call) + "(" + MembersText(result.values.get()) + ")");
  } else {
    output_.Line("error-reply " + result.errorName + " " + CallText(call) + " " +
                 Quote(result.errorText));
  }
}

void SimCalls::SayUnanswered(GDBusMessage* call) {
  output_.Line("no-reply " + CallText(call));
}

void SimCalls::Sent(const hal::Signal& signal) {
  output_.Line("signal " + signal.member + " " + signal.path + " " + signal.interface + "(" +
               MembersText(signal.body) + ")" +
               (signal.destination.empty() ? "" : " to " + signal.destination));
}

}  // namespace halsim
