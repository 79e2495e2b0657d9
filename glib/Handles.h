#pragma once

#include <gio/gio.h>

#include <memory>
#include <utility>

// Owners of GLib objects, for the tools and the hardware services.

namespace glib {

template <auto Release>
struct Releaser {
  template <typename T>
  void operator()(T* thing) const {
    Release(thing);
  }
};

/// Owns an object, or one reference to it, and releases it with `Release`.
template <typename T, auto Release>
using Pointer = std::unique_ptr<T, Releaser<Release>>;

template <typename T>
using ObjectPointer = Pointer<T, g_object_unref>;
using VariantPointer = Pointer<GVariant, g_variant_unref>;
using CharPointer = Pointer<char, g_free>;
using MainLoopPointer = Pointer<GMainLoop, g_main_loop_unref>;

/// Takes ownership of a new variant, which is still floating.
inline VariantPointer Sink(GVariant* variant) {
  return VariantPointer(g_variant_ref_sink(variant));
}

/// The error of a failed GLib call. Pass `Out()` to the call.
class ErrorHolder {
 public:
  ErrorHolder() = default;
  ErrorHolder(const ErrorHolder&) = delete;
  ErrorHolder& operator=(const ErrorHolder&) = delete;
  ~ErrorHolder() { g_clear_error(&error_); }

  GError** Out() { return &error_; }
  /// Empty if nothing has failed.
  const char* Text() const { return error_ != nullptr ? error_->message : ""; }
  bool WouldBlock() const {
    return g_error_matches(error_, G_IO_ERROR, G_IO_ERROR_WOULD_BLOCK) != FALSE;
  }

 private:
  GError* error_ = nullptr;
};

/// Owns a source of the default main context and removes it when destroyed or replaced.
class EventSource {
 public:
  EventSource() = default;

  /// Takes ownership of a source that is not attached yet, and attaches it.
  explicit EventSource(GSource* source) : source_(source) { g_source_attach(source_, nullptr); }

  EventSource(EventSource&& other) noexcept : source_(std::exchange(other.source_, nullptr)) {}
  EventSource& operator=(EventSource&& other) noexcept {
    std::swap(source_, other.source_);
    return *this;
  }
  ~EventSource() {
    if (source_ == nullptr) return;
    g_source_destroy(source_);
    g_source_unref(source_);
  }

 private:
  GSource* source_ = nullptr;
};

}  // namespace glib
