#include "hal/face/HalService.h"

#include <utility>

#include "hal/face/HalInterfaces.h"
#include "hal/face/HalMethods.h"
#include "hal/face/HalNames.h"

namespace hal {
namespace {

std::string OrEmpty(const char* text) {
  return text != nullptr ? text : "";
}

/// Introspection's text if the call asks for it and there is something at its path.
std::optional<std::string> AskedIntrospection(GDBusMessage* call, const DeviceTree& tree) {
  const std::string interface = OrEmpty(g_dbus_message_get_interface(call));
  const bool asked = OrEmpty(g_dbus_message_get_member(call)) == "Introspect" &&
                     OrEmpty(g_dbus_message_get_signature(call)).empty() &&
                     (interface.empty() || interface == kIntrospectableInterface);
  if (!asked) return std::nullopt;
  return Introspect(tree, OrEmpty(g_dbus_message_get_path(call)));
}

}  // namespace

HalService::HalService(DeviceTree& tree, IVolumeActions& actions, ICallObserver* observer,
                       const std::string& address, std::function<void()> onLoss)
    : tree_(tree),
      actions_(actions),
      observer_(observer),
      onLoss_(std::move(onLoss)),
      bus_(
          address, [this](GDBusMessage* call) { OnCall(call); }, [this] { OnLoss(); }) {
  tree_.SetObserver(this);
}

HalService::~HalService() {
  tree_.SetObserver(nullptr);
}

std::optional<std::string> HalService::Connect() {
  const bool isNew = !bus_.IsConnected();
  const auto failure = bus_.Connect();
  if (isNew || session_ == nullptr) session_ = std::make_shared<Session>();
  return failure;
}

std::optional<std::string> HalService::Return() {
  if (auto failure = Connect()) return failure;
  return bus_.TakeName();
}

void HalService::Leave() {
  session_.reset();
  bus_.Close();
}

void HalService::OnLoss() {
  session_.reset();
  onLoss_();
}

void HalService::OnCall(GDBusMessage* call) {
  if (observer_ == nullptr || !observer_->TakesOver(call)) Serve(call);
}

void HalService::Serve(GDBusMessage* call) {
  if (const std::optional<CallResult> result = CarryOut(call)) Answer(call, *result);
}

/// Nullopt: the answer comes later, or has come by now.
std::optional<CallResult> HalService::CarryOut(GDBusMessage* call) {
  if (const auto text = AskedIntrospection(call, tree_)) {
    return CallResult::Values(g_variant_new("(s)", text->c_str()));
  }
  const std::string path = OrEmpty(g_dbus_message_get_path(call));
  const std::string interface = OrEmpty(g_dbus_message_get_interface(call));
  const std::string member = OrEmpty(g_dbus_message_get_member(call));
  const std::vector<std::string> interfaces = InterfacesOf(tree_, path);
  if (interfaces.empty()) {
    return CallResult::Error("org.freedesktop.Hal.NoSuchDevice", "No device with id " + path);
  }
  const Method* method = FindMethod(interfaces, interface, member);
  if (method == nullptr) {
    return CallResult::Error("org.freedesktop.DBus.Error.UnknownMethod",
                             "No method " + member + " in interface " + interface + " on " + path);
  }
  if (OrEmpty(g_dbus_message_get_signature(call)) !=
      ArgumentSignature(method->interface, method->member)) {
    return CallResult::Error("org.freedesktop.Hal.SyntaxError",
                             "There is a syntax error in the call of " + member);
  }
  const std::shared_ptr<GDBusMessage> kept(G_DBUS_MESSAGE(g_object_ref(call)), g_object_unref);
  const auto answer = [this, kept,
                       session = std::weak_ptr<Session>(session_)](const CallResult& result) {
    if (!session.expired()) Answer(kept.get(), result);
  };
  return method->carryOut(
      {tree_, actions_, tree_.Find(path), g_dbus_message_get_body(call), answer});
}

void HalService::Answer(GDBusMessage* call, const CallResult& result) {
  if (observer_ != nullptr) observer_->Answered(call, result);
  if ((g_dbus_message_get_flags(call) & G_DBUS_MESSAGE_FLAGS_NO_REPLY_EXPECTED) != 0) return;
  glib::ObjectPointer<GDBusMessage> reply;
  if (result.errorName.empty()) {
    reply.reset(g_dbus_message_new_method_reply(call));
    g_dbus_message_set_body(reply.get(), result.values.get());
  } else {
    reply.reset(g_dbus_message_new_method_error_literal(call, result.errorName.c_str(),
                                                        result.errorText.c_str()));
  }
  bus_.Send(reply.get());
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
  if (observer_ != nullptr) observer_->Sent({destination, path, interface, member, body.get()});
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

}  // namespace hal
