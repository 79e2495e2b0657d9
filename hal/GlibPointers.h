#pragma once

#include <gio/gio.h>

#include <memory>

namespace halsim {

// Owning pointers for GLib's reference-counted things: each holds one reference.

template <auto Release>
struct Releaser {
  template <typename T>
  void operator()(T* object) const {
    Release(object);
  }
};

template <typename T>
using ObjectPointer = std::unique_ptr<T, Releaser<g_object_unref>>;
using VariantPointer = std::unique_ptr<GVariant, Releaser<g_variant_unref>>;
using CharPointer = std::unique_ptr<char, Releaser<g_free>>;

/// Takes over a new, still floating variant.
inline VariantPointer Sink(GVariant* variant) {
  return VariantPointer(g_variant_ref_sink(variant));
}

/// The error text of a failed GLib call; empty while nothing failed. Pass `Out()` to the call.
class ErrorHolder {
 public:
  ErrorHolder() = default;
  ErrorHolder(const ErrorHolder&) = delete;
  ErrorHolder& operator=(const ErrorHolder&) = delete;
  ~ErrorHolder() { g_clear_error(&error_); }

  GError** Out() { return &error_; }
  const char* Text() const { return error_ != nullptr ? error_->message : ""; }

 private:
  GError* error_ = nullptr;
};

}  // namespace halsim
