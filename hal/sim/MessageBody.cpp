#include "hal/sim/MessageBody.h"

#include <algorithm>

#include "hal/sim/CommandError.h"

namespace halsim {
namespace {

// Well below what the protocol allows, which counts arrays, structures and variants apart.
constexpr gsize kMaxDepth = 32;

/// How deep containers stand in one another, at least. The reader of the text form bounds it.
gsize Depth(GVariant* value) {
  if (!g_variant_is_container(value)) return 0;
  const gsize count = g_variant_n_children(value);
  // An empty array: its type has at most one container for each character.
  if (count == 0) return g_variant_type_get_string_length(g_variant_get_type(value));
  gsize deepest = 0;
  for (gsize index = 0; index < count; ++index) {
    const glib::VariantPointer child(g_variant_get_child_value(value, index));
    deepest = std::max(deepest, Depth(child.get()));
  }
  return deepest + 1;
}

void CheckCanBeSent(GVariant* body) {
  const std::string type = g_variant_get_type_string(body);
  if (!g_variant_is_signature(type.substr(1, type.size() - 2).c_str())) {
    throw CommandError("a message cannot carry the type " + type);
  }
  if (Depth(body) > kMaxDepth) throw CommandError("the value is nested too deeply");
  const glib::ObjectPointer<GDBusMessage> message(g_dbus_message_new_signal("/a", "a.a", "A"));
  g_dbus_message_set_serial(message.get(), 1);
  g_dbus_message_set_body(message.get(), body);
  glib::ErrorHolder error;
  gsize size = 0;
  const glib::Pointer<guchar, g_free> bytes(
      g_dbus_message_to_blob(message.get(), &size, G_DBUS_CAPABILITY_FLAGS_NONE, error.Out()));
  if (!bytes) throw CommandError(error.Text());
}

}  // namespace

glib::VariantPointer ParseMessageBody(const std::string& text) {
  if (text.empty()) return nullptr;
  glib::ErrorHolder error;
  glib::VariantPointer body(g_variant_parse(nullptr, text.c_str(), nullptr, nullptr, error.Out()));
  if (!body) throw CommandError(error.Text());
  if (!g_variant_is_of_type(body.get(), G_VARIANT_TYPE_TUPLE)) {
    throw CommandError("the value is not a tuple: a tuple of one is written (VALUE,)");
  }
  CheckCanBeSent(body.get());
  return body;
}

}  // namespace halsim
