#include "hal/HalService.h"

#include <algorithm>
#include <utility>

#include "hal/HalIntrospection.h"
#include "hal/HalNames.h"
#include "hal/Text.h"

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

const Method* FindMethod(const std::vector<std::string>& interfaces, const std::string& interface,
                         const std::string& member) {
  for (const Method& method : Methods()) {
    const bool there =
        std::find(interfaces.begin(), interfaces.end(), method.interface) != interfaces.end();
    if (there && member == method.member && (interface.empty() || interface == method.interface)) {
      return &method;
    }
  }
  return nullptr;
}

}  // namespace

HalService::HalService(DeviceTree& tree, VolumeMounter& mounter, Tape& tape,
                       const std::string& address)
    : tree_(tree),
      mounter_(mounter),
      tape_(tape),
      bus_(
          address, [this](GDBusMessage* call) { OnCall(call); }, [this] { OnLoss(); }) {
  tree_.SetObserver(this);
}

HalService::~HalService() {
  tree_.SetObserver(nullptr);
  for (const DelayedCall& delayed : delayed_) g_source_remove(delayed.timer);
}

std::optional<std::string> HalService::Return() {
  if (auto error = bus_.Connect()) return error;
  return bus_.TakeName();
}

void HalService::Leave(bool answerFirst) {
  while (answerFirst && !delayed_.empty()) {
    const DelayedCall delayed = std::move(delayed_.front());
    delayed_.pop_front();
    g_source_remove(delayed.timer);
    Answer(delayed.call.get(), CarryOut(delayed.call.get()));
  }
  DropDelayed();
  bus_.Close();
}

void HalService::DropDelayed() {
  for (const DelayedCall& delayed : std::exchange(delayed_, {})) {
    g_source_remove(delayed.timer);
    SayUnanswered(delayed.call.get());
  }
}

void HalService::OnLoss() {
  tape_.Line("disconnected");
  DropDelayed();
}

void HalService::OnCall(GDBusMessage* call) {
  tape_.Line("call " + CallText(call) + "(" + MembersText(g_dbus_message_get_body(call)) + ")");
  const std::optional<Fault> fault =
      faults_.Take(OrEmpty(g_dbus_message_get_member(call)), FirstText(call));
  if (fault) {
    ApplyFault(call, *fault);
  } else {
    Answer(call, CarryOut(call));
  }
}

void HalService::ApplyFault(GDBusMessage* call, const Fault& fault) {
  if (const auto* delay = std::get_if<Delay>(&fault)) {
    Postpone(call, delay->ms);
  } else if (const auto* refusal = std::get_if<Refusal>(&fault)) {
    Answer(call, CallResult::Error(refusal->errorName, refusal->text));
  } else if (const auto* odd = std::get_if<OddAnswer>(&fault)) {
    Answer(call, CallResult::Values(odd->values.get()));
  } else {
    SayUnanswered(call);
  }
}

void HalService::Postpone(GDBusMessage* call, unsigned ms) {
  DelayedCall& delayed = delayed_.emplace_back(
      DelayedCall{this, glib::ObjectPointer<GDBusMessage>(G_DBUS_MESSAGE(g_object_ref(call))), 0});
  delayed.timer = g_timeout_add(ms, &HalService::OnDelayOver, &delayed);
}

gboolean HalService::OnDelayOver(gpointer data) {
  auto* due = static_cast<DelayedCall*>(data);
  HalService* service = due->service;
  const glib::ObjectPointer<GDBusMessage> call = std::move(due->call);
  service->delayed_.remove_if([due](const DelayedCall& delayed) { return &delayed == due; });
  service->Answer(call.get(), service->CarryOut(call.get()));
  return G_SOURCE_REMOVE;
}

CallResult HalService::CarryOut(GDBusMessage* call) {
  const std::string path = OrEmpty(g_dbus_message_get_path(call));
  const std::string interface = OrEmpty(g_dbus_message_get_interface(call));
  const std::string member = OrEmpty(g_dbus_message_get_member(call));
  const std::string signature = OrEmpty(g_dbus_message_get_signature(call));
  if (member == "Introspect" && signature.empty() &&
      (interface.empty() || interface == kIntrospectableInterface)) {
    if (const auto text = Introspect(tree_, path)) {
      return CallResult::Values(g_variant_new("(s)", text->c_str()));
    }
  }
  const std::vector<std::string> interfaces = InterfacesOf(tree_, path);
  if (interfaces.empty()) {
    return CallResult::Error("org.freedesktop.Hal.NoSuchDevice", "No device with id " + path);
  }
  const Method* method = FindMethod(interfaces, interface, member);
  if (method == nullptr) {
    return CallResult::Error("org.freedesktop.DBus.Error.UnknownMethod",
                             "No method " + member + " in interface " + interface + " on " + path);
  }
  if (signature != method->in) {
    return CallResult::Error("org.freedesktop.Hal.SyntaxError",
                             "There is a syntax error in the call of " + member);
  }
  return method->carryOut({tree_, mounter_, tree_.Find(path), g_dbus_message_get_body(call)});
}

void HalService::Answer(GDBusMessage* call, const CallResult& result) {
  if ((g_dbus_message_get_flags(call) & G_DBUS_MESSAGE_FLAGS_NO_REPLY_EXPECTED) != 0) {
    SayUnanswered(call);
    return;
  }
  glib::ObjectPointer<GDBusMessage> reply;
  if (result.errorName.empty()) {
    reply.reset(g_dbus_message_new_method_reply(call));
    g_dbus_message_set_body(reply.get(), result.values.get());
    tape_.Line("reply " + CallText(call) + "(" + MembersText(result.values.get()) + ")");
  } else {
    reply.reset(g_dbus_message_new_method_error_literal(call, result.errorName.c_str(),
                                                        result.errorText.c_str()));
    tape_.Line("error-reply " + result.errorName + " " + CallText(call) + " " +
               Quote(result.errorText));
  }
  bus_.Send(reply.get());
}

void HalService::SayUnanswered(GDBusMessage* call) {
  tape_.Line("no-reply " + CallText(call));
}

std::optional<std::string> HalService::EmitRaw(const std::string& destination,
                                               const std::string& path,
                                               const std::string& interface,
                                               const std::string& member,
                                               glib::VariantPointer body) {
  if (!bus_.IsConnected()) return "the service is not connected";
  if (!bus_.Emit(destination, path, interface, member, body.get())) {
    return "the signal cannot be sent";
  }
  tape_.Line("signal " + member + " " + path + " " + interface + "(" + MembersText(body.get()) +
             ")" + (destination.empty() ? "" : " to " + destination));
  return std::nullopt;
}

void HalService::EmitManager(const char* member, const std::string& udi) {
  if (!bus_.OwnsName()) return;
  (void)EmitRaw("", kManagerPath, kManagerInterface, member,
                glib::Sink(g_variant_new("(s)", udi.c_str())));
}

void HalService::DeviceAdded(const std::string& udi) {
  EmitManager("DeviceAdded", udi);
}

void HalService::DeviceRemoved(const std::string& udi) {
  EmitManager("DeviceRemoved", udi);
}

void HalService::PropertiesModified(const std::string& udi,
                                    const std::vector<PropertyChange>& changes) {
  if (!bus_.OwnsName()) return;
  GVariantBuilder builder;
  g_variant_builder_init(&builder, G_VARIANT_TYPE("a(sbb)"));
  for (const PropertyChange& change : changes) {
    g_variant_builder_add(&builder, "(sbb)", change.key.c_str(), change.added ? TRUE : FALSE,
                          change.removed ? TRUE : FALSE);
  }
  (void)EmitRaw("", udi, kDeviceInterface, "PropertyModified",
                glib::Sink(g_variant_new("(ia(sbb))", static_cast<int>(changes.size()), &builder)));
}

}  // namespace halsim
